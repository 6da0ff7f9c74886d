"""The real fleet's ways with what does not go well: a phase that fails, and no right to count packets."""

import re
import sys

import pytest
from builds import REPOSITORY
from gateway import BUILD, SANITIZED

sys.path.append(str(REPOSITORY / "bench"))
import fleet_real  # noqa: E402  (after the path)
import fleet_sizing  # noqa: E402
import run  # noqa: E402
from plots import Plots  # noqa: E402

pytestmark = pytest.mark.skipif(SANITIZED, reason="measured is what is shipped")


@pytest.fixture
def fleet(tmp_path):
    fleet = fleet_real.Fleet(run.Bench(BUILD, tmp_path, smoke=True), (60, 1))
    yield fleet
    fleet.end()


def test_phase_that_fails_ends_its_counter(fleet):
    if not (counter := fleet_real.packet_counter(fleet.nginx.ports["good"])):
        pytest.skip("needs the right to count packets")
    counter.end()
    phase = fleet_real.Phase(fleet, {}, "steady", counts_packets=True)
    with pytest.raises(ValueError, match="^as it goes$"), phase:
        raise ValueError("as it goes")
    assert not phase.packets.thread.is_alive() and phase.packets.socket.fileno() == -1
    assert phase.results == {}


def test_phase_of_other_handshakes_than_it_is_named_after_is_refused(fleet):
    fleet.poll = (1, 1)
    fleet.publish("1001")
    fleet.start()
    fleet.wait_for(1)
    with pytest.raises(AssertionError, match="^steady: "):
        fleet_real.steady(fleet, {}, "steady", 2, "full")


def test_page_tells_no_bytes_that_were_not_counted(tmp_path):
    results = fleet_sizing.kept("fleet_real")
    for phase in ("full", "steady"):
        results[phase].pop("packets", None)
    text = fleet_real.render(results, Plots(tmp_path))
    assert "Bytes were not counted, for which `scripts/bench` has to be run as root." in " ".join(text.split())
    assert len(re.findall(r"^\| (?:full|resumed) \|.* ms(?: \| not counted){3} \|$", text, re.MULTILINE)) == 2

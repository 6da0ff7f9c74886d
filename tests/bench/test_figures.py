"""What figures are computed with: the orders in which commands run, the instructions of a profile, the defaults."""

import collections
import subprocess
import sys

import pytest
from builds import REPOSITORY
from gateway import DAEMON, SANITIZED, STARTED, wait_for

sys.path.append(str(REPOSITORY / "bench"))
import callgrind  # noqa: E402  (from the folder named just before)
import check  # noqa: E402
import compare  # noqa: E402
import gateways  # noqa: E402
import machine  # noqa: E402
import measure  # noqa: E402
import startup  # noqa: E402
import update  # noqa: E402

pytestmark = pytest.mark.skipif(SANITIZED, reason="measured is what is shipped")


@pytest.mark.parametrize("count", range(2, 9))
def test_each_contender_has_each_place_and_follows_each_other_equally_often(count):
    orders = measure.orders(count)
    places = collections.Counter(pair for order in orders for pair in enumerate(order))
    pairs = collections.Counter(pair for order in orders for pair in zip(order, order[1:]))
    assert all(sorted(order) == list(range(count)) for order in orders)
    assert (len(places), len(set(places.values()))) == (count * count, 1)
    assert (len(pairs), len(set(pairs.values()))) == (count * (count - 1), 1)


def test_contenders_run_in_these_orders_over_and_over():
    ran = []
    contenders = {name: lambda name=name: ran.append(name) or {"wall": len(ran)} for name in "abc"}
    costs = measure.in_turn(contenders, 7)
    orders = measure.orders(3)
    assert ["".join(ran[3 * i : 3 * i + 3]) for i in range(7)] == [
        "".join("abc"[number] for number in order) for order in [*orders, orders[0]]
    ]
    assert costs["b"] == [{"wall": 3 * i + ran[3 * i : 3 * i + 3].index("b") + 1} for i in range(7)]


@pytest.mark.parametrize(
    "rounds, contenders",
    [
        *((rounds, len(update.TITLES)) for rounds in update.SIZES.values()),
        (check.ROUNDS, 3),
        (startup.ROUNDS, len(startup.WHOLE)),
        (startup.FIRST_ROUNDS, len(startup.FIRST)),
        *((rounds, 2) for rounds in (*compare.UPDATES.values(), compare.CHECKS, compare.STARTS, compare.PEAKS)),
    ],
)
def test_rounds_are_whole_sets_of_orders(rounds, contenders):
    assert rounds % len(measure.orders(contenders)) == 0


def test_instructions_of_a_profile_come_to_its_total(tmp_path):
    out = tmp_path / "callgrind.out"
    command = [*callgrind.prefix(out), DAEMON, "--help"]
    subprocess.run(command, stdout=subprocess.DEVNULL, check=True, timeout=60)
    counts = callgrind.counts(out)
    assert counts.total() == int(out.read_text().rsplit("totals:", 1)[1])
    assert DAEMON.name in counts and counts["ld-linux-x86-64.so.2"] > 0


PROFILE = """\
events: Ir
ob=(1) /usr/bin/program
fn=(1) main
3 10
+2 5
cob=(2) /lib/library.so
cfn=(2) work
calls=1 7
* 100
fi=(3) /usr/include/inlined
9 20
ob=(2)
fn=(2)
7 100
totals: 135
"""


def test_inlined_functions_count_for_the_program_and_calls_for_the_library():
    assert callgrind.counts_of(PROFILE.splitlines()) == {"program": 35, "library.so": 100}


@pytest.mark.parametrize("damage", [("totals: 135", "totals: 136"), ("7 100\n", ""), ("totals: 135\n", "")])
def test_profile_that_does_not_come_to_its_total_is_refused(damage):
    with pytest.raises(AssertionError, match="instructions are listed"):
        callgrind.counts_of(PROFILE.replace(*damage).splitlines())


def test_defaults_that_costs_are_scaled_to_are_the_daemons(gateway, closed_port):
    gateway.settings["mirror_base_url"] = f"https://127.0.0.1:{closed_port}"
    process = gateway.start()
    wait_for(lambda: gateway.log_path.exists() and "loop started" in gateway.log_path.read_text(), process)
    assert STARTED.format(gateways.INTERVAL_S, gateways.JITTER_S) in gateway.take_log()


def test_handshakes_are_told_from_connections_and_sessions():
    lines = [line.split() for line in ("4 . 200", "4 . 200", "5 r 200", "5 r 200", "6 . 200", "4 . 200")]
    assert list(check.handshakes(lines)) == ["full", "none", "resumed", "none", "full", "full"]


def test_file_system_that_cannot_be_told_is_unknown(tmp_path):
    assert machine.file_system(tmp_path / "missing") == "unknown"
    assert machine.file_system(tmp_path) != "unknown"

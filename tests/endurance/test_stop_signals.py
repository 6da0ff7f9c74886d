"""Stop signals at random moments and in storms: the daemon always ends cleanly, after the cycle at hand.

The model is stopped where the first signal came, and has to give the same events and the same disk."""

import pathlib
import random
import shutil
import time
from collections import Counter
from signal import SIGINT, SIGTERM

import pytest
from gateway import Gateway
from mirrors import Mirror
from model import Pace, model_of
from model_disk import scan
from model_mirror import ModelMirror
from paced import EPOCH, PacedDaemon

INTERVAL, JITTER = 2, 3
HANDLERS = [f"handler {SIGTERM:d}", f"handler {SIGINT:d}"]
BEGINNING = ["open zel_quorin_updater 3 24", *HANDLERS]


@pytest.fixture
def model_mirror(nginx, tmp_path):
    return ModelMirror(Mirror(nginx.root, f"defs-{tmp_path.name}"), nginx.url(), tmp_path / "scratch")


@pytest.fixture
def outdated(nginx, model_mirror, tmp_path):
    """A gateway with a release in service, and a newer one to fetch."""
    folder = tmp_path / "machine"
    folder.mkdir()
    settings = {"mirror_base_url": nginx.url(), "mirror_subdir": model_mirror.mirror.subdir, "ca_path": nginx.ca_path}
    gateway = Gateway(folder, poll_interval_s=INTERVAL, poll_jitter_s=JITTER, **settings)
    model_mirror.publish("1000")
    gateway.run_once()
    gateway.status_path.unlink()
    model_mirror.publish("1001")
    return gateway


def copy_of(gateway, folder):
    shutil.copytree(gateway.root, folder / "defs", symlinks=True)
    settings = {**gateway.settings, "def_root": folder / "defs", "status_path": folder / "status" / "status.json"}
    return Gateway(folder, **settings)


class Shot(PacedDaemon):
    """The loop of a daemon that is to be sent signals, and the model of it."""

    def __init__(self, gateway, mirror, **pace):
        self.gateway = gateway
        self.mirror = mirror
        self.before = scan(gateway.config_path.parent)  # with the configuration
        super().__init__(gateway, gates=False, **pace)

    def predicted(self, lines):
        """The events of a run in which the flag is found raised once there are so many lines, and the disk after it."""
        model = model_of(self.gateway.folder, self.mirror, self.before, Pace(self.process.pid, EPOCH))
        model.loop(self.gateway.settings, lines=lines)
        return (*BEGINNING, *model.disk.lines, "close"), model.disk

    def expect_clean_stop(self, events):
        """Requires what the model predicts; returns where the first signal found the daemon."""
        assert self.process.wait(timeout=60) == 0
        before = events[: next(n for n, event in enumerate(events) if event.startswith("signal "))]
        lines = len(before) - len(BEGINNING)
        # The loop may have looked at the flag just before the signal came.
        predictions = dict(map(self.predicted, (lines, lines + 1)))
        found = tuple(without_signals(events))
        assert found in predictions, f"expected one of {list(predictions)}\ncame {found}"
        predictions[found].expect_real()
        readings = sum(event.startswith("time ") for event in before)
        return "before the loop" if not readings else "in a cycle" if readings % 2 else "in a wait"

    def expect_default_effect(self, events, number):
        """The signal came before the handler, and nothing had happened yet."""
        assert events == BEGINNING[: len(events)]
        assert f"handler {number:d}" not in events
        assert scan(self.gateway.folder) == self.before


def without_signals(events):
    """The events but those of signals, and of what these leave of a slice: that is slept at once, whatever comes."""
    left = None
    for event in events:
        word, _, rest = event.partition(" ")
        if left is not None and word != "signal":
            assert event == f"sleep {left} same"
            left = None
        elif word == "interrupted":
            left = rest
        elif word != "signal":
            yield event


def shoot(gateway, mirror, chance):
    """Starts the loop, its seconds shortened to two milliseconds, and sends one signal at a random moment."""
    number = chance.choice((SIGTERM, SIGINT))
    with Shot(gateway, mirror, second_ns=2_000_000) as daemon:
        events = [daemon.next_event() for _ in range(chance.randrange(24))]
        time.sleep(chance.choice((0, 0.001, 0.01)) * chance.random())  # no wait for anything: the moment is the point
        daemon.send(number)
        events += daemon.rest()
        if daemon.process.wait(timeout=60) == -number:
            daemon.expect_default_effect(events, number)
            return "before the handlers"
        return daemon.expect_clean_stop(events)


@pytest.mark.parametrize("flaws", [pytest.param([], id="good"), pytest.param(["archive digest wrong"], id="tampered")])
def test_signal_at_any_moment_ends_the_daemon_cleanly(
    outdated, model_mirror, tmp_path, flaws, request, record_property
):
    model_mirror.publish("1001", flaws)
    chance = random.Random(1)
    moments = Counter()
    for _ in range(2_000 if request.config.getoption("--all") else 60):
        folder = tmp_path / "shot"
        moments[shoot(copy_of(outdated, folder), model_mirror, chance)] += 1
        shutil.rmtree(folder)
    print(dict(moments))
    record_property("signals_at_random_moments", sum(moments.values()))
    assert {"before the handlers", "in a cycle", "in a wait"} <= set(moments)


def wait_until_asleep(daemon):
    """Returns once the daemon waits for something, or has ended."""
    while pathlib.Path(f"/proc/{daemon.process.pid}/stat").read_text().rpartition(")")[2].split()[0] not in "SZ":
        time.sleep(0)


def storm(daemon, most, asleep=True):
    """Sends one signal after another, each once the former one has arrived, and only to a daemon that waits if
    asleep; returns the events until then."""
    events = []
    for count in range(most):
        number = (SIGTERM, SIGINT)[count % 2]
        if asleep:
            wait_until_asleep(daemon)
        daemon.send(number)
        while f"signal {number:d}" not in events[-1:]:
            event = daemon.next_event()
            if event is None:
                return events
            events.append(event)
    return events


def until(daemon, wanted):
    """The events up to the first that begins so."""
    events = [daemon.next_event()]
    while not events[-1].startswith(wanted):
        events.append(daemon.next_event())
    return events


def test_storm_of_signals_during_a_wait_shortens_no_slice(outdated, model_mirror):
    with Shot(outdated, model_mirror, second_ns=1_000_000_000) as daemon:
        events = until(daemon, Pace.SLICE) + storm(daemon, 300) + daemon.rest()
        assert daemon.expect_clean_stop(events) == "in a wait"
    assert sum(event.startswith("interrupted ") for event in events) > 1


def test_storm_of_signals_all_through_a_cycle_lets_it_end(outdated, model_mirror):
    with Shot(outdated, model_mirror) as daemon:
        events = until(daemon, "time ") + storm(daemon, 1_000_000, asleep=False)
        assert daemon.expect_clean_stop(events) == "in a cycle"
    assert sum(event.startswith("signal ") for event in events) > 1

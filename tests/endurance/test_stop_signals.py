"""Stop signals at random moments: the daemon always ends cleanly, after the running cycle.

Up to there its events are those of a daemon that nothing disturbs, and the disk is as the last cycle leaves it."""

import random
import shutil
import time
from collections import Counter
from signal import SIGINT, SIGTERM

import pytest
from gateway import STOPPED, Gateway
from outcomes import snapshot_listing, status_text, tree
from paced import SLICE, PacedDaemon
from release import definitions, info_ini, info_name


def a_copy(gateway, directory):
    shutil.copytree(gateway.root, directory / "defs", symlinks=True)
    settings = {**gateway.settings, "def_root": directory / "defs", "status_path": directory / "status" / "status.json"}
    return Gateway(directory, **settings)


class Outdated:
    """A gateway with release 1000 in service and 1001 to fetch, and what 20 undisturbed cycles of its loop do."""

    def __init__(self, gateway, mirror, directory):
        self.directory = directory / "shot"
        gateway.settings.update(poll_interval_s=2, poll_jitter_s=1)
        mirror.publish("1000")
        gateway.run_once()
        mirror.publish("1001")
        self.mirror, self.gateway = mirror, gateway
        self.version, self.error = "1001", ""

    def tamper(self):
        self.mirror.write(info_name("1001"), info_ini("1001", "antivir-v2-1001.cab", "0" * 64))
        self.version, self.error = "1000", "CAB sha256 mismatch"

    def observe(self):
        with PacedDaemon(a_copy(self.gateway, self.directory)) as daemon:
            self.events = daemon.until_gate()
            daemon.run_until(41)  # a cycle reads the clock twice
            self.events += daemon.until_gate()
        shutil.rmtree(self.directory)
        times = [number for number, event in enumerate(self.events) if event.startswith("time ")]
        self.starts = times[::2]
        self.slices = [number for number, event in enumerate(self.events) if event == SLICE]

    def stopped_at(self, number):
        """The events when the flag is raised after so many, and the cycles. It is read before each cycle and slice."""
        end = min(place for place in (*self.starts, *self.slices) if place >= number)
        return (*self.events[:end], STOPPED, "close"), sum(place < end for place in self.starts)

    def expect_disk(self, gateway, cycles):
        """As the last of so many cycles leaves it."""
        if cycles == 0:
            assert tree(gateway.root) == tree(self.gateway.root)
            assert list(gateway.status_path.parent.iterdir()) == []
            return
        kept = {"1000", self.version}
        assert gateway.listing() == snapshot_listing(self.version, *kept)
        assert gateway.active_files() == definitions(self.version)
        checked = self.events[self.starts[cycles - 1]].split()[1]
        assert gateway.status_path.read_text() == status_text(self.version, checked, self.error)


@pytest.fixture
def outdated(gateway, mirror, tmp_path):
    return Outdated(gateway, mirror, tmp_path)


class Shot(PacedDaemon):
    """The loop of a daemon that is to be sent signals."""

    def __init__(self, outdated, **pace):
        self.outdated = outdated
        self.gateway = a_copy(outdated.gateway, outdated.directory)
        super().__init__(self.gateway, gates=False, **pace)

    def expect_clean_stop(self, events):
        """Requires what is known; returns where the first signal found the daemon."""
        assert self.process.wait(timeout=60) == 0
        before = next(number for number, event in enumerate(events) if event.startswith("signal "))
        # The loop may have read the flag just before the signal came.
        known = dict(map(self.outdated.stopped_at, (before, before + 1)))
        found = tuple(without_signals(events))
        assert found in known, f"expected one of {list(known)}\ncame {found}"
        self.outdated.expect_disk(self.gateway, known[found])
        readings = sum(event.startswith("time ") for event in events[:before])
        return "before the loop" if not readings else "in a cycle" if readings % 2 else "in a wait"

    def expect_default_effect(self, events, number):
        """The signal came before the handler, and nothing had happened yet."""
        assert events == self.outdated.events[: len(events)]
        assert f"handler {number:d}" not in events
        assert not self.gateway.status_path.parent.exists()
        assert tree(self.gateway.root) == tree(self.outdated.gateway.root)


def without_signals(events):
    """The events without those of signals and of the rest of an interrupted slice, which is slept at once."""
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


def shoot(outdated, chance):
    """Starts the loop, its seconds shortened to two milliseconds, and sends one signal at a random moment."""
    number = chance.choice((SIGTERM, SIGINT))
    with Shot(outdated, second_ns=2_000_000) as daemon:
        events = [daemon.next_event() for _ in range(chance.randrange(24))]
        time.sleep(chance.choice((0, 0.001, 0.01)) * chance.random())  # waits for nothing: the moment itself is random
        daemon.send(number)
        events += daemon.rest()
        if daemon.process.wait(timeout=60) == -number:
            daemon.expect_default_effect(events, number)
            return "before the handlers"
        return daemon.expect_clean_stop(events)


@pytest.mark.parametrize("release", ["good", "tampered"])
def test_signal_at_any_moment_ends_the_daemon_cleanly(outdated, release, thorough, record_property):
    if release == "tampered":
        outdated.tamper()
    outdated.observe()
    chance = random.Random(1)
    moments = Counter()
    for _ in range(2_000 if thorough else 60):
        moments[shoot(outdated, chance)] += 1
        shutil.rmtree(outdated.directory)
    print(dict(moments))
    record_property("signals_at_random_moments", sum(moments.values()))
    assert {"before the handlers", "in a cycle", "in a wait"} <= set(moments)

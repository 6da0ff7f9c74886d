"""The fleet's simulator, held against the real daemon: every check of a daemon's history comes in the same second."""

import pytest
from gateway import STARTED, may_mount
from paced import EPOCH, SLICE, PacedDaemon, cycles_of, jitter
from simulator import simulate

# Interval and jitter: the defaults, a wait that shrinks to nothing, a prime, mostly jitter, and nothing else.
SETTINGS = [(900, 120), (7, 1), (601, 127), (3, 1000), (0, 61)]
AS_PROCESS_ONE = ["unshare", "--pid", "--fork", "--kill-child"]


class History:
    """A daemon's cycles: good ones, then some that end in exceptions, good ones, and again both."""

    def __init__(self, gateway, mirror, poll, prefix=()):
        self.poll = poll
        self.cycles = []
        self.bad_spans = []
        gateway.settings.update(poll_interval_s=poll[0], poll_jitter_s=poll[1])
        mirror.publish("1001")
        with PacedDaemon(gateway, prefix=prefix) as self.daemon:
            assert self.daemon.until_gate()[-1] == STARTED.format(*poll)
            self.run(12)
            for version in (1002, 1004):
                mirror.publish_looping(str(version))
                self.run(6, exceptions=True)
                mirror.publish(str(version + 1))
                self.run(8)
            self.pid = self.daemon.process.pid

    def run(self, count, exceptions=False):
        former = len(self.cycles)
        self.daemon.run_until(2 * (former + count) + 1)
        self.cycles += cycles_of(self.daemon.until_gate())
        added = self.cycles[former:]
        assert [any("run_once exception" in line for line in cycle.lines) for cycle in added] == [exceptions] * count
        if exceptions:
            self.bad_spans.append((added[0].start, added[-1].end))

    def waits(self):
        return [len(cycle.sleeps) for cycle in self.cycles]

    def outcome_lines(self, pid):
        for cycle in self.cycles:
            bad = any(first <= cycle.start <= last for first, last in self.bad_spans)
            yield f"{pid} {cycle.end} {'exception' if bad else 'ok'}\n"


def seconds_of_checks(history, pid, bad_span):
    """The seconds of the simulated daemon's checks, from its start to the real one's last check; bad_span is the time
    in which checks end in exceptions."""
    last = history.cycles[-1].start - EPOCH
    # Each reading of its clock costs the real daemon a second: a check takes two, and the jitter is taken after one.
    clock = ["--epoch", EPOCH - 1, "--check", 2, 2, "--start-spread", 1e-6, "--days", (last + 100) / 86400]
    bad = ["--bad-throws", "--bad-release", *(time - EPOCH for time in bad_span)]
    poll = ["--interval", history.poll[0], "--jitter", history.poll[1]]
    result = simulate("run", "--daemons", 1, "--pids", pid, pid, *poll, *clock, *bad, "--curves", 0, last + 1, 1)
    # A check asks for one file when it begins and may ask for two more later.
    return [second for second, count in enumerate(result["requests"]["curves"][0]["max"]) if count % 2]


@pytest.mark.parametrize("poll", SETTINGS)
def test_simulated_waits_are_the_daemons(gateway, mirror, poll):
    history = History(gateway, mirror, poll)
    arguments = ["--interval", poll[0], "--jitter", poll[1]]
    assert simulate("waits", *arguments, lines=history.outcome_lines(history.pid)) == history.waits()


def test_simulated_waits_without_jitter_are_the_daemons(gateway, mirror):
    gateway.settings.update(poll_interval_s=50, poll_jitter_s=0)
    mirror.publish_looping("1001")
    with PacedDaemon(gateway) as daemon:
        daemon.until_gate()
        daemon.run_until(8)  # without jitter, a cycle reads the clock once
        events = daemon.until_gate()
    starts = [number for number, event in enumerate(events) if event.startswith("time")]
    waits = [events[start:end].count(SLICE) for start, end in zip(starts, [*starts[1:], len(events)])]
    lines = ["1 1 exception\n"] * 7
    assert simulate("waits", "--interval", 50, "--jitter", 0, lines=lines) == waits == [50, 25, 12, 6, 6, 6, 6]


@pytest.mark.skipif(not may_mount(), reason="needs the right to make namespaces")
def test_simulated_waits_are_those_of_a_daemon_that_is_process_one(gateway, mirror):
    history = History(gateway, mirror, (900, 120), prefix=AS_PROCESS_ONE)
    assert simulate("waits", lines=history.outcome_lines(1)) == history.waits()
    first = history.cycles[0]
    assert history.waits()[0] == 900 + jitter(1, first.end, 120)


@pytest.mark.parametrize("poll", [(900, 120), (30, 47)])
def test_simulated_checks_come_in_the_seconds_of_the_daemons(gateway, mirror, poll):
    history = History(gateway, mirror, poll)
    first_bad = history.cycles.index(next(c for c in history.cycles if c.start == history.bad_spans[1][0]))
    upto = history.cycles[:first_bad]  # the simulator's mirror has one bad release
    expected = [cycle.start - EPOCH for cycle in upto]
    checks = seconds_of_checks(history, history.pid, history.bad_spans[0])
    assert checks[: len(expected)] == expected

"""The daemon's loop at a pace that the test sets, and what it does told as one stream of events."""

import os
import signal
import struct
import subprocess
from dataclasses import dataclass, field

from gateway import DAEMON, preloading

EPOCH = 1_700_000_000  # what the daemon's clock shows first
SLICE = "sleep 1 0 same"
JITTER_FACTOR = 2654435761


def jitter(pid, now, limit):
    """The seconds added to a wait that begins at that time."""
    return (pid * JITTER_FACTOR + now) % limit


@dataclass
class Cycle:
    """One cycle and the wait after it; times by the daemon's clock."""

    start: int
    lines: list = field(default_factory=list)
    end: int = 0
    sleeps: list = field(default_factory=list)


def roles(events):
    """What each event is: the start or the end of a cycle, a slice of a wait or its resumption, or what its word says;
    a line of the log otherwise. The loop reads its clock at a cycle's start and at its end."""
    readings, resumed = 0, False
    for event in events:
        word = event.partition(" ")[0]
        if word == "time":
            readings += 1
            yield "start" if readings % 2 else "end"
        elif word == "sleep":
            yield "resumption" if resumed else "slice"
            resumed = False
        elif word in ("handler", "signal", "interrupted"):
            resumed = resumed or word == "interrupted"
            yield word
        else:
            yield "line"


def cycles_of(events):
    """The cycles that a stream of events holds."""
    cycles = []
    for role, event in zip(roles(events), events):
        if role == "start":
            cycles.append(Cycle(int(event.split()[1])))
        elif role == "end":
            cycles[-1].end = int(event.split()[1])
        elif role == "line":
            assert not cycles[-1].end, f"logged during a wait: {event}"
            cycles[-1].lines.append(event)
        elif role != "signal":
            cycles[-1].sleeps.append(event)
    return cycles


def _default_signals():
    # A shell's background job may have made us ignore it, and the daemon would inherit that.
    signal.signal(signal.SIGINT, signal.SIG_DFL)


class PacedDaemon:
    """The loop under the pace shim. Unless gates are left out, it stands still before its first cycle."""

    def __init__(self, gateway, second_ns=0, gates=True, prefix=(), **extra):
        events, told = os.pipe()
        waiting, self.gates = os.pipe() if gates else (None, None)
        settings = {"EVENTS": told, "EPOCH": EPOCH, "SECOND_NS": second_ns, **({"GATES": waiting} if gates else {})}
        environment = gateway.environment(
            ZQU_LOG_FILE=f"/dev/fd/{told}",
            **{f"ZQU_PACE_{name}": str(value) for name, value in settings.items()},
            **extra,
        )
        environment["LD_PRELOAD"] = preloading("libzqu_pace_shim.so", *environment["LD_PRELOAD"].split())
        inherited = [told, waiting] if gates else [told]
        self.process = subprocess.Popen(
            [*prefix, DAEMON, "--config", gateway.config_path],
            env=environment,
            stdin=subprocess.DEVNULL,
            pass_fds=inherited,
            preexec_fn=_default_signals,
        )
        gateway.daemons.append(self.process)
        for descriptor in inherited:
            os.close(descriptor)
        self.events = os.fdopen(events, errors="surrogateescape")
        self.heap = 0

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.kill()
        self.process.wait()
        self.events.close()
        if self.gates is not None:
            os.close(self.gates)

    def next_event(self):
        """The next event, or None when the daemon has ended."""
        line = self.events.readline()
        return line.rstrip("\n") if line else None

    def rest(self):
        """All events up to the end of the daemon."""
        return [line.rstrip("\n") for line in self.events]

    def until_gate(self):
        """The events until the daemon stands still."""
        events = []
        while True:
            event = self.next_event()
            assert event is not None, f"the daemon ended before its time, after {events[-5:]}"
            if event.startswith("gate "):
                self.heap = int(event.split()[1])
                return events
            events.append(event)

    def run_until(self, reading):
        """Lets the daemon run until it stands still before it reads the clock for the time of that number."""
        os.write(self.gates, struct.pack("q", reading))

    def send(self, number):
        os.kill(self.process.pid, number)

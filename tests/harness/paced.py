"""The daemon's loop at a pace that the test sets, and what it does as one stream of events."""

import os
import signal
import struct
import subprocess

from gateway import DAEMON, preloading

EPOCH = 1_700_000_000  # what the daemon's clock shows first
SLICE = "sleep 1 0 same"


def _default_signals():
    # A shell's background job may have made us ignore it, and the daemon would inherit that.
    signal.signal(signal.SIGINT, signal.SIG_DFL)


class PacedDaemon:
    """The loop under the pace shim. With gates, it stops before its first cycle."""

    def __init__(self, gateway, second_ns=0, gates=True, prefix=(), **extra):
        events, ours = os.pipe()
        waiting, self.gates = os.pipe() if gates else (None, None)
        settings = {"EVENTS": ours, "EPOCH": EPOCH, "SECOND_NS": second_ns, **({"GATES": waiting} if gates else {})}
        environment = gateway.environment(
            ZQU_LOG_FILE=f"/dev/fd/{ours}",
            **{f"ZQU_PACE_{name}": str(value) for name, value in settings.items()},
            **extra,
        )
        environment["LD_PRELOAD"] = preloading("libzqu_pace_shim.so", *environment["LD_PRELOAD"].split())
        inherited = [ours, waiting] if gates else [ours]
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
        """The events until the daemon waits at a gate."""
        events = []
        while True:
            event = self.next_event()
            assert event is not None, f"the daemon ended before its time, after {events[-5:]}"
            if event.startswith("gate "):
                self.heap = int(event.split()[1])
                return events
            events.append(event)

    def run_until(self, reading):
        """Lets the daemon run until it waits before that reading of the clock."""
        os.write(self.gates, struct.pack("q", reading))

    def send(self, number):
        os.kill(self.process.pid, number)

"""What the loop costs in an hour with nothing new: its waits, and its checks."""

import subprocess
import time

import gateways
from check import PACES, Servers
from procfs import difference, usage
from text import prose, table

TITLE = "The loop with nothing new"
SECONDS, CHECKS = 60, 15
SMOKE = (1, 1)
PACE = "after both"  # a full handshake at every check, as with the defaults of nginx and of the loop
SMOKE_PACE = "within both"
DEFAULT_WAIT = 900 + 119 / 2  # s between two checks by default: the interval, and the mean of the jitter
FIELDS = {
    "cpu": "ms of CPU",
    "voluntary": "voluntary context switches",
    "involuntary": "involuntary context switches",
    "faults": "minor page faults",
}


class Loop:
    """The daemon's loop on a gateway that has the mirror's release in service; it ends with the block."""

    def __init__(self, gateway):
        self.gateway = gateway
        gateway.status_path.unlink()  # the first one that is seen is of the loop
        self.checked = None

    def __enter__(self):
        self.process = subprocess.Popen(self.gateway.loop, stdin=subprocess.DEVNULL)
        return self

    def __exit__(self, *_):
        self.process.kill()
        self.process.wait()

    def next_check(self):
        """Waits for the end of a check; returns what the daemon has used so far."""
        while True:
            now = self.gateway.status().get("last_check_epoch")
            if now not in (None, self.checked):
                break
            assert self.process.poll() is None, "the daemon ended"
            time.sleep(0.01)
        self.checked = now
        time.sleep(0.1)  # until it waits
        self.gateway.require_success()
        return usage(self.process.pid)


def waiting(bench, nginx, length):
    """What so many seconds without a check cost, after the first one."""
    gateway = gateways.Gateway(bench, "waiting", nginx.ports["plain"], nginx.ca_path, interval=86400)
    with Loop(gateway) as loop:
        before, begin = loop.next_check(), time.monotonic()
        time.sleep(length)
        return {"seconds": time.monotonic() - begin, **difference(usage(loop.process.pid), before)}


def checking(bench, nginx, count, pace):
    """What so many checks cost, with the waits between them. The first check, which also reads the authorities, is not
    among them."""
    interval = PACES[pace].interval
    gateway = gateways.Gateway(bench, "checking", nginx.ports[pace], nginx.ca_path, interval)
    with Loop(gateway) as loop:
        before = loop.next_check()
        for _ in range(count):
            after = loop.next_check()
        return {"checks": count, "seconds": interval * count, **difference(after, before)}


def measure(bench):
    seconds, checks = SMOKE if bench.smoke else (SECONDS, CHECKS)
    pace = SMOKE_PACE if bench.smoke else PACE
    nginx = gateways.mirror(bench, Servers)
    try:
        return {
            "waiting": waiting(bench, nginx, seconds),
            "checking": checking(bench, nginx, checks, pace),
            "handshakes": "the connection that is there" if bench.smoke else "a full TLS handshake",
        }
    finally:
        nginx.stop()


def per_hour(results, field):
    """What an hour costs at the default settings: its waits, and its checks."""
    waiting, checking = results["waiting"], results["checking"]
    second = waiting[field] / waiting["seconds"]
    check = (checking[field] - second * checking["seconds"]) / checking["checks"]
    scale = 1e3 if field == "cpu" else 1
    return scale * 3600 * second, scale * 3600 / DEFAULT_WAIT * check


def _rows(results):
    for field, title in FIELDS.items():
        waits, checks = per_hour(results, field)
        yield title, *(f"{max(value, 0):,.1f}" for value in (waits, checks, waits + checks))


def render(results, plots):
    waiting, checking = results["waiting"], results["checking"]
    waits, checks = per_hour(results, "cpu")
    second = 1e6 * waiting["cpu"] / waiting["seconds"]
    told = f"""The daemon waits in slices of a second, so that a stop signal is obeyed within one. Watched for
        {waiting["seconds"]:.0f} s without a check, and through checks ({checking["checks"]}) with
        {results["handshakes"]}; scaled to an hour of the default settings, {3600 / DEFAULT_WAIT:.2f} checks. A wake-up
        follows each voluntary context switch."""
    return f"""\
{prose(told)}

{table(("One hour", "waits", "checks", "both"), *_rows(results))}
A second of waiting costs {second:.0f} µs of CPU; all in all it is {(waits + checks) / 3.6e6:.5%} of one core.
"""

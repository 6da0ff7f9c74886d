"""What the loop costs in an hour with nothing new: its waits, and its checks."""

import time

import gateways
from check import PACES, WORDS, Servers, handshakes
from procfs import difference
from text import prose, table

TITLE = "The loop with nothing new"
SECONDS, CHECKS = 60, 15
SMOKE = (1, 1)
PACE = "after both"  # a full handshake at every check, as with the defaults of nginx and of the loop
HANDSHAKE, SMOKE_HANDSHAKE = "full", "none"
SMOKE_PACE = "within both"
DEFAULT_WAIT = gateways.INTERVAL_S + (gateways.JITTER_S - 1) / 2  # s between checks: interval, and mean of the jitter
FIELDS = {
    "cpu": "ms of CPU",
    "voluntary": "voluntary context switches",
    "involuntary": "involuntary context switches",
    "faults": "minor page faults",
}


def waiting(bench, nginx, length):
    """What so many seconds without a check cost, after the first one."""
    gateway = gateways.Installation(bench, "waiting", nginx.ports["plain"], nginx.ca_path, interval=86400)
    with gateways.Loop(gateway) as loop:
        before, begin = loop.next_check(), time.monotonic()
        time.sleep(length)
        return {"seconds": time.monotonic() - begin, **difference(loop.usage(), before)}


def checking(bench, nginx, count, pace, handshake):
    """What so many checks cost, with the waits between them; all have to make that kind of handshake. The first check,
    which also reads the authorities, is not among them."""
    interval = PACES[pace].interval
    gateway = gateways.Installation(bench, "checking", nginx.ports[pace], nginx.ca_path, interval)
    answered = len(nginx.lines(pace, 3))  # of the update that it began with
    with gateways.Loop(gateway) as loop:
        before = loop.next_check()
        for _ in range(count):
            after = loop.next_check()
    _, *later = handshakes(nginx.lines(pace, 1 + count, since=answered))
    assert later == [handshake] * count, later
    return {"checks": count, "seconds": interval * count, "handshake": handshake, **difference(after, before)}


def measure(bench):
    seconds, checks = SMOKE if bench.smoke else (SECONDS, CHECKS)
    pace, handshake = (SMOKE_PACE, SMOKE_HANDSHAKE) if bench.smoke else (PACE, HANDSHAKE)
    nginx = gateways.mirror(bench, Servers)
    try:
        return {
            "waiting": waiting(bench, nginx, seconds),
            "checking": checking(bench, nginx, checks, pace, handshake),
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
    told = f"""The daemon waits in slices of a second, so that a stop signal is obeyed within one. Watched once, for
        {waiting["seconds"]:.0f} s without a check and through checks ({checking["checks"]}), each of which
        {WORDS[checking["handshake"]]}; scaled to an hour of the default settings, {3600 / DEFAULT_WAIT:.2f} checks. A
        wake-up follows each voluntary context switch."""
    return f"""\
{prose(told)}

{table(("One hour", "waits", "checks", "both"), *_rows(results))}
A second of waiting costs {second:.0f} µs of CPU; all in all it is {(waits + checks) / 3.6e6:.5%} of one core.
"""

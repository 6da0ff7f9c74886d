"""The loop with nothing new: how its later checks use connections and sessions, and what an hour costs."""

import collections
import concurrent.futures
import re
import time

from gateway import SETTINGS
from measure import difference
from report import table
from relay import Relay
from sites import Loop, BenchGateway, server

SHOWN = 3  # checks of each loop
# Settings of mirror and loop: seconds for which nginx keeps an idle connection and a TLS session, seconds
# between checks, how many of them are watched, and what else nginx is set to.
Pace = collections.namedtuple("Pace", "keepalive session interval checks options", defaults=[""])
TLS12, CACHE = "ssl_protocols TLSv1.2;", "ssl_session_cache shared:sessions:1m;"
PACES = {
    "within both": Pace(60, 300, 1, SHOWN),
    "after the connection": Pace(1, 300, 2, SHOWN),
    "the same, TLS 1.2": Pace(1, 300, 2, SHOWN, TLS12),
    "the same, with a cache": Pace(1, 300, 2, SHOWN, f"{TLS12} {CACHE}"),
    "after both": Pace(1, 1, 4, 16),
    "after libcurl's limit": Pace(600, 600, 121, 2),
}
WAIT_S = 60  # how long waits are watched
HOUR = "after both"  # with a full handshake at every check, as with the defaults of nginx and of the loop
SMOKE = {name: PACES[name]._replace(checks=2) for name in ("within both", "after the connection", HOUR)}
# Seconds between checks at the default settings: the interval, and the mean of the jitter.
DEFAULT_WAIT_S = SETTINGS["poll_interval_s"] + (SETTINGS["poll_jitter_s"] - 1) / 2
FIELDS = {
    "cpu": "ms of CPU",
    "voluntary": "voluntary context switches",
    "involuntary": "involuntary context switches",
    "faults": "minor page faults",
}


def handshakes(requests):
    """What came before each request that a server has answered to one client: none over the connection of the request
    before, or else one that resumed a session, or a full one."""
    for (connection, session, *_), former in zip(requests, [[None], *requests]):
        yield "none" if connection == former[0] else "resumed" if session == "r" else "full"


def watch(bench, nginx, name, pace):
    """What each of the first checks of a loop takes, from the end of the one before."""
    with Relay(nginx.ports[name]) as relay:
        site = BenchGateway(bench, re.sub(r"\W+", "-", name), nginx, port=relay.port, poll_interval_s=pace.interval)
        answered = len(nginx.requests(name, 3))
        totals = [{**relay.totals(), **dict.fromkeys(FIELDS, 0)}]
        with Loop(site) as loop:
            for _ in range(pace.checks):
                used = loop.next_check()
                totals.append({**relay.counts, **used})
    requests = nginx.requests(name, pace.checks, since=answered)
    taken = (difference(after, before) for before, after in zip(totals, totals[1:]))
    return [{"handshake": kind, **of_check} for kind, of_check in zip(handshakes(requests), taken)]


def waiting(bench, nginx, length):
    """What so many seconds without a check cost, after the first one."""
    with Loop(BenchGateway(bench, "waiting", nginx, poll_interval_s=86400)) as loop:
        before, begin = loop.next_check(), time.monotonic()
        time.sleep(length)
        return {"seconds": time.monotonic() - begin, **difference(loop.usage(), before)}


def measure(bench):
    paces = SMOKE if bench.smoke else PACES
    lines = {
        name: f"keepalive_timeout {pace.keepalive}s; ssl_session_timeout {pace.session}s; {pace.options}"
        for name, pace in paces.items()
    }
    with server(bench, **lines) as nginx, concurrent.futures.ThreadPoolExecutor() as pool:
        # All at once: almost nothing happens in them.
        watched = {name: pool.submit(watch, bench, nginx, name, pace) for name, pace in paces.items()}
        checks = {name: future.result() for name, future in watched.items()}
        waits = waiting(bench, nginx, 1 if bench.smoke else WAIT_S)
    later = checks[HOUR][1:]
    assert {check["handshake"] for check in later} == {"full"}, later
    checking = {field: sum(check[field] for check in later) for field in FIELDS}
    checking |= {"checks": len(later), "seconds": paces[HOUR].interval * len(later)}
    shown = {name: {"pace": paces[name][:3], "checks": checks[name][:SHOWN]} for name in paces}
    return {"loops": shown, "waiting": waits, "checking": checking}


def hour(results, field):
    """What an hour costs at the default settings: its waits, and its checks."""
    waits, checks = results["waiting"], results["checking"]
    second = waits[field] / waits["seconds"]
    check = (checks[field] - second * checks["seconds"]) / checks["checks"]
    scale = 3600e3 if field == "cpu" else 3600
    return scale * second, max(0, scale / DEFAULT_WAIT_S * check)


def _loop_rows(results):
    for name, loop in results["loops"].items():
        interval, keepalive, session = loop["pace"][2], *loop["pace"][:2]
        for number, check in enumerate(loop["checks"]):
            times = "" if number else f"{interval} / {keepalive} / {session}"
            title = ("second", "third")[number - 1] if number else f"{name}, first"
            counts = (f"{check[key]:,}" for key in ("sent", "received"))
            yield title, times, check["handshake"], *counts, f"{check['cpu'] * 1e3:.1f} ms"


def figures(results, pages):
    head = ("Check", "seconds: interval / connection / session", "handshake", "sent", "received", "CPU")
    hours = ((title, *hour(results, field)) for field, title in FIELDS.items())
    rows = ((title, *(f"{count:,.1f}" for count in (waits, checks, waits + checks))) for title, waits, checks in hours)
    return {"loops": table(head, _loop_rows(results)), "hour": table(("One hour", "waits", "checks", "both"), rows)}

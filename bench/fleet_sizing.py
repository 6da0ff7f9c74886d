#!/usr/bin/python3
"""Writes the tables on sizing into docs/operations.md, computed from what scripts/bench has kept of the fleets."""

import json
import math
import pathlib
import re

from text import prose, table

DOCS = pathlib.Path(__file__).resolve().parents[1] / "docs"
GATEWAYS = (1_000, 10_000, 100_000, 1_000_000)
ARCHIVES_MB = (20, 200)
INTERVAL_S, JITTER_S = 900, 120  # the defaults
WINDOW_S = INTERVAL_S + JITTER_S  # in which a release reaches everyone
DAY_S = 86400
UNITS = {"PB": 1e15, "TB": 1e12, "GB": 1e9, "MB": 1e6}
CORE = 0.5  # the share of a core that is planned for
LINE_GBIT = 8  # of archives, on a line of 10 Gbit/s
PROXIES = 25  # from how many on a content delivery network is cheaper to run: a guess, and told as one
SESSIONS_PER_MB = 4000  # of ssl_session_cache, by nginx's manual
BETWEEN = re.compile(r"(?<=<!-- sizing -->\n).*(?=<!-- end of sizing -->\n)", re.DOTALL)


def costs_of_check(phase):
    """What one check with nothing new costs the mirror: CPU, and bytes where they were counted."""
    checks, packets = phase["checks"], phase.get("packets")
    return {
        "nginx_cpu_s": phase["nginx_cpu_s"] / checks,
        "bytes": packets and {name: count / checks for name, count in packets.items()},
    }


def peak_to_mean(rates):
    return rates["max"] / rates["mean"]


def peaks(simulated, start, gateways):
    """Requests ("peak") a week after such a start, and archives asked for, in the busiest second."""
    found = (size for size in simulated["sizes"] if (size["start"], size["gateways"]) == (start, gateways))
    return next(found)


def _cores(cpu_s_per_s):
    return f"{math.ceil(cpu_s_per_s / CORE):,}"


def _size(count):
    unit, scale = next((unit, scale) for unit, scale in UNITS.items() if count >= scale)
    return f"{count / scale:,.1f} {unit}"


CHECK_HEAD = (
    "Gateways",
    "checks/s",
    "peak, even",
    "peak, together",
    "checks, handshakes a day",
    "requests, release day",
)
CHECK_HEAD += ("sent a day", "cores, full", "cores, resumed")


def check_rows(real, simulated):
    full, resumed = (costs_of_check(real[phase]) for phase in ("full", "steady"))
    for gateways in GATEWAYS:
        rate = gateways / (INTERVAL_S + (JITTER_S - 1) / 2)
        even, together = (peaks(simulated, start, gateways)["peak"] for start in ("over a day", "at once"))
        yield (
            f"{gateways:,}",
            f"{rate:,.1f}",
            f"{even:,}",
            f"{together:,}",
            f"{rate * DAY_S:,.0f}",
            f"{rate * DAY_S + 2 * gateways:,.0f}",
            _size(rate * DAY_S * full["bytes"]["from_mirror"]) if full["bytes"] else "not counted",
            _cores(together * full["nginx_cpu_s"]),
            _cores(together * resumed["nginx_cpu_s"]),
        )


def served_by(lines):
    """Who can fill so many lines, and what is left to the mirror then."""
    if lines == 1:
        return "one nginx", "all"
    if lines < PROXIES:
        return f"{lines} caching proxies", f"{lines} archives, {lines} INI a minute"
    return f"CDN, or {lines} proxies", "an archive and an INI a minute to each cache"


RELEASE_HEAD = ("Gateways, archive", "sent", "mean of 17 minutes", "archives/s, peak, together", "cores", "served by")
RELEASE_HEAD += ("left to the mirror", "by one nginx, spread over")


def release_rows(real, simulated):
    full = costs_of_check(real["full"])["nginx_cpu_s"]
    for gateways in GATEWAYS:
        for megabytes in ARCHIVES_MB:
            sent = gateways * megabytes * 1e6
            gbit = 8 * sent / WINDOW_S / 1e9
            cpu_s = gateways * full + sent / 1e9 * real["bulk_cpu_s"]
            fits = 8 * sent / (LINE_GBIT * 1e9)
            yield (
                f"{gateways:,}, {megabytes} MB",
                _size(sent),
                f"{gbit:,.2f} Gbit/s",
                f"{peaks(simulated, 'at once', gateways)['archives']:,}",
                _cores(cpu_s / WINDOW_S),
                *served_by(math.ceil(gbit / LINE_GBIT)),
                "as it is" if fits <= WINDOW_S else f"{fits / 3600:,.1f} h",
            )


def _costs(real):
    full, resumed = (costs_of_check(real[phase]) for phase in ("full", "steady"))
    sent = "; its bytes were not counted, for which `scripts/bench` has to be run as root"
    if full["bytes"]:
        from_mirror = (f"{phase['bytes']['from_mirror']:,.0f}" for phase in (full, resumed))
        sent = f", and {' or '.join(from_mirror)} bytes to the gateway"
    return prose(
        f"""A check takes nginx {full["nginx_cpu_s"] * 1000:.2f} ms of a core with a full handshake and
        {resumed["nginx_cpu_s"] * 1000:.2f} ms with a resumed one (key: {real["key"]}){sent}. A GB of
        archives takes {real["bulk_cpu_s"]:.2f} s."""
    )


def _caches():
    sizes = (f"{math.ceil(gateways / SESSIONS_PER_MB)}m for {gateways:,}" for gateways in GATEWAYS)
    return prose(
        f"""`ssl_session_cache` for TLS 1.2, by the {SESSIONS_PER_MB:,} sessions a MB that nginx's manual tells:
        {", ".join(sizes)}; with TLS 1.3 the gateways keep their sessions in tickets."""
    )


def _jitters(simulated):
    """What a jitter other than the default does to a fleet that started together."""
    kinds = ("settings", "settings_one")
    ratios = {
        (kind, setting["interval"], setting["jitter"]): peak_to_mean(setting["rates"])
        for kind in kinds
        for setting in simulated[kind]
    }
    rows = []
    for interval in sorted({setting["interval"] for setting in simulated["settings"]}):
        jitters = (JITTER_S, JITTER_S - 1, interval + 1)
        rows.append((interval, *(f"{ratios[kind, interval, jitter]:,.2f}" for kind in kinds for jitter in jitters)))
    names = (f"{JITTER_S}", f"{JITTER_S - 1}", "interval + 1")
    head = ("`poll_interval_s`", *names, *(f"{name}, containers" for name in names))
    text = f"""Peak / mean of {simulated["daemons"]:,} gateways on the second day after a start at once, by
        `poll_jitter_s`; containers all have process id 1:"""
    return f"{prose(text)}\n\n{table(head, *rows)}"


def section(real, simulated):
    return f"""\
{_costs(real)}

{table(CHECK_HEAD, *check_rows(real, simulated))}
{table(RELEASE_HEAD, *release_rows(real, simulated))}
{_caches()}

{_jitters(simulated)}"""


def kept(name, folder=DOCS / "performance"):
    return json.loads((folder / f"{name}.json").read_text())["results"]


def main():
    page = DOCS / "operations.md"
    text = page.read_text()
    page.write_text(BETWEEN.sub(lambda _: section(kept("fleet_real"), kept("fleet_simulated")), text))


if __name__ == "__main__":
    main()

#!/usr/bin/python3
"""Writes the tables on sizing into docs/operations.md, computed from what scripts/bench has kept of the fleets."""

import json
import math
import pathlib
import re

from text import table

DOCS = pathlib.Path(__file__).resolve().parents[1] / "docs"
GATEWAYS = (1_000, 10_000, 100_000, 1_000_000)
ARCHIVES_MB = (20, 200)
INTERVAL_S, JITTER_S = 900, 120
DAY_S = 86400
UNITS = {"PB": 1e15, "TB": 1e12, "GB": 1e9, "MB": 1e6}
CORE = 0.5  # the share of a core that is planned for
LINE_GBIT = 8  # of archives, on a line of 10 Gbit/s
PROXIES = 25  # from how many on a content delivery network is cheaper to run: a guess
BETWEEN = re.compile(r"(?<=<!-- sizing -->\n).*(?=<!-- end of sizing -->\n)", re.DOTALL)


def costs_of_check(phase):
    """What one check with nothing new costs the mirror: CPU, and bytes where they were counted."""
    checks, packets = phase["checks"], phase.get("packets")
    return {
        "nginx_cpu_s": phase["nginx_cpu_s"] / checks,
        "bytes": packets and {name: count / checks for name, count in packets.items()},
    }


def peak_factor(simulated, start):
    """Requests in the busiest second over the mean, a week after such a start."""
    rates = simulated["starts"][start]["last"]
    return rates["max"] / rates["mean"]


def _cores(cpu_s_per_s):
    return f"{math.ceil(cpu_s_per_s / CORE):,}"


def _size(count):
    unit, scale = next((unit, scale) for unit, scale in UNITS.items() if count >= scale)
    return f"{count / scale:,.1f} {unit}"


def check_rows(real, simulated):
    full, resumed = (costs_of_check(real[phase]) for phase in ("full", "steady"))
    for gateways in GATEWAYS:
        rate = gateways / (INTERVAL_S + (JITTER_S - 1) / 2)
        even, together = (rate * peak_factor(simulated, start) for start in ("over a day", "at once"))
        yield (
            f"{gateways:,}",
            f"{rate:,.1f}",
            f"{even:,.1f}",
            f"{together:,.0f}",
            _size(rate * DAY_S * full["bytes"]["from_mirror"]),
            _cores(together * full["nginx_cpu_s"]),
            _cores(together * resumed["nginx_cpu_s"]),
        )


def verdict(gbit):
    """Who can send that much."""
    lines = math.ceil(gbit / LINE_GBIT)
    if lines == 1:
        return "one nginx"
    return f"{lines} caching proxies" if lines < PROXIES else f"CDN ({lines} proxies)"


def release_rows(real):
    full = costs_of_check(real["full"])["nginx_cpu_s"]
    for gateways in GATEWAYS:
        for megabytes in ARCHIVES_MB:
            sent = gateways * megabytes * 1e6
            window = INTERVAL_S + JITTER_S
            gbit = 8 * sent / window / 1e9
            cpu_s = gateways * full + sent / 1e9 * real["bulk_cpu_s"]
            fits = 8 * sent / (LINE_GBIT * 1e9)
            yield (
                f"{gateways:,}, {megabytes} MB",
                _size(sent),
                f"{gbit:,.2f} Gbit/s",
                _cores(cpu_s / window),
                verdict(gbit),
                "as it is" if fits <= window else f"{fits / 3600:,.1f} h",
            )


def section(real, simulated):
    full, resumed = (costs_of_check(real[phase]) for phase in ("full", "steady"))
    checks = table(
        ("Gateways", "requests/s", "peak, even", "peak, together", "sent a day", "cores, full", "cores, resumed"),
        *check_rows(real, simulated),
    )
    releases = table(
        ("Gateways, archive", "sent", "line for 17 minutes", "cores", "served by", "for one nginx, spread over"),
        *release_rows(real),
    )
    return f"""\
A check takes nginx {full["nginx_cpu_s"] * 1000:.2f} ms of a core with a full handshake and \
{resumed["nginx_cpu_s"] * 1000:.2f} ms with a resumed one, and {full["bytes"]["from_mirror"]:,.0f} or
{resumed["bytes"]["from_mirror"]:,.0f} bytes to the gateway; a GB of archives takes {real["bulk_cpu_s"]:.2f} s.

{checks}
{releases}"""


def kept(name, folder=DOCS / "performance"):
    return json.loads((folder / f"{name}.json").read_text())["results"]


def main():
    page = DOCS / "operations.md"
    text = page.read_text()
    page.write_text(BETWEEN.sub(lambda _: section(kept("fleet_real"), kept("fleet_simulated")), text))


if __name__ == "__main__":
    main()

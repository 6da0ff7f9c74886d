"""The load of a fleet on its mirror, by the daemon's own schedule, and how large a mirror must be."""

import math

import numpy
from gateway import SETTINGS
from loop import HOUR
from report import table

from . import model

INTERVAL_S, JITTER_S = SETTINGS["poll_interval_s"], SETTINGS["poll_jitter_s"]
GATEWAYS, SMOKE = (1_000, 10_000, 100_000, 1_000_000), (1_000, 10_000)
STARTS = {"even": model.DAY_S, "together": 1}  # the seconds within which the fleet starts
INTERVALS = (300, 900, 1800, 3600)
PIDS = {"own": model.PIDS, "containers": (1, 1)}
SHOWN = {"together": (JITTER_S, 1), "together, jitter 119": (119, 1), "even": (JITTER_S, model.DAY_S)}
BIN_S = 10  # of the picture
ARCHIVES_MB = (20, 200)
CORE = 0.5  # the share of a core that is planned for
LINE_GBIT = 8  # of archives, on a line of 10 Gbit/s
PROXIES = 25  # from how many on a content delivery network is cheaper to run: a guess
UNITS = {"PB": 1e15, "TB": 1e12, "GB": 1e9, "MB": 1e6}


def jitters(interval):
    return (JITTER_S, JITTER_S - 1, interval + 1)


def size(gateways, start, day_s):
    counts, following = model.second_day(gateways, INTERVAL_S, JITTER_S, STARTS[start], day_s=day_s)
    return {"checks": int(counts.max()), "archives": int(numpy.bincount(following.astype(int)).max())}


def ratio(gateways, interval, jitter, pids, day_s):
    """The busiest second's checks to the mean of the second day."""
    counts, _ = model.second_day(gateways, interval, jitter, pids=pids, day_s=day_s)
    return counts.max() / counts.mean()


def last_hour(gateways, jitter, over_s, day_s):
    """The checks in the busiest of every ten seconds."""
    counts, _ = model.second_day(gateways, INTERVAL_S, jitter, over_s, day_s=day_s)
    return counts[-3600:].reshape(-1, BIN_S).max(axis=1).tolist()


def measure(bench):
    gateways, day_s = (SMOKE, 7200) if bench.smoke else (GATEWAYS, model.DAY_S)
    most = gateways[-1]
    return {
        "gateways": most,
        "sizes": {count: {start: size(count, start, day_s) for start in STARTS} for count in gateways},
        "ratios": {
            interval: [
                ratio(most, interval, jitter, pids, day_s) for pids in PIDS.values() for jitter in jitters(interval)
            ]
            for interval in INTERVALS
        },
        "last hour": {name: last_hour(most, *start, day_s) for name, start in SHOWN.items()},
    }


def _cores(cpu_s_per_s):
    return f"{math.ceil(cpu_s_per_s / CORE):,}"


def _bytes(count):
    unit, scale = next((unit, scale) for unit, scale in UNITS.items() if count >= scale)
    return f"{count / scale:,.1f} {unit}"


def _check_rows(sizes, costs, received):
    for gateways, of_size in sizes.items():
        count = int(gateways)
        rate = count / (INTERVAL_S + (JITTER_S - 1) / 2)
        day = rate * 86400
        together = of_size["together"]["checks"]
        peaks = (f"{of_size[start]['checks']:,}" for start in STARTS)
        cores = (_cores(together * costs[kind]["median"]) for kind in ("full", "resumed"))
        requests = (f"{day:,.0f}", f"{day + 2 * count:,.0f}")
        yield f"{count:,}", f"{rate:,.1f}", *peaks, *requests, _bytes(day * received), *cores


def served_by(lines):
    """What can fill so many lines, and the rest for the mirror: hit INIs for four groups."""
    if lines == 1:
        return "one nginx", "all"
    if lines < PROXIES:
        return f"{lines} caching proxies", f"{lines} archives, {4 * lines} INI a minute"
    return f"CDN, or {lines} proxies", "an archive and 4 INI a minute to each cache"


def _release_rows(sizes, costs):
    window_s = INTERVAL_S + JITTER_S  # in which a release reaches everyone
    for gateways, of_size in sizes.items():
        for megabytes in ARCHIVES_MB:
            sent = int(gateways) * megabytes * 1e6
            gbit = 8 * sent / window_s / 1e9
            cpu_s = int(gateways) * costs["full"]["median"] + sent / 1e9 * costs["bulk"]["median"]
            fits_s = 8 * sent / (LINE_GBIT * 1e9)
            yield (
                f"{int(gateways):,}, {megabytes} MB",
                *(_bytes(sent), f"{gbit:,.2f} Gbit/s", f"{of_size['together']['archives']:,}"),
                *(_cores(cpu_s / window_s), *served_by(math.ceil(gbit / LINE_GBIT))),
                "as it is" if fits_s <= window_s else f"{fits_s / 3600:,.1f} h",
            )


def figures(results, pages):
    costs = pages.kept("serving")["results"]
    *_, later = pages.kept("loop")["results"]["loops"][HOUR]["checks"]
    sizes = results["sizes"]
    names = (f"{JITTER_S}", f"{JITTER_S - 1}", "interval + 1")
    lines = {
        name: ([number * BIN_S / 60 for number in range(len(counts))], counts)
        for name, counts in results["last hour"].items()
    }
    labels = ("after two days", "minutes", "checks in the busiest of 10 seconds")
    pages.picture("fleet", f"Checks of {results['gateways']:,} gateways {labels[0]}", *labels[1:], lines)
    checks = ("Gateways", "checks/s", "peak, even", "peak, together", "checks, handshakes a day")
    checks += ("requests, release day", "sent a day", "cores, full", "cores, resumed")
    releases = ("Gateways, archive", "sent", "mean of 17 minutes", "archives/s, peak, together", "cores", "served by")
    releases += ("left to the mirror", "by one nginx, spread over")
    ratios = ((interval, *(f"{value:,.2f}" for value in of)) for interval, of in results["ratios"].items())
    return {
        "checks": table(checks, _check_rows(sizes, costs, later["received"])),
        "releases": table(releases, _release_rows(sizes, costs)),
        "jitters": table(("`poll_interval_s`", *names, *(f"{name}, containers" for name in names)), ratios),
    }

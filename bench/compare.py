"""One daemon compared with another, in turn: whole updates, checks with nothing new, start-up, memory and size."""

import subprocess

from measure import contest, in_turn, peak_kib, spread
from report import seconds, table, with_spread
from sites import BenchGateway, server
from update import Update

UPDATES = {20: 16, 200: 10}  # MB of definitions, and how often
CHECKS, STARTS, PEAKS, PEAK_OF = 100, 100, 6, 20
SMOKE_UPDATES = {1: 2}
NAMES = ("this", "other")


def updates(benches, nginx, size, rounds):
    """Whole updates of so many MB, and, up to some size, the peaks of their memory."""
    site = Update(benches["this"], nginx, size)
    site.commands = {name: [bench.daemon, *site.options] for name, bench in benches.items()}
    results = contest(site.contenders(), rounds)
    if size <= PEAK_OF:

        def peak(name):
            site.clear()
            return peak_kib(site.commands[name])

        results["peaks"] = in_turn({name: lambda name=name: peak(name) for name in NAMES}, min(PEAKS, rounds))
    site.end()
    return results


def checks(benches, nginx, rounds):
    """Checks with nothing new, each daemon with definitions of its own."""
    sites = {name: BenchGateway(bench, f"nothing-new-{name}", nginx) for name, bench in benches.items()}
    results = contest({name: site.check for name, site in sites.items()}, rounds)
    for site in sites.values():
        site.expect_status("1001")
    return results


def size_of(daemon):
    """Bytes of the program as it is loaded: code and constants, data, and data that begin as zeros."""
    lines = subprocess.run(["size", daemon], capture_output=True, text=True, check=True).stdout.splitlines()
    return sum(int(number) for number in lines[1].split()[:3])


def _rows(results, sizes):
    for title, contest_of in results.items():
        for field, name in (("cpu", "CPU"), ("wall", "wall")):
            costs = (seconds(contest_of["costs"][who][field]) for who in NAMES)
            yield f"{title}, {name}", *costs, with_spread(contest_of["ratios"]["this to other"][field])
        if peaks := contest_of.get("peaks"):
            ratio = spread([ours / theirs for ours, theirs in zip(*(peaks[name] for name in NAMES))])
            kib = (with_spread(spread(peaks[name]), 0, 1, " KiB") for name in NAMES)
            yield f"{title}, peak", *kib, with_spread(ratio)
    yield "program, loaded", *(f"{sizes[name]:,} B" for name in NAMES), f"{sizes['this'] / sizes['other']:.3f}"


def measure(benches):
    """The table of both."""
    this = benches["this"]
    few = 2 if this.smoke else None
    with server(this) as nginx:
        results = {
            f"update of {size} MB": updates(benches, nginx, size, rounds)
            for size, rounds in (SMOKE_UPDATES if few else UPDATES).items()
        }
        results["check with nothing new"] = checks(benches, nginx, few or CHECKS)
        commands = {name: [bench.daemon, "--help"] for name, bench in benches.items()}
        results["start-up, `--help`"] = contest(commands, few or STARTS)
    rows = _rows(results, {name: size_of(bench.daemon) for name, bench in benches.items()})
    return table(("", "this", "other", "this to other"), rows)

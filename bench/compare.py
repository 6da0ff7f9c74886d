"""One daemon against another, in turn: whole updates, checks with nothing new, start-up, memory and size."""

import shutil
import subprocess

import gateways
from measure import in_turn, peak_kib, ratios
from measure import run as cost_of
from measure import spread, spreads
from scratch import scratch
from text import seconds, table, with_spread
from update import Site

UPDATES = {20: 16, 200: 10}  # MB of definitions, and how often
CHECKS, STARTS, PEAKS, PEAK_OF = 100, 100, 6, 20
SMOKE_UPDATES = {1: 2}
NAMES = ("this", "other")


def compared(contenders, rounds):
    """The costs of both in turn, and the ratios of this one to the other."""
    costs = in_turn(contenders, rounds)
    return {"costs": spreads(costs), "ratios": {field: ratios(costs, *NAMES, field) for field in ("cpu", "wall")}}


def peak(site, name):
    site.clear()
    return peak_kib(site.commands[name])


def updates(benches, nginx, size, rounds):
    """Whole updates of so many MB, and, up to some size, the peaks of their memory."""
    site = Site(benches["this"], nginx, size)
    site.commands = {name: [bench.daemon, *site.options] for name, bench in benches.items()}
    results = compared(site.contenders(), rounds)
    if size <= PEAK_OF:
        results["peaks"] = in_turn({name: lambda n=name: peak(site, n) for name in NAMES}, min(PEAKS, rounds))
    site.clear()
    shutil.rmtree(nginx.root / f"{size}")
    return results


def checks(benches, nginx, rounds):
    """Checks with nothing new, each daemon with definitions of its own."""
    sites = {
        name: gateways.Installation(bench, f"nothing-new-{name}", nginx.ports["good"], nginx.ca_path)
        for name, bench in benches.items()
    }
    results = compared({name: lambda s=site: cost_of(s.check) for name, site in sites.items()}, rounds)
    for site in sites.values():
        site.require_success()
    return results


def starts(benches, rounds):
    commands = {name: [bench.daemon, "--help"] for name, bench in benches.items()}
    return compared({name: lambda c=c: cost_of(c, stdout=subprocess.DEVNULL) for name, c in commands.items()}, rounds)


def sizes(daemon):
    """Bytes of the program as it is loaded: code and constants, data, and data that begin as zeros."""
    lines = subprocess.run(["size", daemon], capture_output=True, text=True, check=True).stdout.splitlines()
    return sum(int(number) for number in lines[1].split()[:3])


def measure(benches, smoke):
    nginx = gateways.mirror(benches["this"])
    try:
        results = {
            f"update of {size} MB": updates(benches, nginx, size, rounds)
            for size, rounds in (SMOKE_UPDATES if smoke else UPDATES).items()
        }
        results["check with nothing new"] = checks(benches, nginx, 2 if smoke else CHECKS)
        results["start-up, `--help`"] = starts(benches, 2 if smoke else STARTS)
    finally:
        nginx.stop()
    return results, {name: sizes(bench.daemon) for name, bench in benches.items()}


def _rows(results, size):
    for title, of_title in results.items():
        for field in ("cpu", "wall"):
            costs = (seconds(of_title["costs"][name][field]) for name in NAMES)
            name = f"{title}, {'CPU' if field == 'cpu' else field}"
            yield name, *costs, with_spread(of_title["ratios"][field], 3)
        if peaks := of_title.get("peaks"):
            ratio = spread([ours / theirs for ours, theirs in zip(*(peaks[name] for name in NAMES))])
            yield f"{title}, peak", *(with_spread(spread(peaks[n]), 0, 1, " KiB") for n in NAMES), with_spread(ratio, 3)
    yield "program, loaded", *(f"{size[name]:,} B" for name in NAMES), f"{size['this'] / size['other']:.3f}"


def run_in(bench_class, options, folder):
    benches = {
        "this": bench_class(options.build.resolve(), folder, options.smoke),
        "other": bench_class(options.compare.resolve(), folder, options.smoke),
    }
    results, size = measure(benches, options.smoke)
    print(table(("", "this", "other", "this to other"), *_rows(results, size)), end="")


def run(bench_class, options):
    """Holds the daemon of one build against that of another, and prints a table; writes nothing else."""
    with scratch() as folder:
        run_in(bench_class, options, folder)

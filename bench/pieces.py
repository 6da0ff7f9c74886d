"""The daemon's components, each against the size of what it works on."""

import collections
import json
import subprocess

from measure import spread
from report import seconds, table

LARGEST, REPETITIONS, LEAST_S = 100_000, 5, 0.1
SMOKE = (10, 2, 0.001)
TEXTS = {
    "load_config": "configuration",
    "parse_index": "index",
    "fetch_ini": "fetch only",
    "fetch_hit": "fetch, hit INI",
    "fetch_complete": "fetch, complete INI",
}


def measure(bench):
    largest, repetitions, least_s = SMOKE if bench.smoke else (LARGEST, REPETITIONS, LEAST_S)
    options = [f"--benchmark_repetitions={repetitions}", f"--benchmark_min_time={least_s}", "--benchmark_format=json"]
    command = [bench.build / "zqu_bench_pieces", bench.directory, str(largest), *options]
    output = subprocess.run(command, capture_output=True, text=True, check=True).stdout
    runs = collections.defaultdict(lambda: collections.defaultdict(list))
    for each in json.loads(output)["benchmarks"]:
        if each["run_type"] == "iteration":
            name, size = each["name"].split("/")[:2]
            assert each["time_unit"] == "ns" and not each.get("error_occurred"), each
            runs[name][size].append(each)
    return {name: {size: _costs(of_size) for size, of_size in sizes.items()} for name, sizes in runs.items()}


def _costs(runs):
    times = {"cpu": "cpu_time", "wall": "real_time"}
    spreads = {name: spread([each[key] / 1e9 for each in runs]) for name, key in times.items()}
    return {**spreads, **{key: runs[0][key] for key in ["comparisons"] if key in runs[0]}}


def share_of_times(results, size):
    """The part of pruning that reading two times for each comparison explains."""
    time, compared, all_of_it = (results[name][size] for name in ("read_time", "comparisons", "prune"))
    return 2 * compared["comparisons"] * time["cpu"]["median"] / all_of_it["cpu"]["median"]


def _snapshot_rows(results):
    for size, prune in results["prune"].items():
        publish, comparisons = results["publish"][size], results["comparisons"][size]["comparisons"]
        times = (seconds(of[field]) for of in (prune, publish) for field in ("cpu", "wall"))
        yield f"{int(size):,}", *times, f"{comparisons:,.0f}", f"{share_of_times(results, size):.0%}"


def _text_rows(results):
    for size in results["load_config"]:
        yield f"{int(size):,}", *(seconds(results[name][size]["cpu"]) for name in TEXTS)


def _verify_rows(results):
    for size, of_size in results["verify"].items():
        rate = int(size) / 1e6 / of_size["cpu"]["median"]
        yield f"{int(size) / 1e6:,.2f} MB", seconds(of_size["cpu"]), f"{rate:,.0f}"


def figures(results, pages):
    lines = {
        title: ([int(size) for size in results[name]], [cost["cpu"]["median"] for cost in results[name].values()])
        for name, title in {"prune": "pruning", "publish": "publication", **TEXTS}.items()
        if name != "fetch_ini"
    }
    axes = {"xscale": "log", "yscale": "log"}
    pages.picture("pieces", "The pieces", "number of snapshots, or of lines", "CPU, s", lines, **axes)
    head = ("Snapshots", "pruning, CPU", "wall", "publication, CPU", "wall", "comparisons", "of it times")
    status = results["write_status"]["1"]
    return {
        "snapshots": table(head, _snapshot_rows(results)),
        "texts": table(("Lines", *TEXTS.values()), _text_rows(results)),
        "digests": table(("Digest of a file", "CPU", "MB/s"), _verify_rows(results)),
        "status": table(("Status file", "CPU", "wall"), [("written", seconds(status["cpu"]), seconds(status["wall"]))]),
    }

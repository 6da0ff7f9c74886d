"""The daemon's components, each against the size of what it works on."""

import collections
import json
import math
import subprocess

from measure import spread
from text import prose, seconds, table, with_spread

TITLE = "The pieces"
LARGEST, REPETITIONS, LEAST = 100_000, 5, 0.1  # LEAST: s that each repetition takes at least
SMOKE = (10, 2, 0.001)


def measure(bench):
    largest, repetitions, least = SMOKE if bench.smoke else (LARGEST, REPETITIONS, LEAST)
    options = [f"--benchmark_repetitions={repetitions}", f"--benchmark_min_time={least}", "--benchmark_format=json"]
    command = [bench.build / "zqu_bench_pieces", bench.folder, str(largest), *options]
    output = subprocess.run(command, capture_output=True, text=True, check=True).stdout
    runs = collections.defaultdict(lambda: collections.defaultdict(list))
    for each in json.loads(output)["benchmarks"]:
        if each["run_type"] == "iteration":
            name, size = each["name"].split("/")[:2]
            assert each["time_unit"] == "ns" and not each.get("error_occurred"), each
            runs[name][size].append(each)
    return {
        name: {
            size: {
                "cpu": spread([each["cpu_time"] / 1e9 for each in of_size]),
                "wall": spread([each["real_time"] / 1e9 for each in of_size]),
                **{key: of_size[0][key] for key in ("bytes", "comparisons") if key in of_size[0]},
            }
            for size, of_size in of_name.items()
        }
        for name, of_name in runs.items()
    }


def time(results, name, size):
    return results[name][size]["cpu"]["median"]


def share_of_times(results, size):
    """The part of pruning that reading two times for each comparison explains."""
    reads = 2 * results["comparisons"][size]["comparisons"]
    return reads * time(results, "read_time", size) / time(results, "prune", size)


def growth(results, name):
    """How the CPU time grows over the last sizes, and how n log n would."""
    former, last = list(results[name])[-2:]
    as_n_log_n = int(last) * math.log(int(last)) / (int(former) * math.log(int(former)))
    return int(former), int(last), time(results, name, last) / time(results, name, former), as_n_log_n


def _snapshot_rows(results):
    for size, prune in results["prune"].items():
        publish = results["publish"][size]
        comparisons = results["comparisons"][size]["comparisons"]
        costs = (brief(prune["cpu"]), brief(prune["wall"]), brief(publish["cpu"]), brief(publish["wall"]))
        yield f"{int(size):,}", *costs, f"{comparisons:,.0f}", f"{share_of_times(results, size):.0%}"


def brief(time_s):
    """A time, with its spread, in the unit that suits it, down to microseconds."""
    return with_spread(time_s, 1, 1e6, " µs") if time_s["median"] < 1e-3 else seconds(time_s)


def _text_rows(results):
    for size in results["load_config"]:
        cells = (brief(results[name][size]["cpu"]) for name in ("load_config", "parse_index", *FETCHES))
        yield f"{int(size):,}", *cells


FETCHES = ("fetch_ini", "fetch_hit", "fetch_complete")
PARSERS = {
    "the configuration": ("load_config", None),
    "the index": ("parse_index", None),
    "the hit INI": ("fetch_hit", "fetch_ini"),
    "the complete INI": ("fetch_complete", "fetch_ini"),
}


def speed(results, parser):
    """MB/s of reading the largest text, less what fetching it takes. None when the difference is lost in the noise."""
    name, base = PARSERS[parser]
    size = list(results[name])[-1]
    taken = time(results, name, size) - (time(results, base, size) if base else 0)
    return results[name][size]["bytes"] / 1e6 / taken if taken > 0 else None


def _speeds(results):
    for parser in PARSERS:
        value = speed(results, parser)
        yield f"{parser} {value:,.0f} MB/s" if value else f"{parser} too fast to tell"


def _verify_rows(results):
    for size, of_size in results["verify"].items():
        rate = int(size) / 1e6 / of_size["cpu"]["median"]
        yield f"{int(size) / 1e6:,.2f} MB", brief(of_size["cpu"]), f"{rate:,.0f}"


def _plot(results, plots, name, title, x, lines):
    figure, axes = plots.figure(title, x, "CPU, s")
    axes.set(xscale="log", yscale="log")
    for label, piece in lines.items():
        sizes = list(results[piece])
        axes.plot(
            [int(size) for size in sizes], [time(results, piece, size) for size in sizes], marker="o", label=label
        )
    return plots.save(figure, f"pieces-{name}", f"{title} against the {x}")


def _snapshots(results, plots):
    former, last, grown, expected = growth(results, "prune")
    published = growth(results, "publish")[2]
    head = ("Snapshots", "pruning, CPU", "wall", "publication, CPU", "wall", "comparisons", "of it times")
    told = f"""From {former:,} to {last:,} snapshots pruning takes {grown:.1f} times as long, where n log n gives
        {expected:.1f}, and publication {published:.1f} times. The sort makes n log n comparisons, and each reads two
        modification times afresh, as [design.md](design.md#choices) has it. "Of it times" is what so many readings come
        to, at the cost of one by itself."""
    lines = {"Pruning": "prune", "Publication": "publish"}
    return f"""\
Pruning finds one snapshot too many, which holds two small files, among so many that stay. Publication replaces the link
and flushes the definitions root.

{table(head, *_snapshot_rows(results))}
{_plot(results, plots, "snapshots", "Pruning and publication", "number of snapshots", lines)}
{prose(told)}
"""


def _texts(results, plots):
    head = ("Lines", "configuration", "index", "fetch only", "fetch, hit INI", "fetch, complete INI")
    speeds = f"""At the largest size, without fetching: {", ".join(_speeds(results))}. The INI files that `zqu-mirror`
        writes have two and four lines."""
    lines = {"Configuration": "load_config", "Index": "parse_index", "Hit INI": "fetch_hit"}
    return f"""\
CPU against the number of lines, of which the last ones count; the index names another file in each. The INI files come
by file:// URLs, and fetching one without reading it stands beside.

{table(head, *_text_rows(results))}
{_plot(results, plots, "texts", "Reading texts", "number of lines", {**lines, "Complete INI": "fetch_complete"})}
{prose(speeds)}
"""


def render(results, plots):
    status = results["write_status"]["1"]
    return f"""\
The components through their headers, by Google Benchmark (`bench/pieces.cpp`), with files and folders on the disk.

### Snapshots

{_snapshots(results, plots)}
### Texts

{_texts(results, plots)}
### Files

{table(("Digest of a file", "CPU", "MB/s"), *_verify_rows(results))}
Writing the status file takes {brief(status["cpu"])} of CPU, {brief(status["wall"])} in all.
"""

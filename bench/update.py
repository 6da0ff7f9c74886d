"""A whole update, against two scripts that do the same and against the bare calls of the libraries; where time goes."""

import concurrent.futures
import os
import shutil
import subprocess

import callgrind
import gateways
import releases
from measure import in_turn, ratios, run, spreads
from outcomes import listing
from release import sha256
from text import prose, seconds, table, verdict, with_spread

TITLE = "A whole update"
SIZES = {20: 32, 200: 24, 1000: 4}  # MB of definitions, and how often: multiples of the four contenders
SMOKE = {1: 1}
SCRIPTS = {"openssl": "curl, openssl, bsdtar", "cabextract": "curl, sha256sum, cabextract"}
TITLES = {"daemon": "the daemon", "floor": "bare calls", **SCRIPTS}
# The share of the own code, below which nothing of it is worth a change, the limit of the ratio to bare calls, and
# those at 200 MB of the ratios to the scripts.
OWN, FLOOR, LIMITS = 0.005, 1.02, {"openssl": 0.95, "cabextract": 0.55}
OURS = ("zel_quorin_updater", "libstdc++")


class Site:
    """A mirror with one release, and everything that can take it from there."""

    def __init__(self, bench, nginx, size):
        self.bench = bench
        self.nginx = nginx
        self.root = bench.folder / "defs"
        self.archive_size = releases.publish(bench, nginx.root / f"{size}", size * 1_000_000)
        self.base = f"{nginx.url()}/{size}"
        self.url = f"{self.base}/{releases.SUBDIR}"
        mirror = {"mirror_base_url": self.base, "ca_path": nginx.ca_path}
        self.options = [*gateways.write_config(bench.folder / "updater.conf", self.root, **mirror), "--once"]
        self.commands = {
            "daemon": [bench.daemon, *self.options],
            "floor": [
                *[bench.build / "zqu_floor", nginx.ca_path, f"{self.url}/antivir-v2-hit.ini"],
                *[f"{self.url}/antivir-v2-c-{releases.ID}.ini", f"{self.url}/antivir-v2-c-{releases.ID}.cab"],
                *[self.root, releases.ID],
            ],
        }
        for name in SCRIPTS:
            script = bench.sources / f"pipeline_{name}.sh"
            self.commands[name] = [script, self.url, nginx.ca_path, self.root]
        self.clear()
        run(self.commands["daemon"], cwd=bench.folder)
        self.expected = self.left()

    def clear(self):
        """Takes the definitions away, and waits until the disk has nothing left to do for whoever was here before."""
        shutil.rmtree(self.root, ignore_errors=True)
        self.root.mkdir()
        subprocess.run(["sync", "--file-system", self.bench.folder], check=True)

    def update(self, name, prefix=()):
        """Has one of them make an update, which must leave what the daemon left at first; returns its cost."""
        self.clear()
        if name == "floor":
            self.root.rmdir()
        cost = run([*prefix, *self.commands[name]], cwd=self.bench.folder)
        assert self.left() == self.expected, (name, self.left(), self.expected)
        return cost

    def left(self):
        """What is below the definitions root but for the status file, which only the daemon has: the definitions with
        their sizes, and in a smoke run with their digests."""
        names = [name for name in listing(self.root) if name != "status.json"]
        files = sorted((self.root / "active").iterdir())
        return names, [sha256(path.read_bytes()) if self.bench.smoke else path.stat().st_size for path in files]

    def contenders(self):
        return {name: lambda name=name: self.update(name) for name in self.commands}


def share_of_samples(site):
    """Where the processor is in user mode and in the kernel's, by program or library: the number of samples that perf
    takes by the processor's clock, 5,000 a second, and their shares. None where perf cannot be had."""
    data = site.bench.folder / "perf.data"
    record = ["perf", "record", "--quiet", "--event", "cpu-clock", "--freq", "5000", "--output", data, "--"]
    if shutil.which("perf") is None or subprocess.run([*record, "true"], capture_output=True).returncode != 0:
        return None
    site.update("daemon", prefix=record)
    report = ["perf", "report", "--input", data, "--stdio", "--sort", "dso", "--show-nr-samples"]
    lines = subprocess.run([*report, "--field-separator", "\t"], capture_output=True, text=True, check=True).stdout
    rows = [line.split("\t") for line in lines.splitlines() if line.strip() and not line.startswith("#")]
    counts = {dso.strip(): int(count) for _, count, dso in rows}
    # The daemon's own code may be met by none of them, but not what unpacks the archive.
    assert any(name.startswith("libz.so") for name in counts) or site.bench.smoke, counts
    return {"count": sum(counts.values()), "shares": {dso: n / sum(counts.values()) for dso, n in counts.items()}}


def instructions(site):
    """Where instructions are spent in user mode, as callgrind counts them, on a processor without SHA instructions: how
    many the daemon and the bare calls take, and the shares of the daemon's."""
    counts = {}
    for name in ("daemon", "floor"):
        out = site.bench.folder / f"callgrind.{name}"
        site.update(name, prefix=callgrind.prefix(out))
        counts[name] = callgrind.counts(out)
    assert site.bench.daemon.name in counts["daemon"], counts
    totals = {name: count.total() for name, count in counts.items()}
    return {"totals": totals, "shares": callgrind.shares(counts["daemon"])}


def speed(name, mask, algorithm):
    """MB/s that libcrypto digests or deciphers, with the processor's instructions for it or less those in the mask."""
    environment = {**os.environ, **({"OPENSSL_ia32cap": mask} if mask else {})}
    command = ["openssl", "speed", "-mr", "-seconds", "1", "-bytes", "65536", "-decrypt", "-evp", algorithm]
    output = subprocess.run(command, env=environment, capture_output=True, text=True, check=True).stdout
    line = next(line for line in output.splitlines() if line.startswith("+F:"))
    return f"{algorithm} {name}", float(line.split(":")[-1]) / 1e6


def speed_of_libcrypto(bench):
    """The speed of SHA-256 and of the usual cipher of TLS, with the processor's instructions for them and without."""
    masks = {"with": None, "without": "~0x200000200000000:~0x20000000"}
    runs = [(*mask, algorithm) for mask in masks.items() for algorithm in ("sha256", "aes-256-gcm")]
    with concurrent.futures.ThreadPoolExecutor(len(runs) if bench.smoke else 1) as pool:
        return dict(pool.map(lambda each: speed(*each), runs))


def measure(bench):
    nginx = gateways.PlainNginx(bench.folder)
    results = {"sizes": {}, "speeds": speed_of_libcrypto(bench)}
    try:
        for size, rounds in (SMOKE if bench.smoke else SIZES).items():
            site = Site(bench, nginx, size)
            costs = in_turn(site.contenders(), rounds)
            others = [name for name in costs if name != "daemon"]
            results["sizes"][size] = {
                "archive": site.archive_size,
                "rounds": rounds,
                "costs": spreads(costs),
                "ratios": {
                    name: {field: ratios(costs, "daemon", name, field) for field in ("cpu", "wall")} for name in others
                },
            }
            if size == min(200, max(SMOKE if bench.smoke else SIZES)):
                results["profiled"] = size
                results["samples"] = share_of_samples(site)
            if size == min(SMOKE if bench.smoke else SIZES):
                results["counted"] = size
                results["instructions"] = instructions(site)
            shutil.rmtree(nginx.root / f"{size}")
    finally:
        nginx.stop()
    return results


def own_share(shares):
    return sum(share for name, share in shares.items() if name.startswith(OURS))


def against_floor(results):
    """Instructions in user mode to those of the bare calls: the same in each run, or nearly so."""
    totals = results["instructions"]["totals"]
    return totals["daemon"] / totals["floor"]


def _cost_rows(results):
    for size, of_size in results["sizes"].items():
        for name, title in TITLES.items():
            cost = of_size["costs"][name]
            yield f"{size} MB, {title}", seconds(cost["cpu"]), seconds(cost["wall"]), f"{of_size['rounds']}"


def _ratio_rows(results):
    for size, of_size in results["sizes"].items():
        for name, ratio in of_size["ratios"].items():
            yield f"{size} MB, to {TITLES[name]}", with_spread(ratio["cpu"], 3), with_spread(ratio["wall"], 3)


def _claims(results):
    judged = "200" if "200" in results["sizes"] else min(results["sizes"])
    for name, limit in LIMITS.items():
        for field, title in (("cpu", "CPU"), ("wall", "wall")):
            ratio = results["sizes"][judged]["ratios"][name][field]
            yield f"{judged} MB, {title} to {SCRIPTS[name]}", *_judged(ratio, limit)
    for size, of_size in results["sizes"].items():
        yield f"{size} MB, CPU to the bare calls", *_judged(of_size["ratios"]["floor"]["cpu"], FLOOR)
    counted, share = against_floor(results), own_share(results["instructions"]["shares"])
    title = f"{results['counted']} MB, instructions in user mode to the bare calls"
    yield title, f"{counted:.4f}", FLOOR, verdict(counted, FLOOR)
    if results["samples"]:
        sampled = own_share(results["samples"]["shares"])
        yield "share of own code and libstdc++, of samples", f"{sampled:.2%}", f"{OWN:.1%}", verdict(sampled, OWN)
    yield "share of own code and libstdc++, of instructions", f"{share:.2%}", f"{OWN:.1%}", verdict(share, OWN)


def _judged(ratio, limit):
    """The verdict on the median, with a word where the runs are too much at odds to be sure of it."""
    unsure = ", but within the quartiles" if ratio["low"] < limit < ratio["high"] else ""
    return with_spread(ratio, 3), limit, verdict(ratio["median"], limit) + unsure


def _shares(shares):
    return sorted(((name, f"{share:.2%}") for name, share in shares.items() if share >= 0.0005), key=_by_share)


def _by_share(row):
    return -float(row[1].rstrip("%"))


def _plot(results, plots):
    figure, axes = plots.figure("CPU time of an update", "MB of definitions", "s")
    axes.set(xscale="log", yscale="log")
    sizes = [int(size) for size in results["sizes"]]
    for name, title in TITLES.items():
        times = [of_size["costs"][name]["cpu"]["median"] for of_size in results["sizes"].values()]
        axes.plot(sizes, times, marker="o", label=title, linestyle="--" if name == "floor" else "-")
    axes.set_xticks(sizes, [str(size) for size in sizes])
    return plots.save(figure, "update", "CPU time of an update against the size of the definitions")


def _where(results):
    """The profiles: samples where perf could be had, and instructions."""
    samples, counted = results["samples"], results["instructions"]
    parts = []
    if samples:
        told = f"""By {samples["count"]:,} samples of the processor's clock over one update of {results["profiled"]} MB,
            kernel included:"""
        parts += [prose(told) + "\n", table(("Samples", "share"), *_shares(samples["shares"]))]
    told = f"""By instructions in user mode, as callgrind counts them over one update of {results["counted"]} MB:
        {counted["totals"]["daemon"]:,}, where the bare calls take {counted["totals"]["floor"]:,}. callgrind emulates a
        processor without SHA instructions; on one that has them, libcrypto's part is smaller."""
    return "\n".join([*parts, prose(told) + "\n", table(("Instructions", "share"), *_shares(counted["shares"]))])


def render(results, plots):
    speeds = results["speeds"]
    told = """nginx serves the release over TLS on loopback; the definitions are half random, half repetitive, in an
        MSZIP-compressed CAB. The disk is synchronised before each run, and each has to leave the same files behind.
        "Bare calls" is `bench/floor.cpp`: the daemon's calls of libcurl, libcrypto and libarchive, in the same order
        and with the same values (`tests/bench/test_floor.py`), and the system's that put files into place. It leaves
        out the names of entries, reading the index, looking at what is there already, pruning, configuration, status
        file and log. The scripts are `bench/pipeline_openssl.sh` and `bench/pipeline_cabextract.sh`: what an
        administrator would write for the same files; pruning, status file and time-outs they leave out as well."""
    resolution = """A verdict is on the median. Where the limit lies within the quartiles, these runs cannot tell the
        ratio from it. The ratio of instructions is all but the same from run to run, and leaves the kernel out."""
    ciphers = f"""With all instructions that libcrypto finds on this processor it digests
        {speeds["sha256 with"]:,.0f} MB/s (SHA-256) and deciphers {speeds["aes-256-gcm with"]:,.0f} MB/s (AES-256-GCM);
        with those for SHA and AES masked, {speeds["sha256 without"]:,.0f} and {speeds["aes-256-gcm without"]:,.0f}
        MB/s. One run of a second each."""
    return f"""\
{prose(told)}

{table(("Update", "CPU", "wall", "runs"), *_cost_rows(results))}
{_plot(results, plots)}
The daemon's part of what the others take:

{table(("Ratio", "CPU", "wall"), *_ratio_rows(results))}
Against what was aimed at:

{table(("Aim", "measured", "at most", ""), *_claims(results))}
{prose(resolution)}

### Where the time goes

{_where(results)}
{prose(ciphers)}
"""

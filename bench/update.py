"""A whole update, against two scripts that do the same and against the bare calls of the libraries; where time goes."""

import concurrent.futures
import os
import shutil
import subprocess

import callgrind
import releases
from measure import in_turn, medians, ratios, run
from mirrors import Nginx
from text import seconds, table, verdict, with_spread

TITLE = "A whole update"
SIZES = {20: 15, 200: 15, 1000: 5}  # MB of definitions, and how often
SMOKE = {1: 1}
SCRIPTS = {"openssl": "curl, openssl, bsdtar", "cabextract": "curl, sha256sum, cabextract"}
# The share of the own code, below which nothing of it is worth a change, and the limits of the ratios at 200 MB.
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
        self.config = bench.folder / "updater.conf"
        settings = {
            "mirror_base_url": self.base,
            "ca_path": nginx.ca_path,
            "def_root": self.root,
            "status_path": self.root / "status.json",
        }
        self.config.write_text("".join(f"{key} = {value}\n" for key, value in settings.items()))
        self.commands = {
            "daemon": [bench.daemon, "--config", self.config, "--once"],
            "floor": [
                *[bench.build / "zqu_floor", nginx.ca_path, f"{self.url}/antivir-v2-hit.ini"],
                *[f"{self.url}/antivir-v2-c-{releases.ID}.ini", f"{self.url}/antivir-v2-c-{releases.ID}.cab"],
                *[self.root, releases.ID],
            ],
        }
        for name in SCRIPTS:
            script = bench.sources / f"pipeline_{name}.sh"
            self.commands[name] = [script, self.url, nginx.ca_path, self.root]

    def clear(self):
        """Takes the definitions away, and waits until the disk has nothing left to do for whoever was here before."""
        shutil.rmtree(self.root, ignore_errors=True)
        self.root.mkdir()
        subprocess.run(["sync", "--file-system", self.bench.folder], check=True)

    def update(self, name, prefix=()):
        """Has one of them make an update, which must leave the same as the daemon leaves; returns its cost."""
        self.clear()
        if name == "floor":
            self.root.rmdir()
        cost = run([*prefix, *self.commands[name]], cwd=self.bench.folder)
        files = sorted(path.name for path in (self.root / "active").iterdir())
        assert files == ["aivsecon-v2.def", "antivir-v2.def"], (name, files)
        return cost

    def contenders(self):
        return {name: lambda name=name: self.update(name) for name in self.commands}


def share_of_samples(site):
    """Where the processor is in user mode and in the kernel's, by program or library: shares of the samples that perf
    takes by the processor's clock, 5,000 a second. None where perf cannot be had."""
    data = site.bench.folder / "perf.data"
    record = ["perf", "record", "--quiet", "--event", "cpu-clock", "--freq", "5000", "--output", data, "--"]
    if shutil.which("perf") is None or subprocess.run([*record, "true"], capture_output=True).returncode != 0:
        return None
    site.update("daemon", prefix=record)
    report = ["perf", "report", "--input", data, "--stdio", "--sort", "dso", "--field-separator", "\t"]
    lines = subprocess.run(report, capture_output=True, text=True, check=True).stdout.splitlines()
    pairs = [line.strip().split("\t") for line in lines if line.strip() and not line.startswith("#")]
    return {dso.strip(): float(share.strip("% ")) / 100 for share, dso in pairs}


def share_of_instructions(site):
    """Where instructions are spent in user mode, as callgrind counts them, on a processor without SHA instructions."""
    out = site.bench.folder / "callgrind.out"
    site.update("daemon", prefix=callgrind.prefix(out))
    return callgrind.shares(out)


def speed(name, mask, algorithm):
    """MB/s that libcrypto does, with the processor's instructions for it or with those in the mask left out."""
    environment = {**os.environ, **({"OPENSSL_ia32cap": mask} if mask else {})}
    command = ["openssl", "speed", "-mr", "-seconds", "1", "-bytes", "65536", "-evp", algorithm]
    output = subprocess.run(command, env=environment, capture_output=True, text=True, check=True).stdout
    line = next(line for line in output.splitlines() if line.startswith("+F:"))
    return f"{algorithm} {name}", float(line.split(":")[-1]) / 1e6


def speed_of_libcrypto(bench):
    """The speed of SHA-256 and of the usual cipher of TLS, with the processor's instructions for them and without."""
    masks = {"with": None, "without": "~0x200000200000000:~0x20000000"}
    runs = [(*mask, algorithm) for mask in masks.items() for algorithm in ("sha256", "aes-256-gcm")]
    with concurrent.futures.ThreadPoolExecutor(len(runs) if bench.smoke else 1) as pool:
        return dict(pool.map(lambda run: speed(*run), runs))


def measure(bench):
    nginx = Nginx(bench.folder)
    results = {"sizes": {}, "speeds": speed_of_libcrypto(bench)}
    try:
        for size, rounds in (SMOKE if bench.smoke else SIZES).items():
            site = Site(bench, nginx, size)
            costs = in_turn(site.contenders(), rounds)
            others = [name for name in costs if name != "daemon"]
            results["sizes"][size] = {
                "archive": site.archive_size,
                "rounds": rounds,
                "costs": medians(costs),
                "ratios": {
                    name: {field: ratios(costs, "daemon", name, field) for field in ("cpu", "wall")} for name in others
                },
            }
            if size == min(200, max(SMOKE if bench.smoke else SIZES)):
                results["profiled"] = size
                results["samples"] = share_of_samples(site)
            if size == min(SMOKE if bench.smoke else SIZES):
                results["counted"] = size
                results["instructions"] = share_of_instructions(site)
            shutil.rmtree(nginx.root / f"{size}")
    finally:
        nginx.stop()
    return results


def own_share(shares):
    return sum(share for name, share in shares.items() if name.startswith(OURS))


def _cost_rows(results):
    for size, of_size in results["sizes"].items():
        for name in ("daemon", "floor", *SCRIPTS):
            cost = of_size["costs"][name]
            title = {"daemon": "the daemon", "floor": "bare calls"}.get(name) or SCRIPTS[name]
            yield f"{size} MB, {title}", seconds(cost["cpu"]), seconds(cost["wall"]), f"{of_size['rounds']}"


def _ratio_rows(results):
    for size, of_size in results["sizes"].items():
        for name, ratio in of_size["ratios"].items():
            title = "bare calls" if name == "floor" else SCRIPTS[name]
            yield f"{size} MB, to {title}", with_spread(ratio["cpu"], 3), with_spread(ratio["wall"], 3)


def _claims(results):
    of_size = results["sizes"][max(results["sizes"], key=lambda size: size == "200")]["ratios"]
    for name, limit in LIMITS.items():
        for field in ("cpu", "wall"):
            value = of_size[name][field]["median"]
            yield f"{field.upper() if field == 'cpu' else field} to {SCRIPTS[name]}", value, limit
    yield "CPU to the bare calls", of_size["floor"]["cpu"]["median"], FLOOR
    if results["samples"]:
        yield "share of own code and libstdc++, of samples", own_share(results["samples"]), OWN
    yield "share of own code and libstdc++, of instructions", own_share(results["instructions"]), OWN


def _shares(shares):
    return sorted(((name, f"{share:.2%}") for name, share in shares.items() if share >= 0.0005), key=_by_share)


def _by_share(row):
    return -float(row[1].rstrip("%"))


def _plot(results, plots):
    figure, axes = plots.figure("CPU time of an update", "MB of definitions", "s")
    axes.set(xscale="log", yscale="log")
    sizes = [int(size) for size in results["sizes"]]
    for name in ("daemon", "floor", *SCRIPTS):
        times = [of_size["costs"][name]["cpu"]["median"] for of_size in results["sizes"].values()]
        title = {"daemon": "the daemon", "floor": "bare calls"}.get(name) or SCRIPTS[name]
        axes.plot(sizes, times, marker="o", label=title, linestyle="--" if name == "floor" else "-")
    axes.set_xticks(sizes, [str(size) for size in sizes])
    return plots.save(figure, "update", "CPU time of an update against the size of the definitions")


def render(results, plots):
    speeds = results["speeds"]
    return f"""\
nginx serves the release over TLS on loopback; the definitions are half random, half repetitive, in an MSZIP-compressed
CAB. The disk is synchronised before each run. "Bare calls" is `bench/floor.cpp`: the same calls of libcurl, libcrypto,
libarchive and the system with nothing around them. The scripts are `bench/pipeline_openssl.sh` and
`bench/pipeline_cabextract.sh`: what an administrator would write for the same job.

{table(("Update", "CPU", "wall", "runs"), *_cost_rows(results))}
{_plot(results, plots)}
The daemon's part of what the others take:

{table(("Ratio", "CPU", "wall"), *_ratio_rows(results))}
Against what was aimed at, at {"200" if "200" in results["sizes"] else min(results["sizes"])} MB:

{table(("Aim", "measured", "at most", ""), *((a, f"{b:.4f}", c, verdict(b, c)) for a, b, c in _claims(results)))}
### Where the time goes

By samples of the processor's clock over one update of {results["profiled"]} MB, kernel included, and by instructions
in user mode that callgrind counts over one of {results["counted"]} MB. callgrind emulates a processor without SHA
instructions, which makes libcrypto's part larger than it is.

{table(("Samples", "share"), *_shares(results["samples"] or {}))}
{table(("Instructions", "share"), *_shares(results["instructions"]))}
libcrypto digests {speeds["sha256 with"]:,.0f} MB/s with this processor's SHA instructions and
{speeds["sha256 without"]:,.0f} MB/s without; it deciphers {speeds["aes-256-gcm with"]:,.0f} MB/s of AES-256-GCM, and
{speeds["aes-256-gcm without"]:,.0f} MB/s without the instructions for that.
"""

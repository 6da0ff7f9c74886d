"""A whole update, compared with two scripts that do the same and with the bare calls; where the time goes."""

import os
import shutil
import subprocess

from gateway import Gateway
from measure import contest, instructions, run
from outcomes import listing
from release import sha256
from report import aims, costs, table
from sites import ID, SUBDIR, Server, publish

SIZES = {20: 32, 200: 24, 1000: 4}  # MB of definitions, and how often: multiples of the four contenders
SMOKE = {1: 1}
SCRIPTS = {"openssl": "curl, openssl, bsdtar", "cabextract": "curl, sha256sum, cabextract"}
TITLES = {"daemon": "the daemon", "floor": "bare calls", **SCRIPTS}
# The limits of the ratios to the scripts at 200 MB, of those to the bare calls, and of the share of the own code.
LIMITS, FLOOR, OWN = {"openssl": 0.95, "cabextract": 0.55}, 1.02, 0.005
# Hides the processor's instructions for ciphers and digests from libcrypto.
WITHOUT = {"OPENSSL_ia32cap": "~0x200000200000000:~0x20000000", "OPENSSL_armcap": "0"}
OURS = ("zel_quorin_updater", "libstdc++")


class Update:
    """A mirror with one release, and the programs that fetch it."""

    def __init__(self, bench, nginx, size, compressible=True):
        self.bench = bench
        self.source = nginx.root / f"{size}"
        self.archive = publish(bench, self.source, size * 1_000_000, compressible=compressible)
        base = f"{nginx.url()}/{size}"
        url = f"{base}/{SUBDIR}"
        gateway = Gateway(bench.directory, mirror_base_url=base, ca_path=nginx.ca_path)
        self.root = gateway.root
        self.options = ["--config", gateway.config_path, "--once"]
        files = [f"{url}/antivir-v2-{name}" for name in ("hit.ini", f"c-{ID}.ini", f"c-{ID}.cab")]
        self.commands = {
            "daemon": [bench.daemon, *self.options],
            "floor": [bench.build / "zqu_floor", nginx.ca_path, *files, self.root, ID],
            **{kind: [bench.sources / "pipeline.sh", kind, url, nginx.ca_path, self.root] for kind in SCRIPTS},
        }
        self.expected = None
        self.update("daemon")

    def clear(self):
        """Removes the definitions, and waits until the disk has written everything."""
        shutil.rmtree(self.root, ignore_errors=True)
        self.root.mkdir()
        subprocess.run(["sync", "--file-system", self.bench.directory], check=True)

    def update(self, name, prefix=()):
        """Makes an update, which must leave what the daemon left at first; returns its cost."""
        self.clear()
        if name == "floor":
            self.root.rmdir()
        cost = run([*prefix, *self.commands[name]], cwd=self.bench.directory)
        self.require_same(name)
        return cost

    def require_same(self, name):
        files = sorted((self.root / "active").iterdir())
        kept = [sha256(path.read_bytes()) if self.bench.smoke else path.stat().st_size for path in files]
        left = listing(self.root), kept
        self.expected = self.expected or left
        assert left == self.expected, (name, left, self.expected)

    def contenders(self):
        return {name: lambda name=name: self.update(name) for name in self.commands}

    def end(self):
        shutil.rmtree(self.root)
        shutil.rmtree(self.source)


def samples(site):
    """Where the processor is, kernel included, by program or library: how many samples perf takes by its clock, 5,000 a
    second. None where perf does not work."""
    data = site.bench.directory / "perf.data"
    record = ["perf", "record", "--quiet", "--event", "cpu-clock", "--freq", "5000", "--output", data, "--"]
    if shutil.which("perf") is None or subprocess.run([*record, "true"], capture_output=True).returncode != 0:
        return None
    site.update("daemon", prefix=record)
    report = ["perf", "report", "--input", data, "--stdio", "--sort", "dso", "--show-nr-samples"]
    lines = subprocess.run([*report, "--field-separator", "\t"], capture_output=True, text=True, check=True).stdout
    rows = [line.split("\t") for line in lines.splitlines() if line.strip() and not line.startswith("#")]
    return {dso.strip(): int(count) for _, count, dso in rows}


def speed(algorithm, variables):
    """MB/s that libcrypto digests or deciphers."""
    command = ["openssl", "speed", "-mr", "-seconds", "1", "-bytes", "65536", "-decrypt", "-evp", algorithm]
    environment = {**os.environ, **variables}
    output = subprocess.run(command, env=environment, capture_output=True, text=True, check=True).stdout
    return float(next(line for line in output.splitlines() if line.startswith("+F:")).split(":")[-1]) / 1e6


def measure(bench):
    sizes = SMOKE if bench.smoke else SIZES
    algorithms = ["sha256"] if bench.smoke else ["sha256", "aes-256-gcm"]
    speeds = {name: [speed(name, variables) for variables in ({}, WITHOUT)] for name in algorithms}
    results = {"sizes": {}, "speeds": speeds}
    nginx = Server(bench.directory)
    try:
        for size, rounds in sizes.items():
            site = Update(bench, nginx, size)
            results["sizes"][size] = contest(site.contenders(), rounds)
            if size == min(200, max(sizes)):
                results["samples"] = samples(site)
            if size == min(sizes):
                results["instructions"] = {
                    name: instructions(bench, lambda prefix, name=name: site.update(name, prefix))
                    for name in ("daemon", "floor")
                }
            site.end()
    finally:
        nginx.stop()
    return results


def own_share(counts):
    return sum(count for name, count in counts.items() if name.startswith(OURS)) / sum(counts.values())


def _aims(results):
    sizes = results["sizes"]
    judged = "200" if "200" in sizes else min(sizes)
    for name, limit in LIMITS.items():
        for field, title in (("cpu", "CPU"), ("wall", "wall")):
            ratio = sizes[judged]["ratios"][f"daemon to {name}"][field]
            yield f"{judged} MB, {title} to {SCRIPTS[name]}", ratio, limit
    for size, of_size in sizes.items():
        yield f"{size} MB, CPU to the bare calls", of_size["ratios"]["daemon to floor"]["cpu"], FLOOR
    counts = results["instructions"]
    ratio = sum(counts["daemon"].values()) / sum(counts["floor"].values())
    yield f"{min(sizes, key=int)} MB, instructions in user mode to the bare calls", ratio, FLOOR, ".4f"
    if results["samples"]:
        yield "share of own code and libstdc++, of samples", own_share(results["samples"]), OWN, ".2%"
    yield "share of own code and libstdc++, of instructions", own_share(counts["daemon"]), OWN, ".2%"


def _shares(results):
    """One row for each place that one of the profiles shows at least 0.05 % of its counts in."""
    profiles = [results["samples"] or {}, results["instructions"]["daemon"]]
    shares = [{name: count / sum(counts.values()) for name, count in counts.items()} for counts in profiles]
    for name in sorted({**shares[0], **shares[1]}, key=lambda name: [-of.get(name, 0) for of in shares]):
        if max(of.get(name, 0) for of in shares) >= 0.0005:
            yield name, *(f"{of.get(name, 0):.2%}" for of in shares)


def figures(results, pages):
    sizes = results["sizes"]
    contests = {f"{size} MB, ": (of_size, TITLES) for size, of_size in sizes.items()}
    columns = {"cpu": "the daemon's CPU to it", "wall": "wall"}
    numbers = [int(size) for size in sizes]
    lines = {
        title: (numbers, [of["costs"][name]["cpu"]["median"] for of in sizes.values()])
        for name, title in TITLES.items()
    }
    axes = {"xscale": "log", "yscale": "log", "xticks": numbers, "xticklabels": numbers}
    pages.picture("update", "CPU time of an update", "MB of definitions", "s", lines, **axes)
    rates = ((name, *(f"{rate:,.0f} MB/s" for rate in rates)) for name, rates in results["speeds"].items())
    return {
        "costs": costs("Update", contests, "daemon to {}", columns, ("cpu", "wall")),
        "aims": aims(_aims(results)),
        "shares": table(("Program or library", "of samples", "of instructions"), _shares(results)),
        "speeds": table(("libcrypto", "with the processor's instructions", "without"), rates),
    }

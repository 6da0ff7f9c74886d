"""How a changed release reaches a gateway: direct, as CAB or Zstandard, or by a delta to its local mirror."""

import os
import random
import shutil
import subprocess
import time

from formats import signatures, write_release
from gateway import Gateway
from measure import contest, peak_kib, run
from report import aims, seconds, table, with_spread
from sites import SUBDIR, Server, publishing
from update import Update

ROUNDS = {20: 6, 200: 6, 1000: 2}  # by MB of definitions, for MAIN: multiples of the orders of its contenders
OTHER_ROUNDS = 2  # of two contenders
SMOKE = {1: 2}
# The share of the lines that change from one release to the next, and what changes in them.
MAIN, OTHER = (0.01, "pattern"), (0.01, "line")
CHANGES = {1: [MAIN, OTHER], 200: [(0.001, "pattern"), MAIN, (0.1, "pattern"), OTHER]}
CHANGES[20] = CHANGES[1000] = CHANGES[200][:3]
ZSTD_UP_TO = 200  # MB: packing takes 0.4 s a MB. With MAIN only, as nothing but the delta depends on the change
TITLES = {"cab": "direct, CAB", "zstd": "direct, Zstandard"}
LIMITS = {"bytes": 0.01, "cpu": 1}


class Counting(Server):
    LOG = "$status $bytes_sent"

    def sent(self, requests, since=0):
        """How many bytes nginx sent after those lines of its log, in so many good answers; waits for them."""
        for _ in range(3000):  # nginx writes its log after the answer
            lines = [line.split() for line in (self.directory / "access.log").read_text().splitlines()][since:]
            if len(lines) >= requests:
                assert [status for status, _ in lines] == ["200"] * requests, lines
                return sum(int(count) for _, count in lines)
            time.sleep(0.01)
        raise AssertionError(f"{len(lines)} requests instead of {requests}")


class Direct(Update):
    """A gateway that downloads the current release of a mirror behind nginx."""

    def __init__(self, bench, nginx, name, mirror):
        self.bench, self.nginx, self.name = bench, nginx, name
        self.directory = bench.directory / name
        self.directory.mkdir()
        base, ca_path = self.upstream(nginx, mirror)
        self.gateway = Gateway(self.directory, mirror_base_url=base, ca_path=ca_path)
        self.root = self.gateway.root
        self.steps = {"daemon": [bench.daemon, "--config", self.gateway.config_path, "--once"]}

    def upstream(self, nginx, mirror):
        return f"{nginx.url()}/{mirror}", nginx.ca_path

    def update(self):
        """Makes an update; returns the cost of all its steps."""
        self.clear()
        costs = {step: run(command, cwd=self.directory) for step, command in self.steps.items()}
        self.require_same(self.name)
        return {field: sum(cost[field] for cost in costs.values()) for field in costs["daemon"]} | {"steps": costs}

    def figures(self, expected):
        """The cost of getting the current release, except time. Requires that it is the expected release."""
        self.expected = None
        since = len((self.nginx.directory / "access.log").read_text().splitlines())
        self.clear()
        peaks = {step: peak_kib(command) for step, command in self.steps.items()}
        sent = self.nginx.sent(3, since)  # hit INI, complete-info INI, and the archive or the delta
        self.require_same(self.name)
        assert os.readlink(self.root / "active").endswith(expected), os.readlink(self.root / "active")
        return {"bytes": sent, "peaks": peaks}

    def advance(self):
        """Continues with the release of the last update."""

    def end(self):
        shutil.rmtree(self.directory)


class Local(Direct):
    """The same with a local mirror of plain archives. Each update begins with that of the former release."""

    def __init__(self, bench, nginx, name, mirror):
        super().__init__(bench, nginx, name, mirror)
        options = ["--plain", "--quiet", "--ca", nginx.ca_path, "--upstream-subdir", f"{mirror}/{SUBDIR}"]
        command = [bench.build / "zqu-mirror", "mirror", *options, nginx.url(), self.local]
        subprocess.run(command, check=True, capture_output=True)  # warns that there is no delta
        self.advance()
        self.steps = {"mirror": command, **self.steps}

    def upstream(self, nginx, mirror):
        self.local, self.former = self.directory / "local", self.directory / "former"
        return f"file://{self.local}", nginx.ca_path

    def clear(self):
        shutil.rmtree(self.local)
        shutil.copytree(self.former, self.local, copy_function=os.link)
        super().clear()

    def advance(self):
        shutil.rmtree(self.former, ignore_errors=True)
        shutil.copytree(self.local, self.former, copy_function=os.link)


def change(path, share, kind, seed):
    """Replaces lines of a file of signatures by new ones, or 32 of the hexadecimal digits of their patterns."""
    source = random.Random(seed)
    lines = path.read_bytes().splitlines(keepends=True)
    chosen = source.sample(range(len(lines) - 1), round(len(lines) * share))  # the last line may be cut
    new = b"".join(signatures(len(chosen) * 200, seed + 100)).splitlines(keepends=True) if kind == "line" else None
    for number, place in enumerate(chosen):
        begin = lines[place].index(b"*:") + 2
        kept = lines[place][:begin], lines[place][begin + 32 :]
        lines[place] = new[number] if new else source.randbytes(16).hex().encode().join(kept)
    path.write_bytes(b"".join(lines))


class Run:
    """The releases of one size, each changed from the one before, and the gateways that follow them."""

    def __init__(self, bench, nginx, size, rounds):
        self.bench, self.nginx, self.size, self.rounds = bench, nginx, size, rounds
        self.files = write_release(bench.directory / "release", size * 1_000_000)
        self.id = 1001
        self.publishing = {"cab": self.publish("cab")}
        self.sites = {"cab": Direct(bench, nginx, "cab", "cab"), "delta": Local(bench, nginx, "delta", "cab")}

    def publish(self, form, *options):
        command = publishing(self.bench, self.nginx.root / form, self.files, release=str(self.id), form=form)
        cost = run([*command, *options])
        return {field: cost[field] for field in ("cpu", "wall")}

    def step(self, share, kind):
        """The figures of one change."""
        self.id += 1
        for file in self.files:
            change(file, share, kind, self.id)
        publishing = self.publish("cab", "--deltas", "1")
        sites = dict(self.sites)
        is_main = (share, kind) == MAIN
        if is_main and self.size <= ZSTD_UP_TO:
            self.publishing["zstd"] = self.publish("zstd")
            sites["zstd"] = Direct(self.bench, self.nginx, "zstd", "zstd")
        figures = {name: site.figures(str(self.id)) for name, site in sites.items()}
        assert len({str(site.expected) for site in sites.values()}) == 1, "not all have the same definitions"
        shares = []

        def update(name):
            cost = sites[name].update()
            if name == "delta":
                shares.append(cost["steps"]["mirror"]["cpu"] / cost["cpu"])
            return cost

        rounds = self.rounds if is_main else OTHER_ROUNDS
        found = contest({name: lambda name=name: update(name) for name in sites}, rounds, [("delta", "cab")])
        self.sites["delta"].advance()
        for name, cost in found["costs"].items():
            figures[name] |= {field: cost[field] for field in ("cpu", "wall")}
        return {
            **{"share": share, "kind": kind, "publishing": publishing, "ways": figures},
            **{"ratio": found["ratios"]["delta to cab"]["cpu"], "mirror": sum(shares) / len(shares)},
        }

    def end(self):
        for directory in (*(site.directory for site in self.sites.values()), self.files[0].parent):
            shutil.rmtree(directory)
        for form in self.publishing:
            shutil.rmtree(self.nginx.root / form)
            shutil.rmtree(self.bench.directory / form, ignore_errors=True)


def measure(bench):
    nginx = Counting(bench.directory)
    results = {}
    try:
        for size, rounds in (SMOKE if bench.smoke else ROUNDS).items():
            of_size = Run(bench, nginx, size, rounds)
            steps = [of_size.step(share, kind) for share, kind in CHANGES[size]]
            results[size] = {"changes": steps, "publishing": of_size.publishing}
            of_size.end()
    finally:
        nginx.stop()
    return results


def _main(of):
    return next(each for each in of["changes"] if (each["share"], each["kind"]) == MAIN)


def _times(way):
    return seconds(way["cpu"]), seconds(way["wall"])


def _publishing(cost):
    return f"{cost['cpu']:,.1f} s / {cost['wall']:,.1f} s"


def _peaks(way):
    return " / ".join(f"{kib:,}" for kib in way["peaks"].values())


def _direct_rows(results):
    for size, of in results.items():
        for name in of["publishing"]:
            way = _main(of)["ways"][name]
            cost = _publishing(of["publishing"][name])
            yield f"{size} MB, {TITLES[name]}", f"{way['bytes']:,}", *_times(way), _peaks(way), cost


def _delta_rows(results):
    for size, of in results.items():
        for each in of["changes"]:
            way = each["ways"]["delta"]
            kind = ", whole lines" if each["kind"] == "line" else ""
            yield (
                *(f"{size} MB, {each['share']:.1%}{kind}", f"{way['bytes']:,}"),
                *(f"{way['bytes'] / each['ways']['cab']['bytes']:.4f}", *_times(way)),
                *(f"{each['mirror']:.0%}", with_spread(each["ratio"]), _peaks(way), _publishing(each["publishing"])),
            )


def figures(results, pages):
    judged = "200" if "200" in results else min(results)
    each = _main(results[judged])
    ratio = each["ways"]["delta"]["bytes"] / each["ways"]["cab"]["bytes"]
    ends = ("peak, KiB", "publishing, CPU / wall")
    delta = ("CPU, both", "wall", "of the CPU, the mirror", "CPU to the CAB", "peaks, KiB, mirror / daemon", ends[1])
    rows = (
        (f"{judged} MB, 1 %: bytes to the CAB", ratio, LIMITS["bytes"], ".4f"),
        (f"{judged} MB, 1 %: CPU of mirror and daemon to the CAB", each["ratio"], LIMITS["cpu"]),
    )
    return {
        "direct": table(("Definitions, way", "bytes sent", "CPU", "wall", *ends), _direct_rows(results)),
        "costs": table(("Definitions, changed lines", "bytes sent", "to the CAB", *delta), _delta_rows(results)),
        "aims": aims(rows),
    }

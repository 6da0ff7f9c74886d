"""Publishing a release, against only packing the same files by gcab(1)."""

import shutil
import subprocess

from measure import contest, run
from report import aims, costs
from sites import definitions, publishing

SIZE, SMOKE = 1000, 1  # MB of definitions
ROUNDS = 6  # a multiple of the two contenders
TITLES = {"publish": "`zqu-mirror publish`", "gcab": "`gcab -c -z`"}
LIMIT = 1.4


def measure(bench):
    size = SMOKE if bench.smoke else SIZE
    files = definitions(bench.directory, size * 1_000_000)
    mirror, archive = bench.directory / "mirror", bench.directory / "packed.cab"
    commands = {
        "publish": publishing(bench, mirror, files),
        "gcab": ["gcab", "-c", "-z", archive, *files],
    }

    def packed(name):
        shutil.rmtree(mirror, ignore_errors=True)
        archive.unlink(missing_ok=True)
        subprocess.run(["sync", "--file-system", bench.directory], check=True)
        return run(commands[name])

    contenders = {name: lambda name=name: packed(name) for name in commands}
    return {"size": size, **contest(contenders, 2 if bench.smoke else ROUNDS)}


def figures(results, pages):
    rows = {f"{results['size']} MB, ": (results, TITLES)}
    ratio = results["ratios"]["publish to gcab"]["cpu"]
    return {
        "costs": costs("Release", rows, "publish to {}", {"cpu": "CPU of publishing to it", "wall": "wall"}),
        "aims": aims([(f"{results['size']} MB, CPU to gcab", ratio, LIMIT)]),
    }

"""The formats of archives side by side, with text like signatures: bytes, packing, a whole update and its memory."""

import random
import shutil

from gateway import Gateway
from measure import contest, peak_kib, run, spread
from release import definition_names, hit_ini, index_of, info_ini, info_name, sha256
from report import aims, seconds, table, with_spread
from sites import ID, SUBDIR, Server, publishing
from update import Update

PUBLISHED = {"cab": "CAB", "zip": "deflated ZIP", "zstd": "Zstandard"}
# By what an administrator would write: the end of the archive's name, and what packs into $0.
STORED = 'bsdtar -c --format zip --options zip:compression=store -f - "$@"'
PIPELINES = {
    "gcab": ("cab", 'gcab -c -z "$0" "$@"'),
    "bsdtar, zstd": ("zip.zst", f'{STORED} | zstd -q -19 --zstd=wlog=22 -o "$0"'),
}
TITLES = {**PUBLISHED, "gcab": "`gcab -c -z`", "bsdtar, zstd": "`bsdtar` and `zstd -19 --zstd=wlog=22`"}
ROUNDS = {20: 10, 200: 10, 1000: 6}  # by MB of definitions: multiples of the orders of the contenders
SMOKE = {1: 1}
PIPELINES_UP_TO = 20  # MB: the second one packs half a MB a second
PEAKS = 3
LIMITS = {"bytes": 0.77, "cpu": 0.7, "peak": 20 * 1024}
KINDS = ("Trojan", "Worm", "Dropper", "Adware", "Exploit", "Backdoor", "Packer", "Macro")


def signatures(size, seed):
    """Pieces of lines of a name, a type, a place and a hexadecimal pattern, size bytes in all. A pattern is random, but
    for an end that the 4,096 families of names share among their own."""
    source = random.Random(seed)
    syllables = [a + b for a in "bcdfgklmnprstvz" for b in "aeiou"]
    families = [
        (f"{source.choice(KINDS)}.{''.join(source.choices(syllables, k=3)).title()}", source.randbytes(12).hex())
        for _ in range(4096)
    ]
    number = 0
    while size > 0:
        lines, at, pattern = [], 0, source.randbytes(1 << 19).hex()
        for dice in memoryview(source.randbytes(4 * 8192)).cast("I"):
            (name, shared), length = families[dice & 4095], 32 + (dice >> 12 & 63)
            lines.append(f"{name}-{number}:{dice & 7}:*:{pattern[at:at + length]}{shared[dice >> 18 & 15:]}\n")
            number, at = number + 1, at + length
        text = "".join(lines).encode()[:size]
        yield text
        size -= len(text)


def write_release(directory, size):
    """Writes the files of a release of size bytes there; returns the paths of the definitions."""
    directory.mkdir()
    files = [directory / name for name in definition_names()]
    for seed, (path, share) in enumerate(zip(files, (3, 1))):
        with open(path, "wb") as file:
            file.writelines(signatures(size * share // 4, seed))
    name, index = index_of([(path.name, path.read_bytes()) for path in files])
    (directory / name).write_bytes(index)
    return files


class Packed(Update):
    """A mirror with a release in one form, and the daemon that takes it from there."""

    def __init__(self, bench, nginx, form, files):
        self.bench, self.source, self.expected = bench, nginx.root / form, None
        directory = self.source / SUBDIR
        directory.mkdir(parents=True)
        if form in PUBLISHED:
            self.packing = run(publishing(bench, self.source, files, form=form))
            archive = next(path for path in directory.iterdir() if path.suffix != ".ini")
        else:
            suffix, script = PIPELINES[form]
            archive, names = directory / f"archive.{suffix}", ["antivir-v2.ini", *definition_names()]
            self.packing = run(["sh", "-c", script, archive, *names], cwd=files[0].parent)
            (directory / "antivir-v2-hit.ini").write_bytes(hit_ini(ID))
            (directory / info_name(ID)).write_bytes(info_ini(ID, archive.name, sha256(archive.read_bytes())))
        self.archive = archive.stat().st_size
        base = bench.directory / form
        base.mkdir(exist_ok=True)
        gateway = Gateway(base, mirror_base_url=f"{nginx.url()}/{form.replace(' ', '%20')}", ca_path=nginx.ca_path)
        self.root = gateway.root
        self.commands = {"daemon": [bench.daemon, "--config", gateway.config_path, "--once"]}
        self.update("daemon")

    def peak(self):
        self.clear()
        return peak_kib(self.commands["daemon"])


def of_size(bench, nginx, size, rounds):
    files = write_release(bench.directory / "release", size * 1_000_000)
    forms = [*PUBLISHED, *(PIPELINES if size <= PIPELINES_UP_TO else ())]
    sites = {form: Packed(bench, nginx, form, files) for form in forms}
    shutil.rmtree(files[0].parent)
    updates = {form: lambda site=site: site.update("daemon") for form, site in sites.items()}
    results = {
        **contest(updates, rounds, [(form, "cab") for form in forms[1:]]),
        "archives": {form: site.archive for form, site in sites.items()},
        "packing": {form: site.packing for form, site in sites.items()},
        "peaks": {form: spread([site.peak() for _ in range(PEAKS)]) for form, site in sites.items()},
    }
    for site in sites.values():
        site.end()
    return results


def measure(bench):
    nginx = Server(bench.directory)
    try:
        return {
            size: of_size(bench, nginx, size, rounds) for size, rounds in (SMOKE if bench.smoke else ROUNDS).items()
        }
    finally:
        nginx.stop()


def _rows(results):
    for size, of in results.items():
        for form, archive in of["archives"].items():
            cpu, wall = (of["costs"][form][field] for field in ("cpu", "wall"))
            ratio = of["ratios"].get(f"{form} to cab")
            packing = (f"{of['packing'][form][field]:,.1f} s" for field in ("cpu", "wall"))
            yield (
                *(f"{size} MB, {TITLES[form]}", f"{archive:,}", f"{archive / of['archives']['cab']:.3f}", *packing),
                *(seconds(cpu), seconds(wall), with_spread(ratio["cpu"]) if ratio else ""),
                with_spread(of["peaks"][form], 0, 1, " KiB"),
            )


def figures(results, pages):
    judged = "200" if "200" in results else min(results)
    of = results[judged]
    head = ("Definitions, archive", "bytes", "to the CAB", "packing, CPU", "wall", "update, CPU", "wall")
    rows = (
        (f"{judged} MB, bytes to the CAB", of["archives"]["zstd"] / of["archives"]["cab"], LIMITS["bytes"], ".3f"),
        (f"{judged} MB, CPU of an update to the CAB", of["ratios"]["zstd to cab"]["cpu"], LIMITS["cpu"]),
        (f"{judged} MB, peak, KiB", int(of["peaks"]["zstd"]["high"]), LIMITS["peak"], ",d"),
    )
    return {
        "costs": table((*head, "CPU to the CAB", "peak"), _rows(results)),
        "aims": aims(rows),
    }

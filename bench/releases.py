"""Releases of definitions of a given size, published on a mirror by zqu-mirror."""

import functools
import random
import subprocess

SUBDIR = "rhex/deffiles/def5-2"
ID = "1001"


@functools.cache
def _chunk(compressible):
    """8 MiB: half of it random, half of it repeated, as signatures between their names are; or all of it random."""
    source = random.Random(20)
    if not compressible:
        return source.randbytes(8 << 20)
    words = [source.randbytes(16) for _ in range(64)]
    return b"".join(source.randbytes(32) + source.choice(words) + source.choice(words) for _ in range(1 << 17))


def write_definitions(path, size, compressible=True):
    """Writes size bytes. They repeat after 8 MiB, which is far beyond the 32 KiB that compression looks back."""
    chunk = _chunk(compressible)
    with open(path, "wb") as file:
        for begin in range(0, size, len(chunk)):
            file.write(chunk[: size - begin])


def publish(bench, root, size, release=ID, compressible=True):
    """Publishes definitions of size bytes, three quarters of them in the first file; returns the archive's size."""
    files = []
    for name, share in (("antivir.def", 0.75), ("aivsecon.def", 0.25)):
        files.append(bench.folder / name)
        write_definitions(files[-1], int(size * share), compressible)
    command = [bench.build / "zqu-mirror", "publish", "--id", release, root, *files]
    subprocess.run(command, check=True, capture_output=True)
    for file in files:
        file.unlink()
    return next((root / SUBDIR).glob(f"*-{release}.cab")).stat().st_size

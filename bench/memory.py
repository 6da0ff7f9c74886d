"""How much memory an update takes, against the size of the archive."""

import shutil

import gateways
import releases
from measure import peak_kib
from text import prose, table, verdict

TITLE = "Memory"
SIZES = [1, 10, 100, 500, 1000, 2000]  # MB of an archive that cannot be compressed
SMOKE = [1]
LIMIT_KIB = 16 * 1024
FLAT_KIB = 1024  # between the largest and the smallest peak


def update(bench, nginx, size):
    """Publishes an archive of so many MB and has it taken into service; returns its size and what that took."""
    archive = releases.publish(bench, nginx.root / f"{size}", size * 1_000_000, compressible=False)
    root = bench.folder / "defs"
    mirror = {"mirror_base_url": f"{nginx.url()}/{size}", "ca_path": nginx.ca_path}
    config = gateways.write_config(bench.folder / "updater.conf", root, **mirror)
    peak = peak_kib([bench.daemon, *config, "--once"])
    assert sum(path.stat().st_size for path in (root / "active").iterdir()) == size * 1_000_000
    shutil.rmtree(root)
    shutil.rmtree(nginx.root / f"{size}")
    return {"archive": archive, "peak_kib": peak}


def measure(bench):
    nginx = gateways.PlainNginx(bench.folder)
    try:
        return {"updates": [update(bench, nginx, size) for size in (SMOKE if bench.smoke else SIZES)]}
    finally:
        nginx.stop()


def render(results, plots):
    updates = results["updates"]
    peaks = [each["peak_kib"] for each in updates]
    peak, range_kib = max(peaks), max(peaks) - min(peaks)
    figure, axes = plots.figure("Peak resident size of an update", "MB of the archive", "MiB")
    axes.set(xscale="log", ylim=(0, 1.25 * max(peak, LIMIT_KIB) / 1024))
    sizes = [each["archive"] / 1e6 for each in updates]
    axes.plot(sizes, [each["peak_kib"] / 1024 for each in updates], marker="o", label="the daemon")
    axes.axhline(LIMIT_KIB / 1024, linestyle="--", color="#c94f4f", label="limit aimed at")
    plot = plots.save(figure, "memory", "Peak resident size of an update against the size of the archive")
    rows = ((f"{each['archive'] / 1e6:,.1f} MB", f"{each['peak_kib']:,} KiB") for each in updates)
    told = f"""The largest is {peak:,} KiB: aimed at was {LIMIT_KIB:,} KiB at most, {verdict(peak, LIMIT_KIB)}. It is
        {range_kib:,} KiB more than the smallest; flat was to mean {FLAT_KIB:,} KiB at most,
        {verdict(range_kib, FLAT_KIB)}."""
    return f"""\
The peak resident size of `--once` for a first update, shared libraries included, in one run of each size; the content
cannot be compressed, so that the archive is as large as the definitions.

{table(("Archive", "peak"), *rows)}
{plot}
{prose(told)}
"""

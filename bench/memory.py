"""How much memory an update takes, against the size of the archive."""

import shutil

import releases
from measure import peak_kib
from mirrors import Nginx
from text import table, verdict

TITLE = "Memory"
SIZES = [1, 10, 100, 500, 1000, 2000]  # MB of an archive that cannot be compressed
SMOKE = [1]
LIMIT_KIB = 16 * 1024


def update(bench, nginx, size):
    """Publishes an archive of so many MB and has it taken into service; returns its size and what that took."""
    archive = releases.publish(bench, nginx.root / f"{size}", size * 1_000_000, compressible=False)
    root = bench.folder / "defs"
    config = bench.folder / "updater.conf"
    config.write_text(
        f"mirror_base_url = {nginx.url()}/{size}\nca_path = {nginx.ca_path}\n"
        f"def_root = {root}\nstatus_path = {root}/status.json\n"
    )
    peak = peak_kib([bench.daemon, "--config", config, "--once"])
    assert sum(path.stat().st_size for path in (root / "active").iterdir()) == size * 1_000_000
    shutil.rmtree(root)
    shutil.rmtree(nginx.root / f"{size}")
    return {"archive": archive, "peak_kib": peak}


def measure(bench):
    nginx = Nginx(bench.folder)
    try:
        return {"updates": [update(bench, nginx, size) for size in (SMOKE if bench.smoke else SIZES)]}
    finally:
        nginx.stop()


def render(results, plots):
    updates = results["updates"]
    peak = max(each["peak_kib"] for each in updates)
    figure, axes = plots.figure("Peak resident size of an update", "MB of the archive", "MiB")
    axes.set(xscale="log", ylim=(0, 20))
    sizes = [each["archive"] / 1e6 for each in updates]
    axes.plot(sizes, [each["peak_kib"] / 1024 for each in updates], marker="o", label="the daemon")
    axes.axhline(LIMIT_KIB / 1024, linestyle="--", color="#c94f4f", label="limit aimed at")
    plot = plots.save(figure, "memory", "Peak resident size of an update against the size of the archive")
    rows = ((f"{each['archive'] / 1e6:,.1f} MB", f"{each['peak_kib']:,} KiB") for each in updates)
    return f"""\
The peak resident size of `--once` for a first update, shared libraries included; the content cannot be compressed, so
that the archive is as large as the definitions.

{table(("Archive", "peak"), *rows)}
{plot}
The largest is {peak:,} KiB: aimed at was {LIMIT_KIB:,} KiB at most, {verdict(peak, LIMIT_KIB)}.
"""

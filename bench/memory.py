"""How much memory an update takes, against the size of the archive."""

from measure import peak_kib
from report import aims, table
from sites import Server
from update import Update

SIZES = [1, 10, 100, 500, 1000, 2000]  # MB of an archive that cannot be compressed
LIMIT_KIB = 16 * 1024
FLAT_KIB = 1024  # between the largest and the smallest peak


def peak(bench, nginx, size):
    site = Update(bench, nginx, size, compressible=False)
    site.clear()
    result = {"archive": site.archive, "peak_kib": peak_kib(site.commands["daemon"])}
    site.end()
    return result


def measure(bench):
    nginx = Server(bench.directory)
    try:
        return [peak(bench, nginx, size) for size in ([1] if bench.smoke else SIZES)]
    finally:
        nginx.stop()


def figures(results, pages):
    peaks = [each["peak_kib"] for each in results]
    rows = ((f"{each['archive'] / 1e6:,.1f} MB", f"{each['peak_kib']:,} KiB") for each in results)
    limits = (
        ("largest peak, KiB", max(peaks), LIMIT_KIB, ",d"),
        ("the same less the smallest, KiB", max(peaks) - min(peaks), FLAT_KIB, ",d"),
    )
    return {"peaks": table(("Archive", "peak"), rows), "aims": aims(limits)}

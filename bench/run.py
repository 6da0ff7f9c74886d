#!/usr/bin/python3
"""Runs the benchmarks, keeps what they measured, and writes the page that tells of it. Called by scripts/bench."""

import argparse
import datetime
import importlib
import json
import os
import pathlib
import subprocess
import sys
import tempfile

from scratch import scratch

HERE = pathlib.Path(__file__).resolve().parent
REPOSITORY = HERE.parent
SECTIONS = ["machine", "update", "memory", "check", "idle", "pieces", "startup", "fleet_real", "fleet_simulated"]
INTRODUCTION = """\
# Performance

Measured by `scripts/bench`, which builds the programs, measures, and writes this page with its plots and with the bare
figures (`docs/performance/*.json`). `scripts/bench --only NAME` measures one section anew, `--smoke` runs everything
with tiny sizes, `--compare REV` holds this tree against another revision.

A figure with brackets is the median of its runs, with the quartiles in them. Where whole processes are compared by
ratios, all run in every turn, in orders in which each follows each equally often; each ratio is taken within one turn.
Pieces are measured one after the other; differences are those of medians; what was measured once, as profiles, speeds
of libcrypto, memory, the idle loop and the fleets, has no brackets. "CPU" is user and system time of a command with all
its children.
"""


class Bench:
    """What a section needs to measure: the programs, a scratch folder on disk, and whether sizes are to be tiny."""

    def __init__(self, build, folder, smoke):
        self.build = build
        self.folder = folder
        self.smoke = smoke
        self.sources = HERE
        self.daemon = build / "zel_quorin_updater"


def arguments():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--build", type=pathlib.Path, required=True, help="folder with the programs")
    parser.add_argument("--docs", type=pathlib.Path, default=REPOSITORY / "docs", help="folder of the page")
    parser.add_argument("--only", action="append", choices=SECTIONS, help="measure this section only; may be repeated")
    parser.add_argument("--render", action="store_true", help="measure nothing, write the page anew")
    parser.add_argument("--smoke", action="store_true", help="tiny sizes, to see whether everything works")
    parser.add_argument("--compare", metavar="BUILD", type=pathlib.Path, help="hold the daemon against this other one")
    return parser.parse_args()


def revision():
    """The commit that was measured, with a + when anything but the documents has changes on top."""
    git = ["git", "-C", str(REPOSITORY)]
    head = subprocess.run([*git, "rev-parse", "--short", "HEAD"], capture_output=True, text=True)
    if head.returncode != 0:
        return "no commit"
    changed = subprocess.run([*git, "status", "--porcelain", ":/", ":!/docs"], capture_output=True).stdout
    return head.stdout.strip() + ("+" if changed else "")


def measure(name, options):
    module = importlib.import_module(name)
    print(f"bench: {name}", flush=True)
    with scratch() as folder:
        results = module.measure(Bench(options.build.resolve(), folder, options.smoke))
    kept = {"date": f"{datetime.date.today()}", "revision": revision(), "smoke": options.smoke, "results": results}
    path = options.docs / "performance" / f"{name}.json"
    path.write_text(json.dumps(kept, indent=1) + "\n")


def require_writable(folder):
    """Ends the run before anything is measured that could not be kept."""
    try:
        folder.mkdir(parents=True, exist_ok=True)
        tempfile.TemporaryFile(dir=folder).close()
    except OSError as error:
        sys.exit(f"bench: nothing can be kept in {folder}: {error.strerror}")


def told(name, path, plots):
    """A section of the page from what is kept of it."""
    module = importlib.import_module(name)
    try:
        kept = json.loads(path.read_text())
        text = f"## {module.TITLE}\n\n{module.render(kept['results'], plots)}"
        return text, f"`scripts/bench --only {name}`, {kept['date']}, commit {kept['revision']}.\n"
    except (ValueError, LookupError, TypeError, AttributeError) as error:
        wrong = f"{type(error).__name__}: {error}"
        sys.exit(
            f"bench: {path} is damaged, or of another revision ({wrong}): scripts/bench --only {name} measures it anew"
        )


def page(docs):
    """The page from what is kept of the sections; one that was never measured is left out."""
    from plots import Plots

    plots = Plots(docs / "performance")
    parts = [INTRODUCTION]
    for name in SECTIONS:
        path = docs / "performance" / f"{name}.json"
        if path.exists():
            parts += told(name, path, plots)
    return "\n".join(parts)


def main():
    options = arguments()
    os.environ["ZQU_BUILD_DIR"] = str(options.build.resolve())  # for the harness of the tests
    sys.path[:0] = [str(HERE), str(REPOSITORY / "tests" / "harness")]
    if options.compare:
        importlib.import_module("compare").run(Bench, options)
        return
    require_writable(options.docs / "performance")
    for name in [] if options.render else options.only or SECTIONS:
        measure(name, options)
    (options.docs / "performance.md").write_text(page(options.docs))
    if options.docs == REPOSITORY / "docs":
        importlib.import_module("fleet_sizing").main()


if __name__ == "__main__":
    try:
        main()
    except subprocess.CalledProcessError as failed:
        if failed.stderr:  # was captured
            sys.stderr.write(failed.stderr if isinstance(failed.stderr, str) else failed.stderr.decode())
        raise

#!/usr/bin/python3
"""Measures sections, keeps their figures, and writes tables and pictures from them. Called by scripts/bench.

A section is a module with measure(bench), which returns figures for JSON, and figures(results, pages), which draws
pictures and returns tables by the names of their markers in the pages."""

import argparse
import datetime
import importlib
import os
import pathlib
import shutil
import subprocess
import sys
import tempfile

from report import Pages
from scratch import scratch

HERE = pathlib.Path(__file__).resolve().parent
REPOSITORY = HERE.parent
SECTIONS = "machine update memory check loop serving pieces startup publish formats deltas fleet".split()


class Bench:
    """What a section measures with: the programs, a scratch directory on disk, and whether sizes are to be tiny."""

    def __init__(self, build, directory, smoke):
        self.build = build.resolve()
        self.directory = directory
        self.smoke = smoke
        self.sources = HERE
        self.daemon = self.build / "zel_quorin_updater"


def arguments():
    parser = argparse.ArgumentParser(description="Measures sections, keeps their figures, and writes tables from them.")
    parser.add_argument("--build", type=pathlib.Path, required=True, help="directory of the programs")
    parser.add_argument("--docs", type=pathlib.Path, default=REPOSITORY / "docs", help="directory of the pages")
    parser.add_argument("--only", action="append", choices=SECTIONS, help="measure this section only; may be repeated")
    parser.add_argument("--render", action="store_true", help="measure nothing; tables and pictures from kept figures")
    parser.add_argument("--smoke", action="store_true", help="tiny sizes, to see whether everything works")
    parser.add_argument("--compare", metavar="BUILD", type=pathlib.Path, help="compare the daemon with this other one")
    return parser.parse_args()


def revision():
    """The commit that was measured, with a + when anything but the documents has changes on top."""
    git = ["git", "-C", str(REPOSITORY)]
    head = subprocess.run([*git, "rev-parse", "--short", "HEAD"], capture_output=True, text=True)
    if head.returncode != 0:
        return "no commit"
    changed = subprocess.run([*git, "status", "--porcelain", ":/", ":!/docs"], capture_output=True).stdout
    return head.stdout.strip() + ("+" if changed else "")


def prepare(docs):
    """Ends the run before anything is measured that could not be kept. Pages elsewhere begin as copies of ours."""
    try:
        (docs / "performance").mkdir(parents=True, exist_ok=True)
        tempfile.TemporaryFile(dir=docs / "performance").close()
    except OSError as error:
        sys.exit(f"bench: nothing can be kept in {docs}/performance: {error.strerror}")
    if docs != REPOSITORY / "docs":
        for path in [*REPOSITORY.glob("docs/*.md"), *REPOSITORY.glob("docs/performance/*.json")]:
            target = docs / path.relative_to(REPOSITORY / "docs")
            if path.suffix == ".md" or not target.exists():
                shutil.copy(path, target)


def main():
    options = arguments()
    os.environ["ZQU_BUILD_DIR"] = str(options.build.resolve())  # for the harness of the tests
    sys.path[:0] = [str(HERE), str(REPOSITORY / "tests" / "harness")]
    if options.compare:
        with scratch() as directory:
            builds = {"this": options.build, "other": options.compare}
            benches = {name: Bench(build, directory, options.smoke) for name, build in builds.items()}
            print(importlib.import_module("compare").measure(benches), end="")
        return
    prepare(options.docs)
    pages = Pages(options.docs)
    chosen = options.only or SECTIONS
    for name in [] if options.render else chosen:
        print(f"bench: {name}", flush=True)
        with scratch() as directory:
            results = importlib.import_module(name).measure(Bench(options.build, directory, options.smoke))
        pages.keep(name, date=datetime.date.today(), revision=revision(), smoke=options.smoke, results=results)
    for name in chosen:
        pages.render(name, importlib.import_module(name))


if __name__ == "__main__":
    try:
        main()
    except subprocess.CalledProcessError as failed:
        if failed.stderr:  # was captured
            sys.stderr.write(failed.stderr if isinstance(failed.stderr, str) else failed.stderr.decode())
        raise

"""Copies of the sources, changed in one place and built elsewhere: the tree itself does not change."""

import pathlib
import shutil
import subprocess

REPOSITORY = pathlib.Path(__file__).resolve().parents[2]


def copy_sources(target):
    """Copies every file that git knows, or would know, to a new directory."""
    listed = subprocess.run(
        ["git", "-C", REPOSITORY, "ls-files", "-z", "--cached", "--others", "--exclude-standard"],
        capture_output=True,
        text=True,
        check=True,
    ).stdout
    for name in filter(None, listed.split("\0")):
        if (REPOSITORY / name).is_file():
            (target / name).parent.mkdir(parents=True, exist_ok=True)
            shutil.copy2(REPOSITORY / name, target / name)
    return target


def configure(source, *options, directory="build"):
    return subprocess.run(["cmake", "-S", source, "-B", source / directory, *options], capture_output=True, text=True)


def build(source, *options, directory="build", targets=(), jobs=2):
    """Configures and builds a copy of the sources; returns the directory with the programs."""
    process = configure(source, *options, directory=directory)
    assert process.returncode == 0, process.stderr
    chosen = ["--target", *targets] if targets else []
    process = subprocess.run(
        ["cmake", "--build", source / directory, "--parallel", str(jobs), *chosen], capture_output=True, text=True
    )
    assert process.returncode == 0, process.stdout + process.stderr
    return source / directory

"""Runs the simulator of fleets."""

import json
import os
import pathlib
import subprocess

from builds import REPOSITORY
from machines import BUILD

FOLDERS = (BUILD, pathlib.Path(os.environ.get("ZQU_BENCH_DIR", REPOSITORY / "build-bench")))
PROGRAMS = [folder / "zqu_fleet_simulator" for folder in FOLDERS]


def simulate(*arguments, lines=()):
    """Its result, parsed; lines are its standard input."""
    program = next(program for program in PROGRAMS if program.exists())
    command = [program, *map(str, arguments)]
    process = subprocess.run(command, input="".join(lines), capture_output=True, text=True, timeout=60)
    assert process.returncode == 0, process.stderr
    return json.loads(process.stdout)

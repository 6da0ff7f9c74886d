"""Runs the simulator of fleets."""

import json
import subprocess

from gateway import BUILD


def simulate(*arguments, lines=()):
    """Its result, parsed; lines are its standard input."""
    command = [BUILD / "zqu_fleet_simulator", *map(str, arguments)]
    process = subprocess.run(command, input="".join(lines), capture_output=True, text=True, timeout=60)
    assert process.returncode == 0, process.stderr
    return json.loads(process.stdout)

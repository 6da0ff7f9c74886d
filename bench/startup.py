"""What starting the daemon costs, and the dynamic linker's share."""

import json
import os
import re
import subprocess

from gateway import Gateway
from measure import contest, instructions, run
from report import costs, table

ROUNDS, SMOKE = 98, 3  # a multiple of the 14 orders of seven
TITLES = {
    "true": "`true`",
    "curl": "`curl --version`",
    "less": "libraries less libarchive, libstdc++",
    "empty": "libraries only",
    "help": "the daemon, `--help`",
    "bound": "the daemon, `--help`, with `LD_BIND_NOW`",
    "once": "the daemon, `--once`",
}
NOW = {**os.environ, "LD_BIND_NOW": "1"}


def without_network(bench):
    """A gateway that finds nothing new on a mirror of file:// URLs: no network, and nothing to be logged."""
    gateway = Gateway(bench.directory, mirror_base_url=f"file://{bench.directory}", mirror_subdir="mirror")
    for directory in (bench.directory / "mirror", gateway.root / "snapshots" / "1001"):
        directory.mkdir(parents=True)
    (gateway.root / "active").symlink_to("snapshots/1001")
    (bench.directory / "mirror" / "antivir-v2-hit.ini").write_text("[Current]\ndefId = 1001\n")
    return gateway


def linker(command, environment):
    """What the dynamic linker counts (LD_DEBUG, ld.so(8)): libraries, symbols and relative relocations."""

    def said(what):
        options = {"stdin": subprocess.DEVNULL, "stdout": subprocess.DEVNULL, "stderr": subprocess.PIPE}
        return subprocess.run(command, env={**environment, "LD_DEBUG": what}, check=True, text=True, **options).stderr

    statistics = said("statistics").partition("final number")[0]
    libraries = len(set(re.findall(r"file=(\S+) \[\d+\];  generating link map", said("files"))))
    patterns = (r"number of relocations: (\d+)", r"number of relative relocations: (\d+)")
    return [libraries, *(int(re.search(pattern, statistics)[1]) for pattern in patterns)]


def measure(bench):
    gateway = without_network(bench)
    commands = {
        "true": ["/bin/true"],
        "curl": ["curl", "--version"],
        "less": [bench.build / "zqu_empty_less"],
        "empty": [bench.build / "zqu_empty"],
        "help": [bench.daemon, "--help"],
        "once": [bench.daemon, "--config", gateway.config_path, "--once"],
    }
    contenders = {**commands, "bound": lambda: run(commands["help"], env=NOW)}
    pairs = [*((name, "curl") for name in contenders), ("bound", "help")]
    results = contest(contenders, SMOKE if bench.smoke else ROUNDS, pairs)
    status = json.loads(gateway.status_path.read_text())
    assert status["last_error"] == "" and status["last_success_epoch"] > 0, status
    counts = instructions(bench, lambda prefix: run([*prefix, *commands["help"]]))
    needed = subprocess.run(["readelf", "--dynamic", bench.daemon], capture_output=True, text=True, check=True).stdout
    return {
        **results,
        "linker_share": sum(n for name, n in counts.items() if name.startswith("ld-linux")) / counts.total(),
        "needed": needed.count("(NEEDED)"),
        "linker": {
            name: [linker(commands[name], environment) for environment in (dict(os.environ), NOW)]
            for name in ("true", "curl", "help")
        },
    }


def figures(results, pages):
    rows = []
    for name, modes in results["linker"].items():
        for suffix, counts in zip(("", ", with `LD_BIND_NOW`"), modes):
            rows.append((TITLES[name] + suffix, *(f"{count:,}" for count in counts)))
    facts = (
        ("libraries that the daemon names itself", results["needed"]),
        ("the dynamic linker's share of the instructions of `--help`", f"{results['linker_share']:.1%}"),
    )
    return {
        "costs": costs("Process", {"": (results, TITLES)}, "{} to curl", {"cpu": "CPU to `curl --version`"}),
        "linker": table(("Process", "libraries", "symbols bound", "relative relocations"), rows),
        "facts": table(("The daemon", ""), facts),
    }

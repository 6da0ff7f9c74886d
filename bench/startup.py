"""What starting the daemon costs, and what of that is the dynamic linker's."""

import json
import os
import re
import subprocess
import time

import callgrind
import gateways
from measure import in_turn, ratios, run, spreads, system_share
from procfs import state, usage
from text import prose, seconds, table, with_spread

TITLE = "Start-up"
ROUNDS, FIRST_ROUNDS, SMOKE = 98, 96, 3  # multiples of the 14 orders of seven, and the six of three
LINKED = {"true": ["/bin/true"], "curl": ["curl", "--version"], "daemon": ["--help"]}
WHOLE = {
    "true": "`true`",
    "curl": "`curl --version`",
    "less": "libraries less libarchive, libstdc++",
    "empty": "libraries only",
    "help": "the daemon, `--help`",
    "bound": "the daemon, `--help`, with `LD_BIND_NOW`",
    "once": "the daemon, `--once`",
}
BIND_NOW = {"LD_BIND_NOW": "1"}
FIRST = {"cat": "`cat FILE`", "curl": "`curl --config FILE`", "daemon": "the daemon, `--config FILE`"}


def write_config(bench):
    """A configuration whose mirror lies on the disk and has nothing new: no network, and nothing to be logged. Returns
    what calls the daemon with it."""
    config, root, mirror = (bench.folder / name for name in ("updater.conf", "defs", "mirror"))
    for folder in (mirror, root / "snapshots" / "1001"):
        folder.mkdir(parents=True)
    (root / "active").symlink_to("snapshots/1001")
    (mirror / "antivir-v2-hit.ini").write_text("[Current]\ndefId = 1001\n")
    return gateways.write_config(config, root, mirror_base_url=f"file://{bench.folder}", mirror_subdir="mirror")


def linker(command, environment):
    """What the dynamic linker tells of its work (LD_DEBUG, ld.so(8)): relocations and libraries. The cycles that it
    tells as well are left out: they do not fit the processor time that passes before main."""

    def told(what):
        variables = {**os.environ, **environment, "LD_DEBUG": what}
        options = {"stdin": subprocess.DEVNULL, "stdout": subprocess.DEVNULL, "stderr": subprocess.PIPE}
        return subprocess.run(command, env=variables, check=True, text=True, **options).stderr

    statistics = told("statistics").partition("final number")[0]
    return {
        "symbols": int(re.search(r"number of relocations: (\d+)", statistics)[1]),
        "relative": int(re.search(r"number of relative relocations: (\d+)", statistics)[1]),
        "libraries": len(set(re.findall(r"file=(\S+) \[\d+\];  generating link map", told("files")))),
    }


def needed(program):
    """The libraries that a program names itself."""
    output = subprocess.run(["readelf", "--dynamic", "--wide", program], capture_output=True, text=True, check=True)
    return re.findall(r"\(NEEDED\).*\[(.*)\]", output.stdout)


def of_the_linker(bench):
    """The same of three programs, lazily and with everything bound at the start."""
    results = {}
    for name, command in LINKED.items():
        command = [bench.daemon, *command] if name == "daemon" else command
        results[f"{name} lazy"] = linker(command, {})
        results[f"{name} now"] = linker(command, BIND_NOW)
    return results


def until_first_read(command, fifo, content):
    """What a command takes from its start until it has opened that file and waits for its content."""
    begin = time.perf_counter()
    process = subprocess.Popen([*command, fifo], stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL)
    with open(fifo, "w") as file:  # waits for the one who reads
        wall = time.perf_counter() - begin
        before = None
        while state(process.pid) != "S" or (used := usage(process.pid)) != before:
            before = usage(process.pid)
        file.write(content)
    assert process.wait() == 0, command
    return {**used, "wall": wall}


def instructions(bench):
    """Where the daemon's instructions are when it does no more than print its usage."""
    out = bench.folder / "callgrind.out"
    subprocess.run([*callgrind.prefix(out), bench.daemon, "--help"], stdout=subprocess.DEVNULL, check=True)
    return callgrind.shares(callgrind.counts(out))


def first_reads(bench, text, rounds):
    """The same of three programs, in turn."""
    fifo = bench.folder / "fifo"
    os.mkfifo(fifo)
    commands = {
        "cat": (["/bin/cat"], "text\n"),
        "curl": (["curl", "--disable", "--silent", "--config"], "url = file:///dev/null\n"),
        "daemon": ([bench.daemon, "--once", "--config"], text),
    }
    return spreads(
        in_turn({name: lambda c=c: until_first_read(c[0], fifo, c[1]) for name, c in commands.items()}, rounds)
    )


def measure(bench):
    rounds, first_rounds = (SMOKE, SMOKE) if bench.smoke else (ROUNDS, FIRST_ROUNDS)
    config = write_config(bench)
    commands = {
        "true": ["/bin/true"],
        "curl": ["curl", "--version"],
        "less": [bench.build / "zqu_empty_less"],
        "empty": [bench.build / "zqu_empty"],
        "help": [bench.daemon, "--help"],
        "once": [bench.daemon, *config, "--once"],
    }
    contenders = {name: lambda c=command: run(c, stdout=subprocess.DEVNULL) for name, command in commands.items()}
    bound = {**os.environ, **BIND_NOW}
    contenders["bound"] = lambda: run(commands["help"], stdout=subprocess.DEVNULL, env=bound)
    costs = in_turn(contenders, rounds)
    status = json.loads((bench.folder / "defs" / "status.json").read_text())
    assert status["last_error"] == "" and status["last_success_epoch"] > 0, status
    return {
        "rounds": rounds,
        "costs": spreads(costs),
        "system": {name: system_share(runs) for name, runs in costs.items()},
        "ratios": {name: ratios(costs, name, "curl", "cpu") for name in contenders},
        "bound": ratios(costs, "bound", "help", "cpu"),
        "instructions": instructions(bench),
        "first_rounds": first_rounds,
        "first_reads": first_reads(bench, config[-1].read_text(), first_rounds),
        "needed": len(needed(bench.daemon)),
        "linker": of_the_linker(bench),
    }


def _cost_rows(results):
    for name, title in WHOLE.items():
        cost = results["costs"][name]
        yield title, seconds(cost["cpu"]), f"{results['system'][name]:.0%}", seconds(cost["wall"]), with_spread(
            results["ratios"][name], 2
        )


def _first_rows(results):
    for name, title in FIRST.items():
        cost = results["first_reads"][name]
        yield title, seconds(cost["cpu"]), seconds(cost["wall"]), f"{cost['faults']['median']:,.0f}"


def _linker_rows(results):
    for name, title in (("true", "`true`"), ("curl", "`curl --version`"), ("daemon", "the daemon, `--help`")):
        for mode, suffix in (("lazy", ""), ("now", ", with `LD_BIND_NOW`")):
            counts = results["linker"][f"{name} {mode}"]
            relocations = (f"{counts['symbols']:,.0f}", f"{counts['relative']:,.0f}")
            yield title + suffix, counts["libraries"], *relocations


def render(results, plots):
    whole, empty, less, true = (results["costs"][name]["cpu"]["median"] for name in ("once", "empty", "less", "true"))
    linker = sum(share for name, share in results["instructions"].items() if name.startswith("ld-linux"))
    processes = ("Process", "CPU", "of it system", "wall", "CPU to `curl --version`")
    counts = ("Process", "libraries", "symbols bound", "relative relocations")
    loading = f"""By medians: loading the libraries, beyond what `true` takes, is
        {(empty - true) / whole:.0%} of the CPU of that `--once`; {1e3 * (empty - less):.1f} ms of it is
        for libarchive and libstdc++ with the libraries that only they need."""
    bind = f"""The daemon names {results["needed"]} libraries; all others come with these. It is linked with
        `-z now`, so that its own symbols are bound before `main`; those of its libraries are bound when they are
        first called, or at the start with `LD_BIND_NOW`, which takes {with_spread(results["bound"], 2)} times the CPU
        of `--help`."""
    told = f"""Whole processes, {results["rounds"]} rounds in turn. "Libraries only" is `bench/empty.cpp`, a
        program that does nothing and is linked as the daemon is. `--once` finds nothing new on a mirror of
        file:// URLs: it initialises the libraries and writes the status file, without a network."""
    return f"""\
{prose(told)}

{table(processes, *_cost_rows(results))}
{prose(loading)}

From the start of a process until it waits for the first file of its own, a pipe that nobody has written to yet, in
{results["first_rounds"]} rounds:

{table(("Process", "CPU", "wall", "page faults"), *_first_rows(results))}
### The dynamic linker

It executes {linker:.1%} of the instructions in user mode of `--help`, as callgrind counts them. Its own counts
(`LD_DEBUG`, ld.so(8)), lazily as by default, and with everything bound at the start:

{table(counts, *_linker_rows(results))}
{prose(bind)}
"""

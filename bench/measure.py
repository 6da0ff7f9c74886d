"""Runs commands and measures them: the processor's time, wall time and memory, medians, quartiles and ratios."""

import collections
import itertools
import os
import pathlib
import re
import statistics
import subprocess
import time

SPREADS = ("cpu", "wall", "faults")


def run(command, **options):
    """Runs the command to its end, which must be a success. Returns what it and its children took: seconds of the
    processor, those of them in the kernel, seconds of wall time, and minor page faults."""
    begin = time.perf_counter()
    process = subprocess.Popen(command, stdin=subprocess.DEVNULL, **{"stdout": subprocess.DEVNULL, **options})
    _, status, usage = os.wait4(process.pid, 0)
    wall = time.perf_counter() - begin
    process.returncode = os.waitstatus_to_exitcode(status)
    if process.returncode != 0:
        raise subprocess.CalledProcessError(process.returncode, command)
    cpu = usage.ru_utime + usage.ru_stime
    return {"cpu": cpu, "system": usage.ru_stime, "wall": wall, "faults": usage.ru_minflt}


def peak_kib(command):
    """Runs the command to its end; returns the KiB of memory it had resident at most. A process counts what it was
    forked from, so that this one, which is large, must not be its parent."""
    timed = ["/usr/bin/time", "--format", "%M", *command]
    return int(subprocess.run(timed, stderr=subprocess.PIPE, text=True, check=True).stderr.splitlines()[-1])


def usage(*pids):
    """What running processes have used so far: seconds of the processor, waits of their own, how often the processor
    was taken from them, and minor page faults (proc_pid_stat(5), proc_pid_status(5))."""
    total = collections.Counter()
    for directory in (pathlib.Path(f"/proc/{pid}") for pid in pids):
        status = dict(line.split(":", 1) for line in (directory / "status").read_text().splitlines())
        total["cpu"] += int((directory / "schedstat").read_text().split()[0]) / 1e9
        total["voluntary"] += int(status["voluntary_ctxt_switches"])
        total["involuntary"] += int(status["nonvoluntary_ctxt_switches"])
        total["faults"] += int((directory / "stat").read_text().rpartition(")")[2].split()[7])
    return dict(total)


def difference(after, before):
    return {key: after[key] - before[key] for key in after}


def orders(count):
    """Orders of so many contenders in which each has each place, and follows each other, equally often: Williams's
    squares, as many orders as contenders, or twice as many where their number is odd."""
    zigzag = [(place + 1) // 2 if place % 2 else -(place // 2) for place in range(count)]
    square = [[(step + row) % count for step in zigzag] for row in range(count)]
    return square + [row[::-1] for row in square] if count % 2 else square


def in_turn(contenders, rounds):
    """Runs every contender once a round, in an order that changes from round to round. A contender is a command, or a
    function that returns a cost. Returns the costs by name, one a round."""
    names = list(contenders)
    costs = {name: [] for name in names}
    for _, order in zip(range(rounds), itertools.cycle(orders(len(names)))):
        for name in (names[number] for number in order):
            contender = contenders[name]
            costs[name].append(contender() if callable(contender) else run(contender))
    return costs


def spread(values):
    """Median and quartiles."""
    values = sorted(values)
    low, median, high = statistics.quantiles(values * 2 if len(values) == 1 else values, n=4, method="inclusive")
    return {"median": median, "low": low, "high": high}


def _summary(runs):
    system = sum(cost["system"] for cost in runs) / sum(cost["cpu"] for cost in runs)
    return {**{field: spread([cost[field] for cost in runs]) for field in SPREADS}, "system": system}


def contest(contenders, rounds, pairs=()):
    """What each contender costs, and the ratios of pairs of them, each taken within one round: of the first to all
    others unless the pairs are given. Even to all only when the rounds are a multiple of the orders."""
    costs = in_turn(contenders, rounds)
    first, *others = contenders
    return {
        "rounds": rounds,
        "costs": {name: _summary(runs) for name, runs in costs.items()},
        "ratios": {
            f"{name} to {base}": {
                field: spread([ours[field] / theirs[field] for ours, theirs in zip(costs[name], costs[base])])
                for field in ("cpu", "wall")
            }
            for name, base in pairs or [(first, other) for other in others]
        },
    }


def counted_instructions(lines):
    """How many instructions each program or library has in a profile of callgrind, by the file's lines:
    callgrind_annotate(1) does not say to which of them inlined functions belong. A line of costs follows the object
    that it belongs to ("ob="); one after "calls=" is what a call took in all, and is counted where it was spent."""
    names, found = {}, collections.Counter()
    place, called, total = None, False, None
    for line in lines:
        if match := re.match(r"(c?)ob=\((\d+)\)(?: (.*))?", line):
            names.setdefault(match[2], match[3])
            place = place if match[1] else match[2]
        elif re.match(r"[\d+*-]", line):
            found[names[place].rsplit("/", 1)[-1]] += 0 if called else int(line.split()[1])
        elif line.startswith("totals:"):
            total = int(line.split()[1])
        called = line.startswith("calls=")
    assert found.total() == total, f"{found.total()} of {total} instructions are listed"
    return found


def instructions(bench, work):
    """Has callgrind count the instructions in user mode of a command, which work() is given a prefix for."""
    out = bench.directory / "callgrind.out"
    work(["valgrind", "--quiet", "--tool=callgrind", f"--callgrind-out-file={out}"])
    with open(out) as lines:
        return counted_instructions(lines)

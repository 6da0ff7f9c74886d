"""Runs commands and tells what they cost: the processor's time, wall time and memory, and ratios between them."""

import dataclasses
import os
import statistics
import subprocess
import time


@dataclasses.dataclass
class Cost:
    """What one run took: s of processor and wall time, and context switches."""

    cpu: float
    system: float
    wall: float
    voluntary: int
    involuntary: int


def run(command, **options):
    """Runs the command to its end, with all processes that it waits for; it must end well. Returns its cost."""
    begin = time.perf_counter()
    process = subprocess.Popen(command, stdin=subprocess.DEVNULL, **options)
    _, status, usage = os.wait4(process.pid, 0)
    wall = time.perf_counter() - begin
    process.returncode = os.waitstatus_to_exitcode(status)
    if process.returncode != 0:
        raise subprocess.CalledProcessError(process.returncode, command)
    return Cost(
        cpu=usage.ru_utime + usage.ru_stime,
        system=usage.ru_stime,
        wall=wall,
        voluntary=usage.ru_nvcsw,
        involuntary=usage.ru_nivcsw,
    )


def peak_kib(command):
    """Runs the command to its end; returns the KiB of memory it had resident at most. A process counts what it was
    forked from, so that this one, which is large, must not be its parent."""
    timed = ["/usr/bin/time", "--format", "%M", *command]
    return int(subprocess.run(timed, stderr=subprocess.PIPE, text=True, check=True).stderr.splitlines()[-1])


def in_turn(contenders, rounds):
    """Runs every contender once a round, in an order that changes from round to round, so that all of them meet the
    same machine. A contender is a function that returns its cost. Returns the costs by name, one a round."""
    names = list(contenders)
    costs = {name: [] for name in names}
    for number in range(rounds):
        turn = number % len(names)
        for name in names[turn:] + names[:turn]:
            costs[name].append(dataclasses.asdict(contenders[name]()))
    return costs


def spread(values):
    """Median, and the quartiles beside it."""
    values = sorted(values)
    if len(values) == 1:
        return {"median": values[0], "low": values[0], "high": values[0], "count": 1}
    low, _, high = statistics.quantiles(values, n=4, method="inclusive")
    return {"median": statistics.median(values), "low": low, "high": high, "count": len(values)}


def medians(costs):
    """The spread of every figure of every contender."""
    return {name: {field: spread([cost[field] for cost in runs]) for field in runs[0]} for name, runs in costs.items()}


def ratios(costs, name, base, field):
    """How much of the base's figure a contender took: the spread of the ratios, each within one round."""
    pairs = zip(costs[name], costs[base])
    return spread([ours[field] / theirs[field] for ours, theirs in pairs])

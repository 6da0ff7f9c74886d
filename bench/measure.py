"""Runs commands and tells what they cost: the processor's time, wall time and memory, and ratios between them."""

import itertools
import os
import statistics
import subprocess
import time


def run(command, **options):
    """Runs the command to its end, with all processes that it waits for; it must end well. Returns what
    that took: s of the processor, those of them in the kernel, s of wall time, and minor page faults."""
    begin = time.perf_counter()
    process = subprocess.Popen(command, stdin=subprocess.DEVNULL, **options)
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


def orders(count):
    """Orders of so many contenders, in which each has each place, and follows each other, equally often: Williams's
    squares, as many orders as contenders, or twice as many where their number is odd."""
    zigzag = [(place + 1) // 2 if place % 2 else -(place // 2) for place in range(count)]
    square = [[(step + row) % count for step in zigzag] for row in range(count)]
    return square + [row[::-1] for row in square] if count % 2 else square


def in_turn(contenders, rounds):
    """Runs every contender once a round, in an order that changes from round to round, so that all of them meet the
    same machine and each other; evenly so where the rounds are a multiple of the orders that there are. A contender is
    a function that returns its cost, as run() does. Returns the costs by name, one a round."""
    names = list(contenders)
    costs = {name: [] for name in names}
    for _, order in zip(range(rounds), itertools.cycle(orders(len(names)))):
        for number in order:
            costs[names[number]].append(contenders[names[number]]())
    return costs


def spread(values):
    """Median, and the quartiles beside it."""
    values = sorted(values)
    if len(values) == 1:
        return {"median": values[0], "low": values[0], "high": values[0], "count": 1}
    low, _, high = statistics.quantiles(values, n=4, method="inclusive")
    return {"median": statistics.median(values), "low": low, "high": high, "count": len(values)}


def spreads(costs):
    """The spread of every figure of every contender."""
    return {name: {field: spread([cost[field] for cost in runs]) for field in runs[0]} for name, runs in costs.items()}


def ratios(costs, name, base, field):
    """How much of the base's figure a contender took: the spread of the ratios, each within one round."""
    pairs = zip(costs[name], costs[base])
    return spread([ours[field] / theirs[field] for ours, theirs in pairs])


def system_share(runs):
    """The part of the processor's time that the runs of one contender spent in the kernel."""
    return sum(cost["system"] for cost in runs) / sum(cost["cpu"] for cost in runs)

"""Where instructions are spent in user mode, as callgrind counts them."""

import collections
import re


def prefix(out):
    """What to put before a command to have it counted."""
    return ["valgrind", "--quiet", "--tool=callgrind", f"--callgrind-out-file={out}"]


def counts_of(lines):
    """How many instructions of each program or library a profile has, by its lines: callgrind's file itself, since
    callgrind_annotate(1) does not tell to which of them inlined functions belong. A line of costs follows the object
    that it belongs to ("ob="); one after "calls=" is what a call took in all, and is counted where it was spent. What
    is found comes to the total that the profile ends with."""
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


def counts(out):
    """How many instructions of each program or library were counted."""
    with open(out) as lines:
        return counts_of(lines)


def shares(counted):
    """The shares of programs and libraries in what was counted."""
    return {name: count / counted.total() for name, count in counted.items()}

"""Where instructions are spent in user mode, as callgrind counts them."""

import collections
import re
import subprocess


def prefix(out):
    """What to put before a command to have it counted."""
    return ["valgrind", "--quiet", "--tool=callgrind", f"--callgrind-out-file={out}"]


def counts(out):
    """How many instructions of each program or library were counted."""
    command = ["callgrind_annotate", "--threshold=100", "--auto=no", out]
    listing = subprocess.run(command, capture_output=True, text=True, check=True).stdout
    found = collections.Counter()
    for count, place in re.findall(r"^ *([\d,]+) \( *[\d.]+%\) .*\[(.*)\]$", listing, re.MULTILINE):
        found[place.rsplit("/", 1)[-1]] += int(count.replace(",", ""))
    return found


def shares(out):
    """The shares of programs and libraries in what was counted."""
    counted = counts(out)
    return {name: count / counted.total() for name, count in counted.items()}

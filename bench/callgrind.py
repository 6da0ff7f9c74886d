"""Where instructions are spent in user mode, as callgrind counts them."""

import collections
import re
import subprocess


def prefix(out):
    """What to put before a command to have it counted."""
    return ["valgrind", "--quiet", "--tool=callgrind", f"--callgrind-out-file={out}"]


def shares(out):
    """The shares of programs and libraries in what was counted."""
    command = ["callgrind_annotate", "--threshold=100", "--auto=no", out]
    listing = subprocess.run(command, capture_output=True, text=True, check=True).stdout
    counts = collections.Counter()
    for count, place in re.findall(r"^ *([\d,]+) \( *[\d.]+%\) .*\[(.*)\]$", listing, re.MULTILINE):
        counts[place.rsplit("/", 1)[-1]] += int(count.replace(",", ""))
    return {name: count / counts.total() for name, count in counts.items()}

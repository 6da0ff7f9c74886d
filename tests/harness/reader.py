"""A reader of the definitions that never pauses: it follows the link "active" again and again, and counts what it sees.

    with Reader(root) as reader:
        ...
    assert (reader.misses, reader.mixed) == (0, 0)

The files have to be those of Mirror.entries(): one line over and over, which ends with the id of the release. As a
program of its own it reads until its standard input ends, and then prints the counts as JSON."""

import json
import os
import select
import subprocess
import sys

from release import definition_names


class Reader:
    """Reads in a process of its own while the with-block lasts. Afterwards:

    lookups   how often the link was looked up
    misses    how often it led nowhere
    vanished  how often a directory that it had led to lost a file while it was open, as pruning may do
    mixed     how often the two files in one opened directory were not of one release, or one was cut short
    releases  the ids that were seen, in order
    """

    def __init__(self, root, flavor="v2"):
        self.command = [sys.executable, __file__, str(root), flavor]

    def __enter__(self):
        self.process = subprocess.Popen(self.command, stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        assert self.process.stdout.readline() == "reading\n"
        return self

    def __exit__(self, *exception):
        output, _ = self.process.communicate(timeout=60)
        assert self.process.returncode == 0
        for name, value in json.loads(output).items():
            setattr(self, name, value)


def release_of(folder, name):
    """The id in a file's first line; none when the file is not made of that line alone."""
    descriptor = os.open(name, os.O_RDONLY, dir_fd=folder)
    content = os.read(descriptor, 1 << 20)
    os.close(descriptor)
    line = content[: content.find(b"\n") + 1]
    whole = line and len(content) % len(line) == 0 and line * (len(content) // len(line)) == content
    return line.split()[-1].decode() if whole else None


def read(root, names, has_ended):
    counts = {"lookups": 0, "misses": 0, "vanished": 0, "mixed": 0, "releases": []}
    link = os.path.join(root, "active")
    while True:
        for _ in range(100):
            counts["lookups"] += 1
            try:
                folder = os.open(link, os.O_RDONLY | os.O_DIRECTORY)
            except FileNotFoundError:
                counts["misses"] += 1
                continue
            try:
                found = {release_of(folder, name) for name in names}
            except FileNotFoundError:
                counts["vanished"] += 1
            else:
                counts["mixed"] += len(found) != 1 or None in found
                if counts["releases"][-1:] != [*found]:
                    counts["releases"] += [*found]
            finally:
                os.close(folder)
        if has_ended():
            return counts


if __name__ == "__main__":
    print("reading", flush=True)
    print(json.dumps(read(sys.argv[1], definition_names(sys.argv[2]), lambda: select.select([0], [], [], 0)[0])))

"""A tree in memory: directories, files and links, and the calls that the daemon makes of its file system."""

import dataclasses
import operator
import os

DIRECTORY = "a directory"
HOPS = 40  # links that Linux follows in one path


@dataclasses.dataclass(frozen=True)
class Link:
    target: str


class _Loop(Exception):
    """A path that leads through too many links."""


def scan(folder):
    """What there really is below a directory, and when each directory changed last: both by relative path."""
    nodes, times = {"": DIRECTORY}, {}

    def visit(key):
        for entry in os.scandir(os.path.join(folder, key)):
            child = f"{key}/{entry.name}".lstrip("/")
            if entry.is_symlink():
                nodes[child] = Link(os.readlink(entry.path))
            elif entry.is_dir():
                nodes[child] = DIRECTORY
                times[child] = entry.stat().st_mtime_ns
                visit(child)
            else:
                with open(entry.path, "rb") as file:
                    nodes[child] = file.read()

    visit("")
    return nodes, times


def differences(expected, real, same=operator.eq):
    """The keys where two trees differ, each with what was expected and what came."""
    pairs = {key: (expected.get(key), real.get(key)) for key in sorted(expected.keys() | real.keys())}
    return {key: pair for key, pair in pairs.items() if not same(*pair)}


class Disk:
    """Nodes by their path below a directory. The calls take absolute paths, as the daemon forms them."""

    def __init__(self, folder):
        self.folder = str(folder)
        self.nodes = {"": DIRECTORY}
        self.lines = []

    def begin(self, nodes):
        """Starts a run on these nodes."""
        self.nodes, self.lines = dict(nodes), []

    def expect_real(self):
        """Requires that the real directory is like this one."""
        wrong = differences(self.nodes, scan(self.folder)[0])
        assert not wrong, f"expected and came: {wrong}\nthe files are in {self.folder}"

    def log(self, line):
        self.lines.append(line)

    def resolve(self, path, follow=True):
        """The key that a path leads to, where nothing may be yet; None when there is no way to it."""
        try:
            return self._walk(path, follow)
        except _Loop:
            return None

    def loops(self, path):
        try:
            self._walk(path, follow=True)
            return False
        except _Loop:
            return True

    def _walk(self, path, follow):
        if not path.startswith(self.folder + "/"):
            return None
        key, hops = "", 0
        pending = self._parts(path[len(self.folder) :])
        while pending:
            if self.nodes.get(key) is not DIRECTORY:
                return None
            part = pending.pop()
            key = os.path.dirname(key) if part == ".." else f"{key}/{part}".lstrip("/")
            node = self.nodes.get(key)
            if isinstance(node, Link) and (pending or follow):
                hops += 1
                if hops > HOPS:
                    raise _Loop
                if node.target.startswith("/"):
                    return None  # the tests' absolute links lead nowhere
                key = os.path.dirname(key)
                pending += self._parts(node.target)
        return key

    def find(self, path, follow=True):
        key = self.resolve(path, follow)
        return None if key is None else self.nodes.get(key)

    def is_directory(self, path):
        return self.find(path) is DIRECTORY

    def children(self, path):
        key = self.resolve(path)
        if key is None or self.nodes.get(key) is not DIRECTORY:
            return []
        return [other[len(key) :].lstrip("/") for other in self.nodes if other and os.path.dirname(other) == key]

    def read(self, path):
        """A file's bytes; of a directory, which can be opened but not read, none; None for what cannot be opened."""
        node = self.find(path)
        return b"" if node is DIRECTORY else node

    def make_directories(self, path):
        for end in range(len(self.folder) + 1, len(path) + 1):
            if end == len(path) or path[end] == "/":
                if self.is_directory(path[:end]):
                    continue
                key = self.resolve(path[:end], follow=False)
                if key is None or key in self.nodes:
                    return
                self.nodes[key] = DIRECTORY

    def truncate(self, path):
        """Creates or empties a file, through links; false when it cannot be opened for writing."""
        key = self.resolve(path)
        if key is None or self.nodes.get(key) is DIRECTORY:
            return False
        if self.nodes.get(os.path.dirname(key)) is not DIRECTORY:
            return False
        self.nodes[key] = b""
        return True

    def write(self, path, content):
        self.nodes[self.resolve(path)] = content

    def unlink(self, path):
        key = self.resolve(path, follow=False)
        if key is None or self.nodes.get(key, DIRECTORY) is DIRECTORY:
            return False
        self._drop({key})
        return True

    def remove(self, path):
        """Removes a file, a link or an empty directory; false when it does not."""
        key = self.resolve(path, follow=False)
        if key in self.nodes and self._below(key) == {key}:
            self._drop({key})
            return True
        return False

    def remove_entries(self, path, names):
        """Removes entries of a directory that are not directories with something inside, in no known order."""
        keys = {self.resolve(f"{path}/{name}", follow=False) for name in names}
        self._drop({key for key in keys if self._below(key) == {key}})

    def remove_all(self, path):
        key = self.resolve(path, follow=False)
        if key in self.nodes:
            self._drop(self._below(key))

    def symlink(self, target, path):
        key = self.resolve(path, follow=False)
        if key is None or key in self.nodes:
            return False
        self.nodes[key] = Link(target)
        return True

    def rename(self, old, new):
        """Renames a file or a link, onto another one if need be."""
        source, destination = self.resolve(old, follow=False), self.resolve(new, follow=False)
        if self.nodes.get(destination) is DIRECTORY:
            return False
        node = self.nodes.pop(source)
        self.nodes[destination] = node
        return True

    @staticmethod
    def _parts(path):
        return [part for part in reversed(path.split("/")) if part not in ("", ".")]

    def _below(self, key):
        return {other for other in self.nodes if other == key or other.startswith(key + "/")}

    def _drop(self, keys):
        for key in keys:
            del self.nodes[key]

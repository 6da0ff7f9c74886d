"""What readers of the definitions see while these are replaced."""

import os
import threading

from outcomes import published
from release import definition_names, definitions

# Each step of a publication is slow, so that a moment without the link is noticed.
SLOWLY = ["strace", "-f", "-qq", "-o", "/dev/null", "-e", "inject=unlink,symlink,rename:delay_exit=10000"]


def read_at(directory, name):
    with open(os.open(name, os.O_RDONLY, dir_fd=directory), "rb") as file:
        return file.read()


class Reader(threading.Thread):
    """Follows the link without a pause, and records each change; every value must be one of the names."""

    def __init__(self, root, names):
        super().__init__()
        self.root, self.names = root, names
        self.seen, self.lookups, self.ended = [], 0, False
        self.start()

    def run(self):
        while not self.ended:
            self.lookups += 1
            found = self._look()
            if self.seen[-1:] != [found]:
                self.seen.append(found)

    def _look(self):
        try:
            directory = os.open(self.root / "active", os.O_RDONLY | os.O_DIRECTORY)
        except FileNotFoundError:
            return "no link"
        try:
            return self.names.get(tuple(read_at(directory, name) for name in definition_names()), "mixed")
        except FileNotFoundError:
            return "file vanished"
        finally:
            os.close(directory)

    def end(self):
        self.ended = True
        self.join()


def test_link_never_leads_nowhere_or_to_a_mixed_set(gateway, mirror, thorough, record_property):
    versions = [str(number) for number in range(1001, 1301 if thorough else 1031)]
    mirror.publish(versions[0])
    gateway.run_once()
    reader = Reader(gateway.root, {tuple(definitions(version).values()): version for version in versions})
    try:
        for former, version in zip(versions, versions[1:]):
            mirror.publish(version)
            assert gateway.run_once(prefix=SLOWLY) == published(version, former)
    finally:
        reader.end()
    assert reader.seen == versions
    record_property("updates_read", len(versions))
    record_property("lookups_of_the_link", reader.lookups)

"""Times of snapshots that cannot be read."""

import os
import re

import pytest
from outcomes import published

STRACE = ["strace", "-f", "-qq", "-o"]


@pytest.fixture
def many(gateway, mirror):
    """A gateway with release 1001 in service among 25 snapshots, release 1002 to come, and what sets it back to that.

    They are far more than fit into a sort's small case. The times are such that a sort by division takes the largest
    for its pivot once the smallest cannot be read."""
    gateway.settings["retained_snapshots"] = 60  # all stay, in the order in which the directory lists them
    mirror.publish("1001")
    gateway.run_once()
    mirror.publish("1002")
    root = gateway.root / "snapshots"
    for number in range(23):
        (root / f"{number:04d}").mkdir()
    (root / "1002").mkdir()
    names = [entry.name for entry in os.scandir(root)]
    times = {name: 1_100_000_000 + 10 * place for place, name in enumerate(names)}
    times[names[1]] = 1_900_000_000
    times[names[len(names) // 2]] = 1_000_000_000
    times[names[-1]] = 2_000_000_000

    def set_back():
        for name, time in times.items():
            os.utime(root / name, (time, time))
        (gateway.root / "active").unlink()
        (gateway.root / "active").symlink_to("snapshots/1001")

    return gateway, names, set_back


def failing(path, calls, rule):
    """The prefix for a command whose calls on that path must fail."""
    return [*STRACE, "/dev/null", "-P", path, "-e", f"trace={calls}", "-e", f"inject={calls}:{rule}"]


@pytest.mark.parametrize("number", [1, 2])
def test_time_that_cannot_be_read_once_ends_nothing(many, number, record_property):
    gateway, names, set_back = many
    for name in names:
        set_back()
        prefix = failing(gateway.root / "snapshots" / name, "newfstatat", f"error=EIO:when={number}")
        assert gateway.run_once(prefix=prefix) == published("1002", "1001"), name
        assert {path.name for path in (gateway.root / "snapshots").iterdir()} == {*names}
    record_property("times_unread", len(names))


@pytest.mark.parametrize("unreadable", ["1001", "1002", "1003", "1004"])
def test_snapshot_whose_time_cannot_be_read_is_the_oldest(gateway, mirror, unreadable):
    for version in ("1001", "1002", "1003"):
        mirror.publish(version)
        gateway.run_once()
    (gateway.root / "snapshots" / "1004").mkdir()
    mirror.publish("1005")
    gateway.settings["retained_snapshots"] = 4
    # Its time cannot be read, and it cannot be removed; that counts as removed.
    prefix = failing(gateway.root / "snapshots" / unreadable, "newfstatat,openat,unlinkat", "error=EACCES")
    assert gateway.run_once(prefix=prefix) == published("1005", "1003")
    versions = sorted(path.name for path in (gateway.root / "snapshots").iterdir())
    assert versions == ["1001", "1002", "1003", "1004", "1005"]


def test_service_is_read_before_the_listing_and_times_often(many):
    gateway, names, set_back = many
    set_back()
    trace = gateway.directory / "trace"
    gateway.run_once(prefix=[*STRACE, trace])
    pruning = trace.read_text(errors="replace").partition("published def snapshot 1002")[2]
    assert pruning.index("readlink(") < re.search(r"openat\(.*/snapshots\"", pruning).start()
    assert len(re.findall(r"newfstatat\(.*/snapshots/\w+\"", pruning)) >= 2 * (len(names) - 1)

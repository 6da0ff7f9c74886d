"""Times of snapshots that cannot be read."""

import os
import re

import pytest
from outcomes import published

RETAINED = 60  # more than there are: all stay, in the order in which the directory lists them


@pytest.fixture
def many(gateway, mirror):
    """A gateway with release 1001 in service among 25 snapshots, release 1002 to come, and their order in the listing.

    They are far more than fit into a sort's small case. The times are such that a sort by division takes the largest
    for its pivot once the smallest cannot be read."""
    gateway.settings["retained_snapshots"] = RETAINED
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
    return gateway, names, times


def failing(path, calls, rule):
    """What to put before a command whose calls on that path are to fail."""
    return [
        "strace",
        "-f",
        "-qq",
        "-o",
        "/dev/null",
        "-P",
        path,
        "-e",
        f"trace={calls}",
        "-e",
        f"inject={calls}:{rule}",
    ]


def set_back(gateway, times):
    for name, time in times.items():
        os.utime(gateway.root / "snapshots" / name, (time, time))
    (gateway.root / "active").unlink()
    (gateway.root / "active").symlink_to("snapshots/1001")


@pytest.mark.parametrize("number", [1, 2, 3, 4])
def test_time_that_cannot_be_read_once_ends_nothing(many, number, record_property):
    gateway, names, times = many
    for name in names:
        set_back(gateway, times)
        prefix = failing(gateway.root / "snapshots" / name, "newfstatat", f"error=EIO:when={number}")
        process = gateway.run("--config", gateway.config_path, "--once", prefix=prefix)
        assert process.returncode == 0, (name, process.stderr)
        assert gateway.take_log() == published("1002", "1001"), name
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
    # Neither its time can be read nor can it be removed, which counts all the same.
    prefix = failing(gateway.root / "snapshots" / unreadable, "newfstatat,openat,unlinkat", "error=EACCES")
    assert gateway.run_once(prefix=prefix) == published("1005", "1003")
    versions = sorted(path.name for path in (gateway.root / "snapshots").iterdir())
    assert versions == ["1001", "1002", "1003", "1004", "1005"]


def test_service_is_read_before_the_listing_and_times_often(many):
    gateway, names, times = many
    set_back(gateway, times)
    trace = gateway.folder / "trace"
    gateway.run_once(prefix=["strace", "-f", "-qq", "-o", trace])
    lines = trace.read_text(errors="replace").splitlines()
    published_at = next(place for place, line in enumerate(lines) if "published def snapshot 1002" in line)
    pruning = lines[published_at:]
    service = next(place for place, line in enumerate(pruning) if "readlink(" in line)
    listing = next(place for place, line in enumerate(pruning) if re.search(r"openat\(.*/snapshots\"", line))
    assert service < listing
    queries = [line for line in pruning if re.search(r"newfstatat\(.*/snapshots/\w+\"", line)]
    assert len(queries) % 2 == 0
    assert len(queries) >= 2 * (len(names) - 1)

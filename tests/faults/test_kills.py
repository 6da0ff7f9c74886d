"""SIGKILL before the system calls of an update; before every one with --all.

What is on the disk then is exactly what the calls before it have made, the snapshot in service is whole, and one
clean run heals it."""

import re
import signal

import pytest
from faults import FORMER, NEW, OLD, Scene, informative
from outcomes import published, snapshot_listing

LINK = "defs/active.tmp"


def names_after(scene, points, count):
    """The listing of the definitions root when just the first calls were made."""
    names = set() if scene.first else {*snapshot_listing(FORMER, OLD, FORMER)}
    for point in points[:count]:
        name = point.path.removeprefix("defs/")
        if point.path.startswith("defs/"):
            names = after_call(names, point, name)
    return sorted(names)


def after_call(names, point, name):
    if point.name == "mkdir":
        return names | {f"{name}/"}
    if point.name == "openat" and "O_CREAT" in point.text:
        return names | {name}
    if point.name == "symlink":
        return names | {f"{name} -> snapshots/{NEW}"}
    if point.name == "rename" and point.path == LINK:
        return names - {f"{name} -> snapshots/{NEW}", f"active -> snapshots/{FORMER}"} | {f"active -> snapshots/{NEW}"}
    if point.name == "rename":
        return names - {name} | {name.removesuffix(".part")}
    if point.name == "unlink":
        return names - {name}
    if point.name == "unlinkat":
        below = re.search('"(.*)"', point.text).group(1)
        return names - {f"{name}/{below}"}
    if point.name == "rmdir":
        return names - {f"{name}/"}
    return names


def log_after(scene, points, count):
    written = sum(point.name == "write" and point.path == "log" for point in points[:count])
    return published(NEW, scene.former or "none")[:written]  # a third line closes the log


def status_after(scene, points, count):
    calls = [point.name for point in points[:count] if point.path.startswith("status/")]
    before = "none" if scene.first else "before"
    return f"{NEW}/" if "write" in calls else "empty" if "openat" in calls else before


def found(scene):
    return scene.gateway.listing(), scene.gateway.take_log(), scene.status()


def wanted(scene, points, count):
    return tuple(after(scene, points, count) for after in (names_after, log_after, status_after))


def check(scene, points, point):
    """Whether the point was reached, and all is as it should be then."""
    process = scene.inject(point, "signal=KILL")
    if process is None:
        return False
    assert process.returncode == -signal.SIGKILL
    state = found(scene)
    if point.vague:
        assert state in [wanted(scene, points, count) for count in range(len(points))], state
    else:
        assert state == wanted(scene, points, point.index)
    scene.heal()
    return True


@pytest.mark.parametrize("part", range(2))
@pytest.mark.parametrize("first", [False, True], ids=["update", "first_update"])
def test_kill_leaves_what_the_calls_before_it_made_and_heals(gateway, mirror, first, part, thorough, record_property):
    scene = Scene(gateway, mirror, first=first)
    points = scene.points()
    listing = snapshot_listing(NEW, NEW) if first else snapshot_listing(NEW, FORMER, NEW)
    assert wanted(scene, points, len(points)) == (listing, published(NEW, scene.former or "none"), f"{NEW}/")
    chosen = points if thorough else informative(points)
    record_property("kills", scene.go_through(chosen[part::2], lambda point: check(scene, points, point)))

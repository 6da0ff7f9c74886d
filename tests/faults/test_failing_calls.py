"""Every system call of an update fails once, with one error after the other in turn, and with --all with every error
that it may plausibly give: what follows is exactly what the table below says, and one clean run heals it."""

import itertools
import re

import pytest
from faults import (
    DONE,
    FORMER,
    NEW,
    OLD,
    STAGED,
    UNSWEPT_INDEX,
    Scene,
    aborted,
    good,
    is_failed_transfer,
    not_downloaded,
    outcome_of,
    refused,
    snapshot,
    unflushed,
    unpublished,
)
from outcomes import published

ERRORS = ("ENOSPC", "EIO", "EACCES", "EMFILE", "EINTR", "EROFS", "EDQUOT", "EFBIG")
# These cannot fail, or only without memory, which the tests of allocations cover.
NEVER_FAIL = {"brk", "mmap", "munmap", "futex", "getpid", "geteuid", "umask", "rt_sigaction", "exit_group"}
STAGE = f"defs/snapshots/{NEW}"
CAB = f"{STAGE}/antivir-v2-{NEW}.cab"
PART = f"{CAB}.part"
FIRST, SECOND, INDEX = (f"{STAGE}/{name}" for name in ("antivir-v2.def", "aivsecon-v2.def", "antivir-v2.ini"))
LINK = "defs/active.tmp"
PRUNED = f"defs/snapshots/{OLD}"
STATUS = "status/status.json"


def unopened(text):
    return refused("CAB extract", f"err extract: cannot open @/{CAB}: {text} '@/{CAB}'")


CANNOT_CREATE = refused("download CAB", f"err download_cab: cannot create @/{PART}")
CANNOT_WRITE = not_downloaded("Failed writing received data to disk/application")
UNSWEPT = good(listing=DONE | UNSWEPT_INDEX)
UNPRUNED = good(listing=DONE | snapshot(OLD))
# A time that cannot be read is the smallest in that one comparison, so that the sort may take either for the oldest.
EITHER_PRUNED = (good(), good(listing=DONE - snapshot(FORMER) | snapshot(OLD)))
TRANSFER = "a transfer fails, or none does"


def of_definition(path):
    mismatch = refused(f"sha256 mismatch {path.rpartition('/')[2]}")
    return [
        ("openat", path, 1, None, refused("CAB extract")),
        ("write", path, 1, None, mismatch),
        ("openat", path, 2, None, unflushed(f"open @/{path}")),
        ("fsync", path, 2, None, unflushed(f"@/{path}")),
        ("newfstatat", path, 2, None, aborted(listing=STAGED | UNSWEPT_INDEX)),
        ("openat|read", path, 3, None, mismatch),
    ]


# The call, its path, how often that has been opened, how often the call was made since, the outcome.
# The first row that fits counts. A call in no row fails without any consequence.
EXPECTED = [
    # Nothing is known of the order of calls on the network.
    (".*", r".*/ca\.pem|socket|", None, None, TRANSFER),
    # The version in service, at the start and before pruning.
    ("newfstatat|readlink", "defs/active", None, 1, good(former="none")),
    # Staging and download. What fclose(3) fails to write, the digest finds missing.
    ("newfstatat", STAGE, 0, 1, CANNOT_CREATE),
    ("mkdir", STAGE, None, None, CANNOT_CREATE),
    ("openat", PART, None, None, CANNOT_CREATE),
    ("write", PART, None, "last", refused("CAB sha256 mismatch")),
    ("write", PART, None, None, CANNOT_WRITE),
    ("rename", PART, None, None, refused("download CAB")),
    ("openat|read", CAB, 1, None, refused("CAB sha256 mismatch")),
    # Unpacking and the flushes.
    ("openat", CAB, 2, None, unopened("Failed to open")),
    ("fstat", CAB, 2, None, unopened("Can't stat")),
    ("read", CAB, 2, 1, unopened("Error reading")),
    ("read", CAB, 2, None, refused("CAB extract")),
    *of_definition(FIRST),
    *of_definition(SECOND),
    ("openat", INDEX, 1, None, refused("CAB extract")),
    ("openat", INDEX, 2, None, unflushed(f"open @/{INDEX}")),
    ("fsync", INDEX, 2, None, unflushed(f"@/{INDEX}")),
    ("openat", STAGE, 1, None, unflushed(f"open @/{STAGE}")),
    ("fsync", STAGE, 1, None, unflushed(f"@/{STAGE}")),
    # The sweep: when it cannot begin, it removes nothing; when it breaks off, it throws.
    ("openat|fcntl", STAGE, 2, None, UNSWEPT),
    ("fstat|getdents64", STAGE, 2, 1, UNSWEPT),
    ("getdents64", STAGE, 2, 2, aborted(listing=STAGED)),
    ("unlink", INDEX, None, None, UNSWEPT),
    # Publication.
    ("symlink", LINK, None, None, unpublished(f"symlink @/{LINK} failed")),
    ("rename", LINK, None, None, unpublished("rename to active failed")),
    # Pruning, which begins and breaks off like the sweep.
    ("openat|fstat|fcntl", "defs/snapshots", 1, None, UNPRUNED),
    ("getdents64", "defs/snapshots", 1, 1, UNPRUNED),
    ("getdents64", "defs/snapshots", 1, 2, aborted(published(NEW)[0], listing=DONE | snapshot(OLD))),
    ("openat|fstat|fcntl", PRUNED, 1, None, UNPRUNED),
    ("getdents64|unlinkat", PRUNED, 1, 1, UNPRUNED),
    ("unlinkat", PRUNED, 1, 2, good(listing=DONE | {f"snapshots/{OLD}/", f"snapshots/{OLD}/antivir-v2.def"})),
    ("getdents64|unlink|rmdir", PRUNED, 1, None, good(listing=DONE | {f"snapshots/{OLD}/"})),
    ("newfstatat", f"{PRUNED}|defs/snapshots/{FORMER}", 0, None, EITHER_PRUNED),
    ("newfstatat", STAGE, 2, None, EITHER_PRUNED),
    # The status.
    ("openat", STATUS, None, None, good(status="before")),
    ("write", STATUS, None, None, good(status="empty")),
]
# The standard library and libarchive try again when a signal interrupts them, except when libarchive writes.
TRIED_AGAIN = [("read", r"defs/.*"), ("write", STATUS)]


def expected(point, error, points):
    if error == "EINTR" and any(
        re.fullmatch(f"{name} {path}", f"{point.kind} {point.path}") for name, path in TRIED_AGAIN
    ):
        return good()
    last = not any(
        (p.kind, p.path, p.opened) == (point.kind, point.path, point.opened) for p in points[point.index + 1 :]
    )
    for name, path, opened, repeated, outcome in EXPECTED:
        if (
            re.fullmatch(name, point.kind)
            and re.fullmatch(path, point.path)
            and opened in (None, point.opened)
            and (repeated in (None, point.repeated) or (repeated == "last" and last))
        ):
            return outcome
    return good()


def check(scene, point, error, points):
    """Whether the point was reached, and all is as it should be then."""
    process = scene.inject(point, f"error={error}")
    if process is None:
        return False
    found = outcome_of(scene, process)
    wanted = expected(point, error, points)
    if wanted == TRANSFER:
        assert found == good() or is_failed_transfer(found)
    else:
        found.expect(*(wanted if isinstance(wanted, tuple) else (wanted,)), directory=scene.gateway.directory)
    scene.heal(pruned=wanted is not EITHER_PRUNED)
    return True


def may_fail(point):
    return point.name not in NEVER_FAIL and point.path != "log"  # which the test itself has written


@pytest.fixture
def scene(gateway, mirror):
    return Scene(gateway, mirror)


@pytest.mark.parametrize("part", range(2))
@pytest.mark.parametrize("error", ["in_turn", *(pytest.param(error, marks=pytest.mark.long) for error in ERRORS)])
def test_failed_call_has_its_outcome_and_heals(scene, error, part, record_property):
    points = scene.points()
    failing = [point for point in points if may_fail(point)]
    errors = dict(zip((point.index for point in failing), itertools.cycle(ERRORS if error == "in_turn" else [error])))
    reached = scene.go_through(failing[part::2], lambda point: check(scene, point, errors[point.index], points))
    record_property("calls_failed", reached)


def test_each_row_of_the_table_fits_a_call(scene):
    points = scene.points()
    for row in EXPECTED:
        assert any(
            re.fullmatch(row[0], point.kind)
            and re.fullmatch(row[1], point.path)
            and row[2] in (None, point.opened)
            and row[3] in (None, "last", point.repeated)
            for point in points
        ), row

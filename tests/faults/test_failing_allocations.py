"""Allocations fail, one at a time, in the daemon, the standard library or another library.

In the daemon's own code the exception ends a single check. A library may go on, fail its call, or end the process:
libarchive gives up, libcrypto may crash, and the standard library terminates when the listing of a directory finds no
memory. In all cases the snapshot in service is whole, and one clean run heals the rest."""

import signal

import pytest
from faults import DONE, FORMER, NEW, OLD, UNDONE, UNSWEPT_INDEX, Scene
from faults import is_failed_transfer, outcome_of, refused, snapshot
from gateway import APART, SANITIZED, may_mount
from outcomes import Outcome, published

pytestmark = pytest.mark.skipif(SANITIZED, reason="the sanitizers bring their own allocation")
CAB = f"snapshots/{NEW}/antivir-v2-{NEW}.cab"
# All that can be below the definitions root at some moment of an update.
EVER = {*DONE, *UNDONE, *UNSWEPT_INDEX, *snapshot(OLD), CAB, f"{CAB}.part", f"active.tmp -> snapshots/{NEW}"}
REFUSALS = ("download CAB", "CAB sha256 mismatch", "CAB extract", "CAB missing antivir-v2.def")
REFUSALS += ("CAB missing aivsecon-v2.def", "sha256 mismatch antivir-v2.def", "sha256 mismatch aivsecon-v2.def")
LIBARCHIVE_GIVES_UP = "Fatal Internal Error in libarchive: "


def run(scene, **environment):
    scene.set_back()
    return scene.gateway.run("--config", scene.gateway.config_path, "--once", memory=True, **environment)


def allocations_of_update(scene):
    """How many there are until the settings are read, and in all."""
    path = scene.gateway.directory / "allocations"
    run(scene, ZQU_ALLOCATIONS_FILE=str(path))
    return map(int, path.read_text().split())


def is_ended(outcome, errors):
    """Whether the process ended early, in a known way, and left the status alone."""
    uncaught = outcome.exit_status == -signal.SIGABRT and errors.startswith("terminate called ")
    given_up = outcome.exit_status == 1 and errors.startswith(LIBARCHIVE_GIVES_UP)
    crashed = outcome.exit_status == -signal.SIGSEGV and errors == ""  # inside libcrypto and libarchive only
    return (
        (uncaught or given_up or crashed)
        and outcome.log in ((), (published(NEW)[0],), tuple(published(NEW, FORMER)))
        and outcome.status in ("before", "empty", f"{NEW}/")
        and outcome.listing <= EVER
    )


def is_published(outcome):
    """Whether the release was put into service, without flushes, sweep, pruning or status when memory is missing."""
    *before, published_line, updated = outcome.log if len(outcome.log) >= 2 else ("", "", "")
    return (
        outcome.exit_status == 0
        and published_line == published(NEW)[0]
        and updated in (published(NEW, FORMER)[1], published(NEW)[1])
        and all(line.startswith("warning fsync: ") for line in before)
        and outcome.status in (f"{NEW}/", "before", "empty")
        and DONE <= outcome.listing <= DONE | UNSWEPT_INDEX | snapshot(OLD)
    )


def is_told(outcome, errors):
    cannot_create = f"err download_cab: cannot create @/defs/{CAB}.part"
    opening = outcome.log and outcome.log[0].startswith("err extract: cannot open @/")
    return (
        is_published(outcome)
        or outcome in {refused(reason) for reason in REFUSALS}
        or outcome == refused("download CAB", cannot_create)
        or is_failed_transfer(outcome)
        or (opening and outcome == refused("CAB extract", outcome.log[0]))
        or outcome == Outcome((), f"{FORMER}/defId fetch failed", frozenset(UNDONE))  # no handle
        or is_ended(outcome, errors)
    )


def check(scene, number):
    process = run(scene, ZQU_FAIL_ALLOCATION=str(number))
    outcome = outcome_of(scene, process)
    where = f"the files are in {scene.gateway.directory}"
    assert is_told(
        outcome, process.stderr
    ), f"expected one of the known outcomes, came\n{outcome}\n{process.stderr}\n{where}"
    scene.heal()


@pytest.fixture
def scene(gateway, mirror):
    return Scene(gateway, mirror)


@pytest.mark.parametrize("part", range(2))
def test_failed_allocation_leaves_a_whole_snapshot_and_heals(scene, part, thorough, record_property):
    start, count = allocations_of_update(scene)
    every = range(start + 1, count + 1)
    # Most are made while TLS is set up; from the second transfer on they are few.
    chosen = every if thorough else sorted({*every[::150], *every[-320:]})
    scene.try_all(chosen[part::2], lambda number: check(scene, number))
    record_property("allocations_failed", len(chosen[part::2]))


@pytest.mark.skipif(not may_mount(), reason="needs the right to make namespaces of its own")
def test_failed_allocation_never_leaves_settings_half_read(scene, record_property):
    start, _ = allocations_of_update(scene)
    config_path = scene.gateway.config_path
    for number in range(1, start + 1):
        scene.set_back()
        process = scene.gateway.run(
            "--config", config_path, "--once", memory=True, prefix=APART, ZQU_FAIL_ALLOCATION=str(number)
        )
        outcome = outcome_of(scene, process)
        ended = is_ended(outcome, process.stderr) and outcome.log == ()
        defaults = outcome.log[:1] == ("warning could not read config @/updater.conf; using defaults",)
        own = outcome.log[:1] and outcome.log[0].startswith("err GET URL/")
        assert ended or defaults or own, f"allocation {number} of {start}, came\n{outcome}"
        assert scene.in_service() == FORMER
    record_property("allocations_failed", start)

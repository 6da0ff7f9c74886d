"""Directory listings that fail: at their start they count as empty, midway they end the check by an exception."""

import signal

import pytest
from outcomes import snapshot_listing

# The calls of getdents64(2) in an update: one that finds the entries and one that finds the end, for each listing.
SWEEP, SWEEP_END, PRUNE, PRUNE_END = 1, 2, 3, 4


@pytest.fixture
def updatable(gateway, mirror):
    """A gateway with release 1001 in service and release 1002 on its mirror, to be pruned to one snapshot."""
    mirror.publish("1001")
    gateway.run_once()
    gateway.status_path.unlink()
    mirror.publish("1002")
    gateway.settings["retained_snapshots"] = 1
    return gateway


def run_with_broken_listing(gateway, number):
    prefix = ["strace", "-f", "-qq", "-o", "/dev/null", "-e", f"inject=getdents64:error=EIO:when={number}"]
    return gateway.run("--config", gateway.config_path, "--once", prefix=prefix)


def test_sweep_that_cannot_begin_removes_nothing_and_the_update_succeeds(updatable):
    assert run_with_broken_listing(updatable, SWEEP).returncode == 0
    assert updatable.take_log() == [
        "info published def snapshot 1002",
        "info def snapshot updated: 1001 -> 1002",
    ]
    assert updatable.listing() == sorted([*snapshot_listing("1002", "1002"), "snapshots/1002/antivir-v2.ini"])
    updatable.expect_status("1002")


def test_sweep_that_breaks_off_ends_the_check_without_a_status_and_keeps_the_staging(updatable):
    process = run_with_broken_listing(updatable, SWEEP_END)
    assert abs(process.returncode) in (signal.SIGABRT, 128 + signal.SIGABRT)
    assert updatable.take_log() == []
    assert updatable.listing() == snapshot_listing("1001", "1001", "1002")
    assert not updatable.status_path.exists()


def test_pruning_that_cannot_begin_removes_nothing_and_the_update_succeeds(updatable):
    assert run_with_broken_listing(updatable, PRUNE).returncode == 0
    assert updatable.listing() == snapshot_listing("1002", "1001", "1002")
    updatable.expect_status("1002")


def test_pruning_that_breaks_off_removes_nothing_and_ends_the_check_after_the_publication(updatable):
    process = run_with_broken_listing(updatable, PRUNE_END)
    assert abs(process.returncode) in (signal.SIGABRT, 128 + signal.SIGABRT)
    assert updatable.take_log() == ["info published def snapshot 1002"]
    assert updatable.listing() == snapshot_listing("1002", "1001", "1002")
    assert not updatable.status_path.exists()


def test_unbroken_listings_prune_the_former_snapshot(updatable):
    assert updatable.run_once() == ["info published def snapshot 1002", "info def snapshot updated: 1001 -> 1002"]
    assert updatable.listing() == snapshot_listing("1002", "1002")

"""The link cannot be read, just once: it counts as none, so nothing is in service for that moment. What that costs."""

import pytest
from outcomes import published, snapshot_listing
from release import definitions


def run_with_unreadable_link(gateway, number):
    rule = ["-e", "trace=readlink", "-e", f"inject=readlink:error=EIO:when={number}"]
    return gateway.run_once(prefix=["strace", "-f", "-qq", "-o", "/dev/null", *rule])


@pytest.fixture
def current(gateway, mirror):
    """A gateway that has the mirror's release in service."""
    mirror.publish("1001")
    gateway.run_once()
    return gateway


def test_release_in_service_is_staged_again_and_lost_if_it_fails(current, mirror):
    assert run_with_unreadable_link(current, 1) == published("1001")
    assert current.listing() == snapshot_listing("1001", "1001")
    assert current.active_files() == definitions("1001")
    mirror.path("antivir-v2-1001.cab").unlink()
    assert run_with_unreadable_link(current, 1)[-1] == "err run_once: staging failed: download CAB"
    assert current.listing() == ["active -> snapshots/1001", "snapshots/"]
    assert current.run_once() == []
    current.expect_status("1001")


def test_release_just_published_is_pruned_when_none_is_retained(current, mirror):
    mirror.publish("1002")
    current.settings["retained_snapshots"] = 0
    assert run_with_unreadable_link(current, 2) == published("1002", "1001")
    assert current.listing() == ["active -> snapshots/1002", "snapshots/"]
    current.settings["retained_snapshots"] = 1
    mirror.publish("1003")
    assert run_with_unreadable_link(current, 2) == published("1003", "1002")
    assert current.listing() == snapshot_listing("1003", "1003")

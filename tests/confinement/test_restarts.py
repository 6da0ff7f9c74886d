"""How the unit ends and starts again: failures, stops, signals, and a check by hand beside it."""

import threading

import pytest
from booted_gateway import CONFIG, DAEMON, PROGRAM, RESTART, ROOT, STATUS, TIMER, UNIT, USER
from scripted_server import head, reply, stall
from trials import NEW, OLD


@pytest.fixture
def served(gateway):
    """A gateway with the old release in service, and the unit at rest."""
    gateway.update_to(OLD)
    gateway.take_log()
    return gateway


def expect_both(gateway, service, timer):
    assert (gateway.state(UNIT), gateway.state(TIMER)) == (service, timer)


def fail(gateway, limits, timer=""):
    """Starts the unit with a configuration that ends the daemon, until it has failed."""
    gateway.put(CONFIG, "http_timeout_s = soon\n")
    gateway.drop_in(timer, unit=TIMER)
    gateway.drop_in(f"{limits}[Service]\nRestartSec=50ms\n")
    gateway.run("systemctl", "start", UNIT)
    gateway.wait_for(lambda: gateway.state() == "failed")


def test_malformed_number_fails_the_unit_after_ten_starts(gateway):
    """And the timer waits, until the unit is stopped."""
    fail(gateway, "")
    assert gateway.show(UNIT, "Result") == "signal"
    assert sum(line.startswith("  what():  stoul") for line in gateway.take_log()) == 10
    expect_both(gateway, "failed", "active")
    assert UNIT in gateway.out("systemctl", "--failed", "--plain", "--no-legend").split()
    gateway.run("systemctl", "stop", UNIT)
    expect_both(gateway, "failed", "inactive")


def test_unit_that_failed_for_good_is_started_by_the_timer(gateway):
    soon = "[Timer]\nOnUnitInactiveSec=\nOnUnitInactiveSec=2500ms\nAccuracySec=1ms\n"
    fail(gateway, "[Unit]\nStartLimitIntervalSec=2s\nStartLimitBurst=2\n", soon)
    gateway.publish(OLD)
    gateway.configure()
    gateway.wait_for_status(OLD)
    expect_both(gateway, "active", "active")


def test_daemon_terminated_past_systemd_is_left_to_the_timer(served):
    """It ends with success, which is no failure. But nobody stopped the unit."""
    served.run("systemctl", "kill", "--signal=TERM", UNIT)
    served.wait_for(lambda: served.state() == "inactive")
    expect_both(served, "inactive", "active")


def test_stop_at_rest_is_clean_and_the_next_boot_starts_the_unit(served):
    served.run("systemctl", "stop", UNIT)
    assert served.show(UNIT, "Result") == "success"
    expect_both(served, "inactive", "inactive")
    assert served.take_log() == ["zel_quorin_updater loop stopped"]
    served.run("systemctl", "start", "multi-user.target")
    expect_both(served, "active", "active")


def begin_download(gateway):
    """Restarts the unit, whose download of the new release stalls; returns when it has begun."""
    release, begun = gateway.publish(NEW), threading.Event()
    steps = [head("200 OK", "Content-Length: 1000000"), b"x" * 1000, lambda connection: begun.set(), stall]
    gateway.server.script[release.archive_name] = steps
    gateway.drop_in("[Service]\nTimeoutStopSec=1s\n")
    gateway.run("systemctl", "restart", UNIT)
    gateway.wait_for(begun.is_set)
    assert f"snapshots/{NEW}/{release.archive_name}.part" in gateway.listing()


def test_restarts_count_as_starts_until_the_count_is_reset(served):
    """A sound service that is restarted too often is stopped until the timer starts it again."""
    served.drop_in("[Unit]\nStartLimitBurst=2\n")
    restarted = [served.run("systemctl", "restart", UNIT, check=False).returncode for _ in range(3)]
    assert restarted == [0, 0, 1]
    assert (served.state(), served.show(UNIT, "Result")) == ("failed", "start-limit-hit")
    for _ in range(4):
        served.run("sh", "-ec", f"systemctl reset-failed {PROGRAM}; {RESTART}")
    expect_both(served, "active", "active")


def by_hand(gateway):
    gateway.run(DAEMON, "--config", CONFIG, "--once")


def owners(gateway):
    """Those of the link and of the snapshots."""
    return set(gateway.out("sh", "-c", f"find {ROOT}/active {ROOT}/snapshots/* -printf '%u\\n'").splitlines())


def test_start_takes_over_what_a_check_by_hand_as_root_made(served):
    """Link, snapshot and status: otherwise the unit could not replace, prune or write them."""
    served.configure(retained_snapshots=1)
    served.run("systemctl", "stop", UNIT)
    served.path(STATUS).unlink()
    served.publish(NEW)
    by_hand(served)
    assert owners(served) == {"root"}
    served.publish("1003")
    served.expect_check("1003")
    assert owners(served) == {USER}
    snapshots = [name for name in served.listing() if name.startswith("snapshots/")]
    assert snapshots == ["snapshots/"] + [
        f"snapshots/1003/{file}" for file in ("", "aivsecon-v2.def", "antivir-v2.def")
    ]


def test_download_is_lost_to_a_check_by_hand_and_to_a_stop(served):
    """Two daemons do not know of each other: a failure of one removes what the other is filling. The stop ends in a
    kill, and the next start repairs it."""
    begin_download(served)
    new = served.publish(NEW)
    served.server.script[new.archive_name] = [reply(b"", "404 Not Found")]
    by_hand(served)
    assert f"snapshots/{NEW}/" not in served.listing()
    served.expect_status(OLD, "download CAB")
    served.run("systemctl", "stop", UNIT)
    assert served.show(UNIT, "Result") == "timeout"
    expect_both(served, "failed", "inactive")
    served.publish(NEW)
    served.expect_check(NEW)

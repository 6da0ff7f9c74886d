"""How the unit ends and comes back: failures, stops, signals, and a check by hand beside it."""

import threading

import pytest
from confined import CONFIGURATION, DAEMON, DAEMON_NAME, ROOT, SERVICE, STATUS, TIMER, UNIT
from pages import blocks
from release import HIT, Release
from scripted_server import SUBDIR, cut, head, reply, stall
from trials import NEW, OLD

SOON = "[Timer]\nOnUnitInactiveSec=\nOnUnitInactiveSec=4s\nAccuracySec=1ms\n"


@pytest.fixture
def releases(tmp_path):
    return {version: Release(version) for version in (OLD, NEW, "1003")}


@pytest.fixture
def server(system, releases):
    """The mirror, with the old release in service, and the unit at rest."""
    server = system.scripted()
    server.script = releases[OLD].script
    system.configure(server)
    system.restart()
    system.expect_status(OLD)
    system.take_log()
    return server


def count(system, text):
    """How often the unit has logged a line that begins so."""
    return sum(line.startswith(text) for line in system.take_log())


def expect_both(system, service, timer):
    assert (system.show(UNIT, "ActiveState"), system.show(TIMER, "ActiveState")) == (service, timer)


def break_configuration(system):
    system.put(CONFIGURATION, "http_timeout_s = soon\n")


def test_malformed_number_fails_the_unit_after_ten_starts_and_the_timer_waits(system):
    break_configuration(system)
    system.drop_in("[Service]\nRestartSec=50ms\n")
    system.run("systemctl", "start", UNIT)
    system.wait_for(lambda: system.show(UNIT, "ActiveState") == "failed")
    assert system.show(UNIT, "Result") == "signal"
    assert count(system, "  what():  stoul") == 10
    expect_both(system, "failed", "active")
    assert system.out("systemctl", "--failed", "--plain", "--no-legend").split()[0] == UNIT


def test_mended_configuration_comes_up_by_itself(system, server):
    good = system.path(CONFIGURATION).read_text()
    break_configuration(system)
    system.drop_in("[Unit]\nStartLimitIntervalSec=3s\nStartLimitBurst=2\n[Service]\nRestartSec=50ms\n")
    system.drop_in(SOON, unit=TIMER)
    system.run("systemctl", "restart", UNIT)
    system.wait_for(lambda: system.show(UNIT, "ActiveState") == "failed")
    system.put(CONFIGURATION, good)
    system.wait_for(lambda: system.show(UNIT, "ActiveState") == "active")


def test_stop_of_a_failed_unit_stops_the_timer_too(system):
    break_configuration(system)
    system.drop_in("[Unit]\nStartLimitBurst=1\n[Service]\nRestartSec=50ms\n")
    system.run("systemctl", "start", UNIT)
    system.wait_for(lambda: system.show(UNIT, "ActiveState") == "failed")
    system.run("systemctl", "stop", UNIT)
    expect_both(system, "failed", "inactive")


def test_stop_between_two_starts_stops_the_timer_too(system):
    break_configuration(system)
    system.drop_in("[Service]\nRestartSec=1h\n")
    system.run("systemctl", "start", UNIT)
    system.wait_for(lambda: system.show(UNIT, "SubState") == "auto-restart")
    system.run("systemctl", "stop", UNIT)
    expect_both(system, "inactive", "inactive")


def timer_without(system, line):
    """The retry timer with one of its lines left out."""
    text = system.path(f"/usr/local/lib/systemd/system/{TIMER}").read_text()
    assert text.count(f"{line}\n") == 1
    system.put(f"/etc/systemd/system/{TIMER}", text.replace(f"{line}\n", ""))
    system.run("systemctl", "daemon-reload")


@pytest.fixture
def shipped_timer(system):
    yield
    system.path(f"/etc/systemd/system/{TIMER}").unlink()
    system.run("systemctl", "daemon-reload")


def test_timer_that_is_no_part_of_the_unit_outlives_its_stop(system, server, shipped_timer):
    timer_without(system, f"PartOf={UNIT}")
    system.run("systemctl", "stop", UNIT)
    expect_both(system, "inactive", "active")


def test_timer_with_a_limit_of_starts_fails_with_the_unit(system, shipped_timer):
    timer_without(system, "StartLimitIntervalSec=0")
    break_configuration(system)
    system.drop_in("[Service]\nRestartSec=50ms\n")
    system.run("systemctl", "start", UNIT)
    system.wait_for(lambda: system.show(UNIT, "ActiveState") == "failed")
    expect_both(system, "failed", "failed")


def test_killed_daemon_stays_away_without_restart(system, server):
    system.drop_in("[Service]\nRestart=no\n")
    system.run("systemctl", "kill", "--signal=KILL", UNIT)
    system.wait_for(lambda: system.show(UNIT, "ActiveState") == "failed")


def test_stop_at_rest_is_clean(system, server):
    system.run("systemctl", "stop", UNIT)
    assert system.state() == ("inactive", "success")
    expect_both(system, "inactive", "inactive")
    assert system.take_log() == ["zel_quorin_updater loop stopped"]


def test_stop_in_a_download_kills_and_the_next_start_heals(system, server, releases):
    new = releases[NEW]
    server.script = {**new.script, new.archive_name: [head("200 OK", "Content-Length: 1000000"), b"x" * 1000, stall]}
    system.drop_in("[Service]\nTimeoutStopSec=1s\n")
    server.requests.clear()
    system.run("systemctl", "restart", UNIT)
    system.wait_for(lambda: f"/{SUBDIR}/{new.archive_name}" in str(server.requests))
    system.run("systemctl", "stop", UNIT)
    assert system.state() == ("failed", "timeout")
    expect_both(system, "failed", "inactive")
    server.script = new.script
    system.restart()
    system.expect_status(NEW)


@pytest.mark.parametrize("signal", ["KILL", "SEGV", "ABRT"])
def test_killed_daemon_is_started_again(system, server, signal):
    system.drop_in("[Service]\nRestartSec=50ms\n")
    system.path(STATUS).unlink()
    system.run("systemctl", "kill", f"--signal={signal}", UNIT)
    system.wait_for_status()
    assert system.show(UNIT, "NRestarts") == "1"
    expect_both(system, "active", "active")


def test_daemon_that_somebody_terminates_past_systemd_is_left_to_the_timer(system, server):
    """It ends well, which is no failure; but nobody stopped the unit."""
    system.run("systemctl", "kill", "--signal=TERM", UNIT)
    system.wait_for(lambda: system.show(UNIT, "ActiveState") == "inactive")
    expect_both(system, "inactive", "active")


def test_enabled_unit_comes_up_with_the_system(system, server):
    system.run("systemctl", "stop", UNIT)
    system.run("systemctl", "start", "multi-user.target")
    expect_both(system, "active", "active")


def test_restart_checks_at_once(system, server, releases):
    server.script = releases[NEW].script
    server.requests.clear()
    system.restart()
    assert server.targets() == [HIT, f"antivir-v2-c-{NEW}.ini", releases[NEW].archive_name]
    system.expect_status(NEW)


def by_hand(system, *prefix):
    system.run(*prefix, DAEMON, "--config", CONFIGURATION, "--once")


def test_eight_restarts_by_hand_in_a_row_are_all_accepted(system, server):
    for _ in range(8):
        system.run("systemctl", "restart", UNIT)
    expect_both(system, "active", "active")


def test_restart_beyond_the_start_limit_is_refused_unless_the_counter_is_set_back(system, server):
    """What the recipe is for: whoever restarts a sound service too often has none until the timer starts it again."""
    system.drop_in("[Unit]\nStartLimitBurst=2\n")
    restarted = [system.run("systemctl", "restart", UNIT, check=False).returncode for _ in range(3)]
    assert restarted == [0, 0, 1]
    assert system.state() == ("failed", "start-limit-hit")
    for _ in range(12):
        system.run("sh", "-ec", f"systemctl reset-failed {DAEMON_NAME}; systemctl restart {DAEMON_NAME}")
    expect_both(system, "active", "active")


def owners(system):
    """Those of the link and of the snapshots."""
    return set(system.out("sh", "-c", f"find {ROOT}/active {ROOT}/snapshots/* -printf '%u\\n'").splitlines())


def test_start_takes_over_what_a_check_by_hand_as_root_made(system, server, releases):
    """Link, snapshot and status: without that the unit could replace, prune and write none of them."""
    system.configure(server, retained_snapshots=1)
    system.run("systemctl", "stop", UNIT)
    system.path(STATUS).unlink()
    server.script = releases[NEW].script
    by_hand(system)
    assert owners(system) == {"root"}
    server.script = releases["1003"].script
    system.restart()
    system.expect_status("1003")
    assert owners(system) == {SERVICE}
    assert [name for name in system.listing() if name.startswith("snapshots/")] == [
        "snapshots/",
        "snapshots/1003/",
        "snapshots/1003/aivsecon-v2.def",
        "snapshots/1003/antivir-v2.def",
    ]


def test_check_by_hand_as_the_services_user_does_no_harm(system, server, releases):
    system.run("systemctl", "stop", UNIT)
    server.script = releases[NEW].script
    by_hand(system, "runuser", "-u", SERVICE, "--")
    assert owners(system) == {SERVICE}
    system.expect_status(NEW)


def test_check_by_hand_removes_the_staging_directory_of_the_unit(system, server, releases):
    """Two daemons at once know nothing of each other: the failure of one takes away what the other is filling."""
    new = releases[NEW]
    server.script = {**new.script, new.archive_name: [head("200 OK", "Content-Length: 1000000"), b"x" * 1000, stall]}
    system.drop_in("[Service]\nTimeoutStopSec=1s\n")
    server.requests.clear()
    system.run("systemctl", "restart", UNIT)
    system.wait_for(lambda: f"snapshots/{NEW}/{new.archive_name}.part" in system.listing())
    server.script = {**new.script, new.archive_name: [reply(b"", "404 Not Found")]}
    by_hand(system)
    assert f"snapshots/{NEW}/" not in system.listing()
    system.expect_status(OLD, "download CAB")


def test_release_that_two_daemons_lost_comes_back_with_a_restart(system, server, releases):
    """The unit downloads a release that a check by hand puts into service meanwhile. The download fails, and the unit
    removes its staging directory: now the snapshot in service. Later checks take the release for current."""
    new = releases[NEW]
    fail = threading.Event()

    def held(connection):
        fail.wait(60)
        cut(connection)

    server.script = {**new.script, new.archive_name: [head("200 OK", "Content-Length: 1000000"), b"x" * 1000, held]}
    system.path(STATUS).unlink()
    system.run("systemctl", "restart", UNIT)
    system.wait_for(lambda: f"snapshots/{NEW}/{new.archive_name}.part" in system.listing())
    server.script = new.script
    by_hand(system)
    assert system.active() == NEW
    assert f"snapshots/{NEW}/antivir-v2.def" in system.listing()
    system.path(STATUS).unlink()
    fail.set()
    system.wait_for_status()
    system.expect_status(OLD, "download CAB")
    assert system.out("readlink", f"{ROOT}/active") == f"snapshots/{NEW}"
    assert f"snapshots/{NEW}/" not in system.listing()
    (recipe,) = blocks("operations.md", "The root is out of order")
    system.path(STATUS).unlink()
    system.run("sh", "-c", recipe)
    system.wait_for_status(NEW)
    assert owners(system) == {SERVICE}
    assert system.out("head", "-n1", f"{ROOT}/active/antivir-v2.def") == f"antivir-v2.def of {NEW}"

"""The daemon as a daemon: its loop, its waits and its signals."""

import os
import signal

import pytest
from gateway import STARTED, STOPPED, wait_for
from outcomes import snapshot_listing


def active(gateway):
    link = gateway.root / "active"
    return os.readlink(link) if link.is_symlink() else None


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT])
def test_signal_during_the_wait_ends_the_daemon_with_status_zero(gateway, mirror, number):
    mirror.publish("1001")
    gateway.settings.update(poll_interval_s=600, poll_jitter_s=0)
    daemon = gateway.start()
    wait_for(lambda: gateway.status_path.exists() and active(gateway), daemon)
    daemon.send_signal(number)
    assert daemon.wait(timeout=30) == 0
    assert gateway.take_log() == [
        STARTED.format(600, 0),
        "info published def snapshot 1001",
        "info def snapshot updated: none -> 1001",
        STOPPED,
    ]


def test_signal_during_a_cycle_lets_it_end(gateway, mirror):
    mirror.publish("1001")
    gateway.settings.update(poll_interval_s=600, poll_jitter_s=0)
    # The signal comes with the first flush, in the midst of the update.
    process = gateway.run(
        "--config",
        gateway.config_path,
        prefix=["strace", "-f", "-qq", "-o", "/dev/null", "-e", "inject=fsync:signal=TERM:when=1"],
    )
    assert process.returncode == 0
    assert gateway.take_log() == [
        STARTED.format(600, 0),
        "info published def snapshot 1001",
        "info def snapshot updated: none -> 1001",
        STOPPED,
    ]
    assert gateway.listing() == snapshot_listing("1001", "1001")


def test_signal_during_a_single_cycle_lets_it_end(gateway, mirror):
    mirror.publish("1001")
    prefix = ["strace", "-f", "-qq", "-o", "/dev/null", "-e", "inject=fsync:signal=INT:when=1"]
    assert gateway.run_once(prefix=prefix) == [
        "info published def snapshot 1001",
        "info def snapshot updated: none -> 1001",
    ]


def test_other_signals_keep_their_effect(gateway, mirror):
    mirror.publish("1001")
    gateway.settings.update(poll_interval_s=600)
    daemon = gateway.start()
    wait_for(lambda: gateway.status_path.exists(), daemon)
    daemon.send_signal(signal.SIGUSR1)  # SIGHUP would be ignored below nohup
    assert daemon.wait(timeout=30) == -signal.SIGUSR1


def test_signal_before_the_handlers_are_there_ends_the_process_at_once(gateway):
    # The first thing opened for reading after the libraries is the configuration.
    process = gateway.run(
        "--config",
        gateway.config_path,
        "--once",
        prefix=[
            "strace",
            "-f",
            "-qq",
            "-o",
            "/dev/null",
            "-P",
            gateway.folder / "updater.conf",
            "-e",
            "inject=openat:signal=TERM:when=1",
        ],
    )
    assert process.returncode in (-signal.SIGTERM, 128 + signal.SIGTERM)
    assert gateway.take_log() == []


def test_loop_picks_up_releases_and_survives_failures(gateway, mirror):
    gateway.settings.update(poll_interval_s=1, poll_jitter_s=0)
    daemon = gateway.start()
    wait_for(lambda: gateway.status_path.exists(), daemon)
    mirror.publish("1001")
    wait_for(lambda: active(gateway) == "snapshots/1001", daemon)
    mirror.write("antivir-v2-hit.ini", "defId=gone\n")
    wait_for(lambda: b"complete-info fetch failed for gone" in gateway.status_path.read_bytes(), daemon)
    mirror.publish("1002")
    wait_for(lambda: active(gateway) == "snapshots/1002", daemon)
    daemon.send_signal(signal.SIGTERM)
    assert daemon.wait(timeout=30) == 0
    lines = [line for line in gateway.take_log() if not line.startswith("err GET ")]
    assert lines == [
        STARTED.format(1, 0),
        "info published def snapshot 1001",
        "info def snapshot updated: none -> 1001",
        "info published def snapshot 1002",
        "info def snapshot updated: 1001 -> 1002",
        STOPPED,
    ]


def test_slices_last_one_second_and_share_one_record(gateway, mirror):
    mirror.publish("1001")
    gateway.settings.update(poll_interval_s=2, poll_jitter_s=0)
    process = gateway.run("--config", gateway.config_path, calls=True, ZQU_SLEEPS="5")
    assert process.returncode == 0
    assert [line for line in gateway.take_log() if line.startswith("nanosleep")] == ["nanosleep 1 0 same"] * 5


def test_exception_in_the_loop_is_logged_and_the_waits_shrink(gateway, mirror):
    mirror.publish_looping("1001")
    gateway.settings.update(poll_interval_s=8, poll_jitter_s=0)
    process = gateway.run("--config", gateway.config_path, calls=True, ZQU_SLEEPS="16")
    assert process.returncode == 0
    lines = [line for line in gateway.take_log() if line.startswith(("err", "info", "nanosleep"))]
    exception = (
        "err run_once exception: filesystem error: status: Too many levels of symbolic links "
        f"[{gateway.root}/snapshots/1001/antivir-v2.def]"
    )
    slices = [exception] + ["nanosleep 1 0 same"] * 8
    slices += [exception] + ["nanosleep 1 0 same"] * 4
    slices += [exception] + ["nanosleep 1 0 same"] * 2
    slices += [exception] + ["nanosleep 1 0 same"] * 1
    slices += [exception] + ["nanosleep 1 0 same"] * 1
    assert lines == [STARTED.format(8, 0), *slices, STOPPED]
    assert not gateway.status_path.exists()


def test_exception_in_a_single_cycle_ends_the_process_without_a_status(gateway, mirror):
    mirror.publish_looping("1001")
    process = gateway.run("--config", gateway.config_path, "--once")
    assert process.returncode == -signal.SIGABRT
    assert process.stdout == ""
    assert gateway.take_log() == []
    assert not gateway.status_path.exists()
    assert gateway.listing() == [
        "snapshots/",
        "snapshots/1001/",
        "snapshots/1001/aivsecon-v2.def",
        "snapshots/1001/antivir-v2.def -> antivir-v2.def",
        "snapshots/1001/antivir-v2.ini",
    ]

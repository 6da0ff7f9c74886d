"""The daemon as a daemon: its loop, its waits and its signals."""

import os
import signal

import pytest
from gateway import STARTED, STOPPED, wait_for
from outcomes import published, snapshot_listing


def active(gateway):
    link = gateway.root / "active"
    return os.readlink(link) if link.is_symlink() else None


def signalled(rule, *options):
    """What to put before a command that gets a signal at one of its system calls."""
    return ["strace", "-f", "-qq", "-o", "/dev/null", *options, "-e", f"inject={rule}:when=1"]


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT, signal.SIGUSR1])
def test_signal_during_the_wait_ends_the_daemon(gateway, mirror, number):
    """With status 0 when it is one of those that stop it. SIGHUP would be ignored below nohup."""
    mirror.publish("1001")
    gateway.settings.update(poll_interval_s=600, poll_jitter_s=0)
    daemon = gateway.start()
    wait_for(lambda: gateway.status_path.exists() and active(gateway), daemon)
    daemon.send_signal(number)
    stops = number != signal.SIGUSR1
    assert daemon.wait(timeout=30) == (0 if stops else -number)
    assert gateway.take_log() == [STARTED.format(600, 0), *published("1001"), *([STOPPED] if stops else [])]


@pytest.mark.parametrize("number", ["TERM", "INT"])
@pytest.mark.parametrize("words", [[], ["--once"]], ids=["loop", "once"])
def test_signal_during_a_cycle_lets_it_end(gateway, mirror, number, words):
    mirror.publish("1001")
    gateway.settings.update(poll_interval_s=600, poll_jitter_s=0)
    # It comes with the first flush, in the midst of the update.
    prefix = signalled(f"fsync:signal={number}")
    assert gateway.run("--config", gateway.config_path, *words, prefix=prefix).returncode == 0
    lines = published("1001")
    assert gateway.take_log() == (lines if words else [STARTED.format(600, 0), *lines, STOPPED])
    assert gateway.listing() == snapshot_listing("1001", "1001")


def test_signal_before_the_handlers_are_there_ends_it_at_once(gateway):
    # The first thing opened for reading after the libraries is the configuration.
    path = gateway.config_path
    prefix = signalled("openat:signal=TERM", "-P", path)
    process = gateway.run("--config", path, "--once", prefix=prefix)
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
    assert lines == [STARTED.format(1, 0), *published("1001"), *published("1002", "1001"), STOPPED]


def test_exception_in_the_loop_is_logged_and_the_waits_shrink(gateway, mirror):
    mirror.publish_looping("1001")
    gateway.settings.update(poll_interval_s=8, poll_jitter_s=0)
    process = gateway.run("--config", gateway.config_path, calls=True, ZQU_SLEEPS="16")
    assert process.returncode == 0
    exception = (
        "err run_once exception: filesystem error: status: Too many levels of symbolic links "
        f"[{gateway.root}/snapshots/1001/antivir-v2.def]"
    )
    waits = [line for count in (8, 4, 2, 1, 1) for line in (exception, *["nanosleep 1 0 same"] * count)]
    lines = [line for line in gateway.take_log() if line.startswith(("err", "info", "nanosleep"))]
    assert lines == [STARTED.format(8, 0), *waits, STOPPED]
    assert not gateway.status_path.exists()


def test_exception_in_a_single_cycle_ends_the_process(gateway, mirror):
    mirror.publish_looping("1001")
    process = gateway.run("--config", gateway.config_path, "--once")
    assert (process.returncode, process.stdout) == (-signal.SIGABRT, "")
    assert gateway.take_log() == []
    assert not gateway.status_path.exists()
    assert gateway.listing() == [
        "snapshots/",
        "snapshots/1001/",
        "snapshots/1001/aivsecon-v2.def",
        "snapshots/1001/antivir-v2.def -> antivir-v2.def",
        "snapshots/1001/antivir-v2.ini",
    ]

"""Answers without end: what bounds them is the time-out, and the limits that the surroundings set."""

import resource
import signal

import pytest
from machines import SANITIZED, published
from scripted_server import flood, head, reply
from trials import HIT, NEW, OLD, status_text

TIMED_OUT = "Timeout was reached"
# Address space that a check needs many times less of, and that a flood fills within a fraction of a second.
LIMIT = ["prlimit", f"--as={256 << 20}", "--core=0"]
unlimited_address_space = pytest.mark.skipif(SANITIZED, reason="a sanitizer needs terabytes of address space")


@pytest.mark.parametrize("request_kind", ["hit", "info"])
def test_endless_head_of_nothing_ends_at_the_limit_of_heads(trial, request_kind):
    trial.server.script[trial.name(request_kind)] = [b"HTTP/1.1 200 OK\r\nX: ", flood(b"y\r\nX: " * 1000)]
    trial.refuse(*trial.failure(request_kind, "Failure when receiving data from the peer"))
    trial.heal()


def test_endless_archive_ends_with_the_time_out_and_leaves_the_disk_clean(trial):
    """A trickle, for the sake of this machine's disk; a flood would fill the gateway's until then."""
    trial.gateway.settings["http_timeout_s"] = 1
    trial.server.script[trial.new.cab_name] = [head(), slow_flood(b"x" * 1000)]
    trial.refuse(*trial.failure("archive", TIMED_OUT))
    trial.heal()


def slow_flood(data):
    """Sends the data fifty times a second until the client hangs up."""
    from scripted_server import pause

    wait = pause(0.02)

    def step(connection):
        while True:
            connection.socket.sendall(data)
            wait(connection)

    return step


def test_endless_archive_is_bounded_by_a_limit_on_the_size_of_files(trial):
    """libcurl sees the failed write; SIGXFSZ is to be ignored, as service managers let one do."""
    trial.server.script[trial.new.cab_name] = [head(), flood(b"x" * 100_000)]
    signals = ["env", "--ignore-signal=XFSZ"]
    lines = trial.gateway.run_once(prefix=[*signals, "prlimit", f"--fsize={1 << 20}"])
    expected, error = trial.failure("archive", "Failed writing received data to disk/application")
    assert lines == expected
    trial.expect_nothing_changed(error)
    trial.heal()


def test_endless_archive_without_that_signal_ignored_ends_the_process(trial):
    trial.server.script[trial.new.cab_name] = [head(), flood(b"x" * 100_000)]
    command = ["--config", trial.gateway.config_path, "--once"]
    process = trial.gateway.run(*command, prefix=["prlimit", f"--fsize={1 << 20}", "--core=0"])
    assert process.returncode == -signal.SIGXFSZ
    part = f"machine/defs/snapshots/{NEW}/{trial.new.cab_name}.part"
    found = trial.tree()
    assert len(found.pop(part)) == 1 << 20
    assert found.pop(f"machine/defs/snapshots/{NEW}") is None
    assert found == trial.before
    trial.gateway.take_log()
    trial.heal()


@pytest.mark.parametrize("request_kind", ["hit", "info"])
def test_endless_ini_ends_with_the_time_out(trial, request_kind):
    """What has come until then is held in memory, and let go."""
    trial.gateway.settings["http_timeout_s"] = 1
    trial.server.script[trial.name(request_kind)] = [head(), slow_flood(b"defId=666\n")]
    trial.refuse(*trial.failure(request_kind, TIMED_OUT))
    trial.heal()


@unlimited_address_space
@pytest.mark.parametrize("request_kind", ["hit", "info"])
def test_endless_ini_under_a_limit_of_memory_ends_a_single_check(trial, request_kind):
    """The process is aborted, since nothing catches the failed allocation: no status, but nothing touched either."""
    trial.server.script[trial.name(request_kind)] = [head(), flood(b"x" * 100_000)]
    before = trial.gateway.status_path.read_bytes()
    process = trial.gateway.run("--config", trial.gateway.config_path, "--once", prefix=LIMIT)
    assert process.returncode == -signal.SIGABRT
    assert "std::bad_alloc" in process.stderr or "std::length_error" in process.stderr
    assert trial.gateway.take_log() == []
    assert trial.gateway.status_path.read_bytes() == before
    assert trial.tree() == trial.before
    trial.heal()


@unlimited_address_space
@pytest.mark.parametrize("request_kind", ["hit", "info"])
def test_endless_ini_under_a_limit_of_memory_leaves_the_loop_unable_to_transfer(trial, request_kind):
    """The loop goes on, but the exception went through libcurl, whose handle takes no transfer from then on."""
    trial.gateway.settings.update(poll_interval_s=1, poll_jitter_s=0)
    trial.server.script[trial.name(request_kind)] = [head(), flood(b"x" * 100_000)]
    process = trial.gateway.run("--config", trial.gateway.config_path, prefix=LIMIT, calls=True, ZQU_SLEEPS="3")
    assert process.returncode == 0
    lines = [line for line in trial.gateway.take_log() if line.startswith(("err ", "info "))]
    print(lines)
    assert trial.tree() == trial.before
    trial.heal()


def test_memory_of_a_check_does_not_grow_with_the_archive_or_with_former_inis(trial, tmp_path):
    """A megabyte of INI is gone when the next one comes."""
    big = b"x" * 1_000_000 + b"\n" + trial.content("hit")
    trial.check_all(trial.refused("info", [reply(b"", "404 x")], "HTTP response code said error") for _ in range(3))
    assert big and resource and HIT and OLD and published and status_text

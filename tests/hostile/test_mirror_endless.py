"""Answers without end: what bounds them is the time-out, and the limits that the surroundings set."""

import signal

import pytest
from gateway import SANITIZED
from scripted_server import flood, head, pause, reply
from trials import NEW

TIMED_OUT = "Timeout was reached"
# Address space that a check needs many times less of, and that a flood fills within a fraction of a second.
LIMIT = ["prlimit", f"--as={256 << 20}", "--core=0"]
unlimited_address_space = pytest.mark.skipif(SANITIZED, reason="a sanitizer needs terabytes of address space")


def trickle(data):
    """Sends the data fifty times a second until the client hangs up."""
    wait = pause(0.02)

    def step(connection):
        while True:
            connection.socket.sendall(data)
            wait(connection)

    return step


@pytest.mark.parametrize("request_kind", ["hit", "info"])
def test_endless_head_of_nothing_ends_at_the_limit_of_heads(trial, request_kind):
    trial.server.script[trial.name(request_kind)] = [b"HTTP/1.1 200 OK\r\nX: ", flood(b"y\r\nX: " * 1000)]
    trial.refuse(*trial.failure(request_kind, "Failure when receiving data from the peer"))
    trial.heal()


def test_endless_archive_ends_with_the_time_out_and_leaves_the_disk_clean(trial):
    """A trickle, for the sake of this machine's disk; a flood would fill the gateway's until then."""
    trial.gateway.settings["http_timeout_s"] = 1
    trial.server.script[trial.new.archive_name] = [head(), trickle(b"x" * 1000)]
    trial.refuse(*trial.failure("archive", TIMED_OUT))
    trial.heal()


def test_endless_archive_is_bounded_by_a_limit_on_the_size_of_files(trial):
    """Where SIGXFSZ is ignored, libcurl sees the failed write."""
    trial.server.script[trial.new.archive_name] = [head(), flood(b"x" * 100_000)]
    lines = trial.gateway.run_once(prefix=["env", "--ignore-signal=XFSZ", "prlimit", f"--fsize={1 << 20}"])
    case = trial.refused("archive", [], "Failed writing received data to disk/application")
    trial.compare(case, lines, trial.gateway.status_path.read_text(), trial.tree())
    trial.heal()


def test_endless_archive_without_that_signal_ignored_ends_the_process(trial):
    trial.server.script[trial.new.archive_name] = [head(), flood(b"x" * 100_000)]
    command = ["--config", trial.gateway.config_path, "--once"]
    process = trial.gateway.run(*command, prefix=["prlimit", f"--fsize={1 << 20}", "--core=0"])
    assert process.returncode == -signal.SIGXFSZ
    part = f"machine/defs/snapshots/{NEW}/{trial.new.archive_name}.part"
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
    trial.server.script[trial.name(request_kind)] = [head(), trickle(b"defId=666\n")]
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
    assert "std::bad_alloc" in process.stderr
    assert trial.gateway.take_log() == []
    assert trial.gateway.status_path.read_bytes() == before
    assert trial.tree() == trial.before
    trial.heal()


@unlimited_address_space
@pytest.mark.parametrize("request_kind", ["hit", "info"])
def test_endless_ini_under_a_limit_of_memory_leaves_the_loop_unable_to_transfer(trial, request_kind):
    """The loop goes on, but the exception went through libcurl, whose handle takes no transfer from then on."""
    trial.gateway.settings.update(poll_interval_s=1, poll_jitter_s=0)
    name = trial.name(request_kind)
    answers = iter([[head(), flood(b"x" * 100_000)]])
    trial.server.script[name] = lambda: next(answers, [reply(trial.content(request_kind))])  # good again at once
    process = trial.gateway.run("--config", trial.gateway.config_path, prefix=LIMIT, calls=True, ZQU_SLEEPS="3")
    assert process.returncode == 0
    lines = [line for line in trial.gateway.take_log() if line.startswith(("err ", "info "))]
    assert lines == [
        "info zel_quorin_updater loop started (interval=1s jitter=0s)",
        "err run_once exception: std::bad_alloc",
        *trial.failure("hit", "Failed initialization")[0] * 2,
        "info zel_quorin_updater loop stopped",
    ]
    assert trial.server.targets()[-1] == name
    assert trial.tree() == trial.before
    trial.heal()

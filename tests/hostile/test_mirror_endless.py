"""Answers without end: the time-out stops them, and so do limits from outside."""

import signal

import pytest
from gateway import SANITIZED, STARTED, STOPPED
from release import HIT
from scripted_server import flood, head
from trials import NEW, SNAPSHOTS, without

# Address space: many times what a check needs, and filled by a flood within a fraction of a second.
MEMORY = ["prlimit", f"--as={256 << 20}", "--core=0"]
FILE_SIZE = ["prlimit", f"--fsize={1 << 20}", "--core=0"]
unlimited_address_space = pytest.mark.skipif(SANITIZED, reason="a sanitizer needs terabytes of address space")


@pytest.fixture
def endless_ini(trial):
    trial.server.script[HIT] = [head(), flood(b"x" * 100_000)]


@pytest.fixture
def endless_archive(trial):
    trial.server.script[trial.new.archive_name] = [head(), flood(b"x" * 100_000)]


def test_endless_archive_is_bounded_by_a_limit_on_file_sizes(trial, endless_archive):
    """Where SIGXFSZ is ignored, libcurl sees the failed write."""
    lines = trial.gateway.run_once(prefix=["env", "--ignore-signal=XFSZ", *FILE_SIZE])
    trial.expect(trial.case("archive", [], "Failed writing received data to disk/application"), lines)
    trial.heal()


def test_limit_on_file_sizes_otherwise_ends_the_process(trial, endless_archive):
    process = trial.gateway.run("--config", trial.gateway.config_path, "--once", prefix=FILE_SIZE)
    assert process.returncode == -signal.SIGXFSZ
    stage = f"{SNAPSHOTS}/{NEW}"
    found = trial.tree()
    assert len(found[f"{stage}/{trial.new.archive_name}.part"][1]) == 1 << 20
    assert without(found, stage) == trial.before
    trial.gateway.take_log()
    trial.heal()


@unlimited_address_space
def test_endless_ini_under_a_limit_of_memory_ends_one_check(trial, endless_ini):
    """The process is aborted, since nothing catches the failed allocation: no status, and nothing changed."""
    before = trial.gateway.status_path.read_bytes()
    process = trial.gateway.run("--config", trial.gateway.config_path, "--once", prefix=MEMORY)
    assert process.returncode == -signal.SIGABRT
    assert "std::bad_alloc" in process.stderr
    assert trial.gateway.take_log() == []
    assert trial.gateway.status_path.read_bytes() == before
    assert trial.tree() == trial.before
    trial.heal()


@unlimited_address_space
def test_endless_ini_under_a_limit_of_memory_spoils_the_loop(trial, endless_ini):
    """The loop goes on, but the exception went through libcurl, whose handle takes no transfer from then on."""
    trial.gateway.settings.update(poll_interval_s=1, poll_jitter_s=0)
    answers = iter([trial.server.script[HIT]])
    trial.server.script[HIT] = lambda: next(answers, trial.new.script[HIT])  # good again at once
    process = trial.gateway.run("--config", trial.gateway.config_path, prefix=MEMORY, calls=True, ZQU_SLEEPS="3")
    assert process.returncode == 0
    lines = [line for line in trial.gateway.take_log() if line.startswith(("err ", "info "))]
    failed = trial.case("hit", [], "Failed initialization")
    assert lines == [STARTED.format(1, 0), "err run_once exception: std::bad_alloc", *failed.lines * 2, STOPPED]
    assert trial.server.targets() == [HIT]
    assert trial.tree() == trial.before
    trial.heal()

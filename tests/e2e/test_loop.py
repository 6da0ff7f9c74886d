"""An exception in a cycle, and what becomes of the daemon then."""

import signal
import zipfile

import archives
import pytest
from gateway import STARTED, STOPPED
from release import good_files


@pytest.fixture
def throwing(gateway, mirror):
    """A gateway whose mirror's first definition file is a link to itself, so that its status cannot be told."""
    link = zipfile.ZipInfo("antivir-v2.def")
    link.external_attr = 0o120777 << 16
    link.create_system = 3
    archives.write_zip(mirror.path("loop.zip"), [(link, b"antivir-v2.def"), *good_files("1001")[1:]])
    mirror.announce("1001", "loop.zip")
    return gateway


def test_exception_in_the_loop_is_logged_and_the_waits_shrink(throwing):
    throwing.settings.update(poll_interval_s=8, poll_jitter_s=0)
    process = throwing.run("--config", throwing.config_path, calls=True, ZQU_SLEEPS="16")
    assert process.returncode == 0
    exception = (
        "err run_once exception: filesystem error: status: Too many levels of symbolic links "
        f"[{throwing.root}/snapshots/1001/antivir-v2.def]"
    )
    waits = [line for count in (8, 4, 2, 1, 1) for line in (exception, *["nanosleep 1 0 same"] * count)]
    lines = [line for line in throwing.take_log() if line.startswith(("err", "info", "nanosleep"))]
    assert lines == [STARTED.format(8, 0), *waits, STOPPED]


def test_exception_in_a_single_cycle_ends_the_process(throwing):
    process = throwing.run("--config", throwing.config_path, "--once")
    assert (process.returncode, process.stdout, throwing.take_log()) == (-signal.SIGABRT, "", [])
    assert not throwing.status_path.exists()
    assert throwing.listing() == [
        "snapshots/",
        "snapshots/1001/",
        "snapshots/1001/aivsecon-v2.def",
        "snapshots/1001/antivir-v2.def -> antivir-v2.def",
        "snapshots/1001/antivir-v2.ini",
    ]

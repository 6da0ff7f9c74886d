"""The updater as it ships, in a booted system that all tests of a file share."""

import pytest
from booted import why_not_bootable
from confined import Confined, install
from gateway import SANITIZED


@pytest.fixture(scope="session")
def installation(tmp_path_factory):
    if why_not_bootable():
        pytest.skip(why_not_bootable())
    if SANITIZED:
        pytest.skip("a sanitizer does not fit the unit's limits")
    return install(tmp_path_factory.mktemp("installation"))


@pytest.fixture(scope="module")
def booted(installation):
    system = Confined(installation)
    yield system
    system.end()


@pytest.fixture
def system(booted):
    """The module's booted system, as it was after the installation."""
    booted.reset()
    yield booted
    booted.stop()
    for server in booted.servers:
        server.stop()
    booted.servers = []

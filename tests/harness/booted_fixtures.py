"""Booted gateways as fixtures: one that is installed by cmake, and one that sees the packages."""

import booted
import packages as harness
import pytest
from booted_gateway import BootedGateway, install
from gateway import SANITIZED, may_mount


@pytest.fixture(scope="session")
def installation(tmp_path_factory):
    """What `cmake --install` puts below a directory."""
    if booted.why_not_bootable():
        pytest.skip(booted.why_not_bootable())
    if SANITIZED:
        pytest.skip("a sanitizer does not fit the units' limits")
    directory = tmp_path_factory.mktemp("installation")
    directory.chmod(0o755)  # it is laid over the root of the system
    install(directory)
    return directory


@pytest.fixture(scope="module")
def module_gateway(installation):
    made = BootedGateway(installation)
    yield made
    made.end()


@pytest.fixture
def gateway(module_gateway):
    """The module's booted gateway, as it was after the installation."""
    module_gateway.reset()
    return module_gateway


@pytest.fixture(scope="session")
def packages(tmp_path_factory):
    if not may_mount():
        pytest.skip("making packages without changing the sources needs root")
    if SANITIZED:
        pytest.skip("packages hold no sanitizers")
    return harness.shared_packages(tmp_path_factory.getbasetemp())


@pytest.fixture(scope="module")
def bare_gateway(packages):
    """A booted system that sees the packages, none of which is installed."""
    if booted.why_not_bootable():
        pytest.skip(booted.why_not_bootable())
    made = BootedGateway(shared=[packages.directory])
    yield made
    made.end()

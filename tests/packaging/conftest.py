"""The packages, which are built once, and a booted system to install them in."""

import booted
import packages as harness
import pytest


@pytest.fixture(scope="session")
def packages(tmp_path_factory):
    return harness.shared_packages(tmp_path_factory.getbasetemp())


@pytest.fixture(scope="module")
def installation(packages, tmp_path_factory):
    """A booted system that sees the packages and has a mirror."""
    why_not = booted.why_not_bootable()
    if why_not:
        pytest.skip(why_not)
    made = harness.Site(tmp_path_factory.mktemp("installation"), packages.folder)
    yield made
    made.end()

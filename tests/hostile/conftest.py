"""A trial for each test, in memory: each file is flushed, which takes its time on a disk."""

import pathlib
import tempfile

import pytest
from trials import Trial


@pytest.fixture
def trial(authority, scripted_context, tmp_path, record_property, thorough):
    """A gateway with a release in service, and a mirror that does what the test says."""
    with tempfile.TemporaryDirectory(dir="/dev/shm", prefix="zqu-") as folder:
        trial = Trial(pathlib.Path(folder), tmp_path / "kept", scripted_context, authority, thorough)
        try:
            trial.begin()
            yield trial
            if trial.tried:
                record_property("answers_of_hostile_mirrors", trial.tried)
        finally:
            trial.end()

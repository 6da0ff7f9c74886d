"""What all tests share: a certificate authority and an nginx per session, and a gateway per test."""

import collections
import pathlib
import shutil
import socket
import tempfile

import pytest
import trustme
from gateway import Gateway
from mirrors import Mirror, Nginx
from trials import Trial, server_context

FAILED, FILES = pytest.StashKey(), pytest.StashKey()


def pytest_addoption(parser):
    parser.addoption("--all", action="store_true", help="also run the long tests, and the long form of the others")


def pytest_configure(config):
    config.addinivalue_line("markers", "long: takes minutes; runs with --all only")


def pytest_collection_modifyitems(config, items):
    if config.getoption("--all"):
        return
    long = [item for item in items if item.get_closest_marker("long")]
    config.hook.pytest_deselected(items=long)
    items[:] = [item for item in items if item not in long]


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item, call):
    """Adds to the report of a failed test where its files are, and removes the files of one that passed."""
    report = (yield).get_result()
    files = item.stash.get(FILES, None)
    if report.failed:
        item.stash[FAILED] = True
        report.sections.append(("files", str(files)))
    elif files and call.when == "teardown" and not item.stash.get(FAILED, False):
        shutil.rmtree(files, ignore_errors=True)
        files.mkdir(exist_ok=True)  # so that its name is not used again: a mirror has it too


@pytest.fixture(autouse=True)
def _files(request, tmp_path):
    request.node.stash[FILES] = tmp_path


def pytest_terminal_summary(terminalreporter):
    """Adds up what the tests count by record_property: calls failed, power cuts, cycles and so on."""
    totals = collections.Counter()
    ends = [report for report in terminalreporter.stats.get("", []) if report.when == "teardown"]
    for report in ends:
        for name, value in report.user_properties:
            totals[name] += value
    for name, total in sorted(totals.items()):
        terminalreporter.write_line(f"counted: {name.replace('_', ' ')}: {total}")


@pytest.fixture
def thorough(request):
    """Whether the long form of a test is to run."""
    return request.config.getoption("--all")


@pytest.fixture(scope="session")
def nginx(tmp_path_factory):
    server = Nginx(tmp_path_factory.mktemp("nginx"))
    yield server
    server.stop()


@pytest.fixture
def mirror(nginx, tmp_path):
    return Mirror(nginx.root, f"defs-{tmp_path.name}")


@pytest.fixture
def gateway(nginx, mirror, tmp_path):
    machine = Gateway(tmp_path, mirror_base_url=nginx.url(), mirror_subdir=mirror.subdir, ca_path=nginx.ca_path)
    yield machine
    machine.end_all()


@pytest.fixture
def gateway_in_memory(nginx, mirror):
    """Not on a disk, where each flush is slow."""
    with tempfile.TemporaryDirectory(dir="/dev/shm", prefix="zqu-") as directory:
        where = {"mirror_base_url": nginx.url(), "mirror_subdir": mirror.subdir}
        machine = Gateway(pathlib.Path(directory), ca_path=nginx.ca_path, **where)
        yield machine
        machine.end_all()


@pytest.fixture
def closed_port():
    """A loopback port on which nothing listens, now or later."""
    with socket.socket() as holder:
        holder.bind(("127.0.0.1", 0))
        yield holder.getsockname()[1]


@pytest.fixture(scope="session")
def authority():
    """The certificate authority of the scripted mirrors."""
    return trustme.CA()


@pytest.fixture(scope="session")
def scripted_context(authority):
    return server_context(authority.issue_cert("localhost", "127.0.0.1"))


@pytest.fixture
def trial(authority, scripted_context, tmp_path, record_property, thorough):
    """A gateway with a release in service, and a mirror that does what the test says, in memory, as above."""
    with tempfile.TemporaryDirectory(dir="/dev/shm", prefix="zqu-") as directory:
        trial = Trial(pathlib.Path(directory), tmp_path / "kept", scripted_context, authority, thorough)
        try:
            trial.begin()
            yield trial
            if trial.tried:
                record_property("answers_of_hostile_mirrors", trial.tried)
        finally:
            trial.end()

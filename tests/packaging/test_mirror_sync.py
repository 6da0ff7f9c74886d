"""The sample units that keep a mirror in step with an upstream one, in a booted system."""

import pytest
from booted_gateway import AUTHORITY, CONFIG
from builds import REPOSITORY
from gateway import BUILD
from mirror_tool import SUBDIR
from pages import scripts
from release import HIT
from scripted_server import SUBDIR as SCRIPTED
from scripted_server import finish, reply

SAMPLES = REPOSITORY / "packaging" / "mirror"
UNITS = "/etc/systemd/system"
SERVICE, TIMER = "zqu-mirror-sync.service", "zqu-mirror-sync.timer"
INSTALLED = "/usr/bin/zqu-mirror"  # by the package
DIRECTORY = f"/srv/mirror/{SUBDIR}"


@pytest.fixture
def mirror(gateway):
    """A booted mirror with the units, set as the sample says."""
    if not gateway.exists(INSTALLED):
        gateway.run("mv", "/usr/local/bin/zqu-mirror", INSTALLED)
        commands = scripts("mirrors.md", "Packages, user and directory")[0].splitlines()[2:]  # the packages are there
        gateway.run("sh", "-ec", "\n".join(commands))
    text, timer = ((SAMPLES / name).read_text() for name in (SERVICE, TIMER))
    gateway.put(f"{UNITS}/{SERVICE}", text)
    upstream = gateway.server.base("localhost").removesuffix(f"/{SCRIPTED}")
    gateway.drop_in(f"[Service]\nEnvironment=UPSTREAM={upstream} 'MIRROR_OPTIONS=--ca {AUTHORITY}'\n", SERVICE)
    at_once = timer.replace("OnBootSec=2min", "OnActiveSec=0").replace("RandomizedDelaySec=2min\n", "")
    gateway.put(f"{UNITS}/{TIMER}", at_once)
    gateway.run("systemctl", "daemon-reload")
    return gateway


def publish(mirror, version):
    """The upstream has a release, where the tool looks for it."""
    release = mirror.publish(version)
    mirror.server.script = {f"/{SUBDIR}/{name}": steps for name, steps in release.script.items()}
    return release


def sync(mirror, check=True):
    start = f"systemctl reset-failed {SERVICE}; systemctl start {SERVICE}"  # a sixth start in ten seconds is refused
    return mirror.run("sh", "-c", start, check=check).returncode


def expect_copy_of(mirror, release):
    assert mirror.path(f"{DIRECTORY}/{HIT}").read_text() == f"[Current]\ndefId = {release.version}\n"
    for name, content in release.files.values():
        copy = mirror.path(f"{DIRECTORY}/{name}")
        assert name == HIT or copy.read_bytes() == content
        assert copy.stat().st_mode & 0o777 == 0o644


def test_timer_starts_the_service_which_copies_each_release(mirror):
    """A run that fails changes nothing."""
    first = publish(mirror, "1001")
    mirror.run("systemctl", "start", TIMER)
    mirror.wait_for(lambda: mirror.show(SERVICE, "ExecMainExitTimestamp") and mirror.state(SERVICE) == "inactive")
    expect_copy_of(mirror, first)
    second = publish(mirror, "1002")
    sync(mirror)
    expect_copy_of(mirror, second)
    sync(mirror)
    said = ["nothing new: 1002 is current", "removed in all: releases 0, leftovers 0, bytes 0"]
    assert mirror.journal(SERVICE)[-2:] == said
    before = mirror.listing(DIRECTORY)
    mirror.server.script = {}
    assert sync(mirror, check=False) == 1
    assert mirror.show(SERVICE, "Result") == "exit-code"
    assert mirror.listing(DIRECTORY) == before


def test_advance_service_advances_with_the_same_confinement(mirror):
    service, script = "zqu-mirror-advance.service", "zqu-mirror-advance"
    text = (SAMPLES / service).read_text()
    guards = [(SAMPLES / name).read_text().partition("\nUser=")[2].splitlines() for name in (SERVICE, service)]
    needed = "ExecPaths=/usr/local/sbin/zqu-mirror-advance /usr/bin/dash /usr/bin/curl /usr/bin/jq"
    assert {*guards[0]} ^ {*guards[1]} == {needed, "TimeoutStartSec=30min", "TimeoutStartSec=5min"}
    publish(mirror, "1001")
    sync(mirror)
    publish(mirror, "1002")
    url = mirror.server.base("localhost").removesuffix(f"/{SCRIPTED}")
    mirror.run(INSTALLED, "mirror", "--percent", "1", "--ca", AUTHORITY, url, "/srv/mirror")
    mirror.put(f"{UNITS}/{service}", text.replace("http://localhost:9090", f"{url} CURL_CA_BUNDLE={AUTHORITY}"))
    mirror.put(f"/usr/local/sbin/{script}", (SAMPLES / script).read_text(), 0o755)
    mirror.run("systemctl", "daemon-reload")
    answer = '{"status":"success","data":{"resultType":"vector","result":[%s]}}'
    answers = [reply((answer % result).encode()) for result in ('{"metric":{},"value":[1,"3"]}', "")]
    mirror.server.script = {"/api/v1/query": lambda: [answers.pop(0), finish]}
    for line in ("1002 is the candidate for 10 per cent", "waiting: no answer from"):
        mirror.run("systemctl", "start", service)
        assert mirror.journal(service)[-1].startswith(line)
        mirror.server.script = {}


def test_service_writes_only_to_its_mirror_and_runs_nothing_else(mirror):
    """A probe replaces the program and tries it from inside; so this runs after the other tests."""
    places = "/etc /usr /usr/lib /usr/lib64 /var /opt /run /run/lock /dev/shm".split()
    for place in places:
        mirror.run("install", "-d", "-m", "777", f"{place}/zqu-open")
        mirror.put(f"{place}/zqu-open/file", "", 0o666)
    tries = {f"write {place}/zqu-open/file": "EROFS" for place in places[:-2]}
    tries |= {f"write {place}/zqu-open/file": "EACCES" for place in places[-2:]}
    mirror.put(CONFIG, "\n".join(tries))
    mirror.run("systemctl", "stop", TIMER, SERVICE)  # which would hold the program
    mirror.put(INSTALLED, (BUILD / "zqu_probe").read_bytes(), 0o755)
    sync(mirror)
    found = dict(line.split(": ", 1) for line in mirror.journal(SERVICE) if ": " in line)
    tries |= {"run /bin/true": "EACCES", "run /bin/true by the loader": "refused by the loader"}
    assert {name: found.get(name) for name in tries} == tries

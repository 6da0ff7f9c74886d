"""A hostile mirror against the unit: nothing outside the definitions root changes, other services go on, and the next
sound release goes into service without help. And the same attacks without the unit, for comparison.
"""

import posixpath

import pytest
from booted_gateway import CONFIG, DAEMON, HOME, ROOT, UNIT
from raw_archives import LINK, Entry, release as entries_of, zip_bytes
from release import HIT, Release, hit_ini, info_ini, info_name, sha256
from scripted_server import SUBDIR, flood, head, reply
from trials import NEW, OLD

UP = "../" * 12  # to the root of the file system, from any directory
# Directories, each with a file in it, that everybody can write: only the sandbox protects them.
PLACES = [f"{top}/zqu-open" for top in "etc usr usr/lib usr/lib64 var srv opt run mnt tmp".split()]
PLACES += [f"{top}/zqu-open" for top in ("var/tmp", "run/lock", "dev/shm", "home", "root", f"{HOME}/etc".lstrip("/"))]
GOOD = zip_bytes(entries_of("new"))
NOT_FOUND = reply(b"", "404 Not Found")


def asked_for(name):
    """The path that libcurl asks for: it removes dots first."""
    return posixpath.normpath(f"/{SUBDIR}/{name}").removeprefix(f"/{SUBDIR}/")


def script(version=NEW, name="x.zip", archive=GOOD, digest=None, answer=None):
    info = info_ini(version, name, digest or sha256(archive))
    return {
        HIT: [reply(hit_ini(version))],
        asked_for(info_name(version)): [reply(info)],
        asked_for(name): answer or [reply(archive)],
    }


# What the mirror does to a directory, and the error in the status under the unit.
ATTACKS = {
    "id_makes_a_directory": (lambda place: script(f"{UP}{place}/new"), "download CAB"),
    "id_removes_a_directory": (lambda place: script(f"{UP}{place}", answer=[NOT_FOUND]), "download CAB"),
    "archive_name_replaces_a_file": (lambda place: script(name=f"{UP}{place}/file", digest="0" * 64), "download CAB"),
    "archive_name_removes_a_file": (lambda place: script(name=f"{UP}{place}/file"), "download CAB"),
    "link_for_the_staging_directory": (
        lambda place: script(
            name="../x.zip", archive=zip_bytes([Entry("", f"/{place}".encode(), LINK), *entries_of("new")])
        ),
        "CAB extract",
    ),
}


def open_places(gateway):
    directories = [f"/{place}" for place in PLACES]
    files = [f"{directory}/file" for directory in directories]
    gateway.run("sh", "-ec", 'install -d -m 777 "$@"', "sh", *directories)
    gateway.run("sh", "-ec", 'printf "precious\\n" | tee "$@"; chmod 666 "$@"', "sh", *files)


def running(gateway):
    units = gateway.out("systemctl", "list-units", "--state=running,failed", "--plain", "--no-legend")
    return sorted(units.splitlines())


def changes(before, after):
    return {
        name: (before.get(name), after.get(name)) for name in {**before, **after} if before.get(name) != after.get(name)
    }


class Front:
    """The running unit with a release in service, its mirror, and all that must not change."""

    def __init__(self, gateway):
        self.gateway = gateway
        self.releases = {version: Release(version).script for version in (OLD, "1003")}
        gateway.configure(poll_interval_s=0)
        self.mirror = gateway.stepped()
        open_places(gateway)
        gateway.run("systemctl", "start", UNIT)
        self.mirror.await_check()
        self.mirror.check(self.releases[OLD])
        gateway.expect_status(OLD)
        self.before = gateway.outside()
        self.services = running(gateway)

    def restart(self, drop_in):
        """With a changed unit. A waiting check gets its answer first: otherwise the stop would wait for it."""
        self.gateway.drop_in(drop_in)
        self.gateway.run("systemctl", "restart", "--no-block", UNIT)
        self.mirror.answers.put(self.releases[OLD][HIT])
        self.mirror.await_check()

    def expect_untouched(self, restarts="0"):
        assert changes(self.before, self.gateway.outside()) == {}
        assert running(self.gateway) == self.services
        assert self.gateway.show(UNIT, "NRestarts") == restarts

    def expect_recovery(self):
        """The mirror is sound again; nobody touches the unit."""
        self.gateway.take_log()
        self.mirror.check(self.releases["1003"])
        assert self.gateway.take_log()[-1] == f"def snapshot updated: {OLD} -> 1003"
        self.gateway.expect_status("1003")


@pytest.fixture
def front(gateway):
    return Front(gateway)


def test_attack_reaches_nothing_outside_the_root(front, record_property):
    for script_for, error in ATTACKS.values():
        for place in PLACES:
            front.mirror.check(script_for(place))
            front.gateway.expect_status(OLD, error)
        front.expect_untouched()
    record_property("attacks_under_the_unit", len(ATTACKS) * len(PLACES))
    front.expect_recovery()
    front.expect_untouched()


@pytest.mark.long
@pytest.mark.parametrize("attack", ATTACKS)
def test_attack_without_the_unit_reaches_everything(gateway, attack):
    """By a daemon that runs as root. So the attacks are real, and the unit stops them."""
    gateway.configure()
    open_places(gateway)
    before = gateway.outside()
    for place in PLACES:
        gateway.server.script = ATTACKS[attack][0](place)
        gateway.run("rm", "-f", f"{ROOT}/active")
        gateway.run(DAEMON, "--config", CONFIG, "--once")
    reached = changes(before, gateway.outside())
    missed = {place for place in PLACES if not any(f"{name}/".startswith(f"{place}/") for name in reached)}
    assert missed == set()


FLOOD = [head(), flood(b"x" * 1_000_000)]


@pytest.mark.long
def test_endless_ini_goes_on_to_the_time_out_without_the_limit(front):
    front.gateway.configure(poll_interval_s=0, http_timeout_s=5)
    front.restart("[Service]\nMemoryMax=infinity\n")
    front.mirror.check({HIT: FLOOD})
    assert front.gateway.show(UNIT, "NRestarts") == "0"
    front.gateway.expect_status(OLD, "defId fetch failed")


def test_endless_ini_ends_at_the_limit_of_memory(front):
    """By the kernel; systemd does not know the cause with control groups of version 1."""
    front.gateway.drop_in("[Service]\nRestartSec=100ms\n")
    front.mirror.check({HIT: FLOOD})
    assert front.gateway.show(UNIT, "NRestarts") == "1"
    lines = front.gateway.out("journalctl", "--quiet", "--output", "cat", "--unit", UNIT).splitlines()
    assert any("status=9/KILL" in line for line in lines)
    front.gateway.expect_status(OLD)
    front.expect_recovery()

"""A hostile mirror against the unit: whatever it announces, nothing outside the definitions root changes, no other
service suffers, and the next sound release goes into service without help. The same without the unit, for the record.
"""

import posixpath

import pytest
from booted_gateway import CONFIG, DAEMON, HOME, ROOT, TIMER, UNIT, BootedGateway
from raw_archives import LINK, Entry, deflated, release as entries_of, zip_bytes
from release import HIT, Release, hit_ini, info_ini, info_name, sha256
from scripted_server import SUBDIR, flood, head, reply
from trials import NEW, OLD

UP = "../" * 12  # to the root of the file system, from wherever
# Directories, each with a file in it, that are open to everybody: nothing but the sandbox stands before them.
PLACES = [f"{top}/zqu-open" for top in "etc usr usr/lib usr/lib64 var srv opt run mnt tmp".split()]
PLACES += [f"{top}/zqu-open" for top in ("var/tmp", "run/lock", "dev/shm", "home", "root", f"{HOME}/etc".lstrip("/"))]
GOOD = zip_bytes(entries_of("new"))
NOT_FOUND = reply(b"", "404 Not Found")


def asked_for(name):
    """What libcurl makes of dots in a path before it asks for it."""
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
    folders = [f"/{place}" for place in PLACES]
    files = [f"{folder}/file" for folder in folders]
    gateway.run("sh", "-ec", 'install -d -m 777 "$@"', "sh", *folders)
    gateway.run("sh", "-ec", 'printf "precious\\n" | tee "$@"; chmod 666 "$@"', "sh", *files)


def running(gateway):
    units = gateway.out("systemctl", "list-units", "--state=running,failed", "--plain", "--no-legend")
    return sorted(units.splitlines())


def changes(before, after):
    return {
        name: (before.get(name), after.get(name)) for name in {**before, **after} if before.get(name) != after.get(name)
    }


class Front:
    """The unit at work with a release in service, its mirror, and all that has to stay as it is."""

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
        """With a changed unit; the check that waits is answered, or the stop would wait for it."""
        self.gateway.drop_in(drop_in)
        self.gateway.run("systemctl", "restart", "--no-block", UNIT)
        self.mirror.answers.put(self.releases[OLD][HIT])
        self.mirror.await_check()

    def expect_untouched(self, restarts="0"):
        assert changes(self.before, self.gateway.outside()) == {}
        assert running(self.gateway) == self.services
        assert self.gateway.show(UNIT, "NRestarts") == restarts

    def expect_recovery(self):
        """The mirror comes to reason; nobody touches the unit."""
        self.gateway.take_log()
        self.mirror.check(self.releases["1003"])
        assert self.gateway.take_log()[-1] == f"def snapshot updated: {OLD} -> 1003"
        self.gateway.expect_status("1003")


@pytest.fixture
def front(gateway):
    return Front(gateway)


@pytest.mark.parametrize("attack", ATTACKS)
def test_attack_reaches_nothing_outside_the_root(front, attack, record_property):
    script_for, error = ATTACKS[attack]
    for place in PLACES:
        front.mirror.check(script_for(place))
        front.gateway.expect_status(OLD, error)
        front.expect_untouched()
    record_property("attacks_under_the_unit", len(PLACES))
    front.expect_recovery()
    front.expect_untouched()


@pytest.fixture(scope="module")
def unconfined(installation):
    gateway = BootedGateway(installation)
    yield gateway
    gateway.end()


@pytest.mark.parametrize("attack", ATTACKS)
def test_attack_without_the_unit_reaches_everything(unconfined, attack):
    """By a daemon that runs as root. So the attacks are real, and it is the unit that holds them."""
    unconfined.reset()
    unconfined.configure()
    open_places(unconfined)
    before = unconfined.outside()
    for place in PLACES:
        unconfined.server.script = ATTACKS[attack][0](place)
        unconfined.run("rm", "-f", f"{ROOT}/active")
        unconfined.run(DAEMON, "--config", CONFIG, "--once")
    reached = changes(before, unconfined.outside())
    missed = {place for place in PLACES if not any(f"{name}/".startswith(f"{place}/") for name in reached)}
    assert missed == set()


def killed_by_the_kernel(gateway):
    """Whether the unit's last end was that; systemd does not know the cause with control groups of version 1."""
    lines = gateway.out("journalctl", "--quiet", "--output", "cat", "--unit", UNIT).splitlines()
    results = [line for line in lines if "Failed with result" in line]
    return results[-1].endswith(("'oom-kill'.", "'signal'.")) and any("status=9/KILL" in line for line in lines)


FLOOD = [head(), flood(b"x" * 1_000_000)]
SOON = "[Service]\nRestartSec=100ms\n"


@pytest.mark.long
def test_endless_ini_goes_on_to_the_time_out_without_the_limit(front):
    front.gateway.configure(poll_interval_s=0, http_timeout_s=5)
    front.restart("[Service]\nMemoryMax=infinity\n")
    front.mirror.check({HIT: FLOOD})
    assert front.gateway.show(UNIT, "NRestarts") == "0"
    front.gateway.expect_status(OLD, "defId fetch failed")


def test_endless_ini_ends_at_the_limit_of_memory(front):
    front.gateway.drop_in(SOON)
    front.mirror.check({HIT: FLOOD})
    assert front.gateway.show(UNIT, "NRestarts") == "1"
    assert killed_by_the_kernel(front.gateway)
    front.gateway.expect_status(OLD)
    front.expect_recovery()


def test_endless_archive_ends_at_the_limit_of_file_sizes(front):
    front.restart(SOON + "LimitFSIZE=4M\n")
    front.mirror.check(script(answer=FLOOD))
    assert front.gateway.show(UNIT, "NRestarts") == "1"
    front.expect_recovery()
    # Stays until that release comes, or pruning.
    assert front.gateway.listing().count(f"snapshots/{NEW}/x.zip.part") == 1


def bomb():
    definition = deflated("antivir-v2.def", b"bomb" * (8 << 20))
    index = Entry("antivir-v2.ini", f"antivir-v2.def.sha256={sha256(definition.content)}\n".encode())
    return zip_bytes([index, definition, entries_of("new")[2]])


# What the mirror sends, and the error in the status.
FILLING = {
    "endless": (lambda: script(answer=FLOOD), "download CAB"),
    "bomb": (lambda: script(archive=bomb()), "sha256 mismatch antivir-v2.def"),
}


@pytest.fixture
def small_disk(gateway):
    """The definitions root on a file system of its own."""
    gateway.run("mount", "-t", "tmpfs", "-o", "size=16m,nosuid,nodev,noexec", "tmpfs", ROOT)
    yield gateway
    gateway.stop()
    gateway.run("umount", ROOT)


@pytest.mark.parametrize("archive", FILLING)
def test_archive_fills_the_file_system_of_the_root_alone(small_disk, archive):
    make, error = FILLING[archive]
    front = Front(small_disk)
    front.mirror.check(make())
    front.gateway.expect_status(OLD, error)
    front.expect_untouched()
    front.expect_recovery()


def test_outage_beyond_the_start_limit_ends_without_help(front):
    """The unit fails for all to see; the retry timer starts it again, until the mirror has come to reason."""
    front.gateway.drop_in("[Timer]\nOnUnitInactiveSec=\nOnUnitInactiveSec=4s\nAccuracySec=1ms\n", unit=TIMER)
    limit = "[Unit]\nStartLimitIntervalSec=3s\nStartLimitBurst=2\n"
    front.restart(f"{limit}[Service]\nRestartSec=50ms\nMemoryMax=32M\n")
    front.mirror.use({HIT: FLOOD})
    for _ in range(100):
        front.mirror.answers.put(FLOOD)
    front.gateway.wait_for(lambda: front.gateway.state() == "failed")
    front.mirror.forget()
    front.mirror.await_check()  # the timer's doing
    front.expect_recovery()

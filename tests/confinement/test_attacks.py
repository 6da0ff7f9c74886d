"""A hostile mirror against the unit: whatever it announces, nothing outside the definitions root changes, no other
service suffers, and the next sound release goes into service without help. The same without the unit, for the record.
"""

import posixpath
import stat

import pytest
from confined import CONFIGURATION, DAEMON, ROOT, TIMER, UNIT, Confined
from raw_archives import LINK, Entry, deflated, release as entries_of, zip_bytes
from release import HIT, Release, hit_ini, info_ini, info_name, sha256
from scripted_server import SUBDIR, flood, head, reply
from trials import NEW, OLD

UP = "../" * 12  # to the root of the file system, from wherever
# Folders, each with a file in it, that are open to everybody: nothing but the sandbox stands before them.
PLACES = [f"{top}/zqu-open" for top in "etc usr usr/lib usr/lib64 var srv opt run mnt tmp".split()]
PLACES += [f"{top}/zqu-open" for top in "var/tmp run/lock dev/shm home root".split()]
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


# What the mirror does to a folder, and what the status then tells under the unit.
ATTACKS = {
    "id_makes_a_folder": (lambda place: script(f"{UP}{place}/new"), "download CAB"),
    "id_removes_a_folder": (lambda place: script(f"{UP}{place}", answer=[NOT_FOUND]), "download CAB"),
    "archive_name_replaces_a_file": (lambda place: script(name=f"{UP}{place}/file", digest="0" * 64), "download CAB"),
    "archive_name_removes_a_file": (lambda place: script(name=f"{UP}{place}/file"), "download CAB"),
    "archive_replaces_the_staging_directory_by_a_link": (
        lambda place: script(
            name="../x.zip", archive=zip_bytes([Entry("", f"/{place}".encode(), LINK), *entries_of("new")])
        ),
        "CAB extract",
    ),
}
# Archives that reach nothing outside in any case: their entries are written under the last component of their names.
HARMLESS = {
    "link": [Entry("antivir-v2.def", b"/etc/zqu-open/file", LINK), *entries_of("new")],
    "absolute_name": [Entry("/etc/zqu-open/file", b"x"), *entries_of("new")],
    "name_that_climbs": [Entry(f"{UP}etc/zqu-open/file", b"x"), *entries_of("new")],
    "link_as_a_folder": [Entry("sub", b"/etc/zqu-open", LINK), Entry("sub/file", b"x"), *entries_of("new")],
}


def open_places(system):
    folders = [f"/{place}" for place in PLACES]
    files = [f"{folder}/file" for folder in folders]
    system.run("sh", "-ec", 'install -d -m 777 "$@"', "sh", *folders)
    system.run("sh", "-ec", 'printf "precious\\n" | tee "$@"; chmod 666 "$@"', "sh", *files)
    system.path(CONFIGURATION).chmod(0o666)
    system.path(CONFIGURATION).parent.chmod(0o777)


def running(system):
    return sorted(
        system.out("systemctl", "list-units", "--state=running,failed", "--plain", "--no-legend").splitlines()
    )


class Front:
    """The unit at work with a release in service, its mirror, and all that has to stay as it is."""

    def __init__(self, system, tmp_path):
        self.system = system
        self.mirror = system.stepped()
        self.releases = {version: Release(version).script for version in (OLD, "1003")}
        system.configure(self.mirror.server, poll_interval_s=0)
        open_places(system)
        self.start()

    def start(self):
        self.system.run("systemctl", "start", UNIT)
        self.mirror.await_check()
        self.mirror.check(self.releases[OLD])
        self.system.expect_status(OLD)
        self.before = self.system.outside()
        self.services = running(self.system)

    def restart(self):
        """For a changed unit; the check that waits is answered, or the stop would wait for it."""
        self.system.run("systemctl", "restart", "--no-block", UNIT)
        self.mirror.answers.put(self.releases[OLD][HIT])
        self.mirror.await_check()

    def expect_untouched(self):
        after = self.system.outside()
        assert {
            name: (self.before.get(name), after.get(name))
            for name in {**self.before, **after}
            if self.before.get(name) != after.get(name)
        } == {}
        assert running(self.system) == self.services

    def expect_recovery(self, former=OLD):
        """The mirror comes to reason; nobody touches the unit."""
        self.system.take_log()
        self.mirror.check(self.releases["1003"])
        assert self.system.take_log()[-1] == f"def snapshot updated: {former} -> 1003"
        self.system.expect_status("1003")


@pytest.fixture
def front(system, tmp_path):
    return Front(system, tmp_path)


@pytest.mark.parametrize("attack", ATTACKS)
def test_attack_reaches_nothing_outside_the_definitions_root(front, attack, record_property):
    script_for, error = ATTACKS[attack]
    for place in PLACES:
        front.mirror.check(script_for(place))
        front.system.expect_status(OLD, error)
        front.expect_untouched()
    record_property("attacks_under_the_unit", len(PLACES))
    assert front.system.show(UNIT, "NRestarts") == "0"
    front.expect_recovery()
    front.expect_untouched()


def test_archive_name_does_not_reach_the_configuration(front):
    """Though it is open to everybody here, and so is its folder."""
    for digest in ("0" * 64, None):
        front.mirror.check(script(name=UP + CONFIGURATION.lstrip("/"), digest=digest))
        front.system.expect_status(OLD, "download CAB")
        front.expect_untouched()
    front.expect_recovery()


@pytest.mark.parametrize("archive", HARMLESS)
def test_entry_that_leads_outside_reaches_nothing(front, archive):
    front.mirror.check(script(archive=zip_bytes(HARMLESS[archive])))
    front.expect_untouched()
    assert front.system.show(UNIT, "NRestarts") == "0"
    front.expect_recovery(front.system.active())


def test_directory_entry_of_mode_0000_costs_no_more_than_its_id(front):
    """The staging directory stays, shut to the unit itself: that id is lost, the next one is not."""
    locked = zip_bytes([Entry(".", b"", stat.S_IFDIR), *entries_of("new")])
    front.mirror.check(script(archive=locked))
    exception = "run_once exception: filesystem error: status: Permission denied"
    log = front.system.take_log()
    assert log[-1] == f"{exception} [{ROOT}/snapshots/{NEW}/antivir-v2.def]"
    front.system.expect_status(OLD)
    for _ in range(2):
        front.mirror.check(script())
        front.system.expect_status(OLD, "download CAB")
    front.expect_untouched()
    assert front.system.show(UNIT, "NRestarts") == "0"
    front.expect_recovery()
    front.expect_untouched()


@pytest.fixture(scope="module")
def unconfined(installation):
    system = Confined(installation)
    yield system
    system.end()


@pytest.mark.parametrize("attack", ATTACKS)
def test_attack_on_a_daemon_that_runs_as_root_without_the_unit_reaches_everything(unconfined, attack):
    """So the attacks are real, and it is the unit that holds them."""
    unconfined.reset()
    server = unconfined.scripted()
    unconfined.configure(server)
    open_places(unconfined)
    for place in PLACES:
        server.script = ATTACKS[attack][0](place)
        unconfined.path(f"{ROOT}/active").unlink(missing_ok=True)
        before = unconfined.outside()
        unconfined.run(DAEMON, "--config", CONFIGURATION, "--once")
        after = unconfined.outside()
        reached = {name for name in {**before, **after} if before.get(name) != after.get(name)}
        assert any(name == place or name.startswith(f"{place}/") for name in reached), (place, reached)
    open_places(unconfined)


def killed_by_the_kernel(system):
    """Whether the unit's last end was that; systemd does not tell the cause with control groups of version 1."""
    lines = system.out("journalctl", "--quiet", "--output", "cat", "--unit", UNIT).splitlines()
    results = [line for line in lines if "Failed with result" in line]
    return results[-1].endswith(("'oom-kill'.", "'signal'.")) and any("status=9/KILL" in line for line in lines)


@pytest.mark.long
def test_endless_ini_goes_on_to_the_time_out_without_the_limit_of_memory(front):
    front.system.drop_in("[Service]\nMemoryMax=infinity\n")
    front.system.configure(front.mirror.server, poll_interval_s=0, http_timeout_s=5)
    front.restart()
    front.mirror.check({HIT: [head(), flood(b"x" * 1_000_000)]})
    assert front.system.show(UNIT, "NRestarts") == "0"
    front.system.expect_status(OLD, "defId fetch failed")


def test_endless_ini_ends_at_the_limit_of_memory_and_the_unit_recovers(front):
    front.system.drop_in("[Service]\nRestartSec=100ms\n")
    front.mirror.check({HIT: [head(), flood(b"x" * 1_000_000)]})
    assert front.system.show(UNIT, "NRestarts") == "1"
    assert killed_by_the_kernel(front.system)
    front.system.expect_status(OLD)
    front.expect_recovery()


@pytest.fixture
def small_disk(system):
    """The definitions root on a file system of its own."""
    system.run("mount", "-t", "tmpfs", "-o", "size=16m,nosuid,nodev,noexec", "tmpfs", ROOT)
    yield system
    system.stop()
    system.run("umount", ROOT)


def test_endless_archive_fills_the_file_system_of_the_definitions_alone(small_disk, tmp_path):
    front = Front(small_disk, tmp_path)
    front.mirror.check(script(answer=[head(), flood(b"x" * 1_000_000)]))
    front.system.expect_status(OLD, "download CAB")
    front.expect_untouched()
    front.expect_recovery()


def test_bomb_fills_the_file_system_of_the_definitions_alone(small_disk, tmp_path):
    front = Front(small_disk, tmp_path)
    bomb = deflated("antivir-v2.def", b"bomb" * (8 << 20))
    index = Entry("antivir-v2.ini", f"antivir-v2.def.sha256={sha256(bomb.content)}\n".encode())
    front.mirror.check(script(archive=zip_bytes([index, bomb, entries_of("new")[2]])))
    front.system.expect_status(OLD, "sha256 mismatch antivir-v2.def")
    front.expect_untouched()
    front.expect_recovery()


def test_endless_archive_ends_at_the_limit_of_file_sizes_and_the_unit_recovers(front):
    front.system.drop_in("[Service]\nRestartSec=100ms\nLimitFSIZE=4M\n")
    front.restart()
    front.mirror.check(script(answer=[head(), flood(b"x" * 1_000_000)]))
    assert front.system.show(UNIT, "NRestarts") == "1"
    front.expect_recovery()
    assert (
        front.system.listing().count(f"snapshots/{NEW}/x.zip.part") == 1
    )  # stays until that release comes, or pruning


def test_outage_beyond_the_start_limit_ends_without_help(front):
    """The unit fails for all to see; the retry timer starts it again, until the mirror has come to reason."""
    front.system.drop_in(
        "[Unit]\nStartLimitIntervalSec=3s\nStartLimitBurst=2\n[Service]\nRestartSec=50ms\nMemoryMax=32M\n"
    )
    front.system.drop_in("[Timer]\nOnUnitInactiveSec=\nOnUnitInactiveSec=4s\nAccuracySec=1ms\n", unit=TIMER)
    front.restart()
    endless = {HIT: [head(), flood(b"x" * 1_000_000)]}
    front.mirror.use(endless)
    for _ in range(100):
        front.mirror.answers.put(endless[HIT])
    front.system.wait_for(lambda: front.system.state()[0] == "failed")
    front.mirror.forget()
    front.mirror.await_check()  # the timer's doing
    front.expect_recovery()

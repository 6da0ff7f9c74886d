"""Who may do what with the definitions, whatever modes an archive gives: readers may read, strangers nothing."""

import stat

import pytest
from confined import CONFIGURATION, READER, ROOT, SERVICE, STATUS, STRANGER, UNIT
from pages import blocks
from raw_archives import Entry, cab_bytes, release as entries_of, zip_bytes
from release import HIT, hit_ini, info_ini, info_name, sha256
from scripted_server import reply
from trials import NEW

FILE = f"{ROOT}/active/antivir-v2.def"
CONTENT = entries_of("new")[1].content.decode().rstrip("\n")

UNPREPARED = "[Service]\nExecStartPre=\n"  # a start that heals nothing

# Each tries something without a sound; its exit status tells what came of it.
TRIES = {
    "list": f"ls {ROOT}/snapshots",
    "read": f"cat {FILE}",
    "read the status": f"cat {STATUS}",
    "write": f"echo x >>{FILE}",
    "write the status": f"echo x >>{STATUS}",
    "remove": f"rm -f {FILE}",
    "create in the root": f"touch {ROOT}/new",
    "create in a snapshot": f"touch {ROOT}/active/new",
    "create beside the snapshots": f"touch {ROOT}/snapshots/new",
    "create beside the status": f"touch {ROOT}/manifest/new",
    "replace the link": f"ln -sfn /tmp {ROOT}/active",
    "change the mode": f"chmod 777 {FILE}",
    "write the configuration": f"echo x >>{CONFIGURATION}",
}
READING = ["list", "read", "read the status"]


def may(system, user, tries=TRIES):
    """What of all that the user can do."""
    script = "".join(f"({command}) >/dev/null 2>&1 && echo '{name}'\n" for name, command in tries.items())
    return system.run("sh", "-c", script, user=user, check=False).stdout.splitlines()


def serve(system, archive, version=NEW, **settings):
    """A mirror whose release is of that archive, named in the configuration."""
    server = system.scripted()
    server.script = {
        HIT: [reply(hit_ini(version))],
        info_name(version): [reply(info_ini(version, "x.archive", sha256(archive)))],
        "x.archive": [reply(archive)],
    }
    system.configure(server, **settings)


def update(system, archive):
    """An update under the unit to a release of that archive."""
    serve(system, archive)
    system.restart()


def zip_with_mode(mode):
    entries = entries_of("new")
    for entry in entries:
        entry.mode = 0o100000 | mode
    return zip_bytes(entries)


ARCHIVES = {
    "cab": (cab_bytes(entries_of("new")), "666"),
    **{f"zip_{mode:04o}": (zip_with_mode(mode), f"{mode:o}") for mode in (0o666, 0o777, 0o644, 0o444)},
}


@pytest.mark.parametrize("archive, mode", ARCHIVES.values(), ids=ARCHIVES)
def test_readers_read_and_strangers_do_nothing(system, archive, mode):
    update(system, archive)
    system.expect_status(NEW)
    assert system.out("stat", "--format=%a %U", FILE) == f"{mode} {SERVICE}"
    assert may(system, STRANGER) == []
    assert may(system, READER) == READING
    assert system.out("cat", FILE, user=READER) == CONTENT


def test_file_of_mode_0600_is_for_the_service_alone(system):
    update(system, zip_with_mode(0o600))
    system.expect_status(NEW)
    assert may(system, STRANGER) == []
    assert may(system, READER) == ["list", "read the status"]


def test_set_user_id_bit_is_not_set(system):
    update(system, zip_with_mode(0o4755))
    system.expect_status(NEW)
    assert system.out("stat", "--format=%a %U", FILE) == f"755 {SERVICE}"
    assert may(system, STRANGER) == []
    assert may(system, READER) == READING


def test_index_of_mode_0000_checks_nothing(system):
    """The service's user cannot read it."""
    index, wrong, other = entries_of("new")
    index.mode, wrong.content = stat.S_IFREG, b"wrong\n"
    update(system, zip_bytes([index, wrong, other]))
    system.expect_status(NEW)
    assert system.out("cat", FILE) == "wrong"
    stage = f"{ROOT}/snapshots/{NEW}"
    assert f"fsync: open {stage}/antivir-v2.ini failed" in system.take_log()
    assert system.out("ls", stage).split() == ["aivsecon-v2.def", "antivir-v2.def"]


def test_definition_of_mode_0000_is_refused_by_its_digest(system):
    """Right as it is; for it cannot be read."""
    entries = entries_of("new")
    entries[1].mode = stat.S_IFREG
    update(system, zip_bytes(entries))
    system.expect_status("", "sha256 mismatch antivir-v2.def")
    assert system.listing() == ["manifest/", "manifest/status.json", "snapshots/"]


def zip_with_directory(mode):
    """A directory entry by the staging directory's own name hands that its mode."""
    return zip_bytes([Entry(".", b"", stat.S_IFDIR | mode), *entries_of("new")])


(RECIPE,) = blocks("operations.md", "The root is out of order")
DIRECTORIES = {0o777: READING, 0o755: READING, 0o700: ["list", "read the status"]}


@pytest.mark.parametrize("mode, readable", DIRECTORIES.items(), ids=map("{:04o}".format, DIRECTORIES))
def test_directory_entry_without_rights_for_the_group_hides_the_release_from_readers(system, mode, readable):
    """And gives nobody more; a restart shows it to them."""
    update(system, zip_with_directory(mode))
    system.expect_status(NEW)
    assert system.out("stat", "--format=%a %U", f"{ROOT}/snapshots/{NEW}") == f"{mode:o} {SERVICE}"
    assert may(system, STRANGER) == []
    assert may(system, READER) == readable
    system.run("sh", "-ec", RECIPE)
    assert may(system, STRANGER) == []
    assert may(system, READER) == READING


def test_directory_of_mode_0000_blocks_its_id_until_a_restart(system):
    system.drop_in(UNPREPARED)
    serve(system, zip_with_directory(0))
    system.run("systemctl", "restart", UNIT)
    log = []
    system.wait_for(lambda: log.extend(system.take_log()) or log[-1:] and "exception" in log[-1])
    stage = f"{ROOT}/snapshots/{NEW}"
    exception = "run_once exception: filesystem error: status: Permission denied"
    assert log[-1] == f"{exception} [{stage}/antivir-v2.def]"
    assert system.out("stat", "--format=%a", stage) == "0"
    serve(system, ARCHIVES["cab"][0])
    system.restart()
    system.expect_status("", "download CAB")
    assert f"download_cab: cannot create {stage}/x.archive.part" in system.take_log()
    system.path(STATUS).unlink()
    system.drop_in("")
    system.run("sh", "-ec", RECIPE)
    system.wait_for_status(NEW)
    system.expect_status(NEW)
    assert may(system, STRANGER) == []
    assert may(system, READER) == READING


@pytest.mark.parametrize("mode", [0o500, 0o555], ids=oct)
def test_unwritable_snapshot_stays_until_a_restart(system, mode):
    """What else the archive held stays in it."""
    system.drop_in(UNPREPARED)
    update(system, zip_with_directory(mode))
    system.expect_status(NEW)
    names = ("", "aivsecon-v2.def", "antivir-v2.def", "antivir-v2.ini", "x.archive")
    stuck = [f"snapshots/{NEW}/{name}" for name in names]
    serve(system, ARCHIVES["cab"][0], "1003", retained_snapshots=1)
    system.restart()
    system.expect_status("1003")
    assert [name for name in system.listing() if name.startswith(stuck[0])] == stuck
    serve(system, ARCHIVES["cab"][0], "1004", retained_snapshots=1)
    system.path(STATUS).unlink()
    system.drop_in("")
    system.run("sh", "-ec", RECIPE)
    system.wait_for_status("1004")
    assert [name for name in system.listing() if name.startswith(stuck[0])] == []


def test_service_user_cannot_write_the_configuration(system):
    """Nor, outside the unit, anything else but the definitions."""
    update(system, ARCHIVES["cab"][0])
    assert system.out("stat", "--format=%a %U %G", CONFIGURATION) == "644 root root"
    system.stop()
    assert "write the configuration" not in may(system, SERVICE)


def test_reader_could_write_without_the_default_acl(system):
    """What the lines in tmpfiles.d are for."""
    system.drop_in(UNPREPARED)
    system.run("setfacl", "--remove-default", f"{ROOT}/snapshots")
    update(system, ARCHIVES["cab"][0])
    assert "write" in may(system, READER)


def test_stranger_could_write_without_the_modes_of_directories(system):
    system.drop_in(UNPREPARED)
    system.run("chmod", "o+rx", ROOT, f"{ROOT}/snapshots")
    update(system, ARCHIVES["cab"][0])
    assert "write" in may(system, STRANGER)


@pytest.fixture
def without_acls(system):
    """The definitions root on a file system that knows no ACLs."""
    system.run("mount", "-t", "ramfs", "ramfs", ROOT)
    yield system
    system.stop()
    system.run("umount", ROOT)


def test_without_acls_nobody_but_the_service_gets_in(without_acls):
    update(without_acls, ARCHIVES["cab"][0])
    without_acls.expect_status(NEW)
    assert may(without_acls, STRANGER) == []
    assert may(without_acls, READER) == []

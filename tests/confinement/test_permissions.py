"""Who may do what with the definitions, whatever modes an archive gives: readers may read, strangers nothing."""

import pytest
from confined import CONFIGURATION, READER, ROOT, SERVICE, STATUS, STRANGER
from mirrors import sha256
from raw_archives import cab_bytes, release as entries_of, zip_bytes
from scripted_server import reply
from trials import HIT, NEW, hit_ini, info_ini, info_name

FILE = f"{ROOT}/active/antivir-v2.def"
CONTENT = entries_of("new")[1].content.decode().rstrip("\n")

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


def may(system, user):
    """What of all that the user can do."""
    script = "".join(f"({command}) >/dev/null 2>&1 && echo '{name}'\n" for name, command in TRIES.items())
    return system.run("sh", "-c", script, user=user, check=False).stdout.splitlines()


def update(system, archive):
    """An update under the unit to a release of that archive."""
    server = system.scripted()
    server.script = {
        HIT: [reply(hit_ini(NEW))],
        info_name(NEW): [reply(info_ini(NEW, "x.archive", sha256(archive)))],
        "x.archive": [reply(archive)],
    }
    system.configure(server)
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


def test_service_user_cannot_write_the_configuration(system):
    """Nor, outside the unit, anything else but the definitions."""
    update(system, ARCHIVES["cab"][0])
    assert system.out("stat", "--format=%a %U %G", CONFIGURATION) == "644 root root"
    system.stop()
    assert "write the configuration" not in may(system, SERVICE)


def test_reader_could_write_without_the_default_acl(system):
    """What the line in tmpfiles.d is for."""
    system.run("sh", "-c", f"rm -rf {ROOT}; install -d -m 750 -o {SERVICE} -g zel-quorin-readers {ROOT}")
    update(system, ARCHIVES["cab"][0])
    assert "write" in may(system, READER)


def test_stranger_could_write_without_the_roots_mode(system):
    system.path(ROOT).chmod(0o755)
    update(system, ARCHIVES["cab"][0])
    assert "write" in may(system, STRANGER)


@pytest.fixture
def without_acls(system):
    """The definitions root on a file system that knows no ACLs."""
    system.run("mount", "-t", "ramfs", "ramfs", ROOT)
    system.run("systemd-tmpfiles", "--create", "zel_quorin_updater.conf", check=False)
    yield system
    system.stop()
    system.run("umount", ROOT)


def test_without_acls_strangers_are_kept_out_all_the_same(without_acls):
    """But what an archive lets everybody write, a reader can."""
    update(without_acls, ARCHIVES["cab"][0])
    without_acls.expect_status(NEW)
    assert may(without_acls, STRANGER) == []
    assert may(without_acls, READER) == [*READING, "write"]

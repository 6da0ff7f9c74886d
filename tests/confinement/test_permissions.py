"""Who may do what with the definitions, with any modes in an archive: readers may read, strangers nothing."""

import stat

import pytest
from booted_gateway import CONFIG, READER, RESTART, ROOT, STATUS, STRANGER, USER
from pages import blocks
from raw_archives import Entry, cab_bytes, release as entries_of, zip_bytes
from trials import NEW

STAGE = f"{ROOT}/snapshots/{NEW}"
FILE = f"{ROOT}/active/antivir-v2.def"
CONTENT = entries_of("new")[1].content.decode().rstrip("\n")
(RECIPE,) = blocks("operations.md", "The root is out of order")
UNPREPARED = "[Service]\nExecStartPre=\n"  # a start that repairs nothing
# Each tries something silently; its exit status is the result.
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
    "write the configuration": f"echo x >>{CONFIG}",
}
READING = ["list", "read", "read the status"]
NOT_THE_FILES = ["list", "read the status"]


def may(gateway, user, tries=TRIES):
    """Which of all these the user can do."""
    script = "".join(f"({command}) >/dev/null 2>&1 && echo '{name}'\n" for name, command in tries.items())
    return gateway.run("sh", "-c", script, user=user, check=False).stdout.splitlines()


def expect_rights(gateway, readers):
    """A reader can do exactly this, and a stranger nothing."""
    assert {user: may(gateway, user) for user in (READER, STRANGER)} == {READER: readers, STRANGER: []}


def serve(gateway, archive, version=NEW, **settings):
    """The mirror has a release of that archive."""
    gateway.publish(version, archive=archive, archive_name="x.archive")
    gateway.configure(**settings)


def update(gateway, archive):
    """An update under the unit to a release of that archive."""
    serve(gateway, archive)
    gateway.expect_check(NEW)


def zip_with_mode(mode):
    entries = entries_of("new")
    for entry in entries:
        entry.mode = stat.S_IFREG | mode
    return zip_bytes(entries)


def zip_with_directory(mode):
    """A directory entry with the staging directory's name gives it its mode."""
    return zip_bytes([Entry(".", b"", stat.S_IFDIR | mode), *entries_of("new")])


CAB = cab_bytes(entries_of("new"))
# Archives, what has a mode from them, that mode, and what readers may do; a start of the service gives them the rest.
ARCHIVES = {
    "cab": (CAB, FILE, "666", READING),
    "zip_4755": (zip_with_mode(0o4755), FILE, "755", READING),  # the bit is not set
    "zip_0600": (zip_with_mode(0o600), FILE, "600", NOT_THE_FILES),
    "directory_0777": (zip_with_directory(0o777), STAGE, "777", READING),
    "directory_0700": (zip_with_directory(0o700), STAGE, "700", NOT_THE_FILES),
}


@pytest.mark.parametrize("archive, place, mode, readable", ARCHIVES.values(), ids=ARCHIVES)
def test_readers_at_most_read_and_strangers_do_nothing(gateway, archive, place, mode, readable):
    update(gateway, archive)
    assert gateway.out("stat", "--format=%a %U", place) == f"{mode} {USER}"
    expect_rights(gateway, readable)
    if readable != READING:
        gateway.check(RECIPE)
        expect_rights(gateway, READING)
    assert gateway.out("cat", FILE, user=READER) == CONTENT


def test_definition_of_mode_0000_is_refused_by_its_digest(gateway):
    """The digest is right, but the file cannot be read. Nor can an index of that mode, which then checks nothing."""
    index, definition, other = entries_of("new")
    definition.mode = stat.S_IFREG
    serve(gateway, zip_bytes([index, definition, other]))
    gateway.expect_check("", "sha256 mismatch antivir-v2.def")
    assert gateway.listing() == ["manifest/", "manifest/status.json", "snapshots/"]
    index.mode, definition.mode, definition.content = stat.S_IFREG, stat.S_IFREG | 0o644, b"wrong\n"
    update(gateway, zip_bytes([index, definition, other]))
    assert gateway.out("cat", FILE) == "wrong"
    assert f"fsync: open {STAGE}/antivir-v2.ini failed" in gateway.take_log()
    assert gateway.out("ls", STAGE).split() == ["aivsecon-v2.def", "antivir-v2.def"]


@pytest.mark.long
def test_directory_of_mode_0000_costs_its_id_until_a_restart(gateway):
    """The staging directory stays, closed to the unit itself: that id fails, the next one does not."""
    gateway.drop_in(UNPREPARED)
    serve(gateway, zip_with_directory(0))
    gateway.run("sh", "-c", RESTART)
    log = []
    gateway.wait_for(lambda: log.extend(gateway.take_log()) or "exception" in "".join(log[-1:]))
    exception = "run_once exception: filesystem error: status: Permission denied"
    assert log[-1] == f"{exception} [{STAGE}/antivir-v2.def]"
    assert gateway.out("stat", "--format=%a", STAGE) == "0"
    serve(gateway, CAB)
    gateway.expect_check("", "download CAB")
    assert f"download_cab: cannot create {STAGE}/x.archive.part" in gateway.take_log()
    serve(gateway, CAB, "1003")
    gateway.expect_check("1003")
    serve(gateway, CAB)
    gateway.drop_in("")
    gateway.expect_check(NEW, command=RECIPE)
    expect_rights(gateway, READING)


@pytest.mark.long
def test_unwritable_snapshot_stays_until_a_restart(gateway):
    """The other files of the archive stay in it."""
    gateway.drop_in(UNPREPARED)
    update(gateway, zip_with_directory(0o555))

    def of_the_first():
        return [name for name in gateway.listing() if name.startswith(f"snapshots/{NEW}/")]

    names = ("", "aivsecon-v2.def", "antivir-v2.def", "antivir-v2.ini", "x.archive")
    for version, kept in (("1003", [f"snapshots/{NEW}/{name}" for name in names]), ("1004", [])):
        serve(gateway, CAB, version, retained_snapshots=1)
        gateway.expect_check(version, command=RECIPE)
        assert of_the_first() == kept
        gateway.drop_in("")


@pytest.fixture
def without_acls(gateway):
    """The definitions root on a file system without ACLs."""
    gateway.run("mount", "-t", "ramfs", "ramfs", ROOT)
    yield gateway
    gateway.stop()
    gateway.run("umount", ROOT)


def test_without_acls_nobody_but_the_service_gets_in(without_acls):
    update(without_acls, CAB)
    expect_rights(without_acls, [])

"""What an archive may hold besides two definition files and their index, while its digest is announced as it is.

Each case says what libarchive makes of such an archive, by what the daemon then logs, tells and leaves behind. Beside
the definitions root lies a folder that no archive may touch, and after each case a good release goes into service."""

import base64
import bz2
import gzip
import lzma
import os
import stat
import struct
import subprocess

import pytest
import raw_archives
from gateway import may_mount
from lockstep import LockstepMirror
from outcomes import published, snapshot_listing, tree
from raw_archives import LINK, REGULAR, Entry, cab_bytes, cab_data, cab_file, deflated, release, zip_bytes
from release import definition_names, good_files

FIRST, SECOND = definition_names()
INDEX = "antivir-v2.ini"
DIRECTORY = stat.S_IFDIR | 0o755
NEW = {entry.name.decode(): entry.content for entry in release("new")}


def new(*more, first=()):
    """The new release's entries, behind and before others."""
    return [*first, *release("new"), *more]


def without_index(*more):
    return [*release("new")[1:], *more]


def link(name, target):
    return Entry(name, target if isinstance(target, bytes) else str(target).encode(), LINK)


def files(mode=0o644, **changed):
    """What a snapshot of the new release holds, as tree() tells it."""
    return {name: (f"10{mode:04o}", NEW[name]) for name in (FIRST, SECOND)} | changed


class Site:
    """A gateway with release 1001 in service, and an untouchable folder beside its definitions root."""

    def __init__(self, gateway, mirror):
        self.gateway = gateway
        self.mirror = mirror
        self.beside = gateway.folder / "beside"
        self.beside.mkdir()
        (self.beside / "kept").write_text("kept\n")
        gateway.settings["retained_snapshots"] = 1
        mirror.publish("1001")
        assert gateway.run_once() == published("1001")
        self.version = "1001"
        self.before = self.tree()

    def tree(self):
        """All there is, less what every check writes anew."""
        return {
            name: what
            for name, what in tree(self.gateway.folder, modes=True).items()
            if name not in ("log", "updater.conf", "status/status.json")
        }

    def put(self, archive, name="release.archive"):
        self.mirror.write(name, archive)
        self.mirror.announce("1002", name)

    def run(self):
        return self.gateway.run_once()

    def tree_with(self, version, contents, mode=None):
        """The tree once a snapshot with these contents is in service, and all others are pruned."""
        kept = {name: what for name, what in self.before.items() if not name.startswith("defs/snapshots/")}
        folder = f"defs/snapshots/{version}"
        return {
            **kept,
            "defs/active": f"-> snapshots/{version}",
            folder: self.before["defs/snapshots"] if mode is None else (f"4{mode:04o}", None),
            **{f"{folder}/{name}": what for name, what in contents.items()},
        }

    def expect_refused(self, archive, reason, *lines):
        self.put(archive)
        self.before = self.tree()
        assert self.run() == [*lines, f"err run_once: staging failed: {reason}"]
        assert self.tree() == self.before
        self.gateway.expect_status("1001", reason)
        self.expect_good_release()

    def expect_published(self, archive, contents, mode=None, lines=()):
        self.put(archive)
        self.before = self.tree()
        assert self.run() == [*lines, *published("1002", "1001")]
        assert self.tree() == self.tree_with("1002", contents, mode)
        self.gateway.expect_status("1002")
        self.version = "1002"
        self.expect_good_release()

    def expect_good_release(self):
        self.mirror.publish("1003")
        self.before = self.tree()
        assert self.run() == published("1003", self.version)
        good = {name: ("100666", content) for name, content in good_files("1003")[:2]}
        assert self.tree() == self.tree_with("1003", good)
        self.gateway.expect_status("1003")


@pytest.fixture
def site(gateway_in_memory, mirror):
    return Site(gateway_in_memory, mirror)


def can_make_devices(folder):
    try:
        os.mknod(folder / "device", stat.S_IFCHR | 0o600, os.makedev(0, 0))
    except PermissionError:
        return False
    (folder / "device").unlink()
    return True


# Types and modes of a ZIP's entries. A mode is applied as it is, whatever the daemon's umask.

TYPES = {
    "pipe": (stat.S_IFIFO | 0o644, ("100644", NEW[FIRST])),  # libarchive takes it for what was piped into zip(1)
    "set_user_id": (stat.S_IFREG | 0o7755, ("107755", NEW[FIRST])),
    "no_permissions": (stat.S_IFREG, ("100000", NEW[FIRST])),
    "no_type": (0, ("100664", NEW[FIRST])),
}


@pytest.mark.parametrize("mode, what", TYPES.values(), ids=TYPES)
def test_mode_that_libarchive_takes_for_a_files_is_applied_to_the_definition(site, mode, what):
    if os.geteuid() != 0 and mode == stat.S_IFREG:
        pytest.skip("without the superuser's rights such a file cannot be read")
    entries = release("new")
    entries[1].mode = mode
    site.expect_published(zip_bytes(entries), files(**{FIRST: what}))


SPECIAL = {
    "socket": stat.S_IFSOCK | 0o644,
    "character_device": stat.S_IFCHR | 0o644,
    "block_device": stat.S_IFBLK | 0o644,
    "unknown_type_7": 0o070644,
    "unknown_type_15": 0o170644,
}


@pytest.mark.parametrize("mode", SPECIAL.values(), ids=SPECIAL)
def test_definition_of_a_special_type_is_refused_by_its_digest(site, mode, tmp_path):
    entries = release("new")
    entries[1].mode = mode
    device = stat.S_ISCHR(mode) or stat.S_ISBLK(mode)
    unmade = device and not can_make_devices(tmp_path)
    site.expect_refused(zip_bytes(entries), "CAB extract" if unmade else f"sha256 mismatch {FIRST}")


@pytest.mark.parametrize("mode", SPECIAL.values(), ids=SPECIAL)
def test_definition_of_a_special_type_goes_into_service_when_no_index_names_it(site, mode, tmp_path):
    if (stat.S_ISCHR(mode) or stat.S_ISBLK(mode)) and not can_make_devices(tmp_path):
        pytest.skip("devices cannot be made here")
    entries = without_index()
    entries[0].mode = mode
    zeros = bytes(len(NEW[FIRST]))  # libarchive makes a regular file of what it does not know, and writes no data
    what = (f"{mode:o}", None) if stat.S_ISCHR(mode) or stat.S_ISBLK(mode) else ("100644", zeros)
    site.expect_published(zip_bytes(entries), files(**{FIRST: what}))


@pytest.mark.parametrize("mode", [*SPECIAL.values(), stat.S_IFIFO, 0o7777 | stat.S_IFREG], ids=oct)
def test_other_entry_of_any_type_is_swept(site, mode, tmp_path):
    if (stat.S_ISCHR(mode) or stat.S_ISBLK(mode)) and not can_make_devices(tmp_path):
        pytest.skip("devices cannot be made here")
    site.expect_published(zip_bytes(new(first=[Entry("other", b"some", mode)])), files())


@pytest.mark.parametrize("mode", [*SPECIAL.values(), LINK], ids=oct)
def test_index_of_a_special_type_checks_nothing(site, mode, tmp_path):
    """The definitions are taken as they are, as if the archive held no index."""
    if (stat.S_ISCHR(mode) or stat.S_ISBLK(mode)) and not can_make_devices(tmp_path):
        pytest.skip("devices cannot be made here")
    entries = release("new")
    entries[0].mode = mode
    entries[1].content = b"tampered"
    site.expect_published(zip_bytes(entries), files(**{FIRST: ("100644", b"tampered")}))


# Directories: libarchive gives their names a trailing slash, so that their last component is empty.


@pytest.mark.parametrize("name", [FIRST, "sub", "sub/", "..", "../", ".", "/", "a/.."])
@pytest.mark.parametrize("mode", [0, 0o700, 0o1777], ids=oct)
def test_directory_of_any_name_gives_its_mode_to_the_staging_directory_and_nothing_else(site, name, mode):
    if os.geteuid() != 0 and mode == 0:
        pytest.skip("without the superuser's rights such a directory cannot be used")
    entry = Entry(name, b"", stat.S_IFDIR | mode)
    site.expect_published(zip_bytes(new(first=[entry])), files(), mode=mode)


def test_directory_in_a_definitions_stead_is_a_missing_definition(site):
    entries = release("new")
    entries[1] = Entry(FIRST, b"", DIRECTORY)
    site.expect_refused(zip_bytes(entries), f"CAB missing {FIRST}")


def test_directory_that_lies_in_the_staging_directory_already_stays_when_it_holds_something(site):
    left = site.gateway.root / "snapshots" / "1002" / "sub"
    left.mkdir(parents=True)
    (left / "file").write_text("left\n")
    (left.parent / "empty").mkdir()
    stays = {"sub": (f"{left.stat().st_mode:o}", None), "sub/file": tree(left, modes=True)["file"]}
    site.expect_published(zip_bytes(new()), files(**stays))


# Links: they are made as the archive has them. Nothing is written through them: every entry replaces what is there.


@pytest.mark.parametrize("target", ["beside", "beside/kept", "beside/none"])
@pytest.mark.parametrize("first", [True, False], ids=["link_first", "link_last"])
def test_link_that_leads_outside_is_not_written_through(site, target, first):
    outside = site.gateway.folder / target
    entries = [link("x", outside), Entry("x", b"through"), link("y", outside), Entry("y/kept", b"through")]
    site.expect_published(zip_bytes(new(first=entries) if first else new(*entries)), files())


def test_directory_that_a_link_replaces_hands_its_mode_to_nothing_outside(site):
    entries = [Entry("x/y", b"", stat.S_IFDIR | 0o777), link("x", site.beside)]
    site.expect_published(zip_bytes(new(first=entries)), files(), mode=0o777)


def test_file_that_a_dangling_link_replaces_cannot_be_flushed(site):
    entries = [Entry("x", b"x"), link("x", site.beside / "none")]
    warning = f"warning fsync: open {site.gateway.root}/snapshots/1002/x failed"
    site.expect_published(zip_bytes(new(first=entries)), files(), lines=[warning])


@pytest.mark.parametrize("target", ["/", "..", ".", "../1001", SECOND, "x"])
def test_definition_that_is_a_link_goes_into_service_when_no_index_names_it(site, target):
    entries = [link(FIRST, target), Entry("x", b"swept"), without_index()[1]]
    site.expect_published(zip_bytes(entries), files(**{FIRST: f"-> {target}"}))


def test_definition_that_is_a_link_is_checked_by_what_it_leads_to(site):
    """Such a snapshot has the right content as long as the other file has."""
    (site.beside / "kept").write_bytes(NEW[FIRST])
    entries = release("new")
    entries[1] = link(FIRST, site.beside / "kept")
    site.expect_published(zip_bytes(entries), files(**{FIRST: f"-> {site.beside}/kept"}))


def test_definition_that_is_a_link_to_another_content_is_refused(site):
    entries = release("new")
    entries[1] = link(FIRST, site.beside / "kept")
    site.expect_refused(zip_bytes(entries), f"sha256 mismatch {FIRST}")


def test_definition_that_is_a_dangling_link_is_missing(site):
    entries = release("new")
    entries[1] = link(FIRST, "none")
    site.expect_refused(zip_bytes(entries), f"CAB missing {FIRST}")


def test_index_that_is_a_link_is_read_from_where_it_leads(site):
    (site.beside / "kept").write_text(f"{FIRST}.sha256=00\n")
    entries = [link(INDEX, site.beside / "kept"), *without_index()]
    site.expect_refused(zip_bytes(entries), f"sha256 mismatch {FIRST}")


SELF = [[link(FIRST, FIRST)], [link(FIRST, "x"), link("x", "y"), link("y", FIRST)]]


@pytest.mark.parametrize("links", SELF, ids=["to_itself", "in_a_ring"])
def test_definition_that_is_a_link_to_itself_ends_a_single_check_abnormally(site, links):
    site.put(zip_bytes([*links, without_index()[1]]))
    former = (site.gateway.status_path.read_text(), site.gateway.active_files())
    process = site.gateway.run("--config", site.gateway.config_path, "--once")
    assert process.returncode != 0
    assert "Too many levels of symbolic links" in process.stderr
    assert site.gateway.take_log() == []
    assert (site.gateway.status_path.read_text(), site.gateway.active_files()) == former
    site.expect_good_release()


@pytest.mark.parametrize("links", SELF, ids=["to_itself", "in_a_ring"])
def test_definition_that_is_a_link_to_itself_does_not_end_the_loop(gateway_in_memory, links):
    gateway = gateway_in_memory
    mirror = LockstepMirror(gateway)

    def steps():
        mirror.offer("1002", zip_bytes([*links, without_index()[1]]))
        yield
        assert gateway.take_log() == [
            "info zel_quorin_updater loop started (interval=0s jitter=0s)",
            "err run_once exception: filesystem error: status: Too many levels of symbolic links "
            f"[{gateway.root}/snapshots/1002/{FIRST}]",
        ]
        mirror.offer("1003", zip_bytes(new()))
        yield
        assert gateway.take_log() == published("1003")
        assert gateway.listing() == snapshot_listing("1003", "1003")

    mirror.run(steps())


REFUSED_LINKS = {"empty": b"", "too_long": b"x" * 4096}


@pytest.mark.parametrize("target", REFUSED_LINKS.values(), ids=REFUSED_LINKS)
def test_link_that_cannot_be_made_is_refused(site, target):
    site.expect_refused(zip_bytes(new(first=[link("x", target)])), "CAB extract")


@pytest.mark.parametrize("name", ["", ".", "..", "a/.", "a/.."])
@pytest.mark.parametrize("mode", [REGULAR, LINK], ids=["file", "link"])
def test_entry_in_the_staging_directorys_stead_is_refused(site, name, mode):
    """The archive itself lies in that directory, which therefore cannot be replaced."""
    entry = Entry(name, bytes(site.beside), mode)
    site.expect_refused(zip_bytes(new(first=[entry])), "CAB extract")


def test_archive_announced_under_a_name_that_leads_out_of_the_staging_directory_may_replace_that_by_a_link(site):
    """A mirror that announces such a name, and such an archive, reaches whatever the daemon may write to: the entries
    land where the link leads, and what else lies there is swept."""
    entries = [link("", site.beside), *new()]
    site.mirror.folder.parent.joinpath("outside.zip").write_bytes(zip_bytes(entries))
    site.mirror.announce("1002", "../outside.zip")
    assert site.run() == published("1002", "1001")
    assert os.readlink(site.gateway.root / "snapshots" / "1002") == str(site.beside)
    assert sorted(path.name for path in site.beside.iterdir()) == [SECOND, FIRST]
    assert (site.gateway.root / "snapshots" / "outside.zip").exists()


# Names: all but the last component is dropped, and every other file is swept.

NAMES = {
    "absolute": b"/beside/kept",
    "upwards": b"../../../beside/kept",
    "deep": b"a/" * 2000 + b"x",
    "backslashes": b"..\\..\\x",
    "drive": b"C:\\x",
    "not_utf_8": b"\xff\xfe",
    "longest": b"x" * 255,
    "line_feed": b"new\nline",
    "control_characters": bytes(range(1, 32)),
    "archive_itself": b"release.archive",
    "archives_part": b"release.archive.part",
    "other_case": FIRST.upper().encode(),
    "definition_in_a_folder": b"sub/" + FIRST.encode(),
    "definition_behind_backslash": b"sub\\x" + FIRST.encode(),
    "other_flavor": b"antivir-v3.def",
}
PACKERS = {"zip": (zip_bytes, 0o644), "cab": (cab_bytes, 0o666)}


@pytest.mark.parametrize("name", NAMES.values(), ids=NAMES)
@pytest.mark.parametrize("pack, mode", PACKERS.values(), ids=PACKERS)
def test_other_name_is_reduced_to_its_last_component_and_swept(site, pack, mode, name):
    site.expect_published(pack(new(first=[Entry(name, b"some")])), files(mode))


@pytest.mark.parametrize("length", [256, 5000])
@pytest.mark.parametrize("pack, mode", PACKERS.values(), ids=PACKERS)
def test_name_that_no_file_can_have_is_refused(site, pack, mode, length):
    site.expect_refused(pack(new(Entry(b"x" * length, b"some"))), "CAB extract")


@pytest.mark.parametrize("name", [".", "..", "/", "a/..", "sub/", f"{FIRST}/"])
def test_cabs_file_in_a_directorys_stead_is_refused(site, name):
    site.expect_refused(cab_bytes(new(Entry(name, b"some"))), "CAB extract")


def test_cabs_empty_name_ends_the_archive(site):
    site.expect_refused(cab_bytes(new(first=[Entry("", b"some")])), f"CAB missing {FIRST}")


def test_name_with_a_zero_byte_ends_there(site):
    entries = release("new")
    entries[1].name += b"\0tail"
    site.expect_published(zip_bytes(entries), files())


@pytest.mark.parametrize("name", [b"\xff", "ä".encode()], ids=["malformed", "well_formed"])
def test_name_marked_as_utf_8_ends_the_archive_unless_it_is_ascii(site, name):
    """The daemon runs in the C locale, where libarchive cannot turn such a name into one for the disk, and warns."""
    entry = Entry(name, b"x", fields={"flags": 0x800})
    site.expect_refused(zip_bytes(new(first=[entry])), f"CAB missing {FIRST}")


def test_entries_behind_a_warning_are_not_there(site):
    """An index that comes behind it checks nothing."""
    entries = without_index()
    entries[0].content = b"tampered"
    warning = Entry("ä", b"x", fields={"flags": 0x800})
    site.expect_published(zip_bytes([*entries, warning, release("new")[0]]), files(**{FIRST: ("100644", b"tampered")}))


@pytest.mark.parametrize("pack, mode", PACKERS.values(), ids=PACKERS)
def test_last_of_several_definitions_of_one_name_counts(site, pack, mode):
    wrong = Entry(FIRST, b"wrong")
    site.expect_published(pack(new(first=[wrong])), files(mode))


@pytest.mark.parametrize("name", [FIRST, f"sub/{FIRST}"])
@pytest.mark.parametrize("pack, mode", PACKERS.values(), ids=PACKERS)
def test_wrong_definition_behind_the_right_one_is_refused(site, pack, mode, name):
    site.expect_refused(pack(new(Entry(name, b"wrong"))), f"sha256 mismatch {FIRST}")


@pytest.mark.parametrize("pack, mode", PACKERS.values(), ids=PACKERS)
def test_last_of_several_indexes_counts(site, pack, mode):
    wrong = Entry(INDEX, f"{FIRST}.sha256=00\n".encode())
    site.expect_refused(pack(new(wrong)), f"sha256 mismatch {FIRST}")


@pytest.mark.parametrize("pack, mode", PACKERS.values(), ids=PACKERS)
def test_first_of_several_indexes_does_not_count(site, pack, mode):
    wrong = Entry(INDEX, f"{FIRST}.sha256=00\n".encode())
    site.expect_published(pack(new(first=[wrong])), files(mode))


# Shapes: what stands around the entries.


def with_folder(number, entry):
    """A CAB whose given entry says that it lies in another folder."""
    entries = new()
    data = b"".join(e.content for e in entries)
    offsets = [sum(len(e.content) for e in entries[:i]) for i in range(len(entries))]
    folders = [number if i == entry else 0 for i in range(len(entries))]
    listed = b"".join(cab_file(e.name, len(e.content), o, f) for e, o, f in zip(entries, offsets, folders))
    whole = cab_bytes(entries)
    return whole[:44] + listed + cab_data(data)


def with_size(size, entry=2):
    """A CAB that gives a file another size than its content has."""
    whole = bytearray(cab_bytes(new()))
    place = whole.index(new()[entry].name) - 16
    whole[place : place + 4] = struct.pack("<I", size)
    return bytes(whole)


def zip64(size, packed_size):
    """A leading entry whose sizes stand in a ZIP64 field, as they are told."""
    extra = struct.pack("<HHQQ", 1, 16, size, packed_size)
    told = {"size": 2**32 - 1, "packed_size": 2**32 - 1, "local_extra": extra, "central_extra": extra}
    return zip_bytes(new(first=[Entry("x", b"x", fields=told)]))


def with_fields(**fields):
    entries = release("new")
    entries[1].fields = fields
    return zip_bytes(entries)


def uuencoded(data):
    lines = b"".join(base64.binascii.b2a_uu(data[i : i + 45]) for i in range(0, len(data), 45))
    return b"begin 644 x\n" + lines + b"`\nend\n"


SHAPES_PUBLISHED = {
    "cab_with_reserved_areas": (
        cab_bytes(new(), flags=4, extra=struct.pack("<HBB", 5, 3, 2) + b"abcde", reserves=(b"fff", b"dd")),
        0o666,
    ),
    "cab_behind_a_program": (b"MZ" + b"x" * 70_000 + cab_bytes(new()), 0o666),
    "cab_before_a_zip": (cab_bytes(new()) + zip_bytes(release("other")), 0o666),
    "cab_with_a_tail": (cab_bytes(new()) + b"tail", 0o666),
    "cab_of_read_only_files": (cab_bytes(new()).replace(b"\x21Y\0\0\x20\0", b"\x21Y\0\0\x21\0"), 0o555),
    "cab_in_gzip": (gzip.compress(cab_bytes(new())), 0o666),
    "cab_in_gzip_twice": (gzip.compress(gzip.compress(cab_bytes(new()))), 0o666),
    "cab_in_bzip2": (bz2.compress(cab_bytes(new())), 0o666),
    "cab_in_xz": (lzma.compress(cab_bytes(new())), 0o666),
    "cab_in_lzma": (lzma.compress(cab_bytes(new()), format=lzma.FORMAT_ALONE), 0o666),
    "cab_uuencoded": (uuencoded(cab_bytes(new())), 0o666),
    "zip_in_gzip": (gzip.compress(zip_bytes(new())), 0o664),  # read as a stream, without the modes at its end
    "zip_behind_a_program": (zip_bytes(new(), prefix=b"x" * 140_000), 0o644),
    "zip_with_a_tail": (zip_bytes(new()) + b"tail", 0o644),
    "zip_with_a_long_tail": (zip_bytes(new()) + b"x" * 70_000, 0o664),
    "zip_of_bzip2": (
        zip_bytes([Entry(e.name, e.content, packed=bz2.compress(e.content), fields={"method": 12}) for e in new()]),
        0o644,
    ),
    "zip_of_xz": (
        zip_bytes([Entry(e.name, e.content, packed=lzma.compress(e.content), fields={"method": 95}) for e in new()]),
        0o644,
    ),
    "many_entries_in_a_zip": (zip_bytes(new(*(Entry(f"f{i}", b"x") for i in range(3000)))), 0o644),
    "many_entries_in_a_cab": (cab_bytes(new(*(Entry(f"f{i}", b"x") for i in range(3000)))), 0o666),
}


@pytest.mark.parametrize("archive, mode", SHAPES_PUBLISHED.values(), ids=SHAPES_PUBLISHED)
def test_shape_is_taken(site, archive, mode):
    site.expect_published(archive, files(mode))


MISSING = f"CAB missing {FIRST}"
OTHER_METHODS = (1, 2, 6, 9, 10, 12, 14, 18, 19, 93, 95, 96, 97, 98, 99, 65535)  # of plain content, which fits none
SHAPES_REFUSED = {
    "zip_without_entries": (zip_bytes([]), MISSING),
    "cab_without_files": (cab_bytes([]), MISSING),
    "cab_without_folders": (cab_bytes([], folders=0), MISSING),
    "cab_after_another_volume": (cab_bytes(new(), flags=1, extra=b"former.cab\0disk\0"), MISSING),
    "cab_before_another_volume": (cab_bytes(new(), flags=2, extra=b"next.cab\0disk\0"), MISSING),
    "cab_file_from_another_volume": (with_folder(0xFFFD, 1), MISSING),
    "cab_file_into_another_volume": (with_folder(0xFFFE, 2), "CAB extract"),
    "cab_file_through_volumes": (with_folder(0xFFFF, 1), MISSING),
    "cab_file_of_no_folder": (with_folder(7, 2), MISSING),
    "cab_of_quantum": (cab_bytes(new(), method=2 | 0x0400), "CAB extract"),
    "cab_of_no_mszip": (cab_bytes(new(), method=1), "CAB extract"),
    "cab_of_no_lzx": (cab_bytes(new(), method=3 | 15 << 8), "CAB extract"),
    "cab_of_no_method": (cab_bytes(new(), method=15), "CAB extract"),
    "cab_file_of_4_gb": (with_size(2**32 - 1), MISSING),
    "cab_file_of_2_gb": (with_size(2**31 - 1), MISSING),
    "cab_block_of_nothing": (cab_bytes(new(), [cab_data(b"x" * 300, 0)]), "CAB extract"),
    "cab_block_too_large": (cab_bytes(new(), [cab_data(b"x" * 40_000)]), "CAB extract"),
    "zip64_entry_of_an_exabyte": (zip64(2**60, 1), "CAB extract"),
    "zip64_entry_packed_to_an_exabyte": (zip64(2**60, 2**60), "CAB extract"),
    "zip64_entry_of_a_negative_size": (zip64(2**63, 2**63), MISSING),
    "zip_file_of_4_gb": (with_fields(size=2**32 - 2), "CAB extract"),
    "zip_file_longer_than_told": (with_fields(size=3), "CAB extract"),
    "zip_entries_that_are_one": (zip_bytes(new(), offsets=[0, 0, 0]), MISSING),
    "zip_entries_beyond_the_end": (zip_bytes(new(), offsets=[0, 10**6, 2**32 - 2]), MISSING),
    "zip_encrypted": (with_fields(flags=1), "CAB extract"),
    "zip_other_file_encrypted": (zip_bytes(new(Entry("x", b"x" * 12, fields={"flags": 1}))), "CAB extract"),
    **{f"zip_of_method_{method}": (with_fields(method=method), "CAB extract") for method in OTHER_METHODS},
}


@pytest.mark.parametrize("archive, reason", SHAPES_REFUSED.values(), ids=SHAPES_REFUSED)
def test_shape_is_refused(site, archive, reason):
    site.expect_refused(archive, reason)


NO_ARCHIVES = {
    "nothing": b"",
    "zeros": bytes(100_000),
    "cab_behind_text": b"x" * 100 + cab_bytes(new()),
    "cab_far_behind_a_program": b"MZ" + b"x" * 140_000 + cab_bytes(new()),
    "gzip_of_nothing": gzip.compress(b""),
}


@pytest.mark.parametrize("content", NO_ARCHIVES.values(), ids=NO_ARCHIVES)
def test_what_is_no_archive_cannot_be_opened(site, content):
    path = f"{site.gateway.root}/snapshots/1002/release.archive"
    site.expect_refused(content, "CAB extract", f"err extract: cannot open {path}: Unrecognized archive format")


def bomb(megabytes):
    """An entry that unpacks to a thousand times its size."""
    content = bytes(megabytes << 20)
    return deflated("bomb", content)


def test_bomb_is_unpacked_and_swept(site, request):
    megabytes = 200 if request.config.getoption("--all") else 20
    site.expect_published(zip_bytes([bomb(megabytes), *new()]), files())


@pytest.mark.skipif(not may_mount(), reason="needs the right to mount a small file system")
def test_bomb_that_fills_the_disk_is_refused_when_the_index_comes_first(gateway_in_memory, mirror):
    gateway = gateway_in_memory
    gateway.root.mkdir()
    subprocess.run(["mount", "-t", "tmpfs", "-o", "size=1m", "tmpfs", gateway.root], check=True)
    try:
        site = Site(gateway, mirror)
        index, *definitions = release("new")
        site.expect_refused(zip_bytes([index, bomb(20), *definitions]), f"sha256 mismatch {FIRST}")
    finally:
        subprocess.run(["umount", gateway.root], check=True)


def zip_of_places(entries, body, places):
    """A ZIP whose central directory says where in the body each entry begins."""
    central = b"".join(raw_archives.zip_central(entry, place) for entry, place in zip(entries, places))
    return body + central + raw_archives.zip_end(len(entries), len(central), len(body))


def place_after(entries):
    return sum(len(raw_archives.zip_local(entry)) for entry in entries)


def entries_written(site, archive):
    """How many entries of an archive the daemon wrote, the release's three among them, until it was in service."""
    site.put(archive)
    lines = site.gateway.run_once(calls=True)
    assert [line for line in lines if line.startswith(("err", "warning", "info"))] == published("1002", "1001")
    site.version = "1002"
    site.expect_good_release()
    return lines.count("archive_write_header")


def test_entries_at_one_place_are_one(site):
    entries = new(deflated("x", bytes(1000)))
    body = b"".join(raw_archives.zip_local(entry) for entry in entries)
    places = [place_after(entries[:count]) for count in range(4)]
    listed = [*entries[:3], *(deflated(f"x{i}", bytes(1000)) for i in range(20))]
    assert entries_written(site, zip_of_places(listed, body, places[:3] + places[3:] * 20)) == 4


def test_entries_that_overlap_are_unpacked_each(site):
    """The content of each is what stands behind its own header: the other ones' headers and contents."""
    inner = [Entry("x0", bytes(10_000))]
    for number in range(1, 20):
        inner.insert(0, Entry(f"x{number}", raw_archives.zip_local(inner[0])))
    entries = new(*inner)
    places = [place_after(entries[:count]) for count in range(4)]
    for outer in inner[:-1]:
        places.append(places[-1] + 30 + len(outer.name))
    body = b"".join(raw_archives.zip_local(entry) for entry in entries[:4])
    assert entries_written(site, zip_of_places(entries, body, places)) == 3 + 20

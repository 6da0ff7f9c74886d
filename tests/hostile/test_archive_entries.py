"""What an archive may hold besides two definition files and their index, with a digest that matches.

Each case says what libarchive makes of such an archive, by what the daemon then logs, says and leaves behind: a reason
to refuse it, or the snapshot that goes into service. Beside the definitions root lies a directory that no archive may
touch. Each snapshot is pruned again when a good release goes into service after it."""

import dataclasses
import gzip
import lzma
import os
import stat
import struct

import pytest
from outcomes import published
from raw_archives import LINK, REGULAR, Entry, cab_bytes, cab_data, deflated, release, zip_bytes
from release import Release, definition_names
from scripted_server import reply
from trials import NEW, OLD

FIRST, SECOND = definition_names()
CONTENT = {entry.name.decode(): entry.content for entry in release(NEW)}
MISSING = f"CAB missing {FIRST}"
MISMATCH = f"sha256 mismatch {FIRST}"
EXTRACT = "CAB extract"
WRONG_INDEX = Entry("antivir-v2.ini", f"{FIRST}.sha256=00\n".encode())


def new(*more, first=()):
    """The new release's entries, behind and before others."""
    return [*first, *release(NEW), *more]


def changed(number, **fields):
    """The new release's entries with one of them changed: 0 is the index."""
    entries = release(NEW)
    entries[number] = dataclasses.replace(entries[number], **fields)
    return entries


def link(name, target):
    return Entry(name, str(target).encode(), LINK)


def snapshot(first=None, mode="100644", **more):
    """The tree of a snapshot of the new release, or of one with something else for its first definition."""
    return {FIRST: first or (mode, CONTENT[FIRST]), SECOND: (mode, CONTENT[SECOND]), **more}


TAMPERED = snapshot(("100644", b"tampered"))
IN_CAB = snapshot(mode="100666")


@pytest.fixture(autouse=True)
def beside(trial):
    """A directory with files that links lead to."""
    directory = trial.gateway.directory / "beside"
    directory.mkdir()
    for name, content in (("kept", b"kept"), ("same", CONTENT[FIRST]), ("index", WRONG_INDEX.content)):
        (directory / name).write_bytes(content)
    trial.before = trial.tree()
    return directory


def check(trial, *cases):
    trial.check_all(trial.archive_case(*case) for case in cases)


# Types and modes of a ZIP's entries. A mode is applied unchanged, without the daemon's umask.

as_root = pytest.mark.skipif(os.geteuid() != 0, reason="only the superuser can use what has such a mode")
FILE_MODES = {
    stat.S_IFIFO | 0o644: "100644",  # libarchive takes it for what was piped into zip(1)
    stat.S_IFREG | 0o7755: "107755",
    0: "100664",
}


@pytest.mark.parametrize(
    "modes", [FILE_MODES, pytest.param({stat.S_IFREG: "100000"}, marks=as_root)], ids=["some", "none"]
)
def test_mode_in_the_archive_is_applied_to_the_definition(trial, modes):
    check(trial, *((changed(1, mode=mode), snapshot((found, CONTENT[FIRST]))) for mode, found in modes.items()))


SPECIAL = {"devices": (stat.S_IFCHR, stat.S_IFBLK), "others": (stat.S_IFSOCK, 0o070000, 0o170000)}


@pytest.fixture(params=SPECIAL)
def special(request, tmp_path):
    """Modes of special types, and what a definition of each is when no digest checks it."""
    if request.param == "devices":
        try:
            os.mknod(tmp_path / "device", stat.S_IFCHR | 0o600, os.makedev(0, 0))
        except PermissionError:
            pytest.skip("devices cannot be made here")
        return {type | 0o644: (f"{type | 0o644:o}", None) for type in SPECIAL[request.param]}
    # libarchive makes a regular file of what it does not know, and writes no data.
    return {type | 0o644: ("100644", bytes(len(CONTENT[FIRST]))) for type in SPECIAL[request.param]}


def test_definition_of_a_special_type_is_refused_by_its_digest(trial, special):
    check(trial, *((changed(1, mode=mode), MISMATCH) for mode in special))


def test_unindexed_definition_of_a_special_type_is_published(trial, special):
    check(trial, *((changed(1, mode=mode)[1:], snapshot(found)) for mode, found in special.items()))


def test_index_of_a_special_type_checks_nothing(trial, special):
    """The definitions are accepted unchecked, as if the archive held no index."""
    _, *definitions = changed(1, content=b"tampered")
    check(trial, *(([changed(0, mode=mode)[0], *definitions], TAMPERED) for mode in [*special, LINK]))


# Directories: libarchive gives their names a trailing slash, so that their last component is empty.


@pytest.mark.parametrize("mode", [0o1777, pytest.param(0, marks=as_root)], ids=oct)
def test_directory_gives_its_mode_to_the_staging_directory_alone(trial, mode):
    mode |= stat.S_IFDIR
    names = (FIRST, "sub", "sub/", "..", "../", ".", "/", "a/..")
    staged = snapshot(**{".": (f"{mode:o}", None)})
    check(trial, *((new(first=[Entry(name, b"", mode)]), staged) for name in names))


# Links are made as the archive has them.


def test_nothing_is_written_through_a_link(trial, beside):
    """Every entry replaces what is there."""
    cases = []
    for target in (beside, beside / "kept", beside / "none"):
        entries = [link("x", target), Entry("x", b"through"), link("y", target), Entry("y/kept", b"through")]
        cases += [(new(first=entries), snapshot()), (new(*entries), snapshot())]
    directory = [Entry("x/y", b"", stat.S_IFDIR | 0o777), link("x", beside)]
    file = [Entry("x", b"x"), link("x", beside / "none")]
    warning = f"warning fsync: open {trial.gateway.root}/snapshots/{NEW}/x failed"
    cases += [(new(first=directory), snapshot(**{".": ("40777", None)})), (new(first=file), snapshot(), warning)]
    check(trial, *cases)


def test_unindexed_definition_that_is_a_link_is_published(trial):
    targets = ("/", "..", ".", f"../{OLD}", SECOND, "x")
    swept = Entry("x", b"swept")
    check(trial, *(([link(FIRST, to), swept, release(NEW)[2]], snapshot(f"-> {to}")) for to in targets))


def test_definition_that_is_a_link_is_checked_by_its_target(trial, beside):
    """Such a snapshot has the right content as long as the other file has."""
    outcomes = {"same": snapshot(f"-> {beside}/same"), "kept": MISMATCH, "none": MISSING}
    check(trial, *((changed(1, content=bytes(beside / name), mode=LINK), outcomes[name]) for name in outcomes))


def test_index_that_is_a_link_is_read_from_where_it_leads(trial, beside):
    check(trial, (changed(0, content=bytes(beside / "index"), mode=LINK), MISMATCH))


def test_entry_in_place_of_the_staging_directory_is_refused(trial, beside):
    """The archive itself is in that directory, which therefore cannot be replaced."""
    names = ("", ".", "..", "a/.", "a/..")
    entries = [Entry(name, bytes(beside), mode) for name in names for mode in (REGULAR, LINK)]
    check(
        trial,
        *((new(first=[entry]), EXTRACT) for entry in entries),
        *((cab_bytes(new(Entry(name, b"x"))), EXTRACT) for name in (".", "..", "/", "a/..", "sub/", f"{FIRST}/")),
    )


def test_archive_that_is_elsewhere_may_have_it_replaced(trial, beside):
    """A mirror that announces such a name, and such an archive, reaches all that the daemon may write to: the entries
    go where the link points, and all else there is removed."""
    archive = zip_bytes([link("", beside), *new()])
    trial.server.script = {**Release(NEW, archive=archive, archive_name="../x.zip").script, "/x.zip": [reply(archive)]}
    assert trial.gateway.run_once() == published(NEW, OLD)
    assert os.readlink(trial.gateway.root / "snapshots" / NEW) == str(beside)
    assert sorted(path.name for path in beside.iterdir()) == [SECOND, FIRST]
    assert (trial.gateway.root / "snapshots" / "x.zip").exists()


# Names: all but the last component is dropped, and every other file is swept.

NAMES = (
    b"/beside/kept",
    b"../../../beside/kept",
    b"..\\..\\x",
    b"\xff\xfe",
    b"new\nline",
    bytes(range(1, 32)),
    b"release.archive.part",
    FIRST.upper().encode(),
    b"sub/" + FIRST.encode(),
    b"antivir-v3.def",
)
PACKERS = [(zip_bytes, snapshot()), (cab_bytes, IN_CAB)]
in_both_formats = pytest.mark.parametrize("pack, good", PACKERS, ids=["zip", "cab"])


@in_both_formats
def test_name_is_reduced_to_its_last_component_and_swept(trial, pack, good):
    check(trial, *((pack(new(first=[Entry(name, b"some")])), good) for name in NAMES))


@in_both_formats
def test_last_of_several_entries_of_one_name_counts(trial, pack, good):
    wrong = Entry(FIRST, b"wrong")
    check(
        trial,
        (pack(new(first=[wrong])), good),
        (pack(new(wrong)), MISMATCH),
        (pack(new(Entry(f"sub/{FIRST}", b"wrong"))), MISMATCH),
        (pack(new(WRONG_INDEX)), MISMATCH),
        (pack(new(first=[WRONG_INDEX])), good),
    )


UTF_8 = {"flags": 0x800}


def test_name_ends_at_a_zero_byte_and_headers_at_an_odd_name(trial):
    """The daemon runs in the C locale. There libarchive cannot turn a name that is marked as UTF-8, and not ASCII, into
    one for the disk, and warns."""
    check(
        trial,
        (changed(1, name=FIRST.encode() + b"\0tail"), snapshot()),
        (new(first=[Entry(b"\xff", b"x", fields=UTF_8)]), MISSING),
        (new(first=[Entry("ä", b"x", fields=UTF_8)]), MISSING),
        (cab_bytes(new(first=[Entry("", b"some")])), MISSING),
    )


def test_entries_behind_a_warning_are_not_there(trial):
    """An index that comes behind it checks nothing."""
    index, *definitions = changed(1, content=b"tampered")
    check(trial, ([*definitions, Entry("ä", b"x", fields=UTF_8), index], TAMPERED))


# Shapes: what is around the entries.


def zip64(size, packed_size):
    """A leading entry with the given sizes in a ZIP64 field."""
    extra = struct.pack("<HHQQ", 1, 16, size, packed_size)
    fields = {"size": 2**32 - 1, "packed_size": 2**32 - 1, "local_extra": extra, "central_extra": extra}
    return new(first=[Entry("x", b"x", fields=fields)])


CAB, ZIP = cab_bytes(new()), zip_bytes(new())
STREAMED = snapshot(mode="100664")  # without the modes, which are at a ZIP's end
SHAPES_TAKEN = {
    "cab_behind_a_program": (b"MZ" + b"x" * 70_000 + CAB, IN_CAB),
    "cab_before_a_zip": (CAB + zip_bytes(release("other")), IN_CAB),
    "cab_of_read_only_files": (CAB.replace(b"\x21Y\0\0\x20\0", b"\x21Y\0\0\x21\0"), snapshot(mode="100555")),
    "cab_in_gzip_twice": (gzip.compress(gzip.compress(CAB)), IN_CAB),
    "cab_in_xz": (lzma.compress(CAB), IN_CAB),
    "zip_in_gzip": (gzip.compress(ZIP), STREAMED),
    "zip_behind_a_program": (zip_bytes(new(), prefix=b"x" * 140_000), snapshot()),
    "zip_with_a_tail": (ZIP + b"tail", snapshot()),
}
CANNOT_OPEN = "err extract: cannot open {}: Unrecognized archive format"
SHAPES_REFUSED = {
    "nothing": (b"", EXTRACT, CANNOT_OPEN),
    "zeros": (bytes(100_000), EXTRACT, CANNOT_OPEN),
    "cab_behind_text": (b"x" * 100 + CAB, EXTRACT, CANNOT_OPEN),
    "cab_far_behind_a_program": (b"MZ" + b"x" * 140_000 + CAB, EXTRACT, CANNOT_OPEN),
    "zip_without_entries": (zip_bytes([]), MISSING),
    "cab_without_files": (cab_bytes([]), MISSING),
    "cab_after_another_volume": (cab_bytes(new(), flags=1, extra=b"former.cab\0disk\0"), MISSING),
    "cab_before_another_volume": (cab_bytes(new(), flags=2, extra=b"next.cab\0disk\0"), MISSING),
    "cab_of_quantum": (cab_bytes(new(), method=2 | 0x0400), EXTRACT),
    "cab_of_no_mszip": (cab_bytes(new(), method=1), EXTRACT),
    "cab_of_no_method": (cab_bytes(new(), method=15), EXTRACT),
    "cab_block_of_nothing": (cab_bytes(new(), [cab_data(b"x" * 300, 0)]), EXTRACT),
    "zip64_entry_of_an_exabyte": (zip64(2**60, 1), EXTRACT),
    "zip64_entry_of_a_negative_size": (zip64(2**63, 2**63), MISSING),
    "zip_file_of_4_gb": (changed(1, fields={"size": 2**32 - 2}), EXTRACT),
    "zip_file_longer_than_its_size": (changed(1, fields={"size": 3}), EXTRACT),
    "zip_encrypted": (changed(1, fields={"flags": 1}), EXTRACT),
    "zip_other_file_encrypted": (new(Entry("x", b"x" * 12, fields={"flags": 1})), EXTRACT),
    "zip_of_an_unknown_method": (changed(1, fields={"method": 2}), EXTRACT),
    "zip_of_no_deflate64": (changed(1, fields={"method": 9}), EXTRACT),
}


def test_shape_is_taken(trial):
    trial.check_all(trial.archive_case(*shape, name=name) for name, shape in SHAPES_TAKEN.items())


def test_shape_is_refused(trial):
    stage = trial.gateway.root / "snapshots" / NEW
    trial.check_all(
        trial.archive_case(archive, error, *(line.format(stage / name) for line in lines), name=name)
        for name, (archive, error, *lines) in SHAPES_REFUSED.items()
    )


def test_bomb_is_unpacked_and_swept(trial):
    """An entry that unpacks to a thousand times its size."""
    check(trial, (new(first=[deflated("bomb", bytes((200 if trial.thorough else 20) << 20))]), snapshot()))

"""zqu-mirror publish: what it puts on a mirror, and what it refuses."""

import hashlib
import io
import os
import re
import stat
import struct
import subprocess
import zipfile
from pathlib import Path

import pytest
from gateway import Gateway
from mirror_tool import DOTS_RULE, FIRST, HIT_RULE, INDEX, NAME_RULE, SECOND, SUBDIR, WORK
from mirror_tool import cab, change_info, clean_report, noise, plain_archive, run
from outcomes import published
from release import HIT, info_name, sha256
from tools import under_strace

CAB_CAPACITY = 65535 * 32768
CHECK_FORMS = ["check --json", "check --nagios", "check --prometheus"]
FULL = "cannot write to standard output: No space left on device"
FORMATS = {"cab": [], "zip": ["--format", "zip"], "zip.zst": ["--format", "zstd"]}
ZIP, ZSTD = FORMATS["zip"], FORMATS["zip.zst"]


def expect_clean(own, id, extension="cab"):
    archive = f"antivir-v2-c-{id}.{extension}"
    lines = clean_report(id, archive, own.path(archive).read_bytes())
    assert own.check() == (0, "".join(f"{line}\n" for line in lines), "")


# ---- Publishing ----


@pytest.mark.parametrize("extension", FORMATS)
def test_release_is_written_whole_and_readable_by_everybody(own, extension):
    result = own.publish("20240131.007", *FORMATS[extension], umask=0o077)
    archive = f"antivir-v2-c-20240131.007.{extension}"
    assert result == (0, f"published {own.summary('20240131.007', archive)}\n", "")
    data = own.path(archive).read_bytes()
    assert own.files() == sorted([archive, info_name("20240131.007"), HIT])
    assert own.path(HIT).read_text() == "[Current]\ndefId = 20240131.007\n"
    plain = plain_archive(own.antivir.read_bytes(), own.aivsecon.read_bytes())
    assert own.path(info_name("20240131.007")).read_text() == (
        f"def.Current.defId = 20240131.007\ndef.Current.name = {archive}\n"
        f"def.Current.SHA256 = {sha256(data)}\ndef.Current.size = {len(data)}\n"
        f"def.Current.plain.SHA256 = {sha256(plain)}\ndef.Current.plain.size = {len(plain)}\n"
    )
    paths = [own.root, *own.root.rglob("*")]
    assert {oct(path.stat().st_mode) for path in paths} == {"0o40755", "0o100644"}
    expect_clean(own, "20240131.007", extension)
    assert own.publish("2", *FORMATS[extension])[0] == 0
    assert own.path(f"antivir-v2-c-2.{extension}").read_bytes() == data


@pytest.mark.parametrize("extension", FORMATS)
def test_daemon_takes_the_release(own, extension):
    assert own.publish("20240131.007", *FORMATS[extension])[0] == 0
    gateway = Gateway(own.base, mirror_base_url=f"file://{own.root}", mirror_subdir=SUBDIR)
    assert gateway.run_once() == published("20240131.007")
    gateway.expect_status("20240131.007")
    assert gateway.active_files() == {FIRST: own.antivir.read_bytes(), SECOND: own.aivsecon.read_bytes()}
    # Modification times carry over (a CAB's are even seconds), and nobody else may write the definitions.
    states = [(gateway.root / "active" / name).stat() for name in (FIRST, SECOND)]
    assert [int(state.st_mtime) for state in states] == [1583298368, 1614834370]
    assert {stat.S_IMODE(state.st_mode) for state in states} == {0o644 if extension == "zip" else 0o555}


def test_cab_is_compressed_and_intact_for_other_programs(own):
    assert own.publish("1")[0] == 0
    data = own.path(cab("1")).read_bytes()
    assert (len(data) < 75000, data[:4]) == (True, b"MSCF")
    done = subprocess.run(["cabextract", "-t", own.path(cab("1"))], capture_output=True, timeout=60, check=True)
    hashes = re.findall(r"^  (\S+)  OK\s+([0-9a-f]{32})$", done.stdout.decode(), re.M)
    contents = {FIRST: own.antivir.read_bytes(), SECOND: own.aivsecon.read_bytes()}
    index = "".join(f"{name}.sha256 = {sha256(content)}\n" for name, content in contents.items())
    contents = {INDEX: index.encode(), **contents}
    assert hashes == [(name, hashlib.md5(content).hexdigest()) for name, content in contents.items()]


def test_zip_is_deflated_and_intact_for_other_programs(own):
    assert own.publish("1", *ZIP)[0] == 0
    with zipfile.ZipFile(own.path("antivir-v2-c-1.zip")) as archive:
        assert archive.testzip() is None
        entries = [(entry.filename, entry.compress_type, entry.external_attr >> 16) for entry in archive.infolist()]
        assert entries == [(name, zipfile.ZIP_DEFLATED, 0o100644) for name in (INDEX, FIRST, SECOND)]
        assert archive.read(FIRST) == own.antivir.read_bytes()


def test_zstd_is_a_stored_zip_of_a_bounded_window(own):
    own.antivir.write_bytes(noise(70000, "antivir") * 70)
    assert own.publish("1", *ZSTD)[0] == 0
    data = own.path("antivir-v2-c-1.zip.zst").read_bytes()
    unpacked = subprocess.run(["zstd", "-dc"], input=data, capture_output=True, timeout=60, check=True).stdout
    # RFC 8878, section 3.1.1.1: the size in 4 bytes and a checksum; a window of 2 MiB.
    assert data[:10] == struct.pack("<IBBI", 0xFD2FB528, 0x84, (21 - 10) << 3, len(unpacked))
    with zipfile.ZipFile(io.BytesIO(unpacked)) as archive:
        assert archive.testzip() is None
        entries = [(entry.filename, entry.compress_type, entry.external_attr >> 16) for entry in archive.infolist()]
        assert entries == [(name, zipfile.ZIP_STORED, 0o100555) for name in (INDEX, FIRST, SECOND)]
        assert archive.read(FIRST) == own.antivir.read_bytes()


def test_zstd_has_the_same_bytes_everywhere(own):
    """On one processor or two, in any time zone, with any umask."""
    own.antivir.write_bytes(noise(70000, "antivir") * 600)  # several of libzstd's jobs
    first, *others = sorted(os.sched_getaffinity(0))
    log, made = own.base / "threads", []
    for place, zone, umask in (
        (f"{first}", "UTC", 0o022),
        (",".join(map(str, [first, *others[:1]])), "NZST-12", 0o077),
    ):
        prefix = ["taskset", "-c", place, "strace", "-f", "-e", "trace=clone,clone3", "-o", log]
        options = {"umask": umask, "env": {**os.environ, **under_strace(), "TZ": zone}}
        assert own.publish(zone, *ZSTD, prefix=prefix, **options)[0] == 0
        assert len(re.findall(r" clone3?\(.* = \d", log.read_text())) == 1 + len(place.split(",")) + 2
        made.append(own.path(f"antivir-v2-c-{zone}.zip.zst").read_bytes())
    assert made[0] == made[1]


def test_definition_file_of_any_size_comes_through(own):
    own.aivsecon.write_bytes(b"")
    for size in (0, 32768, 32769):  # a block of a CAB holds 32768 bytes
        own.antivir.write_bytes(noise(size, "size"))
        assert own.publish(f"{size}", "--allow-empty")[0] == 0
        expect_clean(own, size)


def test_symbolic_link_as_input_is_followed(own):
    target = own.antivir.rename(own.base / "target")
    own.antivir.symlink_to(target.name)
    assert own.publish("1")[0] == 0
    assert own.check()[0] == 0


def test_flavor_and_subdir_reach_every_name(own):
    words = ["--flavor", "v3-beta", "--subdir", "/a/b/"]
    assert own.publish("1", *words)[0] == 0
    names = {cab("1", "v3-beta"), info_name("1", "v3-beta"), "antivir-v3-beta-hit.ini"}
    assert {*own.tree()} == {".", "a", "a/b", *(f"a/b/{name}" for name in names)}
    assert own.check(*words)[0] == 0
    assert own.check()[0] == 1


def test_every_mark_that_an_id_may_hold_survives_a_client(own):
    id = "-._~!$&'()*+,;:@"
    assert run("publish", f"--id={id}", own.root, own.antivir, own.aivsecon)[::2] == (0, "")
    expect_clean(own, id)


def test_directory_of_any_name_is_served(own):
    root = own.base / "a b%20#?=\u00e9"
    assert own.publish("1", root=root)[0] == 0
    assert own.check(root=root)[0] == 0
    assert own.publish("1", "--quiet", root=root.name, cwd=own.base) == (0, "", "")


def test_same_release_again_goes_back_to_it(own):
    assert own.publish("1")[0] == 0
    first = own.tree()
    own.publish_small("old")
    assert own.check()[1].startswith(f"ok       {HIT} names old\n")
    again = (0, f"{own.summary('1').replace(':', ' was published before with this content and is current now:')}\n", "")
    assert own.publish("1") == again
    assert own.publish("1", *ZIP) == again
    assert {name: entry for name, entry in own.tree().items() if "-c-old." not in name} == first


@pytest.mark.parametrize("time, shown", [(0, "02.01.1980 00:00:00"), (5_000_000_000, "31.12.2107 00:00:00")])
def test_time_that_a_cab_cannot_hold_becomes_its_nearest(own, time, shown):
    os.utime(own.antivir, (time, time))
    utc = {**os.environ, "TZ": "UTC"}
    assert own.publish("1", env=utc)[0] == 0
    done = subprocess.run(["cabextract", "-l", own.path(cab("1"))], env=utc, capture_output=True)
    assert re.search(rf"\| (.*) \| {FIRST}\n", done.stdout.decode())[1] == shown


def test_each_part_of_a_publish_shows_its_progress_and_clears_it(own):
    """Each 420th read of the files takes 1.6 seconds."""
    own.antivir.write_bytes(os.urandom(1_000_000) * 30)
    archives = [*(own.directory / WORK / name for name in ("archive", "plain")), own.path(cab("1"))]
    paths = [word for path in (own.antivir, *archives) for word in ("-P", path)]
    slow = ["strace", "-qq", "-f", "-o", "/dev/null", *paths, "-e", "inject=read:delay_enter=1600000:when=420+420"]
    code, shown = run.on_terminal("stderr", *own.publishing("1"), prefix=slow, env=under_strace())
    line = rb"\x1b\[Kzqu-mirror: ([a-z ]+): (\d+) MB\r"
    assert code == 0 and re.fullmatch(rb"((%s)+\x1b\[K)+" % line, shown), shown
    furthest = {part.decode(): int(megabytes) for part, megabytes in re.findall(line, shown)}
    plain = "making the plain archive"
    archive = ["packing", "reading the archive", plain, "checking the archive"]
    assert list(furthest) == ["reading the definitions", *archive]
    assert min(furthest.values()) > 0, furthest


# ---- Refusals ----

# Values of options that clients could not fetch, or that lead elsewhere.
REFUSED_NAMES = {
    "--id": {
        DOTS_RULE: ["", ".", ".."],
        NAME_RULE: ["a/b", "a b", "a\n", "a%41", "a=b", "a\\b", "a\x7f", "\u00e9"],
        HIT_RULE: ["hit", "x-hit"],
    },
    "--flavor": {DOTS_RULE: [""], NAME_RULE: ["a/b"]},
    "--subdir": {DOTS_RULE: ["..", "a/../b", "./a"], NAME_RULE: ["a b"]},
}


@pytest.mark.parametrize("option", REFUSED_NAMES)
def test_name_that_clients_could_not_fetch_is_refused(own, option):
    own.publish_small("old")
    for rule, values in REFUSED_NAMES[option].items():
        for value in values:
            words = ["publish", option, value, *(["--id", "1"] if option != "--id" else [])]
            line = f"{option}: {rule} (see zqu-mirror publish --help)"
            own.expect_refused(line, *words, own.root, own.antivir, own.aivsecon, code=2)


# Names of the first and the second file; whether they show that the two are swapped.
PAIRS = {
    ("aivsecon.def", "antivir.def"): True,
    ("new-AIVSECON.def", "main.def"): True,
    ("main.def", "Antivir-v2.def"): True,
    ("antivir.def", "aivsecon.def"): False,
    ("antivir/1.def", "aivsecon/1.def"): False,
    ("aivsecon/antivir.def", "antivir/aivsecon.def"): False,
    ("antivir-and-aivsecon.def", "aivsecon-and-antivir.def"): False,
}


@pytest.mark.parametrize("pair", PAIRS)
def test_pair_of_files_that_is_swapped_is_refused(own, pair):
    own.publish_small("old")
    first, second = (own.base / "in" / name for name in pair)
    for path in (first, second):
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text(str(path))
    words = ["publish", "--id", "1", own.root, first, second]
    if PAIRS[pair]:
        swapped = first if "aivsecon" in first.name.lower() else second
        given, other = ("ANTIVIR", "aivsecon") if swapped == first else ("AIVSECON", "antivir")
        line = f"{given}: {swapped} has the name of the {other} file: the order is ANTIVIR AIVSECON"
        own.expect_refused(f"{line} (see zqu-mirror publish --help)", *words, code=2)
    else:
        assert run(*words)[0] == 0


@pytest.mark.parametrize("number", [0, 1])
def test_empty_file_is_refused_unless_allowed(own, number):
    own.publish_small("old")
    path = [own.antivir, own.aivsecon][number]
    path.write_bytes(b"")
    line = f"{path} is empty: gateways would scan without its signatures; --allow-empty publishes it"
    own.expect_refused(line, *own.publishing("1"))
    assert own.publish("1", "--allow-empty")[0] == 0


@pytest.mark.parametrize("command", ["publish", "prune", "list", "list --json", "mirror", "check", *CHECK_FORMS])
def test_output_that_cannot_be_written_is_a_failure(own, command):
    own.publish_small("old")
    words = {"publish": own.publishing("1"), "mirror": ["mirror", f"file://{own.root}", own.base / "copy"]}
    words = words.get(command, [*command.split(), own.root])
    assert run.into_full_device(*words) == (3 if "nagios" in command else 1, f"zqu-mirror: {FULL}\n")


@pytest.mark.parametrize("extension", FORMATS)
def test_id_too_long_for_a_clients_temporary_name_is_refused(own, extension):
    longest = 255 - len(f"antivir-v2-c-.{extension}.part")
    line = "the id and the flavor are too long for a file name"
    own.expect_refused(line, *own.publishing("x" * (longest + 1), *FORMATS[extension]))
    own.expect_refused(line, *own.publishing("x" * 224, *FORMATS[extension], "--deltas", "1"))
    assert own.publish("x" * longest, *FORMATS[extension])[0] == 0
    assert own.check()[0] == 0


def take_archive_name(own):
    own.path(cab("old")).rename(own.path(cab("new")))
    change_info(own, "old", name=cab("new"))


def make_too_large(own):
    index = 2 * 64 + len(f"{FIRST}.sha256 = \n{SECOND}.sha256 = \n")
    own.aivsecon.write_bytes(b"x")
    os.truncate(own.antivir, CAB_CAPACITY - index)


OTHER = "other content: take a new id"
# How the inputs or the mirror with the release "old" look, and what then is said of a publish.
REFUSED = {
    "line break in a path": (
        lambda own: setattr(own, "aivsecon", own.base / "a\nb"),
        "cannot open {base}/a\\x0Ab: No such file or directory",
    ),
    "fifo": (lambda own: (own.antivir.unlink(), os.mkfifo(own.antivir)), "{base}/first input is not a regular file"),
    "archive name taken": (
        take_archive_name,
        f"{cab('new')} is on the mirror, and {info_name('old')} names it: take a new id",
    ),
    "damaged": (
        lambda own: (own.publish("new"), os.truncate(own.path(cab("new")), 1 << 20), own.publish_small("old")),
        "new is on the mirror, but its INI file and its archive do not match",
    ),
    "other content": (lambda own: own.publish_small("new"), f"new was published before with {OTHER}"),
    "more than a CAB": (
        make_too_large,
        f"the definitions do not fit into a CAB, which holds {CAB_CAPACITY} bytes with the index: "
        "use --format zip or zstd",
    ),
}


@pytest.mark.parametrize("case", REFUSED)
def test_publish_is_refused_and_the_mirror_is_untouched(own, case):
    make, line = REFUSED[case]
    own.publish_small("old")
    make(own)
    own.expect_refused(line.format(base=own.base), *own.publishing("new"))
    if case == "other content":
        own.expect_refused(line, *own.publishing("new", *ZSTD))
    if case == "archive name taken":
        assert own.check()[0] == 0
        assert own.publish("new", *ZSTD)[0] == 0


def test_unreadable_file_is_refused(own):
    own.publish_small("old")
    prefix = ["strace", "-D", "-o", "/dev/null", "-P", own.aivsecon, "-e", "inject=read:error=EIO:when=1"]
    line = f"cannot read {own.aivsecon}: Input/output error"
    own.expect_refused(line, *own.publishing("new"), prefix=prefix, env=under_strace())


def test_mirror_that_is_a_file_is_refused(own):
    own.root.write_bytes(b"mine")
    line = f"zqu-mirror: cannot create {own.root}/rhex: Not a directory\n"
    assert own.publish("1") == (1, "", line)
    assert own.root.read_bytes() == b"mine"


def replace(path):
    path.with_name("other").write_bytes(path.read_bytes())
    path.with_name("other").replace(path)


def rewrite_in_secret(path):
    times = path.stat()
    path.write_bytes(bytes(times.st_size))
    os.utime(path, ns=(times.st_atime_ns, times.st_mtime_ns))


CHANGES = {
    "grown": lambda path: os.truncate(path, 1 << 20),
    "replaced": replace,
    "removed": Path.unlink,
    "rewritten, its time put back": rewrite_in_secret,
}


@pytest.mark.parametrize("case", CHANGES)
def test_file_that_changes_while_it_is_read_is_refused(own, case):
    own.publish_small("old")
    before = own.seen()
    with own.stopped(own.publishing("new"), f"{WORK}/archive") as stopped:
        CHANGES[case](own.antivir)
        assert stopped.finish() == (1, "", f"zqu-mirror: {own.antivir} changed while it was read\n")
    assert own.seen() == before

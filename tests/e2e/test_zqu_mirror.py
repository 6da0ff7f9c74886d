"""zqu-mirror: what it puts on a mirror, what it refuses, and what it finds wrong with one.

The programs come from the directory that ZQU_BUILD_DIR names, by default "build" in the repository.
"""
import hashlib
import json
import os
import re
import resource
import shutil
import signal
import socket
import stat
import subprocess
import zipfile
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

import pytest
from builds import REPOSITORY
from gateway import DAEMON
from mirror_tool import SUBDIR, TOOL, WORK, Setting, Stopped, noise, release_files, run, shown_on_terminal, under_strace
from outcomes import tree
from release import sha256

CAB_CAPACITY = 65535 * 32768
NAME_RULE = "may hold only letters, digits and -._~!$&'()*+,;:@ (clients could not fetch it otherwise)"
DOTS_RULE = 'must not be empty, "." or ".."'


@pytest.fixture
def mirror_tool_place(tmp_path):
    return Setting(tmp_path)


@pytest.fixture(params=["cab", "zip"])
def mirror_tool_format(request):
    return request.param


def flags_of(extension):
    return ["--zip"] if extension == "zip" else []


def clean_check(id, archive, data):
    return (
        f"ok       antivir-v2-hit.ini names {id}\n"
        f"ok       antivir-v2-c-{id}.ini names {archive}\n"
        f"ok       {archive} can be downloaded: {len(data)} bytes\n"
        f"ok       {archive} has the digest {sha256(data)}\n"
        f"ok       {archive} can be unpacked\n"
        "ok       antivir-v2.def has the digest that the index gives\n"
        "ok       aivsecon-v2.def has the digest that the index gives\n"
    )


# ---- Publishing ----


def test_a_release_is_written_whole_and_readable_by_everybody(mirror_tool_place, mirror_tool_format):
    place, extension = mirror_tool_place, mirror_tool_format
    result = place.publish("20240131.007", *flags_of(extension), umask=0o077)
    archive = f"antivir-v2-c-20240131.007.{extension}"
    data = (place.dir / archive).read_bytes()
    assert result == (0, f"published 20240131.007: {archive}, {len(data)} bytes, SHA-256 {sha256(data)}\n", "")
    assert tree(place.mirror, modes=True) == {
        ".": ("40755", None),
        "rhex": ("40755", None),
        "rhex/deffiles": ("40755", None),
        "rhex/deffiles/def5-2": ("40755", None),
        f"{SUBDIR}/antivir-v2-hit.ini": ("100644", b"[Current]\ndefId = 20240131.007\n"),
        f"{SUBDIR}/antivir-v2-c-20240131.007.ini": (
            "100644",
            (
                "def.Current.defId = 20240131.007\n"
                f"def.Current.name = {archive}\n"
                f"def.Current.SHA256 = {sha256(data)}\n"
                f"def.Current.size = {len(data)}\n"
            ).encode(),
        ),
        f"{SUBDIR}/{archive}": ("100644", data),
    }
    assert place.check() == (0, clean_check("20240131.007", archive, data), "")


def test_the_daemon_takes_the_release(mirror_tool_place, mirror_tool_format):
    place = mirror_tool_place
    assert place.publish("20240131.007", *flags_of(mirror_tool_format))[0] == 0
    root = place.base / "gateway"
    (place.base / "conf").write_text(
        f"mirror_base_url = file://{place.mirror}\ndef_root = {root}\n" f"status_path = {root}/status.json\n"
    )
    subprocess.run([DAEMON, "--once", "--config", place.base / "conf"], check=True, timeout=60)
    assert os.readlink(root / "active") == "snapshots/20240131.007"
    served = {path.name: path.read_bytes() for path in (root / "active/").iterdir()}
    assert served == {"antivir-v2.def": place.antivir.read_bytes(), "aivsecon-v2.def": place.aivsecon.read_bytes()}
    status = json.loads((root / "status.json").read_text())
    assert (status["active_version"], status["last_error"]) == ("20240131.007", "")
    # Modification times carry over (a CAB's are even seconds), and nobody else may write the definitions.
    assert [int((root / "active" / name).stat().st_mtime) for name in ("antivir-v2.def", "aivsecon-v2.def")] == [
        1583298368,
        1614834370,
    ]
    modes = {"cab": "0o555", "zip": "0o644"}
    assert oct(stat.S_IMODE((root / "active/antivir-v2.def").stat().st_mode)) == modes[mirror_tool_format]


def test_the_cab_is_compressed_and_intact_for_other_programs(mirror_tool_place):
    place = mirror_tool_place
    assert place.publish("1")[0] == 0
    archive = place.dir / "antivir-v2-c-1.cab"
    assert archive.stat().st_size < 75000
    assert archive.read_bytes()[:4] == b"MSCF"
    done = subprocess.run(["cabextract", "-t", archive], capture_output=True, timeout=60, check=True)
    hashes = re.findall(r"^  (\S+)  OK\s+([0-9a-f]{32})$", done.stdout.decode(), re.M)
    index = (
        f"antivir-v2.def.sha256 = {sha256(place.antivir.read_bytes())}\n"
        f"aivsecon-v2.def.sha256 = {sha256(place.aivsecon.read_bytes())}\n"
    ).encode()
    md5 = [hashlib.md5(data).hexdigest() for data in (index, place.antivir.read_bytes(), place.aivsecon.read_bytes())]
    assert hashes == list(zip(["antivir-v2.ini", "antivir-v2.def", "aivsecon-v2.def"], md5))


def test_the_zip_is_deflated_and_intact_for_other_programs(mirror_tool_place):
    place = mirror_tool_place
    assert place.publish("1", "--zip")[0] == 0
    with zipfile.ZipFile(place.dir / "antivir-v2-c-1.zip") as archive:
        assert archive.testzip() is None
        assert [
            (entry.filename, entry.compress_type, oct(entry.external_attr >> 16)) for entry in archive.infolist()
        ] == [
            (name, zipfile.ZIP_DEFLATED, "0o100644") for name in ("antivir-v2.ini", "antivir-v2.def", "aivsecon-v2.def")
        ]
        assert archive.read("antivir-v2.def") == place.antivir.read_bytes()


def test_the_same_input_gives_the_same_archive(mirror_tool_place, mirror_tool_format):
    place = mirror_tool_place
    for id in ("1", "2"):
        assert place.publish(id, *flags_of(mirror_tool_format))[0] == 0
    first, second = (place.dir / f"antivir-v2-c-{id}.{mirror_tool_format}" for id in ("1", "2"))
    assert first.read_bytes() == second.read_bytes()


@pytest.mark.parametrize("size", [0, 1, 32767, 32768, 32769, 65536])
def test_a_definition_file_of_any_size_comes_through(mirror_tool_place, mirror_tool_format, size):
    place = mirror_tool_place
    place.antivir.write_bytes(noise(size, "size"))
    place.aivsecon.write_bytes(b"")
    assert place.publish("1", *flags_of(mirror_tool_format))[0] == 0
    data = (place.dir / f"antivir-v2-c-1.{mirror_tool_format}").read_bytes()
    assert place.check() == (0, clean_check("1", f"antivir-v2-c-1.{mirror_tool_format}", data), "")


def test_a_symbolic_link_as_input_is_followed(mirror_tool_place):
    place = mirror_tool_place
    target = place.antivir.rename(place.base / "target")
    place.antivir.symlink_to(target.name)
    assert place.publish("1")[0] == 0
    assert place.check()[0] == 0


def test_flavor_and_subdir_reach_every_name(mirror_tool_place):
    place = mirror_tool_place
    words = ["--flavor", "v3-beta", "--subdir", "/a/b/"]
    assert place.publish("1", *words)[0] == 0
    assert [str(path.relative_to(place.mirror)) for path in sorted(place.mirror.rglob("*"))] == [
        "a",
        "a/b",
        "a/b/antivir-v3-beta-c-1.cab",
        "a/b/antivir-v3-beta-c-1.ini",
        "a/b/antivir-v3-beta-hit.ini",
    ]
    assert place.check(*words)[0] == 0
    assert place.check()[0] == 1


def test_every_mark_that_an_id_may_hold_survives_a_client(mirror_tool_place):
    place = mirror_tool_place
    id = "-._~!$&'()*+,;:@"
    result = run("publish", f"--id={id}", place.mirror, place.antivir, place.aivsecon)
    assert (result[0], result[2]) == (0, "")
    assert place.check()[1].startswith(f"ok       antivir-v2-hit.ini names {id}\n")
    assert place.check()[0] == 0


def test_a_mirror_folder_of_any_name_is_served(mirror_tool_place):
    place = mirror_tool_place
    mirror = place.base / "a b%20#?=\u00e9"
    assert place.publish("1", mirror=mirror)[0] == 0
    assert place.check(mirror=mirror)[0] == 0
    assert place.publish("1", mirror=mirror.name, cwd=place.base)[0] == 0


def test_the_same_release_again_succeeds_and_goes_back_to_it(mirror_tool_place):
    place = mirror_tool_place
    assert place.publish("1")[0] == 0
    first = tree(place.mirror, modes=True)
    place.publish_old()
    assert place.check()[1].startswith("ok       antivir-v2-hit.ini names old\n")
    data = (place.dir / "antivir-v2-c-1.cab").read_bytes()
    again = (
        0,
        "1 was published before with this content and is current now: antivir-v2-c-1.cab, "
        f"{len(data)} bytes, SHA-256 {sha256(data)}\n",
        "",
    )
    assert place.publish("1") == again
    assert place.publish("1", "--zip") == again
    assert {name: entry for name, entry in tree(place.mirror, modes=True).items() if "-c-old." not in name} == first


@pytest.mark.parametrize("time, shown", [(0, "02.01.1980 00:00:00"), (5_000_000_000, "31.12.2107 00:00:00")])
def test_a_time_that_a_cab_cannot_tell_becomes_its_nearest(mirror_tool_place, time, shown):
    place = mirror_tool_place
    os.utime(place.antivir, (time, time))
    utc = {**os.environ, "TZ": "UTC"}
    assert place.publish("1", env=utc)[0] == 0
    done = subprocess.run(["cabextract", "-l", place.dir / "antivir-v2-c-1.cab"], env=utc, capture_output=True)
    assert re.search(r"\| (.*) \| antivir-v2.def\n", done.stdout.decode()).group(1) == shown


# ---- Refusals ----


@pytest.mark.parametrize(
    "id, reason",
    [("", DOTS_RULE), (".", DOTS_RULE), ("..", DOTS_RULE)]
    + [
        (id, NAME_RULE)
        for id in (
            "a/b",
            "/",
            "../x",
            "a\nb",
            "a\n",
            " a",
            "a ",
            "a b",
            "\ta",
            "a\x01",
            "a\x7f",
            "a#b",
            "a?b",
            "a%41",
            "a=b",
            "a\\b",
            'a"b',
            "a<b",
            "a[1]",
            "a{b}",
            "a|b",
            "a^b",
            "a`b",
            "\u00e9",
        )
    ],
)
def test_an_id_that_clients_could_not_fetch_is_refused_and_the_mirror_is_untouched(mirror_tool_place, id, reason):
    place = mirror_tool_place
    place.require_refused(f"--id: {reason} (see zqu-mirror --help)", id=id, code=2)
    place.publish_old()
    place.require_refused(f"--id: {reason} (see zqu-mirror --help)", id=id, code=2)


@pytest.mark.parametrize(
    "flavor, reason",
    [
        ("", DOTS_RULE),
        ("..", DOTS_RULE),
        ("a/b", NAME_RULE),
        ("a b", NAME_RULE),
        ("a=b", NAME_RULE),
        ("a\n", NAME_RULE),
    ],
)
def test_a_flavor_that_clients_could_not_fetch_is_refused_and_the_mirror_is_untouched(
    mirror_tool_place, flavor, reason
):
    mirror_tool_place.require_refused(f"--flavor: {reason} (see zqu-mirror --help)", "--flavor", flavor, code=2)


@pytest.mark.parametrize(
    "subdir, reason",
    [
        ("..", DOTS_RULE),
        ("a/../b", DOTS_RULE),
        ("a/..", DOTS_RULE),
        ("./a", DOTS_RULE),
        ("a b", NAME_RULE),
        ("a%2fb", NAME_RULE),
    ],
)
def test_a_subdir_that_leads_elsewhere_is_refused_and_the_mirror_is_untouched(mirror_tool_place, subdir, reason):
    mirror_tool_place.require_refused(f"--subdir: {reason} (see zqu-mirror --help)", "--subdir", subdir, code=2)


def test_an_id_too_long_for_the_clients_temporary_name_is_refused(mirror_tool_place):
    place = mirror_tool_place
    longest = 255 - len("antivir-v2-c-.cab.part")
    place.require_refused("the id and the flavor are too long for a file name", id="x" * (longest + 1))
    assert place.publish("x" * longest)[0] == 0
    assert place.check()[0] == 0


def test_a_missing_file_is_refused_and_the_mirror_is_untouched(mirror_tool_place):
    place = mirror_tool_place
    place.aivsecon.unlink()
    place.require_refused(f"cannot open {place.aivsecon}: No such file or directory")


def test_a_line_break_in_a_path_does_not_break_the_line(mirror_tool_place):
    place = mirror_tool_place
    place.aivsecon = place.base / "a\nb"
    place.require_refused(f"cannot open {place.base}/a\\x0Ab: No such file or directory")


@pytest.mark.parametrize("make", [Path.mkdir, os.mkfifo], ids=["directory", "fifo"])
def test_what_is_no_regular_file_is_refused_and_the_mirror_is_untouched(mirror_tool_place, make):
    place = mirror_tool_place
    place.antivir.unlink()
    make(place.antivir)
    place.require_refused(f"{place.antivir} is not a regular file")


@pytest.mark.parametrize(
    "call, error, line",
    [("openat", "EACCES", "cannot open {}: Permission denied"), ("read", "EIO", "cannot read {}: Input/output error")],
)
def test_an_unreadable_file_is_refused_and_the_mirror_is_untouched(mirror_tool_place, call, error, line):
    place = mirror_tool_place
    place.publish_old()
    before = tree(place.mirror, modes=True)
    assert traced(place, "new", f"inject={call}:error={error}:when=1", [place.aivsecon]) == (
        1,
        "",
        f"zqu-mirror: {line.format(place.aivsecon)}\n",
    )
    assert tree(place.mirror, modes=True) == before


def test_a_mirror_that_is_a_file_is_refused(mirror_tool_place):
    place = mirror_tool_place
    place.mirror.write_bytes(b"mine")
    place.require_refused(f"cannot create {place.mirror}/rhex: Not a directory")


@pytest.mark.parametrize("mirror", ["", "https://mirror.example"])
def test_publishing_to_what_is_no_folder_is_refused(mirror_tool_place, mirror):
    place = mirror_tool_place
    result = run("publish", "--id", "1", mirror, place.antivir, place.aivsecon, cwd=place.base)
    assert result == (2, "", "zqu-mirror: MIRROR: must be a folder (see zqu-mirror --help)\n")
    assert sorted(path.name for path in place.base.iterdir()) == ["first input", "old input", "second input"]


@pytest.mark.parametrize("flags", [[], ["--zip"]])
def test_an_id_published_before_with_other_content_is_refused_and_the_mirror_is_untouched(mirror_tool_place, flags):
    place = mirror_tool_place
    place.publish_old()
    place.require_refused("old was published before with other content: take a new id", *flags, id="old")


def test_an_id_whose_archive_another_release_has_is_refused_and_the_mirror_is_untouched(mirror_tool_place):
    place = mirror_tool_place
    place.publish_old()
    other = "antivir-v2-c-new.cab"
    (place.dir / "antivir-v2-c-old.cab").rename(place.dir / other)
    info = place.dir / "antivir-v2-c-old.ini"
    info.write_text(info.read_text().replace("antivir-v2-c-old.cab", other))
    place.require_refused(f"{other} is on the mirror, and antivir-v2-c-old.ini names it: take a new id")
    assert place.check()[0] == 0
    assert place.publish("new", "--zip")[0] == 0


def test_an_id_whose_archive_was_damaged_is_refused_and_the_mirror_is_untouched(mirror_tool_place):
    place = mirror_tool_place
    assert place.publish("1")[0] == 0
    for change in (lambda path: path.write_bytes(path.read_bytes()[:-1]), Path.unlink):
        change(place.dir / "antivir-v2-c-1.cab")
        place.require_refused("1 is on the mirror, but its INI file and its archive do not match", id="1")


def test_more_than_a_cab_holds_is_refused_with_the_way_out_and_the_mirror_is_untouched(mirror_tool_place):
    place = mirror_tool_place
    index = 2 * 64 + len("antivir-v2.def.sha256 = \naivsecon-v2.def.sha256 = \n")
    place.aivsecon.write_bytes(b"")
    os.truncate(place.antivir, CAB_CAPACITY - index + 1)
    place.require_refused(
        f"the definitions do not fit into a CAB, which holds {CAB_CAPACITY} bytes with the index: " "use --zip"
    )


def test_a_missing_subcommand_or_option_is_a_usage_error():
    assert run() == (2, "", "zqu-mirror: A subcommand is required (see zqu-mirror --help)\n")
    assert run("publish", "m", "a", "b") == (2, "", "zqu-mirror: --id is required (see zqu-mirror --help)\n")
    assert run("check", "/nonexistent") == (
        2,
        "",
        "zqu-mirror: MIRROR: must be a folder or an http(s) URL (see zqu-mirror --help)\n",
    )


def test_help_and_version_are_answered():
    version = re.search(r"project\(\S+ VERSION (\S+)", (REPOSITORY / "CMakeLists.txt").read_text()).group(1)
    assert run("--version") == (0, f"zqu-mirror {version}\n", "")
    for words in (["--help"], *([command, "--help"] for command in ("publish", "mirror", "prune", "check"))):
        code, out, err = run(*words)
        assert (code, err) == (0, "")
        assert "Exit status: 0 done" in out
        assert words == ["--help"] or f"\n  zqu-mirror {words[0]} --" in out
    with open("/dev/full", "w") as full:
        done = subprocess.run([TOOL, "--help"], stdout=full, stderr=subprocess.PIPE, text=True)
    assert (done.returncode, done.stderr) == (1, "zqu-mirror: cannot write to standard output\n")


# ---- No room ----


def without_zip_leaks(place):
    """The environment of a publish that may fail to write a ZIP: libarchive then frees neither its zlib stream nor its
    block buffer. What these refer to, such as the writer, goes unseen too: the publishes that succeed look for that."""
    suppressions = place.base / "suppressions"
    suppressions.write_text("leak:deflateInit2_\nleak:archive_write_open2\n")
    options = f"{os.environ.get('LSAN_OPTIONS', '')}:suppressions={suppressions}:print_suppressions=0"
    whole_stacks = os.environ.get("ASAN_OPTIONS", "") + ":fast_unwind_on_malloc=0"  # libarchive has no frame pointers
    return {**os.environ, "LSAN_OPTIONS": options, "ASAN_OPTIONS": whole_stacks}


def require_each_limit_refused(place, limits, publish):
    """Publishes under growing limits: each failure must be one line and leave no trace, and at last one succeeds."""
    before = tree(place.mirror, modes=True)
    lines = set()
    for limit in limits:
        code, out, err = publish(limit)
        if code == 0:
            assert place.check()[0] == 0
            return lines
        assert (code, out) == (1, "")
        assert re.fullmatch(r"zqu-mirror: [^\n]*(No space left on device|File too large)[^\n]*\n", err)
        assert tree(place.mirror, modes=True) == before
        lines.add(err)
    pytest.fail("no limit was wide enough")


def test_a_full_disk_at_any_point_leaves_the_mirror_untouched(mirror_tool_place, mirror_tool_format):
    if os.geteuid() != 0:
        pytest.skip("mounting a small file system needs root")
    place = mirror_tool_place
    place.mirror.mkdir()
    if subprocess.run(["mount", "-t", "tmpfs", "-o", "size=1m", "none", place.mirror]).returncode != 0:
        pytest.skip("mounting is not permitted here")
    try:
        place.publish_old()
        environment = without_zip_leaks(place) if mirror_tool_format == "zip" else None

        def publish(pages):
            subprocess.run(["mount", "-o", f"remount,size={pages * 4}k", place.mirror], check=True)
            return place.publish("new", *flags_of(mirror_tool_format), env=environment)

        used = shutil.disk_usage(place.mirror).used // 4096
        assert len(require_each_limit_refused(place, range(used, used + 256), publish)) > 2
    finally:
        subprocess.run(["umount", place.mirror], check=True)


def test_a_file_size_limit_at_any_point_leaves_the_mirror_untouched(mirror_tool_place, mirror_tool_format):
    place = mirror_tool_place
    place.publish_old()
    environment = without_zip_leaks(place) if mirror_tool_format == "zip" else None

    def publish(limit):
        return place.publish(
            "new",
            *flags_of(mirror_tool_format),
            env=environment,
            preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (limit, limit)),
        )

    limits = [0, 1, 20, 35, 100, 200, *range(4096, 100000, 4096)]
    assert require_each_limit_refused(place, limits, publish)


# ---- Failing and dying at every system call ----


def traced(place, id, injection, paths, log="/dev/null", mirror=None):
    """Publishes under strace, which counts and interferes with the calls that name or use one of the paths."""
    words = [word for path in paths for word in ("-P", str(path))]
    done = subprocess.run(
        [
            "strace",
            "-D",
            "-y",
            "-o",
            log,
            "-e",
            injection,
            *words,
            TOOL,
            "publish",
            "--id",
            id,
            mirror or place.mirror,
            place.antivir,
            place.aivsecon,
        ],
        env=under_strace(),
        capture_output=True,
        timeout=120,
    )
    return done.returncode, done.stdout.decode(), done.stderr.decode()


def touched_paths(mirror):
    """All that a publish of "new" may name on the mirror."""
    top = [mirror, mirror / "rhex", mirror / "rhex/deffiles", mirror / SUBDIR]
    work = mirror / SUBDIR / WORK
    inside = ["archive", "info", "hit"]
    final = ["antivir-v2-hit.ini", "antivir-v2-c-new.ini", "antivir-v2-c-new.cab"]
    return [*top, work, *(work / name for name in inside), *(mirror / SUBDIR / name for name in final)]


def calls_made(place, mirror):
    """How often a publish of "new" makes which system call on the mirror."""
    log = place.base / "calls"
    assert traced(place, "new", "trace=all", touched_paths(mirror), log, mirror)[0] == 0
    names = [line.split("(")[0] for line in log.read_text().splitlines() if re.match(r"[a-z]\w*\(", line)]
    return {name: names.count(name) for name in names}


def copy_of(mirror, name):
    return Path(shutil.copytree(mirror, mirror.parent / name))


def test_a_failed_publish_undoes_its_work_before_it_gives_up_the_lock(mirror_tool_place):
    place = mirror_tool_place
    place.publish_old()
    before = tree(place.mirror, modes=True)
    log = place.base / "calls"
    paths = touched_paths(place.mirror)
    # The third rename is the hit INI's, and fails; -e is given twice, for what is shown and for what is done.
    shown = "trace=flock,close,unlink,unlinkat,rmdir,rename"
    injected = ["-e", "inject=rename:error=EIO:when=3"]
    command = ["strace", "-D", "-y", "-o", log, "-e", shown, *injected]
    command += [word for path in paths for word in ("-P", str(path))]
    command += [TOOL, "publish", "--id", "new", place.mirror, place.antivir, place.aivsecon]
    done = subprocess.run(command, env=under_strace(), capture_output=True, timeout=120)
    assert done.returncode == 1
    assert tree(place.mirror, modes=True) == before
    calls = log.read_text().splitlines()
    locked = next(line.split("(")[1].split("<")[0] for line in calls if line.startswith("flock("))
    lock_at = next(i for i, line in enumerate(calls) if line.startswith("flock("))
    unlocked = next(i for i, line in enumerate(calls) if i > lock_at and line.startswith(f"close({locked}<"))
    undone = [i for i, line in enumerate(calls) if line.startswith(("unlink", "rmdir"))]
    assert len(undone) >= 3
    assert max(undone) < unlocked


def test_a_kill_at_any_system_call_leaves_a_whole_release_and_the_next_publish_cleans_up(mirror_tool_place):
    place = mirror_tool_place
    place.publish_old()
    reference = copy_of(place.mirror, "reference")
    calls = calls_made(place, reference)
    new = tree(reference, modes=True)
    assert {"mkdir", "openat", "write", "fsync", "rename", "rmdir"} <= set(calls)
    names_after = {}  # what a client finds on a mirror and the next publish heals, by the mirror's whole content

    def heal(mirror):
        """Checks and heals what a kill has left, unless another kill has left just the same; returns the release."""
        left = frozenset(tree(mirror, modes=True).items())
        if left not in names_after:
            code, out, err = place.check(mirror=mirror)
            assert (code, err) == (0, "")
            assert place.publish("new", mirror=mirror)[0] == 0
            assert tree(mirror, modes=True) == new
            names_after[left] = re.match("ok       antivir-v2-hit.ini names (old|new)\n", out).group(1)
        return names_after[left]

    def kill_each(call):
        outcomes = []
        while True:
            mirror = copy_of(place.mirror, f"{call}-{len(outcomes) + 1}")
            code = traced(
                place,
                "new",
                f"inject={call}:signal=KILL:when={len(outcomes) + 1}",
                touched_paths(mirror),
                mirror=mirror,
            )[0]
            if code == 0:
                assert tree(mirror, modes=True) == new
                return call, outcomes
            assert code == -signal.SIGKILL
            outcomes.append(heal(mirror))
            shutil.rmtree(mirror)

    with ThreadPoolExecutor(4) as pool:
        outcomes = dict(pool.map(kill_each, calls))
    assert {call: len(of_call) for call, of_call in outcomes.items()} == calls
    assert outcomes["rename"] == ["old", "old", "old"]  # killed before each: the third makes the release current
    assert outcomes["write"][-1] == "old" and outcomes["rmdir"] == ["new"]


@pytest.mark.parametrize("call", ["mkdir", "openat", "write", "lseek", "fsync", "rename", "flock"])
def test_no_room_at_any_system_call_leaves_the_mirror_untouched(mirror_tool_place, call):
    place = mirror_tool_place
    place.publish_old()
    old = tree(place.mirror, modes=True)
    reference = copy_of(place.mirror, "reference")
    count = calls_made(place, reference)[call]
    new = tree(reference, modes=True)

    def fail_at(number):
        mirror = copy_of(place.mirror, f"copy-{number}")
        code, out, err = traced(
            place, "new", f"inject={call}:error=ENOSPC:when={number}", touched_paths(mirror), mirror=mirror
        )
        left = tree(mirror, modes=True)
        shutil.rmtree(mirror)
        if code == 0:  # a call whose failure does no harm, such as the removal of a temporary
            assert {name: entry for name, entry in left.items() if WORK not in name} == new
        elif err.startswith("zqu-mirror: new is published, but a power cut might undo that: "):
            assert left == new
        else:
            assert (code, out) == (1, "")
            assert re.fullmatch("zqu-mirror: [^\n]+\n", err)
            assert left == old
        return code

    with ThreadPoolExecutor(4) as pool:
        assert 1 in list(pool.map(fail_at, range(1, count + 1)))


def test_the_hit_ini_is_moved_last_and_everything_is_flushed_before(mirror_tool_place):
    place = mirror_tool_place
    place.publish_old()
    log = place.base / "log"
    assert traced(place, "new", "trace=fsync,rename", touched_paths(place.mirror), log)[0] == 0
    text = log.read_text().replace(str(place.dir), "D").replace(WORK, "W")
    steps = [
        re.sub(r"^(\w+)\((?:\d+<)?(.*?)>?\) += 0$", r"\1 \2", line).replace('"', "")
        for line in text.splitlines()
        if not line.startswith(("+++", "---"))
    ]
    assert steps == [
        "fsync D/W/archive",
        "fsync D/W/info",
        "rename D/W/archive, D/antivir-v2-c-new.cab",
        "rename D/W/info, D/antivir-v2-c-new.ini",
        "fsync D",
        "fsync D/W/hit",
        "rename D/W/hit, D/antivir-v2-hit.ini",
        "fsync D",
    ]


# ---- Stopped in the middle ----


@pytest.mark.parametrize(
    "number, words", [(signal.SIGINT, "Interrupt"), (signal.SIGTERM, "Terminated"), (signal.SIGHUP, "Hangup")]
)
@pytest.mark.parametrize("where", ["archive", "info", "hit"])
def test_a_signal_ends_the_run_and_the_mirror_is_untouched(mirror_tool_place, number, words, where):
    place = mirror_tool_place
    for prepare in (lambda: None, place.publish_old):
        prepare()
        before = tree(place.mirror, modes=True)
        with Stopped(place, place.dir / WORK / where) as stopped:
            assert WORK in release_files(place.mirror)
            stopped.signal(number)
            assert stopped.finish() == (128 + number, "", f"zqu-mirror: ended by signal: {words}\n")
        assert tree(place.mirror, modes=True) == before


def test_a_second_publish_is_refused_while_the_first_is_at_work(mirror_tool_place):
    place = mirror_tool_place
    with Stopped(place, place.dir / WORK / "archive") as first:
        place.require_refused(f"another run is at work in {place.dir}", id="other")
        assert first.finish()[0] == 0
    assert place.publish("other")[0] == 0
    assert release_files(place.mirror) == [
        "antivir-v2-c-new.cab",
        "antivir-v2-c-new.ini",
        "antivir-v2-c-other.cab",
        "antivir-v2-c-other.ini",
        "antivir-v2-hit.ini",
    ]


def append(path):
    with path.open("ab") as file:
        file.write(b"more")


def replace(path):
    path.with_name("other").write_bytes(path.read_bytes())
    path.with_name("other").replace(path)


def rewrite_in_secret(path):
    times = path.stat()
    path.write_bytes(bytes(path.stat().st_size))
    os.utime(path, ns=(times.st_atime_ns, times.st_mtime_ns))


@pytest.mark.parametrize(
    "change",
    [append, replace, Path.unlink, lambda path: os.truncate(path, 5)],
    ids=["grown", "replaced", "removed", "cut short"],
)
def test_a_file_that_changes_while_it_is_read_is_refused_and_the_mirror_is_untouched(mirror_tool_place, change):
    place = mirror_tool_place
    place.publish_old()
    before = tree(place.mirror, modes=True)
    with Stopped(place, place.dir / WORK / "archive") as stopped:
        change(place.antivir)
        assert stopped.finish() == (1, "", f"zqu-mirror: {place.antivir} changed while it was read\n")
    assert tree(place.mirror, modes=True) == before


def test_a_file_that_changes_with_its_time_put_back_is_refused_and_the_mirror_is_untouched(mirror_tool_place):
    place = mirror_tool_place
    place.publish_old()
    before = tree(place.mirror, modes=True)
    with Stopped(place, place.dir / WORK / "archive") as stopped:
        rewrite_in_secret(place.antivir)
        assert stopped.finish() == (1, "", "zqu-mirror: the archive does not hold what was read\n")
    assert tree(place.mirror, modes=True) == before


def test_progress_is_shown_on_a_terminal_and_cleared(mirror_tool_place):
    place = mirror_tool_place
    os.truncate(place.antivir, 500_000_000)
    code, shown = shown_on_terminal([TOOL, "publish", "--id", "1", place.mirror, place.antivir, place.aivsecon])
    assert code == 0
    assert re.fullmatch(rb"((\x1b\[Kzqu-mirror: [a-z ]+: \d+ MB\r)+\x1b\[K)+", shown)


# ---- Checking ----


def hand_made(place, entries=None, id="7", hit="[Current]\ndefId = 7\n", **changes):
    """A mirror made by hand: entries of its ZIP, and lines of its complete-info INI (None drops one)."""
    antivir, aivsecon = b"one", b"two"
    contents = {
        "antivir-v2.def": antivir,
        "aivsecon-v2.def": aivsecon,
        "antivir-v2.ini": (
            f"antivir-v2.def.sha256 = {sha256(antivir)}\naivsecon-v2.def.sha256 = {sha256(aivsecon)}\n"
        ).encode(),
    }
    contents.update(entries or {})
    place.dir.mkdir(parents=True)
    with zipfile.ZipFile(place.dir / "x.zip", "w") as archive:
        for name, data in contents.items():
            if data is not None:
                entry = zipfile.ZipInfo(name)
                entry.external_attr = 0o644 << 16
                archive.writestr(entry, data)
    data = (place.dir / "x.zip").read_bytes()
    lines = {"defId": id, "name": "x.zip", "SHA256": sha256(data), "size": str(len(data)), **changes}
    (place.dir / "antivir-v2-hit.ini").write_text(hit)
    (place.dir / f"antivir-v2-c-{id}.ini").write_text(
        "".join(f"def.Current.{key} = {value}\n" for key, value in lines.items() if value is not None)
    )
    return data


def steps(data, **instead):
    """The lines of a clean check of a mirror made by hand, up to the first one that a fault takes the place of."""
    lines = {
        "hit": "ok       antivir-v2-hit.ini names 7",
        "info": "ok       antivir-v2-c-7.ini names x.zip",
        "defid": None,
        "download": f"ok       x.zip can be downloaded: {len(data)} bytes",
        "size": None,
        "digest": f"ok       x.zip has the digest {sha256(data)}",
        "unpack": "ok       x.zip can be unpacked",
        "antivir": "ok       antivir-v2.def has the digest that the index gives",
        "aivsecon": "ok       aivsecon-v2.def has the digest that the index gives",
        "others": None,
        **instead,
    }
    text = ""
    for step, line in lines.items():
        text += f"{line}\n" if line else ""
        if line and line.startswith("FAULT") and step != "antivir":
            break
    return text


@pytest.fixture
def mirror_tool_temp(tmp_path):
    """A folder for temporaries that must be empty in the end."""
    path = tmp_path / "temp"
    path.mkdir()
    yield {**os.environ, "TMPDIR": str(path)}
    assert list(path.iterdir()) == []


def check_made(place, environment, **made):
    data = hand_made(place, **made)
    code, out, err = place.check(env=environment)
    return data, code, out, err


UNCHECKED = "warning  {} has no digest in the index: clients take it unchecked"
ONLY_AIVSECON = f"aivsecon-v2.def.sha256 = {sha256(b'two')}\n".encode()


@pytest.mark.parametrize(
    "made, instead",
    [
        ({}, {}),
        ({"defId": "8"}, {"defid": "warning  def.Current.defId is another id: 8"}),
        ({"size": "5"}, {"size": "warning  def.Current.size is another size: 5"}),
        ({"size": None}, {"size": "warning  def.Current.size is another size: 0"}),
        (
            {"entries": {"b": b"", "sub/a": b""}},
            {
                "others": "warning  a is in the archive too: clients drop it\n"
                "warning  b is in the archive too: clients drop it"
            },
        ),
        (
            {"entries": {"a\x1b[2J\nok": b""}, "defId": "8\x07\u009b\u202e"},
            {
                "defid": "warning  def.Current.defId is another id: 8\\x07\\xC2\\x9B\\xE2\\x80\\xAE",
                "others": "warning  a\\x1B[2J\\x0Aok is in the archive too: clients drop it",
            },
        ),
        ({"entries": {"antivir-v2.ini": ONLY_AIVSECON}}, {"antivir": UNCHECKED.format("antivir-v2.def")}),
        (
            {"entries": {"antivir-v2.ini": None}},
            {"antivir": UNCHECKED.format("antivir-v2.def"), "aivsecon": UNCHECKED.format("aivsecon-v2.def")},
        ),
    ],
    ids=[
        "nothing",
        "other id",
        "other size",
        "no size",
        "further entries",
        "controls",
        "one entry missing",
        "no index",
    ],
)
def test_what_a_client_bears_is_at_most_a_warning(mirror_tool_place, mirror_tool_temp, made, instead):
    data, code, out, err = check_made(mirror_tool_place, mirror_tool_temp, **made)
    assert (code, out, err) == (0, steps(data, **instead), "")


MISSING = "Couldn't read a file:// file"


@pytest.mark.parametrize(
    "made, instead",
    [
        ({"hit": "[Current]\n"}, {"hit": "FAULT    antivir-v2-hit.ini names no release"}),
        (
            {"hit": "defId = 9\n"},
            {
                "hit": "ok       antivir-v2-hit.ini names 9",
                "info": f"FAULT    GET file://{{}}/antivir-v2-c-9.ini: {MISSING}",
            },
        ),
        ({"name": None}, {"info": "FAULT    antivir-v2-c-7.ini names no archive or no digest"}),
        ({"SHA256": ""}, {"info": "FAULT    antivir-v2-c-7.ini names no archive or no digest"}),
        (
            {"name": "y.zip"},
            {
                "info": "ok       antivir-v2-c-7.ini names y.zip",
                "download": f"FAULT    GET file://{{}}/y.zip: {MISSING}",
            },
        ),
        (
            {"name": "../y.zip"},
            {
                "info": "ok       antivir-v2-c-7.ini names ../y.zip",
                "download": "FAULT    the archive's name is a path: ../y.zip",
            },
        ),
        (
            {"hit": "defId = 7\x1b[2J\rok\n"},
            {
                "hit": "ok       antivir-v2-hit.ini names 7\\x1B[2J\\x0Dok",
                "info": "FAULT    the id makes no URL: 7\\x1B[2J\\x0Dok",
            },
        ),
        *(
            (
                {"hit": f"defId = {id}\n", "id": id},
                {"hit": f"ok       antivir-v2-hit.ini names {id}", "info": f"FAULT    the id is a path: {id}"},
            )
            for id in (".", "..")
        ),
        (
            {"hit": "defId = a/b\n"},
            {"hit": "ok       antivir-v2-hit.ini names a/b", "info": "FAULT    the id is a path: a/b"},
        ),
        (
            {"hit": "defId = 7\x7f7\n"},
            {"hit": "ok       antivir-v2-hit.ini names 7\\x7F7", "info": "FAULT    the id makes no URL: 7\\x7F7"},
        ),
        (
            {"name": "x.zip\0end"},
            {
                "info": "ok       antivir-v2-c-7.ini names x.zip\\x00end",
                "download": "FAULT    the archive's name makes no URL: x.zip\\x00end",
            },
        ),
        (
            {"name": "x\u009b\u202e.zip"},
            {
                "info": "ok       antivir-v2-c-7.ini names x\\xC2\\x9B\\xE2\\x80\\xAE.zip",
                "download": f"FAULT    GET file://{{}}/x\\xC2\\x9B\\xE2\\x80\\xAE.zip: {MISSING}",
            },
        ),
        ({"SHA256": "00"}, {"digest": "FAULT    x.zip does not have the digest 00"}),
        (
            {"entries": {"antivir-v2.def": b"bad"}},
            {"antivir": "FAULT    antivir-v2.def does not have the digest that the index gives"},
        ),
        (
            {"entries": {"aivsecon-v2.def": b"bad"}},
            {"aivsecon": "FAULT    aivsecon-v2.def does not have the digest that the index gives"},
        ),
    ],
    ids=[
        "no id",
        "no info",
        "no name",
        "no digest",
        "no archive",
        "a path",
        "id with controls",
        "id is a dot",
        "id is two dots",
        "id is a path",
        "id with delete",
        "archive with a zero",
        "archive with controls",
        "other digest",
        "antivir damaged",
        "aivsecon damaged",
    ],
)
def test_what_a_client_fails_on_is_a_fault_with_the_reason(mirror_tool_place, mirror_tool_temp, made, instead):
    place = mirror_tool_place
    data, code, out, err = check_made(place, mirror_tool_temp, **made)
    assert (code, out, err) == (1, steps(data, **instead).format(place.dir), "")


def test_a_signal_ends_a_check_and_its_temporaries(mirror_tool_place, mirror_tool_temp, monkeypatch):
    place = mirror_tool_place
    hand_made(place)
    monkeypatch.setenv("TMPDIR", mirror_tool_temp["TMPDIR"])
    with Stopped(place, place.dir / "x.zip", tool_args=["check", place.mirror]) as stopped:
        assert len(list(Path(mirror_tool_temp["TMPDIR"]).iterdir())) == 1
        stopped.signal(signal.SIGTERM)
        code, _, err = stopped.finish()
    assert (code, err) == (128 + signal.SIGTERM, "zqu-mirror: ended by signal: Terminated\n")


# ---- Over HTTPS ----

NGINX = """{user}
daemon off;
pid {base}/pid;
error_log {base}/error.log;
events {{}}
http {{
    access_log off;
    client_body_temp_path {base}/t; proxy_temp_path {base}/t; fastcgi_temp_path {base}/t; uwsgi_temp_path {base}/t;
    scgi_temp_path {base}/t;
    server {{
        listen 127.0.0.1:{port} ssl;
        ssl_certificate {base}/server.pem;
        ssl_certificate_key {base}/server.key;
        root {base}/mirror;
    }}
}}
"""


def make_certificates(base):
    def openssl(*words):
        subprocess.run(["openssl", *words], cwd=base, check=True, capture_output=True, timeout=60)

    key = ["-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes"]
    openssl("req", "-x509", *key, "-keyout", "ca.key", "-out", "ca.pem", "-subj", "/CN=test authority", "-days", "2")
    openssl("req", *key, "-keyout", "server.key", "-out", "server.csr", "-subj", "/CN=mirror")
    (base / "names").write_text("subjectAltName=IP:127.0.0.1\n")
    openssl(
        "x509",
        "-req",
        "-in",
        "server.csr",
        "-CA",
        "ca.pem",
        "-CAkey",
        "ca.key",
        "-CAcreateserial",
        "-out",
        "server.pem",
        "-days",
        "2",
        "-extfile",
        "names",
    )


@pytest.fixture(scope="session")
def mirror_tool_server(tmp_path_factory):
    """nginx that serves a mirror. It inherits the listening socket: no port to guess, nothing to wait for."""
    base = tmp_path_factory.mktemp("nginx")
    make_certificates(base)
    with socket.create_server(("127.0.0.1", 0)) as listener:
        port = listener.getsockname()[1]
        (base / "conf").write_text(NGINX.format(base=base, port=port, user="user root;" if os.geteuid() == 0 else ""))
        server = subprocess.Popen(
            ["/usr/sbin/nginx", "-p", base, "-c", base / "conf", "-e", base / "error.log"],
            env={**os.environ, "NGINX": f"{listener.fileno()};"},
            pass_fds=[listener.fileno()],
        )
    yield base, f"https://127.0.0.1:{port}"
    server.terminate()
    server.wait(timeout=30)


def test_a_mirror_behind_https_is_checked_with_its_authority(mirror_tool_server, mirror_tool_place, mirror_tool_temp):
    base, url = mirror_tool_server
    place = mirror_tool_place
    assert place.publish("20240131.007", mirror=base / "mirror")[0] == 0
    data = (base / "mirror" / SUBDIR / "antivir-v2-c-20240131.007.cab").read_bytes()
    checked = place.check("--ca", base / "ca.pem", mirror=url, env=mirror_tool_temp)
    assert checked == (0, clean_check("20240131.007", "antivir-v2-c-20240131.007.cab", data), "")
    missing = place.check("--ca", base / "ca.pem", "--flavor", "v9", mirror=url, env=mirror_tool_temp)
    url = f"{url}/{SUBDIR}/antivir-v9-hit.ini"
    assert missing == (1, f"FAULT    GET {url}: HTTP response code said error\n", "")


def test_a_mirror_whose_authority_is_unknown_is_a_fault(mirror_tool_server, mirror_tool_place):
    _, url = mirror_tool_server
    fault = f"GET {url}/{SUBDIR}/antivir-v2-hit.ini: SSL peer certificate or SSH remote key was not OK"
    assert mirror_tool_place.check(mirror=url) == (1, f"FAULT    {fault}\n", "")

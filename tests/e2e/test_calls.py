"""The daemon's own calls of its libraries and of the system: which ones an update makes, in which order and with which
values, and what follows when one of them fails."""

import errno
import re
import signal
import subprocess

import archives
import pytest
from faults import FORMER, NEW, UNDONE, Scene, good, not_downloaded, outcome_of, refused, unflushed, unpublished
from gateway import BUILD, SANITIZED
from outcomes import Outcome, published
from release import good_files

LOGGED = ("err", "warning", "info")


def run(gateway, fault="", **environment):
    """One cycle under the call recorder: the process, and the calls, with the handle of libcurl as "#1"."""
    environment |= {"ZQU_FAULT": fault} if fault else {}
    process = gateway.run("--config", gateway.config_path, "--once", calls=True, **environment)
    text = gateway.log_path.read_text()
    gateway.log_path.unlink()
    assert not fault or f"fault {fault}\n" in text
    handles = {}
    text = re.sub("0x[0-9a-f]+", lambda found: handles.setdefault(found[0], f"#{len(handles) + 1}"), text)
    return process, text.splitlines()


def only(calls, *names):
    return [line for line in calls if line.split()[0] in names]


def messages(calls):
    return only(calls, *LOGGED)


def transfer(url, timeout, ca_path):
    values = [
        f'URL "{url}"',
        "WRITEFUNCTION set",
        "WRITEDATA set",
        f"TIMEOUT {timeout}",
        "FAILONERROR 1",
        "FOLLOWLOCATION 1",
        "SSL_VERIFYPEER 1",
        "SSL_VERIFYHOST 2",
        *([f'CAINFO "{ca_path}"'] if ca_path else []),
    ]
    return ["curl_easy_reset #1", *(f"curl_easy_setopt #1 {value}" for value in values), "curl_easy_perform #1"]


def digest(*sizes):
    updates = [f"EVP_DigestUpdate {size}" for size in sizes]
    return ["EVP_MD_CTX_new", "EVP_DigestInit_ex SHA256 null", *updates, "EVP_DigestFinal_ex 0", "EVP_MD_CTX_free"]


def extraction(path, *blocks):
    """Of one entry, with the size and the offset of its blocks."""
    return [
        "archive_read_next_header",
        "archive_entry_pathname",
        f'archive_entry_set_pathname "{path}"',
        "archive_write_header",
        *(line for block in blocks for line in ("archive_read_data_block", f"archive_write_data_block {block}")),
        "archive_read_data_block",
        "archive_entry_filetype",
    ]


def flush(path, flags=0):
    return [f'open "{path}" {flags}', "fsync", "close"]


@pytest.fixture
def scene(gateway, mirror, tmp_path, monkeypatch):
    (tmp_path / "working directory").mkdir()
    monkeypatch.chdir(tmp_path / "working directory")
    scene = Scene(gateway, mirror)
    scene.set_back()
    return scene


def test_update_makes_just_these_calls_in_order(scene, nginx):
    root, timeout = scene.gateway.root, 4294967295  # libcurl refuses such a time-out, and the daemon ignores that
    scene.gateway.settings["http_timeout_s"] = timeout
    url = f"{scene.gateway.settings['mirror_base_url']}/{scene.gateway.settings['mirror_subdir']}/antivir-v2-"
    stage = f"{root}/snapshots/{NEW}"
    first, second, index = (f"{stage}/{name}" for name in ("antivir-v2.def", "aivsecon-v2.def", "antivir-v2.ini"))
    cab, link, directory = f"{stage}/antivir-v2-{NEW}.cab", f"{root}/active", 0o200000
    calls = run(scene.gateway)[1]
    assert [line for number, line in enumerate(calls) if calls[number - 1 : number + 1] != ["fwrite 1"] * 2] == [
        'openlog "zel_quorin_updater" 3 24',
        "open zel_quorin_updater 3 24",
        "signal 15",
        "signal 2",
        "curl_global_init 3",
        "curl_easy_init",
        *transfer(f"{url}hit.ini", timeout, nginx.ca_path),
        *transfer(f"{url}c-{NEW}.ini", timeout, nginx.ca_path),
        f'fopen "{cab}.part" "wb"',
        *transfer(f"{url}{NEW}.cab", timeout, nginx.ca_path),
        "fwrite 1",
        "fclose",
        f'rename "{cab}.part" "{cab}"',
        *digest(65536, scene.archive_size - 65536),
        "archive_read_new",
        "archive_read_support_format_cab",
        "archive_read_support_format_zip",
        "archive_read_support_filter_all",
        "archive_write_disk_new",
        "archive_write_disk_set_options 6",
        f'archive_read_open_filename "{cab}" 65536',
        *extraction(first, "32768 0", "7232 32768"),
        *extraction(second, "25536 0", "14464 25536"),
        *extraction(index, "175 0"),
        "archive_read_next_header",
        "archive_read_free",
        "archive_write_free",
        *flush(first),
        *flush(second),
        *flush(index),
        *flush(stage, directory),
        f'remove "{cab}"',
        *digest(40000),
        *digest(40000),
        f'unlink "{link}.tmp"',
        f'symlink "snapshots/{NEW}" "{link}.tmp"',
        f'rename "{link}.tmp" "{link}"',
        *flush(root, directory),
        *published(NEW, FORMER),
        "closelog",
        "close",
        "curl_easy_cleanup #1",
        "curl_global_cleanup",
    ]


def test_empty_authority_path_sets_no_option(gateway):
    gateway.settings.update(ca_path="", mirror_base_url="file:///nowhere", mirror_subdir="x")
    calls = [line for line in run(gateway)[1] if line.startswith("curl_easy")]
    assert calls[1:-1] == transfer("file:///nowhere/x/antivir-v2-hit.ini", 60, "")


def test_file_of_whole_blocks_is_hashed_without_an_empty_update(gateway, mirror):
    mirror.write("blocks", b"x" * 131072)
    mirror.announce("1001", "blocks")
    assert only(run(gateway)[1], "EVP_DigestUpdate") == ["EVP_DigestUpdate 65536"] * 2


# Every call fails once.

STAGE = f"defs/snapshots/{NEW}"
CAB = f"{STAGE}/antivir-v2-{NEW}.cab"
NAMES = ("antivir-v2.def", "aivsecon-v2.def", "antivir-v2.ini")
FLUSHED = (*(f"{STAGE}/{name}" for name in NAMES), STAGE)
DIGESTS = [refused("CAB sha256 mismatch"), *(refused(f"sha256 mismatch {name}") for name in NAMES[:2])]
MEMORY, FATAL = 27, -30  # CURLE_OUT_OF_MEMORY, ARCHIVE_FATAL
NULL = FAILURE = 0
OTHER_RESULTS = (-10, -20, -25)  # ARCHIVE_RETRY, ARCHIVE_WARN, ARCHIVE_FAILED
NOT_EXTRACTED = (refused("CAB extract"), "archive_read_free archive_write_free err")
# The calls that follow an ignored result: those of an undisturbed update; or any.
UNCHANGED, ANY = "unchanged", "any"
IGNORED = (good(), UNCHANGED)


def not_fetched(line, status, then):
    return Outcome((line,), f"{FORMER}/{status}", frozenset(UNDONE)), then


def cannot_open(text):
    outcome = refused("CAB extract", f"err extract: cannot open @/{CAB}: {text}")
    return outcome, "err archive_read_free archive_write_free err"


NOT_WRITTEN = "Failed writing received data to disk/application"


def missing(name, *lines):
    return refused(f"CAB missing {name}", *lines), ANY


def crashed():
    """libarchive accepts no null pointer as a handle. A handle is only missing when memory is."""
    staged = {"snapshots/" + CAB.partition("snapshots/")[2], f"snapshots/{NEW}/"}
    return Outcome((), "before", frozenset(UNDONE | staged), -signal.SIGSEGV), ANY


def each(outcomes, then):
    return [(outcome, then) for outcome in outcomes]


# What the function returns when it fails, and by the number of the call the outcome and the names of the next calls
# to the end of the log; the last entry is for all further calls.
EXPECTED = {
    "signal": (errno.EINVAL, [IGNORED]),
    "curl_global_init": (MEMORY, [IGNORED]),
    "curl_easy_init": (NULL, [(Outcome((), f"{FORMER}/defId fetch failed", frozenset(UNDONE)), "")]),
    "curl_easy_reset": (FAILURE, [IGNORED]),  # returns nothing: left out
    "curl_easy_perform": (
        MEMORY,
        [
            not_fetched("err GET URL/antivir-v2-hit.ini: Out of memory", "defId fetch failed", "err"),
            not_fetched(
                f"err GET URL/antivir-v2-c-{NEW}.ini: Out of memory", f"complete-info fetch failed for {NEW}", "err"
            ),
            (not_downloaded("Out of memory"), "fclose err remove err"),
        ],
    ),
    "curl_easy_cleanup": (FAILURE, [IGNORED]),
    "curl_global_cleanup": (FAILURE, [IGNORED]),
    "fopen": (errno.EMFILE, [(refused("download CAB", f"err download_cab: cannot create @/{CAB}.part"), "err err")]),
    "fwrite": (errno.ENOSPC, [(not_downloaded(NOT_WRITTEN), "fclose err remove err")]),
    "fclose": (errno.EIO, [IGNORED]),
    "rename": (errno.EIO, [(refused("download CAB"), "err"), (unpublished("rename to active failed"), "err unlink")]),
    "remove": (errno.EIO, [IGNORED]),
    "EVP_MD_CTX_new": (NULL, each(DIGESTS, "err")),
    "EVP_DigestInit_ex": (FAILURE, each(DIGESTS, "EVP_MD_CTX_free err")),
    # Two blocks of the archive, then one of each definition file; a digest of less is another digest.
    "EVP_DigestUpdate": (
        FAILURE,
        [
            (DIGESTS[0], "EVP_DigestUpdate EVP_DigestFinal_ex EVP_MD_CTX_free err"),
            *each(DIGESTS, "EVP_DigestFinal_ex EVP_MD_CTX_free err"),
        ],
    ),
    "EVP_DigestFinal_ex": (FAILURE, each(DIGESTS, "EVP_MD_CTX_free err")),
    "EVP_MD_CTX_free": (FAILURE, [IGNORED]),
    "archive_read_new": (NULL, [crashed()]),
    "archive_read_support_format_cab": (FATAL, [(cannot_open("Unrecognized archive format")[0], ANY)]),
    "archive_read_support_format_zip": (FATAL, [IGNORED]),
    "archive_read_support_filter_all": (FATAL, [IGNORED]),
    "archive_write_disk_new": (NULL, [crashed()]),
    "archive_write_disk_set_options": (FATAL, [IGNORED]),
    "archive_read_open_filename": (FATAL, [cannot_open("(null)")]),
    # Anything that ends the headers counts as the end of the archive; without the index nothing is checked.
    "archive_read_next_header": (FATAL, [missing(NAMES[0]), missing(NAMES[1]), (good(), ANY), IGNORED]),
    # It gets the name of the staging directory, which is there.
    "archive_entry_pathname": (
        NULL,
        each([NOT_EXTRACTED[0]], f"archive_entry_set_pathname archive_write_header {NOT_EXTRACTED[1]}"),
    ),
    # The entry keeps its name, and is written to the working directory, which is the test's own.
    "archive_entry_set_pathname": (
        FAILURE,
        [
            missing(NAMES[0], f"warning fsync: open @/{FLUSHED[0]} failed"),
            missing(NAMES[1], f"warning fsync: open @/{FLUSHED[1]} failed"),
            (unflushed(f"open @/{FLUSHED[2]}"), ANY),
        ],
    ),
    "archive_write_header": (FATAL, [NOT_EXTRACTED]),
    "archive_read_data_block": (FATAL, [NOT_EXTRACTED]),
    "archive_write_data_block": (FATAL, each((DIGESTS[1], DIGESTS[1], DIGESTS[2], DIGESTS[2], good()), ANY)),
    "archive_entry_filetype": (FAILURE, [(good(), ANY)]),  # what is no regular file is not flushed
    "archive_read_free": (FATAL, [IGNORED]),
    "archive_write_free": (FATAL, [IGNORED]),
    "open": (
        errno.EMFILE,
        [*((unflushed(f"open @/{path}"), "warning ...") for path in FLUSHED), (good(), "info info")],
    ),
    "fsync": (errno.EIO, [*((unflushed(f"@/{path}"), "close warning ...") for path in FLUSHED), IGNORED]),
    "close": (errno.EIO, [IGNORED]),
    "unlink": (errno.EIO, [IGNORED]),
    "symlink": (errno.ENOSPC, [(unpublished("symlink @/defs/active.tmp failed"), "err")]),
}
# Results that are neither a success nor the failure above, each at one call.
OTHERS = [
    ("EVP_DigestInit_ex", 1, 2, (DIGESTS[0], "EVP_MD_CTX_free err")),
    *(("archive_read_next_header", 3, value, (good(), ANY)) for value in (1, *OTHER_RESULTS)),
    *(("archive_write_header", 2, value, NOT_EXTRACTED) for value in (1, *OTHER_RESULTS)),
    *(("archive_read_data_block", 2, value, NOT_EXTRACTED) for value in (2, *OTHER_RESULTS)),
    ("archive_write_data_block", 1, -25, (DIGESTS[1], ANY)),
]
# Of functions that only set or release something; without them memory leaks.
LEAKING = {"curl_easy_cleanup", "curl_global_cleanup", "EVP_MD_CTX_free", "archive_read_free", "archive_write_free"}


def names_of(calls):
    """The names of the calls; how often fwrite is called depends on the network."""
    names = [line.split()[0] for line in calls]
    return [name for number, name in enumerate(names) if name != "fwrite" or names[number - 1] != "fwrite"]


def check(scene, unbroken, function, number, value, expected):
    outcome, then = expected
    scene.set_back()
    process, calls = run(scene.gateway, f"{function}:{number}:{value}")
    outcome_of(scene, process, messages(calls)).expect(outcome, directory=scene.gateway.directory)
    names = names_of(calls)
    if then == UNCHANGED:
        assert [name for name in names if name != "fault"] == unbroken
    elif then != ANY:
        following = " ".join(names[names.index("fault") + 1 : names.index("closelog")])
        as_expected = following.startswith(then[:-3]) if then.endswith("...") else following == then
        assert as_expected, f"expected to follow: {then}; came: {following}"
    scene.heal()


LIBRARIES = {
    "curl": "curl_",
    "crypto": "EVP_",
    "read": "archive_read",
    "write": "archive_(write|entry)",
    "c": "[a-z]+$",
}


@pytest.mark.parametrize("library", LIBRARIES.values(), ids=LIBRARIES)
def test_failed_call_has_its_outcome_and_heals(scene, library, record_property):
    unbroken = names_of(run(scene.gateway)[1])
    counts = {name: unbroken.count(name) - (name in ("open", "close")) for name in unbroken}  # less those of the log
    assert counts.keys() - {"openlog", "closelog", "curl_easy_setopt", "info"} == EXPECTED.keys()
    tried = [
        (function, number, value, outcomes[min(number, len(outcomes)) - 1])
        for function, (value, outcomes) in EXPECTED.items()
        for number in range(1, counts[function] + 1)
    ]
    tried = [case for case in tried + OTHERS if re.match(library, case[0])]
    if SANITIZED:
        tried = [case for case in tried if case[0] not in LEAKING and case[3] != crashed()]
    scene.try_all(tried, lambda case: check(scene, unbroken, *case))
    record_property("library_calls_failed", len(tried))


@pytest.mark.parametrize("announced", ["0", "~"])
def test_refused_digest_matches_no_short_announcement(gateway, mirror, announced):
    mirror.publish("1001")
    ini = mirror.path("antivir-v2-c-1001.ini")
    ini.write_text(re.sub("SHA256=.*", f"SHA256={announced}", ini.read_text()))
    assert messages(run(gateway, "EVP_MD_CTX_new:1:0")[1]) == ["err run_once: staging failed: CAB sha256 mismatch"]


def test_single_cycle_runs_even_after_a_stop_signal(gateway, mirror):
    mirror.publish("1001")
    assert messages(run(gateway, "curl_global_init:1:term")[1]) == published("1001")


# With a wrong digest, which must not be found in what was read before.
@pytest.mark.parametrize("injection", ["openat:error=EACCES:when=3", "read:error=EIO:when=1", "read:error=EIO:when=2"])
def test_index_that_cannot_be_read_to_its_end_is_an_empty_one(gateway, mirror, injection):
    files = good_files("1001")
    files[2] = (files[2][0], b"antivir-v2.def.sha256 = 00\n" + b"; padding\n" * 20_000)  # would be a mismatch
    mirror.publish("1001", files)
    path = f"{gateway.root}/snapshots/1001/antivir-v2.ini"
    prefix = ["strace", "-f", "-qq", "-o", "/dev/null", "-P", path, "-e", f"inject={injection}"]
    assert gateway.run_once(prefix=prefix) == published("1001")


def test_failed_allocation_in_the_index_leaves_nothing_unchecked(gateway, mirror):
    if SANITIZED:
        pytest.skip("the sanitizers reserve more address space than the limit leaves")
    files = good_files("1001")
    files[1] = (files[1][0], b"tampered")
    files[2] = (files[2][0], b"; " + b"x" * 200_000_000 + b"\n" + files[2][1])
    archives.write_zip(mirror.path("big.zip"), files)
    mirror.announce("1001", "big.zip")
    process = gateway.run("--config", gateway.config_path, "--once", prefix=["prlimit", "--as=250000000"])
    assert process.returncode == -signal.SIGABRT
    assert "bad_alloc" in process.stderr
    assert messages(gateway.take_log()) == []
    assert not (gateway.root / "active").exists()


# The order of changes of the disk and of messages, by strace.


def trace_disk(gateway):
    """One cycle: the system calls that change the disk or list directories, in order, and the writes to the log."""
    trace = gateway.directory / "trace"
    calls = "mkdir,unlink,unlinkat,rmdir,openat,symlink,rename,write,getdents64"
    gateway.run_once(prefix=["strace", "-f", "-qq", "-s", "200", "-o", trace, "-e", f"trace={calls}"])
    return [line.split(maxsplit=1)[1] for line in trace.read_text().splitlines()]


def expect_order(trace, *calls):
    """Each of the calls, given by words that it has, is there once, and in this order."""
    found = [[number for number, line in enumerate(trace) if all(word in line for word in words)] for words in calls]
    assert all(len(places) == 1 for places in found) and found == sorted(found), list(zip(calls, found))


def test_success_is_logged_after_pruning_and_the_status(gateway, mirror):
    gateway.settings["retained_snapshots"] = 1
    mirror.publish("1001")
    gateway.run_once()
    mirror.publish("1002")
    expect_order(
        trace_disk(gateway),
        ("write(", "published def snapshot 1002"),
        ("rmdir(", 'snapshots/1001"'),
        ("openat(", '/status/status.json"'),
        ("write(", "def snapshot updated: 1001 -> 1002"),
    )


def test_failed_staging_is_logged_then_removed_then_in_status(gateway, mirror):
    files = good_files("1001")
    files[1] = (files[1][0], b"tampered")
    mirror.publish("1001", files)
    trace = trace_disk(gateway)
    expect_order(
        trace,
        ("unlink(", "antivir-v2-1001.cab"),
        ("write(", "run_once: staging failed: sha256 mismatch aivsecon-v2.def"),
        ("unlinkat(", '"antivir-v2.ini"'),  # with all else, and not by a sweep
        ("rmdir(", 'snapshots/1001"'),
        ("openat(", '/status/status.json"'),
    )
    assert len([line for line in trace if line.startswith("unlink(") and "/snapshots/1001/" in line]) == 1


def test_directories_are_made_after_the_handle_in_order(gateway):
    gateway.settings.update(mirror_base_url="file:///nowhere", mirror_subdir="x")
    expect_order(trace_disk(gateway), ("mkdir(", "/snapshots"), ("mkdir(", '/status"'))
    gateway.take_log()
    injected = ["strace", "-f", "-qq", "-o", "/dev/null", "-e", "inject=mkdir:signal=KILL:when=1"]
    (gateway.root / "snapshots").rmdir()
    gateway.run("--config", gateway.config_path, "--once", calls=True, prefix=injected)
    assert "curl_easy_init" in gateway.log_path.read_text()


def test_tools_transfer_with_the_options_of_the_daemon(scene, tmp_path):
    """And, for each transfer, with options that only observe or bound it."""
    scene.gateway.settings["http_timeout_s"] = 300
    hit_and_info = [line for line in run(scene.gateway)[1] if "curl_easy_setopt" in line][: 2 * 9]
    scene.gateway.log_path = tmp_path / "calls"
    done = subprocess.run(
        [BUILD / "zqu-config", "check", "--online", scene.gateway.config_path],
        env=scene.gateway.environment(calls=True),
        capture_output=True,
        text=True,
        timeout=60,
    )
    assert "the mirror answers: release" in done.stdout
    transfers = [text.splitlines() for text in scene.gateway.log_path.read_text().split("curl_easy_reset")]
    options = [[re.sub("0x[0-9a-f]+", "#1", line) for line in lines if "_setopt" in line] for lines in transfers]
    network = [line for lines in options if "https:" in "".join(lines[:1]) for line in lines]
    observing = re.compile("MAXFILESIZE_LARGE|FILETIME|NOPROGRESS|(PREREQ|XFERINFO|SSL_CTX_)(FUNCTION|DATA)")
    assert [line for line in network if not observing.search(line)] == hit_and_info
    assert len(network) == len(hit_and_info) + 2 * 9

"""Every call of a library, and of a system function, that the daemon's own code makes in an update fails once: what
follows is exactly what the table below tells, and one clean run heals it."""

import collections
import errno
import signal

import pytest
from faults import DONE, FORMER, NEW, STAGED, UNDONE, Scene, good, outcome_of, refused, unflushed, unpublished
from gateway import SANITIZED
from outcomes import Outcome, published

STAGE = f"defs/snapshots/{NEW}"
CAB = f"{STAGE}/antivir-v2-{NEW}.cab"
NAMES = ("antivir-v2.def", "aivsecon-v2.def", "antivir-v2.ini")
FILES = [f"{STAGE}/{name}" for name in NAMES]
DIGESTS = [refused("CAB sha256 mismatch"), *(refused(f"sha256 mismatch {name}") for name in NAMES[:2])]
MEMORY, FATAL = 27, -30  # CURLE_OUT_OF_MEMORY, ARCHIVE_FATAL
NULL = FAILURE = 0
NOT_EXTRACTED = refused("CAB extract")


def cannot_open(text):
    return refused("CAB extract", f"err extract: cannot open @/{CAB}: {text}")


def missing(name, *lines):
    return refused(f"CAB missing {name}", *lines)


def crashed():
    """libarchive takes no null pointer for a handle. A handle is only missing for want of memory."""
    staged = {"snapshots/" + CAB.partition("snapshots/")[2], f"snapshots/{NEW}/"}
    return Outcome((), "before", frozenset(UNDONE | staged), -signal.SIGSEGV)


# What the function gives when it fails, and the outcomes by the number of the call, the last one standing for all
# further ones. A result that is not looked at has a good outcome.
EXPECTED = {
    "signal": (errno.EINVAL, [good()]),
    "curl_global_init": (MEMORY, [good()]),
    "curl_easy_init": (NULL, [Outcome((), f"{FORMER}/defId fetch failed", frozenset(UNDONE))]),
    "curl_easy_reset": (FAILURE, [good()]),  # returns nothing: left out
    "curl_easy_perform": (
        MEMORY,
        [
            Outcome(("err GET HIT: Out of memory",), f"{FORMER}/defId fetch failed", frozenset(UNDONE)),
            Outcome(
                ("err GET INFO: Out of memory",), f"{FORMER}/complete-info fetch failed for {NEW}", frozenset(UNDONE)
            ),
            refused("download CAB", "err download_cab URL: Out of memory"),
        ],
    ),
    "curl_easy_cleanup": (FAILURE, [good()]),
    "curl_global_cleanup": (FAILURE, [good()]),
    "fopen": (errno.EMFILE, [refused("download CAB", f"err download_cab: cannot create @/{CAB}.part")]),
    "fwrite": (
        errno.ENOSPC,
        [refused("download CAB", "err download_cab URL: Failed writing received data to disk/application")],
    ),
    "fclose": (errno.EIO, [good()]),
    "rename": (errno.EIO, [refused("download CAB"), unpublished("rename to active failed")]),
    "remove": (errno.EIO, [good()]),
    "EVP_MD_CTX_new": (NULL, DIGESTS),
    "EVP_DigestInit_ex": (FAILURE, DIGESTS),
    # Two blocks of the archive, then one of each definition file; a digest of less is another digest.
    "EVP_DigestUpdate": (FAILURE, [DIGESTS[0], *DIGESTS]),
    "EVP_DigestFinal_ex": (FAILURE, DIGESTS),
    "EVP_MD_CTX_free": (FAILURE, [good()]),
    "archive_read_new": (NULL, [crashed()]),
    "archive_read_support_format_cab": (FATAL, [cannot_open("Unrecognized archive format")]),
    "archive_read_support_format_zip": (FATAL, [good()]),
    "archive_read_support_filter_all": (FATAL, [good()]),
    "archive_write_disk_new": (NULL, [crashed()]),
    "archive_write_disk_set_options": (FATAL, [good()]),
    "archive_read_open_filename": (FATAL, [cannot_open("(null)")]),
    # Whatever ends the headers is taken for the end of the archive; without the index nothing is checked.
    "archive_read_next_header": (FATAL, [missing(NAMES[0]), missing(NAMES[1]), good(), good()]),
    "archive_entry_pathname": (NULL, [NOT_EXTRACTED]),
    # The entry keeps its name, and is written to the working directory, which is the test's own.
    "archive_entry_set_pathname": (
        FAILURE,
        [
            missing(NAMES[0], f"warning fsync: open @/{FILES[0]} failed"),
            missing(NAMES[1], f"warning fsync: open @/{FILES[1]} failed"),
            unflushed(f"open @/{FILES[2]}"),
        ],
    ),
    "archive_write_header": (FATAL, [NOT_EXTRACTED]),
    "archive_read_data_block": (FATAL, [NOT_EXTRACTED]),
    "archive_write_data_block": (FATAL, [DIGESTS[1], DIGESTS[1], DIGESTS[2], DIGESTS[2], good()]),
    "archive_entry_filetype": (FAILURE, [good()]),
    "archive_read_free": (FATAL, [good()]),
    "archive_write_free": (FATAL, [good()]),
    "open": (errno.EMFILE, [*(unflushed(f"open @/{path}") for path in (*FILES, STAGE)), good()]),
    "fsync": (errno.EIO, [*(unflushed(f"@/{path}") for path in (*FILES, STAGE)), good()]),
    "close": (errno.EIO, [good()]),
    "unlink": (errno.EIO, [good()]),
    "symlink": (errno.ENOSPC, [unpublished("symlink @/defs/active.tmp failed")]),
}
# Of functions that only set something or let go of it; leaving them out leaks.
LEAKING = {"curl_easy_cleanup", "curl_global_cleanup", "EVP_MD_CTX_free", "archive_read_free", "archive_write_free"}


@pytest.fixture
def scene(gateway, mirror, tmp_path, monkeypatch):
    (tmp_path / "working directory").mkdir()
    monkeypatch.chdir(tmp_path / "working directory")
    return Scene(gateway, mirror)


def run(scene, **environment):
    scene.set_back()
    return scene.gateway.run("--config", scene.gateway.config_path, "--once", calls=True, **environment)


def calls_of_update(scene):
    """How often an update calls each function that can fail."""
    run(scene)
    names = collections.Counter(line.split()[0] for line in scene.gateway.log_path.read_text().splitlines())
    names -= collections.Counter(close=1, open=1)  # of the log
    others = {"openlog", "closelog", "curl_easy_setopt", "info"}
    return {name: count for name, count in names.items() if name not in others}


def outcome_with_fault(scene, function, number, value):
    process = run(scene, ZQU_FAULT=f"{function}:{number}:{value}")
    lines = scene.gateway.log_path.read_text().splitlines()
    assert f"fault {function}:{number}:{value}" in lines
    told = [line for line in lines if line.split()[0] in ("err", "warning", "info")]
    url = f"{scene.gateway.settings['mirror_base_url']}/{scene.gateway.settings['mirror_subdir']}/antivir-v2-"
    told = [line.replace(f"{url}hit.ini", "HIT").replace(f"{url}c-{NEW}.ini", "INFO") for line in told]
    scene.gateway.log_path.write_text("".join(f"{line}\n" for line in told))
    return outcome_of(scene, process)


def test_failed_library_call_has_the_outcome_told_and_one_clean_run_heals_it(scene, record_property):
    faults = []
    calls = calls_of_update(scene)
    assert calls.keys() ^ EXPECTED.keys() == set()
    tried = [
        (function, number, *EXPECTED[function])
        for function, count in calls.items()
        for number in range(1, count + 1)
        if not (SANITIZED and (function in LEAKING or crashed() in EXPECTED[function][1]))
    ]
    for function, number, value, outcomes in tried:
        try:
            found = outcome_with_fault(scene, function, number, value)
            assert found == outcomes[min(number, len(outcomes)) - 1]
            scene.heal()
        except AssertionError as fault:
            faults.append(f"{function} #{number}: {fault}")
    assert not faults, "\n".join(faults)
    record_property("library_calls_failed", len(tried))


def test_unbroken_update_is_good(scene):
    process = run(scene)
    lines = [line for line in scene.gateway.take_log() if line.startswith("info")]
    assert (process.returncode, lines) == (0, published(NEW, FORMER))
    assert set(scene.gateway.listing()) == DONE != STAGED

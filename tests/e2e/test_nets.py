"""The tests, tested: copies of the daemon that are broken on purpose, each of which some test has to catch."""

import contextlib
import os
import re
import subprocess

import builds
import pytest
from gateway import SANITIZED

pytestmark = [
    pytest.mark.long,
    pytest.mark.skipif(SANITIZED, reason="builds its own daemons, with and without the sanitizers"),
]

VARIANTS = {"plain": [], "sanitized": ["-DZQU_SANITIZE=address,undefined"]}
UPDATE = "e2e/test_update.py::test_first_update_publishes_the_release"
CALLS = "e2e/test_calls.py::test_update_makes_just_these_calls_in_order"
POWER_CUTS = "faults/test_power_cuts.py"
READERS = "e2e/test_readers.py::test_link_never_leads_nowhere_or_to_a_mixed_set"

# The source, what stands there only once, and what takes its place.
NEVER_FREED = ("verifier.cpp", "{ archive_read_free(reader); }", "{ static_cast<void>(reader); }")
DIGEST_NEVER_FREED = ("verifier.cpp", "{ EVP_MD_CTX_free(ctx); }", "{ static_cast<void>(ctx); }")
LINK_REMOVED_FIRST = (
    "snapshot_store.cpp",
    "if (std::rename(temporary.c_str(), active_link().c_str()) != 0) {",
    "unlink(temporary.c_str());\n"
    "    unlink(active_link().c_str());\n"
    "    if (symlink(target.c_str(), active_link().c_str()) != 0) {",
)
STAGED_IN_SERVICE = (
    "snapshot_store.cpp",
    'std::string dir = snapshots_root() + "/" + version;',
    'std::string dir = snapshots_root() + "/" + active_version().value_or(version);',
)
FILES_UNFLUSHED = ("verifier.cpp", "fsync_path(file, false);", "static_cast<void>(file);")
DIRECTORY_UNFLUSHED = ("verifier.cpp", "fsync_path(dest_dir, true);", "")
LINK_UNFLUSHED = ("snapshot_store.cpp", "flush_directory(cfg_.def_root);", "")

LEAK = r"SUMMARY: AddressSanitizer: \d+ byte\(s\) leaked"
SEEN = r"^E +assert \((?!0, 0, 0)\d+, \d+, \d+\) == \(0, 0, 0\)$"

# Which test catches which break, on which variant, and what it says. After a power cut the files are empty or cannot be
# read, or the old link is back.
NETS = {
    "reader_freed": (NEVER_FREED, "sanitized", UPDATE, LEAK),
    "digest_freed": (DIGEST_NEVER_FREED, "sanitized", UPDATE, LEAK),
    "calls": (FILES_UNFLUSHED, "plain", CALLS, r"^E +- +'fsync',$"),
    "link_kept": (LINK_REMOVED_FIRST, "plain", READERS, SEEN),
    "snapshot_kept": (STAGED_IN_SERVICE, "plain", READERS, SEEN),
    "files_flushed": (FILES_UNFLUSHED, "plain", POWER_CUTS, r"^E .*1002 is broken"),
    # Not by a power cut: ext4 writes the directory of a new file with the file.
    "directory_flushed": (DIRECTORY_UNFLUSHED, "plain", CALLS, r"^E +- +'fsync',$"),
    "link_flushed": (LINK_UNFLUSHED, "plain", POWER_CUTS, r"^E .*assert '1001' in \{'1002'\}"),
}


@pytest.fixture(scope="module")
def copy(tmp_path_factory):
    return builds.copy_sources(tmp_path_factory.mktemp("broken") / "copy")


def build(copy, variant):
    return builds.build(
        copy,
        *["-DCMAKE_BUILD_TYPE=Debug", "-DZQU_BUILD_TOOLS=OFF", "-DZQU_BUILD_TESTS=ON", *VARIANTS[variant]],
        folder=f"build-{variant}",
        targets=["zel_quorin_updater", "zqu_log_shim", "zqu_call_shim"],
    )


@contextlib.contextmanager
def broken(source, before, after):
    whole = source.read_text()
    builds.replace_once(source, before, after)
    try:
        yield
    finally:
        source.write_text(whole)


def run(folder, tests):
    """Runs tests of this suite against the programs in a folder; the exit status and the output."""
    tests = [builds.REPOSITORY / "tests" / test for test in tests]
    process = subprocess.run(
        ["/usr/bin/python3", "-m", "pytest", "-vv", "--no-header", f"--basetemp={folder / 'e2e'}", *tests],
        env={**os.environ, "ZQU_BUILD_DIR": str(folder)},
        cwd=builds.REPOSITORY,
        capture_output=True,
        text=True,
    )
    return process.returncode, process.stdout


@pytest.mark.parametrize("variant", VARIANTS)
def test_unbroken_copy_passes(copy, variant):
    tests = sorted({test for _, its_variant, test, _ in NETS.values() if its_variant == variant})
    status, output = run(build(copy, variant), tests)
    assert status == 0, output


@pytest.mark.parametrize("change, variant, test, said", NETS.values(), ids=NETS)
def test_broken_copy_is_caught(copy, change, variant, test, said):
    source, before, after = change
    with broken(copy / "src" / source, before, after):
        status, output = run(build(copy, variant), [test])
    assert status == 1, output
    assert re.search(said, output, re.MULTILINE), output

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

UPDATE = "test_update.py::test_first_update_publishes_the_release"
EXTRACTION = "test_calls.py::test_extraction_calls_its_library_in_order"
DIGEST = "test_calls.py::test_digest_is_computed_in_blocks_of_64_kib"
POWER_CUTS = "../faults/test_power_cuts.py"
READERS = "test_readers.py::test_link_is_never_missing_and_never_leads_to_a_mixed_set"

# What is broken: the source, what stands there only once, and what takes its place.
BREAKS = {
    "reader of the archive is never freed": (
        "verifier.cpp",
        "{ archive_read_free(reader); }",
        "{ static_cast<void>(reader); }",
    ),
    "context of the digest is never freed": (
        "verifier.cpp",
        "{ EVP_MD_CTX_free(ctx); }",
        "{ static_cast<void>(ctx); }",
    ),
    "link is removed before it is made": (
        "snapshot_store.cpp",
        "if (std::rename(temporary.c_str(), active_link().c_str()) != 0) {",
        "unlink(temporary.c_str());\n"
        "    unlink(active_link().c_str());\n"
        "    if (symlink(target.c_str(), active_link().c_str()) != 0) {",
    ),
    "files are put into the snapshot in service": (
        "snapshot_store.cpp",
        'std::string dir = snapshots_root() + "/" + version;',
        'std::string dir = snapshots_root() + "/" + active_version().value_or(version);',
    ),
    "files are not flushed": ("verifier.cpp", "fsync_path(file, false);", "static_cast<void>(file);"),
    "their directory is not flushed": ("verifier.cpp", "fsync_path(dest_dir, true);", ""),
    "directory of the link is not flushed": ("snapshot_store.cpp", "flush_directory(cfg_.def_root);", ""),
}

LEAK = r"SUMMARY: AddressSanitizer: \d+ byte\(s\) leaked"
SEEN = r"^E +assert \((?!0, 0, 0)\d+, \d+, \d+\) == \(0, 0, 0\)$"


def missing(call):
    """What a test says whose list of calls lacks one."""
    return f"^E +- +'{call}',$"


# Which test catches it, on which variant, and what it says.
NETS = [
    ("reader of the archive is never freed", "sanitized", UPDATE, LEAK),
    ("reader of the archive is never freed", "plain", EXTRACTION, missing("archive_read_free")),
    ("context of the digest is never freed", "sanitized", UPDATE, LEAK),
    ("context of the digest is never freed", "plain", DIGEST, missing("EVP_MD_CTX_free")),
    ("link is removed before it is made", "plain", READERS, SEEN),
    ("files are put into the snapshot in service", "plain", READERS, SEEN),
    ("files are not flushed", "plain", EXTRACTION, missing("fsync")),
    ("their directory is not flushed", "plain", EXTRACTION, missing("fsync")),
    ("directory of the link is not flushed", "plain", EXTRACTION, missing("fsync")),
    # After a power cut the files are empty, or cannot be read, or the old link is back.
    ("files are not flushed", "plain", POWER_CUTS, r"^E .*1002 is broken"),
    ("their directory is not flushed", "plain", POWER_CUTS, r"^E .*(Input/output error|1002 is broken|is missing)"),
    ("directory of the link is not flushed", "plain", POWER_CUTS, r"^E .*assert '1001' in \{'1002'\}"),
]


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
    tests = [builds.REPOSITORY / "tests" / "e2e" / test for test in tests]
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
    tests = sorted({test for _, its_variant, test, _ in NETS if its_variant == variant})
    status, output = run(build(copy, variant), tests)
    assert status == 0, output


@pytest.mark.parametrize(
    "name, variant, test, said", NETS, ids=[f"{name} ({variant}, {test})" for name, variant, test, _ in NETS]
)
def test_broken_copy_is_caught(copy, name, variant, test, said):
    source, before, after = BREAKS[name]
    with broken(copy / "src" / source, before, after):
        status, output = run(build(copy, variant), [test])
    assert status == 1, output
    assert re.search(said, output, re.MULTILINE), output

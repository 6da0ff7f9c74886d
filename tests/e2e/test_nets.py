"""The tests, tested where scripts/mutants does not go: copies of the daemon that are broken on purpose."""

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

UPDATE = "e2e/test_update.py::test_update_makes_three_requests_and_a_check_one"
POWER_CUTS = "faults/test_power_cuts.py"
READERS = "e2e/test_readers.py"
PLAIN, SANITIZE = "-DZQU_SANITIZE=", "-DZQU_SANITIZE=address,undefined"

# The source, what stands there only once, what takes its place, the option of the build, the test that catches it, and
# what that says. After a power cut the files are empty or cannot be read, or the old link is back.
NETS = {
    "reader_freed": (
        "verifier.cpp",
        "{ archive_read_free(reader); }",
        "{ static_cast<void>(reader); }",
        (SANITIZE, UPDATE, r"SUMMARY: AddressSanitizer: \d+ byte\(s\) leaked"),
    ),
    "link_kept": (
        "snapshot_store.cpp",
        "if (std::rename(temporary.c_str(), active_link().c_str()) != 0) {",
        "unlink(temporary.c_str());\n"
        "    unlink(active_link().c_str());\n"
        "    if (symlink(target.c_str(), active_link().c_str()) != 0) {",
        (PLAIN, READERS, r"^E .*'no link'"),
    ),
    "snapshot_kept": (
        "snapshot_store.cpp",
        'std::string dir = snapshots_root() + "/" + version;',
        'std::string dir = snapshots_root() + "/" + active_version().value_or(version);',
        (PLAIN, READERS, r"^E .*'(mixed|file vanished)'"),
    ),
    "files_flushed": (
        "verifier.cpp",
        "fsync_path(file, false);",
        "static_cast<void>(file);",
        (PLAIN, POWER_CUTS, r"^E .*1002 is broken"),
    ),
    "link_flushed": (
        "snapshot_store.cpp",
        "flush_directory(cfg_.def_root);",
        "",
        (PLAIN, POWER_CUTS, r"^E .*assert '1001' in \{'1002'\}"),
    ),
}


@pytest.mark.parametrize("name, before, after, net", NETS.values(), ids=NETS)
def test_broken_copy_is_caught(tmp_path, name, before, after, net):
    option, test, said = net
    copy = builds.copy_sources(tmp_path / "copy")
    text = (copy / "src" / name).read_text()
    assert text.count(before) == 1
    (copy / "src" / name).write_text(text.replace(before, after))
    options = ["-DCMAKE_BUILD_TYPE=Debug", "-DZQU_BUILD_TOOLS=OFF", "-DZQU_BUILD_TESTS=ON", option]
    directory = builds.build(copy, *options, targets=["zel_quorin_updater", "zqu_log_shim"])
    process = subprocess.run(
        ["/usr/bin/python3", "-m", "pytest", "-vv", "--no-header", f"--basetemp={tmp_path / 'e2e'}", test],
        env={**os.environ, "ZQU_BUILD_DIR": str(directory)},
        cwd=builds.REPOSITORY / "tests",
        capture_output=True,
        text=True,
    )
    assert process.returncode == 1, process.stdout
    assert re.search(said, process.stdout, re.MULTILINE), process.stdout

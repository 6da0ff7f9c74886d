"""The contents and needs of the packages, the findings of both linters, and that building again gives the same."""

import os
import pathlib
import re
import subprocess
import tempfile

import pytest
from booted_gateway import CONFIG
from builds import REPOSITORY, copy_sources
from packages import EPOCH, RELEASE, run

DOC = "/usr/share/doc/zel-quorin-updater"
MIRROR_DOC = "/usr/share/doc/zel-quorin-mirror"
COMPLETIONS = "/usr/share/bash-completion/completions"
PAGES = """consumers.md design.md mirrors.md monitoring.md operations.md performance.md security.md troubleshooting.md
without-systemd.md copyright images/fleet.png performance/fleet.svg performance/pieces.svg performance/update.svg"""
UPDATER = [
    "-rwxr-xr-x /usr/bin/zqu-config",
    "-rwxr-xr-x /usr/bin/zqu-status",
    "-rw-r--r-- /usr/lib/systemd/system/zel_quorin_updater-retry.timer",
    "-rw-r--r-- /usr/lib/systemd/system/zel_quorin_updater.service",
    "-rw-r--r-- /usr/lib/systemd/system/zqu-status.service",
    "-rw-r--r-- /usr/lib/systemd/system/zqu-status.timer",
    "-rw-r--r-- /usr/lib/sysusers.d/zel_quorin_updater.conf",
    "-rw-r--r-- /usr/lib/tmpfiles.d/zel_quorin_updater.conf",
    "-rwxr-xr-x /usr/libexec/zel-quorin-prepare",
    f"-rw-r--r-- {CONFIG}",
    "-rwxr-xr-x /usr/sbin/zel_quorin_updater",
    f"-rw-r--r-- {COMPLETIONS}/zqu-config",
    f"-rw-r--r-- {COMPLETIONS}/zqu-status",
    *(f"-rw-r--r-- {DOC}/{page}" for page in PAGES.split()),
    f"-rw-r--r-- {DOC}/examples/zel-quorin-reload.path",
    f"-rw-r--r-- {DOC}/examples/zel-quorin-reload.service",
    f"-rw-r--r-- {DOC}/examples/zel-quorin-reload.timer",
    f"-rw-r--r-- {DOC}/monitoring/zel-quorin-fleet.html",
    f"-rw-r--r-- {DOC}/monitoring/zel-quorin-updater.dashboard.json",
    f"-rw-r--r-- {DOC}/monitoring/zel-quorin-updater.rules.yml",
    "-rw-r--r-- /usr/share/man/man1/zqu-config.1.gz",
    "-rw-r--r-- /usr/share/man/man1/zqu-status.1.gz",
    "-rw-r--r-- /usr/share/man/man5/zel_quorin_updater.conf.5.gz",
    "-rw-r--r-- /usr/share/man/man8/zel_quorin_updater.8.gz",
]
MIRROR = [
    "-rwxr-xr-x /usr/bin/zqu-mirror",
    f"-rw-r--r-- {COMPLETIONS}/zqu-mirror",
    *(f"-rw-r--r-- {MIRROR_DOC}/{page}" for page in PAGES.split()),
    f"-rw-r--r-- {MIRROR_DOC}/examples/zqu-mirror-advance",
    f"-rw-r--r-- {MIRROR_DOC}/examples/zqu-mirror-advance.service",
    f"-rw-r--r-- {MIRROR_DOC}/examples/zqu-mirror-advance.timer",
    f"-rw-r--r-- {MIRROR_DOC}/examples/zqu-mirror-sync.service",
    f"-rw-r--r-- {MIRROR_DOC}/examples/zqu-mirror-sync.timer",
    "-rw-r--r-- /usr/share/man/man1/zqu-mirror.1.gz",
]
# What a .deb has besides.
DEBIAN = {
    "updater": [
        "-rw-r--r-- /usr/share/doc/zel-quorin-updater/changelog.gz",
        "-rw-r--r-- /usr/share/lintian/overrides/zel-quorin-updater",
    ],
    "mirror": ["-rw-r--r-- /usr/share/doc/zel-quorin-mirror/changelog.gz"],
}
# The directories that an .rpm makes, and takes away again; all others are the system's.
DIRECTORIES = {
    "updater": [
        "/usr/local/zelgw",
        "/usr/local/zelgw/opt",
        "/usr/local/zelgw/opt/av",
        "/usr/local/zelgw/opt/av/quorin",
        "/usr/local/zelgw/opt/av/quorin/etc",
        DOC,
        f"{DOC}/examples",
        f"{DOC}/images",
        f"{DOC}/monitoring",
        f"{DOC}/performance",
    ],
    "mirror": [MIRROR_DOC, *(f"{MIRROR_DOC}/{name}" for name in ("examples", "images", "performance"))],
}


def by_name(lines):
    return sorted(lines, key=lambda line: line.split()[1])


def listed(words):
    """Parts (mode, owner, group, name) of each into lines of files with their modes, and names of directories."""
    words = list(words)
    assert {(owner, group) for _, owner, group, _ in words} == {("root", "root")}
    assert {mode for mode, _, _, _ in words if mode.startswith("d")} == {"drwxr-xr-x"}
    files = [f"{mode} {name}" for mode, _, _, name in words if not mode.startswith("d")]
    return by_name(files), sorted(name for mode, _, _, name in words if mode.startswith("d"))


@pytest.mark.parametrize("name, files", [("updater", UPDATER), ("mirror", MIRROR)])
def test_deb_holds_just_these_files_with_these_modes(packages, name, files):
    lines = run("dpkg-deb", "--contents", packages.deb(name)).splitlines()
    words = (line.split() for line in lines)
    found, _ = listed((mode, *owners.split("/"), path.lstrip(".")) for mode, owners, _, _, _, path in words)
    assert found == by_name(files + DEBIAN[name])


@pytest.mark.parametrize("name, files", [("updater", UPDATER), ("mirror", MIRROR)])
def test_rpm_holds_just_these_files_with_these_modes(packages, name, files):
    query = "[%{FILEMODES:perms} %{FILEUSERNAME} %{FILEGROUPNAME} %{FILENAMES}\n]"
    lines = run("rpm", "--query", "--package", "--queryformat", query, packages.rpm(name)).splitlines()
    found, directories = listed(line.split() for line in lines)
    assert (found, directories) == (by_name(files), DIRECTORIES[name])


def test_configuration_is_marked_as_such_in_both_kinds(packages):
    assert run("dpkg-deb", "--info", packages.deb(), "conffiles") == CONFIG + "\n"
    query = ["rpm", "--query", "--package", "--queryformat", "[%{FILENAMES} %{FILEFLAGS:fflags}\n]", packages.rpm()]
    flags = dict(line.split(" ") for line in run(*query).splitlines())
    assert {name: flag for name, flag in flags.items() if "c" in flag} == {CONFIG: "cn"}  # %config(noreplace)


def test_deb_needs_no_interpreter_and_nothing_of_zqu_mirror(packages):
    output = run("dpkg-deb", "--field", packages.deb(), "Depends", "Pre-Depends", "Recommends")
    needed = dict(line.split(": ", 1) for line in output.splitlines())
    names = {dependency.split()[0].removesuffix("t64") for dependency in needed.pop("Depends").split(", ")}
    libraries = {"libarchive13", "libc6", "libcurl4", "libgcc-s1", "libssl3", "libstdc++6"}
    assert names - {"libunistring2", "libunistring5"} == {*libraries, "libsystemd0", "systemd"}
    assert needed == {"Recommends": "ca-certificates, dbus"}


def test_versions_are_that_of_the_changelog_with_the_release(packages):
    version = re.search(r"\((.+?)\)", (REPOSITORY / "debian" / "changelog").read_text())[1]
    for name in ("updater", "mirror"):
        assert run("dpkg-deb", "--field", packages.deb(name), "Version") == f"{version}+deb{RELEASE}\n"
        query = ["--queryformat", "%{VERSION}-%{RELEASE}", packages.rpm(name)]
        assert run("rpm", "--query", "--package", *query) == f"{version}-1"


def test_lintian_finds_nothing_beyond_what_is_explained(packages):
    options = ["--allow-root", "--profile", "debian", "--fail-on", "warning,error"]
    assert run("lintian", *options, *packages.first.glob("*.d*")) == ""


def test_rpmlint_finds_nothing_beyond_what_is_explained(packages):
    config = REPOSITORY / "packaging" / "rpm" / "rpmlint.toml"
    output = run("rpmlint", "--config", config, packages.rpm(), packages.rpm("mirror"), *packages.first.glob("*.spec"))
    assert re.search(r"2 packages and 1 specfiles checked; 0 errors, 0 warnings", output), output


def contents(directory):
    return {path.name: path.read_bytes() for path in sorted(directory.iterdir())}


def test_packing_again_under_other_circumstances_is_the_same(packages):
    assert len(contents(packages.first)) == 6
    assert contents(packages.again) == contents(packages.first)


@pytest.fixture
def open_directory():
    """A directory that every user can reach, unlike those of pytest."""
    with tempfile.TemporaryDirectory(dir="/var/tmp") as directory:
        os.chmod(directory, 0o755)
        yield pathlib.Path(directory)


@pytest.mark.long
def test_building_a_commit_elsewhere_as_another_user_is_the_same(packages, open_directory):
    sources = copy_sources(open_directory / "a" / "deeper" / "place")
    identity = ["-c", "user.name=somebody", "-c", "user.email=somebody@example.invalid"]
    dates = {"GIT_COMMITTER_DATE": f"@{EPOCH} +0000", "GIT_AUTHOR_DATE": "@1 +0000"}
    run("git", "-C", sources, "init", "--quiet")
    run("git", "-C", sources, "add", "--all")
    run("git", "-C", sources, *identity, "commit", "--quiet", "-m", "all", env={**os.environ, **dates})
    (sources / "src" / "main.cpp").write_text("not committed\n")
    become = []
    if os.geteuid() == 0:
        run("chown", "-R", "nobody:nogroup", open_directory)
        become = ["setpriv", "--reuid=nobody", "--regid=nogroup", "--clear-groups"]
    command = [*become, sources / "scripts" / "package", "--commit", "HEAD", "--output", open_directory / "output"]
    run(*command, env={"PATH": os.environ["PATH"], "LANG": "C.UTF-8", "TMPDIR": "/var/tmp"}, umask=0o027)
    assert contents(open_directory / "output") == contents(packages.first)


def test_script_says_what_it_takes_and_refuses_the_rest():
    script = REPOSITORY / "scripts" / "package"
    assert run(script, "--help").startswith("usage: scripts/package [--deb]")
    for wrong in (["--outptu"], ["--output"]):
        assert subprocess.run([script, *wrong], capture_output=True).returncode == 2

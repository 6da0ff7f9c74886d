"""What `cmake --install` puts where, and that the daemon runs as a service from there."""

import os

import booted
import pytest
from builds import REPOSITORY
from gateway import BUILD, SANITIZED
from outcomes import listing
from packages import CONFIG, SERVICE, Site, run
from test_packages import MIRROR, UPDATER

PREFIX = "/usr/local"
pytestmark = pytest.mark.skipif(SANITIZED, reason="the sanitized build is not for installing")


def install(target, *options):
    return run("cmake", "--install", BUILD, *options, env={**os.environ, "DESTDIR": str(target)})


def test_installing_to_a_folder_puts_everything_below_the_prefix(tmp_path):
    install(tmp_path)
    names = [line.split()[1] for line in UPDATER + MIRROR]
    expected = [name if name == CONFIG else name.replace("/usr", PREFIX, 1) for name in names]
    assert sorted("/" + name for name in listing(tmp_path) if not name.endswith("/")) == sorted(expected)
    unit = (tmp_path / f"usr/local/lib/systemd/system/{SERVICE}").read_text()
    assert f"\nExecStart={PREFIX}/sbin/zel_quorin_updater\n" in unit


@pytest.mark.parametrize("prefix", ["/usr", "/opt/zqu"])
def test_units_name_the_programs_below_the_prefix_of_the_installation(tmp_path, prefix):
    install(tmp_path, "--prefix", prefix)
    for unit, program in ((SERVICE, "sbin/zel_quorin_updater"), ("zqu-status.service", "bin/zqu-status")):
        lines = (tmp_path / f"{prefix}/lib/systemd/system/{unit}".lstrip("/")).read_text().splitlines()
        names = [line.split()[0] for line in lines if line.startswith(("ExecStart=", "ExecPaths="))]
        assert names == [f"ExecStart={prefix}/{program}", f"ExecPaths={prefix}/{program}"]
        assert (tmp_path / f"{prefix}/{program}".lstrip("/")).exists()


def test_installing_again_keeps_an_edited_configuration(tmp_path):
    install(tmp_path)
    configuration = tmp_path / CONFIG.lstrip("/")
    assert configuration.read_text() == (REPOSITORY / "packaging" / "zel_quorin_updater.conf").read_text()
    assert configuration.stat().st_mode == 0o100644
    configuration.write_text("mirror_base_url = https://mirror.example\n")
    assert f"-- Keeping: {configuration}\n" in install(tmp_path)
    assert configuration.read_text() == "mirror_base_url = https://mirror.example\n"


@pytest.fixture
def site(tmp_path):
    why_not = booted.why_not_bootable()
    if why_not:
        pytest.skip(why_not)
    made = Site(tmp_path, BUILD, REPOSITORY)
    yield made
    made.end()


CHROOT = """
cd "$1"
mount -t tmpfs tmpfs .
mkdir usr proc sys dev tmp harness
for folder in usr proc sys dev; do mount --rbind "/$folder" "$folder"; done
mount --bind "$2" harness
ln -s usr/bin usr/lib usr/lib64 usr/sbin .
PYTHONPATH=/harness exec chroot . python3 -c 'import booted; print(booted.why_not_bootable())'
"""


@pytest.mark.skipif(bool(booted.why_not_bootable()), reason=booted.why_not_bootable())
def test_no_system_is_booted_in_a_chroot(tmp_path):
    """Its commands would be run in the system around the chroot."""
    told = run("unshare", "--mount", "sh", "-ec", CHROOT, "sh", tmp_path, REPOSITORY / "tests" / "harness")
    assert told == "booting a system does not go in a chroot\n"


def test_service_runs_from_below_usr_local(site):
    site.machine.run("cmake", "--install", BUILD)
    for command in (
        ["systemd-sysusers", "zel_quorin_updater.conf"],
        ["systemd-tmpfiles", "--create", "zel_quorin_updater.conf"],
        ["systemctl", "daemon-reload"],
    ):
        assert " ".join(command) in (REPOSITORY / "docs" / "packaging.md").read_text()
        site.machine.run(*command)
    site.serve()
    assert site.machine.show(SERVICE, "FragmentPath") == f"{PREFIX}/lib/systemd/system/{SERVICE}"
    process = site.machine.show(SERVICE, "MainPID")
    assert site.machine.out("readlink", f"/proc/{process}/exe") == f"{PREFIX}/sbin/zel_quorin_updater"

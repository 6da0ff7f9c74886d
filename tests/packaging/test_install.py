"""What `cmake --install` installs, and where; tests/confinement/ runs it."""

import pytest
from booted_gateway import CONFIG, UNIT, install
from builds import REPOSITORY
from gateway import SANITIZED
from outcomes import listing
from test_packages import MIRROR, UPDATER

pytestmark = pytest.mark.skipif(SANITIZED, reason="the sanitized build is not for installing")


def test_installing_puts_everything_below_the_prefix(tmp_path):
    install(tmp_path)
    names = [line.split()[1] for line in UPDATER + MIRROR]
    expected = [name if name == CONFIG else name.replace("/usr", "/usr/local", 1) for name in names]
    assert sorted("/" + name for name in listing(tmp_path) if not name.endswith("/")) == sorted(expected)


def test_units_name_the_programs_below_the_prefix(tmp_path):
    prefix = "/opt/zqu"
    install(tmp_path, "--prefix", prefix)
    for unit, program in ((UNIT, "sbin/zel_quorin_updater"), ("zqu-status.service", "bin/zqu-status")):
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

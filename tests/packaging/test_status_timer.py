"""The timer for a node exporter, in a booted system, with its own user and all of its confinement."""

import re
import shutil
import stat

import booted
import pytest
from builds import REPOSITORY
from gateway import BUILD, DAEMON
from mirrors import Mirror, Nginx

pytestmark = pytest.mark.skipif(bool(booted.why_not_bootable()), reason=booted.why_not_bootable() or "")

SHIPPED = BUILD / "packaging"
HOME = "/usr/local/zelgw/opt/av/quorin"
WRITTEN = "/run/zqu-status/zel-quorin-updater.prom"


class Site:
    """A booted gateway with the tool, its units and the daemon's user and folders as they are installed."""

    def __init__(self, folder):
        self.machine = booted.Booted(folder, BUILD)
        self.nginx = self.machine.in_network(lambda: Nginx(folder))
        self.mirror = Mirror(self.nginx.root, "defs")
        unit = (SHIPPED / "zqu-status.service").read_text()
        program = re.search(r"^ExecStart=(\S+)", unit, re.MULTILINE)[1]
        self.copy(BUILD / "zqu-status", program)
        self.copy(SHIPPED / "zqu-status.service", "/etc/systemd/system/zqu-status.service")
        timer = REPOSITORY / "packaging" / "monitoring" / "zqu-status.timer"
        self.copy(timer, "/etc/systemd/system/zqu-status.timer")
        self.copy(REPOSITORY / "packaging" / "sysusers.d" / "zel_quorin_updater.conf", "/etc/sysusers.d/zqu.conf")
        self.copy(SHIPPED / "tmpfiles.d" / "zel_quorin_updater.conf", "/etc/tmpfiles.d/zqu.conf")
        self.machine.run("systemd-sysusers")
        self.machine.run("systemd-tmpfiles", "--create", "/etc/tmpfiles.d/zqu.conf")
        self.configure()
        self.machine.run("systemctl", "daemon-reload")

    def copy(self, source, target):
        path = self.machine.path(target)
        path.parent.mkdir(parents=True, exist_ok=True)
        shutil.copy(source, path)

    def configure(self):
        path = self.machine.path(f"{HOME}/etc/zel_quorin_updater.conf")
        path.parent.mkdir(parents=True, exist_ok=True)
        ca = self.machine.path(f"{HOME}/etc/ca.pem")
        shutil.copy(self.nginx.ca_path, ca)
        path.write_text(
            f"mirror_base_url = {self.nginx.url()}\nmirror_subdir = defs\nca_path = {HOME}/etc/ca.pem\n"
            "engine_version = 7\n"
        )

    def update(self):
        self.machine.run(self.daemon_program(), "--once", user="zel-quorin")

    def daemon_program(self):
        self.copy(DAEMON, "/usr/local/sbin/zel_quorin_updater")
        return "/usr/local/sbin/zel_quorin_updater"

    def end(self):
        self.nginx.stop()
        self.machine.end()


@pytest.fixture
def site(tmp_path):
    made = Site(tmp_path)
    yield made
    made.end()


def test_timer_writes_the_metrics_as_the_confined_user_however_the_gateway_fares(site):
    def look():
        site.machine.run("systemctl", "start", "zqu-status.service")
        assert site.machine.show("zqu-status.service", "Result") == "success"
        return site.machine.path(WRITTEN).read_text()

    assert 'zelquorin_verdict{verdict="critical"} 1\n' in look()
    site.mirror.publish("1001")
    site.update()
    text = look()
    assert 'zelquorin_verdict{verdict="ok"} 1\n' in text
    assert 'zelquorin_release_info{version="1001",flavor="v2",engine_version="7"} 1\n' in text
    found = site.machine.path(WRITTEN).lstat()
    assert (stat.S_IMODE(found.st_mode), found.st_uid) == (0o644, int(site.machine.out("id", "-u", "zel-quorin")))
    # The node exporter's own user reads it, by the link.
    site.machine.run("ln", "-s", WRITTEN, "/var/lib/prometheus/node-exporter/")
    linked = f"/var/lib/prometheus/node-exporter/{WRITTEN.rpartition('/')[2]}"
    assert site.machine.out("cat", linked, user="prometheus") == text.rstrip("\n")
    site.machine.path(f"{HOME}/etc/zel_quorin_updater.conf").write_text("poll_interval_s = x\n")
    assert 'zelquorin_finding{finding="config_malformed"} 1\n' in look()
    # The timer starts it, too.
    site.machine.path(WRITTEN).unlink()
    site.machine.run("systemctl", "start", "zqu-status.timer")
    site.machine.wait_for(site.machine.path(WRITTEN).exists, seconds=100)


def test_units_are_well_formed_and_confined(site):
    units = ["zqu-status.service", "zqu-status.timer"]
    process = site.machine.run("systemd-analyze", "verify", "--man=no", *units)
    assert [line for line in process.stderr.splitlines() if "zqu-status" in line] == []
    security = site.machine.out("systemd-analyze", "security", "--no-pager", "zqu-status.service")
    level = float(re.search(r"exposure level for zqu-status.service: ([\d.]+)", security)[1])
    assert level <= 0.8

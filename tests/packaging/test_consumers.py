"""The sample units for whoever uses the definitions, in a booted system, with the real daemon updating."""

import os
import re
import shutil
import subprocess
import textwrap

import booted
import pytest
from builds import REPOSITORY
from gateway import BUILD, DAEMON
from mirrors import Mirror, Nginx

pytestmark = pytest.mark.skipif(bool(booted.why_not_bootable()), reason=booted.why_not_bootable() or "")

SAMPLES = REPOSITORY / "packaging" / "consumer"
DEFS = "/usr/local/zelgw/opt/av/quorin/defs"
# Stands for a mail filter: its log says which release each load found, by the definitions themselves.
FILTER = f"""\
[Service]
Type=oneshot
RemainAfterExit=yes
ExecStart=/bin/true
ExecReload=/bin/sh -ec 'cd -P {DEFS}/active && sed -n "1s/.* of //p" antivir-v2.def >>/var/log/loads'
"""


class Site:
    """A booted gateway with the samples installed, and its mirror."""

    def __init__(self, folder):
        self.machine = booted.Booted(folder, BUILD)
        self.nginx = self.machine.in_network(lambda: Nginx(folder))
        self.mirror = Mirror(self.nginx.root, "defs")
        self.config = folder / "updater.conf"
        self.config.write_text(
            f"mirror_base_url = {self.nginx.url()}\nmirror_subdir = defs\nca_path = {self.nginx.ca_path}\n"
        )
        units = self.machine.path("/etc/systemd/system")
        for sample in SAMPLES.iterdir():
            shutil.copy(sample, units)
        (units / "mail-filter.service").write_text(FILTER)
        # A daemon that runs has made both. Made by the first update, the latter would have the path unit start the
        # service when there is nothing to load yet, and what is published before that has ended is left to the timer.
        self.machine.run("mkdir", "-p", f"{DEFS}/manifest", f"{DEFS}/snapshots")
        self.machine.run("systemctl", "daemon-reload")
        self.machine.run("systemctl", "start", "mail-filter.service")

    def update_to(self, version):
        self.mirror.publish(version)
        self.machine.run(DAEMON, "--config", self.config, "--once")
        assert os.readlink(self.machine.path(f"{DEFS}/active")) == f"snapshots/{version}"

    def loads(self):
        log = self.machine.path("/var/log/loads")
        return log.read_text().split() if log.exists() else []

    def end(self):
        self.nginx.stop()
        self.machine.end()


@pytest.fixture
def site(tmp_path):
    made = Site(tmp_path)
    yield made
    made.end()


def test_each_of_ten_updates_is_loaded_once(site):
    site.machine.run("systemctl", "start", "zel-quorin-reload.path")
    releases = [str(1000 + number) for number in range(10)]
    for number, release in enumerate(releases):
        site.update_to(release)
        site.machine.wait_for(lambda: site.loads() == releases[: number + 1])
        site.machine.wait_for(lambda: site.machine.show("zel-quorin-reload.service", "ActiveState") == "inactive")
    site.machine.run(DAEMON, "--config", site.config, "--once")  # nothing new
    site.machine.run("systemctl", "start", "zel-quorin-reload.service")  # as the timer does
    assert site.loads() == releases


def test_update_that_comes_while_another_is_loaded_is_loaded_too(site):
    drop_in = site.machine.path("/etc/systemd/system/mail-filter.service.d")
    drop_in.mkdir()
    slow = "[Service]\nExecReload=/bin/sh -ec 'touch /run/loading; while [ -e /run/loading ]; do sleep 0.05; done'\n"
    (drop_in / "slow.conf").write_text(slow)
    site.machine.run("systemctl", "daemon-reload")
    site.machine.run("systemctl", "start", "zel-quorin-reload.path")
    site.update_to("1001")
    site.machine.wait_for(lambda: site.machine.path("/run/loading").exists())
    site.update_to("1002")
    site.machine.path("/run/loading").unlink()
    site.machine.wait_for(lambda: site.machine.path("/run/loading").exists())
    site.machine.path("/run/loading").unlink()
    site.machine.wait_for(lambda: site.machine.show("zel-quorin-reload.service", "ActiveState") == "inactive")
    assert site.loads() == ["1001", "1002"]


def test_id_with_a_backslash_is_loaded_once(site):
    site.update_to("1001\\c")
    site.machine.run("timeout", "20", "systemctl", "start", "zel-quorin-reload.service")
    assert site.loads() == ["1001\\c"]
    site.machine.run("timeout", "20", "systemctl", "start", "zel-quorin-reload.service")
    assert site.loads() == ["1001\\c"]


def test_nothing_is_loaded_while_no_definitions_are_in_service(site):
    site.update_to("1001")
    site.machine.run("systemctl", "start", "zel-quorin-reload.service")
    site.machine.run("rm", f"{DEFS}/active")
    site.machine.run("systemctl", "start", "zel-quorin-reload.service")
    assert site.loads() == ["1001"]
    assert site.machine.show("mail-filter.service", "Result") == "success"


def test_load_that_failed_is_tried_again_by_the_next_look(site):
    drop_in = site.machine.path("/etc/systemd/system/mail-filter.service.d")
    drop_in.mkdir()
    (drop_in / "broken.conf").write_text("[Service]\nExecReload=/bin/false\n")
    site.machine.run("systemctl", "daemon-reload")
    site.update_to("1001")
    assert site.machine.run("systemctl", "start", "zel-quorin-reload.service", check=False).returncode != 0
    (drop_in / "broken.conf").unlink()
    site.machine.run("systemctl", "daemon-reload")
    site.machine.run("systemctl", "start", "zel-quorin-reload.service")
    assert site.loads()[-1] == "1001"


def test_c_lines_of_the_page_open_both_files_of_the_release_in_service(site, tmp_path):
    lines = re.findall(r"^    (int \w+ = open.*;)$", (REPOSITORY / "docs" / "consumers.md").read_text(), re.MULTILINE)
    program = "#include <fcntl.h>\nint main() {\n" + "\n".join(lines) + "\nreturn antivir < 0 || aivsecon < 0;\n}\n"
    (tmp_path / "reader.cpp").write_text(program)
    subprocess.run(["g++", "-o", tmp_path / "reader", tmp_path / "reader.cpp"], check=True)
    assert site.machine.run(tmp_path / "reader", check=False).returncode == 1
    site.update_to("1001")
    site.machine.run(tmp_path / "reader")


def test_units_are_such_as_systemd_takes_without_a_word(site):
    names = [f"/etc/systemd/system/{sample.name}" for sample in sorted(SAMPLES.iterdir())]
    process = site.machine.run("systemd-analyze", "verify", "--man=no", *names)
    assert process.stdout + process.stderr == ""


def test_page_shows_the_sample_as_it_is():
    page = (REPOSITORY / "docs" / "consumers.md").read_text()
    for name in ("zel-quorin-reload.path", "zel-quorin-reload.service"):
        text = (SAMPLES / name).read_text()
        body = "".join(line + "\n" for line in text.splitlines() if not line.startswith("#"))
        assert textwrap.indent(body.strip(), "    ").replace("    \n", "\n") in page, name

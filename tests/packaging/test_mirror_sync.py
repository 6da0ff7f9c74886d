"""The sample units that keep a mirror in step with an upstream one: as systemd reads them, and in a booted system."""

import os
import re
import shutil
import subprocess

import booted
import pytest
from builds import REPOSITORY
from gateway import BUILD, SANITIZED
from mirror_tool import SUBDIR, TOOL
from mirrors import Mirror, Nginx

SAMPLES = REPOSITORY / "packaging" / "mirror"
SERVICE = "zqu-mirror-sync.service"
INSTALLED = "/usr/bin/zqu-mirror"  # by the package


def service_text(upstream="https://definitions.zelgw.example", options=""):
    """The service as the sample says that it is to be set for a site."""
    text = (SAMPLES / SERVICE).read_text()
    assert text.count("ExecStart=zqu-mirror ") == 2
    text, count = re.subn(r"(?m)^(Environment=UPSTREAM=).*", rf"\g<1>{upstream}", text)
    assert count == 1
    return text.replace("=zqu-mirror mirror ", f"=zqu-mirror mirror {options}")


@pytest.mark.skipif(shutil.which("systemd-analyze") is None, reason="needs systemd-analyze (package systemd)")
def test_systemd_finds_nothing_wrong_with_the_units(tmp_path):
    (tmp_path / SERVICE).write_text(service_text().replace("=zqu-mirror ", f"={TOOL} "))
    shutil.copy(SAMPLES / "zqu-mirror-sync.timer", tmp_path)
    units = sorted(tmp_path.iterdir())
    verified = subprocess.run(
        ["systemd-analyze", "verify", "--man=no", "--recursive-errors=no", *units], capture_output=True, text=True
    )
    assert (verified.returncode, verified.stdout, verified.stderr) == (0, "", "")
    rated = ["systemd-analyze", "security", "--offline=yes", "--threshold=15", "--no-pager", tmp_path / SERVICE]
    assert subprocess.run(rated, stdout=subprocess.DEVNULL).returncode == 0


class Site:
    """A booted mirror with the units installed, and its upstream."""

    def __init__(self, folder):
        self.machine = booted.Booted(folder)
        self.nginx = self.machine.in_network(lambda: Nginx(folder))
        self.upstream = Mirror(self.nginx.root, SUBDIR)
        # The unit sees neither /tmp nor /home, where the folder may lie.
        shutil.copy(TOOL, self.machine.path(INSTALLED))
        shutil.copy(self.nginx.ca_path, self.machine.path("/etc/upstream-ca.pem"))
        units = self.machine.path("/etc/systemd/system")
        (units / SERVICE).write_text(service_text(self.nginx.url(), "--ca /etc/upstream-ca.pem "))
        timer = (SAMPLES / "zqu-mirror-sync.timer").read_text()
        at_once = timer.replace("OnBootSec=2min", "OnActiveSec=0").replace("RandomizedDelaySec=2min\n", "")
        (units / "zqu-mirror-sync.timer").write_text(at_once)
        for command in re.findall(r"^#     (.*)$", (SAMPLES / SERVICE).read_text(), re.MULTILINE):
            self.machine.run(*command.split())
        self.machine.run("systemctl", "daemon-reload")
        self.folder = self.machine.path(f"/srv/mirror/{SUBDIR}")

    def sync(self, check=True):
        return self.machine.run("systemctl", "start", SERVICE, check=check).returncode

    def is_over(self):
        return self.machine.show(SERVICE, "ActiveState") in ("inactive", "failed")

    def expect_copy_of(self, id):
        assert (self.folder / "antivir-v2-hit.ini").read_text() == f"[Current]\ndefId = {id}\n"
        for name in (f"antivir-v2-c-{id}.ini", f"antivir-v2-{id}.cab"):
            assert (self.folder / name).read_bytes() == self.upstream.path(name).read_bytes()
            assert (self.folder / name).stat().st_mode & 0o777 == 0o644

    def end(self):
        self.nginx.stop()
        self.machine.end()


@pytest.fixture
def site(tmp_path):
    if booted.why_not_bootable():
        pytest.skip(booted.why_not_bootable())
    if SANITIZED:
        pytest.skip("the sanitizers need more than the confined service may do")
    made = Site(tmp_path)
    yield made
    made.end()


def test_timer_starts_the_confined_service_which_copies_each_release_and_fails_without_a_trace(site):
    site.upstream.publish("1001")
    site.machine.run("systemctl", "start", "zqu-mirror-sync.timer")
    site.machine.wait_for(lambda: site.machine.show(SERVICE, "ExecMainExitTimestamp") and site.is_over())
    site.expect_copy_of("1001")
    site.upstream.publish("1002")
    site.sync()
    site.expect_copy_of("1002")
    site.sync()
    assert site.machine.journal(SERVICE)[-2:] == [
        "nothing new: 1002 is current",
        "removed in all: releases 0, leftovers 0, bytes 0",
    ]
    before = sorted(os.listdir(site.folder))
    site.upstream.path("antivir-v2-hit.ini").unlink()
    assert site.sync(check=False) == 1
    assert site.machine.show(SERVICE, "Result") == "exit-code"
    assert sorted(os.listdir(site.folder)) == before


def test_confined_service_writes_only_to_its_mirror_and_runs_nothing_else(site):
    """Tried from inside, by a probe in the place of the program."""
    places = "/etc /usr /usr/lib /usr/lib64 /var /opt /run /run/lock /dev/shm".split()
    for place in places:
        site.machine.run("install", "-d", "-m", "777", f"{place}/zqu-open")
        site.machine.run("install", "-m", "666", "/dev/null", f"{place}/zqu-open/file")
    shutil.copy(BUILD / "zqu_probe", site.machine.path(INSTALLED))
    site.sync()
    found = dict(line.split(": ", 1) for line in site.machine.journal(SERVICE) if ": " in line)
    tries = {f"write {place}/zqu-open/file": "EROFS" for place in places[:-2]}
    tries |= {f"write {place}/zqu-open/file": "EACCES" for place in places[-2:]}
    tries |= {"run /bin/true": "EACCES", "run /bin/true by the loader": "refused by the loader"}
    assert {name: found.get(name) for name in tries} == tries

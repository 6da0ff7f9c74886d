"""The sample units that keep a mirror in step with an upstream one, in a booted system."""

import os
import re

import pytest
from booted_gateway import AUTHORITY
from builds import REPOSITORY
from gateway import BUILD
from mirror_tool import SUBDIR
from release import HIT
from scripted_server import SUBDIR as SCRIPTED

SAMPLES = REPOSITORY / "packaging" / "mirror"
UNITS = "/etc/systemd/system"
SERVICE, TIMER = "zqu-mirror-sync.service", "zqu-mirror-sync.timer"
INSTALLED = "/usr/bin/zqu-mirror"  # by the package


class Site:
    """A booted mirror with the units, set as the sample says, and its upstream."""

    def __init__(self, gateway):
        self.machine = gateway
        text = (SAMPLES / SERVICE).read_text()
        for line, changed in (
            ("Environment=UPSTREAM=https://definitions.zelgw.example\n", f"Environment=UPSTREAM={self.upstream()}\n"),
            ("ExecStart=zqu-mirror mirror ", f"ExecStart=zqu-mirror mirror --ca {AUTHORITY} "),
        ):
            assert text.count(line) == 1
            text = text.replace(line, changed)
        gateway.put(f"{UNITS}/{SERVICE}", text)
        at_once = (SAMPLES / TIMER).read_text().replace("OnBootSec=2min", "OnActiveSec=0")
        gateway.put(f"{UNITS}/{TIMER}", at_once.replace("RandomizedDelaySec=2min\n", ""))
        gateway.run("rm", "-f", "/usr/local/bin/zqu-mirror")
        gateway.put(INSTALLED, (BUILD / "zqu-mirror").read_bytes(), 0o755)
        gateway.run("systemctl", "daemon-reload")
        self.folder = gateway.path(f"/srv/mirror/{SUBDIR}")

    def upstream(self):
        return self.machine.server.base("localhost").removesuffix(f"/{SCRIPTED}")

    def publish(self, version):
        release = self.machine.publish(version)
        script = self.machine.server.script
        self.machine.server.script = {f"/{SUBDIR}/{name}": steps for name, steps in script.items()}
        return release

    def sync(self, check=True):
        return self.machine.run("systemctl", "start", SERVICE, check=check).returncode

    def is_over(self):
        return self.machine.show(SERVICE, "ExecMainExitTimestamp") and self.machine.state(SERVICE) == "inactive"

    def expect_copy_of(self, release):
        assert (self.folder / HIT).read_text() == f"[Current]\ndefId = {release.version}\n"
        for name, content in release.files.values():
            assert name == HIT or (self.folder / name).read_bytes() == content
            assert (self.folder / name).stat().st_mode & 0o777 == 0o644


@pytest.fixture
def site(gateway):
    if "zqu-mirror" not in gateway.path("/etc/passwd").read_text():
        for command in re.findall(r"^#     (.*)$", (SAMPLES / SERVICE).read_text(), re.MULTILINE):
            gateway.run(*command.split())
    return Site(gateway)


def test_timer_starts_the_service_which_copies_each_release(site):
    """And fails without a trace."""
    first = site.publish("1001")
    site.machine.run("systemctl", "start", TIMER)
    site.machine.wait_for(site.is_over)
    site.expect_copy_of(first)
    second = site.publish("1002")
    site.sync()
    site.expect_copy_of(second)
    site.sync()
    assert site.machine.journal(SERVICE)[-2:] == [
        "nothing new: 1002 is current",
        "removed in all: releases 0, leftovers 0, bytes 0",
    ]
    before = sorted(os.listdir(site.folder))
    site.machine.server.script = {}
    assert site.sync(check=False) == 1
    assert site.machine.show(SERVICE, "Result") == "exit-code"
    assert sorted(os.listdir(site.folder)) == before


def test_service_writes_only_to_its_mirror_and_runs_nothing_else(site):
    """Tried from inside, by a probe in the place of the program."""
    places = "/etc /usr /usr/lib /usr/lib64 /var /opt /run /run/lock /dev/shm".split()
    for place in places:
        site.machine.run("install", "-d", "-m", "777", f"{place}/zqu-open")
        site.machine.put(f"{place}/zqu-open/file", "", 0o666)
    site.machine.put(INSTALLED, (BUILD / "zqu_probe").read_bytes(), 0o755)
    site.sync()
    found = dict(line.split(": ", 1) for line in site.machine.journal(SERVICE) if ": " in line)
    tries = {f"write {place}/zqu-open/file": "EROFS" for place in places[:-2]}
    tries |= {f"write {place}/zqu-open/file": "EACCES" for place in places[-2:]}
    tries |= {"run /bin/true": "EACCES", "run /bin/true by the loader": "refused by the loader"}
    assert {name: found.get(name) for name in tries} == tries

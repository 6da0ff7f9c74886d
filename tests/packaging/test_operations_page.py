"""The pages for those who run a gateway and those who read its definitions: what they say to do, done as it stands."""

import ctypes
import json
import os
import re
import shutil
import struct

import pytest
import trustme
from packages import CONFIG, DEFS, SERVICE
from pages import blocks

STATUS = f"{DEFS}/manifest/status.json"
DROP_IN = f"/etc/systemd/system/{SERVICE}.d/override.conf"
RESTART = "systemctl restart zel_quorin_updater"
USER = "mailfilter"  # whom a block lets read the definitions


class Gateway:
    """The system with the package installed the way the page says, in the hands of an administrator."""

    def __init__(self, site, deb):
        self.site, self.machine, self.mirror = site, site.machine, site.mirror
        self.folder = self.machine.path("/tmp/installation")
        self.folder.mkdir()
        self.folder.chmod(0o755)
        shutil.copy(deb, self.folder)
        # The editor writes what it finds in a file over what it is given, as somebody who types would.
        editor = self.folder / "editor"
        editor.write_text('#!/bin/sh\nfor last; do :; done\ncat /tmp/installation/text >"$last"\n')
        editor.chmod(0o755)
        self.type(f"mirror_base_url = {site.nginx.url()}\nmirror_subdir = defs\nca_path = /etc/mirror-ca.pem\n")
        self.machine.path("/etc/mirror-ca.pem").write_bytes(site.nginx.ca_path.read_bytes())

    def type(self, text):
        """What the administrator will write when an editor comes up."""
        (self.folder / "text").write_text(text)

    def take_new(self, version=None):
        """Has a release published, a new one unless told which, and taken; returns its id."""
        self.latest = version or str(int(self.latest) + 1)
        self.mirror.publish(self.latest)
        assert self.after(RESTART) == (self.latest, "")
        return self.latest

    def sh(self, script, **options):
        """Has the administrator's shell run it; each command has to succeed."""
        environment = "PATH=/tmp/installation:/usr/sbin:/usr/bin:/sbin:/bin"
        shell = ["env", "--chdir=/tmp/installation", environment, "EDITOR=editor", "DEBIAN_FRONTEND=noninteractive"]
        return self.machine.out(*shell, "sh", "-ec", script, **options)

    def edit_unit(self, text):
        """systemctl edit, which wants a terminal."""
        self.type(text)
        self.sh("script --quiet --return --command 'systemctl edit zel_quorin_updater' /dev/null")
        assert self.machine.path(DROP_IN).read_text().strip() == text.strip()

    def undo_drop_in(self):
        self.machine.run("rm", "-rf", os.path.dirname(DROP_IN))
        self.machine.run("systemctl", "daemon-reload")

    def after(self, script, status=STATUS):
        """Runs what ends in a check; returns the version then in service, and what was the matter."""
        path = self.machine.path(status)
        path.unlink(missing_ok=True)
        self.machine.run("systemctl", "reset-failed", SERVICE, check=False)
        self.sh(script)
        self.machine.wait_for(lambda: path.exists() and path.read_text().endswith("}\n"))
        told = json.loads(path.read_text())
        return told["active_version"], told["last_error"]

    def release(self, folder=DEFS, user=None):
        """Whose definitions whoever reads them gets."""
        lines = self.machine.out("cat", f"{folder}/active/antivir-v2.def", user=user).splitlines()
        return lines[0].removeprefix("antivir-v2.def of ")

    def requests(self):
        """The files that the mirror was asked for since this was asked last."""
        log = self.site.nginx.folder / "access.log"
        names = [line.split()[0].rpartition("/")[2] for line in log.read_text().splitlines()]
        os.truncate(log, 0)
        return names


@pytest.fixture(scope="module")
def gateway(installation, packages):
    """Installed by the page's block, and with a reader made so by the line for consumers."""
    made = Gateway(installation, packages.deb())
    (block,) = blocks("operations.md", "First installation")
    made.said = made.sh(block.replace("zqu-status\n", f"until [ -s {STATUS} ]; do sleep 0.1; done\nzqu-status\n"))
    made.latest = made.release()
    made.machine.run("useradd", "--no-create-home", USER)
    made.refused = made.machine.run("cat", f"{DEFS}/active/antivir-v2.def", user=USER, check=False).stderr
    (block,) = blocks("consumers.md", "May read")
    made.sh(block)
    return made


def test_first_installation_ends_with_definitions_in_service(gateway):
    """apt-get has no network here: all that the package needs is there already."""
    assert re.search(r"^verdict +OK$", gateway.said, re.MULTILINE), gateway.said
    assert (gateway.site.enabled(), gateway.site.active()) == ("enabled", "active")


def test_user_is_let_in_by_the_line_for_consumers(gateway):
    assert gateway.refused == f"cat: {DEFS}/active/antivir-v2.def: Permission denied\n"
    assert gateway.release(user=USER) == gateway.latest


def test_two_authorities_in_one_file_carry_over_a_change_of_the_mirrors_certificate(gateway):
    nginx, pem = gateway.site.nginx, gateway.machine.path("/etc/mirror-ca.pem")
    former, authority = pem.read_bytes(), trustme.CA()
    nginx.set_certificate(authority.issue_cert("localhost"))
    try:
        nginx.reload()
        assert gateway.after(RESTART) == (gateway.latest, "defId fetch failed")
        pem.write_bytes(former + authority.cert_pem.bytes())
        assert gateway.after(RESTART) == (gateway.latest, "")
    finally:
        nginx.set_certificate(nginx.leaves["good"])
        nginx.reload()
    assert gateway.after(RESTART) == (gateway.latest, "")


def test_no_proxy_spares_the_mirror_the_proxy_of_the_drop_in(gateway):
    (block,) = blocks("operations.md", "A proxy")
    gateway.edit_unit(block)
    try:
        assert gateway.after(RESTART) == (gateway.latest, "defId fetch failed")
        assert gateway.machine.journal(SERVICE)[-1].endswith(": Couldn't resolve proxy name")
        gateway.edit_unit(block + "Environment=no_proxy=localhost\n")
        assert gateway.after(RESTART) == (gateway.latest, "")
    finally:
        gateway.undo_drop_in()


def everything_below(gateway, folder):
    """Names, modes, owners, times, links and ACLs."""
    listed = gateway.machine.out("find", folder, "-printf", "%P %M %u:%g %T@ %l\\n")
    return sorted(listed.splitlines()), sorted(gateway.sh(f"cd {folder} && getfacl --recursive .").split("\n\n"))


def test_copy_of_the_root_filters_from_the_first_minute(gateway):
    gateway.sh(f"systemctl stop zel_quorin_updater; cp -a {DEFS} /srv/copy")
    before = everything_below(gateway, DEFS)
    gateway.sh(f"rm -r {DEFS}; cp -a /srv/copy {DEFS}; rm -r /srv/copy")
    assert everything_below(gateway, DEFS) == before
    assert gateway.release(user=USER) == gateway.latest
    gateway.requests()
    assert gateway.after("systemctl start zel_quorin_updater") == (gateway.latest, "")
    assert gateway.requests() == ["antivir-v2-hit.ini"]


def test_rollback_by_hand_lasts_until_the_service_is_started(gateway):
    """Which then takes what the mirror names: the bad release again, or the one after it."""
    (block,) = blocks("operations.md", "Rollback by hand")
    for version in ("1004", "1005"):
        gateway.take_new(version)
    for expected in ("1005", "1006"):
        assert gateway.sh(block).split()[:2] == ["1005", "1004"]
        assert gateway.site.active() == "inactive"
        assert (gateway.release(), gateway.release(user=USER)) == ("1004", "1004")
        gateway.mirror.publish(expected)
        assert gateway.after("systemctl start zel_quorin_updater") == (expected, "")
        assert gateway.release() == expected
    gateway.latest = "1006"


def test_link_that_leads_nowhere_is_restored_by_a_restart(gateway):
    """Without that, what is not there is taken for current."""
    (recipe,) = blocks("operations.md", "The root is out of order")
    version = gateway.take_new()
    gateway.machine.run("rm", "-r", f"{DEFS}/snapshots/{version}")
    assert gateway.after(recipe) == (version, "")
    assert gateway.release(user=USER) == version


MOVED = "/srv/definitions"


@pytest.fixture
def file_system(gateway):
    """One of its own for the definitions, and the gateway as it was afterwards."""
    former = gateway.machine.path(CONFIG).read_text()
    gateway.machine.path("/etc/fstab").write_text(f"tmpfs {MOVED} tmpfs nosuid,nodev 0 0\n")
    gateway.sh("systemctl daemon-reload; systemctl start srv-definitions.mount")
    yield
    gateway.sh(f"systemctl stop zel_quorin_updater srv-definitions.mount; rmdir {MOVED}; : >/etc/fstab")
    gateway.undo_drop_in()
    gateway.machine.path(CONFIG).write_text(former)
    assert gateway.after("systemctl start zel_quorin_updater") == (gateway.latest, "")


def test_moved_root_serves_its_readers_and_only_while_its_file_system_is_there(gateway, file_system):
    stop, settings, drop_in, copy, start = blocks("operations.md", "Moving the root")
    gateway.sh(stop)
    with open(gateway.machine.path(CONFIG), "a") as configuration:
        configuration.write(settings)
    gateway.edit_unit(drop_in)
    gateway.sh(copy)
    gateway.requests()
    moved = f"{MOVED}/manifest/status.json"
    assert gateway.after(start, status=moved) == (gateway.latest, "")
    permissions = [gateway.sh(f"cd {root} && getfacl . snapshots manifest") for root in (DEFS, MOVED)]
    assert permissions[0] == permissions[1]
    assert gateway.requests() == ["antivir-v2-hit.ini"]  # the snapshots came along
    mounts = gateway.machine.out("cat", f"/proc/{gateway.machine.show(SERVICE, 'MainPID')}/mountinfo").splitlines()
    (options,) = [line.split()[5] for line in mounts if line.split()[4] == MOVED]
    assert set(options.split(",")) >= {"rw", "noexec"}
    former, gateway.latest = gateway.latest, str(int(gateway.latest) + 1)
    gateway.mirror.publish(gateway.latest)
    assert gateway.after(RESTART, status=moved) == (gateway.latest, "")
    assert gateway.release(MOVED, user=USER) == gateway.latest
    assert gateway.release() == former  # what the old root holds
    writing = ["sh", "-c", f"echo >>{MOVED}/active/antivir-v2.def"]
    assert gateway.machine.run(*writing, user=USER, check=False).stderr.endswith("Permission denied\n")
    gateway.sh("systemctl stop srv-definitions.mount")
    assert gateway.site.active() == "inactive"


IN_MOVED_TO = 0x80
IN_ANY_CHANGE = 0x2 | 0x4 | 0x8 | 0x40 | 0x80 | 0x100 | 0x200 | 0x400 | 0x800  # all but opening, reading and closing it


class Watches:
    """inotify(7)."""

    def __init__(self):
        self.libc = ctypes.CDLL(None, use_errno=True)
        self.queue = os.fdopen(self.libc.inotify_init1(os.O_NONBLOCK), "rb", buffering=0)

    def add(self, path, mask):
        watch = self.libc.inotify_add_watch(self.queue.fileno(), os.fsencode(path), mask)
        assert watch > 0, os.strerror(ctypes.get_errno())
        return watch

    def events(self):
        """What has been told so far: watch, event, name."""
        data, found = self.queue.read(65536) or b"", []
        while data:
            watch, event, _, length = struct.unpack_from("iIII", data)
            found.append((watch, event, data[16 : 16 + length].rstrip(b"\0").decode()))
            data = data[16 + length :]
        return found


def watch_by_systemd(gateway, name, path):
    """A path unit that starts a service on the first change."""
    units = gateway.machine.path("/etc/systemd/system")
    (units / f"{name}.path").write_text(f"[Path]\nPathChanged={path}\n")
    (units / f"{name}.service").write_text("[Service]\nType=oneshot\nRemainAfterExit=yes\nExecStart=/bin/true\n")
    gateway.machine.run("systemctl", "daemon-reload")
    gateway.machine.run("systemctl", "start", f"{name}.path")


def test_watch_of_the_folder_sees_an_update_and_watch_of_the_link_sees_nothing(gateway):
    watch_by_systemd(gateway, "link", f"{DEFS}/active")
    watch_by_systemd(gateway, "folder", DEFS)
    watches = Watches()
    folder = watches.add(gateway.machine.path(DEFS), IN_MOVED_TO)
    watches.add(gateway.machine.path(f"{DEFS}/active"), IN_ANY_CHANGE)
    gateway.take_new()
    assert watches.events() == [(folder, IN_MOVED_TO, "active")]
    gateway.machine.wait_for(lambda: gateway.machine.show("folder.service", "ActiveState") == "active")
    assert gateway.machine.show("link.service", "ActiveState") == "inactive"

"""The packages, in a booted system: installed, upgraded, removed and purged, with the daemon at work."""

import json
import os
import re

import pytest
from booted_gateway import CONFIG, HOME, LAYOUT, PROGRAM, ROOT, UNIT
from packages import NEXT, RELEASE
from pages import scripts

NAME = "zel-quorin-updater"
DEB = "dpkg --force-confold"
# What it requires came with Debian's packages, which its own database does not name. In Debian 12 it has to be forced.
RPM = "rpm --dbpath /var/lib/rpm-of-tests --nodeps" + " --force-debian" * (RELEASE == "12")
COMMANDS = {
    "deb": {"install": f"{DEB} --install", "upgrade": f"{DEB} --install", "remove": "dpkg --remove"},
    "rpm": {"install": f"{RPM} --install", "upgrade": f"{RPM} --upgrade", "remove": f"{RPM} --erase"},
}
PURGE = {"deb": f"dpkg --purge {NAME}", "rpm": f"{RPM} --erase --allmatches {NAME}"}
HINT = f"{PROGRAM}: set mirror_base_url in {CONFIG}, then: systemctl enable --now {PROGRAM}"
MOVED = "/srv/definitions"
# That of versions in which the root belonged to the service's user.
OLD_LAYOUT = """
d {root} 0750 zel-quorin zel-quorin-readers -
a {root} - - - - user::rwx,group::r-x,other::---
a+ {root} - - - - default:user::rwx,default:group::r-x,default:group:zel-quorin-readers:r-x,default:other::r-x
d {root}/manifest 0755 zel-quorin zel-quorin -
d {root}/snapshots 0755 zel-quorin zel-quorin -
f {root}/manifest/status.json 0644 zel-quorin zel-quorin -
"""


class Package:
    """The updater's package of one kind, in a booted system."""

    def __init__(self, kind, gateway, packages):
        self.kind, self.gateway = kind, gateway
        self.first, self.next = (
            getattr(packages, kind)(directory=directory) for directory in (packages.first, packages.next)
        )

    def act(self, action, subject):
        return self.gateway.run(*COMMANDS[self.kind][action].split(), subject)

    def install(self):
        return self.act("install", self.first).stdout

    def upgrade(self):
        """To the next version, whose unit systemd has to know then, unless it is masked."""
        assert HINT not in self.act("upgrade", self.next).stdout
        description = UNIT if self.gateway.enabled() == "masked" else "The next version"
        assert self.gateway.show(UNIT, "Description") == description

    def remove(self):
        self.act("remove", NAME)

    def purge(self):
        return self.gateway.run(*PURGE[self.kind].split(), check=False)

    def clear(self):
        """Removes what a test has installed or left."""
        self.gateway.run("systemctl", "unmask", UNIT, check=False)
        self.purge()
        self.gateway.run("sh", "-c", f"rm -rf /usr/local/zelgw /srv/* /etc/systemd/system/{UNIT}.d")


@pytest.fixture
def deb(bare_gateway, packages):
    """The .deb, not installed yet."""
    package = Package("deb", bare_gateway, packages)
    yield package
    package.clear()


@pytest.fixture(params=["deb", "rpm"])
def package(request, bare_gateway, packages):
    """Either package, installed, and what that printed."""
    package = Package(request.param, bare_gateway, packages)
    package.said = package.install()
    yield package
    package.clear()


for_deb = pytest.mark.parametrize("package", ["deb"], indirect=True)


def serve(gateway):
    """The service is enabled, and has taken a release; returns the configuration."""
    text = gateway.configure()
    gateway.publish("1001")
    gateway.expect_check("1001", command=f"systemctl enable --now {UNIT}")
    return text


def how_it_runs(gateway):
    return gateway.enabled(), gateway.state()


def test_upgrade_restarts_and_removing_keeps_what_is_the_users(package):
    """Settings and definitions. Installing neither enables nor starts, and says in one line what to do."""
    gateway = package.gateway
    assert how_it_runs(gateway) == ("disabled", "inactive")
    assert [line for line in package.said.splitlines() if PROGRAM in line] == [HINT]
    assert gateway.entries() == LAYOUT
    text, definitions = serve(gateway), gateway.entries()
    former = gateway.show(UNIT, "MainPID")
    package.upgrade()
    assert how_it_runs(gateway) == ("enabled", "active")
    assert gateway.show(UNIT, "MainPID") != former
    assert gateway.path(CONFIG).read_text() == text
    assert gateway.entries() == definitions

    gateway.run("systemctl", "enable", "--now", "zqu-status.timer")
    gateway.run("systemctl", "start", "zqu-status.service")
    assert gateway.exists("/run/zqu-status/zel-quorin-updater.prom")
    package.remove()
    wants = [f"multi-user.target.wants/{UNIT}", "timers.target.wants/zqu-status.timer"]
    places = [*(f"/etc/systemd/system/{want}" for want in wants), "/run/zqu-status"]
    assert [path for path in places if gateway.exists(path)] == []
    assert gateway.state("zqu-status.timer") == "inactive"
    assert gateway.show(UNIT, "LoadState") == "not-found"
    assert gateway.run("pgrep", "-x", "zel_quorin_upda", check=False).stdout == ""
    assert gateway.path(CONFIG + (".rpmsave" if package.kind == "rpm" else "")).read_text() == text
    assert gateway.exists(CONFIG) == (package.kind == "deb")
    assert gateway.entries() == definitions
    package.install()
    assert how_it_runs(gateway) == ("disabled", "inactive")


@pytest.mark.parametrize("action, state", [("enable", "enabled"), ("mask", "masked")])
def test_upgrade_leaves_a_stopped_service_as_it_was(package, action, state):
    """And replaces a configuration that nobody has edited by the new one."""
    package.gateway.run("systemctl", action, UNIT)
    package.upgrade()
    assert package.gateway.path(CONFIG).read_text().endswith("# a line that came with the next version\n")
    assert how_it_runs(package.gateway) == (state, "inactive")
    if state == "masked":
        package.remove()
        package.install()
        assert how_it_runs(package.gateway) == ("masked", "inactive")


# Both kinds use the same script to change the root to the new layout; only the caller differs.
ROOTS = {"deb": ("deb", ROOT, False), "rpm": ("rpm", MOVED, False), "running": ("rpm", MOVED, True)}


@pytest.mark.parametrize("package, root, runs", ROOTS.values(), ids=ROOTS, indirect=["package"])
def test_upgrade_brings_an_older_root_to_the_new_layout(package, root, runs):
    """Also when a mirror had planted a link in place of the status file."""
    gateway = package.gateway
    gateway.run("sh", "-c", f"rm -r {ROOT}; mkdir -p {root}")
    gateway.put("/run/old.conf", OLD_LAYOUT.format(root=root))
    gateway.run("systemd-tmpfiles", "--create", "/run/old.conf")
    gateway.run("ln", "-sf", "/etc/passwd", f"{root}/manifest/status.json")
    gateway.configure(def_root=root, status_path=f"{root}/manifest/status.json")
    drop_in = f"[Service]\nReadWritePaths={root}\nNoExecPaths={root}\n"
    gateway.drop_in(f"{drop_in}ExecStartPre=\n")
    if runs:
        gateway.run("systemctl", "start", UNIT)
    gateway.put(f"/etc/systemd/system/{UNIT}.d/override.conf", drop_in)
    package.upgrade()
    entries = gateway.entries(root)
    assert {name: entries[name] for name in LAYOUT} == LAYOUT
    assert "group:zel-quorin-readers:r-x" in gateway.out("getfacl", "--absolute-names", root).split()


# A whole life, and what purging leaves.

# What others write meanwhile, and the users, which stay.
OTHERS_WRITE = ("/var/log", "/var/lib/systemd", "/var/lib/dpkg", "/var/cache", "/var/lib/rpm", "/tmp", "/run", "/dev")
ACCOUNTS = r"/etc/((passwd|group|shadow|gshadow|subuid|subgid)-?|\.pwd\.lock)"


def files(gateway):
    """What differs from this machine's files: all except directories that are the same there."""
    found = set()
    written = gateway.path("/run/written")
    for directory, directories, names in os.walk(written):
        place = f"/{os.path.relpath(directory, written)}/".replace("/./", "/")
        directories[:] = [name for name in directories if place + name not in OTHERS_WRITE]
        for path in (place + name for name in (*directories, *names)):
            stat = os.lstat(f"{written}{path}")
            kind = stat.st_mode, stat.st_uid, stat.st_gid
            own = os.lstat(path) if path.rpartition("/")[2] in directories and os.path.isdir(path) else None
            if not re.fullmatch(ACCOUNTS, path) and kind != (own and (own.st_mode, own.st_uid, own.st_gid)):
                found.add((path, *kind))
    return found


def verdict(gateway):
    return json.loads(gateway.run("zqu-status", "--json", check=False).stdout)["verdict"]


def test_whole_life_ends_with_the_system_as_it_was(deb):
    """Except for the users. In between the gateway is watched, updated and upgraded."""
    gateway = deb.gateway
    before = files(gateway)
    deb.install()
    assert len(files(gateway) - before) > 20
    assert verdict(gateway) == "critical"  # nothing is in service yet
    serve(gateway)
    assert "1001" in gateway.out("zqu-config", "check", "--online")
    assert verdict(gateway) == "ok"

    deb.upgrade()
    assert NEXT in gateway.out("dpkg-query", "--showformat=${Version}", "--show", NAME)
    gateway.publish("1003")
    gateway.expect_check("1003")
    assert verdict(gateway) == "ok"

    gateway.path(f"{ROOT}/active.tmp").symlink_to("snapshots/1000")  # as a crash leaves it
    assert deb.purge().returncode == 0
    assert files(gateway) ^ before == set()
    assert gateway.state() == "inactive"
    assert gateway.run("dpkg", "--status", NAME, check=False).returncode != 0
    assert gateway.out("id", "--user", "--name", "zel-quorin") == "zel-quorin"


OTHERS = "mkdir /srv/other; cd /srv/other; touch status.json 1001"
STAYS = f"{PROGRAM}: {ROOT} stays: something is mounted in its snapshots\n"
MOUNT = "snapshots/1001/more"
# What is done before, and which directories purging has to leave then; all of them when something is mounted.
KEPT = {
    "notes": (
        f"cd {HOME}; touch defs/notes defs/manifest/notes etc/notes",
        ["", "defs", "defs/manifest", "defs/manifest/notes", "defs/notes", "etc", "etc/notes"],
    ),
    "root_is_a_link": (f"systemctl stop {UNIT}; mv {ROOT} /srv/moved; ln -s /srv/moved {ROOT}", ["", "defs"]),
    "links_in_the_root": (
        f"{OTHERS}; for name in manifest snapshots; do rm -r {ROOT}/$name; ln -s /srv/other {ROOT}/$name; done",
        ["", "defs", "defs/manifest", "defs/snapshots"],
    ),
    "mount": (f"{OTHERS}; mkdir {ROOT}/{MOUNT}; mount --bind /srv/other {ROOT}/{MOUNT}", None),
}


@for_deb
@pytest.mark.parametrize("name", KEPT)
def test_purging_leaves_what_is_not_the_daemons(package, name):
    gateway = package.gateway
    before, kept = KEPT[name]
    serve(gateway)
    gateway.run("sh", "-ec", before)
    others = gateway.entries("/srv")
    assert (STAYS in package.purge().stderr) == (kept is None)
    gateway.run("umount", f"{ROOT}/{MOUNT}", check=False)
    assert gateway.entries("/srv") == others
    assert kept is None or sorted(gateway.entries(HOME)) == kept


def test_package_comes_and_goes_where_no_systemd_runs(deb):
    bare = ["unshare", "--mount", "sh", "-ec", 'mount -t tmpfs tmpfs /run; exec "$@"', "sh"]
    deb.gateway.run(*bare, "dpkg", "--install", deb.first)
    assert deb.gateway.entries() == LAYOUT
    assert deb.gateway.enabled() == "disabled"
    deb.gateway.run(*bare, "dpkg", "--purge", NAME)
    assert not deb.gateway.exists(ROOT)


def test_scripts_without_systemd_run_and_stop_the_daemon(deb):
    deb.install()
    gateway = deb.gateway
    page = "without-systemd.md"
    gateway.path(f"/etc/sv/{PROGRAM}").mkdir(parents=True)
    files = {
        f"/etc/sv/{PROGRAM}/run": scripts(page, "runit, and others that run a script")[0],
        f"/etc/init.d/{PROGRAM}": "#!/bin/sh\n" + scripts(page, "sysvinit")[0],
    }
    for path, text in files.items():
        gateway.path(path).write_text(text)
        gateway.path(path).chmod(0o755)
    gateway.configure()
    gateway.publish("1001")
    gateway.expect_check("1001", command=f"/etc/init.d/{PROGRAM} start")
    gateway.run(f"/etc/init.d/{PROGRAM}", "start")
    [process] = gateway.out("pgrep", "-x", "zel_quorin_upda").split()
    status = dict(line.split(":", 1) for line in gateway.path(f"/proc/{process}/status").read_text().splitlines())
    known = {name: status[name].strip() for name in ("CapBnd", "NoNewPrivs", "Umask", "Groups")}
    assert known == {"CapBnd": "0" * 16, "NoNewPrivs": "1", "Umask": "0022", "Groups": ""}
    assert gateway.out("ps", "-o", "user:20=,group:20=", "-p", process).split() == ["zel-quorin"] * 2
    gateway.run(f"/etc/init.d/{PROGRAM}", "stop")
    assert gateway.run("pgrep", "-f", f"/{PROGRAM}", check=False).stdout == ""

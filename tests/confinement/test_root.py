"""What a hostile mirror can do inside the definitions root: ids and archive names that climb, and archives that change
modes or leave links and directories where the daemon wants its own."""

import dataclasses
import json
import subprocess

import pytest
from confined import CONFIGURATION, READER, ROOT, SERVICE, STATUS, STRANGER, UNIT
from raw_archives import LINK, Entry, release as entries_of, zip_bytes
from release import HIT
from test_attacks import UP, Front, script
from test_permissions import READING, TRIES, may, zip_with_directory
from trials import OLD

EVIL = "/srv/evil"  # a directory of a local user, with definitions of his own
LOOP = Entry("antivir-v2.def", b"antivir-v2.def", LINK)  # ends the check by an exception: nothing is swept or removed
# A header that libarchive warns about ends an archive, so that this one holds nothing.
NOTHING = zip_bytes([Entry("ä", fields={"flags": 0x800}), *entries_of("new")])


def opened(version, mode):
    return script(version, archive=zip_with_directory(mode))


def planted(version, *entries):
    return script(version, archive=zip_bytes([*entries, LOOP]))


def link(name, target):
    return Entry(name, target.encode(), LINK)


@dataclasses.dataclass
class Attack:
    """What the mirror does, check by check; what zqu-status then finds; whether the next sound release ends it."""

    checks: list
    finding: str = ""  # none when the attack has left nothing
    heals: bool = True


ATTACKS = {
    "id_opens_the_root": Attack([opened("..", 0o777)], "active_outside"),
    "id_locks_the_root": Attack([opened("..", 0o000)], "active_outside"),
    "id_opens_manifest": Attack([opened("../manifest", 0o777)], "active_outside"),
    "id_locks_manifest": Attack([opened("../manifest", 0o000)], "active_outside"),
    "id_opens_snapshots": Attack([opened(".", 0o777)], "active_outside"),
    "status_becomes_a_link_into_service": Attack(
        [planted("../manifest", link("status.json", "../active/antivir-v2.def"))]
    ),
    "status_becomes_a_link_outside": Attack([planted("../manifest", link("status.json", "/etc/x"))]),
    "manifest_becomes_a_link": Attack(
        [script("../manifest", digest="0" * 64), planted("..", link("manifest", "/etc"))], "active_missing"
    ),
    "snapshots_becomes_a_link": Attack(
        [script(".", "../x.zip", zip_bytes([link("", "/etc"), *entries_of("new")]))], "active_dangling"
    ),
    "id_leads_to_a_local_user": Attack(
        [script(UP + EVIL.strip("/"), f"{UP}{ROOT.strip('/')}/snapshots/x.zip", NOTHING)], "active_outside"
    ),
    "active_becomes_a_directory": Attack(
        [script("..", digest="0" * 64), script("../active")], "active_no_link", heals=False
    ),
    "snapshot_becomes_a_link_to_another": Attack(
        [planted(".", link("1003", "1001")), script("1003")], "active_outside", heals=True
    ),
    "staging_directory_holds_a_link_into_service": Attack(
        [planted("1003", link("x.zip.part", "../../active/antivir-v2.def"))]
    ),
    "active_tmp_becomes_a_directory": Attack([script("../active.tmp")], "check_failed", heals=False),
}
LAYOUT = {
    "": "drwxrwx--T root:zel-quorin",
    "active": "lrwxrwxrwx zel-quorin:zel-quorin",
    "manifest": "drwxrwx--T root:zel-quorin",
    "manifest/status.json": "-rw-rw-r-- root:zel-quorin",
    "snapshots": "drwxrwx--T root:zel-quorin",
}


class Root(Front):
    """The unit at work, and the definitions root with all that a mirror, a reader and a stranger make of it."""

    def suffer(self, attack):
        for check in attack.checks:
            self.mirror.check(check)

    def repair(self, command, release):
        """Runs it, with a mirror that answers at once from now on."""
        self.mirror.server.script = release
        self.mirror.answers.put(release[HIT])
        self.system.run("sh", "-c", command)
        self.system.path(STATUS).write_text("")  # what comes now is of a check after that

    def entries(self):
        lines = self.system.out("find", ROOT, "-printf", "%P\\t%M %u:%g\\n").splitlines()
        return dict(line.split("\t") for line in lines)

    def findings(self):
        """By their names; the gravest first."""
        report = json.loads(self.system.run("/usr/local/bin/zqu-status", "--json").stdout)
        return {finding["finding"]: finding for finding in report["findings"]}

    def expect_nobody_gained(self):
        found = self.entries()
        assert {name: found[name] for name in LAYOUT if name != "active"} == {
            name: what for name, what in LAYOUT.items() if name != "active"
        }
        tries = {name: command for name, command in TRIES.items() if name not in ("write the configuration", "remove")}
        assert may(self.system, STRANGER, tries) == []
        assert set(may(self.system, READER, tries)) <= set(READING)

    def expect_order(self, version):
        """Nothing is there but whole snapshots and what is ours, and zqu-status finds nothing."""
        self.system.wait_for(lambda: f'"active_version": "{version}"' in self.system.status_text())
        self.system.run("systemctl", "stop", UNIT)
        assert self.findings() == {}
        found = self.entries()
        assert {name: what for name, what in found.items() if not name.startswith("snapshots/")} == LAYOUT
        names = {name for name in found if name.startswith("snapshots/")}
        kept = {name for name in names if name.count("/") == 1}
        assert names - kept == {f"{name}/{file}-v2.def" for name in kept for file in ("antivir", "aivsecon")}
        assert self.system.out("readlink", f"{ROOT}/active") == f"snapshots/{version}"


@pytest.fixture
def root(system, tmp_path):
    system.run("install", "-d", "-o", STRANGER, EVIL)
    for name in ("antivir", "aivsecon"):
        system.put(f"{EVIL}/{name}-v2.def", "evil\n", 0o644)
    return Root(system, tmp_path)


@pytest.mark.parametrize("name", ATTACKS)
def test_attack_ends_with_the_next_sound_release(root, name):
    """But for a directory in the way of the link, which a restart removes."""
    root.suffer(ATTACKS[name])
    root.expect_nobody_gained()
    root.expect_untouched()
    former = root.system.take_log() and root.system.path(f"{ROOT}/active").is_symlink()
    root.mirror.check(root.releases["1003"])
    if ATTACKS[name].heals:
        root.system.expect_status("1003")
    else:
        root.system.expect_status(OLD if former else "", "publish/flip failed")
    root.expect_nobody_gained()
    root.repair(f"systemctl restart {UNIT}", root.releases["1003"])
    root.expect_order("1003")


@pytest.mark.parametrize("name", [name for name, attack in ATTACKS.items() if attack.finding])
def test_attack_is_found_and_the_pasted_command_ends_it(root, name):
    attack = ATTACKS[name]
    root.suffer(attack)
    found = root.findings()
    assert attack.finding in found
    root.repair(found[attack.finding]["command"], root.releases[OLD])
    root.expect_order(OLD)


def test_tmpfiles_alone_rebuilds_an_emptied_root(system):
    system.run("sh", "-c", f"rm -rf {ROOT}/*")
    system.run("systemd-tmpfiles", "--create", "zel_quorin_updater.conf")
    lines = system.out("find", ROOT, "-printf", "%P\\t%M %u:%g\\n").splitlines()
    assert dict(line.split("\t") for line in lines) == {name: what for name, what in LAYOUT.items() if name != "active"}


# A local user who got into a root that an older version left open, and who swaps what he can for links.
RACER = f"""
umask 077; cd {ROOT}/snapshots/1001 || exit 1
touch {EVIL}/racing
while [ -e {EVIL}/racing ]; do
    rm -f ?; touch 1 2 3 4; sleep 0.03
    for name in ?; do ln -sf /srv/victim/file $name; done; sleep 0.05
    mv ../1001 ../other && ln -s /srv/victim ../1001 && rm -f ../1001 && mv ../other ../1001
done 2>/dev/null
"""
# Slow enough for him to come between a look and a change.
SLOWLY = ["strace", "-f", "-qq", "-o", "/dev/null", "-e", "inject=fchownat,fchmodat:delay_enter=30000"]


def test_preparation_harms_nothing_outside_while_a_user_swaps_links(system):
    system.run("install", "-d", "-o", STRANGER, EVIL)
    system.run("sh", "-ec", "mkdir -m 700 -p /srv/victim; touch /srv/victim/file; chmod 600 /srv/victim/file")
    before = system.out("stat", "--format=%n %a %u %g", "/srv/victim", "/srv/victim/file")
    snapshot = f"{ROOT}/snapshots/1001"
    places = f"{ROOT} {ROOT}/snapshots {ROOT}/manifest {snapshot}"
    fresh = f"rm -rf {ROOT}; mkdir -p {snapshot} {ROOT}/manifest; chown -R {SERVICE} {ROOT}; chmod 777 {places}"
    for _ in range(12):
        system.run("sh", "-c", fresh)
        racer = subprocess.Popen(system.command("sh", "-c", RACER, user=STRANGER))
        system.wait_for(lambda: system.path(f"{EVIL}/racing").exists() or racer.poll() is not None)
        assert racer.poll() is None
        system.run(*SLOWLY, "/usr/local/libexec/zel-quorin-prepare", check=False)
        system.path(f"{EVIL}/racing").unlink()
        racer.wait(60)
        assert system.out("stat", "--format=%n %a %u %g", "/srv/victim", "/srv/victim/file") == before
    system.run("/usr/local/libexec/zel-quorin-prepare")
    assert may(system, STRANGER, {"list": TRIES["list"], "create": TRIES["create in the root"]}) == []


# Settings, and the root that is prepared for them with the path of the status file below it; none when it is refused.
SETTINGS = {
    "status_path =": (ROOT, "manifest/status.json"),
    "def_root =": None,
    "def_root = /": None,
    "def_root = relative": None,
    "def_root = /srv/a%b": None,
    "def_root = /srv/used": None,  # holds files of others
    f"def_root = {ROOT}2\r\nstatus_path = {ROOT}2/status.json": (f"{ROOT}2", "status.json"),
    "def_root = /srv/link/\nstatus_path = /srv/link/manifest/other.json": ("/srv/real", "manifest/other.json"),
    "def_root = /srv/deep\nstatus_path = /srv/deep/a/b.json": ("/srv/deep", "manifest/status.json"),
}


@pytest.mark.parametrize("settings", SETTINGS)
def test_preparation_goes_by_the_settings(system, settings):
    """And removes neither a snapshot in service nor files of others."""
    mine = ["/srv/used/mine", "/active", "/srv/deep/a/b.json", f"{ROOT}/snapshots/1001/antivir-v2.def"]
    system.run("mkdir", "-p", "/srv/used", "/srv/real", "/srv/deep/a", f"{ROOT}/snapshots/1001")
    system.run("touch", *mine, f"{ROOT}/snapshots/1001/aivsecon-v2.def")
    system.run("ln", "-sfn", "/srv/real", "/srv/link")
    system.run("ln", "-s", "snapshots/1001", f"{ROOT}/active")
    system.run("chown", "-R", SERVICE, "/srv/deep")
    system.put(CONFIGURATION, settings + "\n")
    process = system.run("/usr/local/libexec/zel-quorin-prepare", check=False)
    system.run("ls", *mine, f"{ROOT}/active/antivir-v2.def")
    prepared = SETTINGS[settings]
    assert (process.returncode == 0) == (prepared is not None), process.stderr
    if prepared:
        root, status = prepared
        names = {"": "", "snapshots": "/snapshots", "manifest": "/manifest", "manifest/status.json": f"/{status}"}
        found = {name: system.out("stat", "--format=%A %U:%G", f"{root}{path}") for name, path in names.items()}
        assert found == {name: what for name, what in LAYOUT.items() if name != "active"}
    system.run("rm", "-r", "/srv/used", "/srv/real", "/srv/deep", "/srv/link", "/active")
    system.run("sh", "-c", f"rm -rf {ROOT}2")

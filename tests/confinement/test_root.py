"""What a hostile mirror can do inside the definitions root: ids and archive names that climb, and archives that change
modes or leave links and directories in place of the daemon's own."""

import json
import subprocess

import pytest
from booted_gateway import CONFIG, LAYOUT, PREPARE, READER, RESTART, ROOT, STATUS, STRANGER, UNIT, USER
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


# What the mirror does, check by check; what zqu-status then finds, none when the attack has left nothing.
ATTACKS = {
    "id_opens_the_root": ([opened("..", 0o777)], "active_outside"),
    "id_locks_manifest": ([opened("../manifest", 0o000)], "active_outside"),
    "id_opens_snapshots": ([opened(".", 0o777)], "active_outside"),
    "status_links_into_service": ([planted("../manifest", link("status.json", "../active/antivir-v2.def"))], ""),
    "manifest_is_a_link": (
        [script("../manifest", digest="0" * 64), planted("..", link("manifest", "/etc"))],
        "active_missing",
    ),
    "snapshots_is_a_link": (
        [script(".", "../x.zip", zip_bytes([link("", "/etc"), *entries_of("new")]))],
        "active_dangling",
    ),
    "id_leads_to_a_user": (
        [script(UP + EVIL.strip("/"), f"{UP}{ROOT.strip('/')}/snapshots/x.zip", NOTHING)],
        "active_outside",
    ),
    "active_is_a_directory": ([script("..", digest="0" * 64), script("../active")], "active_no_link"),
    "snapshot_links_to_another": ([planted(".", link("1003", "1001")), script("1003")], "active_outside"),
    "part_links_into_service": ([planted("1003", link("x.zip.part", "../../active/antivir-v2.def"))], ""),
    "active_tmp_is_a_directory": ([script("../active.tmp")], "check_failed"),
}
IN_THE_WAY = {"active_is_a_directory": "", "active_tmp_is_a_directory": OLD}  # with the version that stays


class Root(Front):
    """The running unit, and the definitions root with all that a mirror, a reader and a stranger can do there."""

    def suffer(self, name):
        for check in ATTACKS[name][0]:
            self.mirror.check(check)

    def repair(self, command, release):
        """Runs it, with a mirror that answers at once from now on."""
        self.mirror.server.script = release
        self.mirror.answers.put(release[HIT])
        self.gateway.run("sh", "-c", command)
        self.gateway.path(STATUS).write_text("")  # what comes now is of a check after that

    def findings(self):
        """By their names; the worst first."""
        report = json.loads(self.gateway.run("/usr/local/bin/zqu-status", "--json", "--unit", "none").stdout)
        return {finding["finding"]: finding for finding in report["findings"]}

    def expect_nobody_gained(self):
        found = self.gateway.entries()
        assert {name: found[name] for name in LAYOUT} == LAYOUT
        tries = {name: command for name, command in TRIES.items() if name not in ("write the configuration", "remove")}
        assert may(self.gateway, STRANGER, tries) == []
        assert set(may(self.gateway, READER, tries)) <= set(READING)

    def expect_order(self, version):
        """Only whole snapshots and the daemon's own files are there, and zqu-status finds nothing."""
        self.gateway.wait_for_status(version)
        self.gateway.run("systemctl", "stop", UNIT)
        assert self.findings() == {}
        found = self.gateway.entries()
        names = {name for name in found if name.startswith("snapshots/")}
        active = f"lrwxrwxrwx {USER}:{USER} snapshots/{version}"
        assert {name: what for name, what in found.items() if name not in names} == {**LAYOUT, "active": active}
        kept = {name for name in names if name.count("/") == 1}
        assert names - kept == {f"{name}/{file}-v2.def" for name in kept for file in ("antivir", "aivsecon")}


@pytest.fixture
def root(gateway):
    gateway.run("install", "-d", "-o", STRANGER, EVIL)
    for name in ("antivir", "aivsecon"):
        gateway.put(f"{EVIL}/{name}-v2.def", "evil\n")
    return Root(gateway)


@pytest.mark.parametrize("name", ATTACKS)
def test_attack_ends_with_the_next_sound_release(root, name):
    """Except a directory in place of the link, which a restart removes."""
    root.suffer(name)
    assert not ATTACKS[name][1] or ATTACKS[name][1] in root.findings()
    root.expect_nobody_gained()
    root.expect_untouched()
    root.mirror.check(root.releases["1003"])
    if name in IN_THE_WAY:
        root.gateway.expect_status(IN_THE_WAY[name], "publish/flip failed")
    else:
        root.gateway.expect_status("1003")
    root.expect_nobody_gained()
    root.repair(RESTART, root.releases["1003"])
    root.expect_order("1003")


@pytest.mark.parametrize("name", ["id_leads_to_a_user", "manifest_is_a_link", "snapshots_is_a_link"])
def test_attack_is_found_and_the_pasted_command_ends_it(root, name):
    root.suffer(name)
    found = root.findings()
    root.repair(found[ATTACKS[name][1]]["command"], root.releases[OLD])
    root.expect_order(OLD)


# A local user who entered a root that an older version left open, and who replaces what he can by links.
RACER = f"""
umask 077; cd {ROOT}/snapshots/1001 || exit 1
touch {EVIL}/racing
while [ -e {EVIL}/racing ]; do
    rm -f ?; touch 1 2 3 4; sleep 0.03
    for name in ?; do ln -sf /srv/victim/file $name; done; sleep 0.05
    mv ../1001 ../other && ln -s /srv/victim ../1001 && rm -f ../1001 && mv ../other ../1001
done 2>/dev/null
"""
# Slow enough for him to act between a look and a change.
SLOWLY = ["strace", "-f", "-qq", "-o", "/dev/null", "-e", "inject=fchownat,fchmodat:delay_enter=30000"]


@pytest.mark.long
def test_preparation_harms_nothing_while_a_user_swaps_links(gateway):
    gateway.run("install", "-d", "-o", STRANGER, EVIL)
    gateway.run("sh", "-ec", "mkdir -m 700 -p /srv/victim; touch /srv/victim/file; chmod 600 /srv/victim/file")
    before = gateway.out("stat", "--format=%n %a %u %g", "/srv/victim", "/srv/victim/file")
    snapshot = f"{ROOT}/snapshots/1001"
    places = f"{ROOT} {ROOT}/snapshots {ROOT}/manifest {snapshot}"
    fresh = f"rm -rf {ROOT}; mkdir -p {snapshot} {ROOT}/manifest; chown -R {USER} {ROOT}; chmod 777 {places}"
    for _ in range(5):
        gateway.run("sh", "-c", fresh)
        racer = subprocess.Popen(gateway.command("sh", "-c", RACER, user=STRANGER))
        gateway.wait_for(lambda: gateway.path(f"{EVIL}/racing").exists() or racer.poll() is not None)
        assert racer.poll() is None
        gateway.run(*SLOWLY, PREPARE, check=False)
        gateway.path(f"{EVIL}/racing").unlink()
        racer.wait(60)
        assert gateway.out("stat", "--format=%n %a %u %g", "/srv/victim", "/srv/victim/file") == before
    gateway.run(PREPARE)
    assert may(gateway, STRANGER, {"list": TRIES["list"], "create": TRIES["create in the root"]}) == []


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


MINE = ["/srv/used/mine", "/active", "/srv/deep/a/b.json", f"{ROOT}/snapshots/1001/antivir-v2.def"]
OTHERS = f"""
rm -rf {ROOT}* /srv/* /active
mkdir -p /srv/used /srv/real /srv/deep/a {ROOT}/snapshots/1001
touch {' '.join(MINE)} {ROOT}/snapshots/1001/aivsecon-v2.def
ln -s /srv/real /srv/link
ln -s snapshots/1001 {ROOT}/active
chown -R {USER} /srv/deep
"""


@pytest.fixture(scope="module")
def stopped(module_gateway):
    module_gateway.reset()
    return module_gateway


@pytest.mark.parametrize("settings", SETTINGS)
def test_preparation_follows_the_settings(stopped, settings):
    """And removes neither a snapshot in service nor files of others."""
    gateway = stopped
    gateway.run("sh", "-ec", OTHERS)
    gateway.put(CONFIG, settings + "\n")
    process = gateway.run(PREPARE, check=False)
    gateway.run("ls", *MINE, f"{ROOT}/active/antivir-v2.def")
    prepared = SETTINGS[settings]
    assert (process.returncode == 0) == (prepared is not None), process.stderr
    if prepared:
        root, status = prepared
        names = {"": "", "snapshots": "/snapshots", "manifest": "/manifest", "manifest/status.json": f"/{status}"}
        found = {name: gateway.out("stat", "--format=%A %U:%G", f"{root}{path}") for name, path in names.items()}
        assert found == LAYOUT

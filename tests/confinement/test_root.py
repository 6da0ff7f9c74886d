"""What a hostile mirror can do inside the definitions root: ids and archive names that climb, and archives that change
modes or leave links and directories where the daemon wants its own."""

import dataclasses
import json

import pytest
from confined import READER, ROOT, STRANGER, UNIT
from raw_archives import LINK, Entry, zip_bytes
from raw_archives import release as entries_of
from test_attacks import UP, Front, script
from test_permissions import READING, TRIES, may, zip_with_directory
from trials import HIT, OLD

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
    finding: str
    heals: bool = True


ATTACKS = {
    "id_opens_the_root": Attack([opened("..", 0o777)], "active_outside"),
    "id_locks_the_root": Attack([opened("..", 0o000)], "active_outside"),
    "id_opens_manifest": Attack([opened("../manifest", 0o777)], "active_outside"),
    "id_locks_manifest": Attack([opened("../manifest", 0o000)], "active_outside"),
    "id_opens_snapshots": Attack([opened(".", 0o777)], "active_outside"),
    "status_becomes_a_link_into_service": Attack(
        [planted("../manifest", link("status.json", "../active/antivir-v2.def"))], "check_failed"
    ),
    "status_becomes_a_link_outside": Attack([planted("../manifest", link("status.json", "/etc/x"))], "check_failed"),
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

    def free(self, release):
        """From now on the mirror answers at once."""
        self.mirror.server.script = release
        self.mirror.answers.put(release[HIT])

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
        self.system.wait_for(lambda: self.system.active() == version and self.findings() == {})
        self.system.stop()
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
    root.free(root.releases["1003"])
    root.system.run("systemctl", "restart", UNIT)
    root.expect_order("1003")


@pytest.mark.parametrize("name", ATTACKS)
def test_attack_is_found_and_the_pasted_command_ends_it(root, name):
    attack = ATTACKS[name]
    root.suffer(attack)
    found = root.findings()
    assert attack.finding in found
    root.free(root.releases[OLD])
    root.system.run("sh", "-c", found[attack.finding]["command"] or f"systemctl restart {UNIT}")
    root.expect_order(OLD)

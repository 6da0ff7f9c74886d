"""A gateway from the built package to its end, the way docs/operations.md tells it."""

import json
import posixpath

from packages import CONFIG, DEFS, NEXT, SERVICE
from raw_archives import LINK, Entry, release, zip_bytes
from release import info_ini, sha256


def zqu_status(site, *arguments):
    return site.machine.run("zqu-status", *arguments, check=False)


def verdicts(site):
    """What all four forms say at one moment: the exit status of text and plugin, and the verdict of the other two."""
    text, plugin = zqu_status(site), zqu_status(site, "--nagios")
    report = json.loads(zqu_status(site, "--json").stdout)
    metrics = zqu_status(site, "--prometheus").stdout.splitlines()
    (verdict,) = [line for line in metrics if line.startswith("zelquorin_verdict{") and line.endswith(" 1")]
    assert text.stdout.splitlines()[0].split() == ["verdict", report["verdict"].upper()]
    assert plugin.stdout.startswith(f"DEFINITIONS {report['verdict'].upper()} - ")
    assert verdict == f'zelquorin_verdict{{verdict="{report["verdict"]}"}} 1'
    assert text.returncode == plugin.returncode == ["ok", "warning", "critical", "unknown"].index(report["verdict"])
    return report["verdict"]


def check_now(site):
    """Has the service make a check; returns what that was the matter with, nothing if all was well."""
    site.machine.path(f"{DEFS}/manifest/status.json").unlink(missing_ok=True)
    site.machine.run("systemctl", "restart", SERVICE)
    site.machine.wait_for(lambda: site.status().endswith("}\n"))
    return json.loads(site.status())["last_error"]


def release_in_service(site):
    return site.machine.out("readlink", f"{DEFS}/active")


OPEN = "etc/zqu-open"  # a folder that everybody may write to, as far as its mode goes
TO_TOP = {"id": "../" * 8, "archive": "../" * 9}  # of the file system, from where the daemon puts these


def announce(site, id, archive, content):
    """Announces a release of any names, with its files where a client's URLs lead once their dots are resolved."""
    served = {
        "antivir-v2-hit.ini": f"[Current]\r\ndefId={id}\r\n".encode(),
        f"antivir-v2-c-{id}.ini": info_ini(id, archive, sha256(content)),
        archive: content,
    }
    for name, body in served.items():
        path = site.nginx.root / posixpath.normpath(f"/defs/{name}").lstrip("/")
        path.parent.mkdir(exist_ok=True)
        path.write_bytes(body)


def outside(site):
    """All but the definitions, to the times of change."""
    return {line for line in site.files("%T@ %C@ %s %l") if f" {DEFS}" not in line}


# The id and the archive's name that the mirror announces, and what the archive holds besides a sound release.
ATTACKS = {
    "an id that replaces a folder": (f"{TO_TOP['id']}{OPEN}", "x.zip", []),
    "an archive's name that replaces a file": ("1003", f"{TO_TOP['archive']}{OPEN}/file", []),
    "a link in the staging directory's stead": ("1003", "../x.zip", [Entry("", f"/{OPEN}".encode(), LINK)]),
}


def attack(site):
    """Lets the mirror aim at an open folder, which has to stay as it is, and so has all the rest."""
    machine = site.machine
    machine.run("install", "-d", "-m", "777", f"/{OPEN}")
    machine.run("sh", "-ec", f"echo precious >/{OPEN}/file; chmod 666 /{OPEN}/file")
    before = outside(site)
    for name, (id, archive, entries) in ATTACKS.items():
        announce(site, id, archive, zip_bytes([*entries, *release("attack")]))
        error = check_now(site)
        assert outside(site) ^ before == set(), name
        assert error == ("CAB extract" if entries else "download CAB"), name
        assert (release_in_service(site), verdicts(site)) == ("snapshots/1002", "warning"), name


def test_gateway_is_installed_updated_watched_attacked_upgraded_and_purged(installation, packages):
    site = installation
    machine = site.machine
    before = site.files()
    machine.run("dpkg", "--install", packages.deb())
    assert machine.run("zqu-config", "check", check=False).returncode != 2
    assert verdicts(site) == "critical"  # nothing is in service yet

    site.configure()
    checked = machine.run("zqu-config", "check", "--online", check=False)
    assert (checked.returncode, "1001" in checked.stdout) == (0, True), checked.stdout
    machine.run("systemctl", "enable", "--now", SERVICE)
    machine.wait_for(lambda: '"last_error": ""' in site.status())
    assert (release_in_service(site), verdicts(site)) == ("snapshots/1001", "ok")

    site.mirror.publish("1002")
    assert check_now(site) == ""
    assert (release_in_service(site), verdicts(site)) == ("snapshots/1002", "ok")

    attack(site)
    site.mirror.publish("1003")
    assert check_now(site) == ""
    assert (release_in_service(site), verdicts(site)) == ("snapshots/1003", "ok")

    machine.run("dpkg", "--force-confold", "--install", packages.deb(folder=packages.next))
    assert machine.out("dpkg-query", "--showformat=${Version}", "--show", "zel-quorin-updater") == NEXT
    site.mirror.publish("1004")
    assert check_now(site) == ""
    assert (release_in_service(site), verdicts(site)) == ("snapshots/1004", "ok")

    machine.run("dpkg", "--purge", "zel-quorin-updater")
    assert site.active() == "inactive"
    assert not site.exists(CONFIG) and not site.exists(DEFS)
    machine.path("/etc/mirror-ca.pem").unlink()
    machine.run("rm", "-r", f"/{OPEN}")
    assert site.files() ^ before == set()

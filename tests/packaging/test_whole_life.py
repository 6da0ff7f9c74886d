"""A gateway from the built package to its end, the way docs/operations.md tells it."""

import json

from packages import CONFIG, DEFS, NEXT, SERVICE


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


def check_now(site, error=""):
    """Has the service make a check, and waits for its outcome."""
    site.machine.path(f"{DEFS}/manifest/status.json").unlink(missing_ok=True)
    site.machine.run("systemctl", "restart", SERVICE)
    site.machine.wait_for(lambda: f'"last_error": "{error}"\n' in site.status())


def release_in_service(site):
    return site.machine.out("readlink", f"{DEFS}/active")


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
    check_now(site)
    assert (release_in_service(site), verdicts(site)) == ("snapshots/1002", "ok")

    outside = {line for line in site.files() if DEFS not in line}
    climbing = "../../../../../../../etc/taken"
    site.mirror.write("antivir-v2-hit.ini", f"[Current]\r\ndefId={climbing}\r\n")
    site.mirror.write("antivir-v2-c-1002.ini", "[def.Current]\r\n")
    (site.nginx.root / "etc").mkdir()
    check_now(site, f"complete-info fetch failed for {climbing}")
    assert (release_in_service(site), verdicts(site)) == ("snapshots/1002", "warning")
    site.mirror.publish("1003")
    info = site.mirror.path("antivir-v2-c-1003.ini")
    info.write_text(info.read_text().replace("antivir-v2-1003.cab", "../../../../../../../../etc/taken.cab"))
    check_now(site, "download CAB")
    assert (release_in_service(site), verdicts(site)) == ("snapshots/1002", "warning")
    assert {line for line in site.files() if DEFS not in line} == outside

    site.mirror.publish("1003")
    check_now(site)
    assert (release_in_service(site), verdicts(site)) == ("snapshots/1003", "ok")

    machine.run("dpkg", "--force-confold", "--install", packages.deb(folder=packages.next))
    assert machine.out("dpkg-query", "--showformat=${Version}", "--show", "zel-quorin-updater") == NEXT
    site.mirror.publish("1004")
    check_now(site)
    assert (release_in_service(site), verdicts(site)) == ("snapshots/1004", "ok")

    machine.run("dpkg", "--purge", "zel-quorin-updater")
    assert site.active() == "inactive"
    assert not site.exists(CONFIG) and not site.exists(DEFS)
    machine.path("/etc/mirror-ca.pem").unlink()
    assert site.files() == before

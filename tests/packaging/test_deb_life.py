"""The .deb through its life, in a booted system: installed, upgraded, removed and purged, with the daemon at work."""

import pytest
from packages import CONFIG, DEFS, HINT, LAYOUT, NEXT, SERVICE


def dpkg(site, *arguments, **options):
    return site.machine.run("dpkg", *arguments, **options)


def acl(site, path):
    return site.machine.out("getfacl", "--absolute-names", "--omit-header", path).split()


@pytest.fixture
def site(installation):
    """A system that the package is not installed in."""
    yield installation
    installation.clear()


@pytest.fixture
def installed(site, packages):
    """A system with the package installed, and what that printed."""
    site.said = dpkg(site, "--install", packages.deb()).stdout
    return site


def upgrade(site, packages):
    dpkg(site, "--force-confold", "--install", packages.deb(folder=packages.next))
    assert site.machine.out("dpkg-query", "--showformat=${Version}", "--show", "zel-quorin-updater") == NEXT
    assert site.machine.show(SERVICE, "Description") == "The next version"  # systemd has read the unit anew


def test_installing_neither_enables_nor_starts_and_says_in_one_line_what_to_do(installed):
    assert (installed.enabled(), installed.active()) == ("disabled", "inactive")
    assert [line for line in installed.said.splitlines() if "zel_quorin_updater" in line] == [HINT]


def test_installing_makes_the_definitions_root_for_the_service_and_its_readers(installed):
    assert installed.definitions() == LAYOUT
    default = "user::rwx group::r-x group:zel-quorin-readers:r-x mask::r-x other::r-x".split()
    directory = ["user::rwx", "group::rwx", "group:zel-quorin-readers:r-x", "mask::rwx", "other::---"]
    for name in ("", "/snapshots", "/manifest"):
        assert acl(installed, DEFS + name) == directory + [f"default:{entry}" for entry in default]
    file = ["user::rw-", "group::rw-", "group:zel-quorin-readers:r--", "mask::rw-", "other::r--"]
    assert acl(installed, f"{DEFS}/manifest/status.json") == file


@pytest.mark.parametrize("runs", [False, True], ids=["stopped", "running"])
@pytest.mark.parametrize("root", [DEFS, "/srv/definitions"], ids=["default", "moved"])
def test_upgrade_brings_an_older_root_to_the_new_layout(installed, packages, root, runs):
    """Also when a mirror had planted a link in place of the status file."""
    machine = installed.machine
    installed.make_old_root(root)
    text = installed.configure() + f"def_root = {root}\nstatus_path = {root}/manifest/status.json\n"
    machine.path(CONFIG).write_text(text)
    drop_in = f"[Service]\nReadWritePaths={root}\nNoExecPaths={root}\nExecStartPre=\n"
    machine.path(f"/etc/systemd/system/{SERVICE}.d").mkdir()
    machine.path(f"/etc/systemd/system/{SERVICE}.d/root.conf").write_text(drop_in)
    machine.run("systemctl", "daemon-reload")
    try:
        if runs:
            machine.run("systemctl", "start", SERVICE)
        machine.path(f"/etc/systemd/system/{SERVICE}.d/root.conf").write_text(drop_in.replace("ExecStartPre=\n", ""))
        upgrade(installed, packages)
        assert [line for line in installed.definitions(root) if " root:" in line] == LAYOUT
        assert acl(installed, root)[2] == "group:zel-quorin-readers:r-x"
    finally:
        machine.run("rm", "-r", f"/etc/systemd/system/{SERVICE}.d")


def test_installed_unit_is_one_that_systemd_takes_without_a_word(installed):
    process = installed.machine.run("systemd-analyze", "verify", SERVICE, "zel_quorin_updater-retry.timer")
    assert process.stdout + process.stderr == ""


def test_upgrade_restarts_the_running_service_and_keeps_settings_and_definitions(installed, packages):
    text = installed.serve()
    definitions = installed.definitions()
    former = installed.machine.show(SERVICE, "MainPID")
    upgrade(installed, packages)
    assert (installed.enabled(), installed.active()) == ("enabled", "active")
    assert installed.machine.show(SERVICE, "MainPID") != former
    assert installed.machine.path(CONFIG).read_text() == text
    assert installed.definitions() == definitions


def test_upgrade_of_an_unedited_configuration_brings_the_new_one(installed, packages):
    former = installed.machine.path(CONFIG).read_text()
    upgrade(installed, packages)
    assert installed.machine.path(CONFIG).read_text() == former + "# a line that came with the next version\n"


def test_upgrade_leaves_a_stopped_service_stopped_but_enabled(installed, packages):
    installed.machine.run("systemctl", "enable", SERVICE)
    upgrade(installed, packages)
    assert (installed.enabled(), installed.active()) == ("enabled", "inactive")


def test_upgrade_leaves_a_disabled_service_disabled(installed, packages):
    upgrade(installed, packages)
    assert (installed.enabled(), installed.active()) == ("disabled", "inactive")


def test_masked_stays_masked_through_upgrade_removal_and_installation(installed, packages):
    installed.machine.run("systemctl", "mask", SERVICE)
    dpkg(installed, "--install", packages.deb(folder=packages.next))
    assert (installed.enabled(), installed.active()) == ("masked", "inactive")
    dpkg(installed, "--remove", "zel-quorin-updater")
    dpkg(installed, "--install", packages.deb())
    assert (installed.enabled(), installed.active()) == ("masked", "inactive")


def test_removing_stops_and_disables_but_keeps_configuration_and_definitions(installed, packages):
    text = installed.serve()
    installed.machine.run("systemctl", "enable", "--now", "zqu-status.timer")
    installed.machine.run("systemctl", "start", "zqu-status.service")
    assert installed.exists("/run/zqu-status/zel-quorin-updater.prom")
    definitions = installed.definitions()
    dpkg(installed, "--remove", "zel-quorin-updater")
    assert not installed.exists("/etc/systemd/system/multi-user.target.wants/" + SERVICE)
    assert not installed.exists("/etc/systemd/system/timers.target.wants/zqu-status.timer")
    assert installed.machine.show("zqu-status.timer", "ActiveState") == "inactive"
    assert not installed.exists("/run/zqu-status")
    assert installed.machine.show(SERVICE, "LoadState") == "not-found"
    assert installed.machine.run("pgrep", "-x", "zel_quorin_upda", check=False).stdout == ""
    assert installed.machine.path(CONFIG).read_text() == text
    assert installed.definitions() == definitions
    dpkg(installed, "--install", packages.deb())
    assert (installed.enabled(), installed.active()) == ("disabled", "inactive")


def test_purging_leaves_the_system_as_it_was_but_for_users(site, packages):
    before = site.files()
    dpkg(site, "--install", packages.deb())
    assert len(site.files() - before) > 20
    site.serve()
    site.machine.path("/etc/mirror-ca.pem").unlink()
    site.machine.path(f"{DEFS}/active.tmp").symlink_to("snapshots/1000")  # as a crash leaves it
    dpkg(site, "--purge", "zel-quorin-updater")
    assert site.files() ^ before == set()
    assert site.machine.run("dpkg", "--status", "zel-quorin-updater", check=False).returncode != 0
    assert site.machine.out("id", "--user", "--name", "zel-quorin") == "zel-quorin"


def test_purging_leaves_what_an_administrator_put_there(installed):
    installed.serve()
    kept = ["defs/notes", "defs/manifest/notes", "etc/notes"]
    for name in kept:
        installed.machine.path(f"{DEFS}/../{name}").write_text("mine\n")
    dpkg(installed, "--purge", "zel-quorin-updater")
    folder = DEFS.rpartition("/")[0]
    listed = installed.machine.out("find", folder, "-printf", "%P\\n").splitlines()
    assert sorted(listed) == ["", "defs", "defs/manifest", "defs/manifest/notes", "defs/notes", "etc", "etc/notes"]


def test_purging_leaves_a_definitions_root_that_is_a_link_to_elsewhere(installed):
    installed.serve()
    installed.machine.run("systemctl", "stop", SERVICE)
    installed.machine.run("mv", DEFS, "/srv/defs")
    installed.machine.run("ln", "-s", "/srv/defs", DEFS)
    before = installed.machine.out("find", "/srv/defs", "-printf", "%M %P %l\\n")
    dpkg(installed, "--purge", "zel-quorin-updater")
    assert installed.machine.out("find", "/srv/defs", "-printf", "%M %P %l\\n") == before
    assert installed.exists(DEFS)


def test_purging_follows_no_link_that_the_services_user_left(installed):
    installed.machine.run("mkdir", "/srv/other")
    for name in ("status.json", "1001"):
        installed.machine.path(f"/srv/other/{name}").write_text("not of the daemon\n")
    installed.machine.run("rm", "-r", f"{DEFS}/manifest", f"{DEFS}/snapshots")
    for name in ("manifest", "snapshots"):
        installed.machine.run("ln", "-s", "/srv/other", f"{DEFS}/{name}")
    dpkg(installed, "--purge", "zel-quorin-updater")
    assert installed.machine.out("ls", "/srv/other").split() == ["1001", "status.json"]


@pytest.mark.parametrize("place", ["snapshots", "snapshots/1001", "snapshots/1001/more"])
def test_purging_removes_nothing_that_is_mounted_in_the_definitions_root(installed, place):
    installed.machine.run("mkdir", "-p", "/srv/other", f"{DEFS}/{place}")
    installed.machine.path("/srv/other/file").write_text("not of the daemon\n")
    installed.machine.run("mount", "--bind", "/srv/other", f"{DEFS}/{place}")
    try:
        process = dpkg(installed, "--purge", "zel-quorin-updater")
        said = f"zel_quorin_updater: {DEFS} stays: something is mounted in its snapshots\n"
        assert (said in process.stderr, installed.exists("/srv/other/file")) == (True, True)
    finally:
        installed.machine.run("umount", f"{DEFS}/{place}")


def test_package_comes_and_goes_where_no_systemd_runs(site, packages):
    bare = ["unshare", "--mount", "sh", "-ec", 'mount -t tmpfs tmpfs /run; exec "$@"', "sh"]
    site.machine.run(*bare, "dpkg", "--install", packages.deb())
    assert site.definitions() == LAYOUT
    assert site.enabled() == "disabled"
    site.machine.run(*bare, "dpkg", "--purge", "zel-quorin-updater")
    assert not site.exists(DEFS)

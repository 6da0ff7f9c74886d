"""The .rpm through its life, in a booted system with a database of its own."""

import pytest
from packages import CONFIG, HINT, LAYOUT, SERVICE


def rpm(site, *arguments):
    # Debian's rpm has to be told that it may; what it needs came with Debian's packages, which it does not know.
    return site.machine.run("rpm", "--dbpath", "/var/lib/rpm-of-tests", "--force-debian", "--nodeps", *arguments)


@pytest.fixture
def installed(installation, packages):
    """A system with the package installed, and what that printed."""
    installation.said = rpm(installation, "--install", packages.rpm()).stdout
    yield installation
    rpm(installation, "--erase", "--allmatches", "zel-quorin-updater")
    installation.clear()


def test_installing_neither_enables_nor_starts_and_says_in_one_line_what_to_do(installed):
    assert (installed.enabled(), installed.active()) == ("disabled", "inactive")
    assert installed.said == HINT + "\n"
    assert installed.definitions() == LAYOUT


def test_upgrade_restarts_the_running_service_and_keeps_settings_and_definitions(installed, packages):
    text = installed.serve()
    definitions = installed.definitions()
    former = installed.machine.show(SERVICE, "MainPID")
    assert HINT not in rpm(installed, "--upgrade", packages.rpm(folder=packages.next)).stdout
    assert installed.machine.show(SERVICE, "Description") == "The next version"
    assert (installed.enabled(), installed.active()) == ("enabled", "active")
    assert installed.machine.show(SERVICE, "MainPID") != former
    assert installed.machine.path(CONFIG).read_text() == text
    assert installed.definitions() == definitions


def test_upgrade_brings_an_older_root_to_the_new_layout(installed, packages):
    installed.make_old_root()
    rpm(installed, "--upgrade", packages.rpm(folder=packages.next))
    assert installed.definitions() == LAYOUT


def test_upgrade_leaves_a_stopped_service_stopped_and_a_mask_in_its_place(installed, packages):
    installed.machine.run("systemctl", "mask", SERVICE)
    rpm(installed, "--upgrade", packages.rpm(folder=packages.next))
    assert (installed.enabled(), installed.active()) == ("masked", "inactive")


def test_erasing_stops_and_disables_but_keeps_definitions_and_edited_settings(installed, packages):
    text = installed.serve()
    installed.machine.run("systemctl", "enable", "--now", "zqu-status.timer")
    installed.machine.run("systemctl", "start", "zqu-status.service")
    assert installed.exists("/run/zqu-status/zel-quorin-updater.prom")
    definitions = installed.definitions()
    rpm(installed, "--erase", "zel-quorin-updater")
    assert not installed.exists("/etc/systemd/system/multi-user.target.wants/" + SERVICE)
    assert not installed.exists("/etc/systemd/system/timers.target.wants/zqu-status.timer")
    assert installed.machine.show("zqu-status.timer", "ActiveState") == "inactive"
    assert not installed.exists("/run/zqu-status")
    assert installed.machine.show(SERVICE, "LoadState") == "not-found"
    assert installed.machine.run("pgrep", "-x", "zel_quorin_upda", check=False).stdout == ""
    assert installed.machine.path(CONFIG + ".rpmsave").read_text() == text
    assert installed.definitions() == definitions
    assert not installed.exists(CONFIG)
    rpm(installed, "--install", packages.rpm())
    assert (installed.enabled(), installed.active()) == ("disabled", "inactive")

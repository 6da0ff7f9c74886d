"""An administrator who does what the pages say, in a booted system with the packages."""

from booted_gateway import PROGRAM, UNIT

DESK = "/tmp/installation"
DROP_IN = f"/etc/systemd/system/{UNIT}.d/override.conf"


class Administrator:
    """Follows the pages, on a booted gateway or mirror."""

    def __init__(self, gateway, packages):
        self.gateway = gateway
        for deb in (packages.deb(), packages.deb("mirror")):
            gateway.put(f"{DESK}/{deb.name}", deb.read_bytes())
        # The editor replaces the text that it is given by that of a file.
        gateway.put(f"{DESK}/editor", f'#!/bin/sh\nfor last; do :; done\ncat {DESK}/text >"$last"\n', 0o755)

    def type(self, text):
        """What the administrator will write when an editor opens."""
        self.gateway.put(f"{DESK}/text", text)

    def sh(self, script):
        """The administrator's shell runs it; each command must succeed."""
        path = f"PATH={DESK}:/usr/sbin:/usr/bin:/sbin:/bin"
        shell = ["env", f"--chdir={DESK}", path, "EDITOR=editor", "DEBIAN_FRONTEND=noninteractive", "sh", "-ec"]
        return self.gateway.out(*shell, script)

    def edit_unit(self, text):
        """systemctl edit, which needs a terminal."""
        self.type(text)
        self.sh(f"script --quiet --return --command 'systemctl edit {PROGRAM}' /dev/null")
        assert self.gateway.path(DROP_IN).read_text().strip() == text.strip()

    def take_new(self):
        """Publishes the release after the one in service, and updates to it; returns its id."""
        version = str(int(self.gateway.in_service()) + 1)
        self.gateway.publish(version)
        self.gateway.expect_check(version)
        return version

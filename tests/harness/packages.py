"""The packages, built once for all tests of a run, and a booted system to install them in."""

import contextlib
import fcntl
import os
import subprocess

import booted
from builds import copy_sources, replace_once
from mirrors import Mirror, Nginx
from pages import DEFS

EPOCH = 1700000000
NEXT = "0.99.0"
CONFIG = "/usr/local/zelgw/opt/av/quorin/etc/zel_quorin_updater.conf"
SERVICE = "zel_quorin_updater.service"
# What installing makes.
LAYOUT = [
    "drwxrwx--T root:zel-quorin  -> ",
    "drwxrwx--T root:zel-quorin manifest -> ",
    "-rw-rw-r-- root:zel-quorin manifest/status.json -> ",
    "drwxrwx--T root:zel-quorin snapshots -> ",
]
# That of versions in which the root belonged to the service's user.
OLD_LAYOUT = """
d {root} 0750 zel-quorin zel-quorin-readers -
a {root} - - - - user::rwx,group::r-x,other::---
a+ {root} - - - - default:user::rwx,default:group::r-x,default:group:zel-quorin-readers:r-x,default:other::r-x
d {root}/manifest 0755 zel-quorin zel-quorin -
d {root}/snapshots 0755 zel-quorin zel-quorin -
f {root}/manifest/status.json 0644 zel-quorin zel-quorin -
"""
HINT = f"zel_quorin_updater: set mirror_base_url in {CONFIG}, then: systemctl enable --now zel_quorin_updater"


def run(*command, **options):
    """Runs a command that must succeed; returns its output."""
    process = subprocess.run(list(map(str, command)), capture_output=True, text=True, **options)
    assert process.returncode == 0, f"{command}: {process.stdout}{process.stderr}"
    return process.stdout


class Packages:
    """The packages of the sources as they are, and of a higher version with another configuration and another unit."""

    def __init__(self, folder):
        self.folder = folder
        self.sources = folder / "sources"
        self.build = folder / "build"
        self.first = folder / "first"
        self.next = folder / "next"

    def make(self):
        copy_sources(self.sources)
        self.run_script(self.first)
        configuration = self.sources / "packaging" / "zel_quorin_updater.conf"
        unit = self.sources / "packaging" / "systemd" / "zel_quorin_updater.service.in"
        former = {path: path.read_text() for path in (configuration, unit)}
        configuration.write_text(former[configuration] + "# a line that came with the next version\n")
        replace_once(unit, "Description=Antivirus definition updater\n", "Description=The next version\n")
        self._pack_next()
        for path, text in former.items():
            path.write_text(text)

    def _pack_next(self):
        self.next.mkdir()
        for kind in ("DEB", "RPM"):
            config = self.build / "CPackConfig.cmake"
            version = f"CPACK_PACKAGE_VERSION={NEXT}"
            run("cpack", "--config", config, "-G", kind, "-B", self.folder / kind, "-D", version)
            for package in (self.folder / kind).glob(f"*.{kind.lower()}"):
                package.rename(self.next / package.name)

    def run_script(self, output, *options, **environment):
        """Runs scripts/package of the copied sources; it goes on with the build that is there."""
        script = self.sources / "scripts" / "package"
        variables = {**os.environ, "SOURCE_DATE_EPOCH": str(EPOCH), **environment}
        return run(script, "--build", self.build, "--output", output, *options, env=variables)

    @staticmethod
    def _only(folder, pattern):
        (found,) = folder.glob(pattern)
        return found

    def deb(self, name="updater", folder=None):
        return self._only(folder or self.first, f"zel-quorin-{name}_*.deb")

    def rpm(self, name="updater", folder=None):
        return self._only(folder or self.first, f"zel-quorin-{name}-*.rpm")


def shared_packages(base):
    """Those of this run; whoever comes first, of several processes, builds them."""
    if "PYTEST_XDIST_WORKER" in os.environ:
        base = base.parent
    packages = Packages(base / "packages")
    with open(base / "packages.lock", "w") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        done = base / "packages.done"
        if not done.exists():
            packages.make()
            done.touch()
    return packages


class Site:
    """A booted system and a mirror on its loopback interface."""

    def __init__(self, folder, *shared):
        self.machine = booted.Booted(folder, *shared)
        # A container's, which would hold back services; and what would have each package index all pages of the manual.
        self.machine.run("rm", "-f", "/usr/sbin/policy-rc.d", "/var/lib/man-db/auto-update")
        self.machine.run("rm", "-rf", "/usr/local/zelgw")  # should this machine be a gateway itself
        self.nginx = self.machine.in_network(lambda: Nginx(folder))
        self.mirror = Mirror(self.nginx.root, "defs")
        self.mirror.publish("1001")

    def clear(self):
        """Makes the system forget what a test has installed or left."""
        self.machine.run("systemctl", "unmask", SERVICE, check=False)
        self.machine.run("dpkg", "--purge", "zel-quorin-updater")
        self.machine.run("sh", "-c", "rm -rf /usr/local/zelgw /srv/* /etc/mirror-ca.pem")

    def configure(self):
        """Writes a configuration of the administrator's, with this site's mirror; returns the text."""
        self.machine.path("/etc/mirror-ca.pem").write_bytes(self.nginx.ca_path.read_bytes())
        text = f"# ours\nmirror_base_url = {self.nginx.url()}\nmirror_subdir = defs\nca_path = /etc/mirror-ca.pem\n"
        self.machine.path(CONFIG).write_text(text)
        return text

    def serve(self):
        """Configures and starts the service, and waits for its first definitions; returns the configuration."""
        text = self.configure()
        self.machine.run("systemctl", "enable", "--now", SERVICE)
        self.machine.wait_for(lambda: '"last_error": ""' in self.status())
        return text

    def status(self):
        path = self.machine.path(f"{DEFS}/manifest/status.json")
        return path.read_text() if path.exists() else ""

    def active(self):
        return self.machine.show(SERVICE, "ActiveState")

    def enabled(self):
        return self.machine.run("systemctl", "is-enabled", SERVICE, check=False).stdout.strip()

    def definitions(self, root=DEFS):
        """What lies below the definitions root, with modes and owners; each name once."""
        listed = self.machine.out("find", root, "-printf", "%P\t%M %u:%g %P -> %l\\n").splitlines()
        return [line.split("\t")[1] for line in sorted(listed)]

    def make_old_root(self, root=DEFS):
        """As an older version had it, with a link that a mirror has planted in place of the status file."""
        self.machine.run("sh", "-c", f"rm -r {DEFS}; mkdir -p {root}")
        self.machine.path("/run/old.conf").write_text(OLD_LAYOUT.format(root=root))
        self.machine.run("systemd-tmpfiles", "--create", "/run/old.conf")
        self.machine.run("ln", "-sf", "/etc/passwd", f"{root}/manifest/status.json")

    def exists(self, path):
        return os.path.lexists(self.machine.path(path))

    def files(self, more=""):
        """The system's files and folders with modes and owners, less accounts and what others write meanwhile; with
        more of what find's -printf can tell, if that is given."""
        own = ["/var/log", "/var/lib/systemd", "/var/lib/dpkg", "/var/cache", "/var/lib/rpm"]
        others = [word for path in own for word in ("-path", path, "-prune", "-o")]
        listed = self.machine.out(
            "find", "/etc", "/opt", "/srv", "/usr", "/var", *others, "-printf", f"%M %U:%G %p\t{more}\\n"
        ).splitlines()
        accounts = ("passwd", "group", "shadow", "gshadow", "subuid", "subgid", ".pwd.lock")
        names = {f"/etc/{name}{end}" for name in accounts for end in ("", "-")}
        return {line for line in listed if line.split(" ", 2)[2].partition("\t")[0] not in names}

    def end(self):
        with contextlib.suppress(AttributeError):
            self.nginx.stop()
        self.machine.end()

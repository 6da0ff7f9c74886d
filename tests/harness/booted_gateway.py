"""A booted gateway: a booted system with the updater in it as it ships, and scripted mirrors beside it."""

import hashlib
import json
import os
import pathlib
import queue
import re
import shlex
import shutil
import stat
import subprocess

import trustme
from booted import Booted
from gateway import BUILD, SETTINGS, configuration
from outcomes import ENGINE, listing, status_text
from pages import blocks
from release import HIT, Release
from scripted_server import SUBDIR, ScriptedServer, reply
from trials import server_context

PROGRAM = "zel_quorin_updater"
UNIT, TIMER = f"{PROGRAM}.service", f"{PROGRAM}-retry.timer"
ROOT, STATUS = SETTINGS["def_root"], SETTINGS["status_path"]
HOME = ROOT.removesuffix("/defs")
CONFIG = f"{HOME}/etc/{PROGRAM}.conf"
AUTHORITY = "/etc/mirror-ca.pem"
USER, READERS = "zel-quorin", "zel-quorin-readers"
READER, STRANGER = "zqu-reader", "zqu-stranger"  # users of this machine, the former a member of the readers' group
# Where `cmake --install` puts the programs.
DAEMON, PREPARE = f"/usr/local/sbin/{PROGRAM}", "/usr/local/libexec/zel-quorin-prepare"
RESTART = f"systemctl restart {PROGRAM}"
# A definitions root that was prepared and holds no release.
LAYOUT = {
    "": "drwxrwx--T root:zel-quorin",
    "manifest": "drwxrwx--T root:zel-quorin",
    "manifest/status.json": "-rw-rw-r-- root:zel-quorin",
    "snapshots": "drwxrwx--T root:zel-quorin",
}
# Takes back what a test has changed of the installation.
_RESET = f"""
rm -r /etc/systemd/system/{PROGRAM}*.d && systemctl daemon-reload
systemctl reset-failed {UNIT}
rm -rf {ROOT} {CONFIG}
systemd-tmpfiles --create {PROGRAM}.conf
"""
# What the system itself writes while it runs.
_CHURN = ("run/systemd", "run/log", "run/written", "run/udev", "var/log/journal", "var/lib/systemd", "run/zqu-cursor")


def install(directory, *options):
    """Installs the build below a directory, as a package would; returns what was said."""
    alone = ["flock", BUILD / "CMakeCache.txt"]  # units are filled in within the build, which tests share
    process = subprocess.run(
        [*alone, "cmake", "--install", BUILD, *options],
        env={**os.environ, "DESTDIR": str(directory)},
        capture_output=True,
        text=True,
    )
    assert process.returncode == 0, process.stdout + process.stderr
    return process.stdout


def _identity(path):
    """All there is to know of one file, time of change included, so that not even a change undone goes unseen."""
    found = os.lstat(path)
    if stat.S_ISREG(found.st_mode):
        content = hashlib.sha256(pathlib.Path(path).read_bytes()).hexdigest()
    else:
        content = os.readlink(path) if stat.S_ISLNK(found.st_mode) else ""
    size = 0 if stat.S_ISDIR(found.st_mode) else found.st_size
    return oct(found.st_mode), found.st_uid, found.st_gid, size, found.st_mtime_ns, found.st_ctime_ns, content


class SteppedMirror:
    """A scripted mirror for a daemon that loops without a wait: it answers the request for the hit INI, with which a
    check begins, only when it is to, so that everything is at rest in between. A daemon that died and was started again
    is awaited in the same way."""

    def __init__(self, server):
        self.server = server
        self.answers = queue.Queue()
        self.arrivals = queue.Queue()
        self.use({})

    def use(self, script):
        self.server.script = {**script, HIT: self._hit}

    def _hit(self):
        self.arrivals.put(None)
        return self.answers.get(timeout=120)

    def await_check(self):
        """Waits until the daemon begins a check; it waits in turn."""
        self.arrivals.get(timeout=60)

    def check(self, script):
        """Lets the check that has begun meet this script, and waits until the next one begins."""
        self.use(script)
        self.answers.put(script[HIT])
        self.await_check()

    def stop(self):
        for _ in range(10):  # daemons that were killed may have left requests behind, which wait still
            self.answers.put([reply(b"", "404 Not Found")])
        self.server.stop()


class BootedGateway(Booted):
    """A booted system with a mirror on its loopback interface. With a tree that `cmake --install` has made, the updater
    is installed and enabled, but not started, and a reader and a stranger are there."""

    def __init__(self, tree=None, shared=()):
        super().__init__(*filter(None, (tree, *shared)))
        self.servers = []
        self.cmake_installed = tree is not None
        try:
            self._set_up(tree)
        except BaseException:
            self.end()
            raise

    def _set_up(self, tree):
        authority = trustme.CA()
        self.context = server_context(authority.issue_cert("localhost", "mirror.example", "127.0.0.1", "::1"))
        self.put(AUTHORITY, authority.cert_pem.bytes())
        if tree:
            self.run("cp", "-a", f"{tree}/.", "/")
            (block,) = blocks("packaging.md", "Without packages")
            for command in re.findall(r"^sudo (system.*)$", block, re.MULTILINE):
                self.run(*shlex.split(command, comments=True))
            self.run("systemctl", "enable", UNIT)
            self.run("useradd", "--no-create-home", STRANGER)
            self.run("useradd", "--no-create-home", "--groups", READERS, READER)
        self.reset()

    def reset(self):
        """Back to the moment after the installation, with a new mirror that has nothing."""
        self.stop()
        if self.cmake_installed:
            self.run("sh", "-c", _RESET)
        self.take_log()
        self.server = self.scripted()

    def stop(self):
        """Ends the unit at once, in whatever it is doing, and the mirrors."""
        self.run("sh", "-c", f"systemctl kill --signal=KILL {UNIT}; systemctl stop {UNIT} {TIMER}", check=False)
        for server in self.servers:
            server.stop()
        self.servers = []

    def end(self):
        for server in getattr(self, "servers", []):
            server.stop()
        super().end()

    def put(self, path, content, mode=0o644):
        """Writes a file in the booted system, as its administrator."""
        place = self.path(path)
        place.parent.mkdir(parents=True, exist_ok=True)
        place.write_bytes(content if isinstance(content, bytes) else content.encode())
        place.chmod(mode)

    def exists(self, path):
        return os.path.lexists(self.path(path))

    def drop_in(self, text, unit=UNIT):
        """Changes a unit as an administrator would; an empty text takes the change back."""
        shutil.rmtree(self.path(f"/etc/systemd/system/{unit}.d"), ignore_errors=True)
        if text:
            self.put(f"/etc/systemd/system/{unit}.d/override.conf", text)
        self.run("systemctl", "daemon-reload")

    # The mirror, and what the gateway makes of it.

    def scripted(self, address="127.0.0.1", tls=True):
        """Another scripted server, over TLS as mirrors are, in the booted system's network."""
        self.servers.append(self.in_network(lambda: ScriptedServer(self.context if tls else None, address)))
        return self.servers[-1]

    def stepped(self):
        """The mirror, as one that a daemon looping without a wait goes along with check by check."""
        stepped = SteppedMirror(self.server)
        self.servers[self.servers.index(self.server)] = stepped
        return stepped

    def publish(self, version, **other):
        """Has the mirror offer a release, which is returned."""
        release = Release(version, **other)
        self.server.script = release.script
        return release

    def configuration(self, host="127.0.0.1", **settings):
        """The text of a configuration for the mirror."""
        base = self.server.base(host).removesuffix(f"/{SUBDIR}")
        fixed = {"engine_version": ENGINE, "poll_interval_s": 3600, "poll_jitter_s": 0, "http_timeout_s": 60}
        mirror = {"mirror_base_url": base, "mirror_subdir": SUBDIR, "ca_path": AUTHORITY}
        return configuration({**mirror, **fixed, **settings})

    def configure(self, *host, **settings):
        """Writes it; returns the text."""
        text = self.configuration(*host, **settings)
        self.put(CONFIG, text)
        return text

    def check(self, command=RESTART, status=STATUS):
        """Runs what begins a check, and waits for its end."""
        self.path(status).unlink(missing_ok=True)
        self.run("sh", "-ec", f"systemctl reset-failed {UNIT} 2>/dev/null || :; {command}")
        self.wait_for_status(status=status)

    def expect_status(self, version, error="", status=STATUS):
        """Compares the whole status file, but for the time of the check."""
        found = self.status_text(status)
        expected = status_text(version, json.loads(found)["last_check_epoch"], error)
        assert found == expected, f"expected\n{expected}\ncame\n{found}\nin {status}"

    def expect_check(self, version, error="", command=RESTART, status=STATUS):
        self.check(command, status)
        self.expect_status(version, error, status)

    def update_to(self, version, **settings):
        """Configures the gateway, and has it take a release, which is returned."""
        release = self.publish(version)
        self.configure(**settings)
        self.expect_check(version)
        return release

    def status_text(self, status=STATUS):
        try:
            return self.path(status).read_text()
        except FileNotFoundError:
            return ""

    def wait_for_status(self, version="", status=STATUS):
        """Waits for a whole status file, of that version if one is given."""
        said = f'"active_version": "{version}'
        self.wait_for(lambda: said in self.status_text(status) and self.status_text(status).endswith("}\n"))

    def in_service(self, root=ROOT, user=None):
        """The release whose definitions a reader gets."""
        return self.out("sed", "-n", "1s/.* of //p", f"{root}/active/antivir-v2.def", user=user)

    # What can be seen from outside.

    def state(self, unit=UNIT):
        return self.show(unit, "ActiveState")

    def enabled(self):
        return self.run("systemctl", "is-enabled", UNIT, check=False).stdout.strip()

    def take_log(self):
        """What the unit's processes have logged since the last call."""
        # By the name too: the log daemon may not find the unit of a process that has ended meanwhile.
        lines = f"--cursor-file /run/zqu-cursor _SYSTEMD_UNIT={UNIT} + SYSLOG_IDENTIFIER={PROGRAM}"
        command = f"journalctl --sync; journalctl --quiet --output cat {lines}"
        process = self.run("sh", "-c", command, check=False)
        assert process.stderr == ""  # the exit status is 1 when there is nothing new
        return process.stdout.splitlines()

    def listing(self, root=ROOT):
        return listing(self.path(root))

    def entries(self, root=ROOT):
        """{name: mode, owners, target of a link} of a definitions root and all below it."""
        lines = self.out("find", root, "-printf", "%P\\t%M %u:%g %l\\n").splitlines()
        return {name: what.rstrip() for name, what in (line.split("\t") for line in lines)}

    def outside(self):
        """All that was ever written outside the definitions root, and what lies in the file systems in memory."""
        found = {}
        for top in ("run/written", "run", "tmp", "var/tmp", "dev/shm"):
            base = self.path(f"/{top}")
            for directory, directories, files in os.walk(base):
                inside = os.path.relpath(directory, base)
                place = os.path.normpath(inside if top == "run/written" else f"{top}/{inside}")
                names = {name: os.path.normpath(os.path.join(place, name)) for name in (*directories, *files)}
                names = {name: full for name, full in names.items() if full not in _CHURN and f"/{full}" != ROOT}
                directories[:] = [name for name in directories if name in names]
                found |= {full: _identity(os.path.join(directory, name)) for name, full in names.items()}
        return found

"""A booted system with the updater installed as it ships: its unit, its user and its folders, and mirrors beside it."""

import contextlib
import hashlib
import json
import os
import pathlib
import queue
import shutil
import stat
import subprocess

import trustme
from booted import Booted
from gateway import BUILD
from outcomes import ENGINE, listing, status_text
from release import HIT
from scripted_server import SUBDIR, ScriptedServer, reply
from trials import server_context

UNIT = "zel_quorin_updater.service"
TIMER = "zel_quorin_updater-retry.timer"
DAEMON_NAME = "zel_quorin_updater"
DAEMON = "/usr/local/sbin/zel_quorin_updater"
QUORIN = "/usr/local/zelgw/opt/av/quorin"
ROOT = f"{QUORIN}/defs"
STATUS = f"{ROOT}/manifest/status.json"
CONFIGURATION = f"{QUORIN}/etc/zel_quorin_updater.conf"
AUTHORITY = f"{QUORIN}/etc/ca.pem"
SERVICE, READERS = "zel-quorin", "zel-quorin-readers"
STRANGER, READER = "zqu-stranger", "zqu-reader"
DROP_INS = f"/etc/systemd/system/{UNIT}.d"
# What the system itself writes while it runs.
_CHURN = ("run/systemd", "run/log", "run/written", "run/udev", "var/log/journal", "var/lib/systemd")


def install(folder):
    """Installs the build below a folder, as a package would."""
    subprocess.run(
        ["cmake", "--install", BUILD], env={**os.environ, "DESTDIR": str(folder)}, capture_output=True, check=True
    )
    folder.chmod(0o755)  # it is laid over the root of the system
    return folder


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
    check begins, only when told to, so that everything is at rest in between. A daemon that died and was started again
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

    def forget(self):
        """Takes back what was told and not used yet, when no check is under way."""
        for queued in (self.answers, self.arrivals):
            with contextlib.suppress(queue.Empty):
                while True:
                    queued.get_nowait()

    def check(self, script):
        """Lets the check that has begun meet this script, and waits until the next one begins."""
        self.use(script)
        self.answers.put(script[HIT])
        self.await_check()

    def stop(self):
        self.answers.put([reply(b"", "404 Not Found")])  # whoever waits still
        self.server.stop()


class Confined(Booted):
    """The booted system with the updater in it, enabled but not started, and a reader and a stranger as local users."""

    def __init__(self, installation, *shared):
        super().__init__(installation, *shared)
        self.servers = []
        try:
            self._set_up(installation)
        except BaseException:
            self.end()
            raise

    def _set_up(self, installation):
        self.run("cp", "-a", f"{installation}/.", "/")
        self.run("systemd-sysusers")
        self.run("systemd-tmpfiles", "--create", "zel_quorin_updater.conf")
        self.run("useradd", "--no-create-home", STRANGER)
        self.run("useradd", "--no-create-home", "--groups", READERS, READER)
        self.run("install", "-d", "-m", "755", f"{QUORIN}/etc")
        self.run("systemctl", "daemon-reload")
        self.run("systemctl", "enable", UNIT)
        self.settings = {}
        self.authority = trustme.CA()
        self.context = server_context(self.authority.issue_cert("localhost", "mirror.example", "127.0.0.1", "::1"))
        self.put(AUTHORITY, self.authority.cert_pem.bytes())
        self.cursor = None

    def end(self):
        for server in getattr(self, "servers", []):
            server.stop()
        self.servers = []
        super().end()

    def put(self, path, content, mode=0o644):
        """Writes a file in the booted system, as its administrator."""
        place = self.path(path)
        place.parent.mkdir(parents=True, exist_ok=True)
        place.write_bytes(content if isinstance(content, bytes) else content.encode())
        place.chmod(mode)

    def scripted(self, address="127.0.0.1", tls=True):
        """A scripted server, over TLS as mirrors are, in the booted system's network."""
        self.servers.append(self.in_network(lambda: ScriptedServer(self.context if tls else None, address)))
        return self.servers[-1]

    def stepped(self):
        """A scripted mirror that a daemon looping without a wait goes along with check by check."""
        self.servers.append(SteppedMirror(self.in_network(lambda: ScriptedServer(self.context))))
        return self.servers[-1]

    def configure(self, server=None, **settings):
        """Writes the configuration; with a server, for its files."""
        if server:
            settings = {
                "mirror_base_url": server.base().removesuffix(f"/{SUBDIR}"),
                "mirror_subdir": SUBDIR,
                "ca_path": AUTHORITY,
                "engine_version": ENGINE,
                "poll_interval_s": 3600,
                "poll_jitter_s": 0,
                "http_timeout_s": 60,
                **settings,
            }
        self.settings = settings
        self.put(CONFIGURATION, "".join(f"{key} = {value}\n" for key, value in settings.items()))

    def drop_in(self, text, unit=UNIT, name="test"):
        """Changes a unit as an administrator would; an empty text takes the change back."""
        path = f"/etc/systemd/system/{unit}.d/{name}.conf"
        if text:
            self.put(path, text)
        else:
            self.path(path).unlink(missing_ok=True)
        self.run("systemctl", "daemon-reload")

    def reset(self):
        """Back to the moment after the installation."""
        self.stop()
        for unit in (UNIT, TIMER):
            shutil.rmtree(self.path(f"/etc/systemd/system/{unit}.d"), ignore_errors=True)
        self.run("sh", "-c", f"rm -rf {ROOT}; rm -f {CONFIGURATION}")
        self.run("systemd-tmpfiles", "--create", "zel_quorin_updater.conf")
        self.run("systemctl", "daemon-reload")
        self.run("systemctl", "reset-failed", UNIT, check=False)
        self.take_log()

    def stop(self):
        """Ends the unit at once, in whatever it is doing; it stays ended."""
        self.run("systemctl", "kill", "--signal=KILL", UNIT, check=False)
        self.run("systemctl", "stop", UNIT, TIMER)

    def take_log(self):
        """What the unit's processes have logged since it was asked last."""
        self.run("journalctl", "--sync")
        command = ["journalctl", "--quiet", "--output", "cat", "--cursor-file", "/run/zqu-cursor"]
        # By the name too: the log daemon may not find the unit of a process that has ended meanwhile.
        process = self.run(*command, f"_SYSTEMD_UNIT={UNIT}", "+", f"SYSLOG_IDENTIFIER={DAEMON_NAME}", check=False)
        assert process.stderr == ""  # the exit status is 1 when there is nothing new
        return process.stdout.splitlines()

    def restart(self):
        """Restarts the unit and waits for the end of the check that it begins with."""
        self.path(STATUS).unlink(missing_ok=True)
        self.run("systemctl", "restart", UNIT)
        self.wait_for_status()

    def status_text(self):
        try:
            return self.path(STATUS).read_text()
        except FileNotFoundError:
            return ""

    def wait_for_status(self, version=None):
        """Waits for a whole status file, of that version in service if one is given."""
        self.wait_for(lambda: self.status_text().endswith("}\n") and version in (None, self.active()))

    def active(self):
        """The version that the status file tells."""
        return json.loads(self.status_text())["active_version"]

    def expect_status(self, version, error=""):
        checked = json.loads(self.status_text())["last_check_epoch"]
        found, expected = self.status_text(), status_text(version, checked, error)
        assert found == expected, f"{found} instead of {expected}"

    def listing(self):
        return listing(self.path(ROOT))

    def state(self, unit=UNIT):
        return self.show(unit, "ActiveState"), self.show(unit, "Result")

    def outside(self):
        """All that was ever written outside the definitions root, and what lies in the file systems in memory."""
        found = {}
        for top in ("run/written", "run", "tmp", "var/tmp", "dev/shm"):
            base = self.path(f"/{top}")
            for folder, folders, files in os.walk(base):
                inside = os.path.relpath(folder, base)
                place = os.path.normpath(inside if top == "run/written" else f"{top}/{inside}")
                folders[:] = [name for name in folders if not self._left_out(os.path.join(place, name))]
                for name in (*folders, *files):
                    found[os.path.normpath(os.path.join(place, name))] = _identity(os.path.join(folder, name))
        found.pop("run/zqu-cursor", None)
        return found

    @staticmethod
    def _left_out(place):
        place = os.path.normpath(place)
        return place in _CHURN or f"/{place}" == ROOT

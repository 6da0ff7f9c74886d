"""A gateway that runs the daemon."""

import functools
import json
import os
import pathlib
import subprocess
import time

from builds import REPOSITORY
from outcomes import ENGINE, listing, status_text

BUILD = pathlib.Path(os.environ.get("ZQU_BUILD_DIR", REPOSITORY / "build")).resolve()
DAEMON = BUILD / "zel_quorin_updater"
for proxy in ("http_proxy", "https_proxy", "HTTPS_PROXY", "all_proxy", "ALL_PROXY"):
    os.environ.pop(proxy, None)  # libcurl would send the requests to this machine's servers through it
SANITIZED = b"__asan_init" in DAEMON.read_bytes()
# A prefix for a command that might use the default settings: they name a mirror elsewhere and a tree of
# the machine's own.
APART = ["unshare", "--mount", "--net", "sh", "-ec", 'mount -t tmpfs tmpfs /usr/local; exec "$@"', "sh"]
STARTED = "info zel_quorin_updater loop started (interval={}s jitter={}s)"
STOPPED = "info zel_quorin_updater loop stopped"
# All settings, with their defaults.
SETTINGS = {
    "mirror_base_url": "https://definitions.zelgw.example",
    "mirror_subdir": "rhex/deffiles/def5-2",
    "flavor": "v2",
    "ca_path": "",
    "engine_version": "",
    "def_root": "/usr/local/zelgw/opt/av/quorin/defs",
    "status_path": "/usr/local/zelgw/opt/av/quorin/defs/manifest/status.json",
    "poll_interval_s": 900,
    "poll_jitter_s": 120,
    "retained_snapshots": 3,
    "http_timeout_s": 300,
}


def configuration(settings):
    """The text of a configuration file with these settings."""
    return "".join(f"{key} = {value}\n" for key, value in settings.items())


def preloading(*libraries):
    """A value of LD_PRELOAD. When a library is missing, the dynamic linker continues, and the daemon may never end."""
    missing = [name for name in libraries if not (BUILD / name).exists()]
    assert not missing, f"not in {BUILD}: {', '.join(missing)}; all is built with cmake -DZQU_BUILD_TESTS=ON"
    return " ".join(libraries)


# A /dev of the namespace's own, with the directory's files and the few devices that the libraries open.
_ENTER_DEV = """
for device in null zero random urandom; do cp -a /dev/$device "$1"; done
mount --bind "$1" /dev
shift
exec "$@"
"""


def in_own_dev(directory):
    """The prefix for a command that finds that directory's entries in /dev, in its own mount namespace."""
    return ["unshare", "--mount", "sh", "-ec", _ENTER_DEV, "sh", directory]


def wait_for(condition, process=None):
    """Waits until the condition holds: half a minute at most, and only while the process lives, if one is given."""
    for _ in range(3000):
        if condition():
            return
        assert process is None or process.poll() is None, "the daemon ended before its time"
        time.sleep(0.01)
    raise AssertionError("it never came to that")


@functools.cache
def may_mount():
    """Whether this process may make mount and network namespaces, and mount in them; some roots may not."""
    tried = ["unshare", "--mount", "--net", "mount", "-t", "tmpfs", "tmpfs", "/mnt"]
    return os.geteuid() == 0 and subprocess.run(tried, capture_output=True).returncode == 0


class Gateway:
    """One machine that runs the daemon: its configuration, definitions root and status file, below a directory."""

    def __init__(self, directory, **settings):
        self.directory = directory
        self.root = directory / "defs"
        self.status_path = directory / "status" / "status.json"
        self.log_path = directory / "log"
        self.daemons = []
        paths = {"def_root": self.root, "status_path": self.status_path}
        self.settings = {"engine_version": ENGINE, **paths, "http_timeout_s": 60, **settings}

    @property
    def config_path(self):
        path = self.directory / "updater.conf"
        path.write_text(configuration(self.settings))
        return path

    def environment(self, calls=False, memory=False, **extra):
        shims = [*(["libzqu_memory_shim.so"] if memory else []), "libzqu_log_shim.so"]
        result = {**os.environ, "ZQU_LOG_FILE": str(self.log_path), **extra}
        if calls:
            shims.insert(0, "libzqu_call_shim.so")
            result["ZQU_CALL_FILE"] = str(self.log_path)
        result["LD_PRELOAD"] = preloading(*shims)
        result["LD_LIBRARY_PATH"] = str(BUILD)  # the path may hold a blank, which would split it in LD_PRELOAD
        # A sanitizer's run-time library cannot come first when something is preloaded.
        result["ASAN_OPTIONS"] = os.environ.get("ASAN_OPTIONS", "") + ":verify_asan_link_order=0"
        return result

    def run(self, *arguments, prefix=(), **environment):
        """Runs the daemon to its end; returns the finished process with its output."""
        variables = self.environment(**environment)
        if "strace" in prefix:
            variables["ASAN_OPTIONS"] += ":detect_leaks=0"  # the leak check does not work under ptrace(2)
        options = {"stdin": subprocess.DEVNULL, "capture_output": True, "text": True, "timeout": 120}
        return subprocess.run([*prefix, DAEMON, *arguments], env=variables, **options)

    def run_once(self, prefix=(), **environment):
        """Runs one cycle, which must succeed and print nothing; returns its log lines."""
        process = self.run("--config", self.config_path, "--once", prefix=prefix, **environment)
        assert (process.returncode, process.stdout, process.stderr) == (0, "", "")
        return self.take_log()

    def start(self, prefix=(), **environment):
        """Starts the loop, which end_all() ends at the latest."""
        command = [*prefix, DAEMON, "--config", self.config_path]
        self.daemons.append(subprocess.Popen(command, env=self.environment(**environment), stdin=subprocess.DEVNULL))
        return self.daemons[-1]

    def end_all(self):
        for daemon in self.daemons:
            daemon.kill()
            daemon.wait()

    def take_log(self):
        """All lines logged so far, less those of opening and closing the log; forgets them."""
        lines = self.log_path.read_text(errors="surrogateescape").splitlines() if self.log_path.exists() else []
        self.log_path.unlink(missing_ok=True)
        return [line for line in lines if line not in ("open zel_quorin_updater 3 24", "close")]

    def status(self):
        return json.loads(self.status_path.read_text())

    def expect_status(self, version, error=""):
        """Compares the whole status file, except the time of the check."""
        found = self.status_path.read_text(errors="surrogateescape")
        checked = json.loads(found, strict=False)["last_check_epoch"]
        expected = status_text(version, checked, error, self.settings["engine_version"])
        assert found == expected, f"expected\n{expected}\ncame\n{found}\nthe files are in {self.directory}"

    def listing(self):
        return listing(self.root)

    def active_files(self):
        return {path.name: path.read_bytes() for path in (self.root / "active").iterdir()}

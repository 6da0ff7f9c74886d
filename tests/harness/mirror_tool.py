"""zqu-mirror, and a place where it runs."""

import hashlib
import os
import pty
import signal
import subprocess
import tempfile

from gateway import BUILD
from outcomes import tree

TOOL = BUILD / "zqu-mirror"
SUBDIR = "rhex/deffiles/def5-2"
WORK = ".zqu-mirror.work"
CAPTURED = {"capture_output": True, "text": True, "timeout": 300}


def run(*args, **options):
    done = subprocess.run([TOOL, *args], capture_output=True, timeout=300, **options)
    return done.returncode, done.stdout.decode(), done.stderr.decode()


def measured(words):
    """What a run says, and the most memory it had, in MB. By time(1): a child of this process would begin with what
    this one has."""
    with tempfile.NamedTemporaryFile("r") as used:
        done = subprocess.run(["time", "--quiet", "--format=%M", f"--output={used.name}", *words], **CAPTURED)
        return (done.returncode, done.stdout, done.stderr), int(used.read()) / 1024


def shown_on_terminal(words):
    """The exit status of a run, and what it writes to a terminal on standard error."""
    master, slave = pty.openpty()
    process = subprocess.Popen(words, stdout=subprocess.DEVNULL, stderr=slave)
    os.close(slave)
    shown = b""
    while True:
        try:
            shown += os.read(master, 4096)
        except OSError:  # the other end is closed
            break
    os.close(master)
    return process.wait(timeout=60), shown


def under_strace():
    """The environment of a tool that strace runs: the leak check does not work under ptrace(2)."""
    return {**os.environ, "ASAN_OPTIONS": os.environ.get("ASAN_OPTIONS", "") + ":detect_leaks=0"}


def noise(size, seed):
    """Bytes that do not compress, the same in each run."""
    blocks = (hashlib.sha256(f"{seed} {i}".encode()).digest() for i in range(size // 32 + 1))
    return b"".join(blocks)[:size]


def release_files(root):
    return sorted(path.name for path in (root / SUBDIR).iterdir())


class Setting:
    """A place with two definition files and a mirror that may hold a release "old" of other content."""

    def __init__(self, base):
        self.base = base
        self.mirror = base / "mirror"
        self.dir = self.mirror / SUBDIR
        self.antivir = base / "first input"
        self.aivsecon = base / "second input"
        self.antivir.write_bytes(noise(70000, "antivir"))
        self.aivsecon.write_bytes(b"signature\n" * 3000)
        os.utime(self.antivir, (1583298368, 1583298368))
        os.utime(self.aivsecon, (1614834370, 1614834370))
        self.old = base / "old input"
        self.old.write_bytes(b"old\n")

    def publish(self, id, *flags, mirror=None, **options):
        return run("publish", *flags, "--id", id, mirror or self.mirror, self.antivir, self.aivsecon, **options)

    def publish_old(self):
        assert run("publish", "--id", "old", self.mirror, self.old, self.old)[0] == 0

    def check(self, *flags, mirror=None, **options):
        return run("check", *flags, mirror or self.mirror, **options)

    def require_refused(self, line, *flags, id="new", code=1, **options):
        before = tree(self.mirror, modes=True)
        assert self.publish(id, *flags, **options) == (code, "", f"zqu-mirror: {line}\n")
        assert tree(self.mirror, modes=True) == before


class Stopped:
    """A publish that stands still before its first call of a kind on a path."""

    def __init__(self, place, path, call="openat", number=1, id="new", tool_args=None):
        log = place.base / "stop-log"
        log.unlink(missing_ok=True)
        words = tool_args or ["publish", "--id", id, place.mirror, place.antivir, place.aivsecon]
        self.process = subprocess.Popen(
            [
                "strace",
                "-D",
                "-o",
                log,
                "-P",
                str(path),
                "-e",
                f"inject={call}:signal=STOP:when={number}",
                TOOL,
                *words,
            ],
            env=under_strace(),
            stdout=subprocess.PIPE,
            stderr=subprocess.PIPE,
        )
        while not (log.exists() and "--- stopped by SIGSTOP ---" in log.read_text()):
            assert self.process.poll() is None, "ended without having been stopped"

    def __enter__(self):
        return self

    def __exit__(self, *unused):
        if self.process.returncode is None:
            self.process.kill()
            self.process.communicate()

    def signal(self, number):
        self.process.send_signal(number)

    def finish(self):
        self.process.send_signal(signal.SIGCONT)
        out, err = self.process.communicate(timeout=120)
        return self.process.returncode, out.decode(), err.decode()

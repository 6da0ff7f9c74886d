"""The operators' programs, as a test runs them."""

import os
import pty
import re
import signal
import subprocess
import tempfile

import pytest
from builds import REPOSITORY
from gateway import BUILD

AS_ROOT = os.geteuid() == 0

# What bash offers for the last of the words, one offer in a line.
_ASK = """
source "$1"; shift
COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1))
compopt() { :; }  # works only while a word is being completed
function=_${1//-/_}
[[ $(complete -p "$1") == *" $function "* ]] && "$function"
printf '%s\\n' "${COMPREPLY[@]}"
"""


class Tool:
    """One of the programs. Called, it runs to its end: its exit status, standard output and standard error."""

    def __init__(self, name):
        self.name = name
        self.path = BUILD / name

    def __call__(self, *words, prefix=(), **options):
        done = subprocess.run([*prefix, self.path, *words], capture_output=True, timeout=300, **options)
        return done.returncode, done.stdout.decode(), done.stderr.decode()

    def copied_to(self, directory):
        """A copy that every user of the directory can run."""
        copy = Tool(self.name)
        copy.path = directory / self.name
        copy.path.write_bytes(self.path.read_bytes())
        copy.path.chmod(0o755)
        return copy

    def into_full_device(self, *words):
        """The exit status and standard error where standard output has no room."""
        return self(*words, prefix=["sh", "-c", 'exec "$@" >/dev/full', "sh"])[::2]

    def on_terminal(self, stream, *words, prefix=(), **options):
        """The exit status, and the output of one stream that is a terminal."""
        master, slave = pty.openpty()
        streams = {"stdout": subprocess.DEVNULL, "stderr": subprocess.DEVNULL, stream: slave}
        process = subprocess.Popen([*prefix, self.path, *words], **streams, **options)
        os.close(slave)
        shown = b""
        try:
            while block := os.read(master, 4096):
                shown += block
        except OSError:  # the other end is closed
            pass
        os.close(master)
        return process.wait(timeout=60), shown

    def measured(self, *words):
        """The result of a run, and its peak memory in MB. By time(1): a child of this process would begin with the
        memory of this one."""
        with tempfile.NamedTemporaryFile("r") as used:
            result = self(*words, prefix=["time", "--quiet", "--format=%M", f"--output={used.name}"])
            return result, int(used.read()) / 1024

    def completed(self, *words, cwd):
        """What bash would offer for the last of the words, sorted."""
        script = REPOSITORY / "packaging" / "bash-completion" / self.name
        command = ["bash", "--norc", "-c", _ASK, "bash", script, self.name, *words]
        done = subprocess.run(command, cwd=cwd, capture_output=True, text=True, timeout=30)
        assert (done.returncode, done.stderr) == (0, "")
        return sorted(filter(None, done.stdout.split("\n")))


def check_metrics(text):
    """The samples of an exposition, by name and labels, after promtool has accepted it."""
    done = subprocess.run(["promtool", "check", "metrics"], input=text, capture_output=True, text=True)
    assert (done.returncode, done.stdout, done.stderr) == (0, "", "")
    return dict(line.rpartition(" ")[::2] for line in text.splitlines() if not line.startswith("#"))


def under_strace():
    """The environment of a program that strace runs: the leak check does not work under ptrace(2)."""
    return {**os.environ, "ASAN_OPTIONS": os.environ.get("ASAN_OPTIONS", "") + ":detect_leaks=0"}


class Stopped:
    """A program that stops at its first call of a kind on a path."""

    def __init__(self, command, path, call="openat", env=None):
        with tempfile.TemporaryDirectory() as directory:
            log = os.path.join(directory, "log")
            stop = ["strace", "-D", "-o", log, "-P", path, "-e", f"inject={call}:signal=STOP:when=1"]
            streams = {"stdout": subprocess.PIPE, "stderr": subprocess.PIPE}
            self.process = subprocess.Popen([*stop, *command], env=env or under_strace(), **streams)
            while not (os.path.exists(log) and "--- stopped by SIGSTOP ---" in open(log).read()):
                assert self.process.poll() is None, "ended without having been stopped"

    def __enter__(self):
        return self

    def __exit__(self, *unused):
        if self.process.returncode is None:
            self.process.kill()
            self.process.communicate()

    def finish(self, *signals):
        """Sends the signals, and lets the program run to its end."""
        for number in (*signals, signal.SIGCONT):
            self.process.send_signal(number)
        out, err = self.process.communicate(timeout=120)
        return self.process.returncode, out.decode(), err.decode()


def cases(table):
    """The cases of a table in text: lines, and what is expected of them, or "nothing". That is in the second column, or
    indented below. A line that is indented further continues an expectation."""
    table = re.sub(r"^([^ \n].*?) {4,}", r"\1\n    ", table, flags=re.MULTILINE)
    found = re.findall(r"((?:^[^ \n].*\n)+)((?:^    .*\n)+)", table, re.MULTILINE)
    assert "".join(lines + expected for lines, expected in found) == table[1:]
    for lines, expected in found:
        expected = expected.replace("\n        ", " ").splitlines()
        yield pytest.param(lines, [line[4:] for line in expected if line != "    nothing"], id=lines[:30].strip())

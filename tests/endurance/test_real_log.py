"""A real syslog daemon behind /dev/log receives every message that the daemon can log, byte for byte."""

import os
import re
import shutil
import signal
import socket
import subprocess
import textwrap
from collections import namedtuple

import pytest
from builds import REPOSITORY
from gateway import DAEMON, SANITIZED, Gateway, in_own_dev, may_mount, wait_for
from mirrors import Mirror
from model import model_of
from model_mirror import ModelMirror
from release import definition_names

RSYSLOG = shutil.which("rsyslogd", path=f"{os.environ['PATH']}:/usr/sbin")
FLAWS = (
    *("complete-info not there", "complete-info without the name", "archive not there", "archive in a subdirectory"),
    *("archive digest wrong", "not an archive", "without the first", "without the second"),
    *("index wrong for the first", "index wrong for the second"),
)

# Bytes that a log daemon might escape, and a reader of the log might stumble over: controls, quotes, a percent sign,
# what is no UTF-8.
ODD = b"10%s-\x01\t\"'\\-\xc3\xa9-\xff"

Message = namedtuple("Message", "facility severity program process text")


class LogDaemon:
    """An rsyslogd of the test's own: its socket is named log, and it writes down what arrives, in order."""

    def __init__(self, folder):
        self.socket_path = folder / "dev" / "log"
        self.socket_path.parent.mkdir()
        self.received = folder / "received"
        self.received.touch()
        configuration = folder / "rsyslog.conf"
        configuration.write_text(
            textwrap.dedent(
                f"""\
                global(
                    workDirectory="{folder}"
                    parser.escapeControlCharactersOnReceive="off"
                    parser.escape8BitCharactersOnReceive="off"
                )
                main_queue(queue.type="Direct")
                module(load="imuxsock" SysSock.Use="off")
                input(type="imuxsock" Socket="{self.socket_path}")
                template(name="fields" type="string"
                    string="%syslogfacility-text%|%syslogseverity-text%|%programname%|%procid%|%msg%\\n")
                action(type="omfile" file="{self.received}" template="fields")
                """
            )
        )
        self.process = subprocess.Popen(
            [RSYSLOG, "-n", "-f", configuration, "-i", folder / "pid"], stdin=subprocess.DEVNULL
        )
        wait_for(lambda: self.socket_path.exists(), self.process)

    def messages(self):
        """All that was sent so far, which a message of our own comes after."""
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as log:
            log.sendto(b"<14>Nov  1 00:00:00 fence[1]: passed", str(self.socket_path))
        wait_for(lambda: self.received.read_bytes().endswith(b"fence|1| passed\n"), self.process)
        lines = self.received.read_bytes().split(b"\n")[:-2]
        return [Message(*(os.fsdecode(part) for part in line.split(b"|", 4))) for line in lines]

    def stop(self):
        self.process.terminate()
        self.process.wait(timeout=60)


@pytest.fixture
def log_daemon(tmp_path_factory):
    daemon = LogDaemon(tmp_path_factory.mktemp("log"))  # a short path: that of a socket has 107 bytes at most
    yield daemon
    daemon.stop()


class Runs:
    """Runs of the daemon, one of each kind, and the messages that the model expects of them."""

    def __init__(self, log_daemon, folder, nginx):
        self.log_daemon = log_daemon
        self.folder = folder
        self.nginx = nginx
        self.count = 0
        self.expected = []

    def new(self, **settings):
        """A gateway with a corner of the mirror to itself."""
        self.count += 1
        folder = self.folder / str(self.count)
        folder.mkdir()
        mirror = Mirror(self.nginx.root, f"{self.folder.name}-{self.count}")
        settings = {"mirror_base_url": self.nginx.url(), "mirror_subdir": mirror.subdir, **settings}
        gateway = Gateway(folder, ca_path=self.nginx.ca_path, **settings)
        return gateway, ModelMirror(mirror, self.nginx.url(), self.folder / "scratch")

    def start(self, path, *arguments, prefix=(), program=DAEMON):
        command = [*in_own_dev(self.log_daemon.socket_path.parent), *prefix, program, "--config", path, *arguments]
        return subprocess.Popen(command, stdin=subprocess.DEVNULL)

    def expect(self, process, lines):
        assert process.wait(timeout=60) == 0
        for line in lines:
            severity, _, words = line.partition(" ")
            self.expected.append(Message("daemon", severity, "zel_quorin_updater", str(process.pid), f" {words}"))

    def once(self, gateway, mirror, before=(), **options):
        """A run that logs these lines before those that the model expects."""
        model = model_of(gateway.folder, mirror)
        model.once(gateway.settings)
        self.expect(self.start(gateway.config_path, "--once", **options), [*before, *model.disk.lines])

    def defaults(self):
        """Without network or name service, and with an empty place where the defaults lead to."""
        hide = 'for place in /usr/local /run; do mount -t tmpfs none $place; done; exec "$@"'
        prefix = ["unshare", "--mount", "--net", "sh", "-ec", hide, "sh"]
        path = self.folder / "no such file"
        warning = f"warning could not read config {path}; using defaults"
        mirror = self.new()[1]
        mirror.failure = "Couldn't resolve host name"
        model = model_of(self.folder, mirror)
        model.once({})
        program = shutil.copy(DAEMON, self.folder)
        self.expect(self.start(path, "--once", prefix=prefix, program=program), [warning, *model.disk.lines])

    def settings(self):
        for settings in ({"mirror_base_url": ""}, {"flavor": ""}):
            self.once(*self.new(**settings))

    def hits(self):
        """What the mirror names goes to the log as it is, however odd; libcurl refuses such an address."""
        for content in (b"[Current]\n", b"defId=" + ODD + b"\n"):
            gateway, mirror = self.new()
            mirror.write("antivir-v2-hit.ini", content)
            self.once(gateway, mirror)

    def releases(self):
        for flaw in FLAWS:
            gateway, mirror = self.new()
            mirror.publish("1001", [flaw])
            self.once(gateway, mirror)

    def flushes(self):
        """strace makes a system call on the first file fail; -D leaves the daemon the process that was started."""
        for injection, text in (
            ("openat:error=EACCES:when=2", "warning fsync: open {} failed"),  # the first one creates it
            ("fsync:error=EIO", "warning fsync: {} failed"),
        ):
            gateway, mirror = self.new()
            mirror.publish("1001")
            path = f"{gateway.root}/snapshots/1001/{definition_names()[0]}"
            prefix = ["strace", "-D", "-f", "-qq", "-o", "/dev/null", "-P", path, "-e", f"inject={injection}"]
            self.once(gateway, mirror, [text.format(path)], prefix=prefix)

    def publications(self):
        for name in ("active.tmp", "active"):
            gateway, mirror = self.new()
            mirror.publish("1001")
            (gateway.root / name).mkdir(parents=True)
            self.once(gateway, mirror)
            (gateway.root / name).rmdir()
            self.once(gateway, mirror)

    def loop(self):
        gateway, mirror = self.new(poll_interval_s=600, poll_jitter_s=1)
        mirror.publish("1001", ["first links to itself"])
        model = model_of(gateway.folder, mirror)
        model.loop(gateway.settings, cycles=1)
        process = self.start(gateway.config_path)
        wait_for(lambda: b"run_once exception" in self.log_daemon.received.read_bytes(), process)
        process.send_signal(signal.SIGTERM)
        self.expect(process, model.disk.lines)


def message_formats():
    """The priority and the text of every message in the daemon's sources, as pairs of words and a pattern."""
    calls, found = 0, []
    for source in sorted((REPOSITORY / "src").glob("*.cpp")):
        text = source.read_text()
        calls += len(re.findall(r"\bsyslog\(", text))
        for priority, words in re.findall(r'\bsyslog\(LOG_(\w+),\s*"([^"\\]*)"', text):
            pattern = re.escape(words).replace("%s", "(?s:.*)").replace("%u", r"\d+")
            found.append((priority.lower(), pattern))
    assert calls == len(found) > 0
    return found


@pytest.mark.skipif(not may_mount(), reason="needs the right to make a mount namespace with a /dev/log of its own")
@pytest.mark.skipif(RSYSLOG is None, reason="needs rsyslogd")
@pytest.mark.skipif(SANITIZED, reason="the sanitizers need more of /dev")
def test_log_daemon_receives_every_message_byte_for_byte(log_daemon, tmp_path, nginx):
    runs = Runs(log_daemon, tmp_path, nginx)
    for run in (runs.defaults, runs.settings, runs.hits, runs.releases, runs.flushes, runs.publications, runs.loop):
        run()
    received = log_daemon.messages()
    assert received == runs.expected
    for severity, pattern in message_formats():
        matching = [message for message in received if re.fullmatch(f" {pattern}", message.text)]
        assert matching and {message.severity for message in matching} == {severity}, pattern

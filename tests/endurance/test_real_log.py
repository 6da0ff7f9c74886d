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
from release import definition_names, good_files

RSYSLOG = shutil.which("rsyslogd", path=f"{os.environ['PATH']}:/usr/sbin")
ANTIVIR, AIVSECON = definition_names()
REFUSED = "HTTP response code said error"

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
    """Runs of the daemon, one of each kind, and the messages expected of them."""

    def __init__(self, log_daemon, folder, nginx):
        self.dev = log_daemon.socket_path.parent
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
        return Gateway(folder, ca_path=self.nginx.ca_path, **settings), mirror

    def url(self, mirror, name):
        return f"{self.nginx.url()}/{mirror.subdir}/antivir-{name}"

    def expect(self, process, *texts):
        for text in texts:
            severity, _, words = text.partition(" ")
            self.expected.append(Message("daemon", severity, "zel_quorin_updater", str(process.pid), f" {words}"))

    def start(self, *arguments, prefix=(), program=DAEMON):
        command = [*in_own_dev(self.dev), *prefix, program, *arguments]
        return subprocess.Popen(command, stdin=subprocess.DEVNULL)

    def once(self, gateway, *texts):
        process = self.start("--config", gateway.config_path, "--once")
        assert process.wait(timeout=60) == 0
        self.expect(process, *texts)

    def once_with_failing_call(self, gateway, path, injection, *texts):
        """strace makes a system call on that path fail; -D leaves the daemon the process that was started."""
        prefix = ["strace", "-D", "-f", "-qq", "-o", "/dev/null", "-P", path, "-e", f"inject={injection}"]
        process = self.start("--config", gateway.config_path, "--once", prefix=prefix)
        assert process.wait(timeout=60) == 0
        self.expect(process, *texts)

    def defaults(self):
        """Without network or name service, and with an empty place where the defaults lead to."""
        hide = 'for place in /usr/local /run; do mount -t tmpfs none $place; done; exec "$@"'
        path = self.folder / "no such file"
        process = self.start(
            "--config",
            path,
            "--once",
            prefix=["unshare", "--mount", "--net", "sh", "-ec", hide, "sh"],
            program=shutil.copy(DAEMON, self.folder),
        )
        assert process.wait(timeout=60) == 0
        url = re.search(r'mirror_base_url = "(.*)"', (REPOSITORY / "include" / "config.hpp").read_text())[1]
        self.expect(
            process,
            f"warning could not read config {path}; using defaults",
            f"err GET {url}/rhex/deffiles/def5-2/antivir-v2-hit.ini: Couldn't resolve host name",
        )

    def warnings(self):
        gateway, _ = self.new(mirror_base_url="", mirror_subdir="x")
        self.once(
            gateway,
            "warning config: mirror_base_url is not set (the updater will idle, performing no checks)",
            "err GET /x/antivir-v2-hit.ini: URL using bad/illegal format or missing URL",
        )
        gateway, mirror = self.new(flavor="")
        hit = self.url(mirror, "-hit.ini")
        self.once(gateway, "warning config: flavor is not set", f"err GET {hit}: {REFUSED}")

    def indexes(self):
        gateway, mirror = self.new()
        mirror.write("antivir-v2-hit.ini", "[Current]\n")
        self.once(gateway, "err parse_hit_defid: no [Current] defId")
        mirror.write("antivir-v2-hit.ini", "defId=1001\n")
        mirror.write("antivir-v2-c-1001.ini", "def.Current.name=x\n")
        self.once(gateway, "err parse_complete_info: missing def.Current.name/SHA256")

    def refused(self, change, reason, *before):
        gateway, mirror = self.new()
        mirror.publish("1001")
        change(mirror)
        lines = [line.format(root=gateway.root, url=self.url(mirror, "v2-")) for line in before]
        self.once(gateway, *lines, f"err run_once: staging failed: {reason}")

    def stagings(self):
        cab = "antivir-v2-1001.cab"

        def entries(change):
            def publish(mirror):
                files = good_files("1001")
                change(files)
                mirror.publish("1001", files)

            return publish

        self.refused(
            lambda mirror: mirror.path(cab).unlink(), "download CAB", f"err download_cab {{url}}1001.cab: {REFUSED}"
        )
        self.refused(lambda mirror: mirror.write(cab, b"tampered"), "CAB sha256 mismatch")
        self.refused(entries(lambda files: files.pop(0)), f"CAB missing {ANTIVIR}")
        self.refused(entries(lambda files: files.pop(1)), f"CAB missing {AIVSECON}")
        self.refused(entries(lambda files: files.__setitem__(0, (ANTIVIR, b"x"))), f"sha256 mismatch {ANTIVIR}")
        self.refused(entries(lambda files: files.__setitem__(1, (AIVSECON, b"x"))), f"sha256 mismatch {AIVSECON}")

        def no_archive(mirror):
            mirror.write("plain", b"no archive")
            mirror.announce("1001", "plain")

        refusal = "err extract: cannot open {root}/snapshots/1001/plain: Unrecognized archive format"
        self.refused(no_archive, "CAB extract", refusal)

        def no_folder(mirror):
            digest = "def.Current.SHA256=00\n"
            mirror.write("antivir-v2-c-1001.ini", f"def.Current.name=none/x.cab\n{digest}")

        refusal = "err download_cab: cannot create {root}/snapshots/1001/none/x.cab.part"
        self.refused(no_folder, "download CAB", refusal)

    def flushes(self):
        done = ["info published def snapshot 1001", "info def snapshot updated: none -> 1001"]
        for injection, text in (
            ("openat:error=EACCES:when=2", "warning fsync: open {} failed"),  # the first one creates it
            ("fsync:error=EIO", "warning fsync: {} failed"),
        ):
            gateway, mirror = self.new()
            mirror.publish("1001")
            path = f"{gateway.root}/snapshots/1001/{ANTIVIR}"
            self.once_with_failing_call(gateway, path, injection, text.format(path), *done)

    def publications(self):
        for name, text in (
            ("active.tmp", "err publish: symlink {} failed"),
            ("active", "err publish: rename to active failed"),
        ):
            gateway, mirror = self.new()
            mirror.publish("1001")
            (gateway.root / name).mkdir(parents=True)
            self.once(gateway, text.format(gateway.root / name))
            (gateway.root / name).rmdir()
            self.once(gateway, "info published def snapshot 1001", "info def snapshot updated: none -> 1001")

    def odd_bytes(self):
        """What the mirror names goes to the log as it is, however odd; libcurl refuses such an address."""
        gateway, mirror = self.new()
        mirror.path("antivir-v2-hit.ini").write_bytes(b"defId=" + ODD + b"\n")
        url = self.url(mirror, f"v2-c-{os.fsdecode(ODD)}.ini")
        self.once(gateway, f"err GET {url}: URL using bad/illegal format or missing URL")

    def loop(self, log_daemon):
        gateway, mirror = self.new(poll_interval_s=600, poll_jitter_s=1)
        mirror.publish_looping("1001")
        process = self.start("--config", gateway.config_path)
        path = f"{gateway.root}/snapshots/1001/{ANTIVIR}"
        exception = "run_once exception: filesystem error: status: Too many levels of symbolic links"
        wait_for(lambda: exception.encode() in log_daemon.received.read_bytes(), process)
        process.send_signal(signal.SIGTERM)
        assert process.wait(timeout=60) == 0
        self.expect(
            process,
            "info zel_quorin_updater loop started (interval=600s jitter=1s)",
            f"err {exception} [{path}]",
            "info zel_quorin_updater loop stopped",
        )


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
    runs.defaults()
    runs.warnings()
    runs.indexes()
    runs.stagings()
    runs.flushes()
    runs.publications()
    runs.odd_bytes()
    runs.loop(log_daemon)
    received = log_daemon.messages()
    assert received == runs.expected
    for severity, pattern in message_formats():
        matching = [message for message in received if re.fullmatch(f" {pattern}", message.text)]
        assert matching and {message.severity for message in matching} == {severity}, pattern

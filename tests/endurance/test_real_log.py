"""A real syslog daemon behind /dev/log receives every message that the daemon can log, byte for byte."""

import functools
import itertools
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
from gateway import SANITIZED, STARTED, STOPPED, Gateway, in_own_dev, may_mount, wait_for
from outcomes import NO_FILE, NO_HOST, published
from raw_archives import LINK, release
from release import info_name
from scripted_server import reply
from trials import BAD_URL, NEW, OLD, SERVERS_REFUSAL, Trial

RSYSLOG = shutil.which("rsyslogd", path=f"{os.environ['PATH']}:/usr/sbin")

# Bytes that a log daemon might escape, or a reader of the log might misread: controls, quotes, a percent sign,
# invalid UTF-8. libcurl refuses such an address.
ODD = b"10%s-\x01\t\"'\\-\xc3\xa9-\xff"

Message = namedtuple("Message", "facility severity program process text")


class LogDaemon:
    """An rsyslogd of the test's own: its socket is named log, and it writes down what arrives, in order."""

    def __init__(self, directory):
        self.socket_path = directory / "dev" / "log"
        self.socket_path.parent.mkdir()
        self.received = directory / "received"
        self.received.touch()
        self.fences = itertools.count()
        configuration = directory / "rsyslog.conf"
        configuration.write_text(
            textwrap.dedent(
                f"""\
                global(
                    workDirectory="{directory}"
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
            [RSYSLOG, "-n", "-f", configuration, "-i", directory / "pid"], stdin=subprocess.DEVNULL
        )
        wait_for(lambda: self.socket_path.exists(), self.process)

    def messages(self):
        """All that was sent so far, which a message of our own comes after."""
        passed = next(self.fences)
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as log:
            log.sendto(b"<14>Nov  1 00:00:00 fence[%d]: passed" % passed, str(self.socket_path))
        wait_for(lambda: self.received.read_bytes().endswith(b"fence|%d| passed\n" % passed), self.process)
        lines = [line for line in self.received.read_bytes().split(b"\n")[:-1] if b"|fence|" not in line]
        return [Message(*(os.fsdecode(part) for part in line.split(b"|", 4))) for line in lines]

    def stop(self):
        self.process.terminate()
        self.process.wait(timeout=60)


class Machine(Gateway):
    """A gateway with that log daemon in the place of the library that records what is logged."""

    def __init__(self, directory, log_daemon, **settings):
        super().__init__(directory, **settings)
        self.log_daemon, self.taken = log_daemon, 0
        self.apart = in_own_dev(log_daemon.socket_path.parent)

    def environment(self, **_):
        return {**os.environ, "ASAN_OPTIONS": ""}

    def run(self, *arguments, prefix=()):
        return super().run(*arguments, prefix=[*self.apart, *prefix])

    def start(self):
        return super().start(prefix=self.apart)

    def take_log(self):
        new = self.log_daemon.messages()[self.taken :]
        self.taken += len(new)
        assert {(message.facility, message.program) for message in new} <= {("daemon", "zel_quorin_updater")}
        assert len({message.process for message in new}) <= 1
        return [f"{message.severity}{message.text}" for message in new]


@pytest.fixture
def trial(tmp_path_factory, scripted_context, authority):
    """Not in /dev/shm, since the daemon has a /dev of its own."""
    if not may_mount() or RSYSLOG is None or SANITIZED:
        pytest.skip("needs rsyslogd, a mount namespace, and a /dev that is enough for the daemon")
    directory = tmp_path_factory.mktemp("log")  # a short path: that of a socket has 107 bytes at most
    log_daemon = LogDaemon(directory)
    machine = functools.partial(Machine, log_daemon=log_daemon)
    (directory / "trial").mkdir()
    trial = Trial(directory / "trial", directory / "kept", scripted_context, authority, machine=machine)
    trial.begin()
    yield trial
    trial.end()
    log_daemon.stop()


def cases(trial):
    """A check that logs each of the messages about a mirror and its archives."""
    odd, stage = os.fsdecode(ODD), trial.gateway.root / "snapshots" / NEW
    refused = f"err GET {trial.server.base()}/{info_name(odd)}: {BAD_URL}"
    cannot_open = f"err extract: cannot open {stage}/x: Unrecognized archive format"
    cannot_create = f"err download_cab: cannot create {stage}/sub/x.part"
    odd_hit = {trial.name("hit"): [reply(b"defId=" + ODD + b"\n")]}
    return [
        trial.case("hit", [reply(b"[Current]\n")], "unreadable"),
        trial.refused(odd_hit, f"complete-info fetch failed for {odd}", refused),
        trial.case("info", [reply(b"")], "unreadable"),
        trial.case("archive", [reply(b"", "404 Not Found")], SERVERS_REFUSAL),
        trial.archive_case(b"x" * 500, "CAB extract", cannot_open, name="x"),
        trial.archive_case(b"x" * 500, "download CAB", cannot_create, name="sub/x"),
    ]


def log_flushes_and_publications(trial):
    """strace makes a system call on the first file fail."""
    machine = trial.gateway
    path = machine.root / "snapshots" / NEW / "antivir-v2.def"
    for injection, failed in (("openat:error=EACCES:when=2", f"open {path}"), ("fsync:error=EIO", path)):
        trial.go_back()
        trial.mend()
        prefix = ["strace", "-f", "-qq", "-o", "/dev/null", "-P", path, "-e", f"inject={injection}"]
        assert machine.run_once(prefix=prefix) == [f"warning fsync: {failed} failed", *published(NEW, OLD)]
    link, obstacle = machine.root / "active", machine.root / "active.tmp"
    link.unlink()
    for place, failed in ((obstacle, f"symlink {obstacle}"), (link, "rename to active")):
        place.mkdir()
        assert machine.run_once() == [f"err publish: {failed} failed"]
        place.rmdir()


def log_exception(trial):
    _, first, second = release(NEW)
    first.content, first.mode = first.name, LINK
    trial.server.script |= trial.archive_case([first, second], "").script
    trial.gateway.settings.update(poll_interval_s=600, poll_jitter_s=1)
    process = trial.gateway.start()
    wait_for(lambda: b"run_once exception" in trial.gateway.log_daemon.received.read_bytes(), process)
    process.send_signal(signal.SIGTERM)
    assert process.wait(timeout=60) == 0
    text = f"filesystem error: status: Too many levels of symbolic links [{trial.gateway.root}/snapshots/{NEW}/"
    exception = f"err run_once exception: {text}antivir-v2.def]"
    assert trial.gateway.take_log() == [STARTED.format(600, 1), exception, STOPPED]
    assert trial.gateway.log_daemon.messages()[-1].process == str(process.pid)


def log_settings(machine):
    """A mirror or a flavor that is not set; and no configuration, with defaults that reach nothing."""
    get = "err GET {}/rhex/deffiles/def5-2/antivir-{}-hit.ini: {}"
    unset = "warning config: mirror_base_url is not set (the updater will idle, performing no checks)"
    machine.settings = {"def_root": machine.root, "status_path": machine.status_path, "mirror_base_url": ""}
    assert machine.run_once() == [unset, get.format("", "v2", BAD_URL)]
    machine.settings |= {"mirror_base_url": "file:///nowhere", "flavor": ""}
    unread = get.format("file:///nowhere", "", NO_FILE)
    assert machine.run_once() == ["warning config: flavor is not set", unread]
    hide = 'for place in /usr/local /run; do mount -t tmpfs none $place; done; exec "$@"'
    apart = ["unshare", "--mount", "--net", "sh", "-ec", hide, "sh"]
    assert machine.run("--config", "/nowhere", "--once", prefix=apart).returncode == 0
    unresolved = get.format("https://definitions.zelgw.example", "v2", NO_HOST)
    assert machine.take_log() == ["warning could not read config /nowhere; using defaults", unresolved]


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


def test_log_daemon_receives_every_message_byte_for_byte(trial):
    trial.check_all(cases(trial))
    log_flushes_and_publications(trial)
    log_exception(trial)
    log_settings(trial.gateway)
    received = trial.gateway.log_daemon.messages()
    for severity, pattern in message_formats():
        matching = [message for message in received if re.fullmatch(f" {pattern}", message.text)]
        assert matching and {message.severity for message in matching} == {severity}, pattern

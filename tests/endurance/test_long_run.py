"""Thousands of cycles of one process, with all that a mirror can do to it: each logs, waits and changes the disk as it
must, and nothing grows."""

import os
import re
import signal
from datetime import datetime, timedelta, timezone

import pytest
from gateway import SANITIZED, STOPPED
from outcomes import NO_CONNECTION, published
from paced import SLICE, PacedDaemon
from raw_archives import LINK, release
from scripted_server import ScriptedServer, reply
from trials import NEW, OLD, SERVERS_REFUSAL, SNAPSHOTS, UNTRUSTED, Case, server_context

INTERVAL = 9

# The allocator's cache of a thread would count as memory in use, and fill up little by little.
NO_CACHE = "glibc.malloc.tcache_count=0"

# What the daemon may hold at most beyond what it held once it had seen everything. Memory in use differs by what the
# libraries keep of their last connection, some hundred bytes; resident pages by how the heap is split up at the time.
HEAP_BYTES = 1024
PAGES_KIB = 256


def flawed(trial):
    """What may be wrong with a release."""
    index, first, second = release(NEW)
    stage = trial.gateway.root / "snapshots" / NEW
    cannot_open = f"err extract: cannot open {stage}/release.archive: Unrecognized archive format"
    gone = [reply(b"", "404 Not Found")]
    second.content, wrong = b"wrong", second.name.decode()
    return [
        trial.case("hit", [reply(b"[Current]\n")], "unreadable"),
        trial.case("info", gone, SERVERS_REFUSAL),
        trial.case("info", [reply(b"")], "unreadable"),
        trial.case("archive", gone, SERVERS_REFUSAL),
        trial.case("archive", [reply(b"other")], "unreadable"),
        trial.archive_case(b"no archive" * 50, "CAB extract", cannot_open),
        trial.archive_case([index, second], "CAB missing antivir-v2.def"),
        trial.archive_case([index, first, second], f"sha256 mismatch {wrong}"),
    ]


class Run:
    """A daemon under way, its mirror, and what its next cycles have to do."""

    def __init__(self, trial, authority, prefix=()):
        self.trial, self.gateway = trial, trial.gateway
        self.cycles = 0
        good = [server_context(authority.issue_cert("127.0.0.1")) for _ in range(2)]
        yesterday = datetime.now(timezone.utc) - timedelta(days=1)
        self.expired = server_context(authority.issue_cert("127.0.0.1", not_after=yesterday))
        self.contexts = [self.expired, *good]
        self.gateway.settings.update(poll_interval_s=INTERVAL, poll_jitter_s=1)
        self.daemon = PacedDaemon(self.gateway, prefix=prefix, GLIBC_TUNABLES=NO_CACHE)
        self.daemon.until_gate()
        self.idle = Case(trial.old.script, [], OLD, "", trial.before)
        self.back = Case(trial.old.script, published(OLD, NEW), OLD, "", trial.before)

    def check(self, case, *waits):
        """Lets the daemon run a cycle for each wait; each must end as the case says."""
        self.trial.server.script = {**self.trial.new.script, **case.script}
        self.cycles += len(waits)
        self.daemon.run_until(2 * self.cycles + 1)  # a cycle reads the clock twice
        events = [re.sub("^time .*", "time", event) for event in self.daemon.until_gate()]
        assert events == [line for wait in waits for line in ("time", *case.lines, "time", *[SLICE] * wait)]

    def expect(self, case, count=3):
        """Checks that leave the status and the disk as the case says."""
        self.check(case, *[INTERVAL] * count)
        self.trial.expect(case, case.lines)

    def update(self):
        """To the new release, and back to the old one."""
        self.expect(self.trial.published({}), 1)
        self.expect(self.back, 1)

    def exceptions(self):
        """More in a row than there are steps by which the wait shrinks. The status stays as it was."""
        index, first, second = release(NEW)
        first.content, first.mode = first.name, LINK
        case = self.trial.archive_case([index, first, second], "")
        path = self.gateway.root / "snapshots" / NEW / first.name.decode()
        text = f"filesystem error: status: Too many levels of symbolic links [{path}]"
        case.lines = [f"err run_once exception: {text}"]
        self.check(case, 9, 4, 2, 1, 1, 1)

    def restart_server(self):
        """First nothing listens, then what does has another certificate: one that has expired, or one that is good."""
        for _ in self.contexts:
            former = self.trial.server
            former.stop()
            self.expect(self.trial.case("hit", [], NO_CONNECTION))
            self.contexts.append(self.contexts.pop(0))
            self.trial.server = ScriptedServer(self.contexts[-1], port=former.port)
            expired = self.contexts[-1] is self.expired
            self.expect(self.trial.case("hit", [], UNTRUSTED) if expired else self.idle)

    def link_in_the_way(self):
        obstacle = self.gateway.root / "active.tmp"
        obstacle.mkdir()
        after, place = self.trial.after(), f"{SNAPSHOTS}/{NEW}/"
        staged = {name: what for name, what in after.items() if f"{name}/".startswith(place)}
        left = {**self.trial.tree(), **staged}
        self.expect(Case({}, [f"err publish: symlink {obstacle} failed"], OLD, "publish/flip failed", left))
        obstacle.rmdir()

    def round(self, idle):
        """Everything once, and then so many cycles without news, after which the daemon's means are measured."""
        for case in flawed(self.trial):
            self.expect(case)
            self.update()
        for act in (self.exceptions, self.link_in_the_way, self.restart_server):
            act()
            self.update()
        self.expect(self.idle, idle)
        return self.means()

    def means(self):
        """What the daemon holds: resident memory now and at most in KiB, allocated bytes, threads, descriptors."""
        process = f"/proc/{self.daemon.process.pid}"
        with open(f"{process}/status") as status:
            values = dict(line.split(":", 1) for line in status)
        targets = (os.readlink(f"{process}/fd/{name}") for name in sorted(os.listdir(f"{process}/fd"), key=int))
        return {
            "resident": int(values["VmRSS"].split()[0]),
            "peak": int(values["VmHWM"].split()[0]),
            "heap": self.daemon.heap,
            "threads": int(values["Threads"]),
            "descriptors": [target.split(":")[0] for target in targets],  # without the numbers of sockets and pipes
        }

    def stop(self):
        """The signal comes in a cycle, which ends; the loop ends without a wait."""
        self.daemon.send(signal.SIGTERM)
        os.close(self.daemon.gates)
        self.daemon.gates = None
        events = [event.split()[0] if event.startswith("time") else event for event in self.daemon.rest()]
        events.remove(f"signal {signal.SIGTERM:d}")
        assert events == ["time", "time", STOPPED, "close"]
        assert self.daemon.process.wait(timeout=60) == 0


def run_rounds(run, cycles, idle, settled_after):
    """Rounds until there were so many cycles; what the daemon held when it had settled, and ever after."""
    measured = []
    while run.cycles < cycles:
        means = run.round(idle)
        if run.cycles >= settled_after:
            measured.append(means)
    run.stop()
    for means in (measured[0], measured[len(measured) // 2], measured[-1]):
        print(run.cycles, means)
    return measured


def test_thousands_of_cycles_change_nothing_but_what_they_must(trial, authority, thorough, record_property):
    run = Run(trial, authority)
    with run.daemon:
        settled, *later = run_rounds(run, *((50_000, 400, 1_000) if thorough else (1_500, 85, 300)))
    assert later
    record_property("cycles_of_one_process", run.cycles)
    for means in later:
        assert means["descriptors"] == settled["descriptors"]
        assert means["threads"] == settled["threads"] == 1
        if not SANITIZED:  # there freed memory is kept in quarantine, and leaks are found at the end
            assert means["heap"] - settled["heap"] <= HEAP_BYTES
            assert means["peak"] - settled["peak"] <= PAGES_KIB
            assert means["resident"] - settled["resident"] <= PAGES_KIB


def descriptors_left_open(report):
    """What valgrind says of each descriptor that is open at the end and was not there at the start."""
    entries = re.findall(r"(Open [^\n]*file descriptor[^\n]*|Open [^\n]*socket[^\n]*)\n==\d+== +([^\n]*)", report)
    return [entry for entry in entries if entry[1] != "<inherited from parent>"]


@pytest.mark.long
@pytest.mark.skipif(SANITIZED, reason="valgrind does not run a sanitized program")
def test_valgrind_finds_no_error_no_leak_and_no_open_descriptor(trial, authority, tmp_path):
    log = tmp_path / "valgrind"
    kinds = "leak-kinds=definite,indirect"
    checks = ["--leak-check=full", f"--show-{kinds}", f"--errors-for-{kinds}", "--track-fds=yes", "--error-exitcode=99"]
    run = Run(trial, authority, prefix=["valgrind", f"--log-file={log}", *checks])
    with run.daemon:
        run_rounds(run, cycles=150, idle=10, settled_after=0)
    report = log.read_text()
    print(report)
    assert "ERROR SUMMARY: 0 errors" in report
    assert "FILE DESCRIPTORS: " in report
    assert descriptors_left_open(report) == []

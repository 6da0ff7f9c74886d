"""Thousands of cycles of one process, with whatever a mirror can do to it, beside the model: all events and all files
are compared, and nothing may grow."""

import os
import re
import signal

import pytest
from gateway import SANITIZED, STOPPED, Gateway
from mirrors import Mirror, Nginx
from model import Pace, model_of
from model_disk import scan
from model_mirror import UNREACHABLE, ModelMirror
from paced import EPOCH, PacedDaemon

SETTINGS = {"poll_interval_s": 9, "poll_jitter_s": 5, "retained_snapshots": 3}

# The allocator's cache of a thread would count as memory in use, and fill up little by little.
NO_CACHE = "glibc.malloc.tcache_count=0"

# What the daemon may hold at most beyond what it held once it had seen everything. Memory in use differs by what the
# libraries keep of their last connection, some hundred bytes; resident pages by how the heap is split up at the time.
HEAP_BYTES = 1024
PAGES_KIB = 256

# What may be wrong with a release, and how often the daemon meets it: more exceptions in a row than there are steps by
# which the wait shrinks.
FLAWS = {
    "archive digest wrong": 3,
    "archive not there": 3,
    "not an archive": 3,
    "without the first": 3,
    "index wrong for the second": 3,
    "complete-info not there": 3,
    "complete-info without the name": 3,
    "first links to itself": 6,
}
KINDS = {"published", "current", "pruned", "defId fetch failed", "complete-info fetch failed", "download CAB"}
KINDS |= {"CAB sha256 mismatch", "CAB extract", "CAB missing", "sha256 mismatch", "publish/flip failed"}
KINDS |= {"link not made", "exception while staging"}


@pytest.fixture
def setting(tmp_path):
    """A gateway, its mirror, and an nginx of the test's own, which it may stop, start and give other certificates."""
    for name in ("nginx", "machine"):
        (tmp_path / name).mkdir()
    server = Nginx(tmp_path / "nginx")
    mirror = ModelMirror(Mirror(server.root, "defs"), server.url(), tmp_path / "scratch")
    settings = {"mirror_base_url": server.url(), "mirror_subdir": "defs", "ca_path": server.ca_path, **SETTINGS}
    gateway = Gateway(tmp_path / "machine", **settings)
    yield gateway, mirror, server
    gateway.end_all()
    server.stop()


class Run:
    """A daemon under way, its mirror and its model, and what its next cycles have to do."""

    def __init__(self, gateway, mirror, server, prefix=()):
        self.gateway = gateway
        self.mirror = mirror
        self.server = server
        self.number = 1000
        self.cycles = 0
        self.spare_leaves = [server.authority.issue_cert("localhost", "127.0.0.1") for _ in range(2)]
        before = scan(gateway.config_path.parent)  # with the configuration
        self.daemon = PacedDaemon(gateway, prefix=prefix, GLIBC_TUNABLES=NO_CACHE)
        self.model = model_of(gateway.folder, mirror, before, Pace(self.daemon.process.pid, EPOCH))
        self.disk = self.model.disk
        self.model.start(gateway.settings)
        self.model.begin_loop()
        assert self.daemon.until_gate()[-1:] == self.disk.lines

    def check(self, count):
        """Lets the daemon run some cycles, which have to go as in the model."""
        nodes, self.model.times = scan(self.gateway.folder)
        self.disk.begin(nodes)
        for _ in range(count):
            self.model.check()
        self.cycles += count
        self.daemon.run_until(2 * self.cycles + 1)  # a cycle reads the clock twice
        self.compare(self.daemon.until_gate(), self.disk.lines)

    def compare(self, events, expected):
        assert events == expected
        self.disk.expect_real()

    def publish(self, *flaws):
        """Under an id as long as all others, so that no text in memory grows."""
        self.mirror.publish(f"{self.number + 1:08}", flaws)

    def new_release(self):
        self.publish()
        self.number += 1
        self.check(2)

    def flawed_releases(self):
        """Each is then replaced by a good one of the same id."""
        for flaw, count in FLAWS.items():
            self.publish(flaw)
            self.check(count)
            self.new_release()

    def no_id(self):
        self.mirror.announce(f"{self.number + 1:08}", "no id")
        self.check(3)
        self.new_release()

    def start_server(self, failure=""):
        self.server.start()
        self.mirror.failure = failure
        self.check(3)

    def server_down(self):
        self.server.stop()
        self.mirror.failure = UNREACHABLE
        self.check(3)
        self.start_server()

    def certificate_rolled(self):
        self.spare_leaves.append(self.spare_leaves.pop(0))
        self.server.set_certificate(self.spare_leaves[0])
        self.server.reload()
        self.check(2)

    def certificate_expired(self):
        self.server.set_certificate(self.server.leaves["expired"])
        self.server.stop()
        self.start_server("SSL peer certificate or SSH remote key was not OK")
        self.server.set_certificate(self.spare_leaves[0])
        self.server.stop()
        self.start_server()

    def link_in_the_way(self):
        obstacle = self.gateway.root / "active.tmp"
        obstacle.mkdir()
        self.publish()
        self.check(3)
        obstacle.rmdir()
        self.new_release()

    def round(self, idle):
        """Everything once, and then so many cycles without news, after which the daemon's means are measured."""
        self.new_release()
        self.flawed_releases()
        self.no_id()
        self.server_down()
        self.certificate_rolled()
        self.certificate_expired()
        self.link_in_the_way()
        for _ in range(idle // 50):
            self.check(50)
        self.check(idle % 50 or 1)
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

    def stop(self, number=signal.SIGTERM):
        """The signal comes in a cycle, which ends; the loop ends without a wait."""
        self.disk.begin(scan(self.gateway.folder)[0])
        self.model.check({"lines": 0})
        self.daemon.send(number)
        os.close(self.daemon.gates)
        self.daemon.gates = None
        events = self.daemon.rest()
        events.remove(f"signal {number:d}")
        self.compare(events, [*self.disk.lines, STOPPED, "close"])
        assert self.daemon.process.wait(timeout=60) == 0


def run_rounds(run, cycles, idle, settled_after):
    """Rounds until there were so many cycles; what the daemon held when it had settled, and ever after."""
    measured = []
    while run.cycles < cycles:
        means = run.round(idle)
        if run.cycles >= settled_after:
            measured.append(means)
    run.stop()
    print(f"{run.cycles} cycles: {dict(run.model.seen)}")
    for means in (measured[0], measured[len(measured) // 2], measured[-1]):
        print(means)
    assert KINDS - {kind for kind, count in run.model.seen.items() if count} == set()
    return measured


def test_thousands_of_cycles_change_nothing_but_what_they_must(setting, request, record_property):
    whole = request.config.getoption("--all")
    run = Run(*setting)
    with run.daemon:
        settled, *later = run_rounds(run, *((50_000, 400, 1_000) if whole else (1_500, 85, 300)))
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
def test_valgrind_finds_no_error_no_leak_and_no_open_descriptor(setting, tmp_path):
    log = tmp_path / "valgrind"
    kinds = "leak-kinds=definite,indirect"
    checks = ["--leak-check=full", f"--show-{kinds}", f"--errors-for-{kinds}", "--track-fds=yes", "--error-exitcode=99"]
    run = Run(*setting, prefix=["valgrind", f"--log-file={log}", *checks])
    with run.daemon:
        run_rounds(run, cycles=150, idle=10, settled_after=0)
    report = log.read_text()
    print(report)
    assert "ERROR SUMMARY: 0 errors" in report
    assert "FILE DESCRIPTORS: " in report
    assert descriptors_left_open(report) == []

"""Thousands of cycles of one process, with whatever a mirror can do to it: each cycle's log lines and wait exactly, and
nothing that grows."""

import os
import re
import signal

import pytest
from gateway import SANITIZED, STARTED, STOPPED
from outcomes import published, snapshot_listing
from paced import EPOCH, SLICE, PacedDaemon, cycles_of, jitter
from release import definition_names, good_files

INTERVAL, JITTER = 9, 5
RETAINED = 3
ANTIVIR, AIVSECON = definition_names()

# The allocator's cache of a thread would count as memory in use, and fill up little by little.
NO_CACHE = "glibc.malloc.tcache_count=0"

# What the daemon may hold at most beyond what it held once it had seen everything. Memory in use differs by what the
# libraries keep of their last connection, some hundred bytes; resident pages by how the heap is split up at the time.
HEAP_BYTES = 1024
PAGES_KIB = 256


class Run:
    """A daemon under way, its mirror, and what its next cycles have to do."""

    def __init__(self, gateway, mirror, server, prefix=()):
        self.gateway = gateway
        self.mirror = mirror
        self.server = server
        gateway.settings.update(poll_interval_s=INTERVAL, poll_jitter_s=JITTER, retained_snapshots=RETAINED)
        self.url = f"{server.url()}/{mirror.subdir}/antivir-v2-"
        self.stage = f"{gateway.root}/snapshots"
        self.number = 1000
        self.snapshots = []
        self.cycles = 0
        self.failures = 0
        self.now = EPOCH
        self.outcomes = {}
        self.spare_leaves = [server.authority.issue_cert("localhost", "127.0.0.1") for _ in range(2)]
        self.daemon = PacedDaemon(gateway, prefix=prefix, GLIBC_TUNABLES=NO_CACHE)
        assert self.daemon.until_gate()[-1] == STARTED.format(INTERVAL, JITTER)

    @property
    def active(self):
        return self.snapshots[-1] if self.snapshots else ""

    @property
    def next_version(self):
        """Like all of them as long as the others, so that no text in memory grows."""
        return f"{self.number + 1:08}"

    def expect(self, name, count, first, then, error=None, exception=False):
        """Lets the daemon run some cycles, the first of which logs other lines than the others."""
        self.daemon.run_until(2 * (self.cycles + count) + 1)
        cycles = cycles_of(self.daemon.until_gate())
        assert [cycle.lines for cycle in cycles] == [first] + [then] * (count - 1), name
        for cycle in cycles:
            self._check_times(cycle, exception)
        self.cycles += count
        self.outcomes[name] = self.outcomes.get(name, 0) + count
        if not exception:
            self.gateway.expect_status(self.active, error or "")
            assert self.gateway.status()["last_check_epoch"] == cycles[-1].start

    def _check_times(self, cycle, exception):
        wait = INTERVAL >> min(self.failures, 3) if exception else INTERVAL
        self.failures = self.failures + 1 if exception else 0
        wait += jitter(self.daemon.process.pid, cycle.end, JITTER)
        assert (cycle.start, cycle.end, cycle.sleeps) == (self.now, self.now + 1, [SLICE] * wait)
        self.now += 2 + wait

    def expect_snapshots(self):
        assert self.gateway.listing() == snapshot_listing(self.active, *self.snapshots[-RETAINED:])

    def new_release(self, count=2):
        former = self.active or "none"
        version = self.next_version
        self.number += 1
        self.mirror.publish(version)
        self.snapshots.append(version)
        self.expect("published, then current", count, published(version, former), [])
        self.expect_snapshots()

    def nothing_new(self, count):
        self.expect("current", count, [], [])

    def refused(self, reason, count=3, before=()):
        """Cycles that each refuse the release at hand, which a good one of the same version then replaces."""
        lines = [*before, f"err run_once: staging failed: {reason}"]
        self.expect(reason, count, lines, lines, reason)
        self.expect_snapshots()
        self.new_release()

    def tampered_archive(self):
        self.mirror.publish(self.next_version)
        with open(self.mirror.path(f"antivir-v2-{self.next_version}.cab"), "ab") as archive:
            archive.write(b"x")
        self.refused("CAB sha256 mismatch")

    def no_archive(self):
        self.mirror.publish(self.next_version)
        name = f"{self.next_version}.cab"
        self.mirror.path(f"antivir-v2-{name}").unlink()
        self.refused("download CAB", before=[f"err download_cab {self.url}{name}: HTTP response code said error"])

    def no_archive_at_all(self):
        self.mirror.write("plain.cab", b"no archive")
        self.mirror.announce(self.next_version, "plain.cab")
        path = f"{self.stage}/{self.next_version}/plain.cab"
        self.refused("CAB extract", before=[f"err extract: cannot open {path}: Unrecognized archive format"])

    def definition_missing(self):
        self.mirror.publish(self.next_version, good_files(self.next_version)[1:])
        self.refused(f"CAB missing {ANTIVIR}")

    def definition_tampered(self):
        entries = good_files(self.next_version)
        entries[1] = (AIVSECON, b"tampered")
        self.mirror.publish(self.next_version, entries)
        self.refused(f"sha256 mismatch {AIVSECON}")

    def failed(self, name, error, line, count=3):
        self.expect(name, count, [line], [line], error)

    def no_defid(self):
        self.mirror.write("antivir-v2-hit.ini", "[Current]\n")
        self.failed("no defId", "defId fetch failed", "err parse_hit_defid: no [Current] defId")
        self.new_release()

    def no_complete_info(self):
        self.mirror.write("antivir-v2-hit.ini", "defId=gone\n")
        line = f"err GET {self.url}c-gone.ini: HTTP response code said error"
        self.failed("no complete-info", "complete-info fetch failed for gone", line)
        self.mirror.write("antivir-v2-c-gone.ini", "[def.Current]\n")
        line = "err parse_complete_info: missing def.Current.name/SHA256"
        self.failed("empty complete-info", "complete-info fetch failed for gone", line)
        self.mirror.path("antivir-v2-c-gone.ini").unlink()
        self.new_release()

    def server_down(self):
        self.server.stop()
        line = f"err GET {self.url}hit.ini: Couldn't connect to server"
        self.failed("server down", "defId fetch failed", line)
        self.server.start()
        self.nothing_new(2)

    def server_restarted(self):
        self.server.stop()
        self.server.start()
        self.nothing_new(2)

    def certificate_rolled(self):
        self.spare_leaves.append(self.spare_leaves.pop(0))
        self.server.set_certificate(self.spare_leaves[0])
        self.server.reload()
        self.nothing_new(2)

    def certificate_expired(self):
        self.server.set_certificate(self.server.leaves["expired"])
        self.server.stop()
        self.server.start()
        line = f"err GET {self.url}hit.ini: SSL peer certificate or SSH remote key was not OK"
        self.failed("certificate expired", "defId fetch failed", line)
        self.server.set_certificate(self.spare_leaves[0])
        self.server_restarted()

    def link_in_the_way(self):
        obstacle = self.gateway.root / "active.tmp"
        obstacle.mkdir()
        version = self.next_version
        self.mirror.publish(version)
        self.failed("not published", "publish/flip failed", f"err publish: symlink {obstacle} failed")
        obstacle.rmdir()
        self.new_release()

    def exceptions(self, count=6):
        """More in a row than there are steps by which the wait shrinks."""
        self.mirror.publish_looping(self.next_version)
        path = f"{self.stage}/{self.next_version}/{ANTIVIR}"
        line = f"err run_once exception: filesystem error: status: Too many levels of symbolic links [{path}]"
        status = self.gateway.status_path.read_bytes()
        self.expect("exception", count, [line], [line], exception=True)
        assert self.gateway.status_path.read_bytes() == status
        self.new_release()

    ROUND = (
        new_release,
        tampered_archive,
        server_down,
        no_archive,
        certificate_rolled,
        no_archive_at_all,
        exceptions,
        definition_missing,
        server_restarted,
        definition_tampered,
        no_defid,
        certificate_expired,
        no_complete_info,
        link_in_the_way,
    )

    def round(self, idle):
        """Everything once, and then so many cycles without news, after which the daemon's means are measured."""
        for step in self.ROUND:
            step(self)
        for _ in range(idle // 50):
            self.nothing_new(50)
        self.nothing_new(idle % 50 or 1)
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
        self.daemon.send(number)
        os.close(self.daemon.gates)
        self.daemon.gates = None
        *events, stopped, closed = self.daemon.rest()
        events.remove(f"signal {number:d}")
        (last,) = cycles_of(events)
        assert (last.start, last.lines, last.sleeps, stopped, closed) == (self.now, [], [], STOPPED, "close")
        assert self.daemon.process.wait(timeout=60) == 0
        self.gateway.expect_status(self.active)


def run_rounds(run, cycles, idle, settled_after):
    """Rounds until there were so many cycles; what the daemon held when it had settled, and ever after."""
    measured = []
    while run.cycles < cycles:
        means = run.round(idle)
        if run.cycles >= settled_after:
            measured.append(means)
    run.stop()
    print(f"{run.cycles} cycles: {run.outcomes}")
    for means in (measured[0], measured[len(measured) // 2], measured[-1]):
        print(means)
    return measured


def test_thousands_of_cycles_change_nothing_but_what_they_have_to(
    own_gateway, own_mirror, own_nginx, request, record_property
):
    whole = request.config.getoption("--all")
    run = Run(own_gateway, own_mirror, own_nginx)
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
def test_valgrind_finds_no_error_no_leak_and_no_open_descriptor(own_gateway, own_mirror, own_nginx, tmp_path):
    log = tmp_path / "valgrind"
    kinds = "leak-kinds=definite,indirect"
    checks = ["--leak-check=full", f"--show-{kinds}", f"--errors-for-{kinds}", "--track-fds=yes", "--error-exitcode=99"]
    run = Run(own_gateway, own_mirror, own_nginx, prefix=["valgrind", f"--log-file={log}", *checks])
    with run.daemon:
        run_rounds(run, cycles=150, idle=10, settled_after=0)
    report = log.read_text()
    print(report)
    assert "ERROR SUMMARY: 0 errors" in report
    assert "FILE DESCRIPTORS: " in report
    assert descriptors_left_open(report) == []

"""One complete update, and the means to stop it at any of its system calls or to make any of them fail.

Before the update there are release 1001, in service, the older 1000, which the update prunes, and a status. The mirror
has release 1002.
"""

import json
import os
import random
import re
import shutil
import signal
from dataclasses import dataclass

from outcomes import Outcome, published, snapshot_listing
from release import definition_names, index_of

OLD, FORMER, NEW = "1000", "1001", "1002"
CHANGING = ("mkdir", "write", "fsync", "fchmod", "utimensat", "rename", "symlink", "unlink", "unlinkat", "rmdir")


@dataclass(frozen=True)
class Point:
    """One system call of the update."""

    index: int  # among the points
    name: str
    kind: str  # the name, but "fstat" also for what an older glibc calls instead
    number: int  # among the calls of that name since the process began, as strace counts them
    text: str  # the arguments as strace shows them
    path: str  # what it is about, relative to the gateway's directory, or unchanged; "" when there is none
    opened: int  # how often that path was opened before
    repeated: int  # how many calls of that kind there were on that path, since it was opened

    @property
    def vague(self):
        """Whether it may come earlier or later in another run, with the timing of the network or of the heap."""
        return self.name in ("poll", "recvfrom", "sendto", "rt_sigaction", "getpid", "futex", "brk", "mmap", "munmap")

    @property
    def changes(self):
        """Whether it changes the disk, or what of the disk is flushed."""
        creates = "O_CREAT" in self.text or "O_TRUNC" in self.text
        return self.name in CHANGING or (self.name == "openat" and creates)

    def __str__(self):
        return f"{self.name} #{self.number} {self.path} (opened {self.opened} times, repeated {self.repeated} times)"


def informative(points):
    """The points right after a change of the disk, and the first of each kind of call. At any other point the disk is
    as at the point before."""
    seen = set()
    chosen = [p for p in points if points[p.index - 1].changes or p.name not in seen and not seen.add(p.name)]
    return chosen


class Scene:
    """A gateway just before the update, which can be set back to that moment again and again."""

    def __init__(self, gateway, mirror, index_first=False, first=False):
        """With first=True there is nothing on the machine yet."""
        self.gateway = gateway
        self.first = first
        self.former = None if first else FORMER
        self.releases = {}
        # By its address: looking a name up would take a second thread. The time-out is for calls that block then.
        base = gateway.settings["mirror_base_url"].replace("localhost", "127.0.0.1")
        gateway.settings.update(retained_snapshots=2, mirror_base_url=base, http_timeout_s=20)
        for version in (OLD, FORMER, NEW):
            noise = random.Random(version).randbytes  # several blocks of it, which do not compress
            files = [(name, noise(40_000)) for name in definition_names()]
            mirror.publish(version, [index_of(files), *files] if index_first else [*files, index_of(files)])
            self.releases[version] = dict(files)
            self.archive_size = mirror.path(f"antivir-v2-{version}.cab").stat().st_size
            if version != NEW:
                gateway.run_once()
        self._saved = gateway.directory / "saved"
        for directory in self.directories:
            shutil.copytree(directory, self._saved / directory.name, symlinks=True)
        self.status_before = gateway.status_path.read_bytes()

    @property
    def directories(self):
        return (self.gateway.root, self.gateway.status_path.parent)

    def set_back(self):
        """Puts everything back to the moment before the update."""
        for directory in self.directories:
            for entry in directory.iterdir() if directory.exists() else ():  # the directory itself may be a mount point
                entry.unlink() if entry.is_symlink() or entry.is_file() else shutil.rmtree(entry)
            if self.first:
                shutil.rmtree(directory, ignore_errors=True)
            else:
                shutil.copytree(self._saved / directory.name, directory, symlinks=True, dirs_exist_ok=True)
        self.gateway.log_path.unlink(missing_ok=True)

    def run_traced(self, options, **environment):
        """Runs the update under strace; returns the process and strace's lines."""
        trace = self.gateway.directory / "trace"
        prefix = ["strace", "-f", "-y", "-s", "8", "-o", trace, *options]
        process = self.gateway.run("--config", self.gateway.config_path, "--once", prefix=prefix, **environment)
        return process, trace.read_text(errors="replace").splitlines()

    def points(self):
        """The system calls from the store's first access to the disk to the exit, found by tracing an update.

        Of three updates the one with the fewest, since a busy machine makes further calls on the network."""
        return min((self._points_of_a_run() for _ in range(3)), key=len)

    def _points_of_a_run(self):
        self.set_back()
        lines = self.run_traced([])[1]
        assert len({line.split()[0] for line in lines}) == 1, "an update runs in one thread"
        found, counts, opened, repeated, begun = [], {}, {}, {}, False
        for line in lines:
            if ".gcda" in line:
                break  # a build for gcov writes its counts at the exit
            match = re.match(r"\d+ +(\w+)\((.*)", line)
            if not match:
                continue
            name, text = match.groups()
            counts[name] = counts.get(name, 0) + 1
            begun = begun or f'"{self.gateway.root}' in line
            if begun:
                path = self.path_in(text)
                opened[path] = opened.get(path, 0) + (name == "openat")
                kind = "fstat" if name == "newfstatat" and re.match(r'\d+<[^>]*>, ""', text) else name
                repeats = (kind, path, opened[path])
                repeated[repeats] = repeated.get(repeats, 0) + 1
                found.append(Point(len(found), name, kind, counts[name], text, path, opened[path], repeated[repeats]))
        return found

    def path_in(self, text):
        """The path in a call's arguments, as text or with the descriptor."""
        text = re.sub(r"^AT_FDCWD<[^>]*>, ", "", text)
        if text.startswith('"snapshots/'):
            text = text.partition(", ")[2]  # the target of a link
        match = re.match(r'"(?P<text>/[^"]*)"|\d+<(?P<descriptor>[^>]*)>', text)
        path = re.sub(r":\[\d+\]", "", (match["text"] or match["descriptor"] or "") if match else "")
        return os.path.relpath(path, self.gateway.directory) if path.startswith(str(self.gateway.directory)) else path

    def inject(self, point, what):
        """Runs the update with an injection at a point; returns the process once it has hit.

        A vague point may not be reached in every run, and the last of them only when the machine is slow: returns
        nothing when eight runs have done without it."""
        quick = [] if what.startswith("signal=") else ["--seccomp-bpf"]  # with which strace injects no signals
        for _ in range(8):
            self.set_back()
            rules = ["-e", f"trace={point.name}", "-e", f"inject={point.name}:{what}:when={point.number}"]
            process, lines = self.run_traced([*quick, *rules])
            hit = [line for line in lines if "(INJECTED)" in line or "killed by SIGKILL" in line]
            if hit:
                break
        else:
            assert point.vague, f"never reached: {point}"
            return None
        if not point.vague and "(INJECTED)" in hit[0]:
            assert self.path_in(re.sub(r"^\d+ +\w+\(", "", hit[0])) == point.path, f"{hit[0]} is not {point}"
        return process

    def go_through(self, points, check):
        """Checks point after point; returns how many were reached: all except some vague ones."""
        reached = self.try_all(points, check)
        assert len(points) - reached <= sum(point.vague for point in points) / 3
        return reached

    def try_all(self, cases, check):
        """Checks case after case and keeps the files of those that fail; returns how many checks returned true."""
        faults, reached = [], 0
        for case in cases:
            try:
                reached += bool(check(case))
            except (AssertionError, OSError) as fault:
                kept = self.gateway.directory / f"failed-{len(faults)}"
                for directory in filter(os.path.exists, self.directories):
                    shutil.copytree(directory, kept / directory.name, symlinks=True)
                faults.append(f"{case}: {fault}\nwhat it left is in {kept}")
        assert not faults, "\n".join(faults)
        return reached

    def in_service(self):
        """The version in service, which must be whole, byte for byte; none at first."""
        if self.first and not (self.gateway.root / "active").is_symlink():
            return None
        version = os.readlink(self.gateway.root / "active").removeprefix("snapshots/")
        files = self.gateway.active_files()
        assert {name: files.get(name) for name in self.releases[version]} == self.releases[
            version
        ], f"{version} is broken"
        return version

    def status(self):
        """The status as "version/error", or "before", "empty", "none" when this update has not written it."""
        if not self.gateway.status_path.exists():
            return "none"
        text = self.gateway.status_path.read_bytes()
        if text in (self.status_before, b""):
            return "before" if text else "empty"
        status = json.loads(text)
        self.gateway.expect_status(status["active_version"], status["last_error"])
        return f"{status['active_version']}/{status['last_error']}"

    def heal(self, pruned=True):
        """One clean run, after which the new release is in service and nothing is left but what may be.

        A snapshot that is in service is not touched again, so what could not be swept out of it or pruned beside it
        stays until a later release. With pruned=False either of the former snapshots may have been pruned."""
        before, listing_before = self.in_service(), self.gateway.listing()
        lines = self.gateway.run_once()
        assert self.in_service() == NEW
        self.gateway.expect_status(NEW)
        listing = self.gateway.listing()
        if self.first:
            assert lines == ([] if before == NEW else published(NEW))
            assert listing == snapshot_listing(NEW, NEW)
        elif before == NEW:
            assert lines == []
            assert listing == listing_before
            index = f"snapshots/{NEW}/antivir-v2.ini"
            least = snapshot_listing(NEW, FORMER, NEW) if pruned else snapshot_listing(NEW, NEW)
            assert set(least) <= set(listing) <= {*snapshot_listing(NEW, OLD, FORMER, NEW), index}
        else:
            assert lines == published(NEW, before)
            assert listing == snapshot_listing(NEW, FORMER, NEW)


# The results of an update in which something fails. In the log, "@" stands for the gateway's directory, and "URL" for
# the address of the mirror's.


def snapshot(version):
    return {name for name in snapshot_listing(None, version) if name != "snapshots/"}


DONE = {*snapshot_listing(NEW, FORMER, NEW)}
UNDONE = {*snapshot_listing(FORMER, OLD, FORMER)}
STAGED = UNDONE | snapshot(NEW)
UNSWEPT_INDEX = {f"snapshots/{NEW}/antivir-v2.ini"}


def good(*warnings, former=FORMER, status=f"{NEW}/", listing=DONE):
    return Outcome((*warnings, *published(NEW, former)), status, frozenset(listing))


def refused(reason, *lines):
    return Outcome((*lines, f"err run_once: staging failed: {reason}"), f"{FORMER}/{reason}", frozenset(UNDONE))


def not_downloaded(text):
    return refused("download CAB", f"err download_cab URL/antivir-v2-{NEW}.cab: {text}")


def unpublished(line):
    return Outcome((f"err publish: {line}",), f"{FORMER}/publish/flip failed", frozenset(STAGED))


def aborted(*log, listing):
    return Outcome(log, "before", frozenset(listing), -signal.SIGABRT)


def unflushed(what):
    return good(f"warning fsync: {what} failed")


def outcome_of(scene, process, log=None):
    """What the update has left; with its log, if that was read already."""
    gateway = scene.gateway
    url = f"{gateway.settings['mirror_base_url']}/{gateway.settings['mirror_subdir']}"
    log = gateway.take_log() if log is None else log
    lines = tuple(line.replace(url, "URL").replace(str(gateway.directory), "@") for line in log)
    return Outcome(lines, scene.status(), frozenset(gateway.listing()), process.returncode)


def is_failed_transfer(outcome):
    """Whether just one transfer failed, of any file and for any reason."""
    for file, log, status in (
        ("hit.ini", (), f"{FORMER}/defId fetch failed"),
        (f"c-{NEW}.ini", (), f"{FORMER}/complete-info fetch failed for {NEW}"),
        ("", ("err run_once: staging failed: download CAB",), f"{FORMER}/download CAB"),
    ):
        line = rf"err GET URL/antivir-v2-{file}: \S.*" if file else rf"err download_cab URL/antivir-v2-{NEW}.cab: \S.*"
        if outcome.log and re.fullmatch(line, outcome.log[0]):
            return outcome == Outcome((outcome.log[0], *log), status, frozenset(UNDONE))
    return False

"""A gateway with a release in service, and a mirror that turns on it: what each check leaves is known to the byte."""

import os
import re
import signal
import ssl
import subprocess
from dataclasses import dataclass

from gateway import STARTED, STOPPED, Gateway
from outcomes import published, status_text, tree
from raw_archives import zip_bytes
from release import HIT, Release, definitions, good_files
from scripted_server import SUBDIR, ScriptedServer

OLD, NEW = "1001", "1002"
REQUESTS = ("hit", "info", "archive")
TIMEOUT_S = 20  # never to be reached but where a test sets it lower
# What libcurl says.
SERVERS_REFUSAL = "HTTP response code said error"
UNSUPPORTED = "Unsupported protocol"
BAD_URL = "URL using bad/illegal format or missing URL"
BROKEN = "Failure when receiving data from the peer"
NOTHING = "Server returned nothing (no headers, no data)"
PARTIAL = "Transferred a partial file"
TIMED_OUT = "Timeout was reached"
UNTRUSTED = "SSL peer certificate or SSH remote key was not OK"
NO_HANDSHAKE = "SSL connect error"
NO_MEMORY = "Out of memory"
WEIRD = "Weird server reply"
TOO_MANY_REDIRECTS = "Number of redirects hit maximum amount"
TOO_LARGE = "A value or data field grew larger than allowed"
ACTIVE = "machine/defs/active"
SNAPSHOTS = "machine/defs/snapshots"
SERVED = f"{SNAPSHOTS}/{OLD}"
ALWAYS_WRITTEN = ("machine/log", "machine/updater.conf", "machine/status/status.json")


@dataclass
class Case:
    """What the mirror does in the place of what it should, and what a check of it leaves."""

    script: dict
    lines: list
    version: str  # in service
    error: str  # in the status
    tree: dict


def without(tree, *prefixes):
    """The tree less everything at or below these."""
    return {name: what for name, what in tree.items() if not f"{name}/".startswith(tuple(f"{p}/" for p in prefixes))}


class Trial:
    """A gateway with release 1001 in service, two directories below the test's own; its mirror has release 1002."""

    def __init__(self, directory, kept, context, authority, thorough=False, machine=Gateway):
        self.directory = directory
        self.kept = kept  # gets a copy of the files when a check does not end as it has to
        self.thorough = thorough
        self.modes = True  # compares them, too
        self.tried = 0  # how many cases
        self.context = context
        self.server = ScriptedServer(context)
        (directory / "machine").mkdir()
        authority.cert_pem.write_to_path(directory / "machine" / "ca.pem")
        self.gateway = machine(
            directory / "machine",
            mirror_base_url=self.server.base().removesuffix(f"/{SUBDIR}"),
            mirror_subdir=SUBDIR,
            ca_path=directory / "machine" / "ca.pem",
            http_timeout_s=TIMEOUT_S,
            retained_snapshots=1,
        )
        self.settings = dict(self.gateway.settings)
        self.old, self.new = (Release(version, good_files(version, size=20)) for version in (OLD, NEW))

    def begin(self):
        self.server.script = self.old.script
        assert self.gateway.run_once() == published(OLD)
        self.before = self.tree()
        self.mend()

    def mend(self):
        """The mirror and the settings as they should be."""
        self.server.script, self.server.opening = self.new.script, None
        self.server.context = self.context
        self.server.requests.clear()
        self.gateway.settings = dict(self.settings)

    def end(self):
        self.gateway.end_all()
        self.server.stop()

    def tree(self):
        """All that the daemon may have written, except the status: the test's whole directory."""
        return without(tree(self.directory, self.modes), *ALWAYS_WRITTEN)

    def name(self, request):
        return self.new.files[request][0]

    def content(self, request):
        return self.new.files[request][1]

    def url(self, request):
        return f"{self.gateway.settings['mirror_base_url']}/{SUBDIR}/{self.name(request)}"

    def after(self, snapshot=None, version=NEW):
        """The tree with a snapshot in service, by default that of the new release, and the old one pruned."""
        place = os.path.normpath(f"{SNAPSHOTS}/{version}")
        if snapshot is None:
            files = definitions(NEW, size=20).items()
            snapshot = {name: ("100666", content) if self.modes else content for name, content in files}
        files = {os.path.normpath(f"{place}/{name}"): what for name, what in snapshot.items()}
        kept = without(self.before, *([SERVED] if self.gateway.settings["retained_snapshots"] == 1 else []))
        return {**kept, ACTIVE: f"-> snapshots/{version}", place: self.before[SNAPSHOTS], **files}

    # The cases of a check

    def refused(self, script, error, *lines):
        """The status says this error, and nothing else has changed."""
        return Case(script, list(lines), OLD, error, self.before)

    def unstaged(self, script, error, *lines):
        return self.refused(script, error, *lines, f"err run_once: staging failed: {error}")

    def published(self, script, snapshot=None, *lines):
        return Case(script, [*lines, *published(NEW, OLD)], NEW, "", self.after(snapshot))

    def case(self, request, steps, outcome):
        """An answer that is "accepted", or "unreadable" (without what it should hold), or has libcurl say a text."""
        script, unreadable, url = {self.name(request): steps}, outcome == "unreadable", self.url(request)
        if outcome == "accepted":
            return self.published(script)
        if request == "archive":
            if unreadable:
                return self.unstaged(script, "CAB sha256 mismatch")
            return self.unstaged(script, "download CAB", f"err download_cab {url}: {outcome}")
        error, line = {
            "hit": ("defId fetch failed", "parse_hit_defid: no [Current] defId"),
            "info": (f"complete-info fetch failed for {NEW}", "parse_complete_info: missing def.Current.name/SHA256"),
        }[request]
        return self.refused(script, error, "err " + (line if unreadable else f"GET {url}: {outcome}"))

    def cases(self, request, steps, outcomes):
        """All the ways in which it may end: releases of libcurl differ in how strict they are, and in their words."""
        return [self.case(request, steps, outcome) for outcome in outcomes]

    def archive_case(self, archive, outcome, *lines, name="release.archive"):
        """An archive that is announced as it is, or the entries of a ZIP: it is refused with this error, or puts this
        snapshot into service. More log lines come before."""
        archive = archive if isinstance(archive, bytes) else zip_bytes(archive)
        script = Release(NEW, archive=archive, archive_name=name).script
        return (self.unstaged if isinstance(outcome, str) else self.published)(script, outcome, *lines)

    # One check in a process of its own

    def check(self, case, *others):
        """Of what the case says, or others; when a release went into service, another check takes the old one back."""
        self.server.script = {**self.new.script, **case.script}
        done = self._compare([case, *others], self.gateway.run_once())
        if done.version != OLD:
            self.go_back(done.version)

    def fail(self, request, *texts):
        """Of the mirror as it is, which fails with a text of libcurl's and changes nothing."""
        self._compare(self.cases(request, [], texts), self.gateway.run_once())

    def refuse(self, request, *texts):
        self.fail(request, *texts)
        self.heal()

    def accept(self):
        """Of the mirror as it is, which puts the new release into service, with nothing left over."""
        self.expect(self.published({}))

    def heal(self):
        """Of a sound mirror."""
        self.mend()
        self.accept()

    def go_back(self, former=NEW):
        """Of a mirror that has the old release again: nothing is left of the new one."""
        self.server.script = self.old.script
        self.expect(self._back(*published(OLD, former)))

    def expect(self, case, lines=None):
        """Runs it, unless its log lines are given, and compares all that it left."""
        self._compare([case], self.gateway.run_once() if lines is None else lines)

    # Many checks of one process

    def check_all(self, cases):
        """One looping daemon meets the cases, or lists of how one may end: to start it takes longer than a check."""
        self.loop_through(case if isinstance(case, list) else [case] for case in cases)
        self.heal()

    def loop_through(self, cases):
        """Has one daemon meet the cases, each of which is a list of how it may end (the log decides), and a sound one.

        A check begins with the request for the hit INI. All that the check before it left is there then, and the daemon
        waits for the answer. After each update the old release goes into service again, in a check of its own. Returns
        the errors that the cases ended with."""
        ahead = [*cases, [self.published({})]][::-1]
        self.tried += len(ahead) - 1
        assert self.tried
        now = [self._back(STARTED.format(0, 0))]
        errors, failures = set(), []

        def next_check():
            nonlocal now
            done = self._compare(now, self.gateway.take_log())
            if ahead and (done.error or done.version != OLD):
                errors.add(done.error)
            self.gateway.status_path.write_text("{}")  # the next check has to write it again
            if done.version == OLD:
                now = ahead.pop()
            else:
                now = [self._back(*published(OLD, done.version), *([] if ahead else [STOPPED]))]
                if not ahead:
                    self.gateway.daemons[-1].send_signal(signal.SIGTERM)
            self.server.script = {**self.new.script, **now[0].script, HIT: hit}
            return now[0].script.get(HIT, self.new.script[HIT])

        def hit():
            try:
                return next_check()
            except Exception as failure:
                failures.append(failure)
                self.gateway.daemons[-1].kill()
                raise ConnectionAbortedError from failure

        self.gateway.settings.update(poll_interval_s=0, poll_jitter_s=0)
        self.server.script = {HIT: hit}
        exit_status = self.gateway.start().wait(timeout=300)
        if failures:
            raise failures[0]
        assert exit_status == 0, f"in the case of {now[0].script}"
        self._compare(now, self.gateway.take_log())
        return errors

    def _back(self, *lines):
        return Case(self.old.script, list(lines), OLD, "", self.before)

    def _compare(self, cases, lines):
        """The log lines, the whole status file, and every byte and mode on the disk; returns the case that it was."""
        case = next((case for case in cases if case.lines == lines), cases[0])
        status = self.gateway.status_path.read_text(errors="surrogateescape")
        checked = re.search(r'"last_check_epoch": (\d+)|$', status)[1]
        trees = [case.tree, self.tree()]
        odd = {name for tree in trees for name in tree if trees[0].get(name) != trees[1].get(name)}
        wanted, found = ({name: what for name, what in tree.items() if name in odd} for tree in trees)
        wanted = (case.lines, status_text(case.version, checked, case.error), wanted)
        differences = [
            f"expected {expected!r:.2000}\ncame     {came!r:.2000}\n"
            for expected, came in zip(wanted, (lines, status, found))
            if expected != came
        ]
        if differences:
            subprocess.run(["cp", "-a", self.directory, self.kept], check=True)
            raise AssertionError(f"of {case.script!r:.1000}\n{''.join(differences)}the files are in {self.kept}")
        return case


def server_context(certificate):
    """What a server needs to speak TLS with a certificate that trustme issued."""
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    certificate.configure_cert(context)
    return context

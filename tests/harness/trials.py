"""A gateway with a release in service, and a mirror that turns on it: each check must leave all as it was."""

import json
import signal
import ssl
from dataclasses import dataclass

from gateway import Gateway
from outcomes import published, snapshot_listing, status_text, tree
from release import HIT, Release, definitions
from scripted_server import SUBDIR, ScriptedServer, reply

OLD, NEW = "1001", "1002"
REQUESTS = ("hit", "info", "archive")
TIMEOUT_S = 20  # never to be reached but where a test sets it lower
SERVERS_REFUSAL = "HTTP response code said error"


@dataclass
class Case:
    """What the mirror does in the place of what it should, and how a check has to end then: "" when it succeeds."""

    script: dict
    lines: list
    error: str


class Trial:
    """A gateway with release 1001 in service, two folders below the test's own; its mirror has release 1002."""

    def __init__(self, folder, context, thorough=False):
        self.folder = folder
        self.tried = 0  # how many cases
        self.thorough = thorough
        self.server = ScriptedServer(context)
        self.gateway = Gateway(
            folder / "machine",
            mirror_base_url=self.server.base().removesuffix(f"/{SUBDIR}"),
            mirror_subdir=SUBDIR,
            http_timeout_s=TIMEOUT_S,
        )
        self.gateway.folder.mkdir()

    def begin(self):
        self.server.script = Release(OLD).script
        assert self.gateway.run_once() == published(OLD)
        assert self.gateway.listing() == snapshot_listing(OLD, OLD)
        self.new = Release(NEW)
        self.before = self.tree()
        self.mend()

    def mend(self):
        self.server.script = self.new.script
        self.server.opening = None
        self.server.greeting = []
        self.server.requests.clear()
        self.gateway.settings["http_timeout_s"] = TIMEOUT_S

    def end(self):
        self.gateway.end_all()
        self.server.stop()

    def tree(self):
        """All that the daemon may have written, but for the status: the test's whole folder."""
        found = tree(self.folder)
        for name in ("log", "updater.conf", "status/status.json"):
            found.pop(f"machine/{name}", None)
        return found

    def name(self, request):
        return self.new.files[request][0]

    def content(self, request):
        return self.new.files[request][1]

    def url(self, request):
        return f"{self.gateway.settings['mirror_base_url']}/{SUBDIR}/{self.name(request)}"

    def failure(self, request, text):
        """The log lines of a check whose request of that kind fails with libcurl's text, and the status's error."""
        return {
            "hit": ([f"err GET {self.url('hit')}: {text}"], "defId fetch failed"),
            "info": ([f"err GET {self.url('info')}: {text}"], f"complete-info fetch failed for {NEW}"),
            "archive": (
                [f"err download_cab {self.url('archive')}: {text}", "err run_once: staging failed: download CAB"],
                "download CAB",
            ),
        }[request]

    def refused(self, request, steps, text):
        """The case of one request that is answered with these steps; libcurl says the text."""
        return Case({self.name(request): steps}, *self.failure(request, text))

    def unreadable(self, request, steps):
        """The case of an answer that libcurl accepts and that does not hold what it should."""
        lines, error = {
            "hit": (["err parse_hit_defid: no [Current] defId"], "defId fetch failed"),
            "info": (
                ["err parse_complete_info: missing def.Current.name/SHA256"],
                f"complete-info fetch failed for {NEW}",
            ),
            "archive": (["err run_once: staging failed: CAB sha256 mismatch"], "CAB sha256 mismatch"),
        }[request]
        return Case({self.name(request): steps}, lines, error)

    def accepted(self, request, steps):
        """The case of an odd answer that is as good as any."""
        return Case({self.name(request): steps}, published(NEW, OLD), "")

    def case(self, request, steps, outcome):
        """The case of an answer with that outcome: "accepted", "unreadable", or libcurl's text."""
        if outcome in ("accepted", "unreadable"):
            return getattr(self, outcome)(request, steps)
        return self.refused(request, steps, outcome)

    def refuse(self, lines, error):
        """One check of the mirror as it is, which must fail like this and change nothing."""
        found = self.gateway.run_once()
        self.compare(Case(self.server.script, lines, error), found, self.gateway.status_path.read_text(), self.tree())

    def check(self, case):
        """One process, one check; what came of an update is then undone."""
        self.server.script = {**self.new.script, **case.script}
        lines = self.gateway.run_once()
        self.compare(case, lines, self.gateway.status_path.read_text(), self.tree())
        if not case.error:
            self.set_back()

    def compare(self, case, lines, status, found):
        """The log lines, the whole status file, and every byte on the gateway's disk."""
        checked = json.loads(status, strict=False)["last_check_epoch"]
        expected_status = status_text(OLD if case.error else NEW, checked, case.error)
        expected_tree = self.before if case.error else self.after()
        assert lines == case.lines, f"{lines} instead of {case}"
        assert status == expected_status, f"{status} instead of {expected_status} for {case}"
        assert (
            found == expected_tree
        ), f"{sorted(found)} instead of {sorted(expected_tree)}, or other content, for {case}"

    def check_all(self, cases):
        """Tries the cases one after another, then heals.

        One looping daemon meets all of them, since starting one takes longer than a check; with --all each case has a
        process of its own besides.
        """
        cases = list(cases)
        assert cases
        self.tried += len(cases)
        outcomes = self._loop_through(cases)
        assert len(outcomes) == len(cases)
        for case, outcome in zip(cases, outcomes):
            self.compare(case, *outcome)
        if self.thorough:
            for case in cases:
                self.check(case)
        self.heal()

    def _loop_through(self, cases):
        """What each of the checks left: the log lines, the status and the tree.

        When the hit INI is asked for, the check before has ended, and the daemon waits for the answer.
        """
        ahead = list(reversed(cases))
        outcomes = []
        undone = False

        def hit():
            nonlocal undone
            outcome = self._take_outcome()
            if not undone:
                outcomes.append(outcome)
            # This check has looked up the version in service already: it is spent on undoing the update.
            undone = not undone and outcome[0] == published(NEW, OLD)
            if undone:
                self.set_back()
                return [reply(b"", "404 Not Found")]
            case = ahead.pop() if ahead else Case({}, [], "")
            if len(outcomes) > len(cases):
                daemon.send_signal(signal.SIGTERM)
            self.server.script = {**self.new.script, **case.script, HIT: hit}
            return case.script.get(HIT, self.new.script[HIT])

        self.server.script = {**self.new.script, HIT: hit}
        self.gateway.settings.update(poll_interval_s=0, poll_jitter_s=0)
        daemon = self.gateway.start()
        assert daemon.wait(timeout=300) == 0
        assert outcomes.pop(0)[0] == ["info zel_quorin_updater loop started (interval=0s jitter=0s)"]
        assert self.gateway.take_log() == [*published(NEW, OLD), "info zel_quorin_updater loop stopped"]
        self.expect_new()
        self.set_back()
        return outcomes

    def _take_outcome(self):
        outcome = (self.gateway.take_log(), self.gateway.status_path.read_text(), self.tree())
        self.gateway.status_path.write_text("{}")  # the next check has to write it anew
        return outcome

    def accept(self):
        """One check that must put the new release into service, with nothing left over."""
        assert self.gateway.run_once() == published(NEW, OLD)
        self.expect_new()

    def expect_new(self):
        self.gateway.expect_status(NEW)
        assert self.tree() == self.after()

    def after(self):
        new = f"machine/defs/snapshots/{NEW}"
        files = {f"{new}/{name}": content for name, content in definitions(NEW).items()}
        return {**self.before, "machine/defs/active": f"-> snapshots/{NEW}", new: None, **files}

    def set_back(self):
        """Undoes an update, so that it can be tried again: as if it had never been."""
        snapshots = self.gateway.root / "snapshots"
        for name in definitions(NEW):
            (snapshots / NEW / name).unlink()
        (snapshots / NEW).rmdir()
        link = self.gateway.root / "active"
        link.unlink()
        link.symlink_to(f"snapshots/{OLD}")
        assert self.tree() == self.before

    def heal(self):
        """Mends the mirror; one clean check must then do."""
        self.mend()
        self.accept()


def server_context(certificate):
    """What a server needs to speak TLS with a certificate that trustme issued."""
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    certificate.configure_cert(context)
    return context

"""What an update comes to when something in it fails: its log, its status, and what is below the definitions root."""

import re
import signal
from dataclasses import dataclass

from faults import FORMER, NEW, OLD
from machines import published, snapshot_listing


def snapshot(version):
    return {name for name in snapshot_listing(None, version) if name != "snapshots/"}


DONE = {*snapshot_listing(NEW, FORMER, NEW)}
UNDONE = {*snapshot_listing(FORMER, OLD, FORMER)}
STAGED = UNDONE | snapshot(NEW)
UNSWEPT_INDEX = {f"snapshots/{NEW}/antivir-v2.ini"}


@dataclass(frozen=True)
class Outcome:
    log: tuple  # "@" stands for the gateway's folder, "URL" for the mirror's
    status: str
    listing: frozenset
    exit_status: int = 0


def good(*warnings, former=FORMER, status=f"{NEW}/", listing=DONE):
    return Outcome((*warnings, *published(NEW, former)), status, frozenset(listing))


def refused(reason, *lines):
    return Outcome((*lines, f"err run_once: staging failed: {reason}"), f"{FORMER}/{reason}", frozenset(UNDONE))


def unpublished(line):
    return Outcome((f"err publish: {line}",), f"{FORMER}/publish/flip failed", frozenset(STAGED))


def aborted(*log, listing):
    return Outcome(log, "before", frozenset(listing), -signal.SIGABRT)


def unflushed(what):
    return good(f"warning fsync: {what} failed")


def outcome_of(scene, process):
    gateway = scene.gateway
    base = gateway.settings["mirror_base_url"]
    lines = [re.sub(rf"{re.escape(base)}\S*/antivir-v2-{NEW}.cab\b", "URL", line) for line in gateway.take_log()]
    lines = tuple(line.replace(str(gateway.folder), "@") for line in lines)
    return Outcome(lines, scene.status(), frozenset(gateway.listing()), process.returncode)


def is_failed_transfer(outcome):
    """Whether just one transfer failed, of whichever file and for whatever reason."""
    for file, log, status in (
        ("hit.ini", (), f"{FORMER}/defId fetch failed"),
        (f"c-{NEW}.ini", (), f"{FORMER}/complete-info fetch failed for {NEW}"),
        ("", ("err run_once: staging failed: download CAB",), f"{FORMER}/download CAB"),
    ):
        line = rf"err GET \S+/antivir-v2-{file}: \S.*" if file else r"err download_cab URL: \S.*"
        if outcome.log and re.fullmatch(line, outcome.log[0]):
            return outcome == Outcome((outcome.log[0], *log), status, frozenset(UNDONE))
    return False

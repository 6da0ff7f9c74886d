"""Archives that are wrong in any one byte, or end anywhere, while their digest is announced as it is.

Whatever libarchive makes of them: the daemon goes on, one whole release is in service, and the outcome is one of those
that an archive may have, with its log lines, its status and its tree."""

import collections
import re

import archives
import pytest
import raw_archives
from gateway import SANITIZED
from lockstep import LockstepMirror
from outcomes import published, snapshot_listing
from raw_archives import release
from release import definition_names

CAB_NAME = "release.archive"
NAMES = definition_names()
REASONS = ["CAB extract", *(f"CAB missing {name}" for name in NAMES), *(f"sha256 mismatch {name}" for name in NAMES)]


def mszip_cab(entries):
    data = b"".join(entry.content for entry in entries)
    block = raw_archives.cab_data(archives.COMPRESSIONS["mszip"][1](data, True), len(data))
    return raw_archives.cab_bytes(entries, [block], method=1)


FORMATS = {
    "cab": raw_archives.cab_bytes,
    "cab_without_checksums": lambda entries: raw_archives.cab_bytes(entries, checksum=False),
    "mszip_cab": mszip_cab,
    "zip": raw_archives.zip_bytes,
    "deflated_zip": lambda entries: raw_archives.zip_bytes([raw_archives.deflated(e.name, e.content) for e in entries]),
}


def values_of(byte, thorough):
    """What a byte is replaced by: all bits flipped, zero, 255; if thorough, its neighbours and each single bit."""
    values = {byte ^ 255, 0, 255}
    if thorough:
        values |= {(byte + 1) % 256, (byte - 1) % 256, *(byte ^ 1 << bit for bit in range(8))}
    return sorted(values - {byte})


def with_bytes_replaced(data, thorough):
    for position, byte in enumerate(data):
        for value in values_of(byte, thorough):
            yield data[:position] + bytes([value]) + data[position + 1 :]


def truncated(data):
    return (data[:length] for length in range(len(data)))


class Examiner:
    """Puts archives on the mirror, one after the other, and looks at what each check made of it."""

    def __init__(self, gateway, mirror, pack):
        self.gateway = gateway
        self.mirror = mirror
        self.pack = pack
        self.version, self.text = "", ""  # in service
        self.count = 0
        self.outcomes = collections.Counter()

    def offer(self, archive):
        self.count += 1
        self.mirror.offer(self.count, archive, CAB_NAME)

    def outcome(self):
        """What came of the archive, as the log has it; its lines must be those of that outcome."""
        lines = self.gateway.take_log()
        if lines == published(self.count, self.version or "none"):
            return "published"
        stage = re.escape(f"{self.gateway.root}/snapshots/{self.count}")
        if len(lines) == 2:
            assert re.fullmatch(rf"err extract: cannot open {stage}/{CAB_NAME}: .+", lines[0]), lines
            assert lines[1] == "err run_once: staging failed: CAB extract"
            return "cannot open"
        assert len(lines) == 1, lines
        reason = lines[0].removeprefix("err run_once: staging failed: ")
        assert reason in REASONS, lines
        return reason

    def examine(self, text):
        outcome = self.outcome()
        self.outcomes[outcome] += 1
        if outcome == "published":
            self.version, self.text = str(self.count), text
        error = {"published": "", "cannot open": "CAB extract"}.get(outcome, outcome)
        self.gateway.expect_status(self.version, error)
        assert self.gateway.listing() == snapshot_listing(self.version, self.version)
        wanted = {entry.name.decode(): entry.content for entry in release(self.text)[1:]}
        assert self.gateway.active_files() == wanted

    def good_release(self):
        """Has to go into service; the next archives carry the other text, so that old and new tell apart."""
        text = "even" if self.text == "odd" else "odd"
        self.offer(self.pack(release(text)))
        yield
        self.examine(text)
        assert self.version == str(self.count)

    def steps(self, spoil):
        self.offer(self.pack(release("odd")))
        yield
        assert self.gateway.take_log() == [
            "info zel_quorin_updater loop started (interval=0s jitter=0s)",
            *published("1"),
        ]
        self.version, self.text = "1", "odd"
        spoilt = {text: list(spoil(self.pack(release(text))))[:: 5 if SANITIZED else 1] for text in ("odd", "even")}
        for number in range(max(map(len, spoilt.values()))):
            text = "even" if self.text == "odd" else "odd"
            if number < len(spoilt[text]):
                self.offer(spoilt[text][number])
                yield
                self.examine(text)
        yield from self.good_release()


def run(gateway, pack, spoil, record_property):
    """Offers all archives that spoil() makes of a packed release; every fifth to a sanitized daemon, which is slow."""
    mirror = LockstepMirror(gateway)
    examiner = Examiner(gateway, mirror, pack)
    mirror.run(examiner.steps(spoil))
    assert gateway.take_log() == ["info zel_quorin_updater loop stopped"]
    print(dict(examiner.outcomes))
    record_property("hostile_archives", sum(examiner.outcomes.values()))
    return examiner.outcomes


@pytest.mark.parametrize("pack", FORMATS.values(), ids=FORMATS)
def test_archive_with_any_byte_wrong_leaves_one_whole_release_in_service(
    gateway_in_memory, pack, request, record_property
):
    thorough = request.config.getoption("--all")
    outcomes = run(gateway_in_memory, pack, lambda data: with_bytes_replaced(data, thorough), record_property)
    assert {"published", "CAB extract", *(f"CAB missing {name}" for name in NAMES)} <= set(outcomes)


@pytest.mark.parametrize("pack", FORMATS.values(), ids=FORMATS)
def test_archive_that_ends_anywhere_leaves_one_whole_release_in_service(gateway_in_memory, pack, record_property):
    outcomes = run(gateway_in_memory, pack, truncated, record_property)
    assert {"cannot open", "CAB extract"} <= set(outcomes) <= {"cannot open", *REASONS, "published"}

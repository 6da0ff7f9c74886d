"""Archives that are wrong in any one byte, or end anywhere, but match their announced digest.

Whatever libarchive makes of them: the daemon goes on, one whole release is in service, and the outcome is one of those
that an archive may have, with its log lines, its status and its tree."""

import archives
import pytest
from gateway import SANITIZED
from raw_archives import cab_bytes, cab_data, deflated, release, zip_bytes
from release import definition_names
from trials import NEW

MISSING = [f"CAB missing {name}" for name in definition_names()]
MISMATCH = [f"sha256 mismatch {name}" for name in definition_names()]
CANNOT_OPEN = ("Unrecognized archive format",)


def mszip_cab(entries):
    data = b"".join(entry.content for entry in entries)
    return cab_bytes(entries, [cab_data(archives.mszip(data), len(data))], method=1)


FORMATS = {
    "cab": cab_bytes,
    "cab_without_checksums": lambda entries: cab_bytes(entries, checksum=False),
    "mszip_cab": mszip_cab,
    "zip": zip_bytes,
    "deflated_zip": lambda entries: zip_bytes([deflated(entry.name, entry.content) for entry in entries]),
}


def bytes_replaced(data, thorough):
    """Each byte in turn, by itself with all bits flipped, by 0 and 255; if thorough, with each single bit flipped, and
    by its neighbours."""
    for position, byte in enumerate(data):
        values = {byte ^ 255, 0, 255}
        if thorough:
            values |= {(byte + 1) % 256, (byte - 1) % 256, *(byte ^ 1 << bit for bit in range(8))}
        for value in sorted(values - {byte}):
            yield data[:position] + bytes([value]) + data[position + 1 :]


def outcomes_of(trial, archives, record_property):
    """The results of the archives in the status; every fifth goes to a sanitized daemon, which is slow."""
    trial.modes = False  # they may be damaged too
    trial.before = trial.tree()
    whole = {entry.name.decode(): entry.content for entry in release(NEW)[1:]}
    place = f"{trial.gateway.root}/snapshots/{NEW}/release.archive"

    def ends_of(archive):
        yield trial.archive_case(archive, whole)
        for error in ("CAB extract", *MISSING, *MISMATCH):
            yield trial.archive_case(archive, error)
        for text in CANNOT_OPEN:
            yield trial.archive_case(archive, "CAB extract", f"err extract: cannot open {place}: {text}")

    errors = trial.loop_through(list(ends_of(archive)) for archive in list(archives)[:: 5 if SANITIZED else 1])
    record_property("damaged_archives", trial.tried)
    trial.tried = 0  # answers of the mirror, which were good
    return errors


@pytest.mark.parametrize("pack", FORMATS.values(), ids=FORMATS)
def test_byte_wrong_anywhere_leaves_one_whole_release(trial, pack, record_property):
    archives = bytes_replaced(pack(release(NEW)), trial.thorough)
    assert {"", "CAB extract", *MISSING} <= outcomes_of(trial, archives, record_property)


@pytest.mark.parametrize("pack", FORMATS.values(), ids=FORMATS)
def test_end_anywhere_leaves_one_whole_release(trial, pack, record_property):
    whole = pack(release(NEW))
    archives = (whole[:length] for length in range(len(whole)))
    assert "CAB extract" in outcomes_of(trial, archives, record_property)

"""The main job, end to end: the daemon, nginx over TLS, real archives, published snapshots."""

import os
import zipfile

import archives
import pytest
from builds import REPOSITORY
from gateway import SANITIZED
from outcomes import published, snapshot_listing
from release import definition_names, definitions, index_of


def test_update_makes_three_requests_and_a_check_one(gateway, mirror, nginx):
    mirror.publish("1001")
    for lines in (published("1001"), []):
        assert gateway.run_once() == lines
        assert gateway.listing() == snapshot_listing("1001", "1001")
        assert gateway.active_files() == definitions("1001")
        gateway.expect_status("1001")
    update = ["antivir-v2-hit.ini 200", "antivir-v2-c-1001.ini 200", "antivir-v2-1001.cab 200"]
    assert nginx.requests(mirror.subdir, 4) == [*update, "antivir-v2-hit.ini 200"]


# Each holds release 1001 with files of 40 bytes.
ARCHIVES = ["cab-stored", "cab-mszip", "cab-lzx_uncompressed", "cab-lzx_verbatim", "cab-several-folders"]
ARCHIVES += ["zip-stored", "zip-deflated"]


@pytest.mark.parametrize("name", ARCHIVES)
def test_archive_of_any_compression_is_accepted(gateway, mirror, name):
    mirror.write(name, (REPOSITORY / "tests/fuzz/corpus/fuzz_extract" / name).read_bytes())
    mirror.announce("1001", name)
    assert gateway.run_once() == published("1001")
    assert gateway.active_files() == definitions("1001", 40)


@pytest.mark.long
@pytest.mark.parametrize("hole, size", [((4 << 30) + 1, 1), (0, (4 << 30) + 1)], ids=["archive", "definitions"])
def test_more_than_4_gib_by_a_file_url(gateway, mirror, tmp_path, hole, size):
    """On 32-bit platforms too. The archive begins with a hole; one of the two files is zeros."""
    zeros, names = tmp_path / "zeros", definition_names()
    for path, length in ((zeros, size), (mirror.path("big.zip"), hole)):
        with open(path, "wb") as file:
            file.truncate(length)
    with zipfile.ZipFile(mirror.path("big.zip"), "a", zipfile.ZIP_DEFLATED, compresslevel=1) as archive:
        archive.write(zeros, names[0])
        archive.writestr(names[1], b"x")
    mirror.announce("1001", "big.zip")
    gateway.settings |= {"mirror_base_url": mirror.directory.parent.as_uri(), "http_timeout_s": 0}
    assert gateway.run_once() == published("1001")
    assert [(gateway.root / "active" / name).stat().st_size for name in names] == [size, 1]


@pytest.mark.skipif(SANITIZED, reason="the sanitizers need memory of their own")
def test_peak_memory_stays_flat(gateway, mirror, tmp_path, thorough):
    """64 MB of definitions, or 250 MB, as a CAB; time(1) measures the peak resident size."""
    size = 125 if thorough else 32
    content = os.urandom(1 << 20) * size
    (tmp_path / "content").write_bytes(content)
    names = definition_names()
    files = [(name, tmp_path / "content") for name in names]
    archives.write_cab(mirror.path("big.cab"), [*files, index_of([(name, content) for name in names])])
    mirror.announce("1001", "big.cab")
    peak = tmp_path / "peak"
    assert gateway.run_once(prefix=["/usr/bin/time", "-f", "%M", "-o", peak]) == published("1001")
    assert [(gateway.root / "active" / name).stat().st_size for name in names] == [size << 20] * 2
    assert int(peak.read_text()) < 20 * 1024  # KiB

"""The main job, end to end: the daemon, nginx over TLS, real archives, published snapshots."""

import os
import subprocess
import zipfile

import archives
import pytest
from gateway import SANITIZED
from outcomes import published, snapshot_listing
from release import definition_names, definitions, good_files, index_of


def test_first_update_publishes_the_release(gateway, mirror, nginx):
    mirror.publish("1001")
    assert gateway.run_once() == published("1001")
    assert gateway.listing() == snapshot_listing("1001", "1001")
    assert gateway.active_files() == definitions("1001")
    gateway.expect_status("1001")
    requests = ["antivir-v2-hit.ini 200", "antivir-v2-c-1001.ini 200", "antivir-v2-1001.cab 200"]
    assert nginx.requests(mirror.subdir, 3) == requests


def test_check_with_nothing_new_asks_for_the_hit_ini_only(gateway, mirror, nginx):
    mirror.publish("1001")
    gateway.run_once()
    assert gateway.run_once() == []
    assert nginx.requests(mirror.subdir, 4)[3:] == ["antivir-v2-hit.ini 200"]
    gateway.expect_status("1001")


def test_further_updates_prune_the_oldest(gateway, mirror):
    former = "none"
    for version in ("1001", "1002", "1003", "1004", "1005"):
        mirror.publish(version)
        assert gateway.run_once() == published(version, former)
        former = version
    assert gateway.listing() == snapshot_listing("1005", "1003", "1004", "1005")


def test_tampered_archive_is_refused_and_the_old_one_serves_on(gateway, mirror):
    mirror.publish("1001")
    gateway.run_once()
    mirror.publish("1002")
    content = bytearray(mirror.path("antivir-v2-1002.cab").read_bytes())
    content[-1] ^= 1
    mirror.write("antivir-v2-1002.cab", bytes(content))
    assert gateway.run_once() == ["err run_once: staging failed: CAB sha256 mismatch"]
    assert gateway.listing() == snapshot_listing("1001", "1001")
    gateway.expect_status("1001", "CAB sha256 mismatch")
    mirror.publish("1003")
    assert gateway.run_once() == published("1003", "1001")


REFUSED = "SSL peer certificate or SSH remote key was not OK"


@pytest.mark.parametrize(
    "certificate, settings, text",
    [
        ("wrong_host", {}, REFUSED),
        ("expired", {}, REFUSED),
        ("unknown_authority", {}, REFUSED),
        ("good", {"ca_path": ""}, REFUSED),  # none but the system's authorities
        ("good", {"ca_path": "/none.pem"}, "Problem with the SSL CA cert (path? access rights?)"),
    ],
)
def test_bad_certificate_is_refused(gateway, mirror, nginx, certificate, settings, text):
    mirror.publish("1001")
    gateway.settings |= {"mirror_base_url": nginx.url(certificate), **settings}
    assert gateway.run_once() == [f"err GET {nginx.url(certificate)}/{mirror.subdir}/antivir-v2-hit.ini: {text}"]
    assert gateway.listing() == ["snapshots/"]
    gateway.expect_status("", "defId fetch failed")


def cab_of(*compressions):
    """Writes each of the entries in a folder of its own, or all in one."""

    def write(path, files):
        groups = [[file] for file in files] if len(compressions) > 1 else [files]
        archives.write_cab_of_folders(path, list(zip(compressions, groups)))
        subprocess.run(["cabextract", "-q", "-t", path], check=True, capture_output=True)

    return write


ARCHIVES = {
    **{name: cab_of(name) for name in archives.COMPRESSIONS},
    "several": cab_of(*archives.COMPRESSIONS),
    "backwards": cab_of(*reversed(archives.COMPRESSIONS)),
    "zip_stored": lambda path, files: archives.write_zip(path, files, zipfile.ZIP_STORED),
    "zip_deflated": archives.write_zip,
}


@pytest.mark.parametrize("write", ARCHIVES.values(), ids=ARCHIVES)
def test_archive_of_any_compression_is_accepted(gateway, mirror, write):
    files = good_files("1001", size=90_001)
    write(mirror.path("release"), [*files, ("other", b"x" * 40_000)])
    mirror.announce("1001", "release")
    assert gateway.run_once() == published("1001")
    assert gateway.active_files() == dict(files[:2])


def test_peak_memory_stays_flat(gateway, mirror, tmp_path):
    """250 MB of definitions, as a CAB; time(1) measures the peak resident size."""
    content = os.urandom(1 << 20) * 125
    (tmp_path / "content").write_bytes(content)
    names = definition_names()
    files = [(name, tmp_path / "content") for name in names]
    archives.write_cab(mirror.path("big.cab"), [*files, index_of([(name, content) for name in names])])
    mirror.announce("1001", "big.cab")
    peak = tmp_path / "peak"
    assert gateway.run_once(prefix=["/usr/bin/time", "-f", "%M", "-o", peak]) == published("1001")
    assert [(gateway.root / "active" / name).stat().st_size for name in names] == [125 << 20] * 2
    print("peak resident size:", peak.read_text().strip(), "KiB")
    if not SANITIZED:
        assert int(peak.read_text()) < 20 * 1024  # KiB

"""The main job, end to end: the daemon, nginx over TLS, real archives, published snapshots."""

import hashlib
import os
import subprocess
import zipfile

import archives
import pytest
from gateway import SANITIZED
from outcomes import published, snapshot_listing
from release import definition_names, definitions, good_files, sha256


def test_first_update_publishes_the_release(gateway, mirror):
    mirror.publish("1001")
    assert gateway.run_once() == published("1001")
    assert gateway.listing() == snapshot_listing("1001", "1001")
    assert gateway.active_files() == definitions("1001")
    gateway.expect_status("1001")


def test_check_with_nothing_new_asks_for_the_hit_ini_only(gateway, mirror, nginx):
    mirror.publish("1001")
    gateway.run_once()
    assert gateway.run_once() == []
    assert nginx.requests(mirror.subdir, 4)[3:] == ["antivir-v2-hit.ini 200"]
    gateway.expect_status("1001")


def test_an_update_makes_three_requests_in_order(gateway, mirror, nginx):
    mirror.publish("1001")
    gateway.run_once()
    assert nginx.requests(mirror.subdir, 3) == [
        "antivir-v2-hit.ini 200",
        "antivir-v2-c-1001.ini 200",
        "antivir-v2-1001.cab 200",
    ]


def test_further_updates_prune_the_oldest(gateway, mirror):
    former = "none"
    for version in ("1001", "1002", "1003", "1004", "1005"):
        mirror.publish(version)
        assert gateway.run_once() == published(version, former)
        former = version
    assert gateway.listing() == snapshot_listing("1005", "1003", "1004", "1005")


def test_tampered_archive_is_refused_and_the_old_snapshot_serves_on(gateway, mirror):
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


def test_definition_that_differs_from_the_index_is_refused(gateway, mirror):
    entries = good_files("1001")
    entries[1] = (entries[1][0], b"tampered")
    mirror.publish("1001", entries)
    assert gateway.run_once() == ["err run_once: staging failed: sha256 mismatch aivsecon-v2.def"]
    assert gateway.listing() == ["snapshots/"]
    gateway.expect_status("", "sha256 mismatch aivsecon-v2.def")


def test_mirror_that_is_down_fails_the_check_with_status_zero(gateway, mirror, closed_port):
    mirror.publish("1001")
    gateway.run_once()
    url = f"https://localhost:{closed_port}"
    gateway.settings["mirror_base_url"] = url
    assert gateway.run_once() == [f"err GET {url}/{mirror.subdir}/antivir-v2-hit.ini: Couldn't connect to server"]
    assert gateway.listing() == snapshot_listing("1001", "1001")
    gateway.expect_status("1001", "defId fetch failed")


def test_missing_files_fail_with_the_servers_refusal(gateway, mirror, nginx):
    base = f"{nginx.url()}/{mirror.subdir}"
    refusal = "HTTP response code said error"
    assert gateway.run_once() == [f"err GET {base}/antivir-v2-hit.ini: {refusal}"]
    gateway.expect_status("", "defId fetch failed")
    mirror.publish("1001")
    mirror.path("antivir-v2-1001.cab").unlink()
    assert gateway.run_once() == [
        f"err download_cab {base}/antivir-v2-1001.cab: {refusal}",
        "err run_once: staging failed: download CAB",
    ]
    gateway.expect_status("", "download CAB")
    mirror.path("antivir-v2-c-1001.ini").unlink()
    assert gateway.run_once() == [f"err GET {base}/antivir-v2-c-1001.ini: {refusal}"]
    gateway.expect_status("", "complete-info fetch failed for 1001")
    assert gateway.listing() == ["snapshots/"]


def test_redirects_are_followed(gateway, mirror):
    mirror.publish("1001")
    gateway.settings["mirror_subdir"] = f"moved/{mirror.subdir}"
    assert gateway.run_once() == published("1001")


@pytest.mark.parametrize(
    "certificate, text",
    [
        ("wrong_host", "SSL peer certificate or SSH remote key was not OK"),
        ("expired", "SSL peer certificate or SSH remote key was not OK"),
        ("unknown_authority", "SSL peer certificate or SSH remote key was not OK"),
    ],
)
def test_bad_certificate_is_refused(gateway, mirror, nginx, certificate, text):
    mirror.publish("1001")
    gateway.settings["mirror_base_url"] = nginx.url(certificate)
    assert gateway.run_once() == [f"err GET {nginx.url(certificate)}/{mirror.subdir}/antivir-v2-hit.ini: {text}"]
    assert gateway.listing() == ["snapshots/"]
    gateway.expect_status("", "defId fetch failed")


def test_missing_authority_file_refuses_every_mirror(gateway, mirror, nginx, tmp_path):
    mirror.publish("1001")
    gateway.settings["ca_path"] = tmp_path / "none.pem"
    assert gateway.run_once() == [
        f"err GET {nginx.url()}/{mirror.subdir}/antivir-v2-hit.ini: Problem with the SSL CA cert (path? access rights?)"
    ]


def test_without_an_authority_file_a_private_authority_is_unknown(gateway, mirror, nginx):
    mirror.publish("1001")
    gateway.settings["ca_path"] = ""
    assert gateway.run_once() == [
        f"err GET {nginx.url()}/{mirror.subdir}/antivir-v2-hit.ini: "
        "SSL peer certificate or SSH remote key was not OK"
    ]


@pytest.mark.parametrize("second", archives.COMPRESSIONS)
@pytest.mark.parametrize("first", archives.COMPRESSIONS)
def test_cab_of_several_folders_is_accepted(gateway, mirror, first, second):
    entries = good_files("1001", size=90_001)
    cab = mirror.path("several.cab")
    archives.write_cab_of_folders(cab, list(zip((first, second, "mszip"), ([entry] for entry in entries))))
    subprocess.run(["cabextract", "-q", "-t", cab], check=True, capture_output=True)
    mirror.announce("1001", cab.name)
    assert gateway.run_once() == published("1001")
    assert gateway.active_files() == dict(entries[:2])


@pytest.mark.parametrize("compression", archives.COMPRESSIONS)
def test_cab_of_one_folder_is_accepted(gateway, mirror, compression):
    entries = good_files("1001", size=90_001)
    archives.write_cab_of_folders(mirror.path("one.cab"), [(compression, entries)])
    mirror.announce("1001", "one.cab")
    assert gateway.run_once() == published("1001")
    assert gateway.active_files() == dict(entries[:2])


@pytest.mark.parametrize("compression", [zipfile.ZIP_STORED, zipfile.ZIP_DEFLATED], ids=["stored", "deflated"])
def test_zip_is_accepted(gateway, mirror, compression):
    entries = good_files("1001", size=300_000)
    archives.write_zip(mirror.path("release.zip"), entries, compression)
    mirror.announce("1001", "release.zip")
    assert gateway.run_once() == published("1001")
    assert gateway.active_files() == dict(entries[:2])


def test_directories_inside_the_archive_are_flattened(gateway, mirror):
    entries = [(f"some/where/{name}", content) for name, content in good_files("1001")]
    mirror.publish("1001", entries)
    assert gateway.run_once() == published("1001")
    assert gateway.listing() == snapshot_listing("1001", "1001")


def test_announcement_of_another_archive_format_is_refused(gateway, mirror):
    mirror.write("release.tar", b"neither a CAB nor a ZIP" * 1000)
    mirror.announce("1001", "release.tar")
    stage = f"{gateway.root}/snapshots/1001"
    assert gateway.run_once() == [
        f"err extract: cannot open {stage}/release.tar: Unrecognized archive format",
        "err run_once: staging failed: CAB extract",
    ]
    assert gateway.listing() == ["snapshots/"]


def test_upper_case_digests_match(gateway, mirror):
    entries = good_files("1001")
    entries[2] = (entries[2][0], entries[2][1].upper().replace(b"ANTIVIR-V2.DEF", b"antivir-v2.def"))
    mirror.publish("1001", entries)
    ini = mirror.path("antivir-v2-c-1001.ini")
    digest = sha256(mirror.path("antivir-v2-1001.cab").read_bytes())
    ini.write_text(ini.read_text().replace(digest, digest.upper()))
    assert gateway.run_once() == published("1001")


def test_peak_memory_stays_flat(gateway, mirror, tmp_path):
    """250 MB of definitions, as a CAB; the peak resident size is told by time(1)."""
    names = definition_names()
    block = os.urandom(1 << 20)
    for name in names:
        with open(tmp_path / name, "wb") as out:
            for _ in range(125):
                out.write(block)
    digests = [(name, hashlib.sha256(block * 125).hexdigest()) for name in names]
    index = "".join(f"{name}.sha256={digest}\n" for name, digest in digests)
    files = [(name, tmp_path / name) for name in names]
    archives.write_cab(mirror.path("big.cab"), [*files, ("antivir-v2.ini", index.encode())])
    mirror.announce("1001", "big.cab")
    peak = tmp_path / "peak"
    assert gateway.run_once(prefix=["/usr/bin/time", "-f", "%M", "-o", peak]) == published("1001")
    assert (gateway.root / "active" / names[0]).stat().st_size == 125 << 20
    print("peak resident size:", peak.read_text().strip(), "KiB")
    if not SANITIZED:
        assert int(peak.read_text()) < 20 * 1024  # KiB

"""A site without a network: the daemon takes its definitions from a medium or a share, by a file URL."""

import shutil

import pytest
from gateway import Gateway
from mirror_tool import SUBDIR
from outcomes import NO_FILE, published, snapshot_listing


def medium_of(own, id):
    """Publishes a release where there is a network, and copies the mirror."""
    own.aivsecon.write_text(f"definitions {id}\n")
    assert own.publish(id)[0] == 0
    return shutil.copytree(own.root, own.base / f"medium-{id}")


def test_new_medium_is_an_update_and_a_missing_one_costs_nothing(own):
    media = [medium_of(own, "1001"), medium_of(own, "1002")]
    drive = own.base / "drive"
    site = Gateway(own.base, mirror_base_url=f"file://{drive}", mirror_subdir=SUBDIR)
    drive.symlink_to(media[0])
    assert site.run_once() == published("1001")
    site.expect_status("1001")
    served = site.active_files()
    assert served["aivsecon-v2.def"] == b"definitions 1001\n"
    drive.unlink()
    url = f"file://{drive}/{SUBDIR}/antivir-v2-hit.ini"
    assert site.run_once() == [f"err GET {url}: {NO_FILE}"]
    site.expect_status("1001", error="defId fetch failed")
    assert (site.listing(), site.active_files()) == (snapshot_listing("1001", "1001"), served)
    drive.symlink_to(media[0])
    assert site.run_once() == []
    site.expect_status("1001")
    drive.unlink()
    drive.symlink_to(media[1])
    assert site.run_once() == published("1002", "1001")
    site.expect_status("1002")
    assert site.active_files()["aivsecon-v2.def"] == b"definitions 1002\n"


@pytest.mark.parametrize(
    "written, ca_path, works",
    [("av%20share", "", True), ("av%20share", "/nonexistent/ca.pem", True), ("av share", "", False)],
)
def test_share_is_read_by_its_encoded_name_without_certificates(own, written, ca_path, works):
    assert own.publish("1001", root=own.base / "av share")[0] == 0
    site = Gateway(own.base, mirror_base_url=f"file://{own.base}/{written}", mirror_subdir=SUBDIR, ca_path=ca_path)
    url = f"{site.settings['mirror_base_url']}/{SUBDIR}/antivir-v2-hit.ini"
    refused = [f"err GET {url}: URL using bad/illegal format or missing URL"]
    assert site.run_once() == (published("1001") if works else refused)
    site.expect_status(*(["1001"] if works else ["", "defId fetch failed"]))

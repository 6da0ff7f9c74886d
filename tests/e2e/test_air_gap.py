"""A site without a network: the daemon takes its definitions from a medium or a share, by a file URL."""

import subprocess

import pytest
from gateway import Gateway, may_mount
from mirror_tool import SUBDIR
from outcomes import published, snapshot_listing


class Medium:
    """A place where an image of an ext4 file system may be mounted, read-only."""

    def __init__(self, folder):
        self.mounted_at = folder / "medium"
        self.mounted_at.mkdir()
        self.mounted = False

    def insert(self, image):
        subprocess.run(["mount", "-o", "loop,ro,nodev,nosuid,noexec", image, self.mounted_at], check=True)
        self.mounted = True

    def remove(self):
        if self.mounted:
            subprocess.run(["umount", self.mounted_at], check=True)
            self.mounted = False


@pytest.fixture
def medium(tmp_path):
    if not may_mount():
        pytest.skip("mounting an image needs root, and the right to do so")
    if subprocess.run(["losetup", "--find"], capture_output=True).returncode != 0:
        pytest.skip("mounting an image needs a loop device")
    made = Medium(tmp_path)
    yield made
    made.remove()


def image_of(own, id):
    """Publishes a release where there is a network, and writes the mirror to an image."""
    own.aivsecon.write_text(f"definitions {id}\n")
    assert own.publish(id)[0] == 0
    image = own.base / f"image-{id}"
    with open(image, "wb") as file:
        file.truncate(2 << 20)
    make = ["mkfs.ext4", "-q", "-O", "^has_journal", "-d", own.root, image]
    subprocess.run(make, check=True, capture_output=True)
    return image


def test_new_medium_is_an_update_and_a_missing_one_costs_nothing(medium, own):
    images = [image_of(own, "1001"), image_of(own, "1002")]
    site = Gateway(own.base, mirror_base_url=f"file://{medium.mounted_at}", mirror_subdir=SUBDIR)
    medium.insert(images[0])
    assert site.run_once() == published("1001")
    site.expect_status("1001")
    served = site.active_files()
    assert served["aivsecon-v2.def"] == b"definitions 1001\n"
    medium.remove()
    url = f"file://{medium.mounted_at}/{SUBDIR}/antivir-v2-hit.ini"
    assert site.run_once() == [f"err GET {url}: Couldn't read a file:// file"]
    site.expect_status("1001", error="defId fetch failed")
    assert (site.listing(), site.active_files()) == (snapshot_listing("1001", "1001"), served)
    medium.insert(images[0])
    assert site.run_once() == []
    site.expect_status("1001")
    medium.remove()
    medium.insert(images[1])
    assert site.run_once() == published("1002", "1001")
    site.expect_status("1002")
    assert site.active_files()["aivsecon-v2.def"] == b"definitions 1002\n"
    medium.remove()  # nothing of the daemon's is left open on it


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

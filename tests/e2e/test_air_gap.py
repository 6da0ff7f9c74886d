"""A site without a network: the daemon takes its definitions from a medium or a share, by a file URL."""

import subprocess

import pytest
from gateway import Gateway, may_mount
from mirror_tool import SUBDIR, OwnMirror, run
from outcomes import published, snapshot_listing, tree
from release import sha256


class Medium:
    """Images of an ext4 file system with a mirror on each, one of which may be mounted, read-only."""

    def __init__(self, folder):
        self.folder = folder
        self.mounted_at = folder / "medium"
        self.mounted_at.mkdir()
        self.mounted = False
        self.outside = OwnMirror(folder)

    def write(self, id):
        """Publishes a release where there is a network, and writes the mirror to an image."""
        self.outside.aivsecon.write_text(f"definitions {id}\n")
        assert self.outside.publish(id)[0] == 0
        image = self.folder / f"image-{id}"
        with open(image, "wb") as file:
            file.truncate(2 << 20)
        make = ["mkfs.ext4", "-q", "-O", "^has_journal", "-d", self.outside.root, image]
        subprocess.run(make, check=True, capture_output=True)
        return image

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


@pytest.fixture
def site(tmp_path):
    return Gateway(tmp_path, mirror_base_url=f"file://{tmp_path}/medium", mirror_subdir=SUBDIR)


def unreadable(site):
    return [f"err GET {site.settings['mirror_base_url']}/{SUBDIR}/antivir-v2-hit.ini: Couldn't read a file:// file"]


def test_new_medium_is_an_update_and_a_missing_one_costs_nothing(medium, site):
    images = [medium.write("1001"), medium.write("1002")]
    medium.insert(images[0])
    assert site.run_once() == published("1001")
    site.expect_status("1001")
    served = site.active_files()
    assert served["aivsecon-v2.def"] == b"definitions 1001\n"
    medium.remove()
    assert site.run_once() == unreadable(site)
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


def test_medium_that_has_gone_bad_is_refused(medium, site):
    medium.insert(medium.write("1001"))
    assert site.run_once() == published("1001")
    medium.remove()
    image = medium.write("1002")
    archive = (medium.outside.folder / "antivir-v2-c-1002.cab").read_bytes()
    data = image.read_bytes()
    assert data.count(archive) == 1
    middle = data.index(archive) + len(archive) // 2
    image.write_bytes(data[:middle] + bytes([data[middle] ^ 1]) + data[middle + 1 :])
    medium.insert(image)
    assert site.run_once() == ["err run_once: staging failed: CAB sha256 mismatch"]
    site.expect_status("1001", error="CAB sha256 mismatch")
    assert site.listing() == snapshot_listing("1001", "1001")


def test_a_mirror_of_web_servers_is_filled_from_a_medium(medium, tmp_path):
    medium.insert(medium.write("1001"))
    code, out, err = run("mirror", f"file://{medium.mounted_at}", tmp_path / "www")
    archive = (medium.outside.folder / "antivir-v2-c-1001.cab").read_bytes()
    line = f"mirrored 1001: antivir-v2-c-1001.cab, {len(archive)} bytes, SHA-256 {sha256(archive)}\n"
    assert (code, out, err) == (0, line, "")
    assert tree(tmp_path / "www" / SUBDIR, modes=True) == tree(medium.outside.folder, modes=True)
    assert run("check", medium.mounted_at)[0] == 0


@pytest.mark.parametrize(
    "written, ca_path, works",
    [("av%20share", "", True), ("av%20share", "/nonexistent/ca.pem", True), ("av share", "", False)],
)
def test_share_is_read_by_its_encoded_name_without_certificates(tmp_path, written, ca_path, works):
    outside = OwnMirror(tmp_path)
    assert outside.publish("1001", root=tmp_path / "av share")[0] == 0
    site = Gateway(tmp_path, mirror_base_url=f"file://{tmp_path}/{written}", mirror_subdir=SUBDIR, ca_path=ca_path)
    url = f"{site.settings['mirror_base_url']}/{SUBDIR}/antivir-v2-hit.ini"
    refused = [f"err GET {url}: URL using bad/illegal format or missing URL"]
    assert site.run_once() == (published("1001") if works else refused)
    site.expect_status(*(["1001"] if works else ["", "defId fetch failed"]))

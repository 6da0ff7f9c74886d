"""The power fails before the system calls of an update; before every one with --all.

A real ext4 file system is shut down there, so that nothing that was not flushed comes to be written, and mounted again,
which replays its journal. The snapshot in service is whole then, the new one once the log says so, and one clean run
heals it."""

import ctypes
import fcntl
import functools
import os
import shutil
import signal
import struct
import subprocess

import pytest
from faults import NEW, Scene, informative
from gateway import may_mount

EXT4_IOC_SHUTDOWN = 0x8004587D  # _IOR('X', 125, __u32)
# The changes to directories and inodes that are not on the disk yet are written as a last act, without the
# data of files for which no blocks are allocated yet, or lost altogether.
LAST_ACTS = {"journal_flushed": 1, "journal_lost": 2}
CLONE_NEWNS = 0x00020000
SIZE = 8 << 20


class Disk:
    """An ext4 file system in a file, mounted at a directory."""

    def __init__(self, directory, options="data=ordered"):
        self.image = directory / "image"
        self.mounted_at = directory / "disk"
        self.mounted_at.mkdir()
        self.options = options
        self.mounted = False
        with open(self.image, "wb") as image:
            image.truncate(SIZE)
        subprocess.run(["mkfs.ext4", "-q", "-F", self.image], check=True)

    def mount(self):
        subprocess.run(["mount", "-o", f"loop,{self.options}", self.image, self.mounted_at], check=True)
        self.mounted = True

    def unmount(self):
        if self.mounted:
            subprocess.run(["umount", self.mounted_at], check=True)
            self.mounted = False

    def copy(self, source, target):
        """A copy of the whole file system, or back."""
        self.unmount()
        subprocess.run(["cp", "--sparse=always", source, target], check=True)
        self.mount()

    def cut_power(self, last_act):
        """Shuts the file system down, and mounts it again."""
        descriptor = os.open(self.mounted_at, os.O_RDONLY)
        try:
            fcntl.ioctl(descriptor, EXT4_IOC_SHUTDOWN, struct.pack("I", last_act))
        finally:
            os.close(descriptor)
        self.unmount()
        self.mount()


class SceneOnDisk(Scene):
    """The update on a file system of its own."""

    def __init__(self, gateway, mirror, disk, first):
        self.disk = disk
        disk.mount()
        gateway.root = disk.mounted_at / "defs"
        gateway.status_path = disk.mounted_at / "status" / "status.json"
        gateway.settings.update(def_root=gateway.root, status_path=gateway.status_path)
        super().__init__(gateway, mirror, first=first)
        super().set_back()
        self.saved_image = gateway.directory / "saved image"
        disk.copy(disk.image, self.saved_image)

    def set_back(self):
        self.disk.copy(self.saved_image, self.disk.image)
        self.gateway.log_path.unlink(missing_ok=True)


@functools.cache
def keep_mounts_to_ourselves():
    """Moves to a mount namespace of our own; see unshare(2).

    A process that copies the machine's would keep a file system alive that is unmounted here."""
    if ctypes.CDLL(None, use_errno=True).unshare(CLONE_NEWNS) != 0:
        pytest.skip(f"no mount namespace: {os.strerror(ctypes.get_errno())}")
    subprocess.run(["mount", "--make-rprivate", "/"], check=True)


def make_disk(directory, options):
    if not may_mount() or shutil.which("mkfs.ext4") is None:
        pytest.skip("needs the right to mount, and mkfs.ext4")
    keep_mounts_to_ourselves()
    disk = Disk(directory, options)
    try:
        disk.mount()
        disk.cut_power(LAST_ACTS["journal_lost"])
    except (OSError, subprocess.CalledProcessError) as error:
        disk.unmount()
        pytest.skip(f"the kernel offers no loop mount of ext4 or does not shut it down: {error}")
    disk.unmount()
    return disk


@pytest.fixture
def scene_on(gateway, mirror, tmp_path):
    """Makes the scene on a disk with given mount options."""
    disks = []

    def make(options="data=ordered", first=False):
        disks.append(make_disk(tmp_path, options))
        return SceneOnDisk(gateway, mirror, disks[-1], first)

    yield make
    for disk in disks:
        disk.unmount()


def possible_versions(scene, points, point):
    """What may be in service: the former or the new until the log says that the new one is; then only that."""
    renamed = next(p.index for p in points if p.name == "rename" and p.path.endswith("/active.tmp"))
    logged = next(p.index for p in points if p.name == "write" and p.path == "log")
    if point.vague:
        return {scene.former, NEW}
    if point.index <= renamed:
        return {scene.former}
    return {scene.former, NEW} if point.index <= logged else {NEW}


def check(scene, points, point, last_act):
    """Whether the point was reached, and all is as it should be then."""
    process = scene.inject(point, "signal=KILL")
    if process is None:
        return False
    assert process.returncode == -signal.SIGKILL
    scene.disk.cut_power(last_act)
    scene.gateway.log_path.unlink(missing_ok=True)
    assert scene.in_service() in possible_versions(scene, points, point)
    scene.heal()
    return True


long = pytest.mark.long
SCENES = {
    "update": {},
    "first_update": {"first": True},
    "writeback": {"options": "data=writeback"},
    "data_journal": {"options": "data=journal"},
    "nodelalloc": {"options": "data=ordered,nodelalloc"},
}


@pytest.mark.parametrize("last_act", LAST_ACTS)
@pytest.mark.parametrize("kind", [pytest.param(kind, marks=[] if kind == "update" else long) for kind in SCENES])
def test_power_cut_leaves_a_whole_snapshot_and_heals(scene_on, kind, last_act, thorough, record_property):
    scene = scene_on(**SCENES[kind])
    points = scene.points()
    chosen = points if thorough else informative(points)
    reached = scene.go_through(chosen, lambda point: check(scene, points, point, LAST_ACTS[last_act]))
    record_property("power_cuts", reached)

"""No room is left: a small file system is filled to each of 50 levels; a limit ends inside a file."""

import subprocess

import pytest
from faults import NEW, Scene, good, not_downloaded, outcome_of, refused
from gateway import may_mount
from release import definition_names, index_of

BLOCK = 4096
CAB = f"defs/snapshots/{NEW}/antivir-v2-{NEW}.cab"


def blocks(size):
    return -(-size // BLOCK)


def resize(directory, count):
    subprocess.run(["mount", "-o", f"remount,size={count * BLOCK}", directory], check=True)


@pytest.fixture
def small_disk(gateway):
    """The definitions root as a file system of its own."""
    if not may_mount():
        pytest.skip("needs the right to mount a small file system")
    gateway.root.mkdir()
    subprocess.run(["mount", "-t", "tmpfs", "-o", "size=1m", "tmpfs", gateway.root], check=True)
    yield gateway.root
    subprocess.run(["umount", gateway.root], check=True)


# The results of an update without enough room.
NO_ROOM = [
    not_downloaded("Failed writing received data to disk/application"),
    refused("CAB sha256 mismatch"),
    refused("sha256 mismatch antivir-v2.def"),
    refused("sha256 mismatch aivsecon-v2.def"),
]


def outcome_with_room(scene, disk, room):
    """Runs the update with so many free blocks; returns the outcome, and whether what is in service is whole."""
    resize(disk, 256)
    scene.set_back()
    used = sum(blocks(path.stat().st_size) for path in disk.rglob("*") if path.is_file() and not path.is_symlink())
    resize(disk, used + room)
    process = scene.gateway.run("--config", scene.gateway.config_path, "--once")
    outcome = outcome_of(scene, process)
    resize(disk, 256)
    try:
        scene.in_service()
        whole = True
    except AssertionError:
        whole = False
    return outcome, whole


@pytest.mark.parametrize("index_first", [True, False], ids=["index_first", "index_last"])
def test_full_disk_is_refused_but_where_the_index_is_lost(gateway, mirror, small_disk, index_first, record_property):
    """A failed write is ignored, and a missing index checks nothing. So damaged files are put into
    service when the archive fits and the index does not: at one level when it comes first, as zqu-mirror writes it, and
    at all levels that are too small when it comes last."""
    scene = Scene(gateway, mirror, index_first)
    archive = blocks(mirror.path(f"antivir-v2-{NEW}.cab").stat().st_size)
    definitions = sum(blocks(len(content)) for content in scene.releases[NEW].values())
    levels = range(50)
    damaged = [archive] if index_first else [*range(archive, archive + definitions)]
    enough = archive + definitions + (1 if index_first else 0)
    assert enough < levels[-1]
    for room in levels:
        outcome, whole = outcome_with_room(scene, small_disk, room)
        assert whole == (room not in damaged), (room, outcome)
        assert outcome == good() if room in damaged or room >= enough else outcome in NO_ROOM, (room, outcome)
        if whole:
            scene.heal()
    record_property("full_disk_levels", len(levels))


def test_limit_inside_a_file_is_refused_and_healed(gateway, mirror):
    """libarchive notices that it cannot give a file its size."""
    scene = Scene(gateway, mirror)
    files = [(name, b"x" * 40_000) for name in definition_names()]  # the archive is smaller than the limit
    mirror.publish(NEW, [*files, index_of(files)])
    scene.releases[NEW] = dict(files)
    scene.set_back()
    # Writes fail instead of ending the process.
    prefix = ["sh", "-c", 'trap "" XFSZ; exec prlimit --fsize=20000 "$@"', "sh"]
    process = gateway.run("--config", gateway.config_path, "--once", prefix=prefix)
    outcome_of(scene, process).expect(refused("CAB extract"), directory=gateway.directory)
    scene.heal()

"""No room is left: a small file system filled to each of 50 levels, and limits that end inside each of the files."""

import subprocess

import pytest
from faults import NEW, Scene, good, not_downloaded, outcome_of, refused
from gateway import may_mount
from outcomes import published
from release import definition_names, definitions, index_of

BLOCK = 4096
CAB = f"defs/snapshots/{NEW}/antivir-v2-{NEW}.cab"


def blocks(size):
    return -(-size // BLOCK)


def resize(folder, count):
    subprocess.run(["mount", "-o", f"remount,size={count * BLOCK}", folder], check=True)


@pytest.fixture
def small_disk(gateway):
    """The definitions root as a file system of its own."""
    if not may_mount():
        pytest.skip("needs the right to mount a small file system")
    gateway.root.mkdir()
    subprocess.run(["mount", "-t", "tmpfs", "-o", "size=1m", "tmpfs", gateway.root], check=True)
    yield gateway.root
    subprocess.run(["umount", gateway.root], check=True)


# What an update comes to that does not find room enough.
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
    """A failed write is not looked at, and an index that is not there checks nothing. So damaged files are put into
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


def test_damaged_definitions_serve_on_until_the_next_release(gateway, mirror, small_disk):
    scene = Scene(gateway, mirror)
    archive = blocks(mirror.path(f"antivir-v2-{NEW}.cab").stat().st_size)
    assert outcome_with_room(scene, small_disk, archive + 1)[1] is False
    assert gateway.run_once() == []
    gateway.expect_status(NEW)
    mirror.publish("1003")
    assert gateway.run_once() == published("1003", NEW)
    assert gateway.active_files() == definitions("1003")


# Sizes of the first and the second definition file and of the index, all of which compress well; the limit on the size
# of any file; and the outcome. libarchive notices that it cannot give a file its size, but not for the last entry.
LIMITS = {
    "first_definition_file": (40_000, 1000, 0, 20_000, refused("CAB extract")),
    "second_definition_file": (1000, 40_000, 0, 39_999, refused("CAB extract")),
    "index": (1000, 1000, 40_000, 20_000, good()),  # in a comment at its end
    "archive_and_status": (1000, 1000, 0, 200, refused("CAB sha256 mismatch")),
    "nothing": (40_000, 40_000, 40_000, 41_000, good()),
}


@pytest.fixture
def limited(gateway, mirror, where):
    """A scene with a release of the sizes given, and the limit."""
    scene = Scene(gateway, mirror)
    *sizes, comment, limit, _ = LIMITS[where]
    files = [(name, b"x" * size) for name, size in zip(definition_names(), sizes)]
    name, index = index_of(files)
    mirror.publish(NEW, [*files, (name, index + b";" * comment)])
    scene.releases[NEW] = dict(files)
    scene.set_back()
    return scene, limit


@pytest.mark.parametrize("where", LIMITS)
def test_limit_inside_a_file_is_refused_and_healed(limited, where):
    scene, limit = limited
    wanted = LIMITS[where][-1]
    ignored = ["sh", "-c", 'trap "" XFSZ; exec "$@"', "sh"]  # so that writes fail instead of ending the process
    prefix = [*ignored, "prlimit", f"--fsize={limit}"]
    process = scene.gateway.run("--config", scene.gateway.config_path, "--once", prefix=prefix)
    if where == "archive_and_status":
        assert scene.gateway.status_path.stat().st_size == limit
        assert (process.returncode, scene.gateway.take_log()) == (0, [*wanted.log])
    else:
        outcome_of(scene, process).expect(wanted, folder=scene.gateway.folder)
    scene.heal()

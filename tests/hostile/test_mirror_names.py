"""Ids and archive names that a mirror should not use. They are not screened: this is what they do, below tmp_path."""

import posixpath

import pytest
from archives import write_cab
from outcomes import published, status_text
from release import HIT, Release, definitions, hit_ini, info_ini, info_name, sha256
from scripted_server import SUBDIR, reply
from trials import NEW, OLD, SERVERS_REFUSAL

BAD_URL = "URL using bad/illegal format or missing URL"
SNAPSHOTS = "machine/defs/snapshots"
ACTIVE = "machine/defs/active"
SERVED = f"{SNAPSHOTS}/{OLD}"


def files_in(folder, version=NEW):
    """A whole snapshot in that folder."""
    return {folder: None, **{f"{folder}/{name}": content for name, content in definitions(version).items()}}


def without(tree, *prefixes):
    """The tree less everything at or below these."""
    return {
        name: content
        for name, content in tree.items()
        if not any(name == prefix or name.startswith(f"{prefix}/") for prefix in prefixes)
    }


def announce(trial, version=NEW, cab_name=None, answer=None, digest=None, **renamed):
    """Serves the new release under another id or archive name; renamed: what the request of a file really asks for."""
    odd = Release(version, archive=trial.new.archive, archive_name=cab_name or trial.new.archive_name)
    digest = digest or sha256(odd.archive)
    info = info_ini(version, odd.archive_name, digest)
    trial.server.script = {
        HIT: [reply(hit_ini(version))],
        renamed.get("info", info_name(version)): [reply(info)],
        renamed.get("archive", odd.archive_name): [answer or reply(odd.archive)],
    }
    trial.server.requests.clear()


def asked_for(name):
    """libcurl resolves dots in a path, and encodes what is not ASCII, before it asks for it."""
    path = posixpath.normpath(f"/{SUBDIR}/{name}").removeprefix(f"/{SUBDIR}/")
    return "".join(chr(byte) if byte < 128 else f"%{byte:02x}" for byte in path.encode())


def expect(trial, lines, tree, version=OLD, error=""):
    """One check, and everything that it leaves."""
    assert trial.gateway.run_once() == lines
    text = trial.gateway.status_path.read_bytes()
    checked = int(text.split(b'"last_check_epoch": ')[1].split(b",")[0])
    assert text == status_text(version, checked, error).encode(errors="surrogateescape")
    assert trial.tree() == tree


def expect_healed(trial, former, tree):
    """A good release goes into service beside all that is there."""
    trial.mend()
    expect(
        trial, published(NEW, former), {**tree, ACTIVE: f"-> snapshots/{NEW}", **files_in(f"{SNAPSHOTS}/{NEW}")}, NEW
    )


# The id, and what libcurl asks for on its behalf.
PLAIN_IDS = {
    "active": None,
    "active.tmp": None,
    "snapshots": None,
    "10@02": None,
    "10:02": None,
    "10+02": None,
    "10%2f02": None,
    "10%02": None,
    "%s%n%d": None,
    "10#02": "antivir-v2-c-10",  # all after it is for the client
    "10?02": None,
    "...": None,
    "-rf": None,
    "~": None,
    "$(id)": None,
    "10;02": None,
    "[Current]": None,
    "a=b": None,
    "x" * 237: None,
}


@pytest.mark.parametrize("version", PLAIN_IDS)
def test_odd_id_that_is_a_plain_file_name_is_a_release_like_any_other(trial, version):
    announce(trial, version, info=PLAIN_IDS[version] or info_name(version))
    tree = {**trial.before, ACTIVE: f"-> snapshots/{version}", **files_in(f"{SNAPSHOTS}/{version}")}
    expect(trial, published(version, OLD), tree, version)
    assert trial.gateway.run_once() == []
    expect_healed(trial, version, tree)


def test_id_in_utf_8_is_a_release_like_any_other(trial):
    version = "größe€"
    announce(trial, version, info=asked_for(info_name(version)))
    tree = {**trial.before, ACTIVE: f"-> snapshots/{version}", **files_in(f"{SNAPSHOTS}/{version}")}
    expect(trial, published(version, OLD), tree, version)
    expect_healed(trial, version, tree)


def test_quotes_and_backslashes_are_escaped_in_the_status(trial):
    version = 'a"b\\c'
    announce(trial, version)
    tree = {**trial.before, ACTIVE: f"-> snapshots/{version}", **files_in(f"{SNAPSHOTS}/{version}")}
    expect(trial, published(version, OLD), tree, version)
    assert trial.gateway.status()["active_version"] == version
    expect_healed(trial, version, tree)


@pytest.mark.parametrize(
    "version",
    ["10 02", "a\tb", "a\x01b", "a\x7fb", "a\x1b[2Jb"],
    ids=["blank", "tab", "control", "delete", "escape_sequence"],
)
def test_id_with_blanks_or_control_characters_makes_no_url(trial, version):
    """They reach the log and the status; JSON allows none of the control characters that are not escaped."""
    announce(trial, version)
    lines = [f"err GET {trial.server.base()}/{info_name(version)}: {BAD_URL}"]
    expect(trial, lines, trial.before, OLD, f"complete-info fetch failed for {version}")
    trial.heal()


@pytest.mark.parametrize("version", ["x" * 256, "x" * 5000], ids=["longer_than_a_name", "longer_than_a_path"])
def test_id_too_long_for_the_disk_is_refused(trial, version):
    announce(trial, version)
    part = f"{trial.gateway.root}/snapshots/{version}/{trial.new.archive_name}.part"
    lines = [f"err download_cab: cannot create {part}", "err run_once: staging failed: download CAB"]
    expect(trial, lines, trial.before, OLD, "download CAB")
    trial.heal()


@pytest.mark.parametrize(
    "version, parents, last",
    [("a/b", ["a"], "b"), ("./b", [], "b"), ("a/../b", ["a"], "b"), ("/b", [], "b"), ("a/./b", ["a"], "b")],
)
def test_id_with_slashes_lands_in_folders_and_never_counts_as_current(trial, version, parents, last):
    """Only the last component is read back: each check installs the same release anew, there where it is in service."""
    trial.gateway.settings["retained_snapshots"] = 9
    announce(trial, version, info=asked_for(info_name(version)))
    folder = posixpath.normpath(f"{SNAPSHOTS}/{version}")
    tree = {**trial.before, ACTIVE: f"-> snapshots/{version}", **files_in(folder)}
    tree.update({f"{SNAPSHOTS}/{parent}": None for parent in parents})
    expect(trial, published(version, OLD), tree, version)
    expect(trial, published(version, last), tree, version)
    expect_healed(trial, last, tree)


def test_id_that_climbs_out_lands_outside_the_definitions_root(trial):
    version = "../../../outside"
    announce(trial, version, info=asked_for(info_name(version)))
    tree = {**trial.before, ACTIVE: f"-> snapshots/{version}", **files_in("outside")}
    expect(trial, published(version, OLD), tree, version)
    expect_healed(trial, "outside", tree)


def test_id_that_climbs_out_removes_what_it_names_when_its_download_fails(trial):
    """The staging directory is removed whole, whatever it held before."""
    (trial.folder / "outside").mkdir()
    (trial.folder / "outside" / "precious").write_text("data")
    trial.before = trial.tree()
    version = "../../../outside"
    announce(trial, version, answer=reply(b"", "404 x"), info=asked_for(info_name(version)))
    lines, error = trial.failure("archive", SERVERS_REFUSAL)
    expect(trial, lines, without(trial.before, "outside"), OLD, error)
    trial.before = without(trial.before, "outside")
    trial.heal()


# Ids that name the snapshot in service, or all of them, without being equal to it; what a failed download leaves.
DESTRUCTIVE_IDS = {
    "./1001": (SERVED,),
    "1001/": (SERVED,),
    "/1001": (SERVED,),
    "x/../1001": (SERVED,),
    "../snapshots/1001": (SERVED,),
    ".": (SERVED,),
    "..": (SNAPSHOTS, ACTIVE),
}


@pytest.mark.parametrize("version", DESTRUCTIVE_IDS)
def test_id_that_names_the_snapshot_in_service_otherwise_destroys_it_when_the_download_fails(trial, version):
    announce(trial, version, answer=reply(b"", "404 x"), info=asked_for(info_name(version)))
    lines, error = trial.failure("archive", SERVERS_REFUSAL)
    tree = without(trial.before, *DESTRUCTIVE_IDS[version])
    if version == "x/../1001":
        tree[f"{SNAPSHOTS}/x"] = None
    expect(trial, lines, tree, OLD, error)
    expect_healed(trial, OLD if ACTIVE in tree else "none", {**tree, SNAPSHOTS: None})


def test_id_with_a_nul_destroys_the_snapshot_that_its_beginning_names(trial):
    """As text it differs from the version in service; as a path it ends at the NUL."""
    version = f"{OLD}\0x"
    announce(trial, version, info=f"antivir-v2-c-{OLD}")
    stage = f"{trial.gateway.root}/snapshots/{OLD}"
    lines = [f"err download_cab: cannot create {stage}", "err run_once: staging failed: download CAB"]
    expect(trial, lines, without(trial.before, SERVED), OLD, "download CAB")
    expect_healed(trial, OLD, without(trial.before, SERVED))


@pytest.mark.parametrize("name", ["antivir-v2.def", "aivsecon-v2.def"])
def test_archive_named_like_a_definition_file_is_refused(trial, name):
    """The file that came out of it is removed as if it were the archive."""
    announce(trial, cab_name=name)
    error = f"CAB missing {name}"
    expect(trial, [f"err run_once: staging failed: {error}"], trial.before, OLD, error)
    trial.heal()


def test_archive_named_like_the_index_is_accepted_without_a_check_of_its_files(trial):
    """The index is removed as if it were the archive, and what no index names is not checked."""
    wrong = "".join(f"{name}.sha256={'0' * 64}\n" for name in definitions(NEW)).encode()
    write_cab(trial.folder / "x.cab", [("antivir-v2.ini", wrong), *definitions(NEW).items()])
    trial.new.archive = (trial.folder / "x.cab").read_bytes()
    (trial.folder / "x.cab").unlink()
    error = "sha256 mismatch antivir-v2.def"
    announce(trial)
    expect(trial, [f"err run_once: staging failed: {error}"], trial.before, OLD, error)
    announce(trial, cab_name="antivir-v2.ini")
    expect(trial, published(NEW, OLD), trial.after(), NEW)


@pytest.mark.parametrize("name", ["folder/x.cab", "/x/y.cab", "./folder/../x.cab", "x.cab/"])
def test_archive_in_a_folder_cannot_be_created(trial, name):
    announce(trial, cab_name=name)
    part = f"{trial.gateway.root}/snapshots/{NEW}/{name}.part"
    lines = [f"err download_cab: cannot create {part}", "err run_once: staging failed: download CAB"]
    expect(trial, lines, trial.before, OLD, "download CAB")
    assert trial.server.targets() == [HIT, info_name(NEW)]
    trial.heal()


@pytest.mark.parametrize("name", [".", ".."])
def test_archive_named_like_a_folder_is_refused_without_a_word_of_its_own(trial, name):
    announce(trial, cab_name=name, archive=f"/{SUBDIR}/" if name == "." else "/")
    trial.server.script[""] = [reply(trial.new.archive)]
    expect(trial, ["err run_once: staging failed: download CAB"], trial.before, OLD, "download CAB")
    trial.heal()


@pytest.mark.parametrize("name", ["x" * 250, "10@02.cab", "ü.cab", "%41.cab", 'a"b\\c', "-rf", "x.cab.part", "#1"])
def test_archive_with_an_odd_name_is_accepted(trial, name):
    announce(trial, cab_name=name, archive="" if name == "#1" else asked_for(name))
    expect(trial, published(NEW, OLD), trial.after(), NEW)


def test_archive_with_too_long_a_name_is_refused(trial):
    name = "x" * 251
    announce(trial, cab_name=name)
    part = f"{trial.gateway.root}/snapshots/{NEW}/{name}.part"
    lines = [f"err download_cab: cannot create {part}", "err run_once: staging failed: download CAB"]
    expect(trial, lines, trial.before, OLD, "download CAB")
    trial.heal()


def test_archive_name_ends_at_a_nul(trial):
    announce(trial, cab_name="x.cab\0y", archive="x.cab")
    expect(trial, published(NEW, OLD), trial.after(), NEW)


def test_archive_name_that_climbs_out_removes_the_file_that_it_names(trial):
    """The archive takes the file's place, and is removed when it has been unpacked."""
    (trial.folder / "precious").write_text("data")
    announce(trial, cab_name="../../../../precious", archive="/precious")
    expect(trial, published(NEW, OLD), trial.after(), NEW)


def test_archive_name_that_climbs_out_leaves_the_archive_there_when_it_is_refused(trial):
    (trial.folder / "precious").write_text("data")
    announce(trial, cab_name="../../../../precious", archive="/precious", digest="0" * 64)
    error = "CAB sha256 mismatch"
    tree = {**trial.before, "precious": trial.new.archive}
    expect(trial, [f"err run_once: staging failed: {error}"], tree, OLD, error)
    expect_healed(trial, OLD, tree)


def test_archive_name_that_climbs_out_leaves_nothing_there_when_its_download_fails(trial):
    """The partial file is removed by its own name, not with the staging directory alone."""
    announce(trial, cab_name="../x.cab", archive="/x.cab", answer=reply(b"", "404 x"))
    lines = [f"err download_cab {trial.server.base()}/../x.cab: {SERVERS_REFUSAL}"]
    expect(trial, [*lines, "err run_once: staging failed: download CAB"], trial.before, OLD, "download CAB")
    trial.heal()


def test_archive_name_may_destroy_a_file_in_service(trial):
    announce(trial, cab_name=f"../{OLD}/antivir-v2.def", archive=f"/{OLD}/antivir-v2.def", digest="0" * 64)
    error = "CAB sha256 mismatch"
    tree = {**trial.before, f"{SERVED}/antivir-v2.def": trial.new.archive}
    expect(trial, [f"err run_once: staging failed: {error}"], tree, OLD, error)
    expect_healed(trial, OLD, tree)


def test_archive_name_may_take_the_place_of_the_link(trial):
    announce(trial, cab_name="../../active", archive="/active", digest="0" * 64)
    error = "CAB sha256 mismatch"
    tree = {**trial.before, ACTIVE: trial.new.archive}
    expect(trial, [f"err run_once: staging failed: {error}"], tree, OLD, error)
    expect_healed(trial, "none", tree)

"""Ids and archive names that a mirror should not use. The daemon does not check them. These tests show what they do,
below the test's own directory."""

import posixpath

import pytest
from outcomes import published
from release import HIT, Release, definition_names, good_files, hit_ini, info_ini, info_name, sha256
from scripted_server import SUBDIR, reply
from trials import ACTIVE, BAD_URL, NEW, OLD, SERVED, SERVERS_REFUSAL, SNAPSHOTS, Case, without

NOT_FOUND = reply(b"", "404 x")


@pytest.fixture
def unpruned(trial):
    """Pruning would remove some of what is looked at."""
    trial.settings["retained_snapshots"] = 9
    trial.mend()


def request_for(name):
    """libcurl resolves dots in a path, and encodes what is not ASCII, before it asks for it."""
    path = posixpath.normpath(f"/{SUBDIR}/{name}").removeprefix(f"/{SUBDIR}/")
    return "".join(chr(byte) if byte < 128 else f"%{byte:02x}" for byte in path.encode())


def announced(trial, version=NEW, name=None, archive=None, answer=None, digest=None, **asked):
    """The new release under another id or archive name; asked: what the request of a file really asks for."""
    archive, name = archive or trial.new.archive, name or trial.new.archive_name
    return {
        HIT: [reply(hit_ini(version))],
        asked.get("info", request_for(info_name(version))): [reply(info_ini(version, name, digest or sha256(archive)))],
        asked.get("cab", request_for(name)): [answer or reply(archive)],
    }


def expect(trial, case, tree):
    """One check, which leaves this tree."""
    trial.server.script = case.script
    case.tree = tree
    trial.expect(case)


def expect_published(trial, script, version, tree, former=OLD):
    expect(trial, Case(script, published(version, former), version, "", {}), tree)


def expect_healed(trial, tree, former=OLD):
    """A good release goes into service beside all that is there."""
    trial.mend()
    trial.before = tree
    expect_published(trial, trial.new.script, NEW, trial.after(), former)


def cannot_create(trial, place):
    return "download CAB", f"err download_cab: cannot create {trial.gateway.root}/snapshots/{place}"


# What such an id asks for ends where the rest is for the client.
ASKED = {"10#02": {"info": "antivir-v2-c-10"}}
PLAIN_IDS = ("active", "10%2f02", "%s%n%d", "10#02", "10?02", "...", "-rf", "$(id)", "[Current]", "größe€", 'a"b\\c')


def test_odd_id_that_is_a_file_name_is_a_release_like_any_other(trial):
    trial.check_all(
        Case(announced(trial, id, **ASKED.get(id, {})), published(id, OLD), id, "", trial.after(version=id))
        for id in PLAIN_IDS
    )


def test_id_with_blanks_or_control_characters_makes_no_url(trial):
    """They reach the log and the status; JSON allows none of the control characters that are not escaped."""
    trial.check_all(
        trial.refused(
            announced(trial, version),
            f"complete-info fetch failed for {version}",
            f"err GET {trial.server.base()}/{info_name(version)}: {BAD_URL}",
        )
        for version in ("10 02", "a\tb", "a\x01b", "a\x7fb", "a\x1b[2Jb")
    )


@pytest.mark.parametrize("version", ["a/b", "a/../b", "../../../outside"])
def test_id_with_slashes_lands_elsewhere_and_is_never_current(trial, unpruned, version):
    """Only the last component is read back: each check installs the same release again, where it is in service."""
    script, last = announced(trial, version), posixpath.basename(version)
    parents = {f"{SNAPSHOTS}/a": trial.before[SNAPSHOTS]} if "a" in version.split("/") else {}
    tree = {**trial.after(version=version), **parents}
    expect_published(trial, script, version, tree)
    expect_published(trial, script, version, tree, former=last)
    expect_healed(trial, tree, former=last)


@pytest.fixture
def precious(trial):
    """Files beside the definitions root."""
    (trial.directory / "outside").mkdir()
    for name in ("precious", "outside/precious"):
        (trial.directory / name).write_text("data")
    trial.before = trial.tree()


def not_found(trial, name="antivir-v2-1002.cab"):
    return "download CAB", f"err download_cab {trial.server.base()}/{name}: {SERVERS_REFUSAL}"


def test_id_that_climbs_out_removes_what_it_names_if_it_fails(trial, precious):
    """The staging directory is removed with all that it held before."""
    script = announced(trial, "../../../outside", answer=NOT_FOUND)
    tree = without(trial.before, "outside")
    expect(trial, trial.unstaged(script, *not_found(trial)), tree)
    expect_healed(trial, tree)


# Ids that name the snapshot in service, or all of them, without being equal to its id.
@pytest.mark.parametrize("version", ["./1001", "1001/", "x/../1001", ".", ".."])
def test_id_that_names_the_snapshot_in_service_may_destroy_it(trial, unpruned, version):
    """It does when the download fails."""
    script = announced(trial, version, answer=NOT_FOUND)
    tree = without(trial.before, *([SNAPSHOTS, ACTIVE] if version == ".." else [SERVED]))
    if version.startswith("x/"):
        tree[f"{SNAPSHOTS}/x"] = trial.before[SNAPSHOTS]
    expect(trial, trial.unstaged(script, *not_found(trial)), tree)
    expect_healed(trial, {SNAPSHOTS: trial.before[SNAPSHOTS], **tree}, OLD if ACTIVE in tree else "none")


def test_id_with_a_nul_destroys_the_snapshot_of_its_beginning(trial):
    """As text it differs from the version in service; as a path it ends at the NUL."""
    script = announced(trial, f"{OLD}\0x", info=f"antivir-v2-c-{OLD}")
    tree = without(trial.before, SERVED)
    expect(trial, trial.unstaged(script, *cannot_create(trial, OLD)), tree)
    expect_healed(trial, tree)


def test_odd_archive_name_is_accepted(trial):
    asked = {"#1": "", "x.cab\0y": "x.cab"}
    names = ["x" * 250, "ü.cab", "%41.cab", "-rf", "x.cab.part", *asked]
    trial.check_all(
        trial.published(announced(trial, name=name, cab=asked.get(name, request_for(name)))) for name in names
    )


def test_archive_named_like_the_index_is_taken_unchecked(trial):
    """The index is removed as if it were the archive, and what no index names is not checked."""
    wrong = "".join(f"{name}.sha256={'0' * 64}\n" for name in definition_names()).encode()
    archive = Release(NEW, [*good_files(NEW, size=20)[:2], ("antivir-v2.ini", wrong)]).archive
    trial.check_all(
        [
            trial.unstaged(announced(trial, archive=archive), "sha256 mismatch antivir-v2.def"),
            trial.published(announced(trial, archive=archive, name="antivir-v2.ini")),
        ]
    )


def test_archive_name_that_climbs_out_removes_what_it_names(trial, precious):
    """The archive replaces the file, and is removed when it has been unpacked."""
    script = announced(trial, name="../../../../precious")
    expect_published(trial, script, NEW, without(trial.after(), "precious"))


@pytest.mark.parametrize(
    "name, place",
    [
        ("../../../../precious", "precious"),
        (f"../{OLD}/antivir-v2.def", f"{SERVED}/antivir-v2.def"),
        ("../../active", ACTIVE),
    ],
    ids=["outside", "in_service", "link"],
)
def test_archive_name_may_put_the_archive_in_place_of_a_file(trial, precious, name, place):
    """When it is refused, it stays there."""
    expect(
        trial,
        trial.unstaged(announced(trial, name=name, digest="0" * 64), "CAB sha256 mismatch"),
        {**trial.before, place: (trial.before["precious"][0], trial.new.archive)},
    )
    expect_healed(trial, trial.tree(), "none" if place == ACTIVE else OLD)

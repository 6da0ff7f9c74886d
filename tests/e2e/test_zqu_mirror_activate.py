"""zqu-mirror activate: a release of the mirror is current again, and the one that it replaces stays away."""

import pytest
from mirror_tool import HELD, cab, cut, forge, remove, run, write
from release import HIT, info_name


def activate(own, id):
    return run("activate", own.root, id)


def current(own):
    return own.path(HIT).read_text().split()[-1]


def test_activate_makes_the_release_current_and_holds_the_other(own):
    own.publish_small("1", "2", "3")
    lines = f"made current {own.summary('1')}\nheld 3: mirror does not take it again\n"
    before = own.files()
    assert activate(own, "1") == (0, lines, "")
    assert own.files() == sorted([*before, HELD])
    assert (current(own), own.held(), own.check()[0]) == ("1", [info_name("3")], 0)
    assert own.path(info_name("3")).stat().st_mtime_ns == own.path(HIT).stat().st_mtime_ns  # as prune expects
    seen = own.seen()
    assert activate(own, "1") == (0, f"is current already: {own.summary('1')}\n", "")
    assert own.seen() == seen


def test_hold_ends_when_the_release_is_current_again(own):
    own.publish_small("1", "2")
    assert activate(own, "1")[0] == 0
    assert activate(own, "2")[0] == 0
    assert own.held() == [info_name("1")]
    own.publish_small("1")
    assert own.held() == []
    own.path(HELD).joinpath(info_name("1")).touch()  # as a kill leaves it
    assert activate(own, "1")[0] == 0
    assert own.held() == []


def test_release_of_an_upstream_stays_away_until_it_has_another(copy):
    copy.follow("1001", "1002")
    assert activate(copy, "1001")[0] == 0
    line = "1002 is held (--force takes it again, with --percent as a candidate): 1001 is current\n"
    before = copy.seen()
    for _ in range(2):
        assert copy.run() == (0, line, "")
    assert copy.seen() == before
    copy.follow("1003")
    assert current(copy) == "1003"
    copy.upstream.announce("1002", "antivir-v2-1002.cab")  # back to what the operator did not want
    assert copy.run() == (0, line.replace("1001 is", "1003 is"), "")
    assert copy.run("--force")[1].startswith("made current again 1002: ")
    assert (current(copy), copy.held()) == ("1002", [])
    assert copy.run() == (0, "nothing new: 1002 is current\n", "")


def test_held_release_whose_files_are_pruned_stays_away(copy):
    copy.follow("1001", "1002")
    assert activate(copy, "1001")[0] == 0
    assert copy.prune("--keep", "1", "--grace", "0s")[0] == 0
    assert not copy.path(info_name("1002")).exists()
    assert copy.run()[1].startswith("1002 is held ")
    assert current(copy) == "1001"


def test_hold_counts_for_its_flavor_alone(own):
    own.publish_small("1", "2")
    own.publish_small("1", "2", flavor="v3")
    assert activate(own, "1")[0] == 0
    upstream = ["mirror", "--flavor", "v3", f"file://{own.root}", own.base / "copy"]
    assert run(*upstream)[1].startswith("mirrored 2: ")
    assert own.held() == [info_name("2")]


# A change to a mirror with the releases 1 and 2, and the message of activate for 1.
REFUSED = {
    "missing": (remove(info_name("1")), f"1 cannot be made current: {info_name('1')} is missing"),
    "damaged": (cut(cab("1"), 30), f"1 cannot be made current: {cab('1')} has 30 bytes instead of {{size}}"),
    "unusable": (
        forge("1", cab("1")),
        f"1 cannot be made current: {cab('1')} cannot be unpacked: Unrecognized archive format",
    ),
    "record": (write(HELD, "x"), "{held} is no directory: remove it, then every release that was held is released"),
}


@pytest.mark.parametrize("case", REFUSED)
def test_release_that_clients_would_refuse_is_not_activated(own, case):
    make, line = REFUSED[case]
    own.publish_small("1", "2")
    size = own.size(cab("1"))
    make(own)
    own.expect_refused(line.format(size=size, held=own.path(HELD)), "activate", own.root, "1")


@pytest.mark.parametrize("hit", [None, "nothing\n", "[Current]\ndefId = ../x\n", f"[Current]\ndefId = {'x' * 300}\n"])
def test_activate_heals_a_lost_hit_ini_and_holds_nothing(own, hit):
    own.publish_small("1", "2")
    own.path(HIT).unlink()
    if hit:
        own.write(HIT, hit)
    assert activate(own, "1") == (0, f"made current {own.summary('1')}\n", "")
    assert (own.held(), own.check()[0]) == ([], 0)


def test_foreign_files_in_the_record_hold_nothing(own):
    own.publish_small("1", "2", "3")
    own.path(HELD).mkdir()
    for name in ("x", "antivir-v2-c-", ".ini", "antivir-v2-c-3.ini.part", f"{'x' * 200}.ini"):
        own.write(f"{HELD}/{name}", "x")
    upstream = ["mirror", f"file://{own.root}", own.base / "copy"]
    assert run(*upstream)[0] == 0
    assert activate(own, "1")[0] == 0
    assert info_name("3") in own.held()

"""zqu-mirror list: the releases on a mirror as a table and as JSON, also when the mirror is damaged."""

import json

import pytest
from mirror_tool import DAY, HELD, WORK, cab, cut, remove, utc, write
from release import HIT, info_name


def table(*rows):
    """The rows below their head, in columns that are as wide as they have to be."""
    rows = [("ID", "PUBLISHED", "SIZE", "FORMAT", "DELTAS", "STATE"), *rows]
    a, b, c, d, e = (max(len(row[column]) for row in rows) for column in range(5))
    lines = (
        f"{id:{a}}  {time:{b}}  {size:>{c}}  {form:{d}}  {deltas:{e}}  {state}".rstrip()
        for id, time, size, form, deltas, state in rows
    )
    return "".join(f"{line}\n" for line in lines)


def archive_of(own, id, form):
    return own.path(f"antivir-v2-c-{id}.{'zip.zst' if form == 'zstd' else form}")


def row(own, id, state="former", form="cab"):
    archive = archive_of(own, id, form)
    return id, utc(archive.stat().st_mtime), str(archive.stat().st_size), form, "0", state


@pytest.fixture
def listed(own):
    """Release 4 is current, 3 was until an hour ago, and 2 is held."""
    own.history(50, 40, 30)
    assert own.publish("4", "--format", "zstd")[0] == 0
    for id, age in zip("123", (50, 40, 30)):
        own.set_age(cab(id), age)
    own.path(HELD).mkdir()
    own.path(f"{HELD}/{info_name('2')}").touch()
    own.write(cab("stray"), "no INI names it")
    own.write("antivir-v2-c-1.ini.bak", "not an INI")
    own.write("README", "mine")
    (own.directory / WORK).mkdir()
    own.replaced = own.path(HIT).stat().st_mtime
    return own


def test_table_has_the_current_release_first_then_the_newest(listed):
    grace = f"within the grace until {utc(listed.replaced + 3600)}"
    rows = [row(listed, "4", "current", "zstd"), row(listed, "3", grace), row(listed, "2", "held"), row(listed, "1")]
    assert listed.list() == (0, table(*rows), "")
    rows[1] = row(listed, "3")
    assert listed.list("--grace", "0") == (0, table(*rows), "")
    both = f"within the grace until {utc(listed.began - 40 * DAY + 41 * DAY)}, held"
    assert both in listed.list("--grace", "41d")[1]


def entry(own, id, current=False, until=None, held=False, form="cab"):
    archive = archive_of(own, id, form)
    return {
        "id": id,
        "archive": archive.name,
        "format": form,
        "size": archive.stat().st_size,
        "deltas": [],
        "published_epoch": int(archive.stat().st_mtime),
        "current": current,
        "candidate": False,
        "grace_until_epoch": until,
        "held": held,
        "damaged": False,
    }


def test_json_is_one_document_with_all_of_it(listed):
    code, out, err = listed.list("--json")
    assert (code, err, out[-1]) == (0, "", "\n")
    assert json.loads(out) == {
        "directory": str(listed.directory),
        "flavor": "v2",
        "current": "4",
        "held": ["2"],
        "rollout": None,
        "problems": [],
        "releases": [
            entry(listed, "4", True, form="zstd"),
            entry(listed, "3", until=int(listed.replaced + 3600)),
            entry(listed, "2", held=True),
            entry(listed, "1"),
        ],
    }


def test_held_release_that_is_gone_is_named(own):
    """Not the current one, which is in the record when an activate was killed."""
    own.publish_small("1", "2")
    (own.directory / HELD).mkdir()
    for id in "27":
        (own.directory / HELD / info_name(id)).touch()
    lines = own.list()[1].splitlines()
    assert lines[1].endswith("  current") and lines[-1] == "held, but not on this mirror: 7"


def test_releases_of_another_flavor_have_a_list_of_their_own(own):
    own.publish_small("1")
    own.publish_small("7", flavor="v3")
    assert [line.split()[0] for line in own.list("--flavor", "v3")[1].splitlines()] == ["ID", "7"]


NO_ARCHIVE = f"{info_name('1')} names no archive or no digest"
GONE = f"{cab('1')} is missing or not a regular file, but {info_name('1')} names it"
# A damage, the message, the release that is then current, and the archives of the two releases.
DAMAGED = {
    "no hit INI": (remove(HIT), f"{HIT} is missing: nothing says which release is current", None, "21"),
    "hit INI cut short": (write(HIT, "[Curr"), f"{HIT} names no release", None, "21"),
    "INI cut short": (cut(info_name("1"), 30), NO_ARCHIVE, "2", "2"),
    "archive cut short": (cut(cab("1"), 5), "has 5 bytes, but", "2", "2"),
    "archive missing": (remove(cab("1")), GONE, "2", "2"),
    "hit INI names nothing": (write(HIT, "defId = gone\n"), info_name("gone"), "gone", "21"),
    "name of the held is taken": (write(HELD, ""), f"{HELD} is no directory", "2", "21"),
}


@pytest.mark.parametrize("case", DAMAGED)
def test_damaged_mirror_is_listed_with_what_is_broken(own, case):
    damage, problem, current, sound = DAMAGED[case]
    own.history(40, 30)
    damage(own)
    code, out, err = own.list()
    assert (code, out.count("\n"), err.count("\n"), problem in err) == (1, 3, 1, True)
    assert err.startswith("zqu-mirror: ")
    code, out, err = own.list("--json")
    found = json.loads(out)
    assert (code, err, found["current"]) == (1, "", current)
    assert [problem in text for text in found["problems"]] == [True]
    assert [release["id"] for release in found["releases"]] == ["2", "1"]
    assert [release["id"] for release in found["releases"] if not release["damaged"]] == [*sound]


def test_mirror_that_is_not_there_is_an_error(own):
    line = f"zqu-mirror: cannot open {own.directory}: No such file or directory\n"
    assert own.list() == own.list("--json") == (1, "", line)


def test_list_changes_nothing_and_needs_no_lock(own):
    own.publish_small("1")
    with own.stopped(own.publishing("2"), f"{WORK}/hit"):
        before = own.seen()
        assert own.list()[::2] == (0, "")
        assert own.seen() == before

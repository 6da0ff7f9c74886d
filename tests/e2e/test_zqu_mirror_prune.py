"""zqu-mirror prune: what it removes, what it spares, and that no client notices."""

import os

import pytest
from gateway import DAEMON, Gateway
from mirror_tool import DAY, HELD, NAME_RULE, SUBDIR, WORK, cab, utc
from outcomes import NO_FILE, published
from release import HIT, info_name
from tools import Stopped


def total(releases, leftovers, size, did="removed in all"):
    return f"{did}: releases {releases}, leftovers {leftovers}, bytes {size}\n"


NOTHING = (0, total(0, 0, 0), "")


# ---- What goes ----


# Rules, what they remove, and for each of the others why it stays, the newest first.
RULES = {
    "--keep 2": ("123", "current|among the 2 newest"),
    "--keep 4": ("1", "current" + "|among the 4 newest" * 3),
    "--older-than 25d": ("12", "current" + "|younger than 25 d" * 2),
    "--older-than 1w": ("1234", "current"),
    "--older-than 3456000": ("1", "current" + "|younger than 40 d" * 3),
    "--keep 3 --older-than 35d": ("1", "current" + "|among the 3 newest" * 2 + "|younger than 35 d"),
    "--keep 4 --older-than 1d": ("1", "current" + "|among the 4 newest" * 3),
    "--keep 1 --grace 11d": ("12", "current|within the grace until {}|within the grace until {}"),
    "--keep 1": ("1234", "current"),
    "": ("", "current" + "|neither --keep nor --older-than is given" * 4),
}


@pytest.mark.parametrize("rules", RULES)
def test_what_no_rule_keeps_goes_oldest_first(own, rules):
    own.history(41, 31, 21, 10, 1)
    doomed, reasons = RULES[rules]
    rules = rules.split()
    size = own.size(*(name for id in doomed for name in (info_name(id), cab(id))))
    before = own.seen()
    would = own.removed(*doomed, did="would remove")
    for id, reason in zip("54321", reasons.format(utc(own.began + DAY), utc(own.began + 10 * DAY)).split("|")):
        would += f"would keep {id}: {reason}\n"
    would += total(len(doomed), 0, size, "would be removed in all")
    assert own.prune(*rules, "--dry-run") == (0, would, "")
    assert own.prune(*rules, "--dry-run", "--quiet") == (0, own.removed(*doomed, did="would remove"), "")
    assert own.seen() == before
    lines = own.removed(*doomed)
    assert own.prune(*rules) == (0, lines + total(len(doomed), 0, size), "")
    assert own.files() == own.files_of(*(id for id in "12345" if id not in doomed))
    assert own.check()[0] == 0
    assert own.prune(*rules) == NOTHING
    assert own.prune(*rules, "--quiet") == (0, "", "")


def test_held_release_is_marked_and_goes_like_any_other(own):
    own.history(40, 30, 20)
    own.path(HELD).mkdir()
    for id in ("1", "2"):
        own.write(f"{HELD}/{info_name(id)}", "")
    rules = ["--keep", "2"]
    assert "would keep 3: current\nwould keep 2 (held): among the 2 newest\n" in own.prune(*rules, "--dry-run")[1]
    own.expect_left(HELD, *own.files_of("2", "3"), rules=rules)


@pytest.mark.parametrize("rules, left", [("--keep 1 --older-than 2d", "1"), ("--keep 2", "13")])
def test_current_release_stays_and_counts_however_old_it_is(own, rules, left):
    own.history(50, 40, 30)
    own.write(HIT, "[Current]\r\nDEFID = 1\r\n")
    own.set_age(HIT, 1)
    own.expect_left(*own.files_of(*left), rules=rules.split())


@pytest.mark.parametrize("other, flavor", [("v2", "v3"), ("v2-c-beta", "v2")])
def test_other_flavors_are_left_alone(own, other, flavor):
    """Also one whose files have names such as those of a release of this flavor."""
    for each in (other, flavor):
        own.history(40, 30, 20, flavor=each)
    left = [*own.files_of("1", "2", "3", flavors=[other]), *own.files_of("3", flavors=[flavor])]
    own.expect_left(*left, rules=["--keep", "1", "--flavor", flavor])


def test_ini_that_two_flavors_lead_to_stays_while_one_names_it(own):
    other_hit = "antivir-v2-c-x-hit.ini"
    own.history(40, 30)
    own.publish_small("x-c-1", "x-c-2")
    for name, text in ((HIT, "defId = 2\n"), (other_hit, "defId = 1\n")):
        own.write(name, text)
    for name, age in ((info_name("x-c-1"), 35), (info_name("x-c-2"), 35), (HIT, 20), (other_hit, 20)):
        own.set_age(name, age)
    # Of "v2", which "x-c-2" is not: it may be the other flavor's "2".
    own.expect_left(other_hit, *own.files_of("2", "x-c-1", "x-c-2"))
    own.write(HIT, "defId = x-c-2\n")
    other = ["--keep", "1", "--flavor", "v2-c-x"]
    assert own.prune(*other) == NOTHING  # its "2" is the other flavor's current release
    own.write(HIT, "defId = 2\n")
    own.set_age(HIT, 20)
    own.expect_left(other_hit, *own.files_of("2", "x-c-1"), rules=other)


def test_archive_that_another_ini_names_outlives_its_release(own):
    own.history(40, 30)
    own.write(info_name("7", "v3"), own.path(info_name("1")).read_bytes())
    own.write("antivir-v3-hit.ini", "defId = 7\n")
    size = own.size(info_name("1"))
    line = f"removed 1: {info_name('1')} ({cab('1')} serves another release), {size} bytes\n"
    assert own.prune("--keep", "1") == (0, line + total(1, 0, size), "")
    assert own.files() == sorted([*own.files_of("2"), cab("1"), info_name("7", "v3"), "antivir-v3-hit.ini"])
    assert own.check("--flavor", "v3")[1].startswith("ok       antivir-v3-hit.ini names 7\n")


def test_release_with_the_id_hit_is_one_like_any_other(own):
    """Publishing one is refused, but others may have put it there."""
    own.publish_small("3")
    for id in ("hit", "x-hit"):
        own.write(cab(id), id)
        own.write(info_name(id), names(cab(id)))
    for name in (info_name("hit"), info_name("x-hit"), info_name("3"), HIT):
        own.set_age(name, 5)
    own.expect_left(*own.files_of("3"))


def test_release_without_its_archive_goes(own):
    own.history(40, 30)
    own.path(cab("1")).unlink()
    size = own.size(info_name("1"))
    line = f"removed 1: {info_name('1')}, {cab('1')}, {size} bytes\n"
    assert own.prune("--keep", "1") == (0, line + total(1, 0, size), "")
    assert own.files() == own.files_of("2")


# ---- The grace ----


# Ages of releases in days, the releases published now (again), the rule, and what is left.
GRACES = {
    "was current, however old": ([40, 30, 20], "4", "1", "34"),
    "counts among those to keep": ([40, 30, 20, 10], "5", "3", "345"),
    "replaced by going back": ([40, 30, 20], "1", "1", "13"),
    "current for a moment": ([40, 30, 20, 10], "13", "1", "134"),
}


@pytest.mark.parametrize("case", GRACES)
def test_what_was_current_within_the_grace_stays(own, case):
    ages, published_now, keep, left = GRACES[case]
    own.history(*ages)
    own.publish_small(*published_now)
    own.expect_left(*own.files_of(*left), rules=["--keep", keep])


def test_where_no_time_was_left_the_newest_before_stays(own):
    own.history(40, 30, 20)
    own.publish_small("4")
    own.set_age(info_name("3"), 20)  # as if the release had been put there by other means
    own.expect_left(*own.files_of("3", "4"))
    own.set_age(HIT, 3000 / DAY)
    assert own.prune("--keep", "1") == NOTHING
    own.set_age(HIT, 3601 / DAY)
    own.expect_left(*own.files_of("4"))


@pytest.mark.parametrize("grace, left", [("1h", "123"), ("0", "3")])
def test_what_was_replaced_within_the_grace_stays_by_its_ctime(own, grace, left):
    """As rsync leaves it that copies the times from a mirror where 3 became current a week ago."""
    own.history(40, 30)
    own.publish_small("3")
    for name in (info_name("2"), info_name("3"), HIT):
        own.set_age(name, 7)
    env = {**os.environ}  # with the true ctimes
    until = "would keep 2: within the grace until "
    assert (until in own.prune("--keep", "1", "--grace", grace, "--dry-run", env=env)[1]) == (grace == "1h")
    assert own.prune("--keep", "1", "--grace", grace, env=env)[0] == 0
    assert own.files() == own.files_of(*left)


def test_age_and_order_are_by_mtime_alone(own):
    own.history(40, 30, 20, 10)
    assert own.prune("--older-than", "25d", "--grace", "0", env={**os.environ})[0] == 0
    assert own.files() == own.files_of("3", "4")


def test_time_in_the_future_is_within_any_grace(own):
    own.history(40, 30, 20)
    own.set_age(info_name("1"), -1)
    own.expect_left(*own.files_of("1", "3"), rules=["--keep", "1", "--grace", "0"])


@pytest.mark.parametrize("grace, left", [("1h", "23"), ("0", "3")])
def test_client_on_its_way_is_served_within_the_grace(own, grace, left):
    """The daemon stands still once it has opened the hit INI; without a grace it is cut off."""
    own.history(3, 2)
    gateway = Gateway(own.base, mirror_base_url=f"file://{own.root}", mirror_subdir=SUBDIR)
    environment = gateway.environment()
    environment["ASAN_OPTIONS"] += ":detect_leaks=0"  # the leak check does not work under ptrace(2)
    command = [DAEMON, "--config", gateway.config_path, "--once"]
    with Stopped(command, own.path(HIT), env=environment) as daemon:
        own.publish_small("3")
        own.expect_left(*own.files_of(*left), rules=["--keep", "1", "--grace", grace])
        assert daemon.finish()[0] == 0
    refused = [f"err GET file://{own.directory}/{info_name('2')}: {NO_FILE}"]
    assert gateway.take_log() == (published("2") if "2" in left else refused)


# ---- What killed runs leave ----


def test_archive_of_ours_that_nothing_names_goes_after_the_grace(own):
    own.history(40, 30)
    name = "antivir-v3-beta-c-9.zip.zst"
    own.write(name, b"x" * 5000)
    os.utime(own.path(name), (1, 1))  # its time is old, but it came a moment ago
    assert own.prune(env={**os.environ}) == NOTHING
    line = f"{{}} {name}, which no INI names: 5000 bytes\n"
    would = own.prune("--grace", "0", "--dry-run")
    assert (would[0], line.format("would remove") in would[1], would[2]) == (0, True, "")
    assert own.prune("--grace", "0") == (0, line.format("removed") + total(0, 1, 5000), "")
    assert own.files() == own.files_of("1", "2")


@pytest.mark.parametrize(
    "name", ["backup.zip", "antivir-v2-9.cab", "antivir-v2-c-.zip.zst", "antivir-v2-c-a b.zip", "antivir--c-1.cab"]
)
def test_archive_of_somebody_else_is_kept_and_listed(own, name):
    own.history(40, 30)
    own.write(name, b"x" * 5000)
    own.path(cab("q")).mkdir()  # and so is a directory with the name of an archive
    lines = sorted([f"not ours, kept: {name}, 5000 bytes\n", f"not ours, kept: {cab('q')}\n"])
    assert own.prune("--grace", "0") == (0, "".join(lines) + total(0, 0, 0), "")
    assert own.files() == sorted([*own.files_of("1", "2"), name, cab("q")])


def test_what_is_neither_archive_nor_ini_of_a_release_stays(own):
    own.history(40, 30)
    others = ["README", "index.html", "other.ini", "antivir-v2.ini", "x.cab.part"]
    for name in others:
        own.write(name, "mine\n")
    own.expect_left(*own.files_of("2"), *others, rules=["--keep", "1", "--grace", "0"])


def test_what_a_killed_publish_has_left_goes(own):
    own.history(40, 30)
    with own.stopped(own.publishing("new"), f"{WORK}/hit"):
        pass  # killed in the end, with archive and INI in place and the work directory there
    own.write(f"{WORK}/archive", b"left" * 1000)
    assert own.files() == sorted([WORK, *own.files_of("1", "2", "new")])
    own.path(info_name("new")).unlink()
    archive = own.size(cab("new"))
    lines = (
        f"removed {WORK}, which a killed run has left: 4000 bytes\n"
        f"removed {cab('new')}, which no INI names: {archive} bytes\n"
    )
    assert own.prune("--grace", "0") == (0, lines + total(0, 2, 4000 + archive), "")
    assert own.files() == own.files_of("1", "2")


@pytest.mark.parametrize("command", ["prune", "publish"])
def test_archive_that_a_killed_mirror_has_left_goes_at_once(copy, command):
    """It has the upstream's name: only the INI in the work directory shows that it is no other file."""
    copy.publish_small("old")
    copy.upstream.publish("1001")
    archive = "antivir-v2-1001.cab"
    for mine in (False, True):
        with copy.stopped(copy.words(), ".", "fsync"):
            assert copy.path(archive).exists()  # and killed in the end
        if mine:
            copy.write(archive, b"other content")
        size = copy.size(archive)
        did = f"not ours, kept: {archive}, {size} bytes" if mine else f"removed {archive}, which a killed run has left"
        result = copy.prune() if command == "prune" else copy.publish("2")
        assert (result[0], did in result[1] or command == "publish", result[2]) == (0, True, "")
        left = [] if command == "prune" else ["2"]
        assert copy.files() == sorted([*copy.files_of("old", *left), *([archive] if mine else [])])


@pytest.mark.parametrize("command", ["prune", "publish"])
def test_file_in_the_place_of_the_work_directory_is_refused(own, command):
    own.history(40, 30)
    own.write(WORK, "mine")
    words = {"prune": ["prune", own.root], "publish": own.publishing("3")}
    line = "is not a directory, but zqu-mirror prepares files in one of that name: remove or rename it"
    own.expect_refused(f"{own.directory}/{WORK} {line}", *words[command])


# ---- What cannot be understood ----


def names(archive):
    return f"def.Current.name = {archive}\ndef.Current.SHA256 = 00\n"


NO_ARCHIVE = "{name} names no archive or no digest"
# A file of the mirror, its content, and the message.
NOT_UNDERSTOOD = [
    (HIT, None, "{name} is missing: nothing says which release is current"),
    (HIT, "", "{name} names no release"),
    (HIT, "defId = a%41\n", f"{{name}}: the name a%41 {NAME_RULE}"),
    (HIT, "defId = gone\n", f"GET file://{{directory}}/{info_name('gone')}: No such file or directory"),
    ("antivir-v3-hit.ini", "?", "{name} names no release"),
    ("antivir-v3 x-hit.ini", "defId = 1\n", f"{{name}}: the name {{name}} {NAME_RULE}"),
    ("antivir-v2-c-hit.ini", "?", "{name} names no release"),
    (info_name("1"), "def.Current.name = x.cab\n", NO_ARCHIVE),
    (info_name("9", "v3"), "", NO_ARCHIVE),
    (info_name("a b"), "", f"{{name}}: the name {{name}} {NAME_RULE}"),
    (info_name("1"), names("./x.cab"), f"{{name}}: the archive's name ./x.cab {NAME_RULE}"),
    (info_name("1"), names(info_name("3")), f"{{name}}: the archive's name {info_name('3')} must not end in .ini"),
    (info_name("1"), names(".x.cab"), "{name}: the archive's name .x.cab must not begin with a dot"),
]


@pytest.mark.parametrize("number", range(len(NOT_UNDERSTOOD)))
def test_ini_that_is_not_understood_ends_it_before_all(own, number):
    name, what, line = NOT_UNDERSTOOD[number]
    own.history(40, 30, 20)
    own.path(name).unlink() if what is None else own.write(name, what)
    own.expect_refused(line.format(name=name, directory=own.directory), "prune", "--keep", "1", own.root)


# ---- While it runs ----


def stopped_prune(own):
    """A prune that stands still once it has removed the first INI."""
    return own.stopped(["prune", "--keep", "1", "--grace", "0", own.root], info_name("1"), "unlink")


def test_release_that_becomes_current_meanwhile_stays(own):
    own.history(50, 40, 30, 20)
    lines = own.removed("1") + "kept 2: it is current now\n" + own.removed("3")
    size = own.size(info_name("1"), cab("1"), info_name("3"), cab("3"))
    with stopped_prune(own) as stopped:
        own.write(HIT, "defId = 2\n")
        assert stopped.finish() == (0, lines + total(2, 0, size), "")
    assert own.files() == own.files_of("2", "4")


def test_hit_ini_that_becomes_unreadable_meanwhile_ends_it(own):
    own.history(50, 40, 30, 20)
    first = own.removed("1")
    with stopped_prune(own) as stopped:
        own.write(HIT, "")
        assert stopped.finish() == (1, first, f"zqu-mirror: {HIT} names no release\n")
    assert own.files() == own.files_of("2", "3", "4")

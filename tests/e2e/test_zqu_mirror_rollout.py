"""A staged rollout: a part of the gateways gets the candidate first, and all of them go back when it is withdrawn."""

import json
import os

import pytest
from mirror_tool import DAY, REPLACED, OwnMirror, cab, change_byte, cut, noise, remove, run, utc, write
from release import HIT, hit_ini, info_name
from scripted_server import reply
from tools import check_metrics

STAGES = (1, 10, 50)
FIRST, SECOND, THIRD = (f"{HIT}.{stage}" for stage in STAGES)


class Rolling(OwnMirror):
    """A mirror whose release "old" is current, and "new" a candidate."""

    def begin(self, percent):
        self.publish_small("old")
        assert self.publish("new", "--percent", str(percent))[0] == 0
        self.state = self.state_of(percent)

    def rollout(self, *words):
        return run("rollout", self.root, *words)

    def named(self):
        """What each group of gateways finds, as the web server answers."""
        paths = [self.path(f"{HIT}.{stage}") for stage in STAGES]
        found = [path if path.exists() else self.path(HIT) for path in (*paths, self.path(HIT))]
        return [path.read_text().split()[-1] for path in found]

    def state_of(self, percent):
        since = utc(self.path(f"{HIT}.{percent}").stat().st_mtime)
        return f"new is the candidate for {percent} per cent since {since}"

    def began_before(self, age):
        os.utime(self.path(FIRST), (self.began - age, self.began - age))
        return int(self.began - age)


@pytest.fixture
def own(tmp_path):
    return Rolling(tmp_path)


def test_rollout_in_four_steps_and_each_says_where_it_is(own):
    own.publish_small("old")
    done = own.publish("new", "--percent", "1")
    assert done == (0, f"published new as the candidate for 1 per cent{own.summary('new')[3:]}\n", "")
    start = own.began_before(DAY)
    assert own.named() == ["new", "old", "old", "old"]
    for percent, groups in ((10, ["new", "new", "old", "old"]), (50, ["new", "new", "new", "old"])):
        done = own.rollout(str(percent))
        state = own.state_of(percent)
        assert done == (0, f"{state}{own.summary('new')[3:]}\n", "")
        assert (own.named(), own.check()[0]) == (groups, 0)
        line = f"{state}, the rollout began at {utc(start)}; old is current\n"
        assert own.rollout() == own.rollout(str(percent)) == (0, line, "")
        assert own.list()[1].endswith(f"  candidate, {state.partition('for ')[2]}\n")
    document = json.loads(own.list("--json")[1])
    since = int(own.path(THIRD).stat().st_mtime)
    assert document["rollout"] == {"id": "new", "percent": 50, "since_epoch": since, "start_epoch": start}
    assert [(each["id"], each["candidate"]) for each in document["releases"]] == [("old", False), ("new", True)]
    assert own.rollout("100") == (0, f"made current {own.summary('new')}\n", "")
    assert (own.files(), own.named()) == (own.files_of("old", "new"), ["new"] * 4)
    assert own.rollout() == (0, "no rollout: new is current\n", "")


def test_withdrawn_release_is_held_and_its_grace_begins(own):
    own.begin(50)
    own.set_age(info_name("new"), 9)
    lines = "withdrew new: old is current for all; gateways that took new go back with their next check\n"
    assert own.rollout("withdraw") == (0, f"{lines}held new: mirror does not take it again\n", "")
    assert (own.named(), own.held()) == (["old"] * 4, [info_name("new")])
    assert own.path(info_name("new")).stat().st_mtime > own.began - 60
    assert "would keep new (held): within the grace until" in own.prune("--keep", "1", "--dry-run")[1]
    assert own.publish("new", "--percent", "1")[0] == 0  # by hand, it is wanted
    assert (own.named()[:2], own.held()) == (["new", "old"], [])
    assert own.rollout("withdraw")[0] == run("activate", own.root, "new")[0] == 0
    assert (own.named(), own.held()) == (["new"] * 4, [info_name("old")])


def test_replaced_candidate_is_not_held_but_has_its_grace(own):
    own.begin(50)
    own.set_age(info_name("new"), 9)
    own.antivir.write_bytes(noise(90, "next"))
    advice = "run zqu-mirror rollout MIRROR with 100 or withdraw first, or give --replace"
    for words in ([], ["--percent", "50"]):
        own.expect_refused(f"{own.state}: {advice}", *own.publishing("next", *words))
    assert own.publish("next", "--replace", "--percent", "10")[0] == 0
    assert (own.named(), own.held()) == (["next", "next", "old", "old"], [])
    assert own.path(info_name("new")).stat().st_mtime > own.began - 60
    assert own.publish("next", "--replace")[0] == 0
    assert (own.named(), own.files()) == (["next"] * 4, own.files_of("new", "next", "old"))


def finish(own):
    assert own.rollout("100")[0] == 0


NO_ROLLOUT = "there is no rollout, and new is current: "
NO_ROLLOUT += "publish --percent starts one, activate goes back to a former release"
NOWHERE = f"{HIT} names no release to go back to: run zqu-mirror repair"
PUBLISH = "publish --percent 1 --id new {root} {files}"
# What is done to a mirror with the candidate "new" at 50 per cent, the words of a run, and why it is refused.
REFUSED = {
    "no mirror": (None, "rollout {root}/typo", "{root}/typo/rhex/deffiles/def5-2 is no directory: there is no mirror"),
    "replaced by itself": (None, f"{PUBLISH} --replace", "{state}: only withdraw goes back"),
    "lower stage": (None, "rollout {root} 10", "{state}: only withdraw goes back"),
    "activate": (None, "activate {root} old", "{state}: run zqu-mirror rollout MIRROR with 100 or withdraw first"),
    "damaged": (cut(cab("new"), 9), "rollout {root} 100", "new cannot be rolled out further: {cab} has 9 bytes {size}"),
    "no hit INI": (remove(HIT), "rollout {root} withdraw", NOWHERE),
    "is current": (finish, PUBLISH, "new is current already: --percent needs another release"),
    **{f"no rollout, {what}": (finish, f"rollout {{root}} {what}", NO_ROLLOUT) for what in ("10", "100", "withdraw")},
}


@pytest.mark.parametrize("case", REFUSED)
def test_step_that_cannot_be_is_refused(own, case):
    make, words, line = REFUSED[case]
    own.begin(50)
    size = f"instead of {own.size(cab('new'))}"
    line = line.format(root=own.root, state=own.state, cab=cab("new"), size=size)
    if make:
        make(own)
    own.expect_refused(line, *words.format(root=own.root, files="/etc/passwd /etc/group").split())


def replace(own):
    assert own.publish("4", "--percent", "1", "--replace")[0] == 0


# What ends the rollout of 3, what is lost then, and the release that was current before.
ENDS = {
    "withdrawn": (lambda own: own.rollout("withdraw"), HIT, "2"),
    "replaced": (replace, cab("2"), "1"),
    "gap": (lambda own: (own.path(FIRST).unlink(), run("repair", own.root)), cab("2"), "1"),
}


@pytest.mark.parametrize("case", ENDS)
def test_repair_chooses_no_former_candidate(own, case):
    end, lost, former = ENDS[case]
    own.publish_small("1", "2")
    assert own.publish("3", "--percent", "10")[0] == 0
    end(own)
    own.path(lost).unlink()
    assert f"would make current {former}\n" in run("repair", own.root)[1]


def test_withdrawal_works_on_a_damaged_mirror(own):
    own.begin(10)
    own.write(FIRST, "")
    own.path(cab("old")).unlink()
    code, out, err = own.rollout("withdraw")
    assert (own.named(), own.held()) == (["old"] * 4, [info_name("new")])
    assert (code, out.count("withdrew new: "), f"{cab('old')} is missing" in err) == (1, 1, True)


@pytest.mark.parametrize("command", ["publish", "mirror"])
def test_rollout_without_a_current_release_is_refused(own, command):
    upstream = own.base / "upstream"
    assert own.publish("1", root=upstream)[0] == 0
    words = own.publishing("1") if command == "publish" else ["mirror", f"file://{upstream}", own.root]
    line = "zqu-mirror: there is no current release to go back to: run this without --percent first\n"
    assert run(*words, "--percent", "10") == (1, "", line)
    assert not own.root.exists()


def test_mirror_waits_for_the_end_of_a_rollout(copy):
    copy.follow("1001")
    copy.upstream.publish("1002")
    done = copy.run("--percent", "10")
    what = copy.summary("1002", "antivir-v2-1002.cab")[4:]
    assert done == (0, f"mirrored 1002 as the candidate for 10 per cent{what}\n", "")
    since = utc(copy.path(SECOND).stat().st_mtime)
    waits = f"waits: 1002 is the candidate for 10 per cent since {since}; 1001 is current\n"
    before = copy.seen()
    assert copy.run("--replace", "--percent", "1") == (0, waits, "")  # else each run would begin again
    copy.upstream.publish("1003")
    assert copy.run() == copy.run("--percent", "1") == (0, waits, "")
    copy.upstream.announce("1001", "antivir-v2-1001.cab")
    assert copy.run("--percent", "1") == (0, waits, "")  # also when the upstream has gone back
    assert copy.seen() == before
    copy.upstream.announce("1003", "antivir-v2-1003.cab")
    assert copy.run("--replace")[1].startswith("mirrored 1003: ")
    assert (copy.path(FIRST).exists(), copy.held()) == (False, [])
    copy.upstream.publish("1004")
    assert copy.run("--percent", "1")[0] == 0
    cut("antivir-v2-1003.cab", 9)(copy)
    assert copy.run()[2].startswith("zqu-mirror: 1003 is current, but damaged: ")


def test_only_copies_ask_for_the_current_release(own, scripted):
    own.begin(50)
    scripted.server.script = {path.name: [reply(path.read_bytes())] for path in own.directory.iterdir()}
    root, options = own.base / "copy", ["--ca", scripted.ca_path, "--upstream-subdir", "defs"]
    for words, asks in (
        (["mirror", *options, scripted.url, root], True),
        (["repair", *options, "--from", scripted.url, root], True),
        (["check", "--subdir", "defs", *options[:2], scripted.url], False),
    ):
        scripted.server.requests.clear()
        assert run(*words)[0] == 0
        assert {"Zqu-Release: current" in lines for lines in scripted.server.requests} == {asks}
    assert run("mirror", f"file://{own.root}", root)[1] == "nothing new: old is current\n"


def replace_by(make, name):
    return lambda own: (own.path(name).unlink(), make(own.path(name)))


GAP, LOWEST = (f"{one} names new, but {other} does not" for one, other in ((THIRD, SECOND), (SECOND, FIRST)))
EMPTY = [f"{THIRD} names no release"]
# What is done to a mirror with the candidate "new" at 50 per cent, what is wrong, and how many stage files are left.
FAULTS = {
    "too long": (write(THIRD, "defId = new\n" + "\n" * (1 << 20)), EMPTY, 2),
    "FIFO": (replace_by(os.mkfifo, THIRD), EMPTY, 2),
    "other": (write(SECOND, "defId = x\n"), [GAP, f"{SECOND} names x, but {FIRST} does not"], 1),
    "gap": (remove(FIRST), [GAP, LOWEST], 0),
    "loop": (replace_by(lambda path: path.symlink_to(path), FIRST), [GAP, LOWEST, f"{FIRST} names no release"], 0),
}


@pytest.mark.parametrize("case", FAULTS)
def test_stage_file_that_belongs_to_no_rollout_is_a_fault(own, case):
    """Nothing is done on the strength of it, until repair has removed it."""
    damage, faults, left = FAULTS[case]
    own.begin(50)
    damage(own)
    assert own.list()[::2] == (1, "".join(f"zqu-mirror: {fault}\n" for fault in faults))
    found = [line for line in own.check()[1].splitlines() if line.startswith("FAULT")]
    assert found == [f"FAULT    {fault}" for fault in faults]
    for words in (["rollout", own.root], own.publishing("other", "--replace"), ["activate", own.root, "old"]):
        own.expect_refused(f"{faults[-1]}; run zqu-mirror repair MIRROR", *words)
    own.expect_refused(faults[0], "prune", "--keep", "1", own.root)
    names = [fault.split()[0] for fault in faults]
    code, out, err = run("repair", own.root)
    assert (code, err) == (0, "")
    assert out.splitlines()[:-1] == [f"found {fault}" for fault in faults] + [f"removed {name}" for name in names]
    assert sorted(os.listdir(next(own.path(REPLACED).iterdir()))) == sorted(names)
    assert len([*own.directory.glob(f"{HIT}.*")]) == left
    assert own.check()[0] == own.list()[0] == own.prune("--keep", "1")[0] == 0


# What removes the stage files that a killed run has left, and what it says of each.
HEALERS = {
    "prune": (lambda own: ["prune", own.root], "removed {}, which a killed run has left: 22 bytes\n"),
    "repair": (lambda own: ["repair", own.root], "found {}, which a killed run has left\n"),
    "publish": (lambda own: own.publishing("next", "--percent", "1"), ""),
    "activate": (lambda own: ["activate", own.root, "old"], ""),
}


@pytest.mark.parametrize("name", HEALERS)
def test_stage_files_of_a_killed_run_are_no_rollout(own, name):
    words, said = HEALERS[name]
    own.begin(50)
    own.write(HIT, own.path(FIRST).read_bytes())
    assert (own.list()[0], own.check()[0], own.rollout()) == (0, 0, (0, "no rollout: new is current\n", ""))
    code, out, err = run(*words(own))
    assert (code, err) == (0, "")
    assert all(said.format(stage) in out for stage in (THIRD, SECOND, FIRST))
    assert own.named()[1:] == ["old" if name == "activate" else "new"] * 3
    assert not own.path(SECOND).exists()


def test_prune_keeps_a_candidate_also_one_that_comes_meanwhile(own):
    own.history(50, 40, 30, 20)
    assert own.publish("5", "--percent", "1")[0] == 0
    own.set_age(info_name("5"), 60)
    rules = ["--keep", "1", "--grace", "0"]
    assert "would keep 5: candidate\n" in own.prune(*rules, "--dry-run")[1]
    lines = own.removed("1") + "kept 2: it is a candidate now\n" + own.removed("3")
    with own.stopped(["prune", *rules, own.root], info_name("1"), "unlink") as stopped:
        own.write(FIRST, hit_ini("2"))
        assert lines in stopped.finish()[1]


def test_repair_restores_a_candidate_or_ends_its_rollout(copy):
    copy.follow("1000", "1001")
    copy.upstream.publish("1002")
    assert copy.run("--percent", "10")[0] == 0
    _, *options, url, root = copy.words()
    damage = change_byte("antivir-v2-1002.cab")
    damage(copy)
    assert "\nrestored 1002: " in run("repair", *options, "--from", url, root)[1]
    assert copy.check()[0] == 0 and copy.path(SECOND).exists()
    copy.path(HIT).unlink()  # the upstream's current release is the candidate here
    for words in ([], [*options, "--from", url]):
        assert "would make current 1001\n" in run("repair", *words, root)[1]
    assert run("repair", "--yes", root)[0] == 0
    assert copy.path(HIT).read_text().split()[-1] == "1001" and copy.path(SECOND).exists()
    damage(copy)
    assert run("repair", root)[1].endswith("would end the rollout of 1002 and set aside 1002\n")
    assert f"removed {SECOND}\nremoved {FIRST}\nset aside 1002\n" in run("repair", "--yes", root)[1]
    assert (copy.check()[0], run("rollout", root)[1]) == (0, "no rollout: 1001 is current\n")


def test_check_reads_the_candidate_and_warns_of_a_long_rollout(own):
    own.begin(10)
    start = own.began_before(3 * DAY + 60)
    late = "the rollout of new began 3 d ago, more than 2 d: run zqu-mirror rollout MIRROR with 100 or withdraw"
    lines = [f"ok       {SECOND} names new", f"warning  {late}", f"ok       candidate new: {info_name('new')} names"]
    long, short = ["--max-rollout", "2d"], ["--max-rollout", "4d"]
    assert "\n".join(lines) in own.check(*long)[1]
    assert own.check("--quiet", *short) == (0, "", "")
    assert own.check("--nagios", *long)[1].startswith(f"MIRROR WARNING - {late} |age=")
    assert f" old; {own.state} |age=" in own.check("--nagios", *short)[1]
    document = json.loads(own.check("--json", *long)[1])
    assert (document["verdict"], document["id"], document["archive"]) == ("warning", "old", cab("old"))
    samples = check_metrics(own.check("--prometheus", *long)[1])
    labels = f'mirror="{own.root}",flavor="v2"'
    assert samples[f'zelquorin_mirror_rollout_percent{{{labels},version="new"}}'] == "10"
    assert samples[f"zelquorin_mirror_rollout_start_timestamp_seconds{{{labels}}}"] == str(start)
    assert samples[f'zelquorin_mirror_verdict{{{labels},verdict="warning"}}'] == "1"
    cut(cab("new"), 9)(own)
    code, out, err = own.check()
    assert (code, f"\nFAULT    candidate new: {cab('new')} does not have the digest " in out) == (1, True)
    assert own.check(*long, root=f"file://{own.root}")[0] == 2
    assert own.rollout("withdraw")[0] == 0
    assert "rollout" not in own.check("--prometheus")[1]

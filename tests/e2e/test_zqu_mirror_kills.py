"""zqu-mirror cut short: the commands that change a mirror are killed, stopped, or fail at each of their system calls.

A command that changes a mirror has its row in COMMANDS, and with it all tests here."""

import itertools
import os
import re
import shutil
import signal
from concurrent.futures import ThreadPoolExecutor
from dataclasses import dataclass, replace
from typing import Callable

import pytest
from mirror_tool import HELD, REPLACED, TRUSTED, WORK, cab, noise, run
from release import HIT, info_name
from signing import SigningKey
from tools import Stopped, under_strace

# Calls that change nothing on a disk. A kill before one leaves what a kill before the next one of others leaves.
HARMLESS = {"close", "fcntl", "flock", "fstat", "getdents64", "lseek", "newfstatat", "pread64", "read", "statx"}
SIGNALS = {signal.SIGINT: "Interrupt", signal.SIGTERM: "Terminated", signal.SIGHUP: "Hangup"}
FAILING = ["mkdir", "openat", "write", "lseek", "fallocate", "ftruncate", "fsync", "rename", "flock"]


@dataclass
class Command:
    """What a command does to a mirror with the release "old", or "1" to "4", current. Words depend on the root."""

    words: Callable
    work: list  # what it has in the work directory, in the order in which it comes
    archive: str
    steps: list  # its calls of fsync, rename and unlink; D is the mirror's directory, W the work directory
    prepare: Callable = lambda own, upstream: own.publish_small("old")
    others: tuple = ()  # further paths that it uses
    states: int = 8  # how many states its kills leave, at least
    damaged: bool = False  # the mirror, so that clients fail before
    stop: tuple = (f"{WORK}/hit", "openat")  # where a run stands still in the midst of its work


def prepare_copying(own, upstream):
    own.publish_small("old")
    upstream.publish("new")


def prepare_signed(own, upstream):
    prepare_copying(own, upstream)
    SigningKey(own.base).sign_info(upstream, "new")


def prepare_damaged(own, upstream):
    """The archive and the INI of the release "new" are cut short, and the hit INI names another one."""
    prepare_copying(own, upstream)
    assert own.run()[0] == 0
    for name in ("antivir-v2-new.cab", info_name("new")):
        os.truncate(own.path(name), 20)
    own.write(HIT, "[Current]\ndefId = 9\n")


def repairing(own, root):
    _, *options, url, root = own.words(root=root)
    return ["repair", *options, "--from", url, root]


def publishing_upstream(own, id, *flags):
    words = ["publish", *flags, "--id", id, "--subdir", own.upstream.subdir]
    assert run(*words, own.nginx.root, own.antivir, own.aivsecon)[0] == 0


def prepare_plain(own, upstream, *flags):
    """Releases "base" and "new", of which the second one is upstream only."""
    shutil.rmtree(upstream.directory)
    own.antivir.write_bytes(noise(2000, "base"))
    publishing_upstream(own, "base")
    assert own.run("--plain")[0] == 0
    own.aivsecon.write_bytes(b"new\n")
    publishing_upstream(own, "new", *flags)


def prepare_delta(own, upstream):
    prepare_plain(own, upstream, "--deltas", "1")


FINAL_STEPS = ["fsync D/W/hit", f"rename D/W/hit, D/{HIT}", "fsync D"]
COMMANDS = {
    "publish": Command(
        words=lambda own, root: own.publishing("new", root=root),
        work=["archive", "info", "hit"],
        archive=cab("new"),
        steps=[
            "fsync D/W/archive",
            "fsync D/W/info",
            "rename D/W/archive, D/antivir-v2-c-new.cab",
            "rename D/W/info, D/antivir-v2-c-new.ini",
            "fsync D",
            *FINAL_STEPS,
        ],
    ),
    "mirror": Command(
        prepare=prepare_copying,
        words=lambda own, root: own.words(root=root),
        work=["antivir-v2-c-new.ini", "archive", "hit"],
        archive="antivir-v2-new.cab",
        steps=[
            "fsync D/W/antivir-v2-c-new.ini",
            "fsync D/W/archive",
            "rename D/W/archive, D/antivir-v2-new.cab",
            "fsync D",
            "rename D/W/antivir-v2-c-new.ini, D/antivir-v2-c-new.ini",
            "fsync D",
            *FINAL_STEPS,
        ],
    ),
    "prune": Command(
        prepare=lambda own, upstream: own.history(50, 40, 30, 20),
        words=lambda own, root: ["prune", "--keep", "1", "--grace", "0", root],
        work=[],
        archive=cab("1"),
        states=6,
        stop=(info_name("1"), "unlink"),
        steps=[
            *(step for id in "123" for step in (f"unlink D/{info_name(id)}", "fsync D", f"unlink D/{cab(id)}")),
            "fsync D",
        ],
    ),
    "activate": Command(
        prepare=lambda own, upstream: own.publish_small("new", "old"),
        words=lambda own, root: ["activate", root, "new"],
        work=["hit"],
        archive=cab("new"),
        others=(HELD, f"{HELD}/{info_name('old')}"),
        states=5,
        steps=["fsync D", f"fsync D/{HELD}", *FINAL_STEPS],
    ),
    "repair": Command(
        prepare=prepare_damaged,
        words=repairing,
        work=["archive", "info", "hit"],
        archive="antivir-v2-new.cab",
        others=(REPLACED,),
        damaged=True,
        steps=[
            "fsync D/W/archive",
            "fsync D/W/info",
            f"fsync D/{REPLACED}",
            "rename D/W/archive, D/antivir-v2-new.cab",
            "fsync D",
            "rename D/W/info, D/antivir-v2-c-new.ini",
            "fsync D",
            *FINAL_STEPS,
        ],
    ),
}
PLAIN_STEPS = [
    "fsync D/W/plain",
    "fsync D/W/plain.ini",
    "rename D/W/plain, D/antivir-v2-c-new.plain.zip",
    "rename D/W/antivir-v2-c-new.ini, D/antivir-v2-c-new.ini.upstream",
    "fsync D",
    "rename D/W/plain.ini, D/antivir-v2-c-new.ini",
    "fsync D",
    *FINAL_STEPS,
]
COMMANDS["plain"] = Command(
    prepare=prepare_delta,
    words=lambda own, root: own.words("--plain", root=root),
    work=["antivir-v2-c-new.ini", "delta", "plain", "plain.ini", "hit"],
    archive="antivir-v2-c-new.plain.zip",
    others=(f"{info_name('new')}.upstream",),
    steps=["fsync D/W/antivir-v2-c-new.ini", "fsync D/W/delta", *PLAIN_STEPS],
)
COMMANDS["whole"] = replace(
    COMMANDS["plain"],
    prepare=prepare_plain,
    work=["antivir-v2-c-new.ini", "whole", "plain", "plain.ini", "hit"],
    steps=["fsync D/W/antivir-v2-c-new.ini", "fsync D/W/whole", *PLAIN_STEPS],
)
COMMANDS["deltas"] = replace(
    COMMANDS["publish"],
    prepare=prepare_delta,
    words=lambda own, root: own.publishing("new", "--deltas", "1", root=root),
    work=["archive", "plain", "old", "delta", "again", "info", "hit"],
    steps=[
        "fsync D/W/archive",
        "fsync D/W/delta",
        "rename D/W/delta, D/antivir-v2-c-new.DIGEST.delta",
        *COMMANDS["publish"].steps[1:],
    ],
)
COMMANDS["trust"] = replace(
    COMMANDS["mirror"],
    prepare=prepare_signed,
    words=lambda own, root: own.words("--trust", own.base / "key-pub.pem", root=root),
    work=["trusted", *COMMANDS["mirror"].work],
    others=(TRUSTED,),
    steps=["fsync D/W/trusted", f"rename D/W/trusted, D/{TRUSTED}", "fsync D", *COMMANDS["mirror"].steps],
)


# ---- Rollouts: 1, 10 and 50 per cent of the gateways ----


def stage(percent):
    return f"{HIT}.{percent}"


STAGES = tuple(map(stage, (1, 10, 50)))


def adding(*stages, ended=()):
    written = [f"fsync D/W/{stage(each)}" for each in stages]
    added = [step for each in stages for step in (f"rename D/W/{stage(each)}, D/{stage(each)}", "fsync D")]
    return [*written, *ended, *added]


def ending(*stages):
    return [step for each in stages for step in (f"unlink D/{stage(each)}", "fsync D")]


def candidate(id, percent):
    def prepare(own, upstream):
        own.publish_small("old")
        assert own.publish(id, "--percent", str(percent))[0] == 0

    return prepare


def beginning(prepare, *words, ended=()):
    return replace(
        COMMANDS["publish"],
        words=lambda own, root: own.publishing("new", "--percent", "10", *words, root=root),
        prepare=prepare,
        work=["archive", "info", stage(1), stage(10)],
        others=STAGES,
        steps=[*COMMANDS["publish"].steps[:-3], *adding(1, 10, ended=ended)],
        stop=(f"{WORK}/{stage(1)}", "openat"),
    )


def going_on(percent, word, work, steps, stop, *others):
    return Command(
        words=lambda own, root: ["rollout", root, word],
        prepare=candidate("new", percent),
        work=work,
        archive=cab("new"),
        others=(*STAGES, *others),
        steps=steps,
        states=4,
        stop=stop,
    )


COMMANDS |= {
    "start": beginning(COMMANDS["publish"].prepare),
    "replace": beginning(candidate("other", 50), "--replace", ended=ending(50, 10, 1)),
    "advance": going_on(1, "50", [stage(10), stage(50)], adding(10, 50), (f"{WORK}/{stage(10)}", "openat")),
    "finish": going_on(10, "100", ["hit"], [*FINAL_STEPS, *ending(10, 1)], (f"{WORK}/hit", "openat")),
    "withdraw": going_on(
        *(10, "withdraw", [], ["fsync D", f"fsync D/{HELD}", *ending(10, 1)], (stage(10), "unlink")),
        *(HELD, f"{HELD}/{info_name('new')}"),
    ),
}
ZSTD = replace(
    COMMANDS["publish"],
    words=lambda own, root: own.publishing("new", "--format", "zstd", root=root),
    archive="antivir-v2-c-new.zip.zst",
)


class Campaign:
    """Runs a command on copies of a mirror, with strace between it and the mirror."""

    def __init__(self, name, own, every=False):
        self.command = ZSTD if name == "zstd" else COMMANDS[name]
        self.own = own
        self.every = every
        self.command.prepare(own, own.upstream)
        self.copies = itertools.count()

    def copy(self):
        return self.own.copied_to(self.own.base / f"copy-{next(self.copies)}")

    def traced(self, mirror, *options, log="/dev/null"):
        """Runs the command while strace sees to the calls that name or use something on the mirror."""
        work = [f"{WORK}/{name}" for name in ("", *self.command.work)]
        names = {*self.own.files(), HIT, info_name("new"), self.command.archive, *work, *self.command.others}
        top = [mirror.root, mirror.root / "rhex", mirror.root / "rhex/deffiles", mirror.directory]
        paths = [word for path in (*top, *map(mirror.path, sorted(names))) for word in ("-P", path)]
        prefix = ["strace", "-D", "-y", "-o", log, *options, *paths]
        return run(*self.command.words(self.own, mirror.root), prefix=prefix, env=under_strace())

    def calls(self, mirror, *options, shown="all"):
        """The result of a run, and its calls as lines, less what strace itself says."""
        log = self.own.base / "calls"
        result = self.traced(mirror, "-e", f"trace={shown}", *options, log=log)
        return result, re.findall(r"^(?:\d+ +)?([a-z]\w*\(.*)", log.read_text(), re.MULTILINE)

    def numbers(self, count):
        """Which calls of a kind: all when every one is wanted. Of more than 24 about 16, and the last 8."""
        step = 1 if self.every or count <= 24 else count // 16
        return sorted({*range(1, count + 1, step), *range(max(1, count - 7), count + 1)})

    def interfere(self, how, names, judge, *follow):
        """Does it at each of the calls that names() chooses, on a fresh copy each; returns at how many. Of the first
        process, unless "-f" makes strace follow the others: then at the call of that number in each of them."""
        reference = self.copy()
        (code, _, _), lines = self.calls(reference, *follow)
        assert code == 0
        calls = [line.split("(")[0] for line in lines]
        points = [(name, number) for name in names({*calls}) for number in self.numbers(calls.count(name))]

        def run_one(point):
            mirror = self.copy()
            result = self.traced(mirror, *follow, "-e", f"inject={point[0]}:{how}:when={point[1]}")
            judge(mirror, result, reference.tree())
            shutil.rmtree(mirror.root)

        with ThreadPoolExecutor(4) as pool:
            list(pool.map(run_one, points))
        return len(points)


@pytest.fixture
def own(copy):
    """With an upstream, and with small definition files, which take few calls to write."""
    copy.antivir.write_text("antivir\n")
    copy.aivsecon.write_text("aivsecon\n")
    return copy


def without_work(files):
    return {name: what for name, what in files.items() if WORK not in name and REPLACED not in name}


def expect_whole(mirror):
    """Clients find a release, and every INI its archive."""
    code, out, err = mirror.check()  # of the candidate, too
    assert (code, err) == (0, ""), out
    stages = sorted(mirror.directory.glob(f"{HIT}.*"))
    assert [path.name for path in stages] == [*STAGES][: len(stages)]
    assert len({path.read_bytes() for path in stages}) <= 1
    for path in mirror.directory.glob("antivir-v2-c-*.ini"):
        archive = re.search(r"def.Current.name *= *(\S+)", path.read_text())[1]
        assert mirror.path(archive).exists(), f"{path.name} names {archive}, which is gone"


def some_long(names, *long):
    """The long ones are made of steps of others."""
    return [pytest.param(name, marks=[pytest.mark.long] * (name in long)) for name in names]


@pytest.mark.parametrize("name", some_long(COMMANDS, "start", "replace", "deltas", "whole"))
def test_kill_at_any_call_leaves_a_whole_release(own, name, request, record_property):
    """And the next run heals all that is left."""
    every = request.config.getoption("--all")
    campaign = Campaign(name, own, every)
    healed = set()

    def judge(mirror, result, whole):
        assert result[0] == -signal.SIGKILL
        left = frozenset(mirror.tree().items())
        if left in healed:  # another kill has left just the same
            return
        if not campaign.command.damaged:
            expect_whole(mirror)
        code, out, err = run(*campaign.command.words(own, mirror.root))
        rest = re.sub("zqu-mirror: warning: downloaded the whole archive of new, .*\n", "", err)
        assert (code, rest) == (0, "") or err.startswith("zqu-mirror: there is no rollout, and ")  # it was complete
        assert without_work(mirror.tree()) == without_work(whole)
        assert not mirror.path(WORK).exists() or out.startswith("nothing new")
        healed.add(left)

    kills = campaign.interfere("signal=KILL", lambda calls: calls if every else calls - HARMLESS, judge)
    assert len(healed) >= campaign.command.states
    record_property("kills_of_zqu_mirror", kills)


@pytest.mark.parametrize(
    "name", some_long(["publish", "zstd", "mirror", "activate", "plain", "deltas", "whole"], "deltas", "whole")
)
def test_no_room_at_any_call_leaves_the_mirror_untouched(own, name, request, record_property):
    campaign = Campaign(name, own, request.config.getoption("--all"))
    before = own.tree()
    codes, said = [], []

    def judge(mirror, result, whole):
        code, out, err = result
        if code == 0 and "warning: there is no delta from base: " in err:
            expect_whole(mirror)
        elif code == 0:  # a call whose failure does no harm, such as the removal of a temporary
            assert without_work(mirror.tree()) == whole
        elif err.startswith("zqu-mirror: new is published, but a power cut might undo that: "):
            assert mirror.tree() == whole
        else:
            assert (code, out) == (1, "")
            assert re.fullmatch("(zqu-mirror: [^\n]+\n){1,2}", err)
            assert mirror.tree() == before
        codes.append(code)
        said.append(err)

    failures = campaign.interfere("error=ENOSPC", lambda calls: calls & {*FAILING}, judge)
    if name in ("publish", "zstd"):  # another process packs
        failures += campaign.interfere("error=ENOSPC", lambda calls: {"write"}, judge, "-f")
    assert codes.count(1) > campaign.command.states
    writing = "( cannot write the file:| Error writing to file:)?"
    written = rf"zqu-mirror: cannot write the archive:{writing} No space left on device\n"
    assert name in ("activate", "deltas", "plain") or re.search(written, "".join(said))
    record_property("failed_calls_of_zqu_mirror", failures)


@pytest.mark.parametrize("name", COMMANDS)
def test_each_step_is_on_disk_before_the_next(own, name):
    """The hit INI comes last, and an archive goes after its INI."""
    campaign = Campaign(name, own)
    _, lines = campaign.calls(own, shown="fsync,rename,unlink")
    text = "\n".join(lines).replace(str(own.directory), "D").replace(WORK, "W").replace('"', "")
    text = re.sub(r"[0-9a-f]{12}(?=\.delta)", "DIGEST", text)
    text = re.sub(rf"D/{REPLACED}/[^/]+", "R", text)
    steps = re.findall(r"^(\w+)\((?:\d+<)?(.*?)>?\) += 0$", text, re.MULTILINE)
    done = [f"{call} {what}" for call, what in steps]
    assert [step for step in done if not step.startswith("unlink D/W")] == campaign.command.steps


def test_failed_publish_undoes_its_work_under_the_lock(own):
    campaign = Campaign("publish", own)
    before = own.tree()
    shown = "flock,close,unlink,unlinkat,rmdir,rename"
    result, lines = campaign.calls(own, "-e", "inject=rename:error=EIO:when=3", shown=shown)  # of the hit INI
    assert result[0] == 1
    assert own.tree() == before
    taken = next(number for number, line in enumerate(lines) if line.startswith("flock("))
    descriptor = re.match(r"flock\((\d+)<", lines[taken])[1]
    closing = f"close({descriptor}<"
    given_up = next(number for number, line in enumerate(lines) if number > taken and line.startswith(closing))
    undone = [number for number, line in enumerate(lines) if line.startswith(("unlink", "rmdir"))]
    assert len(undone) >= 3 and max(undone) < given_up


# What fails, with the line on standard error, the releases that were removed before, and the files that are gone.
PRUNE_FAILURES = {
    "unlink:error=EPERM:when=3": (
        f"cannot remove {{}}/{info_name(2)}: Operation not permitted",
        "1",
        {info_name(1), cab(1)},
    ),
    "fsync:error=EIO:when=1": ("cannot flush {}: Input/output error", "", {info_name(1)}),
}


@pytest.mark.parametrize("injection", PRUNE_FAILURES)
def test_failed_removal_ends_a_prune_and_the_rest_stays(own, injection):
    campaign = Campaign("prune", own)
    line, removed, gone = PRUNE_FAILURES[injection]
    before = own.files()
    code, out, err = campaign.traced(own, "-e", f"inject={injection}")
    assert (code, err) == (1, f"zqu-mirror: {line.format(own.directory)}\n")
    assert re.findall(r"^removed (\d):", out, re.MULTILINE) == [*removed]
    assert own.files() == sorted({*before} - gone)


def test_start_that_fails_halfway_keeps_what_gateways_take(own):
    campaign = Campaign("start", own)
    code, out, err = campaign.traced(own, "-e", "inject=rename:error=ENOSPC:when=4")  # of the second stage file
    assert (code, out) == (1, "")
    assert err.startswith("zqu-mirror: new is the candidate for 1 per cent, but not all is done: cannot create ")
    assert own.path(stage(1)).exists()
    expect_whole(own)


@pytest.mark.parametrize("number", SIGNALS)
@pytest.mark.parametrize("name", ["publish", "mirror"])
def test_signal_ends_the_run_and_the_mirror_is_untouched(own, name, number):
    command = COMMANDS[name]
    command.prepare(own, own.upstream)
    where = command.work[[*SIGNALS].index(number)]
    before = own.seen()
    with own.stopped(command.words(own, own.root), f"{WORK}/{where}") as stopped:
        assert own.path(WORK).exists()
        assert stopped.finish(number) == (128 + number, "", f"zqu-mirror: ended by signal: {SIGNALS[number]}\n")
    assert own.seen() == before


@pytest.mark.parametrize("number", SIGNALS)
def test_signal_that_is_ignored_at_the_start_stays_ignored(own, number):
    """As nohup(1) and the background jobs of some shells begin."""
    own.publish_small("old")
    command = ["env", f"--ignore-signal={int(number)}", run.path, *own.publishing("new")]
    with Stopped(command, own.path(f"{WORK}/hit")) as stopped:
        code, out, err = stopped.finish(number)
        assert (code, out.startswith("published new: "), err) == (0, True, "")
    others = [other for other in SIGNALS if other != number]
    with Stopped([*command[:-4], "next", *command[-3:]], own.path(f"{WORK}/hit")) as stopped:
        assert stopped.finish(others[0])[0] == 128 + others[0]


def test_signal_ends_the_first_publish_and_nothing_is_left(own):
    with own.stopped(own.publishing("new"), f"{WORK}/hit") as stopped:
        assert stopped.finish(signal.SIGTERM)[0] == 128 + signal.SIGTERM
    assert not own.root.exists()


def test_signal_ends_a_prune_between_two_releases(own):
    command = COMMANDS["prune"]
    command.prepare(own, own.upstream)
    line = own.removed("1")
    with own.stopped(command.words(own, own.root), cab("1"), "unlink") as stopped:
        assert stopped.finish(signal.SIGTERM)[:2] == (128 + signal.SIGTERM, line)
    assert own.files() == own.files_of("2", "3", "4")


@pytest.mark.parametrize("name", COMMANDS)
def test_second_run_is_refused_while_one_is_at_work(own, name):
    for prepared in ("trust", "prune", name):
        COMMANDS[prepared].prepare(own, own.upstream)
    refused = (1, "", f"zqu-mirror: another run is at work in {own.directory}\n")
    with own.stopped(COMMANDS[name].words(own, own.root), *COMMANDS[name].stop) as first:
        for second in (*COMMANDS, "prune --dry-run"):
            if second in ("mirror", "plain", "whole") and own.path(stage(1)).exists():
                continue  # it waits for the end of the rollout, without the lock
            words = COMMANDS[second.split()[0]].words(own, own.root) + second.split()[1:]
            assert run(*words) == refused, second
        assert first.finish()[0] == 0
    assert own.publish("third", "--replace")[0] == 0

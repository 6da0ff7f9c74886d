"""The daemon beside its model: random histories of an operator, a mirror, a disk and crashes, in which every run has to
do exactly what the model says: to every file, to the log, and in its exit status.

After a failure Hypothesis prints the shortest history that it finds. The seed that is printed too replays it."""

import collections
import contextlib
import functools
import itertools
import os
import random
import re
import shutil
import signal
import subprocess
import time

import hypothesis
import hypothesis.strategies as st
import model
import model_mirror
import pytest
from gateway import Gateway, may_mount
from hypothesis.stateful import RuleBasedStateMachine, rule, run_state_machine_as_test
from mirrors import Mirror
from model_disk import DIRECTORY, Broken, Disk, Link, differences, scan

SEED = 1  # of the short form
CLOCK_REALTIME_COARSE = 5  # of time(2); Python has no name for it
STRACE = ["strace", "-f", "-qq", "-o", "/dev/null"]

VERSIONS = ["1001", "1002", "1003", "1004", "v1a", "V1A", "é.b-\"1\\'"]
SETTINGS = {
    "mirror_base_url": ["{url}", "{url}//", "{closed}", ""],
    "mirror_subdir": ["{subdir}", "//{subdir}//", "", "elsewhere"],
    "flavor": ["v2", "v3", ""],
    "engine_version": ["engine 7", 'a "b" \\ c', "a\tb", "é \x01", ""],
    "def_root": ["{folder}/defs", "{folder}/defs/", "{folder}/other/deep"],
    "status_path": [
        "{folder}/status/status.json",
        "{folder}/defs/manifest/status.json",
        "{folder}/new/deep/status.json",
        "{folder}/status",
        "{folder}/status/status.json/below",
        "",
    ],
    "retained_snapshots": ["3", "0", "1", "2", "5", "4294967295", "2147483651", "-1", "4294967298", "+1x"],
}
MALFORMED = ["", "x3", "18446744073709551616", "-"]
STYLES = {
    "plain": "{key} = {value}\n",
    "tight, with unknown keys": "{key}={value}\n#{key}=#\n{KEY}=unknown\n[section]\nno setting\n",
    "CRLF, each key twice": "\t{key} = 1\r\n {key}\t=  {value}\t\r\n",
}
PLACES = ["active", "active.tmp", "snapshots/note", "snapshots/.hidden", "snapshots/1000", "snapshots/{id}"]
STAGED = ["{id}.archive.part", "{id}.archive", "antivir-v2.def", "aivsecon-v2.def", "antivir-v2.ini", "sub", "old"]
STAGED_PLACES = ["snapshots/{id}", *(f"snapshots/{{id}}/{name}" for name in STAGED)]
THINGS = {
    "nothing": None,
    "a file": b"a leftover\n",
    "a directory": DIRECTORY,
    "a full directory": DIRECTORY,
    "a link to a snapshot": Link("snapshots/1001"),
    "a link to its neighbour": Link("1001"),
    "a link to a directory elsewhere": Link("../elsewhere/1002"),
    "a link with a slash": Link("snapshots/1003/"),
    "a dangling link": Link("/nowhere/1002"),
    "a link to itself": Link("{name}"),
}
TIMES = {"ancient": 10**18, "old": 10**18 + 1, "in the future": 4 * 10**18}
# The system calls that a run is killed at, as often as an update makes them.
CALLS = {
    **{"mkdir": 3, "rename": 2, "symlink": 1, "write": 10, "fsync": 6, "unlink": 6, "unlinkat": 6, "rmdir": 3},
    **{"getdents64": 8, "fchmod": 4, "fcntl": 16, "recvfrom": 22},
}
KILLS = [f"{call}:{number}" for call, last in CALLS.items() for number in range(1, last + 1)]

# What has to come about, so that neither the model nor the histories become idle unnoticed.
KINDS = (
    "published; current; pruned; defId fetch failed; complete-info fetch failed; download CAB; CAB sha256 mismatch; "
    "CAB extract; CAB missing; sha256 mismatch; publish/flip failed; part not created; staged in a directory that was "
    "there; status not written; aborted by a malformed number; configuration unreadable; killed halfway; looped"
).split("; ")
RARE_KINDS = (
    "part not renamed; entry in whose way a directory is; exception while staging; exception while pruning; published "
    "without a digest; left a directory in a snapshot; link not made; link not renamed; pruned a link; pruned one of "
    "equal age; spared the one in service"
).split("; ")
FULL_DISK_KINDS = ["disk full in the download"]

versions = st.sampled_from(VERSIONS)
containers = st.sampled_from(["cab", "zip"])
flaws = st.one_of(*map(st.sampled_from, model_mirror.FLAWS))
things = st.sampled_from(list(THINGS))
kills = st.sampled_from(KILLS)


def place_thing(path, thing):
    node = THINGS[thing]
    if node is DIRECTORY:
        path.mkdir()
    elif isinstance(node, Link):
        path.symlink_to(node.target.format(name=path.name))
    elif node is not None:
        path.write_bytes(node)
    if thing == "a full directory":
        (path / "inside").mkdir()
    if thing == "a link to a directory elsewhere":
        (path.parent / "../elsewhere/1002").resolve().mkdir(parents=True, exist_ok=True)


def changes(before, after):
    """Whether anything below a key changed, as a function of the key."""

    def part(nodes, key):
        return {name: node for name, node in nodes.items() if f"{name}/".startswith(f"{key}/")}

    return lambda key: part(before, key) != part(after, key)


class Bench:
    """What the histories of one test share. Each of them gets the same paths, emptied."""

    def __init__(self, folder, nginx, closed_port, disk):
        self.folder = folder
        self.nginx = nginx
        self.closed = f"https://localhost:{closed_port}"
        self.disk = disk  # a small file system, or None
        self.machine = (disk or folder) / "machine"
        self.seen = collections.Counter()

    @contextlib.contextmanager
    def filled(self):
        """Leaves no block free where the machine is."""
        room = os.statvfs(self.disk)
        with open(self.disk / "filler", "wb") as filler:
            os.posix_fallocate(filler.fileno(), 0, room.f_bfree * room.f_bsize)
        assert os.statvfs(self.disk).f_bfree == 0
        try:
            yield
        finally:
            (self.disk / "filler").unlink()


class Gateways(RuleBasedStateMachine):
    """One gateway and its mirror, the model of both, and whatever may happen to them."""

    def __init__(self, bench):
        super().__init__()
        self.bench = bench
        bench.machine.mkdir()
        self.mirror = Mirror(bench.nginx.root, "model")
        self.model_mirror = model_mirror.ModelMirror(self.mirror, bench.nginx.url(), bench.folder / "scratch")
        self.gateway = Gateway(bench.folder)
        self.disk = Disk(bench.machine)
        self.settings = {key: values[0] for key, values in SETTINGS.items()}
        self.style = "plain"
        self.seconds = range(0)  # in which the latest run was
        self.take_over()

    def teardown(self):
        shutil.rmtree(self.bench.machine)
        shutil.rmtree(self.mirror.folder)
        self.gateway.take_log()

    # The mirror's operator

    @rule(version=versions, container=containers, flaws=st.lists(flaws, max_size=2, unique=True))
    def publish(self, version, container, flaws):
        self.model_mirror.publish(version, flaws, container, self.settings["flavor"])

    @rule(version=versions, hit=st.sampled_from(list(model_mirror.HITS)))
    def announce(self, version, hit):
        """Announces a release that may be on the mirror, or not."""
        self.model_mirror.announce(version, hit, self.settings["flavor"])

    @rule(name=st.sampled_from(["antivir-{flavor}-hit.ini", "antivir-{flavor}-c-{id}.ini", "{id}.archive"]))
    def take_from_the_mirror(self, name):
        self.model_mirror.remove(name.format(flavor=self.settings["flavor"], id=self.model_mirror.announced))

    @rule(version=versions, container=containers)
    def update(self, version, container):
        """A good release, on a mirror that can be reached, and a run that finds it."""
        self.update_with_flaws(version, container, [])

    @rule(version=versions, container=containers, flaws=st.lists(flaws, min_size=1, max_size=2, unique=True))
    def update_with_flaws(self, version, container, flaws):
        self.reach_the_mirror()
        self.publish(version, container, flaws)
        self.run_once()

    # The gateway's operator

    @rule(setting=st.sampled_from([(key, value) for key, values in SETTINGS.items() for value in values]))
    def configure(self, setting):
        key, value = setting
        self.settings[key] = value

    @rule(retained=st.sampled_from(SETTINGS["retained_snapshots"]))
    def retain(self, retained):
        self.settings["retained_snapshots"] = retained

    @rule(style=st.sampled_from(list(STYLES)))
    def mend_the_configuration(self, style):
        """Back to settings with which updates work, but for the number of snapshots to keep."""
        self.settings.update((key, values[0]) for key, values in SETTINGS.items() if key != "retained_snapshots")
        self.style = style

    @rule(place=st.sampled_from(PLACES), version=versions, thing=things)
    def plant(self, place, version, thing):
        """Puts something below the definitions root, or takes it away."""
        path = self.root / place.format(id=version)
        if not os.path.lexists(path.parent):
            path.parent.mkdir(parents=True)
        if path.is_symlink() or path.is_file():
            path.unlink()
        elif path.is_dir():
            shutil.rmtree(path)
        if path.parent.is_dir():
            place_thing(path, thing)
        self.take_over()

    @rule(place=st.sampled_from(STAGED_PLACES), thing=things, version=versions, container=containers)
    def update_over_a_leftover(self, place, thing, version, container):
        self.plant(place, version, thing)
        self.update(version, container)

    @rule(place=st.sampled_from(["active", "active.tmp"]), thing=things, version=versions, container=containers)
    def update_over_a_leftover_link(self, place, thing, version, container):
        self.plant(place, version, thing)
        self.update(version, container)

    @rule(times=st.lists(st.sampled_from(list(TIMES)), min_size=1, max_size=3))
    def age_the_snapshots(self, times):
        """Sets when the snapshots changed last, in the order of their names."""
        for path, when in zip(sorted((self.root / "snapshots").glob("*")), itertools.cycle(times)):
            if path.is_dir():
                os.utime(path, ns=(TIMES[when], TIMES[when]))
        self.take_over()

    # Runs

    @rule()
    def run_once(self):
        self.run()

    @rule(slices=st.integers(1, 40), jitter=st.sampled_from([0, 1]))
    def run_the_loop(self, slices, jitter):
        """Every second of a wait passes at once, and one of them brings SIGTERM."""
        self.run_for_long({"slices": slices}, jitter, ZQU_SLEEPS=str(slices))

    @rule(cycles=st.sampled_from([0, 1]))
    def stop_the_loop(self, cycles):
        """SIGTERM comes before the first cycle, or with its first transfer."""
        call = "curl_easy_perform" if cycles else "curl_global_init"
        self.run_for_long({"cycles": cycles}, 0, ZQU_FAULT=f"{call}:1:term")

    @rule(version=versions, container=containers, kill=kills)
    def kill_an_update(self, version, container, kill):
        self.reach_the_mirror()
        self.publish(version, container, [])
        self.run_and_kill(kill)

    @rule(kill=kills)
    def run_and_kill(self, kill):
        """SIGKILL at the n-th call of its kind, if the run comes to that."""
        call, number = kill.split(":")
        injection = f"inject={call}:signal=KILL:when={number}"
        self.run(prefix=[*STRACE, "-e", f"trace={call}", "-e", injection])

    @rule(number=st.sampled_from([None, *MALFORMED]))
    def run_with_a_bad_configuration(self, number):
        """A malformed number, or no file at all: then the defaults must not be acted on, on this machine."""
        if number is not None:
            return self.run({**self.settings, "http_timeout_s": number})
        self.run(
            end={"cycles": 0},
            unreadable=True,
            prefix=[*STRACE, "-e", "inject=mkdir:error=EACCES"],
            calls=True,
            ZQU_FAULT="curl_global_init:1:term",
        )
        self.see("configuration unreadable")

    @rule(large=st.booleans(), version=versions)
    def update_on_a_full_disk(self, large, version):
        self.publish(version, "zip", ["large"] if large else [])
        if self.bench.disk is None:
            return self.run()
        with self.bench.filled():
            self.run(free=0)

    def run_for_long(self, end, jitter, **environment):
        # With a shorter interval a cycle that keeps throwing would come to wait no more, and never end.
        settings = {**self.settings, "poll_interval_s": "8", "poll_jitter_s": str(jitter)}
        self.run(settings, end, calls=True, **environment)
        self.see("looped")

    def reach_the_mirror(self):
        self.settings.update((key, SETTINGS[key][0]) for key in ("mirror_base_url", "mirror_subdir"))

    # The comparison

    @property
    def root(self):
        return self.bench.machine / self.settings["def_root"].removeprefix("{folder}/")

    def see(self, kind, count=1):
        self.bench.seen[kind] += count
        hypothesis.event(kind)

    def take_over(self):
        """Goes on from what there is."""
        self.disk.nodes, self.times = scan(self.bench.machine)

    def configuration(self, settings):
        names = {
            "url": self.bench.nginx.url(),
            "closed": self.bench.closed,
            "subdir": self.mirror.subdir,
            "folder": self.bench.machine,
        }
        text = f"ca_path = {self.bench.nginx.ca_path}\n"
        for key, value in settings.items():
            text += STYLES[self.style].format(key=key, KEY=key.upper(), value=value.format(**names))
        return text

    def run(self, settings=None, end=None, unreadable=False, free=None, **options):
        """Runs the daemon and the model, for one cycle or for a loop to that end, and compares what they have done."""
        text = None if unreadable else self.configuration(settings or self.settings)
        path = self.bench.folder / "updater.conf"
        path.unlink(missing_ok=True)
        if not unreadable:
            path.write_text(text, newline="")
        before, times = self.disk.nodes, self.times
        start = time.clock_gettime(CLOCK_REALTIME_COARSE)
        process = self.gateway.run("--config", path, *([] if end else ["--once"]), **options)
        self.seconds = range(int(start), int(time.clock_gettime(CLOCK_REALTIME_COARSE)) + 1)
        lines = [line for line in self.gateway.take_log() if re.match("(err|warning|info|nanosleep) ", line)]
        real, self.times = scan(self.bench.machine)
        daemon = model.Daemon(self.disk, self.model_mirror, times, changes(before, real))
        self.disk.begin(before, free)
        status = daemon.loop(path, text, **end) if end else daemon.once(path, text)
        if process.returncode in (-signal.SIGKILL, 128 + signal.SIGKILL):
            return self.find_in_history(real, lines)
        for kind, count in (+daemon.seen).items():
            self.see(kind, count)
        assert lines == self.disk.lines
        assert process.returncode == status
        wrong = differences(self.disk.nodes, real, self.same)
        assert not wrong, f"expected and came: {wrong}\nthe files are in {self.bench.machine}"
        assert process.stdout == ""
        assert (process.stderr == "") == (status == 0)
        self.disk.nodes = real

    def same(self, expected, real):
        """Whether a node is as expected; the time of the check lies within that of the run."""
        if isinstance(expected, bytes) and isinstance(real, bytes) and model.NOW.encode() in expected:
            found = re.search(rb'"last_check_epoch": (\d+)', real)
            if found and int(found[1]) in self.seconds:
                expected = expected.replace(model.NOW.encode(), found[1])
        if isinstance(expected, Broken) and isinstance(real, bytes):
            return expected.allows(real)
        return expected == real

    def find_in_history(self, real, lines):
        """The run was killed at one of the moments that the model went through."""
        found = [state for state in self.disk.history if state.allows(real, lines, self.same)]
        assert found, f"no moment of the run has this log and this disk: {lines} {real}"
        first, last = self.disk.history[0], self.disk.history[-1]
        self.see("killed halfway" if first not in found and last not in found else "killed before or after")
        self.disk.nodes = real


@pytest.fixture
def small_disk(tmp_path):
    """A file system that can be filled; none without the right to mount one."""
    if not may_mount():
        yield None
        return
    folder = tmp_path / "disk"
    folder.mkdir()
    subprocess.run(["mount", "-t", "tmpfs", "-o", "size=4m", "tmpfs", folder], check=True)
    yield folder
    subprocess.run(["umount", folder], check=True)


@pytest.fixture
def bench(tmp_path, nginx, closed_port, small_disk):
    return Bench(tmp_path, nginx, closed_port, small_disk)


@pytest.mark.parametrize(
    "form, examples",
    [
        ("short", 40),
        pytest.param("long", 250, id="long-1", marks=pytest.mark.long),
        pytest.param("long", 250, id="long-2", marks=pytest.mark.long),
    ],
)
def test_daemon_does_what_the_model_says(request, bench, form, examples, record_property):
    """The short form always runs the same histories; the long one new ones each time, in two halves for two workers."""
    given = request.config.getoption("--hypothesis-seed", None)
    seed = int(given or (SEED if form == "short" else random.getrandbits(32)))
    print(f"to be replayed with --hypothesis-seed={seed}")
    settings = hypothesis.settings(
        max_examples=examples,
        stateful_step_count=30,
        deadline=None,
        database=None,
        print_blob=False,
        suppress_health_check=list(hypothesis.HealthCheck),
    )
    run_state_machine_as_test(hypothesis.seed(seed)(functools.partial(Gateways, bench)), settings=settings)
    print(*(f"{count:6} {kind}" for kind, count in sorted(bench.seen.items())), sep="\n")
    record_property("cycles_beside_the_model", bench.seen["cycles"])
    assert bench.seen["cycles"] >= (2500 if form == "long" else 300)
    kinds = KINDS + (RARE_KINDS if form == "long" else []) + (FULL_DISK_KINDS if bench.disk else [])
    assert [kind for kind in kinds if not bench.seen[kind]] == []

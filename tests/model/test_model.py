"""The daemon beside its model: random histories of an operator, a mirror and a disk, in which every run has to do
exactly what the model says: to every file, to the log, and in its exit status.

After a failure Hypothesis prints the shortest history that it finds. The seed that is printed too replays it."""

import collections
import functools
import itertools
import os
import pathlib
import random
import re
import shutil
import tempfile
import time

import hypothesis
import hypothesis.strategies as st
import model
import model_mirror
import pytest
from gateway import Gateway
from hypothesis.stateful import RuleBasedStateMachine, rule, run_state_machine_as_test
from mirrors import Mirror
from model_disk import DIRECTORY, Disk, Link, differences, scan

SEED = 1  # of the short form
CLOCK_REALTIME_COARSE = 5  # of time(2); Python has no name for it
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
    "retained_snapshots": ["3", "0", "1", "2", "5", "4294967295", "2147483651"],
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

# What has to come about, so that neither the model nor the histories become idle unnoticed.
KINDS = (
    "published; current; pruned; defId fetch failed; complete-info fetch failed; download CAB; CAB sha256 mismatch; "
    "CAB extract; CAB missing; sha256 mismatch; publish/flip failed; part not created; staged in a directory that was "
    "there; status not written"
).split("; ")
RARE_KINDS = (
    "part not renamed; entry in whose way a directory is; exception while staging; exception while pruning; published "
    "without a digest; left a directory in a snapshot; link not made; link not renamed; pruned a link; pruned one of "
    "equal age; spared the one in service"
).split("; ")

versions = st.sampled_from(VERSIONS)
flaws = st.sampled_from(model_mirror.FLAWS)
things = st.sampled_from(list(THINGS))


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

    def __init__(self, folder, nginx, closed_port):
        self.folder = folder
        self.nginx = nginx
        self.closed = f"https://localhost:{closed_port}"
        self.machine = folder / "machine"
        self.seen = collections.Counter()


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
        self.seconds = range(0)  # in which the latest run was
        self.take_over()

    def teardown(self):
        shutil.rmtree(self.bench.machine)
        shutil.rmtree(self.mirror.folder)
        self.gateway.take_log()

    # The mirror's operator

    @rule(version=versions, flaws=st.lists(flaws, max_size=2, unique=True))
    def publish(self, version, flaws):
        self.model_mirror.publish(version, flaws, self.settings["flavor"])

    @rule(version=versions, hit=st.sampled_from(list(model_mirror.HITS)))
    def announce(self, version, hit):
        """Announces a release that may be on the mirror, or not."""
        self.model_mirror.announce(version, hit, self.settings["flavor"])

    @rule(name=st.sampled_from(["antivir-{flavor}-hit.ini", "antivir-{flavor}-c-{id}.ini", "{id}.archive"]))
    def take_from_the_mirror(self, name):
        self.model_mirror.remove(name.format(flavor=self.settings["flavor"], id=self.model_mirror.announced))

    @rule(version=versions)
    def update(self, version):
        """A good release, on a mirror that can be reached, and a run that finds it."""
        self.update_with_flaws(version, [])

    @rule(version=versions, flaws=st.lists(flaws, min_size=1, max_size=2, unique=True))
    def update_with_flaws(self, version, flaws):
        self.settings.update((key, SETTINGS[key][0]) for key in ("mirror_base_url", "mirror_subdir"))
        self.publish(version, flaws)
        self.run()

    # The gateway's operator

    @rule(setting=st.sampled_from([(key, value) for key, values in SETTINGS.items() for value in values]))
    def configure(self, setting):
        key, value = setting
        self.settings[key] = value

    @rule(retained=st.sampled_from(SETTINGS["retained_snapshots"]))
    def retain(self, retained):
        self.settings["retained_snapshots"] = retained

    @rule()
    def mend_the_configuration(self):
        """Back to settings with which updates work, but for the number of snapshots to keep."""
        self.settings.update((key, values[0]) for key, values in SETTINGS.items() if key != "retained_snapshots")

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

    @rule(place=st.sampled_from(STAGED_PLACES), thing=things, version=versions)
    def update_over_a_leftover(self, place, thing, version):
        self.plant(place, version, thing)
        self.update(version)

    @rule(place=st.sampled_from(["active", "active.tmp"]), thing=things, version=versions)
    def update_over_a_leftover_link(self, place, thing, version):
        self.plant(place, version, thing)
        self.update(version)

    @rule(times=st.lists(st.sampled_from(list(TIMES)), min_size=1, max_size=3))
    def age_the_snapshots(self, times):
        """Sets when the snapshots changed last, in the order of their names."""
        for path, when in zip(sorted((self.root / "snapshots").glob("*")), itertools.cycle(times)):
            if path.is_dir():
                os.utime(path, ns=(TIMES[when], TIMES[when]))
        self.take_over()

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

    @rule()
    def run(self):
        """Runs the daemon and the model for one cycle, and compares what they have done."""
        names = {
            "url": self.bench.nginx.url(),
            "closed": self.bench.closed,
            "subdir": self.mirror.subdir,
            "folder": self.bench.machine,
        }
        settings = {key: value.format(**names) for key, value in self.settings.items()}
        self.gateway.settings = {"ca_path": self.bench.nginx.ca_path, **settings}
        before, times = self.disk.nodes, self.times
        start = time.clock_gettime(CLOCK_REALTIME_COARSE)
        process = self.gateway.run("--config", self.gateway.config_path, "--once")
        self.seconds = range(int(start), int(time.clock_gettime(CLOCK_REALTIME_COARSE)) + 1)
        lines = self.gateway.take_log()
        real, self.times = scan(self.bench.machine)
        daemon = model.Daemon(self.disk, self.model_mirror, times, changes(before, real))
        self.disk.begin(before)
        status = daemon.once(settings)
        for kind, count in (+daemon.seen).items():
            self.see(kind, count)
        assert lines == self.disk.lines
        assert process.returncode == status
        wrong = differences(self.disk.nodes, real, self.same)
        assert not wrong, f"expected and came: {wrong}"
        assert process.stdout == ""
        assert (process.stderr == "") == (status == 0)
        self.disk.nodes = real

    def same(self, expected, real):
        """Whether a node is as expected; the time of the check lies within that of the run."""
        if isinstance(expected, bytes) and isinstance(real, bytes) and model.NOW.encode() in expected:
            found = re.search(rb'"last_check_epoch": (\d+)', real)
            if found and int(found[1]) in self.seconds:
                expected = expected.replace(model.NOW.encode(), found[1])
        return expected == real


@pytest.fixture
def bench(nginx, closed_port):
    """In memory: each file is flushed, which takes its time on a disk."""
    with tempfile.TemporaryDirectory(dir="/dev/shm", prefix="zqu-") as folder:
        yield Bench(pathlib.Path(folder), nginx, closed_port)


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
    kinds = KINDS + (RARE_KINDS if form == "long" else [])
    assert [kind for kind in kinds if not bench.seen[kind]] == []

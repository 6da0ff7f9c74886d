"""A model of the daemon: what one run of it makes of a disk, a mirror and its settings, step by step.

It shares nothing with the daemon but what both are meant to do. Where the daemon's libraries have a say (the texts of
their errors, what an archive yields), the mirror's model knows it."""

import collections
import hashlib
import re
import time

from gateway import SETTINGS, STARTED, STOPPED
from model_disk import Disk, Link, scan
from outcomes import published, status_text
from release import definition_names

BLANKS = " \t\n\v\f\r"
NOW = "the time of the check"  # stands in the status file where the real one has a number
ABORTED = -6
TOO_MANY_LINKS = "filesystem error: status: Too many levels of symbolic links [{}]"  # libstdc++'s words


class Uncaught(Exception):
    """What the standard library throws in the daemon; the text is its what()."""


def ini(text):
    """The values of an INI without a key that stands twice."""
    pairs = (line.partition("=") for line in text.split("\n"))
    return {key.strip(BLANKS): value.strip(BLANKS) for key, equals, value in pairs if equals}


def decode(data):
    return data.decode(errors="surrogateescape")


class Pace:
    """The clock of a daemon under the pace shim, which every reading and every second of sleep moves on."""

    SLICE = "sleep 1 0 same"
    JITTER_FACTOR = 2654435761

    def __init__(self, pid, now):
        self.pid = pid
        self.now = now

    def jitter(self, now, limit):
        return (self.pid * self.JITTER_FACTOR + now) % limit


class Daemon:
    """One process of the daemon. Reads and changes the disk and its log.

    times has the last change of each directory before the run, in nanoseconds; the real outcome decides among
    snapshots of equal age only: touched says whether a key differs from before."""

    def __init__(self, disk, mirror, times=(), touched=lambda key: False, pace=None):
        self.disk = disk
        self.mirror = mirror
        self.times = dict(times)
        self.touched = touched
        self.pace = pace
        self.seen = collections.Counter()
        self.failures = 0

    def start(self, settings):
        """The entry and the constructors."""
        self.config = {key: type(value)(settings.get(key, value)) for key, value in SETTINGS.items()}
        if not self.config["mirror_base_url"]:
            self.disk.log("warning config: mirror_base_url is not set (the updater will idle, performing no checks)")
        elif not self.config["flavor"]:
            self.disk.log("warning config: flavor is not set")
        self.files = definition_names(self.config["flavor"])
        self.root = self.config["def_root"]
        self.disk.make_directories(f"{self.root}/snapshots")
        self.disk.make_directories(self.config["status_path"].rpartition("/")[0])

    def once(self, settings):
        """A run with --once; its exit status."""
        self.start(settings)
        try:
            self.cycle()
        except Uncaught:
            return ABORTED
        return 0

    def loop(self, settings, **end):
        """A run of the loop. SIGTERM comes after so many cycles or lines."""
        self.start(settings)
        self.begin_loop()
        while not self.stopped(end):
            self.check(end)
        self.disk.log(STOPPED)

    def begin_loop(self):
        self.disk.log(STARTED.format(self.config["poll_interval_s"], self.config["poll_jitter_s"]))

    def stopped(self, end):
        """Whether one of the numbers is reached."""
        past = {"lines": len(self.disk.lines), "cycles": self.seen["cycles"]}
        return any(past[kind] >= number for kind, number in end.items())

    def check(self, end={}):
        """One cycle in the loop, and the wait after it."""
        wait, limit = self.config["poll_interval_s"], self.config["poll_jitter_s"]
        try:
            self.cycle()
            self.failures = 0
        except Uncaught as exception:
            self.disk.log(f"err run_once exception: {exception}")
            wait >>= min(self.failures, 3)
            self.failures += 1
        if self.pace and limit:
            wait += self.pace.jitter(self.read_clock(), limit)
        for _ in range(wait):
            if self.stopped(end):
                break
            self.disk.log(Pace.SLICE)
            self.pace.now += 1

    def read_clock(self):
        if not self.pace:
            return NOW
        self.disk.log(f"time {self.pace.now}")
        self.pace.now += 1
        return self.pace.now - 1

    def cycle(self):
        self.seen["cycles"] += 1
        self.now = self.read_clock()
        active = self.active_version()
        defid = self.fetch_defid()
        if not defid:
            return self.fail(active, "defId fetch failed")
        if active == defid:
            self.seen["current"] += 1
            return self.write_status(active)
        info = self.fetch_complete_info(defid)
        if not info:
            return self.fail(active, f"complete-info fetch failed for {defid}")
        stage = f"{self.root}/snapshots/{defid}"
        self.seen["staged in a directory that was there"] += self.disk.is_directory(stage)
        self.disk.make_directories(stage)
        error = self.stage(stage, *info)
        if error:
            self.disk.log(f"err run_once: staging failed: {error}")
            self.disk.remove_all(stage)
            return self.fail(active, error)
        if not self.publish(defid):
            return self.fail(active, "publish/flip failed")
        self.prune(self.disk.resolve(stage))
        self.write_status(defid)
        self.seen["published"] += 1
        self.disk.log(published(defid, "none" if active is None else active)[1])

    def fail(self, active, error):
        self.seen[re.sub(" for .*| antivir.*| aivsecon.*", "", error)] += 1
        self.write_status(active or "", error)

    # The mirror

    def url(self, name):
        return f"{self.config['mirror_base_url'].rstrip('/')}/{self.config['mirror_subdir'].strip('/')}/{name}"

    def get(self, name):
        body, error = self.mirror.answer(self.url(name))
        if error:
            self.disk.log(f"err GET {self.url(name)}: {error}")
        return None if error else decode(body)

    def fetch_defid(self):
        text = self.get(f"antivir-{self.config['flavor']}-hit.ini")
        if text is None:
            return None
        defid = ini(text).get("defId")
        if not defid:
            self.disk.log("err parse_hit_defid: no [Current] defId")
        return defid

    def fetch_complete_info(self, defid):
        """The name and the digest of the archive."""
        text = self.get(f"antivir-{self.config['flavor']}-c-{defid}.ini")
        if text is None:
            return None
        info = [ini(text)[f"def.Current.{key}"] for key in ("name", "SHA256")]
        if not all(info):
            self.disk.log("err parse_complete_info: missing def.Current.name/SHA256")
            return None
        return info

    def download(self, name, path):
        part = f"{path}.part"
        if not self.disk.truncate(part):
            self.disk.log(f"err download_cab: cannot create {part}")
            self.seen["part not created"] += 1
            return False
        body, error = self.mirror.answer(self.url(name))
        if error:
            self.disk.log(f"err download_cab {self.url(name)}: {error}")
            self.disk.unlink(part)
            return False
        self.disk.write(part, body)
        renamed = self.disk.rename(part, path)
        self.seen["part not renamed"] += not renamed
        return renamed

    # Staging

    def stage(self, stage, archive, digest):
        """Everything between the announcement and the publication; the error's text."""
        path = f"{stage}/{archive}"
        if not self.download(archive, path):
            return "download CAB"
        if not self.matches(path, digest):
            return "CAB sha256 mismatch"
        if not self.extract(path, stage):
            return "CAB extract"
        self.disk.remove(path)
        index = ini(decode(self.disk.read(f"{stage}/antivir-{self.config['flavor']}.ini") or b""))
        for name in self.files:
            if self.missing(f"{stage}/{name}"):
                return f"CAB missing {name}"
            digest = index.get(f"{name}.sha256")
            if digest and not self.matches(f"{stage}/{name}", digest):
                return f"sha256 mismatch {name}"
        self.seen["published without a digest"] += len(index) < 2
        self.disk.remove_entries(stage, [name for name in self.disk.children(stage) if name not in self.files])
        self.seen["left a directory in a snapshot"] += len(self.disk.children(stage)) > 2
        return ""

    def matches(self, path, digest):
        content = self.disk.read(path)
        return content is not None and hashlib.sha256(content).hexdigest() == digest

    def missing(self, path):
        if self.disk.loops(path):
            self.seen["exception while staging"] += 1
            raise Uncaught(TOO_MANY_LINKS.format(path))
        return self.disk.find(path) is None

    def extract(self, path, stage):
        archive = self.mirror.unpack(self.disk.read(path))
        if archive.refusal:
            self.disk.log(f"err extract: cannot open {path}: {archive.refusal}")
            return False
        written = []
        for entry in archive.entries:
            place = f"{stage}/{entry.name.rpartition('/')[2]}"
            if self.disk.find(place, follow=False) is not None and not self.disk.remove(place):
                self.seen["entry in whose way a directory is"] += 1
                return False
            if entry.link:
                self.disk.symlink(entry.content.decode(), place)
                continue
            self.disk.truncate(place)
            self.disk.write(place, entry.content)
            written.append(place)
        for place in written:
            if self.disk.read(place) is None:  # a link that leads nowhere has taken its place
                self.disk.log(f"warning fsync: open {place} failed")
        return True

    # The store

    def active_version(self):
        link = self.disk.find(f"{self.root}/active", follow=False)
        return link.target.rpartition("/")[2] if isinstance(link, Link) else None

    def publish(self, defid):
        active = f"{self.root}/active"
        self.disk.unlink(f"{active}.tmp")
        if not self.disk.symlink(f"snapshots/{defid}", f"{active}.tmp"):
            self.disk.log(f"err publish: symlink {active}.tmp failed")
            self.seen["link not made"] += 1
            return False
        if not self.disk.rename(f"{active}.tmp", active):
            self.disk.log("err publish: rename to active failed")
            self.disk.unlink(f"{active}.tmp")
            self.seen["link not renamed"] += 1
            return False
        self.disk.log(published(defid)[0])
        return True

    def prune(self, staged):
        self.times[staged] = time.time_ns()
        snapshots = f"{self.root}/snapshots"
        candidates = [name for name in self.disk.children(snapshots) if self.is_candidate(f"{snapshots}/{name}")]
        ages = {name: self.times[self.disk.resolve(f"{snapshots}/{name}")] for name in candidates}
        keys = {name: self.disk.resolve(f"{snapshots}/{name}", follow=False) for name in candidates}
        # Equal ages have no order: those that really went count as the older ones.
        candidates.sort(key=lambda name: (ages[name], not self.touched(keys[name])))
        excess = (len(candidates) - self.config["retained_snapshots"]) % (1 << 32)
        excess -= (1 << 32) if excess >= 1 << 31 else 0
        active = self.active_version()
        links = {name: self.disk.nodes[key] for name, key in keys.items()}
        removed = [name for name in candidates if name != active][: max(excess, 0)]
        for name in removed:
            self.disk.remove_all(f"{snapshots}/{name}")
        self.seen["pruned"] += bool(removed)
        self.seen["spared the one in service"] += any(ages[name] > ages[active] for name in removed)
        self.seen["pruned one of equal age"] += any(
            ages[name] == ages[other] for name in removed for other in candidates if other not in removed
        )
        self.seen["pruned a link"] += any(isinstance(links[name], Link) for name in removed)

    def is_candidate(self, path):
        if self.disk.loops(path):
            self.seen["exception while pruning"] += 1
            raise Uncaught(TOO_MANY_LINKS.format(path))
        return self.disk.is_directory(path)

    def write_status(self, version, error=""):
        path = self.config["status_path"]
        if not self.disk.truncate(path):
            self.seen["status not written"] += 1
            return
        text = status_text(version, self.now, error, self.config["engine_version"])
        self.disk.write(path, text.encode(errors="surrogateescape"))


def model_of(folder, mirror, before=None, pace=None):
    """The daemon before a run in a real directory as it is, or as scan() found it before."""
    nodes, times = before or scan(folder)
    disk = Disk(folder)
    disk.begin(nodes)
    return Daemon(disk, mirror, times, pace=pace)

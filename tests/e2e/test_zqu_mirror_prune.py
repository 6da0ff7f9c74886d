"""zqu-mirror prune: what it removes, what it spares, and that no client notices."""

import collections
import os
import re
import signal
import subprocess
import threading
import time
from concurrent.futures import ThreadPoolExecutor

import pytest
from gateway import DAEMON, Gateway
from mirror_tool import SUBDIR, TOOL, WORK, Setting, Stopped, release_files, run, under_strace
from outcomes import published, tree

DAY = 86400
HIT = "antivir-v2-hit.ini"


def info(id, flavor="v2"):
    return f"antivir-{flavor}-c-{id}.ini"


def cab(id, flavor="v2"):
    return f"antivir-{flavor}-c-{id}.cab"


class Place(Setting):
    """A mirror of small releases whose ages a test chooses."""

    def __init__(self, base):
        super().__init__(base)
        self.began = time.time()

    def release(self, id, flavor="v2"):
        self.old.write_text(f"{flavor} {id}\n")
        assert run("publish", "--flavor", flavor, "--id", id, self.mirror, self.old, self.old)[0] == 0

    def set_age(self, name, seconds):
        os.utime(self.dir / name, (self.began - seconds, self.began - seconds))

    def history(self, *ages, flavor="v2"):
        """Releases "1", "2" and so on; each age in days tells when it was published, and that its precursor ended."""
        for number in range(1, len(ages) + 1):
            self.release(str(number), flavor)
        for number, age in enumerate(ages, 1):
            self.set_age(info(number, flavor), age * DAY)
        self.set_age(f"antivir-{flavor}-hit.ini", ages[-1] * DAY)

    def size(self, *names):
        return sum((self.dir / name).stat().st_size for name in names)

    def prune(self, *words, **options):
        return run("prune", *words, self.mirror, **options)

    def gone(self, *ids, did="removed"):
        """The lines for these releases, as long as they are there."""
        return "".join(f"{did} {id}: {info(id)}, {cab(id)}, {self.size(info(id), cab(id))} bytes\n" for id in ids)

    def of(self, *ids, flavors=("v2",)):
        """The files of these releases, and the hit INIs."""
        names = [name for flavor in flavors for id in ids for name in (info(id, flavor), cab(id, flavor))]
        return sorted([*names, *(f"antivir-{flavor}-hit.ini" for flavor in flavors)])

    def expect_untouched(self, line, *words):
        before = tree(self.mirror, modes=True)
        assert self.prune(*words) == (1, "", f"zqu-mirror: {line}\n")
        assert tree(self.mirror, modes=True) == before


@pytest.fixture
def place(tmp_path):
    return Place(tmp_path)


def total(releases, leftovers, size, did="removed in all"):
    return f"{did}: releases {releases}, leftovers {leftovers}, bytes {size}\n"


NOTHING = (0, total(0, 0, 0), "")


# ---- What goes ----


@pytest.mark.parametrize(
    "rules, doomed",
    [
        (["--keep", "2"], "123"),
        (["--keep", "4"], "1"),
        (["--keep", "5"], ""),
        (["--older-than", "25d"], "12"),
        (["--older-than", "1w"], "1234"),
        (["--older-than", "960h"], "1"),
        (["--keep", "3", "--older-than", "35d"], "1"),
        (["--keep", "4", "--older-than", "1d"], "1"),
        (["--keep", "1"], "1234"),
        ([], ""),
    ],
)
def test_what_no_rule_spares_goes_oldest_first(place, rules, doomed):
    place.history(41, 31, 21, 11, 1)
    size = place.size(*(name for id in doomed for name in (info(id), cab(id))))
    would, did = (total(len(doomed), 0, size, verb) for verb in ("would be removed in all", "removed in all"))
    before = tree(place.mirror, modes=True)
    assert place.prune(*rules, "--dry-run") == (0, place.gone(*doomed, did="would remove") + would, "")
    assert tree(place.mirror, modes=True) == before
    lines = place.gone(*doomed)
    assert place.prune(*rules) == (0, lines + did, "")
    assert release_files(place.mirror) == place.of(*(id for id in "12345" if id not in doomed))
    assert place.check()[0] == 0
    assert place.prune(*rules) == NOTHING


def test_the_current_release_stays_however_old_it_is(place):
    place.history(50, 40, 30)
    (place.dir / HIT).write_text("[Current]\r\nDEFID = 1\r\n")
    place.set_age(HIT, 1 * DAY)
    assert place.prune("--keep", "1", "--older-than", "2d")[0] == 0
    assert release_files(place.mirror) == place.of("1")


def test_the_current_release_counts_among_those_to_keep(place):
    place.history(50, 40, 30)
    (place.dir / HIT).write_text("defId = 1\n")
    place.set_age(HIT, 1 * DAY)
    assert place.prune("--keep", "2")[0] == 0
    assert release_files(place.mirror) == place.of("1", "3")


def test_other_flavors_are_left_alone(place):
    place.history(40, 30, 20)
    place.history(40, 30, 20, flavor="v3")
    assert place.prune("--keep", "1", "--flavor", "v3")[0] == 0
    assert release_files(place.mirror) == sorted(place.of("1", "2", "3") + place.of("3", flavors=["v3"]))


def test_a_flavor_whose_name_begins_like_another_release_is_left_alone(place):
    place.history(40, 30)
    place.history(40, 30, flavor="v2-c-beta")
    assert place.prune("--keep", "1")[0] == 0
    assert release_files(place.mirror) == sorted(place.of("2") + place.of("1", "2", flavors=["v2-c-beta"]))


def test_an_ini_that_two_flavors_lead_to_stays_while_one_hit_ini_names_it(place):
    place.history(40, 30)
    for id in ("x-c-1", "x-c-2"):
        place.release(id)
        place.set_age(info(id), 35 * DAY)
    (place.dir / HIT).write_text("defId = 2\n")
    (place.dir / "antivir-v2-c-x-hit.ini").write_text("defId = 1\n")
    for name in (HIT, "antivir-v2-c-x-hit.ini"):
        place.set_age(name, 20 * DAY)
    assert place.prune("--keep", "1")[0] == 0  # of "v2", which "x-c-2" is not: it may be the other flavor's "2"
    assert release_files(place.mirror) == sorted([*place.of("2", "x-c-1", "x-c-2"), "antivir-v2-c-x-hit.ini"])
    (place.dir / HIT).write_text("defId = x-c-2\n")
    assert place.prune("--keep", "1", "--flavor", "v2-c-x") == NOTHING  # its "2" is the other flavor's current release
    (place.dir / HIT).write_text("defId = 2\n")
    place.set_age(HIT, 20 * DAY)
    assert place.prune("--keep", "1", "--flavor", "v2-c-x")[0] == 0
    assert release_files(place.mirror) == sorted([*place.of("2", "x-c-1"), "antivir-v2-c-x-hit.ini"])


def test_an_archive_that_another_ini_names_outlives_its_release(place):
    place.history(40, 30)
    (place.dir / info("7", "v3")).write_bytes((place.dir / info("1")).read_bytes())
    (place.dir / "antivir-v3-hit.ini").write_text("defId = 7\n")
    size = place.size(info("1"))
    line = f"removed 1: {info('1')} ({cab('1')} serves another release), {size} bytes\n"
    assert place.prune("--keep", "1") == (0, line + total(1, 0, size), "")
    assert release_files(place.mirror) == sorted([*place.of("2"), cab("1"), info("7", "v3"), "antivir-v3-hit.ini"])
    assert place.check("--flavor", "v3")[1].startswith("ok       antivir-v3-hit.ini names 7\n")


def test_a_release_with_the_id_hit_is_one_like_any_other(place):
    for id in ("hit", "x-hit", "3"):
        place.release(id)
    for name in (info("hit"), info("x-hit"), info("3"), HIT):
        place.set_age(name, 5 * DAY)
    assert place.prune("--keep", "1")[0] == 0
    assert release_files(place.mirror) == place.of("3")


def test_a_release_without_its_archive_goes(place):
    place.history(40, 30)
    (place.dir / cab("1")).unlink()
    size = place.size(info("1"))
    assert place.prune("--keep", "1") == (
        0,
        f"removed 1: {info('1')}, {cab('1')}, {size} bytes\n" + total(1, 0, size),
        "",
    )
    assert release_files(place.mirror) == place.of("2")


# ---- The grace ----


def test_what_was_published_within_the_grace_stays(place):
    for id in "123":
        place.release(id)
    assert place.prune("--keep", "1") == NOTHING
    assert place.prune("--keep", "1", "--grace", "1h") == NOTHING
    assert place.prune("--keep", "1", "--grace", "0s")[0] == 0
    assert release_files(place.mirror) == place.of("3")


def test_what_was_current_within_the_grace_stays_however_old_it_is(place):
    place.history(40, 30, 20)
    place.release("4")
    assert place.prune("--keep", "1")[0] == 0
    assert release_files(place.mirror) == place.of("3", "4")


def test_what_is_in_its_grace_counts_among_those_to_keep(place):
    place.history(40, 30, 20, 10)
    place.release("5")
    assert place.prune("--keep", "3")[0] == 0
    assert release_files(place.mirror) == place.of("3", "4", "5")


def test_what_going_back_has_replaced_stays_for_the_grace(place):
    place.history(40, 30, 20)
    place.release("1")  # the same content: current again
    assert place.prune("--keep", "1")[0] == 0
    assert release_files(place.mirror) == place.of("1", "3")


def test_what_was_current_for_a_moment_only_stays_for_the_grace(place):
    place.history(40, 30, 20, 10)
    place.release("1")
    place.release("3")
    assert place.prune("--keep", "1")[0] == 0
    assert release_files(place.mirror) == place.of("1", "3", "4")


def test_where_no_time_was_left_behind_the_newest_before_stays_for_the_grace(place):
    place.history(40, 30, 20)
    place.release("4")
    place.set_age(info("3"), 20 * DAY)  # as if the release had been put there by other means
    assert place.prune("--keep", "1")[0] == 0
    assert release_files(place.mirror) == place.of("3", "4")
    place.set_age(HIT, 3000)
    assert place.prune("--keep", "1") == NOTHING
    place.set_age(HIT, 3601)
    assert place.prune("--keep", "1")[0] == 0
    assert release_files(place.mirror) == place.of("4")


def test_a_time_in_the_future_is_within_any_grace(place):
    place.history(40, 30, 20)
    place.set_age(info("1"), -DAY)
    assert place.prune("--keep", "1", "--grace", "0s")[0] == 0
    assert release_files(place.mirror) == place.of("1", "3")


def daemon_on_its_way(place, meanwhile):
    """Runs a daemon that stands still once it has opened the hit INI; returns the log lines of its cycle."""
    gateway = Gateway(place.base, mirror_base_url=f"file://{place.mirror}", mirror_subdir=SUBDIR)
    log = place.base / "trace"
    words = ["--config", gateway.config_path, "--once"]
    stop = ["-P", place.dir / HIT, "-e", "inject=openat:signal=STOP:when=1"]
    variables = gateway.environment()
    variables["ASAN_OPTIONS"] += ":detect_leaks=0"  # the leak check does not work under ptrace(2)
    daemon = subprocess.Popen(["strace", "-D", "-o", log, *stop, DAEMON, *words], env=variables)
    try:
        while not (log.exists() and "--- stopped by SIGSTOP ---" in log.read_text()):
            assert daemon.poll() is None, "ended without having been stopped"
        meanwhile()
        daemon.send_signal(signal.SIGCONT)
        assert daemon.wait(timeout=60) == 0
    finally:
        daemon.kill()
        daemon.wait()
    return gateway.take_log()


@pytest.mark.parametrize("grace", ["1h", "0s"])
def test_a_client_on_its_way_is_served_within_the_grace_and_cut_off_without(place, grace):
    place.history(3, 2)

    def release_and_prune():
        place.release("3")
        assert place.prune("--keep", "1", "--grace", grace)[0] == 0

    log = daemon_on_its_way(place, release_and_prune)
    served = {"1h": published("2"), "0s": [f"err GET file://{place.dir}/{info('2')}: Couldn't read a file:// file"]}
    assert log[: len(served[grace])] == served[grace]
    assert release_files(place.mirror) == (place.of("2", "3") if grace == "1h" else place.of("3"))


def test_daemons_update_while_releases_come_and_go(place, nginx, tmp_path):
    place.mirror = nginx.root / f"pruned-{tmp_path.name}"
    place.dir = place.mirror / SUBDIR
    place.release("0")
    gateways = []
    for number in range(2):
        folder = tmp_path / f"gateway-{number}"
        folder.mkdir()
        settings = {"mirror_subdir": f"{place.mirror.name}/{SUBDIR}", "ca_path": nginx.ca_path}
        gateways.append(Gateway(folder, mirror_base_url=nginx.url(), **settings))

    ended = threading.Event()
    cycles = collections.Counter()

    def update(gateway):
        while not ended.is_set():
            gateway.run_once()
            assert gateway.status()["last_error"] == ""
            cycles[gateway] += 1

    with ThreadPoolExecutor(2) as pool:
        updates = [pool.submit(update, gateway) for gateway in gateways]
        try:
            for number in range(1, 9):
                place.release(str(number))
                for former in range(max(number - 3, 0), number - 2):  # all but three are beyond the grace
                    place.set_age(info(former), DAY)
                assert place.prune("--keep", "1")[0] == 0
                seen = dict(cycles)  # at most two releases come in the time of one cycle
                while any(cycles[gateway] == seen.get(gateway, 0) for gateway in gateways):
                    assert not any(updating.done() for updating in updates)
                    time.sleep(0.01)
        finally:
            ended.set()
    for updating, gateway in zip(updates, gateways):
        updating.result()
        gateway.run_once()
        gateway.expect_status("8")
    assert release_files(place.mirror) == place.of("6", "7", "8")


# ---- What killed runs leave ----


def test_an_archive_that_nothing_names_goes_after_the_grace(place):
    place.history(40, 30)
    (place.dir / "old.zip").write_bytes(b"x" * 5000)
    os.utime(place.dir / "old.zip", (1, 1))  # but it came a moment ago, whatever its time
    assert place.prune() == NOTHING
    line = "{} old.zip, which no INI names: 5000 bytes\n"
    would = total(0, 1, 5000, "would be removed in all")
    assert place.prune("--grace", "0s", "--dry-run") == (0, line.format("would remove") + would, "")
    assert place.prune("--grace", "0s") == (0, line.format("removed") + total(0, 1, 5000), "")
    assert release_files(place.mirror) == place.of("1", "2")


def test_what_is_neither_archive_nor_ini_of_a_release_stays(place):
    place.history(40, 30)
    others = ["README", "index.html", "other.ini", "antivir-v2.ini", "x.cab.part"]
    for name in others:
        (place.dir / name).write_text("mine\n")
    assert place.prune("--keep", "1", "--grace", "0s")[0] == 0
    assert release_files(place.mirror) == sorted([*place.of("2"), *others])


def test_what_a_killed_publish_has_left_goes(place):
    place.history(40, 30)
    with Stopped(place, place.dir / WORK / "hit"):
        pass  # killed in the end, with archive and INI in place and the work folder there
    (place.dir / WORK / "archive").write_bytes(b"left" * 1000)
    assert release_files(place.mirror) == sorted([WORK, *place.of("1", "2", "new")])
    (place.dir / info("new")).unlink()
    archive = place.size(cab("new"))
    lines = (
        f"removed {WORK}, which a killed run has left: 4000 bytes\n"
        f"removed {cab('new')}, which no INI names: {archive} bytes\n"
    )
    assert place.prune("--grace", "0s") == (0, lines + total(0, 2, 4000 + archive), "")
    assert release_files(place.mirror) == place.of("1", "2")


# ---- What cannot be understood ----


def write(name, text):
    return lambda place: (place.dir / name).write_text(text)


def unreadable(name):
    def make(place):
        (place.dir / name).unlink(missing_ok=True)
        (place.dir / name).mkdir()

    return make


def fifo(name):
    def make(place):
        (place.dir / name).unlink()
        os.mkfifo(place.dir / name)

    return make


def names_archive(id, archive):
    return write(info(id), f"def.Current.name = {archive}\ndef.Current.SHA256 = 00\n")


NAME_RULE = "may hold only letters, digits and -._~!$&'()*+,;:@ (clients could not fetch it otherwise)"
NO_RELEASE = "{} names no release"
NO_ARCHIVE = "{} names no archive or no digest"
NO_FILE = "GET file://FOLDER/{}: no regular file"


@pytest.mark.parametrize(
    "make, line",
    [
        (lambda place: (place.dir / HIT).unlink(), f"{HIT} is missing: nothing tells which release is current"),
        (write(HIT, ""), NO_RELEASE.format(HIT)),
        (write(HIT, "defId =\n"), NO_RELEASE.format(HIT)),
        (unreadable(HIT), NO_FILE.format(HIT)),
        (write(HIT, "defId = a%41\n"), f"{HIT}: the name a%41 {NAME_RULE}"),
        (write(HIT, "defId = ../1\n"), f"{HIT}: the name ../1 {NAME_RULE}"),
        (write(HIT, "defId = gone\n"), f"GET file://FOLDER/{info('gone')}: Couldn't read a file:// file"),
        (write("antivir-v3-hit.ini", "?"), NO_RELEASE.format("antivir-v3-hit.ini")),
        (
            write("antivir-v3 x-hit.ini", "defId = 1\n"),
            f"antivir-v3 x-hit.ini: the name antivir-v3 x-hit.ini {NAME_RULE}",
        ),
        (write("antivir-v2-c-hit.ini", "?"), NO_RELEASE.format("antivir-v2-c-hit.ini")),
        (write(info("1"), "def.Current.name = x.cab\n"), NO_ARCHIVE.format(info("1"))),
        (unreadable(info("1")), NO_FILE.format(info("1"))),
        (write(info("9", "v3"), ""), NO_ARCHIVE.format(info("9", "v3"))),
        (
            write(info("1"), "def.Current.name = ./x.cab\ndef.Current.SHA256 = 00\n"),
            f"{info('1')}: the archive's name ./x.cab {NAME_RULE}",
        ),
        (names_archive("1", info("3")), f"{info('1')}: the archive's name {info('3')} must not end in .ini"),
        (names_archive("1", HIT), f"{info('1')}: the archive's name {HIT} must not end in .ini"),
        (names_archive("1", ".x.cab"), f"{info('1')}: the archive's name .x.cab must not begin with a dot"),
        (fifo(HIT), NO_FILE.format(HIT)),
        (fifo(info("1")), NO_FILE.format(info("1"))),
        (write(info("a b"), ""), f"{info('a b')}: the name {info('a b')} {NAME_RULE}"),
    ],
)
def test_an_ini_that_cannot_be_understood_ends_it_before_anything_goes(place, make, line):
    place.history(40, 30, 20)
    make(place)
    line = line.replace("FOLDER", str(place.dir))
    place.expect_untouched(line, "--keep", "1")
    place.expect_untouched(line, "--keep", "1", "--dry-run")


def test_a_missing_folder_is_refused(place):
    place.expect_untouched(f"cannot open {place.dir}: No such file or directory", "--keep", "1")


@pytest.mark.parametrize(
    "words, line",
    [
        (["--keep", "0"], "--keep: Value 0 not in range 1 to 1000000"),
        (["--older-than", "30"], "--older-than: must be a number and s, m, h, d or w"),
        (["--older-than", "d"], "--older-than: must be a number and s, m, h, d or w"),
        (["--older-than", "-1d"], "--older-than: must be a number and s, m, h, d or w"),
        (["--grace", "1y"], "--grace: must be a number and s, m, h, d or w"),
        (["--grace", "1000000s"], "--grace: must be a number and s, m, h, d or w"),
    ],
)
def test_a_number_or_age_that_means_nothing_is_a_usage_error(place, words, line):
    place.history(40, 30)
    assert place.prune(*words) == (2, "", f"zqu-mirror: {line} (see zqu-mirror --help)\n")
    assert release_files(place.mirror) == place.of("1", "2")


# ---- Beside others, and cut short ----


def stopped_prune(place, path, call="unlink"):
    return Stopped(place, path, call, tool_args=["prune", "--keep", "1", place.mirror])


def test_a_release_that_becomes_current_meanwhile_stays(place):
    place.history(50, 40, 30, 20)
    lines = place.gone("1") + "kept 2: it is current now\n" + place.gone("3")
    size = place.size(info("1"), cab("1"), info("3"), cab("3"))
    with stopped_prune(place, place.dir / info("1")) as stopped:
        (place.dir / HIT).write_text("defId = 2\n")
        assert stopped.finish() == (0, lines + total(2, 0, size), "")
    assert release_files(place.mirror) == place.of("2", "4")


def test_a_hit_ini_that_becomes_unreadable_meanwhile_ends_it_and_the_rest_stays(place):
    place.history(50, 40, 30, 20)
    first = place.gone("1")
    with stopped_prune(place, place.dir / info("1")) as stopped:
        (place.dir / HIT).write_text("")
        assert stopped.finish() == (1, first, f"zqu-mirror: {NO_RELEASE.format(HIT)}\n")
    assert release_files(place.mirror) == place.of("2", "3", "4")


def test_prune_and_publish_keep_each_other_out(place):
    place.history(40, 30)
    line = f"zqu-mirror: another run is at work in {place.dir}\n"
    with Stopped(place, place.dir / WORK / "archive") as publishing:
        assert place.prune("--keep", "1") == (1, "", line)
        assert place.prune("--keep", "1", "--dry-run") == (1, "", line)
        assert publishing.finish()[0] == 0
    with stopped_prune(place, place.dir / info("1")) as pruning:
        assert place.publish("3") == (1, "", line)
        assert pruning.finish()[0] == 0
    assert release_files(place.mirror) == place.of("2", "new")


@pytest.mark.parametrize(
    "number, words", [(signal.SIGINT, "Interrupt"), (signal.SIGTERM, "Terminated"), (signal.SIGHUP, "Hangup")]
)
def test_a_signal_takes_effect_between_two_releases(place, number, words):
    place.history(50, 40, 30, 20)
    first = place.gone("1")
    with stopped_prune(place, place.dir / cab("1")) as stopped:
        stopped.signal(number)
        assert stopped.finish() == (128 + number, first, f"zqu-mirror: ended by signal: {words}\n")
    assert release_files(place.mirror) == place.of("2", "3", "4")


def traced(place, injection):
    done = subprocess.run(
        ["strace", "-f", "-o", "/dev/null", "-e", injection, TOOL, "prune", "--keep", "1", place.mirror],
        env=under_strace(),
        capture_output=True,
        timeout=60,
    )
    return done.returncode, done.stdout.decode(), done.stderr.decode()


def test_a_file_that_cannot_be_removed_ends_it_and_the_rest_stays(place):
    place.history(50, 40, 30, 20)
    line = f"zqu-mirror: cannot remove {place.dir / info('2')}: Operation not permitted\n"
    first = place.gone("1")
    assert traced(place, "inject=unlink:error=EPERM:when=3") == (1, first, line)
    assert release_files(place.mirror) == place.of("2", "3", "4")


def test_a_failed_flush_keeps_the_archive(place):
    place.history(50, 40, 30, 20)
    line = f"zqu-mirror: cannot flush {place.dir}: Input/output error\n"
    assert traced(place, "inject=fsync:error=EIO:when=1") == (1, "", line)
    assert release_files(place.mirror) == sorted([cab("1"), *place.of("2", "3", "4")])


@pytest.mark.parametrize("call, count", [("unlink", 6), ("fsync", 4)])
def test_a_kill_leaves_no_ini_without_its_archive_and_the_next_prune_cleans_up(place, call, count):
    place.history(50, 40, 30, 20)
    files = {name: (place.dir / name).read_bytes() for name in release_files(place.mirror)}
    times = {name: (place.dir / name).stat().st_mtime for name in files}
    for number in range(1, count + 1):
        for name, content in files.items():
            (place.dir / name).write_bytes(content)
            os.utime(place.dir / name, (times[name], times[name]))
        assert traced(place, f"inject={call}:signal=KILL:when={number}")[0] == -signal.SIGKILL
        left = release_files(place.mirror)
        assert all(re.sub(r"ini$", "cab", name) in left for name in left if name.endswith(".ini") and name != HIT)
        assert place.check()[0] == 0
        assert place.prune("--keep", "1", "--grace", "0s")[0] == 0
        assert release_files(place.mirror) == place.of("4")
    assert traced(place, f"inject={call}:signal=KILL:when={count + 1}")[0] == 0

"""zqu-mirror mirror: the copy of an upstream mirror is whole and the upstream's to the byte, or nothing changes."""

import os
import re
import shutil
import signal
import subprocess
from concurrent.futures import ThreadPoolExecutor

import archives
import pytest
from gateway import Gateway
from mirror_tool import SUBDIR, TOOL, WORK, Setting, Stopped, release_files, run, under_strace
from outcomes import published, tree
from release import definitions, good_files, index_of, sha256
from scripted_server import ScriptedServer, stall

HIT = "antivir-v2-hit.ini"
NAME_RULE = "may hold only letters, digits and -._~!$&'()*+,;:@ (clients could not fetch it otherwise)"
HIT_RULE = 'must not be "hit" or end in -hit'
DOTS_RULE = 'must not be empty, "." or ".."'


def info(id):
    return f"antivir-v2-c-{id}.ini"


def cab(id):
    return f"antivir-v2-{id}.cab"  # not as zqu-mirror names its own


def file_times(root):
    return {path: path.stat().st_mtime_ns for path in root.rglob("*") if path.is_file()}


class Place(Setting):
    """An upstream mirror behind nginx, and a mirror to copy it to."""

    def __init__(self, base, nginx, upstream):
        super().__init__(base)
        self.nginx = nginx
        self.upstream = upstream

    def words(self, *words, mirror=None):
        options = ["--ca", self.nginx.ca_path, "--upstream-subdir", self.upstream.subdir, *words]
        return ["mirror", *options, self.nginx.url(), mirror or self.mirror]

    def copy(self, *words, **options):
        return run(*self.words(*words), **options)

    def done(self, id, archive=None, did="mirrored"):
        data = self.upstream.path(archive or cab(id)).read_bytes()
        return 0, f"{did} {id}: {archive or cab(id)}, {len(data)} bytes, SHA-256 {sha256(data)}\n", ""

    def files(self, *ids):
        """The whole mirror that holds these releases of the upstream's, the last of them current."""
        names = [name for id in ids for name in (info(id), cab(id))]
        content = {name: ("100644", self.upstream.path(name).read_bytes()) for name in names}
        hit = ("100644", f"[Current]\ndefId = {ids[-1]}\n".encode())
        return {".": ("40755", None), **content, HIT: hit}

    def expect_refused(self, line):
        before = tree(self.mirror, modes=True), file_times(self.mirror)
        assert self.copy() == (1, "", f"zqu-mirror: {line}\n")
        assert (tree(self.mirror, modes=True), file_times(self.mirror)) == before


@pytest.fixture
def place(tmp_path, nginx, mirror):
    return Place(tmp_path, nginx, mirror)


# ---- What is copied ----


def test_the_copy_is_the_upstreams_to_the_byte_and_passes_the_check(place):
    place.upstream.publish("1001")
    assert place.copy(umask=0o077) == place.done("1001")
    assert tree(place.dir, modes=True) == place.files("1001")
    code, out, err = place.check()
    assert (code, err) == (0, "")
    assert out.startswith(f"ok       {HIT} names 1001\nok       {info('1001')} names {cab('1001')}\n")


def test_the_next_release_follows_and_the_former_one_stays(place):
    for id in ("1001", "1002"):
        place.upstream.publish(id)
        assert place.copy() == place.done(id)
    assert tree(place.dir, modes=True) == place.files("1001", "1002")
    assert (place.dir / info("1001")).stat().st_mtime_ns == (place.dir / HIT).stat().st_mtime_ns  # as prune expects


def test_nothing_new_is_a_success_that_changes_nothing_and_asks_twice(place):
    place.upstream.publish("1001")
    assert place.copy()[0] == 0
    before = tree(place.mirror, modes=True), {path: path.stat().st_mtime_ns for path in place.mirror.rglob("*")}
    asked = [f"{HIT} 200", f"{info('1001')} 200"]
    assert place.copy() == (0, "nothing new: 1001 is current\n", "")
    assert (
        tree(place.mirror, modes=True),
        {path: path.stat().st_mtime_ns for path in place.mirror.rglob("*")},
    ) == before
    assert place.nginx.requests(place.upstream.subdir, 5) == [*asked, f"{cab('1001')} 200", *asked]


def test_an_ini_that_only_looks_different_is_nothing_new(place):
    place.upstream.publish("1001")
    assert place.copy()[0] == 0
    before = tree(place.mirror, modes=True)
    place.upstream.write(info("1001"), place.upstream.path(info("1001")).read_text() + "; a remark\n")
    assert place.copy() == (0, "nothing new: 1001 is current\n", "")
    assert tree(place.mirror, modes=True) == before


def test_an_upstream_that_goes_back_is_followed_without_a_download(place):
    for id in ("1001", "1002"):
        place.upstream.publish(id)
        assert place.copy()[0] == 0
    place.upstream.write(HIT, "[Current]\r\ndefId=1001\r\n")
    assert place.copy() == place.done("1001", did="made current again")
    assert tree(place.dir, modes=True) == place.files("1002", "1001")
    asked = [line for line in place.nginx.requests(place.upstream.subdir, 8) if ".cab" in line]
    assert asked == [f"{cab('1001')} 200", f"{cab('1002')} 200"]


def test_an_archive_that_is_here_already_is_not_downloaded_again(place):
    place.upstream.publish("1001")
    assert place.copy()[0] == 0
    place.upstream.announce("1002", cab("1001"))
    assert place.copy() == place.done("1002", cab("1001"))
    assert release_files(place.mirror) == sorted([HIT, info("1001"), info("1002"), cab("1001")])
    assert len([line for line in place.nginx.requests(place.upstream.subdir, 5) if ".cab" in line]) == 1


def test_flavor_and_folders_reach_every_name(place):
    place.upstream.publish("1001", flavor="v3")
    assert place.copy("--flavor", "v3", "--subdir", "/a/b/")[0] == 0
    names = [str(path.relative_to(place.mirror)) for path in sorted(place.mirror.rglob("*")) if path.is_file()]
    assert names == ["a/b/antivir-v3-1001.cab", "a/b/antivir-v3-c-1001.ini", "a/b/antivir-v3-hit.ini"]
    assert place.check("--flavor", "v3", "--subdir", "a/b")[0] == 0


def test_a_folder_is_an_upstream_too(place):
    upstream = place.base / "medium"
    assert place.publish("7", "--zip", mirror=upstream)[0] == 0
    code, out, err = run("mirror", f"file://{upstream}", place.mirror)
    assert (code, err) == (0, "")
    assert out.startswith("mirrored 7: antivir-v2-c-7.zip, ")
    assert tree(place.mirror, modes=True) == tree(upstream, modes=True)


def test_the_daemon_updates_from_the_copy(place, tmp_path):
    settings = {"mirror_subdir": f"copy-{tmp_path.name}/{SUBDIR}", "ca_path": place.nginx.ca_path}
    gateway = Gateway(tmp_path, mirror_base_url=place.nginx.url(), **settings)
    former = "none"
    for id in ("1001", "1002"):
        place.upstream.publish(id)
        assert run(*place.words(mirror=place.nginx.root / f"copy-{tmp_path.name}"))[0] == 0
        assert gateway.run_once() == published(id, former)
        gateway.expect_status(id)
        assert gateway.active_files() == definitions(id)
        former = id


# ---- What is refused ----


def rewrite_info(place, **changes):
    """Changes values of the upstream's complete-info INI of 1002."""
    text = place.upstream.path(info("1002")).read_text()
    for key, value in changes.items():
        text = re.sub(f"(def.Current.{key}=).*", lambda match: match[1] + value, text)
    place.upstream.write(info("1002"), text)


def rename_archive(place, name):
    place.upstream.path(cab("1002")).rename(place.upstream.path("renamed"))
    rewrite_info(place, name=name)


def damage_archive(place):
    data = place.upstream.path(cab("1002")).read_bytes()
    place.upstream.write(cab("1002"), data[:-1] + bytes([data[-1] ^ 1]))


def cut_archive(place):
    place.upstream.write(cab("1002"), place.upstream.path(cab("1002")).read_bytes()[:-1])


def damage_definition(place):
    entries = {**dict(good_files("1002")), "aivsecon-v2.def": b"other"}
    place.upstream.publish("1002", list(entries.items()))


def with_id(id):
    return lambda place: place.upstream.write(HIT, f"defId = {id}\n")


def named(name):
    return lambda place: rename_archive(place, name)


UPSTREAM = "the upstream mirror's"
GET_ERROR = "GET {{url}}/{}: HTTP response code said error"
LONG = "x" * (255 - len(".cab.part")) + "y.cab"

TAMPERED = {
    "no hit INI": (lambda place: place.upstream.path(HIT).unlink(), GET_ERROR.format(HIT)),
    "no id": (with_id(""), f"{HIT} names no release"),
    "no info": (with_id("9"), GET_ERROR.format(info("9"))),
    "id is a path": (with_id("../9"), f"{UPSTREAM} id ../9 is refused: it {NAME_RULE}"),
    "id is absolute": (with_id("/etc/x"), f"{UPSTREAM} id /etc/x is refused: it {NAME_RULE}"),
    "id is dots": (with_id(".."), f"{UPSTREAM} id .. is refused: it {DOTS_RULE}"),
    "id is encoded": (with_id("a%2fb"), f"{UPSTREAM} id a%2fb is refused: it {NAME_RULE}"),
    "id is hit": (with_id("hit"), f"{UPSTREAM} id hit is refused: it {HIT_RULE}"),
    "id ends in -hit": (with_id("9-hit"), f"{UPSTREAM} id 9-hit is refused: it {HIT_RULE}"),
    "id is too long": (with_id("x" * 300), f"{UPSTREAM} id {'x' * 300} is refused: it is too long for a file name"),
    "no name": (
        lambda place: rewrite_info(place, name=""),
        f"{info('1002')} names no archive or no digest",
    ),
    "no digest": (
        lambda place: rewrite_info(place, SHA256=""),
        f"{info('1002')} names no archive or no digest",
    ),
    **{
        f"archive {name[:20]}": (named(name), f"{UPSTREAM} archive name {name} is refused: it {rule}")
        for name, rule in [
            ("../x.cab", NAME_RULE),
            ("sub/x.cab", NAME_RULE),
            ("a b.cab", NAME_RULE),
            ("..", DOTS_RULE),
            (WORK, "must not begin with a dot"),
            (HIT, "must not end in .ini"),
            (LONG, "is too long for a file name"),
        ]
    },
    "archive missing": (named("gone.cab"), GET_ERROR.format("gone.cab")),
    "archive damaged": (damage_archive, f"{UPSTREAM} {cab('1002')} does not have the digest {{digest}}"),
    "archive cut": (cut_archive, f"{UPSTREAM} {cab('1002')} does not have the digest {{digest}}"),
    "definition damaged": (
        damage_definition,
        f"{UPSTREAM} archive is refused: aivsecon-v2.def does not have the digest that the index gives",
    ),
}


@pytest.mark.parametrize("populated", [False, True], ids=["first", "next"])
@pytest.mark.parametrize("fault", TAMPERED)
def test_what_a_client_would_refuse_or_no_name_may_be_leaves_the_mirror_untouched(place, fault, populated):
    make, line = TAMPERED[fault]
    if populated:
        place.upstream.publish("1001")
        assert place.copy()[0] == 0
    place.upstream.publish("1002")
    digest = sha256(place.upstream.path(cab("1002")).read_bytes())
    make(place)
    place.expect_refused(line.format(digest=digest, url=f"{place.nginx.url()}/{place.upstream.subdir}"))


def test_what_the_index_does_not_name_is_accepted_as_the_daemon_accepts_it(place):
    entries = good_files("1001")
    place.upstream.publish("1001", [entries[0], entries[1], index_of([entries[0]])])
    assert place.copy() == place.done("1001")


def test_an_id_that_is_here_with_other_content_is_refused(place):
    place.upstream.publish("1001")
    assert place.publish("1001")[0] == 0
    line = "1001 is on the mirror with other content: an id never gets other content"
    place.expect_refused(line)
    place.publish_old()
    place.expect_refused(line)


def test_an_id_that_gets_other_content_upstream_is_refused(place):
    place.upstream.publish("1001")
    assert place.copy()[0] == 0
    place.upstream.publish("1001", good_files("other"))
    place.expect_refused("1001 is on the mirror with other content: an id never gets other content")


def test_an_id_that_is_here_damaged_is_refused(place):
    for id in ("1001", "1002"):
        place.upstream.publish(id)
        assert place.copy()[0] == 0
    place.upstream.write(HIT, "defId = 1001\n")
    (place.dir / cab("1001")).write_bytes(b"damaged")
    place.expect_refused("1001 is on the mirror, but its INI file and its archive do not match")


def test_an_archive_name_that_another_release_has_here_is_refused(place):
    place.upstream.publish("1001")
    assert place.copy()[0] == 0
    archives.write_cab(place.upstream.path(cab("1001")), good_files("1002"))
    place.upstream.announce("1002", cab("1001"))
    place.expect_refused(f"{cab('1001')} is on the mirror with other content, and {info('1001')} names it")


def test_an_archive_that_a_killed_run_has_left_is_replaced(place):
    place.upstream.publish("1001")
    place.dir.mkdir(parents=True)
    (place.dir / cab("1001")).write_bytes(b"left behind")
    assert place.copy() == place.done("1001")
    assert tree(place.dir, modes=True) == place.files("1001")


# Takes the right to pass over permissions from a run as root.
BARE = ["setpriv", "--bounding-set=-all,+setuid,+setgid", "--inh-caps=-all"] if os.geteuid() == 0 else []


def test_what_a_killed_run_has_left_without_permissions_is_removed(place):
    place.publish_old()
    for command in (
        ["prune", "--keep", "1", place.mirror],
        ["publish", "--id", "1", place.mirror, place.old, place.old],
    ):
        (place.dir / WORK / "unpacked").mkdir(parents=True)
        (place.dir / WORK / "unpacked" / "antivir-v2.def").write_text("left\n")
        (place.dir / WORK / "unpacked").chmod(0)
        done = subprocess.run([*BARE, TOOL, *command], capture_output=True, timeout=60)
        assert (done.returncode, done.stderr, (place.dir / WORK).exists()) == (0, b"", False)


@pytest.mark.parametrize("certificate", ["wrong_host", "expired", "unknown_authority"])
def test_an_upstream_that_cannot_prove_who_it_is_is_refused(place, certificate):
    place.upstream.publish("1001")
    url = place.nginx.url(certificate)
    result = run("mirror", "--ca", place.nginx.ca_path, "--subdir", place.upstream.subdir, url, place.mirror)
    reason = "SSL peer certificate or SSH remote key was not OK"
    assert result == (1, "", f"zqu-mirror: GET {url}/{place.upstream.subdir}/{HIT}: {reason}\n")
    assert not place.mirror.exists()


def test_an_upstream_that_falls_silent_is_given_up(place, authority, scripted_context):
    authority.cert_pem.write_to_path(place.base / "ca.pem")
    server = ScriptedServer(scripted_context)
    try:
        server.script = {HIT: [stall]}
        words = ["--ca", place.base / "ca.pem", "--timeout", "1", "--subdir", "defs"]
        result = run("mirror", *words, server.base().removesuffix("/defs"), place.mirror)
    finally:
        server.stop()
    assert result == (1, "", f"zqu-mirror: GET {server.base()}/{HIT}: Timeout was reached\n")
    assert not place.mirror.exists()


@pytest.mark.parametrize("url", ["http://mirror.example", "/srv/mirror", "", "ftp://mirror.example"])
def test_an_upstream_that_proves_nothing_is_a_usage_error(place, url):
    line = "zqu-mirror: UPSTREAM: must be an https or a file URL (see zqu-mirror --help)\n"
    assert run("mirror", url, place.mirror) == (2, "", line)
    assert not place.mirror.exists()


# ---- Beside others, and cut short ----


def test_a_run_beside_a_publish_is_refused(place):
    place.upstream.publish("1001")
    line = f"zqu-mirror: another run is at work in {place.dir}\n"
    with Stopped(place, place.dir / WORK / "archive") as publishing:
        assert place.copy() == (1, "", line)
        assert publishing.finish()[0] == 0
    with Stopped(place, place.dir / WORK / "archive", tool_args=place.words()) as copying:
        assert place.publish("other") == (1, "", line)
        assert run("prune", "--keep", "1", place.mirror) == (1, "", line)
        assert copying.finish() == place.done("1001")
    assert place.check()[1].startswith(f"ok       {HIT} names 1001\n")


@pytest.mark.parametrize(
    "number, words", [(signal.SIGINT, "Interrupt"), (signal.SIGTERM, "Terminated"), (signal.SIGHUP, "Hangup")]
)
@pytest.mark.parametrize("where", ["archive", "hit"])
def test_a_signal_ends_the_run_and_the_mirror_is_untouched(place, number, words, where):
    place.publish_old()
    place.upstream.publish("1001")
    before = tree(place.mirror, modes=True)
    with Stopped(place, place.dir / WORK / where, tool_args=place.words()) as stopped:
        stopped.signal(number)
        assert stopped.finish() == (128 + number, "", f"zqu-mirror: ended by signal: {words}\n")
    assert tree(place.mirror, modes=True) == before


def traced(place, mirror, *injection, log="/dev/null"):
    """Copies under strace, which interferes with the calls that name or use what may change on the mirror."""
    folder = mirror / SUBDIR
    work = folder / WORK
    inside = ["archive", info("1001"), "hit"]
    paths = [
        folder,
        work,
        *(work / name for name in inside),
        *(folder / name for name in (HIT, info("1001"), cab("1001"))),
    ]
    words = [word for path in paths for word in ("-P", path)]
    done = subprocess.run(
        ["strace", "-D", "-y", "-o", log, *injection, *words, TOOL, *place.words(mirror=mirror)],
        env=under_strace(),
        capture_output=True,
        timeout=60,
    )
    return done.returncode, done.stdout.decode(), done.stderr.decode()


def copies(place):
    """Fresh copies of the mirror, one after the other."""
    number = 0
    while True:
        number += 1
        yield shutil.copytree(place.mirror, place.base / f"copy-{number}")


def count_calls(place, calls, mirror):
    log = place.base / "calls"
    assert traced(place, mirror, "-e", f"trace={','.join(calls)}", log=log)[0] == 0
    names = [line.split("(")[0] for line in log.read_text().splitlines()]
    return {call: names.count(call) for call in calls}


def test_a_kill_before_any_step_leaves_a_whole_release_and_the_next_run_cleans_up(place):
    place.publish_old()
    place.upstream.publish("1001")
    fresh = copies(place)
    counts = count_calls(place, ["mkdir", "rename", "fsync", "write"], reference := next(fresh))
    assert counts["rename"] == 3  # of the archive, the INI and the hit INI
    points = [(call, number, next(fresh)) for call in counts for number in range(1, counts[call] + 1)]

    def kill(point):
        call, number, mirror = point
        assert traced(place, mirror, "-e", f"inject={call}:signal=KILL:when={number}")[0] == -signal.SIGKILL
        assert place.check(mirror=mirror)[0] == 0
        assert run(*place.words(mirror=mirror))[0] == 0
        assert place.check(mirror=mirror)[0] == 0
        left = tree(mirror, modes=True)
        left.pop(f"{SUBDIR}/{WORK}", None)
        assert {name: found for name, found in left.items() if WORK not in name} == tree(reference, modes=True)

    with ThreadPoolExecutor(4) as pool:
        list(pool.map(kill, points))


def test_no_room_at_any_step_leaves_the_mirror_untouched(place):
    place.publish_old()
    place.upstream.publish("1001")
    fresh = copies(place)
    before = tree(place.mirror, modes=True)
    counts = count_calls(place, ["mkdir", "rename", "fsync", "write"], reference := next(fresh))
    points = [(call, number, next(fresh)) for call in counts for number in range(1, counts[call] + 1)]

    def fail(point):
        call, number, mirror = point
        code, out, err = traced(place, mirror, "-e", f"inject={call}:error=ENOSPC:when={number}")
        if err.startswith("zqu-mirror: 1001 is published, but a power cut might undo that: "):
            assert tree(mirror, modes=True) == tree(reference, modes=True)
        else:
            assert (code, out) == (1, "")
            assert re.fullmatch("(zqu-mirror: [^\n]+\n){1,2}", err)
            assert tree(mirror, modes=True) == before
        return code

    with ThreadPoolExecutor(4) as pool:
        assert list(pool.map(fail, points)).count(1) > 8


def test_each_step_is_on_disk_before_the_next_names_it(place):
    place.publish_old()
    place.upstream.publish("1001")
    log = place.base / "log"
    assert traced(place, place.mirror, "-e", "trace=fsync,rename", log=log)[0] == 0
    text = log.read_text().replace(str(place.dir), "D").replace(WORK, "W")
    steps = [
        re.sub(r"^(\w+)\((?:\d+<)?(.*?)>?\) += 0$", r"\1 \2", line).replace('"', "")
        for line in text.splitlines()
        if not line.startswith(("+++", "---"))
    ]
    assert steps == [
        f"fsync D/W/{info('1001')}",
        "fsync D/W/archive",
        f"rename D/W/archive, D/{cab('1001')}",
        "fsync D",
        f"rename D/W/{info('1001')}, D/{info('1001')}",
        "fsync D",
        "fsync D/W/hit",
        f"rename D/W/hit, D/{HIT}",
        "fsync D",
    ]

"""zqu-mirror mirror: the copy of an upstream mirror is whole and the upstream's to the byte, or nothing changes."""

import subprocess

import archives
import pytest
from mirror_tool import DOTS_RULE, HIT_RULE, NAME_RULE, WORK, change_byte, change_info, cut, remove, run
from outcomes import tree
from release import HIT, good_files, info_name, sha256
from scripted_server import ScriptedServer, flood, head, reply, stall
from tools import AS_ROOT

REPAIR = "run zqu-mirror repair --from UPSTREAM MIRROR"


def cab(id):
    return f"antivir-v2-{id}.cab"  # not as zqu-mirror names its own


def done(copy, id, archive=None, did="mirrored"):
    """How a copy of this release ends."""
    return 0, f"{did} {copy.summary(id, archive or cab(id))}\n", ""


def expect_files(copy, *ids):
    """The whole mirror holds these releases of the upstream's, the last of them current."""
    names = [name for id in ids for name in (info_name(id), cab(id))]
    content = {name: ("100644", copy.upstream.path(name).read_bytes()) for name in names}
    hit = ("100644", f"[Current]\ndefId = {ids[-1]}\n".encode())
    assert tree(copy.directory, modes=True) == {".": ("40755", None), HIT: hit, **content}


def archives_asked(copy, count):
    """The archives that the upstream was asked for, after this number of requests."""
    return [line for line in copy.nginx.requests(copy.upstream.subdir, count) if ".cab" in line]


# ---- What is copied ----


def test_copy_is_the_upstreams_to_the_byte(copy):
    """And the next release follows, while the former one stays."""
    copy.upstream.publish("1001")
    assert copy.run(umask=0o077) == done(copy, "1001")
    expect_files(copy, "1001")
    copy.upstream.publish("1002")
    assert copy.run() == done(copy, "1002")
    expect_files(copy, "1001", "1002")
    times = [copy.path(name).stat().st_mtime_ns for name in (info_name("1001"), HIT)]
    assert times[0] == times[1]  # as prune expects
    assert copy.check()[::2] == (0, "")


def test_nothing_new_changes_nothing_and_asks_twice(copy):
    copy.follow("1001")
    before = copy.seen()
    asked = [f"{HIT} 200", f"{info_name('1001')} 200"]
    assert copy.run() == (0, "nothing new: 1001 is current\n", "")
    assert copy.seen() == before
    assert copy.nginx.requests(copy.upstream.subdir, 5) == [*asked, f"{cab('1001')} 200", *asked]
    copy.upstream.write(info_name("1001"), copy.upstream.path(info_name("1001")).read_text() + "; a remark\n")
    assert copy.run() == (0, "nothing new: 1001 is current\n", "")
    assert copy.seen() == before


def test_upstream_that_goes_back_is_followed_without_a_download(copy):
    copy.follow("1001", "1002")
    copy.upstream.write(HIT, "[Current]\r\ndefId=1001\r\n")
    assert copy.run() == done(copy, "1001", did="made current again")
    expect_files(copy, "1002", "1001")
    assert archives_asked(copy, 8) == [f"{cab('1001')} 200", f"{cab('1002')} 200"]


def test_archive_that_is_here_already_is_not_downloaded_again(copy):
    copy.follow("1001")
    copy.upstream.announce("1002", cab("1001"))
    assert copy.run() == done(copy, "1002", cab("1001"))
    assert copy.files() == sorted([HIT, info_name("1001"), info_name("1002"), cab("1001")])
    assert archives_asked(copy, 5) == [f"{cab('1001')} 200"]


# ---- What is refused ----


def change(**values):
    """A change of the upstream's complete-info INI of 1002."""
    return lambda copy: change_info(copy.upstream, "1002", **values)


def damage_definition(copy):
    copy.upstream.publish("1002", [*dict(good_files("1002"), **{"aivsecon-v2.def": b"other"}).items()])


def with_id(id):
    return lambda copy: copy.upstream.write(HIT, f"defId = {id}\n")


UPSTREAM = "the upstream mirror's"
DAMAGED_FILE = "aivsecon-v2.def does not have the digest that the index gives"
GET_ERROR = "GET {{url}}/{}: HTTP response code said error: 404"
NO_DIGEST = f"{UPSTREAM} {cab('1002')} does not have the digest {{digest}}"
LONG = "x" * (255 - len(".cab.part")) + "y.cab"
REFUSED_IDS = {
    "../9": f"it {NAME_RULE}",
    "..": f"it {DOTS_RULE}",
    "hit": f"it {HIT_RULE}",
    "9-hit": f"it {HIT_RULE}",
    "x" * 300: "it is too long for a file name",
}
REFUSED_ARCHIVES = {
    "../x.cab": NAME_RULE,
    "..": DOTS_RULE,
    WORK: "must not begin with a dot",
    HIT: "must not end in .ini",
    f"{HIT}.10": "must not hold -hit.ini",
    LONG: "is too long for a file name",
}
# A change to an upstream with the release 1002, and the message.
TAMPERED = {
    "no hit INI": (lambda copy: copy.upstream.path(HIT).unlink(), GET_ERROR.format(HIT)),
    "no id": (with_id(""), f"{HIT} names no release"),
    "no info": (with_id("9"), GET_ERROR.format(info_name("9"))),
    "no name": (change(name=""), f"{info_name('1002')} names no archive or no digest"),
    "no digest": (change(SHA256=""), f"{info_name('1002')} names no archive or no digest"),
    "archive missing": (change(name="gone.cab"), GET_ERROR.format("gone.cab")),
    "archive damaged": (lambda copy: copy.upstream.write(cab("1002"), b"damaged"), NO_DIGEST),
    "definition damaged": (damage_definition, f"{UPSTREAM} archive is refused: {DAMAGED_FILE}"),
    **{f"id {id[:9]}": (with_id(id), f"{UPSTREAM} id {id} is refused: {why}") for id, why in REFUSED_IDS.items()},
    **{
        f"name {name[:9]}": (change(name=name), f"{UPSTREAM} archive name {name} is refused: it {rule}")
        for name, rule in REFUSED_ARCHIVES.items()
    },
}


@pytest.mark.parametrize("fault", TAMPERED)
def test_what_a_client_would_refuse_leaves_the_mirror_untouched(copy, fault):
    make, line = TAMPERED[fault]
    copy.follow("1001")
    copy.upstream.publish("1002")
    digest = sha256(copy.upstream.path(cab("1002")).read_bytes())
    make(copy)
    line = line.format(digest=digest, url=f"{copy.nginx.url()}/{copy.upstream.subdir}")
    copy.expect_refused(line, *copy.words())


SHORT = f"{cab('1001')} has 7 bytes instead of {{size}}"
TAKEN = f"{info_name('1001')} names it"
OTHER_CONTENT = "1001 is on the mirror with other content: an id never gets other content"


def follow_and_change(copy):
    copy.follow("1001")
    copy.upstream.publish("1001", good_files("other"))


def follow_and_damage(copy):
    copy.follow("1001", "1002")
    with_id("1001")(copy)
    copy.write(cab("1001"), b"damaged")


def follow_and_take_name(copy):
    copy.follow("1001")
    archives.write_cab(copy.upstream.path(cab("1001")), good_files("1002"))
    copy.upstream.announce("1002", cab("1001"))


# What is here does not fit to what the upstream says.
CONFLICTS = {
    "id here": (lambda copy: (copy.upstream.publish("1001"), copy.publish("1001")), OTHER_CONTENT),
    "id gets other content": (follow_and_change, OTHER_CONTENT),
    "id here damaged": (follow_and_damage, f"1001 is on the mirror, but damaged: {SHORT}; {REPAIR}"),
    "archive name taken": (follow_and_take_name, f"{cab('1001')} is on the mirror with other content, and {TAKEN}"),
}


@pytest.mark.parametrize("case", CONFLICTS)
def test_conflict_with_what_is_here_is_refused(copy, case):
    make, line = CONFLICTS[case]
    make(copy)
    copy.expect_refused(line.format(size=copy.upstream.path(cab("1001")).stat().st_size), *copy.words())


# A change to the current release here, and the message, instead of "nothing new".
DAMAGED = {
    "size": (cut(cab("1001"), 20), "has 20 bytes instead of {size}", []),
    "gone": (remove(cab("1001")), "is missing", []),
    "digest": (change_byte(cab("1001")), "does not have the digest {digest}", ["--verify"]),
}


@pytest.mark.parametrize("case", DAMAGED)
def test_damaged_files_here_are_not_nothing_new(copy, case):
    damage, what, words = DAMAGED[case]
    copy.follow("1001")
    data = copy.path(cab("1001")).read_bytes()
    assert copy.run("--verify") == (0, "nothing new: 1001 is current\n", "")
    damage(copy)
    what = what.format(size=len(data), digest=sha256(data))
    copy.expect_refused(f"1001 is current, but damaged: {cab('1001')} {what}; {REPAIR}", *copy.words(*words))
    if words:
        assert copy.run() == (0, "nothing new: 1001 is current\n", "")


@pytest.mark.parametrize("size", [None, 0, 77])
def test_digest_decides_where_the_upstream_gives_no_true_size(copy, size):
    copy.upstream.publish("1001")
    change_info(copy.upstream, "1001", size=size)
    assert copy.run()[0] == 0
    assert copy.run() == (0, "nothing new: 1001 is current\n", "")
    change_byte(cab("1001"))(copy)
    assert copy.run()[0] == 1


def test_damage_here_is_found_while_upstreams_release_is_held(copy):
    copy.follow("1001", "1002")
    assert run("activate", copy.root, "1001")[0] == 0
    size = copy.size(cab("1001"))
    cut(cab("1001"), 20)(copy)
    damage = f"{cab('1001')} has 20 bytes instead of {size}"
    copy.expect_refused(f"1001 is current, but damaged: {damage}; {REPAIR}", *copy.words())
    copy.path(HIT).unlink()
    copy.expect_refused(f"{HIT} is missing or names no release; {REPAIR}", *copy.words())


def test_file_of_others_with_the_archives_name_is_kept(copy):
    copy.upstream.publish("1001")
    copy.directory.mkdir(parents=True)
    copy.write(cab("1001"), b"of others")
    reason = "is on the mirror with other content, and is not from zqu-mirror: remove or rename it"
    assert copy.run() == (1, "", f"zqu-mirror: {cab('1001')} {reason}\n")
    assert copy.path(cab("1001")).read_bytes() == b"of others"


# Takes the right to pass over permissions from a run as root.
BARE = ["setpriv", "--bounding-set=-all,+setuid,+setgid", "--inh-caps=-all"] if AS_ROOT else []


def test_what_a_killed_run_has_left_without_modes_is_removed(copy):
    copy.publish_small("old")
    for words in (["prune", "--keep", "1", copy.root], copy.publishing("1")):
        unpacked = copy.path(WORK) / "unpacked"
        unpacked.mkdir(parents=True)
        (unpacked / "antivir-v2.def").write_text("left\n")
        unpacked.chmod(0)
        done = subprocess.run([*BARE, run.path, *words], capture_output=True, timeout=60)
        assert (done.returncode, done.stderr, copy.path(WORK).exists()) == (0, b"", False)


@pytest.mark.parametrize("name", [HIT, info_name("1001"), cab("1001")])
def test_redirect_to_plain_http_is_refused_unless_allowed(copy, scripted, name):
    copy.upstream.publish("1001")
    with ScriptedServer() as plain:
        for server, moved in ((scripted.server, name), (plain, None)):
            for file in (HIT, info_name("1001"), cab("1001")):
                server.script[file] = [reply(copy.upstream.path(file).read_bytes())]
        scripted.server.script[name] = [reply(b"", "302 Found", f"Location: {plain.base()}/{name}")]
        words = ["mirror", "--ca", scripted.ca_path, "--upstream-subdir", "defs", scripted.url, copy.root]
        why = f"redirected from https to {plain.base()}/{name}"
        way = "anybody on the way can change the answer"
        copy.expect_refused(
            f"GET {scripted.url}/defs/{name}: {why}, where {way}: give --allow-http to permit it", *words
        )
        assert plain.targets() == []
        result = run(*words, "--allow-http")
        assert result == (0, done(copy, "1001")[1], f"zqu-mirror: warning: {why}: {way}\n")
        assert plain.targets() == [name]


@pytest.mark.parametrize("steps", [[stall], [head(), flood(b"x", 0.1)]], ids=["silent", "dripping"])
def test_upstream_that_falls_silent_or_drips_is_given_up(copy, scripted, steps):
    scripted.server.script = {HIT: steps}
    words = ["mirror", "--ca", scripted.ca_path, "--timeout", "1s", "--subdir", "defs", scripted.url, copy.root]
    copy.expect_refused(f"GET {scripted.url}/defs/{HIT}: Timeout was reached", *words)

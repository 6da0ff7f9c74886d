"""zqu-mirror repair: what is damaged comes back from the upstream mirror to the byte, or the release before does."""

import os
import pathlib
import re
import signal
import subprocess
import tempfile

import pytest
from gateway import wait_for
from mirror_tool import HELD, NAME_RULE, REPLACED, SUBDIR, WORK
from mirror_tool import cab, change_byte, change_info, cut, forge, remove, run, write
from release import HIT, good_files, info_name, sha256
from scripted_server import reply, stall
from tools import AS_ROOT, under_strace

NEW, OLD = "1002", "1001"
INFO, ARCHIVE = info_name(NEW), f"antivir-v2-{NEW}.cab"  # of the upstream's current release
ADVICE = "zqu-mirror: nothing is changed: give --from UPSTREAM to restore, or --yes to do this\n"


def from_upstream(copy, *words):
    where = ["--from", copy.nginx.url(), "--ca", copy.nginx.ca_path, "--upstream-subdir", copy.upstream.subdir]
    return ["repair", *where, *words, copy.root]


def files(own):
    """The mirror's files, less what is not served."""
    return {name: what for name, what in own.tree().items() if "/.zqu-mirror" not in name}


def kept(own):
    """The files that repairs have replaced, by name."""
    return {path.name: path.read_bytes() for path in own.path(REPLACED).rglob("*") if path.is_file()}


def masked(text):
    return re.sub(r"(?<=\.replaced/)\S+", "TIME", text)


def replace_by(make, name=INFO):
    return lambda own: (own.path(name).unlink(), make(own.path(name)))


def shorten(name, count):
    return lambda own: os.truncate(own.path(name), own.size(name) - count)


FORMER_ARCHIVE = f"antivir-v2-{OLD}.cab"
NO_ARCHIVE = f"{INFO} names no archive or no digest"
A_PATH = f"{INFO}: the archive's name ../x.cab {NAME_RULE}"
GONE = "GET file://{info}: No such file or directory"
DIGEST = f"{ARCHIVE} does not have the digest {{digest}}"
MADE = "made current {new}\n"
# What is done to a mirror whose current release is the upstream's; what is found; what is then made current.
DAMAGES = {
    "INI cut short": (cut(INFO, 70), f"{NEW}: {NO_ARCHIVE}", ""),
    "INI without its end": (shorten(INFO, 1), f"{INFO} differs from the upstream mirror's", ""),
    "INI missing": (remove(INFO), f"{NEW}: {INFO} is missing", ""),
    "INI empty": (write(INFO, ""), f"{NEW}: {NO_ARCHIVE}", ""),
    "INI with a path": (lambda own: change_info(own, NEW, name="../x.cab"), f"{NEW}: {A_PATH}", ""),
    "INI a FIFO": (replace_by(os.mkfifo), f"{NEW}: GET file://{{info}}: not a regular file", ""),
    "INI a link to nowhere": (replace_by(lambda path: path.symlink_to("gone")), f"{NEW}: {GONE}", ""),
    "archive with lost bytes": (cut(ARCHIVE, 100), f"{NEW}: {ARCHIVE} has 100 bytes instead of {{size}}", ""),
    "archive with changed bytes": (change_byte(ARCHIVE), f"{NEW}: {DIGEST}", ""),
    "archive missing": (remove(ARCHIVE), f"{NEW}: {ARCHIVE} is missing", ""),
    "archive and INI": (forge(NEW, ARCHIVE), f"{NEW}: {ARCHIVE} cannot be unpacked: Unrecognized archive format", ""),
    "hit INI cut short": (write(HIT, "[Current]\ndefI"), f"{HIT} names no release", MADE),
    "hit INI cut in its id": (write(HIT, "[Current]\ndefId = 10"), f"{HIT} may be cut short: it ends with 10", MADE),
    "hit INI missing": (remove(HIT), f"{HIT} is missing", MADE),
    "hit INI wrong": (write(HIT, "[Current]\ndefId = 9\n"), f"9: {info_name('9')} is missing", MADE),
    "hit INI with a path": (write(HIT, "[Current]\ndefId = ../9\n"), f"{HIT} names no release", MADE),
    "former INI": (cut(info_name(OLD), 30), f"{OLD}: {info_name(OLD)} names no archive or no digest", ""),
    "former archive": (cut(FORMER_ARCHIVE, 9), f"{OLD}: {FORMER_ARCHIVE} has 9 bytes instead of {{old_size}}", ""),
}


@pytest.mark.parametrize("case", DAMAGES)
def test_damage_is_repaired_from_the_upstream_to_the_byte(copy, case):
    damage, found, made = DAMAGES[case]
    copy.follow(OLD, NEW)
    whole = files(copy)
    names = {
        "digest": sha256(copy.path(ARCHIVE).read_bytes()),
        "size": copy.size(ARCHIVE),
        "old_size": copy.size(f"antivir-v2-{OLD}.cab"),
        "info": copy.path(INFO),
        "new": copy.summary(NEW, ARCHIVE),
    }
    old = copy.summary(OLD, f"antivir-v2-{OLD}.cab")
    damage(copy)
    damaged = {path.name: path.read_bytes() for path in copy.directory.iterdir() if path.is_file()}
    code, out, err = run(*from_upstream(copy))
    assert (code, err) == (0, "")
    assert files(copy) == whole
    restored = "" if made else f"restored {old if 'former' in case else names['new']}\n"
    end = f"what was replaced is in {copy.directory}/{REPLACED}/TIME\n" if copy.path(REPLACED).exists() else ""
    assert masked(out) == f"found {found}\n{restored}{made}{end}".format(**names)
    assert all(damaged[name] == data for name, data in kept(copy).items())
    assert {*kept(copy)} == {name for name in damaged if damaged[name] != copy.path(name).read_bytes()}
    assert copy.check()[0] == 0
    assert run(*from_upstream(copy)) == (0, f"nothing is damaged: {NEW} is current\n", "")


@pytest.mark.parametrize("name", [INFO, HIT])
def test_ini_cut_at_any_length_is_repaired(copy, name):
    copy.follow(OLD, NEW)
    whole = files(copy)
    where = [f"file://{copy.nginx.root}", "--upstream-subdir", copy.upstream.subdir]
    sound = copy.path(name).read_bytes()
    for size in range(len(sound)):
        os.truncate(copy.path(name), size)
        assert run("repair", "--from", *where, copy.root)[::2] == (0, ""), size
        assert files(copy) == whole if name == INFO else copy.check()[1].startswith(f"ok       {HIT} names {NEW}\n")
        copy.write(name, sound)


def test_leftover_work_directory_is_removed(own):
    own.publish_small("1")
    whole = own.tree()
    own.path(WORK).mkdir()
    own.write(f"{WORK}/archive", "left")
    lines = f"found {WORK}, which a killed run has left\nremoved {WORK}\n"
    assert run("repair", own.root) == (0, lines, "")
    assert own.tree() == whole
    assert run("repair", own.root) == (0, "nothing is damaged: 1 is current\n", "")


# ---- What the upstream mirror does not have ----


@pytest.mark.parametrize("scheme", ["https", "file"])
def test_release_that_no_side_has_gives_way_to_the_upstreams(copy, scheme):
    copy.follow(OLD, NEW)
    left = {name: what for name, what in files(copy).items() if name.split("/")[-1] not in (INFO, ARCHIVE)}
    found = f"found {NEW}: {ARCHIVE} has 100 bytes instead of {copy.size(ARCHIVE)}\n"
    copy.upstream.publish("1003")
    copy.upstream.path(INFO).unlink()
    cut(ARCHIVE, 100)(copy)
    where = [f"file://{copy.nginx.root}", "--upstream-subdir", copy.upstream.subdir]
    code, out, err = run(*from_upstream(copy) if scheme == "https" else ("repair", "--from", *where, copy.root))
    made = copy.summary("1003", "antivir-v2-1003.cab")
    end = f"set aside {NEW}\nwhat was replaced is in {copy.directory}/{REPLACED}/TIME\n"
    assert (code, masked(out), err) == (0, f"{found}restored {made}\nmade current {made}\n{end}", "")
    assert {*kept(copy)} == {HIT, INFO, ARCHIVE}
    new = (f"{SUBDIR}/{name}" for name in (info_name("1003"), "antivir-v2-1003.cab"))
    assert {*files(copy)} == {*left, *new}
    assert copy.check()[0] == 0


@pytest.mark.parametrize("status", ["403 Forbidden", "500 Error", "503 Busy"])
def test_upstream_that_fails_is_not_one_that_lacks_the_release(copy, scripted, status):
    copy.follow(OLD, NEW)
    cut(ARCHIVE, 100)(copy)
    scripted.server.script = {INFO: [reply(status=status)], HIT: [reply(b"[Current]\ndefId=1\n")]}
    where = ["--from", scripted.url, "--ca", scripted.ca_path, "--upstream-subdir", "defs"]
    before = copy.seen()
    code, out, err = run("repair", *where, "--yes", copy.root)
    reason = f"HTTP response code said error: {status[:3]}"
    assert code == 1 and err.startswith(f"zqu-mirror: GET {scripted.url}/defs/{INFO}: {reason}")
    assert copy.seen() == before


# A hostile upstream mirror's change to the release, and the message.
HOSTILE = {
    "archive damaged": (write(ARCHIVE, "x"), f"the upstream mirror's {ARCHIVE} does not have the digest"),
    "archive missing": (remove(ARCHIVE), "GET "),
    "archive is an INI": (lambda up: change_info(up, NEW, name=HIT), f"the upstream mirror's archive name {HIT} is"),
    "id with a path": (write(HIT, "defId = ../9\n"), "the upstream mirror's id ../9 is refused"),
    "name taken": (
        lambda up: up.announce(NEW, f"antivir-v2-{OLD}.cab"),
        f"antivir-v2-{OLD}.cab is on the mirror with other content, and {info_name(OLD)} names it",
    ),
}


@pytest.mark.parametrize("case", HOSTILE)
def test_what_a_client_would_refuse_is_not_restored(copy, case):
    make, line = HOSTILE[case]
    copy.follow(OLD, NEW)
    if case == "name taken":
        copy.upstream.publish(OLD, good_files("other"))
    make(copy.upstream)
    (remove(HIT) if case == "id with a path" else cut(ARCHIVE, 9))(copy)
    before = copy.seen()
    code, out, err = run(*from_upstream(copy, "--yes"))
    assert code == 1 and err.startswith(f"zqu-mirror: {line}")
    assert copy.seen() == before


def test_sound_release_with_other_content_upstream_is_left_alone(copy):
    copy.follow(NEW)
    copy.upstream.publish(NEW, good_files("other"))
    line = f"{NEW} is sound here, but the upstream mirror has other content under this id: nothing is changed"
    copy.expect_refused(line, *from_upstream(copy))


# ---- Without an upstream mirror, or with nothing to choose there ----

# What is done to a mirror with the releases 1, 2 and 3; what is found; which release becomes current again, and which
# goes.
FORMER = {
    "archive cut short": (cut(cab("3"), 50), f"3: {cab('3')} has 50 bytes instead of {{size}}", "2", "3"),
    "archive changed": (change_byte(cab("3")), f"3: {cab('3')} does not have the digest {{digest}}", "2", "3"),
    "INI cut short": (cut(info_name("3"), 50), f"3: {info_name('3')} names no archive or no digest", "2", "3"),
    "INI missing": (remove(info_name("3")), f"3: {info_name('3')} is missing", "2", ""),
    "hit INI missing": (remove(HIT), f"{HIT} is missing", "3", ""),
    "hit INI cut short": (cut(HIT, 15), f"{HIT} names no release", "3", ""),
    "hit INI wrong": (write(HIT, "[Current]\ndefId = 9\n"), f"9: {info_name('9')} is missing", "3", ""),
    "hit INI a directory": (replace_by(os.mkdir, HIT), f"{HIT} names no release", "3", ""),
    "former archive": (cut(cab("1"), 50), f"1: {cab('1')} has 50 bytes instead of {{size}}", None, "1"),
}


@pytest.mark.parametrize("case", FORMER)
def test_release_before_becomes_current_only_with_consent(own, case):
    damage, found, made, gone = FORMER[case]
    own.publish_small("1", "2", "3")
    names = {"size": own.size(cab(gone or "3")), "digest": sha256(own.path(cab("3")).read_bytes())}
    damage(own)
    found = f"found {found}\n".format(**names)
    goes = [info_name(gone), cab(gone)] if gone else []
    left = [name for name in own.files() if name not in goes]
    would = (f"would make current {made}\n" if made else "") + (f"would set aside {gone}\n" if gone else "")
    before = own.seen()
    assert run("repair", own.root) == (1, found + would, ADVICE)
    assert own.seen() == before
    code, out, err = run("repair", "--yes", own.root)
    did = f"made current {own.summary(made)}\n" if made else ""
    did += f"set aside {gone}\n" if gone else ""
    end = f"what was replaced is in {own.directory}/{REPLACED}/TIME\n" if own.path(REPLACED).exists() else ""
    assert (code, masked(out), err) == (0, found + did + end, "")
    assert [name for name in own.files() if not name.startswith(".")] == sorted({*left, HIT})
    assert own.check()[1].startswith(f"ok       {HIT} names {made or 3}\n")
    assert run("repair", own.root) == (0, f"nothing is damaged: {made or 3} is current\n", "")


def test_held_release_is_never_chosen(copy):
    copy.publish_small("1")
    copy.follow(OLD, NEW)
    assert run("activate", copy.root, OLD)[0] == 0
    cut(f"antivir-v2-{OLD}.cab", 9)(copy)
    copy.upstream.path(info_name(OLD)).unlink()
    assert run("repair", copy.root)[1].endswith(f"would make current 1\nwould set aside {OLD}\n")
    held = "the upstream mirror's current release is held; give --yes to do this, or choose a release with "
    refused = (1, f"zqu-mirror: nothing is changed: {held}zqu-mirror activate\n")
    assert run(*from_upstream(copy))[::2] == refused
    assert run(*from_upstream(copy, "--yes"))[0] == 0
    assert copy.check()[1].startswith(f"ok       {HIT} names 1\n")
    remove(info_name(NEW))(copy)
    write(HIT, f"[Current]\ndefId = {NEW}\n")(copy)
    assert run(*from_upstream(copy))[::2] == refused


def forged(copy):
    copy.write(ARCHIVE, b"forged")
    copy.announce(NEW, ARCHIVE)


# Damages that the mirror's own files do not show.
HIDDEN = {
    "current INI": (shorten(INFO, 2), remove(HIT)),
    "former INI": (shorten(info_name(OLD), 2),),
    "forged release": (forged, remove(HIT)),
}


@pytest.mark.parametrize("case", HIDDEN)
def test_release_is_compared_with_the_upstreams_to_the_byte(copy, case):
    copy.follow(OLD, NEW)
    whole = files(copy)
    for damage in HIDDEN[case]:
        damage(copy)
    assert run(*from_upstream(copy))[0] == 0
    assert files(copy) == whole


def test_signal_ends_a_repair_also_when_the_release_is_current(copy, scripted):
    """While it restores a former release."""
    copy.follow(OLD, NEW)
    sizes = {path.name: [reply(path.read_bytes())] for path in copy.directory.iterdir()}
    scripted.server.script = {**sizes, f"antivir-v2-{OLD}.cab": [stall]}
    cut(f"antivir-v2-{OLD}.cab", 9)(copy)
    remove(HIT)(copy)
    words = ["repair", "--ca", scripted.ca_path, "--upstream-subdir", "defs", "--from", scripted.url, copy.root]
    with subprocess.Popen([run.path, *words], stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True) as process:
        wait_for(lambda: f"antivir-v2-{OLD}.cab" in str(scripted.server.requests))
        process.send_signal(signal.SIGTERM)
        out, err = process.communicate(timeout=60)
    assert (process.returncode, err) == (128 + signal.SIGTERM, "zqu-mirror: ended by signal: Terminated\n")
    assert f"made current {copy.summary(NEW, ARCHIVE)}\n" in out
    assert not copy.path(WORK).exists()


def test_repair_that_is_killed_costs_no_sound_archive(copy):
    """Neither then nor when another command cleans up behind it."""
    copy.follow(OLD, NEW)
    whole = files(copy)
    cut(info_name(OLD), 60)(copy)
    for number in (1, 2, 3):
        strace = ["strace", "-f", "-o", "/dev/null", "-e", f"inject=rename:signal=KILL:when={number}"]
        run(*from_upstream(copy), prefix=strace, env=under_strace())
        assert run("activate", copy.root, NEW)[0] == 0
    assert run(*from_upstream(copy))[0] == 0
    assert files(copy) == whole


def test_file_that_cannot_be_read_is_no_damage(copy):
    copy.follow(OLD, NEW)
    before = copy.seen()
    path = copy.path(ARCHIVE)
    strace = ["strace", "-f", "-o", "/dev/null", "-P", path, "-e", "inject=read:error=EIO:when=1"]
    code, out, err = run("repair", "--yes", copy.root, prefix=strace, env=under_strace())
    assert (code, out, err) == (1, "", f"zqu-mirror: cannot read {path}: Input/output error\n")
    assert copy.seen() == before


def test_link_in_place_of_what_is_kept_is_not_followed(copy, tmp_path):
    copy.follow(OLD, NEW)
    cut(ARCHIVE, 9)(copy)
    (tmp_path / "elsewhere").mkdir()
    copy.path(REPLACED).symlink_to(tmp_path / "elsewhere")
    code, _, err = run(*from_upstream(copy))
    assert code == 1 and "is not a directory, but repair keeps there what it replaces: remove or rename it" in err
    assert list((tmp_path / "elsewhere").iterdir()) == []


@pytest.mark.skipif(not AS_ROOT, reason="only root can work as another user")
def test_root_works_as_the_owner_of_the_mirror():
    with tempfile.TemporaryDirectory() as base:
        mirror, definitions = pathlib.Path(base, "mirror"), pathlib.Path(base, "definitions")
        os.chmod(base, 0o755)
        definitions.write_text("signature\n")
        mirror.mkdir()
        os.chown(mirror, 54321, 54322)
        for id in "12":
            assert run("publish", "--id", id, mirror, definitions, definitions)[0] == 0
        assert run("activate", mirror, "1")[0] == 0
        assert {(path.stat().st_uid, path.stat().st_gid) for path in mirror.rglob("*")} == {(54321, 54322)}
        (mirror / "led").symlink_to(base)  # to a directory of root's
        led = run("publish", "--id", "3", "--subdir", "led", mirror, definitions, definitions)
        assert (led[0], "Permission denied" in led[2], len(os.listdir(base))) == (1, True, 2)


def test_mirror_without_a_sound_release_is_left_alone(own):
    own.publish_small("1")
    cut(cab("1"), 9)(own)
    before = own.seen()
    line = "zqu-mirror: there is no sound release here that is not held: use --from, or publish one\n"
    assert run("repair", "--yes", own.root)[::2] == (1, line)
    assert own.seen() == before


def test_archive_that_a_sound_release_shares_is_not_set_aside(own):
    own.publish_small("1", "2")
    own.write(info_name("0"), own.path(info_name("1")).read_text().replace("SHA256 = ", "SHA256 = 0"))
    assert run("repair", "--yes", own.root)[0] == 0
    assert [name for name in own.files() if not name.startswith(".")] == own.files_of("1", "2")
    assert {*kept(own)} == {info_name("0")}


def test_directory_without_a_mirror_is_refused(tmp_path):
    for words in (["repair"], ["activate"]):
        arguments = [tmp_path / "gone", *(["1"] if words == ["activate"] else [])]
        line = f"zqu-mirror: {tmp_path}/gone/rhex/deffiles/def5-2 is no directory: there is no mirror\n"
        assert run(*words, *arguments) == (1, "", line)
    assert [*tmp_path.iterdir()] == []


def test_what_was_replaced_is_private_and_outlives_prune(own):
    own.publish_small("1", "2", "3")
    cut(cab("3"), 9)(own)
    assert run("repair", "--yes", own.root)[0] == 0
    assert run("activate", own.root, "1")[0] == 0
    before = kept(own)
    assert before and own.path(REPLACED).stat().st_mode & 0o777 == 0o700
    assert own.prune("--keep", "1", "--grace", "0s")[0] == 0
    assert kept(own) == before
    assert own.path(HELD).exists()

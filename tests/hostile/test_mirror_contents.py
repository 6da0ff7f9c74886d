"""INIs that are odd as texts, and files that do not belong together or change between two requests."""

import pytest
from archives import write_cab
from outcomes import published
from release import HIT, Release, definitions, hit_ini, info_ini, info_name, sha256
from scripted_server import reply
from trials import NEW, OLD, SERVERS_REFUSAL, Case

BOM = b"\xef\xbb\xbf"
LINE = b"defId=" + NEW.encode()

# Hit INIs, and whether the id is found in them.
HIT_INIS = {
    b"": False,
    b"\n" * 10_000: False,
    b"\0": False,
    b"\0" * 100_000: False,
    bytes(range(256)) * 100: False,
    b"<html>" + LINE + b"</html>": False,
    b"[Current]defId=1002": False,
    b"defId": False,
    b"defId=": False,
    b"defId=\x0b\x0c \t\r\n": False,
    b";" + LINE: False,
    b"#" + LINE: False,
    b"\0" + LINE: False,
    BOM + LINE: False,  # the mark is part of the first key
    LINE.decode().encode("utf-16"): False,
    LINE.decode().encode("utf-16-be"): False,
    LINE.decode().encode("utf-32"): False,
    b"\xff\xfe" + LINE: False,
    LINE.replace(b"=", b":"): False,
    LINE.replace(b"=", b"\0="): False,
    BOM + b"[Current]\n" + LINE: True,
    BOM + b"\n" + LINE: True,
    LINE: True,
    b"  DEFID\t=\t1002\t\r": True,
    b"\r\n\r\n" + LINE + b"\r\n": True,
    b"\0\n" + LINE: True,
    b"\xff" * 1_000_000 + b"\n" + LINE: True,
    b"x" * 1_000_000 + b"=y\n" + LINE: True,
    b"=\n" * 100_000 + LINE: True,
    b"[Other]\n" + LINE + b"\n[Current]\ndefId=666": True,
    LINE + b" " * 1_000_000: True,
    b" " * 1_000_000 + LINE: True,
}


def test_hit_ini_that_is_an_odd_text_yields_the_id_or_nothing(trial):
    trial.check_all(
        trial.case("hit", [reply(text)], "accepted" if found else "unreadable") for text, found in HIT_INIS.items()
    )


def test_complete_info_that_is_an_odd_text_yields_the_record_or_nothing(trial):
    info = trial.content("info")
    size = b"size=%d" % len(trial.new.archive)
    assert size in info
    digest = b"def.Current.SHA256=" + sha256(trial.new.archive).encode()
    name = b"def.Current.name=" + trial.new.archive_name.encode()
    outcomes = {
        b"": "unreadable",
        b"\0" * 100_000: "unreadable",
        bytes(range(256)) * 100: "unreadable",
        name: "unreadable",
        digest: "unreadable",
        name + b"\ndef.Current.SHA256=": "unreadable",
        b"def.Current.name=\n" + info: "unreadable",  # the first one counts, even an empty one
        info.decode().encode("utf-16"): "unreadable",
        BOM + name + b"\n" + digest: "unreadable",
        BOM + info: "accepted",
        info.replace(b"\n", b"\r\n"): "accepted",
        info.upper().replace(trial.new.archive_name.upper().encode(), trial.new.archive_name.encode()): "accepted",
        b"x" * 1_000_000 + b"\n" + info: "accepted",
        digest + b"\n" + name: "accepted",
        info.replace(size, b"size=-9223372036854775809"): "accepted",
        info.replace(size, b"size=9" * 100): "accepted",
        info.replace(size, b"size=none"): "accepted",
    }
    trial.check_all(trial.case("info", [reply(text)], outcome) for text, outcome in outcomes.items())


@pytest.mark.parametrize(
    "digest",
    [
        "0" * 64,
        "x",
        "z" * 64,
        "0" * 1_000_000,
        "{0} {0}",
        "{0}0",
        "0x{0}",
        "{1}",
        '"{0}"',
        "sha256:{0}",
        "\0{0}",
        "{0}\0",
    ],
    ids=range(12),
)
def test_digest_that_is_not_the_archives_refuses_it(trial, digest):
    right = sha256(trial.new.archive)
    text = info_ini(NEW, trial.new.archive_name, digest.format(right, right[:-1]))
    case = trial.unreadable("archive", [reply(trial.new.archive)])
    trial.check_all([Case({trial.name("info"): [reply(text)]}, case.lines, case.error)])


def test_archive_of_other_content_is_refused(trial):
    """Another release's, another file altogether, more than the archive, and one bit of each byte or of every third."""
    good = trial.new.archive
    others = [Release(OLD).archive, b"", b"x", good + b"\0", b"\0" + good, good * 2, good[1:], b"\0" * 1_000_000]
    for position in range(len(good)) if trial.thorough else range(0, len(good), 3):
        flipped = bytearray(good)
        flipped[position] ^= 1 << position % 8
        others.append(bytes(flipped))
    trial.check_all(trial.unreadable("archive", [reply(other)]) for other in others)


def test_archive_replaced_on_the_way_is_refused_in_each_order(trial):
    """The mirror goes over to another release after each of the requests."""
    newer = Release("1003")
    same_name = {trial.new.archive_name: [reply(newer.archive)]}
    wrong = trial.unreadable("archive", [])
    gone = trial.refused("archive", [reply(b"", "404 x")], SERVERS_REFUSAL)
    no_info = trial.refused("info", [reply(b"", "404 x")], SERVERS_REFUSAL)
    # Both names of the complete-info INI are served: the old file already tells of the new archive.
    newer_info = reply(info_ini("1003", trial.new.archive_name, sha256(newer.archive)))
    older_archive = Case({trial.name("info"): [newer_info]}, wrong.lines, wrong.error)
    trial.check_all([Case(same_name, wrong.lines, wrong.error), gone, no_info, older_archive])


def test_hit_ini_that_goes_back_and_forth_installs_each_time_what_it_says(trial):
    """An older release is a release: nothing but equality is looked at."""
    assert trial.gateway.run_once() == published(NEW, OLD)
    trial.server.script = Release(OLD).script
    assert trial.gateway.run_once() == published(OLD, NEW)
    trial.gateway.expect_status(OLD)
    trial.set_back()
    trial.heal()


def test_hit_ini_asked_for_anew_each_time_decides_alone(trial):
    """It changes at every request; each check sees one value, and no other request asks for it again."""
    versions = iter(["gone1", NEW, "gone2"])
    trial.server.script[HIT] = lambda: [reply(hit_ini(next(versions)))]
    trial.refuse([f"err GET {trial.server.base()}/{info_name('gone1')}: {SERVERS_REFUSAL}"], failed_for("gone1"))
    assert trial.gateway.run_once() == published(NEW, OLD)
    trial.expect_new()
    assert trial.gateway.run_once() == [f"err GET {trial.server.base()}/{info_name('gone2')}: {SERVERS_REFUSAL}"]
    trial.gateway.expect_status(NEW, failed_for("gone2"))
    assert trial.tree() == trial.after()


def failed_for(version):
    return f"complete-info fetch failed for {version}"


@pytest.mark.parametrize("named", ["666", OLD, "../x", "", "10 02", "\0"])
def test_id_in_the_complete_info_is_not_looked_at(trial, named):
    """The release is installed under the id of the hit INI, whatever the second one says."""
    text = info_ini(named, trial.new.archive_name, sha256(trial.new.archive))
    trial.check_all([trial.accepted("info", [reply(text)])])


def test_index_of_another_release_refuses_the_archive(trial):
    """The index in the archive is older or newer than the files beside it, though the archive's digest is right."""
    for version in (OLD, "1003"):
        index = "".join(f"{name}.sha256={sha256(content)}\n" for name, content in definitions(version).items())
        write_cab(trial.folder / "x.cab", [("antivir-v2.ini", index.encode()), *definitions(NEW).items()])
        cab = (trial.folder / "x.cab").read_bytes()
        (trial.folder / "x.cab").unlink()
        trial.server.script[trial.name("info")] = [reply(info_ini(NEW, trial.new.archive_name, sha256(cab)))]
        trial.server.script[trial.new.archive_name] = [reply(cab)]
        error = "sha256 mismatch antivir-v2.def"
        trial.refuse([f"err run_once: staging failed: {error}"], error)
    trial.heal()

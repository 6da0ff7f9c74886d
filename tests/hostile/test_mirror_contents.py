"""INIs that are odd as texts, and files that do not belong together or change between two requests."""

from release import HIT, Release, good_files, hit_ini, index_of, info_ini, info_name, sha256
from scripted_server import reply
from trials import NEW, OLD, SERVERS_REFUSAL

BOM = b"\xef\xbb\xbf"
LINE = b"defId=" + NEW.encode()

# Hit INIs in which the id is not found, and in which it is.
NO_IDS = (
    b"\n" * 10_000,
    b"\0",
    b"\0" * 100_000,
    bytes(range(256)) * 100,
    b"<html>" + LINE + b"</html>",
    b"[Current]" + LINE,
    b"\0" + LINE,
    BOM + LINE,  # the mark is part of the first key
    LINE.decode().encode("utf-16"),
    LINE.decode().encode("utf-16-be"),
    LINE.decode().encode("utf-32"),
    b"\xff\xfe" + LINE,
    LINE.replace(b"=", b":"),
    LINE.replace(b"=", b"\0="),
)
IDS = (
    BOM + b"[Current]\n" + LINE,
    BOM + b"\n" + LINE,
    b"\0\n" + LINE,
    b"\xff" * 1_000_000 + b"\n" + LINE,
    b"x" * 1_000_000 + b"=y\n" + LINE,
    b"=\n" * 100_000 + LINE,
    LINE + b" " * 1_000_000,
    b" " * 1_000_000 + LINE,
)


def test_odd_hit_ini_yields_the_id_or_nothing(trial):
    cases = [(text, "unreadable") for text in NO_IDS] + [(text, "accepted") for text in IDS]
    trial.check_all(trial.case("hit", [reply(text)], outcome) for text, outcome in cases)


def test_odd_complete_info_yields_the_record_or_nothing(trial):
    info, cab = trial.content("info"), trial.new.archive_name
    start, name, digest, size = info.splitlines()[1:]
    outcomes = {
        b"\0" * 100_000: "unreadable",
        bytes(range(256)) * 100: "unreadable",
        b"def.Current.name=\n" + info: "unreadable",  # the first one counts, even an empty one
        info.decode().encode("utf-16"): "unreadable",
        BOM + name + b"\n" + digest: "unreadable",
        BOM + info: "accepted",
        info.replace(b"\n", b"\r\n"): "accepted",
        info.upper().replace(cab.upper().encode(), cab.encode()): "accepted",
        b"x" * 1_000_000 + b"\n" + info: "accepted",
        digest + b"\n" + name: "accepted",
        **{
            info.replace(size, b"def.Current.size=" + odd): "accepted"
            for odd in (b"none", b"9" * 100, b"-" + b"9" * 30)
        },
        # The release is installed under the id of the hit INI, whatever this one says.
        **{
            info.replace(start, b"def.Current.defId=" + odd): "accepted"
            for odd in (b"666", b"1001", b"../x", b"", b"\0")
        },
    }
    trial.check_all(trial.case("info", [reply(text)], outcome) for text, outcome in outcomes.items())


def test_digest_that_is_not_the_archives_refuses_it(trial):
    right = sha256(trial.new.archive)
    digests = ["0" * 64, "x", "z" * 64, "0" * 1_000_000, f"{right} {right}", f"{right}0", f"0x{right}", right[:-1]]
    digests += [f'"{right}"', f"sha256:{right}", f"\0{right}", f"{right}\0"]
    infos = (info_ini(NEW, trial.new.archive_name, digest) for digest in digests)
    trial.check_all(trial.unstaged({info_name(NEW): [reply(info)]}, "CAB sha256 mismatch") for info in infos)


def test_archive_of_other_content_is_refused(trial):
    """Another release's, another file altogether, more than the archive, and one bit of each byte or of every third."""
    good = trial.new.archive
    others = [trial.old.archive, b"", b"x", good + b"\0", b"\0" + good, good * 2, good[1:], b"\0" * 1_000_000]
    for position in range(0, len(good), 1 if trial.thorough else 3):
        others.append(good[:position] + bytes([good[position] ^ 1 << position % 8]) + good[position + 1 :])
    trial.check_all(trial.case("archive", [reply(other)], "unreadable") for other in others)


def test_archive_replaced_on_the_way_is_refused_in_each_order(trial):
    """The mirror goes over to another release after each of the requests."""
    newer = Release("1003")
    # Both names of the complete-info INI are served: the old file names the new archive already.
    newer_info = info_ini("1003", trial.new.archive_name, sha256(newer.archive))
    trial.check_all(
        [
            trial.case("archive", [reply(newer.archive)], "unreadable"),
            trial.case("archive", [reply(b"", "404 x")], SERVERS_REFUSAL),
            trial.case("info", [reply(b"", "404 x")], SERVERS_REFUSAL),
            trial.unstaged({info_name(NEW): [reply(newer_info)]}, "CAB sha256 mismatch"),
        ]
    )


def test_older_release_is_installed_like_any_other(trial):
    """Nothing but equality of ids is looked at."""
    trial.accept()
    trial.go_back()
    trial.heal()


def test_hit_ini_decides_alone_and_is_asked_for_once_in_a_check(trial):
    """It changes at every request."""
    versions = iter(["gone1", NEW, "gone2"])
    trial.server.script[HIT] = lambda: [reply(hit_ini(next(versions)))]
    gone = f"err GET {trial.server.base()}/{{}}: {SERVERS_REFUSAL}"
    trial.expect(trial.refused({}, "complete-info fetch failed for gone1", gone.format(info_name("gone1"))))
    trial.accept()
    assert trial.gateway.run_once() == [gone.format(info_name("gone2"))]
    trial.gateway.expect_status(NEW, "complete-info fetch failed for gone2")
    assert trial.tree() == trial.after()


def test_index_of_another_release_refuses_the_archive(trial):
    """The index in the archive is older or newer than the files beside it, though the archive's digest is right."""
    releases = (Release(NEW, [*good_files(NEW)[:2], index_of(good_files(other)[:2])]) for other in (OLD, "1003"))
    trial.check_all(trial.unstaged(release.script, "sha256 mismatch antivir-v2.def") for release in releases)

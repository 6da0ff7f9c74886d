"""INIs that are odd as texts, archives that are others, and releases that are older."""

from scripted_server import reply
from trials import NEW

BOM = b"\xef\xbb\xbf"
LINE = b"defId=" + NEW.encode()

# Hit INIs in which the id is not found, and in which it is.
NO_IDS = (
    bytes(range(256)) * 100,
    b"\0" + LINE,
    LINE.replace(b"=", b"\0="),
    BOM + LINE,  # the mark is part of the first key
    LINE.decode().encode("utf-16"),
)
IDS = (BOM + b"[Current]\n" + LINE, b"\0\n" + LINE, b"\xff" * 1_000_000 + b"\n" + LINE, LINE + b" " * 1_000_000)


def test_odd_hit_ini_yields_the_id_or_nothing(trial):
    cases = [(text, "unreadable") for text in NO_IDS] + [(text, "accepted") for text in IDS]
    trial.check_all(trial.case("hit", [reply(text)], outcome) for text, outcome in cases)


def test_archive_of_other_content_is_refused(trial):
    """Another release's, nothing, more than the archive, and one bit of each byte or of every third."""
    good = trial.new.archive
    others = [trial.old.archive, b"", good + b"\0", good * 2]
    for position in range(0, len(good), 1 if trial.thorough else 3):
        others.append(good[:position] + bytes([good[position] ^ 1 << position % 8]) + good[position + 1 :])
    trial.check_all(trial.case("archive", [reply(other)], "unreadable") for other in others)


def test_older_release_is_installed_like_any_other(trial):
    """Nothing but equality of ids is looked at."""
    trial.accept()
    trial.go_back()
    trial.heal()

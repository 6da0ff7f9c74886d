"""Each file cut short at every length, by each way of telling where an answer ends."""

import socket
import ssl

import pytest
from release import HIT, info_name, sha256
from scripted_server import chunked, cut, finish, head, reset
from trials import NEW, OLD, SERVERS_REFUSAL, Case

PARTIAL = "Transferred a partial file"


def cut_lengths(content, thorough, step):
    """Every length short of the whole, or every so many in the short form, with the last ones."""
    lengths = range(len(content))
    return lengths if thorough else sorted({*lengths[::step], *lengths[-3:]})


@pytest.mark.parametrize("request_kind", ["hit", "info", "archive"])
def test_answer_shorter_than_its_length_is_refused_at_every_length(trial, request_kind):
    content = trial.content(request_kind)
    start = head("200 OK", f"Content-Length: {len(content)}")
    trial.check_all(
        trial.refused(request_kind, [start + content[:length], finish], PARTIAL) for length in range(len(content))
    )


@pytest.mark.parametrize("request_kind", ["hit", "info", "archive"])
def test_chunks_that_break_off_are_refused_at_every_length(trial, request_kind):
    answer = chunked(trial.content(request_kind))
    start = answer.index(b"\r\n\r\n") + 4
    trial.check_all(
        trial.refused(request_kind, [answer[: start + length], finish], PARTIAL)
        for length in cut_lengths(answer[start:-2], trial.thorough, 5)
    )


@pytest.mark.parametrize("end", [finish, cut])
def test_archive_without_a_length_is_refused_by_its_digest_at_every_length(trial, end):
    content = trial.content("archive")
    trial.check_all(
        trial.unreadable("archive", [head() + content[:length], end])
        for length in cut_lengths(content, trial.thorough, 5)
    )


@pytest.mark.parametrize("request_kind", ["hit", "info", "archive"])
def test_reset_is_refused_at_every_length(trial, request_kind):
    content = trial.content(request_kind)
    whole = head("200 OK", f"Content-Length: {len(content)}") + content
    text = "Failure when receiving data from the peer"
    trial.check_all(
        trial.refused(request_kind, [whole[:length], reset], text)
        for length in cut_lengths(whole, trial.thorough, 17)
        if length > 0 or request_kind == "hit"  # a kept connection that says nothing is tried anew, see the stalls
    )


def hit_ending_after(trial, length):
    """What comes of a hit INI that looks whole, but is not: another id, of which the mirror knows nothing."""
    defid = trial.content("hit")[:length].decode().partition("defId=")[2].strip()
    if not defid:
        return trial.unreadable("hit", []).lines, "defId fetch failed"
    if defid == NEW:
        return trial.accepted("hit", []).lines, ""
    url = trial.url("hit").replace(HIT, info_name(defid))
    return [f"err GET {url}: {SERVERS_REFUSAL}"], f"complete-info fetch failed for {defid}"


@pytest.mark.parametrize("end", [finish, cut])
def test_hit_ini_without_a_length_names_another_id_when_it_is_cut(trial, end):
    """libcurl takes the end of TCP for the end of the answer, even where TLS was not ended before."""
    content = trial.content("hit")
    trial.check_all(
        Case({HIT: [head() + content[:length], end]}, *hit_ending_after(trial, length))
        for length in range(len(content) + 1)
    )


def test_hit_ini_cut_to_the_id_in_service_hides_the_new_release(trial):
    """Whoever cuts the connection at the right byte keeps a gateway on what it has, with a status of success."""
    trial.server.script[HIT] = [head() + f"defId={OLD}".encode(), cut]
    assert trial.gateway.run_once() == []
    trial.gateway.expect_status(OLD)
    assert trial.tree() == trial.before
    trial.heal()


def info_ending_after(trial, text):
    """What comes of a complete-info INI that looks whole, but is not."""
    digest = sha256(trial.content("archive"))
    values = dict(line.split("=", 1) for line in text.splitlines() if "=" in line)
    name, given = values.get("def.Current.name", ""), values.get("def.Current.SHA256", "")
    if not name or not given:
        return trial.unreadable("info", [])
    if name != trial.name("archive"):
        url = trial.url("archive").replace(trial.name("archive"), name)
        lines = [f"err download_cab {url}: {SERVERS_REFUSAL}", "err run_once: staging failed: download CAB"]
        return Case({}, lines, "download CAB")
    return trial.accepted("info", []) if given == digest else trial.unreadable("archive", [])


@pytest.mark.parametrize("end", [finish, cut])
@pytest.mark.parametrize("backwards", [False, True], ids=["name_first", "digest_first"])
def test_complete_info_without_a_length_is_refused_unless_what_counts_is_whole(trial, backwards, end):
    text = trial.content("info").decode()
    if backwards:
        text = "".join(reversed(text.splitlines(keepends=True)))
    cases = []
    for length in cut_lengths(text, trial.thorough, 1 if end is finish else 6):
        case = info_ending_after(trial, text[:length])
        cases.append(Case({trial.name("info"): [head() + text[:length].encode(), end]}, case.lines, case.error))
    trial.check_all(cases)


@pytest.mark.parametrize("request_kind", ["hit", "info", "archive"])
def test_head_that_breaks_off_is_nothing_or_an_answer_without_content(trial, request_kind):
    """Once the status line is whole, the end of the connection ends the head; a line that is cut does not count."""
    start = head("200 OK", "Content-Length: 100", "Server: x")
    status_end = start.index(b"\r\n") + 2
    length_end = start.index(b"\r\n", status_end) + 2

    def outcome(length):
        if length < status_end:
            return "Server returned nothing (no headers, no data)"
        return "unreadable" if length < length_end else PARTIAL

    trial.check_all(
        trial.case(request_kind, [start[:length], finish], outcome(length))
        for length in range(1, len(start), 1 if trial.thorough else 4)
    )


def test_cut_connection_is_one_that_tls_did_not_end(trial):
    """The server really sends no close_notify where the other tests say so, and does where they do not."""
    context = ssl.create_default_context(cafile=trial.gateway.settings["ca_path"])
    context.options &= ~ssl.OP_IGNORE_UNEXPECTED_EOF

    def last_words(end):
        trial.server.script = {"x": [head() + b"content", end]}
        with socket.create_connection(("127.0.0.1", trial.server.port)) as plain:
            with context.wrap_socket(plain, server_hostname="localhost", suppress_ragged_eofs=False) as tls:
                tls.sendall(b"GET x HTTP/1.1\r\n\r\n")
                while data := tls.recv(4096):
                    last = data
        return last

    assert last_words(finish).endswith(b"content")
    with pytest.raises(ssl.SSLError, match="unexpected eof"):
        last_words(cut)
    trial.heal()

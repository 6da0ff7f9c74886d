"""Each file cut short at every length, by each way of saying where an answer ends."""

import socket
import ssl

import pytest
from release import HIT, info_name
from scripted_server import chunked, cut, finish, head, reset
from trials import BROKEN, NEW, NOTHING, OLD, PARTIAL, REQUESTS, SERVERS_REFUSAL

every_request = pytest.mark.parametrize("request_kind", REQUESTS)
either_end = pytest.mark.parametrize("end", [finish, cut])


def cut_lengths(content, step):
    """Every so many lengths short of the whole, and the last ones."""
    return sorted({*range(len(content))[::step], *range(len(content))[-3:]})


@every_request
def test_answer_shorter_than_its_length_is_refused(trial, request_kind):
    content = trial.content(request_kind)
    start = head("200 OK", f"Content-Length: {len(content)}")
    trial.check_all(
        trial.case(request_kind, [start + content[:length], finish], PARTIAL) for length in range(len(content))
    )


@every_request
def test_chunks_that_break_off_are_refused(trial, request_kind):
    answer = chunked(trial.content(request_kind))
    start = answer.index(b"\r\n\r\n") + 4
    trial.check_all(
        trial.case(request_kind, [answer[: start + length], finish], PARTIAL)
        for length in cut_lengths(answer[start:-2], 1 if trial.thorough else 5)
    )


@either_end
def test_cut_archive_without_a_length_is_refused_by_its_digest(trial, end):
    content = trial.content("archive")
    lengths = cut_lengths(content, 1 if trial.thorough else 5)
    trial.check_all(trial.case("archive", [head() + content[:length], end], "unreadable") for length in lengths)


@every_request
def test_reset_is_refused_at_every_length(trial, request_kind):
    content = trial.content(request_kind)
    whole = head("200 OK", f"Content-Length: {len(content)}") + content
    trial.check_all(
        trial.case(request_kind, [whole[:length], reset], BROKEN)
        for length in cut_lengths(whole, 1 if trial.thorough else 17)
        if length > 0 or request_kind == "hit"  # a kept connection that says nothing is tried again, see the stalls
    )


@either_end
def test_hit_ini_without_a_length_names_another_id_when_cut(trial, end):
    """libcurl takes the end of TCP for the end of the answer, even where TLS was not ended before."""
    content = trial.content("hit")

    def case(text, steps):
        defid = text.decode().partition("defId=")[2].strip()
        if defid in ("", NEW):
            return trial.case("hit", steps, "accepted" if defid else "unreadable")
        url = trial.url("hit").replace(HIT, info_name(defid))  # the mirror knows nothing of it
        return trial.refused(
            {HIT: steps}, f"complete-info fetch failed for {defid}", f"err GET {url}: {SERVERS_REFUSAL}"
        )

    texts = (content[:length] for length in range(len(content) + 1))
    trial.check_all(case(text, [head() + text, end]) for text in texts)


def test_hit_ini_cut_to_the_id_in_service_hides_the_new_release(trial):
    """Whoever cuts the connection at the right byte keeps a gateway on what it has, with a status of success."""
    trial.server.script[HIT] = [head() + f"defId={OLD}".encode(), cut]
    trial.expect(trial.refused({}, ""))
    trial.heal()


@either_end
@pytest.mark.parametrize("backwards", [False, True], ids=["name_first", "digest_first"])
def test_cut_complete_info_counts_if_name_and_digest_are_whole(trial, backwards, end):
    lines = trial.content("info").splitlines(keepends=True)
    text = b"".join(reversed(lines) if backwards else lines)
    whole = dict(line.split("=", 1) for line in text.decode().split() if "=" in line)

    def case(text):
        values = dict(line.split("=", 1) for line in text.decode().split() if "=" in line)
        name, digest = (values.get(f"def.Current.{key}", "") for key in ("name", "SHA256"))
        if not name or not digest:
            return trial.case("info", [], "unreadable")
        if name != whole["def.Current.name"]:
            url = trial.url("archive").replace(trial.name("archive"), name)
            return trial.unstaged({}, "download CAB", f"err download_cab {url}: {SERVERS_REFUSAL}")
        return trial.case("archive", [], "accepted" if digest == whole["def.Current.SHA256"] else "unreadable")

    cases = []
    for length in cut_lengths(text, 1 if trial.thorough else 3):
        cases.append(case(text[:length]))
        cases[-1].script = {info_name(NEW): [head() + text[:length], end]}
    trial.check_all(cases)


@every_request
def test_head_that_breaks_off_is_an_answer_without_content(trial, request_kind):
    """Once the status line is whole, the end of the connection ends the head; a line that is cut does not count."""
    start = head("200 OK", "Content-Length: 100", "Server: x")
    status_end = start.index(b"\r\n") + 2
    length_end = start.index(b"\r\n", status_end) + 2

    def outcome(length):
        if length < status_end:
            return NOTHING
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

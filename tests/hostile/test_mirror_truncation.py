"""Each file cut short at every length, with and without a length that says so."""

import socket
import ssl

import pytest
from packages import RELEASE
from release import HIT, info_name
from scripted_server import cut, finish, head
from trials import BROKEN, NEW, OLD, PARTIAL, REQUESTS, SERVERS_REFUSAL

either_end = pytest.mark.parametrize("end", [finish, cut])
OR_REFUSED = {finish: [], cut: [BROKEN]}  # libcurl 8.14 refuses what TLS did not end, and 7.88 does not


@pytest.mark.parametrize("request_kind", REQUESTS)
def test_answer_shorter_than_its_length_is_refused(trial, request_kind):
    content = trial.content(request_kind)
    start = head("200 OK", f"Content-Length: {len(content)}")
    trial.check_all(
        trial.case(request_kind, [start + content[:length], finish], PARTIAL) for length in range(len(content))
    )


@either_end
def test_cut_archive_without_a_length_is_refused_by_its_digest(trial, end):
    content = trial.content("archive")
    lengths = range(0, len(content), 1 if trial.thorough else 5)
    outcomes = ["unreadable", *OR_REFUSED[end]]
    trial.check_all(trial.cases("archive", [head() + content[:length], end], outcomes) for length in lengths)


@either_end
def test_hit_ini_without_a_length_names_another_id_when_cut(trial, end):
    """libcurl takes the end of TCP for the end of the answer, and 7.88 does even where TLS was not ended before."""
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
    trial.check_all(
        [case(text, [head() + text, end]), *trial.cases("hit", [head() + text, end], OR_REFUSED[end])] for text in texts
    )


@either_end
def test_hit_ini_cut_to_the_id_in_service_hides_the_new_release(trial, end):
    """A cut at the right byte keeps the gateway on its old release, and the status file shows success."""
    script = {HIT: [head() + f"defId={OLD}".encode(), end]}
    cases = [trial.refused(script, ""), *trial.cases("hit", script[HIT], OR_REFUSED[end])]
    trial.check(cases[-1 if RELEASE == "13" else 0])
    trial.heal()


@either_end
def test_cut_complete_info_counts_if_name_and_digest_are_whole(trial, end):
    text = trial.content("info")
    digest_end = text.index(b"\ndef.Current.size")

    def case(length):
        name, digest = (text[:length].partition(key)[2] for key in (b"Current.name=", b"SHA256="))
        if not name or not digest:
            found = trial.case("info", [], "unreadable")
        else:
            found = trial.case("archive", [], "unreadable" if length < digest_end else "accepted")
        found.script = {info_name(NEW): [head() + text[:length], end]}
        return [found, *trial.cases("info", found.script[info_name(NEW)], OR_REFUSED[end])]

    trial.check_all(map(case, range(0, len(text), 1 if trial.thorough else 3)))


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
    with pytest.raises(ssl.SSLError, match="(?i)unexpected.eof"):
        last_words(cut)

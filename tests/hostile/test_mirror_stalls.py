"""A mirror, or a network, that is slow, falls silent or breaks off, at each stage of each request."""

import socket

import pytest
from release import HIT
from scripted_server import cut, drip_for_ever, finish, head, hello_answer, pause, receive, reset, stall
from trials import OLD, REQUESTS

TIMED_OUT = "Timeout was reached"
BROKEN = "Failure when receiving data from the peer"
NOTHING = "Server returned nothing (no headers, no data)"


@pytest.fixture
def impatient(trial):
    trial.gateway.settings["http_timeout_s"] = 1
    return trial


def answer_stages(content):
    """What comes before an answer breaks off: nothing, and a part of its status line, head, and content."""
    start = head("200 OK", f"Content-Length: {len(content)}")
    return {"status_line": b"", "in_status_line": start[:9], "in_head": start[:30], "in_content": start + content[:9]}


STAGES = ("status_line", "in_status_line", "in_head", "in_content")


def all_stages():
    """Every stage of every request; the short form has the first one of all three, and all of the archive's."""
    for request_kind in REQUESTS:
        for stage in STAGES:
            short = request_kind == "archive" or stage == "status_line"
            yield pytest.param(request_kind, stage, marks=() if short else pytest.mark.long)


@pytest.mark.parametrize("request_kind, stage", all_stages())
def test_silence_in_an_answer_ends_with_the_time_out(impatient, request_kind, stage):
    steps = [answer_stages(impatient.content(request_kind))[stage], stall]
    impatient.server.script[impatient.name(request_kind)] = steps
    impatient.refuse(*impatient.failure(request_kind, TIMED_OUT))
    impatient.heal()


@pytest.mark.parametrize("request_kind", REQUESTS)
def test_answer_that_drips_too_long_ends_with_the_time_out(impatient, request_kind):
    """Each byte comes in good time, but the time-out is for the whole."""
    steps = [head("200 OK", "Content-Length: 1000000"), drip_for_ever(b"x")]
    impatient.server.script[impatient.name(request_kind)] = steps
    impatient.refuse(*impatient.failure(request_kind, TIMED_OUT))
    impatient.heal()


def test_head_that_drips_too_long_ends_with_the_time_out(impatient):
    impatient.server.script[HIT] = [b"HTTP/1.1 200 OK\r\n", drip_for_ever(b"X: y\r\n")]
    impatient.refuse(*impatient.failure("hit", TIMED_OUT))
    impatient.heal()


@pytest.mark.parametrize(
    "opening",
    [[stall], [receive, stall], [hello_answer(50), stall], [hello_answer(), stall]],
    ids=["before_the_hello", "after_the_hello", "in_the_servers_hello", "after_the_servers_hello"],
)
def test_silence_in_the_handshake_ends_with_the_time_out(impatient, opening):
    impatient.server.opening = opening
    impatient.refuse(*impatient.failure("hit", TIMED_OUT))
    impatient.heal()


def test_connection_that_is_never_accepted_ends_with_the_time_out(impatient):
    """The queue of a server that accepts nothing is full, so that the kernel does not answer any more."""
    base = impatient.gateway.settings["mirror_base_url"]
    with socket.create_server(("127.0.0.1", 0), backlog=0) as deaf:
        with socket.create_connection(deaf.getsockname()):
            impatient.gateway.settings["mirror_base_url"] = f"https://127.0.0.1:{deaf.getsockname()[1]}"
            impatient.refuse(*impatient.failure("hit", TIMED_OUT))
    impatient.gateway.settings["mirror_base_url"] = base
    impatient.heal()


@pytest.mark.long
def test_time_out_is_for_each_request_of_its_own(trial):
    """Three answers that take half of it each are in time, though not all three together."""
    trial.gateway.settings["http_timeout_s"] = 6
    for request_kind in REQUESTS:
        trial.server.script[trial.name(request_kind)].insert(0, pause(3))
    trial.accept()


@pytest.mark.parametrize("request_kind", REQUESTS)
@pytest.mark.parametrize("end", [finish, cut, reset])
def test_answer_that_breaks_off_is_refused(trial, request_kind, end):
    """A process each: libcurl tries a kept connection anew that ends without a byte, but a new one never."""
    texts = dict.fromkeys(STAGES, BROKEN)
    if end is not reset:
        texts = {**dict.fromkeys(STAGES, NOTHING), "in_content": "Transferred a partial file", "in_head": "unreadable"}
    for stage, sent in answer_stages(trial.content(request_kind)).items():
        trial.check(trial.case(request_kind, [sent, end], texts[stage]))
        tries = 1 if request_kind == "hit" or stage == "in_head" or stage == "in_content" else 2
        assert trial.server.targets().count(trial.name(request_kind)) == tries
    trial.heal()


def test_kept_connection_that_the_mirror_has_closed_is_no_failure(trial):
    for request_kind in ("hit", "info"):
        trial.server.script[trial.name(request_kind)] += [finish]
    trial.accept()
    assert trial.server.connections == 1 + 3  # one for release 1001, which kept it


def test_three_requests_share_one_connection(trial):
    trial.accept()
    assert trial.server.connections == 1 + 1


def test_connection_is_not_kept_against_the_mirrors_will(trial):
    for request_kind in REQUESTS:
        content = trial.content(request_kind)
        start = head("200 OK", f"Content-Length: {len(content)}", "Connection: close")
        trial.server.script[trial.name(request_kind)] = [start + content]
    trial.accept()
    assert trial.server.connections == 1 + 3


def test_answer_that_comes_before_its_request_is_taken(trial):
    """Whoever holds the mirror's key may say what it likes when it likes."""
    trial.server.greeting = [head("200 OK", f"Content-Length: {len(f'defId={OLD}')}") + f"defId={OLD}".encode(), stall]
    assert trial.gateway.run_once() == []
    trial.gateway.expect_status(OLD)
    assert trial.tree() == trial.before
    trial.heal()


def test_garbage_before_the_request_is_refused(trial):
    trial.server.greeting = [b"220 ready\r\n"]
    trial.refuse(*trial.failure("hit", "Unsupported protocol"))
    trial.heal()

"""A mirror, or a network, that is slow, falls silent or breaks off, at each stage of each request."""

import socket

import pytest
from scripted_server import cut, finish, flood, head, hello_answer, receive, reset, stall
from trials import BROKEN, NOTHING, PARTIAL, REQUESTS, TIMED_OUT


@pytest.fixture
def impatient(trial):
    trial.gateway.settings["http_timeout_s"] = 1
    return trial


def answer_stages(content):
    """What comes before an answer breaks off: nothing, and a part of its status line, head, and content."""
    start = head("200 OK", f"Content-Length: {len(content)}")
    return {"status_line": b"", "in_status_line": start[:9], "in_head": start[:30], "in_content": start + content[:9]}


SHORT_FORM = (("hit", "status_line"), ("info", "in_head"), ("archive", "in_status_line"), ("archive", "in_content"))
STAGES = [
    pytest.param(kind, stage, marks=() if (kind, stage) in SHORT_FORM else pytest.mark.long)
    for kind in REQUESTS
    for stage in answer_stages(b"")
]


@pytest.mark.parametrize("request_kind, stage", STAGES)
def test_silence_in_an_answer_ends_with_the_time_out(impatient, request_kind, stage):
    steps = [answer_stages(impatient.content(request_kind))[stage], stall]
    impatient.server.script[impatient.name(request_kind)] = steps
    impatient.refuse(request_kind, TIMED_OUT)


DRIPS = {
    "head": ("hit", b"HTTP/1.1 200 OK\r\n", b"X: y\r\n"),
    "hit": ("hit", head(), b"defId=666\n" * 100),
    "endless_archive": ("archive", head(), b"x" * 1000),
}


@pytest.mark.parametrize("request_kind, start, drip", DRIPS.values(), ids=DRIPS)
def test_answer_that_drips_too_long_ends_with_the_time_out(impatient, request_kind, start, drip):
    """Each part arrives in time, but the time-out is for the whole. What arrived before is dropped or removed."""
    impatient.server.script[impatient.name(request_kind)] = [start, flood(drip, interval_s=0.02)]
    impatient.refuse(request_kind, TIMED_OUT)


@pytest.mark.parametrize(
    "opening",
    [[stall], [receive, stall], [hello_answer(50), stall], [hello_answer(), stall]],
    ids=["before_the_hello", "after_the_hello", "in_the_servers_hello", "after_the_servers_hello"],
)
def test_silence_in_the_handshake_ends_with_the_time_out(impatient, opening):
    impatient.server.opening = opening
    impatient.refuse("hit", TIMED_OUT)


def test_connection_never_accepted_ends_with_the_time_out(impatient):
    """The queue of a server that accepts nothing is full, so that the kernel does not answer any more."""
    with socket.create_server(("127.0.0.1", 0), backlog=0) as deaf:
        with socket.create_connection(deaf.getsockname()):
            impatient.gateway.settings["mirror_base_url"] = f"https://127.0.0.1:{deaf.getsockname()[1]}"
            impatient.refuse("hit", TIMED_OUT)


@pytest.mark.parametrize("request_kind", REQUESTS)
@pytest.mark.parametrize("end", [finish, cut, reset])
def test_answer_that_breaks_off_is_refused(trial, request_kind, end):
    """A process each: libcurl tries a kept connection again that ends without a byte, but a new one never."""
    stages = answer_stages(trial.content(request_kind))
    texts = dict.fromkeys(stages, BROKEN)
    if end is not reset:
        texts = {**dict.fromkeys(stages, NOTHING), "in_content": PARTIAL, "in_head": "unreadable"}
    for stage, sent in stages.items():
        # To newer releases of libcurl, a connection that ends before TLS does is an error of its own.
        trial.check(*trial.cases(request_kind, [sent, end], [texts[stage], *[BROKEN] * (end is cut)]))
        tries = 1 if request_kind == "hit" or stage == "in_head" or stage == "in_content" else 2
        assert trial.server.targets().count(trial.name(request_kind)) == tries
    trial.heal()

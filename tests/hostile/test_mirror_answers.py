"""Answers of every status, with every kind of head and body, to each of the three requests."""

import gzip
import zlib

import pytest
from scripted_server import chunk, chunked, drip, finish, flood, head, reply
from trials import REQUESTS, SERVERS_REFUSAL

# What libcurl says of a status line that is none, and of HTTP/0.9, which it does not take unasked.
NO_HTTP = "Unsupported protocol"
BROKEN = "Failure when receiving data from the peer"
WEIRD = "Weird server reply"
PARTIAL = "Transferred a partial file"

REFUSED_CODES = (
    400,
    401,
    402,
    403,
    404,
    405,
    406,
    407,
    408,
    409,
    410,
    411,
    412,
    413,
    414,
    415,
    416,
    417,
    418,
    421,
    422,
)
REFUSED_CODES += (
    423,
    424,
    425,
    426,
    428,
    429,
    431,
    451,
    499,
    500,
    501,
    502,
    503,
    504,
    505,
    507,
    508,
    511,
    599,
    600,
    999,
)
ACCEPTED_CODES = (200, 201, 202, 203, 205, 206, 207, 208, 226, 299)
# A redirect to nowhere is no redirect: what comes with it counts.
ACCEPTED_CODES += (300, 301, 302, 303, 305, 306, 307, 308, 399)

STATUSES = {
    **{f"{code} x": SERVERS_REFUSAL for code in REFUSED_CODES},
    **{f"{code} x": "accepted" for code in ACCEPTED_CODES},
    "200": "accepted",
    "200  ": "accepted",
    "204 x": "unreadable",  # these two have no body, whatever comes
    "304 x": "unreadable",
    **{status: NO_HTTP for status in ("000 x", "001 x", "99 x", "1000 x", "-1 x", "2x0 x", "20", "abc", "")},
}


@pytest.mark.parametrize("request_kind", REQUESTS)
def test_status_of_400_and_above_is_refused_and_any_other_taken_for_good(trial, request_kind):
    content = trial.content(request_kind)
    trial.check_all(
        trial.case(request_kind, [reply(content, status), finish], outcome) for status, outcome in STATUSES.items()
    )


@pytest.mark.parametrize("request_kind", REQUESTS)
def test_interim_answers_are_skipped_but_for_switching_protocols(trial, request_kind):
    """An answer of 101 is taken for the final one, as if the gateway had asked for another protocol."""
    content = trial.content(request_kind)
    whole = reply(content)
    cases = [
        ([head(status) * count, whole], "accepted")
        for status in ("100 Continue", "102 Processing", "103 Early Hints", "199 x")
        for count in (1, 100)
    ]
    cases += [([head(status), content, finish], NO_HTTP) for status in ("100 Continue", "103 Early Hints", "199 x")]
    cases += [
        ([head("100 Continue"), finish], "Server returned nothing (no headers, no data)"),
        ([reply(content, "101 Switching Protocols"), finish], "accepted"),
        ([flood(head("100 Continue") * 100)], BROKEN),  # the limit of all heads together
    ]
    trial.check_all(trial.case(request_kind, *case) for case in cases)


def status_lines(content):
    """The answer's beginning, and what comes of it; the content follows, and then the end."""
    length = b"Content-Length: %d\r\n\r\n" % len(content)
    return {
        b"": NO_HTTP,  # HTTP/0.9: nothing but the content
        b"\r\n": NO_HTTP,
        b"\0\xff\xfe\r\n\r\n": NO_HTTP,
        b"GET / HTTP/1.1\r\n\r\n": NO_HTTP,
        b"220 ready\r\n": NO_HTTP,
        b" HTTP/1.1 200 OK\r\n\r\n": NO_HTTP,
        b"\r\nHTTP/1.1 200 OK\r\n\r\n": NO_HTTP,
        b"HTTP 200 OK\r\n\r\n": NO_HTTP,
        b"HTTP/1.2 200 OK\r\n\r\n": NO_HTTP,
        b"HTTP/3 200 OK\r\n\r\n": NO_HTTP,
        b"HTTP/7.7 200 OK\r\n\r\n": NO_HTTP,
        b"ICY 200 OK\r\n\r\n": NO_HTTP,
        b"RTSP/1.0 200 OK\r\n\r\n": NO_HTTP,
        b"HTTP/1.0 200 OK\r\n\r\n": "accepted",
        b"HTTP/2 200 OK\r\n" + length: "accepted",
        b"http/1.1 200 OK\r\n\r\n": "accepted",
        b"HTTP/1.1 200 OK\n\n": "accepted",
        b"HTTP/1.1 200 OK\r\nno colon\r\n" + length: WEIRD,
        b"HTTP/1.1 200 OK\r\nX: a\0b\r\n" + length: WEIRD,
        b"HTTP/1.1 200 OK\r\nX: a\r\n b\r\n\tc\r\n" + length: "accepted",
    }


@pytest.mark.parametrize("request_kind", REQUESTS)
def test_garbage_in_the_place_of_a_status_line_is_refused(trial, request_kind):
    content = trial.content(request_kind)
    trial.check_all(
        trial.case(request_kind, [start, content, finish], outcome) for start, outcome in status_lines(content).items()
    )


@pytest.mark.parametrize("request_kind", REQUESTS)
def test_bytes_left_over_from_an_answer_spoil_the_next_one(trial, request_kind):
    """More comes than the length says, and the connection stays: the rest is where the next status line should be."""
    content = trial.content(request_kind)
    start = head("200 OK", f"Content-Length: {len(content)}")
    trial.server.script[trial.name(request_kind)] = [start, content + b"HTTP/1.1 2"]
    following = {"hit": "info", "info": "archive"}.get(request_kind)
    if following is None:
        trial.accept()
        trial.set_back()
    else:
        trial.refuse(*trial.failure(following, NO_HTTP))
    trial.heal()


def lengths(size):
    """Values of Content-Length, and what comes of an answer of that size."""
    return {
        (f"{size + 3}",): PARTIAL,
        ("9223372036854775807",): PARTIAL,
        ("9223372036854775808",): "accepted",  # beyond the range: no length at all
        (f"{10 ** 40}",): "accepted",
        ("-1",): WEIRD,
        (f"-{size}",): WEIRD,
        ("abc",): WEIRD,
        ("",): WEIRD,
        ("0",): "unreadable",
        ("5abc",): "unreadable",  # five bytes
        (f"0x{size:x}",): "unreadable",  # none
        (f"+{size}",): "accepted",
        (f"{size}, {size}",): "accepted",
        (f"{size}", f"{size}"): "accepted",
        ("5", f"{size}"): "accepted",  # the last one counts
        (f"{size}", "5"): "unreadable",
    }


@pytest.mark.parametrize("request_kind", REQUESTS)
def test_wrong_length_is_refused_or_cuts_the_content(trial, request_kind):
    content = trial.content(request_kind)
    cases = []
    for values, outcome in lengths(len(content)).items():
        start = head("200 OK", "Connection: close", *[f"Content-Length: {value}" for value in values])
        cases.append(trial.case(request_kind, [start, content, finish], outcome))
    trial.check_all(cases)


def chunkings(content):
    """Bodies in chunks, and what comes of them."""
    size = len(content)
    end = chunk(b"")
    whole = chunk(content)
    return {
        whole + end: "accepted",
        b"".join(chunk(bytes((byte,))) for byte in content) + end: "accepted",
        b"%x;name=value\r\n%s\r\n" % (size, content) + end: "accepted",
        b"%x\n%s\n0\n\n" % (size, content): "accepted",
        whole + b"0\r\nX: y\r\nContent-Length: 1\r\n\r\n": "accepted",
        whole + b"0\r\n" + b"X: y\r\n" * 1000 + b"\r\n": "accepted",
        whole + b"0\r\nX: " + b"y" * 5000 + b"\r\n\r\n": BROKEN,
        whole + b"0\r\nno colon\r\n\r\n": "A libcurl function was given a bad argument",
        whole: PARTIAL,
        end: "unreadable",
        content: BROKEN,
        b"%x\r\n%s\r\n" % (size - 3, content) + end: BROKEN,
        b"%x\r\n%s\r\n" % (size + 3, content) + end: BROKEN,
        b"-5\r\n%s\r\n" % content + end: BROKEN,
        b"zzz\r\n%s\r\n" % content + end: BROKEN,
        b"\r\n%s\r\n" % content + end: BROKEN,
        b"7fffffffffffffff\r\n%s\r\n" % content + end: PARTIAL,
        b"8000000000000000\r\n%s\r\n" % content + end: BROKEN,
        b"%s%x\r\n%s\r\n" % (b"0" * 30, size, content) + end: BROKEN,
    }


@pytest.mark.parametrize("request_kind", REQUESTS)
def test_wrong_chunks_are_refused(trial, request_kind):
    start = head("200 OK", "Transfer-Encoding: chunked")
    content = trial.content(request_kind)
    trial.check_all(
        trial.case(request_kind, [start, body, finish], outcome) for body, outcome in chunkings(content).items()
    )


@pytest.mark.parametrize("request_kind", REQUESTS)
def test_chunks_win_over_a_length(trial, request_kind):
    body = chunk(trial.content(request_kind)) + chunk(b"")
    encoding = "Transfer-Encoding: chunked"
    heads = [
        head("200 OK", "Content-Length: 3", encoding),
        head("200 OK", encoding, "Content-Length: 3"),
        head("200 OK", encoding, encoding),
        head("200 OK", encoding + ", chunked"),
        head("200 OK", encoding).replace(b"HTTP/1.1", b"HTTP/1.0"),
    ]
    trial.check_all(trial.case(request_kind, [start, body, finish], "accepted") for start in heads)


@pytest.mark.parametrize("request_kind", REQUESTS)
def test_compressed_content_stays_compressed_since_nobody_asked_for_it(trial, request_kind):
    """A compressed transfer is undone, though: that is part of HTTP's framing."""
    content = trial.content(request_kind)
    zipped = gzip.compress(content)
    unknown = "Unrecognized or bad HTTP Content or Transfer-Encoding"
    answers = [
        (reply(zipped, "200 OK", "Content-Encoding: gzip"), "unreadable"),
        (reply(zlib.compress(content), "200 OK", "Content-Encoding: deflate"), "unreadable"),
        (reply(content, "200 OK", "Content-Encoding: gzip"), "accepted"),
        (reply(content, "200 OK", "Content-Encoding: nonsense"), "accepted"),
        (reply(zipped, "200 OK", "Transfer-Encoding: gzip"), "accepted"),
        (reply(content, "200 OK", "Transfer-Encoding: identity"), "accepted"),
        (reply(content, "200 OK", "Transfer-Encoding: gzip"), unknown),
        (reply(content, "200 OK", "Transfer-Encoding: nonsense"), unknown),
    ]
    trial.check_all(trial.case(request_kind, [answer, finish], outcome) for answer, outcome in answers)
    assert not any(line.lower().startswith("accept-encoding") for lines in trial.server.requests for line in lines)


@pytest.mark.parametrize("request_kind", REQUESTS)
def test_parts_that_nobody_asked_for_are_taken_for_the_whole(trial, request_kind):
    content = trial.content(request_kind)
    size = len(content)
    parts = "Content-Type: multipart/byteranges; boundary=x"
    answers = [
        (reply(content, "206 x", f"Content-Range: bytes 0-{size - 1}/{size}"), "accepted"),
        (reply(content[:5], "206 x", f"Content-Range: bytes 0-4/{size}"), "unreadable"),
    ]
    if request_kind == "archive":
        answers.append((reply(b"--x\r\n\r\n" + content + b"\r\n--x--\r\n", "206 x", parts), "unreadable"))
    trial.check_all(trial.case(request_kind, [answer], outcome) for answer, outcome in answers)


@pytest.mark.parametrize("request_kind", REQUESTS)
def test_heads_are_limited_in_size(trial, request_kind):
    """libcurl takes lines of about 100 KB and heads of about 300 KB."""
    content = trial.content(request_kind)

    def answer(*headers):
        return reply(content, "200 OK", *headers)

    line = "X: " + "y" * 90_000
    answers = [
        (answer(line), "accepted"),
        (answer(line, line), "accepted"),
        (answer(line, line, line, line), BROKEN),
        (answer("X: " + "y" * 110_000), "Out of memory"),
        (answer(*["X: y"] * 5_000), "accepted"),
        (answer(*["X: y"] * 60_000), BROKEN),
        (answer(*[f"Set-Cookie: name{number}=value" for number in range(500)]), "accepted"),
    ]
    cases = [trial.case(request_kind, [step], outcome) for step, outcome in answers]
    start = b"HTTP/1.1 200 OK\r\nX: "
    cases.append(trial.case(request_kind, [start, flood(b"y\r\nX: " * 1000)], BROKEN))
    cases.append(trial.case(request_kind, [start, flood(b"y" * 1000)], "Out of memory"))
    trial.check_all(cases)


@pytest.mark.parametrize("request_kind", REQUESTS)
def test_answer_that_comes_a_byte_at_a_time_is_as_good_as_any(trial, request_kind):
    content = trial.content(request_kind)
    trial.check_all(
        [
            trial.case(request_kind, [drip(reply(content))], "accepted"),
            trial.case(request_kind, [drip(chunked(content, 1))], "accepted"),
            trial.case(request_kind, [drip(head() + content), finish], "accepted"),
        ]
    )

"""Answers of every status, with every kind of head and body, to each of the three requests."""

import gzip
import zlib

import pytest
from scripted_server import chunk, chunked, drip, finish, flood, head, reply
from trials import BROKEN, NOTHING, NO_MEMORY, PARTIAL, REQUESTS, SERVERS_REFUSAL, UNSUPPORTED

WEIRD = "Weird server reply"
BAD_ENCODING = "Unrecognized or bad HTTP Content or Transfer-Encoding"
ACCEPTED, UNREADABLE = "accepted", "unreadable"

# Each function gives the steps of answers in the place of one with this content, and what comes of them.


def statuses(content):
    """400 and above are refused, and any other is taken for good."""
    outcomes = {
        **{f"{code} x": SERVERS_REFUSAL for code in (*range(400, 432), 451, 499, *range(500, 512), 599, 600, 999)},
        **{f"{code} x": ACCEPTED for code in (200, 201, 202, 203, 205, 206, 207, 208, 226, 299)},
        # A redirect to nowhere is no redirect: what comes with it counts.
        **{f"{code} x": ACCEPTED for code in (300, 301, 302, 303, 305, 306, 307, 308, 399)},
        "200": ACCEPTED,
        "200  ": ACCEPTED,
        "204 x": UNREADABLE,  # these two have no body, whatever comes
        "304 x": UNREADABLE,
        **{status: UNSUPPORTED for status in ("000 x", "001 x", "99 x", "1000 x", "-1 x", "2x0 x", "20", "abc", "")},
    }
    return [([reply(content, status), finish], outcome) for status, outcome in outcomes.items()]


def interim_answers(content):
    """They are skipped, but 101 is taken for the final one, as if the gateway had asked for another protocol."""
    for status in ("100 Continue", "102 Processing", "103 Early Hints", "199 x"):
        yield [head(status), reply(content)], ACCEPTED
        yield [head(status) * 100, reply(content)], ACCEPTED
        yield [head(status), content, finish], UNSUPPORTED
    yield [head("100 Continue"), finish], NOTHING
    yield [reply(content, "101 Switching Protocols"), finish], ACCEPTED
    yield [flood(head("100 Continue") * 100)], BROKEN  # the limit of all heads together


def status_lines(content):
    length = b"Content-Length: %d\r\n\r\n" % len(content)
    no_starts = b" HTTP/1.1 200 OK,\r\nHTTP/1.1 200 OK,HTTP 200 OK,HTTP/1.2 200 OK,HTTP/3 200 OK,HTTP/7.7 200 OK"
    no_starts += b",ICY 200 OK,RTSP/1.0 200 OK,GET / HTTP/1.1,\0\xff\xfe"
    starts = {
        b"": UNSUPPORTED,  # HTTP/0.9: nothing but the content
        b"\r\n": UNSUPPORTED,
        b"220 ready\r\n": UNSUPPORTED,
        **{start + b"\r\n\r\n": UNSUPPORTED for start in no_starts.split(b",")},
        b"HTTP/1.0 200 OK\r\n\r\n": ACCEPTED,
        b"HTTP/2 200 OK\r\n" + length: ACCEPTED,
        b"http/1.1 200 OK\r\n\r\n": ACCEPTED,
        b"HTTP/1.1 200 OK\n\n": ACCEPTED,
        b"HTTP/1.1 200 OK\r\nno colon\r\n" + length: WEIRD,
        b"HTTP/1.1 200 OK\r\nX: a\0b\r\n" + length: WEIRD,
        b"HTTP/1.1 200 OK\r\nX: a\r\n b\r\n\tc\r\n" + length: ACCEPTED,
    }
    return [([start, content, finish], outcome) for start, outcome in starts.items()]


def lengths(content):
    """Values of Content-Length."""
    size = len(content)
    outcomes = {
        (f"{size + 3}",): PARTIAL,
        ("9223372036854775807",): PARTIAL,
        ("9223372036854775808",): ACCEPTED,  # beyond the range: no length at all
        (f"{10 ** 40}",): ACCEPTED,
        **{(value,): WEIRD for value in ("-1", f"-{size}", "abc", "")},
        ("0",): UNREADABLE,
        ("5abc",): UNREADABLE,  # five bytes
        (f"0x{size:x}",): UNREADABLE,  # none
        (f"+{size}",): ACCEPTED,
        (f"{size}, {size}",): ACCEPTED,
        (f"{size}", f"{size}"): ACCEPTED,
        ("5", f"{size}"): ACCEPTED,  # the last one counts
        (f"{size}", "5"): UNREADABLE,
    }
    for values, outcome in outcomes.items():
        start = head("200 OK", "Connection: close", *[f"Content-Length: {value}" for value in values])
        yield [start, content, finish], outcome


def chunks(content):
    """A length is of no account beside them."""
    size, end, whole = len(content), chunk(b""), chunk(content)
    no_counts = (b"%x" % (size - 3), b"%x" % (size + 3), b"-5", b"zzz", b"", b"8" + b"0" * 15, b"0" * 30 + b"%x" % size)
    bodies = {
        whole + end: ACCEPTED,
        b"".join(chunk(bytes((byte,))) for byte in content) + end: ACCEPTED,
        b"%x;name=value\r\n%s\r\n" % (size, content) + end: ACCEPTED,
        b"%x\n%s\n0\n\n" % (size, content): ACCEPTED,
        whole + b"0\r\nX: y\r\nContent-Length: 1\r\n\r\n": ACCEPTED,
        whole + b"0\r\n" + b"X: y\r\n" * 1000 + b"\r\n": ACCEPTED,
        whole + b"0\r\nX: " + b"y" * 5000 + b"\r\n\r\n": BROKEN,
        whole + b"0\r\nno colon\r\n\r\n": "A libcurl function was given a bad argument",
        whole: PARTIAL,
        end: UNREADABLE,
        content: BROKEN,
        **{b"%s\r\n%s\r\n" % (count, content) + end: BROKEN for count in no_counts},
        b"7fffffffffffffff\r\n%s\r\n" % content + end: PARTIAL,
    }
    encoding, length = "Transfer-Encoding: chunked", "Content-Length: 3"
    cases = [([head("200 OK", encoding), body, finish], outcome) for body, outcome in bodies.items()]
    for headers in ([length, encoding], [encoding, length], [encoding, encoding], [encoding + ", chunked"]):
        cases.append(([head("200 OK", *headers), whole + end, finish], ACCEPTED))
    old = head("200 OK", encoding).replace(b"HTTP/1.1", b"HTTP/1.0")
    return [*cases, ([old, whole + end, finish], ACCEPTED)]


def encodings(content):
    """Compressed content stays compressed, since nobody asked for it. A compressed transfer is undone: that is part of
    HTTP's framing."""
    zipped = gzip.compress(content)
    for body, header, outcome in (
        (zipped, "Content-Encoding: gzip", UNREADABLE),
        (zlib.compress(content), "Content-Encoding: deflate", UNREADABLE),
        (content, "Content-Encoding: gzip", ACCEPTED),
        (content, "Content-Encoding: nonsense", ACCEPTED),
        (zipped, "Transfer-Encoding: gzip", ACCEPTED),
        (content, "Transfer-Encoding: identity", ACCEPTED),
        (content, "Transfer-Encoding: gzip", BAD_ENCODING),
        (content, "Transfer-Encoding: nonsense", BAD_ENCODING),
    ):
        yield [reply(body, "200 OK", header), finish], outcome


def parts(content):
    """Parts that nobody asked for are taken for the whole."""
    size = len(content)
    several, boundary = b"--x\r\n\r\n" + content + b"\r\n--x--\r\n", "Content-Type: multipart/byteranges; boundary=x"
    yield [reply(content, "206 x", f"Content-Range: bytes 0-{size - 1}/{size}")], ACCEPTED
    yield [reply(content[:5], "206 x", f"Content-Range: bytes 0-4/{size}")], UNREADABLE
    if content.startswith(b"MSCF"):  # an INI is found among the parts
        yield [reply(several, "206 x", boundary)], UNREADABLE


def sizes(content):
    """libcurl takes lines of about 100 KB and heads of about 300 KB."""
    line = "X: " + "y" * 90_000
    for headers, outcome in (
        ([line], ACCEPTED),
        ([line] * 2, ACCEPTED),
        ([line] * 4, BROKEN),
        (["X: " + "y" * 110_000], NO_MEMORY),
        (["X: y"] * 5_000, ACCEPTED),
        (["X: y"] * 60_000, BROKEN),
        ([f"Set-Cookie: name{number}=value" for number in range(500)], ACCEPTED),
    ):
        yield [reply(content, "200 OK", *headers)], outcome
    yield [b"HTTP/1.1 200 OK\r\nX: ", flood(b"y\r\nX: " * 1000)], BROKEN
    yield [b"HTTP/1.1 200 OK\r\nX: ", flood(b"y" * 1000)], NO_MEMORY


def drips(content):
    """An answer that comes a byte at a time is as good as any."""
    return [([drip(answer), finish], ACCEPTED) for answer in (reply(content), chunked(content, 1), head() + content)]


@pytest.mark.parametrize("request_kind", REQUESTS)
@pytest.mark.parametrize(
    "answers", [statuses, interim_answers, status_lines, lengths, chunks, encodings, parts, sizes, drips]
)
def test_answer_is_taken_or_refused_as_known(trial, request_kind, answers):
    trial.check_all(trial.case(request_kind, *answer) for answer in answers(trial.content(request_kind)))
    assert not any(line.lower().startswith("accept-encoding") for lines in trial.server.requests for line in lines)


@pytest.mark.parametrize("request_kind", REQUESTS)
def test_bytes_left_over_from_an_answer_spoil_the_next_one(trial, request_kind):
    """More comes than the length says, and the connection stays: the rest is where the next status line should be."""
    content = trial.content(request_kind)
    start = head("200 OK", f"Content-Length: {len(content)}")
    trial.server.script[trial.name(request_kind)] = [start, content + b"HTTP/1.1 2"]
    following = {"hit": "info", "info": "archive"}.get(request_kind)
    if following:
        trial.refuse(following, UNSUPPORTED)
    else:
        trial.accept()

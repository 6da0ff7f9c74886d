"""Answers with every kind of status, head and body."""

import gzip

import pytest
from scripted_server import chunk, finish, flood, head, reply
from trials import BROKEN, NO_MEMORY, NOTHING, PARTIAL, REQUESTS, SERVERS_REFUSAL, TOO_LARGE, UNSUPPORTED, WEIRD

BAD_ENCODING = "Unrecognized or bad HTTP Content or Transfer-Encoding"
ACCEPTED, UNREADABLE = "accepted", "unreadable"
NO_HTTP = (UNSUPPORTED, WEIRD)

# Each function gives the steps of answers instead of one with this content, and their outcome: a tuple where
# releases of libcurl differ.


def statuses(content):
    """400 and above are refused, all others accepted; a redirect without a target is no redirect."""
    outcomes = {
        **{f"{code} x": SERVERS_REFUSAL for code in (400, 401, 404, 407, 429, 499, 500, 503, 600, 999)},
        **{f"{code} x": ACCEPTED for code in (200, 203, 206, 299, 300, 301, 302, 303, 307, 308, 399)},
        **{f"{code} x": UNREADABLE for code in (204, 304)},  # these two never have a body
        **{status: NO_HTTP for status in ("000 x", "99 x", "1000 x", "abc", "")},
    }
    return [([reply(content, status), finish], outcome) for status, outcome in outcomes.items()]


def heads(content):
    length = b"Content-Length: %d\r\n\r\n" % len(content)
    starts = {
        b"": NO_HTTP,  # HTTP/0.9: nothing but the content
        b"HTTP/3 200 OK\r\n\r\n": NO_HTTP,
        b"\0\xff\xfe\r\n\r\n": NO_HTTP,
        b"HTTP/1.0 200 OK\r\n\r\n": ACCEPTED,
        b"HTTP/1.1 200 OK\n\n": ACCEPTED,
        b"HTTP/1.1 200 OK\r\nno colon\r\n" + length: WEIRD,
        b"HTTP/1.1 200 OK\r\nX: a\0b\r\n" + length: WEIRD,
        head("103 Early Hints") * 100 + head(): ACCEPTED,  # interim answers are skipped
        head("100 Continue"): NO_HTTP,
        head("200 OK", "X: " + "y" * 90_000): ACCEPTED,  # libcurl takes lines of 100 KB, and heads of 300 KB
        head("200 OK", "X: " + "y" * 110_000): (NO_MEMORY, TOO_LARGE),
        head("200 OK", *["X: " + "y" * 90_000] * 4): BROKEN,
        # Compressed content stays compressed, since nobody asked for it; a transfer's is undone, or refused.
        head("200 OK", "Content-Encoding: gzip"): ACCEPTED,
        head("200 OK", "Transfer-Encoding: gzip"): BAD_ENCODING,
    }
    yield from (([start, content, finish], outcome) for start, outcome in starts.items())
    for header, outcome in (
        ("Content-Encoding: gzip", UNREADABLE),
        ("Transfer-Encoding: gzip", (ACCEPTED, BAD_ENCODING)),
    ):
        yield [head("200 OK", header), gzip.compress(content), finish], outcome
    yield [head("100 Continue"), finish], NOTHING
    yield [flood(head("100 Continue") * 100)], BROKEN
    yield [b"HTTP/1.1 200 OK\r\nX: ", flood(b"y" * 1000)], (NO_MEMORY, TOO_LARGE)


def lengths(content):
    """Values of Content-Length."""
    size = len(content)
    outcomes = {
        (f"{size + 3}",): PARTIAL,
        ("9223372036854775808",): ACCEPTED,  # beyond the range: no length at all
        ("-1",): WEIRD,
        ("",): WEIRD,
        ("0",): UNREADABLE,
        ("5abc",): UNREADABLE,  # five bytes
        ("5", f"{size}"): ACCEPTED,  # the last one counts
        (f"{size}", "5"): UNREADABLE,
    }
    for values, outcome in outcomes.items():
        start = head("200 OK", "Connection: close", *[f"Content-Length: {value}" for value in values])
        yield [start, content, finish], outcome


def chunks(content):
    """A length beside them is ignored."""
    size, end, whole = len(content), chunk(b""), chunk(content)
    bodies = {
        whole + end: ACCEPTED,
        b"".join(chunk(bytes((byte,))) for byte in content) + end: ACCEPTED,
        b"%x;name=value\r\n%s\r\n0\r\nX: y\r\n\r\n" % (size, content): ACCEPTED,
        whole + b"0\r\nX: " + b"y" * 5000 + b"\r\n\r\n": (BROKEN, TOO_LARGE),
        whole: PARTIAL,
        whole[:-5]: PARTIAL,
        end: UNREADABLE,
        content: BROKEN,
        **{
            b"%s\r\n%s\r\n" % (count, content) + end: BROKEN
            for count in (b"%x" % (size - 3), b"%x" % (size + 3), b"-5")
        },
        b"7fffffffffffffff\r\n%s\r\n" % content + end: PARTIAL,
    }
    start = head("200 OK", "Transfer-Encoding: chunked", "Content-Length: 3")
    return [([start, body, finish], outcome) for body, outcome in bodies.items()]


@pytest.mark.parametrize("request_kind", REQUESTS)
@pytest.mark.parametrize("answers", [statuses, heads, lengths, chunks])
def test_answer_is_taken_or_refused_as_known(trial, request_kind, answers):
    for_each = answers(trial.content(request_kind))
    trial.check_all(
        trial.cases(request_kind, steps, [outcome] if isinstance(outcome, str) else outcome)
        for steps, outcome in for_each
    )

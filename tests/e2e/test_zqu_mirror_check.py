"""zqu-mirror check: what it finds wrong with a mirror, what it does not blame on the mirror, and its forms."""

import datetime
import email.utils
import ipaddress
import json
import os
import re
import time

import pytest
from builds import REPOSITORY
from certificates import Issuer
from cryptography import x509
from gateway import SANITIZED, may_mount
from mirror_tool import FIRST, INDEX, SECOND, clean_report, noise, run
from outcomes import NO_CONNECTION
from raw_archives import Entry, zip_bytes
from release import HIT, info_name, sha256
from scripted_server import ScriptedServer, reply
from tools import AS_ROOT, check_metrics, under_strace

INFO = info_name("7")


@pytest.fixture
def temporary(tmp_path):
    """An environment with a directory for temporaries, which must be empty in the end."""
    path = tmp_path / "temp"
    path.mkdir()
    yield {**os.environ, "TMPDIR": str(path)}
    assert os.listdir(path) == []


# ---- The mirror's faults ----


def other_id(id, shown, reason):
    return {"hit": f"defId = {id}\n"}, 0, 7, [f"ok       {HIT} names {shown}", f"FAULT    {reason}"]


def other_name(name, shown, reason):
    return {"name": name}, 1, 7, [f"ok       {INFO} names {shown}", f"FAULT    {reason}"]


def other_size(size, reason):
    return {"size": size}, 3, 3, [f"warning  def.Current.size is {reason}"]


UNCHECKED = "warning  {} has no digest in the index: clients take it unchecked"
GET = "GET file://{{}}/{}: No such file or directory"
NOT_THE_DIGEST = "FAULT    {} does not have the digest that the index gives"
ONLY_SECOND = f"{SECOND}.sha256 = {sha256(b'two')}\n".encode()
LONG = "x" * 251
# How a mirror is made by hand, and which lines of the clean report others replace: from, to, the others.
CHECKS = {
    "nothing": ({}, 7, 7, []),
    "other id": ({"defId": "8"}, 2, 2, ["warning  def.Current.defId is another id: 8"]),
    "other size": other_size("5", "another size: 5"),
    "no size": other_size(None, "missing"),
    "size zero": other_size("0", "another size: 0"),
    "one digest": ({"entries": {INDEX: ONLY_SECOND, SECOND: b"two"}}, *(5, 6, [UNCHECKED.format(FIRST)])),
    "no index": ({"entries": {INDEX: None}}, 5, 7, [UNCHECKED.format(FIRST), UNCHECKED.format(SECOND)]),
    "no id": ({"hit": "[Current]\n"}, 0, 7, [f"FAULT    {HIT} names no release"]),
    "no info": other_id("9", "9", GET.format(info_name(9))),
    "no name": ({"name": None}, 1, 7, [f"FAULT    {INFO} names no archive or no digest"]),
    "no archive": other_name("y.zip", "y.zip", GET.format("y.zip")),
    "name a path": other_name("../y.zip", "../y.zip", "the archive's name is a path: ../y.zip"),
    "name too long": other_name(LONG, LONG, f"the archive's name is too long for a file: {LONG}"),
    "id not for URLs": other_id("7\x1b[2J\rok", "7\\x1B[2J\\x0Dok", "the id cannot be part of a URL: 7\\x1B[2J\\x0Dok"),
    "id with delete": other_id("7\x7f7", "7\\x7F7", "the id cannot be part of a URL: 7\\x7F7"),
    "id of dots": other_id("..", "..", "the id is a path: .."),
    "id a path": other_id("a/b", "a/b", "the id is a path: a/b"),
    "other digest": ({"SHA256": "00"}, 3, 7, ["FAULT    x.zip does not have the digest 00"]),
    "zero in digest": ({"SHA256": "0\0"}, 3, 7, ["FAULT    x.zip does not have the digest 0\\x00"]),
    "second damaged": ({"entries": {SECOND: b"bad"}}, 6, 7, [NOT_THE_DIGEST.format(SECOND)]),
}


@pytest.mark.parametrize("case", CHECKS)
def test_check_reports_faults_and_warnings(own, temporary, case):
    """A fault is what a client fails on, with the exit status 1. What it accepts is at most a warning."""
    made, start, end, others = CHECKS[case]
    clean = clean_report("7", "x.zip", own.make_by_hand(**made))
    lines = [*clean[:start], *(line.format(own.directory) for line in others), *clean[end:]]
    fault = any(line.startswith("FAULT") for line in lines)
    for root in (own.root, f"file://{own.root}"):
        assert own.check(root=root, env=temporary) == (int(fault), "".join(f"{line}\n" for line in lines), "")
    quiet = [line for line in lines if not line.startswith("ok")]
    assert own.check("--quiet", env=temporary) == (int(fault), "".join(f"{line}\n" for line in quiet), "")


# ---- The network ----


class Served:
    """A release by hand, on a scripted server."""

    def __init__(self, own, scripted, *headers):
        self.own, self.scripted, self.server = own, scripted, scripted.server
        own.make_by_hand()
        files = own.directory.iterdir()
        self.server.script = {path.name: [reply(path.read_bytes(), "200 OK", *headers)] for path in files}

    def check(self, *words, **options):
        words = ["--subdir", "defs", "--ca", self.scripted.ca_path, *words]
        return self.own.check(*words, root=self.scripted.url, **options)


@pytest.fixture
def served(own, scripted):
    return Served(own, scripted)


@pytest.mark.parametrize("name", [HIT, INFO, "x.zip"])
def test_redirect_to_plain_http_is_a_warning_with_its_address(served, name):
    with ScriptedServer() as plain:
        plain.script = {"aside": served.server.script[name]}
        address = f"{plain.base()}/aside"
        served.server.script[name] = [reply(b"", "302 Found", f"Location: {address}")]
        code, out, err = served.check()
    warning = f"warning  redirected from https to {address}: anybody on the way can change the answer"
    assert (code, out.splitlines()[-1], out.count("warning"), err) == (0, warning, 1, "")


def test_redirect_to_where_nothing_listens_is_a_warning_too(served, closed_port):
    address = f"http://127.0.0.1:{closed_port}/aside"
    served.server.script[HIT] = [reply(b"", "302 Found", f"Location: {address}")]
    code, out, _ = served.check()
    assert code == 1 and f"warning  redirected from https to {address}: " in out and NO_CONNECTION in out


HERE = [x509.IPAddress(ipaddress.ip_address("127.0.0.1"))]


@pytest.mark.parametrize("days, warned", [(13, True), (15, False)])
def test_certificate_that_ends_within_two_weeks_is_a_warning(served, authority, tmp_path, days, warned):
    issuer = Issuer.of_trustme(authority)
    served.server.context = issuer.context(tmp_path, HERE, ends=datetime.timedelta(days=days, hours=1))
    code, out, err = served.check()
    assert (code, out.count("warning"), err) == (0, int(warned), "")
    assert (" of the mirror's chain ends at " in out.splitlines()[-1]) == warned
    end = json.loads(served.check("--json")[1])["certificate_end_epoch"]
    assert end // 86400 == (int(time.time()) + 3600) // 86400 + days


# ---- What is wrong here ----

CANNOT_WRITE = "cannot write the archive: {}; name a directory with more room by TMPDIR"
UNAVAILABLE = "Resource temporarily unavailable"
STRACE = ["strace", "-qq", "-f", "-o", "/dev/null", "-e"]
MOUNT = ["unshare", "--mount", "sh", "-c", 'mount -t tmpfs -o "$0" none "$TMPDIR" && exec "$@"']
# A prefix of the command, and the text on standard error.
LACKING = {
    "room": ([*MOUNT, "size=100k"], CANNOT_WRITE.format("No space left on device")),
    "inodes": (
        [*MOUNT, "nr_inodes=1"],
        r"cannot create a file in \S+: No space left on device; name another directory by TMPDIR",
    ),
    "limit": (["prlimit", "--fsize=10000"], CANNOT_WRITE.format("File too large")),
    "proc": (
        ["unshare", "--mount", "sh", "-c", 'umount -l /proc && exec "$@"', "sh"],
        "cannot read /proc/self/fd/[0-9]+: No such file or directory",
    ),
    "memory file": (
        [*STRACE, "inject=memfd_create:error=ENFILE"],
        "cannot create a file in memory: Too many open files in system",
    ),
    "memory": (
        ["prlimit", f"--data={200 << 20}"],
        "reading an archive takes 256 MiB of memory: raise the limits of ulimit -d and -v",
    ),
    "directory": (
        ["env", "TMPDIR=/nonexistent"],
        "no directory for temporary files: No such file or directory; name one by TMPDIR",
    ),
    "rights": (
        ["env", "--ignore-signal=CHLD", "setpriv", "--bounding-set=-setuid,-setgid", "--inh-caps=-all"],
        "cannot give up root's privileges: Operation not permitted",
    ),
    "process": ([*STRACE, "inject=clone,fork,vfork:error=EAGAIN"], f"cannot make a process: {UNAVAILABLE}"),
}


@pytest.mark.parametrize("case", LACKING)
def test_what_is_lacking_here_is_no_fault_of_the_mirror(own, temporary, case):
    prefix, reason = LACKING[case]
    if prefix[0] == "unshare" and not may_mount():
        pytest.skip("mounts file systems")
    if case == "rights" and not AS_ROOT:
        pytest.skip("others have no rights to give up")
    if case == "memory" and SANITIZED:
        pytest.skip("the sanitizers' memory has no limit")
    own.make_by_hand()
    own.write("x.zip", zip_bytes([Entry(FIRST, noise(300_000, "room"))]))
    own.announce("7", "x.zip")
    environment = {**under_strace(), **temporary} if prefix[0] == "strace" else temporary
    code, out, err = own.check(env=environment, prefix=prefix)
    assert (code, "FAULT" in out) == (1, False)
    assert re.fullmatch(f"zqu-mirror: (?:{reason})\n", err), err
    code, out, err = own.check("--nagios", env=environment, prefix=prefix)
    assert (code, err) == (3, "") and re.fullmatch(r"MIRROR UNKNOWN - \w.*\n", out)
    code, out, err = own.check("--prometheus", env=environment, prefix=prefix)
    assert code == 0 and re.search(r'^zelquorin_mirror_verdict{.*,verdict="unknown"} 1$', out, re.MULTILINE)


# ---- Forms for monitoring systems ----


HOUR = 3600
FUTURE = f"{INFO} is from the future: its age is unknown until then"
# The age of the release in seconds, options, and the exit status, verdict, summary and limits.
MONITORED = {
    "no limit": (99 * HOUR, "", 0, "OK", "7 is current and sound, 4 d 3 h old", ";"),
    "young": (HOUR, "--max-age 2h", 0, "OK", "7 is current and sound, 1 h old", "7200;14400"),
    "old": (3 * HOUR, "--max-age 2h", 1, "WARNING", "the release 7 is 3 h old, more than 2 h", "7200;14400"),
    "older": (5 * HOUR, "--max-age 2h", 2, "CRITICAL", "the release 7 is 5 h old, more than 4 h", "7200;14400"),
    "in the future": (-9 * HOUR, "--max-age 1w", 1, "WARNING", FUTURE, "604800;1209600"),
}


@pytest.mark.parametrize("case", MONITORED)
def test_plugin_judges_the_age_of_the_release(own, case):
    age, words, status, verdict, summary, limits = MONITORED[case]
    own.make_by_hand()
    os.utime(own.path(INFO), (time.time() - age, time.time() - age))
    code, out, err = own.check("--nagios", *words.split())
    assert (code, err) == (status, "")
    match = re.fullmatch(rf"MIRROR {verdict} - {summary} \|age=(\d+)s;{limits};0\n", out)
    assert match and int(match[1]) - max(age, 0) in range(60), out


def test_plugin_names_the_worst_finding_first_and_three_at_most(own):
    own.make_by_hand(entries={**{f"f{i}": b"" for i in range(5)}, FIRST: b"bad"}, defId="8")
    code, out, err = own.check("--nagios")
    assert (code, err) == (2, "")
    fault = f"{FIRST} does not have the digest that the index gives"
    rest = r"def.Current.defId is another id: 8; f0 is in the archive too: clients drop it; and 4 more"
    assert re.fullmatch(rf"MIRROR CRITICAL - {fault}; {rest} \|age=\d+s;;;0\n", out)


@pytest.mark.parametrize("words", ["", "--max-age 1d"])
def test_age_is_unknown_only_if_asked_for_and_not_said(served, words):
    code, out, err = served.check("--nagios", *words.split())
    unknown = f"UNKNOWN - the server gives no Last-Modified for {INFO}: its age is unknown"
    said = unknown if words else "OK - 7 is current and sound"
    assert (code, out, err) == (3 if words else 0, f"MIRROR {said}\n", "")


def test_age_over_the_network_is_that_of_last_modified(own, scripted):
    modified = email.utils.formatdate(time.time() - 49 * HOUR, usegmt=True)
    served = Served(own, scripted, f"Last-Modified: {modified}")
    code, out, err = served.check("--nagios", "--max-age", "2d")
    assert (code, out.split("|")[0], err) == (1, "MIRROR WARNING - the release 7 is 2 d 1 h old, more than 2 d ", "")


@pytest.mark.parametrize("words", ["", "--frob /", "--max-age 0 /", "--timeout 5x /", "/nonexistent", "--json /"])
def test_plugin_with_a_wrong_command_line_is_unknown(words):
    code, out, err = run("check", "--nagios", *words.split())
    assert (code, err) == (3, "") and re.fullmatch(r"MIRROR UNKNOWN - .* \(see zqu-mirror check --help\)\n", out)


def metrics(own, *words):
    """The samples, by name and labels but those of all; promtool has looked at them."""
    code, out, err = own.check("--prometheus", *words)
    assert (code, err) == (0, "")
    found = check_metrics(out)
    here = f'mirror="{own.root}",flavor="v2"'
    assert out.count(here) == len(found)
    return {re.sub(rf"zelquorin_mirror_(.*){{{re.escape(here)},?(.*)}}", r"\1 \2", key): found[key] for key in found}


@pytest.mark.parametrize("verdict", ["ok", "warning", "critical"])
def test_metrics_are_written_whatever_the_verdict_is(own, verdict):
    changes = {"ok": {}, "warning": {"defId": "8"}, "critical": {"SHA256": "00"}}[verdict]
    size = len(own.make_by_hand(**changes))
    published = int(time.time()) - HOUR
    os.utime(own.path(INFO), (published, published))
    found = metrics(own, "--max-age", "1d")
    assert 0 <= time.time() - int(found.pop("observation_timestamp_seconds ")) < 60
    assert found == {
        **{f'verdict verdict="{name}"': "01"[name == verdict] for name in ("ok", "warning", "critical", "unknown")},
        'release_info version="7"': "1",
        "release_timestamp_seconds ": str(published),
        "archive_size_bytes ": str(size),
        'release_age_limit_seconds severity="warning"': "86400",
        'release_age_limit_seconds severity="critical"': "172800",
    }


def test_page_names_every_metric(own, scripted):
    served = Served(own, scripted, "Last-Modified: Sat, 21 Nov 2026 14:30:00 GMT")
    out = served.check("--prometheus", "--max-age", "1d")[1]
    own.write(f"{HIT}.1", "[Current]\ndefId = 8\n")  # a candidate, whose metrics only the directory has
    out += own.check("--prometheus")[1]
    page = (REPOSITORY / "docs" / "mirrors.md").read_text()
    assert set(re.findall(r"^# TYPE (\w+) ", out, re.MULTILINE)) == set(re.findall(r"zelquorin_\w+", page))


def test_metrics_of_an_empty_mirror_leave_out_what_is_unknown(own):
    own.directory.mkdir(parents=True)
    found = metrics(own)
    assert found.pop("observation_timestamp_seconds ")
    assert {key.split()[0] for key in found} == {"verdict"}
    assert found['verdict verdict="critical"'] == "1"


def test_json_is_one_document_of_the_same_lines(own):
    own.make_by_hand(size=None)
    os.utime(own.path(INFO), (1_900_000_000, 1_900_000_000))
    size, none = own.size("x.zip"), dict.fromkeys(["archive", "size", "published_epoch", "info_modified_epoch"])
    known = {"id": "7", "archive": "x.zip", "size": size}
    known |= dict.fromkeys(["published_epoch", "info_modified_epoch"], 1_900_000_000)
    for expected in ({"verdict": "warning", **known}, {"verdict": "FAULT", "id": "\ufffd\u202e", **none}):
        code, text, err = own.check()
        answer, out, nothing = own.check("--json")
        found = json.loads(out)
        assert (answer, nothing) == (code, err) == (int(expected["verdict"] == "FAULT"), "")
        assert out.count("\n") == 1
        assert "".join(f"{line['verdict']:9}{line['text']}\n" for line in found.pop("lines")) == text
        assert found == {"mirror": str(own.root), "flavor": "v2", "certificate_end_epoch": None, **expected}
        own.write(HIT, b"defId = \xff\xe2\x80\xae\n")

"""Redirects: libcurl's defaults decide where they may lead."""

import socket
import threading

import pytest
from release import HIT
from scripted_server import SUBDIR, ScriptedServer, reply
from trials import BAD_URL, BROKEN, NO_MEMORY, REQUESTS, SERVERS_REFUSAL, UNSUPPORTED, UNTRUSTED, server_context

CODES = ("300 x", "301 x", "302 x", "303 x", "305 x", "306 x", "307 x", "308 x", "399 x")
every_request = pytest.mark.parametrize("request_kind", REQUESTS)


def moved(location, status="302 Found", body=b""):
    return reply(body, status, f"Location: {location}")


def aside(trial, request_kind):
    """The requested file's content under other names."""
    content = [reply(trial.content(request_kind))]
    return {"aside": content, "deeper/aside": content}


def check(trial, request_kind, outcomes):
    """Answers in the place of the requested file, which lies aside as well."""
    cases = [trial.case(request_kind, [answer], outcome) for answer, outcome in outcomes.items()]
    for case in cases:
        case.script.update(aside(trial, request_kind))
    trial.check_all(cases)


@pytest.fixture
def elsewhere(scripted_context):
    """Another mirror on another port."""
    with ScriptedServer(scripted_context) as server:
        yield server


@every_request
def test_redirect_on_the_same_mirror_is_followed(trial, request_kind):
    """What came with it is dropped, not put in front of what it leads to."""
    locations = [
        f"/{SUBDIR}/aside",
        "aside",
        "./aside",
        "deeper/aside",
        "deeper/../aside",
        f"../../../{SUBDIR}/aside",
        f"//127.0.0.1:{trial.server.port}/{SUBDIR}/aside",
        f"{trial.server.base()}/aside",
        f"{trial.server.base()}/aside#fragment",
        f"{trial.server.base(host='user:secret@127.0.0.1')}/aside",
        f"{trial.server.base(scheme='HTTPS')}/aside",
        f"   /{SUBDIR}/aside   ",
    ]
    answers = [moved(location) for location in locations] + [moved("aside", status) for status in CODES]
    answers.append(moved("aside", body=b"defId=666\n" * 10))
    check(trial, request_kind, dict.fromkeys(answers, "accepted"))


@every_request
def test_location_counts_with_a_redirects_status_alone(trial, request_kind):
    """A redirect to nowhere counts with its content, and one with an error's status is an error."""
    content = trial.content(request_kind)
    outcomes = {moved("aside", status, content): "accepted" for status in ("200 x", "201 x", "299 x")}
    outcomes |= {moved("", status, content): "accepted" for status in CODES}
    outcomes |= {moved("aside", status): SERVERS_REFUSAL for status in ("400 x", "404 x", "503 x")}
    cases = [trial.case(request_kind, [answer], outcome) for answer, outcome in outcomes.items()]
    trial.check_all(cases)  # nothing lies aside


@every_request
def test_redirect_to_another_port_or_host_is_followed(trial, elsewhere, request_kind):
    """Credentials in it are not sent."""
    elsewhere.script = aside(trial, request_kind)
    hosts = ("127.0.0.1", "localhost", "user:secret@127.0.0.1")
    check(trial, request_kind, {moved(f"{elsewhere.base(host)}/aside"): "accepted" for host in hosts})
    assert not any(line.startswith("Authorization") for head in elsewhere.requests for line in head)
    assert set(elsewhere.targets()) == {"aside"}


@every_request
def test_certificate_is_checked_after_a_redirect_too(trial, authority, elsewhere, request_kind):
    elsewhere.context = server_context(authority.issue_cert("elsewhere.example"))
    elsewhere.script = aside(trial, request_kind)
    check(trial, request_kind, {moved(f"{elsewhere.base()}/aside"): UNTRUSTED})
    assert elsewhere.targets() == []


@every_request
def test_redirect_to_plain_http_is_followed(trial, request_kind):
    """From there on anybody on the way can write what the gateway reads."""
    with ScriptedServer() as plain:
        plain.script = aside(trial, request_kind)
        check(trial, request_kind, {moved(f"{plain.base()}/aside"): "accepted"})
        assert set(plain.targets()) == {"aside"}


SCHEMES = ("dict", "gopher", "imap", "ldap", "pop3", "rtsp", "scp", "sftp", "smb", "smtp", "telnet", "tftp")


@every_request
def test_redirect_to_another_scheme_is_refused(trial, request_kind):
    """A file of this machine cannot be had by a redirect, nor can another protocol be spoken but FTP."""
    secret = trial.folder / "secret"
    secret.write_bytes(trial.content(request_kind))
    trial.before = trial.tree()
    locations = [f"file://{secret}", f"FILE://{secret}", f"file://localhost{secret}", "javascript:x", "nonsense://x/"]
    locations += [f"{scheme}://127.0.0.1:{trial.server.port}/{SUBDIR}/aside" for scheme in SCHEMES]
    outcomes = {moved(location): UNSUPPORTED for location in locations}
    outcomes |= {moved(location): BAD_URL for location in ("https://", "https://127.0.0.1:99999/", "https://a b/")}
    check(trial, request_kind, outcomes)


def serve_ftp(listener, content, commands):
    """An FTP server that has one file and knows as little as libcurl needs, until the listener is shut down."""
    while True:
        try:
            control = listener.accept()[0]
        except OSError:
            return
        with control, socket.create_server(("127.0.0.1", 0)) as data:
            answers = {
                "USER": "331 password",
                "PASS": "230 welcome",
                "PWD": '257 "/"',
                "EPSV": f"229 Entering (|||{data.getsockname()[1]}|)",
                "SIZE": f"213 {len(content)}",
                "RETR": "150 here it comes",
            }
            control.sendall(b"220 ready\r\n")
            for line in control.makefile("rb"):
                commands.append(line.decode().split()[0])
                control.sendall((answers.get(commands[-1], "200 very well") + "\r\n").encode())
                if commands[-1] == "RETR":
                    with data.accept()[0] as transfer:
                        transfer.sendall(content)
                    control.sendall(b"226 done\r\n")


@every_request
def test_redirect_to_ftp_is_followed(trial, request_kind):
    """libcurl allows it by default: plain FTP, with nothing to prove who answers."""
    commands = []
    with socket.create_server(("127.0.0.1", 0)) as listener:
        server = threading.Thread(target=serve_ftp, args=(listener, trial.content(request_kind), commands))
        server.start()
        try:
            check(trial, request_kind, {moved(f"ftp://127.0.0.1:{listener.getsockname()[1]}/aside"): "accepted"})
        finally:
            listener.shutdown(socket.SHUT_RDWR)
            server.join(timeout=30)
    assert "RETR" in commands


@every_request
def test_chain_of_redirects_is_followed_to_its_end(trial, request_kind):
    """There is no limit on their number, only on the size of all their heads together and on the time."""
    count = 500
    chain = {str(number): [moved(number + 1)] for number in range(1, count)}
    trial.server.script |= {
        trial.name(request_kind): [moved("1")],
        **chain,
        str(count): aside(trial, request_kind)["aside"],
    }
    trial.accept()
    assert len(trial.server.requests) == 3 + count


@every_request
@pytest.mark.parametrize("through", [[], ["aside"]], ids=["to_itself", "in_a_circle"])
def test_redirects_in_a_circle_end_at_the_limit_of_heads(trial, request_kind, through):
    """All heads of one request, redirects and all, may have about 300 KB together."""
    chain = [trial.name(request_kind), *through, trial.name(request_kind)]
    trial.server.script |= {here: [moved(there)] for here, there in zip(chain, chain[1:])}
    trial.refuse(request_kind, BROKEN)


def test_long_location_is_followed_as_long_as_its_line_is_taken(trial):
    name = "x" * 60_000
    cases = [trial.case("hit", [moved(name)], "accepted"), trial.case("hit", [moved(name * 2)], NO_MEMORY)]
    cases[0].script[name] = trial.new.script[HIT]
    trial.check_all(cases)


def test_redirect_does_not_outlast_its_request(trial):
    """The next check asks the mirror that is configured, not the one that the last redirect led to."""
    trial.server.script |= {HIT: [moved("aside", "301 Moved Permanently")], **aside(trial, "hit")}
    trial.accept()
    trial.server.requests.clear()
    assert trial.gateway.run_once() == []
    assert trial.server.targets() == [HIT, "aside"]

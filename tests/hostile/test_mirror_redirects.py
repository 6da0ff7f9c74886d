"""Redirects: libcurl's defaults decide where they may lead."""

import socket
import threading

import pytest
from release import HIT
from scripted_server import SUBDIR, ScriptedServer, finish, head, reply
from trials import REQUESTS, SERVERS_REFUSAL, server_context

REFUSED_SCHEME = "Unsupported protocol"
CODES = ("300 x", "301 x", "302 x", "303 x", "305 x", "306 x", "307 x", "308 x", "399 x")


def moved(location, status="302 Found"):
    return reply(b"", status, f"Location: {location}")


def lead_to(trial, request_kind, location, outcome="accepted", status="302 Found"):
    return trial.case(request_kind, [moved(location, status)], outcome)


@pytest.fixture
def elsewhere(scripted_context):
    """Another mirror on another port."""
    server = ScriptedServer(scripted_context)
    yield server
    server.stop()


@pytest.fixture
def plain():
    """A mirror that speaks plain HTTP."""
    server = ScriptedServer()
    yield server
    server.stop()


def put_aside(trial, request_kind):
    """Serves the requested file's content under another name as well."""
    content = [reply(trial.content(request_kind))]
    return {"aside": content, "deeper/aside": content}


@pytest.mark.parametrize("request_kind", REQUESTS)
def test_redirect_on_the_same_mirror_is_followed(trial, request_kind):
    aside = put_aside(trial, request_kind)
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
    cases = [lead_to(trial, request_kind, location) for location in locations]
    cases += [lead_to(trial, request_kind, "aside", status=status) for status in CODES]
    for case in cases:
        case.script.update(aside)
    trial.check_all(cases)


@pytest.mark.parametrize("request_kind", REQUESTS)
def test_location_of_an_answer_that_is_no_redirect_is_not_followed(trial, request_kind):
    answers = [reply(trial.content(request_kind), status, "Location: aside") for status in ("200 x", "201 x", "299 x")]
    trial.check_all(trial.accepted(request_kind, [answer]) for answer in answers)


@pytest.mark.parametrize("request_kind", REQUESTS)
def test_redirect_with_an_error_code_is_an_error(trial, request_kind):
    trial.check_all(
        lead_to(trial, request_kind, "aside", SERVERS_REFUSAL, status) for status in ("400 x", "404 x", "503 x")
    )


@pytest.mark.parametrize("request_kind", REQUESTS)
def test_redirect_to_nowhere_counts_with_its_content(trial, request_kind):
    content = trial.content(request_kind)
    trial.check_all(trial.case(request_kind, [reply(content, status, "Location:")], "accepted") for status in CODES)


@pytest.mark.parametrize("request_kind", REQUESTS)
def test_redirect_keeps_no_content_of_its_own(trial, request_kind):
    """What came with the redirect is dropped, not put in front of what it leads to."""
    answer = reply(b"defId=666\n" * 10, "302 Found", "Location: aside")
    case = trial.accepted(request_kind, [answer])
    case.script.update(put_aside(trial, request_kind))
    trial.check_all([case])


@pytest.mark.parametrize("request_kind", REQUESTS)
def test_redirect_to_another_port_or_host_is_followed(trial, elsewhere, request_kind):
    elsewhere.script = put_aside(trial, request_kind)
    trial.check_all(
        [
            lead_to(trial, request_kind, f"{elsewhere.base()}/aside"),
            lead_to(trial, request_kind, f"{elsewhere.base(host='localhost')}/aside"),
        ]
    )
    assert set(elsewhere.targets()) == {"aside"}


@pytest.mark.parametrize("request_kind", REQUESTS)
def test_certificate_is_checked_after_a_redirect_too(trial, authority, elsewhere, request_kind):
    elsewhere.context = server_context(authority.issue_cert("elsewhere.example"))
    elsewhere.script = put_aside(trial, request_kind)
    text = "SSL peer certificate or SSH remote key was not OK"
    trial.check_all([lead_to(trial, request_kind, f"{elsewhere.base()}/aside", text)])
    assert elsewhere.targets() == []


@pytest.mark.parametrize("request_kind", REQUESTS)
def test_redirect_to_plain_http_is_followed(trial, plain, request_kind):
    """From there on anybody on the way can write what the gateway reads."""
    plain.script = put_aside(trial, request_kind)
    trial.check_all([lead_to(trial, request_kind, f"{plain.base()}/aside")])
    assert set(plain.targets()) == {"aside"}


@pytest.mark.parametrize("request_kind", REQUESTS)
def test_credentials_in_a_redirect_to_another_port_are_not_sent(trial, elsewhere, request_kind):
    elsewhere.script = put_aside(trial, request_kind)
    trial.check_all([lead_to(trial, request_kind, f"{elsewhere.base(host='user:secret@127.0.0.1')}/aside")])
    sent = [line for lines in elsewhere.requests for line in lines]
    assert sent and not any(line.startswith("Authorization") for line in sent)


@pytest.mark.parametrize("request_kind", REQUESTS)
def test_redirect_to_another_scheme_is_refused(trial, request_kind):
    """A file of this machine cannot be had by a redirect, nor can another protocol be spoken but FTP."""
    secret = trial.folder / "secret"
    secret.write_bytes(trial.content(request_kind))
    trial.before = trial.tree()
    locations = [f"file://{secret}", f"FILE://{secret}", f"file://localhost{secret}", "javascript:x", "nonsense://x/"]
    port = trial.server.port
    locations += [
        f"{scheme}://127.0.0.1:{port}/{SUBDIR}/aside"
        for scheme in ("dict", "gopher", "imap", "ldap", "pop3", "rtsp", "scp", "sftp", "smb", "smtp", "telnet", "tftp")
    ]
    outcomes = {location: REFUSED_SCHEME for location in locations}
    outcomes["https://"] = "URL using bad/illegal format or missing URL"
    outcomes["https://127.0.0.1:99999/"] = "URL using bad/illegal format or missing URL"
    outcomes["https://a b/"] = "URL using bad/illegal format or missing URL"
    trial.check_all(lead_to(trial, request_kind, location, outcome) for location, outcome in outcomes.items())


class OneFileFtp:
    """An FTP server that has one file and knows as little as libcurl needs."""

    def __init__(self, content):
        self.content = content
        self._listener = socket.create_server(("127.0.0.1", 0))
        self.port = self._listener.getsockname()[1]
        self.commands = []
        self._thread = threading.Thread(target=self._serve)
        self._thread.start()

    def stop(self):
        self._listener.shutdown(socket.SHUT_RDWR)
        self._thread.join(timeout=30)
        self._listener.close()

    def _serve(self):
        while True:
            try:
                control = self._listener.accept()[0]
            except OSError:
                return  # the listener was shut down
            with control, socket.create_server(("127.0.0.1", 0)) as data:
                control.sendall(b"220 ready\r\n")
                for line in control.makefile("rb"):
                    self._answer(control, data, line.decode().split()[0])

    def _answer(self, control, data, command):
        self.commands.append(command)
        answers = {
            "USER": "331 password",
            "PASS": "230 welcome",
            "PWD": '257 "/"',
            "EPSV": f"229 Entering (|||{data.getsockname()[1]}|)",
            "SIZE": f"213 {len(self.content)}",
            "RETR": "150 here it comes",
        }
        control.sendall((answers.get(command, "200 very well") + "\r\n").encode())
        if command == "RETR":
            with data.accept()[0] as transfer:
                transfer.sendall(self.content)
            control.sendall(b"226 done\r\n")


@pytest.mark.parametrize("request_kind", REQUESTS)
def test_redirect_to_ftp_is_followed(trial, request_kind):
    """libcurl allows it by default: plain FTP, with nothing to prove who answers."""
    server = OneFileFtp(trial.content(request_kind))
    try:
        trial.check_all([lead_to(trial, request_kind, f"ftp://127.0.0.1:{server.port}/aside")])
    finally:
        server.stop()
    assert "RETR" in server.commands


@pytest.mark.parametrize("request_kind", REQUESTS)
def test_chain_of_redirects_is_followed_to_its_end(trial, request_kind):
    """There is no limit on their number, only on the size of all their heads together and on the time."""
    name, count = trial.name(request_kind), 500
    trial.server.script = {
        **trial.new.script,
        name: [moved("1")],
        **{str(number): [moved(number + 1)] for number in range(1, count)},
        str(count): [reply(trial.content(request_kind))],
    }
    trial.accept()
    assert len(trial.server.requests) == 3 + count


@pytest.mark.parametrize("request_kind", REQUESTS)
@pytest.mark.parametrize("through", [[], ["aside"]], ids=["to_itself", "in_a_circle"])
def test_redirects_in_a_circle_end_at_the_limit_of_their_heads(trial, request_kind, through):
    """All heads of one request, redirects and all, may have about 300 KB together."""
    name = trial.name(request_kind)
    chain = [name, *through, name]
    for here, there in zip(chain, chain[1:]):
        trial.server.script[here] = [moved(there)]
    trial.refuse(*trial.failure(request_kind, "Failure when receiving data from the peer"))
    trial.heal()


def test_long_location_is_followed_as_long_as_its_line_is_taken(trial):
    name = "x" * 60_000
    case = lead_to(trial, "hit", name)
    case.script[name] = [reply(trial.content("hit"))]
    trial.check_all([case, lead_to(trial, "hit", "x" * 120_000, "Out of memory")])


def test_redirect_does_not_outlast_its_request(trial):
    """The next check asks the mirror that is configured, not the one that the last redirect led to."""
    trial.server.script[HIT] = [moved("aside", "301 Moved Permanently")]
    trial.server.script["aside"] = [head(), trial.content("hit"), finish]
    trial.accept()
    trial.server.targets()
    assert trial.gateway.run_once() == []
    assert trial.server.targets() == [HIT, "aside"]

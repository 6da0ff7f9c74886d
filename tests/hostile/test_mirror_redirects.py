"""Redirects: libcurl's defaults decide where they may lead. All requests set the same options, so that the archive's
stands for all."""

import pytest
from packages import RELEASE
from scripted_server import SUBDIR, ScriptedServer, finish, receive, reply
from trials import BAD_URL, BROKEN, TOO_MANY_REDIRECTS, UNSUPPORTED, UNTRUSTED, server_context


def moved(location, status="302 Found", body=b""):
    return reply(body, status, f"Location: {location}")


def aside(trial):
    """The archive under another name."""
    return {"aside": [reply(trial.new.archive)]}


def check(trial, outcomes):
    """Answers instead of the archive, which has a second path."""
    cases = [trial.case("archive", [answer], outcome) for answer, outcome in outcomes.items()]
    for case in cases:
        case.script.update(aside(trial))
    trial.check_all(cases)


def test_redirect_on_the_same_mirror_is_followed(trial):
    """What came with it is dropped, not put in front of what it leads to."""
    locations = (f"/{SUBDIR}/aside", "deeper/../aside", f"//127.0.0.1:{trial.server.port}/{SUBDIR}/aside")
    answers = [moved(location, body=b"dropped") for location in locations]
    answers += [moved("aside", f"{code} x") for code in (300, 301, 303, 307, 308, 399)]
    check(trial, dict.fromkeys(answers, "accepted"))


def test_redirect_to_another_port_or_host_is_followed(trial, scripted_context):
    """Credentials in it are not sent."""
    with ScriptedServer(scripted_context) as elsewhere:
        elsewhere.script = aside(trial)
        hosts = ("127.0.0.1", "localhost", "user:secret@127.0.0.1")
        check(trial, {moved(f"{elsewhere.base(host)}/aside"): "accepted" for host in hosts})
        assert not any(line.startswith("Authorization") for head in elsewhere.requests for line in head)
        assert set(elsewhere.targets()) == {"aside"}


def test_certificate_is_checked_after_a_redirect_too(trial, authority):
    with ScriptedServer(server_context(authority.issue_cert("elsewhere.example"))) as elsewhere:
        elsewhere.script = aside(trial)
        check(trial, {moved(f"{elsewhere.base()}/aside"): UNTRUSTED})
        assert elsewhere.targets() == []


def test_redirect_to_plain_http_is_followed(trial):
    """From there on anyone on the way can change what the gateway reads."""
    with ScriptedServer() as plain:
        plain.script = aside(trial)
        check(trial, {moved(f"{plain.base()}/aside"): "accepted"})
        assert plain.targets() == ["aside"]


SCHEMES = ("dict", "gopher", "imap", "ldap", "pop3", "rtsp", "scp", "sftp", "smb", "smtp", "telnet", "tftp")


def test_redirect_to_another_scheme_is_refused(trial):
    """A redirect reaches no file of this machine, and no other protocol except FTP."""
    secret = trial.directory / "secret"
    secret.write_bytes(trial.new.archive)
    trial.before = trial.tree()
    locations = [f"file://{secret}", f"FILE://localhost{secret}", "javascript:x"]
    locations += [f"{scheme}://127.0.0.1:{trial.server.port}/{SUBDIR}/aside" for scheme in SCHEMES]
    outcomes = {moved(location): UNSUPPORTED for location in locations}
    check(trial, {**outcomes, moved("https://127.0.0.1:99999/"): BAD_URL})


def test_redirect_to_ftp_is_followed(trial):
    """libcurl allows it by default: plain FTP, with nothing to prove who answers."""
    with ScriptedServer() as control, ScriptedServer() as data:
        data.opening = [trial.new.archive, finish]
        # Of USER, PASS, PWD, EPSV, TYPE, SIZE and RETR.
        answers = ("331 x", "230 x", '257 "/"', f"229 x (|||{data.port}|)", "200 x", f"213 {len(trial.new.archive)}")
        answers = [f"{answer}\r\n".encode() for answer in (*answers, "150 x\r\n226 x")]
        control.opening = [b"220 ready\r\n", *(step for answer in answers for step in (receive, answer)), receive]
        check(trial, {moved(f"ftp://127.0.0.1:{control.port}/aside"): "accepted"})
        assert data.connections == 1


@pytest.mark.parametrize("through", [[], ["aside"]], ids=["to_itself", "in_a_circle"])
def test_redirects_in_a_circle_end_at_a_limit(trial, through):
    """All heads of one request, redirects and all, may have about 300 KB together; or there may be 30 redirects."""
    name = trial.new.archive_name
    chain = [name, *through, name]
    trial.server.script |= {here: [moved(there)] for here, there in zip(chain, chain[1:])}
    trial.refuse("archive", TOO_MANY_REDIRECTS if RELEASE == "13" else BROKEN)

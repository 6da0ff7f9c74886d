"""What the environment and local users can do to the daemon's requests to the mirror."""

from outcomes import published, status_text
from scripted_server import ScriptedServer, finish, reply
from trials import NEW, NO_HANDSHAKE, OLD, UNTRUSTED


def run_once(trial, **environment):
    process = trial.gateway.run("--config", trial.gateway.config_path, "--once", **environment)
    assert (process.returncode, process.stdout, process.stderr) == (0, "", "")
    return trial.gateway.take_log()


def test_proxy_of_the_environment_is_asked_and_not_believed(trial):
    """libcurl uses it by itself. TLS runs between daemon and mirror, through the proxy, which has no certificate."""
    target = f"127.0.0.1:{trial.server.port}"
    with ScriptedServer() as proxy:
        proxy.script[target] = [b"HTTP/1.1 200 OK\r\n\r\n", reply(b"defId=666"), finish]
        lines = run_once(trial, https_proxy=f"http://127.0.0.1:{proxy.port}", no_proxy="", NO_PROXY="")
    assert [request[0] for request in proxy.requests] == [f"CONNECT {target} HTTP/1.1"]
    assert trial.server.targets() == []
    trial.expect(trial.case("hit", [], NO_HANDSHAKE), lines)
    trial.heal()


def test_environment_may_have_the_keys_of_tls_written_down(trial):
    """Who sets it can read recorded traffic, but not change it. So give the daemon a clean environment."""
    keys = trial.directory / "keys"
    assert run_once(trial, SSLKEYLOGFILE=str(keys)) == published(NEW, OLD)
    assert "CLIENT_TRAFFIC_SECRET_0 " in keys.read_text()


def test_files_of_the_users_home_are_not_read(trial):
    """Neither credentials nor options for other programs count here, and requests say nothing about the gateway."""
    (trial.directory / ".netrc").write_text("machine 127.0.0.1 login user password secret\n")
    (trial.directory / ".curlrc").write_text("insecure\nuser-agent = other\n")
    trial.before = trial.tree()
    trial.expect(trial.published({}), run_once(trial, HOME=str(trial.directory), CURL_HOME=str(trial.directory)))
    host, names = f"127.0.0.1:{trial.server.port}", map(trial.name, ("hit", "info", "archive"))
    assert trial.server.requests == [[f"GET /defs/{name} HTTP/1.1", f"Host: {host}", "Accept: */*"] for name in names]


def test_variables_do_not_add_authorities(trial):
    """The configured file alone counts."""
    other = str(trial.gateway.settings["ca_path"])
    trial.gateway.settings["ca_path"] = ""
    lines = run_once(trial, SSL_CERT_FILE=other, CURL_CA_BUNDLE=other)
    trial.expect(trial.case("hit", [], UNTRUSTED), lines)
    trial.heal()


def test_files_changed_in_service_are_not_noticed(trial):
    """Nothing is checked again once it is in service: who can write there decides what is served."""
    file = trial.gateway.root / "active" / "antivir-v2.def"
    trial.accept()
    file.write_bytes(b"other content")
    assert trial.gateway.run_once() == []
    trial.gateway.expect_status(NEW)
    assert file.read_bytes() == b"other content"


def test_status_is_written_through_a_link(trial):
    """So only the daemon's user owns its directory."""
    victim = trial.directory / "victim"
    victim.write_text("precious " * 1000)
    trial.gateway.status_path.unlink()
    trial.gateway.status_path.symlink_to(victim)
    assert trial.gateway.run_once() == published(NEW, OLD)
    assert victim.read_text() == status_text(NEW, trial.gateway.status()["last_check_epoch"])

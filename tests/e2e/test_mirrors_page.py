"""The page for operators of mirrors: its commands answer as it says, and its nginx configurations do what it says."""

import os
import re
import socket
import ssl
import subprocess
import textwrap
import time
import urllib.error
import urllib.request
from concurrent.futures import ThreadPoolExecutor

import pytest
import trustme
from builds import REPOSITORY
from gateway import Gateway
from mirror_tool import SUBDIR, WORK, Setting, Stopped, noise, run
from outcomes import published

PAGE = (REPOSITORY / "docs" / "mirrors.md").read_text()
HIT = "antivir-v2-hit.ini"


def masked(text):
    """The text with its sizes and digests made alike."""
    return re.sub(r"\b[0-9a-f]{64}\b", "DIGEST", re.sub(r"\b(bytes )?\d{4,}( bytes)?\b", _mask_size, text))


def _mask_size(match):
    return f"{match[1] or ''}SIZE{match[2] or ''}" if match[1] or match[2] else match[0]


def test_commands_of_the_page_answer_as_it_says(tmp_path):
    session = textwrap.dedent(re.search(r"<!-- session -->\n((?:    .*\n)+)", PAGE)[1])
    place = Setting(tmp_path)
    ages = {"1001": 40, "1002": 20, "1003": 9}
    for id in ages:
        place.old.write_bytes(noise(9000, id))
        assert run("publish", "--id", id, place.mirror, place.old, place.old)[0] == 0
    for name, age in [*((f"antivir-v2-c-{id}.ini", age) for id, age in ages.items()), (HIT, 9)]:
        then = time.time() - age * 86400
        os.utime(place.dir / name, (then, then))
    for name in ("antivir.def", "aivsecon.def"):
        (tmp_path / name).write_bytes(noise(8000, name))
    for command, answer in re.findall(r"^\$ zqu-mirror (.*)\n((?:[^$].*\n)+)", session, re.MULTILINE):
        words = command.replace("/srv/mirror", str(place.mirror)).replace("/srv/copy", str(tmp_path / "copy")).split()
        code, out, err = run(*words, cwd=tmp_path)
        assert (code, masked(out), err) == (0, masked(answer), "")


class Server:
    """nginx with one of the page's configurations, set for this machine."""

    WRAPPER = """\
        daemon off;
        {user}
        pid {folder}/pid;
        events {{ }}
        http {{
            client_body_temp_path {folder}/t; fastcgi_temp_path {folder}/t; uwsgi_temp_path {folder}/t;
            scgi_temp_path {folder}/t; proxy_temp_path {folder}/p;
            log_format plain "$uri $status";
            access_log {folder}/access.log plain;
            limit_rate {rate};
            {page}
        }}
        """

    def __init__(self, folder, authority, number, rate=0, **changes):
        self.folder = folder
        folder.mkdir()
        self.ca_path = folder / "ca.pem"
        authority.cert_pem.write_to_path(self.ca_path)
        leaf = authority.issue_cert("localhost", "127.0.0.1", "mirror.example")
        leaf.private_key_and_cert_chain_pem.write_to_path(folder / "pair.pem")
        with socket.create_server(("127.0.0.1", 0)) as listener:  # nginx takes it over
            self.port = listener.getsockname()[1]
            page = self._set_for_here(re.findall(r"```nginx\n(.*?)```", PAGE, re.DOTALL)[number], changes)
            user = "user root;" if os.geteuid() == 0 else ""
            text = textwrap.dedent(self.WRAPPER).format(folder=folder, user=user, rate=rate, page=page)
            (folder / "conf").write_text(text)
            self.process = subprocess.Popen(
                ["/usr/sbin/nginx", "-p", folder, "-c", folder / "conf", "-e", folder / "error.log"],
                env={**os.environ, "NGINX": f"{listener.fileno()};"},
                pass_fds=[listener.fileno()],
            )

    def _set_for_here(self, text, changes):
        changes = {
            r"listen 443 ssl;": f"listen 127.0.0.1:{self.port} ssl;",
            r"/etc/ssl/(mirror|proxy)\.pem|/etc/ssl/private/\w+\.key": f"{self.folder}/pair.pem",
            **changes,
        }
        for pattern, new in changes.items():
            text, count = re.subn(pattern, lambda unused: new, text)
            assert count, pattern
        assert not re.search(r"/etc/|/srv/|/var/|\b443\b", text.replace(str(self.folder), ""))
        return text

    @property
    def url(self):
        return f"https://localhost:{self.port}"

    def get(self, path):
        """The status, the headers and the body of an answer; redirects are not followed."""
        context = ssl.create_default_context(cafile=self.ca_path)
        opener = urllib.request.build_opener(NoRedirects, urllib.request.HTTPSHandler(context=context))
        try:
            with opener.open(f"{self.url}/{path}", timeout=30) as answer:
                return answer.status, dict(answer.headers), answer.read()
        except urllib.error.HTTPError as answer:
            return answer.code, dict(answer.headers), answer.read()

    def requests(self, suffix):
        lines = (self.folder / "access.log").read_text().splitlines()
        return [line for line in lines if line.split()[0].endswith(suffix)]

    def stop(self):
        self.process.terminate()
        self.process.wait(timeout=30)


class NoRedirects(urllib.request.HTTPRedirectHandler):
    def redirect_request(self, *unused):
        return None


@pytest.fixture
def servers():
    started = []
    yield started
    for server in started:
        server.stop()


def gateway_of(server, folder):
    folder.mkdir()
    return Gateway(folder, mirror_base_url=server.url, mirror_subdir=SUBDIR, ca_path=server.ca_path)


def test_page_shows_just_these_two_configurations():
    assert [
        re.findall(r"^ +server_name (\S+);", text, re.MULTILINE)
        for text in re.findall(r"```nginx\n(.*?)```", PAGE, re.DOTALL)
    ] == [
        ["mirror.example"],
        ["proxy.example"],
    ]


def test_mirror_of_the_page_serves_each_file_as_it_says(tmp_path, servers):
    place = Setting(tmp_path)
    assert place.publish("1001")[0] == 0
    assert place.publish("1002", "--zip")[0] == 0
    server = Server(tmp_path / "nginx", trustme.CA(), 0, **{"/srv/mirror": str(place.mirror)})
    servers.append(server)
    briefly, for_ever = "public, max-age=60", "public, max-age=31536000, immutable"
    for path in place.dir.iterdir():
        status, headers, body = server.get(f"{SUBDIR}/{path.name}")
        assert (status, body) == (200, path.read_bytes())
        assert headers["Content-Length"] == str(path.stat().st_size)
        assert headers["Cache-Control"] == (briefly if path.suffix == ".ini" else for_ever)
    (place.mirror / "README").write_text("mine")
    with Stopped(place, place.dir / WORK / "hit", id="1003"):
        hidden = f"{SUBDIR}/{WORK}/hit"
        assert (place.dir / WORK).is_dir()
        for path in ["", "README", "rhex", SUBDIR, f"{SUBDIR}/", hidden, f"{SUBDIR}/{WORK}/unpacked/antivir-v2.ini"]:
            assert server.get(path)[0] == 404, path
    gateway = gateway_of(server, tmp_path / "gateway")
    assert gateway.run_once() == published("1002")


def lifetimes_of_sessions(server, protocol):
    """For how many seconds the server says that a session may be resumed, once for each that it hands out."""
    command = ["openssl", "s_client", protocol, "-ign_eof", "-connect", f"127.0.0.1:{server.port}"]
    request = "GET / HTTP/1.0\r\n\r\n"
    process = subprocess.run(command, input=request, capture_output=True, text=True, timeout=30)
    return {int(hint) for hint in re.findall(r"ticket lifetime hint: (\d+) ", process.stdout)}


@pytest.mark.parametrize("protocol", ["-tls1_2", "-tls1_3"])
def test_sessions_of_the_pages_servers_outlive_the_longest_wait(tmp_path, servers, protocol):
    mirror = Server(tmp_path / "mirror-nginx", trustme.CA(), 0, **{"/srv/mirror": str(tmp_path)})
    servers.append(mirror)
    here = {
        "/var/cache/nginx/definitions": str(tmp_path / "cache"),
        "/etc/ssl/fleet-ca.pem": str(mirror.ca_path),
        "https://mirror.example": mirror.url,
    }
    servers.append(Server(tmp_path / "proxy-nginx", trustme.CA(), 1, **here))
    for server in servers:
        (lifetime,) = lifetimes_of_sessions(server, protocol)
        assert lifetime > 900 + 120


def test_proxy_of_the_page_fetches_an_archive_once_for_all_and_sees_the_next_release(tmp_path, servers):
    place = Setting(tmp_path)
    authority = trustme.CA()
    place.antivir.write_bytes(noise(1 << 20, "big"))
    assert place.publish("1001")[0] == 0
    # Slow enough for all gateways to ask for the archive while it is still on its way.
    mirror = Server(tmp_path / "mirror-nginx", authority, 0, rate="2m", **{"/srv/mirror": str(place.mirror)})
    servers.append(mirror)
    proxy = Server(
        tmp_path / "proxy-nginx",
        authority,
        1,
        **{
            "/var/cache/nginx/definitions": str(tmp_path / "cache"),
            "/etc/ssl/fleet-ca.pem": str(mirror.ca_path),
            "https://mirror.example": f"https://127.0.0.1:{mirror.port}",
            r"proxy_cache_valid 200 1m;": "proxy_cache_valid 200 1s;",
        },
    )
    servers.append(proxy)
    gateways = [gateway_of(proxy, tmp_path / f"gateway-{number}") for number in range(6)]
    with ThreadPoolExecutor(6) as pool:
        logs = list(pool.map(Gateway.run_once, gateways))
    assert logs == [published("1001")] * 6
    assert mirror.requests(".cab") == [f"/{SUBDIR}/antivir-v2-c-1001.cab 200"]
    assert len(proxy.requests(".cab")) == 6
    place.antivir.write_bytes(noise(1000, "next"))
    assert place.publish("1002")[0] == 0
    for gateway in gateways:
        while not (log := gateway.run_once()):  # as long as the hit INI in the cache is valid
            gateway.expect_status("1001")
        assert log == published("1002", "1001")
    assert mirror.requests("1002.cab") == [f"/{SUBDIR}/antivir-v2-c-1002.cab 200"]
    assert proxy.get("")[0] == 404
    assert proxy.get(f"{SUBDIR}/antivir-v2-c-9.ini")[0] == 404
    (place.dir / "antivir-v2-c-9.ini").write_text("late")
    assert proxy.get(f"{SUBDIR}/antivir-v2-c-9.ini")[::2] == (200, b"late")  # no error is cached

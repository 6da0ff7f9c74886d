"""The nginx configurations in docs/mirrors.md, at work on this machine."""

import re
import ssl
from http.client import HTTPSConnection

import pytest
import trustme
from builds import REPOSITORY
from mirrors import Nginx

PAGE = (REPOSITORY / "docs" / "mirrors.md").read_text()
CONFIGURATIONS = re.findall(r"```nginx\n(.*?)```", PAGE, re.DOTALL)


class Server(Nginx):
    """nginx with the split and one of the page's servers, set for this machine."""

    def __init__(self, directory, authority, page, places="", rate=0, prefix=(), **changes):
        """Places are lines of the geo block, in the place of the page's examples."""
        directory.mkdir()
        self.authority = authority
        self.page = page
        self.address_header = (
            f"X-{directory.name}"  # stands for the address, so that one connection can be many gateways
        )
        self.split, count = re.subn(r"(default chance;).*?}", rf"\1 {places} }}", CONFIGURATIONS[0], 1, re.DOTALL)
        assert count
        self.rate = rate
        self.prefix = prefix
        self.changes = changes
        super().__init__(directory)

    def _make_certificates(self):
        self.authority.cert_pem.write_to_path(self.ca_path)
        leaf = self.authority.issue_cert("localhost", "127.0.0.1", "mirror.example")
        leaf.private_key_and_cert_chain_pem.write_to_path(self.directory / "good.pem")

    def _http_lines(self):
        by_header = f"set_real_ip_from 127.0.0.0/8; real_ip_header {self.address_header};"
        return f"limit_rate {self.rate}; {by_header} {self.split}"

    def _server(self, name):
        text = self.page
        changes = {
            r"listen \[::\]:443 ssl;": "",  # the kernel may lack IPv6
            r"listen 443 ssl;": f"listen 127.0.0.1:{self.ports[name]} ssl;",
            r"/etc/ssl/(mirror|proxy)\.pem|/etc/ssl/private/\w+\.key": f"{self.directory}/{name}.pem",
            **self.changes,
        }
        for pattern, new in changes.items():
            text, count = re.subn(pattern, lambda unused: new, text)
            assert count, pattern
        assert not re.search(r"/etc/|/srv/|/var/|\b443\b", text.replace(str(self.directory), ""))
        return text

    def connection(self, source=None):
        """A connection from that loopback address."""
        context = ssl.create_default_context(cafile=self.ca_path)
        address = (source, 0) if source else None
        return HTTPSConnection("localhost", self.ports["good"], context=context, timeout=30, source_address=address)

    def get(self, path, connection=None, **headers):
        """The status, the headers and the body of an answer; redirects are not followed."""
        connection = connection or self.connection()
        connection.request("GET", f"/{path}", headers=headers)
        answer = connection.getresponse()
        return answer.status, dict(answer.headers), answer.read()

    def asked_for(self, suffix):
        lines = (self.directory / "access.log").read_text().splitlines()
        return [line for line in lines if line.split()[0].endswith(suffix)]


class Servers(list):
    """What a test starts."""

    def __init__(self, base):
        super().__init__()
        self.base = base
        self.authority = trustme.CA()

    def _start(self, number, *words, **options):
        directory = self.base / f"nginx-{len(self)}"
        self.append(Server(directory, self.authority, CONFIGURATIONS[number], *words, **options))
        return self[-1]

    def mirror(self, root, *words, **options):
        return self._start(1, *words, **{"/srv/mirror": str(root), **options})

    def proxy(self, mirror, *words, **options):
        changes = {
            "/var/cache/nginx/definitions": str(self.base / f"cache-{len(self)}"),
            "/etc/ssl/fleet-ca.pem": str(mirror.ca_path),
            "https://mirror.example": mirror.url(host="127.0.0.1"),
        }
        return self._start(2, *words, **changes, **options)


@pytest.fixture
def servers(tmp_path):
    started = Servers(tmp_path)
    yield started
    for server in started:
        server.stop()

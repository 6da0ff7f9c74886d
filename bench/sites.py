"""What is measured: nginx over TLS with releases of any size, and gateways whose daemon nothing is preloaded into."""

import contextlib
import functools
import json
import random
import subprocess
import time

import trustme
from gateway import Gateway
from measure import run, usage
from mirrors import Nginx

SUBDIR = "rhex/deffiles/def5-2"
ID = "1001"
SMALL = 100_000  # bytes of definitions, which a check with nothing new never reads


class Server(Nginx):
    """nginx with a server for each of these lines of configuration, all with one certificate. Its log shows what
    happened to connections and sessions."""

    LOG = "$server_port $connection $ssl_session_reused $status $ssl_protocol"

    def __init__(self, directory, **lines):
        self.lines = {"good": "", **lines}
        self.CERTIFICATES = tuple(self.lines)
        (directory / "access.log").touch()
        super().__init__(directory)

    def _make_certificates(self):
        self.authority = trustme.CA()
        self.authority.cert_pem.write_to_path(self.ca_path)
        leaf = self.authority.issue_cert("localhost", "127.0.0.1")
        for name in self.lines:
            leaf.private_key_and_cert_chain_pem.write_to_path(self.directory / f"{name}.pem")

    def _http_lines(self):
        return "ssl_protocols TLSv1.2 TLSv1.3;"

    def _server_lines(self, name):
        return self.lines[name]

    def usage(self):
        return usage(*self._workers())

    def requests(self, name, count=0, since=0):
        """The requests that a server has answered after the first few, each as connection, "r" for a resumed session,
        status and protocol; waits until there are at least so many."""
        for _ in range(3000):  # nginx writes its log after the answer
            lines = [line.split() for line in (self.directory / "access.log").read_text().splitlines()]
            found = [line[1:] for line in lines if line[0] == str(self.ports[name])][since:]
            if len(found) >= count:
                assert {line[2] for line in found} <= {"200"}, found
                return found
            time.sleep(0.01)
        raise AssertionError(f"{name}: {len(found)} requests instead of {count}")


@contextlib.contextmanager
def server(bench, **lines):
    """That nginx, with a small release below mirror/."""
    nginx = Server(bench.directory, **lines)
    try:
        publish(bench, nginx.root / "mirror", SMALL)
        yield nginx
    finally:
        nginx.stop()


@functools.cache
def _chunk(compressible):
    """8 MiB: half of it random, half of it repeated, as signatures between their names are; or all of it random."""
    source = random.Random(20)
    if not compressible:
        return source.randbytes(8 << 20)
    words = [source.randbytes(16) for _ in range(64)]
    return b"".join(source.randbytes(32) + source.choice(words) + source.choice(words) for _ in range(1 << 17))


def write_definitions(path, size, compressible=True):
    """Writes size bytes. They repeat after 8 MiB, which is far beyond the 32 KiB that compression looks back."""
    chunk = _chunk(compressible)
    with open(path, "wb") as file:
        for begin in range(0, size, len(chunk)):
            file.write(chunk[: size - begin])


def definitions(directory, size, compressible=True):
    """Writes two definition files, together size bytes, three quarters of them in the first; returns their paths."""
    files = {directory / "antivir.def": 0.75, directory / "aivsecon.def": 0.25}
    for file, share in files.items():
        write_definitions(file, int(size * share), compressible)
    return list(files)


def publishing(bench, root, files, release=ID, form="cab"):
    """The command that publishes these two files."""
    return [bench.build / "zqu-mirror", "publish", "--format", form, "--id", release, root, *files]


def publish(bench, root, size, release=ID, compressible=True):
    """Publishes definitions of size bytes; returns the archive's size."""
    files = definitions(bench.directory, size, compressible)
    subprocess.run(publishing(bench, root, files, release), check=True, capture_output=True)
    for file in files:
        file.unlink()
    return next((root / SUBDIR).glob(f"*-{release}.cab")).stat().st_size


class BenchGateway(Gateway):
    """A gateway that has the small release in service, from that server or from a relay in front of it."""

    def __init__(self, bench, name, nginx, port=None, ca_path=None, **settings):
        base = f"https://127.0.0.1:{port or nginx.ports['good']}/mirror"
        self.ca_path = ca_path or nginx.ca_path
        directory = bench.directory / name
        directory.mkdir()
        super().__init__(directory, mirror_base_url=base, ca_path=self.ca_path, poll_jitter_s=0, **settings)
        self.url = f"{base}/{SUBDIR}/antivir-v2-hit.ini"
        self.loop = [bench.daemon, "--config", self.config_path]
        self.check = [*self.loop, "--once"]
        self.curl = ["curl", "--fail", "--silent", "--cacert", self.ca_path, "-o", directory / "hit.ini", self.url]
        run(self.check)
        self.expect_status(ID)


class Loop:
    """The daemon's loop on a site, until the block ends."""

    def __init__(self, site):
        self.site = site
        site.status_path.unlink()  # so that the first one that is seen is the loop's
        self.checked = None

    def __enter__(self):
        self.process = subprocess.Popen(self.site.loop, stdin=subprocess.DEVNULL)
        return self

    def __exit__(self, *_):
        self.process.kill()
        self.process.wait()

    def usage(self):
        return usage(self.process.pid)

    def next_check(self):
        """Waits for the end of a check, which must be a success; returns what the daemon has used so far."""
        while (now := self._last_check()) in (None, self.checked):
            assert self.process.poll() is None, "the daemon ended"
            time.sleep(0.01)
        self.checked = now
        time.sleep(0.1)  # until it waits
        self.site.expect_status(ID)
        return self.usage()

    def _last_check(self):
        try:
            return self.site.status()["last_check_epoch"]
        except (FileNotFoundError, json.JSONDecodeError):  # none yet, or it is just being written
            return None

"""A mirror of definitions: an nginx over TLS, and the releases that a test puts on it."""

import hashlib
import os
import pathlib
import signal
import socket
import subprocess
import textwrap
import time

import trustme
from gateway import wait_for
from release import Release, hit_ini, info_ini, info_name

# Ends a command when the process ends that started it, however it does.
WITH_US = ["setpriv", "--pdeathsig", "TERM"]


class Mirror:
    """One test's corner of the session's mirror: a subdirectory of what nginx serves."""

    def __init__(self, root, subdir):
        self.subdir = subdir
        self.directory = root / subdir
        self.directory.mkdir(parents=True)

    def path(self, name):
        return self.directory / name

    def write(self, name, content):
        self.path(name).write_bytes(content if isinstance(content, bytes) else content.encode())

    def announce(self, version, cab, flavor="v2"):
        """Writes both INI files for an archive that lies on the mirror already."""
        digest = hashlib.sha256()
        with open(self.path(cab), "rb") as archive:
            for block in iter(lambda: archive.read(1 << 20), b""):
                digest.update(block)
        size = self.path(cab).stat().st_size
        self.write(info_name(version, flavor), info_ini(version, cab, digest.hexdigest(), size))
        self.write(f"antivir-{flavor}-hit.ini", hit_ini(version))

    def publish(self, version, files=None, flavor="v2"):
        """Publishes a release as a CAB; of these (name, bytes) files if any are given."""
        for name, content in reversed(Release(version, files, flavor=flavor).files.values()):
            self.write(name, content)


class Nginx:
    """nginx over TLS on free loopback ports."""

    CERTIFICATES = ("good",)  # and the ports that show them
    EVENTS = ""  # lines of nginx.conf's block "events"
    LOG = "$uri $status"
    prefix = ()  # words before the command

    def __init__(self, directory):
        self.directory = directory
        self.root = directory / "www"
        self.root.mkdir()
        self.ca_path = directory / "ca.pem"
        self._make_certificates()
        # Bound as long as the object lives, though they never listen: the ports stay ours while nginx is stopped.
        self.holders = {name: self._hold_port() for name in self.CERTIFICATES}
        self.ports = {name: holder.getsockname()[1] for name, holder in self.holders.items()}
        self._write_configuration()
        self.start()

    def start(self):
        # nginx takes over the sockets, which listen already: no port can be lost, and there is nothing to wait for.
        sockets = [socket.create_server(("127.0.0.1", port)) for port in self.ports.values()]
        descriptors = [s.fileno() for s in sockets]
        nginx = ["/usr/sbin/nginx", "-p", self.directory, "-c", "nginx.conf", "-e", "error.log"]
        self.process = subprocess.Popen(
            [*WITH_US, *self.prefix, *nginx],
            env={**os.environ, "NGINX": "".join(f"{fd};" for fd in descriptors)},
            pass_fds=descriptors,
        )
        for s in sockets:
            s.close()

    def url(self, certificate="good", host="localhost"):
        return f"https://{host}:{self.ports[certificate]}"

    def requests(self, subdir, count):
        """The paths requested below a subdirectory, with the status answered; waits until there are this many."""
        for _ in range(3000):  # nginx writes its log after the answer
            lines = (self.directory / "access.log").read_text().splitlines()
            found = [line.replace(f"/{subdir}/", "") for line in lines if f"/{subdir}/" in line]
            if len(found) >= count:
                break
            time.sleep(0.01)
        return found

    def stop(self):
        self.process.terminate()
        self.process.wait(timeout=30)

    def reload(self):
        """Makes the running nginx read its certificates again; returns once only new workers are left."""
        former = self._workers()
        self.process.send_signal(signal.SIGHUP)
        wait_for(lambda: self._workers() and not self._workers() & former, self.process)

    def _workers(self):
        process = self.process.pid
        return set(pathlib.Path(f"/proc/{process}/task/{process}/children").read_text().split())

    @staticmethod
    def _hold_port():
        holder = socket.socket()
        holder.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        holder.bind(("127.0.0.1", 0))
        return holder

    def _make_certificates(self):
        self.authority = trustme.CA()
        self.authority.cert_pem.write_to_path(self.ca_path)
        leaf = self.authority.issue_cert("localhost", "127.0.0.1")
        for name in self.CERTIFICATES:
            leaf.private_key_and_cert_chain_pem.write_to_path(self.directory / f"{name}.pem")

    def _http_lines(self):
        """Lines of nginx.conf's block "http"."""
        return "keepalive_timeout 2s;"

    def _server_lines(self, _name):
        """Lines of the block "server" that shows that certificate."""
        return ""

    def _server(self, name):
        return f"""
            server {{
                listen 127.0.0.1:{self.ports[name]} ssl;
                ssl_certificate "{self.directory}/{name}.pem";
                ssl_certificate_key "{self.directory}/{name}.pem";
                root "{self.root}";
                {self._server_lines(name)}
            }}"""

    def _write_configuration(self):
        temporary = "\n            ".join(
            f'{kind}_temp_path "{self.directory}/{kind}";'
            for kind in ("client_body", "proxy", "fastcgi", "uwsgi", "scgi")
        )
        text = f"""
        daemon off;
        {"user root;" if os.geteuid() == 0 else ""}
        worker_processes 1;
        pid "{self.directory}/nginx.pid";
        events {{ {self.EVENTS} }}
        http {{
            {temporary}
            log_format harness "{self.LOG}";
            access_log "{self.directory}/access.log" harness;
            {self._http_lines()}
            {"".join(map(self._server, self.CERTIFICATES))}
        }}
        """
        (self.directory / "nginx.conf").write_text(textwrap.dedent(text))

"""What the end-to-end tests share: a certificate authority and an nginx per session, and a gateway per test."""

import hashlib
import json
import os
import pathlib
import socket
import subprocess
import sys
import textwrap
import time
from datetime import datetime, timedelta

import pytest
import trustme

sys.path.insert(0, str(pathlib.Path(__file__).parent))
import archives  # noqa: E402

REPOSITORY = pathlib.Path(__file__).resolve().parents[2]
BUILD = pathlib.Path(os.environ.get("ZQU_BUILD_DIR", REPOSITORY / "build")).resolve()
DAEMON = BUILD / "zel_quorin_updater"
for proxy in ("http_proxy", "https_proxy", "HTTPS_PROXY", "all_proxy", "ALL_PROXY"):
    os.environ.pop(proxy, None)  # libcurl would send the requests to this machine's servers through it
SANITIZED = b"__asan_init" in DAEMON.read_bytes()
ENGINE = "engine 7"


def sha256(data):
    return hashlib.sha256(data).hexdigest()


def listing(root):
    """Everything below root, sorted: directories with a trailing slash, links with their target."""
    names = []
    for folder, folders, files in os.walk(root):
        for name in folders + files:
            path = os.path.join(folder, name)
            relative = os.path.relpath(path, root)
            if os.path.islink(path):
                names.append(f"{relative} -> {os.readlink(path)}")
            else:
                names.append(relative + ("/" if os.path.isdir(path) else ""))
    return sorted(names)


def snapshot_listing(active, *versions, flavor="v2"):
    """The listing of a definitions root that holds just these whole snapshots."""
    names = ["snapshots/"] + ([f"active -> snapshots/{active}"] if active else [])
    for version in versions:
        names.append(f"snapshots/{version}/")
        names += [f"snapshots/{version}/{name}" for name in archives.definition_names(flavor)]
    return sorted(names)


class Mirror:
    """One test's corner of the session's mirror: a subdirectory of what nginx serves."""

    def __init__(self, root, subdir):
        self.subdir = subdir
        self.folder = root / subdir
        self.folder.mkdir(parents=True)

    def path(self, name):
        return self.folder / name

    def write(self, name, content):
        self.path(name).write_bytes(content if isinstance(content, bytes) else content.encode())

    def entries(self, version, size=1000, flavor="v2"):
        """The three files of a good release."""
        first, second = archives.definition_names(flavor)
        files = {name: f"{name} of {version}\n".encode() * (size // 20) for name in (first, second)}
        index = "".join(f"{name}.sha256 = {sha256(content)}\n" for name, content in files.items())
        return [*files.items(), (f"antivir-{flavor}.ini", index.encode())]

    def announce(self, version, cab, flavor="v2"):
        """Writes both INI files for an archive that lies on the mirror already."""
        digest = hashlib.sha256()
        with open(self.path(cab), "rb") as archive:
            for block in iter(lambda: archive.read(1 << 20), b""):
                digest.update(block)
        self.write(
            f"antivir-{flavor}-c-{version}.ini",
            f"[def.Current]\r\ndef.Current.defId={version}\r\ndef.Current.name={cab}\r\n"
            f"def.Current.SHA256={digest.hexdigest()}\r\ndef.Current.size={self.path(cab).stat().st_size}\r\n",
        )
        self.write(f"antivir-{flavor}-hit.ini", f"[Current]\r\ndefId={version}\r\n")

    def publish(self, version, entries=None, flavor="v2"):
        """Publishes a release as an MSZIP-compressed CAB."""
        cab = f"antivir-{flavor}-{version}.cab"
        files = self.entries(version, flavor=flavor) if entries is None else entries
        archives.write_cab(self.path(cab), files)
        self.announce(version, cab, flavor)


class Nginx:
    """nginx over TLS on free loopback ports, with good and with bad certificates."""

    CERTIFICATES = ("good", "wrong_host", "expired", "unknown_authority")

    def __init__(self, folder):
        self.folder = folder
        self.root = folder / "www"
        self.root.mkdir()
        self.ca_path = folder / "ca.pem"
        self._make_certificates()
        sockets = {name: socket.create_server(("127.0.0.1", 0)) for name in self.CERTIFICATES}
        self.ports = {name: s.getsockname()[1] for name, s in sockets.items()}
        self._write_configuration()
        # nginx takes over the sockets, which listen already: no port can be lost, and there is nothing to wait for.
        descriptors = [s.fileno() for s in sockets.values()]
        self.process = subprocess.Popen(
            ["/usr/sbin/nginx", "-p", folder, "-c", folder / "nginx.conf", "-e", folder / "error.log"],
            env={**os.environ, "NGINX": "".join(f"{fd};" for fd in descriptors)},
            pass_fds=descriptors,
        )
        for s in sockets.values():
            s.close()

    def url(self, certificate="good", host="localhost"):
        return f"https://{host}:{self.ports[certificate]}"

    def requests(self, subdir, count):
        """The paths requested below a subdirectory, with the status answered; waits until there are so many."""
        for _ in range(3000):  # nginx writes its log after the answer
            lines = (self.folder / "access.log").read_text().splitlines()
            found = [line.replace(f"/{subdir}/", "") for line in lines if f"/{subdir}/" in line]
            if len(found) >= count:
                break
            time.sleep(0.01)
        return found

    def stop(self):
        self.process.terminate()
        self.process.wait(timeout=30)

    def _make_certificates(self):
        authority = trustme.CA()
        authority.cert_pem.write_to_path(self.ca_path)
        yesterday = datetime.utcnow() - timedelta(days=1)
        leaves = {
            "good": authority.issue_cert("localhost", "127.0.0.1"),
            "wrong_host": authority.issue_cert("elsewhere.example"),
            "expired": authority.issue_cert("localhost", not_after=yesterday),
            "unknown_authority": trustme.CA().issue_cert("localhost"),
        }
        for name, leaf in leaves.items():
            leaf.private_key_and_cert_chain_pem.write_to_path(self.folder / f"{name}.pem")

    def _write_configuration(self):
        servers = "".join(
            f"""
            server {{
                listen 127.0.0.1:{port} ssl;
                ssl_certificate "{self.folder}/{name}.pem";
                ssl_certificate_key "{self.folder}/{name}.pem";
                root "{self.root}";
                location /moved/ {{ rewrite ^/moved/(.*)$ /$1 redirect; }}
            }}"""
            for name, port in self.ports.items()
        )
        temporary = "\n            ".join(
            f'{kind}_temp_path "{self.folder}/{kind}";' for kind in ("client_body", "proxy", "fastcgi", "uwsgi", "scgi")
        )
        text = f"""
        daemon off;
        {"user root;" if os.geteuid() == 0 else ""}
        worker_processes 1;
        pid "{self.folder}/nginx.pid";
        events {{ }}
        http {{
            {temporary}
            log_format plain "$uri $status";
            access_log "{self.folder}/access.log" plain;
            {servers}
        }}
        """
        (self.folder / "nginx.conf").write_text(textwrap.dedent(text))


class Gateway:
    """One machine that runs the daemon: its configuration, definitions root and status file, below a folder."""

    def __init__(self, folder, **settings):
        self.folder = folder
        self.root = folder / "defs"
        self.status_path = folder / "status" / "status.json"
        self.log_path = folder / "log"
        self.daemons = []
        self.settings = {
            "engine_version": ENGINE,
            "def_root": self.root,
            "status_path": self.status_path,
            "http_timeout_s": 60,
            **settings,
        }

    @property
    def config_path(self):
        path = self.folder / "updater.conf"
        path.write_text("".join(f"{key} = {value}\n" for key, value in self.settings.items()))
        return path

    def environment(self, calls=False, **extra):
        shims = ["libzqu_log_shim.so"]
        result = {**os.environ, "ZQU_LOG_FILE": str(self.log_path), **extra}
        if calls:
            shims.insert(0, "libzqu_call_shim.so")
            result["ZQU_CALL_FILE"] = str(self.log_path)
        result["LD_PRELOAD"] = " ".join(shims)
        result["LD_LIBRARY_PATH"] = str(BUILD)  # the path may hold a blank, which would part it in LD_PRELOAD
        # A sanitizer's run-time library cannot come first when something is preloaded.
        result["ASAN_OPTIONS"] = os.environ.get("ASAN_OPTIONS", "") + ":verify_asan_link_order=0"
        return result

    def run(self, *arguments, prefix=(), **environment):
        """Runs the daemon to its end; returns the finished process with its output."""
        variables = self.environment(**environment)
        if "strace" in prefix:
            variables["ASAN_OPTIONS"] += ":detect_leaks=0"  # the leak check does not work under ptrace(2)
        return subprocess.run(
            [*prefix, DAEMON, *arguments],
            env=variables,
            stdin=subprocess.DEVNULL,
            capture_output=True,
            text=True,
            timeout=120,
        )

    def run_once(self, prefix=(), **environment):
        """Runs one cycle, which must end well and print nothing; returns its log lines."""
        process = self.run("--config", self.config_path, "--once", prefix=prefix, **environment)
        assert (process.returncode, process.stdout, process.stderr) == (0, "", "")
        return self.take_log()

    def start(self, **environment):
        """Starts the loop, which end_all() ends at the latest."""
        command = [DAEMON, "--config", self.config_path]
        self.daemons.append(subprocess.Popen(command, env=self.environment(**environment), stdin=subprocess.DEVNULL))
        return self.daemons[-1]

    def end_all(self):
        for daemon in self.daemons:
            daemon.kill()
            daemon.wait()

    def take_log(self):
        """All lines logged so far, less those of opening and closing the log; forgets them."""
        lines = self.log_path.read_text(errors="surrogateescape").splitlines() if self.log_path.exists() else []
        self.log_path.unlink(missing_ok=True)
        return [line for line in lines if line not in ("open zel_quorin_updater 3 24", "close")]

    def status(self):
        return json.loads(self.status_path.read_text())

    def expect_status(self, version, error=""):
        """Compares the whole status file, but for the time of the check."""
        checked = self.status()["last_check_epoch"]
        success = 0 if error else checked
        assert self.status_path.read_text() == textwrap.dedent(
            f"""\
            {{
              "schema_version": 1,
              "active_version": "{version}",
              "engine_version": "{self.settings['engine_version']}",
              "antivir_def_version": "{version}",
              "aivsecon_def_version": "{version}",
              "last_check_epoch": {checked},
              "last_success_epoch": {success},
              "last_error": "{error}"
            }}
            """
        )

    def listing(self):
        return listing(self.root)

    def active_files(self):
        return {path.name: path.read_bytes() for path in (self.root / "active").iterdir()}


@pytest.fixture(scope="session")
def nginx(tmp_path_factory):
    server = Nginx(tmp_path_factory.mktemp("nginx"))
    yield server
    server.stop()


@pytest.fixture
def mirror(nginx, tmp_path):
    return Mirror(nginx.root, f"defs-{tmp_path.name}")


@pytest.fixture
def gateway(nginx, mirror, tmp_path):
    machine = Gateway(tmp_path, mirror_base_url=nginx.url(), mirror_subdir=mirror.subdir, ca_path=nginx.ca_path)
    yield machine
    machine.end_all()


@pytest.fixture
def closed_port():
    """A loopback port on which nothing listens, and nothing will."""
    with socket.socket() as holder:
        holder.bind(("127.0.0.1", 0))
        yield holder.getsockname()[1]

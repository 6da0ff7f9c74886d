"""Gateways that take a mirror's release into service and then find nothing new, once or in the loop."""

import json
import subprocess
import time

import releases
import trustme
from mirrors import Nginx
from procfs import usage

SIZE = 100_000  # B of definitions, which a check with nothing new never looks at
INTERVAL_S, JITTER_S = 900, 120  # the daemon's defaults


def write_config(path, root, **settings):
    """The configuration of a daemon that keeps its definitions, and its status file, in that folder; returns what
    calls the daemon with it, after the daemon's own name."""
    settings = {"def_root": root, "status_path": root / "status.json", **settings}
    path.write_text("".join(f"{key} = {value}\n" for key, value in settings.items()))
    return ["--config", path]


class Installation:
    """A definitions root with its configuration, for the release that the mirror holds below the path mirror/."""

    def __init__(self, bench, name, port, ca_path, interval=INTERVAL_S):
        self.root = bench.folder / name
        self.root.mkdir()
        self.status_path = self.root / "status.json"
        base = f"https://127.0.0.1:{port}/mirror"
        self.url = f"{base}/{releases.SUBDIR}/antivir-v2-hit.ini"
        poll = {"poll_interval_s": interval, "poll_jitter_s": 0}
        config = write_config(bench.folder / f"{name}.conf", self.root, mirror_base_url=base, ca_path=ca_path, **poll)
        self.loop = [bench.daemon, *config]
        self.check = [*self.loop, "--once"]
        subprocess.run(self.check, check=True, stdin=subprocess.DEVNULL)
        self.require_success()

    def status(self):
        try:
            return json.loads(self.status_path.read_text())
        except (FileNotFoundError, ValueError):  # none yet, or it is just being written
            return {}

    def require_success(self):
        """The last check ended well, and the release is in service."""
        status = self.status()
        assert status["last_error"] == "" and status["active_version"] == releases.ID, status

    def curl(self, ca_path):
        """The command that fetches what a check with nothing new fetches."""
        return ["curl", "--fail", "--silent", "--cacert", ca_path, "-o", self.root / "hit.ini", self.url]


class Loop:
    """The daemon's loop on an installation; it ends with the block."""

    def __init__(self, installation):
        self.installation = installation
        installation.status_path.unlink()  # the first one that is seen is of the loop
        self.checked = None

    def __enter__(self):
        self.process = subprocess.Popen(self.installation.loop, stdin=subprocess.DEVNULL)
        return self

    def __exit__(self, *_):
        self.process.kill()
        self.process.wait()

    def usage(self):
        return usage(self.process.pid)

    def next_check(self):
        """Waits for the end of a check, which must be a success; returns what the daemon has used so far."""
        while (now := self.installation.status().get("last_check_epoch")) in (None, self.checked):
            assert self.process.poll() is None, "the daemon ended"
            time.sleep(0.01)
        self.checked = now
        time.sleep(0.1)  # until it waits
        self.installation.require_success()
        return self.usage()


class PlainNginx(Nginx):
    """nginx with a good certificate only: each takes a key, which is not made at once."""

    CERTIFICATES = ("good",)

    def _make_certificates(self):
        self.authority = trustme.CA()
        self.authority.cert_pem.write_to_path(self.ca_path)
        self.set_certificate(self.authority.issue_cert("localhost", "127.0.0.1"))


def mirror(bench, server=PlainNginx):
    """A running nginx with a small release below mirror/."""
    nginx = server(bench.folder)
    releases.publish(bench, nginx.root / "mirror", SIZE)
    return nginx

"""Gateways that take a mirror's release into service and then find nothing new."""

import json
import subprocess

import releases
from mirrors import Nginx

SIZE = 100_000  # B of definitions, which a check with nothing new never looks at


class Gateway:
    """A definitions root with its configuration, for the release that the mirror holds below the path mirror/."""

    def __init__(self, bench, name, port, ca_path, interval=900):
        self.root = bench.folder / name
        self.root.mkdir()
        config = bench.folder / f"{name}.conf"
        self.status_path = self.root / "status.json"
        self.base = f"https://127.0.0.1:{port}/mirror"
        self.url = f"{self.base}/{releases.SUBDIR}/antivir-v2-hit.ini"
        config.write_text(
            f"mirror_base_url = {self.base}\nca_path = {ca_path}\npoll_interval_s = {interval}\npoll_jitter_s = 0\n"
            f"def_root = {self.root}\nstatus_path = {self.status_path}\n"
        )
        self.loop = [bench.daemon, "--config", config]
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


def mirror(bench, server=Nginx):
    """A running nginx with a small release below mirror/."""
    nginx = server(bench.folder)
    releases.publish(bench, nginx.root / "mirror", SIZE)
    return nginx

"""The bare calls that an update is compared with are the daemon's own, without those named here."""

import re
import subprocess

import pytest
from gateway import BUILD, SANITIZED
from release import good_files

pytestmark = pytest.mark.skipif(SANITIZED, reason="measured is what is shipped")

# What the daemon also does: each is a pattern of whole lines.
DAEMON_ONLY = [
    r"openlog .*\nopen zel_quorin_updater .*\n",
    r"signal \d+\n",
    r"archive_entry_pathname\n",
    r'archive_entry_set_pathname ".*"\n',
    r"archive_entry_filetype\n",
    r'unlink "active\.tmp"\n',
    r"info .*\n",
    r"closelog\nclose\n",
]
# What stands for calls that the daemon has libstdc++ make: the index goes, and files are read to be digested.
FLOOR_ONLY = [r'unlink "antivir-v2\.ini"\n', r"open FILE\n(?=EVP_MD_CTX_new)", r"(?<=EVP_MD_CTX_free\n)close\n"]


def calls(path, left_out):
    """What was recorded: without addresses and directories, and the archive under one name. Files are flushed in the
    order of their directory."""
    text = re.sub(r" 0x[0-9a-f]+", "", path.read_text())
    path.unlink()
    text = re.sub(r'"(?!https|snapshots/)[^"\n]*/', '"', text).replace('""', '"snapshot or root"')
    text = re.sub(r'(?<=")(antivir-v2-1001\.cab|archive)(?=["\.](?!ini))', "ARCHIVE", text)
    text = re.sub(r'^open ".*" 0$', "open FILE", text, flags=re.MULTILINE)
    text = re.sub(r'^open ".*" 65536$', "open DIRECTORY", text, flags=re.MULTILINE).replace("remove ", "unlink ")
    for pattern in left_out:
        assert re.search(pattern, text), pattern
        text = re.sub(f"(?m:^){pattern}", "", text)
    return text.splitlines()


def test_floor_makes_the_calls_of_the_daemon_with_their_values(gateway, mirror, nginx, tmp_path):
    mirror.publish("1001", good_files("1001", size=150_000))
    del gateway.settings["http_timeout_s"]
    environment = gateway.environment(calls=True)
    gateway.run("--config", gateway.config_path, "--once", calls=True)
    daemon = calls(gateway.log_path, DAEMON_ONLY)
    url = f"{nginx.url()}/{mirror.subdir}/antivir-v2"
    names = [f"{url}-hit.ini", f"{url}-c-1001.ini", f"{url}-1001.cab"]
    command = [BUILD / "zqu_floor", nginx.ca_path, *names, tmp_path / "bare", "1001"]
    subprocess.run(command, env=environment, stdin=subprocess.DEVNULL, check=True, timeout=60)
    assert calls(gateway.log_path, FLOOR_ONLY) == daemon
    assert len(daemon) > 100

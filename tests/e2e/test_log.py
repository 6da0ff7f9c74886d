"""The real log: what arrives at /dev/log, byte for byte but for the time."""

import re
import socket
import subprocess

import pytest
from gateway import DAEMON, SANITIZED, in_own_dev, may_mount

LOG_ERR, LOG_WARNING, LOG_INFO, LOG_DAEMON = 3, 4, 6, 3 << 3


@pytest.mark.skipif(not may_mount(), reason="needs the right to make a mount namespace with a /dev/log of its own")
@pytest.mark.skipif(SANITIZED, reason="the sanitizers need more of /dev")
def test_messages_arrive_with_ident_process_id_facility_and_priority(gateway, mirror):
    mirror.publish("1001")
    gateway.settings["flavor"] = ""
    dev = gateway.folder / "dev"
    dev.mkdir()
    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as log:
        log.bind(str(dev / "log"))
        log.settimeout(30)
        command = [*in_own_dev(dev), DAEMON, "--config", gateway.config_path, "--once"]
        process = subprocess.Popen(command, stdin=subprocess.DEVNULL)
        assert process.wait(timeout=60) == 0
        packets = [log.recv(4096).decode() for _ in range(2)]
        gateway.settings["flavor"] = "v2"
        subprocess.run([*command[:-2], gateway.config_path, "--once"], check=True)
        packets += [log.recv(4096).decode() for _ in range(2)]
    line = re.compile(r"<(\d+)>\w{3} [ \d]\d \d\d:\d\d:\d\d zel_quorin_updater\[(\d+)\]: (.*)")
    parsed = [line.fullmatch(packet.rstrip("\0\n")).groups() for packet in packets]
    url = f"{gateway.settings['mirror_base_url']}/{mirror.subdir}/antivir--hit.ini"
    assert [(int(priority), text) for priority, _, text in parsed] == [
        (LOG_DAEMON | LOG_WARNING, "config: flavor is not set"),
        (LOG_DAEMON | LOG_ERR, f"GET {url}: HTTP response code said error"),
        (LOG_DAEMON | LOG_INFO, "published def snapshot 1001"),
        (LOG_DAEMON | LOG_INFO, "def snapshot updated: none -> 1001"),
    ]
    assert parsed[0][1] == str(process.pid)

"""Updates under the unit, with every limit and filter in place, and what an administrator may change for them."""

import hashlib
import json
import os
import select
import socket
import zipfile

import pytest
from booted_gateway import AUTHORITY, DAEMON, LAYOUT, PROGRAM, RESTART, ROOT, UNIT, USER, BootedGateway
from mirrors import Mirror, Nginx
from release import HIT, Release
from scripted_server import SUBDIR, cut
from trials import NEW, OLD

LOG = [
    (6, "zel_quorin_updater loop started (interval=3600s jitter=0s)"),
    (6, f"published def snapshot {OLD}"),
    (6, f"def snapshot updated: none -> {OLD}"),
]


@pytest.fixture
def configured(gateway):
    """A gateway whose mirror has a release."""
    gateway.publish(OLD)
    gateway.configure()
    return gateway


def expect_update(gateway):
    """All that an update leaves below the definitions root."""
    gateway.expect_check(OLD)
    plain, snapshot = f"{USER}:{USER}", f"snapshots/{OLD}"
    assert gateway.entries() == {
        **LAYOUT,
        "active": f"lrwxrwxrwx {plain} {snapshot}",
        snapshot: f"drwxr-xr-x {plain}",
        **{f"{snapshot}/{name}-v2.def": f"-rw-rw-rw- {plain}" for name in ("antivir", "aivsecon")},
    }


def test_update_leaves_files_status_and_log_as_the_services_user(configured):
    expect_update(configured)
    process = configured.show(UNIT, "MainPID")
    assert configured.out("readlink", f"/proc/{process}/exe") == DAEMON
    configured.run("journalctl", "--sync")
    fields = ["--output-fields=MESSAGE,PRIORITY,SYSLOG_IDENTIFIER,_UID,SYSLOG_FACILITY"]
    lines = configured.out("journalctl", "--output=json", *fields, f"_PID={process}", "_TRANSPORT=syslog").splitlines()
    entries = [json.loads(line) for line in lines]
    assert [(int(entry["PRIORITY"]), entry["MESSAGE"]) for entry in entries] == LOG
    assert {(entry["SYSLOG_IDENTIFIER"], entry["SYSLOG_FACILITY"]) for entry in entries} == {(PROGRAM, "3")}
    assert {entry["_UID"] for entry in entries} == {configured.out("id", "-u", USER)}


def test_start_makes_a_root_that_somebody_removed(configured):
    configured.run("rm", "-r", ROOT)
    expect_update(configured)


def test_update_makes_no_call_that_the_filter_refuses(configured):
    """A refused call is an error to the daemon as a rule; here it is its end."""
    configured.drop_in("[Service]\nSystemCallErrorNumber=kill\n")
    configured.expect_check(OLD)
    configured.run("systemctl", "stop", UNIT)
    assert (configured.state(), configured.show(UNIT, "Result")) == ("inactive", "success")
    assert configured.take_log() == [*(message for _, message in LOG), "zel_quorin_updater loop stopped"]


def test_filter_that_kills_ends_a_daemon_that_it_does_not_fit(configured):
    """So the test above would see it."""
    configured.drop_in("[Service]\nSystemCallErrorNumber=kill\nSystemCallFilter=~fsync\nRestartSec=1h\n")
    configured.run("systemctl", "start", UNIT)
    configured.wait_for(lambda: configured.show(UNIT, "SubState") == "auto-restart")
    assert "status=31/SYS" in configured.out("journalctl", "--output=cat", "--lines=20", f"--unit={UNIT}")


NAMES = [("localhost", "127.0.0.1"), ("mirror.example", "127.0.0.1"), ("mirror.example", "::1"), ("[::1]", "::1")]


@pytest.mark.parametrize("host, address", NAMES)
def test_mirror_is_reached_by_name_and_by_ipv6(gateway, host, address):
    gateway.put("/etc/hosts", f"127.0.0.1 localhost\n{address} mirror.example\n")
    gateway.server = gateway.scripted(address)
    gateway.publish(OLD)
    gateway.configure(host)
    gateway.expect_check(OLD)


# Where the authority may lie: a file that the service's user can read, outside the directories that the unit hides.
REFUSED = "Problem with the SSL CA cert (path? access rights?)"
AUTHORITIES = {
    "/etc/ssl/zqu.pem": (0o644, ""),
    "/srv/zqu.pem": (0o644, ""),
    **{f"/{hidden}/zqu.pem": (0o644, REFUSED) for hidden in ("root", "home", "tmp")},
    "/srv/closed.pem": (0o600, REFUSED),
}


@pytest.mark.parametrize("place", AUTHORITIES)
def test_authority_has_to_be_readable_for_the_service(configured, place):
    mode, refusal = AUTHORITIES[place]
    configured.put(place, configured.path(AUTHORITY).read_bytes(), mode)
    configured.configure(ca_path=place)
    configured.expect_check("" if refusal else OLD, "defId fetch failed" if refusal else "")
    if refusal:
        assert configured.take_log()[-1] == f"GET {configured.server.base()}/{HIT}: {refusal}"


def relay(target):
    """Carries bytes between the client and the target, both ways, until one of them ends."""

    def step(connection):
        with socket.create_connection(target) as other:
            pairs = {connection.socket: other, other: connection.socket}
            while True:
                for ready in select.select(list(pairs), [], [])[0]:
                    data = ready.recv(65536)
                    if not data:
                        return
                    pairs[ready].sendall(data)

    return step


@pytest.mark.parametrize("named_by", ["drop-in", "shell"])
def test_proxy_is_the_drop_ins_not_the_one_of_the_shell(configured, named_by):
    port, proxy = configured.server.port, configured.scripted(tls=False)
    answer = [b"HTTP/1.1 200 Connection established\r\n\r\n", relay(("127.0.0.1", port)), cut]
    proxy.script[f"127.0.0.1:{port}"] = answer
    variable = f"https_proxy=http://127.0.0.1:{proxy.port}"
    configured.drop_in(f"[Service]\nEnvironment={variable}\n" if named_by == "drop-in" else "")
    configured.expect_check(OLD, command=f"{variable} systemctl restart {UNIT}" if named_by == "shell" else RESTART)
    used = [f"CONNECT 127.0.0.1:{port} HTTP/1.1"] if named_by == "drop-in" else []
    assert [lines[0] for lines in proxy.requests] == used


MOVED = "/srv/definitions"  # with a drop-in: tests/packaging/test_operations_page.py


def test_moved_root_without_a_drop_in_fails_in_the_log_alone(configured):
    configured.run("mkdir", MOVED)
    configured.configure(def_root=MOVED, status_path=f"{MOVED}/manifest/status.json")
    configured.run("systemctl", "start", UNIT)
    log = []
    configured.wait_for(lambda: log.extend(configured.take_log()) or len(log) == 3)
    part = f"{MOVED}/snapshots/{OLD}/antivir-v2-{OLD}.cab.part"
    assert log[1:] == [f"download_cab: cannot create {part}", "run_once: staging failed: download CAB"]
    assert configured.entries(MOVED) == LAYOUT
    assert configured.status_text(f"{MOVED}/manifest/status.json") == ""


@pytest.mark.parametrize("place", ["/media/zqu", "/mnt/zqu"])
def test_update_from_a_medium(gateway, place):
    for name, content in Release(OLD).files.values():
        gateway.put(f"{place}/{SUBDIR}/{name}", content)
    gateway.configure(mirror_base_url=f"file://{place}")
    gateway.expect_check(OLD)


# Definitions of real sizes, on a disk: what lies in a file system in memory would count as the unit's memory.


@pytest.fixture
def on_disk(installation, tmp_path):
    (tmp_path / "disk").mkdir()
    gateway = BootedGateway(installation, [tmp_path])
    gateway.run("mount", "--bind", tmp_path / "disk", ROOT)
    gateway.run("systemd-tmpfiles", "--create", f"{PROGRAM}.conf")
    yield gateway
    gateway.end()


def publish_stored(mirror, size):
    """A release with a first definition of that size, in a ZIP that does not compress."""
    digest = hashlib.sha256()
    with zipfile.ZipFile(mirror.path("x.zip"), "w") as archive:
        with archive.open("antivir-v2.def", "w", force_zip64=True) as file:
            for _ in range(size // 1_000_000):
                block = os.urandom(1_000_000)
                digest.update(block)
                file.write(block)
        archive.writestr("antivir-v2.ini", f"antivir-v2.def.sha256={digest.hexdigest()}\n")
        archive.writestr("aivsecon-v2.def", "small\n")
    mirror.announce(NEW, "x.zip")


@pytest.mark.parametrize("size", [150_000_000, pytest.param(1_000_000_000, marks=pytest.mark.long)])
def test_large_definitions_are_taken_within_all_limits(on_disk, tmp_path, size):
    (tmp_path / "mirror").mkdir()
    nginx = on_disk.in_network(lambda: Nginx(tmp_path / "mirror"))
    try:
        mirror = Mirror(nginx.root, SUBDIR)
        publish_stored(mirror, size)
        on_disk.put(AUTHORITY, nginx.ca_path.read_bytes())
        on_disk.configure(mirror_base_url=nginx.url())
        on_disk.expect_check(NEW)
    finally:
        nginx.stop()
    assert on_disk.path(f"{ROOT}/snapshots/{NEW}/antivir-v2.def").stat().st_size == size
    assert on_disk.show(UNIT, "NRestarts") == "0"
    status = on_disk.path(f"/proc/{on_disk.show(UNIT, 'MainPID')}/status").read_text()
    peak = int(status.split("VmHWM:")[1].split()[0])
    assert peak < 32 * 1024, f"{peak} KiB"

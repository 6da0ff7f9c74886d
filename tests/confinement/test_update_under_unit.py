"""Updates under the unit, with every limit and filter in place, and what an administrator may change for them."""

import hashlib
import json
import os
import select
import socket
import zipfile

import pytest
from confined import AUTHORITY, DAEMON_NAME, ROOT, SERVICE, STATUS, UNIT, Confined
from mirrors import Mirror, Nginx
from outcomes import listing, snapshot_listing
from release import HIT, Release
from scripted_server import SUBDIR, cut
from trials import NEW, OLD

LOG = [
    (6, "zel_quorin_updater loop started (interval=3600s jitter=0s)"),
    (6, f"published def snapshot {OLD}"),
    (6, f"def snapshot updated: none -> {OLD}"),
]
MESSAGES = [message for _, message in LOG]


@pytest.fixture
def server(system, tmp_path):
    """A mirror with a release, named in the configuration."""
    server = system.scripted()
    server.script = Release(OLD).script
    system.configure(server)
    return server


def listing_of(*versions):
    return sorted([*snapshot_listing(OLD, *versions), "manifest/", "manifest/status.json"])


def test_update_leaves_files_link_status_and_log_as_the_services_user(system, server):
    system.restart()
    assert system.listing() == listing_of(OLD)
    system.expect_status(OLD)
    found = system.out("find", ROOT, "-printf", "%u %g %m %P\\n").splitlines()
    plain = f"{SERVICE} {SERVICE}"
    assert sorted(found) == sorted(
        [f"root {SERVICE} 1770 {name}" for name in ("", "manifest", "snapshots")]
        + [f"root {SERVICE} 664 manifest/status.json", f"{plain} 777 active", f"{plain} 755 snapshots/{OLD}"]
        + [f"{plain} 666 snapshots/{OLD}/{name}-v2.def" for name in ("antivir", "aivsecon")]
    )
    system.run("journalctl", "--sync")
    fields = ["--output-fields=MESSAGE,PRIORITY,SYSLOG_IDENTIFIER,_UID,SYSLOG_FACILITY"]
    pid = system.show(UNIT, "MainPID")
    lines = system.out("journalctl", "--output=json", *fields, f"_PID={pid}", "_TRANSPORT=syslog").splitlines()
    entries = [json.loads(line) for line in lines]
    assert [(int(entry["PRIORITY"]), entry["MESSAGE"]) for entry in entries] == LOG
    assert {(entry["SYSLOG_IDENTIFIER"], entry["SYSLOG_FACILITY"]) for entry in entries} == {(DAEMON_NAME, "3")}
    assert {entry["_UID"] for entry in entries} == {system.out("id", "-u", SERVICE)}


def test_update_makes_no_call_that_the_filter_refuses(system, server):
    """A refused call is an error to the daemon as a rule; here it is its end."""
    system.drop_in("[Service]\nSystemCallErrorNumber=kill\n")
    system.restart()
    system.expect_status(OLD)
    system.run("systemctl", "stop", UNIT)
    assert system.state() == ("inactive", "success")
    assert system.take_log() == [*MESSAGES, "zel_quorin_updater loop stopped"]


def test_filter_that_kills_ends_a_daemon_that_it_does_not_fit(system, server):
    """So the test above would see it."""
    system.drop_in("[Service]\nSystemCallErrorNumber=kill\nSystemCallFilter=~fsync\nRestartSec=1h\n")
    system.run("systemctl", "start", UNIT)
    system.wait_for(lambda: system.show(UNIT, "SubState") == "auto-restart")
    assert "status=31/SYS" in system.out("journalctl", "--output=cat", "--lines=20", f"--unit={UNIT}")


@pytest.mark.parametrize("host", ["localhost", "mirror.example"])
def test_names_are_resolved(system, server, host):
    """By /etc/hosts."""
    system.put("/etc/hosts", "127.0.0.1 localhost mirror.example\n")
    system.configure(server, mirror_base_url=server.base(host).removesuffix(f"/{SUBDIR}"))
    system.restart()
    system.expect_status(OLD)


@pytest.mark.parametrize("host", ["[::1]", "mirror.example"])
def test_update_over_ipv6(system, tmp_path, host):
    system.put("/etc/hosts", "127.0.0.1 localhost\n::1 mirror.example\n")
    server = system.scripted(address="::1")
    server.script = Release(OLD).script
    system.configure(server, mirror_base_url=server.base(host).removesuffix(f"/{SUBDIR}"))
    system.restart()
    system.expect_status(OLD)


# Where the authority may lie: a file that the service's user can read, outside the folders that the unit hides.

REFUSED = "Problem with the SSL CA cert (path? access rights?)"


@pytest.mark.parametrize("place", ["/etc/ssl/zqu.pem", "/srv/zqu.pem"])
def test_authority_that_the_service_can_read_is_used(system, server, place):
    system.put(place, system.path(AUTHORITY).read_bytes())
    system.configure(server, ca_path=place)
    system.restart()
    system.expect_status(OLD)


@pytest.mark.parametrize(
    "place, mode", [("/root/zqu.pem", 0o644), ("/home/zqu.pem", 0o644), ("/tmp/zqu.pem", 0o644), ("/srv/ca.pem", 0o600)]
)
def test_authority_that_the_service_cannot_read_fails_every_check(system, server, place, mode):
    system.put(place, system.path(AUTHORITY).read_bytes(), mode)
    system.configure(server, ca_path=place)
    system.restart()
    system.expect_status("", "defId fetch failed")
    assert system.take_log()[-1] == f"GET {server.base()}/{HIT}: {REFUSED}"


# A proxy, by the environment of the unit alone.


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


@pytest.fixture
def proxy(system, server):
    proxy = system.scripted(tls=False)
    proxy.script[f"127.0.0.1:{server.port}"] = [
        b"HTTP/1.1 200 Connection established\r\n\r\n",
        relay(("127.0.0.1", server.port)),
        cut,
    ]
    return proxy


def test_update_through_a_proxy_named_by_a_drop_in(system, server, proxy):
    system.drop_in(f"[Service]\nEnvironment=https_proxy=http://127.0.0.1:{proxy.port}\n")
    system.restart()
    system.expect_status(OLD)
    assert [lines[0] for lines in proxy.requests] == [f"CONNECT 127.0.0.1:{server.port} HTTP/1.1"]


def test_proxy_of_the_administrators_shell_is_not_used(system, server, proxy):
    system.path(STATUS).unlink(missing_ok=True)
    system.run("env", f"https_proxy=http://127.0.0.1:{proxy.port}", "systemctl", "restart", UNIT)
    system.wait_for_status()
    system.expect_status(OLD)
    assert proxy.requests == []


def test_start_makes_a_root_that_somebody_removed(system, server):
    system.run("rm", "-r", ROOT)
    system.run("systemctl", "start", UNIT)
    system.wait_for_status(OLD)
    assert system.listing() == listing_of(OLD)


# Another place for the definitions.

MOVED = "/srv/definitions"


@pytest.fixture
def moved(system, server):
    system.run("mkdir", MOVED)
    system.configure(server, def_root=MOVED, status_path=f"{MOVED}/manifest/status.json")
    yield system
    system.stop()
    system.run("rm", "-r", MOVED)


@pytest.mark.parametrize("lines", [("ReadWritePaths",), ("ReadWritePaths", "NoExecPaths")], ids=len)
def test_moved_root_is_written_with_a_drop_in_that_names_it(moved, lines):
    moved.drop_in("[Service]\n" + "".join(f"{line}={MOVED}\n" for line in lines))
    moved.run("systemctl", "start", UNIT)
    moved.wait_for(lambda: moved.take_log()[-1:] == MESSAGES[-1:])
    assert moved.out("head", "-n1", f"{MOVED}/active/antivir-v2.def") == f"antivir-v2.def of {OLD}"


def test_moved_root_without_a_drop_in_fails_every_check_and_tells_it_in_the_log_alone(moved, server):
    moved.run("systemctl", "start", UNIT)
    log = []
    moved.wait_for(lambda: log.extend(moved.take_log()) or len(log) == 3)
    part = f"{MOVED}/snapshots/{OLD}/antivir-v2-{OLD}.cab.part"
    assert log[1:] == [f"download_cab: cannot create {part}", "run_once: staging failed: download CAB"]
    assert listing(moved.path(MOVED)) == ["manifest/", "manifest/status.json", "snapshots/"]
    assert moved.out("cat", f"{MOVED}/manifest/status.json") == ""


@pytest.mark.parametrize("place", ["/media/zqu", "/mnt/zqu"])
def test_update_from_a_medium(system, tmp_path, place):
    for name, content in Release(OLD).files.values():
        system.put(f"{place}/{SUBDIR}/{name}", content)
    system.configure(mirror_base_url=f"file://{place}", mirror_subdir=SUBDIR, poll_interval_s=3600, poll_jitter_s=0)
    system.restart()
    assert system.active() == OLD


# Definitions of real sizes, on a disk: what lies in a file system in memory would count as the unit's memory.


@pytest.fixture
def on_disk(installation, tmp_path):
    folder = tmp_path / "disk"
    folder.mkdir()
    system = Confined(installation, tmp_path)
    try:
        system.run("mount", "--bind", folder, ROOT)
        system.run("systemd-tmpfiles", "--create", "zel_quorin_updater.conf")
        yield system
    finally:
        system.end()


def publish_stored(mirror, first):
    """A release with that file as its first definition, in a ZIP that does not compress."""
    digest = hashlib.sha256()
    with open(first, "rb") as file:
        for block in iter(lambda: file.read(1 << 20), b""):
            digest.update(block)
    index = f"antivir-v2.def.sha256={digest.hexdigest()}\n"
    with zipfile.ZipFile(mirror.path("x.zip"), "w") as archive:
        archive.writestr("antivir-v2.ini", index)
        archive.writestr("aivsecon-v2.def", "small\n")
        archive.write(first, "antivir-v2.def")
    mirror.announce(NEW, "x.zip")


@pytest.mark.parametrize("size", [150_000_000, pytest.param(1_000_000_000, marks=pytest.mark.long)])
def test_large_definitions_are_taken_within_all_limits(on_disk, tmp_path, size):
    first = tmp_path / "first"
    with open(first, "wb") as file:
        for _ in range(size // 1_000_000):
            file.write(os.urandom(1_000_000))
    (tmp_path / "mirror").mkdir()
    nginx = on_disk.in_network(lambda: Nginx(tmp_path / "mirror"))
    try:
        mirror = Mirror(nginx.root, "defs")
        publish_stored(mirror, first)
        on_disk.put(AUTHORITY, nginx.ca_path.read_bytes())
        on_disk.configure(
            mirror_base_url=nginx.url(), mirror_subdir="defs", ca_path=AUTHORITY, poll_interval_s=3600, poll_jitter_s=0
        )
        on_disk.restart()
    finally:
        nginx.stop()
    assert on_disk.active() == NEW
    assert on_disk.path(f"{ROOT}/snapshots/{NEW}/antivir-v2.def").stat().st_size == first.stat().st_size
    assert on_disk.show(UNIT, "NRestarts") == "0"
    status = on_disk.path(f"/proc/{on_disk.show(UNIT, 'MainPID')}/status").read_text()
    peak = int(status.split("VmHWM:")[1].split()[0])
    assert peak < 32 * 1024, f"{peak} KiB"

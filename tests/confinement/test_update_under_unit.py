"""Updates under the unit, with every limit and filter in place, and what an administrator may change for them."""

import json
import os
import zipfile

import pytest
from booted_gateway import AUTHORITY, DAEMON, LAYOUT, PROGRAM, ROOT, UNIT, USER, BootedGateway
from mirrors import Mirror, Nginx
from release import HIT, Release
from scripted_server import SUBDIR
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


def test_update_leaves_files_status_and_log_as_the_services_user(configured):
    """Also where somebody has removed the root."""
    configured.run("rm", "-r", ROOT)
    configured.expect_check(OLD)
    plain, snapshot = f"{USER}:{USER}", f"snapshots/{OLD}"
    assert configured.entries() == {
        **LAYOUT,
        "active": f"lrwxrwxrwx {plain} {snapshot}",
        snapshot: f"drwxr-xr-x {plain}",
        **{f"{snapshot}/{name}-v2.def": f"-rw-rw-rw- {plain}" for name in ("antivir", "aivsecon")},
    }
    process = configured.show(UNIT, "MainPID")
    assert configured.out("readlink", f"/proc/{process}/exe") == DAEMON
    configured.run("journalctl", "--sync")
    fields = ["--output-fields=MESSAGE,PRIORITY,SYSLOG_IDENTIFIER,_UID,SYSLOG_FACILITY"]
    lines = configured.out("journalctl", "--output=json", *fields, f"_PID={process}", "_TRANSPORT=syslog").splitlines()
    entries = [json.loads(line) for line in lines]
    assert [(int(entry["PRIORITY"]), entry["MESSAGE"]) for entry in entries] == LOG
    assert {(entry["SYSLOG_IDENTIFIER"], entry["SYSLOG_FACILITY"]) for entry in entries} == {(PROGRAM, "3")}
    assert {entry["_UID"] for entry in entries} == {configured.out("id", "-u", USER)}


def test_update_makes_no_call_that_the_filter_refuses(configured):
    """A refused call usually is an error for the daemon; here it ends the daemon."""
    configured.drop_in("[Service]\nSystemCallErrorNumber=kill\n")
    configured.expect_check(OLD)
    configured.run("systemctl", "stop", UNIT)
    assert (configured.state(), configured.show(UNIT, "Result")) == ("inactive", "success")
    assert configured.take_log() == [*(message for _, message in LOG), "zel_quorin_updater loop stopped"]


def test_mirror_is_reached_by_name_and_by_ipv6(gateway):
    gateway.put("/etc/hosts", "127.0.0.1 localhost\n::1 mirror.example\n")
    gateway.server = gateway.scripted("::1")
    gateway.publish(OLD)
    gateway.configure("mirror.example")
    gateway.expect_check(OLD)


def test_authority_has_to_be_readable_for_the_service(configured):
    """A file that its user can read, outside the directories that the unit hides."""
    for place, mode, readable in (("/tmp", 0o644, False), ("/srv", 0o600, False), ("/srv", 0o644, True)):
        configured.put(f"{place}/zqu.pem", configured.path(AUTHORITY).read_bytes(), mode)
        configured.configure(ca_path=f"{place}/zqu.pem")
        configured.expect_check(OLD if readable else "", "" if readable else "defId fetch failed")
        refusal = "Problem with the SSL CA cert (path? access rights?)"
        assert readable or configured.take_log()[-1] == f"GET {configured.server.base()}/{HIT}: {refusal}"


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


def test_update_from_a_medium(gateway):
    for name, content in Release(OLD).files.values():
        gateway.put(f"/media/zqu/{SUBDIR}/{name}", content)
    gateway.configure(mirror_base_url="file:///media/zqu")
    gateway.expect_check(OLD)


# Definitions of real sizes, on a disk: files in a file system in memory would count as the unit's memory.


@pytest.fixture
def on_disk(installation, tmp_path):
    (tmp_path / "disk").mkdir()
    gateway = BootedGateway(installation, [tmp_path])
    gateway.run("mount", "--bind", tmp_path / "disk", ROOT)
    gateway.run("systemd-tmpfiles", "--create", f"{PROGRAM}.conf")
    yield gateway
    gateway.end()


@pytest.mark.long
def test_large_definitions_are_taken_within_all_limits(on_disk, tmp_path):
    size = 1_000_000_000
    (tmp_path / "mirror").mkdir()
    nginx = on_disk.in_network(lambda: Nginx(tmp_path / "mirror"))
    try:
        mirror = Mirror(nginx.root, SUBDIR)
        with zipfile.ZipFile(mirror.path("x.zip"), "w") as archive:
            with archive.open("antivir-v2.def", "w", force_zip64=True) as file:
                for _ in range(size // 1_000_000):
                    file.write(os.urandom(1_000_000))
            archive.writestr("aivsecon-v2.def", "small\n")
        mirror.announce(NEW, "x.zip")
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

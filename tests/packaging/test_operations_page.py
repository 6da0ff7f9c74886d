"""The pages for those who run a gateway and those who read its definitions: what they say to do, done as it stands."""

import re

import pytest
import trustme
from administrator import Administrator
from booted_gateway import AUTHORITY, CONFIG, PROGRAM, RESTART, ROOT, STATUS, UNIT
from outcomes import NO_PROXY
from pages import blocks
from trials import server_context

START, STOP = f"systemctl start {PROGRAM}", f"systemctl stop {PROGRAM}"
USER = "mailfilter"  # whom a block lets read the definitions
REFUSED = "defId fetch failed"


@pytest.fixture(scope="module")
def administrator(bare_gateway, packages):
    """The package is installed by the page's block, and a reader let in by the line for consumers."""
    made, gateway = Administrator(bare_gateway, packages), bare_gateway
    gateway.publish("1001")
    made.type(gateway.configuration("localhost"))
    (block,) = blocks("operations.md", "First installation")
    made.said = made.sh(block.replace("zqu-status\n", f"until [ -s {STATUS} ]; do sleep 0.1; done\nzqu-status\n"))
    gateway.run("useradd", "--no-create-home", USER)
    made.refused = gateway.run("cat", f"{ROOT}/active/antivir-v2.def", user=USER, check=False).stderr
    (block,) = blocks("consumers.md", "Who may read")
    made.sh(block)
    return made


@pytest.fixture
def gateway(administrator):
    """With a new release in service; drop-ins are taken back."""
    made = administrator.gateway
    made.version = administrator.take_new()
    yield made
    made.drop_in("")


def test_first_installation_ends_with_definitions_in_service(administrator):
    """apt-get has no network here: all that the package needs is there already."""
    assert re.search(r"^verdict +OK$", administrator.said, re.MULTILINE), administrator.said
    assert (administrator.gateway.enabled(), administrator.gateway.state()) == ("enabled", "active")


def test_user_is_let_in_by_the_line_for_consumers(administrator, gateway):
    assert administrator.refused == f"cat: {ROOT}/active/antivir-v2.def: Permission denied\n"
    assert gateway.in_service(user=USER) == gateway.version


def test_two_authorities_carry_over_a_change_of_certificates(gateway):
    server, other, pem = gateway.server, trustme.CA(), gateway.path(AUTHORITY).read_bytes()
    former, server.context = server.context, server_context(other.issue_cert("localhost"))
    try:
        gateway.expect_check(gateway.version, REFUSED)
        gateway.put(AUTHORITY, pem + other.cert_pem.bytes())
        gateway.expect_check(gateway.version)
    finally:
        server.context = former
    gateway.expect_check(gateway.version)


def test_no_proxy_spares_the_mirror_the_proxy_of_the_drop_in(administrator, gateway):
    (block,) = blocks("operations.md", "A proxy")
    administrator.edit_unit(block)
    gateway.expect_check(gateway.version, REFUSED)
    assert gateway.take_log()[-1].endswith(f": {NO_PROXY}")
    shell = "https_proxy=http://127.0.0.1:1 no_proxy=localhost"  # what the shell has does not count
    gateway.expect_check(gateway.version, REFUSED, command=f"{shell} {RESTART}")
    assert gateway.take_log()[-1].endswith(f": {NO_PROXY}")
    administrator.edit_unit(block + "Environment=no_proxy=localhost\n")
    gateway.expect_check(gateway.version)


def everything_below(gateway, directory):
    """Names, modes, owners, times, links and ACLs."""
    listed = gateway.out("find", directory, "-printf", "%P %M %u:%g %T@ %l\\n")
    acls = gateway.out("sh", "-c", f"cd {directory} && getfacl --recursive .")
    return sorted(listed.splitlines()), sorted(acls.split("\n\n"))


def test_copy_of_the_root_filters_from_the_first_minute(administrator, gateway):
    administrator.sh(f"{STOP}; cp -a {ROOT} /srv/copy")
    before = everything_below(gateway, ROOT)
    administrator.sh(f"rm -r {ROOT}; cp -a /srv/copy {ROOT}; rm -r /srv/copy")
    assert everything_below(gateway, ROOT) == before
    assert gateway.in_service(user=USER) == gateway.version
    gateway.server.requests.clear()
    gateway.expect_check(gateway.version, command=START)
    assert gateway.server.targets() == ["antivir-v2-hit.ini"]


def test_rollback_by_hand_lasts_until_the_service_is_started(administrator, gateway):
    """Which then takes what the mirror names: the bad release again."""
    good, bad = gateway.version, administrator.take_new()
    (block,) = blocks("operations.md", "Rollback by hand")
    assert block.count("/1004 ") == 1
    assert administrator.sh(block.replace("1004", good)).split()[:2] == [bad, good]
    assert gateway.state() == "inactive"
    assert gateway.in_service(user=USER) == good
    gateway.expect_check(bad, command=START)
    assert gateway.in_service() == bad


def test_page_for_troubles_repairs_definitions_and_a_failed_unit(administrator, gateway):
    _, compare, fetch = blocks("troubleshooting.md", "Full disk")
    damaged = gateway.path(f"{ROOT}/active/antivir-v2.def")
    sound = damaged.read_bytes()
    damaged.write_bytes(b"cut")
    assert "antivir-v2.def" in administrator.sh(f"{compare.strip()} || :")
    gateway.expect_check(gateway.version, command=fetch)
    assert damaged.read_bytes() == sound
    (start,) = blocks("troubleshooting.md", "The unit is failed")
    gateway.run("systemctl", "kill", "--signal", "SEGV", UNIT)
    gateway.expect_check(gateway.version, command=start)


MOVED = "/srv/definitions"


@pytest.fixture
def file_system(administrator, gateway):
    """One of its own for the definitions, and the gateway as it was afterwards."""
    former = gateway.path(CONFIG).read_text()
    gateway.put("/etc/fstab", f"tmpfs {MOVED} tmpfs nosuid,nodev 0 0\n")
    administrator.sh("systemctl daemon-reload; systemctl start srv-definitions.mount")
    yield
    administrator.sh(f"{STOP} srv-definitions.mount; rmdir {MOVED}; : >/etc/fstab")
    gateway.put(CONFIG, former)


def test_moved_root_serves_only_while_its_file_system_is_there(administrator, gateway, file_system):
    stop, settings, drop_in, copy, start = blocks("operations.md", "Moving the root")
    administrator.sh(stop)
    gateway.put(CONFIG, gateway.path(CONFIG).read_text() + settings)
    administrator.edit_unit(drop_in)
    administrator.sh(copy)
    gateway.server.requests.clear()
    moved = f"{MOVED}/manifest/status.json"
    gateway.expect_check(gateway.version, command=start, status=moved)
    assert gateway.server.targets() == ["antivir-v2-hit.ini"]  # the snapshots came along
    permissions = [administrator.sh(f"cd {root} && getfacl . snapshots manifest") for root in (ROOT, MOVED)]
    assert permissions[0] == permissions[1]
    mounts = gateway.out("cat", f"/proc/{gateway.show(UNIT, 'MainPID')}/mountinfo").splitlines()
    (options,) = [line.split()[5] for line in mounts if line.split()[4] == MOVED]
    assert set(options.split(",")) >= {"rw", "noexec"}
    gateway.publish("next")
    gateway.expect_check("next", status=moved)
    assert gateway.in_service(MOVED, user=USER) == "next"
    assert gateway.in_service() == gateway.version  # what the old root holds
    writing = ["sh", "-c", f"echo >>{MOVED}/active/antivir-v2.def"]
    assert gateway.run(*writing, user=USER, check=False).stderr.endswith("Permission denied\n")
    administrator.sh("systemctl stop srv-definitions.mount")
    assert gateway.state() == "inactive"

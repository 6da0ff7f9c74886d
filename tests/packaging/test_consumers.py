"""The sample units for programs that use the definitions, in a booted gateway."""

import subprocess

import pytest
from booted_gateway import DAEMON, ROOT, USER
from builds import REPOSITORY
from pages import blocks

SAMPLES = REPOSITORY / "packaging" / "consumer"
UNITS = "/etc/systemd/system"
RELOAD = "zel-quorin-reload.service"
# Stands for a mail filter: its log says which release each load found, by the definitions themselves.
FILTER = f"""\
[Service]
Type=oneshot
RemainAfterExit=yes
ExecStart=/bin/true
ExecReload=/bin/sh -ec 'cd -P {ROOT}/active && sed -n "1s/.* of //p" antivir-v2.def >>/var/log/loads'
"""
SLOW = "touch /run/loading; while [ -e /run/loading ]; do sleep 0.05; done"
CLEAN = f"systemctl stop zel-quorin-reload.path {RELOAD} mail-filter; rm -rf /run/zel-quorin-reload /var/log/loads"


class Consumer:
    """A gateway with the samples, and with what loads the definitions."""

    def __init__(self, gateway):
        self.gateway = gateway
        for sample in SAMPLES.iterdir():
            gateway.put(f"{UNITS}/{sample.name}", sample.read_text())
        gateway.put(f"{UNITS}/mail-filter.service", FILTER)
        gateway.drop_in("", unit="mail-filter.service")
        gateway.run("sh", "-c", f"{CLEAN}; systemctl start mail-filter")
        gateway.configure()

    def update_to(self, version):
        self.gateway.publish(version)
        self.gateway.run(DAEMON, "--once", user=USER)
        assert self.gateway.out("readlink", f"{ROOT}/active") == f"snapshots/{version}"

    def watch(self):
        self.gateway.run("systemctl", "start", "zel-quorin-reload.path")

    def look(self, **options):
        """As the timer does."""
        return self.gateway.run("timeout", "20", "systemctl", "start", RELOAD, **options).returncode

    def at_rest(self):
        return self.gateway.state(RELOAD) == "inactive"

    def loads(self):
        return self.gateway.out("sh", "-c", "touch /var/log/loads; cat /var/log/loads").split()


@pytest.fixture
def consumer(gateway):
    return Consumer(gateway)


def test_each_of_ten_updates_is_loaded_once(consumer):
    consumer.watch()
    assert (consumer.look(), consumer.loads()) == (0, [])  # before the first one
    releases = [*(str(1000 + number) for number in range(9)), "1009\\c"]
    for number, release in enumerate(releases):
        consumer.update_to(release)
        consumer.gateway.wait_for(lambda: consumer.loads() == releases[: number + 1] and consumer.at_rest())
    consumer.gateway.run(DAEMON, "--once", user=USER)  # nothing new
    consumer.look()
    assert consumer.loads() == releases


def test_update_that_comes_during_a_load_is_loaded_too(consumer):
    gateway = consumer.gateway
    gateway.drop_in(f"[Service]\nExecReload=/bin/sh -ec '{SLOW}'\n", unit="mail-filter.service")
    consumer.watch()
    for version in ("1001", "1002"):
        consumer.update_to(version)
        if version == "1001":
            gateway.wait_for(lambda: gateway.exists("/run/loading"))
    for _ in range(2):
        gateway.wait_for(lambda: gateway.exists("/run/loading"))
        gateway.path("/run/loading").unlink()
    gateway.wait_for(consumer.at_rest)
    assert consumer.loads() == ["1001", "1002"]


def test_load_that_failed_is_tried_again_by_the_next_look(consumer):
    """And nothing is loaded while no definitions are in service."""
    consumer.gateway.drop_in("[Service]\nExecReload=/bin/false\n", unit="mail-filter.service")
    consumer.update_to("1001")
    assert consumer.look(check=False) != 0
    consumer.gateway.drop_in("", unit="mail-filter.service")
    consumer.look()
    assert consumer.loads()[-1] == "1001"
    consumer.gateway.run("rm", f"{ROOT}/active", "/var/log/loads")
    consumer.look()
    assert consumer.loads() == []
    assert consumer.gateway.show("mail-filter.service", "Result") == "success"


def test_c_lines_of_the_page_open_both_files(consumer, tmp_path):
    (lines,) = blocks("consumers.md", "Open the directory once")
    lines = lines.replace("\n", "\nif (release < 0) return errno;\n", 1)
    program = f"#include <cerrno>\n#include <fcntl.h>\nint main() {{\n{lines}return antivir < 0 || aivsecon < 0;\n}}\n"
    (tmp_path / "reader.cpp").write_text(program)
    subprocess.run(["g++", "-o", tmp_path / "reader", tmp_path / "reader.cpp"], check=True)
    consumer.gateway.put("/usr/bin/zqu-reader", (tmp_path / "reader").read_bytes(), 0o755)
    assert consumer.gateway.run("zqu-reader", check=False).returncode == 2  # ENOENT, as the page says
    consumer.update_to("1001")
    consumer.gateway.run("zqu-reader", user=USER)


def test_page_shows_the_samples_as_they_are():
    shown = blocks("consumers.md", "Load each update")
    for name in ("zel-quorin-reload.path", RELOAD):
        lines = (SAMPLES / name).read_text().splitlines(keepends=True)
        assert "".join(line for line in lines if not line.startswith("#")) in shown, name

"""The timer for a node exporter, in a booted gateway, with its own user and all of its confinement."""

import stat

from booted_gateway import CONFIG, USER

METRICS = "/run/zqu-status/zel-quorin-updater.prom"
LINKED = "/var/lib/prometheus/node-exporter/zel-quorin-updater.prom"


def test_timer_writes_the_metrics_as_the_confined_user(gateway):
    def look():
        gateway.run("systemctl", "start", "zqu-status.service")
        assert gateway.show("zqu-status.service", "Result") == "success"
        return gateway.path(METRICS).read_text()

    gateway.configure()
    assert 'zelquorin_verdict{verdict="critical"} 1\n' in look()
    gateway.update_to("1001")
    text = look()
    assert 'zelquorin_verdict{verdict="ok"} 1\n' in text
    assert 'zelquorin_release_info{version="1001",flavor="v2",engine_version="engine 7"} 1\n' in text
    found = gateway.path(METRICS).lstat()
    assert (stat.S_IMODE(found.st_mode), found.st_uid) == (0o644, int(gateway.out("id", "-u", USER)))
    # The node exporter's own user reads it, by the link.
    gateway.run("ln", "-s", METRICS, LINKED)
    assert gateway.out("cat", LINKED, user="prometheus") == text.rstrip("\n")
    gateway.put(CONFIG, "poll_interval_s = x\n")
    assert 'zelquorin_finding{finding="config_malformed"} 1\n' in look()
    # The timer starts it, too.
    gateway.path(METRICS).unlink()
    gateway.run("systemctl", "start", "zqu-status.timer")
    gateway.wait_for(gateway.path(METRICS).exists, seconds=100)

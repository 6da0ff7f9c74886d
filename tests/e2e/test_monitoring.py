"""What is shipped for monitoring systems: alerts, dashboard, and the metrics as a real node exporter serves them."""

import itertools
import json
import os
import re
import socket
import subprocess
import urllib.request

import pytest
from builds import REPOSITORY
from tools import Tool

SHIPPED = REPOSITORY / "packaging" / "monitoring"
RULES = SHIPPED / "zel-quorin-updater.rules.yml"
TESTS = REPOSITORY / "tests" / "e2e" / "alerts.test.yml"
DASHBOARD = json.loads((SHIPPED / "zel-quorin-updater.dashboard.json").read_text())
run = Tool("zqu-status")


def promtool(*words):
    done = subprocess.run(["promtool", *words], capture_output=True, text=True)
    return done.returncode, done.stdout + done.stderr


@pytest.fixture
def exposition(gateway, mirror):
    """The metrics of a gateway with a release in service."""
    mirror.publish("1001")
    gateway.run_once()
    return run("--config", gateway.config_path, "--prometheus", "--verify")[1]


def emitted(exposition):
    """With the one that needs systemd: tests/packaging/test_status_timer.py."""
    return {"zelquorin_unit_info", *re.findall(r"^# TYPE (\w+) ", exposition, re.MULTILINE)}


def named(text):
    """The metrics of ours that a text names."""
    return set(re.findall(r"zelquorin_\w+", text))


def test_each_alert_is_raised_when_it_has_to_be_and_not_else():
    code, out = promtool("check", "rules", RULES)
    assert code == 0, out
    code, out = promtool("test", "rules", TESTS)
    assert code == 0 and "SUCCESS" in out, out
    tried = TESTS.read_text()
    for alert in re.findall(r"alert: (\w+)", RULES.read_text()):
        assert re.search(rf"alertname: {alert}\n +exp_alerts:\n", tried), f"{alert} is never raised"
        assert re.search(rf"alertname: {alert}, exp_alerts: \[\]", tried), f"{alert} is always raised"


def expressions():
    return [target["expr"] for panel in DASHBOARD["panels"] for target in panel["targets"]]


def test_dashboard_asks_in_well_formed_expressions(tmp_path):
    assert len(expressions()) >= len(DASHBOARD["panels"]) > 0
    asked = [expression.replace("$instance", ".*") for expression in expressions()]
    rules = [{"record": f"panel:{number}", "expr": expression} for number, expression in enumerate(asked)]
    path = tmp_path / "rules.yml"
    path.write_text(json.dumps({"groups": [{"name": "dashboard", "rules": rules}]}))  # JSON is YAML
    code, out = promtool("check", "rules", path)
    assert code == 0 and f"{len(rules)} rules found" in out, out


def test_alerts_and_dashboard_name_nothing_that_is_not_emitted(exposition):
    for text in (RULES.read_text(), json.dumps(DASHBOARD)):
        assert named(text) and named(text) - emitted(exposition) == set()
    findings = {name for group in re.findall(r'finding=~"([^"]+)"', RULES.read_text()) for name in group.split("|")}
    assert findings and findings - set(re.findall(r'finding="(\w+)"', exposition)) == set()
    verdicts = set(re.findall(r'verdict=\\?"(\w+)', json.dumps(DASHBOARD)))
    assert verdicts - set(re.findall(r'verdict="(\w+)"', exposition)) == set()


def test_panels_have_ids_of_their_own_and_do_not_overlap():
    ids = [panel["id"] for panel in DASHBOARD["panels"]]
    assert len(set(ids)) == len(ids)
    cells = []
    for panel in DASHBOARD["panels"]:
        place = panel["gridPos"]
        assert place["x"] >= 0 and place["x"] + place["w"] <= 24
        rows = range(place["y"], place["y"] + place["h"])
        cells += itertools.product(range(place["x"], place["x"] + place["w"]), rows)
        assert [target["refId"] for target in panel["targets"]] == [*"AB"][: len(panel["targets"])]
    assert len(set(cells)) == len(cells)


def served_by_node_exporter(directory):
    """What the node exporter serves with only its textfile collector, on a loopback port that it is given."""
    start = 'LISTEN_PID=$$ LISTEN_FDS=1 exec "$@" 3<&"$SOCKET"'  # the descriptor is for the process that it becomes
    words = ["--collector.disable-defaults", "--collector.textfile", f"--collector.textfile.directory={directory}"]
    with socket.create_server(("127.0.0.1", 0)) as server:
        url = f"http://127.0.0.1:{server.getsockname()[1]}/metrics"
        process = subprocess.Popen(
            ["bash", "-c", start, "bash", "prometheus-node-exporter", "--web.systemd-socket", *words],
            env={**os.environ, "SOCKET": str(server.fileno())},
            pass_fds=[server.fileno()],
            stderr=subprocess.DEVNULL,
        )
    try:
        with urllib.request.build_opener(urllib.request.ProxyHandler({})).open(url, timeout=30) as answer:
            return answer.read().decode()
    finally:
        process.kill()
        process.wait()


def samples_of(text):
    """The samples of ours, with their labels in order and their values as numbers."""
    found = {}
    for name, labels, value in re.findall(r"^(zelquorin_\w+)(?:\{(.*)\})? (\S+)$", text, re.MULTILINE):
        found[name, *sorted(re.findall(r'\w+="(?:[^"\\]|\\.)*"', labels))] = float(value)
    return found


def test_node_exporter_serves_what_the_tool_wrote(gateway, mirror, tmp_path):
    """Through a link, as with the service unit."""
    gateway.settings["engine_version"] = 'engine "7" \\ | \x1b'
    mirror.publish("1001")
    gateway.run_once()
    written = tmp_path / "run" / "zel-quorin-updater.prom"
    directory = tmp_path / "node-exporter"
    directory.mkdir()
    written.parent.mkdir()
    (directory / written.name).symlink_to(written)
    assert run("--config", gateway.config_path, "--prometheus", "--output", written) == (0, "", "")
    served = served_by_node_exporter(directory)
    assert samples_of(served) == samples_of(written.read_text()) != {}
    assert "\nnode_textfile_scrape_error 0\n" in served


def test_page_has_every_metric_and_every_alert_and_no_other(exposition):
    page = (REPOSITORY / "docs" / "monitoring.md").read_text()
    assert set(re.findall(r"^\| `(zelquorin_\w+)` \|", page, re.MULTILINE)) == emitted(exposition)
    listed = re.findall(r"^\| `(ZelQuorin\w+)` \| (\w+) \|", page, re.MULTILINE)
    alerts = re.findall(r"alert: (\w+)\n(?:.*\n)*? +severity: (\w+)", RULES.read_text())
    severities = {name: {severity for other, severity in alerts if other == name} for name, _ in alerts}
    assert {name: {"warning", "critical"} if word == "both" else {word} for name, word in listed} == severities

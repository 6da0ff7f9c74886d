"""zqu-status and what ships for monitoring, in a booted gateway: the state of the service, and the timer for a node
exporter with its own user and full confinement."""

import json
import re
import stat
import subprocess

import pytest
from booted_gateway import CONFIG, ROOT, UNIT, USER
from builds import REPOSITORY

SHIPPED = REPOSITORY / "packaging" / "monitoring"
DASHBOARD = json.loads((SHIPPED / "zel-quorin-updater.dashboard.json").read_text())
METRICS = "/run/zqu-status/zel-quorin-updater.prom"
LINKED = "/var/lib/prometheus/node-exporter/zel-quorin-updater.prom"
EXITS = {"ok": 0, "warning": 1, "critical": 2, "unknown": 3}


def status(gateway, *words, user=None):
    return gateway.run("/usr/local/bin/zqu-status", *words, check=False, user=user)


def look(gateway):
    """The metrics that the packaged unit writes."""
    gateway.run("systemctl", "start", "zqu-status.service")
    assert gateway.show("zqu-status.service", "Result") == "success"
    return gateway.path(METRICS).read_text()


# ---- The state of the service ----

NO_UPDATES = "the definitions get no updates"
STOPPED = f"service_stopped: {UNIT} is stopped: {NO_UPDATES}"
# The action on the service; its state; the finding; its command, which heals it; the alert.
STATES = {
    "running": (":", "active (running), enabled", "", "", ""),
    "stopped": ("systemctl stop $unit", "inactive (dead), enabled", STOPPED, "start", "ZelQuorinServiceDown"),
    "never enabled": (
        "systemctl disable --now $unit",
        "inactive (dead), disabled",
        f"service_stopped: {UNIT} is stopped and disabled: {NO_UPDATES}",
        "enable --now",
        "ZelQuorinServiceDown",
    ),
    "disabled": (
        "systemctl disable $unit",
        "active (running), disabled",
        f"service_disabled: {UNIT} runs, but does not start at boot: it is disabled",
        "enable",
        "ZelQuorinOddity",
    ),
    "masked": (
        "systemctl disable --now $unit; systemctl mask $unit",
        "inactive (dead), masked",
        f"service_stopped: {UNIT} is stopped and masked: {NO_UPDATES}",
        "unmask && enable --now",
        "ZelQuorinServiceDown",
    ),
    "masked until the next boot": (
        "systemctl mask --runtime $unit",
        "active (running), masked-runtime",
        f"service_disabled: {UNIT} runs, but does not start at boot: it is masked-runtime",
        "unmask --runtime && enable",
        "ZelQuorinOddity",
    ),
    "failed too often": (
        "printf '[Service]\\nRestartSec=0\\n' >$drop_in; systemctl daemon-reload; "
        "until systemctl is-failed $unit; do systemctl kill --signal=KILL $unit || :; done",
        "failed (failed), enabled",
        f"service_failed: {UNIT} has failed: signal",
        "reset-failed && restart",
        "ZelQuorinServiceDown",
    ),
    "waiting for its restart": (
        "printf '[Service]\\nRestartSec=1h\\n' >$drop_in; systemctl daemon-reload; systemctl kill --signal=ABRT $unit; "
        "until [ $(systemctl show --property SubState --value $unit) = auto-restart ]; do :; done",
        "activating (auto-restart), enabled",
        f"service_failed: {UNIT} has failed: signal",
        "reset-failed && restart",
        "ZelQuorinServiceDown",
    ),
}


@pytest.fixture
def serving(gateway):
    gateway.update_to("1001")
    yield gateway
    places = f"/etc/systemd/system/{UNIT} /run/systemd/system/{UNIT} /etc/systemd/system/{UNIT}.d"
    gateway.run("sh", "-ec", f"rm -rf {places}; systemctl enable {UNIT}")


def series(metrics):
    """The samples as series of an hour and a half in which the state stays as it is."""
    samples = [line.rpartition(" ")[::2] for line in metrics.splitlines() if not line.startswith("#")]
    (now,) = [int(value) for name, value in samples if name == "zelquorin_observation_timestamp_seconds"]
    for name, value in samples:
        aging = name.endswith("_timestamp_seconds")
        values = f"{int(value) - now}+60x90" if aging else f"{value}x90"
        yield {"series": with_instance(name), "values": values}


def with_instance(name):
    return name.replace("{", '{instance="gw",') if "{" in name else name + '{instance="gw"}'


def expect_alert(metrics, tmp_path, finding, alert):
    """By the rules and the dashboard as they ship."""
    severity = {"ZelQuorinOddity": "warning"}.get(alert, "critical")
    labels = f'alertname="{alert}",alertstate="firing",finding="{finding}"'
    firing = with_instance(f'ALERTS{{{labels},severity="{severity}"}}')
    shown = [panel for panel in DASHBOARD["panels"] if panel["title"] in ("Verdict", "Service")]
    expressions = [panel["targets"][0]["expr"].replace("$instance", ".*") for panel in shown]
    (info,) = re.findall(r"^(zelquorin_unit_info\{.*\}) 1$", metrics, re.MULTILINE)
    verdict = {"": 0, "warning": 1, "critical": 2}[alert and severity]
    known = [('{instance="gw"}', verdict), (with_instance(info), 1)]
    expected = {'ALERTS{alertstate="firing"}': [{"labels": firing, "value": 1}] if alert else []}
    for expression, (labels, value) in zip(expressions, known, strict=True):
        expected[expression] = [{"labels": labels, "value": value}]
    tests = [{"expr": expr, "exp_samples": samples, "eval_time": "65m"} for expr, samples in expected.items()]
    test = {"interval": "1m", "input_series": list(series(metrics)), "promql_expr_test": tests}
    document = {"rule_files": [str(SHIPPED / "zel-quorin-updater.rules.yml")], "tests": [test]}
    (tmp_path / "test.yml").write_text(json.dumps(document))  # JSON is YAML
    done = subprocess.run(["promtool", "test", "rules", tmp_path / "test.yml"], capture_output=True, text=True)
    assert done.returncode == 0 and "SUCCESS" in done.stdout, done.stdout + done.stderr


@pytest.mark.parametrize("name", STATES)
def test_state_of_the_service_is_in_all_forms(serving, tmp_path, name):
    """Also for the daemon's user, who is not root, and for the packaged unit; and the command heals."""
    change, state, finding, command, alert = STATES[name]
    places = f"unit={UNIT} drop_in=/etc/systemd/system/{UNIT}.d/override.conf"
    serving.run("sh", "-ec", f"{places}; mkdir -p ${{drop_in%/*}}; {change}")
    report = json.loads(status(serving, "--json", user=USER).stdout)
    assert [f"{f['finding']}: {f['text']}" for f in report["findings"]] == list(filter(None, [finding]))
    active, sub, file = re.fullmatch(r"(\S+) \((\S+)\), (\S+)", state).groups()
    words = {"active_state": active, "sub_state": sub, "unit_file_state": file}
    load = "masked" if file.startswith("masked") else "loaded"
    result = "signal" if "failed" in finding else "success"
    assert report["unit"] == {"name": UNIT, "load_state": load, **words, "result": result, "reason": None}
    text, line = status(serving), status(serving, "--nagios")
    assert f"\nservice      {state}\n" in text.stdout
    assert text.returncode == line.returncode == EXITS[report["verdict"]]
    assert (finding.partition(": ")[2] or f", service {state} |") in line.stdout
    labels = {"unit": UNIT, "load_state": load, **words, "result": result}
    expected = ",".join(f'{label}="{value}"' for label, value in labels.items())
    metrics = look(serving)
    assert f"zelquorin_unit_info{{{expected}}} 1\n" in metrics
    assert re.findall(r'finding="(\w+)"} 1', metrics) == list(filter(None, [finding.partition(":")[0]]))
    expect_alert(metrics, tmp_path, finding.partition(":")[0], alert)
    if command:
        line = " && ".join(f"systemctl {part} -- '{UNIT}'" for part in command.split(" && "))
        assert report["findings"][0]["command"] == line
        serving.run("sh", "-ec", report["findings"][0]["command"])
        serving.wait_for(lambda: status(serving).returncode == 0)
    assert status(serving, "--nagios", "--unit", "none").stdout.startswith("DEFINITIONS OK - 1001 in service")


def test_drop_in_left_behind_is_a_warning(serving):
    """The service may still write where the definitions were."""
    drop_in = "[Service]\nReadWritePaths=-/srv/definitions\nNoExecPaths=-/srv/definitions\n"
    serving.drop_in(drop_in)
    (finding,) = json.loads(status(serving, "--json").stdout)["findings"]
    text = f"{UNIT} may still write /srv/definitions, which the configuration no longer names"
    assert (finding["finding"], finding["verdict"], finding["text"]) == ("drop_in_left", "warning", text)
    text = serving.path(CONFIG).read_text()
    for path in ("/srv/definitions", "/srv/definitions/below", "/srv"):
        serving.put(CONFIG, f"{text}status_path = {path}/status.json\n")
        found = [finding["finding"] for finding in json.loads(status(serving, "--json").stdout)["findings"]]
        assert "drop_in_left" not in found, path


def test_unit_that_is_not_there_is_critical_only_when_named(serving):
    line = status(serving, "--nagios", "--unit", "other.service")
    assert line.returncode == 2
    assert line.stdout.startswith(f"DEFINITIONS CRITICAL - other.service is not there: {NO_UPDATES} |")
    serving.run("sh", "-ec", f"cp {CONFIG} /etc/other.conf")
    assert json.loads(status(serving, "--json", "--config", "/etc/other.conf").stdout)["unit"] is None


def test_unreachable_bus_is_unknown_only_when_asked_for(serving):
    serving.run("systemctl", "stop", "dbus.socket", "dbus.service")
    try:
        assert "\nservice      not known: Connection refused\n" in status(serving).stdout
        assert status(serving).returncode == 0
        unknown = "service not known: Connection refused |"
        assert f" ago, {unknown}" in status(serving, "--nagios").stdout
        words = 'load_state="unknown",active_state="unknown",sub_state="unknown",unit_file_state="unknown"'
        sample = f'zelquorin_unit_info{{unit="{UNIT}",{words},result="unknown"}} 1\n'
        assert sample in status(serving, "--prometheus").stdout
        line = status(serving, "--nagios", "--unit", UNIT)
        reason = f"the state of {UNIT} is not known: Connection refused"
        assert line.returncode == 3 and line.stdout.startswith(f"DEFINITIONS UNKNOWN - {reason} |")
        serving.run("touch", "-hd", "3 days ago", f"{ROOT}/active")
        old = status(serving, "--nagios")
        assert old.returncode == 1 and f" ago, more than 2 d; {unknown}" in old.stdout
        assert "service not known" not in status(serving, "--nagios", "--unit", UNIT).stdout
    finally:
        serving.run("systemctl", "start", "dbus.socket")


def test_silent_bus_is_given_up(serving):
    """Connections are accepted, and nothing is read from them."""
    serving.run("systemd-run", "--unit", "silent", "--socket-property=ListenStream=/run/silent", "sleep", "300")
    try:
        command = ["env", "DBUS_SYSTEM_BUS_ADDRESS=unix:path=/run/silent", "timeout", "40", "/usr/local/bin/zqu-status"]
        shown = serving.run(*command, check=False)
        assert (shown.returncode, "\nservice      not known: no answer within 5 s\n" in shown.stdout) == (0, True)
    finally:
        serving.run("systemctl", "stop", "silent.socket", "silent.service")


@pytest.mark.parametrize("change", (f"setfacl -b {ROOT}", f"chmod 600 {ROOT}/active/*.def"))
def test_definitions_that_readers_cannot_read_are_critical(serving, change):
    serving.run("sh", "-ec", change)
    report = json.loads(status(serving, "--json").stdout)
    closed = [finding for finding in report["findings"] if finding["finding"] == "definition_closed"]
    text = "in the snapshot in service cannot be read by the group zel-quorin-readers"
    assert [finding["text"] for finding in closed] == [f"antivir-v2.def {text}", f"aivsecon-v2.def {text}"]
    assert report["verdict"] == "critical" and 'finding="definition_closed"} 1\n' in look(serving)
    serving.check(closed[0]["command"])
    assert status(serving).returncode == 0


# ---- The timer ----


def test_timer_writes_the_metrics_as_the_confined_user(gateway):
    gateway.configure()
    assert 'zelquorin_verdict{verdict="critical"} 1\n' in look(gateway)
    gateway.update_to("1001")
    text = look(gateway)
    assert 'zelquorin_verdict{verdict="ok"} 1\n' in text
    assert 'zelquorin_release_info{version="1001",flavor="v2",engine_version="engine 7"} 1\n' in text
    found = gateway.path(METRICS).lstat()
    assert (stat.S_IMODE(found.st_mode), found.st_uid) == (0o644, int(gateway.out("id", "-u", USER)))
    # The node exporter's own user reads it, by the link.
    gateway.run("ln", "-s", METRICS, LINKED)
    assert gateway.out("cat", LINKED, user="prometheus") == text.rstrip("\n")
    gateway.put(CONFIG, "poll_interval_s = x\n")
    assert 'zelquorin_finding{finding="config_malformed"} 1\n' in look(gateway)
    # The timer starts it, too.
    gateway.path(METRICS).unlink()
    gateway.run("systemctl", "start", "zqu-status.timer")
    gateway.wait_for(gateway.path(METRICS).exists, seconds=100)
    gateway.run("systemctl", "stop", "zqu-status.timer")


def lines_about(gateway, action):
    """The lines about the status unit and its timer in the journal after an action."""
    gateway.run("sh", "-ec", "journalctl --sync; journalctl --quiet --cursor-file /run/status-cursor >/dev/null || :")
    action()
    command = (
        "journalctl --sync; journalctl --quiet --output cat --cursor-file /run/status-cursor | grep -i status || :"
    )
    return gateway.out("sh", "-ec", command).splitlines()


def test_runs_leave_no_line_in_the_journal_but_failures_do(serving):
    def run_ten_times():
        for _ in range(10):
            look(serving)

    assert lines_about(serving, run_ten_times) == []
    serving.drop_in("[Service]\nExecStart=\nExecStart=/usr/local/bin/zqu-status --output /etc\n", "zqu-status.service")
    try:
        command = ("systemctl", "start", "zqu-status.service")
        lines = lines_about(serving, lambda: serving.run(*command, check=False))
    finally:
        serving.drop_in("", "zqu-status.service")
    assert "zqu-status: cannot replace /etc: it is not a regular file; name another one" in lines
    assert "zqu-status.service: Failed with result 'exit-code'." in lines

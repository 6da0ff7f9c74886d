"""What Prometheus decides and shows of a fleet: the automatic advance of a rollout, and the fleet page."""

import html
import json
import os
import re
import shlex
import socket
import subprocess
import time

import pytest
from builds import REPOSITORY
from gateway import BUILD, wait_for
from mirror_tool import run
from mirrors import WITH_US
from scripted_server import ScriptedServer, finish, reply
from tools import Tool

UNIT = REPOSITORY / "packaging" / "mirror" / "zqu-mirror-advance.service"
MONITORING = REPOSITORY / "packaging" / "monitoring"
QUERY = "/api/v1/query"


def advance(own, url, **settings):
    """What a run says with the unit's settings, and these."""
    lines = re.findall("^Environment=(.*)", UNIT.read_text(), re.MULTILINE)
    defaults = dict(word.split("=", 1) for line in lines for word in shlex.split(line))
    site = {"PROMETHEUS": url, "MIRROR": str(own.root), "PATH": f"{BUILD}:{os.environ['PATH']}"}
    words = {"env": {**defaults, **site, **settings}, "capture_output": True, "text": True, "timeout": 60}
    done = subprocess.run([UNIT.with_suffix("")], **words)
    assert (done.returncode, done.stderr) == (0, "")
    return done.stdout


def start_rollout(own, id):
    own.publish_small("1001")
    assert own.publish(id, "--percent", "1")[0] == 0


def answer(*values, kind="vector", status="200 OK", **more):
    result = [{"metric": {"alertname": "A"}, "value": [1795347885.1, value]} for value in values]
    text = json.dumps({"status": "success", "data": {"resultType": kind, "result": result}, **more})
    return reply(text.encode(), status)


def raw(text):
    return reply(text.encode())


# What Prometheus answers when it is asked for gateways and for alarms, and what the line says then.
DOUBTFUL = {
    "no answer": ([b""], "no answer from"),
    "error and a result": ([answer("3", status="500 Error")], "no answer from"),
    "refused": ([answer("3", status="400 Bad Request", error="parse\nerror\x1b")], r"parse\\\\nerror\\\\u001b"),
    "redirect": ([reply(b"", "302 Found", "Location: /")], "no complete answer"),
    "empty": ([reply()], "no complete answer"),
    "cut short": ([reply(answer("3")[-60:-20])], "no complete answer"),
    "two answers": ([raw(2 * '{"status":"success","data":{"resultType":"vector","result":[]}}')], "no complete answer"),
    "another status": ([raw('{"status":"error"}')], "no complete answer"),
    "warning": ([answer("3", warnings=["a part only"])], "a part only"),
    "partial": ([answer("3", isPartial=True)], "no complete answer"),
    "scalar": ([answer("3", kind="scalar")], "no complete answer"),
    "no gateway": ([answer()], "no new gateway has had the candidate for 1h"),
    "several": ([answer("3", "3")], "no new gateway"),
    "not a number": ([answer("NaN")], "no new gateway"),
    "too few": ([answer("2")], "2 of 3 new gateways have had the candidate for 1h"),
    "alarm": ([answer("3"), answer("1")], "there are alarms: .*A"),
    "alarm NaN": ([answer("3"), answer("NaN")], "there are alarms"),
    "alarms, no answer": ([answer("3"), b""], "no answer from"),
    "alarms, empty": ([answer("3"), reply()], "no complete answer"),
    "alarms, null": ([answer("3"), raw('{"status":"success","data":{"resultType":"vector"}}')], "no complete answer"),
}


def test_advance_waits_unless_prometheus_vouches_in_full(own):
    start_rollout(own, "1002")
    before = own.seen()
    with ScriptedServer() as server:
        url = f"http://127.0.0.1:{server.port}"
        server.script = {QUERY: lambda: [answers.pop(0), finish]}
        for case, (answers, line) in DOUBTFUL.items():
            assert re.fullmatch(rf"waiting: [ -~]*{line}[ -~]*\n", advance(own, url)), case
        assert own.seen() == before
        answers = [answer("3"), answer()]
        assert advance(own, url).startswith("1002 is the candidate for 10 per cent")


class Fleet:
    """Gateways with the metrics of a real one, but their own ids and ages, and a Prometheus that sees them."""

    def __init__(self, directory, server, text):
        self.directory, self.server, self.text = directory, server, text

    def set(self, name, id, success=1, verdict="ok", checks=True, **ages):
        """The gateway's state from now on, with ages in seconds. Without checks, the time of the last stays."""
        text, now = self.text.replace('version="1001"', f"version={json.dumps(id)}"), time.time()
        text = text if id else re.sub("(?m)^zelquorin_release_info.*", "", text)
        text = re.sub(r"(?m)^(zelquorin_last_check_success) .", rf"\1 {success}", text)
        text = re.sub(r'(?m)^(zelquorin_verdict{verdict="(\w+)"}) .', lambda m: f"{m[1]} {m[2] == verdict:d}", text)
        for what, age in {"observation": 20, "publication": 3605, **ages}.items():
            text = re.sub(rf"(?m)^(zelquorin_{what}_timestamp_seconds) .*", rf"\1 {now - age:.0f}", text)

        def metrics():
            checked = (time.time() if checks else now) - ages.get("last_check", 65)
            made = re.sub(r"(?m)^(zelquorin_last_check_timestamp_seconds) .*", rf"\1 {checked:.0f}", text)
            return [reply(made.encode(), "200 OK", "Content-Type: text/plain")]

        self.server.script[f"/{name}"] = metrics

    def start(self):
        """Prometheus, with the shipped rules and page."""
        with socket.create_server(("127.0.0.1", 0)) as free:
            self.url = f"http://127.0.0.1:{free.getsockname()[1]}"
        server, paths = [f"127.0.0.1:{self.server.port}"], [*self.server.script]
        jobs = [{"targets": server, "labels": {"__metrics_path__": path, "instance": path[1:]}} for path in paths]
        config = {
            "global": {"scrape_interval": "1s", "evaluation_interval": "1s"},
            "rule_files": [f"{MONITORING}/*.rules.yml"],
            "scrape_configs": [{"job_name": "fleet", "static_configs": jobs}],
        }
        (self.directory / "prometheus.json").write_text(json.dumps(config))  # JSON is YAML
        words = ["prometheus", "--config.file=prometheus.json", f"--web.console.templates={MONITORING}"]
        words += ["--storage.tsdb.path=data", f"--web.listen-address={self.url.removeprefix('http://')}"]
        log = open(self.directory / "prometheus.log", "w")
        self.process = subprocess.Popen([*WITH_US, *words], cwd=self.directory, stderr=log)
        wait_for(lambda: self.ask("up == 1", expected=len(paths)), self.process)

    def ask(self, query, expected):
        """Whether Prometheus answers with so many samples."""
        words = ["curl", "-sf", "--data-urlencode", f"query={query}", self.url + QUERY]
        done = subprocess.run(words, capture_output=True, text=True)
        return done.returncode == 0 and len(json.loads(done.stdout)["data"]["result"]) == expected


@pytest.fixture
def fleet(tmp_path, gateway, mirror):
    mirror.publish("1001")
    gateway.run_once()
    with ScriptedServer() as server:
        made = Fleet(tmp_path, server, Tool("zqu-status")("--config", gateway.config_path, "--prometheus")[1])
        yield made
        made.process.terminate()
        made.process.wait(timeout=30)


NONE = "no new gateway has had the candidate for 6s"
ONE = "1 of 2 new gateways have had the candidate for 6s"


@pytest.mark.long
def test_advance_follows_what_gateways_report_to_prometheus(own, fleet):
    candidate = "2'$&(x)+@"
    start_rollout(own, candidate)
    for number in range(1, 9):
        fleet.set(f"g{number}", "1001")
    fleet.start()

    def expect(line, percent, *before):
        """Runs it until it says this. Before that it says only that it waits, for one of these reasons."""
        for _ in range(100):
            out = advance(own, fleet.url, GATEWAYS="2", TIME="6s")
            if line in out:
                break
            assert out.startswith(tuple(f"waiting: {text}" for text in before)), out
            time.sleep(0.3)
        rollout = json.loads(own.list("--json")[1])["rollout"] or {"percent": None}
        assert line in out and rollout["percent"] == percent

    def stays(line, percent):
        for _ in range(10):
            expect(line, percent)
            time.sleep(1)

    stays(NONE, 1)
    fleet.set("g1", candidate)
    expect(ONE, 1, NONE)
    fleet.set("g2", candidate, success=0)
    fleet.set("g3", candidate, observation=700)  # raises an alarm, too
    fleet.set("g4", candidate, checks=False)
    stays(ONE, 1)
    fleet.set("g4", "1001")
    fleet.set("g2", candidate)
    expect("there are alarms", 1, ONE)
    fleet.set("g3", "1001")
    expect("for 10 per cent", 10, ONE, "there are alarms")
    stays(NONE, 10)  # the two of the stage before do not count
    fleet.set("g4", candidate)
    fleet.set("g5", candidate)
    expect("for 50 per cent", 50, NONE, ONE)
    fleet.set("g6", candidate)
    expect(ONE, 50, NONE)
    for id, count in ((None, 0), (candidate, 1)):  # a break
        fleet.set("g6", id)
        wait_for(lambda: fleet.ask('zelquorin_release_info{instance="g6"}', count))
    expect(NONE, 50)
    fleet.set("g7", candidate)
    expect("made current", None, NONE, ONE)
    expect("no rollout is under way", None)


HOSTILE = r'<img src=x onerror="document.title=1">' + "'&$"
CHROMIUM = """chromium --headless --no-sandbox --disable-gpu --disable-quic --no-first-run --disable-sync
    --disable-background-networking --disable-component-update --hide-scrollbars --window-size=1000,640""".split()


@pytest.mark.long
def test_fleet_page_shows_ids_stage_failures_and_ages(own, fleet):
    """And takes the picture of docs/monitoring.md when ZQU_PICTURE names a file."""
    start_rollout(own, "1002")
    assert run("rollout", own.root, "10")[0] == 0
    metrics = own.check("--prometheus")[1].replace(str(own.root), "/srv/mirror")
    metrics = re.sub(r"(start_timestamp_seconds\S+) .*", rf"\1 {time.time() - 9000:.0f}", metrics)
    fleet.server.script["/mirror"] = [reply(metrics.encode())]
    names = [f"gateway-{number:02}" for number in range(1, 21)]
    for name in names:
        fleet.set(name, "1001", publication=93605)
    fleet.set(names[2], "1002", publication=7205)
    fleet.set(names[3], "1002", publication=5405, success=0, verdict="warning")
    fleet.set(names[11], "999", last_check=190030, success=0, publication=266405, verdict="critical")
    fleet.set(names[15], "1001", last_check=3030, observation=2530, publication=93605)
    fleet.start()
    page = f"{fleet.url}/consoles/zel-quorin-fleet.html"

    def browse(*words):
        words = [*CHROMIUM, f"--user-data-dir={fleet.directory}/chromium", *words, page]
        return subprocess.run(words, capture_output=True, text=True, timeout=120, check=True).stdout

    def rows(table):
        """The texts of a table's rows, with bars between the cells and without seconds, which pass."""
        text = re.search(rf'<table id="{table}">(.*?)</table>', browse("--dump-dom"), re.DOTALL)[1]
        cells = [re.split("</td>", row)[:-1] for row in text.split("</tr>")[1:-1]]
        shown = [" | ".join(html.unescape(re.sub(r"<[^>]*>|\s+", " ", cell)).strip() for cell in row) for row in cells]
        return [re.sub(r" +[0-9.]+s\b|(?<= ) +", "", row).strip() for row in shown]

    picture = os.environ.get("ZQU_PICTURE", fleet.directory / "fleet.png")
    browse(f"--screenshot={picture}")
    assert 20_000 < os.path.getsize(picture) < 100_000
    assert rows("rollouts") == ["/srv/mirror | v2 | 1002 | 10 % | 2h 30m ago | 2 | 1"]
    current = "1001 | v2 | 17 | | 0 | 1d 2h 0m | current"
    candidate = "1002 | v2 | 2 | | 1 | 2h 0m | candidate, 10 %"
    assert rows("releases") == [current, candidate, "999 | v2 | 1 | | 1 | 3d 2h 0m |"]
    to_look_at = [
        "gateway-12 | critical | 999 | 2d 4h 47m ago, failed | 3d 2h 0m",
        "gateway-16 | ok, no news for 42m | 1001 | 50m ago | 1d 2h 0m",
        "gateway-04 | warning | 1002 | 1m ago, failed | 1h 30m",
    ]
    assert rows("gateways") == to_look_at
    fleet.set(names[11], HOSTILE, publication=266405)
    del fleet.server.script["/gateway-16"]
    wait_for(lambda: fleet.ask('zelquorin_release_info{version=~"<.*"} or up == 0', 2))
    assert rows("releases") == [current.replace("17", "16"), candidate, f"{HOSTILE} | v2 | 1 | | 0 | 3d 2h 0m |"]
    assert rows("gateways") == ["gateway-16 | no metrics | 1001 | 50m ago | -", to_look_at[2]]
    assert "<title>Antivirus definitions of the fleet</title>" in browse("--dump-dom")

"""A site built from docs/mirrors.md alone, with the packages: every command and configuration is taken from there."""

import json
import re
import ssl
from functools import partial
from http.client import HTTPSConnection
from pathlib import Path

import pytest
from administrator import DESK, Administrator
from booted_gateway import CONFIG, ROOT, UNIT
from cryptography.hazmat.primitives.serialization import load_pem_private_key
from mirror_tool import DAY, SUBDIR
from pages import blocks, scripts, section
from release import HIT, definition_names, definitions, hit_ini, info_name, sha256
from signing import SigningKey

PAGE = "mirrors.md"
NGINX, SYNC, TIMER = "nginx.service", "zqu-mirror-sync.service", "zqu-mirror-sync.timer"
UPSTREAM, RELEASES = "https://definitions.zelgw.example", "/srv/releases"
NOTHING_REMOVED = "removed in all: releases 0, leftovers 0, bytes 0"
ADDRESSES = [f"127.0.0.{number}" for number in range(2, 62)]  # of gateways; the booted one always has the first


class Site(Administrator):
    """A publisher, the mirror that copies its releases, and a gateway, all on one machine."""

    def __init__(self, gateway, packages):
        super().__init__(gateway, packages)
        gateway.run("sh", "-c", "echo 127.0.0.1 mirror.example >>/etc/hosts")
        self.do("Packages, user and directory")
        self.do("Signed releases")
        self.publish("1004")
        self.do("Certificate")
        edits = "sed -i 's/192.0.2.7 first;/127.0.0.1 first;/' /etc/nginx/conf.d/zqu-split.conf\n"
        if not Path("/proc/net/if_inet6").exists():
            edits += "sed -i '/listen .::/d' /etc/nginx/sites-enabled/mirror\n"
        self.do("Web server", **{"nginx -t": f"{edits}nginx -t"})
        self.do("The first release and the timer", **{UPSTREAM: f"file://{RELEASES}"})
        assert gateway.state(TIMER) == "active"
        gateway.run("systemctl", "stop", TIMER)  # the test is the clock
        self.do("Gateways")

    def do(self, heading, number=0, **changes):
        """Runs a block below a heading, the first one by default, changed for this machine; returns the output."""
        script = scripts(PAGE, heading)[number]
        for before, after in changes.items():
            assert before in script
            script = script.replace(before, after)
        return self.sh(script)

    def publish(self, id, root=RELEASES, key="--sign release-key.pem", files=None):
        """The publisher's command on the page, for this release."""
        for name, content in zip(("antivir.def", "aivsecon.def"), (files or definitions(id)).values()):
            self.gateway.put(f"{DESK}/{name}", content)
        command = scripts(PAGE, "Signed releases")[1]
        changes = {"--sign release-key.pem": key, "1004": id, RELEASES: root}
        self.sh(re.sub("|".join(changes), lambda found: changes[found[0]], command))

    def sync(self):
        """What the timer starts: its exit status, and the lines that it logged; the last one is that of prune."""
        gateway = self.gateway
        gateway.run("systemctl", "reset-failed", SYNC, check=False)  # or systemd refuses the sixth start in ten seconds
        log = ["journalctl", "--quiet", "--output", "cat", "--identifier", "zqu-mirror"]
        before = len(gateway.out(*log).splitlines())
        code = gateway.run("systemctl", "start", SYNC, check=False).returncode
        said = []

        def complete():  # the log daemon may be behind, and not know any more which run wrote a line
            said[:] = gateway.out(*log).splitlines()[before:]
            return bool(said) and (code > 0 or said[-1].startswith("removed in all"))

        gateway.wait_for(complete)
        return code, *said

    def expect(self, id):
        """The gateway's next check succeeds, and brings this release."""
        self.gateway.check()
        status = json.loads(self.gateway.status_text())
        assert (status["active_version"], status["last_error"], self.gateway.in_service()) == (id, "", id)

    def named(self):
        """The releases that gateways are given, by their addresses."""
        context = ssl.create_default_context(cadata=self.gateway.path("/etc/ssl/fleet-ca.pem").read_text())
        context.check_hostname = False

        def ask(address):
            connection = HTTPSConnection("127.0.0.1", context=context, timeout=30, source_address=(address, 0))
            connection.request("GET", f"/{SUBDIR}/{HIT}")
            return connection.getresponse().read().split()[-1].decode()

        return self.gateway.in_network(lambda: {address: ask(address) for address in ADDRESSES})


@pytest.fixture(scope="module")
def site(bare_gateway, packages):
    return Site(bare_gateway, packages)


def roll_out(site, id, former):
    """The candidate, in the four steps; a newer release waits meanwhile."""
    code, waits, removed = site.sync()
    assert (code, removed) == (0, NOTHING_REMOVED)
    assert waits.startswith(f"waits: {id} is the candidate for 1 per cent")
    seen = [set()]
    for line in scripts(PAGE, "Staged rollout")[1].splitlines():
        assert id in site.sh(line)
        named = site.named()
        seen.append({address for address in named if named[address] == id})
        assert seen[-2] <= seen[-1] and set(named.values()) <= {id, former}
    assert len(seen[1]) < len(seen[2]) < len(seen[3]) < len(seen[4]) == len(ADDRESSES)


def test_site_of_the_page_rolls_out_withdraws_and_is_watched(site):
    site.expect("1004")
    site.do("Staged rollout")
    site.publish("1005")
    site.sync()
    site.expect("1005")
    site.publish("1006")
    roll_out(site, "1005", "1004")
    site.sync()
    site.expect("1006")
    assert "1005 is current for all" in site.do("Staged rollout", 2)
    site.expect("1005")
    assert site.sync()[1].startswith("1006 is held")
    again = site.do("Staged rollout", 3, **{UPSTREAM: f"file://{RELEASES}"})
    assert "the candidate for 1 per cent again 1006" in again
    site.do("Staged rollout", 2)
    site.expect("1005")
    far, near = scripts(PAGE, "Monitoring")[0].splitlines()
    for line in (far, near):
        assert site.sh(line).startswith("MIRROR OK - 1005 is current and sound")
    site.sh("mkdir -p /var/lib/prometheus/node-exporter")
    site.do("Monitoring", 1)
    metrics = site.sh("cat /var/lib/prometheus/node-exporter/mirror.prom")
    assert re.search(r'^zelquorin_mirror_verdict{.*verdict="ok"} 1$', metrics, re.MULTILINE)
    site.publish("1007")
    assert site.sync()[0] == 0
    site.sh("touch -d '2 days ago' /srv/mirror/*/*/*/*.ini.1")
    assert site.sh(f"{near} || :").startswith("MIRROR WARNING - the rollout of 1007 began 2 d ago")
    site.sh("zqu-mirror rollout /srv/mirror 100")
    carry, take = scripts(PAGE, "A site without a network")[0].splitlines()
    site.sh(carry)
    site.gateway.run("systemctl", "stop", NGINX)
    assert site.sh(f"{far} || :").startswith("MIRROR CRITICAL")
    assert site.sh(take.replace("/srv/mirror", "/srv/behind")).startswith("mirrored 1007")
    medium = re.search(r"`(mirror_base_url = file:\S+)`", section(PAGE, "A site without a network"))[1]
    text = site.gateway.path(CONFIG).read_text()
    site.gateway.put(CONFIG, text.replace("mirror_base_url = https://mirror.example", medium))
    site.expect("1007")
    site.sh(scripts(PAGE, "Automatic advance")[0].partition("\n")[2])  # without apt-get: there is no network
    settings = site.gateway.show("zqu-mirror-advance.service", "Environment")
    assert "PROMETHEUS=http://prometheus.example:9090 " in settings and "firing" in settings


# ---- A gateway that verifies for itself ----


class Attacked:
    """The page's gateway that verifies, and the upstream mirror, which is the attacker's now."""

    def __init__(self, site, directory):
        self.site, self.gateway = site, site.gateway
        self.root = "/srv/upstream"
        self.directory = self.gateway.path(f"{self.root}/{SUBDIR}")
        self.key = SigningKey(directory)
        self.key.key = load_pem_private_key(self.gateway.path(f"{DESK}/release-key.pem").read_bytes(), None)
        moved = f"mv /srv/mirror {self.root}; chown -R root: {self.root}; systemctl restart nginx"
        site.sh(f"sed -i s,/srv/mirror,{self.root}, /etc/nginx/sites-enabled/mirror; {moved}")
        site.sh(scripts(PAGE, "Packages, user and directory")[0].splitlines()[-1])

    def path(self, name):
        return self.directory / name

    def write(self, name, content):
        self.path(name).write_bytes(content)

    def publish(self, id, key="--sign release-key.pem", files=None, **signed):
        """Offers a release, if need be signed again with these values."""
        self.site.publish(id, self.root, key, files)
        if signed:
            self.key.sign_info(self, id, **signed)

    def alarm(self):
        """The exit status and the line of the page's alarm."""
        (line,) = [block for block in blocks(PAGE, "A gateway that verifies for itself") if "check_local" in block]
        done = self.gateway.run(*line.split("]=")[1].split(), check=False)
        return done.returncode, done.stdout


# What the upstream does, and why that is refused; the release in service was signed three days ago.
ATTACKS = {
    "forged": (lambda upstream: upstream.publish("2002", ""), "has no signature of zqu-mirror publish --sign"),
    "held back": (lambda upstream: upstream.write(HIT, hit_ini("2001")), "was published 3 d ago, longer than 2 d"),
    "replayed": (lambda upstream: upstream.publish("2000", age_s=4 * DAY), "was published 4 d ago, longer than 2 d"),
    "away": (lambda upstream: upstream.path(HIT).unlink(), "HTTP response code said error: 404"),
}


@pytest.fixture(scope="module")
def upstream(site, tmp_path_factory):
    """What the page's gateway that verifies copies; its release was signed three days ago."""
    made = Attacked(site, tmp_path_factory.mktemp("keys"))
    made.publish("2001", age_s=3 * DAY)
    site.gateway.run("systemctl", "disable", UNIT)
    site.do("A gateway that verifies for itself", **{"--max-age 2d": "--max-age 4d"})
    return made


def test_gateway_of_the_page_stays_whole_under_attack_and_alarms(site, upstream):
    assert site.gateway.out("systemctl", "is-enabled", UNIT).strip() == "enabled"
    site.expect("2001")
    site.sh(f"sed -i s/4d/2d/ /etc/systemd/system/{SYNC}.d/site.conf; systemctl daemon-reload")
    for name, (attack, reason) in ATTACKS.items():
        attack(upstream)
        code, said = site.sync()
        assert (code, said.endswith(reason)) == (1, True), (name, said)
        site.expect("2001")
        assert upstream.alarm()[0] == 2, name
    assert upstream.alarm()[1].startswith("MIRROR CRITICAL - antivir-v2-c-2001.ini is refused: it was published 3 d")
    for id, age_s in {"2010": 0, "2009": DAY}.items():  # sound again; then an older one that is young enough
        upstream.publish(id, age_s=age_s)
        assert site.sync()[0] == 0
        site.expect(id)
        assert upstream.alarm()[0] == 0


# ---- A gateway that downloads deltas ----

SIGN = "--sign release-key.pem"


def changing(id):
    """The definitions of a release; from 3001 on, each has one per cent of new lines."""
    number = int(id) - 3000

    def lines(name):
        return [sha256(f"{name} {i} {i % 100 if i % 100 <= number else 0}".encode()) for i in range(1500)]

    return {name: "\n".join([f"{name} of {id}", *lines(name), ""]).encode() for name in definition_names()}


def offer(upstream, id, key=SIGN):
    upstream.publish(id, key, changing(id))
    return list(upstream.directory.glob(f"antivir-v2-c-{id}.*.delta"))


def damage(upstream, id):
    for path in offer(upstream, id):
        data = bytearray(path.read_bytes())
        data[len(data) // 2] ^= 1
        path.write_bytes(data)


def lose(upstream, id):
    for path in offer(upstream, id):
        path.unlink()


def withdraw(upstream, id):
    """Offers it to the first gateways; those that verify for themselves must not take it."""
    offer(upstream, id, f"{SIGN} --percent 10")
    assert upstream.site.sync() == (0, "nothing new: 3005 is current", NOTHING_REMOVED)
    upstream.site.sh(f"zqu-mirror rollout {upstream.root} withdraw")


def forge(upstream, id):
    """Has the INI give another digest for each delta."""
    offer(upstream, id)
    upstream.true = upstream.path(info_name(id)).read_bytes()
    upstream.write(info_name(id), re.sub(rb"(delta\.\d+ = .*)...", rb"\1bad", upstream.true))


def end_forgery(upstream, id):
    upstream.write(info_name(id), upstream.true)


def go_back(upstream, id):
    upstream.site.sh(f"zqu-mirror activate {upstream.root} {id}")


# What the upstream does with a release; the gateway's requests besides those for the INIs, with their statuses; how its
# warning or refusal ends; and what is in service then.
STEPS = [
    (offer, "3001", ["cab 200"], "the upstream mirror has none", "3001"),
    (offer, "3002", ["delta 200"], "", "3002"),
    (damage, "3003", ["delta 200", "cab 200"], "does not have the size and the digest that its INI gives", "3003"),
    (offer, "3004", ["delta 200"], "", "3004"),
    (lose, "3005", ["delta 404", "cab 200"], "HTTP response code said error: 404", "3005"),
    (withdraw, "3006", [], "", "3005"),
    (forge, "3007", [], "it is signed by none of the trusted keys, or was changed", "3005"),
    (end_forgery, "3007", ["delta 200"], "", "3007"),
    (partial(offer, key=""), "3008", [], "it has no signature of zqu-mirror publish --sign", "3007"),
    (offer, "3009", ["delta 200"], "", "3009"),
    (offer, "3010", ["delta 200"], "", "3010"),
    (go_back, "3009", [], "", "3009"),
]


def test_gateway_of_the_page_follows_ten_releases_by_deltas(site, upstream):
    log = site.gateway.path("/var/log/nginx/access.log")
    sent = {"ini": [], "delta": [], "cab": []}
    for act, id, requests, reason, serves in STEPS:
        act(upstream, id)
        seen = len(log.read_text().splitlines())
        code, *said = site.sync()
        assert code == bool(reason and not requests)
        reasons = said if code else said[1:-1]
        assert [line.endswith(reason) for line in reasons] == [True] * bool(reason), said
        asked = ["ini 200", "ini 200", *requests]
        site.gateway.wait_for(lambda: len(log.read_text().splitlines()) >= seen + len(asked))
        found = re.findall(r'"GET \S+\.(\w+) HTTP/1.1" (\d+) (\d+) ', "\n".join(log.read_text().splitlines()[seen:]))
        assert [f"{end} {status}" for end, status, _ in found] == asked
        for end, _, size in found:
            sent[end].append(int(size))
        site.expect(serves)
        for name, content in changing(serves).items():
            assert site.gateway.path(f"{ROOT}/active/{name}").read_bytes() == content
    assert max(sent["delta"]) * 40 < min(sent["cab"])
    assert sum(map(sum, sent.values())) < 3.3 * max(sent["cab"])  # ten releases, of which three by the archive

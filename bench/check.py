"""A check that finds nothing new: against curl, its bytes, and what later checks of the loop save."""

import collections
import pathlib
import re
import subprocess
import threading
import time

import callgrind
import gateways
import trustme
from measure import in_turn, ratios, run, spreads, system_share
from mirrors import Nginx
from procfs import difference
from relay import Relay
from text import prose, seconds, table, verdict, with_spread

TITLE = "A check with nothing new"
ROUNDS, LIMIT = 198, 1.15  # a multiple of the six orders of three
SYSTEM = pathlib.Path("/etc/ssl/certs/ca-certificates.crt")

# How mirror and loop may suit each other: s for which nginx keeps an idle connection and a TLS session, s between
# checks, how many of them are looked at, and what else nginx is told.
Pace = collections.namedtuple("Pace", "keepalive session interval checks options", defaults=[""])
PACES = {
    "within both": Pace(60, 300, 1, 4),
    "after the connection": Pace(1, 300, 2, 4),
    "the same, TLS 1.2": Pace(1, 300, 2, 3, "ssl_protocols TLSv1.2;"),
    "the same, with a cache": Pace(1, 300, 2, 3, "ssl_protocols TLSv1.2; ssl_session_cache shared:sessions:1m;"),
    "after both": Pace(1, 1, 4, 4),
    "after libcurl's limit": Pace(600, 600, 121, 2),
}
SMOKE = {"within both": Pace(60, 300, 1, 2), "after the connection": Pace(1, 300, 2, 2)}


class Servers(Nginx):
    """One nginx with a server for each pace, all with one certificate, which logs what became of connections."""

    CERTIFICATES = ("plain", *PACES)
    LOG = "$server_port $connection $ssl_session_reused $status $ssl_protocol"

    def url(self, certificate="plain", host="127.0.0.1"):
        return super().url(certificate, host)

    def _make_certificates(self):
        self.authority = trustme.CA()
        self.authority.cert_pem.write_to_path(self.ca_path)
        leaf = self.authority.issue_cert("localhost", "127.0.0.1")
        for name in self.CERTIFICATES:
            leaf.private_key_and_cert_chain_pem.write_to_path(self.folder / f"{name}.pem")

    def _http_lines(self):
        return "ssl_protocols TLSv1.2 TLSv1.3;"

    def _server_lines(self, name):
        pace = PACES.get(name)
        if not pace:
            return ""
        return f"keepalive_timeout {pace.keepalive}s; ssl_session_timeout {pace.session}s; {pace.options}"

    def lines(self, name, count, since=0):
        """Requests that a server has answered, after the first few: connection, session, status and protocol."""
        for _ in range(3000):  # nginx writes its log after the answer
            lines = [line.split() for line in (self.folder / "access.log").read_text().splitlines()]
            found = [line[1:] for line in lines if line[0] == str(self.ports[name])][since:]
            if len(found) >= count:
                assert len(found) == count and {line[2] for line in found} == {"200"}, found
                return found
            time.sleep(0.01)
        raise AssertionError(f"{name}: {len(found)} requests instead of {count}")

    def answered(self, name):
        text = (self.folder / "access.log").read_text()
        return sum(line.startswith(f"{self.ports[name]} ") for line in text.splitlines())


def against_curl(bench, nginx, rounds):
    """Costs of the daemon, of curl and of bare calls, with the mirror's authority alone and among the system's."""
    bundle = bench.folder / "bundle.pem"
    bundle.write_bytes(SYSTEM.read_bytes() + nginx.ca_path.read_bytes())
    results = {}
    for name, ca_path in (("own", nginx.ca_path), ("system", bundle)):
        other = gateways.Installation(bench, f"ca-{name}", nginx.ports["plain"], ca_path)
        bare = [bench.build / "zqu_floor", ca_path, other.url]
        commands = {"daemon": other.check, "curl": other.curl(ca_path), "bare": bare}
        costs = in_turn({name: lambda c=command: run(c) for name, command in commands.items()}, rounds)
        other.require_success()
        results[name] = {
            "authorities": ca_path.read_text().count("BEGIN CERTIFICATE"),
            "costs": spreads(costs),
            "system": {who: system_share(runs) for who, runs in costs.items()},
            "ratios": {
                base: {field: ratios(costs, "daemon", base, field) for field in ("cpu", "wall")}
                for base in ("curl", "bare")
            },
        }
    return results


def instructions(bench, nginx, gateway):
    """Where the instructions of a check and of curl are in user mode."""
    results = {}
    for name, command in (("daemon", gateway.check), ("curl", gateway.curl(nginx.ca_path))):
        out = bench.folder / f"callgrind.{name}"
        subprocess.run([*callgrind.prefix(out), *command], check=True, stdin=subprocess.DEVNULL)
        gateway.require_success()
        results[name] = callgrind.counts(out)
    return results


def on_the_wire(nginx, relay, gateway):
    """What one check and one curl have pass."""
    results = {}
    for name, command in (("daemon", gateway.check), ("curl", gateway.curl(nginx.ca_path))):
        before, answered = relay.quiet_totals(), nginx.answered("plain")  # the one before may still be ending
        subprocess.run(command, check=True, stdin=subprocess.DEVNULL)
        lines = nginx.lines("plain", 1, since=answered)
        results[name] = {**difference(relay.quiet_totals(), before), "requests": len(lines), "protocol": lines[0][3]}
    return results


def of_the_loop(bench, nginx, name, pace):
    """What each of the first checks of a loop has pass: up to its end, from the end of the one before."""
    with Relay(nginx.ports[name]) as relay:
        gateway = gateways.Installation(bench, re.sub(r"\W+", "-", name), relay.port, nginx.ca_path, pace.interval)
        answered, totals = nginx.answered(name), [{**relay.quiet_totals(), "cpu": 0}]
        with gateways.Loop(gateway) as loop:
            for _ in range(pace.checks):
                cpu = loop.next_check()["cpu"]
                totals.append({**relay.totals(), "cpu": cpu})
    checks = [difference(after, before) for before, after in zip(totals, totals[1:])]
    for check, handshake in zip(checks, handshakes(nginx.lines(name, pace.checks, since=answered))):
        check["handshake"] = handshake
    return {"pace": pace._asdict(), "checks": checks}


def handshakes(lines):
    """What came before each request that a server has answered to one client: none over the connection of the request
    before, or else one that resumed a session, or a full one."""
    for (connection, session, *_), former in zip(lines, [[None], *lines]):
        yield "none" if connection == former[0] else "resumed" if session == "r" else "full"


def loops(bench, nginx, paces):
    """All paces at once: next to nothing happens in them."""
    results = {}

    def watch(name):
        results[name] = of_the_loop(bench, nginx, name, paces[name])

    threads = [threading.Thread(target=watch, args=(name,)) for name in paces]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    return {name: results[name] for name in paces}  # a loop that failed has no result


def measure(bench):
    nginx = gateways.mirror(bench, Servers)
    try:
        with Relay(nginx.ports["plain"]) as relay:
            gateway = gateways.Installation(bench, "relayed", relay.port, nginx.ca_path)
            wire = on_the_wire(nginx, relay, gateway)
            counted = instructions(bench, nginx, gateway)
        return {
            "rounds": (rounds := 3 if bench.smoke else ROUNDS),
            "against_curl": against_curl(bench, nginx, rounds),
            "instructions": counted,
            "wire": wire,
            "loops": loops(bench, nginx, SMOKE if bench.smoke else PACES),
        }
    finally:
        nginx.stop()


TITLES = {"own": "the mirror's authority", "system": "the system's authorities and it"}


def _cost_rows(results):
    for name, of_name in results["against_curl"].items():
        for who, title in (("daemon", "the daemon"), ("curl", "curl"), ("bare", "bare calls")):
            cost = of_name["costs"][who]
            cells = (seconds(cost["cpu"]), f"{of_name['system'][who]:.0%}", seconds(cost["wall"]))
            faults = f"{cost['faults']['median']:,.0f}"
            yield f"{title}, {TITLES[name]}", of_name["authorities"], *cells, faults


def _ratio_rows(results):
    for name, of_name in results["against_curl"].items():
        for base, title in (("curl", "curl"), ("bare", "bare calls")):
            cpu = of_name["ratios"][base]["cpu"]
            wall = with_spread(of_name["ratios"][base]["wall"], 3)
            aim = (LIMIT, verdict(cpu["median"], LIMIT)) if base == "curl" else ("", "")
            yield f"to {title}, {TITLES[name]}", with_spread(cpu, 3), wall, *aim


# What the instructions are told of by themselves, by the beginnings of names; all else is "others".
PLACES = {
    "dynamic linker": ("ld-linux",),
    "libcrypto": ("libcrypto.",),
    "libc": ("libc.",),
    "libssl": ("libssl.",),
    "libcurl": ("libcurl.",),
    "libstdc++": ("libstdc++.",),
    "its own": ("zel_quorin_updater", "curl"),
    "others": ("",),
}


def by_place(counted):
    """The instructions of one command by those places, each counted at the first that fits."""
    found = dict.fromkeys(PLACES, 0)
    for name, count in counted.items():
        found[next(place for place, names in PLACES.items() if name.startswith(names))] += count
    return found


def _instruction_rows(results):
    daemon, curl = (by_place(results["instructions"][who]) for who in ("daemon", "curl"))
    for place, ours, theirs in ((place, daemon[place], curl[place]) for place in PLACES):
        yield place, f"{ours / 1e6:.2f}", f"{theirs / 1e6:.2f}", f"{(ours - theirs) / 1e6:+.2f}"
    ours, theirs = sum(daemon.values()), sum(curl.values())
    yield "all", f"{ours / 1e6:.2f}", f"{theirs / 1e6:.2f}", f"{(ours - theirs) / 1e6:+.2f}"


def _wire_rows(results):
    for who, title in (("daemon", "the daemon"), ("curl", "curl")):
        wire = results["wire"][who]
        yield title, wire["connections"], wire["requests"], f"{wire['sent']:,}", f"{wire['received']:,}"


def _loop_rows(results):
    for name, loop in results["loops"].items():
        pace = loop["pace"]
        for number, check in enumerate(loop["checks"][:3], 1):
            times = f"{pace['interval']} / {pace['keepalive']} / {pace['session']}" if number == 1 else ""
            title = f"{name}, first" if number == 1 else ("second", "third")[number - 2]
            cells = (f"{check['sent']:,}", f"{check['received']:,}", f"{check['cpu'] * 1e3:.1f} ms")
            yield title, times, check["handshake"], *cells


def _difference(results):
    """What the daemon takes beyond curl, of it in the kernel, and what it loads besides."""
    of_name = results["against_curl"]["own"]
    daemon, curl = (
        (
            of_name["costs"][who]["cpu"]["median"] * 1e3,
            of_name["system"][who],
            of_name["costs"][who]["faults"]["median"],
        )
        for who in ("daemon", "curl")
    )
    besides = sorted(set(results["instructions"]["daemon"]) - set(results["instructions"]["curl"]))
    return f"""By medians, with the mirror's authority alone, the daemon takes
        {daemon[0] - curl[0]:+.1f} ms of CPU against `curl`, {daemon[0] * daemon[1] - curl[0] * curl[1]:+.1f} ms of that
        in the kernel, with {daemon[2] - curl[2]:+,.0f} page faults: the kernel maps memory, that of libraries too,
        at its first use. What executes instructions in the daemon and not in `curl`: {", ".join(besides)}. What
        loading libraries costs is under Start-up."""


WORDS = {
    "none": "goes over the connection that is there",
    "resumed": "makes a connection and takes the TLS session up again",
    "full": "makes a connection and a full handshake",
}


def _later(results, name):
    """What handshakes the second check of a pace and all later ones made."""
    return {check["handshake"] for check in results["loops"][name]["checks"][1:]}


def _sentences(results):
    """What happens to the second check and all later ones, in words."""
    for name in results["loops"]:
        yield f"- {name}: a later check {' or '.join(WORDS[kind] for kind in sorted(_later(results, name)))}"


def _advice(results):
    """What to have a mirror set, as far as the loops show that it helps."""
    yield """With the defaults of both, checks at least 900 s apart, each comes after both limits. With
        `ssl_session_timeout 1h;` at the mirror it comes after the connection only."""
    plain, cached = ("the same, TLS 1.2", "the same, with a cache")
    if cached in results["loops"] and (_later(results, plain), _later(results, cached)) == ({"full"}, {"resumed"}):
        yield """With TLS 1.2 nginx has to remember sessions itself for that, by
            `ssl_session_cache shared:sessions:10m;`: libcurl asks for no session tickets there."""


def render(results, plots):
    wire = results["wire"]["daemon"]
    checks = [wire, *(check for loop in results["loops"].values() for check in loop["checks"])]
    connections = max(check["connections"] for check in checks)
    head = ("Interval", "s: itself / connection / session", "handshake", "sent", "received", "CPU")
    sentences = ";\n".join(_sentences(results)) + "."
    told = f"""`--once` while the mirror's release is in service, against `curl --fail --silent --cacert FILE
        -o FILE URL` for the hit INI that it looks at: {results["rounds"]} rounds, from nginx over TLS on loopback. The
        second file of authorities is Debian's, which libcurl takes when `ca_path` is empty, with the mirror's
        added."""
    costs = ("Check", "authorities", "CPU", "of it system", "wall", "page faults")
    return f"""\
{prose(told)}

{table(costs, *_cost_rows(results))}
{table(("The daemon", "CPU", "wall", "CPU at most", ""), *_ratio_rows(results))}
"Bare calls" is `bench/floor.cpp` again, here just one transfer by libcurl, linked with the daemon's libraries.

{prose(_difference(results))}

Instructions in user mode, in millions, as callgrind counts them with the mirror's authority alone, in one run of each:

{table(("Instructions", "the daemon", "curl", "difference"), *_instruction_rows(results))}
### On the wire

Content of TCP in bytes, without its headers, counted by a relay in between ({wire["protocol"]}):

{table(("One check", "connections", "requests", "sent", "received"), *_wire_rows(results))}
Connections of one check at most: {connections}; aimed at was one, {verdict(connections, 1)}.

### Later checks of the loop

The daemon keeps libcurl's handle, with its connection and its TLS session, from check to check. Both have their limits:
nginx closes an idle connection after `keepalive_timeout` (75 s unless set) and refuses a session after
`ssl_session_timeout` (5 min unless set), libcurl takes no connection that was idle for more than 118 s
(CURLOPT_MAXAGE_CONN(3)). Each row counts from the end of the check before; the first has the start of the daemon in it.

{table(head, *_loop_rows(results))}
{sentences}

{prose(" ".join(_advice(results)))}
"""

"""A check that finds nothing new, compared with curl and with the bare calls: costs, instructions and bytes."""

import pathlib

from measure import contest, difference, instructions, run
from report import aims, costs, table
from relay import Relay
from sites import BenchGateway, server

ROUNDS, LIMIT = 198, 1.15  # a multiple of the six orders of three
SYSTEM = pathlib.Path("/etc/ssl/certs/ca-certificates.crt")
TITLES = {"daemon": "the daemon", "curl": "curl", "bare": "bare calls"}
AUTHORITIES = {"own": "the mirror's authority", "system": "the system's too"}


def measure(bench):
    results = {}
    with server(bench) as nginx:
        bundle = bench.directory / "bundle.pem"
        bundle.write_bytes(SYSTEM.read_bytes() + nginx.ca_path.read_bytes())
        for name, ca_path in (("own", nginx.ca_path), ("system", bundle)):
            site = BenchGateway(bench, name, nginx, ca_path=ca_path)
            bare = [bench.build / "zqu_floor", ca_path, site.url]
            commands = {"daemon": site.check, "curl": site.curl, "bare": bare}
            results[name] = contest(commands, 3 if bench.smoke else ROUNDS)
            results[name]["authorities"] = ca_path.read_text().count("BEGIN CERTIFICATE")
            site.expect_status("1001")
        with Relay(nginx.ports["good"]) as relay:
            site = BenchGateway(bench, "relayed", nginx, port=relay.port)
            commands = {"daemon": site.check, "curl": site.curl}
            results["wire"] = {}
            for name, command in commands.items():
                before, answered = relay.totals(), len(nginx.requests("good"))
                run(command)
                requests = len(nginx.requests("good", answered + 1)) - answered
                results["wire"][name] = {**difference(relay.totals(), before), "requests": requests}
            results["instructions"] = {
                name: instructions(bench, lambda prefix, command=command: run([*prefix, *command]))
                for name, command in commands.items()
            }
    return results


# Beginnings of names; each library counts at the first that fits.
PLACES = {
    "dynamic linker": ("ld-linux",),
    **{name: (f"{name}.",) for name in ("libcrypto", "libc", "libssl", "libcurl", "libstdc++")},
    "its own": ("zel_quorin_updater", "curl"),
    "others": ("",),
}


def by_place(counts):
    found = dict.fromkeys(PLACES, 0)
    for name, count in counts.items():
        found[next(place for place, names in PLACES.items() if name.startswith(names))] += count
    return {**found, "all": sum(counts.values())}


def figures(results, pages):
    contests = {f"{results[name]['authorities']} authorities, ": (results[name], TITLES) for name in ("own", "system")}
    columns = {"cpu": "the daemon's CPU to it", "wall": "wall"}
    limits = (
        (f"CPU to curl, {title}", results[name]["ratios"]["daemon to curl"]["cpu"], LIMIT)
        for name, title in AUTHORITIES.items()
    )
    daemon, curl = (by_place(results["instructions"][name]) for name in ("daemon", "curl"))
    places = (
        (name, *(f"{count / 1e6:{form}}" for count, form in zip((ours, theirs, ours - theirs), (".2f", ".2f", "+.2f"))))
        for name, ours, theirs in ((name, daemon[name], curl[name]) for name in daemon)
    )
    wire = results["wire"]
    keys = ("connections", "requests", "sent", "received")
    rows = ((TITLES[name], *(f"{counts[key]:,}" for key in keys)) for name, counts in wire.items())
    connections = ("connections of one check", wire["daemon"]["connections"], 1, "")
    return {
        "costs": costs("Check", contests, "daemon to {}", columns),
        "aims": aims([*limits, connections]),
        "instructions": table(("Instructions, millions", "the daemon", "curl", "difference"), places),
        "wire": table(("One check", *keys), rows),
    }

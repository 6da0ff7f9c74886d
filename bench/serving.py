"""What checks and archives cost the mirror: the processor's time of an nginx."""

import re
import subprocess

from measure import difference, run, spread
from report import seconds, table
from sites import SUBDIR, server

RUNS, SECONDS = 5, 2  # of connections, one after the other
BULK, TIMES = 100_000_000, 10  # bytes, and how often they are fetched
KINDS = {
    "full": ("-new", "ssl_session_cache off; ssl_session_tickets off;"),
    "resumed": ("-reuse", "ssl_session_cache shared:sessions:10m; ssl_session_timeout 1h;"),
}


def checks(bench, nginx, kind):
    """The seconds that nginx takes for each request of a hit INI after a handshake of that kind."""
    used, requests = nginx.usage()["cpu"], len(nginx.requests(kind))
    path = f"/mirror/{SUBDIR}/antivir-v2-hit.ini"
    options = ["-time", "1" if bench.smoke else f"{SECONDS}", "-CAfile", nginx.ca_path, KINDS[kind][0]]
    run(["openssl", "s_time", "-connect", f"127.0.0.1:{nginx.ports[kind]}", "-www", path, *options])
    made = nginx.requests(kind, since=requests)
    others = sum((request[1] == "r") != (kind == "resumed") for request in made)
    assert len(made) > 50 and others <= 1, f"{others} of {len(made)} handshakes are not {kind}"
    return (nginx.usage()["cpu"] - used) / len(made)


def bulk(bench, nginx):
    """The seconds that nginx takes for a GB of archives: a file of zeros is enciphered like any other."""
    size, times = (1_000_000, 2) if bench.smoke else (BULK, TIMES)
    (nginx.root / "bulk").write_bytes(bytes(size))
    command = ["curl", "--silent", "--fail", "--cacert", nginx.ca_path, "--output", "/dev/null"]
    used = nginx.usage()
    run([*command, f"{nginx.url()}/bulk?[1-{times}]"])
    return difference(nginx.usage(), used)["cpu"] * 1e9 / (size * times)


def key(nginx):
    command = ["openssl", "x509", "-in", nginx.directory / "good.pem", "-noout", "-text"]
    text = subprocess.run(command, capture_output=True, text=True, check=True).stdout
    return ", ".join(re.search(r"Public Key Algorithm: (\S+)\s+Public-Key: \((.*)\)", text).groups())


def measure(bench):
    runs = 1 if bench.smoke else RUNS
    with server(bench, **{kind: f"keepalive_timeout 0; {lines}" for kind, (_, lines) in KINDS.items()}) as nginx:
        return {
            "key": key(nginx),
            **{kind: spread([checks(bench, nginx, kind) for _ in range(runs)]) for kind in KINDS},
            "bulk": spread([bulk(bench, nginx) for _ in range(runs)]),
        }


def figures(results, pages):
    rows = (
        ("a check with a full handshake", seconds(results["full"])),
        ("a check with a resumed session", seconds(results["resumed"])),
        ("a GB of archives", seconds(results["bulk"])),
    )
    return {"costs": table((f"nginx, key: {results['key']}", "CPU"), rows)}

"""Hundreds of real daemons against one nginx over TLS, through releases and through the mirror's death."""

import collections
import json
import os
import pathlib
import random
import statistics
import subprocess
import time

import fleet_sizing
import procfs
from cryptography import x509
from gateway import Gateway
from mirrors import Mirror, Nginx
from packets import PacketCounter
from release import definition_names, index_of
from text import prose, table

TITLE = "A real fleet"
DAEMON_KIB = 20 * 1024  # to be on the safe side
MOST = 400
LOG_FIELDS = ("time", "connection", "reused", "status", "bytes", "path")
Request = collections.namedtuple("Request", LOG_FIELDS)


class FleetNginx(Nginx):
    """An nginx that soon closes connections, as it would long before a gateway comes back in 15 minutes."""

    CERTIFICATES = ("good",)
    EVENTS = "worker_connections 4096;"
    LOG = "$msec $connection $ssl_session_reused $status $bytes_sent $uri"
    resumes = True

    def __init__(self, folder, keepalive):
        self.keepalive = keepalive
        (folder / "access.log").touch()  # nginx makes it a little later
        super().__init__(folder)

    def _http_lines(self):
        cache = "ssl_session_cache shared:fleet:10m; ssl_session_timeout 1h;"
        sessions = cache if self.resumes else "ssl_session_cache off; ssl_session_tickets off;"
        return f"keepalive_timeout {self.keepalive}; ssl_protocols TLSv1.2 TLSv1.3; {sessions}"

    def _server_lines(self, _name):
        return ""

    def restart(self, resumes):
        self.stop()
        self.resumes = resumes
        self._write_configuration()
        self.start()

    def die(self):
        """Ends at once, with whatever it is sending."""
        for pid in (self.process.pid, *self._workers()):
            os.kill(int(pid), 9)
        self.process.wait()

    def cpu_s(self):
        return cpu_s((self.process.pid, *self._workers()))

    def key(self):
        """The kind and the length of its key."""
        key = x509.load_pem_x509_certificate(self.leaves["good"].cert_chain_pems[0].bytes()).public_key()
        return f"{type(key).__name__.strip('_').removesuffix('PublicKey')}, {key.key_size} bits"


def cpu_s(pids):
    return sum(procfs.usage(pid)["cpu"] for pid in pids)


def memory_kib(pid):
    """Resident and proportional size."""
    lines = pathlib.Path(f"/proc/{pid}/smaps_rollup").read_text().splitlines()
    fields = {line.split()[0]: int(line.split()[1]) for line in lines[1:]}
    return fields["Rss:"], fields["Pss:"]


class AtomicMirror(Mirror):
    """Puts its files into place by rename(2), as zqu-mirror does: hundreds of daemons do meet a file half written."""

    def write(self, name, content):
        super().write(f".{name}", content)
        self.path(f".{name}").rename(self.path(name))


class Fleet:
    """The daemons, each with a folder of its own; the path that it asks for tells which one it is."""

    def __init__(self, bench, poll):
        self.bench = bench
        self.nginx = FleetNginx(bench.folder, "500ms" if bench.smoke else "1s")
        self.mirror = AtomicMirror(self.nginx.root, "defs")
        self.size = 5_000 if bench.smoke else 500_000  # of a release, which does not compress
        self.poll = poll
        available = next(line for line in open("/proc/meminfo") if line.startswith("MemAvailable"))
        count = 6 if bench.smoke else min(MOST, int(available.split()[1]) // 2 // DAEMON_KIB)
        self.gateways = [self._gateway(number) for number in range(count)]
        self.read = 0
        self.seen = []
        self.down = []  # from when to when nginx was
        self.published = 0.0
        self.entries = []
        self.version = ""

    def _gateway(self, number):
        folder = self.bench.folder / f"gateway-{number}"
        folder.mkdir()
        (self.nginx.root / f"{number}").symlink_to("defs")
        return Gateway(
            folder,
            mirror_base_url=self.nginx.url(),
            mirror_subdir=number,
            ca_path=self.nginx.ca_path,
            poll_interval_s=self.poll[0],
            poll_jitter_s=self.poll[1],
        )

    def publish(self, version):
        source = random.Random(version)
        first, second = definition_names()
        files = [(first, source.randbytes(self.size * 3 // 4)), (second, source.randbytes(self.size // 4))]
        self.entries, self.version = files, version
        self.published = time.time()  # a little early: packing comes first
        self.mirror.publish(version, [*files, index_of(files)])
        self.published = (self.mirror.folder / "antivir-v2-hit.ini").stat().st_mtime

    def start(self):
        for gateway in self.gateways:
            gateway.start()

    def restart_nginx(self, resumes):
        died = time.time()
        self.nginx.restart(resumes)
        self.down.append((died, time.time()))

    def end(self):
        for gateway in self.gateways:
            gateway.end_all()
        if self.nginx.process.poll() is None:
            self.nginx.stop()

    def pids(self):
        return [gateway.daemons[0].pid for gateway in self.gateways]

    def updated(self):
        """When each daemon that has the current release put it into service, in seconds after its publication."""
        links = [gateway.root / "active" for gateway in self.gateways]
        current = f"snapshots/{self.version}"
        here = [link for link in links if link.is_symlink() and os.readlink(link) == current]
        return sorted(link.lstat().st_mtime - self.published for link in here)

    def wait_for(self, share):
        """Waits until that share has the release."""
        deadline = time.monotonic() + 90
        while len(self.updated()) < share * len(self.gateways):
            assert time.monotonic() < deadline, f"{len(self.updated())} of {len(self.gateways)} have {self.version}"
            time.sleep(0.1)

    def requests(self):
        """What nginx has logged since the last call."""
        with open(self.nginx.folder / "access.log") as log:
            log.seek(self.read)
            lines = log.readlines()
            self.read = log.tell()
        words = (line.split() for line in lines)
        new = [Request(float(w[0]), w[1], w[2] == "r", w[3], int(w[4]), w[5]) for w in words]
        self.seen += new
        return new

    def wait_until_whole(self):
        """Waits until all have just the two files of the current release in service, to the byte, and say so."""
        deadline = time.monotonic() + 90
        while lost := [gateway.folder.name for gateway in self.gateways if not self._is_whole(gateway)]:
            assert time.monotonic() < deadline, f"{lost} have not {self.version}"
            time.sleep(0.1)
        return len(self.gateways)

    def _is_whole(self, gateway):
        status = gateway.status()
        said = (status["active_version"], status["last_error"]) == (self.version, "")
        return said and gateway.active_files() == dict(self.entries)

    def log_lines(self):
        """How often each kind of error was logged, over all daemons."""
        lines = (line for gateway in self.gateways for line in gateway.log_path.read_text().splitlines())
        errors = (line for line in lines if line.startswith(("err", "warning")))
        kinds = ((line.split(" http")[0], line.rsplit(": ", 1)[-1]) for line in errors)
        return {f"{kind}: {reason}": count for (kind, reason), count in collections.Counter(kinds).items()}


def summary(requests, seconds):
    """What nginx did in so many seconds: by its log, whose times are those of the ends of answers."""
    first = {}
    for request in requests:
        first.setdefault(request.connection, request)
    per_second = collections.Counter(int(request.time) for request in requests)
    return {
        "seconds": seconds,
        "requests": len(requests),
        "checks": sum(request.path.endswith("-hit.ini") for request in requests),
        "archives": sum(request.path.endswith(".cab") and request.status == "200" for request in requests),
        "full": sum(not request.reused for request in first.values()),
        "resumed": sum(request.reused for request in first.values()),
        "bytes": sum(request.bytes for request in requests),
        "peak": max(per_second.values(), default=0),
    }


class Phase:
    """Sums up what happens while it lasts, with the packets if they are asked for and may be counted."""

    def __init__(self, fleet, results, name, counts_packets=False):
        self.fleet, self.results, self.name = fleet, results, name
        self.counts_packets, self.packets = counts_packets, None

    def __enter__(self):
        self.fleet.requests()
        self.nginx = self.fleet.nginx.cpu_s()
        self.daemons = cpu_s(self.fleet.pids()) if self.fleet.gateways[0].daemons else 0
        self.begin = time.time()
        if self.counts_packets:
            self.packets = packet_counter(self.fleet.nginx.ports["good"])
        return self

    def __exit__(self, kind, _value, _trace):
        packets = self.packets and self.packets.end()
        if kind is not None:
            return
        seconds = time.time() - self.begin
        self.results[self.name] = {
            "begin": self.begin,
            "daemons_cpu_s": cpu_s(self.fleet.pids()) - self.daemons,
            "nginx_cpu_s": self.fleet.nginx.cpu_s() - self.nginx,
            **({"packets": packets} if packets else {}),
            **summary(self.fleet.requests(), seconds),
        }


def packet_counter(port):
    """None for who may not count."""
    try:
        return PacketCounter(port)
    except PermissionError:
        return None


def waits_of_checks(fleet):
    """Of each check that found nothing new, the process id, the time of its answer, and the time until the next's,
    unless the mirror was down in between and may have missed one."""
    checks = collections.defaultdict(list)
    for request in fleet.seen:
        checks[request.path.split("/")[1]].append((request.time, request.path))
    for number, pid in enumerate(fleet.pids()):
        for (begin, path), (end, next_path) in zip(checks[f"{number}"], checks[f"{number}"][1:]):
            missed = any(begin < back and died < end for died, back in fleet.down)
            if path.endswith("-hit.ini") and next_path.endswith("-hit.ini") and not missed:
                yield pid, begin, end - begin


def measure_waits(fleet):
    """Each wait, by nginx's log, against the simulator's for process id and time. nginx writes the time at which it
    answered. The daemon takes the time when its check is over, which may be in the next second; and time(2) is up to a
    tick of the kernel behind, so that it may also be in the second before."""
    found = list(waits_of_checks(fleet))
    lines = [f"{pid} {int(moment) + late} ok\n" for late in (0, 1, -1) for pid, moment, _ in found]
    poll = ["--interval", str(fleet.poll[0]), "--jitter", str(fleet.poll[1])]
    command = [fleet.bench.build / "zqu_fleet_simulator", "waits", *poll]
    output = subprocess.run(command, input="".join(lines), capture_output=True, text=True, check=True).stdout
    waits = json.loads(output)
    counts, rests, others = collections.Counter(), [], []
    for number, (_, moment, gap) in enumerate(found):
        candidates = zip(("same", "later", "earlier"), waits[number :: len(found)])
        kind, rest = next(((name, gap - wait) for name, wait in candidates if 0 <= gap - wait < 1), ("other", 0))
        counts[kind] += 1
        if kind == "other":
            others.append((moment - fleet.seen[0].time, gap, waits[number]))  # for whoever wants to know why
        else:
            rests.append(rest)
    rest_ms = statistics.median(rests) * 1000
    return {"same": 0, "later": 0, "earlier": 0, "other": 0} | counts | {"rest_ms": rest_ms, "others": others[:20]}


def lateness_us():
    """How late a sleep ends, by median."""
    late = []
    for _ in range(50):
        begin = time.perf_counter()
        time.sleep(0.005)
        late.append(time.perf_counter() - begin - 0.005)
    return statistics.median(late) * 1e6


def measure_bulk(fleet):
    """What nginx pays for a gigabyte of archives, in seconds of CPU: a file of zeros is enciphered like any other."""
    size, times = (1_000_000, 2) if fleet.bench.smoke else (100_000_000, 10)
    (fleet.nginx.root / "bulk").write_bytes(bytes(size))
    command = ["curl", "--silent", "--fail", "--cacert", fleet.nginx.ca_path, "--output", "/dev/null"]
    url = f"{fleet.nginx.url()}/bulk?[1-{times}]"
    subprocess.run([*command, url], check=True)  # once in vain
    begin = fleet.nginx.cpu_s()
    subprocess.run([*command, url], check=True)
    return (fleet.nginx.cpu_s() - begin) * 1e9 / (size * times)


def steady(fleet, results, name, periods, handshakes):
    """Checks with nothing new, each of which makes a handshake of that kind."""
    with Phase(fleet, results, name, counts_packets=True):
        time.sleep(periods * (fleet.poll[0] + (fleet.poll[1] - 1) / 2))
    phase = results[name]
    made = {kind: phase[kind] for kind in ("full", "resumed")}
    assert phase["checks"] and made == {"full": 0, "resumed": 0, handshakes: phase["checks"]}, f"{name}: {phase}"


def release(fleet, results, version):
    with Phase(fleet, results, "release"):
        fleet.publish(version)
        fleet.wait_for(1)
    results["release"]["updated"] = fleet.updated()


def death(fleet, results, version, down_s):
    """The mirror dies when a third have the release, and comes back."""
    fleet.requests()
    fleet.publish(version)
    fleet.wait_for(1 / 3)
    before = len(fleet.updated())
    fleet.nginx.die()
    died = time.time()
    time.sleep(down_s)
    fleet.requests()
    fleet.nginx.start()
    back = time.time()
    fleet.down.append((died, back))
    fleet.wait_for(1)
    after = fleet.requests()
    results["death"] = {
        "had_it": before,
        "died": died - fleet.published,
        "back": back - fleet.published,
        "updated": fleet.updated(),
        "after": summary(after, time.time() - back),
        "begin": fleet.published,
    }


def measure(bench):
    poll, periods, down_s = ((1, 1), 1, 0.5) if bench.smoke else ((10, 5), 4, 20)
    fleet = Fleet(bench, poll)
    results = {"daemons": len(fleet.gateways), "cores": os.cpu_count(), "key": fleet.nginx.key(), "poll": poll}
    results["lateness_us"] = lateness_us()
    try:
        fleet.publish("1001")
        results["archive"] = (fleet.mirror.path("antivir-v2-1001.cab")).stat().st_size
        with Phase(fleet, results, "start"):
            fleet.start()
            fleet.wait_for(1)
        steady(fleet, results, "steady", periods, "resumed")
        release(fleet, results, "1002")
        death(fleet, results, "1003", down_s)
        results["memory_kib"] = [statistics.median(kib) for kib in zip(*map(memory_kib, fleet.pids()))]
        results["descriptors"] = max(len(os.listdir(f"/proc/{pid}/fd")) for pid in fleet.pids())
        fleet.restart_nginx(resumes=False)
        time.sleep(sum(poll))  # every daemon finds out that its session is worth nothing
        steady(fleet, results, "full", periods - 1 or 1, "full")
        results["whole"] = fleet.wait_until_whole()
        results["errors"] = fleet.log_lines()
        results["waits"] = measure_waits(fleet)
        results["bulk_cpu_s"] = measure_bulk(fleet)
    finally:
        fleet.end()
    seconds = collections.Counter(int(request.time - results["start"]["begin"]) for request in fleet.seen)
    results["requests"] = [seconds[second] for second in range(max(seconds) + 1)]
    return results


PHASE_HEAD = ("Phase", "lasted", "requests", "a second", "peak", "handshakes, full + resumed", "sent")
PHASE_HEAD += ("CPU of nginx", "CPU of all daemons")


def _phase_row(name, phase):
    seconds = phase["seconds"]
    return (
        name,
        f"{seconds:.0f} s",
        f"{phase['requests']:,}",
        f"{phase['requests'] / seconds:.1f}",
        f"{phase['peak']}",
        f"{phase['full']} + {phase['resumed']}",
        f"{phase['bytes'] / 1e6:.2f} MB",
        *(f"{phase[key]:.2f} s" if key in phase else "" for key in ("nginx_cpu_s", "daemons_cpu_s")),
    )


def _phase_rows(results):
    names = {
        "start": "Start, first release",
        "steady": "Nothing new, sessions resumed",
        "release": "A release",
        "full": "Nothing new, full handshakes",
    }
    for name, title in names.items():
        yield _phase_row(title, results[name])
        if name == "release":
            yield _phase_row("The mirror is back, see below", results["death"]["after"])


def _check_rows(results):
    for name, title in (("full", "full"), ("steady", "resumed")):
        phase = results[name]
        costs = fleet_sizing.costs_of_check(phase)
        names = ("from_mirror", "to_mirror", "packets")
        yield (
            title,
            f"{costs['nginx_cpu_s'] * 1000:.2f} ms",
            f"{phase['daemons_cpu_s'] / phase['checks'] * 1000:.2f} ms",
            *((f"{costs['bytes'][key]:,.0f}" for key in names) if costs["bytes"] else ["not counted"] * 3),
        )


def _reached(updated, share):
    return f"{updated[max(0, round(share * len(updated)) - 1)]:.1f} s"


def _plot_requests(results, plots):
    figure, axes = plots.figure("Requests to the mirror", "seconds since the start", "requests in a second")
    axes.plot(results["requests"], linewidth=1)
    begin = results["start"]["begin"]
    marks = {"release": results["release"]["begin"], "release, mirror dies": results["death"]["begin"]}
    marks["mirror is back"] = results["death"]["begin"] + results["death"]["back"]
    marks["full handshakes"] = results["full"]["begin"]
    for number, (name, moment) in enumerate(marks.items()):
        axes.axvline(moment - begin, linestyle=":", color=f"C{number + 1}", label=name)
    return plots.save(figure, "fleet_real_requests", "Requests in a second through the run")


def _plot_reached(results, plots):
    figure, axes = plots.figure("Daemons that have the release", "seconds since its publication", "share")
    for name, title in (("release", "a release"), ("death", "the mirror dies and returns")):
        updated = results[name]["updated"]
        axes.step(updated, [(number + 1) / len(updated) for number in range(len(updated))], where="post", label=title)
    axes.axvspan(results["death"]["died"], results["death"]["back"], alpha=0.15, color="C1")
    return plots.save(figure, "fleet_real_reached", "Share of the daemons that have a release, by time")


def _setting(results):
    interval, jitter = results["poll"]
    start = results["start"]
    busy = (start["daemons_cpu_s"] + start["nginx_cpu_s"]) / (start["seconds"] * results["cores"])
    return prose(
        f"""{results["daemons"]} daemons against one nginx with one worker, over TLS on loopback, all on this machine.
        At most {MOST} are run, and no more than half of the memory holds, lest the machine be what is measured: until
        all had the first release, they and nginx used {busy:.0%} of the time of {results["cores"]} cores. To pass the
        time sooner, they check every {interval} s and up to {jitter - 1} s of jitter, and nginx closes a connection
        after a second, so that each check makes one of its own, as with waits of 15 minutes. Each has
        `http_timeout_s` = 60, and logs into a file by a preloaded library. The certificate's key is
        {results["key"]}; an archive has {results["archive"]:,} bytes."""
    )


def _spread_of_releases(results):
    release, death = results["release"]["updated"], results["death"]
    return prose(
        f"""The release reached half of them after {_reached(release, 0.5)}, 99 % after {_reached(release, 0.99)} and
        all after {_reached(release, 1)}. In the next one the mirror was killed when {death["had_it"]} had it, after
        {death["died"]:.1f} s, and came back after {death["back"]:.1f} s: half had it after
        {_reached(death["updated"], 0.5)}, all after {_reached(death["updated"], 1)}. The busiest second after its
        return had {death["after"]["peak"]} requests. At the end of the run, {results["whole"]} of
        {results["daemons"]} had just that release in service, to the byte."""
    )


def _waits(results):
    waits = results["waits"]
    return prose(
        f"""Of {sum(waits[kind] for kind in ("same", "later", "earlier", "other")):,} waits, {waits["same"]:,} were
        what the simulator says for the daemon's process id and the second of the answer in nginx's log,
        {waits["later"]:,} for the second after that, in which the check ended, {waits["earlier"]:,} for the one before,
        since the clock of time(2) is up to a tick of the kernel late, and {waits["other"]:,} something else. A wait and
        the check after it take {waits["rest_ms"]:.1f} ms more than the schedule's whole seconds; a sleep here ends
        {results["lateness_us"]:.0f} µs late."""
    )


def _memory(results):
    resident, proportional = (kib / 1024 for kib in results["memory_kib"])
    return prose(
        f"""One daemon holds {resident:.1f} MiB resident ({proportional:.1f} MiB when what they share is divided among
        them) and at most {results["descriptors"]} descriptors between its checks."""
    )


def _what_costs(results):
    counted = "Bytes are of IP packets on loopback, whose packets are larger than those of a network."
    if "packets" not in results["full"]:
        counted = "Bytes were not counted, for which `scripts/bench` has to be run as root."
    return prose(f"Of nginx and of the daemon, for each check with nothing new. {counted}")


def render(results, plots):
    errors = "\n".join(f"- {count} times `{text}`" for text, count in sorted(results["errors"].items()))
    return f"""\
{_setting(results)}

{table(PHASE_HEAD, *_phase_rows(results))}
{_plot_requests(results, plots)}
{_memory(results)}

{_spread_of_releases(results)}

Errors and warnings that were logged, over the whole run:

{errors or "- none"}

{_plot_reached(results, plots)}
{_waits(results)}

### What a check costs a mirror

{_what_costs(results)}

{table(("Handshake", "CPU of nginx", "CPU of the daemon", "bytes from nginx", "bytes to nginx", "packets"),
       *_check_rows(results))}
Archives cost nginx {results["bulk_cpu_s"]:.2f} s of CPU for each GB. What that means for fleets of any size:
[operations.md](operations.md#sizing-a-mirror).
"""

"""Stop signals at random moments and in storms: the daemon always ends cleanly, after the cycle at hand."""

import pathlib
import random
import shutil
import socket
import ssl
import threading
import time
from collections import Counter, namedtuple
from signal import SIGINT, SIGTERM

import pytest
from gateway import STARTED, STOPPED, Gateway
from outcomes import published, snapshot_listing
from paced import EPOCH, SLICE, PacedDaemon, cycles_of, jitter, roles

INTERVAL, JITTER = 2, 3
UPDATE = published("1001", "1000")
REFUSAL = ["err run_once: staging failed: CAB sha256 mismatch"]
HANDLERS = [f"handler {SIGTERM:d}", f"handler {SIGINT:d}"]
BEGINNING = ["open zel_quorin_updater 3 24", *HANDLERS, STARTED.format(INTERVAL, JITTER)]

# What comes of a release: the lines of the first cycle and of the others, the version in service, the error, and the
# snapshots.
Release = namedtuple("Release", "first then version error snapshots")
GOOD = Release(UPDATE, [], "1001", "", ("1000", "1001"))
TAMPERED = Release(REFUSAL, REFUSAL, "1000", "CAB sha256 mismatch", ("1000",))


@pytest.fixture
def outdated(gateway, mirror):
    """A gateway with a release in service, and a newer one to fetch."""
    mirror.publish("1000")
    gateway.run_once()
    gateway.status_path.unlink()
    mirror.publish("1001")
    gateway.settings.update(poll_interval_s=INTERVAL, poll_jitter_s=JITTER)
    return gateway


def copy_of(gateway, folder):
    shutil.copytree(gateway.root, folder / "defs", symlinks=True)
    settings = {**gateway.settings, "def_root": folder / "defs", "status_path": folder / "status" / "status.json"}
    return Gateway(folder, **settings)


def check_whole_waits(cycles, pid):
    """Every wait but the last one is as long as the formula says, and the clock shows no second more."""
    now = EPOCH
    for cycle in cycles:
        assert (cycle.start, cycle.end) == (now, now + 1)
        wait = INTERVAL + jitter(pid, cycle.end, JITTER)
        if cycle is not cycles[-1]:
            assert cycle.sleeps == [SLICE] * wait
        now += 2 + wait
    assert cycles[-1].sleeps.count(SLICE) <= wait


def check_interruptions(events):
    """What a signal leaves of a slice is slept at once, whatever comes."""
    events = [event for event in events if not event.startswith("signal ")]
    for event, following in zip(events, events[1:]):
        if event.startswith("interrupted "):
            assert following == event.replace("interrupted", "sleep") + " same"


def check_nothing_begins(events, first):
    """After the signal neither a slice nor a cycle begins; but the loop may have tested the flag just before it."""
    kinds = [kind for kind in list(roles(events))[first:] if kind != "signal"]
    assert not {"start", "slice"} & set(kinds[1:])


def check_disk(gateway, cycles, release):
    if cycles:
        assert gateway.listing() == snapshot_listing(release.version, *release.snapshots)
        gateway.expect_status(release.version, release.error)
        assert gateway.status()["last_check_epoch"] == cycles[-1].start
    else:
        check_untouched(gateway)


def check_untouched(gateway):
    assert gateway.listing() == snapshot_listing("1000", "1000")
    assert not gateway.status_path.exists()


def check_clean_stop(gateway, daemon, events, release=GOOD):
    """Requires that the daemon ended as it should after the first signal; returns where that one found it."""
    assert daemon.process.wait(timeout=60) == 0
    kinds = list(roles(events))
    first = kinds.index("signal")
    told = [event for event, kind in zip(events, kinds) if kind != "signal"]
    assert (told[:4], told[-2:]) == (BEGINNING, [STOPPED, "close"])
    cycles = cycles_of(told[4:-2])
    if cycles:
        assert [cycle.lines for cycle in cycles] == [release.first] + [release.then] * (len(cycles) - 1)
        check_whole_waits(cycles, daemon.process.pid)
    check_interruptions(events)
    check_nothing_begins(events, first)
    check_disk(gateway, cycles, release)
    before = [kind for kind in kinds[:first] if kind != "line"]
    return {"handler": "before the loop", "start": "in a cycle"}.get(before[-1] if before else "handler", "in a wait")


def check_default_effect(gateway, events, number):
    """The signal came before the handler, and nothing had happened yet."""
    assert events == BEGINNING[: len(events)]
    assert f"handler {number:d}" not in events
    check_untouched(gateway)


def shoot(gateway, release, chance):
    """Starts the loop, its seconds shortened to two milliseconds, and sends one signal at a random moment."""
    number = chance.choice((SIGTERM, SIGINT))
    with PacedDaemon(gateway, second_ns=2_000_000, gates=False) as daemon:
        events = [daemon.next_event() for _ in range(chance.randrange(24))]
        time.sleep(chance.choice((0, 0.001, 0.01)) * chance.random())  # no wait for anything: the moment is the point
        daemon.send(number)
        events += daemon.rest()
        if daemon.process.wait(timeout=60) == -number:
            check_default_effect(gateway, events, number)
            return "before the handlers"
        return check_clean_stop(gateway, daemon, events, release)


@pytest.mark.parametrize("seed", [1, 2])
@pytest.mark.parametrize("release", [pytest.param(GOOD, id="good"), pytest.param(TAMPERED, id="tampered")])
def test_signal_at_any_moment_ends_the_daemon_cleanly(
    outdated, mirror, tmp_path, release, seed, request, record_property
):
    if release is TAMPERED:
        mirror.write("antivir-v2-1001.cab", b"tampered")
    chance = random.Random(seed)
    moments = Counter()
    for _ in range(1_000 if request.config.getoption("--all") else 60):
        folder = tmp_path / "shot"
        moments[shoot(copy_of(outdated, folder), release, chance)] += 1
        shutil.rmtree(folder)
    print(dict(moments))
    record_property("signals_at_random_moments", sum(moments.values()))
    assert {"before the handlers", "in a cycle", "in a wait"} <= set(moments)


def wait_until_asleep(daemon):
    """Returns once the daemon waits for something, or has ended."""
    while pathlib.Path(f"/proc/{daemon.process.pid}/stat").read_text().rpartition(")")[2].split()[0] not in "SZ":
        time.sleep(0)


def storm(daemon, most, asleep=True):
    """Sends one signal after another, each once the former one has arrived, and only to a daemon that waits unless told
    otherwise; returns the events until then."""
    events = []
    for count in range(most):
        number = (SIGTERM, SIGINT)[count % 2]
        if asleep:
            wait_until_asleep(daemon)
        daemon.send(number)
        while f"signal {number:d}" not in events[-1:]:
            event = daemon.next_event()
            if event is None:
                return events
            events.append(event)
    return events


def until(daemon, wanted):
    """The events up to the first that begins so."""
    events = [daemon.next_event()]
    while not events[-1].startswith(wanted):
        events.append(daemon.next_event())
    return events


def test_storm_of_signals_during_a_wait_shortens_no_slice(outdated):
    with PacedDaemon(outdated, second_ns=1_000_000_000, gates=False) as daemon:
        events = until(daemon, SLICE) + storm(daemon, 300) + daemon.rest()
        assert check_clean_stop(outdated, daemon, events) == "in a wait"
    kinds = Counter(roles(events))
    assert kinds["resumption"] == kinds["interrupted"] > 1


def test_storm_of_signals_all_through_a_cycle_lets_it_end(outdated):
    with PacedDaemon(outdated, gates=False) as daemon:
        events = until(daemon, "time ") + storm(daemon, 1_000_000, asleep=False)
        assert check_clean_stop(outdated, daemon, events) == "in a cycle"
    kinds = Counter(roles(events))
    assert kinds["start"] == 1
    assert kinds["signal"] > 1


class HoldingServer:
    """Serves a mirror's files over TLS, and holds the archive's transfer at one point until it is let on."""

    def __init__(self, mirror, certificate, point):
        self.mirror = mirror
        self.point = point
        self.held, self.go_on = threading.Event(), threading.Event()
        self.context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        self.context.load_cert_chain(certificate)
        self.listener = socket.create_server(("127.0.0.1", 0))
        self.url = f"https://localhost:{self.listener.getsockname()[1]}"
        self.thread = threading.Thread(target=self._serve)

    def __enter__(self):
        self.thread.start()
        return self

    def __exit__(self, *_):
        self.go_on.set()
        self.thread.join(timeout=60)
        self.listener.close()

    def _serve(self):
        """Three requests, each with a connection of its own: hit, complete-info, archive."""
        for number in range(3):
            connection, _ = self.listener.accept()
            with connection:
                self._hold(number == 2 and self.point == "handshake")
                with self.context.wrap_socket(connection, server_side=True) as tls:
                    self._answer(tls, number == 2)

    def _answer(self, tls, archive):
        request = tls.recv(65536).decode()
        body = self.mirror.path(request.split()[1].rpartition("/")[2]).read_bytes()
        self._hold(archive and self.point == "answer")
        tls.sendall(f"HTTP/1.1 200 OK\r\nContent-Length: {len(body)}\r\nConnection: close\r\n\r\n".encode())
        tls.sendall(body[: len(body) // 2])
        self._hold(archive and self.point == "body")
        tls.sendall(body[len(body) // 2 :])

    def _hold(self, condition):
        if condition:
            self.held.set()
            assert self.go_on.wait(timeout=60)


@pytest.mark.parametrize("point", ["handshake", "answer", "body"])
def test_storm_of_signals_during_a_transfer_does_not_break_it(outdated, mirror, nginx, point):
    with HoldingServer(mirror, nginx.folder / "good.pem", point) as server:
        outdated.settings["mirror_base_url"] = server.url
        with PacedDaemon(outdated, gates=False) as daemon:
            assert server.held.wait(timeout=60)
            events = storm(daemon, 300)
            server.go_on.set()
            events += daemon.rest()
            assert check_clean_stop(outdated, daemon, events) == "in a cycle"
    kinds = Counter(roles(events))
    assert (kinds["start"], kinds["signal"]) == (1, 300)


def test_interrupted_system_calls_of_a_transfer_are_repeated(outdated):
    injection = "inject=poll:error=EINTR:when=1..20"
    assert outdated.run_once(prefix=["strace", "-f", "-qq", "-o", "/dev/null", "-e", injection]) == UPDATE

"""A rollout behind the page's nginx configurations: who gets the candidate, and that everybody gets an answer."""

import collections
import signal
import threading
import time

import pytest
from mirror_tool import SUBDIR, run
from release import HIT
from tools import under_strace

STAGES = ["1", "10", "50"]
PATH = f"{SUBDIR}/{HIT}"
PRIVATE = "private, max-age=60"


@pytest.fixture
def marked(own):
    """A mirror whose stage files say which they are."""
    own.folder.mkdir(parents=True)
    own.write(HIT, "current")
    for stage in STAGES:
        own.write(f"{HIT}.{stage}", stage)
    return own


def text(id):
    return f"[Current]\ndefId = {id}\n".encode()


def asked(server, addresses, **headers):
    """What gateways of these addresses get, over one connection."""
    connection = server.connection()
    answers = {at: server.get(PATH, connection, **{server.address_header: at}, **headers) for at in addresses}
    assert {(status, fields["Cache-Control"]) for status, fields, _ in answers.values()} == {(200, PRIVATE)}
    return {at: body.decode() for at, (_, _, body) in answers.items()}


def shares(groups):
    return {group: count / len(groups) for group, count in collections.Counter(groups.values()).items()}


def about(*percents):
    return {group: pytest.approx(part / 100, rel=0.2, abs=0.005) for group, part in zip([*STAGES, "current"], percents)}


def test_hundred_addresses_keep_their_groups_over_restarts(servers, marked):
    server = servers.mirror(marked.root)
    drawn = asked(server, (f"127.{i % 4 + 1}.{i // 250}.{i % 250}" for i in range(1500)))
    assert shares(drawn) == about(1, 9, 40, 50)
    of_group = {group: [at for at in drawn if drawn[at] == group] for group in shares(drawn)}
    chosen = [at for group, size in zip(of_group, (40, 40, 10, 10)) for at in of_group[group][:size]]
    groups = {at: drawn[at] for at in chosen}
    assert len(groups) == 100 and min(collections.Counter(groups.values()).values()) >= 3
    server.reload()
    assert asked(server, groups) == groups
    server.stop()
    server.start()
    from_there = {at: server.get(PATH, server.connection(at))[2].decode() for at in groups}  # with no header
    assert from_there == groups
    for removed in reversed(STAGES):  # the groups are nested
        marked.path(f"{HIT}.{removed}").unlink()
        groups = {at: "current" if group == removed else group for at, group in groups.items()}
        assert asked(server, groups) == groups


def test_group_is_that_of_the_ipv4_address_or_the_ipv6_network(servers, marked):
    """Whatever the bytes of the address are: line ends, NUL, what is not UTF-8."""
    server = servers.mirror(marked.root)
    v4 = [f"10.{i}.{j}.255" for i in (0, 10, 13, 200) for j in range(0, 256, 9)]
    groups = asked(server, v4)
    mapped = asked(server, (f"::ffff:{at}" for at in v4))
    assert mapped == {f"::ffff:{at}": group for at, group in groups.items()}
    networks = [f"2001:{i:x}:a0d:{j:x}" for i in (0x0A, 0xDB8, 0xC3FF, 0xFFFF) for j in range(0, 2**16, 211)]
    groups = asked(server, (f"{network}::1" for network in networks))
    assert shares(groups) == about(1, 9, 40, 50)
    for host in ("::", ":ffff:a00:d0a:ff"):
        others = asked(server, (f"{network}{host}" for network in networks[::9]))
        assert list(others.values()) == list(groups.values())[::9]


PLACES = "10.0.0.1 first; 10.0.1.0/24 never; 10.0.2.1 proxy; 2001:db8:1::/48 first;"
# Who asks, with which header, and what it gets; "drawn" is what its address gets otherwise.
PLACED = """\
10.9.9.9         -        drawn
10.9.9.9         current  current
10.9.9.9         1        drawn
10.9.9.9         proxy-1  drawn
10.0.0.1         -        1
10.0.0.1         current  current
::ffff:10.0.0.1  -        1
2001:db8:1:7::9  -        1
10.0.1.77        -        current
10.0.1.77        1        current
10.0.2.1         -        current
10.0.2.1         1        1
10.0.2.1         10       10
10.0.2.1         50       50
10.0.2.1         current  current
10.0.2.1         51       current
10.0.2.1         ./1      current
"""


def test_geo_block_and_trusted_header_decide_over_the_draw(servers, marked):
    server = servers.mirror(marked.root, PLACES)
    drawn = asked(server, ["10.9.9.9"])["10.9.9.9"]
    assert drawn == "50"
    for at, header, expected in map(str.split, PLACED.splitlines()):
        headers = {} if header == "-" else {"Zqu-Release": header}
        assert asked(server, [at], **headers) == {at: expected.replace("drawn", drawn)}, (at, header)
    for name in (f"{HIT}.1", f"{HIT}.10", f"{HIT}.50", f"{HIT}.current", ".hit.ini", "other-hit.ini", f"x%3F/{HIT}.1"):
        assert server.get(f"{SUBDIR}/{name}")[0] == 404, name


def test_proxy_asks_once_for_each_group_and_mixes_none(servers, marked):
    mirror = servers.mirror(marked.root, "127.0.0.1 proxy;")
    proxy = servers.proxy(mirror, "10.1.0.1 first;")
    addresses = [f"10.1.0.{i}" for i in range(60)]
    groups = asked(proxy, addresses)
    assert set(groups.values()) == {*STAGES, "current"}
    assert asked(proxy, addresses) == groups
    assert set(asked(proxy, addresses[:9], **{"Zqu-Release": "current"}).values()) == {"current"}
    asked_for = sorted(line for suffix in ("", *STAGES) for line in mirror.asked_for(f"{HIT}.{suffix}".rstrip(".")))
    assert asked_for == [f"/{PATH} 200", *(f"/{PATH}.{stage} 200" for stage in STAGES)]


class Gateways:
    """Ask all the time, each from its own address and so in its own group, and must always get a good answer."""

    def __init__(self, server, addresses):
        self.server, self.ended, self.asked, self.wrong = server, False, 0, []
        self.history = []  # what is current or candidate, and was and will be, one set after the other
        self.threads = [threading.Thread(target=self._ask, args=[at]) for at in addresses]

    def _ask(self, at):
        connection = self.server.connection(at)
        while not self.ended:
            since = len(self.history) - 1
            try:
                status, _, body = self.server.get(PATH, connection)
            except Exception as error:
                status, body = error, b""
            self.asked += 1  # misses some, as threads do it
            if status != 200 or body not in set().union(*self.history[since:]):
                self.wrong.append((at, status, body))

    def __enter__(self):
        for thread in self.threads:
            thread.start()
        return self

    def __exit__(self, *unused):
        self.ended = True
        for thread in self.threads:
            thread.join()

    def expect(self, *ids):
        self.history.append({text(id) for id in ids})


@pytest.fixture
def gateways(servers, own, marked):
    """Two of each group."""
    server = servers.mirror(own.root)
    groups = asked(server, (f"127.9.{i // 250}.{i % 250}" for i in range(500)))
    for path in marked.folder.iterdir():
        path.unlink()
    return Gateways(server, [at for group in (*STAGES, "current") for at in groups if groups[at] == group][:2])


def test_no_gateway_fails_while_stage_files_come_and_go(gateways, own, thorough):
    own.write(HIT, text("1"))
    gateways.expect("1")
    ends = time.monotonic() + (60 if thorough else 1.5)
    with gateways:
        while time.monotonic() < ends:
            gateways.expect("1", "2")
            for stage in STAGES:
                own.write("new", text("2"))
                own.path("new").rename(own.path(f"{HIT}.{stage}"))
            for stage in reversed(STAGES):
                own.path(f"{HIT}.{stage}").unlink()
    assert gateways.wrong == [] and gateways.asked > 1000


def killed(*words, call, number):
    """Whether the command came to that call of the kind, before which it is killed."""
    inject = ["strace", "-f", "-o", "/dev/null", "-e", f"inject={call}:signal=KILL:when={number}"]
    return run(*words, prefix=inject, env=under_strace())[0] == -signal.SIGKILL


def test_no_gateway_fails_while_commands_run_and_are_killed(gateways, own, thorough):
    """A round is a rollout in steps. Each step is killed before one of its calls, and then made."""
    own.publish_small("0")
    current, kills = "0", 0
    calls = ["rename", "unlink", "fsync", "openat", "write", "mkdir", "flock"] if thorough else ["rename", "unlink"]
    rounds = [(call, number) for number in range(1, 40 if thorough else 2) for call in calls]
    gateways.expect(current)
    with gateways:
        for candidate, (call, number) in enumerate(rounds, 1):
            gateways.expect(current, str(candidate))
            ends = "withdraw" if candidate % 2 else "100"
            publish = own.publishing(str(candidate), "--percent", "1")
            for words in (publish, *(["rollout", own.root, step] for step in ("10", "50", ends))):
                if killed(*words, call=call, number=number):
                    kills += 1
                    code, _, err = run(*words)
                    assert code == 0 or "there is no rollout" in err, err
            current = current if ends == "withdraw" else str(candidate)
            gateways.expect(current)
    assert gateways.wrong == [] and gateways.asked > 1000 and kills > len(rounds)

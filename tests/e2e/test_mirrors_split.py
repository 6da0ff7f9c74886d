"""A rollout behind the page's nginx configurations: who gets the candidate, and that all get an answer."""

import collections
import contextlib
import itertools
import os
import signal
import threading
from concurrent.futures import ThreadPoolExecutor

import pytest
from mirror_tool import HELD, SUBDIR, WORK, run
from release import HIT, info_name
from tools import under_strace

STAGES = ["1", "10", "50"]
GROUPS = [*STAGES, "current"]
HITS = [HIT, *(f"{HIT}.{stage}" for stage in STAGES)]
PATH = f"{SUBDIR}/{HIT}"


@pytest.fixture
def marked(own):
    """A mirror whose stage files say which they are."""
    own.directory.mkdir(parents=True)
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
    found = {(status, fields["Cache-Control"]) for status, fields, _ in answers.values()}
    assert found == {(200, "private, max-age=60")}
    return {at: body.decode() for at, (_, _, body) in answers.items()}


def expect_shares(groups):
    counts = collections.Counter(groups.values())
    for group, percent in zip(GROUPS, (1, 9, 40, 50)):
        assert counts[group] / len(groups) == pytest.approx(percent / 100, rel=0.2, abs=0.005)


def first_of_each(groups, *counts):
    """The first addresses of each group."""
    found = [[at for at in groups if groups[at] == group][:count] for group, count in zip(GROUPS, counts)]
    assert [*map(len, found)] == [*counts]
    return sum(found, [])


def test_hundred_addresses_keep_their_groups_over_restarts(servers, marked):
    server = servers.mirror(marked.root)
    drawn = asked(server, (f"127.{i % 4 + 1}.{i // 250}.{i % 250}" for i in range(1500)))
    expect_shares(drawn)
    groups = {at: drawn[at] for at in first_of_each(drawn, 5, 15, 40, 40)}
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
    """For any bytes of the address: line ends, NUL, what is not UTF-8."""
    server = servers.mirror(marked.root)
    v4 = [f"10.{i}.{j}.255" for i in (0, 10, 13, 200) for j in range(0, 256, 9)]
    groups = asked(server, v4)
    mapped = asked(server, (f"::ffff:{at}" for at in v4))
    assert mapped == {f"::ffff:{at}": group for at, group in groups.items()}
    networks = [f"2001:{i:x}:a0d:{j:x}" for i in (0x0A, 0xDB8, 0xC3FF, 0xFFFF) for j in range(0, 2**16, 211)]
    groups = asked(server, (f"{network}::1" for network in networks))
    expect_shares(groups)
    for host in ("::", ":ffff:a00:d0a:ff"):
        others = asked(server, (f"{network}{host}" for network in networks[::9]))
        assert list(others.values()) == list(groups.values())[::9]


# What an address gets: with no header (-), and with these values of it. "50" is what the first one draws.
PLACED = """\
10.9.9.9         -=50 current=current 1=50 proxy-1=50
10.0.0.1         -=1 current=current
::ffff:10.0.0.1  -=1
2001:db8:1:7::9  -=1
10.0.1.77        -=current 1=current
10.0.2.1         -=current 1=1 10=10 50=50 current=current 51=current ./1=current
"""


def test_geo_block_and_trusted_header_decide_over_the_draw(servers, marked):
    places = "10.0.0.1 first; 10.0.1.0/24 never; 10.0.2.1 proxy; 2001:db8:1::/48 first;"
    server = servers.mirror(marked.root, places)
    for at, *cases in map(str.split, PLACED.splitlines()):
        for header, expected in (case.split("=") for case in cases):
            headers = {} if header == "-" else {"Zqu-Release": header}
            assert asked(server, [at], **headers) == {at: expected}, header
    for name in (f"{HIT}.1", f"{HIT}.10", f"{HIT}.50", f"{HIT}.current", ".hit.ini", "other-hit.ini", f"x%3F/{HIT}.1"):
        assert server.get(f"{SUBDIR}/{name}")[0] == 404, name


def test_proxy_asks_once_for_each_group_and_mixes_none(servers, marked):
    mirror = servers.mirror(marked.root, "127.0.0.1 proxy;")
    proxy = servers.proxy(mirror, "10.1.0.1 first;")
    addresses = [f"10.1.0.{i}" for i in range(60)]
    groups = asked(proxy, addresses)
    assert set(groups.values()) == {*GROUPS}
    assert asked(proxy, addresses) == groups
    assert set(asked(proxy, addresses[:9], **{"Zqu-Release": "current"}).values()) == {"current"}
    asked_for = sorted(line for suffix in ("", *STAGES) for line in mirror.asked_for(f"{HIT}.{suffix}".rstrip(".")))
    assert asked_for == [f"/{PATH} 200", *(f"/{PATH}.{stage} 200" for stage in STAGES)]


def test_stage_file_that_nginx_cannot_read_is_passed_over(servers, marked):
    """Root reads it all the same, as long as it has the capability."""
    no_override = ["setpriv", "--bounding-set=-dac_override,-dac_read_search"]
    server = servers.mirror(marked.root, prefix=no_override if os.geteuid() == 0 else ())
    groups = asked(server, (f"10.0.0.{i}" for i in range(50)))
    assert "10" in groups.values()
    marked.path(f"{HIT}.10").chmod(0)
    assert asked(server, groups) == {at: "current" if group == "10" else group for at, group in groups.items()}


# nginx under strace: of its calls to open a file every 100th lasts so long that the file goes in between.
SLOW = "strace -D -f --seccomp-bpf -o /dev/null -e trace=openat -e inject=openat:delay_enter=20000:when=1+100".split()


@pytest.fixture
def asking(servers, marked):
    """A context in which gateways ask all the time, two of each group, each from its own address. What they get is in
    the last of these sets of ids, or in one that was added since they asked. It gives a function that says whether
    all of them still get that, and so many answers have not come yet."""
    drawn, server = {}, servers.mirror(marked.root)
    for i in range(50):  # until two are in each group
        drawn |= asked(server, (f"127.9.{i}.{j}" for j in range(50)))
        if min(collections.Counter(drawn.values())[group] for group in GROUPS) >= 2:
            break
    addresses = first_of_each(drawn, 2, 2, 2, 2)
    for path in marked.directory.iterdir():
        path.unlink()
    ended, answers = threading.Event(), []

    def ask(server, at, sets):
        connection = server.connection(at)
        while not ended.is_set():
            since = len(sets) - 1
            answer = server.get(PATH, connection)[::2]
            assert answer in {(200, text(id)) for ids in sets[since:] for id in ids}
            answers.append(answer)

    @contextlib.contextmanager
    def asking(sets, **changes):
        server = servers.mirror(marked.root, prefix=SLOW, **changes)
        with ThreadPoolExecutor(len(addresses)) as pool:
            gateways = [pool.submit(ask, server, at, sets) for at in addresses]
            try:
                yield lambda count: len(answers) < count and not any(gateway.done() for gateway in gateways)
            finally:
                ended.set()
            assert [gateway.result() for gateway in gateways] == [None] * 8

    return asking


def come_and_go(own, asking, count, **changes):
    own.write(HIT, text("1"))
    with asking([{"1", "2"}], **changes) as going_on:
        while going_on(count):
            for stage in STAGES:
                own.write("new", text("2"))
                own.path("new").rename(own.path(f"{HIT}.{stage}"))
            for stage in reversed(STAGES):
                own.path(f"{HIT}.{stage}").unlink()


def test_no_gateway_fails_while_stage_files_come_and_go(own, asking, thorough):
    come_and_go(own, asking, 30000 if thorough else 3000)


def test_gateways_fail_when_stage_files_go_under_try_files(own, asking):
    """The other side of the same: what the page warns of."""
    try_files = {"error_page .*": "try_files $uri.$zqu_stage $uri =404;", "if .*": ""}
    with pytest.raises(AssertionError, match="404 Not Found"):
        come_and_go(own, asking, 3000, **try_files)


# What changes a mirror. A kill before another call leaves what a kill before the next one of these leaves.
CHANGING = ["rename", "unlink", "openat", "write", "fsync", "mkdir", "rmdir", "fchmod", "utimensat"]
WORKED_ON = ["", *HITS, WORK, *(f"{WORK}/{name}" for name in ("archive", "info", "hit", *HITS)), HELD]


def test_no_gateway_fails_while_commands_run_and_are_killed(asking, own, thorough):
    own.publish_small("0")
    sets = [{"0"}]
    candidates = map(str, itertools.count(1))

    def killed(last, call, number):
        """Makes a rollout in steps, kills each one before that call, and then makes it; whether any was killed."""
        (current,), candidate = sets[-1], next(candidates)
        sets.append({current, candidate})
        info = info_name(candidate)
        names = [*WORKED_ON, f"antivir-v2-c-{candidate}.zip", info, f"{HELD}/{info}"]
        paths = [word for name in names for word in ("-P", own.path(name))]
        kill = ["strace", "-D", "-o", "/dev/null", "-e", f"inject={call}:signal=KILL:when={number}", *paths]
        publish = own.publishing(candidate, "--percent", "1", "--format", "zip")  # which takes few calls
        steps = [publish, *(["rollout", own.root, to] for to in ("10", "50", last))]
        codes = []
        for words in steps:
            codes.append(run(*words, prefix=kill, env=under_strace())[0])
            code, _, err = run(*words) if codes[-1] else (0, "", "")
            assert code == 0 or "there is no rollout" in err, err
        sets.append({current if last == "withdraw" else candidate})
        assert {*codes} <= {0, -signal.SIGKILL}
        return any(codes)

    with asking(sets) as going_on:
        while going_on(1000):
            assert killed("withdraw", "rename", 1) and killed("100", "unlink", 1)
        for last, call in itertools.product(("withdraw", "100"), CHANGING) if thorough else ():
            number = 1
            while killed(last, call, number):
                number += 1

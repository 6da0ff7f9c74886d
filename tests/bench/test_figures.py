"""The computations behind the figures: orders, ratios, instructions of a profile, handshakes, waits of a fleet."""

import collections
import sys

import pytest
from builds import REPOSITORY
from gateway import SANITIZED, STARTED, may_mount
from paced import PacedDaemon

sys.path.append(str(REPOSITORY / "bench"))
import check  # noqa: E402  (from the directory named just before)
import compare  # noqa: E402
import deltas  # noqa: E402
import fleet  # noqa: E402
import formats  # noqa: E402
import loop  # noqa: E402
import measure  # noqa: E402
import publish  # noqa: E402
import startup  # noqa: E402
import update  # noqa: E402
from fleet import model  # noqa: E402

pytestmark = pytest.mark.skipif(SANITIZED, reason="measured is what is shipped")


@pytest.mark.parametrize("count", range(2, 9))
def test_orders_are_even_in_places_and_followers(count):
    orders = measure.orders(count)
    places = collections.Counter(pair for order in orders for pair in enumerate(order))
    pairs = collections.Counter(pair for order in orders for pair in zip(order, order[1:]))
    assert all(sorted(order) == list(range(count)) for order in orders)
    assert (len(places), len(set(places.values()))) == (count * count, 1)
    assert (len(pairs), len(set(pairs.values()))) == (count * (count - 1), 1)


PAIRED = [compare.CHECKS, compare.STARTS, compare.PEAKS]
ROUNDS = {
    len(update.TITLES): update.SIZES.values(),
    len(check.TITLES): [check.ROUNDS, formats.ROUNDS[1000], deltas.ROUNDS[20], deltas.ROUNDS[200]],
    len(formats.TITLES): [formats.ROUNDS[20], formats.ROUNDS[200]],
    len(startup.TITLES): [startup.ROUNDS],
    len(compare.NAMES): [publish.ROUNDS, deltas.ROUNDS[1000], deltas.OTHER_ROUNDS, *compare.UPDATES.values(), *PAIRED],
}


@pytest.mark.parametrize(("contenders", "rounds"), ROUNDS.items(), ids=map(str, ROUNDS))
def test_rounds_are_whole_sets_of_orders(contenders, rounds):
    assert [count % len(measure.orders(contenders)) for count in rounds] == [0] * len(rounds)


def test_contest_takes_medians_and_ratios_within_a_round():
    ran = []

    def contender(name, *walls):
        costs = iter(walls)
        return lambda: ran.append(name) or {"cpu": 2, "system": 1, "faults": 7, "wall": next(costs)}

    contenders = {"a": contender("a", 1, 4, 9), "b": contender("b", 2, 1, 3), "c": contender("c", 1, 1, 1)}
    result = measure.contest(contenders, 3)
    assert "".join(ran) == "".join("abc"[number] for order in measure.orders(3)[:3] for number in order)
    assert result["costs"]["a"]["wall"] == {"median": 4, "low": 2.5, "high": 6.5}
    assert result["costs"]["b"]["wall"] == {"median": 2, "low": 1.5, "high": 2.5}
    assert result["costs"]["b"]["system"] == 0.5
    assert sorted(result["ratios"]) == ["a to b", "a to c"]
    assert result["ratios"]["a to b"]["wall"] == {"median": 3, "low": 1.75, "high": 3.5}


PROFILE = """\
events: Ir
ob=(1) /usr/bin/program
fn=(1) main
3 10
+2 5
cob=(2) /lib/library.so
cfn=(2) work
calls=1 7
* 100
fi=(3) /usr/include/inlined
9 20
ob=(2)
fn=(2)
7 100
totals: 135
"""


def test_inlined_code_counts_for_its_program():
    assert measure.counted_instructions(PROFILE.splitlines()) == {"program": 35, "library.so": 100}


@pytest.mark.parametrize("damage", [("totals: 135", "totals: 136"), ("7 100\n", ""), ("totals: 135\n", "")])
def test_profile_unequal_to_its_total_is_refused(damage):
    with pytest.raises(AssertionError, match="instructions are listed"):
        measure.counted_instructions(PROFILE.replace(*damage).splitlines())


def test_handshakes_follow_from_connections_and_sessions():
    requests = [line.split() for line in ("4 . 200", "4 . 200", "5 r 200", "5 r 200", "6 . 200", "4 . 200")]
    assert list(loop.handshakes(requests)) == ["full", "none", "resumed", "none", "full", "full"]


NEW_IDS = ("unshare", "--pid", "--fork", "--kill-child")  # as in a container, where the daemon is process 1
in_container = pytest.mark.skipif(not may_mount(), reason="needs the right to make namespaces of its own")


@pytest.mark.parametrize("prefix", [(), pytest.param(NEW_IDS, marks=in_container)], ids=["machine", "container"])
@pytest.mark.parametrize("poll", [(900, 120), (601, 127), (3, 1000), (0, 61)], ids=str)
def test_waits_of_the_model_are_the_daemons(poll, prefix, gateway, mirror):
    gateway.settings.update(poll_interval_s=poll[0], poll_jitter_s=poll[1])
    mirror.publish("1001")
    with PacedDaemon(gateway, prefix=prefix) as daemon:
        daemon.until_gate()
        daemon.run_until(25)  # two readings of the clock for each cycle
        events = [event.split() for event in daemon.until_gate()]
    ends, waits = [], []
    for event in events:
        if event[0] == "time":  # where a cycle starts, and where it ends
            ends.append((int(event[1]) - model.EPOCH_S) * model.SECOND)
            waits.append(0)
        elif event[0] == "sleep":
            waits[-1] += 1
    pid = 1 if prefix else daemon.process.pid
    assert waits[1::2] == [model.wait_s(pid, end, *poll) for end in ends[1::2]]
    assert waits[::2] == [0] * 12 and len(set(waits)) > 2


def test_default_waits_of_the_sizes_are_the_daemons(gateway):
    with PacedDaemon(gateway) as daemon:
        assert daemon.until_gate()[-1] == STARTED.format(fleet.INTERVAL_S, fleet.JITTER_S)


def test_checks_of_the_second_day_are_counted():
    counts, following = model.second_day(100, 900, 0, check=(2_000_000, 2_000_000), late=10_000, day_s=1800)
    assert {second: count for second, count in enumerate(counts) if count} == {22: 100, 933: 100}
    assert {int(second) for second in following} == {44}

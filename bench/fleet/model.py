"""When the gateways of a fleet check: the waits of the daemon's loop, computed for all of them at once."""

import numpy

SECOND, DAY_S = 1_000_000, 86400  # times are in microseconds
EPOCH_S = 1_700_000_000  # what the clocks show at the start
JITTER_FACTOR = 2654435761
CHECK = (20_000, 120_000)  # how long a check takes
LATE = 60  # by how much each second of a wait is too long
PIDS = (300, 32767)


def wait_s(pids, now_us, interval, limit):
    """The seconds that daemons with these process ids wait after checks that end at these times."""
    return interval + ((pids * JITTER_FACTOR + EPOCH_S + now_us // SECOND) % limit if limit else 0)


def second_day(gateways, interval, limit, over_s=1, pids=PIDS, check=CHECK, late=LATE, day_s=DAY_S):
    """A fleet that starts within over_s: how many check in each second of its second day, and how many seconds later
    than the end of that day each one checks next. The mirror answers everyone at once."""
    random = numpy.random.default_rng(20)
    pid = random.integers(*pids, gateways, endpoint=True)
    now = random.integers(0, over_s * SECOND, gateways, endpoint=True)
    end = 2 * day_s * SECOND
    counts = numpy.zeros(2 * day_s, dtype=int)
    while (early := now < end).any():
        counts += numpy.bincount(now[early] // SECOND, minlength=len(counts))
        over = now + random.integers(*check, gateways, endpoint=True)
        following = over + wait_s(pid, over, interval, limit) * (SECOND + late)
        now = numpy.where(early, following, now)
    return counts[day_s:], (now - end) / SECOND

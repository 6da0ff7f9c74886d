"""A million daemons for a week, on the loop's own schedule, as zqu_fleet_simulator counts them."""

import json
import subprocess

from fleet_sizing import GATEWAYS, peak_to_mean
from text import prose, table

TITLE = "A simulated fleet"
HOUR, DAY = 3600, 86400
# What is not the schedule's: how long a check takes, and how late a sleep of a second ends.
LATENESS = ["--check", 0.02, 0.12, "--oversleep-us", 60]
SLOW = ["--check", 0.5, 3, "--oversleep-us", 60]
OWN, ONE = ["--pids", 300, 32767], ["--pids", 1, 1]
STARTS = {
    "at once": [*OWN, *LATENESS],
    "at once, checks of 0.5 to 3 s": [*OWN, *SLOW],
    "within 10 minutes": [*OWN, *LATENESS, "--start-spread", 600],
    "over a day": [*OWN, *LATENESS, "--start-spread", DAY],
    "10 waves, an hour apart": [*OWN, *LATENESS, "--waves", 10, "--wave-gap", HOUR],
    "at once, jitter 119": [*OWN, *LATENESS, "--jitter", 119],
    "at once, jitter 901": [*OWN, *LATENESS, "--jitter", 901],
    "all process 1, at once, never late": [*ONE],
    "all process 1, at once": [*ONE, *LATENESS],
    "all process 1, 10 waves": [*ONE, *LATENESS, "--waves", 10, "--wave-gap", HOUR],
    "all process 1, over a day": [*ONE, *LATENESS, "--start-spread", DAY],
    "all process 1, at once, jitter 119": [*ONE, *LATENESS, "--jitter", 119],
    "all process 1, at once, jitter 901": [*ONE, *LATENESS, "--jitter", 901],
    "all process 1, over a day, jitter 119": [*ONE, *LATENESS, "--start-spread", DAY, "--jitter", 119],
}
SHOWN = ("at once", "at once, jitter 119", "all process 1, at once", "all process 1, over a day", "over a day")
INTERVALS, JITTERS = (300, 900, 1800, 3600), (0, 60, 119, 120, "half", "interval", "interval + 1")
COMPARED = (119, 120, "interval", "interval + 1")
NEIGHBOURS = range(90, 151)
OUTAGES = {
    "refuses connections for 1 h": ["--outage", 0, HOUR],
    "the same, and has a release when it is back": ["--outage", 0, HOUR, "--release", HOUR],
    "is silent for 1 h": ["--outage", 0, HOUR, "--silent"],
    "is silent for 6 h": ["--outage", 0, 6 * HOUR, "--silent"],
    "has a release with a wrong digest for 1 h": ["--bad-release", 0, HOUR],
    "has a release that ends checks in exceptions for 1 h": ["--bad-release", 0, HOUR, "--bad-throws"],
}


class Simulator:
    """Runs the simulator for fleets of one size."""

    def __init__(self, bench):
        self.program = bench.build / "zqu_fleet_simulator"
        self.daemons = 2000 if bench.smoke else 1_000_000
        self.day = 2 * HOUR if bench.smoke else DAY

    def run(self, seconds, *arguments, daemons=None):
        command = [self.program, "run", "--daemons", daemons or self.daemons, "--days", seconds / DAY, *arguments]
        output = subprocess.run([str(word) for word in command], capture_output=True, text=True, check=True).stdout
        return json.loads(output)


def measure_start(simulator, name, arguments, daemons=None):
    day = simulator.day
    end = 7 * day
    result = simulator.run(
        end,
        *arguments,
        *["--release", 7 * day // 2],
        *["--windows", 0, min(HOUR, day), end - day, end, "--curves", 0, end, HOUR, end - HOUR, end, 5],
        daemons=daemons,
    )
    requests, downloads = result["requests"], result["downloads"]["all"]
    first, last = requests["windows"]
    curves = {"week": requests["curves"][0]["max"], "end": requests["curves"][1]["max"]} if name in SHOWN else {}
    return {"first": first, "last": last, "release": result["release"], "downloads": downloads["max"], **curves}


def measure_sizes(simulator, starts):
    """What fleets of the sizes that mirrors are planned for come to, each by itself: the fewer they are, the more the
    busiest second stands out."""
    for start in ("over a day", "at once"):
        for gateways in GATEWAYS:
            if gateways < simulator.daemons:
                measured = measure_start(simulator, "", STARTS[start], gateways)
            else:
                measured = starts[start]
            peaks = {"peak": measured["last"]["max"], "archives": measured["downloads"]}
            yield {"start": start, "gateways": gateways, **peaks}


def measure_setting(simulator, interval, jitter, daemons=None, pids=OWN):
    """The second of two days after a start at once, with a release at its end."""
    day = simulator.day
    last = ["--release", 2 * day, "--windows", day, 2 * day]
    poll = ["--interval", interval, "--jitter", jitter]
    result = simulator.run(2 * day + 2.5 * HOUR, *pids, *LATENESS, *poll, *last, daemons=daemons)
    rates = result["requests"]["windows"][0]
    return {"interval": interval, "jitter": jitter, "rates": rates, "release": result["release"]}


def jitter_of(name, interval):
    return {"half": interval // 2, "interval": interval, "interval + 1": interval + 1}.get(name, name)


def measure_settings(simulator, jitters, pids):
    for interval in INTERVALS:
        for name in jitters:
            yield measure_setting(simulator, interval, jitter_of(name, interval), pids=pids)


def shifted(arguments, begin):
    """The same times, counted from that second."""
    return [begin + word if isinstance(word, int) else word for word in arguments]


def measure_outage(simulator, arguments):
    """A fleet that runs smoothly, what happens to it after two days, and the hours that follow."""
    begin = 2 * simulator.day
    length = max(word for word in arguments if isinstance(word, int))
    spans = [-HOUR, 0, 0, length, length, length + 60, length, length + HOUR, length + HOUR, length + 7 * HOUR]
    result = simulator.run(
        begin + length + 8 * HOUR,
        *OWN,
        *LATENESS,
        *["--start-spread", simulator.day],
        *shifted(arguments, begin),
        *["--windows", *shifted(spans, begin), "--curves", begin - HOUR // 2, begin + 3 * HOUR, 20],
    )
    names = ("before", "during", "minute", "hour", "later")
    kinds = ("requests", "downloads", "failed")
    kept = {kind: dict(zip(names, result[kind]["windows"])) for kind in kinds}
    return kept | {"curve": result["requests"]["curves"][0]["max"]}


def measure(bench):
    simulator = Simulator(bench)
    neighbours = range(118, 121) if bench.smoke else NEIGHBOURS
    starts = {name: measure_start(simulator, name, arguments) for name, arguments in STARTS.items()}
    return {
        "daemons": simulator.daemons,
        "starts": starts,
        "sizes": list(measure_sizes(simulator, starts)),
        "settings": list(measure_settings(simulator, JITTERS, OWN)),
        "settings_one": list(measure_settings(simulator, COMPARED, ONE)),
        "neighbours": [measure_setting(simulator, 900, jitter, simulator.daemons // 10) for jitter in neighbours],
        "outages": {name: measure_outage(simulator, arguments) for name, arguments in OUTAGES.items()},
    }


def orbit_means(interval, jitter):
    """The jitter of one process, check by check, when checks take no time: the mean of each cycle that it ends in."""
    means = set()
    for value in range(jitter):
        for _ in range(2 * jitter):
            value = (2 * value + interval) % jitter
        start, values = value, [value]
        while (value := (2 * value + interval) % jitter) != start:
            values.append(value)
        means.add((round(sum(values) / len(values), 2), tuple(sorted(values))))
    return means


def _rate(rates, name):
    return f"{rates[name]:,.0f}"


def _minutes(seconds):
    return "never" if seconds is None else f"{seconds / 60:.1f}"


def _start_rows(starts):
    for name, start in starts.items():
        last = start["last"]
        yield (
            name,
            _rate(start["first"], "max"),
            *(_rate(last, key) for key in ("mean", "p50", "p99", "p999", "max")),
            f"{peak_to_mean(last):.1f}",
        )


def _release_rows(starts):
    for name, start in starts.items():
        times = (_minutes(start["release"][share]) for share in ("50", "90", "99", "100"))
        yield name, *times, f"{start['downloads']:,}"


def _setting_rows(settings):
    for setting in settings:
        rates, release = setting["rates"], setting["release"]
        yield (
            f"{setting['interval']}, {setting['jitter']}",
            *(_rate(rates, key) for key in ("mean", "p50", "p99", "max")),
            f"{peak_to_mean(rates):.2f}",
            *(_minutes(release[share]) for share in ("50", "99", "100")),
        )


def _compared_rows(results):
    for interval in INTERVALS:
        wanted = [jitter_of(name, interval) for name in COMPARED]
        ratios = {
            kind: {s["jitter"]: peak_to_mean(s["rates"]) for s in results[kind] if s["interval"] == interval}
            for kind in ("settings", "settings_one")
        }
        cells = (f"{ratios[kind][jitter]:,.2f}" for kind in ratios for jitter in wanted)
        own = ratios["settings"]
        best = min(own, key=own.get)
        yield f"{interval}", *cells, f"{own[best]:.2f} ({best})"


def _outage_rows(outages):
    for name, outage in outages.items():
        requests, downloads, failed = (outage[kind] for kind in ("requests", "downloads", "failed"))
        yield (
            name,
            _rate(requests["before"], "max"),
            _rate(requests["during"], "mean"),
            _rate(failed["during"], "mean"),
            _rate(downloads["during"], "mean"),
            _rate(requests["minute"], "max"),
            _rate(requests["hour"], "max"),
            _rate(downloads["hour"], "max"),
            _rate(requests["later"], "max"),
        )


def _plot_week(starts, plots):
    figure, axes = plots.figure("The busiest second of each hour", "days since the start", "requests in a second")
    axes.set(yscale="log")
    for name in SHOWN:
        hours = starts[name]["week"]
        axes.plot([hour / 24 for hour in range(len(hours))], [max(1, value) for value in hours], label=name)
    return plots.save(figure, "fleet_week", "The busiest second of each hour of a week, by the way the fleet started")


def _plot_end(starts, plots):
    figure, axes = plots.figure("After a week", "minutes", "requests in the busiest of 5 seconds")
    axes.set(yscale="symlog", ylim=(0, 1e8))  # room for the legend
    for name in SHOWN:
        curve = starts[name]["end"]
        axes.plot([number / 12 for number in range(len(curve))], curve, label=name, linewidth=1)
    from matplotlib import rc_context  # which takes a second to load, as plots does

    with rc_context({"legend.loc": "upper right"}):
        return plots.save(figure, "fleet_end", "Requests in a second over the last hour of the week")


def _plot_neighbours(neighbours, plots):
    figure, axes = plots.figure("Peak to mean, interval 900", "poll_jitter_s", "peak / mean")
    for odd, label in ((1, "odd"), (0, "even")):
        chosen = [setting for setting in neighbours if setting["jitter"] % 2 == odd]
        ratios = [peak_to_mean(setting["rates"]) for setting in chosen]
        axes.plot([setting["jitter"] for setting in chosen], ratios, "o", label=label)
    return plots.save(figure, "fleet_jitter", "Peak to mean of the requests a day after a start at once, by the jitter")


def _plot_outages(outages, plots):
    figure, axes = plots.figure("The mirror fails", "minutes since", "answers in the busiest of 20 seconds")
    highest = 0
    for name, outage in outages.items():
        if "6 h" not in name:
            curve = outage["curve"]
            axes.plot([number / 3 - 30 for number in range(len(curve))], curve, label=name, linewidth=1)
            highest = max(highest, *curve)
    axes.set(ylim=(0, 1.8 * highest))  # room for the legend
    return plots.save(figure, "fleet_outage", "Requests in a second around failures of the mirror")


def _defaults_orbits():
    orbits = orbit_means(900, 120)
    values = {value for _, orbit in orbits for value in orbit}
    means = sorted({mean for mean, _ in orbits})
    return f"{len(values)} of 120 values, in {len(orbits)} cycles, whose means are {', '.join(map(str, means))} s"


def _of_seconds(rates):
    median, mean = _rate(rates, "p50"), _rate(rates, "mean")
    return f"the median second sees {median} requests, the busiest {_rate(rates, 'max')}, at a mean of {mean}"


def _assumptions(results):
    return prose(
        f"""{results["daemons"]:,} daemons with the default `poll_interval_s` of 900 and `poll_jitter_s` of 120 where
        nothing else is said. The schedule is the loop's, second by second (`tests/bench/test_fleet_schedule.py`).
        Assumed besides: a check takes 20 to 120 ms, each second of a wait ends 60 µs late, the clock that the jitter
        follows is never behind (time(2) is, by up to a tick of the kernel), process ids are uniform from 300 to 32767,
        no daemon is ever restarted, and the mirror answers everyone at once, however many ask: what is counted is what
        it has to serve. An overloaded mirror would delay the answers, which spreads the checks that follow."""
    )


def _reasons(starts):
    """Why the default jitter does not spread a fleet."""
    together = f"""The time at the end of a wait holds that wait's jitter: the next one is twice the last plus the
        interval, modulo `poll_jitter_s`. With the defaults, and checks that end in the second in which they begin, that
        leaves {_defaults_orbits()}: no gateway gains on another. A week after a start at once
        {_of_seconds(starts["at once"]["last"])}."""
    one = f"""Where all have one process id, as in containers, the clock alone decides. Of those that started over a
        day, a week later {_of_seconds(starts["all process 1, over a day"]["last"])}."""
    first = f"""2654435761 mod 120 is {2654435761 % 120}: with the defaults the jitter is (process id + time) mod 120,
        so that two machines whose process ids are the same modulo 120 and which start in the same second check in the
        same second, until one of them is late by enough to see the clock's next second."""
    return "\n".join(prose(f"- {text}").replace("\n", "\n  ") for text in (first, together, one))


COMPARED_HEAD = ("`poll_interval_s`", *map(str, COMPARED), *(f"{name}, one id" for name in COMPARED), "least")


def render(results, plots):
    return f"""\
{_assumptions(results)}

### How the fleet started, a week later

Requests in a second, on the last of seven days; the first column is the first hour's peak.

{table(("Start", "first", "mean", "p50", "p99", "p99.9", "peak", "peak / mean"), *_start_rows(results["starts"]))}
{_plot_week(results["starts"], plots)}
{_plot_end(results["starts"], plots)}
The jitter is (process id × 2654435761 + time) mod `poll_jitter_s`, taken when a check ends. Three things follow:

{_reasons(results["starts"])}

With an odd `poll_jitter_s` the doubling never loses a value, and multiplies each second of lateness instead of
swallowing it. How soon that spreads a fleet depends on the interval and on the size of the jitter:

### What the two keys buy

On the second day after a start at once, and minutes until a release has reached a share of the fleet.

{table(("`poll_interval_s`, `poll_jitter_s`", "mean", "p50", "p99", "peak", "peak / mean", "50 %", "99 %", "100 %"),
       *_setting_rows(results["settings"]))}
Peak / mean of the same by `poll_jitter_s`, then where all have one process id, and the least of the table above with
its jitter:

{table(COMPARED_HEAD, *_compared_rows(results))}
{_plot_neighbours(results["neighbours"], plots)}
### A release

Minutes until a release after half of the week has reached a share of the fleet, and the archives asked for in the
busiest second.

{table(("Start", "50 %", "90 %", "99 %", "100 %", "archives a second"), *_release_rows(results["starts"]))}
### The mirror fails

A fleet that started over a day, two days later. A failed check is no exception: it waits as long as any other, so a
mirror that refuses connections is met by the same checks as before, and none is made up for. A silent one is asked
again by TCP, after 1, 3, 7, 15, 31 and 63 s, and given up after 127 s, as by Linux before 6.5 (Debian 12 has 6.1);
later ones ask more often at first. A release that cannot be used is downloaded again by each check; if it ends the
check in an exception, the waits shrink to an eighth.

{table(("The mirror", "peak before", "requests/s", "failed/s", "archives/s", "peak, first minute", "peak, first hour",
        "archives/s, peak", "peak, next 6 h"), *_outage_rows(results["outages"]))}
{_plot_outages(results["outages"], plots)}"""

"""What the simulated mirror is asked, for fleets so plain that it can be told by hand; and what is computed from it."""

import re
import subprocess
import sys

import pytest
from builds import REPOSITORY
from gateway import BUILD
from simulator import simulate

sys.path.append(str(REPOSITORY / "bench"))
import fleet_sizing  # noqa: E402  (after the path)

# A hundred daemons, exactly every 900 seconds for an hour.
PLAIN = ["--daemons", 100, "--days", 3600 / 86400, "--interval", 900, "--jitter", 0, "--start-spread", 1e-6]


def counts(kind, *arguments):
    """The seconds in which something of that kind happened, with how often."""
    result = simulate("run", *PLAIN, *arguments, "--curves", 0, 3600, 1)
    return {second: count for second, count in enumerate(result[kind]["curves"][0]["max"]) if count}


def test_each_check_is_a_request():
    assert counts("requests") == {0: 100, 900: 100, 1800: 100, 2700: 100}


def test_release_costs_two_requests_more_of_each_daemon_once():
    release = ["--release", 1000]
    assert counts("requests", *release) == {0: 100, 900: 100, 1800: 300, 2700: 100}
    assert counts("downloads", *release) == {1800: 100}
    reached = simulate("run", *PLAIN, *release)["release"]
    assert reached == {"updated": 100, "50": 800.0, "90": 800.0, "99": 800.0, "100": 800.0}


def test_release_that_came_too_late_has_reached_nobody():
    reached = simulate("run", *PLAIN, "--release", 2701)["release"]
    assert reached == {"updated": 0, "50": None, "90": None, "99": None, "100": None}


def test_refused_checks_keep_their_times():
    outage = ["--outage", 800, 1000]
    assert counts("requests", *outage) == {0: 100, 1800: 100, 2700: 100}
    assert counts("failed", *outage) == {900: 100}


@pytest.mark.parametrize(
    "end, answered, later", [(901, 901, 1801), (902, 903, 1803), (905, 907, 1807), (963, 963, 1863), (964, None, 1927)]
)
def test_silent_mirror_answers_the_first_retry_after_its_return(end, answered, later):
    outage = ["--silent", "--outage", 899, end]
    expected = {0: 100, **({answered: 100} if answered else {}), later: 100, later + 900: 100}
    assert counts("requests", *outage) == expected
    assert counts("failed", *outage) == {900: 100}


def test_release_with_a_wrong_digest_is_downloaded_by_each_check():
    assert counts("downloads", "--bad-release", 800, 2000) == {900: 100, 1800: 100}


def test_release_that_ends_checks_in_exceptions_is_downloaded_ever_sooner():
    bad = ["--bad-throws", "--bad-release", 800, 2600]
    seconds = [900, 1800, 2250, 2475, 2587]
    assert counts("downloads", *bad) == {second: 100 for second in seconds}
    assert counts("requests", *bad)[2587 + 112] == 100


def test_start_over_a_day_fills_every_hour_of_it_and_no_other():
    once_each = ["--daemons", 2400, "--days", 2, "--start-spread", 86400, "--interval", 2 * 86400, "--jitter", 0]
    result = simulate("run", *once_each, "--curves", 0, 2 * 86400, 3600)["requests"]
    hours = [round(3600 * mean) for mean in result["curves"][0]["mean"]]
    assert (sum(hours), hours[24:]) == (2400, [0] * 24)
    assert min(hours[:24]) > 60 and max(hours[:24]) < 140  # 100 ± 4 standard deviations


@pytest.mark.parametrize(
    "poll",
    [
        *(["--interval", 0, "--jitter", 0], ["--interval", 0, "--jitter", 61], ["--interval", 7, "--jitter", 1]),
        ["--interval", 2**32 - 1, "--jitter", 2],
    ],
)
def test_fleet_that_would_never_get_on_is_refused(poll):
    command = [BUILD / "zqu_fleet_simulator", "run", "--daemons", "1", "--days", "1", *map(str, poll)]
    process = subprocess.run(command, capture_output=True, text=True, timeout=10)
    assert (process.returncode, process.stdout) == (1, "")
    assert process.stderr == "zqu_fleet_simulator: neither waits nor checks need take any time\n"


TIME = "a time is negative or beyond the longest simulation"


@pytest.mark.parametrize(
    ("arguments", "said"),
    [
        (["--days", "nan"], TIME),
        *((["--start-spread", spread], TIME) for spread in ("-1", "1e300")),
        *((["--check", *span], TIME) for span in (["-5000", "1"], ["0", "inf"])),
        *((["--wave-gap", gap], TIME) for gap in ("-100", "9e12")),
        *((["--download", "nan"], TIME), (["--release", "nan"], TIME), (["--outage", "-1", "5"], TIME)),
        *((["--outage", "5", "1"], "a range is empty"), (["--bad-release", "5", "1"], "a range is empty")),
        (["--windows", "0", "10", "5"], "--windows takes 2 numbers for each"),
        (["--curves", "0", "10"], "--curves takes 3 numbers for each"),
    ],
)
def test_numbers_that_mean_nothing_are_refused(arguments, said):
    days = [] if "--days" in arguments else ["--days", "0.01"]
    command = [BUILD / "zqu_fleet_simulator", "run", "--daemons", "1", *days, *arguments]
    process = subprocess.run(command, capture_output=True, text=True, timeout=10)
    assert (process.returncode, process.stdout) == (1, "")
    assert process.stderr == f"zqu_fleet_simulator: {said}\n"


def test_bin_longer_than_the_simulation_is_cut_to_it():
    curve = simulate("run", *PLAIN, "--curves", 100, 3600, 2**64 - 2)["requests"]["curves"][0]
    assert curve == {"from_s": 100, "bin_s": 3600, "mean": [300 / 3500], "max": [100]}


def test_result_that_cannot_be_printed_is_an_error():
    with open("/dev/full", "w") as full:
        command = [BUILD / "zqu_fleet_simulator", "waits"]
        process = subprocess.run(command, input="", stdout=full, stderr=subprocess.PIPE, text=True)
    assert (process.returncode, process.stderr) == (1, "zqu_fleet_simulator: the result cannot be printed\n")


def test_waves_start_apart():
    assert counts("requests", "--waves", 4, "--wave-gap", 10)[30] == 25


def test_lateness_and_the_length_of_checks_add_up():
    assert list(counts("requests", "--check", 2, 2, "--oversleep-us", 10_000)) == [0, 911, 1822, 2733]


def test_percentiles_are_of_seconds():
    rates = simulate("run", *PLAIN, "--windows", 0, 100, 0, 1000)["requests"]["windows"]
    names = ("mean", "p50", "p99", "p999", "max", "max_at_s", "total")
    assert [[window[name] for name in names] for window in rates] == [
        [1.0, 0, 0, 100, 100, 0, 100],
        [0.2, 0, 0, 100, 100, 0, 200],
    ]


def test_history_does_not_depend_on_the_number_of_threads():
    fleet = ["--daemons", 1000, "--days", 1, "--pids", 1, 9999, "--check", 0, 5, "--release", 40000]
    one, three = (simulate("run", *fleet, "--threads", threads, "--curves", 0, 86400, 60) for threads in (1, 3))
    assert one == three


def test_sizes_are_of_the_default_waits():
    waits = simulate("waits", lines=[f"1 {second} ok\n" for second in range(1000)])
    assert (min(waits), max(waits) - min(waits) + 1) == (fleet_sizing.INTERVAL_S, fleet_sizing.JITTER_S)


def test_busiest_second_of_a_small_fleet_is_its_own():
    sizes = fleet_sizing.kept("fleet_simulated")["sizes"]
    for start in ("over a day", "at once"):
        few, *_, many = [size["peak"] for size in sizes if size["start"] == start]
        assert few > 1.5 * many / 1000, start


def test_sizes_without_counted_bytes_tell_none():
    real = fleet_sizing.kept("fleet_real")
    for phase in ("full", "steady"):
        real[phase].pop("packets", None)
    text = fleet_sizing.section(real, fleet_sizing.kept("fleet_simulated"))
    assert "its bytes were not counted, for which `scripts/bench` has to be run as root." in " ".join(text.split())
    rows = [line.split(" | ") for line in text.splitlines() if re.match(r"\| [\d,]+ \|", line)]
    assert [row[6] for row in rows if len(row) == 9] == ["not counted"] * len(fleet_sizing.GATEWAYS)
    assert not re.search(r"\b(nan|inf|None)\b", text)


def test_sizes_in_the_manual_follow_from_the_figures_that_are_kept():
    expected = fleet_sizing.section(fleet_sizing.kept("fleet_real"), fleet_sizing.kept("fleet_simulated"))
    assert expected in (REPOSITORY / "docs" / "operations.md").read_text()

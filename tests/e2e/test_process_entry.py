"""The command line, the start-up order, the exit status, and what the process prints."""

import signal
import subprocess

import pytest
from gateway import APART, DAEMON, STARTED, STOPPED, Gateway, configuration, may_mount
from outcomes import NO_FILE

DEFAULT_CONFIG = "/usr/local/zelgw/opt/av/quorin/etc/zel_quorin_updater.conf"
OPENED = "open zel_quorin_updater 3 24"
REASON = "mirror_base_url is not set (the updater will idle, performing no checks)"
USAGE = "usage: {} [--config <file>] [--once]\n"
QUIET = ["strace", "-f", "-qq"]


def get_of(flavor, base="", text="URL using bad/illegal format or missing URL"):
    return f"err GET {base}/x/antivir-{flavor}-hit.ini: {text}"


# All calls of a cycle, except the options of the transfer.
IDLE_CYCLE = [
    'openlog "zel_quorin_updater" 3 24',
    OPENED,
    f"warning config: {REASON}",
    "signal 15",
    "signal 2",
    "curl_global_init 3",
    "curl_easy_init",
    "curl_easy_reset",
    "curl_easy_perform",
    get_of("v2"),
    "closelog",
    "close",
    "curl_easy_cleanup",
    "curl_global_cleanup",
]


@pytest.fixture
def idle(tmp_path):
    """A gateway without a mirror: its cycle fails at once and without a request."""
    return Gateway(tmp_path, mirror_base_url="", mirror_subdir="x")


def run(gateway, *words, name=DAEMON, **options):
    """A run from the gateway's directory under that name, which must succeed; its output and the whole log."""
    process = subprocess.run(
        [name, *words],
        executable=DAEMON,
        cwd=gateway.directory,
        env=gateway.environment(**options),
        capture_output=True,
        text=True,
        timeout=120,
    )
    assert (process.returncode, process.stderr) == (0, "")
    return process.stdout, whole_log(gateway)


def whole_log(gateway):
    lines = gateway.log_path.read_text().splitlines() if gateway.log_path.exists() else []
    gateway.log_path.unlink(missing_ok=True)
    return lines


@pytest.mark.parametrize(
    "name, words",
    [(DAEMON, ["--help"]), ("another name", ["--help"]), (DAEMON, ["--once", "--help", "--config"])],
    ids=["alone", "other_name", "after_once"],
)
def test_help_prints_the_usage_and_nothing_else_happens(idle, name, words):
    assert run(idle, *words, name=name) == (USAGE.format(name), [])
    assert not idle.root.exists()


ODD = ["-h", "--version", "help", "--Help", "-c", "--config=/nowhere", "--onc", "--once=1", "", "file", "--"]


@pytest.mark.parametrize(
    "name, words",
    [
        (DAEMON, ["--once", "--config", "updater.conf"]),
        ("--help", ["--once", "--config", "updater.conf"]),  # the name of the program is no argument
        (DAEMON, [*ODD, "--config", "updater.conf", *ODD, "--once", *ODD]),
    ],
    ids=["plain", "named_help", "unknown_words"],
)
def test_once_makes_just_these_calls_and_exits_with_zero(idle, name, words):
    assert idle.config_path.name == "updater.conf"
    output, log = run(idle, *words, name=name, calls=True)
    assert output == ""
    assert [line.split(" 0x")[0] for line in log if not line.startswith("curl_easy_setopt")] == IDLE_CYCLE
    idle.expect_status("", "defId fetch failed")


@pytest.mark.parametrize(
    "words, flavor",
    [
        (["--config", "b", "--once", "--config"], "b"),
        (["--config", "a", "--once", "--config", "b"], "b"),
        *((["--config", name, "--once"], name) for name in ("--help", "--once", "--config")),
    ],
)
def test_last_config_with_a_value_counts_whatever_its_name(idle, words, flavor):
    for name in ("a", "b", "--help", "--once", "--config"):
        (idle.directory / name).write_text(configuration({**idle.settings, "flavor": name}))
    output, log = run(idle, *words)
    assert (output, log[2]) == ("", get_of(flavor))


def test_unreadable_configuration_is_one_warning(idle, tmp_path):
    """The defaults apply then. They might name a real installation: no directory is made, and no cycle begins."""
    path = tmp_path / "none.conf"
    prefix = [*QUIET, "-o", "/dev/null", "-e", "inject=mkdir:error=EACCES"]
    process = idle.run("--config", path, prefix=prefix, calls=True, ZQU_FAULT="curl_global_init:1:term")
    assert (process.returncode, process.stdout, process.stderr) == (0, "", "")
    assert [line for line in whole_log(idle) if line.startswith(("warning", "err", "info"))] == [
        f"warning could not read config {path}; using defaults",
        STARTED.format(900, 120),
        STOPPED,
    ]


@pytest.mark.parametrize("words", [[], ["--once"], ["--config"], ["--once", "--config"]], ids=" ".join)
def test_without_a_value_the_default_configuration_is_read(idle, words):
    assert len(DEFAULT_CONFIG) == 58
    prefix = [*QUIET, "-P", DEFAULT_CONFIG, "-e", "trace=openat", "-e", "inject=openat:signal=KILL"]
    # A daemon that opens another file is ended before it can change anything.
    process = idle.run(*words, prefix=prefix, calls=True, ZQU_FAULT="signal:1:term")
    assert f'openat(AT_FDCWD, "{DEFAULT_CONFIG}", O_RDONLY)' in process.stderr
    assert process.stdout == ""


@pytest.mark.parametrize("value", ["", "soon", "99999999999999999999"])
def test_malformed_number_ends_the_process_at_once(idle, value):
    idle.settings["http_timeout_s"] = value
    process = idle.run("--config", idle.config_path, "--once")
    assert (process.returncode, process.stdout) == (-signal.SIGABRT, "")
    assert "stoul" in process.stderr  # the run-time library's own words
    assert whole_log(idle) == [OPENED]
    assert not idle.root.exists()


@pytest.mark.skipif(not may_mount(), reason="needs the right to make namespaces of its own")
def test_read_error_keeps_the_settings_on_the_whole_lines(gateway):
    """The second block cannot be read; a line begins in the first and would end in it."""
    gateway.settings.update(mirror_base_url="file:///nowhere", mirror_subdir="x", flavor="v3")
    path = gateway.config_path
    text = path.read_text()
    comment = "#" * (8191 - len(text) - len("\nflavor = cu")) + "\nflavor = cut short\n"
    path.write_text(text + comment + "#" * 20_000)
    rule = ["-e", "trace=read", "-P", path, "-e", "inject=read:error=EIO:when=2+"]
    process = gateway.run("--config", path, "--once", prefix=[*APART, *QUIET, "-o", "/dev/null", *rule])
    assert process.returncode == 0
    assert gateway.take_log() == [get_of("v3", "file:///nowhere", NO_FILE)]

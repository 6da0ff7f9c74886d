"""The command line, the start-up order, the exit status, and what the process prints."""

import signal
import subprocess

import pytest
from gateway import APART, DAEMON, Gateway, may_mount

DEFAULT_CONFIG = "/usr/local/zelgw/opt/av/quorin/etc/zel_quorin_updater.conf"
OPENED = "open zel_quorin_updater 3 24"
REASON = "mirror_base_url is not set (the updater will idle, performing no checks)"
IDLE_GET = "err GET /x/antivir-v2-hit.ini: URL using bad/illegal format or missing URL"


@pytest.fixture
def idle(tmp_path):
    """A gateway without a mirror: its cycle fails at once and without a request."""
    return Gateway(tmp_path, mirror_base_url="", mirror_subdir="x")


def whole_log(gateway):
    lines = gateway.log_path.read_text().splitlines()
    gateway.log_path.unlink()
    return lines


def config_with(tmp_path, name, **settings):
    """A configuration file of that name; its mirror does not exist, and its flavor shows in the log."""
    folder = tmp_path / f"gateway of {name}"
    folder.mkdir()
    path = tmp_path / name
    settings = {"def_root": folder / "defs", "status_path": folder / "status", "mirror_subdir": "x", **settings}
    path.write_text("".join(f"{key} = {value}\n" for key, value in {"mirror_base_url": "", **settings}.items()))
    return path


def get_of(flavor):
    return f"err GET /x/antivir-{flavor}-hit.ini: URL using bad/illegal format or missing URL"


def test_help_prints_the_usage_and_nothing_else_happens(idle):
    process = idle.run("--help")
    assert (process.returncode, process.stdout, process.stderr) == (
        0,
        f"usage: {DAEMON} [--config <file>] [--once]\n",
        "",
    )
    assert not idle.log_path.exists()


def test_help_names_the_program_as_it_was_called(idle, tmp_path):
    process = subprocess.run(
        ["another name", "--help"], executable=DAEMON, env=idle.environment(), capture_output=True, text=True
    )
    assert process.stdout == "usage: another name [--config <file>] [--once]\n"


def test_name_of_the_program_is_no_argument(idle):
    process = subprocess.run(
        ["--help", "--once", "--config", idle.config_path],
        executable=DAEMON,
        env=idle.environment(),
        capture_output=True,
        text=True,
    )
    assert (process.returncode, process.stdout, process.stderr) == (0, "", "")
    assert whole_log(idle) == [OPENED, f"warning config: {REASON}", IDLE_GET, "close"]


def test_help_after_once_runs_no_cycle(idle):
    process = idle.run("--config", idle.config_path, "--once", "--help", "--config")
    assert (process.returncode, process.stderr) == (0, "")
    assert process.stdout.startswith("usage: ")
    assert not idle.log_path.exists()
    assert not idle.root.exists()


def test_once_runs_one_cycle_and_exits_with_zero(idle):
    process = idle.run("--once", "--config", idle.config_path)
    assert (process.returncode, process.stdout, process.stderr) == (0, "", "")
    assert whole_log(idle) == [OPENED, f"warning config: {REASON}", IDLE_GET, "close"]
    idle.expect_status("", "defId fetch failed")


# Where the defaults would lead to a real installation, nothing may be touched: no directory is made, and the daemon is
# ended before its first cycle.
UNTOUCHED = ["strace", "-f", "-qq", "-o", "/dev/null", "-e", "inject=mkdir:error=EACCES"]


def test_unreadable_configuration_is_one_warning_and_the_defaults_serve(idle, tmp_path):
    path = tmp_path / "none.conf"
    process = idle.run("--config", path, prefix=UNTOUCHED, calls=True, ZQU_FAULT="curl_global_init:1:term")
    assert (process.returncode, process.stdout, process.stderr) == (0, "", "")
    assert [line for line in whole_log(idle) if line.startswith(("warning", "err", "info"))] == [
        f"warning could not read config {path}; using defaults",
        "info zel_quorin_updater loop started (interval=900s jitter=120s)",
        "info zel_quorin_updater loop stopped",
    ]


@pytest.mark.parametrize("words", [[], ["--once"], ["--config"], ["--once", "--config"]])
def test_without_a_value_the_configuration_file_is_the_default_one(idle, words):
    assert len(DEFAULT_CONFIG) == 58
    prefix = ["strace", "-f", "-qq", "-P", DEFAULT_CONFIG, "-e", "trace=openat", "-e", "inject=openat:signal=KILL"]
    # A daemon that opens another file is ended before it could touch anything.
    process = idle.run(*words, prefix=prefix, calls=True, ZQU_FAULT="signal:1:throw")
    assert f'openat(AT_FDCWD, "{DEFAULT_CONFIG}", O_RDONLY)' in process.stderr
    assert process.stdout == ""


def test_config_without_a_value_keeps_an_earlier_one(idle, tmp_path):
    process = idle.run("--config", config_with(tmp_path, "b.conf", flavor="b"), "--once", "--config")
    assert (process.returncode, process.stdout, process.stderr) == (0, "", "")
    assert whole_log(idle)[2] == get_of("b")


def test_later_config_overrides_an_earlier_one(idle, tmp_path):
    a, b = (config_with(tmp_path, name, flavor=name) for name in ("a", "b"))
    process = idle.run("--config", a, "--once", "--config", b)
    assert process.returncode == 0
    assert whole_log(idle)[2] == get_of("b")


@pytest.mark.parametrize("name", ["--help", "--once", "--config"])
def test_config_takes_the_next_word_whatever_it_is(idle, tmp_path, name):
    config_with(tmp_path, name, flavor="seen")
    process = subprocess.run(
        [DAEMON, "--config", name, "--once"], env=idle.environment(), cwd=tmp_path, capture_output=True, text=True
    )
    assert (process.returncode, process.stdout) == (0, "")
    assert whole_log(idle)[2] == get_of("seen")


def test_unknown_words_are_as_if_absent(idle):
    words = ["-h", "help", "--Help", "-c", "--config=/nowhere", "--onc", "--once=1", "", "file", "--"]
    process = idle.run(*words, "--config", idle.config_path, *words, "--once", *words)
    assert (process.returncode, process.stdout, process.stderr) == (0, "", "")
    assert whole_log(idle) == [OPENED, f"warning config: {REASON}", IDLE_GET, "close"]


def test_invalid_configuration_is_one_warning_and_the_daemon_runs(idle):
    idle.settings["flavor"] = ""
    idle.settings["mirror_base_url"] = "file:///nowhere"
    assert idle.run_once() == [
        "warning config: flavor is not set",
        "err GET file:///nowhere/x/antivir--hit.ini: Couldn't read a file:// file",
    ]


@pytest.mark.parametrize("value", ["", "soon", "99999999999999999999"])
def test_malformed_number_ends_the_process_before_anything_is_done(idle, value):
    idle.settings["http_timeout_s"] = value
    process = idle.run("--config", idle.config_path, "--once")
    assert process.returncode == -signal.SIGABRT
    assert process.stdout == ""
    assert "stoul" in process.stderr  # the run-time library's own words
    assert whole_log(idle) == [OPENED]
    assert not idle.root.exists()


def test_start_up_and_end_keep_their_order(idle):
    process = idle.run("--config", idle.config_path, "--once", calls=True)
    assert process.returncode == 0
    calls = [line for line in whole_log(idle) if not line.startswith(("curl_easy_setopt", "open ", "close"))]
    names = [line.split(" 0x")[0] for line in calls if not line.startswith("closelog")]
    assert names == [
        'openlog "zel_quorin_updater" 3 24',
        f"warning config: {REASON}",
        "signal 15",
        "signal 2",
        "curl_global_init 3",
        "curl_easy_init",
        "curl_easy_reset",
        "curl_easy_perform",
        IDLE_GET,
        "curl_easy_cleanup",
        "curl_global_cleanup",
    ]


def test_log_is_closed_before_the_transfer_handle_is_released(idle):
    idle.run("--config", idle.config_path, "--once", calls=True)
    names = [line.split(" 0x")[0] for line in whole_log(idle)]
    assert names[names.index(IDLE_GET) + 1 :] == ["closelog", "close", "curl_easy_cleanup", "curl_global_cleanup"]


@pytest.mark.skipif(not may_mount(), reason="needs the right to make namespaces of its own")
def test_read_error_keeps_the_settings_on_the_whole_lines_before_it(gateway):
    """The second block cannot be read; a line begins in the first and would end in it."""
    gateway.settings.update(mirror_base_url="file:///nowhere", mirror_subdir="x", flavor="v3")
    path = gateway.config_path
    text = path.read_text()
    comment = "#" * (8191 - len(text) - len("\nflavor = cu")) + "\nflavor = cut short\n"
    path.write_text(text + comment + "#" * 20_000)
    rule = ["-e", "trace=read", "-P", path, "-e", "inject=read:error=EIO:when=2+"]
    process = gateway.run("--config", path, "--once", prefix=[*APART, "strace", "-f", "-qq", "-o", "/dev/null", *rule])
    assert process.returncode == 0
    url = "file:///nowhere/x/antivir-v3-hit.ini"
    assert gateway.take_log() == [f"err GET {url}: Couldn't read a file:// file"]

"""What all tools of the operators have: help, version, refusals of a wrong command line, and completion."""

import re
import shlex

import pytest
from builds import REPOSITORY
from mirror_tool import DOTS_RULE, HIT_RULE, NAME_RULE
from tools import Tool

VERSION = re.search(r"\((.+?)\)", (REPOSITORY / "debian" / "changelog").read_text())[1]
DURATION = "{} is not a duration, such as 90, 5m, 2h, 1d or 1w"
# Command lines, and the error messages.
REFUSED = {
    "zqu-mirror": "A subcommand is required",
    "zqu-mirror frob": "there is no command frob",
    "zqu-mirror publish m a b": "--id is required",
    "zqu-mirror publish --id 1 https://mirror.example a b": "MIRROR: must be a directory",
    "zqu-mirror prune ''": "MIRROR: must be a directory",
    "zqu-mirror mirror http://mirror.example m": "UPSTREAM: must be an https or a file URL",
    "zqu-mirror mirror --timeout 5x file:///srv/mirror m": "--timeout: " + DURATION.format("5x"),
    "zqu-mirror repair --from http://mirror.example m": "--from: must be an https or a file URL",
    "zqu-mirror repair": "MIRROR is required",
    "zqu-mirror activate m": "ID is required",
    "zqu-mirror activate m a/b": f"ID: {NAME_RULE}",
    "zqu-mirror activate m ..": f"ID: {DOTS_RULE}",
    "zqu-mirror activate m x-hit": f"ID: {HIT_RULE}",
    "zqu-mirror activate m x.delta": "ID: must not end in .delta",
    "zqu-mirror rollout m 1": "ACTION: 1 not in {10,50,100,withdraw}",
    "zqu-mirror check --max-rollout 1d https://mirror.example": "--max-rollout requires the mirror's directory",
    "zqu-mirror check /nonexistent": "MIRROR: must be a directory or an http, https or file URL",
    "zqu-mirror check --max-age 1d /": "--max-age requires --nagios, --prometheus or --trust",
    "zqu-mirror check --json --quiet /": "--quiet excludes --json",
    "zqu-mirror check --json --prometheus /": "--json excludes --prometheus",
    "zqu-mirror prune --keep 0 m": "--keep: Value 0 not in range 1 to 1000000",
    "zqu-mirror prune --older-than d m": "--older-than: " + DURATION.format("d"),
    "zqu-mirror prune --older-than -1d m": "--older-than: " + DURATION.format("-1d"),
    "zqu-mirror prune --grace 1y m": "--grace: " + DURATION.format("1y"),
    "zqu-mirror list --grace '' m": "--grace: " + DURATION.format(""),
    "zqu-mirror list file:///srv/mirror": "MIRROR: must be a directory",
    "zqu-config": "A subcommand is required",
    "zqu-config check --json --quiet": "--json excludes --quiet",
    "zqu-config check --timeout 5": "--timeout requires --online",
    "zqu-config check --online --timeout 0": "--timeout: 0 is too short",
    "zqu-config check --online --timeout 5y": "--timeout: " + DURATION.format("5y"),
    "zqu-config check a b": "The following argument was not expected: b",
    "zqu-status --warn-age x": "--warn-age: " + DURATION.format("x"),
    "zqu-status --crit-age 5y": "--crit-age: " + DURATION.format("5y"),
    "zqu-status --warn-check 5mm": "--warn-check: " + DURATION.format("5mm"),
    "zqu-status --crit-check 12345678901": "--crit-check: " + DURATION.format("12345678901"),
    "zqu-status --json --quiet": "--json excludes --quiet",
    "zqu-status --timeout 5": "--timeout requires --verify",
    "zqu-status --verify --timeout 0": "--timeout: 0 is too short",
    "zqu-status --json --prometheus": "--json excludes --prometheus",
    "zqu-status word": "The following argument was not expected: word",
}


@pytest.mark.parametrize("line", REFUSED)
def test_wrong_command_line_is_refused(tmp_path, line):
    name, *words = shlex.split(line)
    code, out, err = Tool(name)(*words, cwd=tmp_path)
    assert (code, out) == (3 if name == "zqu-status" else 2, "")
    command = words[0] if words and "there is no command" not in REFUSED[line] and not words[0].startswith("-") else ""
    command = command if name != "zqu-status" else ""
    err = err.replace("[1 - 1000000]", "1 to 1000000")  # CLI11's words of two releases
    assert err == f"{name}: {REFUSED[line]} (see {' '.join(filter(None, [name, command]))} --help)\n"
    assert list(tmp_path.iterdir()) == []


# The commands of each tool, what its help says of the exit status, and the status when output is lost.
HELP = {
    "zqu-config": (["check", "show"], "", 2),
    "zqu-mirror": ("publish mirror rollout activate repair prune list check".split(), "Exit status: 0 done", 1),
    "zqu-status": ([], "Exit status: 0 ok, 1 warning, 2 critical, 3 unknown", 3),
}


@pytest.mark.parametrize("name", HELP)
def test_help_and_version_are_answered(tmp_path, name):
    tool = Tool(name)
    commands, exit_status, lost = HELP[name]
    assert tool("--version") == (0, f"{name} {VERSION}\n", "")
    for words in ([], *([command] for command in commands)):
        code, out, err = tool(*words, "--help")
        assert (code, err) == (0, "")
        assert exit_status in out and " ".join([name, *words]) in out
    line = f"{name}: cannot write to standard output: No space left on device\n"
    assert tool.into_full_device("--help") == (lost, line)
    if "show" in commands:
        (tmp_path / "conf").touch()
        assert tool.into_full_device("show", tmp_path / "conf") == (lost, line)


COMMON = "--help --flavor --subdir "
FILES = "a file|other file|the directory"
# Words up to the cursor, separated by bars; what bash offers for the last of them, likewise or by blanks.
COMPLETIONS = {
    "zqu-mirror|": "publish mirror rollout activate repair prune list check",
    "zqu-mirror|-": "--help --version",
    "zqu-mirror|publish|-": COMMON + "--quiet --id --sign --format --deltas --allow-empty --percent --replace",
    "zqu-mirror|mirror|-": COMMON
    + "--quiet --upstream-subdir --ca --timeout --allow-http --trust --max-age --plain --verify --force"
    + " --percent --replace",
    "zqu-mirror|activate|-": COMMON + "--quiet",
    "zqu-mirror|repair|-": COMMON + "--from --upstream-subdir --ca --timeout --allow-http --yes",
    "zqu-mirror|repair|--from|": "",
    "zqu-mirror|repair|--timeout|5": "5s 5m 5h 5d 5w",
    "zqu-mirror|prune|-": COMMON + "--quiet --keep --older-than --grace --dry-run",
    "zqu-mirror|list|-": COMMON + "--grace --json",
    "zqu-mirror|list|": "the directory|",
    "zqu-mirror|check|-": COMMON
    + "--ca --timeout --quiet --json --nagios --prometheus --trust --max-age --max-rollout",
    "zqu-mirror|check|--max-age|2": "2s 2m 2h 2d 2w",
    "zqu-mirror|publish|--id|": "",
    "zqu-mirror|publish|--format|z": "zip zstd",
    "zqu-mirror|prune|--older-than|30": "30s 30m 30h 30d 30w",
    "zqu-mirror|prune|--grace|=|2": "2s 2m 2h 2d 2w",
    "zqu-mirror|prune|t": "the directory|",
    "zqu-mirror|rollout|/m|": "10|50|100|withdraw|the directory",
    "zqu-mirror|publish|--percent|": "1 10 50",
    "zqu-mirror|publish|": FILES,
    "zqu-mirror|mirror|--ca|": FILES,
    "zqu-mirror|mirror|--trust|": FILES,
    "zqu-mirror|check|--ca|=|a f": "a file|",
    "zqu-config|": "check show --help --version",
    "zqu-config|check|--": "--user --online --timeout --json --quiet --help",
    "zqu-config|show|--": "--json --help",
    "zqu-config|check|--user|roo": "root",
    "zqu-config|check|--online|--timeout|3": "30s",
    "zqu-config|check|oth": "other file|",
    "zqu-status|--warn-": "--warn-age --warn-check",
    "zqu-status|--json|--n": "",
    "zqu-status|--json|--o": "--output",
    "zqu-status|--nagios|--": "--help --version --config --output --unit --verify --timeout --warn-age --crit-age "
    "--warn-check --crit-check",
    "zqu-status|--unit|n": "none",
    "zqu-status|--crit-age|4": "4h 4d",
    "zqu-status|--config|a": "a file|",
    "zqu-status|x": "",
}


@pytest.mark.parametrize("line", COMPLETIONS)
def test_completion_offers_what_fits_and_nothing_else(tmp_path, line):
    (tmp_path / "the directory").mkdir()
    for name in ("a file", "other file"):
        (tmp_path / name).touch()
    tool, *words = line.split("|")
    offered = COMPLETIONS[line]
    expected = [word for word in offered.split("|") if word] if "|" in offered else offered.split()
    assert Tool(tool).completed(*words, cwd=tmp_path) == sorted(expected)

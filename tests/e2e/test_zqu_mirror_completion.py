"""The completion of zqu-mirror, asked as bash asks it."""

import subprocess

import pytest
from builds import REPOSITORY

SCRIPT = REPOSITORY / "packaging" / "bash-completion" / "zqu-mirror"
ASK = """
source "$1"; shift
COMP_WORDS=(zqu-mirror "$@")
COMP_CWORD=$#
complete -p zqu-mirror | grep -q -- "-F _zqu_mirror " && _zqu_mirror
printf '%s\\n' "${COMPREPLY[@]}"
"""
COMMANDS = ["publish", "mirror", "prune", "check"]
COMMON = ["--help", "--flavor", "--subdir"]


def completed(*words, cwd):
    """What bash would offer for the last of the words."""
    done = subprocess.run(
        ["bash", "--norc", "-c", ASK, "bash", SCRIPT, *words], cwd=cwd, capture_output=True, text=True, timeout=30
    )
    assert (done.returncode, done.stderr) == (0, "")
    return sorted(done.stdout.split("\n")[:-1]) if done.stdout != "\n" else []


@pytest.fixture
def folder(tmp_path):
    (tmp_path / "a folder").mkdir()
    (tmp_path / "a file").write_text("")
    return tmp_path


@pytest.mark.parametrize(
    "words, offered",
    [
        ([""], COMMANDS),
        (["p"], ["publish", "prune"]),
        (["m"], ["mirror"]),
        (["-"], ["--help", "--version"]),
        (["publish", "-"], [*COMMON, "--id", "--zip"]),
        (["mirror", "-"], [*COMMON, "--upstream-subdir", "--ca", "--timeout"]),
        (["prune", "-"], [*COMMON, "--keep", "--older-than", "--grace", "--dry-run"]),
        (["check", "-"], [*COMMON, "--ca"]),
        (["prune", "--dry-run", "--k"], ["--keep"]),
        (["publish", "--id", ""], []),
        (["prune", "--older-than", "30"], ["30s", "30m", "30h", "30d", "30w"]),
        (["prune", "--older-than", ""], []),
        (["prune", "--grace", "=", "2"], ["2s", "2m", "2h", "2d", "2w"]),
        (["prune", "a"], ["a folder"]),
        (["publish", "a"], ["a file", "a folder"]),
        (["mirror", "--ca", "a"], ["a file", "a folder"]),
        (["check", "--ca", "="], ["a file", "a folder"]),
        (["check", "--ca", "=", "a f"], ["a file", "a folder"]),
        (["check", "--flavor", "v"], []),
    ],
)
def test_what_fits_is_offered_and_nothing_else(folder, words, offered):
    assert completed(*words, cwd=folder) == sorted(offered)

"""Every benchmark works: it measures with tiny sizes, and its tables are in the pages. No time is checked."""

import fcntl
import json
import pathlib
import re
import signal
import subprocess
import sys
import xml.etree.ElementTree

import pytest
from builds import REPOSITORY
from gateway import BUILD, SANITIZED, wait_for

BENCH = REPOSITORY / "bench"
DOCS = REPOSITORY / "docs"
sys.path.append(str(BENCH))
import run  # noqa: E402  (from the directory named just before)

pytestmark = pytest.mark.skipif(SANITIZED, reason="measured is what is shipped")


def command_of(*options):
    return ["/usr/bin/python3", BENCH / "run.py", "--build", BUILD, "--smoke", *options]


def run_command(command, timeout=300):
    process = subprocess.run(command, stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=timeout)
    return process.returncode, process.stdout, process.stderr


# These still run for many seconds, and the others cover most of what they do.
SLOW = ("check", "loop", "serving")
SECTIONS = [pytest.param(name, marks=[pytest.mark.long] if name in SLOW else []) for name in run.SECTIONS]


@pytest.mark.parametrize("name", SECTIONS)
def test_section_measures_and_fills_its_tables(name, tmp_path):
    assert run_command(command_of("--docs", tmp_path, "--only", name)) == (0, f"bench: {name}\n", "")
    kept = json.loads((tmp_path / "performance" / f"{name}.json").read_text(), parse_constant=pytest.fail)  # NaN
    assert kept["smoke"] is True and kept["results"]
    pages = "".join(path.read_text() for path in tmp_path.glob("*.md"))
    tables = dict(re.findall(rf"^<!-- {name}: (\w+) -->\n(.*?)<!-- end -->$", pages, re.DOTALL | re.MULTILINE))
    assert re.fullmatch(rf"`scripts/bench --only {name}`, [\d-]{{10}}, commit \S+\.\n", tables.pop("measured"))
    assert tables
    for text in tables.values():
        assert len(text.splitlines()) > 2 and not re.search(r"\b(nan|inf|None)\b", text), text


def test_no_section_is_left_out():
    sections = {path.stem for path in BENCH.glob("*.py") if "\ndef figures(" in path.read_text()}
    assert {*sections, "fleet"} == set(run.SECTIONS)


def test_pages_show_the_figures_that_are_kept(tmp_path):
    assert run_command([*command_of("--docs", tmp_path), "--render"]) == (0, "", "")
    for page in DOCS.glob("*.md"):
        assert (tmp_path / page.name).read_text() == page.read_text(), page
    shown = set(re.findall(r"!\[[^\]]+\]\(performance/([^)]*)\)", (DOCS / "performance.md").read_text()))
    for docs in (tmp_path, DOCS):
        pictures = list((docs / "performance").glob("*.svg"))
        assert {path.name for path in pictures} == shown
        assert sum(path.stat().st_size for path in (docs / "performance").iterdir()) < 200_000
        assert all(xml.etree.ElementTree.parse(path).getroot().tag.endswith("}svg") for path in pictures)


def expect_comparison(lines):
    """The table of a comparison in a smoke run, whole; returns its last row, the sizes of the programs."""
    head, _, *rows = (line.strip("| ").split(" | ") for line in lines)
    assert head == ["this", "other", "this to other"]
    assert [row[0] for row in rows] == [
        *("update of 1 MB, CPU", "update of 1 MB, wall", "update of 1 MB, peak"),
        *("check with nothing new, CPU", "check with nothing new, wall"),
        *("start-up, `--help`, CPU", "start-up, `--help`, wall", "program, loaded"),
    ]
    for row in rows:
        assert len(row) == 4 and all(re.match(r"[\d,.]*\d", cell) for cell in row[1:]), row
    return rows[-1]


def test_comparison_of_a_build_with_itself_has_every_row():
    status, output, errors = run_command(command_of("--compare", BUILD))
    assert (status, errors) == (0, "")
    size = expect_comparison(output.splitlines())
    assert size[1] == size[2] and size[3] == "1.000"


def children(pid):
    """Those of its main thread."""
    return [int(child) for child in pathlib.Path(f"/proc/{pid}/task/{pid}/children").read_text().split()]


def running_nginx(pid):
    """The directory of the nginx that this process has started, and the ids of its processes; none yet otherwise."""
    for child in children(pid):
        title = pathlib.Path(f"/proc/{child}/cmdline").read_text()
        directory = re.match(r"nginx: master process \S+ -p (\S+) ", title)
        if directory and (workers := children(child)):
            return pathlib.Path(directory[1]), [child, *workers]
    return None


@pytest.mark.parametrize("number", [signal.SIGHUP, signal.SIGINT, signal.SIGTERM])
def test_signal_leaves_neither_processes_nor_files(number, tmp_path):
    # A shell that starts it in the background would have it ignore SIGINT.
    unignored = {"preexec_fn": lambda: signal.signal(number, signal.SIG_DFL), "stdin": subprocess.DEVNULL}
    process = subprocess.Popen(command_of("--docs", tmp_path, "--only", "serving"), **unignored)
    wait_for(lambda: running_nginx(process.pid), process)
    directory, pids = running_nginx(process.pid)
    assert directory.parent == pathlib.Path("/var/tmp") and directory.is_dir()
    process.send_signal(number)
    assert process.wait(60) == -number
    assert not directory.exists()
    assert [pid for pid in pids if pathlib.Path(f"/proc/{pid}").exists()] == []


def test_directory_that_cannot_be_written_is_refused(tmp_path):
    (tmp_path / "file").touch()
    said = f"bench: nothing can be kept in {tmp_path}/file/performance: Not a directory\n"
    assert run_command(command_of("--docs", tmp_path / "file", "--only", "machine")) == (1, "", said)


def test_what_a_failed_program_says_is_shown(tmp_path):
    (tmp_path / "zqu_bench_pieces").symlink_to("/bin/cat")
    command = command_of("--docs", tmp_path / "docs", "--only", "pieces", "--build", tmp_path)
    status, output, errors = run_command(command)
    assert (status, output) == (1, "bench: pieces\n")
    assert f"{tmp_path}/zqu_bench_pieces: unrecognized option '--benchmark_repetitions=2'\n" in errors


@pytest.mark.parametrize(
    ("kept", "wrong"),
    [
        ("{", "JSONDecodeError: Expecting property name enclosed in double quotes: line 1 column 2 (char 1)"),
        ('{"results": {}}', "KeyError: 'date'"),
    ],
    ids=["damaged", "incomplete"],
)
def test_damaged_figures_leave_the_pages_as_they_were(kept, wrong, tmp_path):
    path = tmp_path / "performance" / "machine.json"
    path.parent.mkdir()
    path.write_text(kept)
    hint = "scripts/bench --only machine measures it again"
    said = f"bench: {path} is damaged, or of another revision ({wrong}): {hint}\n"
    assert run_command(command_of("--docs", tmp_path, "--render")) == (1, "", said)
    assert (tmp_path / "performance.md").read_text() == (DOCS / "performance.md").read_text()


@pytest.mark.parametrize(
    ("arguments", "said"),
    [
        (["--only"], "--only needs a value"),
        (["--compare", ""], "--compare needs a value"),
        (["--only", "no-such"], f"no section is called no-such, only {' '.join(run.SECTIONS)}"),
        (["--only", "loop", "--compare", "HEAD"], "--compare goes with --smoke only"),
        (["--compare", "no-such"], "there is no revision no-such"),
    ],
    ids=["no section", "no revision", "unknown section", "both", "unknown revision"],
)
def test_wrong_arguments_are_refused_before_a_build(arguments, said):
    assert run_command([REPOSITORY / "scripts/bench", *arguments]) == (2, "", f"bench: {said}\n")


def test_second_run_at_a_time_is_refused():
    lock = REPOSITORY / "build-bench" / "lock"
    lock.parent.mkdir(exist_ok=True)
    with open(lock, "w") as file:
        fcntl.flock(file, fcntl.LOCK_EX)
        result = run_command([REPOSITORY / "scripts/bench", "--smoke", "--only", "machine"])
    assert result == (2, "", "bench: another run is going on here\n")


@pytest.mark.long
def test_comparison_with_a_revision_has_every_row():
    status, output, errors = run_command([REPOSITORY / "scripts/bench", "--smoke", "--compare", "HEAD"], timeout=1800)
    assert status == 0, output + errors
    first, *lines = output.splitlines()
    assert re.fullmatch(r"bench: this tree against HEAD \([0-9a-f]{10}\)", first)
    expect_comparison(lines)

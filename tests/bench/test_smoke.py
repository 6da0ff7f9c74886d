"""Every benchmark works: it measures with tiny sizes, and the page tells of it. No time is looked at."""

import fcntl
import json
import math
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
sys.path.append(str(BENCH))
import run  # noqa: E402  (from the folder named just before)

pytestmark = pytest.mark.skipif(SANITIZED, reason="measured is what is shipped")


def command_of(*options):
    return ["/usr/bin/python3", BENCH / "run.py", "--build", BUILD, "--smoke", *options]


def run_bench(*options):
    command = command_of(*options)
    return subprocess.run(command, stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=300)


def leaves(value, path=""):
    """Every text, number and so on in what JSON gives, with where it stands."""
    if isinstance(value, (dict, list)):
        for key, item in value.items() if isinstance(value, dict) else enumerate(value):
            yield from leaves(item, f"{path}/{key}")
    else:
        yield path, value


def expect_plots(docs, section):
    """Each plot that a section shows is there, and is an SVG."""
    for path in re.findall(r"!\[[^\]]+\]\(([^)]*)\)", section):
        assert xml.etree.ElementTree.parse(docs / path).getroot().tag.endswith("}svg"), path


@pytest.mark.parametrize("name", run.SECTIONS)
def test_section_measures_and_is_told(name, tmp_path):
    process = run_bench("--docs", tmp_path, "--only", name)
    assert process.returncode == 0, process.stdout + process.stderr
    assert (process.stdout, process.stderr) == (f"bench: {name}\n", "")
    kept = json.loads((tmp_path / "performance" / f"{name}.json").read_text())
    assert kept["smoke"] is True
    numbers = {path: value for path, value in leaves(kept["results"]) if isinstance(value, (int, float))}
    assert numbers
    assert {path: value for path, value in numbers.items() if not math.isfinite(value)} == {}
    introduction, *sections = re.split(r"^## ", (tmp_path / "performance.md").read_text(), flags=re.MULTILINE)
    assert introduction.startswith("# Performance\n") and len(sections) == 1
    assert re.search(rf"^`scripts/bench --only {name}`, \d{{4}}-\d\d-\d\d, commit \S+\.$", sections[0], re.MULTILINE)
    assert not re.search(r"\b(nan|inf|None)\b", sections[0])
    expect_plots(tmp_path, sections[0])


def test_no_section_is_left_out():
    """What has a title and measures is a section, and the program that calls them knows it."""
    sections = {path.stem for path in BENCH.glob("*.py") if re.search(r"^TITLE = ", path.read_text(), re.MULTILINE)}
    assert sections == set(run.SECTIONS) and len(run.SECTIONS) == len(sections)


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
    process = run_bench("--compare", BUILD)
    assert (process.returncode, process.stderr) == (0, "")
    size = expect_comparison(process.stdout.splitlines())
    assert size[1] == size[2] and size[3] == "1.000"


def children(pid):
    """Those of its main thread."""
    text = pathlib.Path(f"/proc/{pid}/task/{pid}/children").read_text()
    return [int(child) for child in text.split()]


def running_nginx(pid):
    """The folder of the nginx that this process has started, and the process ids of its workers; none yet otherwise."""
    for child in children(pid):
        title = pathlib.Path(f"/proc/{child}/cmdline").read_text()
        folder = re.match(r"nginx: master process \S+ -p (\S+) ", title)
        if folder and (workers := children(child)):
            return pathlib.Path(folder[1]), [child, *workers]
    return None


@pytest.mark.parametrize("number", [signal.SIGHUP, signal.SIGINT, signal.SIGTERM])
def test_signal_leaves_neither_processes_nor_files(number, tmp_path):
    command = command_of("--docs", tmp_path, "--only", "fleet_real")
    # A shell that starts it in the background would have it ignore SIGINT.
    process = subprocess.Popen(
        command, stdin=subprocess.DEVNULL, preexec_fn=lambda: signal.signal(number, signal.SIG_DFL)
    )
    wait_for(lambda: running_nginx(process.pid), process)
    folder, pids = running_nginx(process.pid)
    assert folder.parent == pathlib.Path("/var/tmp") and folder.is_dir()
    process.send_signal(number)
    assert process.wait(60) == -number
    assert not folder.exists()
    assert [pid for pid in pids if pathlib.Path(f"/proc/{pid}").exists()] == []


def test_folder_that_cannot_be_written_is_refused_before_anything_is_measured(tmp_path):
    (tmp_path / "file").touch()
    process = run_bench("--docs", tmp_path / "file", "--only", "machine")
    said = f"bench: nothing can be kept in {tmp_path}/file/performance: Not a directory\n"
    assert (process.returncode, process.stdout, process.stderr) == (1, "", said)


def test_what_a_failed_program_says_is_told(tmp_path):
    (tmp_path / "zqu_bench_pieces").symlink_to("/bin/cat")
    process = run_bench("--docs", tmp_path, "--only", "pieces", "--build", tmp_path)
    assert (process.returncode, process.stdout) == (1, "bench: pieces\n")
    assert f"{tmp_path}/zqu_bench_pieces: unrecognized option '--benchmark_repetitions=2'\n" in process.stderr
    assert not (tmp_path / "performance.md").exists()


@pytest.mark.parametrize(
    ("kept", "wrong"),
    [
        ("{", "JSONDecodeError: Expecting property name enclosed in double quotes: line 1 column 2 (char 1)"),
        ("null", "TypeError: 'NoneType' object is not subscriptable"),
        ('{"results": {}}', "KeyError: 'packages'"),
    ],
)
def test_page_from_damaged_figures_is_refused_and_left_as_it_was(kept, wrong, tmp_path):
    path = tmp_path / "performance" / "machine.json"
    path.parent.mkdir()
    path.write_text(kept)
    (tmp_path / "performance.md").write_text("as it was\n")
    process = run_bench("--docs", tmp_path, "--render")
    hint = "scripts/bench --only machine measures it anew"
    said = f"bench: {path} is damaged, or of another revision ({wrong}): {hint}\n"
    assert (process.returncode, process.stdout, process.stderr) == (1, "", said)
    assert (tmp_path / "performance.md").read_text() == "as it was\n"


def run_script(*arguments):
    command = [REPOSITORY / "scripts" / "bench", *arguments]
    return subprocess.run(command, stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=1800)


def test_comparison_with_an_unknown_revision_is_refused():
    process = run_script("--compare", "no-such-revision")
    assert (process.returncode, process.stdout) == (2, "")
    assert process.stderr == "bench: there is no revision no-such-revision\n"


@pytest.mark.parametrize(
    ("arguments", "said"),
    [
        (["--only"], "--only needs a value"),
        (["--compare", ""], "--compare needs a value"),
        (["--only", "no-such"], f"no section is called no-such, only {' '.join(run.SECTIONS)}"),
        (["--only", "idle", "--compare", "HEAD"], "--compare goes with --smoke only"),
    ],
)
def test_arguments_that_mean_nothing_are_refused_before_anything_is_built(arguments, said):
    process = run_script(*arguments)
    assert (process.returncode, process.stdout, process.stderr) == (2, "", f"bench: {said}\n")


def test_second_run_at_a_time_is_refused():
    lock = REPOSITORY / "build-bench" / "lock"
    lock.parent.mkdir(exist_ok=True)
    with open(lock, "w") as file:
        fcntl.flock(file, fcntl.LOCK_EX)
        process = run_script("--smoke", "--only", "machine")
    said = "bench: another run is going on here\n"
    assert (process.returncode, process.stdout, process.stderr) == (2, "", said)


@pytest.mark.long
def test_comparison_with_a_revision_builds_it_and_has_every_row():
    process = run_script("--smoke", "--compare", "HEAD")
    assert process.returncode == 0, process.stdout + process.stderr
    told, *lines = process.stdout.splitlines()
    assert re.fullmatch(r"bench: this tree against HEAD \([0-9a-f]{10}\)", told)
    expect_comparison(lines)

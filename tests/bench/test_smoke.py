"""Every benchmark works: it measures with tiny sizes, and the page tells of it. No time is looked at."""

import json
import math
import re
import subprocess
import sys
import xml.etree.ElementTree

import pytest
from builds import REPOSITORY
from machines import BUILD, SANITIZED

BENCH = REPOSITORY / "bench"
sys.path.append(str(BENCH))
import run  # noqa: E402  (from the folder named just before)

pytestmark = pytest.mark.skipif(SANITIZED, reason="measured is what is shipped")


def run_bench(*options):
    command = ["/usr/bin/python3", BENCH / "run.py", "--build", BUILD, "--smoke", *options]
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


def run_script(*arguments):
    command = [REPOSITORY / "scripts" / "bench", *arguments]
    return subprocess.run(command, stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=1800)


def test_comparison_with_an_unknown_revision_is_refused():
    process = run_script("--compare", "no-such-revision")
    assert (process.returncode, process.stdout) == (2, "")
    assert process.stderr == "bench: there is no revision no-such-revision\n"


@pytest.mark.long
def test_comparison_with_a_revision_builds_it_and_has_every_row():
    process = run_script("--smoke", "--compare", "HEAD")
    assert process.returncode == 0, process.stdout + process.stderr
    told, *lines = process.stdout.splitlines()
    assert re.fullmatch(r"bench: this tree against HEAD \([0-9a-f]{10}\)", told)
    expect_comparison(lines)

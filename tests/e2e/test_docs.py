"""What the documentation says of the tests: each that it names is there, and each file of tests is named."""

import re
import subprocess

import pytest
from builds import REPOSITORY
from gateway import BUILD

TESTS = REPOSITORY / "tests"
PAGES = {"testing.md": TESTS, "security.md": TESTS / "hostile"}  # and the directory that their paths begin at


def named(page):
    """The (file, test) pairs in Python and the unit tests that a page names; "…" repeats the file before."""
    text = (REPOSITORY / "docs" / page).read_text()
    file, pairs, unit_tests = "", [], []
    for word in re.findall(r"`([^`\s]+)`", text):
        match = re.fullmatch(r"((?!tests/)[\w/]+\.py|…)?(?:::(\w+))?", word)
        if match and (match[1] or match[2]):
            file = match[1] if match[1] not in (None, "…") else file
            pairs.append((file, match[2]))
        elif re.fullmatch(r"(\w+/)?\w+Test\.(\w+|\*)", word):
            unit_tests.append(word)
    return pairs, unit_tests


def all_unit_tests():
    """Every name of a unit test, less what tells parameters apart."""
    output = subprocess.run([BUILD / "unit_tests", "--gtest_list_tests"], capture_output=True, text=True, check=True)
    suite, names = "", set()
    for line in output.stdout.splitlines():
        if line.startswith("  "):
            names.add(suite + line.split()[0].partition("/")[0])
        else:
            suite = line.split()[0]
    return names


@pytest.mark.parametrize("page", PAGES)
def test_every_test_that_a_page_names_is_there(page):
    pairs, unit_tests = named(page)
    assert pairs
    for file, test in pairs:
        path = next((directory / file for directory in (PAGES[page], TESTS) if (directory / file).is_file()), None)
        assert path, file
        assert test is None or f"\ndef {test}(" in path.read_text(), f"{file} has no {test}"
    existing = all_unit_tests()
    for name in unit_tests:
        assert name in existing or any(name == f"{test.partition('.')[0]}.*" for test in existing), name


def test_every_file_of_tests_is_named():
    files = {str(path.relative_to(TESTS)) for path in TESTS.rglob("test_*.py")}
    pairs, unit_tests = named("testing.md")
    assert files - {file for file, _ in pairs} - {f"hostile/{file}" for file, _ in named("security.md")[0]} == set()
    suites = {name.partition(".")[0] for name in all_unit_tests()}
    assert suites - {name.partition(".")[0] for name in unit_tests} == set()


@pytest.mark.parametrize(
    "page",
    sorted(str(path.relative_to(REPOSITORY)) for path in [*REPOSITORY.glob("*.md"), *REPOSITORY.glob("docs/*.md")]),
)
def test_every_path_and_link_of_a_page_leads_somewhere(page):
    text = (REPOSITORY / page).read_text()
    for path in re.findall(r"(?<![\w/-])(?:tests|scripts|src|docs|tools)/[\w./-]*\w", text):
        assert (REPOSITORY / path).exists(), path
    for target, anchor in re.findall(r"\]\(([^)#:]*)(?:#([\w-]+))?\)", text):
        linked = (REPOSITORY / page).parent / target if target else REPOSITORY / page
        assert linked.is_file(), target
        headings = re.findall(r"^#+ (.*)$", linked.read_text(errors="replace"), re.MULTILINE)
        assert anchor in ("", *(heading.lower().replace(" ", "-") for heading in headings)), anchor

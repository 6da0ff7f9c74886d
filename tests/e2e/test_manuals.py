"""The manual pages, README and the pages for operators, held against the programs."""

import gzip
import re
import subprocess

import pytest
from builds import REPOSITORY
from gateway import BUILD, DAEMON, SETTINGS

PAGES = sorted((REPOSITORY / "docs" / "man").iterdir())
TOOLS = ("zqu-config", "zqu-mirror", "zqu-status")
NAMES = {page.stem for page in PAGES}
# What the sources say to syslog(3), with the one message that they put together from another's text.
REASONS = re.findall(r'reason = "([^"]+)"', (REPOSITORY / "src" / "config.cpp").read_text())


def sources():
    return "".join(path.read_text() for path in sorted((REPOSITORY / "src").glob("*.cpp")))


def messages():
    found = re.findall(r'syslog\(LOG_(\w+), "([^"]+)"', sources())
    for priority, text in found:
        if text == "config: %s":
            yield from ((priority, f"config: {reason}") for reason in REASONS)
        else:
            yield priority, text


def errors():
    """The texts of last_error, as updater.cpp has them; a word in capitals on the page stands for what follows."""
    source = (REPOSITORY / "src" / "updater.cpp").read_text()
    found = re.findall(r'return (?:fail\()?"([^"]+)"', source)
    return sorted(set(found))


def rendered(page):
    """The page as a reader sees it, in lines too wide to be broken, without bold and underlining."""
    process = subprocess.run(["mandoc", "-Tascii", "-Owidth=900", page], capture_output=True, text=True, check=True)
    return re.sub(".\b", "", process.stdout)


def table(page, heading):
    """The rows of the first table below a heading: their cells, without the marks of code."""
    text = page.read_text().split(f"\n## {heading}\n", 1)[1]
    rows = re.search(r"^\|---.*\n((?:\|.*\n)+)", text, re.MULTILINE)[1].splitlines()
    return [[cell.strip() for cell in row.strip("|").split("|")] for row in rows]


def options(text):
    return set(re.findall(r"(?<![\w-])--[a-z][a-z-]+", text))


def help_of(tool, *arguments):
    return subprocess.run([BUILD / tool, *arguments, "--help"], capture_output=True, text=True, check=True).stdout


def commands_of(tool):
    found = re.search(r"^Subcommands:\n((?:  .*\n)+)", help_of(tool), re.MULTILINE)
    return re.findall(r"^  (\w+) ", found[1], re.MULTILINE) if found else []


@pytest.mark.parametrize("page", PAGES, ids=lambda page: page.name)
def test_page_is_clean_for_both_programs_that_show_it(page):
    lint = subprocess.run(["mandoc", "-Tlint", "-Wstyle", page], capture_output=True, text=True).stdout.splitlines()
    missing = r"STYLE: referenced manual not found: Xr (\S+) \d"  # not installed here, or not indexed
    assert [line for line in lint if not re.search(missing, line)] == []
    process = subprocess.run(
        ["man", "--warnings", "-E", "UTF-8", "-l", "-Tutf8", "-Z", page],
        env={"LC_ALL": "C.UTF-8", "MANROFFSEQ": "", "MANWIDTH": "80", "PATH": "/usr/bin:/bin"},
        stdout=subprocess.DEVNULL,
        stderr=subprocess.PIPE,
        text=True,
    )
    assert process.stderr == ""
    assert set(re.findall(r"^\.Xr (z\S+) \d", page.read_text(), re.MULTILINE)) <= NAMES


@pytest.mark.parametrize("page", PAGES, ids=lambda page: page.name)
def test_page_is_installed_with_the_version(page):
    version = re.search(r"\((.+?)\)", (REPOSITORY / "debian" / "changelog").read_text())[1]
    installed = gzip.decompress((BUILD / "packaging" / f"{page.name}.gz").read_bytes()).decode()
    assert installed == page.read_text().replace("\n.Os\n", f"\n.Os zel_quorin_updater {version}\n")
    assert installed.count(version) == 1


def test_page_of_the_daemon_has_its_options_and_its_messages():
    page = REPOSITORY / "docs" / "man" / "zel_quorin_updater.8"
    usage = subprocess.run([DAEMON, "--help"], capture_output=True, text=True, check=True).stdout
    text = rendered(page)
    assert options(usage) | {"--help", "--version"} == options(text.split("\nEXIT STATUS")[0])
    assert "--version and -h are no options: with them, the daemon starts." in text
    heads = {line.strip() for line in text.split("\nDIAGNOSTICS")[1].splitlines()}
    assert [message for _, message in messages() if message not in heads] == []
    assert {head for head in heads if "%" in head or head.startswith("publish")} <= {m for _, m in messages()}


def test_page_for_operators_has_just_the_messages_of_the_log():
    priorities = {"ERR": "error", "WARNING": "warning", "INFO": "info"}
    rows = table(REPOSITORY / "docs" / "operations.md", "Messages of the log")
    listed = {(cells[0].strip("`"), cells[1]) for cells in rows}
    assert listed == {(message, priorities[priority]) for priority, message in messages()}


def test_page_for_operators_has_just_the_texts_of_last_error():
    rows = table(REPOSITORY / "docs" / "operations.md", "Texts of `last_error`")
    listed = sorted(re.sub(r"(ID|NAME)$", "", cells[0].strip("`")) for cells in rows)
    assert listed == errors()


def test_pages_have_the_limit_of_starts_of_the_unit():
    unit = (REPOSITORY / "packaging/systemd/zel_quorin_updater.service.in").read_text()
    assert "StartLimitIntervalSec=5min\nStartLimitBurst=10\n" in unit
    for page in (
        "operations.md",
        "security.md",
        "without-systemd.md",
        "troubleshooting.md",
        "man/zel_quorin_updater.8",
    ):
        assert re.search(r"ten\b[^.|]*\bfive minutes", (REPOSITORY / "docs" / page).read_text()), page


def test_readme_has_keys_and_manual_page_all_with_their_defaults():
    known = {key: str(default) for key, default in SETTINGS.items()}
    rows = table(REPOSITORY / "README.md", "Configure")
    listed = {re.match(r"`(\w+)`", cells[0])[1]: cells[1].strip("`") for cells in rows}
    assert {key: "" if value == "empty" else value for key, value in listed.items()}.items() <= known.items()
    page = rendered(REPOSITORY / "docs" / "man" / "zel_quorin_updater.conf.5")
    for key, default in known.items():
        assert re.search(rf"^ +{key}\b", page, re.MULTILINE), key
        assert default in page, key


@pytest.mark.parametrize("tool", TOOLS)
def test_page_and_completion_of_a_tool_have_its_options(tool):
    helped = options(help_of(tool)).union(*(options(help_of(tool, command)) for command in commands_of(tool)))
    page = rendered(REPOSITORY / "docs" / "man" / f"{tool}.1")
    completion = (REPOSITORY / "packaging" / "bash-completion" / tool).read_text()
    assert sorted(helped - options(page)) == [], "missing in the page"
    assert sorted(helped - options(completion)) == [], "missing in the completion"
    assert sorted(options(completion) - helped) == [], "unknown to the tool"
    for command in commands_of(tool):
        assert re.search(rf"\b{command}\b", page) and re.search(rf"\b{command}\b", completion), command

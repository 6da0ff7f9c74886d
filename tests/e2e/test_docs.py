"""The pages against what they name: tests, paths, links, and what the programs show when something is wrong."""

import re
import subprocess

import pytest
from builds import REPOSITORY
from certificates import DAY, Issuer
from cryptography import x509
from gateway import BUILD
from outcomes import CURL_TEXTS
from pages import blocks, section
from tools import Tool

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
    """Every name of a unit test, without the part that names parameters."""
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
    assert "…/" not in text and not re.search(r"^    # [a-z]+ .*[/-]", text, re.MULTILINE)  # commands can be pasted


def test_installed_pages_link_to_installed_pages_only():
    docs, lists = REPOSITORY / "docs", (REPOSITORY / "packaging" / "CMakeLists.txt").read_text()
    installed = set(re.search(r"^set\(pages\n([^)]*)\)", lists, re.MULTILINE)[1].split())
    pages = {name for name in installed if name.endswith(".md")}
    for page in pages:
        assert set(re.findall(r"\]\(([^)#:]+)[)#]", (docs / page).read_text())) - installed == set(), page
    index = dict(re.findall(r"\]\((\S+)\)( \*)?", (docs / "README.md").read_text()))
    assert {name for name, mark in index.items() if not mark} == pages
    assert {path.name for path in docs.glob("*.md")} - set(index) == {"README.md"}


HELP, MIRROR, HERE = "troubleshooting.md", "mirror.example", [x509.DNSName("localhost")]
BAD_CERTIFICATES = {  # by what the page calls them
    "has expired": lambda issuer, to: issuer.context(to, HERE, starts=-2 * DAY, ends=-DAY),
    f"is for another host than {MIRROR}": lambda issuer, to: issuer.context(to, [x509.DNSName("other.example")]),
    "comes from an authority that is not trusted": lambda _, to: Issuer.unknown().context(to, HERE),
    "is not valid yet": lambda issuer, to: issuer.context(to, HERE, starts=DAY, ends=2 * DAY),
}


def test_reasons_that_the_page_explains_are_those_of_libcurl():
    known = {text.replace("Could not", "Couldn't").replace("hostname", "host name") for text in CURL_TEXTS}
    listed = re.findall(r"^\| `(.+?)` \|", section(HELP, "The mirror cannot be asked"), re.MULTILINE)
    assert len(listed) > 5 and set(listed) <= known


def expect_shown(trial, heading):
    """A check shows what the page has below a heading: findings, the one line of the log, and lines of the status."""
    base = f"https://localhost:{trial.server.port}"
    trial.gateway.settings |= {"mirror_base_url": base, "mirror_subdir": "rhex/deffiles/def5-2"}
    page = section(HELP, heading).replace(f"https://{MIRROR}", base)
    log = {line.partition(" ")[2] for line in trial.gateway.run_once()}
    found = Tool("zqu-status")("--config", trial.gateway.config_path)[1].splitlines()
    lines = set(re.findall(r"^    (\w.*)", page, re.MULTILINE))
    assert (lines - log - set(found), len(lines & log)) == (set(), 1)
    status = re.findall(r'`("\w+":\s[^`]+)`', page)
    assert status and [line for line in status if line not in trial.gateway.status_path.read_text()] == []


def test_bad_certificates_show_what_the_page_says(trial, authority, tmp_path):
    (block,) = blocks(HELP, "Certificate")
    for name, here in {MIRROR: "localhost", "443": str(trial.server.port), "/etc/ssl/fleet-ca.pem": "ca.pem"}.items():
        block = block.replace(name, here)
    said = subprocess.getoutput(block := f"cd {trial.directory}/machine; {block}")
    assert all(line in said for line in ("\nVerification: OK\n", "\nissuer=", "\nnotAfter=", "DNS:localhost")), said
    rows = dict(re.findall(r"^\| `(.+?)` \| `(.+?)` \|", section(HELP, "Certificate"), re.MULTILINE))
    for words, make in BAD_CERTIFICATES.items():
        trial.server.context = make(Issuer.of_trustme(authority), tmp_path)
        expect_shown(trial, "The mirror cannot be asked")
        finding = Tool("zqu-config")("check", "--online", trial.gateway.config_path)[1]
        assert f"the mirror's certificate {words.replace(MIRROR, 'localhost')}" in finding
        assert re.search(rf"^verify error:num=\d+:{rows.pop(words)}$", subprocess.getoutput(block), re.MULTILINE)
    assert rows == {}


def test_wrong_flavor_shows_what_the_page_says(trial):
    trial.gateway.settings["flavor"] = "v3"
    expect_shown(trial, "Wrong flavor")

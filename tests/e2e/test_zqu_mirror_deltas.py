"""Plain archives and deltas: how publish makes them, and that mirror --plain gets the right bytes in any case."""

import itertools
import json
import os
import re
import shutil
import subprocess
from concurrent.futures import ThreadPoolExecutor

import pytest
from gateway import SANITIZED, Gateway
from mirror_tool import FIRST, INDEX, REPLACED, SECOND, SUBDIR, OwnMirror, cab, plain_archive, run
from outcomes import published, tree
from raw_archives import Entry, deflated, zip_bytes
from release import HIT, info_ini, info_name, sha256
from signing import SigningKey
from tools import under_strace

AIVSECON = b"signature\n" * 30
NO_DELTA, NO_START = "the upstream mirror has none", "none starts from a plain archive that is here"


def definitions(number):
    """200 lines, of which another one differs with each number."""
    return "".join(f"{sha256(b'%d' % (line + 1000 * (line < number)))}\n" for line in range(200)).encode()


def plain(number):
    return plain_archive(definitions(number), AIVSECON)


def plain_name(id):
    return f"antivir-v2-c-{id}.plain.zip"


def warning(id, reason):
    return f"zqu-mirror: warning: downloaded the whole archive of {id}, not a delta: {reason}\n"


class Site:
    """A mirror with deltas, and a mirror of plain archives that follows it."""

    def __init__(self, base):
        self.base = base
        self.up, self.local = OwnMirror(base), OwnMirror(base)
        self.local.root, self.local.directory = base / "local", base / "local" / SUBDIR
        self.up.aivsecon.write_bytes(AIVSECON)

    def publish(self, number, *flags, id=None, **options):
        self.up.antivir.write_bytes(definitions(number))
        return self.up.publish(id or f"{number}", *flags, **options)

    def mirror(self, *words, **options):
        return run("mirror", "--plain", *words, f"file://{self.up.root}", self.local.root, **options)

    def info(self, id):
        return self.up.path(info_name(id)).read_text()

    def deltas(self, id):
        """What the INI says of the deltas: where each starts, its size and digest, and its name."""
        found = re.findall(r"^def\.Current\.delta\.\d+ = (\S+) (\d+) (\S+)$", self.info(id), re.MULTILINE)
        return [(start, int(size), digest, f"antivir-v2-c-{id}.{digest[:12]}.delta") for start, size, digest in found]

    def set_line(self, key, value):
        """Changes the INI of release "2"."""
        text, count = re.subn(rf"(def\.Current\.{re.escape(key)} = ).*", rf"\g<1>{value}", self.info("2"))
        assert count == 1
        self.up.write(info_name("2"), text)

    def set_delta(self, content, size=None):
        """Replaces the delta to the release "2", as its INI names it."""
        self.set_line("delta.1", f"1 {size or len(content)} {sha256(content)}")
        self.up.write(f"antivir-v2-c-2.{sha256(content)[:12]}.delta", content)

    def patch(self, old, *words):
        """What another program makes of a delta, or of what is to become one."""
        (self.base / "from").write_bytes(old)
        command = ["zstd", "-q", "-c", f"--patch-from={self.base / 'from'}", *words]
        return subprocess.run(command, check=True, capture_output=True).stdout

    def expect_local(self, id, content):
        """The local mirror serves this plain archive, and the upstream's INI is beside its own."""
        assert self.local.path(plain_name(id)).read_bytes() == content
        assert self.local.path(HIT).read_text() == f"[Current]\ndefId = {id}\n"
        assert self.local.path(info_name(id)).read_text() == (
            f"def.Current.defId = {id}\ndef.Current.name = {plain_name(id)}\n"
            f"def.Current.SHA256 = {sha256(content)}\ndef.Current.size = {len(content)}\n"
        )
        assert self.local.path(f"{info_name(id)}.upstream").read_text() == self.info(id)


@pytest.fixture
def site(tmp_path):
    return Site(tmp_path)


@pytest.fixture(scope="module")
def begun_once(tmp_path_factory):
    site = Site(tmp_path_factory.mktemp("begun"))
    assert site.publish(1)[0] == 0
    assert site.mirror()[0] == 0
    assert site.publish(2, "--deltas", "1")[0] == 0
    return site


def copy_of(site, base):
    shutil.copytree(site.base, base, dirs_exist_ok=True)
    return Site(base)


@pytest.fixture
def begun(begun_once, tmp_path):
    """With the releases "1" and "2" upstream and a delta between them, and the first one here."""
    return copy_of(begun_once, tmp_path)


A, B, C = Entry(INDEX, b"; none\n"), Entry(FIRST, b"a\n"), Entry(SECOND, b"")
SOURCES = {
    "in order": [A, B, C],
    "deflated, in another order": [C, deflated(FIRST, b"a\n"), A],
    "among others": [Entry("x", b"x"), A, Entry(f"sub/{FIRST}", b"longer\n"), B, Entry(SECOND, b"cd"), C],
    "without index": [C, B],
}


@pytest.mark.parametrize("source", SOURCES)
def test_same_definitions_give_the_same_plain_archive(site, source):
    site.up.directory.mkdir(parents=True)
    site.up.write("x.zip", zip_bytes(SOURCES[source]))
    site.up.announce("1", "x.zip")
    assert site.mirror()[0] == 0
    made = site.local.path(plain_name("1"))
    if source == "without index":
        listed = subprocess.run(["bsdtar", "-tf", made], capture_output=True, text=True)
        assert listed.stdout.split() == [FIRST, SECOND]
    else:
        assert made.read_bytes() == plain_archive(b"a\n", b"", "; none\n")


@pytest.mark.parametrize("form", ["cab", "zip", "zstd"])
def test_plain_archive_has_the_same_bytes_for_ever(site, form):
    """And other programs read it."""
    site.up.antivir.write_bytes(b"a\n")
    site.up.aivsecon.write_bytes(b"")
    os.utime(site.up.antivir, (10**9, 10**9))
    assert site.up.publish("1", "--allow-empty", "--format", form)[0] == 0
    golden = "d3ae3b62d8f23dab67dcbbd6b1903a601477d34efdf98b206b0f6f8c39ae3bcd"
    assert f"def.Current.plain.SHA256 = {golden}\n" in site.info("1")
    assert site.mirror()[0] == 0
    made = site.local.path(plain_name("1"))
    assert sha256(made.read_bytes()) == golden
    for reader in (["unzip", "-t"], ["bsdtar", "-xOf"]):
        assert subprocess.run([*reader, made], capture_output=True).returncode == 0


@pytest.mark.parametrize("count, starts", [("0", []), ("1", ["3"]), ("3", ["3", "2", "1"]), ("9", ["3", "2", "1"])])
def test_publish_makes_deltas_from_the_last_releases(site, count, starts):
    """Another program applies them."""
    for number, form in ((1, "zip"), (2, "zstd"), (3, "cab")):
        assert site.publish(number, "--format", form)[0] == 0
        site.up.set_age(info_name(number), 9 - number)
    before = site.up.files()
    assert site.publish(4, "--deltas", count)[::2] == (0, "")
    found = site.deltas("4")
    assert [start for start, *_ in found] == starts
    assert {*site.up.files()} - {*before} == {cab("4"), info_name("4"), *(name for *_, name in found)}
    for start, size, digest, name in found:
        data = site.up.path(name).read_bytes()
        assert (len(data), sha256(data), size < 600) == (size, digest, True)
        assert site.patch(plain(int(start)), "-d", site.up.path(name)) == plain(4)
    lines = site.up.check()[1].splitlines()[-len(starts) :] if starts else []
    assert lines == [f"ok       {name}, the delta from {start}, has its digest" for start, *_, name in found]
    (listed,) = [release for release in json.loads(site.up.list("--json")[1])["releases"] if release["id"] == "4"]
    assert listed["deltas"] == [{"from": start, "size": size} for start, size, *_ in found]
    assert re.search(rf"^4 .* cab +{len(starts)} +current$", site.up.list()[1], re.MULTILINE)


def test_delta_that_saves_little_or_starts_from_damage_is_none(site):
    assert site.publish(1)[0] == 0
    assert site.publish(120, "--deltas", "1")[::2] == (0, "")
    os.truncate(site.up.path(cab("120")), 20)
    code, out, err = site.publish(121, "--deltas", "1")
    assert (code, [name for name in site.up.files() if name.endswith(".delta")]) == (0, [])
    assert re.fullmatch(rf"zqu-mirror: warning: there is no delta from 120: {cab('120')} has 20 bytes .*\n", err)
    site.up.write(cab("120"), "junk")
    site.up.write(info_name("120"), info_ini("120", cab("120"), sha256(b"junk"), 4))
    code, out, err = site.publish(122, "--deltas", "2")
    assert code == 0 and err.startswith(f"zqu-mirror: warning: there is no delta from 120: {cab('120')} is refused: ")


def test_signed_candidate_has_deltas_and_goes_to_all_by_one(site):
    key = SigningKey(site.base)
    assert site.publish(1, "--sign", key.path)[0] == 0
    assert site.mirror("--trust", key.public)[0] == 0
    assert site.publish(2, "--sign", key.path, "--deltas", "1", "--percent", "10")[::2] == (0, "")
    assert f"candidate 2: {site.deltas('2')[0][-1]}, the delta from 1, has its digest\n" in site.up.check()[1]
    assert site.mirror()[1].startswith("nothing new: 1 ")
    assert run("rollout", site.up.root, "100")[0] == 0
    assert site.mirror("--percent", "10")[::2] == (0, "")
    assert site.local.path(f"{HIT}.10").read_text() == "[Current]\ndefId = 2\n"
    assert run("rollout", site.local.root, "100")[0] == 0
    site.expect_local("2", plain(2))
    why = "is of a plain mirror, which has no signatures: name the mirror that it copies"
    line = f"zqu-mirror: the upstream mirror's {info_name('2')} is refused: it {why}\n"
    further = ["mirror", "--trust", key.public, f"file://{site.local.root}", site.base / "further"]
    assert run(*further) == (1, "", line)


def test_delta_is_all_that_is_fetched_and_daemon_takes_it(copy):
    site = Site(copy.base)
    subdir = copy.upstream.subdir
    words = ["--ca", copy.nginx.ca_path, "--upstream-subdir", subdir, copy.nginx.url(), site.local.root]
    asked = []
    gateway = Gateway(site.base, mirror_base_url=f"file://{site.local.root}", mirror_subdir=SUBDIR)
    for number in (1, 2, 3):
        assert site.publish(number, "--deltas", "2", "--subdir", subdir, root=copy.nginx.root)[::2] == (0, "")
        code, out, err = run("mirror", "--plain", *words)
        assert (code, err) == (0, warning("1", NO_DELTA) if number == 1 else "")
        assert number == 1 or re.match(rf"mirrored {number} by a delta of \d+ bytes from {number - 1}: antivir-", out)
        assert site.local.path(plain_name(number)).read_bytes() == plain(number)
        fetched = copy.nginx.requests(subdir, 3 * number)[len(asked) :]
        asked += fetched
        archive = cab("1") if number == 1 else re.search(r"antivir-\S*\.delta", " ".join(fetched))[0]
        assert fetched == [f"{name} 200" for name in (HIT, info_name(number), archive)]
        assert gateway.run_once() == published(f"{number}", *([f"{number - 1}"] if number > 1 else []))
        assert gateway.active_files() == {FIRST: definitions(number), SECOND: AIVSECON}
    assert copy.upstream.path(archive).stat().st_size < copy.upstream.path(cab("3")).stat().st_size / 10
    assert run("mirror", "--plain", *words) == (0, "nothing new: 3 is current\n", "")


DIGEST = "the upstream mirror's {name} does not have the size and the digest that its INI gives"
OTHER = "the delta from 1 does not give the digest {digest}"


def line(key, value):
    return lambda site, delta: site.set_line(key, value)


def leading_to(content):
    def change(site, delta):
        (site.base / "to").write_bytes(content)
        site.set_delta(site.patch(plain(1), site.base / "to"))

    return change


def move_plain(site, delta):
    site.local.path(plain_name("1")).rename(site.base / "moved")
    site.local.path(plain_name("1")).symlink_to(site.base / "moved")


def unsound(site, delta):
    """Of the digest that the INI gives, but with a byte of the definitions changed."""
    content = plain(2).replace(AIVSECON, AIVSECON[:-1] + b"!")
    leading_to(content)(site, delta)
    line("plain.SHA256", sha256(content))(site, delta)


SIZES = (0, -1, 2**33 + 1, 2**63 - 1, 2**64, "1e3x", "")
MANY = "".join(f"\ndef.Current.delta.{number} = {number} 9 {0:064}" for number in range(3, 9_000))
# What is done to the upstream mirror, or to what is here, and why there is no delta then.
FALLBACKS = {
    "no delta": (line("delta.1", ""), NO_DELTA),
    "missing": (lambda site, delta: delta.unlink(), "GET file://{path}: No such file or directory"),
    "cut short": (lambda site, delta: os.truncate(delta, 20), DIGEST),
    "empty": (lambda site, delta: os.truncate(delta, 0), DIGEST),
    "longer": (lambda site, delta: os.truncate(delta, 9999), "GET file://{path}: longer than {size} bytes"),
    "other bytes": (lambda site, delta: delta.write_bytes(bytes(delta.stat().st_size)), DIGEST),
    "no frame": (lambda site, delta: site.set_delta(b"forged"), "libzstd: Src size is incorrect"),
    "other content": (leading_to(plain(3)), OTHER),
    "more content": (leading_to(plain(2) + b"x"), "libzstd: Destination buffer is too small"),
    "less content": (leading_to(plain(2)[:-1]), "the delta gives another size"),
    "too large": (lambda site, delta: site.set_delta(b"", size=site.up.size(cab("2")) + 1), NO_DELTA),
    "unsound": (unsound, "the upstream mirror's archive is refused: what the delta from 1 gives "),
    "digest of another": (line("plain.SHA256", f"{0:064}"), OTHER),
    "size of another": (line("plain.size", "999"), "libzstd: Destination buffer is too small"),
    "start is a path": (line("delta.1", f"../local/1 9 {0:064}"), NO_DELTA),
    "start is nowhere": (line("delta.1", f".. 9 {0:064}"), NO_DELTA),
    "many lines": (line("delta.1", MANY), NO_START),
    "damaged here": (lambda site, delta: site.local.write(plain_name("1"), plain(3)), OTHER),
    "missing here": (lambda site, delta: site.local.path(plain_name("1")).unlink(), NO_START),
    "link here": (move_plain, NO_START),
    **{f"size {size}": (line("delta.1", f"1 {size} {0:064}"), NO_DELTA) for size in SIZES},
    **{f"plain size {size}": (line("plain.size", size), NO_DELTA) for size in SIZES if size != "1e3x"},
    **{f"digest {end}": (line("delta.1", f"1 9 {0:063}{end}"), NO_DELTA) for end in ("", "00", "A", "/")},
}


def test_without_a_good_delta_the_whole_archive_gives_the_same(begun_once, tmp_path):
    """With one line of warning, and nothing is written elsewhere."""

    def run_case(case):
        change, reason = FALLBACKS[case]
        site = copy_of(begun_once, tmp_path / re.sub(r"\W", "-", case))
        ((_, size, digest, name),) = site.deltas("2")
        change(site, site.up.path(name))
        before = {path for path in site.base.rglob("*")}
        reason = reason.format(
            name=name, path=site.up.path(name), size=size, digest=re.search("plain.SHA256 = (.*)", site.info("2"))[1]
        )
        code, out, err = site.mirror()
        assert (code, out.startswith("mirrored 2: antivir-"), err.count("\n")) == (0, True, 1)
        assert err.startswith(warning("2", reason)[:-1]), err
        site.expect_local("2", plain(2))
        made = {site.local.path(name) for name in (plain_name(2), info_name(2), f"{info_name(2)}.upstream")}
        assert {path for path in site.base.rglob("*")} - before == made, case

    with ThreadPoolExecutor(3) as pool:
        list(pool.map(run_case, FALLBACKS))


def test_delta_damaged_at_any_byte_does_no_harm(begun_once, tmp_path, thorough):
    """Its digest in the INI is that of the damaged one: what says no is libzstd, or the digest of the result."""
    ((*_, name),) = begun_once.deltas("2")
    good = begun_once.up.path(name).read_bytes()
    ways = [lambda byte: byte ^ 1, lambda byte: byte ^ 0xFF, *([lambda byte: byte ^ 0x80, lambda byte: 0] * thorough)]
    pairs = itertools.product(range(len(good)), enumerate(ways))
    damages = [(place, way) for place, (number, way) in pairs if thorough or number == place % 2 and place % 3 == 0]

    def run_one(numbered):
        number, (place, way) = numbered
        site = copy_of(begun_once, tmp_path / f"{number}")
        site.set_delta(good[:place] + bytes([way(good[place])]) + good[place + 1 :])
        code, out, err = site.mirror()
        site.expect_local("2", plain(2))
        assert (code, err.count("\n")) == (0, err.count("warning: downloaded the whole"))
        shutil.rmtree(site.base)
        return err.count("\n")

    with ThreadPoolExecutor(3) as pool:
        warnings = list(pool.map(run_one, enumerate(damages)))
    assert warnings.count(0) <= len(warnings) / 50  # some damage makes no difference to libzstd


@pytest.mark.skipif(SANITIZED, reason="the sanitizers need memory of their own")
def test_nothing_of_an_archive_is_in_memory(site):
    """The private memory that its processes ask for, at 40 MB of definitions."""
    site.up.aivsecon.write_bytes(AIVSECON * 140_000)
    assert site.publish(1)[0] == 0
    assert site.mirror()[0] == 0
    assert site.publish(2, "--deltas", "1")[0] == 0
    log = site.base / "log"
    traced = ["strace", "-f", "-qq", "-e", "trace=mmap,mremap,brk", "-o", log]
    assert site.mirror(prefix=traced, env=under_strace())[::2] == (0, "")
    calls = log.read_text()
    sizes = re.findall(r" mmap\(NULL, (\d+), PROT_READ\|PROT_WRITE, MAP_PRIVATE\|MAP_ANONYMOUS", calls)
    assert "mremap" not in calls and sum(map(int, sizes)) < 4 << 20
    heap = [int(end, 16) for end in re.findall(r" brk\(.* = (0x\w+)", calls)]
    assert max(heap) - min(heap) < 4 << 20


def test_check_and_mirror_warn_of_a_bad_delta(begun):
    ((*_, name),) = begun.deltas("2")
    words = ["mirror", f"file://{begun.up.root}"]
    assert run(*words, begun.base / "copy")[::2] == (0, "")
    copied = tree(begun.base / "copy" / SUBDIR)
    assert {path.name for path in begun.up.directory.iterdir()} - copied.keys() == {cab("1"), info_name("1")}
    os.truncate(begun.up.path(name), 10)
    bad = f"{name} does not have the size and the digest that"
    assert begun.up.check()[1].endswith(f"\nwarning  {bad} the INI gives\n")
    refused = "zqu-mirror: warning: the delta from 1 is not copied: "
    line = f"{refused}the upstream mirror's {bad} its INI gives\n"
    assert run(*words, begun.base / "other")[::2] == (0, line)
    assert {**tree(begun.base / "other" / SUBDIR), name: copied[name]} == copied
    begun.set_delta(b"", size=begun.up.size(cab("2")) + 1)  # as publish makes none
    assert run(*words, begun.base / "third")[::2] == (0, "")
    assert run("repair", "--from", words[1], begun.base / "third") == (0, "nothing is damaged: 2 is current\n", "")
    assert ".delta" not in begun.up.check()[1]
    begun.set_line("delta.1", MANY)
    assert len(json.loads(begun.up.list("--json")[1])["releases"][0]["deltas"]) == 100


def test_prune_takes_deltas_with_their_release_and_those_of_none(begun):
    for number in (3, 4):
        assert begun.publish(number, "--deltas", "1")[0] == 0
        assert begun.mirror()[0] == 0
    stray, strange = "antivir-v2-c-gone.0123456789ab.delta", "mine-of-7.0123456789ab.delta"
    for name in (stray, strange):
        begun.up.write(name, "x")
    kept = {HIT, info_name("4"), cab("4"), begun.deltas("4")[0][-1], strange}
    rules = ("--keep", "1", "--grace", "0")
    assert f"not ours, kept: {strange}, 1 bytes\n" in begun.up.prune(*rules, "--dry-run")[1]
    begun.up.expect_left(*kept, rules=rules)
    begun.local.expect_left(HIT, info_name("4"), f"{info_name('4')}.upstream", plain_name("4"), rules=rules)


def test_repair_restores_a_delta(begun):
    ((*_, name),) = begun.deltas("2")
    copied, where = begun.base / "copy", f"file://{begun.up.root}"
    assert run("mirror", where, copied)[0] == 0
    assert run("repair", "--from", where, copied) == (0, "nothing is damaged: 2 is current\n", "")
    before = tree(copied)
    os.truncate(copied / SUBDIR / name, 5)
    code, out, err = run("repair", "--from", where, copied)
    assert out.startswith(f"found 2: its delta {name} is missing or damaged\nrestored {name}\n")
    assert (code, err, {path: what for path, what in tree(copied).items() if REPLACED not in path}) == (0, "", before)


def test_plain_release_whose_upstreams_ini_is_lost_stays(begun):
    assert begun.mirror()[0] == 0
    begun.local.path(f"{info_name('2')}.upstream").unlink()
    begun.set_line("plain.SHA256", "")  # as from a publisher that knows no plain archives
    assert begun.mirror() == (0, "nothing new: 2 is current\n", "")
    assert run("repair", "--from", f"file://{begun.up.root}", begun.local.root)[::2] == (0, "")


@pytest.mark.parametrize(
    "what", ["size", plain_name("2"), info_name("2"), f"{info_name('2')}.upstream", plain_name("1")]
)
def test_repair_of_a_plain_mirror_leads_back_to_deltas(begun, what):
    assert begun.mirror()[0] == 0
    words = ["repair", "--from", f"file://{begun.up.root}", begun.local.root]
    assert run(*words) == (0, "nothing is damaged: 2 is current\n", "")
    if what == "size":
        info = begun.local.path(info_name("2"))
        info.write_text(info.read_text()[:-2] + "\n")  # clients succeed all the same
    else:
        os.truncate(begun.local.path(what), 5)
    assert run(*words)[::2] == (0, "")
    code, out, err = begun.local.check()
    assert (code, "warning" in out) == (0, False)
    for number in (3, 4):
        assert begun.publish(number, "--deltas", "1")[0] == 0
        code, out, err = begun.mirror()
        begun.expect_local(f"{number}", plain(number))
    assert (code, err) == (0, "")

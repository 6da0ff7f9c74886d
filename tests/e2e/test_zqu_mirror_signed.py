"""Signed releases: what publish signs, what mirror and check take, and which attacks that stops."""

import os
import re
import shutil
import subprocess
import time

import pytest
from builds import REPOSITORY
from cryptography.hazmat.primitives.asymmetric import rsa, x25519
from gateway import Gateway
from mirror_tool import DAY, SUBDIR, TRUSTED, OwnMirror, cab, run
from release import HIT, info_name
from signing import SigningKey, private_pem
from tools import AS_ROOT

UNSIGNED = "has no signature of zqu-mirror publish --sign"
UNTRUSTED = "is signed by none of the trusted keys, or was changed"


class Site:
    """An upstream mirror that signs, and a copy of it that trusts its key."""

    def __init__(self, base, keys=None):
        self.base = base
        self.key, self.other = self.keys = keys or (SigningKey(base), SigningKey(base, "other"))
        (base / "site").mkdir(exist_ok=True)
        self.upstream, self.copy = OwnMirror(base), OwnMirror(base / "site")
        self.stored, self.info = self.copy.path(TRUSTED), self.upstream.path(info_name("1001"))
        self.trust = ["--trust", self.key.public]
        self.words = [f"file://{self.upstream.root}", self.copy.root]

    def publish(self, id, *words, key=None):
        """Publishes a release whose content is its id."""
        (self.base / "input").write_text(id)
        words = [*words, *(["--sign", key.path] if key else [])]
        return run("publish", *words, "--id", id, self.upstream.root, *[self.base / "input"] * 2)

    def mirror(self, *words):
        return run("mirror", *words, *self.words)

    def name_release(self, id):
        self.upstream.write(HIT, f"defId = {id}\n")


@pytest.fixture(scope="module")
def begun_once(tmp_path_factory):
    site = Site(tmp_path_factory.mktemp("begun"))
    for id in ("1000", "1001"):
        site.publish(id, key=site.key)
    assert site.mirror(*site.trust)[0] == 0
    return site


@pytest.fixture
def begun(begun_once, tmp_path):
    """With the releases "1000" and "1001" upstream, and the second one here."""
    shutil.copytree(begun_once.base, tmp_path, dirs_exist_ok=True)
    return Site(tmp_path, begun_once.keys)


def refusal(reason, id="1001"):
    return f"zqu-mirror: the upstream mirror's {info_name(id)} is refused: it {reason}\n"


def test_commands_of_the_manual_make_keys_and_verify(tmp_path):
    page = (REPOSITORY / "docs/man/zqu-mirror.1").read_text().split(".Ss Signed releases")[1].split(".Ss ")[0]
    make, verify = re.findall(r"^\.Bd .*\n((?:[^.].*\n)+)", page.replace("\\e", "\\"), re.MULTILINE)
    shell = {"shell": True, "cwd": tmp_path, "capture_output": True, "text": True}
    assert subprocess.run(make, **shell).returncode == 0
    (tmp_path / "input").touch()
    words = ["--sign", "release-key.pem", "--allow-empty", "--id", "1004", ".", "input", "input"]
    assert run("publish", *words, "--subdir", "", cwd=tmp_path)[0] == 0
    info = tmp_path / info_name("1004")
    text = info.read_text()
    done = subprocess.run(verify, **shell)
    assert (done.returncode, done.stdout, done.stderr) == (0, "Signature Verified Successfully\n", "")
    info.write_text(text.replace("v2\n", "v3\n"))
    assert subprocess.run(verify, **shell).returncode == 1


SHARED = "{} may be used by other users: make it your own with the mode 0600, or make a new key if one of them may"
SHARED += " have it"
ASKED = "{} has a pass phrase, which zqu-mirror does not ask for: use another key, or remove it by openssl pkey -in {}"
ASKED += " -out FILE"
NO_KEY = "{} holds no Ed25519 private key in PEM: make one with openssl genpkey -algorithm ed25519"
ROOTS = "the mirror's directory belongs to another user, who could read the key while root signs there: sign in a "
ROOTS += "directory that belongs to root, and copy that with zqu-mirror mirror"
# A change to a site whose key is good, and the message about the key or the mirror.
UNUSABLE = {
    "group may read": (lambda site: site.key.path.chmod(0o640), SHARED),
    "others may write": (lambda site: site.key.path.chmod(0o602), SHARED),
    "pass phrase": (lambda site: site.key.path.write_bytes(private_pem(site.key.key, b"secret")), ASKED),
    "public half": (lambda site: site.key.path.write_bytes(site.key.public.read_bytes()), NO_KEY),
    "of RSA": (lambda site: site.key.path.write_bytes(private_pem(rsa.generate_private_key(65537, 2048))), NO_KEY),
    "of X25519": (lambda site: site.key.path.write_bytes(private_pem(x25519.X25519PrivateKey.generate())), NO_KEY),
    "fifo": (lambda site: (site.key.path.unlink(), os.mkfifo(site.key.path)), "{} is not a regular file"),
    "of another": (lambda site: os.chown(site.key.path, 12345, 12345), SHARED),
    "of root": (lambda site: (site.upstream.root.mkdir(), os.chown(site.upstream.root, 12345, 12345)), ROOTS),
}


@pytest.mark.parametrize("case", [case for case in UNUSABLE if AS_ROOT or case not in ("of root", "of another")])
def test_private_key_that_must_not_be_used_is_refused(tmp_path, case):
    site = Site(tmp_path)
    change, reason = UNUSABLE[case]
    change(site)
    before = site.upstream.tree()
    assert site.publish("1", key=site.key) == (1, "", f"zqu-mirror: {reason.format(*[site.key.path] * 2)}\n")
    assert site.upstream.tree() == before


def test_ini_that_is_published_never_changes(begun):
    """And an id that was published without this signature is refused."""
    before = begun.info.read_bytes()
    for key in (begun.key, None):
        assert begun.publish("1001", key=key)[1].startswith("1001 was published before with this content")
    assert begun.publish("2000")[0] == 0
    for id, key, reason in (("1001", begun.other, UNTRUSTED), ("2000", begun.key, UNSIGNED)):
        line = f"{id} was published without this signature, take a new id: {info_name(id)} is refused: it {reason}"
        assert begun.publish(id, key=key) == (1, "", f"zqu-mirror: {line}\n")
    assert begun.info.read_bytes() == before


def edit(change):
    """A change of the text of the upstream's INI."""
    return lambda site: site.info.write_bytes(change(site.info.read_bytes()))


def sign(**options):
    return lambda site: site.key.sign_info(site.upstream, "1001", **options)


unsign = edit(lambda text: text[: text.index(b"#")])
# What is done to the upstream's signed INI, and why it is refused then, with --max-age 1h.
REFUSED = {
    "no signature": (unsign, UNSIGNED),
    "line cut": (edit(lambda text: text[:-1]), UNSIGNED),
    "text behind": (edit(lambda text: text + b"def.Current.name = x\n"), UNSIGNED),
    "lines of DOS": (edit(lambda text: text.replace(b"\n", b"\r\n")), UNSIGNED),
    "zero byte": (edit(lambda text: text.replace(b"= v2", b"= v2\0")), UNTRUSTED),
    "text before": (lambda site: edit(lambda text: site.key.sign(b"def.Current.defId = 9\n" + text))(site), UNSIGNED),
    "time without end": (sign(published=10**30), UNSIGNED),
    "other digest": (edit(lambda text: re.sub(b"SHA256 = .", b"SHA256 = x", text)), UNTRUSTED),
    "other key": (lambda site: site.other.sign_info(site.upstream, "1001"), UNTRUSTED),
    "other flavor": (sign(flavor="v3"), "is signed for another flavor: v3"),
    "other id": (sign(defId="1000"), "is signed for another id: 1000"),
    "in the future": (sign(age_s=-330), r"was published 5 min \d+ s in the future: check the clocks"),
    "old": (sign(age_s=7200), "was published 2 h ago, longer than 1 h"),
}


@pytest.mark.parametrize("case", REFUSED)
def test_forged_release_is_refused_before_its_archive(begun, case):
    """Also when it is current here already."""
    change, reason = REFUSED[case]
    change(begun)
    begun.upstream.path(cab("1001")).unlink()
    before = begun.copy.seen()
    code, out, err = begun.mirror("--max-age", "1h")
    assert (code, out) == (1, "") and re.fullmatch(refusal(reason), err)
    assert begun.copy.seen() == before
    code, out, err = begun.upstream.check(*begun.trust, "--max-age", "1h", "--quiet")
    line = f"FAULT    {info_name('1001')} is refused: it {reason}\n"
    assert (code, err) == (1, "") and re.fullmatch(line, out)


TAKEN = {
    "clock behind": (sign(age_s=-270), []),
    "just young enough": (sign(age_s=3500), ["--max-age", "1h"]),
    "more keys": (sign(more="def.Current.flavor = v3\ndef.Current.later = 1\n"), []),
    "older release": (lambda site: site.name_release("1000"), []),
}


@pytest.mark.parametrize("case", TAKEN)
def test_what_one_of_the_trusted_keys_signed_is_taken(begun, case):
    change, words = TAKEN[case]
    change(begun)
    words = ["--trust", begun.other.public, *begun.trust, *words]
    assert begun.mirror(*words)[::2] == (0, "")
    code, out, err = begun.upstream.check(*words)
    line = r"ok       a trusted key signed it, published \S+ \S+ UTC"
    assert (code, err) == (0, "") and re.fullmatch(line, out.splitlines()[2])


def test_held_release_has_to_be_signed_too(begun):
    begun.name_release("1000")
    assert begun.mirror()[0] == run("activate", begun.copy.root, "1001")[0] == 0
    assert begun.mirror()[1].startswith("1000 is held")
    begun.upstream.write(info_name("1000"), "def.Current.name = x\ndef.Current.SHA256 = x\n")
    assert begun.mirror() == (1, "", refusal(UNSIGNED, "1000"))


def test_given_keys_are_stored_and_later_runs_use_them(begun):
    """Only those that were given last, and also when nothing is new or the run fails."""
    key, other = (key.public.read_bytes() for key in begun.keys)
    assert (begun.stored.read_bytes(), begun.stored.stat().st_mode & 0o777) == (key, 0o644)
    before = begun.copy.seen()
    for words in ([], begun.trust, ["--max-age", "1d"]):
        assert begun.mirror(*words) == (0, "nothing new: 1001 is current\n", "")
    assert begun.copy.seen() == before
    for words in (["--trust", begun.other.public], []):
        assert begun.mirror(*words) == (1, "", refusal(UNTRUSTED))
        assert begun.stored.read_bytes() == other
    assert begun.mirror("--trust", begun.other.public, *begun.trust)[0] == 0
    assert begun.stored.read_bytes() == other + key


def test_first_run_that_fails_keeps_the_keys_alone(tmp_path):
    """Without keys no time limit is accepted, whichever key signed."""
    site = Site(tmp_path)
    site.publish("1000", key=site.other)
    line = "zqu-mirror: --max-age needs a signed time, and no key is trusted here: give one by --trust\n"
    assert (site.mirror("--max-age", "1d"), site.copy.root.exists()) == ((1, "", line), False)
    for words in (site.trust, []):
        assert site.mirror(*words) == (1, "", refusal(UNTRUSTED, "1000"))
        assert site.copy.files() == [TRUSTED]


def test_repair_restores_only_what_a_stored_key_signed(begun):
    words = ["repair", "--from", *begun.words]
    text = begun.info.read_bytes()
    unsign(begun)
    for damage in (lambda: None, lambda: os.truncate(begun.copy.path(cab("1001")), 9)):
        damage()
        code, out, err = run(*words)
        assert (code, err) == (1, refusal(UNSIGNED))
    begun.info.write_bytes(text)
    assert run(*words)[0] == begun.mirror()[0] == 0
    begun.name_release("1000")
    assert begun.mirror()[0] == 0
    unsign(begun)  # it may be older than the keys, and is a former release now
    lines = refusal(UNSIGNED).removeprefix("zqu-mirror: ") + "nothing is damaged: 1000 is current\n"
    assert run(*words) == (0, lines, "")


ONLY = "must hold Ed25519 public keys as openssl pkey -pubout writes them, and nothing else"
NOT_REGULAR = "is not a regular file: remove it, and name the keys by zqu-mirror mirror --trust"


def replaced(make):
    return lambda site: (site.stored.unlink(), make(site.stored))


# A change to the stored keys, and the message.
DAMAGED = {
    "empty": (lambda site: os.truncate(site.stored, 0), ONLY),
    "cut": (lambda site: os.truncate(site.stored, 100), ONLY),
    "long": (lambda site: site.stored.write_bytes(site.stored.read_bytes() * 600), ONLY),
    "remark": (lambda site: site.stored.write_bytes(b"mine\n" + site.stored.read_bytes()), ONLY),
    "private": (lambda site: site.stored.write_bytes(site.key.path.read_bytes()), ONLY),
    "dangling link": (replaced(lambda path: path.symlink_to("gone")), NOT_REGULAR),
    "fifo": (replaced(os.mkfifo), NOT_REGULAR),
    "directory": (replaced(os.mkdir), NOT_REGULAR),
}


@pytest.mark.parametrize("case", DAMAGED)
def test_damaged_stored_keys_are_a_failure(begun, case):
    """Until they are given again, which replaces a regular file only."""
    damage, reason = DAMAGED[case]
    damage(begun)
    begun.copy.expect_refused(f"{begun.stored} {reason}", "mirror", *begun.words)
    assert begun.mirror(*begun.trust)[0] == int(reason == NOT_REGULAR)


def test_age_of_a_signed_release_is_the_signed_one(begun):
    """In all forms of check."""
    sign(age_s=3 * DAY)(begun)
    old = f"{info_name('1001')} is refused: it was published 3 d ago, longer than 2 d"
    for words, code, text in (
        ([], 1, r"MIRROR WARNING - the release 1001 is 3 d old, more than 2 d \|age=\d+s;172800;345600;0\n"),
        (begun.trust, 2, rf"MIRROR CRITICAL - {old} \|age=\d+s;172800;172800;0\n"),
    ):
        found = begun.upstream.check("--nagios", "--max-age", "2d", *words)
        assert found[0] == code and re.fullmatch(text, found[1])
    for form, pattern in (("--json", r'"published_epoch":(\d+)'), ("--prometheus", r"release_timestamp_\w+{.*} (\d+)")):
        found = re.search(pattern, begun.upstream.check(form)[1])
        assert time.time() - 3 * DAY - int(found[1]) < 60


def publish(key=None, id="1002", changes=lambda site: None):
    return lambda site: (site.publish(id, key=key and getattr(site, key)), changes(site))


def put(of, to):
    return lambda site: site.upstream.write(to, site.upstream.path(of).read_bytes())


def age(id, *names):
    return lambda site: [site.key.sign_info(getattr(site, name), id, 3 * DAY) for name in names]


OLD = "was published 3 d ago, longer than 2 d"
# What an upstream does to gateways that have 1001; the content that a plain one has in service then; and the reason of
# the refusal, or None.
ATTACKS = {
    "arbitrary installation": (publish(), "1002", UNSIGNED),
    "fast-forward": (publish(id="9999"), "9999", UNSIGNED),
    "indefinite freeze": (age("1001", "upstream", "copy"), "1001", OLD),
    "no updates": (lambda site: site.upstream.path(HIT).unlink(), "1001", "No such file or directory"),
    "mix and match": (publish("key", changes=put(info_name("1000"), info_name("1002"))), "1000", "another id: 1000"),
    "rollback": (lambda site: (age("1000", "upstream")(site), site.name_release("1000")), "1000", OLD),
    "wrong content": (publish("key", changes=put(cab("1000"), cab("1002"))), "1001", "does not have the digest"),
    "former key": (publish("other"), "1002", UNTRUSTED),
    "key": (publish("key"), "1002", None),
}


@pytest.mark.parametrize("attack", ATTACKS)
def test_attack_ends_at_a_gateway_that_verifies(begun, attack):
    """And the next signed release goes into service everywhere."""
    act, content, reason = ATTACKS[attack]
    gateways = []
    for name, root in (("plain", begun.upstream.root), ("verifying", begun.copy.root)):
        (begun.base / name).mkdir()
        gateways.append(Gateway(begun.base / name, mirror_base_url=f"file://{root}", mirror_subdir=SUBDIR))

    def in_service():
        for gateway in gateways:
            gateway.run_once()
        return [gateway.active_files()["antivir-v2.def"].decode() for gateway in gateways]

    assert in_service() == ["1001", "1001"]
    act(begun)
    code, out, err = begun.mirror("--max-age", "2d")
    assert (code, (reason or "") in err) == (int(reason is not None), True), err
    assert in_service() == [content, "1001" if reason else content]
    assert begun.copy.check("--nagios", "--max-age", "2d")[0] == int(attack == "indefinite freeze")
    begun.publish("1003", key=begun.key)
    assert begun.mirror("--max-age", "2d")[0] == 0
    assert in_service() == ["1003", "1003"]

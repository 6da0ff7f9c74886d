"""zqu-mirror, and a mirror that it makes."""

import copy
import hashlib
import os
import re
import shutil
import struct
import time
import zlib

from gateway import BUILD, preloading
from mirrors import Mirror
from outcomes import tree
from raw_archives import Entry, zip_bytes
from release import HIT, good_files, info_name, sha256
from tools import Stopped, Tool

run = Tool("zqu-mirror")
SUBDIR = "rhex/deffiles/def5-2"
WORK = ".zqu-mirror.work"
HELD = ".zqu-mirror.held"
REPLACED = ".zqu-mirror.replaced"
TRUSTED = ".zqu-mirror.trusted.pem"
DAY = 86400
NAME_RULE = "may hold only letters, digits and -._~!$&'()*+,;:@ (clients could not fetch it otherwise)"
FIRST, SECOND, INDEX = "antivir-v2.def", "aivsecon-v2.def", "antivir-v2.ini"
DOTS_RULE = 'must not be empty, "." or ".."'
HIT_RULE = 'must not be "hit", end in -hit or hold -hit.ini'


def cab(id, flavor="v2"):
    return f"antivir-{flavor}-c-{id}.cab"


def unchanged():
    """The environment in which every file looks unchanged since its content was written: nobody can set a ctime."""
    options = os.environ.get("ASAN_OPTIONS", "") + ":verify_asan_link_order=0"
    shim = {"LD_PRELOAD": preloading("libzqu_ctime_shim.so"), "LD_LIBRARY_PATH": str(BUILD)}
    return {**os.environ, **shim, "ASAN_OPTIONS": options}


def utc(epoch):
    return time.strftime("%Y-%m-%d %H:%M:%S UTC", time.gmtime(epoch))


def noise(size, seed):
    """Bytes that do not compress, the same in each run."""
    blocks = (hashlib.sha256(f"{seed} {i}".encode()).digest() for i in range(size // 32 + 1))
    return b"".join(blocks)[:size]


def plain_archive(first, second, index=""):
    """The plain archive of these definitions, put together field by field."""
    files, body, directory, most = {FIRST: first, SECOND: second}, b"", b"", 2**32 - 1
    index = index or "".join(f"{name}.sha256 = {sha256(content)}\n" for name, content in files.items())
    for name, content in {INDEX: index.encode(), **files}.items():
        size = len(content)
        fields = struct.pack("<5H3IH", 45, 0, 0, 0, 0x21, zlib.crc32(content), most, most, len(name))
        directory += b"PK\1\2\x2d\3" + fields + struct.pack("<HQHI", 28, 0, 0o100444, most) + name.encode()
        directory += struct.pack("<HH3Q", 1, 24, size, size, len(body))
        body += b"PK\3\4" + fields + struct.pack("<H", 20) + name.encode()
        body += struct.pack("<HHQQ", 1, 16, size, size) + content
    end = struct.pack("<QHHQ4Q", 44, 0x32D, 45, 0, 3, 3, len(directory), len(body))
    end += struct.pack("<4sIQI", b"PK\6\7", 0, len(body + directory), 1)
    end += struct.pack("<4s4H2IH", b"PK\5\6", 0, 0, 3, 3, most, most, 0)
    return body + directory + b"PK\6\6" + end


def change_info(mirror, id, **changes):
    """Changes values of a complete-info INI; None removes the line."""
    text = mirror.path(info_name(id)).read_text()
    for key, value in changes.items():
        line = "" if value is None else f"def.Current.{key}={value}\n"
        text = re.sub(rf"def.Current.{key} *=.*\n", lambda unused: line, text)
    mirror.write(info_name(id), text)


# ---- What can be done to a mirror ----


def write(name, content):
    return lambda mirror: mirror.write(name, content)


def cut(name, size):
    return lambda mirror: os.truncate(mirror.path(name), size)


def remove(name):
    return lambda mirror: mirror.path(name).unlink()


def change_byte(name):
    def change(mirror):
        data = bytearray(mirror.path(name).read_bytes())
        data[len(data) // 2] ^= 1
        mirror.write(name, bytes(data))

    return change


def forge(id, archive):
    """The archive is another one, and the INI gives its digest."""

    def change(mirror):
        mirror.write(archive, b"forged")
        change_info(mirror, id, SHA256=sha256(b"forged"), size=6)

    return change


def clean_report(id, archive, data):
    """The lines of a check that finds nothing."""
    return [
        f"ok       {HIT} names {id}",
        f"ok       {info_name(id)} names {archive}",
        f"ok       {archive} can be downloaded: {len(data)} bytes",
        f"ok       {archive} has the digest {sha256(data)}",
        f"ok       {archive} can be unpacked",
        "ok       antivir-v2.def has the digest that the index gives",
        "ok       aivsecon-v2.def has the digest that the index gives",
    ]


class OwnMirror(Mirror):
    """A mirror that zqu-mirror publishes to, beside two definition files to publish, with times of their own."""

    def __init__(self, base):
        self.base = base
        self.subdir = SUBDIR
        self.root, self.directory = base / "mirror", base / "mirror" / SUBDIR
        self.antivir = base / "first input"
        self.aivsecon = base / "second input"
        self.antivir.write_bytes(noise(70000, "antivir"))
        self.aivsecon.write_bytes(b"signature\n" * 3000)
        os.utime(self.antivir, (1583298368, 1583298368))
        os.utime(self.aivsecon, (1614834370, 1614834370))
        self.began = time.time()

    def copied_to(self, root):
        """The same mirror, inputs included, with its files at another place."""
        made = copy.copy(self)
        made.root, made.directory = root, root / SUBDIR
        if self.root.exists():
            shutil.copytree(self.root, root)
        return made

    # ---- Commands ----

    def publishing(self, id, *flags, root=None):
        """The words that publish the two files."""
        return ["publish", *flags, "--id", id, root or self.root, self.antivir, self.aivsecon]

    def publish(self, id, *flags, root=None, **options):
        return run(*self.publishing(id, *flags, root=root), **options)

    def publish_small(self, *ids, flavor="v2"):
        """Publishes releases of other content than that of the two files."""
        for id in ids:
            small = self.base / "small input"
            small.write_text(f"{flavor} {id}\n")
            assert run("publish", "--flavor", flavor, "--id", id, self.root, small, small)[0] == 0

    def check(self, *flags, root=None, **options):
        return run("check", *flags, root or self.root, **options)

    def prune(self, *words, env=None):
        return run("prune", *words, self.root, env=env or unchanged())

    def list(self, *words, env=None):
        return run("list", *words, self.root, env=env or unchanged())

    def stopped(self, words, path, call="openat"):
        """A run that stands still at its first call on a path of the mirror."""
        return Stopped([run.path, *words], self.path(path), call)

    # ---- What is there ----

    def files(self):
        return sorted(os.listdir(self.directory))

    def files_of(self, *ids, flavors=("v2",)):
        """The files of these releases, and the hit INIs."""
        names = [name for flavor in flavors for id in ids for name in (info_name(id, flavor), cab(id, flavor))]
        return sorted([*names, *(f"antivir-{flavor}-hit.ini" for flavor in flavors)])

    def removed(self, *ids, did="removed"):
        """The lines of a prune for these releases, as long as they are there."""
        sizes = {id: self.size(info_name(id), cab(id)) for id in ids}
        return "".join(f"{did} {id}: {info_name(id)}, {cab(id)}, {size} bytes\n" for id, size in sizes.items())

    def tree(self):
        return tree(self.root, modes=True)

    def seen(self):
        """All of it, with the times of the files."""
        times = {path: path.stat().st_mtime_ns for path in self.root.rglob("*") if path.is_file()}
        return self.tree(), times

    def expect_refused(self, line, *words, code=1, **options):
        """The run ends with this line, and changes nothing."""
        before = self.seen()
        assert run(*words, **options) == (code, "", f"zqu-mirror: {line}\n")
        assert self.seen() == before

    def expect_left(self, *names, rules=("--keep", "1")):
        """A prune by these rules succeeds, and leaves these files."""
        assert self.prune(*rules)[0] == 0
        assert self.files() == sorted(names)

    def summary(self, id, archive=None):
        """The message of publish for a release."""
        archive = archive or cab(id)
        data = self.path(archive).read_bytes()
        return f"{id}: {archive}, {len(data)} bytes, SHA-256 {sha256(data)}"

    def held(self):
        return sorted(path.name for path in self.path(HELD).iterdir()) if self.path(HELD).exists() else []

    def size(self, *names):
        return sum(self.path(name).stat().st_size for name in names)

    # ---- What happened to it ----

    def set_age(self, name, days):
        os.utime(self.path(name), (self.began - days * DAY, self.began - days * DAY))

    def history(self, *days, flavor="v2"):
        """Releases "1", "2" and so on; each was published this number of days ago, and replaced by the next."""
        ids = [str(number) for number in range(1, len(days) + 1)]
        self.publish_small(*ids, flavor=flavor)
        for id, age in zip(ids, days):
            self.set_age(info_name(id, flavor), age)
        self.set_age(f"antivir-{flavor}-hit.ini", days[-1])

    def make_by_hand(self, entries=(), id="7", hit="[Current]\ndefId = 7\n", **changes):
        """Puts a ZIP there with these entries in the place of the good ones or besides them (None drops one), and
        changes lines of its complete-info INI. Returns the ZIP."""
        self.directory.mkdir(parents=True)
        contents = {**dict(good_files("7")), **dict(entries)}
        made = [Entry(name, data) for name, data in contents.items() if data is not None]
        self.write("x.zip", zip_bytes(made))
        self.announce(id, "x.zip")
        change_info(self, id, **changes)
        self.write(HIT, hit)
        return self.path("x.zip").read_bytes()


class Copy(OwnMirror):
    """A mirror that is to be copied from an upstream one, behind nginx."""

    def __init__(self, base, nginx, upstream):
        super().__init__(base)
        self.nginx = nginx
        self.upstream = upstream

    def words(self, *words, root=None):
        options = ["--ca", self.nginx.ca_path, "--upstream-subdir", self.upstream.subdir, *words]
        return ["mirror", *options, self.nginx.url(), root or self.root]

    def run(self, *words, **options):
        return run(*self.words(*words), **options)

    def follow(self, *ids):
        """Copies these releases, one after the other."""
        for id in ids:
            self.upstream.publish(id)
            assert self.run()[0] == 0

"""zqu-mirror and mirrors that mean harm: what an archive may hold, who may reach it, and answers without an end."""

import gzip
import lzma
import os
import pathlib
import re
import signal
import stat
import struct
import subprocess
import tempfile
import zlib

import pytest
from gateway import SANITIZED, wait_for
from mirror_tool import SUBDIR, WORK, run
from mirrors import Mirror
from raw_archives import LINK, Entry, deflated, release, zip_bytes, zip_local
from release import HIT, info_name
from scripted_server import flood, head, reply
from tools import AS_ROOT, under_strace

INDEX, FIRST, SECOND = (entry.name.decode() for entry in release("new"))
INFO = info_name("7")
OTHER_USER = 12345
needs_root = pytest.mark.skipif(not AS_ROOT, reason="takes on another user")


class Hostile:
    """An upstream mirror of one release, and a mirror to copy it to, in a directory that all users may enter."""

    def __init__(self, base):
        self.base = base
        self.upstream = Mirror(base / "upstream", SUBDIR)
        self.mirror = base / "mirror"
        self.temp = base / "temp"
        self.temp.mkdir()
        self.temp.chmod(0o1777)
        self.tool = run.copied_to(base)
        self.environment = {**os.environ, "TMPDIR": str(self.temp)}
        base.chmod(0o755)

    def put(self, archive, name="x.zip"):
        self.upstream.write(name, archive if isinstance(archive, bytes) else zip_bytes(archive))
        self.upstream.announce("7", name)

    def words(self, command):
        root = self.base / "upstream"
        return ["check", root] if command == "check" else ["mirror", f"file://{root}", self.mirror]

    def run(self, command, **options):
        return self.tool(*self.words(command), env=self.environment, **options)

    def start(self, command, *options):
        pipes = {"stdout": subprocess.PIPE, "stderr": subprocess.PIPE, "text": True}
        return subprocess.Popen([self.tool.path, *self.words(command), *options], env=self.environment, **pipes)


@pytest.fixture
def hostile():
    with tempfile.TemporaryDirectory(prefix="zqu-hostile-") as directory:
        yield Hostile(pathlib.Path(directory))


# ---- What an archive may hold ----


def new(*more, first=()):
    return [*first, *release("new"), *more]


def changed(number, **fields):
    """The release with one of its entries changed: 0 is the index, 1 the first definition file."""
    entries = release("new")
    for name, value in fields.items():
        setattr(entries[number], name, value)
    return entries


def cut_by_its_header():
    """Read as a stream, the header of the first definition file says 5 bytes, and what follows its data the truth."""
    entries = release("new")
    content = entries[1].content
    entry = deflated(FIRST, content)
    entry.packed += struct.pack("<4sIII", b"PK\7\10", zlib.crc32(content), len(entry.packed), len(content))
    entry.fields |= {"flags": 8, "size": 5, "packed_size": 0}
    entries[1] = entry
    return gzip.compress(zip_bytes(entries))


def of_size(size):
    extra = struct.pack("<HHQQ", 1, 16, size, 1)
    fields = {"size": 2**32 - 1, "packed_size": 2**32 - 1, "local_extra": extra, "central_extra": extra}
    return zip_bytes(new(first=[Entry("huge", b"x", fields=fields)]))


def long_index():
    return changed(0, content=release("new")[0].content + b"; \n" * 400_000)


def zstd_frame(*blocks, window=17):
    """Blocks of a byte that is repeated so often, or of bytes as they are (RFC 8878, section 3.1.1). The window is the
    number of its bits."""
    packed = b""
    for number, (content, repeats) in enumerate(blocks, 1):
        fields = (number == len(blocks)) | (repeats > 1) << 1 | (repeats if repeats > 1 else len(content)) << 3
        packed += struct.pack("<I", fields)[:3] + content
    return struct.pack("<IBB", 0xFD2FB528, 0, (window - 10) << 3) + packed


def nested(layers):
    archive = zip_bytes(new())
    for _ in range(layers):
        archive = zstd_frame((archive, 1))
    return archive


CANNOT = "x.zip cannot be unpacked: {}"
NO_FILE_NAME = CANNOT.format("an entry has no file name")
FAULTS = {
    "no archive": (b"\0" * 1000, CANNOT.format("Unrecognized archive format")),
    "named like a file": (new(), f"{FIRST} is not in the archive", FIRST),  # clients remove what they have unpacked
    "no first file": (release("new")[::2], f"{FIRST} is not in the archive"),
    "no second file": (release("new")[:2], f"{SECOND} is not in the archive"),
    "file without a right": (changed(1, mode=stat.S_IFREG), f"{FIRST} has the mode 0000: clients cannot read it"),
    "index closed": (changed(0, mode=stat.S_IFREG | 0o077), f"{INDEX} has the mode 0077: clients cannot read it"),
    "file is a link": (changed(1, mode=LINK, content=b"other"), f"{FIRST} is no regular file"),
    "file is a directory": (changed(1, mode=stat.S_IFDIR | 0o755, content=b""), f"{FIRST} is not in the archive"),
    "wrong one last": (new(Entry(f"sub/{FIRST}", b"bad")), f"{FIRST} does not have the digest that the index gives"),
    "index too long": (long_index(), f"{INDEX} is longer than 1048576 bytes"),
    "other size in header": (cut_by_its_header(), f"{FIRST} has another size than the archive says"),
    "locked directory": (
        new(Entry("sub", b"", stat.S_IFDIR | 0o600)),
        CANNOT.format("a directory of mode 0600 locks clients out"),
    ),
    "no name": (new(Entry("", b"x")), NO_FILE_NAME),
    "dots": (new(Entry("a/..", b"x")), NO_FILE_NAME),
    "name too long": (new(Entry("x" * 256, b"x")), CANNOT.format("an entry's name is too long for a file")),
    "link to nothing": (new(Entry("a", b"", LINK)), CANNOT.format("the link a leads nowhere")),
    "link too long": (new(Entry("a", b"x" * 4096, LINK)), CANNOT.format("the link a leads nowhere")),
    "character device": (new(Entry("a", b"", stat.S_IFCHR | 0o644)), CANNOT.format("a is a device")),
    "cut behind them": (
        b"".join(map(zip_local, release("new"))) + b"PK\3\4",
        CANNOT.format("Truncated ZIP file header"),
    ),
    "window too large": (
        zstd_frame((zip_bytes(new()), 1), window=28),
        CANNOT.format("Zstd decompression failed: Frame requires too much memory for decoding"),
    ),
    "nested streams": (nested(25), CANNOT.format("Input requires too many filters for decoding")),
    "huge file": (of_size(2**33 + 1), CANNOT.format("huge is larger than a gateway accepts")),
}


@pytest.mark.parametrize("fault", FAULTS)
def test_archive_that_clients_fail_on_is_a_fault(hostile, fault):
    """For every user, and the same for mirror."""
    archive, text, *name = FAULTS[fault]
    hostile.put(archive, *name)
    code, out, err = found = hostile.run("check")
    assert (code, f"\nFAULT    {text}\n" in out, err) == (1, True, "")
    if AS_ROOT:
        assert hostile.run("check", user=OTHER_USER, group=OTHER_USER, extra_groups=[]) == found
    assert hostile.run("mirror")[::2] == (1, f"zqu-mirror: the upstream mirror's archive is refused: {text}\n")
    assert (list(hostile.temp.iterdir()), hostile.mirror.exists()) == ([], False)


def with_large_dictionary(name, content):
    """Packed by LZMA: the header asks for a dictionary of 1500 MiB."""
    packed = lzma.compress(content, lzma.FORMAT_RAW, filters=[{"id": lzma.FILTER_LZMA1}])
    header = struct.pack("<BBHBI", 9, 20, 5, 0x5D, 1500 << 20)
    return Entry(name, content, packed=header + packed, fields={"method": 14, "flags": 2})


@pytest.mark.skipif(SANITIZED, reason="the sanitizers need more memory than a gateway has")
def test_archive_that_needs_too_much_memory_is_a_fault(hostile):
    hostile.put(new(with_large_dictionary("more", b"x")))
    code, out, err = hostile.run("check")
    assert (code, out.count("\nFAULT    x.zip cannot be unpacked: "), out.count("unpacked"), err) == (1, 1, 1, "")


DROPPED = "warning  {} is in the archive too: clients drop it\n"
# What stands before the release in an archive, or the release, and the warnings.
NOTED = {
    "modes and directories": (
        new(first=[Entry("./", b"", stat.S_IFDIR | 0o777), Entry("a", b"", stat.S_IFREG | 0o7777)]),
        DROPPED.format("a"),
    ),
    "many": (
        new(first=[Entry(f"f{i:02}", b"x") for i in range(25)]),
        "".join(DROPPED.format(f"f{i:02}") for i in range(20)) + "warning  5 more entries: clients drop them\n",
    ),
    "archive itself": (new(first=[Entry("x.zip", b"x")]), ""),
    "owner's": (
        changed(2, mode=stat.S_IFREG | 0o600),
        f"warning  {SECOND} has the mode 0600: other users of a gateway cannot read it\n",
    ),
}


@pytest.mark.parametrize("what", NOTED)
def test_what_clients_accept_is_noted_and_copied(hostile, what):
    """For every user, with up to twenty names."""
    archive, lines = NOTED[what]
    hostile.put(archive)
    code, out, err = found = hostile.run("check")
    assert (code, out.split("index gives\n")[-1], err) == (0, lines, "")
    if AS_ROOT:
        assert hostile.run("check", user=OTHER_USER, group=OTHER_USER, extra_groups=[]) == found
    assert hostile.run("mirror")[0] == 0


def larger_than_three_files():
    """Three files of 8 GiB of zeros, and the release."""
    size = 8 << 30
    extra = struct.pack("<HHQQ", 1, 16, size, size)
    fields = {"size": 2**32 - 1, "packed_size": 2**32 - 1, "local_extra": extra, "crc": 0x41D912FF}
    file = zstd_frame((zip_local(Entry("zeros", fields=fields)), 1))
    file += zstd_frame(*[(b"\0", 1 << 17)] * 1024) * (size >> 27)
    return file * 3 + zstd_frame((zip_bytes(release("new")), 1))


@pytest.mark.long
@pytest.mark.skipif(SANITIZED, reason="takes minutes then")
def test_entries_larger_than_three_files_are_a_fault(hostile):
    hostile.put(larger_than_three_files())
    line = "\nFAULT    x.zip cannot be unpacked: it unpacks to more than a gateway accepts\n"
    code, out, err = hostile.run("check")
    assert (code, line in out, err) == (1, True, "")


ESCAPED = "\\xC2\\x9B\\xE2\\x80\\xAE\\xE2\\x81\\xA6\\xFF"


def test_no_text_of_a_mirror_reaches_a_terminal_as_it_is(hostile):
    nasty = "\u009b\u202e\u2066".encode() + b"\xff"
    hostile.put(new(first=[Entry(nasty, b"x")]))
    assert DROPPED.format(ESCAPED) in hostile.run("check")[1]
    hostile.put(new(first=[Entry(nasty, b"x", stat.S_IFCHR)]))
    assert f"cannot be unpacked: {ESCAPED} is a device\n" in hostile.run("check")[1]
    assert f"cannot be unpacked: {ESCAPED} is a device\n" in hostile.run("mirror")[2]
    hostile.upstream.write(INFO, b"def.Current.name = " + nasty + b"\ndef.Current.SHA256 = 0\n")
    code, out, err = hostile.run("check")
    assert (code, out.count(ESCAPED), err) == (1, 2, "")
    assert f"archive name {ESCAPED} is refused: " in hostile.run("mirror")[2]
    hostile.upstream.write(HIT, b"defId = " + nasty + b"\n")
    code, out, err = hostile.run("check")
    assert (code, out.count(ESCAPED), err) == (1, 2, "")
    assert f"id {ESCAPED} is refused: " in hostile.run("mirror")[2]


def test_no_archive_name_reaches_a_terminal_as_it_is(hostile):
    """What is shown is also how far the process that reads the archive is."""
    hostile.put(new(first=SLOW * 6), "x\u009b\u202e\u2066.zip")
    code, shown = run.on_terminal("stderr", *hostile.words("check"))
    line = rb"\x1b\[Kzqu-mirror: reading x\\xC2\\x9B\\xE2\\x80\\xAE\\xE2\\x81\\xA6.zip: [1-9]\d* MB\r"
    assert (code, bool(re.search(line, shown))) == (0, True), shown
    assert {byte for byte in shown if byte >= 127} == set()


# ---- Who may reach it ----

SLOW = [deflated("slow", bytes(50_000_000)) for _ in range(8)]


def reader_of(process):
    """The process that reads the archive for a run, once it has given up what it had."""
    found = []

    def is_at_work():
        for child in pathlib.Path(f"/proc/{process.pid}/task/{process.pid}/children").read_text().split():
            try:
                at_work = len(os.listdir(f"/proc/{child}/fd")) == 4
            except PermissionError:  # only root may look into a process that has given up its privileges
                at_work = True
            if at_work:
                found.append(int(child))
        return found

    wait_for(is_at_work, process)
    return found[0]


def is_gone(pid):
    try:
        return status_of(pid)["State"].startswith(("Z", "X"))
    except FileNotFoundError:
        return True


def status_of(pid):
    lines = pathlib.Path(f"/proc/{pid}/status").read_text().splitlines()
    return dict(line.split(":\t", 1) for line in lines if ":\t" in line)


@needs_root
def test_reading_process_has_no_rights_and_ends_with_the_run(hostile):
    hostile.put(new(first=SLOW * 4))
    process = hostile.start("check")
    reader = reader_of(process)
    status = status_of(reader)
    assert status["Uid"].split() == status["Gid"].split() == [str(61184 + reader % 4336)] * 4
    assert (status["Groups"].strip(), status["NoNewPrivs"]) == ("", "1")
    assert {int(status[name], 16) for name in ("CapInh", "CapPrm", "CapEff", "CapAmb")} == {0}
    assert os.stat(f"/proc/{reader}/fd").st_uid == 0  # it is not for its user to trace
    *standard, last = sorted(pathlib.Path(f"/proc/{reader}/fd").iterdir(), key=lambda path: int(path.name))
    files = [re.sub(rf"^{hostile.temp}/zqu\.\w{{6}}|:.*", "", os.readlink(path)) for path in (*standard, last)]
    assert files == ["/dev/null", "socket", "/dev/null", " (deleted)"]
    assert os.getsid(reader) == reader
    mode = last.stat().st_mode
    assert (list(hostile.temp.iterdir()), stat.S_IMODE(mode)) == ([], 0o600)  # nothing is unpacked
    limits = pathlib.Path(f"/proc/{reader}/limits").read_text()
    assert re.search(r"^Max cpu time +600 +601 ", limits, re.MULTILINE)
    assert re.search(rf"^Max data size +{256 << 20} +{256 << 20} ", limits, re.MULTILINE) or SANITIZED
    os.kill(reader, signal.SIGSTOP)  # so that it cannot end by itself
    process.send_signal(signal.SIGTERM)
    assert process.communicate(timeout=60)[1] == "zqu-mirror: ended by signal: Terminated\n"
    assert process.returncode == 128 + signal.SIGTERM
    wait_for(lambda: is_gone(reader))
    assert list(hostile.temp.iterdir()) == []


def test_plugin_that_a_signal_ends_is_unknown(hostile):
    hostile.put(new(first=SLOW * 4))
    process = hostile.start("check", "--nagios")
    reader_of(process)
    process.send_signal(signal.SIGTERM)
    assert process.communicate(timeout=60) == ("MIRROR UNKNOWN - ended by signal: Terminated\n", "")
    assert (process.returncode, list(hostile.temp.iterdir())) == (3, [])


def test_reader_that_is_killed_gives_no_verdict(hostile):
    hostile.put(new(first=SLOW * 4))
    process = hostile.start("mirror")
    work = hostile.mirror / SUBDIR / WORK
    reader = reader_of(process)
    assert (sorted(os.listdir(work)), stat.S_IMODE(work.stat().st_mode)) == ([INFO, "archive"], 0o700)
    os.kill(reader, signal.SIGKILL)
    line = "zqu-mirror: the process that reads the archive was ended by signal: Killed\n"
    assert process.communicate(timeout=60) == ("", line)
    assert (process.returncode, hostile.mirror.exists()) == (1, False)


@needs_root
def test_run_that_cannot_give_up_privileges_reads_no_archive(hostile):
    hostile.put(new())
    bare = ["setpriv", "--bounding-set=-setuid,-setgid", "--inh-caps=-all"]
    line = "zqu-mirror: cannot give up root's privileges: Operation not permitted\n"
    assert hostile.run("mirror", prefix=bare) == (1, "", line)


@pytest.mark.skipif(not AS_ROOT, reason="strace finds no paths of a process that has given up its privileges")
def test_disk_that_fails_under_the_archive_gives_no_verdict(hostile):
    """It can be read once, for the digest."""
    hostile.put(new())
    path = hostile.mirror / SUBDIR / WORK / "archive"
    failing = ["strace", "-qq", "-f", "-o", "/dev/null", "-P", path, "-e", "inject=read:error=EIO:when=4+"]
    line = f"zqu-mirror: cannot read {path}: Input/output error\n"
    environment = {**hostile.environment, **under_strace()}
    assert run(*hostile.words("mirror"), prefix=failing, env=environment) == (1, "", line)


@needs_root
def test_directories_that_only_root_may_enter_can_be_used(hostile):
    for path in (hostile.base / "upstream", hostile.temp):
        path.chmod(0o700)
    sources = hostile.base / "sources"
    sources.mkdir(mode=0o700)
    (sources / "first").write_bytes(b"one")
    hostile.mirror.mkdir(mode=0o700)
    words = ["publish", "--id", "7", hostile.base / "upstream", sources / "first", sources / "first"]
    assert run(*words, umask=0o077)[::2] == (0, "")
    assert hostile.run("check")[::2] == (0, "")
    assert hostile.run("mirror")[::2] == (0, "")


# ---- Answers without an end ----


@pytest.fixture
def copying(tmp_path, scripted):
    """The words that copy from a scripted server, whose hit INI names release 7."""
    scripted.server.script = {HIT: [reply(b"defId = 7\n")]}
    return ["mirror", "--ca", scripted.ca_path, "--subdir", "defs", scripted.url, tmp_path / "mirror"]


@pytest.mark.parametrize("endless", [HIT, INFO])
def test_endless_ini_is_given_up_at_its_bound(scripted, copying, endless):
    scripted.server.script[endless] = [head(), flood(b"x = y\n" * 10_000)]
    result, megabytes = run.measured(*copying)
    assert result == (1, "", f"zqu-mirror: GET {scripted.url}/defs/{endless}: longer than 1048576 bytes\n")
    assert megabytes < 100 or SANITIZED


def test_nothing_is_copied_of_a_file_that_is_too_long(hostile):
    hostile.put(b"")
    path = hostile.upstream.path("x.zip")
    os.truncate(path, 9 << 30)
    line = f"zqu-mirror: GET file://{path}: longer than {8 << 30} bytes\n"
    assert hostile.run("mirror", prefix=["prlimit", "--fsize=1000"]) == (1, "", line)


SPECIAL = {
    "fifo": (os.mkfifo, "not a regular file"),
    "device": (lambda path: path.symlink_to("/dev/zero"), "not a regular file"),
    "directory": (os.mkdir, "not a regular file"),
    "long": (lambda path: path.write_bytes(bytes(2 << 20)), "longer than 1048576 bytes"),
}


@pytest.mark.parametrize("kind", SPECIAL)
@pytest.mark.parametrize("name", [HIT, INFO, "x.zip"])
def test_special_or_long_file_keeps_no_command_waiting(hostile, name, kind):
    make, reason = SPECIAL[kind]
    hostile.put(new())
    path = hostile.upstream.path(name)
    path.unlink()
    make(path)
    root = hostile.base / "upstream"
    line = f"GET file://{path}: {reason}"
    commands = {
        "check": ["check", "--quiet", root],
        "check of a URL": ["check", "--quiet", f"file://{root}"],
        "mirror": hostile.words("mirror"),
        "publish": ["publish", "--id", "7", root, hostile.tool.path, hostile.tool.path],
        "prune": ["prune", "--keep", "1", root],
        "list": ["list", root],
    }
    for command, words in commands.items():
        code, out, err = hostile.tool(*words, prefix=["timeout", "30"])
        if name == "x.zip" or (command, name) == ("publish", HIT):
            # An archive is opened to be read only, and a hit INI to be replaced.
            assert code == (0 if command == "prune" else 1), command
        elif command.startswith("check"):
            assert (code, out, err) == (1, f"FAULT    {line}\n", ""), command
        else:
            assert (code, err) == (1, f"zqu-mirror: {line}\n"), command

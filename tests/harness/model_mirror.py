"""The releases that the model's mirror holds, good and flawed, and what the daemon's libraries make of them."""

import dataclasses
import hashlib
import random
import struct
import zipfile

import archives
from release import definition_names, info_name

REFUSED = "HTTP response code said error"
UNREACHABLE = "Couldn't connect to server"
BAD_URL = "URL using bad/illegal format or missing URL"
UNRECOGNIZED = "Unrecognized archive format"


@dataclasses.dataclass(frozen=True)
class Entry:
    name: str
    content: bytes
    link: bool = False
    broken: bool = False  # its data cannot be read


@dataclasses.dataclass(frozen=True)
class Archive:
    """What is unpacked from an archive, entry by entry, or why it cannot be opened."""

    entries: tuple = ()
    refusal: str = ""


MISSING_FLAWS = "without the index; without the first; without the second".split("; ")
CONTENT_FLAWS = (
    "index lacks the first; index lacks the second; index in upper case; index names in upper case; "
    "index wrong for the first; index wrong for the second; index wrong, then right; index right, then wrong; "
    "index with an empty digest; index in CRLF, with comments; "
    "first twice, bad one first; second twice, bad one last; nested names; more files; large"
).split("; ")
ZIP_FLAWS = "directory entries; first links to itself; first links nowhere; first links to the second".split("; ")
ARCHIVE_FLAWS = "not an archive; empty archive; cut to 4 bytes; cut in the headers; cut in the data; cut tail".split(
    "; "
)
ANNOUNCED_FLAWS = (
    "archive not there; archive digest wrong; archive digest in upper case; archive named like the first; "
    "archive named like the index; archive in a subdirectory; complete-info not there; complete-info without the name; "
    "complete-info without the digest; complete-info without more; complete-info of another id; "
    "complete-info with an odd size; complete-info with lines twice"
).split("; ")
FLAWS = (MISSING_FLAWS, CONTENT_FLAWS, ZIP_FLAWS, ARCHIVE_FLAWS, ANNOUNCED_FLAWS)
HITS = {
    "plain": "[Current]\r\ndefId={}\r\n",
    "without a section, in capitals": "DEFID = {}",
    "after comments": "; defId=9\n# defId=8\n[Other]\nother=1\ndefId\t=\t{}\ndefId=7\n",
    "empty id": "[Current]\ndefId=\ndefId={}\n",
    "no id": "[Current]\nid={}\n",
    "empty": "",
}


def definitions(version, container, flavor, flaws):
    """The two definition files, in the archive's order."""
    large = 9000 if "large" in flaws else 40
    source = random.Random(f"{version} {container} {flavor} {large}")
    return [(name, source.randbytes(large)) for name in definition_names(flavor)]


def index_text(files, flaws):
    lines = []
    for name, content, which in zip(*zip(*files), ("first", "second")):
        digest = hashlib.sha256(content).hexdigest()
        wrong = hashlib.sha256(digest.encode()).hexdigest()
        if f"index wrong for the {which}" in flaws or "index names in upper case" in flaws:
            digest = wrong
        if "index with an empty digest" in flaws:
            digest = ""
        digests = [digest]
        if "index wrong, then right" in flaws:
            digests = [wrong, digest]
        if "index right, then wrong" in flaws:
            digests = [digest, wrong]
        key = name.upper() if "index names in upper case" in flaws else name
        if f"index lacks the {which}" not in flaws:
            lines += [f"{key}.sha256 = {digest}" for digest in digests]
    if "index in upper case" in flaws:
        lines = [f"{key}.SHA256={digest.upper()}" for key, digest in (line.split(".sha256 = ") for line in lines)]
    if "index in CRLF, with comments" in flaws:
        lines = ["[files]", f";{lines[0]}bad", f"{files[0][0]}.md5=1", *(f"\t{line} " for line in lines)]
        return "".join(f"{line}\r\n" for line in lines)
    return "".join(f"{line}\n" for line in lines)


def entries_of(version, container, flavor, flaws):
    first, second = definitions(version, container, flavor, flaws)
    entries = [Entry(*first), Entry(*second)]
    if "first twice, bad one first" in flaws:
        entries.insert(0, Entry(f"old/{first[0]}", b"old"))
    if "second twice, bad one last" in flaws:
        entries.append(Entry(f"new/{second[0]}", b"bad"))
    if "without the first" in flaws:
        entries = [entry for entry in entries if not entry.name.endswith(first[0])]
    if "without the second" in flaws:
        entries = [entry for entry in entries if not entry.name.endswith(second[0])]
    if "without the index" not in flaws:
        entries.insert(0, Entry(f"antivir-{flavor}.ini", index_text([first, second], flaws).encode()))
    if "more files" in flaws:
        entries += [Entry("readme.txt", b"read me"), Entry("antivir-v9.def", b"of another flavor")]
    if "nested names" in flaws:
        entries = [Entry(f"some/where/{entry.name}", entry.content) for entry in entries]
    if container == "zip":
        entries = with_links_and_directories(entries, first[0], second[0], flaws)
    return entries


def with_links_and_directories(entries, first, second, flaws):
    targets = {"first links to itself": first, "first links nowhere": "none.def", "first links to the second": second}
    for flaw, target in targets.items():
        if flaw in flaws:
            link = Entry(first, target.encode(), link=True)
            entries = [link if entry.name == first else entry for entry in entries]
    if "directory entries" in flaws:
        entries = [Entry("some/", b""), *entries, Entry("some/more/", b"")]
    return entries


def build(path, container, entries, flaws):
    """Writes the archive; its bytes, and what is unpacked from them."""
    if container == "cab":
        archives.write_cab(path, [(entry.name, entry.content) for entry in entries])
    else:
        archives.write_zip(path, [(zip_info(entry), entry.content) for entry in entries])
    data = path.read_bytes()
    unreadable = {"not an archive": b"neither a CAB nor a ZIP" * 20, "empty archive": b"", "cut to 4 bytes": data[:3]}
    for flaw in flaws:
        if flaw in unreadable:
            return unreadable[flaw], Archive(refusal=UNRECOGNIZED)
    cut = cut_cab if container == "cab" else cut_zip
    for flaw in flaws:
        if flaw.startswith("cut "):
            return cut(path, data, entries, flaw)
    return data, Archive(tuple(entries))


def zip_info(entry):
    info = zipfile.ZipInfo(entry.name)
    info.create_system = 3  # Unix, whose modes mark links and directories
    info.external_attr = (0o120777 if entry.link else 0o40755 if entry.name.endswith("/") else 0o100644) << 16
    info.compress_type = zipfile.ZIP_STORED if entry.link or entry.name.endswith("/") else zipfile.ZIP_DEFLATED
    return info


def broken(entry):
    return dataclasses.replace(entry, broken=True)


def cut_cab(_path, data, entries, flaw):
    """All headers come first. When they are not whole, there are no entries; else the first one's data is missing."""
    first_block = struct.unpack_from("<I", data, 36)[0]
    if flaw == "cut in the headers":
        return data[: first_block - 2], Archive()
    size = first_block + 12 if flaw == "cut in the data" else len(data) - 1
    return data[:size], Archive((broken(entries[0]),))


def cut_zip(path, data, entries, flaw):
    """Without its central directory, a ZIP is read from the start, where no links show; what is whole comes out."""
    entries = [dataclasses.replace(entry, link=False) for entry in entries]
    with zipfile.ZipFile(path) as archive:
        last = archive.infolist()[-1]
        central = archive.start_dir
    if flaw == "cut in the headers":
        return data[: last.header_offset + 20], Archive(tuple(entries[:-1]))
    if flaw == "cut in the data":
        middle = next(info for info, entry in zip(archive.infolist(), entries) if entry.content)
        number = archive.infolist().index(middle)
        size = middle.header_offset + 30 + len(middle.filename) + middle.compress_size // 2
        return data[:size], Archive((*entries[:number], broken(entries[number])))
    return data[: central + 10], Archive(tuple(entries))


def complete_info(version, archive, data, flaws):
    digest = hashlib.sha256(data).hexdigest()
    values = {"defId": version, "name": archive, "SHA256": digest, "size": len(data)}
    changes = {
        "archive digest wrong": {"SHA256": digest[::-1]},
        "archive digest in upper case": {"SHA256": digest.upper()},
        "complete-info of another id": {"defId": "9999"},
        "complete-info with an odd size": {"size": "none"},
        "complete-info without the name": {"name": None},
        "complete-info without the digest": {"SHA256": ""},
        "complete-info without more": {"defId": None, "size": None},
    }
    for flaw in flaws:
        values |= changes.get(flaw, {})
    lines = [f"def.Current.{key}={value}" for key, value in values.items() if value is not None]
    if "complete-info with lines twice" in flaws:
        lines += ["def.current.NAME=other", "DEF.Current.sha256=00", "def.Current.size=99999999999999999999"]
    return "\r\n".join(["[def.Current]", "; def.Current.name=comment", *lines, ""])


class ModelMirror:
    """What lies on the mirror, by name below its subdirectory, written to the real one too."""

    def __init__(self, mirror, url, scratch):
        self.mirror = mirror
        self.url = url
        self.scratch = scratch
        self.announced = ""  # the latest id
        self.failure = ""  # what libcurl says of every request, while no one answers
        self.files = {}
        self.unpacked = {}

    def write(self, name, content):
        self.files[name] = content if isinstance(content, bytes) else content.encode()
        self.mirror.path(name).parent.mkdir(exist_ok=True)
        self.mirror.write(name, content)

    def remove(self, name):
        if self.files.pop(name, None) is not None:
            self.mirror.path(name).unlink()

    def publish(self, version, flaws=(), container="cab", flavor="v2"):
        if set(flaws) & set(ZIP_FLAWS):
            container = "zip"
        entries = entries_of(version, container, flavor, flaws)
        data, unpacked = build(self.scratch, container, entries, flaws)
        self.unpacked[data] = unpacked
        archive = self.archive_name(version, flavor, flaws)
        self.write(archive, data)
        if "archive not there" in flaws:
            self.remove(archive)
        info = info_name(version, flavor)
        self.write(info, complete_info(version, archive, data, flaws))
        if "complete-info not there" in flaws:
            self.remove(info)
        self.announce(version, flavor=flavor)

    def announce(self, version, style="plain", flavor="v2"):
        self.announced = version
        self.write(f"antivir-{flavor}-hit.ini", HITS[style].format(version))

    @staticmethod
    def archive_name(version, flavor, flaws):
        names = {
            "archive named like the first": f"antivir-{flavor}.def",
            "archive named like the index": f"antivir-{flavor}.ini",
            "archive in a subdirectory": "sub/release",
        }
        return next((names[flaw] for flaw in flaws if flaw in names), f"{version}.archive")

    def answer(self, url):
        """What a request yields: the body, or the error's text."""
        if not url.startswith("https:") or any(char <= " " for char in url):
            return None, BAD_URL
        if self.failure or not url.startswith(f"{self.url}/"):
            return None, self.failure or UNREACHABLE
        body = self.files.get(url.removeprefix(f"{self.url}/{self.mirror.subdir}/"))
        return (None, REFUSED) if body is None else (body, "")

    def unpack(self, data):
        return self.unpacked.get(data, Archive(refusal=UNRECOGNIZED))

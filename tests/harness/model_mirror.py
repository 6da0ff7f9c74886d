"""The releases that the model's mirror holds, good and flawed, and what the daemon's libraries make of them."""

import dataclasses
import zipfile

import archives
from release import definitions, index_of, info_ini, info_name, sha256

REFUSED = "HTTP response code said error"
UNREACHABLE = "Couldn't connect to server"
BAD_URL = "URL using bad/illegal format or missing URL"
UNRECOGNIZED = "Unrecognized archive format"
FLAWS = (
    "not an archive; without the index; without the first; without the second; index lacks the first; "
    "index wrong for the first; index wrong for the second; more files; first links to itself; "
    "archive not there; archive digest wrong; archive named like the first; archive in a subdirectory; "
    "complete-info not there; complete-info without the name; complete-info of another id"
).split("; ")
HITS = {"plain": "[Current]\r\ndefId={}\r\n", "no id": "[Current]\nid={}\n"}


@dataclasses.dataclass(frozen=True)
class Entry:
    name: str
    content: bytes
    link: bool = False


@dataclasses.dataclass(frozen=True)
class Archive:
    """What is unpacked from an archive, entry by entry, or why it cannot be opened."""

    entries: tuple = ()
    refusal: str = ""


def entries_of(version, flavor, flaws):
    files = definitions(version, 40, flavor).items()
    index, entries = [], []
    for which, (name, content) in zip(("first", "second"), files):
        if f"index lacks the {which}" not in flaws:
            index.append((name, b"wrong" if f"index wrong for the {which}" in flaws else content))
        if f"without the {which}" not in flaws:
            link = f"{which} links to itself" in flaws
            entries.append(Entry(name, name.encode() if link else content, link))
    if "without the index" not in flaws:
        entries.insert(0, Entry(*index_of(index, flavor)))
    if "more files" in flaws:
        entries += [Entry("readme.txt", b"read me"), Entry("antivir-v9.def", b"of another flavor")]
    return entries


def build(path, entries, flaws):
    """Writes the archive, a ZIP if there are links; its bytes, and what is unpacked from them."""
    if "not an archive" in flaws:
        return b"neither a CAB nor a ZIP" * 20, Archive(refusal=UNRECOGNIZED)
    if any(entry.link for entry in entries):
        archives.write_zip(path, [(zip_info(entry), entry.content) for entry in entries])
    else:
        archives.write_cab(path, [(entry.name, entry.content) for entry in entries])
    return path.read_bytes(), Archive(tuple(entries))


def zip_info(entry):
    info = zipfile.ZipInfo(entry.name)
    info.create_system = 3  # Unix, whose modes mark links
    info.external_attr = (0o120777 if entry.link else 0o100644) << 16
    return info


def complete_info(version, archive, data, flaws):
    digest = sha256(data)
    defid = "9999" if "complete-info of another id" in flaws else version
    name = "" if "complete-info without the name" in flaws else archive
    return info_ini(defid, name, digest[::-1] if "archive digest wrong" in flaws else digest)


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

    def publish(self, version, flaws=(), flavor="v2"):
        data, unpacked = build(self.scratch, entries_of(version, flavor, flaws), flaws)
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
        names = {"archive named like the first": f"antivir-{flavor}.def", "archive in a subdirectory": "sub/release"}
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

"""A release: two files of definitions and their index in an archive, and the two INI files that announce it."""

import hashlib

import archives
from scripted_server import reply

HIT = "antivir-v2-hit.ini"


def sha256(data):
    return hashlib.sha256(data).hexdigest()


def definition_names(flavor="v2"):
    return f"antivir-{flavor}.def", f"aivsecon-{flavor}.def"


def definitions(version, size=1000, flavor="v2"):
    """Two files of about that size: one repeated line, which names the release."""
    return {name: f"{name} of {version}\n".encode() * (size // 20) for name in definition_names(flavor)}


def index_of(files, flavor="v2"):
    """The index of these (name, bytes) entries, as an entry of its own."""
    lines = "".join(f"{name}.sha256={sha256(content)}\n" for name, content in files)
    return f"antivir-{flavor}.ini", lines.encode()


def good_files(version, size=1000, flavor="v2"):
    """The (name, bytes) entries of a good release's archive, with the index last."""
    files = definitions(version, size, flavor).items()
    return [*files, index_of(files, flavor)]


def hit_ini(version):
    return f"[Current]\ndefId={version}\n".encode()


def info_name(version, flavor="v2"):
    return f"antivir-{flavor}-c-{version}.ini"


def info_ini(version, name, digest, size=1):
    return (
        f"[def.Current]\ndef.Current.defId={version}\ndef.Current.name={name}\n"
        f"def.Current.SHA256={digest}\ndef.Current.size={size}\n"
    ).encode()


class Release:
    """What a mirror offers under an id: a CAB of good definitions, unless other files or an archive are given."""

    def __init__(self, version, files=None, archive=None, archive_name=None, flavor="v2"):
        self.version = version
        self.flavor = flavor
        if archive is None:
            archive = archives.cab(good_files(version, flavor=flavor) if files is None else files)
        self.archive = archive
        self.archive_name = archive_name or f"antivir-{flavor}-{version}.cab"

    @property
    def files(self):
        """The three files on the mirror, each with its name, by what is requested."""
        info = info_ini(self.version, self.archive_name, sha256(self.archive), len(self.archive))
        return {
            "hit": (f"antivir-{self.flavor}-hit.ini", hit_ini(self.version)),
            "info": (info_name(self.version, self.flavor), info),
            "archive": (self.archive_name, self.archive),
        }

    @property
    def script(self):
        """For a scripted server: the answers with these files."""
        return {name: [reply(content)] for name, content in self.files.values()}

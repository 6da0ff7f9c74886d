"""What a run of the daemon leaves: its log, its status file, and what is on the disk."""

import ctypes
import os
import pathlib
import stat
from dataclasses import dataclass

from release import definition_names

ENGINE = "engine 7"
# Texts of libcurl that change with its version.
_libcurl = ctypes.CDLL("libcurl.so.4")
_libcurl.curl_easy_strerror.restype = ctypes.c_char_p
CURL_TEXTS = [_libcurl.curl_easy_strerror(code).decode() for code in range(100)]
NO_PROXY, NO_HOST, NO_CONNECTION, NO_FILE = (CURL_TEXTS[code] for code in (5, 6, 7, 37))
_ESCAPES = {"\t": "\\t", "\n": "\\n", "\r": "\\r", '"': '\\"', "\\": "\\\\"}


def listing(root):
    """Everything below root, sorted: directories with a trailing slash, links with their target."""
    names = []
    for directory, directories, files in os.walk(root):
        for name in directories + files:
            path = os.path.join(directory, name)
            relative = os.path.relpath(path, root)
            if os.path.islink(path):
                names.append(f"{relative} -> {os.readlink(path)}")
            else:
                names.append(relative + ("/" if os.path.isdir(path) else ""))
    return sorted(names)


def tree(root, modes=False):
    """Everything below root: the content of files, the target of links, None for all else.

    With modes, root itself is "." among it, and each but the links is a pair of its type and mode in octal and that."""
    found = {}
    for name in (["."] if modes and os.path.exists(root) else []) + listing(root):
        name = name.split(" -> ")[0].rstrip("/")
        path = os.path.normpath(os.path.join(root, name))
        mode = os.lstat(path).st_mode
        if stat.S_ISLNK(mode):
            found[name] = f"-> {os.readlink(path)}"
            continue
        content = pathlib.Path(path).read_bytes() if stat.S_ISREG(mode) else None
        found[name] = (f"{mode:o}", content) if modes else content
    return found


def snapshot_listing(active, *versions, flavor="v2"):
    """The listing of a definitions root with exactly these whole snapshots."""
    names = ["snapshots/"] + ([f"active -> snapshots/{active}"] if active else [])
    for version in versions:
        names.append(f"snapshots/{version}/")
        names += [f"snapshots/{version}/{name}" for name in definition_names(flavor)]
    return sorted(names)


def published(version, former="none"):
    """The log lines of a cycle that puts a release into service."""
    return [f"info published def snapshot {version}", f"info def snapshot updated: {former} -> {version}"]


def escaped(text):
    """A text as the status file has it."""
    return "".join(_ESCAPES.get(char, char) for char in text)


def status_text(version, checked, error="", engine=ENGINE):
    """The whole status file; without an error the check was a success."""
    return (
        f'{{\n  "schema_version": 1,\n  "active_version": "{escaped(version)}",\n'
        f'  "engine_version": "{escaped(engine)}",\n'
        f'  "antivir_def_version": "{escaped(version)}",\n  "aivsecon_def_version": "{escaped(version)}",\n'
        f'  "last_check_epoch": {checked},\n  "last_success_epoch": {0 if error else checked},\n'
        f'  "last_error": "{escaped(error)}"\n}}\n'
    )


@dataclass(frozen=True)
class Outcome:
    """What a run leaves; comparable with another."""

    log: tuple
    status: str  # "version/error" of a whole file, or another word
    listing: frozenset  # of the definitions root
    exit_status: int = 0

    def __str__(self):
        names = "".join(f"\n    {name}" for name in sorted(self.listing))
        lines = "".join(f"\n    {line}" for line in self.log)
        return f"  exit status {self.exit_status}, status {self.status}\n  log:{lines}\n  definitions root:{names}"

    def expect(self, *wanted, directory):
        """Requires one of these outcomes; the message of a failure names the directory."""
        if self not in wanted:
            expected = "\nor\n".join(map(str, wanted))
            raise AssertionError(f"expected\n{expected}\ncame\n{self}\nthe files are in {directory}")

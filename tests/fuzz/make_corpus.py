#!/usr/bin/python3
"""Writes the seeds of the fuzz targets' corpora into tests/fuzz/corpus, the same bytes on every run.

Files called "found-..." were found by the fuzzer and are left alone."""

import io
import pathlib
import stat
import struct
import sys
import zipfile
import zlib

FUZZ = pathlib.Path(__file__).resolve().parent
sys.path.insert(0, str(FUZZ.parent / "harness"))
import archives  # noqa: E402  (its folder has to be known before)
from release import definition_names  # noqa: E402

DIGEST = "0123456789abcdef" * 4
STREAMED = b"plain text\n" * 20

CONFIG = {
    "empty": "",
    "comments": "# nothing\n\n   # set\n[section]\n;\n",
    "all-fields": "mirror_base_url = https://mirror\nmirror_subdir = a/b\nflavor = v3\nca_path = /ca.pem\n"
    "engine_version = 7\ndef_root = /defs\nstatus_path = /status\npoll_interval_s = 60\npoll_jitter_s = 5\n"
    "retained_snapshots = 4\nhttp_timeout_s = 30\n",
    "crlf": "flavor = v3\r\npoll_interval_s = 60\r\n",
    "all-space": "\t \v\f\rflavor\t \v\f\r=\t \v\f\rv3\t \v\f\r\n",
    "no-line-feed": "flavor=v3",
    "second-equals-sign": "mirror_base_url = https://mirror/x=y=z\n",
    "no-trailing-comments": "flavor = v2 # default\n",
    "empty-values": "mirror_base_url =\nflavor =\n",
    "empty-flavor": "flavor =\n",
    "empty-key": "= v2\n==\n",
    "other-case": "Flavor = v3\nFLAVOR = v4\n",
    "last-wins": "flavor = a\nflavor = b\npoll_jitter_s = 1\npoll_jitter_s = 2\n",
    "number-with-tail": "poll_interval_s = 900s\nretained_snapshots = 5x\n",
    "number-wraps": "retained_snapshots = 4294967297\npoll_jitter_s = -1\nhttp_timeout_s = +1\n",
    "largest-number": "poll_interval_s = 18446744073709551615\n",
    "number-too-large": "poll_interval_s = 18446744073709551616\n",
    "number-without-digits": "flavor = v3\nhttp_timeout_s =\nflavor = v4\n",
    "number-of-letters": "http_timeout_s = soon\n",
    "number-only-sign": "http_timeout_s = -\n",
    "hexadecimal": "http_timeout_s = 0x10\n",
    "zero-bytes": "flavor = a\0b\0\npoll_jitter_s = 1\0002\n",
    "upper-half": "flavor = \udcff\udc80\n\udca0flavor\udca0= x\n",
}

INDEX = {
    "empty": "",
    "release": f"antivir-v2.def.sha256 = {DIGEST}\r\naivsecon-v2.def.sha256 = {DIGEST}\r\n",
    "upper-case": "A.DEF.SHA256=00FF\n",
    "only-suffix": ".sha256=aa\n",
    "shortest-name": ".def.sha256=aa\nd.def.sha256=bb\n",
    "other-files": "x.ini.sha256=aa\nx.def=bb\nx.def.md5=cc\nx.dat.sha256=dd\ndef.sha256=ee\n",
    "comments": "  ;a.def.sha256=aa\n#b.def.sha256=bb\n[c.def.sha256=cc\n\n",
    "empty-value": "x.def.sha256=\n",
    "second-equals-sign": "x.def.sha256=a=b\n",
    "last-wins": "x.def.sha256=aa\nx.def.sha256=bb\nX.def.sha256=cc\n",
    "no-line-feed": "x.def.sha256=aa",
    "all-space": "\t \v\f\rx.def.sha256\t \v\f\r=\t \v\f\raa\t \v\f\r\n",
    "blank-before-suffix": "x.def .sha256=aa\n x y.def.sha256=bb\n",
    "zero-bytes": "x\0.def.sha256=a\0b\n\0=\0\n",
    "upper-half": "\udcc4.def.sha256=\udcc4\n\udca0\n",
    "sections": "[one]\nx.def.sha256=aa\n[two]\nx.def.sha256=bb\n",
}

HIT = {
    "empty": "",
    "release": "[Current]\r\ndefId=1234\r\n",
    "other-section": "[Former]\ndefId = 1\n[Current]\ndefId = 2\n",
    "no-section": "defId=1234",
    "other-case": "DEFID = 77\ndefId = 78\n",
    "comments": "; defId=5\n# defId=6\n  ;defId=7\n[defId=8\n",
    "empty-value": "defId =\ndefId = 2\n",
    "second-equals-sign": "defId=a=b\n",
    "all-space": "\t \v\f\rdefId\t \v\f\r=\t \v\f\r1\t \v\f\r\n",
    "no-equals-sign": "defId\n1234\n",
    "longer-key": "xdefId=1\ndefIdx=2\ndef.Current.defId=3\n",
    "path": "defId=../../x\n",
    "zero-bytes": "defId\0=1\ndefId=\0\n",
    "upper-half": "defId=\udcff\udc80\n",
}

COMPLETE = {
    "empty": "",
    "release": f"[def.Current]\r\ndef.Current.defId=1234\r\ndef.Current.name=release.cab\r\n"
    f"def.Current.SHA256={DIGEST}\r\ndef.Current.size=4321\r\n",
    "least": "def.Current.name=a\ndef.Current.SHA256=b\n",
    "other-case": "DEF.CURRENT.NAME=a\ndef.current.sha256=b\nDef.Current.DefId=c\ndef.current.SIZE=4\n",
    "no-name": "def.Current.SHA256=b\n",
    "no-digest": "def.Current.name=a\n",
    "empty-name": "def.Current.name=\ndef.Current.SHA256=b\ndef.Current.name=a\n",
    "first-wins": "def.Current.name=a\ndef.Current.name=b\ndef.Current.SHA256=c\ndef.Current.SHA256=d\n",
    "size-with-tail": "def.Current.name=a\ndef.Current.SHA256=b\ndef.Current.size=12abc\n",
    "size-of-letters": "def.Current.name=a\ndef.Current.SHA256=b\ndef.Current.size=abc\n",
    "negative-size": "def.Current.name=a\ndef.Current.SHA256=b\ndef.Current.size=-5\n",
    "largest-size": "def.Current.name=a\ndef.Current.SHA256=b\ndef.Current.size=9223372036854775807\n",
    "size-too-large": "def.Current.name=a\ndef.Current.SHA256=b\ndef.Current.size=9223372036854775808\n",
    "size-too-small": "def.Current.name=a\ndef.Current.SHA256=b\ndef.Current.size=-9223372036854775809\n",
    "empty-size": "def.Current.name=a\ndef.Current.SHA256=b\ndef.Current.size=\n",
    "zero-bytes": "def.Current.name=a\0b\ndef.Current.SHA256=\0\ndef.Current.size=1\0002\n",
    "comments": ";def.Current.name=x\n#def.Current.SHA256=y\n[def.Current.name=z\ndef.Current.name=a=b\n",
}


def status(*texts, check=1_700_000_000, success=0):
    """Two times, how much of what is left each of the first four texts takes, in 255ths, and the texts."""
    rest = b"".join(texts)
    marks, left = [], len(rest)
    for text in texts[:4]:
        mark = next(mark for mark in range(256) if left * mark // 255 >= len(text))
        assert left * mark // 255 == len(text), "no mark says where this text ends"
        marks.append(mark)
        left -= len(text)
    return struct.pack("<qq4B", check, success, *marks) + rest


STATUS = {
    "too-short": b"x" * 19,
    "empty": status(b"", b"", b"", b"", b""),
    "current": status(b"1001", b"engine", b"1001", b"1001", b"", success=1_700_000_000),
    "failure": status(b"1001", b"", b"1001", b"1001", b"CAB sha256 mismatch"),
    "escapes": status(b'"', b"\\", b"\t", b"\n", b"\r"),
    "escape-runs": status(b"\\\\\\", b'\\"', b'""', b"\r\n\r\n", b'\\n\n\\t\t\\r\r\\"\\'),
    "control-characters": status(b"\0", b"\x01\x1f", b"\b\f\v", b"\x1b[0m", b"\x7f"),
    "utf-8": status(b"\xc3\xa4", b"", b"", b"", b"\xe2\x82\xac \xf0\x9f\x9a\x80"),
    "not-utf-8": status(b"\xff", b"\xc3", b"\x80", b"\xed\xa0\x80", b"\xf8\x88\x80\x80\x80"),
    "negative-times": status(b"", b"", b"", b"", b"", check=-1, success=-(2**63)),
    "largest-times": status(b"", b"", b"", b"", b"", check=2**63 - 1, success=-(2**63)),
    "json-inside": status(b"", b"", b"", b"", b'", "last_error": "", "x": {"\\u0041": [1]}'),
}

DEFINITIONS = [(name, f"{name}\n".encode() * 12) for name in definition_names()]
ENTRIES = [*DEFINITIONS, ("antivir-v2.ini", f"antivir-v2.def.sha256 = {DIGEST}\n".encode())]


def cab(folders):
    path = FUZZ / "corpus" / "cab.tmp"
    archives.write_cab_of_folders(path, folders)
    content = path.read_bytes()
    path.unlink()
    return content


def zip_of(entries, compression=zipfile.ZIP_STORED):
    """A ZIP of (name, content, mode) entries, dated as early as a ZIP can be."""
    out = io.BytesIO()
    with zipfile.ZipFile(out, "w", compression) as archive:
        for name, content, mode in entries:
            info = zipfile.ZipInfo(name)
            info.create_system = 3
            info.external_attr = mode << 16
            info.compress_type = compression
            archive.writestr(info, content)
    return out.getvalue()


def zip_of_files(names, mode=stat.S_IFREG | 0o644):
    return zip_of([(name, b"x", mode) for name in names])


def streamed_zip():
    """Sizes and checksum follow the data, and there is no central directory: what a pipe gives."""
    deflate = zlib.compressobj(9, zlib.DEFLATED, -15)
    packed = deflate.compress(STREAMED) + deflate.flush()
    name = b"streamed"
    header = struct.pack("<4s5H3I2H", b"PK\3\4", 20, 8, 8, 0, 0x21, 0, 0, 0, len(name), 0)
    return header + name + packed + struct.pack("<4sIII", b"PK\7\x08", zlib.crc32(STREAMED), len(packed), len(STREAMED))


def zip64():
    """One stored entry whose sizes stand in the extra field."""
    name, content = b"zip64", b"content"
    extra = struct.pack("<HHQQ", 1, 16, len(content), len(content))
    header = struct.pack(
        "<4s5H3I2H", b"PK\3\4", 45, 0, 0, 0, 0x21, zlib.crc32(content), 2**32 - 1, 2**32 - 1, len(name), len(extra)
    )
    return header + name + extra + content


def extract_seeds():
    regular, link = stat.S_IFREG | 0o644, stat.S_IFLNK | 0o777
    seeds = {f"cab-{name}": cab([(name, ENTRIES)]) for name in archives.COMPRESSIONS}
    seeds |= {
        "cab-several-folders": cab([(name, [entry]) for name, entry in zip(archives.COMPRESSIONS, ENTRIES)]),
        "cab-names": cab([("stored", [(name, b"x") for name in ("a/b", "a\\b", "../c", "..", ".", "d/", "/e")])]),
        "cab-no-files": cab([("stored", [])]),
        "cab-truncated": cab([("mszip", ENTRIES)])[:-40],
        "zip-stored": zip_of([(name, content, regular) for name, content in ENTRIES]),
        "zip-deflated": zip_of([(name, content, regular) for name, content in ENTRIES], zipfile.ZIP_DEFLATED),
        "zip-no-files": zip_of([]),
        "zip-truncated": zip_of([(name, content, regular) for name, content in ENTRIES])[:200],
        "zip-names": zip_of_files(["a/b", "../c", "..", ".", "/", "d/", "/e", "\\f", "x" * 300]),
        "zip-duplicates": zip_of([("a", b"1", regular), ("b/a", b"22", regular), ("A", b"3", regular)]),
        "zip-link-outside": zip_of([("l", b"../other", link), ("l", b"through the link", regular)]),
        "zip-link-chain": zip_of([("a", b"b", link), ("b", b"..", link), ("a/other", b"x", regular)]),
        "zip-link-to-itself": zip_of([("x", b"x", link), ("y", b"y", regular)]),
        "zip-link-as-stage": zip_of([("/", b"..", link), (".", b"..", link), ("..", b"/", link), ("x", b"x", regular)]),
        "zip-replaces-itself": zip_of([("archive", b"x", regular), ("y", b"y", regular)]),
        "zip-modes": zip_of([(f"m{mode:o}", b"x", stat.S_IFREG | mode) for mode in (0, 0o4755, 0o2755, 0o1777)]),
        "zip-directories": zip_of([("d/", b"", stat.S_IFDIR), ("d", b"x", regular), ("../", b"", stat.S_IFDIR)]),
        "zip-above-unreachable": zip_of([("..", b"", stat.S_IFDIR), ("x", b"x", regular)]),
        "zip-devices": zip_of_files(["c"], stat.S_IFCHR | 0o644),
        "zip-pipe": zip_of([("p", b"", stat.S_IFIFO | 0o644), ("s", b"", stat.S_IFSOCK | 0o644)]),
        "zip-streamed": streamed_zip(),
        "zip-64": zip64(),
        "zip-behind-a-prefix": b"#!/bin/sh\nexit\n" * 10 + zip_of_files(["x"]),
        "neither": b"neither a CAB nor a ZIP" * 10,
        "empty": b"",
    }
    return seeds


def write(target, seeds):
    folder = FUZZ / "corpus" / f"fuzz_{target}"
    folder.mkdir(parents=True, exist_ok=True)
    for former in folder.iterdir():
        if not former.name.startswith("found-"):
            former.unlink()
    for name, content in seeds.items():
        data = content if isinstance(content, bytes) else content.encode(errors="surrogateescape")
        (folder / name).write_bytes(data)


def main():
    write("config", CONFIG)
    write("def_index", INDEX)
    write("hit_ini", HIT)
    write("complete_ini", COMPLETE)
    write("status", STATUS)
    write("extract", extract_seeds())


main()

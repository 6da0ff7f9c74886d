"""CABs and ZIPs made field by field, so that a test can make any field wrong."""

import dataclasses
import stat
import struct
import zlib

from release import definition_names, index_of

REGULAR = stat.S_IFREG | 0o644
LINK = stat.S_IFLNK | 0o777
UNIX = 3  # the "made by" system of a ZIP entry whose mode counts


@dataclasses.dataclass
class Entry:
    """An entry. A given field of a ZIP replaces the one that follows from the content."""

    name: bytes | str
    content: bytes = b""
    mode: int = REGULAR
    packed: bytes | None = None  # the content as it is stored, when a method packs it
    fields: dict = dataclasses.field(default_factory=dict)

    def __post_init__(self):
        if isinstance(self.name, str):
            self.name = self.name.encode()

    def zip_fields(self):
        packed = self.content if self.packed is None else self.packed
        return {
            "system": UNIX,
            "needed": 20,
            "flags": 0,
            "method": 0,
            "time": 0,
            "date": 0x5921,
            "crc": zlib.crc32(self.content),
            "packed_size": len(packed),
            "size": len(self.content),
            "local_extra": b"",
            "central_extra": b"",
            "external": self.mode << 16,
            **self.fields,
        }


def release(text):
    """The entries of the smallest release; the index comes first, as zqu-mirror writes it."""
    files = {name: f"{name} {text}\n".encode() for name in definition_names()}.items()
    return [Entry(name, content) for name, content in (index_of(files), *files)]


def deflated(name, content, mode=REGULAR):
    deflate = zlib.compressobj(9, zlib.DEFLATED, -15)
    packed = deflate.compress(content) + deflate.flush()
    return Entry(name, content, mode, packed, {"method": 8})


SHARED = ("needed", "flags", "method", "time", "date", "crc", "packed_size", "size")  # by both of an entry's headers


def zip_local(entry):
    f = entry.zip_fields()
    header = struct.pack("<4s5H3I2H", b"PK\3\4", *map(f.get, SHARED), len(entry.name), len(f["local_extra"]))
    return header + entry.name + f["local_extra"] + (entry.content if entry.packed is None else entry.packed)


def zip_central(entry, offset):
    f = entry.zip_fields()
    header = struct.pack("<4sBB5H3I", b"PK\1\2", 30, f["system"], *map(f.get, SHARED))
    header += struct.pack("<5H2I", len(entry.name), len(f["central_extra"]), 0, 0, 0, f["external"], offset)
    return header + entry.name + f["central_extra"]


def zip_bytes(entries, prefix=b""):
    places = [len(prefix)]
    for entry in entries:
        places.append(places[-1] + len(zip_local(entry)))
    body = prefix + b"".join(map(zip_local, entries))
    central = b"".join(map(zip_central, entries, places))
    return body + central + struct.pack("<4s4H2IH", b"PK\5\6", 0, 0, *[len(entries)] * 2, len(central), len(body), 0)


def cab_checksum(data, start=0):
    """CFDATA's checksum: the exclusive or of 32-bit words, the last bytes taken from the most significant one."""
    result = start
    whole = len(data) // 4 * 4
    for (word,) in struct.iter_unpack("<I", data[:whole]):
        result ^= word
    return result ^ int.from_bytes(data[whole:], "big")


def cab_data(data, size=None, checksum=True):
    """One CFDATA block, whose content is size bytes once unpacked."""
    sizes = struct.pack("<HH", len(data), len(data) if size is None else size)
    total = cab_checksum(sizes, cab_checksum(data)) if checksum else 0
    return struct.pack("<I", total) + sizes + data


def cab_bytes(entries, blocks=None, method=0, flags=0, extra=b"", checksum=True):
    """A CAB of one folder. Blocks (the CFDATA) default to one with all contents, stored. The extra bytes follow
    the header, as flags say."""
    data = b"".join(entry.content for entry in entries)
    blocks = [cab_data(data, checksum=checksum)] if blocks is None else blocks
    files, offset = b"", 0
    for entry in entries:
        files += struct.pack("<IIHHHH", len(entry.content), offset, 0, 0x5921, 0, 0x20) + entry.name + b"\0"
        offset += len(entry.content)
    first_file = 36 + len(extra) + 8
    data_start = first_file + len(files)
    header = struct.pack("<4sIIIIIBB", b"MSCF", 0, data_start + sum(map(len, blocks)), 0, first_file, 0, 3, 1)
    header += struct.pack("<HHHHH", 1, len(entries), flags, 0, 0) + extra
    return header + struct.pack("<IHH", data_start, len(blocks), method) + files + b"".join(blocks)

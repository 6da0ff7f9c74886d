"""Archives for the tests: CABs by libgcab, ZIPs by zipfile, and what neither writes: CABs of several folders, LZX."""

import struct
import zipfile
import zlib

import gi

gi.require_version("GCab", "1.0")
from gi.repository import GCab, Gio, GLib  # noqa: E402  (the version has to be required before)


def _write_cab(out, files):
    """MSZIP-compressed; files are pairs of a name and bytes or the path of a file."""
    folder = GCab.Folder.new(GCab.Compression.MSZIP)
    for name, content in files:
        if isinstance(content, bytes):
            file = GCab.File.new_with_bytes(name, GLib.Bytes.new(content))
        else:
            file = GCab.File.new_with_file(name, Gio.File.new_for_path(str(content)))
        folder.add_file(file, False, None)
    cabinet = GCab.Cabinet.new()
    cabinet.add_folder(folder)
    cabinet.write_simple(out, None, None, None)
    out.close(None)


def cab(files):
    """A CAB by libgcab, in memory."""
    out = Gio.MemoryOutputStream.new_resizable()
    _write_cab(out, files)
    return out.steal_as_bytes().get_data()


def write_cab(path, files):
    """A CAB by libgcab in a file, of any size."""
    _write_cab(Gio.File.new_for_path(str(path)).replace(None, False, Gio.FileCreateFlags.NONE, None), files)


def write_zip(path, files, compression=zipfile.ZIP_DEFLATED):
    """Writes a ZIP with the given (name or ZipInfo, bytes) entries."""
    with zipfile.ZipFile(path, "w", compression) as archive:
        for name, content in files:
            archive.writestr(name, content)


class _Bits:
    """The bit stream of LZX: 16-bit little-endian words, filled from the most significant bit."""

    def __init__(self):
        self.bits = []

    def put(self, value, count):
        self.bits += [value >> i & 1 for i in reversed(range(count))]

    def bytes(self):
        self.bits += [0] * (-len(self.bits) % 16)
        words = (self.bits[i : i + 16] for i in range(0, len(self.bits), 16))
        return b"".join(struct.pack("<H", int("".join(map(str, word)), 2)) for word in words)


def _lzx_uncompressed(chunk, first):
    bits = _Bits()
    bits.put(0, 1 if first else 0)  # no translation of call addresses
    bits.put(3, 3)
    bits.put(len(chunk), 24)
    return bits.bytes() + struct.pack("<III", 1, 1, 1) + chunk + b"\0" * (len(chunk) % 2)


def _lzx_verbatim(chunk, first):
    """A block of literals only: each of the 256 has a code of 8 bits, so that its code is its value."""
    bits = _Bits()
    bits.put(0, 1 if first else 0)
    bits.put(1, 3)
    bits.put(len(chunk), 24)

    def lengths(symbol, other, count):
        # A pre-tree of two symbols with one bit each; the lengths are given as differences to the former block's.
        for code in range(20):
            bits.put(1 if code in (symbol, other) else 0, 4)
        for _ in range(count):
            bits.put(0 if symbol < other else 1, 1)

    lengths(9 if first else 0, 0 if first else 1, 256)  # (0 - 8) modulo 17 is 9
    lengths(0, 1, 30 * 8)
    lengths(0, 1, 249)
    for byte in chunk:
        bits.put(byte, 8)
    return bits.bytes()


def _mszip(chunk, _first):
    deflate = zlib.compressobj(9, zlib.DEFLATED, -15)
    return b"CK" + deflate.compress(chunk) + deflate.flush()


# What a folder may be compressed with: its type code in the CAB, and the encoder of a block.
COMPRESSIONS = {
    "stored": (0, lambda chunk, _first: chunk),
    "mszip": (1, _mszip),
    "lzx_uncompressed": (3 | 15 << 8, _lzx_uncompressed),  # a window of 2^15 bytes
    "lzx_verbatim": (3 | 15 << 8, _lzx_verbatim),
}


def write_cab_of_folders(path, folders):
    """Writes a CAB of several folders, which libgcab does not: pairs of a compression and its (name, bytes) files."""
    entries = b""
    blocks = []
    for number, (compression, files) in enumerate(folders):
        offset = 0
        for name, content in files:
            entries += struct.pack("<IIHHHH", len(content), offset, number, 0x5921, 0, 0x20) + name.encode() + b"\0"
            offset += len(content)
        encode = COMPRESSIONS[compression][1]
        data = b"".join(content for _, content in files)
        chunks = [data[start : start + 32768] for start in range(0, len(data), 32768)]
        packed = [(encode(chunk, index == 0), len(chunk)) for index, chunk in enumerate(chunks)]
        blocks.append([struct.pack("<IHH", 0, len(block), size) + block for block, size in packed])
    first_file = 36 + 8 * len(folders)
    position = first_file + len(entries)
    headers = b""
    for (compression, _), folder in zip(folders, blocks):
        headers += struct.pack("<IHH", position, len(folder), COMPRESSIONS[compression][0])
        position += sum(map(len, folder))
    count = sum(len(files) for _, files in folders)
    with open(path, "wb") as out:
        out.write(struct.pack("<4sIIIIIBB", b"MSCF", 0, position, 0, first_file, 0, 3, 1))
        out.write(struct.pack("<HHHHH", len(folders), count, 0, 0, 0))
        out.write(headers + entries + b"".join(block for folder in blocks for block in folder))

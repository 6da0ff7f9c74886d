"""Archives for the tests: CABs by libgcab, ZIPs by zipfile."""

import zipfile
import zlib

import gi

gi.require_version("GCab", "1.0")
from gi.repository import GCab, Gio, GLib  # noqa: E402  (the version has to be required before)


def _write_cab(out, files):
    """MSZIP-compressed; files are pairs of a name and bytes or the path of a file."""
    cab_folder = GCab.Folder.new(GCab.Compression.MSZIP)
    for name, content in files:
        if isinstance(content, bytes):
            file = GCab.File.new_with_bytes(name, GLib.Bytes.new(content))
        else:
            file = GCab.File.new_with_file(name, Gio.File.new_for_path(str(content)))
        cab_folder.add_file(file, False, None)
    cabinet = GCab.Cabinet.new()
    cabinet.add_folder(cab_folder)
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


def mszip(chunk):
    """A block of a CAB's data, compressed."""
    deflate = zlib.compressobj(9, zlib.DEFLATED, -15)
    return b"CK" + deflate.compress(chunk) + deflate.flush()

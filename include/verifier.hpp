// Checks and unpacks what came from the mirror: file digests, archive extraction, and the digest index.
//
// Functions without state. After a crash inside extract() the destination holds some of the entries, the last one
// perhaps in part, and none of them need be on disk. The caller discards such a directory. Call from one thread only.
#pragma once

#include <map>
#include <string>

namespace zqu::verifier {

// Returns true when the SHA-256 (FIPS 180-4) of the file at path, in hexadecimal, equals expected in any letter case.
// Returns false when it differs in a digit or in length, and when the file cannot be opened, also for an empty
// expected. A read error ends the file early: the bytes before it are hashed. Streams: the memory used does not depend
// on the file's size. Logs nothing.
[[nodiscard]] bool verify(const std::string& path, const std::string& expected);

// Unpacks the CAB or ZIP archive at cab_path flat into dest_dir, which is created with its parents when missing. Each
// entry is written under the last component of its name; a later entry replaces an earlier one of the same name.
// Permissions and modification times come from the archive, ownership does not. Entries that are not regular files are
// made too. Only the directories in names are dropped. Nothing else is checked: the archive may choose "..", links and
// device nodes. So the caller must trust it, or check its digest, before.
//
// Returns true when the entries ended: at the end of the archive or, on purpose, at the first header that libarchive
// does not read without complaint. All regular files, then dest_dir, have by then been flushed to disk (fsync(2)); a
// failed flush is only logged: "fsync: open %s failed" or "fsync: %s failed" (LOG_WARNING).
// Returns false when the archive cannot be opened, with "extract: cannot open %s: %s" (LOG_ERR), or when an entry
// cannot be created or its data read, with no message. dest_dir then keeps what was written, not flushed.
// Streams: the memory used does not depend on the archive's size.
[[nodiscard]] bool extract(const std::string& cab_path, const std::string& dest_dir);

// Reads the digest index that comes inside an archive. Every line "<name>.def.sha256 = <digest>" gives one pair of the
// result: the name as written (with ".def"), and the digest in lower case, otherwise unchecked and perhaps empty.
// ".def" and ".sha256" match in any case. Skips comments (";", "#"), section headers and all other lines; the last line
// for a name wins. Never fails: without such a line the map is empty. Logs nothing.
[[nodiscard]] std::map<std::string, std::string> parse_def_index(const std::string& text);

}  // namespace zqu::verifier

// The plain archive of a release: a ZIP whose entries are stored, the digest index first, then the two definition
// files. It depends on their contents alone, to the byte, so that a difference between two of them can be applied
// anywhere: the times and modes are fixed, and no library writes it. (PKWARE APPNOTE 6.3.10, with the fields of its
// section 4.5.3 always there.) And deltas, which lead from one plain archive to the next: Zstandard frames (RFC 8878)
// of the new one with the old one as prefix.
//
// For the thread that works with the run. What fails throws std::system_error, unless a function says more. The files
// that are made must not exist; they are not flushed, and stay when a function throws.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "options.hpp"
#include "pack.hpp"
#include "run.hpp"

namespace zqu::mirror_tool {

inline constexpr std::size_t most_deltas = 100;

// A difference between two plain archives.
struct Delta {
    std::string from;  // the id of the release that it starts from
    std::uintmax_t size = 0;
    std::string sha256;  // in lower-case hexadecimal, as all here
};

// What a complete-info INI says of the plain archive, in lines that the daemon ignores.
struct PlainInfo {
    std::string sha256;  // empty when the INI does not describe a plain archive completely
    std::uintmax_t size = 0;
    std::vector<Delta> deltas{};  // each with a usable id, size and digest; the smallest first; at most most_deltas,
                                  // and together no larger than the archive, for the upstream mirror may be hostile
};

[[nodiscard]] PlainInfo plain_info(const std::string& info);
[[nodiscard]] std::string lines_of(const PlainInfo& plain);

// The file names of a delta to the release id, and of the plain archive that mirror --plain keeps. The name of a delta
// has the beginning of its digest.
[[nodiscard]] std::string delta_name(const std::string& flavor, const std::string& id, const Delta& delta);
[[nodiscard]] std::string plain_name(const std::string& flavor, const std::string& id);

inline const std::string plain_end = ".plain.zip";

// Where mirror --plain keeps the INI of the upstream mirror, beside its own of that name.
[[nodiscard]] std::string upstream_info_name(const std::string& info);

// The name of the INI beside which a delta or an upstream mirror's INI of this name belongs; empty for other names.
[[nodiscard]] std::string owner_of(const std::string& name);

// Writes the plain archive of the sources.
void write_plain(const std::filesystem::path& target, const std::string& index, const std::string& index_name,
                 const std::vector<Source>& sources);

// Writes the plain archive of what clients would unpack from an archive, called name on the mirror. Throws
// std::runtime_error with the reason when they would not take it, and what inspect() throws.
void convert_to_plain(const std::filesystem::path& archive, const std::string& name, const std::string& flavor,
                      const std::filesystem::path& target, Run& run);

// Writes the delta that leads from one file to another. Returns whether it has at most most bytes, for which there must
// be room; if not, target is no delta. Throws std::runtime_error when libzstd fails.
[[nodiscard]] bool make_delta(const std::filesystem::path& from, const std::filesystem::path& to,
                              const std::filesystem::path& target, std::uintmax_t most);

// Applies a delta, which may be hostile, in a process as inspect() has it. Throws std::runtime_error when that does not
// give size bytes.
void apply_delta(const std::filesystem::path& from, const std::filesystem::path& delta,
                 const std::filesystem::path& target, std::uintmax_t size);

}  // namespace zqu::mirror_tool

// Unpacks a release's archive with the daemon's own code, and reads its digest index.
//
// Changes the process's working directory, so for one thread, with absolute paths everywhere else.
#pragma once

#include <filesystem>
#include <map>
#include <string>

namespace zqu::mirror_tool {

// Enters folder and unpacks archive, an absolute path, into it by zqu::verifier::extract. Returns what that returns;
// the working directory stays folder. Throws std::system_error when folder cannot be entered.
//
// A folder that is removed meanwhile is not brought back: libarchive makes anew the parents that it finds missing, but
// never those of ".". The end by a signal depends on that.
[[nodiscard]] bool extract_into(const std::filesystem::path& folder, const std::filesystem::path& archive);

// The digests that the index unpacked into folder gives, as zqu::verifier::parse_def_index reads them; none when it
// cannot be read.
[[nodiscard]] std::map<std::string, std::string> read_index(const std::filesystem::path& folder,
                                                            const std::string& flavor);

}  // namespace zqu::mirror_tool

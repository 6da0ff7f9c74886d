// The definition files that a publish reads, and the guard against their changing meanwhile.
//
// Stateless functions, for one thread. Nothing here writes.
#pragma once

#include <sys/stat.h>

#include <filesystem>
#include <string>
#include <vector>

namespace zqu::mirror_tool {

struct Source {
    std::filesystem::path path;  // absolute
    std::string name;            // inside the archive
    struct stat before {};       // as it was before anything of it was read
    std::string digest;          // SHA-256 in lower-case hexadecimal; empty until somebody has computed it
};

// Opens and measures the file at path; keeps no descriptor and reads nothing. Throws std::system_error when it cannot
// be opened, and std::runtime_error when it is not a regular file; a FIFO does not keep it waiting.
[[nodiscard]] Source open_source(const std::string& path, const std::string& name);

// Throws std::runtime_error when the file at the source's path is another one, or was written, since it was opened.
void require_unchanged(const Source& source);

// The digest index: one line "<name>.sha256 = <digest>" per source.
[[nodiscard]] std::string index_text(const std::vector<Source>& sources);

}  // namespace zqu::mirror_tool

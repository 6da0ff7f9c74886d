#include "unpack.hpp"

#include <unistd.h>

#include <fstream>
#include <sstream>

#include "failure.hpp"
#include "names.hpp"
#include "verifier.hpp"

namespace zqu::mirror_tool {

bool extract_into(const std::filesystem::path& folder, const std::filesystem::path& archive) {
    if (chdir(folder.c_str()) != 0) {
        fail_errno("cannot enter " + folder.string());
    }
    return zqu::verifier::extract(archive, ".");
}

std::map<std::string, std::string> read_index(const std::filesystem::path& folder, const std::string& flavor) {
    std::ostringstream text;
    text << std::ifstream(folder / index_name(flavor), std::ios::binary).rdbuf();
    return zqu::verifier::parse_def_index(text.str());
}

}  // namespace zqu::mirror_tool

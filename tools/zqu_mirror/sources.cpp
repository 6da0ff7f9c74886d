#include "sources.hpp"

#include <fcntl.h>

#include "failure.hpp"
#include "files.hpp"

namespace zqu::mirror_tool {

Source open_source(const std::string& path, const std::string& name) {
    Source source;
    const Fd file(path, O_RDONLY | O_NONBLOCK);  // a FIFO must not keep the run waiting
    if (fstat(file.get(), &source.before) != 0 || !S_ISREG(source.before.st_mode)) {
        fail(path + " is not a regular file");
    }
    source.path = std::filesystem::absolute(path);
    source.name = name;
    return source;
}

void require_unchanged(const Source& source) {
    struct stat now {};
    const struct stat& before = source.before;
    if (stat(source.path.c_str(), &now) != 0 || now.st_dev != before.st_dev || now.st_ino != before.st_ino ||
        now.st_size != before.st_size || now.st_mtim.tv_sec != before.st_mtim.tv_sec ||
        now.st_mtim.tv_nsec != before.st_mtim.tv_nsec) {
        fail(source.path.string() + " changed while it was read");
    }
}

std::string index_text(const std::vector<Source>& sources) {
    std::string text;
    for (const auto& source : sources) {
        text += source.name + ".sha256 = " + source.digest + "\n";
    }
    return text;
}

}  // namespace zqu::mirror_tool

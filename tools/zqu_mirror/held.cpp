#include "held.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>

#include "failure.hpp"
#include "files.hpp"
#include "names.hpp"

namespace zqu::mirror_tool {

namespace fs = std::filesystem;

namespace {

// Whether there is a record. What others have put into its place is neither followed nor replaced.
bool has_record(const fs::path& record) {
    const fs::file_status found = fs::symlink_status(record);
    if (fs::exists(found) && !fs::is_directory(found)) {
        fail(record.string() + " is no directory: remove it, then every release that was held is released");
    }
    return fs::exists(found);
}

}  // namespace

std::set<std::string> held_ids(const Options& options) {
    const fs::path record = folder(options) / held_directory_name;
    const std::string start = stem(options.flavor, "");
    std::set<std::string> ids;
    if (has_record(record)) {
        for (const auto& entry : fs::directory_iterator(record)) {
            const std::string name = entry.path().stem();
            const std::string id = name.substr(std::min(start.size(), name.size()));
            if (entry.path().filename() == info_name(options.flavor, id)) {
                ids.insert(id);
            }
        }
    }
    return ids;
}

void hold(const Options& options, const std::string& id, Run& run) {
    const fs::path record = folder(options) / held_directory_name;
    if (!has_record(record)) {
        run.make(record, [&] { make_folder(record, 0755); });
        flush(folder(options));
    }
    const fs::path path = record / info_name(options.flavor, id);
    if (!fs::exists(fs::symlink_status(path))) {
        run.make(path, [&] { Fd(path, O_WRONLY | O_CREAT | O_EXCL); });
        flush(record);
    }
}

void end_hold(const Options& options, const std::string& id) {
    const fs::path record = folder(options) / held_directory_name;
    if (!fs::is_directory(fs::symlink_status(record))) {
        return;
    }
    if (unlink((record / info_name(options.flavor, id)).c_str()) == 0) {
        flush(record);
    } else if (errno != ENOENT) {
        fail_errno("cannot release " + id);
    }
}

}  // namespace zqu::mirror_tool

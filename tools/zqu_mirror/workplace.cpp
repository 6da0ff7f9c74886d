#include "workplace.hpp"

#include <fcntl.h>
#include <sys/stat.h>

#include <system_error>

#include "catalogue.hpp"
#include "client.hpp"
#include "failure.hpp"
#include "files.hpp"
#include "names.hpp"

namespace zqu::mirror_tool {

namespace fs = std::filesystem;

namespace {

const fs::path& make_folders(const fs::path& path, Run& run) {
    fs::path prefix;
    for (const auto& part : path) {
        const fs::path parent = prefix;
        prefix /= part;
        struct stat found {};
        if (stat(prefix.c_str(), &found) != 0) {
            run.make(prefix, [&] { make_folder(prefix, 0755); });
            flush(parent);
        }
    }
    return path;
}

void make_work(const fs::path& work, Run& run) {
    run.make_scratch([&] {
        std::error_code ignored;
        remove_tree(work, ignored);  // a killed run's: nobody else can be using it, for the folder is locked
        make_folder(work, 0700);
        return work;
    });
}

// Best effort: an INI of another user stays as it is, and prune is the more careful then.
void mark_as_former(const fs::path& info, const fs::path& hit) {
    struct stat replaced {};
    if (stat(hit.c_str(), &replaced) == 0) {
        const timespec times[] = {{0, UTIME_OMIT}, replaced.st_mtim};
        static_cast<void>(utimensat(AT_FDCWD, info.c_str(), times, 0));
    }
}

}  // namespace

std::optional<std::string> current_id(const Options& options) {
    const zqu::Config cfg = client_config(options);
    try {
        return tools::Client(cfg).fetch_id();
    } catch (const tools::MirrorError&) {
        return std::nullopt;
    }
}

bool has_work_directory(const fs::path& directory) {
    const fs::path work = directory / work_folder_name;
    const auto found = fs::symlink_status(work);
    if (fs::exists(found) && !fs::is_directory(found)) {
        fail(work.string() +
             " is not a directory, but zqu-mirror prepares files in one of that name: remove or rename it");
    }
    return fs::exists(found);
}

Workplace::Workplace(const fs::path& folder, Run& run) : folder_(make_folders(folder, run)), lock_(folder_), run_(run) {
    if (has_work_directory(folder_)) {
        for (const auto& archive : archives_of_killed_run(folder_)) {  // only that directory says whose they are
            fs::remove(folder_ / archive);
        }
    }
    make_work(folder_ / work_folder_name, run_);
}

fs::path Workplace::work(const std::string& name) const {
    return folder_ / work_folder_name / name;
}

void Workplace::add(const std::string& work_name, const std::string& name) {
    run_.make(folder_ / name, [&] { move(work(work_name), folder_ / name); });
}

void Workplace::make_current(const Options& options, const std::string& id) {
    const fs::path hit = work("hit");
    write_text(hit, "[Current]\ndefId = " + id + "\n");
    const auto former = current_id(options);
    if (former && *former != id && unusable_name(*former).empty()) {
        mark_as_former(folder_ / info_name(options.flavor, *former), hit);
    }
    run_.commit([&] { move(hit, folder_ / hit_name(options.flavor)); });
    try {
        flush(folder_);
    } catch (const std::system_error& e) {
        fail(id + " is published, but a power cut might undo that: " + e.what());
    }
}

}  // namespace zqu::mirror_tool

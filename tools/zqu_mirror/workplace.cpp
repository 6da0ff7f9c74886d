#include "workplace.hpp"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <cerrno>
#include <system_error>

#include "failure.hpp"
#include "names.hpp"

namespace zqu::mirror_tool {

namespace fs = std::filesystem;

namespace {

constexpr const char* work_folder = ".zqu-mirror.work";

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

void lock(const Fd& file, const fs::path& path) {
    if (flock(file.get(), LOCK_EX | LOCK_NB) != 0) {
        if (errno == EWOULDBLOCK) {
            fail("another publish is at work in " + path.string());
        }
        fail_errno("cannot lock " + path.string());
    }
}

void make_work(const fs::path& work, Run& run) {
    run.make_scratch([&] {
        std::error_code ignored;
        fs::remove_all(work, ignored);  // a killed run's: nobody else can be using it, for the folder is locked
        make_folder(work, 0700);
        return work;
    });
}

}  // namespace

Workplace::Workplace(const fs::path& folder, Run& run)
    : folder_(make_folders(folder, run)), locked_(folder_, O_RDONLY | O_DIRECTORY), run_(run) {
    lock(locked_, folder_);
    make_work(folder_ / work_folder, run_);
}

fs::path Workplace::work(const std::string& name) const {
    return folder_ / work_folder / name;
}

void Workplace::add(const std::string& work_name, const std::string& name) {
    run_.make(folder_ / name, [&] { move(work(work_name), folder_ / name); });
}

void Workplace::make_current(const std::string& flavor, const std::string& id) {
    const fs::path hit = work("hit");
    write_text(hit, "[Current]\ndefId = " + id + "\n");
    run_.commit([&] { move(hit, folder_ / hit_name(flavor)); });
    try {
        flush(folder_);
    } catch (const std::system_error& e) {
        fail(id + " is published, but a power cut might undo that: " + e.what());
    }
}

}  // namespace zqu::mirror_tool

#include "workplace.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>

#include "catalogue.hpp"
#include "client.hpp"
#include "digest.hpp"
#include "plain.hpp"
#include "rollout.hpp"

namespace zqu::mirror_tool {

namespace fs = std::filesystem;

namespace {

bool has_record(const fs::path& record) {
    return has_directory(record, " is no directory: remove it, then every release that was held is released");
}

fs::path make_directories(const fs::path& path, Run& run) {
    become_owner(path);
    fs::path prefix;
    for (const auto& part : path) {
        const fs::path parent = prefix;
        prefix /= part;
        struct stat found = {};
        if (stat(prefix.c_str(), &found) != 0) {
            run.make(prefix, [&] { make_directory(prefix, 0755); });
            flush(parent);
        }
    }
    return path;
}

// Best effort: an INI of another user stays as it is, and prune is then more careful.
void mark_as_former(const fs::path& info, const fs::path& hit) {
    struct stat replaced = {};
    if (stat(hit.c_str(), &replaced) == 0) {
        const timespec times[] = {{0, UTIME_OMIT}, replaced.st_mtim};
        static_cast<void>(utimensat(AT_FDCWD, info.c_str(), times, AT_SYMLINK_NOFOLLOW));
    }
}

std::string fault_of_archive(const fs::path& archive, const zqu::CompleteInfo& info, Depth depth, Run& run) {
    std::error_code missing;
    if (!fs::is_regular_file(fs::status(archive, missing))) {
        return info.cab_name + (missing || !fs::exists(archive) ? " is missing" : " is not a regular file");
    }
    const std::uintmax_t size = fs::file_size(archive);
    const bool same_size = static_cast<std::uintmax_t>(info.size) == size;
    if ((same_size && depth == Depth::size) || has_digest(archive, info.sha256, run)) {
        return "";
    }
    return info.cab_name + (same_size || info.size <= 0
                                ? " does not have the digest " + info.sha256
                                : " has " + std::to_string(size) + " bytes instead of " + std::to_string(info.size));
}

}  // namespace

bool has_directory(const fs::path& path, const std::string& otherwise) {
    const fs::file_status found = fs::symlink_status(path);
    if (fs::exists(found) && !fs::is_directory(found)) {
        fail(path.string() + otherwise);
    }
    return fs::exists(found);
}

bool has_digest(const fs::path& archive, std::string digest, Run& run) {
    if (!fs::is_regular_file(archive) || fs::file_size(archive) > tools::largest_file) {
        return false;
    }
    std::transform(digest.begin(), digest.end(), digest.begin(), [](unsigned char c) { return std::tolower(c); });
    return sha256_in(run, archive) == digest;
}

std::optional<std::string> named_id(const Options& options, const std::string& file) {
    const std::string text = text_of(directory_of(options) / file);
    if (text.empty()) {
        return std::nullopt;  // the core library would log it as an error
    }
    const zqu::Config cfg = client_config(options);
    try {
        const std::string id = tools::Client(cfg).read_id(text);
        const bool usable = unusable_name(id).empty() && unusable_archive(stem(options.flavor, id)).empty();
        return usable ? std::optional<std::string>(id) : std::nullopt;
    } catch (const tools::MirrorError&) {
        return std::nullopt;
    }
}

std::optional<std::string> current_id(const Options& options) {
    return named_id(options, hit_name(options.flavor));
}

std::string hit_text(const std::string& id) {
    return "[Current]\ndefId = " + id + "\n";
}

std::string info_text(const std::string& id, const std::string& archive, const std::string& sha256,
                      std::uintmax_t size) {
    return "def.Current.defId = " + id + "\ndef.Current.name = " + archive + "\ndef.Current.SHA256 = " + sha256 +
           "\ndef.Current.size = " + std::to_string(size) + "\n";
}

fs::path existing_directory(const Options& options) {
    fs::path found = directory_of(options);
    if (!fs::is_directory(found)) {
        fail(found.string() + " is no directory: there is no mirror");
    }
    return found;
}

Examined examine(const Options& options, const std::string& id, Depth depth, Run& run) {
    const std::string phase = "checking the files of " + id;
    run.phase(phase);
    const std::string name = info_name(options.flavor, id);
    const fs::path place = directory_of(options);
    if (!fs::exists(fs::symlink_status(place / name))) {
        return {name + " is missing"};
    }
    const zqu::Config cfg = client_config(options);
    Examined found;
    try {
        found.info = tools::Client(cfg).fetch_info(id);
    } catch (const tools::MirrorError& e) {
        return {e.what()};
    }
    const std::string reason = unusable_archive(found.info.cab_name);
    if (!reason.empty()) {
        return {name + ": the archive's name " + found.info.cab_name + " " + reason};
    }
    const fs::path archive = place / found.info.cab_name;
    found.fault = fault_of_archive(archive, found.info, depth, run);
    if (found.fault.empty() && depth == Depth::entries) {
        found.fault = tools::first_fault(inspect_in(run, phase, archive, found.info.cab_name, options.flavor));
    }
    return found;
}

std::string text_of(const fs::path& path) {
    std::error_code unusable;  // as a name is that is too long
    if (!fs::is_regular_file(path, unusable)) {
        return "";
    }
    const std::string text = tools::read_all(tools::open_regular(path).get(), tools::largest_ini, path);
    return text.size() > tools::largest_ini ? "" : text;
}

std::string upstream_text(const Options& options, const std::string& id) {
    const fs::path info = directory_of(options) / info_name(options.flavor, id);
    const std::string text = text_of(upstream_info_name(info));
    return text.empty() ? text_of(info) : text;
}

std::string summary(const fs::path& directory, const std::string& what, const zqu::CompleteInfo& info) {
    return what + ": " + info.cab_name + ", " + std::to_string(fs::file_size(directory / info.cab_name)) +
           " bytes, SHA-256 " + info.sha256;
}

tools::Inspection inspect_in(Run& run, const std::string& phase, const fs::path& archive, const std::string& name,
                             const std::string& flavor) {
    return tools::inspect(archive, name, flavor, [&](const auto& position) { run.phase(phase, position); });
}

std::string sha256_in(Run& run, const fs::path& path) {
    return tools::sha256(path, [&run](std::size_t bytes) { run.advance(bytes); });
}

void report(const Options& options, const std::string& line, Run& run) {
    run.phase("");
    if (!options.quiet) {
        say(line);
    }
}

bool has_work_directory(const fs::path& directory) {
    return has_directory(directory / work_directory_name,
                         " is not a directory, but zqu-mirror prepares files in one of that name: remove or rename it");
}

std::set<std::string> held_ids(const Options& options) {
    const fs::path record = directory_of(options) / held_directory_name;
    std::set<std::string> ids;
    if (has_record(record)) {
        for (const auto& entry : fs::directory_iterator(record)) {
            if (const auto id = id_in(entry.path().filename(), options.flavor)) {
                ids.insert(*id);
            }
        }
    }
    return ids;
}

void hold(const Options& options, const std::string& id, Run& run) {
    const fs::path record = directory_of(options) / held_directory_name;
    if (!has_record(record)) {
        run.make(record, [&] { make_directory(record, 0755); });
        flush(directory_of(options));
    }
    const fs::path path = record / info_name(options.flavor, id);
    if (!fs::exists(fs::symlink_status(path))) {
        run.make(path, [&] { Fd(path, O_WRONLY | O_CREAT | O_EXCL); });
        flush(record);
    }
}

void end_hold(const Options& options, const std::string& id) {
    const fs::path record = directory_of(options) / held_directory_name;
    if (!fs::is_directory(fs::symlink_status(record))) {
        return;
    }
    if (unlink((record / info_name(options.flavor, id)).c_str()) == 0) {
        flush(record);
    } else if (errno != ENOENT) {
        fail_errno("cannot release " + id);
    }
}

Workplace::Workplace(const fs::path& directory, Run& run)
    : directory_(make_directories(directory, run)),
      lock_(directory_),
      work_(directory_ / work_directory_name),
      run_(run) {
    removed_leftover_ = has_work_directory(directory_);
    if (removed_leftover_) {
        for (const auto& archive : archives_of_killed_run(directory_)) {  // only that directory shows whose they are
            fs::remove(directory_ / archive);
        }
    }
    run_.make_scratch([this] {
        std::error_code ignored;
        remove_tree(work_, ignored);  // a killed run's: nobody else can be using it, for the directory is locked
        make_directory(work_, 0700);
        return work_;
    });
}

void Workplace::add(const std::string& work_name, const std::string& name) {
    run_.make(directory_ / name, [&] { move(work(work_name), directory_ / name); });
}

void Workplace::make_current(const Options& options, const std::string& id, bool holds_former) {
    const fs::path hit = work("hit");
    write_text(hit, hit_text(id));
    const auto former = current_id(options);
    if (former && !holds_former) {
        end_hold(options, *former);
    }
    run_.commit([&] {
        if (former && *former != id) {
            mark_as_former(directory_ / info_name(options.flavor, *former), hit);
        }
        move(hit, directory_ / hit_name(options.flavor));
    });
    try {
        flush(directory_);
    } catch (const std::system_error& e) {
        fail(id + " is published, but a power cut might undo that: " + e.what());
    }
    try {
        end_hold(options, id);
        remove_leftover_stages(options);
    } catch (const std::system_error& e) {
        fail(id + " is current, but stays held or its stage files stay: " + e.what());
    }
}

}  // namespace zqu::mirror_tool

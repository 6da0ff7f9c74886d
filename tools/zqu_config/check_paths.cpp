#include "check_paths.hpp"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <string>

#include "certificates.hpp"
#include "settings.hpp"
#include "text.hpp"

namespace zqu::config_tool {

namespace {

namespace fs = std::filesystem;

// What is at a path, links followed.
struct At {
    explicit At(const std::string& path) { error = stat(path.c_str(), &status) == 0 ? 0 : errno; }

    [[nodiscard]] bool there() const { return error == 0; }
    [[nodiscard]] bool is_folder() const { return there() && S_ISDIR(status.st_mode); }
    [[nodiscard]] bool is_file() const { return there() && S_ISREG(status.st_mode); }
    [[nodiscard]] bool is_fifo() const { return there() && S_ISFIFO(status.st_mode); }

    struct stat status {};
    int error = 0;
};

bool is_link(const std::string& path) {
    struct stat status {};
    return lstat(path.c_str(), &status) == 0 && S_ISLNK(status.st_mode);
}

// A path of the configuration: its key, or empty for the file itself, and the line that has set it.
struct Place {
    std::string key;
    std::string path;
    std::size_t line = 0;

    [[nodiscard]] std::string start() const { return key + (key.empty() ? "" : ": ") + tools::quoted(path); }
};

class Paths {
public:
    Paths(const Reading& reading, const User& user, Findings& findings)
        : reading_(reading), user_(user), findings_(findings) {}

    void check();

private:
    void check_configuration();
    void check_ca();
    void check_root();
    void check_store();
    void check_status();
    void check_status_place(const Place& place);
    void check_status_file(const Place& place);
    void check_unit();
    void check_writable_in_unit(const Place& place, const std::string& folder);
    void check_seen_by_unit(const Place& place);
    void check_folder(const Place& place);
    void check_missing_folder(const Place& place);
    void check_writers(const Place& place);
    [[nodiscard]] Place place_of(const std::string& key, const std::string& path) const;
    [[nodiscard]] std::string why_not(const std::string& path, int mode) const;

    const Reading& reading_;
    const User& user_;
    Findings& findings_;
};

std::string reason(int error) {
    return std::string(" (") + std::strerror(error) + ")";
}

// Without "." and "..", and without a slash at the end: for comparing texts of paths.
fs::path plain(const std::string& path) {
    const fs::path normal = fs::path(path).lexically_normal();
    return normal.has_filename() ? normal : normal.parent_path();
}

bool is_below(const std::string& path, const std::string& folder) {
    const fs::path inner = plain(path);
    const fs::path outer = plain(folder);
    const auto [end_of_outer, rest] = std::mismatch(outer.begin(), outer.end(), inner.begin(), inner.end());
    return end_of_outer == outer.end();
}

bool is_same_file(const std::string& a, const std::string& b) {
    std::error_code missing;
    return plain(a) == plain(b) || fs::equivalent(a, b, missing);
}

// The longest part of the path that exists.
std::string existing_part(const std::string& path) {
    fs::path part = plain(path);
    struct stat status {};
    while (lstat(part.c_str(), &status) != 0 && part.has_relative_path()) {
        part = part.parent_path();
    }
    return part.empty() ? "." : part.string();
}

void Paths::check() {
    check_configuration();
    check_ca();
    check_root();
    check_status();
    if (reading_.path == zqu::tools::default_config_path) {
        check_unit();
    }
}

Place Paths::place_of(const std::string& key, const std::string& path) const {
    return {key, path, reading_.effective.line(key)};
}

// Empty when the user may do that.
std::string Paths::why_not(const std::string& path, int mode) const {
    const int error = refusal(user_, path, mode);
    return error == 0 ? "" : reason(error);
}

// Whoever can write there decides what is put into service.
void Paths::check_writers(const Place& place) {
    const At at(place.path);
    if (at.there() && (at.status.st_mode & S_IWOTH) != 0 && (at.status.st_mode & S_ISVTX) == 0) {
        findings_.warning(place.line, place.start() + " can be written by everybody");
    }
}

void Paths::check_configuration() {
    const Place file{"", reading_.path, 0};
    const std::string folder = fs::absolute(reading_.path).parent_path();
    const std::string unreadable = why_not(file.path, R_OK);
    if (!unreadable.empty()) {
        findings_.error(
            0, "user " + user_.name + " may not read the file" + unreadable + ": the daemon would go by its defaults");
    }
    check_writers(file);
    check_writers({"", folder, 0});
    if (!user_.is_service || user_.uid == 0) {
        return;
    }
    const bool sticky = (At(folder).status.st_mode & S_ISVTX) != 0;  // others' files cannot be replaced there
    if (refusal(user_, file.path, W_OK) == 0 || (!sticky && refusal(user_, folder, W_OK | X_OK) == 0)) {
        findings_.warning(0, "user " + user_.name + ", whom the daemon runs as, can change or replace the file");
    }
}

void Paths::check_ca() {
    const Place place = place_of("ca_path", reading_.effective.cfg.ca_path);
    if (place.path.empty()) {
        return;
    }
    const std::string failing = ": no transfer over https succeeds";
    const At at(place.path);
    if (!at.there()) {
        findings_.error(place.line, place.start() + " cannot be examined" + reason(at.error) + failing);
        return;
    }
    if (!at.is_file()) {
        findings_.error(place.line, place.start() + " is no regular file" + failing);
        return;
    }
    if (place.path.front() != '/') {
        findings_.warning(place.line, place.start() + " depends on the folder that the daemon is started in");
    }
    const std::string unreadable = why_not(place.path, R_OK);
    if (!unreadable.empty()) {
        findings_.error(place.line, place.start() + " cannot be read by user " + user_.name + unreadable + failing);
    } else {
        check_certificates(place.path, place.line, findings_);
    }
    check_writers(place);
}

// A folder that the daemon writes into, and makes at its start when it is missing.
void Paths::check_folder(const Place& place) {
    const At at(place.path);
    if (at.error == ENOENT && !is_link(place.path)) {
        check_missing_folder(place);
    } else if (!at.there()) {
        findings_.error(place.line, place.start() + " cannot be examined" + reason(at.error));
    } else if (!at.is_folder()) {
        findings_.error(place.line, place.start() + " is no folder");
    } else {
        const std::string unwritable = why_not(place.path, W_OK | X_OK);
        if (!unwritable.empty()) {
            findings_.error(place.line, place.start() + " cannot be written by user " + user_.name + unwritable);
        }
        check_writers(place);
    }
}

void Paths::check_missing_folder(const Place& place) {
    const std::string existing = existing_part(place.path);
    const std::string refused = At(existing).is_folder() ? why_not(existing, W_OK | X_OK) : reason(ENOTDIR);
    if (refused.empty()) {
        findings_.note(place.line, place.start() + " is missing: the daemon makes it");
    } else {
        findings_.error(place.line, place.start() + " is missing, and user " + user_.name + " cannot make it in " +
                                        tools::quoted(existing) + refused);
    }
}

void Paths::check_root() {
    const Place place = place_of("def_root", reading_.effective.cfg.def_root);
    if (place.path.empty()) {
        findings_.error(place.line, "def_root: empty: the definitions lie in /snapshots");
        return;
    }
    if (place.path.front() != '/') {
        findings_.warning(place.line, place.start() + " depends on the folder that the daemon is started in");
    }
    check_folder(place);
    if (At(place.path).is_folder()) {
        check_store();
    }
}

void Paths::check_store() {
    const std::string& root = reading_.effective.cfg.def_root;
    const Place snapshots = place_of("def_root", root + "/snapshots");
    if (At(snapshots.path).there() || is_link(snapshots.path)) {
        check_folder(snapshots);
    }
    for (const std::string name : {"/active", "/active.tmp"}) {
        const Place link = place_of("def_root", root + name);
        if (At(link.path).is_folder() && !is_link(link.path)) {
            findings_.error(link.line, link.start() + " is a folder: no release can be put into service");
        }
    }
}

void Paths::check_status() {
    const zqu::Config& cfg = reading_.effective.cfg;
    const Place place = place_of("status_path", cfg.status_path);
    if (place.path.empty()) {
        findings_.warning(place.line, "status_path: empty: no status file is written");
        return;
    }
    if (place.path.front() != '/') {
        findings_.warning(place.line, place.start() + " depends on the folder that the daemon is started in");
    }
    const zqu::Config defaults;
    if (!is_same_file(cfg.def_root, defaults.def_root) && is_below(place.path, defaults.def_root)) {
        const std::size_t line = place.line != 0 ? place.line : reading_.effective.line("def_root");
        findings_.warning(line, place.start() + " does not follow def_root, which is elsewhere");
    }
    check_status_place(place);
    check_status_file(place);
}

// Writing there would break what lies there.
void Paths::check_status_place(const Place& place) {
    const zqu::Config& cfg = reading_.effective.cfg;
    for (const std::string name : {"/active", "/active.tmp", "/snapshots"}) {
        if (is_below(place.path, cfg.def_root + name)) {
            findings_.error(place.line, place.start() + " is in the way of " + tools::quoted(cfg.def_root + name));
        }
    }
    if (is_same_file(place.path, reading_.path)) {
        findings_.error(place.line, place.start() + " is the configuration: the daemon would overwrite it");
    }
    if (!cfg.ca_path.empty() && is_same_file(place.path, cfg.ca_path)) {
        findings_.error(place.line, place.start() + " is the file of ca_path: the daemon would overwrite it");
    }
}

void Paths::check_status_file(const Place& place) {
    const At at(place.path);
    if (at.is_folder() || place.path.back() == '/') {
        findings_.error(place.line, place.start() + " is a folder: no status file is written");
    } else if (at.is_fifo()) {
        findings_.error(place.line, place.start() + " is a FIFO: the daemon waits for a reader");
    } else if (at.there() && !at.is_file()) {
        findings_.warning(place.line, place.start() + " is no regular file");
    } else if (at.there()) {
        const std::string unwritable = why_not(place.path, W_OK);
        if (!unwritable.empty()) {
            findings_.error(place.line, place.start() + " cannot be written by user " + user_.name + unwritable);
        }
    } else {
        const std::string folder = fs::path(place.path).parent_path();
        check_folder({place.key, folder.empty() ? "." : folder, place.line});
    }
}

// What the service unit forbids on top, which nothing on the disk tells. It is that of the default file only.
void Paths::check_unit() {
    const zqu::Config& cfg = reading_.effective.cfg;
    check_writable_in_unit(place_of("def_root", cfg.def_root), cfg.def_root);
    if (!is_below(cfg.status_path, cfg.def_root)) {
        check_writable_in_unit(place_of("status_path", cfg.status_path), fs::path(cfg.status_path).parent_path());
    }
    check_seen_by_unit(place_of("ca_path", cfg.ca_path));
    const std::string scheme = "file://";
    if (cfg.mirror_base_url.compare(0, scheme.size(), scheme) == 0) {
        check_seen_by_unit(place_of("mirror_base_url", cfg.mirror_base_url.substr(scheme.size())));
    }
}

void Paths::check_writable_in_unit(const Place& place, const std::string& folder) {
    const zqu::Config defaults;
    if (!folder.empty() && folder.front() == '/' && !is_below(folder, defaults.def_root)) {
        findings_.note(place.line, place.start() + " can be written by the service only with a drop-in of its unit: " +
                                       "ReadWritePaths=" + folder);
    }
}

void Paths::check_seen_by_unit(const Place& place) {
    for (const char* hidden : {"/home", "/root", "/run/user", "/tmp", "/var/tmp"}) {
        if (is_below(place.path, hidden)) {
            findings_.warning(place.line, place.start() + " is hidden from the service, as all of " + hidden + " is");
        }
    }
}

}  // namespace

void check_paths(const Reading& reading, const User& user, Findings& findings) {
    Paths(reading, user, findings).check();
}

}  // namespace zqu::config_tool

#include <fcntl.h>
#include <grp.h>
#include <openssl/err.h>
#include <openssl/x509_vfy.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <stdexcept>

#include "descriptors.hpp"
#include "findings.hpp"
#include "program.hpp"
#include "settings.hpp"
#include "text.hpp"

namespace zqu::config_tool {

using namespace tools;

namespace {

namespace fs = std::filesystem;

// statvfs(3): only root may use the reserved blocks. A file system that does not count inodes gives 0 for all of them.
bool has_room(const std::string& path) {
    struct statvfs room = {};
    const bool known = statvfs(path.c_str(), &room) == 0;
    const bool root = geteuid() == 0;
    return !known || ((root ? room.f_bfree : room.f_bavail) != 0 &&
                      (room.f_files == 0 || (root ? room.f_ffree : room.f_favail) != 0));
}

int ask(const std::string& path, int mode) {
    if (faccessat(AT_FDCWD, path.c_str(), mode & ~room_too, AT_EACCESS) != 0) {
        return errno;
    }
    return (mode & room_too) == 0 || has_room(path) ? 0 : ENOSPC;
}

// What is at a path, links followed.
struct At {
    explicit At(const std::string& path) : status(fs::status(path, fault)) {}

    [[nodiscard]] bool has(fs::perms mode) const { return (status.permissions() & mode) != fs::perms::none; }

    std::error_code fault{};
    fs::file_status status;
};

bool is_link(const std::string& path) {
    std::error_code ignored;
    return fs::is_symlink(fs::symlink_status(path, ignored));
}

std::string reason(const std::error_code& fault) {
    return " (" + fault.message() + ")";
}

bool is_same_file(const std::string& a, const std::string& b) {
    std::error_code missing;
    return normal(a) == normal(b) || fs::equivalent(a, b, missing);
}

// The longest part of the path that exists.
std::string existing_part(const std::string& path) {
    fs::path part = normal(path);
    struct stat status = {};
    while (lstat(part.c_str(), &status) != 0 && part.has_relative_path()) {
        part = part.parent_path();
    }
    return part.empty() ? "." : part.string();
}

// Whether libcurl can use a file of certificates, which libssl reads in the same way.
bool holds_certificates(const std::string& path) {
    const Handle<X509_STORE, X509_STORE_free> store(X509_STORE_new());
    const bool loaded = X509_STORE_load_locations(store.get(), path.c_str(), nullptr) == 1;
    ERR_clear_error();
    return loaded;
}

// A path of the configuration: its key, or empty for the file itself, and the line that has set it.
struct ConfiguredPath {
    std::string key;
    std::string path;
    std::size_t line = 0;

    [[nodiscard]] std::string start() const { return key + (key.empty() ? "" : ": ") + quoted(path); }
};

struct Paths {
    const Reading& reading;
    const User& user;
    Findings& findings;
    const Config& cfg = reading.cfg;

    void check_configuration() {
        const std::string unreadable = why_not(reading.path, R_OK);
        if (!unreadable.empty()) {
            findings.add(
                error, 0,
                "user " + user.name + " may not read the file" + unreadable + ": the daemon would use its defaults");
        }
        const std::string directory = fs::absolute(reading.path).parent_path();
        check_writers({"", reading.path});
        check_writers({"", directory});
        const bool sticky = At(directory).has(fs::perms::sticky_bit);  // others' files cannot be replaced there
        if (user.is_service && user.uid != 0 &&
            (refusal(user, reading.path, W_OK) == 0 || (!sticky && refusal(user, directory, W_OK | X_OK) == 0))) {
            findings.add(warning, 0, "user " + user.name + " (the daemon's) can change or replace the file");
        }
    }

    void check_ca() {
        const ConfiguredPath place = place_of("ca_path", cfg.ca_path);
        const At at(place.path);
        if (place.path.empty() || is_hidden(place, access(place.path.c_str(), R_OK) == 0 ? 0 : errno)) {
            return;
        }
        std::string fault;
        if (!fs::is_regular_file(at.status)) {
            fault = at.fault ? " cannot be examined" + reason(at.fault) : " is not a regular file";
        } else {
            check_absolute(place);
            check_writers(place);
            fault = why_not(place.path, R_OK);
            fault = fault.empty() ? "" : " cannot be read by user " + user.name + fault;
            fault = !fault.empty() || holds_certificates(place.path) ? fault
                                                                     : " holds no PEM certificate, or a damaged one";
        }
        if (!fault.empty()) {
            add(error, place, fault + ": no transfer over https succeeds");
        }
    }

    void check_root() {
        const ConfiguredPath place = place_of("def_root", cfg.def_root);
        if (place.path.empty() || normal(place.path) == "/") {
            const std::string what = place.path.empty() ? "def_root: empty" : place.start();
            findings.add(error, place.line,
                         what + ": the definitions would be in /snapshots; set a directory of their own");
            return;
        }
        check_absolute(place);
        check_directory(place);
        if (!fs::is_directory(At(place.path).status)) {
            return;
        }
        const ConfiguredPath snapshots = place_of("def_root", cfg.def_root + "/snapshots");
        if (At(snapshots.path).fault != std::errc::no_such_file_or_directory || is_link(snapshots.path)) {
            check_directory(snapshots);
        }
        for (const std::string name : {"/active", "/active.tmp"}) {
            const ConfiguredPath link = place_of("def_root", cfg.def_root + name);
            if (fs::is_directory(At(link.path).status) && !is_link(link.path)) {
                add(error, link, " is a directory: no release can be put into service");
            }
        }
    }

    void check_status() {
        const ConfiguredPath place = place_of("status_path", cfg.status_path);
        if (place.path.empty()) {
            findings.add(warning, place.line, "status_path: empty: no status file is written");
            return;
        }
        check_absolute(place);
        const Config defaults;
        if (!is_same_file(cfg.def_root, defaults.def_root) && is_within(place.path, defaults.def_root)) {
            const std::size_t line = place.line != 0 ? place.line : reading.line("def_root");
            findings.add(warning, line, place.start() + " does not follow def_root, which is elsewhere");
        }
        if (is_within(cfg.def_root, place.path)) {
            add(error, place, " is def_root or contains it: no status file is written");
        } else {
            check_status_place(place);
            check_status_file(place);
        }
    }

    // What the service unit forbids besides. Nothing on the disk shows that. The unit uses the default file only.
    void check_unit() {
        const std::string of_status = fs::path(cfg.status_path).parent_path();
        check_writable_in_unit(place_of("def_root", cfg.def_root), cfg.def_root);
        check_writable_in_unit(place_of("status_path", cfg.status_path),
                               is_within(of_status, cfg.def_root) ? "" : of_status);
        for (const ConfiguredPath& place :
             {place_of("ca_path", cfg.ca_path), place_of("mirror_base_url", local_path(cfg.mirror_base_url))}) {
            for (const std::string hidden : {"/home", "/root", "/run/user", "/tmp", "/var/tmp"}) {
                if (is_within(place.path, hidden)) {
                    add(warning, place, " is hidden from the service, as all of " + hidden + " is");
                }
            }
        }
    }

    // A directory that the daemon writes into, and makes at its start when it is missing.
    void check_directory(const ConfiguredPath& place) {
        const At at(place.path);
        if (at.fault == std::errc::no_such_file_or_directory && !is_link(place.path)) {
            const std::string existing = existing_part(place.path);
            const std::string refused = fs::is_directory(At(existing).status)
                                            ? why_not(existing, W_OK | X_OK | room_too)
                                            : reason(std::make_error_code(std::errc::not_a_directory));
            if (refused.empty()) {
                add(note, place, " is missing: the daemon makes it");
            } else {
                add(error, place,
                    " is missing, and user " + user.name + " cannot make it in " + quoted(existing) + refused);
            }
        } else if (at.fault && !is_hidden(place, at.fault.value())) {
            add(error, place, " cannot be examined" + reason(at.fault));
        } else if (!at.fault && !fs::is_directory(at.status)) {
            add(error, place, " is no directory");
        } else if (!at.fault) {
            require_writable(place, W_OK | X_OK | room_too);
            check_writers(place);
        }
    }

    // Writing there would destroy the file or the link that belongs there.
    void check_status_place(const ConfiguredPath& place) {
        for (const std::string name : {"/active", "/active.tmp", "/snapshots"}) {
            if (is_within(place.path, cfg.def_root + name)) {
                add(error, place, " is in the way of " + quoted(cfg.def_root + name));
            }
        }
        if (is_same_file(place.path, reading.path)) {
            add(error, place, " is the configuration: the daemon would overwrite it");
        }
        if (!cfg.ca_path.empty() && is_same_file(place.path, cfg.ca_path)) {
            add(error, place, " is the file of ca_path: the daemon would overwrite it");
        }
    }

    void check_status_file(const ConfiguredPath& place) {
        const At at(place.path);
        if (is_hidden(place, at.fault.value())) {
            return;
        }
        if (fs::is_directory(at.status) || place.path.back() == '/') {
            add(error, place, " is a directory: no status file is written");
        } else if (fs::is_fifo(at.status)) {
            add(error, place, " is a FIFO: the daemon waits for a reader");
        } else if (fs::is_other(at.status)) {
            add(warning, place, " is not a regular file");
        } else if (fs::exists(at.status)) {
            require_writable(place, W_OK);
        } else {
            const std::string directory = fs::path(place.path).parent_path();
            check_directory({place.key, directory.empty() ? "." : directory, place.line});
        }
    }

    void check_writable_in_unit(const ConfiguredPath& place, const std::string& directory) {
        const Config defaults;
        if (!directory.empty() && directory.front() == '/' && !is_within(directory, defaults.def_root)) {
            add(note, place,
                " cannot be written by the service without a drop-in of its unit: ReadWritePaths=" + directory);
        }
    }

    void check_absolute(const ConfiguredPath& place) {
        if (place.path.front() != '/') {
            add(warning, place, " depends on the directory that the daemon is started in");
        }
    }

    // Who can write there decides what is put into service.
    void check_writers(const ConfiguredPath& place) {
        const At at(place.path);
        if (!at.fault && at.has(fs::perms::others_write) && !at.has(fs::perms::sticky_bit)) {
            add(warning, place, " can be written by everybody");
        }
    }

    void require_writable(const ConfiguredPath& place, int mode) {
        const std::string unwritable = why_not(place.path, mode);
        if (!unwritable.empty()) {
            add(error, place, " cannot be written by user " + user.name + unwritable);
        }
    }

    // Whether only this program's user is refused, which says nothing about the daemon.
    bool is_hidden(const ConfiguredPath& place, int fault) {
        const bool hidden = fault == EACCES && !user.can_ask();
        if (hidden) {
            add(warning, place, " cannot be read by you (user " + user.name + "): run as root; it was not checked");
        }
        return hidden;
    }

    [[nodiscard]] ConfiguredPath place_of(const std::string& key, const std::string& path) const {
        return {key, path, reading.line(key)};
    }

    // Empty when the user may do that, and when only root could check it.
    [[nodiscard]] std::string why_not(const std::string& path, int mode) const {
        const std::error_code refused(user.can_ask() ? refusal(user, path, mode) : 0, std::generic_category());
        return refused ? reason(refused) : "";
    }

    void add(Severity severity, const ConfiguredPath& place, const std::string& text) {
        findings.add(severity, place.line, place.start() + text);
    }
};

}  // namespace

std::string caller() {
    const passwd* entry = getpwuid(geteuid());
    return entry != nullptr ? entry->pw_name : std::to_string(geteuid());
}

User choose_user(const std::string& name) {
    const std::string wanted = name.empty() ? service_user : name;
    const passwd* entry = getpwnam(wanted.c_str());
    if (entry == nullptr && !name.empty()) {
        throw std::invalid_argument("there is no user " + printable(name));
    }
    if (entry != nullptr && (geteuid() == 0 || geteuid() == entry->pw_uid)) {
        return {wanted, entry->pw_uid, entry->pw_gid, true, ""};
    }
    User self{caller(), geteuid(), getegid(), false, ""};
    if (self.uid == 0) {
        self.remark = "there is no user " + wanted + ": what may be read and written was checked for " + self.name;
    } else {
        self.remark = "what user " + wanted + " may read and write was not checked: run as root";
    }
    return self;
}

int refusal(const User& user, const std::string& path, int mode) {
    if (user.uid == geteuid()) {
        return ask(path, mode);
    }
    const auto answer = in_child([&] { become(user); }, [&] { return std::to_string(ask(path, mode)); });
    return answer.succeeded() ? std::stoi(answer.output) : EPERM;
}

void become(const User& user) {
    if (user.uid != geteuid() &&
        (initgroups(user.name.c_str(), user.gid) != 0 || setgid(user.gid) != 0 || setuid(user.uid) != 0)) {
        throw std::runtime_error("cannot become user " + user.name);
    }
}

void check_paths(const Reading& reading, const User& user, Findings& findings) {
    Paths paths{reading, user, findings};
    paths.check_configuration();
    paths.check_ca();
    paths.check_root();
    paths.check_status();
    if (reading.path == default_config_path) {
        paths.check_unit();
    }
}

}  // namespace zqu::config_tool

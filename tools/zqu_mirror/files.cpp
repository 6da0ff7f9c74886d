#include "files.hpp"

#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/file.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>

#include "text.hpp"

namespace zqu::mirror_tool {

namespace fs = std::filesystem;

namespace {

// Gives the owner access to the directory and those below it, links not followed.
void make_accessible(const fs::path& path) {
    std::error_code ignored;
    if (!fs::is_directory(fs::symlink_status(path, ignored)) ||
        fchmodat(AT_FDCWD, path.c_str(), S_IRWXU, AT_SYMLINK_NOFOLLOW) != 0) {
        return;
    }
    for (fs::directory_iterator entry(path, ignored), end; !ignored && entry != end; entry.increment(ignored)) {
        make_accessible(entry->path());
    }
}

}  // namespace

void fail(const std::string& text) {
    throw std::runtime_error(text);
}

void refuse(const std::string& what, const std::string& fault) {
    if (!fault.empty()) {
        fail(what + " " + fault);
    }
}

void say(const std::string& text) {
    tools::print(tools::printable(text) + "\n");
}

void write_text(const fs::path& path, const std::string& text) {
    const Fd file(path, O_WRONLY | O_CREAT | O_EXCL);
    tools::write_all(file.get(), text, path.string());
    flush(path);
}

void flush(const fs::path& path) {
    if (fsync(Fd(path, O_RDONLY).get()) != 0) {
        fail_errno("cannot flush " + path.string());
    }
}

void make_directory(const fs::path& path, mode_t mode) {
    if (mkdir(path.c_str(), mode) != 0) {
        fail_errno("cannot create " + path.string());
    }
}

void remove_tree(const fs::path& path, std::error_code& error) {
    make_accessible(path);
    fs::remove_all(path, error);
}

void become_owner(const fs::path& path) {
    struct stat status = {};
    fs::path prefix;
    for (auto part = path.begin(); part != path.end() && status.st_uid == 0; ++part) {
        struct stat found = {};
        prefix /= *part;
        status = stat(prefix.c_str(), &found) == 0 ? found : status;
    }
    if (geteuid() != 0 || status.st_uid == 0) {
        return;
    }
    // Dumpable: else /proc/self/fd belongs to root.
    const passwd* owner = getpwuid(status.st_uid);
    const int grouped = owner != nullptr ? initgroups(owner->pw_name, status.st_gid) : setgroups(0, nullptr);
    if (grouped != 0 || setgid(status.st_gid) != 0 || setuid(status.st_uid) != 0 || prctl(PR_SET_DUMPABLE, 1) != 0) {
        fail_errno("cannot work as the owner of " + prefix.string());
    }
}

Lock::Lock(const fs::path& directory) : directory_(directory, O_RDONLY | O_DIRECTORY) {
    if (flock(directory_.get(), LOCK_EX | LOCK_NB) != 0) {
        if (errno == EWOULDBLOCK) {
            fail("another run is at work in " + directory.string());
        }
        fail_errno("cannot lock " + directory.string());
    }
}

void move(const fs::path& from, const fs::path& to) {
    if (rename(from.c_str(), to.c_str()) != 0) {
        fail_errno("cannot create " + to.string());
    }
}

}  // namespace zqu::mirror_tool

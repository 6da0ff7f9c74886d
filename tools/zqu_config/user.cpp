#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>
#include <string>

#include "child.hpp"
#include "findings.hpp"
#include "settings.hpp"
#include "text.hpp"

namespace zqu::config_tool {

namespace {

// statvfs(3): root alone may use what is reserved. A file system without a number of inodes gives 0 for all of them.
bool has_room(const std::string& path) {
    struct statvfs room {};
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

}  // namespace

std::string caller() {
    const passwd* entry = getpwuid(geteuid());
    return entry != nullptr ? entry->pw_name : std::to_string(geteuid());
}

User choose_user(const std::string& name) {
    const std::string wanted = name.empty() ? tools::service_user : name;
    const passwd* entry = getpwnam(wanted.c_str());
    if (entry == nullptr && !name.empty()) {
        throw std::invalid_argument("there is no user " + tools::printable(name));
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
    const auto answer = tools::in_child([&] { become(user); }, [&] { return std::to_string(ask(path, mode)); });
    return answer.succeeded() ? std::stoi(answer.output) : EPERM;
}

void become(const User& user) {
    if (user.uid != geteuid() &&
        (initgroups(user.name.c_str(), user.gid) != 0 || setgid(user.gid) != 0 || setuid(user.uid) != 0)) {
        throw std::runtime_error("cannot become user " + user.name);
    }
}

}  // namespace zqu::config_tool

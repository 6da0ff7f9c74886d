#include "user.hpp"

#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>
#include <system_error>

#include "text.hpp"

namespace zqu::config_tool {

namespace {

constexpr const char* service_user = "zel-quorin";

std::string name_of_caller() {
    const passwd* entry = getpwuid(geteuid());
    return entry != nullptr ? entry->pw_name : "user " + std::to_string(geteuid());
}

User caller() {
    return {name_of_caller(), geteuid(), getegid(), false, ""};
}

int ask(const std::string& path, int mode) {
    return faccessat(AT_FDCWD, path.c_str(), mode, AT_EACCESS) == 0 ? 0 : errno;
}

}  // namespace

User choose_user(const std::string& name) {
    const std::string wanted = name.empty() ? service_user : name;
    const passwd* entry = getpwnam(wanted.c_str());
    User self = caller();
    if (entry == nullptr) {
        if (!name.empty()) {
            throw std::invalid_argument("there is no user called " + tools::printable(name));
        }
        self.remark = "there is no user called " + wanted + ": what may be read and written is told for " + self.name;
        return self;
    }
    User chosen{wanted, entry->pw_uid, entry->pw_gid, true, ""};
    if (geteuid() != 0 && chosen.uid != self.uid) {
        self.remark = "only root can tell what " + wanted + " may read and write: it is told for " + self.name;
        return self;
    }
    return chosen;
}

int refusal(const User& user, const std::string& path, int mode) {
    if (user.uid == geteuid()) {
        return ask(path, mode);
    }
    const pid_t child = fork();
    if (child < 0) {
        throw std::system_error(errno, std::generic_category(), "cannot ask as another user");
    }
    if (child == 0) {
        _exit(become(user) ? ask(path, mode) : EPERM);
    }
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : EINTR;
}

bool become(const User& user) {
    if (user.uid == geteuid()) {
        return true;
    }
    return initgroups(user.name.c_str(), user.gid) == 0 && setgid(user.gid) == 0 && setuid(user.uid) == 0;
}

}  // namespace zqu::config_tool

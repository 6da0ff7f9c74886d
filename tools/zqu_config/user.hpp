// Whom the daemon runs as, and what that user may do to a path.
//
// Only root can find out for somebody else: a child process takes on the user, with all groups, and asks the kernel.
// What a service manager forbids on top is not looked at.
#pragma once

#include <sys/types.h>

#include <string>

namespace zqu::config_tool {

struct User {
    std::string name;
    uid_t uid = 0;
    gid_t gid = 0;
    bool is_service = false;  // the one the daemon runs as; false: only the caller, for want of a better one
    std::string remark;       // why the caller stands in for somebody else; empty when not
};

// The user called name; when name is empty, "zel-quorin" if there is such a user, else the caller. For a caller other
// than root, it is the caller in any case. Throws std::invalid_argument when no user is called name.
[[nodiscard]] User choose_user(const std::string& name);

// 0 when user may do what mode (of access(2): R_OK, W_OK, X_OK) says to path, links followed; else the errno. Throws
// std::system_error when there is no child process to be had.
[[nodiscard]] int refusal(const User& user, const std::string& path, int mode);

// Makes this process, for good, one of user with the user's groups; nothing happens when it is already. Returns
// whether that worked.
[[nodiscard]] bool become(const User& user);

}  // namespace zqu::config_tool

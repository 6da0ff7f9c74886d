// Work in a process of its own, which may give up rights or be killed without harm to this one.
#pragma once

#include <chrono>
#include <functional>
#include <string>

namespace zqu::tools {

struct ChildResult {
    std::string output;      // at most 1 MiB of what work returned
    int status = 0;          // of waitpid(2)
    bool timed_out = false;  // it was killed because the time was over
    [[nodiscard]] bool succeeded() const { return status == 0 && !timed_out; }
};

// Forks a child that calls prepare and then work, and exits with 0 after it has reported what work returned. When one
// of them throws, the child reports the reason and exits with 1. The child ends when this process ends. It has a
// standard output of its own, for the report. prepare may change its user. Throws std::system_error when no child can
// be made.
[[nodiscard]] ChildResult in_child(const std::function<void()>& prepare, const std::function<std::string()>& work,
                                   std::chrono::seconds limit = std::chrono::hours(24));

}  // namespace zqu::tools

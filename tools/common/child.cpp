#include "child.hpp"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <exception>
#include <stdexcept>

#include "descriptors.hpp"

namespace zqu::tools {

namespace {

using std::chrono::steady_clock;

constexpr std::size_t longest_report = 1 << 20;

// After prepare(): a change of user would undo it.
void end_with_parent(pid_t parent) {
    if (prctl(PR_SET_PDEATHSIG, SIGKILL) != 0 || getppid() != parent) {
        throw std::runtime_error("the program has ended");
    }
}

[[noreturn]] void run_child(int report, pid_t parent, const std::function<void()>& prepare,
                            const std::function<std::string()>& work) {
    int status = 1;
    try {
        std::string text;
        try {
            if (dup2(report, STDOUT_FILENO) < 0) {
                fail_errno("cannot report");
            }
            prepare();
            end_with_parent(parent);
            text = work();
            status = 0;
        } catch (const std::exception& e) {
            text = e.what();
        }
        write_all(STDOUT_FILENO, text, "a report");
    } catch (const std::exception&) {
        status = 1;  // nobody listens any more
    }
    _exit(status);
}

// Milliseconds until then, for poll(2).
int left_ms(steady_clock::time_point end) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - steady_clock::now()).count();
    return static_cast<int>(std::clamp<std::int64_t>(left, 0, 1'000'000));
}

// Returns false when the time was over before the report ended.
bool read_report(int report, steady_clock::time_point end, std::string& text) {
    std::array<char, 65536> block{};
    while (text.size() <= longest_report) {
        pollfd more{report, POLLIN, 0};
        const int left = left_ms(end);
        if (poll(&more, 1, left) == 0 && left_ms(end) == 0) {
            return false;
        }
        const ssize_t count = more.revents != 0 ? read(report, block.data(), block.size()) : -1;
        if (count == 0) {
            break;
        }
        text.append(block.data(), static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
    }
    text.resize(std::min(text.size(), longest_report));
    return true;
}

}  // namespace

ChildResult in_child(const std::function<void()>& prepare, const std::function<std::string()>& work,
                     std::chrono::seconds limit) {
    const auto end = steady_clock::now() + limit;
    const pid_t parent = getpid();
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) {
        fail_errno("cannot make a pipe");
    }
    const Fd report(ends[0]);
    Fd to_report(ends[1]);
    const pid_t child = fork();
    if (child < 0) {
        fail_errno("cannot make a process");
    }
    if (child == 0) {
        run_child(to_report.get(), parent, prepare, work);
    }
    close(to_report.release());
    ChildResult result;
    result.timed_out = !read_report(report.get(), end, result.output);
    kill(child, SIGKILL);  // without effect on one that has reported and ends
    while (waitpid(child, &result.status, 0) < 0 && errno == EINTR) {
    }
    return result;
}

}  // namespace zqu::tools

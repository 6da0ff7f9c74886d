#include "online.hpp"

#include <poll.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <string>
#include <system_error>

#include "fd.hpp"
#include "mirror_client.hpp"
#include "text.hpp"

namespace zqu::config_tool {

namespace {

constexpr const char* ident = "zqu-config";

[[noreturn]] void fail(const char* text) {
    throw std::system_error(errno, std::generic_category(), text);
}

void write_all(int fd, const std::string& text) {
    for (std::size_t done = 0; done < text.size();) {
        const ssize_t size = write(fd, text.data() + done, text.size() - done);
        if (size <= 0) {
            return;  // what is missing shows: the mirror's answer then has not come
        }
        done += static_cast<std::size_t>(size);
    }
}

std::string read_all(int fd) {
    std::string text;
    std::array<char, 4096> block{};
    lseek(fd, 0, SEEK_SET);
    for (ssize_t size = 0; (size = read(fd, block.data(), block.size())) > 0;) {
        text.append(block.data(), static_cast<std::size_t>(size));
    }
    return text;
}

// The child's part: its log lines go to log, and what the mirror names to answer.
void ask(const zqu::Config& cfg, const User& user, int log, int answer) {
    if (!become(user)) {
        write_all(log, "cannot become user " + user.name + "\n");
        return;
    }
    prctl(PR_SET_PDEATHSIG, SIGKILL);  // after the change of user, which would undo it
    dup2(log, STDERR_FILENO);
    openlog(ident, LOG_PERROR, LOG_USER);
    zqu::MirrorClient client(cfg);
    if (const auto id = client.fetch_defid()) {
        if (const auto info = client.fetch_complete_info(*id)) {
            write_all(answer, "release " + quoted(*id) + ", archive " + quoted(info->cab_name));
        }
    }
}

// Returns whether the child ended within the time; it is gone then in any case.
bool await(pid_t child, unsigned timeout_s) {
    using std::chrono::steady_clock;
    const Fd process(static_cast<int>(syscall(SYS_pidfd_open, child, 0)));
    pollfd end{process.get(), POLLIN, 0};
    const auto deadline = steady_clock::now() + std::chrono::seconds(timeout_s);
    int ended = -1;
    while (process.get() >= 0 && ended < 0) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - steady_clock::now());
        ended = poll(&end, 1, static_cast<int>(std::max<std::int64_t>(left.count(), 0)));
    }
    if (ended <= 0) {
        kill(child, SIGKILL);
    }
    while (waitpid(child, nullptr, 0) < 0 && errno == EINTR) {
    }
    return ended > 0;
}

// The reasons in the log, one after the other.
std::string reasons(std::string log) {
    std::string all;
    while (!log.empty()) {
        const auto end = std::min(log.find('\n'), log.size());
        std::string line = log.substr(0, end);
        const std::string start = std::string(ident) + ": ";
        line.erase(0, line.compare(0, start.size(), start) == 0 ? start.size() : 0);
        all += (all.empty() ? ": " : "; ") + printable(line);
        log.erase(0, end + 1);
    }
    return all;
}

}  // namespace

void check_online(const Effective& effective, const User& user, unsigned timeout_s, Findings& findings) {
    const Fd log(memfd_create("log", MFD_CLOEXEC));
    const Fd answer(memfd_create("answer", MFD_CLOEXEC));
    if (log.get() < 0 || answer.get() < 0) {
        fail("cannot make a file in memory");
    }
    const pid_t child = fork();
    if (child < 0) {
        fail("cannot ask the mirror");
    }
    if (child == 0) {
        ask(effective.cfg, user, log.get(), answer.get());
        _exit(0);
    }
    const bool in_time = await(child, timeout_s);
    const std::string release = read_all(answer.get());
    if (!in_time) {
        findings.error(0, "the mirror has not answered within " + std::to_string(timeout_s) + " s");
    } else if (release.empty()) {
        findings.error(0, "the mirror does not serve a release" + reasons(read_all(log.get())));
    } else {
        findings.note(0, "the mirror answers: " + release);
    }
}

}  // namespace zqu::config_tool

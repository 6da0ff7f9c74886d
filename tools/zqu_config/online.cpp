#include "online.hpp"

#include <poll.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <exception>
#include <optional>
#include <string>
#include <system_error>

#include "client.hpp"
#include "descriptors.hpp"
#include "text.hpp"

namespace zqu::config_tool {

namespace {

[[noreturn]] void fail(const char* text) {
    throw std::system_error(errno, std::generic_category(), text);
}

void write_all(int fd, const std::string& text) {
    for (std::size_t done = 0; done < text.size();) {
        const ssize_t size = write(fd, text.data() + done, text.size() - done);
        if (size <= 0) {
            return;  // the finding is then cut short
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

// The child's part: what the mirror names, or why nothing, goes to answer. Returns whether it names something.
bool ask(const zqu::Config& cfg, const User& user, int answer) {
    if (!become(user)) {
        write_all(answer, "cannot become user " + user.name);
        return false;
    }
    prctl(PR_SET_PDEATHSIG, SIGKILL);  // after the change of user, which would undo it
    try {
        tools::Client client(cfg);
        const std::string id = client.fetch_id();
        const zqu::CompleteInfo info = client.fetch_info(id);
        write_all(answer, "release " + tools::excerpt(id) + ", archive " + tools::excerpt(info.cab_name));
        return true;
    } catch (const std::exception& e) {
        write_all(answer, tools::printable(e.what()));
        return false;
    }
}

// Returns whether the child ended with success; nothing when it did not end within the time. It is gone in any case.
std::optional<bool> await(pid_t child, unsigned timeout_s) {
    using std::chrono::steady_clock;
    const tools::Fd process(static_cast<int>(syscall(SYS_pidfd_open, child, 0)));
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
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    return ended > 0 ? std::optional<bool>(WIFEXITED(status) && WEXITSTATUS(status) == 0) : std::nullopt;
}

}  // namespace

void check_online(const Effective& effective, const User& user, unsigned timeout_s, Findings& findings) {
    const tools::Fd answer(memfd_create("answer", MFD_CLOEXEC));
    if (answer.get() < 0) {
        fail("cannot make a file in memory");
    }
    const pid_t child = fork();
    if (child < 0) {
        fail("cannot ask the mirror");
    }
    if (child == 0) {
        _exit(ask(effective.cfg, user, answer.get()) ? 0 : 1);
    }
    const auto answered = await(child, timeout_s);
    if (!answered) {
        findings.error(0, "the mirror has not answered within " + std::to_string(timeout_s) + " s");
    } else if (!*answered) {
        findings.error(0, "the mirror does not serve a release: " + read_all(answer.get()));
    } else {
        findings.note(0, "the mirror answers: " + read_all(answer.get()));
    }
}

}  // namespace zqu::config_tool

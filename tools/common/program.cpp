#include "program.hpp"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <exception>
#include <sstream>
#include <stdexcept>

#include "descriptors.hpp"
#include "monitoring.hpp"
#include "text.hpp"

namespace zqu::tools {

namespace {

using std::chrono::steady_clock;

constexpr std::size_t longest_report = 1 << 20;  // of in_child()

std::string program_name = "zqu";
const char* plugin_service = nullptr;

// No file that is opened later gets the number of a standard descriptor, and writing there fails.
void hold_standard_descriptors() {
    int descriptor = 0;
    while (descriptor >= 0 && descriptor <= STDERR_FILENO) {
        descriptor = open("/dev/null", O_RDONLY);
    }
    if (descriptor >= 0) {
        close(descriptor);
    }
}

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
        status = 1;  // the parent has gone
    }
    _exit(status);
}

// Two connected sockets. Reading from the first fails when nothing comes within the limit.
std::pair<Fd, Fd> channel(std::chrono::seconds limit) {
    std::array<int, 2> ends{};
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0) {
        fail_errno("cannot make a pair of sockets");
    }
    const std::chrono::duration<std::time_t> bounded = std::min(limit, std::chrono::seconds(INT32_MAX));  // 68 years
    const timeval patience{bounded.count(), 0};
    static_cast<void>(setsockopt(ends[0], SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience));
    return {Fd(ends[0]), Fd(ends[1])};
}

}  // namespace

int run_program(const char* name, int failed, const std::function<int()>& body, const char* service) {
    program_name = name;
    plugin_service = service;
    hold_standard_descriptors();
    static_cast<void>(signal(SIGPIPE, SIG_IGN));
    static_cast<void>(signal(SIGXFSZ, SIG_IGN));
    static_cast<void>(signal(SIGCHLD, SIG_DFL));  // ignored, it would hide how a child ends
    try {
        return body();
    } catch (const std::exception& e) {
        return give_up(e.what(), failed);
    }
}

int give_up(const std::string& text, int status) {
    if (plugin_service == nullptr) {
        complain(text);
        return status;
    }
    try {
        print(nagios_line(plugin_service, Verdict::unknown, shown(text)));
    } catch (const std::exception& e) {
        complain(e.what());
    }
    return exit_status(Verdict::unknown);
}

void complain(const std::string& text) {
    std::fprintf(stderr, "%s: %s\n", program_name.c_str(), printable(text).c_str());
}

void print(const std::string& text) {
    write_all(STDOUT_FILENO, text, "to standard output");
}

std::optional<int> parse(CLI::App& app, int argc, char** argv, int wrong) {
    try {
        app.parse(argc, argv);
        return std::nullopt;
    } catch (const CLI::Success& e) {
        std::ostringstream out;
        const int status = app.exit(e, out, out);
        print(out.str());
        return status;
    } catch (const CLI::ParseError& e) {
        const auto words = app.remaining();
        const bool unknown_command = !words.empty() && words.front().front() != '-' &&
                                     app.get_require_subcommand_min() > app.get_subcommands().size();
        const std::string reason = unknown_command ? "there is no command " + words.front() : e.what();
        const std::string command =
            app.get_subcommands().empty() ? "" : " " + app.get_subcommands().front()->get_name();
        return give_up(reason + " (see " + program_name + command + " --help)", wrong);
    }
}

CLI::Option* add_duration(CLI::App& app, const std::string& name, std::function<void(std::int64_t)> take,
                          const std::string& description, std::int64_t least) {
    const auto read = [take = std::move(take), name, least](const std::string& text) {
        const auto seconds = parse_duration(text);
        if (!seconds || *seconds < least) {
            throw CLI::ValidationError(name, text + (seconds ? " is too short"
                                                             : " is not a duration, such as 90, 5m, "
                                                               "2h, 1d or 1w"));
        }
        take(*seconds);
    };
    return app.add_option_function<std::string>(name, read, description)->type_name("DURATION");
}

Progress::Progress() : on_terminal_(isatty(STDERR_FILENO) == 1) {}

void Progress::begin(const std::string& text) {
    clear();
    text_ = text;
    next_ = steady_clock::now() + std::chrono::seconds(1);
}

void Progress::show(std::uintmax_t bytes) {
    const auto now = steady_clock::now();
    if (on_terminal_ && !text_.empty() && now >= next_) {
        next_ = now + std::chrono::milliseconds(200);
        const unsigned long long megabytes = bytes / 1'000'000;
        std::fprintf(stderr, "\033[K%s: %s: %llu MB\r", program_name.c_str(), printable(text_).c_str(), megabytes);
        shown_ = true;
    }
}

void Progress::clear() {
    if (shown_) {
        std::fputs("\033[K", stderr);
        shown_ = false;
    }
}

void ChildResult::require(const std::string& did) const {
    if (WIFSIGNALED(status)) {
        throw std::runtime_error("the process that " + did + " was ended by signal: " + strsignal(WTERMSIG(status)));
    }
    if (!succeeded()) {
        throw std::runtime_error(output);
    }
}

ChildResult in_child(const std::function<void()>& prepare, const std::function<std::string()>& work,
                     std::chrono::seconds limit) {
    const pid_t parent = getpid();
    auto [report, to_report] = channel(limit);
    const pid_t child = fork();
    if (child < 0) {
        fail_errno("cannot make a process");
    }
    if (child == 0) {
        run_child(to_report.get(), parent, prepare, work);
    }
    close(to_report.release());
    ChildResult result;
    try {
        result.output = read_all(report.get(), longest_report, "a report").substr(0, longest_report);
    } catch (const std::system_error&) {
        result.timed_out = true;
    }
    kill(child, SIGKILL);  // without effect on one that has reported and ends
    while (waitpid(child, &result.status, 0) < 0 && errno == EINTR) {
    }
    return result;
}

}  // namespace zqu::tools

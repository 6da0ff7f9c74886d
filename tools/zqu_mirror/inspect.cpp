#include "inspect.hpp"

#include <fcntl.h>
#include <grp.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstring>
#include <exception>
#include <sstream>

#include "failure.hpp"
#include "files.hpp"

namespace zqu::mirror_tool {

namespace {

// A report is a list of records that end with a zero byte: the remarks, which begin with their verdicts, the digests,
// and the end mark.
constexpr const char* verdicts[] = {"ok", "warning", "FAULT"};
constexpr const char* digest_mark = "digest";
constexpr const char* failure_mark = "failure";  // in the place of a report, with the reason
constexpr const char* end_mark = "end";
constexpr std::size_t longest_report = 1 << 20;

constexpr rlim_t most_memory = rlim_t{256} << 20;  // MemoryMax of the daemon's unit
constexpr rlim_t most_cpu_s = 600;

// The sanitizers' shadow memory is larger than any limit.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define ZQU_SHADOW_MEMORY
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define ZQU_SHADOW_MEMORY
#endif
#endif

// Never more than the run itself has.
void limit(int resource, rlim_t soft, rlim_t hard) {
    rlimit now{};
    getrlimit(resource, &now);
    const rlimit limits{std::min(soft, now.rlim_max), std::min(hard, now.rlim_max)};
    if (setrlimit(resource, &limits) != 0) {
        fail_errno("cannot limit what reads the archive");
    }
}

void limit_resources() {
#ifndef ZQU_SHADOW_MEMORY
    limit(RLIMIT_DATA, most_memory, most_memory);
#endif
    limit(RLIMIT_CPU, most_cpu_s, most_cpu_s + 1);  // the second one is for a process that ignores SIGXCPU
}

// For good, and before anything of the archive is read. No other process has the ids: they are of the range that
// systemd.exec(5) keeps for dynamic users.
void give_up_privileges() {
    const auto id = static_cast<uid_t>(61184 + getpid() % 4336);
    if (geteuid() == 0 && (setgroups(0, nullptr) != 0 || setgid(id) != 0 || setuid(id) != 0)) {
        fail_errno("cannot give up root's privileges");
    }
    if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 || prctl(PR_SET_DUMPABLE, 0) != 0) {
        fail_errno("cannot give up privileges");
    }
}

// After the change of user, which would undo it.
void end_with_parent(pid_t parent) {
    if (prctl(PR_SET_PDEATHSIG, SIGKILL) != 0 || getppid() != parent) {
        fail("the run has ended");
    }
}

std::string report_of(const Inspection& found) {
    std::string report;
    // Up to the first zero byte of text, which would begin another record.
    const auto add = [&](const std::string& mark, const std::string& text) {
        report += mark + ' ' + text.substr(0, text.find('\0')) + '\0';
    };
    for (const auto& remark : found.remarks) {
        add(remark.verdict, remark.text);
    }
    for (const auto& [name, digest] : found.digests) {
        add(digest_mark, digest + ' ' + name);
    }
    add(end_mark, "");
    return report;
}

// The archive becomes the standard input, and what takes the report the standard output.
void keep_only(int archive, int report) {
    const Fd nowhere("/dev/null", O_WRONLY);
    if (dup2(archive, STDIN_FILENO) < 0 || dup2(report, STDOUT_FILENO) < 0 || dup2(nowhere.get(), STDERR_FILENO) < 0 ||
        close_range(STDERR_FILENO + 1, ~0U, 0) != 0) {
        fail_errno("cannot close files");
    }
}

// The child's part.
[[noreturn]] void work(int archive, int report, pid_t parent, const std::string& name, const std::string& flavor) {
    std::string text;
    try {
        setsid();  // away from the run's terminal
        limit_resources();
        give_up_privileges();
        end_with_parent(parent);
        keep_only(archive, report);
        text = report_of(judge(STDIN_FILENO, name, flavor));
    } catch (const std::exception& e) {
        text = std::string(failure_mark) + ' ' + e.what() + '\0';
        dup2(report, STDOUT_FILENO);
    }
    for (ssize_t done = 0; !text.empty() && done >= 0;
         text.erase(0, static_cast<std::size_t>(std::max(done, ssize_t{0})))) {
        done = write(STDOUT_FILENO, text.data(), text.size());
    }
    _exit(0);
}

std::string read_report(const Fd& report) {
    std::string text;
    char block[4096];
    ssize_t count = 1;
    while (count > 0 && text.size() <= longest_report) {
        count = read(report.get(), block, sizeof block);
        text.append(block, static_cast<std::size_t>(std::max(count, ssize_t{0})));
    }
    return text;
}

// Adds one record to found; returns whether judge() may have made it.
bool take(const std::string& mark, const std::string& text, Inspection& found) {
    if (mark == digest_mark) {
        const auto space = std::min(text.find(' '), text.size() - 1);
        found.digests[text.substr(space + 1)] = text.substr(0, space);
        return true;
    }
    found.remarks.push_back({mark, text});
    return std::find(std::begin(verdicts), std::end(verdicts), mark) != std::end(verdicts);
}

Inspection parse(const std::string& report, int status) {
    const std::string reader = "the process that reads the archive ";
    Inspection found;
    std::istringstream in(report);
    for (std::string record; std::getline(in, record, '\0');) {
        const auto space = std::min(record.find(' '), record.size());
        const std::string mark = record.substr(0, space);
        const std::string text = record.substr(std::min(space + 1, record.size()));
        if (mark == end_mark && status == 0) {
            return found;
        }
        if (mark == failure_mark) {
            fail(text);
        }
        if (!take(mark, text, found)) {
            break;
        }
    }
    if (WIFSIGNALED(status)) {
        fail(reader + "was ended by signal: " + strsignal(WTERMSIG(status)));
    }
    fail(reader + "has reached no verdict");
}

}  // namespace

Inspection inspect(const std::filesystem::path& archive, const std::string& name, const std::string& flavor) {
    const Fd file(archive, O_RDONLY);
    const pid_t parent = getpid();
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        fail_errno("cannot make a pipe");
    }
    const Fd report(ends[0]);
    const pid_t child = fork();
    if (child == 0) {
        work(file.get(), ends[1], parent, name, flavor);
    }
    close(ends[1]);
    if (child < 0) {
        fail_errno("cannot make a process to read the archive");
    }
    const std::string text = read_report(report);
    kill(child, SIGKILL);  // without effect on one that has reported and ends
    int status = 0;
    waitpid(child, &status, 0);
    return parse(text, status);
}

std::string first_fault(const Inspection& inspection) {
    const auto& remarks = inspection.remarks;
    const auto fault =
        std::find_if(remarks.begin(), remarks.end(), [](const Remark& remark) { return remark.verdict == "FAULT"; });
    return fault == remarks.end() ? "" : fault->text;
}

}  // namespace zqu::mirror_tool

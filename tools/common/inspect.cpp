#include "inspect.hpp"

#include <fcntl.h>
#include <grp.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "descriptors.hpp"
#include "digest.hpp"
#include "program.hpp"
#include "text.hpp"

namespace zqu::tools {

NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(Remark, verdict, text)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(Inspection, remarks, digests, sizes)

namespace {

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

rlim_t hard_limit(int resource) {
    rlimit now{};
    getrlimit(resource, &now);
    return now.rlim_max;
}

void limit(int resource, rlim_t soft, rlim_t hard) {
    const rlimit limits{std::min(soft, hard_limit(resource)), std::min(hard, hard_limit(resource))};
    if (setrlimit(resource, &limits) != 0) {
        fail_errno("cannot limit a process");
    }
}

void limit_resources() {
#ifndef ZQU_SHADOW_MEMORY
    // With less than a gateway has, a sound archive would be refused.
    if (hard_limit(RLIMIT_DATA) < most_memory || hard_limit(RLIMIT_AS) < 2 * most_memory) {
        throw std::runtime_error("reading an archive takes 256 MiB of memory: raise the limits of ulimit -d and -v");
    }
    limit(RLIMIT_DATA, most_memory, most_memory);
    limit(RLIMIT_AS, RLIM_INFINITY, RLIM_INFINITY);
#endif
    limit(RLIMIT_CPU, most_cpu_s, most_cpu_s + 1);  // the second one is for a process that ignores SIGXCPU
}

// For good. No other process has the ids: they are of the range that systemd.exec(5) keeps for dynamic users.
void give_up_privileges() {
    const auto id = static_cast<uid_t>(61184 + getpid() % 4336);
    if (geteuid() == 0 && (setgroups(0, nullptr) != 0 || setgid(id) != 0 || setuid(id) != 0)) {
        fail_errno("cannot give up root's privileges");
    }
    if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 || prctl(PR_SET_DUMPABLE, 0) != 0) {
        fail_errno("cannot give up privileges");
    }
}

// The standard output takes the report.
void confine(const std::set<int>& descriptors) {
    setsid();  // away from the terminal
    limit_resources();
    give_up_privileges();
    const Fd nowhere("/dev/null", O_RDWR);
    bool done = dup2(nowhere.get(), STDIN_FILENO) >= 0 && dup2(nowhere.get(), STDERR_FILENO) >= 0;
    unsigned int next = STDERR_FILENO + 1;
    for (const int kept : descriptors) {
        const auto number = static_cast<unsigned int>(kept);
        done = done && (number == next || close_range(next, number - 1, 0) == 0);
        next = number + 1;
    }
    if (!done || close_range(next, ~0U, 0) != 0) {
        fail_errno("cannot close files");
    }
}

std::string report_of(Inspection found) {
    for (auto& remark : found.remarks) {
        remark.text = printable(remark.text);  // JSON takes no other bytes than UTF-8
    }
    return nlohmann::json(found).dump();
}

Inspection parse(const std::string& report) {
    static const std::vector<std::string> verdicts{"ok", "warning", "FAULT"};
    try {
        auto found = nlohmann::json::parse(report).get<Inspection>();
        const bool known = std::all_of(found.remarks.begin(), found.remarks.end(), [](const Remark& remark) {
            return std::count(verdicts.begin(), verdicts.end(), remark.verdict) == 1;
        });
        if (known && !found.remarks.empty()) {
            return found;
        }
    } catch (const nlohmann::json::exception&) {  // the same as an unknown verdict
    }
    throw std::runtime_error("the process that reads the archive has reached no verdict");
}

}  // namespace

std::string in_confinement(const std::set<int>& descriptors, const std::function<std::string()>& work,
                           const std::string& does) {
    const ChildResult result = in_child([&] { confine(descriptors); }, work);
    result.require(does);
    return result.output;
}

Inspection inspect(const std::filesystem::path& archive, const std::string& name, const std::string& flavor,
                   const std::function<void(const Position&)>& watch, const Destination* to) {
    const auto file = std::make_shared<Fd>(open_regular(archive));
    // The process reads by the same open file description.
    watch([file] { return static_cast<std::uintmax_t>(std::max<off_t>(lseek(file->get(), 0, SEEK_CUR), 0)); });
    const auto work = [&] { return report_of(judge(file->get(), name, flavor, to)); };
    Inspection found =
        parse(in_confinement({file->get(), to != nullptr ? to->file : file->get()}, work, "reads the archive"));
    if (!first_fault(found).empty()) {
        static_cast<void>(sha256(archive));  // throws when the disk is at fault: libarchive may call that a short file
    }
    return found;
}

std::string first_fault(const Inspection& inspection) {
    const auto& remarks = inspection.remarks;
    const auto fault =
        std::find_if(remarks.begin(), remarks.end(), [](const Remark& remark) { return remark.verdict == "FAULT"; });
    return fault == remarks.end() ? "" : fault->text;
}

}  // namespace zqu::tools

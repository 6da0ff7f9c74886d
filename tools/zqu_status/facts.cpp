#include "facts.hpp"

#include <fcntl.h>
#include <sys/stat.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <ctime>
#include <system_error>
#include <thread>

#include "descriptors.hpp"
#include "settings.hpp"
#include "text.hpp"

namespace zqu::status_tool {

using namespace tools;

namespace {

constexpr int looks = 26;  // opening with O_TRUNC may wait for a busy disk, with the file short meanwhile
constexpr std::chrono::milliseconds between_looks(20);

// Why the file cannot be read, and in which state that leaves the configuration; read when it can.
ConfigState openable(const std::string& path, std::string& reason) {
    struct stat found {};
    const bool there = stat(path.c_str(), &found) == 0;
    if (there && !S_ISREG(found.st_mode)) {
        reason = "it is no regular file";
        return ConfigState::unreadable;
    }
    if (there && static_cast<std::uintmax_t>(found.st_size) > tools::largest_config) {
        reason = "it is longer than " + std::to_string(tools::largest_config) + " bytes";
        return ConfigState::unreadable;
    }
    const tools::Fd file(there ? open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC) : -1);
    if (file.get() >= 0) {
        return ConfigState::read;
    }
    reason = std::generic_category().message(errno);
    return errno == ENOENT || errno == ENOTDIR ? ConfigState::missing : ConfigState::unreadable;
}

void read_configuration(Facts& facts) {
    facts.config_state = openable(facts.config_path, facts.config_reason);
    if (facts.config_state == ConfigState::read) {
        const tools::Configuration settings = tools::load_configuration(facts.config_path);
        facts.cfg = settings.cfg;
        if (settings.fatal) {
            facts.config_state = ConfigState::malformed;
        }
    }
}

void look(Facts& facts) {
    facts.status = read_status(facts.cfg.status_path);
    facts.store = look_at_store(facts.cfg);
    facts.now = std::time(nullptr);
}

bool settled(const Store& before, const Facts& facts) {
    const bool told = facts.status.state == StatusState::valid &&
                      facts.status.contents.active_version == tools::as_utf8(facts.store.version);
    const bool nothing_to_tell =
        facts.status.state != StatusState::valid && facts.status.state != StatusState::unfinished;
    return same_link(before, facts.store) && (told || nothing_to_tell);
}

}  // namespace

const char* name_of(ConfigState state) {
    static constexpr std::array<const char*, 4> names{"read", "missing", "unreadable", "malformed"};
    return names.at(static_cast<std::size_t>(state));
}

std::optional<Span> next_check(const Facts& facts) {
    const std::int64_t longest = 2 * std::int64_t{UINT32_MAX};
    const std::int64_t last = facts.status.contents.last_check_epoch;
    if (!facts.looked || facts.status.state != StatusState::valid || last > INT64_MAX - longest) {
        return std::nullopt;
    }
    const std::int64_t earliest = last + std::int64_t{facts.cfg.poll_interval_s};
    const std::uint32_t jitter = facts.cfg.poll_jitter_s;
    return Span{earliest, earliest + (jitter > 0 ? std::int64_t{jitter} - 1 : 0)};
}

Facts observe(const std::string& path) {
    Facts facts;
    facts.config_path = path;
    read_configuration(facts);
    facts.now = std::time(nullptr);
    facts.looked = facts.config_state == ConfigState::read || facts.config_state == ConfigState::missing;
    if (!facts.looked) {
        return facts;
    }
    Store before = look_at_store(facts.cfg);
    look(facts);
    for (int more = looks - 1; more > 0 && !settled(before, facts); --more) {
        std::this_thread::sleep_for(between_looks);
        before = facts.store;
        look(facts);
    }
    facts.layout = look_at_layout(path, facts.cfg, facts.store);
    return facts;
}

}  // namespace zqu::status_tool

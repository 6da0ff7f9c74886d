#include "facts.hpp"

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <ctime>
#include <stdexcept>
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
    try {
        const Fd file = open_regular(path);
        if (read_all(file.get(), largest_config, path).size() <= largest_config) {
            return ConfigState::read;
        }
        reason = "it is longer than " + std::to_string(largest_config) + " bytes";
    } catch (const std::system_error& e) {
        reason = e.code().message();
        const bool missing = e.code().value() == ENOENT || e.code().value() == ENOTDIR;
        return missing ? ConfigState::missing : ConfigState::unreadable;
    } catch (const std::runtime_error&) {
        reason = "it is no regular file";
    }
    return ConfigState::unreadable;
}

void read_configuration(Facts& facts) {
    facts.config_state = openable(facts.config_path, facts.config_reason);
    if (facts.config_state == ConfigState::read) {
        const Configuration found = load_configuration(facts.config_path);
        facts.cfg = found.cfg;
        facts.config_state = found.fatal ? ConfigState::malformed : ConfigState::read;
    }
}

void look(Facts& facts) {
    facts.status = read_status(facts.cfg.status_path);
    facts.store = look_at_store(facts.cfg);
    facts.now = std::time(nullptr);
}

bool is_same_link(const Store& first, const Store& second) {
    return first.link == second.link && first.target == second.target && first.published == second.published;
}

bool settled(const Store& before, const Facts& facts) {
    const bool told = facts.status.state == StatusState::valid &&
                      facts.status.contents.active_version == as_utf8(facts.store.version);
    const bool nothing_to_tell =
        facts.status.state != StatusState::valid && facts.status.state != StatusState::unfinished;
    return is_same_link(before, facts.store) && (told || nothing_to_tell);
}

}  // namespace

const char* name_of(ConfigState state) {
    static constexpr std::array<const char*, 4> names{"read", "missing", "unreadable", "malformed"};
    return names.at(static_cast<std::size_t>(state));
}

std::optional<std::pair<std::int64_t, std::int64_t>> next_check(const Facts& facts) {
    const std::int64_t longest = 2 * std::int64_t{UINT32_MAX};
    const std::int64_t last = facts.status.contents.last_check_epoch;
    if (!facts.looked || facts.status.state != StatusState::valid || last > INT64_MAX - longest) {
        return std::nullopt;
    }
    const std::int64_t earliest = last + std::int64_t{facts.cfg.poll_interval_s};
    const std::uint32_t jitter = facts.cfg.poll_jitter_s;
    return std::pair{earliest, earliest + (jitter > 0 ? std::int64_t{jitter} - 1 : 0)};
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

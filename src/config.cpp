#include "config.hpp"

#include <algorithm>
#include <cctype>
#include <fstream>
#include <stdexcept>
#include <utility>

namespace zqu {
namespace {

std::string trim(std::string s) {
    const auto space = [](char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; };
    while (!s.empty() && space(s.back())) {
        s.pop_back();
    }
    std::size_t start = 0;
    while (start < s.size() && space(s[start])) {
        ++start;
    }
    return s.substr(start);
}

// All lines, except one that a read error has cut short. Not by std::getline: on a failed allocation it reports the end
// of the file, and the settings that follow would silently keep their defaults.
std::string read_text(std::istream& in) {
    std::string text;
    for (char c = 0; in.get(c);) {
        text += c;
    }
    if (in.bad()) {
        text.erase(text.rfind('\n') + 1);
    }
    return text;
}

// Keeps the low 32 bits of what strtoul accepts with 64 bits, without a range check: intended.
std::uint32_t to_number(const std::string& value) {
    if constexpr (sizeof(unsigned long) == sizeof(std::uint64_t)) {
        return static_cast<std::uint32_t>(std::stoul(value));
    } else {
        try {
            return static_cast<std::uint32_t>(std::stoull(value));
        } catch (const std::invalid_argument&) {
            throw std::invalid_argument("stoul");  // the same text on every platform
        } catch (const std::out_of_range&) {
            throw std::out_of_range("stoul");
        }
    }
}

void set_field(Config& cfg, const std::string& key, const std::string& value) {
    static constexpr std::pair<const char*, std::string Config::*> texts[] = {
        {"mirror_base_url", &Config::mirror_base_url},
        {"mirror_subdir", &Config::mirror_subdir},
        {"flavor", &Config::flavor},
        {"ca_path", &Config::ca_path},
        {"engine_version", &Config::engine_version},
        {"def_root", &Config::def_root},
        {"status_path", &Config::status_path},
    };
    static constexpr std::pair<const char*, std::uint32_t Config::*> numbers[] = {
        {"poll_interval_s", &Config::poll_interval_s},
        {"poll_jitter_s", &Config::poll_jitter_s},
        {"retained_snapshots", &Config::retained_snapshots},
        {"http_timeout_s", &Config::http_timeout_s},
    };
    for (const auto& [name, field] : texts) {
        if (key == name) {
            cfg.*field = value;
        }
    }
    for (const auto& [name, field] : numbers) {
        if (key == name) {
            cfg.*field = to_number(value);
        }
    }
}

}  // namespace

bool Config::load(const std::string& path, Config& cfg) {
    std::ifstream in(path);
    if (!in) {
        return false;
    }
    const std::string text = read_text(in);
    for (std::size_t start = 0, end = 0; start < text.size(); start = end + 1) {
        end = std::min(text.find('\n', start), text.size());
        const std::string line = trim(text.substr(start, end - start));
        const auto equals = line.find('=');
        if (line.empty() || line.front() == '#' || equals == std::string::npos) {
            continue;
        }
        set_field(cfg, trim(line.substr(0, equals)), trim(line.substr(equals + 1)));
    }
    return true;
}

bool Config::validate(std::string& reason) const {
    if (mirror_base_url.empty()) {
        reason = "mirror_base_url is not set (the updater will idle, performing no checks)";
        return false;
    }
    if (flavor.empty()) {
        reason = "flavor is not set";
        return false;
    }
    return true;
}

}  // namespace zqu

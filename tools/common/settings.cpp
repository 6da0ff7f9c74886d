#include "settings.hpp"

#include <algorithm>
#include <stdexcept>

namespace zqu::tools {

const std::array<Setting, 11> settings = {{
    {"mirror_base_url", &Config::mirror_base_url, nullptr},
    {"mirror_subdir", &Config::mirror_subdir, nullptr},
    {"flavor", &Config::flavor, nullptr},
    {"ca_path", &Config::ca_path, nullptr},
    {"engine_version", &Config::engine_version, nullptr},
    {"def_root", &Config::def_root, nullptr},
    {"status_path", &Config::status_path, nullptr},
    {"poll_interval_s", nullptr, &Config::poll_interval_s},
    {"poll_jitter_s", nullptr, &Config::poll_jitter_s},
    {"retained_snapshots", nullptr, &Config::retained_snapshots},
    {"http_timeout_s", nullptr, &Config::http_timeout_s},
}};

std::string Setting::of(const zqu::Config& cfg) const {
    return text != nullptr ? cfg.*text : std::to_string(cfg.*number);
}

const Setting* find_setting(const std::string& name) {
    const auto* const found =
        std::find_if(settings.begin(), settings.end(), [&](const Setting& setting) { return name == setting.name; });
    return found == settings.end() ? nullptr : found;
}

Configuration load_configuration(const std::string& path, const zqu::Config& start) {
    Configuration made;
    made.cfg = start;
    try {
        made.opened = zqu::Config::load(path, made.cfg);
    } catch (const std::logic_error&) {  // std::invalid_argument and std::out_of_range, both from std::stoul
        made.opened = true;
        made.fatal = true;
    }
    return made;
}

}  // namespace zqu::tools

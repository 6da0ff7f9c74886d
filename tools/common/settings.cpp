#include "settings.hpp"

#include <algorithm>
#include <stdexcept>

#include "descriptors.hpp"

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

Fatal load_configuration(const std::string& path, zqu::Config& cfg) {
    try {
        if (!zqu::Config::load(path, cfg)) {
            fail_errno("cannot open " + path);
        }
    } catch (const std::invalid_argument&) {
        return Fatal::no_digits;
    } catch (const std::out_of_range&) {
        return Fatal::too_large;
    }
    return Fatal::no;
}

}  // namespace zqu::tools

// The eleven settings and the text of the status file, as the tests expect them.
#pragma once

#include <map>
#include <sstream>
#include <string>
#include <tuple>
#include <utility>

#include "config.hpp"
#include "snapshot_store.hpp"

namespace zqu::test {

inline const std::pair<std::string, std::string Config::*> text_settings[] = {
    {"mirror_base_url", &Config::mirror_base_url},
    {"mirror_subdir", &Config::mirror_subdir},
    {"flavor", &Config::flavor},
    {"ca_path", &Config::ca_path},
    {"engine_version", &Config::engine_version},
    {"def_root", &Config::def_root},
    {"status_path", &Config::status_path},
};

inline const std::pair<std::string, std::uint32_t Config::*> number_settings[] = {
    {"poll_interval_s", &Config::poll_interval_s},
    {"poll_jitter_s", &Config::poll_jitter_s},
    {"retained_snapshots", &Config::retained_snapshots},
    {"http_timeout_s", &Config::http_timeout_s},
};

inline auto fields(const Config& c) {
    return std::tie(c.mirror_base_url, c.mirror_subdir, c.flavor, c.ca_path, c.engine_version, c.def_root,
                    c.status_path, c.poll_interval_s, c.poll_jitter_s, c.retained_snapshots, c.http_timeout_s);
}

// The text of the status file, once the five characters are escaped.
inline std::string status_text(const SnapshotStore::Status& status) {
    std::ostringstream text;
    text << "{\n  \"schema_version\": 1,\n"
         << "  \"active_version\": \"" << status.active_version << "\",\n"
         << "  \"engine_version\": \"" << status.engine_version << "\",\n"
         << "  \"antivir_def_version\": \"" << status.antivir_def_version << "\",\n"
         << "  \"aivsecon_def_version\": \"" << status.aivsecon_def_version << "\",\n"
         << "  \"last_check_epoch\": " << status.last_check_epoch << ",\n"
         << "  \"last_success_epoch\": " << status.last_success_epoch << ",\n"
         << "  \"last_error\": \"" << status.last_error << "\"\n}\n";
    return text.str();
}

// A text as the status file has it.
inline std::string escaped(const std::string& text) {
    static const std::map<char, std::string> escapes = {
        {'\t', "\\t"}, {'\n', "\\n"}, {'\r', "\\r"}, {'"', "\\\""}, {'\\', "\\\\"},
    };
    std::string out;
    for (const char c : text) {
        const auto found = escapes.find(c);
        out += found == escapes.end() ? std::string(1, c) : found->second;
    }
    return out;
}

}  // namespace zqu::test

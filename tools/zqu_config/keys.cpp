#include "keys.hpp"

#include <algorithm>
#include <cctype>
#include <cstddef>
#include <numeric>

namespace zqu::config_tool {

using zqu::Config;

const std::array<Key, 11> keys = {{
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

namespace {

std::string lower(std::string name) {
    std::transform(name.begin(), name.end(), name.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return name;
}

constexpr std::size_t longest = 64;  // no key comes near that, and the distance costs the square of it

// Levenshtein's: characters put in, left out or replaced. Neither text is longer than longest.
std::size_t edit_distance(const std::string& a, const std::string& b) {
    std::array<std::size_t, longest + 1> row{};
    std::iota(row.begin(), row.end(), std::size_t{0});
    for (std::size_t i = 0; i < a.size(); ++i) {
        std::size_t diagonal = row[0];
        row[0] = i + 1;
        for (std::size_t j = 0; j < b.size(); ++j) {
            const std::size_t replaced = diagonal + (a[i] == b[j] ? 0 : 1);
            diagonal = row[j + 1];
            row[j + 1] = std::min({replaced, row[j] + 1, diagonal + 1});
        }
    }
    return row[b.size()];
}

}  // namespace

const Key* find_key(const std::string& name) {
    const auto* const found = std::find_if(keys.begin(), keys.end(), [&](const Key& key) { return name == key.name; });
    return found == keys.end() ? nullptr : found;
}

const Key* find_key_in_any_case(const std::string& name) {
    return find_key(lower(name));
}

const Key* nearest_key(const std::string& name) {
    if (name.size() > longest) {
        return nullptr;
    }
    std::string plain = lower(name);
    std::replace(plain.begin(), plain.end(), '-', '_');
    const Key* nearest = nullptr;
    std::size_t least = longest;
    for (const Key& key : keys) {
        const std::string candidate = key.name;
        const std::size_t distance = edit_distance(plain, candidate);
        if (distance < least && 3 * distance <= std::max(plain.size(), candidate.size())) {
            nearest = &key;
            least = distance;
        }
    }
    return nearest;
}

}  // namespace zqu::config_tool

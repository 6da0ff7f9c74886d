// The keys that the daemon knows.
//
// Constants and pure functions; they fail on lack of memory only.
#pragma once

#include <array>
#include <cstdint>
#include <string>

#include "config.hpp"

namespace zqu::config_tool {

// A key and the member of the settings that it sets: one of the two pointers is not null.
struct Key {
    const char* name;
    std::string zqu::Config::*text;
    std::uint32_t zqu::Config::*number;
};

// All of them, in the order of the members.
extern const std::array<Key, 11> keys;

// The key of exactly that name; null when there is none.
[[nodiscard]] const Key* find_key(const std::string& name);

// The key whose name differs from name in the case of letters only; null when there is none.
[[nodiscard]] const Key* find_key_in_any_case(const std::string& name);

// The key with the least edit distance to name, letters in any case and "-" for "_"; null when more than a third of the
// letters differ.
[[nodiscard]] const Key* nearest_key(const std::string& name);

}  // namespace zqu::config_tool

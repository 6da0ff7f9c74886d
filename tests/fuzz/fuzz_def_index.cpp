// Feeds the reader of the digest index, and compares all of its result with what the rules of the index give.
#include <map>

#include "fuzz.hpp"
#include "verifier.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text = zqu::fuzz::to_string(data, size);
    std::map<std::string, std::string> expected;
    for (const auto& [key, value] : zqu::fuzz::pairs_of(text, ";#[")) {
        const std::string lower = zqu::fuzz::lowered(key);
        if (lower.size() >= 11 && lower.substr(lower.size() - 11) == ".def.sha256") {
            expected[key.substr(0, key.size() - 7)] = zqu::fuzz::lowered(value);
        }
    }
    zqu::fuzz::require(zqu::verifier::parse_def_index(text) == expected);
    return 0;
}

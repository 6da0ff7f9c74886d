// Feeds the reader of the configuration file, and compares every setting, or the exception that a number raises, with
// what the rules of the file give.
#include <cerrno>
#include <cstdlib>
#include <stdexcept>

#include "../unit/expectations.hpp"
#include "fuzz.hpp"

namespace {

using zqu::Config;

// The message of an exception, or "" for none.
std::string set_number(std::uint32_t& field, const std::string& value) {
    char* end = nullptr;
    errno = 0;
    const unsigned long long number = std::strtoull(value.c_str(), &end, 10);
    if (end == value.c_str()) {
        return "not a number";
    }
    if (errno == ERANGE) {
        return "too large";
    }
    field = static_cast<std::uint32_t>(number & 0xFFFFFFFFUL);
    return "";
}

std::string expected(const std::string& text, Config& cfg) {
    std::string error;
    for (const auto& [key, value] : zqu::fuzz::pairs_of(text, "#")) {
        for (const auto& [name, field] : zqu::test::text_settings) {
            if (key == name) {
                cfg.*field = value;
            }
        }
        for (const auto& [name, field] : zqu::test::number_settings) {
            error = key == name ? set_number(cfg.*field, value) : error;
        }
        if (!error.empty()) {
            break;
        }
    }
    return error;
}

std::string loaded(const std::string& path, Config& cfg) {
    try {
        zqu::fuzz::require(Config::load(path, cfg));
    } catch (const std::invalid_argument&) {
        return "not a number";
    } catch (const std::out_of_range&) {
        return "too large";
    }
    return "";
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const zqu::fuzz::Directory directory;
    const std::string text = zqu::fuzz::to_string(data, size);
    zqu::fuzz::write_file(directory / "input", text);
    Config got;
    Config wanted;
    zqu::fuzz::require(loaded(directory / "input", got) == expected(text, wanted));
    zqu::fuzz::require(zqu::test::fields(got) == zqu::test::fields(wanted));
    std::string reason;
    zqu::fuzz::require(got.validate(reason) == (!wanted.mirror_base_url.empty() && !wanted.flavor.empty()));
    return 0;
}

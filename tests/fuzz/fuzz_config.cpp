// Feeds the reader of the configuration file, and compares every setting, or the exception that a number raises, with
// what the rules of the file give.
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <stdexcept>
#include <string>
#include <tuple>

#include "config.hpp"
#include "fuzz_file.hpp"
#include "text_lines.hpp"

namespace {

enum class Outcome { read, not_a_number, too_large };

auto fields(const zqu::Config& cfg) {
    return std::tie(cfg.mirror_base_url, cfg.mirror_subdir, cfg.flavor, cfg.ca_path, cfg.engine_version, cfg.def_root,
                    cfg.status_path, cfg.poll_interval_s, cfg.poll_jitter_s, cfg.retained_snapshots,
                    cfg.http_timeout_s);
}

Outcome set_number(std::uint32_t& field, const std::string& value) {
    char* end = nullptr;
    errno = 0;
    const unsigned long number = std::strtoul(value.c_str(), &end, 10);
    if (end == value.c_str()) {
        return Outcome::not_a_number;
    }
    if (errno == ERANGE) {
        return Outcome::too_large;
    }
    field = static_cast<std::uint32_t>(number & 0xFFFFFFFFUL);
    return Outcome::read;
}

Outcome expected(const std::string& text, zqu::Config& cfg) {
    const std::map<std::string, std::string*> texts = {{"mirror_base_url", &cfg.mirror_base_url},
                                                       {"mirror_subdir", &cfg.mirror_subdir},
                                                       {"flavor", &cfg.flavor},
                                                       {"ca_path", &cfg.ca_path},
                                                       {"engine_version", &cfg.engine_version},
                                                       {"def_root", &cfg.def_root},
                                                       {"status_path", &cfg.status_path}};
    const std::map<std::string, std::uint32_t*> numbers = {{"poll_interval_s", &cfg.poll_interval_s},
                                                           {"poll_jitter_s", &cfg.poll_jitter_s},
                                                           {"retained_snapshots", &cfg.retained_snapshots},
                                                           {"http_timeout_s", &cfg.http_timeout_s}};
    for (const auto& [key, value] : zqu::fuzz::pairs_of(text, "#")) {
        if (const auto field = texts.find(key); field != texts.end()) {
            *field->second = value;
        }
        if (const auto field = numbers.find(key); field != numbers.end()) {
            const Outcome outcome = set_number(*field->second, value);
            if (outcome != Outcome::read) {
                return outcome;
            }
        }
    }
    return Outcome::read;
}

Outcome loaded(const std::string& path, zqu::Config& cfg) {
    try {
        zqu::fuzz::require(zqu::Config::load(path, cfg));
    } catch (const std::invalid_argument&) {
        return Outcome::not_a_number;
    } catch (const std::out_of_range&) {
        return Outcome::too_large;
    }
    return Outcome::read;
}

std::string complaint(const zqu::Config& cfg) {
    if (cfg.mirror_base_url.empty()) {
        return "mirror_base_url is not set (the updater will idle, performing no checks)";
    }
    return cfg.flavor.empty() ? "flavor is not set" : "";
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const zqu::fuzz::File file(data, size);
    zqu::Config got;
    zqu::Config wanted;
    zqu::fuzz::require(loaded(file.path(), got) == expected(zqu::fuzz::to_string(data, size), wanted));
    zqu::fuzz::require(fields(got) == fields(wanted));
    std::string reason;
    zqu::fuzz::require(got.validate(reason) == complaint(wanted).empty() && reason == complaint(wanted));
    return 0;
}

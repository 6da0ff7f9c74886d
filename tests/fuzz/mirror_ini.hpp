// A mirror of local files, and the rule by which its INI files are read.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "config.hpp"
#include "fuzz_file.hpp"
#include "mirror_client.hpp"
#include "text_lines.hpp"

namespace zqu::fuzz {

class LocalMirror {
public:
    LocalMirror() : client_(cfg_) {
        cfg_.mirror_base_url = "file://" + folder_.path();
        cfg_.mirror_subdir = "";
    }

    void serve(const std::string& name, const std::uint8_t* data, std::size_t size) {
        write_file(folder_ / name, data, size);
    }

    [[nodiscard]] MirrorClient& client() { return client_; }

private:
    Folder folder_;
    Config cfg_;
    MirrorClient client_;
};

// The value of the first line with that key (given in lower case), whatever the line's letter case.
inline std::optional<std::string> first_value(const std::string& text, const std::string& key) {
    for (const auto& [name, value] : pairs_of(text, ";#[")) {
        if (lowered(name) == key) {
            return value;
        }
    }
    return std::nullopt;
}

}  // namespace zqu::fuzz

// What the fuzz targets share: their input as a text and as a file in memory, a mirror of local files, and the rules of
// the key = value texts, written a second time by other means.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "config.hpp"
#include "mirror_client.hpp"

// What every target defines, and both libFuzzer and the replay of a corpus call.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace zqu::fuzz {

inline void require(bool condition) {
    if (!condition) {
        std::abort();
    }
}

inline std::string to_string(const std::uint8_t* data, std::size_t size) {
    return {reinterpret_cast<const char*>(data), size};
}

inline void write_file(const std::string& path, const std::string& content) {
    std::ofstream(path, std::ios::binary) << content;
}

inline std::string read_file(const std::string& path) {
    std::ostringstream content;
    content << std::ifstream(path, std::ios::binary).rdbuf();
    return content.str();
}

// A directory in memory, removed with all it holds.
class Directory {
public:
    Directory() { require(mkdtemp(path_.data()) != nullptr); }
    ~Directory() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    Directory(const Directory&) = delete;
    Directory& operator=(const Directory&) = delete;

    [[nodiscard]] const std::string& path() const { return path_; }
    [[nodiscard]] std::string operator/(const std::string& name) const { return path_ + "/" + name; }

private:
    std::string path_ = "/dev/shm/zqu-fuzz-XXXXXX";
};

// A mirror of local files, and its client.
struct LocalMirror {
    LocalMirror() {
        cfg.mirror_base_url = "file://" + directory.path();
        cfg.mirror_subdir = "";
    }

    void serve(const std::string& name, const std::string& content) const { write_file(directory / name, content); }

    Directory directory;
    Config cfg;
    MirrorClient client{cfg};
};

inline std::string stripped(const std::string& text) {
    static constexpr char space[] = " \t\n\v\f\r";
    const auto first = text.find_first_not_of(space);
    return first == std::string::npos ? "" : text.substr(first, text.find_last_not_of(space) - first + 1);
}

inline std::string lowered(std::string text) {
    for (char& c : text) {
        if (c >= 'A' && c <= 'Z') {
            c = static_cast<char>(c - 'A' + 'a');
        }
    }
    return text;
}

// The keys and values of all lines that hold "=" and whose first visible character is none of skipped, in order.
inline std::vector<std::pair<std::string, std::string>> pairs_of(const std::string& text, const std::string& skipped) {
    std::vector<std::pair<std::string, std::string>> pairs;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        line = stripped(line);
        const auto equals = line.find('=');
        if (equals != std::string::npos && skipped.find(line[0]) == std::string::npos) {
            pairs.emplace_back(stripped(line.substr(0, equals)), stripped(line.substr(equals + 1)));
        }
    }
    return pairs;
}

// The value of the first line of an INI with that key, which is given in lower case; "" when there is none.
inline std::string first_value(const std::string& text, const std::string& key) {
    for (const auto& [name, value] : pairs_of(text, ";#[")) {
        if (lowered(name) == key) {
            return value;
        }
    }
    return "";
}

}  // namespace zqu::fuzz

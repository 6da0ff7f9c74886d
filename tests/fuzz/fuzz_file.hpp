// The input of a fuzz target as text, and as a file in a folder of its own in memory.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

// What every target defines, and both libFuzzer and the replay of a corpus call.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace zqu::fuzz {

inline std::string to_string(const std::uint8_t* data, std::size_t size) {
    return {reinterpret_cast<const char*>(data), size};
}

inline void write_file(const std::string& path, const std::uint8_t* data, std::size_t size) {
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
}

inline std::string read_file(const std::string& path) {
    std::string content(std::filesystem::file_size(path), '\0');
    std::ifstream(path, std::ios::binary).read(content.data(), static_cast<std::streamsize>(content.size()));
    return content;
}

class Folder {
public:
    Folder() : path_("/dev/shm/zqu-fuzz-XXXXXX") {
        if (mkdtemp(path_.data()) == nullptr) {
            std::abort();
        }
    }
    ~Folder() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    Folder(const Folder&) = delete;
    Folder& operator=(const Folder&) = delete;

    [[nodiscard]] const std::string& path() const { return path_; }
    [[nodiscard]] std::string operator/(const std::string& name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

class File {
public:
    File(const std::uint8_t* data, std::size_t size) { write_file(path(), data, size); }

    [[nodiscard]] std::string path() const { return folder_ / "input"; }

private:
    Folder folder_;
};

}  // namespace zqu::fuzz

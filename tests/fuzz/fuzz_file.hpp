// The input of a fuzz target as a file, in a folder of its own in memory.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

namespace zqu::fuzz {

class File {
public:
    File(const std::uint8_t* data, std::size_t size) : folder_("/dev/shm/zqu-fuzz-XXXXXX") {
        if (mkdtemp(folder_.data()) == nullptr) {
            std::abort();
        }
        std::ofstream(path(), std::ios::binary)
            .write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
    }
    ~File() {
        std::error_code ignored;
        std::filesystem::remove_all(folder_, ignored);
    }
    File(const File&) = delete;
    File& operator=(const File&) = delete;

    [[nodiscard]] const std::string& folder() const { return folder_; }
    [[nodiscard]] std::string path() const { return folder_ + "/input"; }

private:
    std::string folder_;
};

}  // namespace zqu::fuzz

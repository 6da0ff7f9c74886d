// Owners of descriptors and of C handles; whole files.
//
// May be called from any thread. What fails throws std::system_error with the path and the reason.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

namespace zqu::tools {

// Handle<T, free_function> is a std::unique_ptr that releases a handle of a C library by free_function.
template <auto release>
struct Releaser {
    template <typename T>
    void operator()(T* handle) const {
        release(handle);
    }
};

template <typename T, auto release>
using Handle = std::unique_ptr<T, Releaser<release>>;

// Owns an open descriptor; a negative one is none.
class Fd {
public:
    explicit Fd(int fd) : fd_(fd) {}

    // Opens path by open(2) with O_CLOEXEC; a file that flags create gets the permissions 0666 without the umask.
    Fd(const std::filesystem::path& path, int flags);

    Fd(Fd&& other) noexcept : fd_(other.release()) {}
    Fd& operator=(Fd&&) = delete;
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
    ~Fd();

    [[nodiscard]] int get() const { return fd_; }
    [[nodiscard]] int release() { return std::exchange(fd_, -1); }  // the caller owns it then

private:
    int fd_;
};

// A size that is known to fit into memory. On some platforms the type of sizes of files has more bits.
template <typename Size>
[[nodiscard]] std::size_t in_memory(Size size) {
    return static_cast<std::size_t>(size);
}

// Throws std::system_error with text and the reason that errno gives now.
[[noreturn]] void fail_errno(const std::string& text);

// Opens the regular file at path for reading. Throws for anything else, "<path> is not a regular file"; never waits for
// a FIFO, and opens no device.
[[nodiscard]] Fd open_regular(const std::filesystem::path& path);

// Reads fd from its offset to its end, or until the text is longer than most bytes. what names it in a failure.
[[nodiscard]] std::string read_all(int fd, std::size_t most, const std::string& what);

// Writes all of text. what names the file in a failure: "cannot write <what>".
void write_all(int fd, std::string_view text, const std::string& what);

// A file without a name, in the directory for temporary files. Throws std::runtime_error with what to do.
[[nodiscard]] Fd temporary_file();

// A file in memory with this content; its offset is 0.
[[nodiscard]] Fd memory_file(const std::string& text);

// Where this process can open a file without a name.
[[nodiscard]] std::string memory_path(const Fd& file);

}  // namespace zqu::tools

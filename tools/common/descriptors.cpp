#include "descriptors.hpp"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <stdexcept>
#include <system_error>

namespace zqu::tools {

Fd::Fd(const std::filesystem::path& path, int flags) : fd_(open(path.c_str(), flags | O_CLOEXEC, 0666)) {
    if (fd_ < 0) {
        fail_errno("cannot open " + path.string());
    }
}

Fd::~Fd() {
    if (fd_ >= 0) {
        close(fd_);
    }
}

void fail_errno(const std::string& text) {
    throw std::system_error(errno, std::generic_category(), text);
}

Fd open_regular(const std::filesystem::path& path) {
    struct stat status = {};
    // Before it is opened, too: opening lets a writer of a FIFO go on, and does something to some devices.
    const bool other = stat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode);
    Fd file(other ? -1 : open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    if (!other && file.get() < 0) {
        fail_errno("cannot open " + path.string());
    }
    if (other || fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode)) {
        throw std::runtime_error(path.string() + " is not a regular file");
    }
    return file;
}

std::string read_all(int fd, std::size_t most, const std::string& what) {
    std::string text;
    std::array<char, 65536> block{};
    while (text.size() <= most) {
        const ssize_t count = read(fd, block.data(), block.size());
        if (count < 0 && errno != EINTR) {
            fail_errno("cannot read " + what);
        }
        if (count == 0) {
            break;
        }
        text.append(block.data(), static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
    }
    return text;
}

void write_all(int fd, std::string_view text, const std::string& what) {
    for (std::size_t done = 0; done < text.size();) {
        const ssize_t count = write(fd, text.data() + done, text.size() - done);
        if (count < 0 && errno != EINTR) {
            fail_errno("cannot write " + what);
        }
        done += static_cast<std::size_t>(std::max<ssize_t>(count, 0));
    }
}

Fd temporary_file() {
    std::error_code error;
    const auto directory = std::filesystem::temp_directory_path(error);
    if (error) {
        throw std::runtime_error("no directory for temporary files: " + error.message() + "; name one by TMPDIR");
    }
    std::string path = directory / "zqu.XXXXXX";
    Fd file(mkostemp(path.data(), O_CLOEXEC));
    if (file.get() < 0) {
        throw std::runtime_error("cannot create a file in " + directory.string() + ": " +
                                 std::generic_category().message(errno) + "; name another directory by TMPDIR");
    }
    unlink(path.c_str());
    return file;
}

Fd memory_file(const std::string& text) {
    Fd file(memfd_create("zqu", MFD_CLOEXEC));
    if (file.get() < 0) {
        fail_errno("cannot create a file in memory");
    }
    write_all(file.get(), text, "a file in memory");
    lseek(file.get(), 0, SEEK_SET);
    return file;
}

std::string memory_path(const Fd& file) {
    std::string path = "/proc/self/fd/" + std::to_string(file.get());
    if (access(path.c_str(), R_OK) != 0) {
        fail_errno("cannot read " + path);
    }
    return path;
}

}  // namespace zqu::tools

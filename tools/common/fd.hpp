// A file descriptor that is closed when it goes out of scope.
#pragma once

#include <unistd.h>

namespace zqu::tools {

class Fd {
public:
    explicit Fd(int fd) : fd_(fd) {}  // takes it over; a negative one is none
    ~Fd() {
        if (fd_ >= 0) {
            close(fd_);
        }
    }

    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;

    [[nodiscard]] int get() const { return fd_; }

private:
    int fd_;
};

}  // namespace zqu::tools

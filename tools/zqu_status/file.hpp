// Owns a file descriptor and closes it; -1 stands for none.
#pragma once

#include <unistd.h>

namespace zqu::status_tool {

class File {
public:
    explicit File(int descriptor) : descriptor_(descriptor) {}
    ~File() {
        if (descriptor_ >= 0) {
            close(descriptor_);
        }
    }
    File(const File&) = delete;
    File& operator=(const File&) = delete;

    [[nodiscard]] int descriptor() const { return descriptor_; }

private:
    const int descriptor_;
};

}  // namespace zqu::status_tool

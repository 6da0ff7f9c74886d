#include "lock.hpp"

#include <fcntl.h>
#include <sys/file.h>

#include <cerrno>

#include "failure.hpp"

namespace zqu::mirror_tool {

Lock::Lock(const std::filesystem::path& folder) : folder_(folder, O_RDONLY | O_DIRECTORY) {
    if (flock(folder_.get(), LOCK_EX | LOCK_NB) != 0) {
        if (errno == EWOULDBLOCK) {
            fail("another run is at work in " + folder.string());
        }
        fail_errno("cannot lock " + folder.string());
    }
}

}  // namespace zqu::mirror_tool

#include "standard_descriptors.hpp"

#include <fcntl.h>
#include <unistd.h>

namespace zqu::tools {

void hold_standard_descriptors() {
    int descriptor = 0;
    while (descriptor >= 0 && descriptor <= STDERR_FILENO) {
        descriptor = open("/dev/null", O_RDONLY);
    }
    if (descriptor >= 0) {
        close(descriptor);
    }
}

}  // namespace zqu::tools

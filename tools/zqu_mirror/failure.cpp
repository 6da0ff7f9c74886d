#include "failure.hpp"

#include <cerrno>
#include <cstdio>
#include <stdexcept>
#include <system_error>

#include "printable.hpp"

namespace zqu::mirror_tool {

void fail(const std::string& text) {
    throw std::runtime_error(text);
}

void fail_errno(const std::string& text) {
    throw std::system_error(errno, std::generic_category(), text);
}

void say(const std::string& text) {
    std::printf("%s\n", tools::printable(text).c_str());
    std::fflush(stdout);
}

void complain(const std::string& text) {
    std::fprintf(stderr, "zqu-mirror: %s\n", tools::printable(text).c_str());
}

}  // namespace zqu::mirror_tool

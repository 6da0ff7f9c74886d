#include "failure.hpp"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <stdexcept>
#include <system_error>

namespace zqu::mirror_tool {

void fail(const std::string& text) {
    throw std::runtime_error(text);
}

void fail_errno(const std::string& text) {
    throw std::system_error(errno, std::generic_category(), text);
}

std::string one_line(std::string text) {
    std::replace_if(
        text.begin(), text.end(), [](char c) { return (c >= 0 && c < ' ') || c == '\x7f'; }, '?');
    return text;
}

void complain(const std::string& text) {
    std::fprintf(stderr, "zqu-mirror: %s\n", one_line(text).c_str());
}

}  // namespace zqu::mirror_tool

// How zqu-mirror speaks. A failure is an exception whose text is the reason. Safe from any thread.
#pragma once

#include <stdexcept>
#include <string>

#include "descriptors.hpp"
#include "program.hpp"
#include "text.hpp"

namespace zqu::mirror_tool {

using tools::complain;
using tools::fail_errno;

[[noreturn]] inline void fail(const std::string& text) {
    throw std::runtime_error(text);
}

// Prints text, as text.hpp makes it printable, and a line end. Throws std::system_error when that fails.
inline void say(const std::string& text) {
    tools::print(tools::printable(text) + "\n");
}

}  // namespace zqu::mirror_tool

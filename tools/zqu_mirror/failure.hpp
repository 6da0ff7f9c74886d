// How zqu-mirror speaks. A failure is an exception whose text is the reason.
//
// Safe from any thread.
#pragma once

#include <string>

#include "descriptors.hpp"
#include "program.hpp"

namespace zqu::mirror_tool {

using tools::complain;
using tools::fail_errno;

// Throws std::runtime_error with text.
[[noreturn]] void fail(const std::string& text);

// Writes text, as text.hpp makes it printable, and a line end to standard output. Throws std::system_error when that
// fails.
void say(const std::string& text);

}  // namespace zqu::mirror_tool

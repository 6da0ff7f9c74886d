// The output of zqu-mirror: printable.hpp makes its lines, so that no text from a mirror or an archive does anything to
// a terminal. A failure is an exception whose text is the reason; main() prints it on standard error as one line.
//
// Safe from any thread.
#pragma once

#include <string>

namespace zqu::mirror_tool {

// Throws std::runtime_error with text.
[[noreturn]] void fail(const std::string& text);

// Throws std::system_error with text and the reason that errno gives now.
[[noreturn]] void fail_errno(const std::string& text);

// Writes text and a line end to standard output, at once. A failure to write is ignored.
void say(const std::string& text);

// Writes "zqu-mirror: ", text and a line end to standard error. A failure to write is ignored.
void complain(const std::string& text);

}  // namespace zqu::mirror_tool

// How zqu-mirror fails: by an exception whose text is the reason, which main() puts on standard error as one line.
//
// Safe from any thread.
#pragma once

#include <string>

namespace zqu::mirror_tool {

// Throws std::runtime_error with text.
[[noreturn]] void fail(const std::string& text);

// Throws std::system_error with text and the reason that errno gives now.
[[noreturn]] void fail_errno(const std::string& text);

// text as one line that does nothing to a terminal: control characters become question marks.
[[nodiscard]] std::string one_line(std::string text);

// Writes "zqu-mirror: ", text and a line end to standard error, by one_line(). A failure to write is ignored.
void complain(const std::string& text);

}  // namespace zqu::mirror_tool

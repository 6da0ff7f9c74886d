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

// Writes "zqu-mirror: ", text and a line end to standard error: one line whatever a path in text may hold, for control
// characters become question marks. A failure to write is ignored.
void complain(std::string text);

}  // namespace zqu::mirror_tool

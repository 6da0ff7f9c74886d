// Where a report goes, and what is said when it cannot.
//
// Safe from one thread.
#pragma once

#include <string>

namespace zqu::status_tool {

// Makes path a file of mode 0644 with this text, by rename(2) from a temporary file ".<name>.XXXXXX" in the same
// folder: a reader sees the old content or the new. A link at path is replaced. Not flushed to disk: after a power
// cut the file may be empty. Throws std::system_error, with the temporary file removed and path as it was, when
// anything fails; a process that is killed leaves the temporary file.
void replace_file(const std::string& path, const std::string& text);

// Whether standard output is a terminal that is to have colour: not with NO_COLOR set to anything, TERM unset or
// "dumb".
[[nodiscard]] bool colour_wanted();

}  // namespace zqu::status_tool

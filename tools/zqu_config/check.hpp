// The command that finds fault with a configuration file.
#pragma once

#include <string>

#include "finding.hpp"

namespace zqu::config_tool {

struct CheckOptions {
    std::string path;
    std::string user;         // whom to tell access for; empty: the default one
    bool online = false;      // ask the mirror too
    unsigned timeout_s = 30;  // for that
};

// What is to be said of the file. A file that cannot be read, or has a number that ends the daemon at its start, has no
// settings to look at: only its lines are. Throws what read_configuration(), choose_user(), check_paths() and
// check_online() throw.
[[nodiscard]] Findings check(const CheckOptions& options);

// findings as lines for people: "FILE:LINE: severity: text", without a line number "FILE: severity: text", and at the
// end how many there are.
[[nodiscard]] std::string as_text(const std::string& path, const Findings& findings);

// The same as one JSON object and a line feed. Bytes of path that are not UTF-8 become U+FFFD.
[[nodiscard]] std::string as_json(const std::string& path, const Findings& findings);

}  // namespace zqu::config_tool

// The certificates that a mirror is verified with.
#pragma once

#include <cstddef>
#include <string>

#include "finding.hpp"

namespace zqu::config_tool {

// Adds to findings what TLS would make of the PEM file at path, which is a regular one, and which line has set: that it
// cannot be used, or that a certificate in it is not valid now. Reads 16 MiB at most.
void check_certificates(const std::string& path, std::size_t line, Findings& findings);

}  // namespace zqu::config_tool

// Texts from a configuration file, a mirror or a path, made fit for a terminal or for JSON.
//
// Pure functions; they fail on lack of memory only.
#pragma once

#include <string>

namespace zqu::tools {

// text without invisible characters at either end: in UTF-8, the blank, zero-width and direction-changing ones beyond
// ASCII.
[[nodiscard]] std::string without_invisible(std::string text);

// text as UTF-8: every byte that belongs to no well-formed sequence (RFC 3629) becomes U+FFFD.
[[nodiscard]] std::string as_utf8(const std::string& text);

// text with every control byte, every byte that is not UTF-8 and every invisible character as \xNN.
[[nodiscard]] std::string printable(const std::string& text);

// printable(text) in double quotes.
[[nodiscard]] std::string quoted(const std::string& text);

// The same; of a text of more than 80 bytes the beginning, followed by "...".
[[nodiscard]] std::string excerpt(const std::string& text);

}  // namespace zqu::tools

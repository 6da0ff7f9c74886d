// Texts from a configuration file, a mirror or a path, made fit for a terminal.
//
// Pure functions; they fail on lack of memory only.
#pragma once

#include <cstddef>
#include <string>

namespace zqu::tools {

// The length in bytes of the blank, zero-width or direction-changing character beyond ASCII (in UTF-8) that text has at
// position; 0 when there is another one.
[[nodiscard]] std::size_t invisible_at(const std::string& text, std::size_t position);

// text without such characters at either end.
[[nodiscard]] std::string without_invisible(std::string text);

// Whether all of text is UTF-8.
[[nodiscard]] bool is_utf8(const std::string& text);

// text with every control byte, every byte that is not UTF-8 and every character that invisible_at() tells of as \xNN.
[[nodiscard]] std::string printable(const std::string& text);

// printable(text) in double quotes.
[[nodiscard]] std::string quoted(const std::string& text);

// The same; of a text of more than 80 bytes the beginning, followed by "...".
[[nodiscard]] std::string excerpt(const std::string& text);

}  // namespace zqu::tools

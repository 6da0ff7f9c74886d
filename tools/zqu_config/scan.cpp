#include "scan.hpp"

#include <algorithm>

#include "keys.hpp"
#include "number.hpp"

namespace zqu::config_tool {

namespace {

std::string trim(const std::string& text) {
    static const char* const blanks = " \t\n\v\f\r";  // isspace(3) in the POSIX locale, as the daemon runs
    const auto start = text.find_first_not_of(blanks);
    return start == std::string::npos ? "" : text.substr(start, text.find_last_not_of(blanks) - start + 1);
}

Line parse(std::size_t number, const std::string& raw) {
    Line line;
    line.number = number;
    line.text = trim(raw);
    const auto equals = line.text.find('=');
    if (line.text.empty()) {
        line.kind = Line::Kind::blank;
    } else if (line.text.front() == '#') {
        line.kind = Line::Kind::comment;
    } else if (equals == std::string::npos) {
        line.kind = Line::Kind::no_equals;
    } else {
        line.kind = Line::Kind::setting;
        line.key = trim(line.text.substr(0, equals));
        line.value = trim(line.text.substr(equals + 1));
    }
    return line;
}

}  // namespace

std::size_t Effective::line(const std::string& key) const {
    const auto found = set_on.find(key);
    return found == set_on.end() ? 0 : found->second;
}

std::vector<Line> scan(const std::string& text) {
    std::vector<Line> lines;
    for (std::size_t start = 0, end = 0; start < text.size(); start = end + 1) {
        end = std::min(text.find('\n', start), text.size());
        lines.push_back(parse(lines.size() + 1, text.substr(start, end - start)));
    }
    return lines;
}

Effective evaluate(const std::vector<Line>& lines) {
    Effective effective;
    for (const Line& line : lines) {
        const Key* key = line.kind == Line::Kind::setting ? find_key(line.key) : nullptr;
        if (key == nullptr) {
            continue;
        }
        if (key->text != nullptr) {
            effective.cfg.*key->text = line.value;
        } else {
            const Number number = read_number(line.value);
            if (!number.digits || number.too_large) {
                effective.fatal = line.number;
                return effective;
            }
            effective.cfg.*key->number = number.value;
        }
        effective.set_on[key->name] = line.number;
    }
    return effective;
}

}  // namespace zqu::config_tool

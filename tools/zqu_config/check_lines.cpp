#include "check_lines.hpp"

#include <map>
#include <string>

#include "keys.hpp"
#include "number.hpp"
#include "text.hpp"

namespace zqu::config_tool {

namespace {

bool is_blank(char c) {
    return c == ' ' || c == '\t';
}

bool is_control(char c) {
    return (static_cast<unsigned char>(c) < 0x20 && c != '\t') || c == '\x7f';
}

bool begins(const std::string& text, const std::string& start) {
    return text.compare(0, start.size(), start) == 0;
}

// One finding for a line, for its first control byte. Those in a comment do no harm, but for one that others may have
// taken for the end of the comment.
void check_controls(const Line& line, Findings& findings) {
    for (const char c : line.text) {
        if (c == '\r') {
            findings.warning(line.number,
                             "a carriage return in the middle ends no line: what follows belongs to this one");
            return;
        }
        if (is_control(c) && line.kind != Line::Kind::comment) {
            findings.warning(line.number,
                             "the control byte " + tools::printable(std::string(1, c)) + " is part of the line");
            return;
        }
    }
}

void check_mark(const Line& line, Findings& findings) {
    for (const std::string mark : {"\xEF\xBB\xBF", "\xFF\xFE", "\xFE\xFF"}) {
        if (begins(line.text, mark)) {
            findings.warning(line.number, "the byte order mark " + tools::printable(mark) + " is part of the line");
        }
    }
}

void check_no_equals(const Line& line, Findings& findings) {
    const std::string word = line.text.substr(0, line.text.find_first_of(" \t:"));
    if (line.text.front() == '[') {
        findings.warning(line.number, "there are no sections: " + tools::excerpt(line.text) + " is ignored");
    } else if (line.text.front() == ';') {
        findings.warning(line.number, "\";\" begins no comment; the line is ignored because it has no \"=\"");
    } else if (find_key(word) != nullptr) {
        findings.warning(line.number, word + " is not set here: the line has no \"=\", and is ignored");
    } else {
        findings.warning(line.number, "no \"=\" in " + tools::excerpt(line.text) + ": the line is ignored");
    }
}

std::string unknown(const std::string& key) {
    const std::string bare = tools::without_invisible(key);
    if (bare != key && find_key(bare) != nullptr) {
        return "; there is an invisible character beside " + bare;
    }
    if (key.front() == ';') {
        return "; \";\" begins no comment";
    }
    if (const Key* other = find_key_in_any_case(key)) {
        return std::string("; keys are case-sensitive: ") + other->name;
    }
    if (const Key* other = nearest_key(key)) {
        return std::string("; the nearest is ") + other->name;
    }
    return "";
}

void check_key(const Line& line, Findings& findings) {
    if (line.key.empty()) {
        findings.warning(line.number, "no key before the \"=\": the line is ignored");
    } else {
        findings.warning(line.number, "unknown key " + tools::excerpt(line.key) + " is ignored" + unknown(line.key));
    }
}

void check_number(const Line& line, Findings& findings) {
    const Number number = read_number(line.value);
    const std::string start = line.key + ": " + tools::excerpt(line.value);
    if (!number.digits || number.too_large) {
        const char* reason = number.digits ? " is beyond 64 bits" : " does not begin with a digit";
        findings.error(line.number, (line.value.empty() ? line.key + ": the empty value" : start) + reason +
                                        ": the daemon would end at its start");
        return;
    }
    std::string why;
    if (number.sign) {
        why += ", with a sign";
    }
    if (!number.rest.empty()) {
        why += ", " + tools::excerpt(number.rest) + " is ignored";
    }
    if (number.other) {
        why += ", only the low 32 bits are kept";
    }
    if (!why.empty()) {
        findings.warning(line.number, start + " is read as " + std::to_string(number.value) + why);
    }
}

bool has_trailing_comment(const std::string& value) {
    for (auto hash = value.find('#'); hash != std::string::npos; hash = value.find('#', hash + 1)) {
        if (hash == 0 || is_blank(value[hash - 1])) {
            return true;
        }
    }
    return false;
}

void check_text(const Line& line, Findings& findings) {
    const std::string& value = line.value;
    if (value.empty()) {
        return;
    }
    const auto part_of_it = [&](const std::string& what) {
        findings.warning(line.number, line.key + ": " + what + " of the value " + tools::excerpt(value));
    };
    const auto is_quote = [](char c) { return c == '"' || c == '\''; };
    if (has_trailing_comment(value)) {
        part_of_it("there are no trailing comments, the \"#\" is part");
    }
    if (is_quote(value.front()) || is_quote(value.back())) {
        part_of_it("the quotes are part");
    }
    if (tools::without_invisible(value) != value) {
        part_of_it("an invisible character is part");
    }
    if (value.front() == '=') {
        part_of_it("a second \"=\" is part");
    }
    if (value.front() == '~' || value.find('$') != std::string::npos) {
        part_of_it(std::string("nothing is expanded, \"") + (value.front() == '~' ? '~' : '$') + "\" is part");
    }
    if (value.back() == '\\') {
        part_of_it("lines are not joined, the \"\\\" is part");
    }
}

void check_setting(const Line& line, Findings& findings) {
    const Key* key = find_key(line.key);
    if (key == nullptr) {
        check_key(line, findings);
    } else if (key->number != nullptr) {
        check_number(line, findings);
    } else {
        check_text(line, findings);
    }
}

void check_repetition(const Line& line, std::map<std::string, std::size_t>& last, Findings& findings) {
    if (find_key(line.key) == nullptr) {
        return;
    }
    std::size_t& former = last[line.key];
    if (former != 0) {
        findings.warning(former, line.key + " is set again on line " + std::to_string(line.number) + ", which wins");
    }
    former = line.number;
}

}  // namespace

void check_lines(const std::vector<Line>& lines, Findings& findings) {
    std::map<std::string, std::size_t> last;
    for (const Line& line : lines) {
        if (line.number == 1) {
            check_mark(line, findings);
        }
        check_controls(line, findings);
        if (line.kind == Line::Kind::no_equals) {
            check_no_equals(line, findings);
        } else if (line.kind == Line::Kind::setting) {
            check_setting(line, findings);
            check_repetition(line, last, findings);
        }
    }
}

}  // namespace zqu::config_tool

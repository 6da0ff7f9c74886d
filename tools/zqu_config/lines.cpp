#include <algorithm>
#include <map>
#include <string>
#include <utility>

#include "findings.hpp"
#include "text.hpp"

namespace zqu::config_tool {

namespace {

std::string lower(std::string name) {
    std::transform(name.begin(), name.end(), name.begin(),
                   [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; });
    return name;
}

bool is_key(const std::string& name) {
    return tools::find_setting(name) != nullptr;
}

// One finding for a line, for its first control byte. Those in a comment do no harm, but for one that others may have
// taken for the end of the comment.
void check_controls(const Line& line, Findings& findings) {
    const bool comment = line.text[0] == '#';
    const auto is_control = [comment](char c) {
        return c == '\r' || (!comment && ((static_cast<unsigned char>(c) < ' ' && c != '\t') || c == '\x7f'));
    };
    const auto found = std::find_if(line.text.begin(), line.text.end(), is_control);
    if (found == line.text.end()) {
        return;
    }
    findings.warning(line.number,
                     *found == '\r'
                         ? "a carriage return in the middle ends no line: what follows belongs to this one"
                         : "the control byte " + tools::printable(std::string(1, *found)) + " is part of the line");
}

void check_mark(const Line& line, Findings& findings) {
    for (const std::string mark : {"\xEF\xBB\xBF", "\xFF\xFE", "\xFE\xFF"}) {
        if (line.text.compare(0, mark.size(), mark) == 0) {
            findings.warning(line.number, "the byte order mark " + tools::printable(mark) + " is part of the line");
        }
    }
}

void check_no_equals(const Line& line, Findings& findings) {
    const std::string word = line.text.substr(0, line.text.find_first_of(" \t:"));
    std::string text = "no \"=\" in " + tools::excerpt(line.text) + ": the line is ignored";
    if (line.text.front() == '[') {
        text = "there are no sections: " + tools::excerpt(line.text) + " is ignored";
    } else if (line.text.front() == ';') {
        text = "\";\" begins no comment; the line is ignored because it has no \"=\"";
    } else if (is_key(word)) {
        text = word + " is not set here: the line has no \"=\", and is ignored";
    }
    findings.warning(line.number, text);
}

// The key that shares most letters with name, at its start and its end; empty when more than a third of them differ.
std::string nearest_key(std::string name) {
    std::replace(name.begin(), name.end(), '-', '_');
    std::string nearest;
    std::size_t most = 0;
    for (const tools::Setting& setting : tools::settings) {
        const std::string key = setting.name;
        const auto start = std::mismatch(name.begin(), name.end(), key.begin(), key.end()).first - name.begin();
        const auto end = std::mismatch(name.rbegin(), name.rend(), key.rbegin(), key.rend()).first - name.rbegin();
        const auto same = std::min({static_cast<std::size_t>(start + end), name.size(), key.size()});
        if (same > most && 3 * same >= 2 * std::max(name.size(), key.size())) {
            nearest = key;
            most = same;
        }
    }
    return nearest;
}

std::string hint_at_key(const std::string& key) {
    const std::string bare = tools::without_invisible(key);
    if (bare != key && is_key(bare)) {
        return "; there is an invisible character beside " + bare;
    }
    if (key.front() == ';') {
        return "; \";\" begins no comment";
    }
    const std::string plain = lower(key);
    if (is_key(plain)) {
        return "; keys are case-sensitive: " + plain;
    }
    const std::string nearest = nearest_key(plain);
    return nearest.empty() ? "" : "; the nearest is " + nearest;
}

void check_unknown_key(const Line& line, Findings& findings) {
    if (line.key.empty()) {
        findings.warning(line.number, "no key before the \"=\": the line is ignored");
    } else {
        findings.warning(line.number,
                         "unknown key " + tools::excerpt(line.key) + " is ignored" + hint_at_key(line.key));
    }
}

void check_fatal(const Line& line, Findings& findings) {
    const bool digits = line.fatal == Line::Fatal::too_large;
    findings.error(line.number, line.key + ": " +
                                    (line.value.empty() ? "the empty value" : tools::excerpt(line.value)) +
                                    (digits ? " is beyond 64 bits" : " does not begin with a digit") +
                                    ": the daemon would end at its start");
}

// Explains why the daemon's number is not the text.
void check_number(const Line& line, Findings& findings) {
    const bool sign = line.value.front() == '+' || line.value.front() == '-';
    const std::string written = line.value.substr(sign ? 1 : 0);
    const std::string digits = written.substr(0, written.find_first_not_of("0123456789"));
    const std::string rest = written.substr(digits.size());
    const std::string& read = line.daemons_value;
    const auto significant = std::min(digits.find_first_not_of('0'), digits.size() - 1);
    std::string why = sign ? ", with a sign" : "";
    if (!rest.empty()) {
        why += ", " + tools::excerpt(rest) + " is ignored";
    }
    if (digits.substr(significant) != read || (line.value.front() == '-' && read != "0")) {
        why += ", only the low 32 bits are kept";
    }
    if (!why.empty()) {
        findings.warning(line.number, line.key + ": " + tools::excerpt(line.value) + " is read as " + read + why);
    }
}

bool has_trailing_comment(const std::string& value) {
    return value[0] == '#' || value.find(" #") != std::string::npos || value.find("\t#") != std::string::npos;
}

void check_text(const Line& line, Findings& findings) {
    const std::string& value = line.value;
    if (value.empty()) {
        return;
    }
    const std::string quotes = "\"'";
    const bool is_quoted =
        quotes.find(value.front()) != std::string::npos || quotes.find(value.back()) != std::string::npos;
    const bool invisible = tools::without_invisible(value) != value;
    const std::pair<bool, const char*> misunderstood[] = {
        {has_trailing_comment(value), "there are no trailing comments, the \"#\" is part"},
        {is_quoted, "the quotes are part"},
        {invisible, "an invisible character is part"},
        {value.front() == '=', "a second \"=\" is part"},
        {value.front() == '~', "nothing is expanded, \"~\" is part"},
        {value.find('$') != std::string::npos, "nothing is expanded, \"$\" is part"},
        {value.back() == '\\', "lines are not joined, the \"\\\" is part"},
    };
    for (const auto& [applies, what] : misunderstood) {
        if (applies) {
            findings.warning(line.number, line.key + ": " + what + " of the value " + tools::excerpt(value));
        }
    }
}

void check_line(const Line& line, Findings& findings) {
    if (line.number == 1) {
        check_mark(line, findings);
    }
    check_controls(line, findings);
    if (line.fatal != Line::Fatal::no) {
        check_fatal(line, findings);
    } else if (line.sets != nullptr) {
        line.sets->number != nullptr ? check_number(line, findings) : check_text(line, findings);
    } else if (line.text.find('=') == std::string::npos && line.text.front() != '#') {
        check_no_equals(line, findings);
    } else if (line.text.front() != '#') {
        check_unknown_key(line, findings);
    }
}

}  // namespace

void check_lines(const Reading& reading, Findings& findings) {
    std::map<std::string, std::size_t> last;
    for (const Line& line : reading.lines) {
        check_line(line, findings);
        if (line.sets != nullptr || line.fatal != Line::Fatal::no) {
            std::size_t& former = last[line.key];
            if (former != 0) {
                findings.warning(former,
                                 line.key + " is set again on line " + std::to_string(line.number) + ", which wins");
            }
            former = line.number;
        }
    }
}

}  // namespace zqu::config_tool

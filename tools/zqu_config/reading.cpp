#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>

#include "descriptors.hpp"
#include "findings.hpp"
#include "text.hpp"

namespace zqu::config_tool {

using namespace tools;

namespace {

std::string trim(const std::string& text) {
    static const char* const blanks = " \t\n\v\f\r";  // isspace(3) in the POSIX locale, as the daemon runs
    const auto start = text.find_first_not_of(blanks);
    return start == std::string::npos ? "" : text.substr(start, text.find_last_not_of(blanks) - start + 1);
}

Config filled(const std::string& text, std::uint32_t number) {
    Config cfg;
    for (const Setting& setting : settings) {
        if (setting.text != nullptr) {
            cfg.*setting.text = text;
        } else {
            cfg.*setting.number = number;
        }
    }
    return cfg;
}

std::vector<Line> lines_of(const std::string& text) {
    std::vector<Line> lines;
    for (std::size_t start = 0, end = 0, number = 1; start < text.size(); start = end + 1, ++number) {
        end = std::min(text.find('\n', start), text.size());
        const std::string line = trim(text.substr(start, end - start));
        const auto equals = line.find('=');
        if (!line.empty()) {
            const std::string value = trim(line.substr(std::min(equals, line.size() - 1) + 1));
            lines.push_back({number, start, line, trim(line.substr(0, equals)), value});
        }
    }
    return lines;
}

// Finds out what lines of the text do: loads them over two configurations that differ in each setting. A setting that
// is then equal in both was set by the lines. Repeats this for each half of lines that have an effect.
void learn(const std::string& text, std::vector<Line>& lines, std::size_t first, std::size_t end) {
    const std::size_t start = first < end ? lines[first].start : text.size();
    const Fd file = memory_file(text.substr(start, end < lines.size() ? lines[end].start - start : std::string::npos));
    Config a = filled("a", 0);
    Config b = filled("b", 1);
    const Fatal fatal = load_configuration(memory_path(file), a);
    static_cast<void>(load_configuration(memory_path(file), b));
    const auto is_set = [&](const Setting& setting) { return setting.of(a) == setting.of(b); };
    const auto* const set = std::find_if(settings.begin(), settings.end(), is_set);
    if (end - first > 1 && (set != settings.end() || fatal != Fatal::no)) {
        const std::size_t middle = first + (end - first) / 2;
        learn(text, lines, first, middle);
        learn(text, lines, middle, end);
    } else if (set != settings.end() || fatal != Fatal::no) {
        lines[first].fatal = fatal;
        lines[first].sets = fatal == Fatal::no ? set : nullptr;
        lines[first].daemons_value = fatal == Fatal::no ? set->of(a) : "";
    }
}

std::string kind_of(mode_t mode) {
    if (S_ISDIR(mode)) {
        return "is a directory: the daemon would use its defaults and log nothing";
    }
    return S_ISFIFO(mode) ? "is a FIFO: the daemon would wait at its start until something is written to it"
                          : "is not a regular file";
}

// Returns why text is not the whole of the file; empty when it is.
std::string read_file(const std::string& path, std::string& text) {
    struct stat status = {};
    if (stat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode)) {
        return kind_of(status.st_mode);
    }
    text = read_all(open_regular(path).get(), largest_config, path);
    return text.size() <= largest_config
               ? ""
               : "is longer than " + std::to_string(largest_config) + " bytes: it was not checked";
}

std::string lower(std::string name) {
    std::transform(name.begin(), name.end(), name.begin(),
                   [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; });
    return name;
}

// One finding for a line, for its first control byte. In a comment only a carriage return is reported: an editor may
// show what follows as a line of its own.
void check_controls(const Line& line, Findings& findings) {
    const bool comment = line.text[0] == '#';
    const auto is_control = [comment](char c) {
        return c == '\r' || (!comment && ((static_cast<unsigned char>(c) < ' ' && c != '\t') || c == '\x7f'));
    };
    const auto found = std::find_if(line.text.begin(), line.text.end(), is_control);
    if (found == line.text.end()) {
        return;
    }
    findings.add(warning, line.number,
                 *found == '\r' ? "a carriage return in the middle does not end the line: what follows is part of it"
                                : "the control byte " + printable(std::string(1, *found)) + " is part of the line");
}

void check_mark(const Line& line, Findings& findings) {
    for (const std::string mark : {"\xEF\xBB\xBF", "\xFF\xFE", "\xFE\xFF"}) {
        if (line.text.compare(0, mark.size(), mark) == 0) {
            findings.add(warning, line.number, "the byte order mark " + printable(mark) + " is part of the line");
        }
    }
}

void check_no_equals(const Line& line, Findings& findings) {
    const std::string word = line.text.substr(0, line.text.find_first_of(" \t:"));
    std::string text = "no \"=\" in " + excerpt(line.text) + ": the line is ignored";
    if (line.text.front() == '[') {
        text = "there are no sections: " + excerpt(line.text) + " is ignored";
    } else if (line.text.front() == ';') {
        text = "\";\" begins no comment; the line is ignored because it has no \"=\"";
    } else if (find_setting(word) != nullptr) {
        text = word + " is not set here: the line has no \"=\", and is ignored";
    }
    findings.add(warning, line.number, text);
}

// The key that shares most letters with name at the start and the end; empty when more than a third of them differ.
std::string nearest_key(std::string name) {
    std::replace(name.begin(), name.end(), '-', '_');
    std::string nearest;
    std::size_t most = 0;
    for (const Setting& setting : settings) {
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
    const std::string bare = without_invisible(key);
    if (bare != key && find_setting(bare) != nullptr) {
        return "; there is an invisible character beside " + bare;
    }
    if (key.front() == ';') {
        return "; \";\" begins no comment";
    }
    const std::string plain = lower(key);
    if (find_setting(plain) != nullptr) {
        return "; keys are case-sensitive: " + plain;
    }
    const std::string nearest = nearest_key(plain);
    return nearest.empty() ? "" : "; the nearest is " + nearest;
}

void check_unknown_key(const Line& line, Findings& findings) {
    if (line.key.empty()) {
        findings.add(warning, line.number, "no key before the \"=\": the line is ignored");
    } else {
        findings.add(warning, line.number, "unknown key " + excerpt(line.key) + " is ignored" + hint_at_key(line.key));
    }
}

void check_fatal(const Line& line, Findings& findings) {
    const bool digits = line.fatal == Fatal::too_large;
    findings.add(error, line.number,
                 line.key + ": " + (line.value.empty() ? "the empty value" : excerpt(line.value)) +
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
        why += ", " + excerpt(rest) + " is ignored";
    }
    if (digits.substr(significant) != read || (line.value.front() == '-' && read != "0")) {
        why += ", only the low 32 bits are kept";
    }
    if (!why.empty()) {
        findings.add(warning, line.number, line.key + ": " + excerpt(line.value) + " is read as " + read + why);
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
    const bool invisible = without_invisible(value) != value;
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
            findings.add(warning, line.number, line.key + ": " + what + " of the value " + excerpt(value));
        }
    }
}

void check_line(const Line& line, Findings& findings) {
    if (line.number == 1) {
        check_mark(line, findings);
    }
    check_controls(line, findings);
    if (line.fatal != Fatal::no) {
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

std::size_t Reading::line(const std::string& key) const {
    const auto found = set_on.find(key);
    return found == set_on.end() ? 0 : found->second;
}

Reading read_configuration(const std::string& path) {
    Reading reading;
    reading.path = path;
    std::string text;
    try {
        reading.trouble = read_file(path, text);
    } catch (const std::system_error& e) {
        reading.denied = e.code().value() == EACCES && geteuid() != 0;
        const char* then = e.code().value() == EIO ? "" : " (the daemon would use its defaults)";
        reading.trouble = reading.denied ? "cannot be read by you (user " + caller() + "): run as root"
                                         : "cannot be read: " + e.code().message() + then;
    }
    if (!reading.trouble.empty()) {
        return reading;
    }
    reading.lines = lines_of(text);
    learn(text, reading.lines, 0, reading.lines.size());
    const Fd file = memory_file(text);
    static_cast<void>(load_configuration(memory_path(file), reading.cfg));
    for (const Line& line : reading.lines) {
        if (line.fatal != Fatal::no) {
            reading.fatal = line.number;
            break;
        }
        if (line.sets != nullptr) {
            reading.set_on[line.sets->name] = line.number;
        }
    }
    return reading;
}

void check_lines(const Reading& reading, Findings& findings) {
    std::map<std::string, std::size_t> last;
    for (const Line& line : reading.lines) {
        check_line(line, findings);
        if (line.sets != nullptr || line.fatal != Fatal::no) {
            std::size_t& former = last[line.key];
            if (former != 0) {
                findings.add(warning, former,
                             line.key + " is set again on line " + std::to_string(line.number) + ", which wins");
            }
            former = line.number;
        }
    }
}

}  // namespace zqu::config_tool

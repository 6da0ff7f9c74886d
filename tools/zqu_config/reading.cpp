#include "reading.hpp"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <stdexcept>
#include <system_error>

#include "descriptors.hpp"
#include "findings.hpp"

namespace zqu::config_tool {

namespace {

std::string trim(const std::string& text) {
    static const char* const blanks = " \t\n\v\f\r";  // isspace(3) in the POSIX locale, as the daemon runs
    const auto start = text.find_first_not_of(blanks);
    return start == std::string::npos ? "" : text.substr(start, text.find_last_not_of(blanks) - start + 1);
}

Line::Fatal load(const std::string& path, zqu::Config& cfg) {
    try {
        if (!zqu::Config::load(path, cfg)) {
            tools::fail_errno("cannot open a file in memory");
        }
    } catch (const std::invalid_argument&) {
        return Line::Fatal::no_digits;
    } catch (const std::out_of_range&) {
        return Line::Fatal::too_large;
    }
    return Line::Fatal::no;
}

zqu::Config filled(const std::string& text, std::uint32_t number) {
    zqu::Config cfg;
    for (const tools::Setting& setting : tools::settings) {
        if (setting.text != nullptr) {
            cfg.*setting.text = text;
        } else {
            cfg.*setting.number = number;
        }
    }
    return cfg;
}

// Learns what each line of a text does.
class Learner {
public:
    explicit Learner(const std::string& text) : text_(text) {
        for (std::size_t start = 0, end = 0, number = 1; start < text.size(); start = end + 1, ++number) {
            end = std::min(text.find('\n', start), text.size());
            add_line(number, start, trim(text.substr(start, end - start)));
        }
        starts_.push_back(text.size());
    }

    [[nodiscard]] std::vector<Line> learn() {
        learn(0, lines_.size());
        return std::move(lines_);
    }

private:
    void add_line(std::size_t number, std::size_t start, const std::string& text) {
        if (text.empty()) {
            return;
        }
        const auto equals = std::min(text.find('='), text.size());
        const std::string key = equals < text.size() ? trim(text.substr(0, equals)) : "";
        const std::string value = equals < text.size() ? trim(text.substr(equals + 1)) : "";
        lines_.push_back({number, text, key, value});
        starts_.push_back(start);
    }

    // Loads the lines over two configurations that differ in each setting: one that is equal then was set by them. Goes
    // into the parts of lines that have an effect.
    void learn(std::size_t first, std::size_t end) {
        const tools::Fd file = tools::memory_file(text_.substr(starts_[first], starts_[end] - starts_[first]));
        const std::string path = tools::memory_path(file);
        zqu::Config a = filled("a", 0);
        zqu::Config b = filled("b", 1);
        const Line::Fatal fatal = load(path, a);
        static_cast<void>(load(path, b));
        const auto is_set = [&](const tools::Setting& setting) { return setting.of(a) == setting.of(b); };
        const auto* const set = std::find_if(tools::settings.begin(), tools::settings.end(), is_set);
        if (set == tools::settings.end() && fatal == Line::Fatal::no) {
            return;
        }
        if (end - first == 1) {
            lines_[first].fatal = fatal;
            lines_[first].sets = fatal == Line::Fatal::no ? set : nullptr;
            lines_[first].daemons_value = lines_[first].sets != nullptr ? set->of(a) : "";
            return;
        }
        const std::size_t step = (end - first + 15) / 16;
        for (std::size_t next = first; next < end; next += step) {
            learn(next, std::min(next + step, end));
        }
    }

    const std::string& text_;
    std::vector<std::size_t> starts_;  // of each line, and the end of the text
    std::vector<Line> lines_;
};

std::string kind_of(mode_t mode) {
    if (S_ISDIR(mode)) {
        return "is a directory: the daemon would go by its defaults, without a word";
    }
    return S_ISFIFO(mode) ? "is a FIFO: the daemon would wait at its start until something is written to it"
                          : "is not a regular file";
}

// Returns why text is not the whole of the file; empty when it is.
std::string read_file(const std::string& path, std::string& text) {
    struct stat status {};
    if (stat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode)) {
        return kind_of(status.st_mode);
    }
    text = tools::read_all(tools::open_regular(path).get(), tools::largest_config, path);
    return text.size() <= tools::largest_config
               ? ""
               : "is longer than " + std::to_string(tools::largest_config) + " bytes: it was not checked";
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
        const char* then = e.code().value() == EIO ? "" : " (the daemon would go by its defaults)";
        reading.trouble = reading.denied ? "cannot be read by you (user " + caller() + "): run as root"
                                         : "cannot be read: " + e.code().message() + then;
    }
    if (!reading.trouble.empty()) {
        return reading;
    }
    reading.lines = Learner(text).learn();
    const tools::Fd file = tools::memory_file(text);
    static_cast<void>(load(tools::memory_path(file), reading.cfg));
    for (const Line& line : reading.lines) {
        if (line.fatal != Line::Fatal::no) {
            reading.fatal = line.number;
            break;
        }
        if (line.sets != nullptr) {
            reading.set_on[line.sets->name] = line.number;
        }
    }
    return reading;
}

}  // namespace zqu::config_tool

// How the daemon reads a configuration file, what zqu-config finds in it, and the user that access is checked for.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <map>
#include <string>
#include <vector>

#include "config.hpp"
#include "settings.hpp"

namespace zqu::config_tool {

// A line that is not blank.
struct Line {
    std::size_t number = 0;                 // from 1
    std::size_t start = 0;                  // offset of its first byte in the file
    std::string text;                       // trimmed
    std::string key;                        // before the first "=", trimmed; for messages only
    std::string value;                      // after it, likewise
    const tools::Setting* sets = nullptr;   // what the daemon takes from this line, or null
    std::string daemons_value{};            // the value that it takes
    tools::Fatal fatal = tools::Fatal::no;  // why the line ends the daemon at its start
};

struct Reading {
    std::string path;
    std::string trouble;  // why the file cannot be read; empty when it can be
    bool denied = false;  // only this program's user may not read it
    std::vector<Line> lines;
    Config cfg;             // without a text: the defaults; with a fatal line: the settings of the lines before it
    std::size_t fatal = 0;  // the first line that ends the daemon at its start; 0: none
    std::map<std::string, std::size_t> set_on;  // key: the line that has its value

    // 0: the key has its default.
    [[nodiscard]] std::size_t line(const std::string& key) const;
};

// Reads the regular file at path. Anything else, what cannot be read to its end and what is longer than
// tools::largest_config is trouble; never waits for a FIFO or a device. Throws std::system_error when the daemon's
// reader cannot be given a file in memory.
[[nodiscard]] Reading read_configuration(const std::string& path);

// The settings, where each comes from, and what follows from them; or the trouble or the fatal line alone.
[[nodiscard]] std::string shown_as_text(const Reading& reading);
[[nodiscard]] std::string shown_as_json(const Reading& reading);

// note: worth knowing. warning: the daemon runs, but maybe not as meant. error: updates, the status file or the daemon
// itself fail.
enum class Severity { note, warning, error };
inline constexpr auto note = Severity::note;
inline constexpr auto warning = Severity::warning;
inline constexpr auto error = Severity::error;

struct LineFinding {
    Severity severity = Severity::note;
    std::size_t line = 0;  // 0: about the file as a whole, or about a default
    std::string text;      // one line, printable
};

struct Rule {
    bool applies;
    Severity severity;
    std::string text;
};

// Sorted by line, those without a line last. Those of one line keep the order in which they were added.
class Findings {
public:
    void add(Severity severity, std::size_t line, const std::string& text);

    // Adds the text of the first rule that applies, about key. Returns whether one does.
    bool first(std::size_t line, const std::string& key, const std::vector<Rule>& rules);

    [[nodiscard]] std::size_t count(Severity severity) const;

    // Lines "FILE:LINE: severity: text", without a line number "FILE: severity: text", and the counts at the end.
    [[nodiscard]] std::string as_text(const std::string& path) const;

    // One JSON object and a line feed. Bytes of path that are not UTF-8 become U+FFFD.
    [[nodiscard]] std::string as_json(const std::string& path) const;

private:
    std::vector<LineFinding> all_;
};

// The user that access is checked for. Only root can check for another user. What a service manager forbids is not
// included.
struct User {
    std::string name;
    uid_t uid = 0;
    gid_t gid = 0;
    bool is_service = false;  // the user that the daemon runs as
    std::string remark;       // why it is the caller instead; empty with is_service

    // Whether results for this user hold for the daemon. Those for root do when there is no such user.
    [[nodiscard]] bool can_ask() const { return is_service || uid == 0; }
};

// The name of the user that this program runs as.
[[nodiscard]] std::string caller();

// The user called name, else "zel-quorin"; when there is none, or only root could ask for that user, the caller. Throws
// std::invalid_argument when no user is called name.
[[nodiscard]] User choose_user(const std::string& name);

// For the mode of refusal(): the file system has a block and an inode left for the user.
inline constexpr int room_too = 8;

// 0 when user may do what mode (R_OK, W_OK, X_OK of access(2), room_too) says to path, links followed; else the errno.
// Throws std::system_error when no child process can be made.
[[nodiscard]] int refusal(const User& user, const std::string& path, int mode);

// Turns this process into one of user, with all groups of user. Throws std::runtime_error when that fails.
void become(const User& user);

// What the daemon ignores in the lines, or reads in another way than it is written.
void check_lines(const Reading& reading, Findings& findings);

// What the settings mean. Nothing on the disk is looked at.
void check_values(const Reading& reading, Findings& findings);

// Whether the libraries that the daemon uses can read the archives that mirrors serve.
void check_libraries(Findings& findings);

// Whether the paths can be used. Throws what refusal() throws.
void check_paths(const Reading& reading, const User& user, Findings& findings);

// Asks the mirror for its current release, as user, until the limit. Finds a note with the release or an error with the
// reason, and warnings about redirects and certificates. The environment's proxies are those of this process. Shows
// progress unless quiet. Throws std::system_error when no child process can be made.
void check_online(const Reading& reading, const User& user, std::chrono::seconds limit, bool quiet, Findings& findings);

// The path in a file:// URL; empty for other URLs.
[[nodiscard]] std::string local_path(const std::string& url);

}  // namespace zqu::config_tool

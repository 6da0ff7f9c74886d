// What the operators' programs have in common: start, command line, output, errors, progress, and work
// in a process of its own, which may give up rights or be killed without harm to this one.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>

namespace CLI {  // NOLINT(readability-identifier-naming): the library's own
class App;
class Option;
}  // namespace CLI

namespace zqu::tools {

// The body of main(). Opens /dev/null for each standard descriptor that the caller has closed, and ignores SIGPIPE and
// SIGXFSZ, so that writing fails instead. Returns what body returns, or gives up with failed when it throws. name is
// the program's. Run as a plugin for monitoring systems, it has the service that begins its line.
[[nodiscard]] int run_program(const char* name, int failed, const std::function<int()>& body,
                              const char* service = nullptr);

// Complains, and returns status. A plugin prints its line instead, with UNKNOWN, and the exit status is that.
[[nodiscard]] int give_up(const std::string& text, int status);

// Writes "<program>: ", text as printable() makes it, and a line end to standard error. A failure is ignored.
void complain(const std::string& text);

// Writes text to standard output at once. Throws std::system_error "cannot write to standard output".
void print(const std::string& text);

// Parses the command line. No value: go on. Otherwise the exit status: that of --help and --version, whose text is
// printed; or it gives up with wrong, and says what is wrong.
[[nodiscard]] std::optional<int> parse(CLI::App& app, int argc, char** argv, int wrong);

// Adds an option that gives a duration (parse_duration) of at least so many seconds to take(), in seconds.
CLI::Option* add_duration(CLI::App& app, const std::string& name, std::function<void(std::int64_t)> take,
                          const std::string& description, std::int64_t least = 0);

// The result of work in a process of its own.
struct ChildResult {
    std::string output;      // at most 1 MiB of what work returned
    int status = 0;          // of waitpid(2)
    bool timed_out = false;  // it was killed because the time was over
    [[nodiscard]] bool succeeded() const { return status == 0 && !timed_out; }

    // Throws std::runtime_error with the reason unless it succeeded: that of the exception, or "the process that <did>
    // was ended by signal: <name>".
    void require(const std::string& did) const;
};

// Forks a child that calls prepare and then work, and exits with 0 after it has reported what work returned. When one
// of them throws, the child reports the reason and exits with 1. The child ends when this process ends. It has a
// standard output of its own, for the report. prepare may change its user. Throws std::system_error when no child can
// be made.
[[nodiscard]] ChildResult in_child(const std::function<void()>& prepare, const std::function<std::string()>& work,
                                   std::chrono::seconds limit = std::chrono::hours(24));

// A line on standard error, if that is a terminal, about what lasts longer than a second: what it is, and how many
// megabytes are done. For one thread at a time.
class Progress {
public:
    Progress();
    ~Progress() { clear(); }
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    // Begins a phase with this text; an empty text ends it. Clears the line.
    void begin(const std::string& text);

    // Shows how far it is, five times a second at most.
    void show(std::uintmax_t bytes);

    // Clears the line, for other output.
    void clear();

private:
    const bool on_terminal_;
    bool shown_ = false;
    std::string text_;
    std::chrono::steady_clock::time_point next_{};  // when to show it
};

}  // namespace zqu::tools

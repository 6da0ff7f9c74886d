#include "program.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <sstream>
#include <utility>

#include "descriptors.hpp"
#include "text.hpp"

namespace zqu::tools {

namespace {

std::string program_name = "zqu";

// No file that is opened later gets the number of a standard descriptor, and writing there fails.
void hold_standard_descriptors() {
    int descriptor = 0;
    while (descriptor >= 0 && descriptor <= STDERR_FILENO) {
        descriptor = open("/dev/null", O_RDONLY);
    }
    if (descriptor >= 0) {
        close(descriptor);
    }
}

}  // namespace

int run_program(const char* name, int failed, const std::function<int()>& body) {
    program_name = name;
    hold_standard_descriptors();
    static_cast<void>(signal(SIGPIPE, SIG_IGN));
    static_cast<void>(signal(SIGXFSZ, SIG_IGN));
    try {
        return body();
    } catch (const std::exception& e) {
        complain(e.what());
        return failed;
    }
}

void complain(const std::string& text) {
    std::fprintf(stderr, "%s: %s\n", program_name.c_str(), printable(text).c_str());
}

void print(const std::string& text) {
    write_all(STDOUT_FILENO, text, "to standard output");
}

std::optional<int> parse(CLI::App& app, int argc, char** argv, int wrong,
                         const std::function<void(const std::string&)>& report) {
    try {
        app.parse(argc, argv);
        return std::nullopt;
    } catch (const CLI::Success& e) {
        std::ostringstream out;
        const int status = app.exit(e, out, out);
        print(out.str());
        return status;
    } catch (const CLI::ParseError& e) {
        const auto words = app.remaining();
        const bool unknown_command = !words.empty() && app.get_require_subcommand_min() > app.get_subcommands().size();
        const std::string reason = unknown_command ? "there is no command " + words.front() : e.what();
        report(reason + " (see " + program_name + " --help)");
        return wrong;
    }
}

CLI::Option* add_duration(CLI::App& app, const std::string& name, std::function<void(std::int64_t)> take,
                          const std::string& description, std::int64_t least) {
    const auto read = [take = std::move(take), name, least](const std::string& text) {
        const auto seconds = parse_duration(text);
        if (!seconds || *seconds < least) {
            throw CLI::ValidationError(name, text + (seconds ? " is too short"
                                                             : " is not a duration, such as 90, 5m, "
                                                               "2h, 1d or 1w"));
        }
        take(*seconds);
    };
    return app.add_option_function<std::string>(name, read, description)->type_name("DURATION");
}

Progress::Progress() : on_terminal_(isatty(STDERR_FILENO) == 1) {}

void Progress::begin(const std::string& text) {
    clear();
    text_ = text;
    clock_gettime(CLOCK_MONOTONIC, &begun_);
}

void Progress::show(std::uintmax_t bytes) {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    const bool long_enough = now.tv_sec - begun_.tv_sec > (now.tv_nsec < begun_.tv_nsec ? 1 : 0);
    if (on_terminal_ && !text_.empty() && long_enough) {
        const unsigned long long megabytes = bytes / 1'000'000;
        std::fprintf(stderr, "\033[K%s: %s: %llu MB\r", program_name.c_str(), printable(text_).c_str(), megabytes);
        shown_ = true;
    }
}

void Progress::clear() {
    if (shown_) {
        std::fputs("\033[K", stderr);
        shown_ = false;
    }
}

}  // namespace zqu::tools

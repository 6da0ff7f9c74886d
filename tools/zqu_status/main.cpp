// zqu-status: shows the state of the definitions and of their updater to people and to monitoring systems.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

#include "descriptors.hpp"
#include "program.hpp"
#include "report.hpp"
#include "settings.hpp"

namespace {

using namespace zqu::status_tool;
using namespace zqu::tools;

constexpr int not_known = 3;

constexpr const char* about =
    "Shows the state of the antivirus definitions and of their updater zel_quorin_updater: what is in service and "
    "since when, the result of the last check, and what has to be done.";

constexpr const char* about_more =
    "DURATION is a number of seconds, or a number and s, m, h, d or w, such as 90, 15m or 2d. As a limit, 0 means "
    "none.\n\n"
    "Exit status: 0 ok, 1 warning, 2 critical, 3 unknown, wrong command line, or the output could not be written.\n"
    "With --json and --prometheus, 0 if the output was written. The manual page has examples.\n";

struct Request {
    std::string config = default_config_path;
    std::string output;
    std::optional<std::string> unit;
    std::optional<std::uint32_t> timeout_s;
    bool json = false;
    bool nagios = false;
    bool prometheus = false;
    bool quiet = false;
    bool verify = false;
    Limits wishes = no_wishes;
};

void add_options(CLI::App& app, Request& request) {
    app.add_option("--config", request.config, "The daemon's configuration file")->capture_default_str();
    CLI::Option* json = app.add_flag("--json", request.json, "Write JSON");
    CLI::Option* nagios = app.add_flag("--nagios", request.nagios, "Write one line for Nagios and similar systems");
    CLI::Option* prometheus = app.add_flag("--prometheus", request.prometheus, "Write metrics for a node exporter");
    CLI::Option* quiet = app.add_flag("--quiet", request.quiet, "Write nothing: the exit status is the verdict");
    json->excludes(nagios)->excludes(prometheus)->excludes(quiet);
    nagios->excludes(prometheus)->excludes(quiet);
    prometheus->excludes(quiet);
    app.add_option("--output", request.output, "Replace this regular file, atomically, instead of standard output")
        ->excludes(quiet);
    app.add_option("--unit", request.unit,
                   "The daemon's systemd unit, or none (zel_quorin_updater.service; with another --config, none)");
    CLI::Option* verify =
        app.add_flag("--verify", request.verify, "Compare every byte of the definitions with the mirror's");
    const auto take_timeout = [&request](std::int64_t seconds) {
        request.timeout_s = static_cast<std::uint32_t>(std::min<std::int64_t>(seconds, UINT32_MAX));
    };
    add_duration(app, "--timeout", take_timeout, "Longest time of one transfer (http_timeout_s)", 1)->needs(verify);
    Limits& wishes = request.wishes;
    for (const auto& [name, limit, description] :
         {std::tuple("--warn-age", &wishes.definitions_age.warning, "Warn when the release is older (2d)"),
          std::tuple("--crit-age", &wishes.definitions_age.critical, "Critical when it is older (twice the warning)"),
          std::tuple("--warn-check", &wishes.check_age.warning,
                     "Warn when the last check is older (the longest that two checks can be apart)"),
          std::tuple("--crit-check", &wishes.check_age.critical, "Critical when it is older (twice the warning)")}) {
        const auto take = [threshold = limit](std::int64_t seconds) { *threshold = seconds; };
        add_duration(app, name, take, description);
    }
    app.footer(about_more);
}

std::string unit_of(const Request& request) {
    const bool packaged = request.config == default_config_path;
    const std::string unit = request.unit.value_or(packaged ? "zel_quorin_updater.service" : "none");
    return unit == "none" ? "" : unit;
}

Report report_on(const Request& request) {
    Facts facts = observe(request.config);
    facts.unit = look_at_unit(unit_of(request), facts.cfg);
    const Limits limits = limits_for(request.wishes, facts.cfg);
    if (facts.looked && request.verify) {
        zqu::Config cfg = facts.cfg;
        cfg.http_timeout_s = request.timeout_s.value_or(cfg.http_timeout_s);
        facts.comparison = compare_with_mirror(cfg, facts.store);
    }
    return judge(std::move(facts), limits, request.unit.has_value());
}

std::string variable(const char* name) {
    const char* value = std::getenv(name);
    return value == nullptr ? "" : value;
}

bool colour_wanted() {
    const std::string terminal = variable("TERM");
    return isatty(STDOUT_FILENO) == 1 && variable("NO_COLOR").empty() && !terminal.empty() && terminal != "dumb";
}

std::string render(const Report& report, const Request& request) {
    if (request.json) {
        return json_form(report);
    }
    if (request.nagios) {
        return nagios_form(report);
    }
    return request.prometheus ? prometheus_form(report) : text_form(report, request.output.empty() && colour_wanted());
}

// By rename(2), so that a reader sees the old content or the new, never a mixture. Not flushed to disk: after a power
// cut the file may be empty.
void replace_file(const std::filesystem::path& target, const std::string& text) {
    struct stat found = {};
    if (lstat(target.c_str(), &found) == 0 && !S_ISREG(found.st_mode)) {
        throw std::runtime_error("cannot replace " + target.string() + ": it is not a regular file; name another one");
    }
    std::string next = target.parent_path() / ("." + target.filename().string() + ".XXXXXX");
    const Fd file(mkostemp(next.data(), O_CLOEXEC));
    if (file.get() < 0) {
        fail_errno("cannot write " + target.string());
    }
    try {
        write_all(file.get(), text, target);
        if (fchmod(file.get(), 0644) != 0 || std::rename(next.c_str(), target.c_str()) != 0) {
            fail_errno("cannot replace " + target.string());
        }
    } catch (...) {
        unlink(next.c_str());
        throw;
    }
}

volatile std::sig_atomic_t answered = 0;
const pid_t plugin = getpid();

void end_by(int signal) {
    if (getpid() != plugin) {  // a child: its parent says how it ended
        static_cast<void>(std::signal(signal, SIG_DFL));
        static_cast<void>(raise(signal));
        return;
    }
    for (const char* part : {nagios_service, " UNKNOWN - ended by signal: ", sigdescr_np(signal), "\n"}) {
        static_cast<void>(answered == 0 && write(STDOUT_FILENO, part, std::strlen(part)) > 0);
    }
    _exit(not_known);
}

// A monitoring system accepts only the exit statuses 0 to 3. Signals that were ignored at the start stay ignored.
void answer_signals() {
    for (const int signal : {SIGTERM, SIGINT, SIGHUP}) {
        struct sigaction at_start = {};
        sigaction(signal, nullptr, &at_start);
        if (at_start.sa_handler != SIG_IGN) {
            static_cast<void>(std::signal(signal, end_by));
        }
    }
}

int carry_out(const Request& request) {
    const Report report = report_on(request);
    answered = 1;
    if (!request.output.empty()) {
        replace_file(request.output, render(report, request));
    } else if (!request.quiet) {
        print(render(report, request));
    }
    return request.json || request.prometheus ? EXIT_SUCCESS : exit_status(report.verdict);
}

int parse_and_carry_out(int argc, char** argv, bool nagios) {
    Request request;
    CLI::App app(about, "zqu-status");
    app.set_version_flag("--version", "zqu-status " ZQU_VERSION);
    add_options(app, request);
    if (const auto status = parse(app, argc, argv, not_known)) {
        return *status;
    }
    if (nagios) {
        answer_signals();
    }
    try {
        return carry_out(request);
    } catch (...) {
        answered = 1;
        throw;
    }
}

}  // namespace

int main(int argc, char** argv) {
    const bool nagios = std::find(argv, argv + argc, std::string("--nagios")) != argv + argc;
    return run_program(
        "zqu-status", not_known, [&] { return parse_and_carry_out(argc, argv, nagios); },
        nagios ? nagios_service : nullptr);
}

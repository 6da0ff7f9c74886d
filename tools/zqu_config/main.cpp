// zqu-config: tells what the daemon makes of its configuration file, and what it would ignore there without a word.
#include <sysexits.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <csignal>
#include <cstdio>
#include <exception>
#include <string>
#include <vector>

#include "check.hpp"
#include "program.hpp"
#include "reading.hpp"
#include "settings.hpp"
#include "show.hpp"

namespace {

using zqu::config_tool::CheckOptions;
using zqu::config_tool::Findings;
using zqu::config_tool::Severity;

struct Options {
    CheckOptions check;
    std::vector<std::string> shown = {zqu::tools::default_config_path};
    bool json = false;
    bool quiet = false;
};

// The exit statuses; and EX_SOFTWARE for a disagreement with the daemon's reader.
constexpr int clean = 0;
constexpr int warned = 1;
constexpr int faulty = 2;

// Carries out a command; returns the exit status.
using Command = int (*)(const Options& options);

constexpr const char* about =
    "Reads the configuration of zel_quorin_updater as the daemon does, and tells what comes of it.";

constexpr const char* about_check =
    "Prints one line for each thing that the daemon would ignore without a word, or that would keep it from its work:\n"
    "note, warning (it runs, but maybe not as meant) or error (updates, the status file or the daemon itself fail).\n"
    "Whether a path can be read or written is asked for the user zel-quorin, which takes root.\n\n"
    "Examples:\n"
    "  zqu-config check\n"
    "  zqu-config check --online --user nobody updater.conf\n\n"
    "Exit status: 0 at most notes; 1 warnings; 2 errors, not checked, or wrong command line;\n"
    "70 the daemon's own reader found other settings, a defect of this program.";

constexpr const char* about_show =
    "Prints the settings that the daemon would go by, the line that each comes from, and what follows from them.\n\n"
    "Examples:\n"
    "  zqu-config show\n"
    "  zqu-config show --json updater.conf\n\n"
    "Exit status: 0 shown; 2 a file cannot be read or ends the daemon, or wrong command line;\n"
    "70 the daemon's own reader found other settings, a defect of this program.";

using zqu::tools::complain;
using zqu::tools::print;

int check(const Options& options) {
    const Findings findings = zqu::config_tool::check(options.check);
    const std::string& path = options.check.path;
    using zqu::config_tool::as_json;
    using zqu::config_tool::as_text;
    if (!options.quiet) {
        print(options.json ? as_json(path, findings) : as_text(path, findings));
    }
    if (findings.count(Severity::error) != 0) {
        return faulty;
    }
    return findings.count(Severity::warning) != 0 ? warned : clean;
}

int show(const Options& options) {
    zqu::config_tool::Show show;
    int status = clean;
    for (const std::string& path : options.shown) {
        const auto reading = zqu::config_tool::read_configuration(path);
        const bool usable = reading.trouble.empty() && reading.effective.fatal == 0;
        std::string text = options.json ? show.as_json(reading) : show.as_text(reading);
        if (!options.json && options.shown.size() > 1) {
            text += "\n";
        }
        print(text);
        status = std::max(status, usable ? clean : faulty);
    }
    return status;
}

void add_check(CLI::App& app, Options& options, Command& chosen) {
    constexpr unsigned longest_s = 86400;
    CLI::App* command = app.add_subcommand("check", "Tell what the daemon would ignore, and what would fail");
    options.check.path = zqu::tools::default_config_path;
    command->add_option("FILE", options.check.path, "The configuration")->capture_default_str();
    command->add_option("--user", options.check.user, "Whom the daemon runs as");
    auto* online = command->add_flag("--online", options.check.online, "Ask the mirror for its current release too");
    command->add_option("--timeout", options.check.timeout_s, "Seconds that the mirror has for that")
        ->capture_default_str()
        ->check(CLI::Range(1U, longest_s))
        ->needs(online);
    auto* json = command->add_flag("--json", options.json, "Print one JSON object");
    command->add_flag("--quiet", options.quiet, "Print nothing")->excludes(json);
    command->callback([&chosen] { chosen = check; });
    command->footer(about_check);
}

void add_show(CLI::App& app, Options& options, Command& chosen) {
    CLI::App* command = app.add_subcommand("show", "Print the settings that the daemon would go by");
    command->add_option("FILE", options.shown, "The configurations")->capture_default_str();
    command->add_flag("--json", options.json, "Print one JSON object for each, on a line");
    command->callback([&chosen] { chosen = show; });
    command->footer(about_show);
}

int parse_and_carry_out(int argc, char** argv) {
    Options options;
    Command chosen = nullptr;
    CLI::App app(about, "zqu-config");
    app.set_version_flag("--version", "zqu-config " ZQU_VERSION);
    app.require_subcommand(1);
    app.footer("Each command has its own --help.");
    add_check(app, options, chosen);
    add_show(app, options, chosen);
    if (const auto status = zqu::tools::parse(app, argc, argv, faulty)) {
        return *status;
    }
    return chosen(options);
}

}  // namespace

int main(int argc, char** argv) {
    return zqu::tools::run_program("zqu-config", faulty, [&] {
        try {
            return parse_and_carry_out(argc, argv);
        } catch (const zqu::config_tool::Disagreement& e) {
            complain(e.what());
            return EX_SOFTWARE;
        }
    });
}

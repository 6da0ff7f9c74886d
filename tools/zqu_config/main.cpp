// zqu-config: shows how the daemon reads its configuration file, and finds what it would ignore or fail on.
#include <CLI/CLI.hpp>
#include <algorithm>

#include "findings.hpp"
#include "program.hpp"

namespace {

using namespace zqu::config_tool;
using namespace zqu::tools;

struct ConfigRequest {
    std::vector<std::string> paths = {default_config_path};
    std::string user;  // access is checked for this user; empty: for the default one
    bool online = false;
    std::int64_t timeout_s = 30;
    bool json = false;
    bool quiet = false;
};

// The exit statuses.
constexpr int clean = 0;
constexpr int warned = 1;
constexpr int faulty = 2;

constexpr const char* about = "Reads the configuration of zel_quorin_updater as the daemon does, and shows the result.";

constexpr const char* about_check =
    "Prints one line for each thing that the daemon would ignore silently, or that would make it fail. It is a note,\n"
    "a warning (the daemon runs, but maybe not as meant) or an error (updates, the status file or the daemon fail).\n"
    "What can be read and written is checked for the user zel-quorin, if root runs the check.\n\n"
    "Examples:\n"
    "  zqu-config check\n"
    "  zqu-config check --online --user nobody updater.conf\n\n"
    "Exit status: 0 nothing found, or only notes; 1 warnings; 2 errors, no check was made, or wrong command line.";

constexpr const char* about_show =
    "Prints the settings that the daemon would use, the line that each comes from, and what follows from them.\n\n"
    "Examples:\n"
    "  zqu-config show\n"
    "  zqu-config show --json updater.conf\n\n"
    "Exit status: 0 shown; 2 a file cannot be read or ends the daemon, or wrong command line.";

// A file that cannot be read, or ends the daemon at its start, has no settings to check.
Findings find(const ConfigRequest& request) {
    const User user = choose_user(request.user);
    const Reading reading = read_configuration(request.paths.front());
    Findings findings;
    if (reading.denied && user.can_ask()) {
        findings.add(
            error, 0,
            "user " + user.name + " may not read the file (Permission denied): the daemon would use its defaults");
    } else if (reading.denied) {
        findings.add(warning, 0, reading.trouble + "; nothing was checked");
    } else if (!reading.trouble.empty()) {
        findings.add(error, 0, reading.trouble);
    }
    if (!reading.trouble.empty()) {
        return findings;
    }
    check_lines(reading, findings);
    if (reading.fatal != 0) {
        return findings;
    }
    check_values(reading, findings);
    check_libraries(findings);
    if (!user.remark.empty()) {
        findings.add(note, 0, user.remark);
    }
    check_paths(reading, user, findings);
    if (request.online) {
        check_online(reading, user, std::chrono::seconds(request.timeout_s), request.quiet, findings);
    }
    return findings;
}

int check(const ConfigRequest& request) {
    const Findings findings = find(request);
    if (!request.quiet) {
        const std::string& path = request.paths.front();
        print(request.json ? findings.as_json(path) : findings.as_text(path));
    }
    if (findings.count(error) != 0) {
        return faulty;
    }
    return findings.count(warning) != 0 ? warned : clean;
}

int show(const ConfigRequest& request) {
    int status = clean;
    for (const std::string& path : request.paths) {
        const auto reading = read_configuration(path);
        print(request.json ? shown_as_json(reading) : shown_as_text(reading) + (request.paths.size() > 1 ? "\n" : ""));
        status = std::max(status, reading.trouble.empty() && reading.fatal == 0 ? clean : faulty);
    }
    return status;
}

CLI::App* add_check(CLI::App& app, ConfigRequest& request) {
    CLI::App* command = app.add_subcommand("check", "Find what the daemon would ignore, and what would fail");
    command->add_option("FILE", request.paths.front(), "The configuration")->capture_default_str();
    command->add_option("--user", request.user, "The user that the daemon runs as");
    auto* online = command->add_flag("--online", request.online, "Ask the mirror for its current release too");
    add_duration(
        *command, "--timeout", [&](std::int64_t seconds) { request.timeout_s = seconds; },
        "How long to wait for the mirror [30]", 1)
        ->needs(online);
    auto* json = command->add_flag("--json", request.json, "Print one JSON object");
    command->add_flag("--quiet", request.quiet, "Print nothing")->excludes(json);
    command->footer(about_check);
    return command;
}

void add_show(CLI::App& app, ConfigRequest& request) {
    CLI::App* command = app.add_subcommand("show", "Print the settings that the daemon would use");
    command->add_option("FILE", request.paths, "The configurations")->capture_default_str();
    command->add_flag("--json", request.json, "Print one JSON object for each, on a line of its own");
    command->footer(about_show);
}

int run(int argc, char** argv) {
    ConfigRequest request;
    CLI::App app(about, "zqu-config");
    app.set_version_flag("--version", "zqu-config " ZQU_VERSION);
    app.require_subcommand(1);
    app.footer("Each command has its own --help.");
    const CLI::App* checks = add_check(app, request);
    add_show(app, request);
    if (const auto status = parse(app, argc, argv, faulty)) {
        return *status;
    }
    return checks->parsed() ? check(request) : show(request);
}

}  // namespace

int main(int argc, char** argv) {
    return run_program("zqu-config", faulty, [&] { return run(argc, argv); });
}

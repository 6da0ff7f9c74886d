// zqu-status: tells how the definitions and their updater fare, to people and to monitoring systems.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "facts.hpp"
#include "findings.hpp"
#include "forms.hpp"
#include "output.hpp"
#include "program.hpp"
#include "settings.hpp"
#include "text.hpp"

namespace {

using namespace zqu::status_tool;
using namespace zqu::tools;

constexpr int could_not_tell = 3;

constexpr const char* about =
    "Tells how the antivirus definitions and their updater zel_quorin_updater fare: what is in service since when, how "
    "the last check went, and whether something has to be done.";

constexpr const char* about_more =
    "DURATION is a number of seconds, or of minutes, hours or days with m, h or d after it; 0 sets no limit.\n\n"
    "Exit status: 0 ok, 1 warning, 2 critical, 3 unknown, wrong command line, or the output could not be written.\n"
    "With --json and --prometheus, 0 whenever the output was written.\n\n"
    "Examples:\n"
    "  zqu-status\n"
    "  zqu-status --nagios --crit-age 7d\n"
    "  zqu-status --prometheus --output /var/lib/prometheus/node-exporter/zel-quorin-updater.prom\n";

struct Options {
    std::string config = zqu::tools::default_config_path;
    std::string output;
    bool json = false;
    bool nagios = false;
    bool prometheus = false;
    Wishes wishes;
};

void add_limit(CLI::App& app, const char* name, std::optional<std::int64_t>& limit, const char* description) {
    const auto take = [&limit, name](const std::string& text) {
        limit = parse_duration(text);
        if (!limit) {
            throw CLI::ValidationError(name, text + " is no duration, such as 90, 15m, 4h or 2d");
        }
    };
    app.add_option_function<std::string>(name, take, description)->type_name("DURATION");
}

void add_options(CLI::App& app, Options& options) {
    app.add_option("--config", options.config, "The daemon's configuration file")->capture_default_str();
    CLI::Option* json = app.add_flag("--json", options.json, "Write JSON");
    CLI::Option* nagios = app.add_flag("--nagios", options.nagios, "Write a line as monitoring plugins do");
    CLI::Option* prometheus = app.add_flag("--prometheus", options.prometheus, "Write metrics");
    json->excludes(nagios)->excludes(prometheus);
    nagios->excludes(prometheus);
    app.add_option("--output", options.output, "Replace this file, atomically, instead of writing to standard output");
    add_limit(app, "--warn-age", options.wishes.warn_age, "Warn when the release is older (2d)");
    add_limit(app, "--crit-age", options.wishes.crit_age, "Critical when it is older (twice the warning)");
    add_limit(app, "--warn-check", options.wishes.warn_check,
              "Warn when the last check is older (the longest that two checks can be apart by the configuration)");
    add_limit(app, "--crit-check", options.wishes.crit_check, "Critical when it is older (twice the warning)");
    app.footer(about_more);
}

Report report_on(const Options& options) {
    Report report;
    report.facts = observe(options.config);
    report.limits = limits_for(options.wishes, report.facts.cfg);
    report.findings = judge(report.facts, report.limits);
    report.verdict = verdict_of(report.findings);
    return report;
}

std::string render(const Report& report, const Options& options) {
    if (options.json) {
        return json_form(report);
    }
    if (options.nagios) {
        return nagios_form(report);
    }
    return options.prometheus ? prometheus_form(report) : text_form(report, options.output.empty() && colour_wanted());
}

int carry_out(const Options& options) {
    const Report report = report_on(options);
    const std::string text = render(report, options);
    if (options.output.empty()) {
        print(text);
    } else {
        replace_file(options.output, text);
    }
    return options.json || options.prometheus ? EXIT_SUCCESS : exit_status(report.verdict);
}

int parse_and_carry_out(int argc, char** argv) {
    Options options;
    CLI::App app(about, "zqu-status");
    app.set_version_flag("--version", "zqu-status " ZQU_VERSION);
    add_options(app, options);
    if (const auto status = zqu::tools::parse(app, argc, argv, could_not_tell)) {
        return *status;
    }
    return carry_out(options);
}

}  // namespace

int main(int argc, char** argv) {
    return zqu::tools::run_program("zqu-status", could_not_tell, [&] { return parse_and_carry_out(argc, argv); });
}

// zqu-mirror: runs a mirror of definitions, and checks one as a client would. The command line.
#include <sys/stat.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdlib>

#include "commands.hpp"
#include "options.hpp"
#include "plain.hpp"
#include "program.hpp"
#include "rollout.hpp"
#include "run.hpp"

namespace zqu::mirror_tool {

namespace {

namespace fs = std::filesystem;

// Carries out a command; returns the exit status.
using Command = int (*)(const Options& options, Run& run);

constexpr std::int64_t longest_s = 2147483;  // that libcurl can wait, in its milliseconds

template <void (*command)(const Options& options, Run& run)>
int done(const Options& options, Run& run) {
    command(options, run);
    return EXIT_SUCCESS;
}

constexpr const char* about =
    "Runs an internal mirror of antivirus definitions for zel_quorin_updater: publishes releases on it or copies them "
    "from another mirror, gives them to a part of the gateways first, lists and removes them, and checks it as a "
    "client would.";

constexpr const char* about_exit =
    "Exit status: 0 done, or a client would succeed; 1 failed, or a client would fail; 2 wrong command line;\n"
    "128 + n ended by signal n.";

void add_common(CLI::App& command, Options& options) {
    command.add_option("--flavor", options.flavor, "Definition flavor")->capture_default_str()->check(unusable_name);
    command.add_option("--subdir", options.subdir, "Directory below the mirror's root")
        ->capture_default_str()
        ->check(unusable_subdir);
}

void add_quiet(CLI::App& command, Options& options) {
    command.add_flag("--quiet", options.quiet, "Print nothing when all went well");
}

CLI::Option* add_age(CLI::App& command, const std::string& name, std::int64_t& age_s, const std::string& description,
                     std::int64_t least_s = 0) {
    static constexpr std::int64_t century_s = 3155760000;  // so that no sum in nanoseconds overflows
    return tools::add_duration(
        command, name, [&age_s](std::int64_t seconds) { age_s = std::min(seconds, century_s); }, description, least_s);
}

void add_grace(CLI::App& command, Options& options) {
    add_age(command, "--grace", options.grace_s,
            "How long a client may still ask for a release that is not current any more")
        ->default_str("1h");
}

void add_mirror_directory(CLI::App& command, Options& options, const std::string& more = "") {
    const auto no_directory = [](const std::string& mirror) {
        return std::string(mirror.empty() || is_url(mirror) ? "must be a directory" : "");
    };
    command.add_option("MIRROR", options.mirror, "Root directory of the mirror" + more)
        ->required()
        ->check(no_directory);
}

// Refuses the file name when it is that of the other file.
std::function<std::string(const std::string&)> name_is_not(const std::string& other, const std::string& own) {
    return [other, own](const std::string& path) {
        const std::string name = CLI::detail::to_lower(fs::path(path).filename());
        const bool swapped = name.find(other) != std::string::npos && name.find(own) == std::string::npos;
        return swapped ? path + " has the name of the " + other + " file: the order is ANTIVIR AIVSECON" : "";
    };
}

void add_percent(CLI::App& command, Options& options) {
    command
        .add_option("--percent", options.percent,
                    "Begin a rollout: give the release to this percentage of the gateways")
        ->check(CLI::IsMember(stages));
    command.add_flag("--replace", options.replace, "End the rollout of another release first");
}

void add_publish(CLI::App& command, Options& options) {
    add_quiet(command, options);
    command.add_option("--id", options.id, "Id of the release")->required()->check(unusable_id);
    command.add_option("--sign", options.sign, "PEM file of the Ed25519 private key that signs the release")
        ->check(CLI::ExistingFile);
    command.add_option("--format", options.format, "Format of the archive")
        ->capture_default_str()
        ->check(CLI::IsMember(suffixes));
    command.add_option("--deltas", options.deltas, "Also make deltas from the last N releases, for mirror --plain")
        ->check(CLI::Range(std::size_t{0}, most_deltas));
    add_percent(command, options);
    command.add_flag("--allow-empty", options.allow_empty, "Publish empty definition files, too");
    add_mirror_directory(command, options, "; created when missing");
    command.add_option("ANTIVIR", options.antivir, "The antivir definition file")
        ->required()
        ->check(name_is_not("aivsecon", "antivir"));
    command.add_option("AIVSECON", options.aivsecon, "The aivsecon definition file")
        ->required()
        ->check(name_is_not("antivir", "aivsecon"));
}

// How to reach a mirror over the network.
void add_client(CLI::App& command, Options& options) {
    command.add_option("--ca", options.ca, "PEM file of the certificates to trust")->check(CLI::ExistingFile);
    tools::add_duration(
        command, "--timeout",
        [&options](auto seconds) { options.timeout_s = static_cast<std::uint32_t>(std::min(seconds, longest_s)); },
        "Longest time of one transfer", 1)
        ->default_str("5m");
}

void add_trust(CLI::App& command, Options& options) {
    command
        .add_option("--trust", options.trust,
                    "PEM file of an Ed25519 public key; one of those given must have signed the release")
        ->check(CLI::ExistingFile)
        ->allow_extra_args(false);
}

void add_upstream(CLI::App& command, Options& options, const std::string& name, const std::string& description) {
    const auto no_upstream = [](const std::string& url) {
        const bool usable = url.rfind("https://", 0) == 0 || url.rfind("file://", 0) == 0;
        return usable ? std::string() : std::string("must be an https or a file URL");
    };
    command.add_option(name, options.upstream, description)->check(no_upstream);
    command
        .add_option("--upstream-subdir", options.upstream_subdir, "Directory below the upstream's root, if it differs")
        ->check(unusable_subdir);
    add_client(command, options);
    command.add_flag("--allow-http", options.allow_http, "Follow redirects from https to http");
}

void add_mirror(CLI::App& command, Options& options) {
    add_quiet(command, options);
    add_upstream(command, options, "UPSTREAM", "URL of the upstream mirror: scheme and host");
    command.get_option("UPSTREAM")->required();
    add_trust(command, options);
    add_age(command, "--max-age", options.max_age_s, "Refuse a release that was signed longer ago", 1);
    command.add_flag("--plain", options.plain, "Keep plain archives, and download deltas between them");
    command.add_flag("--verify", options.verify, "Check the digest of what is current here, not its size alone");
    command.add_flag("--force", options.force, "Take a release that is held");
    add_percent(command, options);
    add_mirror_directory(command, options, "; created when missing");
}

void add_activate(CLI::App& command, Options& options) {
    add_quiet(command, options);
    add_mirror_directory(command, options);
    command.add_option("ID", options.id, "Id of the release")->required()->check(unusable_id);
}

void add_rollout(CLI::App& command, Options& options) {
    add_quiet(command, options);
    add_mirror_directory(command, options);
    command.add_option("ACTION", options.action, "10, 50, 100 or withdraw; without it, show the rollout")
        ->check(CLI::IsMember({"10", "50", "100", "withdraw"}));
}

void add_repair(CLI::App& command, Options& options) {
    add_upstream(command, options, "--from", "URL of the upstream mirror to restore from: scheme and host");
    command.add_flag("--yes", options.yes, "Make the release current that was current before, if nothing else helps");
    add_mirror_directory(command, options);
}

void add_prune(CLI::App& command, Options& options) {
    add_quiet(command, options);
    command.add_option("--keep", options.keep, "Keep this many releases, the current one included")
        ->check(CLI::Range(1, 1000000));
    add_age(command, "--older-than", options.older_than_s, "Remove only what is older than this");
    add_grace(command, options);
    command.add_flag("--dry-run", options.dry_run, "Say what would be removed and what kept, and why; remove nothing");
    add_mirror_directory(command, options);
}

void add_list(CLI::App& command, Options& options) {
    add_grace(command, options);
    const auto choose_json = [&options] { options.form = Form::json; };
    command.add_flag_callback("--json", choose_json, "Print one JSON document");
    add_mirror_directory(command, options);
}

void add_check(CLI::App& command, Options& options) {
    const auto no_mirror = [](const std::string& mirror) {
        const std::string scheme = is_url(mirror) ? mirror.substr(0, mirror.find(':')) : "";
        const bool url = scheme == "http" || scheme == "https" || scheme == "file";
        return url || fs::is_directory(mirror) ? "" : std::string("must be a directory or an http, https or file URL");
    };
    add_client(command, options);
    auto* quiet = command.add_flag("--quiet", options.quiet, "Print warnings and FAULTs only");
    const auto add_form = [&](const std::string& name, Form form, const std::string& what) {
        const auto choose = [&options, form] { options.form = form; };
        return command.add_flag_callback(name, choose, what)->excludes(quiet);
    };
    auto* json = add_form("--json", Form::json, "Print one JSON document");
    auto* nagios = add_form("--nagios", Form::nagios, "Print one line for Nagios and the like")->excludes(json);
    auto* prometheus = add_form("--prometheus", Form::prometheus, "Print metrics for Prometheus");
    prometheus->excludes(json)->excludes(nagios);
    add_trust(command, options);
    add_age(command, "--max-age", options.max_age_s,
            "An older release is a warning, one of twice this age critical; with --trust, a FAULT at once", 1);
    tools::add_duration(
        command, "--max-rollout", [&options](auto seconds) { options.max_rollout_s = seconds; },
        "A rollout that began longer ago is a warning; for a directory", 1);
    command.add_option("MIRROR", options.mirror, "Root directory of the mirror, or its URL: scheme and host")
        ->required()
        ->check(no_mirror);
    command.callback([&options] {
        const bool judged = options.form == Form::nagios || options.form == Form::prometheus || !options.trust.empty();
        if (options.max_age_s > 0 && !judged) {
            throw CLI::RequiresError("--max-age", "--nagios, --prometheus or --trust");
        }
        if (options.max_rollout_s > 0 && is_url(options.mirror)) {
            throw CLI::RequiresError("--max-rollout", "the mirror's directory");
        }
    });
}

struct Entry {
    const char* name;
    const char* summary;
    void (*add_options)(CLI::App& command, Options& options);
    Command run;
    const char* about;  // begins with an empty line
};

const Entry entries[] = {
    {"publish", "Publish a release and make it current", add_publish, done<publish>, R"(
Writes the release and then, in one step, makes it current, or with --percent the candidate of a rollout. Clients see
the old release or the new one, whole. When anything fails, one line says why, and the mirror stays as it was. But a
run with --replace that fails may have ended the former rollout. Publishing the same content again makes that release
current again. An id never gets other content. Files in the wrong order are refused, if their names show it. A CAB
holds at most 2147450880 bytes with its index; the other formats have no such limit. zstd gives the smallest archives,
and takes minutes to pack. Gateways without Zstandard in libarchive cannot read it. --deltas is for gateways that copy
with mirror --plain: a day's changes often need a hundredth of the archive's bytes.

Examples:
  zqu-mirror publish --id 20240131.007 /srv/mirror antivir.def aivsecon.def
  zqu-mirror publish --deltas 3 --id 20240131.008 /srv/mirror antivir.def aivsecon.def
  zqu-mirror publish --sign release-key.pem --id 20240131.007 /srv/mirror antivir.def aivsecon.def
  zqu-mirror publish --flavor v3 --format zstd --id 20240131.008 /srv/mirror big.def small.def
)"},
    {"mirror", "Copy the current release of an upstream mirror", add_mirror, done<mirror>, R"(
Asks the upstream mirror for its current release. When that is not the one here, downloads it, verifies it as a client
would, and makes it current in one step, or with --percent the candidate of a rollout. Id, INI file and archive are the
upstream's, to the byte. When there is nothing new, when the release is held, and during a rollout, it succeeds and
changes nothing. When anything fails, one line says why, and the mirror stays as it was. An id never gets other content.
It fails when files of the current release are damaged: repair restores them. With --plain, it keeps a release as a
plain archive with an INI of its own, and downloads only a delta when the upstream has one from a release that is here.
A warning says why when it downloaded the whole archive.

Examples:
  zqu-mirror mirror https://definitions.zelgw.example /srv/mirror
  zqu-mirror mirror --trust release-pub.pem --max-age 2d https://definitions.zelgw.example /srv/mirror
  zqu-mirror mirror --plain --trust release-pub.pem --max-age 2d https://definitions.zelgw.example /srv/mirror
  zqu-mirror mirror --flavor v3 --ca /etc/ssl/upstream-ca.pem https://mirror.example /srv/mirror
)"},
    {"rollout", "Show or advance a rollout, or withdraw its release", add_rollout, done<rollout>, R"(
A rollout begins with publish --percent or mirror --percent: the web server then gives the new release, the candidate,
to the first 1, 10 or 50 per cent of the gateways. A greater number advances it, 100 makes the candidate current. With
withdraw, the gateways that took it go back with their next check, and it is held: mirror does not take it again.

Examples:
  zqu-mirror publish --percent 1 --id 20240131.008 /srv/mirror antivir.def aivsecon.def
  zqu-mirror rollout /srv/mirror
  zqu-mirror rollout /srv/mirror 10
  zqu-mirror rollout /srv/mirror withdraw
)"},
    {"activate", "Make a release of the mirror current again", add_activate, done<activate>, R"(
Checks a release that is on the mirror and makes it current again. The one that was current is held then: mirror
does not take it again, until it is published or activated, or mirror is run with --force.

Example:
  zqu-mirror activate /srv/mirror 20240131.007
)"},
    {"repair", "Restore what is damaged", add_repair, done<repair>, R"(
Finds INI files and archives that are missing, cut short or changed, and what killed runs have left. With --from,
restores the files from there, to the byte. When no side has the release that the hit INI names, makes the
upstream's current release current. Otherwise, with --yes only, makes the release current that was current before.
Never chooses a held release. Moves what it replaces below .zqu-mirror.replaced, which is not served.

Examples:
  zqu-mirror repair --from https://definitions.zelgw.example /srv/mirror
  zqu-mirror repair --yes /srv/mirror
)"},
    {"prune", "Remove old releases", add_prune, done<prune>, R"(
Removes the releases that neither --keep nor --older-than keeps (without these two: none), and what killed runs
have left. A release's age counts from when it was published or stopped being current. Always keeps what the hit INI
of any flavor names, and what was current within the grace, because clients may still fetch it. Removes archives that
no INI names if they have a name that publish gives; keeps and lists others. When an INI file cannot be understood,
removes nothing.

Examples:
  zqu-mirror prune --keep 5 --dry-run /srv/mirror
  zqu-mirror prune --keep 5 --older-than 30d /srv/mirror
)"},
    {"list", "List the releases on a mirror", add_list, list, R"(
Lists the releases, the current one first, then the newest. The states are: current; candidate; within the grace:
clients may still ask for it, and prune keeps it; held: mirror does not take it again; damaged; former. When something
is wrong with the mirror, lines on standard error say what, and the exit status is 1.

Examples:
  zqu-mirror list /srv/mirror
  zqu-mirror list --json /srv/mirror
)"},
    {"check", "Check what clients find on a mirror", add_check, check, R"(
Reads the mirror as the daemon does, downloads the archive of the current release below $TMPDIR (/tmp), and
prints one line per step: ok, warning (clients still succeed) or FAULT (clients fail, or cannot read the index).
A process without root's privileges reads the archive, and does not unpack it to disk. A failure of this machine,
such as too little room, is no FAULT: one line on standard error says what it is.

--nagios exits with 0 ok, 1 warning, 2 critical (a FAULT) or 3 unknown, --prometheus with 0.

Examples:
  zqu-mirror check /srv/mirror
  zqu-mirror check --ca /etc/ssl/fleet-ca.pem https://mirror.example
  zqu-mirror check --nagios --max-age 2d https://mirror.example
)"},
};

int parse_and_carry_out(int argc, char** argv) {
    constexpr int wrong_command_line = 2;
    Options options;
    CLI::App app(about, "zqu-mirror");
    app.set_version_flag("--version", "zqu-mirror " ZQU_VERSION);
    app.require_subcommand(1);
    app.footer(std::string("Each command has its own --help.\n\n") + about_exit);
    for (const Entry& entry : entries) {
        CLI::App* command = app.add_subcommand(entry.name, entry.summary);
        command->footer(std::string(entry.about + 1) + "\n" + about_exit);
        add_common(*command, options);
        entry.add_options(*command, options);
    }
    if (const auto status = tools::parse(app, argc, argv, wrong_command_line)) {
        return *status;
    }
    Run run;
    if (!is_url(options.mirror)) {
        options.mirror = fs::absolute(options.mirror);
    }
    const auto* const chosen = std::find_if(std::begin(entries), std::end(entries),
                                            [&app](const Entry& entry) { return app.got_subcommand(entry.name); });
    return chosen->run(options, run);
}

}  // namespace

}  // namespace zqu::mirror_tool

int main(int argc, char** argv) {
    umask(022);                         // the web server must be able to read it
    setenv("GIO_USE_VFS", "local", 1);  // no session bus, no helpers
    const bool plugin = std::find(argv, argv + argc, std::string("--nagios")) != argv + argc;
    using namespace zqu::mirror_tool;
    return zqu::tools::run_program(
        "zqu-mirror", EXIT_FAILURE, [&] { return parse_and_carry_out(argc, argv); }, plugin ? nagios_service : nullptr);
}

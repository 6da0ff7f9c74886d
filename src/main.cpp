// The process entry: command line, system log, settings, stop signals; then the updater runs.
#include <syslog.h>

#include <csignal>
#include <cstdio>
#include <string>

#include "config.hpp"
#include "updater.hpp"

namespace {

// Written by the signal handler only, read by the loop only.
volatile std::sig_atomic_t g_stop = 0;

void on_signal(int) {
    g_stop = 1;
}

struct CommandLine {
    std::string config_path = "/usr/local/zelgw/opt/av/quorin/etc/zel_quorin_updater.conf";
    bool once = false;
    bool help = false;
};

// Ignores unknown words, and a "--config" without a value, silently: intended.
CommandLine scan(int argc, char** argv) {
    CommandLine result;
    for (int i = 1; i < argc && !result.help; ++i) {
        const std::string word = argv[i];
        if (word == "--once") {
            result.once = true;
        } else if (word == "--config" && i + 1 < argc) {
            result.config_path = argv[++i];
        } else if (word == "--help") {
            result.help = true;
        }
    }
    return result;
}

}  // namespace

// Catches nothing: a malformed number in the configuration ends the process. Intended.
int main(int argc, char** argv) {
    const CommandLine command = scan(argc, argv);
    if (command.help) {
        std::printf("usage: %s [--config <file>] [--once]\n", argv[0]);
        return 0;
    }
    openlog("zel_quorin_updater", LOG_CONS | LOG_PID, LOG_DAEMON);
    zqu::Config cfg;
    if (!zqu::Config::load(command.config_path, cfg)) {
        syslog(LOG_WARNING, "could not read config %s; using defaults", command.config_path.c_str());
    }
    std::string reason;
    if (!cfg.validate(reason)) {
        syslog(LOG_WARNING, "config: %s", reason.c_str());
    }
    std::signal(SIGTERM, on_signal);
    std::signal(SIGINT, on_signal);

    zqu::Updater updater(cfg);
    if (command.once) {
        updater.run_once();
    } else {
        updater.run_loop(g_stop);
    }
    closelog();  // before the updater releases libcurl
    return 0;
}

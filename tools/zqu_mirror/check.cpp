#include "check.hpp"

#include <strings.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <exception>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <system_error>

#include "client.hpp"
#include "digest.hpp"
#include "failure.hpp"
#include "inspect.hpp"
#include "names.hpp"
#include "text.hpp"

namespace zqu::mirror_tool {

namespace fs = std::filesystem;
using tools::Verdict;

namespace {

void require(bool sound, const std::string& fault) {
    if (!sound) {
        throw tools::MirrorError(tools::printable(fault));  // what() ends at a zero byte
    }
}

class Check {
public:
    Check(const Options& options, Run& run)
        : options_(options), run_(run), cfg_(client_config(options)), client_(cfg_) {}

    Found all() {
        try {
            release();
        } catch (const tools::MirrorError& e) {
            report(Verdict::critical, e.what());
        }
        for (const auto& warning : client_.warnings()) {
            report(Verdict::warning, warning);
        }
        if (client_.chain_end()) {
            found_.chain_end = client_.chain_end()->epoch;
        }
        return found_;
    }

private:
    void report(Verdict verdict, const std::string& text) {
        run_.phase("");  // clears the progress, and says nothing more once a signal is ending the run
        found_.remarks.emplace_back(verdict, text);
        if (options_.form == Form::text && !(options_.quiet && verdict == Verdict::ok)) {
            const std::string word = word_of(verdict);
            say(word + std::string(9 - word.size(), ' ') + text);
        }
    }

    // Refuses what clients would take for a path, would make no URL of, or could not give the name of a file.
    static void require_name(const std::string& what, const std::string& name, const std::string& file) {
        const auto control = [](unsigned char c) { return c < 0x20 || c == 0x7F; };
        require(name.find('/') == std::string::npos && name != "." && name != "..", what + " is a path: " + name);
        require(std::none_of(name.begin(), name.end(), control), what + " makes no URL: " + name);
        require(file.size() <= NAME_MAX, what + " is too long for a file: " + name);
    }

    void release() {
        const std::string id = found_.id = client_.fetch_id();
        report(Verdict::ok, hit_name(options_.flavor) + " names " + id);
        require_name("the id", id, info_name(options_.flavor, id));
        const std::string text = client_.fetch_info_text(id);
        found_.published = client_.last_modified();
        const zqu::CompleteInfo info = client_.read_info(text, id);
        found_.archive = info.cab_name;
        report(Verdict::ok, info_name(options_.flavor, id) + " names " + info.cab_name);
        if (info.defid != id) {
            report(Verdict::warning, "def.Current.defId is another id: " + info.defid);
        }
        judge_age();
        require_name("the archive's name", info.cab_name, info.cab_name + ".part");  // as a client calls it
        archive(info, text);
    }

    void judge_age() {
        const std::string info = info_name(options_.flavor, found_.id);
        const std::int64_t age = std::max<std::int64_t>(0, std::time(nullptr) - found_.published.value_or(0));
        if (options_.max_age_s > 0 && !found_.published) {
            report(Verdict::unknown, "the server gives no Last-Modified for " + info + ": its age is unknown");
        } else if (options_.max_age_s > 0 && age > options_.max_age_s) {
            const bool critical = age > 2 * options_.max_age_s;
            report(critical ? Verdict::critical : Verdict::warning,
                   "the release " + found_.id + " is " + tools::duration_text(age) + " old, more than " +
                       tools::duration_text((critical ? 2 : 1) * options_.max_age_s));
        }
    }

    void archive(const zqu::CompleteInfo& info, const std::string& info_text) {
        const fs::path path = download(info.cab_name);
        const std::string size = std::to_string(*found_.size);
        report(Verdict::ok, info.cab_name + " can be downloaded: " + size + " bytes");
        // A size behind all others counts only where there is no other.
        if (info.size == 0 && client_.read_info(info_text + "\ndef.Current.size = 1", found_.id).size == 1) {
            report(Verdict::warning, "def.Current.size is missing");
        } else if (std::to_string(info.size) != size) {
            report(Verdict::warning, "def.Current.size is another size: " + std::to_string(info.size));
        }
        run_.phase("reading " + info.cab_name);
        const std::string digest = tools::sha256(path, [this](std::size_t bytes) { run_.advance(bytes); });
        require(digest.size() == info.sha256.size() && strcasecmp(digest.c_str(), info.sha256.c_str()) == 0,
                info.cab_name + " does not have the digest " + info.sha256);
        report(Verdict::ok, info.cab_name + " has the digest " + info.sha256);
        const auto inspection =
            tools::inspect(path, info.cab_name, options_.flavor,
                           [&](const tools::Position& position) { run_.phase("reading " + info.cab_name, position); });
        for (const auto& [word, text] : inspection.remarks) {
            report(word == "FAULT" ? Verdict::critical : word == "warning" ? Verdict::warning : Verdict::ok, text);
        }
    }

    // Where the archive is.
    fs::path download(const std::string& name) {
        fs::path path = make_temporary() / "archive";
        run_.phase("downloading " + name, path);
        try {
            client_.download(name, path);
        } catch (const std::system_error& e) {
            fail("cannot write " + path.string() + ": " + e.code().message() +
                 "; name a directory with more room by TMPDIR");
        }
        found_.size = fs::file_size(path);
        return path;
    }

    fs::path make_temporary() {
        return run_.make_scratch([] {
            std::string path = fs::absolute(fs::temp_directory_path()) / "zqu-mirror-XXXXXX";
            if (mkdtemp(path.data()) == nullptr) {
                fail("cannot create a directory like " + path + ": " + std::generic_category().message(errno) +
                     "; name another one by TMPDIR");
            }
            return fs::path(path);
        });
    }

    const Options& options_;
    Run& run_;
    const zqu::Config cfg_;
    tools::Client client_;
    Found found_;
};

}  // namespace

int check(const Options& options, Run& run) {
    Found found;
    if (options.form == Form::nagios) {
        run.on_signal([](const std::string& reason) {
            std::fputs(tools::nagios_line("MIRROR", Verdict::unknown, reason).c_str(), stdout);
            std::fflush(stdout);
            return tools::exit_status(Verdict::unknown);
        });
    }
    try {
        found = Check(options, run).all();
    } catch (const std::exception& e) {
        if (options.form != Form::prometheus) {
            throw;
        }
        found.remarks.emplace_back(Verdict::unknown, e.what());
        tools::complain(e.what());
    }
    const std::int64_t now = std::time(nullptr);
    run.phase("");
    switch (options.form) {
        case Form::text:
            break;
        case Form::json:
            tools::print(json_form(options, found));
            break;
        case Form::nagios:
            tools::print(nagios_form(options, found, now));
            return tools::exit_status(verdict(found));
        case Form::prometheus:
            tools::print(prometheus_form(options, found, now));
            return EXIT_SUCCESS;
    }
    return verdict(found) == Verdict::critical ? EXIT_FAILURE : EXIT_SUCCESS;
}

}  // namespace zqu::mirror_tool

#include <archive.h>
#include <curl/curl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <nlohmann/json.hpp>

#include "client.hpp"
#include "descriptors.hpp"
#include "findings.hpp"
#include "mirror_client.hpp"
#include "program.hpp"
#include "text.hpp"

namespace zqu::config_tool {

using namespace tools;

namespace {

// The parts of a URL as libcurl reads it for a transfer.
class Url {
public:
    explicit Url(const std::string& text, unsigned flags = CURLU_NON_SUPPORT_SCHEME | CURLU_GUESS_SCHEME)
        : url_(curl_url()), error_(curl_url_set(url_.get(), CURLUPART_URL, text.c_str(), flags)) {}

    [[nodiscard]] CURLUcode error() const { return error_; }

    // Empty when the URL has no such part.
    [[nodiscard]] std::string part(CURLUPart which, unsigned flags = 0) const {
        char* text = nullptr;
        static_cast<void>(curl_url_get(url_.get(), which, &text, flags));
        const Handle<char, curl_free> owner(text);
        return text != nullptr ? text : "";
    }

private:
    Handle<CURLU, curl_url_cleanup> url_;
    CURLUcode error_;
};

// The checks for each setting that is a part of the URLs. Returns whether libcurl accepts such a URL.
bool check_url(const std::string& key, const std::string& value, const Url& url, std::size_t line, Findings& findings) {
    const std::string refused = "libcurl refuses the URL (" + std::string(curl_url_strerror(url.error())) + ")";
    const bool spelling = url.error() == CURLUE_BAD_PATH || url.error() == CURLUE_MALFORMED_INPUT;
    const bool blank = spelling && value.find(' ') != std::string::npos;
    const char* of_file = url.error() == CURLUE_BAD_FILE_URL ? "; write file:///DIRECTORY" : "";
    const char* hint = blank ? "; write %20 for a blank" : of_file;
    const bool fails = findings.first(
        line, key,
        {{value.find('\0') != std::string::npos, error, "the URLs end at the byte \\x00: every check fails"},
         {url.error() == CURLUE_NO_HOST, error, "no host: every check fails"},
         {url.error() != CURLUE_OK, error, refused + ": every check fails" + hint}});
    const std::string path = url.part(CURLUPART_PATH);
    const bool ascii = std::all_of(path.begin(), path.end(), [](unsigned char c) { return c < 0x80; });
    for (const Rule& rule :
         {Rule{!url.part(CURLUPART_QUERY).empty(), warning, "what comes after the \"?\" is not part of the path"},
          Rule{!url.part(CURLUPART_FRAGMENT).empty(), warning, "what comes after the \"#\" is not part of the path"},
          Rule{!ascii, warning, "bytes beyond ASCII go into the URLs as they are"}}) {
        findings.first(line, key, {{!fails && rule.applies, rule.severity, "nothing is encoded; " + rule.text}});
    }
    return !fails;
}

void check_scheme(std::size_t line, const std::string& base, const std::string& scheme, Findings& findings) {
    const bool guessed = Url(base, CURLU_NON_SUPPORT_SCHEME).error() != CURLUE_OK;
    const bool known = Url(base, CURLU_GUESS_SCHEME).error() != CURLUE_UNSUPPORTED_SCHEME;
    findings.first(line, "mirror_base_url",
                   {{guessed, warning, "no scheme: libcurl guesses " + scheme},
                    {!known, error, "libcurl knows no scheme " + quoted(scheme) + ": every check fails"},
                    {scheme == "http", warning, "over http anybody on the way can replace definitions and digests"},
                    {scheme == "file", note, "the mirror is a directory of this machine"},
                    {scheme != "https", warning, "the scheme is none of https, http and file"}});
}

void check_host_and_path(std::size_t line, const std::string& value, const Url& url, Findings& findings) {
    const std::string key = "mirror_base_url";
    const std::string host = url.part(CURLUPART_HOST, CURLU_URLDECODE);
    findings.first(line, key,
                   {{host.find('%') != std::string::npos, error,
                     "no host can have the name " + quoted(host) + ": every check fails"},
                    {url.part(CURLUPART_PORT) == "0", error, "nothing answers at port 0: every check fails"}});
    findings.first(line, key,
                   {{value.find(":///") != std::string::npos, warning,
                     "libcurl takes " + quoted(url.part(CURLUPART_HOST)) + " for the host"}});
    findings.first(
        line, key,
        {{!url.part(CURLUPART_USER).empty(), warning, "the log shows the URL with its user name and password"}});
    findings.first(line, key,
                   {{url.part(CURLUPART_PATH) != "/", warning, "has a path; it comes before that of mirror_subdir"},
                    {value.back() == '/', note, "slashes at the end are left out"}});
}

void check_base_url(const Reading& reading, Findings& findings) {
    const std::string& value = reading.cfg.mirror_base_url;
    const std::size_t line = reading.line("mirror_base_url");
    if (value.empty()) {
        findings.add(error, line, "mirror_base_url: empty: every check fails");
        return;
    }
    if (line == 0) {
        findings.add(warning, 0, "mirror_base_url: not set: the daemon asks the default, " + value + "; set it");
    }
    // What the daemon puts before a path. With a path behind it, libcurl would use the path's first part as the host.
    const std::string base = value.substr(0, value.find_last_not_of('/') + 1) + "/";
    const Url url(base);
    if (check_url("mirror_base_url", value, url, line, findings)) {
        const std::string scheme = url.part(CURLUPART_SCHEME);
        check_scheme(line, base, scheme, findings);
        if (scheme != "file") {
            check_host_and_path(line, value, url, findings);
        }
    }
}

// The setting alone, in the URL of the hit INI.
void check_in_path(const Reading& reading, const char* key, Member<std::string> member, Findings& findings) {
    Config cfg;
    cfg.*member = reading.cfg.*member;
    const Url url(MirrorClient(cfg).hit_ini_url());
    static_cast<void>(check_url(key, cfg.*member, url, reading.line(key), findings));
}

void check_subdir(const Reading& reading, Findings& findings) {
    const std::string& subdir = reading.cfg.mirror_subdir;
    const bool none = subdir.find_first_not_of('/') == std::string::npos;
    const bool slashes = !none && (subdir.front() == '/' || subdir.back() == '/');
    findings.first(reading.line("mirror_subdir"), "mirror_subdir",
                   {{none, warning, "empty: the URLs have a \"//\" before the file name"},
                    {slashes, note, "slashes at either end are left out"}});
    check_in_path(reading, "mirror_subdir", &Config::mirror_subdir, findings);
}

void check_flavor(const Reading& reading, Findings& findings) {
    const std::string& flavor = reading.cfg.flavor;
    const std::size_t line = reading.line("flavor");
    findings.first(line, "flavor",
                   {{flavor.empty(), warning, "empty: it is missing from the names of all files"},
                    {flavor.find('/') != std::string::npos, error,
                     "with a \"/\" the file names become paths: every update fails"}});
    check_in_path(reading, "flavor", &Config::flavor, findings);
}

// The status file escapes five characters only.
void check_engine_version(const Reading& reading, Findings& findings) {
    const std::string& version = reading.cfg.engine_version;
    const auto raw = [](char c) { return static_cast<unsigned char>(c) < 0x20 && c != '\t' && c != '\r'; };
    if (std::any_of(version.begin(), version.end(), raw) || as_utf8(version) != version) {
        findings.add(warning, reading.line("engine_version"), "engine_version: the status file will not be valid JSON");
    }
}

void check_interval(const Reading& reading, Findings& findings) {
    const std::uint32_t interval = reading.cfg.poll_interval_s;
    const std::uint32_t jitter = reading.cfg.poll_jitter_s;
    // The longest jitter is one second less than poll_jitter_s; the sum keeps its low 32 bits.
    const std::uint32_t longest = jitter == 0 ? 0 : jitter - 1;
    const bool wraps = interval + longest < interval;
    // The line of the number that is too large.
    const std::size_t line = reading.line(wraps && longest > interval ? "poll_jitter_s" : "poll_interval_s");
    const std::string without = "0: checks follow each other without a pause";
    findings.first(line, "poll_interval_s",
                   {{wraps, warning,
                     "with the jitter of up to " + std::to_string(longest) +
                         " s the wait wraps around at 2^32 s, and may be none"},
                    {interval == 0, warning, without + (longest > 0 ? " except the jitter" : "")},
                    {interval < 60, warning, "the mirror is asked every " + std::to_string(interval) + " s"},
                    {interval > 7 * 86400, warning, "checks are " + std::to_string(interval / 86400) + " days apart"}});
    findings.first(reading.line("poll_jitter_s"), "poll_jitter_s",
                   {{longest == 0, note, "gateways that start together ask the mirror together"}});
}

void check_retained(const Reading& reading, Findings& findings) {
    constexpr std::uint32_t wrapping = 2147483648;
    const std::uint32_t retained = reading.cfg.retained_snapshots;
    findings.first(reading.line("retained_snapshots"), "retained_snapshots",
                   {{retained > wrapping, warning,
                     "too large: with fewer than " + std::to_string(retained - wrapping) +
                         " snapshots, all but the one in service are removed"},
                    {retained == 0, warning, "0: only the one in service is kept, as with 1"},
                    {retained == 1, note, "1: only the one in service is kept"}});
}

void check_timeout(const Reading& reading, Findings& findings) {
    constexpr std::uint32_t largest = 2147483;  // a signed 32-bit number of milliseconds
    const std::uint32_t timeout = reading.cfg.http_timeout_s;
    const std::string none = ": no time-out, a stalled mirror stalls the daemon";
    findings.first(reading.line("http_timeout_s"), "http_timeout_s",
                   {{timeout == 0, warning, "0" + none},
                    {timeout > largest, warning, "above " + std::to_string(largest) + none},
                    {timeout < 30, warning, "a whole archive has to arrive within " + std::to_string(timeout) + " s"}});
}

// Shortens and cleans a text of a mirror.
std::string line_of(const std::string& text) {
    return printable(text.substr(0, 4096));
}

// The child's part: a JSON object with the release or the failure, and the warnings.
std::string ask(const Config& cfg, Progress& progress) {
    Client client(cfg);
    client.on_progress([&progress](std::uintmax_t bytes) { progress.show(bytes); });
    nlohmann::json answer;
    try {
        const std::string id = client.fetch_id();
        const CompleteInfo info = client.fetch_info(id);
        answer["release"] = "release " + excerpt(id) + ", archive " + excerpt(info.cab_name);
    } catch (const MirrorError& e) {
        answer["failure"] = line_of(e.what());
    }
    answer["warnings"] = nlohmann::json::array();
    for (const std::string& text : client.warnings()) {
        answer["warnings"].push_back(line_of(text));
    }
    return answer.dump();
}

// Whether the caller, who asks the mirror instead of the daemon's user, may read the files that the transfer needs.
bool may_ask(const Config& cfg, const User& user, Findings& findings) {
    for (const std::string& path : {cfg.ca_path, local_path(MirrorClient(cfg).hit_ini_url())}) {
        if (!user.can_ask() && !path.empty() && access(path.c_str(), R_OK) != 0 && errno == EACCES) {
            findings.add(warning, 0,
                         "the mirror was not asked: " + quoted(path) + " cannot be read by you (user " + user.name +
                             "): run as root");
            return false;
        }
    }
    return true;
}

}  // namespace

std::string local_path(const std::string& url) {
    const Url parsed(url);
    return parsed.part(CURLUPART_SCHEME) == "file" ? parsed.part(CURLUPART_PATH, CURLU_URLDECODE) : "";
}

void check_values(const Reading& reading, Findings& findings) {
    check_base_url(reading, findings);
    check_subdir(reading, findings);
    check_flavor(reading, findings);
    check_engine_version(reading, findings);
    check_interval(reading, findings);
    check_retained(reading, findings);
    check_timeout(reading, findings);
}

void check_libraries(Findings& findings) {
    const Handle<archive, archive_read_free> reader(archive_read_new());
    if (archive_read_support_filter_zstd(reader.get()) != ARCHIVE_OK) {  // it would look for a zstd(1) to run
        findings.add(warning, 0,
                     "this machine's libarchive has no Zstandard: updates fail if the mirror has .zst archives");
    }
}

void check_online(const Reading& reading, const User& user, std::chrono::seconds limit, bool quiet,
                  Findings& findings) {
    if (!may_ask(reading.cfg, user, findings)) {
        return;
    }
    Progress progress;
    progress.begin(quiet ? "" : "asking the mirror");
    const auto child = in_child([&] { become(user); }, [&] { return ask(reading.cfg, progress); }, limit);
    progress.show(0);  // with this, clear() also clears what a child that was killed has shown
    progress.clear();
    if (child.timed_out) {
        findings.add(error, 0, "the mirror has not answered within " + duration_text(limit.count()));
        return;
    }
    if (!child.succeeded()) {
        findings.add(error, 0, "the mirror was not asked: " + printable(child.output));
        return;
    }
    const auto answer = nlohmann::json::parse(child.output);
    if (answer.contains("release")) {
        findings.add(note, 0, "the mirror answers: " + answer["release"].get<std::string>());
    } else {
        findings.add(error, 0, "the mirror does not serve a release: " + answer["failure"].get<std::string>());
    }
    for (const auto& text : answer["warnings"]) {
        findings.add(warning, 0, text.get<std::string>());
    }
}

}  // namespace zqu::config_tool

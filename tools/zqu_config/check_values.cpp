#include "check_values.hpp"

#include <algorithm>
#include <cctype>
#include <string>

#include "text.hpp"

namespace zqu::config_tool {

namespace {

std::string lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

// What libcurl refuses anywhere in a URL; it encodes nothing.
bool is_refused(char c) {
    return static_cast<unsigned char>(c) <= ' ' || c == '\x7f';
}

void check_url_part(const Effective& effective, const std::string& key, const std::string& value, Findings& findings) {
    const std::size_t line = effective.line(key);
    if (value.find('\0') != std::string::npos) {
        findings.error(line, key + ": the URLs end at the byte \\x00: every check fails");
    } else if (std::any_of(value.begin(), value.end(), is_refused)) {
        findings.error(line, key + ": libcurl refuses a URL with a blank or a control byte: every check fails");
    }
    const auto special = value.find_first_of("?#");
    if (special != std::string::npos) {
        findings.warning(line, key + ": nothing is encoded; what comes after the \"" + value[special] +
                                   "\" is no path on the mirror");
    }
    if (std::any_of(value.begin(), value.end(), [](unsigned char c) { return c >= 0x80; })) {
        findings.warning(line, key + ": nothing is encoded; bytes beyond ASCII go into the URLs as they are");
    }
}

void check_scheme(std::size_t line, const std::string& scheme, Findings& findings) {
    if (scheme == "http") {
        findings.warning(line, "mirror_base_url: over http anybody on the way can replace definitions and digests");
    } else if (scheme == "file") {
        findings.note(line, "mirror_base_url: the mirror is a folder of this machine");
    } else if (scheme != "https") {
        findings.warning(line, "mirror_base_url: the scheme is none of https, http and file");
    }
}

// The part between scheme and path.
void check_authority(std::size_t line, const std::string& scheme, const std::string& authority, Findings& findings) {
    if (authority.find('@') != std::string::npos) {
        findings.warning(line, "mirror_base_url: the log shows the URL with its user name and password");
    }
    if (scheme == "file") {
        if (!authority.empty() && authority != "localhost" && authority != "127.0.0.1") {
            findings.error(line, "mirror_base_url: three slashes begin the URL of a folder: file:///...");
        }
    } else if (authority.empty()) {
        findings.error(line, "mirror_base_url: no host: every check fails");
    }
}

void check_base_url(const Effective& effective, Findings& findings) {
    const std::string& url = effective.cfg.mirror_base_url;
    const std::size_t line = effective.line("mirror_base_url");
    if (url.empty()) {
        findings.error(line, "mirror_base_url: empty: every check fails");
        return;
    }
    if (line == 0) {
        findings.note(0, "mirror_base_url: not set: the default is asked, " + url);
    }
    check_url_part(effective, "mirror_base_url", url, findings);
    const auto colon = url.find("://");
    if (colon == std::string::npos) {
        findings.warning(line, "mirror_base_url: no scheme: libcurl guesses one, mostly http");
        return;
    }
    const std::string scheme = lower(url.substr(0, colon));
    check_scheme(line, scheme, findings);
    const auto path = std::min(url.find_first_of("/?#", colon + 3), url.size());
    check_authority(line, scheme, url.substr(colon + 3, path - colon - 3), findings);
    if (url.find_first_not_of('/', path) != std::string::npos && scheme != "file" && url[path] == '/') {
        findings.warning(line, "mirror_base_url: has a path; it comes before that of mirror_subdir");
    } else if (url.back() == '/' && path < url.size()) {
        findings.note(line, "mirror_base_url: slashes at the end are left out");
    }
}

void check_subdir(const Effective& effective, Findings& findings) {
    const std::string& subdir = effective.cfg.mirror_subdir;
    const std::size_t line = effective.line("mirror_subdir");
    if (subdir.find_first_not_of('/') == std::string::npos) {
        findings.warning(line, "mirror_subdir: empty: the URLs have a \"//\" before the file name");
        return;
    }
    if (subdir.front() == '/' || subdir.back() == '/') {
        findings.note(line, "mirror_subdir: slashes at either end are left out");
    }
    check_url_part(effective, "mirror_subdir", subdir, findings);
}

void check_flavor(const Effective& effective, Findings& findings) {
    const std::string& flavor = effective.cfg.flavor;
    const std::size_t line = effective.line("flavor");
    if (flavor.empty()) {
        findings.warning(line, "flavor: empty: the names of all files have nothing in its place");
    }
    if (flavor.find('/') != std::string::npos) {
        findings.error(line, "flavor: a \"/\" makes paths of the files' names: every update fails");
    }
    check_url_part(effective, "flavor", flavor, findings);
}

// The status file escapes five characters only.
void check_engine_version(const Effective& effective, Findings& findings) {
    const std::string& version = effective.cfg.engine_version;
    const auto raw = [](char c) { return static_cast<unsigned char>(c) < 0x20 && c != '\t' && c != '\r'; };
    if (std::any_of(version.begin(), version.end(), raw) || tools::as_utf8(version) != version) {
        findings.warning(effective.line("engine_version"), "engine_version: the status file will be no valid JSON");
    }
}

void check_interval(const Effective& effective, Findings& findings) {
    constexpr std::uint32_t shortest = 60;
    constexpr std::uint32_t longest = 7 * 86400;
    const std::uint32_t interval = effective.cfg.poll_interval_s;
    const std::uint32_t jitter = effective.cfg.poll_jitter_s;
    const std::size_t line = std::max(effective.line("poll_interval_s"), effective.line("poll_jitter_s"));
    const std::string value = std::to_string(interval);
    // The longest jitter is one second less than poll_jitter_s; the sum keeps its low 32 bits.
    if (jitter != 0 && interval + (jitter - 1) < interval) {
        findings.warning(line, "poll_interval_s: with the jitter of up to " + std::to_string(jitter - 1) +
                                   " s the wait wraps around at 2^32 s, and may be none");
    } else if (interval == 0) {
        findings.warning(line, jitter > 1
                                   ? "poll_interval_s: 0: checks follow each other without a pause but the jitter"
                                   : "poll_interval_s: 0: checks follow each other without a pause");
    } else if (interval < shortest) {
        findings.warning(line, "poll_interval_s: the mirror is asked every " + value + " s");
    } else if (interval > longest) {
        findings.warning(line, "poll_interval_s: checks are " + std::to_string(interval / 86400) + " days apart");
    }
    if (jitter <= 1) {
        findings.note(line, "poll_jitter_s: gateways that start together ask the mirror together");
    }
}

void check_retained(const Effective& effective, Findings& findings) {
    constexpr std::uint32_t wrapping = 2147483648;
    const std::uint32_t retained = effective.cfg.retained_snapshots;
    const std::size_t line = effective.line("retained_snapshots");
    if (retained > wrapping) {
        findings.warning(line, "retained_snapshots: wraps around unless there are " +
                                   std::to_string(retained - wrapping) +
                                   " snapshots: all but the one in service are removed");
    } else if (retained == 0) {
        findings.warning(line, "retained_snapshots: 0: only the one in service is kept, as with 1");
    } else if (retained == 1) {
        findings.note(line, "retained_snapshots: 1: only the one in service is kept");
    }
}

void check_timeout(const Effective& effective, Findings& findings) {
    constexpr std::uint32_t largest = 2147483;  // a signed 32-bit number of milliseconds
    constexpr std::uint32_t shortest = 30;
    const std::uint32_t timeout = effective.cfg.http_timeout_s;
    const std::size_t line = effective.line("http_timeout_s");
    if (timeout == 0 || timeout > largest) {
        const std::string why = timeout == 0 ? "0" : "above " + std::to_string(largest);
        findings.warning(line, "http_timeout_s: " + why + ": no time-out, a stalled mirror stalls the daemon");
    } else if (timeout < shortest) {
        findings.warning(line,
                         "http_timeout_s: a whole archive has to arrive within " + std::to_string(timeout) + " s");
    }
}

}  // namespace

void check_values(const Effective& effective, Findings& findings) {
    check_base_url(effective, findings);
    check_subdir(effective, findings);
    check_flavor(effective, findings);
    check_engine_version(effective, findings);
    check_interval(effective, findings);
    check_retained(effective, findings);
    check_timeout(effective, findings);
}

}  // namespace zqu::config_tool

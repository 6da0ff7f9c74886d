#include "mirror_client.hpp"

#include <curl/curl.h>
#include <syslog.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <memory>
#include <stdexcept>

namespace zqu {
namespace {

struct CloseFile {
    // The result of fclose is not checked: a file cut short fails its digest check.
    void operator()(std::FILE* file) const { static_cast<void>(std::fclose(file)); }
};
using File = std::unique_ptr<std::FILE, CloseFile>;

using WriteCallback = std::size_t (*)(char*, std::size_t, std::size_t, void*);

std::string trim(const std::string& s) {
    const auto space = [](char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; };
    std::size_t start = 0;
    while (start < s.size() && space(s[start])) {
        ++start;
    }
    std::size_t end = s.size();
    while (end > start && space(s[end - 1])) {
        --end;
    }
    return s.substr(start, end - start);
}

bool iequals(const std::string& a, const std::string& b) {
    if (a.size() != b.size()) {
        return false;
    }
    for (std::size_t i = 0; i < a.size(); ++i) {
        if (std::tolower(static_cast<unsigned char>(a[i])) != std::tolower(static_cast<unsigned char>(b[i]))) {
            return false;
        }
    }
    return true;
}

// The value of the first line with that key, in any section: intended.
std::optional<std::string> ini_lookup(const std::string& text, const std::string& key) {
    for (std::size_t start = 0, end = 0; start < text.size(); start = end + 1) {
        end = std::min(text.find('\n', start), text.size());
        const std::string line = trim(text.substr(start, end - start));
        if (line.empty() || line.front() == ';' || line.front() == '#' || line.front() == '[') {
            continue;
        }
        const auto equals = line.find('=');
        if (equals != std::string::npos && iequals(trim(line.substr(0, equals)), key)) {
            return trim(line.substr(equals + 1));
        }
    }
    return std::nullopt;
}

std::optional<std::string> parse_hit_defid(const std::string& text) {
    auto defid = ini_lookup(text, "defId");
    if (defid && !defid->empty()) {
        return defid;
    }
    syslog(LOG_ERR, "parse_hit_defid: no [Current] defId");
    return std::nullopt;
}

// A size that is no number counts as absent: the size is never enforced.
std::int64_t parse_size(const std::string& value) {
    try {
        if constexpr (sizeof(long) == sizeof(std::int64_t)) {
            return std::stol(value);
        } else {
            return std::stoll(value);
        }
    } catch (const std::logic_error&) {  // invalid_argument and out_of_range alike
        return 0;
    }
}

std::optional<CompleteInfo> parse_complete_info(const std::string& text) {
    CompleteInfo info;
    info.cab_name = ini_lookup(text, "def.Current.name").value_or("");
    info.sha256 = ini_lookup(text, "def.Current.SHA256").value_or("");
    info.defid = ini_lookup(text, "def.Current.defId").value_or("");
    if (const auto size = ini_lookup(text, "def.Current.size")) {
        info.size = parse_size(*size);
    }
    if (!info.cab_name.empty() && !info.sha256.empty()) {
        return info;
    }
    syslog(LOG_ERR, "parse_complete_info: missing def.Current.name/SHA256");
    return std::nullopt;
}

// The write callbacks, see CURLOPT_WRITEFUNCTION(3): a count below size * count makes libcurl abort the transfer.
std::size_t write_to_file(char* data, std::size_t size, std::size_t count, void* file) {
    return std::fwrite(data, size, count, static_cast<std::FILE*>(file)) * size;
}

std::size_t write_to_string(char* data, std::size_t size, std::size_t count, void* string) {
    static_cast<std::string*>(string)->append(data, size * count);
    return size * count;
}

CURLcode transfer(CURL* curl, const Config& cfg, const std::string& url, WriteCallback write, void* target) {
    curl_easy_reset(curl);
    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, write);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, target);
    curl_easy_setopt(curl, CURLOPT_TIMEOUT, static_cast<long>(cfg.http_timeout_s));
    curl_easy_setopt(curl, CURLOPT_FAILONERROR, 1L);
    curl_easy_setopt(curl, CURLOPT_FOLLOWLOCATION, 1L);
    curl_easy_setopt(curl, CURLOPT_SSL_VERIFYPEER, 1L);
    curl_easy_setopt(curl, CURLOPT_SSL_VERIFYHOST, 2L);
    if (!cfg.ca_path.empty()) {
        curl_easy_setopt(curl, CURLOPT_CAINFO, cfg.ca_path.c_str());
    }
    return curl_easy_perform(curl);
}

}  // namespace

MirrorClient::MirrorClient(const Config& cfg) : cfg_(cfg) {
    curl_global_init(CURL_GLOBAL_ALL);
    curl_ = curl_easy_init();
}

MirrorClient::~MirrorClient() {
    if (curl_ != nullptr) {
        curl_easy_cleanup(curl_);
    }
    curl_global_cleanup();
}

std::string MirrorClient::file_url(const std::string& name) const {
    std::string base = cfg_.mirror_base_url;
    base.erase(base.find_last_not_of('/') + 1);
    std::string subdir = cfg_.mirror_subdir;
    subdir.erase(0, subdir.find_first_not_of('/'));
    subdir.erase(subdir.find_last_not_of('/') + 1);
    return base + "/" + subdir + "/" + name;
}

std::string MirrorClient::hit_ini_url() const {
    return file_url("antivir-" + cfg_.flavor + "-hit.ini");
}

std::string MirrorClient::complete_ini_url(const std::string& defid) const {
    return file_url("antivir-" + cfg_.flavor + "-c-" + defid + ".ini");
}

bool MirrorClient::http_get_string(const std::string& url, std::string& body) {
    if (curl_ == nullptr) {
        return false;
    }
    body.clear();
    const CURLcode result = transfer(curl_, cfg_, url, write_to_string, &body);
    if (result == CURLE_OK) {
        return true;
    }
    syslog(LOG_ERR, "GET %s: %s", url.c_str(), curl_easy_strerror(result));
    return false;
}

bool MirrorClient::download_cab(const std::string& name, const std::string& dest) {
    if (curl_ == nullptr) {
        return false;
    }
    const std::string url = file_url(name);
    const std::string part = dest + ".part";
    File file(std::fopen(part.c_str(), "wb"));
    if (!file) {
        syslog(LOG_ERR, "download_cab: cannot create %s", part.c_str());
        return false;
    }
    const CURLcode result = transfer(curl_, cfg_, url, write_to_file, file.get());
    file.reset();
    if (result != CURLE_OK) {
        syslog(LOG_ERR, "download_cab %s: %s", url.c_str(), curl_easy_strerror(result));
        static_cast<void>(std::remove(part.c_str()));
        return false;
    }
    // When this fails the partial file stays, and nothing is logged: intended.
    return std::rename(part.c_str(), dest.c_str()) == 0;
}

std::optional<std::string> MirrorClient::fetch_defid() {
    std::string body;
    if (!http_get_string(hit_ini_url(), body)) {
        return std::nullopt;
    }
    return parse_hit_defid(body);
}

std::optional<CompleteInfo> MirrorClient::fetch_complete_info(const std::string& defid) {
    std::string body;
    if (!http_get_string(complete_ini_url(defid), body)) {
        return std::nullopt;
    }
    auto info = parse_complete_info(body);
    if (info && info->defid.empty()) {
        info->defid = defid;
    }
    return info;
}

}  // namespace zqu

// The daemon's only HTTP client. It builds the URLs of the mirror's files, fetches the two INI files and downloads
// archives. All transfers use one libcurl easy handle (libcurl-easy(3)), which it owns for its whole life.
//
// A crash during a download can leave a file "<dest>.part". The next download to the same destination truncates it. One
// thread only: the handle is neither shared nor locked.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "config.hpp"

namespace zqu {

// What a complete-info INI says of one release. Only the presence of cab_name and sha256 has been checked.
struct CompleteInfo {
    std::string defid;      // the release's id; the requested one when the INI names none
    std::string cab_name;   // file name of the archive on the mirror
    std::string sha256;     // the archive's SHA-256 in hexadecimal, as written
    std::int64_t size = 0;  // the archive's size in bytes, as written; 0 when absent or malformed; never enforced
};

class MirrorClient {
public:
    // Initialises libcurl (curl_global_init(3)) and creates the handle. Keeps a reference to cfg, which must outlive
    // the client; every call reads it again. Never fails: without a handle every transfer fails silently.
    explicit MirrorClient(const Config& cfg);

    // Releases the handle and undoes the initialisation. Never throws.
    ~MirrorClient();

    MirrorClient(const MirrorClient&) = delete;
    MirrorClient& operator=(const MirrorClient&) = delete;

    // The URL of a file on the mirror: base, subdirectory and name, with one slash at each joint. The name is appended
    // as it is, without percent-encoding. An empty subdirectory gives "//" before the name, on purpose.
    [[nodiscard]] std::string file_url(const std::string& name) const;

    // The URL of "antivir-<flavor>-hit.ini", which names the current definition id.
    [[nodiscard]] std::string hit_ini_url() const;

    // The URL of "antivir-<flavor>-c-<defid>.ini", which describes one release.
    [[nodiscard]] std::string complete_ini_url(const std::string& defid) const;

    // GETs url into body, which is emptied first. Returns true when the whole response arrived with an HTTP status
    // below 400. Otherwise logs "GET %s: %s" (LOG_ERR) with libcurl's error text and returns false; body keeps what has
    // arrived. Without a handle: returns false, logs nothing, leaves body unchanged. The size of body has no limit.
    [[nodiscard]] bool http_get_string(const std::string& url, std::string& body);

    // GETs the mirror's file name into "<dest>.part" and renames that to dest. Returns true when dest holds the whole
    // response. It is not flushed to disk. Failures, which all return false:
    // - no handle: nothing logged;
    // - "<dest>.part" cannot be created: "download_cab: cannot create %s" (LOG_ERR), and no request is made;
    // - the transfer or a write fails: "download_cab %s: %s" (LOG_ERR) with the URL and libcurl's error text, and the
    //   partial file is removed;
    // - rename(2) of the partial file fails: nothing logged, and the partial file stays.
    [[nodiscard]] bool download_cab(const std::string& name, const std::string& dest);

    // The mirror's current definition id, never empty. No value when the hit INI cannot be fetched (http_get_string
    // logs that) or names no id: "parse_hit_defid: no [Current] defId" (LOG_ERR).
    [[nodiscard]] std::optional<std::string> fetch_defid();

    // The description of the release defid. No value when its INI cannot be fetched (http_get_string logs that) or
    // lacks the archive's name or digest: "parse_complete_info: missing def.Current.name/SHA256" (LOG_ERR). The result
    // has the id that the INI names, even when it differs from defid.
    [[nodiscard]] std::optional<CompleteInfo> fetch_complete_info(const std::string& defid);

private:
    const Config& cfg_;
    void* curl_ = nullptr;  // the easy handle (CURL is void), or null when libcurl could not create one
};

}  // namespace zqu

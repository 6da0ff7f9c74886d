// The daemon's only HTTP client: it builds the URLs of the mirror's files, fetches the two INI files and downloads
// archives, all through one libcurl easy handle (libcurl-easy(3)) that it owns for its whole life.
//
// After a crash in the middle of a download a file "<dest>.part" may be left; the next download to the same
// destination truncates it. One thread only: the handle is neither shared nor locked.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "config.hpp"

namespace zqu {

// What a complete-info INI says of one release. Nothing in it has been checked but that cab_name and sha256 are there.
struct CompleteInfo {
    std::string defid;      // the release's id; the one that was asked for when the INI names none
    std::string cab_name;   // file name of the archive on the mirror
    std::string sha256;     // the archive's SHA-256 in hexadecimal, as written
    std::int64_t size = 0;  // the archive's size in bytes, as written; 0 when absent or malformed; enforced nowhere
};

class MirrorClient {
public:
    // Initialises libcurl (curl_global_init(3)) and creates the handle. Keeps a reference to cfg, which must outlive
    // the client and is read anew on every call. Never fails: without a handle every transfer fails, silently.
    explicit MirrorClient(const Config& cfg);

    // Releases the handle and undoes the initialisation. Never throws.
    ~MirrorClient();

    MirrorClient(const MirrorClient&) = delete;
    MirrorClient& operator=(const MirrorClient&) = delete;

    // The URL of a file on the mirror: base, subdirectory and name, one slash at each joint. The name is appended as it
    // stands, without percent-encoding; an empty subdirectory gives "//" before the name, on purpose.
    [[nodiscard]] std::string file_url(const std::string& name) const;

    // The URL of "antivir-<flavor>-hit.ini", which names the current definition id.
    [[nodiscard]] std::string hit_ini_url() const;

    // The URL of "antivir-<flavor>-c-<defid>.ini", which describes one release.
    [[nodiscard]] std::string complete_ini_url(const std::string& defid) const;

    // GETs url into body, which is emptied first. Returns true when the whole response arrived with an HTTP status
    // below 400. Otherwise logs "GET %s: %s" (LOG_ERR) with libcurl's error text and returns false; what has arrived
    // stays in body. Without a handle: false, nothing logged, body untouched. The size of the body is not bounded.
    [[nodiscard]] bool http_get_string(const std::string& url, std::string& body);

    // GETs the mirror's file name into the file dest by way of "<dest>.part". Returns true when dest holds the whole
    // response. It has not been flushed to disk. Failures, all false:
    // - no handle: nothing logged;
    // - "<dest>.part" cannot be created: "download_cab: cannot create %s" (LOG_ERR), no request is made;
    // - the transfer or a write fails: "download_cab %s: %s" (LOG_ERR) with the URL and libcurl's error text, and the
    //   partial file is removed;
    // - rename(2) of the partial file fails: nothing logged, and the partial file stays.
    [[nodiscard]] bool download_cab(const std::string& name, const std::string& dest);

    // The mirror's current definition id, never empty. No value when the hit INI cannot be fetched (logged by
    // http_get_string) or names none: "parse_hit_defid: no [Current] defId" (LOG_ERR).
    [[nodiscard]] std::optional<std::string> fetch_defid();

    // The description of the release defid. No value when its INI cannot be fetched (logged by http_get_string) or
    // lacks the archive's name or digest: "parse_complete_info: missing def.Current.name/SHA256" (LOG_ERR). An id that
    // the INI names is kept even when it differs from defid.
    [[nodiscard]] std::optional<CompleteInfo> fetch_complete_info(const std::string& defid);

private:
    const Config& cfg_;
    void* curl_ = nullptr;  // the easy handle (CURL is void), or null when libcurl could not create one
};

}  // namespace zqu

// A client of a mirror for the operators' tools. It sends the daemon's requests and reads the INI files with the
// daemon's code, but bounds every answer, and throws the reason of a failure instead of logging it.
//
// One thread only: the libcurl handle is neither shared nor locked.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>

#include "config.hpp"
#include "mirror_client.hpp"

namespace zqu::tools {

// Bytes of an INI file, and of an archive, that are taken. The daemon bounds neither; its unit bounds files by
// LimitFSIZE.
inline constexpr std::uintmax_t largest_ini = 1 << 20;
inline constexpr std::uintmax_t largest_file = std::uintmax_t{8} << 30;

// What a client fails on. The text names the URL or the file, and the reason. It may hold any bytes that the mirror
// has sent.
struct MirrorError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Every member throws MirrorError when a transfer fails: "GET <URL>: <reason>", with libcurl's error text, "longer than
// <n> bytes", or "no regular file" for a file:// URL that leads to a FIFO, a device or a directory.
class BoundedClient {
public:
    // Keeps a reference to cfg, which must outlive the client and is read on every call.
    explicit BoundedClient(const zqu::Config& cfg);
    ~BoundedClient();
    BoundedClient(const BoundedClient&) = delete;
    BoundedClient& operator=(const BoundedClient&) = delete;

    // The id that the hit INI names, never empty. Throws MirrorError "<file> names no release" also.
    [[nodiscard]] std::string fetch_id();

    // The text of the complete-info INI of the release id.
    [[nodiscard]] std::string fetch_info_text(const std::string& id);

    // What that text says, with id for an id that it does not name. Throws MirrorError "<file> names no archive or no
    // digest".
    [[nodiscard]] zqu::CompleteInfo read_info(const std::string& text, const std::string& id) const;

    // Both together.
    [[nodiscard]] zqu::CompleteInfo fetch_info(const std::string& id) { return read_info(fetch_info_text(id), id); }

    // GETs the mirror's file name into the file at path, which is replaced, and not flushed. What has arrived stays
    // there on failure.
    void download(const std::string& name, const std::string& path);

private:
    struct Target;
    std::string fetch_text(const std::string& url);
    void transfer(const std::string& url, Target& target);
    static std::size_t write(char* data, std::size_t size, std::size_t count, void* target);

    const zqu::Config& cfg_;
    zqu::MirrorClient urls_;  // also initialises libcurl
    void* curl_;              // the easy handle (CURL is void), or null when libcurl could not create one
};

}  // namespace zqu::tools

// A client of a mirror for the operators' tools. It sends the daemon's requests and reads the INI files with the
// daemon's code, but bounds every answer, observes what the daemon does not report, and throws the reason of a failure.
//
// One thread only: the libcurl handle is neither shared nor locked.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "config.hpp"
#include "mirror_client.hpp"

struct x509_store_ctx_st;  // X509_STORE_CTX of OpenSSL

namespace zqu::tools {

// The longest INI file and the largest archive that are taken, in bytes. The daemon bounds neither; its unit bounds
// files by LimitFSIZE.
inline constexpr std::uintmax_t largest_ini = 1 << 20;
inline constexpr std::uintmax_t largest_file = std::uintmax_t{8} << 30;

// The mirror's fault, or the network's. The text names the URL and the reason. It may hold any bytes from the mirror.
struct MirrorError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// The mirror does not have the file: HTTP status 404 or 410, or no such file.
struct MissingFile : MirrorError {
    using MirrorError::MirrorError;
};

// The part of a verified chain that ends first.
struct ChainEnd {
    std::int64_t epoch = 0;  // its notAfter (RFC 5280, section 4.1.2.5), in seconds since the Unix epoch
    std::string subject;     // may hold any bytes
};

// Every member that fetches throws MirrorError when the transfer fails: "GET <URL>: <reason>". The reason is libcurl's
// text, with the HTTP status if that is an error; what is wrong with a certificate that TLS has refused; "longer than
// <n> bytes"; or "not a regular file" for a file:// URL of anything else. Throws std::system_error when this machine is
// at fault: no file in memory, no room for a download.
class Client {
public:
    // Keeps a reference to cfg, which must outlive the client and is read on every call.
    explicit Client(const zqu::Config& cfg);
    ~Client();
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    // From now on, a redirect from https to another scheme is a MirrorError, and nothing connects there.
    void refuse_insecure_redirects() { refuses_insecure_ = true; }

    // From now on, requests have a header that asks for the current release, not for the candidate of a rollout.
    void ask_for_current() { asks_for_current_ = true; }

    // Called with the bytes that have arrived, from time to time during a transfer.
    void on_progress(std::function<void(std::uintmax_t)> show) { show_ = std::move(show); }

    // The id that the hit INI names, never empty. Also throws MirrorError "<file> names no release".
    [[nodiscard]] std::string fetch_id();

    // The id that the text of a hit INI names.
    [[nodiscard]] std::string read_id(const std::string& text) const;

    // The text of the complete-info INI of the release id.
    [[nodiscard]] std::string fetch_info_text(const std::string& id);

    // What that text says, with id for an id that it does not name. Throws MirrorError "<file> names no archive or no
    // digest".
    [[nodiscard]] zqu::CompleteInfo read_info(const std::string& text, const std::string& id) const;

    // Both together.
    [[nodiscard]] zqu::CompleteInfo fetch_info(const std::string& id) { return read_info(fetch_info_text(id), id); }

    // GETs the mirror's file name and writes at most "most" bytes to the descriptor.
    void download(const std::string& name, int file, std::uintmax_t most = largest_file);

    // When the last file that was fetched was modified, in seconds since the Unix epoch, by its time or its
    // Last-Modified (RFC 9110, section 8.8.2); no value when the server did not say.
    [[nodiscard]] std::optional<std::int64_t> last_modified() const { return last_modified_; }

    // Of all chains that were verified.
    [[nodiscard]] const std::optional<ChainEnd>& chain_end() const { return chain_end_; }

    // What an administrator should know of the transfers so far: redirects from https to another scheme with their
    // address, and a certificate that ends within 14 days.
    [[nodiscard]] std::vector<std::string> warnings() const;

private:
    struct Target;
    std::string fetch_text(const std::string& url);
    void transfer(const std::string& url, Target& target);
    void set_options(const std::string& url, Target& target);
    [[nodiscard]] long http_status() const;
    [[nodiscard]] std::string reason_of(int result) const;
    void observe_url();
    void read_local(const std::string& url, Target& target);
    static void require_taken(const std::string& url, const Target& target, bool too_long);
    [[nodiscard]] std::string effective_url() const;
    static int verify(x509_store_ctx_st* store, void* client);
    void observe(x509_store_ctx_st* store);
    [[nodiscard]] std::string trouble(const std::string& host) const;

    const zqu::Config& cfg_;
    zqu::MirrorClient urls_;  // also initialises libcurl
    void* curl_;              // the easy handle (CURL is void), or null when libcurl could not create one
    bool refuses_insecure_ = false;
    bool asks_for_current_ = false;
    bool was_https_ = false;               // an address before, in this transfer
    std::vector<std::string> insecure_{};  // addresses that a redirect from https led to
    std::optional<std::int64_t> last_modified_;
    std::function<void(std::uintmax_t)> show_;
    int tls_error_ = 0;          // X509_V_..., of the last verification
    bool of_authority_ = false;  // whether the certificate below is not the server's own
    std::string certificate_;    // in words
    std::optional<ChainEnd> chain_end_;
};

}  // namespace zqu::tools

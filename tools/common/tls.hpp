// What TLS makes of a server's certificates, in words.
//
// One thread only.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

struct x509_store_ctx_st;  // X509_STORE_CTX of OpenSSL

namespace zqu::tools {

// The part of a verified chain that ends first.
struct ChainEnd {
    std::int64_t epoch = 0;  // its notAfter (RFC 5280, section 4.1.2.5), in seconds since the Unix epoch
    std::string subject;     // may hold any bytes
};

// Watches the verifications of one client, and changes none.
class TlsWatch {
public:
    // Watches the handshakes of an SSL_CTX of OpenSSL. The watch must outlive it.
    void attach(void* ssl_ctx);

    // Which fault the last server's certificate has, with subject, names, validity and issuer, and what to do; host is
    // the server's name in the URL. Empty when no certificate was seen. May hold any bytes.
    [[nodiscard]] std::string trouble(const std::string& host) const;

    // Of all chains that were verified.
    [[nodiscard]] const std::optional<ChainEnd>& chain_end() const { return chain_end_; }

private:
    static int verify(x509_store_ctx_st* store, void* watch);
    void observe(x509_store_ctx_st* store);

    int error_ = 0;              // X509_V_..., of the last verification
    bool of_authority_ = false;  // whether the certificate below is not the server's own
    std::string certificate_;    // in words
    std::optional<ChainEnd> chain_end_;
};

}  // namespace zqu::tools

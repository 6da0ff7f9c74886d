#include "tls.hpp"

#include <openssl/bio.h>
#include <openssl/ssl.h>
#include <openssl/x509_vfy.h>
#include <openssl/x509v3.h>

#include <ctime>

#include "descriptors.hpp"
#include "text.hpp"

namespace zqu::tools {

namespace {

using Bio = Handle<BIO, BIO_free>;

constexpr int most_names = 5;

std::string text_in(const Bio& out) {
    char* text = nullptr;
    const auto size = BIO_get_mem_data(out.get(), &text);
    return {text, static_cast<std::size_t>(size)};
}

std::string text_of(const X509_NAME* name) {
    const Bio out(BIO_new(BIO_s_mem()));
    X509_NAME_print_ex(out.get(), name, 0, XN_FLAG_RFC2253 & ~ASN1_STRFLGS_ESC_MSB);
    return text_in(out);
}

std::int64_t epoch_of(const ASN1_TIME* time) {
    std::tm broken_down{};
    ASN1_TIME_to_tm(time, &broken_down);
    return timegm(&broken_down);
}

// The names that the certificate is for (RFC 5280, section 4.2.1.6).
std::string names_of(const X509* certificate) {
    const Handle<GENERAL_NAMES, GENERAL_NAMES_free> names(
        static_cast<GENERAL_NAMES*>(X509_get_ext_d2i(certificate, NID_subject_alt_name, nullptr, nullptr)));
    const Bio out(BIO_new(BIO_s_mem()));
    const int count = names ? sk_GENERAL_NAME_num(names.get()) : 0;
    for (int i = 0; i < count && i < most_names; ++i) {
        BIO_puts(out.get(), i == 0 ? "" : ", ");
        GENERAL_NAME_print(out.get(), sk_GENERAL_NAME_value(names.get(), i));
    }
    return count == 0 ? "none" : text_in(out) + (count > most_names ? ", ..." : "");
}

std::string describe(const X509* certificate) {
    return "subject \"" + text_of(X509_get_subject_name(certificate)) + "\", names " + names_of(certificate) +
           ", valid from " + utc_text(epoch_of(X509_get0_notBefore(certificate))) + " to " +
           utc_text(epoch_of(X509_get0_notAfter(certificate))) + ", issuer \"" +
           text_of(X509_get_issuer_name(certificate)) + "\"";
}

struct Explanation {
    std::string fault;
    std::string advice;
};

Explanation explain(int error, const std::string& host) {
    const std::string clock = "check the clock of this machine, which says " + utc_text(std::time(nullptr));
    switch (error) {
        case X509_V_OK:  // and yet refused
            return {"is for another host than " + host,
                    "use one of its names in the URL, or give the mirror a certificate for " + host};
        case X509_V_ERR_CERT_HAS_EXPIRED:
            return {"has expired", "renew it on the mirror, or " + clock};
        case X509_V_ERR_CERT_NOT_YET_VALID:
            return {"is not valid yet", clock};
        case X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT:
            return {"is self-signed", "if it is the mirror's own, trust it by ca_path or --ca"};
        case X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN:
        case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT:
        case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY:
        case X509_V_ERR_UNABLE_TO_VERIFY_LEAF_SIGNATURE:
            return {"comes from an authority that is not trusted",
                    "name the PEM file of that authority by ca_path or --ca; the mirror must send all certificates "
                    "between its own and that one"};
        default:
            return {std::string("is refused: ") + X509_verify_cert_error_string(error), "see to the mirror's TLS"};
    }
}

}  // namespace

void TlsWatch::attach(void* ssl_ctx) {
    SSL_CTX_set_cert_verify_callback(static_cast<SSL_CTX*>(ssl_ctx), verify, this);
}

// The place of X509_verify_cert(3) in the handshake: SSL_CTX_set_cert_verify_callback(3).
int TlsWatch::verify(X509_STORE_CTX* store, void* watch) {
    const int verified = X509_verify_cert(store);
    static_cast<TlsWatch*>(watch)->observe(store);
    return verified;
}

void TlsWatch::observe(X509_STORE_CTX* store) {
    error_ = X509_STORE_CTX_get_error(store);
    const X509* refused = error_ == X509_V_OK ? nullptr : X509_STORE_CTX_get_current_cert(store);
    of_authority_ = refused != nullptr && X509_STORE_CTX_get_error_depth(store) > 0;
    certificate_ = describe(refused != nullptr ? refused : X509_STORE_CTX_get0_cert(store));
    const STACK_OF(X509)* chain = error_ == X509_V_OK ? X509_STORE_CTX_get0_chain(store) : nullptr;
    for (int i = 0; chain != nullptr && i < sk_X509_num(chain); ++i) {
        const X509* certificate = sk_X509_value(chain, i);
        const std::int64_t end = epoch_of(X509_get0_notAfter(certificate));
        if (!chain_end_ || end < chain_end_->epoch) {
            chain_end_ = ChainEnd{end, text_of(X509_get_subject_name(certificate))};
        }
    }
}

std::string TlsWatch::trouble(const std::string& host) const {
    if (certificate_.empty()) {
        return "";
    }
    const auto [fault, advice] = explain(error_, host);
    const char* whose = of_authority_ ? "a certificate of the mirror's authorities " : "the mirror's certificate ";
    return whose + fault + " (" + certificate_ + "); " + advice;
}

}  // namespace zqu::tools

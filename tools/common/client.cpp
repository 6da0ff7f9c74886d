#include "client.hpp"

#include <curl/curl.h>
#include <openssl/bio.h>
#include <openssl/ssl.h>
#include <openssl/x509_vfy.h>
#include <openssl/x509v3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <exception>
#include <system_error>

#include "descriptors.hpp"
#include "text.hpp"

namespace zqu::tools {

namespace {

using Bio = Handle<BIO, BIO_free>;

constexpr int most_names = 5;
constexpr std::size_t most_addresses = 5;
constexpr std::size_t longest_address = 200;

[[noreturn]] void fail(const std::string& url, const std::string& reason) {
    throw MirrorError("GET " + url + ": " + reason);
}

std::string file_of(const std::string& url) {
    return url.substr(url.rfind('/') + 1);
}

// A part of a URL, decoded; empty when there is none.
std::string part_of(const std::string& url, CURLUPart part) {
    const Handle<CURLU, curl_url_cleanup> parts(curl_url());
    char* text = nullptr;
    if (curl_url_set(parts.get(), CURLUPART_URL, url.c_str(), 0) == CURLUE_OK) {
        static_cast<void>(curl_url_get(parts.get(), part, &text, CURLU_URLDECODE));
    }
    const Handle<char, curl_free> owner(text);
    return text != nullptr ? text : "";
}

Fd open_local(const std::string& url, const std::string& path) {
    try {
        return open_regular(path);
    } catch (const std::system_error& e) {
        if (e.code() == std::errc::no_such_file_or_directory) {
            throw MissingFile("GET " + url + ": " + e.code().message());
        }
        fail(url, e.code().message());
    } catch (const std::runtime_error&) {
        fail(url, "not a regular file");
    }
}

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

// The fault of a certificate, and what to do about it.
std::pair<std::string, std::string> explain(int error, const std::string& host) {
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
            return {std::string("is refused: ") + X509_verify_cert_error_string(error),
                    "check the mirror's certificate and TLS settings"};
    }
}

// A mirror whose files are all this one: file:// ignores what follows the question mark. The daemon's client parses
// only what it has fetched itself.
zqu::Config mirror_of(const Fd& file) {
    zqu::Config cfg;
    cfg.mirror_base_url = "file://" + memory_path(file) + "?";
    return cfg;
}

}  // namespace

// Where an answer goes: to the file, if there is one, else to the text.
struct Client::Target {
    std::uintmax_t most;
    int file = -1;
    std::string text{};
    std::uintmax_t taken = 0;
    std::exception_ptr failure{};  // why the file cannot be written

    // See CURLOPT_WRITEFUNCTION(3): another count than size * count makes libcurl abort the transfer.
    static std::size_t write(char* data, std::size_t size, std::size_t count, void* target) {
        auto& to = *static_cast<Target*>(target);
        const std::string block(data, size * count);
        to.taken += block.size();
        if (to.taken > to.most) {
            return 0;
        }
        if (to.file < 0) {
            to.text += block;
            return block.size();
        }
        try {
            write_all(to.file, block, "the archive");
            return block.size();
        } catch (const std::system_error&) {
            to.failure = std::current_exception();
            return 0;
        }
    }
};

Client::Client(const zqu::Config& cfg) : cfg_(cfg), urls_(cfg), curl_(curl_easy_init()) {}

Client::~Client() {
    curl_easy_cleanup(curl_);
}

std::string Client::fetch_id() {
    return read_id(fetch_text(urls_.hit_ini_url()));
}

std::string Client::read_id(const std::string& text) const {
    const Fd copy = memory_file(text);
    const zqu::Config cfg = mirror_of(copy);
    auto id = zqu::MirrorClient(cfg).fetch_defid();
    if (!id) {
        throw MirrorError(file_of(urls_.hit_ini_url()) + " names no release");
    }
    return *std::move(id);
}

std::string Client::fetch_info_text(const std::string& id) {
    return fetch_text(urls_.complete_ini_url(id));
}

zqu::CompleteInfo Client::read_info(const std::string& text, const std::string& id) const {
    const Fd copy = memory_file(text);
    const zqu::Config cfg = mirror_of(copy);
    auto info = zqu::MirrorClient(cfg).fetch_complete_info("");  // libcurl would refuse a URL with some ids
    if (!info) {
        throw MirrorError(file_of(urls_.complete_ini_url(id)) + " names no archive or no digest");
    }
    if (info->defid.empty()) {
        info->defid = id;
    }
    return *std::move(info);
}

void Client::download(const std::string& name, int file, std::uintmax_t most) {
    Target target{most, file};
    transfer(urls_.file_url(name), target);
}

std::string Client::fetch_text(const std::string& url) {
    Target target{largest_ini};
    transfer(url, target);
    return std::move(target.text);
}

void Client::transfer(const std::string& url, Target& target) {
    if (curl_ == nullptr) {
        fail(url, "libcurl cannot be used");
    }
    if (part_of(url, CURLUPART_SCHEME) == "file") {
        read_local(url, target);
        return;
    }
    was_https_ = false;
    set_options(url, target);
    const CURLcode result = curl_easy_perform(curl_);
    observe_url();  // the last one, which may not have been connected to
    require_taken(url, target, result == CURLE_FILESIZE_EXCEEDED);
    if (result == CURLE_SSL_CACERT_BADFILE) {  // this machine's fault
        throw std::runtime_error(std::string(curl_easy_strerror(result)) +
                                 "; install ca-certificates, or name a PEM file by --ca or ca_path");
    }
    if (result == CURLE_HTTP_RETURNED_ERROR && (http_status() == 404 || http_status() == 410)) {
        throw MissingFile("GET " + url + ": " + reason_of(result));
    }
    if (result != CURLE_OK) {
        fail(url, reason_of(result));
    }
    curl_off_t modified = -1;
    curl_easy_getinfo(curl_, CURLINFO_FILETIME_T, &modified);
    last_modified_ = modified < 0 ? std::nullopt : std::optional<std::int64_t>(modified);
}

void Client::require_taken(const std::string& url, const Target& target, bool too_long) {
    if (target.failure) {
        std::rethrow_exception(target.failure);
    }
    if (too_long || target.taken > target.most) {
        fail(url, "longer than " + std::to_string(target.most) + " bytes");
    }
}

// A file:// URL. Not by libcurl, which would wait at a FIFO for ever, and at some files below /proc.
void Client::read_local(const std::string& url, Target& target) {
    const std::string path = part_of(url, CURLUPART_PATH);
    const Fd file = open_local(url, path);
    struct stat status = {};
    static_cast<void>(fstat(file.get(), &status));
    require_taken(url, target, static_cast<std::uintmax_t>(status.st_size) > target.most);
    std::vector<char> block(65536);
    for (ssize_t count = 1; count > 0;) {
        count = read(file.get(), block.data(), block.size());
        if (count < 0) {
            fail_errno("cannot read " + path);
        }
        if (count > 0 && Target::write(block.data(), 1, static_cast<std::size_t>(count), &target) == 0) {
            break;
        }
    }
    require_taken(url, target, false);
    last_modified_ = status.st_mtim.tv_sec;
}

// The daemon's options, to find what the daemon would find; then those of the tools.
void Client::set_options(const std::string& url, Target& target) {
    curl_easy_reset(curl_);
    curl_easy_setopt(curl_, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl_, CURLOPT_WRITEFUNCTION, Target::write);
    curl_easy_setopt(curl_, CURLOPT_WRITEDATA, &target);
    curl_easy_setopt(curl_, CURLOPT_TIMEOUT, static_cast<long>(cfg_.http_timeout_s));
    curl_easy_setopt(curl_, CURLOPT_FAILONERROR, 1L);
    curl_easy_setopt(curl_, CURLOPT_FOLLOWLOCATION, 1L);
    curl_easy_setopt(curl_, CURLOPT_SSL_VERIFYPEER, 1L);
    curl_easy_setopt(curl_, CURLOPT_SSL_VERIFYHOST, 2L);
    if (!cfg_.ca_path.empty()) {
        curl_easy_setopt(curl_, CURLOPT_CAINFO, cfg_.ca_path.c_str());
    }

    curl_easy_setopt(curl_, CURLOPT_MAXFILESIZE_LARGE, static_cast<curl_off_t>(target.most));
    curl_easy_setopt(curl_, CURLOPT_FILETIME, 1L);
    curl_prereq_callback before = [](void* client, char*, char*, int, int) {
        static_cast<Client*>(client)->observe_url();
        return CURL_PREREQFUNC_OK;
    };
    curl_easy_setopt(curl_, CURLOPT_PREREQFUNCTION, before);
    curl_easy_setopt(curl_, CURLOPT_PREREQDATA, this);
    curl_ssl_ctx_callback watch = [](CURL*, void* ssl_ctx, void* client) {
        SSL_CTX_set_cert_verify_callback(static_cast<SSL_CTX*>(ssl_ctx), verify, client);
        return CURLE_OK;
    };
    curl_easy_setopt(curl_, CURLOPT_SSL_CTX_FUNCTION, watch);
    curl_easy_setopt(curl_, CURLOPT_SSL_CTX_DATA, this);
    if (refuses_insecure_ && part_of(url, CURLUPART_SCHEME) == "https") {
        curl_easy_setopt(curl_, CURLOPT_REDIR_PROTOCOLS_STR, "https");
    }
    if (asks_for_current_) {
        static const Handle<curl_slist, curl_slist_free_all> headers(
            curl_slist_append(nullptr, "Zqu-Release: current"));
        curl_easy_setopt(curl_, CURLOPT_HTTPHEADER, headers.get());
    }
    if (show_) {
        curl_xferinfo_callback progress = [](void* client, curl_off_t, curl_off_t now, curl_off_t, curl_off_t) {
            static_cast<Client*>(client)->show_(static_cast<std::uintmax_t>(now));
            return 0;
        };
        curl_easy_setopt(curl_, CURLOPT_XFERINFOFUNCTION, progress);
        curl_easy_setopt(curl_, CURLOPT_XFERINFODATA, this);
        curl_easy_setopt(curl_, CURLOPT_NOPROGRESS, 0L);
    }
}

std::string Client::effective_url() const {
    const char* url = nullptr;
    curl_easy_getinfo(curl_, CURLINFO_EFFECTIVE_URL, &url);
    return url != nullptr ? url : "";
}

// Before each request of a transfer, those after redirects too, and at its end.
void Client::observe_url() {
    const std::string url = effective_url();
    const bool https = part_of(url, CURLUPART_SCHEME) == "https";
    if (was_https_ && !https && insecure_.size() < most_addresses &&
        std::find(insecure_.begin(), insecure_.end(), url) == insecure_.end()) {
        insecure_.push_back(url);
    }
    was_https_ = was_https_ || https;
}

// Called instead of X509_verify_cert(3) in the handshake: SSL_CTX_set_cert_verify_callback(3).
int Client::verify(X509_STORE_CTX* store, void* client) {
    const int verified = X509_verify_cert(store);
    static_cast<Client*>(client)->observe(store);
    return verified;
}

void Client::observe(X509_STORE_CTX* store) {
    tls_error_ = X509_STORE_CTX_get_error(store);
    const X509* refused = tls_error_ == X509_V_OK ? nullptr : X509_STORE_CTX_get_current_cert(store);
    of_authority_ = refused != nullptr && X509_STORE_CTX_get_error_depth(store) > 0;
    certificate_ = describe(refused != nullptr ? refused : X509_STORE_CTX_get0_cert(store));
    const STACK_OF(X509)* chain = tls_error_ == X509_V_OK ? X509_STORE_CTX_get0_chain(store) : nullptr;
    for (int i = 0; chain != nullptr && i < sk_X509_num(chain); ++i) {
        const X509* certificate = sk_X509_value(chain, i);
        const std::int64_t end = epoch_of(X509_get0_notAfter(certificate));
        if (!chain_end_ || end < chain_end_->epoch) {
            chain_end_ = ChainEnd{end, text_of(X509_get_subject_name(certificate))};
        }
    }
}

std::string Client::trouble(const std::string& host) const {
    const auto [fault, advice] = explain(tls_error_, host);
    const char* whose = of_authority_ ? "a certificate of the mirror's authorities " : "the mirror's certificate ";
    return whose + fault + "; " + advice + " (" + certificate_ + ")";
}

long Client::http_status() const {
    long status = 0;
    curl_easy_getinfo(curl_, CURLINFO_RESPONSE_CODE, &status);
    return status;
}

std::string Client::reason_of(int result) const {
    const std::string reason = curl_easy_strerror(static_cast<CURLcode>(result));
    if (result == CURLE_HTTP_RETURNED_ERROR) {
        long of_proxy = 0;  // its answer to CONNECT, when the mirror could not be asked
        curl_easy_getinfo(curl_, CURLINFO_HTTP_CONNECTCODE, &of_proxy);
        const long status = http_status();
        return reason + ": " + (status != 0 ? std::to_string(status) : std::to_string(of_proxy) + " by the proxy");
    }
    if (result == CURLE_UNSUPPORTED_PROTOCOL && !insecure_.empty()) {
        return "redirected from https to " + insecure_.back() +
               ", where anybody on the way can change the answer: give --allow-http to permit it";
    }
    const bool of_tls = result == CURLE_PEER_FAILED_VERIFICATION && !certificate_.empty();
    return of_tls ? trouble(part_of(effective_url(), CURLUPART_HOST)) : reason;
}

std::vector<std::string> Client::warnings() const {
    std::vector<std::string> found;
    found.reserve(insecure_.size());
    for (const std::string& url : insecure_) {
        found.push_back("redirected from https to " + url.substr(0, longest_address) +
                        ": anybody on the way can change the answer");
    }
    const std::int64_t left = chain_end_ ? chain_end_->epoch - std::time(nullptr) : 0;
    if (chain_end_ && left < std::int64_t{14} * 86400) {
        found.push_back("the certificate \"" + chain_end_->subject + "\" of the mirror's chain ends at " +
                        utc_text(chain_end_->epoch) + ", in " + duration_text(left) + ": renew it");
    }
    return found;
}

}  // namespace zqu::tools

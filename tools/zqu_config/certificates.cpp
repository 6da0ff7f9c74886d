#include "certificates.hpp"

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <fstream>

#include "descriptors.hpp"
#include "text.hpp"

namespace zqu::config_tool {

namespace {

void free_infos(STACK_OF(X509_INFO) * infos) {
    sk_X509_INFO_pop_free(infos, X509_INFO_free);
}

using Bio = tools::Handle<BIO, BIO_free>;
using Infos = tools::Handle<STACK_OF(X509_INFO), free_infos>;

std::string read_pem(const std::string& path) {
    constexpr std::streamsize most = 16 << 20;
    std::string text(most, '\0');
    std::ifstream file(path, std::ios::binary);
    file.read(text.data(), most);
    text.resize(static_cast<std::size_t>(file.gcount()));
    return text;
}

std::string subject_of(const X509* certificate) {
    const Bio out(BIO_new(BIO_s_mem()));
    X509_NAME_print_ex(out.get(), X509_get_subject_name(certificate), 0, XN_FLAG_RFC2253 & ~ASN1_STRFLGS_ESC_MSB);
    char* text = nullptr;
    const auto size = BIO_get_mem_data(out.get(), &text);
    return {text, static_cast<std::size_t>(size)};
}

void check_validity(const X509* certificate, std::size_t line, Findings& findings) {
    const std::string start = "ca_path: the certificate " + tools::quoted(subject_of(certificate));
    if (X509_cmp_current_time(X509_get0_notAfter(certificate)) < 0) {
        findings.warning(line, start + " has expired");
    } else if (X509_cmp_current_time(X509_get0_notBefore(certificate)) > 0) {
        findings.warning(line, start + " is not valid yet");
    }
}

}  // namespace

void check_certificates(const std::string& path, std::size_t line, Findings& findings) {
    const std::string text = read_pem(path);
    const Bio in(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
    const Infos infos(PEM_X509_INFO_read_bio(in.get(), nullptr, nullptr, nullptr));  // as libssl reads such a file
    ERR_clear_error();
    if (!infos) {
        findings.error(line, "ca_path: " + tools::quoted(path) + " is damaged: no transfer over https succeeds");
        return;
    }
    int certificates = 0;
    for (int i = 0; i < sk_X509_INFO_num(infos.get()); ++i) {
        if (const X509* certificate = sk_X509_INFO_value(infos.get(), i)->x509) {
            ++certificates;
            check_validity(certificate, line, findings);
        }
    }
    if (certificates == 0) {
        findings.error(line,
                       "ca_path: no PEM certificate in " + tools::quoted(path) + ": no transfer over https succeeds");
    }
}

}  // namespace zqu::config_tool

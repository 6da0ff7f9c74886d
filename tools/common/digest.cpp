#include "digest.hpp"

#include <fcntl.h>
#include <openssl/evp.h>
#include <unistd.h>

#include <array>
#include <stdexcept>

#include "descriptors.hpp"
#include "text.hpp"

namespace zqu::tools {

namespace {

void require(bool done) {
    if (!done) {
        throw std::runtime_error("cannot compute SHA-256 digests");
    }
}

}  // namespace

Sha256::Sha256() : context_(EVP_MD_CTX_new(), EVP_MD_CTX_free) {
    require(context_ && EVP_DigestInit_ex(context_.get(), EVP_sha256(), nullptr) == 1);
}

void Sha256::add(const char* data, std::size_t size) {
    require(EVP_DigestUpdate(context_.get(), data, size) == 1);
}

std::string Sha256::finish() {
    std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
    unsigned int length = 0;
    require(EVP_DigestFinal_ex(context_.get(), digest.data(), &length) == 1);
    return hex(std::string(digest.data(), digest.data() + length));
}

void read_blocks(const std::filesystem::path& path, const std::function<void(const char*, std::size_t)>& consume) {
    const Fd file(path, O_RDONLY);
    std::vector<char> block(65536);
    for (ssize_t count = 1; count > 0;) {
        count = read(file.get(), block.data(), block.size());
        if (count < 0) {
            fail_errno("cannot read " + path.string());
        }
        consume(block.data(), static_cast<std::size_t>(count));
    }
}

std::string sha256(const std::filesystem::path& path, const std::function<void(std::size_t)>& progress) {
    Sha256 digest;
    read_blocks(path, [&](const char* data, std::size_t size) {
        digest.add(data, size);
        progress(size);
    });
    return digest.finish();
}

}  // namespace zqu::tools

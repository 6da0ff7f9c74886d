// SHA-256 digests (FIPS 180-4), in lower-case hexadecimal. What fails throws.
#pragma once

#include <cstddef>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>

struct evp_md_ctx_st;  // EVP_MD_CTX of OpenSSL

namespace zqu::tools {

// Computes one digest. Throws std::runtime_error when libcrypto cannot.
class Sha256 {
public:
    Sha256();
    void add(const char* data, std::size_t size);
    [[nodiscard]] std::string finish();  // of all that was added; ends the computation

private:
    std::unique_ptr<evp_md_ctx_st, void (*)(evp_md_ctx_st*)> context_;
};

// Reads the file to its end and gives each piece to consume; the last piece is empty. Uses the same memory for any
// file.
void read_blocks(const std::filesystem::path& path, const std::function<void(const char*, std::size_t)>& consume);

// Of the file. Calls progress with the number of bytes that each step has read.
[[nodiscard]] std::string sha256(
    const std::filesystem::path& path, const std::function<void(std::size_t)>& progress = [](std::size_t) {});

}  // namespace zqu::tools

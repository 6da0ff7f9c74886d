#include "files.hpp"

#include <fcntl.h>
#include <openssl/evp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <vector>

#include "failure.hpp"
#include "text.hpp"

namespace zqu::mirror_tool {

namespace fs = std::filesystem;

namespace {

constexpr std::size_t block_size = 65536;

void require(bool done) {
    if (!done) {
        fail("cannot compute SHA-256 digests");
    }
}

void flush(const Fd& file, const fs::path& path) {
    if (fsync(file.get()) != 0) {
        fail_errno("cannot flush " + path.string());
    }
}

// Gives the owner access to the directory and those below it, links not followed.
void make_accessible(const fs::path& path) {
    std::error_code ignored;
    if (!fs::is_directory(fs::symlink_status(path, ignored)) ||
        fchmodat(AT_FDCWD, path.c_str(), S_IRWXU, AT_SYMLINK_NOFOLLOW) != 0) {
        return;
    }
    for (fs::directory_iterator entry(path, ignored), end; !ignored && entry != end; entry.increment(ignored)) {
        make_accessible(entry->path());
    }
}

}  // namespace

void read_blocks(const fs::path& path, const std::function<void(const char*, std::size_t)>& consume) {
    const Fd file(path, O_RDONLY);
    std::vector<char> block(block_size);
    for (ssize_t count = 1; count > 0;) {
        count = read(file.get(), block.data(), block.size());
        if (count < 0) {
            fail_errno("cannot read " + path.string());
        }
        consume(block.data(), static_cast<std::size_t>(count));
    }
}

struct Sha256::Context {
    tools::Handle<EVP_MD_CTX, EVP_MD_CTX_free> handle{EVP_MD_CTX_new()};
};

Sha256::Sha256() : context_(std::make_unique<Context>()) {
    require(context_->handle && EVP_DigestInit_ex(context_->handle.get(), EVP_sha256(), nullptr) == 1);
}

Sha256::~Sha256() = default;

void Sha256::add(const char* data, std::size_t size) {
    require(EVP_DigestUpdate(context_->handle.get(), data, size) == 1);
}

std::string Sha256::hex() {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    require(EVP_DigestFinal_ex(context_->handle.get(), digest, &length) == 1);
    return tools::hex(std::string(digest, digest + length));
}

std::string sha256(const fs::path& path, const std::function<void(std::size_t)>& progress) {
    Sha256 digest;
    read_blocks(path, [&](const char* data, std::size_t size) {
        digest.add(data, size);
        progress(size);
    });
    return digest.hex();
}

void write_text(const fs::path& path, const std::string& text) {
    const Fd file(path, O_WRONLY | O_CREAT | O_EXCL);
    tools::write_all(file.get(), text, path.string());
    flush(file, path);
}

void flush(const fs::path& path) {
    flush(Fd(path, O_RDONLY), path);
}

void make_folder(const fs::path& path, mode_t mode) {
    if (mkdir(path.c_str(), mode) != 0) {
        fail_errno("cannot create " + path.string());
    }
}

void remove_tree(const fs::path& path, std::error_code& error) {
    make_accessible(path);
    fs::remove_all(path, error);
}

void move(const fs::path& from, const fs::path& to) {
    if (rename(from.c_str(), to.c_str()) != 0) {
        fail_errno("cannot create " + to.string());
    }
}

}  // namespace zqu::mirror_tool

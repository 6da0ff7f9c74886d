#include "bounded_client.hpp"

#include <curl/curl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <optional>
#include <system_error>

#include "handle.hpp"

namespace zqu::tools {

namespace {

[[noreturn]] void fail(const std::string& url, const std::string& reason) {
    throw MirrorError("GET " + url + ": " + reason);
}

std::string file_of(const std::string& url) {
    return url.substr(url.rfind('/') + 1);
}

std::string part_of(CURLU* url, CURLUPart part) {
    char* text = nullptr;
    static_cast<void>(curl_url_get(url, part, &text, CURLU_URLDECODE));
    const Handle<char, curl_free> owner(text);
    return text != nullptr ? text : "";
}

[[noreturn]] void fail_too_long(const std::string& url, std::uintmax_t most) {
    fail(url, "longer than " + std::to_string(most) + " bytes");
}

// libcurl would wait at a FIFO for ever, and takes a file of any size.
void require_usable_file(const std::string& url, std::uintmax_t most) {
    const Handle<CURLU, curl_url_cleanup> parts(curl_url());
    struct stat status {};
    if (curl_url_set(parts.get(), CURLUPART_URL, url.c_str(), 0) == CURLUE_OK &&
        part_of(parts.get(), CURLUPART_SCHEME) == "file" &&
        stat(part_of(parts.get(), CURLUPART_PATH).c_str(), &status) == 0) {
        if (!S_ISREG(status.st_mode)) {
            fail(url, "no regular file");
        }
        if (static_cast<std::uintmax_t>(status.st_size) > most) {
            fail_too_long(url, most);
        }
    }
}

// A file in memory, because the daemon's client parses only what it has fetched itself.
class MemoryFile {
public:
    explicit MemoryFile(const std::string& text) : fd_(memfd_create("ini", MFD_CLOEXEC)) {
        // A file in memory takes all that there is room for, or nothing.
        if (fd_ < 0 || write(fd_, text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
            const int reason = errno;
            close(fd_);
            throw std::system_error(reason, std::generic_category(), "cannot make a file in memory");
        }
    }
    ~MemoryFile() { close(fd_); }
    MemoryFile(const MemoryFile&) = delete;
    MemoryFile& operator=(const MemoryFile&) = delete;

    // A mirror whose files all have this content: file:// ignores what follows the question mark.
    [[nodiscard]] zqu::Config mirror() const {
        zqu::Config cfg;
        cfg.mirror_base_url = "file:///proc/self/fd/" + std::to_string(fd_) + "?";
        return cfg;
    }

private:
    int fd_;
};

}  // namespace

// Where an answer goes: to the file, if there is one, else to the text.
struct BoundedClient::Target {
    std::uintmax_t most;
    std::FILE* file = nullptr;
    std::string text{};
    std::uintmax_t taken = 0;
};

BoundedClient::BoundedClient(const zqu::Config& cfg) : cfg_(cfg), urls_(cfg), curl_(curl_easy_init()) {}

BoundedClient::~BoundedClient() {
    curl_easy_cleanup(curl_);
}

std::string BoundedClient::fetch_id() {
    const std::string url = urls_.hit_ini_url();
    const MemoryFile copy(fetch_text(url));
    const zqu::Config cfg = copy.mirror();
    auto id = zqu::MirrorClient(cfg).fetch_defid();
    if (!id) {
        throw MirrorError(file_of(url) + " names no release");
    }
    return *std::move(id);
}

std::string BoundedClient::fetch_info_text(const std::string& id) {
    return fetch_text(urls_.complete_ini_url(id));
}

zqu::CompleteInfo BoundedClient::read_info(const std::string& text, const std::string& id) const {
    const MemoryFile copy(text);
    const zqu::Config cfg = copy.mirror();
    auto info = zqu::MirrorClient(cfg).fetch_complete_info("");  // libcurl would refuse a URL with some ids
    if (!info) {
        throw MirrorError(file_of(urls_.complete_ini_url(id)) + " names no archive or no digest");
    }
    if (info->defid.empty()) {
        info->defid = id;
    }
    return *std::move(info);
}

void BoundedClient::download(const std::string& name, const std::string& path) {
    const Handle<std::FILE, std::fclose> file(std::fopen(path.c_str(), "wbe"));
    if (!file) {
        throw MirrorError("cannot create " + path + ": " + std::strerror(errno));
    }
    Target target{largest_file, file.get()};
    transfer(urls_.file_url(name), target);
    if (std::fflush(file.get()) != 0) {
        throw MirrorError("cannot write " + path + ": " + std::strerror(errno));
    }
}

std::string BoundedClient::fetch_text(const std::string& url) {
    Target target{largest_ini};
    transfer(url, target);
    return std::move(target.text);
}

// With the daemon's options, to find what the daemon would find.
void BoundedClient::transfer(const std::string& url, Target& target) {
    if (curl_ == nullptr) {
        fail(url, "libcurl cannot be used");
    }
    require_usable_file(url, target.most);
    curl_easy_reset(curl_);
    curl_easy_setopt(curl_, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl_, CURLOPT_WRITEFUNCTION, write);
    curl_easy_setopt(curl_, CURLOPT_WRITEDATA, &target);
    curl_easy_setopt(curl_, CURLOPT_TIMEOUT, static_cast<long>(cfg_.http_timeout_s));
    curl_easy_setopt(curl_, CURLOPT_MAXFILESIZE_LARGE, static_cast<curl_off_t>(target.most));
    curl_easy_setopt(curl_, CURLOPT_FAILONERROR, 1L);
    curl_easy_setopt(curl_, CURLOPT_FOLLOWLOCATION, 1L);
    curl_easy_setopt(curl_, CURLOPT_SSL_VERIFYPEER, 1L);
    curl_easy_setopt(curl_, CURLOPT_SSL_VERIFYHOST, 2L);
    if (!cfg_.ca_path.empty()) {
        curl_easy_setopt(curl_, CURLOPT_CAINFO, cfg_.ca_path.c_str());
    }
    const CURLcode result = curl_easy_perform(curl_);
    if (result == CURLE_FILESIZE_EXCEEDED || target.taken > target.most) {
        fail_too_long(url, target.most);
    }
    if (result != CURLE_OK) {
        fail(url, curl_easy_strerror(result));
    }
}

// See CURLOPT_WRITEFUNCTION(3): another count than size * count makes libcurl abort the transfer.
std::size_t BoundedClient::write(char* data, std::size_t size, std::size_t count, void* target) {
    auto& to = *static_cast<Target*>(target);
    const std::size_t bytes = size * count;
    to.taken += bytes;
    if (to.taken > to.most) {
        return 0;
    }
    if (to.file != nullptr) {
        return std::fwrite(data, 1, bytes, to.file);
    }
    to.text.append(data, bytes);
    return bytes;
}

}  // namespace zqu::tools

#include "verifier.hpp"

#include <archive.h>
#include <archive_entry.h>
#include <fcntl.h>
#include <openssl/evp.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <fstream>
#include <memory>
#include <vector>

namespace zqu::verifier {
namespace {

constexpr std::size_t block_size = 65536;

struct FreeDigest {
    void operator()(EVP_MD_CTX* ctx) const { EVP_MD_CTX_free(ctx); }
};
struct FreeReader {
    void operator()(archive* reader) const { archive_read_free(reader); }
};
struct FreeWriter {
    void operator()(archive* writer) const { archive_write_free(writer); }
};

// Members are destroyed in reverse: the reader is always freed before the writer.
struct Archives {
    std::unique_ptr<archive, FreeWriter> writer;
    std::unique_ptr<archive, FreeReader> reader;
};

char lower(char c) {
    return static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
}

std::string lower(std::string s) {
    std::transform(s.begin(), s.end(), s.begin(), [](char c) { return lower(c); });
    return s;
}

std::string trim(const std::string& s) {
    const auto space = [](char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; };
    std::size_t start = 0;
    while (start < s.size() && space(s[start])) {
        ++start;
    }
    std::size_t end = s.size();
    while (end > start && space(s[end - 1])) {
        --end;
    }
    return s.substr(start, end - start);
}

bool ends_with(const std::string& s, const std::string& suffix) {
    return s.size() >= suffix.size() && s.compare(s.size() - suffix.size(), suffix.size(), suffix) == 0;
}

std::string to_hex(const unsigned char* bytes, unsigned int count) {
    static constexpr char digits[] = "0123456789abcdef";
    std::string hex;
    hex.reserve(2 * std::size_t{count});
    for (unsigned int i = 0; i < count; ++i) {
        hex += digits[bytes[i] >> 4];
        hex += digits[bytes[i] & 0x0F];
    }
    return hex;
}

// The file's SHA-256 in lower-case hexadecimal, or "" when it cannot be computed. A read error ends the file early;
// the comparison with the expected digest catches that.
std::string sha256_file(const std::string& path) {
    std::ifstream in(path, std::ios::in | std::ios::binary);
    if (!in) {
        return "";
    }
    std::unique_ptr<EVP_MD_CTX, FreeDigest> ctx(EVP_MD_CTX_new());
    if (!ctx || EVP_DigestInit_ex(ctx.get(), EVP_sha256(), nullptr) != 1) {
        return "";
    }
    std::vector<char> block(block_size);
    while (in) {
        in.read(block.data(), static_cast<std::streamsize>(block.size()));
        if (in.gcount() > 0) {
            EVP_DigestUpdate(ctx.get(), block.data(), static_cast<std::size_t>(in.gcount()));
        }
    }
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    EVP_DigestFinal_ex(ctx.get(), digest, &length);
    ctx.reset();
    return to_hex(digest, length);
}

bool fsync_path(const std::string& path, bool is_dir) {
    const int fd = open(path.c_str(), is_dir ? O_DIRECTORY : O_RDONLY);
    if (fd < 0) {
        syslog(LOG_WARNING, "fsync: open %s failed", path.c_str());
        return false;
    }
    const bool flushed = fsync(fd) == 0;
    close(fd);
    if (!flushed) {
        syslog(LOG_WARNING, "fsync: %s failed", path.c_str());
    }
    return flushed;
}

Archives open_archives() {
    Archives archives;
    archives.reader.reset(archive_read_new());
    archive_read_support_format_cab(archives.reader.get());
    archive_read_support_format_zip(archives.reader.get());
    archive_read_support_filter_all(archives.reader.get());
    archives.writer.reset(archive_write_disk_new());
    archive_write_disk_set_options(archives.writer.get(), ARCHIVE_EXTRACT_PERM | ARCHIVE_EXTRACT_TIME);
    return archives;
}

// Where an entry goes: the last component of its name, directly below dest_dir.
std::string output_path(archive_entry* entry, const std::string& dest_dir) {
    const char* name = archive_entry_pathname(entry);
    return dest_dir + "/" + std::filesystem::path(name != nullptr ? name : "").filename().string();
}

bool copy_data(archive* reader, archive* writer) {
    const void* block = nullptr;
    std::size_t size = 0;
    la_int64_t offset = 0;
    int result = archive_read_data_block(reader, &block, &size, &offset);
    while (result == ARCHIVE_OK) {
        // A failed write is not checked: intended. The file's digest catches it when the index names the file, but an
        // index that was itself written to a full disk does not.
        archive_write_data_block(writer, block, size, offset);
        result = archive_read_data_block(reader, &block, &size, &offset);
    }
    return result == ARCHIVE_EOF;
}

// Writes every entry and appends the paths of the regular files to files. Anything that ends the headers ends the
// extraction as a success: intended.
bool write_entries(archive* reader, archive* writer, const std::string& dest_dir, std::vector<std::string>& files) {
    archive_entry* entry = nullptr;
    while (archive_read_next_header(reader, &entry) == ARCHIVE_OK) {
        const std::string path = output_path(entry, dest_dir);
        archive_entry_set_pathname(entry, path.c_str());
        if (archive_write_header(writer, entry) != ARCHIVE_OK || !copy_data(reader, writer)) {
            return false;
        }
        if (archive_entry_filetype(entry) == AE_IFREG) {
            files.push_back(path);
        }
    }
    return true;
}

}  // namespace

bool verify(const std::string& path, const std::string& expected) {
    const std::string digest = sha256_file(path);
    if (digest.empty() || digest.size() != expected.size()) {
        return false;
    }
    return std::equal(digest.begin(), digest.end(), expected.begin(),
                      [](char a, char b) { return lower(a) == lower(b); });
}

bool extract(const std::string& cab_path, const std::string& dest_dir) {
    std::error_code ignored;  // a directory that is missing shows when an entry cannot be created
    std::filesystem::create_directories(dest_dir, ignored);
    Archives archives = open_archives();
    std::vector<std::string> files;
    if (archive_read_open_filename(archives.reader.get(), cab_path.c_str(), block_size) != ARCHIVE_OK) {
        syslog(LOG_ERR, "extract: cannot open %s: %s", cab_path.c_str(), archive_error_string(archives.reader.get()));
        return false;
    }
    if (!write_entries(archives.reader.get(), archives.writer.get(), dest_dir, files)) {
        return false;
    }
    archives.reader.reset();
    archives.writer.reset();  // finishes the last entry
    // A power cut after publication must not find a link to files that never reached the disk.
    for (const auto& file : files) {
        fsync_path(file, false);
    }
    fsync_path(dest_dir, true);
    return true;
}

std::map<std::string, std::string> parse_def_index(const std::string& text) {
    static const std::string digest_suffix = ".sha256";
    static const std::string file_suffix = ".def";
    std::map<std::string, std::string> index;
    for (std::size_t start = 0, end = 0; start < text.size(); start = end + 1) {
        end = std::min(text.find('\n', start), text.size());
        const std::string line = trim(text.substr(start, end - start));
        const auto equals = line.find('=');
        if (line.empty() || line.front() == ';' || line.front() == '#' || line.front() == '[' ||
            equals == std::string::npos) {
            continue;
        }
        const std::string key = trim(line.substr(0, equals));
        // The key must be longer than its suffix, while the name may be no more than its own: intended.
        if (key.size() <= digest_suffix.size() || !ends_with(lower(key), digest_suffix)) {
            continue;
        }
        const std::string name = key.substr(0, key.size() - digest_suffix.size());
        if (ends_with(lower(name), file_suffix)) {
            index[name] = lower(trim(line.substr(equals + 1)));
        }
    }
    return index;
}

}  // namespace zqu::verifier

// The least that an update can cost: the calls of libcurl, libcrypto and libarchive that one update makes, in the same
// order and with the same values (tests/bench/test_floor.py), and the system calls that put files and directories into
// place safely. It has no decisions, no error handling and no strings of its own. It leaves out the configuration, the
// status file and the log, reading and setting the names of entries, the index, existing files, and pruning. Paths are
// relative.
//
// usage: zqu_floor CA-FILE HIT-URL COMPLETE-URL ARCHIVE-URL DEFINITIONS-ROOT ID
//        zqu_floor CA-FILE HIT-URL
//
// The second form makes those calls of a check with nothing new that are of libcurl, and no others.
#include <archive.h>
#include <archive_entry.h>
#include <curl/curl.h>
#include <fcntl.h>
#include <openssl/evp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

namespace {

constexpr std::size_t block_size = 65536;
char block[block_size];
char answer[block_size];  // an INI file, which is never parsed
std::size_t answered = 0;

std::size_t keep(char* data, std::size_t size, std::size_t count, void* /*unused*/) {
    std::memcpy(answer + answered, data, size * count);
    answered += size * count;
    return size * count;
}

std::size_t store(char* data, std::size_t size, std::size_t count, void* file) {
    return std::fwrite(data, size, count, static_cast<std::FILE*>(file)) * size;
}

bool transfer(CURL* curl, const char* ca_path, const char* url, curl_write_callback write, void* target) {
    answered = 0;
    curl_easy_reset(curl);
    curl_easy_setopt(curl, CURLOPT_URL, url);
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, write);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, target);
    curl_easy_setopt(curl, CURLOPT_TIMEOUT, 300L);
    curl_easy_setopt(curl, CURLOPT_FAILONERROR, 1L);
    curl_easy_setopt(curl, CURLOPT_FOLLOWLOCATION, 1L);
    curl_easy_setopt(curl, CURLOPT_SSL_VERIFYPEER, 1L);
    curl_easy_setopt(curl, CURLOPT_SSL_VERIFYHOST, 2L);
    curl_easy_setopt(curl, CURLOPT_CAINFO, ca_path);
    return curl_easy_perform(curl) == CURLE_OK;
}

void digest(const char* path) {
    const int fd = open(path, O_RDONLY);
    EVP_MD_CTX* ctx = EVP_MD_CTX_new();
    EVP_DigestInit_ex(ctx, EVP_sha256(), nullptr);
    for (ssize_t count = 0; (count = read(fd, block, block_size)) > 0;) {
        EVP_DigestUpdate(ctx, block, static_cast<std::size_t>(count));
    }
    unsigned char result[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    EVP_DigestFinal_ex(ctx, result, &length);
    EVP_MD_CTX_free(ctx);
    close(fd);
}

void unpack(const char* path) {
    archive* reader = archive_read_new();
    archive_read_support_format_cab(reader);
    archive_read_support_format_zip(reader);
    archive_read_support_filter_all(reader);
    archive* writer = archive_write_disk_new();
    archive_write_disk_set_options(writer, ARCHIVE_EXTRACT_PERM | ARCHIVE_EXTRACT_TIME);
    archive_read_open_filename(reader, path, block_size);
    for (archive_entry* entry = nullptr; archive_read_next_header(reader, &entry) == ARCHIVE_OK;) {
        archive_write_header(writer, entry);
        const void* data = nullptr;
        std::size_t size = 0;
        la_int64_t offset = 0;
        while (archive_read_data_block(reader, &data, &size, &offset) == ARCHIVE_OK) {
            archive_write_data_block(writer, data, size, offset);
        }
    }
    archive_read_free(reader);
    archive_write_free(writer);
}

void flush(const char* path, int flags) {
    const int fd = open(path, flags);
    if (fd >= 0) {
        fsync(fd);
        close(fd);
    }
}

int check(const char* ca_path, const char* url) {
    curl_global_init(CURL_GLOBAL_ALL);
    CURL* curl = curl_easy_init();
    const bool whole = transfer(curl, ca_path, url, keep, answer);
    curl_easy_cleanup(curl);
    curl_global_cleanup();
    return whole ? 0 : 1;
}

}  // namespace

int main(int argc, char* argv[]) {
    if (argc == 3) {
        return check(argv[1], argv[2]);
    }
    if (argc != 7) {
        std::fputs("usage: zqu_floor CA-FILE HIT-URL COMPLETE-URL ARCHIVE-URL DEFINITIONS-ROOT ID\n", stderr);
        return 2;
    }
    const char* const root = argv[5];
    const char* const id = argv[6];
    const char* const files[] = {"antivir-v2.ini", "antivir-v2.def", "aivsecon-v2.def"};
    mkdir(root, 0777);
    char target[256];
    std::snprintf(target, sizeof target, "snapshots/%s", id);
    curl_global_init(CURL_GLOBAL_ALL);
    CURL* curl = curl_easy_init();
    if (chdir(root) != 0 || !transfer(curl, argv[1], argv[2], keep, answer) ||
        !transfer(curl, argv[1], argv[3], keep, answer) || mkdir("snapshots", 0777) != 0 || mkdir(target, 0777) != 0 ||
        chdir(target) != 0) {
        return 1;
    }
    std::FILE* file = std::fopen("archive.part", "wb");
    if (file == nullptr) {
        return 1;
    }
    const bool whole = transfer(curl, argv[1], argv[4], store, file);
    std::fclose(file);
    std::rename("archive.part", "archive");
    digest("archive");
    unpack("archive");
    for (const char* name : files) {
        flush(name, O_RDONLY);
    }
    flush(".", O_DIRECTORY);
    unlink("archive");
    digest(files[1]);
    digest(files[2]);
    unlink(files[0]);
    if (symlink(target, "../../active.tmp") != 0 || std::rename("../../active.tmp", "../../active") != 0) {
        return 1;
    }
    flush("../..", O_RDONLY | O_DIRECTORY);
    curl_easy_cleanup(curl);
    curl_global_cleanup();
    return whole ? 0 : 1;
}

// Preloaded into the daemon, writes down the library and system calls that its own code makes (not those that libraries
// make among themselves), in order and with their values, one line each, to the file that ZQU_CALL_FILE names.
//
// ZQU_FAULT=<function>:<n>:<value> makes the n-th call of a function fail: with that errno where the function sets it,
// with that result where it returns a code, with a null pointer where it returns a pointer. The value "term" raises
// SIGTERM before the call. ZQU_SLEEPS=<n> makes nanosleep return at once and the n-th one raise SIGTERM.
#include <archive.h>
#include <archive_entry.h>
#include <curl/curl.h>
#include <fcntl.h>
#include <openssl/evp.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <map>
#include <optional>
#include <sstream>
#include <string>

#include "program.hpp"

#undef curl_easy_setopt

namespace {

template <typename... Items>
void record(const Items&... items) {
    static const char* const path = std::getenv("ZQU_CALL_FILE");
    if (path == nullptr) {
        return;
    }
    static const auto real_open = next<int (*)(const char*, int, ...)>(&open, "open");
    static const auto real_close = next(&close, "close");
    std::ostringstream line;
    (line << ... << items) << '\n';
    const int fd = real_open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0666);
    if (write(fd, line.str().data(), line.str().size()) < 0) {
        std::abort();
    }
    real_close(fd);
}

// Counts a call; the value of the fault that is due at this one, if any.
std::optional<int> fault(const std::string& function) {
    static std::map<std::string, int> calls;
    const int number = ++calls[function];
    const char* faults = std::getenv("ZQU_FAULT");
    std::istringstream in(faults != nullptr ? faults : "");
    for (std::string item; in >> item;) {
        const std::string due = function + ":" + std::to_string(number) + ":";
        if (item.compare(0, due.size(), due) == 0) {
            record("fault ", item);
            if (item.substr(due.size()) == "term") {
                raise(SIGTERM);
                return std::nullopt;
            }
            return std::stoi(item.substr(due.size()));
        }
    }
    return std::nullopt;
}

std::string quoted(const char* text) {
    return text != nullptr ? "\"" + std::string(text) + "\"" : "null";
}

std::string option_value(CURLoption option, void* value) {
    if (option < CURLOPTTYPE_OBJECTPOINT) {
        return std::to_string(reinterpret_cast<long>(value));
    }
    const bool text = option == CURLOPT_URL || option == CURLOPT_CAINFO;
    return text ? quoted(static_cast<const char*>(value)) : value != nullptr ? "set" : "null";
}

}  // namespace

// A call of the program's own: recorded, and failed when a fault is due. Others go straight to the real function.
#define ZQU_INTERPOSE(result, name, parameters, arguments, on_fault, ...) \
    extern "C" result name parameters {                                   \
        static const auto real = next(&name, #name);                      \
        if (!in_program(__builtin_return_address(0))) {                   \
            return real arguments;                                        \
        }                                                                 \
        record(#name, __VA_ARGS__);                                       \
        if (const auto value = fault(#name)) {                            \
            on_fault;                                                     \
        }                                                                 \
        return real arguments;                                            \
    }
#define ZQU_ERRNO(failed) \
    errno = *value;       \
    return failed

ZQU_INTERPOSE(CURLcode, curl_global_init, (long flags), (flags), return static_cast<CURLcode>(*value), " ", flags)
ZQU_INTERPOSE(CURL*, curl_easy_init, (), (), return nullptr, "")
ZQU_INTERPOSE(void, curl_easy_reset, (CURL * curl), (curl), return, " ", curl)
ZQU_INTERPOSE(CURLcode, curl_easy_perform, (CURL * curl), (curl), return static_cast<CURLcode>(*value), " ", curl)
ZQU_INTERPOSE(void, curl_easy_cleanup, (CURL * curl), (curl), return, " ", curl)
ZQU_INTERPOSE(void, curl_global_cleanup, (), (), return, "")

#ifdef __clang__
#pragma clang diagnostic ignored "-Wvarargs"  // the option is promoted to an int: such is libcurl's interface
#endif
extern "C" CURLcode curl_easy_setopt(CURL* curl, CURLoption option, ...) {
    static const auto real = next<CURLcode (*)(CURL*, CURLoption, ...)>(&curl_easy_setopt, "curl_easy_setopt");
    std::va_list arguments;
    va_start(arguments, option);
    void* const value = va_arg(arguments, void*);
    va_end(arguments);
    if (in_program(__builtin_return_address(0))) {
        record("curl_easy_setopt ", curl, " ", curl_easy_option_by_id(option)->name, " ", option_value(option, value));
    }
    return real(curl, option, value);
}

ZQU_INTERPOSE(EVP_MD_CTX*, EVP_MD_CTX_new, (), (), return nullptr, "")
ZQU_INTERPOSE(int, EVP_DigestInit_ex, (EVP_MD_CTX * ctx, const EVP_MD* type, ENGINE* engine), (ctx, type, engine),
              return *value, " ", EVP_MD_get0_name(type), engine == nullptr ? " null" : " engine")
ZQU_INTERPOSE(int, EVP_DigestUpdate, (EVP_MD_CTX * ctx, const void* data, size_t size), (ctx, data, size),
              return *value, " ", size)
ZQU_INTERPOSE(int, EVP_DigestFinal_ex, (EVP_MD_CTX * ctx, unsigned char* digest, unsigned int* size),
              (ctx, digest, size), return *value, " ", *size)
ZQU_INTERPOSE(void, EVP_MD_CTX_free, (EVP_MD_CTX * ctx), (ctx), return, "")

ZQU_INTERPOSE(archive*, archive_read_new, (), (), return nullptr, "")
ZQU_INTERPOSE(int, archive_read_support_format_cab, (archive * a), (a), return *value, "")
ZQU_INTERPOSE(int, archive_read_support_format_zip, (archive * a), (a), return *value, "")
ZQU_INTERPOSE(int, archive_read_support_filter_all, (archive * a), (a), return *value, "")
ZQU_INTERPOSE(archive*, archive_write_disk_new, (), (), return nullptr, "")
ZQU_INTERPOSE(int, archive_write_disk_set_options, (archive * a, int flags), (a, flags), return *value, " ", flags)
ZQU_INTERPOSE(int, archive_read_open_filename, (archive * a, const char* path, size_t block), (a, path, block),
              return *value, " ", quoted(path), " ", block)
ZQU_INTERPOSE(int, archive_read_next_header, (archive * a, archive_entry** entry), (a, entry), return *value, "")
ZQU_INTERPOSE(const char*, archive_entry_pathname, (archive_entry * entry), (entry), return nullptr, "")
ZQU_INTERPOSE(void, archive_entry_set_pathname, (archive_entry * entry, const char* name), (entry, name), return, " ",
              quoted(name))
ZQU_INTERPOSE(int, archive_write_header, (archive * a, archive_entry* entry), (a, entry), return *value, "")
ZQU_INTERPOSE(int, archive_read_data_block, (archive * a, const void** block, size_t* size, la_int64_t* offset),
              (a, block, size, offset), return *value, "")
ZQU_INTERPOSE(la_ssize_t, archive_write_data_block, (archive * a, const void* block, size_t size, la_int64_t offset),
              (a, block, size, offset), return *value, " ", size, " ", offset)
ZQU_INTERPOSE(mode_t, archive_entry_filetype, (archive_entry * entry), (entry), return static_cast<mode_t>(*value), "")
ZQU_INTERPOSE(int, archive_read_free, (archive * a), (a), return *value, "")
ZQU_INTERPOSE(int, archive_write_free, (archive * a), (a), return *value, "")

ZQU_INTERPOSE(FILE*, fopen, (const char* path, const char* mode), (path, mode), ZQU_ERRNO(nullptr), " ", quoted(path),
              " ", quoted(mode))
ZQU_INTERPOSE(size_t, fwrite, (const void* data, size_t size, size_t count, FILE* file), (data, size, count, file),
              ZQU_ERRNO(count / 2), " ", size)
ZQU_INTERPOSE(int, fclose, (FILE * file), (file), ZQU_ERRNO((real(file), EOF)), "")
ZQU_INTERPOSE(int, rename, (const char* from, const char* to), (from, to), ZQU_ERRNO(-1), " ", quoted(from), " ",
              quoted(to))
ZQU_INTERPOSE(int, remove, (const char* path), (path), ZQU_ERRNO(-1), " ", quoted(path))
ZQU_INTERPOSE(int, unlink, (const char* path), (path), ZQU_ERRNO(-1), " ", quoted(path))
ZQU_INTERPOSE(int, symlink, (const char* target, const char* path), (target, path), ZQU_ERRNO(-1), " ", quoted(target),
              " ", quoted(path))
ZQU_INTERPOSE(int, fsync, (int fd), (fd), ZQU_ERRNO(-1), "")
ZQU_INTERPOSE(int, close, (int fd), (fd), ZQU_ERRNO((real(fd), -1)), "")
ZQU_INTERPOSE(sighandler_t, signal, (int number, sighandler_t handler), (number, handler), ZQU_ERRNO(SIG_ERR), " ",
              number)

namespace {

// The mode is passed on even where there is none: the system looks at it only when it creates a file.
int traced_open(const char* path, int flags, mode_t mode, const void* caller) {
    static const auto real = next<int (*)(const char*, int, ...)>(&open, "open");
    if (in_program(caller)) {
        record("open ", quoted(path), " ", flags);
        if (const auto value = fault("open")) {
            errno = *value;
            return -1;
        }
    }
    return real(path, flags, mode);
}

}  // namespace

#define ZQU_OPEN(name)                                                      \
    int name(const char* path, int flags, ...) {                            \
        std::va_list arguments;                                             \
        va_start(arguments, flags);                                         \
        const mode_t mode = va_arg(arguments, mode_t);                      \
        va_end(arguments);                                                  \
        return traced_open(path, flags, mode, __builtin_return_address(0)); \
    }

extern "C" {

ZQU_OPEN(open)
ZQU_OPEN(open64)

// glibc's own entry point for open under _FORTIFY_SOURCE, when the flags are no constant.
int __open_2(const char* path, int flags);
int __open_2(const char* path, int flags) {
    return traced_open(path, flags, 0, __builtin_return_address(0));
}

void openlog(const char* ident, int options, int facility) {
    static const auto real = next(&openlog, "openlog");
    record("openlog ", quoted(ident), " ", options, " ", facility);
    real(ident, options, facility);
}

void closelog() {
    static const auto real = next(&closelog, "closelog");
    record("closelog");
    real();
}

int nanosleep(const timespec* request, timespec* remainder) {
    static const auto real = next(&nanosleep, "nanosleep");
    const char* sleeps = std::getenv("ZQU_SLEEPS");
    if (!in_program(__builtin_return_address(0)) || sleeps == nullptr) {
        return real(request, remainder);
    }
    static int count = 0;
    record("nanosleep ", request->tv_sec, " ", request->tv_nsec, request == remainder ? " same" : " other");
    if (++count == std::stoi(sleeps)) {
        raise(SIGTERM);
    }
    return 0;
}

}  // extern "C"

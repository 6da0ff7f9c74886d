// Stands in for syslog(3) in tests: appends one line for each call to the file that ZQU_LOG_FILE names. Preloaded into
// the real programs, linked into the unit tests.
//
//   open <ident> <options> <facility>
//   <priority name> <text>
//   close
#include <fcntl.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <string>

// glibc's own entry point for syslog under _FORTIFY_SOURCE; no header declares it.
extern "C" __attribute__((format(printf, 3, 4))) void __syslog_chk(int priority, int flag, const char* format, ...);

namespace {

void append(const std::string& line) {
    const char* path = std::getenv("ZQU_LOG_FILE");
    if (path == nullptr) {
        return;
    }
    const int fd = open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0666);
    if (fd >= 0) {
        const std::string text = line + "\n";
        if (write(fd, text.data(), text.size()) < 0) {
            std::abort();
        }
        close(fd);
    }
}

__attribute__((format(printf, 2, 0))) void log(int priority, const char* format, std::va_list arguments) {
    static constexpr const char* names[] = {"emerg", "alert", "crit", "err", "warning", "notice", "info", "debug"};
    char* text = nullptr;
    if (vasprintf(&text, format, arguments) < 0) {
        std::abort();
    }
    // A facility in the priority would override the one given to openlog; show it.
    const int facility = priority & LOG_FACMASK;
    append(std::string(names[priority & LOG_PRIMASK]) + (facility != 0 ? "+" + std::to_string(facility) : "") + " " +
           text);
    std::free(text);
}

}  // namespace

extern "C" {

void openlog(const char* ident, int options, int facility) {
    append(std::string("open ") + ident + " " + std::to_string(options) + " " + std::to_string(facility));
}

void syslog(int priority, const char* format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    log(priority, format, arguments);
    va_end(arguments);
}

void __syslog_chk(int priority, int /*flag*/, const char* format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    log(priority, format, arguments);
    va_end(arguments);
}

void closelog() {
    append("close");
}

}  // extern "C"

// Replaces syslog(3) in tests: appends one line for each call to the file that ZQU_LOG_FILE names. Preloaded into
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

// glibc's own entry point for syslog under _FORTIFY_SOURCE; no header declares it.
extern "C" __attribute__((format(printf, 3, 4))) void __syslog_chk(int priority, int flag, const char* format, ...);

namespace {

// Without the heap, so that a test may let any allocation of the program fail.
void append(const char* line, std::size_t size) {
    const char* path = std::getenv("ZQU_LOG_FILE");
    if (path == nullptr) {
        return;
    }
    const int fd = open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0666);
    if (fd >= 0) {
        if (write(fd, line, size) < 0) {
            std::abort();
        }
        close(fd);
    }
}

__attribute__((format(printf, 1, 2))) void append_formatted(const char* format, ...) {
    char line[256];
    std::va_list arguments;
    va_start(arguments, format);
    const int size = std::vsnprintf(line, sizeof line, format, arguments);
    va_end(arguments);
    if (size < 0 || static_cast<std::size_t>(size) >= sizeof line) {
        std::abort();
    }
    append(line, static_cast<std::size_t>(size));
}

__attribute__((format(printf, 2, 0))) void log(int priority, const char* format, std::va_list arguments) {
    static constexpr const char* names[] = {"emerg", "alert", "crit", "err", "warning", "notice", "info", "debug"};
    static char line[64 << 20];  // of which only what is written takes memory
    // A facility in the priority would override the one given to openlog; show it.
    const int facility = priority & LOG_FACMASK;
    int size = std::snprintf(line, sizeof line, "%s", names[priority & LOG_PRIMASK]);
    if (facility != 0) {
        size += std::snprintf(line + size, 16, "+%d", facility);
    }
    line[size++] = ' ';
    size += std::vsnprintf(line + size, sizeof line - static_cast<std::size_t>(size), format, arguments);
    if (static_cast<std::size_t>(size) + 1 >= sizeof line) {
        std::abort();
    }
    line[size] = '\n';
    append(line, static_cast<std::size_t>(size) + 1);
}

}  // namespace

extern "C" {

void openlog(const char* ident, int options, int facility) {
    append_formatted("open %s %d %d\n", ident, options, facility);
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
    append_formatted("close\n");
}

}  // extern "C"

// Preloaded into the daemon, makes one allocation fail: the one that ZQU_FAIL_ALLOCATION numbers, counted from the
// opening of the log, by malloc, calloc and realloc, in the program and all libraries. At the end of the process the
// number of allocations goes to the file that ZQU_ALLOCATIONS_FILE names.
#include <dlfcn.h>
#include <fcntl.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdio>
#include <cstdlib>

// glibc's own names for what is replaced here; no header declares them.
extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* old, std::size_t size);
}

namespace {

bool counting = false;
unsigned long allocations = 0;
unsigned long allocations_of_start = 0;
unsigned long due = 0;

// Counts an allocation; returns whether it has to fail.
bool fails() {
    if (!counting || ++allocations != due) {
        return false;
    }
    errno = ENOMEM;
    return true;
}

__attribute__((destructor)) void report() {
    const char* const path = std::getenv("ZQU_ALLOCATIONS_FILE");
    const int fd = path != nullptr ? open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666) : -1;
    if (fd >= 0) {
        dprintf(fd, "%lu %lu\n", allocations_of_start, allocations);
        close(fd);
    }
}

}  // namespace

extern "C" {

void* malloc(std::size_t size) {
    return fails() ? nullptr : __libc_malloc(size);
}

void* calloc(std::size_t count, std::size_t size) {
    return fails() ? nullptr : __libc_calloc(count, size);
}

void* realloc(void* old, std::size_t size) {
    return fails() ? nullptr : __libc_realloc(old, size);
}

sighandler_t signal(int number, sighandler_t handler) {
    allocations_of_start = allocations;
    const auto real = reinterpret_cast<sighandler_t (*)(int, sighandler_t)>(dlsym(RTLD_NEXT, "signal"));
    return real(number, handler);
}

void openlog(const char* ident, int options, int facility) {
    const auto real = reinterpret_cast<void (*)(const char*, int, int)>(dlsym(RTLD_NEXT, "openlog"));
    real(ident, options, facility);
    const char* const number = std::getenv("ZQU_FAIL_ALLOCATION");
    due = number != nullptr ? std::strtoul(number, nullptr, 10) : 0;
    counting = true;
}

}  // extern "C"

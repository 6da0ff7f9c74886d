// Preloaded into the daemon, replaces the clock and the sleep of its own code, and writes down what its loop does, in
// order, one line each, to the descriptor that ZQU_PACE_EVENTS gives:
//
//   handler <number>                          signal(2) was called, and the handler is installed
//   signal <number>                           that handler has been called
//   time <epoch>                              the clock was read
//   sleep <seconds> <nanoseconds> same|other  a sleep begins; whether the time left goes into the same record
//   interrupted <seconds> <nanoseconds>       a signal broke it off, and so much is left
//   gate <bytes>                              the daemon waits for permission; what it holds in allocated memory
//
// The clock starts at ZQU_PACE_EPOCH and goes on by a second with every reading and with every sleep that ends.
// ZQU_PACE_SECOND_NS says how long a second of sleep lasts, in nanoseconds; 0 makes sleeps end at once.
// ZQU_PACE_GATES gives a descriptor to read 64-bit numbers from: the daemon waits for one before the first reading of
// the clock, and then before the n-th reading, n being the number it was given; at the end of the file it waits no
// more.
#include <malloc.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>

#include "program.hpp"

namespace {

constexpr std::int64_t billion = 1'000'000'000;

template <typename Number>
Number setting(const char* name, Number otherwise) {
    const char* value = std::getenv(name);
    return value != nullptr ? static_cast<Number>(std::atoll(value)) : otherwise;
}

// Allocates nothing: the daemon's memory is measured, and one of the callers is a signal handler.
__attribute__((format(printf, 1, 2))) void report(const char* format, ...) {
    static const int fd = setting("ZQU_PACE_EVENTS", -1);
    char line[100];
    std::va_list arguments;
    va_start(arguments, format);
    const int size = std::vsnprintf(line, sizeof line, format, arguments);
    va_end(arguments);
    if (write(fd, line, static_cast<std::size_t>(size)) != size) {
        std::abort();
    }
}

std::time_t& now() {
    static auto seconds = setting("ZQU_PACE_EPOCH", std::time_t{0});
    return seconds;
}

void wait_at_gate() {
    static const int fd = setting("ZQU_PACE_GATES", -1);
    static std::int64_t reading = 0;
    static std::int64_t gate = 1;
    if (++reading != gate || fd < 0) {
        return;
    }
    report("gate %zu\n", mallinfo2().uordblks);
    ssize_t size = 0;
    do {
        size = read(fd, &gate, sizeof gate);
    } while (size < 0 && errno == EINTR);
}

sighandler_t handlers[NSIG];

void on_signal(int number) {
    const int saved = errno;
    report("signal %d\n", number);
    handlers[number](number);
    errno = saved;
}

// For spans of a second at most: a longer one would overflow.
timespec scaled(const timespec& span, std::int64_t numerator, std::int64_t denominator) {
    const std::int64_t result = (span.tv_sec * billion + span.tv_nsec) * numerator / denominator;
    return {static_cast<int>(result / billion), static_cast<int>(result % billion)};
}

}  // namespace

extern "C" {

std::time_t time(std::time_t* result) {
    static const auto real = next(&time, "time");
    if (!in_program(__builtin_return_address(0))) {
        return real(result);
    }
    wait_at_gate();
    const std::time_t seconds = now()++;
    report("time %lld\n", static_cast<long long>(seconds));
    if (result != nullptr) {
        *result = seconds;
    }
    return seconds;
}

int nanosleep(const timespec* request, timespec* remainder) {
    static const auto real = next(&nanosleep, "nanosleep");
    static const std::int64_t second_ns = setting("ZQU_PACE_SECOND_NS", std::int64_t{0});
    if (!in_program(__builtin_return_address(0))) {
        return real(request, remainder);
    }
    report("sleep %lld %ld %s\n", static_cast<long long>(request->tv_sec), request->tv_nsec,
           request == remainder ? "same" : "other");
    timespec left{};
    const timespec span = scaled(*request, second_ns, billion);
    if (second_ns == 0 || real(&span, &left) == 0) {
        ++now();
        return 0;
    }
    if (remainder != nullptr) {
        *remainder = scaled(left, billion, second_ns);
        report("interrupted %lld %ld\n", static_cast<long long>(remainder->tv_sec), remainder->tv_nsec);
    }
    errno = EINTR;
    return -1;
}

sighandler_t signal(int number, sighandler_t handler) {
    static const auto real = next(&signal, "signal");
    if (!in_program(__builtin_return_address(0))) {
        return real(number, handler);
    }
    handlers[number] = handler;
    const sighandler_t former = real(number, on_signal);
    report("handler %d\n", number);
    return former;
}

}  // extern "C"

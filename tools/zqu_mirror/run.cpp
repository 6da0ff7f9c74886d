#include "run.hpp"

#include <poll.h>
#include <pthread.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cstring>
#include <ctime>
#include <utility>

#include "files.hpp"

namespace zqu::mirror_tool {

namespace fs = std::filesystem;

Run::Run() : arrivals_(signalfd(-1, &signals_, SFD_CLOEXEC)) {
    if (arrivals_.get() < 0) {
        fail_errno("cannot receive signals");
    }
    pthread_sigmask(SIG_BLOCK, &signals_, nullptr);
    watcher_ = std::thread([this] { watch(); });
}

Run::~Run() {
    over_ = true;
    pthread_kill(watcher_.native_handle(), SIGRTMIN);
    watcher_.join();  // never returns when the watcher is ending the process
    progress_.clear();
    undo();
}

void Run::make(const fs::path& path, const std::function<void()>& action) {
    const auto lock = hold();
    action();
    made_.push_back(path);
}

fs::path Run::make_scratch(const std::function<fs::path()>& action) {
    const auto lock = hold();
    return scratch_ = action();
}

void Run::commit(const std::function<void()>& action) {
    const auto lock = hold();
    action();
    made_.clear();
    committed_ = true;
}

void Run::step(const std::function<void()>& action) {
    const auto lock = hold();
    progress_.clear();
    action();
}

void Run::reopen() {
    const auto lock = hold();
    committed_ = false;
}

void Run::phase(const std::string& text, std::function<std::uintmax_t()> done) {
    const auto lock = hold();
    progress_.begin(text);
    bytes_ = 0;
    done_ = done ? std::move(done) : [this] { return bytes_.load(); };
}

void Run::phase(const std::string& text, const fs::path& growing) {
    phase(text, [growing] {
        std::error_code missing;
        const std::uintmax_t size = fs::file_size(growing, missing);
        return missing ? 0 : size;
    });
}

// A signal is taken under the lock only, by whichever thread comes first: one that came before the commit wins.
std::unique_lock<std::mutex> Run::hold() {
    std::unique_lock<std::mutex> lock(mutex_);
    const timespec at_once{};
    const int signal = sigtimedwait(&signals_, nullptr, &at_once);
    if (signal > 0 && !committed_ && !over_) {
        end_by(signal);
    }
    return lock;
}

void Run::watch() {
    constexpr int tick_ms = 500;
    while (!over_) {
        pollfd arrival{arrivals_.get(), POLLIN, 0};
        poll(&arrival, 1, tick_ms);
        const auto lock = hold();
        progress_.show(done_());
    }
}

// The lock is held to the end, so that the other thread neither makes nor says anything more.
void Run::end_by(int signal) {
    progress_.clear();
    undo();
    _exit(tools::give_up(std::string("ended by signal: ") + strsignal(signal), 128 + signal));
}

void Run::undo() {
    std::error_code ignored;
    // The main thread may still be adding files to the scratch directory when a signal ends the run.
    for (int attempts = 0; !scratch_.empty() && fs::exists(scratch_, ignored) && attempts < 100; ++attempts) {
        fs::remove_all(scratch_, ignored);
    }
    for (auto path = made_.rbegin(); path != made_.rend(); ++path) {
        fs::remove(*path, ignored);
    }
}

void Run::clean_up() {
    const auto lock = hold();
    undo();
    scratch_.clear();
    made_.clear();
}

// Those that were not ignored at the start, as by nohup(1), and one that wakes the watcher in the end.
sigset_t Run::ending_signals() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGRTMIN);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        struct sigaction at_start = {};
        sigaction(signal, nullptr, &at_start);
        if (at_start.sa_handler != SIG_IGN) {
            sigaddset(&signals, signal);
        }
    }
    return signals;
}

}  // namespace zqu::mirror_tool

// One run of a command: what must not outlive it when it ends early, the signals that may end it, and the progress
// shown on a terminal meanwhile.
//
// Everything made through the run is removed when the run ends without commit(), be it by an exception or by SIGINT,
// SIGTERM or SIGHUP, unless that was ignored at the start. A run that is killed removes nothing. One thread works with
// the run; a thread of the run's own takes the signals, because neither the core library nor libgcab can be interrupted
// in their work.
#pragma once

#include <atomic>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "descriptors.hpp"
#include "program.hpp"

namespace zqu::mirror_tool {

// Any member but advance() may end the process when a signal has come before the commit: it undoes what the run made,
// and gives up (program.hpp) with "ended by signal: <name>" and 128 + the signal's number. No destructor runs then.
//
// A signal waits while a member calls its action, which must not call the run. What an action throws passes through;
// its member has no other effect then.
class Run {
public:
    // Blocks the three signals in the calling thread, for good, and starts the thread that takes them. Throws
    // std::system_error when there is no descriptor or no thread to be had. At most one at a time, and made before
    // any other thread of the process.
    Run();

    // Undoes what was made, the newest first, and removes the scratch directory. What cannot be removed stays,
    // silently.
    ~Run();

    Run(const Run&) = delete;
    Run& operator=(const Run&) = delete;

    // Does what makes path appear, and remembers to remove it.
    void make(const std::filesystem::path& path, const std::function<void()>& action);

    // Makes the directory, whose path action returns, that is removed however the run ends, with all that it holds.
    // Returns that path. One per run.
    std::filesystem::path make_scratch(const std::function<std::filesystem::path()>& action);

    // Does what makes the run's work final: afterwards only the scratch directory is undone, also by a signal.
    void commit(const std::function<void()>& action);

    // After a commit: lets a signal end the run again.
    void reopen();

    // Does what cannot be undone. A signal that came before ends the run without it.
    void step(const std::function<void()>& action);

    // Undoes at once what would be undone at the end: for a caller that is about to unlock the directory.
    void clean_up();

    // Names what is going on now; nothing is shown while text is empty. Its bytes are those given to advance(), what
    // done() returns in any thread until the next phase, or the size of the file that grows. Clears what is shown.
    void phase(const std::string& text, std::function<std::uintmax_t()> done = {});
    void phase(const std::string& text, const std::filesystem::path& growing);

    // Adds to the bytes of the phase.
    void advance(std::size_t bytes) { bytes_ += bytes; }

private:
    [[nodiscard]] std::unique_lock<std::mutex> hold();
    void watch();
    [[noreturn]] void end_by(int signal);
    void undo();
    static sigset_t ending_signals();

    const sigset_t signals_ = ending_signals();
    const tools::Fd arrivals_;
    std::mutex mutex_;  // for all that follows, and for standard error
    std::vector<std::filesystem::path> made_;
    std::filesystem::path scratch_;
    bool committed_ = false;
    tools::Progress progress_;
    std::atomic<std::uintmax_t> bytes_{0};
    std::function<std::uintmax_t()> done_ = [] { return 0; };  // bytes of the phase
    std::atomic<bool> over_{false};
    std::thread watcher_;
};

}  // namespace zqu::mirror_tool

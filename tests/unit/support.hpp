// What the unit tests share: temporary directories, whole files and listings, the captured system log, archives made by
// libarchive and libgcab, a mirror on disk, and stand-ins for the clock, the process id and the sleep.
#pragma once

#include <gtest/gtest.h>
#include <sys/types.h>

#include <ctime>
#include <filesystem>
#include <functional>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "config.hpp"

namespace zqu::test {

namespace fs = std::filesystem;
using Lines = std::vector<std::string>;

// What a row of a table of cases begins with. The test of the row is named after it.
struct Verdict {
    Verdict(const char* text) : verdict(text) {}
    const char* verdict;
};
inline std::ostream& operator<<(std::ostream& out, const Verdict& row) {
    return out << row.verdict;
}
struct ByVerdict {
    template <typename Row>
    std::string operator()(const ::testing::TestParamInfo<Row>& info) const {
        return info.param.verdict;
    }
};

// A directory of its own, removed with all it holds unless the test fails.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    [[nodiscard]] const std::string& path() const { return path_; }
    [[nodiscard]] std::string operator/(const std::string& name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

void write_file(const std::string& path, const std::string& content);
[[nodiscard]] std::string read_file(const std::string& path);
[[nodiscard]] bool exists(const std::string& path);  // of the path itself, links not followed
void make_dirs(const std::string& path);

// Everything below dir, sorted: files by name, directories with a trailing "/", links as "name -> target".
[[nodiscard]] Lines listing(const std::string& dir);

[[nodiscard]] std::string sha256(const std::string& content);

// The bytes, of which those from begin up to end are inverted.
[[nodiscard]] std::string damaged(std::string bytes, std::size_t begin, std::size_t end);

// Captures what is sent to syslog(3) from its construction on.
class LogCapture {
public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    // "<priority> <text>" for each message so far, and forgets them.
    [[nodiscard]] Lines take();

private:
    TempDir dir_;
};

// Each test has a directory of its own, and has to take every line from the log.
class LoggedTest : public ::testing::Test {
protected:
    TempDir dir_;
    LogCapture log_;

    void TearDown() override { EXPECT_EQ(log_.take(), Lines{}); }
};

// Gives up the rights of the superuser until it is destroyed, so that permissions count. The temporary directories
// handed over become the unprivileged user's.
class AsOrdinaryUser {
public:
    explicit AsOrdinaryUser(std::initializer_list<std::string> directories);
    ~AsOrdinaryUser();
    AsOrdinaryUser(const AsOrdinaryUser&) = delete;
    AsOrdinaryUser& operator=(const AsOrdinaryUser&) = delete;

private:
    uid_t former_;
};

constexpr unsigned int regular_file = 0100000, directory = 0040000, symbolic_link = 0120000;  // as in stat(2)

struct ArchiveEntry {
    std::string name;
    std::string content{};
    unsigned int type = regular_file;
    unsigned int mode = 0644;
    std::string link_target{};
    std::time_t mtime = 1'700'000'000;
    int owner = 0;  // user and group
};

using Entries = std::vector<ArchiveEntry>;

void write_zip(const std::string& path, const Entries& entries);
void write_cab(const std::string& path, const Entries& entries);  // MSZIP, regular files only

// A mirror in a directory, reached by a file:// URL.
class Mirror {
public:
    explicit Mirror(std::string flavor = "v2");

    // A configuration that points at this mirror, with its definitions root and status file below root.
    [[nodiscard]] Config config(const std::string& root) const;

    // The archive's entries for a good release: both definition files and the index.
    [[nodiscard]] Entries release_entries(const std::string& id) const;

    // Announces the id with an archive of these entries, "release-<id>.cab".
    void publish(const std::string& id, const Entries& entries) const;
    void publish(const std::string& id) const { publish(id, release_entries(id)); }

    // Announces the id with these bytes as an archive of that name.
    void announce(const std::string& id, const std::string& cab, const std::string& bytes) const;

    void write(const std::string& name, const std::string& content) const;
    void remove(const std::string& name) const;
    [[nodiscard]] std::string path(const std::string& name) const;
    [[nodiscard]] std::string url(const std::string& name) const;

    // Content of a definition file of a release.
    [[nodiscard]] static std::string content(const std::string& file, const std::string& id);

private:
    TempDir dir_;
    std::string flavor_;
};

// Stand-ins for system calls, in force while an object of this class lives.
class FakeClock {
public:
    FakeClock();
    ~FakeClock();
    FakeClock(const FakeClock&) = delete;
    FakeClock& operator=(const FakeClock&) = delete;

    std::optional<std::time_t> now;
    std::optional<pid_t> pid;
    // What nanosleep(2) does: receives request and remainder, returns its result. Unset: it returns 0 at once.
    std::function<int(const timespec* request, timespec* remainder)> on_sleep;
    std::vector<timespec> sleeps;  // all requests so far
    // Called before each fsync(2), which then takes its course.
    std::function<void()> on_flush;
};

}  // namespace zqu::test

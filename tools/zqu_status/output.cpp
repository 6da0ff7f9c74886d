#include "output.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <system_error>

#include "file.hpp"

namespace zqu::status_tool {

namespace {

[[noreturn]] void fail(const std::string& text) {
    throw std::system_error(errno, std::generic_category(), text);
}

void write_all(int descriptor, const std::string& text, const std::string& name) {
    for (std::size_t done = 0; done < text.size();) {
        const ssize_t count = write(descriptor, text.data() + done, text.size() - done);
        if (count < 0 && errno != EINTR) {
            fail("cannot write " + name);
        }
        done += static_cast<std::size_t>(std::max<ssize_t>(count, 0));
    }
}

// Removes the file unless it has been renamed.
class Temporary {
public:
    explicit Temporary(std::string pattern) : path_(std::move(pattern)), file_(mkostemp(path_.data(), O_CLOEXEC)) {
        if (file_.descriptor() < 0) {
            fail("cannot make " + path_);
        }
    }
    ~Temporary() {
        if (!renamed_) {
            unlink(path_.c_str());
        }
    }
    Temporary(const Temporary&) = delete;
    Temporary& operator=(const Temporary&) = delete;

    void write(const std::string& text) {
        write_all(file_.descriptor(), text, path_);
        if (fchmod(file_.descriptor(), S_IRUSR | S_IWUSR | S_IRGRP | S_IROTH) != 0) {
            fail("cannot set the mode of " + path_);
        }
    }

    void rename_to(const std::string& path) {
        if (std::rename(path_.c_str(), path.c_str()) != 0) {
            fail("cannot rename to " + path);
        }
        renamed_ = true;
    }

private:
    std::string path_;
    const File file_;
    bool renamed_ = false;
};

std::string variable(const char* name) {
    const char* value = std::getenv(name);
    return value == nullptr ? "" : value;
}

}  // namespace

void print(const std::string& text) {
    write_all(STDOUT_FILENO, text, "to standard output");
}

void replace_file(const std::string& path, const std::string& text) {
    const std::filesystem::path target(path);
    const std::string name = "." + target.filename().string() + ".XXXXXX";
    Temporary temporary(target.parent_path() / name);
    temporary.write(text);
    temporary.rename_to(path);
}

bool colour_wanted() {
    const std::string terminal = variable("TERM");
    return isatty(STDOUT_FILENO) == 1 && variable("NO_COLOR").empty() && !terminal.empty() && terminal != "dumb";
}

void complain(const std::string& text) {
    std::string line = text;
    std::replace_if(
        line.begin(), line.end(), [](char c) { return (c >= 0 && c < ' ') || c == '\x7f'; }, '?');
    std::fprintf(stderr, "zqu-status: %s\n", line.c_str());
}

}  // namespace zqu::status_tool

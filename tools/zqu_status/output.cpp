#include "output.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <utility>

#include "descriptors.hpp"

namespace zqu::status_tool {

namespace {

// The content to be of a target; removed unless it has been put in its place.
class Temporary {
public:
    Temporary(const std::string& pattern, std::string target)
        : target_(std::move(target)), path_(pattern), file_(mkostemp(path_.data(), O_CLOEXEC)) {
        if (file_.get() < 0) {
            tools::fail_errno("cannot write " + target_);
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
        tools::write_all(file_.get(), text, target_);
        if (fchmod(file_.get(), S_IRUSR | S_IWUSR | S_IRGRP | S_IROTH) != 0) {
            tools::fail_errno("cannot write " + target_);
        }
    }

    void put_in_place() {
        if (std::rename(path_.c_str(), target_.c_str()) != 0) {
            tools::fail_errno("cannot replace " + target_);
        }
        renamed_ = true;
    }

private:
    const std::string target_;
    std::string path_;
    const tools::Fd file_;
    bool renamed_ = false;
};

std::string variable(const char* name) {
    const char* value = std::getenv(name);
    return value == nullptr ? "" : value;
}

}  // namespace

void replace_file(const std::string& path, const std::string& text) {
    const std::filesystem::path target(path);
    const std::string name = "." + target.filename().string() + ".XXXXXX";
    Temporary temporary(target.parent_path() / name, path);
    temporary.write(text);
    temporary.put_in_place();
}

bool colour_wanted() {
    const std::string terminal = variable("TERM");
    return isatty(STDOUT_FILENO) == 1 && variable("NO_COLOR").empty() && !terminal.empty() && terminal != "dumb";
}

}  // namespace zqu::status_tool

// Feeds the extraction with what may be a CAB or a ZIP, from within its destination as the daemon does. For any
// archive, the files beside the destination must stay as they are, and nothing may be added there.
//
// The archive may ask for anything: the target gives up the superuser's rights, and no file may grow large.
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <set>

#include "fuzz.hpp"
#include "verifier.hpp"

namespace {

namespace fs = std::filesystem;

bool enter_sandbox() {
    constexpr rlim_t largest_file = 1 << 20;
    constexpr uid_t nobody = 65534;
    const rlimit limit{largest_file, largest_file};
    zqu::fuzz::require(setrlimit(RLIMIT_FSIZE, &limit) == 0 && std::signal(SIGXFSZ, SIG_IGN) != SIG_ERR);
    if (geteuid() == 0) {
        zqu::fuzz::require(setgid(nobody) == 0 && setuid(nobody) == 0);
    }
    umask(0077);
    return true;
}

void make_accessible(const std::string& directory) {
    zqu::fuzz::require(chmod(directory.c_str(), S_IRWXU) == 0);
}

std::set<std::string> names_in(const std::string& directory) {
    std::set<std::string> names;
    for (const auto& entry : fs::directory_iterator(directory)) {
        names.insert(entry.path().filename().string());
    }
    return names;
}

// Directories that the archive made may have a mode that keeps even their owner from removing them.
void empty_out(const std::string& directory) {
    for (const auto& entry : fs::directory_iterator(directory)) {
        if (fs::is_directory(entry.symlink_status())) {
            make_accessible(entry.path());
            zqu::fuzz::require(names_in(entry.path()).empty());
        }
        fs::remove(entry.path());
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const bool in_sandbox = enter_sandbox();
    zqu::fuzz::require(in_sandbox);
    const zqu::fuzz::Directory directory;
    const std::string content = zqu::fuzz::to_string(data, size);
    const std::string stage = directory / "stage";
    const std::string other = directory / "other";
    fs::create_directory(stage);
    zqu::fuzz::write_file(stage + "/archive", content);
    zqu::fuzz::write_file(other, content);

    static_cast<void>(zqu::verifier::extract(stage + "/archive", stage));

    make_accessible(directory.path());  // an entry named ".." sets the mode of the directory above
    zqu::fuzz::require(names_in(directory.path()) == std::set<std::string>{"other", "stage"});
    struct stat after = {};
    zqu::fuzz::require(lstat(other.c_str(), &after) == 0 && S_ISREG(after.st_mode) && after.st_nlink == 1);
    zqu::fuzz::require(zqu::fuzz::read_file(other) == content);
    zqu::fuzz::require(fs::is_directory(fs::symlink_status(stage)));
    make_accessible(stage);
    empty_out(stage);
    return 0;
}

#include "reading.hpp"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <system_error>

#include "descriptors.hpp"
#include "keys.hpp"
#include "settings.hpp"
#include "text.hpp"

namespace zqu::config_tool {

namespace {

std::string what_comes_of(mode_t mode) {
    if (S_ISDIR(mode)) {
        return "is a folder: the daemon would go by its defaults, without a word";
    }
    if (S_ISFIFO(mode)) {
        return "is a FIFO: the daemon would wait at its start until something is written to it";
    }
    return "is no regular file";
}

std::string cannot_be_read() {
    return std::string("cannot be read: ") + std::strerror(errno) + " (the daemon would go by its defaults)";
}

// Returns why text is not the whole of the file; empty when it is.
std::string read_file(const std::string& path, std::string& text) {
    struct stat status {};
    if (stat(path.c_str(), &status) != 0) {
        return cannot_be_read();
    }
    if (!S_ISREG(status.st_mode)) {
        return what_comes_of(status.st_mode);
    }
    const tools::Fd file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    if (file.get() < 0) {
        return cannot_be_read();
    }
    std::array<char, 65536> block{};
    ssize_t size = 0;
    while ((size = read(file.get(), block.data(), block.size())) > 0) {
        text.append(block.data(), static_cast<std::size_t>(size));
        if (text.size() > zqu::tools::largest_config) {
            return "is longer than " + std::to_string(zqu::tools::largest_config) + " bytes: it is not looked at";
        }
    }
    return size == 0 ? "" : std::string("cannot be read to its end: ") + std::strerror(errno);
}

// Through a file in memory, so that both readers have the same text, whatever happens to the file meanwhile.
zqu::tools::Configuration read_as_the_daemon(const std::string& text) {
    const tools::Fd memory(memfd_create("zqu-config", MFD_CLOEXEC));
    for (std::size_t done = 0; done < text.size();) {
        const ssize_t size = write(memory.get(), text.data() + done, text.size() - done);
        if (size <= 0) {
            throw std::system_error(errno, std::generic_category(), "cannot write a file in memory");
        }
        done += static_cast<std::size_t>(size);
    }
    return zqu::tools::load_configuration("/proc/self/fd/" + std::to_string(memory.get()));
}

void require_agreement(const std::string& path, const Effective& ours, const zqu::tools::Configuration& daemons) {
    if (!daemons.opened) {
        throw std::system_error(errno, std::generic_category(), "cannot open a file in memory below /proc");
    }
    std::string differing;
    for (const Key& key : keys) {
        const bool same = key.text != nullptr ? ours.cfg.*key.text == daemons.cfg.*key.text
                                              : ours.cfg.*key.number == daemons.cfg.*key.number;
        if (!same) {
            differing += std::string(" ") + key.name;
        }
    }
    if ((ours.fatal != 0) != daemons.fatal) {
        differing += " (whether a number ends the daemon)";
    }
    if (!differing.empty()) {
        throw Disagreement("internal: " + tools::printable(path) + ": the daemon's reader differs on" + differing);
    }
}

}  // namespace

Reading read_configuration(const std::string& path) {
    Reading reading;
    reading.path = path;
    reading.trouble = read_file(path, reading.text);
    if (reading.trouble.empty()) {
        reading.lines = scan(reading.text);
        reading.effective = evaluate(reading.lines);
        require_agreement(path, reading.effective, read_as_the_daemon(reading.text));
    }
    return reading;
}

}  // namespace zqu::config_tool

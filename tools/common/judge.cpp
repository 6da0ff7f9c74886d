#include <archive.h>
#include <archive_entry.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <new>
#include <set>

#include "client.hpp"
#include "descriptors.hpp"
#include "digest.hpp"
#include "inspect.hpp"
#include "verifier.hpp"

namespace zqu::tools {

namespace {

constexpr std::size_t block_size = 65536;
constexpr std::size_t most_listed = 20;
constexpr std::uintmax_t most_unpacked = 3 * largest_file;

using Reader = Handle<archive, archive_read_free>;
using Consume = std::function<void(const char*, std::size_t)>;

// Why clients cannot unpack the archive.
struct Unusable : std::runtime_error {
    using std::runtime_error::runtime_error;
};

[[noreturn]] void refuse(archive* reader) {
    const char* reason = archive_error_string(reader);
    throw Unusable(reason != nullptr ? reason : "libarchive failed");
}

// The formats, filters and blocks of the daemon.
Reader open_archive(int fd) {
    Reader reader(archive_read_new());
    archive_read_support_format_cab(reader.get());
    archive_read_support_format_zip(reader.get());
    archive_read_support_filter_all(reader.get());
    if (archive_read_open_fd(reader.get(), fd, block_size) != ARCHIVE_OK) {
        refuse(reader.get());
    }
    return reader;
}

// Reads the entry's data to the end, and returns how long it is.
std::uintmax_t stream(archive* reader, const std::string& name, const Consume& consume) {
    const void* block = nullptr;
    std::size_t size = 0;
    la_int64_t offset = 0;
    std::uintmax_t total = 0;
    int result = archive_read_data_block(reader, &block, &size, &offset);
    while (result == ARCHIVE_OK) {
        total += size;
        if (total > largest_file) {
            throw Unusable(name + " is larger than a gateway accepts");
        }
        consume(static_cast<const char*>(block), size);
        result = archive_read_data_block(reader, &block, &size, &offset);
    }
    if (result != ARCHIVE_EOF) {
        refuse(reader);
    }
    return total;
}

std::string in_octal(mode_t mode) {
    char text[8];
    std::snprintf(text, sizeof text, "%04o", mode & 07777U);
    return text;
}

// Refuses what the daemon cannot make in the directory that it unpacks to. libarchive ends a directory's name with a
// slash: it then means that directory itself, and gives it its mode.
void require_possible(archive_entry* entry, const std::string& name) {
    const auto type = archive_entry_filetype(entry);
    const char* target = archive_entry_symlink(entry);
    const std::size_t length = target != nullptr ? std::string(target).size() : 0;
    const bool itself = name.empty() || name == "." || name == "..";
    if (type == AE_IFDIR && itself) {
        if ((archive_entry_perm(entry) & S_IRWXU) != S_IRWXU) {
            throw Unusable("a directory of mode " + in_octal(archive_entry_perm(entry)) + " locks clients out");
        }
    } else if (itself) {
        throw Unusable("an entry has no file name");
    } else if (name.size() > NAME_MAX) {
        throw Unusable("an entry's name is too long for a file");
    } else if (type == AE_IFLNK && (length == 0 || length >= PATH_MAX)) {
        throw Unusable("the link " + name + " leads nowhere");
    } else if (type == AE_IFCHR || type == AE_IFBLK) {
        throw Unusable(name + " is a device");
    } else if (archive_entry_size_is_set(entry) != 0 &&
               static_cast<std::uintmax_t>(archive_entry_size(entry)) > largest_file) {
        throw Unusable(name + " is larger than a gateway accepts");
    }
}

// An entry of a name that clients look for.
struct Wanted {
    std::string trouble;  // why clients cannot read it as it was read here; else empty
    std::string digest;
    std::string text;  // of the index
    std::uintmax_t size = 0;
    mode_t mode = 0;
};

class Contents {
public:
    Contents(const std::string& flavor, const Destination* to)
        : index_(index_name(flavor)), names_{antivir_name(flavor), aivsecon_name(flavor)}, to_(to) {}

    void read(int fd, const std::string& archive_name) {
        const Reader reader = open_archive(fd);
        archive_entry* entry = nullptr;
        int result = ARCHIVE_OK;
        while ((result = archive_read_next_header(reader.get(), &entry)) == ARCHIVE_OK) {
            take(reader.get(), entry);
        }
        if (result == ARCHIVE_FATAL) {
            refuse(reader.get());  // perhaps for lack of memory, by which gateways are killed
        }
        wanted_.erase(archive_name);
        others_.erase(archive_name);
    }

    void judge(Inspection& found) const {
        // An index that clients cannot read would leave the definitions unchecked.
        const auto index = wanted_.find(index_);
        if (index != wanted_.end() && !index->second.trouble.empty()) {
            found.remarks.push_back({"FAULT", index_ + " " + index->second.trouble});
        }
        if (index != wanted_.end() && index->second.trouble.empty()) {
            found.sizes[index_] = index->second.size;
        }
        const auto digests = zqu::verifier::parse_def_index(index != wanted_.end() ? index->second.text : "");
        for (const auto& name : names_) {
            judge_definition(name, digests, found);
        }
        for (const auto& other : others_) {
            found.remarks.push_back({"warning", other + " is in the archive too: clients drop it"});
        }
        if (more_ > 0) {
            found.remarks.push_back({"warning", std::to_string(more_) + " more entries: clients drop them"});
        }
    }

private:
    void take(archive* reader, archive_entry* entry) {
        const char* path = archive_entry_pathname(entry);
        const std::string name = std::filesystem::path(path != nullptr ? path : "").filename();
        require_possible(entry, name);
        if (name == index_ || name == names_[0] || name == names_[1]) {
            wanted_[name] = read_wanted(reader, entry, name);
            return;
        }
        count(stream(reader, name, [](const char*, std::size_t) {}));
        if (!name.empty() && others_.size() < most_listed) {
            others_.insert(name);
        } else if (!name.empty() && others_.count(name) == 0) {
            ++more_;
        }
    }

    void count(std::uintmax_t size) {
        total_ += size;
        if (total_ > most_unpacked) {
            throw Unusable("it unpacks to more than a gateway accepts");
        }
    }

    Wanted read_wanted(archive* reader, archive_entry* entry, const std::string& name) {
        const bool regular = archive_entry_filetype(entry) == AE_IFREG;
        const bool sized = archive_entry_size_is_set(entry) != 0;
        const auto stated = static_cast<std::uintmax_t>(archive_entry_size(entry));
        Wanted wanted;
        wanted.mode = archive_entry_perm(entry);
        Sha256 digest;
        wanted.size = stream(reader, name, [&, at = std::uintmax_t{0}](const char* data, std::size_t length) mutable {
            digest.add(data, length);
            write(name, at, data, length);
            at += length;
            if (name == index_ && wanted.text.size() <= largest_ini) {
                wanted.text.append(data, length);
            }
        });
        count(wanted.size);
        wanted.digest = digest.finish();
        if (name == index_ && wanted.size > largest_ini) {
            wanted.trouble = "is longer than " + std::to_string(largest_ini) + " bytes";
        } else if (!regular) {
            wanted.trouble = "is no regular file";
        } else if ((wanted.mode & S_IRUSR) == 0) {
            wanted.trouble = "has the mode " + in_octal(wanted.mode) + ": clients cannot read it";
        } else if (sized && wanted.size != stated) {
            wanted.trouble = "has another size than the archive says";  // clients cut it, or fill it up with zeros
        }
        return wanted;
    }

    // Of several entries with the name, the last one stays. A longer one before it must not reach what follows.
    void write(const std::string& name, std::uintmax_t at, const char* data, std::size_t length) const {
        if (to_ == nullptr || to_->places.count(name) == 0 || at >= to_->places.at(name).second) {
            return;
        }
        const auto [offset, most] = to_->places.at(name);
        if (lseek(to_->file, static_cast<off_t>(offset + at), SEEK_SET) < 0) {
            fail_errno("cannot write " + name);
        }
        write_all(to_->file, {data, in_memory(std::min<std::uintmax_t>(length, most - at))}, name);
    }

    void judge_definition(const std::string& name, const std::map<std::string, std::string>& digests,
                          Inspection& found) const {
        const auto remark = [&](const char* verdict, const std::string& text) {
            found.remarks.push_back({verdict, name + " " + text});
        };
        const auto entry = wanted_.find(name);
        if (entry == wanted_.end() || !entry->second.trouble.empty()) {
            remark("FAULT", entry == wanted_.end() ? "is not in the archive" : entry->second.trouble);
            return;
        }
        const Wanted& file = entry->second;
        const auto digest = digests.find(name);
        if (digest == digests.end()) {
            remark("warning", "has no digest in the index: clients take it unchecked");
        } else if (digest->second != file.digest) {
            remark("FAULT", "does not have the digest that the index gives");
        } else {
            remark("ok", "has the digest that the index gives");
        }
        if ((file.mode & S_IRGRP) == 0) {
            remark("warning", "has the mode " + in_octal(file.mode) + ": other users of a gateway cannot read it");
        }
        found.digests[name] = file.digest;
        found.sizes[name] = file.size;
    }

    const std::string index_;
    const std::vector<std::string> names_;  // of the two definition files
    const Destination* const to_;
    std::map<std::string, Wanted> wanted_;
    std::set<std::string> others_;
    std::size_t more_ = 0;
    std::uintmax_t total_ = 0;  // bytes of all entries
};

}  // namespace

std::string index_name(const std::string& flavor) {
    return "antivir-" + flavor + ".ini";
}

std::string antivir_name(const std::string& flavor) {
    return "antivir-" + flavor + ".def";
}

std::string aivsecon_name(const std::string& flavor) {
    return "aivsecon-" + flavor + ".def";
}

Inspection judge(int fd, const std::string& name, const std::string& flavor, const Destination* to) {
    Inspection found;
    Contents contents(flavor, to);
    try {
        contents.read(fd, name);
        found.remarks.push_back({"ok", name + " can be unpacked"});
        contents.judge(found);
    } catch (const Unusable& e) {
        found.remarks.push_back({"FAULT", name + " cannot be unpacked: " + e.what()});
    } catch (const std::bad_alloc&) {
        found.remarks.push_back({"FAULT", name + " cannot be unpacked: it needs more memory than a gateway gives"});
    }
    return found;
}

}  // namespace zqu::tools

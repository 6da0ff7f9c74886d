#include "plain.hpp"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>
#include <zstd.h>
#include <zstd_errors.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <sstream>

#include "client.hpp"
#include "digest.hpp"
#include "files.hpp"
#include "inspect.hpp"
#include "workplace.hpp"

namespace zqu::mirror_tool {

namespace fs = std::filesystem;

namespace {

const std::string key = "def.Current.";
const std::string delta_end = ".delta";
const std::string upstream_end = ".upstream";
constexpr std::size_t digits = 12;  // of the digest, in the name of a delta

// A file in memory, for as long as this lives.
class Mapping {
public:
    Mapping(const Fd& file, int protection) {
        const auto size = static_cast<std::uintmax_t>(lseek(file.get(), 0, SEEK_END));
        size_ = tools::in_memory(size);
        if (size_ != size) {
            fail("a file of " + std::to_string(size) + " bytes is too large for deltas on a 32-bit system");
        }
        data_ = mmap(nullptr, size_, protection, MAP_SHARED, file.get(), 0);
        if (data_ == MAP_FAILED) {
            fail_errno("cannot map " + std::to_string(size) + " bytes of a file into memory");
        }
    }
    ~Mapping() { munmap(data_, size_); }
    Mapping(const Mapping&) = delete;
    Mapping& operator=(const Mapping&) = delete;

    [[nodiscard]] void* data() const { return data_; }
    [[nodiscard]] std::size_t size() const { return size_; }

private:
    std::size_t size_;
    void* data_;
};

// A file inside a plain archive.
struct Member {
    std::string name;
    std::uint64_t size;
};

std::size_t header_size(const Member& member) {
    return 50 + member.name.size();
}

// Little-endian, as all numbers of a ZIP.
struct Bytes {
    std::string text;
    Bytes& add(int count, std::uint64_t value) {
        for (; count > 0; --count, value >>= 8) {
            text += static_cast<char>(value & 0xFF);
        }
        return *this;
    }
};

constexpr std::uint64_t elsewhere = 0xFFFFFFFF;  // in the field with 64 bits
constexpr std::uint64_t version = 45;            // of the format, that such fields need
constexpr std::uint64_t date = 0x21;             // 1980-01-01, the first one of the format
constexpr std::uint64_t unix_made = 3 << 8;
constexpr std::uint64_t mode = S_IFREG | 0444;

// What the header before a file and the directory's one have in common.
void add_common(Bytes& out, const Member& member, std::uint64_t crc, std::uint64_t extra) {
    out.add(2, version).add(2, 0).add(2, 0).add(2, 0).add(2, date).add(4, crc).add(4, elsewhere).add(4, elsewhere);
    out.add(2, member.name.size()).add(2, extra + 4);
}

void add_sizes(Bytes& out, const Member& member, std::uint64_t extra) {
    out.text += member.name;
    out.add(2, 1).add(2, extra).add(8, member.size).add(8, member.size);
}

std::string header_of(const Member& member, std::uint64_t crc) {
    Bytes out;
    out.add(4, 0x04034B50);
    add_common(out, member, crc, 16);
    add_sizes(out, member, 16);
    return out.text;
}

std::string directory_entry_of(const Member& member, std::uint64_t crc, std::uint64_t offset) {
    Bytes out;
    out.add(4, 0x02014B50).add(2, unix_made | version);
    add_common(out, member, crc, 24);
    out.add(8, 0).add(2, mode).add(4, elsewhere);
    add_sizes(out, member, 24);
    return out.add(8, offset).text;
}

std::string end_of(std::uint64_t count, std::uint64_t size, std::uint64_t offset) {
    Bytes out;
    out.add(4, 0x06064B50).add(8, 44).add(2, unix_made | version).add(2, version).add(8, 0);
    out.add(8, count).add(8, count).add(8, size).add(8, offset);
    out.add(4, 0x07064B50).add(4, 0).add(8, offset + size).add(4, 1);
    out.add(4, 0x06054B50).add(4, 0).add(2, count).add(2, count).add(4, elsewhere).add(4, elsewhere).add(2, 0);
    return out.text;
}

// Puts text into the file at an offset.
void put(const Fd& file, std::uint64_t at, const std::string& text) {
    if (lseek(file.get(), static_cast<off_t>(at), SEEK_SET) < 0) {
        fail_errno("cannot write the plain archive");
    }
    tools::write_all(file.get(), text, "the plain archive");
}

// Adds all but the files' contents, which are in their places: each behind its header, in the order of the members.
void finish(const Fd& file, const std::vector<Member>& members) {
    std::string directory;
    std::uint64_t at = 0;
    for (const auto& member : members) {
        at += header_size(member) + member.size;
    }
    put(file, at, "-");  // so that an empty file at the end, too, is within the mapping
    const Mapping all(file, PROT_READ);
    std::uint64_t offset = 0;
    for (const auto& member : members) {
        const auto* data = static_cast<const Bytef*>(all.data()) + offset + header_size(member);
        const std::uint64_t crc = crc32_z(0, data, tools::in_memory(member.size));
        directory += directory_entry_of(member, crc, offset);
        put(file, offset, header_of(member, crc));
        offset += header_size(member) + member.size;
    }
    put(file, at, directory + end_of(members.size(), directory.size(), at));
}

bool is_digest(const std::string& text) {
    return text.size() == 64 && text.find_first_not_of("0123456789abcdef") == std::string::npos;
}

bool is_size(std::uintmax_t size) {
    return size > 0 && size <= tools::largest_file;
}

void allocate(const Fd& file, std::uintmax_t size, const fs::path& path) {
    errno = posix_fallocate(file.get(), 0, static_cast<off_t>(size));  // no room would be SIGBUS later
    if (errno != 0) {
        fail_errno("cannot write " + path.string());
    }
}

// The smallest window that holds both files, or the largest one.
int window_for(std::uintmax_t size) {
    const ZSTD_bounds bounds = ZSTD_cParam_getBounds(ZSTD_c_windowLog);
    int log = bounds.lowerBound;
    while (log < bounds.upperBound && (std::uintmax_t{1} << log) < size) {
        ++log;
    }
    return log;
}

}  // namespace

PlainInfo plain_info(const std::string& info) {
    PlainInfo found;
    std::uintmax_t left = 0;
    std::istringstream lines(info);
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line);
        std::string name;
        std::string equals;
        Delta delta;
        words >> name >> equals;
        if (name == key + "plain.SHA256") {
            words >> found.sha256;
        } else if (name == key + "plain.size") {
            words >> found.size;
        } else if (name == key + "size") {
            words >> left;
        } else if (begins_with(name, key + "delta.") && words >> delta.from >> delta.size >> delta.sha256 &&
                   delta.from.size() <= NAME_MAX && unusable_id(delta.from).empty() && is_size(delta.size) &&
                   is_digest(delta.sha256)) {
            found.deltas.push_back(delta);
        }
    }
    std::sort(found.deltas.begin(), found.deltas.end(), [](auto& a, auto& b) { return a.size < b.size; });
    left = std::min(left, tools::largest_file);
    std::size_t number = 0;
    const auto beyond = std::find_if(found.deltas.begin(), found.deltas.end(), [&](const Delta& delta) {
        const bool fits = delta.size <= left && ++number <= most_deltas;
        left -= fits ? delta.size : 0;
        return !fits;
    });
    found.deltas.erase(beyond, found.deltas.end());
    return is_digest(found.sha256) && is_size(found.size) ? found : PlainInfo();
}

std::string lines_of(const PlainInfo& plain) {
    std::string text =
        key + "plain.SHA256 = " + plain.sha256 + "\n" + key + "plain.size = " + std::to_string(plain.size) + "\n";
    for (std::size_t i = 0; i < plain.deltas.size(); ++i) {
        const Delta& delta = plain.deltas[i];
        text += key + "delta." + std::to_string(i + 1) + " = " + delta.from + " " + std::to_string(delta.size) + " " +
                delta.sha256 + "\n";
    }
    return text;
}

std::string delta_name(const std::string& flavor, const std::string& id, const Delta& delta) {
    return stem(flavor, id) + "." + delta.sha256.substr(0, digits) + delta_end;
}

std::string plain_name(const std::string& flavor, const std::string& id) {
    return stem(flavor, id) + plain_end;
}

std::string upstream_info_name(const std::string& info) {
    return info + upstream_end;
}

std::string owner_of(const std::string& name) {
    const std::size_t end = 1 + digits + delta_end.size();
    if (ends_with(name, ".ini" + upstream_end)) {
        return name.substr(0, name.size() - upstream_end.size());
    }
    return ends_with(name, delta_end) && name.size() > end ? name.substr(0, name.size() - end) + ".ini" : "";
}

void write_plain(const fs::path& target, const std::string& index, const std::string& index_name,
                 const std::vector<Source>& sources) {
    const Fd file(target, O_RDWR | O_CREAT | O_EXCL);
    std::vector<Member> members{{index_name, index.size()}};
    put(file, header_size(members[0]), index);
    for (const auto& source : sources) {
        const Member& member =
            members.emplace_back(Member{source.name, static_cast<std::uint64_t>(source.before.st_size)});
        const off_t end = lseek(file.get(), static_cast<off_t>(header_size(member)), SEEK_CUR);
        tools::Sha256 digest;
        tools::read_blocks(source.path, [&](const char* data, std::size_t size) {
            tools::write_all(file.get(), {data, size}, "the plain archive");
            digest.add(data, size);
        });
        if (end < 0 || digest.finish() != source.digest) {
            fail(source.path.string() + " changed while it was read");
        }
    }
    finish(file, members);
}

void convert_to_plain(const fs::path& archive, const std::string& name, const std::string& flavor,
                      const fs::path& target, Run& run) {
    const auto first = inspect_in(run, "reading the archive", archive, name, flavor);
    refuse(name + " is refused:", tools::first_fault(first));
    const Fd file(target, O_RDWR | O_CREAT | O_EXCL);
    tools::Destination to{file.get(), {}};
    std::vector<Member> members;
    std::uint64_t at = 0;
    for (const auto& each : {tools::index_name(flavor), tools::antivir_name(flavor), tools::aivsecon_name(flavor)}) {
        const auto size = first.sizes.find(each);
        if (size != first.sizes.end()) {
            const Member& member = members.emplace_back(Member{each, std::min(size->second, tools::largest_file)});
            to.places[each] = {at + header_size(member), member.size};
            at += header_size(member) + member.size;
        }
    }
    const auto second = tools::inspect(
        archive, name, flavor, [&](const auto& position) { run.phase("unpacking the archive", position); }, &to);
    if (second.digests != first.digests || second.sizes != first.sizes) {
        fail(name + " changed while it was read");
    }
    finish(file, members);
}

bool make_delta(const fs::path& from, const fs::path& to, const fs::path& target, std::uintmax_t most) {
    const Fd file(target, O_RDWR | O_CREAT | O_EXCL);
    allocate(file, most, target);
    const Mapping before(Fd(from, O_RDONLY), PROT_READ);
    const Mapping after(Fd(to, O_RDONLY), PROT_READ);
    const Mapping out(file, PROT_READ | PROT_WRITE);
    const tools::Handle<ZSTD_CCtx, ZSTD_freeCCtx> context(ZSTD_createCCtx());
    const std::pair<ZSTD_cParameter, int> settings[] = {{ZSTD_c_compressionLevel, 3},
                                                        {ZSTD_c_enableLongDistanceMatching, 1},
                                                        {ZSTD_c_windowLog, window_for(before.size() + after.size())}};
    for (const auto& [parameter, value] : settings) {
        require_zstd(ZSTD_CCtx_setParameter(context.get(), parameter, value));
    }
    require_zstd(ZSTD_CCtx_refPrefix(context.get(), before.data(), before.size()));
    const std::size_t size = ZSTD_compress2(context.get(), out.data(), out.size(), after.data(), after.size());
    if (ZSTD_getErrorCode(size) == ZSTD_error_dstSize_tooSmall) {
        return false;
    }
    if (ftruncate(file.get(), static_cast<off_t>(require_zstd(size))) != 0) {
        fail_errno("cannot write " + target.string());
    }
    return true;
}

void apply_delta(const fs::path& from, const fs::path& delta, const fs::path& target, std::uintmax_t size) {
    const Fd before = tools::open_regular(from);
    const Fd change = tools::open_regular(delta);
    const Fd file(target, O_RDWR | O_CREAT | O_EXCL);
    allocate(file, size, target);
    const auto apply = [&] {
        const Mapping old(before, PROT_READ);
        const Mapping frame(change, PROT_READ);
        const Mapping out(file, PROT_READ | PROT_WRITE);
        const tools::Handle<ZSTD_DCtx, ZSTD_freeDCtx> context(ZSTD_createDCtx());
        require_zstd(ZSTD_DCtx_refPrefix(context.get(), old.data(), old.size()));
        if (require_zstd(ZSTD_decompressDCtx(context.get(), out.data(), out.size(), frame.data(), frame.size())) !=
            out.size()) {
            fail("the delta gives another size");
        }
        return std::string();
    };
    tools::in_confinement({before.get(), change.get(), file.get()}, apply, "applies the delta");
}

}  // namespace zqu::mirror_tool

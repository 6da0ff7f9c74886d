// zqu-mirror: publishes releases on a definition mirror, and checks a mirror the way a client reads it.
//
// A release becomes current by one rename(2), that of the hit INI, and everything it names is on disk by then. All that
// a run writes before that is undone when the run fails or is ended by SIGINT, SIGTERM or SIGHUP. A run that is killed
// leaves its work folder, which the next one removes, and perhaps files of its release that the hit INI does not name.
#include <archive.h>
#include <archive_entry.h>
#include <fcntl.h>
#include <libgcab.h>
#include <limits.h>
#include <openssl/evp.h>
#include <poll.h>
#include <pthread.h>
#include <sys/file.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <sstream>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "config.hpp"
#include "mirror_client.hpp"
#include "verifier.hpp"

namespace {

namespace fs = std::filesystem;

// 65535 blocks of 32 KiB is all that one CAB folder holds. libgcab writes no second folder, and beyond this it writes
// an archive that cannot be read, without an error.
constexpr std::uintmax_t cab_capacity = std::uintmax_t{65535} * 32768;
constexpr std::size_t block_size = 65536;

template <auto release>
struct Release {
    template <typename T>
    void operator()(T* handle) const {
        release(handle);
    }
};
template <typename T, auto release>
using Handle = std::unique_ptr<T, Release<release>>;

struct Options {
    std::string mirror;
    std::string subdir = zqu::Config().mirror_subdir;
    std::string flavor = zqu::Config().flavor;
    std::string id;
    std::string antivir;
    std::string aivsecon;
    std::string ca;
    bool zip = false;
};

// The digest index goes first into an archive, then the two definition files.
struct Source {
    fs::path path;
    std::string name;  // inside the archive
    struct stat before {};
    std::string digest;
};

[[noreturn]] void fail(const std::string& text) {
    throw std::runtime_error(text);
}

[[noreturn]] void fail_errno(const std::string& text) {
    throw std::system_error(errno, std::generic_category(), text);
}

// One line whatever a path may hold.
void complain(std::string text) {
    std::replace_if(
        text.begin(), text.end(), [](char c) { return (c >= 0 && c < ' ') || c == '\x7f'; }, '?');
    std::fprintf(stderr, "zqu-mirror: %s\n", text.c_str());
}

class Fd {
public:
    Fd(int fd, const std::string& what) : fd_(fd) {
        if (fd_ < 0) {
            fail_errno("cannot open " + what);
        }
    }
    Fd(const fs::path& path, int flags) : Fd(open(path.c_str(), flags | O_CLOEXEC, 0666), path.string()) {}
    ~Fd() { close(fd_); }
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
    [[nodiscard]] int get() const { return fd_; }

private:
    int fd_;
};

// What must not outlive a run that ends early, the signals that may end it, and the progress shown meanwhile. A thread
// of its own takes the signals, because neither the core library nor libgcab can be interrupted in their work.
class Run {
public:
    Run() {
        pthread_sigmask(SIG_BLOCK, &signals_, nullptr);
        watcher_ = std::thread([this] { watch(); });
    }

    ~Run() {
        over_ = true;
        pthread_kill(watcher_.native_handle(), SIGHUP);
        watcher_.join();  // never returns when the watcher is ending the process
        clear_progress();
        undo();
    }

    Run(const Run&) = delete;
    Run& operator=(const Run&) = delete;

    // Does what makes path appear, and remembers to remove it. A signal waits meanwhile.
    template <typename Action>
    void make(const fs::path& path, Action action) {
        const auto lock = hold();
        action();
        made_.push_back(path);
    }

    // Makes the folder, whose path action returns, that is removed however the run ends, with all that it holds.
    template <typename Action>
    fs::path make_scratch(Action action) {
        const auto lock = hold();
        return scratch_ = action();
    }

    // Does what makes the run's work good: nothing but the scratch folder is undone afterwards, by no signal either.
    template <typename Action>
    void commit(Action action) {
        const auto lock = hold();
        action();
        made_.clear();
        committed_ = true;
    }

    // Names what is going on now. Its bytes are those told to advance(), or the size of the file that grows.
    void phase(const std::string& text, const fs::path& growing = {}) {
        const auto lock = hold();
        clear_progress();
        phase_ = text;
        growing_ = growing;
        bytes_ = 0;
    }

    void advance(std::size_t bytes) { bytes_ += bytes; }

private:
    // A signal is taken under the lock only, by whichever thread comes first: one that came before the commit wins.
    [[nodiscard]] std::unique_lock<std::mutex> hold() {
        std::unique_lock<std::mutex> lock(mutex_);
        const timespec at_once{};
        const int signal = sigtimedwait(&signals_, nullptr, &at_once);
        if (signal > 0 && !committed_ && !over_) {
            end_by(signal);
        }
        return lock;
    }

    void watch() {
        constexpr int tick_ms = 500;
        while (!over_) {
            pollfd arrival{arrivals_.get(), POLLIN, 0};
            poll(&arrival, 1, tick_ms);
            const auto lock = hold();
            show_progress();
        }
    }

    // The lock is held to the end, so that the other thread neither makes nor says anything more.
    [[noreturn]] void end_by(int signal) {
        setlogmask(LOG_MASK(LOG_EMERG));  // nor the core library, whose files vanish under it
        clear_progress();
        undo();
        complain(std::string("ended by signal: ") + strsignal(signal));
        _exit(128 + signal);
    }

    void undo() {
        std::error_code ignored;
        // The main thread may still be adding files to the scratch folder when a signal ends the run.
        for (int attempts = 0; !scratch_.empty() && fs::exists(scratch_, ignored) && attempts < 100; ++attempts) {
            fs::remove_all(scratch_, ignored);
        }
        for (auto path = made_.rbegin(); path != made_.rend(); ++path) {
            fs::remove(*path, ignored);
        }
    }

    void show_progress() {
        if (!on_terminal_ || phase_.empty()) {
            return;
        }
        std::error_code missing;
        const std::uintmax_t size = growing_.empty() ? bytes_.load() : fs::file_size(growing_, missing);
        const unsigned long long megabytes = missing ? 0 : size / 1'000'000;
        std::fprintf(stderr, "\033[Kzqu-mirror: %s: %llu MB\r", phase_.c_str(), megabytes);
        shown_ = true;
    }

    void clear_progress() {
        if (shown_) {
            std::fputs("\033[K", stderr);
            shown_ = false;
        }
    }

    static sigset_t ending_signals() {
        sigset_t signals;
        sigemptyset(&signals);
        for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
            sigaddset(&signals, signal);
        }
        return signals;
    }

    const sigset_t signals_ = ending_signals();
    const Fd arrivals_{signalfd(-1, &signals_, SFD_CLOEXEC), "a signalfd"};
    std::mutex mutex_;
    std::vector<fs::path> made_;
    fs::path scratch_;
    bool committed_ = false;
    const bool on_terminal_ = isatty(STDERR_FILENO) == 1;
    bool shown_ = false;
    std::string phase_;
    fs::path growing_;
    std::atomic<std::uintmax_t> bytes_{0};
    std::atomic<bool> over_{false};
    std::thread watcher_;
};

// ---- Names ----

// The daemon puts ids, flavors and subfolders into URLs and paths as they stand. What survives that unencoded is a path
// segment's characters (RFC 3986, section 3.3) without the percent sign; "=" would part the index's keys.
std::string unusable_name(const std::string& name) {
    static const std::string marks = "-._~!$&'()*+,;:@";
    const auto usable = [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
               marks.find(c) != std::string::npos;
    };
    if (name.empty() || name == "." || name == "..") {
        return "must not be empty, \".\" or \"..\"";
    }
    if (!std::all_of(name.begin(), name.end(), usable)) {
        return "may hold only letters, digits and " + marks + " (clients could not fetch it otherwise)";
    }
    return "";
}

std::string unusable_subdir(const std::string& subdir) {
    std::istringstream in(subdir);
    std::string reason;
    for (std::string part; reason.empty() && std::getline(in, part, '/');) {
        reason = part.empty() ? "" : unusable_name(part);
    }
    return reason;
}

bool is_url(const std::string& mirror) {
    return mirror.find("://") != std::string::npos;
}

// The archive and the INI that describes it share a stem, so that no two flavors and ids share an archive.
std::string stem(const Options& options) {
    return "antivir-" + options.flavor + "-c-" + options.id;
}

std::string hit_name(const Options& options) {
    return "antivir-" + options.flavor + "-hit.ini";
}

std::string index_name(const Options& options) {
    return "antivir-" + options.flavor + ".ini";
}

fs::path folder(const Options& options) {
    const auto start = std::min(options.subdir.find_first_not_of('/'), options.subdir.size());
    return fs::path(options.mirror) / options.subdir.substr(start);
}

std::string folder_url(const std::string& mirror) {
    static const char digits[] = "0123456789ABCDEF";
    std::string url = "file://";
    for (const char c : mirror) {
        const auto byte = static_cast<unsigned char>(c);
        if (c == '/' || unusable_name(std::string(1, c) + "-").empty()) {
            url += c;
        } else {
            url = url + '%' + digits[byte >> 4] + digits[byte & 0x0F];
        }
    }
    return url;
}

// The settings of a client of this mirror.
zqu::Config client_config(const Options& options) {
    zqu::Config cfg;
    cfg.mirror_base_url = is_url(options.mirror) ? options.mirror : folder_url(options.mirror);
    cfg.mirror_subdir = options.subdir;
    cfg.flavor = options.flavor;
    cfg.ca_path = options.ca;
    return cfg;
}

// ---- Files ----

template <typename Consume>
void read_blocks(const fs::path& path, Consume consume) {
    const Fd file(path, O_RDONLY);
    std::vector<char> block(block_size);
    for (ssize_t count = 1; count > 0;) {
        count = read(file.get(), block.data(), block.size());
        if (count < 0) {
            fail_errno("cannot read " + path.string());
        }
        consume(block.data(), static_cast<std::size_t>(count));
    }
}

std::string sha256(const fs::path& path, Run& run) {
    const Handle<EVP_MD_CTX, EVP_MD_CTX_free> ctx(EVP_MD_CTX_new());
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    bool done = ctx && EVP_DigestInit_ex(ctx.get(), EVP_sha256(), nullptr) == 1;
    read_blocks(path, [&](const char* data, std::size_t size) {
        done = done && EVP_DigestUpdate(ctx.get(), data, size) == 1;
        run.advance(size);
    });
    if (!done || EVP_DigestFinal_ex(ctx.get(), digest, &length) != 1) {
        fail("cannot compute SHA-256 digests");
    }
    std::string hex;
    for (const unsigned char byte : std::vector<unsigned char>(digest, digest + length)) {
        static const char digits[] = "0123456789abcdef";
        hex = hex + digits[byte >> 4] + digits[byte & 0x0F];
    }
    return hex;
}

std::string read_text(const fs::path& path) {
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

void flush(const fs::path& path) {
    const Fd file(path, O_RDONLY);
    if (fsync(file.get()) != 0) {
        fail_errno("cannot flush " + path.string());
    }
}

void write_text(const fs::path& path, const std::string& text) {
    const Fd file(path, O_WRONLY | O_CREAT | O_EXCL);
    for (std::size_t done = 0; done < text.size();) {
        const ssize_t count = write(file.get(), text.data() + done, text.size() - done);
        if (count < 0) {
            fail_errno("cannot write " + path.string());
        }
        done += static_cast<std::size_t>(count);
    }
    if (fsync(file.get()) != 0) {
        fail_errno("cannot flush " + path.string());
    }
}

void make_folder(const fs::path& path, mode_t mode) {
    if (mkdir(path.c_str(), mode) != 0) {
        fail_errno("cannot create " + path.string());
    }
}

void make_folders(const fs::path& path, Run& run) {
    fs::path prefix;
    for (const auto& part : path) {
        const fs::path parent = prefix;
        prefix /= part;
        struct stat found {};
        if (stat(prefix.c_str(), &found) != 0) {
            run.make(prefix, [&] { make_folder(prefix, 0755); });
            flush(parent);
        }
    }
}

void move(const fs::path& from, const fs::path& to) {
    if (rename(from.c_str(), to.c_str()) != 0) {
        fail_errno("cannot create " + to.string());
    }
}

// Unpacks into the working directory, which folder becomes: libarchive makes anew the parents that it finds missing,
// but never those of ".". Otherwise it would bring back what the end by a signal has just removed.
bool extract_into(const fs::path& folder, const fs::path& archive) {
    if (chdir(folder.c_str()) != 0) {
        fail_errno("cannot enter " + folder.string());
    }
    return zqu::verifier::extract(archive, ".");
}

// ---- Packing ----

Source open_source(const std::string& path, const std::string& name) {
    Source source;
    const Fd file(path, O_RDONLY | O_NONBLOCK);  // a FIFO must not keep the run waiting
    if (fstat(file.get(), &source.before) != 0 || !S_ISREG(source.before.st_mode)) {
        fail(path + " is not a regular file");
    }
    source.path = fs::absolute(path);  // the working directory changes when archives are unpacked
    source.name = name;
    return source;
}

void require_unchanged(const Source& source) {
    struct stat now {};
    const struct stat& before = source.before;
    if (stat(source.path.c_str(), &now) != 0 || now.st_dev != before.st_dev || now.st_ino != before.st_ino ||
        now.st_size != before.st_size || now.st_mtim.tv_sec != before.st_mtim.tv_sec ||
        now.st_mtim.tv_nsec != before.st_mtim.tv_nsec) {
        fail(source.path.string() + " changed while it was read");
    }
}

std::string index_text(const std::vector<Source>& sources) {
    std::string text;
    for (const auto& source : sources) {
        text += source.name + ".sha256 = " + source.digest + "\n";
    }
    return text;
}

struct GlibError {
    GError* error = nullptr;
    GlibError() = default;
    ~GlibError() { g_clear_error(&error); }
    GlibError(const GlibError&) = delete;
    GlibError& operator=(const GlibError&) = delete;

    void require(gboolean done) const {
        if (done == FALSE) {
            fail(std::string("cannot write the archive: ") + (error != nullptr ? error->message : "libgcab failed"));
        }
    }
};

void add_to_cab(GCabFolder* cab_folder, GCabFile* file, time_t modified) {
    GlibError status;
    status.require(gcab_folder_add_file(cab_folder, file, FALSE, nullptr, &status.error));
    // Local time within the years that a CAB can tell, a day off their ends for the time zones. Set now: adding a file
    // resets what was set before.
    const time_t time = std::clamp<time_t>(modified, 315619200, 4354732800);
    const Handle<GDateTime, g_date_time_unref> date(g_date_time_new_from_unix_local(time));
    gcab_file_set_date_time(file, date.get());
    // Without it the gateways' libarchive would unpack the definitions writable for everybody.
    gcab_file_set_attributes(file, GCAB_FILE_ATTRIBUTE_RDONLY);
}

void pack_cab(const fs::path& archive, const std::string& index, const std::string& name,
              const std::vector<Source>& sources, time_t index_time) {
    GlibError status;
    const Handle<GCabCabinet, g_object_unref> cabinet(gcab_cabinet_new());
    const Handle<GCabFolder, g_object_unref> cab_folder(gcab_folder_new(GCAB_COMPRESSION_MSZIP));
    const Handle<GBytes, g_bytes_unref> bytes(g_bytes_new(index.data(), index.size()));
    const Handle<GCabFile, g_object_unref> first(gcab_file_new_with_bytes(name.c_str(), bytes.get()));
    add_to_cab(cab_folder.get(), first.get(), index_time);
    for (const auto& source : sources) {
        const Handle<GFile, g_object_unref> path(g_file_new_for_path(source.path.c_str()));
        const Handle<GCabFile, g_object_unref> file(gcab_file_new_with_file(source.name.c_str(), path.get()));
        add_to_cab(cab_folder.get(), file.get(), source.before.st_mtim.tv_sec);
    }
    status.require(gcab_cabinet_add_folder(cabinet.get(), cab_folder.get(), &status.error));
    const Handle<GFile, g_object_unref> path(g_file_new_for_path(archive.c_str()));
    const Handle<GFileOutputStream, g_object_unref> file(
        g_file_create(path.get(), G_FILE_CREATE_NONE, nullptr, &status.error));
    status.require(file ? TRUE : FALSE);
    // Not through a buffered stream: libgcab takes a short write for a whole one.
    auto* const stream = reinterpret_cast<GOutputStream*>(file.get());
    status.require(gcab_cabinet_write_simple(cabinet.get(), stream, nullptr, nullptr, nullptr, &status.error));
    status.require(g_output_stream_close(stream, nullptr, &status.error));
}

void require_zip(archive* writer, la_ssize_t result) {
    if (result < ARCHIVE_OK) {
        const char* text = archive_error_string(writer);
        const int error = archive_errno(writer);
        fail(std::string("cannot write the archive: ") + (text != nullptr ? text : "libarchive failed") +
             (error > 0 ? std::string(": ") + std::strerror(error) : ""));
    }
}

void start_entry(archive* writer, const std::string& name, la_int64_t size, time_t modified) {
    const Handle<archive_entry, archive_entry_free> entry(archive_entry_new());
    archive_entry_set_pathname(entry.get(), name.c_str());
    archive_entry_set_size(entry.get(), size);
    archive_entry_set_filetype(entry.get(), AE_IFREG);
    archive_entry_set_perm(entry.get(), 0644);
    archive_entry_set_mtime(entry.get(), modified, 0);
    require_zip(writer, archive_write_header(writer, entry.get()));
}

void pack_zip(const fs::path& path, const std::string& index, const std::string& name,
              const std::vector<Source>& sources, time_t index_time) {
    const Handle<archive, archive_write_free> writer(archive_write_new());
    require_zip(writer.get(), archive_write_set_format_zip(writer.get()));
    require_zip(writer.get(), archive_write_zip_set_compression_deflate(writer.get()));
    require_zip(writer.get(), archive_write_open_filename(writer.get(), path.c_str()));
    start_entry(writer.get(), name, static_cast<la_int64_t>(index.size()), index_time);
    require_zip(writer.get(), archive_write_data(writer.get(), index.data(), index.size()));
    for (const auto& source : sources) {
        start_entry(writer.get(), source.name, source.before.st_size, source.before.st_mtim.tv_sec);
        read_blocks(source.path, [&](const char* data, std::size_t size) {
            require_zip(writer.get(), archive_write_data(writer.get(), data, size));
        });
    }
    require_zip(writer.get(), archive_write_close(writer.get()));
}

// ---- publish ----

constexpr const char* work_name = ".zqu-mirror.work";

// Opens and measures the sources; they are read only after all that can be refused has been refused.
std::vector<Source> open_sources(const Options& options) {
    const std::string suffix = "-" + options.flavor + ".def";
    std::vector<Source> sources{open_source(options.antivir, "antivir" + suffix),
                                open_source(options.aivsecon, "aivsecon" + suffix)};
    std::uintmax_t total = index_text(sources).size() + 2 * 64;  // as long as it will be with its digests
    for (const auto& source : sources) {
        total += static_cast<std::uintmax_t>(source.before.st_size);
    }
    if (!options.zip && total > cab_capacity) {
        fail("the definitions do not fit into a CAB, which holds " + std::to_string(cab_capacity) +
             " bytes with the index: use --zip");
    }
    return sources;
}

void require_short_name(const Options& options) {
    // The daemon downloads by way of "<archive>.part".
    if (stem(options).size() + std::string(".cab.part").size() > NAME_MAX) {
        fail("the id and the flavor are too long for a file name");
    }
}

// Locks the folder itself, which leaves nothing behind.
void lock(const Fd& file, const fs::path& path) {
    if (flock(file.get(), LOCK_EX | LOCK_NB) != 0) {
        if (errno == EWOULDBLOCK) {
            fail("another publish is at work in " + path.string());
        }
        fail_errno("cannot lock " + path.string());
    }
}

void make_work(const fs::path& work, Run& run) {
    run.make_scratch([&] {
        std::error_code ignored;
        fs::remove_all(work, ignored);  // a killed run's: nobody else can be using it, for the folder is locked
        make_folder(work, 0700);
        return work;
    });
}

// Puts the archive and the INI that describes it into place; nothing names them yet.
void add_release(const Options& options, const std::vector<Source>& sources, Run& run) {
    const fs::path dir = folder(options);
    const fs::path archive = dir / work_name / "archive";
    const fs::path info = dir / work_name / "info";
    const std::string name = stem(options) + (options.zip ? ".zip" : ".cab");
    run.phase("packing", archive);
    const time_t newest = std::max(sources[0].before.st_mtim.tv_sec, sources[1].before.st_mtim.tv_sec);
    (options.zip ? pack_zip : pack_cab)(archive, index_text(sources), index_name(options), sources, newest);
    flush(archive);
    run.phase("reading the archive");
    write_text(info, "def.Current.defId = " + options.id + "\ndef.Current.name = " + name +
                         "\ndef.Current.SHA256 = " + sha256(archive, run) +
                         "\ndef.Current.size = " + std::to_string(fs::file_size(archive)) + "\n");
    run.make(dir / name, [&] { move(archive, dir / name); });
    run.make(dir / (stem(options) + ".ini"), [&] { move(info, dir / (stem(options) + ".ini")); });
    flush(dir);
}

// Requires that the release, read with the daemon's own code, gives back the sources.
zqu::CompleteInfo require_release(const Options& options, const std::vector<Source>& sources) {
    const zqu::Config cfg = client_config(options);
    const auto info = zqu::MirrorClient(cfg).fetch_complete_info(options.id);
    const fs::path unpacked = folder(options) / work_name / "unpacked";
    const std::string archive = info ? folder(options) / info->cab_name : fs::path();
    if (!info || info->defid != options.id || !zqu::verifier::verify(archive, info->sha256)) {
        fail(options.id + " is on the mirror, but its INI file and its archive do not match");
    }
    const auto needed = static_cast<std::uintmax_t>(sources[0].before.st_size + sources[1].before.st_size);
    if (fs::space(folder(options)).available < needed) {
        fail("no room in " + folder(options).string() + " to unpack the archive and check it: No space left on device");
    }
    make_folder(unpacked, 0700);
    const bool extracted = extract_into(unpacked, archive);
    const auto index = zqu::verifier::parse_def_index(read_text(unpacked / index_name(options)));
    for (const auto& source : sources) {
        const auto entry = index.find(source.name);
        if (extracted && entry != index.end() && entry->second != source.digest) {
            fail(options.id + " was published before with other content: take a new id");
        }
        if (entry == index.end() || !zqu::verifier::verify(unpacked / source.name, source.digest)) {
            fail("the archive does not unpack to what was read: is there room in " + folder(options).string() + "?");
        }
    }
    return *info;
}

void point_hit(const Options& options, Run& run) {
    const fs::path dir = folder(options);
    const fs::path hit = dir / work_name / "hit";
    write_text(hit, "[Current]\ndefId = " + options.id + "\n");
    run.commit([&] { move(hit, dir / hit_name(options)); });
    try {
        flush(dir);
    } catch (const std::system_error& e) {
        fail(options.id + " is published, but a power cut might undo that: " + e.what());
    }
}

void publish(const Options& options, Run& run) {
    require_short_name(options);
    std::vector<Source> sources = open_sources(options);
    run.phase("reading the definitions");
    for (auto& source : sources) {
        source.digest = sha256(source.path, run);
    }
    const fs::path dir = folder(options);
    make_folders(dir, run);
    const Fd locked(dir, O_RDONLY | O_DIRECTORY);
    lock(locked, dir);
    make_work(dir / work_name, run);
    const bool known = fs::exists(dir / (stem(options) + ".ini"));
    try {
        if (!known) {
            add_release(options, sources, run);
        }
        run.phase("checking the archive");
    } catch (const std::exception&) {
        std::for_each(sources.begin(), sources.end(), require_unchanged);  // the better explanation
        throw;
    }
    std::for_each(sources.begin(), sources.end(), require_unchanged);
    const zqu::CompleteInfo info = require_release(options, sources);
    point_hit(options, run);
    run.phase("");
    const std::string done =
        known ? options.id + " was published before with this content and is current now" : "published " + options.id;
    std::printf("%s: %s, %ju bytes, SHA-256 %s\n", done.c_str(), info.cab_name.c_str(),
                fs::file_size(dir / info.cab_name), info.sha256.c_str());
}

// ---- check ----

bool say(Run& run, const char* verdict, const std::string& text) {
    run.phase("");  // clears the progress, and says nothing more once a signal is ending the run
    std::printf("%-8s %s\n", verdict, text.c_str());
    std::fflush(stdout);  // in step with what the core library logs
    return std::string(verdict) != "FAULT";
}

fs::path make_temp(Run& run) {
    return run.make_scratch([] {
        std::string path = fs::absolute(fs::temp_directory_path()) / "zqu-mirror-XXXXXX";
        if (mkdtemp(path.data()) == nullptr) {
            fail_errno("cannot create a folder like " + path);
        }
        return fs::path(path);
    });
}

// Downloads the archive into stage as the daemon does, and compares it with what the complete-info INI says of it.
bool check_archive(zqu::MirrorClient& client, const zqu::CompleteInfo& info, const fs::path& stage, Run& run) {
    if (info.cab_name.find('/') != std::string::npos || info.cab_name == "." || info.cab_name == "..") {
        return say(run, "FAULT", "the archive's name is a path: " + info.cab_name);
    }
    const fs::path archive = stage / info.cab_name;
    run.phase("downloading " + info.cab_name, archive.string() + ".part");
    if (!client.download_cab(info.cab_name, archive)) {
        return say(run, "FAULT", info.cab_name + " cannot be downloaded");
    }
    const std::string size = std::to_string(fs::file_size(archive));
    say(run, "ok", info.cab_name + " can be downloaded: " + size + " bytes");
    if (std::to_string(info.size) != size) {
        say(run, "warning", "def.Current.size is another size: " + std::to_string(info.size));
    }
    if (!zqu::verifier::verify(archive, info.sha256)) {
        return say(run, "FAULT", info.cab_name + " does not have the digest " + info.sha256);
    }
    return say(run, "ok", info.cab_name + " has the digest " + info.sha256);
}

bool check_definition(const fs::path& file, const std::map<std::string, std::string>& index, Run& run) {
    const std::string name = file.filename();
    const auto entry = index.find(name);
    if (!fs::exists(file)) {
        return say(run, "FAULT", name + " is not in the archive");
    }
    if (entry == index.end()) {
        return say(run, "warning", name + " has no digest in the index: clients take it unchecked");
    }
    if (!zqu::verifier::verify(file, entry->second)) {
        return say(run, "FAULT", name + " does not have the digest that the index gives");
    }
    return say(run, "ok", name + " has the digest that the index gives");
}

// Unpacks the archive in its folder, where nothing but its entries remains, and looks at each of them.
bool check_entries(const Options& options, const fs::path& archive, Run& run) {
    const fs::path stage = archive.parent_path();
    if (!extract_into(stage, archive)) {
        return say(run, "FAULT", archive.filename().string() + " cannot be unpacked");
    }
    say(run, "ok", archive.filename().string() + " can be unpacked");
    fs::remove(archive);
    const std::string antivir = "antivir-" + options.flavor + ".def";
    const std::string aivsecon = "aivsecon-" + options.flavor + ".def";
    const auto index = zqu::verifier::parse_def_index(read_text(stage / index_name(options)));
    bool usable = check_definition(stage / antivir, index, run);
    usable = check_definition(stage / aivsecon, index, run) && usable;
    std::set<std::string> others;
    for (const auto& entry : fs::directory_iterator(stage)) {
        others.insert(entry.path().filename());
    }
    for (const auto& expected : {antivir, aivsecon, index_name(options)}) {
        others.erase(expected);
    }
    for (const auto& other : others) {
        say(run, "warning", other + " is in the archive too: clients drop it");
    }
    return usable;
}

bool check(const Options& options, Run& run) {
    const zqu::Config cfg = client_config(options);
    zqu::MirrorClient client(cfg);
    const auto id = client.fetch_defid();
    if (!id) {
        return say(run, "FAULT", hit_name(options) + " names no release");
    }
    say(run, "ok", hit_name(options) + " names " + *id);
    const std::string info_name = "antivir-" + options.flavor + "-c-" + *id + ".ini";
    const auto info = client.fetch_complete_info(*id);
    if (!info) {
        return say(run, "FAULT", info_name + " names no archive");
    }
    say(run, "ok", info_name + " names " + info->cab_name);
    if (info->defid != *id) {
        say(run, "warning", "def.Current.defId is another id: " + info->defid);
    }
    const fs::path stage = make_temp(run);
    return check_archive(client, *info, stage, run) && check_entries(options, stage / info->cab_name, run);
}

// ---- Command line ----

constexpr const char* about =
    "Runs an internal mirror of antivirus definitions for zel_quorin_updater: publishes releases on it, and checks it "
    "as a client would.";

constexpr const char* about_exit =
    "Exit status: 0 done, or a client would succeed; 1 failed, or a client would fail; 2 wrong command line;\n"
    "128 + n ended by signal n.";

constexpr const char* about_publish =
    "Writes the release and then, in one step, makes it current. Clients see the old release or the new one, whole.\n"
    "When anything fails, one line says why and the mirror is left as it was. Publishing the same content again makes\n"
    "that release current again, which is how to go back to it; an id never gets other content.\n"
    "The mirror's disk needs room for the archive and, for the check before the release becomes current, for the\n"
    "unpacked definitions. A CAB holds 2147450880 bytes with its index; --zip has no such limit.\n\n"
    "Examples:\n"
    "  zqu-mirror publish --id 20240131.007 /srv/mirror antivir.def aivsecon.def\n"
    "  zqu-mirror publish --flavor v3 --zip --id 20240131.008 /srv/mirror big.def small.def\n";

constexpr const char* about_check =
    "Reads the mirror with the daemon's own code, downloads and unpacks the current release below $TMPDIR (/tmp), "
    "and\n"
    "prints one line per step: ok, warning (clients succeed all the same) or FAULT (clients fail).\n\n"
    "Examples:\n"
    "  zqu-mirror check /srv/mirror\n"
    "  zqu-mirror check --ca /etc/ssl/fleet-ca.pem https://mirror.example\n";

void add_common(CLI::App& command, Options& options) {
    command.add_option("--flavor", options.flavor, "Definition flavor")->capture_default_str()->check(unusable_name);
    command.add_option("--subdir", options.subdir, "Folder below the mirror's root")
        ->capture_default_str()
        ->check(unusable_subdir);
}

void add_publish(CLI::App& app, Options& options) {
    CLI::App* command = app.add_subcommand("publish", "Publish a release and make it current");
    const auto no_folder = [](const std::string& mirror) {
        return mirror.empty() || is_url(mirror) ? std::string("must be a folder") : std::string();
    };
    add_common(*command, options);
    command->add_option("--id", options.id, "Id of the release")->required()->check(unusable_name);
    command->add_flag("--zip", options.zip, "Pack a ZIP instead of a CAB");
    command->add_option("MIRROR", options.mirror, "Root folder of the mirror; created when missing")
        ->required()
        ->check(no_folder);
    command->add_option("ANTIVIR", options.antivir, "The antivir definition file")->required();
    command->add_option("AIVSECON", options.aivsecon, "The aivsecon definition file")->required();
    command->footer(std::string(about_publish) + "\n" + about_exit);
}

void add_check(CLI::App& app, Options& options) {
    CLI::App* command = app.add_subcommand("check", "Check what clients find on a mirror");
    const auto no_mirror = [](const std::string& mirror) {
        const bool web = mirror.rfind("http://", 0) == 0 || mirror.rfind("https://", 0) == 0;
        return web || fs::is_directory(mirror) ? std::string() : std::string("must be a folder or an http(s) URL");
    };
    add_common(*command, options);
    command->add_option("--ca", options.ca, "PEM file of the certificates to trust")->check(CLI::ExistingFile);
    command->add_option("MIRROR", options.mirror, "Root folder of the mirror, or its URL: scheme and host")
        ->required()
        ->check(no_mirror);
    command->footer(std::string(about_check) + "\n" + about_exit);
}

int run(const CLI::App& app, Options options) {
    try {
        Run run;
        if (!is_url(options.mirror)) {
            options.mirror = fs::absolute(options.mirror);
        }
        if (app.got_subcommand("publish")) {
            publish(options, run);
            return EXIT_SUCCESS;
        }
        openlog("zqu-mirror", LOG_PERROR, LOG_USER);  // the core library's reasons, for the person too
        return check(options, run) ? EXIT_SUCCESS : EXIT_FAILURE;
    } catch (const std::exception& e) {
        complain(e.what());
        return EXIT_FAILURE;
    }
}

}  // namespace

int main(int argc, char** argv) {
    constexpr int wrong_command_line = 2;
    umask(022);                                   // whoever publishes, the web server must be able to read it
    setenv("GIO_USE_VFS", "local", 1);            // no session bus, no helpers
    static_cast<void>(signal(SIGPIPE, SIG_IGN));  // writes fail instead, and the run
    static_cast<void>(signal(SIGXFSZ, SIG_IGN));  // cleans up behind itself
    Options options;
    CLI::App app(about, "zqu-mirror");
    app.set_version_flag("--version", "zqu-mirror " ZQU_VERSION);
    app.require_subcommand(1);
    app.footer(std::string("Each command has its own --help.\n\n") + about_exit);
    add_publish(app, options);
    add_check(app, options);
    try {
        app.parse(argc, argv);
    } catch (const CLI::Success& e) {
        return app.exit(e);
    } catch (const CLI::ParseError& e) {
        complain(std::string(e.what()) + " (see zqu-mirror --help)");
        return wrong_command_line;
    }
    return run(app, options);
}

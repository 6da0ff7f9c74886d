#include "support.hpp"

#include <archive.h>
#include <archive_entry.h>
#include <libgcab.h>
#include <openssl/evp.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <utility>

static_assert(sizeof(off_t) == sizeof(std::int64_t), "archives may be larger than 4 GiB on every platform");

namespace zqu::test {
namespace {

constexpr uid_t nobody = 65534;

// libcurl would send the requests to the servers of these tests through a proxy that the environment names.
const bool without_proxies = [] {
    for (const char* name : {"http_proxy", "https_proxy", "HTTPS_PROXY", "all_proxy", "ALL_PROXY"}) {
        unsetenv(name);
    }
    return true;
}();

thread_local FakeClock* fake_clock = nullptr;  // of the thread under test only, not of a server beside it

void require(bool condition, const char* what) {
    if (!condition) {
        throw std::runtime_error(std::string("test set-up failed: ") + what);
    }
}

// The path as part of a URL (RFC 3986, section 2.1).
std::string percent_encoded(const std::string& path) {
    std::ostringstream url;
    for (const char c : path) {
        if (std::isalnum(static_cast<unsigned char>(c)) != 0 || std::string("/-._~").find(c) != std::string::npos) {
            url << c;
        } else {
            url << '%' << std::hex << std::uppercase << int{static_cast<unsigned char>(c)};
        }
    }
    return url.str();
}

}  // namespace

TempDir::TempDir() {
    std::string name = (fs::temp_directory_path() / "zqu-test-XXXXXX").string();
    require(mkdtemp(name.data()) != nullptr, "mkdtemp");
    path_ = name;
}

TempDir::~TempDir() {
    if (::testing::Test::HasFailure()) {
        std::cerr << "the files of the failed test: " << path_ << '\n';
        return;
    }
    std::error_code ignored;
    fs::remove_all(path_, ignored);
}

void write_file(const std::string& path, const std::string& content) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
    out.close();
    require(out.good(), path.c_str());
}

std::string read_file(const std::string& path) {
    const std::ifstream in(path, std::ios::binary);
    require(in.good(), path.c_str());
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

bool exists(const std::string& path) {
    return fs::symlink_status(path).type() != fs::file_type::not_found;
}

void make_dirs(const std::string& path) {
    fs::create_directories(path);
}

Lines listing(const std::string& dir) {
    Lines names;
    for (const auto& entry : fs::recursive_directory_iterator(dir)) {
        std::string name = entry.path().lexically_relative(dir).string();
        if (entry.is_symlink()) {
            name += " -> " + fs::read_symlink(entry.path()).string();
        } else if (entry.is_directory()) {
            name += "/";
        }
        names.push_back(name);
    }
    std::sort(names.begin(), names.end());
    return names;
}

std::string sha256(const std::string& content) {
    std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
    unsigned int length = 0;
    require(EVP_Digest(content.data(), content.size(), digest.data(), &length, EVP_sha256(), nullptr) == 1,
            "EVP_Digest");
    std::ostringstream hex;
    for (unsigned int i = 0; i < length; ++i) {
        hex << std::hex << (digest.at(i) >> 4) << (digest.at(i) & 15);
    }
    return hex.str();
}

std::string damaged(std::string bytes, std::size_t begin, std::size_t end) {
    for (std::size_t i = begin; i < end; ++i) {
        bytes.at(i) = static_cast<char>(~bytes.at(i));
    }
    return bytes;
}

LogCapture::LogCapture() {
    setenv("ZQU_LOG_FILE", (dir_ / "log").c_str(), 1);
    static_cast<void>(chmod(dir_.path().c_str(), 0777));
}

LogCapture::~LogCapture() {
    unsetenv("ZQU_LOG_FILE");
}

Lines LogCapture::take() {
    Lines lines;
    std::ifstream in(dir_ / "log");
    for (std::string line; std::getline(in, line);) {
        lines.push_back(line);
    }
    fs::remove(dir_ / "log");
    return lines;
}

AsOrdinaryUser::AsOrdinaryUser(std::initializer_list<std::string> directories) : former_(geteuid()) {
    if (former_ == 0) {
        for (const auto& dir : directories) {
            require(lchown(dir.c_str(), nobody, nobody) == 0, "chown");
        }
        require(seteuid(nobody) == 0, "seteuid");
    }
}

AsOrdinaryUser::~AsOrdinaryUser() {
    if (seteuid(former_) != 0) {
        std::abort();
    }
}

void write_zip(const std::string& path, const Entries& entries) {
    const std::unique_ptr<archive, int (*)(archive*)> zip(archive_write_new(), archive_write_free);
    archive_write_set_format_zip(zip.get());
    require(archive_write_open_filename(zip.get(), path.c_str()) == ARCHIVE_OK, "open zip");
    for (const auto& item : entries) {
        const std::unique_ptr<archive_entry, void (*)(archive_entry*)> entry(archive_entry_new(), archive_entry_free);
        archive_entry_set_pathname(entry.get(), item.name.c_str());
        archive_entry_set_filetype(entry.get(), item.type);
        archive_entry_set_perm(entry.get(), item.mode);
        archive_entry_set_mtime(entry.get(), item.mtime, 0);
        archive_entry_set_uid(entry.get(), item.owner);
        archive_entry_set_gid(entry.get(), item.owner);
        archive_entry_set_size(entry.get(), static_cast<la_int64_t>(item.content.size()));
        if (!item.link_target.empty()) {
            archive_entry_set_symlink(entry.get(), item.link_target.c_str());
        }
        require(archive_write_header(zip.get(), entry.get()) == ARCHIVE_OK, "zip header");
        require(archive_write_data(zip.get(), item.content.data(), item.content.size()) ==
                    static_cast<la_ssize_t>(item.content.size()),
                "zip data");
    }
    require(archive_write_close(zip.get()) == ARCHIVE_OK, "close zip");
}

void write_cab(const std::string& path, const Entries& entries) {
    const std::unique_ptr<GCabCabinet, void (*)(gpointer)> cabinet(gcab_cabinet_new(), g_object_unref);
    const std::unique_ptr<GCabFolder, void (*)(gpointer)> folder(gcab_folder_new(GCAB_COMPRESSION_MSZIP),
                                                                 g_object_unref);
    for (const auto& item : entries) {
        const std::unique_ptr<GBytes, void (*)(GBytes*)> bytes(g_bytes_new(item.content.data(), item.content.size()),
                                                               g_bytes_unref);
        const std::unique_ptr<GCabFile, void (*)(gpointer)> file(
            gcab_file_new_with_bytes(item.name.c_str(), bytes.get()), g_object_unref);
        require(gcab_folder_add_file(folder.get(), file.get(), FALSE, nullptr, nullptr) != FALSE, "cab file");
    }
    require(gcab_cabinet_add_folder(cabinet.get(), folder.get(), nullptr) != FALSE, "cab folder");
    const std::unique_ptr<GFile, void (*)(gpointer)> file(g_file_new_for_path(path.c_str()), g_object_unref);
    const std::unique_ptr<GFileOutputStream, void (*)(gpointer)> out(
        g_file_replace(file.get(), nullptr, FALSE, G_FILE_CREATE_NONE, nullptr, nullptr), g_object_unref);
    require(gcab_cabinet_write_simple(cabinet.get(), G_OUTPUT_STREAM(out.get()), nullptr, nullptr, nullptr, nullptr) !=
                FALSE,
            "write cab");
}

Mirror::Mirror(std::string flavor) : flavor_(std::move(flavor)) {
    make_dirs(dir_.path() + "/" + Config().mirror_subdir);
}

Config Mirror::config(const std::string& root) const {
    Config cfg;
    cfg.mirror_base_url = "file://" + percent_encoded(dir_.path());
    cfg.flavor = flavor_;
    cfg.engine_version = "engine 7";
    cfg.def_root = root + "/defs";
    cfg.status_path = root + "/manifest/status.json";
    return cfg;
}

std::string Mirror::content(const std::string& file, const std::string& id) {
    return "content of " + file + " in release " + id + "\n";
}

Entries Mirror::release_entries(const std::string& id) const {
    const std::string a = "antivir-" + flavor_ + ".def";
    const std::string b = "aivsecon-" + flavor_ + ".def";
    return {{a, content(a, id)},
            {b, content(b, id)},
            {"antivir-" + flavor_ + ".ini", "[" + id + "]\n" + a + ".sha256 = " + sha256(content(a, id)) + "\n" + b +
                                                ".sha256 = " + sha256(content(b, id)) + "\n"}};
}

void Mirror::publish(const std::string& id, const Entries& entries) const {
    const std::string cab = "release-" + id + ".cab";
    write_zip(path(cab), entries);
    announce(id, cab, read_file(path(cab)));
}

void Mirror::announce(const std::string& id, const std::string& cab, const std::string& bytes) const {
    write(cab, bytes);
    write("antivir-" + flavor_ + "-c-" + id + ".ini", "[def]\ndef.Current.defId=" + id + "\ndef.Current.name=" + cab +
                                                          "\ndef.Current.SHA256=" + sha256(bytes) + "\n");
    write("antivir-" + flavor_ + "-hit.ini", "[Current]\ndefId=" + id + "\n");
}

void Mirror::write(const std::string& name, const std::string& content) const {
    write_file(path(name), content);
}

void Mirror::remove(const std::string& name) const {
    fs::remove(path(name));
}

std::string Mirror::path(const std::string& name) const {
    return dir_ / (Config().mirror_subdir + "/" + name);
}

std::string Mirror::url(const std::string& name) const {
    return "file://" + percent_encoded(path(name));
}

FakeClock::FakeClock() {
    fake_clock = this;
}

FakeClock::~FakeClock() {
    fake_clock = nullptr;
}

}  // namespace zqu::test

// The system interfaces themselves, taken over for the whole test program.
extern "C" {

std::time_t time(std::time_t* out) noexcept {
    using zqu::test::fake_clock;
    std::time_t now = 0;
    if (fake_clock != nullptr && fake_clock->now) {
        now = *fake_clock->now;
    } else {
        timespec ts{};
        clock_gettime(CLOCK_REALTIME, &ts);
        now = ts.tv_sec;
    }
    if (out != nullptr) {
        *out = now;
    }
    return now;
}

pid_t getpid() noexcept {
    using zqu::test::fake_clock;
    return fake_clock != nullptr && fake_clock->pid ? *fake_clock->pid : static_cast<pid_t>(::syscall(SYS_getpid));
}

int nanosleep(const timespec* request, timespec* remainder) {
    using zqu::test::fake_clock;
    if (fake_clock == nullptr) {
        return static_cast<int>(::syscall(SYS_nanosleep, request, remainder));
    }
    fake_clock->sleeps.push_back(*request);
    return fake_clock->on_sleep ? fake_clock->on_sleep(request, remainder) : 0;
}

int fsync(int fd) {
    using zqu::test::fake_clock;
    if (fake_clock != nullptr && fake_clock->on_flush) {
        fake_clock->on_flush();
    }
    return static_cast<int>(::syscall(SYS_fsync, fd));
}

}  // extern "C"

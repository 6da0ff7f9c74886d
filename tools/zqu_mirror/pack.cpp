#include "pack.hpp"

#include <archive.h>
#include <archive_entry.h>
#include <fcntl.h>
#include <libgcab.h>
#include <sched.h>
#include <zstd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <utility>

#include "digest.hpp"
#include "files.hpp"

namespace zqu::mirror_tool {

namespace {

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
    // Local time within the years that a CAB can hold, a day off their ends for the time zones. Set now: adding a file
    // resets what was set before.
    const auto time = std::clamp<std::int64_t>(modified, 315619200, 4354732800);
    const tools::Handle<GDateTime, g_date_time_unref> date(g_date_time_new_from_unix_local(time));
    gcab_file_set_date_time(file, date.get());
    // Without it the gateways' libarchive would make the definitions writable for all users.
    gcab_file_set_attributes(file, GCAB_FILE_ATTRIBUTE_RDONLY);
}

// Takes the bytes of a ZIP. What it throws ends the packing.
using Sink = std::function<void(const char* data, std::size_t size)>;

la_ssize_t pass_on(archive* writer, void* sink, const void* data, std::size_t size) {
    try {
        (*static_cast<const Sink*>(sink))(static_cast<const char*>(data), size);
        return static_cast<la_ssize_t>(size);
    } catch (const std::exception& e) {  // libarchive is C
        archive_set_error(writer, EIO, "%s", e.what());
        return ARCHIVE_FATAL;
    }
}

void require_zip(archive* writer, la_ssize_t result) {
    if (result < ARCHIVE_OK) {
        const char* reason = archive_error_string(writer);
        fail(std::string("cannot write the archive: ") + (reason != nullptr ? reason : "libarchive failed"));
    }
}

void start_entry(archive* writer, const std::string& name, la_int64_t size, time_t modified, mode_t mode) {
    const tools::Handle<archive_entry, archive_entry_free> entry(archive_entry_new());
    archive_entry_set_pathname(entry.get(), name.c_str());
    archive_entry_set_size(entry.get(), size);
    archive_entry_set_filetype(entry.get(), AE_IFREG);
    archive_entry_set_perm(entry.get(), mode);
    archive_entry_set_mtime(entry.get(), modified, 0);
    require_zip(writer, archive_write_header(writer, entry.get()));
}

// Writes a ZIP to sink: deflated, or stored with the modes also in the local headers, for readers that cannot seek.
void write_zip(bool stored, const std::string& index, const std::string& index_name, const std::vector<Source>& sources,
               time_t index_time, Sink sink) {
    const char* const how = stored ? "zip:compression=store,zip:experimental" : "zip:compression=deflate";
    const mode_t mode = stored ? 0555 : 0644;
    setenv("TZ", "UTC0", 1);  // libarchive writes the local time besides the seconds since the epoch
    tzset();
    const tools::Handle<archive, archive_write_free> writer(archive_write_new());
    archive* const zip = writer.get();
    require_zip(zip, archive_write_set_format_zip(zip));
    require_zip(zip, archive_write_set_options(zip, how));
    require_zip(zip, archive_write_set_bytes_in_last_block(zip, 1));
    require_zip(zip, archive_write_open(zip, &sink, nullptr, pass_on, nullptr));
    start_entry(zip, index_name, static_cast<la_int64_t>(index.size()), index_time, mode);
    require_zip(zip, archive_write_data(zip, index.data(), index.size()));
    for (const auto& source : sources) {
        start_entry(zip, source.name, source.before.st_size, source.before.st_mtim.tv_sec, mode);
        tools::read_blocks(source.path, [&](const char* data, std::size_t size) {
            require_zip(zip, archive_write_data(zip, data, size));
        });
    }
    require_zip(zip, archive_write_close(zip));
}

// As many threads as processors that this process may use, up to four for the memory that each takes. How many makes no
// difference to the bytes, but whether libzstd has any does: one at least.
int threads() {
    cpu_set_t usable;
    CPU_ZERO(&usable);
    static_cast<void>(sched_getaffinity(0, sizeof usable, &usable));
    return std::clamp(CPU_COUNT(&usable), 1, 4);
}

// Compresses size bytes in all. The gateways need memory for the window, here 2 MiB; the level would take 8 MiB. In
// text of random hexadecimal digits, matches of less than 6 bytes make archives larger, and packing and unpacking
// slower.
tools::Handle<ZSTD_CCtx, ZSTD_freeCCtx> zstd_context(std::uintmax_t size) {
    tools::Handle<ZSTD_CCtx, ZSTD_freeCCtx> context(ZSTD_createCCtx());
    const std::pair<ZSTD_cParameter, int> settings[] = {
        {ZSTD_c_compressionLevel, 19}, {ZSTD_c_windowLog, 21},     {ZSTD_c_minMatch, 6},  {ZSTD_c_checksumFlag, 1},
        {ZSTD_c_nbWorkers, threads()}, {ZSTD_c_jobSize, 16 << 20}, {ZSTD_c_overlapLog, 9}};
    for (const auto& [parameter, value] : settings) {
        require_zstd(ZSTD_CCtx_setParameter(context.get(), parameter, value));
    }
    require_zstd(ZSTD_CCtx_setPledgedSrcSize(context.get(), size));
    return context;
}

}  // namespace

std::size_t require_zstd(std::size_t result) {
    if (ZSTD_isError(result) != 0) {
        fail(std::string("libzstd: ") + ZSTD_getErrorName(result));
    }
    return result;
}

void pack_cab(const std::filesystem::path& archive, const std::string& index, const std::string& index_name,
              const std::vector<Source>& sources, time_t index_time) {
    GlibError status;
    const tools::Handle<GCabCabinet, g_object_unref> cabinet(gcab_cabinet_new());
    const tools::Handle<GCabFolder, g_object_unref> cab_folder(gcab_folder_new(GCAB_COMPRESSION_MSZIP));
    const tools::Handle<GBytes, g_bytes_unref> bytes(g_bytes_new(index.data(), index.size()));
    const tools::Handle<GCabFile, g_object_unref> first(gcab_file_new_with_bytes(index_name.c_str(), bytes.get()));
    add_to_cab(cab_folder.get(), first.get(), index_time);
    for (const auto& source : sources) {
        const tools::Handle<GFile, g_object_unref> path(g_file_new_for_path(source.path.c_str()));
        const tools::Handle<GCabFile, g_object_unref> file(gcab_file_new_with_file(source.name.c_str(), path.get()));
        add_to_cab(cab_folder.get(), file.get(), source.before.st_mtim.tv_sec);
    }
    status.require(gcab_cabinet_add_folder(cabinet.get(), cab_folder.get(), &status.error));
    const tools::Handle<GFile, g_object_unref> path(g_file_new_for_path(archive.c_str()));
    const tools::Handle<GFileOutputStream, g_object_unref> file(
        g_file_create(path.get(), G_FILE_CREATE_NONE, nullptr, &status.error));
    status.require(file ? TRUE : FALSE);
    // Not through a buffered stream: libgcab takes a short write for a whole one.
    auto* const stream = reinterpret_cast<GOutputStream*>(file.get());
    status.require(gcab_cabinet_write_simple(cabinet.get(), stream, nullptr, nullptr, nullptr, &status.error));
    status.require(g_output_stream_close(stream, nullptr, &status.error));
}

void pack_zip(const std::filesystem::path& path, const std::string& index, const std::string& index_name,
              const std::vector<Source>& sources, time_t index_time) {
    const Fd file(path, O_WRONLY | O_CREAT | O_TRUNC);
    const auto write = [&](const char* data, std::size_t size) {
        tools::write_all(file.get(), {data, size}, "the file");
    };
    write_zip(false, index, index_name, sources, index_time, write);
}

void pack_zstd(const std::filesystem::path& path, const std::string& index, const std::string& index_name,
               const std::vector<Source>& sources, time_t index_time) {
    std::uintmax_t total = 0;
    write_zip(true, index, index_name, sources, index_time, [&](const char*, std::size_t size) { total += size; });
    const auto context = zstd_context(total);
    const Fd file(path, O_WRONLY | O_CREAT | O_TRUNC);
    std::string block(ZSTD_CStreamOutSize(), '\0');
    std::uintmax_t taken = 0;
    write_zip(true, index, index_name, sources, index_time, [&](const char* data, std::size_t size) {
        ZSTD_inBuffer in{data, size, 0};
        taken += size;
        const bool last = taken == total;
        for (std::size_t left = 1; last ? left != 0 : in.pos < in.size;) {
            ZSTD_outBuffer out{block.data(), block.size(), 0};
            left = require_zstd(ZSTD_compressStream2(context.get(), &out, &in, last ? ZSTD_e_end : ZSTD_e_continue));
            tools::write_all(file.get(), block.substr(0, out.pos), "the file");
        }
    });
}

}  // namespace zqu::mirror_tool

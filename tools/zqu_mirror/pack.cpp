#include "pack.hpp"

#include <archive.h>
#include <archive_entry.h>
#include <libgcab.h>

#include <algorithm>
#include <cstring>

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
    // Local time within the years that a CAB can tell, a day off their ends for the time zones. Set now: adding a file
    // resets what was set before.
    const time_t time = std::clamp<time_t>(modified, 315619200, 4354732800);
    const tools::Handle<GDateTime, g_date_time_unref> date(g_date_time_new_from_unix_local(time));
    gcab_file_set_date_time(file, date.get());
    // Without it the gateways' libarchive would unpack the definitions writable for everybody.
    gcab_file_set_attributes(file, GCAB_FILE_ATTRIBUTE_RDONLY);
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
    const tools::Handle<archive_entry, archive_entry_free> entry(archive_entry_new());
    archive_entry_set_pathname(entry.get(), name.c_str());
    archive_entry_set_size(entry.get(), size);
    archive_entry_set_filetype(entry.get(), AE_IFREG);
    archive_entry_set_perm(entry.get(), 0644);
    archive_entry_set_mtime(entry.get(), modified, 0);
    require_zip(writer, archive_write_header(writer, entry.get()));
}

}  // namespace

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
    const tools::Handle<archive, archive_write_free> writer(archive_write_new());
    require_zip(writer.get(), archive_write_set_format_zip(writer.get()));
    require_zip(writer.get(), archive_write_zip_set_compression_deflate(writer.get()));
    require_zip(writer.get(), archive_write_open_filename(writer.get(), path.c_str()));
    start_entry(writer.get(), index_name, static_cast<la_int64_t>(index.size()), index_time);
    require_zip(writer.get(), archive_write_data(writer.get(), index.data(), index.size()));
    for (const auto& source : sources) {
        start_entry(writer.get(), source.name, source.before.st_size, source.before.st_mtim.tv_sec);
        tools::read_blocks(source.path, [&](const char* data, std::size_t size) {
            require_zip(writer.get(), archive_write_data(writer.get(), data, size));
        });
    }
    require_zip(writer.get(), archive_write_close(writer.get()));
}

}  // namespace zqu::mirror_tool

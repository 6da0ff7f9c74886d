#include <libgcab.h>

#include <algorithm>

#include "descriptors.hpp"
#include "failure.hpp"
#include "pack.hpp"

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

}  // namespace zqu::mirror_tool

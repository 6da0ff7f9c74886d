#include <archive.h>
#include <archive_entry.h>

#include <cstring>

#include "descriptors.hpp"
#include "failure.hpp"
#include "files.hpp"
#include "pack.hpp"

namespace zqu::mirror_tool {

namespace {

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
        read_blocks(source.path, [&](const char* data, std::size_t size) {
            require_zip(writer.get(), archive_write_data(writer.get(), data, size));
        });
    }
    require_zip(writer.get(), archive_write_close(writer.get()));
}

}  // namespace zqu::mirror_tool

// Preloaded, is a libarchive that was built without libzstd and would look for zstd(1) to run.
#include <archive.h>

extern "C" int archive_read_support_filter_zstd(archive* /*reader*/) {
    return ARCHIVE_WARN;
}

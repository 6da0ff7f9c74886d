// The standard descriptors of a process whose caller may have closed some of them.
#pragma once

namespace zqu::tools {

// Opens /dev/null, read-only, for each standard descriptor that is closed: no file that is opened later gets its number
// then, and writing there fails as before. To be called before any other file is opened.
void hold_standard_descriptors();

}  // namespace zqu::tools

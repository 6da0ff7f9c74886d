// The command that copies the current release of another mirror.
#pragma once

#include "options.hpp"
#include "run.hpp"

namespace zqu::mirror_tool {

// Asks the mirror at options.upstream for its current release; when that is not current here, downloads it, verifies it
// as a client does, and makes it current in options.mirror, an absolute folder. The complete-info INI and the
// archive keep their names and their bytes. Prints one line, also when there is nothing new, and changes nothing then.
//
// Throws when anything fails, with the reason as its text, and the run then leaves the mirror as it was, but for what
// publish() says of the last flush. Refused are, besides what cannot be fetched, does not verify or cannot be written:
// an id or an archive name that is no plain file name (names.hpp), an id that is known here with another archive, an
// archive whose name belongs to other content here, and a mirror that another run works on.
void mirror(const Options& options, Run& run);

}  // namespace zqu::mirror_tool

// The command that writes a release and makes it current.
#pragma once

#include "options.hpp"
#include "run.hpp"

namespace zqu::mirror_tool {

// Packs the two definition files, puts the archive and its INI into the mirror's folder, reads them back as a client
// does, and only then makes the release current in one step; prints one line. A release that is there already with the
// same content is read back and made current again. options.mirror is an absolute folder.
//
// Throws when anything fails, with the reason as its text, and the run then leaves the mirror as it was; but for one
// case, which the text names: the release is current, and only the last flush has failed. Refused are, besides failing
// system calls: names too long for a client, sources that are no regular files, that change meanwhile or that do not
// fit into a CAB, an id known with other content or with files that do not match, and a mirror that another run works
// on.
void publish(const Options& options, Run& run);

}  // namespace zqu::mirror_tool

// The three digests of an open file in one pass, read with pread so the
// descriptor's offset is left alone and no new open (and no fanotify event)
// is raised.
#pragma once

#include "Digest.h"

namespace zorvd {

using Digests = zorv::host::FileDigests;

bool ComputeDigests(int fd, Digests& out);

}  // namespace zorvd

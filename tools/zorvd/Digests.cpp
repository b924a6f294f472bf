#include "Digests.h"

#include <unistd.h>

#include <cerrno>
#include <vector>

namespace zorvd {

bool ComputeDigests(int fd, Digests& out) {
    thread_local zorv::host::Digester digester;
    thread_local std::vector<unsigned char> buffer(1 << 18);
    off_t offset = 0;
    for (;;) {
        const ssize_t got = pread(fd, buffer.data(), buffer.size(), offset);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) {
            digester.Finish();  // starts over for the next file
            return false;
        }
        if (got == 0) break;
        digester.Update(buffer.data(), static_cast<size_t>(got));
        offset += got;
    }
    out = digester.Finish();
    return true;
}

}  // namespace zorvd

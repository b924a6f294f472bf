// SHA-256, SHA-1 and MD5 of an open file in one pass, read with pread so the
// descriptor's offset and the file's access events are left alone.
#pragma once

#include <cstdint>
#include <string>

namespace zorvd {

struct Digests {
    uint8_t sha256[32];
    uint8_t sha1[20];
    uint8_t md5[16];
};

bool ComputeDigests(int fd, Digests& out);
std::string Hex(const uint8_t* bytes, size_t count);

}  // namespace zorvd

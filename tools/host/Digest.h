// SHA-256, SHA-1 and MD5 of one byte stream, computed in a single pass.
// OpenSSL's libcrypto on POSIX (DigestOpenSsl.cpp), BCrypt on Windows
// (DigestBcrypt.cpp); CMake compiles exactly one. A Digester belongs to one
// thread at a time; use one per worker.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

namespace zorv::host {

struct FileDigests {
    uint8_t sha256[32] = {};
    uint8_t sha1[20] = {};
    uint8_t md5[16] = {};
};

class Digester {
public:
    Digester();
    ~Digester();
    Digester(const Digester&) = delete;
    Digester& operator=(const Digester&) = delete;

    void Update(const void* data, size_t length);
    // Returns the three digests and starts over for the next stream.
    FileDigests Finish();

private:
    struct State;
    std::unique_ptr<State> m_state;
};

}  // namespace zorv::host

#include <windows.h>
#include <bcrypt.h>

#include <stdexcept>

#include "Digest.h"

namespace zorv::host {

namespace {

// Algorithm providers are costly to open and may be shared between threads,
// so they are opened once for the process; each hash object belongs to one
// digester.
struct Providers {
    BCRYPT_ALG_HANDLE handles[3] = {};
    Providers() {
        static const wchar_t* const kNames[3] = {BCRYPT_SHA256_ALGORITHM, BCRYPT_SHA1_ALGORITHM,
                                                 BCRYPT_MD5_ALGORITHM};
        for (int i = 0; i < 3; ++i) {
            if (!BCRYPT_SUCCESS(BCryptOpenAlgorithmProvider(&handles[i], kNames[i], nullptr, 0)))
                handles[i] = nullptr;
        }
    }
};

const Providers& SharedProviders() {
    static const Providers providers;
    return providers;
}

}  // namespace

struct Digester::State {
    BCRYPT_HASH_HANDLE hashes[3] = {};
    void Start() {
        const Providers& providers = SharedProviders();
        for (int i = 0; i < 3; ++i) {
            // A null object buffer lets BCrypt own the memory (Windows 7 on).
            if (providers.handles[i] == nullptr ||
                !BCRYPT_SUCCESS(BCryptCreateHash(providers.handles[i], &hashes[i], nullptr, 0, nullptr, 0, 0)))
                throw std::runtime_error("BCrypt digests are not available");
        }
    }
    void Destroy() {
        for (BCRYPT_HASH_HANDLE& hash : hashes) {
            if (hash != nullptr) BCryptDestroyHash(hash);
            hash = nullptr;
        }
    }
};

Digester::Digester() : m_state(std::make_unique<State>()) { m_state->Start(); }

Digester::~Digester() { m_state->Destroy(); }

void Digester::Update(const void* data, size_t length) {
    auto* bytes = static_cast<PUCHAR>(const_cast<void*>(data));
    // A slice at a time through all three, so that the second and third read
    // it from the processor's first-level cache rather than from memory.
    constexpr ULONG kSlice = 16 * 1024;
    while (length > 0) {
        const ULONG chunk = length > kSlice ? kSlice : static_cast<ULONG>(length);
        for (BCRYPT_HASH_HANDLE hash : m_state->hashes) BCryptHashData(hash, bytes, chunk, 0);
        bytes += chunk;
        length -= chunk;
    }
}

FileDigests Digester::Finish() {
    FileDigests out;
    BCryptFinishHash(m_state->hashes[0], out.sha256, sizeof out.sha256, 0);
    BCryptFinishHash(m_state->hashes[1], out.sha1, sizeof out.sha1, 0);
    BCryptFinishHash(m_state->hashes[2], out.md5, sizeof out.md5, 0);
    m_state->Destroy();
    m_state->Start();
    return out;
}

}  // namespace zorv::host

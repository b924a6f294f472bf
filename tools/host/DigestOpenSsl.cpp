#include <openssl/evp.h>

#include <algorithm>
#include <stdexcept>

#include "Digest.h"

namespace zorv::host {

// The algorithms are fetched once per digester: EVP_DigestInit_ex on a
// fetched EVP_MD skips the provider lookup that dominates small files.
struct Digester::State {
    EVP_MD_CTX* contexts[3] = {};
    EVP_MD* algorithms[3] = {};
    void Start() {
        for (int i = 0; i < 3; ++i) EVP_DigestInit_ex(contexts[i], algorithms[i], nullptr);
    }
};

Digester::Digester() : m_state(std::make_unique<State>()) {
    static const char* const kNames[3] = {"SHA256", "SHA1", "MD5"};
    for (int i = 0; i < 3; ++i) {
        m_state->algorithms[i] = EVP_MD_fetch(nullptr, kNames[i], nullptr);
        m_state->contexts[i] = EVP_MD_CTX_new();
        if (m_state->algorithms[i] == nullptr || m_state->contexts[i] == nullptr)
            throw std::runtime_error("OpenSSL digests are not available");
    }
    m_state->Start();
}

Digester::~Digester() {
    for (int i = 0; i < 3; ++i) {
        EVP_MD_CTX_free(m_state->contexts[i]);
        EVP_MD_free(m_state->algorithms[i]);
    }
}

void Digester::Update(const void* data, size_t length) {
    // A slice at a time through all three, so that the second and third read
    // it from the processor's first-level cache rather than from memory.
    constexpr size_t kSlice = 16 * 1024;
    const auto* bytes = static_cast<const unsigned char*>(data);
    for (size_t done = 0; done < length; done += kSlice) {
        const size_t take = std::min(kSlice, length - done);
        for (EVP_MD_CTX* context : m_state->contexts) EVP_DigestUpdate(context, bytes + done, take);
    }
}

FileDigests Digester::Finish() {
    FileDigests out;
    EVP_DigestFinal_ex(m_state->contexts[0], out.sha256, nullptr);
    EVP_DigestFinal_ex(m_state->contexts[1], out.sha1, nullptr);
    EVP_DigestFinal_ex(m_state->contexts[2], out.md5, nullptr);
    m_state->Start();
    return out;
}

}  // namespace zorv::host

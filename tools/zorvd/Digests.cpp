#include "Digests.h"

#include <unistd.h>

#include <cerrno>
#include <memory>
#include <vector>

#include <openssl/evp.h>

namespace zorvd {
namespace {

struct ContextFree {
    void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
};
using Context = std::unique_ptr<EVP_MD_CTX, ContextFree>;

}  // namespace

bool ComputeDigests(int fd, Digests& out) {
    Context contexts[3] = {Context(EVP_MD_CTX_new()), Context(EVP_MD_CTX_new()), Context(EVP_MD_CTX_new())};
    const EVP_MD* kinds[3] = {EVP_sha256(), EVP_sha1(), EVP_md5()};
    uint8_t* targets[3] = {out.sha256, out.sha1, out.md5};
    for (int i = 0; i < 3; ++i) {
        if (!contexts[i] || EVP_DigestInit_ex(contexts[i].get(), kinds[i], nullptr) != 1) return false;
    }
    thread_local std::vector<unsigned char> buffer(1 << 18);
    off_t offset = 0;
    for (;;) {
        const ssize_t got = pread(fd, buffer.data(), buffer.size(), offset);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) return false;
        if (got == 0) break;
        for (auto& context : contexts) EVP_DigestUpdate(context.get(), buffer.data(), static_cast<size_t>(got));
        offset += got;
    }
    for (int i = 0; i < 3; ++i) {
        unsigned int length = 0;
        if (EVP_DigestFinal_ex(contexts[i].get(), targets[i], &length) != 1) return false;
    }
    return true;
}

std::string Hex(const uint8_t* bytes, size_t count) {
    static const char kDigits[] = "0123456789abcdef";
    std::string text(count * 2, '0');
    for (size_t i = 0; i < count; ++i) {
        text[2 * i] = kDigits[bytes[i] >> 4];
        text[2 * i + 1] = kDigits[bytes[i] & 15];
    }
    return text;
}

}  // namespace zorvd

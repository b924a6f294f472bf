// Digest holders and the engine's file helpers.
//
// The engine never computes a digest: SHA-256, SHA-1 and MD5 values arrive as
// raw bytes (events, items) or as hexadecimal text (rulesets). A holder keeps
// both forms. Holders are plain values (deep copies), owned by one thread at a
// time. The guarded reader and the writer are the platform layer's.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "platform/Platform.h"

namespace zorv {

using platform::FileWriter;
using platform::OplockReader;

class Hash {
public:
    virtual ~Hash();

    // Copies digestSize() bytes; a null pointer leaves the holder unchanged.
    virtual void SetFromBytes(const uint8_t* bytes);
    // Keeps the text as given and decodes it; the argument is left empty.
    // Text longer than twice the digest size is refused: the holder is emptied
    // and a warning logged, so a bad ruleset value can never overrun the buffer.
    virtual void SetFromHex(std::string hex);

    bool IsSet() const { return !m_digest.empty(); }
    // Null until set.
    const uint8_t* Bytes() const { return m_digest.empty() ? nullptr : m_digest.data(); }
    size_t DigestSize() const { return m_digestSize; }
    const std::string& Hex() const { return m_hex; }
    void Clear();

    bool operator==(const Hash& other) const {
        return m_digestSize == other.m_digestSize && m_digest == other.m_digest;
    }

    // n bytes to 2n lower-case hexadecimal digits.
    static std::string Encode(const uint8_t* bytes, size_t count);
    // Pairs of digits to bytes, high nibble first, into out[0..count). Any
    // character that is not a hex digit reads as 0; a trailing odd digit is ignored.
    static void Decode(std::string_view hex, uint8_t* out, size_t count);

protected:
    explicit Hash(size_t digestSize) : m_digestSize(digestSize) {}
    Hash(const Hash&) = default;
    Hash& operator=(const Hash&) = default;

private:
    std::vector<uint8_t> m_digest;  // empty until set
    size_t m_digestSize;
    std::string m_hex;
};

class SHA256Hash final : public Hash {
public:
    static constexpr size_t kSize = 32;
    SHA256Hash() : Hash(kSize) {}
};

class SHA1Hash final : public Hash {
public:
    static constexpr size_t kSize = 20;
    SHA1Hash() : Hash(kSize) {}
};

class MD5Hash final : public Hash {
public:
    static constexpr size_t kSize = 16;
    MD5Hash() : Hash(kSize) {}
};

}  // namespace zorv

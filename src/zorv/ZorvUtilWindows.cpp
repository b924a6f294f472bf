#include "ZorvUtilWindows.h"

#include "ZorvLogger.h"

namespace zorv {

namespace {

constexpr char16_t kLogSource[] = u"src/zorv/ZorvUtilWindows";

// Indexed by (c & 31) ^ 16: '0'..'9' land on 0..9, 'a'..'f' and 'A'..'F' on
// 17..22. Every other character reads as 0 rather than failing.
constexpr uint8_t kHexValue[32] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 0, 0, 0, 0, 0, 0,
                                   0, 10, 11, 12, 13, 14, 15, 0, 0, 0, 0, 0, 0, 0, 0, 0};

uint8_t HexValue(char c) { return kHexValue[(static_cast<unsigned char>(c) & 31) ^ 16]; }

}  // namespace

Hash::~Hash() = default;

void Hash::Clear() {
    m_digest.clear();
    m_hex.clear();
}

void Hash::SetFromBytes(const uint8_t* bytes) {
    if (bytes == nullptr) return;
    m_digest.assign(bytes, bytes + m_digestSize);
    m_hex = Encode(m_digest.data(), m_digestSize);
}

void Hash::SetFromHex(std::string hex) {
    std::string text = std::move(hex);
    if (text.size() > 2 * m_digestSize) {
        ZORV_LOG(kLogWarning, u"Hash::SetFromHex", u"Hash text of %u characters is longer than %u, ignored",
                 text.size(), 2 * m_digestSize);
        Clear();
        return;
    }
    m_digest.assign(m_digestSize, 0);
    Decode(text, m_digest.data(), m_digestSize);
    m_hex = std::move(text);
}

std::string Hash::Encode(const uint8_t* bytes, size_t count) {
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string text(2 * count, '0');
    for (size_t i = 0; i < count; ++i) {
        text[2 * i] = kDigits[bytes[i] >> 4];
        text[2 * i + 1] = kDigits[bytes[i] & 0xF];
    }
    return text;
}

void Hash::Decode(std::string_view hex, uint8_t* out, size_t count) {
    for (size_t i = 0; i + 1 < hex.size() && i / 2 < count; i += 2) {
        out[i / 2] = static_cast<uint8_t>((HexValue(hex[i]) << 4) | HexValue(hex[i + 1]));
    }
}

}  // namespace zorv

#include "HostText.h"

#include <array>
#include <cstdint>
#include <cstring>

namespace zorv::host {

std::optional<ZString> Utf8ToZ(std::string_view utf8) {
    ZString out;
    if (!Utf8ToZ(utf8, out)) return std::nullopt;
    return out;
}

namespace {

// The code point at `at` and its length in bytes; false for bytes that are
// not strict UTF-8 (overlong forms, surrogates, truncated sequences, past
// U+10FFFF).
bool DecodeUtf8(std::string_view utf8, size_t at, uint32_t& code, size_t& length) {
    const auto lead = static_cast<unsigned char>(utf8[at]);
    size_t extra = 0;
    uint32_t minimum = 0;
    if (lead < 0x80) {
        code = lead, length = 1;
        return true;
    } else if ((lead & 0xE0) == 0xC0) {
        code = lead & 0x1F, extra = 1, minimum = 0x80;
    } else if ((lead & 0xF0) == 0xE0) {
        code = lead & 0x0F, extra = 2, minimum = 0x800;
    } else if ((lead & 0xF8) == 0xF0) {
        code = lead & 0x07, extra = 3, minimum = 0x10000;
    } else {
        return false;
    }
    if (at + extra >= utf8.size()) return false;
    for (size_t k = 1; k <= extra; ++k) {
        const auto next = static_cast<unsigned char>(utf8[at + k]);
        if ((next & 0xC0) != 0x80) return false;
        code = (code << 6) | (next & 0x3F);
    }
    if (code < minimum || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF)) return false;
    length = extra + 1;
    return true;
}

}  // namespace

bool Utf8ToZ(std::string_view utf8, ZString& out) {
    // Paths and names are mostly ASCII: that run is widened in one pass,
    // found eight bytes at a step.
    size_t i = 0;
    for (uint64_t word; i + 8 <= utf8.size(); i += 8) {
        std::memcpy(&word, utf8.data() + i, sizeof word);
        if ((word & 0x8080808080808080ull) != 0) break;
    }
    while (i < utf8.size() && static_cast<unsigned char>(utf8[i]) < 0x80) ++i;
    out.resize(i);
    ZorvChar* wide = out.data();
    for (size_t k = 0; k < i; ++k) wide[k] = static_cast<unsigned char>(utf8[k]);
    if (i == utf8.size()) return true;
    out.reserve(utf8.size());
    while (i < utf8.size()) {
        uint32_t code = 0;
        size_t length = 0;
        if (!DecodeUtf8(utf8, i, code, length)) return false;
        if (code >= 0x10000) {
            code -= 0x10000;
            out.push_back(static_cast<ZorvChar>(0xD800 + (code >> 10)));
            out.push_back(static_cast<ZorvChar>(0xDC00 + (code & 0x3FF)));
        } else {
            out.push_back(static_cast<ZorvChar>(code));
        }
        i += length;
    }
    return true;
}

std::string Printable(std::string_view text) {
    static constexpr char kHex[] = "0123456789abcdef";
    std::string out;
    out.reserve(text.size());
    for (size_t i = 0; i < text.size();) {
        uint32_t code = 0;
        size_t length = 0;
        if (!DecodeUtf8(text, i, code, length)) {
            const auto byte = static_cast<unsigned char>(text[i++]);
            out += {'\\', 'x', kHex[byte >> 4], kHex[byte & 15]};
            continue;
        }
        if (code == '\n') {
            out += "\\n";
        } else if (code == '\r') {
            out += "\\r";
        } else if (code == '\t') {
            out += "\\t";
        } else if (code < 0x20 || (code >= 0x7F && code <= 0x9F)) {
            out += {'\\', 'x', kHex[code >> 4], kHex[code & 15]};
        } else if (code == 0x2028 || code == 0x2029 || code == 0x200E || code == 0x200F ||
                   (code >= 0x202A && code <= 0x202E) || (code >= 0x2066 && code <= 0x2069)) {
            out += {'\\', 'u', '2', '0', kHex[(code >> 4) & 15], kHex[code & 15]};
        } else {
            out.append(text.substr(i, length));
        }
        i += length;
    }
    return out;
}

std::string ZToUtf8(const ZorvChar* text, size_t length) {
    std::string out;
    out.reserve(length);
    for (size_t i = 0; i < length; ++i) {
        uint32_t code = static_cast<uint16_t>(text[i]);
        if (code >= 0xD800 && code <= 0xDBFF && i + 1 < length) {
            const uint32_t low = static_cast<uint16_t>(text[i + 1]);
            if (low >= 0xDC00 && low <= 0xDFFF) {
                code = 0x10000 + ((code - 0xD800) << 10) + (low - 0xDC00);
                ++i;
            }
        }
        if (code >= 0xD800 && code <= 0xDFFF) code = 0xFFFD;
        AppendUtf8(out, code);
    }
    return out;
}

std::string ZToUtf8(const ZorvChar* text) {
    size_t length = 0;
    while (text != nullptr && text[length] != 0) ++length;
    return ZToUtf8(text, length);
}

std::optional<ZString> PathToZ(const std::filesystem::path& path) {
    using Native = std::filesystem::path::value_type;
    if constexpr (sizeof(Native) == sizeof(ZorvChar)) {
        const auto& native = path.native();
        return ZString(native.begin(), native.end());
    } else {
        return Utf8ToZ(path.string());
    }
}

std::string PathToUtf8(const std::filesystem::path& path) {
    const std::u8string text = path.u8string();
    return std::string(text.begin(), text.end());
}

void AppendUtf8(std::string& out, uint32_t code) {
    if (code < 0x80) {
        out.push_back(static_cast<char>(code));
    } else if (code < 0x800) {
        out.push_back(static_cast<char>(0xC0 | (code >> 6)));
        out.push_back(static_cast<char>(0x80 | (code & 0x3F)));
    } else if (code < 0x10000) {
        out.push_back(static_cast<char>(0xE0 | (code >> 12)));
        out.push_back(static_cast<char>(0x80 | ((code >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (code & 0x3F)));
    } else {
        out.push_back(static_cast<char>(0xF0 | (code >> 18)));
        out.push_back(static_cast<char>(0x80 | ((code >> 12) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | ((code >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (code & 0x3F)));
    }
}

std::string ToHex(const uint8_t* bytes, size_t length) {
    static const char kDigits[] = "0123456789abcdef";
    std::string out(length * 2, '0');
    for (size_t i = 0; i < length; ++i) {
        out[2 * i] = kDigits[bytes[i] >> 4];
        out[2 * i + 1] = kDigits[bytes[i] & 0x0F];
    }
    return out;
}

namespace {
// Hex digit values by byte, 0xFF for every other byte: a replay decodes a
// digest or more per line, and a table does it without branches.
constexpr std::array<uint8_t, 256> kHexValues = [] {
    std::array<uint8_t, 256> values{};
    values.fill(0xFF);
    for (int c = '0'; c <= '9'; ++c) values[c] = static_cast<uint8_t>(c - '0');
    for (int c = 'a'; c <= 'f'; ++c) values[c] = static_cast<uint8_t>(c - 'a' + 10);
    for (int c = 'A'; c <= 'F'; ++c) values[c] = static_cast<uint8_t>(c - 'A' + 10);
    return values;
}();
}  // namespace

bool FromHex(std::string_view hex, uint8_t* bytes, size_t length) {
    if (hex.size() != length * 2) return false;
    uint8_t invalid = 0;
    for (size_t i = 0; i < length; ++i) {
        const uint8_t high = kHexValues[static_cast<unsigned char>(hex[2 * i])];
        const uint8_t low = kHexValues[static_cast<unsigned char>(hex[2 * i + 1])];
        invalid |= static_cast<uint8_t>(high | low);
        bytes[i] = static_cast<uint8_t>(high << 4 | (low & 0x0F));
    }
    // Any byte that is not a digit set the high bits.
    return (invalid & 0xF0) == 0;
}

}  // namespace zorv::host

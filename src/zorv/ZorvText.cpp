#include "ZorvText.h"

#include <cstdint>
#include <cstring>

namespace zorv {

namespace {

constexpr char32_t kReplacement = 0xFFFD;

bool IsHighSurrogate(char16_t u) { return u >= 0xD800 && u <= 0xDBFF; }
bool IsLowSurrogate(char16_t u) { return u >= 0xDC00 && u <= 0xDFFF; }

void AppendUtf8(std::string& out, char32_t cp) {
    if (cp < 0x80) {
        out.push_back(static_cast<char>(cp));
    } else if (cp < 0x800) {
        out.push_back(static_cast<char>(0xC0 | (cp >> 6)));
        out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    } else if (cp < 0x10000) {
        out.push_back(static_cast<char>(0xE0 | (cp >> 12)));
        out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    } else {
        out.push_back(static_cast<char>(0xF0 | (cp >> 18)));
        out.push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    }
}

void AppendUtf16(std::u16string& out, char32_t cp) {
    if (cp < 0x10000) {
        out.push_back(static_cast<char16_t>(cp));
    } else {
        cp -= 0x10000;
        out.push_back(static_cast<char16_t>(0xD800 + (cp >> 10)));
        out.push_back(static_cast<char16_t>(0xDC00 + (cp & 0x3FF)));
    }
}

}  // namespace

std::u16string FromHostText(const ZorvChar* text) {
    static_assert(sizeof(ZorvChar) == sizeof(char16_t), "host text is UTF-16 on every platform");
    if (text == nullptr) return {};
    return std::u16string(reinterpret_cast<const char16_t*>(text));
}

std::string Utf16ToUtf8(std::u16string_view text) {
    std::string out;
    Utf16ToUtf8(text, out);
    return out;
}

void Utf16ToUtf8(std::u16string_view text, std::string& out) {
    out.clear();
    out.reserve(text.size());
    for (size_t i = 0; i < text.size(); ++i) {
        const char16_t u = text[i];
        if (u < 0x80) {
            out.push_back(static_cast<char>(u));
        } else if (IsHighSurrogate(u) && i + 1 < text.size() && IsLowSurrogate(text[i + 1])) {
            const char32_t cp = 0x10000 + ((char32_t(u) - 0xD800) << 10) + (char32_t(text[i + 1]) - 0xDC00);
            AppendUtf8(out, cp);
            ++i;
        } else if (IsHighSurrogate(u) || IsLowSurrogate(u)) {
            AppendUtf8(out, kReplacement);
        } else {
            AppendUtf8(out, u);
        }
    }
}

std::u16string Utf8ToUtf16(std::string_view text) {
    std::u16string out;
    Utf8ToUtf16(text, out);
    return out;
}

void Utf8ToUtf16(std::string_view text, std::u16string& out) {
    out.clear();
    out.reserve(text.size());
    const auto* bytes = reinterpret_cast<const unsigned char*>(text.data());
    const size_t n = text.size();
    size_t i = 0;
    while (i < n) {
        const unsigned char b = bytes[i];
        if (b < 0x80) {
            out.push_back(b);
            ++i;
            continue;
        }
        size_t length = 0;
        char32_t cp = 0;
        char32_t minimum = 0;
        if ((b & 0xE0) == 0xC0) {
            length = 2; cp = b & 0x1F; minimum = 0x80;
        } else if ((b & 0xF0) == 0xE0) {
            length = 3; cp = b & 0x0F; minimum = 0x800;
        } else if ((b & 0xF8) == 0xF0) {
            length = 4; cp = b & 0x07; minimum = 0x10000;
        }
        size_t taken = 1;
        bool valid = length != 0;
        while (valid && taken < length) {
            if (i + taken >= n || (bytes[i + taken] & 0xC0) != 0x80) {
                valid = false;
                break;
            }
            cp = (cp << 6) | (bytes[i + taken] & 0x3F);
            ++taken;
        }
        if (valid && (cp < minimum || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF))) valid = false;
        if (valid) {
            AppendUtf16(out, cp);
            i += length;
        } else {
            // Consume the lead byte and the continuation bytes that followed it,
            // so one broken sequence yields one replacement character.
            out.push_back(static_cast<char16_t>(kReplacement));
            i += taken;
        }
    }
}

char16_t ToLowerUnit(char16_t unit) {
    return (unit >= u'A' && unit <= u'Z') ? static_cast<char16_t>(unit + (u'a' - u'A')) : unit;
}

void ToLowerInPlace(std::u16string& text) {
    for (auto& unit : text) unit = ToLowerUnit(unit);
}

std::u16string ToLower(std::u16string_view text) {
    std::u16string out(text);
    ToLowerInPlace(out);
    return out;
}

void TrimTrailingBlanks(std::u16string& text) {
    const size_t last = text.find_last_not_of(u' ');
    text.erase(last == std::u16string::npos ? 0 : last + 1);
}

SplitName SplitAtLastSeparator(std::u16string_view name) {
    const size_t cut = name.find_last_of(u"\\/");
    if (cut == std::u16string_view::npos) return {std::u16string(), std::u16string(name)};
    return {std::u16string(name.substr(0, cut)), std::u16string(name.substr(cut + 1))};
}

std::u16string ExtensionOf(std::u16string_view fileName) {
    const size_t dot = fileName.rfind(u'.');
    if (dot == std::u16string_view::npos) return {};
    return std::u16string(fileName.substr(dot + 1));
}

}  // namespace zorv

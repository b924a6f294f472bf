// ZorvFormat: printf-style formatting of UTF-16 messages with typed arguments.
//
// Every argument is captured with its kind, so a conversion that does not fit
// its argument prints a visible marker ("%!d(text)") instead of reading the
// wrong thing off the stack. Supported: %s (UTF-16 or UTF-8 text), %d %i %u
// %x %X with the length modifiers h hh l ll z j t I64 accepted and ignored (the
// argument's own type decides its width), the flags '-' and '0', a decimal
// width, and %%. Pure functions: thread-safe.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <type_traits>

namespace zorv {

class FormatArg {
public:
    enum class Kind : uint8_t { Signed, Unsigned, Text16, Text8 };

    template <typename T, std::enable_if_t<std::is_integral_v<T> || std::is_enum_v<T>, int> = 0>
    FormatArg(T value)  // NOLINT(google-explicit-constructor): captures printf arguments
    {
        using U = std::conditional_t<std::is_enum_v<T>, std::underlying_type<T>, std::type_identity<T>>;
        using V = typename U::type;
        m_bits = static_cast<uint8_t>(sizeof(V) * 8);
        if constexpr (std::is_same_v<V, bool>) {
            m_kind = Kind::Unsigned;
            m_unsigned = value ? 1 : 0;
        } else if constexpr (std::is_signed_v<V>) {
            m_kind = Kind::Signed;
            m_signed = static_cast<int64_t>(static_cast<V>(value));
        } else {
            m_kind = Kind::Unsigned;
            m_unsigned = static_cast<uint64_t>(static_cast<V>(value));
        }
    }
    FormatArg(std::u16string_view text) : m_kind(Kind::Text16), m_text16(text) {}  // NOLINT
    FormatArg(const std::u16string& text) : m_kind(Kind::Text16), m_text16(text) {}  // NOLINT
    FormatArg(const char16_t* text)  // NOLINT
        : m_kind(Kind::Text16), m_text16(text ? std::u16string_view(text) : std::u16string_view()) {}
    FormatArg(std::string_view text) : m_kind(Kind::Text8), m_text8(text) {}  // NOLINT
    FormatArg(const std::string& text) : m_kind(Kind::Text8), m_text8(text) {}  // NOLINT
    FormatArg(const char* text)  // NOLINT
        : m_kind(Kind::Text8), m_text8(text ? std::string_view(text) : std::string_view()) {}

    Kind kind() const { return m_kind; }
    uint8_t bits() const { return m_bits; }
    int64_t signedValue() const { return m_signed; }
    uint64_t unsignedValue() const { return m_unsigned; }
    std::u16string_view text16() const { return m_text16; }
    std::string_view text8() const { return m_text8; }

private:
    Kind m_kind;
    uint8_t m_bits = 64;
    int64_t m_signed = 0;
    uint64_t m_unsigned = 0;
    std::u16string_view m_text16;
    std::string_view m_text8;
};

// Formats into out[0..capacity), always NUL-terminated when capacity > 0; text
// that does not fit is cut. Returns the number of units written before the NUL.
size_t FormatInto(char16_t* out, size_t capacity, std::u16string_view format,
                  const FormatArg* args, size_t argCount);

template <typename... Args>
size_t FormatTo(char16_t* out, size_t capacity, std::u16string_view format, const Args&... args) {
    if constexpr (sizeof...(Args) == 0) {
        return FormatInto(out, capacity, format, nullptr, 0);
    } else {
        const FormatArg packed[] = {FormatArg(args)...};
        return FormatInto(out, capacity, format, packed, sizeof...(Args));
    }
}

// Unbounded convenience for callers that build text rather than log lines.
std::u16string FormatString(std::u16string_view format, const FormatArg* args, size_t argCount);

template <typename... Args>
std::u16string Format(std::u16string_view format, const Args&... args) {
    if constexpr (sizeof...(Args) == 0) {
        return FormatString(format, nullptr, 0);
    } else {
        const FormatArg packed[] = {FormatArg(args)...};
        return FormatString(format, packed, sizeof...(Args));
    }
}

}  // namespace zorv

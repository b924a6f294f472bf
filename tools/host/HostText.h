// Text between the host's UTF-8 and the engine's UTF-16 (ZorvChar), and hex.
// One home for these conversions in every host; all functions are pure and
// thread-safe.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include "zorv/zorv.h"

namespace zorv::host {

using ZString = std::basic_string<ZorvChar>;

// Strict: invalid UTF-8 (overlong forms, surrogates, truncated sequences)
// yields nullopt, so a bad event line is refused instead of half-read.
std::optional<ZString> Utf8ToZ(std::string_view utf8);
// The same into `out` (its storage reused); false for invalid UTF-8.
bool Utf8ToZ(std::string_view utf8, ZString& out);

// Text anyone may have named (files, processes, event lines) made safe for a
// terminal and a one-line log: line breaks, control characters (C0, DEL,
// C1), the Unicode line separators and the bidirectional overrides, which
// could show a name reversed, become escapes such as \n, \x1b and \u202e;
// bytes that are not UTF-8 become \xNN. Everything else is kept as it is.
std::string Printable(std::string_view text);

// Unpaired surrogates become U+FFFD: engine text is shown, never refused.
std::string ZToUtf8(const ZorvChar* text, size_t length);
std::string ZToUtf8(const ZorvChar* text);  // NUL-terminated, null gives ""

// A path as the engine's text: the native wide form on Windows, strict UTF-8
// on POSIX (nullopt for a name that is not UTF-8).
std::optional<ZString> PathToZ(const std::filesystem::path& path);
// A path for people and JSON: UTF-8.
std::string PathToUtf8(const std::filesystem::path& path);

// Appends one code point (at most U+10FFFF, not a surrogate) as UTF-8.
void AppendUtf8(std::string& out, uint32_t code);

std::string ToHex(const uint8_t* bytes, size_t length);
// Exactly 2*length hex digits of either case, else false.
bool FromHex(std::string_view hex, uint8_t* bytes, size_t length);

}  // namespace zorv::host

// ZorvText: the engine's only home for text conversion and the few text rules
// every subsystem shares. Inside the engine text is std::u16string; UTF-8 is
// produced only for SQLite, JSON and the log file. Pure functions: thread-safe.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "zorv/zorv.h"

namespace zorv {

// Host text (wchar_t on Windows, char16_t elsewhere) is UTF-16 code units on
// both platforms; this is the one place that reads it. A null pointer is "".
std::u16string FromHostText(const ZorvChar* text);

// UTF-16 to UTF-8. A lone surrogate becomes U+FFFD instead of failing, so a
// malformed name from the plug-in still reaches the log and the database.
std::string Utf16ToUtf8(std::u16string_view text);
// The same into `out`, whose storage is reused: for loops over many rows.
void Utf16ToUtf8(std::u16string_view text, std::string& out);

// UTF-8 to UTF-16. Malformed, overlong or surrogate-encoding sequences become
// U+FFFD, one per offending byte run.
std::u16string Utf8ToUtf16(std::string_view text);
void Utf8ToUtf16(std::string_view text, std::u16string& out);

// Lower-casing is ASCII A-Z only, so every platform and every locale folds the
// same way: the database and the rule tables compare the folded bytes.
char16_t ToLowerUnit(char16_t unit);
void ToLowerInPlace(std::u16string& text);
std::u16string ToLower(std::u16string_view text);

// Removes trailing U+0020 only; a text of blanks becomes empty.
void TrimTrailingBlanks(std::u16string& text);

// A full name split at its last '\' or '/' (both separate on every platform).
// Without a separator the directory is empty and the file name is the whole text.
struct SplitName {
    std::u16string directory;
    std::u16string fileName;
};
SplitName SplitAtLastSeparator(std::u16string_view name);

// The part after the last '.', or empty when there is none.
std::u16string ExtensionOf(std::u16string_view fileName);

}  // namespace zorv

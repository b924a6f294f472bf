// Shared helpers for the engine's tests: a capture of log lines, temporary
// folders and a few text conveniences.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "zorv/zorv.h"

namespace zorv::test {

struct LoggedLine {
    uint32_t level;
    uint32_t line;
    std::u16string function;
    std::u16string sourcePath;
    std::u16string message;
};

// Collects what the engine logs through the host callback. The process-wide
// logger can be initialised only once, so every test that starts the engine
// uses this one callback (see StartParams) and reads the lines it wants.
class LogCapture {
public:
    static LogCapture& Instance();
    static void Callback(uint32_t level, uint32_t line, const ZorvChar* function, const ZorvChar* sourcePath,
                         const ZorvChar* message, uint32_t length);

    void Clear();
    std::vector<LoggedLine> Lines() const;
    // Messages only, in order.
    std::vector<std::u16string> Messages() const;
    bool Contains(std::u16string_view message) const;
    size_t Count(std::u16string_view message) const;

private:
    mutable std::mutex m_mutex;
    std::vector<LoggedLine> m_lines;
};

// Start parameters routing the log into LogCapture at every level.
EngineStartParams StartParams(const std::u16string* dbPath = nullptr, uint32_t level = 0xF);

// A fresh folder under the system's temporary folder, removed with its contents.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::filesystem::path& path() const { return m_path; }
    std::filesystem::path operator/(const std::string& name) const { return m_path / name; }

private:
    std::filesystem::path m_path;
};

std::u16string U16(std::string_view utf8);
std::string U8(std::u16string_view utf16);
// A path as the engine's UTF-16 text.
std::u16string PathText(const std::filesystem::path& path);
// Host text pointer for a UTF-16 string (wchar_t on Windows, char16_t elsewhere).
inline const ZorvChar* Host(const std::u16string& text) { return reinterpret_cast<const ZorvChar*>(text.c_str()); }

void WriteFile(const std::filesystem::path& path, std::string_view contents);

// Runs `body` and fails the whole test program when it has not returned
// within `seconds`: a call that hangs (a FIFO opened for good) must end the
// run with a message, not wedge it. The stuck thread cannot be reclaimed, so
// the process exits at once.
void WithinSeconds(int seconds, const char* what, const std::function<void()>& body);
std::string ReadFile(const std::filesystem::path& path);

}  // namespace zorv::test

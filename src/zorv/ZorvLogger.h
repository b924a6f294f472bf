// ZorvLogger: the engine's diagnostic log, written either to "LogFile.log" or
// to the host's callback, chosen once by InitLogger and kept for the life of
// the library. Every message is one line: control characters in it (event
// texts are anyone's) are written as escapes such as \n and \x1b.
//
// Thread-safe. Log() may be called from every thread at once: formatting is
// per call, the file sink serialises its writes with its own mutex, and the
// host callback is called without any lock held. The mask and the initialised
// flag are atomics read without a lock; a line whose level fails the mask
// costs one test and formats nothing (use ZORV_LOG so that its arguments are
// not even evaluated).
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "ZorvFormat.h"
#include "zorv/zorv.h"

namespace zorv {

enum LogLevel : uint32_t {
    kLogInfo = AC_LOG_INFO,
    kLogWarning = AC_LOG_WARNING,
    kLogError = AC_LOG_ERROR,
    kLogTrace = AC_LOG_TRACE,
};

// Where formatted lines go. Implementations must tolerate concurrent calls.
class LogSink {
public:
    virtual ~LogSink() = default;
    // `message` is NUL-terminated at message[length]; function and sourcePath are NUL-terminated.
    virtual void Write(uint32_t level, uint32_t line, const char16_t* function, const char16_t* sourcePath,
                       const char16_t* message, size_t length) = 0;
};

class ZorvLogger {
public:
    // Units of the message buffer, terminator included; longer messages are cut.
    static constexpr size_t kMessageUnits = 1024;
    static constexpr char16_t kLogFileName[] = u"LogFile.log";
    // The file log is rotated before it passes this size; one previous file
    // is kept as "LogFile.log.1".
    static constexpr uint64_t kMaxLogFileBytes = uint64_t{64} << 20;

    // The process-wide logger, created on first use and destroyed at unload.
    static ZorvLogger& Instance();

    ZorvLogger();
    ~ZorvLogger();
    ZorvLogger(const ZorvLogger&) = delete;
    ZorvLogger& operator=(const ZorvLogger&) = delete;

    // With a callback: callback mode at `level`. Without: file mode at mask 0xF
    // (the level is ignored), appending to "LogFile.log" in the current
    // directory; 1 when that file cannot be opened as a regular file of its
    // own (a read-only folder, a directory or a link in its place), and the
    // logger then stays uninitialised so that a later call tries again.
    // Once initialised, a call changes nothing and says so at warning level.
    // 0 on success.
    uint32_t InitLogger(ZorvLogCallback callback, uint32_t level);

    void SetLevel(uint32_t mask) { m_mask.store(mask, std::memory_order_relaxed); }
    uint32_t Level() const { return m_mask.load(std::memory_order_relaxed); }
    bool IsInitialized() const { return m_initialized.load(std::memory_order_acquire); }

    // A combined level passes only when every one of its bits is in the mask.
    bool IsEnabled(uint32_t level) const {
        return IsInitialized() && (m_mask.load(std::memory_order_relaxed) & level) == level;
    }

    template <typename... Args>
    void Log(uint32_t level, const char16_t* function, const char16_t* sourcePath, uint32_t line,
             std::u16string_view format, const Args&... args) {
        if (!IsEnabled(level)) return;
        if constexpr (sizeof...(Args) == 0) {
            Emit(level, function, sourcePath, line, format, nullptr, 0);
        } else {
            const FormatArg packed[] = {FormatArg(args)...};
            Emit(level, function, sourcePath, line, format, packed, sizeof...(Args));
        }
    }

    // The name a level carries in a file line ("UNKNOWN" for combinations).
    static const char16_t* LevelName(uint32_t level);

private:
    void Emit(uint32_t level, const char16_t* function, const char16_t* sourcePath, uint32_t line,
              std::u16string_view format, const FormatArg* args, size_t argCount);

    std::atomic<uint32_t> m_mask{0};
    std::atomic<bool> m_initialized{false};
    // Set once by InitLogger before m_initialized is published; never replaced.
    std::unique_ptr<LogSink> m_sink;
};

}  // namespace zorv

// Logs through the process-wide logger. Each source file defines
// `constexpr char16_t kLogSource[]` (for example u"src/zorv/Zorv"). The level
// is tested before the arguments are evaluated.
#define ZORV_LOG(level, function, ...)                                                              \
    do {                                                                                            \
        ::zorv::ZorvLogger& zorvLogger_ = ::zorv::ZorvLogger::Instance();                           \
        if (zorvLogger_.IsEnabled(level))                                                           \
            zorvLogger_.Log((level), (function), kLogSource, static_cast<uint32_t>(__LINE__), __VA_ARGS__); \
    } while (0)

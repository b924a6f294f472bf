#include "ZorvLogger.h"

#include <cstring>
#include <ctime>
#include <mutex>

#include "ZorvText.h"
#include "platform/Platform.h"

namespace zorv {

namespace {

constexpr char16_t kLogSource[] = u"src/zorv/ZorvLogger";

class CallbackSink final : public LogSink {
public:
    explicit CallbackSink(ZorvLogCallback callback) : m_callback(callback) {}

    void Write(uint32_t level, uint32_t line, const char16_t* function, const char16_t* sourcePath,
               const char16_t* message, size_t length) override {
        // No lock: the host's function must itself be safe on several threads.
        m_callback(level, line, reinterpret_cast<const ZorvChar*>(function),
                   reinterpret_cast<const ZorvChar*>(sourcePath), reinterpret_cast<const ZorvChar*>(message),
                   static_cast<uint32_t>(length));
    }

private:
    ZorvLogCallback m_callback;
};

class FileSink final : public LogSink {
public:
    explicit FileSink(std::u16string path) : m_path(std::move(path)) {
        std::lock_guard<std::mutex> lock(m_mutex);
        // A file that cannot be opened silences file logging; nothing else fails.
        if (!m_path.empty() && !m_file.IsOpen()) m_file.Open(m_path);
    }

    void Write(uint32_t level, uint32_t line, const char16_t* function, const char16_t* sourcePath,
               const char16_t* message, size_t length) override {
        std::u16string text = LocalTimeStamp();
        text += ZorvLogger::LevelName(level);
        text += u' ';
        text += sourcePath;
        text += u' ';
        text += function;
        text += u' ';
        text += Format(u"%u", line);
        text += u": ";
        text.append(message, length);
        std::string bytes = Utf16ToUtf8(text);
        bytes.push_back('\n');

        std::lock_guard<std::mutex> lock(m_mutex);
        // One write per line: the append file is unbuffered, so a crash loses nothing.
        if (m_file.IsOpen()) m_file.Write(bytes.data(), bytes.size());
    }

private:
    static std::u16string LocalTimeStamp() {
        std::tm local{};
        char narrow[160];
        size_t n = 0;
        if (platform::LocalTime(static_cast<int64_t>(std::time(nullptr)), local)) {
            n = std::strftime(narrow, sizeof narrow, "%Y %m %d %X ", &local);
        }
        return Utf8ToUtf16(std::string_view(narrow, n));
    }

    const std::u16string m_path;
    std::mutex m_mutex;  // guards m_file
    platform::AppendFile m_file;
};

}  // namespace

ZorvLogger& ZorvLogger::Instance() {
    static ZorvLogger logger;
    return logger;
}

ZorvLogger::ZorvLogger() = default;
ZorvLogger::~ZorvLogger() = default;

uint32_t ZorvLogger::InitLogger(ZorvLogCallback callback, uint32_t level) {
    if (IsInitialized()) {
        Log(kLogWarning, u"ZorvLogger::InitLogger", kLogSource, __LINE__, u"Zorv Logging already initialized!");
        return 0;
    }
    if (callback != nullptr) {
        m_sink = std::make_unique<CallbackSink>(callback);
        m_mask.store(level, std::memory_order_relaxed);
    } else {
        m_sink = std::make_unique<FileSink>(kLogFileName);
        m_mask.store(kLogInfo | kLogWarning | kLogError | kLogTrace, std::memory_order_relaxed);
    }
    m_initialized.store(true, std::memory_order_release);
    return 0;
}

const char16_t* ZorvLogger::LevelName(uint32_t level) {
    switch (level) {
        case kLogInfo: return u"INFO";
        case kLogWarning: return u"WARNING";
        case kLogError: return u"ERROR";
        case kLogTrace: return u"TRACE";
        default: return u"UNKNOWN";
    }
}

void ZorvLogger::Emit(uint32_t level, const char16_t* function, const char16_t* sourcePath, uint32_t line,
                      std::u16string_view format, const FormatArg* args, size_t argCount) {
    char16_t message[kMessageUnits];
    const size_t length = FormatInto(message, kMessageUnits, format, args, argCount);
    m_sink->Write(level, line, function != nullptr ? function : u"", sourcePath != nullptr ? sourcePath : u"",
                  message, length);
}

}  // namespace zorv

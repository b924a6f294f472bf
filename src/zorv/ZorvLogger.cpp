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

// The file log, capped: when a line would take it past kMaxLogFileBytes the
// file becomes "LogFile.log.1" (replacing the one before) and a new one is
// started, so the log never holds more than twice the cap.
class FileSink final : public LogSink {
public:
    explicit FileSink(std::u16string path) : m_path(std::move(path)) {}

    // False when the file cannot be opened as a regular file of its own (a
    // read-only folder, a directory or a link in its place).
    bool Open() {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (!m_file.Open(m_path)) return false;
        m_size = m_file.Size();
        return true;
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
        if (m_size > 0 && m_size + bytes.size() > ZorvLogger::kMaxLogFileBytes) Rotate();
        // One write per line: the append file is unbuffered, so a crash loses nothing.
        if (m_file.IsOpen() && m_file.Write(bytes.data(), bytes.size())) m_size += bytes.size();
    }

private:
    // Called with m_mutex held. Other programs may append to the same file;
    // the count is ours only, which is close enough for a cap.
    void Rotate() {
        m_file.Close();
        uint32_t error = 0;
        platform::RenameOver(m_path, m_path + u".1", error);
        // A name taken over meanwhile (a link, a folder) is not written
        // through: the file log stays silent until the next start.
        m_size = m_file.Open(m_path) ? m_file.Size() : 0;
    }

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
    std::mutex m_mutex;  // guards m_file and m_size
    platform::AppendFile m_file;
    uint64_t m_size = 0;
};

// Event texts come from whoever named the file or the process: a line feed
// in one would end the record and let the rest pass for a record of its own,
// and escape bytes would reach a terminal. Control characters (C0, DEL, C1)
// and the Unicode line and paragraph separators are written as escapes; the
// output is cut, like any message, when it does not fit.
size_t EscapeControls(std::u16string_view in, char16_t* out, size_t capacity) {
    static constexpr char16_t kHex[] = u"0123456789abcdef";
    size_t n = 0;
    const auto put = [&](std::u16string_view piece) {
        if (n + piece.size() >= capacity) return false;
        for (char16_t unit : piece) out[n++] = unit;
        return true;
    };
    for (const char16_t unit : in) {
        bool fits = true;
        if (unit == u'\n') {
            fits = put(u"\\n");
        } else if (unit == u'\r') {
            fits = put(u"\\r");
        } else if (unit == u'\t') {
            fits = put(u"\\t");
        } else if (unit < 0x20 || (unit >= 0x7F && unit <= 0x9F)) {
            const char16_t escape[] = {u'\\', u'x', kHex[unit >> 4], kHex[unit & 15]};
            fits = put(std::u16string_view(escape, 4));
        } else if (unit == 0x2028 || unit == 0x2029) {
            const char16_t escape[] = {u'\\', u'u', u'2', u'0', u'2', kHex[unit & 15]};
            fits = put(std::u16string_view(escape, 6));
        } else {
            fits = put(std::u16string_view(&unit, 1));
        }
        if (!fits) break;
    }
    out[n] = 0;
    return n;
}

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
        auto sink = std::make_unique<FileSink>(kLogFileName);
        // Not initialised: the host is told, and a later call tries again.
        if (!sink->Open()) return 1;
        m_sink = std::move(sink);
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
    char16_t formatted[kMessageUnits];
    const size_t formattedLength = FormatInto(formatted, kMessageUnits, format, args, argCount);
    char16_t message[kMessageUnits];
    const size_t length = EscapeControls(std::u16string_view(formatted, formattedLength), message, kMessageUnits);
    m_sink->Write(level, line, function != nullptr ? function : u"", sourcePath != nullptr ? sourcePath : u"",
                  message, length);
}

}  // namespace zorv

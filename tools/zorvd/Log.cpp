#include "Log.h"

#include "HostText.h"

#include <syslog.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <mutex>

#include <systemd/sd-journal.h>

namespace zorvd {
namespace {

enum class Sink { Journal, Stderr, File };
Sink g_sink = Sink::Stderr;
FILE* g_file = nullptr;
std::mutex g_fileMutex;
std::atomic<bool> g_manifestWanted{false};

int Priority(Level level) {
    switch (level) {
        case Level::Error: return LOG_ERR;
        case Level::Warning: return LOG_WARNING;
        case Level::Info: return LOG_INFO;
        default: return LOG_DEBUG;
    }
}

const char* Name(Level level) {
    switch (level) {
        case Level::Error: return "error";
        case Level::Warning: return "warning";
        case Level::Info: return "info";
        default: return "debug";
    }
}

// Lines name files and programs anyone may have named: escaped, a name
// cannot end a line early and pass what follows for a line of the daemon's.
void Emit(Level level, const std::string& raw) {
    const std::string line = zorv::host::Printable(raw);
    if (g_sink == Sink::Journal) {
        sd_journal_print(Priority(level), "%s", line.c_str());
        return;
    }
    std::lock_guard<std::mutex> hold(g_fileMutex);
    FILE* out = g_sink == Sink::File ? g_file : stderr;
    std::fprintf(out, "zorvd %s: %s\n", Name(level), line.c_str());
    std::fflush(out);
}

}  // namespace

bool OpenLog(const std::string& target, std::string& error) {
    if (target == "journal") {
        g_sink = Sink::Journal;
        return true;
    }
    if (target == "stderr") {
        g_sink = Sink::Stderr;
        return true;
    }
    FILE* file = std::fopen(target.c_str(), "ae");
    if (file == nullptr) {
        error = target + ": " + std::strerror(errno);
        return false;
    }
    std::lock_guard<std::mutex> hold(g_fileMutex);
    if (g_file != nullptr) std::fclose(g_file);
    g_file = file;
    g_sink = Sink::File;
    return true;
}

void Log(Level level, const char* format, ...) {
    char buffer[2048];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(buffer, sizeof buffer, format, arguments);
    va_end(arguments);
    Emit(level, buffer);
}

std::u16string Widen(const std::string& text) {
    std::u16string out;
    out.reserve(text.size());
    for (size_t i = 0; i < text.size();) {
        const unsigned char lead = static_cast<unsigned char>(text[i]);
        uint32_t code = 0xFFFD;
        size_t length = 1;
        if (lead < 0x80) {
            code = lead;
        } else if ((lead >> 5) == 6 && i + 1 < text.size()) {
            code = ((lead & 0x1Fu) << 6) | (text[i + 1] & 0x3F);
            length = 2;
        } else if ((lead >> 4) == 14 && i + 2 < text.size()) {
            code = ((lead & 0x0Fu) << 12) | ((text[i + 1] & 0x3F) << 6) | (text[i + 2] & 0x3F);
            length = 3;
        } else if ((lead >> 3) == 30 && i + 3 < text.size()) {
            code = ((lead & 0x07u) << 18) | ((text[i + 1] & 0x3F) << 12) | ((text[i + 2] & 0x3F) << 6) |
                   (text[i + 3] & 0x3F);
            length = 4;
        }
        i += length;
        if (code >= 0x10000) {
            code -= 0x10000;
            out.push_back(static_cast<char16_t>(0xD800 + (code >> 10)));
            out.push_back(static_cast<char16_t>(0xDC00 + (code & 0x3FF)));
        } else {
            out.push_back(static_cast<char16_t>(code));
        }
    }
    return out;
}

void EngineLogLine(uint32_t level, uint32_t /*line*/, const ZorvChar* function, const ZorvChar* /*sourcePath*/,
                   const ZorvChar* message, uint32_t length) {
    const std::string text = zorv::host::ZToUtf8(message, length);
    if (text.find("waiting for manifest to be applied") != std::string::npos) g_manifestWanted = true;
    const Level mapped = (level & AC_LOG_ERROR) != 0     ? Level::Error
                         : (level & AC_LOG_WARNING) != 0 ? Level::Warning
                         : (level & AC_LOG_INFO) != 0    ? Level::Info
                                                         : Level::Debug;
    Emit(mapped, "engine " + zorv::host::ZToUtf8(function) + ": " + text);
}

uint32_t EngineLogMask(const std::string& level) {
    if (level == "error") return AC_LOG_ERROR;
    if (level == "warning") return AC_LOG_ERROR | AC_LOG_WARNING;
    if (level == "trace") return AC_LOG_ERROR | AC_LOG_WARNING | AC_LOG_INFO | AC_LOG_TRACE;
    return AC_LOG_ERROR | AC_LOG_WARNING | AC_LOG_INFO;
}

bool TakeManifestWanted() { return g_manifestWanted.exchange(false); }

}  // namespace zorvd

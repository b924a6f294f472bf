#include "Log.h"

#include "HostText.h"

#include <fcntl.h>
#include <pthread.h>
#include <syslog.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <deque>
#include <memory>
#include <mutex>
#include <system_error>
#include <thread>
#include <utility>

#include <systemd/sd-journal.h>

namespace zorvd {
namespace {

// A line waits at most behind this much: enough for a burst of the engine's
// trace lines, little beside the daemon's memory.
constexpr size_t kQueuedLines = 8192, kQueuedBytes = 2 << 20;

enum class Sink { Journal, Stderr, File };

// An open log file, closed when the last batch writing to it is done.
struct LogFile {
    explicit LogFile(int fd) : fd(fd) {}
    ~LogFile() { close(fd); }
    LogFile(const LogFile&) = delete;
    LogFile& operator=(const LogFile&) = delete;
    const int fd;
};

// Lines wait here for the one thread that writes them. A thread that answers
// the kernel only queues its line: the journal, a pipe nobody reads or a disk
// that stopped answering holds up that writer alone, never an answer, and a
// line that finds the queue full is counted and dropped rather than waited
// for. Written with write(2), not stdio, so that a writer stuck in a write
// holds no lock the rest of the process (or its exit) could need.
struct Writer {
    std::mutex mutex;
    std::condition_variable ready, idle;
    std::deque<std::pair<Level, std::string>> lines;
    size_t bytes = 0;
    uint64_t droppedSinceNotice = 0;
    bool busy = false;
    Sink sink = Sink::Stderr;
    std::shared_ptr<const LogFile> file;
};

// Never destroyed: at exit the writing thread may still be inside a write
// that will not return.
Writer& TheWriter() {
    static Writer* const writer = new Writer;
    return *writer;
}

std::atomic<uint64_t> g_dropped{0};
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

void WriteAll(int fd, const std::string& text) {
    for (size_t done = 0; done < text.size();) {
        const ssize_t wrote = write(fd, text.data() + done, text.size() - done);
        if (wrote < 0 && errno == EINTR) continue;
        if (wrote <= 0) return;  // a sink that refuses the line loses it, nothing more
        done += static_cast<size_t>(wrote);
    }
}

void WriteLine(Sink sink, const LogFile* file, Level level, const std::string& line) {
    if (sink == Sink::Journal) {
        sd_journal_print(Priority(level), "%s", line.c_str());
        return;
    }
    WriteAll(sink == Sink::File && file != nullptr ? file->fd : STDERR_FILENO,
             std::string("zorvd ") + Name(level) + ": " + line + "\n");
}

void WriterLoop() {
    pthread_setname_np(pthread_self(), "zorvd-log");
    Writer& writer = TheWriter();
    std::unique_lock<std::mutex> hold(writer.mutex);
    for (;;) {
        writer.ready.wait(hold, [&] { return !writer.lines.empty() || writer.droppedSinceNotice != 0; });
        std::deque<std::pair<Level, std::string>> batch;
        batch.swap(writer.lines);
        writer.bytes = 0;
        const uint64_t dropped = std::exchange(writer.droppedSinceNotice, 0);
        const Sink sink = writer.sink;
        std::shared_ptr<const LogFile> file = writer.file;
        writer.busy = true;
        hold.unlock();
        for (const auto& [level, line] : batch) WriteLine(sink, file.get(), level, line);
        if (dropped != 0)
            WriteLine(sink, file.get(), Level::Warning,
                      std::to_string(dropped) + " log lines dropped: the log could not keep up");
        batch.clear();
        file.reset();
        hold.lock();
        writer.busy = false;
        if (writer.lines.empty() && writer.droppedSinceNotice == 0) writer.idle.notify_all();
    }
}

// False when no thread could be started for the log (the process is out of
// threads): lines are then written where they are made, as before there was
// a queue, rather than lost or thrown across an engine callback.
bool WriterRunning() {
    static const bool running = [] {
        try {
            std::thread(WriterLoop).detach();
            return true;
        } catch (const std::system_error&) {
            return false;
        }
    }();
    return running;
}

// Lines name files and programs anyone may have named: escaped, a name
// cannot end a line early and pass what follows for a line of the daemon's.
void Emit(Level level, const std::string& raw) {
    std::string line = zorv::host::Printable(raw);
    Writer& writer = TheWriter();
    if (!WriterRunning()) {
        std::unique_lock<std::mutex> hold(writer.mutex);
        const Sink sink = writer.sink;
        const std::shared_ptr<const LogFile> file = writer.file;
        hold.unlock();
        WriteLine(sink, file.get(), level, line);
        return;
    }
    {
        std::lock_guard<std::mutex> hold(writer.mutex);
        if (writer.lines.size() >= kQueuedLines || writer.bytes + line.size() > kQueuedBytes) {
            ++writer.droppedSinceNotice;
            g_dropped.fetch_add(1, std::memory_order_relaxed);
        } else {
            writer.bytes += line.size();
            writer.lines.emplace_back(level, std::move(line));
        }
    }
    writer.ready.notify_one();
}

}  // namespace

bool OpenLog(const std::string& target, std::string& error) {
    Writer& writer = TheWriter();
    if (target == "journal" || target == "stderr") {
        std::lock_guard<std::mutex> hold(writer.mutex);
        writer.sink = target == "journal" ? Sink::Journal : Sink::Stderr;
        writer.file.reset();
        return true;
    }
    const int fd = open(target.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0640);
    if (fd < 0) {
        error = target + ": " + std::strerror(errno);
        return false;
    }
    auto file = std::make_shared<const LogFile>(fd);
    std::lock_guard<std::mutex> hold(writer.mutex);
    writer.file = std::move(file);
    writer.sink = Sink::File;
    return true;
}

bool FlushLog(std::chrono::milliseconds limit) {
    Writer& writer = TheWriter();
    std::unique_lock<std::mutex> hold(writer.mutex);
    return writer.idle.wait_for(hold, limit, [&] {
        return writer.lines.empty() && writer.droppedSinceNotice == 0 && !writer.busy;
    });
}

uint64_t LogLinesDropped() { return g_dropped.load(std::memory_order_relaxed); }

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

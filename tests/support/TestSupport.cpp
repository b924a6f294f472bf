#include "TestSupport.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <thread>
#include <random>
#include <sstream>

#include "ZorvText.h"

namespace zorv::test {

LogCapture& LogCapture::Instance() {
    static LogCapture capture;
    return capture;
}

void LogCapture::Callback(uint32_t level, uint32_t line, const ZorvChar* function, const ZorvChar* sourcePath,
                          const ZorvChar* message, uint32_t length) {
    LoggedLine logged{level, line, FromHostText(function), FromHostText(sourcePath),
                      std::u16string(reinterpret_cast<const char16_t*>(message), length)};
    LogCapture& self = Instance();
    std::lock_guard<std::mutex> lock(self.m_mutex);
    self.m_lines.push_back(std::move(logged));
}

void LogCapture::Clear() {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_lines.clear();
}

std::vector<LoggedLine> LogCapture::Lines() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_lines;
}

std::vector<std::u16string> LogCapture::Messages() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    std::vector<std::u16string> messages;
    for (const auto& l : m_lines) messages.push_back(l.message);
    return messages;
}

bool LogCapture::Contains(std::u16string_view message) const { return Count(message) > 0; }

size_t LogCapture::Count(std::u16string_view message) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    size_t n = 0;
    for (const auto& l : m_lines) n += l.message == message ? 1 : 0;
    return n;
}

EngineStartParams StartParams(const std::u16string* dbPath, uint32_t level) {
    EngineStartParams params{};
    params.dbPath = dbPath != nullptr ? Host(*dbPath) : nullptr;
    params.logLevel = level;
    params.logCallback = &LogCapture::Callback;
    return params;
}

TempDir::TempDir() {
    static std::atomic<unsigned> serial{0};
    std::random_device random;
    const auto stamp = std::chrono::steady_clock::now().time_since_epoch().count();
    std::ostringstream name;
    name << "zorv-test-" << std::hex << random() << '-' << stamp << '-' << serial++;
    m_path = std::filesystem::temp_directory_path() / name.str();
    std::filesystem::create_directories(m_path);
}

TempDir::~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
}

std::u16string U16(std::string_view utf8) { return Utf8ToUtf16(utf8); }
std::string U8(std::u16string_view utf16) { return Utf16ToUtf8(utf16); }
std::u16string PathText(const std::filesystem::path& path) {
    const auto u8 = path.u8string();
    return Utf8ToUtf16(std::string_view(reinterpret_cast<const char*>(u8.data()), u8.size()));
}

void WriteFile(const std::filesystem::path& path, std::string_view contents) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(contents.data(), static_cast<std::streamsize>(contents.size()));
}

std::string ReadFile(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream buffer;
    buffer << in.rdbuf();
    return buffer.str();
}

void WithinSeconds(int seconds, const char* what, const std::function<void()>& body) {
    struct Shared {
        std::mutex mutex;
        std::condition_variable done;
        bool finished = false;
    };
    auto shared = std::make_shared<Shared>();
    std::thread worker([shared, &body] {
        body();
        std::lock_guard<std::mutex> lock(shared->mutex);
        shared->finished = true;
        shared->done.notify_all();
    });
    std::unique_lock<std::mutex> lock(shared->mutex);
    if (!shared->done.wait_for(lock, std::chrono::seconds(seconds), [&] { return shared->finished; })) {
        std::fprintf(stderr, "FAILED: %s did not return within %d s\n", what, seconds);
        std::fflush(stderr);
        std::_Exit(1);
    }
    lock.unlock();
    worker.join();
}

}  // namespace zorv::test

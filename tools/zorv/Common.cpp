#include "Common.h"

#include <cjson/cJSON.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <memory>
#include <system_error>

#include "HostText.h"

namespace zorv::cli {

namespace fs = std::filesystem;

namespace {
struct FileCloser {
    void operator()(std::FILE* file) const {
        if (file != nullptr) std::fclose(file);
    }
};
std::unique_ptr<std::FILE, FileCloser> g_logFile;
uint32_t g_logMask = 0;
}  // namespace

void PrintError(const std::string& input, const std::string& reason) {
    std::fflush(stdout);
    // Both may hold names anyone chose (a file on a scanned disk, a line of
    // an event file): escaped, an error stays one line and sends the
    // terminal nothing but text.
    std::fprintf(stderr, "zorv: %s: %s\n", host::Printable(input).c_str(), host::Printable(reason).c_str());
}

bool Speak(const CommonOptions& common) { return !common.quiet; }

fs::path PathFromUtf8(const std::string& text) {
    return fs::path(std::u8string(text.begin(), text.end()));
}

bool OpenLog(const CommonOptions& common, uint32_t& levelMask) {
    levelMask = 0;
    const bool wanted = !common.log.empty() || !common.logLevel.empty();
    if (!wanted) {
        host::SetLogSink(nullptr);
        return true;
    }
    const std::optional<uint32_t> level = host::ParseLogLevel(common.logLevel.empty() ? "info" : common.logLevel);
    if (!level) {
        PrintError("--log-level " + common.logLevel, "not one of error, warning, info, trace or a mask 0..15");
        return false;
    }
    levelMask = *level;
    g_logMask = levelMask;
    host::SetLogSinkMask(levelMask);
    if (common.log.empty() || common.log == "-") {
        host::SetLogSink(stderr);
        return true;
    }
    g_logFile.reset(std::fopen(common.log.c_str(), "a"));
    if (!g_logFile) {
        PrintError(common.log, std::string("cannot open the log file: ") + std::strerror(errno));
        return false;
    }
    host::SetLogSink(g_logFile.get());
    return true;
}

uint32_t LogMask() { return g_logMask; }

bool OpenEngine(const CommonOptions& common, host::EngineSession& engine) {
    uint32_t levelMask = 0;
    if (!OpenLog(common, levelMask)) return false;
    const fs::path store = PathFromUtf8(common.db);
    std::error_code error;
    const fs::path folder = store.has_parent_path() ? store.parent_path() : fs::path(".");
    if (!fs::is_directory(folder, error)) {
        PrintError(common.db, "the store's folder does not exist");
        return false;
    }
    if (fs::is_directory(store, error)) {
        PrintError(common.db, "is a folder, not a store file");
        return false;
    }
    const uint32_t status = engine.Start(common.db, levelMask);
    if (status != AC_OK) {
        const std::string reason = status == AC_E_DB_OPEN
                                       ? "cannot open the store (not a database, damaged or not writable)"
                                       : "the engine did not start";
        PrintError(common.db, reason + " (" + host::StatusName(status) + ")");
        return false;
    }
    return true;
}

fs::path ScratchPath(const std::string& stem) {
    static std::atomic<unsigned> counter{0};
    const auto now = std::chrono::steady_clock::now().time_since_epoch().count();
    std::error_code error;
    fs::path folder = fs::temp_directory_path(error);
    if (error) folder = ".";
    return folder / ("zorv-" + stem + "-" + std::to_string(now) + "-" + std::to_string(counter++));
}

bool StoreCounts(std::string& dbinfoJson) {
    std::string json;
    if (host::FetchMetrics(json) != AC_OK) return false;
    cJSON* root = cJSON_Parse(json.c_str());
    const cJSON* metrics = cJSON_GetObjectItemCaseSensitive(root, "metrics");
    const cJSON* dbinfo = cJSON_GetObjectItemCaseSensitive(metrics, "dbinfo");
    char* printed = dbinfo ? cJSON_PrintUnformatted(dbinfo) : nullptr;
    const bool ok = printed != nullptr;
    if (ok) dbinfoJson = printed;
    cJSON_free(printed);
    cJSON_Delete(root);
    return ok;
}

}  // namespace zorv::cli

#include "HostEngine.h"

#include <charconv>
#include <mutex>
#include <vector>

#include "HostText.h"

namespace zorv::host {

namespace {

std::mutex g_logMutex;  // guards g_logSink and the lines written to it
std::FILE* g_logSink = nullptr;
uint32_t g_logSinkMask = ~0u;
LogObserver g_logObserver;

const char* LevelName(uint32_t level) {
    if (level & AC_LOG_ERROR) return "ERROR";
    if (level & AC_LOG_WARNING) return "WARNING";
    if (level & AC_LOG_INFO) return "INFO";
    if (level & AC_LOG_TRACE) return "TRACE";
    return "LOG";
}

void WriteLogLine(uint32_t level, uint32_t /*line*/, const ZorvChar* function, const ZorvChar* /*sourcePath*/,
                  const ZorvChar* message, uint32_t length) {
    std::string text = ZToUtf8(message, length);
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r' || text.back() == ' ')) text.pop_back();
    const std::string where = ZToUtf8(function);
    std::lock_guard<std::mutex> lock(g_logMutex);
    if (g_logObserver) g_logObserver(level, where, text);
    if (g_logSink == nullptr || (level & g_logSinkMask) == 0) return;
    std::fprintf(g_logSink, "%-7s %s: %s\n", LevelName(level), where.c_str(), text.c_str());
}

}  // namespace

void SetLogSink(std::FILE* sink) {
    std::lock_guard<std::mutex> lock(g_logMutex);
    if (g_logSink != nullptr) std::fflush(g_logSink);
    g_logSink = sink;
}

void SetLogSinkMask(uint32_t mask) {
    std::lock_guard<std::mutex> lock(g_logMutex);
    g_logSinkMask = mask;
}

void SetLogObserver(LogObserver observer) {
    std::lock_guard<std::mutex> lock(g_logMutex);
    g_logObserver = std::move(observer);
}

std::optional<uint32_t> ParseLogLevel(std::string_view text) {
    if (text == "error") return AC_LOG_ERROR;
    if (text == "warning") return AC_LOG_ERROR | AC_LOG_WARNING;
    if (text == "info") return AC_LOG_ERROR | AC_LOG_WARNING | AC_LOG_INFO;
    if (text == "trace") return AC_LOG_ERROR | AC_LOG_WARNING | AC_LOG_INFO | AC_LOG_TRACE;
    uint32_t mask = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), mask);
    if (error != std::errc() || end != text.data() + text.size() || mask > 15) return std::nullopt;
    return mask;
}

uint32_t EngineSession::Start(const std::string& dbPath, uint32_t logLevelMask) {
    const std::optional<ZString> path = Utf8ToZ(dbPath);
    if (!path) return AC_E_INVALID_ARG;
    EngineStartParams params{};
    params.dbPath = path->c_str();
    params.logLevel = logLevelMask;
    params.logCallback = &WriteLogLine;
    const uint32_t status = engine_start(&params);
    m_started = status == AC_OK;
    return status;
}

uint32_t EngineSession::Stop() {
    if (!m_started) return AC_OK;
    m_started = false;
    return engine_stop();
}

uint32_t FetchMetrics(std::string& json) {
    uint32_t size = 0;
    uint32_t status = get_metrics_mem(nullptr, &size);
    // The document may grow between the size query and the copy (counters
    // move on other threads): ask again with the size the engine reports.
    for (int attempt = 0; attempt < 8 && status == AC_E_BUFFER_TOO_SMALL; ++attempt) {
        std::vector<char> buffer(size + 256);
        size = static_cast<uint32_t>(buffer.size());
        status = get_metrics_mem(buffer.data(), &size);
        if (status == AC_OK) json.assign(buffer.data());
    }
    return status;
}

const char* StatusName(uint32_t status) {
    switch (status) {
        case AC_OK: return "AC_OK";
        case AC_BLOCKED: return "AC_BLOCKED";
        case AC_E_FAILED: return "AC_E_FAILED";
        case AC_E_NULL_SIZE: return "AC_E_NULL_SIZE";
        case AC_E_NOT_STARTED: return "AC_E_NOT_STARTED";
        case AC_E_INVALID_ARG: return "AC_E_INVALID_ARG";
        case AC_E_DB_OPEN: return "AC_E_DB_OPEN";
        case AC_E_LOGGER: return "AC_E_LOGGER";
        case AC_E_NO_ENGINE: return "AC_E_NO_ENGINE";
        case AC_E_NULL_EVENT: return "AC_E_NULL_EVENT";
        case AC_E_ITEM_INCOMPLETE: return "AC_E_ITEM_INCOMPLETE";
        case AC_E_NULL_BUFFER: return "AC_E_NULL_BUFFER";
        case AC_E_NULL_PARAMS: return "AC_E_NULL_PARAMS";
        case AC_E_BUFFER_TOO_SMALL: return "AC_E_BUFFER_TOO_SMALL";
        default: return "unknown";
    }
}

const char* DecisionName(uint32_t action) {
    switch (action) {
        case AC_DECISION_IGNORED: return "ignored";
        case AC_DECISION_ERROR: return "error";
        case AC_DECISION_ALLOW: return "allow";
        case AC_DECISION_BLOCK: return "block";
        default: return "none";
    }
}

const char* ReasonName(uint32_t reason) {
    switch (reason) {
        case AC_REASON_NONE: return "none";
        case AC_REASON_MAINTENANCE: return "maintenance";
        case AC_REASON_BLOCKED: return "blocked";
        case AC_REASON_APPROVED: return "approved";
        case AC_REASON_TRUSTED: return "trusted";
        case AC_REASON_EXCLUDED: return "excluded";
        default: return "unknown";
    }
}

namespace {
struct SourceEntry {
    uint32_t value;
    const char* name;
};
constexpr SourceEntry kSources[] = {
    {0, "all"},
    {AC_SOURCE_AGENT_RULES, "agentRules"},
    {AC_SOURCE_EXECUTION_RULES, "executionRules"},
    {AC_SOURCE_SCANNED, "scannedItems"},
    {AC_SOURCE_APPROVED_DRIFT, "approvedDrift"},
    {AC_SOURCE_PRELINK, "prelink"},
    {AC_SOURCE_TRUST_RULE, "trustRule"},
};
}  // namespace

const char* SourceName(uint32_t source) {
    for (const SourceEntry& entry : kSources)
        if (entry.value == source) return source == 0 ? "none" : entry.name;
    return "unknown";
}

std::optional<uint32_t> ParseSource(std::string_view text) {
    if (text == "trust") return AC_SOURCE_TRUST_RULE;
    if (text == "scan" || text == "scanned") return AC_SOURCE_SCANNED;
    for (const SourceEntry& entry : kSources)
        if (text == entry.name) return entry.value;
    uint32_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
    return value;
}

const char* EventTypeName(uint32_t type) {
    switch (type) {
        case AC_EVENT_CACHE_CHECK: return "cacheCheck";
        case AC_EVENT_PROCESS_START: return "processStart";
        case AC_EVENT_FILE_CHANGE: return "fileChange";
        case AC_EVENT_DELETE: return "delete";
        case AC_EVENT_SCRIPT_START: return "scriptStart";
        case AC_EVENT_EXEC_MAPPING: return "execMapping";
        default: return "unabstracted";
    }
}

const char* VerdictName(uint32_t verdict) {
    switch (verdict) {
        case AC_DB_NOT_KNOWN: return "notKnown";
        case AC_DB_ALLOWED: return "allowed";
        case AC_DB_BLOCKED: return "blocked";
        default: return "unknown";
    }
}

}  // namespace zorv::host

// The engine as a host drives it: start and stop through the exports, the
// engine's log to a stream, the metrics document, and readable names for the
// codes of zorv.h. Nothing here reaches past the public header.
//
// One engine per process (the library keeps process-wide state), so
// EngineSession is not copyable and the log sink is process-wide.
#pragma once

#include <cstdint>
#include <cstdio>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "zorv/zorv.h"

namespace zorv::host {

// Where the engine's log goes: a FILE* (stderr or an opened file) or nowhere.
// Lines read "LEVEL function: message". Safe to call from any thread.
void SetLogSink(std::FILE* sink);

// The levels the sink is given (the mask the user asked for): the engine may
// be told to log more while an observer listens, and the sink must not see it.
void SetLogSinkMask(uint32_t mask);

// Sees every line the engine logs (level, function, message), whatever the
// sink's mask, while set; called under the log lock, so it must not log.
using LogObserver = std::function<void(uint32_t level, const std::string& function, const std::string& message)>;
void SetLogObserver(LogObserver observer);

// "error", "warning", "info" or "trace" (each includes the levels above it),
// or a number (the mask itself). nullopt for anything else.
std::optional<uint32_t> ParseLogLevel(std::string_view text);

class EngineSession {
public:
    EngineSession() = default;
    ~EngineSession() { Stop(); }
    EngineSession(const EngineSession&) = delete;
    EngineSession& operator=(const EngineSession&) = delete;

    // engine_start on `dbPath` (UTF-8) with the log sink's callback; the
    // engine never writes its own LogFile.log this way.
    uint32_t Start(const std::string& dbPath, uint32_t logLevelMask);
    uint32_t Stop();
    bool Started() const { return m_started; }

private:
    bool m_started = false;
};

// The whole metrics document (get_metrics_mem, growing the buffer as told).
uint32_t FetchMetrics(std::string& json);

const char* StatusName(uint32_t status);     // "AC_OK", "AC_E_DB_OPEN", ... or "unknown"
const char* DecisionName(uint32_t action);   // "ignored", "error", "allow", "block", "none"
const char* ReasonName(uint32_t reason);     // "none", "maintenance", "blocked", "approved", ...
const char* SourceName(uint32_t source);     // "agentRules", "executionRules", "scannedItems", ...
const char* EventTypeName(uint32_t type);    // "cacheCheck", "processStart", ...
const char* VerdictName(uint32_t verdict);   // "notKnown", "allowed", "blocked"
// Accepts a source's number or its name (as SourceName gives, or "trust"); 0 = all items.
std::optional<uint32_t> ParseSource(std::string_view text);

}  // namespace zorv::host

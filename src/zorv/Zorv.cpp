// The thirteen exports. They only translate: check the arguments, call the
// owner, map its answer to a status code. Each one catches everything at its
// edge, because an exception must never unwind into the agent's process.
#include "Zorv.h"

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <mutex>
#include <new>

#include <cjson/cJSON.h>

#include "ZorvCallGate.h"
#include "ZorvDataAccessLayer.h"
#include "ZorvEventAbstraction.h"
#include "ZorvLogger.h"
#include "ZorvStats.h"
#include "ZorvText.h"
#include "platform/Platform.h"
#include "zorv/zorv.h"

namespace zorv {

namespace {

constexpr char16_t kLogSource[] = u"src/zorv/Zorv";

AppControlConfig g_config;

// The library's engine pointer: the engine counts as started while it is set.
std::atomic<ZorvEngine*> g_engine{nullptr};

// Every export but engine_start and engine_stop passes the gate, so that a
// stop waits for the calls still using the engine and turns the later ones
// away: a host's shutdown path gets the order wrong sooner or later, and the
// engine must not be freed under an event thread.
CallGate g_calls;

// engine_start and engine_stop run one at a time; a start that meets a stop
// waits for it to finish.
std::mutex g_lifecycle;

// How long engine_stop waits for calls in flight. Every wait inside a call is
// bounded, so only a host callback that never returns (or an import of
// several gigabytes) runs into it; then the engine is left allocated rather
// than freed under that call.
constexpr std::chrono::seconds kStopWaitLimit{60};

// One export's hold on the engine, for the length of the call: null when no
// engine is started or a stop has begun.
class EngineCall {
public:
    EngineCall()
        : m_call(g_calls), m_engine(m_call.Admitted() ? g_engine.load(std::memory_order_acquire) : nullptr) {}
    ZorvEngine* get() const { return m_engine; }
    // False once a stop has begun: exports that can work without an engine
    // must still not reach the rule store it is closing.
    bool Admitted() const { return m_call.Admitted(); }

private:
    CallGate::Call m_call;
    ZorvEngine* m_engine;
};

// Reports an escaped exception; must not throw itself.
void LogEscaped(const char16_t* function, const char* what) noexcept {
    try {
        ZORV_LOG(kLogError, function, u"Unexpected failure: %s", what != nullptr ? what : "unknown exception");
    } catch (...) {
        // Nothing left to report with: the logger itself failed.
    }
}

template <typename Body>
uint32_t Guarded(const char16_t* function, uint32_t onFailure, Body&& body) noexcept {
    try {
        return body();
    } catch (const std::exception& e) {
        LogEscaped(function, e.what());
    } catch (...) {
        LogEscaped(function, nullptr);
    }
    return onFailure;
}

uint32_t FromBool(bool ok) { return ok ? AC_OK : AC_E_FAILED; }

// Settings are stored as decimal text; the scripts seed unknown times as "-1",
// which reads back as all ones, the engine's "not known".
bool ReadSettingValue(const std::u16string& name, uint64_t& value) {
    std::u16string text;
    const ZorvDAL::SettingRead read = ZorvDAL::Instance().ReadAppControlState(name, text);
    if (read == ZorvDAL::SettingRead::Failed) {
        ZORV_LOG(kLogError, u"set_config", u"Unable to read setting %s; the value given stands", name);
        return false;
    }
    if (read != ZorvDAL::SettingRead::Found || text.empty()) return false;
    const std::string narrow = Utf16ToUtf8(text);
    char* end = nullptr;
    const bool negative = narrow[0] == '-';
    const uint64_t parsed = negative ? static_cast<uint64_t>(std::strtoll(narrow.c_str(), &end, 10))
                                     : std::strtoull(narrow.c_str(), &end, 10);
    if (end == narrow.c_str() || *end != '\0') return false;
    value = parsed;
    return true;
}

// All ones ("not known") goes back as the "-1" the scripts seed.
void WriteSettingValue(const std::u16string& name, uint64_t value) {
    ZorvDAL::Instance().SetAppControlStateValue(name, value);
}

uint32_t SetConfig(uint32_t flags, uint64_t start, uint64_t end) {
    constexpr const char16_t* kFn = u"set_config";
    const EngineCall engine;
    if (engine.get() == nullptr) return AC_E_NOT_STARTED;
    AppControlConfig& config = g_config;

    if ((flags & AC_CONFIG_AUTO_AUTHORIZE) != 0) {
        ZORV_LOG(kLogTrace, kFn, u"Setting AUTO AUTHORIZE");
        config.SetMaintenanceMode(true);
        config.SetAutoAuthorizeStartTime(start);
        config.SetAutoAuthorizeEndTime(end);
        WriteSettingValue(u"autoAuthorizeStartTime", start);
        WriteSettingValue(u"autoAuthorizeEndTime", end);
    } else {
        if (config.MaintenanceMode()) {
            // Stamp when maintenance really ended; the window stays usable.
            const uint64_t now = platform::NowMilliseconds();
            config.SetAutoAuthorizeEndTime(now);
            WriteSettingValue(u"autoAuthorizeEndTime", now);
        } else if (config.AutoAuthorizeEndTime() == AppControlConfig::kTimeNotKnown) {
            // First call since load: restore the last window from the store.
            uint64_t storedStart = start;
            uint64_t storedEnd = end;
            ReadSettingValue(u"autoAuthorizeStartTime", storedStart);
            ReadSettingValue(u"autoAuthorizeEndTime", storedEnd);
            config.SetAutoAuthorizeStartTime(storedStart);
            config.SetAutoAuthorizeEndTime(storedEnd);
        }
        config.SetMaintenanceMode(false);
    }

    const bool inventoryExists = (flags & AC_CONFIG_INVENTORY_EXISTS) != 0;
    if (inventoryExists) ZORV_LOG(kLogTrace, kFn, u"Setting INVENTORY EXISTS");
    config.SetInventoryExists(inventoryExists);

    if ((flags & AC_CONFIG_LOCKDOWN) != 0) {
        std::u16string storedVersion;
        const ZorvDAL::SettingRead read = ZorvDAL::Instance().ReadAppControlState(u"agentVersion", storedVersion);
        if (read == ZorvDAL::SettingRead::Failed) {
            // Taken as unchanged: an unreadable version is no upgrade, and
            // "waiting for manifest" would let every block through.
            ZORV_LOG(kLogError, kFn, u"Unable to read the stored agent version; taken as %s, unchanged",
                     config.AgentVersion());
            storedVersion = config.AgentVersion();
        } else if (read == ZorvDAL::SettingRead::Absent) {
            storedVersion.clear();
        }
        if (storedVersion != config.AgentVersion()) {
            ZORV_LOG(kLogTrace, kFn,
                     u"Upgrade detected old version %s new version %s waiting for manifest to be applied",
                     storedVersion, config.AgentVersion());
            config.SetManifestApplied(false);
        }
        ZORV_LOG(kLogTrace, kFn, u"Setting LOCKDOWN");
        config.SetLockdown(true);
    } else {
        config.SetLockdown(false);
    }

    const bool rulesetExists = (flags & AC_CONFIG_RULESET_EXISTS) != 0;
    if (rulesetExists) ZORV_LOG(kLogTrace, kFn, u"Setting RULESET EXISTS");
    config.SetRulesetExists(rulesetExists);

    const bool allowlist = (flags & AC_CONFIG_ALLOWLIST_INVENTORY) != 0;
    if (allowlist) ZORV_LOG(kLogTrace, kFn, u"Setting ALLOWLIST INVENTORY");
    config.SetAllowlistInventory(allowlist);
    return AC_OK;
}

uint32_t AppCtl(const AppCtlEvent* event, AppCtlResult* result) {
    if (event == nullptr) return AC_E_NULL_EVENT;
    const EngineCall call;
    ZorvEngine* engine = call.get();
    if (engine == nullptr) return AC_E_NOT_STARTED;

    uint32_t action;
    {
        EngineEvent engineEvent;
        ZorvEngine::ConvertEvent(event, &engineEvent);
        engine->ProcessEvent(engineEvent);
        if (result != nullptr) FillAppCtlResult(engineEvent, result);
        action = engineEvent.action;
    }
    // A host that passes no result record never sees a block.
    if (result == nullptr) return AC_OK;
    return AppCtlStatus(action, *event);
}

uint32_t EngineStart(const EngineStartParams* params) {
    if (params == nullptr) return AC_E_NULL_PARAMS;
    const std::lock_guard<std::mutex> lifecycle(g_lifecycle);
    if (ZorvLogger::Instance().InitLogger(params->logCallback, params->logLevel) != 0) return AC_E_LOGGER;
    ZorvDAL& dal = ZorvDAL::Instance();
    dal.SetCallsInside([] { return g_calls.InFlight(); });
    if (params->dbPath != nullptr && !dal.SetDBPath(FromHostText(params->dbPath))) return AC_E_INVALID_ARG;
    if (!dal.InitDB()) return AC_E_DB_OPEN;
    if (g_engine.load(std::memory_order_acquire) != nullptr) return AC_OK;

    ZorvEngine* engine = nullptr;
    try {
        engine = new (std::nothrow) ZorvEngine();
    } catch (const std::exception& e) {
        LogEscaped(u"engine_start", e.what());
    } catch (...) {
        LogEscaped(u"engine_start", nullptr);
    }
    g_engine.store(engine, std::memory_order_release);
    return engine != nullptr ? AC_OK : AC_E_NO_ENGINE;
}

uint32_t EngineStop() {
    const std::lock_guard<std::mutex> lifecycle(g_lifecycle);
    ZorvEngine* engine = g_engine.load(std::memory_order_acquire);
    if (engine == nullptr) return AC_OK;
    // From here on every other export answers AC_E_NOT_STARTED; those already
    // running finish first, so the hit counts below are complete too.
    const bool drained = g_calls.CloseAndDrain(kStopWaitLimit);
    g_engine.store(nullptr, std::memory_order_release);
    // Open again however the stop ends (an exception included): with no
    // engine set, calls answer AC_E_NOT_STARTED until the next start.
    struct Reopen {
        ~Reopen() { g_calls.Open(); }
    } reopen;
    if (!drained) {
        ZORV_LOG(kLogError, u"engine_stop",
                 u"%llu calls still running after %d seconds; the engine and the rule store are left as they are",
                 g_calls.InFlight(), static_cast<int>(kStopWaitLimit.count()));
        return AC_E_FAILED;
    }
    ZorvStats::Instance().WriteTrustRuleHitCounts();
    ZORV_LOG(kLogTrace, u"engine_stop", u"Engine Stop");
    delete engine;
    ZORV_LOG(kLogTrace, u"engine_stop", u"Shutting down DAL for AC Engine");
    ZorvDAL::Instance().Shutdown();
    return AC_OK;
}

bool ItemIsComplete(const InventoryItemRecord* item) {
    return item != nullptr && item->fileName != nullptr && item->path != nullptr && item->fullPath != nullptr &&
           item->ruleset != nullptr;
}

}  // namespace

AppControlConfig& AppControlConfig::Instance() { return g_config; }

void FillAppCtlResult(const EngineEvent& event, AppCtlResult* result) {
    std::memset(reinterpret_cast<uint8_t*>(result) + offsetof(AppCtlResult, text), 0,
                sizeof(AppCtlResult) - offsetof(AppCtlResult, text));
    result->action = event.action;
    result->passThroughSecond = event.passThroughSecond;
    result->source = event.source;
    result->isAuthorized = event.isAuthorized;
    result->eventType = event.eventType;
    result->passThroughFirst = event.passThroughFirst;
    result->dbVerdict = event.dbVerdict;
    // A bounded copy of 80 units including the terminator: a text that does
    // not fit is refused whole (the field stays empty), never cut or overrun.
    const std::u16string& text = event.resultText;
    if (!text.empty() && text.size() < AC_RESULT_TEXT_UNITS) {
        std::memcpy(result->text, text.data(), text.size() * sizeof(char16_t));
    }
}

uint32_t AppCtlStatus(uint32_t action, const AppCtlEvent& event) {
    if (action == AC_DECISION_BLOCK) {
        if (g_config.ManifestApplied()) {
            ZORV_LOG(kLogWarning, u"app_ctl", u"Blocking event: '%s'", FromHostText(event.name));
            return AC_BLOCKED;
        }
        // A new engine version runs unenforced until its manifest arrives.
        const uint64_t waiting = ZorvStats::Instance().IncrementMetric(u"ALLOWED_WAITING_FOR_MANIFEST");
        ZORV_LOG(kLogTrace, u"app_ctl", u"Allowed waiting for manifest %d", waiting);
        return AC_OK;
    }
    return action == AC_DECISION_ERROR ? AC_E_FAILED : AC_OK;
}

}  // namespace zorv

using namespace zorv;

extern "C" {

ZORV_EXPORT uint32_t app_ctl(void* /*reserved*/, const AppCtlEvent* event, AppCtlResult* result) {
    // Filled first, before anything can fail: whatever the status, the host
    // never reads its own stale bytes back as a decision. Undecided is 8.
    if (result != nullptr) {
        std::memset(result, 0, sizeof *result);
        result->action = AC_DECISION_ERROR;
    }
    return Guarded(u"app_ctl", AC_E_FAILED, [&] { return AppCtl(event, result); });
}

ZORV_EXPORT uint32_t engine_start(const EngineStartParams* params) {
    return Guarded(u"engine_start", AC_E_FAILED, [&] { return EngineStart(params); });
}

ZORV_EXPORT uint32_t engine_stop(void) {
    return Guarded(u"engine_stop", AC_E_FAILED, [&] { return EngineStop(); });
}

ZORV_EXPORT uint32_t set_config(uint32_t flags, uint64_t autoAuthorizeStartTime, uint64_t autoAuthorizeEndTime) {
    return Guarded(u"set_config", AC_E_FAILED,
                   [&] { return SetConfig(flags, autoAuthorizeStartTime, autoAuthorizeEndTime); });
}

ZORV_EXPORT uint32_t set_loglevel(uint32_t mask) {
    return Guarded(u"set_loglevel", AC_E_FAILED, [&] {
        const EngineCall engine;
        if (engine.get() == nullptr) return AC_E_NOT_STARTED;
        ZorvLogger::Instance().SetLevel(mask);
        return AC_OK;
    });
}

ZORV_EXPORT uint32_t set_ruleset(uint8_t append, const ZorvChar* path, const ZorvChar* name) {
    return Guarded(u"set_ruleset", AC_E_FAILED, [&] {
        const EngineCall engine;
        if (engine.get() == nullptr) return AC_E_NOT_STARTED;
        if (path == nullptr) return AC_E_INVALID_ARG;
        // Cleared whether or not the import then succeeds: a half-applied
        // ruleset must not leave allow decisions of the old one behind.
        engine.get()->GetAllowCache().Clear();
        return FromBool(ZorvDAL::Instance().ImportRuleset(append, FromHostText(path), FromHostText(name)));
    });
}

ZORV_EXPORT uint32_t set_ruleset_buffer(uint8_t append, const ZorvChar* buffer, const ZorvChar* name) {
    return Guarded(u"set_ruleset_buffer", AC_E_FAILED, [&] {
        if (buffer == nullptr || name == nullptr) return AC_E_NULL_BUFFER;
        // No engine check here: the import itself needs only the rule store,
        // and only an existing engine has a cache to forget. A stop that has
        // begun is closing that store, though.
        const EngineCall engine;
        if (!engine.Admitted()) return AC_E_NOT_STARTED;
        if (engine.get() != nullptr) engine.get()->GetAllowCache().Clear();
        const std::string utf8 = Utf16ToUtf8(FromHostText(buffer));
        return FromBool(ZorvDAL::Instance().ImportRulesetBuffer(append, utf8, FromHostText(name)));
    });
}

ZORV_EXPORT uint32_t store_item(const InventoryItemRecord* item, uint8_t viaBuffer) {
    return Guarded(u"store_item", AC_E_FAILED, [&] {
        const EngineCall engine;
        if (engine.get() == nullptr) return AC_E_NOT_STARTED;
        if (!ItemIsComplete(item)) return AC_E_ITEM_INCOMPLETE;
        ZorvDAL& dal = ZorvDAL::Instance();
        return FromBool((viaBuffer != 0 ? dal.StoreItemBuffer(*item) : dal.StoreItem(*item)) != 0);
    });
}

ZORV_EXPORT uint32_t get_inventory(uint64_t afterItemId, uint64_t limit, uint32_t source, const ZorvChar* payloadPath,
                                   const ZorvChar* scanUuid) {
    return Guarded(u"get_inventory", AC_E_FAILED, [&] {
        if (payloadPath == nullptr) return AC_E_INVALID_ARG;
        const EngineCall engine;
        if (engine.get() == nullptr) return AC_E_NOT_STARTED;
        const uint64_t floor = g_config.MaxInventoryItemId();
        const uint64_t after = afterItemId < floor ? floor : afterItemId;
        // A null scan id is taken as empty rather than read.
        return FromBool(ZorvDAL::Instance().GetItems(after, limit, source, FromHostText(payloadPath),
                                                     FromHostText(scanUuid)));
    });
}

ZORV_EXPORT uint32_t get_metrics_mem(void* buffer, uint32_t* size) {
    return Guarded(u"get_metrics_mem", AC_E_FAILED, [&] {
        const EngineCall call;
        ZorvEngine* engine = call.get();
        if (engine == nullptr) return AC_E_NOT_STARTED;
        return ZorvStats::Instance().GetMetrics(buffer, size,
                                                [engine](cJSON* metrics) { engine->GetAllowCache().AddMetrics(metrics); });
    });
}

ZORV_EXPORT uint32_t purge_db(uint32_t what) {
    return Guarded(u"purge_db", AC_E_FAILED, [&] {
        const EngineCall engine;
        if (engine.get() == nullptr) return AC_E_NOT_STARTED;
        return FromBool(ZorvDAL::Instance().PurgeDB(what));
    });
}

ZORV_EXPORT uint32_t delete_db(void) {
    return Guarded(u"delete_db", AC_E_FAILED, [&] {
        const EngineCall engine;
        if (engine.get() == nullptr) return AC_E_NOT_STARTED;
        return FromBool(ZorvDAL::Instance().DeleteDB());
    });
}

ZORV_EXPORT uint32_t flush_db_buffer(void) {
    return Guarded(u"flush_db_buffer", AC_E_FAILED, [&] {
        const EngineCall engine;
        if (engine.get() == nullptr) return AC_E_NOT_STARTED;
        ZorvDAL& dal = ZorvDAL::Instance();
        uint64_t stored = dal.StoreItemFlush();
        stored += dal.StoreTrustRuleFlush();
        stored += dal.StoreUserListFlush();
        return stored == 0 ? AC_E_FAILED : AC_OK;
    });
}

}  // extern "C"

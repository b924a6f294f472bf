// ZorvEngine: turns one plug-in event into a decision. The engine owns the
// per-process knowledge and the allow cache; the rule store, statistics and
// logger are process-wide singletons it calls.
//
// Thread-safe: app_ctl calls ProcessEvent from many threads at once, each with
// its own EngineEvent. Construction and destruction happen on the control
// thread with no other call running (engine_start / engine_stop).
#pragma once

#include <cstdint>
#include <mutex>
#include <string>
#include <unordered_map>

#include "ZorvAllowCache.h"
#include "ZorvQuery.h"
#include "ZorvUtilWindows.h"
#include "zorv/zorv.h"

namespace zorv {

// The engine's own record of one event, built per call and annotated by every
// step. Field order follows the plug-in record where it is copied.
struct EngineEvent {
    // Numbers copied from the plug-in record, and the engine's own.
    uint64_t pid = 0;
    uint64_t processValue = 0;     // copied, not interpreted
    uint64_t flags = 0;
    uint64_t ignoreChange = 0;
    uint64_t eventId = 0;          // the event's id in log lines, when the abstraction sets one
    uint64_t copiedValue40 = 0;    // copied, not interpreted
    uint64_t size = 0;
    uint64_t unusedValue = 0;      // never set by the engine
    uint64_t mode = 0;
    uint64_t copiedValue64 = 0;    // copied, not interpreted
    uint64_t statusTime = 0;       // drift scan: a time (ms) from the target's status record
    uint64_t trustOrigin = 0;      // 4 when a trust rule accepted the event
    uint64_t recordTime = 0;       // drift scan: the record time
    uint64_t examined = 0;         // non-zero once drift trust has looked at the event

    uint8_t dirty = 0;
    uint8_t isExec = 0;
    uint8_t blockedByLockdown = 0;
    uint8_t copiedFlag74 = 0;
    uint8_t copiedFlag75 = 0;

    uint32_t action = 0;            // AC_DECISION_*
    uint32_t eventType = 0;         // AC_EVENT_* after abstraction
    uint32_t changeKind = 0;        // plug-in code, then 4/5/6/7, 10 blocked, 11 allowed log-only
    uint32_t passThroughFirst = 0;  // carried to AppCtlResult unchanged
    uint32_t dbVerdict = 0;         // AC_DB_*
    uint32_t passThroughSecond = 1; // carried to AppCtlResult unchanged
    uint32_t source = 0;            // inventory source of what decided
    uint32_t isAuthorized = 0;      // AC_REASON_*

    std::u16string processName;
    std::u16string processRecord;   // what the process map knows of the acting process
    std::u16string fileName;        // last component of name
    std::u16string name;            // full path of the target
    std::u16string extension;       // of fileName, without the dot
    std::u16string path;            // directory part of name
    std::u16string secondExtension; // of name, for changes and deletes
    std::u16string oldName;
    std::u16string lookupName;
    std::u16string storedItemName;
    std::u16string user;
    std::u16string group;
    std::u16string unusedText;      // never set by the engine
    std::u16string resultText;      // returned to the host in AppCtlResult.text
    std::u16string cmdLine;
    std::u16string processSignerName;
    std::u16string processIssuer[6];  // CN, C, S, L, O, OU
    std::u16string processCompanyName;
    std::u16string processProductName;
    std::u16string fileSignerName;
    std::u16string fileIssuer[6];     // CN, C, S, L, O, OU
    std::u16string fileCompanyName;
    std::u16string fileProductName;
    std::u16string ruleset;           // ruleset of the item or rule that matched

    // Used by the rule store's lookups and by auto-authorization.
    uint64_t inventoryItemId = 0;
    uint64_t createTime = 0;
    uint64_t modifiedTime = 0;

    SHA256Hash fileSha256;
    SHA1Hash fileSha1;
    MD5Hash fileMd5;
    SHA256Hash processSha256;
};

// What the engine knows about live processes, by pid: the process-type index
// and the image path it was recorded for. Pids are reused by the system, so an
// entry counts only while the event names the same image; a mismatch reads as
// absent and the next Add replaces it.
//
// Thread-safe: one mutex guards the map; nothing is called under it.
class ProcessMap {
public:
    // Bounds memory on a machine that starts processes for months: the map is
    // dropped whole at this size and refills from the next events.
    static constexpr size_t kMaxProcesses = 16384;

    struct Entry {
        ProcessTypeIndex typeIndex = kNoProcessType;
        std::u16string image;  // full path of the image the index was worked out for
    };

    // False when the pid is unknown or was recorded for another image.
    bool Find(uint64_t pid, const std::u16string& image, Entry& out) const;
    void Add(uint64_t pid, ProcessTypeIndex typeIndex, const std::u16string& image);
    size_t Size() const;

private:
    mutable std::mutex m_mutex;  // guards m_processes
    std::unordered_map<uint64_t, Entry> m_processes;
};

class ZorvEngine {
public:
    ZorvEngine();
    ~ZorvEngine();
    ZorvEngine(const ZorvEngine&) = delete;
    ZorvEngine& operator=(const ZorvEngine&) = delete;

    // The engine that exists now, or null; set by the constructor, cleared by the destructor.
    static ZorvEngine* GetEngine();

    // Copies the plug-in's record into `out`; texts are copied, not validated.
    static void ConvertEvent(const AppCtlEvent* in, EngineEvent* out);

    // The pipeline's entry for one converted event; fills action and the rest.
    // The answer is informational: the host reads only the event's verdict.
    bool ProcessEvent(EngineEvent& event);

    // ---- Event pipeline (ZorvEventAbstraction.cpp) ----
    // Maps the plug-in's operation code to an engine event type and applies the
    // directory exclusions; true when the event is to be handled further.
    bool AbstractEvent(EngineEvent& event);
    bool EventCreatePre(EngineEvent& event);
    bool EventCreatePost(EngineEvent& event);
    void EventOpenPost(EngineEvent& event);
    // True when the event's file lies in an excluded directory.
    bool DirectoryExclude(const EngineEvent& event) const;
    // True when an exclude trust rule matches; records the exclusion.
    bool CheckExcludeTrustRules(EngineEvent& event);
    // Lower-cases the event's command line in place.
    static bool IsOnCommandLine(EngineEvent& event);

    // ---- Execution decisions, drift, maintenance (ZorvEngineDecisions.cpp) ----
    bool HandleEvent(EngineEvent& event);
    // True when a verdict was reached (read dbVerdict); false when the event
    // could not be judged.
    bool IsAllowedToRun(EngineEvent& event, bool checkExecutable);
    bool HandleProcessStartEvent(EngineEvent& event);
    bool HandleScriptStartEvent(EngineEvent& event);
    bool HandleMmapStartEvent(EngineEvent& event);
    bool HandleFileSystemMonitorEvent(EngineEvent& event);
    bool HandleDeleteEvent(EngineEvent& event);
    // Whether the event's file was last accessed or written inside the window
    // (milliseconds since 1970); sets the event's createTime and modifiedTime.
    bool AutoAuthorizeByFileTime(EngineEvent& event, uint64_t start, uint64_t end);
    // A file's last-access and last-write times in milliseconds since 1970.
    static bool GetFileTimeInMillisecond(const std::u16string& path, uint64_t& accessTime, uint64_t& writeTime);

    const ZorvQuery& Query() const { return m_query; }
    AllowCache& GetAllowCache() { return m_allowCache; }
    ProcessMap& Processes() { return m_processes; }

private:
    // The acting process's type: from the process map, else worked out from
    // its image and remembered. 0 when the event names no process.
    ProcessTypeIndex ActingProcessType(const EngineEvent& event);
    // The scan of a drifted file: stamps the event's record and status times.
    bool ScanFile(EngineEvent& event, const ZorvQuery::FileAttributes& file) const;

    ZorvQuery m_query;
    AllowCache m_allowCache;
    ProcessMap m_processes;
    ProcessTypeIndex m_prelinkType = kNoProcessType;  // index of the "prelink" type
};

}  // namespace zorv

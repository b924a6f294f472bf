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
#include "EngineEvent.h"
#include "ZorvUtilWindows.h"
#include "zorv/zorv.h"

namespace zorv {

// What the engine knows about live processes, by pid: the process-type index
// and the image path it was recorded for. Pids are reused by the system, so an
// entry counts only while the event names the same image; a mismatch reads as
// absent and the next Add replaces it.
//
// Thread-safe: the pids are spread over shards by value, each with its own
// mutex on its own cache line, so events of different processes do not wait
// for one another; nothing is called under a shard's lock.
class ProcessMap {
public:
    // Bounds memory on a machine that starts processes for months: a shard is
    // dropped whole at its share of this size and refills from the next events.
    static constexpr size_t kMaxProcesses = 16384;
    static constexpr size_t kShards = 16;

    struct Entry {
        ProcessTypeIndex typeIndex = kNoProcessType;
        std::u16string image;  // full path of the image the index was worked out for
    };

    // False when the pid is unknown or was recorded for another image.
    bool Find(uint64_t pid, const std::u16string& image, Entry& out) const;
    void Add(uint64_t pid, ProcessTypeIndex typeIndex, const std::u16string& image);
    size_t Size() const;

private:
    struct alignas(64) Shard {
        mutable std::mutex mutex;  // guards processes
        std::unordered_map<uint64_t, Entry> processes;
    };
    Shard& ShardOf(uint64_t pid) const { return m_shards[(pid ^ (pid >> 4)) % kShards]; }
    mutable Shard m_shards[kShards];
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

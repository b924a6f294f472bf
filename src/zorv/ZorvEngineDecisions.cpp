// The engine's decisions once an event is abstracted: whether code may run
// (process start, script start, executable mapping), what a changed or deleted
// file means for the inventory, and the maintenance window's file-time test.
#include <cstdint>
#include <functional>
#include <string>

#include "Zorv.h"
#include "ZorvDataAccessLayer.h"
#include "ZorvEventAbstraction.h"
#include "ZorvLogger.h"
#include "ZorvStats.h"
#include "ZorvText.h"
#include "platform/Platform.h"

namespace zorv {

namespace {

constexpr char16_t kLogSource[] = u"src/zorv/ZorvEventAbstraction";

constexpr uint64_t kTimeNotKnown = AppControlConfig::kTimeNotKnown;
// 100-ns ticks between 1601-01-01 and 1970-01-01.
constexpr int64_t kTicksTo1970 = 116444736000000000LL;
// Milliseconds between the same two dates.
constexpr uint64_t kMillisecondsTo1970 = 11644473600000ULL;

void Count(std::u16string_view counter) { ZorvStats::Instance().CountMetric(counter); }

// Signed so that a file time before 1970 truncates toward zero instead of wrapping.
uint64_t FileTimeToMilliseconds(uint64_t ticks) {
    return static_cast<uint64_t>((static_cast<int64_t>(ticks) - kTicksTo1970) / 10000);
}

// "upgradetime" is stored as seconds since 1970 in decimal text; an absent
// setting is 0. False when the store could not be read: the event is marked,
// because no time at all would approve every file older than now.
bool UpgradeTimeSeconds(EngineEvent& event, uint64_t& seconds) {
    seconds = 0;
    std::u16string text;
    switch (ZorvDAL::Instance().ReadAppControlState(u"upgradetime", text)) {
        case ZorvDAL::SettingRead::Failed:
            event.storeFault = 1;
            return false;
        case ZorvDAL::SettingRead::Absent:
            return true;
        case ZorvDAL::SettingRead::Found:
            break;
    }
    for (const char16_t unit : text) {
        if (unit < u'0' || unit > u'9') break;
        seconds = seconds * 10 + static_cast<uint64_t>(unit - u'0');
    }
    return true;
}

// No verdict can be given: the store could not be read, or the event names
// nothing to look up. Decision 8 makes app_ctl answer AC_E_FAILED, and the
// host's own failure policy decides; a lookup that could not run must never
// read as "not in the inventory", which log-only and waiting-for-manifest
// would let through.
bool CannotDecide(EngineEvent& event, const char16_t* function) {
    if (event.storeFault != 0) Count(u"RunErrorStore");
    event.action = AC_DECISION_ERROR;
    event.dbVerdict = AC_DB_NOT_KNOWN;
    ZORV_LOG(kLogTrace, function, u"No decision for %s: %s", event.name,
             event.storeFault != 0 ? u"the rule store could not be read" : u"the event gives nothing to look up");
    return false;
}

}  // namespace

// ---- Execution decisions ----

bool ZorvEngine::HandleEvent(EngineEvent& event) {
    ZORV_LOG(kLogTrace, u"ZorvEngine::HandleEvent", u"Handling event of type: %d", event.eventType);
    switch (event.eventType) {
        case AC_EVENT_PROCESS_START:
            return HandleProcessStartEvent(event);
        case AC_EVENT_FILE_CHANGE:
            return HandleFileSystemMonitorEvent(event);
        case AC_EVENT_DELETE:
            return HandleDeleteEvent(event);
        case AC_EVENT_SCRIPT_START:
            return HandleScriptStartEvent(event);
        case AC_EVENT_EXEC_MAPPING:
            return HandleMmapStartEvent(event);
        default:
            ZORV_LOG(kLogWarning, u"ZorvEngine::HandleEvent", u"Unknown event type %d", event.eventType);
            event.action = AC_DECISION_ERROR;
            return false;
    }
}

bool ZorvEngine::IsAllowedToRun(EngineEvent& event, bool checkExecutable) {
    constexpr const char16_t* kFn = u"ZorvEngine::IsAllowedToRun";
    if (event.name.empty()) {
        Count(u"RunErrorPath");
        event.action = AC_DECISION_ERROR;
        ZORV_LOG(kLogTrace, kFn, u"Event name is empty, failing to check in DB");
        return false;
    }
    if (checkExecutable && event.isExec == 0) {
        Count(u"RunErrorNotExec");
        event.action = AC_DECISION_ERROR;
        ZORV_LOG(kLogTrace, kFn, u"Not Executable %s. Setting action", event.name);
        return false;
    }

    ZorvDAL& dal = ZorvDAL::Instance();
    event.lookupName = event.name;
    if (!dal.IsAllowedInDB(event)) return CannotDecide(event, kFn);
    // Ruleset rules are the administrator's explicit word: no trust rule overrides them.
    if (event.source == AC_SOURCE_EXECUTION_RULES) return true;

    if (event.dbVerdict == AC_DB_NOT_KNOWN) {
        // A known updater installing software vouches for what it starts.
        ProcessMap::Entry entry;
        const ProcessTypeIndex known =
            m_processes.Find(event.pid, event.processName, entry) && entry.typeIndex != kNoProcessType ? entry.typeIndex
                                                                                                       : 0;
        bool store = false;
        const auto remember = [this, &event](uint64_t pid, ProcessTypeIndex index) {
            m_processes.Add(pid, index, event.processName);
        };
        if (m_query.ShouldTrustDrift(known, event, store, remember)) {
            event.isAuthorized = AC_REASON_TRUSTED;
            event.dbVerdict = AC_DB_ALLOWED;
            if (store) dal.StoreEventItem(event);
            Count(u"EventTrustedDrift");
            ZORV_LOG(kLogTrace, kFn, u"internal trusted update %s and path %s", event.processName, event.lookupName);
        }
    }

    if (event.dbVerdict == AC_DB_NOT_KNOWN) {
        const AppControlConfig& config = AppControlConfig::Instance();
        const uint64_t start = config.AutoAuthorizeStartTime();
        const uint64_t end = config.AutoAuthorizeEndTime();
        ZORV_LOG(kLogTrace, kFn, u"[Maintenance] start time: %llu end time: %llu Handling event of type: %d", start,
                 end, event.eventType);
        if (AutoAuthorizeByFileTime(event, start, end)) {
            Count(u"AutoAuthorizeByFileTime");
            event.action = AC_DECISION_ALLOW;
            event.isAuthorized = AC_REASON_MAINTENANCE;
            event.dbVerdict = AC_DB_ALLOWED;
            dal.StoreEventItem(event);
            ZORV_LOG(
                kLogTrace, kFn,
                u"[Maintenance] Process %s approved pid %lu. Setting isAuthorized to maintenance mode. Event type: %d",
                event.name, event.pid, event.eventType);
        }
    }

    if (event.dbVerdict == AC_DB_NOT_KNOWN && m_query.IsProcessTypeInTimeStampMode(ActingProcessType(event))) {
        // Files written before this engine was installed predate any rule it
        // could have learned; the process type trusts them until it is enabled.
        uint64_t upgradeSeconds = 0;
        if (!UpgradeTimeSeconds(event, upgradeSeconds)) return CannotDecide(event, kFn);
        const uint64_t upgradeTime = upgradeSeconds * 1000;
        ZORV_LOG(kLogTrace, kFn, u"[TIMESTAMP MODE] start time: %llu end time: %llu Handling event of type: %d",
                 uint64_t{1000}, upgradeTime, event.eventType);
        if (AutoAuthorizeByFileTime(event, 1000, upgradeTime)) {
            Count(u"AutoAuthorizeByTimeStamp");
            event.action = AC_DECISION_ALLOW;
            event.isAuthorized = AC_REASON_TRUSTED;
            event.dbVerdict = AC_DB_ALLOWED;
            dal.StoreEventItem(event);
            ZORV_LOG(kLogTrace, kFn,
                     u"[TIMESTAMP_MODE] Process %s approved pid %lu. Setting isAuthorized. Event type: %d", event.name,
                     event.pid, event.eventType);
        }
    }

    // A block-by-target rule outranks the inventory and every approval above,
    // so rules that could not be read leave no verdict at all.
    const bool blockedByRule = dal.IsFoundInTrustRules(4, event);
    if (event.storeFault != 0) return CannotDecide(event, kFn);
    if (blockedByRule) {
        event.isAuthorized = AC_REASON_BLOCKED;
        event.dbVerdict = AC_DB_BLOCKED;
        event.source = AC_SOURCE_TRUST_RULE;
        Count(u"EventBlockByTarget");
        ZORV_LOG(kLogTrace, kFn, u"Target is blocked due to trust rule for %s", event.lookupName);
        return true;
    }
    if (event.dbVerdict == AC_DB_ALLOWED) return true;

    const bool trustedByRule = dal.IsFoundInTrustRules(2, event);
    if (event.storeFault != 0) return CannotDecide(event, kFn);
    if (trustedByRule) {
        event.isAuthorized = AC_REASON_TRUSTED;
        event.dbVerdict = AC_DB_ALLOWED;
        event.source = AC_SOURCE_TRUST_RULE;
        Count(u"EventTrustedExecution");
        ZORV_LOG(kLogTrace, kFn, u"Target is in trust rule for %s", event.lookupName);
    }
    return true;
}

bool ZorvEngine::HandleProcessStartEvent(EngineEvent& event) {
    constexpr const char16_t* kFn = u"ZorvEngine::HandleProcessStartEvent";
    if (!IsAllowedToRun(event, true)) {
        ZORV_LOG(kLogTrace, kFn, u"IsAllowedInDB Returned false");
    } else if (event.dbVerdict == AC_DB_ALLOWED) {
        if (!event.processName.empty()) {
            // The process being started is the target: remember its type under
            // its pid, so that the scripts and mappings it causes later are
            // judged by what it is.
            ProcessMap::Entry entry;
            if (!m_processes.Find(event.pid, event.name, entry)) {
                ProcessDescription process = ProcessDescription::FromImagePath(event.name, event.pid);
                const ProcessTypeIndex index = m_query.GetProcessInterpreterType(process);
                if (index != kNoProcessType) {
                    ZORV_LOG(kLogTrace, kFn, u"Adding pid %s (%lu) as interpreter with PTI %lu", event.name, event.pid,
                             index);
                    m_processes.Add(event.pid, index, event.name);
                    ZORV_LOG(kLogTrace, kFn, u"Process %s with pid %lu to added process map", event.name, event.pid);
                }
            } else if (entry.typeIndex == m_prelinkType) {
                Count(u"RunPrelink");
            }
        }
        ZORV_LOG(kLogTrace, kFn, u"Incrementing RunAllowedRule stats for %s with pid %lu", event.name, event.pid);
        Count(u"RunAllowedRule");
        event.action = AC_DECISION_ALLOW;
        ZORV_LOG(kLogTrace, kFn, u"User %s, process %s and target %s approved pid %lu. Setting isAuthorized to 3",
                 event.user, event.processName, event.name, event.pid);
        m_allowCache.Add(event.user, event.processName, event.name, event.rulesGeneration);
    } else if (event.dbVerdict == AC_DB_BLOCKED) {
        ZORV_LOG(kLogTrace, kFn, u"Process %s blocked pid %lu", event.name, event.pid);
        Count(u"RunBlockedRule");
        event.action = AC_DECISION_BLOCK;
        event.changeKind = 10;
        event.isAuthorized = AC_REASON_BLOCKED;
        ZORV_LOG(kLogTrace, kFn, u"Process %s was not approved pid %lu. Setting isAuthorized to 2, returning false",
                 event.name, event.pid);
        return false;
    } else {
        ZORV_LOG(kLogTrace, kFn, u"Process %s (%lu) not found in DB", event.name, event.pid);
        event.blockedByLockdown = 0;
        event.isAuthorized = AC_REASON_NONE;
        if (AppControlConfig::Instance().Lockdown()) {
            Count(u"RunBlockedLockdown");
            ZORV_LOG(kLogTrace, kFn, u"Run blocked due to lockdown");
            event.action = AC_DECISION_BLOCK;
            event.changeKind = 10;
            ZORV_LOG(kLogTrace, kFn, u"Unrecognized process %s was not approved due to lockdown.", event.name);
            event.blockedByLockdown = 1;
        } else {
            Count(u"RunAllowedLogOnly");
            ZORV_LOG(kLogTrace, kFn, u"Run Allowed Log Only");
            event.action = AC_DECISION_ALLOW;
            event.changeKind = 11;
        }
    }
    ZORV_LOG(kLogTrace, kFn, u"Returning false from HandleProcessStartEvent");
    return false;
}

bool ZorvEngine::HandleScriptStartEvent(EngineEvent& event) {
    constexpr const char16_t* kFn = u"ZorvEngine::HandleScriptStartEvent";
    if (!IsAllowedToRun(event, true)) return false;
    if (event.dbVerdict == AC_DB_ALLOWED) {
        Count(u"RunAllowedRule");
        event.action = AC_DECISION_ALLOW;
        ZORV_LOG(kLogTrace, kFn, u"Process %s approved pid %lu", event.name, event.pid);
        m_allowCache.Add(event.user, event.processName, event.name, event.rulesGeneration);
    } else if (event.dbVerdict == AC_DB_BLOCKED) {
        ZORV_LOG(kLogTrace, kFn, u"Process %s blocked pid %lu", event.name, event.pid);
        Count(u"RunBlockedRule");
        event.action = AC_DECISION_BLOCK;
        event.changeKind = 10;
    } else {
        ZORV_LOG(kLogTrace, kFn, u"Process %s not in DB", event.name);
        if (!AppControlConfig::Instance().Lockdown()) {
            Count(u"RunAllowedLogOnly");
            event.action = AC_DECISION_ALLOW;
            event.changeKind = 11;
            event.blockedByLockdown = 0;
        } else {
            Count(u"RunBlockedLockdown");
            event.action = AC_DECISION_BLOCK;
            event.changeKind = 10;
            event.blockedByLockdown = 1;
            ZORV_LOG(kLogTrace, kFn, u"Process %s was not approved", event.name);
        }
    }
    ZORV_LOG(kLogTrace, kFn, u"Returning false from HandleScriptStartEvent");
    return false;
}

bool ZorvEngine::HandleMmapStartEvent(EngineEvent& event) {
    constexpr const char16_t* kFn = u"ZorvEngine::HandleMmapStartEvent";
    // A mapping is judged whatever isExec says: the mapping itself asks for execution.
    if (!IsAllowedToRun(event, false)) {
        ZORV_LOG(kLogTrace, kFn, u"IsAllowedToRun returned false");
        return false;
    }
    if (event.dbVerdict == AC_DB_ALLOWED) {
        Count(u"RunAllowedRule");
        event.action = AC_DECISION_ALLOW;
        ZORV_LOG(kLogTrace, kFn, u"Process %s (%lu) was approved to create executable mapping for %s",
                 event.processName, event.pid, event.path);
        m_allowCache.Add(event.user, event.processName, event.name, event.rulesGeneration);
    } else if (event.dbVerdict == AC_DB_BLOCKED) {
        ZORV_LOG(kLogTrace, kFn, u"Process %s (%lu) was not approved to create executable mapping for %s",
                 event.processName, event.pid, event.path);
        Count(u"RunBlockedRule");
        event.action = AC_DECISION_BLOCK;
        event.changeKind = 10;
    } else {
        ZORV_LOG(kLogTrace, kFn, u"File %s not found in the db", event.path);
        if (!AppControlConfig::Instance().Lockdown()) {
            Count(u"RunAllowedLogOnly");
            event.action = AC_DECISION_ALLOW;
            event.changeKind = 11;
        } else {
            Count(u"RunBlockedLockdown");
            event.action = AC_DECISION_BLOCK;
            event.changeKind = 10;
            ZORV_LOG(kLogTrace, kFn,
                     u"Process %s (%lu) was not approved to create executable mapping for %s due to LOCKDOWN",
                     event.processName, event.pid, event.path);
        }
    }
    return true;
}

// ---- Drift ----

bool ZorvEngine::ScanFile(EngineEvent& event, const ZorvQuery::FileAttributes& file) const {
    // Digests arrive with the event; the scan only stamps it. The record time
    // stays in milliseconds since 1601, as the inventory has always kept it.
    event.recordTime = platform::NowMilliseconds() + kMillisecondsTo1970;
    event.statusTime = static_cast<uint64_t>(file.status.lastWriteTime) * 1000;
    return true;
}

bool ZorvEngine::HandleFileSystemMonitorEvent(EngineEvent& event) {
    constexpr const char16_t* kFn = u"ZorvEngine::HandleFileSystemMonitorEvent";
    ZORV_LOG(kLogTrace, kFn, u"Start HandleFileSystemMonitorEvent. processName:%s path:%s", event.processName,
             event.name);
    if (event.name.empty()) {
        ZORV_LOG(kLogWarning, kFn, u"Realpath of Event %lu unknown: PID %lu, returnining false", event.eventId,
                 event.pid);
        event.action = AC_DECISION_ERROR;
        return false;
    }
    if (event.changeKind == 0) event.changeKind = 4;

    ZorvQuery::FileAttributes file;
    if (!m_query.StatAndCheckLink(event.name, file)) {
        ZORV_LOG(kLogTrace, kFn, u"Error getting attributes of path %s, returning false", event.name);
        event.action = AC_DECISION_ERROR;
        return false;
    }
    m_query.ClassifyFile(file, event.extension);

    if (event.changeKind == 4 || event.changeKind == 5 || event.changeKind == 6) {
        if (!m_query.IsExecutableExtension(event.fileName, event.extension)) {
            Count(u"TotalDriftUnknownExtension");
            ZorvStats::Instance().IncrementCounter(CounterCategory::DriftUnknownExtensions, event.extension);
            ZORV_LOG(kLogTrace, kFn, u"Drift for unknown extension path:%s, size:%lu, type:%d, mode:%d", event.path,
                     event.size, event.eventType, event.mode);
        }
        event.source = AC_SOURCE_APPROVED_DRIFT;
    }

    if (!ScanFile(event, file)) {
        ZORV_LOG(kLogTrace, kFn, u"Scanfile failed: %s, returning false", event.name);
        event.action = AC_DECISION_ERROR;
        return false;
    }

    if (event.source == AC_SOURCE_APPROVED_DRIFT) {
        ZorvDAL& dal = ZorvDAL::Instance();
        const bool maintenance = AppControlConfig::Instance().MaintenanceMode();
        // A changed file must be judged again before it may run from the cache.
        m_allowCache.Remove(event.name);
        event.lookupName = event.name;
        const bool found = dal.IsAllowedInDB(event);
        const uint32_t lookupSource = event.source;
        if (found) {
            if (event.dbVerdict == AC_DB_ALLOWED) {
                ZORV_LOG(kLogTrace, kFn, u"Allowlisted drift %s", event.fileName);
                event.isAuthorized = AC_REASON_APPROVED;
                if (maintenance && (event.source == AC_SOURCE_SCANNED || event.source == AC_SOURCE_APPROVED_DRIFT)) {
                    event.source = AC_SOURCE_APPROVED_DRIFT;
                    dal.StoreEventItem(event);
                    ZORV_LOG(kLogTrace, kFn, u"Drift is authorized due to previously approved. Filename: %s",
                             event.fileName);
                }
            } else if (event.dbVerdict == AC_DB_BLOCKED) {
                ZORV_LOG(kLogTrace, kFn, u"Blocklisted drift %s", event.fileName);
                event.isAuthorized = AC_REASON_BLOCKED;
            } else {
                ZORV_LOG(kLogTrace, kFn, u"Unrecognized Drift %s", event.fileName);
                ProcessMap::Entry entry;
                const ProcessTypeIndex known =
                    m_processes.Find(event.pid, event.processName, entry) && entry.typeIndex != kNoProcessType
                        ? entry.typeIndex
                        : 0;
                bool store = false;
                const auto remember = [this, &event](uint64_t pid, ProcessTypeIndex index) {
                    m_processes.Add(pid, index, event.processName);
                };
                if (maintenance) {
                    event.isAuthorized = AC_REASON_MAINTENANCE;
                    dal.StoreEventItem(event);
                    ZORV_LOG(kLogTrace, kFn, u"Drift is authorized due to maintenance mode. Filename: %s",
                             event.fileName);
                } else if (m_query.ShouldTrustDrift(known, event, store, remember)) {
                    event.isAuthorized = AC_REASON_TRUSTED;
                    if (store) dal.StoreEventItem(event);
                    Count(u"EventTrustedDrift");
                    ZORV_LOG(kLogTrace, kFn, u"Drift is trusted update %s and path %s", event.processName, event.name);
                } else if (dal.IsFoundInTrustRules(1, event)) {
                    event.isAuthorized = AC_REASON_TRUSTED;
                    dal.StoreEventItem(event);
                    Count(u"EventTrustRuleSourceDrift");
                    ZORV_LOG(kLogTrace, kFn, u"Drift source is in trust rule for %s", event.processName);
                } else if (dal.IsFoundInTrustRules(2, event)) {
                    // Trusted to run, but not learned: the rule vouches for
                    // execution, not for the process that wrote the file.
                    event.isAuthorized = AC_REASON_TRUSTED;
                    Count(u"EventTrustRuleSourceDrift");
                    ZORV_LOG(kLogTrace, kFn, u"Drift source is in trust rule for %s", event.processName);
                } else {
                    event.isAuthorized = AC_REASON_NONE;
                    ZORV_LOG(kLogTrace, kFn, u"Drift was not trusted for process %s and path %s", event.processName,
                             event.name);
                }
            }

            if (maintenance && event.changeKind == 5) {
                // Outside maintenance the old entry stays, so that a rename
                // cannot be used to shed a file's inventory history silently.
                EngineEvent renamed = event;
                renamed.name = event.oldName;
                AbstractEvent(renamed);
                ZORV_LOG(kLogTrace, kFn,
                         u"AC_TYPE_RENAME removing old inventory item with oldName: %s, path %s, fileName %s",
                         renamed.name, renamed.path, renamed.fileName);
                dal.DeleteInventoryItems(renamed);
            }
        }

        if (event.dbVerdict == AC_DB_ALLOWED && lookupSource != AC_SOURCE_EXECUTION_RULES &&
            dal.IsFoundInTrustRules(4, event)) {
            event.source = AC_SOURCE_TRUST_RULE;
            event.isAuthorized = AC_REASON_NONE;
            event.dbVerdict = AC_DB_BLOCKED;
            Count(u"EventBlockByTarget");
            ZORV_LOG(kLogTrace, kFn, u"Target is blocked due to trust rule for %s", event.name);
        }
    }
    ZORV_LOG(kLogTrace, kFn, u"Returning true from HandleFileSystemMonitorEvent");
    return true;
}

bool ZorvEngine::HandleDeleteEvent(EngineEvent& event) {
    constexpr const char16_t* kFn = u"ZorvEngine::HandleDeleteEvent";
    if (!AppControlConfig::Instance().MaintenanceMode()) {
        // The entry stays, so a file that comes back is still known.
        ZORV_LOG(kLogTrace, kFn, u"File %s was not deleted because not in maintenance mode", event.name);
        return true;
    }
    const bool deleted = ZorvDAL::Instance().DeleteInventoryItems(event);
    if (deleted) {
        ZORV_LOG(kLogTrace, kFn, u"File %s was successfully deleted", event.name);
    } else {
        ZORV_LOG(kLogTrace, kFn, u"File %s, was unable to be deleted", event.name);
    }
    return deleted;
}

// ---- Maintenance window ----

bool ZorvEngine::GetFileTimeInMillisecond(const std::u16string& path, uint64_t& accessTime, uint64_t& writeTime) {
    constexpr const char16_t* kFn = u"ZorvEngine::GetFileTimeInMillisecond";
    platform::FileTimes times;
    uint32_t error = 0;
    bool openFailed = false;
    if (!platform::GetFileTimes(path, times, error, openFailed)) {
        if (openFailed) {
            ZORV_LOG(kLogError, kFn, u"Invalid file handle. GetLastError() : %d", error);
        } else {
            ZORV_LOG(kLogError, kFn, u"Unalbe to GetFileTime. GetLastError() : %d", error);
        }
        return false;
    }
    accessTime = FileTimeToMilliseconds(times.lastAccess);
    writeTime = FileTimeToMilliseconds(times.lastWrite);
    return true;
}

bool ZorvEngine::AutoAuthorizeByFileTime(EngineEvent& event, uint64_t start, uint64_t end) {
    constexpr const char16_t* kFn = u"ZorvEngine::AutoAuthorizeByFileTime";
    if (start == 0 || start == kTimeNotKnown) return false;

    // The creation time is not read: the last-access time is the one the log
    // lines call createTime, and the two together decide.
    uint64_t createTime = 0;
    uint64_t modifiedTime = 0;
    if (!GetFileTimeInMillisecond(event.name, createTime, modifiedTime)) return false;
    event.createTime = createTime;
    event.modifiedTime = modifiedTime;

    const uint64_t now = platform::NowMilliseconds();
    // A time in the future is a forged or skewed stamp, never approved.
    if (createTime < now && modifiedTime < now) {
        const uint64_t effectiveEnd = (end == kTimeNotKnown || end <= start) ? now + 1 : end;
        if (createTime < effectiveEnd && modifiedTime < effectiveEnd && (createTime > start || modifiedTime > start)) {
            ZORV_LOG(kLogTrace, kFn,
                     u"[Maintenance] Unrecognized file %s approved because create/modified time is after authorize "
                     u"start time. createTime: %llu modifiedTime: %llu authorizeStartTime: %llu",
                     event.name, createTime, modifiedTime, start);
            return true;
        }
    }
    ZORV_LOG(kLogTrace, kFn,
             u"[Maintenance] Unrecognized file %s not approved because create/modified time is before authorize start "
             u"time. createTime: %llu modifiedTime: %llu authorizeStartTime: %llu now: %llu",
             event.name, createTime, modifiedTime, start, now);
    return false;
}

}  // namespace zorv

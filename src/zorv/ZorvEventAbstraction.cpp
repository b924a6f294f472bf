#include "ZorvEventAbstraction.h"

#include <atomic>
#include <cstdlib>

#include "Zorv.h"
#include "ZorvDataAccessLayer.h"
#include "ZorvLogger.h"
#include "ZorvStats.h"
#include "ZorvText.h"

namespace zorv {

namespace {

constexpr char16_t kLogSource[] = u"src/zorv/ZorvEventAbstraction";

// Read by every event thread without a lock; engine_start and engine_stop are
// the only writers and never overlap another call.
std::atomic<ZorvEngine*> g_currentEngine{nullptr};

constexpr const char16_t* kIssuerSuffix[6] = {u"IssuerCN", u"IssuerC", u"IssuerS",
                                              u"IssuerL",  u"IssuerO", u"IssuerOU"};

// Settings are stored as decimal text; an unparsable value reads as absent.
bool ReadIntegerSetting(const std::u16string& name, int64_t& value) {
    std::u16string text;
    if (!ZorvDAL::Instance().GetAppControlState(name, text) || text.empty()) return false;
    const std::string narrow = Utf16ToUtf8(text);
    char* end = nullptr;
    const long long parsed = std::strtoll(narrow.c_str(), &end, 10);
    if (end == narrow.c_str() || *end != '\0') return false;
    value = parsed;
    return true;
}

ProcessTypeIndex FindTypeByName(const ZorvQuery& query, std::u16string_view name) {
    for (ProcessTypeIndex i = 0; i < query.ProcessTypeCount(); ++i) {
        if (query.GetProcessType(i).name == name) return i;
    }
    return kNoProcessType;
}

// Copies one optional host text; returns false (and leaves `out` empty) for null.
bool CopyText(const ZorvChar* in, std::u16string& out) {
    if (in == nullptr) return false;
    out = FromHostText(in);
    return true;
}

}  // namespace

// ---- ProcessMap ----

bool ProcessMap::Find(uint64_t pid, const std::u16string& image, Entry& out) const {
    const Shard& shard = ShardOf(pid);
    std::lock_guard<std::mutex> lock(shard.mutex);
    const auto it = shard.processes.find(pid);
    if (it == shard.processes.end() || it->second.image != image) return false;
    out = it->second;
    return true;
}

void ProcessMap::Add(uint64_t pid, ProcessTypeIndex typeIndex, const std::u16string& image) {
    Entry entry{typeIndex, image};
    Shard& shard = ShardOf(pid);
    std::lock_guard<std::mutex> lock(shard.mutex);
    if (shard.processes.size() >= kMaxProcesses / kShards && shard.processes.find(pid) == shard.processes.end()) {
        shard.processes.clear();
    }
    shard.processes.insert_or_assign(pid, std::move(entry));
}

size_t ProcessMap::Size() const {
    size_t size = 0;
    for (const Shard& shard : m_shards) {
        std::lock_guard<std::mutex> lock(shard.mutex);
        size += shard.processes.size();
    }
    return size;
}

// ---- ZorvEngine ----

ZorvEngine::ZorvEngine() {
    // Time-stamp mode ends per process type once the agent switches the
    // type's setting on; those settings live in AppControlState.
    m_query.SetSettingLookup(&ReadIntegerSetting);
    m_prelinkType = FindTypeByName(m_query, u"prelink");
    g_currentEngine.store(this, std::memory_order_release);
}

ZorvEngine::~ZorvEngine() {
    ZorvEngine* self = this;
    g_currentEngine.compare_exchange_strong(self, nullptr, std::memory_order_acq_rel);
}

ZorvEngine* ZorvEngine::GetEngine() { return g_currentEngine.load(std::memory_order_acquire); }

void ZorvEngine::ConvertEvent(const AppCtlEvent* in, EngineEvent* out) {
    constexpr const char16_t* kFn = u"ZorvEngine::ConvertEvent";
    ZORV_LOG(kLogTrace, kFn, u"Start ConvertEvent");

    out->pid = in->pid;
    out->processValue = in->processValue;
    out->flags = in->flags;
    out->ignoreChange = in->ignoreChange;
    out->copiedValue40 = in->copiedValue40;
    out->size = in->size;
    out->mode = in->mode;
    out->copiedValue64 = in->copiedValue64;
    out->dirty = in->dirty;
    out->isExec = in->isExec;
    out->copiedFlag74 = in->copiedFlag74;
    out->copiedFlag75 = in->copiedFlag75;
    out->eventType = in->type;
    out->changeKind = in->type;

    if (CopyText(in->processName, out->processName))
        ZORV_LOG(kLogTrace, kFn, u"processName from plugin:'%s'", out->processName);
    if (CopyText(in->user, out->user)) ZORV_LOG(kLogTrace, kFn, u"user from plugin:'%s'", out->user);
    if (CopyText(in->group, out->group)) ZORV_LOG(kLogTrace, kFn, u"group from plugin:'%s'", out->group);
    if (CopyText(in->name, out->name)) ZORV_LOG(kLogTrace, kFn, u"name from plugin:'%s'", out->name);
    if (CopyText(in->oldName, out->oldName)) ZORV_LOG(kLogTrace, kFn, u"oldName from plugin:'%s'", out->oldName);
    if (CopyText(in->cmdLine, out->cmdLine)) ZORV_LOG(kLogTrace, kFn, u"cmdLine from plugin:'%s'", out->cmdLine);
    if (CopyText(in->processSignerName, out->processSignerName))
        ZORV_LOG(kLogTrace, kFn, u"processSignerName from plugin:'%s'", out->processSignerName);

    const ZorvChar* const processIssuers[6] = {in->processIssuerCN, in->processIssuerC, in->processIssuerS,
                                               in->processIssuerL,  in->processIssuerO, in->processIssuerOU};
    for (int i = 0; i < 6; ++i) {
        if (CopyText(processIssuers[i], out->processIssuer[i]))
            ZORV_LOG(kLogTrace, kFn, u"process%s from plugin:'%s'", kIssuerSuffix[i], out->processIssuer[i]);
    }

    // Company and product names come padded from version resources; the log
    // shows what the plug-in sent, the record keeps the trimmed text.
    if (CopyText(in->processCompanyName, out->processCompanyName)) {
        ZORV_LOG(kLogTrace, kFn, u"processCompanyName from plugin:'%s'", out->processCompanyName);
        TrimTrailingBlanks(out->processCompanyName);
    }
    if (CopyText(in->processProductName, out->processProductName)) {
        ZORV_LOG(kLogTrace, kFn, u"processProductName from plugin:'%s'", out->processProductName);
        TrimTrailingBlanks(out->processProductName);
    }
    if (in->processSha256 != nullptr) {
        out->processSha256.SetFromBytes(in->processSha256);
        ZORV_LOG(kLogTrace, kFn, u"processSha256 from plugin: %s", out->processSha256.Hex());
    }

    if (CopyText(in->fileSignerName, out->fileSignerName))
        ZORV_LOG(kLogTrace, kFn, u"fileSignerName from plugin:'%s'", out->fileSignerName);
    const ZorvChar* const fileIssuers[6] = {in->fileIssuerCN, in->fileIssuerC, in->fileIssuerS,
                                            in->fileIssuerL,  in->fileIssuerO, in->fileIssuerOU};
    for (int i = 0; i < 6; ++i) {
        if (CopyText(fileIssuers[i], out->fileIssuer[i]))
            ZORV_LOG(kLogTrace, kFn, u"file%s from plugin:'%s'", kIssuerSuffix[i], out->fileIssuer[i]);
    }
    if (CopyText(in->fileCompanyName, out->fileCompanyName)) {
        ZORV_LOG(kLogTrace, kFn, u"fileCompanyName from plugin:'%s'", out->fileCompanyName);
        TrimTrailingBlanks(out->fileCompanyName);
    }
    if (CopyText(in->fileProductName, out->fileProductName)) {
        ZORV_LOG(kLogTrace, kFn, u"fileProductName from plugin:'%s'", out->fileProductName);
        TrimTrailingBlanks(out->fileProductName);
    }
    if (in->fileSha256 != nullptr) {
        out->fileSha256.SetFromBytes(in->fileSha256);
        ZORV_LOG(kLogTrace, kFn, u"fileSha256 from plugin: %s", out->fileSha256.Hex());
    }
    out->fileSha1.SetFromBytes(in->fileSha1);
    out->fileMd5.SetFromBytes(in->fileMd5);
}

ProcessTypeIndex ZorvEngine::ActingProcessType(const EngineEvent& event) {
    if (event.processName.empty()) return 0;
    ProcessMap::Entry entry;
    if (m_processes.Find(event.pid, event.processName, entry) && entry.typeIndex != kNoProcessType)
        return entry.typeIndex;
    ProcessDescription process = ProcessDescription::FromImagePath(event.processName, event.pid);
    process.hash = event.processSha256;
    const ProcessTypeIndex index = m_query.GetProcessInterpreterType(process);
    if (index != kNoProcessType) m_processes.Add(event.pid, index, event.processName);
    return index;
}

bool ZorvEngine::ProcessEvent(EngineEvent& event) {
    constexpr const char16_t* kFn = u"ZorvEngine::ProcessEvent";
    const AppControlConfig& config = AppControlConfig::Instance();
    ZORV_LOG(kLogTrace, kFn, u"Processing event. EventType: %d Maintenance Mode: %d LockDown: %d", event.eventType,
             config.MaintenanceMode() ? 1 : 0, config.Lockdown() ? 1 : 0);

    // Read before anything is looked up: an allow decided now is cached under
    // this generation, and so never outlives the rules it was made from.
    event.rulesGeneration = ZorvDAL::Instance().RulesGeneration();
    if (event.eventType == AC_EVENT_CACHE_CHECK) {
        if (m_allowCache.Contains(event.user, event.processName, event.name, event.rulesGeneration)) {
            event.action = AC_DECISION_ALLOW;
            event.isAuthorized = AC_REASON_APPROVED;
            return true;
        }
        ZORV_LOG(kLogTrace, kFn, u"AllowCache miss for user: %s process: %s target: %s", event.user,
                 event.processName, event.name);
    }

    if (AbstractEvent(event)) {
        if (event.eventType != AC_EVENT_CACHE_CHECK) return HandleEvent(event);
        if (!CheckExcludeTrustRules(event)) {
            // A cache miss that no rule excludes is left to the execution events.
            event.action = AC_DECISION_IGNORED;
            event.isAuthorized = AC_REASON_NONE;
            return false;
        }
    }
    ZORV_LOG(kLogTrace, kFn, u"Not Handling Event of type: %d", event.eventType);
    ZorvStats::Instance().CountMetric(u"TotalIgnoredEvent");
    return false;
}

bool ZorvEngine::AbstractEvent(EngineEvent& event) {
    constexpr const char16_t* kFn = u"ZorvEngine::AbstractEvent";
    ZORV_LOG(kLogTrace, kFn, u"EventAbstraction");
    bool result = true;

    SplitName target = SplitAtLastSeparator(event.name);
    event.path = std::move(target.directory);
    event.fileName = std::move(target.fileName);
    event.extension = ExtensionOf(event.fileName);
    if (!event.processName.empty()) {
        const SplitName process = SplitAtLastSeparator(event.processName);
        ZORV_LOG(kLogTrace, kFn, u"Process name=%s path=%s fileName=%s procUser=%s procGroup=%s \n", process.fileName,
                 event.path, event.fileName, event.user, event.group);
    }

    const bool ignoreChange = event.ignoreChange != 0;
    event.changeKind = event.eventType;
    switch (event.eventType) {
        case AC_OP_CREATE_PRE:
        case AC_OP_CREATE_PRE_2:
            result = EventCreatePre(event);
            break;
        case AC_OP_CREATE_POST:
            result = EventCreatePost(event);
            break;
        case AC_OP_CHANGE_DIRTY:
            event.action = AC_DECISION_IGNORED;
            // A ':' in the name is a named data stream, not the file's content.
            if (event.dirty != 0 && event.name.find(u':') == std::u16string::npos)
                event.eventType = AC_EVENT_FILE_CHANGE;
            break;
        case AC_OP_PROCESS_CREATE:
            ZorvStats::Instance().CountMetric(u"RunProgram");
            event.eventType = AC_EVENT_PROCESS_START;
            break;
        case AC_OP_OPEN_POST:
            EventOpenPost(event);
            break;
        case AC_OP_CHANGE_32:
        case AC_OP_CHANGE_34:
            if (!ignoreChange) {
                event.eventType = AC_EVENT_FILE_CHANGE;
                event.changeKind = 4;
            }
            break;
        case AC_OP_RENAME:
            if (!ignoreChange) {
                event.eventType = AC_EVENT_FILE_CHANGE;
                event.changeKind = 5;
            }
            break;
        case AC_OP_CHANGE_36:
            event.eventType = AC_EVENT_FILE_CHANGE;
            event.changeKind = 6;
            break;
        case AC_OP_CHANGE_42:
        case AC_OP_CHANGE_44:
        case AC_OP_CHANGE_46:
        case AC_OP_CHANGE_48:
            if (!ignoreChange) {
                event.secondExtension = ExtensionOf(event.name);
                event.eventType = AC_EVENT_FILE_CHANGE;
                event.changeKind = 4;
            }
            break;
        case AC_OP_DELETE:
        case AC_OP_DELETE_2:
            if (!ignoreChange) {
                event.secondExtension = ExtensionOf(event.name);
                event.eventType = AC_EVENT_DELETE;
                event.changeKind = 7;
                m_allowCache.Remove(event.name);
            }
            break;
        case AC_OP_SECTION_MAP:
            if ((event.mode & 4) != 0) event.eventType = AC_EVENT_EXEC_MAPPING;
            break;
        default:
            ZORV_LOG(kLogTrace, kFn, u"Event not processed fell through");
            event.action = AC_DECISION_IGNORED;
            break;
    }

    // Dynamic rules: during maintenance every change is learned, wherever it is.
    bool dynamicRules = true;
    const bool isChange = event.changeKind == 4 || event.changeKind == 5 || event.changeKind == 6;
    if (isChange && !AppControlConfig::Instance().MaintenanceMode() && DirectoryExclude(event)) {
        ZORV_LOG(kLogTrace, kFn, u"Excluding event %s, based on directory", event.path);
        event.action = AC_DECISION_IGNORED;
        event.isAuthorized = AC_REASON_EXCLUDED;
        ZorvStats::Instance().CountMetric(u"EventExcludedBasedOnDirectory");
        m_allowCache.Remove(event.name);
        dynamicRules = false;
    }
    const bool handle = result && dynamicRules;
    ZORV_LOG(kLogTrace, kFn, u"Returning %d from EventAbstraction | EventAbs: %d && DynamicRules: %d", handle ? 1 : 0,
             result ? 1 : 0, dynamicRules ? 1 : 0);
    return handle;
}

bool ZorvEngine::EventCreatePre(EngineEvent& event) {
    constexpr const char16_t* kFn = u"ZorvEngine::EventCreatePre";
    ZORV_LOG(kLogTrace, kFn, u"Event Create Pre Abstraction");

    ProcessTypeIndex index = 0;
    if (event.processName.empty()) {
        ZORV_LOG(kLogTrace, kFn, u"process filename is empty");
    } else {
        ProcessMap::Entry entry;
        if (m_processes.Find(event.pid, event.processName, entry) && entry.typeIndex != kNoProcessType) {
            ZORV_LOG(kLogTrace, kFn, u"process type index is empty");
            index = entry.typeIndex;
        } else {
            ProcessDescription process = ProcessDescription::FromImagePath(event.processName, event.pid);
            process.hash = event.processSha256;
            index = m_query.GetProcessInterpreterType(process);
            ZORV_LOG(kLogTrace, kFn, u"processTypeIndex=%d", index);
            if (index != kNoProcessType) m_processes.Add(event.pid, index, event.processName);
        }
    }

    if (event.name.empty()) {
        ZORV_LOG(kLogTrace, kFn, u"Event name empty. Returning false from event abstraction.");
        return false;
    }

    if (index != 0 && m_query.IsInterpreter(index)) {
        const bool interpreted = m_query.IsExtensionInterpreted(index, event.extension);
        const bool onCommandLine = IsOnCommandLine(event);
        ZORV_LOG(kLogTrace, kFn, u"bIsExtensionInterpreted %d bIsOnTheCommandLine %d isexec %d", interpreted ? 1 : 0,
                 onCommandLine ? 1 : 0, event.isExec);
        if (interpreted || (onCommandLine && event.isExec != 0)) {
            ZorvStats::Instance().CountMetric(u"RunScript");
            event.eventType = AC_EVENT_SCRIPT_START;
            return true;
        }
        ZORV_LOG(kLogTrace, kFn, u"File extension is not interpreted by process type %d", index);
    } else {
        ZORV_LOG(kLogTrace, kFn, u"Script exec not detected. Process type index: %lu", index);
    }
    ZORV_LOG(kLogTrace, kFn, u"Returning false from EventCreatePre");
    return false;
}

bool ZorvEngine::EventCreatePost(EngineEvent& event) {
    event.action = AC_DECISION_IGNORED;
    if (event.dirty == 0) {
        ZORV_LOG(kLogTrace, u"ZorvEngine::EventCreatePost", u"Create Post event not dirty, ignoring");
        return false;
    }
    event.eventType = AC_EVENT_FILE_CHANGE;
    event.changeKind = 6;
    return true;
}

void ZorvEngine::EventOpenPost(EngineEvent& event) {
    if ((event.flags & 0x300) == 0 || m_prelinkType == kNoProcessType) return;
    ProcessMap::Entry entry;
    if (m_processes.Find(event.pid, event.processName, entry) && entry.typeIndex == m_prelinkType)
        ZORV_LOG(kLogWarning, u"ZorvEngine::EventOpenPost", u"Not supported yet\n");
}

bool ZorvEngine::DirectoryExclude(const EngineEvent& event) const {
    // The directory sets hold lower-case fragments that may end in a separator,
    // so the whole lowered name is searched rather than its directory part.
    return !m_query.IsOutsideTempDirectories(ToLower(event.name));
}

bool ZorvEngine::CheckExcludeTrustRules(EngineEvent& event) {
    if (!ZorvDAL::Instance().IsFoundInTrustRules(3, event)) return false;
    ZORV_LOG(kLogTrace, u"ZorvEngine::CheckExcludeTrustRules",
             u"Exclude event in directory %s because of exclude trust rule", event.path);
    ZorvStats::Instance().CountMetric(u"EventExcludedByTrustRule");
    event.action = AC_DECISION_IGNORED;
    event.isAuthorized = AC_REASON_EXCLUDED;
    m_allowCache.Add(event.user, event.processName, event.name, event.rulesGeneration);
    return true;
}

bool ZorvEngine::IsOnCommandLine(EngineEvent& event) {
    constexpr const char16_t* kFn = u"ZorvEngine::IsOnCommandLine";
    if (event.fileName.empty() || event.cmdLine.empty()) {
        ZORV_LOG(kLogTrace, kFn, u"No cmdline or file to check");
        return false;
    }
    // Only the command line is folded: a file name with capitals never
    // matches, which keeps this test from widening script detection.
    ToLowerInPlace(event.cmdLine);
    if (event.cmdLine.find(event.fileName) != std::u16string::npos) {
        ZORV_LOG(kLogTrace, kFn, u"Filename matches process command line");
        return true;
    }
    ZORV_LOG(kLogTrace, kFn, u"Filename does not match process command line");
    return false;
}

}  // namespace zorv

#include "ZorvQuery.h"

#include <initializer_list>

#include "AppControlConfig.h"
#include "EngineEvent.h"
#include "ZorvLogger.h"
#include "ZorvStats.h"
#include "ZorvText.h"
#include "platform/Platform.h"

namespace zorv {

namespace {

constexpr char16_t kLogSource[] = u"src/zorv/ZorvQuery";

using Texts = std::initializer_list<const char16_t*>;

std::vector<std::u16string> ToList(Texts texts) {
    std::vector<std::u16string> out;
    out.reserve(texts.size());
    for (const char16_t* text : texts) out.emplace_back(text);
    return out;
}

ProcessType MakeType(const char16_t* name, bool interpreter, bool isDefault, bool trustedUpdate, uint32_t op,
                     Texts extensions, Texts paths, const char16_t* enableSetting = u"") {
    ProcessType type;
    type.name = name;
    type.isInterpreter = interpreter;
    type.isDefault = isDefault;
    type.trustedUpdate = trustedUpdate;
    type.signatureCheck = false;  // no built-in type asks for the protected-file test
    type.op = op;
    type.extensions = ToList(extensions);
    type.paths = ToList(paths);
    type.enableSetting = enableSetting;
    return type;
}

// The process types in index order; rules and the engine's process map refer
// to them by position, so the order is part of the contract. Paths keep the
// case they were written in: the drift-trust test compares them against a
// lower-cased path, so the mixed-case ones never match (kept as shipped).
std::vector<ProcessType> BuildProcessTypes() {
    constexpr bool I = true;   // interpreter
    constexpr bool T = true;   // trusted updater
    constexpr bool n = false;
    const Texts none{};
    const Texts temp{u"\\temp\\"};
    const Texts temporaryAndUsers{u"\\temp\\", u"\\users\\"};
    const Texts temporaryAndSystem32{u"\\temp\\", u"\\windows\\system32"};
    const Texts unixServers{u"/opt/IBM/WebSphere/AppServer/profiles", u"/opt/apps/lsam18s/tmp/SMA"};
    const Texts scriptLanguages{u"php", u"py", u"pyc", u"pyo", u"pyz", u"pyd", u"rb", u"erb"};

    std::vector<ProcessType> types;
    types.reserve(39);
    types.push_back(MakeType(u"", n, n, n, 0, none, none));                                        // 0
    types.push_back(MakeType(u"normal", n, true, n, 0, none, none));                               // 1
    types.push_back(MakeType(u"prelink", n, n, T, 40, none, none));                                // 2
    types.push_back(MakeType(u"java", I, n, T, 0, {u"class", u"jar", u"ear", u"war"}, unixServers));  // 3
    types.push_back(MakeType(u"python", I, n, n, 0, {u"py", u"pyc", u"pyo", u"pyz", u"pyd", u"rb", u"erb"}, none));
    types.push_back(MakeType(u"php", I, n, n, 0, {u"php"}, none));                                 // 5
    types.push_back(MakeType(u"web", I, n, T, 0, scriptLanguages, {u"\\xampp\\htdocs\\portal"}));  // 6
    types.push_back(MakeType(u"perl", I, n, n, 0, {u"pl"}, none));                                 // 7
    types.push_back(MakeType(u"shell", I, n, T, 0, {u"sh"}, unixServers));                         // 8
    types.push_back(MakeType(u"power", I, n, T, 0, {u"ps1", u"psm1"},
                             {u"\\temp\\", u"\\AppData\\Local\\Microsoft_Corporation\\"}));         // 9
    types.push_back(MakeType(u"batch", I, n, n, 0, {u"bat", u"cmd"}, none));                       // 10
    types.push_back(MakeType(u"wscript", I, n, n, 0, {u"wsh", u"vb", u"vbs", u"js", u"jse", u"ws", u"wsf"}, none));
    types.push_back(MakeType(u"sihclient", I, n, T, 0, {u"dll"}, {u"\\windows\\softwaredistribution\\"}));  // 12
    types.push_back(MakeType(u"linuxmod", I, n, T, 0, {u"ko"}, {u"/qel_agent/"}));                // 13
    types.push_back(MakeType(u"driver", I, n, T, 0, {u"inf", u"sys"}, {u"\\halvane\\"}));         // 14
    types.push_back(MakeType(u"control", I, n, n, 0, {u"cpl"}, none));                            // 15
    types.push_back(MakeType(u"dotnet", n, n, T, 0, none, {u"\\temp\\", u"\\windows\\assembly"}));  // 16
    types.push_back(MakeType(u"spoolsv", n, n, T, 0, none,
                             {u"\\temp\\", u"\\windows\\system32\\spool\\drivers", u"\\windows\\syswow64"}));
    types.push_back(MakeType(u"patch", n, n, T, 0, none, {u"\\vuto\\"}));                          // 18
    types.push_back(MakeType(u"wmiprvse", n, n, T, 0, none, {u"\\temp\\", u"\\windows\\microsoft.net"}));
    types.push_back(MakeType(u"sdiagnhost", n, n, T, 0, none, temp));                              // 20
    types.push_back(MakeType(u"mpam", n, n, T, 0, none, temp));                                    // 21
    types.push_back(MakeType(u"cleanmgr", n, n, T, 0, none, temporaryAndUsers));                   // 22
    types.push_back(MakeType(u"dism", n, n, T, 0, none, temporaryAndUsers));                       // 23
    types.push_back(MakeType(u"ie", n, n, T, 0, none, temporaryAndUsers));                         // 24
    types.push_back(MakeType(u"mrt", n, n, T, 0, none, {u"\\temp\\", u"\\windows\\system32\\"}));  // 25
    types.push_back(MakeType(u"poqexec", n, n, T, 0, none,
                             {u"\\temp\\", u"\\program files", u"\\windows\\system32"}));          // 26
    types.push_back(MakeType(u"trustedinstaller", n, n, T, 0, none,
                             {u"\\temp\\", u"\\windows\\softwaredistribution", u"\\windows\\winsxs",
                              u"\\windows\\system32", u"\\windows\\syswow64", u"\\users"}));       // 27
    types.push_back(MakeType(u"msiexec", n, n, T, 0, none,
                             {u"\\temp\\", u"\\windows\\", u"\\program files\\halvane"}));         // 28
    types.push_back(MakeType(u"mpsigstub", n, n, T, 0, none, temporaryAndSystem32));               // 29
    types.push_back(MakeType(u"msmpeng", n, n, T, 0, none,
                             {u"\\temp\\", u"\\programdata\\microsoft", u"\\windows\\winsxs",
                              u"\\windows\\softwaredistribution\\"}));                             // 30
    types.push_back(MakeType(u"kb2901983", n, n, T, 0, none, {u"\\temp\\", u"\\8b5bc664f2d37f112f84bdc9"}));
    types.push_back(MakeType(u"kb890830", n, n, T, 0, none, temporaryAndSystem32));                // 32
    types.push_back(MakeType(u"svchost", n, n, T, 0, none,
                             {u"\\temp\\", u"\\windows\\winsxs", u"\\windows\\microsoft.net",
                              u"\\windows\\softwaredistribution"}));                               // 33
    types.push_back(MakeType(u"tiworker", n, n, T, 0, none,
                             {u"\\temp\\", u"\\boot\\", u"\\windows\\system32", u"\\windows\\assembly",
                              u"\\windows\\winsxs", u"\\windows\\softwaredistribution\\download",
                              u"\\windows\\microsoft.net", u"\\windows\\inf"}));                   // 34
    types.push_back(MakeType(u"aspentech", n, n, T, 0, none, {u"\\aspentech\\", u"\\safenet sentinel\\"}));
    types.push_back(MakeType(u"mismatchop", I, n, T, 40, none, temp));                             // 36
    types.push_back(MakeType(u"chm", I, n, n, 0, {u"chm"}, none, u"enableHTML"));                  // 37
    types.push_back(MakeType(u"browser", I, n, n, 40, {u"html", u"htm", u"js"}, none, u"enableHTML"));  // 38
    return types;
}

// Tried from index 1 upward, first match wins: exact names precede name
// fragments, and the prelink and browser groups come last. The mixed-case
// names never match a lower-cased process name; rows 65 and 66 are the same
// rule twice. Both kept as shipped.
std::vector<InterpreterRule> BuildInterpreterRules() {
    struct Row {
        uint32_t type;
        const char16_t* value;  // name, or name fragment for RuleNamePart
        const char16_t* processType;
    };
    static constexpr Row kRows[] = {
        {RuleName, u"powershell.exe", u"power"},
        {RuleName, u"powershell_ise.exe", u"power"},
        {RuleName, u"cmd.exe", u"batch"},
        {RuleName, u"cscript.exe", u"wscript"},
        {RuleName, u"wscript.exe", u"wscript"},
        {RuleName, u"mscorsvw.exe", u"dotnet"},
        {RuleName, u"tiworker.exe", u"tiworker"},
        {RuleName, u"ngentask.exe", u"tiworker"},
        {RuleName, u"ngen.exe", u"tiworker"},
        {RuleName, u"wmiprvse.exe", u"wmiprvse"},
        {RuleName, u"spoolsv.exe", u"spoolsv"},
        {RuleName, u"trustedinstaller.exe", u"trustedinstaller"},
        {RuleName, u"RemoteFXvGPUDisablement.exe", u"trustedinstaller"},
        {RuleName, u"updateplatform.exe", u"trustedinstaller"},
        {RuleName, u"csc.exe", u"trustedinstaller"},
        {RuleName, u"msiexec.exe", u"msiexec"},
        {RuleName, u"mpsigstub.exe", u"mpsigstub"},
        {RuleName, u"sdiagnhost.exe", u"sdiagnhost"},
        {RuleName, u"msmpeng.exe", u"msmpeng"},
        {RuleName, u"wuauclt.exe", u"msmpeng"},
        {RuleName, u"cleanmgr.exe", u"cleanmgr"},
        {RuleName, u"mrt.exe", u"mrt"},
        {RuleName, u"patch.exe", u"patch"},
        {RuleName, u"dism.exe", u"dism"},
        {RuleName, u"taskhostw.exe", u"svchost"},
        {RuleName, u"svchost.exe", u"svchost"},
        {RuleName, u"poqexec.exe", u"poqexec"},
        {RuleName, u"sh.exe", u"shell"},
        {RuleName, u"sh", u"shell"},
        {RuleName, u"processexplorer.exe", u"aspentech"},
        {RuleName, u"aspensplash.exe", u"aspentech"},
        {RuleName, u"iqtask.exe", u"aspentech"},
        {RuleName, u"sihclient.exe", u"sihclient"},
        {RuleName, u"git.exe", u"web"},
        {RuleName, u"mismatchop.exe", u"mismatchop"},
        {RuleName, u"devcon.exe", u"driver"},
        {RuleName, u"pnputil.exe", u"driver"},
        {RuleName, u"drvinst.exe", u"driver"},
        {RuleName, u"InfDefaultInstall.exe", u"driver"},
        {RuleName, u"rundll32.exe", u"control"},
        {RuleName, u"hh.exe", u"chm"},
        {RuleName, u"calibre-parallel.exe", u"chm"},
        {RuleNamePart, u"sumatrapdf", u"chm"},
        {RuleName, u"cr3.exe", u"chm"},
        {RuleName, u"freechmreader.exe", u"chm"},
        {RuleName, u"chmviewer.exe", u"chm"},
        {RuleNamePart, u"kb2901983", u"kb2901983"},
        {RuleNamePart, u"kb890830", u"kb890830"},
        {RuleNamePart, u"mpam-", u"mpam"},
        {RuleNamePart, u"ie11-windows", u"ie"},
        {RuleNamePart, u"java", u"java"},
        {RuleNamePart, u"sma_lsam", u"java"},
        {RuleNamePart, u"python", u"python"},
        {RuleNamePart, u"php", u"php"},
        {RuleNamePart, u"nginx", u"web"},
        {RuleNamePart, u"apache2", u"web"},
        {RuleNamePart, u"httpd", u"web"},
        {RuleNamePart, u"lighttpd", u"web"},
        {RuleNamePart, u"perl", u"perl"},
        {RuleNamePart, u"bash", u"shell"},
        {RuleNamePart, u"dash", u"shell"},
        {RuleNamePart, u"csh", u"shell"},
        {RuleNamePart, u"ksh", u"shell"},
        {RuleNamePart, u"kmod", u"linuxmod"},
        {RulePathAndName, u"prelink", u"prelink"},
        {RulePathAndName, u"prelink", u"prelink"},
        {RuleName, u"safari.exe", u"browser"},
        {RuleName, u"chrome.exe", u"browser"},
        {RuleName, u"firefox.exe", u"browser"},
        {RuleName, u"msedge.exe", u"browser"},
        {RuleName, u"iexplore.exe", u"browser"},
    };

    std::vector<InterpreterRule> rules;
    rules.reserve(std::size(kRows) + 1);
    rules.emplace_back(RuleNone, u"", u"", u"", u"");
    for (const Row& row : kRows) {
        switch (row.type) {
            case RulePathAndName:
                rules.emplace_back(row.type, u"/usr/sbin/", row.value, u"", row.processType);
                break;
            case RuleNamePart:
                rules.emplace_back(row.type, u"", u"", row.value, row.processType);
                break;
            default:
                rules.emplace_back(row.type, u"", row.value, u"", row.processType);
                break;
        }
    }
    return rules;
}

// The file name without its last extension; the whole name when it has none.
std::u16string_view Stem(std::u16string_view name) {
    const size_t dot = name.rfind(u'.');
    return dot == std::u16string_view::npos ? name : name.substr(0, dot);
}

bool ContainsDigit(std::u16string_view text) {
    for (char16_t c : text) {
        if (c >= u'0' && c <= u'9') return true;
    }
    return false;
}

}  // namespace

InterpreterRule::InterpreterRule(uint32_t type, std::u16string rulePath, std::u16string ruleName,
                                 std::u16string part, std::u16string typeName)
    : ruleType(type),
      path(std::move(rulePath)),
      name(std::move(ruleName)),
      namePart(std::move(part)),
      processType(std::move(typeName)) {}

InterpreterRule::InterpreterRule(const InterpreterRule& other)
    : ruleType(other.ruleType),
      path(other.path),
      name(other.name),
      namePart(other.namePart),
      processType(other.processType),
      hash(other.hash),
      processTypeIndex(other.processTypeIndex.load(std::memory_order_relaxed)) {}

InterpreterRule& InterpreterRule::operator=(const InterpreterRule& other) {
    ruleType = other.ruleType;
    path = other.path;
    name = other.name;
    namePart = other.namePart;
    processType = other.processType;
    hash = other.hash;
    processTypeIndex.store(other.processTypeIndex.load(std::memory_order_relaxed), std::memory_order_relaxed);
    return *this;
}

ProcessDescription ProcessDescription::FromImagePath(std::u16string_view imagePath, uint64_t pid) {
    ProcessDescription process;
    process.pid = pid;
    const size_t separator = imagePath.find_last_of(u"\\/");
    if (separator == std::u16string_view::npos) {
        process.name = imagePath;
    } else {
        process.path = imagePath.substr(0, separator + 1);
        process.name = imagePath.substr(separator + 1);
    }
    return process;
}

ZorvQuery::ZorvQuery()
    : m_tempDirectories{u"c:\\$recycle.bin", u"c:\\windows\\winsxs\\temp\\", u"c:\\windows\\cbstemp\\"},
      m_extraDirectories{},
      m_scriptExtensions{u"bash", u"bat", u"chm", u"class", u"cmd", u"cron", u"ear", u"erb", u"htm",
                         u"html", u"inf", u"jar", u"js", u"php", u"pl", u"ps1", u"psm1", u"py",
                         u"pyc", u"pyd", u"pyo", u"pyz", u"rb", u"sh", u"sys", u"tmp", u"vb",
                         u"vbs", u"vbscript", u"war", u"ws", u"wsf", u"wsh"},
      m_executableExtensions{u"acm", u"ax", u"bash", u"bat", u"class", u"cmd", u"com", u"cpl",
                             u"cron", u"dll", u"drv", u"ear", u"efi", u"erb", u"exe", u"inf",
                             u"ini", u"ins", u"inx", u"isu", u"jar", u"job", u"jse", u"ko",
                             u"manifest", u"msc", u"msi", u"msp", u"mst", u"mui", u"ocx", u"paf",
                             u"php", u"pif", u"pl", u"ps1", u"psm1", u"py", u"pyc", u"pyd",
                             u"pyo", u"pyz", u"rb", u"scr", u"sh", u"so", u"sys", u"tmp",
                             u"tsp", u"vb", u"vbs", u"vbscript", u"war", u"ws", u"wsf", u"wsh"},
      m_interpreterRules(BuildInterpreterRules()),
      m_processTypes(BuildProcessTypes()) {
    // Entry 0 is the placeholder that never matches.
    for (size_t i = 1; i < m_interpreterRules.size(); ++i) {
        const InterpreterRule& rule = m_interpreterRules[i];
        if (rule.ruleType == RuleName || rule.ruleType == RulePathAndName) {
            m_rulesByName[rule.name].push_back(i);
        } else {
            m_rulesByOther.push_back(i);
        }
    }
}

ProcessTypeIndex ZorvQuery::ResolveRule(const InterpreterRule& rule) const {
    const int64_t cached = rule.processTypeIndex.load(std::memory_order_relaxed);
    if (cached != -1) return static_cast<ProcessTypeIndex>(cached);
    for (size_t i = 0; i < m_processTypes.size(); ++i) {
        if (m_processTypes[i].name == rule.processType) {
            rule.processTypeIndex.store(static_cast<int64_t>(i), std::memory_order_relaxed);
            return i;
        }
    }
    // Not cached: a rule naming no type stays unresolved and answers 0 each time.
    return 0;
}

// ---------------------------------------------------------------------------
// Interpreter queries

ProcessTypeIndex ZorvQuery::GetProcessInterpreterType(ProcessDescription& process) const {
    ZORV_LOG(kLogTrace, u"ZorvQuery::GetProcessInterpreterType", u"GetProcessInterpreterType");
    ToLowerInPlace(process.path);
    ToLowerInPlace(process.name);

    const size_t dot = process.name.rfind(u'.');
    // A dot-file (".profile") names no program the rules could know.
    if (dot == 0) return kNoProcessType;
    const std::u16string_view extension =
        dot == std::u16string::npos ? std::u16string_view(process.name) : std::u16string_view(process.name).substr(dot + 1);
    if (extension.empty()) {
        ZORV_LOG(kLogWarning, u"ZorvQuery::GetProcessInterpreterType",
                 u"Process extension couldn't be found name=%s ext=%s", process.name, extension);
        return kNoProcessType;
    }

    // The rules for this exact name merged with the others, in table order.
    static const std::vector<size_t> kNoRules;
    const auto named = m_rulesByName.find(process.name);
    const std::vector<size_t>& byName = named != m_rulesByName.end() ? named->second : kNoRules;
    size_t nextNamed = 0;
    size_t nextOther = 0;
    while (nextNamed < byName.size() || nextOther < m_rulesByOther.size()) {
        const bool takeNamed = nextOther == m_rulesByOther.size() ||
                               (nextNamed < byName.size() && byName[nextNamed] < m_rulesByOther[nextOther]);
        const size_t i = takeNamed ? byName[nextNamed++] : m_rulesByOther[nextOther++];
        const ProcessTypeIndex index = ApplyInterpreterRule(process, m_interpreterRules[i]);
        if (index == kNoProcessType) continue;
        const ProcessType& type = m_processTypes[index];
        ZORV_LOG(kLogTrace, u"ZorvQuery::GetProcessInterpreterType", u"Signature check %s",
                 type.signatureCheck ? u"true" : u"false");
        ZORV_LOG(kLogTrace, u"ZorvQuery::GetProcessInterpreterType", u"ScriptInterpreter Match rule match for %s",
                 process.name);
        if (!type.signatureCheck) return index;
        // A name alone is easy to borrow: for these types only the protected
        // system binary of that name counts, and an impostor tries later rules.
        if (VerifyCert(process.path + process.name)) return index;
    }

    ZORV_LOG(kLogTrace, u"ZorvQuery::GetProcessInterpreterType", u"No ScriptInterpreter Match rule match for %s",
             process.name);
    return 0;
}

ProcessTypeIndex ZorvQuery::ApplyInterpreterRule(const ProcessDescription& process,
                                                 const InterpreterRule& rule) const {
    switch (rule.ruleType) {
        case RuleNone:
            return kNoProcessType;
        case RuleHash: {
            if (!process.hash.IsSet() || !rule.hash.IsSet()) return kNoProcessType;
            const size_t count = process.hash.DigestSize();
            if (rule.hash.DigestSize() < count) return kNoProcessType;
            if (!std::equal(process.hash.Bytes(), process.hash.Bytes() + count, rule.hash.Bytes()))
                return kNoProcessType;
            break;
        }
        case RulePathAndName:
            if (process.path != rule.path || process.name != rule.name) return kNoProcessType;
            break;
        case RuleName:
            if (process.name != rule.name) return kNoProcessType;
            break;
        case RuleNamePart:
            if (Stem(process.name).find(rule.namePart) == std::u16string_view::npos) return kNoProcessType;
            break;
        default:
            ZORV_LOG(kLogWarning, u"ZorvQuery::ApplyInterpreterRule", u"Unknown rule type %d", rule.ruleType);
            return kNoProcessType;
    }
    return ResolveRule(rule);
}

bool ZorvQuery::VerifyCert(const std::u16string& fullPath) {
    if (!platform::IsProtectedSystemFile(fullPath)) return false;
    ZORV_LOG(kLogTrace, u"ZorvQuery::VerifyCert", u"%s is under WPF therefore trusted", fullPath);
    return true;
}

bool ZorvQuery::IsInterpreter(ProcessTypeIndex index) const {
    if (index < m_processTypes.size() && m_processTypes[index].isInterpreter) {
        ZORV_LOG(kLogTrace, u"ZorvQuery::IsInterpreter", u"processType %lu is interpreter", index);
        return true;
    }
    ZORV_LOG(kLogTrace, u"ZorvQuery::IsInterpreter", u"processType %lu is not interpreter", index);
    return false;
}

bool ZorvQuery::IsExtensionInterpreted(ProcessTypeIndex index, const std::u16string& extension) const {
    // -1 is "no type"; -2 is treated alike.
    if (index >= kNoProcessType - 1) {
        ZORV_LOG(kLogTrace, u"ZorvQuery::IsExtensionInterpreted", u"processTypeIndex is nil");
        return false;
    }
    // Callers pass an index the table gave them; an index past the end would
    // be their bug, answered "not interpreted" rather than read out of bounds.
    if (index < m_processTypes.size()) {
        for (const std::u16string& interpreted : m_processTypes[index].extensions) {
            if (interpreted == extension) {
                ZORV_LOG(kLogTrace, u"ZorvQuery::IsExtensionInterpreted",
                         u"Extension %s is interpreted by process type index: %d", extension, index);
                return true;
            }
        }
    }
    ZORV_LOG(kLogTrace, u"ZorvQuery::IsExtensionInterpreted",
             u"Extension %s is NOT interpreted by process type index: %d", extension, index);
    return false;
}

bool ZorvQuery::IsProcessTypeInTimeStampMode(ProcessTypeIndex index) const {
    constexpr char16_t kFunction[] = u"ZorvQuery::IsProcessTypeInTimeStampMode";
    if (index >= m_processTypes.size() || m_processTypes[index].enableSetting.empty()) {
        ZORV_LOG(kLogTrace, kFunction, u"processType %lu is not n time stamp mode", index);
        return false;
    }
    const std::u16string& setting = m_processTypes[index].enableSetting;
    ZORV_LOG(kLogTrace, kFunction, u"processType %lu has an enableSetting %s", index, setting);
    int64_t value = 0;
    if (m_settingLookup && m_settingLookup(setting, value) && value > 0) {
        ZORV_LOG(kLogTrace, kFunction, u"processType %lu with setting %s has been enabled in regular mode", index,
                 setting);
        ZORV_LOG(kLogTrace, kFunction, u"processType %lu is not n time stamp mode", index);
        return false;
    }
    ZORV_LOG(kLogTrace, kFunction, u"processType %lu with enableSetting %s running in time stamp mode until enabled",
             index, setting);
    return true;
}

bool ZorvQuery::ShouldTrustPowershell(const EngineEvent& event) const {
    constexpr char16_t kFunction[] = u"ZorvQuery::ShouldTrustPowershell";
    const std::u16string& fileName = event.name;

    // The file is named by an event, so whoever wrote it may have made it a
    // FIFO, a link to /dev/zero or a huge single line. The reader refuses all
    // but regular files without blocking, and the count stops as soon as the
    // answer is known: at the second line feed, or once the first line has
    // run past kMaxScriptLineBytes, which no trusted one-liner does.
    constexpr uint64_t kMaxScriptLineBytes = uint64_t{1} << 20;
    OplockReader reader;
    if (!reader.Open(fileName)) {
        ZORV_LOG(kLogTrace, kFunction, u"%s could not be parsed properly", fileName);
        return false;
    }
    uint64_t lines = 1;
    uint64_t total = 0;
    char header[2] = {};
    size_t read = 0;
    char buffer[16384];
    while (lines < 3 && total <= kMaxScriptLineBytes) {
        const size_t got = reader.Read(buffer, sizeof buffer);
        if (got == 0) break;
        for (size_t i = 0; i < got && lines < 3; ++i) {
            if (buffer[i] == '\n') ++lines;
        }
        for (size_t i = 0; i < got && read < sizeof header; ++i) header[read++] = buffer[i];
        total += got;
    }
    const bool unfinished = reader.IsOpen();
    const uint32_t error = reader.Error();
    reader.Close();
    if (lines >= 2) {
        ZORV_LOG(kLogTrace, kFunction,
                 u"%s not detected as trusted script because the file has more than 1 line (%d lines)", fileName,
                 lines);
        return false;
    }
    if (unfinished) {
        ZORV_LOG(kLogTrace, kFunction, u"%s not detected as trusted script because its first line is longer than %llu bytes",
                 fileName, kMaxScriptLineBytes);
        return false;
    }
    // A read that ended early (a writer appeared) says nothing about the file.
    if (error != 0) {
        ZORV_LOG(kLogTrace, kFunction, u"%s could not be parsed properly", fileName);
        return false;
    }

    if (read == 2 && header[0] == '#' && header[1] == ' ') {
        ZORV_LOG(kLogTrace, kFunction, u"%s detected as trusted script because of '# ' header and only %d line",
                 fileName, lines);
        return true;
    }
    if (read == 1 && header[0] == '1') {
        ZORV_LOG(kLogTrace, kFunction, u"%s detected as trusted script because of '1' header and only %d line",
                 fileName, lines);
        return true;
    }
    ZORV_LOG(kLogTrace, kFunction, u"%s not detected as trusted script because lack of '# ' or '1' header",
             fileName);
    return false;
}

// ---------------------------------------------------------------------------
// File tests

bool ZorvQuery::IsSharedLibrary(std::u16string_view fileName, std::u16string_view extension) {
    if (fileName.empty() || extension.empty()) return false;
    if (extension == u"dll" || extension == u"so") return true;
    // Versioned names (libc.so.6, libssl.so.1.1) carry "so" between dots.
    size_t start = 0;
    while (start <= fileName.size()) {
        size_t dot = fileName.find(u'.', start);
        if (dot == std::u16string_view::npos) dot = fileName.size();
        if (fileName.substr(start, dot - start) == u"so") return true;
        start = dot + 1;
    }
    return false;
}

bool ZorvQuery::IsExecutableExtension(std::u16string_view fileName, const std::u16string& extension) const {
    if (extension.empty()) return true;
    if (IsSharedLibrary(fileName, extension)) return true;
    // Rotated and versioned files (app.1, lib.so.2) may still be loaded.
    if (ContainsDigit(extension)) return true;
    return m_executableExtensions.count(extension) != 0;
}

bool ZorvQuery::IsScriptCandidate(const std::u16string& extension, std::u16string_view fullPath) const {
    if (m_executableExtensions.count(extension) == 0) return false;
    if (m_scriptExtensions.count(extension) == 0) return false;
    if (fullPath.empty()) return true;
    return IsOutsideTempDirectories(fullPath);
}

bool ZorvQuery::IsOutsideTempDirectories(std::u16string_view fullPath) const {
    if (m_tempDirectories.count(std::u16string(fullPath)) != 0) return false;
    for (const std::set<std::u16string>* directories : {&m_tempDirectories, &m_extraDirectories}) {
        for (const std::u16string& directory : *directories) {
            if (directory.empty() || fullPath.find(directory) != std::u16string_view::npos) return false;
        }
    }
    return true;
}

bool ZorvQuery::IsSharedLibrary(const EngineEvent& event) const {
    return IsSharedLibrary(event.fileName, event.extension);
}

bool ZorvQuery::IsExecutableExtension(const EngineEvent& event) const {
    return IsExecutableExtension(event.fileName, event.extension);
}

bool ZorvQuery::IsScriptCandidate(const EngineEvent& event) const {
    return IsScriptCandidate(event.extension, event.name);
}

bool ZorvQuery::IsOutsideTempDirectories(const EngineEvent& event) const {
    return IsOutsideTempDirectories(event.name);
}

bool ZorvQuery::StatItem(std::string_view path, platform::FileStatus& status) const {
    ZORV_LOG(kLogTrace, u"ZorvQuery::StatItem", u"STAT timestamp being used for file %s", path);
    return platform::StatFile(Utf8ToUtf16(path), status);
}

bool ZorvQuery::StatAndCheckLink(std::u16string_view path, FileAttributes& file) const {
    file.isReparsePoint = false;
    if (!platform::StatFile(path, file.status)) return false;
    // A link can make an allowed name run something else: the caller treats it apart.
    file.isReparsePoint = platform::IsReparsePoint(path);
    return true;
}

bool ZorvQuery::ClassifyFile(FileAttributes& file, const std::u16string& extension) const {
    // The file status the platform layer reports tells directories from the
    // rest only, so every other file reads as regular; and a regular file is
    // always judged by content later, never by extension here.
    constexpr bool kRegularFilesJudgedLater = true;
    if (file.isReparsePoint) {
        file.fileKind = 6;
    } else if (file.status.isDirectory) {
        file.fileKind = 5;
    } else if (kRegularFilesJudgedLater) {
        file.fileKind = 3;
    } else {
        file.fileKind = m_scriptExtensions.count(extension) != 0 ? 4 : 2;
    }
    return true;
}

// ---------------------------------------------------------------------------
// Drift trust

bool ZorvQuery::ShouldTrustDrift(ProcessTypeIndex index, EngineEvent& event, bool& isFinal,
                                 const std::function<void(uint64_t, ProcessTypeIndex)>& rememberType) const {
    constexpr char16_t kFunction[] = u"ZorvQuery::ShouldTrustDrift";
    const AppControlConfig& config = AppControlConfig::Instance();

    // While the agent takes its allow-list inventory, whatever appears is part of it.
    if (event.examined == 0 && !config.InventoryExists() && config.AllowlistInventory()) {
        event.source = 1;
        isFinal = true;
        ZorvStats::Instance().CountMetric(u"TotalApprovedDriftDuringInventory");
        return true;
    }

    if (index == 0 && !event.processName.empty()) {
        ProcessDescription process = ProcessDescription::FromImagePath(event.processName, event.pid);
        process.hash = event.processSha256;
        index = GetProcessInterpreterType(process);
        if (index != kNoProcessType && rememberType) rememberType(event.pid, index);
    }
    ZORV_LOG(kLogTrace, kFunction, u"processType %lu for %s pid %lu", index, event.processName, event.pid);

    if (index == 0) {
        isFinal = false;
        return false;
    }
    if (index >= m_processTypes.size()) return false;

    const ProcessType& type = m_processTypes[index];
    if (type.paths.empty()) return false;
    ZORV_LOG(kLogTrace, kFunction, u"process has non empty paths");
    if (!type.trustedUpdate) return false;
    ZORV_LOG(kLogTrace, kFunction, u"process %s is trustedUpdate", event.processName);

    if (type.op != 0 && event.changeKind != type.op) {
        ZORV_LOG(kLogTrace, kFunction, u"process %s is item.op %lu does not much process.op %lu", event.processName,
                 event.changeKind, type.op);
        return false;
    }

    const std::u16string lowered = ToLower(event.name);
    const std::u16string* trustedPath = nullptr;
    for (const std::u16string& path : type.paths) {
        if (lowered.find(path) != std::u16string::npos) {
            trustedPath = &path;
            break;
        }
        ZORV_LOG(kLogTrace, kFunction, u"process %s is evt.path %s does not match process.path %s",
                 event.processName, lowered, path);
    }
    if (trustedPath == nullptr) return false;
    ZORV_LOG(kLogTrace, kFunction, u"process %s is trusted for path %s", event.processName, *trustedPath);

    bool interpretsExtension = false;
    for (const std::u16string& extension : type.extensions) {
        if (extension == event.extension) {
            interpretsExtension = true;
            break;
        }
    }

    // PowerShell writes its own helper scripts to temp; only the trivial
    // one-line kind is learned, and never as a final answer.
    if (type.name.starts_with(u"power")) {
        if (type.name != u"power" || !interpretsExtension) return false;
        isFinal = false;
        if (!ShouldTrustPowershell(event)) return false;
        event.source = 4;
        ZorvStats::Instance().CountMetric(type.name + u"TrustedDrift");
        return true;
    }

    event.source = 4;
    ZorvStats::Instance().CountMetric(type.name + u"TrustedDrift");
    isFinal = true;
    return true;
}

}  // namespace zorv

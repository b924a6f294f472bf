// ZorvQuery: read-only answers about process types, interpreters and file
// extensions from the engine's built-in tables. Owned by the engine.
//
// Thread-safe: the tables are immutable after construction. The one write,
// each interpreter rule's cached process-type index, always stores the same
// value for a given rule and is atomic, so concurrent first matches are benign.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "ZorvUtilWindows.h"

namespace zorv {

struct EngineEvent;

// Position of a ProcessType in the process-type table. 0 is the unnamed type
// every unmatched process gets; all ones means "no type".
using ProcessTypeIndex = uint64_t;
inline constexpr ProcessTypeIndex kNoProcessType = ~ProcessTypeIndex{0};

// One kind of process the engine knows (a shell, a browser, an installer...).
struct ProcessType {
    std::u16string name;         // key by which rules refer to the type; compared exactly
    bool isInterpreter = false;  // runs scripts
    bool isDefault = false;      // set only on "normal"
    bool trustedUpdate = false;  // its writes below `paths` may be learned as drift
    bool signatureCheck = false; // a rule match counts only for a protected system file
    uint32_t op = 0;             // drift operation code it is restricted to; 0 = any
    std::vector<std::u16string> paths;       // directory fragments it may write below
    std::vector<std::u16string> extensions;  // lower case, no dot
    std::u16string enableSetting;            // setting that ends time-stamp mode; empty = none
};

enum InterpreterRuleType : uint32_t {
    RuleNone = 0,         // never matches (the placeholder row)
    RuleHash = 1,         // SHA-256 of the image
    RulePathAndName = 2,  // directory and file name, both exactly
    RuleName = 3,         // file name exactly
    RuleNamePart = 4,     // fragment of the file name's stem
};

// Maps a running process to a ProcessType by name.
struct InterpreterRule {
    uint32_t ruleType = RuleNone;
    std::u16string path;
    std::u16string name;
    std::u16string namePart;
    std::u16string processType;
    SHA256Hash hash;
    // -1 until the rule first resolves; then the type's index, never changing again.
    mutable std::atomic<int64_t> processTypeIndex{-1};

    InterpreterRule() = default;
    InterpreterRule(uint32_t type, std::u16string rulePath, std::u16string ruleName, std::u16string part,
                    std::u16string typeName);
    InterpreterRule(const InterpreterRule& other);
    InterpreterRule& operator=(const InterpreterRule& other);
};

// The acting process as the interpreter rules see it. GetProcessInterpreterType
// lower-cases path and name in place: pass a copy you can spare.
struct ProcessDescription {
    uint64_t pid = 0;
    std::u16string path;  // the image's directory, with its trailing separator
    std::u16string name;  // the image's file name
    SHA256Hash hash;      // may be empty

    // Splits an image's full path after its last '\' or '/', which stays with the directory.
    static ProcessDescription FromImagePath(std::u16string_view imagePath, uint64_t pid = 0);
};

class ZorvQuery {
public:
    // Looks a configuration setting up as an integer; false when it is absent.
    using SettingLookup = std::function<bool(const std::u16string& name, int64_t& value)>;

    // Builds every table; only std::bad_alloc escapes.
    ZorvQuery();
    ZorvQuery(const ZorvQuery&) = delete;
    ZorvQuery& operator=(const ZorvQuery&) = delete;

    // Process-type table.
    size_t ProcessTypeCount() const { return m_processTypes.size(); }
    // A copy of the record; the caller guarantees index < ProcessTypeCount().
    ProcessType GetProcessType(ProcessTypeIndex index) const { return m_processTypes[index]; }
    const std::vector<InterpreterRule>& InterpreterRules() const { return m_interpreterRules; }
    // The rule's type index, cached in the rule; 0, uncached, when no type has its name.
    ProcessTypeIndex ResolveRule(const InterpreterRule& rule) const;

    // Interpreter queries.
    // 0 when no rule matched, kNoProcessType when the name is unusable.
    ProcessTypeIndex GetProcessInterpreterType(ProcessDescription& process) const;
    // The rule's type index, or kNoProcessType when the rule does not match.
    ProcessTypeIndex ApplyInterpreterRule(const ProcessDescription& process, const InterpreterRule& rule) const;
    bool IsInterpreter(ProcessTypeIndex index) const;
    bool IsExtensionInterpreted(ProcessTypeIndex index, const std::u16string& extension) const;
    bool IsProcessTypeInTimeStampMode(ProcessTypeIndex index) const;
    // A one-line script whose content starts with "# " or is just "1". Only a
    // regular file is read, never through a link, and no further than the
    // second line feed or 1 MiB: a first line longer than that is not trusted.
    bool ShouldTrustPowershell(const EngineEvent& event) const;

    // The configuration settings IsProcessTypeInTimeStampMode consults. Set
    // before events are handled; without one every setting reads as absent.
    void SetSettingLookup(SettingLookup lookup) { m_settingLookup = std::move(lookup); }

    // Extension and directory sets, read by the file tests below.
    const std::set<std::u16string>& ExecutableExtensions() const { return m_executableExtensions; }
    const std::set<std::u16string>& ScriptExtensions() const { return m_scriptExtensions; }
    const std::set<std::u16string>& TempDirectories() const { return m_tempDirectories; }

    // File tests on the event's fileName, extension and name (its full path, lower case).
    bool IsSharedLibrary(const EngineEvent& event) const;
    bool IsExecutableExtension(const EngineEvent& event) const;
    bool IsScriptCandidate(const EngineEvent& event) const;
    bool IsOutsideTempDirectories(const EngineEvent& event) const;

    static bool IsSharedLibrary(std::u16string_view fileName, std::u16string_view extension);
    bool IsExecutableExtension(std::u16string_view fileName, const std::u16string& extension) const;
    bool IsScriptCandidate(const std::u16string& extension, std::u16string_view fullPath) const;
    bool IsOutsideTempDirectories(std::u16string_view fullPath) const;

    // Drift trust: whether the writing process vouches for the file the event
    // changed. `index` is the writer's known type or 0; `isFinal` says whether
    // the caller may treat the answer as final. When the type has to be worked
    // out here, `rememberType` (if set) receives the pid and the type found.
    bool ShouldTrustDrift(ProcessTypeIndex index, EngineEvent& event, bool& isFinal,
                          const std::function<void(uint64_t pid, ProcessTypeIndex index)>& rememberType = {}) const;

    // File status before a decision. Kinds: 6 reparse point or link, 5
    // directory, 3 regular file (1, 2 and 4 are kept for platforms that tell
    // more file kinds apart).
    struct FileAttributes {
        platform::FileStatus status;
        bool isReparsePoint = false;
        uint32_t fileKind = 0;
    };
    // The file's status for time-stamp mode; false when it cannot be read.
    bool StatItem(std::string_view path, platform::FileStatus& status) const;
    // Stats the file and notes a reparse point; false when it cannot be stat'ed.
    bool StatAndCheckLink(std::u16string_view path, FileAttributes& file) const;
    // Fills file.fileKind from what StatAndCheckLink found. Always true.
    bool ClassifyFile(FileAttributes& file, const std::u16string& extension) const;

private:
    // The protected-system-file test behind a type's signatureCheck.
    static bool VerifyCert(const std::u16string& fullPath);

    std::set<std::u16string> m_tempDirectories;
    // Consulted like m_tempDirectories; nothing fills it as built.
    std::set<std::u16string> m_extraDirectories;
    std::set<std::u16string> m_scriptExtensions;
    std::set<std::u16string> m_executableExtensions;
    std::vector<InterpreterRule> m_interpreterRules;
    // The rules in m_interpreterRules that name the file exactly, by that name,
    // and all the others, each in table order: every process start asks, and
    // only a handful of the rules can concern any one name.
    std::unordered_map<std::u16string, std::vector<size_t>> m_rulesByName;
    std::vector<size_t> m_rulesByOther;
    std::vector<ProcessType> m_processTypes;
    SettingLookup m_settingLookup;
};

}  // namespace zorv

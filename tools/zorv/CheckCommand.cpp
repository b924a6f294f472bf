// zorv check FILE... [--process PATH] [--user NAME] [--group NAME] [--lockdown]
// "Would this run?": one process-start event per file, with its digests.
#include <iostream>
#include <mutex>
#include <optional>
#include <tuple>

#include "Commands.h"
#include "Digest.h"
#include "EventLine.h"
#include "EventRecord.h"
#include "HostFiles.h"
#include "HostText.h"
#include "StoreReader.h"

namespace zorv::cli {

namespace {

struct CheckOptions {
    std::vector<std::string> files;
    std::string process;
    std::string user;
    std::string group;
    uint64_t pid = 1;
    bool lockdown = false;
};

struct Target {
    std::string shown;  // as given, for messages
    std::filesystem::path path;
    host::FileRead read;
};

// The index of a text field in the event-line table, by name.
size_t TextIndex(std::string_view name) {
    for (size_t i = 0; i < host::kTextFieldCount; ++i)
        if (name == host::kTextFields[i].name) return i;
    return 0;
}

// What the engine's trace says about the trust rule that accepted an event:
// the matcher logs, for each rule it tries, "Found potential trust rule...",
// then a "Match found between event path [...] and rule path [...]" line for
// the process-name pattern and one for the path pattern that matched, and
// "... is found in trust rule" when it accepts. The rule's id is not in the
// C interface; these patterns, with the trust type the verdict implies, pick
// it out of the store.
class TrustRuleTrace {
public:
    void Reset() {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_tried = {};
        m_accepted.reset();
    }
    void See(const std::string& message) {
        std::lock_guard<std::mutex> lock(m_mutex);
        static constexpr std::string_view kMatch = "Match found between event path [";
        static constexpr std::string_view kRulePath = "] and rule path [";
        if (message.rfind("Found potential trust rule", 0) == 0) {
            m_tried = {};
        } else if (message.rfind(kMatch, 0) == 0) {
            const size_t middle = message.find(kRulePath);
            if (middle != std::string::npos && message.back() == ']')
                m_tried.matches.push_back(message.substr(middle + kRulePath.size(),
                                                         message.size() - middle - kRulePath.size() - 1));
        } else if (message == "No path specified for trust rule. Allow all path") {
            m_tried.allPaths = true;
        } else if (message.ends_with(" is found in trust rule")) {
            m_accepted = m_tried;
        }
    }
    // The name and path patterns of the accepted rule; false when none was.
    bool Accepted(std::optional<std::string>& name, std::optional<std::string>& path) {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (!m_accepted) return false;
        std::vector<std::string> matches = m_accepted->matches;
        path.reset();
        name.reset();
        if (!m_accepted->allPaths && !matches.empty()) {
            path = matches.back();
            matches.pop_back();
        }
        if (!matches.empty()) name = matches.back();
        return m_accepted->allPaths || path.has_value();
    }

private:
    struct Tried {
        std::vector<std::string> matches;
        bool allPaths = false;
    };
    std::mutex m_mutex;  // guards m_tried and m_accepted
    Tried m_tried;
    std::optional<Tried> m_accepted;
};

// The rule kind a trust-rule verdict came from: block by target or trusted execution.
uint32_t TrustTypeOf(const AppCtlResult& result) {
    return result.isAuthorized == AC_REASON_BLOCKED ? 4u : 2u;
}

}  // namespace

CommandRun DefineCheck(CLI::App& command, const CommonOptions& common) {
    auto options = std::make_shared<CheckOptions>();
    command.add_option("files", options->files, "Programs to judge")->required();
    command.add_option("--process", options->process, "The process that starts them (its image path)");
    command.add_option("--user", options->user, "The account that starts them");
    command.add_option("--group", options->group, "The group of that account");
    command.add_option("--pid", options->pid, "The process id in the events (default 1)");
    command.add_flag("--lockdown", options->lockdown, "Judge under lockdown: unknown programs are blocked");
    return [options, &common]() {
        // Every file is read before the store is opened: a bad argument
        // leaves the store as it was.
        std::vector<Target> targets;
        host::Digester digester;
        std::vector<uint8_t> buffer;
        for (const std::string& file : options->files) {
            Target target;
            target.shown = file;
            std::error_code status;
            target.path = std::filesystem::absolute(PathFromUtf8(file), status);
            const auto type = std::filesystem::status(target.path, status).type();
            std::string error;
            if (type == std::filesystem::file_type::not_found) {
                PrintError(file, "no such file");
                return int(kExitError);
            }
            if (type == std::filesystem::file_type::directory) {
                PrintError(file, "is a folder; check takes program files");
                return int(kExitError);
            }
            if (type != std::filesystem::file_type::regular) {
                PrintError(file, "not a regular file");
                return int(kExitError);
            }
            if (!host::ReadAndDigest(target.path, digester, buffer, target.read, error)) {
                PrintError(file, "cannot be read: " + error);
                return int(kExitError);
            }
            if (!host::PathToZ(target.path)) {
                PrintError(file, "the name is not valid UTF-8");
                return int(kExitError);
            }
            targets.push_back(std::move(target));
        }
        std::optional<host::ZString> process, user, group;
        for (auto [text, into, flag] : {std::tuple{&options->process, &process, "--process"},
                                        std::tuple{&options->user, &user, "--user"},
                                        std::tuple{&options->group, &group, "--group"}}) {
            if (text->empty()) continue;
            *into = host::Utf8ToZ(*text);
            if (!*into) {
                PrintError(flag, "not valid UTF-8");
                return int(kExitUsage);
            }
        }

        host::EngineSession engine;
        if (!OpenEngine(common, engine)) return int(kExitError);
        set_config(options->lockdown ? AC_CONFIG_LOCKDOWN : 0, ~0ull, ~0ull);
        host::StoreReader reader;
        std::string readerError;
        const bool canRead = reader.Open(common.db, readerError);
        // The trust rule that decided is told only by the engine's trace:
        // listen to it for the length of the checks, the sink keeps its mask.
        TrustRuleTrace trace;
        const uint32_t sinkMask = LogMask();
        host::SetLogObserver([&trace](uint32_t level, const std::string&, const std::string& message) {
            if (level & AC_LOG_TRACE) trace.See(message);
        });
        set_loglevel(sinkMask | AC_LOG_TRACE);
        struct QuietAgain {
            uint32_t mask;
            ~QuietAgain() {
                set_loglevel(mask);
                host::SetLogObserver(nullptr);
            }
        } quietAgain{sinkMask};

        bool anyBlocked = false;
        for (Target& target : targets) {
            host::EventRecord record;
            AppCtlEvent& numbers = record.Numbers();
            numbers.type = AC_OP_PROCESS_CREATE;
            numbers.pid = options->pid;
            numbers.size = target.read.after.size;
            numbers.isExec = 1;
            record.SetText(TextIndex("name"), *host::PathToZ(target.path));
            if (process) record.SetText(TextIndex("processName"), *process);
            if (user) record.SetText(TextIndex("user"), *user);
            if (group) record.SetText(TextIndex("group"), *group);
            record.SetDigest(0, target.read.digests.sha256);
            record.SetDigest(1, target.read.digests.sha1);
            record.SetDigest(2, target.read.digests.md5);
            const AppCtlEvent& event = record.Raw();
            AppCtlResult result{};
            trace.Reset();
            const uint32_t status = app_ctl(nullptr, &event, &result);
            const bool blocked = result.action == AC_DECISION_BLOCK;
            anyBlocked = anyBlocked || blocked;
            // The result carries no ruleset: the inventory row the lookup
            // found tells it, or, for a trust-rule verdict, the rule the
            // engine's trace points at.
            std::string ruleset;
            int64_t rowSource = 0;
            std::optional<int64_t> trustRuleId;
            bool ambiguous = false;
            bool known = false;
            if (canRead && result.source == AC_SOURCE_TRUST_RULE) {
                std::optional<std::string> namePattern, pathPattern;
                std::vector<host::StoreReader::TrustRuleRow> rows;
                if (trace.Accepted(namePattern, pathPattern) &&
                    reader.TrustRuleCandidates(TrustTypeOf(result), namePattern, pathPattern,
                                               target.read.digests.sha256, rows) &&
                    !rows.empty()) {
                    // The engine takes the first rule that passes; a later one
                    // differs only in conditions the trace does not show.
                    known = true;
                    trustRuleId = rows.front().id;
                    ruleset = rows.front().ruleset;
                    for (const auto& row : rows) ambiguous = ambiguous || row.ruleset != ruleset;
                }
            } else if (canRead) {
                known = reader.ItemRuleset(target.read.digests.sha256, target.read.after.size, ruleset, rowSource);
            }
            if (common.json) {
                std::string out = "{\"file\":";
                host::AppendJsonString(out, host::PathToUtf8(target.path));
                out += ",\"decision\":";
                host::AppendJsonString(out, host::DecisionName(result.action));
                out += ",\"reason\":";
                host::AppendJsonString(out, host::ReasonName(result.isAuthorized));
                out += ",\"source\":";
                host::AppendJsonString(out, host::SourceName(result.source));
                out += ",\"dbVerdict\":";
                host::AppendJsonString(out, host::VerdictName(result.dbVerdict));
                out += ",\"ruleset\":";
                if (known)
                    host::AppendJsonString(out, ruleset);
                else
                    out += "null";
                out += ",\"trustRuleId\":" + (trustRuleId ? std::to_string(*trustRuleId) : std::string("null"));
                if (ambiguous) out += ",\"rulesetAmbiguous\":true";
                out += ",\"status\":" + std::to_string(status) + ",\"sha256\":\"" +
                       host::ToHex(target.read.digests.sha256, 32) + "\",\"event\":" + host::FormatEventLine(event) +
                       "}";
                std::cout << out << "\n";
            } else if (Speak(common)) {
                std::cout << (blocked ? "BLOCK " : result.action == AC_DECISION_ALLOW ? "ALLOW " : "OTHER ")
                          << host::Printable(host::PathToUtf8(target.path)) << "\n    decision "
                          << host::DecisionName(result.action) << ", reason " << host::ReasonName(result.isAuthorized) << ", source "
                          << host::SourceName(result.source) << ", inventory " << host::VerdictName(result.dbVerdict)
                          << ", ruleset " << (known ? (ruleset.empty() ? "(none)" : host::Printable(ruleset)) : "-")
                          << (trustRuleId ? ", trust rule " + std::to_string(*trustRuleId) : std::string())
                          << (ambiguous ? " (or a later rule of another ruleset)" : "")
                          << "\n    sha256 " << host::ToHex(target.read.digests.sha256, 32) << "\n";
                // app_ctl lets a block through while the store has no agent
                // manifest for this engine version; say so rather than hide it.
                if (blocked && status == AC_OK)
                    std::cout << "    (not enforced yet: the engine waits for this version's agent manifest)\n";
            }
        }
        return int(anyBlocked ? kExitVerdict : kExitOk);
    };
}

}  // namespace zorv::cli

// zorv check FILE... [--process PATH] [--user NAME] [--group NAME] [--lockdown]
// "Would this run?": one process-start event per file, with its digests.
#include <iostream>
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
            const uint32_t status = app_ctl(nullptr, &event, &result);
            const bool blocked = result.action == AC_DECISION_BLOCK;
            anyBlocked = anyBlocked || blocked;
            // The result carries no ruleset: the row the lookup found tells it.
            std::string ruleset;
            int64_t rowSource = 0;
            const bool known =
                canRead && reader.ItemRuleset(target.read.digests.sha256, target.read.after.size, ruleset, rowSource);
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
                out += ",\"status\":" + std::to_string(status) + ",\"sha256\":\"" +
                       host::ToHex(target.read.digests.sha256, 32) + "\",\"event\":" + host::FormatEventLine(event) +
                       "}";
                std::cout << out << "\n";
            } else if (Speak(common)) {
                std::cout << (blocked ? "BLOCK " : result.action == AC_DECISION_ALLOW ? "ALLOW " : "OTHER ")
                          << host::PathToUtf8(target.path) << "\n    decision " << host::DecisionName(result.action)
                          << ", reason " << host::ReasonName(result.isAuthorized) << ", source "
                          << host::SourceName(result.source) << ", inventory " << host::VerdictName(result.dbVerdict)
                          << ", ruleset " << (known ? (ruleset.empty() ? "(none)" : ruleset) : "-")
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

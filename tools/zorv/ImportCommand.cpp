// zorv import FILE|- --name NAME [--append]
#include <cjson/cJSON.h>

#include <fstream>
#include <iostream>
#include <iterator>
#include <sstream>

#include "Commands.h"
#include "EventLine.h"
#include "HostText.h"

namespace zorv::cli {

namespace {

struct ImportOptions {
    std::string file;
    std::string name;
    bool append = false;
};

bool ReadAll(const std::string& file, std::string& text, std::string& error) {
    if (file == "-") {
        text.assign(std::istreambuf_iterator<char>(std::cin), std::istreambuf_iterator<char>());
        return true;
    }
    const std::filesystem::path path = PathFromUtf8(file);
    std::error_code status;
    if (std::filesystem::is_directory(path, status)) {
        error = "is a folder, not a ruleset";
        return false;
    }
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        error = std::filesystem::exists(path, status) ? "cannot be read" : "no such file";
        return false;
    }
    text.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    return true;
}

// One "label before -> after" line per count the two documents share.
void PrintCounts(const std::string& beforeJson, const std::string& afterJson) {
    cJSON* before = cJSON_Parse(beforeJson.c_str());
    cJSON* after = cJSON_Parse(afterJson.c_str());
    std::cout << "Store counts        before      after\n";
    for (const cJSON* item = after ? after->child : nullptr; item != nullptr; item = item->next) {
        if (!cJSON_IsNumber(item)) continue;
        const cJSON* old = cJSON_GetObjectItemCaseSensitive(before, item->string);
        char line[160];
        std::snprintf(line, sizeof line, "  %-24s %10.0f %10.0f\n", item->string,
                      cJSON_IsNumber(old) ? old->valuedouble : 0.0, item->valuedouble);
        std::cout << line;
    }
    cJSON_Delete(before);
    cJSON_Delete(after);
}

}  // namespace

CommandRun DefineImport(CLI::App& command, const CommonOptions& common) {
    auto options = std::make_shared<ImportOptions>();
    command.add_option("file", options->file, "The ruleset document, or - for standard input")->required();
    command.add_option("--name", options->name,
                       "The ruleset's name; it decides the kind (\"agent\": agent manifest, \"trustrules\": trust "
                       "rules, else item rules)")
        ->required();
    command.add_flag("--append", options->append, "Add to the rules of that kind instead of replacing them");
    return [options, &common]() {
        // The document is read and parsed before the store is opened, so a
        // bad ruleset leaves the store as it was.
        std::string text, error;
        if (!ReadAll(options->file, text, error)) {
            PrintError(options->file, error);
            return int(kExitError);
        }
        cJSON* parsed = cJSON_ParseWithLength(text.data(), text.size());
        const bool isObject = cJSON_IsObject(parsed);
        cJSON_Delete(parsed);
        if (!isObject) {
            PrintError(options->file, parsed ? "not a JSON object" : "not valid JSON");
            return int(kExitError);
        }
        const std::optional<host::ZString> name = host::Utf8ToZ(options->name);
        if (!name) {
            PrintError("--name", "not valid UTF-8");
            return int(kExitUsage);
        }
        std::optional<host::ZString> buffer;
        if (options->file == "-" && !(buffer = host::Utf8ToZ(text))) {
            PrintError(options->file, "not valid UTF-8");
            return int(kExitError);
        }
        host::EngineSession engine;
        if (!OpenEngine(common, engine)) return int(kExitError);
        std::string before, after;
        StoreCounts(before);
        uint32_t status;
        if (options->file == "-") {
            status = set_ruleset_buffer(options->append ? 1 : 0, buffer->c_str(), name->c_str());
        } else {
            const std::optional<host::ZString> path = host::PathToZ(PathFromUtf8(options->file));
            status = set_ruleset(options->append ? 1 : 0, path->c_str(), name->c_str());
        }
        StoreCounts(after);
        if (status != AC_OK) {
            PrintError(options->file, std::string("the import failed (") + host::StatusName(status) +
                                          "); the store keeps its rules, see --log for the reason");
            return int(kExitError);
        }
        if (common.json) {
            std::cout << "{\"name\":";
            std::string quoted;
            host::AppendJsonString(quoted, options->name);
            std::cout << quoted << ",\"append\":" << (options->append ? "true" : "false")
                      << ",\"before\":" << (before.empty() ? "null" : before)
                      << ",\"after\":" << (after.empty() ? "null" : after) << "}\n";
        } else if (Speak(common)) {
            std::cout << "Imported " << options->file << " as \"" << options->name << "\""
                      << (options->append ? " (appended)" : "") << "\n";
            PrintCounts(before, after);
        }
        return int(kExitOk);
    };
}

}  // namespace zorv::cli

// zorv db check | zorv db info: the store file read with SQLite itself,
// read-only, so both may run beside an engine that has the store open.
#include <iostream>

#include "Commands.h"
#include "EventLine.h"
#include "StoreReader.h"

namespace zorv::cli {

namespace {

int RunCheck(const CommonOptions& common) {
    host::StoreReader reader;
    std::string error;
    std::vector<std::string> problems;
    bool opened = reader.Open(common.db, error);
    if (!opened && !std::filesystem::exists(PathFromUtf8(common.db))) {
        PrintError(common.db, "no such store");
        return kExitError;
    }
    const bool checked = opened && reader.IntegrityCheck(problems, error);
    if (!checked) problems.push_back(error);  // a file SQLite cannot read as a database is damaged
    if (common.json) {
        std::string out = "{\"store\":";
        host::AppendJsonString(out, common.db);
        out += problems.empty() ? ",\"ok\":true,\"problems\":[" : ",\"ok\":false,\"problems\":[";
        for (size_t i = 0; i < problems.size(); ++i) {
            if (i) out += ",";
            host::AppendJsonString(out, problems[i]);
        }
        std::cout << out << "]}\n";
    } else if (problems.empty()) {
        if (Speak(common)) std::cout << common.db << ": ok\n";
    } else {
        for (const std::string& problem : problems) PrintError(common.db, "damaged: " + problem);
    }
    return problems.empty() ? kExitOk : kExitVerdict;
}

const char* SourceLabel(int64_t source) {
    return source >= 1 && source <= 5 ? host::SourceName(static_cast<uint32_t>(source)) : "other";
}

int RunInfo(const CommonOptions& common) {
    host::StoreReader reader;
    std::string error;
    host::StoreInfo info;
    if (!reader.Open(common.db, error) || !reader.Info(info, error)) {
        PrintError(common.db, error);
        return kExitError;
    }
    uint64_t items = 0;
    for (const auto& [source, count] : info.itemsBySource) items += count;
    if (common.json) {
        std::string out = "{\"store\":";
        host::AppendJsonString(out, common.db);
        out += ",\"schemaVersion\":" + std::to_string(info.schemaVersion) +
               ",\"fileBytes\":" + std::to_string(info.fileBytes) + ",\"walBytes\":" + std::to_string(info.walBytes) +
               ",\"pageSize\":" + std::to_string(info.pageSize) + ",\"pageCount\":" + std::to_string(info.pageCount) +
               ",\"freePages\":" + std::to_string(info.freePages) + ",\"items\":" + std::to_string(items) +
               ",\"itemsBySource\":{";
        bool first = true;
        for (const auto& [source, count] : info.itemsBySource) {
            out += (first ? "\"" : ",\"") + std::to_string(source) + "\":" + std::to_string(count);
            first = false;
        }
        out += "},\"trustRules\":" + std::to_string(info.trustRules) +
               ",\"userListEntries\":" + std::to_string(info.userListEntries) + "}";
        std::cout << out << "\n";
        return kExitOk;
    }
    std::printf("Store            %s\n", common.db.c_str());
    std::printf("Schema version   %d\n", info.schemaVersion);
    std::printf("File             %llu bytes (%llu pages of %llu, %llu free)\n",
                static_cast<unsigned long long>(info.fileBytes), static_cast<unsigned long long>(info.pageCount),
                static_cast<unsigned long long>(info.pageSize), static_cast<unsigned long long>(info.freePages));
    std::printf("Write-ahead log  %llu bytes\n", static_cast<unsigned long long>(info.walBytes));
    std::printf("Inventory items  %llu\n", static_cast<unsigned long long>(items));
    for (const auto& [source, count] : info.itemsBySource)
        std::printf("  source %lld %-16s %llu\n", static_cast<long long>(source), SourceLabel(source),
                    static_cast<unsigned long long>(count));
    std::printf("Trust rules      %llu\n", static_cast<unsigned long long>(info.trustRules));
    std::printf("User-list rows   %llu\n", static_cast<unsigned long long>(info.userListEntries));
    return kExitOk;
}

}  // namespace

CommandRun DefineDb(CLI::App& command, const CommonOptions& common) {
    command.require_subcommand(1, 1);
    CLI::App* check = command.add_subcommand("check", "integrity_check of the store, read-only; 1 when damaged");
    CLI::App* info = command.add_subcommand("info", "Schema version, sizes and row counts by source");
    check->fallthrough();
    info->fallthrough();
    return [check, &common]() { return check->parsed() ? RunCheck(common) : RunInfo(common); };
}

}  // namespace zorv::cli

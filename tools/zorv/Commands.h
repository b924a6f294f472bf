// The command table: each command defines its options on its own CLI11
// subcommand and hands back the function that runs it. One file per command.
#pragma once

#include <functional>

#include <CLI/CLI.hpp>

#include "Common.h"

namespace zorv::cli {

using CommandRun = std::function<int()>;
using CommandDefine = CommandRun (*)(CLI::App& command, const CommonOptions& common);

struct CommandEntry {
    const char* name;
    const char* summary;
    CommandDefine define;
};

CommandRun DefineScan(CLI::App& command, const CommonOptions& common);
CommandRun DefineCheck(CLI::App& command, const CommonOptions& common);
CommandRun DefineImport(CLI::App& command, const CommonOptions& common);
CommandRun DefineExport(CLI::App& command, const CommonOptions& common);
CommandRun DefineMetrics(CLI::App& command, const CommonOptions& common);
CommandRun DefineReplay(CLI::App& command, const CommonOptions& common);
CommandRun DefineDb(CLI::App& command, const CommonOptions& common);
CommandRun DefineStatus(CLI::App& command, const CommonOptions& common);
CommandRun DefineMode(CLI::App& command, const CommonOptions& common);
CommandRun DefineMaintenance(CLI::App& command, const CommonOptions& common);
CommandRun DefinePs(CLI::App& command, const CommonOptions& common);

// The daemon paths of import and metrics (--socket).
int ImportViaDaemon(const CommonOptions& common, const std::string& name, bool append, const std::string& text);
bool MetricsViaDaemon(const CommonOptions& common, std::string& json, std::string& daemon);

inline const CommandEntry kCommands[] = {
    {"scan", "Build the scanned inventory from folder trees", &DefineScan},
    {"check", "Would these programs run? Decision, reason, source and ruleset", &DefineCheck},
    {"import", "Load a ruleset (JSON) into the store", &DefineImport},
    {"export", "Write the inventory or the trust rules as JSON lines or CSV", &DefineExport},
    {"metrics", "The engine's metrics as tables, JSON or Prometheus text", &DefineMetrics},
    {"replay", "Decide a recorded stream of events; compare a candidate ruleset", &DefineReplay},
    {"db", "The store's health (check) and its sizes and counts (info)", &DefineDb},
    {"status", "A running daemon's mode, events, answers and latency (--socket)", &DefineStatus},
    {"mode", "Switch a running daemon to enforce or log-only (--socket)", &DefineMode},
    {"maintenance", "Maintenance mode on a running daemon: --for DURATION or --off (--socket)", &DefineMaintenance},
    {"ps", "Running programs the current rules would no longer allow (--socket)", &DefinePs},
};

}  // namespace zorv::cli

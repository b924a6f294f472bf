// What every zorv command shares: the common options, the exit statuses,
// error lines, and opening the engine on the store the options name.
#pragma once

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <string>

#include "HostEngine.h"

namespace zorv::cli {

// The documented exit statuses (zorv --help).
enum ExitStatus : int {
    kExitOk = 0,
    kExitVerdict = 1,  // a blocked verdict (check), a damaged store (db check)
    kExitUsage = 2,
    kExitError = 3,    // the engine or an input failed
};

struct CommonOptions {
    std::string db = "ac.db";
    std::string socket;    // a running zorvd's control socket; empty: open the store directly
    std::string log;       // file, "-" for standard error, empty for none
    std::string logLevel;  // empty: "info" when a log is asked for
    bool json = false;
    bool quiet = false;
};

// "zorv: INPUT: REASON" on standard error.
void PrintError(const std::string& input, const std::string& reason);

// Starts the engine on the store. The store's folder must exist; a failure
// is reported (store path and reason) and gives false.
bool OpenEngine(const CommonOptions& common, host::EngineSession& engine);

// Points the engine's log where the options say; false (reported) when the
// log file cannot be opened or the level is not known.
bool OpenLog(const CommonOptions& common, uint32_t& levelMask);

// The levels OpenLog gave the engine (0: no log asked for).
uint32_t LogMask();

// Output for people goes to standard output unless --quiet.
bool Speak(const CommonOptions& common);

std::filesystem::path PathFromUtf8(const std::string& text);

// A scratch file name in the system's temporary folder, unique to this run.
std::filesystem::path ScratchPath(const std::string& stem);

// The store's counts (the metrics document's "dbinfo"), as JSON text.
bool StoreCounts(std::string& dbinfoJson);

}  // namespace zorv::cli

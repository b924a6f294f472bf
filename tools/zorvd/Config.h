// zorvd's settings, read from a TOML file. Every key is optional; the
// defaults below are the documented ones.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace zorvd {

enum class Answer { Allow, Deny };

struct Config {
    bool enforce = false;                          // mode = "enforce" | "log-only"
    std::string store = "/var/lib/zorv/ac.db";
    std::string socket = "/run/zorv/zorvd.sock";
    std::vector<std::string> watch;                // empty: every local, non-pseudo filesystem
    std::vector<std::string> ignore;
    bool scripts = true;                           // control = ["exec", "scripts", "libraries"]
    bool libraries = true;
    uint32_t deadlineMs = 1000;
    Answer onDeadline = Answer::Allow;
    bool onErrorSet = false;                       // unset: allow in log-only, deny in enforce
    Answer onError = Answer::Allow;
    uint32_t workers = 4;
    uint32_t digestCacheEntries = 65536;
    uint32_t queueEntries = 4096;
    std::string log = "journal";                   // "journal", "stderr" or a file path
    std::string logLevel = "info";                 // the engine's: "error", "warning", "info", "trace"
    std::string trustRules = "/etc/zorv/trust-rules.json";

    Answer ErrorAnswer() const { return onErrorSet ? onError : (enforce ? Answer::Deny : Answer::Allow); }
};

// Reads `path` into `out`. A missing file gives the defaults only when
// `missingIsDefault`; any other problem is described in `error`.
bool LoadConfig(const std::string& path, bool missingIsDefault, Config& out, std::string& error);

}  // namespace zorvd

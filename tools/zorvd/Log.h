// The daemon's log: the journal, a file or standard error. The engine's lines
// arrive through its log callback on any thread. Lines are queued for a
// thread of their own, so a log that stalls never holds up an answer.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include "zorv/zorv.h"

namespace zorvd {

enum class Level { Error, Warning, Info, Debug };

bool OpenLog(const std::string& target, std::string& error);
// Waits, at most `limit`, for the queued lines to be written; false when the
// sink did not take them in time (they are then given up at exit).
bool FlushLog(std::chrono::milliseconds limit);
// Lines dropped because the queue was full, since the start.
uint64_t LogLinesDropped();
void Log(Level level, const char* format, ...) __attribute__((format(printf, 2, 3)));
void EngineLogLine(uint32_t level, uint32_t line, const ZorvChar* function, const ZorvChar* sourcePath,
                   const ZorvChar* message, uint32_t length);
uint32_t EngineLogMask(const std::string& level);

// Set when the engine reports that it waits for a manifest (a fresh or
// upgraded store under lockdown).
bool TakeManifestWanted();

// Lenient, unlike the host library's strict conversion: a path that is not
// UTF-8 is still judged (by its digests), its bad bytes shown as U+FFFD.
std::u16string Widen(const std::string& text);

}  // namespace zorvd

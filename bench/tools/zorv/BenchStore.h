// A store of a million inventory rows and a recorded stream of a million
// events over it, made once through the exports and kept for later runs.
#pragma once

#include <cstdio>
#include <fstream>
#include <string>

#include "CliBench.h"
#include "HostText.h"
#include "zorv/zorv.h"

namespace zorv::bench {

inline size_t InventoryRows() { return static_cast<size_t>(1000000 * Scale()); }
inline size_t StartEvents() { return InventoryRows() / 5; }  // each followed by four cache checks

// Digest bytes of row `index`, distinct for every row.
inline void RowSha256(uint64_t index, uint8_t out[32]) {
    uint64_t x = index + 0x9E3779B97F4A7C15ull;
    for (int i = 0; i < 4; ++i) {
        x ^= x >> 30, x *= 0xBF58476D1CE4E5B9ull, x ^= x >> 27, x *= 0x94D049BB133111EBull, x ^= x >> 31;
        for (int b = 0; b < 8; ++b) out[i * 8 + b] = static_cast<uint8_t>(x >> (8 * b));
    }
}
inline std::string RowName(uint64_t index) { return "/opt/app/bin/tool-" + std::to_string(index); }
inline uint64_t RowSize(uint64_t index) { return 1000 + index; }
// The rows the process starts run: spread over the whole inventory.
inline uint64_t StartRow(uint64_t start) { return start * 5 + 3; }
inline uint64_t StartPid(uint64_t start) { return 100 + start % 997; }

inline std::filesystem::path BenchStorePath() { return BenchDir("inventory") / "ac.db"; }
inline std::filesystem::path BenchEventsPath() { return BenchDir("inventory") / "events.jsonl"; }

// Imports a generated item ruleset of InventoryRows() rows into a fresh store.
inline bool MakeBenchStore() {
    const std::filesystem::path marker = BenchDir("inventory") / ".complete";
    if (std::filesystem::exists(marker)) return true;
    const std::filesystem::path ruleset = BenchDir("inventory") / "ruleset.json";
    {
        std::ofstream out(ruleset, std::ios::binary);
        out << "{\"rules\":[";
        uint8_t digest[32];
        for (uint64_t i = 0; i < InventoryRows(); ++i) {
            RowSha256(i, digest);
            out << (i ? "," : "") << "{\"fileName\":\"tool-" << i << "\",\"sha256\":\"" << host::ToHex(digest, 32)
                << "\",\"size\":" << RowSize(i) << ",\"action\":\"allow\"}\n";
        }
        out << "]}\n";
    }
    {
        std::ofstream out(BenchEventsPath(), std::ios::binary);
        uint8_t digest[32];
        for (uint64_t s = 0; s < StartEvents(); ++s) {
            const uint64_t row = StartRow(s);
            RowSha256(row, digest);
            const std::string common = ",\"pid\":" + std::to_string(StartPid(s)) +
                                       ",\"processName\":\"/usr/bin/bash\",\"name\":\"" + RowName(row) +
                                       "\",\"user\":\"alice\",\"isExec\":true,\"size\":" +
                                       std::to_string(RowSize(row)) + ",\"sha256\":\"" + host::ToHex(digest, 32) +
                                       "\"}\n";
            out << "{\"type\":23" << common;
            for (int c = 0; c < 4; ++c) out << "{\"type\":0" << common;
        }
    }
    for (const char* suffix : {"", "-wal", "-shm"}) std::filesystem::remove(BenchStorePath().string() + suffix);
    const ChildRun run = RunZorv({"import", ruleset.string(), "--name", "bench-items", "--quiet", "--db",
                                  BenchStorePath().string()});
    std::filesystem::remove(ruleset);
    if (run.status != 0) return false;
    std::ofstream(marker) << "done\n";
    return true;
}

}  // namespace zorv::bench

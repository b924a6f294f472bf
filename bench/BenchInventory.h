// The million-item inventory the lookup and app_ctl benchmarks share, and the
// trust rules they add to it.
//
// Building a million rows with random digests takes a minute on a small
// machine, so the finished file is kept under the temporary folder, named by
// kInventoryVersion, and reused by every later run. Change the version
// whenever the rows or the schema change. Each program works on its own copy,
// since the engine writes to the store it opens.
#pragma once

#include <sqlite3.h>

#include <array>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <random>
#include <string>
#include <sys/resource.h>

#include "ZorvDataAccessLayer.h"
#include "ZorvText.h"

namespace zorv::bench {

constexpr char kInventoryVersion[] = "inventory-v2-schema16";
constexpr int64_t kInventoryRows = 1000000;

// A stateless mixer, so that every row's "random" values can be computed again
// from its id when a benchmark needs a probe.
inline uint64_t Mix(uint64_t x) {
    x += 0x9e3779b97f4a7c15ull;
    x = (x ^ (x >> 30)) * 0xbf58476d1ce4e5b9ull;
    x = (x ^ (x >> 27)) * 0x94d049bb133111ebull;
    return x ^ (x >> 31);
}

// Row `id`'s SHA-256. Ids above kInventoryRows give digests no row has.
inline std::array<uint8_t, 32> RowSha256(int64_t id) {
    std::array<uint8_t, 32> digest{};
    for (size_t word = 0; word < 4; ++word) {
        const uint64_t value = Mix(static_cast<uint64_t>(id) * 4 + word);
        for (size_t b = 0; b < 8; ++b) digest[word * 8 + b] = static_cast<uint8_t>(value >> (8 * b));
    }
    return digest;
}

inline std::array<uint8_t, 20> RowSha1(int64_t id) {
    std::array<uint8_t, 20> digest{};
    for (size_t b = 0; b < digest.size(); ++b) digest[b] = static_cast<uint8_t>(Mix(~static_cast<uint64_t>(id) + b));
    return digest;
}

inline int64_t RowSize(int64_t id) { return 512 + static_cast<int64_t>(Mix(static_cast<uint64_t>(id) ^ 0x5151) % 50000000); }

// Sources mixed as a managed machine holds them: four in ten rows come from
// execution rulesets (one in a hundred of those blocked), one in ten from agent
// rules, the rest from the scan.
inline int RowSource(int64_t id) {
    const int64_t tenth = id % 10;
    return tenth < 4 ? 2 : tenth == 4 ? 1 : 3;
}
inline bool RowAuthorized(int64_t id) { return !(RowSource(id) == 2 && id % 100 == 3); }

// A row id of the wanted source that its ruleset allows, spread over the table.
inline int64_t PickRow(std::mt19937_64& random, int source) {
    for (;;) {
        const int64_t id = 1 + static_cast<int64_t>(random() % kInventoryRows);
        if (RowSource(id) == source && RowAuthorized(id)) return id;
    }
}

inline bool ExecSql(sqlite3* db, const char* sql) {
    char* error = nullptr;
    const int rc = sqlite3_exec(db, sql, nullptr, nullptr, &error);
    if (rc != SQLITE_OK) std::fprintf(stderr, "%s: %s\n", sql, error != nullptr ? error : "?");
    sqlite3_free(error);
    return rc == SQLITE_OK;
}

// Fills `file`, whose schema the engine has just created, with the million rows.
inline bool FillInventory(const std::filesystem::path& file) {
    sqlite3* db = nullptr;
    if (sqlite3_open_v2(file.string().c_str(), &db, SQLITE_OPEN_READWRITE, nullptr) != SQLITE_OK) return false;
    // A large cache for the build only: random digests touch every index page.
    bool ok = ExecSql(db, "PRAGMA cache_size = -400000;") && ExecSql(db, "BEGIN;");
    sqlite3_stmt* insert = nullptr;
    ok = ok && sqlite3_prepare_v2(db,
                                  "INSERT INTO InventoryItems(fileName, path, nativePath, sha1, sha256, size, "
                                  "recordTime, isAuthorized, source, ruleset) VALUES(?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, "
                                  "?9, ?10);",
                                  -1, &insert, nullptr) == SQLITE_OK;
    char fileName[64];
    char path[96];
    char nativePath[160];
    for (int64_t id = 1; ok && id <= kInventoryRows; ++id) {
        const uint64_t name = Mix(static_cast<uint64_t>(id) ^ 0xf11e);
        std::snprintf(fileName, sizeof fileName, "%08llx.%s", static_cast<unsigned long long>(name >> 32),
                      name % 3 == 0 ? "dll" : "exe");
        std::snprintf(path, sizeof path, "c:\\program files\\vendor%03d\\product%02d\\", static_cast<int>(name % 500),
                      static_cast<int>((name >> 12) % 40));
        std::snprintf(nativePath, sizeof nativePath, "%s%s", path, fileName);
        const auto sha1 = RowSha1(id);
        const auto sha256 = RowSha256(id);
        const int source = RowSource(id);
        sqlite3_bind_text(insert, 1, fileName, -1, SQLITE_TRANSIENT);
        sqlite3_bind_text(insert, 2, path, -1, SQLITE_TRANSIENT);
        sqlite3_bind_text(insert, 3, nativePath, -1, SQLITE_TRANSIENT);
        // Ruleset rows carry no SHA-1: the store counts any that do as SHA-1
        // rules, and the cases with SHA-1 rules add their own.
        if (source != 2) sqlite3_bind_blob(insert, 4, sha1.data(), static_cast<int>(sha1.size()), SQLITE_TRANSIENT);
        else sqlite3_bind_null(insert, 4);
        sqlite3_bind_blob(insert, 5, sha256.data(), static_cast<int>(sha256.size()), SQLITE_TRANSIENT);
        sqlite3_bind_int64(insert, 6, RowSize(id));
        sqlite3_bind_int64(insert, 7, 133000000000000000 + id);
        sqlite3_bind_int(insert, 8, RowAuthorized(id) ? 1 : 0);
        sqlite3_bind_int(insert, 9, source);
        sqlite3_bind_text(insert, 10, source == 2 ? "ruleset_bench" : "", -1, SQLITE_STATIC);
        ok = sqlite3_step(insert) == SQLITE_DONE;
        sqlite3_reset(insert);
    }
    sqlite3_finalize(insert);
    ok = ok && ExecSql(db, "COMMIT;") && ExecSql(db, "PRAGMA wal_checkpoint(TRUNCATE);");
    sqlite3_close_v2(db);
    return ok;
}

// The finished inventory, built on first use; empty when it cannot be built.
inline std::filesystem::path InventoryTemplate() {
    namespace fs = std::filesystem;
    const fs::path dir = fs::temp_directory_path() / (std::string("zorv-bench-") + kInventoryVersion);
    const fs::path file = dir / "inventory.db";
    const fs::path done = dir / "complete";
    if (fs::exists(done)) return file;

    std::error_code ignored;
    fs::remove_all(dir, ignored);
    fs::create_directories(dir);
    std::fprintf(stderr, "building the %lld-row inventory in %s (once)\n", static_cast<long long>(kInventoryRows),
                 dir.string().c_str());
    {
        ZorvDAL dal;
        if (!dal.SetDBPath(Utf8ToUtf16(file.string())) || !dal.InitDB()) return {};
        dal.Shutdown();
    }
    if (!FillInventory(file)) return {};
    std::FILE* mark = std::fopen(done.string().c_str(), "w");
    if (mark == nullptr) return {};
    std::fclose(mark);
    return file;
}

// A private copy of the inventory at `copy`; false when there is none.
inline bool CopyInventory(const std::filesystem::path& copy) {
    namespace fs = std::filesystem;
    const fs::path source = InventoryTemplate();
    if (source.empty()) return false;
    std::error_code error;
    fs::create_directories(copy.parent_path(), error);
    for (const char* suffix : {"", "-wal", "-shm"}) fs::remove(copy.string() + suffix, error);
    return fs::copy_file(source, copy, error);
}

// Rule i of the thousand: a trusted-execution rule (type 2) for one updater,
// whose paths are wildcard patterns. The rule `matchingRule` alone names the
// process in kTrustedProcess, so a match scans the rules before it.
constexpr int kTrustRules = 1000;
constexpr char16_t kTrustedProcess[] = u"c:\\program files\\updater\\agent0999.exe";

inline bool AddTrustRules(const std::filesystem::path& file) {
    sqlite3* db = nullptr;
    if (sqlite3_open_v2(file.string().c_str(), &db, SQLITE_OPEN_READWRITE, nullptr) != SQLITE_OK) return false;
    sqlite3_stmt* insert = nullptr;
    bool ok = ExecSql(db, "BEGIN;") &&
              sqlite3_prepare_v2(db,
                                 "INSERT INTO TrustRules(processName, paths, trustType, ruleset) VALUES(?1, ?2, 2, "
                                 "'trustrules_bench');",
                                 -1, &insert, nullptr) == SQLITE_OK;
    char process[96];
    char paths[256];
    for (int i = 0; ok && i < kTrustRules; ++i) {
        // Wildcard process names, so that SQL cannot filter them: every rule
        // reaches the path test in code.
        std::snprintf(process, sizeof process, "c:\\program files\\updater\\agent%04d*.exe", i);
        std::snprintf(paths, sizeof paths,
                      "c:\\program files\\vendor%03d\\**;d:\\apps\\v%d\\*\\bin\\*.exe;c:\\program files\\?endor%03d\\*",
                      i % 500, i, (i + 7) % 500);
        sqlite3_bind_text(insert, 1, process, -1, SQLITE_TRANSIENT);
        sqlite3_bind_text(insert, 2, paths, -1, SQLITE_TRANSIENT);
        ok = sqlite3_step(insert) == SQLITE_DONE;
        sqlite3_reset(insert);
    }
    sqlite3_finalize(insert);
    ok = ok && ExecSql(db, "COMMIT;");
    sqlite3_close_v2(db);
    return ok;
}

// CPU seconds this process has used so far, all threads.
inline double ProcessCpuSeconds() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

}  // namespace zorv::bench

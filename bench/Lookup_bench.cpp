// The inventory lookup's price per event on a store of 1,000,000 items,
// beside one bare prepared SELECT of the same row on a connection of its own:
// the floor that the lock, the statement sharing and the verdict are judged
// against. Half the rows are ruleset rows (found by the first query), half are
// scanned items (found only by the second query, after the ruleset query missed).
#include <benchmark/benchmark.h>
#include <sqlite3.h>

#include <array>
#include <cstdint>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include "Zorv.h"
#include "ZorvDataAccessLayer.h"
#include "ZorvText.h"

namespace {

using zorv::EngineEvent;
using zorv::ZorvDAL;

constexpr int64_t kRows = 1000000;
constexpr int64_t kFileSize = 4096;
// Events prepared up front and cycled through: few enough that their pages stay
// in the 20 MB page cache, so the figures compare the work per lookup rather
// than the disk.
constexpr size_t kProbes = 1024;

// Row i's SHA-256: i in the first eight bytes, a fixed pattern after.
std::array<uint8_t, 32> DigestOf(int64_t i) {
    std::array<uint8_t, 32> digest{};
    for (size_t b = 0; b < 8; ++b) digest[b] = static_cast<uint8_t>(static_cast<uint64_t>(i) >> (8 * b));
    for (size_t b = 8; b < digest.size(); ++b) digest[b] = static_cast<uint8_t>(b * 37);
    return digest;
}

bool Exec(sqlite3* db, const char* sql) { return sqlite3_exec(db, sql, nullptr, nullptr, nullptr) == SQLITE_OK; }

// Builds the store once per process: the engine creates the schema, then one
// transaction on a plain connection fills it (row-by-row engine inserts would
// take minutes and are measured elsewhere).
struct Store {
    std::filesystem::path dir;
    std::filesystem::path file;
    bool ready = false;

    Store() {
        dir = std::filesystem::temp_directory_path() / ("zorv-lookup-bench-" + std::to_string(std::random_device{}()));
        std::filesystem::create_directories(dir);
        file = dir / "ac.db";
        ZorvDAL& dal = ZorvDAL::Instance();
        if (!dal.SetDBPath(zorv::Utf8ToUtf16(file.string())) || !dal.InitDB()) return;
        dal.Shutdown();

        sqlite3* db = nullptr;
        if (sqlite3_open_v2(file.string().c_str(), &db, SQLITE_OPEN_READWRITE, nullptr) != SQLITE_OK) return;
        sqlite3_stmt* insert = nullptr;
        bool ok = Exec(db, "BEGIN;") &&
                  sqlite3_prepare_v2(db,
                                     "INSERT INTO InventoryItems(fileName, path, sha256, size, isAuthorized, source, "
                                     "ruleset) VALUES('module.dll', 'c:\\program files\\vendor\\', ?1, ?2, 1, ?3, ?4);",
                                     -1, &insert, nullptr) == SQLITE_OK;
        for (int64_t i = 1; ok && i <= kRows; ++i) {
            const auto digest = DigestOf(i);
            const bool ruleset = i % 2 == 1;
            sqlite3_bind_blob(insert, 1, digest.data(), static_cast<int>(digest.size()), SQLITE_TRANSIENT);
            sqlite3_bind_int64(insert, 2, kFileSize);
            sqlite3_bind_int(insert, 3, ruleset ? 2 : 3);
            sqlite3_bind_text(insert, 4, ruleset ? "bench-rules" : "", -1, SQLITE_STATIC);
            ok = sqlite3_step(insert) == SQLITE_DONE;
            sqlite3_reset(insert);
        }
        sqlite3_finalize(insert);
        ok = ok && Exec(db, "COMMIT;");
        sqlite3_close_v2(db);
        ready = ok && dal.InitDB();
    }
    ~Store() {
        ZorvDAL::Instance().Shutdown();
        std::error_code ignored;
        std::filesystem::remove_all(dir, ignored);
    }
};

Store& SharedStore() {
    static Store store;
    return store;
}

// Row ids spread over the whole table, odd (ruleset) or even (scanned).
std::vector<int64_t> ProbeIds(bool rulesetRows) {
    std::mt19937_64 random(42);
    std::uniform_int_distribution<int64_t> pick(0, kRows / 2 - 1);
    std::vector<int64_t> ids(kProbes);
    for (auto& id : ids) id = 2 * pick(random) + (rulesetRows ? 1 : 2);
    return ids;
}

void LookupThroughEngine(benchmark::State& state, bool rulesetRows) {
    if (!SharedStore().ready) {
        state.SkipWithError("store not built");
        return;
    }
    std::vector<EngineEvent> events(kProbes);
    const auto ids = ProbeIds(rulesetRows);
    for (size_t i = 0; i < kProbes; ++i) {
        events[i].size = kFileSize;
        events[i].fileSha256.SetFromBytes(DigestOf(ids[i]).data());
    }
    ZorvDAL& dal = ZorvDAL::Instance();
    size_t next = 0;
    int64_t allowed = 0;
    for (auto _ : state) {
        EngineEvent& event = events[next++ % kProbes];
        dal.IsAllowedInDB(event);
        allowed += event.dbVerdict == AC_DB_ALLOWED;
    }
    if (allowed != static_cast<int64_t>(state.iterations())) state.SkipWithError("a lookup did not allow its row");
}

void BM_IsAllowedInDB_RulesetRow(benchmark::State& state) { LookupThroughEngine(state, true); }
void BM_IsAllowedInDB_ScannedRow(benchmark::State& state) { LookupThroughEngine(state, false); }

// The floor: the engine's own any-source query, prepared once on a separate
// connection with the engine's pragmas, bound, stepped and reset per lookup.
void BM_BareSqliteSelect(benchmark::State& state) {
    if (!SharedStore().ready) {
        state.SkipWithError("store not built");
        return;
    }
    sqlite3* db = nullptr;
    sqlite3_open_v2(SharedStore().file.string().c_str(), &db, SQLITE_OPEN_READWRITE, nullptr);
    Exec(db, "PRAGMA cache_size = -20000;");
    Exec(db, "PRAGMA mmap_size = 27262976;");
    sqlite3_stmt* select = nullptr;
    sqlite3_prepare_v2(db,
                       "SELECT * FROM InventoryItems WHERE(sha256 = :hash) and (size = 0 or size = :size) ORDER BY "
                       "inventoryItemId DESC LIMIT 1;",
                       -1, &select, nullptr);
    std::vector<std::array<uint8_t, 32>> digests;
    for (int64_t id : ProbeIds(true)) digests.push_back(DigestOf(id));
    size_t next = 0;
    int64_t found = 0;
    for (auto _ : state) {
        const auto& digest = digests[next++ % kProbes];
        sqlite3_bind_blob(select, 1, digest.data(), static_cast<int>(digest.size()), SQLITE_TRANSIENT);
        sqlite3_bind_int64(select, 2, kFileSize);
        if (sqlite3_step(select) == SQLITE_ROW) {
            found += sqlite3_column_int(select, 9) != 0;
            benchmark::DoNotOptimize(sqlite3_column_int(select, 10));
        }
        sqlite3_reset(select);
        sqlite3_clear_bindings(select);
    }
    sqlite3_finalize(select);
    sqlite3_close_v2(db);
    if (found != static_cast<int64_t>(state.iterations())) state.SkipWithError("a row was not found");
}

BENCHMARK(BM_BareSqliteSelect);
BENCHMARK(BM_IsAllowedInDB_RulesetRow);
BENCHMARK(BM_IsAllowedInDB_ScannedRow);

}  // namespace

BENCHMARK_MAIN();

// What one app_ctl costs the host's event thread, end to end through the
// export, on a store of 100,000 inventory items: a cache check answered from
// the allow cache, and a process start that asks the inventory. Each is run on
// one and two threads, beside the bare operation that bounds it from below
// (the cache's own Contains, the rule store's own lookup).
#include <benchmark/benchmark.h>
#include <sqlite3.h>

#include <array>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "Zorv.h"
#include "ZorvDataAccessLayer.h"
#include "ZorvEventAbstraction.h"
#include "ZorvText.h"
#include "zorv/zorv.h"

namespace {

using zorv::EngineEvent;
using zorv::ZorvEngine;

constexpr int64_t kRows = 100000;
constexpr uint64_t kFileSize = 4096;
constexpr size_t kProbes = 1024;

std::array<uint8_t, 32> DigestOf(int64_t i) {
    std::array<uint8_t, 32> digest{};
    for (size_t b = 0; b < 8; ++b) digest[b] = static_cast<uint8_t>(static_cast<uint64_t>(i) >> (8 * b));
    for (size_t b = 8; b < digest.size(); ++b) digest[b] = static_cast<uint8_t>(b * 41);
    return digest;
}

// The log goes nowhere: only errors reach this callback, and there are none.
void QuietLog(uint32_t, uint32_t, const ZorvChar*, const ZorvChar*, const ZorvChar*, uint32_t) {}

bool Exec(sqlite3* db, const char* sql) { return sqlite3_exec(db, sql, nullptr, nullptr, nullptr) == SQLITE_OK; }

// The engine over a filled store, started once per process. The engine creates
// the schema; one plain transaction fills it, since row-by-row engine inserts
// are measured elsewhere.
struct Engine {
    std::filesystem::path dir;
    std::u16string dbPath;
    bool ready = false;

    Engine() {
        dir = std::filesystem::temp_directory_path() / ("zorv-appctl-bench-" + std::to_string(std::random_device{}()));
        std::filesystem::create_directories(dir);
        dbPath = zorv::Utf8ToUtf16((dir / "ac.db").string());
        EngineStartParams params{};
        params.dbPath = reinterpret_cast<const ZorvChar*>(dbPath.c_str());
        params.logLevel = AC_LOG_ERROR;
        params.logCallback = &QuietLog;
        if (engine_start(&params) != AC_OK) return;
        engine_stop();

        sqlite3* db = nullptr;
        if (sqlite3_open_v2((dir / "ac.db").string().c_str(), &db, SQLITE_OPEN_READWRITE, nullptr) != SQLITE_OK) return;
        sqlite3_stmt* insert = nullptr;
        bool ok = Exec(db, "BEGIN;") &&
                  sqlite3_prepare_v2(db,
                                     "INSERT INTO InventoryItems(fileName, path, sha256, size, isAuthorized, source, "
                                     "ruleset) VALUES('tool.exe', 'c:\\program files\\vendor', ?1, ?2, 1, 1, 'bench');",
                                     -1, &insert, nullptr) == SQLITE_OK;
        for (int64_t i = 1; ok && i <= kRows; ++i) {
            const auto digest = DigestOf(i);
            sqlite3_bind_blob(insert, 1, digest.data(), static_cast<int>(digest.size()), SQLITE_TRANSIENT);
            sqlite3_bind_int64(insert, 2, static_cast<sqlite3_int64>(kFileSize));
            ok = sqlite3_step(insert) == SQLITE_DONE;
            sqlite3_reset(insert);
        }
        sqlite3_finalize(insert);
        ok = ok && Exec(db, "COMMIT;");
        sqlite3_close_v2(db);
        ready = ok && engine_start(&params) == AC_OK;
    }
    ~Engine() {
        engine_stop();
        std::error_code ignored;
        std::filesystem::remove_all(dir, ignored);
    }
};

Engine& SharedEngine() {
    static Engine engine;
    return engine;
}

// One plug-in event and the texts it points to.
struct Probe {
    std::u16string name = u"c:\\program files\\vendor\\tool.exe";
    std::u16string process = u"c:\\windows\\explorer.exe";
    std::u16string user = u"alice";
    std::array<uint8_t, 32> digest{};
    AppCtlEvent record{};

    Probe(uint32_t type, int64_t row) : digest(DigestOf(row)) {
        record.type = type;
        record.pid = 100;
        record.size = kFileSize;
        record.isExec = 1;
        record.name = reinterpret_cast<const ZorvChar*>(name.c_str());
        record.processName = reinterpret_cast<const ZorvChar*>(process.c_str());
        record.user = reinterpret_cast<const ZorvChar*>(user.c_str());
        record.fileSha256 = digest.data();
    }
    Probe(const Probe&) = delete;
};

std::vector<int64_t> ProbeRows() {
    std::mt19937_64 random(7);
    std::uniform_int_distribution<int64_t> pick(1, kRows);
    std::vector<int64_t> rows(kProbes);
    for (auto& row : rows) row = pick(random);
    return rows;
}

void BM_AppCtl_CacheHit(benchmark::State& state) {
    if (!SharedEngine().ready) {
        state.SkipWithError("store not built");
        return;
    }
    // Each thread allows its own triple first, so every check below hits.
    Probe start(AC_OP_PROCESS_CREATE, 1);
    const std::u16string user = u"user" + zorv::Utf8ToUtf16(std::to_string(state.thread_index()));
    start.user = user;
    start.record.user = reinterpret_cast<const ZorvChar*>(start.user.c_str());
    AppCtlResult result{};
    app_ctl(nullptr, &start.record, &result);
    Probe check(AC_OP_CACHE_CHECK, 1);
    check.user = user;
    check.record.user = reinterpret_cast<const ZorvChar*>(check.user.c_str());
    int64_t allowed = 0;
    for (auto _ : state) {
        app_ctl(nullptr, &check.record, &result);
        allowed += result.action == AC_DECISION_ALLOW;
    }
    state.SetItemsProcessed(state.iterations());
    if (allowed != static_cast<int64_t>(state.iterations())) state.SkipWithError("a cache check missed");
}

void BM_AppCtl_InventoryLookup(benchmark::State& state) {
    if (!SharedEngine().ready) {
        state.SkipWithError("store not built");
        return;
    }
    std::vector<std::unique_ptr<Probe>> probes;
    for (int64_t row : ProbeRows()) probes.push_back(std::make_unique<Probe>(AC_OP_PROCESS_CREATE, row));
    size_t next = 0;
    int64_t allowed = 0;
    AppCtlResult result{};
    for (auto _ : state) {
        app_ctl(nullptr, &probes[next++ % kProbes]->record, &result);
        allowed += result.dbVerdict == AC_DB_ALLOWED;
    }
    state.SetItemsProcessed(state.iterations());
    if (allowed != static_cast<int64_t>(state.iterations())) state.SkipWithError("a start was not found");
}

// The floors: the cache's lookup alone, and the rule store's lookup alone.
void BM_Bare_AllowCacheContains(benchmark::State& state) {
    if (!SharedEngine().ready) {
        state.SkipWithError("store not built");
        return;
    }
    zorv::AllowCache& cache = ZorvEngine::GetEngine()->GetAllowCache();
    const std::u16string user = u"bare" + zorv::Utf8ToUtf16(std::to_string(state.thread_index()));
    const std::u16string process = u"c:\\windows\\explorer.exe";
    const std::u16string target = u"c:\\program files\\vendor\\tool.exe";
    cache.Add(user, process, target);
    for (auto _ : state) benchmark::DoNotOptimize(cache.Contains(user, process, target));
    state.SetItemsProcessed(state.iterations());
}

void BM_Bare_IsAllowedInDB(benchmark::State& state) {
    if (!SharedEngine().ready) {
        state.SkipWithError("store not built");
        return;
    }
    std::vector<EngineEvent> events(kProbes);
    const auto rows = ProbeRows();
    for (size_t i = 0; i < kProbes; ++i) {
        events[i].size = kFileSize;
        events[i].fileSha256.SetFromBytes(DigestOf(rows[i]).data());
    }
    zorv::ZorvDAL& dal = zorv::ZorvDAL::Instance();
    size_t next = 0;
    for (auto _ : state) {
        EngineEvent& event = events[next++ % kProbes];
        dal.IsAllowedInDB(event);
        benchmark::DoNotOptimize(event.dbVerdict);
    }
    state.SetItemsProcessed(state.iterations());
}

BENCHMARK(BM_Bare_AllowCacheContains)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(BM_AppCtl_CacheHit)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(BM_Bare_IsAllowedInDB)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(BM_AppCtl_InventoryLookup)->Threads(1)->Threads(2)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();

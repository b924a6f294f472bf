// Buffered item storage against the floor it is judged by: the same rows
// written by bare sqlite3 in transactions of 51, the size of one buffer flush,
// on the same schema and connection settings.
#include <benchmark/benchmark.h>
#include <sqlite3.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <random>
#include <string>

#include "ZorvDataAccessLayer.h"
#include "ZorvText.h"

namespace {

constexpr int64_t kItems = 1'000'000;
constexpr int kBatch = 51;

// A fresh folder per run; the database and its write-ahead log go with it.
class ScratchDir {
public:
    ScratchDir() {
        std::random_device seed;
        m_path = std::filesystem::temp_directory_path() / ("zorv-bench-" + std::to_string(seed()));
        std::filesystem::create_directories(m_path);
    }
    ~ScratchDir() {
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }
    std::filesystem::path operator/(const char* name) const { return m_path / name; }

private:
    std::filesystem::path m_path;
};

// The i-th item's name and digest: distinct rows, as a scan produces them.
void FillItem(int64_t i, char* fileName, size_t size, uint8_t (&sha256)[32]) {
    std::snprintf(fileName, size, "file%lld.dll", static_cast<long long>(i));
    std::memset(sha256, 0x5a, sizeof sha256);
    std::memcpy(sha256, &i, sizeof i);
}

// An ac.db as the engine creates it, closed again, so both sides start alike.
std::u16string CreateStore(const std::filesystem::path& file) {
    const std::u16string path = zorv::Utf8ToUtf16(file.string());
    zorv::ZorvDAL dal;
    dal.SetDBPath(path);
    dal.InitDB();
    dal.Shutdown();
    return path;
}

void BM_StoreItemBuffer(benchmark::State& state) {
    for (auto _ : state) {
        state.PauseTiming();
        ScratchDir dir;
        zorv::ZorvDAL dal;
        dal.SetDBPath(CreateStore(dir / "ac.db"));
        if (!dal.InitDB()) {
            state.SkipWithError("InitDB failed");
            return;
        }
        zorv::EngineEvent event;
        event.source = 3;
        event.isAuthorized = 3;
        event.size = 65536;
        event.path = u"c:\\program files\\vendor\\";
        event.ruleset = u"";
        char fileName[64];
        uint8_t sha256[32];
        state.ResumeTiming();

        for (int64_t i = 0; i < kItems; ++i) {
            FillItem(i, fileName, sizeof fileName, sha256);
            event.fileName.assign(fileName, fileName + std::strlen(fileName));
            event.name = event.path + event.fileName;
            event.lookupName = event.name;
            event.fileSha256.SetFromBytes(sha256);
            dal.StoreItemBuffer(event);
        }
        dal.StoreItemFlush();

        state.PauseTiming();
        dal.Shutdown();
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * kItems);
}

void BM_BareSqliteBatchesOf51(benchmark::State& state) {
    for (auto _ : state) {
        state.PauseTiming();
        ScratchDir dir;
        CreateStore(dir / "ac.db");
        sqlite3* db = nullptr;
        sqlite3_open_v2((dir / "ac.db").string().c_str(), &db, SQLITE_OPEN_READWRITE, nullptr);
        sqlite3_exec(db,
                     "PRAGMA journal_mode = WAL; PRAGMA synchronous = NORMAL; PRAGMA cache_size = -20000; "
                     "PRAGMA temp_store = MEMORY; PRAGMA mmap_size = 27262976;",
                     nullptr, nullptr, nullptr);
        sqlite3_stmt* insert = nullptr;
        sqlite3_prepare_v2(db,
                           "INSERT INTO InventoryItems( md5, sha1, sha256, source, fileName, path, nativePath, size, "
                           "recordTime, isAuthorized, ruleset ) VALUES( :md5, :sha1, :sha256, :source, :fileName, "
                           ":path, :nativePath, :size, :recordTime, :isAuthorized, :ruleset );",
                           -1, &insert, nullptr);
        const std::string path = "c:\\program files\\vendor\\";
        char fileName[64];
        uint8_t sha256[32];
        state.ResumeTiming();

        for (int64_t i = 0; i < kItems; ++i) {
            if (i % kBatch == 0) sqlite3_exec(db, "BEGIN TRANSACTION", nullptr, nullptr, nullptr);
            FillItem(i, fileName, sizeof fileName, sha256);
            const std::string nativePath = path + fileName;
            sqlite3_bind_blob(insert, 3, sha256, sizeof sha256, SQLITE_TRANSIENT);
            sqlite3_bind_int(insert, 4, 3);
            sqlite3_bind_text(insert, 5, fileName, -1, SQLITE_TRANSIENT);
            sqlite3_bind_text(insert, 6, path.c_str(), static_cast<int>(path.size()), SQLITE_TRANSIENT);
            sqlite3_bind_text(insert, 7, nativePath.c_str(), static_cast<int>(nativePath.size()), SQLITE_TRANSIENT);
            sqlite3_bind_int64(insert, 8, 65536);
            sqlite3_bind_int64(insert, 9, 0);
            sqlite3_bind_int(insert, 10, 1);
            sqlite3_step(insert);
            sqlite3_reset(insert);
            sqlite3_clear_bindings(insert);
            if (i % kBatch == kBatch - 1 || i == kItems - 1) sqlite3_exec(db, "END TRANSACTION", nullptr, nullptr, nullptr);
        }

        state.PauseTiming();
        sqlite3_finalize(insert);
        sqlite3_close_v2(db);
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * kItems);
}

BENCHMARK(BM_StoreItemBuffer)->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_BareSqliteBatchesOf51)->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();

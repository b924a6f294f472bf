// zorv scan beside a bare program that does only the unavoidable work: read
// every file once and feed the same three OpenSSL digests, on the same
// number of threads. Two trees: about 20,000 files of 1 KB to 50 MB (about
// 2 GB), and 100,000 tiny files. Both are read once before timing, so the
// page cache is warm for every run.
#include <openssl/evp.h>
#include <sqlite3.h>

#include <atomic>
#include <cmath>
#include <functional>
#include <fstream>
#include <random>
#include <thread>

#include "BenchReport.h"
#include "CliBench.h"

namespace {

namespace fs = std::filesystem;
using namespace zorv::bench;

constexpr unsigned kThreads = 2;

struct Tree {
    fs::path root;
    std::vector<fs::path> files;
    uint64_t bytes = 0;
};

// Writes the tree once; a later run finds the marker and only lists it.
Tree MakeTree(const std::string& name, size_t count, const std::function<uint64_t(size_t, std::mt19937_64&)>& size) {
    Tree tree;
    tree.root = BenchDir(name);
    const fs::path marker = tree.root / ".complete";
    std::mt19937_64 random(42);
    if (!fs::exists(marker)) {
        fs::remove_all(tree.root);
        std::vector<char> block(1 << 20);
        for (char& c : block) c = static_cast<char>(random());
        for (size_t i = 0; i < count; ++i) {
            const fs::path file = tree.root / ("d" + std::to_string(i % 100)) / ("f" + std::to_string(i) + ".so");
            fs::create_directories(file.parent_path());
            std::ofstream out(file, std::ios::binary);
            uint64_t left = size(i, random);
            out.write(reinterpret_cast<const char*>(&i), sizeof i);  // every file distinct
            while (left > 0) {
                const size_t chunk = std::min<uint64_t>(left, block.size());
                out.write(block.data(), static_cast<std::streamsize>(chunk));
                left -= chunk;
            }
        }
        std::ofstream(marker) << "done\n";
    }
    for (const auto& entry : fs::recursive_directory_iterator(tree.root)) {
        if (!entry.is_regular_file() || entry.path() == marker) continue;
        tree.files.push_back(entry.path());
        tree.bytes += entry.file_size();
    }
    return tree;
}

const Tree& LargeTree() {
    static const Tree tree = MakeTree("scan-large", static_cast<size_t>(20000 * Scale()),
                                      [](size_t i, std::mt19937_64& random) -> uint64_t {
                                          if (i % 2000 == 0) return 50ull << 20;
                                          if (i % 200 == 1) return 5ull << 20;
                                          // log-uniform 1 KB .. 256 KB
                                          const double exponent = std::uniform_real_distribution<>(10, 18)(random);
                                          return static_cast<uint64_t>(std::pow(2.0, exponent));
                                      });
    return tree;
}

const Tree& TinyTree() {
    static const Tree tree = MakeTree("scan-tiny", static_cast<size_t>(100000 * Scale()),
                                      [](size_t, std::mt19937_64& random) { return 32 + random() % 200; });
    return tree;
}

// The bare limit: each thread takes the next file, reads it once through a
// 1 MiB buffer into SHA-256, SHA-1 and MD5.
void HashFiles(const std::vector<fs::path>& files) {
    std::atomic<size_t> next{0};
    std::vector<std::thread> threads;
    for (unsigned t = 0; t < kThreads; ++t) {
        threads.emplace_back([&] {
            EVP_MD* algorithms[3] = {EVP_MD_fetch(nullptr, "SHA256", nullptr), EVP_MD_fetch(nullptr, "SHA1", nullptr),
                                     EVP_MD_fetch(nullptr, "MD5", nullptr)};
            EVP_MD_CTX* contexts[3] = {EVP_MD_CTX_new(), EVP_MD_CTX_new(), EVP_MD_CTX_new()};
            std::vector<unsigned char> buffer(1 << 20);
            unsigned char digest[64];
            for (size_t i; (i = next++) < files.size();) {
                for (int d = 0; d < 3; ++d) EVP_DigestInit_ex(contexts[d], algorithms[d], nullptr);
                std::FILE* file = std::fopen(files[i].c_str(), "rb");
                if (file == nullptr) continue;
                size_t got;
                while ((got = std::fread(buffer.data(), 1, buffer.size(), file)) > 0)
                    for (int d = 0; d < 3; ++d) EVP_DigestUpdate(contexts[d], buffer.data(), got);
                std::fclose(file);
                for (int d = 0; d < 3; ++d) EVP_DigestFinal_ex(contexts[d], digest, nullptr);
                benchmark::DoNotOptimize(digest);
            }
            for (int d = 0; d < 3; ++d) {
                EVP_MD_CTX_free(contexts[d]);
                EVP_MD_free(algorithms[d]);
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
}

// `walk` adds the directory walk, as the tiny-file limit must.
void BareReadAndHash(benchmark::State& state, const Tree& tree, bool walk) {
    for (auto _ : state) {
        const double cpuBefore = ProcessCpuSeconds();
        const auto start = std::chrono::steady_clock::now();
        std::vector<fs::path> walked;
        if (walk) {
            for (const auto& entry : fs::recursive_directory_iterator(tree.root))
                if (entry.is_regular_file() && entry.path().filename() != ".complete") walked.push_back(entry.path());
        }
        HashFiles(walk ? walked : tree.files);
        state.SetIterationTime(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
        state.counters["cpu_s"] = ProcessCpuSeconds() - cpuBefore;
    }
    state.counters["files"] = static_cast<double>(tree.files.size());
    state.counters["MB"] = tree.bytes / 1048576.0;
}

// zorv scan of the whole tree into a fresh store (every file is new).
void ZorvScan(benchmark::State& state, const Tree& tree) {
    const fs::path store = BenchDir("scan-stores") / "ac.db";
    for (auto _ : state) {
        for (const char* suffix : {"", "-wal", "-shm"}) fs::remove(store.string() + suffix);
        ReportChild(state, RunZorv({"scan", tree.root.string(), "--all-files", "--jobs", std::to_string(kThreads),
                                    "--quiet", "--db", store.string()}));
    }
    state.counters["files"] = static_cast<double>(tree.files.size());
}

// What storing the tiny tree costs the store itself, whoever drives it: bare
// SQLite writes one row per file into a store the engine made (so the same
// schema and indexes), with the engine's connection settings and in its
// write buffer's commits of 51 rows. Digests are random: hashing is the bare
// walk-and-hash's share. zorv scan cannot be faster than this and the walk
// together, as long as every 51st row is committed when store_item returns.
void BM_StoreFloor_Tiny(benchmark::State& state) {
    const Tree& tree = TinyTree();
    const fs::path store = BenchDir("scan-stores") / "floor.db";
    const fs::path empty = BenchDir("scan-empty");
    std::mt19937_64 random(7);
    for (auto _ : state) {
        for (const char* suffix : {"", "-wal", "-shm"}) fs::remove(store.string() + suffix);
        if (RunZorv({"scan", empty.string(), "--quiet", "--db", store.string()}).status != 0) {
            state.SkipWithError("zorv could not make the store");
            return;
        }
        sqlite3* db = nullptr;
        sqlite3_stmt* insert = nullptr;
        sqlite3_open(store.c_str(), &db);
        sqlite3_exec(db,
                     "PRAGMA journal_mode = WAL; PRAGMA synchronous = NORMAL; PRAGMA cache_size = -20000; "
                     "PRAGMA temp_store = MEMORY; PRAGMA mmap_size = 27262976; PRAGMA wal_autocheckpoint = 8192;",
                     nullptr, nullptr, nullptr);
        sqlite3_prepare_v2(db,
                           "INSERT INTO InventoryItems( md5, sha1, sha256, source, fileName, path, nativePath, size, "
                           "recordTime, isAuthorized, ruleset ) VALUES( ?, ?, ?, 3, ?, ?, ?, ?, ?, 1, NULL );",
                           -1, &insert, nullptr);
        const double cpuBefore = ProcessCpuSeconds();
        const auto start = std::chrono::steady_clock::now();
        bool failed = insert == nullptr;
        for (size_t i = 0; i < tree.files.size() && !failed;) {
            sqlite3_exec(db, "BEGIN;", nullptr, nullptr, nullptr);
            for (size_t row = 0; row < 51 && i < tree.files.size(); ++row, ++i) {
                uint64_t digest[4];
                for (uint64_t& word : digest) word = random();
                const std::string path = tree.files[i].string();
                const size_t slash = path.rfind('/');
                sqlite3_bind_blob(insert, 1, digest, 16, SQLITE_TRANSIENT);
                sqlite3_bind_blob(insert, 2, digest, 20, SQLITE_TRANSIENT);
                sqlite3_bind_blob(insert, 3, digest, 32, SQLITE_TRANSIENT);
                sqlite3_bind_text(insert, 4, path.c_str() + slash + 1, -1, SQLITE_TRANSIENT);
                sqlite3_bind_text(insert, 5, path.c_str(), static_cast<int>(slash), SQLITE_TRANSIENT);
                sqlite3_bind_text(insert, 6, path.c_str(), -1, SQLITE_TRANSIENT);
                sqlite3_bind_int64(insert, 7, static_cast<sqlite3_int64>(32 + random() % 200));
                sqlite3_bind_int64(insert, 8, 1700000000000 + static_cast<sqlite3_int64>(i));
                failed = sqlite3_step(insert) != SQLITE_DONE;
                sqlite3_reset(insert);
            }
            failed = sqlite3_exec(db, "COMMIT;", nullptr, nullptr, nullptr) != SQLITE_OK || failed;
        }
        state.SetIterationTime(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
        state.counters["cpu_s"] = ProcessCpuSeconds() - cpuBefore;
        sqlite3_finalize(insert);
        sqlite3_close(db);
        if (failed) state.SkipWithError("the bare store refused a row");
    }
    state.counters["files"] = static_cast<double>(tree.files.size());
}

void BM_Bare_ReadAndHash_Large(benchmark::State& state) { BareReadAndHash(state, LargeTree(), false); }
void BM_ZorvScan_Large(benchmark::State& state) { ZorvScan(state, LargeTree()); }
void BM_Bare_WalkAndHash_Tiny(benchmark::State& state) { BareReadAndHash(state, TinyTree(), true); }
void BM_ZorvScan_Tiny(benchmark::State& state) { ZorvScan(state, TinyTree()); }

// Reads both trees once so every timed run starts with a warm page cache.
void BM_WarmPageCache(benchmark::State& state) {
    for (auto _ : state) {
        const auto start = std::chrono::steady_clock::now();
        HashFiles(LargeTree().files);
        HashFiles(TinyTree().files);
        state.SetIterationTime(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
    }
}

BENCHMARK(BM_WarmPageCache)->Iterations(1)->UseManualTime()->Unit(benchmark::kSecond);
BENCHMARK(BM_Bare_ReadAndHash_Large)->Iterations(1)->UseManualTime()->Unit(benchmark::kSecond);
BENCHMARK(BM_ZorvScan_Large)->Iterations(1)->UseManualTime()->Unit(benchmark::kSecond);
BENCHMARK(BM_Bare_WalkAndHash_Tiny)->Iterations(1)->UseManualTime()->Unit(benchmark::kSecond);
BENCHMARK(BM_ZorvScan_Tiny)->Iterations(1)->UseManualTime()->Unit(benchmark::kSecond);
BENCHMARK(BM_StoreFloor_Tiny)->Iterations(1)->UseManualTime()->Unit(benchmark::kSecond);

}  // namespace

int main(int argc, char** argv) {
    std::vector<Goal> goals = {
        {"zorv scan, ~20,000 files ~2 GB, vs read + 3 digests", "BM_ZorvScan_Large", "BM_Bare_ReadAndHash_Large",
         1.2},
        {"zorv scan, 100,000 tiny files, vs walk + read + 3 digests", "BM_ZorvScan_Tiny", "BM_Bare_WalkAndHash_Tiny",
         1.3},
        // No bound: the floor the tiny-file goal meets, and how near zorv is to it.
        {"store floor, 51-row commits, vs walk + read + 3 digests", "BM_StoreFloor_Tiny",
         "BM_Bare_WalkAndHash_Tiny"},
        {"zorv scan, 100,000 tiny files, vs the store floor", "BM_ZorvScan_Tiny", "BM_StoreFloor_Tiny"},
    };
    return RunWithGoals(argc, argv, std::move(goals));
}

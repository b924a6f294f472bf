// Ruleset import and inventory export at agent scale, each beside its bare
// limit: the same rows moved with bare sqlite3 the way a table swap moves
// them (copy the kept rows and insert the new ones into an unindexed copy,
// then build its indexes), and the same pages read with a bare SELECT and
// written with snprintf.
//
// Every case runs once (these are seconds-long operations on a database of a
// million rows) and reports its wall and CPU time, rows per second, the peak
// resident memory reached during the operation alone and the process's peak
// so far (getrusage). The metrics document, a matter of milliseconds, runs a
// few times. A goal table at the end gives each case against its limit.
#include <benchmark/benchmark.h>
#include <malloc.h>
#include <sqlite3.h>
#include <sys/resource.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "BenchReport.h"
#include "ZorvDataAccessLayer.h"
#include "ZorvStats.h"
#include "ZorvText.h"

namespace {

namespace fs = std::filesystem;
using zorv::ZorvDAL;

constexpr int kScannedItems = 1000000;
constexpr int kExportPage = 10000;

// ---- Peak memory ----------------------------------------------------------

// Linux keeps the peak resident size in VmHWM; writing 5 to clear_refs resets
// it, so each case measures its own peak. Elsewhere both quietly do nothing.
// The heap the fixtures freed is handed back first: otherwise it stays
// resident and counts towards the case's peak.
void ResetPeakMemory() {
    malloc_trim(0);
    std::ofstream clear("/proc/self/clear_refs");
    if (clear) clear << "5";
}

double PeakMemoryMB() {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind("VmHWM:", 0) == 0) return std::stod(line.substr(6)) / 1024.0;  // kB
    }
    return 0;
}

// The process's peak since it started: never reset, so a case that stays
// below an earlier one's peak shows that earlier peak here.
double ProcessPeakMB() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return static_cast<double>(usage.ru_maxrss) / 1024.0;  // kB on Linux
}

double CpuSeconds() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

// ---- Fixtures -------------------------------------------------------------

const fs::path& WorkDir() {
    static const fs::path dir = [] {
        const fs::path d = fs::temp_directory_path() / ("zorv-import-bench-" + std::to_string(std::random_device{}()));
        fs::create_directories(d);
        return d;
    }();
    return dir;
}

void Check(int rc, sqlite3* db, const char* what) {
    if (rc != SQLITE_OK && rc != SQLITE_DONE && rc != SQLITE_ROW) {
        std::fprintf(stderr, "%s: %s\n", what, sqlite3_errmsg(db));
        std::abort();
    }
}

sqlite3* OpenBare(const fs::path& file) {
    sqlite3* db = nullptr;
    Check(sqlite3_open_v2(file.string().c_str(), &db, SQLITE_OPEN_READWRITE, nullptr), db, "open");
    // The connection settings the store uses, so that both sides pay the same.
    for (const char* pragma : {"PRAGMA journal_mode = WAL;", "PRAGMA synchronous = NORMAL;",
                               "PRAGMA cache_size = -20000;", "PRAGMA temp_store = MEMORY;",
                               "PRAGMA mmap_size = 27262976;"}) {
        Check(sqlite3_exec(db, pragma, nullptr, nullptr, nullptr), db, pragma);
    }
    return db;
}

void Exec(sqlite3* db, const std::string& sql) { Check(sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr), db, sql.c_str()); }

std::string Hex(std::mt19937_64& random, int bytes) {
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string text;
    text.reserve(bytes * 2);
    for (int i = 0; i < bytes; i += 8) {
        uint64_t value = random();
        for (int b = 0; b < 8 && i + b < bytes; ++b, value >>= 8) {
            text += kDigits[(value >> 4) & 15];
            text += kDigits[value & 15];
        }
    }
    return text;
}

// A database created by the store itself, holding a million scanned items;
// built once per run and copied for every case that changes it.
const fs::path& ScannedTemplate() {
    static const fs::path file = [] {
        const fs::path path = WorkDir() / "scanned.db";
        ZorvDAL& dal = ZorvDAL::Instance();
        dal.SetDBPath(zorv::Utf8ToUtf16(path.string()));
        if (!dal.InitDB()) std::abort();
        dal.Shutdown();
        sqlite3* db = OpenBare(path);
        Exec(db, "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < " +
                     std::to_string(kScannedItems) +
                     ") INSERT INTO InventoryItems(fileName, path, nativePath, md5, sha1, sha256, size, recordTime, "
                     "isAuthorized, source, ruleset) SELECT 'file' || i || '.exe', 'c:\\program files\\vendor' || "
                     "(i % 500) || '\\', 'c:\\program files\\vendor' || (i % 500) || '\\file' || i || '.exe', "
                     "randomblob(16), randomblob(20), randomblob(32), 1000 + i, 1700000000000 + i, 1, 3, '' FROM n");
        sqlite3_close_v2(db);
        return path;
    }();
    return file;
}

fs::path FreshCopy(const std::string& name) {
    const fs::path copy = WorkDir() / name;
    fs::remove(copy);
    fs::remove(copy.string() + "-wal");
    fs::remove(copy.string() + "-shm");
    fs::copy_file(ScannedTemplate(), copy);
    return copy;
}

struct ItemRow {
    std::string fileName, sha256, sha1;
    int size;
    int authorized;
};

std::vector<ItemRow> MakeItems(int count, uint64_t seed) {
    std::mt19937_64 random(seed);
    std::vector<ItemRow> rows(count);
    for (int i = 0; i < count; ++i) {
        rows[i] = {"rule" + std::to_string(seed) + "_" + std::to_string(i) + ".exe", Hex(random, 32), Hex(random, 20),
                   static_cast<int>(random() % 10000000), i % 10 != 0};
    }
    return rows;
}

std::string ItemsDocument(const std::vector<ItemRow>& rows) {
    std::string json = R"({"rules":[)";
    json.reserve(rows.size() * 200);
    for (size_t i = 0; i < rows.size(); ++i) {
        const ItemRow& r = rows[i];
        json += (i > 0 ? ",{" : "{");
        json += R"("fileName":")" + r.fileName + R"(","sha256":")" + r.sha256 + R"(","sha1":")" + r.sha1 +
                R"(","size":)" + std::to_string(r.size) + R"(,"action":")" + (r.authorized ? "allow" : "block") +
                R"("})";
    }
    return json + "]}";
}

void WriteText(const fs::path& file, const std::string& text) {
    std::ofstream out(file, std::ios::binary | std::ios::trunc);
    out.write(text.data(), static_cast<std::streamsize>(text.size()));
}

void OpenStore(const fs::path& file) {
    ZorvDAL& dal = ZorvDAL::Instance();
    dal.Shutdown();
    if (!dal.SetDBPath(zorv::Utf8ToUtf16(file.string())) || !dal.InitDB()) std::abort();
}

// Times each run of `body`, with its CPU time, peak memory and rate.
void Measure(benchmark::State& state, int64_t rows, const std::function<void()>& body) {
    double cpu = 0;
    for (auto _ : state) {
        ResetPeakMemory();
        const double cpuStart = CpuSeconds();
        const auto start = std::chrono::steady_clock::now();
        body();
        const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
        cpu += CpuSeconds() - cpuStart;
        state.SetIterationTime(elapsed.count());
        state.counters["peak_MB"] = PeakMemoryMB();
        state.counters["proc_peak_MB"] = ProcessPeakMB();
        state.counters["rows/s"] = static_cast<double>(rows) / elapsed.count();
    }
    // Summed over the runs, as the library sums their time.
    state.counters["cpu_s"] = cpu;
}

// ---- The bare limits ------------------------------------------------------

const char* const kItemIndexes[] = {
    "CREATE INDEX InventoryItems_Sha256 ON InventoryItems(sha256)",
    "CREATE INDEX InventoryItems_size ON InventoryItems(size)",
    "CREATE INDEX InventoryItems_Sha1 ON InventoryItems(sha1)",
    "CREATE INDEX InventoryItems_Md5 ON InventoryItems(md5)",
    "CREATE INDEX InventoryItems_fileName ON InventoryItems(fileName)",
};

std::vector<uint8_t> Bytes(const std::string& hex) {
    std::vector<uint8_t> bytes(hex.size() / 2);
    for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<uint8_t>(std::stoi(hex.substr(2 * i, 2), nullptr, 16));
    return bytes;
}

// The item swap with nothing but SQL: the rows are already decoded.
void BareItemSwap(const fs::path& file, const std::vector<ItemRow>& rows, bool append, int source) {
    std::vector<std::vector<uint8_t>> sha256(rows.size()), sha1(rows.size());
    for (size_t i = 0; i < rows.size(); ++i) {
        sha256[i] = Bytes(rows[i].sha256);
        sha1[i] = Bytes(rows[i].sha1);
    }
    sqlite3* db = OpenBare(file);
    Exec(db, "BEGIN IMMEDIATE TRANSACTION");
    Exec(db, "DROP VIEW Items");
    Exec(db, "CREATE TABLE Temp_InventoryItems( inventoryItemId INTEGER PRIMARY KEY AUTOINCREMENT, fileName TEXT, "
             "path TEXT, nativePath TEXT, md5 BLOB, sha1 BLOB, sha256 BLOB, size INTEGER, recordTime INTEGER, "
             "isAuthorized INTEGER(1), source INTEGER, ruleset TEXT )");
    Exec(db, append ? "INSERT INTO Temp_InventoryItems SELECT * FROM InventoryItems"
                    : "INSERT INTO Temp_InventoryItems SELECT * FROM InventoryItems WHERE source != 2");
    sqlite3_stmt* insert = nullptr;
    Check(sqlite3_prepare_v2(db,
                             "INSERT INTO Temp_InventoryItems(sha1, sha256, source, fileName, size, recordTime, "
                             "isAuthorized, ruleset) VALUES(?, ?, ?, ?, ?, 0, ?, 'bench')",
                             -1, &insert, nullptr),
          db, "prepare");
    for (size_t i = 0; i < rows.size(); ++i) {
        sqlite3_bind_blob(insert, 1, sha1[i].data(), 20, SQLITE_STATIC);
        sqlite3_bind_blob(insert, 2, sha256[i].data(), 32, SQLITE_STATIC);
        sqlite3_bind_int(insert, 3, source);
        sqlite3_bind_text(insert, 4, rows[i].fileName.c_str(), -1, SQLITE_STATIC);
        sqlite3_bind_int64(insert, 5, rows[i].size);
        sqlite3_bind_int(insert, 6, rows[i].authorized);
        Check(sqlite3_step(insert), db, "insert");
        sqlite3_reset(insert);
    }
    sqlite3_finalize(insert);
    Exec(db, "ALTER TABLE InventoryItems RENAME TO Old_InventoryItems");
    Exec(db, "DROP TABLE Old_InventoryItems");
    Exec(db, "ALTER TABLE Temp_InventoryItems RENAME TO InventoryItems");
    for (const char* index : kItemIndexes) Exec(db, index);
    Exec(db, "CREATE VIEW Items AS SELECT inventoryItemId, fileName, path, nativePath, md5, sha1, sha256, size, "
             "recordTime, isAuthorized, source, ruleset FROM InventoryItems JOIN AppControlState ON "
             "AppControlState.settingName = 'inventoryCookie'");
    Exec(db, "END TRANSACTION");
    Check(sqlite3_wal_checkpoint_v2(db, "main", SQLITE_CHECKPOINT_FULL, nullptr, nullptr), db, "checkpoint");
    sqlite3_close_v2(db);
}

// ---- Item imports ---------------------------------------------------------

void BM_ImportItems(benchmark::State& state) {
    const int count = static_cast<int>(state.range(0));
    const fs::path document = WorkDir() / "items.json";
    WriteText(document, ItemsDocument(MakeItems(count, 1)));
    const fs::path db = FreshCopy("import.db");
    OpenStore(db);
    bool ok = false;
    Measure(state, count, [&] {
        ok = ZorvDAL::Instance().ImportRuleset(0, zorv::Utf8ToUtf16(document.string()), u"ruleset_bench");
    });
    // The peak against the size of the file imported: the memory an import
    // may take is a small multiple of its document.
    const double fileMB = static_cast<double>(fs::file_size(document)) / (1024.0 * 1024.0);
    state.counters["file_MB"] = fileMB;
    state.counters["peak_per_file"] = state.counters["peak_MB"] / fileMB;
    if (!ok) state.SkipWithError("import failed");
    ZorvDAL::Instance().Shutdown();
}

void BM_ImportItemsBare(benchmark::State& state) {
    const int count = static_cast<int>(state.range(0));
    const std::vector<ItemRow> rows = MakeItems(count, 1);
    const fs::path db = FreshCopy("bare.db");
    Measure(state, count, [&] { BareItemSwap(db, rows, false, 2); });
}

// 100,000 more after the million-item ruleset, appended.
void BM_AppendItems(benchmark::State& state) {
    const int count = static_cast<int>(state.range(0));
    const fs::path db = FreshCopy("append.db");
    OpenStore(db);
    const fs::path first = WorkDir() / "million.json";
    WriteText(first, ItemsDocument(MakeItems(1000000, 1)));
    if (!ZorvDAL::Instance().ImportRuleset(0, zorv::Utf8ToUtf16(first.string()), u"ruleset_bench")) std::abort();
    fs::remove(first);
    const fs::path document = WorkDir() / "more.json";
    WriteText(document, ItemsDocument(MakeItems(count, 2)));
    bool ok = false;
    Measure(state, count, [&] {
        ok = ZorvDAL::Instance().ImportRuleset(1, zorv::Utf8ToUtf16(document.string()), u"ruleset_more");
    });
    if (!ok) state.SkipWithError("import failed");
    ZorvDAL::Instance().Shutdown();
}

void BM_AppendItemsBare(benchmark::State& state) {
    const int count = static_cast<int>(state.range(0));
    const fs::path db = FreshCopy("bare-append.db");
    BareItemSwap(db, MakeItems(1000000, 1), false, 2);
    const std::vector<ItemRow> rows = MakeItems(count, 2);
    Measure(state, count, [&] { BareItemSwap(db, rows, true, 2); });
}

// ---- Trust rules ------------------------------------------------------------

constexpr int kTrustRules = 10000;
constexpr int kUserLists = 500;
constexpr int kUsersPerList = 20;

std::string TrustDocument() {
    std::string json = R"({"Trustrules":[)";
    for (int i = 0; i < kTrustRules; ++i) {
        json += (i > 0 ? "," : "");
        json += R"({"processName":"c:\\tools\\updater)" + std::to_string(i) +
                R"(*.exe","paths":"c:\\program files\\**;d:\\apps\\*","trustType":)" + std::to_string(i % 4) +
                R"(,"signerName":"Signer )" + std::to_string(i % 50) + R"(","issuerCN":"Issuing CA","user":"DOMAIN\\User)" +
                std::to_string(i % 100) + R"(","userList":"List)" + std::to_string(i % kUserLists) + R"("})";
    }
    json += R"(],"Userlists":[)";
    for (int l = 0; l < kUserLists; ++l) {
        json += (l > 0 ? "," : "");
        json += R"({"id":"list)" + std::to_string(l) + R"(","users":[)";
        for (int u = 0; u < kUsersPerList; ++u) json += (u > 0 ? ",\"" : "\"") + ("user" + std::to_string(u)) + "\"";
        json += "]}";
    }
    return json + "]}";
}

void BM_ImportTrustRules(benchmark::State& state) {
    const fs::path document = WorkDir() / "trust.json";
    WriteText(document, TrustDocument());
    const fs::path db = FreshCopy("trust.db");
    OpenStore(db);
    bool ok = false;
    Measure(state, kTrustRules + kUserLists * kUsersPerList, [&] {
        ok = ZorvDAL::Instance().ImportRuleset(0, zorv::Utf8ToUtf16(document.string()), u"trustrules_bench");
    });
    if (!ok) state.SkipWithError("import failed");
    ZorvDAL::Instance().Shutdown();
}

void BM_ImportTrustRulesBare(benchmark::State& state) {
    const fs::path file = FreshCopy("bare-trust.db");
    Measure(state, kTrustRules + kUserLists * kUsersPerList, [&] {
        sqlite3* db = OpenBare(file);
        Exec(db, "BEGIN IMMEDIATE TRANSACTION");
        Exec(db, "CREATE TABLE Temp_TrustRules( trustRuleId INTEGER PRIMARY KEY AUTOINCREMENT, processName TEXT, "
                 "paths TEXT, trustType INTEGER, signerName TEXT, productName TEXT, companyName TEXT, sha256 BLOB, "
                 "issuerCN TEXT, issuerC TEXT, issuerS TEXT, issuerL TEXT, issuerO TEXT, issuerOU TEXT, hitcount "
                 "INTEGER DEFAULT 0, ruleset TEXT, procUser TEXT, procGroup TEXT, userList TEXT, trustLevel INTEGER "
                 "DEFAULT 0 )");
        Exec(db, "CREATE TABLE Temp_UserList( id TEXT, user TEXT )");
        sqlite3_stmt* rule = nullptr;
        sqlite3_prepare_v2(db,
                           "INSERT INTO Temp_TrustRules(processName, paths, trustType, signerName, issuerCN, ruleset, "
                           "procUser, userList) VALUES(?, ?, ?, ?, ?, ?, ?, ?)",
                           -1, &rule, nullptr);
        for (int i = 0; i < kTrustRules; ++i) {
            const std::string process = "c:\\tools\\updater" + std::to_string(i) + "*.exe";
            const std::string signer = "Signer " + std::to_string(i % 50);
            const std::string user = "domain\\user" + std::to_string(i % 100);
            const std::string list = "list" + std::to_string(i % kUserLists);
            sqlite3_bind_text(rule, 1, process.c_str(), -1, SQLITE_STATIC);
            sqlite3_bind_text(rule, 2, "c:\\program files\\**;d:\\apps\\*", -1, SQLITE_STATIC);
            sqlite3_bind_int(rule, 3, i % 4);
            sqlite3_bind_text(rule, 4, signer.c_str(), -1, SQLITE_STATIC);
            sqlite3_bind_text(rule, 5, "Issuing CA", -1, SQLITE_STATIC);
            sqlite3_bind_text(rule, 6, "trustrules_bench", -1, SQLITE_STATIC);
            sqlite3_bind_text(rule, 7, user.c_str(), -1, SQLITE_STATIC);
            sqlite3_bind_text(rule, 8, list.c_str(), -1, SQLITE_STATIC);
            Check(sqlite3_step(rule), db, "rule");
            sqlite3_reset(rule);
        }
        sqlite3_finalize(rule);
        sqlite3_stmt* member = nullptr;
        sqlite3_prepare_v2(db, "INSERT INTO Temp_UserList(id, user) VALUES(?, ?)", -1, &member, nullptr);
        for (int l = 0; l < kUserLists; ++l) {
            const std::string id = "list" + std::to_string(l);
            for (int u = 0; u < kUsersPerList; ++u) {
                const std::string user = "user" + std::to_string(u);
                sqlite3_bind_text(member, 1, id.c_str(), -1, SQLITE_STATIC);
                sqlite3_bind_text(member, 2, user.c_str(), -1, SQLITE_STATIC);
                Check(sqlite3_step(member), db, "member");
                sqlite3_reset(member);
            }
        }
        sqlite3_finalize(member);
        for (const char* table : {"TrustRules", "UserList"}) {
            Exec(db, std::string("DROP TABLE ") + table);
            Exec(db, std::string("ALTER TABLE Temp_") + table + " RENAME TO " + table);
        }
        for (const char* index : {"CREATE INDEX TrustRules_processName ON TrustRules(processName)",
                                  "CREATE INDEX TrustRules_signerName ON TrustRules(signerName)",
                                  "CREATE INDEX TrustRules_trustType ON TrustRules(trustType)",
                                  "CREATE INDEX TrustRules_procUser ON TrustRules(procUser)",
                                  "CREATE INDEX TrustRules_procGroup ON TrustRules(procGroup)",
                                  "CREATE INDEX TrustRules_userList ON TrustRules(userList)",
                                  "CREATE INDEX UserList_id_user ON UserList(id, user)"}) {
            Exec(db, index);
        }
        Exec(db, "END TRANSACTION");
        sqlite3_wal_checkpoint_v2(db, "main", SQLITE_CHECKPOINT_FULL, nullptr, nullptr);
        sqlite3_close_v2(db);
    });
}

// ---- Metrics ----------------------------------------------------------------

constexpr int kMetricsTrustRules = 1000;

// A store with 1,000 trust rules, each matched at least once so that every
// rule is listed in the document, and with or without the million scanned
// items (two of the document's counts read the whole inventory).
fs::path MetricsStore(bool withItems) {
    fs::path file = WorkDir() / "metrics-rules-only.db";
    if (withItems) {
        file = FreshCopy("metrics.db");
    } else {
        for (const char* suffix : {"", "-wal", "-shm"}) fs::remove(file.string() + suffix);
        OpenStore(file);
        ZorvDAL::Instance().Shutdown();
    }
    sqlite3* db = OpenBare(file);
    Exec(db, "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < " +
                 std::to_string(kMetricsTrustRules) +
                 ") INSERT INTO TrustRules(processName, paths, trustType, signerName, issuerCN, hitcount, ruleset) "
                 "SELECT 'c:\\tools\\updater' || i || '*.exe', 'c:\\program files\\**;d:\\apps\\*', i % 4, "
                 "'Signer ' || (i % 50), 'Issuing CA', 1 + i % 7, 'trustrules_bench' FROM n");
    sqlite3_close_v2(db);
    return file;
}

void BM_MetricsDocument(benchmark::State& state) {
    OpenStore(MetricsStore(state.range(0) != 0));
    std::vector<char> buffer(1 << 20);
    bool ok = true;
    Measure(state, 1, [&] {
        uint32_t size = static_cast<uint32_t>(buffer.size());
        ok &= zorv::ZorvStats::Instance().GetMetrics(buffer.data(), &size) == AC_OK;
    });
    if (!ok) state.SkipWithError("metrics failed");
    ZorvDAL::Instance().Shutdown();
}

// The statements behind the document, stepped to their end on a bare connection.
void BM_MetricsDocumentBare(benchmark::State& state) {
    sqlite3* db = OpenBare(MetricsStore(state.range(0) != 0));
    const char* const statements[] = {
        "SELECT trustRuleId, paths, hitcount, processName, ruleset, trustType, signerName, productName, companyName, "
        "sha256, issuerCN, issuerC, issuerS, issuerL, issuerO, issuerOU, procUser, procGroup, userList FROM "
        "TrustRules WHERE hitcount >= 1 ;",
        "SELECT count(*) totalInventoryItems, SUM(CASE WHEN source=1 THEN 1 ELSE 0 END) agentRules, SUM(CASE WHEN "
        "source=2 THEN 1 ELSE 0 END) executionRules, SUM(CASE WHEN source=3 THEN 1 ELSE 0 END) scannedItems, SUM(CASE "
        "WHEN source=4 THEN 1 ELSE 0 END) approvedDrift FROM InventoryItems;",
        "SELECT count(*) totalTrustRules FROM TrustRules;",
        "SELECT count(*) totalUserGroupTrustRules FROM TrustRules WHERE procUser IS NOT NULL OR procGroup IS NOT NULL "
        "OR userList IS NOT NULL;",
        "SELECT ruleset, count(*) totalRules FROM InventoryItems WHERE ruleset != '' GROUP BY ruleset;",
    };
    Measure(state, 1, [&] {
        for (const char* sql : statements) {
            sqlite3_stmt* stmt = nullptr;
            Check(sqlite3_prepare_v2(db, sql, -1, &stmt, nullptr), db, "prepare");
            while (sqlite3_step(stmt) == SQLITE_ROW) {
                for (int c = 0; c < sqlite3_column_count(stmt); ++c) benchmark::DoNotOptimize(sqlite3_column_text(stmt, c));
            }
            sqlite3_finalize(stmt);
        }
    });
    sqlite3_close_v2(db);
}

// ---- Export -----------------------------------------------------------------

void BM_ExportInventory(benchmark::State& state) {
    OpenStore(ScannedTemplate());
    const std::u16string payload = zorv::Utf8ToUtf16((WorkDir() / "page.jsonl").string());
    bool ok = true;
    Measure(state, kScannedItems, [&] {
        for (uint64_t after = 0; after < static_cast<uint64_t>(kScannedItems); after += kExportPage) {
            ok &= ZorvDAL::Instance().GetItems(after, kExportPage, 0, payload, u"5f1e2d3c-bench");
        }
    });
    if (!ok) state.SkipWithError("export failed");
    ZorvDAL::Instance().Shutdown();
}

void AppendHex(std::string& out, const void* blob, int bytes) {
    static constexpr char kDigits[] = "0123456789abcdef";
    const auto* b = static_cast<const uint8_t*>(blob);
    for (int i = 0; i < bytes; ++i) {
        out += kDigits[b[i] >> 4];
        out += kDigits[b[i] & 15];
    }
}

void BM_ExportInventoryBare(benchmark::State& state) {
    const fs::path payload = WorkDir() / "bare-page.jsonl";
    sqlite3* db = OpenBare(ScannedTemplate());
    Measure(state, kScannedItems, [&] {
        sqlite3_stmt* page = nullptr;
        Check(sqlite3_prepare_v2(db, "SELECT * FROM Items WHERE inventoryItemId > ? ORDER BY inventoryItemId LIMIT ?",
                                 -1, &page, nullptr),
              db, "prepare");
        std::string md5, sha1, sha256;
        char line[4096];
        for (int64_t after = 0; after < kScannedItems; after += kExportPage) {
            std::FILE* out = std::fopen(payload.string().c_str(), "wb");
            sqlite3_bind_int64(page, 1, after);
            sqlite3_bind_int64(page, 2, kExportPage);
            while (sqlite3_step(page) == SQLITE_ROW) {
                md5.clear();
                sha1.clear();
                sha256.clear();
                AppendHex(md5, sqlite3_column_blob(page, 4), sqlite3_column_bytes(page, 4));
                AppendHex(sha1, sqlite3_column_blob(page, 5), sqlite3_column_bytes(page, 5));
                AppendHex(sha256, sqlite3_column_blob(page, 6), sqlite3_column_bytes(page, 6));
                const int n = std::snprintf(
                    line, sizeof line,
                    "{\"inventoryItemId\":%lld,\"fileName\":\"%s\",\"path\":\"%s\",\"nativePath\":\"%s\",\"md5\":"
                    "\"%s\",\"sha1\":\"%s\",\"sha256\":\"%s\",\"size\":%d,\"recordTime\":%lld,\"isAuthorized\":%d,"
                    "\"source\":%d,\"rulesetId\":\"%s\",\"scanUuid\":\"%s\"}\r\n",
                    static_cast<long long>(sqlite3_column_int64(page, 0)), sqlite3_column_text(page, 1),
                    sqlite3_column_text(page, 2), sqlite3_column_text(page, 3), md5.c_str(), sha1.c_str(),
                    sha256.c_str(), sqlite3_column_int(page, 7), static_cast<long long>(sqlite3_column_int64(page, 8)),
                    sqlite3_column_int(page, 9), sqlite3_column_int(page, 10), sqlite3_column_text(page, 11),
                    "5f1e2d3c-bench");
                std::fwrite(line, 1, static_cast<size_t>(n), out);
            }
            sqlite3_reset(page);
            std::fclose(out);
        }
        sqlite3_finalize(page);
    });
    sqlite3_close_v2(db);
}

#define ZORV_ONCE ->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond)

BENCHMARK(BM_ImportItems)->Arg(100000)->Arg(1000000) ZORV_ONCE;
BENCHMARK(BM_ImportItemsBare)->Arg(100000)->Arg(1000000) ZORV_ONCE;
BENCHMARK(BM_AppendItems)->Arg(100000) ZORV_ONCE;
BENCHMARK(BM_AppendItemsBare)->Arg(100000) ZORV_ONCE;
BENCHMARK(BM_ImportTrustRules) ZORV_ONCE;
BENCHMARK(BM_ImportTrustRulesBare) ZORV_ONCE;
BENCHMARK(BM_ExportInventory) ZORV_ONCE;
BENCHMARK(BM_ExportInventoryBare) ZORV_ONCE;
// Argument: 1 with the million scanned items, 0 with the trust rules alone.
BENCHMARK(BM_MetricsDocument)->Arg(0)->Arg(1)->Iterations(5)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_MetricsDocumentBare)->Arg(0)->Arg(1)->Iterations(5)->UseManualTime()->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
    using zorv::bench::Goal;
    const int rc = zorv::bench::RunWithGoals(
        argc, argv,
        {
            {"import 100,000 items (replace) vs bare swap", "BM_ImportItems/100000", "BM_ImportItemsBare/100000", 1.5},
            {"import 1,000,000 items (replace) vs bare swap", "BM_ImportItems/1000000", "BM_ImportItemsBare/1000000",
             1.5},
            {"append 100,000 items vs bare swap", "BM_AppendItems/100000", "BM_AppendItemsBare/100000", 1.5},
            {"import 10,000 trust rules + user lists vs bare", "BM_ImportTrustRules", "BM_ImportTrustRulesBare", 1.5},
            {"export 1,000,000 items in pages of 10,000 vs bare", "BM_ExportInventory", "BM_ExportInventoryBare", 2},
            {"metrics, 1,000 trust rules, no items vs bare statements", "BM_MetricsDocument/0", "BM_MetricsDocumentBare/0"},
            {"metrics, 1,000 trust rules + 1,000,000 items vs bare", "BM_MetricsDocument/1", "BM_MetricsDocumentBare/1"},
            Goal{"peak MB during the 1,000,000-item import", "BM_ImportItems/1000000", "", 0, 0, "peak_MB", 1536},
            Goal{"peak memory / file size, 1,000,000-item import", "BM_ImportItems/1000000", "", 0, 0,
                 "peak_per_file", 3},
            Goal{"process peak MB after the 1,000,000-item import", "BM_ImportItems/1000000", "", 0, 0, "proc_peak_MB",
                 1536},
        });
    std::error_code ignored;
    fs::remove_all(WorkDir(), ignored);
    return rc;
}

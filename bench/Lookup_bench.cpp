// The rule store's price per event on an inventory of 1,000,000 items with
// random digests, sizes and names from mixed sources, beside one bare
// prepared SELECT of the same row on a connection of its own: the floor that
// the lock, the statement sharing and the verdict are judged against (goal:
// the engine within 1.5 times the bare statement). Also the trust-rule scan
// over 1,000 wildcard rules and the wildcard matcher on 260-character paths.
//
// Present rows of a ruleset are answered by the first query; scanned rows and
// absent digests are asked again of every source, so they cost two queries,
// and their limit is the same two bare queries in a row. The SHA-1 cases run
// last: the rules they add make every miss ask a third query.
#include <benchmark/benchmark.h>
#include <sqlite3.h>

#include <array>
#include <cstdint>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include "BenchInventory.h"
#include "BenchReport.h"
#include "Zorv.h"
#include "ZorvDataAccessLayer.h"
#include "ZorvText.h"

namespace {

namespace fs = std::filesystem;
using zorv::EngineEvent;
using zorv::ZorvDAL;
using namespace zorv::bench;

// Events prepared up front and cycled through: few enough that their pages
// stay in the 20 MB page cache, so the figures compare the work per lookup
// rather than the disk.
constexpr size_t kProbes = 1024;
constexpr int kSha1Rules = 1000;

enum class Probe { RulesetRow, ScannedRow, Absent };

// The store, opened through the process-wide DAL once per process.
struct Store {
    fs::path dir;
    fs::path file;
    bool ready = false;
    bool sha1Rules = false;

    Store() {
        dir = fs::temp_directory_path() / ("zorv-lookup-bench-" + std::to_string(std::random_device{}()));
        file = dir / "ac.db";
        ZorvDAL& dal = ZorvDAL::Instance();
        ready = CopyInventory(file) && AddTrustRules(file) && dal.SetDBPath(zorv::Utf8ToUtf16(file.string())) &&
                dal.InitDB() && dal.TrustRulesEnabled() && dal.Sha1RuleCount() == 0;
    }
    ~Store() {
        ZorvDAL::Instance().Shutdown();
        std::error_code ignored;
        fs::remove_all(dir, ignored);
    }

    // Adds rules known only by SHA-1 and lets the DAL count them again.
    bool AddSha1Rules() {
        if (sha1Rules) return true;
        sqlite3* db = nullptr;
        if (sqlite3_open_v2(file.string().c_str(), &db, SQLITE_OPEN_READWRITE, nullptr) != SQLITE_OK) return false;
        sqlite3_stmt* insert = nullptr;
        bool ok = ExecSql(db, "BEGIN;") &&
                  sqlite3_prepare_v2(db,
                                     "INSERT INTO InventoryItems(fileName, sha1, size, isAuthorized, source, ruleset) "
                                     "VALUES('legacy.exe', ?1, 0, 1, 2, 'sha1_bench');",
                                     -1, &insert, nullptr) == SQLITE_OK;
        for (int i = 0; ok && i < kSha1Rules; ++i) {
            const auto sha1 = RowSha1(kInventoryRows + 1000000 + i);
            sqlite3_bind_blob(insert, 1, sha1.data(), static_cast<int>(sha1.size()), SQLITE_TRANSIENT);
            ok = sqlite3_step(insert) == SQLITE_DONE;
            sqlite3_reset(insert);
        }
        sqlite3_finalize(insert);
        ok = ok && ExecSql(db, "COMMIT;");
        sqlite3_close_v2(db);
        // Opening again is how the engine learns the counts.
        sha1Rules = ok && ZorvDAL::Instance().InitDB() && ZorvDAL::Instance().Sha1RuleCount() == kSha1Rules;
        return sha1Rules;
    }
};

Store& SharedStore() {
    static Store store;
    return store;
}

std::vector<int64_t> ProbeIds(Probe probe) {
    std::mt19937_64 random(42);
    std::vector<int64_t> ids(kProbes);
    for (auto& id : ids) {
        switch (probe) {
            case Probe::RulesetRow: id = PickRow(random, 2); break;
            case Probe::ScannedRow: id = PickRow(random, 3); break;
            case Probe::Absent: id = kInventoryRows + 1 + static_cast<int64_t>(random() % kInventoryRows); break;
        }
    }
    return ids;
}

bool StoreReady(benchmark::State& state, bool withSha1Rules) {
    Store& store = SharedStore();
    if (!store.ready) {
        state.SkipWithError("store not built");
        return false;
    }
    if (withSha1Rules && !store.AddSha1Rules()) {
        state.SkipWithError("SHA-1 rules not added");
        return false;
    }
    if (!withSha1Rules && store.sha1Rules) {
        state.SkipWithError("run after the SHA-1 cases: the store now holds SHA-1 rules");
        return false;
    }
    return true;
}

void LookupThroughEngine(benchmark::State& state, Probe probe, bool withSha1Rules) {
    if (!StoreReady(state, withSha1Rules)) return;
    std::vector<EngineEvent> events(kProbes);
    const auto ids = ProbeIds(probe);
    for (size_t i = 0; i < kProbes; ++i) {
        events[i].size = static_cast<uint64_t>(RowSize(ids[i]));
        events[i].fileSha256.SetFromBytes(RowSha256(ids[i]).data());
        events[i].fileSha1.SetFromBytes(RowSha1(ids[i]).data());
    }
    ZorvDAL& dal = ZorvDAL::Instance();
    const uint32_t expected = probe == Probe::Absent ? AC_DB_NOT_KNOWN : AC_DB_ALLOWED;
    // One untimed pass brings the probes' pages into the cache, as for the bare select.
    for (EngineEvent& event : events) dal.IsAllowedInDB(event);
    size_t next = 0;
    int64_t wrong = 0;
    for (auto _ : state) {
        EngineEvent& event = events[next++ % kProbes];
        dal.IsAllowedInDB(event);
        wrong += event.dbVerdict != expected;
    }
    state.SetItemsProcessed(state.iterations());
    if (wrong != 0) state.SkipWithError("a lookup gave the wrong verdict");
}

void BM_IsAllowedInDB_RulesetRow(benchmark::State& state) { LookupThroughEngine(state, Probe::RulesetRow, false); }
void BM_IsAllowedInDB_ScannedRow(benchmark::State& state) { LookupThroughEngine(state, Probe::ScannedRow, false); }
void BM_IsAllowedInDB_Absent(benchmark::State& state) { LookupThroughEngine(state, Probe::Absent, false); }
void BM_IsAllowedInDB_RulesetRow_Sha1Rules(benchmark::State& state) {
    LookupThroughEngine(state, Probe::RulesetRow, true);
}
void BM_IsAllowedInDB_Absent_Sha1Rules(benchmark::State& state) { LookupThroughEngine(state, Probe::Absent, true); }

// The floors: the engine's queries, prepared once on a separate connection
// with the engine's cache settings, bound, stepped and reset per lookup. The
// single select is the first query alone; the sequence adds the queries the
// engine must also ask when that one misses (SHA-1 only when such rules
// exist, then any source), so it is the limit for scanned rows and absent
// digests.
constexpr char kRulesetSql[] =
    "SELECT * FROM InventoryItems WHERE(sha256 = :hash) and (size = 0 or size = :size) AND (source = 2 OR source = "
    "1) ORDER BY inventoryItemId DESC LIMIT 1;";
constexpr char kSha1Sql[] =
    "SELECT * FROM InventoryItems WHERE((LENGTH(sha256) IS NULL) AND(sha1 = :sha1)) ORDER BY inventoryItemId DESC "
    "LIMIT 1;";
constexpr char kAnySql[] =
    "SELECT * FROM InventoryItems WHERE(sha256 = :hash) and (size = 0 or size = :size) ORDER BY inventoryItemId "
    "DESC LIMIT 1;";

// One step of a bare statement; true when it found a row.
bool StepOnce(sqlite3_stmt* stmt, const void* digest, int bytes, int64_t size, bool bindSize) {
    sqlite3_bind_blob(stmt, 1, digest, bytes, SQLITE_TRANSIENT);
    if (bindSize) sqlite3_bind_int64(stmt, 2, size);
    const bool found = sqlite3_step(stmt) == SQLITE_ROW;
    if (found) benchmark::DoNotOptimize(sqlite3_column_int(stmt, 10));
    sqlite3_reset(stmt);
    sqlite3_clear_bindings(stmt);
    return found;
}

void BareSelect(benchmark::State& state, Probe probe, bool sequence, bool withSha1Rules) {
    if (!StoreReady(state, withSha1Rules)) return;
    sqlite3* db = nullptr;
    sqlite3_open_v2(SharedStore().file.string().c_str(), &db, SQLITE_OPEN_READWRITE, nullptr);
    ExecSql(db, "PRAGMA cache_size = -20000;");
    ExecSql(db, "PRAGMA mmap_size = 27262976;");
    sqlite3_stmt* ruleset = nullptr;
    sqlite3_stmt* sha1 = nullptr;
    sqlite3_stmt* any = nullptr;
    sqlite3_prepare_v2(db, kRulesetSql, -1, &ruleset, nullptr);
    sqlite3_prepare_v2(db, kSha1Sql, -1, &sha1, nullptr);
    sqlite3_prepare_v2(db, kAnySql, -1, &any, nullptr);
    std::vector<std::array<uint8_t, 32>> digests;
    std::vector<std::array<uint8_t, 20>> sha1s;
    std::vector<int64_t> sizes;
    for (int64_t id : ProbeIds(probe)) {
        digests.push_back(RowSha256(id));
        sha1s.push_back(RowSha1(id));
        sizes.push_back(RowSize(id));
    }
    const auto lookup = [&](size_t i) {
        bool hit = StepOnce(ruleset, digests[i].data(), 32, sizes[i], true);
        if (!hit && sequence && withSha1Rules) hit = StepOnce(sha1, sha1s[i].data(), 20, 0, false);
        if (!hit && sequence) hit = StepOnce(any, digests[i].data(), 32, sizes[i], true);
        return hit;
    };
    // One untimed pass brings the probes' pages into this connection's cache.
    for (size_t i = 0; i < kProbes; ++i) lookup(i);
    size_t next = 0;
    int64_t found = 0;
    for (auto _ : state) found += lookup(next++ % kProbes);
    for (sqlite3_stmt* stmt : {ruleset, sha1, any}) sqlite3_finalize(stmt);
    sqlite3_close_v2(db);
    state.SetItemsProcessed(state.iterations());
    const bool expectRows = probe == Probe::RulesetRow || (probe == Probe::ScannedRow && sequence);
    if (found != (expectRows ? static_cast<int64_t>(state.iterations()) : 0))
        state.SkipWithError("the bare select disagrees with the store");
}

void BM_Bare_Select_RulesetRow(benchmark::State& state) { BareSelect(state, Probe::RulesetRow, false, false); }
void BM_Bare_Select_Absent(benchmark::State& state) { BareSelect(state, Probe::Absent, false, false); }
void BM_Bare_Sequence_ScannedRow(benchmark::State& state) { BareSelect(state, Probe::ScannedRow, true, false); }
void BM_Bare_Sequence_Absent(benchmark::State& state) { BareSelect(state, Probe::Absent, true, false); }
void BM_Bare_Sequence_Absent_Sha1Rules(benchmark::State& state) { BareSelect(state, Probe::Absent, true, true); }


// ---- Trust rules ----------------------------------------------------------

// A start by the updater that the last of the 1,000 rules names: every rule is
// read and its wildcard process name tested before that one matches.
void BM_IsFoundInTrustRules_1000Rules(benchmark::State& state, bool match) {
    if (!StoreReady(state, false)) return;
    EngineEvent event;
    event.processName = match ? kTrustedProcess : u"c:\\program files\\other\\tool.exe";
    event.name = u"c:\\program files\\vendor499\\product07\\setup.exe";
    event.user = u"corp\\alice";
    ZorvDAL& dal = ZorvDAL::Instance();
    int64_t wrong = 0;
    for (auto _ : state) wrong += dal.IsFoundInTrustRules(2, event) != match;
    state.SetItemsProcessed(state.iterations());
    if (wrong != 0) state.SkipWithError("the trust rules answered wrongly");
}
// The limit: the engine's trust-rule query with the same values bound, every
// candidate row stepped and its pattern columns read, on a bare connection.
// What the engine spends beyond this is its own matching of each candidate.
void BM_Bare_TrustRuleQuery_1000Rules(benchmark::State& state) {
    if (!StoreReady(state, false)) return;
    sqlite3* db = nullptr;
    sqlite3_open_v2(SharedStore().file.string().c_str(), &db, SQLITE_OPEN_READWRITE, nullptr);
    ExecSql(db, "PRAGMA cache_size = -20000;");
    sqlite3_stmt* stmt = nullptr;
    sqlite3_prepare_v2(
        db,
        "SELECT trustRuleId, paths, hitcount, processName, ruleset, procGroup FROM TrustRules LEFT JOIN UserList ON "
        "TrustRules.userList = UserList.id WHERE (processName is NULL or processName = :processName or "
        "instr(processName,'?') or instr(processName,'*')) and (trustType = 0 or trustType = :trustType) and "
        "(signerName is NULL or signerName = :signerName) and (productName is NULL or productName = :productName) "
        "and (companyName is NULL or companyName = :companyName) and (sha256 is NULL or sha256 = :sha256) and "
        "(issuerCN is NULL or issuerCN= :issuerCN) and (issuerC is NULL or issuerC= :issuerC) and (issuerS is NULL "
        "or issuerS= :issuerS) and (issuerL is NULL or issuerL= :issuerL) and (issuerO is NULL or issuerO= :issuerO) "
        "and (issuerOU is NULL or issuerOU= :issuerOU) and (procGroup is NULL or INSTR(:procGroup, procGroup)) and "
        "((TrustRules.userList is NULL and TrustRules.procUser is NULL) or (TrustRules.procUser = :procUser or "
        "UserList.user = :procUser)) ORDER BY trustRuleId ;",
        -1, &stmt, nullptr);
    const std::string process = zorv::Utf16ToUtf8(kTrustedProcess);
    int64_t rows = 0;
    for (auto _ : state) {
        for (const char* name : {":signerName", ":productName", ":companyName", ":issuerCN", ":issuerC", ":issuerS",
                                 ":issuerL", ":issuerO", ":issuerOU", ":procGroup"}) {
            sqlite3_bind_text(stmt, sqlite3_bind_parameter_index(stmt, name), "", -1, SQLITE_STATIC);
        }
        sqlite3_bind_text(stmt, sqlite3_bind_parameter_index(stmt, ":processName"), process.c_str(), -1,
                          SQLITE_TRANSIENT);
        sqlite3_bind_int(stmt, sqlite3_bind_parameter_index(stmt, ":trustType"), 2);
        sqlite3_bind_null(stmt, sqlite3_bind_parameter_index(stmt, ":sha256"));
        sqlite3_bind_text(stmt, sqlite3_bind_parameter_index(stmt, ":procUser"), "corp\\alice", -1, SQLITE_STATIC);
        while (sqlite3_step(stmt) == SQLITE_ROW) {
            benchmark::DoNotOptimize(sqlite3_column_text(stmt, 1));
            benchmark::DoNotOptimize(sqlite3_column_text(stmt, 3));
            ++rows;
        }
        sqlite3_reset(stmt);
        sqlite3_clear_bindings(stmt);
    }
    sqlite3_finalize(stmt);
    sqlite3_close_v2(db);
    state.SetItemsProcessed(state.iterations());
    state.counters["rows/query"] = benchmark::Counter(static_cast<double>(rows), benchmark::Counter::kAvgIterations);
}

void BM_IsFoundInTrustRules_1000Rules_Match(benchmark::State& state) { BM_IsFoundInTrustRules_1000Rules(state, true); }
void BM_IsFoundInTrustRules_1000Rules_NoMatch(benchmark::State& state) {
    BM_IsFoundInTrustRules_1000Rules(state, false);
}

// ---- Wildcards ------------------------------------------------------------

// A 260-unit path (the classic Windows limit), lower-case as the engine passes it.
std::u16string LongPath() {
    std::u16string path = u"c:\\program files\\vendor\\";
    while (path.size() < 240) path += u"subdirectory\\";
    path.resize(240);
    path += u"\\";
    while (path.size() < 256) path += u'x';
    return path + u".exe";
}

void WildcardCase(benchmark::State& state, std::u16string_view pattern, bool expected) {
    const std::u16string text = LongPath();
    int64_t wrong = 0;
    for (auto _ : state) wrong += ZorvDAL::WildcardMatch(text, pattern) != expected;
    state.SetItemsProcessed(state.iterations());
    state.counters["text_units"] = static_cast<double>(text.size());
    if (wrong != 0) state.SkipWithError("the matcher answered wrongly");
}
void BM_WildcardMatch_260_AnyDepth(benchmark::State& state) {
    WildcardCase(state, u"c:\\program files\\**\\*.exe", true);
}
void BM_WildcardMatch_260_Stars(benchmark::State& state) { WildcardCase(state, u"c:\\*\\*\\*\\*\\*.exe", false); }
void BM_WildcardMatch_260_Question(benchmark::State& state) {
    WildcardCase(state, u"c:\\program files\\vendor\\**\\xxxxxxxxxxxxx??.exe", true);
}
void BM_WildcardMatch_260_Plain(benchmark::State& state) {
    WildcardCase(state, u"c:\\program files\\vendor\\other.exe", false);
}

BENCHMARK(BM_Bare_Select_RulesetRow);
BENCHMARK(BM_IsAllowedInDB_RulesetRow);
BENCHMARK(BM_Bare_Sequence_ScannedRow);
BENCHMARK(BM_IsAllowedInDB_ScannedRow);
BENCHMARK(BM_Bare_Select_Absent);
BENCHMARK(BM_Bare_Sequence_Absent);
BENCHMARK(BM_IsAllowedInDB_Absent);
BENCHMARK(BM_Bare_TrustRuleQuery_1000Rules);
BENCHMARK(BM_IsFoundInTrustRules_1000Rules_Match);
BENCHMARK(BM_IsFoundInTrustRules_1000Rules_NoMatch);
BENCHMARK(BM_WildcardMatch_260_AnyDepth);
BENCHMARK(BM_WildcardMatch_260_Stars);
BENCHMARK(BM_WildcardMatch_260_Question);
BENCHMARK(BM_WildcardMatch_260_Plain);
// Last: these add SHA-1 rules to the store for good.
BENCHMARK(BM_IsAllowedInDB_RulesetRow_Sha1Rules);
BENCHMARK(BM_Bare_Sequence_Absent_Sha1Rules);
BENCHMARK(BM_IsAllowedInDB_Absent_Sha1Rules);

}  // namespace

int main(int argc, char** argv) {
    return zorv::bench::RunWithGoals(
        argc, argv,
        {
            {"IsAllowedInDB, ruleset row vs bare select", "BM_IsAllowedInDB_RulesetRow", "BM_Bare_Select_RulesetRow", 1.5},
            {"IsAllowedInDB, ruleset row, SHA-1 rules vs bare select", "BM_IsAllowedInDB_RulesetRow_Sha1Rules",
             "BM_Bare_Select_RulesetRow", 1.5},
            {"IsAllowedInDB, scanned row vs bare sequence (2 queries)", "BM_IsAllowedInDB_ScannedRow",
             "BM_Bare_Sequence_ScannedRow", 1.5},
            {"IsAllowedInDB, absent vs bare sequence (2 queries)", "BM_IsAllowedInDB_Absent", "BM_Bare_Sequence_Absent",
             1.5},
            {"IsAllowedInDB, absent, SHA-1 rules vs bare seq. (3 queries)", "BM_IsAllowedInDB_Absent_Sha1Rules",
             "BM_Bare_Sequence_Absent_Sha1Rules", 1.5},
            {"IsFoundInTrustRules, 1,000 rules, match vs bare query", "BM_IsFoundInTrustRules_1000Rules_Match",
             "BM_Bare_TrustRuleQuery_1000Rules"},
            {"IsAllowedInDB, scanned row vs one bare select", "BM_IsAllowedInDB_ScannedRow", "BM_Bare_Select_RulesetRow"},
            {"IsAllowedInDB, absent vs one bare select", "BM_IsAllowedInDB_Absent", "BM_Bare_Select_Absent"},
        });
}

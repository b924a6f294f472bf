// The trust-rule lookup at 1,000 and 10,000 rules whose process names hold
// wildcards (the worst case: no key narrows them, every one is tested) and at
// 10,000 rules naming exact processes (found by key), beside the bare lookup
// statement the engine used to run. Also what a snapshot costs: the time to
// read 10,000 rules and swap them in, and the memory per rule at 100,000.
//
// Goals are absolute (microseconds per lookup, milliseconds per swap); the
// bare statement is shown as the figure the in-memory rules replaced.
#include <benchmark/benchmark.h>
#include <malloc.h>
#include <sqlite3.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <map>
#include <memory>
#include <random>
#include <string>

#include "BenchInventory.h"
#include "BenchReport.h"
#include "ZorvDataAccessLayer.h"
#include "ZorvText.h"
#include "ZorvTrustRuleSet.h"

namespace {

namespace fs = std::filesystem;
using zorv::EngineEvent;
using zorv::ZorvDAL;
using namespace zorv::bench;

enum class Kind { Wildcard, ExactName };

// The numbered process the last rule names: a match tests every rule before it.
std::u16string ProcessOf(Kind kind, int i) {
    char text[96];
    std::snprintf(text, sizeof text,
                  kind == Kind::Wildcard ? "c:\\program files\\updater\\agent%05d.exe"
                                         : "c:\\program files\\app%05d\\bin\\app.exe",
                  i);
    return zorv::Utf8ToUtf16(text);
}

// A store of `count` rules of one kind with the paths of the shared bench rules.
fs::path BuildRules(Kind kind, int count) {
    const fs::path dir = fs::temp_directory_path() /
                         ("zorv-trustrules-bench-" + std::to_string(std::random_device{}()) + "-" + std::to_string(count));
    fs::create_directories(dir);
    const fs::path file = dir / "ac.db";
    {
        ZorvDAL dal;  // creates the schema
        dal.SetDBPath(zorv::Utf8ToUtf16(file.string()));
        dal.InitDB();
        dal.Shutdown();
    }
    sqlite3* db = nullptr;
    sqlite3_open_v2(file.string().c_str(), &db, SQLITE_OPEN_READWRITE, nullptr);
    sqlite3_stmt* insert = nullptr;
    ExecSql(db, "BEGIN;");
    sqlite3_prepare_v2(db, "INSERT INTO TrustRules(processName, paths, trustType, ruleset) VALUES(?1, ?2, 2, 'bench');",
                       -1, &insert, nullptr);
    char process[96];
    char paths[256];
    for (int i = 0; i < count; ++i) {
        std::snprintf(process, sizeof process,
                      kind == Kind::Wildcard ? "c:\\program files\\updater\\agent%05d*.exe"
                                             : "c:\\program files\\app%05d\\bin\\app.exe",
                      i);
        std::snprintf(paths, sizeof paths,
                      "c:\\program files\\vendor%03d\\**;d:\\apps\\v%d\\*\\bin\\*.exe;c:\\program files\\?endor%03d\\*",
                      i % 500, i, (i + 7) % 500);
        sqlite3_bind_text(insert, 1, process, -1, SQLITE_TRANSIENT);
        sqlite3_bind_text(insert, 2, paths, -1, SQLITE_TRANSIENT);
        sqlite3_step(insert);
        sqlite3_reset(insert);
    }
    sqlite3_finalize(insert);
    ExecSql(db, "COMMIT;");
    sqlite3_close_v2(db);
    return file;
}

struct RuleStore {
    fs::path file;
    ZorvDAL dal;
    RuleStore(Kind kind, int count) : file(BuildRules(kind, count)) {
        dal.SetDBPath(zorv::Utf8ToUtf16(file.string()));
        dal.InitDB();
    }
    ~RuleStore() {
        dal.Shutdown();
        std::error_code ignored;
        fs::remove_all(file.parent_path(), ignored);
    }
};

RuleStore& Store(Kind kind, int count) {
    static std::map<std::pair<int, int>, std::unique_ptr<RuleStore>> stores;
    auto& store = stores[{static_cast<int>(kind), count}];
    if (!store) store = std::make_unique<RuleStore>(kind, count);
    return *store;
}

EngineEvent EventFor(Kind kind, int count, bool match) {
    EngineEvent event;
    event.processName = match ? ProcessOf(kind, count - 1) : u"c:\\program files\\other\\tool.exe";
    event.name = u"c:\\program files\\vendor" + zorv::Utf8ToUtf16(std::to_string((count - 1) % 500)) +
                 u"\\product07\\setup.exe";
    event.user = u"corp\\alice";
    return event;
}

// Wall microseconds per lookup as a counter, so the table can hold it to an
// absolute bound.
void Lookup(benchmark::State& state, Kind kind, bool match) {
    const int count = static_cast<int>(state.range(0));
    RuleStore& store = Store(kind, count);
    const EngineEvent prototype = EventFor(kind, count, match);
    int64_t wrong = 0;
    ThreadCpu cpu(state);
    const auto start = std::chrono::steady_clock::now();
    for (auto _ : state) {
        EngineEvent event = prototype;
        wrong += store.dal.IsFoundInTrustRules(2, event) != match;
    }
    const double us = std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - start).count();
    cpu.Stop();
    state.counters["us"] = us / static_cast<double>(state.iterations());
    state.SetItemsProcessed(state.iterations());
    if (wrong != 0) state.SkipWithError("the trust rules answered wrongly");
}
void BM_TrustRules_Wildcard_Match(benchmark::State& state) { Lookup(state, Kind::Wildcard, true); }
void BM_TrustRules_Wildcard_NoMatch(benchmark::State& state) { Lookup(state, Kind::Wildcard, false); }
void BM_TrustRules_ExactName_Match(benchmark::State& state) { Lookup(state, Kind::ExactName, true); }

// What the engine ran before: the lookup statement, every candidate stepped
// and its pattern columns read, on a connection of its own. The checks in code
// that followed each row come on top of this.
void BM_Bare_TrustRuleQuery(benchmark::State& state) {
    const int count = static_cast<int>(state.range(0));
    RuleStore& store = Store(Kind::Wildcard, count);
    sqlite3* db = nullptr;
    sqlite3_open_v2(store.file.string().c_str(), &db, SQLITE_OPEN_READWRITE, nullptr);
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
    const std::string process = zorv::Utf16ToUtf8(ProcessOf(Kind::Wildcard, count - 1));
    ThreadCpu cpu(state);
    const auto start = std::chrono::steady_clock::now();
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
        }
        sqlite3_reset(stmt);
        sqlite3_clear_bindings(stmt);
    }
    const double us = std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - start).count();
    cpu.Stop();
    state.counters["us"] = us / static_cast<double>(state.iterations());
    sqlite3_finalize(stmt);
    sqlite3_close_v2(db);
    state.SetItemsProcessed(state.iterations());
}

// Reading the tables and swapping the new snapshot in, as after an import.
void BM_TrustRuleSet_SwapIn(benchmark::State& state) {
    const int count = static_cast<int>(state.range(0));
    RuleStore& store = Store(Kind::Wildcard, count);
    sqlite3* db = nullptr;
    sqlite3_open_v2(store.file.string().c_str(), &db, SQLITE_OPEN_READONLY, nullptr);
    zorv::ZorvTrustRuleSet set;
    ThreadCpu cpu(state);
    const auto start = std::chrono::steady_clock::now();
    for (auto _ : state) set.Load(db);
    const double ms = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
    cpu.Stop();
    state.counters["ms"] = ms / static_cast<double>(state.iterations());
    sqlite3_close_v2(db);
    if (set.RuleCount() != static_cast<size_t>(count)) state.SkipWithError("rules missing after the load");
}

// Heap bytes per rule once 100,000 are loaded (three path patterns and a
// wildcard process name each, or an exact name and the same paths).
void MemoryPerRule(benchmark::State& state, Kind kind) {
    const int count = static_cast<int>(state.range(0));
    RuleStore& store = Store(kind, count);
    sqlite3* db = nullptr;
    sqlite3_open_v2(store.file.string().c_str(), &db, SQLITE_OPEN_READONLY, nullptr);
    double perRule = 0;
    for (auto _ : state) {
        malloc_trim(0);
        const size_t before = mallinfo2().uordblks;
        auto set = std::make_unique<zorv::ZorvTrustRuleSet>();
        set->Load(db);
        const size_t after = mallinfo2().uordblks;
        perRule = static_cast<double>(after - before) / count;
        set.reset();
    }
    sqlite3_close_v2(db);
    state.counters["bytes_per_rule"] = perRule;
}
void BM_TrustRuleSet_Memory_Wildcard(benchmark::State& state) { MemoryPerRule(state, Kind::Wildcard); }
void BM_TrustRuleSet_Memory_ExactName(benchmark::State& state) { MemoryPerRule(state, Kind::ExactName); }

BENCHMARK(BM_Bare_TrustRuleQuery)->Arg(1000)->Arg(10000);
BENCHMARK(BM_TrustRules_Wildcard_Match)->Arg(1000)->Arg(10000);
BENCHMARK(BM_TrustRules_Wildcard_NoMatch)->Arg(1000)->Arg(10000);
BENCHMARK(BM_TrustRules_ExactName_Match)->Arg(10000);
BENCHMARK(BM_TrustRuleSet_SwapIn)->Arg(10000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_TrustRuleSet_Memory_Wildcard)->Arg(100000)->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_TrustRuleSet_Memory_ExactName)->Arg(100000)->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
    using zorv::bench::Goal;
    auto absolute = [](std::string text, std::string figure, std::string counter, double bound) {
        Goal goal;
        goal.text = std::move(text);
        goal.figure = std::move(figure);
        goal.counter = std::move(counter);
        goal.maxValue = bound;
        return goal;
    };
    return zorv::bench::RunWithGoals(
        argc, argv,
        {
            absolute("trust-rule match, 1,000 wildcard rules (us)", "BM_TrustRules_Wildcard_Match/1000", "us", 20),
            absolute("trust-rule match, 10,000 wildcard rules (us)", "BM_TrustRules_Wildcard_Match/10000", "us", 200),
            absolute("trust-rule miss, 10,000 wildcard rules (us)", "BM_TrustRules_Wildcard_NoMatch/10000", "us", 200),
            absolute("trust-rule match, 10,000 exact names (us)", "BM_TrustRules_ExactName_Match/10000", "us", 5),
            {"match, 1,000 wildcard rules vs bare statement", "BM_TrustRules_Wildcard_Match/1000",
             "BM_Bare_TrustRuleQuery/1000"},
            {"match, 10,000 wildcard rules vs bare statement", "BM_TrustRules_Wildcard_Match/10000",
             "BM_Bare_TrustRuleQuery/10000"},
            absolute("swap-in of 10,000 rules (ms)", "BM_TrustRuleSet_SwapIn/10000", "ms", 100),
            absolute("memory per rule, 100,000 wildcard rules (bytes)", "BM_TrustRuleSet_Memory_Wildcard/100000",
                     "bytes_per_rule", 2048),
            absolute("memory per rule, 100,000 exact names (bytes)", "BM_TrustRuleSet_Memory_ExactName/100000",
                     "bytes_per_rule", 2048),
        });
}

// zorv export of a million-row inventory into one stream beside the bare
// export: get_inventory alone, page after page of 10,000 into its payload.
#include <cstring>

#include "BenchReport.h"
#include "BenchStore.h"

namespace {

using namespace zorv::bench;

void BM_Bare_GetInventoryPages(benchmark::State& state) {
    if (!MakeBenchStore()) return state.SkipWithError("cannot build the store");
    const std::string db = BenchStorePath().string();
    const std::string payload = (BenchDir("inventory") / "payload.jsonl").string();
    const std::u16string dbPath(db.begin(), db.end()), payloadPath(payload.begin(), payload.end());
    const char16_t scanId[] = u"";
    for (auto _ : state) {
        // Timed from engine_start to engine_stop, as the zorv run is.
        const double cpuBefore = ProcessCpuSeconds();
        const auto start = std::chrono::steady_clock::now();
        EngineStartParams params = QuietStartParams(reinterpret_cast<const ZorvChar*>(dbPath.c_str()));
        engine_start(&params);
        uint64_t after = 0, rows = 0;
        std::string line, last;
        for (;;) {
            get_inventory(after, 10000, 0, reinterpret_cast<const ZorvChar*>(payloadPath.c_str()),
                          reinterpret_cast<const ZorvChar*>(scanId));
            // The least a pager must read back: the page's length and last id.
            std::ifstream page(payload, std::ios::binary);
            uint64_t pageRows = 0;
            while (std::getline(page, line)) ++pageRows, last.swap(line);
            rows += pageRows;
            if (pageRows < 10000) break;
            after = std::strtoull(last.c_str() + std::strlen("{\"inventoryItemId\":"), nullptr, 10);
        }
        engine_stop();
        state.SetIterationTime(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
        state.counters["cpu_s"] = ProcessCpuSeconds() - cpuBefore;
        state.counters["rows"] = static_cast<double>(rows);
    }
}

void BM_ZorvExport(benchmark::State& state) {
    if (!MakeBenchStore()) return state.SkipWithError("cannot build the store");
    const std::string out = (BenchDir("inventory") / "export.jsonl").string();
    for (auto _ : state)
        ReportChild(state, RunZorv({"export", "--out", out, "--quiet", "--db", BenchStorePath().string()}));
}

BENCHMARK(BM_Bare_GetInventoryPages)->Iterations(1)->UseManualTime()->Unit(benchmark::kSecond);
BENCHMARK(BM_ZorvExport)->Iterations(1)->UseManualTime()->Unit(benchmark::kSecond);

}  // namespace

int main(int argc, char** argv) {
    std::vector<Goal> goals = {
        {"zorv export 1M items vs get_inventory pages alone", "BM_ZorvExport", "BM_Bare_GetInventoryPages", 1.1},
    };
    return RunWithGoals(argc, argv, std::move(goals));
}

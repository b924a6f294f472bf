// zorv replay of a million recorded events (80% allow-cache hits, 20%
// process starts over a million-row inventory) beside a bare loop calling
// app_ctl on the same records already built in memory, split by pid over the
// same number of threads. The replay's figure includes reading and parsing
// the file; its peak memory is reported as peak_MB.
#include <array>
#include <atomic>
#include <thread>

#include "BenchReport.h"
#include "BenchStore.h"
#include "EventLine.h"

namespace {

using namespace zorv::bench;
namespace host = zorv::host;

constexpr unsigned kThreads = 2;

// The recorded stream parsed once into plain records: texts and digests in
// pools, every AppCtlEvent pointing into them.
struct Prepared {
    std::vector<std::u16string> names;
    std::vector<std::array<uint8_t, 32>> digests;
    std::vector<AppCtlEvent> events;
};

const Prepared& PreparedEvents() {
    static const Prepared prepared = [] {
        Prepared p;
        static const std::u16string process = u"/usr/bin/bash", user = u"alice";
        p.names.reserve(StartEvents());
        p.digests.resize(StartEvents());
        p.events.reserve(StartEvents() * 5);
        for (uint64_t s = 0; s < StartEvents(); ++s) {
            const uint64_t row = StartRow(s);
            const std::string name = RowName(row);
            p.names.emplace_back(name.begin(), name.end());
            RowSha256(row, p.digests[s].data());
        }
        for (uint64_t s = 0; s < StartEvents(); ++s) {
            AppCtlEvent event{};
            event.pid = StartPid(s);
            event.processName = reinterpret_cast<const ZorvChar*>(process.c_str());
            event.name = reinterpret_cast<const ZorvChar*>(p.names[s].c_str());
            event.user = reinterpret_cast<const ZorvChar*>(user.c_str());
            event.isExec = 1;
            event.size = RowSize(StartRow(s));
            event.fileSha256 = p.digests[s].data();
            event.type = AC_OP_PROCESS_CREATE;
            p.events.push_back(event);
            event.type = AC_OP_CACHE_CHECK;
            for (int c = 0; c < 4; ++c) p.events.push_back(event);
        }
        return p;
    }();
    return prepared;
}

void BM_Bare_AppCtlLoop(benchmark::State& state) {
    if (!MakeBenchStore()) return state.SkipWithError("cannot build the store");
    const Prepared& prepared = PreparedEvents();
    const std::string db = BenchStorePath().string();
    const std::u16string path(db.begin(), db.end());
    for (auto _ : state) {
        // Timed from engine_start to engine_stop, as the replay is: a bare
        // host pays for opening and closing the store too.
        const double cpuBefore = ProcessCpuSeconds();
        const auto start = std::chrono::steady_clock::now();
        EngineStartParams params = QuietStartParams(reinterpret_cast<const ZorvChar*>(path.c_str()));
        engine_start(&params);
        set_config(0, ~0ull, ~0ull);
        std::vector<std::thread> threads;
        std::atomic<uint64_t> allowed{0};
        for (unsigned t = 0; t < kThreads; ++t) {
            threads.emplace_back([&, t] {
                uint64_t mine = 0;
                for (const AppCtlEvent& event : prepared.events) {
                    if (event.pid % kThreads != t) continue;
                    AppCtlResult result{};
                    app_ctl(nullptr, &event, &result);
                    mine += result.action == AC_DECISION_ALLOW;
                }
                allowed += mine;
            });
        }
        for (std::thread& thread : threads) thread.join();
        engine_stop();
        state.SetIterationTime(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
        state.counters["cpu_s"] = ProcessCpuSeconds() - cpuBefore;
        state.counters["allowed"] = static_cast<double>(allowed);
    }
    state.SetItemsProcessed(static_cast<int64_t>(prepared.events.size()));
}

void BM_ZorvReplay(benchmark::State& state) {
    if (!MakeBenchStore()) return state.SkipWithError("cannot build the store");
    for (auto _ : state) {
        ReportChild(state, RunZorv({"replay", BenchEventsPath().string(), "--threads", std::to_string(kThreads),
                                    "--quiet", "--db", BenchStorePath().string()}));
    }
    state.SetItemsProcessed(static_cast<int64_t>(StartEvents() * 5));
}

// The replay runs first: a child's peak memory as the kernel reports it
// starts from the parent's size at the spawn, and the bare loop's prepared
// records would count against the replay.
BENCHMARK(BM_ZorvReplay)->Iterations(1)->UseManualTime()->Unit(benchmark::kSecond);
BENCHMARK(BM_Bare_AppCtlLoop)->Iterations(1)->UseManualTime()->Unit(benchmark::kSecond);

}  // namespace

int main(int argc, char** argv) {
    std::vector<Goal> goals = {
        {"zorv replay 1M events vs bare app_ctl loop", "BM_ZorvReplay", "BM_Bare_AppCtlLoop", 1.3},
        {"zorv replay peak memory (MB)", "BM_ZorvReplay", "", 0, 0, "peak_MB", 200},
        // The same, with the pages the process shares with others (the
        // store's, in the page cache) counted in part.
        {"zorv replay peak proportional set size (MB)", "BM_ZorvReplay", "", 0, 0, "peak_pss_MB", 200},
    };
    return RunWithGoals(argc, argv, std::move(goals));
}

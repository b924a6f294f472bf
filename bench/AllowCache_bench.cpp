// The allow cache's price per event: hits and misses on a warm cache, alone
// and with several event threads sharing its one lock, beside the same nested
// maps with no lock at all (the floor the lock is judged against).
#include <benchmark/benchmark.h>

#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "ZorvAllowCache.h"

namespace {

using zorv::AllowCache;

constexpr size_t kTargets = 2000;  // a busy machine's working set, under the 4096 limit

struct Keys {
    std::u16string user = u"CORP\\alice";
    std::u16string process = u"C:\\Windows\\explorer.exe";
    std::vector<std::u16string> targets;
    std::vector<std::u16string> unknown;

    Keys() {
        for (size_t i = 0; i < kTargets; ++i) {
            std::u16string suffix;
            for (char c : std::to_string(i)) suffix.push_back(static_cast<char16_t>(c));
            targets.push_back(u"C:\\Program Files\\Vendor\\Product\\bin\\module" + suffix + u".dll");
            unknown.push_back(u"C:\\Users\\alice\\Downloads\\setup" + suffix + u".exe");
        }
    }
};

const Keys& SharedKeys() {
    static const Keys keys;
    return keys;
}

AllowCache& WarmCache() {
    static AllowCache* cache = [] {
        auto* warm = new AllowCache;
        const Keys& keys = SharedKeys();
        for (const std::u16string& target : keys.targets) warm->Add(keys.user, keys.process, target);
        return warm;
    }();
    return *cache;
}

void BM_AllowCacheHit(benchmark::State& state) {
    const Keys& keys = SharedKeys();
    AllowCache& cache = WarmCache();
    size_t i = static_cast<size_t>(state.thread_index()) * 131;
    for (auto _ : state) {
        benchmark::DoNotOptimize(cache.Contains(keys.user, keys.process, keys.targets[i % kTargets]));
        ++i;
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_AllowCacheHit)->ThreadRange(1, 4)->UseRealTime();

void BM_AllowCacheMiss(benchmark::State& state) {
    const Keys& keys = SharedKeys();
    AllowCache& cache = WarmCache();
    size_t i = static_cast<size_t>(state.thread_index()) * 131;
    for (auto _ : state) {
        benchmark::DoNotOptimize(cache.Contains(keys.user, keys.process, keys.unknown[i % kTargets]));
        ++i;
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_AllowCacheMiss)->ThreadRange(1, 4)->UseRealTime();

// Repeated additions of known triples: the steady state of a busy machine,
// where every allowed execution is added again after its decision.
void BM_AllowCacheAddKnown(benchmark::State& state) {
    const Keys& keys = SharedKeys();
    AllowCache& cache = WarmCache();
    size_t i = static_cast<size_t>(state.thread_index()) * 131;
    for (auto _ : state) {
        cache.Add(keys.user, keys.process, keys.targets[i % kTargets]);
        ++i;
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_AllowCacheAddKnown)->ThreadRange(1, 4)->UseRealTime();

// Baseline: the same three lookups with no lock and no counters.
void BM_BareNestedMapsHit(benchmark::State& state) {
    const Keys& keys = SharedKeys();
    std::unordered_map<std::u16string, std::unordered_map<std::u16string, std::unordered_set<std::u16string>>> maps;
    for (const std::u16string& target : keys.targets) maps[target][keys.process].insert(keys.user);
    size_t i = 0;
    for (auto _ : state) {
        bool found = false;
        const auto t = maps.find(keys.targets[i % kTargets]);
        if (t != maps.end()) {
            const auto p = t->second.find(keys.process);
            found = p != t->second.end() && p->second.count(keys.user) != 0;
        }
        benchmark::DoNotOptimize(found);
        ++i;
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_BareNestedMapsHit);

}  // namespace

BENCHMARK_MAIN();

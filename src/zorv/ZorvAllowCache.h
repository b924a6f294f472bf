// AllowCache: remembers which (target, process, user) executions the engine
// has already allowed, so that a repeat is answered with three hash lookups
// instead of a rule-store query. Owned by the engine; nothing is persisted.
//
// Thread-safe: one reader-writer lock guards the maps. Lookups share it, so
// event threads answering cache checks never wait for one another, nor write
// to a cache line another reader writes; changes take it alone. Counters are relaxed atomics, bumped under either mode. Two
// reads happen without the lock on purpose: the size test at the start of Add
// (a racing addition may overshoot the limit by a few targets) and the counter
// reads of AddMetrics (a metrics document may be a moment stale). Both read
// atomics, so neither is a data race. No operation calls out of the cache
// under the lock.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <shared_mutex>  // std::shared_lock
#include <string>
#include <unordered_map>
#include <unordered_set>

#include "ZorvSlottedSharedMutex.h"

struct cJSON;

namespace zorv {

class AllowCache {
public:
    // Bounds memory: the cache is dropped whole at this many targets rather
    // than aged entry by entry, so a burst of new files cannot grow it forever.
    static constexpr size_t kMaxTargets = 4096;

    // A snapshot of the counters, for metrics and tests.
    struct Counters {
        uint64_t add = 0;          // additions that created a target entry
        uint64_t change = 0;       // additions that extended one
        uint64_t clear = 0;        // clears, explicit or automatic; never reset
        uint64_t removeHit = 0;
        uint64_t removeMiss = 0;
        uint64_t hit = 0;
        uint64_t miss = 0;
        uint64_t targetMiss = 0;
        uint64_t processMiss = 0;
        uint64_t userMiss = 0;
        uint64_t lastSize = 0;     // targets right after the latest new target entry
        uint64_t maxDepth = 0;     // most users seen under one (target, process) pair
        uint64_t mapSize = 0;      // targets now
    };

    AllowCache() = default;
    AllowCache(const AllowCache&) = delete;
    AllowCache& operator=(const AllowCache&) = delete;

    // Records an allowed execution. Keys are compared exactly: no case folding
    // and no path normalisation. Always 0.
    uint32_t Add(const std::u16string& user, const std::u16string& process, const std::u16string& target);
    // True when exactly this triple was added since the last clear.
    bool Contains(const std::u16string& user, const std::u16string& process, const std::u16string& target);

    // The same, for decisions made from the rule store's rules of one
    // generation (ZorvDAL::RulesGeneration, read before the decision looked
    // anything up). Entries belong to the newest generation the cache has
    // seen: a lookup under a newer one finds nothing (and the next addition
    // drops the old entries), and an addition under an older one is refused,
    // so an allow decided from replaced rules is never answered from here.
    uint32_t Add(const std::u16string& user, const std::u16string& process, const std::u16string& target,
                 uint64_t generation);
    bool Contains(const std::u16string& user, const std::u16string& process, const std::u16string& target,
                  uint64_t generation);
    // Forgets every process and user known for the target. Always 0.
    uint32_t Remove(const std::u16string& target);
    // Empties the cache and zeroes every counter but the clear count.
    void Clear();

    // Adds an "AllowCache" object with the counters to `metrics`; adds nothing
    // when that object cannot be created.
    void AddMetrics(cJSON* metrics) const;

    Counters GetCounters() const;

private:
    using Users = std::unordered_set<std::u16string>;
    using Processes = std::unordered_map<std::u16string, Users>;
    using Targets = std::unordered_map<std::u16string, Processes>;

    void ClearLocked();
    // The three lookups of Contains without the counters; the caller holds the lock.
    bool ContainsLocked(const std::u16string& user, const std::u16string& process,
                        const std::u16string& target) const;

    // Changed only under the exclusive lock; atomics so that AddMetrics and
    // the size test of Add may read them without it.
    struct alignas(64) AtomicCounters {
        std::atomic<uint64_t> add{0};
        std::atomic<uint64_t> change{0};
        std::atomic<uint64_t> clear{0};
        std::atomic<uint64_t> removeHit{0};
        std::atomic<uint64_t> removeMiss{0};
        std::atomic<uint64_t> lastSize{0};
        std::atomic<uint64_t> maxDepth{0};
    };

    // The counters every lookup bumps, under the shared lock. One set per
    // cache line, and each thread keeps to one set: threads checking at once
    // would otherwise take turns owning a single line, and that alone costs
    // more than the lookup. Readers add the sets up.
    struct alignas(64) LookupCounters {
        std::atomic<uint64_t> hit{0};
        std::atomic<uint64_t> miss{0};
        std::atomic<uint64_t> targetMiss{0};
        std::atomic<uint64_t> processMiss{0};
        std::atomic<uint64_t> userMiss{0};
    };
    static constexpr size_t kLookupCounterSets = SlottedSharedMutex::kSlots;
    LookupCounters& ThisThreadsLookupCounters();

    // Guards m_targets: shared by Contains and by the first, read-only look of
    // Add; exclusive for every change.
    SlottedSharedMutex m_mutex;
    // On a line of its own: readers only read it, and nothing near it changes
    // on every lookup.
    alignas(64) Targets m_targets;
    std::atomic<size_t> m_targetCount{0};  // m_targets.size(), readable without the lock
    // The rules generation m_targets was filled under; changed only under the
    // exclusive lock, atomic so that the three-argument calls may read it first.
    std::atomic<uint64_t> m_generation{0};
    AtomicCounters m_counters;
    LookupCounters m_lookups[kLookupCounterSets];
};

}  // namespace zorv

// ZorvStats: the process-wide tally behind the metrics document: named
// counters, per-extension and per-ruleset counters, and the in-memory hit
// counts of trust rules.
//
// Thread-safe. The general counters and the trust-rule hit counts, which
// events bump on every decision, are atomics in maps that only grow while
// events run: a bump finds its counter under a read-mostly lock whose readers
// share no cache line, and takes the exclusive side only to add a name. One
// mutex guards the category maps. No lock is held while calling the rule store
// or the allow cache, so the lock order "database lock, then statistics lock"
// cannot be inverted from here.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <atomic>
#include <mutex>
#include <string>
#include <vector>
#include <string_view>

#include "ZorvSlottedSharedMutex.h"

struct cJSON;

namespace zorv {

// The counter families besides the general counters. The numbers are what
// callers pass; any other value is ignored by every category operation.
enum class CounterCategory : uint32_t {
    DriftUnknownExtensions = 1,      // extensions met by drift events that no table knows
    InventoryUnknownExtensions = 2,  // the same for inventory items
    Rulesets = 3,                    // rule elements read by each ruleset's last import
};

// One general counter, kept in lanes on cache lines of their own: a thread
// bumps the lane its slot picks, so threads counting the same event (every
// process start counts two) do not pass one line back and forth. Reading sums
// the lanes.
class StripedCounter {
public:
    static constexpr size_t kLanes = 8;
    void Add(uint64_t amount);
    uint64_t Load() const;
    // Not atomic against concurrent Adds, as a plain store would not be either.
    void Store(uint64_t value);

private:
    struct alignas(64) Lane {
        std::atomic<uint64_t> value{0};
    };
    Lane m_lanes[kLanes];
};

class ZorvStats {
public:
    // Sections of the document other than the general counters list at most this many entries.
    static constexpr size_t kMaxSectionEntries = 100;

    static ZorvStats& Instance();

    ZorvStats() = default;
    ZorvStats(const ZorvStats&) = delete;
    ZorvStats& operator=(const ZorvStats&) = delete;

    // General counters, keyed by name in UTF-16 code-unit order.
    // Increments and returns the new value; an empty name is ignored (returns 0).
    // Summing the lanes for the answer costs the sharing the lanes avoid:
    // counting on a hot path uses CountMetric.
    uint64_t IncrementMetric(std::u16string_view name);
    void CountMetric(std::u16string_view name);
    void SetMetric(std::u16string_view name, uint64_t value);
    uint64_t GetMetric(std::u16string_view name) const;

    // Category counters; an empty name or an unknown category is ignored.
    void IncrementCounter(CounterCategory category, std::u16string_view name);
    void SetCounter(CounterCategory category, std::u16string_view name, uint64_t value);
    // 0 when absent or the category is unknown.
    uint64_t GetCounter(CounterCategory category, std::u16string_view name) const;
    // Erases every counter whose name begins with `prefix` (case-sensitive);
    // an empty prefix empties the category.
    void ClearCounters(CounterCategory category, std::u16string_view prefix);

    // Trust-rule hit counts: an entry exists only once a rule was loaded.
    void SetTrustRuleHitCount(int32_t trustRuleId, int64_t value);
    void IncrementTrustRuleHitCount(int32_t trustRuleId);
    void ClearTrustRuleHitCounts();
    // Forgets every count and starts each of `ids` from zero, under one lock.
    void ResetTrustRuleHitCounts(const std::vector<int32_t>& ids);

    // Builds the metrics document into `buffer` (see get_metrics_mem). Always
    // stores the size the document needs, NUL included, into *size; returns
    // AC_OK when it was copied, AC_E_BUFFER_TOO_SMALL when `buffer` is null or
    // *size is too small, AC_E_NULL_SIZE when `size` is null.
    // `addEngineSections`, when given, adds the sections of the running engine
    // (the allow cache) to the document's "metrics" object.
    using EngineSections = std::function<void(cJSON*)>;
    uint32_t GetMetrics(void* buffer, uint32_t* size, const EngineSections& addEngineSections = {});
    // Writes every hit count, minus one, back to the rule store.
    void WriteTrustRuleHitCounts();

private:
    using CounterMap = std::map<std::u16string, uint64_t, std::less<>>;

    // The map of a category, or null for an unknown one.
    CounterMap* Category(CounterCategory category);
    const CounterMap* Category(CounterCategory category) const;

    mutable SlottedSharedMutex m_metricsLock;  // guards the shape of m_metrics, not its values
    std::map<std::u16string, StripedCounter, std::less<>> m_metrics;
    mutable SlottedSharedMutex m_hitCountsLock;  // guards the shape of m_trustRuleHitCounts
    std::map<int32_t, std::atomic<int64_t>> m_trustRuleHitCounts;

    mutable std::mutex m_mutex;  // guards the three maps below
    CounterMap m_driftUnknownExtensions;
    CounterMap m_inventoryUnknownExtensions;
    CounterMap m_rulesets;
};

}  // namespace zorv

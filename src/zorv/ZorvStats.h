// ZorvStats: the process-wide tally of named counters and trust-rule hit
// counts behind the metrics document.
//
// Thread-safe: one mutex guards every map and is held only for the duration
// of one operation. It is never held while calling the rule store, so the lock
// order "database lock, then statistics lock" cannot be inverted from here.
#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <string_view>

namespace zorv {

class ZorvStats {
public:
    static ZorvStats& Instance();

    ZorvStats() = default;
    ZorvStats(const ZorvStats&) = delete;
    ZorvStats& operator=(const ZorvStats&) = delete;

    // General counters, keyed by name in UTF-16 code-unit order.
    // Increments and returns the new value; an empty name is ignored (returns 0).
    uint64_t IncrementMetric(std::u16string_view name);
    void SetMetric(std::u16string_view name, uint64_t value);
    uint64_t GetMetric(std::u16string_view name) const;

    // Trust-rule hit counts: an entry exists only once a rule was loaded.
    void SetTrustRuleHitCount(int32_t trustRuleId, int64_t value);
    void IncrementTrustRuleHitCount(int32_t trustRuleId);
    void ClearTrustRuleHitCounts();

    // Builds the metrics document into `buffer` (see get_metrics_mem); a status code.
    uint32_t GetMetrics(void* buffer, uint32_t* size);
    // Writes every hit count, minus one, back to the rule store.
    void WriteTrustRuleHitCounts();

private:
    mutable std::mutex m_mutex;  // guards the maps below
    std::map<std::u16string, uint64_t, std::less<>> m_metrics;
    std::map<int32_t, int64_t> m_trustRuleHitCounts;
};

}  // namespace zorv

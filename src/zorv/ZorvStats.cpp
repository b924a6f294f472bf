#include "ZorvStats.h"

#include <vector>

#include "ZorvDataAccessLayer.h"
#include "ZorvLogger.h"
#include "zorv/zorv.h"

namespace zorv {

namespace {
constexpr char16_t kLogSource[] = u"src/zorv/ZorvStats";
}  // namespace

ZorvStats& ZorvStats::Instance() {
    static ZorvStats stats;
    return stats;
}

uint64_t ZorvStats::IncrementMetric(std::u16string_view name) {
    if (name.empty()) return 0;
    std::lock_guard<std::mutex> lock(m_mutex);
    auto it = m_metrics.find(name);
    if (it == m_metrics.end()) it = m_metrics.emplace(std::u16string(name), 0).first;
    return ++it->second;
}

void ZorvStats::SetMetric(std::u16string_view name, uint64_t value) {
    std::lock_guard<std::mutex> lock(m_mutex);
    auto it = m_metrics.find(name);
    if (it == m_metrics.end()) {
        m_metrics.emplace(std::u16string(name), value);
    } else {
        it->second = value;
    }
}

uint64_t ZorvStats::GetMetric(std::u16string_view name) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    const auto it = m_metrics.find(name);
    return it == m_metrics.end() ? 0 : it->second;
}

void ZorvStats::SetTrustRuleHitCount(int32_t trustRuleId, int64_t value) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_trustRuleHitCounts[trustRuleId] = value;
}

void ZorvStats::IncrementTrustRuleHitCount(int32_t trustRuleId) {
    std::lock_guard<std::mutex> lock(m_mutex);
    const auto it = m_trustRuleHitCounts.find(trustRuleId);
    if (it != m_trustRuleHitCounts.end()) ++it->second;
}

void ZorvStats::ClearTrustRuleHitCounts() {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_trustRuleHitCounts.clear();
}

uint32_t ZorvStats::GetMetrics(void* /*buffer*/, uint32_t* /*size*/) {
    // The metrics document is not built yet: report failure rather than an empty document.
    return AC_E_FAILED;
}

void ZorvStats::WriteTrustRuleHitCounts() {
    std::vector<std::pair<int32_t, int64_t>> counts;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        counts.assign(m_trustRuleHitCounts.begin(), m_trustRuleHitCounts.end());
    }
    // The stored value is the count minus one: a loaded but never matched rule
    // reads -1, so "hitcount >= 1" selects the rules that matched more than once.
    for (const auto& [id, count] : counts) {
        if (!ZorvDAL::Instance().UpdateHitcount(id, static_cast<int32_t>(count - 1))) {
            ZORV_LOG(kLogWarning, u"ZorvStats::WriteTrustRuleHitCounts",
                     u"Failed to write hitcount for trust rule id %d", id);
        }
    }
}

}  // namespace zorv

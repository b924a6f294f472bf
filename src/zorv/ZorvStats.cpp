#include "ZorvStats.h"

#include <cjson/cJSON.h>

#include <cstring>
#include <memory>
#include <shared_mutex>
#include <string>
#include <utility>
#include <vector>

#include "ZorvDataAccessLayer.h"
#include "ZorvLogger.h"
#include "ZorvText.h"
#include "zorv/zorv.h"

namespace zorv {

namespace {

constexpr char16_t kLogSource[] = u"src/zorv/ZorvStats";
constexpr char kEngineVersion[] = "12.0.193";

struct JsonDeleter {
    void operator()(cJSON* json) const { cJSON_Delete(json); }
};
struct JsonTextDeleter {
    void operator()(char* text) const { cJSON_free(text); }
};

// Fills `object` from a counter map, at most `limit` entries in key order. A
// name that is not valid UTF-16 is written with U+FFFD in place of the broken
// unit rather than dropped, so the count still shows.
uint64_t CountOf(uint64_t count) { return count; }
uint64_t CountOf(const StripedCounter& count) { return count.Load(); }

template <typename Map>
void AddCounters(cJSON* object, const Map& counters, size_t limit) {
    size_t added = 0;
    for (const auto& [name, count] : counters) {
        if (added++ == limit) break;
        cJSON_AddNumberToObject(object, Utf16ToUtf8(name).c_str(), static_cast<double>(CountOf(count)));
    }
}

}  // namespace

ZorvStats& ZorvStats::Instance() {
    static ZorvStats stats;
    return stats;
}

void StripedCounter::Add(uint64_t amount) {
    m_lanes[ThreadSlot() % kLanes].value.fetch_add(amount, std::memory_order_relaxed);
}

uint64_t StripedCounter::Load() const {
    uint64_t total = 0;
    for (const Lane& lane : m_lanes) total += lane.value.load(std::memory_order_relaxed);
    return total;
}

void StripedCounter::Store(uint64_t value) {
    m_lanes[0].value.store(value, std::memory_order_relaxed);
    for (size_t i = 1; i < kLanes; ++i) m_lanes[i].value.store(0, std::memory_order_relaxed);
}

void ZorvStats::CountMetric(std::u16string_view name) {
    if (name.empty()) return;
    {
        std::shared_lock<SlottedSharedMutex> lock(m_metricsLock);
        const auto it = m_metrics.find(name);
        if (it != m_metrics.end()) {
            it->second.Add(1);
            return;
        }
    }
    std::lock_guard<SlottedSharedMutex> lock(m_metricsLock);
    auto it = m_metrics.find(name);
    if (it == m_metrics.end()) it = m_metrics.try_emplace(std::u16string(name)).first;
    it->second.Add(1);
}

uint64_t ZorvStats::IncrementMetric(std::u16string_view name) {
    if (name.empty()) return 0;
    CountMetric(name);
    return GetMetric(name);
}

void ZorvStats::SetMetric(std::u16string_view name, uint64_t value) {
    {
        std::shared_lock<SlottedSharedMutex> lock(m_metricsLock);
        const auto it = m_metrics.find(name);
        if (it != m_metrics.end()) {
            it->second.Store(value);
            return;
        }
    }
    std::lock_guard<SlottedSharedMutex> lock(m_metricsLock);
    auto it = m_metrics.find(name);
    if (it == m_metrics.end()) it = m_metrics.try_emplace(std::u16string(name)).first;
    it->second.Store(value);
}

uint64_t ZorvStats::GetMetric(std::u16string_view name) const {
    std::shared_lock<SlottedSharedMutex> lock(m_metricsLock);
    const auto it = m_metrics.find(name);
    return it == m_metrics.end() ? 0 : it->second.Load();
}

ZorvStats::CounterMap* ZorvStats::Category(CounterCategory category) {
    switch (category) {
        case CounterCategory::DriftUnknownExtensions:
            return &m_driftUnknownExtensions;
        case CounterCategory::InventoryUnknownExtensions:
            return &m_inventoryUnknownExtensions;
        case CounterCategory::Rulesets:
            return &m_rulesets;
    }
    return nullptr;
}

const ZorvStats::CounterMap* ZorvStats::Category(CounterCategory category) const {
    return const_cast<ZorvStats*>(this)->Category(category);
}

void ZorvStats::IncrementCounter(CounterCategory category, std::u16string_view name) {
    if (name.empty()) return;
    std::lock_guard<std::mutex> lock(m_mutex);
    CounterMap* counters = Category(category);
    if (counters == nullptr) return;
    auto it = counters->find(name);
    if (it == counters->end()) it = counters->emplace(std::u16string(name), 0).first;
    ++it->second;
}

void ZorvStats::SetCounter(CounterCategory category, std::u16string_view name, uint64_t value) {
    if (name.empty()) return;
    std::lock_guard<std::mutex> lock(m_mutex);
    CounterMap* counters = Category(category);
    if (counters == nullptr) return;
    auto it = counters->find(name);
    if (it == counters->end()) {
        counters->emplace(std::u16string(name), value);
    } else {
        it->second = value;
    }
}

uint64_t ZorvStats::GetCounter(CounterCategory category, std::u16string_view name) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    const CounterMap* counters = Category(category);
    if (counters == nullptr) return 0;
    const auto it = counters->find(name);
    return it == counters->end() ? 0 : it->second;
}

void ZorvStats::ClearCounters(CounterCategory category, std::u16string_view prefix) {
    std::lock_guard<std::mutex> lock(m_mutex);
    CounterMap* counters = Category(category);
    if (counters == nullptr) return;
    if (prefix.empty()) {
        counters->clear();
        return;
    }
    // Names that share a prefix are adjacent in code-unit order: start at the
    // first name not below the prefix and stop at the first that lacks it.
    auto it = counters->lower_bound(prefix);
    while (it != counters->end() && std::u16string_view(it->first).starts_with(prefix)) it = counters->erase(it);
}

void ZorvStats::SetTrustRuleHitCount(int32_t trustRuleId, int64_t value) {
    std::lock_guard<SlottedSharedMutex> lock(m_hitCountsLock);
    m_trustRuleHitCounts[trustRuleId].store(value, std::memory_order_relaxed);
}

void ZorvStats::IncrementTrustRuleHitCount(int32_t trustRuleId) {
    std::shared_lock<SlottedSharedMutex> lock(m_hitCountsLock);
    const auto it = m_trustRuleHitCounts.find(trustRuleId);
    if (it != m_trustRuleHitCounts.end()) it->second.fetch_add(1, std::memory_order_relaxed);
}

void ZorvStats::ClearTrustRuleHitCounts() {
    std::lock_guard<SlottedSharedMutex> lock(m_hitCountsLock);
    m_trustRuleHitCounts.clear();
}

void ZorvStats::ResetTrustRuleHitCounts(const std::vector<int32_t>& ids) {
    // Taking the exclusive lock visits every slot of the lock: once for an
    // import of ten thousand rules, not once per rule.
    std::lock_guard<SlottedSharedMutex> lock(m_hitCountsLock);
    m_trustRuleHitCounts.clear();
    for (const int32_t id : ids) m_trustRuleHitCounts.try_emplace(m_trustRuleHitCounts.end(), id, 0);
}

uint32_t ZorvStats::GetMetrics(void* buffer, uint32_t* size, const EngineSections& addEngineSections) {
    constexpr const char16_t* kFn = u"ZorvStats::GetMetrics";
    std::unique_ptr<cJSON, JsonDeleter> root(cJSON_CreateObject());
    cJSON* metrics = cJSON_AddObjectToObject(root.get(), "metrics");
    cJSON_AddStringToObject(metrics, "ACVersion", kEngineVersion);

    // Each section takes the lock on its own: a document may mix counts from
    // slightly different moments, but event threads never wait for the
    // whole document, and the store below is called without the lock.
    {
        std::shared_lock<SlottedSharedMutex> lock(m_metricsLock);
        AddCounters(metrics, m_metrics, m_metrics.size());
    }
    cJSON* section = cJSON_AddObjectToObject(metrics, "InventoryUnknownExtensons");
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        AddCounters(section, m_inventoryUnknownExtensions, kMaxSectionEntries);
    }
    section = cJSON_AddObjectToObject(metrics, "DriftUnknownExtensions");
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        AddCounters(section, m_driftUnknownExtensions, kMaxSectionEntries);
    }
    section = cJSON_AddObjectToObject(metrics, "TrustRuleHitCounts");
    {
        std::shared_lock<SlottedSharedMutex> lock(m_hitCountsLock);
        size_t added = 0;
        for (const auto& [id, count] : m_trustRuleHitCounts) {
            if (added++ == kMaxSectionEntries) break;
            cJSON_AddNumberToObject(section, std::to_string(id).c_str(), static_cast<double>(count.load()));
        }
    }
    section = cJSON_AddObjectToObject(metrics, "rulesets");
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        AddCounters(section, m_rulesets, kMaxSectionEntries);
    }

    ZorvDAL& dal = ZorvDAL::Instance();
    dal.PrepareMetrics(cJSON_AddArrayToObject(metrics, "trustrules_stats"));
    // The engine's own sections (the allow cache) come from the caller: the
    // statistics sit below the engine and do not reach up to find it.
    if (addEngineSections) addEngineSections(metrics);
    cJSON* dbinfo = cJSON_AddObjectToObject(metrics, "dbinfo");
    dal.PrepareMetricsDBInfo(dbinfo);
    dal.UserGroupTrustRulesCount(dbinfo);
    dal.PrepareMetricsDBInfoRulesets(dbinfo);
    dal.PrepareMetricsDBSize(dbinfo);

    const std::unique_ptr<char, JsonTextDeleter> text(cJSON_PrintUnformatted(root.get()));
    root.reset();
    if (text == nullptr) {
        ZORV_LOG(kLogError, kFn, u"Unable to print the metrics document");
        return AC_E_FAILED;
    }
    const size_t needed = std::strlen(text.get()) + 1;
    if (size == nullptr) {
        ZORV_LOG(kLogError, kFn, u"parameter is null \n");
        return AC_E_NULL_SIZE;
    }
    uint32_t status = AC_E_BUFFER_TOO_SMALL;
    if (buffer != nullptr && *size >= needed) {
        std::memcpy(buffer, text.get(), needed);
        status = AC_OK;
    }
    *size = static_cast<uint32_t>(needed);
    return status;
}

void ZorvStats::WriteTrustRuleHitCounts() {
    std::vector<std::pair<int32_t, int64_t>> counts;
    {
        std::shared_lock<SlottedSharedMutex> lock(m_hitCountsLock);
        for (const auto& [id, count] : m_trustRuleHitCounts) counts.emplace_back(id, count.load());
    }
    // The stored value is to be the count minus one: a loaded but never matched
    // rule reads -1, so "hitcount >= 1" selects the rules that matched more than
    // once. UpdateHitcount stores its argument plus one, hence minus two here.
    for (const auto& [id, count] : counts) {
        if (!ZorvDAL::Instance().UpdateHitcount(id, static_cast<int32_t>(count - 2))) {
            ZORV_LOG(kLogWarning, u"ZorvStats::WriteTrustRuleHitCounts",
                     u"Failed to write hitcount for trust rule id %d", id);
        }
    }
}

}  // namespace zorv

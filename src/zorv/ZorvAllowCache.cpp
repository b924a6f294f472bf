#include "ZorvAllowCache.h"

#include <cjson/cJSON.h>

#include <thread>

namespace zorv {

namespace {

constexpr std::memory_order kRelaxed = std::memory_order_relaxed;

// Relaxed order is enough: each counter is its own total, the lock orders the
// map changes, and lock-free readers accept a slightly stale value.
void Bump(std::atomic<uint64_t>& counter) { counter.fetch_add(1, kRelaxed); }

void RaiseTo(std::atomic<uint64_t>& counter, uint64_t value) {
    if (counter.load(kRelaxed) < value) counter.store(value, kRelaxed);
}

}  // namespace

AllowCache::LookupCounters& AllowCache::ThisThreadsLookupCounters() {
    return m_lookups[ThreadSlot() % kLookupCounterSets];
}

uint32_t AllowCache::Add(const std::u16string& user, const std::u16string& process, const std::u16string& target) {
    return Add(user, process, target, m_generation.load(kRelaxed));
}

bool AllowCache::Contains(const std::u16string& user, const std::u16string& process, const std::u16string& target) {
    return Contains(user, process, target, m_generation.load(kRelaxed));
}

uint32_t AllowCache::Add(const std::u16string& user, const std::u16string& process, const std::u16string& target,
                         uint64_t generation) {
    // Read before locking: a concurrent Add may slip a few targets past the
    // limit, which is cheaper than making every addition test under the lock.
    if (m_targetCount.load(kRelaxed) >= kMaxTargets) {
        std::lock_guard<SlottedSharedMutex> lock(m_mutex);
        ClearLocked();
    }

    // Every allowed execution is added again after its decision, and nearly
    // all of them are already known: answer those under the shared lock, so
    // they do not stall the cache checks of other threads. A known triple
    // changes no counter, so skipping the exclusive path changes nothing.
    {
        std::shared_lock<SlottedSharedMutex> lock(m_mutex);
        if (generation == m_generation.load(kRelaxed) && ContainsLocked(user, process, target)) return 0;
    }

    std::lock_guard<SlottedSharedMutex> lock(m_mutex);
    const uint64_t current = m_generation.load(kRelaxed);
    // Decided from rules that have since been replaced: not to be repeated.
    if (generation < current) return 0;
    if (generation > current) {
        // What is here was allowed by the rules before: gone, counted as a
        // clear unless an explicit one already emptied the cache.
        if (!m_targets.empty()) ClearLocked();
        m_generation.store(generation, kRelaxed);
    }
    auto targetIt = m_targets.find(target);
    if (targetIt == m_targets.end()) {
        Processes processes;
        processes[process].insert(user);
        m_targets.emplace(target, std::move(processes));
        m_targetCount.store(m_targets.size(), kRelaxed);
        Bump(m_counters.add);
        RaiseTo(m_counters.maxDepth, 1);
        m_counters.lastSize.store(m_targets.size(), kRelaxed);
        return 0;
    }

    Processes& processes = targetIt->second;
    auto processIt = processes.find(process);
    if (processIt == processes.end()) {
        processes[process].insert(user);
        Bump(m_counters.change);
        RaiseTo(m_counters.maxDepth, 1);
        return 0;
    }

    Users& users = processIt->second;
    if (users.insert(user).second) {
        RaiseTo(m_counters.maxDepth, users.size());
        Bump(m_counters.change);
    }
    return 0;
}

bool AllowCache::ContainsLocked(const std::u16string& user, const std::u16string& process,
                                const std::u16string& target) const {
    const auto targetIt = m_targets.find(target);
    if (targetIt == m_targets.end()) return false;
    const auto processIt = targetIt->second.find(process);
    return processIt != targetIt->second.end() && processIt->second.count(user) != 0;
}

bool AllowCache::Contains(const std::u16string& user, const std::u16string& process, const std::u16string& target,
                          uint64_t generation) {
    LookupCounters& counters = ThisThreadsLookupCounters();
    std::shared_lock<SlottedSharedMutex> lock(m_mutex);
    // Entries of other rules than the caller's hold no answer for it.
    const auto targetIt = generation == m_generation.load(kRelaxed) ? m_targets.find(target) : m_targets.end();
    if (targetIt == m_targets.end()) {
        Bump(counters.targetMiss);
        Bump(counters.miss);
        return false;
    }
    const auto processIt = targetIt->second.find(process);
    if (processIt == targetIt->second.end()) {
        Bump(counters.processMiss);
        Bump(counters.miss);
        return false;
    }
    if (processIt->second.count(user) == 0) {
        Bump(counters.userMiss);
        Bump(counters.miss);
        return false;
    }
    Bump(counters.hit);
    return true;
}

uint32_t AllowCache::Remove(const std::u16string& target) {
    std::lock_guard<SlottedSharedMutex> lock(m_mutex);
    if (m_targets.erase(target) != 0) {
        m_targetCount.store(m_targets.size(), kRelaxed);
        Bump(m_counters.removeHit);
    } else {
        Bump(m_counters.removeMiss);
    }
    return 0;
}

void AllowCache::Clear() {
    std::lock_guard<SlottedSharedMutex> lock(m_mutex);
    ClearLocked();
}

void AllowCache::ClearLocked() {
    m_targets.clear();
    m_targetCount.store(0, kRelaxed);
    Bump(m_counters.clear);
    for (std::atomic<uint64_t>* counter : {&m_counters.add, &m_counters.change, &m_counters.removeHit,
                                           &m_counters.removeMiss, &m_counters.lastSize, &m_counters.maxDepth}) {
        counter->store(0, kRelaxed);
    }
    // No lookup runs now: they hold the lock shared, this caller holds it alone.
    for (LookupCounters& set : m_lookups) {
        for (std::atomic<uint64_t>* counter :
             {&set.hit, &set.miss, &set.targetMiss, &set.processMiss, &set.userMiss}) {
            counter->store(0, kRelaxed);
        }
    }
}

AllowCache::Counters AllowCache::GetCounters() const {
    Counters c;
    c.add = m_counters.add.load(kRelaxed);
    c.change = m_counters.change.load(kRelaxed);
    c.clear = m_counters.clear.load(kRelaxed);
    c.removeHit = m_counters.removeHit.load(kRelaxed);
    c.removeMiss = m_counters.removeMiss.load(kRelaxed);
    for (const LookupCounters& set : m_lookups) {
        c.hit += set.hit.load(kRelaxed);
        c.miss += set.miss.load(kRelaxed);
        c.targetMiss += set.targetMiss.load(kRelaxed);
        c.processMiss += set.processMiss.load(kRelaxed);
        c.userMiss += set.userMiss.load(kRelaxed);
    }
    c.lastSize = m_counters.lastSize.load(kRelaxed);
    c.maxDepth = m_counters.maxDepth.load(kRelaxed);
    c.mapSize = m_targetCount.load(kRelaxed);
    return c;
}

void AllowCache::AddMetrics(cJSON* metrics) const {
    cJSON* object = cJSON_AddObjectToObject(metrics, "AllowCache");
    if (object == nullptr) return;
    // Not under the lock: the metrics export must not stall event threads, and
    // a snapshot a moment old is as good as an exact one here.
    const Counters c = GetCounters();
    const std::pair<const char*, uint64_t> fields[] = {
        {"Add", c.add},
        {"Change", c.change},
        {"Clear", c.clear},
        {"Hit", c.hit},
        {"Miss", c.miss},
        {"processMiss", c.processMiss},
        {"removeHit", c.removeHit},
        {"removeMiss", c.removeMiss},
        {"targetMiss", c.targetMiss},
        {"userMiss", c.userMiss},
        {"mapSize", c.mapSize},
        {"maxDepth", c.maxDepth},
    };
    for (const auto& [name, value] : fields) cJSON_AddNumberToObject(object, name, static_cast<double>(value));
}

}  // namespace zorv

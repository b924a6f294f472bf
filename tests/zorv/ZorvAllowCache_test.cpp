#include "ZorvAllowCache.h"

#include <cjson/cJSON.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace zorv {
namespace {

const std::u16string kUser = u"alice";
const std::u16string kProcess = u"C:\\Windows\\explorer.exe";
const std::u16string kTarget = u"C:\\Tools\\app.exe";

TEST(AllowCache, LookupsMatchExactlyAndCountEachMissKindApart) {
    AllowCache cache;
    cache.Add(kUser, kProcess, kTarget);
    EXPECT_TRUE(cache.Contains(kUser, kProcess, kTarget));
    EXPECT_FALSE(cache.Contains(u"ALICE", kProcess, kTarget));  // no case folding
    EXPECT_FALSE(cache.Contains(kUser, u"C:\\other.exe", kTarget));
    EXPECT_FALSE(cache.Contains(kUser, kProcess, u"c:\\tools\\app.exe"));
    const AllowCache::Counters c = cache.GetCounters();
    EXPECT_EQ(std::vector<uint64_t>({c.hit, c.miss, c.userMiss, c.processMiss, c.targetMiss}),
              std::vector<uint64_t>({1, 3, 1, 1, 1}));
}

TEST(AllowCache, AddCountsNewTargetsAndChangesApart) {
    AllowCache cache;
    cache.Add(kUser, kProcess, kTarget);
    cache.Add(kUser, kProcess, kTarget);            // repeat: no counter moves
    cache.Add(u"bob", kProcess, kTarget);           // new user under a known process: depth 2
    cache.Add(kUser, u"C:\\other.exe", kTarget);    // new process: depth stays
    const AllowCache::Counters c = cache.GetCounters();
    EXPECT_EQ(std::vector<uint64_t>({c.add, c.change, c.maxDepth, c.mapSize, c.lastSize}),
              std::vector<uint64_t>({1, 2, 2, 1, 1}));
}

TEST(AllowCache, RemoveForgetsEveryProcessAndUserOfTheTarget) {
    AllowCache cache;
    cache.Add(kUser, kProcess, kTarget);
    cache.Add(u"bob", u"C:\\other.exe", kTarget);
    cache.Add(kUser, kProcess, u"C:\\kept.exe");
    cache.Remove(u"C:\\unknown.exe");
    cache.Remove(kTarget);
    EXPECT_FALSE(cache.Contains(u"bob", u"C:\\other.exe", kTarget));
    EXPECT_TRUE(cache.Contains(kUser, kProcess, u"C:\\kept.exe"));
    const AllowCache::Counters c = cache.GetCounters();
    EXPECT_EQ(std::vector<uint64_t>({c.removeHit, c.removeMiss, c.mapSize}), std::vector<uint64_t>({1, 1, 1}));
}

TEST(AllowCache, ClearForgetsEveryEntryAndResetsAllButTheClearCount) {
    AllowCache cache;
    cache.Add(kUser, kProcess, kTarget);
    cache.Add(u"bob", kProcess, kTarget);
    cache.Contains(kUser, kProcess, kTarget);
    cache.Contains(kUser, kProcess, u"x");
    cache.Remove(u"x");
    cache.Clear();
    cache.Clear();
    const AllowCache::Counters c = cache.GetCounters();
    EXPECT_EQ(c.clear, 2u);
    EXPECT_EQ(std::vector<uint64_t>({c.add, c.change, c.removeHit, c.removeMiss, c.hit, c.miss, c.targetMiss,
                                     c.processMiss, c.userMiss, c.lastSize, c.maxDepth, c.mapSize}),
              std::vector<uint64_t>(12, 0));
    EXPECT_FALSE(cache.Contains(kUser, kProcess, kTarget));
}

TEST(AllowCache, TheTargetAfterTheLimitStartsAFreshCache) {
    AllowCache cache;
    for (size_t i = 0; i < AllowCache::kMaxTargets; ++i) {
        const std::string name = std::to_string(i);
        cache.Add(kUser, kProcess, std::u16string(name.begin(), name.end()));
    }
    ASSERT_EQ(cache.GetCounters().mapSize, AllowCache::kMaxTargets);
    EXPECT_EQ(cache.GetCounters().clear, 0u);
    // Even a known target is dropped with the rest: the test is on size only.
    cache.Add(kUser, kProcess, kTarget);
    const AllowCache::Counters c = cache.GetCounters();
    EXPECT_EQ(std::vector<uint64_t>({c.mapSize, c.clear, c.add}), std::vector<uint64_t>({1, 1, 1}));
    EXPECT_TRUE(cache.Contains(kUser, kProcess, kTarget));
}

TEST(AllowCache, MetricsListEveryCounterInOrder) {
    AllowCache cache;
    cache.Add(kUser, kProcess, kTarget);
    cache.Clear();
    cache.Add(kUser, kProcess, kTarget);
    cache.Contains(kUser, kProcess, kTarget);
    std::unique_ptr<cJSON, decltype(&cJSON_Delete)> metrics(cJSON_CreateObject(), &cJSON_Delete);
    cache.AddMetrics(metrics.get());
    const cJSON* object = cJSON_GetObjectItemCaseSensitive(metrics.get(), "AllowCache");
    ASSERT_NE(object, nullptr);
    const std::vector<std::pair<std::string, double>> expected = {
        {"Add", 1},        {"Change", 0},   {"Clear", 1},   {"Hit", 1},        {"Miss", 0},     {"processMiss", 0},
        {"removeHit", 0},  {"removeMiss", 0}, {"targetMiss", 0}, {"userMiss", 0}, {"mapSize", 1}, {"maxDepth", 1}};
    std::vector<std::pair<std::string, double>> actual;
    for (const cJSON* item = object->child; item != nullptr; item = item->next)
        actual.emplace_back(item->string, item->valuedouble);
    EXPECT_EQ(actual, expected);
}

TEST(AllowCache, ConcurrentUseKeepsCountsConsistent) {
    AllowCache cache;
    constexpr int kThreads = 4, kRounds = 2000;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&cache, t] {
            const std::u16string user = u"user" + std::u16string(1, u'0' + t);
            for (int i = 0; i < kRounds; ++i) {
                const std::u16string target = u"t" + std::u16string(1, u'a' + i % 20);
                cache.Add(user, kProcess, target);
                cache.Contains(user, kProcess, target);
                if (i % 7 == 0) cache.Remove(target);
                if (t == 0 && i % 500 == 0) cache.Clear();
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    const AllowCache::Counters c = cache.GetCounters();
    EXPECT_LE(c.mapSize, 20u);
    EXPECT_EQ(c.miss, c.targetMiss + c.processMiss + c.userMiss);
    EXPECT_LE(c.maxDepth, static_cast<uint64_t>(kThreads));
    EXPECT_EQ(c.clear, static_cast<uint64_t>(kRounds / 500));
}

}  // namespace
}  // namespace zorv

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

TEST(AllowCache, LookupsAreExactAndRemoveForgetsEveryUserAndProcessOfTheTarget) {
    AllowCache cache;
    cache.Add(kUser, kProcess, kTarget);
    cache.Add(u"bob", u"C:\\other.exe", kTarget);
    cache.Add(kUser, kProcess, u"C:\\kept.exe");
    EXPECT_TRUE(cache.Contains(kUser, kProcess, kTarget));
    EXPECT_FALSE(cache.Contains(u"ALICE", kProcess, kTarget));  // no case folding
    EXPECT_FALSE(cache.Contains(kUser, u"C:\\other.exe", kTarget));
    EXPECT_FALSE(cache.Contains(kUser, kProcess, u"c:\\tools\\app.exe"));
    cache.Remove(kTarget);
    EXPECT_FALSE(cache.Contains(u"bob", u"C:\\other.exe", kTarget));
    EXPECT_TRUE(cache.Contains(kUser, kProcess, u"C:\\kept.exe"));
}

TEST(AllowCache, TheTargetAfterTheLimitStartsAFreshCache) {
    AllowCache cache;
    for (size_t i = 0; i < AllowCache::kMaxTargets; ++i) cache.Add(kUser, kProcess, u"t" + std::u16string(1, char16_t(i)));
    ASSERT_EQ(cache.GetCounters().mapSize, AllowCache::kMaxTargets);
    // Even a known target is dropped with the rest: the test is on size only.
    cache.Add(kUser, kProcess, kTarget);
    EXPECT_EQ(cache.GetCounters().mapSize, 1u);
    EXPECT_TRUE(cache.Contains(kUser, kProcess, kTarget));
}

// The metrics document the host reads: every counter by name, in order, each
// miss kind apart, and all but the clear count reset by a clear (which also
// empties the cache: ZorvPipeline checks that an import clears it).
TEST(AllowCache, MetricsCountEachKindInOrder) {
    AllowCache cache;
    cache.Add(kUser, kProcess, kTarget);
    cache.Contains(kUser, kProcess, u"x");
    cache.Remove(u"x");
    cache.Clear();
    cache.Add(kUser, kProcess, kTarget);
    cache.Add(kUser, kProcess, kTarget);          // repeat: no counter moves
    cache.Add(u"bob", kProcess, kTarget);         // new user under a known process: depth 2
    cache.Add(kUser, u"C:\\other.exe", kTarget);  // new process
    cache.Contains(kUser, kProcess, kTarget);
    cache.Contains(u"carol", kProcess, kTarget);
    cache.Contains(kUser, u"C:\\x.exe", kTarget);
    cache.Add(kUser, kProcess, u"C:\\y.exe");
    cache.Remove(u"C:\\y.exe");
    cache.Remove(u"C:\\y.exe");
    cache.Contains(kUser, kProcess, u"C:\\y.exe");
    std::unique_ptr<cJSON, decltype(&cJSON_Delete)> metrics(cJSON_CreateObject(), &cJSON_Delete);
    cache.AddMetrics(metrics.get());
    const cJSON* object = cJSON_GetObjectItemCaseSensitive(metrics.get(), "AllowCache");
    ASSERT_NE(object, nullptr);
    const std::vector<std::pair<std::string, double>> expected = {
        {"Add", 2},       {"Change", 2},     {"Clear", 1},      {"Hit", 1},        {"Miss", 3},     {"processMiss", 1},
        {"removeHit", 1}, {"removeMiss", 1}, {"targetMiss", 1}, {"userMiss", 1},   {"mapSize", 1},  {"maxDepth", 2}};
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

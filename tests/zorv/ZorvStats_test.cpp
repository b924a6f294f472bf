// ZorvStats: the category counters and the metrics document, read back as the
// agent reads it through get_metrics_mem.
#include <gtest/gtest.h>

#include <cjson/cJSON.h>

#include <memory>
#include <string>
#include <vector>

#include "SqliteProbe.h"
#include "TestSupport.h"
#include "Zorv.h"
#include "ZorvLogger.h"
#include "ZorvStats.h"
#include "zorv/zorv.h"

namespace zorv {
namespace {

using test::Host;

struct JsonDeleter {
    void operator()(cJSON* json) const { cJSON_Delete(json); }
};
using Json = std::unique_ptr<cJSON, JsonDeleter>;

// The document in two calls, as the agent fetches it: a size query, then the copy.
std::string Document(ZorvStats& stats) {
    uint32_t size = 0;
    EXPECT_EQ(stats.GetMetrics(nullptr, &size), AC_E_BUFFER_TOO_SMALL);
    std::string text(size, '\xff');
    EXPECT_EQ(stats.GetMetrics(text.data(), &size), AC_OK);
    EXPECT_EQ(size, text.size());
    EXPECT_EQ(text.back(), '\0');
    text.pop_back();
    return text;
}

std::vector<std::string> Keys(const cJSON* object) {
    std::vector<std::string> keys;
    for (const cJSON* child = object != nullptr ? object->child : nullptr; child != nullptr; child = child->next) {
        keys.emplace_back(child->string);
    }
    return keys;
}

const cJSON* Member(const cJSON* object, const char* key) { return cJSON_GetObjectItemCaseSensitive(object, key); }

TEST(ZorvStats, ClearCountersErasesByCaseSensitivePrefix) {
    ZorvStats stats;
    for (const char16_t* name : {u"trustrules_x", u"trust", u"Trustrules_x", u"mytrust", u"trus", u"trustz"}) {
        stats.SetCounter(CounterCategory::Rulesets, name, 1);
    }
    stats.SetCounter(CounterCategory::InventoryUnknownExtensions, u"trust", 1);
    stats.ClearCounters(CounterCategory::Rulesets, u"trust");
    for (const char16_t* gone : {u"trustrules_x", u"trust", u"trustz"}) {
        EXPECT_EQ(stats.GetCounter(CounterCategory::Rulesets, gone), 0u);
    }
    for (const char16_t* kept : {u"Trustrules_x", u"mytrust", u"trus"}) {
        EXPECT_EQ(stats.GetCounter(CounterCategory::Rulesets, kept), 1u);
    }
    EXPECT_EQ(stats.GetCounter(CounterCategory::InventoryUnknownExtensions, u"trust"), 1u) << "other categories stay";

    stats.ClearCounters(CounterCategory::Rulesets, u"");
    EXPECT_EQ(stats.GetCounter(CounterCategory::Rulesets, u"mytrust"), 0u) << "an empty prefix empties the category";

    // Empty names and unknown categories are ignored.
    stats.IncrementCounter(CounterCategory::Rulesets, u"");
    stats.IncrementCounter(static_cast<CounterCategory>(4), u"x");
    EXPECT_EQ(stats.GetCounter(CounterCategory::Rulesets, u""), 0u);
    EXPECT_EQ(stats.GetCounter(static_cast<CounterCategory>(4), u"x"), 0u);
}

TEST(ZorvStats, ShortBufferGetsNothingButTheSize) {
    ZorvStats stats;
    uint32_t size = 0;
    EXPECT_EQ(stats.GetMetrics(nullptr, nullptr), AC_E_NULL_SIZE);
    ASSERT_EQ(stats.GetMetrics(nullptr, &size), AC_E_BUFFER_TOO_SMALL);
    const uint32_t needed = size;
    std::string buffer(needed + 9, 'x');
    size = needed - 1;
    EXPECT_EQ(stats.GetMetrics(buffer.data(), &size), AC_E_BUFFER_TOO_SMALL);
    EXPECT_EQ(size, needed);
    EXPECT_EQ(buffer, std::string(needed + 9, 'x'));
    // A larger buffer gets the text and its NUL, and nothing after them.
    size = static_cast<uint32_t>(buffer.size());
    ASSERT_EQ(stats.GetMetrics(buffer.data(), &size), AC_OK);
    EXPECT_EQ(size, needed);
    EXPECT_EQ(buffer.substr(needed - 1), std::string(1, '\0') + std::string(9, 'x'));
}

TEST(ZorvStats, DocumentListsSectionsInOrderWithTheirCaps) {
    ZorvStats stats;
    {
        const Json fresh(cJSON_Parse(Document(stats).c_str()));
        const cJSON* metrics = Member(fresh.get(), "metrics");
        ASSERT_NE(metrics, nullptr);
        EXPECT_STREQ(cJSON_GetStringValue(Member(metrics, "ACVersion")), "12.0.193");
        // The rule store is closed here: its sections stay empty.
        EXPECT_EQ(Keys(metrics), (std::vector<std::string>{"ACVersion", "InventoryUnknownExtensons",
                                                           "DriftUnknownExtensions", "TrustRuleHitCounts",
                                                           "rulesets", "trustrules_stats", "dbinfo"}));
        EXPECT_TRUE(Keys(Member(metrics, "TrustRuleHitCounts")).empty());
        EXPECT_TRUE(cJSON_IsArray(Member(metrics, "trustrules_stats")));
    }

    for (int i = 0; i < 120; ++i) {
        char16_t name[4] = {u'e', static_cast<char16_t>(u'A' + i / 26), static_cast<char16_t>(u'a' + i % 26), 0};
        stats.IncrementCounter(CounterCategory::DriftUnknownExtensions, name);
        stats.IncrementMetric(std::u16string(u"Counter") + name);
    }
    for (int id = 150; id >= 1; --id) stats.SetTrustRuleHitCount(id, id * 2);
    stats.IncrementTrustRuleHitCount(3);
    stats.IncrementTrustRuleHitCount(9999);  // never loaded: no entry appears
    stats.SetCounter(CounterCategory::InventoryUnknownExtensions, u"ps9", 3);
    stats.SetCounter(CounterCategory::Rulesets, u"ruleset_a", 12);
    stats.SetMetric(u"RunAllowedRule", 5);

    const Json document(cJSON_Parse(Document(stats).c_str()));
    const cJSON* metrics = Member(document.get(), "metrics");
    const std::vector<std::string> keys = Keys(metrics);
    ASSERT_EQ(keys.size(), 7u + 121u) << "every general counter, uncapped";
    EXPECT_EQ(keys[1], "CountereAa");
    EXPECT_EQ(keys[121], "RunAllowedRule") << "general counters in name order";
    EXPECT_EQ(cJSON_GetNumberValue(Member(metrics, "RunAllowedRule")), 5);

    const std::vector<std::string> drift = Keys(Member(metrics, "DriftUnknownExtensions"));
    ASSERT_EQ(drift.size(), 100u);
    EXPECT_EQ(drift.front(), "eAa");
    EXPECT_EQ(drift.back(), "eDv") << "the first 100 names in order";

    const cJSON* hits = Member(metrics, "TrustRuleHitCounts");
    const std::vector<std::string> ids = Keys(hits);
    ASSERT_EQ(ids.size(), 100u);
    EXPECT_EQ(ids.front(), "1");
    EXPECT_EQ(ids.back(), "100") << "the lowest 100 rule ids";
    EXPECT_EQ(cJSON_GetNumberValue(Member(hits, "3")), 7) << "the in-memory count, not minus one";
    EXPECT_EQ(Member(hits, "9999"), nullptr);

    EXPECT_EQ(cJSON_GetNumberValue(Member(Member(metrics, "InventoryUnknownExtensons"), "ps9")), 3);
    EXPECT_EQ(cJSON_GetNumberValue(Member(Member(metrics, "rulesets"), "ruleset_a")), 12);
}

// The document as get_metrics_mem gives it while the store is open.
TEST(ZorvStats, MetricsExportCarriesTheStoreCounts) {
    test::TempDir dir;
    const std::u16string dbPath = test::PathText(dir / "ac.db");
    const EngineStartParams params = test::StartParams(&dbPath);
    ASSERT_EQ(engine_start(&params), AC_OK);
    ZorvLogger::Instance().SetLevel(0xF);

    const std::u16string rules = test::U16(
        R"({"rules":[{"fileName":"a.exe","sha256":"01","action":"allow"},{"fileName":"b.exe","action":"block"}]})");
    ASSERT_EQ(set_ruleset_buffer(0, Host(rules), Host(u"ruleset_metrics")), AC_OK);

    uint32_t size = 0;
    ASSERT_EQ(get_metrics_mem(nullptr, &size), AC_E_BUFFER_TOO_SMALL);
    std::string text(size, '\0');
    ASSERT_EQ(get_metrics_mem(text.data(), &size), AC_OK);
    const Json document(cJSON_Parse(text.c_str()));
    const cJSON* metrics = Member(document.get(), "metrics");
    ASSERT_NE(metrics, nullptr) << text;
    EXPECT_EQ(cJSON_GetNumberValue(Member(Member(metrics, "rulesets"), "ruleset_metrics")), 2);

    const std::vector<std::string> keys = Keys(metrics);
    ASSERT_GE(keys.size(), 3u);
    EXPECT_EQ(std::vector<std::string>(keys.end() - 3, keys.end()),
              (std::vector<std::string>{"trustrules_stats", "AllowCache", "dbinfo"}));
    EXPECT_EQ(cJSON_GetNumberValue(Member(Member(metrics, "dbinfo"), "executionRules")), 2);
    EXPECT_EQ(engine_stop(), AC_OK);
}

}  // namespace
}  // namespace zorv

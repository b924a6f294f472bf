// ZorvStats: the category counters and the metrics document, read back as the
// agent reads it through get_metrics_mem.
#include <gtest/gtest.h>

#include <cjson/cJSON.h>

#include <memory>
#include <string>
#include <vector>

#include "TestSupport.h"
#include "Zorv.h"
#include "ZorvLogger.h"
#include "ZorvStats.h"
#include "zorv/zorv.h"

namespace zorv {
namespace {

using Json = std::unique_ptr<cJSON, decltype(&cJSON_Delete)>;

// The document parsed, fetched as the agent fetches it: a size query, then the copy.
Json Document(uint32_t (*get)(void*, uint32_t*)) {
    uint32_t size = 0;
    EXPECT_EQ(get(nullptr, &size), AC_E_BUFFER_TOO_SMALL);
    std::string text(size, '\xff');
    EXPECT_EQ(get(text.data(), &size), AC_OK);
    EXPECT_EQ(text.back(), '\0');
    return Json(cJSON_Parse(text.c_str()), cJSON_Delete);
}

std::vector<std::string> Keys(const cJSON* object) {
    std::vector<std::string> keys;
    for (const cJSON* child = object != nullptr ? object->child : nullptr; child != nullptr; child = child->next) {
        keys.emplace_back(child->string);
    }
    return keys;
}

const cJSON* Member(const cJSON* object, const char* key) { return cJSON_GetObjectItemCaseSensitive(object, key); }

ZorvStats* g_stats = nullptr;
uint32_t LocalMetrics(void* buffer, uint32_t* size) { return g_stats->GetMetrics(static_cast<char*>(buffer), size); }

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
    g_stats = &stats;
    for (int i = 0; i < 120; ++i) {
        char16_t name[4] = {u'e', static_cast<char16_t>(u'A' + i / 26), static_cast<char16_t>(u'a' + i % 26), 0};
        stats.IncrementCounter(CounterCategory::DriftUnknownExtensions, name);
        stats.IncrementMetric(std::u16string(u"Counter") + name);
    }
    for (int id = 150; id >= 1; --id) stats.SetTrustRuleHitCount(id, id * 2);
    stats.IncrementTrustRuleHitCount(3);
    stats.IncrementTrustRuleHitCount(9999);  // never loaded: no entry appears
    stats.SetMetric(u"RunAllowedRule", 5);

    // The rule store is closed here: its sections stay empty.
    const Json document = Document(&LocalMetrics);
    const cJSON* metrics = Member(document.get(), "metrics");
    const std::vector<std::string> keys = Keys(metrics);
    ASSERT_EQ(keys.size(), 7u + 121u) << "every general counter, uncapped";
    EXPECT_EQ(std::vector<std::string>(keys.begin(), keys.begin() + 2), (std::vector<std::string>{"ACVersion",
                                                                                                  "CountereAa"}));
    EXPECT_EQ(std::vector<std::string>(keys.end() - 7, keys.end()),
              (std::vector<std::string>{"RunAllowedRule", "InventoryUnknownExtensons", "DriftUnknownExtensions",
                                        "TrustRuleHitCounts", "rulesets", "trustrules_stats", "dbinfo"}))
        << "general counters in name order, then the sections";
    EXPECT_STREQ(cJSON_GetStringValue(Member(metrics, "ACVersion")), "12.0.193");
    EXPECT_EQ(cJSON_GetNumberValue(Member(metrics, "RunAllowedRule")), 5);

    const std::vector<std::string> drift = Keys(Member(metrics, "DriftUnknownExtensions"));
    ASSERT_EQ(drift.size(), 100u);
    EXPECT_EQ(drift.back(), "eDv") << "the first 100 names in order";

    const cJSON* hits = Member(metrics, "TrustRuleHitCounts");
    const std::vector<std::string> ids = Keys(hits);
    ASSERT_EQ(ids.size(), 100u);
    EXPECT_EQ(ids.front(), "1");
    EXPECT_EQ(ids.back(), "100") << "the lowest 100 rule ids";
    EXPECT_EQ(cJSON_GetNumberValue(Member(hits, "3")), 7) << "the in-memory count, not minus one";
    EXPECT_EQ(Member(hits, "9999"), nullptr);
}

// The document as get_metrics_mem gives it while the store is open.
TEST(ZorvStats, MetricsExportCarriesTheStoreCounts) {
    test::TempDir dir;
    const std::u16string dbPath = test::PathText(dir / "ac.db");
    const EngineStartParams params = test::StartParams(&dbPath);
    ASSERT_EQ(engine_start(&params), AC_OK);
    const std::u16string rules = test::U16(
        R"({"rules":[{"fileName":"a.exe","sha256":"01","action":"allow"},{"fileName":"b.exe","action":"block"}]})");
    ASSERT_EQ(set_ruleset_buffer(0, test::Host(rules), test::Host(u"ruleset_metrics")), AC_OK);

    const Json document = Document(&get_metrics_mem);
    const cJSON* metrics = Member(document.get(), "metrics");
    ASSERT_NE(metrics, nullptr);
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

// The counts the rule store contributes to the metrics document and to its
// own lookups, over rows seeded through a second connection.
#include <gtest/gtest.h>

#include <cjson/cJSON.h>

#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "SqliteProbe.h"
#include "TestSupport.h"
#include "ZorvDataAccessLayer.h"
#include "ZorvLogger.h"

namespace zorv {
namespace {

using test::SqliteProbe;

using Json = std::unique_ptr<cJSON, decltype(&cJSON_Delete)>;

std::string Print(const cJSON* json) {
    char* text = cJSON_PrintUnformatted(json);
    std::string out = text != nullptr ? text : "";
    cJSON_free(text);
    return out;
}

class ZorvDalMetrics : public ::testing::Test {
protected:
    void SetUp() override {
        ZorvLogger::Instance().InitLogger(&test::LogCapture::Callback, 0xF);
        ASSERT_TRUE(m_dal.SetDBPath(test::PathText(DbFile())));
        ASSERT_TRUE(m_dal.InitDB());
    }
    void TearDown() override { m_dal.Shutdown(); }

    std::filesystem::path DbFile() const { return m_dir / "ac.db"; }

    // The four "dbinfo" contributions in the order the metrics document asks for them.
    std::string DbInfo() {
        Json dbinfo(cJSON_CreateObject(), cJSON_Delete);
        m_dal.PrepareMetricsDBInfo(dbinfo.get());
        m_dal.UserGroupTrustRulesCount(dbinfo.get());
        m_dal.PrepareMetricsDBInfoRulesets(dbinfo.get());
        m_dal.PrepareMetricsDBSize(dbinfo.get());
        return Print(dbinfo.get());
    }

    test::TempDir m_dir;
    ZorvDAL m_dal;
};

TEST_F(ZorvDalMetrics, CountsBySourceRulesetAndUserGroup) {
    {
        SqliteProbe probe(DbFile());
        probe.Exec("INSERT INTO InventoryItems(fileName, source, ruleset, md5, sha1) VALUES "
                   "('a', 1, 'base', x'01', x'02'), ('b', 2, 'base', x'01', NULL), ('c', 2, 'extra', NULL, x'02'), "
                   "('d', 2, NULL, x'01', x'02'), ('e', 3, '', NULL, NULL), ('f', 4, NULL, NULL, NULL), "
                   "('g', 5, NULL, NULL, NULL);");
        probe.Exec("INSERT INTO TrustRules(trustType, procUser, procGroup, userList, hitcount) VALUES "
                   "(1, 'alice', NULL, NULL, 0), (1, NULL, 'staff', NULL, 0), (1, NULL, NULL, 'ops', 0), "
                   "(2, NULL, NULL, NULL, 0);");
    }
    EXPECT_EQ("{\"totalInventoryItems\":7,\"agentRules\":1,\"executionRules\":3,\"scannedItems\":1,"
              "\"approvedDrift\":1,\"PendingBufferedRows\":0,\"StoreHealthy\":true,\"totalTrustRules\":4,\"totalUserGroupTrustRules\":3,"
              "\"rulesets\":{\"base\":2,\"extra\":1},\"dbsize\":" +
                  std::to_string(std::filesystem::file_size(DbFile())) + "}",
              DbInfo());
    // Only ruleset (source 2) items count as hash rules.
    EXPECT_EQ(2, m_dal.MD5RulesCount(true));
    EXPECT_EQ(2, m_dal.SHA1RulesCount(false));
    EXPECT_EQ(4, m_dal.TrustRulesCount());
    std::vector<int32_t> ids{99};
    EXPECT_TRUE(m_dal.GetTrustRuleIDs(ids));
    EXPECT_EQ((std::vector<int32_t>{99, 1, 2, 3, 4}), ids) << "appended to what the list held";
}

TEST_F(ZorvDalMetrics, TrustRuleStatsListRulesWithAStoredHitcountOfOneOrMore) {
    {
        SqliteProbe probe(DbFile());
        probe.Exec("INSERT INTO TrustRules(trustRuleId, trustType, processName, paths, ruleset, hitcount, sha256, "
                   "issuerO, procGroup) VALUES "
                   "(1, 1, 'never.exe', NULL, 'rs', -1, NULL, NULL, NULL), "
                   "(2, 1, 'once.exe', NULL, 'rs', 0, NULL, NULL, NULL), "
                   "(3, 2, 'twice.exe', 'c:\\x\\*', 'rs', 1, x'" + std::string(64, 'f') + "', 'Org', 'staff');");
    }
    Json rules(cJSON_CreateArray(), cJSON_Delete);
    m_dal.PrepareMetrics(rules.get());
    EXPECT_EQ("[{\"trustRuleId\":3,\"paths\":\"c:\\\\x\\\\*\",\"hitcount\":1,\"processName\":\"twice.exe\","
              "\"trustType\":2,\"sha256\":\"" + std::string(64, 'f') + "\",\"issuerO\":\"Org\",\"group\":\"staff\"}]",
              Print(rules.get()));
}

TEST_F(ZorvDalMetrics, ClosedStoreAddsNoKeys) {
    m_dal.Shutdown();
    Json dbinfo(cJSON_CreateObject(), cJSON_Delete);
    EXPECT_FALSE(m_dal.PrepareMetricsDBInfo(dbinfo.get()));
    EXPECT_FALSE(m_dal.PrepareMetricsDBInfoRulesets(dbinfo.get()));
    EXPECT_EQ(0, m_dal.MD5RulesCount(true));
    std::vector<int32_t> ids;
    EXPECT_FALSE(m_dal.GetTrustRuleIDs(ids));
    EXPECT_EQ("{}", Print(dbinfo.get()));
}

TEST_F(ZorvDalMetrics, WaitingCountDoesNotOverlapAStore) {
    // Counts taken while other threads store must always see whole transactions.
    std::thread writer([this] {
        for (int i = 0; i < 200; ++i) {
            TrustRuleRecord rule;
            rule.trustType = 1;
            m_dal.StoreTrustRuleBuffer(rule);
        }
        m_dal.StoreTrustRuleFlush();
    });
    int32_t last = 0;
    for (int i = 0; i < 50; ++i) {
        const int32_t count = m_dal.TrustRulesCount();
        EXPECT_TRUE(count % 51 == 0 || count == 200) << "partial flush seen: " << count;
        EXPECT_GE(count, last);
        last = count;
    }
    writer.join();
    EXPECT_EQ(200, m_dal.TrustRulesCount());
}

}  // namespace
}  // namespace zorv

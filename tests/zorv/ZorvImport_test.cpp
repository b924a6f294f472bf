// Ruleset import through set_ruleset and set_ruleset_buffer, checked against
// what a second connection finds in ac.db afterwards.
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "SqliteProbe.h"
#include "TestSupport.h"
#include "Zorv.h"
#include "ZorvDataAccessLayer.h"
#include "ZorvLogger.h"
#include "ZorvStats.h"
#include "zorv/zorv.h"

namespace zorv {
namespace {

using test::Host;
using test::LogCapture;
using test::SqliteProbe;

// A distinct 64-digit SHA-256 text per number.
std::string Sha(int n) {
    char text[65];
    std::snprintf(text, sizeof text, "%064x", n);
    return text;
}

std::string Item(const std::string& fileName, int hash, const std::string& action, int size = 100) {
    return R"({"fileName":")" + fileName + R"(","sha256":")" + Sha(hash) + R"(","size":)" + std::to_string(size) +
           R"(,"action":")" + action + R"("})";
}

std::string Rules(const std::vector<std::string>& items) {
    std::string json = R"({"rules":[)";
    for (size_t i = 0; i < items.size(); ++i) json += (i > 0 ? "," : "") + items[i];
    return json + "]}";
}

constexpr const char* kAllItems = "SELECT source, fileName, ruleset FROM InventoryItems ORDER BY inventoryItemId";
constexpr const char* kAllTrust = "SELECT processName, ruleset FROM TrustRules ORDER BY trustRuleId";
constexpr const char* kAllUsers = "SELECT id, user FROM UserList ORDER BY rowid";

class ImportTest : public ::testing::Test {
protected:
    void SetUp() override {
        const EngineStartParams params = test::StartParams(&m_dbPath);
        ASSERT_EQ(engine_start(&params), AC_OK);
        ZorvLogger::Instance().SetLevel(0xF);
        m_probe = std::make_unique<SqliteProbe>(m_dir / "ac.db");
        LogCapture::Instance().Clear();
    }
    void TearDown() override {
        m_probe.reset();
        engine_stop();
        AppControlConfig::Instance().SetManifestApplied(true);
    }

    uint32_t ImportBuffer(uint8_t append, const std::string& json, const std::u16string& name) {
        const std::u16string text = test::U16(json);
        return set_ruleset_buffer(append, Host(text), Host(name));
    }

    uint32_t ImportFile(uint8_t append, const std::string& json, const std::u16string& name) {
        const auto file = m_dir / "ruleset.json";
        test::WriteFile(file, json);
        const std::u16string path = test::PathText(file);
        return set_ruleset(append, Host(path), Host(name));
    }

    // One row of each source the rule store knows, as scans and drift leave them.
    void SeedItems() {
        for (int source : {0, 1, 2, 3, 4, 5}) {
            m_probe->Exec("INSERT INTO InventoryItems(fileName, sha256, size, isAuthorized, source, ruleset) "
                          "VALUES('seed" + std::to_string(source) + ".exe', randomblob(32), 1, 1, " +
                          std::to_string(source) + ", 'seed')");
        }
    }

    void SeedTrust() {
        m_probe->Exec("INSERT INTO TrustRules(processName, trustType, ruleset, userList) "
                      "VALUES('seed.exe', 1, 'seed', 'seedlist')");
        m_probe->Exec("INSERT INTO UserList(id, user) VALUES('seedlist', 'someone')");
    }

    // Everything an import may touch, as text, to compare before and after.
    std::vector<std::string> Snapshot() {
        std::vector<std::string> all = m_probe->Lines("SELECT * FROM InventoryItems ORDER BY inventoryItemId");
        for (const auto& l : m_probe->Lines("SELECT * FROM TrustRules ORDER BY trustRuleId")) all.push_back(l);
        for (const auto& l : m_probe->Lines("SELECT * FROM UserList ORDER BY rowid")) all.push_back(l);
        for (const auto& l : Schema()) all.push_back(l);
        return all;
    }

    // Indexes and views with their SQL, and every table's columns. The tables'
    // own CREATE text is left out: renaming a table makes SQLite quote its name.
    std::vector<std::string> Schema() {
        std::vector<std::string> schema = m_probe->Lines(
            "SELECT type, name, tbl_name, sql FROM sqlite_master WHERE type != 'table' ORDER BY name");
        for (const auto& table : m_probe->Lines("SELECT name FROM sqlite_master WHERE type = 'table' ORDER BY name")) {
            schema.push_back("table " + table);
            for (const auto& column : m_probe->Lines("SELECT name, type, dflt_value, pk FROM pragma_table_info('" +
                                                     table + "')")) {
                schema.push_back("  " + column);
            }
        }
        return schema;
    }

    test::TempDir m_dir;
    std::u16string m_dbPath = test::PathText(m_dir / "ac.db");
    std::unique_ptr<SqliteProbe> m_probe;
};

TEST_F(ImportTest, ItemRulesetReplacesOnlyEarlierRulesetRowsAndAppendKeepsThem) {
    SeedItems();
    SeedTrust();
    ASSERT_EQ(ImportFile(0, Rules({Item("a1.exe", 1, "allow"), Item("a2.exe", 2, "block")}), u"RulesetA"), AC_OK);
    EXPECT_EQ(m_probe->Lines(kAllItems),
              (std::vector<std::string>{"0|seed0.exe|seed", "1|seed1.exe|seed", "3|seed3.exe|seed",
                                        "4|seed4.exe|seed", "5|seed5.exe|seed", "2|a1.exe|RulesetA",
                                        "2|a2.exe|RulesetA"}));
    // Every stored column of a ruleset item; the name is kept as passed.
    EXPECT_EQ(m_probe->Lines("SELECT fileName, path, nativePath, md5, sha1, sha256, size, recordTime, isAuthorized "
                             "FROM InventoryItems WHERE source = 2 ORDER BY inventoryItemId"),
              (std::vector<std::string>{"a1.exe|~|~|~|~|" + Sha(1) + "|100|0|1",
                                        "a2.exe|~|~|~|~|" + Sha(2) + "|100|0|0"}));
    EXPECT_EQ(m_probe->Lines(kAllTrust), (std::vector<std::string>{"seed.exe|seed"})) << "trust rules untouched";
    EXPECT_EQ(m_probe->Count("UserList"), 1);

    ASSERT_EQ(ImportBuffer(0, Rules({Item("b1.exe", 3, "allow")}), u"RulesetB"), AC_OK);
    EXPECT_EQ(m_probe->Lines("SELECT fileName FROM InventoryItems WHERE source = 2"),
              (std::vector<std::string>{"b1.exe"}))
        << "a replace drops every earlier item ruleset, whatever its name";
    EXPECT_EQ(m_probe->Count("InventoryItems WHERE source != 2"), 5);

    ASSERT_EQ(ImportFile(1, Rules({Item("c1.exe", 4, "allow"), Item("b1.exe", 3, "allow")}), u"RulesetC"), AC_OK);
    EXPECT_EQ(m_probe->Lines("SELECT fileName, ruleset FROM InventoryItems WHERE source = 2 ORDER BY inventoryItemId"),
              (std::vector<std::string>{"b1.exe|RulesetB", "c1.exe|RulesetC", "b1.exe|RulesetC"}))
        << "an append keeps everything, duplicates included";
    EXPECT_EQ(m_probe->Count("InventoryItems"), 8);
    EXPECT_TRUE(LogCapture::Instance().Contains(u"Importing item ruleset into db: RulesetC"));
}

TEST_F(ImportTest, AgentManifestKeepsMachineItemsAndAlwaysEmptiesTrustTables) {
    SeedItems();
    SeedTrust();
    const std::string manifest = R"({"rules":[)" + Item("agent.exe", 7, "allow") +
                                 R"(],"Trustrules":[{"processName":"ignored.exe"}],"Userlists":[{"id":"x","users":["u"]}]})";
    ASSERT_EQ(ImportBuffer(0, manifest, u"AgentManifest"), AC_OK);
    EXPECT_EQ(m_probe->Lines(kAllItems),
              (std::vector<std::string>{"0|seed0.exe|seed", "3|seed3.exe|seed", "4|seed4.exe|seed",
                                        "5|seed5.exe|seed", "1|agent.exe|AgentManifest"}));
    EXPECT_EQ(m_probe->Count("TrustRules"), 0) << "a manifest's own Trustrules are not read";
    EXPECT_EQ(m_probe->Count("UserList"), 0);
    EXPECT_TRUE(LogCapture::Instance().Contains(u"Clearing trust rules for new agent manifest: AgentManifest"));

    SeedTrust();
    ASSERT_EQ(ImportFile(1, Rules({Item("agent2.exe", 8, "allow")}), u"agent_manifest"), AC_OK);
    EXPECT_EQ(m_probe->Count("InventoryItems"), 6) << "append keeps every item";
    EXPECT_EQ(m_probe->Count("InventoryItems WHERE source = 1"), 2);
    EXPECT_EQ(m_probe->Count("TrustRules"), 0) << "even an appended manifest empties the trust tables";
    EXPECT_EQ(m_probe->Count("UserList"), 0);

    // Both words in the name: "agent" wins.
    SeedTrust();
    const std::string both = R"({"rules":[)" + Item("both.exe", 9, "allow") +
                             R"(],"Trustrules":[{"processName":"t.exe"}]})";
    ASSERT_EQ(ImportBuffer(0, both, u"MyAgentManifest_TrustRules"), AC_OK);
    EXPECT_EQ(m_probe->Lines("SELECT fileName, source FROM InventoryItems WHERE source IN (1, 2)"),
              (std::vector<std::string>{"both.exe|1"}));
    EXPECT_EQ(m_probe->Count("TrustRules"), 0);
    EXPECT_EQ(m_probe->Count("UserList"), 0);
}

TEST_F(ImportTest, TrustRulesetStoresEveryFieldAndItsUserLists) {
    SeedItems();
    const std::vector<std::string> itemsBefore = m_probe->Lines("SELECT * FROM InventoryItems");
    const std::string trust = R"({"Trustrules":[
        {"processName":"C:\\Tools\\Up?.exe","paths":"c:\\a\\**;c:\\b\\*","trustType":"3","signerName":"Signer Inc",
         "productName":"Prod","companyName":"Co","sha256":")" + Sha(42) + R"(",
         "issuerCN":"CN1","issuerC":"C1","issuerS":"S1","issuerL":"L1","issuerO":"O1","issuerOU":"OU1",
         "user":"DOMAIN\\Alice","group":"Admins","userList":"ListA"},
        {"processName":"b.exe","trustType":2,"sha256":""},
        7],
      "Userlists":[{"id":"ListA","users":["Bob","carol",5,null]},{"id":"admins","users":["root"]},
                   {"id":5,"users":["nobody"]},{"id":"nolist","users":"root"},{"users":["x"]}]})";
    ASSERT_EQ(ImportFile(0, trust, u"TrustRules_Corp"), AC_OK);
    EXPECT_EQ(m_probe->Lines("SELECT processName, paths, trustType, signerName, productName, companyName, sha256, "
                             "issuerCN, issuerC, issuerS, issuerL, issuerO, issuerOU, procUser, procGroup, userList, "
                             "ruleset, hitcount, trustLevel FROM TrustRules ORDER BY trustRuleId"),
              (std::vector<std::string>{
                  "C:\\Tools\\Up?.exe|c:\\a\\**;c:\\b\\*|3|Signer Inc|Prod|Co|" + Sha(42) +
                      "|CN1|C1|S1|L1|O1|OU1|domain\\alice|admins|lista|trustrules_corp|0|0",
                  "b.exe|~|2|~|~|~|~|~|~|~|~|~|~|~|~|~|trustrules_corp|0|0",
                  // A non-object element is a rule with every field empty.
                  "~|~|0|~|~|~|~|~|~|~|~|~|~|~|~|~|trustrules_corp|0|0"}));
    EXPECT_EQ(m_probe->Lines(kAllUsers),
              (std::vector<std::string>{"ListA|Bob", "ListA|carol", "admins|root"}))
        << "ids and names keep their case; non-string users and malformed lists are skipped";
    EXPECT_EQ(m_probe->Lines("SELECT * FROM InventoryItems"), itemsBefore) << "items untouched";

    // Every rule now has a hit count of 0: written back, each stores -1.
    ZorvStats::Instance().WriteTrustRuleHitCounts();
    EXPECT_EQ(m_probe->Lines("SELECT DISTINCT hitcount FROM TrustRules"), (std::vector<std::string>{"-1"}));

    ASSERT_EQ(ImportBuffer(1, R"({"Trustrules":[{"processName":"more.exe"}],"Userlists":[{"id":"l2","users":["u"]}]})",
                           u"trustrules_more"),
              AC_OK);
    EXPECT_EQ(m_probe->Count("TrustRules"), 4) << "append keeps the earlier rules";
    EXPECT_EQ(m_probe->Count("UserList"), 4);
    EXPECT_EQ(m_probe->Scalar("SELECT ruleset FROM TrustRules ORDER BY trustRuleId DESC LIMIT 1"), "trustrules_more");

    // Without keys a replace still empties both tables, and leaves the items.
    ASSERT_EQ(ImportBuffer(0, "{}", u"TrustRules_Empty"), AC_OK);
    EXPECT_EQ(m_probe->Count("TrustRules"), 0);
    EXPECT_EQ(m_probe->Count("UserList"), 0);
    EXPECT_EQ(m_probe->Lines("SELECT * FROM InventoryItems"), itemsBefore);
}

TEST_F(ImportTest, ManifestCycleWithSetConfig) {
    AppControlConfig& config = AppControlConfig::Instance();
    ASSERT_EQ(set_config(AC_CONFIG_LOCKDOWN, 0, 0), AC_OK);
    EXPECT_FALSE(config.ManifestApplied()) << "a store that never received a manifest counts as an upgrade";

    ASSERT_EQ(ImportBuffer(0, Rules({Item("r.exe", 1, "allow")}), u"ruleset_1"), AC_OK);
    EXPECT_FALSE(config.ManifestApplied()) << "only a manifest ends the wait";

    LogCapture::Instance().Clear();
    ASSERT_EQ(ImportBuffer(0, Rules({Item("agent.exe", 2, "allow")}), u"agent"), AC_OK);
    EXPECT_TRUE(config.ManifestApplied());
    EXPECT_TRUE(LogCapture::Instance().Contains(u"Manifest applied to version 12.0.193"));
    EXPECT_EQ(m_probe->Scalar("SELECT settingValue FROM AppControlState WHERE settingName = 'agentVersion'"),
              "12.0.193");

    LogCapture::Instance().Clear();
    ASSERT_EQ(set_config(AC_CONFIG_LOCKDOWN, 0, 0), AC_OK);
    EXPECT_TRUE(config.ManifestApplied()) << "the stored version now matches";
    EXPECT_TRUE(config.Lockdown());
    for (const auto& message : LogCapture::Instance().Messages()) {
        EXPECT_EQ(message.find(u"Upgrade detected"), std::u16string::npos);
    }
    set_config(0, 0, 0);
}

TEST_F(ImportTest, RulesetCountersFollowEachImportAndAreClearedByKind) {
    ZorvStats& stats = ZorvStats::Instance();
    stats.ClearCounters(CounterCategory::Rulesets, u"");
    const auto count = [&](const char16_t* name) { return stats.GetCounter(CounterCategory::Rulesets, name); };

    ASSERT_EQ(ImportBuffer(0, Rules({Item("a.exe", 1, "allow"), Item("b.exe", 2, "allow")}), u"ruleset_a"), AC_OK);
    ASSERT_EQ(ImportBuffer(0, R"({"Trustrules":[{},{},{}]})", u"trustrules_x"), AC_OK);
    EXPECT_EQ(count(u"ruleset_a"), 2u);
    EXPECT_EQ(count(u"trustrules_x"), 3u) << "keyed by the name as passed";

    // A replace clears the counters its kind's prefix names; an append clears none.
    ASSERT_EQ(ImportBuffer(1, Rules({Item("c.exe", 3, "allow")}), u"ruleset_b"), AC_OK);
    EXPECT_EQ(count(u"ruleset_a"), 2u);
    ASSERT_EQ(ImportBuffer(0, Rules({Item("d.exe", 4, "allow")}), u"ruleset_c"), AC_OK);
    EXPECT_EQ(count(u"ruleset_a"), 0u);
    EXPECT_EQ(count(u"ruleset_b"), 0u);
    EXPECT_EQ(count(u"ruleset_c"), 1u);
    EXPECT_EQ(count(u"trustrules_x"), 3u);

    // A failed import still cleared them: that happens before the transaction.
    m_probe->Exec("CREATE TABLE Old_TrustRules(x)");
    EXPECT_EQ(ImportBuffer(0, R"({"Trustrules":[{}]})", u"trustrules_y"), AC_E_FAILED);
    EXPECT_EQ(count(u"trustrules_x"), 0u);
    EXPECT_EQ(count(u"ruleset_c"), 1u);
    m_probe->Exec("DROP TABLE Old_TrustRules");

    ASSERT_EQ(ImportBuffer(0, Rules({Item("m.exe", 5, "allow")}), u"Agent_Manifest"), AC_OK);
    EXPECT_EQ(count(u"ruleset_c"), 0u) << "a manifest clears every ruleset counter";
    EXPECT_EQ(count(u"Agent_Manifest"), 1u);
}

TEST_F(ImportTest, ViewsAndIndexesAreRecreatedByEveryImport) {
    SeedItems();
    m_probe->Exec("CREATE VIEW ScannedOnly AS SELECT fileName FROM InventoryItems WHERE source = 3");
    const std::vector<std::string> schema = Schema();
    ASSERT_EQ(m_probe->Count("sqlite_master WHERE type = 'index'"), 13);

    ASSERT_EQ(ImportBuffer(0, Rules({Item("a.exe", 1, "allow")}), u"rulesetA"), AC_OK);
    EXPECT_EQ(Schema(), schema);
    ASSERT_EQ(ImportBuffer(0, R"({"Trustrules":[{"processName":"t.exe"}]})", u"trustrules"), AC_OK);
    EXPECT_EQ(Schema(), schema);
    ASSERT_EQ(ImportBuffer(1, Rules({Item("m.exe", 2, "allow")}), u"agent"), AC_OK);
    EXPECT_EQ(Schema(), schema);
    // A second round goes through tables whose CREATE text SQLite rewrote.
    ASSERT_EQ(ImportBuffer(1, Rules({Item("b.exe", 3, "allow")}), u"rulesetB"), AC_OK);
    EXPECT_EQ(Schema(), schema);

    EXPECT_EQ(m_probe->Count("Items"), m_probe->Count("InventoryItems"));
    EXPECT_EQ(m_probe->Lines("SELECT fileName FROM ScannedOnly"), (std::vector<std::string>{"seed3.exe"}));
    EXPECT_EQ(m_probe->Scalar("PRAGMA integrity_check"), "ok");
    EXPECT_EQ(m_probe->Count("sqlite_master WHERE name LIKE 'Temp_%' OR name LIKE 'Old_%'"), 0);
    // The lookups' plans still find their index after the swap.
    EXPECT_NE(m_probe->Lines("EXPLAIN QUERY PLAN SELECT * FROM InventoryItems WHERE sha256 = x'00'")[0].find(
                  "InventoryItems_Sha256"),
              std::string::npos);
}

TEST_F(ImportTest, FailureInTheLastSwapRollsBackAllThreeTables) {
    SeedItems();
    SeedTrust();
    // A table in the way of the item swap's first rename: the trust tables are
    // already swapped when the item swap fails.
    m_probe->Exec("CREATE TABLE Old_InventoryItems(x)");
    const std::vector<std::string> before = Snapshot();

    const std::string manifest = Rules({Item("agent.exe", 1, "allow")});
    EXPECT_EQ(ImportBuffer(0, manifest, u"AgentManifest"), AC_E_FAILED);
    EXPECT_EQ(Snapshot(), before) << "trust rules, user lists and items are all as they were";
    bool logged = false;
    for (const auto& line : LogCapture::Instance().Lines()) {
        logged |= line.function == u"ZorvDAL::SwapTempTableToOriginal" && line.level == kLogError &&
                  line.message.starts_with(u"Failed to rename InventoryItems table to Old_InventoryItems: ");
    }
    EXPECT_TRUE(logged);

    // Nothing is left behind to trip the next import.
    m_probe->Exec("DROP TABLE Old_InventoryItems");
    ASSERT_EQ(ImportBuffer(0, manifest, u"AgentManifest"), AC_OK);
    EXPECT_EQ(m_probe->Count("InventoryItems WHERE source = 1"), 1);
    EXPECT_EQ(m_probe->Count("TrustRules"), 0);
    EXPECT_EQ(m_probe->Scalar("PRAGMA integrity_check"), "ok");
}

TEST_F(ImportTest, JsonEdgeValues) {
    const std::string rules = R"({"rules":[
        {"fileName":"s1","size":"12abc"},
        {"fileName":"s2","size":4294967296},
        {"fileName":"s3","size":"abc"},
        {"fileName":"s4","size":-5000000000},
        {"fileName":"s5","size":"99999999999"},
        {"fileName":"s6","size":12.9,"action":"blocked"},
        {"fileName":"s7","action":"Allow"},
        {"fileName":"s8","action":"allowed"},
        {"fileName":7,"sha256":12,"action":true,"size":null},
        {"fileName":"s10","sha1":"ABCDEF0123456789abcdef0123456789ABCDEF01","md5":"0123456789abcdef0123456789ABCDEF"},
        "text", 5, null, []]})";
    ASSERT_EQ(ImportBuffer(0, rules, u"edge"), AC_OK);
    EXPECT_EQ(m_probe->Lines("SELECT fileName, size, isAuthorized, sha1, md5, sha256 FROM InventoryItems "
                             "ORDER BY inventoryItemId"),
              (std::vector<std::string>{
                  "s1|12|3|~|~|~",           // atoi reading; no action: state 0 stored as 3
                  "s2|2147483647|3|~|~|~",   // a number saturates at the 32-bit end
                  "s3|0|3|~|~|~",
                  "s4|-2147483648|3|~|~|~",
                  "s5|2147483647|3|~|~|~",   // so does a string beyond the range
                  "s6|12|0|~|~|~",           // "blocked" begins with "block"
                  "s7|0|3|~|~|~",            // "Allow" is not "allow": state 0
                  "s8|0|1|~|~|~",
                  "~|0|3|~|~|~",             // wrong types leave the fields empty
                  "s10|0|3|abcdef0123456789abcdef0123456789abcdef01|0123456789abcdef0123456789abcdef|~",
                  "~|0|3|~|~|~", "~|0|3|~|~|~", "~|0|3|~|~|~", "~|0|3|~|~|~"}));
    EXPECT_TRUE(LogCapture::Instance().Contains(u"Unhandled authorizedState 0, default to on the allow list(3)"));

    // A document without elements imports nothing, and as a replace it still
    // drops the earlier item rulesets.
    m_probe->Exec("INSERT INTO InventoryItems(fileName, source) VALUES('scan.exe', 3)");
    ASSERT_EQ(ImportBuffer(0, R"({"rules":{}})", u"empty"), AC_OK);
    EXPECT_EQ(m_probe->Lines(kAllItems), (std::vector<std::string>{"3|scan.exe|~"}));
    ASSERT_EQ(ImportBuffer(1, R"({"rules":"not a list","other":[1]})", u""), AC_OK);
    EXPECT_EQ(m_probe->Count("InventoryItems"), 1);
    // The members of an object under "rules" are walked like elements.
    ASSERT_EQ(ImportBuffer(1, R"({"rules":{"x":{"fileName":"o.exe"}}})", u""), AC_OK);
    EXPECT_EQ(m_probe->Lines("SELECT fileName, ruleset FROM InventoryItems WHERE source = 2"),
              (std::vector<std::string>{"o.exe|~"}))
        << "an empty name stores an empty ruleset";
}

TEST_F(ImportTest, BadDocumentsAnswerFailureAndLeaveTheStoreUnchanged) {
    SeedItems();
    SeedTrust();
    const std::vector<std::string> before = Snapshot();
    const auto expectRefused = [&](uint32_t status, std::u16string_view message, const char* what) {
        EXPECT_EQ(status, AC_E_FAILED) << what;
        EXPECT_TRUE(LogCapture::Instance().Contains(message)) << what;
        EXPECT_EQ(Snapshot(), before) << what;
        LogCapture::Instance().Clear();
    };

    expectRefused(ImportBuffer(0, R"({"rules":[{"fileName":"a"})", u"r"), u"Ruleset parse error", "unterminated");
    expectRefused(ImportBuffer(0, "", u"r"), u"Ruleset parse error", "empty text");
    expectRefused(ImportBuffer(0, R"({"rules":[1,2,]})", u"r"), u"Ruleset parse error", "trailing comma");
    const std::string deep = R"({"rules":[)" + std::string(100000, '[') + std::string(100000, ']') + "]}";
    expectRefused(ImportFile(0, deep, u"r"), u"Ruleset parse error", "nested beyond the parser's limit");

    const std::u16string missing = test::PathText(m_dir / "missing.json");
    expectRefused(set_ruleset(0, Host(missing), Host(u"r")),
                  u"ZorvDAL::ImportRuleset Unable to get ruleset file information from path: " + missing,
                  "missing file");
    const std::u16string folder = test::PathText(m_dir.path());
    expectRefused(set_ruleset(0, Host(folder), Host(u"r")), u"Couldn't create payload", "a folder");

    EXPECT_EQ(set_ruleset(0, nullptr, Host(u"r")), AC_E_INVALID_ARG);
    EXPECT_EQ(set_ruleset_buffer(0, nullptr, Host(u"r")), AC_E_NULL_BUFFER);
    EXPECT_EQ(Snapshot(), before);
}

TEST_F(ImportTest, LargeDocumentIsReadWholeAndRefusedWhenTruncated) {
    SeedItems();
    const std::vector<std::string> before = Snapshot();
    std::string json = R"({"rules":[)";
    const std::string filler = R"({"fileName":")" + std::string(1000, 'x') + R"(","size":1},)";
    while (json.size() < 32u * 1024 * 1024) json += filler;
    json += Item("last.exe", 1, "allow");  // no closing "]}"
    EXPECT_EQ(ImportFile(0, json, u"big"), AC_E_FAILED);
    EXPECT_TRUE(LogCapture::Instance().Contains(u"Ruleset parse error"));
    EXPECT_EQ(Snapshot(), before);
}

}  // namespace
}  // namespace zorv

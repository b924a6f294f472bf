// Ruleset import through set_ruleset and set_ruleset_buffer, checked against
// what a second connection finds in ac.db afterwards.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "EngineTestFixture.h"
#include "ZorvWildcard.h"

namespace zorv {
namespace {

using test::Host;
using Lines = std::vector<std::string>;

// A distinct 64-digit SHA-256 text per number.
std::string Sha(int n) {
    char text[65];
    std::snprintf(text, sizeof text, "%064x", n);
    return text;
}

std::string Item(const std::string& fileName, int hash, const std::string& action) {
    return R"({"fileName":")" + fileName + R"(","sha256":")" + Sha(hash) + R"(","size":100,"action":")" + action +
           R"("})";
}

std::string Rules(const std::vector<std::string>& items) {
    std::string json = R"({"rules":[)";
    for (size_t i = 0; i < items.size(); ++i) json += (i > 0 ? "," : "") + items[i];
    return json + "]}";
}

constexpr const char* kAllItems = "SELECT source, fileName, ruleset FROM InventoryItems ORDER BY inventoryItemId";

class ImportTest : public test::EngineFixture {
protected:
    static uint32_t ImportBuffer(uint8_t append, const std::string& json, const std::u16string& name) {
        const std::u16string text = test::U16(json);
        return set_ruleset_buffer(append, Host(text), Host(name));
    }
    uint32_t ImportFile(uint8_t append, const std::string& json, const std::u16string& name) {
        test::WriteFile(m_dir / "ruleset.json", json);
        const std::u16string path = test::PathText(m_dir / "ruleset.json");
        return set_ruleset(append, Host(path), Host(name));
    }
    Lines Rows(const std::string& sql) { return Probe().Lines(sql); }

    // One row of each source the rule store knows, and one trust rule with its user list.
    void Seed(bool items = true) {
        for (int source = 0; items && source < 6; ++source) {
            Probe().Exec("INSERT INTO InventoryItems(fileName, sha256, size, isAuthorized, source, ruleset) "
                         "VALUES('seed" + std::to_string(source) + ".exe', randomblob(32), 1, 1, " +
                         std::to_string(source) + ", 'seed')");
        }
        Probe().Exec("INSERT INTO TrustRules(processName, trustType, ruleset, userList) "
                     "VALUES('seed.exe', 1, 'seed', 'seedlist'); INSERT INTO UserList VALUES('seedlist', 'someone')");
    }
    // "items|trust rules|user list entries"
    std::string Counts() {
        return Rows("SELECT (SELECT count(*) FROM InventoryItems), (SELECT count(*) FROM TrustRules), "
                    "(SELECT count(*) FROM UserList)")[0];
    }
    // Indexes and views with their SQL, and every table's columns. Tables' own
    // CREATE text is left out: renaming a table makes SQLite quote its name.
    Lines Schema() {
        return Rows("SELECT type, name, tbl_name, sql FROM sqlite_master WHERE type != 'table' UNION ALL "
                    "SELECT m.name, c.name, c.type, c.pk FROM sqlite_master m, pragma_table_info(m.name) c "
                    "WHERE m.type = 'table' ORDER BY 1, 2");
    }
    // Everything an import may touch.
    Lines Snapshot() {
        Lines all = Schema();
        for (const char* table : {"InventoryItems", "TrustRules", "UserList"}) {
            for (auto& line : Rows(std::string("SELECT * FROM ") + table + " ORDER BY rowid")) all.push_back(line);
        }
        return all;
    }
};

TEST_F(ImportTest, ItemRulesetReplacesOnlyEarlierRulesetRowsAndAppendKeepsThem) {
    Seed();
    Probe().Exec("CREATE VIEW ScannedOnly AS SELECT fileName FROM InventoryItems WHERE source = 3");
    const Lines schema = Schema();
    ASSERT_EQ(ImportFile(0, Rules({Item("a1.exe", 1, "allow"), Item("a2.exe", 2, "block")}), u"RulesetA"), AC_OK);
    EXPECT_EQ(Rows(kAllItems), (Lines{"0|seed0.exe|seed", "1|seed1.exe|seed", "3|seed3.exe|seed", "4|seed4.exe|seed",
                                      "5|seed5.exe|seed", "2|a1.exe|RulesetA", "2|a2.exe|RulesetA"}));
    EXPECT_EQ(Rows("SELECT fileName, path, nativePath, md5, sha1, sha256, size, recordTime, isAuthorized "
                   "FROM InventoryItems WHERE source = 2 ORDER BY inventoryItemId"),
              (Lines{"a1.exe|~|~|~|~|" + Sha(1) + "|100|0|1", "a2.exe|~|~|~|~|" + Sha(2) + "|100|0|0"}));
    EXPECT_EQ(Counts(), "7|1|1") << "trust tables untouched";

    ASSERT_EQ(ImportBuffer(0, Rules({Item("b1.exe", 3, "allow")}), u"RulesetB"), AC_OK);
    ASSERT_EQ(ImportFile(1, Rules({Item("c1.exe", 4, "allow"), Item("b1.exe", 3, "allow")}), u"RulesetC"), AC_OK);
    EXPECT_EQ(Rows("SELECT fileName, ruleset FROM InventoryItems WHERE source = 2 ORDER BY inventoryItemId"),
              (Lines{"b1.exe|RulesetB", "c1.exe|RulesetC", "b1.exe|RulesetC"}))
        << "a replace drops every earlier item ruleset, whatever its name; an append keeps duplicates";
    EXPECT_EQ(Schema(), schema) << "the swaps re-create every index and view and leave no helper table";
}

TEST_F(ImportTest, AgentManifestKeepsMachineItemsAndAlwaysEmptiesTrustTables) {
    Seed();
    ASSERT_EQ(ImportBuffer(0, R"({"rules":[)" + Item("agent.exe", 7, "allow") +
                                  R"(],"Trustrules":[{"processName":"x.exe"}],"Userlists":[{"id":"x","users":["u"]}]})",
                           u"AgentManifest"),
              AC_OK);
    EXPECT_EQ(Rows(kAllItems), (Lines{"0|seed0.exe|seed", "3|seed3.exe|seed", "4|seed4.exe|seed", "5|seed5.exe|seed",
                                      "1|agent.exe|AgentManifest"}));
    EXPECT_EQ(Counts(), "5|0|0") << "a manifest's own Trustrules are not read";
    EXPECT_TRUE(AppControlConfig::Instance().ManifestApplied());
    EXPECT_EQ(Probe().Scalar("SELECT settingValue FROM AppControlState WHERE settingName = 'agentVersion'"),
              "12.0.193");

    Seed(false);
    ASSERT_EQ(ImportFile(1, Rules({Item("agent2.exe", 8, "allow")}), u"agent_manifest"), AC_OK);
    EXPECT_EQ(Counts(), "6|0|0") << "even an appended manifest empties the trust tables";

    Seed(false);
    ASSERT_EQ(ImportBuffer(0, Rules({Item("both.exe", 9, "allow")}), u"MyAgentManifest_TrustRules"), AC_OK);
    EXPECT_EQ(Rows("SELECT fileName FROM InventoryItems WHERE source IN (1, 2)"), Lines{"both.exe"})
        << "with both words in the name, \"agent\" wins";
    EXPECT_EQ(Counts(), "5|0|0");
}

TEST_F(ImportTest, OverlongPatternSkipsItsRuleWithAWarningAndTheRestGoesOn) {
    const std::string fits(WildcardPattern::kMaxPatternUnits, '*');
    const std::string tooLong = "c:\\\\" + std::string(WildcardPattern::kMaxPatternUnits, 'a');
    const std::string trust = R"({"Trustrules":[{"processName":"a.exe","paths":")" + fits +
                              R"("},{"processName":"b.exe","paths":")" + tooLong +
                              R"("},{"processName":")" + tooLong + R"("},{"processName":"d.exe"}]})";
    ASSERT_EQ(ImportBuffer(0, trust, u"TrustRules_Long"), AC_OK);
    EXPECT_EQ(Rows("SELECT processName FROM TrustRules ORDER BY trustRuleId"), (Lines{"a.exe", "d.exe"}));
    size_t warnings = 0;
    for (const auto& line : test::LogCapture::Instance().Lines()) {
        if (line.level == AC_LOG_WARNING && line.message.starts_with(u"Trust rule skipped: pattern of 263 units")) {
            EXPECT_NE(line.message.find(u"c:\\aaaa"), std::u16string::npos);
            ++warnings;
        }
    }
    EXPECT_EQ(warnings, 2u);
}

TEST_F(ImportTest, TrustRulesetStoresEveryFieldAndItsUserLists) {
    Seed();
    Probe().Exec("DELETE FROM TrustRules; DELETE FROM UserList");
    const Lines itemsBefore = Rows("SELECT * FROM InventoryItems");
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
    EXPECT_EQ(Rows("SELECT processName, paths, trustType, signerName, productName, companyName, sha256, "
                   "issuerCN, issuerC, issuerS, issuerL, issuerO, issuerOU, procUser, procGroup, userList, "
                   "ruleset, hitcount, trustLevel FROM TrustRules ORDER BY trustRuleId"),
              (Lines{"C:\\Tools\\Up?.exe|c:\\a\\**;c:\\b\\*|3|Signer Inc|Prod|Co|" + Sha(42) +
                         "|CN1|C1|S1|L1|O1|OU1|domain\\alice|admins|lista|trustrules_corp|0|0",
                     "b.exe|~|2|~|~|~|~|~|~|~|~|~|~|~|~|~|trustrules_corp|0|0",
                     // A non-object element is a rule with every field empty.
                     "~|~|0|~|~|~|~|~|~|~|~|~|~|~|~|~|trustrules_corp|0|0"}));
    EXPECT_EQ(Rows("SELECT id, user FROM UserList ORDER BY rowid"),
              (Lines{"ListA|Bob", "ListA|carol", "admins|root"}))
        << "ids and names keep their case; non-string users and malformed lists are skipped";

    ASSERT_EQ(ImportBuffer(1, R"({"Trustrules":[{"processName":"m.exe"}],"Userlists":[{"id":"l2","users":["u"]}]})",
                           u"trustrules_more"),
              AC_OK);
    EXPECT_EQ(Counts(), "6|4|4") << "append keeps the earlier rules";
    // Without keys a replace still empties both tables.
    ASSERT_EQ(ImportBuffer(0, "{}", u"TrustRules_Empty"), AC_OK);
    EXPECT_EQ(Counts(), "6|0|0");
    EXPECT_EQ(Rows("SELECT * FROM InventoryItems"), itemsBefore) << "items untouched";
}

TEST_F(ImportTest, FailedImportLeavesAllThreeTablesAsTheyWere) {
    Seed();
    const Lines before = Snapshot();
    // In the way of the item swap's first rename: the trust tables are already
    // swapped when the item swap fails.
    Probe().Exec("CREATE TABLE Old_InventoryItems(x)");
    const std::string manifest = Rules({Item("agent.exe", 1, "allow")});
    EXPECT_EQ(ImportBuffer(0, manifest, u"AgentManifest"), AC_E_FAILED);
    Probe().Exec("DROP TABLE Old_InventoryItems");
    EXPECT_EQ(Snapshot(), before) << "trust rules, user lists and items are all as they were";

    // Nothing is left behind to trip the next import.
    ASSERT_EQ(ImportBuffer(0, manifest, u"AgentManifest"), AC_OK);
    EXPECT_EQ(Counts(), "5|0|0");
    EXPECT_EQ(Probe().Scalar("PRAGMA integrity_check"), "ok");
}

// The document is read while its rows are stored: a fault found after the
// rows, or a text that is no object at all, must leave nothing of them.
TEST_F(ImportTest, DocumentFaultAfterItsRowsRollsTheWholeImportBack) {
    Seed();
    const Lines before = Snapshot();
    const std::string rows = R"({"rules":[{"fileName":"a.exe","size":1}],"Trustrules":[{"processName":"p"}],)"
                             R"("Userlists":[{"id":"l","users":["u"]}])";
    for (const std::string& tail : {std::string(R"(,"x":[1,}])"), std::string("} trailing"),
                                    std::string(R"(,"x":")"), std::string(R"(,"rules":[01x]})")}) {
        for (const char16_t* name : {u"ruleset", u"TrustRules", u"AgentManifest"}) {
            EXPECT_EQ(ImportBuffer(0, rows + tail, name), AC_E_FAILED) << tail;
            EXPECT_EQ(ImportFile(1, rows + tail, name), AC_E_FAILED) << tail;
        }
    }
    EXPECT_EQ(ImportBuffer(0, R"([{"rules":[{"fileName":"a.exe"}]}])", u"ruleset"), AC_E_FAILED);
    EXPECT_EQ(Snapshot(), before);
    // Userlists may come first, and only the first of a repeated key counts.
    ASSERT_EQ(ImportFile(0, R"({"Userlists":[{"id":"l","users":["u"]}],"Trustrules":[{"processName":"p"}],)"
                            R"("Trustrules":[{"processName":"q"},{"processName":"r"}]})",
                         u"TrustRules"),
              AC_OK);
    EXPECT_EQ(Rows("SELECT processName FROM TrustRules"), Lines{"p"});
    EXPECT_EQ(Rows("SELECT id, user FROM UserList"), Lines{"l|u"});
}

TEST_F(ImportTest, JsonEdgeValues) {
    const std::string rules = R"({"rules":[
        {"fileName":"s1","size":"12abc"},
        {"fileName":"s2","size":4294967296},
        {"fileName":"s6","size":12.9,"action":"blocked"},
        {"fileName":"s7","action":"Allow"},
        {"fileName":7,"sha256":12,"action":true,"size":null},
        {"fileName":"s10","sha1":"ABCDEF0123456789abcdef0123456789ABCDEF01","md5":"0123456789abcdef0123456789ABCDEF"},
        "text"]})";
    ASSERT_EQ(ImportBuffer(0, rules, u"edge"), AC_OK);
    EXPECT_EQ(Rows("SELECT fileName, size, isAuthorized, sha1, md5, sha256 FROM InventoryItems "
                   "ORDER BY inventoryItemId"),
              (Lines{
                  "s1|12|3|~|~|~",           // atoi reading; no action: state 0 stored as 3
                  "s2|2147483647|3|~|~|~",   // a number saturates at the 32-bit ends
                  "s6|12|0|~|~|~",           // "blocked" begins with "block"
                  "s7|0|3|~|~|~",            // "Allow" is not "allow": state 0
                  "~|0|3|~|~|~",             // wrong types leave the fields empty
                  "s10|0|3|abcdef0123456789abcdef0123456789abcdef01|0123456789abcdef0123456789abcdef|~",
                  "~|0|3|~|~|~"}));

    // A document without elements imports nothing, and as a replace it still drops the earlier item rulesets.
    Probe().Exec("INSERT INTO InventoryItems(fileName, source) VALUES('scan.exe', 3)");
    ASSERT_EQ(ImportBuffer(0, R"({"rules":"not a list"})", u"empty"), AC_OK);
    EXPECT_EQ(Rows(kAllItems), Lines{"3|scan.exe|~"});
}

}  // namespace
}  // namespace zorv

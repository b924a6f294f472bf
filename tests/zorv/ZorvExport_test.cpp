// Inventory export through get_inventory: pages of JSON lines in a payload
// file, read back as the agent reads them.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "SqliteProbe.h"
#include "TestSupport.h"
#include "Zorv.h"
#include "ZorvDataAccessLayer.h"
#include "ZorvLogger.h"
#include "zorv/zorv.h"

namespace zorv {
namespace {

using test::Host;
using test::SqliteProbe;

// The payload cut into its CR LF-terminated lines; a missing terminator
// shows as a last line with "<unterminated>" appended.
std::vector<std::string> PayloadLines(const std::filesystem::path& file) {
    const std::string text = test::ReadFile(file);
    std::vector<std::string> lines;
    size_t start = 0;
    while (start < text.size()) {
        const size_t end = text.find("\r\n", start);
        if (end == std::string::npos) {
            lines.push_back(text.substr(start) + "<unterminated>");
            break;
        }
        lines.push_back(text.substr(start, end - start));
        start = end + 2;
    }
    return lines;
}

class ExportTest : public ::testing::Test {
protected:
    void SetUp() override {
        const EngineStartParams params = test::StartParams(&m_dbPath);
        ASSERT_EQ(engine_start(&params), AC_OK);
        ZorvLogger::Instance().SetLevel(0xF);
        m_probe = std::make_unique<SqliteProbe>(m_dir / "ac.db");
    }
    void TearDown() override {
        m_probe.reset();
        engine_stop();
        AppControlConfig::Instance().SetMaxInventoryItemId(0);
    }

    uint32_t Export(uint64_t after, uint64_t limit, uint32_t source) {
        const std::u16string path = test::PathText(m_dir / "page.jsonl");
        return get_inventory(after, limit, source, Host(path), Host(u"scan-1"));
    }

    std::vector<std::string> Page(uint64_t after, uint64_t limit, uint32_t source) {
        EXPECT_EQ(Export(after, limit, source), AC_OK);
        return PayloadLines(m_dir / "page.jsonl");
    }

    void SeedThreeItems() {
        m_probe->Exec(
            "INSERT INTO InventoryItems(inventoryItemId, fileName, path, nativePath, md5, sha1, sha256, size, "
            "recordTime, isAuthorized, source, ruleset) VALUES "
            "(5, 'a.exe', 'c:\\dir\\', 'c:\\dir\\a.exe', x'000102030405060708090a0b0c0d0e0f', NULL, "
            "x'00112233445566778899aabbccddeeff00112233445566778899aabbccddeeff', 1234, 1700000000123, 1, 3, ''), "
            "(9, 'b \"q\".exe', NULL, NULL, NULL, x'0102030405060708090a0b0c0d0e0f1011121314', NULL, 0, 0, 0, 2, "
            "'RulesetA'), "
            "(12, 'c.exe', 'd', NULL, NULL, NULL, NULL, 3000000000, 5, 3, 4, NULL)");
    }

    test::TempDir m_dir;
    std::u16string m_dbPath = test::PathText(m_dir / "ac.db");
    std::unique_ptr<SqliteProbe> m_probe;
};

TEST_F(ExportTest, PagesItemsInIdOrderOneJsonObjectPerLine) {
    SeedThreeItems();
    const std::vector<std::string> first = Page(0, 2, 0);
    EXPECT_EQ(first, (std::vector<std::string>{
                         R"({"inventoryItemId":5,"fileName":"a.exe","path":"c:\\dir\\","nativePath":"c:\\dir\\a.exe",)"
                         R"("md5":"000102030405060708090a0b0c0d0e0f","sha1":"",)"
                         R"("sha256":"00112233445566778899aabbccddeeff00112233445566778899aabbccddeeff",)"
                         R"("size":1234,"recordTime":1700000000123,"isAuthorized":1,"source":3,"rulesetId":"",)"
                         R"("scanUuid":"scan-1"})",
                         // NULL texts leave their keys out; NULL digests give "".
                         R"({"inventoryItemId":9,"fileName":"b \"q\".exe","md5":"",)"
                         R"("sha1":"0102030405060708090a0b0c0d0e0f1011121314","sha256":"","size":0,"recordTime":0,)"
                         R"("isAuthorized":0,"source":2,"rulesetId":"RulesetA","scanUuid":"scan-1"})"}));
    // The agent resumes from the last id it read.
    EXPECT_EQ(Page(9, 2, 0), (std::vector<std::string>{
                                 R"({"inventoryItemId":12,"fileName":"c.exe","path":"d","md5":"","sha1":"",)"
                                 R"("sha256":"","size":-1294967296,"recordTime":5,"isAuthorized":3,"source":4,)"
                                 R"("scanUuid":"scan-1"})"}))
        << "size is read as a 32-bit number";
    EXPECT_TRUE(Page(12, 2, 0).empty());
    EXPECT_EQ(test::ReadFile(m_dir / "page.jsonl"), "") << "each call replaces the payload";
    EXPECT_EQ(Page(0, 0, 0).size(), 0u);
}

TEST_F(ExportTest, SourceFilterAndTheInventoryFloor) {
    SeedThreeItems();
    m_probe->Exec("INSERT INTO TrustRules(processName, trustType) VALUES('t.exe', 1)");
    // Each line's first member, the row's id.
    const auto ids = [](const std::vector<std::string>& lines) {
        std::vector<std::string> out;
        for (const auto& line : lines) out.push_back(line.substr(0, line.find(',')));
        return out;
    };
    EXPECT_EQ(ids(Page(0, 10, 3)), (std::vector<std::string>{R"({"inventoryItemId":5)"}));
    EXPECT_EQ(ids(Page(0, 10, AC_SOURCE_TRUST_RULE)), (std::vector<std::string>{R"({"trustRuleId":1)"}))
        << "filter 6 lists trust rules, never items";

    // get_inventory never starts below the configured floor.
    AppControlConfig::Instance().SetMaxInventoryItemId(9);
    EXPECT_EQ(ids(Page(0, 10, 0)), (std::vector<std::string>{R"({"inventoryItemId":12)"}));

    // Without the inventoryCookie setting the Items view is empty.
    AppControlConfig::Instance().SetMaxInventoryItemId(0);
    m_probe->Exec("DELETE FROM AppControlState WHERE settingName = 'inventoryCookie'");
    EXPECT_TRUE(Page(0, 10, 0).empty());
    EXPECT_EQ(ids(Page(0, 10, AC_SOURCE_TRUST_RULE)).size(), 1u);
}

TEST_F(ExportTest, TrustRuleLinesCarryTheirUserLists) {
    const std::string trust = R"({"Trustrules":[
        {"processName":"up.exe","paths":"c:\\x\\*","trustType":2,"signerName":"S","productName":"P",
         "companyName":"C","sha256":")" + std::string(64, 'a') + R"(","issuerCN":"CN","issuerOU":"OU",
         "user":"u1","group":"g1","userList":"admins"},
        {"processName":"caps.exe","userList":"ListA"}],
      "Userlists":[{"id":"admins","users":["alice","bob"]},{"id":"ListA","users":["carol"]}]})";
    const std::u16string text = test::U16(trust);
    ASSERT_EQ(set_ruleset_buffer(0, Host(text), Host(u"TrustRules_T")), AC_OK);
    m_probe->Exec("UPDATE TrustRules SET hitcount = 7 WHERE processName = 'up.exe'");

    EXPECT_EQ(Page(0, 10, AC_SOURCE_TRUST_RULE),
              (std::vector<std::string>{
                  R"({"trustRuleId":1,"paths":"c:\\x\\*","hitcount":7,"processName":"up.exe","trustType":2,)"
                  R"("signername":"S","productName":"P","companyName":"C","sha256":")" +
                      std::string(64, 'a') +
                      R"(","issuerCN":"CN","issuerOU":"OU","user":"u1","group":"g1","userList":"admins",)"
                      R"("users":["alice","bob"],"userListCount":2})",
                  // The rule's reference was lowered, the list's id was not: they never join.
                  R"({"trustRuleId":2,"hitcount":0,"processName":"caps.exe","trustType":0,"userList":"lista",)"
                  R"("users":[],"userListCount":0})"}));
}

}  // namespace
}  // namespace zorv

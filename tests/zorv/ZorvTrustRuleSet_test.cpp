// The in-memory trust rules against the lookup statement they replace: random
// rule sets and random events, the same answer, the same rule and the same
// log lines from both.
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "SqliteProbe.h"
#include "TestSupport.h"
#include "DalTestPeer.h"
#include "ZorvDataAccessLayer.h"
#include "ZorvLogger.h"

namespace zorv {
namespace {

using test::LogCapture;

// Small vocabularies, so that random rules and events meet often; each holds
// the case, separator, list and wildcard variants the two paths must agree on.
const std::vector<std::string> kRuleNames = {
    "NULL", "'c:\\tools\\a.exe'", "'C:\\Tools\\A.exe'", "'b.exe'", "'a.exe;b.exe'", "'c:\\tools\\*.exe'",
    "'c:\\tools\\?.exe'", "'*.exe'", "'c:\\**'", "'c:\\tools\\'", "'a.exe;c:\\tools\\*'", "''", "'c:\\tools\\**\\*.exe'",
    "'?.exe;;b.*'"};
const std::vector<std::string> kRulePaths = {
    "NULL", "''", "'c:\\program files\\*'", "'c:\\program files\\**'", "'d:\\*;c:\\program files\\app.exe'",
    "'C:\\PROGRAM FILES\\APP.EXE'", "'c:\\program files\\a??.exe'"};
const std::vector<std::string> kRuleTexts = {"NULL", "NULL", "NULL", "NULL", "NULL", "NULL", "'Acme'", "'acme'", "''"};
const std::vector<std::string> kRuleDigests = {"NULL", "NULL", "NULL", "NULL", "X'" + std::string(64, 'a') + "'",
                                               "X'" + std::string(64, 'b') + "'"};
const std::vector<std::string> kRuleUsers = {"NULL", "NULL", "NULL", "'alice'", "'bob'", "'Alice'"};
const std::vector<std::string> kRuleGroups = {"NULL", "NULL", "'admin'", "'users'", "'staff'", "''",
                                              "'users,staff'"};
const std::vector<std::string> kRuleLists = {"NULL", "NULL", "NULL", "'l1'", "'l2'", "'L1'", "'missing'"};
const std::vector<std::string> kListIds = {"'l1'", "'l2'", "'L1'"};
const std::vector<std::string> kListUsers = {"'alice'", "'bob'", "'carol'", "NULL", "'Alice'"};
const std::vector<std::string> kTrustTypes = {"0", "1", "2", "3", "4", "0", "2", "5", "NULL"};

const std::vector<std::u16string> kEventProcesses = {
    u"c:\\tools\\a.exe", u"C:\\TOOLS\\A.EXE", u"b.exe", u"a.exe", u"c:\\tools\\sub\\x.exe", u"c:\\tools\\1.exe",
    u"", u"a.exe;b.exe", u"\xD800.exe"};
const std::vector<std::u16string> kEventNames = {u"c:\\program files\\app.exe", u"c:\\program files\\app\\bin.exe",
                                                 u"d:\\x", u"C:\\Program Files\\App.exe", u"c:\\program files\\abc.exe"};
const std::vector<std::u16string> kEventTexts = {u"", u"Acme", u"acme", u"", u"Acme"};
const std::vector<std::u16string> kEventUsers = {u"alice", u"Bob", u"carol", u"", u"ALICE"};
const std::vector<std::u16string> kEventGroups = {u"admin", u"administrators,users", u"staff", u"users,staff", u""};

template <typename T>
const T& Pick(std::mt19937& random, const std::vector<T>& from) {
    return from[random() % from.size()];
}

class ZorvTrustRuleSetTest : public ::testing::Test {
protected:
    void SetUp() override {
        ZorvLogger::Instance().InitLogger(&LogCapture::Callback, 0xF);
        ASSERT_TRUE(m_dal.SetDBPath(test::PathText(m_dir / "ac.db")));
        ASSERT_TRUE(m_dal.InitDB());
    }

    // A fresh random rule set; every rule names itself in its ruleset.
    void FillRandomRules(std::mt19937& random) {
        std::string sql = "BEGIN; DELETE FROM TrustRules; DELETE FROM UserList;";
        const int lists = static_cast<int>(random() % 8);
        for (int i = 0; i < lists; ++i) {
            sql += "INSERT INTO UserList(id, user) VALUES(" + Pick(random, kListIds) + ", " +
                   Pick(random, kListUsers) + ");";
        }
        const int rules = 1 + static_cast<int>(random() % 40);
        for (int i = 0; i < rules; ++i) {
            sql += "INSERT INTO TrustRules(processName, paths, trustType, signerName, productName, companyName, "
                   "sha256, issuerCN, issuerC, issuerS, issuerL, issuerO, issuerOU, procUser, procGroup, userList, "
                   "hitcount) VALUES(" +
                   Pick(random, kRuleNames) + ", " + Pick(random, kRulePaths) + ", " + Pick(random, kTrustTypes);
            for (int text = 0; text < 3; ++text) sql += ", " + Pick(random, kRuleTexts);
            sql += ", " + Pick(random, kRuleDigests);
            for (int issuer = 0; issuer < 6; ++issuer) sql += ", " + (random() % 8 == 0 ? Pick(random, kRuleTexts) : "NULL");
            sql += ", " + Pick(random, kRuleUsers) + ", " + Pick(random, kRuleGroups) + ", " +
                   Pick(random, kRuleLists) + ", " + (random() % 2 == 0 ? "0" : "3") + ");";
        }
        sql += "UPDATE TrustRules SET ruleset = 'r' || trustRuleId; COMMIT;";
        test::SqliteProbe(m_dir / "ac.db").Exec(sql);
        ZorvDALTestPeer::ReloadTrustRules(m_dal);
    }

    static EngineEvent RandomEvent(std::mt19937& random) {
        EngineEvent event;
        event.processName = Pick(random, kEventProcesses);
        event.name = Pick(random, kEventNames);
        event.user = Pick(random, kEventUsers);
        event.group = Pick(random, kEventGroups);
        for (std::u16string* text : {&event.processSignerName, &event.processProductName, &event.processCompanyName,
                                     &event.fileSignerName, &event.fileProductName, &event.fileCompanyName}) {
            *text = Pick(random, kEventTexts);
        }
        for (int i = 0; i < 6; ++i) {
            event.processIssuer[i] = Pick(random, kEventTexts);
            event.fileIssuer[i] = Pick(random, kEventTexts);
        }
        const std::vector<uint8_t> a(32, 0xAA), b(32, 0xBB);
        if (random() % 3 != 0) event.fileSha256.SetFromBytes(random() % 2 == 0 ? a.data() : b.data());
        if (random() % 3 != 0) event.processSha256.SetFromBytes(random() % 2 == 0 ? a.data() : b.data());
        return event;
    }

    test::TempDir m_dir;
    ZorvDAL m_dal;
};

// Messages a lookup logged, without the lines of the hit-count write that
// only the statement's path makes inside its lookup.
std::vector<std::u16string> LookupLines() {
    std::vector<std::u16string> lines = LogCapture::Instance().Messages();
    LogCapture::Instance().Clear();
    return lines;
}

TEST_F(ZorvTrustRuleSetTest, AnswersAsTheLookupStatementOverRandomRulesAndEvents) {
    std::mt19937 random(20261124);
    size_t cases = 0;
    size_t found = 0;
    for (int set = 0; set < 150; ++set) {
        FillRandomRules(random);
        for (int e = 0; e < 40; ++e) {
            const EngineEvent event = RandomEvent(random);
            for (uint32_t type = 1; type <= 4; ++type) {
                EngineEvent byStatement = event;
                EngineEvent inMemory = event;
                LogCapture::Instance().Clear();
                const bool expected = ZorvDALTestPeer::FoundByStatement(m_dal, type, byStatement);
                const auto expectedLines = LookupLines();
                const bool actual = ZorvDALTestPeer::FoundInMemory(m_dal, type, inMemory);
                const auto actualLines = LookupLines();
                ASSERT_EQ(expected, actual) << "set " << set << " event " << e << " type " << type;
                ASSERT_EQ(test::U8(byStatement.ruleset), test::U8(inMemory.ruleset))
                    << "set " << set << " event " << e << " type " << type;
                ASSERT_EQ(byStatement.trustOrigin, inMemory.trustOrigin);
                ASSERT_EQ(expectedLines, actualLines) << "set " << set << " event " << e << " type " << type;
                ++cases;
                found += expected ? 1 : 0;
            }
        }
    }
    // Enough of both answers for the agreement to mean something.
    EXPECT_EQ(cases, 24000u);
    EXPECT_GT(found, cases / 20);
    EXPECT_LT(found, cases - cases / 20);
}

}  // namespace
}  // namespace zorv

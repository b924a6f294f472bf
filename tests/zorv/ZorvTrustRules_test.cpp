// Trust-rule matching against a real ac.db: each attribute a rule may name,
// user lists, groups, path patterns, rule order and hit counts.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "SqliteProbe.h"
#include "TestSupport.h"
#include "ZorvDataAccessLayer.h"
#include "ZorvLogger.h"
#include "ZorvStats.h"

namespace zorv {
namespace {

using test::LogCapture;
using test::SqliteProbe;

constexpr uint32_t kSourceProcess = 1;
constexpr uint32_t kTrustedExecution = 2;
constexpr uint32_t kExclusion = 3;
constexpr uint32_t kBlockByTarget = 4;

// The process-wide store, because the hit counts travel through the
// statistics, which write back to that instance.
class ZorvTrustRules : public ::testing::Test {
protected:
    void SetUp() override {
        ZorvLogger::Instance().InitLogger(&LogCapture::Callback, 0xF);
        ZorvLogger::Instance().SetLevel(0xF);
        LogCapture::Instance().Clear();
        ASSERT_TRUE(Dal().SetDBPath(test::PathText(m_dir / "ac.db")));
        ASSERT_TRUE(Dal().InitDB());
    }
    void TearDown() override { Dal().Shutdown(); }

    static ZorvDAL& Dal() { return ZorvDAL::Instance(); }

    // Inserts one rule; `columns` and `values` are SQL lists. Returns its id.
    int AddRule(const std::string& columns, const std::string& values) {
        SqliteProbe probe(m_dir / "ac.db");
        probe.Exec("INSERT INTO TrustRules(" + columns + ") VALUES(" + values + ");");
        return std::stoi(probe.Scalar("SELECT max(trustRuleId) FROM TrustRules"));
    }
    void AddUser(const std::string& list, const std::string& user) {
        SqliteProbe(m_dir / "ac.db").Exec("INSERT INTO UserList(id, user) VALUES('" + list + "', '" + user + "');");
    }
    std::string StoredHitcount(int id) {
        return SqliteProbe(m_dir / "ac.db").Scalar("SELECT hitcount FROM TrustRules WHERE trustRuleId = " +
                                                   std::to_string(id));
    }
    // The trust-rule flag is taken when the store opens.
    void Reopen() {
        Dal().Shutdown();
        ASSERT_TRUE(Dal().InitDB());
        ASSERT_TRUE(Dal().TrustRulesEnabled());
    }

    static EngineEvent Event() {
        EngineEvent event;
        event.processName = u"C:\\Tools\\Updater1.exe";
        event.name = u"c:\\program files\\app.exe";
        event.user = u"Alice";
        event.group = u"Users,Staff";
        event.processSignerName = u"Acme Signing";
        event.fileSignerName = u"Other Signer";
        event.fileProductName = u"Widget";
        event.fileIssuer[4] = u"Acme CA Org";
        return event;
    }

    bool Found(uint32_t type, EngineEvent event) { return Dal().IsFoundInTrustRules(type, event); }

    test::TempDir m_dir;
};

TEST_F(ZorvTrustRules, StoreEmptyWhenOpenedSkipsTheQuery) {
    AddRule("trustType", "2");
    EXPECT_FALSE(Found(kTrustedExecution, Event()));
    Reopen();
    EXPECT_TRUE(Found(kTrustedExecution, Event()));
}

TEST_F(ZorvTrustRules, AttributesComeFromProcessOrTargetByType) {
    AddRule("trustType, signerName", "1, 'Acme Signing'");
    AddRule("trustType, productName, issuerO", "2, 'Widget', 'Acme CA Org'");
    Reopen();
    EXPECT_TRUE(Found(kSourceProcess, Event()));
    // Type 2 compares the target's signer, not the process's.
    EngineEvent target = Event();
    target.fileProductName = u"Gadget";
    EXPECT_FALSE(Found(kTrustedExecution, target));
    EXPECT_TRUE(Found(kTrustedExecution, Event()));
    // Signer, product, company and issuer keep their case.
    target = Event();
    target.fileIssuer[4] = u"acme ca org";
    EXPECT_FALSE(Found(kTrustedExecution, target));
}

TEST_F(ZorvTrustRules, HashAndTypeZeroRules) {
    const std::vector<uint8_t> digest(32, 0xAA);
    AddRule("trustType, sha256", "0, X'" + std::string(64, 'a') + "'");
    Reopen();
    EngineEvent event = Event();
    EXPECT_FALSE(Found(kBlockByTarget, event));
    event.fileSha256.SetFromBytes(digest.data());
    EXPECT_TRUE(Found(kBlockByTarget, event));
    EXPECT_FALSE(Found(kSourceProcess, event));  // the process hash is a different field
    event.processSha256.SetFromBytes(digest.data());
    EXPECT_TRUE(Found(kSourceProcess, event));
}

TEST_F(ZorvTrustRules, PathPatternsAndProcessNames) {
    AddRule("trustType, paths, ruleset", "2, '', 'empty-paths'");
    AddRule("trustType, paths, ruleset", "2, 'd:\\*;c:\\program files\\*', 'one-level'");
    AddRule("trustType, processName, paths, ruleset", "2, 'c:\\tools\\updater?.exe', 'c:\\program files\\**', 'deep'");
    AddRule("trustType, processName, ruleset", "2, '*.exe', 'bare-star'");
    Reopen();

    EngineEvent direct = Event();
    EXPECT_TRUE(Dal().IsFoundInTrustRules(kTrustedExecution, direct));
    EXPECT_EQ(direct.ruleset, u"one-level");  // the '' rule comes first and matches no path
    EXPECT_EQ(direct.trustOrigin, 4u);

    EngineEvent nested = Event();
    nested.name = u"C:\\Program Files\\App\\Bin.exe";
    EXPECT_TRUE(Dal().IsFoundInTrustRules(kTrustedExecution, nested));
    EXPECT_EQ(nested.ruleset, u"deep");

    EngineEvent otherProcess = Event();
    otherProcess.name = nested.name;
    otherProcess.processName = u"c:\\tools\\updater12.exe";
    EXPECT_FALSE(Dal().IsFoundInTrustRules(kTrustedExecution, otherProcess));
    EXPECT_EQ(otherProcess.trustOrigin, 0u);
    EXPECT_TRUE(otherProcess.ruleset.empty());
}

TEST_F(ZorvTrustRules, UsersAndGroups) {
    AddRule("trustType, procGroup, ruleset", "2, 'staf', 'partial-group'");
    AddRule("trustType, userList, ruleset", "1, 'ops', 'by-list'");
    AddRule("trustType, procUser, procGroup, ruleset", "4, 'alice', 'staff', 'user-and-group'");
    AddUser("ops", "bob");
    AddUser("ops", "alice");
    Reopen();

    // "staf" occurs in the group text but is no member of it.
    EXPECT_FALSE(Found(kTrustedExecution, Event()));

    EngineEvent listed = Event();
    EXPECT_TRUE(Dal().IsFoundInTrustRules(kSourceProcess, listed));
    EXPECT_EQ(listed.ruleset, u"by-list");
    EngineEvent stranger = Event();
    stranger.user = u"carol";
    EXPECT_FALSE(Found(kSourceProcess, stranger));

    EXPECT_TRUE(Found(kBlockByTarget, Event()));
    EngineEvent otherGroup = Event();
    otherGroup.group = u"users,staffing";
    EXPECT_FALSE(Found(kBlockByTarget, otherGroup));
}

TEST_F(ZorvTrustRules, ExclusionSeesOnlyProcessNameRules) {
    AddRule("trustType, processName, signerName", "3, 'c:\\tools\\updater1.exe', 'Acme Signing'");
    AddRule("trustType, processName, procUser", "3, 'c:\\tools\\updater1.exe', 'alice'");
    Reopen();
    EXPECT_FALSE(Found(kExclusion, Event()));
    AddRule("trustType, processName", "3, 'c:\\tools\\*.exe'");
    EXPECT_TRUE(Found(kExclusion, Event()));

    EngineEvent unknown = Event();
    EXPECT_FALSE(Dal().IsFoundInTrustRules(9, unknown)) << "unknown type";
}

TEST_F(ZorvTrustRules, FirstHitMarksTheRuleAndStatisticsKeepTheCount) {
    const int id = AddRule("trustType", "2");
    Reopen();
    ZorvStats::Instance().ClearTrustRuleHitCounts();
    ZorvStats::Instance().SetTrustRuleHitCount(id, 0);

    EXPECT_TRUE(Found(kTrustedExecution, Event()));
    EXPECT_EQ(StoredHitcount(id), "1");
    EXPECT_TRUE(Found(kTrustedExecution, Event()));
    EXPECT_TRUE(Found(kTrustedExecution, Event()));
    EXPECT_EQ(StoredHitcount(id), "1");

    // Three hits are written back as two.
    ZorvStats::Instance().WriteTrustRuleHitCounts();
    EXPECT_EQ(StoredHitcount(id), "2");

    EXPECT_TRUE(Dal().UpdateHitcount(id, 41));
    EXPECT_EQ(StoredHitcount(id), "42");
    ZorvStats::Instance().ClearTrustRuleHitCounts();
}

}  // namespace
}  // namespace zorv

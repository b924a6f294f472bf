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

constexpr uint32_t kSourceProcess = 1;
constexpr uint32_t kTrustedExecution = 2;
constexpr uint32_t kExclusion = 3;
constexpr uint32_t kBlockByTarget = 4;

// The process-wide store, because the hit counts travel through the
// statistics, which write back to that instance.
class ZorvTrustRules : public ::testing::Test {
protected:
    void SetUp() override {
        ZorvLogger::Instance().InitLogger(&test::LogCapture::Callback, 0xF);
        ASSERT_TRUE(Dal().SetDBPath(test::PathText(m_dir / "ac.db")));
        ASSERT_TRUE(Dal().InitDB());
    }
    void TearDown() override { Dal().Shutdown(); }

    static ZorvDAL& Dal() { return ZorvDAL::Instance(); }
    test::SqliteProbe Probe() { return test::SqliteProbe(m_dir / "ac.db"); }

    // Inserts one rule; `columns` and `values` are SQL lists.
    void AddRule(const std::string& columns, const std::string& values) {
        Probe().Exec("INSERT INTO TrustRules(" + columns + ") VALUES(" + values + ");");
    }
    // The trust-rule flag is taken when the store opens.
    void Reopen() {
        Dal().Shutdown();
        ASSERT_TRUE(Dal().InitDB());
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

TEST_F(ZorvTrustRules, AttributesComeFromProcessOrTargetByType) {
    AddRule("trustType, signerName", "1, 'Acme Signing'");
    AddRule("trustType, productName, issuerO", "2, 'Widget', 'Acme CA Org'");
    AddRule("trustType, sha256", "0, X'" + std::string(64, 'a') + "'");
    EXPECT_FALSE(Found(kTrustedExecution, Event())) << "the store was empty when it opened: no query";
    Reopen();
    EXPECT_TRUE(Found(kSourceProcess, Event()));
    EXPECT_TRUE(Found(kTrustedExecution, Event()));
    // Type 2 compares the target's product, not the process's; issuer and product keep their case.
    EngineEvent target = Event();
    target.fileProductName = u"Gadget";
    EXPECT_FALSE(Found(kTrustedExecution, target));
    target = Event();
    target.fileIssuer[4] = u"acme ca org";
    EXPECT_FALSE(Found(kTrustedExecution, target));

    // A type-0 hash rule answers every type, against the target's or the process's digest.
    const std::vector<uint8_t> digest(32, 0xAA);
    EngineEvent hashed = Event();
    EXPECT_FALSE(Found(kBlockByTarget, hashed));
    hashed.fileSha256.SetFromBytes(digest.data());
    EXPECT_TRUE(Found(kBlockByTarget, hashed));
    hashed.processSignerName.clear();
    EXPECT_FALSE(Found(kSourceProcess, hashed)) << "the process hash is a different field";
    hashed.processSha256.SetFromBytes(digest.data());
    EXPECT_TRUE(Found(kSourceProcess, hashed));
}

TEST_F(ZorvTrustRules, PathPatternsProcessNamesAndRuleOrder) {
    AddRule("trustType, paths, ruleset", "2, '', 'empty-paths'");
    AddRule("trustType, paths, ruleset", "2, 'd:\\*;c:\\program files\\*', 'one-level'");
    AddRule("trustType, processName, paths, ruleset", "2, 'c:\\tools\\updater?.exe', 'c:\\program files\\**', 'deep'");
    Reopen();

    EngineEvent direct = Event();
    EXPECT_TRUE(Dal().IsFoundInTrustRules(kTrustedExecution, direct));
    EXPECT_EQ(direct.ruleset, u"one-level");  // the '' rule comes first and matches no path
    EXPECT_EQ(direct.trustOrigin, 4u);

    EngineEvent nested = Event();
    nested.name = u"C:\\Program Files\\App\\Bin.exe";
    EXPECT_TRUE(Dal().IsFoundInTrustRules(kTrustedExecution, nested));
    EXPECT_EQ(nested.ruleset, u"deep");

    EngineEvent otherProcess = nested;
    otherProcess.ruleset.clear();
    otherProcess.processName = u"c:\\tools\\updater12.exe";
    EXPECT_FALSE(Dal().IsFoundInTrustRules(kTrustedExecution, otherProcess));
    EXPECT_TRUE(otherProcess.ruleset.empty());
}

TEST_F(ZorvTrustRules, UsersAndGroups) {
    AddRule("trustType, procGroup", "2, 'staf'");
    AddRule("trustType, userList", "1, 'ops'");
    AddRule("trustType, procUser, procGroup", "4, 'alice', 'staff'");
    Probe().Exec("INSERT INTO UserList(id, user) VALUES('ops', 'bob'), ('ops', 'alice')");
    Reopen();

    EXPECT_FALSE(Found(kTrustedExecution, Event())) << "\"staf\" occurs in the group text but is no member of it";
    EXPECT_TRUE(Found(kSourceProcess, Event()));
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
    // The rules are held in memory: another program's write is read at the next open.
    EXPECT_FALSE(Found(kExclusion, Event()));
    Reopen();
    EXPECT_TRUE(Found(kExclusion, Event()));
    EXPECT_FALSE(Found(9, Event())) << "unknown type";
}

TEST_F(ZorvTrustRules, FirstHitMarksTheRuleAndStatisticsKeepTheCount) {
    AddRule("trustType", "2");
    Reopen();
    ZorvStats::Instance().ClearTrustRuleHitCounts();
    ZorvStats::Instance().SetTrustRuleHitCount(1, 0);
    // The first hit is written beside the decision; the drain waits for it.
    const auto stored = [&] {
        Dal().DrainDecisionWrites();
        return Probe().Scalar("SELECT hitcount FROM TrustRules WHERE trustRuleId = 1");
    };

    EXPECT_TRUE(Found(kTrustedExecution, Event()));
    EXPECT_EQ(stored(), "1");
    EXPECT_TRUE(Found(kTrustedExecution, Event()));
    EXPECT_TRUE(Found(kTrustedExecution, Event()));
    EXPECT_EQ(stored(), "1");
    ZorvStats::Instance().WriteTrustRuleHitCounts();
    EXPECT_EQ(stored(), "2") << "three hits are written back as two";
    ZorvStats::Instance().ClearTrustRuleHitCounts();
}

}  // namespace
}  // namespace zorv

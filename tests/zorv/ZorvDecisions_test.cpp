// Execution decisions through app_ctl: the inventory's verdict, lockdown and
// log-only mode, trust rules that block or trust a target, trusted updaters,
// and targets that cannot be judged.
#include <gtest/gtest.h>

#include "EngineTestFixture.h"

namespace zorv {
namespace {

using test::PluginEvent;

class ZorvDecisions : public test::EngineFixture {
protected:
    static PluginEvent Start(uint8_t digest, std::u16string name = u"c:\\apps\\a.exe") {
        PluginEvent event;
        event.name = std::move(name);
        event.digestFill = digest;
        return event;
    }
};

TEST_F(ZorvDecisions, UnknownExecutableRunsInLogOnlyModeAndIsBlockedUnderLockdown) {
    PluginEvent start = Start(0x41);
    const uint64_t logOnly = Metric(u"RunAllowedLogOnly");
    uint32_t status = 0;
    AppCtlResult result = Run(start, &status);
    EXPECT_EQ(status, AC_OK);
    EXPECT_EQ(result.action, AC_DECISION_ALLOW);
    EXPECT_EQ(result.dbVerdict, AC_DB_NOT_KNOWN);
    EXPECT_EQ(Metric(u"RunAllowedLogOnly"), logOnly + 1);
    PluginEvent check = start;
    check.type = AC_OP_CACHE_CHECK;
    EXPECT_EQ(Run(check).action, AC_DECISION_IGNORED) << "log-only allows are not cached";

    AppControlConfig::Instance().SetLockdown(true);
    const uint64_t lockdown = Metric(u"RunBlockedLockdown");
    result = Run(start, &status);
    EXPECT_EQ(status, AC_BLOCKED);
    EXPECT_EQ(result.action, AC_DECISION_BLOCK);
    EXPECT_EQ(Metric(u"RunBlockedLockdown"), lockdown + 1);
}

TEST_F(ZorvDecisions, InventoryVerdictDecidesAndAnAllowIsCached) {
    AddItem(0x51, 4096, AC_SOURCE_AGENT_RULES, 1);
    AddItem(0x52, 4096, AC_SOURCE_EXECUTION_RULES, 0, "b.exe");
    AppControlConfig::Instance().SetLockdown(true);

    AppCtlResult result = Run(Start(0x51));
    EXPECT_EQ(result.action, AC_DECISION_ALLOW);
    EXPECT_EQ(result.isAuthorized, AC_REASON_APPROVED);
    EXPECT_EQ(result.source, AC_SOURCE_AGENT_RULES);
    EXPECT_TRUE(Engine().GetAllowCache().Contains(u"alice", u"c:\\windows\\explorer.exe", u"c:\\apps\\a.exe"));

    const uint64_t blockedRule = Metric(u"RunBlockedRule");
    result = Run(Start(0x52, u"c:\\apps\\b.exe"));
    EXPECT_EQ(result.action, AC_DECISION_BLOCK);
    EXPECT_EQ(result.dbVerdict, AC_DB_BLOCKED);
    EXPECT_EQ(result.isAuthorized, AC_REASON_BLOCKED);
    EXPECT_EQ(Metric(u"RunBlockedRule"), blockedRule + 1);
}

TEST_F(ZorvDecisions, TrustRulesBlockOrTrustTargetsButNeverOverrideARulesetRule) {
    AddItem(0x61, 4096, AC_SOURCE_AGENT_RULES, 1);
    AddItem(0x62, 4096, AC_SOURCE_EXECUTION_RULES, 1);
    AddRule("trustType, paths", "4, 'c:\\apps\\*.exe'");
    AddRule("trustType, paths", "2, 'c:\\tools\\**\\*.exe'");
    Restart();
    AppControlConfig::Instance().SetLockdown(true);

    const uint64_t byTarget = Metric(u"EventBlockByTarget");
    AppCtlResult result = Run(Start(0x61));
    EXPECT_EQ(result.action, AC_DECISION_BLOCK);
    EXPECT_EQ(result.dbVerdict, AC_DB_BLOCKED);
    EXPECT_EQ(result.source, AC_SOURCE_TRUST_RULE);
    EXPECT_EQ(Metric(u"EventBlockByTarget"), byTarget + 1);

    result = Run(Start(0x62));
    EXPECT_EQ(result.action, AC_DECISION_ALLOW);
    EXPECT_EQ(result.source, AC_SOURCE_EXECUTION_RULES);
    EXPECT_EQ(Metric(u"EventBlockByTarget"), byTarget + 1) << "the block rule is not even asked";

    result = Run(Start(0x63, u"c:\\tools\\x\\y\\run.exe"));
    EXPECT_EQ(result.action, AC_DECISION_ALLOW);
    EXPECT_EQ(result.isAuthorized, AC_REASON_TRUSTED);
    EXPECT_EQ(result.source, AC_SOURCE_TRUST_RULE);
}

TEST_F(ZorvDecisions, TrustedUpdaterStartingWhatItInstalledIsAllowedAndLearned) {
    AppControlConfig::Instance().SetLockdown(true);
    PluginEvent start = Start(0x81, u"c:\\windows\\installer\\setup.exe");
    start.processName = u"c:\\windows\\system32\\msiexec.exe";
    AppCtlResult result = Run(start);
    EXPECT_EQ(result.action, AC_DECISION_ALLOW);
    EXPECT_EQ(result.isAuthorized, AC_REASON_TRUSTED);
    EXPECT_EQ(ItemCount("source = 4 AND fileName = 'setup.exe' AND path = 'c:\\windows\\installer'"), 1);

    start.processName = u"c:\\windows\\explorer.exe";
    EXPECT_EQ(Run(start).isAuthorized, AC_REASON_APPROVED) << "learned: now an inventory allow";

    PluginEvent elsewhere = Start(0x82, u"d:\\data\\setup.exe");
    elsewhere.processName = u"c:\\windows\\system32\\msiexec.exe";
    EXPECT_EQ(Run(elsewhere).action, AC_DECISION_BLOCK) << "outside its directories it vouches for nothing";
}

TEST_F(ZorvDecisions, TargetsThatCannotBeJudgedEndInDecisionEight) {
    AddItem(0x91, 4096, AC_SOURCE_AGENT_RULES, 1);
    const uint64_t notExec = Metric(u"RunErrorNotExec");
    PluginEvent notExecutable = Start(0x91);
    notExecutable.isExec = 0;
    uint32_t status = 0;
    EXPECT_EQ(Run(notExecutable, &status).action, AC_DECISION_ERROR);
    EXPECT_EQ(status, AC_E_FAILED);
    EXPECT_EQ(Metric(u"RunErrorNotExec"), notExec + 1);

    // A mapping asks for execution itself: isExec does not matter there.
    notExecutable.type = AC_OP_SECTION_MAP;
    notExecutable.mode = 4;
    EXPECT_EQ(Run(notExecutable, &status).dbVerdict, AC_DB_ALLOWED);
    EXPECT_EQ(status, AC_OK);

    EXPECT_EQ(Run(Start(0x91, u""), &status).action, AC_DECISION_ERROR) << "no name to look up";
}

}  // namespace
}  // namespace zorv

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

TEST_F(ZorvDecisions, UnknownExecutableRunsInLogOnlyModeUncached) {
    PluginEvent start = Start(0x41);
    uint32_t status = 0;
    AppCtlResult result = Run(start, &status);
    EXPECT_EQ(status, AC_OK);
    EXPECT_EQ(result.action, AC_DECISION_ALLOW);
    EXPECT_EQ(result.dbVerdict, AC_DB_NOT_KNOWN);
    PluginEvent check = start;
    check.type = AC_OP_CACHE_CHECK;
    EXPECT_EQ(Run(check).action, AC_DECISION_IGNORED) << "log-only allows are not cached";
}

// Under lockdown: a ruleset rule decides first, then a trust rule, then the rest of the inventory.
TEST_F(ZorvDecisions, RulesetRulesThenTrustRulesThenTheInventoryDecide) {
    AddItem(0x51, 4096, AC_SOURCE_AGENT_RULES, 1);
    AddItem(0x52, 4096, AC_SOURCE_EXECUTION_RULES, 0, "b.exe");
    AddItem(0x61, 4096, AC_SOURCE_AGENT_RULES, 1, "c.exe", "c:\\blocked");
    AddItem(0x62, 4096, AC_SOURCE_EXECUTION_RULES, 1, "d.exe", "c:\\blocked");
    AddRule("trustType, paths", "4, 'c:\\blocked\\*.exe'");
    AddRule("trustType, paths", "2, 'c:\\tools\\**\\*.exe'");
    Restart();
    AppControlConfig::Instance().SetLockdown(true);
    struct Case { uint8_t digest; std::u16string name; uint32_t action, reason, source; };
    const std::vector<Case> cases{
        {0x51, u"c:\\apps\\a.exe", AC_DECISION_ALLOW, AC_REASON_APPROVED, AC_SOURCE_AGENT_RULES},
        {0x52, u"c:\\apps\\b.exe", AC_DECISION_BLOCK, AC_REASON_BLOCKED, AC_SOURCE_EXECUTION_RULES},
        {0x61, u"c:\\blocked\\c.exe", AC_DECISION_BLOCK, AC_REASON_BLOCKED, AC_SOURCE_TRUST_RULE},
        {0x62, u"c:\\blocked\\d.exe", AC_DECISION_ALLOW, AC_REASON_APPROVED, AC_SOURCE_EXECUTION_RULES},
        {0x63, u"c:\\tools\\x\\y\\run.exe", AC_DECISION_ALLOW, AC_REASON_TRUSTED, AC_SOURCE_TRUST_RULE},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(test::U8(c.name));
        const AppCtlResult result = Run(Start(c.digest, c.name));
        EXPECT_EQ(result.action, c.action);
        EXPECT_EQ(result.isAuthorized, c.reason);
        EXPECT_EQ(result.source, c.source);
        if (c.action == AC_DECISION_BLOCK) EXPECT_EQ(result.dbVerdict, AC_DB_BLOCKED);
    }
    EXPECT_TRUE(Engine().GetAllowCache().Contains(u"alice", u"c:\\windows\\explorer.exe", u"c:\\apps\\a.exe"));
}

TEST_F(ZorvDecisions, TrustedUpdaterStartingWhatItInstalledIsAllowedAndLearned) {
    AppControlConfig::Instance().SetLockdown(true);
    PluginEvent start = Start(0x81, u"c:\\windows\\installer\\setup.exe");
    start.processName = u"c:\\windows\\system32\\msiexec.exe";
    const AppCtlResult result = Run(start);
    EXPECT_EQ(result.action, AC_DECISION_ALLOW);
    EXPECT_EQ(result.isAuthorized, AC_REASON_TRUSTED);
    EXPECT_EQ(ItemCount("source = 4 AND fileName = 'setup.exe' AND path = 'c:\\windows\\installer'"), 1);
    start.processName = u"c:\\windows\\explorer.exe";
    EXPECT_EQ(Run(start).isAuthorized, AC_REASON_APPROVED) << "learned: now an inventory allow";

    PluginEvent elsewhere = Start(0x82, u"d:\\data\\setup.exe");
    elsewhere.processName = u"c:\\windows\\system32\\msiexec.exe";
    EXPECT_EQ(Run(elsewhere).action, AC_DECISION_BLOCK) << "outside its directories it vouches for nothing";
}

TEST_F(ZorvDecisions, TargetsThatCannotBeJudgedEndInAnError) {
    AddItem(0x91, 4096, AC_SOURCE_AGENT_RULES, 1);
    PluginEvent notExecutable = Start(0x91);
    notExecutable.isExec = 0;
    uint32_t status = 0;
    EXPECT_EQ(Run(notExecutable, &status).action, AC_DECISION_ERROR);
    EXPECT_EQ(status, AC_E_FAILED);
    // A mapping asks for execution itself: isExec does not matter there.
    notExecutable.type = AC_OP_SECTION_MAP;
    notExecutable.mode = 4;
    EXPECT_EQ(Run(notExecutable, &status).dbVerdict, AC_DB_ALLOWED);
    EXPECT_EQ(status, AC_OK);
    EXPECT_EQ(Run(Start(0x91, u""), &status).action, AC_DECISION_ERROR) << "no name to look up";
}

}  // namespace
}  // namespace zorv

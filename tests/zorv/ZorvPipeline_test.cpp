// The event pipeline through app_ctl: cache checks, the abstraction of the
// plug-in's operation codes, exclusions, and script detection.
#include <gtest/gtest.h>

#include "EngineTestFixture.h"

namespace zorv {
namespace {

using test::PluginEvent;

using ZorvPipeline = test::EngineFixture;

TEST_F(ZorvPipeline, CacheCheckIsAnsweredFromAllowsUntilTheTargetOrRulesetChanges) {
    AddItem(0x11, 4096, AC_SOURCE_AGENT_RULES, 1);
    PluginEvent start;
    start.name = u"c:\\apps\\a.exe";
    start.digestFill = 0x11;
    PluginEvent check = start;
    check.type = AC_OP_CACHE_CHECK;
    AppCtlResult result = Run(check);
    EXPECT_EQ(result.action, AC_DECISION_IGNORED) << "a miss that no rule excludes is left undecided";
    EXPECT_EQ(result.isAuthorized, AC_REASON_NONE);

    ASSERT_EQ(Run(start).action, AC_DECISION_ALLOW);
    result = Run(check);
    EXPECT_EQ(result.action, AC_DECISION_ALLOW);
    EXPECT_EQ(result.isAuthorized, AC_REASON_APPROVED);

    PluginEvent remove = start;
    remove.type = AC_OP_DELETE;
    Run(remove);
    EXPECT_EQ(Run(check).action, AC_DECISION_IGNORED) << "a delete drops the target";

    ASSERT_EQ(Run(start).action, AC_DECISION_ALLOW);
    const std::u16string broken = u"{ not json", name = u"executionRules";
    set_ruleset_buffer(0, test::Host(broken), test::Host(name));
    EXPECT_EQ(Run(check).action, AC_DECISION_IGNORED) << "every import clears, even one that fails";
}

TEST_F(ZorvPipeline, CacheMissExcludedByTrustRuleIsRememberedAsAllowed) {
    AddRule("trustType, processName", "3, 'c:\\windows\\explorer.exe'");
    Restart();
    PluginEvent check;
    check.type = AC_OP_CACHE_CHECK;
    check.name = u"c:\\data\\tool.exe";
    const AppCtlResult result = Run(check);
    EXPECT_EQ(result.action, AC_DECISION_IGNORED);
    EXPECT_EQ(result.isAuthorized, AC_REASON_EXCLUDED);
    EXPECT_EQ(Run(check).isAuthorized, AC_REASON_APPROVED);
}

TEST_F(ZorvPipeline, CreatedFilesAreIgnoredAndMappingsWithoutExecuteStayUnjudged) {
    PluginEvent event;
    event.type = AC_OP_CREATE_POST;
    event.name = u"c:\\data\\new.exe";
    event.dirty = 0;
    uint32_t status = 0;
    EXPECT_EQ(Run(event, &status).action, AC_DECISION_IGNORED);
    EXPECT_EQ(status, AC_OK);
    event.type = AC_OP_SECTION_MAP;
    event.mode = 1;
    EXPECT_EQ(Run(event, &status).eventType, AC_OP_SECTION_MAP);
    EXPECT_EQ(status, AC_E_FAILED);
}

TEST_F(ZorvPipeline, ChangeInExcludedDirectoryIsIgnoredOutsideMaintenanceOnly) {
    PluginEvent change;
    change.type = AC_OP_CHANGE_32;
    change.name = u"C:\\Windows\\CbsTemp\\x.dll";
    const AppCtlResult result = Run(change);
    EXPECT_EQ(result.action, AC_DECISION_IGNORED);
    EXPECT_EQ(result.isAuthorized, AC_REASON_EXCLUDED);
    AppControlConfig::Instance().SetMaintenanceMode(true);
    EXPECT_NE(Run(change).isAuthorized, AC_REASON_EXCLUDED);
}

// A .ps1 opened by PowerShell is covered by ZorvBadInput. Another extension
// counts only when the command line names the file; the command line is
// folded, the file name is not.
TEST_F(ZorvPipeline, InterpreterOpeningAFileItsCommandLineNamesIsAScriptStart) {
    PluginEvent open;
    open.type = AC_OP_CREATE_PRE;
    open.processName = u"c:\\windows\\system32\\windowspowershell\\v1.0\\powershell.exe";
    open.name = u"c:\\tmp\\run.bat";
    open.cmdLine = u"PowerShell -File C:\\TMP\\RUN.BAT";
    open.digestFill = 0x31;
    const AppCtlResult result = Run(open);
    EXPECT_EQ(result.eventType, AC_EVENT_SCRIPT_START);
    EXPECT_EQ(result.action, AC_DECISION_ALLOW) << "log-only: an unknown script runs";
    open.name = u"c:\\tmp\\RUN.BAT";
    EXPECT_EQ(Run(open).eventType, AC_OP_CREATE_PRE);
}

}  // namespace
}  // namespace zorv

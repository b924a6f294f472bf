// The event pipeline through app_ctl: cache checks, the abstraction of the
// plug-in's operation codes, exclusions, and script detection.
#include <gtest/gtest.h>

#include <tuple>

#include "EngineTestFixture.h"

namespace zorv {
namespace {

using test::LogCapture;
using test::PluginEvent;

using ZorvPipeline = test::EngineFixture;

TEST_F(ZorvPipeline, CacheCheckIsAnsweredFromAllowsUntilTheTargetOrRulesetChanges) {
    AddItem(0x11, 4096, AC_SOURCE_AGENT_RULES, 1);
    PluginEvent start;
    start.name = u"c:\\apps\\a.exe";
    start.digestFill = 0x11;
    PluginEvent check = start;
    check.type = AC_OP_CACHE_CHECK;

    // A miss that no rule excludes is left undecided.
    AppCtlResult result = Run(check);
    EXPECT_EQ(result.action, AC_DECISION_IGNORED);
    EXPECT_EQ(result.isAuthorized, AC_REASON_NONE);

    ASSERT_EQ(Run(start).action, AC_DECISION_ALLOW);
    LogCapture::Instance().Clear();
    result = Run(check);
    EXPECT_EQ(result.action, AC_DECISION_ALLOW);
    EXPECT_EQ(result.isAuthorized, AC_REASON_APPROVED);
    EXPECT_FALSE(Logged(u"EventAbstraction")) << "a hit is answered before the abstraction";

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
    const uint64_t excluded = Metric(u"EventExcludedByTrustRule");

    AppCtlResult result = Run(check);
    EXPECT_EQ(result.action, AC_DECISION_IGNORED);
    EXPECT_EQ(result.isAuthorized, AC_REASON_EXCLUDED);
    EXPECT_EQ(Metric(u"EventExcludedByTrustRule"), excluded + 1);
    EXPECT_EQ(Run(check).isAuthorized, AC_REASON_APPROVED);
}

TEST_F(ZorvPipeline, IgnoredAndUnjudgeableOperations) {
    PluginEvent created;
    created.type = AC_OP_CREATE_POST;
    created.name = u"c:\\data\\new.exe";
    created.dirty = 0;
    const uint64_t ignored = Metric(u"TotalIgnoredEvent");
    uint32_t status = 0;
    EXPECT_EQ(Run(created, &status).action, AC_DECISION_IGNORED);
    EXPECT_EQ(status, AC_OK);
    EXPECT_EQ(Metric(u"TotalIgnoredEvent"), ignored + 1);

    // A change the plug-in asks to leave alone, a mapping without execute and
    // an unknown code all reach the dispatcher unabstracted.
    for (const auto& [type, mode, ignoreChange] :
         {std::tuple{AC_OP_CHANGE_42, 0, 1}, std::tuple{AC_OP_SECTION_MAP, 1, 0}, std::tuple{5u, 0, 0}}) {
        PluginEvent event;
        event.type = type;
        event.mode = mode;
        event.ignoreChange = ignoreChange;
        event.name = u"c:\\data\\x.exe";
        const AppCtlResult result = Run(event, &status);
        EXPECT_EQ(status, AC_E_FAILED) << type;
        EXPECT_EQ(result.eventType, type);
        EXPECT_TRUE(Logged(u"Unknown event type " + test::U16(std::to_string(type))));
    }
}

TEST_F(ZorvPipeline, ChangeInExcludedDirectoryIsIgnoredOutsideMaintenanceOnly) {
    PluginEvent change;
    change.type = AC_OP_CHANGE_32;
    change.name = u"C:\\Windows\\CbsTemp\\x.dll";
    const uint64_t excluded = Metric(u"EventExcludedBasedOnDirectory");
    const AppCtlResult result = Run(change);
    EXPECT_EQ(result.action, AC_DECISION_IGNORED);
    EXPECT_EQ(result.isAuthorized, AC_REASON_EXCLUDED);
    EXPECT_EQ(Metric(u"EventExcludedBasedOnDirectory"), excluded + 1);

    AppControlConfig::Instance().SetMaintenanceMode(true);
    EXPECT_NE(Run(change).isAuthorized, AC_REASON_EXCLUDED);
}

TEST_F(ZorvPipeline, InterpreterOpeningAScriptBecomesAScriptStart) {
    const uint64_t scripts = Metric(u"RunScript");
    PluginEvent open;
    open.type = AC_OP_CREATE_PRE;
    open.processName = u"c:\\windows\\system32\\windowspowershell\\v1.0\\powershell.exe";
    open.name = u"c:\\work\\job.ps1";
    open.digestFill = 0x31;
    AppCtlResult result = Run(open);
    EXPECT_EQ(result.eventType, AC_EVENT_SCRIPT_START);
    EXPECT_EQ(result.action, AC_DECISION_ALLOW) << "log-only: an unknown script runs";
    EXPECT_EQ(Metric(u"RunScript"), scripts + 1);

    // Another extension counts only when the command line names the file; the
    // command line is folded, the file name is not.
    open.name = u"c:\\tmp\\run.bat";
    open.cmdLine = u"PowerShell -File C:\\TMP\\RUN.BAT";
    EXPECT_EQ(Run(open).eventType, AC_EVENT_SCRIPT_START);
    open.name = u"c:\\tmp\\RUN.BAT";
    EXPECT_EQ(Run(open).eventType, AC_OP_CREATE_PRE);
    EXPECT_TRUE(Logged(u"Filename does not match process command line"));

    open.processName = u"c:\\windows\\notepad.exe";
    open.name = u"c:\\work\\job.ps1";
    EXPECT_EQ(Run(open).eventType, AC_OP_CREATE_PRE);
    EXPECT_TRUE(Logged(u"Script exec not detected. Process type index: 0"));
}

}  // namespace
}  // namespace zorv

// The thirteen exports as the agent drives them: lifecycle, status codes,
// set_config and the result record.
#include "Zorv.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "EngineTestFixture.h"
#include "ZorvDataAccessLayer.h"
#include "platform/Platform.h"

namespace zorv {
namespace {

using test::Host;

constexpr uint8_t kPoison = 0xCD;

// The five switches of set_config, in the order of their bits: lockdown,
// inventory exists, ruleset exists, auto authorize, allowlist inventory.
std::vector<bool> Switches() {
    const AppControlConfig& c = AppControlConfig::Instance();
    return {c.Lockdown(), c.InventoryExists(), c.RulesetExists(), c.MaintenanceMode(), c.AllowlistInventory()};
}

using ExportsTest = test::EngineFixture;

TEST(Exports, EveryExportAnswersNotStartedBeforeStart) {
    test::ResetPolicy();
    ASSERT_EQ(ZorvEngine::GetEngine(), nullptr);
    // A change the plug-in asked the engine to leave alone: nothing could judge it.
    AppCtlEvent event{};
    event.type = AC_OP_CHANGE_42;
    event.ignoreChange = 1;
    AppCtlResult result;
    std::memset(&result, kPoison, sizeof result);
    const std::u16string path = u"rules.json";
    uint32_t size = 0;
    const std::vector<std::pair<uint32_t, uint32_t>> answers = {
        {app_ctl(nullptr, nullptr, &result), AC_E_NULL_EVENT},  // the argument check comes first
        {app_ctl(nullptr, &event, &result), AC_E_NOT_STARTED},
        {set_config(AC_CONFIG_LOCKDOWN | AC_CONFIG_AUTO_AUTHORIZE, 1, 2), AC_E_NOT_STARTED},
        {set_loglevel(0x3), AC_E_NOT_STARTED},
        {set_ruleset(0, Host(path), nullptr), AC_E_NOT_STARTED},
        // The buffer import has no engine check; only its argument checks are safe to call here.
        {set_ruleset_buffer(0, nullptr, Host(path)), AC_E_NULL_BUFFER},
        {store_item(nullptr, 0), AC_E_NOT_STARTED},
        {get_inventory(0, 10, 0, nullptr, Host(path)), AC_E_INVALID_ARG},  // the argument check comes first
        {get_inventory(0, 10, 0, Host(path), Host(path)), AC_E_NOT_STARTED},
        {get_metrics_mem(nullptr, &size), AC_E_NOT_STARTED},
        {purge_db(0), AC_E_NOT_STARTED},
        {delete_db(), AC_E_NOT_STARTED},
        {flush_db_buffer(), AC_E_NOT_STARTED},
        {engine_stop(), AC_OK},  // nothing to stop
    };
    for (size_t i = 0; i < answers.size(); ++i) EXPECT_EQ(answers[i].first, answers[i].second) << "call " << i;
    // Filled even so: a host that reads the record without checking the
    // status must find "undecided", not its own stale bytes.
    EXPECT_EQ(result.action, AC_DECISION_ERROR);
    EXPECT_EQ(result.source, 0u);
    EXPECT_EQ(result.text[0], 0);
    EXPECT_EQ(Switches(), std::vector<bool>(5, false)) << "set_config changed the policy";
}

TEST_F(ExportsTest, StartStopAndRestartKeepThePolicy) {
    engine_stop();
    EXPECT_EQ(engine_start(nullptr), AC_E_NULL_PARAMS);
    EXPECT_EQ(ZorvEngine::GetEngine(), nullptr);
    Restart();
    ZorvEngine* const first = ZorvEngine::GetEngine();
    ASSERT_NE(first, nullptr);

    // A second start reopens nothing and keeps the engine; a new location is refused while the store is open.
    const EngineStartParams keepPath = test::StartParams(nullptr);
    EXPECT_EQ(engine_start(&keepPath), AC_OK);
    const std::u16string otherPath = test::PathText(m_dir / "other.db");
    const EngineStartParams newPath = test::StartParams(&otherPath);
    EXPECT_EQ(engine_start(&newPath), AC_E_INVALID_ARG);
    EXPECT_EQ(ZorvEngine::GetEngine(), first);

    ASSERT_EQ(set_config(0x1F, 1000, 2000), AC_OK);
    EXPECT_EQ(set_loglevel(kLogWarning), AC_OK);
    EXPECT_EQ(ZorvLogger::Instance().Level(), kLogWarning);
    EXPECT_EQ(engine_stop(), AC_OK);
    EXPECT_EQ(ZorvEngine::GetEngine(), nullptr);

    Restart();  // a stopped store takes a location again
    EXPECT_EQ(Switches(), std::vector<bool>(5, true)) << "a restart keeps the policy";
    EXPECT_EQ(AppControlConfig::Instance().AutoAuthorizeStartTime(), 1000u);
    EXPECT_EQ(AppControlConfig::Instance().AutoAuthorizeEndTime(), 2000u);
}

// A start that cannot open its store leaves nothing open: the next start may
// name another file and succeeds.
TEST_F(ExportsTest, FailedStartLeavesNothingOpenAndALaterStartSucceeds) {
    engine_stop();
    const auto bad = m_dir / "not-a-database.db";
    test::WriteFile(bad, std::string(8192, 'x'));
    const std::u16string badPath = test::PathText(bad);
    const EngineStartParams badStart = test::StartParams(&badPath);
    EXPECT_EQ(engine_start(&badStart), AC_E_DB_OPEN);
    EXPECT_EQ(engine_start(&badStart), AC_E_DB_OPEN) << "the same file is tried again, from the start";
    EXPECT_FALSE(ZorvDAL::Instance().IsOpen());
    const std::u16string goodPath = test::PathText(m_dir / "good.db");
    const EngineStartParams goodStart = test::StartParams(&goodPath);
    EXPECT_EQ(engine_start(&goodStart), AC_OK);
    EXPECT_NE(ZorvEngine::GetEngine(), nullptr);
    EXPECT_EQ(test::ReadFile(bad), std::string(8192, 'x'));
}

TEST_F(ExportsTest, SetConfigStatesTheWholePolicyAndIgnoresUnknownBits) {
    const AppControlConfig& config = AppControlConfig::Instance();
    EXPECT_EQ(set_config(~0x1Fu, 7, 8), AC_OK);
    EXPECT_EQ(Switches(), std::vector<bool>(5, false));
    EXPECT_TRUE(config.ManifestApplied());

    // Each bit alone switches on its own setting and every other one off.
    for (size_t on = 0; on < 5; ++on) {
        std::vector<bool> expected(5, false);
        expected[on] = true;
        EXPECT_EQ(set_config(1u << on, 10, 20), AC_OK);
        EXPECT_EQ(Switches(), expected) << "bit " << (1u << on);
    }
    // Lockdown on a store that holds no manifest for this version waits for one; only an import ends that.
    EXPECT_FALSE(config.ManifestApplied());
    EXPECT_EQ(set_config(0, 10, 20), AC_OK);
    EXPECT_FALSE(config.ManifestApplied());
}

TEST_F(ExportsTest, MaintenanceWindowIsStampedWhenItEndsAndRestoredAfterALoad) {
    AppControlConfig& config = AppControlConfig::Instance();
    constexpr uint64_t kStart = 1700000000000, kEnd = 1700003600000;
    ASSERT_EQ(set_config(AC_CONFIG_AUTO_AUTHORIZE, kStart, kEnd), AC_OK);

    // Switching maintenance off records when it really ended, in memory and in the store; the start stays.
    const uint64_t before = platform::NowMilliseconds();
    ASSERT_EQ(set_config(0, 5, 6), AC_OK);
    const uint64_t stamped = config.AutoAuthorizeEndTime();
    EXPECT_EQ(config.AutoAuthorizeStartTime(), kStart);
    EXPECT_TRUE(stamped >= before && stamped <= platform::NowMilliseconds()) << stamped;
    EXPECT_EQ(Probe().Scalar("SELECT settingValue FROM AppControlState WHERE settingName = 'autoAuthorizeEndTime'"),
              std::to_string(stamped));

    // As after a fresh load: the window comes back from the store, not from the arguments.
    config.SetAutoAuthorizeStartTime(AppControlConfig::kTimeNotKnown);
    config.SetAutoAuthorizeEndTime(AppControlConfig::kTimeNotKnown);
    ASSERT_EQ(set_config(0, 31, 32), AC_OK);
    EXPECT_EQ(config.AutoAuthorizeStartTime(), kStart);
    EXPECT_EQ(config.AutoAuthorizeEndTime(), stamped);

    // An unknown time goes into the store as the "-1" it was seeded with.
    ASSERT_EQ(set_config(AC_CONFIG_AUTO_AUTHORIZE, ~uint64_t{0}, ~uint64_t{0}), AC_OK);
    EXPECT_EQ(Probe().Lines("SELECT settingValue FROM AppControlState WHERE settingName IN "
                            "('autoAuthorizeStartTime', 'autoAuthorizeEndTime')"),
              (std::vector<std::string>{"-1", "-1"}));
}

TEST(AppCtlResultRecord, CopiesTheVerdictAndBoundsTheTextTo80Units) {
    EngineEvent event;
    event.action = AC_DECISION_ALLOW, event.source = AC_SOURCE_TRUST_RULE, event.isAuthorized = AC_REASON_TRUSTED;
    event.eventType = AC_EVENT_PROCESS_START, event.dbVerdict = AC_DB_ALLOWED;
    AppCtlResult result;
    auto textAfterFill = [&](std::u16string text) {
        event.resultText = std::move(text);
        std::memset(&result, kPoison, sizeof result);
        FillAppCtlResult(event, &result);
        for (size_t i = event.resultText.size(); i < AC_RESULT_TEXT_UNITS; ++i) EXPECT_EQ(result.text[i], 0) << i;
        for (uint8_t byte : result.reserved188) EXPECT_EQ(byte, 0);
        return std::u16string(reinterpret_cast<const char16_t*>(result.text));  // stops at a NUL inside the field
    };
    EXPECT_EQ(textAfterFill(std::u16string(79, u'w')), std::u16string(79, u'w')) << "79 units and the terminator fit";
    const AppCtlResult& r = result;  // bytes 0 to 27, in order
    EXPECT_EQ((std::vector<uint32_t>{r.action, r.passThroughSecond, r.source, r.isAuthorized, r.eventType,
                                     r.passThroughFirst, r.dbVerdict}),
              (std::vector<uint32_t>{AC_DECISION_ALLOW, 1, AC_SOURCE_TRUST_RULE, AC_REASON_TRUSTED,
                                     AC_EVENT_PROCESS_START, 0, AC_DB_ALLOWED}));
    // What does not fit is refused whole, never cut and never written past the field.
    EXPECT_EQ(textAfterFill(std::u16string(80, u'w')), u"");
}

TEST(AppCtlStatusCode, BlockIsEnforcedOnlyOnceTheManifestIsApplied) {
    test::CaptureLog();
    test::ResetPolicy();
    AppCtlEvent event{};
    const std::pair<uint32_t, uint32_t> applied[] = {{AC_DECISION_IGNORED, AC_OK}, {AC_DECISION_ALLOW, AC_OK},
                                                     {AC_DECISION_ERROR, AC_E_FAILED}, {AC_DECISION_BLOCK, AC_BLOCKED}};
    for (const auto& [action, status] : applied) EXPECT_EQ(AppCtlStatus(action, event), status) << action;

    // A new version waits for its manifest: only a block is let through.
    AppControlConfig::Instance().SetManifestApplied(false);
    EXPECT_EQ(AppCtlStatus(AC_DECISION_BLOCK, event), AC_OK);
    EXPECT_EQ(AppCtlStatus(AC_DECISION_ERROR, event), AC_E_FAILED);
    test::ResetPolicy();
}

TEST_F(ExportsTest, ArgumentChecksOfAStartedEngine) {
    EXPECT_EQ(store_item(nullptr, 0), AC_E_ITEM_INCOMPLETE);
    const std::u16string fileName = u"tool.exe", dir = u"C:\\Tools", full = u"C:\\Tools\\tool.exe",
                         ruleset = u"executionRules", json = u"{}";
    const InventoryItemRecord complete{.source = AC_SOURCE_SCANNED, .fileName = Host(fileName), .path = Host(dir),
                                       .fullPath = Host(full), .ruleset = Host(ruleset)};
    for (auto field : {&InventoryItemRecord::fileName, &InventoryItemRecord::path, &InventoryItemRecord::fullPath,
                       &InventoryItemRecord::ruleset}) {
        InventoryItemRecord item = complete;
        item.*field = nullptr;
        EXPECT_EQ(store_item(&item, 0), AC_E_ITEM_INCOMPLETE);
        EXPECT_EQ(store_item(&item, 1), AC_E_ITEM_INCOMPLETE);
    }
    EXPECT_EQ(ItemCount(), 0);
    EXPECT_EQ(set_ruleset(0, nullptr, Host(ruleset)), AC_E_INVALID_ARG);
    EXPECT_EQ(set_ruleset_buffer(0, Host(json), nullptr), AC_E_NULL_BUFFER);
    EXPECT_EQ(flush_db_buffer(), AC_E_FAILED) << "nothing was buffered, so nothing was stored";
}

}  // namespace
}  // namespace zorv

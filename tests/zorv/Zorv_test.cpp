// The thirteen exports as the agent drives them: lifecycle, status codes,
// set_config, the result record and the log callback. Every test that starts
// the engine gives it a database of its own in a temporary folder.
#include "Zorv.h"

#include <gtest/gtest.h>

#include <cstring>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "TestSupport.h"
#include "ZorvDataAccessLayer.h"
#include "ZorvEventAbstraction.h"
#include "ZorvLogger.h"
#include "ZorvStats.h"
#include "ZorvText.h"
#include "platform/Platform.h"

namespace zorv {
namespace {

using test::Host;
using test::LogCapture;

constexpr uint8_t kPoison = 0xCD;

// Routes the log into LogCapture at every level without starting an engine.
void CaptureLog() {
    ZorvLogger::Instance().InitLogger(&LogCapture::Callback, 0xF);
    ZorvLogger::Instance().SetLevel(0xF);
    LogCapture::Instance().Clear();
}

// The captured lines of one function, in order.
std::vector<test::LoggedLine> LinesFrom(std::u16string_view function) {
    std::vector<test::LoggedLine> lines;
    for (auto& line : LogCapture::Instance().Lines()) {
        if (line.function == function) lines.push_back(std::move(line));
    }
    return lines;
}

std::vector<std::u16string> MessagesFrom(std::u16string_view function) {
    std::vector<std::u16string> messages;
    for (const auto& line : LinesFrom(function)) messages.push_back(line.message);
    return messages;
}

// A change the plug-in asked the engine to leave alone: it stays unabstracted,
// so the dispatcher cannot judge it, whatever the rule store holds.
struct UnjudgeableEvent {
    std::u16string name = u"C:\\Data\\report.docx";
    AppCtlEvent record{};
    UnjudgeableEvent() {
        record.pid = 4242;
        record.type = AC_OP_CHANGE_42;
        record.ignoreChange = 1;
        record.name = Host(name);
    }
    UnjudgeableEvent(const UnjudgeableEvent&) = delete;  // the record points into this object
};

// The policy as the library holds it at load. The object outlives engine_stop
// by design, so a test that needs the load-time policy puts it back itself.
void ResetPolicy() {
    AppControlConfig& config = AppControlConfig::Instance();
    config.SetAutoAuthorizeStartTime(AppControlConfig::kTimeNotKnown);
    config.SetAutoAuthorizeEndTime(AppControlConfig::kTimeNotKnown);
    config.SetMaintenanceMode(false);
    config.SetInventoryExists(false);
    config.SetLockdown(false);
    config.SetRulesetExists(false);
    config.SetAllowlistInventory(false);
    config.SetManifestApplied(true);
}

// The five switches of set_config, in the order of their bits: lockdown,
// inventory exists, ruleset exists, auto authorize, allowlist inventory.
std::vector<bool> Switches() {
    const AppControlConfig& c = AppControlConfig::Instance();
    return {c.Lockdown(), c.InventoryExists(), c.RulesetExists(), c.MaintenanceMode(), c.AllowlistInventory()};
}

// Bytes 0 to 27 of the result record, in order.
std::vector<uint32_t> Head(const AppCtlResult& r) {
    return {r.action, r.passThroughSecond, r.source, r.isAuthorized, r.eventType, r.passThroughFirst, r.dbVerdict};
}

// A setting as the rule store reads it back, or nothing when it cannot be read.
std::optional<uint64_t> StoredSetting(const std::u16string& name) {
    std::u16string text;
    if (!ZorvDAL::Instance().GetAppControlState(name, text) || text.empty()) return std::nullopt;
    return static_cast<uint64_t>(std::stoll(Utf16ToUtf8(text)));
}

class ExportsTest : public ::testing::Test {
protected:
    void SetUp() override {
        ResetPolicy();
        // The logger outlives the engine too; its level is only taken at the first start.
        ZorvLogger::Instance().SetLevel(0xF);
    }
    void TearDown() override { engine_stop(); }

    uint32_t Start(uint32_t level = 0xF) {
        const EngineStartParams params = test::StartParams(&m_dbPath, level);
        return engine_start(&params);
    }

    test::TempDir m_dir;
    std::u16string m_dbPath = test::PathText(m_dir / "ac.db");
};

TEST(Exports, EveryExportAnswersNotStartedBeforeStart) {
    ResetPolicy();
    ASSERT_EQ(ZorvEngine::GetEngine(), nullptr);
    UnjudgeableEvent event;
    AppCtlResult result{};
    std::memset(&result, kPoison, sizeof result);
    EXPECT_EQ(app_ctl(nullptr, nullptr, &result), AC_E_NULL_EVENT);  // before the engine check
    EXPECT_EQ(app_ctl(nullptr, &event.record, &result), AC_E_NOT_STARTED);
    EXPECT_EQ(app_ctl(nullptr, &event.record, nullptr), AC_E_NOT_STARTED);
    EXPECT_EQ(result.action, 0xCDCDCDCDu) << "an unstarted engine must not touch the result";

    const AppControlConfig& config = AppControlConfig::Instance();
    EXPECT_EQ(set_config(AC_CONFIG_LOCKDOWN | AC_CONFIG_AUTO_AUTHORIZE, 1, 2), AC_E_NOT_STARTED);
    EXPECT_FALSE(config.Lockdown());
    EXPECT_FALSE(config.MaintenanceMode());
    EXPECT_EQ(config.AutoAuthorizeStartTime(), AppControlConfig::kTimeNotKnown);
    EXPECT_TRUE(config.ManifestApplied());

    const uint32_t levelBefore = ZorvLogger::Instance().Level();
    EXPECT_EQ(set_loglevel(0x3), AC_E_NOT_STARTED);
    EXPECT_EQ(ZorvLogger::Instance().Level(), levelBefore);

    const std::u16string path = u"rules.json";
    EXPECT_EQ(set_ruleset(0, Host(path), nullptr), AC_E_NOT_STARTED);
    EXPECT_EQ(set_ruleset(0, nullptr, nullptr), AC_E_NOT_STARTED);
    // The buffer import has no engine check; only its argument checks are safe to call here.
    EXPECT_EQ(set_ruleset_buffer(0, nullptr, Host(path)), AC_E_NULL_BUFFER);
    EXPECT_EQ(set_ruleset_buffer(1, Host(path), nullptr), AC_E_NULL_BUFFER);

    EXPECT_EQ(store_item(nullptr, 0), AC_E_NOT_STARTED);
    EXPECT_EQ(get_inventory(0, 10, 0, nullptr, Host(path)), AC_E_INVALID_ARG);  // before the engine check
    EXPECT_EQ(get_inventory(0, 10, 0, Host(path), Host(path)), AC_E_NOT_STARTED);
    uint32_t size = 0;
    EXPECT_EQ(get_metrics_mem(nullptr, &size), AC_E_NOT_STARTED);
    EXPECT_EQ(get_metrics_mem(nullptr, nullptr), AC_E_NOT_STARTED);
    EXPECT_EQ(purge_db(0), AC_E_NOT_STARTED);
    EXPECT_EQ(delete_db(), AC_E_NOT_STARTED);
    EXPECT_EQ(flush_db_buffer(), AC_E_NOT_STARTED);
    EXPECT_EQ(engine_stop(), AC_OK);  // nothing to stop
}

TEST_F(ExportsTest, StartStopAndRestart) {
    EXPECT_EQ(engine_start(nullptr), AC_E_NULL_PARAMS);
    EXPECT_EQ(ZorvEngine::GetEngine(), nullptr);

    ASSERT_EQ(Start(), AC_OK);
    ZorvEngine* const first = ZorvEngine::GetEngine();
    ASSERT_NE(first, nullptr);

    // A second start reopens nothing and keeps the engine.
    EngineStartParams keepPath = test::StartParams(nullptr);
    EXPECT_EQ(engine_start(&keepPath), AC_OK);
    EXPECT_EQ(ZorvEngine::GetEngine(), first);
    const std::u16string otherPath = test::PathText(m_dir / "other.db");
    EngineStartParams newPath = test::StartParams(&otherPath);
    EXPECT_EQ(engine_start(&newPath), ZorvDAL::Instance().IsOpen() ? AC_E_INVALID_ARG : AC_OK)
        << "the store refuses a new location while its database is open";
    EXPECT_EQ(ZorvEngine::GetEngine(), first);

    LogCapture::Instance().Clear();
    EXPECT_EQ(engine_stop(), AC_OK);
    EXPECT_EQ(ZorvEngine::GetEngine(), nullptr);
    EXPECT_EQ(MessagesFrom(u"engine_stop"),
              (std::vector<std::u16string>{u"Engine Stop", u"Shutting down DAL for AC Engine"}));
    for (const auto& line : LinesFrom(u"engine_stop")) {
        EXPECT_EQ(line.level, static_cast<uint32_t>(kLogTrace));
        EXPECT_EQ(line.sourcePath, u"src/zorv/Zorv");
    }

    LogCapture::Instance().Clear();
    EXPECT_EQ(engine_stop(), AC_OK);
    EXPECT_EQ(LogCapture::Instance().Count(u"Engine Stop"), 0u) << "a second stop does nothing";
    EXPECT_EQ(set_config(0, 0, 0), AC_E_NOT_STARTED);
    EXPECT_EQ(flush_db_buffer(), AC_E_NOT_STARTED);

    ASSERT_EQ(Start(), AC_OK) << "a stopped store takes a location again";
    EXPECT_NE(ZorvEngine::GetEngine(), nullptr);
    EXPECT_EQ(set_config(0, 0, 0), AC_OK);
}

TEST_F(ExportsTest, RestartKeepsThePolicy) {
    ASSERT_EQ(Start(), AC_OK);
    ASSERT_EQ(set_config(AC_CONFIG_LOCKDOWN | AC_CONFIG_INVENTORY_EXISTS | AC_CONFIG_RULESET_EXISTS |
                             AC_CONFIG_ALLOWLIST_INVENTORY | AC_CONFIG_AUTO_AUTHORIZE,
                         1000, 2000),
              AC_OK);
    ASSERT_EQ(engine_stop(), AC_OK);
    ASSERT_EQ(Start(), AC_OK);

    const AppControlConfig& config = AppControlConfig::Instance();
    EXPECT_EQ(Switches(), std::vector<bool>(5, true));
    EXPECT_EQ(config.AutoAuthorizeStartTime(), 1000u);
    EXPECT_EQ(config.AutoAuthorizeEndTime(), 2000u);
    EXPECT_FALSE(config.ManifestApplied()) << "a fresh store holds no manifest for this version";
    EXPECT_EQ(config.AgentVersion(), u"12.0.193");
}

TEST_F(ExportsTest, SetConfigStatesTheWholePolicyAndIgnoresUnknownBits) {
    ASSERT_EQ(Start(), AC_OK);
    const AppControlConfig& config = AppControlConfig::Instance();

    LogCapture::Instance().Clear();
    EXPECT_EQ(set_config(~0x1Fu, 7, 8), AC_OK);
    EXPECT_EQ(Switches(), std::vector<bool>(5, false));
    EXPECT_TRUE(config.ManifestApplied());
    EXPECT_TRUE(MessagesFrom(u"set_config").empty());

    LogCapture::Instance().Clear();
    EXPECT_EQ(set_config(0x1F, 10, 20), AC_OK);
    EXPECT_EQ(Switches(), std::vector<bool>(5, true));
    const std::vector<std::u16string> expected = {
        u"Setting AUTO AUTHORIZE",
        u"Setting INVENTORY EXISTS",
        u"Upgrade detected old version  new version 12.0.193 waiting for manifest to be applied",
        u"Setting LOCKDOWN",
        u"Setting RULESET EXISTS",
        u"Setting ALLOWLIST INVENTORY",
    };
    EXPECT_EQ(MessagesFrom(u"set_config"), expected);
    EXPECT_FALSE(config.ManifestApplied());

    // Each bit alone switches on its own setting and every other one off.
    for (size_t on = 0; on < 5; ++on) {
        EXPECT_EQ(set_config(1u << on, 10, 20), AC_OK);
        std::vector<bool> expectedSwitches(5, false);
        expectedSwitches[on] = true;
        EXPECT_EQ(Switches(), expectedSwitches) << "bit " << (1u << on);
    }
    EXPECT_FALSE(config.ManifestApplied()) << "only a manifest import sets it again";
}

TEST_F(ExportsTest, MaintenanceWindowIsStampedWhenItEndsAndRestoredAfterALoad) {
    ASSERT_EQ(Start(), AC_OK);
    AppControlConfig& config = AppControlConfig::Instance();
    constexpr uint64_t kStart = 1700000000000, kEnd = 1700003600000;

    ASSERT_EQ(set_config(AC_CONFIG_AUTO_AUTHORIZE, kStart, kEnd), AC_OK);
    EXPECT_TRUE(config.MaintenanceMode());
    EXPECT_EQ(config.AutoAuthorizeStartTime(), kStart);
    EXPECT_EQ(config.AutoAuthorizeEndTime(), kEnd);
    if (auto stored = StoredSetting(u"autoAuthorizeStartTime")) EXPECT_EQ(*stored, kStart);
    if (auto stored = StoredSetting(u"autoAuthorizeEndTime")) EXPECT_EQ(*stored, kEnd);

    // Switching maintenance off records when it really ended; the start stays.
    const uint64_t before = platform::NowMilliseconds();
    ASSERT_EQ(set_config(0, 5, 6), AC_OK);
    const uint64_t after = platform::NowMilliseconds();
    EXPECT_FALSE(config.MaintenanceMode());
    EXPECT_EQ(config.AutoAuthorizeStartTime(), kStart);
    const uint64_t stamped = config.AutoAuthorizeEndTime();
    EXPECT_GE(stamped, before);
    EXPECT_LE(stamped, after);
    const std::optional<uint64_t> storedEnd = StoredSetting(u"autoAuthorizeEndTime");
    if (storedEnd) EXPECT_EQ(*storedEnd, stamped);

    // Off again: the window is known, so neither the arguments nor the store change it.
    ASSERT_EQ(set_config(0, 5, 6), AC_OK);
    EXPECT_EQ(config.AutoAuthorizeStartTime(), kStart);
    EXPECT_EQ(config.AutoAuthorizeEndTime(), stamped);

    // As after a fresh load: the window comes back from the store, each value
    // that cannot be read standing in from the arguments.
    config.SetAutoAuthorizeStartTime(AppControlConfig::kTimeNotKnown);
    config.SetAutoAuthorizeEndTime(AppControlConfig::kTimeNotKnown);
    const std::optional<uint64_t> storedStart = StoredSetting(u"autoAuthorizeStartTime");
    ASSERT_EQ(set_config(0, 31, 32), AC_OK);
    EXPECT_EQ(config.AutoAuthorizeStartTime(), storedStart.value_or(31));
    EXPECT_EQ(config.AutoAuthorizeEndTime(), storedEnd.value_or(32));
    EXPECT_FALSE(config.MaintenanceMode());
}

TEST_F(ExportsTest, AppCtlFillsTheResultOfAnEventItCannotJudge) {
    ASSERT_EQ(Start(), AC_OK);
    UnjudgeableEvent event;
    AppCtlResult result;
    std::memset(&result, kPoison, sizeof result);
    LogCapture::Instance().Clear();
    // The first argument is not read.
    EXPECT_EQ(app_ctl(reinterpret_cast<void*>(0x1), &event.record, &result), AC_E_FAILED);
    // The event type stays the plug-in's code: the engine left it unabstracted.
    EXPECT_EQ(Head(result), (std::vector<uint32_t>{AC_DECISION_ERROR, 1, 0, AC_REASON_NONE, AC_OP_CHANGE_42, 0,
                                                   AC_DB_NOT_KNOWN}));
    const auto* tail = reinterpret_cast<const uint8_t*>(&result) + offsetof(AppCtlResult, text);
    for (size_t i = 0; i < sizeof result - offsetof(AppCtlResult, text); ++i) ASSERT_EQ(tail[i], 0) << i;
    EXPECT_TRUE(LogCapture::Instance().Contains(u"Unknown event type 42"));

    // A host without a result record is never refused, whatever the decision.
    EXPECT_EQ(app_ctl(nullptr, &event.record, nullptr), AC_OK);

    // Malformed UTF-16 from the plug-in is judged like any other text.
    std::u16string broken = u"C:\\Data\\";
    broken += {char16_t(0xDC00), u'x', char16_t(0xD800)};
    event.record.name = Host(broken);
    event.record.processName = Host(broken);
    EXPECT_EQ(app_ctl(nullptr, &event.record, &result), AC_E_FAILED);
    EXPECT_EQ(result.action, AC_DECISION_ERROR);
}

TEST_F(ExportsTest, AppCtlServesManyThreadsAtOnce) {
    ASSERT_EQ(Start(), AC_OK);
    ASSERT_EQ(set_loglevel(0), AC_OK);  // keep the capture small; the lines are checked elsewhere
    std::vector<int> mismatches(4, 0);
    std::vector<std::thread> threads;
    for (size_t t = 0; t < mismatches.size(); ++t) {
        threads.emplace_back([&mismatch = mismatches[t]] {
            UnjudgeableEvent event;
            for (int i = 0; i < 250; ++i) {
                AppCtlResult result;
                std::memset(&result, kPoison, sizeof result);
                mismatch += app_ctl(nullptr, &event.record, &result) == AC_E_FAILED &&
                                    result.action == AC_DECISION_ERROR && result.passThroughSecond == 1 &&
                                    result.text[0] == 0
                                ? 0
                                : 1;
            }
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(mismatches, std::vector<int>(4, 0));
}

TEST(AppCtlResultRecord, CopiesTheVerdictAndBoundsTheTextTo80Units) {
    EngineEvent event;
    event.action = AC_DECISION_ALLOW;
    event.source = AC_SOURCE_TRUST_RULE;
    event.isAuthorized = AC_REASON_TRUSTED;
    event.eventType = AC_EVENT_PROCESS_START;
    event.dbVerdict = AC_DB_ALLOWED;
    event.resultText = u"Allowed by trust rule";

    AppCtlResult result;
    std::memset(&result, kPoison, sizeof result);
    FillAppCtlResult(event, &result);
    EXPECT_EQ(Head(result), (std::vector<uint32_t>{AC_DECISION_ALLOW, 1, AC_SOURCE_TRUST_RULE, AC_REASON_TRUSTED,
                                                   AC_EVENT_PROCESS_START, 0, AC_DB_ALLOWED}));
    EXPECT_EQ(std::u16string(reinterpret_cast<const char16_t*>(result.text)), u"Allowed by trust rule");
    for (size_t i = event.resultText.size(); i < AC_RESULT_TEXT_UNITS; ++i) ASSERT_EQ(result.text[i], 0) << i;
    for (uint8_t byte : result.reserved188) EXPECT_EQ(byte, 0);

    auto textAfterFill = [&](size_t units) {
        event.resultText.assign(units, u'w');
        std::memset(&result, kPoison, sizeof result);
        FillAppCtlResult(event, &result);
        for (uint8_t byte : result.reserved188) EXPECT_EQ(byte, 0);
        return std::u16string(reinterpret_cast<const char16_t*>(result.text));  // stops at a NUL inside the field
    };
    EXPECT_EQ(textAfterFill(79), std::u16string(79, u'w')) << "79 units and the terminator fit";
    EXPECT_EQ(result.text[79], 0);
    // What does not fit is refused whole, never cut and never written past the field.
    EXPECT_EQ(textAfterFill(80), u"");
    EXPECT_EQ(textAfterFill(200), u"");
    EXPECT_EQ(textAfterFill(0), u"");
}

TEST(AppCtlStatusCode, BlockIsEnforcedOnlyOnceTheManifestIsApplied) {
    CaptureLog();
    ResetPolicy();
    AppControlConfig& config = AppControlConfig::Instance();
    const std::u16string target = u"C:\\Users\\Public\\dropper.exe";
    AppCtlEvent event{};
    event.name = Host(target);

    EXPECT_EQ(AppCtlStatus(AC_DECISION_IGNORED, event), AC_OK);
    EXPECT_EQ(AppCtlStatus(AC_DECISION_ALLOW, event), AC_OK);
    EXPECT_EQ(AppCtlStatus(AC_DECISION_ERROR, event), AC_E_FAILED);
    EXPECT_TRUE(LogCapture::Instance().Lines().empty());

    EXPECT_EQ(AppCtlStatus(AC_DECISION_BLOCK, event), AC_BLOCKED);
    std::vector<test::LoggedLine> lines = LogCapture::Instance().Lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].level, static_cast<uint32_t>(kLogWarning));
    EXPECT_EQ(lines[0].function, u"app_ctl");
    EXPECT_EQ(lines[0].sourcePath, u"src/zorv/Zorv");
    EXPECT_EQ(lines[0].message, u"Blocking event: 'C:\\Users\\Public\\dropper.exe'");
    AppCtlEvent unnamed{};
    EXPECT_EQ(AppCtlStatus(AC_DECISION_BLOCK, unnamed), AC_BLOCKED);
    EXPECT_TRUE(LogCapture::Instance().Contains(u"Blocking event: ''"));

    // A new version waits for its manifest: the block is reported but let through, and counted.
    config.SetManifestApplied(false);
    LogCapture::Instance().Clear();
    ZorvStats& stats = ZorvStats::Instance();
    const uint64_t waiting = stats.GetMetric(u"ALLOWED_WAITING_FOR_MANIFEST");
    EXPECT_EQ(AppCtlStatus(AC_DECISION_BLOCK, event), AC_OK);
    EXPECT_EQ(AppCtlStatus(AC_DECISION_BLOCK, event), AC_OK);
    EXPECT_EQ(AppCtlStatus(AC_DECISION_ERROR, event), AC_E_FAILED) << "only blocks wait for the manifest";
    EXPECT_EQ(stats.GetMetric(u"ALLOWED_WAITING_FOR_MANIFEST"), waiting + 2);
    const std::vector<std::u16string> expected = {
        u"Allowed waiting for manifest " + Utf8ToUtf16(std::to_string(waiting + 1)),
        u"Allowed waiting for manifest " + Utf8ToUtf16(std::to_string(waiting + 2))};
    EXPECT_EQ(LogCapture::Instance().Messages(), expected);
    lines = LogCapture::Instance().Lines();
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines[0].level, static_cast<uint32_t>(kLogTrace));
    EXPECT_EQ(lines[0].function, u"app_ctl");
    config.SetManifestApplied(true);
}

TEST_F(ExportsTest, ArgumentChecksOfAStartedEngine) {
    ASSERT_EQ(Start(), AC_OK);
    EXPECT_EQ(store_item(nullptr, 0), AC_E_ITEM_INCOMPLETE);
    const std::u16string fileName = u"tool.exe", dir = u"C:\\Tools", full = u"C:\\Tools\\tool.exe",
                         ruleset = u"executionRules";
    const InventoryItemRecord complete = [&] {
        InventoryItemRecord item{};
        item.fileName = Host(fileName);
        item.path = Host(dir);
        item.fullPath = Host(full);
        item.ruleset = Host(ruleset);
        item.source = AC_SOURCE_SCANNED;
        item.size = 1234;
        return item;
    }();
    const ZorvChar* InventoryItemRecord::*required[] = {&InventoryItemRecord::fileName, &InventoryItemRecord::path,
                                                        &InventoryItemRecord::fullPath, &InventoryItemRecord::ruleset};
    for (auto field : required) {
        InventoryItemRecord item = complete;
        item.*field = nullptr;
        EXPECT_EQ(store_item(&item, 0), AC_E_ITEM_INCOMPLETE);
        EXPECT_EQ(store_item(&item, 1), AC_E_ITEM_INCOMPLETE);
    }

    EXPECT_EQ(set_ruleset(0, nullptr, Host(ruleset)), AC_E_INVALID_ARG);
    EXPECT_EQ(set_ruleset_buffer(0, nullptr, Host(ruleset)), AC_E_NULL_BUFFER);
    const std::u16string json = u"{}";
    EXPECT_EQ(set_ruleset_buffer(0, Host(json), nullptr), AC_E_NULL_BUFFER);
    const std::u16string uuid = u"3f1c0d2e-0000-4000-8000-000000000001";
    EXPECT_EQ(get_inventory(0, 100, 0, nullptr, Host(uuid)), AC_E_INVALID_ARG);
    // Nothing was buffered, so the flush stores nothing.
    EXPECT_EQ(flush_db_buffer(), AC_E_FAILED);
}

TEST_F(ExportsTest, MetricsExportPassesTheSizeProtocolThrough) {
    ASSERT_EQ(Start(), AC_OK);
    uint32_t size = 0;
    const uint32_t query = get_metrics_mem(nullptr, &size);
    if (query == AC_E_FAILED) GTEST_SKIP() << "the metrics document is not built yet";
    EXPECT_EQ(query, AC_E_BUFFER_TOO_SMALL);
    EXPECT_GT(size, 0u);
    std::vector<char> buffer(size + 16, '\x7f');
    EXPECT_EQ(get_metrics_mem(buffer.data(), nullptr), AC_E_NULL_SIZE);
    EXPECT_EQ(buffer[0], '\x7f') << "nothing written without a size";
}

TEST_F(ExportsTest, LogCallbackFollowsSetLoglevel) {
    const bool freshLogger = !ZorvLogger::Instance().IsInitialized();
    ASSERT_EQ(Start(kLogWarning | kLogError), AC_OK);
    if (freshLogger) EXPECT_EQ(ZorvLogger::Instance().Level(), static_cast<uint32_t>(kLogWarning | kLogError));

    UnjudgeableEvent event;
    AppCtlResult result{};
    // A repeated start warns that the logger is already set up; the conversion logs at trace level.
    auto logAtEachLevel = [&] {
        LogCapture::Instance().Clear();
        const EngineStartParams again = test::StartParams(nullptr);
        EXPECT_EQ(engine_start(&again), AC_OK);
        app_ctl(nullptr, &event.record, &result);
        return std::pair{LogCapture::Instance().Contains(u"Zorv Logging already initialized!"),
                         LogCapture::Instance().Contains(u"Start ConvertEvent")};
    };

    EXPECT_EQ(set_loglevel(kLogWarning), AC_OK);
    EXPECT_EQ(ZorvLogger::Instance().Level(), static_cast<uint32_t>(kLogWarning));
    EXPECT_EQ(logAtEachLevel(), std::pair(true, false));
    for (const auto& line : LogCapture::Instance().Lines()) EXPECT_EQ(line.level, static_cast<uint32_t>(kLogWarning));

    EXPECT_EQ(set_loglevel(kLogTrace), AC_OK);
    EXPECT_EQ(logAtEachLevel(), std::pair(false, true));
    for (const auto& line : LogCapture::Instance().Lines()) EXPECT_EQ(line.level, static_cast<uint32_t>(kLogTrace));

    EXPECT_EQ(set_loglevel(kLogTrace | kLogWarning), AC_OK);
    EXPECT_EQ(logAtEachLevel(), std::pair(true, true));

    EXPECT_EQ(set_loglevel(0), AC_OK);
    LogCapture::Instance().Clear();
    EXPECT_EQ(logAtEachLevel(), std::pair(false, false));
    EXPECT_EQ(set_config(0x1F, 1, 2), AC_OK);
    EXPECT_EQ(engine_stop(), AC_OK);
    EXPECT_TRUE(LogCapture::Instance().Lines().empty());

    // A stopped engine keeps the mask it had.
    EXPECT_EQ(set_loglevel(0xF), AC_E_NOT_STARTED);
    EXPECT_EQ(ZorvLogger::Instance().Level(), 0u);
}

}  // namespace
}  // namespace zorv

// The host calls app_ctl from many threads while its control thread stores
// items and imports rulesets. Nothing may crash or deadlock, and every answer
// must be one of the statuses app_ctl can give.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "EngineTestFixture.h"

namespace zorv {
namespace {

using test::LogCapture;
using test::PluginEvent;

class ZorvConcurrency : public test::EngineFixture {};

TEST_F(ZorvConcurrency, EventThreadsAndTheControlThreadShareTheEngine) {
    // Logging every line of every thread would only measure the capture.
    ZorvLogger::Instance().SetLevel(AC_LOG_ERROR);
    std::filesystem::create_directories(m_dir / "files");
    for (int i = 0; i < 8; ++i) test::WriteFile(m_dir / "files" / ("f" + std::to_string(i) + ".exe"), "MZ");
    AddItem(0x01, 4096, AC_SOURCE_AGENT_RULES, 1, "f0.exe", (m_dir / "files").string());
    AddRule("trustType, paths", "4, '" + (m_dir / "files" / "f7.exe").string() + "'");
    Restart();
    ZorvLogger::Instance().SetLevel(AC_LOG_ERROR);
    AppControlConfig::Instance().SetLockdown(true);

    constexpr uint32_t kOps[] = {AC_OP_PROCESS_CREATE, AC_OP_CACHE_CHECK, AC_OP_CHANGE_32,  AC_OP_SECTION_MAP,
                                 AC_OP_DELETE,         AC_OP_RENAME,      AC_OP_CREATE_PRE, 5};
    std::atomic<bool> stop{false};
    std::atomic<int> invalid{0};
    std::atomic<int> answered{0};
    auto eventThread = [&](int seed) {
        int n = seed;
        while (!stop.load()) {
            PluginEvent event;
            event.type = kOps[n % 8];
            event.mode = 4;
            event.pid = 1000 + static_cast<uint64_t>(n % 5);
            event.name = test::PathText(m_dir / "files" / ("f" + std::to_string(n % 8) + ".exe"));
            event.oldName = test::PathText(m_dir / "files" / "f1.exe");
            event.processName = n % 3 == 0 ? u"c:\\windows\\system32\\msiexec.exe" : u"c:\\windows\\explorer.exe";
            event.digestFill = static_cast<uint8_t>(1 + n % 4);
            AppCtlResult result{};
            AppCtlEvent record = event.Record();
            const uint32_t status = app_ctl(nullptr, &record, &result);
            const bool validStatus = status == AC_OK || status == AC_BLOCKED || status == AC_E_FAILED;
            const bool validAction =
                result.action == 0 || (result.action >= AC_DECISION_IGNORED && result.action <= AC_DECISION_BLOCK);
            if (!validStatus || !validAction || (status == AC_BLOCKED) != (result.action == AC_DECISION_BLOCK))
                ++invalid;
            ++answered;
            n += 7;
        }
    };
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) threads.emplace_back(eventThread, t);

    // The control thread: items, buffered and direct, and rulesets that clear the cache.
    const std::u16string fileName = u"x.exe";
    const std::u16string path = u"c:\\control";
    const std::u16string fullPath = u"c:\\control\\x.exe";
    const std::u16string ruleset = u"control";
    for (int i = 0; i < 60; ++i) {
        InventoryItemRecord item{};
        item.sha256[0] = static_cast<uint8_t>(i);
        item.source = AC_SOURCE_SCANNED;
        item.fileName = test::Host(fileName);
        item.path = test::Host(path);
        item.fullPath = test::Host(fullPath);
        item.ruleset = test::Host(ruleset);
        item.size = 10;
        item.isAuthorized = 1;
        EXPECT_EQ(store_item(&item, static_cast<uint8_t>(i % 2)), AC_OK);
        if (i % 10 == 0) {
            const std::u16string json = u"{\"rules\":[{\"fileName\":\"r.exe\",\"sha256\":\"" +
                                        std::u16string(64, u'0' + static_cast<char16_t>(i % 10)) +
                                        u"\",\"size\":10,\"action\":\"allow\"}]}";
            const std::u16string name = u"executionRules";
            EXPECT_EQ(set_ruleset_buffer(0, test::Host(json), test::Host(name)), AC_OK);
        }
    }
    flush_db_buffer();
    while (answered.load() < 400) std::this_thread::yield();
    stop = true;
    for (auto& thread : threads) thread.join();

    EXPECT_EQ(invalid.load(), 0);
    EXPECT_GE(ItemCount("fileName = 'x.exe'"), 30);
}

}  // namespace
}  // namespace zorv

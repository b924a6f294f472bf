// engine_stop while the host's threads are still calling: the engine must not
// be freed under a call in flight, and every call that begins after the stop
// answers AC_E_NOT_STARTED.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "EngineTestFixture.h"

namespace zorv {
namespace {

using test::PluginEvent;

class EngineStop : public test::EngineFixture {};

TEST_F(EngineStop, WaitsForCallsInFlightAndTurnsLaterOnesAway) {
    AddItem(0xAA, 0, AC_SOURCE_EXECUTION_RULES, 1, "a.exe", "c:\\apps");
    ZorvLogger::Instance().SetLevel(AC_LOG_ERROR);
    const EngineStartParams params = test::StartParams(&m_dbPath, AC_LOG_ERROR);

    constexpr int kThreads = 4, kStops = 30;
    // Odd while the engine is stopped; raised after each stop and before each start.
    std::atomic<int> phase{0};
    std::atomic<bool> done{false};
    std::atomic<int> unexpected{0}, afterStopNotRefused{0}, calls{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            PluginEvent start;
            start.name = u"c:\\apps\\a.exe";
            start.digestFill = 0xAA;
            start.user = u"user" + test::U16(std::to_string(t));
            PluginEvent check = start;
            check.type = AC_OP_CACHE_CHECK;
            AppCtlEvent records[2] = {start.Record(), check.Record()};
            std::vector<char> buffer(1 << 16);
            for (uint64_t n = 0; !done.load(); ++n) {
                const int before = phase.load();
                uint32_t status = 0;
                if (t == 0 && n % 4 == 0) {
                    uint32_t size = static_cast<uint32_t>(buffer.size());
                    status = get_metrics_mem(buffer.data(), &size);
                    if (status != AC_OK && status != AC_E_NOT_STARTED) ++unexpected;
                } else {
                    AppCtlResult result{};
                    status = app_ctl(nullptr, &records[n % 2], &result);
                    if (status != AC_OK && status != AC_E_NOT_STARTED) ++unexpected;
                }
                // Began after a stop had returned, and no start came before it ended.
                if (before % 2 == 1 && phase.load() == before && status != AC_E_NOT_STARTED) ++afterStopNotRefused;
                ++calls;
            }
        });
    }
    for (int round = 0; round < kStops; ++round) {
        const int before = calls.load();
        while (calls.load() < before + 200) std::this_thread::yield();
        ASSERT_EQ(engine_stop(), AC_OK);
        ++phase;
        const int after = calls.load();
        while (calls.load() < after + 50) std::this_thread::yield();
        ++phase;
        ASSERT_EQ(engine_start(&params), AC_OK);
    }
    done = true;
    for (auto& thread : threads) thread.join();
    ZorvLogger::Instance().SetLevel(0xF);  // the logger outlives the test; later suites read every level
    EXPECT_EQ(unexpected.load(), 0);
    EXPECT_EQ(afterStopNotRefused.load(), 0);
}

}  // namespace
}  // namespace zorv

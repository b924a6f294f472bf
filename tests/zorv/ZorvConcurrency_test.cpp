// The host calls app_ctl from many threads while its control thread imports
// rulesets and reads metrics. Every answer given under that load
// must be the one the same event gets when nothing else runs.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <future>
#include <thread>
#include <utility>
#include <vector>

#include "DalTestPeer.h"
#include "EngineTestFixture.h"

namespace zorv {
namespace {

using test::PluginEvent;
using Answer = std::pair<uint32_t, uint32_t>;  // (status, action)

class ZorvConcurrency : public test::EngineFixture {
protected:
    // Events whose verdicts depend only on the seeded store: no cache checks
    // (imports clear the cache), nothing that learns or forgets inventory.
    std::vector<PluginEvent> Mix() {
        auto event = [&](uint32_t type, const std::string& file, uint8_t digest, uint64_t pid) {
            PluginEvent e;
            e.type = type;
            e.name = test::PathText(m_dir / "files" / file);
            e.digestFill = digest;
            e.pid = pid;
            return e;
        };
        std::vector<PluginEvent> mix = {
            event(AC_OP_PROCESS_CREATE, "f0.exe", 0x01, 1),  // inventory allow
            event(AC_OP_PROCESS_CREATE, "f1.exe", 0x02, 2),  // inventory block
            event(AC_OP_PROCESS_CREATE, "f2.exe", 0x03, 3),  // unknown under lockdown
            event(AC_OP_PROCESS_CREATE, "f7.exe", 0x01, 4),  // blocked by a trust rule on the target
            event(AC_OP_SECTION_MAP, "f0.exe", 0x01, 5),     // a mapping of an allowed file
            event(AC_OP_CHANGE_32, "f3.exe", 0x02, 6),       // drift of a blocked file
            event(5, "f0.exe", 0x01, 7),                     // an unknown operation code
            event(AC_OP_CREATE_POST, "f4.exe", 0x04, 8),     // an operation the engine ignores
        };
        mix[4].mode = 4;
        mix.push_back(event(AC_OP_PROCESS_CREATE, "f5.exe", 0x01, 9));
        mix.back().isExec = 0;  // not executable: cannot be judged
        return mix;
    }
    static Answer Ask(PluginEvent& event) {
        AppCtlEvent record = event.Record();
        AppCtlResult result{};
        const uint32_t status = app_ctl(nullptr, &record, &result);
        return {status, result.action};
    }
};

TEST_F(ZorvConcurrency, EveryAnswerUnderLoadEqualsItsSingleThreadedReplay) {
    std::filesystem::create_directories(m_dir / "files");
    for (int i = 0; i < 8; ++i) test::WriteFile(m_dir / "files" / ("f" + std::to_string(i) + ".exe"), "MZ");
    const std::string dir = (m_dir / "files").string();
    AddItem(0x01, 4096, AC_SOURCE_AGENT_RULES, 1, "f0.exe", dir);
    AddItem(0x02, 4096, AC_SOURCE_AGENT_RULES, 0, "f1.exe", dir);
    AddRule("trustType, paths", "4, '" + (m_dir / "files" / "f7.exe").string() + "'");
    Restart();
    ZorvLogger::Instance().SetLevel(AC_LOG_ERROR);  // logging every line would only measure the capture
    AppControlConfig::Instance().SetLockdown(true);

    std::vector<PluginEvent> mix = Mix();
    std::vector<Answer> replay;
    for (auto& event : mix) replay.push_back(Ask(event));
    for (size_t i = 0; i < mix.size(); ++i) EXPECT_EQ(Ask(mix[i]), replay[i]) << "the replay is not stable: " << i;
    for (uint32_t action : {AC_DECISION_IGNORED, AC_DECISION_ERROR, AC_DECISION_ALLOW, AC_DECISION_BLOCK}) {
        EXPECT_TRUE(std::count_if(replay.begin(), replay.end(), [&](auto& a) { return a.second == action; }))
            << "the mix never gets action " << action;
    }

    // Each event thread runs its rounds and goes on until the control thread has imported enough times.
    constexpr int kThreads = 4, kRounds = 20, kImports = 20;
    std::atomic<int> running{kThreads}, mismatches{0}, imports{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            std::vector<PluginEvent> events = Mix();  // a record points into its event: one set per thread
            for (size_t n = 0; n < kRounds * events.size() || imports.load() < kImports; ++n) {
                const size_t i = (n * (2 * t + 1) + t) % events.size();
                if (Ask(events[i]) != replay[i]) ++mismatches;
            }
            --running;
        });
    }
    // Another program's writer beside the engine, taking the write lock for a
    // while and letting go: lookups read beside it, the engine's writes wait.
    std::thread foreign([&] {
        auto probe = Probe();
        while (running.load() > 0) {
            probe.Exec("BEGIN IMMEDIATE;");
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
            probe.Exec("ROLLBACK;");
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    });
    // The control thread: rulesets for other files (each import clears the
    // cache and swaps the inventory table), trust rules for other processes
    // (each swaps the in-memory rules), flushes and metrics documents.
    const std::u16string rulesetName = u"executionRules";
    const std::u16string trustName = u"trustrules_other";
    for (int i = 0; running.load() > 0; ++i) {
        if (i % 3 == 0) {
            const std::u16string trust = u"{\"Trustrules\":[{\"processName\":\"c:\\\\other" +
                                         std::u16string(1, static_cast<char16_t>(u'0' + i % 10)) +
                                         u"\\\\*.exe\",\"trustType\":4,\"paths\":\"c:\\\\other\\\\*\"}]}";
            EXPECT_EQ(set_ruleset_buffer(1, test::Host(trust), test::Host(trustName)), AC_OK);
        }
        flush_db_buffer();
        const std::u16string json = u"{\"rules\":[{\"fileName\":\"r.exe\",\"sha256\":\"" +
                                    std::u16string(64, static_cast<char16_t>(u'a' + i % 6)) +
                                    u"\",\"size\":10,\"action\":\"allow\"}]}";
        EXPECT_EQ(set_ruleset_buffer(0, test::Host(json), test::Host(rulesetName)), AC_OK);
        ++imports;
        uint32_t size = 0;
        EXPECT_EQ(get_metrics_mem(nullptr, &size), AC_E_BUFFER_TOO_SMALL);
        std::vector<char> buffer(size + 4096);
        size = static_cast<uint32_t>(buffer.size());
        EXPECT_EQ(get_metrics_mem(buffer.data(), &size), AC_OK);
    }
    for (auto& thread : threads) thread.join();
    foreign.join();
    EXPECT_EQ(mismatches.load(), 0);
    for (size_t i = 0; i < mix.size(); ++i) EXPECT_EQ(Ask(mix[i]), replay[i]) << "changed after the load: " << i;
}

// Every read a decision makes (the inventory, the trust rules, the settings of
// time-stamp mode) comes from the read connections and memory: with the
// engine's writer held, as a long import holds it, and another program holding
// the write lock, each event is still answered, as it is when nothing writes.
TEST_F(ZorvConcurrency, DecisionsAreAnsweredWhileTheWriterIsHeld) {
    std::filesystem::create_directories(m_dir / "files");
    for (int i = 0; i < 8; ++i) test::WriteFile(m_dir / "files" / ("f" + std::to_string(i) + ".exe"), "MZ");
    test::WriteFile(m_dir / "files" / "page.html", "<html>");
    const std::string dir = (m_dir / "files").string();
    AddItem(0x01, 4096, AC_SOURCE_AGENT_RULES, 1, "f0.exe", dir);
    AddItem(0x02, 4096, AC_SOURCE_AGENT_RULES, 0, "f1.exe", dir);
    AddRule("trustType, paths", "4, '" + (m_dir / "files" / "f7.exe").string() + "'");
    // HTML mapped by a browser is judged in time-stamp mode, which reads two settings.
    Probe().Exec("UPDATE AppControlState SET settingValue = '0' WHERE settingName = 'enableHTML';"
                 "UPDATE AppControlState SET settingValue = '1' WHERE settingName = 'upgradetime';");
    Restart();
    ZorvLogger::Instance().SetLevel(AC_LOG_ERROR);
    AppControlConfig::Instance().SetLockdown(true);

    std::vector<PluginEvent> mix = Mix();
    PluginEvent page;
    page.type = AC_OP_SECTION_MAP;
    page.mode = 4;
    page.processName = u"c:\\program files\\google\\chrome\\application\\chrome.exe";
    page.name = test::PathText(m_dir / "files" / "page.html");
    page.digestFill = 0x05;
    mix.push_back(page);
    std::vector<Answer> replay;
    for (auto& event : mix) replay.push_back(Ask(event));

    auto foreign = Probe();
    ASSERT_TRUE(foreign.Exec("BEGIN EXCLUSIVE;"));
    std::unique_lock<std::mutex> writer = ZorvDALTestPeer::HoldDatabaseLock(ZorvDAL::Instance());
    auto answers = std::async(std::launch::async, [&] {
        std::vector<Answer> given;
        for (auto& event : mix) given.push_back(Ask(event));
        return given;
    });
    const bool answered = answers.wait_for(std::chrono::seconds(20)) == std::future_status::ready;
    writer.unlock();  // a decision that waits for the writer ends now: the test fails instead of hanging
    foreign.Exec("ROLLBACK;");
    EXPECT_TRUE(answered) << "a decision waited for the writer";
    EXPECT_EQ(answers.get(), replay);
}

// A start answered from the old rules while an import runs must not be cached
// once the new rules are in force: the cache would keep allowing a target the
// new ruleset does not allow. The import clears the cache before it parses, so
// the stale entry comes from a start that looked up before the commit and
// added after the clear.
TEST_F(ZorvConcurrency, NoAllowFromReplacedRulesSurvivesTheImport) {
    const std::u16string rulesetName = u"executionRules";
    const auto ruleset = [](char16_t digit) {
        return u"{\"rules\":[{\"fileName\":\"t.exe\",\"sha256\":\"" + std::u16string(64, digit) +
               u"\",\"size\":0,\"action\":\"allow\"}]}";
    };
    const std::u16string allowsTarget = ruleset(u'a'), allowsOther = ruleset(u'b');
    ZorvLogger::Instance().SetLevel(AC_LOG_ERROR);
    AppControlConfig::Instance().SetLockdown(true);

    PluginEvent start;
    start.name = u"c:\\apps\\t.exe";
    start.digestFill = 0xAA;
    PluginEvent check = start;
    check.type = AC_OP_CACHE_CHECK;

    constexpr int kTries = 10;
    int stale = 0;
    for (int attempt = 0; attempt < kTries; ++attempt) {
        ASSERT_EQ(set_ruleset_buffer(0, test::Host(allowsTarget), test::Host(rulesetName)), AC_OK);
        ASSERT_EQ(Ask(start).second, AC_DECISION_ALLOW);
        std::atomic<bool> stop{false};
        std::atomic<int> allowed{0};
        std::thread starter([&] {
            PluginEvent own = start;
            while (!stop.load()) {
                if (Ask(own).second == AC_DECISION_ALLOW) ++allowed;
            }
        });
        while (allowed.load() < 3) std::this_thread::yield();
        EXPECT_EQ(set_ruleset_buffer(0, test::Host(allowsOther), test::Host(rulesetName)), AC_OK);
        stop = true;
        starter.join();
        EXPECT_EQ(Ask(start).second, AC_DECISION_BLOCK) << "the new rules do not allow the target";
        if (Ask(check).second == AC_DECISION_ALLOW) ++stale;
    }
    EXPECT_EQ(stale, 0) << "of " << kTries << " imports";
    ZorvLogger::Instance().SetLevel(0xF);
}

// The engine's readers keep their snapshot from one lookup to the next. A
// start that begins after store_item has returned must answer from what it
// stored, on every thread; none that overlaps no store may answer from before.
// Each round stores the one item that allows the program of that round.
TEST_F(ZorvConcurrency, EveryStartAfterAStoreReturnsAnswersFromIt) {
    ZorvLogger::Instance().SetLevel(AC_LOG_ERROR);
    AppControlConfig::Instance().SetLockdown(true);
    std::atomic<int> version{0};  // the last round whose store has returned
    std::atomic<bool> storing{false};
    std::atomic<bool> stop{false};
    std::atomic<int> judged{0}, stale{0};
    std::vector<std::thread> starters;
    for (int t = 0; t < 3; ++t) {
        starters.emplace_back([&, t] {
            PluginEvent start;
            start.name = u"c:\\apps\\t.exe";
            uint64_t pid = 1000 + 100000 * t;
            while (!stop.load()) {
                const bool during = storing.load();
                const int before = version.load();
                start.digestFill = static_cast<uint8_t>(before);
                start.pid = ++pid;
                const uint32_t action = Ask(start).second;
                if (during || before == 0 || storing.load() || version.load() != before) continue;
                ++judged;
                if (action != AC_DECISION_ALLOW) ++stale;
            }
        });
    }
    const std::u16string name = u"t.exe", path = u"c:\\apps", full = u"c:\\apps\\t.exe", ruleset = u"r";
    for (int round = 1; round <= 100; ++round) {
        InventoryItemRecord item{};
        std::fill(std::begin(item.sha256), std::end(item.sha256), static_cast<uint8_t>(round));
        item.source = AC_SOURCE_SCANNED;
        item.isAuthorized = 1;
        item.size = 4096;
        item.fileName = test::Host(name);
        item.path = test::Host(path);
        item.fullPath = test::Host(full);
        item.ruleset = test::Host(ruleset);
        storing = true;
        ASSERT_EQ(store_item(&item, 0), AC_OK);
        version = round;
        storing = false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    stop = true;
    for (auto& starter : starters) starter.join();
    EXPECT_GT(judged.load(), 100);
    EXPECT_EQ(stale.load(), 0) << "of " << judged.load() << " starts";
    ZorvLogger::Instance().SetLevel(0xF);
}

// While lookups never pause, the write-ahead log must still start over after
// each import's checkpoint; a reader left on a mark of the old log would make
// every import append to it instead, and the file would grow without end.
TEST_F(ZorvConcurrency, TheLogStartsOverBetweenImportsWhileLookupsRun) {
    const auto ruleset = [](int round) {
        std::u16string text = u"{\"rules\":[";
        for (int i = 0; i < 300; ++i) {
            char digest[65];
            std::snprintf(digest, sizeof digest, "%08x%056x", round, i);
            text += (i ? u"," : u"") + std::u16string(u"{\"fileName\":\"f.exe\",\"sha256\":\"") +
                    test::U16(digest) + u"\",\"size\":1,\"action\":\"allow\"}";
        }
        return text + u"]}";
    };
    ZorvLogger::Instance().SetLevel(AC_LOG_ERROR);
    std::atomic<bool> stop{false};
    std::vector<std::thread> lookups;
    for (int t = 0; t < 2; ++t) {
        lookups.emplace_back([&, t] {
            PluginEvent start;
            start.name = u"c:\\apps\\f.exe";
            start.digestFill = 0x5A;
            start.pid = 2000 + t;
            while (!stop.load()) Ask(start);
        });
    }
    const auto logSize = [&] { return std::filesystem::file_size(m_dir / "ac.db-wal"); };
    uintmax_t first = 0, largest = 0;
    for (int round = 1; round <= 20; ++round) {
        ASSERT_EQ(set_ruleset_buffer(0, test::Host(ruleset(round)), test::Host(u"executionRules")), AC_OK);
        if (round == 1) first = logSize();
        largest = std::max(largest, logSize());
    }
    stop = true;
    for (auto& thread : lookups) thread.join();
    EXPECT_LE(largest, 3 * first) << "log after the first import: " << first << " bytes";
    ZorvLogger::Instance().SetLevel(0xF);
}

// Lookups read the store's pages through one mapping that every read
// connection shares. While other threads hold pages of it, it must follow
// the file as imports grow it, as a purge's vacuum shrinks it and when a
// purge puts a new file in its place: an answer from a page of the old
// file, or of a size that is no more, would be wrong or would crash.
TEST_F(ZorvConcurrency, LookupsStayRightWhileTheStoreGrowsShrinksAndIsReplaced) {
    const auto digest = [](int round, int rule) {
        char text[65];
        std::snprintf(text, sizeof text, "%08x%08x%048x", round, rule, 0x5A);
        return std::string(text);
    };
    const auto ruleset = [&](int round) {
        std::string text = "{\"rules\":[";
        for (int i = 0; i < 1000 * round; ++i) {
            text += (i ? "," : "") + std::string("{\"fileName\":\"f.exe\",\"sha256\":\"") + digest(round, i) +
                    "\",\"size\":1,\"action\":\"allow\"}";
        }
        return test::U16(text + "]}");
    };
    ZorvLogger::Instance().SetLevel(AC_LOG_ERROR);
    AppControlConfig::Instance().SetLockdown(true);
    // The last round imported; negative once it has been purged.
    std::atomic<int> state{0};
    std::atomic<bool> changing{false}, stop{false};
    std::atomic<int> judged{0}, wrong{0};
    std::vector<std::thread> lookups;
    for (int t = 0; t < 3; ++t) {
        lookups.emplace_back([&, t] {
            PluginEvent start;
            start.name = u"c:\\apps\\f.exe";
            start.size = 1;
            std::array<uint8_t, 32> sha256{};
            for (unsigned n = 0; !stop.load(); ++n) {
                const bool during = changing.load();
                const int seen = state.load();
                const int round = seen < 0 ? -seen : seen;
                if (round == 0) continue;
                // The bytes of digest(round, rule).
                const uint32_t rule = (n * 7919u + t * 104729u) % (1000u * round);
                sha256.fill(0);
                for (int i = 0; i < 4; ++i) {
                    sha256[i] = static_cast<uint8_t>(static_cast<uint32_t>(round) >> (24 - 8 * i));
                    sha256[4 + i] = static_cast<uint8_t>(rule >> (24 - 8 * i));
                }
                sha256[31] = 0x5A;
                start.pid = 5000 + t * 100000 + n;
                AppCtlEvent record = start.Record();
                record.fileSha256 = sha256.data();
                AppCtlResult result{};
                app_ctl(nullptr, &record, &result);
                if (during || changing.load() || state.load() != seen) continue;
                ++judged;
                if (result.action != (seen > 0 ? AC_DECISION_ALLOW : AC_DECISION_BLOCK)) ++wrong;
            }
        });
    }
    const auto change = [&](int next, const auto& step) {
        changing = true;
        step();
        state = next;
        changing = false;
        std::this_thread::sleep_for(std::chrono::milliseconds(30));
    };
    for (int round = 1; round <= 8; ++round) {
        change(round, [&] {
            ASSERT_EQ(set_ruleset_buffer(0, test::Host(ruleset(round)), test::Host(u"executionRules")), AC_OK);
        });
        if (round == 4) change(-round, [&] { EXPECT_EQ(purge_db(AC_SOURCE_EXECUTION_RULES), AC_OK); });
    }
    change(-8, [&] { EXPECT_EQ(purge_db(0), AC_OK); });
    stop = true;
    for (auto& thread : lookups) thread.join();
    EXPECT_GT(judged.load(), 100);
    EXPECT_EQ(wrong.load(), 0) << "of " << judged.load() << " lookups";
    ZorvLogger::Instance().SetLevel(0xF);
}

}  // namespace
}  // namespace zorv

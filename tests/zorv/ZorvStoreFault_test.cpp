// A rule store that cannot answer must never open the door: an execution
// decision that the store could not make is decision 8 (AC_E_FAILED) for the
// host's own failure policy, never "not in the inventory", which log-only and
// waiting-for-manifest let through. The damage is done as a disk does it:
// pages of the closed file overwritten, the first page left whole.
#include <gtest/gtest.h>

#include <cjson/cJSON.h>

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "EngineTestFixture.h"
#include "ZorvDataAccessLayer.h"

namespace zorv {
namespace {

using test::PluginEvent;

constexpr char16_t kUnhealthy[] = u"The rule store cannot answer";

class StoreFault : public test::EngineFixture {
protected:
    void SetUp() override {
        EngineFixture::SetUp();
        // A store that has had its manifest: lockdown is enforced, not waiting.
        Probe().Exec("UPDATE AppControlState SET settingValue = '12.0.193' WHERE settingName = 'agentVersion'");
        AddItem(0xAA, 0, AC_SOURCE_EXECUTION_RULES, 1, "known.exe", "c:\\apps");
    }

    // Overwrites the root page of every b-tree of `table` (its rows and its
    // indexes) in the closed file: each search of them starts there.
    void DamageTable(const std::string& table) {
        std::vector<long long> pages;
        long long pageSize = 0;
        {
            test::SqliteProbe probe = Probe();
            pageSize = std::stoll(probe.Scalar("PRAGMA page_size"));
            for (const auto& row : probe.Rows("SELECT rootpage FROM sqlite_master WHERE tbl_name = '" + table +
                                              "' AND rootpage > 1")) {
                pages.push_back(std::stoll(row[0].value_or("0")));
            }
        }
        ASSERT_FALSE(pages.empty()) << table;
        engine_stop();
        const auto file = m_dir / "ac.db";
        std::string bytes = test::ReadFile(file);
        for (const long long page : pages) {
            const size_t at = static_cast<size_t>((page - 1) * pageSize);
            ASSERT_LE(at + static_cast<size_t>(pageSize), bytes.size());
            bytes.replace(at, static_cast<size_t>(pageSize), static_cast<size_t>(pageSize), '\xA5');
        }
        test::WriteFile(file, bytes);
        const EngineStartParams params = test::StartParams(&m_dbPath);
        ASSERT_EQ(engine_start(&params), AC_OK) << "a store damaged past its first page still starts";
        LogCapture().Clear();
    }

    static test::LogCapture& LogCapture() { return test::LogCapture::Instance(); }

    static size_t ErrorsStartingWith(std::u16string_view prefix) {
        size_t count = 0;
        for (const auto& line : LogCapture().Lines()) {
            if (line.level == AC_LOG_ERROR && line.message.starts_with(prefix)) ++count;
        }
        return count;
    }

    // The "dbinfo" member "StoreHealthy" of the metrics document.
    static bool StoreHealthyInMetrics() {
        uint32_t size = 0;
        get_metrics_mem(nullptr, &size);
        std::string text(size, '\0');
        EXPECT_EQ(get_metrics_mem(text.data(), &size), AC_OK);
        std::unique_ptr<cJSON, decltype(&cJSON_Delete)> root(cJSON_Parse(text.c_str()), cJSON_Delete);
        const cJSON* dbinfo = cJSON_GetObjectItem(cJSON_GetObjectItem(root.get(), "metrics"), "dbinfo");
        const cJSON* healthy = cJSON_GetObjectItem(dbinfo, "StoreHealthy");
        EXPECT_TRUE(cJSON_IsBool(healthy)) << text;
        return cJSON_IsTrue(healthy);
    }

    static PluginEvent Start(const std::u16string& name, uint8_t digest, uint32_t type = AC_OP_PROCESS_CREATE) {
        PluginEvent event;
        event.type = type;
        event.name = name;
        event.digestFill = digest;
        if (type == AC_OP_SECTION_MAP) event.mode = 4;  // an executable mapping
        return event;
    }
};

TEST_F(StoreFault, DamagedInventoryFailsEveryExecutionDecisionUntilReplaced) {
    const auto good = m_dir / "good.db";
    engine_stop();
    std::filesystem::copy_file(m_dir / "ac.db", good);
    Restart();
    DamageTable("InventoryItems");
    set_config(AC_CONFIG_LOCKDOWN, 0, 0);
    const uint64_t before = Metric(u"RunErrorStore");

    struct Case {
        const char* what;
        PluginEvent event;
    };
    const Case cases[] = {
        {"known start", Start(u"c:\\apps\\known.exe", 0xAA)},
        {"unknown start", Start(u"c:\\apps\\new.exe", 0xBB)},
        {"known start again", Start(u"c:\\apps\\known.exe", 0xAA)},
        {"unknown mapping", Start(u"c:\\apps\\lib.so", 0xCC, AC_OP_SECTION_MAP)},
    };
    for (const Case& c : cases) {
        uint32_t status = 0;
        const AppCtlResult result = Run(c.event, &status);
        EXPECT_EQ(result.action, AC_DECISION_ERROR) << c.what;
        EXPECT_EQ(status, AC_E_FAILED) << c.what;
    }
    EXPECT_EQ(Metric(u"RunErrorStore") - before, std::size(cases));
    EXPECT_EQ(ErrorsStartingWith(kUnhealthy), 1u) << "once per change of health, not once per event";
    EXPECT_FALSE(StoreHealthyInMetrics());

    // The same with lockdown off: log-only must not let through what it could not look up.
    set_config(0, 0, 0);
    uint32_t status = 0;
    EXPECT_EQ(Run(Start(u"c:\\apps\\new.exe", 0xBB), &status).action, AC_DECISION_ERROR);
    EXPECT_EQ(status, AC_E_FAILED);

    // Replaced: the host swaps the file in and starts again.
    engine_stop();
    test::WriteFile(m_dir / "ac.db", test::ReadFile(good));
    Restart();
    set_config(AC_CONFIG_LOCKDOWN, 0, 0);
    EXPECT_EQ(Run(Start(u"c:\\apps\\known.exe", 0xAA), &status).action, AC_DECISION_ALLOW);
    EXPECT_EQ(status, AC_OK);
    EXPECT_EQ(Run(Start(u"c:\\apps\\new.exe", 0xBB), &status).action, AC_DECISION_BLOCK);
    EXPECT_EQ(status, AC_BLOCKED);
    EXPECT_TRUE(StoreHealthyInMetrics());
}

// Today's damaged AppControlState turned lockdown into "waiting for manifest":
// every unknown program answered AC_OK.
TEST_F(StoreFault, UnreadableSettingsNeverSwitchEnforcementOff) {
    DamageTable("AppControlState");
    AppControlConfig::Instance().SetManifestApplied(true);
    ASSERT_EQ(set_config(AC_CONFIG_LOCKDOWN, 0, 0), AC_OK);
    EXPECT_TRUE(AppControlConfig::Instance().Lockdown());
    EXPECT_TRUE(AppControlConfig::Instance().ManifestApplied()) << "an unreadable version is no upgrade";
    EXPECT_FALSE(Logged(u"Upgrade detected old version  new version 12.0.193 waiting for manifest to be applied"));
    EXPECT_EQ(ErrorsStartingWith(u"Unable to read the stored agent version"), 1u);

    // The file is damaged: nothing more is decided from it until it is replaced.
    uint32_t status = 0;
    for (const uint8_t digest : {0xBB, 0xAA}) {
        const AppCtlResult result = Run(Start(u"c:\\apps\\new.exe", digest), &status);
        EXPECT_EQ(result.action, AC_DECISION_ERROR) << int{digest};
        EXPECT_EQ(status, AC_E_FAILED) << int{digest};
    }
    EXPECT_EQ(Metric(u"ALLOWED_WAITING_FOR_MANIFEST"), 0u);
    EXPECT_FALSE(StoreHealthyInMetrics());
}

TEST_F(StoreFault, StartWithoutSha256IsNoDecision) {
    for (const uint32_t flags : {AC_CONFIG_LOCKDOWN, 0u}) {
        set_config(flags, 0, 0);
        const uint64_t before = Metric(u"RunErrorStore");
        uint32_t status = 0;
        const AppCtlResult result = Run(Start(u"c:\\apps\\known.exe", 0), &status);
        EXPECT_EQ(result.action, AC_DECISION_ERROR) << flags;
        EXPECT_EQ(status, AC_E_FAILED) << flags;
        EXPECT_EQ(Metric(u"RunErrorStore"), before) << "the event was at fault, not the store";
    }
    EXPECT_TRUE(StoreHealthyInMetrics());
}

}  // namespace
}  // namespace zorv

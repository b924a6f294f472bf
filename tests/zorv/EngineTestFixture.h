// A started engine over its own ac.db, and plug-in events built field by
// field, for the tests that drive the decision engine through app_ctl.
#pragma once

#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <string>

#include "SqliteProbe.h"
#include "TestSupport.h"
#include "Zorv.h"
#include "ZorvDataAccessLayer.h"
#include "ZorvEventAbstraction.h"
#include "ZorvLogger.h"
#include "ZorvStats.h"
#include "zorv/zorv.h"

namespace zorv::test {

// One plug-in event; empty texts go out as null pointers, as absent fields do.
struct PluginEvent {
    uint32_t type = AC_OP_PROCESS_CREATE;
    std::u16string name, processName = u"c:\\windows\\explorer.exe", user = u"alice", oldName, cmdLine;
    uint64_t pid = 100, size = 4096, mode = 0, ignoreChange = 0, flags = 0;
    uint8_t isExec = 1, dirty = 1;
    uint8_t digestFill = 0;  // 0: no SHA-256; otherwise 32 bytes of this value
    std::array<uint8_t, 32> digest{};

    AppCtlEvent Record() {
        AppCtlEvent r{};
        r.type = type;
        r.pid = pid;
        r.size = size;
        r.mode = mode;
        r.ignoreChange = ignoreChange;
        r.flags = flags;
        r.isExec = isExec;
        r.dirty = dirty;
        auto text = [](const std::u16string& s) { return s.empty() ? nullptr : Host(s); };
        r.name = text(name);
        r.processName = text(processName);
        r.user = text(user);
        r.oldName = text(oldName);
        r.cmdLine = text(cmdLine);
        if (digestFill != 0) {
            digest.fill(digestFill);
            r.fileSha256 = digest.data();
        }
        return r;
    }
};

// The policy as the library holds it at load; it outlives engine_stop by design.
inline void ResetPolicy() {
    AppControlConfig& config = AppControlConfig::Instance();
    config.SetAutoAuthorizeStartTime(AppControlConfig::kTimeNotKnown);
    config.SetAutoAuthorizeEndTime(AppControlConfig::kTimeNotKnown);
    config.SetMaintenanceMode(false);
    config.SetInventoryExists(false);
    config.SetLockdown(false);
    config.SetRulesetExists(false);
    config.SetAllowlistInventory(false);
    config.SetManifestApplied(true);
    config.SetImportState(0);
    config.SetRebuildState(0);
}

// Routes the log into LogCapture at every level without starting an engine.
inline void CaptureLog() {
    ZorvLogger::Instance().InitLogger(&LogCapture::Callback, 0xF);
    ZorvLogger::Instance().SetLevel(0xF);
    LogCapture::Instance().Clear();
}

class EngineFixture : public ::testing::Test {
protected:
    void SetUp() override {
        ResetPolicy();
        ZorvLogger::Instance().SetLevel(0xF);
        Restart();
    }
    void TearDown() override {
        engine_stop();
        ResetPolicy();
    }

    // The store notes whether any trust rule exists only when it opens.
    void Restart() {
        engine_stop();
        const EngineStartParams params = StartParams(&m_dbPath);
        ASSERT_EQ(engine_start(&params), AC_OK);
        LogCapture::Instance().Clear();
    }

    SqliteProbe Probe() { return SqliteProbe(m_dir / "ac.db"); }

    // An inventory row whose SHA-256 is 32 bytes of `fill`.
    void AddItem(uint8_t fill, uint64_t size, int source, int isAuthorized, const std::string& fileName = "a.exe",
                 const std::string& path = "c:\\apps") {
        std::string hex;
        for (int i = 0; i < 32; ++i) hex += {"0123456789abcdef"[fill >> 4], "0123456789abcdef"[fill & 15]};
        Probe().Exec("INSERT INTO InventoryItems(fileName, path, sha256, size, isAuthorized, source, ruleset) "
                     "VALUES('" + fileName + "', '" + path + "', X'" + hex + "', " + std::to_string(size) + ", " +
                     std::to_string(isAuthorized) + ", " + std::to_string(source) + ", 'r');");
    }
    // A trust rule; call Restart() before the events that should see it.
    void AddRule(const std::string& columns, const std::string& values) {
        Probe().Exec("INSERT INTO TrustRules(" + columns + ") VALUES(" + values + ");");
    }
    // Counted once the items decisions learned are written (beside them, not before they return).
    long long ItemCount(const std::string& where = "1") {
        ZorvDAL::Instance().DrainDecisionWrites();
        return Probe().Count("InventoryItems WHERE " + where);
    }

    // Runs one event through app_ctl; the status lands in `status`.
    AppCtlResult Run(PluginEvent event, uint32_t* status = nullptr) {
        AppCtlEvent record = event.Record();
        AppCtlResult result{};
        const uint32_t answer = app_ctl(nullptr, &record, &result);
        if (status != nullptr) *status = answer;
        return result;
    }

    static uint64_t Metric(std::u16string_view name) { return ZorvStats::Instance().GetMetric(name); }
    static bool Logged(std::u16string_view message) { return LogCapture::Instance().Contains(message); }
    static bool LoggedStartingWith(std::u16string_view prefix) {
        for (const auto& message : LogCapture::Instance().Messages()) {
            if (message.starts_with(prefix)) return true;
        }
        return false;
    }
    static ZorvEngine& Engine() { return *ZorvEngine::GetEngine(); }

    TempDir m_dir;
    std::u16string m_dbPath = PathText(m_dir / "ac.db");
};

}  // namespace zorv::test

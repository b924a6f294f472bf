// The policy the agent sets through set_config, read by the decision code on
// every event and by the rule store while it imports.
//
// Not locked: every field is a single aligned word or byte, written by the
// agent's control thread and read by event threads, which see either the old
// or the new value. The version text is only read after construction.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

namespace zorv {

class AppControlConfig {
public:
    static constexpr uint64_t kTimeNotKnown = ~uint64_t{0};

    // The one instance, alive from library load to unload; engine_stop keeps it.
    static AppControlConfig& Instance();

    uint64_t AutoAuthorizeStartTime() const { return m_autoAuthorizeStartTime.load(kOrder); }
    void SetAutoAuthorizeStartTime(uint64_t ms) { m_autoAuthorizeStartTime.store(ms, kOrder); }
    uint64_t AutoAuthorizeEndTime() const { return m_autoAuthorizeEndTime.load(kOrder); }
    void SetAutoAuthorizeEndTime(uint64_t ms) { m_autoAuthorizeEndTime.store(ms, kOrder); }

    // Maximum inventory item id: get_inventory starts after it at the earliest.
    uint64_t MaxInventoryItemId() const { return m_maxInventoryItemId.load(kOrder); }
    void SetMaxInventoryItemId(uint64_t id) { m_maxInventoryItemId.store(id, kOrder); }
    // Items at or below this id predate the running import.
    uint64_t ImportBoundaryId() const { return m_importBoundaryId.load(kOrder); }
    void SetImportBoundaryId(uint64_t id) { m_importBoundaryId.store(id, kOrder); }

    bool MaintenanceMode() const { return m_maintenanceMode.load(kOrder); }
    void SetMaintenanceMode(bool on) { m_maintenanceMode.store(on, kOrder); }
    bool InventoryExists() const { return m_inventoryExists.load(kOrder); }
    void SetInventoryExists(bool on) { m_inventoryExists.store(on, kOrder); }
    bool Lockdown() const { return m_lockdown.load(kOrder); }
    void SetLockdown(bool on) { m_lockdown.store(on, kOrder); }
    bool RulesetExists() const { return m_rulesetExists.load(kOrder); }
    void SetRulesetExists(bool on) { m_rulesetExists.store(on, kOrder); }
    bool AllowlistInventory() const { return m_allowlistInventory.load(kOrder); }
    void SetAllowlistInventory(bool on) { m_allowlistInventory.store(on, kOrder); }

    uint32_t ImportState() const { return m_importState.load(kOrder); }
    void SetImportState(uint32_t state) { m_importState.store(state, kOrder); }
    uint32_t RebuildState() const { return m_rebuildState.load(kOrder); }
    void SetRebuildState(uint32_t state) { m_rebuildState.store(state, kOrder); }

    // While false, a block decision is reported but not enforced: the engine of
    // a new version waits for the agent's manifest for that version.
    bool ManifestApplied() const { return m_manifestApplied.load(kOrder); }
    void SetManifestApplied(bool on) { m_manifestApplied.store(on, kOrder); }

    const std::u16string& AgentVersion() const { return m_agentVersion; }

private:
    static constexpr std::memory_order kOrder = std::memory_order_relaxed;

    std::atomic<uint64_t> m_autoAuthorizeStartTime{kTimeNotKnown};
    std::atomic<uint64_t> m_autoAuthorizeEndTime{kTimeNotKnown};
    std::atomic<uint64_t> m_maxInventoryItemId{0};
    std::atomic<uint64_t> m_importBoundaryId{0};
    std::atomic<bool> m_maintenanceMode{false};
    std::atomic<bool> m_inventoryExists{false};
    std::atomic<bool> m_lockdown{false};
    std::atomic<bool> m_rulesetExists{false};
    std::atomic<bool> m_allowlistInventory{false};
    std::atomic<uint32_t> m_importState{0};
    std::atomic<uint32_t> m_rebuildState{0};
    std::atomic<bool> m_manifestApplied{true};
    const std::u16string m_agentVersion{u"12.0.193"};
};

}  // namespace zorv

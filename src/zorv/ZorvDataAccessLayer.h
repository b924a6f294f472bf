// ZorvDAL: the one object through which the engine touches ac.db.
//
// Thread-safe. A process-wide instance created on first use; event threads
// and the control thread call it concurrently.
#pragma once

#include <cstdint>
#include <mutex>
#include <string>

#include "zorv/zorv.h"

namespace zorv {

class ZorvDAL {
public:
    static ZorvDAL& Instance();

    ZorvDAL() = default;
    ZorvDAL(const ZorvDAL&) = delete;
    ZorvDAL& operator=(const ZorvDAL&) = delete;

    // Where the database lives; refused (false) while the database is open.
    bool SetDBPath(const std::u16string& path);
    bool IsOpen() const;
    // Opens (creating or migrating) the database and prepares the statements.
    bool InitDB();
    // Flushes the write-behind buffers and closes the database.
    void Shutdown();

    bool ImportRuleset(uint8_t append, const std::u16string& path, const std::u16string& name);
    bool ImportRulesetBuffer(uint8_t append, const std::string& utf8, const std::u16string& name);

    uint64_t StoreItem(const InventoryItemRecord& item);
    uint64_t StoreItemBuffer(const InventoryItemRecord& item);
    uint64_t StoreItemFlush();
    uint64_t StoreTrustRuleFlush();
    uint64_t StoreUserListFlush();

    bool GetItems(uint64_t afterItemId, uint64_t limit, uint32_t source, const std::u16string& payloadPath,
                  const std::u16string& scanUuid);

    bool PurgeDB(uint32_t what);
    bool DeleteDB();

    bool GetAppControlState(const std::u16string& settingName, std::u16string& value);
    bool SetAppControlState(const std::u16string& settingName, const std::u16string& value);

    bool UpdateHitcount(int32_t trustRuleId, int32_t hitcount);

private:
    mutable std::mutex m_initLock;  // guards m_dbPath and opening
    std::u16string m_dbPath;
    bool m_open = false;
};

}  // namespace zorv

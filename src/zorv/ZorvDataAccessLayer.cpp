#include "ZorvDataAccessLayer.h"

namespace zorv {

// The database itself is not built yet. Until it is, every operation that
// would need it answers failure, so no caller mistakes a missing store for an
// empty one. Opening answers success so that engine_start can run end to end.

ZorvDAL& ZorvDAL::Instance() {
    static ZorvDAL dal;
    return dal;
}

bool ZorvDAL::SetDBPath(const std::u16string& path) {
    std::lock_guard<std::mutex> lock(m_initLock);
    if (m_open) return false;
    m_dbPath = path;
    return true;
}

bool ZorvDAL::IsOpen() const {
    std::lock_guard<std::mutex> lock(m_initLock);
    return m_open;
}

bool ZorvDAL::InitDB() { return true; }

void ZorvDAL::Shutdown() {}

bool ZorvDAL::ImportRuleset(uint8_t, const std::u16string&, const std::u16string&) { return false; }
bool ZorvDAL::ImportRulesetBuffer(uint8_t, const std::string&, const std::u16string&) { return false; }
uint64_t ZorvDAL::StoreItem(const InventoryItemRecord&) { return 0; }
uint64_t ZorvDAL::StoreItemBuffer(const InventoryItemRecord&) { return 0; }
uint64_t ZorvDAL::StoreItemFlush() { return 0; }
uint64_t ZorvDAL::StoreTrustRuleFlush() { return 0; }
uint64_t ZorvDAL::StoreUserListFlush() { return 0; }
bool ZorvDAL::GetItems(uint64_t, uint64_t, uint32_t, const std::u16string&, const std::u16string&) { return false; }
bool ZorvDAL::PurgeDB(uint32_t) { return false; }
bool ZorvDAL::DeleteDB() { return false; }
bool ZorvDAL::GetAppControlState(const std::u16string&, std::u16string&) { return false; }
bool ZorvDAL::SetAppControlState(const std::u16string&, const std::u16string&) { return false; }
bool ZorvDAL::UpdateHitcount(int32_t, int32_t) { return false; }

}  // namespace zorv

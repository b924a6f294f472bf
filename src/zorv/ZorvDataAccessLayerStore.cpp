#include "ZorvDataAccessLayer.h"

namespace zorv {

uint64_t ZorvDAL::StoreItem(EngineEvent&) { return 0; }
uint64_t ZorvDAL::StoreItem(const InventoryItemRecord&) { return 0; }
uint64_t ZorvDAL::StoreItemBuffer(EngineEvent&) { return 0; }
uint64_t ZorvDAL::StoreItemBuffer(const InventoryItemRecord&) { return 0; }
uint64_t ZorvDAL::StoreItemFlush() { return 0; }
uint64_t ZorvDAL::StoreTrustRule(const TrustRuleRecord&) { return 0; }
uint64_t ZorvDAL::StoreTrustRuleBuffer(const TrustRuleRecord&) { return 0; }
uint64_t ZorvDAL::StoreTrustRuleFlush() { return 0; }
uint64_t ZorvDAL::StoreUserList(const UserListRecord&) { return 0; }
uint64_t ZorvDAL::StoreUserListBuffer(const UserListRecord&) { return 0; }
uint64_t ZorvDAL::StoreUserListFlush() { return 0; }
bool ZorvDAL::StoreEventItem(EngineEvent&) { return true; }
bool ZorvDAL::UpdatePrelinkItem(EngineEvent&) { return false; }
bool ZorvDAL::DeleteInventoryItems(const EngineEvent&) { return false; }
bool ZorvDAL::GetAppControlState(const std::u16string&, std::u16string&) { return false; }
bool ZorvDAL::SetAppControlState(const std::u16string&, const std::u16string&) { return false; }
bool ZorvDAL::SetAppControlStateValue(const std::u16string&, uint64_t) { return false; }
void ZorvDAL::ConvertInventoryItem(const InventoryItemRecord&, EngineEvent&) {}

}  // namespace zorv

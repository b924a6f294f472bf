#include "ZorvDataAccessLayer.h"

namespace zorv {

bool ZorvDAL::ImportRuleset(uint8_t, const std::u16string&, const std::u16string&) { return false; }
bool ZorvDAL::ImportRulesetBuffer(uint8_t, const std::string&, const std::u16string&) { return false; }
bool ZorvDAL::GetItems(uint64_t, uint64_t, uint32_t, const std::u16string&, const std::u16string&) { return false; }

}  // namespace zorv

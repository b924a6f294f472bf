#include "ZorvDataAccessLayer.h"

namespace zorv {

bool ZorvDAL::IsAllowedInDB(EngineEvent&) { return false; }
bool ZorvDAL::IsFoundInTrustRules(uint32_t, EngineEvent&) { return false; }
bool ZorvDAL::UpdateHitcount(int32_t, int32_t) { return false; }
bool ZorvDAL::MatchEventPathWithRulePath(std::u16string, std::u16string) { return false; }
bool ZorvDAL::WildcardMatch(std::u16string_view, std::u16string_view) { return false; }

}  // namespace zorv

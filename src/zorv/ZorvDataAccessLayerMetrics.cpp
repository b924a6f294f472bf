#include "ZorvDataAccessLayer.h"

namespace zorv {

void ZorvDAL::PrepareMetrics(cJSON*) {}
bool ZorvDAL::PrepareMetricsDBInfo(cJSON*) { return false; }
void ZorvDAL::UserGroupTrustRulesCount(cJSON*) {}
bool ZorvDAL::PrepareMetricsDBInfoRulesets(cJSON*) { return false; }
void ZorvDAL::PrepareMetricsDBSize(cJSON*) {}
int32_t ZorvDAL::TrustRulesCount() { return 0; }
int32_t ZorvDAL::MD5RulesCount(bool) { return 0; }
int32_t ZorvDAL::SHA1RulesCount(bool) { return 0; }
bool ZorvDAL::GetTrustRuleIDs(std::vector<int32_t>&) { return false; }

}  // namespace zorv

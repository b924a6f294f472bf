// Reaches the rule store's inner operations the way its own callers do.
#pragma once

#include <memory>
#include <mutex>

#include "ZorvDataAccessLayer.h"

namespace zorv {

struct ZorvDALTestPeer {
    // Stands in for an operation that holds its own references while it works.
    static std::shared_ptr<sqlite3_stmt> GetAcStateStmt(ZorvDAL& dal) { return dal.m_pGetAcStateStmt; }
    static std::shared_ptr<sqlite3> Connection(ZorvDAL& dal) { return dal.m_DB; }
    static void Finalize(ZorvDAL& dal) { dal.Finalize(); }

    // The lookup statement and the in-memory rules, asked the same question.
    static bool FoundByStatement(ZorvDAL& dal, uint32_t trustType, EngineEvent& event) {
        std::lock_guard<std::mutex> lock(dal.m_dbLock);
        return dal.IsFoundInTrustRulesInternal(trustType, event);
    }
    static bool FoundInMemory(ZorvDAL& dal, uint32_t trustType, EngineEvent& event) {
        return dal.IsFoundInTrustRuleSet(trustType, event);
    }
    // What the store does after it changes the rules itself.
    static void ReloadTrustRules(ZorvDAL& dal) {
        std::lock_guard<std::mutex> lock(dal.m_dbLock);
        dal.ReloadTrustRulesInternal();
    }
};

}  // namespace zorv

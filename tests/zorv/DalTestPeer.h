// Reaches into ZorvDAL where a test stands in for an operation: holding its
// own references while it works, or tuning the open connection.
#pragma once

#include <sqlite3.h>

#include <memory>
#include <mutex>

#include "ZorvDataAccessLayer.h"

namespace zorv {

struct ZorvDALTestPeer {
    static std::shared_ptr<sqlite3_stmt> GetAcStateStmt(ZorvDAL& dal) { return dal.m_pGetAcStateStmt; }
    static std::shared_ptr<sqlite3> Connection(ZorvDAL& dal) { return dal.m_DB; }
    static void Finalize(ZorvDAL& dal) { dal.Finalize(); }
    // The writer busy, as a long import or a flush waiting on a foreign lock holds it.
    static std::unique_lock<std::mutex> HoldDatabaseLock(ZorvDAL& dal) {
        return std::unique_lock<std::mutex>(dal.m_dbLock);
    }
    static size_t PendingRows(ZorvDAL& dal) {
        std::lock_guard<std::mutex> lock(dal.m_dbLock);
        return dal.PendingRowsInternal();
    }

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

// Reaches into ZorvDAL where a test stands in for an operation: holding its
// own references while it works, or tuning the open connection.
#pragma once

#include <sqlite3.h>

#include <memory>

#include "ZorvDataAccessLayer.h"

namespace zorv {

struct ZorvDALTestPeer {
    static std::shared_ptr<sqlite3_stmt> GetAcStateStmt(ZorvDAL& dal) { return dal.m_pGetAcStateStmt; }
    static std::shared_ptr<sqlite3> Connection(ZorvDAL& dal) { return dal.m_DB; }
    static void Finalize(ZorvDAL& dal) { dal.Finalize(); }
    static size_t PendingRows(ZorvDAL& dal) {
        std::lock_guard<std::mutex> lock(dal.m_dbLock);
        return dal.PendingRowsInternal();
    }
};

}  // namespace zorv

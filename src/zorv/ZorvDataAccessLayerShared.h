// Pieces shared by the files that implement ZorvDAL, and by nothing else.
#pragma once

#include <sqlite3.h>

#include <mutex>

#include "ZorvLogger.h"

namespace zorv::dal {

inline constexpr char16_t kLogSource[] = u"src/zorv/ZorvDataAccessLayer";

// The inventory lookups, prepared on the writer and on every read connection.
inline constexpr char kLookupItemAuthSql[] =
    "SELECT * FROM InventoryItems WHERE(sha256 = :hash) and (size = 0 or size = :size) ORDER BY inventoryItemId "
    "DESC LIMIT 1;";
inline constexpr char kLookupItemAuthRulesetSql[] =
    "SELECT * FROM InventoryItems WHERE(sha256 = :hash) and (size = 0 or size = :size) AND (source = 2 OR source = "
    "1) ORDER BY inventoryItemId DESC LIMIT 1;";
inline constexpr char kLookupItemAlternateSHA1HashSql[] =
    "SELECT * FROM InventoryItems WHERE((LENGTH(sha256) IS NULL) AND(sha1 = :sha1)) ORDER BY inventoryItemId DESC "
    "LIMIT 1;";
inline constexpr char kLookupItemAlternateMD5HashSql[] =
    "SELECT * FROM InventoryItems WHERE((LENGTH(sha256) IS NULL) AND (md5 = :md5 )) ORDER BY inventoryItemId DESC "
    "LIMIT 1;";

// A setting's value, read on the writer and on every read connection.
inline constexpr char kGetAcStateSql[] = "SELECT settingValue FROM AppControlState WHERE (settingName = :setting);";

// The import's inserts into the replacement tables, prepared on first use.
inline constexpr char kInsertItemTempTableSQL[] =
    "INSERT INTO Temp_InventoryItems( md5, sha1, sha256, source, fileName, path, nativePath, size, recordTime, "
    "isAuthorized, ruleset ) VALUES( :md5, :sha1, :sha256, :source, :fileName, :path, :nativePath, :size, "
    ":recordTime, :isAuthorized, :ruleset );";
inline constexpr char kInsertTrustRuleTempTableSQL[] =
    "INSERT INTO Temp_TrustRules( processName, paths, trustType, signerName, productName, companyName, sha256, "
    "issuerCN, issuerC, issuerL, issuerS, issuerO, issuerOU, ruleset, procUser, procGroup, userList ) VALUES( "
    ":processName, :paths, :trustType, :signerName, :productName, :companyName, :sha256, :issuerCN, :issuerC, "
    ":issuerL, :issuerS, :issuerO, :issuerOU, :ruleset, :procUser, :procGroup, :userList );";
inline constexpr char kInsertUserListTempTableSQL[] = "INSERT INTO Temp_UserList( id, user ) VALUES( :id, :user );";

// Failures that belong to one row and that no retry can mend: that row is
// given up, the rest go on. Every other failure is the store's (a full disk,
// an I/O error, a foreign lock, a damaged page) and ends the whole transaction.
inline bool IsRowFault(int rc) {
    switch (rc & 0xFF) {
        case SQLITE_TOOBIG:
        case SQLITE_RANGE:
        case SQLITE_CONSTRAINT:
        case SQLITE_MISMATCH:
            return true;
        default:
            return false;
    }
}

// SQLite rolls a whole transaction back by itself on some failures (a full
// disk while the cache spills, an I/O error, no memory); every statement
// after that would run, and commit, on its own.
inline bool TransactionLost(sqlite3* db) { return sqlite3_get_autocommit(db) != 0; }

// Takes the database lock with the TRACE pair every locked operation logs:
// the first line before waiting, the second just before releasing.
class TracedLock {
public:
    TracedLock(std::mutex& mutex, const char16_t* function, const char16_t* lockLine, const char16_t* unlockLine)
        : m_mutex(mutex), m_function(function), m_unlockLine(unlockLine) {
        ZORV_LOG(kLogTrace, m_function, lockLine);
        m_mutex.lock();
    }
    ~TracedLock() {
        ZORV_LOG(kLogTrace, m_function, m_unlockLine);
        m_mutex.unlock();
    }
    TracedLock(const TracedLock&) = delete;
    TracedLock& operator=(const TracedLock&) = delete;

private:
    std::mutex& m_mutex;
    const char16_t* m_function;
    const char16_t* m_unlockLine;
};

}  // namespace zorv::dal

// ZorvDAL counts: what the store holds, for the metrics document and for the
// store's own decisions (whether the SHA-1 and MD5 columns are worth querying,
// which trust rules exist after an import).
#include <algorithm>
#include <string>

#include "ZorvDataAccessLayer.h"
#include "ZorvDataAccessLayerShared.h"
#include "ZorvLogger.h"
#include "ZorvText.h"
#include "platform/Platform.h"

namespace zorv {

namespace {

using dal::TracedLock;

constexpr char16_t kLogSource[] = u"src/zorv/ZorvDataAccessLayer";

// A NULL column adds nothing: the key is simply absent from the object.
void AddTextColumn(cJSON* object, const char* key, sqlite3_stmt* stmt, int column) {
    const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(stmt, column));
    if (text != nullptr) cJSON_AddStringToObject(object, key, text);
}

void AddIntColumn(cJSON* object, const char* key, sqlite3_stmt* stmt, int column) {
    cJSON_AddNumberToObject(object, key, sqlite3_column_int(stmt, column));
}

// Runs a one-row count; a failing step reads as 0.
int32_t StepCount(sqlite3_stmt* stmt) {
    return sqlite3_step(stmt) == SQLITE_ROW ? sqlite3_column_int(stmt, 0) : 0;
}

struct HashCountTexts {
    const char16_t* function;
    const char16_t* released;
    const char16_t* lockLine;
    const char16_t* found;
    const char16_t* unlockLine;
};

// The MD5 and SHA-1 rule counts. The lock is only waited for, then released at
// once: the count must not start while another store operation runs, but the
// query itself runs unlocked. The import, which already holds the lock, passes
// false.
int32_t CountHashRules(const std::shared_ptr<sqlite3_stmt>& statement, std::mutex& dbLock, bool waitForLock,
                       const HashCountTexts& texts) {
    const std::shared_ptr<sqlite3_stmt> held = statement;
    if (!held) {
        ZORV_LOG(kLogError, texts.function, texts.released);
        return 0;
    }
    ZORV_LOG(kLogTrace, texts.function, texts.lockLine);
    if (waitForLock) {
        dbLock.lock();
        dbLock.unlock();
    }
    int32_t count = 0;
    {
        const StatementUse use(held);
        count = StepCount(use.get());
        ZORV_LOG(kLogTrace, texts.function, texts.found, count);
    }
    ZORV_LOG(kLogTrace, texts.function, texts.unlockLine);
    return count;
}

}  // namespace

void ZorvDAL::PrepareMetrics(cJSON* trustRuleStats) {
    constexpr char16_t kFunction[] = u"ZorvDAL::PrepareMetrics";
    const Statement held = m_pMetricsLookupTrustRuleStmt;
    if (!held) {
        ZORV_LOG(kLogError, kFunction, u"m_pMetricsLookupTrustRuleStmt is released");
        return;
    }
    TracedLock lock(m_dbLock, kFunction, u"Preparing metrics for TrustedRulesets lock",
                    u"Preparing metrics for TrustedRulesets unlock");
    const StatementUse use(held);
    sqlite3_stmt* stmt = use.get();
    while (sqlite3_step(stmt) == SQLITE_ROW) {
        ZORV_LOG(kLogTrace, kFunction, u"Found TrustRule with a hitcount greater than 1");
        cJSON* rule = cJSON_CreateObject();
        if (rule == nullptr) break;
        // Columns: 0 trustRuleId, 1 paths, 2 hitcount, 3 processName, 4 ruleset
        // (not reported), 5 trustType, 6 signerName, 7 productName, 8 companyName,
        // 9 sha256, 10..15 issuer CN..OU, 16 procUser, 17 procGroup, 18 userList.
        AddIntColumn(rule, "trustRuleId", stmt, 0);
        AddTextColumn(rule, "paths", stmt, 1);
        AddIntColumn(rule, "hitcount", stmt, 2);
        AddTextColumn(rule, "processName", stmt, 3);
        AddIntColumn(rule, "trustType", stmt, 5);
        AddTextColumn(rule, "signerName", stmt, 6);
        AddTextColumn(rule, "productName", stmt, 7);
        AddTextColumn(rule, "companyName", stmt, 8);
        const auto* digest = static_cast<const uint8_t*>(sqlite3_column_blob(stmt, 9));
        if (digest != nullptr) {
            // Shorter blobs are padded with zeroes rather than read past their end.
            uint8_t bytes[SHA256Hash::kSize] = {};
            const int length = sqlite3_column_bytes(stmt, 9);
            std::copy_n(digest, std::min<size_t>(static_cast<size_t>(length), sizeof bytes), bytes);
            SHA256Hash sha256;
            sha256.SetFromBytes(bytes);
            cJSON_AddStringToObject(rule, "sha256", sha256.Hex().c_str());
        }
        static constexpr const char* kIssuerKeys[6] = {"issuerCN", "issuerC", "issuerS",
                                                       "issuerL",  "issuerO", "issuerOU"};
        for (int i = 0; i < 6; ++i) AddTextColumn(rule, kIssuerKeys[i], stmt, 10 + i);
        AddTextColumn(rule, "user", stmt, 16);
        AddTextColumn(rule, "group", stmt, 17);
        AddTextColumn(rule, "userList", stmt, 18);
        cJSON_AddItemToArray(trustRuleStats, rule);
    }
}

bool ZorvDAL::PrepareMetricsDBInfo(cJSON* dbinfo) {
    constexpr char16_t kFunction[] = u"ZorvDAL::PrepareMetricsDBInfo";
    const Statement held = m_pLookupRuleCountStmt;
    if (!held) {
        ZORV_LOG(kLogError, kFunction, u"m_pLookupRuleCountStmt is released");
        return false;
    }
    TracedLock lock(m_dbLock, kFunction, u"Preparing metrics for InventoryItems Rule Count lock",
                    u"Preparing metrics for InventoryItems Rule Count unlock");
    const StatementUse use(held);
    sqlite3_stmt* stmt = use.get();
    // A failed step still reports the keys, as zeroes, like the SUMs over an empty table.
    const bool row = sqlite3_step(stmt) == SQLITE_ROW;
    if (row) ZORV_LOG(kLogTrace, kFunction, u"Found following rule counts in InventoryItems");
    static constexpr const char* kKeys[5] = {"totalInventoryItems", "agentRules", "executionRules", "scannedItems",
                                             "approvedDrift"};
    for (int i = 0; i < 5; ++i) cJSON_AddNumberToObject(dbinfo, kKeys[i], row ? sqlite3_column_int(stmt, i) : 0);
    // Accepted by a buffered store and not yet committed.
    cJSON_AddNumberToObject(dbinfo, "PendingBufferedRows", static_cast<double>(PendingRowsInternal()));
    // What the lookups found, not these counts: a host that sees false
    // replaces the file.
    cJSON_AddBoolToObject(dbinfo, "StoreHealthy", StoreHealthy());
    return true;
}

void ZorvDAL::UserGroupTrustRulesCount(cJSON* dbinfo) {
    constexpr char16_t kFunction[] = u"ZorvDAL::UserGroupTrustRulesCount";
    cJSON_AddNumberToObject(dbinfo, "totalTrustRules", TrustRulesCount());

    int32_t count = 0;
    const Statement held = m_pLookupUserGroupTrustRuleCountStmt;
    if (!held) {
        ZORV_LOG(kLogError, kFunction, u"m_pLookupUserGroupTrustRuleCountStmt is released");
    } else {
        TracedLock lock(m_dbLock, kFunction, u"Preparing count for DBInfoUserGroupTrustRules lock",
                        u"Preparing count for DBInfoUserGroupTrustRules unlock");
        const StatementUse use(held);
        count = StepCount(use.get());
        ZORV_LOG(kLogTrace, kFunction, u"Found following rule count in TrustRules for user group %d", count);
    }
    cJSON_AddNumberToObject(dbinfo, "totalUserGroupTrustRules", count);
}

bool ZorvDAL::PrepareMetricsDBInfoRulesets(cJSON* dbinfo) {
    constexpr char16_t kFunction[] = u"ZorvDAL::PrepareMetricsDBInfoRulesets";
    const Statement held = m_pLookupRulesetCountStmt;
    if (!held) {
        ZORV_LOG(kLogError, kFunction, u"m_pLookupRulesetCountStmt is released");
        return false;
    }
    TracedLock lock(m_dbLock, kFunction, u"Preparing metrics for InventoryItems Ruleset Count lock",
                    u"Preparing metrics for InventoryItems Ruleset Count unlock");
    const StatementUse use(held);
    sqlite3_stmt* stmt = use.get();
    int rc = sqlite3_step(stmt);
    // Present even when no item carries a ruleset.
    cJSON* rulesets = cJSON_AddObjectToObject(dbinfo, "rulesets");
    for (; rc == SQLITE_ROW && rulesets != nullptr; rc = sqlite3_step(stmt)) {
        ZORV_LOG(kLogTrace, kFunction, u"Found following ruleset counts in InventoryItems");
        const auto* name = reinterpret_cast<const char*>(sqlite3_column_text(stmt, 0));
        if (name != nullptr) cJSON_AddNumberToObject(rulesets, name, sqlite3_column_int(stmt, 1));
    }
    return true;
}

void ZorvDAL::PrepareMetricsDBSize(cJSON* dbinfo) {
    constexpr char16_t kFunction[] = u"ZorvDAL::PrepareMetricsDBSize";
    ZORV_LOG(kLogTrace, kFunction, u"Preparing metrics for size of database");
    // No lock: the path is set only while the database is closed, and the size
    // is read from the file system, not through the connection.
    if (m_dbPath.empty()) {
        ZORV_LOG(kLogError, kFunction,
                 u"ZorvDAL::PrepareMetricsDBSize Unable to run as database path was never assigned");
        return;
    }
    platform::FileStatus status;
    if (!platform::StatFile(m_dbPath, status)) {
        ZORV_LOG(kLogError, kFunction, u"ZorvDAL::PrepareMetricsDBSize Unable to get database information from path: %s",
                 m_dbPath);
        return;
    }
    // Only the main file: the write-ahead log is not counted.
    cJSON_AddNumberToObject(dbinfo, "dbsize", static_cast<double>(status.size));
}

int32_t ZorvDAL::TrustRulesCount() {
    constexpr char16_t kFunction[] = u"ZorvDAL::TrustRulesCount";
    const Statement held = m_pLookupTrustRuleCountStmt;
    if (!held) {
        ZORV_LOG(kLogError, kFunction, u"m_pLookupTrustRuleCountStmt is released");
        return 0;
    }
    TracedLock lock(m_dbLock, kFunction, u"Preparing count for DBInfoTrustRules lock",
                    u"Preparing count for DBInfoTrustRules unlock");
    const StatementUse use(held);
    const int32_t count = StepCount(use.get());
    ZORV_LOG(kLogTrace, kFunction, u"Found following rule count in TrustRules %d", count);
    return count;
}

int32_t ZorvDAL::MD5RulesCount(bool waitForLock) {
    return CountHashRules(m_pLookupMD5CountStmt, m_dbLock, waitForLock,
                          {u"ZorvDAL::MD5RulesCount", u"m_pLookupMD5CountStmt is released",
                           u"Preparing count for DBInfoMD5Rules lock", u"Found following MD5 count %d",
                           u"Count for MD5 unlock"});
}

int32_t ZorvDAL::SHA1RulesCount(bool waitForLock) {
    return CountHashRules(m_pLookupSHA1CountStmt, m_dbLock, waitForLock,
                          {u"ZorvDAL::SHA1RulesCount", u"m_pLookupSHA1CountStmt is released",
                           u"Preparing count for DBInfoSHA1Rules lock", u"Found following SHA1 count %d",
                           u"Count for SHA1 unlock"});
}

bool ZorvDAL::GetTrustRuleIDs(std::vector<int32_t>& ids) {
    constexpr char16_t kFunction[] = u"ZorvDAL::GetTrustRuleIDs";
    // No lock of its own: the one caller, the import, holds the database lock.
    const Statement held = m_pLookupTrustRuleIDsStmt;
    if (!held) {
        ZORV_LOG(kLogError, kFunction, u"m_pLookupTrustRuleIDsStmt is released");
        return false;
    }
    const StatementUse use(held);
    while (sqlite3_step(use.get()) == SQLITE_ROW) ids.push_back(sqlite3_column_int(use.get(), 0));
    return true;
}

}  // namespace zorv

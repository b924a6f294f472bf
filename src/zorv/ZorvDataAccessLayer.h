// ZorvDAL: the one object through which the engine touches ac.db.
//
// Thread-safe. A process-wide instance created on first use; event threads
// and the control thread call it concurrently. Two non-recursive locks: the
// database lock guards the connection, every statement and the three
// write-behind buffers; the initialisation lock guards opening and the final
// Finalize. When both are held the initialisation lock is taken first.
//
// Operations whose names end in Internal never lock: their callers (the public
// wrapper, a buffer that overflows, the import) already hold the database lock.
//
// The members are spread over several files by subject:
//   ZorvDataAccessLayer.cpp         open, migrate, prepare, finalize, delete, purge
//   ZorvDataAccessLayerLookup.cpp   inventory lookup and trust-rule matching
//                                   (the rules themselves: ZorvTrustRuleSet)
//   ZorvDataAccessLayerStore.cpp    item, trust-rule and user-list storage, state
//   ZorvDataAccessLayerMetrics.cpp  counts behind the metrics document
//   ZorvDataAccessLayerImport.cpp   ruleset import and inventory export
#pragma once

#include <sqlite3.h>

#include <cjson/cJSON.h>

#include <atomic>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "EngineEvent.h"
#include "ZorvReadConnections.h"
#include "ZorvTrustRuleSet.h"
#include "ZorvWriteBehind.h"
#include "ZorvUtilWindows.h"
#include "zorv/zorv.h"

namespace zorv {

// One row of TrustRules as the import builds it. Empty texts are stored as
// NULL, which the lookup reads as "any".
struct TrustRuleRecord {
    std::u16string processName;
    std::u16string paths;  // ';'-separated patterns
    int32_t trustType = 0;
    std::u16string signerName;
    std::u16string productName;
    std::u16string companyName;
    SHA256Hash sha256;
    std::u16string issuer[6];  // CN, C, S, L, O, OU
    std::u16string ruleset;
    std::u16string procUser;
    std::u16string procGroup;
    std::u16string userList;  // id of a UserList group
};

// One member of a user list.
struct UserListRecord {
    std::u16string id;
    std::u16string user;
};

class ZorvDAL {
public:
    // The three write-behind buffers together hold at most this many rows.
    static constexpr size_t kMaxBufferedRows = 100000;

    // What an import's name says the document is.
    enum class RulesetKind { ItemRuleset, TrustRuleset, AgentManifest };

    static ZorvDAL& Instance();

    // Fills the migration scripts.
    ZorvDAL();
    // Flushes and finalizes, exactly once, if the engine did not stop first.
    ~ZorvDAL();
    ZorvDAL(const ZorvDAL&) = delete;
    ZorvDAL& operator=(const ZorvDAL&) = delete;

    // ---- Database file, schema, lifecycle (ZorvDataAccessLayer.cpp) ----

    // Where the database lives; refused (false) while the database is open.
    bool SetDBPath(const std::u16string& path);
    const std::u16string& DBPath() const { return m_dbPath; }
    bool IsOpen() const;
    // Opens (creating or migrating) the database and prepares the statements,
    // then refreshes the trust-rule flag and the SHA-1/MD5 counts.
    bool InitDB();
    // Flushes the write-behind buffers and closes the database.
    void Shutdown();
    // How many calls of the host are inside the library; asked only at a
    // process's exit, when other threads may have been ended inside one.
    void SetCallsInside(uint64_t (*callsInside)()) { m_callsInside.store(callsInside); }
    // True at a process's exit when another thread was ended inside the
    // library (a host's call, or a task of the write-behind worker): the store
    // is then left as it is, since closing it could wait on what that thread
    // held for ever.
    bool LeftToTheProcessEnd();
    bool DeleteDB();
    bool PurgeDB(uint32_t kind);
    std::u16string GetErrorString();
    // The migration scripts in order: entry 0 creates version 4, entry k
    // raises version 3+k to 4+k.
    static const std::vector<std::string>& SchemaScripts();

    // ---- Inventory lookup and trust rules (ZorvDataAccessLayerLookup.cpp) ----

    // True when the lookup ran to its end; the verdict is written into `event`.
    // False when it could not look: then `event.storeFault` says whether the
    // store was at fault (rather than the event, e.g. one without a SHA-256).
    bool IsAllowedInDB(EngineEvent& event);
    // False both when no rule matches and when the rules could not be read;
    // the second also sets `event.storeFault`.
    bool IsFoundInTrustRules(uint32_t trustType, EngineEvent& event);
    // Stores hitcount + 1 for the rule.
    bool UpdateHitcount(int32_t trustRuleId, int32_t hitcount);
    // Whether `text` matches one of the ';'-separated patterns (both lower-case).
    static bool MatchEventPathWithRulePath(std::u16string text, std::u16string patterns);
    bool TrustRulesEnabled() const { return m_trustRulesEnabled; }
    // One pattern against one text, both lower-case: `*` and `?` never cross a
    // separator, "**\\" and "**/" span any number of levels.
    static bool WildcardMatch(std::u16string_view text, std::u16string_view pattern);

    // ---- Storage (ZorvDataAccessLayerStore.cpp) ----

    uint64_t StoreItem(EngineEvent& event);
    uint64_t StoreItem(const InventoryItemRecord& item);
    uint64_t StoreItemBuffer(EngineEvent& event);
    uint64_t StoreItemBuffer(const InventoryItemRecord& item);
    uint64_t StoreItemFlush();
    // Returns once every write a decision asked for so far is in the store
    // (or in the item buffer, for scanned items, as a direct store would be).
    void DrainDecisionWrites() { m_writeBehind.Drain(); }
    uint64_t StoreTrustRule(const TrustRuleRecord& rule);
    uint64_t StoreTrustRuleBuffer(const TrustRuleRecord& rule);
    uint64_t StoreTrustRuleFlush();
    uint64_t StoreUserList(const UserListRecord& entry);
    uint64_t StoreUserListBuffer(const UserListRecord& entry);
    uint64_t StoreUserListFlush();
    bool StoreEventItem(EngineEvent& event);
    bool UpdatePrelinkItem(EngineEvent& event);
    bool DeleteInventoryItems(const EngineEvent& event);
    // What a settings read found: a setting that is not stored is an answer,
    // a store that could not be read is not.
    enum class SettingRead { Found, Absent, Failed };
    SettingRead ReadAppControlState(const std::u16string& settingName, std::u16string& value);
    // True only when the setting was found.
    bool GetAppControlState(const std::u16string& settingName, std::u16string& value);
    bool SetAppControlState(const std::u16string& settingName, const std::u16string& value);
    bool SetAppControlStateValue(const std::u16string& settingName, uint64_t value);
    // The host's record as the engine's event (digests always copied).
    static void ConvertInventoryItem(const InventoryItemRecord& item, EngineEvent& event);
    // The SHA-256 a prelinked file had before it was rewritten; UpdatePrelinkItem
    // moves the row holding it to the event's new hash.
    void SetPrelinkOldHash(const SHA256Hash& hash);

    // ---- Health and rules generation (ZorvDataAccessLayerLookup.cpp) ----

    // False while the lookups cannot read the store. A store SQLite has called
    // damaged stays unhealthy until it is opened again (a new start, or a
    // deleted and recreated file); other faults clear at the next lookup that
    // reads it whole.
    bool StoreHealthy() const { return m_storeHealthy.load(std::memory_order_relaxed); }
    // Raised each time new rules are committed. An allow decision remembers
    // the value it started under, so that one made from the old rules cannot
    // be cached once the new ones are in force.
    uint64_t RulesGeneration() const { return m_rulesGeneration.load(std::memory_order_acquire); }

    // ---- Counts for the metrics document (ZorvDataAccessLayerMetrics.cpp) ----

    void PrepareMetrics(cJSON* trustRuleStats);
    bool PrepareMetricsDBInfo(cJSON* dbinfo);
    void UserGroupTrustRulesCount(cJSON* dbinfo);
    bool PrepareMetricsDBInfoRulesets(cJSON* dbinfo);
    void PrepareMetricsDBSize(cJSON* dbinfo);
    int32_t TrustRulesCount();
    int32_t MD5RulesCount(bool waitForLock);
    int32_t SHA1RulesCount(bool waitForLock);
    bool GetTrustRuleIDs(std::vector<int32_t>& ids);
    int64_t Sha1RuleCount() const { return m_sha1RuleCount; }
    int64_t Md5RuleCount() const { return m_md5RuleCount; }

    // ---- Import and export (ZorvDataAccessLayerImport.cpp) ----

    // The largest ruleset file an import reads (1 GiB): the file's text is held
    // in memory while its rows are stored (the parsed tree is not: see
    // RulesetReader), so an import takes about twice the file at its peak.
    static constexpr uint64_t kMaxRulesetBytes = uint64_t{1} << 30;
    // Only a regular file is read, never through a link in its last
    // component, and never a FIFO or device; larger than the limit is refused.
    bool ImportRuleset(uint8_t append, const std::u16string& path, const std::u16string& name);
    bool ImportRulesetBuffer(uint8_t append, const std::string& utf8, const std::u16string& name);
    // Writes the page beside `payloadPath` and renames it over that name once
    // whole; false, and nothing under the name, when it could not be written
    // whole. A payload name held by anything but a regular file is refused.
    bool GetItems(uint64_t afterItemId, uint64_t limit, uint32_t source, const std::u16string& payloadPath,
                  const std::u16string& scanUuid);
    bool CollectTableMetadata(sqlite3* db, const std::string& table, std::vector<std::string>& statements,
                              std::string& error);
    bool CreateTempTableFromOriginal(sqlite3* db, const std::string& table, std::string& tempName,
                                     std::string& error);
    bool SwapTempTableToOriginal(sqlite3* db, const std::string& table, const std::vector<std::string>& statements,
                                 std::string& error);
    static int SqlCallbackInventoryItemViewHandler(void* context, int columnCount, char** values, char** names);

private:
    using Statement = std::shared_ptr<sqlite3_stmt>;
    // Tests hold statement references and call Finalize as an operation would.
    friend struct ZorvDALTestPeer;

    // ZorvDataAccessLayer.cpp
    enum class OpenResult { Opened, Failed, Newer };
    bool _InitDB(bool readOnly);
    // One open: the connection, its settings and the migration. Newer means
    // the file was of a newer schema and has been moved aside.
    OpenResult OpenAndMigrate(bool readOnly);
    // Renames the closed file (and its -wal and -shm) beside itself, with the
    // version and the UTC time in the name.
    bool MoveAside(int version);
    bool PrepareStatements();
    void Finalize();
    // The writer's commit hook (sqlite3_wal_hook): invalidates the readers'
    // snapshots and checkpoints a long log.
    static int OnWriterCommit(void* self, sqlite3* db, const char* name, int frames);
    bool _DeleteDB();
    // Runs one of the schema scripts; logs and answers false on failure.
    bool ExecSchema(sqlite3* db, size_t index);

    // ZorvDataAccessLayerLookup.cpp
    // Through the writer's statements (the database lock held) or a reader's.
    bool IsAllowedInDBInternal(EngineEvent& event);
    bool IsAllowedInDBInternal(EngineEvent& event, const ZorvReadConnections::Lookups& lookups);
    Statement IsAllowedInDBSearch(EngineEvent& event, int& rc, const ZorvReadConnections::Lookups& lookups);
    bool IsAllowedInRuleSet(sqlite3_stmt* row, EngineEvent& event);
    bool IsAllowedInInventory(sqlite3_stmt* row, EngineEvent& event);
    bool IsAllowedInDrift(sqlite3_stmt* row, EngineEvent& event);
    // The in-memory rules; the statement below when they are not loaded.
    bool IsFoundInTrustRuleSet(uint32_t trustType, EngineEvent& event);
    // The lookup statement itself.
    bool IsFoundInTrustRulesInternal(uint32_t trustType, EngineEvent& event);
    // Reads the trust rules into memory again after a change to their tables.
    void ReloadTrustRulesInternal();
    bool UpdateHitcountInternal(int32_t trustRuleId, int32_t hitcount);
    // A lookup that read the store to its end, and one that could not: the
    // health changes, and its ERROR line, happen here, once per change.
    void NoteStoreAnswered();
    void NoteStoreFault(const char16_t* function, int rc, const std::u16string& reason);
    // A store opened anew starts healthy.
    void ResetStoreHealth();
    // Called once an import's transaction has committed.
    void NoteRulesCommitted() { m_rulesGeneration.fetch_add(1, std::memory_order_release); }

    // ZorvDataAccessLayerStore.cpp
    // One settings read on the given connection's statement.
    SettingRead ReadAppControlStateFrom(const Statement& stmt, const std::u16string& settingName,
                                        std::u16string& value);
    uint64_t StoreItemInternal(const EngineEvent& event, bool tempTable);
    uint64_t StoreItemFlushInternal();
    uint64_t StoreTrustRuleInternal(const TrustRuleRecord& rule, bool tempTable);
    uint64_t StoreTrustRuleFlushInternal();
    // What StoreEventItem hands to the write-behind thread.
    void StoreEventItemNow(EngineEvent& event);
    uint64_t StoreUserListInternal(const UserListRecord& entry, bool tempTable);
    uint64_t StoreUserListFlushInternal();
    size_t PendingRowsInternal() const;
    template <typename Record, typename Flush>
    uint64_t AppendBuffered(std::deque<Record>& buffer, const Record& record, const char16_t* function, Flush flush);

    // ZorvDataAccessLayerImport.cpp
    // `text` must be followed by a NUL byte; `ownedText`, when given, holds it
    // and is emptied once the rows are read.
    bool ImportRulesetText(uint8_t append, std::string_view text, std::string* ownedText, const std::u16string& name);
    bool ImportRulesetLocked(uint8_t append, RulesetKind kind, std::string_view text, std::string* ownedText,
                             const std::u16string& name, bool& isObject);
    bool PrepareImportStatement(sqlite3* db, Statement& stmt, const char* sql, const char16_t* sqlName);
    bool BeginTrustPhase(sqlite3* db, uint8_t append, RulesetKind kind, const std::u16string& name,
                         std::vector<std::string>& trustMetadata, std::vector<std::string>& userListMetadata,
                         std::string& error);
    bool BeginItemPhase(sqlite3* db, uint8_t append, RulesetKind kind, std::vector<std::string>& itemMetadata,
                        std::string& error);
    // Stores the rows of the document as it is read; false when it is not
    // one JSON object (logged) or a row could not be stored.
    bool ReadRulesetRows(sqlite3* db, RulesetKind kind, std::string_view text, const std::u16string& name,
                         uint64_t& rowCount, std::string& error, bool& isObject);
    bool ImportRowFailed(sqlite3* db, uint64_t rowId, std::string& error) const;
    void GetItemSourceInventory(platform::FileWriter& payload, sqlite3_stmt* stmt, int& rc,
                                const std::u16string& payloadPath, const std::u16string& scanUuid);
    void GetItemSourceTrustRule(platform::FileWriter& payload, sqlite3_stmt* stmt, int& rc,
                                const std::u16string& payloadPath);
    bool AddUserListMembers(cJSON* object, const char* userList);

    std::mutex m_dbLock;    // the database lock
    std::mutex m_initLock;  // the initialisation lock

    std::shared_ptr<sqlite3> m_DB;  // deleter sqlite3_close_v2; empty when closed
    std::u16string m_dbPath;
    SHA256Hash m_prelinkOldHash;  // guarded by the database lock; empty until set

    std::deque<EngineEvent> m_pendingItems;
    std::deque<TrustRuleRecord> m_pendingTrustRules;
    std::deque<UserListRecord> m_pendingUserLists;
    // What the last insert of the three Internal store operations ended with
    // (SQLITE_OK when it stored its row); guarded by the database lock.
    int m_lastInsertRc = SQLITE_OK;

    Statement m_pInsertItemStmt;
    Statement m_pInsertTrustRuleStmt;
    Statement m_pInsertUserListStmt;
    Statement m_pUpdatePrelinkItemStmt;
    Statement m_pLookupItemAuthStmt;
    Statement m_pLookupItemAuthRulesetStmt;
    Statement m_pLookupItemAlternateSHA1HashStmt;
    Statement m_pLookupItemAlternateMD5HashStmt;
    Statement m_pLookupTrustRuleStmt;
    Statement m_pLookupUserListStmt;
    Statement m_pUpdateTrustRuleHitcountStmt;
    Statement m_pMetricsLookupTrustRuleStmt;
    Statement m_pLookupRuleCountStmt;
    Statement m_pLookupTrustRuleCountStmt;
    Statement m_pLookupMD5CountStmt;
    Statement m_pLookupSHA1CountStmt;
    Statement m_pLookupUserGroupTrustRuleCountStmt;
    Statement m_pLookupRulesetCountStmt;
    Statement m_pLookupTrustRuleIDsStmt;
    Statement m_pDeleteInventoryItemsStmt;
    Statement m_pGetAcStateStmt;
    Statement m_pSetAcStateStmt;
    Statement m_pInsertItemTempTableStmt;
    Statement m_pInsertTrustRuleTempTableStmt;
    Statement m_pInsertUserListTempTableStmt;

    // The inventory lookup's own connections, open while m_DB is.
    ZorvReadConnections m_readers;
    // The TrustRules and UserList tables in memory; loaded under the database
    // lock, read without it.
    ZorvTrustRuleSet m_trustRuleSet;

    std::vector<std::string> m_schema;  // the migration scripts, version 4 onwards

    // Read without the database lock on every event, hence atomic.
    std::atomic<bool> m_trustRulesEnabled{false};
    std::atomic<int64_t> m_sha1RuleCount{0};
    std::atomic<int64_t> m_md5RuleCount{0};
    bool m_shutDown = false;  // Shutdown ran; the destructor must not repeat it

    // Store health: read by the metrics without the lock, changed by lookups.
    std::atomic<bool> m_storeHealthy{true};
    std::atomic<bool> m_storeDamaged{false};  // SQLite reported corruption; kept until reopened
    std::atomic<uint64_t> m_rulesGeneration{0};
    std::atomic<uint64_t (*)()> m_callsInside{nullptr};

    // The writes decisions ask for, done beside them; running while the store
    // is open. Last, so that it is gone before anything its tasks use.
    ZorvWriteBehind m_writeBehind;
};

// Shared by the files above: one statement use, reset and cleared at its end
// however it ends, so the next caller starts clean.
class StatementUse {
public:
    explicit StatementUse(std::shared_ptr<sqlite3_stmt> stmt) : m_stmt(std::move(stmt)) {}
    ~StatementUse() {
        if (m_stmt) {
            sqlite3_reset(m_stmt.get());
            sqlite3_clear_bindings(m_stmt.get());
        }
    }
    StatementUse(const StatementUse&) = delete;
    StatementUse& operator=(const StatementUse&) = delete;
    sqlite3_stmt* get() const { return m_stmt.get(); }
    explicit operator bool() const { return static_cast<bool>(m_stmt); }

private:
    std::shared_ptr<sqlite3_stmt> m_stmt;
};

}  // namespace zorv

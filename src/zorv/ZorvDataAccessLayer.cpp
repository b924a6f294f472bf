// ZorvDAL, lifecycle: opening and migrating ac.db, preparing the statements
// the other DAL files use, and closing, deleting and purging the file.
#include "ZorvDataAccessLayer.h"

#include <mutex>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <system_error>

#include "ZorvDataAccessLayerShared.h"
#include "ZorvLogger.h"
#include "ZorvText.h"
#include "platform/Platform.h"

namespace zorv {

namespace {

constexpr char16_t kLogSource[] = u"src/zorv/ZorvDataAccessLayer";

constexpr int kSchemaVersion = 16;
constexpr int kBusyTimeoutMs = 5000;

// Applied on every open; none of them is persistent except the journal mode.
constexpr const char* kConnectionPragmas[] = {
    "PRAGMA journal_mode = WAL;",
    "PRAGMA synchronous = NORMAL;",
    "PRAGMA cache_size = -20000;",
    "PRAGMA temp_store = MEMORY;",
    "PRAGMA mmap_size = 27262976;",
};

// A buffered flush commits every 51 rows, and each row lands on its own leaf
// of the item table's five indexes: some eleven log frames a row. At SQLite's
// default of 1,000 frames every few flushes paid a checkpoint with two syncs,
// under the database lock; a longer log checkpoints each page once for many
// commits. The log stays under 32 MiB. (The commit hook below checkpoints in place of
// "PRAGMA wal_autocheckpoint", which would replace it.)
constexpr int kCheckpointFrames = 8192;

// Entry 0 builds version 4 from nothing; entry k raises version 3+k to 4+k.
// Each script raises user_version inside its own transaction, so a step
// commits its changes and its version together: a crash or a failure at any
// point leaves the previous version whole, and the next open runs the step
// again. Entry 9 is the only one that records a time.
const std::vector<std::string>& Scripts() {
    static const std::vector<std::string> scripts = {
        "PRAGMA page_size = 4096; BEGIN TRANSACTION; PRAGMA user_version = 4; CREATE TABLE InventoryItems( "
        "inventoryItemId INTEGER PRIMARY KEY AUTOINCREMENT, fileName TEXT, path TEXT, nativePath TEXT, md5 BLOB, "
        "sha1 BLOB, sha256 BLOB, size INTEGER, recordTime INTEGER, isAuthorized INTEGER(1), source INTEGER, "
        "ruleset TEXT ); CREATE INDEX InventoryItems_Sha256 ON InventoryItems(sha256); CREATE INDEX "
        "InventoryItems_fileName ON InventoryItems(fileName); CREATE INDEX InventoryItems_size ON "
        "InventoryItems(size); CREATE TABLE AppControlState( id INTEGER PRIMARY KEY AUTOINCREMENT, settingName "
        "TEXT, settingValue TEXT ); INSERT INTO AppControlState(settingName, settingValue) "
        "VALUES('inventoryState', '-1'); INSERT INTO AppControlState(settingName, settingValue) "
        "VALUES('inventoryCookie', ''); INSERT INTO AppControlState(settingName, settingValue) "
        "VALUES('importState', '-1'); INSERT INTO AppControlState(settingName, settingValue) "
        "VALUES('effectiveRulesetIds', ''); INSERT INTO AppControlState(settingName, settingValue) "
        "VALUES('agentVersion', ''); INSERT INTO AppControlState(settingName, settingValue) "
        "VALUES('autoAuthorizeEndTime', '-1'); INSERT INTO AppControlState(settingName, settingValue) "
        "VALUES('autoAuthorizeStartTime', '-1'); INSERT INTO AppControlState(settingName, settingValue) "
        "VALUES('whitelistInventory', '-1'); INSERT INTO AppControlState(settingName, settingValue) "
        "VALUES('enableHTML', '1'); CREATE VIEW Items AS SELECT inventoryItemId, fileName, path, nativePath, md5, "
        "sha1, sha256, size, recordTime, isAuthorized, source, ruleset FROM InventoryItems JOIN AppControlState ON "
        "AppControlState.settingName = 'inventoryCookie'; CREATE INDEX AppControlState_settingName ON "
        "AppControlState(settingName); COMMIT TRANSACTION;",

        "BEGIN TRANSACTION; PRAGMA user_version = 5; CREATE TABLE TrustRules( trustRuleId INTEGER PRIMARY KEY "
        "AUTOINCREMENT, processName TEXT, paths TEXT, trustType INTEGER, signerName TEXT, productName TEXT, "
        "companyName TEXT, sha256 BLOB ); DROP INDEX InventoryItems_fileName; COMMIT TRANSACTION;",

        "BEGIN TRANSACTION; PRAGMA user_version = 6; ALTER TABLE TrustRules ADD issuerCN TEXT; COMMIT TRANSACTION;",

        "BEGIN TRANSACTION; PRAGMA user_version = 7; ALTER TABLE TrustRules ADD issuerC TEXT; ALTER TABLE TrustRules "
        "ADD issuerS TEXT; ALTER TABLE TrustRules ADD issuerL TEXT; ALTER TABLE TrustRules ADD issuerO TEXT; ALTER "
        "TABLE TrustRules ADD issuerOU TEXT; COMMIT TRANSACTION;",

        "BEGIN TRANSACTION; PRAGMA user_version = 8; CREATE INDEX InventoryItems_Sha1 ON InventoryItems(sha1); "
        "CREATE INDEX InventoryItems_Md5 ON InventoryItems(md5); COMMIT TRANSACTION;",

        "BEGIN TRANSACTION; PRAGMA user_version = 9; ALTER TABLE TrustRules ADD hitcount INTEGER DEFAULT 0; COMMIT "
        "TRANSACTION;",

        "BEGIN TRANSACTION; PRAGMA user_version = 10; CREATE INDEX TrustRules_processName ON "
        "TrustRules(processName); CREATE INDEX TrustRules_signerName ON TrustRules(signerName); COMMIT "
        "TRANSACTION;",

        "BEGIN TRANSACTION; PRAGMA user_version = 11; CREATE INDEX InventoryItems_fileName ON "
        "InventoryItems(fileName); COMMIT TRANSACTION;",

        "BEGIN TRANSACTION; PRAGMA user_version = 12; CREATE INDEX TrustRules_trustType ON TrustRules(trustType); "
        "ALTER TABLE TrustRules ADD ruleset TEXT; COMMIT TRANSACTION;",

        "BEGIN TRANSACTION; PRAGMA user_version = 13; INSERT INTO AppControlState(settingName, settingValue) "
        "VALUES('upgradetime', strftime('%s','now')); COMMIT TRANSACTION;",

        "BEGIN TRANSACTION; PRAGMA user_version = 14; ALTER TABLE TrustRules ADD procUser TEXT; ALTER TABLE "
        "TrustRules ADD procGroup TEXT; CREATE INDEX TrustRules_procUser ON TrustRules(procUser); CREATE INDEX "
        "TrustRules_procGroup ON TrustRules(procGroup); COMMIT TRANSACTION;",

        "BEGIN TRANSACTION; PRAGMA user_version = 15; ALTER TABLE TrustRules ADD userList TEXT; CREATE INDEX "
        "TrustRules_userList ON TrustRules(userList); CREATE TABLE UserList( id TEXT, user TEXT ); CREATE INDEX "
        "UserList_id_user ON UserList(id, user); COMMIT TRANSACTION;",

        "BEGIN TRANSACTION; PRAGMA user_version = 16; ALTER TABLE TrustRules ADD trustLevel INTEGER DEFAULT 0; "
        "COMMIT TRANSACTION;",
    };
    return scripts;
}

constexpr char kInsertItemSql[] =
    "INSERT INTO InventoryItems( md5, sha1, sha256, source, fileName, path, nativePath, size, recordTime, "
    "isAuthorized, ruleset ) VALUES( :md5, :sha1, :sha256, :source, :fileName, :path, :nativePath, :size, "
    ":recordTime, :isAuthorized, :ruleset );";
constexpr char kInsertTrustRuleSql[] =
    "INSERT INTO TrustRules( processName, paths, trustType, signerName, productName, companyName, sha256, "
    "issuerCN, issuerC, issuerL, issuerS, issuerO, issuerOU, ruleset, procUser, procGroup, userList ) VALUES( "
    ":processName, :paths, :trustType, :signerName, :productName, :companyName, :sha256, :issuerCN, :issuerC, "
    ":issuerL, :issuerS, :issuerO, :issuerOU, :ruleset, :procUser, :procGroup, :userList );";
constexpr char kInsertUserListSql[] = "INSERT INTO UserList( id, user ) VALUES( :id, :user );";
constexpr char kUpdatePrelinkItemSql[] =
    "UPDATE InventoryItems SET sha256 = :hash, size = :size, recordTime = :recordTime WHERE source = 5 and sha256 "
    "= :oldhash and path = :path and fileName = :fileName ;";
constexpr char kLookupTrustRuleSql[] =
    "SELECT trustRuleId, paths, hitcount, processName, ruleset, procGroup FROM TrustRules LEFT JOIN UserList ON "
    "TrustRules.userList = UserList.id WHERE (processName is NULL or processName = :processName or "
    "instr(processName,'?') or instr(processName,'*')) and (trustType = 0 or trustType = :trustType) and "
    "(signerName is NULL or signerName = :signerName) and (productName is NULL or productName = :productName) and "
    "(companyName is NULL or companyName = :companyName) and (sha256 is NULL or sha256 = :sha256) and (issuerCN is "
    "NULL or issuerCN= :issuerCN) and (issuerC is NULL or issuerC= :issuerC) and (issuerS is NULL or issuerS= "
    ":issuerS) and (issuerL is NULL or issuerL= :issuerL) and (issuerO is NULL or issuerO= :issuerO) and (issuerOU "
    "is NULL or issuerOU= :issuerOU) and (procGroup is NULL or INSTR(:procGroup, procGroup)) and "
    "((TrustRules.userList is NULL and TrustRules.procUser is NULL) or (TrustRules.procUser = :procUser or "
    "UserList.user = :procUser)) ORDER BY trustRuleId ;";
constexpr char kLookupUserListSql[] = "SELECT user FROM UserList WHERE id = :id ;";
constexpr char kUpdateTrustRuleHitcountSql[] =
    "UPDATE TrustRules SET hitcount = :hitcount WHERE (trustRuleId = :trustRuleId) ;";
constexpr char kMetricsLookupTrustRuleSql[] =
    "SELECT trustRuleId, paths, hitcount, processName, ruleset, trustType, signerName, productName, companyName, "
    "sha256, issuerCN, issuerC, issuerS, issuerL, issuerO, issuerOU, procUser, procGroup, userList FROM TrustRules "
    "WHERE hitcount >= 1 ;";
constexpr char kLookupRuleCountSql[] =
    "SELECT count(*) totalInventoryItems, SUM(CASE WHEN source=1 THEN 1 ELSE 0 END) agentRules, SUM(CASE WHEN "
    "source=2 THEN 1 ELSE 0 END) executionRules, SUM(CASE WHEN source=3 THEN 1 ELSE 0 END) scannedItems, SUM(CASE "
    "WHEN source=4 THEN 1 ELSE 0 END) approvedDrift FROM InventoryItems;";
constexpr char kLookupTrustRuleCountSql[] = "SELECT count(*) totalTrustRules FROM TrustRules;";
constexpr char kLookupMD5CountSql[] = "select count(*) FROM inventoryItems where source = 2 and md5 IS NOT NULL;";
constexpr char kLookupSHA1CountSql[] = "select count(*) FROM inventoryItems where source = 2 and sha1 IS NOT NULL;";
constexpr char kLookupUserGroupTrustRuleCountSql[] =
    "SELECT count(*) totalUserGroupTrustRules FROM TrustRules WHERE procUser IS NOT NULL OR procGroup IS NOT NULL "
    "OR userList IS NOT NULL;";
constexpr char kLookupRulesetCountSql[] =
    "SELECT ruleset, count(*) totalRules FROM InventoryItems WHERE ruleset != '' GROUP BY ruleset;";
constexpr char kLookupTrustRuleIDsSql[] = "SELECT trustRuleId FROM TrustRules;";
constexpr char kDeleteInventoryItemsSql[] =
    "DELETE FROM InventoryItems WHERE (fileName = :fileName) AND (LOWER(path) IN (:path,:path2)) AND (source = 3 OR "
    "source = 4);";
constexpr char kSetAcStateSql[] = "UPDATE AppControlState SET settingValue = :value WHERE (settingName = :setting);";

// "20261124T031500Z": the moment a newer store was moved aside, in UTC.
std::string UtcStamp() {
    using namespace std::chrono;
    const auto now = floor<seconds>(system_clock::now());
    const auto day = floor<days>(now);
    const year_month_day date(day);
    const hh_mm_ss time(now - day);
    char text[32];
    std::snprintf(text, sizeof text, "%04d%02u%02uT%02d%02d%02dZ", static_cast<int>(date.year()),
                  static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()),
                  static_cast<int>(time.hours().count()), static_cast<int>(time.minutes().count()),
                  static_cast<int>(time.seconds().count()));
    return text;
}

bool Exists(const std::filesystem::path& path) {
    std::error_code error;
    return std::filesystem::exists(path, error) || error;
}

void FinalizeStatement(sqlite3_stmt* stmt) { sqlite3_finalize(stmt); }
void CloseConnection(sqlite3* db) { sqlite3_close_v2(db); }

}  // namespace

ZorvDAL& ZorvDAL::Instance() {
    // At exit the store still flushes its buffers and closes, but the host
    // that would hear about it may already be tearing down: nothing is logged
    // once the process-wide store is being destroyed.
    struct ProcessStore {
        ZorvDAL* dal = new ZorvDAL;
        ~ProcessStore() {
            ZorvLogger::Instance().SetLevel(0);
            // A store some ended thread was using is left whole to the
            // process's end: even its members' teardown would wait on what
            // that thread held.
            if (!dal->LeftToTheProcessEnd()) delete dal;
        }
    };
    // Constructed first, so destroyed after the store.
    ZorvLogger::Instance();
    static ProcessStore store;
    return *store.dal;
}

const std::vector<std::string>& ZorvDAL::SchemaScripts() { return Scripts(); }

ZorvDAL::ZorvDAL() : m_schema(Scripts()) {
    // Read connections keep their snapshots between lookups; the write-behind
    // worker lets go of those left idle.
    m_readers.SetReaper([this] { return m_writeBehind.Wake(); });
    m_writeBehind.SetTick([this] { return m_readers.ReleaseIdleSnapshots(); },
                          ZorvReadConnections::kIdleRelease);
}

int ZorvDAL::OnWriterCommit(void* self, sqlite3* db, const char* name, int frames) {
    auto& dal = *static_cast<ZorvDAL*>(self);
    // Committed and visible: the next lookup must not answer from before it.
    dal.m_readers.Invalidate();
    if (frames >= kCheckpointFrames) {
        sqlite3_wal_checkpoint(db, name);
        // Snapshots begun before the checkpoint would hold the log's readers'
        // marks and keep the next write from starting the log over.
        dal.m_readers.Invalidate();
    }
    return SQLITE_OK;
}

ZorvDAL::~ZorvDAL() {
    if (m_shutDown) return;
    // A destructor must not throw; a failing mutex at unload leaves the
    // connection to the process's exit.
    try {
        Shutdown();
    } catch (...) {
    }
}

bool ZorvDAL::SetDBPath(const std::u16string& path) {
    std::lock_guard<std::mutex> lock(m_initLock);
    if (m_DB) return false;
    m_dbPath = path;
    return true;
}

bool ZorvDAL::IsOpen() const { return static_cast<bool>(m_DB); }

bool ZorvDAL::InitDB() {
    std::lock_guard<std::mutex> lock(m_initLock);
    const bool result = _InitDB(false);
    // The counts take the database lock themselves: initialisation lock first,
    // database lock second, as everywhere.
    m_trustRulesEnabled = TrustRulesCount() > 0;
    m_md5RuleCount = MD5RulesCount(true);
    m_sha1RuleCount = SHA1RulesCount(true);
    {
        std::lock_guard<std::mutex> dbLock(m_dbLock);
        ReloadTrustRulesInternal();
    }
    if (result) m_writeBehind.Start();
    m_shutDown = false;
    return result;
}

bool ZorvDAL::ExecSchema(sqlite3* db, size_t index) {
    char* error = nullptr;
    int rc = sqlite3_exec(db, m_schema[index].c_str(), nullptr, nullptr, &error);
    if (rc != SQLITE_OK) {
        ZORV_LOG(kLogTrace, u"ZorvDAL::ExecSchema", u"schema script %d: %s", static_cast<int>(index),
                 error != nullptr ? error : "");
    }
    sqlite3_free(error);
    // A script stops at its failing statement with its transaction open;
    // nothing of the step may stay behind.
    if (sqlite3_get_autocommit(db) == 0) {
        sqlite3_exec(db, "ROLLBACK TRANSACTION;", nullptr, nullptr, nullptr);
        if (rc == SQLITE_OK) rc = SQLITE_ERROR;
    }
    return rc == SQLITE_OK;
}

bool ZorvDAL::_InitDB(bool readOnly) {
    if (m_DB) {
        ZORV_LOG(kLogWarning, u"ZorvDAL::_InitDB", u"m_DB is not null.");
        return PrepareStatements();
    }
    if (m_dbPath.empty()) m_dbPath = u"ac.db";
    // A file opened anew is judged afresh: damage seen in the one before
    // (or before its repair) says nothing about it.
    ResetStoreHealth();

    // A newer store is moved aside once and a fresh one opened in its place;
    // a fresh store that reads as newer again is not chased further.
    for (int attempt = 0; attempt < 2; ++attempt) {
        const OpenResult result = OpenAndMigrate(readOnly);
        if (result == OpenResult::Newer) continue;
        // A failed open leaves nothing open: the path can be changed and the
        // next start tries again from the beginning.
        if (result == OpenResult::Opened && PrepareStatements()) return true;
        Finalize();
        return false;
    }
    ZORV_LOG(kLogError, u"ZorvDAL::_InitDB", u"The database at %s still reads as a newer version", m_dbPath);
    return false;
}

namespace {

// SQLite's memory statistics count every allocation under one process-wide
// mutex, so a decision's lookup queued behind each allocation of an import
// running beside it: thousands of waits a second, a p99 in milliseconds.
// The engine reads no statistics. Turning them off is only possible before
// SQLite first initializes; in a host that got there first this changes
// nothing (SQLITE_MISUSE) and the host's own setting stands.
void QuietSqliteMemoryStatistics() {
    static std::once_flag once;
    std::call_once(once, [] { sqlite3_config(SQLITE_CONFIG_MEMSTATUS, 0); });
}

}  // namespace

ZorvDAL::OpenResult ZorvDAL::OpenAndMigrate(bool readOnly) {
    QuietSqliteMemoryStatistics();
    const std::string path = Utf16ToUtf8(m_dbPath);
    const int flags = readOnly ? SQLITE_OPEN_READONLY : (SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE);
    sqlite3* raw = nullptr;
    int rc = sqlite3_open_v2(path.c_str(), &raw, flags, nullptr);
    if (rc != SQLITE_OK) {
        ZORV_LOG(kLogError, u"ZorvDAL::_InitDB", u"sqlite3_open_v2 failed. rc: %d", rc);
        // SQLite hands out a handle even when the open fails; it must still be closed.
        sqlite3_close_v2(raw);
        return OpenResult::Failed;
    }
    m_DB.reset(raw, CloseConnection);
    // A raw pointer, not a copy of m_DB: Finalize closes the connection only
    // when it holds the last reference.
    sqlite3* db = raw;
    sqlite3_busy_timeout(db, kBusyTimeoutMs);

    for (const char* pragma : kConnectionPragmas) {
        rc = sqlite3_exec(db, pragma, nullptr, nullptr, nullptr);
        if (rc != SQLITE_OK) {
            ZORV_LOG(kLogWarning, u"ZorvDAL::_InitDB", u"sqlite3_exec for %s failed. rc: %d", pragma, rc);
        }
    }
    sqlite3_wal_hook(db, &ZorvDAL::OnWriterCommit, this);

    int version = 0;
    {
        sqlite3_stmt* stmt = nullptr;
        rc = sqlite3_prepare_v2(db, "PRAGMA user_version;", -1, &stmt, nullptr);
        if (rc != SQLITE_OK) {
            ZORV_LOG(kLogError, u"ZorvDAL::_InitDB", u"PRAGMA user_version failed. rc: %d", rc);
            sqlite3_finalize(stmt);
            return OpenResult::Failed;
        }
        rc = sqlite3_step(stmt);
        if (rc != SQLITE_ROW) {
            ZORV_LOG(kLogError, u"ZorvDAL::_InitDB", u"Init or Update Schema failed. rc: %d", rc);
            sqlite3_finalize(stmt);
            return OpenResult::Failed;
        }
        version = sqlite3_column_int(stmt, 0);
        sqlite3_finalize(stmt);
    }
    ZORV_LOG(kLogInfo, u"ZorvDAL::_InitDB", u"SCHEMA user_version: %d", version);
    ZORV_LOG(kLogInfo, u"ZorvDAL::_InitDB", u"Schema USER_VERSION defined in the code: %d", kSchemaVersion);

    if (version == 0) {
        ZORV_LOG(kLogInfo, u"ZorvDAL::_InitDB", u"SCHEMA SIZE: %d", static_cast<int>(m_schema.size()));
        for (size_t i = 0; i < m_schema.size(); ++i) {
            if (!ExecSchema(db, i)) {
                ZORV_LOG(kLogError, u"ZorvDAL::_InitDB", u"sqlite3_exec for schema size failed fro version 0. rc: %d",
                         sqlite3_errcode(db));
                return OpenResult::Failed;
            }
        }
    } else if (version >= 4 && version < kSchemaVersion) {
        for (size_t i = static_cast<size_t>(version - 3); i < m_schema.size(); ++i) {
            if (!ExecSchema(db, i)) {
                ZORV_LOG(kLogError, u"ZorvDAL::_InitDB", u"sqlite3_exec for schema size failed. rc: %d",
                         sqlite3_errcode(db));
                return OpenResult::Failed;
            }
        }
    } else if (version > kSchemaVersion) {
        // A file from a newer engine cannot be read safely, and its rules are
        // not ours to destroy: it is kept beside the path, and a fresh store
        // starts as on a first install.
        ZORV_LOG(kLogError, u"ZorvDAL::_InitDB", u"Unsupported DB user_verson: %d. current version: %d", version,
                 kSchemaVersion);
        Finalize();
        if (m_DB || readOnly) return OpenResult::Failed;
        return MoveAside(version) ? OpenResult::Newer : OpenResult::Failed;
    }
    // Versions 1 to 3 and negative ones are not known to the migration and
    // are used as they stand.
    return OpenResult::Opened;
}

bool ZorvDAL::MoveAside(int version) {
    constexpr const char16_t* kFn = u"ZorvDAL::MoveAside";
    namespace fs = std::filesystem;
    const fs::path file(m_dbPath);
    const std::u16string stem = m_dbPath + Utf8ToUtf16(".v" + std::to_string(version) + "-" + UtcStamp());
    // Two moves within one second must not overwrite the first.
    std::u16string target = stem;
    for (int n = 2; Exists(fs::path(target)) || Exists(fs::path(target + u"-wal")); ++n) {
        if (n > 100) {
            ZORV_LOG(kLogError, kFn, u"No free name to move the database at %s aside", m_dbPath);
            return false;
        }
        target = stem + Utf8ToUtf16("-" + std::to_string(n));
    }
    std::error_code error;
    fs::rename(file, fs::path(target), error);
    if (error) {
        ZORV_LOG(kLogError, kFn, u"Unable to move the version %d database at %s aside: %s", version, m_dbPath,
                 error.message());
        return false;
    }
    // The write-ahead log belongs to the moved file: left behind, it would be
    // read into the fresh one.
    const fs::path wal(m_dbPath + u"-wal");
    if (Exists(wal)) {
        fs::rename(wal, fs::path(target + u"-wal"), error);
        if (error) {
            ZORV_LOG(kLogError, kFn, u"Unable to move %s-wal aside: %s", m_dbPath, error.message());
            std::error_code back;
            fs::rename(fs::path(target), file, back);
            return false;
        }
    }
    // The shared-memory index is rebuilt from the log; one that stays behind
    // is only removed.
    const fs::path shm(m_dbPath + u"-shm");
    if (Exists(shm)) {
        fs::rename(shm, fs::path(target + u"-shm"), error);
        if (error) fs::remove(shm, error);
    }
    ZORV_LOG(kLogWarning, kFn, u"The database at %s has version %d, newer than %d; moved aside to %s", m_dbPath,
             version, kSchemaVersion, target);
    return true;
}

bool ZorvDAL::PrepareStatements() {
    // Held until the end: a failure below calls Finalize, which then keeps
    // the connection open for the next _InitDB to prepare again.
    const std::shared_ptr<sqlite3> db = m_DB;
    if (!db) {
        ZORV_LOG(kLogError, u"ZorvDAL::PrepareStatements", u"m_DB is released");
        return false;
    }
    const struct {
        Statement* member;
        const char* sql;
    } statements[] = {
        {&m_pInsertItemStmt, kInsertItemSql},
        {&m_pInsertTrustRuleStmt, kInsertTrustRuleSql},
        {&m_pInsertUserListStmt, kInsertUserListSql},
        {&m_pUpdatePrelinkItemStmt, kUpdatePrelinkItemSql},
        {&m_pLookupItemAuthStmt, dal::kLookupItemAuthSql},
        {&m_pLookupItemAuthRulesetStmt, dal::kLookupItemAuthRulesetSql},
        {&m_pLookupItemAlternateSHA1HashStmt, dal::kLookupItemAlternateSHA1HashSql},
        {&m_pLookupItemAlternateMD5HashStmt, dal::kLookupItemAlternateMD5HashSql},
        {&m_pLookupTrustRuleStmt, kLookupTrustRuleSql},
        {&m_pLookupUserListStmt, kLookupUserListSql},
        {&m_pUpdateTrustRuleHitcountStmt, kUpdateTrustRuleHitcountSql},
        {&m_pMetricsLookupTrustRuleStmt, kMetricsLookupTrustRuleSql},
        {&m_pLookupRuleCountStmt, kLookupRuleCountSql},
        {&m_pLookupTrustRuleCountStmt, kLookupTrustRuleCountSql},
        {&m_pLookupMD5CountStmt, kLookupMD5CountSql},
        {&m_pLookupSHA1CountStmt, kLookupSHA1CountSql},
        {&m_pLookupUserGroupTrustRuleCountStmt, kLookupUserGroupTrustRuleCountSql},
        {&m_pLookupRulesetCountStmt, kLookupRulesetCountSql},
        {&m_pLookupTrustRuleIDsStmt, kLookupTrustRuleIDsSql},
        {&m_pDeleteInventoryItemsStmt, kDeleteInventoryItemsSql},
        {&m_pGetAcStateStmt, dal::kGetAcStateSql},
        {&m_pSetAcStateStmt, kSetAcStateSql},
    };
    for (const auto& entry : statements) {
        if (*entry.member) continue;
        sqlite3_stmt* stmt = nullptr;
        const int rc = sqlite3_prepare_v2(db.get(), entry.sql, -1, &stmt, nullptr);
        entry.member->reset(stmt, FinalizeStatement);
        if (rc != SQLITE_OK) {
            ZORV_LOG(kLogError, u"ZorvDAL::PrepareStatements", u"sqlite3_prepare_v2 failed. rc: %d", rc);
            Finalize();
            return false;
        }
    }
    m_readers.Open(m_dbPath);
    return true;
}

void ZorvDAL::ReloadTrustRulesInternal() {
    if (m_DB) {
        m_trustRuleSet.Load(m_DB.get());
    } else {
        m_trustRuleSet.Clear();
    }
}

void ZorvDAL::Finalize() {
    // The readers and the rules go with the connection: answers after this
    // must come from a store that is open again.
    m_readers.Close();
    m_trustRuleSet.Clear();
    if (m_DB) {
        const int rc = sqlite3_wal_checkpoint_v2(m_DB.get(), nullptr, SQLITE_CHECKPOINT_FULL, nullptr, nullptr);
        if (rc != SQLITE_OK && rc != SQLITE_BUSY) {
            ZORV_LOG(kLogError, u"ZorvDAL::Finalize", u"Failed to checkpoint database: %s", sqlite3_errmsg(m_DB.get()));
        }
    }
    const struct {
        Statement* member;
        const char16_t* name;
    } statements[] = {
        {&m_pInsertItemStmt, u"m_pInsertItemStmt"},
        {&m_pInsertItemTempTableStmt, u"m_pInsertItemTempTableStmt"},
        {&m_pInsertTrustRuleStmt, u"m_pInsertTrustRuleStmt"},
        {&m_pInsertTrustRuleTempTableStmt, u"m_pInsertTrustRuleTempTableStmt"},
        {&m_pInsertUserListStmt, u"m_pInsertUserListStmt"},
        {&m_pInsertUserListTempTableStmt, u"m_pInsertUserListTempTableStmt"},
        {&m_pUpdatePrelinkItemStmt, u"m_pUpdatePrelinkItemStmt"},
        {&m_pLookupItemAuthStmt, u"m_pLookupItemAuthStmt"},
        {&m_pLookupItemAuthRulesetStmt, u"m_pLookupItemAuthRulesetStmt"},
        {&m_pLookupItemAlternateMD5HashStmt, u"m_pLookupItemAlternateMD5HashStmt"},
        {&m_pLookupItemAlternateSHA1HashStmt, u"m_pLookupItemAlternateSHA1HashStmt"},
        {&m_pLookupTrustRuleStmt, u"m_pLookupTrustRuleStmt"},
        {&m_pLookupUserListStmt, u"m_pLookupUserListStmt"},
        {&m_pUpdateTrustRuleHitcountStmt, u"m_pUpdateTrustRuleHitcountStmt"},
        {&m_pMetricsLookupTrustRuleStmt, u"m_pMetricsLookupTrustRuleStmt"},
        {&m_pLookupRuleCountStmt, u"m_pLookupRuleCountStmt"},
        {&m_pLookupTrustRuleCountStmt, u"m_pLookupTrustRuleCountStmt"},
        {&m_pLookupMD5CountStmt, u"m_pLookupMD5CountStmt"},
        {&m_pLookupSHA1CountStmt, u"m_pLookupSHA1CountStmt"},
        {&m_pLookupUserGroupTrustRuleCountStmt, u"m_pLookupUserGroupTrustRuleCountStmt"},
        {&m_pLookupRulesetCountStmt, u"m_pLookupRulesetCountStmt"},
        {&m_pLookupTrustRuleIDsStmt, u"m_pLookupTrustRuleIDsStmt"},
        {&m_pDeleteInventoryItemsStmt, u"m_pDeleteInventoryItemsStmt"},
        {&m_pGetAcStateStmt, u"m_pGetAcStateStmt"},
        {&m_pSetAcStateStmt, u"m_pSetAcStateStmt"},
    };
    // A statement another caller still holds stays alive with it; that
    // caller's reference finalizes it when the caller lets go.
    for (const auto& entry : statements) {
        if (entry.member->use_count() == 1) {
            entry.member->reset();
            ZORV_LOG(kLogError, u"ZorvDAL::Finalize", u"Finalize %s", entry.name);
        } else {
            ZORV_LOG(kLogError, u"ZorvDAL::Finalize", u"ignore Finalize %s", entry.name);
        }
    }
    // Statements go first: the connection closes for real only once none is
    // left (sqlite3_close_v2 otherwise leaves it a zombie until they are).
    if (m_DB.use_count() == 1) {
        m_DB.reset();
        ZORV_LOG(kLogError, u"ZorvDAL::Finalize", u"Finalize m_DB");
    } else {
        ZORV_LOG(kLogError, u"ZorvDAL::Finalize", u"ignore Finalize m_DB");
    }
}

// At a process's exit on Windows the system has ended every other thread
// before the library's teardown, whatever it held: the writer's lock, a read
// connection, SQLite's own mutexes, the log's. If one was inside the library
// then (a host's call, or a task of the write-behind worker), waiting on any
// of those would hang the host's exit for ever. The store is then left to the
// process's end, as after a crash: buffered rows are lost, and the log keeps
// what was committed.
bool ZorvDAL::LeftToTheProcessEnd() {
    const auto callsInside = m_callsInside.load();
    if (!platform::OtherThreadsEnded() ||
        !(m_writeBehind.EndedInsideATask() || (callsInside != nullptr && callsInside() != 0)))
        return false;
    m_writeBehind.Forsake();
    return true;
}

void ZorvDAL::Shutdown() {
    m_shutDown = true;
    // Decisions' writes first: the buffers below may hold what they add.
    m_writeBehind.Stop();
    if (m_DB) {
        // Each buffer is flushed under its own hold of the lock, so a caller
        // waiting on the lock gets in between the three transactions.
        const auto flush = [this](const char16_t* lockLine, const char16_t* unlockLine, auto isPending, auto run) {
            {
                std::lock_guard<std::mutex> lock(m_dbLock);
                if (!isPending()) return;
            }
            ZORV_LOG(kLogTrace, u"ZorvDAL::Shutdown", lockLine);
            std::lock_guard<std::mutex> lock(m_dbLock);
            run();
            ZORV_LOG(kLogTrace, u"ZorvDAL::Shutdown", unlockLine);
        };
        flush(u"StoreItemFlush lock", u"StoreItemFlush unlock", [this] { return !m_pendingItems.empty(); },
              [this] { StoreItemFlushInternal(); });
        flush(u"StoreTrustRuleFlush lock", u"StoreTrustRuleFlush unlock",
              [this] { return !m_pendingTrustRules.empty(); }, [this] { StoreTrustRuleFlushInternal(); });
        flush(u"StoreUserListFlush lock", u"StoreUserListFlush unlock",
              [this] { return !m_pendingUserLists.empty(); }, [this] { StoreUserListFlushInternal(); });
    }
    std::lock_guard<std::mutex> lock(m_initLock);
    Finalize();
}

bool ZorvDAL::DeleteDB() {
    ZORV_LOG(kLogTrace, u"ZorvDAL::DeleteDB", u"DeleteDB lock");
    std::lock_guard<std::mutex> lock(m_dbLock);
    const bool result = _DeleteDB();
    ZORV_LOG(kLogTrace, u"ZorvDAL::DeleteDB", u"DeleteDB unlock");
    return result;
}

bool ZorvDAL::_DeleteDB() {
    ZORV_LOG(kLogTrace, u"ZorvDAL::_DeleteDB", u"Attempting to delete database file at %s", m_dbPath);
    // The full checkpoint inside Finalize empties the write-ahead log into the
    // main file, so removing the main file alone removes the data.
    Finalize();
    const std::string path = Utf16ToUtf8(m_dbPath);
    errno = 0;
    if (std::remove(path.c_str()) != 0) {
        const int error = errno;
        ZORV_LOG(kLogError, u"ZorvDAL::_DeleteDB", u"Failed to delete database after closing. Errno: %d", error);
        return error == ENOENT;
    }
    ZORV_LOG(kLogTrace, u"ZorvDAL::_DeleteDB", u"Successfully deleted database file");
    return true;
}

bool ZorvDAL::PurgeDB(uint32_t kind) {
    ZORV_LOG(kLogTrace, u"ZorvDAL::PurgeDB", u"PurgeDB lock");
    std::lock_guard<std::mutex> lock(m_dbLock);
    bool result = true;
    bool deleted = false;
    char sql[128] = {};
    if (kind == 6) {
        std::snprintf(sql, sizeof sql, "%s", "DELETE FROM TrustRules; DELETE FROM UserList;");
    } else if (kind == 0) {
        deleted = _DeleteDB();
        if (!m_DB) {
            ZORV_LOG(kLogTrace, u"ZorvDAL::PurgeDB", u"Re-initializing database after %s deletion.",
                     deleted ? u"successful" : u"failed");
            if (!_InitDB(false)) {
                result = false;
                ZORV_LOG(kLogError, u"ZorvDAL::PurgeDB", u"Database closed and then failed to reopen during purge");
            }
        }
        // The file could not be removed: empty its tables instead.
        if (!deleted) {
            std::snprintf(sql, sizeof sql, "%s",
                          "DELETE FROM InventoryItems; DELETE FROM TrustRules; DELETE FROM UserList;");
        }
    } else {
        std::snprintf(sql, sizeof sql, "DELETE FROM InventoryItems WHERE source = %d;", static_cast<int>(kind));
    }

    // A freshly created file needs neither deleting nor vacuuming.
    if (m_DB && !deleted) {
        ZORV_LOG(kLogTrace, u"ZorvDAL::PurgeDB", u"executing %s", sql);
        const bool executed = sqlite3_exec(m_DB.get(), sql, nullptr, nullptr, nullptr) == SQLITE_OK;
        if (!executed) {
            ZORV_LOG(kLogTrace, u"ZorvDAL::PurgeDB", u"executing %s failed", sql);
        }
        ZORV_LOG(kLogTrace, u"ZorvDAL::PurgeDB", u"Vacuuming");
        const bool vacuumed = sqlite3_exec(m_DB.get(), "VACUUM;", nullptr, nullptr, nullptr) == SQLITE_OK;
        result = result && executed && vacuumed;
    }
    if (kind == 6 || kind == 0) ReloadTrustRulesInternal();
    ZORV_LOG(kLogTrace, u"ZorvDAL::PurgeDB", u"Returning from PurgeDB with retval %d unlock", result ? 1 : 0);
    return result;
}

std::u16string ZorvDAL::GetErrorString() {
    const std::shared_ptr<sqlite3> db = m_DB;
    const char* text = db ? sqlite3_errstr(sqlite3_errcode(db.get())) : sqlite3_errstr(-1);
    return Utf8ToUtf16(text != nullptr ? text : "");
}

}  // namespace zorv

// ZorvDAL storage: inventory items, trust rules and user-list entries, written
// one at a time or through the write-behind buffers, the prelink update, the
// removal of superseded items and the AppControlState accessors.
#include <limits>
#include <tuple>
#include <string>
#include <utility>

#include "ZorvDataAccessLayer.h"
#include "ZorvDataAccessLayerShared.h"
#include "ZorvLogger.h"
#include "ZorvQuery.h"
#include "ZorvStats.h"
#include "ZorvText.h"

namespace zorv {

namespace {

using dal::TracedLock;
using dal::kInsertItemTempTableSQL;
using dal::kInsertTrustRuleTempTableSQL;
using dal::kInsertUserListTempTableSQL;

constexpr char16_t kLogSource[] = u"src/zorv/ZorvDataAccessLayer";

// A buffer is written out once an append leaves more than this many entries.
constexpr size_t kBufferFlushThreshold = 50;

// Issuer fields in their fixed order CN, C, S, L, O, OU.
constexpr const char* kIssuerParameters[6] = {":issuerCN", ":issuerC", ":issuerS",
                                              ":issuerL",  ":issuerO", ":issuerOU"};
constexpr const char16_t* kIssuerDisplayNames[6] = {u"IssuerCN", u"IssuerC", u"IssuerS",
                                                    u"IssuerL",  u"IssuerO", u"IssuerOU"};

int ParameterIndex(sqlite3_stmt* stmt, const char* name) { return sqlite3_bind_parameter_index(stmt, name); }

// Records store an empty text as NULL, which the lookups read as "any".
int BindText(sqlite3_stmt* stmt, const char* name, std::u16string_view text) {
    const int index = ParameterIndex(stmt, name);
    if (text.empty()) return sqlite3_bind_null(stmt, index);
    // SQLite copies the text: one buffer per thread serves every bind of an
    // import instead of an allocation each.
    thread_local std::string utf8;
    Utf16ToUtf8(text, utf8);
    return sqlite3_bind_text(stmt, index, utf8.data(), static_cast<int>(utf8.size()), SQLITE_TRANSIENT);
}

// A setting's value is kept as given: an empty text stays '' (the default
// 'inventoryCookie' row holds '', and the export joins on its presence).
int BindTextAsIs(sqlite3_stmt* stmt, const char* name, std::u16string_view text) {
    const std::string utf8 = Utf16ToUtf8(text);
    return sqlite3_bind_text(stmt, ParameterIndex(stmt, name), utf8.data(), static_cast<int>(utf8.size()),
                             SQLITE_TRANSIENT);
}

// An absent digest leaves the parameter NULL, which is what clear_bindings left.
int BindDigest(sqlite3_stmt* stmt, const char* name, const Hash& hash) {
    if (!hash.IsSet()) return SQLITE_OK;
    return sqlite3_bind_blob(stmt, ParameterIndex(stmt, name), hash.Bytes(), static_cast<int>(hash.DigestSize()),
                             SQLITE_TRANSIENT);
}

int BindInt64(sqlite3_stmt* stmt, const char* name, uint64_t value) {
    return sqlite3_bind_int64(stmt, ParameterIndex(stmt, name), static_cast<sqlite3_int64>(value));
}

int BindInt(sqlite3_stmt* stmt, const char* name, int value) {
    return sqlite3_bind_int(stmt, ParameterIndex(stmt, name), value);
}

// The stored isAuthorized column. Any non-zero value reads as allowed, so an
// unknown state errs on the side of the allow list; that is deliberate.
int StoredAuthorization(uint32_t state) {
    switch (state) {
        case 1:
        case 3:
        case 4:
            return 1;
        case 2:
            return 0;
        default:
            ZORV_LOG(kLogWarning, u"ZorvDAL::StoreItemInternal",
                     u"Unhandled authorizedState %d, default to on the allow list(3)", state);
            return 3;
    }
}

// The extension tables are immutable, so one copy serves every thread; the
// store must answer without an engine too (store_item during an import, shutdown).
const ZorvQuery& ExtensionTables() {
    static const ZorvQuery tables;
    return tables;
}

// Prepares one of the import's temp-table inserts on first use. A failure
// leaves the handle empty so the next call tries again.
bool PrepareTempTableStatement(const std::shared_ptr<sqlite3>& db, std::shared_ptr<sqlite3_stmt>& stmt,
                               const char* sql, const char16_t* function, const char16_t* failureLine) {
    if (stmt) return true;
    if (!db) {
        ZORV_LOG(kLogError, function, u"m_DB is released");
        return false;
    }
    sqlite3_stmt* raw = nullptr;
    if (sqlite3_prepare_v2(db.get(), sql, -1, &raw, nullptr) != SQLITE_OK || raw == nullptr) {
        sqlite3_finalize(raw);
        ZORV_LOG(kLogError, function, failureLine, sqlite3_errmsg(db.get()));
        return false;
    }
    stmt.reset(raw, sqlite3_finalize);
    return true;
}

// Steps an insert; the new row id on SQLITE_DONE, 0 otherwise.
uint64_t StepInsert(sqlite3_stmt* stmt, const char16_t* function, int& lastRc) {
    const int rc = sqlite3_step(stmt);
    lastRc = rc == SQLITE_DONE ? SQLITE_OK : sqlite3_extended_errcode(sqlite3_db_handle(stmt));
    if (rc != SQLITE_DONE) {
        ZORV_LOG(kLogWarning, function, u"Unable to execute sqlite insert statement. Error code: %d", rc);
        return 0;
    }
    return static_cast<uint64_t>(sqlite3_last_insert_rowid(sqlite3_db_handle(stmt)));
}

// Writes a whole write-behind buffer in one transaction: one journal sync
// instead of one per row. Entries leave the buffer only once their
// transaction has committed; when any statement fails for the store's sake
// (a full disk, a foreign lock) nothing of the flush commits and every entry
// stays for the next flush. Only a row that can never be stored is given up.
template <typename Record, typename StoreOne>
uint64_t FlushBuffer(const std::shared_ptr<sqlite3>& held, std::deque<Record>& buffer, const char16_t* function,
                     const char16_t* name, const int& lastRc, StoreOne storeOne) {
    ZORV_LOG(kLogTrace, function, u"%s - %d items", name, buffer.size());
    if (buffer.empty()) return 0;
    if (!held) {
        ZORV_LOG(kLogError, function, u"m_DB is released");
        return 0;
    }
    sqlite3* db = held.get();
    auto giveUp = [&](const char16_t* step) {
        const int rc = sqlite3_extended_errcode(db);
        if (!dal::TransactionLost(db)) sqlite3_exec(db, "ROLLBACK TRANSACTION", nullptr, nullptr, nullptr);
        ZORV_LOG(kLogError, function, u"%s failed at %s (%d: %s); %d rows stay buffered for the next flush", name,
                 step, rc, sqlite3_errstr(rc), buffer.size());
        return uint64_t{0};
    };
    if (sqlite3_exec(db, "BEGIN TRANSACTION", nullptr, nullptr, nullptr) != SQLITE_OK) return giveUp(u"BEGIN");
    uint64_t stored = 0;
    for (size_t i = 0; i < buffer.size(); ++i) {
        if (storeOne(buffer[i]) != 0) {
            ++stored;
        } else if (dal::IsRowFault(lastRc)) {
            ZORV_LOG(kLogError, function, u"%s gave up a row that cannot be stored (%d: %s)", name, lastRc,
                     sqlite3_errstr(lastRc));
        } else {
            return giveUp(u"an insert");
        }
        if (dal::TransactionLost(db)) return giveUp(u"an insert");
    }
    if (sqlite3_exec(db, "END TRANSACTION", nullptr, nullptr, nullptr) != SQLITE_OK) return giveUp(u"END");
    buffer.clear();
    return stored;
}

}  // namespace

// The three buffers together; a buffered store that finds them full is refused.
size_t ZorvDAL::PendingRowsInternal() const {
    return m_pendingItems.size() + m_pendingTrustRules.size() + m_pendingUserLists.size();
}

// A buffered store past the threshold tries to write the buffer out; when the
// buffers are full and that fails too, the row is refused rather than accepted
// and later lost.
template <typename Record, typename Flush>
uint64_t ZorvDAL::AppendBuffered(std::deque<Record>& buffer, const Record& record, const char16_t* function,
                                 Flush flush) {
    if (PendingRowsInternal() >= kMaxBufferedRows) {
        // Whichever buffers filled them: all three are tried.
        StoreItemFlushInternal();
        StoreTrustRuleFlushInternal();
        StoreUserListFlushInternal();
        if (PendingRowsInternal() >= kMaxBufferedRows) {
            ZORV_LOG(kLogError, function, u"Write buffers are full (%d rows not yet stored); row refused",
                     PendingRowsInternal());
            return 0;
        }
    }
    buffer.push_back(record);
    if (buffer.size() <= kBufferFlushThreshold) return 1;
    const uint64_t stored = flush();
    // Not stored yet but kept for the next flush: the row is accepted.
    return stored != 0 ? stored : 1;
}


// ---- Conversion ----

void ZorvDAL::ConvertInventoryItem(const InventoryItemRecord& item, EngineEvent& event) {
    event.fileName = FromHostText(item.fileName);
    event.path = FromHostText(item.path);
    event.name = FromHostText(item.fullPath);
    // The lookup name is what the insert stores as the native path.
    event.lookupName = event.name;
    event.size = item.size;
    event.source = item.source;
    event.isAuthorized = item.isAuthorized != 0 ? 3 : 2;
    event.ruleset = FromHostText(item.ruleset);
    // The host always sends the three digests; zeroed ones are stored as zeroes.
    event.fileMd5.SetFromBytes(item.md5);
    event.fileSha1.SetFromBytes(item.sha1);
    event.fileSha256.SetFromBytes(item.sha256);
}

// ---- Inventory items ----

uint64_t ZorvDAL::StoreItem(EngineEvent& event) {
    // The exclusion check takes and releases the lock itself.
    if (IsFoundInTrustRules(3, event)) {
        ZORV_LOG(kLogTrace, u"ZorvDAL::StoreItem", u"StoreItem exclude path: %s ", event.name);
        ZorvStats::Instance().CountMetric(u"InventoryItemExcludedByTrustRule");
        return 0;
    }
    TracedLock lock(m_dbLock, u"ZorvDAL::StoreItem", u"StoreItem lock", u"StoreItem unlock");
    return StoreItemInternal(event, false);
}

uint64_t ZorvDAL::StoreItem(const InventoryItemRecord& item) {
    EngineEvent event;
    ConvertInventoryItem(item, event);
    return StoreItem(event);
}

uint64_t ZorvDAL::StoreItemBuffer(EngineEvent& event) {
    if (IsFoundInTrustRules(3, event)) {
        ZORV_LOG(kLogTrace, u"ZorvDAL::StoreItemBuffer", u"StoreItemBuffer exclude path: %s ", event.name);
        ZorvStats::Instance().CountMetric(u"InventoryItemExcludedByTrustRule");
        // An excluded item counts as handled for the buffered caller.
        return 1;
    }
    TracedLock lock(m_dbLock, u"ZorvDAL::StoreItemBuffer", u"StoreItemBuffer lock", u"StoreItemBuffer unlock");
    return AppendBuffered(m_pendingItems, static_cast<const EngineEvent&>(event), u"ZorvDAL::StoreItemBuffer",
                          [this] { return StoreItemFlushInternal(); });
}

uint64_t ZorvDAL::StoreItemBuffer(const InventoryItemRecord& item) {
    EngineEvent event;
    ConvertInventoryItem(item, event);
    return StoreItemBuffer(event);
}

uint64_t ZorvDAL::StoreItemFlush() {
    // Items decisions learned are written first, so that the flush holds them.
    m_writeBehind.Drain();
    TracedLock lock(m_dbLock, u"ZorvDAL::StoreItemFlush", u"StoreItemFlush lock", u"StoreItemFlush unlock");
    return StoreItemFlushInternal();
}

uint64_t ZorvDAL::StoreItemFlushInternal() {
    return FlushBuffer(m_DB, m_pendingItems, u"ZorvDAL::StoreItemFlushInternal", u"StoreItemFlush", m_lastInsertRc,
                       [this](const EngineEvent& record) { return StoreItemInternal(record, false); });
}

uint64_t ZorvDAL::StoreItemInternal(const EngineEvent& event, bool tempTable) {
    constexpr char16_t kFunction[] = u"ZorvDAL::StoreItemInternal";
    const bool scanned = event.source == AC_SOURCE_SCANNED;
    // Scanned items are stored lower-cased so the case-sensitive lookups and
    // deletions meet them; other sources arrive in the form they must keep.
    const std::u16string path = scanned ? ToLower(event.path) : event.path;
    const std::u16string fileName = scanned ? ToLower(event.fileName) : event.fileName;
    if (scanned) {
        const size_t dot = fileName.rfind(u'.');
        const std::u16string extension = dot == std::u16string::npos ? std::u16string() : fileName.substr(dot + 1);
        // No extension, a digit in it or a known one all count as handled.
        if (!ExtensionTables().IsExecutableExtension(fileName, extension)) {
            ZorvStats::Instance().IncrementCounter(CounterCategory::InventoryUnknownExtensions, extension);
            ZorvStats::Instance().CountMetric(u"TotalInventoryUnknownExtension");
        }
    }

    if (tempTable && !PrepareTempTableStatement(m_DB, m_pInsertItemTempTableStmt, kInsertItemTempTableSQL, kFunction,
                                                u"Unable to prepare insert trust rule temp table statement: %s")) {
        m_lastInsertRc = SQLITE_ERROR;
        return 0;
    }
    const StatementUse use(tempTable ? m_pInsertItemTempTableStmt : m_pInsertItemStmt);
    if (!use) {
        ZORV_LOG(kLogError, kFunction, u"m_pInsertItemStmt is released");
        m_lastInsertRc = SQLITE_MISUSE;
        return 0;
    }
    sqlite3_stmt* stmt = use.get();

    // Stops at the first failing bind; StatementUse clears what was bound.
    auto failed = [&](int rc, const char16_t* line) {
        if (rc == SQLITE_OK) return false;
        m_lastInsertRc = rc;
        ZORV_LOG(kLogWarning, kFunction, line);
        return true;
    };
    if (failed(BindDigest(stmt, ":md5", event.fileMd5), u"Unable to bind md5, aborting db insert") ||
        failed(BindDigest(stmt, ":sha1", event.fileSha1), u"Unable to bind sha1, aborting db insert") ||
        failed(BindDigest(stmt, ":sha256", event.fileSha256), u"Unable to bind sha256, aborting db insert") ||
        failed(BindInt(stmt, ":source", static_cast<int>(event.source)), u"Unable to bind source, aborting db insert") ||
        failed(BindText(stmt, ":fileName", fileName), u"Unable to bind filename, aborting db insert") ||
        failed(BindText(stmt, ":path", path), u"Unable to bind path, aborting db insert") ||
        failed(BindText(stmt, ":nativePath", event.lookupName), u"Unable to bind nativepath, aborting db insert") ||
        failed(BindInt64(stmt, ":size", event.size), u"Unable to bind size, aborting db insert") ||
        failed(BindInt64(stmt, ":recordTime", event.recordTime), u"Unable to bind recordtime, aborting db insert") ||
        failed(BindInt(stmt, ":isAuthorized", StoredAuthorization(event.isAuthorized)),
               u"Unable to bind isauthorized, aborting db insert") ||
        failed(BindText(stmt, ":ruleset", event.ruleset), u"Unable to bind ruleset, aborting db insert")) {
        return 0;
    }
    return StepInsert(stmt, kFunction, m_lastInsertRc);
}

// ---- Trust rules ----

uint64_t ZorvDAL::StoreTrustRule(const TrustRuleRecord& rule) {
    TracedLock lock(m_dbLock, u"ZorvDAL::StoreTrustRule", u"StoreTrustRule lock", u"StoreTrustRule unlock");
    const uint64_t stored = StoreTrustRuleInternal(rule, false);
    if (stored != 0) ReloadTrustRulesInternal();
    return stored;
}

uint64_t ZorvDAL::StoreTrustRuleBuffer(const TrustRuleRecord& rule) {
    TracedLock lock(m_dbLock, u"ZorvDAL::StoreTrustRuleBuffer", u"StoreTrustRuleBuffer lock",
                    u"StoreTrustRuleBuffer unlock");
    return AppendBuffered(m_pendingTrustRules, rule, u"ZorvDAL::StoreTrustRuleBuffer",
                          [this] { return StoreTrustRuleFlushInternal(); });
}

uint64_t ZorvDAL::StoreTrustRuleFlush() {
    TracedLock lock(m_dbLock, u"ZorvDAL::StoreTrustRuleFlush", u"StoreTrustRuleFlush lock",
                    u"StoreTrustRuleFlush unlock");
    return StoreTrustRuleFlushInternal();
}

uint64_t ZorvDAL::StoreTrustRuleFlushInternal() {
    const bool pending = !m_pendingTrustRules.empty();
    const uint64_t stored =
        FlushBuffer(m_DB, m_pendingTrustRules, u"ZorvDAL::StoreTrustRuleFlushInternal", u"StoreTrustRuleFlush", m_lastInsertRc,
                    [this](const TrustRuleRecord& record) { return StoreTrustRuleInternal(record, false); });
    if (pending) ReloadTrustRulesInternal();
    return stored;
}

uint64_t ZorvDAL::StoreTrustRuleInternal(const TrustRuleRecord& rule, bool tempTable) {
    constexpr char16_t kFunction[] = u"ZorvDAL::StoreTrustRuleInternal";
    if (tempTable &&
        !PrepareTempTableStatement(m_DB, m_pInsertTrustRuleTempTableStmt, kInsertTrustRuleTempTableSQL, kFunction,
                                   u"Unable to prepare insert trust rule temp table statement: %s")) {
        m_lastInsertRc = SQLITE_ERROR;
        return 0;
    }
    const StatementUse use(tempTable ? m_pInsertTrustRuleTempTableStmt : m_pInsertTrustRuleStmt);
    if (!use) {
        ZORV_LOG(kLogError, kFunction, u"m_pInsertTrustRuleStmt is released");
        m_lastInsertRc = SQLITE_MISUSE;
        return 0;
    }
    sqlite3_stmt* stmt = use.get();

    auto failed = [&](int rc, const char16_t* line) {
        if (rc == SQLITE_OK) return false;
        m_lastInsertRc = rc;
        ZORV_LOG(kLogWarning, kFunction, line);
        return true;
    };
    if (failed(BindText(stmt, ":processName", rule.processName), u"Unable to bind processName, aborting db insert") ||
        failed(BindText(stmt, ":paths", rule.paths), u"Unable to bind paths, aborting db insert") ||
        failed(BindInt(stmt, ":trustType", rule.trustType), u"Unable to bind trustType, aborting db insert") ||
        failed(BindText(stmt, ":signerName", rule.signerName), u"Unable to bind signerName, aborting db insert") ||
        failed(BindText(stmt, ":productName", rule.productName), u"Unable to bind productName, aborting db insert") ||
        failed(BindText(stmt, ":companyName", rule.companyName), u"Unable to bind companyName, aborting db insert") ||
        failed(BindDigest(stmt, ":sha256", rule.sha256), u"Unable to bind sha256, aborting db insert")) {
        return 0;
    }
    for (size_t i = 0; i < 6; ++i) {
        const int rc = BindText(stmt, kIssuerParameters[i], rule.issuer[i]);
        if (rc != SQLITE_OK) {
            m_lastInsertRc = rc;
            ZORV_LOG(kLogWarning, kFunction, u"Unable to bind %s, aborting db insert", kIssuerDisplayNames[i]);
            return 0;
        }
    }
    if (failed(BindText(stmt, ":ruleset", rule.ruleset), u"Unable to bind ruleset, aborting db insert") ||
        failed(BindText(stmt, ":procUser", rule.procUser), u"Unable to bind procUser, aborting db insert") ||
        failed(BindText(stmt, ":procGroup", rule.procGroup), u"Unable to bind procGroup, aborting db insert") ||
        failed(BindText(stmt, ":userList", rule.userList), u"Unable to bind userList, aborting db insert")) {
        return 0;
    }
    return StepInsert(stmt, kFunction, m_lastInsertRc);
}

// ---- User lists ----

uint64_t ZorvDAL::StoreUserList(const UserListRecord& entry) {
    TracedLock lock(m_dbLock, u"ZorvDAL::StoreUserList", u"StoreUserList lock", u"StoreUserList unlock");
    const uint64_t stored = StoreUserListInternal(entry, false);
    if (stored != 0) ReloadTrustRulesInternal();
    return stored;
}

uint64_t ZorvDAL::StoreUserListBuffer(const UserListRecord& entry) {
    TracedLock lock(m_dbLock, u"ZorvDAL::StoreUserListBuffer", u"StoreUserListBuffer lock",
                    u"StoreUserListBuffer unlock");
    return AppendBuffered(m_pendingUserLists, entry, u"ZorvDAL::StoreUserListBuffer",
                          [this] { return StoreUserListFlushInternal(); });
}

uint64_t ZorvDAL::StoreUserListFlush() {
    TracedLock lock(m_dbLock, u"ZorvDAL::StoreUserListFlush", u"StoreUserListFlush lock",
                    u"StoreUserListFlush unlock");
    return StoreUserListFlushInternal();
}

uint64_t ZorvDAL::StoreUserListFlushInternal() {
    const bool pending = !m_pendingUserLists.empty();
    const uint64_t stored =
        FlushBuffer(m_DB, m_pendingUserLists, u"ZorvDAL::StoreUserListFlushInternal", u"StoreUserListFlush", m_lastInsertRc,
                    [this](const UserListRecord& record) { return StoreUserListInternal(record, false); });
    if (pending) ReloadTrustRulesInternal();
    return stored;
}

uint64_t ZorvDAL::StoreUserListInternal(const UserListRecord& entry, bool tempTable) {
    constexpr char16_t kFunction[] = u"ZorvDAL::StoreUserListInternal";
    if (tempTable &&
        !PrepareTempTableStatement(m_DB, m_pInsertUserListTempTableStmt, kInsertUserListTempTableSQL, kFunction,
                                   u"Unable to prepare insert UserList temp table statement: %s")) {
        m_lastInsertRc = SQLITE_ERROR;
        return 0;
    }
    const StatementUse use(tempTable ? m_pInsertUserListTempTableStmt : m_pInsertUserListStmt);
    if (!use) {
        ZORV_LOG(kLogError, kFunction, u"m_pInsertUserListStmt is released");
        m_lastInsertRc = SQLITE_MISUSE;
        return 0;
    }
    sqlite3_stmt* stmt = use.get();
    for (const auto& [parameter, text, line] :
         {std::tuple{":id", &entry.id, u"Unable to bind id, aborting db insert"},
          std::tuple{":user", &entry.user, u"Unable to bind user, aborting db insert"}}) {
        const int rc = BindText(stmt, parameter, *text);
        if (rc != SQLITE_OK) {
            m_lastInsertRc = rc;
            ZORV_LOG(kLogWarning, kFunction, line);
            return 0;
        }
    }
    return StepInsert(stmt, kFunction, m_lastInsertRc);
}

// ---- Items the engine decided on ----

bool ZorvDAL::StoreEventItem(EngineEvent& event) {
    // The caller sees the source the row will have; the row itself is written
    // beside the decision, which must not wait for the writer.
    if (event.source != AC_SOURCE_SCANNED && event.source != AC_SOURCE_PRELINK) {
        event.source = AC_SOURCE_APPROVED_DRIFT;
    }
    m_writeBehind.Post([this, item = event]() mutable { StoreEventItemNow(item); });
    return true;
}

void ZorvDAL::StoreEventItemNow(EngineEvent& event) {
    switch (event.source) {
        case AC_SOURCE_SCANNED:
            StoreItemBuffer(event);
            break;
        case AC_SOURCE_PRELINK:
            UpdatePrelinkItem(event);
            break;
        default:
            // Approved drift replaces the older scanned or drift rows of the same file.
            event.source = AC_SOURCE_APPROVED_DRIFT;
            DeleteInventoryItems(event);
            StoreItem(event);
            break;
    }
}

void ZorvDAL::SetPrelinkOldHash(const SHA256Hash& hash) {
    std::lock_guard<std::mutex> lock(m_dbLock);
    m_prelinkOldHash = hash;
}

bool ZorvDAL::UpdatePrelinkItem(EngineEvent& event) {
    constexpr char16_t kFunction[] = u"ZorvDAL::UpdatePrelinkItem";
    const Statement held = m_pUpdatePrelinkItemStmt;
    if (!held) {
        ZORV_LOG(kLogError, kFunction, u"m_pUpdatePrelinkItemStmt is released");
        return false;
    }
    TracedLock lock(m_dbLock, kFunction, u"Updating prelink item lock", u"UpdatePrelinkItem unlock");
    // Declared after the lock so the reset happens before it is released.
    const StatementUse use(held);
    if (!m_prelinkOldHash.IsSet() || !event.fileSha256.IsSet()) {
        ZorvStats::Instance().CountMetric(u"RunPrelinkNohash");
        return false;
    }

    sqlite3_stmt* stmt = use.get();
    // A failed bind leaves its parameter NULL, which matches nothing; the
    // update still runs so that the fallback below decides.
    const int results[] = {
        BindDigest(stmt, ":hash", event.fileSha256),
        BindInt64(stmt, ":size", event.size),
        BindInt64(stmt, ":recordTime", event.recordTime),
        BindDigest(stmt, ":oldhash", m_prelinkOldHash),
        BindText(stmt, ":path", event.path),
        BindText(stmt, ":fileName", event.fileName),
    };
    for (const int rc : results) {
        if (rc != SQLITE_OK) {
            ZORV_LOG(kLogWarning, kFunction,
                     u"SQLite error %d binding attribute parameters to update statement for file '%s'\n", rc,
                     event.name);
        }
    }

    const int rc = sqlite3_step(stmt);
    const int changed = rc == SQLITE_DONE ? sqlite3_changes(sqlite3_db_handle(stmt)) : 0;
    if (changed > 0) {
        ZorvStats::Instance().CountMetric(u"RunPrelinkUpdated");
        if (changed > 1) {
            ZORV_LOG(kLogWarning, kFunction, u"Prelink updated more (%d) then we expected\n", changed);
        }
        return true;
    }

    // No row held the old hash: the file is new to the prelink set, so it is
    // kept only if the inventory already approves its new content.
    EngineEvent probe = event;
    if (!IsAllowedInDBInternal(probe) || probe.dbVerdict == AC_DB_NOT_KNOWN) {
        ZORV_LOG(kLogTrace, kFunction, u"Unapproved %s %s %d", event.path, event.fileName, event.size);
        ZorvStats::Instance().CountMetric(u"RunPrelinkUnapproved");
    } else {
        StoreItemInternal(event, false);
        ZorvStats::Instance().CountMetric(u"RunPrelinkApproved");
    }
    return probe.dbVerdict == AC_DB_ALLOWED;
}

bool ZorvDAL::DeleteInventoryItems(const EngineEvent& event) {
    constexpr char16_t kFunction[] = u"ZorvDAL::DeleteInventoryItems";
    const Statement held = m_pDeleteInventoryItemsStmt;
    if (!held) {
        ZORV_LOG(kLogError, kFunction, u"m_pDeleteInventoryItemsStmt is released");
        return false;
    }
    // Directories are stored both with and without their trailing separator;
    // :path2 is the other spelling so that both are removed. The statement
    // compares the stored path lowered, so both are bound lowered: a path as
    // the host gave it (mixed case on Linux) would match nothing.
    const std::u16string path = ToLower(event.path);
    std::u16string otherSpelling = path;
    if (!otherSpelling.empty()) {
        const char16_t last = otherSpelling.back();
        if (last == u'\\' || last == u'/') {
            otherSpelling.pop_back();
        } else {
            const bool posixStyle = otherSpelling.find(u'/') != std::u16string::npos &&
                                    otherSpelling.find(u'\\') == std::u16string::npos;
            otherSpelling.push_back(posixStyle ? u'/' : u'\\');
        }
    }
    TracedLock lock(m_dbLock, kFunction, u"DeleteInventoryItems lock", u"DeleteInventoryItems unlock");
    const StatementUse use(held);
    sqlite3_stmt* stmt = use.get();
    BindTextAsIs(stmt, ":fileName", event.fileName);
    BindTextAsIs(stmt, ":path", path);
    BindTextAsIs(stmt, ":path2", otherSpelling);
    if (sqlite3_step(stmt) != SQLITE_DONE) {
        ZORV_LOG(kLogWarning, kFunction, u"Unable to delete from any hash");
        return false;
    }
    const int deleted = sqlite3_changes(sqlite3_db_handle(stmt));
    ZORV_LOG(kLogTrace, kFunction, u"Deleted %d rows", deleted);
    // Only this operation grows the counter, and it holds the database lock.
    ZorvStats& stats = ZorvStats::Instance();
    stats.SetMetric(u"TotalDeletedEvents", stats.GetMetric(u"TotalDeletedEvents") + static_cast<uint64_t>(deleted));
    return true;
}

// ---- AppControlState ----

ZorvDAL::SettingRead ZorvDAL::ReadAppControlState(const std::u16string& settingName, std::u16string& value) {
    constexpr char16_t kFunction[] = u"ZorvDAL::GetAppControlState";
    // Decisions read settings (time-stamp mode) and must not wait for the
    // writer: a read connection sees the last committed value beside it.
    if (const ZorvReadConnections::Lease reader = m_readers.Acquire()) {
        ZORV_LOG(kLogTrace, kFunction, u"GetAppControlState lock");
        const SettingRead read = ReadAppControlStateFrom((*reader).setting, settingName, value);
        ZORV_LOG(kLogTrace, kFunction, u"GetAppControlState unlock");
        return read;
    }
    const Statement held = m_pGetAcStateStmt;
    if (!held) {
        ZORV_LOG(kLogError, kFunction, u"m_pGetAcStateStmt is released");
        return SettingRead::Failed;
    }
    TracedLock lock(m_dbLock, kFunction, u"GetAppControlState lock", u"GetAppControlState unlock");
    return ReadAppControlStateFrom(held, settingName, value);
}

ZorvDAL::SettingRead ZorvDAL::ReadAppControlStateFrom(const Statement& held, const std::u16string& settingName,
                                                      std::u16string& value) {
    constexpr char16_t kFunction[] = u"ZorvDAL::GetAppControlState";
    const StatementUse use(held);
    sqlite3_stmt* stmt = use.get();
    BindTextAsIs(stmt, ":setting", settingName);
    const int rc = sqlite3_step(stmt);
    if (rc == SQLITE_DONE) {
        ZORV_LOG(kLogTrace, kFunction, u"Unable to get AppControl Setting for %s", settingName);
        return SettingRead::Absent;
    }
    if (rc != SQLITE_ROW) {
        // Not "absent": a caller that took it so would act on a value it never
        // read. The settings live in the same file as the rules, so this is the
        // store's health too (and logged once per change of it).
        const char* error = sqlite3_errstr(sqlite3_errcode(sqlite3_db_handle(stmt)));
        NoteStoreFault(kFunction, rc,
                       u"Unable to read AppControl Setting " + settingName + u": " + Utf8ToUtf16(error ? error : ""));
        return SettingRead::Failed;
    }
    const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(stmt, 0));
    value = text != nullptr ? Utf8ToUtf16(std::string_view(text, sqlite3_column_bytes(stmt, 0))) : std::u16string();
    ZORV_LOG(kLogTrace, kFunction, u"Found AppControl Setting for %s value %s", settingName, value);
    return SettingRead::Found;
}

bool ZorvDAL::GetAppControlState(const std::u16string& settingName, std::u16string& value) {
    return ReadAppControlState(settingName, value) == SettingRead::Found;
}

bool ZorvDAL::SetAppControlState(const std::u16string& settingName, const std::u16string& value) {
    constexpr char16_t kFunction[] = u"ZorvDAL::SetAppControlState";
    const Statement held = m_pSetAcStateStmt;
    if (!held) {
        ZORV_LOG(kLogError, kFunction, u"m_pSetAcStateStmt is released");
        return false;
    }
    TracedLock lock(m_dbLock, kFunction, u"SetAppControlState lock", u"SetAppControlState unlock");
    const StatementUse use(held);
    sqlite3_stmt* stmt = use.get();
    BindTextAsIs(stmt, ":setting", settingName);
    BindTextAsIs(stmt, ":value", value);
    // Only existing rows are updated: an unknown name changes nothing and succeeds.
    if (sqlite3_step(stmt) != SQLITE_DONE) {
        ZORV_LOG(kLogWarning, kFunction, u"Unable to set application control state setting %s value %s", settingName,
                 value);
        return false;
    }
    ZORV_LOG(kLogTrace, kFunction, u"Set application control state setting %s value %s", settingName, value);
    return true;
}

bool ZorvDAL::SetAppControlStateValue(const std::u16string& settingName, uint64_t value) {
    // All bits set is the configuration's "not known", stored as the rows' default -1.
    const std::string text =
        value == std::numeric_limits<uint64_t>::max() ? std::string("-1") : std::to_string(value);
    return SetAppControlState(settingName, Utf8ToUtf16(text));
}

}  // namespace zorv

// Inventory lookup and trust-rule matching: the two questions the decision
// code asks the rule store on every execution event.
#include <algorithm>
#include <array>
#include <bit>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "AppControlConfig.h"
#include "ZorvDataAccessLayer.h"
#include "ZorvDataAccessLayerShared.h"
#include "ZorvLogger.h"
#include "ZorvStats.h"
#include "ZorvText.h"
#include "ZorvTrustRuleSet.h"
#include "ZorvWildcard.h"

namespace zorv {

namespace {

using dal::TracedLock;

constexpr char16_t kLogSource[] = u"src/zorv/ZorvDataAccessLayer";

// ---- Database helpers ----

// Columns of "SELECT * FROM InventoryItems".
constexpr int kItemId = 0;
constexpr int kItemIsAuthorized = 9;
constexpr int kItemSource = 10;
constexpr int kItemRuleset = 11;

// Columns of the trust-rule lookup.
constexpr int kRuleId = 0;
constexpr int kRulePaths = 1;
constexpr int kRuleHitcount = 2;
constexpr int kRuleProcessName = 3;
constexpr int kRuleRuleset = 4;
constexpr int kRuleProcGroup = 5;

// The value of EngineEvent::trustOrigin that says a trust rule accepted the event.
constexpr uint64_t kTrustOriginTrustRule = 4;

// Issuer fields in their fixed order CN, C, S, L, O, OU.
constexpr size_t kIssuerCount = 6;
constexpr std::array<const char*, kIssuerCount> kIssuerParameters = {":issuerCN", ":issuerC", ":issuerS",
                                                                     ":issuerL",  ":issuerO", ":issuerOU"};

void ResetStatement(sqlite3_stmt* stmt) {
    sqlite3_reset(stmt);
    sqlite3_clear_bindings(stmt);
}

std::u16string ColumnText(sqlite3_stmt* stmt, int column) {
    const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(stmt, column));
    if (text == nullptr) return {};
    return Utf8ToUtf16(std::string_view(text, static_cast<size_t>(sqlite3_column_bytes(stmt, column))));
}

// Bound in place, not copied: every statement is reset and cleared before the
// event it reads from goes away.
bool BindDigest(sqlite3_stmt* stmt, const char* name, const Hash& hash) {
    const int index = sqlite3_bind_parameter_index(stmt, name);
    return index != 0 && sqlite3_bind_blob(stmt, index, hash.Bytes(), static_cast<int>(hash.DigestSize()),
                                           SQLITE_STATIC) == SQLITE_OK;
}

bool BindSizeAndHash(sqlite3_stmt* stmt, const EngineEvent& event) {
    const int size = sqlite3_bind_parameter_index(stmt, ":size");
    return size != 0 && sqlite3_bind_int64(stmt, size, static_cast<sqlite3_int64>(event.size)) == SQLITE_OK &&
           BindDigest(stmt, ":hash", event.fileSha256);
}

// The lookup compares with '=', so an empty text must stay '' here: NULL would
// match no rule at all, while '' matches only rules without that condition.
int BindLookupText(sqlite3_stmt* stmt, const char* name, std::u16string_view text) {
    const std::string utf8 = Utf16ToUtf8(text);
    return sqlite3_bind_text(stmt, sqlite3_bind_parameter_index(stmt, name), utf8.c_str(), -1, SQLITE_TRANSIENT);
}

void SetVerdict(EngineEvent& event, bool allowed, uint32_t reason) {
    event.dbVerdict = allowed ? AC_DB_ALLOWED : AC_DB_BLOCKED;
    event.isAuthorized = reason;
}

bool CollectTrustAttributes(uint32_t trustType, const EngineEvent& event, TrustQuery& out) {
    static const std::u16string kEmpty;
    out.trustType = trustType;
    out.processName = ToLower(event.processName);
    switch (trustType) {
        case 1:
            out.signerName = &event.processSignerName;
            out.productName = &event.processProductName;
            out.companyName = &event.processCompanyName;
            for (size_t i = 0; i < kIssuerCount; ++i) out.issuer[i] = &event.processIssuer[i];
            out.sha256 = &event.processSha256;
            break;
        case 2:
        case 4:
            out.signerName = &event.fileSignerName;
            out.productName = &event.fileProductName;
            out.companyName = &event.fileCompanyName;
            for (size_t i = 0; i < kIssuerCount; ++i) out.issuer[i] = &event.fileIssuer[i];
            out.sha256 = &event.fileSha256;
            break;
        case 3:
            // Exclusion by process name alone: every other condition is bound
            // empty, so only rules without one can match.
            out.signerName = out.productName = out.companyName = &kEmpty;
            for (size_t i = 0; i < kIssuerCount; ++i) out.issuer[i] = &kEmpty;
            return true;
        default:
            return false;
    }
    out.user = ToLower(event.user);
    out.group = ToLower(event.group);
    return true;
}

void LogTrustRuleMiss(const TrustQuery& query, const EngineEvent& event) {
    constexpr char16_t kFunction[] = u"ZorvDAL::IsFoundInTrustRulesInternal";
    ZORV_LOG(kLogTrace, kFunction, u"No applicable trust rule found in database");
    ZORV_LOG(kLogTrace, kFunction,
             u"Following event is not in trust rules: processName='%s' path='%s' trustType=%d signerName='%s' "
             u"productName='%s' companyName='%s' issuerCN='%s' IssuerC='%s' IssuerS='%s' IssuerL='%s' "
             u"IssuerO='%s' IssuerOU='%s' procUser='%s' procGroup='%s'",
             query.processName, event.name, query.trustType, *query.signerName, *query.productName,
             *query.companyName, *query.issuer[0], *query.issuer[1], *query.issuer[2], *query.issuer[3],
             *query.issuer[4], *query.issuer[5], query.user, query.group);
}

// The SQL INSTR only says the rule's group occurs somewhere in the list; here
// one whole ','-separated member must equal it ("admin" is not "administrators").
bool GroupListContains(std::u16string_view groups, std::u16string_view wanted) {
    size_t start = 0;
    while (start <= groups.size()) {
        size_t end = groups.find(u',', start);
        if (end == std::u16string_view::npos) end = groups.size();
        if (groups.substr(start, end - start) == wanted) return true;
        start = end + 1;
    }
    return false;
}

}  // namespace

bool ZorvDAL::WildcardMatch(std::u16string_view text, std::u16string_view pattern) {
    return WildcardPattern::CompileOne(pattern).Match(text);
}

bool ZorvDAL::MatchEventPathWithRulePath(std::u16string text, std::u16string patterns) {
    ToLowerInPlace(text);
    ToLowerInPlace(patterns);
    if (!WildcardPattern::CompileList(patterns).Match(text)) return false;
    // The whole list is matched in one pass; naming the pattern that matched
    // takes a second look, paid only once a rule has matched.
    size_t start = 0;
    while (start <= patterns.size()) {
        size_t end = patterns.find(u';', start);
        if (end == std::u16string::npos) end = patterns.size();
        const std::u16string_view pattern(patterns.data() + start, end - start);
        if (!pattern.empty() && WildcardMatch(text, pattern)) {
            ZORV_LOG(kLogTrace, u"ZorvDAL::MatchEventPathWithRulePath",
                     u"Match found between event path [%s] and rule path [%s]", text, pattern);
            break;
        }
        start = end + 1;
    }
    return true;
}

// ---- Store health ----

namespace {

// SQLite's word that the file itself is bad, as opposed to busy or short of
// a resource for the moment.
bool IsDamage(int rc) {
    const int primary = rc & 0xff;
    return primary == SQLITE_CORRUPT || primary == SQLITE_NOTADB;
}

// A step that neither found a row nor finished did not look.
bool StepFailed(int rc) { return rc != SQLITE_ROW && rc != SQLITE_DONE; }

// The text GetErrorString gives, for the connection a lookup used.
std::u16string ErrorText(sqlite3* db) {
    const char* text = sqlite3_errstr(db != nullptr ? sqlite3_errcode(db) : -1);
    return Utf8ToUtf16(text != nullptr ? text : "");
}

}  // namespace

void ZorvDAL::ResetStoreHealth() {
    m_storeDamaged.store(false, std::memory_order_relaxed);
    m_storeHealthy.store(true, std::memory_order_relaxed);
}

void ZorvDAL::NoteStoreAnswered() {
    if (m_storeHealthy.load(std::memory_order_relaxed) || m_storeDamaged.load(std::memory_order_relaxed)) return;
    if (!m_storeHealthy.exchange(true, std::memory_order_relaxed)) {
        ZORV_LOG(kLogError, u"ZorvDAL::NoteStoreAnswered",
                 u"The rule store answers again; execution decisions are made from it");
    }
}

void ZorvDAL::NoteStoreFault(const char16_t* function, int rc, const std::u16string& reason) {
    if (IsDamage(rc)) m_storeDamaged.store(true, std::memory_order_relaxed);
    // Once per change of health, not once per event: a damaged store would
    // otherwise write a line for every process start on the machine.
    if (m_storeHealthy.exchange(false, std::memory_order_relaxed)) {
        ZORV_LOG(kLogError, function,
                 u"The rule store cannot answer (%s, rc %d); execution decisions fail until it does%s", reason, rc,
                 m_storeDamaged.load(std::memory_order_relaxed) ? u", and a damaged file until it is replaced" : u"");
    } else {
        ZORV_LOG(kLogTrace, function, u"The rule store cannot answer (%s, rc %d)", reason, rc);
    }
}

// ---- Inventory lookup ----

bool ZorvDAL::IsAllowedInDB(EngineEvent& event) {
    constexpr char16_t kFunction[] = u"ZorvDAL::IsAllowedInDB";
    // A read connection of its own: no wait for the writer or other lookups.
    if (const ZorvReadConnections::Lease reader = m_readers.Acquire()) {
        ZORV_LOG(kLogTrace, kFunction, u"IsAllowedInDB lock");
        const bool result = IsAllowedInDBInternal(event, *reader);
        ZORV_LOG(kLogTrace, kFunction, u"IsAllowedInDB unlock");
        return result;
    }
    TracedLock lock(m_dbLock, kFunction, u"IsAllowedInDB lock", u"IsAllowedInDB unlock");
    return IsAllowedInDBInternal(event);
}

bool ZorvDAL::IsAllowedInDBInternal(EngineEvent& event) {
    ZorvReadConnections::Lookups writer;
    writer.db = m_DB;
    writer.ruleset = m_pLookupItemAuthRulesetStmt;
    writer.sha1 = m_pLookupItemAlternateSHA1HashStmt;
    writer.md5 = m_pLookupItemAlternateMD5HashStmt;
    writer.any = m_pLookupItemAuthStmt;
    return IsAllowedInDBInternal(event, writer);
}

ZorvDAL::Statement ZorvDAL::IsAllowedInDBSearch(EngineEvent& event, int& rc,
                                                const ZorvReadConnections::Lookups& lookups) {
    constexpr char16_t kFunction[] = u"ZorvDAL::IsAllowedInDBSearch";
    rc = SQLITE_ERROR;
    // Each way the search can fail to look: the verdict stays "not known" and
    // the event learns that the store, not the event, was at fault.
    const auto fault = [&](int code, const std::u16string& reason) -> Statement {
        event.dbVerdict = AC_DB_NOT_KNOWN;
        event.storeFault = 1;
        rc = code;
        NoteStoreFault(kFunction, code, reason);
        return {};
    };
    if (!lookups.db) return fault(SQLITE_MISUSE, u"m_DB is released");
    // What SQLite called damaged is not read again until the file is replaced:
    // an answer from the pages it did not trip over could still be wrong.
    if (m_storeDamaged.load(std::memory_order_relaxed)) return fault(SQLITE_CORRUPT, u"damaged file");

    // 1. Ruleset rows (sources 1 and 2) by SHA-256 and size.
    Statement ruleset = lookups.ruleset;
    if (!ruleset) return fault(SQLITE_MISUSE, u"m_pLookupItemAuthRulesetStmt is released");
    if (!event.fileSha256.IsSet()) {
        ZORV_LOG(kLogError, kFunction, u"SHA256 value is empty, unable to create query");
        return {};
    }
    if (!BindSizeAndHash(ruleset.get(), event)) {
        ZORV_LOG(kLogWarning, kFunction, u"Unable to create query");
        sqlite3_clear_bindings(ruleset.get());
        return fault(sqlite3_errcode(lookups.db.get()), u"Unable to create query");
    }
    rc = sqlite3_step(ruleset.get());
    if (rc == SQLITE_ROW) return ruleset;
    if (StepFailed(rc)) {
        // Falling through to the next query would let a row of a lower rank
        // answer for a ruleset row the store could not read.
        ResetStatement(ruleset.get());
        return fault(rc, u"DAL Error" + ErrorText(lookups.db.get()));
    }
    ZORV_LOG(kLogTrace, kFunction,
             u"Did not find sha256 match with source=2 or source=1. Checking for sha1 or md5 match");
    ResetStatement(ruleset.get());

    // 2. and 3. Rules known only by SHA-1 or MD5. The counts keep the common
    // case at the one indexed query above: most stores hold no such rules.
    sqlite3_stmt* lastUsed = nullptr;
    const int64_t sha1Rules = m_sha1RuleCount;
    if (sha1Rules != 0 && event.fileSha1.IsSet()) {
        ZORV_LOG(kLogTrace, kFunction, u"The number of sha1 rules is: %d", sha1Rules);
        Statement sha1 = lookups.sha1;
        if (!sha1) return fault(SQLITE_MISUSE, u"m_pLookupItemAlternateSHA1HashStmt is released");
        if (!BindDigest(sha1.get(), ":sha1", event.fileSha1)) {
            ZORV_LOG(kLogWarning, kFunction, u"Unable to create query from sha1");
            sqlite3_clear_bindings(sha1.get());
            return fault(sqlite3_errcode(lookups.db.get()), u"Unable to create query from sha1");
        }
        rc = sqlite3_step(sha1.get());
        if (rc == SQLITE_ROW) return sha1;
        ResetStatement(sha1.get());
        if (StepFailed(rc)) return fault(rc, u"DAL Error" + ErrorText(lookups.db.get()));
    }
    const int64_t md5Rules = m_md5RuleCount;
    if (md5Rules != 0 && event.fileMd5.IsSet()) {
        ZORV_LOG(kLogTrace, kFunction, u"The number of md5 rules is: %d", md5Rules);
        Statement md5 = lookups.md5;
        if (!md5) return fault(SQLITE_MISUSE, u"m_pLookupItemAlternateMD5HashStmt is released");
        if (!BindDigest(md5.get(), ":md5", event.fileMd5)) {
            ZORV_LOG(kLogWarning, kFunction, u"Unable to create query from md5");
            sqlite3_clear_bindings(md5.get());
            return fault(sqlite3_errcode(lookups.db.get()), u"Unable to create query from md5");
        }
        rc = sqlite3_step(md5.get());
        if (rc == SQLITE_ROW) return md5;
        lastUsed = md5.get();
        if (StepFailed(rc)) {
            ResetStatement(lastUsed);
            return fault(rc, u"DAL Error" + ErrorText(lookups.db.get()));
        }
    }
    ZORV_LOG(kLogTrace, kFunction, u"Did not find item with source=2 or source=1.");
    if (lastUsed != nullptr) ResetStatement(lastUsed);

    // 4. Any row by SHA-256 and size.
    Statement any = lookups.any;
    if (!any) return fault(SQLITE_MISUSE, u"m_pLookupItemAuthStmt is released");
    if (!BindSizeAndHash(any.get(), event)) {
        ZORV_LOG(kLogWarning, kFunction, u"Unable to create query");
        sqlite3_clear_bindings(any.get());
        return fault(sqlite3_errcode(lookups.db.get()), u"Unable to create query");
    }
    rc = sqlite3_step(any.get());
    return any;
}

bool ZorvDAL::IsAllowedInDBInternal(EngineEvent& event, const ZorvReadConnections::Lookups& lookups) {
    constexpr char16_t kFunction[] = u"ZorvDAL::IsAllowedInDBInternal";
    int rc = SQLITE_ERROR;
    Statement found = IsAllowedInDBSearch(event, rc, lookups);
    if (!found) return false;
    // Reset and cleared however this ends, also after a step error.
    const StatementUse use(std::move(found));
    sqlite3_stmt* row = use.get();

    bool read = false;
    while (rc == SQLITE_ROW) {
        read = true;
        const int source = sqlite3_column_int(row, kItemSource);
        const int isAuthorized = sqlite3_column_int(row, kItemIsAuthorized);
        ZORV_LOG(kLogTrace, kFunction, u"Found result in inventory with Source= %d and isAuthorized= %d.", source,
                 isAuthorized);
        switch (source) {
            case 1:
                SetVerdict(event, true, AC_REASON_APPROVED);
                break;
            case 2: {
                const bool allowed = IsAllowedInRuleSet(row, event);
                SetVerdict(event, allowed, allowed ? AC_REASON_APPROVED : AC_REASON_BLOCKED);
                break;
            }
            case 3:
                // Approved whatever the answer: a scanned item is known, only
                // the rebuild state may veto running it.
                SetVerdict(event, IsAllowedInInventory(row, event), AC_REASON_APPROVED);
                break;
            default:
                // An item that was never authorized leaves the verdict to the caller.
                if (isAuthorized != 0) SetVerdict(event, IsAllowedInDrift(row, event), AC_REASON_APPROVED);
                break;
        }
        event.source = static_cast<uint32_t>(source);
        event.ruleset = ColumnText(row, kItemRuleset);
        rc = sqlite3_step(row);
    }
    if (rc != SQLITE_DONE) {
        // What the loop wrote came from a read that did not finish: no verdict.
        event.dbVerdict = AC_DB_NOT_KNOWN;
        event.storeFault = 1;
        NoteStoreFault(kFunction, rc, u"DAL Error" + ErrorText(lookups.db.get()));
        return false;
    }
    NoteStoreAnswered();
    if (!read) {
        event.dbVerdict = AC_DB_NOT_KNOWN;
        event.isAuthorized = AC_REASON_NONE;
        ZORV_LOG(kLogTrace, kFunction, u"No results found in database");
    }
    return true;
}

bool ZorvDAL::IsAllowedInRuleSet(sqlite3_stmt* row, EngineEvent&) {
    constexpr char16_t kFunction[] = u"ZorvDAL::IsAllowedInRuleSet";
    ZORV_LOG(kLogTrace, kFunction, u"Checking %s\n", u"IsAllowedInRuleSet");
    const AppControlConfig& config = AppControlConfig::Instance();
    const uint64_t id = static_cast<uint64_t>(sqlite3_column_int64(row, kItemId));
    const bool authorized = sqlite3_column_int(row, kItemIsAuthorized) != 0;
    const uint32_t importState = config.ImportState();
    switch (importState) {
        case 0:
            return authorized;
        case 1:
            // Rows above the remembered maximum arrived with the import that is
            // still running and are not in force yet.
            return id <= config.MaxInventoryItemId() && authorized;
        case 2:
            // Rows at or below the boundary belong to the ruleset being replaced.
            return id > config.ImportBoundaryId() && authorized;
        default:
            ZORV_LOG(kLogError, kFunction, u"Unsupported importState: %d\n", importState);
            return false;
    }
}

bool ZorvDAL::IsAllowedInInventory(sqlite3_stmt* row, EngineEvent&) {
    constexpr char16_t kFunction[] = u"ZorvDAL::IsAllowedInInventory";
    ZORV_LOG(kLogTrace, kFunction, u"Checking if allowed in inventory!");
    const AppControlConfig& config = AppControlConfig::Instance();
    const uint32_t rebuildState = config.RebuildState();
    ZORV_LOG(kLogTrace, kFunction, u"Rebuild state: %d", rebuildState);
    // Read as 32 bits, unlike the other checks: ids beyond 2^31 wrap here, and
    // stores in the field depend on this reading staying as it is.
    const uint64_t id = static_cast<uint64_t>(static_cast<int64_t>(sqlite3_column_int(row, kItemId)));
    switch (rebuildState) {
        case 0:
            ZORV_LOG(kLogTrace, kFunction, u"REBUILD_STATE_IDLE returning true from IsAllowedInInventory");
            return true;
        case 1:
            ZORV_LOG(kLogTrace, kFunction,
                     u"REBUILD_STATE_SCAN checking inventory item id less than max inventory item id");
            return id <= config.MaxInventoryItemId();
        case 2:
            ZORV_LOG(kLogTrace, kFunction,
                     u"REBUILD_STATE_SCAN checking inventory item id greater than max inventory item id");
            return id > config.MaxInventoryItemId();
        default:
            ZORV_LOG(kLogError, kFunction, u"Unsupported rebuildState: %d\n", rebuildState);
            return false;
    }
}

bool ZorvDAL::IsAllowedInDrift(sqlite3_stmt* row, EngineEvent&) {
    constexpr char16_t kFunction[] = u"ZorvDAL::IsAllowedInDrift";
    ZORV_LOG(kLogTrace, kFunction, u"Checking %s\n", u"IsAllowedInDrift");
    const AppControlConfig& config = AppControlConfig::Instance();
    const uint32_t rebuildState = config.RebuildState();
    switch (rebuildState) {
        case 0:
        case 1:
            return true;
        case 2:
            return static_cast<uint64_t>(sqlite3_column_int64(row, kItemId)) > config.MaxInventoryItemId();
        default:
            ZORV_LOG(kLogError, kFunction, u"Unsupported rebuildState: %d\n", rebuildState);
            return false;
    }
}

// ---- Trust rules ----

bool ZorvDAL::IsFoundInTrustRules(uint32_t trustType, EngineEvent& event) {
    constexpr char16_t kFunction[] = u"ZorvDAL::IsFoundInTrustRules";
    // The flag saves every event a lookup while the store holds no rules.
    if (!m_trustRulesEnabled) {
        ZORV_LOG(kLogTrace, kFunction, u"TrustRules are not enabled");
        return false;
    }
    ZORV_LOG(kLogTrace, kFunction, u"IsFoundInTrustRules lock");
    const bool found = IsFoundInTrustRuleSet(trustType, event);
    ZORV_LOG(kLogTrace, kFunction, u"IsFoundInTrustRules unlock");
    return found;
}

bool ZorvDAL::IsFoundInTrustRuleSet(uint32_t trustType, EngineEvent& event) {
    TrustQuery query;
    const bool known = CollectTrustAttributes(trustType, event, query);
    ZorvTrustRuleSet::Hit hit;
    // A store SQLite called damaged answers nothing, from memory either: the
    // statement's path says so and marks the event.
    const ZorvTrustRuleSet::Answer answer = known && !m_storeDamaged.load(std::memory_order_relaxed)
                                                ? m_trustRuleSet.Find(query, event.name, hit)
                                                : ZorvTrustRuleSet::Answer::NotLoaded;
    if (answer == ZorvTrustRuleSet::Answer::NotLoaded) {
        // Closed, damaged, or the rules could not be read: the statement
        // answers (and says why it cannot), under the database lock as before.
        if (!known && m_trustRuleSet.IsLoaded()) {
            ZORV_LOG(kLogWarning, u"ZorvDAL::IsFoundInTrustRulesInternal", u"Unknown trust rule type");
            return false;
        }
        std::lock_guard<std::mutex> lock(m_dbLock);
        return IsFoundInTrustRulesInternal(trustType, event);
    }
    if (answer == ZorvTrustRuleSet::Answer::NotFound) {
        LogTrustRuleMiss(query, event);
        return false;
    }
    event.trustOrigin = kTrustOriginTrustRule;
    if (hit.hasRuleset) event.ruleset = std::move(hit.ruleset);
    // Only the first hit is stored here, beside the decision; the true count
    // lives in the statistics and is written back in bulk when the engine stops.
    if (hit.firstHit) {
        m_writeBehind.Post([this, id = hit.trustRuleId] {
            std::lock_guard<std::mutex> lock(m_dbLock);
            UpdateHitcountInternal(id, 0);
        });
    }
    ZorvStats::Instance().IncrementTrustRuleHitCount(hit.trustRuleId);
    return true;
}

bool ZorvDAL::IsFoundInTrustRulesInternal(uint32_t trustType, EngineEvent& event) {
    constexpr char16_t kFunction[] = u"ZorvDAL::IsFoundInTrustRulesInternal";
    // No rule matched, because none could be read: the caller must know.
    const auto fault = [&](int code, const std::u16string& reason) {
        event.storeFault = 1;
        NoteStoreFault(kFunction, code, reason);
        return false;
    };
    if (!m_DB) return fault(SQLITE_MISUSE, u"m_DB is released");
    if (m_storeDamaged.load(std::memory_order_relaxed)) return fault(SQLITE_CORRUPT, u"damaged file");
    Statement held = m_pLookupTrustRuleStmt;
    if (!held) return fault(SQLITE_MISUSE, u"m_pLookupTrustRuleStmt is released");

    TrustQuery attributes;
    if (!CollectTrustAttributes(trustType, event, attributes)) {
        ZORV_LOG(kLogWarning, kFunction, u"Unknown trust rule type");
        return false;
    }

    const StatementUse use(std::move(held));
    sqlite3_stmt* stmt = use.get();
    int bound = BindLookupText(stmt, ":processName", attributes.processName);
    if (bound == SQLITE_OK) bound = sqlite3_bind_int(stmt, sqlite3_bind_parameter_index(stmt, ":trustType"),
                                                    static_cast<int>(trustType));
    if (bound == SQLITE_OK) bound = BindLookupText(stmt, ":signerName", *attributes.signerName);
    if (bound == SQLITE_OK) bound = BindLookupText(stmt, ":productName", *attributes.productName);
    if (bound == SQLITE_OK) bound = BindLookupText(stmt, ":companyName", *attributes.companyName);
    if (bound == SQLITE_OK) {
        const int index = sqlite3_bind_parameter_index(stmt, ":sha256");
        bound = attributes.sha256 != nullptr && attributes.sha256->IsSet()
                    ? sqlite3_bind_blob(stmt, index, attributes.sha256->Bytes(),
                                        static_cast<int>(attributes.sha256->DigestSize()), SQLITE_TRANSIENT)
                    : sqlite3_bind_null(stmt, index);
    }
    for (size_t i = 0; i < kIssuerCount && bound == SQLITE_OK; ++i) {
        bound = BindLookupText(stmt, kIssuerParameters[i], *attributes.issuer[i]);
    }
    if (bound != SQLITE_OK) {
        ZORV_LOG(kLogWarning, kFunction, u"Unable to create query");
        return fault(bound, u"Unable to create query");
    }
    if ((bound = BindLookupText(stmt, ":procUser", attributes.user)) != SQLITE_OK) {
        ZORV_LOG(kLogWarning, kFunction, u"Unable to create query for procUser");
        return fault(bound, u"Unable to create query for procUser");
    }
    if ((bound = BindLookupText(stmt, ":procGroup", attributes.group)) != SQLITE_OK) {
        ZORV_LOG(kLogWarning, kFunction, u"Unable to create query for procGroup");
        return fault(bound, u"Unable to create query for procGroup");
    }

    int rc = SQLITE_ERROR;
    while ((rc = sqlite3_step(stmt)) == SQLITE_ROW) {
        ZORV_LOG(kLogTrace, kFunction,
                 u"Found potential trust rule to apply to drift. Checking for trusted path, process name and groups");
        // SQL can only pre-filter wildcard names and group lists; the exact
        // tests are made here.
        if (sqlite3_column_type(stmt, kRuleProcessName) != SQLITE_NULL &&
            !MatchEventPathWithRulePath(attributes.processName, ColumnText(stmt, kRuleProcessName))) {
            continue;
        }
        if (sqlite3_column_type(stmt, kRuleProcGroup) != SQLITE_NULL &&
            !GroupListContains(attributes.group, ColumnText(stmt, kRuleProcGroup))) {
            continue;
        }
        if (sqlite3_column_type(stmt, kRulePaths) == SQLITE_NULL) {
            ZORV_LOG(kLogTrace, kFunction, u"No path specified for trust rule. Allow all path");
            ZORV_LOG(kLogTrace, kFunction, u"process %s is found in trust rule", attributes.processName);
        } else if (MatchEventPathWithRulePath(event.name, ColumnText(stmt, kRulePaths))) {
            ZORV_LOG(kLogTrace, kFunction, u"process %s with path %s is found in trust rule",
                     attributes.processName, event.name);
        } else {
            continue;
        }

        const int32_t trustRuleId = sqlite3_column_int(stmt, kRuleId);
        event.trustOrigin = kTrustOriginTrustRule;
        if (sqlite3_column_type(stmt, kRuleRuleset) != SQLITE_NULL) event.ruleset = ColumnText(stmt, kRuleRuleset);
        // Only the first hit is stored here; the true count lives in the
        // statistics and is written back in bulk when the engine stops.
        if (sqlite3_column_int64(stmt, kRuleHitcount) == 0) UpdateHitcountInternal(trustRuleId, 0);
        ZorvStats::Instance().IncrementTrustRuleHitCount(trustRuleId);
        NoteStoreAnswered();
        return true;
    }
    if (rc != SQLITE_DONE) return fault(rc, u"DAL Error" + GetErrorString());
    NoteStoreAnswered();
    LogTrustRuleMiss(attributes, event);
    return false;
}

bool ZorvDAL::UpdateHitcount(int32_t trustRuleId, int32_t hitcount) {
    // A first hit still queued must not land after, and over, the full count.
    m_writeBehind.Drain();
    TracedLock lock(m_dbLock, u"ZorvDAL::UpdateHitcount", u"UpdateHitcount lock", u"UpdateHitcount unlock");
    return UpdateHitcountInternal(trustRuleId, hitcount);
}

bool ZorvDAL::UpdateHitcountInternal(int32_t trustRuleId, int32_t hitcount) {
    constexpr char16_t kFunction[] = u"ZorvDAL::UpdateHitcountInternal";
    if (!m_DB) {
        ZORV_LOG(kLogError, kFunction, u"m_DB is released");
        return false;
    }
    Statement held = m_pUpdateTrustRuleHitcountStmt;
    if (!held) {
        ZORV_LOG(kLogError, kFunction, u"m_pUpdateTrustRuleHitcountStmt is released");
        return false;
    }
    const StatementUse use(std::move(held));
    sqlite3_stmt* stmt = use.get();
    // Stored one above the given value; the statistics writer passes its count
    // minus one, which keeps "hitcount >= 1" selecting rules matched twice.
    if (sqlite3_bind_int(stmt, sqlite3_bind_parameter_index(stmt, ":hitcount"), hitcount + 1) != SQLITE_OK) {
        ZORV_LOG(kLogWarning, kFunction, u"Unable to bind hitcount");
        return false;
    }
    if (sqlite3_bind_int(stmt, sqlite3_bind_parameter_index(stmt, ":trustRuleId"), trustRuleId) != SQLITE_OK) {
        ZORV_LOG(kLogWarning, kFunction, u"Unable to bind trustRuleId");
        return false;
    }
    // Not checked: a lost first-hit mark is repaired by the bulk write at stop.
    sqlite3_step(stmt);
    return true;
}

}  // namespace zorv

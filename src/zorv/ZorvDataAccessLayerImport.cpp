// Ruleset import and inventory export: the two bulk paths of the rule store.
//
// An import never edits a live table row by row. For each table it touches it
// builds a complete replacement ("Temp_" + name) inside one IMMEDIATE
// transaction, fills it with the rows to keep and the new rows, and swaps it in
// place of the live table, re-creating the indexes and views that went with
// it. Any failure rolls the whole transaction back, so a reader of ac.db sees
// the old ruleset or the new one, never a mix.
//
// The export writes one page of items or trust rules as JSON lines into a
// payload file that the agent reads back.
#include <sqlite3.h>

#include <cjson/cJSON.h>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "AppControlConfig.h"
#include "ZorvDataAccessLayer.h"
#include "ZorvDataAccessLayerShared.h"
#include "ZorvLogger.h"
#include "ZorvRulesetReader.h"
#include "ZorvStats.h"
#include "ZorvText.h"
#include "ZorvWildcard.h"
#include "ZorvUtilWindows.h"
#include "platform/Platform.h"

namespace zorv {

namespace {

using dal::kInsertItemTempTableSQL;
using dal::kInsertTrustRuleTempTableSQL;
using dal::kInsertUserListTempTableSQL;

constexpr char16_t kLogSource[] = u"src/zorv/ZorvDataAccessLayerImport";
constexpr char16_t kImportFn[] = u"ZorvDAL::ImportRulesetBuffer";

struct JsonDeleter {
    void operator()(cJSON* json) const { cJSON_Delete(json); }
};
using JsonPtr = std::unique_ptr<cJSON, JsonDeleter>;

struct JsonTextDeleter {
    void operator()(char* text) const { cJSON_free(text); }
};
using JsonText = std::unique_ptr<char, JsonTextDeleter>;

struct StatementDeleter {
    void operator()(sqlite3_stmt* stmt) const { sqlite3_finalize(stmt); }
};
using OwnedStatement = std::unique_ptr<sqlite3_stmt, StatementDeleter>;

// "agent" is tested first: a name holding both words is an agent manifest.
ZorvDAL::RulesetKind KindOf(const std::u16string& loweredName) {
    if (loweredName.find(u"agent") != std::u16string::npos) return ZorvDAL::RulesetKind::AgentManifest;
    if (loweredName.find(u"trustrules") != std::u16string::npos) return ZorvDAL::RulesetKind::TrustRuleset;
    return ZorvDAL::RulesetKind::ItemRuleset;
}

// sqlite3_exec with its message taken over; "unknown error" stands in when
// SQLite gave none, so every failure line says something. For BEGIN, END and
// ROLLBACK.
int ExecControl(sqlite3* db, const std::string& sql, std::string& error) {
    char* message = nullptr;
    const int rc = sqlite3_exec(db, sql.c_str(), nullptr, nullptr, &message);
    if (rc != SQLITE_OK) error = message != nullptr ? message : "unknown error";
    sqlite3_free(message);
    return rc;
}

constexpr char kTransactionLost[] = "the import's transaction was rolled back";

// A statement of the import's transaction. Nothing runs once SQLite has
// rolled the transaction back by itself, and a statement that succeeded
// after such a rollback (in autocommit) counts as failed: the rest of the
// import must not go on and commit piece by piece.
int Exec(sqlite3* db, const std::string& sql, std::string& error,
         int (*callback)(void*, int, char**, char**) = nullptr, void* context = nullptr) {
    if (dal::TransactionLost(db)) {
        error = kTransactionLost;
        return SQLITE_ABORT;
    }
    char* message = nullptr;
    int rc = sqlite3_exec(db, sql.c_str(), callback, context, &message);
    if (rc != SQLITE_OK) {
        error = message != nullptr ? message : "unknown error";
    } else if (dal::TransactionLost(db)) {
        error = kTransactionLost;
        rc = SQLITE_ABORT;
    }
    sqlite3_free(message);
    return rc;
}

int AppendSqlColumn(void* context, int columnCount, char** values, char** /*names*/) {
    // Automatic indexes have no SQL: SQLite re-creates them by itself.
    if (columnCount > 0 && values[0] != nullptr) {
        static_cast<std::vector<std::string>*>(context)->emplace_back(values[0]);
    }
    return 0;
}

int KeepSqlColumn(void* context, int columnCount, char** values, char** /*names*/) {
    if (columnCount > 0 && values[0] != nullptr) *static_cast<std::string*>(context) = values[0];
    return 0;
}

// The text of a string-valued key; null for an absent key or any other type.
const char* StringOf(const cJSON* object, const char* key) {
    const cJSON* item = cJSON_GetObjectItemCaseSensitive(object, key);
    return cJSON_IsString(item) && item->valuestring != nullptr ? item->valuestring : nullptr;
}

// atoi's reading (leading blanks, a sign, digits up to the first other
// character) without its undefined behaviour: out-of-range text saturates at
// the 32-bit ends, as a JSON number does.
int32_t AtoiSaturating(const char* text) {
    const long long value = std::strtoll(text, nullptr, 10);
    if (value > INT32_MAX) return INT32_MAX;
    if (value < INT32_MIN) return INT32_MIN;
    return static_cast<int32_t>(value);
}

// A number gives the parser's 32-bit value (cJSON saturates it); any other
// value that carries text gives atoi of the text; otherwise 0.
int32_t IntegerOf(const cJSON* object, const char* key) {
    const cJSON* item = cJSON_GetObjectItemCaseSensitive(object, key);
    if (item == nullptr) return 0;
    if (cJSON_IsNumber(item)) return item->valueint;
    if (item->valuestring != nullptr) return AtoiSaturating(item->valuestring);
    return 0;
}

void SetText(const cJSON* object, const char* key, std::u16string& out) {
    const char* text = StringOf(object, key);
    // Converted into the record's own storage, reused from row to row.
    if (text == nullptr) {
        out.clear();
    } else {
        Utf8ToUtf16(text, out);
    }
}

// user, group and userList are compared lower-cased by the matcher.
void SetLoweredText(const cJSON* object, const char* key, std::u16string& out) {
    SetText(object, key, out);
    ToLowerInPlace(out);
}

// An empty digest text counts as no digest: the column stays NULL rather
// than holding zero bytes that would match nothing.
void SetHash(const cJSON* object, const char* key, Hash& hash) {
    hash.Clear();
    const char* text = StringOf(object, key);
    if (text != nullptr && *text != '\0') hash.SetFromHex(text);
}

// "block..." gives 2, "allow..." 3, anything else 0: five bytes compared,
// case-sensitively.
uint32_t AuthorizedStateOf(const cJSON* object) {
    const char* action = StringOf(object, "action");
    if (action == nullptr) return 0;
    if (std::strncmp(action, "block", 5) == 0) return 2;
    if (std::strncmp(action, "allow", 5) == 0) return 3;
    return 0;
}

// Where the parser stopped. It points into the document, which may be a
// hundred megabytes long; the logger keeps no more than one message's worth,
// so no more is converted.
std::string_view ParseErrorText(const char* where) {
    if (where == nullptr) return {};
    size_t length = 0;
    while (length < ZorvLogger::kMessageUnits && where[length] != '\0') ++length;
    return std::string_view(where, length);
}

// The payload is written in blocks rather than a system call per line; a
// block never ends inside a line, so the file only ever holds whole lines.
class PayloadLines {
public:
    static constexpr size_t kBlockBytes = 64 * 1024;

    explicit PayloadLines(platform::FileWriter& writer) : m_writer(writer) { m_block.reserve(kBlockBytes + 4096); }

    // False once a write failed; the writer is closed then.
    bool Add(const char* line, size_t length) {
        m_block.append(line, length);
        m_block.append("\r\n", 2);
        return m_block.size() < kBlockBytes || Flush();
    }

    bool Flush() {
        if (m_block.empty()) return true;
        const size_t written = m_writer.IsOpen() ? m_writer.Write(m_block.data(), m_block.size()) : 0;
        const bool ok = written == m_block.size();
        m_block.clear();
        return ok;
    }

private:
    platform::FileWriter& m_writer;
    std::string m_block;
};

// Prints a line object unformatted. A reusable buffer spares an allocation per
// line; a line that does not fit falls back to cJSON's own allocation.
class LinePrinter {
public:
    LinePrinter() : m_buffer(8192) {}

    // Null when cJSON cannot print the object.
    const char* Print(cJSON* object, size_t& length) {
        if (cJSON_PrintPreallocated(object, m_buffer.data(), static_cast<int>(m_buffer.size()), 0)) {
            length = std::strlen(m_buffer.data());
            return m_buffer.data();
        }
        m_large.reset(cJSON_PrintUnformatted(object));
        if (!m_large) return nullptr;
        length = std::strlen(m_large.get());
        return m_large.get();
    }

private:
    std::vector<char> m_buffer;
    JsonText m_large;
};

// One line object reused for every row of a page. Its strings are references
// to the row's own texts (cJSON copies nothing), and it is rebuilt only when
// the set of keys changes, as a NULL text leaves its key out. A page of
// 10,000 lines would otherwise allocate and free every key and value 10,000
// times. The printed text is what a fresh object would print.
class LineObject {
public:
    LineObject() = default;
    LineObject(const LineObject&) = delete;
    LineObject& operator=(const LineObject&) = delete;

    void Begin() { m_count = 0; }
    // A null text leaves the key out. `key` must be a literal: it is kept.
    void Text(const char* key, const char* value) {
        if (value != nullptr) Push(key, value, 0, false);
    }
    void Number(const char* key, double value) { Push(key, nullptr, value, true); }

    // The object holding the values given since Begin(); null if cJSON failed.
    cJSON* Build() {
        bool sameKeys = m_object != nullptr && m_count == m_built;
        for (size_t i = 0; sameKeys && i < m_count; ++i) {
            sameKeys = m_fields[i].key == m_items[i].key && m_fields[i].isNumber == m_items[i].isNumber;
        }
        if (!sameKeys && !Rebuild()) return nullptr;
        for (size_t i = 0; i < m_count; ++i) {
            cJSON* item = m_items[i].item;
            if (m_fields[i].isNumber) {
                cJSON_SetNumberValue(item, m_fields[i].number);
            } else {
                item->valuestring = const_cast<char*>(m_fields[i].text);
            }
        }
        return m_object.get();
    }

private:
    static constexpr size_t kMaxFields = 16;
    struct Field {
        const char* key;
        const char* text;
        double number;
        bool isNumber;
    };
    struct Slot {
        const char* key;
        bool isNumber;
        cJSON* item;
    };

    void Push(const char* key, const char* text, double number, bool isNumber) {
        if (m_count < kMaxFields) m_fields[m_count++] = Field{key, text, number, isNumber};
    }

    bool Rebuild() {
        m_built = 0;
        m_object.reset(cJSON_CreateObject());
        if (!m_object) return false;
        for (size_t i = 0; i < m_count; ++i) {
            cJSON* item = m_fields[i].isNumber ? cJSON_CreateNumber(0) : cJSON_CreateStringReference("");
            if (item == nullptr) {
                m_object.reset();
                return false;
            }
            cJSON_AddItemToObjectCS(m_object.get(), m_fields[i].key, item);
            m_items[i] = Slot{m_fields[i].key, m_fields[i].isNumber, item};
        }
        m_built = m_count;
        return true;
    }

    Field m_fields[kMaxFields]{};
    Slot m_items[kMaxFields]{};
    size_t m_count = 0;
    size_t m_built = 0;
    JsonPtr m_object;
};

// Lower-case hex of a digest column into `out`; empty for NULL. Never reads
// past the stored blob, whatever its length.
void HexOfColumn(sqlite3_stmt* stmt, int column, size_t digestSize, std::string& out) {
    static constexpr char kDigits[] = "0123456789abcdef";
    out.clear();
    const auto* bytes = static_cast<const uint8_t*>(sqlite3_column_blob(stmt, column));
    if (bytes == nullptr) return;
    size_t count = static_cast<size_t>(sqlite3_column_bytes(stmt, column));
    if (count > digestSize) count = digestSize;
    for (size_t i = 0; i < count; ++i) {
        out += kDigits[bytes[i] >> 4];
        out += kDigits[bytes[i] & 15];
    }
}

const char* ColumnText(sqlite3_stmt* stmt, int column) {
    return reinterpret_cast<const char*>(sqlite3_column_text(stmt, column));
}

void AddText(cJSON* object, const char* key, sqlite3_stmt* stmt, int column) {
    // A NULL text leaves its key out.
    const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(stmt, column));
    if (text != nullptr) cJSON_AddStringToObject(object, key, text);
}

// A trust rule's digest: its key is left out when the column is NULL.
void AddHash(cJSON* object, const char* key, sqlite3_stmt* stmt, int column, size_t digestSize) {
    if (sqlite3_column_type(stmt, column) == SQLITE_NULL) return;
    std::string hex;
    HexOfColumn(stmt, column, digestSize, hex);
    cJSON_AddStringToObject(object, key, hex.c_str());
}

void AddNumber(cJSON* object, const char* key, double value) { cJSON_AddNumberToObject(object, key, value); }

// Steps `stmt` to its end and writes one unformatted JSON line per row;
// `build` makes a row's object, or sets its flag to end the page early. A
// failed write ends the page and closes the payload.
template <typename BuildRow>
void WriteRows(platform::FileWriter& payload, sqlite3_stmt* stmt, int& rc, const std::u16string& payloadPath,
               const char16_t* function, BuildRow build) {
    PayloadLines lines(payload);
    LinePrinter printer;
    bool written = true;
    rc = sqlite3_step(stmt);
    while (rc == SQLITE_ROW) {
        bool stop = false;
        cJSON* object = build(stop);
        if (stop) break;
        size_t length = 0;
        const char* text = object != nullptr ? printer.Print(object, length) : nullptr;
        if (text == nullptr) {
            ZORV_LOG(kLogError, function, u"JSON_PringUnformated failed, aborting query");
            break;
        }
        if (!lines.Add(text, length)) {
            written = false;
            break;
        }
        rc = sqlite3_step(stmt);
    }
    if (written && !lines.Flush()) written = false;
    if (!written) {
        ZORV_LOG(kLogError, function, u"Write to payload %s failed, aborting query", payloadPath);
        payload.Close();
    }
}

}  // namespace

// ---- Ruleset import -------------------------------------------------------

namespace {

// A thread that is joined however the scope is left: a std::thread destroyed
// while joinable would end the host process.
struct JoinedThread {
    std::thread thread;
    ~JoinedThread() {
        if (thread.joinable()) thread.join();
    }
};

}  // namespace

bool ZorvDAL::ImportRuleset(uint8_t append, const std::u16string& path, const std::u16string& name) {
    constexpr const char16_t* kFn = u"ZorvDAL::ImportRuleset";
    platform::FileStatus status;
    if (!platform::StatFile(path, status)) {
        ZORV_LOG(kLogError, kFn, u"ZorvDAL::ImportRuleset Unable to get ruleset file information from path: %s",
                 path);
        return false;
    }
    OplockReader reader;
    if (!reader.Open(path)) {
        ZORV_LOG(kLogError, kFn, u"Couldn't create payload");
        return false;
    }
    // The size of the file actually opened, not of whatever the path named a
    // moment ago; the limit keeps one file from taking the agent's memory.
    const uint64_t size = reader.Size();
    if (size > kMaxRulesetBytes) {
        ZORV_LOG(kLogError, kFn, u"Ruleset file %s is %llu bytes, more than the limit of %llu, refused", path, size,
                 kMaxRulesetBytes);
        return false;
    }
    // The text is read whole rather than mapped: a file cut short while
    // mapped would kill the host with SIGBUS. std::string keeps a NUL after
    // its last byte, which the reader needs.
    std::string text;
    try {
        text.resize(static_cast<size_t>(size));
    } catch (const std::exception&) {
        ZORV_LOG(kLogError, kFn, u"Memory initialization failure\n");
        return false;
    }
    // Bounded reads: a platform read takes a 32-bit count.
    constexpr size_t kChunk = size_t{1} << 24;
    size_t done = 0;
    while (done < text.size()) {
        const size_t n = reader.Read(text.data() + done, std::min(kChunk, text.size() - done));
        if (n == 0) break;
        done += n;
    }
    reader.Close();
    // A short read means another program claimed the file or it changed under
    // us; part of a document must not be imported as if it were the whole.
    if (done != text.size()) {
        ZORV_LOG(kLogError, kFn, u"Ruleset file %s was read only in part (%u of %u bytes), error %u", path, done,
                 text.size(), reader.Error());
        return false;
    }
    return ImportRulesetText(append, text, &text, name);
}

bool ZorvDAL::ImportRulesetBuffer(uint8_t append, const std::string& utf8, const std::u16string& name) {
    return ImportRulesetText(append, utf8, nullptr, name);
}

bool ZorvDAL::ImportRulesetText(uint8_t append, std::string_view text, std::string* ownedText,
                                const std::u16string& name) {
    const std::u16string loweredName = ToLower(name);
    const RulesetKind kind = KindOf(loweredName);
    bool isObject = false;
    const bool ok = ImportRulesetLocked(append, kind, text, ownedText, name, isObject);
    // The agent sent its manifest, whether or not every row made it in; but
    // not if what it sent was no ruleset at all.
    if (kind == RulesetKind::AgentManifest && isObject) {
        const AppControlConfig& config = AppControlConfig::Instance();
        SetAppControlState(u"agentVersion", config.AgentVersion());
    }
    return ok;
}

bool ZorvDAL::ImportRulesetLocked(uint8_t append, RulesetKind kind, std::string_view text, std::string* ownedText,
                                  const std::u16string& name, bool& isObject) {
    AppControlConfig& config = AppControlConfig::Instance();
    ZorvStats& stats = ZorvStats::Instance();

    ZORV_LOG(kLogTrace, kImportFn, u"ImportRulesetBuffer lock");
    std::lock_guard<std::mutex> lock(m_dbLock);
    const std::shared_ptr<sqlite3> dbHolder = m_DB;
    sqlite3* const db = dbHolder.get();
    if (db == nullptr) {
        ZORV_LOG(kLogError, kImportFn, u"m_DB is released");
        ZORV_LOG(kLogTrace, kImportFn, u"ImportRulesetBuffer unlock");
        return false;
    }

    std::string error;
    // Rows the document brought, counted as they are stored; the ruleset
    // counters take the number only once the rows are committed.
    uint64_t rowCount = 0;
    std::vector<std::string> trustMetadata, userListMetadata, itemMetadata;
    // The document is read once, inside the transaction, each row stored as
    // it is parsed: whether the whole text is one JSON object is known only
    // at its end, and a document that turns out not to be is rolled back.
    bool ok = ExecControl(db, "BEGIN IMMEDIATE TRANSACTION", error) == SQLITE_OK;
    if (!ok) ZORV_LOG(kLogError, kImportFn, u"Unable to begin transaction for ruleset import");
    if (ok && kind != RulesetKind::ItemRuleset) {
        ok = BeginTrustPhase(db, append, kind, name, trustMetadata, userListMetadata, error);
    }
    if (ok && kind != RulesetKind::TrustRuleset) ok = BeginItemPhase(db, append, kind, itemMetadata, error);
    if (ok) {
        ok = ReadRulesetRows(db, kind, text, name, rowCount, error, isObject);
        // Every row is in its temporary table: the text is not needed any
        // more, and the index builds of the swaps are the import's hungriest step.
        if (ownedText != nullptr) std::string().swap(*ownedText);
    }
    if (isObject && kind == RulesetKind::AgentManifest) {
        ZORV_LOG(kLogTrace, kImportFn, u"Manifest applied to version %s", config.AgentVersion());
        config.SetManifestApplied(true);
    }
    if (ok && kind != RulesetKind::ItemRuleset) {
        ok = SwapTempTableToOriginal(db, "TrustRules", trustMetadata, error) &&
             SwapTempTableToOriginal(db, "UserList", userListMetadata, error);
    }
    if (ok && kind != RulesetKind::TrustRuleset) ok = SwapTempTableToOriginal(db, "InventoryItems", itemMetadata, error);
    if (ok && dal::TransactionLost(db)) {
        ok = false;
        ZORV_LOG(kLogError, kImportFn, u"Unable to end transaction for ruleset import: %s", kTransactionLost);
    }
    if (ok) {
        ok = ExecControl(db, "END TRANSACTION;", error) == SQLITE_OK;
        if (!ok) ZORV_LOG(kLogError, kImportFn, u"Unable to end transaction for ruleset import: %s", error);
        // The new rules are in force from here: no allow decided from the old
        // ones may be cached any more (see AllowCache).
        if (ok) NoteRulesCommitted();
    }
    if (!ok) {
        // A failed statement may have ended the transaction already (SQLite
        // rolls back by itself on a full disk or an I/O error).
        if (!dal::TransactionLost(db) && ExecControl(db, "ROLLBACK TRANSACTION;", error) != SQLITE_OK) {
            ZORV_LOG(kLogError, kImportFn, u"Unable to rollback transaction for ruleset import: %s", error);
        }
        ZORV_LOG(kLogError, kImportFn, u"Ruleset %s was not imported; the rules in force are unchanged", name);
        ZORV_LOG(kLogTrace, kImportFn, u"ImportRulesetBuffer unlock");
        return false;
    }

    // Committed: the new rules are in force whatever follows. A checkpoint
    // that fails leaves them in the write-ahead log, where every reader and
    // the next open find them. The in-memory trust rules are read meanwhile
    // on a read connection, which sees the commit: the checkpoint waits on
    // the disk, the reload on the processor, and the import returns only
    // once both are done.
    //
    // Lookups keep no read snapshot from here on: the full checkpoint waits
    // for every reader that holds one (the reload's own included), and those
    // kept across it would also keep the log from starting over at the next
    // write.
    const ZorvReadConnections::Pause pause(m_readers);
    const ZorvReadConnections::Lease reader =
        kind != RulesetKind::ItemRuleset ? m_readers.Acquire() : ZorvReadConnections::Lease{};
    JoinedThread reloader;
    if (reader) {
        try {
            reloader.thread = std::thread([this, &reader] { m_trustRuleSet.Load((*reader).db.get()); });
        } catch (const std::exception&) {
            // No thread to be had: the reload runs below, after the checkpoint.
        }
    }
    if (sqlite3_wal_checkpoint_v2(db, "main", SQLITE_CHECKPOINT_FULL, nullptr, nullptr) != SQLITE_OK) {
        ZORV_LOG(kLogWarning, kImportFn, u"Failed to checkpoint database: %s", sqlite3_errmsg(db));
    }
    if (kind == RulesetKind::TrustRuleset) {
        // Set even when the document held no rules; no import ever clears it.
        m_trustRulesEnabled = true;
    }
    if (append == 0) {
        const char16_t* prefix = kind == RulesetKind::AgentManifest  ? u""
                                 : kind == RulesetKind::TrustRuleset ? u"trust"
                                                                     : u"ruleset";
        stats.ClearCounters(CounterCategory::Rulesets, prefix);
    }
    stats.SetCounter(CounterCategory::Rulesets, name, rowCount);
    if (reloader.thread.joinable()) {
        reloader.thread.join();
    } else if (kind != RulesetKind::ItemRuleset) {
        ReloadTrustRulesInternal();
    }
    // Only item rows carry MD5 and SHA-1 rules, and a trust ruleset leaves
    // InventoryItems as it was: recounting would scan it for nothing.
    if (kind != RulesetKind::TrustRuleset) {
        m_md5RuleCount = MD5RulesCount(false);
        m_sha1RuleCount = SHA1RulesCount(false);
    }
    // Hit counts are keyed by rule id, and the swap gave every rule its row
    // anew: start each one from zero.
    std::vector<int32_t> ids;
    GetTrustRuleIDs(ids);
    stats.ResetTrustRuleHitCounts(ids);
    // Once more now that the flags and counts the lookups read match the new
    // rules too: a decision that began between the commit and here may have
    // read them as they were.
    NoteRulesCommitted();
    ZORV_LOG(kLogTrace, kImportFn, u"ImportRulesetBuffer unlock");
    return true;
}

bool ZorvDAL::ReadRulesetRows(sqlite3* db, RulesetKind kind, std::string_view text, const std::u16string& name,
                              uint64_t& rowCount, std::string& error, bool& isObject) {
    // An agent manifest and an item ruleset bring items; a trust ruleset
    // brings rules and user lists. Every other key is read only to check it.
    enum Key : size_t { kRules, kTrustRules, kUserLists };
    static constexpr const char* kKeys[] = {"rules", "Trustrules", "Userlists"};
    const bool trustRuleset = kind == RulesetKind::TrustRuleset;
    if (trustRuleset) {
        ZORV_LOG(kLogTrace, kImportFn, u"Importing trust ruleset into db: %s", name);
    } else {
        ZORV_LOG(kLogTrace, kImportFn, u"Importing item ruleset into db: %s", name);
    }

    // One record of each kind reused for every element: an EngineEvent is
    // large, and only the fields below are set by an import.
    EngineEvent item;
    item.source = kind == RulesetKind::AgentManifest ? AC_SOURCE_AGENT_RULES : AC_SOURCE_EXECUTION_RULES;
    item.ruleset = name;
    TrustRuleRecord rule;
    rule.ruleset = ToLower(name);
    UserListRecord entry;

    const auto storeItem = [&](const cJSON* element) {
        ++rowCount;
        SetText(element, "fileName", item.fileName);
        SetHash(element, "sha256", item.fileSha256);
        SetHash(element, "sha1", item.fileSha1);
        SetHash(element, "md5", item.fileMd5);
        item.size = static_cast<uint64_t>(static_cast<int64_t>(IntegerOf(element, "size")));
        item.isAuthorized = AuthorizedStateOf(element);
        // An item that cannot be stored is logged there; only a failing store stops the import.
        return !ImportRowFailed(db, StoreItemInternal(item, true), error);
    };
    const auto storeTrustRule = [&](const cJSON* element) {
        ++rowCount;
        // A non-object element has no keys: it yields a rule with every field empty.
        SetText(element, "processName", rule.processName);
        SetText(element, "paths", rule.paths);
        rule.trustType = IntegerOf(element, "trustType");
        SetText(element, "signerName", rule.signerName);
        SetText(element, "productName", rule.productName);
        SetText(element, "companyName", rule.companyName);
        SetHash(element, "sha256", rule.sha256);
        static constexpr const char* kIssuerKeys[6] = {"issuerCN", "issuerC", "issuerS", "issuerL", "issuerO", "issuerOU"};
        for (size_t i = 0; i < 6; ++i) SetText(element, kIssuerKeys[i], rule.issuer[i]);
        SetLoweredText(element, "user", rule.procUser);
        SetLoweredText(element, "group", rule.procGroup);
        SetLoweredText(element, "userList", rule.userList);
        // Matching cost grows with a pattern's length, and every event pays
        // it for every rule: a longer pattern is refused like any bad row.
        if (!WildcardPattern::Fits(rule.processName) || !WildcardPattern::Fits(rule.paths)) {
            const std::u16string& pattern = WildcardPattern::Fits(rule.processName) ? rule.paths : rule.processName;
            ZORV_LOG(kLogWarning, kImportFn, u"Trust rule skipped: pattern of %u units is longer than %u: %s...",
                     pattern.size(), WildcardPattern::kMaxPatternUnits,
                     std::u16string_view(pattern).substr(0, WildcardPattern::kMaxPatternUnits));
            return true;
        }
        // A rule that cannot be stored is logged there; only a failing store stops the import.
        return !ImportRowFailed(db, StoreTrustRuleInternal(rule, true), error);
    };
    const auto storeUserList = [&](const cJSON* list) {
        const char* id = StringOf(list, "id");
        const cJSON* users = cJSON_GetObjectItemCaseSensitive(list, "users");
        if (id == nullptr || !cJSON_IsArray(users)) return true;
        // List ids and user names keep their case, unlike a rule's reference.
        Utf8ToUtf16(id, entry.id);
        for (const cJSON* user = users->child; user != nullptr; user = user->next) {
            if (!cJSON_IsString(user) || user->valuestring == nullptr) continue;
            Utf8ToUtf16(user->valuestring, entry.user);
            if (ImportRowFailed(db, StoreUserListInternal(entry, true), error)) return false;
        }
        return true;
    };

    RulesetReader reader(text, kKeys, 3);
    const RulesetReader::Outcome outcome = reader.Read([&](size_t key, const cJSON& child) {
        switch (key) {
        case kRules: return trustRuleset || storeItem(&child);
        case kTrustRules: return !trustRuleset || storeTrustRule(&child);
        default: return !trustRuleset || storeUserList(&child);
        }
    });
    isObject = outcome == RulesetReader::Outcome::Object;
    if (outcome == RulesetReader::Outcome::Malformed) {
        ZORV_LOG(kLogError, kImportFn, u"Ruleset parse error");
        const std::string_view where = ParseErrorText(reader.ErrorPosition());
        if (!where.empty()) ZORV_LOG(kLogError, kImportFn, u"%s", std::string(where));
    } else if (outcome == RulesetReader::Outcome::NotObject) {
        // An array, string or number parses, but holds none of the keys;
        // imported, it would read as an empty ruleset and a replace would wipe
        // the old one.
        ZORV_LOG(kLogError, kImportFn, u"Ruleset is not a JSON object");
    }
    return isObject;
}

// Whether a row that the import could not store ends the import: it does
// when the store failed (the disk, a lock, the transaction gone), not when
// the row itself cannot be stored.
bool ZorvDAL::ImportRowFailed(sqlite3* db, uint64_t rowId, std::string& error) const {
    if (rowId == 0 && !dal::IsRowFault(m_lastInsertRc)) {
        error = sqlite3_errmsg(db);
        ZORV_LOG(kLogError, kImportFn, u"Unable to store a row of the ruleset (%d): %s", m_lastInsertRc, error);
        return true;
    }
    if (dal::TransactionLost(db)) {
        error = kTransactionLost;
        ZORV_LOG(kLogError, kImportFn, u"Unable to store a row of the ruleset: %s", error);
        return true;
    }
    return false;
}

bool ZorvDAL::PrepareImportStatement(sqlite3* db, std::shared_ptr<sqlite3_stmt>& stmt, const char* sql,
                                     const char16_t* sqlName) {
    if (stmt) return true;
    sqlite3_stmt* raw = nullptr;
    if (sqlite3_prepare_v2(db, sql, -1, &raw, nullptr) != SQLITE_OK) {
        sqlite3_finalize(raw);
        ZORV_LOG(kLogError, kImportFn, u"Failed to prepare %s statement: %s", sqlName, sqlite3_errmsg(db));
        return false;
    }
    stmt.reset(raw, sqlite3_finalize);
    return true;
}

bool ZorvDAL::BeginTrustPhase(sqlite3* db, uint8_t append, RulesetKind kind, const std::u16string& name,
                              std::vector<std::string>& trustMetadata, std::vector<std::string>& userListMetadata,
                              std::string& error) {
    const bool keepRows = append != 0 && kind == RulesetKind::TrustRuleset;  // a manifest always empties both tables
    if (kind != RulesetKind::TrustRuleset) {
        ZORV_LOG(kLogTrace, kImportFn, u"Clearing trust rules for new agent manifest: %s", name);
    }
    std::string tempName;
    if (!CollectTableMetadata(db, "TrustRules", trustMetadata, error)) return false;
    if (!CreateTempTableFromOriginal(db, "TrustRules", tempName, error)) return false;
    if (!PrepareImportStatement(db, m_pInsertTrustRuleTempTableStmt, kInsertTrustRuleTempTableSQL,
                                u"InsertTrustRuleTempTableSQL")) {
        return false;
    }
    if (keepRows && Exec(db, "INSERT INTO Temp_TrustRules SELECT * FROM TrustRules;", error) != SQLITE_OK) {
        ZORV_LOG(kLogError, kImportFn, u"Failed to copy existing TrustRules to Temp_TrustRules table: %s", error);
        return false;
    }
    if (!CollectTableMetadata(db, "UserList", userListMetadata, error)) return false;
    if (!CreateTempTableFromOriginal(db, "UserList", tempName, error)) return false;
    if (!PrepareImportStatement(db, m_pInsertUserListTempTableStmt, kInsertUserListTempTableSQL,
                                u"InsertUserListTempTableSQL")) {
        return false;
    }
    if (keepRows && Exec(db, "INSERT INTO Temp_UserList SELECT * FROM UserList;", error) != SQLITE_OK) {
        ZORV_LOG(kLogError, kImportFn, u"Failed to copy existing UserList to Temp_UserList table: %s", error);
        return false;
    }
    return true;
}

bool ZorvDAL::BeginItemPhase(sqlite3* db, uint8_t append, RulesetKind kind, std::vector<std::string>& itemMetadata,
                             std::string& error) {
    if (!CollectTableMetadata(db, "InventoryItems", itemMetadata, error)) return false;
    // Views on InventoryItems (Items among them) are filed under their own
    // names; collect them too so that the swap re-creates them.
    if (Exec(db, "SELECT sql from sqlite_master WHERE tbl_name != 'InventoryItems' AND sql LIKE '%InventoryItems%';",
             error, AppendSqlColumn, &itemMetadata) != SQLITE_OK) {
        ZORV_LOG(kLogError, kImportFn, u"Failed to collect InventoryItems associated metadata SQL statements: %s",
                 error);
        return false;
    }
    // They must be gone before the rename in the swap, which would otherwise
    // rewrite them to point at the table that is then dropped.
    if (Exec(db,
             "SELECT name from sqlite_master WHERE type = 'view' AND tbl_name != 'InventoryItems' AND sql LIKE "
             "'%InventoryItems%' AND type='view';",
             error, SqlCallbackInventoryItemViewHandler, db) != SQLITE_OK) {
        ZORV_LOG(kLogError, kImportFn, u"Failed to drop InventoryItems associated views: %s", error);
        return false;
    }
    std::string tempName;
    if (!CreateTempTableFromOriginal(db, "InventoryItems", tempName, error)) return false;
    if (!PrepareImportStatement(db, m_pInsertItemTempTableStmt, kInsertItemTempTableSQL,
                                u"InsertItemTempTableSQL")) {
        return false;
    }
    if (append != 0) {
        if (Exec(db, "INSERT INTO Temp_InventoryItems SELECT * FROM InventoryItems;", error) != SQLITE_OK) {
            ZORV_LOG(kLogError, kImportFn, u"Failed to copy InventoryItems to Temp_InventoryItems table: %s", error);
            return false;
        }
    } else {
        // A manifest keeps the machine's own items and drops every ruleset row;
        // an item ruleset drops the rows of every earlier item ruleset.
        const char* copy = kind == RulesetKind::AgentManifest
                               ? "INSERT INTO Temp_InventoryItems SELECT * FROM InventoryItems WHERE source IN (0, 3, 4, 5);"
                               : "INSERT INTO Temp_InventoryItems SELECT * FROM InventoryItems WHERE source != 2;";
        if (Exec(db, copy, error) != SQLITE_OK) {
            ZORV_LOG(kLogError, kImportFn, u"Failed to copy existing inventory to Temp_InventoryItems table: %s",
                     error);
            return false;
        }
    }

    return true;
}

bool ZorvDAL::CollectTableMetadata(sqlite3* db, const std::string& table, std::vector<std::string>& statements,
                                   std::string& error) {
    const std::string sql =
        "SELECT sql FROM sqlite_master WHERE tbl_name='" + table + "' AND type IN ('index', 'view', 'trigger');";
    if (Exec(db, sql, error, AppendSqlColumn, &statements) != SQLITE_OK) {
        ZORV_LOG(kLogError, u"ZorvDAL::CollectTableMetadata", u"Failed to collect %s metadata SQL statements: %s",
                 table, error);
        return false;
    }
    return true;
}

bool ZorvDAL::CreateTempTableFromOriginal(sqlite3* db, const std::string& table, std::string& tempName,
                                          std::string& error) {
    constexpr const char16_t* kFn = u"ZorvDAL::CreateTempTableFromOriginal";
    std::string create;
    const std::string sql = "SELECT sql FROM sqlite_master WHERE type='table' AND name='" + table + "';";
    if (Exec(db, sql, error, KeepSqlColumn, &create) != SQLITE_OK) {
        ZORV_LOG(kLogError, kFn, u"Failed to get %s table creation SQL: %s", table, error);
        return false;
    }
    tempName = "Temp_" + table;
    const size_t at = create.find(table);
    if (at == std::string::npos) {
        ZORV_LOG(kLogError, kFn, u"Failed to create %s table creation SQL", tempName);
        return false;
    }
    create.replace(at, table.size(), tempName);
    // Created inside the import's transaction: a rollback removes it again.
    if (Exec(db, create, error) != SQLITE_OK) {
        ZORV_LOG(kLogError, kFn, u"Failed to create %s table: %s", tempName, error);
        return false;
    }
    return true;
}

bool ZorvDAL::SwapTempTableToOriginal(sqlite3* db, const std::string& table, const std::vector<std::string>& statements,
                                      std::string& error) {
    constexpr const char16_t* kFn = u"ZorvDAL::SwapTempTableToOriginal";
    const std::string oldName = "Old_" + table;
    const std::string tempName = "Temp_" + table;
    if (Exec(db, "ALTER TABLE " + table + " RENAME TO " + oldName + ";", error) != SQLITE_OK) {
        ZORV_LOG(kLogError, kFn, u"Failed to rename %s table to %s: %s", table, oldName, error);
        return false;
    }
    // Dropping the old table drops its indexes and triggers too, which frees
    // their names for the statements re-run below.
    if (Exec(db, "DROP TABLE IF EXISTS " + oldName + ";", error) != SQLITE_OK) {
        ZORV_LOG(kLogError, kFn, u"Failed to drop %s table: %s", oldName, error);
        return false;
    }
    if (Exec(db, "ALTER TABLE " + tempName + " RENAME TO " + table + ";", error) != SQLITE_OK) {
        ZORV_LOG(kLogError, kFn, u"Failed to rename %s table to %s: %s", tempName, table, error);
        return false;
    }
    for (const std::string& statement : statements) {
        if (Exec(db, statement, error) != SQLITE_OK) {
            ZORV_LOG(kLogError, kFn, u"Failed to recreate %s metadata: %s", table, error);
            return false;
        }
    }
    return true;
}

int ZorvDAL::SqlCallbackInventoryItemViewHandler(void* context, int columnCount, char** values, char** /*names*/) {
    constexpr const char16_t* kFn = u"SqlCallbackInventoryItemViewHandler";
    if (columnCount < 1 || values[0] == nullptr) return 0;
    auto* db = static_cast<sqlite3*>(context);
    const std::string name = values[0];
    const std::string sql = "DROP VIEW IF EXISTS " + name;
    sqlite3_stmt* raw = nullptr;
    if (sqlite3_prepare_v2(db, sql.c_str(), -1, &raw, nullptr) != SQLITE_OK) {
        sqlite3_finalize(raw);
        ZORV_LOG(kLogError, kFn, u"Failed to prepare drop view statement for view %s: %s", name, sqlite3_errmsg(db));
        return 1;
    }
    const OwnedStatement stmt(raw);
    if (sqlite3_step(stmt.get()) != SQLITE_DONE) {
        ZORV_LOG(kLogError, kFn, u"Failed to drop view %s: %s", name, sqlite3_errmsg(db));
        return 1;
    }
    return 0;
}

// ---- Inventory export -----------------------------------------------------

bool ZorvDAL::GetItems(uint64_t afterItemId, uint64_t limit, uint32_t source, const std::u16string& payloadPath,
                       const std::u16string& scanUuid) {
    constexpr const char16_t* kFn = u"ZorvDAL::GetItems";
    ZORV_LOG(kLogTrace, kFn, u"ZorvDAL::GetItems");
    ZORV_LOG(kLogTrace, kFn, u"GetItems lock");
    std::lock_guard<std::mutex> lock(m_dbLock);

    char sql[512];
    const auto after = static_cast<unsigned long long>(afterItemId);
    // SQLite reads an integer literal beyond the signed 64-bit range as a real,
    // and LIMIT refuses a real: a host asking for "all" with every bit set
    // would get an error instead of its page. No table holds that many rows.
    const auto count = static_cast<unsigned long long>(std::min<uint64_t>(limit, INT64_MAX));
    if (source == AC_SOURCE_TRUST_RULE) {
        std::snprintf(sql, sizeof(sql),
                      "SELECT trustRuleId, paths, hitcount, processName, ruleset, trustType, signerName, productName, "
                      "companyName, sha256, issuerCN, issuerC, issuerS, issuerL, issuerO, issuerOU, procUser, "
                      "procGroup, userList FROM TrustRules WHERE trustRuleId > %llu ORDER BY trustRuleId LIMIT %llu;",
                      after, count);
    } else if (source == 0) {
        std::snprintf(sql, sizeof(sql),
                      "SELECT * FROM Items WHERE inventoryItemId > %llu ORDER BY inventoryItemId LIMIT %llu;", after,
                      count);
    } else {
        std::snprintf(sql, sizeof(sql),
                      "SELECT * FROM Items WHERE inventoryItemId > %llu and source = %d ORDER BY inventoryItemId "
                      "LIMIT %llu;",
                      after, static_cast<int32_t>(source), count);
    }

    const std::shared_ptr<sqlite3> dbHolder = m_DB;
    sqlite3* const db = dbHolder.get();
    if (db == nullptr) {
        ZORV_LOG(kLogError, kFn, u"m_DB is released");
        ZORV_LOG(kLogTrace, kFn, u"GetItems unlock");
        return false;
    }
    sqlite3_stmt* raw = nullptr;
    const int prepared = sqlite3_prepare_v2(db, sql, -1, &raw, nullptr);
    const OwnedStatement stmt(raw);
    if (prepared != SQLITE_OK) {
        ZORV_LOG(kLogError, kFn, u"sqlite3_prepare_v2 failed. rc: %d", prepared);
        ZORV_LOG(kLogTrace, kFn, u"GetItems unlock");
        return false;
    }

    // The page is written beside the payload's name and renamed over it only
    // once whole, so the host never reads a cut page as a short one. Neither
    // name is ever written through: the payload's must be free or a regular
    // file, and the one beside it is created afresh.
    if (platform::KindOfEntry(payloadPath) == platform::EntryKind::Other) {
        ZORV_LOG(kLogError, kFn, u"Payload %s is not a regular file, refused", payloadPath);
        ZORV_LOG(kLogTrace, kFn, u"GetItems unlock");
        return false;
    }
    const std::u16string partialPath = payloadPath + u".partial";
    platform::RemoveFile(partialPath);
    bool result = true;
    platform::FileWriter payload;
    if (!payload.Open(partialPath)) {
        ZORV_LOG(kLogError, kFn, u"Couldn't create Payload");
        result = false;
    } else {
        int rc = SQLITE_DONE;
        if (source == AC_SOURCE_TRUST_RULE) {
            GetItemSourceTrustRule(payload, stmt.get(), rc, payloadPath);
        } else {
            GetItemSourceInventory(payload, stmt.get(), rc, payloadPath, scanUuid);
        }
        if (rc != SQLITE_DONE && rc != SQLITE_ROW) {
            // The page would look merely short, and the agent would stop paging
            // as if it had read everything.
            ZORV_LOG(kLogError, kFn, u"DAL Error%s\n", GetErrorString());
            result = false;
        }
        // A failed write closed the writer and is logged where it happened.
        if (payload.Error() != 0) result = false;
        payload.Close();
        uint32_t error = 0;
        if (result && !platform::RenameOver(partialPath, payloadPath, error)) {
            ZORV_LOG(kLogError, kFn, u"Unable to move the page to payload %s, error %u", payloadPath, error);
            result = false;
        }
        if (!result) platform::RemoveFile(partialPath);
    }
    ZORV_LOG(kLogTrace, kFn, u"GetItems unlock");
    sqlite3_reset(stmt.get());
    return result;
}

void ZorvDAL::GetItemSourceInventory(platform::FileWriter& payload, sqlite3_stmt* stmt, int& rc,
                                     const std::u16string& payloadPath, const std::u16string& scanUuid) {
    constexpr const char16_t* kFn = u"ZorvDAL::GetItemSourceInventory";
    const std::string scan = Utf16ToUtf8(scanUuid);
    LineObject line;
    std::string md5, sha1, sha256;
    WriteRows(payload, stmt, rc, payloadPath, kFn, [&](bool& /*stop*/) -> cJSON* {
        HexOfColumn(stmt, 4, MD5Hash::kSize, md5);
        HexOfColumn(stmt, 5, SHA1Hash::kSize, sha1);
        HexOfColumn(stmt, 6, SHA256Hash::kSize, sha256);
        line.Begin();
        line.Number("inventoryItemId", static_cast<double>(sqlite3_column_int64(stmt, 0)));
        line.Text("fileName", ColumnText(stmt, 1));
        line.Text("path", ColumnText(stmt, 2));
        line.Text("nativePath", ColumnText(stmt, 3));
        line.Text("md5", md5.c_str());
        line.Text("sha1", sha1.c_str());
        line.Text("sha256", sha256.c_str());
        line.Number("size", sqlite3_column_int(stmt, 7));
        line.Number("recordTime", static_cast<double>(sqlite3_column_int64(stmt, 8)));
        line.Number("isAuthorized", sqlite3_column_int(stmt, 9));
        line.Number("source", sqlite3_column_int(stmt, 10));
        line.Text("rulesetId", ColumnText(stmt, 11));
        line.Text("scanUuid", scan.c_str());
        return line.Build();
    });
}

void ZorvDAL::GetItemSourceTrustRule(platform::FileWriter& payload, sqlite3_stmt* stmt, int& rc,
                                     const std::u16string& payloadPath) {
    constexpr const char16_t* kFn = u"ZorvDAL::GetItemSourceTrustRule";
    static constexpr const char* kIssuerKeys[6] = {"issuerCN", "issuerC", "issuerS", "issuerL", "issuerO", "issuerOU"};
    JsonPtr line;
    WriteRows(payload, stmt, rc, payloadPath, kFn, [&](bool& stop) -> cJSON* {
        line.reset(cJSON_CreateObject());
        cJSON* object = line.get();
        AddNumber(object, "trustRuleId", static_cast<double>(sqlite3_column_int64(stmt, 0)));
        AddText(object, "paths", stmt, 1);
        AddNumber(object, "hitcount", static_cast<double>(sqlite3_column_int64(stmt, 2)));
        AddText(object, "processName", stmt, 3);
        AddNumber(object, "trustType", static_cast<double>(sqlite3_column_int64(stmt, 5)));
        AddText(object, "signername", stmt, 6);
        AddText(object, "productName", stmt, 7);
        AddText(object, "companyName", stmt, 8);
        AddHash(object, "sha256", stmt, 9, SHA256Hash::kSize);
        for (int i = 0; i < 6; ++i) AddText(object, kIssuerKeys[i], stmt, 10 + i);
        AddText(object, "user", stmt, 16);
        AddText(object, "group", stmt, 17);
        AddText(object, "userList", stmt, 18);

        const auto* userList = reinterpret_cast<const char*>(sqlite3_column_text(stmt, 18));
        if (userList != nullptr && !AddUserListMembers(object, userList)) stop = true;
        return object;
    });
}

bool ZorvDAL::AddUserListMembers(cJSON* object, const char* userList) {
    constexpr const char16_t* kFn = u"ZorvDAL::GetItemSourceTrustRule";
    if (!m_pLookupTrustRuleStmt) {
        ZORV_LOG(kLogError, kFn, u"m_pLookupTrustRuleStmt is released, aborting query");
        return false;
    }
    const std::shared_ptr<sqlite3_stmt> holder = m_pLookupUserListStmt;
    sqlite3_stmt* const stmt = holder.get();
    if (stmt == nullptr) {
        ZORV_LOG(kLogError, u"graceful_exit", u"%s is NULL, now exit tbread", "pStmt");
        return false;
    }
    // Rules store their list reference lower-cased; the list ids keep the case
    // they came with, so a capitalised id exports an empty list.
    const std::string id = Utf16ToUtf8(ToLower(Utf8ToUtf16(userList)));
    const int index = sqlite3_bind_parameter_index(stmt, ":id");
    if (sqlite3_bind_text(stmt, index, id.c_str(), -1, SQLITE_TRANSIENT) != SQLITE_OK) {
        ZORV_LOG(kLogWarning, kFn, u"Unable to create query, aborting query");
        sqlite3_clear_bindings(stmt);
        return false;
    }
    cJSON* users = cJSON_AddArrayToObject(object, "users");
    int count = 0;
    while (sqlite3_step(stmt) == SQLITE_ROW) {
        const auto* user = reinterpret_cast<const char*>(sqlite3_column_text(stmt, 0));
        cJSON_AddItemToArray(users, cJSON_CreateString(user != nullptr ? user : ""));
        ++count;
    }
    cJSON_AddNumberToObject(object, "userListCount", count);
    sqlite3_reset(stmt);
    sqlite3_clear_bindings(stmt);
    return true;
}

}  // namespace zorv

// The in-memory trust rules: loading a snapshot from the two tables, and the
// lookup that reproduces the rule store's statement and its checks in code.
#include "ZorvTrustRuleSet.h"

#include <algorithm>
#include <atomic>
#include <unordered_map>

#include "ZorvLogger.h"
#include "ZorvText.h"
#include "ZorvWildcard.h"

namespace zorv {

namespace {

// The lines below are the rule store's own and read the same as before the
// rules moved into memory.
constexpr char16_t kLogSource[] = u"src/zorv/ZorvDataAccessLayer";
constexpr char16_t kLookupFn[] = u"ZorvDAL::IsFoundInTrustRulesInternal";
constexpr char16_t kMatchFn[] = u"ZorvDAL::MatchEventPathWithRulePath";

// The conditions of the statement that compare one column with one bound
// value; each can serve as a rule's key.
enum Field : uint8_t { kSha256, kSigner, kProduct, kCompany, kIssuer0, kFieldCount = kIssuer0 + 6 };

constexpr char kLoadRulesSql[] =
    "SELECT trustRuleId, processName, paths, trustType, sha256, signerName, productName, companyName, issuerCN, "
    "issuerC, issuerS, issuerL, issuerO, issuerOU, hitcount, ruleset, procUser, procGroup, userList FROM TrustRules "
    "ORDER BY trustRuleId ;";
enum RuleColumn {
    kColId,
    kColProcessName,
    kColPaths,
    kColTrustType,
    kColFirstField,  // sha256, then signerName .. issuerOU in Field order
    kColHitcount = kColFirstField + kFieldCount,
    kColRuleset,
    kColProcUser,
    kColProcGroup,
    kColUserList,
};
constexpr char kLoadUserListSql[] = "SELECT id, user FROM UserList ;";

// A digest as a key: one unit per byte, so that every key is a text.
std::u16string DigestKey(const uint8_t* bytes, size_t count) {
    std::u16string key(count, u'\0');
    for (size_t i = 0; i < count; ++i) key[i] = bytes[i];
    return key;
}

// SQLite compares stored UTF-8 bytes; the engine's text becomes UTF-8 with each
// lone surrogate replaced. Comparing what the statement would bind keeps
// equality the same for such texts too.
bool HasSurrogate(const std::u16string& text) {
    return std::any_of(text.begin(), text.end(), [](char16_t unit) { return unit >= 0xD800 && unit <= 0xDFFF; });
}
const std::u16string& AsBound(const std::u16string& text, std::u16string& scratch) {
    if (!HasSurrogate(text)) return text;
    scratch = Utf8ToUtf16(Utf16ToUtf8(text));
    return scratch;
}

enum class Cell { Null, Text, Unusable };

// A text column as the statement sees it: NULL, a text, or something no bound
// text can equal (a blob, or bytes that are not UTF-8 and so never equal a
// converted text).
Cell ReadText(sqlite3_stmt* stmt, int column, std::u16string& out) {
    out.clear();
    switch (sqlite3_column_type(stmt, column)) {
        case SQLITE_NULL:
            return Cell::Null;
        case SQLITE_TEXT: {
            const auto* bytes = reinterpret_cast<const char*>(sqlite3_column_text(stmt, column));
            const std::string_view utf8(bytes, static_cast<size_t>(sqlite3_column_bytes(stmt, column)));
            // Rule texts are nearly always ASCII, which widens unit by unit.
            if (std::all_of(utf8.begin(), utf8.end(), [](char c) { return static_cast<unsigned char>(c) < 0x80; })) {
                out.assign(utf8.begin(), utf8.end());
                return Cell::Text;
            }
            out = Utf8ToUtf16(utf8);
            return Utf16ToUtf8(out) == utf8 ? Cell::Text : Cell::Unusable;
        }
        default:
            return Cell::Unusable;
    }
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

// A ';'-separated list, lower-cased, and its compiled form. Rules often share
// their lists (the same folders under many names), so one load compiles each
// distinct list once and the rules hold it together.
struct PatternList {
    std::u16string text;
    WildcardPattern compiled;
};
using PatternCache = std::unordered_map<std::u16string, std::shared_ptr<const PatternList>>;

std::shared_ptr<const PatternList> CompileList(const std::u16string& list, PatternCache& cache) {
    std::u16string lowered = ToLower(list);
    auto& slot = cache[lowered];
    if (!slot) slot = std::make_shared<const PatternList>(PatternList{lowered, WildcardPattern::CompileList(lowered)});
    return slot;
}

// As the statement's path tests a list: the whole list at once, then, for the
// log only, the pattern that matched.
bool MatchList(const PatternList& list, const std::u16string& text) {
    if (!list.compiled.Match(text)) return false;
    if (!ZorvLogger::Instance().IsEnabled(kLogTrace)) return true;
    size_t start = 0;
    while (start <= list.text.size()) {
        size_t end = list.text.find(u';', start);
        if (end == std::u16string::npos) end = list.text.size();
        const std::u16string_view pattern = std::u16string_view(list.text).substr(start, end - start);
        if (!pattern.empty() && WildcardPattern::CompileOne(pattern).Match(text)) {
            ZORV_LOG(kLogTrace, kMatchFn, u"Match found between event path [%s] and rule path [%s]", text, pattern);
            break;
        }
        start = end + 1;
    }
    return true;
}

struct Condition {
    Field field;
    std::u16string value;
};

enum class NameKind : uint8_t { Any, Exact, Wildcard };

struct Rule {
    int32_t id = 0;
    int64_t trustType = 0;
    NameKind nameKind = NameKind::Any;
    bool hasPaths = false;
    bool hasGroup = false;
    bool hasRuleset = false;
    bool hasProcUser = false;
    bool hasUserList = false;
    std::u16string processName;  // an exact name as stored (empty for patterns)
    std::u16string group;
    std::u16string ruleset;
    std::u16string procUser;
    std::vector<Condition> conditions;
    std::shared_ptr<const PatternList> names;  // the process name as patterns
    std::shared_ptr<const PatternList> paths;
    // The rule's list: the members' names (NULL members left out) and the
    // number of its rows, which is how often the join repeats the rule.
    const std::vector<std::u16string>* members = nullptr;
    uint32_t listRows = 0;
};

struct UserListEntry {
    std::vector<std::u16string> users;
    uint32_t rows = 0;
};

using Bucket = std::vector<uint32_t>;  // rule indices, ascending
using Index = std::unordered_map<std::u16string, Bucket>;

// A rule no key narrows, with what rejects most such rules without touching
// the rule itself: its trust type and, for a single wildcard process name, the
// length and prefix unit every matching name has. Thousands of these are
// walked per lookup, so they are kept small and side by side.
struct ScanEntry {
    uint32_t index = 0;
    int32_t trustType = 0;
    uint32_t minLength = 0;
    uint32_t prefixLength = 0;  // 0: no prefix test
    char16_t prefixLast = 0;
    bool nameFilter = false;
};

}  // namespace

class TrustRuleSnapshot {
public:
    std::vector<Rule> rules;  // ascending trustRuleId
    // The hit count each rule had when loaded, moved to 1 by its first hit here.
    std::unique_ptr<std::atomic<int64_t>[]> hitcounts;
    std::unordered_map<std::u16string, UserListEntry> lists;
    Index byName;
    Index byField[kFieldCount];
    Index byUser;
    std::vector<ScanEntry> scanned;  // ascending index

    void BuildIndex();
    // How many rows of the join for rule `r` pass the statement's conditions
    // (0: the statement does not return the rule).
    uint32_t RowsReturned(const Rule& rule, const TrustQuery& query, const std::u16string& name,
                          const std::u16string* const values[kFieldCount], const std::u16string& user,
                          const std::u16string& group) const;
};

void TrustRuleSnapshot::BuildIndex() {
    for (uint32_t i = 0; i < rules.size(); ++i) {
        const Rule& rule = rules[i];
        if (rule.nameKind == NameKind::Exact) {
            byName[rule.processName].push_back(i);
        } else if (!rule.conditions.empty()) {
            const Condition& first = rule.conditions.front();
            byField[first.field][first.value].push_back(i);
        } else if (rule.hasProcUser || rule.hasUserList) {
            // Only the user can admit the rule: file it under every name that does.
            if (rule.hasProcUser) byUser[rule.procUser].push_back(i);
            if (rule.members != nullptr) {
                for (const std::u16string& member : *rule.members) {
                    Bucket& bucket = byUser[member];
                    if (bucket.empty() || bucket.back() != i) bucket.push_back(i);
                }
            }
        } else {
            ScanEntry entry;
            entry.index = i;
            entry.trustType = static_cast<int32_t>(rule.trustType);
            // One pattern with a wildcard: every name it accepts (itself
            // included) begins with the units before its first wildcard.
            const std::u16string& name = rule.nameKind == NameKind::Wildcard ? rule.names->text : std::u16string();
            const size_t wildcard = name.find_first_of(u"*?");
            if (!name.empty() && name.find(u';') == std::u16string::npos && wildcard != std::u16string::npos &&
                WildcardPattern::Fits(name)) {
                entry.nameFilter = true;
                entry.minLength = static_cast<uint32_t>(wildcard);
                entry.prefixLength = static_cast<uint32_t>(wildcard);
                entry.prefixLast = wildcard != 0 ? name[wildcard - 1] : u'\0';
            }
            scanned.push_back(entry);
        }
    }
}

uint32_t TrustRuleSnapshot::RowsReturned(const Rule& rule, const TrustQuery& query, const std::u16string& name,
                                         const std::u16string* const values[kFieldCount],
                                         const std::u16string& user, const std::u16string& group) const {
    if (rule.nameKind == NameKind::Exact && rule.processName != name) return 0;
    if (rule.trustType != 0 && rule.trustType != static_cast<int64_t>(query.trustType)) return 0;
    for (const Condition& condition : rule.conditions) {
        const std::u16string* value = values[condition.field];
        if (value == nullptr || *value != condition.value) return 0;
    }
    if (rule.hasGroup && group.find(rule.group) == std::u16string::npos) return 0;
    // One row per member of the rule's list (one row when it has none).
    const uint32_t rows = std::max<uint32_t>(rule.listRows, 1);
    if (!rule.hasUserList && !rule.hasProcUser) return rows;
    if (rule.hasProcUser && rule.procUser == user) return rows;
    if (rule.members == nullptr) return 0;
    return static_cast<uint32_t>(std::count(rule.members->begin(), rule.members->end(), user));
}

ZorvTrustRuleSet::ZorvTrustRuleSet() = default;
ZorvTrustRuleSet::~ZorvTrustRuleSet() = default;

std::shared_ptr<const TrustRuleSnapshot> ZorvTrustRuleSet::Current() const {
    std::lock_guard<std::mutex> lock(m_swapLock);
    return m_current;
}

bool ZorvTrustRuleSet::IsLoaded() const { return Current() != nullptr; }

size_t ZorvTrustRuleSet::RuleCount() const {
    const auto current = Current();
    return current ? current->rules.size() : 0;
}

void ZorvTrustRuleSet::Clear() {
    std::shared_ptr<const TrustRuleSnapshot> old;
    std::lock_guard<std::mutex> lock(m_swapLock);
    // The old snapshot is destroyed after the lock is released, by `old`.
    old.swap(m_current);
}

bool ZorvTrustRuleSet::Load(sqlite3* db) {
    constexpr char16_t kFunction[] = u"ZorvTrustRuleSet::Load";
    auto snapshot = std::make_shared<TrustRuleSnapshot>();
    // Both tables from one read transaction, unless the caller's is open.
    const bool ownTransaction = sqlite3_get_autocommit(db) != 0;
    if (ownTransaction && sqlite3_exec(db, "BEGIN DEFERRED;", nullptr, nullptr, nullptr) != SQLITE_OK) {
        ZORV_LOG(kLogError, kFunction, u"Unable to read trust rules: %s", sqlite3_errmsg(db));
        Clear();
        return false;
    }
    const auto read = [&](const char* sql, auto&& row) {
        sqlite3_stmt* raw = nullptr;
        int rc = sqlite3_prepare_v2(db, sql, -1, &raw, nullptr);
        const std::unique_ptr<sqlite3_stmt, int (*)(sqlite3_stmt*)> stmt(raw, sqlite3_finalize);
        while (rc == SQLITE_OK && (rc = sqlite3_step(raw)) == SQLITE_ROW) {
            row(raw);
            rc = SQLITE_OK;
        }
        return rc == SQLITE_DONE;
    };

    std::u16string text;
    std::vector<int64_t> hitcounts;
    PatternCache patterns;
    bool ok = read(kLoadUserListSql, [&](sqlite3_stmt* stmt) {
        // The join compares the list id as text; an id no text equals joins nothing.
        if (ReadText(stmt, 0, text) != Cell::Text) return;
        UserListEntry& entry = snapshot->lists[text];
        ++entry.rows;
        std::u16string user;
        if (ReadText(stmt, 1, user) == Cell::Text) entry.users.push_back(std::move(user));
    });
    ok = ok && read(kLoadRulesSql, [&](sqlite3_stmt* stmt) {
        Rule rule;
        rule.id = sqlite3_column_int(stmt, kColId);
        // "trustType = 0 or trustType = :trustType": a NULL or a text never passes.
        if (sqlite3_column_type(stmt, kColTrustType) != SQLITE_INTEGER) return;
        rule.trustType = sqlite3_column_int64(stmt, kColTrustType);
        if (rule.trustType < 0 || rule.trustType > 4) return;

        switch (ReadText(stmt, kColProcessName, rule.processName)) {
            case Cell::Null:
                break;
            case Cell::Text:
                rule.nameKind = rule.processName.find_first_of(u"*?") != std::u16string::npos ? NameKind::Wildcard
                                                                                             : NameKind::Exact;
                rule.names = CompileList(rule.processName, patterns);
                // Only an exact name is compared as stored; patterns keep their own copy.
                if (rule.nameKind == NameKind::Wildcard) std::u16string().swap(rule.processName);
                break;
            case Cell::Unusable:
                return;
        }
        if (sqlite3_column_type(stmt, kColPaths) != SQLITE_NULL) {
            rule.hasPaths = true;
            ReadText(stmt, kColPaths, text);
            rule.paths = CompileList(text, patterns);
        }
        for (int field = 0; field < kFieldCount; ++field) {
            const int column = kColFirstField + field;
            if (sqlite3_column_type(stmt, column) == SQLITE_NULL) continue;
            Condition condition{static_cast<Field>(field), {}};
            if (field == kSha256) {
                // A digest is bound as a blob, which equals only a blob.
                if (sqlite3_column_type(stmt, column) != SQLITE_BLOB) return;
                condition.value = DigestKey(static_cast<const uint8_t*>(sqlite3_column_blob(stmt, column)),
                                            static_cast<size_t>(sqlite3_column_bytes(stmt, column)));
            } else if (ReadText(stmt, column, condition.value) != Cell::Text) {
                return;
            }
            rule.conditions.push_back(std::move(condition));
        }
        rule.conditions.shrink_to_fit();
        if (sqlite3_column_type(stmt, kColRuleset) != SQLITE_NULL) {
            rule.hasRuleset = true;
            ReadText(stmt, kColRuleset, rule.ruleset);
        }
        if (sqlite3_column_type(stmt, kColProcGroup) != SQLITE_NULL) {
            rule.hasGroup = true;
            ReadText(stmt, kColProcGroup, rule.group);
        }
        const Cell procUser = ReadText(stmt, kColProcUser, rule.procUser);
        rule.hasProcUser = procUser != Cell::Null;
        std::u16string listId;
        const Cell userList = ReadText(stmt, kColUserList, listId);
        rule.hasUserList = userList != Cell::Null;
        if (userList == Cell::Text) {
            const auto list = snapshot->lists.find(listId);
            if (list != snapshot->lists.end()) {
                rule.members = &list->second.users;
                rule.listRows = list->second.rows;
            }
        }
        // A user condition that no bound text can pass leaves nothing to match.
        if (procUser == Cell::Unusable && rule.members == nullptr) return;
        if (procUser == Cell::Unusable) rule.hasProcUser = false, rule.hasUserList = true;
        hitcounts.push_back(sqlite3_column_int64(stmt, kColHitcount));
        snapshot->rules.push_back(std::move(rule));
    });
    if (ownTransaction) sqlite3_exec(db, "COMMIT;", nullptr, nullptr, nullptr);
    if (!ok) {
        ZORV_LOG(kLogError, kFunction, u"Unable to read trust rules: %s", sqlite3_errmsg(db));
        Clear();
        return false;
    }
    snapshot->rules.shrink_to_fit();
    snapshot->hitcounts = std::make_unique<std::atomic<int64_t>[]>(hitcounts.size());
    for (size_t i = 0; i < hitcounts.size(); ++i) snapshot->hitcounts[i].store(hitcounts[i], std::memory_order_relaxed);
    snapshot->BuildIndex();
    std::shared_ptr<const TrustRuleSnapshot> old = std::move(snapshot);
    {
        std::lock_guard<std::mutex> lock(m_swapLock);
        old.swap(m_current);
    }
    return true;
}

ZorvTrustRuleSet::Answer ZorvTrustRuleSet::Find(const TrustQuery& query, const std::u16string& eventName,
                                                Hit& hit) const {
    const std::shared_ptr<const TrustRuleSnapshot> current = Current();
    if (!current) return Answer::NotLoaded;
    const TrustRuleSnapshot& set = *current;

    // The values as the statement binds them.
    std::u16string scratch[4 + kFieldCount];
    const std::u16string& name = AsBound(query.processName, scratch[0]);
    const std::u16string& user = AsBound(query.user, scratch[1]);
    const std::u16string& group = AsBound(query.group, scratch[2]);
    const std::u16string* values[kFieldCount] = {};
    if (query.sha256 != nullptr && query.sha256->IsSet()) {
        scratch[3] = DigestKey(query.sha256->Bytes(), query.sha256->DigestSize());
        values[kSha256] = &scratch[3];
    }
    values[kSigner] = &AsBound(*query.signerName, scratch[4 + kSigner]);
    values[kProduct] = &AsBound(*query.productName, scratch[4 + kProduct]);
    values[kCompany] = &AsBound(*query.companyName, scratch[4 + kCompany]);
    static const std::u16string kEmpty;
    for (size_t i = 0; i < TrustQuery::kIssuerCount; ++i) {
        const std::u16string* issuer = query.issuer[i] != nullptr ? query.issuer[i] : &kEmpty;
        values[kIssuer0 + i] = &AsBound(*issuer, scratch[4 + kIssuer0 + i]);
    }

    // The buckets this event's keys select, each in ascending order; no rule
    // is in two of them, nor in a bucket and the scanned rules.
    const Bucket* buckets[2 + kFieldCount];
    size_t bucketCount = 0;
    const auto add = [&](const Index& index, const std::u16string& key) {
        if (index.empty()) return;
        const auto found = index.find(key);
        if (found != index.end()) buckets[bucketCount++] = &found->second;
    };
    add(set.byName, name);
    for (int field = 0; field < kFieldCount; ++field) {
        if (values[field] != nullptr) add(set.byField[field], *values[field]);
    }
    add(set.byUser, user);

    const std::u16string loweredName = ToLower(eventName);
    const bool tracing = ZorvLogger::Instance().IsEnabled(kLogTrace);
    // Without the log, a scanned rule whose type or name cannot pass is
    // skipped unseen; with it, every rule the statement returns is logged.
    const std::u16string& processName = query.processName;
    const auto mayPass = [&](const ScanEntry& entry) {
        if (tracing) return true;
        if (entry.trustType != 0 && entry.trustType != static_cast<int32_t>(query.trustType)) return false;
        if (!entry.nameFilter) return true;
        return processName.size() >= entry.minLength &&
               (entry.prefixLength == 0 || processName[entry.prefixLength - 1] == entry.prefixLast);
    };
    size_t scan = 0;
    size_t cursor[std::size(buckets)] = {};
    for (;;) {
        while (scan < set.scanned.size() && !mayPass(set.scanned[scan])) ++scan;
        // The lowest index left anywhere: rules are taken in id order.
        size_t from = bucketCount;  // bucketCount stands for the scanned rules
        uint32_t index = scan < set.scanned.size() ? set.scanned[scan].index : UINT32_MAX;
        for (size_t b = 0; b < bucketCount; ++b) {
            if (cursor[b] < buckets[b]->size() && (*buckets[b])[cursor[b]] < index) {
                from = b;
                index = (*buckets[b])[cursor[b]];
            }
        }
        if (index == UINT32_MAX) break;
        if (from == bucketCount) {
            ++scan;
        } else {
            ++cursor[from];
        }

        const Rule& rule = set.rules[index];
        const uint32_t rows = set.RowsReturned(rule, query, name, values, user, group);
        // The join repeats a rule once per list member that passes; every
        // repeat is checked again, which only the log can tell.
        for (uint32_t row = 0; row < (tracing ? rows : std::min<uint32_t>(rows, 1)); ++row) {
            ZORV_LOG(kLogTrace, kLookupFn,
                     u"Found potential trust rule to apply to drift. Checking for trusted path, process name and "
                     u"groups");
            if (rule.nameKind != NameKind::Any && !MatchList(*rule.names, query.processName)) continue;
            if (rule.hasGroup && !GroupListContains(query.group, rule.group)) continue;
            if (!rule.hasPaths) {
                ZORV_LOG(kLogTrace, kLookupFn, u"No path specified for trust rule. Allow all path");
                ZORV_LOG(kLogTrace, kLookupFn, u"process %s is found in trust rule", query.processName);
            } else if (MatchList(*rule.paths, loweredName)) {
                ZORV_LOG(kLogTrace, kLookupFn, u"process %s with path %s is found in trust rule", query.processName,
                         eventName);
            } else {
                continue;
            }
            hit.trustRuleId = rule.id;
            hit.hasRuleset = rule.hasRuleset;
            hit.ruleset = rule.ruleset;
            int64_t zero = 0;
            hit.firstHit = set.hitcounts[index].load(std::memory_order_relaxed) == 0 &&
                           set.hitcounts[index].compare_exchange_strong(zero, 1, std::memory_order_relaxed);
            return Answer::Found;
        }
    }
    return Answer::NotFound;
}

}  // namespace zorv

// ZorvTrustRuleSet: the TrustRules table, with the user lists its rules refer
// to, held in memory and answering the trust-rule question without a query.
//
// Thread-safe. The rules form an immutable snapshot that readers share; a
// change to the tables builds a new snapshot beside the old one and swaps it in
// whole, so a reader never waits for a load and never sees half of one. The
// swap lock guards only the pointer. The first-hit marks are atomics inside
// the snapshot, the one thing in it that changes.
//
// The answer is the first rule, by ascending trustRuleId, that the rule
// store's lookup statement would return and its checks in code accept.
// Exact names and digests are found by key; only rules whose process name
// holds a wildcard (or names none) and that no other key narrows are tested
// one by one, each with its patterns compiled once.
#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "ZorvUtilWindows.h"

namespace zorv {

// What one trust type compares against the rules, as the lookup statement
// binds it. Texts that keep their case point into the event; the lower-cased
// ones are copies.
struct TrustQuery {
    static constexpr size_t kIssuerCount = 6;  // CN, C, S, L, O, OU
    uint32_t trustType = 0;
    std::u16string processName;  // lower-cased
    const std::u16string* signerName = nullptr;
    const std::u16string* productName = nullptr;
    const std::u16string* companyName = nullptr;
    const std::u16string* issuer[kIssuerCount] = {};
    const SHA256Hash* sha256 = nullptr;  // null or unset: bound as NULL
    std::u16string user;   // lower-cased
    std::u16string group;  // lower-cased
};

class TrustRuleSnapshot;

class ZorvTrustRuleSet {
public:
    // The rule a lookup accepted.
    struct Hit {
        int32_t trustRuleId = 0;
        bool hasRuleset = false;
        std::u16string ruleset;
        // This lookup moved the rule's hit count from 0: the store must now
        // record the first hit (every later one lives in the statistics).
        bool firstHit = false;
    };
    enum class Answer { NotLoaded, NotFound, Found };

    ZorvTrustRuleSet();
    ~ZorvTrustRuleSet();
    ZorvTrustRuleSet(const ZorvTrustRuleSet&) = delete;
    ZorvTrustRuleSet& operator=(const ZorvTrustRuleSet&) = delete;

    // Reads both tables through `db` in one read transaction and swaps the
    // result in. On failure the set is emptied (NotLoaded), so that no stale
    // rule answers; the caller then asks the database itself.
    bool Load(sqlite3* db);
    void Clear();
    bool IsLoaded() const;

    // `eventName` is the full path of the target, as the event carries it.
    // Logs the TRACE lines the statement-driven lookup logs, in its order.
    Answer Find(const TrustQuery& query, const std::u16string& eventName, Hit& hit) const;

    // Rules held: those the statement could ever return.
    size_t RuleCount() const;

private:
    std::shared_ptr<const TrustRuleSnapshot> Current() const;

    mutable std::mutex m_swapLock;  // guards m_current (the pointer, not what it points to)
    std::shared_ptr<const TrustRuleSnapshot> m_current;
};

}  // namespace zorv

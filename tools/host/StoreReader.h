// A read-only look at a store file with SQLite itself, beside a running
// engine or without one: integrity, schema version, sizes and counts, the
// ruleset of an inventory row, and a consistent copy (the backup API) for
// trying changes on a scratch store. Not thread-safe; one per thread.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

struct sqlite3;

namespace zorv::host {

struct StoreInfo {
    int schemaVersion = 0;
    uint64_t fileBytes = 0;
    uint64_t walBytes = 0;
    uint64_t pageSize = 0;
    uint64_t pageCount = 0;
    uint64_t freePages = 0;
    std::map<int64_t, uint64_t> itemsBySource;  // InventoryItems.source -> rows
    uint64_t trustRules = 0;
    uint64_t userListEntries = 0;
};

class StoreReader {
public:
    StoreReader();
    ~StoreReader();
    StoreReader(const StoreReader&) = delete;
    StoreReader& operator=(const StoreReader&) = delete;

    // Opens read-only; never creates the file. False with `error` set.
    bool Open(const std::string& path, std::string& error);

    // "ok" problems list empty when sound; each entry one of SQLite's findings.
    bool IntegrityCheck(std::vector<std::string>& problems, std::string& error);
    bool Info(StoreInfo& info, std::string& error);
    // The ruleset and source of the row the lookup would find for a digest
    // (newest row of that SHA-256 and size); false when there is none.
    bool ItemRuleset(const uint8_t sha256[32], uint64_t size, std::string& ruleset, int64_t& source);
    // The ruleset of a trust rule, by id.
    bool TrustRuleRuleset(int64_t trustRuleId, std::string& ruleset);

    // The trust rules, in the engine's order (ascending id), that could have
    // accepted an event as the engine's log tells it: of `trustType` (or of
    // any type), whose process-name list holds `namePattern` (nullopt: no
    // process name), whose path list holds `pathPattern` (nullopt: no paths),
    // and whose hash, if any, is `sha256`. Patterns compare without case.
    struct TrustRuleRow {
        int64_t id = 0;
        std::string ruleset;  // empty when the rule has none
    };
    bool TrustRuleCandidates(uint32_t trustType, const std::optional<std::string>& namePattern,
                             const std::optional<std::string>& pathPattern, const uint8_t sha256[32],
                             std::vector<TrustRuleRow>& rows);

    // A consistent copy of the store into `target` (replaced), in WAL mode.
    static bool Copy(const std::string& source, const std::string& target, std::string& error);

private:
    sqlite3* m_db = nullptr;
};

}  // namespace zorv::host

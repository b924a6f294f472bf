#include "StoreReader.h"

#include <sqlite3.h>

#include <filesystem>
#include <system_error>

namespace zorv::host {

namespace {

struct StatementDeleter {
    void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
};
using Statement = std::unique_ptr<sqlite3_stmt, StatementDeleter>;

Statement Prepare(sqlite3* db, const char* sql) {
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_prepare_v2(db, sql, -1, &statement, nullptr) != SQLITE_OK) return nullptr;
    return Statement(statement);
}

bool QueryNumber(sqlite3* db, const char* sql, uint64_t& value) {
    Statement statement = Prepare(db, sql);
    if (!statement || sqlite3_step(statement.get()) != SQLITE_ROW) return false;
    value = static_cast<uint64_t>(sqlite3_column_int64(statement.get(), 0));
    return true;
}

uint64_t FileBytes(const std::string& path) {
    std::error_code error;
    const auto size = std::filesystem::file_size(std::filesystem::u8path(path), error);
    return error ? 0 : static_cast<uint64_t>(size);
}

std::string AsciiLower(std::string text) {
    for (char& c : text)
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c + 32);
    return text;
}

// Whether the ";"-separated list holds `pattern` as one of its entries.
bool ListHolds(const std::string& list, const std::string& pattern) {
    const std::string lowered = AsciiLower(list);
    const std::string wanted = AsciiLower(pattern);
    size_t start = 0;
    while (start <= lowered.size()) {
        size_t end = lowered.find(';', start);
        if (end == std::string::npos) end = lowered.size();
        if (lowered.compare(start, end - start, wanted) == 0) return true;
        start = end + 1;
    }
    return false;
}

}  // namespace

StoreReader::StoreReader() = default;

StoreReader::~StoreReader() {
    if (m_db != nullptr) sqlite3_close_v2(m_db);
}

bool StoreReader::Open(const std::string& path, std::string& error) {
    std::error_code status;
    if (!std::filesystem::is_regular_file(std::filesystem::u8path(path), status)) {
        error = status ? status.message() : "no such file";
        return false;
    }
    if (sqlite3_open_v2(path.c_str(), &m_db, SQLITE_OPEN_READONLY, nullptr) != SQLITE_OK) {
        error = m_db ? sqlite3_errmsg(m_db) : "cannot open";
        return false;
    }
    // The engine may hold the write lock for an import; wait, but boundedly.
    sqlite3_busy_timeout(m_db, 5000);
    uint64_t tables = 0;
    if (!QueryNumber(m_db, "SELECT count(*) FROM sqlite_master;", tables)) {
        error = sqlite3_errmsg(m_db);
        return false;
    }
    return true;
}

bool StoreReader::IntegrityCheck(std::vector<std::string>& problems, std::string& error) {
    Statement statement = Prepare(m_db, "PRAGMA integrity_check;");
    if (!statement) {
        error = sqlite3_errmsg(m_db);
        return false;
    }
    int rc;
    while ((rc = sqlite3_step(statement.get())) == SQLITE_ROW) {
        const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(statement.get(), 0));
        const std::string finding = text ? text : "";
        if (finding != "ok") problems.push_back(finding);
    }
    if (rc != SQLITE_DONE) {
        error = sqlite3_errmsg(m_db);
        return false;
    }
    return true;
}

bool StoreReader::Info(StoreInfo& info, std::string& error) {
    uint64_t value = 0;
    if (!QueryNumber(m_db, "PRAGMA user_version;", value)) {
        error = sqlite3_errmsg(m_db);
        return false;
    }
    info.schemaVersion = static_cast<int>(value);
    QueryNumber(m_db, "PRAGMA page_size;", info.pageSize);
    QueryNumber(m_db, "PRAGMA page_count;", info.pageCount);
    QueryNumber(m_db, "PRAGMA freelist_count;", info.freePages);
    const char* file = sqlite3_db_filename(m_db, "main");
    if (file != nullptr) {
        info.fileBytes = FileBytes(file);
        info.walBytes = FileBytes(std::string(file) + "-wal");
    }
    Statement statement = Prepare(m_db, "SELECT source, count(*) FROM InventoryItems GROUP BY source ORDER BY source;");
    if (!statement) {
        error = sqlite3_errmsg(m_db);
        return false;
    }
    while (sqlite3_step(statement.get()) == SQLITE_ROW)
        info.itemsBySource[sqlite3_column_int64(statement.get(), 0)] =
            static_cast<uint64_t>(sqlite3_column_int64(statement.get(), 1));
    QueryNumber(m_db, "SELECT count(*) FROM TrustRules;", info.trustRules);
    QueryNumber(m_db, "SELECT count(*) FROM UserList;", info.userListEntries);
    return true;
}

bool StoreReader::ItemRuleset(const uint8_t sha256[32], uint64_t size, std::string& ruleset, int64_t& source) {
    Statement statement = Prepare(m_db,
                                  "SELECT ruleset, source FROM InventoryItems WHERE sha256 = ?1 AND (size = 0 OR "
                                  "size = ?2) ORDER BY inventoryItemId DESC LIMIT 1;");
    if (!statement) return false;
    sqlite3_bind_blob(statement.get(), 1, sha256, 32, SQLITE_STATIC);
    sqlite3_bind_int64(statement.get(), 2, static_cast<sqlite3_int64>(size));
    if (sqlite3_step(statement.get()) != SQLITE_ROW) return false;
    const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(statement.get(), 0));
    ruleset = text ? text : "";
    source = sqlite3_column_int64(statement.get(), 1);
    return true;
}

bool StoreReader::TrustRuleRuleset(int64_t trustRuleId, std::string& ruleset) {
    Statement statement = Prepare(m_db, "SELECT ruleset FROM TrustRules WHERE trustRuleId = ?1;");
    if (!statement) return false;
    sqlite3_bind_int64(statement.get(), 1, trustRuleId);
    if (sqlite3_step(statement.get()) != SQLITE_ROW) return false;
    const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(statement.get(), 0));
    ruleset = text ? text : "";
    return true;
}

bool StoreReader::TrustRuleCandidates(uint32_t trustType, const std::optional<std::string>& namePattern,
                                      const std::optional<std::string>& pathPattern, const uint8_t sha256[32],
                                      std::vector<TrustRuleRow>& rows) {
    Statement statement = Prepare(m_db,
                                  "SELECT trustRuleId, ruleset, processName, paths FROM TrustRules WHERE (trustType = 0 "
                                  "OR trustType = ?1) AND (sha256 IS NULL OR sha256 = ?2) ORDER BY trustRuleId;");
    if (!statement) return false;
    sqlite3_bind_int64(statement.get(), 1, trustType);
    sqlite3_bind_blob(statement.get(), 2, sha256, 32, SQLITE_STATIC);
    const auto text = [&](int column) -> std::optional<std::string> {
        const auto* value = reinterpret_cast<const char*>(sqlite3_column_text(statement.get(), column));
        if (value == nullptr) return std::nullopt;
        return std::string(value);
    };
    rows.clear();
    int step;
    while ((step = sqlite3_step(statement.get())) == SQLITE_ROW) {
        const std::optional<std::string> name = text(2), paths = text(3);
        if (name.has_value() != namePattern.has_value() || paths.has_value() != pathPattern.has_value()) continue;
        if (name && !ListHolds(*name, *namePattern)) continue;
        if (paths && !ListHolds(*paths, *pathPattern)) continue;
        rows.push_back({sqlite3_column_int64(statement.get(), 0), text(1).value_or("")});
    }
    return step == SQLITE_DONE;
}

bool StoreReader::Copy(const std::string& source, const std::string& target, std::string& error) {
    StoreReader from;
    if (!from.Open(source, error)) return false;
    std::error_code ignored;
    for (const char* suffix : {"", "-wal", "-shm"})
        std::filesystem::remove(std::filesystem::u8path(target + suffix), ignored);
    sqlite3* to = nullptr;
    if (sqlite3_open_v2(target.c_str(), &to, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr) != SQLITE_OK) {
        error = to ? sqlite3_errmsg(to) : "cannot create";
        sqlite3_close_v2(to);
        return false;
    }
    sqlite3_backup* backup = sqlite3_backup_init(to, "main", from.m_db, "main");
    bool ok = backup != nullptr;
    if (ok) {
        int rc;
        while ((rc = sqlite3_backup_step(backup, 1024)) == SQLITE_OK || rc == SQLITE_BUSY || rc == SQLITE_LOCKED)
            sqlite3_sleep(rc == SQLITE_OK ? 0 : 10);
        ok = rc == SQLITE_DONE;
        sqlite3_backup_finish(backup);
    }
    if (!ok) error = sqlite3_errmsg(to);
    if (ok) sqlite3_exec(to, "PRAGMA journal_mode=WAL;", nullptr, nullptr, nullptr);
    sqlite3_close_v2(to);
    return ok;
}

}  // namespace zorv::host

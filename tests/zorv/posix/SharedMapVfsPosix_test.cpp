// The read connections share one mapping of a store path. On POSIX another
// file can be renamed over the store while connections hold it open; a
// connection opened on the new file must then read the new file, never pages
// of the old one through the mapping the earlier connections made.
#include <sqlite3.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>

#include "TestSupport.h"
#include "ZorvSharedMapVfs.h"

namespace zorv {
namespace {

using Connection = std::unique_ptr<sqlite3, decltype(&sqlite3_close_v2)>;

// A file of some hundred pages, all rows holding `mark`, so that a count
// reads pages past the first (the first is never mapped).
void MakeStore(const std::filesystem::path& path, const std::string& mark) {
    sqlite3* raw = nullptr;
    ASSERT_EQ(sqlite3_open(path.string().c_str(), &raw), SQLITE_OK);
    Connection db(raw, sqlite3_close_v2);
    const std::string sql = "CREATE TABLE t(v TEXT, pad TEXT); WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 "
                            "FROM n WHERE i < 2000) INSERT INTO t SELECT '" + mark + "', hex(randomblob(100)) FROM n;";
    ASSERT_EQ(sqlite3_exec(db.get(), sql.c_str(), nullptr, nullptr, nullptr), SQLITE_OK) << sqlite3_errmsg(db.get());
}

Connection OpenShared(const std::filesystem::path& path) {
    sqlite3* raw = nullptr;
    sqlite3_open_v2(path.string().c_str(), &raw, SQLITE_OPEN_READONLY, SharedMapVfsName());
    Connection db(raw, sqlite3_close_v2);
    sqlite3_exec(db.get(), "PRAGMA mmap_size = 1073741824;", nullptr, nullptr, nullptr);
    return db;
}

int Count(sqlite3* db, const std::string& mark) {
    sqlite3_stmt* stmt = nullptr;
    const std::string sql = "SELECT count(*) FROM t WHERE v = '" + mark + "';";
    if (sqlite3_prepare_v2(db, sql.c_str(), -1, &stmt, nullptr) != SQLITE_OK) return -1;
    const int count = sqlite3_step(stmt) == SQLITE_ROW ? sqlite3_column_int(stmt, 0) : -1;
    sqlite3_finalize(stmt);
    return count;
}

// Whether the connection on the old file has read through the mapping
// before the rename or only after the new file's connection has: in both
// orders each must read its own file.
TEST(SharedMapVfsPosix, AStoreRenamedOverIsReadFromItselfAndTheOldOneFromItsOwnFile) {
    ASSERT_NE(SharedMapVfsName(), nullptr);
    for (const bool oldReadsFirst : {true, false}) {
        SCOPED_TRACE(oldReadsFirst ? "the old file read before the rename" : "the old file read only after");
        test::TempDir dir;
        const std::filesystem::path store = dir / "ac.db", replacement = dir / "new.db";
        MakeStore(store, "old");
        MakeStore(replacement, "new");

        const Connection first = OpenShared(store);
        if (oldReadsFirst) ASSERT_EQ(Count(first.get(), "old"), 2000);
        std::filesystem::rename(replacement, store);
        const Connection second = OpenShared(store);
        EXPECT_EQ(Count(second.get(), "new"), 2000);
        EXPECT_EQ(Count(second.get(), "old"), 0);
        // The first connection still has the old file open, and reads it whole.
        EXPECT_EQ(Count(first.get(), "old"), 2000);
        EXPECT_EQ(Count(first.get(), "new"), 0);
    }
}

}  // namespace
}  // namespace zorv

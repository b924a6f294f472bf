// The rule store's lifecycle against real files: closing while a statement
// is still in use, shutting down once, deleting and purging.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "DalTestPeer.h"
#include "SqliteProbe.h"
#include "TestSupport.h"
#include "ZorvDataAccessLayer.h"
#include "ZorvLogger.h"

namespace zorv {

namespace {

using test::SqliteProbe;

class ZorvDalLifecycle : public ::testing::Test {
protected:
    void SetUp() override {
        ZorvLogger::Instance().InitLogger(&test::LogCapture::Callback, 0xF);
        ASSERT_TRUE(m_dal.SetDBPath(test::PathText(m_file)));
        ASSERT_TRUE(m_dal.InitDB());
    }

    // Rows of every source and kind the purge distinguishes.
    void Seed() {
        SqliteProbe probe(m_file);
        probe.Exec("INSERT INTO InventoryItems(fileName, source) VALUES('f1', 1), ('f2', 2), ('f3', 3), ('f4', 4), "
                   "('f5', 5); INSERT INTO TrustRules(processName, trustType) VALUES('setup.exe', 1); "
                   "INSERT INTO UserList(id, user) VALUES('admins', 'alice'); "
                   "UPDATE AppControlState SET settingValue = 'c1' WHERE settingName = 'inventoryCookie'");
    }

    test::TempDir m_dir;
    std::filesystem::path m_file = m_dir / "ac.db";
    ZorvDAL m_dal;
};

// Finalize releases only what nobody else holds: the operation in flight
// keeps its statement and the connection usable to its end.
TEST_F(ZorvDalLifecycle, FinalizeLeavesWhatAnotherReferenceHolds) {
    auto stmt = ZorvDALTestPeer::GetAcStateStmt(m_dal);
    auto db = ZorvDALTestPeer::Connection(m_dal);
    ASSERT_TRUE(stmt && db);
    ZorvDALTestPeer::Finalize(m_dal);
    EXPECT_TRUE(m_dal.IsOpen());
    sqlite3_bind_text(stmt.get(), 1, "enableHTML", -1, SQLITE_STATIC);
    ASSERT_EQ(sqlite3_step(stmt.get()), SQLITE_ROW);
    EXPECT_STREQ(reinterpret_cast<const char*>(sqlite3_column_text(stmt.get(), 0)), "1");
    sqlite3_reset(stmt.get());

    stmt.reset();
    db.reset();
    ZorvDALTestPeer::Finalize(m_dal);
    EXPECT_FALSE(m_dal.IsOpen());
}

// The last connection to close removes the write-ahead log: that is how the
// file shows the store really let go.
TEST_F(ZorvDalLifecycle, ShutdownTwiceIsHarmlessAndTheDestructorClosesWhatWasLeftOpen) {
    m_dal.Shutdown();
    m_dal.Shutdown();
    EXPECT_FALSE(m_dal.IsOpen());
    EXPECT_FALSE(std::filesystem::exists(m_dir / "ac.db-wal"));
    {
        ZorvDAL leftOpen;
        ASSERT_TRUE(leftOpen.SetDBPath(test::PathText(m_file)));
        ASSERT_TRUE(leftOpen.InitDB());
        EXPECT_TRUE(std::filesystem::exists(m_dir / "ac.db-wal"));
    }
    EXPECT_FALSE(std::filesystem::exists(m_dir / "ac.db-wal"));
}

TEST_F(ZorvDalLifecycle, DeleteDBRemovesTheFileAndLeavesTheStoreClosed) {
    Seed();
    EXPECT_TRUE(m_dal.DeleteDB());
    EXPECT_FALSE(std::filesystem::exists(m_file));
    EXPECT_FALSE(m_dal.IsOpen());
    EXPECT_TRUE(m_dal.DeleteDB()) << "a file that is already gone counts as deleted";
    ASSERT_TRUE(m_dal.InitDB());
    EXPECT_EQ(SqliteProbe(m_file).Count("InventoryItems"), 0);
}

TEST_F(ZorvDalLifecycle, PurgeOfOneKindLeavesTheOthersAndPurgeOfEverythingLeavesAFreshFile) {
    Seed();
    {
        SqliteProbe probe(m_file);
        EXPECT_TRUE(m_dal.PurgeDB(6));
        EXPECT_EQ(probe.Count("TrustRules") + probe.Count("UserList"), 0);
        EXPECT_EQ(probe.Count("InventoryItems"), 5);
        EXPECT_TRUE(m_dal.PurgeDB(3));
        EXPECT_EQ(probe.Lines("SELECT source FROM InventoryItems ORDER BY source"),
                  (std::vector<std::string>{"1", "2", "4", "5"}));
    }
    EXPECT_TRUE(m_dal.PurgeDB(0));
    EXPECT_TRUE(m_dal.IsOpen());
    SqliteProbe probe(m_file);
    EXPECT_EQ(probe.Scalar("PRAGMA user_version"), "16");
    EXPECT_EQ(probe.Count("InventoryItems") + probe.Count("TrustRules") + probe.Count("UserList"), 0);
    EXPECT_EQ(probe.Scalar("SELECT settingValue FROM AppControlState WHERE settingName = 'inventoryCookie'"), "");
    EXPECT_EQ(probe.Count("AppControlState"), 10);
}

}  // namespace
}  // namespace zorv

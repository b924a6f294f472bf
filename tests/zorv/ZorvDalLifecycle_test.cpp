// The rule store's lifecycle against real files: opening twice, closing while
// a statement is still in use, shutting down once, deleting and purging.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "SqliteProbe.h"
#include "TestSupport.h"
#include "ZorvDataAccessLayer.h"
#include "ZorvLogger.h"

namespace zorv {

// Stands in for an operation that holds its own references while it works.
struct ZorvDALTestPeer {
    static std::shared_ptr<sqlite3_stmt> GetAcStateStmt(ZorvDAL& dal) { return dal.m_pGetAcStateStmt; }
    static std::shared_ptr<sqlite3> Connection(ZorvDAL& dal) { return dal.m_DB; }
    static void Finalize(ZorvDAL& dal) { dal.Finalize(); }
};

namespace {

using test::LogCapture;
using test::SqliteProbe;

void CaptureLog() {
    ZorvLogger::Instance().InitLogger(&LogCapture::Callback, 0xF);
    ZorvLogger::Instance().SetLevel(0xF);
    LogCapture::Instance().Clear();
}

class ZorvDalLifecycle : public ::testing::Test {
protected:
    void SetUp() override {
        CaptureLog();
        ASSERT_TRUE(m_dal.SetDBPath(test::PathText(m_file)));
    }

    // Rows of every source and kind the purge distinguishes.
    void Seed() {
        SqliteProbe probe(m_file);
        for (int source = 1; source <= 5; ++source) {
            probe.Exec("INSERT INTO InventoryItems(fileName, source, ruleset) VALUES('f" + std::to_string(source) +
                       ".exe', " + std::to_string(source) + ", '')");
        }
        probe.Exec("INSERT INTO TrustRules(processName, trustType) VALUES('setup.exe', 1)");
        probe.Exec("INSERT INTO UserList(id, user) VALUES('admins', 'alice')");
        probe.Exec("UPDATE AppControlState SET settingValue = 'c1' WHERE settingName = 'inventoryCookie'");
    }

    test::TempDir m_dir;
    std::filesystem::path m_file = m_dir / "ac.db";
    ZorvDAL m_dal;
};

TEST_F(ZorvDalLifecycle, PathIsRefusedWhileOpenAndInitDBTwiceOnlyPreparesAgain) {
    ASSERT_TRUE(m_dal.InitDB());
    EXPECT_FALSE(m_dal.SetDBPath(u"elsewhere.db"));
    EXPECT_EQ(m_dal.DBPath(), test::PathText(m_file));
    LogCapture::Instance().Clear();

    EXPECT_TRUE(m_dal.InitDB());
    EXPECT_TRUE(LogCapture::Instance().Contains(u"m_DB is not null."));
    EXPECT_FALSE(LogCapture::Instance().Contains(u"SCHEMA user_version: 16"));
}

// Finalize releases only what nobody else holds: the operation in flight
// keeps its statement and the connection usable to its end.
TEST_F(ZorvDalLifecycle, FinalizeLeavesWhatAnotherReferenceHolds) {
    ASSERT_TRUE(m_dal.InitDB());
    auto stmt = ZorvDALTestPeer::GetAcStateStmt(m_dal);
    auto db = ZorvDALTestPeer::Connection(m_dal);
    ASSERT_TRUE(stmt && db);
    LogCapture::Instance().Clear();

    ZorvDALTestPeer::Finalize(m_dal);
    EXPECT_TRUE(LogCapture::Instance().Contains(u"ignore Finalize m_pGetAcStateStmt"));
    EXPECT_TRUE(LogCapture::Instance().Contains(u"Finalize m_pSetAcStateStmt"));
    EXPECT_TRUE(LogCapture::Instance().Contains(u"ignore Finalize m_DB"));
    // Never prepared: the temp-table inserts belong to the import.
    EXPECT_TRUE(LogCapture::Instance().Contains(u"ignore Finalize m_pInsertItemTempTableStmt"));
    EXPECT_EQ(LogCapture::Instance().Lines().size(), 26u);
    EXPECT_TRUE(m_dal.IsOpen());

    sqlite3_bind_text(stmt.get(), 1, "enableHTML", -1, SQLITE_STATIC);
    ASSERT_EQ(sqlite3_step(stmt.get()), SQLITE_ROW);
    EXPECT_STREQ(reinterpret_cast<const char*>(sqlite3_column_text(stmt.get(), 0)), "1");
    sqlite3_reset(stmt.get());

    stmt.reset();
    db.reset();
    LogCapture::Instance().Clear();
    ZorvDALTestPeer::Finalize(m_dal);
    EXPECT_TRUE(LogCapture::Instance().Contains(u"Finalize m_DB"));
    EXPECT_FALSE(m_dal.IsOpen());
}

// A statement that cannot be prepared releases the others, but the
// connection stays open: PrepareStatements itself still holds it.
TEST_F(ZorvDalLifecycle, FailedPrepareKeepsTheConnection) {
    test::WriteFile(m_file, "");
    {
        SqliteProbe probe(m_file);
        for (const auto& script : ZorvDAL::SchemaScripts()) probe.Exec(script);
        probe.Exec("DROP TABLE UserList");
    }
    EXPECT_FALSE(m_dal.InitDB());
    EXPECT_TRUE(LogCapture::Instance().Contains(u"sqlite3_prepare_v2 failed. rc: 1"));
    EXPECT_TRUE(LogCapture::Instance().Contains(u"Finalize m_pInsertTrustRuleStmt"));
    EXPECT_TRUE(LogCapture::Instance().Contains(u"ignore Finalize m_DB"));
    EXPECT_TRUE(m_dal.IsOpen());

    {
        SqliteProbe probe(m_file);
        probe.Exec("CREATE TABLE UserList( id TEXT, user TEXT )");
    }
    LogCapture::Instance().Clear();
    EXPECT_TRUE(m_dal.InitDB());
    EXPECT_TRUE(LogCapture::Instance().Contains(u"m_DB is not null."));
}

TEST_F(ZorvDalLifecycle, ShutdownRunsOnceAndTheDestructorClosesWhatWasLeftOpen) {
    ASSERT_TRUE(m_dal.InitDB());
    LogCapture::Instance().Clear();
    m_dal.Shutdown();
    EXPECT_FALSE(m_dal.IsOpen());
    EXPECT_EQ(LogCapture::Instance().Count(u"Finalize m_DB"), 1u);
    // Empty buffers are not flushed.
    EXPECT_FALSE(LogCapture::Instance().Contains(u"StoreItemFlush lock"));

    {
        ZorvDAL stopped;
        ASSERT_TRUE(stopped.SetDBPath(test::PathText(m_file)));
        ASSERT_TRUE(stopped.InitDB());
        stopped.Shutdown();
        LogCapture::Instance().Clear();
    }
    EXPECT_TRUE(LogCapture::Instance().Lines().empty());

    {
        ZorvDAL leftOpen;
        ASSERT_TRUE(leftOpen.SetDBPath(test::PathText(m_file)));
        ASSERT_TRUE(leftOpen.InitDB());
        LogCapture::Instance().Clear();
    }
    EXPECT_EQ(LogCapture::Instance().Count(u"Finalize m_DB"), 1u);
}

TEST_F(ZorvDalLifecycle, DeleteDBRemovesTheFileAndLeavesTheStoreClosed) {
    ASSERT_TRUE(m_dal.InitDB());
    Seed();
    LogCapture::Instance().Clear();
    EXPECT_TRUE(m_dal.DeleteDB());
    EXPECT_FALSE(std::filesystem::exists(m_file));
    EXPECT_FALSE(m_dal.IsOpen());
    EXPECT_EQ(m_dal.GetErrorString(), test::U16(sqlite3_errstr(-1)));
    const auto messages = LogCapture::Instance().Messages();
    ASSERT_GE(messages.size(), 2u);
    EXPECT_EQ(messages.front(), u"DeleteDB lock");
    EXPECT_EQ(messages.back(), u"DeleteDB unlock");

    // A file that is already gone counts as deleted.
    LogCapture::Instance().Clear();
    EXPECT_TRUE(m_dal.DeleteDB());
    EXPECT_TRUE(LogCapture::Instance().Contains(u"Failed to delete database after closing. Errno: 2"));

    // Reopening starts from nothing.
    ASSERT_TRUE(m_dal.InitDB());
    SqliteProbe probe(m_file);
    EXPECT_EQ(probe.Count("InventoryItems"), 0);
}

TEST_F(ZorvDalLifecycle, PurgeOfOneKindLeavesTheOthers) {
    ASSERT_TRUE(m_dal.InitDB());
    Seed();
    EXPECT_TRUE(m_dal.PurgeDB(6));
    {
        SqliteProbe probe(m_file);
        EXPECT_EQ(probe.Count("TrustRules"), 0);
        EXPECT_EQ(probe.Count("UserList"), 0);
        EXPECT_EQ(probe.Count("InventoryItems"), 5);
    }
    LogCapture::Instance().Clear();
    EXPECT_TRUE(m_dal.PurgeDB(3));
    EXPECT_EQ(LogCapture::Instance().Messages(),
              (std::vector<std::u16string>{u"PurgeDB lock", u"executing DELETE FROM InventoryItems WHERE source = 3;",
                                           u"Vacuuming", u"Returning from PurgeDB with retval 1 unlock"}));
    SqliteProbe probe(m_file);
    EXPECT_EQ(probe.Lines("SELECT source FROM InventoryItems ORDER BY source"),
              (std::vector<std::string>{"1", "2", "4", "5"}));
}

TEST_F(ZorvDalLifecycle, PurgeOfEverythingLeavesAFreshFile) {
    ASSERT_TRUE(m_dal.InitDB());
    Seed();
    EXPECT_TRUE(m_dal.PurgeDB(0));
    EXPECT_TRUE(m_dal.IsOpen());
    EXPECT_TRUE(LogCapture::Instance().Contains(u"Re-initializing database after successful deletion."));
    EXPECT_FALSE(LogCapture::Instance().Contains(u"Vacuuming"));
    SqliteProbe probe(m_file);
    EXPECT_EQ(probe.Scalar("PRAGMA user_version"), "16");
    EXPECT_EQ(probe.Count("InventoryItems") + probe.Count("TrustRules") + probe.Count("UserList"), 0);
    EXPECT_EQ(probe.Scalar("SELECT settingValue FROM AppControlState WHERE settingName = 'inventoryCookie'"), "");
    EXPECT_EQ(probe.Count("AppControlState"), 10);
}

// When the file cannot be removed (here its folder is read-only) the purge
// reopens it and empties the three tables instead; the settings stay.
TEST_F(ZorvDalLifecycle, PurgeOfEverythingEmptiesTheTablesWhenTheFileStays) {
    ASSERT_TRUE(m_dal.InitDB());
    Seed();
    namespace fs = std::filesystem;
    const auto writable = fs::status(m_dir.path()).permissions();
    fs::permissions(m_dir.path(), fs::perms::owner_write | fs::perms::group_write | fs::perms::others_write,
                    fs::perm_options::remove);
    struct Restore {
        const fs::path& dir;
        fs::perms perms;
        ~Restore() { fs::permissions(dir, perms); }
    } restore{m_dir.path(), writable};
    {
        std::ofstream probeFile(m_dir / "probe");
        if (probeFile.is_open()) {
            probeFile.close();
            fs::remove(m_dir / "probe");
            GTEST_SKIP() << "directory permissions do not stop this account from removing files";
        }
    }

    EXPECT_TRUE(m_dal.PurgeDB(0));
    EXPECT_TRUE(LogCapture::Instance().Contains(u"Re-initializing database after failed deletion."));
    EXPECT_TRUE(LogCapture::Instance().Contains(
        u"executing DELETE FROM InventoryItems; DELETE FROM TrustRules; DELETE FROM UserList;"));
    EXPECT_TRUE(LogCapture::Instance().Contains(u"Vacuuming"));
    EXPECT_TRUE(m_dal.IsOpen());
    SqliteProbe probe(m_file);
    EXPECT_EQ(probe.Count("InventoryItems") + probe.Count("TrustRules") + probe.Count("UserList"), 0);
    EXPECT_EQ(probe.Scalar("SELECT settingValue FROM AppControlState WHERE settingName = 'inventoryCookie'"), "c1");
}

}  // namespace
}  // namespace zorv

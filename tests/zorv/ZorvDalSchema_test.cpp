// Opening ac.db: the schema a fresh file gets, what each migration leaves in
// a file written by an older engine, and the versions the migration refuses
// to touch. Older files are built with the engine's own scripts, stopped at
// the version under test, as that engine would have left them.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "SqliteProbe.h"
#include "TestSupport.h"
#include "ZorvDataAccessLayer.h"
#include "ZorvLogger.h"

namespace zorv {
namespace {

using test::SqliteProbe;
using Lines = std::vector<std::string>;

// A database file as an engine of schema `version` (4..16) left it.
void BuildAtVersion(const std::filesystem::path& file, int version) {
    test::WriteFile(file, "");  // an empty file is an empty database
    SqliteProbe probe(file);
    const auto& scripts = ZorvDAL::SchemaScripts();
    for (int v = 4; v <= version; ++v) ASSERT_TRUE(probe.Exec(scripts[static_cast<size_t>(v - 4)]));
}

// Opens and closes the store over `file`; whether the open succeeded.
bool Open(const std::filesystem::path& file) {
    ZorvDAL dal;
    EXPECT_TRUE(dal.SetDBPath(test::PathText(file)));
    return dal.InitDB();
}

class ZorvDalSchema : public ::testing::Test {
protected:
    void SetUp() override { ZorvLogger::Instance().InitLogger(&test::LogCapture::Callback, 0xF); }
    test::TempDir m_dir;
    std::filesystem::path m_file = m_dir / "ac.db";
};

// Every older version ends with the very schema a fresh file gets, and keeps
// the settings it already had.
TEST_F(ZorvDalSchema, EveryOlderVersionMigratesToTheFreshSchema) {
    ASSERT_TRUE(Open(m_file));
    SqliteProbe fresh(m_file);
    const char* const kSchema = "SELECT type, name, tbl_name, sql FROM sqlite_master ORDER BY type, name";
    EXPECT_EQ(fresh.Scalar("PRAGMA user_version"), "16");
    EXPECT_EQ(fresh.Scalar("PRAGMA journal_mode"), "wal");
    EXPECT_EQ(fresh.Lines("SELECT settingName, settingValue FROM AppControlState WHERE settingName != 'upgradetime' "
                          "ORDER BY id"),
              (Lines{"inventoryState|-1", "inventoryCookie|", "importState|-1", "effectiveRulesetIds|",
                     "agentVersion|", "autoAuthorizeEndTime|-1", "autoAuthorizeStartTime|-1",
                     "whitelistInventory|-1", "enableHTML|1"}));
    EXPECT_EQ(fresh.Count("sqlite_master WHERE type = 'index'"), 13);
    EXPECT_EQ(fresh.Lines("SELECT name FROM sqlite_master WHERE type = 'view'"), Lines{"Items"});

    for (int version = 4; version <= 15; ++version) {
        SCOPED_TRACE(version);
        test::TempDir dir;
        const auto file = dir / "ac.db";
        BuildAtVersion(file, version);
        SqliteProbe probe(file);
        probe.Exec("UPDATE AppControlState SET settingValue = 'cookie' WHERE settingName = 'inventoryCookie'");
        if (version >= 13) probe.Exec("UPDATE AppControlState SET settingValue = '77' WHERE settingName = 'upgradetime'");
        ASSERT_TRUE(Open(file));
        EXPECT_EQ(probe.Scalar("PRAGMA user_version"), "16");
        EXPECT_EQ(probe.Lines(kSchema), fresh.Lines(kSchema));
        EXPECT_EQ(probe.Scalar("SELECT settingValue FROM AppControlState WHERE settingName = 'inventoryCookie'"),
                  "cookie");
        // One upgradetime row: kept from the file when it had one, added otherwise.
        const Lines upgrade = probe.Lines("SELECT settingValue FROM AppControlState WHERE settingName = 'upgradetime'");
        ASSERT_EQ(upgrade.size(), 1u);
        if (version >= 13) EXPECT_EQ(upgrade[0], "77");
        EXPECT_EQ(probe.Count("AppControlState"), 10);
    }
}

TEST_F(ZorvDalSchema, Version9RowsKeepTheirValuesAndNewColumnsStartEmpty) {
    BuildAtVersion(m_file, 9);
    SqliteProbe probe(m_file);
    probe.Exec("INSERT INTO TrustRules(processName, paths, trustType, signerName, issuerCN, issuerOU, hitcount) "
               "VALUES('setup.exe', 'c:\\apps\\*', 2, 'Signer', 'CA', 'Unit', 5)");
    probe.Exec("INSERT INTO InventoryItems(fileName, path, sha256, size, source, isAuthorized, ruleset) "
               "VALUES('a.exe', 'c:\\apps', x'0102', 10, 2, 1, 'r1')");
    ASSERT_TRUE(Open(m_file));
    EXPECT_EQ(probe.Lines("SELECT processName, paths, trustType, signerName, issuerCN, issuerOU, hitcount, ruleset, "
                          "procUser, procGroup, userList, trustLevel FROM TrustRules"),
              Lines{"setup.exe|c:\\apps\\*|2|Signer|CA|Unit|5|~|~|~|~|0"});
    EXPECT_EQ(probe.Lines("SELECT fileName, path, sha256, size, source, isAuthorized, ruleset FROM InventoryItems"),
              Lines{"a.exe|c:\\apps|0102|10|2|1|r1"});
    EXPECT_EQ(probe.Count("Items"), 1) << "the view lists each item once";
}

// A newer engine's store is kept whole beside the path (with its log) and a
// fresh store starts in its place.
TEST_F(ZorvDalSchema, NewerVersionIsMovedAsideAndAFreshStoreStarts) {
    BuildAtVersion(m_file, 16);
    SqliteProbe(m_file).Exec("INSERT INTO InventoryItems(fileName, source) VALUES('a.exe', 2); "
                             "PRAGMA user_version = 17");
    test::LogCapture::Instance().Clear();
    // No other connection: Windows does not rename a file that is open.
    ASSERT_TRUE(Open(m_file));
    const auto messages = test::LogCapture::Instance().Messages();
    EXPECT_TRUE(std::any_of(messages.begin(), messages.end(),
                            [](const std::u16string& m) { return m.find(u"moved aside to") != std::u16string::npos; }));
    SqliteProbe probe(m_file);
    EXPECT_EQ(probe.Scalar("PRAGMA user_version"), "16");
    EXPECT_EQ(probe.Count("InventoryItems"), 0);
    EXPECT_EQ(probe.Count("AppControlState"), 10);

    std::vector<std::filesystem::path> moved;
    for (const auto& entry : std::filesystem::directory_iterator(m_dir.path())) {
        const std::string name = entry.path().filename().string();
        if (name.rfind("ac.db.v17-", 0) == 0 && name.find("-wal") == std::string::npos &&
            name.find("-shm") == std::string::npos) {
            moved.push_back(entry.path());
        }
    }
    ASSERT_EQ(moved.size(), 1u);
    // ac.db.v17-YYYYMMDDTHHMMSSZ
    EXPECT_EQ(moved[0].filename().string().size(), std::string("ac.db.v17-20261124T031500Z").size());
    SqliteProbe kept(moved[0]);
    EXPECT_EQ(kept.Scalar("PRAGMA user_version"), "17");
    EXPECT_EQ(kept.Lines("SELECT fileName FROM InventoryItems"), Lines{"a.exe"});
}

// A second newer store moved within the same second does not replace the first.
TEST_F(ZorvDalSchema, TwoNewerStoresMovedAsideBothSurvive) {
    for (int round = 0; round < 2; ++round) {
        BuildAtVersion(m_file, 16);
        SqliteProbe(m_file).Exec("PRAGMA user_version = " + std::to_string(17 + round));
        ASSERT_TRUE(Open(m_file));
    }
    int kept = 0;
    for (const auto& entry : std::filesystem::directory_iterator(m_dir.path())) {
        const std::string name = entry.path().filename().string();
        if (name.rfind("ac.db.v1", 0) == 0 && name.find("-shm") == std::string::npos &&
            name.find("-wal") == std::string::npos) {
            ++kept;
        }
    }
    EXPECT_EQ(kept, 2);
}

// Versions 1..3 and negative ones lie outside what the migration knows: the
// file is used as it stands, and one without tables is refused untouched.
TEST_F(ZorvDalSchema, UnknownVersionsRunNoScript) {
    for (const int version : {2, -1}) {
        SCOPED_TRACE(version);
        test::TempDir dir;
        const auto complete = dir / "complete.db", bare = dir / "bare.db";
        BuildAtVersion(complete, 16);
        SqliteProbe probe(complete);
        probe.Exec("DELETE FROM AppControlState WHERE settingName = 'upgradetime'; PRAGMA user_version = " +
                   std::to_string(version));
        EXPECT_TRUE(Open(complete));
        EXPECT_EQ(probe.Scalar("PRAGMA user_version"), std::to_string(version));
        EXPECT_EQ(probe.Count("AppControlState WHERE settingName = 'upgradetime'"), 0);

        test::WriteFile(bare, "");
        SqliteProbe bareProbe(bare);
        bareProbe.Exec("CREATE TABLE Other(x); PRAGMA user_version = " + std::to_string(version));
        EXPECT_FALSE(Open(bare));
        EXPECT_EQ(bareProbe.Lines("SELECT name FROM sqlite_master"), Lines{"Other"});
    }
}

TEST_F(ZorvDalSchema, NonDatabaseFileOrFolderIsRefusedAndLeftIntact) {
    const std::string text(8192, 'x');
    test::WriteFile(m_file, text);
    EXPECT_FALSE(Open(m_file));
    EXPECT_EQ(test::ReadFile(m_file), text);

    const auto folder = m_dir / "folder.db";
    std::filesystem::create_directory(folder);
    EXPECT_FALSE(Open(folder));
    EXPECT_TRUE(std::filesystem::is_directory(folder));
}

// A step commits its changes and its version together: one that fails
// half-way leaves the previous version whole, and the next open runs it again.
TEST_F(ZorvDalSchema, FailedStepLeavesThePreviousVersionWhole) {
    BuildAtVersion(m_file, 9);
    SqliteProbe probe(m_file);
    probe.Exec("CREATE INDEX TrustRules_signerName ON TrustRules(signerName)");
    EXPECT_FALSE(Open(m_file));
    EXPECT_EQ(probe.Scalar("PRAGMA user_version"), "9");
    EXPECT_EQ(probe.Count("sqlite_master WHERE name = 'TrustRules_processName'"), 0);
    probe.Exec("DROP INDEX TrustRules_signerName");
    EXPECT_TRUE(Open(m_file));
    EXPECT_EQ(probe.Scalar("PRAGMA user_version"), "16");
    EXPECT_EQ(probe.Count("sqlite_master WHERE type = 'index'"), 13);
}

}  // namespace
}  // namespace zorv

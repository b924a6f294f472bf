// Opening ac.db: the schema a fresh file gets, what each migration leaves in
// a file written by an older engine, and the versions the migration refuses
// to touch. Older files are built with the engine's own scripts, stopped at
// the version under test, as that engine would have left them.
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <vector>

#include "SqliteProbe.h"
#include "TestSupport.h"
#include "ZorvDataAccessLayer.h"
#include "ZorvLogger.h"

namespace zorv {
namespace {

using test::LogCapture;
using test::SqliteProbe;

void CaptureLog() {
    ZorvLogger::Instance().InitLogger(&LogCapture::Callback, 0xF);
    ZorvLogger::Instance().SetLevel(0xF);
    LogCapture::Instance().Clear();
}

// A database file as an engine of schema `version` (4..16) left it.
void BuildAtVersion(const std::filesystem::path& file, int version) {
    test::WriteFile(file, "");  // an empty file is an empty database
    SqliteProbe probe(file);
    const auto& scripts = ZorvDAL::SchemaScripts();
    for (int v = 4; v <= version; ++v) ASSERT_TRUE(probe.Exec(scripts[static_cast<size_t>(v - 4)]));
}

// Everything the schema consists of, comparable across files.
std::vector<std::string> SchemaOf(SqliteProbe& probe) {
    return probe.Lines("SELECT type, name, tbl_name, sql FROM sqlite_master ORDER BY type, name");
}

bool Open(ZorvDAL& dal, const std::filesystem::path& file) {
    EXPECT_TRUE(dal.SetDBPath(test::PathText(file)));
    return dal.InitDB();
}

const std::vector<std::string> kDefaultSettings = {
    "inventoryState|-1",        "inventoryCookie|",         "importState|-1",
    "effectiveRulesetIds|",     "agentVersion|",            "autoAuthorizeEndTime|-1",
    "autoAuthorizeStartTime|-1", "whitelistInventory|-1",   "enableHTML|1",
};

class ZorvDalSchema : public ::testing::Test {
protected:
    void SetUp() override { CaptureLog(); }
    test::TempDir m_dir;
    std::filesystem::path m_file = m_dir / "ac.db";
};

TEST_F(ZorvDalSchema, NewFileIsCreatedAtVersion16WithDefaultSettings) {
    const auto before = std::chrono::system_clock::now();
    {
        ZorvDAL dal;
        ASSERT_TRUE(Open(dal, m_file));
        EXPECT_TRUE(dal.IsOpen());
    }
    SqliteProbe probe(m_file);
    EXPECT_EQ(probe.Scalar("PRAGMA user_version"), "16");
    EXPECT_EQ(probe.Scalar("PRAGMA journal_mode"), "wal");
    auto settings = probe.Lines("SELECT settingName, settingValue FROM AppControlState ORDER BY id");
    ASSERT_EQ(settings.size(), 10u);
    const std::string upgrade = settings.back();
    settings.pop_back();
    EXPECT_EQ(settings, kDefaultSettings);
    // Recorded in whole seconds by SQLite's clock at migration time.
    ASSERT_EQ(upgrade.rfind("upgradetime|", 0), 0u) << upgrade;
    const long long seconds = std::stoll(upgrade.substr(12));
    const long long start = std::chrono::duration_cast<std::chrono::seconds>(before.time_since_epoch()).count();
    EXPECT_GE(seconds, start - 1);

    EXPECT_EQ(probe.Lines("SELECT name FROM sqlite_master WHERE type = 'index' ORDER BY name"),
              (std::vector<std::string>{"AppControlState_settingName", "InventoryItems_Md5", "InventoryItems_Sha1",
                                        "InventoryItems_Sha256", "InventoryItems_fileName", "InventoryItems_size",
                                        "TrustRules_procGroup", "TrustRules_procUser", "TrustRules_processName",
                                        "TrustRules_signerName", "TrustRules_trustType", "TrustRules_userList",
                                        "UserList_id_user"}));
    EXPECT_EQ(probe.Lines("SELECT name FROM sqlite_master WHERE type = 'view'"), std::vector<std::string>{"Items"});
}

// Every older version ends with the very schema a fresh file gets, and keeps
// the settings it already had.
TEST_F(ZorvDalSchema, EveryOlderVersionMigratesToTheFreshSchema) {
    std::vector<std::string> fresh;
    {
        ZorvDAL dal;
        ASSERT_TRUE(Open(dal, m_file));
        SqliteProbe probe(m_file);
        fresh = SchemaOf(probe);
    }
    for (int version = 4; version <= 15; ++version) {
        SCOPED_TRACE(version);
        test::TempDir dir;
        const auto file = dir / "ac.db";
        BuildAtVersion(file, version);
        {
            SqliteProbe probe(file);
            probe.Exec("UPDATE AppControlState SET settingValue = 'cookie-" + std::to_string(version) +
                       "' WHERE settingName = 'inventoryCookie'");
            if (version >= 13) probe.Exec("UPDATE AppControlState SET settingValue = '77' WHERE settingName = 'upgradetime'");
        }
        {
            ZorvDAL dal;
            ASSERT_TRUE(Open(dal, file));
        }
        SqliteProbe probe(file);
        EXPECT_EQ(probe.Scalar("PRAGMA user_version"), "16");
        EXPECT_EQ(SchemaOf(probe), fresh);
        EXPECT_EQ(probe.Scalar("SELECT settingValue FROM AppControlState WHERE settingName = 'inventoryCookie'"),
                  "cookie-" + std::to_string(version));
        // One upgradetime row: kept from the file when it had one, added otherwise.
        EXPECT_EQ(probe.Count("AppControlState WHERE settingName = 'upgradetime'"), 1);
        if (version >= 13) {
            EXPECT_EQ(probe.Scalar("SELECT settingValue FROM AppControlState WHERE settingName = 'upgradetime'"), "77");
        }
        EXPECT_EQ(probe.Count("AppControlState"), 10);
    }
}

TEST_F(ZorvDalSchema, Version9RowsKeepTheirValuesAndNewColumnsStartEmpty) {
    BuildAtVersion(m_file, 9);
    {
        SqliteProbe probe(m_file);
        probe.Exec("INSERT INTO TrustRules(processName, paths, trustType, signerName, issuerCN, issuerOU, hitcount) "
                   "VALUES('setup.exe', 'c:\\apps\\*', 2, 'Signer', 'CA', 'Unit', 5)");
        probe.Exec("INSERT INTO InventoryItems(fileName, path, sha256, size, source, isAuthorized, ruleset) "
                   "VALUES('a.exe', 'c:\\apps', x'0102', 10, 2, 1, 'r1')");
    }
    {
        ZorvDAL dal;
        ASSERT_TRUE(Open(dal, m_file));
    }
    SqliteProbe probe(m_file);
    EXPECT_EQ(probe.Lines("SELECT processName, paths, trustType, signerName, issuerCN, issuerOU, hitcount, ruleset, "
                          "procUser, procGroup, userList, trustLevel FROM TrustRules"),
              std::vector<std::string>{"setup.exe|c:\\apps\\*|2|Signer|CA|Unit|5|~|~|~|~|0"});
    EXPECT_EQ(probe.Lines("SELECT fileName, path, sha256, size, source, isAuthorized, ruleset FROM InventoryItems"),
              std::vector<std::string>{"a.exe|c:\\apps|0102|10|2|1|r1"});
    // The view lists each item once while the cookie row exists once.
    EXPECT_EQ(probe.Count("Items"), 1);
}

TEST_F(ZorvDalSchema, NewerVersionIsThrownAwayAndRebuiltEmpty) {
    BuildAtVersion(m_file, 16);
    {
        SqliteProbe probe(m_file);
        probe.Exec("INSERT INTO InventoryItems(fileName, source) VALUES('a.exe', 2)");
        probe.Exec("PRAGMA user_version = 17");
    }
    ZorvDAL dal;
    ASSERT_TRUE(Open(dal, m_file));
    SqliteProbe probe(m_file);
    EXPECT_EQ(probe.Scalar("PRAGMA user_version"), "16");
    EXPECT_EQ(probe.Count("InventoryItems"), 0);
    EXPECT_EQ(probe.Count("AppControlState"), 10);
}

// The current version runs no script; versions 1..3 and negative ones lie
// outside what the migration knows. Either way the file is used as it stands.
TEST_F(ZorvDalSchema, CurrentAndUnknownVersionsRunNoScript) {
    for (const int version : {16, 2, -1}) {
        SCOPED_TRACE(version);
        test::TempDir dir;
        const auto complete = dir / "complete.db";
        BuildAtVersion(complete, 16);
        {
            SqliteProbe probe(complete);
            probe.Exec("DELETE FROM AppControlState WHERE settingName = 'upgradetime'");
            probe.Exec("PRAGMA user_version = " + std::to_string(version));
        }
        {
            ZorvDAL usable;
            EXPECT_TRUE(Open(usable, complete));
        }
        {
            SqliteProbe probe(complete);
            EXPECT_EQ(probe.Scalar("PRAGMA user_version"), std::to_string(version));
            EXPECT_EQ(probe.Count("AppControlState WHERE settingName = 'upgradetime'"), 0);
        }

        // Without tables the statements cannot be prepared; nothing is created.
        const auto bare = dir / "bare.db";
        test::WriteFile(bare, "");
        {
            SqliteProbe probe(bare);
            probe.Exec("CREATE TABLE Other(x); PRAGMA user_version = " + std::to_string(version));
        }
        ZorvDAL unusable;
        EXPECT_FALSE(Open(unusable, bare));
        SqliteProbe probe(bare);
        EXPECT_EQ(probe.Lines("SELECT name FROM sqlite_master"), std::vector<std::string>{"Other"});
    }
}

TEST_F(ZorvDalSchema, NonDatabaseFileOrFolderIsRefusedAndLeftIntact) {
    const std::string text(8192, 'x');
    test::WriteFile(m_file, text);
    {
        ZorvDAL dal;
        EXPECT_FALSE(Open(dal, m_file));
    }
    EXPECT_EQ(test::ReadFile(m_file), text);

    const auto folder = m_dir / "folder.db";
    std::filesystem::create_directory(folder);
    ZorvDAL dal;
    EXPECT_FALSE(Open(dal, folder));
    EXPECT_FALSE(dal.IsOpen());
    EXPECT_TRUE(std::filesystem::is_directory(folder));
}

// A script raises the version before its transaction, so a script that fails
// half-way leaves the number raised and the next open resumes after it.
TEST_F(ZorvDalSchema, FailedScriptLeavesItsVersionRaised) {
    BuildAtVersion(m_file, 9);
    {
        SqliteProbe probe(m_file);
        probe.Exec("CREATE INDEX TrustRules_signerName ON TrustRules(signerName)");
    }
    {
        ZorvDAL dal;
        EXPECT_FALSE(Open(dal, m_file));
    }
    SqliteProbe probe(m_file);
    EXPECT_EQ(probe.Scalar("PRAGMA user_version"), "10");
    // The open transaction was rolled back: entry 6 never created its other index.
    EXPECT_EQ(probe.Count("sqlite_master WHERE name = 'TrustRules_processName'"), 0);
}

}  // namespace
}  // namespace zorv

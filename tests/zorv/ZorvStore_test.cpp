// Item, trust-rule and user-list storage, the write-behind buffers, the
// prelink update, the removal of superseded items and the AppControlState
// accessors, checked against a real ac.db through a second connection.
#include <gtest/gtest.h>

#include <cstring>
#include <limits>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "SqliteProbe.h"
#include "TestSupport.h"
#include "ZorvDataAccessLayer.h"
#include "ZorvLogger.h"

namespace zorv {
namespace {

using test::LogCapture;
using test::SqliteProbe;
using Lines = std::vector<std::string>;

// 32 bytes of one value, as SQLite shows a blob.
std::string Hex(const char* byte) {
    std::string out;
    for (int i = 0; i < 32; ++i) out += byte;
    return out;
}

class ZorvStore : public ::testing::Test {
protected:
    void SetUp() override {
        ZorvLogger::Instance().InitLogger(&LogCapture::Callback, 0xF);
        ASSERT_TRUE(m_dal.SetDBPath(test::PathText(m_dir / "ac.db")));
        ASSERT_TRUE(m_dal.InitDB());
        m_probe = std::make_unique<SqliteProbe>(m_dir / "ac.db");
    }
    void TearDown() override { m_dal.Shutdown(); }

    static EngineEvent Item(const std::u16string& path, const std::u16string& fileName, uint32_t source = 3,
                            uint8_t digestByte = 0x11) {
        EngineEvent event;
        event.path = path;
        event.fileName = fileName;
        event.name = event.lookupName = path + fileName;
        event.source = source;
        event.isAuthorized = 3;
        event.size = 100;
        event.fileSha256.SetFromBytes(std::vector<uint8_t>(32, digestByte).data());
        return event;
    }
    static std::u16string Numbered(const char16_t* stem, int i) { return stem + test::U16(std::to_string(i)); }

    test::TempDir m_dir;
    ZorvDAL m_dal;
    std::unique_ptr<SqliteProbe> m_probe;
};

TEST_F(ZorvStore, BuffersWaitForTheFiftyFirstItemOrAFlushAndShutdownWritesTheRest) {
    for (int i = 0; i < 50; ++i) {
        EngineEvent event = Item(u"c:\\scan\\", Numbered(u"f", i));
        ASSERT_EQ(1u, m_dal.StoreItemBuffer(event));
    }
    EXPECT_EQ(0, m_probe->Count("InventoryItems"));
    EngineEvent last = Item(u"c:\\scan\\", u"last.exe"), late = Item(u"c:\\a\\", u"late.exe");
    EXPECT_EQ(51u, m_dal.StoreItemBuffer(last));
    EXPECT_EQ(51, m_probe->Count("InventoryItems"));

    for (int i = 0; i < 3; ++i) {
        EngineEvent event = Item(u"c:\\a\\", Numbered(u"f", i));
        m_dal.StoreItemBuffer(event);
        TrustRuleRecord rule;
        rule.trustType = 1;
        m_dal.StoreTrustRuleBuffer(rule);
        m_dal.StoreUserListBuffer(UserListRecord{u"admins", Numbered(u"user", i)});
    }
    EXPECT_EQ(3u, m_dal.StoreItemFlush()) << "the buffer started over after the fifty-first";
    EXPECT_EQ(3u, m_dal.StoreTrustRuleFlush());
    EXPECT_EQ(0u, m_dal.StoreItemFlush()) << "an empty buffer stores nothing";
    m_dal.StoreItemBuffer(late);
    m_dal.Shutdown();
    EXPECT_EQ(Lines{"55|3|3"}, m_probe->Lines("SELECT (SELECT count(*) FROM InventoryItems), "
                                              "(SELECT count(*) FROM TrustRules), (SELECT count(*) FROM UserList)"));
}

TEST_F(ZorvStore, ItemsLandInTheirColumnsWithScanNamesLowerCasedAndEmptyTextsNull) {
    std::u16string fileName = u"Tool.EXE", path = u"C:\\Tools\\", full = u"C:\\Tools\\Tool.EXE", ruleset = u"";
    InventoryItemRecord record{.source = 3, .fileName = test::Host(fileName), .path = test::Host(path),
                               .fullPath = test::Host(full), .size = 4096, .ruleset = test::Host(ruleset)};
    std::memset(record.sha256, 0xab, sizeof record.sha256);  // md5 and sha1 stay zero
    ASSERT_NE(0u, m_dal.StoreItem(record));
    EXPECT_EQ(Lines{"tool.exe|c:\\tools\\|C:\\Tools\\Tool.EXE|4096|0|3|~|" + std::string(32, '0') + "|" + Hex("ab")},
              m_probe->Lines("SELECT fileName, path, nativePath, size, isAuthorized, source, ruleset, md5, sha256 "
                             "FROM InventoryItems"));

    // An event without SHA-1 or MD5 leaves them NULL; other sources keep their case.
    EngineEvent event = Item(u"C:\\Rules\\", u"App.exe", 2);
    event.ruleset = u"rs1";
    ASSERT_NE(0u, m_dal.StoreItem(event));
    EXPECT_EQ(Lines{"App.exe|C:\\Rules\\|~|~|rs1"},
              m_probe->Lines("SELECT fileName, path, md5, sha1, ruleset FROM InventoryItems WHERE source = 2"));

    // The authorization state maps onto the stored flag.
    for (const uint32_t state : {1u, 2u, 4u, 0u}) {
        EngineEvent item = Item(u"c:\\s\\", Numbered(u"state", static_cast<int>(state)), 4);
        item.isAuthorized = state;
        ASSERT_NE(0u, m_dal.StoreItem(item));
    }
    EXPECT_EQ((Lines{"1", "0", "1", "3"}),
              m_probe->Lines("SELECT isAuthorized FROM InventoryItems WHERE source = 4 ORDER BY inventoryItemId"));
}

TEST_F(ZorvStore, ItemsATrustRuleExcludesAreNotStored) {
    m_probe->Exec("INSERT INTO TrustRules(trustType, hitcount) VALUES(3, 0);");
    ASSERT_TRUE(m_dal.InitDB()) << "refreshes the trust-rule flag";
    EngineEvent direct = Item(u"c:\\excluded\\", u"a.exe"), buffered = Item(u"c:\\excluded\\", u"b.exe");
    EXPECT_EQ(0u, m_dal.StoreItem(direct));
    EXPECT_EQ(1u, m_dal.StoreItemBuffer(buffered));
    EXPECT_EQ(0u, m_dal.StoreItemFlush());
    EXPECT_EQ(0, m_probe->Count("InventoryItems"));
}

TEST_F(ZorvStore, PrelinkMovesTheRowToTheNewHashOrFallsBackToTheLookup) {
    EngineEvent event = Item(u"/usr/lib/", u"libx.so", 5, 0x22);  // new content
    EXPECT_FALSE(m_dal.UpdatePrelinkItem(event)) << "no old hash set yet";

    m_dal.SetPrelinkOldHash(Item(u"", u"", 5, 0x21).fileSha256);
    m_probe->Exec("INSERT INTO InventoryItems(fileName, path, sha256, size, source, isAuthorized) VALUES('libx.so', "
                  "'/usr/lib/', x'" + Hex("21") + "', 90, 5, 1);");
    EXPECT_TRUE(m_dal.UpdatePrelinkItem(event));
    EXPECT_EQ(Lines{Hex("22") + "|100"}, m_probe->Lines("SELECT sha256, size FROM InventoryItems"));

    // Nothing holds the old hash any more: a file the inventory does not know stays out,
    // one the inventory approves is added as a new prelink row.
    EngineEvent unknown = Item(u"/usr/lib/", u"liby.so", 5, 0x33), known = Item(u"/usr/lib/", u"libz.so", 5, 0x22);
    EXPECT_FALSE(m_dal.UpdatePrelinkItem(unknown));
    EXPECT_TRUE(m_dal.UpdatePrelinkItem(known));
    EXPECT_EQ(Lines({"libx.so|5", "libz.so|5"}), m_probe->Lines("SELECT fileName, source FROM InventoryItems"));
}

TEST_F(ZorvStore, ApprovedDriftReplacesScannedAndDriftRowsOfBothDirectorySpellings) {
    m_probe->Exec("INSERT INTO InventoryItems(fileName, path, source) VALUES "
                  "('f.exe', 'c:\\dir\\', 3), ('f.exe', 'C:\\DIR', 4), ('f.exe', 'c:\\dir\\', 2), "
                  "('g.exe', 'c:\\dir\\', 3), ('f.exe', 'c:\\dir\\sub\\', 3);");
    EngineEvent drift = Item(u"c:\\dir\\", u"f.exe", 0);
    EXPECT_TRUE(m_dal.StoreEventItem(drift));
    m_dal.DrainDecisionWrites();
    EXPECT_EQ((Lines{"f.exe|c:\\dir\\|2", "g.exe|c:\\dir\\|3", "f.exe|c:\\dir\\sub\\|3", "f.exe|c:\\dir\\|4"}),
              m_probe->Lines("SELECT fileName, path, source FROM InventoryItems ORDER BY inventoryItemId"));
}

TEST_F(ZorvStore, AppControlStateUpdatesExistingSettingsOnlyAndStoresTheUnknownTimeAsMinusOne) {
    EXPECT_TRUE(m_dal.SetAppControlStateValue(u"autoAuthorizeEndTime", std::numeric_limits<uint64_t>::max()));
    EXPECT_EQ("-1", m_probe->Scalar("SELECT settingValue FROM AppControlState "
                                    "WHERE settingName = 'autoAuthorizeEndTime'"));
    EXPECT_TRUE(m_dal.SetAppControlState(u"noSuchSetting", u"1")) << "an unknown name still reports success";
    EXPECT_EQ(0, m_probe->Count("AppControlState WHERE settingName = 'noSuchSetting'"));
}

TEST_F(ZorvStore, ClosedStoreFailsButKeepsBufferedItemsForTheNextOpen) {
    m_dal.Shutdown();
    EngineEvent kept = Item(u"c:\\p\\", u"kept.exe");
    EXPECT_EQ(0u, m_dal.StoreItem(kept));
    EXPECT_EQ(1u, m_dal.StoreItemBuffer(kept));
    EXPECT_EQ(0u, m_dal.StoreItemFlush());
    ASSERT_TRUE(m_dal.InitDB());
    EXPECT_EQ(1u, m_dal.StoreItemFlush());
    EXPECT_EQ(1, m_probe->Count("InventoryItems"));
}

// Another program holding the write lock past the busy timeout fails the
// flush; its rows stay buffered and the next flush stores each of them once.
TEST_F(ZorvStore, FlushBlockedByAForeignLockKeepsItsRowsForTheNextFlush) {
    ASSERT_TRUE(m_probe->Exec("BEGIN IMMEDIATE"));
    for (int i = 0; i < 51; ++i) {
        EngineEvent event = Item(u"c:\\scan\\", Numbered(u"f", i));
        ASSERT_EQ(1u, m_dal.StoreItemBuffer(event)) << "accepted, though not yet stored";
    }
    ASSERT_TRUE(m_probe->Exec("COMMIT"));
    EXPECT_EQ(0, m_probe->Count("InventoryItems"));
    EXPECT_EQ(51u, m_dal.StoreItemFlush());
    EXPECT_EQ(0u, m_dal.StoreItemFlush());
    EXPECT_EQ(51, m_probe->Count("(SELECT DISTINCT fileName FROM InventoryItems)"));
    EXPECT_EQ(51, m_probe->Count("InventoryItems"));
}

// The buffers hold a bounded number of rows together: once full, and while
// no flush can empty them, a buffered store is refused instead of accepted.
TEST_F(ZorvStore, FullBuffersRefuseABufferedStoreUntilAFlushEmptiesThem) {
    m_dal.Shutdown();
    for (size_t i = 0; i < ZorvDAL::kMaxBufferedRows; ++i) {
        ASSERT_EQ(1u, m_dal.StoreUserListBuffer(UserListRecord{u"list", u"user"})) << i;
    }
    EngineEvent refused = Item(u"c:\\p\\", u"refused.exe");
    EXPECT_EQ(0u, m_dal.StoreItemBuffer(refused));
    EXPECT_EQ(0u, m_dal.StoreTrustRuleBuffer(TrustRuleRecord{}));

    ASSERT_TRUE(m_dal.InitDB());
    cJSON* dbinfo = cJSON_CreateObject();
    m_dal.PrepareMetricsDBInfo(dbinfo);
    EXPECT_EQ(cJSON_GetNumberValue(cJSON_GetObjectItem(dbinfo, "PendingBufferedRows")),
              static_cast<double>(ZorvDAL::kMaxBufferedRows));
    cJSON_Delete(dbinfo);
    // The next buffered store finds the buffers full, flushes them and is accepted.
    EXPECT_NE(0u, m_dal.StoreItemBuffer(refused));
    EXPECT_EQ(static_cast<long long>(ZorvDAL::kMaxBufferedRows), m_probe->Count("UserList"));
    EXPECT_EQ(1u, m_dal.StoreItemFlush());
    EXPECT_EQ(1, m_probe->Count("InventoryItems"));
}

TEST_F(ZorvStore, ConcurrentStoresLoseNothing) {
    constexpr int kThreads = 4, kPerThread = 300;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([this, t] {
            for (int i = 0; i < kPerThread; ++i) {
                EngineEvent event = Item(Numbered(u"c:\\t", t) + u"\\", Numbered(u"f", i));
                i % 10 == 0 ? m_dal.StoreItem(event) : m_dal.StoreItemBuffer(event);
            }
        });
    }
    for (auto& thread : threads) thread.join();
    m_dal.StoreItemFlush();
    EXPECT_EQ(kThreads * kPerThread, m_probe->Count("InventoryItems"));
    EXPECT_EQ("ok", m_probe->Scalar("PRAGMA integrity_check"));
}

}  // namespace
}  // namespace zorv

// Item, trust-rule and user-list storage, the write-behind buffers, the
// prelink update, the removal of superseded items and the AppControlState
// accessors, checked against a real ac.db through a second connection.
#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <limits>
#include <string>
#include <thread>
#include <vector>

#include "SqliteProbe.h"
#include "TestSupport.h"
#include "ZorvDataAccessLayer.h"
#include "ZorvLogger.h"
#include "ZorvStats.h"

namespace zorv {
namespace {

using test::LogCapture;
using test::SqliteProbe;

std::string Repeat(const char* text, int times) {
    std::string out;
    for (int i = 0; i < times; ++i) out += text;
    return out;
}

// Commit frames in the write-ahead log that belong to its current generation:
// each committed transaction ends with exactly one.
size_t WalCommits(const std::filesystem::path& wal) {
    std::ifstream in(wal, std::ios::binary);
    std::vector<unsigned char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (bytes.size() < 32) return 0;
    auto be32 = [&](size_t at) {
        return (uint32_t{bytes[at]} << 24) | (uint32_t{bytes[at + 1]} << 16) | (uint32_t{bytes[at + 2]} << 8) |
               uint32_t{bytes[at + 3]};
    };
    const uint32_t pageSize = be32(8);
    const uint32_t salt1 = be32(16), salt2 = be32(20);
    size_t commits = 0;
    for (size_t at = 32; at + 24 + pageSize <= bytes.size(); at += 24 + pageSize) {
        if (be32(at + 8) != salt1 || be32(at + 12) != salt2) break;
        if (be32(at + 4) != 0) ++commits;
    }
    return commits;
}

class ZorvStore : public ::testing::Test {
protected:
    void SetUp() override {
        ZorvLogger::Instance().InitLogger(&LogCapture::Callback, 0xF);
        ZorvLogger::Instance().SetLevel(0xF);
        LogCapture::Instance().Clear();
        ASSERT_TRUE(m_dal.SetDBPath(test::PathText(DbFile())));
        ASSERT_TRUE(m_dal.InitDB());
    }
    void TearDown() override { m_dal.Shutdown(); }

    std::filesystem::path DbFile() const { return m_dir / "ac.db"; }

    static EngineEvent Item(const std::u16string& path, const std::u16string& fileName, uint32_t source = 3,
                            uint8_t digestByte = 0x11) {
        EngineEvent event;
        event.path = path;
        event.fileName = fileName;
        event.name = path + fileName;
        event.lookupName = event.name;
        event.source = source;
        event.isAuthorized = 3;
        event.size = 100;
        uint8_t digest[32];
        std::memset(digest, digestByte, sizeof digest);
        event.fileSha256.SetFromBytes(digest);
        return event;
    }

    uint64_t Metric(std::u16string_view name) { return ZorvStats::Instance().GetMetric(name); }

    test::TempDir m_dir;
    ZorvDAL m_dal;
};

TEST_F(ZorvStore, BufferedItemsWaitForTheFiftyFirstAndCommitOnce) {
    SqliteProbe probe(DbFile());
    for (int i = 0; i < 50; ++i) {
        EngineEvent event = Item(u"c:\\scan\\", u"f" + test::U16(std::to_string(i)) + u".exe");
        ASSERT_EQ(1u, m_dal.StoreItemBuffer(event));
    }
    EXPECT_EQ(0, probe.Count("InventoryItems"));
    const size_t commitsBefore = WalCommits(m_dir / "ac.db-wal");

    EngineEvent last = Item(u"c:\\scan\\", u"last.exe");
    EXPECT_EQ(51u, m_dal.StoreItemBuffer(last));
    EXPECT_EQ(51, probe.Count("InventoryItems"));
    EXPECT_EQ(commitsBefore + 1, WalCommits(m_dir / "ac.db-wal"));
    EXPECT_TRUE(LogCapture::Instance().Contains(u"StoreItemFlush - 51 items"));

    // The buffer starts over: the next item waits again.
    EngineEvent next = Item(u"c:\\scan\\", u"next.exe");
    EXPECT_EQ(1u, m_dal.StoreItemBuffer(next));
    EXPECT_EQ(51, probe.Count("InventoryItems"));
}

TEST_F(ZorvStore, FlushWritesEachBufferAndShutdownWritesTheRest) {
    for (int i = 0; i < 3; ++i) {
        EngineEvent event = Item(u"c:\\a\\", u"f" + test::U16(std::to_string(i)) + u".dll");
        m_dal.StoreItemBuffer(event);
        TrustRuleRecord rule;
        rule.trustType = 1;
        rule.processName = u"setup" + test::U16(std::to_string(i)) + u".exe";
        m_dal.StoreTrustRuleBuffer(rule);
        m_dal.StoreUserListBuffer(UserListRecord{u"admins", u"user" + test::U16(std::to_string(i))});
    }
    EXPECT_EQ(3u, m_dal.StoreItemFlush());
    EXPECT_EQ(3u, m_dal.StoreTrustRuleFlush());
    EXPECT_EQ(0u, m_dal.StoreItemFlush()) << "an empty buffer stores nothing";
    {
        SqliteProbe probe(DbFile());
        EXPECT_EQ(3, probe.Count("InventoryItems"));
        EXPECT_EQ(3, probe.Count("TrustRules"));
        EXPECT_EQ(0, probe.Count("UserList"));
    }
    EngineEvent pending = Item(u"c:\\a\\", u"late.exe");
    m_dal.StoreItemBuffer(pending);
    m_dal.Shutdown();
    EXPECT_FALSE(m_dal.IsOpen());
    SqliteProbe probe(DbFile());
    EXPECT_EQ(4, probe.Count("InventoryItems"));
    EXPECT_EQ(3, probe.Count("UserList"));
    EXPECT_TRUE(LogCapture::Instance().Contains(u"StoreUserListFlush lock"));
}

TEST_F(ZorvStore, HostRecordIsStoredWithItsDigestsAndLowerCasedScanNames) {
    std::u16string fileName = u"Tool.EXE", path = u"C:\\Tools\\", full = u"C:\\Tools\\Tool.EXE", ruleset = u"";
    InventoryItemRecord record{};
    record.fileName = test::Host(fileName);
    record.path = test::Host(path);
    record.fullPath = test::Host(full);
    record.ruleset = test::Host(ruleset);
    record.source = 3;
    record.size = 4096;
    record.isAuthorized = 0;
    std::memset(record.sha256, 0xab, sizeof record.sha256);  // md5 and sha1 stay zero
    const uint64_t id = m_dal.StoreItem(record);
    ASSERT_NE(0u, id);

    SqliteProbe probe(DbFile());
    EXPECT_EQ(std::vector<std::string>{"tool.exe|c:\\tools\\|C:\\Tools\\Tool.EXE|4096|0|3|~"},
              probe.Lines("SELECT fileName, path, nativePath, size, isAuthorized, source, ruleset FROM InventoryItems "
                          "WHERE inventoryItemId = " + std::to_string(id)));
    EXPECT_EQ(std::string(32, '0'), probe.Scalar("SELECT md5 FROM InventoryItems"))
        << "a host record's zeroed digest is stored, not NULL";
    EXPECT_EQ(Repeat("ab", 32), probe.Scalar("SELECT sha256 FROM InventoryItems"));

    // An event without SHA-1 or MD5 leaves those columns NULL; other sources keep their case.
    EngineEvent event = Item(u"C:\\Rules\\", u"App.exe", 2);
    event.ruleset = u"rs1";
    ASSERT_NE(0u, m_dal.StoreItem(event));
    EXPECT_EQ(std::vector<std::string>{"App.exe|C:\\Rules\\|~|~|rs1"},
              probe.Lines("SELECT fileName, path, md5, sha1, ruleset FROM InventoryItems WHERE source = 2"));
}

TEST_F(ZorvStore, TrustRuleFieldsLandInTheirColumnsAndEmptyOnesAreNull) {
    TrustRuleRecord rule;
    rule.processName = u"setup.exe";
    rule.trustType = 2;
    rule.signerName = u"Signer";
    rule.companyName = u"Vendor";
    const char16_t* issuers[6] = {u"cn", u"c", u"s", u"l", u"o", u"ou"};
    for (int i = 0; i < 6; ++i) rule.issuer[i] = issuers[i];
    rule.ruleset = u"trust1";
    rule.procGroup = u"staff";
    ASSERT_NE(0u, m_dal.StoreTrustRule(rule));
    ASSERT_NE(0u, m_dal.StoreUserList(UserListRecord{u"ops", u"bob"}));

    SqliteProbe probe(DbFile());
    EXPECT_EQ(std::vector<std::string>{"setup.exe|~|2|Signer|~|Vendor|~|cn|c|s|l|o|ou|trust1|~|staff|~"},
              probe.Lines("SELECT processName, paths, trustType, signerName, productName, companyName, sha256, "
                          "issuerCN, issuerC, issuerS, issuerL, issuerO, issuerOU, ruleset, procUser, procGroup, "
                          "userList FROM TrustRules"));
    EXPECT_EQ(std::vector<std::string>{"ops|bob"}, probe.Lines("SELECT id, user FROM UserList"));
}

TEST_F(ZorvStore, AuthorizationStatesMapToTheStoredColumn) {
    const std::pair<uint32_t, int> cases[] = {{1, 1}, {2, 0}, {3, 1}, {4, 1}, {7, 3}, {0, 3}};
    for (const auto& [state, stored] : cases) {
        EngineEvent event = Item(u"c:\\s\\", u"state" + test::U16(std::to_string(state)) + u".exe", 4);
        event.isAuthorized = state;
        const uint64_t id = m_dal.StoreItem(event);
        SqliteProbe probe(DbFile());
        EXPECT_EQ(std::to_string(stored),
                  probe.Scalar("SELECT isAuthorized FROM InventoryItems WHERE inventoryItemId = " + std::to_string(id)))
            << "state " << state;
    }
    EXPECT_EQ(2u, LogCapture::Instance().Count(u"Unhandled authorizedState 7, default to on the allow list(3)") +
                      LogCapture::Instance().Count(u"Unhandled authorizedState 0, default to on the allow list(3)"));
}

TEST_F(ZorvStore, UnknownScanExtensionsAreCountedButStored) {
    const uint64_t before = Metric(u"TotalInventoryUnknownExtension");
    ZorvStats& stats = ZorvStats::Instance();
    const uint64_t xyzBefore = stats.GetCounter(CounterCategory::InventoryUnknownExtensions, u"xyz");
    for (const char16_t* name : {u"notes.XYZ", u"a.x1", u"README", u"run.exe"}) {
        EngineEvent event = Item(u"c:\\e\\", name);
        EXPECT_NE(0u, m_dal.StoreItem(event)) << test::U8(name);
    }
    EXPECT_EQ(before + 1, Metric(u"TotalInventoryUnknownExtension"));
    EXPECT_EQ(xyzBefore + 1, stats.GetCounter(CounterCategory::InventoryUnknownExtensions, u"xyz"));
}

TEST_F(ZorvStore, ExcludedItemsAreNotStoredAndTheTwoFormsAnswerDifferently) {
    {
        SqliteProbe probe(DbFile());
        probe.Exec("INSERT INTO TrustRules(trustType, hitcount) VALUES(3, 0);");
    }
    ASSERT_TRUE(m_dal.InitDB()) << "refreshes the trust-rule flag";
    const uint64_t before = Metric(u"InventoryItemExcludedByTrustRule");
    EngineEvent direct = Item(u"c:\\excluded\\", u"a.exe");
    EngineEvent buffered = Item(u"c:\\excluded\\", u"b.exe");
    EXPECT_EQ(0u, m_dal.StoreItem(direct));
    EXPECT_EQ(1u, m_dal.StoreItemBuffer(buffered));
    EXPECT_EQ(0u, m_dal.StoreItemFlush());
    EXPECT_EQ(before + 2, Metric(u"InventoryItemExcludedByTrustRule"));
    EXPECT_TRUE(LogCapture::Instance().Contains(u"StoreItem exclude path: c:\\excluded\\a.exe "));
    SqliteProbe probe(DbFile());
    EXPECT_EQ(0, probe.Count("InventoryItems"));
}

TEST_F(ZorvStore, PrelinkMovesTheRowToTheNewHashOrFallsBackToTheLookup) {
    SqliteProbe probe(DbFile());
    EngineEvent event = Item(u"/usr/lib/", u"libx.so", 5, 0x22);  // new content
    EXPECT_FALSE(m_dal.UpdatePrelinkItem(event)) << "no old hash set yet";
    EXPECT_EQ(1u, LogCapture::Instance().Count(u"UpdatePrelinkItem unlock"));

    SHA256Hash oldHash;
    uint8_t oldBytes[32];
    std::memset(oldBytes, 0x21, sizeof oldBytes);
    oldHash.SetFromBytes(oldBytes);
    m_dal.SetPrelinkOldHash(oldHash);
    probe.Exec("INSERT INTO InventoryItems(fileName, path, sha256, size, source, isAuthorized) VALUES('libx.so', "
               "'/usr/lib/', x'" + Repeat("21", 32) + "', 90, 5, 1);");
    const uint64_t updated = Metric(u"RunPrelinkUpdated");
    EXPECT_TRUE(m_dal.UpdatePrelinkItem(event));
    EXPECT_EQ(updated + 1, Metric(u"RunPrelinkUpdated"));
    EXPECT_EQ(std::vector<std::string>{Repeat("22", 32) + "|100"},
              probe.Lines("SELECT sha256, size FROM InventoryItems"));

    // Nothing holds the old hash any more: a file the inventory does not know stays out.
    EngineEvent unknown = Item(u"/usr/lib/", u"liby.so", 5, 0x33);
    const uint64_t unapproved = Metric(u"RunPrelinkUnapproved");
    EXPECT_FALSE(m_dal.UpdatePrelinkItem(unknown));
    EXPECT_EQ(unapproved + 1, Metric(u"RunPrelinkUnapproved"));
    EXPECT_EQ(1, probe.Count("InventoryItems"));

    // One the inventory approves is added as a new prelink row.
    EngineEvent known = Item(u"/usr/lib/", u"libz.so", 5, 0x22);
    const uint64_t approved = Metric(u"RunPrelinkApproved");
    EXPECT_TRUE(m_dal.UpdatePrelinkItem(known));
    EXPECT_EQ(approved + 1, Metric(u"RunPrelinkApproved"));
    EXPECT_EQ(1, probe.Count("InventoryItems WHERE fileName = 'libz.so' AND source = 5"));
}

TEST_F(ZorvStore, ApprovedDriftReplacesScannedAndDriftRowsOfBothDirectorySpellings) {
    SqliteProbe probe(DbFile());
    probe.Exec("INSERT INTO InventoryItems(fileName, path, source) VALUES "
               "('f.exe', 'c:\\dir\\', 3), ('f.exe', 'C:\\DIR', 4), ('f.exe', 'c:\\dir\\', 2), "
               "('g.exe', 'c:\\dir\\', 3), ('f.exe', 'c:\\dir\\sub\\', 3);");
    const uint64_t before = Metric(u"TotalDeletedEvents");
    EngineEvent drift = Item(u"c:\\dir\\", u"f.exe", 0);
    EXPECT_TRUE(m_dal.StoreEventItem(drift));
    EXPECT_EQ(before + 2, Metric(u"TotalDeletedEvents"));
    EXPECT_TRUE(LogCapture::Instance().Contains(u"Deleted 2 rows"));
    EXPECT_EQ((std::vector<std::string>{"f.exe|c:\\dir\\|2", "g.exe|c:\\dir\\|3", "f.exe|c:\\dir\\sub\\|3",
                                        "f.exe|c:\\dir\\|4"}),
              probe.Lines("SELECT fileName, path, source FROM InventoryItems ORDER BY inventoryItemId"));

    // Without the trailing separator the other spelling is removed as well.
    probe.Exec("INSERT INTO InventoryItems(fileName, path, source) VALUES ('h.exe', 'c:\\dir\\', 3);");
    EXPECT_TRUE(m_dal.DeleteInventoryItems(Item(u"c:\\dir", u"h.exe")));
    EXPECT_EQ(0, probe.Count("InventoryItems WHERE fileName = 'h.exe'"));
}

TEST_F(ZorvStore, AppControlStateReadsAndUpdatesExistingSettingsOnly) {
    std::u16string value;
    ASSERT_TRUE(m_dal.GetAppControlState(u"inventoryState", value));
    EXPECT_EQ(u"-1", value);
    EXPECT_TRUE(m_dal.SetAppControlState(u"inventoryState", u"5"));
    ASSERT_TRUE(m_dal.GetAppControlState(u"inventoryState", value));
    EXPECT_EQ(u"5", value);

    EXPECT_TRUE(m_dal.SetAppControlStateValue(u"autoAuthorizeEndTime", 1700000000000ull));
    ASSERT_TRUE(m_dal.GetAppControlState(u"autoAuthorizeEndTime", value));
    EXPECT_EQ(u"1700000000000", value);
    EXPECT_TRUE(m_dal.SetAppControlStateValue(u"autoAuthorizeEndTime", std::numeric_limits<uint64_t>::max()));
    ASSERT_TRUE(m_dal.GetAppControlState(u"autoAuthorizeEndTime", value));
    EXPECT_EQ(u"-1", value);

    EXPECT_TRUE(m_dal.SetAppControlState(u"noSuchSetting", u"1")) << "an unknown name still reports success";
    EXPECT_FALSE(m_dal.GetAppControlState(u"noSuchSetting", value));
    SqliteProbe probe(DbFile());
    EXPECT_EQ(0, probe.Count("AppControlState WHERE settingName = 'noSuchSetting'"));
}

TEST_F(ZorvStore, ClosedStoreFailsWithReleasedMessagesAndKeepsItsBuffer) {
    EngineEvent pending = Item(u"c:\\p\\", u"p.exe");
    m_dal.StoreItemBuffer(pending);
    m_dal.Shutdown();  // flushes the one pending item
    EngineEvent kept = Item(u"c:\\p\\", u"kept.exe");
    EXPECT_EQ(0u, m_dal.StoreItem(kept));
    EXPECT_TRUE(LogCapture::Instance().Contains(u"m_pInsertItemStmt is released"));
    EXPECT_EQ(1u, m_dal.StoreItemBuffer(kept));
    EXPECT_EQ(0u, m_dal.StoreItemFlush());
    EXPECT_TRUE(LogCapture::Instance().Contains(u"m_DB is released"));
    std::u16string value;
    EXPECT_FALSE(m_dal.GetAppControlState(u"inventoryState", value));
    EXPECT_TRUE(LogCapture::Instance().Contains(u"m_pGetAcStateStmt is released"));

    // Reopened, the kept entry is written by the next flush.
    ASSERT_TRUE(m_dal.InitDB());
    EXPECT_EQ(1u, m_dal.StoreItemFlush());
    SqliteProbe probe(DbFile());
    EXPECT_EQ(2, probe.Count("InventoryItems"));
}

TEST_F(ZorvStore, ConcurrentStoresLoseNothing) {
    constexpr int kThreads = 4, kPerThread = 300;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([this, t] {
            for (int i = 0; i < kPerThread; ++i) {
                EngineEvent event =
                    Item(u"c:\\t" + test::U16(std::to_string(t)) + u"\\", u"f" + test::U16(std::to_string(i)) + u".exe");
                if (i % 10 == 0) {
                    m_dal.StoreItem(event);
                } else {
                    m_dal.StoreItemBuffer(event);
                }
            }
        });
    }
    for (auto& thread : threads) thread.join();
    m_dal.StoreItemFlush();
    SqliteProbe probe(DbFile());
    EXPECT_EQ(kThreads * kPerThread, probe.Count("InventoryItems"));
    EXPECT_EQ("ok", probe.Scalar("PRAGMA integrity_check"));
}

}  // namespace
}  // namespace zorv

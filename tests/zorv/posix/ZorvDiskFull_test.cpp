// The rule store on a disk that really fills: a small tmpfs mounted for the
// test (as root only). A ruleset that cannot fit fails and leaves the old one
// in force; buffered stores that fill the disk keep every acknowledged row
// until space returns; a newer store on a read-only disk is refused, kept.
#include <sys/mount.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <memory>
#include <set>
#include <string>

#include "../DalTestPeer.h"
#include "../SqliteProbe.h"
#include "TestSupport.h"
#include "ZorvDataAccessLayer.h"
#include "ZorvLogger.h"

namespace zorv {
namespace {

using test::SqliteProbe;

std::string Sha(int n) {
    char text[65];
    std::snprintf(text, sizeof text, "%064x", n);
    return text;
}

std::string ItemRules(int first, int count) {
    std::string json;
    json.reserve(static_cast<size_t>(count) * 100 + 16);
    json += R"({"rules":[)";
    for (int n = first; n < first + count; ++n) {
        if (n > first) json += ',';
        json += R"({"sha256":")" + Sha(n) + R"(","size":100,"action":"allow"})";
    }
    return json + "]}";
}

EngineEvent File(int n) {
    EngineEvent event;
    event.name = u"/opt/file";
    event.size = 100;
    event.fileSha256.SetFromHex(Sha(n));
    return event;
}

// A tmpfs of `megabytes` over a fresh folder, unmounted however the test ends.
class SmallDisk {
public:
    explicit SmallDisk(int megabytes) {
        if (geteuid() != 0) {
            m_reason = "mounting a tmpfs needs root";
            return;
        }
        std::filesystem::create_directory(m_dir.path() / "disk");
        const std::string options = "size=" + std::to_string(megabytes) + "m";
        if (mount("tmpfs", Path().c_str(), "tmpfs", 0, options.c_str()) != 0) {
            m_reason = "this system refuses to mount a tmpfs";
            return;
        }
        m_mounted = true;
    }
    ~SmallDisk() {
        // Lazy, so a file still open cannot keep the mount (or the test) waiting.
        if (m_mounted) umount2(Path().c_str(), MNT_DETACH);
    }
    SmallDisk(const SmallDisk&) = delete;
    SmallDisk& operator=(const SmallDisk&) = delete;

    std::filesystem::path Path() const { return m_dir.path() / "disk"; }
    const std::string& Unavailable() const { return m_reason; }

private:
    test::TempDir m_dir;
    bool m_mounted = false;
    std::string m_reason;
};

class DiskFull : public ::testing::Test {
protected:
    void SetUp() override {
        ZorvLogger::Instance().InitLogger(&test::LogCapture::Callback, 0);
        ZorvLogger::Instance().SetLevel(kLogError | kLogWarning);
        if (!m_disk.Unavailable().empty()) GTEST_SKIP() << m_disk.Unavailable();
        m_file = m_disk.Path() / "ac.db";
        ASSERT_TRUE(m_dal.SetDBPath(test::PathText(m_file)));
        ASSERT_TRUE(m_dal.InitDB());
        ASSERT_TRUE(m_dal.ImportRulesetBuffer(0, ItemRules(1, 200), u"old"));
    }
    void TearDown() override { m_dal.Shutdown(); }

    // The file is sound, holds the old ruleset, and a fresh store decides by it.
    void ExpectOldRulesInForce() {
        EngineEvent event = File(7);
        EXPECT_TRUE(m_dal.IsAllowedInDB(event));
        EXPECT_EQ(event.dbVerdict, AC_DB_ALLOWED);
        SqliteProbe probe(m_file);
        EXPECT_EQ(probe.Scalar("PRAGMA integrity_check"), "ok");
        EXPECT_EQ(probe.Lines("SELECT ruleset, count(*) FROM InventoryItems WHERE source = 2 GROUP BY 1"),
                  std::vector<std::string>{"old|200"});
        ZorvDAL fresh;
        ASSERT_TRUE(fresh.SetDBPath(test::PathText(m_file)));
        ASSERT_TRUE(fresh.InitDB());
        EngineEvent again = File(7);
        EXPECT_TRUE(fresh.IsAllowedInDB(again));
        EXPECT_EQ(again.dbVerdict, AC_DB_ALLOWED);
    }

    SmallDisk m_disk{6};
    std::filesystem::path m_file;
    ZorvDAL m_dal;
};

TEST_F(DiskFull, RulesetThatCannotFitFailsAndTheOldOneStaysInForce) {
    {
        const std::string huge = ItemRules(1000000, 500000);
        test::LogCapture::Instance().Clear();
        EXPECT_FALSE(m_dal.ImportRulesetBuffer(0, huge, u"huge"));
    }
    bool full = false;
    for (const auto& message : test::LogCapture::Instance().Messages()) {
        full = full || message.find(u"disk is full") != std::u16string::npos;
    }
    EXPECT_TRUE(full) << "the import failed for another reason than the full disk";
    ExpectOldRulesInForce();
    EngineEvent unknown = File(1000007);
    EXPECT_TRUE(m_dal.IsAllowedInDB(unknown));
    EXPECT_EQ(unknown.dbVerdict, AC_DB_NOT_KNOWN);
}

TEST_F(DiskFull, BufferedStoresThatFillTheDiskKeepEveryAcknowledgedRow) {
    // Ballast to give back once the disk is full.
    const auto ballast = m_disk.Path() / "ballast";
    test::WriteFile(ballast, std::string(2 << 20, 'b'));
    std::set<std::string> acknowledged;
    const std::u16string longPath = u"/opt/" + std::u16string(1500, u'p') + u"/";
    for (int n = 0; n < 20000 && ZorvDALTestPeer::PendingRows(m_dal) < 200; ++n) {
        EngineEvent item = File(2000000 + n);
        item.fileName = u"row" + test::U16(std::to_string(n));
        item.path = longPath;
        item.lookupName = longPath + item.fileName;
        item.source = AC_SOURCE_APPROVED_DRIFT;
        item.isAuthorized = 1;
        if (m_dal.StoreItemBuffer(item) != 0) acknowledged.insert("row" + std::to_string(n));
    }
    ASSERT_GE(ZorvDALTestPeer::PendingRows(m_dal), 200u) << "the disk never filled";
    EXPECT_EQ(m_dal.StoreItemFlush(), 0u) << "still full";
    ExpectOldRulesInForce();

    std::filesystem::remove(ballast);
    EXPECT_NE(m_dal.StoreItemFlush(), 0u);
    EXPECT_EQ(ZorvDALTestPeer::PendingRows(m_dal), 0u);
    SqliteProbe probe(m_file);
    EXPECT_EQ(probe.Scalar("PRAGMA integrity_check"), "ok");
    const auto stored = probe.Lines("SELECT fileName FROM InventoryItems WHERE fileName LIKE 'row%'");
    EXPECT_EQ(stored.size(), acknowledged.size()) << "a row stored twice or lost";
    EXPECT_EQ(std::set<std::string>(stored.begin(), stored.end()), acknowledged);
}

// A newer engine's store that cannot be moved aside (its disk is read-only)
// is refused at once and left as it is; the open does not retry itself.
TEST(NewerStore, OnAReadOnlyDiskIsRefusedAtOnceAndKept) {
    ZorvLogger::Instance().InitLogger(&test::LogCapture::Callback, 0);
    SmallDisk disk(2);
    if (!disk.Unavailable().empty()) GTEST_SKIP() << disk.Unavailable();
    const auto file = disk.Path() / "ac.db";
    {
        ZorvDAL dal;
        ASSERT_TRUE(dal.SetDBPath(test::PathText(file)));
        ASSERT_TRUE(dal.InitDB());
        ASSERT_TRUE(dal.ImportRulesetBuffer(0, ItemRules(1, 10), u"kept"));
        dal.Shutdown();
        SqliteProbe(file).Exec("PRAGMA user_version = 17");
    }
    ASSERT_EQ(mount("tmpfs", disk.Path().c_str(), "tmpfs", MS_REMOUNT | MS_RDONLY, nullptr), 0);
    ZorvDAL dal;
    ASSERT_TRUE(dal.SetDBPath(test::PathText(file)));
    EXPECT_FALSE(dal.InitDB());
    EXPECT_FALSE(dal.IsOpen());
    // Read back once the disk is writable again (a WAL file needs its index).
    ASSERT_EQ(mount("tmpfs", disk.Path().c_str(), "tmpfs", MS_REMOUNT, nullptr), 0);
    SqliteProbe probe(file);
    EXPECT_EQ(probe.Scalar("PRAGMA user_version"), "17");
    EXPECT_EQ(probe.Count("InventoryItems"), 10);
}

}  // namespace
}  // namespace zorv

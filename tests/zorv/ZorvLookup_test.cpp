// The inventory lookup: which row answers for a file, and how its source, its
// authorization and the import and rebuild states turn it into a verdict.
// Rows are seeded through a second connection into a real ac.db.
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "SqliteProbe.h"
#include "TestSupport.h"
#include "Zorv.h"
#include "ZorvDataAccessLayer.h"
#include "ZorvLogger.h"

namespace zorv {
namespace {

using test::LogCapture;
using test::SqliteProbe;

// A digest of `size` bytes all equal to `fill`, as SQL blob text and as bytes.
std::string BlobSql(uint8_t fill, size_t size) {
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string hex = "X'";
    for (size_t i = 0; i < size; ++i) {
        hex += kDigits[fill >> 4];
        hex += kDigits[fill & 15];
    }
    return hex + "'";
}

std::vector<uint8_t> Bytes(uint8_t fill, size_t size) { return std::vector<uint8_t>(size, fill); }

struct Row {
    long long id;
    uint8_t sha256 = 0;  // 0: NULL
    long long size = 0;
    int isAuthorized = 1;
    int source = 3;
    const char* ruleset = "";
    uint8_t sha1 = 0;
    uint8_t md5 = 0;
};

class ZorvLookup : public ::testing::Test {
protected:
    void SetUp() override {
        ZorvLogger::Instance().InitLogger(&LogCapture::Callback, 0xF);
        ZorvLogger::Instance().SetLevel(0xF);
        LogCapture::Instance().Clear();
        ResetStates();
        ASSERT_TRUE(m_dal.SetDBPath(test::PathText(m_dir / "ac.db")));
        ASSERT_TRUE(m_dal.InitDB());
    }
    void TearDown() override {
        m_dal.Shutdown();
        ResetStates();
    }

    static void ResetStates() {
        auto& config = AppControlConfig::Instance();
        config.SetImportState(0);
        config.SetRebuildState(0);
        config.SetMaxInventoryItemId(0);
        config.SetImportBoundaryId(0);
    }

    void Seed(const std::vector<Row>& rows) {
        SqliteProbe probe(m_dir / "ac.db");
        for (const Row& row : rows) {
            auto blob = [](uint8_t fill, size_t size) { return fill == 0 ? std::string("NULL") : BlobSql(fill, size); };
            probe.Exec("INSERT INTO InventoryItems(inventoryItemId, fileName, path, sha256, sha1, md5, size, "
                       "isAuthorized, source, ruleset) VALUES(" +
                       std::to_string(row.id) + ", 'a.exe', 'c:\\dir\\', " + blob(row.sha256, 32) + ", " +
                       blob(row.sha1, 20) + ", " + blob(row.md5, 16) + ", " + std::to_string(row.size) + ", " +
                       std::to_string(row.isAuthorized) + ", " + std::to_string(row.source) + ", '" + row.ruleset +
                       "');");
        }
    }

    // The SHA-1 and MD5 rule counts are taken when the store opens.
    void Reopen() {
        m_dal.Shutdown();
        ASSERT_TRUE(m_dal.InitDB());
    }

    static EngineEvent File(uint8_t sha256, uint64_t size = 100, uint8_t sha1 = 0, uint8_t md5 = 0) {
        EngineEvent event;
        event.name = u"c:\\dir\\a.exe";
        event.size = size;
        if (sha256 != 0) event.fileSha256.SetFromBytes(Bytes(sha256, 32).data());
        if (sha1 != 0) event.fileSha1.SetFromBytes(Bytes(sha1, 20).data());
        if (md5 != 0) event.fileMd5.SetFromBytes(Bytes(md5, 16).data());
        return event;
    }

    // Runs a lookup that must complete; returns the event it filled.
    EngineEvent Lookup(EngineEvent event) {
        EXPECT_TRUE(m_dal.IsAllowedInDB(event));
        return event;
    }

    test::TempDir m_dir;
    ZorvDAL m_dal;
};

TEST_F(ZorvLookup, SizeZeroRowMatchesEveryFileSize) {
    Seed({{.id = 1, .sha256 = 0xA1, .size = 0}, {.id = 2, .sha256 = 0xB2, .size = 500}});
    EXPECT_EQ(Lookup(File(0xA1, 12345)).dbVerdict, AC_DB_ALLOWED);
    EXPECT_EQ(Lookup(File(0xB2, 500)).dbVerdict, AC_DB_ALLOWED);
    const EngineEvent other = Lookup(File(0xB2, 501));
    EXPECT_EQ(other.dbVerdict, AC_DB_NOT_KNOWN);
    EXPECT_EQ(other.isAuthorized, AC_REASON_NONE);
}

TEST_F(ZorvLookup, RulesetRowWinsOverEveryOtherSourceAndTheNewestRulesetRowAnswers) {
    // The newer inventory row is never consulted once a ruleset row matches,
    // even when that ruleset row forbids the file.
    Seed({{.id = 1, .sha256 = 0xA1, .isAuthorized = 1, .source = 3},
          {.id = 2, .sha256 = 0xA1, .isAuthorized = 0, .source = 2, .ruleset = "rs-old"},
          {.id = 3, .sha256 = 0xA1, .isAuthorized = 1, .source = 4}});
    const EngineEvent event = Lookup(File(0xA1));
    EXPECT_EQ(event.dbVerdict, AC_DB_BLOCKED);
    EXPECT_EQ(event.isAuthorized, AC_REASON_BLOCKED);
    EXPECT_EQ(event.source, 2u);
    EXPECT_EQ(event.ruleset, u"rs-old");

    Seed({{.id = 4, .sha256 = 0xA1, .isAuthorized = 1, .source = 1, .ruleset = "rs-new"}});
    const EngineEvent newer = Lookup(File(0xA1));
    EXPECT_EQ(newer.dbVerdict, AC_DB_ALLOWED);
    EXPECT_EQ(newer.isAuthorized, AC_REASON_APPROVED);
    EXPECT_EQ(newer.ruleset, u"rs-new");
}

TEST_F(ZorvLookup, VerdictFollowsTheRowsSourceFlagAndTheImportAndRebuildStates) {
    constexpr long long kBeyond32Bits = (1LL << 32) + 5;  // reads as 5 through the 32-bit column read
    Seed({{.id = 20, .sha256 = 0xA1, .isAuthorized = 0, .source = 3},
          {.id = kBeyond32Bits, .sha256 = 0xB2, .source = 3},
          {.id = 5, .sha256 = 0xC3, .isAuthorized = 0, .source = 4},
          {.id = 6, .sha256 = 0xD4, .isAuthorized = 1, .source = 5},
          {.id = 7, .sha256 = 0xE5, .isAuthorized = 1, .source = 9},
          {.id = 8, .sha256 = 0x1A, .source = 2},
          {.id = 21, .sha256 = 0x2B, .source = 2}});
    constexpr uint32_t kUntouched = 77, kAny = 0xFFFFFFFF;
    struct Case {
        const char* what;
        uint32_t importState, rebuildState, maxId, boundary;
        uint8_t sha256;
        uint32_t verdict, reason;
    };
    const Case cases[] = {
        {"idle: a known scanned file runs whatever its flag", 0, 0, 10, 0, 0xA1, AC_DB_ALLOWED, AC_REASON_APPROVED},
        {"rebuild 1: scanned after the maximum", 0, 1, 10, 0, 0xA1, AC_DB_BLOCKED, AC_REASON_APPROVED},
        {"rebuild 1: scanned id read in 32 bits", 0, 1, 10, 0, 0xB2, AC_DB_ALLOWED, kAny},
        {"rebuild 2: scanned after the maximum", 0, 2, 10, 0, 0xA1, AC_DB_ALLOWED, kAny},
        {"rebuild 2: scanned up to the maximum", 0, 2, 10, 0, 0xB2, AC_DB_BLOCKED, kAny},
        {"unsupported rebuild state", 0, 7, 10, 0, 0xA1, AC_DB_BLOCKED, kAny},
        {"unauthorized drift leaves the verdict alone", 0, 0, 0, 0, 0xC3, kUntouched, kUntouched},
        {"authorized drift", 0, 0, 0, 0, 0xD4, AC_DB_ALLOWED, kAny},
        {"unknown source", 0, 0, 0, 0, 0xE5, AC_DB_ALLOWED, kAny},
        {"rebuild 2: drift up to the maximum", 0, 2, 6, 0, 0xD4, AC_DB_BLOCKED, AC_REASON_APPROVED},
        {"rebuild 2: unknown source after the maximum", 0, 2, 6, 0, 0xE5, AC_DB_ALLOWED, kAny},
        {"import 1: ruleset row up to the maximum", 1, 0, 15, 0, 0x1A, AC_DB_ALLOWED, kAny},
        {"import 1: ruleset row not in force yet", 1, 0, 15, 0, 0x2B, AC_DB_BLOCKED, kAny},
        {"import 2: ruleset row being replaced", 2, 0, 15, 10, 0x1A, AC_DB_BLOCKED, kAny},
        {"import 2: ruleset row after the boundary", 2, 0, 15, 10, 0x2B, AC_DB_ALLOWED, kAny},
        {"unsupported import state", 3, 0, 15, 10, 0x1A, AC_DB_BLOCKED, AC_REASON_BLOCKED},
    };
    auto& config = AppControlConfig::Instance();
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        config.SetImportState(c.importState);
        config.SetRebuildState(c.rebuildState);
        config.SetMaxInventoryItemId(c.maxId);
        config.SetImportBoundaryId(c.boundary);
        EngineEvent event = File(c.sha256);
        event.dbVerdict = event.isAuthorized = kUntouched;
        event = Lookup(event);
        EXPECT_EQ(event.dbVerdict, c.verdict);
        if (c.reason != kAny) EXPECT_EQ(event.isAuthorized, c.reason);
    }
}

TEST_F(ZorvLookup, Sha1AndMd5RulesAreSearchedOnlyWhenTheStoreHasSome) {
    Seed({{.id = 1, .source = 2, .sha1 = 0x51}, {.id = 2, .source = 2, .ruleset = "md5-rules", .md5 = 0x3D}});
    EXPECT_EQ(Lookup(File(0xEE, 100, 0x51)).dbVerdict, AC_DB_NOT_KNOWN) << "counted when the store was empty";
    Reopen();
    EXPECT_EQ(Lookup(File(0xEE, 100, 0x51)).dbVerdict, AC_DB_ALLOWED);
    const EngineEvent byMd5 = Lookup(File(0xEE, 100, 0x99, 0x3D));
    EXPECT_EQ(byMd5.dbVerdict, AC_DB_ALLOWED);
    EXPECT_EQ(byMd5.ruleset, u"md5-rules");
    EXPECT_EQ(Lookup(File(0xEE)).dbVerdict, AC_DB_NOT_KNOWN) << "a file without those digests";
}

TEST_F(ZorvLookup, RefusesWithoutSha256OrConnection) {
    EngineEvent noHash = File(0);
    noHash.dbVerdict = 42;
    EXPECT_FALSE(m_dal.IsAllowedInDB(noHash));
    EXPECT_EQ(noHash.dbVerdict, 42u);
    m_dal.Shutdown();
    EngineEvent closed = File(0xA1);
    closed.dbVerdict = 42;
    EXPECT_FALSE(m_dal.IsAllowedInDB(closed));
    EXPECT_EQ(closed.dbVerdict, AC_DB_NOT_KNOWN);
}

TEST_F(ZorvLookup, ConcurrentLookupsEachGetTheirOwnRow) {
    std::vector<Row> rows;
    for (int i = 1; i <= 40; ++i) {
        rows.push_back({.id = i, .sha256 = static_cast<uint8_t>(i), .isAuthorized = i % 2, .source = 2});
    }
    Seed(rows);
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 6; ++t) {
        threads.emplace_back([&, t] {
            for (int n = 0; n < 150; ++n) {
                const int i = 1 + (n * 7 + t) % 40;
                EngineEvent event = File(static_cast<uint8_t>(i));
                const bool ran = m_dal.IsAllowedInDB(event);
                const uint32_t expected = i % 2 != 0 ? AC_DB_ALLOWED : AC_DB_BLOCKED;
                if (!ran || event.dbVerdict != expected || event.source != 2u) ++wrong;
            }
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(wrong.load(), 0);
}

}  // namespace
}  // namespace zorv

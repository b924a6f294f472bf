// The inventory lookup: which row answers for a file, and how its source, its
// authorization and the import and rebuild states turn it into a verdict.
// Rows are seeded through a second connection into a real ac.db.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "SqliteProbe.h"
#include "TestSupport.h"
#include "Zorv.h"
#include "ZorvDataAccessLayer.h"
#include "ZorvLogger.h"

namespace zorv {
namespace {

struct Row {
    long long id;
    uint8_t sha256 = 0;  // digests are `size` bytes of this value; 0: NULL
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
        ZorvLogger::Instance().InitLogger(&test::LogCapture::Callback, 0xF);
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

    static std::string Blob(uint8_t fill, size_t size) {
        char hex[3];
        std::snprintf(hex, sizeof hex, "%02x", fill);
        std::string sql = "X'";
        for (size_t i = 0; i < size; ++i) sql += hex;
        return fill == 0 ? std::string("NULL") : sql + "'";
    }
    void Seed(const std::vector<Row>& rows) {
        test::SqliteProbe probe(m_dir / "ac.db");
        for (const Row& row : rows) {
            probe.Exec("INSERT INTO InventoryItems(inventoryItemId, fileName, path, sha256, sha1, md5, size, "
                       "isAuthorized, source, ruleset) VALUES(" +
                       std::to_string(row.id) + ", 'a.exe', 'c:\\dir\\', " + Blob(row.sha256, 32) + ", " +
                       Blob(row.sha1, 20) + ", " + Blob(row.md5, 16) + ", " + std::to_string(row.size) + ", " +
                       std::to_string(row.isAuthorized) + ", " + std::to_string(row.source) + ", '" + row.ruleset +
                       "');");
        }
    }

    static EngineEvent File(uint8_t sha256, uint64_t size = 100, uint8_t sha1 = 0, uint8_t md5 = 0) {
        EngineEvent event;
        event.name = u"c:\\dir\\a.exe";
        event.size = size;
        if (sha256 != 0) event.fileSha256.SetFromBytes(std::vector<uint8_t>(32, sha256).data());
        if (sha1 != 0) event.fileSha1.SetFromBytes(std::vector<uint8_t>(20, sha1).data());
        if (md5 != 0) event.fileMd5.SetFromBytes(std::vector<uint8_t>(16, md5).data());
        return event;
    }

    // Runs a lookup that must complete; returns what it wrote: verdict, reason, source and ruleset.
    using Answer = std::tuple<uint32_t, uint32_t, uint32_t, std::string>;
    Answer Answered(EngineEvent e) {
        EXPECT_TRUE(m_dal.IsAllowedInDB(e));
        return {e.dbVerdict, e.isAuthorized, e.source, test::U8(e.ruleset)};
    }
    uint32_t Verdict(const EngineEvent& file) { return std::get<0>(Answered(file)); }

    test::TempDir m_dir;
    ZorvDAL m_dal;
};

TEST_F(ZorvLookup, RulesetRowWinsOverEveryOtherSourceAndTheNewestRulesetRowAnswers) {
    // The newer inventory row is never consulted once a ruleset row matches,
    // even when that ruleset row forbids the file. A size of 0 matches every size.
    Seed({{.id = 1, .sha256 = 0xA1, .isAuthorized = 1, .source = 3},
          {.id = 2, .sha256 = 0xA1, .size = 0, .isAuthorized = 0, .source = 2, .ruleset = "rs-old"},
          {.id = 3, .sha256 = 0xA1, .isAuthorized = 1, .source = 4},
          {.id = 5, .sha256 = 0xB2, .size = 500, .source = 2}});
    EXPECT_EQ(Answered(File(0xA1, 12345)), Answer(AC_DB_BLOCKED, AC_REASON_BLOCKED, 2, "rs-old"));
    Seed({{.id = 4, .sha256 = 0xA1, .isAuthorized = 1, .source = 1, .ruleset = "rs-new"}});
    EXPECT_EQ(Answered(File(0xA1)), Answer(AC_DB_ALLOWED, AC_REASON_APPROVED, 1, "rs-new"));
    EXPECT_EQ(Verdict(File(0xB2, 500)), AC_DB_ALLOWED);
    EXPECT_EQ(Answered(File(0xB2, 501)), Answer(AC_DB_NOT_KNOWN, AC_REASON_NONE, 0, ""));
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
        const auto [verdict, reason, source, ruleset] = Answered(event);
        EXPECT_EQ(verdict, c.verdict);
        if (c.reason != kAny) EXPECT_EQ(reason, c.reason);
    }
}

TEST_F(ZorvLookup, Sha1AndMd5RulesAreSearchedOnlyWhenTheStoreHadSomeWhenItOpened) {
    Seed({{.id = 1, .source = 2, .sha1 = 0x51}, {.id = 2, .source = 2, .ruleset = "md5-rules", .md5 = 0x3D}});
    EXPECT_EQ(Verdict(File(0xEE, 100, 0x51)), AC_DB_NOT_KNOWN);
    m_dal.Shutdown();
    ASSERT_TRUE(m_dal.InitDB());
    EXPECT_EQ(Verdict(File(0xEE, 100, 0x51)), AC_DB_ALLOWED);
    EXPECT_EQ(Answered(File(0xEE, 100, 0x99, 0x3D)), Answer(AC_DB_ALLOWED, AC_REASON_APPROVED, 2, "md5-rules"));
}

TEST_F(ZorvLookup, RefusesWithoutSha256OrConnection) {
    EngineEvent noHash = File(0), closed = File(0xA1);
    noHash.dbVerdict = closed.dbVerdict = 42;
    EXPECT_FALSE(m_dal.IsAllowedInDB(noHash));
    EXPECT_EQ(noHash.dbVerdict, 42u);
    m_dal.Shutdown();
    EXPECT_FALSE(m_dal.IsAllowedInDB(closed));
    EXPECT_EQ(closed.dbVerdict, AC_DB_NOT_KNOWN);
}

// Lookups keep their read snapshot from one to the next. Another program's
// commit must still reach the very next lookup, whichever of the engine's
// connections answers it.
TEST_F(ZorvLookup, AnotherProgramsCommitIsSeenByTheVeryNextLookup) {
    for (int i = 1; i <= 40; ++i) {
        const auto digest = static_cast<uint8_t>(i);
        ASSERT_EQ(Verdict(File(digest)), AC_DB_NOT_KNOWN) << i;
        Seed({{.id = i, .sha256 = digest, .size = 100, .source = 1, .ruleset = "rs"}});
        ASSERT_EQ(Verdict(File(digest)), AC_DB_ALLOWED) << "row " << i << " is not seen";
        std::thread other([&] { EXPECT_EQ(Verdict(File(digest)), AC_DB_ALLOWED) << "row " << i << ", other thread"; });
        other.join();
        test::SqliteProbe(m_dir / "ac.db").Exec("DELETE FROM InventoryItems WHERE inventoryItemId = " +
                                                std::to_string(i) + ";");
        ASSERT_EQ(Verdict(File(digest)), AC_DB_NOT_KNOWN) << "the removal of row " << i << " is not seen";
    }
}

// A snapshot held by an idle engine would keep another program's full
// checkpoint waiting for its whole busy timeout, and then failing.
TEST_F(ZorvLookup, AnIdleEngineHoldsNoSnapshotThatStopsAnotherProgramsCheckpoint) {
    Seed({{.id = 1, .sha256 = 0x11, .size = 100, .source = 1, .ruleset = "rs"}});
    std::vector<std::thread> threads;
    for (int t = 0; t < 3; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 50; ++i) EXPECT_EQ(Verdict(File(0x11)), AC_DB_ALLOWED);
        });
    }
    for (auto& thread : threads) thread.join();
    test::SqliteProbe other(m_dir / "ac.db");
    other.Exec("INSERT INTO InventoryItems(sha256, size, isAuthorized, source) VALUES(randomblob(32), 1, 1, 3);");
    const auto begun = std::chrono::steady_clock::now();
    const auto result = other.Rows("PRAGMA wal_checkpoint(FULL);");
    const auto waited = std::chrono::steady_clock::now() - begun;
    ASSERT_EQ(result.size(), 1u);
    EXPECT_EQ(result[0][0], "0") << "the checkpoint was kept waiting by a reader";
    EXPECT_EQ(result[0][1], result[0][2]) << "frames left in the log";
    EXPECT_LT(waited, std::chrono::seconds(2));
}

}  // namespace
}  // namespace zorv

// The rule store under failing storage, in the manner of SQLite's own I/O
// error tests: every write, sync and lock that an import, a buffered flush or
// a migration step makes is failed in turn (a full disk, an I/O error, a
// foreign lock), and separately the process is "killed" at every write. After
// each run the file must be sound, hold the old rules or the new ones (never a
// mix, never neither), agree with what the operation answered, keep every
// acknowledged row exactly once, and a fresh store must open on it and decide.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "DalTestPeer.h"
#include "FaultVfs.h"
#include "SqliteProbe.h"
#include "TestSupport.h"
#include "ZorvDataAccessLayer.h"
#include "ZorvLogger.h"

namespace zorv {
namespace {

using test::FaultOp;
using test::FaultPlan;
using test::FaultVfs;
using test::SqliteProbe;
using Lines = std::vector<std::string>;

std::string Sha(int n) {
    char text[65];
    std::snprintf(text, sizeof text, "%064x", n);
    return text;
}

std::string ItemRules(int first, int count) {
    std::string json = R"({"rules":[)";
    for (int n = first; n < first + count; ++n) {
        json += (n > first ? "," : "");
        json += R"({"fileName":"file)" + std::to_string(n) + R"(.exe","sha256":")" + Sha(n) +
                R"(","sha1":")" + Sha(n).substr(0, 40) + R"(","size":100,"action":"allow"})";
    }
    return json + "]}";
}

std::string TrustRuleset(int count) {
    std::string json = R"({"Trustrules":[)";
    for (int n = 0; n < count; ++n) {
        json += (n > 0 ? "," : "");
        json += R"({"processName":"setup)" + std::to_string(n) + R"(.exe","trustType":1,"userList":"list)" +
                std::to_string(n % 7) + R"("})";
    }
    json += R"(],"Userlists":[)";
    for (int n = 0; n < 7; ++n) {
        json += (n > 0 ? "," : "");
        json += R"({"id":"list)" + std::to_string(n) + R"(","users":["alice","bob","carol"]})";
    }
    return json + "]}";
}

EngineEvent File(int n) {
    EngineEvent event;
    event.name = u"c:\\dir\\file.exe";
    event.size = 100;
    event.fileSha256.SetFromHex(Sha(n));
    return event;
}

// What the store holds, in one line: any mix of two rulesets reads differently.
constexpr const char* kContents =
    "SELECT (SELECT count(*) FROM InventoryItems) || '/' || (SELECT ifnull(group_concat(r), '') FROM (SELECT "
    "DISTINCT ruleset AS r FROM InventoryItems ORDER BY 1)) || '/' || (SELECT count(*) FROM TrustRules) || '/' || "
    "(SELECT count(*) FROM UserList) || '/' || (SELECT count(*) FROM sqlite_master)";
constexpr const char* kSchema = "SELECT type, name, tbl_name, sql FROM sqlite_master ORDER BY type, name";

struct FaultKind {
    FaultOp op;
    int error;
    bool crash;
};
// A kill is a write that never happens, followed by nothing else.
constexpr FaultKind kKinds[] = {
    {FaultOp::Write, SQLITE_FULL, false},      {FaultOp::Write, SQLITE_IOERR_WRITE, false},
    {FaultOp::Sync, SQLITE_IOERR_FSYNC, false}, {FaultOp::Lock, SQLITE_BUSY, false},
    {FaultOp::Lock, SQLITE_IOERR_LOCK, false},  {FaultOp::Write, SQLITE_IOERR_WRITE, true},
};

size_t g_faultPoints = 0;

class FaultSweep : public ::testing::Test {
protected:
    static void SetUpTestSuite() { FaultVfs::Install(); }
    static void TearDownTestSuite() {
        std::printf("[ fault points ] %zu covered\n", g_faultPoints);
    }
    void SetUp() override {
        ZorvLogger::Instance().InitLogger(&test::LogCapture::Callback, 0);
        m_level = ZorvLogger::Instance().Level();
        // Thousands of runs; the lines would only fill memory.
        ZorvLogger::Instance().SetLevel(0);
    }
    void TearDown() override {
        FaultVfs::Disarm();
        ZorvLogger::Instance().SetLevel(m_level);
    }

    // The template becomes the live file, with no log or index beside it.
    void Restore() {
        for (const char* suffix : {"", "-wal", "-shm"}) {
            std::filesystem::remove(m_dir / (std::string("ac.db") + suffix));
        }
        std::filesystem::copy_file(m_template, m_file);
    }

    std::unique_ptr<ZorvDAL> OpenStore(bool smallCache) {
        auto dal = std::make_unique<ZorvDAL>();
        EXPECT_TRUE(dal->SetDBPath(test::PathText(m_file)));
        EXPECT_TRUE(dal->InitDB());
        // Few pages, so that a few thousand rows spill the cache mid-transaction.
        if (smallCache) {
            sqlite3_exec(ZorvDALTestPeer::Connection(*dal).get(), "PRAGMA cache_size = 8", nullptr, nullptr,
                         nullptr);
        }
        return dal;
    }

    // The template: a store holding `seed` rules, closed cleanly.
    void BuildTemplate(const std::function<void(ZorvDAL&)>& seed) {
        std::filesystem::remove(m_file);
        {
            ZorvDAL dal;
            ASSERT_TRUE(dal.SetDBPath(test::PathText(m_file)));
            ASSERT_TRUE(dal.InitDB());
            seed(dal);
            dal.Shutdown();
        }
        std::filesystem::remove(m_template);
        std::filesystem::copy_file(m_file, m_template);
    }

    // Runs `act` on a store over a fresh copy of the template with each fault
    // of each kind in turn; `check` is given what `act` answered and the
    // store when it is still running (null after a kill).
    void Sweep(bool smallCache, const std::function<bool(ZorvDAL&)>& act,
               const std::function<void(bool, ZorvDAL*)>& check) {
        for (const FaultKind& kind : kKinds) {
            Restore();
            uint64_t count = 0;
            {
                auto dal = OpenStore(smallCache);
                FaultVfs::Arm(FaultPlan{kind.op, 0, 0, false});
                act(*dal);
                count = FaultVfs::Seen(kind.op);
                FaultVfs::Disarm();
            }
            ASSERT_GT(count, 0u);
            std::printf("[ fault points ] %d operations of kind %d%s\n", static_cast<int>(count),
                        static_cast<int>(kind.op), kind.crash ? " (killed)" : "");
            for (uint64_t at = 1; at <= count; ++at) {
                SCOPED_TRACE("op " + std::to_string(static_cast<int>(kind.op)) + " error " +
                             std::to_string(kind.error) + (kind.crash ? " killed" : "") + " at " +
                             std::to_string(at) + " of " + std::to_string(count));
                Restore();
                auto dal = OpenStore(smallCache);
                FaultVfs::Arm(FaultPlan{kind.op, at, kind.error, kind.crash});
                const bool answer = act(*dal);
                if (kind.crash) {
                    dal.reset();  // the process is gone: nothing it does reaches the disk
                    FaultVfs::Disarm();
                    check(answer, nullptr);
                } else {
                    FaultVfs::Disarm();
                    check(answer, dal.get());
                    dal.reset();
                }
                ++g_faultPoints;
                if (HasFailure()) return;
            }
        }
    }

    // The sound file holds exactly `before` or `after`, and `after` exactly
    // when the operation said so; a fresh store opens on it and decides.
    void ExpectOldOrNew(bool answer, const std::string& before, const std::string& after, int marker,
                        uint32_t verdictBefore, uint32_t verdictAfter) {
        SqliteProbe probe(m_file);
        EXPECT_EQ(probe.Scalar("PRAGMA integrity_check"), "ok");
        const std::string contents = probe.Scalar(kContents);
        EXPECT_TRUE(contents == before || contents == after) << contents;
        EXPECT_EQ(contents == after, answer) << contents;
        ZorvDAL fresh;
        ASSERT_TRUE(fresh.SetDBPath(test::PathText(m_file)));
        ASSERT_TRUE(fresh.InitDB());
        EngineEvent event = File(marker);
        EXPECT_TRUE(fresh.IsAllowedInDB(event));
        EXPECT_EQ(event.dbVerdict, contents == after ? verdictAfter : verdictBefore);
    }

    // Runs an import over the template with every fault.
    void SweepImport(uint8_t append, const std::string& json, const std::u16string& name, int marker,
                     bool smallCache) {
        std::string before, after;
        uint32_t verdictBefore = 0, verdictAfter = 0;
        bool trustBefore = false;
        {
            Restore();
            auto dal = OpenStore(smallCache);
            before = SqliteProbe(m_file).Scalar(kContents);
            EngineEvent event = File(marker);
            ASSERT_TRUE(dal->IsAllowedInDB(event));
            verdictBefore = event.dbVerdict;
            trustBefore = dal->TrustRulesEnabled();
            ASSERT_TRUE(dal->ImportRulesetBuffer(append, json, name));
            after = SqliteProbe(m_file).Scalar(kContents);
            event = File(marker);
            ASSERT_TRUE(dal->IsAllowedInDB(event));
            verdictAfter = event.dbVerdict;
        }
        ASSERT_NE(before, after);
        const auto act = [&](ZorvDAL& dal) { return dal.ImportRulesetBuffer(append, json, name); };
        const auto check = [&](bool answer, ZorvDAL* running) {
            if (running != nullptr) {
                // The running store decides by what the file holds, and its
                // flags follow the commit, not the attempt.
                EngineEvent event = File(marker);
                EXPECT_TRUE(running->IsAllowedInDB(event));
                EXPECT_EQ(event.dbVerdict, answer ? verdictAfter : verdictBefore);
                if (!answer) EXPECT_EQ(running->TrustRulesEnabled(), trustBefore);
            }
            ExpectOldOrNew(answer, before, after, marker, verdictBefore, verdictAfter);
        };
        Sweep(smallCache, act, check);
    }

    void SweepMigration(int from);

    test::TempDir m_dir;
    std::filesystem::path m_file = m_dir / "ac.db";
    std::filesystem::path m_template = m_dir / "template.db";
    uint32_t m_level = 0;
};

TEST_F(FaultSweep, ReplacingImportLargerThanThePageCacheIsWholeOrAbsent) {
    BuildTemplate([](ZorvDAL& dal) { ASSERT_TRUE(dal.ImportRulesetBuffer(0, ItemRules(1, 400), u"old")); });
    // The old ruleset's first file is known before and unknown after.
    SweepImport(0, ItemRules(100000, 1000), u"new", 1, true);
}

TEST_F(FaultSweep, AppendingImportIsWholeOrAbsent) {
    BuildTemplate([](ZorvDAL& dal) { ASSERT_TRUE(dal.ImportRulesetBuffer(0, ItemRules(1, 300), u"old")); });
    SweepImport(1, ItemRules(100000, 300), u"added", 100000, false);
}

TEST_F(FaultSweep, TrustAndUserListImportIsWholeOrAbsent) {
    BuildTemplate([](ZorvDAL& dal) { ASSERT_TRUE(dal.ImportRulesetBuffer(0, ItemRules(1, 50), u"old")); });
    SweepImport(0, TrustRuleset(400), u"base_trustrules", 1, false);
}

// Every buffered row that was acknowledged is stored exactly once, by the
// flush that failed or by the next one.
TEST_F(FaultSweep, BufferedFlushKeepsEveryAcknowledgedRow) {
    BuildTemplate([](ZorvDAL& dal) { ASSERT_TRUE(dal.ImportRulesetBuffer(0, ItemRules(1, 50), u"old")); });
    std::set<std::string> acknowledged;
    const auto act = [&](ZorvDAL& dal) {
        acknowledged.clear();
        for (int n = 0; n < 120; ++n) {
            EngineEvent item = File(500000 + n);
            item.fileName = u"row" + test::U16(std::to_string(n)) + u".exe";
            item.path = u"c:\\dir\\";
            item.source = AC_SOURCE_APPROVED_DRIFT;
            item.isAuthorized = 1;
            if (dal.StoreItemBuffer(item) != 0) acknowledged.insert("row" + std::to_string(n) + ".exe");
        }
        return dal.StoreItemFlush() != 0;
    };
    const auto check = [&](bool, ZorvDAL* running) {
        if (running == nullptr) {
            // A kill loses what was only buffered, as the interface says; what
            // was committed is there once.
            SqliteProbe probe(m_file);
            EXPECT_EQ(probe.Scalar("PRAGMA integrity_check"), "ok");
            EXPECT_EQ(probe.Count("(SELECT fileName FROM InventoryItems GROUP BY fileName HAVING count(*) > 1)"), 0);
            return;
        }
        running->StoreItemFlush();
        EXPECT_EQ(ZorvDALTestPeer::PendingRows(*running), 0u);
        SqliteProbe probe(m_file);
        EXPECT_EQ(probe.Scalar("PRAGMA integrity_check"), "ok");
        const Lines stored = probe.Lines("SELECT fileName FROM InventoryItems WHERE fileName LIKE 'row%' ORDER BY 1");
        EXPECT_EQ(std::set<std::string>(stored.begin(), stored.end()), acknowledged);
        EXPECT_EQ(stored.size(), acknowledged.size()) << "a row stored twice";
        EXPECT_EQ(acknowledged.size(), 120u) << "no row is refused while the buffers have room";
        ZorvDAL fresh;
        ASSERT_TRUE(fresh.SetDBPath(test::PathText(m_file)));
        ASSERT_TRUE(fresh.InitDB());
        EngineEvent event = File(1);
        EXPECT_TRUE(fresh.IsAllowedInDB(event));
        EXPECT_EQ(event.dbVerdict, AC_DB_ALLOWED);
    };
    Sweep(false, act, check);
}

// Killed or failed at any point of a migration step from `from`, the file is
// one whole version the scripts describe, and the next open finishes the job.
void FaultSweep::SweepMigration(int from) {
    const auto& scripts = ZorvDAL::SchemaScripts();
    // The schema each version has, built by the scripts themselves.
    std::vector<Lines> reference(17);
    for (int version = 4; version <= 16; ++version) {
        const auto file = m_dir / ("v" + std::to_string(version) + ".db");
        test::WriteFile(file, "");
        SqliteProbe probe(file);
        for (int v = 4; v <= version; ++v) ASSERT_TRUE(probe.Exec(scripts[static_cast<size_t>(v - 4)]));
        reference[static_cast<size_t>(version)] = probe.Lines(kSchema);
    }
    {
        std::filesystem::remove(m_template);
        test::WriteFile(m_template, "");
        long long items = 0;
        if (from != 0) {
            SqliteProbe probe(m_template);
            for (int v = 4; v <= from; ++v) ASSERT_TRUE(probe.Exec(scripts[static_cast<size_t>(v - 4)]));
            ASSERT_TRUE(probe.Exec("WITH RECURSIVE n(x) AS (SELECT 1 UNION ALL SELECT x + 1 FROM n WHERE x < 400) "
                                   "INSERT INTO InventoryItems(fileName, sha256, size, source, isAuthorized) "
                                   "SELECT 'f' || x, randomblob(32), x, 3, 1 FROM n"));
            items = 400;
        }
        const auto act = [](ZorvDAL& dal) { return dal.InitDB(); };
        const auto check = [&](bool answer, ZorvDAL*) {
            {
                SqliteProbe probe(m_file);
                EXPECT_EQ(probe.Scalar("PRAGMA integrity_check"), "ok");
                const int version = std::stoi(probe.Scalar("PRAGMA user_version"));
                if (version == 0) {
                    EXPECT_EQ(from, 0);
                    EXPECT_EQ(probe.Count("sqlite_master"), 0);
                } else {
                    ASSERT_TRUE(version >= from && version <= 16) << version;
                    EXPECT_EQ(probe.Lines(kSchema), reference[static_cast<size_t>(version)]) << version;
                    EXPECT_EQ(probe.Count("InventoryItems"), items);
                }
                if (answer) EXPECT_EQ(version, 16);
            }
            ZorvDAL fresh;
            ASSERT_TRUE(fresh.SetDBPath(test::PathText(m_file)));
            ASSERT_TRUE(fresh.InitDB());
            SqliteProbe probe(m_file);
            EXPECT_EQ(probe.Scalar("PRAGMA user_version"), "16");
            EXPECT_EQ(probe.Lines(kSchema), reference[16]);
            EXPECT_EQ(probe.Count("InventoryItems"), items);
            EXPECT_EQ(probe.Count("AppControlState"), 10);
        };
        // The store under test opens itself: the act is the open.
        for (const FaultKind& kind : kKinds) {
            Restore();
            uint64_t count = 0;
            {
                ZorvDAL dal;
                ASSERT_TRUE(dal.SetDBPath(test::PathText(m_file)));
                FaultVfs::Arm(FaultPlan{kind.op, 0, 0, false});
                ASSERT_TRUE(act(dal));
                count = FaultVfs::Seen(kind.op);
                FaultVfs::Disarm();
            }
            for (uint64_t at = 1; at <= count; ++at) {
                SCOPED_TRACE("op " + std::to_string(static_cast<int>(kind.op)) + " error " +
                             std::to_string(kind.error) + (kind.crash ? " killed" : "") + " at " +
                             std::to_string(at) + " of " + std::to_string(count));
                Restore();
                bool answer = false;
                {
                    auto dal = std::make_unique<ZorvDAL>();
                    ASSERT_TRUE(dal->SetDBPath(test::PathText(m_file)));
                    FaultVfs::Arm(FaultPlan{kind.op, at, kind.error, kind.crash});
                    answer = act(*dal);
                    if (!kind.crash) FaultVfs::Disarm();
                    dal.reset();
                    FaultVfs::Disarm();
                }
                check(answer, nullptr);
                ++g_faultPoints;
                if (HasFailure()) return;
            }
        }
    }
}

TEST_F(FaultSweep, CreationStepsAreWholeAtEveryFault) { SweepMigration(0); }
TEST_F(FaultSweep, MigrationFromVersion4IsWholeAtEveryFault) { SweepMigration(4); }
TEST_F(FaultSweep, MigrationFromVersion12IsWholeAtEveryFault) { SweepMigration(12); }

}  // namespace
}  // namespace zorv

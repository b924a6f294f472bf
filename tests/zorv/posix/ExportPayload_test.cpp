// A payload that cannot take the page, and payload names that are not files.
#include <gtest/gtest.h>

#include <sys/resource.h>
#include <sys/stat.h>

#include <csignal>
#include <filesystem>
#include <string>

#include "../SqliteProbe.h"
#include "TestSupport.h"
#include "ZorvLogger.h"
#include "zorv/zorv.h"

namespace zorv {
namespace {

using test::Host;
using test::LogCapture;
namespace fs = std::filesystem;

class ExportPayload : public ::testing::Test {
protected:
    void SetUp() override {
        const EngineStartParams params = test::StartParams(&m_dbPath);
        ASSERT_EQ(engine_start(&params), AC_OK);
        ZorvLogger::Instance().SetLevel(0xF);
        test::SqliteProbe probe(m_dir / "ac.db");
        // About 600 KB of page: more than the file size limit set below.
        probe.Exec("WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 2000) "
                   "INSERT INTO InventoryItems(fileName, source) SELECT printf('%0300d.exe', i), 3 FROM n");
        LogCapture::Instance().Clear();
    }
    void TearDown() override { EXPECT_EQ(engine_stop(), AC_OK); }
    uint32_t Export(const fs::path& payload) {
        const std::u16string path = test::PathText(payload);
        return get_inventory(0, 10000, 0, Host(path), Host(m_scan));
    }

    test::TempDir m_dir;
    std::u16string m_dbPath = test::PathText(m_dir / "ac.db");
    std::u16string m_scan = u"scan";
};

TEST_F(ExportPayload, APageThatCannotBeWrittenWholeFailsAndLeavesTheOldPayload) {
    const fs::path payload = m_dir / "page.json";
    test::WriteFile(payload, "old page\r\n");
    // Writes beyond 64 KiB fail with EFBIG instead of killing the process.
    rlimit before{};
    ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &before), 0);
    const auto previous = std::signal(SIGXFSZ, SIG_IGN);
    rlimit small = before;
    small.rlim_cur = 64 * 1024;
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &small), 0);
    const uint32_t status = Export(payload);
    ::setrlimit(RLIMIT_FSIZE, &before);
    std::signal(SIGXFSZ, previous);

    EXPECT_EQ(status, AC_E_FAILED);
    EXPECT_TRUE(LogCapture::Instance().Contains(u"Write to payload " + test::PathText(payload) +
                                                u" failed, aborting query"));
    EXPECT_EQ(test::ReadFile(payload), "old page\r\n");
    EXPECT_FALSE(fs::exists(m_dir / "page.json.partial"));

    ASSERT_EQ(Export(payload), AC_OK);
    EXPECT_GT(fs::file_size(payload), 600000u);
    EXPECT_FALSE(fs::exists(m_dir / "page.json.partial"));
}

TEST_F(ExportPayload, NamesHeldByLinksFifosAndDevicesAreRefusedWithoutBlocking) {
    test::WriteFile(m_dir / "passwd", "root:x:0:0\n");
    fs::create_symlink(m_dir / "passwd", m_dir / "link.json");
    fs::create_symlink(m_dir / "created-by-link", m_dir / "dangling.json");
    ASSERT_EQ(::mkfifo((m_dir / "fifo.json").c_str(), 0600), 0);
    fs::create_directory(m_dir / "folder.json");
    test::WithinSeconds(20, "get_inventory", [&] {
        for (const fs::path& payload : {m_dir / "link.json", m_dir / "dangling.json", m_dir / "fifo.json",
                                        m_dir / "folder.json", fs::path("/dev/full"), fs::path("/dev/null")}) {
            EXPECT_EQ(Export(payload), AC_E_FAILED) << payload;
        }
    });
    EXPECT_EQ(test::ReadFile(m_dir / "passwd"), "root:x:0:0\n");
    EXPECT_FALSE(fs::exists(m_dir / "created-by-link"));
    EXPECT_TRUE(fs::is_symlink(m_dir / "link.json"));
    EXPECT_TRUE(fs::is_fifo(m_dir / "fifo.json"));
    EXPECT_TRUE(fs::is_character_file("/dev/full"));
    // A planted link beside the name is removed, not written through.
    fs::create_symlink(m_dir / "passwd", m_dir / "page.json.partial");
    EXPECT_EQ(Export(m_dir / "page.json"), AC_OK);
    EXPECT_EQ(test::ReadFile(m_dir / "passwd"), "root:x:0:0\n");
    EXPECT_FALSE(fs::exists(m_dir / "page.json.partial"));
}

}  // namespace
}  // namespace zorv

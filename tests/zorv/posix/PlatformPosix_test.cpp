#include "platform/Platform.h"

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>

#include "TestSupport.h"
#include "ZorvLogger.h"

namespace zorv::platform {
namespace {

using test::LogCapture;
using test::PathText;
using test::TempDir;

// POSIX has no oplocks: the reader notices another writer by the file's size
// and times, and steps aside the way a broken oplock would make it.
class ChangedFile : public ::testing::Test {
protected:
    void SetUp() override {
        ZorvLogger& logger = ZorvLogger::Instance();
        if (!logger.IsInitialized()) logger.InitLogger(&LogCapture::Callback, 0xF);
        logger.SetLevel(0xF);
        LogCapture::Instance().Clear();
        test::WriteFile(m_path, std::string(4096, 'a'));
        ASSERT_TRUE(m_reader.Open(PathText(m_path)));
        ASSERT_EQ(m_reader.Read(m_buffer, sizeof m_buffer), sizeof m_buffer);
    }

    void ExpectGaveUp() {
        EXPECT_EQ(m_reader.Read(m_buffer, sizeof m_buffer), 0u);
        EXPECT_EQ(m_reader.Error(), kErrorSharingViolation);
        EXPECT_FALSE(m_reader.IsOpen());
        const auto lines = LogCapture::Instance().Lines();
        ASSERT_EQ(lines.size(), 1u);
        EXPECT_EQ(lines[0].level, uint32_t{kLogWarning});
        EXPECT_EQ(lines[0].function, u"fileread");
        EXPECT_EQ(lines[0].message, u"Interrupted oplock");
    }

    TempDir m_dir;
    std::filesystem::path m_path = m_dir / "script.ps1";
    OplockReader m_reader;
    char m_buffer[1024];
};

TEST_F(ChangedFile, GrowingFileEndsTheRead) {
    std::ofstream(m_path, std::ios::binary | std::ios::app) << "appended";
    ExpectGaveUp();
}

TEST_F(ChangedFile, SameSizeWithNewTimesEndsTheRead) {
    const auto stamp = std::filesystem::last_write_time(m_path);
    std::filesystem::last_write_time(m_path, stamp - std::chrono::hours(24));
    ExpectGaveUp();
}

// Only POSIX lets an unprivileged test make a link: Windows needs a privilege
// or developer mode for symbolic links, so the true case is checked here.
TEST(PlatformAttributes, SymbolicLinkIsAReparsePointButItsTargetIsNot) {
    TempDir dir;
    test::WriteFile(dir / "target.exe", "MZ");
    std::filesystem::create_symlink(dir / "target.exe", dir / "link.exe");
    std::filesystem::create_symlink(dir / "absent.exe", dir / "dangling.exe");
    std::filesystem::create_directory_symlink(dir.path(), dir / "folder-link");

    EXPECT_TRUE(IsReparsePoint(PathText(dir / "link.exe")));
    EXPECT_TRUE(IsReparsePoint(PathText(dir / "dangling.exe")));
    EXPECT_TRUE(IsReparsePoint(PathText(dir / "folder-link")));
    EXPECT_FALSE(IsReparsePoint(PathText(dir / "target.exe")));
    // The status call follows the link, as _wstat64 does on Windows.
    FileStatus status;
    ASSERT_TRUE(StatFile(PathText(dir / "link.exe"), status));
    EXPECT_EQ(status.size, 2u);
}

}  // namespace
}  // namespace zorv::platform

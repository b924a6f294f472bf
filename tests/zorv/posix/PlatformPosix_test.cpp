#include "platform/Platform.h"

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "TestSupport.h"

namespace zorv::platform {
namespace {

using test::PathText;
using test::TempDir;

// POSIX has no oplocks: the reader notices another writer by the file's size
// and times, and steps aside the way a broken oplock would make it.
TEST(OplockReader, GrowingOrRetimedFileEndsTheReadAsASharingViolation) {
    using Change = void (*)(const std::filesystem::path&);
    const std::vector<std::pair<const char*, Change>> changes{
        {"grows", [](const std::filesystem::path& path) { std::ofstream(path, std::ios::app) << "appended"; }},
        {"same size, new time", [](const std::filesystem::path& path) {
             std::filesystem::last_write_time(path, std::filesystem::last_write_time(path) - std::chrono::hours(24));
         }}};
    for (const auto& [name, change] : changes) {
        SCOPED_TRACE(name);
        TempDir dir;
        test::WriteFile(dir / "script.ps1", std::string(4096, 'a'));
        OplockReader reader;
        char buffer[1024];
        ASSERT_TRUE(reader.Open(PathText(dir / "script.ps1")));
        ASSERT_EQ(reader.Read(buffer, sizeof buffer), sizeof buffer);
        change(dir / "script.ps1");
        EXPECT_EQ(reader.Read(buffer, sizeof buffer), 0u);
        EXPECT_EQ(reader.Error(), kErrorSharingViolation);
        EXPECT_FALSE(reader.IsOpen());
    }
}

// Only POSIX lets an unprivileged test make a link: Windows needs a privilege
// or developer mode for symbolic links, so the true case is checked here.
TEST(PlatformAttributes, SymbolicLinkIsAReparsePointButItsTargetIsNot) {
    TempDir dir;
    test::WriteFile(dir / "target.exe", "MZ");
    std::filesystem::create_symlink(dir / "target.exe", dir / "link.exe");
    std::filesystem::create_symlink(dir / "absent.exe", dir / "dangling.exe");
    std::filesystem::create_directory_symlink(dir.path(), dir / "folder-link");

    for (const char* link : {"link.exe", "dangling.exe", "folder-link"}) EXPECT_TRUE(IsReparsePoint(PathText(dir / link)));
    EXPECT_FALSE(IsReparsePoint(PathText(dir / "target.exe")));
    // The status call follows the link, as _wstat64 does on Windows.
    FileStatus status;
    ASSERT_TRUE(StatFile(PathText(dir / "link.exe"), status));
    EXPECT_EQ(status.size, 2u);
}

}  // namespace
}  // namespace zorv::platform

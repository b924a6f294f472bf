#include "platform/Platform.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "TestSupport.h"

namespace zorv::platform {
namespace {

using test::PathText;
using test::TempDir;

int64_t SecondsNow() {
    using namespace std::chrono;
    return duration_cast<seconds>(system_clock::now().time_since_epoch()).count();
}

TEST(OplockReader, ReadsWholeFileInChunksAndReopensFromTheStart) {
    TempDir dir;
    std::string contents;
    for (int i = 0; i < 1000; ++i) contents += "line " + std::to_string(i) + "\n";
    test::WriteFile(dir / "rules.json", contents);
    OplockReader reader;
    for (size_t chunk : {1000, 4096}) {
        ASSERT_TRUE(reader.Open(PathText(dir / "rules.json")));
        std::string read, buffer(chunk, '\0');
        while (size_t n = reader.Read(buffer.data(), buffer.size())) read.append(buffer.data(), n);
        EXPECT_EQ(read, contents) << chunk;
        EXPECT_FALSE(reader.IsOpen());
        EXPECT_EQ(reader.Error(), 0u);
    }
}

// An overlapped read of a directory may never complete on Windows: both platforms refuse to open one.
TEST(OplockReader, OpenFailuresReportTheWindowsError) {
    TempDir dir;
    for (const auto& [path, error] : {std::pair{dir / "absent.json", kErrorFileNotFound},
                                      std::pair{dir.path(), kErrorAccessDenied}}) {
        OplockReader reader;
        EXPECT_FALSE(reader.Open(PathText(path)));
        EXPECT_EQ(reader.Error(), error) << path;
    }
}

TEST(PlatformClock, NowIsMilliseconds) {
    EXPECT_LT(std::llabs(static_cast<long long>(NowMilliseconds() / 1000) - SecondsNow()), 60);
}

TEST(PlatformFileTimes, StatSecondsAndFileTimeTicksSince1601Agree) {
    TempDir dir;
    const auto path = dir / "setup.exe";
    test::WriteFile(path, std::string(1234, 'm'));
    FileStatus status;
    ASSERT_TRUE(StatFile(PathText(path), status));
    EXPECT_EQ(status.size, 1234u);
    EXPECT_FALSE(status.isDirectory);
    EXPECT_LT(std::llabs(status.lastWriteTime - SecondsNow()), 24 * 3600);  // seconds, not ms or ticks
    FileTimes before, after;
    uint32_t error = 99;
    bool openFailed = true;
    ASSERT_TRUE(GetFileTimes(PathText(path), before, error, openFailed));
    EXPECT_EQ(error, 0u);
    constexpr uint64_t kTicksPerSecond = 10000000u;
    EXPECT_EQ(static_cast<int64_t>(before.lastWrite / kTicksPerSecond) - 11644473600, status.lastWriteTime);
    // Compared in whole seconds: the MinGW runtime sets file times to the second only.
    std::filesystem::last_write_time(path, std::filesystem::last_write_time(path) - std::chrono::hours(24));
    ASSERT_TRUE(GetFileTimes(PathText(path), after, error, openFailed));
    EXPECT_EQ(before.lastWrite / kTicksPerSecond - after.lastWrite / kTicksPerSecond, 86400u);

    ASSERT_TRUE(StatFile(PathText(dir.path()), status));
    EXPECT_TRUE(status.isDirectory);
    EXPECT_FALSE(StatFile(PathText(dir / "absent.exe"), status));
}

TEST(PlatformAttributes, PlainFilesFoldersAndMissingPathsAreNeitherLinksNorProtected) {
    TempDir dir;
    test::WriteFile(dir / "tool.exe", "MZ");
    for (const auto& path : {dir / "tool.exe", dir.path(), dir / "absent.exe"}) {
        EXPECT_FALSE(IsReparsePoint(PathText(path))) << path;
        EXPECT_FALSE(IsProtectedSystemFile(PathText(path))) << path;
    }
}

TEST(PlatformFiles, WriterCreatesOnlyNewFilesAndRenameOverReplacesTheOld) {
    TempDir dir;
    const std::u16string page = PathText(dir / "page.json");
    const std::u16string partial = PathText(dir / "page.json.partial");
    test::WriteFile(dir / "page.json", "old");
    EXPECT_EQ(KindOfEntry(page), EntryKind::Regular);
    EXPECT_EQ(KindOfEntry(partial), EntryKind::Missing);
    EXPECT_EQ(KindOfEntry(PathText(dir.path())), EntryKind::Other);

    FileWriter writer;
    EXPECT_FALSE(writer.Open(page)) << "an existing name is never written into";
    ASSERT_TRUE(writer.Open(partial));
    EXPECT_EQ(writer.Write("new", 3), 3u);
    writer.Close();
    uint32_t error = 99;
    ASSERT_TRUE(RenameOver(partial, page, error));
    EXPECT_EQ(error, 0u);
    EXPECT_EQ(test::ReadFile(dir / "page.json"), "new");
    EXPECT_EQ(KindOfEntry(partial), EntryKind::Missing);
    EXPECT_FALSE(RenameOver(partial, page, error));
    EXPECT_EQ(error, kErrorFileNotFound);
    EXPECT_TRUE(RemoveFile(page));
    EXPECT_FALSE(RemoveFile(page));
}

TEST(PlatformFiles, AppendFileReportsItsSizeAndRefusesAFolder) {
    TempDir dir;
    test::WriteFile(dir / "LogFile.log", "12345");
    AppendFile file;
    ASSERT_TRUE(file.Open(PathText(dir / "LogFile.log")));
    EXPECT_EQ(file.Size(), 5u);
    EXPECT_TRUE(file.Write("678", 3));
    file.Close();
    EXPECT_FALSE(file.IsOpen());
    EXPECT_EQ(test::ReadFile(dir / "LogFile.log"), "12345678");
    EXPECT_FALSE(file.Open(PathText(dir.path())));
}

TEST(PlatformFileTimes, OnlyRegularFilesAnswer) {
    TempDir dir;
    FileTimes times;
    uint32_t error = 0;
    bool openFailed = false;
    EXPECT_FALSE(GetFileTimes(PathText(dir.path()), times, error, openFailed));
    EXPECT_EQ(error, kErrorAccessDenied);
    EXPECT_TRUE(openFailed);
    EXPECT_FALSE(GetFileTimes(PathText(dir / "absent.exe"), times, error, openFailed));
    EXPECT_EQ(error, kErrorFileNotFound);
}

}  // namespace
}  // namespace zorv::platform

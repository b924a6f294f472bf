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

std::string ReadAll(OplockReader& reader, size_t chunk) {
    std::string contents;
    std::string buffer(chunk, '\0');
    while (size_t n = reader.Read(buffer.data(), buffer.size())) contents.append(buffer.data(), n);
    return contents;
}

int64_t SecondsNow() {
    using namespace std::chrono;
    return duration_cast<seconds>(system_clock::now().time_since_epoch()).count();
}

TEST(OplockReader, ReadsWholeFileInChunksAndClosesAtEnd) {
    TempDir dir;
    std::string contents;
    for (int i = 0; i < 1000; ++i) contents += "line " + std::to_string(i) + "\n";
    test::WriteFile(dir / "rules.json", contents);
    test::WriteFile(dir / "empty", "");
    for (const auto& [name, expected] : {std::pair<std::string, std::string>{"rules.json", contents}, {"empty", ""}}) {
        SCOPED_TRACE(name);
        OplockReader reader;
        ASSERT_TRUE(reader.Open(PathText(dir / name)));
        EXPECT_EQ(ReadAll(reader, 1000), expected);  // several chunks
        EXPECT_FALSE(reader.IsOpen());
        EXPECT_EQ(reader.Error(), 0u);
        char byte;
        EXPECT_EQ(reader.Read(&byte, 1), 0u);  // stays closed
        reader.Close();                         // and closing again is harmless
        // Reopening starts again from the beginning.
        ASSERT_TRUE(reader.Open(PathText(dir / name)));
        EXPECT_EQ(ReadAll(reader, 4096), expected);
    }
}

// Opening a directory for reading is refused on both platforms: an
// overlapped read of one may never complete on Windows.
TEST(OplockReader, OpenFailuresReportTheWindowsError) {
    TempDir dir;
    for (const auto& [path, error] : {std::pair{dir / "absent.json", kErrorFileNotFound},
                                      std::pair{dir.path(), kErrorAccessDenied}}) {
        OplockReader reader;
        EXPECT_FALSE(reader.Open(PathText(path)));
        EXPECT_FALSE(reader.IsOpen());
        EXPECT_EQ(reader.Error(), error) << path;
    }
}

TEST(FileWriter, ReplacesExistingContents) {
    TempDir dir;
    const auto path = dir / "export.jsonl";
    test::WriteFile(path, "an older and much longer export\n");
    {
        FileWriter writer;
        ASSERT_TRUE(writer.Open(PathText(path)));
        EXPECT_EQ(writer.Write("new\n", 4), 4u);
        EXPECT_EQ(writer.Write("more\n", 5), 5u);
    }
    EXPECT_EQ(test::ReadFile(path), "new\nmore\n");

    FileWriter writer;
    ASSERT_TRUE(writer.Open(PathText(path)));
    writer.Close();
    EXPECT_EQ(test::ReadFile(path), "");
    EXPECT_EQ(writer.Write("x", 1), 0u);
    EXPECT_NE(writer.Error(), 0u);
}

TEST(Clock, NowIsMillisecondsAndLocalTimeGivesCalendarFields) {
    // A unit check: seconds or 100-ns ticks would be off by orders of magnitude.
    EXPECT_LT(std::llabs(static_cast<long long>(NowMilliseconds() / 1000) - SecondsNow()), 60);
    std::tm local{};
    // 2021-06-15 12:00:00 UTC is 14 to 16 June in every time zone.
    ASSERT_TRUE(LocalTime(1623758400, local));
    EXPECT_EQ(local.tm_year, 121);
    EXPECT_EQ(local.tm_mon, 5);
    EXPECT_GE(local.tm_mday, 14);
    EXPECT_LE(local.tm_mday, 16);
}

TEST(PlatformStatFile, ReportsSizeTimesAndKind) {
    TempDir dir;
    const auto path = dir / "program.exe";
    test::WriteFile(path, std::string(1234, 'm'));
    FileStatus status;
    ASSERT_TRUE(StatFile(PathText(path), status));
    EXPECT_EQ(status.size, 1234u);
    EXPECT_FALSE(status.isDirectory);
    // Seconds since 1970, not milliseconds or ticks: within a day of now.
    for (int64_t time : {status.lastWriteTime, status.lastAccessTime, status.changeTime})
        EXPECT_LT(std::llabs(time - SecondsNow()), 24 * 3600);
    ASSERT_TRUE(StatFile(PathText(dir.path()), status));
    EXPECT_TRUE(status.isDirectory);
    EXPECT_FALSE(StatFile(PathText(dir / "absent" / "program.exe"), status));
}

TEST(PlatformFileTimes, CountHundredNanosecondTicksSince1601) {
    TempDir dir;
    const auto path = dir / "setup.exe";
    test::WriteFile(path, "MZ");
    FileTimes before, after;
    uint32_t error = 99;
    bool openFailed = true;
    ASSERT_TRUE(GetFileTimes(PathText(path), before, error, openFailed));
    EXPECT_EQ(error, 0u);
    EXPECT_FALSE(openFailed);
    FileStatus status;
    ASSERT_TRUE(StatFile(PathText(path), status));
    constexpr uint64_t kTicksPerSecond = 10000000u;
    EXPECT_EQ(static_cast<int64_t>(before.lastWrite / kTicksPerSecond) - 11644473600, status.lastWriteTime);
    EXPECT_EQ(static_cast<int64_t>(before.lastAccess / kTicksPerSecond) - 11644473600, status.lastAccessTime);

    // Compared in whole seconds: the MinGW runtime sets file times to the second only.
    std::filesystem::last_write_time(path, std::filesystem::last_write_time(path) - std::chrono::hours(24));
    ASSERT_TRUE(GetFileTimes(PathText(path), after, error, openFailed));
    EXPECT_EQ(before.lastWrite / kTicksPerSecond - after.lastWrite / kTicksPerSecond, 86400u);
}

TEST(PlatformFileTimes, OpenFailuresReportTheWindowsError) {
    TempDir dir;
    test::WriteFile(dir / "file", "x");
    // A plain file used as a folder: the path, not the file, is missing.
    for (const auto& [path, expected] : {std::pair{dir / "absent.exe", kErrorFileNotFound},
                                         std::pair{dir / "file" / "inner.exe", kErrorPathNotFound},
                                         std::pair{dir.path(), kErrorAccessDenied}}) {
        FileTimes times;
        uint32_t error = 0;
        bool openFailed = false;
        EXPECT_FALSE(GetFileTimes(PathText(path), times, error, openFailed));
        EXPECT_EQ(error, expected) << path;
        EXPECT_TRUE(openFailed) << path;
    }
}

TEST(PlatformAttributes, PlainFilesFoldersAndMissingPathsAreNeitherLinksNorProtected) {
    TempDir dir;
    test::WriteFile(dir / "tool.exe", "MZ");
    for (const auto& path : {dir / "tool.exe", dir.path(), dir / "absent.exe"}) {
        EXPECT_FALSE(IsReparsePoint(PathText(path))) << path;
        EXPECT_FALSE(IsProtectedSystemFile(PathText(path))) << path;
    }
}

}  // namespace
}  // namespace zorv::platform

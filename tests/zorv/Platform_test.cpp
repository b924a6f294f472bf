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

TEST(OplockReader, ReadsWholeFileInChunksAndClosesAtEnd) {
    TempDir dir;
    std::string contents;
    for (int i = 0; i < 1000; ++i) contents += "line " + std::to_string(i) + "\n";
    test::WriteFile(dir / "rules.json", contents);

    OplockReader reader;
    ASSERT_TRUE(reader.Open(PathText(dir / "rules.json")));
    EXPECT_EQ(ReadAll(reader, 1000), contents);  // several chunks
    EXPECT_FALSE(reader.IsOpen());
    EXPECT_EQ(reader.Error(), 0u);
    char byte;
    EXPECT_EQ(reader.Read(&byte, 1), 0u);  // stays closed
    reader.Close();                         // and closing again is harmless

    // Reopening starts again from the beginning.
    ASSERT_TRUE(reader.Open(PathText(dir / "rules.json")));
    EXPECT_EQ(ReadAll(reader, 4096), contents);
}

TEST(OplockReader, EmptyFileReadsZeroAndCloses) {
    TempDir dir;
    test::WriteFile(dir / "empty", "");
    OplockReader reader;
    ASSERT_TRUE(reader.Open(PathText(dir / "empty")));
    char buffer[16];
    EXPECT_EQ(reader.Read(buffer, sizeof buffer), 0u);
    EXPECT_FALSE(reader.IsOpen());
    EXPECT_EQ(reader.Error(), 0u);
}

TEST(OplockReader, MissingFileFailsWithFileNotFound) {
    TempDir dir;
    OplockReader reader;
    EXPECT_FALSE(reader.Open(PathText(dir / "absent.json")));
    EXPECT_FALSE(reader.IsOpen());
    EXPECT_EQ(reader.Error(), kErrorFileNotFound);
}

// Opening a directory for reading is refused on both platforms: an
// overlapped read of one may never complete on Windows.
TEST(OplockReader, DirectoryIsRefusedAsAccessDenied) {
    TempDir dir;
    OplockReader reader;
    EXPECT_FALSE(reader.Open(PathText(dir.path())));
    EXPECT_FALSE(reader.IsOpen());
    EXPECT_EQ(reader.Error(), kErrorAccessDenied);
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

TEST(Clock, NowIsMillisecondsSince1970) {
    using namespace std::chrono;
    const auto reference = duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
    // A unit check: seconds or 100-ns ticks would be off by orders of magnitude.
    EXPECT_LT(std::llabs(static_cast<long long>(NowMilliseconds()) - reference), 60 * 1000);
}

TEST(Clock, LocalTimeGivesCalendarFields) {
    std::tm local{};
    // 2021-06-15 12:00:00 UTC is 14 to 16 June in every time zone.
    ASSERT_TRUE(LocalTime(1623758400, local));
    EXPECT_EQ(local.tm_year, 121);
    EXPECT_EQ(local.tm_mon, 5);
    EXPECT_GE(local.tm_mday, 14);
    EXPECT_LE(local.tm_mday, 16);
}

// Windows file times count 100-ns ticks from 1601; the runtime's status call
// counts seconds from 1970.
int64_t ToSecondsSince1970(uint64_t ticks) { return static_cast<int64_t>(ticks / 10000000u) - 11644473600; }

int64_t SecondsNow() {
    using namespace std::chrono;
    return duration_cast<seconds>(system_clock::now().time_since_epoch()).count();
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
    EXPECT_LT(std::llabs(status.lastWriteTime - SecondsNow()), 24 * 3600);
    EXPECT_LT(std::llabs(status.lastAccessTime - SecondsNow()), 24 * 3600);
    EXPECT_LT(std::llabs(status.changeTime - SecondsNow()), 24 * 3600);

    FileStatus folder;
    ASSERT_TRUE(StatFile(PathText(dir.path()), folder));
    EXPECT_TRUE(folder.isDirectory);
}

TEST(PlatformStatFile, MissingPathFails) {
    TempDir dir;
    FileStatus status;
    EXPECT_FALSE(StatFile(PathText(dir / "absent.exe"), status));
    EXPECT_FALSE(StatFile(PathText(dir / "absent" / "program.exe"), status));
}

TEST(PlatformFileTimes, AgreeWithStatFileAfterMovingTheEpoch) {
    TempDir dir;
    const auto path = dir / "setup.exe";
    test::WriteFile(path, "MZ");

    FileTimes times;
    uint32_t error = 99;
    bool openFailed = true;
    ASSERT_TRUE(GetFileTimes(PathText(path), times, error, openFailed));
    EXPECT_EQ(error, 0u);
    EXPECT_FALSE(openFailed);

    FileStatus status;
    ASSERT_TRUE(StatFile(PathText(path), status));
    EXPECT_EQ(ToSecondsSince1970(times.lastWrite), status.lastWriteTime);
    EXPECT_EQ(ToSecondsSince1970(times.lastAccess), status.lastAccessTime);
}

TEST(PlatformFileTimes, CountHundredNanosecondTicks) {
    TempDir dir;
    const auto path = dir / "setup.exe";
    test::WriteFile(path, "MZ");
    FileTimes before;
    uint32_t error = 0;
    bool openFailed = false;
    ASSERT_TRUE(GetFileTimes(PathText(path), before, error, openFailed));

    // Moving the write time back one day moves it 864 * 10^9 ticks. Compared
    // in whole seconds: the MinGW runtime sets file times to the second only.
    std::filesystem::last_write_time(path, std::filesystem::last_write_time(path) - std::chrono::hours(24));
    FileTimes after;
    ASSERT_TRUE(GetFileTimes(PathText(path), after, error, openFailed));
    EXPECT_EQ(before.lastWrite / 10000000u - after.lastWrite / 10000000u, 86400u);
}

TEST(PlatformFileTimes, MissingFileIsAnOpenFailureWithFileNotFound) {
    TempDir dir;
    FileTimes times;
    uint32_t error = 0;
    bool openFailed = false;
    EXPECT_FALSE(GetFileTimes(PathText(dir / "absent.exe"), times, error, openFailed));
    EXPECT_EQ(error, kErrorFileNotFound);
    EXPECT_TRUE(openFailed);

    // A plain file used as a folder: the path, not the file, is missing.
    test::WriteFile(dir / "file", "x");
    error = 0;
    openFailed = false;
    EXPECT_FALSE(GetFileTimes(PathText(dir / "file" / "inner.exe"), times, error, openFailed));
    EXPECT_EQ(error, kErrorPathNotFound);
    EXPECT_TRUE(openFailed);
}

TEST(PlatformFileTimes, DirectoryIsRefusedAsAccessDenied) {
    TempDir dir;
    FileTimes times;
    uint32_t error = 0;
    bool openFailed = false;
    EXPECT_FALSE(GetFileTimes(PathText(dir.path()), times, error, openFailed));
    EXPECT_EQ(error, kErrorAccessDenied);
    EXPECT_TRUE(openFailed);
}

TEST(PlatformAttributes, PlainFilesFoldersAndMissingPathsAreNeitherLinksNorProtected) {
    TempDir dir;
    const auto path = dir / "tool.exe";
    test::WriteFile(path, "MZ");
    EXPECT_FALSE(IsReparsePoint(PathText(path)));
    EXPECT_FALSE(IsReparsePoint(PathText(dir.path())));
    EXPECT_FALSE(IsReparsePoint(PathText(dir / "absent.exe")));
    EXPECT_FALSE(IsProtectedSystemFile(PathText(path)));
    EXPECT_FALSE(IsProtectedSystemFile(PathText(dir / "absent.exe")));
}

}  // namespace
}  // namespace zorv::platform

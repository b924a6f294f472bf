#include "platform/Platform.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
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

}  // namespace
}  // namespace zorv::platform

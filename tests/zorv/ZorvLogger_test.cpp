#include "ZorvLogger.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <regex>
#include <string>
#include <tuple>

#include "TestSupport.h"

namespace zorv {
namespace {

using test::LogCapture;

constexpr char16_t kLogSource[] = u"src/x";

// File mode writes into the current directory: each such test works in a
// fresh folder and puts the previous one back when it ends.
class InTempDir {
public:
    InTempDir() : m_previous(std::filesystem::current_path()) { std::filesystem::current_path(m_dir.path()); }
    ~InTempDir() { std::filesystem::current_path(m_previous); }
    std::filesystem::path LogFile() const { return m_dir / "LogFile.log"; }
    std::filesystem::path operator/(const char* name) const { return m_dir / name; }

private:
    test::TempDir m_dir;
    std::filesystem::path m_previous;
};

TEST(Logger, FileModeAppendsStampedUtf8LinesFilteredByTheMask) {
    LogCapture::Instance().Clear();
    InTempDir dir;
    test::WriteFile(dir.LogFile(), "kept\n");
    {
        ZorvLogger logger;
        logger.Log(kLogTrace, u"Early", kLogSource, 1, u"dropped before init");
        logger.InitLogger(nullptr, 0);
        logger.Log(kLogTrace, u"Fn", kLogSource, 34, u"EventType: %d %s", 1, u"\u00e9t\u00e9");
        logger.InitLogger(&LogCapture::Callback, kLogTrace);  // too late: stays in file mode
        logger.SetLevel(kLogWarning);
        logger.Log(kLogTrace, u"F", kLogSource, 1, u"trace dropped");
        logger.Log(kLogInfo | kLogWarning, u"F", kLogSource, 3, u"combined dropped");  // needs every bit
        logger.SetLevel(kLogInfo | kLogWarning);
        logger.Log(kLogInfo | kLogWarning, u"F", kLogSource, 4, u"combined kept");
    }
    const std::string text = test::ReadFile(dir.LogFile());
    const std::regex lines(R"(^kept\n\d{4} \d{2} \d{2} \d{2}:\d{2}:\d{2} TRACE src/x Fn 34: EventType: 1 )"
                           "\xC3\xA9t\xC3\xA9\n.* WARNING .*\n.* UNKNOWN src/x F 4: combined kept\n$");
    EXPECT_TRUE(std::regex_match(text, lines)) << text;
    EXPECT_TRUE(LogCapture::Instance().Lines().empty());
}

TEST(Logger, UnopenableFileIsReportedAndALaterCallTriesAgain) {
    InTempDir dir;
    std::filesystem::create_directory(dir.LogFile());  // a folder where the file should be
    ZorvLogger logger;
    EXPECT_EQ(logger.InitLogger(nullptr, 0), 1u);
    EXPECT_FALSE(logger.IsInitialized());
    logger.Log(kLogError, u"F", kLogSource, 1, u"goes nowhere");
    std::filesystem::remove(dir.LogFile());
    EXPECT_EQ(logger.InitLogger(nullptr, 0), 0u);
    logger.Log(kLogError, u"F", kLogSource, 2, u"written");
    EXPECT_NE(test::ReadFile(dir.LogFile()).find("written"), std::string::npos);
}

TEST(Logger, EventTextsCannotStartARecordOfTheirOwn) {
    InTempDir dir;
    {
        ZorvLogger logger;
        ASSERT_EQ(logger.InitLogger(nullptr, 0), 0u);
        const std::u16string forged = u"a.exe'\n2026 01 01 00:00:00 INFO src/x F 1: forged\r\x1b[2J\t\x7f\x85\u2028";
        logger.Log(kLogWarning, u"app_ctl", kLogSource, 9, u"Blocking event: '%s'", forged);
    }
    const std::string text = test::ReadFile(dir.LogFile());
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1) << text;
    EXPECT_NE(text.find(R"(Blocking event: 'a.exe'\n2026 01 01 00:00:00 INFO src/x F 1: forged\r\x1b[2J\t\x7f\x85\u2028')"),
              std::string::npos)
        << text;
}

TEST(Logger, FileIsCappedAndOnePreviousFileKept) {
    InTempDir dir;
    // A log one line short of the cap (sparse: nothing is really written).
    test::WriteFile(dir.LogFile(), "first\n");
    std::filesystem::resize_file(dir.LogFile(), ZorvLogger::kMaxLogFileBytes - 10);
    test::WriteFile(dir / "LogFile.log.1", "older\n");
    {
        ZorvLogger logger;
        ASSERT_EQ(logger.InitLogger(nullptr, 0), 0u);
        logger.Log(kLogError, u"F", kLogSource, 1, u"after the cap");
        logger.Log(kLogError, u"F", kLogSource, 2, u"and after that");
    }
    EXPECT_EQ(std::filesystem::file_size(dir / "LogFile.log.1"), ZorvLogger::kMaxLogFileBytes - 10);
    const std::string text = test::ReadFile(dir.LogFile());
    EXPECT_NE(text.find("after the cap"), std::string::npos);
    EXPECT_NE(text.find("and after that"), std::string::npos);
    EXPECT_LT(text.size(), 1000u);
}

TEST(Logger, CallbackModeDeliversFieldsAndCutsLongLines) {
    InTempDir dir;
    LogCapture::Instance().Clear();
    ZorvLogger logger;
    logger.InitLogger(&LogCapture::Callback, kLogWarning | kLogError);
    logger.Log(kLogError, u"Fn", kLogSource, 12, u"code %u", 5u);
    logger.Log(kLogTrace, u"Fn", kLogSource, 13, u"filtered");
    const std::u16string longText(2000, u'x');
    logger.Log(kLogError, u"Fn", kLogSource, 14, u"%s", longText);
    logger.InitLogger(nullptr, 0);  // too late: stays in callback mode
    const auto lines = LogCapture::Instance().Lines();
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(std::make_tuple(lines[0].level, lines[0].line, lines[0].function, lines[0].sourcePath, lines[0].message),
              std::make_tuple(uint32_t{kLogError}, 12u, std::u16string(u"Fn"), std::u16string(kLogSource),
                              std::u16string(u"code 5")));
    EXPECT_EQ(lines[1].message, longText.substr(0, ZorvLogger::kMessageUnits - 1));
    EXPECT_FALSE(std::filesystem::exists(dir.LogFile()));
}

}  // namespace
}  // namespace zorv

#include "ZorvLogger.h"

#include <gtest/gtest.h>

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

TEST(Logger, UnopenableFileSilencesLoggingWithoutFailing) {
    InTempDir dir;
    std::filesystem::create_directory(dir.LogFile());  // a folder where the file should be
    ZorvLogger logger;
    EXPECT_EQ(logger.InitLogger(nullptr, 0), 0u);
    logger.Log(kLogError, u"F", kLogSource, 1, u"goes nowhere");
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

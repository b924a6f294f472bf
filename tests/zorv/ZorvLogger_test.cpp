#include "ZorvLogger.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <regex>
#include <string>
#include <tuple>

#include "TestSupport.h"

namespace zorv {
namespace {

using test::LogCapture;

constexpr char16_t kLogSource[] = u"tests/zorv/ZorvLogger_test";

// File mode writes into the current directory, so each such test works in a
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

// Runs `use` on a private file-mode logger and returns the file once the logger is gone.
std::string FileLog(const std::function<void(ZorvLogger&)>& use, const std::string& existing = "") {
    InTempDir dir;
    if (!existing.empty()) test::WriteFile(dir.LogFile(), existing);
    {
        ZorvLogger logger;
        use(logger);
    }
    return test::ReadFile(dir.LogFile());
}

int g_evaluations = 0;
int Evaluated() { return ++g_evaluations; }

TEST(Logger, FileModeAppendsStampedUtf8LinesAndIgnoresALaterInit) {
    LogCapture::Instance().Clear();
    const std::string text = FileLog(
        [](ZorvLogger& logger) {
            logger.Log(kLogTrace, u"Early", kLogSource, 1, u"before init");
            logger.InitLogger(nullptr, 0);
            EXPECT_EQ(logger.Level(), 0xFu);  // the level argument is ignored in file mode
            logger.Log(kLogTrace, u"ZorvEngine::ProcessEvent", u"src/zorv/Zorv", 34, u"EventType: %d %s", 1,
                       u"\u00e9t\u00e9");
            logger.InitLogger(&LogCapture::Callback, kLogTrace);  // too late: stays in file mode
        },
        "kept\n");
    const std::regex line(
        R"(^kept\n\d{4} \d{2} \d{2} \d{2}:\d{2}:\d{2} TRACE src/zorv/Zorv ZorvEngine::ProcessEvent 34: EventType: 1 )"
        "\xC3\xA9t\xC3\xA9\n.* WARNING .*: Zorv Logging already initialized!\n$");
    EXPECT_TRUE(std::regex_match(text, line)) << text;
    EXPECT_TRUE(LogCapture::Instance().Lines().empty());
}

TEST(Logger, UnopenableFileSilencesLoggingWithoutFailing) {
    InTempDir dir;
    std::filesystem::create_directory(dir.LogFile());  // a folder where the file should be
    ZorvLogger logger;
    EXPECT_EQ(logger.InitLogger(nullptr, 0), 0u);
    EXPECT_TRUE(logger.IsInitialized());
    logger.Log(kLogError, u"F", kLogSource, 1, u"goes nowhere");
}

TEST(Logger, MaskFiltersLevelsAndCombinedLevelsNeedEveryBit) {
    const std::string text = FileLog([](ZorvLogger& logger) {
        logger.InitLogger(nullptr, 0);
        logger.SetLevel(kLogWarning);
        logger.Log(kLogTrace, u"F", kLogSource, 1, u"trace dropped");
        logger.Log(kLogWarning, u"F", kLogSource, 2, u"warning kept");
        logger.Log(kLogInfo | kLogWarning, u"F", kLogSource, 3, u"combined dropped");
        logger.SetLevel(kLogInfo | kLogWarning);
        logger.Log(kLogInfo | kLogWarning, u"F", kLogSource, 4, u"combined kept");
    });
    EXPECT_EQ(text.find("dropped"), std::string::npos) << text;
    EXPECT_NE(text.find(" WARNING tests/zorv/ZorvLogger_test F 2: warning kept\n"), std::string::npos) << text;
    EXPECT_NE(text.find(" UNKNOWN tests/zorv/ZorvLogger_test F 4: combined kept\n"), std::string::npos) << text;
}

TEST(Logger, CallbackModeDeliversFieldsCutsLongLinesAndIgnoresALaterInit) {
    InTempDir dir;
    LogCapture::Instance().Clear();
    ZorvLogger logger;
    logger.InitLogger(&LogCapture::Callback, kLogWarning | kLogError);
    logger.Log(kLogError, u"Fn", u"src/x", 12, u"code %u", 5u);
    logger.Log(kLogTrace, u"Fn", u"src/x", 13, u"filtered");
    const std::u16string longText(2000, u'x');
    logger.Log(kLogError, u"Fn", u"src/x", 14, u"%s", longText);
    logger.InitLogger(nullptr, 0);  // too late: stays in callback mode, says so
    const auto lines = LogCapture::Instance().Lines();
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(std::make_tuple(lines[0].level, lines[0].line, lines[0].function, lines[0].sourcePath, lines[0].message),
              std::make_tuple(uint32_t{kLogError}, 12u, std::u16string(u"Fn"), std::u16string(u"src/x"),
                              std::u16string(u"code 5")));
    EXPECT_EQ(lines[1].message, longText.substr(0, ZorvLogger::kMessageUnits - 1));
    EXPECT_EQ(lines[2].message, u"Zorv Logging already initialized!");
    EXPECT_FALSE(std::filesystem::exists(dir.LogFile()));
}

TEST(Logger, MacroDoesNotEvaluateArgumentsOfAFilteredLine) {
    ZorvLogger& shared = ZorvLogger::Instance();
    if (!shared.IsInitialized()) shared.InitLogger(&LogCapture::Callback, 0xF);
    const uint32_t previous = shared.Level();
    shared.SetLevel(kLogWarning);
    g_evaluations = 0;
    ZORV_LOG(kLogTrace, u"F", u"%d", Evaluated());
    EXPECT_EQ(g_evaluations, 0);
    ZORV_LOG(kLogWarning, u"F", u"%d", Evaluated());
    EXPECT_EQ(g_evaluations, 1);
    shared.SetLevel(previous);
}

}  // namespace
}  // namespace zorv

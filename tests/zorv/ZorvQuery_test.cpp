// ZorvQuery: the built-in tables, the process-type lookup, the file tests and
// the drift-trust decision.
#include "ZorvQuery.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "TestSupport.h"
#include "Zorv.h"
#include "ZorvEventAbstraction.h"
#include "ZorvLogger.h"
#include "ZorvStats.h"

namespace zorv {
namespace {

using test::LogCapture;

void CaptureLog() {
    ZorvLogger::Instance().InitLogger(&LogCapture::Callback, 0xF);
    ZorvLogger::Instance().SetLevel(0xF);
    LogCapture::Instance().Clear();
}

ProcessTypeIndex IndexOf(const ZorvQuery& query, std::u16string_view name) {
    for (size_t i = 0; i < query.ProcessTypeCount(); ++i) {
        if (query.GetProcessType(i).name == name) return i;
    }
    return kNoProcessType;
}

ProcessTypeIndex TypeOf(const ZorvQuery& query, std::u16string_view imagePath) {
    ProcessDescription process = ProcessDescription::FromImagePath(imagePath);
    return query.GetProcessInterpreterType(process);
}

EngineEvent FileEvent(std::u16string name) {
    EngineEvent event;
    event.name = std::move(name);
    const size_t separator = event.name.find_last_of(u"\\/");
    event.fileName = separator == std::u16string::npos ? event.name : event.name.substr(separator + 1);
    const size_t dot = event.fileName.rfind(u'.');
    if (dot != std::u16string::npos) event.extension = event.fileName.substr(dot + 1);
    return event;
}

TEST(ZorvQuery, TablesHaveTheirFixedShape) {
    const ZorvQuery query;
    ASSERT_EQ(query.ProcessTypeCount(), 39u);
    ASSERT_EQ(query.InterpreterRules().size(), 72u);
    EXPECT_EQ(query.ExecutableExtensions().size(), 56u);
    EXPECT_EQ(query.ScriptExtensions().size(), 33u);
    EXPECT_EQ(query.TempDirectories().size(), 3u);

    // Positions are the contract: spot-check the ends and a few in between.
    EXPECT_EQ(query.GetProcessType(0).name, u"");
    EXPECT_TRUE(query.GetProcessType(1).isDefault);
    EXPECT_EQ(IndexOf(query, u"shell"), 8u);
    EXPECT_EQ(IndexOf(query, u"power"), 9u);
    EXPECT_EQ(IndexOf(query, u"trustedinstaller"), 27u);
    EXPECT_EQ(IndexOf(query, u"browser"), 38u);
    EXPECT_EQ(query.GetProcessType(6).paths, std::vector<std::u16string>{u"\\xampp\\htdocs\\portal"});
    EXPECT_EQ(query.GetProcessType(34).paths.size(), 8u);
    EXPECT_EQ(query.GetProcessType(2).op, 40u);
    EXPECT_EQ(query.GetProcessType(37).enableSetting, u"enableHTML");
    for (size_t i = 0; i < query.ProcessTypeCount(); ++i) EXPECT_FALSE(query.GetProcessType(i).signatureCheck);

    // Every rule's type exists, so every rule resolves to a named type.
    const auto& rules = query.InterpreterRules();
    EXPECT_EQ(rules[0].ruleType, RuleNone);
    for (size_t i = 1; i < rules.size(); ++i) EXPECT_NE(IndexOf(query, rules[i].processType), kNoProcessType) << i;
    EXPECT_EQ(rules[43].namePart, u"sumatrapdf");
    EXPECT_EQ(rules[65].path, u"/usr/sbin/");
    EXPECT_EQ(rules[66].name, u"prelink");
    EXPECT_EQ(rules[71].name, u"iexplore.exe");
}

TEST(ZorvQuery, ProcessNamesResolveByFirstMatchingRule) {
    CaptureLog();
    const ZorvQuery query;
    EXPECT_EQ(TypeOf(query, u"/bin/bash"), 8u);                    // no dot: the whole name
    EXPECT_EQ(TypeOf(query, u"/usr/bin/python3.11"), 4u);          // stem python3
    EXPECT_EQ(TypeOf(query, u"/usr/sbin/php-fpm"), 5u);            // php before the web servers
    EXPECT_EQ(TypeOf(query, u"C:\\Git\\bin\\git.exe"), 6u);
    EXPECT_EQ(TypeOf(query, u"C:\\Windows\\POWERSHELL.EXE"), 9u);  // lower-cased first
    EXPECT_EQ(TypeOf(query, u"C:\\Windows\\InfDefaultInstall.exe"), 0u);
    EXPECT_EQ(TypeOf(query, u"C:\\Windows\\notepad.exe"), 0u);
    EXPECT_TRUE(LogCapture::Instance().Contains(u"No ScriptInterpreter Match rule match for notepad.exe"));
    // Only ASCII folds: a non-ASCII capital keeps the name from matching.
    EXPECT_EQ(TypeOf(query, u"C:\\CMD\u0130.exe"), 0u);

    EXPECT_EQ(TypeOf(query, u"/usr/sbin/prelink"), 2u);
    EXPECT_EQ(TypeOf(query, u"/usr/bin/prelink"), 0u);
}

TEST(ZorvQuery, UnusableProcessNamesGiveNoType) {
    CaptureLog();
    const ZorvQuery query;
    EXPECT_EQ(TypeOf(query, u"/home/u/.profile"), kNoProcessType);
    EXPECT_FALSE(LogCapture::Instance().Contains(u"No ScriptInterpreter Match rule match for .profile"));
    EXPECT_EQ(TypeOf(query, u"/home/u/tool."), kNoProcessType);
    EXPECT_TRUE(LogCapture::Instance().Contains(u"Process extension couldn't be found name=tool. ext="));
}

TEST(ZorvQuery, RulesMatchByHashAndReportUnknownTypes) {
    CaptureLog();
    const ZorvQuery query;
    uint8_t digest[32];
    for (int i = 0; i < 32; ++i) digest[i] = static_cast<uint8_t>(i * 5);

    InterpreterRule byHash(RuleHash, u"", u"", u"", u"perl");
    byHash.hash.SetFromBytes(digest);
    ProcessDescription process = ProcessDescription::FromImagePath(u"/opt/x/anything");
    EXPECT_EQ(query.ApplyInterpreterRule(process, byHash), kNoProcessType);  // no digest
    process.hash.SetFromBytes(digest);
    EXPECT_EQ(query.ApplyInterpreterRule(process, byHash), 7u);
    EXPECT_EQ(byHash.processTypeIndex.load(), 7);
    digest[31] ^= 1;
    process.hash.SetFromBytes(digest);
    EXPECT_EQ(query.ApplyInterpreterRule(process, byHash), kNoProcessType);

    InterpreterRule strange(9, u"", u"anything", u"", u"perl");
    EXPECT_EQ(query.ApplyInterpreterRule(process, strange), kNoProcessType);
    EXPECT_TRUE(LogCapture::Instance().Contains(u"Unknown rule type 9"));

    // A rule naming no type resolves to 0 and is never cached.
    InterpreterRule orphan(RuleName, u"", u"anything", u"", u"nosuchtype");
    EXPECT_EQ(query.ApplyInterpreterRule(process, orphan), 0u);
    EXPECT_EQ(orphan.processTypeIndex.load(), -1);
}

TEST(ZorvQuery, InterpreterAndExtensionQueries) {
    const ZorvQuery query;
    EXPECT_TRUE(query.IsInterpreter(8));
    EXPECT_FALSE(query.IsInterpreter(0));
    EXPECT_FALSE(query.IsInterpreter(27));
    EXPECT_FALSE(query.IsInterpreter(39));
    EXPECT_FALSE(query.IsInterpreter(kNoProcessType));

    for (const char16_t* ext : {u"html", u"htm", u"js"}) EXPECT_TRUE(query.IsExtensionInterpreted(38, ext));
    EXPECT_FALSE(query.IsExtensionInterpreted(38, u"HTML"));
    EXPECT_TRUE(query.IsExtensionInterpreted(6, u"rb"));
    for (const char16_t* ext : {u"", u"exe", u"js"}) EXPECT_FALSE(query.IsExtensionInterpreted(0, ext));
    EXPECT_FALSE(query.IsExtensionInterpreted(kNoProcessType, u"sh"));
    EXPECT_FALSE(query.IsExtensionInterpreted(kNoProcessType - 1, u"sh"));
    EXPECT_FALSE(query.IsExtensionInterpreted(36, u"sh"));  // mismatchop interprets nothing
}

TEST(ZorvQuery, HtmlTypesStayInTimeStampModeUntilEnabled) {
    ZorvQuery query;
    EXPECT_TRUE(query.IsProcessTypeInTimeStampMode(38));
    EXPECT_TRUE(query.IsProcessTypeInTimeStampMode(37));
    EXPECT_FALSE(query.IsProcessTypeInTimeStampMode(1));
    EXPECT_FALSE(query.IsProcessTypeInTimeStampMode(39));

    int64_t enableHtml = 0;
    query.SetSettingLookup([&enableHtml](const std::u16string& name, int64_t& value) {
        if (name != u"enableHTML") return false;
        value = enableHtml;
        return true;
    });
    EXPECT_TRUE(query.IsProcessTypeInTimeStampMode(38));
    enableHtml = 1;
    EXPECT_FALSE(query.IsProcessTypeInTimeStampMode(38));
}

TEST(ZorvQuery, FileTestsFollowTheExtensionAndDirectorySets) {
    const ZorvQuery query;
    EXPECT_TRUE(query.IsSharedLibrary(FileEvent(u"/usr/lib/libssl.so.1.1")));
    EXPECT_TRUE(query.IsSharedLibrary(FileEvent(u"C:\\x\\a.dll")));
    EXPECT_FALSE(query.IsSharedLibrary(FileEvent(u"/usr/lib/libsonic.sol")));
    EXPECT_FALSE(query.IsSharedLibrary(FileEvent(u"/usr/lib/so")));  // no extension

    EXPECT_TRUE(query.IsExecutableExtension(FileEvent(u"C:\\music\\song.mp3")));
    EXPECT_TRUE(query.IsExecutableExtension(FileEvent(u"/usr/bin/tool")));
    EXPECT_TRUE(query.IsExecutableExtension(FileEvent(u"C:\\x\\setup.msi")));
    EXPECT_FALSE(query.IsExecutableExtension(FileEvent(u"C:\\x\\notes.txt")));
    EXPECT_FALSE(query.IsExecutableExtension(FileEvent(u"C:\\x\\SETUP.MSI")));

    EXPECT_FALSE(query.IsScriptCandidate(FileEvent(u"c:\\web\\app.js")));  // script, not executable
    EXPECT_FALSE(query.IsScriptCandidate(FileEvent(u"c:\\x\\app.exe")));   // executable, not script
    EXPECT_TRUE(query.IsScriptCandidate(FileEvent(u"c:\\users\\me\\run.ps1")));
    EXPECT_FALSE(query.IsScriptCandidate(FileEvent(u"c:\\windows\\cbstemp\\x\\run.ps1")));
    EXPECT_FALSE(query.IsScriptCandidate(FileEvent(u"c:\\$recycle.bin\\s-1-5\\run.ps1")));
    EXPECT_TRUE(query.IsScriptCandidate(FileEvent(u"C:\\WINDOWS\\CBSTEMP\\run.ps1")));  // case-sensitive

    EXPECT_FALSE(query.IsOutsideTempDirectories(std::u16string_view(u"c:\\windows\\winsxs\\temp\\")));
    EXPECT_TRUE(query.IsOutsideTempDirectories(std::u16string_view(u"c:\\windows\\winsxs\\tem")));
}

// ShouldTrustPowershell and the PowerShell branch of drift trust read real files.
class ZorvQueryScript : public ::testing::Test {
protected:
    // A file whose full name contains "\temp\": nested folders on Windows, a
    // name with backslashes in it on POSIX.
    EngineEvent Script(std::string_view contents, const char* name = "run.ps1") {
        const std::filesystem::path path = m_dir / (std::string("x\\Temp\\") + name);
        std::filesystem::create_directories(path.parent_path());
        test::WriteFile(path, contents);
        return FileEvent(test::PathText(path));
    }

    test::TempDir m_dir;
    ZorvQuery m_query;
};

TEST_F(ZorvQueryScript, OnlyOneLineScriptsWithATrustedHeaderAreTrusted) {
    EXPECT_TRUE(m_query.ShouldTrustPowershell(Script("1")));
    EXPECT_FALSE(m_query.ShouldTrustPowershell(Script("1\n")));
    EXPECT_TRUE(m_query.ShouldTrustPowershell(Script("# generated by setup")));
    EXPECT_FALSE(m_query.ShouldTrustPowershell(Script("#requires -version 5")));
    EXPECT_FALSE(m_query.ShouldTrustPowershell(Script("# one\n# two")));
    EXPECT_FALSE(m_query.ShouldTrustPowershell(Script("12")));
    EXPECT_FALSE(m_query.ShouldTrustPowershell(Script("")));
    EXPECT_FALSE(m_query.ShouldTrustPowershell(FileEvent(test::PathText(m_dir / "missing.ps1"))));
}

TEST_F(ZorvQueryScript, DriftTrustFollowsTheWritersTypeAndPaths) {
    AppControlConfig& config = AppControlConfig::Instance();
    config.SetAllowlistInventory(false);
    ZorvStats& stats = ZorvStats::Instance();
    const uint64_t msiexecBefore = stats.GetMetric(u"msiexecTrustedDrift");

    EngineEvent event = FileEvent(u"c:\\windows\\installer\\x.msi");
    event.processName = u"C:\\Windows\\System32\\msiexec.exe";
    event.pid = 42;
    bool isFinal = false;
    uint64_t rememberedPid = 0;
    ProcessTypeIndex rememberedType = 0;
    auto remember = [&](uint64_t pid, ProcessTypeIndex index) {
        rememberedPid = pid;
        rememberedType = index;
    };
    EXPECT_TRUE(m_query.ShouldTrustDrift(0, event, isFinal, remember));
    EXPECT_TRUE(isFinal);
    EXPECT_EQ(event.source, 4u);
    EXPECT_EQ(rememberedPid, 42u);
    EXPECT_EQ(rememberedType, 28u);
    EXPECT_EQ(stats.GetMetric(u"msiexecTrustedDrift"), msiexecBefore + 1);

    EngineEvent elsewhere = FileEvent(u"d:\\data\\x.msi");
    elsewhere.processName = event.processName;
    EXPECT_FALSE(m_query.ShouldTrustDrift(28, elsewhere, isFinal));
    EXPECT_EQ(elsewhere.source, 0u);

    EngineEvent byPrelink = FileEvent(u"/usr/lib/libx.so");
    byPrelink.changeKind = 4;
    EXPECT_FALSE(m_query.ShouldTrustDrift(2, byPrelink, isFinal));

    EngineEvent byUnknown = FileEvent(u"c:\\temp\\x.exe");
    byUnknown.processName = u"C:\\Tools\\unknown.exe";
    isFinal = true;
    EXPECT_FALSE(m_query.ShouldTrustDrift(0, byUnknown, isFinal));
    EXPECT_FALSE(isFinal);
    EXPECT_FALSE(m_query.ShouldTrustDrift(1, byUnknown, isFinal));  // "normal" has no paths
}

TEST_F(ZorvQueryScript, PowershellDriftNeedsAOneLineScriptAndIsNeverFinal) {
    AppControlConfig::Instance().SetAllowlistInventory(false);
    bool isFinal = true;
    EngineEvent oneLine = Script("# ok");
    EXPECT_TRUE(m_query.ShouldTrustDrift(9, oneLine, isFinal));
    EXPECT_FALSE(isFinal);
    EXPECT_EQ(oneLine.source, 4u);

    EngineEvent twoLines = Script("# ok\nrm -r /", "two.ps1");
    EXPECT_FALSE(m_query.ShouldTrustDrift(9, twoLines, isFinal));
    EngineEvent notScript = Script("# ok", "tool.exe");
    EXPECT_FALSE(m_query.ShouldTrustDrift(9, notScript, isFinal));
}

TEST_F(ZorvQueryScript, FilesAreClassifiedAsLinkDirectoryOrRegular) {
    ZorvQuery::FileAttributes file;
    const std::filesystem::path regular = m_dir / "tool.exe";
    test::WriteFile(regular, "MZ");
    ASSERT_TRUE(m_query.StatAndCheckLink(test::PathText(regular), file));
    m_query.ClassifyFile(file, u"exe");
    EXPECT_EQ(file.fileKind, 3u);
    EXPECT_EQ(file.status.size, 2u);

    ASSERT_TRUE(m_query.StatAndCheckLink(test::PathText(m_dir.path()), file));
    m_query.ClassifyFile(file, u"");
    EXPECT_EQ(file.fileKind, 5u);

    file.isReparsePoint = true;
    EXPECT_FALSE(m_query.StatAndCheckLink(test::PathText(m_dir / "missing.exe"), file));
    EXPECT_FALSE(file.isReparsePoint);

    // Creating links needs a privilege on Windows; judge them where we may make one.
    std::error_code error;
    const std::filesystem::path link = m_dir / "link.exe";
    std::filesystem::create_symlink(regular, link, error);
    if (!error) {
        ASSERT_TRUE(m_query.StatAndCheckLink(test::PathText(link), file));
        m_query.ClassifyFile(file, u"exe");
        EXPECT_EQ(file.fileKind, 6u);
    }
}

TEST(ZorvQuery, EveryDriftIsTrustedWhileTheAllowListInventoryIsTaken) {
    AppControlConfig& config = AppControlConfig::Instance();
    config.SetInventoryExists(false);
    config.SetAllowlistInventory(true);
    const ZorvQuery query;
    const uint64_t before = ZorvStats::Instance().GetMetric(u"TotalApprovedDriftDuringInventory");

    EngineEvent event = FileEvent(u"d:\\anywhere\\x.exe");
    bool isFinal = false;
    EXPECT_TRUE(query.ShouldTrustDrift(0, event, isFinal));
    EXPECT_TRUE(isFinal);
    EXPECT_EQ(event.source, 1u);
    EXPECT_EQ(ZorvStats::Instance().GetMetric(u"TotalApprovedDriftDuringInventory"), before + 1);

    event.examined = 1;  // already looked at: falls through to the type test
    event.source = 0;
    EXPECT_FALSE(query.ShouldTrustDrift(0, event, isFinal));
    config.SetAllowlistInventory(false);
}

}  // namespace
}  // namespace zorv

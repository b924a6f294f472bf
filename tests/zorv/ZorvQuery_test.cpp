// ZorvQuery: the built-in tables, the process-type lookup, the file tests and
// the drift-trust decision.
#include "ZorvQuery.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "TestSupport.h"
#include "Zorv.h"
#include "ZorvEventAbstraction.h"
#include "ZorvStats.h"

namespace zorv {
namespace {

EngineEvent FileEvent(std::u16string name) {
    EngineEvent event;
    event.name = std::move(name);
    const size_t separator = event.name.find_last_of(u"\\/");
    event.fileName = separator == std::u16string::npos ? event.name : event.name.substr(separator + 1);
    const size_t dot = event.fileName.rfind(u'.');
    if (dot != std::u16string::npos) event.extension = event.fileName.substr(dot + 1);
    return event;
}

TEST(ZorvQuery, TypePositionsAreStableAndEveryRuleNamesAType) {
    const ZorvQuery query;
    // The engine's process map and stored records refer to types by position.
    ASSERT_EQ(query.ProcessTypeCount(), 39u);
    const std::vector<std::pair<size_t, std::u16string>> positions{
        {0, u""}, {1, u"normal"}, {8, u"shell"}, {9, u"power"}, {27, u"trustedinstaller"}, {38, u"browser"}};
    for (const auto& [index, name] : positions) EXPECT_EQ(query.GetProcessType(index).name, name) << index;
    const auto& rules = query.InterpreterRules();
    ASSERT_EQ(rules.size(), 72u);
    EXPECT_EQ(rules[0].ruleType, RuleNone);
    for (size_t i = 1; i < rules.size(); ++i) {
        bool found = false;
        for (size_t t = 0; t < query.ProcessTypeCount(); ++t) found |= query.GetProcessType(t).name == rules[i].processType;
        EXPECT_TRUE(found) << "rule " << i;
    }
}

TEST(ZorvQuery, ProcessNamesResolveByFirstMatchingRule) {
    const ZorvQuery query;
    const std::vector<std::pair<std::u16string, ProcessTypeIndex>> cases{
        {u"/bin/bash", 8},                            // no dot: the whole name
        {u"/usr/bin/python3.11", 4},                  // name part of the stem
        {u"/usr/sbin/php-fpm", 5},                    // php before the web servers
        {u"C:\\Git\\bin\\git.exe", 6},
        {u"C:\\Windows\\POWERSHELL.EXE", 9},          // lower-cased first
        {u"C:\\Windows\\notepad.exe", 0},
        {u"C:\\CMD\u0130.exe", 0},                     // only ASCII folds
        {u"/usr/sbin/prelink", 2},                    // path and name both
        {u"/usr/bin/prelink", 0},
        {u"/home/u/.profile", kNoProcessType},        // a dot-file names no program
        {u"/home/u/tool.", kNoProcessType},           // empty extension
    };
    for (const auto& [path, expected] : cases) {
        ProcessDescription process = ProcessDescription::FromImagePath(path);
        EXPECT_EQ(query.GetProcessInterpreterType(process), expected) << test::U8(path);
    }
}

TEST(ZorvQuery, HashRulesCompareTheWholeDigestAndCacheTheirType) {
    const ZorvQuery query;
    uint8_t digest[32];
    for (int i = 0; i < 32; ++i) digest[i] = static_cast<uint8_t>(i * 5);
    InterpreterRule byHash(RuleHash, u"", u"", u"", u"perl");
    byHash.hash.SetFromBytes(digest);
    ProcessDescription process = ProcessDescription::FromImagePath(u"/opt/x/anything");
    EXPECT_EQ(query.ApplyInterpreterRule(process, byHash), kNoProcessType);  // process without digest
    process.hash.SetFromBytes(digest);
    EXPECT_EQ(query.ApplyInterpreterRule(process, byHash), 7u);
    EXPECT_EQ(byHash.processTypeIndex.load(), 7);
    digest[31] ^= 1;
    process.hash.SetFromBytes(digest);
    EXPECT_EQ(query.ApplyInterpreterRule(process, byHash), kNoProcessType);

    EXPECT_EQ(query.ApplyInterpreterRule(process, InterpreterRule(9, u"", u"anything", u"", u"perl")), kNoProcessType);
    // A rule naming no type resolves to 0 and is never cached.
    InterpreterRule orphan(RuleName, u"", u"anything", u"", u"nosuchtype");
    EXPECT_EQ(query.ApplyInterpreterRule(process, orphan), 0u);
    EXPECT_EQ(orphan.processTypeIndex.load(), -1);
}

TEST(ZorvQuery, InterpreterQueriesRejectOutOfRangeIndexes) {
    ZorvQuery query;
    EXPECT_TRUE(query.IsInterpreter(8));
    for (ProcessTypeIndex index : {ProcessTypeIndex{0}, ProcessTypeIndex{27}, ProcessTypeIndex{39}, kNoProcessType})
        EXPECT_FALSE(query.IsInterpreter(index)) << index;
    EXPECT_TRUE(query.IsExtensionInterpreted(38, u"js"));
    EXPECT_FALSE(query.IsExtensionInterpreted(38, u"HTML"));  // compared exactly
    EXPECT_FALSE(query.IsExtensionInterpreted(0, u""));
    EXPECT_FALSE(query.IsExtensionInterpreted(kNoProcessType - 1, u"sh"));

    // HTML types stay in time-stamp mode until their setting is positive.
    EXPECT_FALSE(query.IsProcessTypeInTimeStampMode(1));
    EXPECT_FALSE(query.IsProcessTypeInTimeStampMode(39));
    int64_t enableHtml = 0;
    query.SetSettingLookup([&enableHtml](const std::u16string& name, int64_t& value) {
        value = enableHtml;
        return name == u"enableHTML";
    });
    EXPECT_TRUE(query.IsProcessTypeInTimeStampMode(38));
    enableHtml = 1;
    EXPECT_FALSE(query.IsProcessTypeInTimeStampMode(38));
}

TEST(ZorvQuery, FileTestsFollowTheExtensionAndDirectorySets) {
    const ZorvQuery query;
    struct Case { std::u16string path; bool sharedLibrary, executable, scriptCandidate; };
    const std::vector<Case> cases{
        {u"/usr/lib/libssl.so.1.1", true, true, false},  // "so" between dots
        {u"/usr/lib/libsonic.sol", false, false, false},
        {u"/usr/lib/so", false, true, false},            // no extension: may be a program
        {u"C:\\music\\song.mp3", false, true, false},    // a digit: versioned or rotated
        {u"C:\\x\\SETUP.MSI", false, false, false},      // sets are lower case
        {u"c:\\web\\app.js", false, false, false},       // script, not executable
        {u"c:\\users\\me\\run.ps1", false, true, true},
        {u"c:\\windows\\cbstemp\\x\\run.ps1", false, true, false},
        {u"c:\\$recycle.bin\\s-1-5\\run.ps1", false, true, false},
        {u"C:\\WINDOWS\\CBSTEMP\\run.ps1", false, true, true},  // directories compared exactly
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(test::U8(c.path));
        const EngineEvent event = FileEvent(c.path);
        EXPECT_EQ(query.IsSharedLibrary(event), c.sharedLibrary);
        EXPECT_EQ(query.IsExecutableExtension(event), c.executable);
        EXPECT_EQ(query.IsScriptCandidate(event), c.scriptCandidate);
    }
}

// ShouldTrustPowershell and the PowerShell branch of drift trust read real files.
class ZorvQueryScript : public ::testing::Test {
protected:
    void SetUp() override {
        AppControlConfig::Instance().SetInventoryExists(false);
        AppControlConfig::Instance().SetAllowlistInventory(false);
    }
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
    const std::vector<std::pair<std::string, bool>> cases{
        {"1", true}, {"# generated by setup", true}, {"1\n", false}, {"#requires -version 5", false},
        {"# one\n# two", false}, {"12", false}, {"", false}};
    for (const auto& [contents, trusted] : cases) EXPECT_EQ(m_query.ShouldTrustPowershell(Script(contents)), trusted) << contents;
    EXPECT_FALSE(m_query.ShouldTrustPowershell(FileEvent(test::PathText(m_dir / "missing.ps1"))));
}

TEST_F(ZorvQueryScript, DriftTrustFollowsTheWritersTypeOperationAndPaths) {
    const uint64_t msiexecBefore = ZorvStats::Instance().GetMetric(u"msiexecTrustedDrift");
    EngineEvent event = FileEvent(u"c:\\windows\\installer\\x.msi");
    event.processName = u"C:\\Windows\\System32\\msiexec.exe";
    event.pid = 42;
    bool isFinal = false;
    std::pair<uint64_t, ProcessTypeIndex> remembered;
    auto remember = [&](uint64_t pid, ProcessTypeIndex index) { remembered = {pid, index}; };
    EXPECT_TRUE(m_query.ShouldTrustDrift(0, event, isFinal, remember));
    EXPECT_TRUE(isFinal);
    EXPECT_EQ(event.source, 4u);
    EXPECT_EQ(remembered, (std::pair<uint64_t, ProcessTypeIndex>{42, 28}));
    EXPECT_EQ(ZorvStats::Instance().GetMetric(u"msiexecTrustedDrift"), msiexecBefore + 1);

    EngineEvent elsewhere = FileEvent(u"d:\\data\\x.msi");
    EXPECT_FALSE(m_query.ShouldTrustDrift(28, elsewhere, isFinal));
    EXPECT_EQ(elsewhere.source, 0u);
    EngineEvent wrongOperation = FileEvent(u"/usr/lib/libx.so");
    wrongOperation.changeKind = 4;  // prelink vouches only for its own operation
    EXPECT_FALSE(m_query.ShouldTrustDrift(2, wrongOperation, isFinal));

    EngineEvent byUnknown = FileEvent(u"c:\\temp\\x.exe");
    byUnknown.processName = u"C:\\Tools\\unknown.exe";
    isFinal = true;
    EXPECT_FALSE(m_query.ShouldTrustDrift(0, byUnknown, isFinal));
    EXPECT_FALSE(isFinal);
}

TEST_F(ZorvQueryScript, PowershellDriftNeedsAOneLineScriptAndIsNeverFinal) {
    bool isFinal = true;
    EngineEvent oneLine = Script("# ok");
    EXPECT_TRUE(m_query.ShouldTrustDrift(9, oneLine, isFinal));
    EXPECT_FALSE(isFinal);
    EXPECT_EQ(oneLine.source, 4u);
    for (EngineEvent rejected : {Script("# ok\nrm -r /", "two.ps1"), Script("# ok", "tool.exe")})
        EXPECT_FALSE(m_query.ShouldTrustDrift(9, rejected, isFinal)) << test::U8(rejected.name);
}

TEST_F(ZorvQueryScript, EveryDriftIsTrustedWhileTheAllowListInventoryIsTaken) {
    AppControlConfig::Instance().SetAllowlistInventory(true);
    const uint64_t before = ZorvStats::Instance().GetMetric(u"TotalApprovedDriftDuringInventory");
    EngineEvent event = FileEvent(u"d:\\anywhere\\x.exe");
    bool isFinal = false;
    EXPECT_TRUE(m_query.ShouldTrustDrift(0, event, isFinal));
    EXPECT_TRUE(isFinal);
    EXPECT_EQ(event.source, 1u);
    EXPECT_EQ(ZorvStats::Instance().GetMetric(u"TotalApprovedDriftDuringInventory"), before + 1);
    event.examined = 1;  // already looked at: falls through to the type test
    event.source = 0;
    EXPECT_FALSE(m_query.ShouldTrustDrift(0, event, isFinal));
    AppControlConfig::Instance().SetAllowlistInventory(false);
}

TEST_F(ZorvQueryScript, LinksAndDirectoriesAreToldApartFromRegularFiles) {
    ZorvQuery::FileAttributes file;
    const std::filesystem::path regular = m_dir / "tool.exe";
    test::WriteFile(regular, "MZ");
    ASSERT_TRUE(m_query.StatAndCheckLink(test::PathText(regular), file));
    m_query.ClassifyFile(file, u"exe");
    EXPECT_EQ(file.fileKind, 3u);
    ASSERT_TRUE(m_query.StatAndCheckLink(test::PathText(m_dir.path()), file));
    m_query.ClassifyFile(file, u"");
    EXPECT_EQ(file.fileKind, 5u);
    file.isReparsePoint = true;  // a failed stat must not keep a stale link flag
    EXPECT_FALSE(m_query.StatAndCheckLink(test::PathText(m_dir / "missing.exe"), file));
    EXPECT_FALSE(file.isReparsePoint);

    // Creating links needs a privilege on Windows; judge them where we may make one.
    std::error_code error;
    std::filesystem::create_symlink(regular, m_dir / "link.exe", error);
    if (error) return;
    ASSERT_TRUE(m_query.StatAndCheckLink(test::PathText(m_dir / "link.exe"), file));
    m_query.ClassifyFile(file, u"exe");
    EXPECT_EQ(file.fileKind, 6u);
}

}  // namespace
}  // namespace zorv

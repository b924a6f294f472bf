// ZorvQuery: the built-in tables, the process-type lookup and the drift-trust
// decision.
#include "ZorvQuery.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "TestSupport.h"
#include "Zorv.h"
#include "ZorvEventAbstraction.h"

namespace zorv {
namespace {

EngineEvent FileEvent(std::u16string name) {
    EngineEvent event;
    event.name = std::move(name);
    event.fileName = event.name.substr(event.name.find_last_of(u"\\/") + 1);  // npos + 1 is 0
    const size_t dot = event.fileName.rfind(u'.');
    if (dot != std::u16string::npos) event.extension = event.fileName.substr(dot + 1);
    return event;
}

TEST(ZorvQuery, EveryInterpreterRuleNamesAKnownType) {
    const ZorvQuery query;
    // Stored records and the process map refer to types by position.
    ASSERT_EQ(query.ProcessTypeCount(), 39u);
    const auto& rules = query.InterpreterRules();
    ASSERT_EQ(rules.size(), 72u);
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
        {u"/usr/sbin/php-fpm", 5},                    // php before the web servers
        {u"C:\\Windows\\POWERSHELL.EXE", 9},          // lower-cased first
        {u"C:\\CMD\u0130.exe", 0},                     // only ASCII folds
        {u"/usr/sbin/prelink", 2},                    // path and name both
        {u"/usr/bin/prelink", 0},
        {u"/home/u/.profile", kNoProcessType},        // a dot-file names no program
    };
    for (const auto& [path, expected] : cases) {
        ProcessDescription process = ProcessDescription::FromImagePath(path);
        EXPECT_EQ(query.GetProcessInterpreterType(process), expected) << test::U8(path);
    }
}

// Rules naming a file exactly are found by that name, the others in turn: the
// answer must stay the first matching rule of the table, for every name a rule
// knows, in every folder it knows.
TEST(ZorvQuery, IndexedRulesAnswerAsTheTableInOrder) {
    const ZorvQuery query;
    const auto& rules = query.InterpreterRules();
    std::vector<std::u16string> images;
    for (size_t i = 1; i < rules.size(); ++i) {
        for (size_t j = 1; j < rules.size(); ++j) {
            if (!rules[i].name.empty()) images.push_back(rules[j].path + rules[i].name);
        }
        if (!rules[i].namePart.empty()) images.push_back(u"/opt/x" + rules[i].namePart + u"y.bin");
    }
    size_t compared = 0;
    for (const std::u16string& image : images) {
        ProcessDescription process = ProcessDescription::FromImagePath(image);
        ProcessDescription lowered = process;
        const ProcessTypeIndex answer = query.GetProcessInterpreterType(lowered);
        ProcessTypeIndex first = 0;
        bool found = false;
        bool signed_ = false;
        for (size_t i = 1; i < rules.size() && !found; ++i) {
            const ProcessTypeIndex index = query.ApplyInterpreterRule(lowered, rules[i]);
            if (index == kNoProcessType) continue;
            // Signature-checked types depend on the file itself: not compared.
            signed_ = query.GetProcessType(index).signatureCheck;
            first = index;
            found = true;
        }
        if (signed_ || answer == kNoProcessType) continue;
        EXPECT_EQ(answer, first) << test::U8(image);
        ++compared;
    }
    EXPECT_GT(compared, 1000u);
}

TEST(ZorvQuery, HashRulesCompareTheWholeDigest) {
    const ZorvQuery query;
    uint8_t digest[32];
    for (int i = 0; i < 32; ++i) digest[i] = static_cast<uint8_t>(i * 5);
    InterpreterRule byHash(RuleHash, u"", u"", u"", u"perl");
    byHash.hash.SetFromBytes(digest);
    ProcessDescription process = ProcessDescription::FromImagePath(u"/opt/x/anything");
    EXPECT_EQ(query.ApplyInterpreterRule(process, byHash), kNoProcessType);  // process without digest
    process.hash.SetFromBytes(digest);
    EXPECT_EQ(query.ApplyInterpreterRule(process, byHash), 7u);
    digest[31] ^= 1;
    process.hash.SetFromBytes(digest);
    EXPECT_EQ(query.ApplyInterpreterRule(process, byHash), kNoProcessType);
}

TEST(ZorvQuery, TypeQueriesRejectOutOfRangeIndexes) {
    const ZorvQuery query;
    EXPECT_TRUE(query.IsInterpreter(8));
    for (ProcessTypeIndex index : {ProcessTypeIndex{0}, ProcessTypeIndex{39}, kNoProcessType})
        EXPECT_FALSE(query.IsInterpreter(index)) << index;
    EXPECT_TRUE(query.IsExtensionInterpreted(38, u"js"));
    EXPECT_FALSE(query.IsExtensionInterpreted(kNoProcessType - 1, u"sh"));
    EXPECT_FALSE(query.IsProcessTypeInTimeStampMode(39));
}

// ShouldTrustPowershell and the PowerShell branch of drift trust read real files.
class ZorvQueryScript : public ::testing::Test {
protected:
    void SetUp() override {
        AppControlConfig::Instance().SetInventoryExists(false);
        AppControlConfig::Instance().SetAllowlistInventory(false);
    }
    void TearDown() override { AppControlConfig::Instance().SetAllowlistInventory(false); }
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
        {"1", true}, {"# generated by setup", true}, {"1\n", false}, {"#requires -version 5", false}, {"", false}};
    for (const auto& [contents, trusted] : cases) EXPECT_EQ(m_query.ShouldTrustPowershell(Script(contents)), trusted) << contents;
    EXPECT_FALSE(m_query.ShouldTrustPowershell(FileEvent(test::PathText(m_dir / "missing.ps1"))));

    // As drift: trusted, but never final.
    bool isFinal = true;
    EngineEvent oneLine = Script("# ok");
    EXPECT_TRUE(m_query.ShouldTrustDrift(9, oneLine, isFinal));
    EXPECT_FALSE(isFinal);
    EXPECT_EQ(oneLine.source, 4u);
    EngineEvent notAScript = Script("# ok", "tool.exe");
    EXPECT_FALSE(m_query.ShouldTrustDrift(9, notAScript, isFinal));
}

TEST_F(ZorvQueryScript, DriftTrustAnswersForNamesThatAreNotTextOrNotFiles) {
    // A lone surrogate cannot become a native path; the test must still answer.
    EngineEvent surrogate = Script("# ok");
    surrogate.name += u"\xD800.ps1";
    bool isFinal = true;
    EXPECT_FALSE(m_query.ShouldTrustDrift(9, surrogate, isFinal));
    // A folder in the script's place is refused, not read.
    EngineEvent folder = Script("# ok");
    std::filesystem::remove(test::U8(folder.name));
    std::filesystem::create_directory(test::U8(folder.name));
    EXPECT_FALSE(m_query.ShouldTrustDrift(9, folder, isFinal));
}

TEST_F(ZorvQueryScript, DriftTrustFollowsTheWritersTypeOperationAndPaths) {
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

    EngineEvent elsewhere = FileEvent(u"d:\\data\\x.msi");
    EXPECT_FALSE(m_query.ShouldTrustDrift(28, elsewhere, isFinal));
    EXPECT_EQ(elsewhere.source, 0u);
    EngineEvent wrongOperation = FileEvent(u"/usr/lib/libx.so");
    wrongOperation.changeKind = 4;  // prelink vouches only for its own operation
    EXPECT_FALSE(m_query.ShouldTrustDrift(2, wrongOperation, isFinal));

    // While the allow-list inventory is taken, every first look is trusted.
    AppControlConfig::Instance().SetAllowlistInventory(true);
    EngineEvent anywhere = FileEvent(u"d:\\anywhere\\x.exe");
    EXPECT_TRUE(m_query.ShouldTrustDrift(0, anywhere, isFinal));
    EXPECT_EQ(anywhere.source, 1u);
    anywhere.examined = 1;  // already looked at: falls through to the type test
    EXPECT_FALSE(m_query.ShouldTrustDrift(0, anywhere, isFinal));
}

}  // namespace
}  // namespace zorv

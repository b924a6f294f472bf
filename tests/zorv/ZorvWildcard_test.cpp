// The path and process-name patterns of trust rules: what a single pattern
// accepts, and how a ';' list of them is read.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "TestSupport.h"
#include "ZorvDataAccessLayer.h"

namespace zorv {
namespace {

bool Match(std::u16string_view text, std::u16string_view pattern) { return ZorvDAL::WildcardMatch(text, pattern); }

TEST(Wildcard, PatternsMatchLevelByLevel) {
    struct Case { std::u16string text, pattern; bool matches; };
    const std::vector<Case> cases{
        // Without '*' or '?' only equality counts, before any separator rewriting.
        {u"c:\\tools\\a.exe", u"c:\\tools\\a.exe", true},
        {u"c:\\tools\\a.exe", u"c:\\tools\\", false},
        {u"", u"", true},
        // '*' and '?' stay within one level.
        {u"c:\\program files\\app.exe", u"c:\\program files\\*", true},
        {u"c:\\program files\\app\\bin.exe", u"c:\\program files\\*", false},
        {u"c:\\tools\\updater1.exe", u"c:\\tools\\updater?.exe", true},
        {u"c:\\tools\\updater\\.exe", u"c:\\tools\\updater?.exe", false},
        {u"c:\\tools\\a.exe", u"*.exe", false},
        {u".exe", u"*.exe", true},
        {u"c:/tools/a.exe", u"c:/*.exe", false},
        // '**' spans any number of whole levels, none included.
        {u"c:\\program files\\app\\bin.exe", u"c:\\program files\\**", true},
        {u"c:\\a\\x\\y\\z\\b.exe", u"c:\\a\\**\\b.exe", true},
        {u"c:\\a\\b.exe", u"c:\\a\\**\\b.exe", true},
        {u"c:\\a\\xb.exe", u"c:\\a\\**\\b.exe", false},
        {u"c:\\b\\x.exe", u"c:\\a\\**", false},
        // A trailing separator means files directly inside.
        {u"c:\\tools\\a.exe", u"c:\\tool?\\", true},
        {u"c:\\tools\\sub\\a.exe", u"c:\\*\\", false},
    };
    for (const Case& c : cases) EXPECT_EQ(Match(c.text, c.pattern), c.matches) << test::U8(c.text) << " ~ " << test::U8(c.pattern);
}

TEST(Wildcard, CostStaysBoundedOnHostilePatterns) {
    // Backtracking matchers take exponential time here; the state table does not.
    const std::u16string text(4000, u'a');
    std::u16string pattern;
    for (int i = 0; i < 200; ++i) pattern += u"a*";
    EXPECT_FALSE(Match(text + u"b", pattern + u"c"));
    EXPECT_TRUE(Match(text, pattern));
    std::u16string levels;
    for (int i = 0; i < 200; ++i) levels += u"**\\";
    EXPECT_TRUE(Match(std::u16string(300, u'\\'), levels));
}

TEST(RulePathList, EachNonEmptyPatternIsTriedAfterLowerCasing) {
    EXPECT_TRUE(ZorvDAL::MatchEventPathWithRulePath(u"C:\\Tools\\A.EXE", u"d:\\*;;C:\\TOOLS\\*"));
    EXPECT_FALSE(ZorvDAL::MatchEventPathWithRulePath(u"c:\\x.exe", u";;"));
}

}  // namespace
}  // namespace zorv

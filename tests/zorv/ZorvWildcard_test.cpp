// The path and process-name patterns of trust rules: what a single pattern
// accepts, and how a ';' list of them is read.
#include <gtest/gtest.h>

#include <string>

#include "ZorvDataAccessLayer.h"

namespace zorv {
namespace {

bool Match(std::u16string_view text, std::u16string_view pattern) { return ZorvDAL::WildcardMatch(text, pattern); }

TEST(Wildcard, PlainPatternMatchesOnlyByEquality) {
    EXPECT_TRUE(Match(u"c:\\tools\\a.exe", u"c:\\tools\\a.exe"));
    EXPECT_FALSE(Match(u"c:\\tools\\a.exe", u"c:\\tools\\"));
    // The trailing-separator rewriting applies to patterns with wildcards only.
    EXPECT_FALSE(Match(u"c:\\tools\\a.exe", u"c:\\tools"));
    EXPECT_TRUE(Match(u"", u""));
}

TEST(Wildcard, StarAndQuestionStayWithinOneLevel) {
    EXPECT_TRUE(Match(u"c:\\program files\\app.exe", u"c:\\program files\\*"));
    EXPECT_FALSE(Match(u"c:\\program files\\app\\bin.exe", u"c:\\program files\\*"));
    EXPECT_TRUE(Match(u"c:\\tools\\updater1.exe", u"c:\\tools\\updater?.exe"));
    EXPECT_FALSE(Match(u"c:\\tools\\updater12.exe", u"c:\\tools\\updater?.exe"));
    EXPECT_FALSE(Match(u"c:\\tools\\updater\\.exe", u"c:\\tools\\updater?.exe"));
    EXPECT_FALSE(Match(u"c:\\tools\\a.exe", u"*.exe"));
    EXPECT_TRUE(Match(u"a.exe", u"*.exe"));
    EXPECT_TRUE(Match(u".exe", u"*.exe"));
    EXPECT_FALSE(Match(u"c:/tools/a.exe", u"c:/*.exe"));
}

TEST(Wildcard, DoubleStarSpansAnyNumberOfLevels) {
    EXPECT_TRUE(Match(u"c:\\program files\\app.exe", u"c:\\program files\\**"));
    EXPECT_TRUE(Match(u"c:\\program files\\app\\bin.exe", u"c:\\program files\\**"));
    EXPECT_TRUE(Match(u"c:\\a\\x\\y\\z\\b.exe", u"c:\\a\\**\\b.exe"));
    EXPECT_TRUE(Match(u"c:\\a\\b.exe", u"c:\\a\\**\\b.exe"));
    EXPECT_TRUE(Match(u"/opt/x/y/run", u"/opt/**/run"));
    // Whole levels only: the run "**\" stands for ends at a separator.
    EXPECT_FALSE(Match(u"c:\\a\\xb.exe", u"c:\\a\\**\\b.exe"));
    EXPECT_FALSE(Match(u"c:\\b\\x.exe", u"c:\\a\\**"));
}

TEST(Wildcard, TrailingSeparatorMeansFilesDirectlyInside) {
    EXPECT_TRUE(Match(u"c:\\tools\\a.exe", u"c:\\tool?\\"));
    EXPECT_TRUE(Match(u"c:\\tools\\a.exe", u"c:\\*\\"));
    EXPECT_FALSE(Match(u"c:\\tools\\sub\\a.exe", u"c:\\*\\"));
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
    EXPECT_TRUE(ZorvDAL::MatchEventPathWithRulePath(u"c:\\x.exe", u"c:\\x.exe;"));
    EXPECT_FALSE(ZorvDAL::MatchEventPathWithRulePath(u"c:\\x.exe", u""));
    EXPECT_FALSE(ZorvDAL::MatchEventPathWithRulePath(u"c:\\x.exe", u";;"));
    EXPECT_FALSE(ZorvDAL::MatchEventPathWithRulePath(u"c:\\x.exe", u"d:\\*;e:\\**"));
}

}  // namespace
}  // namespace zorv

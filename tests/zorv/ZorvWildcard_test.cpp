// The path and process-name patterns of trust rules: what a single pattern
// accepts, and how a ';' list of them is read.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "TestSupport.h"
#include "ZorvDataAccessLayer.h"
#include "ZorvWildcard.h"

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

TEST(Wildcard, HostilePatternsAtTheLimitStillAnswer) {
    // Backtracking matchers take exponential time here; the automaton does not.
    const std::u16string text(4000, u'a');
    std::u16string pattern;
    while (pattern.size() + 2 <= WildcardPattern::kMaxPatternUnits) pattern += u"a*";
    EXPECT_FALSE(Match(text + u"b", pattern + u"c"));
    EXPECT_TRUE(Match(text, pattern));
    std::u16string levels;
    while (levels.size() + 3 <= WildcardPattern::kMaxPatternUnits) levels += u"**\\";
    EXPECT_TRUE(Match(std::u16string(300, u'\\'), levels));
}

TEST(Wildcard, ListsLongerThanTheLimitMatchNothing) {
    const std::u16string fits(WildcardPattern::kMaxPatternUnits, u'*');
    EXPECT_TRUE(WildcardPattern::Fits(fits));
    EXPECT_TRUE(WildcardPattern::CompileList(fits).Match(u"x"));
    EXPECT_FALSE(WildcardPattern::Fits(fits + u"*"));
    EXPECT_FALSE(WildcardPattern::CompileList(fits + u"*").Match(u"x"));
}

// The plain definition, one table of (text prefix, pattern prefix) pairs: slow
// but obviously right, to hold the bit-parallel automaton against.
bool Reference(std::u16string_view text, std::u16string_view pattern) {
    if (text == pattern) return true;
    if (pattern.find_first_of(u"*?") == std::u16string_view::npos) return false;
    std::u16string p(pattern);
    if (p.size() >= 2 && p.compare(p.size() - 2, 2, u"**") == 0) p += u"\\*";
    if (!p.empty() && (p.back() == u'\\' || p.back() == u'/')) p += u'*';
    const auto sep = [](char16_t c) { return c == u'\\' || c == u'/'; };
    // ok[i][j]: text[i..] matches p[j..]. Filled from the ends backwards.
    std::vector<std::vector<char>> ok(text.size() + 1, std::vector<char>(p.size() + 1, 0));
    ok[text.size()][p.size()] = 1;
    for (size_t i = text.size() + 1; i-- > 0;) {
        for (size_t j = p.size(); j-- > 0;) {
            const bool more = i < text.size();
            char result = 0;
            if (p[j] == u'*' && j + 2 < p.size() && p[j + 1] == u'*' && sep(p[j + 2])) {
                result = ok[i][j + 3];  // no levels
                for (size_t k = i; k < text.size() && !result; ++k) {
                    if (sep(text[k]) && ok[k + 1][j + 3]) result = 1;
                }
            } else if (p[j] == u'*') {
                result = ok[i][j + 1] || (more && !sep(text[i]) && ok[i + 1][j]);
            } else if (p[j] == u'?') {
                result = more && !sep(text[i]) && ok[i + 1][j + 1];
            } else {
                result = more && text[i] == p[j] && ok[i + 1][j + 1];
            }
            ok[i][j] = result;
        }
    }
    return ok[0][0] != 0;
}

TEST(Wildcard, AgreesWithThePlainDefinitionOnRandomPatternsAndLists) {
    // Small alphabets make matches frequent; long lists spread the automaton
    // over several machine words, where the carries between words matter.
    const std::u16string alphabet = u"ab\\/*?";
    uint32_t seed = 12345;
    const auto next = [&seed](uint32_t bound) {
        seed = seed * 1103515245u + 12345u;
        return (seed >> 8) % bound;
    };
    int matches = 0;
    for (int round = 0; round < 4000; ++round) {
        std::vector<std::u16string> pieces(1 + next(round % 7 == 0 ? 30 : 3));
        std::u16string list;
        for (auto& piece : pieces) {
            const size_t length = next(9);
            for (size_t k = 0; k < length; ++k) piece += alphabet[next(static_cast<uint32_t>(alphabet.size()))];
            if (!list.empty()) list += u';';
            list += piece;
        }
        const WildcardPattern compiled = WildcardPattern::CompileList(list);
        for (int t = 0; t < 8; ++t) {
            std::u16string text;
            const size_t length = next(12);
            for (size_t k = 0; k < length; ++k) text += alphabet[next(4)];
            bool expected = false;
            for (const auto& piece : pieces) expected = expected || (!piece.empty() && Reference(text, piece));
            ASSERT_EQ(compiled.Match(text), expected) << test::U8(text) << " ~ " << test::U8(list);
            matches += expected ? 1 : 0;
        }
    }
    EXPECT_GT(matches, 1000);
}

TEST(Wildcard, AgreesWithThePlainDefinitionOnWideUnitsAndRunsOfStars) {
    // Pieces rather than single units, so that "**\", "***\" and "*?*" runs
    // come often; non-ASCII units, lone surrogates and both separators take
    // the hashed rows; lists up to the limit fill every word of the automaton.
    const std::vector<std::u16string> pieces{u"*", u"?", u"**\\", u"**/", u"***\\", u"**", u"\\", u"/", u"a", u"b",
                                             u"\u00e9", u"\u4e2d", u"\xd800", u"\xdc00", u"ab", u"a\\"};
    const std::u16string units = u"ab\\/\u00e9\u4e2d\xd800\xdc00";
    uint32_t seed = 777;
    const auto next = [&seed](uint32_t bound) {
        seed = seed * 1103515245u + 12345u;
        return (seed >> 8) % bound;
    };
    int matches = 0;
    for (int round = 0; round < 3000; ++round) {
        std::vector<std::u16string> patterns(1 + next(round % 5 == 0 ? 40 : 3));
        std::u16string list;
        for (auto& pattern : patterns) {
            const size_t count = next(7);
            for (size_t k = 0; k < count; ++k) pattern += pieces[next(static_cast<uint32_t>(pieces.size()))];
            if (list.size() + pattern.size() + 1 > WildcardPattern::kMaxPatternUnits) pattern.clear();
            if (!list.empty()) list += u';';
            list += pattern;
        }
        ASSERT_TRUE(WildcardPattern::Fits(list));
        const WildcardPattern compiled = WildcardPattern::CompileList(list);
        for (int t = 0; t < 10; ++t) {
            std::u16string text;
            const size_t length = next(16);
            for (size_t k = 0; k < length; ++k) text += units[next(static_cast<uint32_t>(units.size()))];
            bool expected = false;
            for (const auto& pattern : patterns) expected = expected || (!pattern.empty() && Reference(text, pattern));
            ASSERT_EQ(compiled.Match(text), expected) << test::U8(text) << " ~ " << test::U8(list);
            matches += expected ? 1 : 0;
        }
    }
    EXPECT_GT(matches, 1500);
}

TEST(RulePathList, EachNonEmptyPatternIsTriedAfterLowerCasing) {
    EXPECT_TRUE(ZorvDAL::MatchEventPathWithRulePath(u"C:\\Tools\\A.EXE", u"d:\\*;;C:\\TOOLS\\*"));
    EXPECT_FALSE(ZorvDAL::MatchEventPathWithRulePath(u"c:\\x.exe", u";;"));
}

}  // namespace
}  // namespace zorv

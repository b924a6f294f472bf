#include "ZorvText.h"

#include <gtest/gtest.h>

namespace zorv {
namespace {

TEST(Text, Utf16ToUtf8ReplacesLoneSurrogates) {
    EXPECT_EQ(Utf16ToUtf8(u"a\u00e9\u20ac\U0001F600"), "a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80");
    const std::string bad = "\xEF\xBF\xBD";
    // A high surrogate at the end, a low one alone, a high one before a non-surrogate.
    EXPECT_EQ(Utf16ToUtf8(std::u16string{u'x', char16_t(0xD83D)}), "x" + bad);
    EXPECT_EQ(Utf16ToUtf8(std::u16string{char16_t(0xDE00), u'y'}), bad + "y");
    EXPECT_EQ(Utf16ToUtf8(std::u16string{char16_t(0xD83D), u'z'}), bad + "z");
}

TEST(Text, Utf8ToUtf16ReplacesEachBrokenSequenceOnce) {
    const std::u16string text = u"C:\\Users\\\u00c5sa\\\U0001F4C1\\app.exe";
    EXPECT_EQ(Utf8ToUtf16(Utf16ToUtf8(text)), text);
    EXPECT_EQ(Utf8ToUtf16("\xC0\xAF"), u"\uFFFD");             // overlong '/'
    EXPECT_EQ(Utf8ToUtf16("\xED\xA0\x80"), u"\uFFFD");         // encoded surrogate
    EXPECT_EQ(Utf8ToUtf16("\xF4\x90\x80\x80"), u"\uFFFD");     // beyond U+10FFFF
    EXPECT_EQ(Utf8ToUtf16("\xE2\x82" "A"), u"\uFFFDA");        // cut short
    EXPECT_EQ(Utf8ToUtf16("\x80\xFF" "b"), u"\uFFFD\uFFFDb");  // stray bytes
}

TEST(Text, ToLowerFoldsAsciiOnly) {
    EXPECT_EQ(ToLower(u"C:\\Program Files\\APP.EXE"), u"c:\\program files\\app.exe");
    // Non-ASCII capitals stay as they are, whatever the locale.
    EXPECT_EQ(ToLower(u"\u00c4\u0130Z[@"), u"\u00c4\u0130z[@");
}

TEST(Text, TrimRemovesTrailingSpacesOnly) {
    for (auto [in, out] : {std::pair{u"  name  ", u"  name"}, {u"tab\t", u"tab\t"},
                           {u"nbsp\u00a0", u"nbsp\u00a0"}, {u"   ", u""}}) {
        std::u16string text = in;
        TrimTrailingBlanks(text);
        EXPECT_EQ(text, out);
    }
}

TEST(Text, SplitUsesTheLastSeparatorOfEitherKind) {
    auto split = [](std::u16string_view name) {
        const SplitName s = SplitAtLastSeparator(name);
        return s.directory + u"|" + s.fileName;
    };
    EXPECT_EQ(split(u"C:\\dir/sub\\file.exe"), u"C:\\dir/sub|file.exe");
    EXPECT_EQ(split(u"C:\\dir\\sub/file.exe"), u"C:\\dir\\sub|file.exe");
    EXPECT_EQ(split(u"file.exe"), u"|file.exe");
    EXPECT_EQ(split(u"/dir/"), u"/dir|");
}

TEST(Text, ExtensionIsTextAfterTheLastDot) {
    EXPECT_EQ(ExtensionOf(u"archive.tar.gz"), u"gz");
    EXPECT_EQ(ExtensionOf(u"Makefile"), u"");
    EXPECT_EQ(ExtensionOf(u"trailing."), u"");
}

}  // namespace
}  // namespace zorv

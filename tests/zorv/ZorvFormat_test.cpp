#include "ZorvFormat.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

namespace zorv {
namespace {

enum class Color : uint8_t { Red = 2 };

TEST(Format, ConvertsEachKindOfArgument) {
    const std::u16string wide = u"wide";
    EXPECT_EQ(Format(u"%s|%s|%s|%s", wide, u"lit", std::string("n\xC3\xA9"), "c"), u"wide|lit|n\u00e9|c");
    EXPECT_EQ(Format(u"%d %i %u", -42, int64_t{-9000000000}, 7u), u"-42 -9000000000 7");
    EXPECT_EQ(Format(u"%x %X", 0xBEEFu, uint64_t{0xABCDEF0123}), u"beef ABCDEF0123");
    EXPECT_EQ(Format(u"%d %u", Color::Red, true), u"2 1");
    EXPECT_EQ(Format(u"100%% done"), u"100% done");
    EXPECT_EQ(Format(u"%s", static_cast<const char16_t*>(nullptr)), u"");
}

TEST(Format, ArgumentWidthDecidesSignedness) {
    // As printf would print the argument's own type, not a widened one.
    EXPECT_EQ(Format(u"%u", int8_t{-1}), u"255");
    EXPECT_EQ(Format(u"%x", int32_t{-1}), u"ffffffff");
    EXPECT_EQ(Format(u"%d", uint16_t{0xFFFF}), u"-1");
    EXPECT_EQ(Format(u"%d", INT64_MIN), u"-9223372036854775808");
    EXPECT_EQ(Format(u"%u", UINT64_MAX), u"18446744073709551615");
}

TEST(Format, IgnoresLengthModifiers) {
    EXPECT_EQ(Format(u"%ld %lld %hd %zu %I64d %lx %ls", 1, 2, 3, size_t{4}, 5, 0x6Fu, u"s"), u"1 2 3 4 5 6f s");
}

TEST(Format, AppliesFlagsAndWidth) {
    EXPECT_EQ(Format(u"[%5d]", 42), u"[   42]");
    EXPECT_EQ(Format(u"[%-5d]", 42), u"[42   ]");
    EXPECT_EQ(Format(u"[%-05d]", 42), u"[42   ]");  // '-' wins over '0'
    EXPECT_EQ(Format(u"[%05d]", -42), u"[-0042]");
    EXPECT_EQ(Format(u"[%08X]", 0xABu), u"[000000AB]");
    EXPECT_EQ(Format(u"[%-6s]", u"ab"), u"[ab    ]");
    EXPECT_EQ(Format(u"[%06s]", u"ab"), u"[    ab]");  // zeros pad numbers only
    EXPECT_EQ(Format(u"[%2d]", 12345), u"[12345]");
}

TEST(Format, MarksMismatchedMissingAndExtraArguments) {
    EXPECT_EQ(Format(u"%d", u"text"), u"%!d(text)");
    EXPECT_EQ(Format(u"%x", "narrow"), u"%!x(text)");
    EXPECT_EQ(Format(u"%s", 5), u"%!s(number)");
    EXPECT_EQ(Format(u"a=%d b=%d", 1), u"a=1 b=%!d(missing)");
    EXPECT_EQ(Format(u"%d", 1, 2, u"x"), u"1 %!(extra) %!(extra)");
    EXPECT_EQ(Format(u"%q", 1), u"%!q(unknown)");
    // A format cut short after '%' must not put a NUL inside the message.
    EXPECT_EQ(Format(u"50%"), u"50%!?(missing)");
    EXPECT_EQ(Format(u"%5"), u"%!?(missing)");
    EXPECT_EQ(Format(u"at %", 1), u"at %!?(unknown)");
}

TEST(Format, CutsAtTheBufferAndTerminates) {
    char16_t buffer[6];
    std::fill(std::begin(buffer), std::end(buffer), u'#');
    EXPECT_EQ(FormatTo(buffer, 6, u"value %d", 123456), 5u);
    EXPECT_EQ(std::u16string(buffer), u"value");

    EXPECT_EQ(FormatTo(buffer, 1, u"abc"), 0u);
    EXPECT_EQ(buffer[0], u'\0');
    buffer[0] = u'#';
    EXPECT_EQ(FormatTo(buffer, 0, u"abc"), 0u);
    EXPECT_EQ(buffer[0], u'#');  // no room, nothing written

    EXPECT_EQ(FormatTo(buffer, 6, u"%s", u"ok"), 2u);
    EXPECT_EQ(std::u16string(buffer), u"ok");
}

}  // namespace
}  // namespace zorv

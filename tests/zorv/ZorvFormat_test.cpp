#include "ZorvFormat.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

namespace zorv {
namespace {

TEST(Format, ConvertsPadsAndMarksMismatchesLikePrintf) {
    const std::u16string wide = u"wide";
    const std::vector<std::pair<std::u16string, std::u16string>> cases{
        {Format(u"%s|%s|%s|%s", wide, u"lit", std::string("n\xC3\xA9"), "c"), u"wide|lit|n\u00e9|c"},
        {Format(u"%s", static_cast<const char16_t*>(nullptr)), u""},
        {Format(u"%d %i %u 100%%", -42, int64_t{-9000000000}, 7u), u"-42 -9000000000 7 100%"},
        // The argument's own width decides, as printf would print its type.
        {Format(u"%u %x %d", int8_t{-1}, int32_t{-1}, uint16_t{0xFFFF}), u"255 ffffffff -1"},
        {Format(u"%d %u", INT64_MIN, UINT64_MAX), u"-9223372036854775808 18446744073709551615"},
        {Format(u"%ld %lld %hd %zu %I64d %lx %ls", 1, 2, 3, size_t{4}, 5, 0x6Fu, u"s"), u"1 2 3 4 5 6f s"},
        {Format(u"%d|%s|%q", u"text", 5, 1), u"%!d(text)|%!s(number)|%!q(unknown)"},
        {Format(u"a=%d b=%d", 1), u"a=1 b=%!d(missing)"},
        {Format(u"%d", 1, 2, u"x"), u"1 %!(extra) %!(extra)"},
        // A format cut short after '%' must not put a NUL inside the message.
        {Format(u"50%"), u"50%!?(missing)"},
    };
    for (size_t i = 0; i < cases.size(); ++i) EXPECT_EQ(cases[i].first, cases[i].second) << "case " << i;
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
}

}  // namespace
}  // namespace zorv

// What a host prints of a name anyone chose: nothing a terminal acts on, and
// never a second line.
#include <gtest/gtest.h>

#include "HostText.h"

namespace zorv::host {
namespace {

TEST(HostText, PrintableLeavesTextAndEscapesWhatATerminalOrALogLineWouldActOn) {
    struct Case {
        std::string in;
        std::string out;
    } cases[] = {
        {"/usr/bin/python3", "/usr/bin/python3"},
        {"C:\\Program Files\\x.exe", "C:\\Program Files\\x.exe"},  // backslashes are kept
        {"caf\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x98\x80", "caf\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x98\x80"},
        {"a\nzorvd info: allow", "a\\nzorvd info: allow"},
        {"a\r\tb", "a\\r\\tb"},
        {"\x1b[31mred", "\\x1b[31mred"},
        {std::string("nul\0x", 5), "nul\\x00x"},
        {"del\x7f", "del\\x7f"},
        {"csi\xC2\x9B" "31m", "csi\\x9b31m"},                           // C1, as UTF-8
        {"line\xE2\x80\xA8sep", "line\\u2028sep"},
        {"exe.\xE2\x80\xAEgpj", "exe.\\u202egpj"},                      // shown reversed otherwise
        {"iso\xE2\x81\xA6x\xE2\x81\xA9", "iso\\u2066x\\u2069"},
        {"bad\xFF\xC3", "bad\\xff\\xc3"},                               // not UTF-8
        {"over\xC0\xAF", "over\\xc0\\xaf"},                             // overlong
        {"sur\xED\xA0\x80", "sur\\xed\\xa0\\x80"},                      // a surrogate
    };
    for (const Case& c : cases) EXPECT_EQ(Printable(c.in), c.out) << c.out;
}

}  // namespace
}  // namespace zorv::host

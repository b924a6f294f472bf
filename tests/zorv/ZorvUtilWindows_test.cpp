#include "ZorvUtilWindows.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace zorv {
namespace {

std::vector<uint8_t> BytesOf(const Hash& hash) {
    return hash.IsSet() ? std::vector<uint8_t>(hash.Bytes(), hash.Bytes() + hash.DigestSize()) : std::vector<uint8_t>();
}

std::vector<uint8_t> Sample(size_t n) {
    std::vector<uint8_t> bytes(n);
    for (size_t i = 0; i < n; ++i) bytes[i] = static_cast<uint8_t>(0xF0 + i * 0x1D);
    return bytes;
}

TEST(Hash, BytesEncodeAsLowerCaseHexAndEitherCaseDecodesAlike) {
    MD5Hash md5;
    md5.SetFromBytes(Sample(16).data());
    EXPECT_EQ(md5.Hex(), "f00d2a4764819ebbd8f5122f4c6986a3");
    md5.SetFromBytes(nullptr);  // ignored
    EXPECT_EQ(BytesOf(md5), Sample(16));
    SHA256Hash fromUpper, fromLower;
    fromUpper.SetFromHex("00112233445566778899AABBCCDDEEFF00112233445566778899AABBCCDDEEFF");
    fromLower.SetFromHex("00112233445566778899aabbccddeeff00112233445566778899aabbccddeeff");
    EXPECT_TRUE(fromLower == fromUpper);
    EXPECT_EQ(fromUpper.Bytes()[15], 0xFF);
}

TEST(Hash, HexDecodingIsLenientButRefusesTooLongText) {
    const auto zeros = [](std::vector<uint8_t> head) {
        head.resize(16, 0);
        return head;
    };
    const std::vector<std::pair<std::string, std::vector<uint8_t>>> cases{
        {"zz1g-:  ab", zeros({0x00, 0x10, 0x00, 0x00, 0xAB})},  // outside the digit table reads as 0
        {"abc", zeros({0xAB})},                                  // the odd last digit is ignored
        {std::string(32, 'a'), std::vector<uint8_t>(16, 0xAA)},
        {std::string(33, 'a'), {}},                              // one more clears the hash
    };
    for (const auto& [hex, expected] : cases) {
        MD5Hash md5;
        md5.SetFromBytes(Sample(16).data());
        md5.SetFromHex(hex);
        EXPECT_EQ(BytesOf(md5), expected) << hex;
    }
}

}  // namespace
}  // namespace zorv

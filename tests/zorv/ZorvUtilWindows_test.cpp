#include "ZorvUtilWindows.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "TestSupport.h"
#include "ZorvLogger.h"

namespace zorv {
namespace {

using test::LogCapture;

std::vector<uint8_t> BytesOf(const Hash& hash) {
    if (!hash.IsSet()) return {};
    return std::vector<uint8_t>(hash.Bytes(), hash.Bytes() + hash.DigestSize());
}

std::vector<uint8_t> Sample(size_t n) {
    std::vector<uint8_t> bytes(n);
    for (size_t i = 0; i < n; ++i) bytes[i] = static_cast<uint8_t>(0xF0 + i * 0x1D);
    return bytes;
}

TEST(Hash, FromBytesGivesLowerCaseHexAndIgnoresNull) {
    MD5Hash md5;
    EXPECT_EQ(md5.Bytes(), nullptr);
    md5.SetFromBytes(Sample(16).data());
    EXPECT_EQ(md5.Hex(), "f00d2a4764819ebbd8f5122f4c6986a3");
    md5.SetFromBytes(nullptr);
    EXPECT_EQ(BytesOf(md5), Sample(16));

    SHA1Hash sha1;
    sha1.SetFromBytes(Sample(20).data());
    EXPECT_EQ(sha1.Hex(), Hash::Encode(Sample(20).data(), 20));
    EXPECT_EQ(sha1.Hex().size(), 40u);
}

TEST(Hash, UpperCaseHexGivesSameBytes) {
    const std::string lower = "00112233445566778899aabbccddeeff00112233445566778899aabbccddeeff";
    const std::string upper = "00112233445566778899AABBCCDDEEFF00112233445566778899AABBCCDDEEFF";
    SHA256Hash fromLower;
    SHA256Hash fromUpper;
    fromLower.SetFromHex(lower);
    fromUpper.SetFromHex(upper);
    EXPECT_TRUE(fromLower == fromUpper);
    EXPECT_EQ(fromUpper.Hex(), upper);  // kept as given
    EXPECT_EQ(fromLower.Bytes()[5], 0x55);
    EXPECT_EQ(fromLower.Bytes()[15], 0xFF);

    SHA256Hash reencoded;
    reencoded.SetFromBytes(fromUpper.Bytes());
    EXPECT_EQ(reencoded.Hex(), lower);
}

TEST(Hash, LenientDecodingOfShortOddAndNonHexText) {
    MD5Hash md5;
    // Characters outside the digit table read as 0 instead of failing.
    md5.SetFromHex("zz1g-:  ab");
    EXPECT_EQ(md5.Hex(), "zz1g-:  ab");
    const std::vector<uint8_t> expected = {0x00, 0x10, 0x00, 0x00, 0xAB, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};
    EXPECT_EQ(BytesOf(md5), expected);

    md5.SetFromHex("abc");  // the odd last digit is ignored, the rest is zero
    EXPECT_EQ(BytesOf(md5), std::vector<uint8_t>({0xAB, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
}

TEST(Hash, TooLongHexIsRefusedWithAWarning) {
    ZorvLogger& logger = ZorvLogger::Instance();
    if (!logger.IsInitialized()) logger.InitLogger(&LogCapture::Callback, 0xF);
    logger.SetLevel(0xF);
    LogCapture::Instance().Clear();

    MD5Hash md5;
    md5.SetFromBytes(Sample(16).data());
    md5.SetFromHex(std::string(33, 'a'));
    EXPECT_EQ(md5.Bytes(), nullptr);
    EXPECT_EQ(md5.Hex(), "");
    const auto lines = LogCapture::Instance().Lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].level, uint32_t{kLogWarning});

    md5.SetFromHex(std::string(32, 'a'));  // exactly twice the size still fits
    EXPECT_EQ(BytesOf(md5), std::vector<uint8_t>(16, 0xAA));
}

TEST(Hash, CopiesAreDeep) {
    SHA1Hash original;
    original.SetFromBytes(Sample(20).data());
    SHA1Hash copy = original;
    EXPECT_NE(copy.Bytes(), original.Bytes());
    original.SetFromHex("ff");
    EXPECT_EQ(BytesOf(copy), Sample(20));
    copy = original;
    original.Clear();
    EXPECT_EQ(copy.Hex(), "ff");
    EXPECT_EQ(copy.Bytes()[0], 0xFF);
}

}  // namespace
}  // namespace zorv

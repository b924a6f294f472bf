// ZorvEngine::ConvertEvent: what the plug-in's record becomes inside the engine.
#include "ZorvEventAbstraction.h"

#include <gtest/gtest.h>

#include <array>
#include <string>
#include <vector>

#include "EngineTestFixture.h"

namespace zorv {
namespace {

using test::Host;

// The record's text fields, in the order Texts() reads them back.
using In = AppCtlEvent;
const ZorvChar* In::*const kTextFields[] = {
    &In::processName, &In::user, &In::group, &In::name, &In::oldName, &In::cmdLine, &In::processSignerName,
    &In::processIssuerCN, &In::processIssuerC, &In::processIssuerS, &In::processIssuerL, &In::processIssuerO,
    &In::processIssuerOU, &In::fileSignerName, &In::fileIssuerCN, &In::fileIssuerC, &In::fileIssuerS, &In::fileIssuerL,
    &In::fileIssuerO, &In::fileIssuerOU, &In::processCompanyName, &In::processProductName, &In::fileCompanyName,
    &In::fileProductName};
constexpr size_t kTextCount = std::size(kTextFields);

std::vector<std::u16string> Texts(const EngineEvent& e) {
    std::vector<std::u16string> texts = {e.processName, e.user,    e.group,           e.name,
                                         e.oldName,     e.cmdLine, e.processSignerName};
    texts.insert(texts.end(), e.processIssuer, e.processIssuer + 6);
    texts.push_back(e.fileSignerName);
    texts.insert(texts.end(), e.fileIssuer, e.fileIssuer + 6);
    texts.insert(texts.end(), {e.processCompanyName, e.processProductName, e.fileCompanyName, e.fileProductName});
    return texts;
}

std::vector<uint8_t> BytesOf(const Hash& hash) {
    return hash.IsSet() ? std::vector<uint8_t>(hash.Bytes(), hash.Bytes() + hash.DigestSize()) : std::vector<uint8_t>();
}

// Null pointers and hostile texts are the business of ZorvBadInput; here every
// field of a full record must land in its own place.
TEST(ConvertEvent, EveryNumberTextAndDigestLandsInItsOwnFieldAndOnlyNamesAreTrimmed) {
    test::CaptureLog();
    std::vector<std::u16string> sent;
    for (size_t i = 0; i < kTextCount; ++i) sent.push_back(u"text " + test::U16(std::to_string(i)) + u"  ");
    // Company and product names come padded from version resources: only their trailing U+0020 goes.
    sent[kTextCount - 3] = u"   ";
    sent[kTextCount - 2] = u" Contoso\t ";
    std::array<std::array<uint8_t, 32>, 4> digests{};
    for (size_t d = 0; d < 4; ++d) {
        for (size_t i = 0; i < 32; ++i) digests[d][i] = static_cast<uint8_t>(0x10 * (d + 1) + i * 7);
    }
    AppCtlEvent in{};
    in.pid = 0xFFFFFFFF00000001;
    in.processValue = 2;
    in.flags = 0x300;
    in.ignoreChange = 1;
    in.copiedValue40 = 40;
    in.size = 1ull << 40;
    in.mode = 5;
    in.copiedValue64 = 64;
    in.dirty = 1;
    in.isExec = 1;
    in.copiedFlag74 = 74;
    in.copiedFlag75 = 75;
    in.type = AC_OP_SECTION_MAP;
    for (size_t i = 0; i < kTextCount; ++i) in.*kTextFields[i] = Host(sent[i]);
    in.fileSha256 = digests[0].data();
    in.fileSha1 = digests[1].data();
    in.fileMd5 = digests[2].data();
    in.processSha256 = digests[3].data();
    EngineEvent out;
    ZorvEngine::ConvertEvent(&in, &out);
    EXPECT_EQ((std::vector<uint64_t>{out.pid, out.processValue, out.flags, out.ignoreChange, out.copiedValue40,
                                     out.size, out.mode, out.copiedValue64, out.dirty, out.isExec, out.copiedFlag74,
                                     out.copiedFlag75, out.eventType, out.changeKind}),
              (std::vector<uint64_t>{0xFFFFFFFF00000001, 2, 0x300, 1, 40, 1ull << 40, 5, 64, 1, 1, 74, 75,
                                     AC_OP_SECTION_MAP, AC_OP_SECTION_MAP}));
    std::vector<std::u16string> expected = sent;
    expected[kTextCount - 4] = u"text 20";
    expected[kTextCount - 3] = u"";
    expected[kTextCount - 2] = u" Contoso\t";
    expected[kTextCount - 1] = u"text 23";
    EXPECT_EQ(Texts(out), expected);
    const size_t sizes[4] = {32, 20, 16, 32};
    const Hash* hashes[4] = {&out.fileSha256, &out.fileSha1, &out.fileMd5, &out.processSha256};
    for (size_t d = 0; d < 4; ++d) {
        EXPECT_EQ(BytesOf(*hashes[d]), std::vector<uint8_t>(digests[d].begin(), digests[d].begin() + sizes[d])) << d;
    }
}

// A megabyte path and lone surrogates: copied unit for unit, never cut or repaired.
TEST(ConvertEvent, LongAndIllFormedNamesAreCopiedUnitForUnit) {
    test::CaptureLog();
    std::u16string longName = u"C:\\";
    while (longName.size() < (1u << 20)) longName += u"deep\\";
    const std::u16string surrogates = std::u16string(u"C:\\x\\") + char16_t(0xD800) + u"a" + char16_t(0xDC00) +
                                      char16_t(0xDBFF) + u".exe" + char16_t(0xD83D);
    const std::u16string company = std::u16string(u"Bad") + char16_t(0xDC01) + u"  ";
    for (const std::u16string& name : {longName, surrogates}) {
        AppCtlEvent in{};
        in.name = Host(name);
        in.processCompanyName = Host(company);
        EngineEvent out;
        ZorvEngine::ConvertEvent(&in, &out);
        EXPECT_EQ(out.name, name);
        EXPECT_EQ(out.processCompanyName, std::u16string(u"Bad") + char16_t(0xDC01));
    }
}

}  // namespace
}  // namespace zorv

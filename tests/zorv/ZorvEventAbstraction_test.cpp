// ZorvEngine::ConvertEvent and the engine accessor: what the plug-in's record
// becomes inside the engine.
#include "ZorvEventAbstraction.h"

#include <gtest/gtest.h>

#include <array>
#include <string>
#include <vector>

#include "EngineTestFixture.h"

namespace zorv {
namespace {

using test::Host;
using test::LogCapture;

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

TEST(ConvertEvent, NumbersAreCopiedAndNullPointersLeaveTextsAndDigestsEmpty) {
    test::CaptureLog();
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

    EngineEvent out;
    ZorvEngine::ConvertEvent(&in, &out);
    EXPECT_EQ((std::vector<uint64_t>{out.pid, out.processValue, out.flags, out.ignoreChange, out.copiedValue40,
                                     out.size, out.mode, out.copiedValue64, out.dirty, out.isExec, out.copiedFlag74,
                                     out.copiedFlag75, out.eventType, out.changeKind}),
              (std::vector<uint64_t>{0xFFFFFFFF00000001, 2, 0x300, 1, 40, 1ull << 40, 5, 64, 1, 1, 74, 75,
                                     AC_OP_SECTION_MAP, AC_OP_SECTION_MAP}));
    // What the conversion does not touch keeps its initial value; only the second pass-through starts at 1.
    EXPECT_EQ((std::vector<uint64_t>{out.action, out.isAuthorized, out.source, out.dbVerdict, out.passThroughFirst,
                                     out.passThroughSecond, out.blockedByLockdown, out.eventId, out.statusTime,
                                     out.recordTime}),
              (std::vector<uint64_t>{0, 0, 0, 0, 0, 1, 0, 0, 0, 0}));
    EXPECT_EQ(Texts(out), std::vector<std::u16string>(kTextCount));
    EXPECT_FALSE(out.fileSha256.IsSet() || out.fileSha1.IsSet() || out.fileMd5.IsSet() || out.processSha256.IsSet());
}

TEST(ConvertEvent, EveryTextAndDigestLandsInItsOwnFieldAndOnlyNamesAreTrimmed) {
    test::CaptureLog();
    std::vector<std::u16string> sent;
    for (size_t i = 0; i < kTextCount; ++i) sent.push_back(u"text " + test::U16(std::to_string(i)) + u"  ");
    // Company and product names come padded from version resources: only their trailing U+0020 goes.
    sent[kTextCount - 4] = u"Microsoft Corporation   ";
    sent[kTextCount - 3] = u"   ";
    sent[kTextCount - 2] = u" Contoso\t ";
    std::array<std::array<uint8_t, 32>, 4> digests{};
    for (size_t d = 0; d < 4; ++d) {
        for (size_t i = 0; i < 32; ++i) digests[d][i] = static_cast<uint8_t>(0x10 * (d + 1) + i * 7);
    }
    AppCtlEvent in{};
    in.type = AC_OP_CREATE_PRE;
    for (size_t i = 0; i < kTextCount; ++i) in.*kTextFields[i] = Host(sent[i]);
    in.fileSha256 = digests[0].data();
    in.fileSha1 = digests[1].data();
    in.fileMd5 = digests[2].data();
    in.processSha256 = digests[3].data();

    EngineEvent out;
    ZorvEngine::ConvertEvent(&in, &out);
    std::vector<std::u16string> expected = sent;
    expected[kTextCount - 4] = u"Microsoft Corporation";
    expected[kTextCount - 3] = u"";
    expected[kTextCount - 2] = u" Contoso\t";
    expected[kTextCount - 1] = u"text 23";
    EXPECT_EQ(Texts(out), expected);
    // Deriving the file name, directory and extension is the abstraction's job.
    EXPECT_EQ(out.fileName + out.path + out.extension, u"");
    const size_t sizes[4] = {32, 20, 16, 32};
    const Hash* hashes[4] = {&out.fileSha256, &out.fileSha1, &out.fileMd5, &out.processSha256};
    for (size_t d = 0; d < 4; ++d) {
        EXPECT_EQ(BytesOf(*hashes[d]), std::vector<uint8_t>(digests[d].begin(), digests[d].begin() + sizes[d])) << d;
    }
    EXPECT_EQ(out.fileSha256.Hex().substr(0, 8), "10171e25");  // lower-case, high nibble first
    // The log shows what the plug-in sent; the record keeps the trimmed text.
    EXPECT_TRUE(LogCapture::Instance().Contains(u"processCompanyName from plugin:'Microsoft Corporation   '"));
}

TEST(ConvertEvent, MegabytePathIsCopiedWholeWhileItsLogLineIsCut) {
    test::CaptureLog();
    std::u16string name = u"C:\\";
    while (name.size() < (1u << 20)) name += u"deep\\";
    name += u"payload.exe";
    AppCtlEvent in{};
    in.name = Host(name);
    EngineEvent out;
    ZorvEngine::ConvertEvent(&in, &out);
    EXPECT_EQ(out.name, name);
    const std::vector<std::u16string> messages = LogCapture::Instance().Messages();
    ASSERT_EQ(messages.size(), 2u);
    EXPECT_EQ(messages[1].size(), ZorvLogger::kMessageUnits - 1) << "cut to the logger's buffer";
    EXPECT_EQ(messages[1].substr(0, 26), u"name from plugin:'C:\\deep\\");
}

TEST(ConvertEvent, LoneSurrogatesAreCopiedUnitForUnit) {
    test::CaptureLog();
    const std::u16string name = std::u16string(u"C:\\x\\") + char16_t(0xD800) + u"a" + char16_t(0xDC00) +
                                char16_t(0xDFFF) + char16_t(0xDBFF) + u".exe" + char16_t(0xD83D);
    const std::u16string company = std::u16string(u"Bad") + char16_t(0xDC01) + u"  ";
    AppCtlEvent in{};
    in.name = Host(name);
    in.processCompanyName = Host(company);
    EngineEvent out;
    ZorvEngine::ConvertEvent(&in, &out);
    EXPECT_EQ(out.name, name);
    EXPECT_EQ(out.processCompanyName, std::u16string(u"Bad") + char16_t(0xDC01));
    // The host's callback receives the units as they came; only the file sink turns them into U+FFFD.
    EXPECT_TRUE(LogCapture::Instance().Contains(u"name from plugin:'" + name + u"'"));
}

TEST(EngineSingleton, GetEngineIsSetExactlyWhileAnEngineExists) {
    test::CaptureLog();
    EXPECT_EQ(ZorvEngine::GetEngine(), nullptr);
    {
        ZorvEngine engine;
        EXPECT_EQ(ZorvEngine::GetEngine(), &engine);
    }
    EXPECT_EQ(ZorvEngine::GetEngine(), nullptr);
}

}  // namespace
}  // namespace zorv

// ZorvEngine::ConvertEvent and the engine accessor: what the plug-in's record
// becomes inside the engine, and what the conversion says in the log.
#include "ZorvEventAbstraction.h"

#include <gtest/gtest.h>

#include <array>
#include <string>
#include <vector>

#include "TestSupport.h"
#include "ZorvLogger.h"

namespace zorv {
namespace {

using test::Host;
using test::LogCapture;

void CaptureLog() {
    ZorvLogger::Instance().InitLogger(&LogCapture::Callback, 0xF);
    ZorvLogger::Instance().SetLevel(0xF);
    LogCapture::Instance().Clear();
}

template <size_t N>
std::array<uint8_t, N> Digest(uint8_t first) {
    std::array<uint8_t, N> bytes{};
    for (size_t i = 0; i < N; ++i) bytes[i] = static_cast<uint8_t>(first + i * 7);
    return bytes;
}

std::vector<uint8_t> BytesOf(const Hash& hash) {
    return hash.IsSet() ? std::vector<uint8_t>(hash.Bytes(), hash.Bytes() + hash.DigestSize()) : std::vector<uint8_t>();
}

std::u16string Quoted(std::u16string_view label, const std::u16string& text) {
    return std::u16string(label) + u" from plugin:'" + text + u"'";
}

TEST(ConvertEvent, NullPointersLeaveEveryTextAndDigestEmpty) {
    CaptureLog();
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
    const std::vector<uint64_t> numbers = {out.pid,  out.processValue, out.flags,         out.ignoreChange,
                                           out.copiedValue40, out.size, out.mode, out.copiedValue64,
                                           out.dirty, out.isExec, out.copiedFlag74, out.copiedFlag75,
                                           out.eventType, out.changeKind};
    const std::vector<uint64_t> expected = {0xFFFFFFFF00000001, 2, 0x300, 1, 40, 1ull << 40, 5, 64, 1, 1, 74, 75,
                                            AC_OP_SECTION_MAP, AC_OP_SECTION_MAP};
    EXPECT_EQ(numbers, expected);
    // What the conversion does not touch keeps its initial value; only the second pass-through starts at 1.
    const std::vector<uint64_t> untouched = {out.action, out.isAuthorized, out.source, out.dbVerdict,
                                             out.passThroughFirst, out.passThroughSecond, out.blockedByLockdown,
                                             out.eventId, out.statusTime, out.recordTime};
    EXPECT_EQ(untouched, (std::vector<uint64_t>{0, 0, 0, 0, 0, 1, 0, 0, 0, 0}));

    for (const std::u16string* text :
         {&out.processName, &out.name, &out.oldName, &out.cmdLine, &out.user, &out.group, &out.processSignerName,
          &out.processCompanyName, &out.processProductName, &out.fileSignerName, &out.fileCompanyName,
          &out.fileProductName, &out.fileName, &out.path, &out.extension, &out.resultText}) {
        EXPECT_TRUE(text->empty()) << test::U8(*text);
    }
    for (int i = 0; i < 6; ++i) {
        EXPECT_TRUE(out.processIssuer[i].empty());
        EXPECT_TRUE(out.fileIssuer[i].empty());
    }
    for (const Hash* hash : std::initializer_list<const Hash*>{&out.fileSha256, &out.fileSha1, &out.fileMd5,
                                                                &out.processSha256}) {
        EXPECT_FALSE(hash->IsSet());
    }

    const std::vector<test::LoggedLine> lines = LogCapture::Instance().Lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].message, u"Start ConvertEvent");
    EXPECT_EQ(lines[0].level, static_cast<uint32_t>(kLogTrace));
    EXPECT_EQ(lines[0].function, u"ZorvEngine::ConvertEvent");
    EXPECT_EQ(lines[0].sourcePath, u"src/zorv/ZorvEventAbstraction");
}

// Every field of the record set to a text or digest of its own.
struct FullRecord {
    std::u16string processName = u"C:\\Windows\\System32\\WindowsPowerShell\\v1.0\\powershell.exe";
    std::u16string name = u"C:\\Users\\ann\\Downloads\\setup.ps1";
    std::u16string cmdLine = u"powershell.exe -File C:\\Users\\ann\\Downloads\\setup.ps1";
    std::u16string processSigner = u"Microsoft Windows";
    std::array<std::u16string, 6> processIssuer = {u"Microsoft Windows Production PCA 2011", u"US", u"Washington",
                                                   u"Redmond", u"Microsoft Corporation", u"Code Signing"};
    std::u16string processCompany = u"Microsoft Corporation   ";  // padded, as version resources often are
    std::u16string processProduct = u"   ";                      // nothing but blanks
    std::u16string fileSigner = u"Contoso Ltd";
    std::array<std::u16string, 6> fileIssuer = {u"Contoso CA", u"GB", u"", u"London", u"Contoso", u"PKI"};
    std::u16string fileCompany = u" Contoso\t ";  // a leading blank and a tab stay
    std::u16string fileProduct = u"Contoso Setup";
    std::u16string user = u"CORP\\ann";
    std::u16string group = u"CORP\\Domain Users";
    std::u16string oldName = u"C:\\Users\\ann\\Downloads\\setup.tmp";
    std::array<uint8_t, 32> fileSha256 = Digest<32>(0x10);
    std::array<uint8_t, 20> fileSha1 = Digest<20>(0x20);
    std::array<uint8_t, 16> fileMd5 = Digest<16>(0x30);
    std::array<uint8_t, 32> processSha256 = Digest<32>(0xA0);
    AppCtlEvent record{};

    FullRecord() {
        record.type = AC_OP_CREATE_PRE;
        record.processName = Host(processName);
        record.name = Host(name);
        record.cmdLine = Host(cmdLine);
        record.processSignerName = Host(processSigner);
        const ZorvChar** processIssuers[6] = {&record.processIssuerCN, &record.processIssuerC,
                                              &record.processIssuerS,  &record.processIssuerL,
                                              &record.processIssuerO,  &record.processIssuerOU};
        const ZorvChar** fileIssuers[6] = {&record.fileIssuerCN, &record.fileIssuerC, &record.fileIssuerS,
                                           &record.fileIssuerL,  &record.fileIssuerO, &record.fileIssuerOU};
        for (int i = 0; i < 6; ++i) {
            *processIssuers[i] = Host(processIssuer[i]);
            *fileIssuers[i] = Host(fileIssuer[i]);
        }
        record.processCompanyName = Host(processCompany);
        record.processProductName = Host(processProduct);
        record.fileSignerName = Host(fileSigner);
        record.fileCompanyName = Host(fileCompany);
        record.fileProductName = Host(fileProduct);
        record.fileSha256 = fileSha256.data();
        record.fileSha1 = fileSha1.data();
        record.fileMd5 = fileMd5.data();
        record.processSha256 = processSha256.data();
        record.user = Host(user);
        record.group = Host(group);
        record.oldName = Host(oldName);
    }
    FullRecord(const FullRecord&) = delete;
};

TEST(ConvertEvent, EveryFieldIsCopiedWhereItBelongsAndLoggedInOrder) {
    CaptureLog();
    const FullRecord in;
    EngineEvent out;
    ZorvEngine::ConvertEvent(&in.record, &out);

    EXPECT_EQ(out.processName, in.processName);
    EXPECT_EQ(out.name, in.name);
    EXPECT_EQ(out.cmdLine, in.cmdLine);
    EXPECT_EQ(out.processSignerName, in.processSigner);
    EXPECT_EQ(out.fileSignerName, in.fileSigner);
    for (int i = 0; i < 6; ++i) {
        EXPECT_EQ(out.processIssuer[i], in.processIssuer[i]) << i;
        EXPECT_EQ(out.fileIssuer[i], in.fileIssuer[i]) << i;
    }
    EXPECT_EQ(out.user, in.user);
    EXPECT_EQ(out.group, in.group);
    EXPECT_EQ(out.oldName, in.oldName);
    // Only trailing U+0020 goes, and only from company and product names.
    EXPECT_EQ(out.processCompanyName, u"Microsoft Corporation");
    EXPECT_EQ(out.processProductName, u"");
    EXPECT_EQ(out.fileCompanyName, u" Contoso\t");
    EXPECT_EQ(out.fileProductName, u"Contoso Setup");
    // Deriving the file name, directory and extension is the abstraction's job.
    EXPECT_TRUE(out.fileName.empty());
    EXPECT_TRUE(out.path.empty());
    EXPECT_TRUE(out.extension.empty());

    EXPECT_EQ(BytesOf(out.fileSha256), std::vector<uint8_t>(in.fileSha256.begin(), in.fileSha256.end()));
    EXPECT_EQ(BytesOf(out.fileSha1), std::vector<uint8_t>(in.fileSha1.begin(), in.fileSha1.end()));
    EXPECT_EQ(BytesOf(out.fileMd5), std::vector<uint8_t>(in.fileMd5.begin(), in.fileMd5.end()));
    EXPECT_EQ(BytesOf(out.processSha256), std::vector<uint8_t>(in.processSha256.begin(), in.processSha256.end()));
    EXPECT_EQ(out.fileSha256.Hex().substr(0, 8), "10171e25");  // lower-case, high nibble first

    // The log shows each text as the plug-in sent it, untrimmed; SHA-1 and MD5 are not logged.
    const char16_t* const suffix[6] = {u"IssuerCN", u"IssuerC", u"IssuerS", u"IssuerL", u"IssuerO", u"IssuerOU"};
    std::vector<std::u16string> expected = {
        u"Start ConvertEvent",
        Quoted(u"processName", in.processName),
        Quoted(u"user", in.user),
        Quoted(u"group", in.group),
        Quoted(u"name", in.name),
        Quoted(u"oldName", in.oldName),
        Quoted(u"cmdLine", in.cmdLine),
        Quoted(u"processSignerName", in.processSigner),
    };
    for (int i = 0; i < 6; ++i) expected.push_back(Quoted(u"process" + std::u16string(suffix[i]), in.processIssuer[i]));
    expected.push_back(Quoted(u"processCompanyName", in.processCompany));
    expected.push_back(Quoted(u"processProductName", in.processProduct));
    expected.push_back(u"processSha256 from plugin: " + test::U16(Hash::Encode(in.processSha256.data(), 32)));
    expected.push_back(Quoted(u"fileSignerName", in.fileSigner));
    for (int i = 0; i < 6; ++i) expected.push_back(Quoted(u"file" + std::u16string(suffix[i]), in.fileIssuer[i]));
    expected.push_back(Quoted(u"fileCompanyName", in.fileCompany));
    expected.push_back(Quoted(u"fileProductName", in.fileProduct));
    expected.push_back(u"fileSha256 from plugin: " + test::U16(Hash::Encode(in.fileSha256.data(), 32)));
    EXPECT_EQ(LogCapture::Instance().Messages(), expected);
    for (const auto& line : LogCapture::Instance().Lines()) {
        EXPECT_EQ(line.level, static_cast<uint32_t>(kLogTrace));
        EXPECT_EQ(line.function, u"ZorvEngine::ConvertEvent");
    }
}

TEST(ConvertEvent, MegabytePathIsCopiedWholeWhileItsLogLineIsCut) {
    CaptureLog();
    std::u16string name = u"C:\\";
    while (name.size() < (1u << 20)) name += u"deep\\";
    name += u"payload.exe";
    const std::u16string cmdLine = u"\"" + name + u"\" --run";
    AppCtlEvent in{};
    in.type = AC_OP_PROCESS_CREATE;
    in.name = Host(name);
    in.cmdLine = Host(cmdLine);

    EngineEvent out;
    ZorvEngine::ConvertEvent(&in, &out);
    EXPECT_EQ(out.name, name);
    EXPECT_EQ(out.cmdLine, cmdLine);

    const std::vector<std::u16string> messages = LogCapture::Instance().Messages();
    ASSERT_EQ(messages.size(), 3u);
    for (size_t i = 1; i < messages.size(); ++i) {
        EXPECT_EQ(messages[i].size(), ZorvLogger::kMessageUnits - 1) << "cut to the logger's buffer";
    }
    EXPECT_EQ(messages[1].substr(0, 26), u"name from plugin:'C:\\deep\\");
    EXPECT_EQ(messages[2].substr(0, 20), u"cmdLine from plugin:");
}

TEST(ConvertEvent, LoneSurrogatesAreCopiedUnitForUnit) {
    CaptureLog();
    const std::u16string name = std::u16string(u"C:\\x\\") + char16_t(0xD800) + u"a" + char16_t(0xDC00) +
                                char16_t(0xDFFF) + char16_t(0xDBFF) + u".exe" + char16_t(0xD83D);
    const std::u16string company = std::u16string(u"Bad") + char16_t(0xDC01) + u"  ";
    AppCtlEvent in{};
    in.name = Host(name);
    in.processName = Host(name);
    in.processCompanyName = Host(company);

    EngineEvent out;
    ZorvEngine::ConvertEvent(&in, &out);
    EXPECT_EQ(out.name, name);
    EXPECT_EQ(out.processName, name);
    EXPECT_EQ(out.processCompanyName, std::u16string(u"Bad") + char16_t(0xDC01));
    // The host's callback receives the units as they came; only the file sink turns them into U+FFFD.
    EXPECT_TRUE(LogCapture::Instance().Contains(Quoted(u"name", name)));
    EXPECT_TRUE(LogCapture::Instance().Contains(Quoted(u"processCompanyName", company)));
}

TEST(EngineSingleton, GetEngineIsSetExactlyWhileAnEngineExists) {
    CaptureLog();
    EXPECT_EQ(ZorvEngine::GetEngine(), nullptr);
    {
        ZorvEngine engine;
        EXPECT_EQ(ZorvEngine::GetEngine(), &engine);
    }
    EXPECT_EQ(ZorvEngine::GetEngine(), nullptr);

    // The same through the exports, which own the engine the agent uses.
    test::TempDir dir;
    const std::u16string dbPath = test::PathText(dir / "ac.db");
    const EngineStartParams params = test::StartParams(&dbPath);
    ASSERT_EQ(engine_start(&params), AC_OK);
    ZorvEngine* const started = ZorvEngine::GetEngine();
    EXPECT_NE(started, nullptr);
    const EngineStartParams again = test::StartParams(nullptr);
    EXPECT_EQ(engine_start(&again), AC_OK);
    EXPECT_EQ(ZorvEngine::GetEngine(), started);
    EXPECT_EQ(engine_stop(), AC_OK);
    EXPECT_EQ(ZorvEngine::GetEngine(), nullptr);
}

}  // namespace
}  // namespace zorv

// The event record through app_ctl. Each input is a policy (set_config) and
// up to eight events, every field drawn from the input: numbers, operation
// codes, texts of any length including lone surrogates, digests, and target
// names that are real files in the target's folder: regular files, scripts,
// FIFOs, links to a file, to /dev/zero and to nowhere, a directory. The store
// holds wildcard trust rules, a user list and items for those files.
// Oracle: app_ctl returns in time, answers a status that agrees with the
// decision it wrote, and always writes the whole result record (it is
// poisoned before every call).
#include <fuzzer/FuzzedDataProvider.h>
#include <sys/stat.h>

#include <array>
#include <chrono>
#include <cstring>

#include "FuzzSupport.h"

namespace zorv::fuzz {
namespace {

constexpr uint8_t kPoison = 0xA5;
constexpr std::array<uint8_t, 32> kAllowedDigest{0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11,
                                                 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11,
                                                 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11};
constexpr std::array<uint8_t, 32> kBlockedDigest{0xB1, 0xB1, 0xB1, 0xB1, 0xB1, 0xB1, 0xB1, 0xB1, 0xB1, 0xB1, 0xB1,
                                                 0xB1, 0xB1, 0xB1, 0xB1, 0xB1, 0xB1, 0xB1, 0xB1, 0xB1, 0xB1, 0xB1,
                                                 0xB1, 0xB1, 0xB1, 0xB1, 0xB1, 0xB1, 0xB1, 0xB1, 0xB1, 0xB1};

constexpr std::array<uint32_t, 20> kOperations{
    AC_OP_CACHE_CHECK, AC_OP_CREATE_PRE, AC_OP_CREATE_POST, AC_OP_CHANGE_DIRTY, AC_OP_PROCESS_CREATE,
    AC_OP_CREATE_PRE_2, AC_OP_OPEN_POST, AC_OP_CHANGE_32, AC_OP_CHANGE_34, AC_OP_CHANGE_36,
    AC_OP_RENAME, AC_OP_CHANGE_42, AC_OP_CHANGE_44, AC_OP_CHANGE_46, AC_OP_CHANGE_48,
    AC_OP_DELETE, AC_OP_SECTION_MAP, AC_OP_DELETE_2, 1, 60};

// Files an event may name, made once in the store's folder.
struct Files {
    std::vector<std::u16string> paths;
    std::vector<std::string> processes;
};

void Write(const std::filesystem::path& path, std::string_view text) {
    std::ofstream(path, std::ios::binary) << text;
}

Files MakeFiles(const std::filesystem::path& root) {
    namespace fs = std::filesystem;
    const fs::path bin = root / "bin";
    fs::create_directories(bin / "sub");
    Write(bin / "tool", "#!/bin/sh\necho tool\n");
    Write(bin / "setup.ps1", "Write-Host one\nWrite-Host two\n");
    Write(bin / "oneline.ps1", "Write-Host one");
    Write(bin / "installer.msi", std::string(4096, 'M'));
    Write(bin / "lib.so", "\x7f" "ELF");
    Write(bin / "run.py", "print(1)\n");
    mkfifo((bin / "pipe").c_str(), 0600);
    mkfifo((bin / "pipe.ps1").c_str(), 0600);
    std::error_code ignored;
    fs::create_symlink("/dev/zero", bin / "zero.ps1", ignored);
    fs::create_symlink(bin / "tool", bin / "link", ignored);
    fs::create_symlink(bin / "setup.ps1", bin / "link.ps1", ignored);
    fs::create_symlink(bin / "missing", bin / "dangling.ps1", ignored);

    // PowerShell's helper scripts are trusted only under a folder named
    // "\temp\"; on Linux that is one folder whose name holds the backslashes.
    const fs::path temp = bin / "\\temp\\";
    fs::create_directories(temp);
    Write(temp / "helper.ps1", "# helper");
    Write(temp / "two.ps1", "# one\n# two\n");
    std::ofstream(temp / "huge.ps1", std::ios::binary).seekp(4 << 20) << '#';  // one sparse line of 4 MiB
    mkfifo((temp / "pipe.ps1").c_str(), 0600);
    fs::create_symlink("/dev/zero", temp / "zero.ps1", ignored);
    fs::create_symlink(temp / "helper.ps1", temp / "link.ps1", ignored);

    Files files;
    for (const char* name : {"tool", "setup.ps1", "oneline.ps1", "installer.msi", "lib.so", "run.py", "pipe",
                             "pipe.ps1", "zero.ps1", "link", "link.ps1", "dangling.ps1", "sub", "missing.exe",
                             "\\temp\\/helper.ps1", "\\temp\\/two.ps1", "\\temp\\/huge.ps1",
                             "\\temp\\/pipe.ps1", "\\temp\\/zero.ps1", "\\temp\\/link.ps1"}) {
        files.paths.push_back(Store::Text((bin / name).string()));
    }
    files.paths.push_back(Store::Text(bin.string() + "/"));
    files.paths.push_back(u"C:\\Windows\\System32\\cmd.exe");
    files.paths.push_back(u"c:\\program files\\app\\app.exe");
    files.processes = {(bin / "tool").string(), "/usr/bin/bash", "/usr/bin/pwsh", "/usr/bin/python3",
                       "C:\\Windows\\System32\\WindowsPowerShell\\v1.0\\powershell.exe", "c:\\windows\\explorer.exe",
                       "msiexec.exe"};
    return files;
}

std::string Hex(const std::array<uint8_t, 32>& digest) {
    std::string out;
    for (uint8_t b : digest) out += {"0123456789abcdef"[b >> 4], "0123456789abcdef"[b & 15]};
    return out;
}

// Wildcard rules of every type over the folder, a user list, and items for two digests.
void Seed(Store& store) {
    const std::string bin = (store.Dir() / "bin").string();
    const std::string rules =
        "{\"Trustrules\":["
        "{\"processName\":\"*\",\"paths\":\"" + bin + "/*.py\",\"trustType\":2},"
        "{\"processName\":\"*sh\",\"trustType\":1,\"user\":\"Alice\"},"
        "{\"processName\":\"*\",\"paths\":\"" + bin + "/sub/*\",\"trustType\":3},"
        "{\"processName\":\"*pwsh*\",\"paths\":\"*.ps1\",\"trustType\":4},"
        "{\"processName\":\"?:\\\\windows\\\\*\",\"paths\":\"*a*a*a*a*a*b\",\"trustType\":0},"
        "{\"processName\":\"msiexec.exe\",\"userList\":\"admins\",\"trustType\":1},"
        "{\"signerName\":\"Contoso\",\"issuerCN\":\"Contoso CA\",\"trustType\":2},"
        "{\"sha256\":\"" + Hex(kAllowedDigest) + "\",\"trustType\":1}"
        "],\"Userlists\":[{\"id\":\"admins\",\"users\":[\"root\",\"alice\"]}]}";
    const std::u16string rulesText = Store::Text(rules);
    ZORV_FUZZ_CHECK(set_ruleset_buffer(0, rulesText.c_str(), u"TrustRules") == AC_OK, "seed trust rules refused");

    auto item = [&store](const char* name, const std::array<uint8_t, 32>& digest, uint8_t authorized, uint32_t source) {
        const std::u16string dir = Store::Text((store.Dir() / "bin").string());
        const std::u16string file = Store::Text(name);
        const std::u16string full = dir + u"/" + file;
        InventoryItemRecord record{};
        std::memcpy(record.sha256, digest.data(), digest.size());
        record.source = source;
        record.fileName = file.c_str();
        record.path = dir.c_str();
        record.fullPath = full.c_str();
        record.size = 20;
        record.isAuthorized = authorized;
        record.ruleset = u"seed";
        ZORV_FUZZ_CHECK(store_item(&record, 0) == AC_OK, "seed item refused");
    };
    item("tool", kAllowedDigest, 1, AC_SOURCE_SCANNED);
    item("setup.ps1", kBlockedDigest, 0, AC_SOURCE_EXECUTION_RULES);
    item("lib.so", kAllowedDigest, 1, AC_SOURCE_PRELINK);
    store.Restart();
}

// Texts of any length: absent, empty, a real name, raw units (lone
// surrogates and all), a real name with raw units after it, or one raw piece
// repeated up to past the longest Windows path.
std::u16string* Text(FuzzedDataProvider& in, std::vector<std::u16string>& keep, const std::vector<std::u16string>& real) {
    std::u16string text;
    switch (in.ConsumeIntegralInRange<int>(0, 7)) {
    case 0:
        return nullptr;
    case 1:
        break;
    case 2:
    case 3:
    case 4:  // most often a real name, so that the paths past the name checks are reached
        text = real[in.ConsumeIntegralInRange<size_t>(0, real.size() - 1)];
        break;
    case 5:
        text = RawText(in.ConsumeRandomLengthString(512));
        break;
    case 6:
        text = real[in.ConsumeIntegralInRange<size_t>(0, real.size() - 1)] + RawText(in.ConsumeRandomLengthString(64));
        break;
    default: {
        const std::u16string piece = RawText(in.ConsumeRandomLengthString(16));
        const size_t units = in.ConsumeIntegralInRange<size_t>(0, 33000);
        while (!piece.empty() && text.size() < units) text += piece;
        break;
    }
    }
    keep.push_back(std::move(text));
    return &keep.back();
}

const uint8_t* Digest(FuzzedDataProvider& in, std::vector<std::vector<uint8_t>>& keep, size_t size) {
    switch (in.ConsumeIntegralInRange<int>(0, 3)) {
    case 0:
        return nullptr;
    case 1:
        return kAllowedDigest.data();
    case 2:
        return kBlockedDigest.data();
    default: {
        std::vector<uint8_t> bytes = in.ConsumeBytes<uint8_t>(size);
        bytes.resize(size);
        keep.push_back(std::move(bytes));
        return keep.back().data();
    }
    }
}

uint64_t Time(FuzzedDataProvider& in) {
    const auto now = static_cast<uint64_t>(
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::system_clock::now().time_since_epoch())
            .count());
    switch (in.ConsumeIntegralInRange<int>(0, 5)) {
    case 0:
        return ~0ull;
    case 1:
        return 0;
    case 2:
        return now - 3600 * 1000;
    case 3:
        return now + 3600 * 1000;
    case 4:
        return now;
    default:
        return in.ConsumeIntegral<uint64_t>();
    }
}

void CheckResult(const AppCtlEvent& event, const AppCtlResult& result, uint32_t status) {
    const uint32_t action = result.action;
    // 0 is the engine event's starting value: an event the pipeline does not
    // handle (a create-pre without a name, say) goes back without a decision.
    ZORV_FUZZ_CHECK(action == 0 || (action >= AC_DECISION_IGNORED && action <= AC_DECISION_BLOCK),
                    "no decision: action 0x%x, status 0x%x, operation %u became event type %u, "
                    "ignoreChange %llu, dirty %u, isExec %u, mode 0x%llx, name \"%.200s\"",
                    action, status, event.type, result.eventType,
                    static_cast<unsigned long long>(event.ignoreChange), event.dirty, event.isExec,
                    static_cast<unsigned long long>(event.mode),
                    event.name != nullptr ? ExpectedUtf8(event.name).c_str() : "(null)");
    ZORV_FUZZ_CHECK(result.passThroughSecond == 1 && result.passThroughFirst == 0,
                    "pass-through fields 0x%x 0x%x", result.passThroughSecond, result.passThroughFirst);
    ZORV_FUZZ_CHECK(result.isAuthorized <= AC_REASON_EXCLUDED, "isAuthorized 0x%x", result.isAuthorized);
    ZORV_FUZZ_CHECK(result.dbVerdict <= AC_DB_BLOCKED, "dbVerdict 0x%x", result.dbVerdict);
    ZORV_FUZZ_CHECK(result.source <= AC_SOURCE_TRUST_RULE, "source 0x%x", result.source);
    ZORV_FUZZ_CHECK(result.eventType <= AC_EVENT_EXEC_MAPPING || result.eventType == event.type,
                    "eventType 0x%x for operation 0x%x", result.eventType, event.type);
    size_t end = 0;
    while (end < AC_RESULT_TEXT_UNITS && result.text[end] != 0) ++end;
    ZORV_FUZZ_CHECK(end < AC_RESULT_TEXT_UNITS, "result text not terminated");
    for (size_t i = end; i < AC_RESULT_TEXT_UNITS; ++i) ZORV_FUZZ_CHECK(result.text[i] == 0, "stale text unit %zu", i);
    for (uint8_t b : result.reserved188) ZORV_FUZZ_CHECK(b == 0, "reserved tail not cleared");

    switch (action) {
    case AC_DECISION_BLOCK:
        ZORV_FUZZ_CHECK(status == AC_BLOCKED || status == AC_OK, "block answered 0x%x", status);
        break;
    case AC_DECISION_ERROR:
        ZORV_FUZZ_CHECK(status == AC_E_FAILED, "error decision answered 0x%x", status);
        break;
    default:
        ZORV_FUZZ_CHECK(status == AC_OK, "decision %u answered 0x%x", action, status);
        break;
    }
}

Store* g_store = nullptr;
Files g_files;
size_t g_inputs = 0;

void OneEvent(FuzzedDataProvider& in) {
    std::vector<std::u16string> texts;
    texts.reserve(32);  // the record points into these
    std::vector<std::vector<uint8_t>> digests;
    digests.reserve(4);
    std::vector<std::u16string> processes;
    for (const std::string& p : g_files.processes) processes.push_back(Store::Text(p));
    const std::vector<std::u16string> users{u"alice", u"Alice", u"root", u"", u"nobody"};

    AppCtlEvent event{};
    event.type = in.ConsumeBool() ? kOperations[in.ConsumeIntegralInRange<size_t>(0, kOperations.size() - 1)]
                                  : in.ConsumeIntegral<uint32_t>();
    event.pid = in.ConsumeIntegralInRange<uint64_t>(0, 4);
    event.processValue = in.ConsumeIntegral<uint64_t>();
    event.flags = in.ConsumeIntegral<uint64_t>();
    event.ignoreChange = in.ConsumeIntegralInRange<uint64_t>(0, 1);
    event.copiedValue40 = in.ConsumeIntegral<uint64_t>();
    event.size = in.ConsumeIntegral<uint64_t>();
    event.mode = in.ConsumeIntegral<uint64_t>();
    event.copiedValue64 = in.ConsumeIntegral<uint64_t>();
    event.dirty = in.ConsumeIntegral<uint8_t>();
    event.isExec = in.ConsumeIntegral<uint8_t>();
    event.copiedFlag74 = in.ConsumeIntegral<uint8_t>();
    event.copiedFlag75 = in.ConsumeIntegral<uint8_t>();

    auto text = [&](const std::vector<std::u16string>& real) -> const ZorvChar* {
        const std::u16string* t = Text(in, texts, real);
        return t != nullptr ? t->c_str() : nullptr;
    };
    event.processName = text(processes);
    event.name = text(g_files.paths);
    event.cmdLine = text(g_files.paths);
    for (const ZorvChar** field : {&event.processSignerName, &event.processIssuerCN, &event.processIssuerC,
                                   &event.processIssuerS, &event.processIssuerL, &event.processIssuerO,
                                   &event.processIssuerOU, &event.processCompanyName, &event.processProductName,
                                   &event.fileSignerName, &event.fileIssuerCN, &event.fileIssuerC, &event.fileIssuerS,
                                   &event.fileIssuerL, &event.fileIssuerO, &event.fileIssuerOU,
                                   &event.fileCompanyName, &event.fileProductName}) {
        *field = text({u"Contoso", u"Contoso CA", u"US", u"  "});
    }
    event.fileSha256 = Digest(in, digests, 32);
    event.fileSha1 = Digest(in, digests, 20);
    event.fileMd5 = Digest(in, digests, 16);
    event.processSha256 = Digest(in, digests, 32);
    event.user = text(users);
    event.group = text({u"wheel", u"users"});
    event.oldName = text(g_files.paths);

    if (in.ConsumeIntegralInRange<int>(0, 15) == 0) {
        // A host without a result record never sees a block or an error.
        const uint32_t status = app_ctl(nullptr, &event, nullptr);
        ZORV_FUZZ_CHECK(status == AC_OK, "app_ctl without a result answered 0x%x", status);
        return;
    }
    AppCtlResult result;
    std::memset(&result, kPoison, sizeof result);
    const uint32_t status = app_ctl(nullptr, &event, &result);
    CheckResult(event, result, status);
}

}  // namespace
}  // namespace zorv::fuzz

using namespace zorv::fuzz;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (g_store == nullptr) {
        static Store store;
        g_store = &store;
        g_files = MakeFiles(store.Dir());
        Seed(store);
    }
    if (++g_inputs % 5000 == 0) {
        g_store->Recycle();
        Seed(*g_store);
    }
    FuzzedDataProvider in(data, size);
    if (in.ConsumeBool()) {
        const auto flags = in.ConsumeIntegral<uint8_t>();
        const uint64_t start = Time(in);
        ZORV_FUZZ_CHECK(set_config(flags, start, Time(in)) == AC_OK, "set_config refused");
    }
    for (int i = 0; i < 8 && in.remaining_bytes() > 0; ++i) OneEvent(in);
    return 0;
}

// Hostile input at the exports. The engine lives inside the agent's process,
// so every bad record, document, path or store must come back as a status:
// never a crash, an exception, a hang or a half-written row. The suite is
// meant to run under the address and undefined-behaviour sanitizers.
#include <gtest/gtest.h>

#include <cjson/cJSON.h>

#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "EngineTestFixture.h"
#include "ZorvDataAccessLayer.h"
#include "ZorvText.h"

namespace zorv {
namespace {

using test::Host;
using test::PluginEvent;
using Lines = std::vector<std::string>;

// Lower-case on purpose: the import lowers some fields, and the text must come
// back from every column unchanged.
constexpr char kMeta[] = "x'); drop table inventoryitems; --\"%s%n?1:path\\";

// A decision the host can act on, and the status that goes with it. Drift and
// delete handlers leave the action at 0: the host lets those through.
void ExpectDecision(const AppCtlResult& result, uint32_t status, const std::string& what) {
    const uint32_t action = result.action;
    EXPECT_TRUE(action == 0 || action == AC_DECISION_IGNORED || action == AC_DECISION_ERROR ||
                action == AC_DECISION_ALLOW || action == AC_DECISION_BLOCK)
        << what << ": action " << action;
    EXPECT_EQ(status, action == AC_DECISION_ERROR ? AC_E_FAILED : action == AC_DECISION_BLOCK ? AC_BLOCKED : AC_OK)
        << what;
    EXPECT_EQ(result.text[AC_RESULT_TEXT_UNITS - 1], 0) << what;
}

class BadInput : public test::EngineFixture {
protected:
    // Every table of the store, to compare before and after a refused call.
    Lines Snapshot() {
        Lines all;
        for (const char* table : {"InventoryItems", "TrustRules", "UserList", "AppControlState", "sqlite_master"}) {
            const Lines rows = Probe().Lines(std::string("SELECT * FROM ") + table + " ORDER BY 1, 2");
            all.insert(all.end(), rows.begin(), rows.end());
        }
        return all;
    }
    static uint32_t Import(uint8_t append, const std::string& json, const std::u16string& name) {
        const std::u16string text = Utf8ToUtf16(json);
        return set_ruleset_buffer(append, Host(text), Host(name));
    }
    // An allowed ruleset item for c:\apps\a.exe of any size, a trust rule and its user list.
    void Seed() {
        AddItem(0xAA, 0, AC_SOURCE_EXECUTION_RULES, 1);
        AddRule("processName, trustType, userList", "'p.exe', 1, 'l'");
        Probe().Exec("INSERT INTO UserList VALUES('l', 'u')");
    }
};

// Bad documents, missing files, and another program holding the write lock
// past the busy timeout: the import gives up whole, and lookups, which only
// read, go on answering.
TEST_F(BadInput, RefusedImportsLeaveTheStoreUnchangedAndLookupsGoOn) {
    Seed();
    const Lines before = Snapshot();
    const std::string deep = R"({"Trustrules":)" + std::string(5000, '[') + std::string(5000, ']') + "}";
    for (const std::string& json : {std::string(R"({"rules":[)"), std::string(), deep,
                                    std::string(R"([{"fileName":"array.exe"}])"), std::string("null"),
                                    std::string(R"({"rules":[]} {"rules":[{"fileName":"b.exe"}]})")}) {
        for (const char16_t* name : {u"items", u"trustrules"}) {
            EXPECT_EQ(Import(0, json, name), AC_E_FAILED) << json.substr(0, 40);
        }
    }
    const std::u16string missing = test::PathText(m_dir / "none" / "rules.json");
    for (const std::u16string& path : {missing, std::u16string()}) {
        EXPECT_EQ(set_ruleset(0, Host(path), Host(u"items")), AC_E_FAILED);
    }
    test::SqliteProbe holder = Probe();
    ASSERT_TRUE(holder.Exec("BEGIN EXCLUSIVE"));
    EXPECT_EQ(Import(0, R"({"rules":[{"fileName":"new.exe"}]})", u"items"), AC_E_FAILED);
    PluginEvent known;
    known.name = u"c:\\apps\\a.exe";
    known.digestFill = 0xAA;
    EXPECT_EQ(Run(known).action, AC_DECISION_ALLOW);
    ASSERT_TRUE(holder.Exec("ROLLBACK"));
    EXPECT_EQ(Snapshot(), before);
}

TEST_F(BadInput, ExportRefusesUnwritablePayloadsAndEscapesTheScanId) {
    Seed();
    const std::u16string inMissingDir = test::PathText(m_dir / "none" / "page.json");
    for (const std::u16string& path : {inMissingDir, std::u16string()}) {
        EXPECT_EQ(get_inventory(0, 10, 0, Host(path), Host(u"scan")), AC_E_FAILED);
    }
    EXPECT_FALSE(std::filesystem::exists(m_dir / "none"));

    // A null scan id is written as empty; a hostile one is escaped, so every
    // line still parses.
    const auto payload = m_dir / "page.json";
    const std::u16string payloadText = test::PathText(payload);
    const std::u16string hostile = u"\"}\r\n{\"x\":\x01\xD800" + Utf8ToUtf16(kMeta);
    for (const ZorvChar* scan : {static_cast<const ZorvChar*>(nullptr), Host(hostile)}) {
        // Every bit set in the limit asks for everything.
        ASSERT_EQ(get_inventory(0, UINT64_MAX, 0, Host(payloadText), scan), AC_OK);
        const std::string contents = test::ReadFile(payload);
        size_t lines = 0;
        for (size_t start = 0, end; (end = contents.find("\r\n", start)) != std::string::npos; start = end + 2) {
            cJSON* line = cJSON_Parse(contents.substr(start, end - start).c_str());
            EXPECT_TRUE(cJSON_IsObject(line)) << contents;
            cJSON_Delete(line);
            ++lines;
        }
        EXPECT_EQ(lines, 1u);
    }
}

// Every text field carries quotes, comment markers, format and parameter
// syntax: all are bound, so each comes back verbatim and no table is touched
// beyond the one row.
TEST_F(BadInput, SqlMetacharactersAreStoredVerbatim) {
    const std::u16string meta = Utf8ToUtf16(kMeta);
    constexpr char kSchemaNames[] = "SELECT group_concat(name) FROM (SELECT name FROM sqlite_master ORDER BY name)";
    const std::string schema = Probe().Scalar(kSchemaNames);
    InventoryItemRecord item{};
    item.fileName = item.path = item.fullPath = item.ruleset = Host(meta);
    item.source = AC_SOURCE_SCANNED;
    item.sha256[0] = 1;
    ASSERT_EQ(store_item(&item, 0), AC_OK);
    const std::string m = kMeta;
    EXPECT_EQ(Probe().Lines("SELECT fileName, ruleset FROM InventoryItems"), Lines{m + "|" + m});

    std::string rule = "{";
    for (const char* key : {"processName", "paths", "signerName", "productName", "companyName", "issuerCN", "issuerC",
                            "issuerS", "issuerL", "issuerO", "issuerOU", "user", "group", "userList"}) {
        rule += std::string("\"") + key + "\":\"" + "x'); drop table inventoryitems; --\\\"%s%n?1:path\\\\" + "\",";
    }
    rule.back() = '}';
    ASSERT_EQ(Import(1, R"({"Trustrules":[)" + rule + "]}", meta + u" trustrules"), AC_OK);
    EXPECT_EQ(Probe().Lines("SELECT processName, paths, issuerOU, procGroup, userList FROM TrustRules"),
              Lines{m + "|" + m + "|" + m + "|" + m + "|" + m});

    PluginEvent event;
    event.processName = event.name = event.user = event.cmdLine = meta;
    event.digestFill = 1;
    uint32_t status = 0;
    const AppCtlResult result = Run(event, &status);
    ExpectDecision(result, status, "meta event");
    EXPECT_EQ(Probe().Scalar(kSchemaNames), schema);
}

// Records the plug-in could send on a bad day: no texts, empty texts, names
// without directories, 32,000-unit paths, lone surrogates, unknown codes.
TEST_F(BadInput, HostileEventsGetADecisionNeverACrash) {
    EXPECT_EQ(app_ctl(nullptr, nullptr, nullptr), AC_E_NULL_EVENT);
    const uint32_t codes[] = {0, 1, 15, 16, 17, 23, 29, 30, 32, 40, 42, 50, 53, 57, 99, 0xFFFFFFFF};
    const std::u16string longPath = u"c:\\" + std::u16string(32000, u'd') + u"\\x.exe";
    const std::u16string surrogates = u"c:\\\xDC00" u"dir\\\xD800" u".exe\xD800";
    for (const bool lockdown : {false, true}) {
        AppControlConfig::Instance().SetLockdown(lockdown);
        AppControlConfig::Instance().SetMaintenanceMode(lockdown);
        for (const uint32_t code : codes) {
            AppCtlEvent bare{};
            bare.type = code;
            bare.mode = 4;
            AppCtlResult result{};
            ExpectDecision(result, app_ctl(nullptr, &bare, &result), "null pointers, code " + std::to_string(code));
            EXPECT_EQ(app_ctl(nullptr, &bare, nullptr), AC_OK);
            for (const std::u16string& name :
                 {std::u16string(u"\0", 1), std::u16string(u"calc.exe"), longPath, surrogates}) {
                PluginEvent event;
                event.type = code;
                event.name = event.oldName = event.cmdLine = name;
                event.processName = name == longPath ? longPath : u"powershell.exe";
                event.mode = 4;
                event.digestFill = 7;
                uint32_t status = 0;
                const AppCtlResult r = Run(event, &status);
                ExpectDecision(r, status, "code " + std::to_string(code) + " name of " + std::to_string(name.size()));
                // Codes 1, 4, 7, 8 and 9 coincide with engine event types and
                // reach those handlers; only codes beyond them are unknown.
                if (code >= 99) EXPECT_EQ(r.action, AC_DECISION_ERROR) << code;
            }
        }
    }
}

// State that changes under the engine: a pid the system gave to another image,
// a file gone before its times are read, a directory stored with and without
// its trailing separator, a deleted name with no directory at all.
TEST_F(BadInput, ProcessesAndFilesThatChangeUnderTheEngine) {
    PluginEvent open;
    open.type = AC_OP_CREATE_PRE;
    open.processName = u"c:\\windows\\system32\\windowspowershell\\v1.0\\powershell.exe";
    open.name = u"c:\\work\\job.ps1";
    open.digestFill = 0x31;
    EXPECT_EQ(Run(open).eventType, AC_EVENT_SCRIPT_START);
    open.processName = u"c:\\windows\\notepad.exe";
    EXPECT_EQ(Run(open).eventType, AC_OP_CREATE_PRE) << "same pid, another image: no interpreter";

    AppControlConfig& config = AppControlConfig::Instance();
    config.SetLockdown(true);
    config.SetMaintenanceMode(true);
    config.SetAutoAuthorizeStartTime(1000);
    PluginEvent gone;
    gone.name = test::PathText(m_dir / "gone.exe");
    gone.digestFill = 0x55;
    uint32_t status = 0;
    EXPECT_EQ(Run(gone, &status).action, AC_DECISION_BLOCK);
    EXPECT_EQ(status, AC_BLOCKED);
    EXPECT_EQ(ItemCount(), 0) << "a file with no times is not approved by them";

    AddItem(1, 1, AC_SOURCE_SCANNED, 1, "a.exe", "c:\\apps");
    AddItem(2, 1, AC_SOURCE_SCANNED, 1, "a.exe", "c:\\apps\\");
    AddItem(3, 1, AC_SOURCE_APPROVED_DRIFT, 1, "a.exe", "");
    AddItem(4, 1, AC_SOURCE_SCANNED, 1, "a.exe", "c:");
    PluginEvent remove;
    remove.type = AC_OP_DELETE;
    for (const char16_t* name : {u"c:\\apps\\a.exe", u"a.exe"}) {
        remove.name = name;
        const AppCtlResult result = Run(remove, &status);
        ExpectDecision(result, status, "delete");
    }
    EXPECT_EQ(Probe().Lines("SELECT path FROM InventoryItems"), Lines{"c:"});
}

// A store that cannot be trusted: the engine refuses to start, or it starts
// and answers every call with a status. Nothing crashes or hangs either way.
TEST_F(BadInput, DamagedStoreIsRefusedOrAnsweredWithStatuses) {
    const auto file = m_dir / "ac.db", good = m_dir / "good.db";
    const EngineStartParams params = test::StartParams(&m_dbPath);
    // Enough rows for the damage to hit pages past the first.
    ASSERT_TRUE(Probe().Exec("WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 3000) "
                             "INSERT INTO InventoryItems(fileName, path, sha256, source) "
                             "SELECT 'f' || i || '.exe', 'c:\\apps', randomblob(32), 2 FROM n"));
    engine_stop();
    std::filesystem::copy_file(file, good);

    const auto size = std::filesystem::file_size(good);
    const std::pair<const char*, std::function<void()>> damages[] = {
        {"header", [&] { test::WriteFile(file, std::string(100, 'x') + test::ReadFile(good).substr(100)); }},
        {"truncated", [&] { std::filesystem::resize_file(file, size / 2); }},
        {"torn pages",
         [&] {
             std::string bytes = test::ReadFile(good);
             for (size_t i = 4096; i < bytes.size(); i += 3) bytes[i] = static_cast<char>(0xA5);
             test::WriteFile(file, bytes);
         }},
    };
    const std::u16string payload = test::PathText(m_dir / "page.json");
    for (const auto& [what, damage] : damages) {
        test::WriteFile(file, test::ReadFile(good));
        damage();
        const uint32_t started = engine_start(&params);
        EXPECT_TRUE(started == AC_OK || started == AC_E_DB_OPEN) << what;
        if (started == AC_OK) {
            PluginEvent event;
            event.name = u"c:\\apps\\f1.exe";
            event.digestFill = 0xAA;
            uint32_t status = 0;
            const AppCtlResult result = Run(event, &status);
            ExpectDecision(result, status, what);
            const std::u16string x = u"x";
            InventoryItemRecord item{};
            item.fileName = item.path = item.fullPath = item.ruleset = Host(x);
            for (const uint32_t answer :
                 {store_item(&item, 0), Import(0, R"({"rules":[{"fileName":"n.exe"}]})", u"items"),
                  get_inventory(0, 5000, 0, Host(payload), Host(u"scan"))}) {
                EXPECT_TRUE(answer == AC_OK || answer == AC_E_FAILED) << what;
            }
        }
        engine_stop();
        // A refused start may leave the connection open: close it, or the
        // next start could not name its file again.
        ZorvDAL::Instance().Shutdown();
    }
    test::WriteFile(file, test::ReadFile(good));
    EXPECT_EQ(engine_start(&params), AC_OK) << "the undamaged file opens again";
}

}  // namespace
}  // namespace zorv

// An agent loads the library at run time and resolves what it needs by name;
// the cJSON API must come from the same library, and nothing else may leak.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <set>
#include <string>
#include <thread>

#include "LoadedLibrary.h"
#include "zorv/zorv.h"

// The library's own type, by name only: calls through pointers of exactly the
// exported functions' types (UBSan's function check compares them).
struct cJSON;

namespace {

using zorv::abi::LoadedLibrary;
using Text = std::basic_string<ZorvChar>;

constexpr std::array<const char*, 13> kExports = {
    "app_ctl",     "engine_start",    "engine_stop", "set_config", "set_loglevel",
    "set_ruleset", "set_ruleset_buffer", "store_item", "get_inventory", "get_metrics_mem",
    "purge_db",    "delete_db",       "flush_db_buffer"};

// cJSON's public functions, forwarded or exported with the engine's.
constexpr size_t kCJsonExports = 78;

Text Widen(const std::string& text) { return Text(text.begin(), text.end()); }

}  // namespace

TEST(DynamicLoad, ResolvesEveryExportAndCallsThem) {
    LoadedLibrary library;
    ASSERT_TRUE(library.Loaded()) << library.Error();
    for (const char* name : kExports) EXPECT_NE(library.Symbol<void (*)()>(name), nullptr) << name;

    auto stop = library.Symbol<uint32_t (*)()>("engine_stop");
    auto act = library.Symbol<uint32_t (*)(void*, const AppCtlEvent*, AppCtlResult*)>("app_ctl");
    ASSERT_NE(stop, nullptr);
    ASSERT_NE(act, nullptr);
    EXPECT_EQ(stop(), AC_OK);
    AppCtlResult result{};
    EXPECT_EQ(act(nullptr, nullptr, &result), AC_E_NULL_EVENT);
}

TEST(DynamicLoad, TheCJsonApiWorksThroughTheLibrary) {
    LoadedLibrary library;
    ASSERT_TRUE(library.Loaded()) << library.Error();
    auto parse = library.Symbol<cJSON* (*)(const char*)>("cJSON_Parse");
    auto getItem = library.Symbol<cJSON* (*)(const cJSON*, const char*)>("cJSON_GetObjectItem");
    auto getNumber = library.Symbol<double (*)(const cJSON*)>("cJSON_GetNumberValue");
    auto print = library.Symbol<char* (*)(const cJSON*)>("cJSON_PrintUnformatted");
    auto destroy = library.Symbol<void (*)(cJSON*)>("cJSON_Delete");
    auto release = library.Symbol<void (*)(void*)>("cJSON_free");
    ASSERT_TRUE(parse && getItem && getNumber && print && destroy && release);

    cJSON* root = parse("{\"size\": 42, \"name\": \"a\"}");
    ASSERT_NE(root, nullptr);
    EXPECT_EQ(getNumber(getItem(root, "size")), 42.0);
    char* text = print(root);
    ASSERT_NE(text, nullptr);
    EXPECT_STREQ(text, "{\"size\":42,\"name\":\"a\"}");
    release(text);
    destroy(root);
    EXPECT_EQ(parse("{broken"), nullptr);
}

TEST(DynamicLoad, ExportsExactlyTheEngineAndTheCJsonApi) {
    const std::set<std::string> names = zorv::abi::ExportedNames();
    if (names.empty()) GTEST_SKIP() << "the system cannot list the library's exports";
    for (const char* name : kExports) EXPECT_EQ(names.count(name), 1u) << name;
    for (const std::string& name : names) {
        const bool engine = std::find_if(kExports.begin(), kExports.end(),
                                         [&](const char* e) { return name == e; }) != kExports.end();
        EXPECT_TRUE(engine || name.rfind("cJSON_", 0) == 0) << "unexpected export " << name;
    }
    EXPECT_EQ(names.count("cJSON_Parse"), 1u);
    EXPECT_EQ(names.size(), kExports.size() + kCJsonExports);
}

namespace {

std::atomic<bool> g_exiting{false};
void Exiting() { g_exiting = true; }
// The host's callback: any line after exit began is reported.
void LateLine(uint32_t, uint32_t, const ZorvChar*, const ZorvChar*, const ZorvChar*, uint32_t) {
    if (g_exiting) std::fputs("late log callback\n", stdout);
}

constexpr char kChildStore[] = "ZORV_EXIT_CHILD_DB";

}  // namespace

// The child half of the tests below: start, leave a row buffered, and exit
// without engine_stop; with `busy`, while two threads decide events and store
// items.
void ExitWithoutStop(bool busy) {
    const char* dbFile = std::getenv(kChildStore);
    if (dbFile == nullptr || *dbFile == '\0') GTEST_SKIP() << "run by the tests below";
    LoadedLibrary library;
    ASSERT_TRUE(library.Loaded()) << library.Error();
    auto start = library.Symbol<uint32_t (*)(const EngineStartParams*)>("engine_start");
    auto store = library.Symbol<uint32_t (*)(const InventoryItemRecord*, uint8_t)>("store_item");
    auto act = library.Symbol<uint32_t (*)(void*, const AppCtlEvent*, AppCtlResult*)>("app_ctl");
    ASSERT_TRUE(start && store && act);
    const Text dbPath = Widen(dbFile);
    EngineStartParams params{};
    params.dbPath = dbPath.c_str();
    params.logLevel = 0xF;
    params.logCallback = LateLine;
    ASSERT_EQ(start(&params), AC_OK);
    const Text name = Widen("a.exe"), path = Widen("/opt/"), full = Widen("/opt/a.exe"), ruleset;
    InventoryItemRecord item{};
    item.source = 3;
    item.fileName = name.c_str();
    item.path = path.c_str();
    item.fullPath = full.c_str();
    item.ruleset = ruleset.c_str();
    ASSERT_EQ(store(&item, 1), AC_OK);
    if (busy) {
        std::atomic<int> started{0};
        for (int thread = 0; thread < 2; ++thread) {
            std::thread([&started, act, store, item] {
                const Text user = Widen("u"), process = Widen("/bin/sh");
                unsigned char digest[32] = {};
                for (uint64_t i = 0;; ++i) {
                    const Text target = Widen("/opt/p" + std::to_string(i % 1000) + ".exe");
                    digest[0] = static_cast<unsigned char>(i);
                    AppCtlEvent event{};
                    event.type = AC_OP_PROCESS_CREATE;
                    event.pid = 100 + i;
                    event.isExec = 1;
                    event.size = 10;
                    event.name = target.c_str();
                    event.processName = process.c_str();
                    event.user = user.c_str();
                    event.fileSha256 = digest;
                    AppCtlResult result{};
                    act(nullptr, &event, &result);
                    store(&item, static_cast<uint8_t>(i % 2));
                    if (i == 0) ++started;
                }
            }).detach();
        }
        while (started < 2) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    // Registered after the library's own exit-time work, so it runs first.
    std::atexit(Exiting);
    std::fflush(stdout);
    // The library stays loaded: its teardown runs as the process exits.
    std::exit(0);
}

TEST(DynamicLoad, ExitChild) { ExitWithoutStop(false); }
TEST(DynamicLoad, ExitBusyChild) { ExitWithoutStop(true); }

// A host that exits without stopping the engine hears nothing from it once
// exit has begun: the library's exit-time teardown must not call the host.
TEST(DynamicLoad, ExitWithoutStopMakesNoCallback) {
    const zorv::abi::TempFolder folder;
    std::string output;
    const int status = zorv::abi::RunSelf("DynamicLoad.ExitChild", kChildStore, folder.File("ac.db"), output);
    EXPECT_EQ(status, 0) << output;
    EXPECT_EQ(output.find("late log callback"), std::string::npos) << output;
}

// A host that exits while its event threads are inside the library: Windows
// ends them first, whatever they hold (the writer's lock, SQLite's mutexes),
// and the library's teardown must not wait on any of it.
TEST(DynamicLoad, ExitWhileCallsRunDoesNotHang) {
    if (!zorv::abi::ThreadsEndBeforeTeardown()) GTEST_SKIP() << "threads run on through exit here; a host stops them";
    const zorv::abi::TempFolder folder;
    std::string output;
    const int status = zorv::abi::RunSelf("DynamicLoad.ExitBusyChild", kChildStore, folder.File("ac.db"), output);
    EXPECT_EQ(status, 0) << output;
}

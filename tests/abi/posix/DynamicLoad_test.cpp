// An agent loads the library at run time and resolves what it needs by name;
// the cJSON API must come from the same library, and nothing else may leak.
#include <cjson/cJSON.h>
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <array>
#include <cstdio>
#include <set>
#include <string>

#include "zorv/zorv.h"

namespace {

constexpr std::array<const char*, 13> kExports = {
    "app_ctl",     "engine_start",    "engine_stop", "set_config", "set_loglevel",
    "set_ruleset", "set_ruleset_buffer", "store_item", "get_inventory", "get_metrics_mem",
    "purge_db",    "delete_db",       "flush_db_buffer"};

struct Library {
    void* handle = dlopen(ZORV_LIBRARY_FILE, RTLD_NOW | RTLD_LOCAL);
    ~Library() {
        if (handle != nullptr) dlclose(handle);
    }
};

// The defined dynamic symbols of the library, as `nm -D --defined-only` lists them.
std::set<std::string> DefinedDynamicSymbols() {
    std::set<std::string> names;
    std::string command = std::string("nm -D --defined-only '") + ZORV_LIBRARY_FILE + "' 2>/dev/null";
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) return names;
    char line[512];
    while (fgets(line, sizeof line, pipe) != nullptr) {
        char type = 0;
        char name[400] = {};
        if (sscanf(line, "%*s %c %399s", &type, name) == 2 && (type == 'T' || type == 'D' || type == 'B')) {
            std::string symbol(name);
            symbol = symbol.substr(0, symbol.find('@'));
            names.insert(symbol);
        }
    }
    pclose(pipe);
    return names;
}

}  // namespace

TEST(DynamicLoad, ResolvesEveryExportAndCallsThem) {
    Library library;
    ASSERT_NE(library.handle, nullptr) << dlerror();
    for (const char* name : kExports) EXPECT_NE(dlsym(library.handle, name), nullptr) << name;

    auto stop = reinterpret_cast<uint32_t (*)()>(dlsym(library.handle, "engine_stop"));
    auto act = reinterpret_cast<uint32_t (*)(void*, const AppCtlEvent*, AppCtlResult*)>(
        dlsym(library.handle, "app_ctl"));
    ASSERT_NE(stop, nullptr);
    ASSERT_NE(act, nullptr);
    EXPECT_EQ(stop(), AC_OK);
    AppCtlResult result{};
    EXPECT_EQ(act(nullptr, nullptr, &result), AC_E_NULL_EVENT);
}

TEST(DynamicLoad, TheCJsonApiForwardsToTheDependency) {
    Library library;
    ASSERT_NE(library.handle, nullptr) << dlerror();
    // The exact types: a call through a pointer of another function type is
    // undefined, and UBSan's function check reports it.
    using Parse = decltype(&cJSON_Parse);
    using GetItem = decltype(&cJSON_GetObjectItem);
    using GetNumber = decltype(&cJSON_GetNumberValue);
    using Print = decltype(&cJSON_PrintUnformatted);
    using Delete = decltype(&cJSON_Delete);
    using Free = decltype(&cJSON_free);
    auto parse = reinterpret_cast<Parse>(dlsym(library.handle, "cJSON_Parse"));
    auto getItem = reinterpret_cast<GetItem>(dlsym(library.handle, "cJSON_GetObjectItem"));
    auto getNumber = reinterpret_cast<GetNumber>(dlsym(library.handle, "cJSON_GetNumberValue"));
    auto print = reinterpret_cast<Print>(dlsym(library.handle, "cJSON_PrintUnformatted"));
    auto destroy = reinterpret_cast<Delete>(dlsym(library.handle, "cJSON_Delete"));
    auto release = reinterpret_cast<Free>(dlsym(library.handle, "cJSON_free"));
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
    const std::set<std::string> names = DefinedDynamicSymbols();
    if (names.empty()) GTEST_SKIP() << "nm is not available to list the dynamic symbols";
    for (const char* name : kExports) EXPECT_EQ(names.count(name), 1u) << name;
    for (const std::string& name : names) {
        const bool engine = std::find_if(kExports.begin(), kExports.end(),
                                         [&](const char* e) { return name == e; }) != kExports.end();
        // The version node is an ABS symbol, which nm does not list as T/D/B.
        EXPECT_TRUE(engine || name.rfind("cJSON_", 0) == 0) << "unexpected export " << name;
    }
    EXPECT_EQ(names.count("cJSON_Parse"), 1u);
    EXPECT_GE(names.size(), kExports.size() + 70);
}

namespace {

std::atomic<bool> g_exiting{false};
void Exiting() { g_exiting = true; }
// The host's callback: any line after exit began is reported.
void LateLine(uint32_t, uint32_t, const ZorvChar*, const ZorvChar*, const ZorvChar*, uint32_t) {
    if (g_exiting) std::fputs("late log callback\n", stdout);
}

}  // namespace

// The child half of the test below: start, leave a row buffered, and exit
// without engine_stop.
TEST(DynamicLoad, ExitChild) {
    const char* dbFile = std::getenv("ZORV_EXIT_CHILD_DB");
    if (dbFile == nullptr) GTEST_SKIP() << "run by ExitWithoutStopMakesNoCallback";
    Library library;
    ASSERT_NE(library.handle, nullptr) << dlerror();
    auto start = reinterpret_cast<uint32_t (*)(const EngineStartParams*)>(dlsym(library.handle, "engine_start"));
    auto store =
        reinterpret_cast<uint32_t (*)(const InventoryItemRecord*, uint8_t)>(dlsym(library.handle, "store_item"));
    ASSERT_TRUE(start && store);
    const std::string file(dbFile);
    const std::u16string dbPath(file.begin(), file.end());
    EngineStartParams params{};
    params.dbPath = dbPath.c_str();
    params.logLevel = 0xF;
    params.logCallback = LateLine;
    ASSERT_EQ(start(&params), AC_OK);
    const std::u16string name = u"a.exe", path = u"/opt/", full = u"/opt/a.exe", ruleset = u"";
    InventoryItemRecord item{};
    item.source = 3;
    item.fileName = name.c_str();
    item.path = path.c_str();
    item.fullPath = full.c_str();
    item.ruleset = ruleset.c_str();
    ASSERT_EQ(store(&item, 1), AC_OK);
    // Registered after the library's own exit-time work, so it runs first.
    std::atexit(Exiting);
    std::fflush(stdout);
    std::exit(0);
}

// A host that exits without stopping the engine hears nothing from it once
// exit has begun: the library's exit-time teardown must not call the host.
TEST(DynamicLoad, ExitWithoutStopMakesNoCallback) {
    char folder[] = "/tmp/zorv-exit-XXXXXX";
    ASSERT_NE(mkdtemp(folder), nullptr);
    const std::string file = std::string(folder) + "/ac.db";
    // The test binary itself, by its real name (the shell's /proc/self is the shell).
    char self[4096] = {};
    const ssize_t length = readlink("/proc/self/exe", self, sizeof self - 1);
    ASSERT_GT(length, 0);
    const std::string run = "ZORV_EXIT_CHILD_DB='" + file + "' timeout 60 '" + std::string(self) +
                            "' --gtest_filter=DynamicLoad.ExitChild 2>&1";
    FILE* pipe = popen(run.c_str(), "r");
    ASSERT_NE(pipe, nullptr);
    std::string output;
    char buffer[4096];
    size_t n = 0;
    while ((n = fread(buffer, 1, sizeof buffer, pipe)) > 0) output.append(buffer, n);
    const int status = pclose(pipe);
    EXPECT_EQ(status, 0) << output;
    EXPECT_EQ(output.find("late log callback"), std::string::npos) << output;
    EXPECT_EQ(std::system(("rm -rf '" + std::string(folder) + "'").c_str()), 0);
}

// An agent loads zorv.dll at run time and resolves what it needs by name; the
// cJSON API must come from the same DLL, and nothing else may be exported.
#include <windows.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <array>
#include <set>
#include <string>

#include "zorv/zorv.h"

namespace {

constexpr std::array<const char*, 13> kExports = {
    "app_ctl",     "engine_start",    "engine_stop", "set_config", "set_loglevel",
    "set_ruleset", "set_ruleset_buffer", "store_item", "get_inventory", "get_metrics_mem",
    "purge_db",    "delete_db",       "flush_db_buffer"};

// zorv.dll sits beside the test executable.
std::wstring LibraryPath() {
    wchar_t path[MAX_PATH] = {};
    DWORD length = GetModuleFileNameW(nullptr, path, MAX_PATH);
    std::wstring folder(path, length);
    folder.resize(folder.find_last_of(L"\\/") + 1);
    return folder + L"zorv.dll";
}

struct Library {
    HMODULE handle = LoadLibraryW(LibraryPath().c_str());
    ~Library() {
        if (handle != nullptr) FreeLibrary(handle);
    }
};

// Every name in the module's export directory.
std::set<std::string> ExportedNames(HMODULE module) {
    std::set<std::string> names;
    auto base = reinterpret_cast<const unsigned char*>(module);
    auto dos = reinterpret_cast<const IMAGE_DOS_HEADER*>(base);
    auto nt = reinterpret_cast<const IMAGE_NT_HEADERS64*>(base + dos->e_lfanew);
    const IMAGE_DATA_DIRECTORY& entry = nt->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_EXPORT];
    if (entry.VirtualAddress == 0) return names;
    auto directory = reinterpret_cast<const IMAGE_EXPORT_DIRECTORY*>(base + entry.VirtualAddress);
    auto nameOffsets = reinterpret_cast<const DWORD*>(base + directory->AddressOfNames);
    for (DWORD i = 0; i < directory->NumberOfNames; ++i)
        names.insert(reinterpret_cast<const char*>(base + nameOffsets[i]));
    return names;
}

}  // namespace

TEST(DynamicLoad, ResolvesEveryExportAndCallsThem) {
    Library library;
    ASSERT_NE(library.handle, nullptr) << "LoadLibraryW failed: " << GetLastError();
    for (const char* name : kExports) EXPECT_NE(GetProcAddress(library.handle, name), nullptr) << name;

    auto stop = reinterpret_cast<uint32_t (*)()>(GetProcAddress(library.handle, "engine_stop"));
    auto act = reinterpret_cast<uint32_t (*)(void*, const AppCtlEvent*, AppCtlResult*)>(
        GetProcAddress(library.handle, "app_ctl"));
    ASSERT_NE(stop, nullptr);
    ASSERT_NE(act, nullptr);
    EXPECT_EQ(stop(), AC_OK);
    AppCtlResult result{};
    EXPECT_EQ(act(nullptr, nullptr, &result), AC_E_NULL_EVENT);
}

TEST(DynamicLoad, TheCJsonApiIsExportedAndWorks) {
    Library library;
    ASSERT_NE(library.handle, nullptr) << "LoadLibraryW failed: " << GetLastError();
    using Parse = void* (*)(const char*);
    using GetItem = void* (*)(const void*, const char*);
    using GetNumber = double (*)(const void*);
    using Print = char* (*)(const void*);
    using Delete = void (*)(void*);
    using Free = void (*)(void*);
    auto parse = reinterpret_cast<Parse>(GetProcAddress(library.handle, "cJSON_Parse"));
    auto getItem = reinterpret_cast<GetItem>(GetProcAddress(library.handle, "cJSON_GetObjectItem"));
    auto getNumber = reinterpret_cast<GetNumber>(GetProcAddress(library.handle, "cJSON_GetNumberValue"));
    auto print = reinterpret_cast<Print>(GetProcAddress(library.handle, "cJSON_PrintUnformatted"));
    auto destroy = reinterpret_cast<Delete>(GetProcAddress(library.handle, "cJSON_Delete"));
    auto release = reinterpret_cast<Free>(GetProcAddress(library.handle, "cJSON_free"));
    ASSERT_TRUE(parse && getItem && getNumber && print && destroy && release);

    void* root = parse("{\"size\": 42, \"name\": \"a\"}");
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
    Library library;
    ASSERT_NE(library.handle, nullptr);
    const std::set<std::string> names = ExportedNames(library.handle);
    for (const char* name : kExports) EXPECT_EQ(names.count(name), 1u) << name;
    for (const std::string& name : names) {
        const bool engine = std::find_if(kExports.begin(), kExports.end(),
                                         [&](const char* e) { return name == e; }) != kExports.end();
        EXPECT_TRUE(engine || name.rfind("cJSON_", 0) == 0) << "unexpected export " << name;
    }
    EXPECT_EQ(names.count("cJSON_Parse"), 1u);
    EXPECT_EQ(names.size(), kExports.size() + 78);
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
    ASSERT_NE(library.handle, nullptr) << "LoadLibraryW failed: " << GetLastError();
    auto start =
        reinterpret_cast<uint32_t (*)(const EngineStartParams*)>(GetProcAddress(library.handle, "engine_start"));
    auto store = reinterpret_cast<uint32_t (*)(const InventoryItemRecord*, uint8_t)>(
        GetProcAddress(library.handle, "store_item"));
    ASSERT_TRUE(start && store);
    const std::string file(dbFile);
    const std::wstring dbPath(file.begin(), file.end());
    EngineStartParams params{};
    params.dbPath = dbPath.c_str();
    params.logLevel = 0xF;
    params.logCallback = LateLine;
    ASSERT_EQ(start(&params), AC_OK);
    const std::wstring name = L"a.exe", path = L"c:\\opt\\", full = L"c:\\opt\\a.exe", ruleset = L"";
    InventoryItemRecord item{};
    item.source = 3;
    item.fileName = name.c_str();
    item.path = path.c_str();
    item.fullPath = full.c_str();
    item.ruleset = ruleset.c_str();
    ASSERT_EQ(store(&item, 1), AC_OK);
    std::atexit(Exiting);
    std::fflush(stdout);
    // The library is still loaded: its teardown runs when the process detaches it.
    library.handle = nullptr;
    std::exit(0);
}

// A host that exits without stopping the engine hears nothing from it once
// exit has begun: the library's exit-time teardown must not call the host.
TEST(DynamicLoad, ExitWithoutStopMakesNoCallback) {
    char temp[MAX_PATH] = {};
    ASSERT_GT(GetTempPathA(MAX_PATH, temp), 0u);
    const std::string folder = std::string(temp) + "zorv-exit-" + std::to_string(GetCurrentProcessId());
    CreateDirectoryA(folder.c_str(), nullptr);
    const std::string file = folder + "\\ac.db";
    ASSERT_EQ(_putenv_s("ZORV_EXIT_CHILD_DB", file.c_str()), 0);
    char self[MAX_PATH] = {};
    ASSERT_GT(GetModuleFileNameA(nullptr, self, MAX_PATH), 0u);
    const std::string run = "\"\"" + std::string(self) + "\" --gtest_filter=DynamicLoad.ExitChild 2>&1\"";
    FILE* pipe = _popen(run.c_str(), "r");
    ASSERT_NE(pipe, nullptr);
    std::string output;
    char buffer[4096];
    size_t n = 0;
    while ((n = fread(buffer, 1, sizeof buffer, pipe)) > 0) output.append(buffer, n);
    const int status = _pclose(pipe);
    _putenv_s("ZORV_EXIT_CHILD_DB", "");
    EXPECT_EQ(status, 0) << output;
    EXPECT_EQ(output.find("late log callback"), std::string::npos) << output;
    for (const char* suffix : {"", "-wal", "-shm"}) DeleteFileA((file + suffix).c_str());
    RemoveDirectoryA(folder.c_str());
}

// zorv: the operators' command-line host for the engine.
//
//   zorv demo [FOLDER]   start the engine on FOLDER/ac.db (default ./zorv-demo),
//                        send a few events, print each answer and the log.
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>
#include <system_error>

#include "zorv/zorv.h"

namespace {

namespace fs = std::filesystem;

std::string Narrow(const ZorvChar* text, size_t length) {
    try {
        const std::u16string wide(reinterpret_cast<const char16_t*>(text), length);
        const std::u8string utf8 = fs::path(wide).u8string();
        return std::string(utf8.begin(), utf8.end());
    } catch (const std::exception&) {
        return "<text not printable>";
    }
}

std::string Narrow(const ZorvChar* text) {
    size_t length = 0;
    while (text != nullptr && text[length] != 0) ++length;
    return Narrow(text, length);
}

const char* LevelName(uint32_t level) {
    switch (level) {
        case AC_LOG_INFO: return "INFO";
        case AC_LOG_WARNING: return "WARNING";
        case AC_LOG_ERROR: return "ERROR";
        case AC_LOG_TRACE: return "TRACE";
        default: return "UNKNOWN";
    }
}

void PrintLogLine(uint32_t level, uint32_t /*line*/, const ZorvChar* function, const ZorvChar* /*sourcePath*/,
                  const ZorvChar* message, uint32_t length) {
    std::printf("  log %-7s %s: %s\n", LevelName(level), Narrow(function).c_str(), Narrow(message, length).c_str());
}

const char* StatusName(uint32_t status) {
    switch (status) {
        case AC_OK: return "AC_OK";
        case AC_BLOCKED: return "AC_BLOCKED";
        case AC_E_FAILED: return "AC_E_FAILED";
        case AC_E_NOT_STARTED: return "AC_E_NOT_STARTED";
        case AC_E_INVALID_ARG: return "AC_E_INVALID_ARG";
        case AC_E_DB_OPEN: return "AC_E_DB_OPEN";
        case AC_E_LOGGER: return "AC_E_LOGGER";
        case AC_E_NO_ENGINE: return "AC_E_NO_ENGINE";
        case AC_E_NULL_EVENT: return "AC_E_NULL_EVENT";
        case AC_E_BUFFER_TOO_SMALL: return "AC_E_BUFFER_TOO_SMALL";
        default: return "other";
    }
}

const char* DecisionName(uint32_t action) {
    switch (action) {
        case AC_DECISION_IGNORED: return "ignored";
        case AC_DECISION_ERROR: return "error";
        case AC_DECISION_ALLOW: return "allow";
        case AC_DECISION_BLOCK: return "block";
        default: return "none";
    }
}

struct DemoEvent {
    const char* what;
    uint32_t type;
    uint64_t mode;
    uint8_t isExec;
    uint8_t dirty;
    const char16_t* name;
};

int Demo(const fs::path& folder) {
    std::error_code error;
    fs::create_directories(folder, error);
    if (error) {
        std::fprintf(stderr, "zorv demo: cannot create %s: %s\n", folder.string().c_str(), error.message().c_str());
        return 1;
    }
    const std::u16string dbPath = (folder / "ac.db").u16string();

    EngineStartParams params{};
    params.dbPath = reinterpret_cast<const ZorvChar*>(dbPath.c_str());
    params.logLevel = AC_LOG_INFO | AC_LOG_WARNING | AC_LOG_ERROR | AC_LOG_TRACE;
    params.logCallback = &PrintLogLine;

    std::printf("engine_start(%s)\n", (folder / "ac.db").string().c_str());
    uint32_t status = engine_start(&params);
    std::printf("-> %s\n", StatusName(status));
    if (status != AC_OK) return 1;

    std::printf("set_config(LOCKDOWN)\n");
    std::printf("-> %s\n", StatusName(set_config(AC_CONFIG_LOCKDOWN, ~0ull, ~0ull)));

    static const uint8_t kSha256[32] = {0x9f, 0x86, 0xd0, 0x81, 0x88, 0x4c, 0x7d, 0x65, 0x9a, 0x2f, 0xea,
                                        0xa0, 0xc5, 0x5a, 0xd0, 0x15, 0xa3, 0xbf, 0x4f, 0x1b, 0x2b, 0x0b,
                                        0x82, 0x2c, 0xd1, 0x5d, 0x6c, 0x15, 0xb0, 0xf0, 0x0a, 0x08};
    const DemoEvent events[] = {
        {"process start", AC_OP_PROCESS_CREATE, 0, 1, 0, u"C:\\Program Files\\Tools\\tool.exe"},
        {"executable mapping", AC_OP_SECTION_MAP, 5, 1, 0, u"C:\\Program Files\\Tools\\helper.dll"},
        {"file changed", AC_OP_CHANGE_42, 0, 1, 1, u"C:\\Users\\alice\\Downloads\\setup.exe"},
        {"cache check", AC_OP_CACHE_CHECK, 0, 1, 0, u"C:\\Program Files\\Tools\\tool.exe"},
    };
    for (const DemoEvent& demo : events) {
        AppCtlEvent event{};
        event.pid = 4242;
        event.type = demo.type;
        event.mode = demo.mode;
        event.isExec = demo.isExec;
        event.dirty = demo.dirty;
        event.processName = reinterpret_cast<const ZorvChar*>(u"C:\\Windows\\explorer.exe");
        event.name = reinterpret_cast<const ZorvChar*>(demo.name);
        event.user = reinterpret_cast<const ZorvChar*>(u"alice");
        event.fileSha256 = kSha256;
        AppCtlResult result{};
        std::printf("app_ctl(%s: %s)\n", demo.what, Narrow(event.name).c_str());
        status = app_ctl(nullptr, &event, &result);
        std::printf("-> %s, decision %u (%s), reason %u, event type %u, db verdict %u\n", StatusName(status),
                    result.action, DecisionName(result.action), result.isAuthorized, result.eventType,
                    result.dbVerdict);
    }

    uint32_t size = 0;
    std::printf("get_metrics_mem(size query)\n");
    status = get_metrics_mem(nullptr, &size);
    std::printf("-> %s, size %u\n", StatusName(status), size);

    std::printf("engine_stop()\n");
    std::printf("-> %s\n", StatusName(engine_stop()));
    return 0;
}

void Usage() {
    std::fprintf(stderr,
                 "usage: zorv demo [FOLDER]\n"
                 "  demo   start the engine on FOLDER/ac.db (default ./zorv-demo), send a few\n"
                 "         events and print each answer and the engine's log\n");
}

}  // namespace

int main(int argc, char** argv) {
    if (argc >= 2 && std::strcmp(argv[1], "demo") == 0 && argc <= 3) {
        return Demo(argc == 3 ? fs::path(argv[2]) : fs::path("zorv-demo"));
    }
    Usage();
    return 2;
}

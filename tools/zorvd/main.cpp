// zorvd [--config FILE] [--foreground]: the Linux host of the engine. It
// never forks: systemd (Type=notify) or the shell supervises it.
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "Config.h"
#include "Daemon.h"
#include "Log.h"

namespace {

void Usage(FILE* out) {
    std::fprintf(out,
                 "usage: zorvd [--config FILE] [--foreground]\n"
                 "  --config FILE  settings (default /etc/zorv/zorvd.toml; a missing default file means defaults)\n"
                 "  --foreground   log to standard error whatever \"log\" says\n"
                 "Signals: SIGHUP reloads the settings, SIGTERM stops after answering every waiting event.\n");
}

}  // namespace

int main(int argc, char** argv) {
    std::string configPath = "/etc/zorv/zorvd.toml";
    bool explicitConfig = false;
    bool foreground = false;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--config") == 0 && i + 1 < argc) {
            configPath = argv[++i];
            explicitConfig = true;
        } else if (std::strcmp(argv[i], "--foreground") == 0) {
            foreground = true;
        } else if (std::strcmp(argv[i], "--help") == 0) {
            Usage(stdout);
            return 0;
        } else {
            std::fprintf(stderr, "zorvd: unknown argument '%s'\n", argv[i]);
            Usage(stderr);
            return 2;
        }
    }
    zorvd::Config config;
    std::string error;
    if (!zorvd::LoadConfig(configPath, !explicitConfig, config, error)) {
        std::fprintf(stderr, "zorvd: %s\n", error.c_str());
        return 2;
    }
    if (foreground) config.log = "stderr";
    if (!zorvd::OpenLog(config.log, error)) {
        std::fprintf(stderr, "zorvd: log: %s\n", error.c_str());
        return 2;
    }
    if (geteuid() != 0) {
        std::fprintf(stderr, "zorvd: must run as root (fanotify permission events)\n");
        return 1;
    }
    int status;
    {
        zorvd::Daemon daemon(config, configPath);
        status = daemon.Run();
    }
    zorvd::FlushLog(std::chrono::seconds(2));
    return status;
}

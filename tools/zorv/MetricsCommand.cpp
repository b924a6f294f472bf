// zorv metrics [--json | --prometheus]
#include <iostream>

#include "Commands.h"
#include "HostFiles.h"
#include "MetricsRender.h"

namespace zorv::cli {

namespace {
struct MetricsOptions {
    bool prometheus = false;
};
}  // namespace

CommandRun DefineMetrics(CLI::App& command, const CommonOptions& common) {
    auto options = std::make_shared<MetricsOptions>();
    command.add_flag("--prometheus", options->prometheus,
                     "Prometheus text format (node_exporter's textfile collector)");
    return [options, &common]() {
        if (options->prometheus && common.json) {
            PrintError("metrics", "--json and --prometheus exclude each other");
            return int(kExitUsage);
        }
        std::string json, daemon;
        host::EngineSession engine;
        if (!common.socket.empty()) {
            if (!MetricsViaDaemon(common, json, daemon)) return int(kExitError);
        } else if (!OpenEngine(common, engine)) {
            return int(kExitError);
        } else if (const uint32_t status = host::FetchMetrics(json); status != AC_OK) {
            PrintError("get_metrics_mem", host::StatusName(status));
            return int(kExitError);
        }
        if (common.json) {
            std::cout << json << "\n";
            return int(kExitOk);
        }
        std::string text, error;
        // Through a daemon, its own figures follow the engine's.
        const bool ok = options->prometheus ? host::RenderPrometheus(json, text, error) &&
                                                  (daemon.empty() || host::RenderDaemonPrometheus(daemon, text, error))
                                            : host::RenderMetricsTables(json, text, error);
        if (!ok) {
            PrintError("metrics document", error);
            return int(kExitError);
        }
        if (options->prometheus) host::SetBinaryStdout();
        std::cout << text << std::flush;
        return int(kExitOk);
    };
}

}  // namespace zorv::cli

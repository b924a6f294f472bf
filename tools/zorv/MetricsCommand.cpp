// zorv metrics [--json | --prometheus]
#include <iostream>

#include "Commands.h"
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
        host::EngineSession engine;
        if (!OpenEngine(common, engine)) return int(kExitError);
        std::string json;
        const uint32_t status = host::FetchMetrics(json);
        if (status != AC_OK) {
            PrintError("get_metrics_mem", host::StatusName(status));
            return int(kExitError);
        }
        if (common.json) {
            std::cout << json << "\n";
            return int(kExitOk);
        }
        std::string text, error;
        const bool ok = options->prometheus ? host::RenderPrometheus(json, text, error)
                                            : host::RenderMetricsTables(json, text, error);
        if (!ok) {
            PrintError("metrics document", error);
            return int(kExitError);
        }
        std::cout << text;
        return int(kExitOk);
    };
}

}  // namespace zorv::cli

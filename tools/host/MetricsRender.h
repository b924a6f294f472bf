// The metrics document (get_metrics_mem) rendered for people and for
// Prometheus. Members are rendered by their JSON shape, so counters and
// sections the engine adds later appear without changes here. Pure
// functions; thread-safe.
#pragma once

#include <string>

namespace zorv::host {

// Readable tables: counters, then one section per object member of
// "metrics" (nested objects flattened as a.b), arrays as column tables.
// False with `error` when the text is not a metrics document.
bool RenderMetricsTables(const std::string& json, std::string& out, std::string& error);

// The Prometheus text exposition format (node_exporter's textfile
// collector reads it): names zorv_..., each family with HELP and TYPE.
bool RenderPrometheus(const std::string& json, std::string& out, std::string& error);

// zorvd's own figures (its status answer) in the same format, names zorvd_...:
// answers by kind (deadline, overflow and error answers among them), events
// by kind, the queue, the decision latency, dropped log lines. Appended to
// `out`; false with `error` when the text is not a status answer.
bool RenderDaemonPrometheus(const std::string& status, std::string& out, std::string& error);

}  // namespace zorv::host

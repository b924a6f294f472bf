#include "MetricsRender.h"

#include <cjson/cJSON.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <map>
#include <memory>
#include <string_view>
#include <tuple>
#include <vector>

#include "HostText.h"

namespace zorv::host {

namespace {

struct JsonDeleter {
    void operator()(cJSON* json) const { cJSON_Delete(json); }
};
using JsonPtr = std::unique_ptr<cJSON, JsonDeleter>;

const cJSON* MetricsOf(const JsonPtr& root, std::string& error) {
    const cJSON* metrics = root ? cJSON_GetObjectItemCaseSensitive(root.get(), "metrics") : nullptr;
    if (!cJSON_IsObject(metrics)) {
        error = root ? "no \"metrics\" object" : "not valid JSON";
        return nullptr;
    }
    return metrics;
}

std::string NumberText(double value) {
    char text[64];
    if (value == std::floor(value) && std::fabs(value) < 1e18)
        std::snprintf(text, sizeof text, "%.0f", value);
    else
        std::snprintf(text, sizeof text, "%.17g", value);
    return text;
}

std::string ScalarText(const cJSON* item) {
    if (cJSON_IsNumber(item)) return NumberText(item->valuedouble);
    if (cJSON_IsBool(item)) return cJSON_IsTrue(item) ? "true" : "false";
    // Ruleset names and rule texts come from the documents imported.
    if (cJSON_IsString(item)) return Printable(item->valuestring);
    if (cJSON_IsNull(item)) return "null";
    return "";
}

// Titles for the sections people read most; any other member keeps its key.
const char* SectionTitle(std::string_view key) {
    if (key == "dbinfo") return "Database";
    if (key == "AllowCache") return "Allow cache";
    if (key == "rulesets") return "Rule elements read by the last import of each ruleset";
    if (key == "TrustRuleHitCounts") return "Trust-rule hits";
    if (key == "trustrules_stats") return "Trust rules with hits";
    if (key == "InventoryUnknownExtensons") return "Unknown extensions in inventory items";
    if (key == "DriftUnknownExtensions") return "Unknown extensions in drift";
    return nullptr;
}

using Rows = std::vector<std::pair<std::string, std::string>>;

void Flatten(const cJSON* object, const std::string& prefix, Rows& rows) {
    for (const cJSON* item = object->child; item != nullptr; item = item->next) {
        const std::string key = Printable(prefix.empty() ? item->string : prefix + "." + item->string);
        if (cJSON_IsObject(item))
            Flatten(item, key, rows);
        else if (cJSON_IsArray(item))
            rows.emplace_back(key, std::to_string(cJSON_GetArraySize(item)) + " entries");
        else
            rows.emplace_back(key, ScalarText(item));
    }
}

void AppendRows(std::string& out, const std::string& title, const Rows& rows) {
    out += "\n" + title + "\n";
    if (rows.empty()) {
        out += "  (none)\n";
        return;
    }
    size_t width = 0;
    for (const auto& row : rows) width = std::max(width, row.first.size());
    for (const auto& row : rows) {
        out += "  " + row.first + std::string(width - row.first.size() + 2, ' ');
        out += row.second + "\n";
    }
}

void AppendColumnTable(std::string& out, const std::string& title, const cJSON* array) {
    out += "\n" + title + "\n";
    std::vector<std::string> columns;
    std::vector<std::map<std::string, std::string>> rows;
    for (const cJSON* element = array->child; element != nullptr; element = element->next) {
        Rows flat;
        if (cJSON_IsObject(element))
            Flatten(element, "", flat);
        else
            flat.emplace_back("value", ScalarText(element));
        std::map<std::string, std::string> row;
        for (auto& [key, value] : flat) {
            if (std::find(columns.begin(), columns.end(), key) == columns.end()) columns.push_back(key);
            row[key] = value;
        }
        rows.push_back(std::move(row));
    }
    if (rows.empty()) {
        out += "  (none)\n";
        return;
    }
    std::vector<size_t> widths;
    for (const std::string& column : columns) {
        size_t width = column.size();
        for (auto& row : rows) width = std::max(width, row[column].size());
        widths.push_back(width);
    }
    auto appendLine = [&](auto cell) {
        out += " ";
        for (size_t i = 0; i < columns.size(); ++i) {
            const std::string text = cell(i);
            out += " " + text + std::string(widths[i] - text.size(), ' ');
        }
        while (!out.empty() && out.back() == ' ') out.pop_back();
        out += "\n";
    };
    appendLine([&](size_t i) { return columns[i]; });
    for (auto& row : rows) appendLine([&](size_t i) { return row[columns[i]]; });
}

}  // namespace

bool RenderMetricsTables(const std::string& json, std::string& out, std::string& error) {
    const JsonPtr root(cJSON_Parse(json.c_str()));
    const cJSON* metrics = MetricsOf(root, error);
    if (metrics == nullptr) return false;
    const cJSON* version = cJSON_GetObjectItemCaseSensitive(metrics, "ACVersion");
    out = "Engine version " + (cJSON_IsString(version) ? std::string(version->valuestring) : "unknown") + "\n";
    Rows counters;
    for (const cJSON* item = metrics->child; item != nullptr; item = item->next) {
        if (item->string == std::string_view("ACVersion")) continue;
        if (!cJSON_IsObject(item) && !cJSON_IsArray(item))
            counters.emplace_back(Printable(item->string), ScalarText(item));
    }
    AppendRows(out, "Counters", counters);
    // People look for the store first, then the cache, then the rest in the
    // document's order.
    static const char* const kFirst[] = {"dbinfo", "AllowCache"};
    std::vector<const cJSON*> sections;
    for (const char* key : kFirst) {
        const cJSON* item = cJSON_GetObjectItemCaseSensitive(metrics, key);
        if (item != nullptr && (cJSON_IsObject(item) || cJSON_IsArray(item))) sections.push_back(item);
    }
    for (const cJSON* item = metrics->child; item != nullptr; item = item->next) {
        if ((cJSON_IsObject(item) || cJSON_IsArray(item)) &&
            std::find(sections.begin(), sections.end(), item) == sections.end())
            sections.push_back(item);
    }
    for (const cJSON* item : sections) {
        const char* known = SectionTitle(item->string);
        const std::string title = known ? std::string(known) + " (" + item->string + ")" : std::string(item->string);
        if (cJSON_IsArray(item)) {
            AppendColumnTable(out, title, item);
        } else {
            Rows rows;
            Flatten(item, "", rows);
            AppendRows(out, title, rows);
        }
    }
    return true;
}

namespace {

// camelCase and anything outside [a-z0-9] become snake_case.
std::string SnakeName(std::string_view text) {
    std::string out;
    for (size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        const bool upper = c >= 'A' && c <= 'Z';
        const bool alnum = upper || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9');
        if (upper && i > 0) {
            const char previous = text[i - 1];
            const bool nextLower = i + 1 < text.size() && text[i + 1] >= 'a' && text[i + 1] <= 'z';
            if ((previous >= 'a' && previous <= 'z') || (previous >= '0' && previous <= '9') ||
                ((previous >= 'A' && previous <= 'Z') && nextLower))
                out.push_back('_');
        }
        if (alnum)
            out.push_back(upper ? static_cast<char>(c - 'A' + 'a') : c);
        else if (!out.empty() && out.back() != '_')
            out.push_back('_');
    }
    while (!out.empty() && out.back() == '_') out.pop_back();
    if (out.empty() || (out[0] >= '0' && out[0] <= '9')) out.insert(0, "m_");
    return out;
}

std::string LabelValue(std::string_view text) {
    std::string out;
    for (const char c : text) {
        if (c == '\\') out += "\\\\";
        else if (c == '"') out += "\\\"";
        else if (c == '\n') out += "\\n";
        else out.push_back(c);
    }
    return out;
}

double NumericValue(const cJSON* item, bool& ok) {
    ok = true;
    if (cJSON_IsNumber(item)) return item->valuedouble;
    if (cJSON_IsBool(item)) return cJSON_IsTrue(item) ? 1 : 0;
    ok = false;
    return 0;
}

// Families keep their samples together, as the format requires; the map
// keeps the order in which families were first met.
struct Family {
    std::string help;
    std::string type;
    std::vector<std::string> samples;
};
struct Exposition {
    std::vector<std::string> order;
    std::map<std::string, Family> families;
    void Add(const std::string& name, const char* type, const std::string& help, const std::string& labels,
             double value) {
        auto [entry, added] = families.try_emplace(name);
        if (added) {
            order.push_back(name);
            entry->second.help = help;
            entry->second.type = type;
        }
        entry->second.samples.push_back(name + (labels.empty() ? "" : "{" + labels + "}") + " " +
                                        NumberText(value));
    }
    void AppendTo(std::string& out) const {
        for (const std::string& name : order) {
            const Family& family = families.at(name);
            out += "# HELP " + name + " " + family.help + "\n";
            out += "# TYPE " + name + " " + family.type + "\n";
            for (const std::string& sample : family.samples) out += sample + "\n";
        }
    }
};

struct KeyedObject {
    const char* key;
    const char* family;
    const char* type;
    const char* label;
    const char* help;
};
constexpr KeyedObject kKeyedObjects[] = {
    {"InventoryUnknownExtensons", "zorv_inventory_unknown_extension_total", "counter", "extension",
     "Inventory items stored with an extension no interpreter table knows, by extension."},
    {"DriftUnknownExtensions", "zorv_drift_unknown_extension_total", "counter", "extension",
     "Drift events on files with an extension no interpreter table knows, by extension."},
    {"TrustRuleHitCounts", "zorv_trust_rule_hits_total", "counter", "rule",
     "Matches of each trust rule since the engine started."},
    {"rulesets", "zorv_ruleset_rules", "gauge", "ruleset", "Rule elements read by the last import of each ruleset."},
};

void AddObject(Exposition& out, const std::string& prefix, const std::string& source, const cJSON* object) {
    for (const cJSON* item = object->child; item != nullptr; item = item->next) {
        const std::string name = prefix + "_" + SnakeName(item->string);
        if (cJSON_IsObject(item)) {
            for (const cJSON* entry = item->child; entry != nullptr; entry = entry->next) {
                bool ok = false;
                const double value = NumericValue(entry, ok);
                if (ok)
                    out.Add(name, "gauge", source + "." + item->string + " from the metrics document, by key.",
                            "key=\"" + LabelValue(entry->string) + "\"", value);
            }
            continue;
        }
        bool ok = false;
        const double value = NumericValue(item, ok);
        if (ok) out.Add(name, "gauge", source + "." + item->string + " from the metrics document.", "", value);
    }
}

void AddArray(Exposition& out, const std::string& prefix, const std::string& source, const cJSON* array) {
    int index = 0;
    for (const cJSON* element = array->child; element != nullptr; element = element->next, ++index) {
        if (!cJSON_IsObject(element)) continue;
        // Members named like an id identify the element; without one its
        // position does, so samples never collide.
        std::string labels;
        for (const cJSON* item = element->child; item != nullptr; item = item->next) {
            const std::string_view key = item->string;
            if (cJSON_IsNumber(item) && key.size() >= 2 && key.substr(key.size() - 2) == "Id")
                labels += (labels.empty() ? "" : ",") + SnakeName(key) + "=\"" + NumberText(item->valuedouble) + "\"";
        }
        if (labels.empty()) labels = "index=\"" + std::to_string(index) + "\"";
        for (const cJSON* item = element->child; item != nullptr; item = item->next) {
            const std::string_view key = item->string;
            if (key.size() >= 2 && key.substr(key.size() - 2) == "Id") continue;
            bool ok = false;
            const double value = NumericValue(item, ok);
            if (ok)
                out.Add(prefix + "_" + SnakeName(key), "gauge",
                        source + "[]." + std::string(key) + " from the metrics document.", labels, value);
        }
    }
}

}  // namespace

bool RenderPrometheus(const std::string& json, std::string& out, std::string& error) {
    const JsonPtr root(cJSON_Parse(json.c_str()));
    const cJSON* metrics = MetricsOf(root, error);
    if (metrics == nullptr) return false;
    Exposition exposition;
    const cJSON* version = cJSON_GetObjectItemCaseSensitive(metrics, "ACVersion");
    if (cJSON_IsString(version))
        exposition.Add("zorv_engine_info", "gauge", "The engine's version.",
                       "version=\"" + LabelValue(version->valuestring) + "\"", 1);
    for (const cJSON* item = metrics->child; item != nullptr; item = item->next) {
        const std::string key = item->string;
        bool ok = false;
        const double value = NumericValue(item, ok);
        if (ok) {
            exposition.Add("zorv_events_total", "counter", "The engine's named counters since it was loaded.",
                           "counter=\"" + LabelValue(key) + "\"", value);
            continue;
        }
        const KeyedObject* keyed = nullptr;
        for (const KeyedObject& candidate : kKeyedObjects)
            if (key == candidate.key) keyed = &candidate;
        if (keyed != nullptr && cJSON_IsObject(item)) {
            for (const cJSON* entry = item->child; entry != nullptr; entry = entry->next) {
                const double count = NumericValue(entry, ok);
                if (ok)
                    exposition.Add(keyed->family, keyed->type, keyed->help,
                                   std::string(keyed->label) + "=\"" + LabelValue(entry->string) + "\"", count);
            }
        } else if (cJSON_IsObject(item)) {
            AddObject(exposition, "zorv_" + SnakeName(key), key, item);
        } else if (cJSON_IsArray(item)) {
            AddArray(exposition, "zorv_" + SnakeName(key), key, item);
        }
    }
    out.clear();
    exposition.AppendTo(out);
    return true;
}

bool RenderDaemonPrometheus(const std::string& status, std::string& out, std::string& error) {
    const JsonPtr root(cJSON_Parse(status.c_str()));
    if (!cJSON_IsObject(root.get()) || !cJSON_IsString(cJSON_GetObjectItemCaseSensitive(root.get(), "mode"))) {
        error = root ? "not a zorvd status" : "not valid JSON";
        return false;
    }
    const cJSON* s = root.get();
    Exposition exposition;
    struct Figure {
        const char* key;
        const char* family;
        const char* type;
        const char* help;
    };
    static constexpr Figure kFigures[] = {
        {"allowed", "zorvd_allowed_total", "counter", "Permission events answered allow."},
        {"denied", "zorvd_denied_total", "counter", "Permission events answered deny."},
        {"deadline_answers", "zorvd_deadline_answers_total", "counter",
         "Permission events the watchdog answered at the deadline, without a decision."},
        {"overflow_answers", "zorvd_overflow_answers_total", "counter",
         "Permission events answered without the engine because the queue was full."},
        {"error_answers", "zorvd_error_answers_total", "counter",
         "Permission events answered with on_error because the engine could not decide."},
        {"kernel_overflows", "zorvd_kernel_overflows_total", "counter", "Overflows of the kernel's event queues."},
        {"own_accesses", "zorvd_own_accesses_total", "counter", "The daemon's own file accesses, let through."},
        {"allow_cache_answers", "zorvd_allow_cache_answers_total", "counter",
         "Runs allowed by the engine's allow cache without a rule-store lookup."},
        {"log_lines_dropped", "zorvd_log_lines_dropped_total", "counter",
         "Log lines dropped because the log did not keep up."},
        {"queue_depth", "zorvd_queue_depth", "gauge", "Permission events waiting for a worker."},
        {"digest_cache_entries", "zorvd_digest_cache_entries", "gauge", "Files whose digests are cached."},
        {"uptime_s", "zorvd_uptime_seconds", "gauge", "Seconds since the daemon started."},
        {"maintenance", "zorvd_maintenance", "gauge", "1 while a maintenance window is open."},
    };
    for (const Figure& figure : kFigures) {
        bool ok = false;
        const double value = NumericValue(cJSON_GetObjectItemCaseSensitive(s, figure.key), ok);
        if (ok) exposition.Add(figure.family, figure.type, figure.help, "", value);
    }
    exposition.Add("zorvd_enforcing", "gauge", "1 under enforce, 0 under log-only.", "",
                   std::string_view(cJSON_GetObjectItemCaseSensitive(s, "mode")->valuestring) == "enforce" ? 1 : 0);
    for (const auto& [key, family, help] :
         {std::tuple{"watched", "zorvd_watched_filesystems", "Filesystems watched."},
          std::tuple{"exposures", "zorvd_exposures",
                     "Ways to run a program that no watch sees on this machine (zorv status names them)."}}) {
        const cJSON* list = cJSON_GetObjectItemCaseSensitive(s, key);
        if (cJSON_IsArray(list)) exposition.Add(family, "gauge", help, "", cJSON_GetArraySize(list));
    }
    const cJSON* events = cJSON_GetObjectItemCaseSensitive(s, "events");
    for (const cJSON* kind = cJSON_IsObject(events) ? events->child : nullptr; kind != nullptr; kind = kind->next)
        if (cJSON_IsNumber(kind))
            exposition.Add("zorvd_events_total", "counter", "Events read from the kernel, by kind.",
                           "kind=\"" + LabelValue(kind->string) + "\"", kind->valuedouble);
    const cJSON* latency = cJSON_GetObjectItemCaseSensitive(s, "latency_us");
    for (const auto& [key, quantile] : {std::pair{"p50", "0.5"}, std::pair{"p90", "0.9"}, std::pair{"p99", "0.99"},
                                        std::pair{"p999", "0.999"}, std::pair{"max", "1"}}) {
        const cJSON* value = cJSON_GetObjectItemCaseSensitive(latency, key);
        if (cJSON_IsNumber(value))
            exposition.Add("zorvd_decision_latency_microseconds", "gauge",
                           "Time from reading a permission event to answering it, by quantile (1: the longest).",
                           std::string("quantile=\"") + quantile + "\"", value->valuedouble);
    }
    exposition.AppendTo(out);
    return true;
}

}  // namespace zorv::host

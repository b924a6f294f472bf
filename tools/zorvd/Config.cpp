#include "Config.h"

#include <sys/stat.h>

#include <toml++/toml.h>

namespace zorvd {
namespace {

bool ReadStrings(const toml::table& table, const char* key, std::vector<std::string>& out, std::string& error) {
    const toml::node* node = table.get(key);
    if (node == nullptr) return true;
    const toml::array* array = node->as_array();
    if (array == nullptr) {
        error = std::string("\"") + key + "\" must be a list of strings";
        return false;
    }
    out.clear();
    for (const toml::node& element : *array) {
        const auto text = element.value<std::string>();
        if (!text) {
            error = std::string("\"") + key + "\" must be a list of strings";
            return false;
        }
        out.push_back(*text);
    }
    return true;
}

bool ReadAnswer(const toml::table& table, const char* key, Answer& out, bool* set, std::string& error) {
    const toml::node* node = table.get(key);
    if (node == nullptr) return true;
    const auto text = node->value<std::string>();
    if (!text || (*text != "allow" && *text != "deny")) {
        error = std::string("\"") + key + "\" must be \"allow\" or \"deny\"";
        return false;
    }
    out = *text == "allow" ? Answer::Allow : Answer::Deny;
    if (set != nullptr) *set = true;
    return true;
}

bool ReadCount(const toml::table& table, const char* key, uint32_t low, uint32_t high, uint32_t& out,
               std::string& error) {
    const toml::node* node = table.get(key);
    if (node == nullptr) return true;
    const auto value = node->value<int64_t>();
    if (!value || *value < low || *value > high) {
        error = std::string("\"") + key + "\" must be a number from " + std::to_string(low) + " to " +
                std::to_string(high);
        return false;
    }
    out = static_cast<uint32_t>(*value);
    return true;
}

bool ReadText(const toml::table& table, const char* key, std::string& out, std::string& error) {
    const toml::node* node = table.get(key);
    if (node == nullptr) return true;
    const auto text = node->value<std::string>();
    if (!text || text->empty()) {
        error = std::string("\"") + key + "\" must be a non-empty string";
        return false;
    }
    out = *text;
    return true;
}

}  // namespace

bool LoadConfig(const std::string& path, bool missingIsDefault, Config& out, std::string& error) {
    Config config;
    struct stat status {};
    if (stat(path.c_str(), &status) != 0) {
        if (missingIsDefault) {
            out = config;
            return true;
        }
        error = path + ": no such file";
        return false;
    }
    toml::table table;
    try {
        table = toml::parse_file(path);
    } catch (const toml::parse_error& failure) {
        error = path + ":" + std::to_string(failure.source().begin.line) + ": " + std::string(failure.description());
        return false;
    }
    static const char* const kKnown[] = {"mode", "store", "socket", "watch", "ignore", "control",
                                         "deadline_ms", "on_deadline", "on_error", "workers",
                                         "digest_cache_entries", "queue_entries", "log", "log_level",
                                         "trust_rules"};
    for (const auto& [key, value] : table) {
        bool known = false;
        for (const char* name : kKnown) known = known || key.str() == name;
        if (!known) {
            error = path + ": unknown key \"" + std::string(key.str()) + "\"";
            return false;
        }
    }
    std::string mode = "log-only";
    std::vector<std::string> control{"exec", "scripts", "libraries"};
    const bool good = ReadText(table, "mode", mode, error) && ReadText(table, "store", config.store, error) &&
                      ReadText(table, "socket", config.socket, error) &&
                      ReadStrings(table, "watch", config.watch, error) &&
                      ReadStrings(table, "ignore", config.ignore, error) &&
                      ReadStrings(table, "control", control, error) &&
                      ReadCount(table, "deadline_ms", 10, 60000, config.deadlineMs, error) &&
                      ReadAnswer(table, "on_deadline", config.onDeadline, nullptr, error) &&
                      ReadAnswer(table, "on_error", config.onError, &config.onErrorSet, error) &&
                      ReadCount(table, "workers", 1, 256, config.workers, error) &&
                      ReadCount(table, "digest_cache_entries", 16, 16u << 20, config.digestCacheEntries, error) &&
                      ReadCount(table, "queue_entries", 1, 1u << 20, config.queueEntries, error) &&
                      ReadText(table, "log", config.log, error) && ReadText(table, "log_level", config.logLevel, error) &&
                      ReadText(table, "trust_rules", config.trustRules, error);
    if (!good) {
        error = path + ": " + error;
        return false;
    }
    if (mode != "enforce" && mode != "log-only") {
        error = path + ": \"mode\" must be \"enforce\" or \"log-only\"";
        return false;
    }
    config.enforce = mode == "enforce";
    config.scripts = config.libraries = false;
    bool exec = false;
    for (const std::string& item : control) {
        if (item == "exec") exec = true;
        else if (item == "scripts") config.scripts = true;
        else if (item == "libraries") config.libraries = true;
        else {
            error = path + ": \"control\" holds \"" + item + "\"; known: \"exec\", \"scripts\", \"libraries\"";
            return false;
        }
    }
    if (!exec) {
        error = path + ": \"control\" must hold \"exec\": program starts are always controlled";
        return false;
    }
    if (config.logLevel != "error" && config.logLevel != "warning" && config.logLevel != "info" &&
        config.logLevel != "trace") {
        error = path + ": \"log_level\" must be \"error\", \"warning\", \"info\" or \"trace\"";
        return false;
    }
    out = config;
    return true;
}

}  // namespace zorvd

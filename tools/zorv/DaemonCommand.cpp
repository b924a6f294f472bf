// The commands that act on a running zorvd through its control socket
// (--socket PATH or $ZORV_SOCKET): status, mode, maintenance, ps; and the
// daemon paths of import and metrics, so that the live engine (and its
// caches) sees every change instead of a second engine opening the store.
#include <cjson/cJSON.h>

#include <cmath>
#include <iostream>
#include <memory>

#include "Commands.h"
#include "ControlClient.h"
#include "HostText.h"
#include "MetricsRender.h"

namespace zorv::cli {

namespace {

using Json = std::unique_ptr<cJSON, decltype(&cJSON_Delete)>;

// Sends one request; prints the daemon's refusal or failure and gives null.
Json Ask(const CommonOptions& common, const std::string& what, cJSON* request) {
    std::unique_ptr<char, decltype(&cJSON_free)> text(cJSON_PrintUnformatted(request), cJSON_free);
    cJSON_Delete(request);
    std::string reply, error;
    if (common.socket.empty()) {
        PrintError(what, "needs a running daemon: --socket PATH or $ZORV_SOCKET");
        return Json(nullptr, cJSON_Delete);
    }
    if (!text || !host::ControlRequest(common.socket, text.get(), reply, error)) {
        PrintError(common.socket, error);
        return Json(nullptr, cJSON_Delete);
    }
    Json answer(cJSON_Parse(reply.c_str()), cJSON_Delete);
    if (!cJSON_IsTrue(cJSON_GetObjectItemCaseSensitive(answer.get(), "ok"))) {
        const cJSON* reason = cJSON_GetObjectItemCaseSensitive(answer.get(), "error");
        PrintError(what, cJSON_IsString(reason) ? reason->valuestring : "the daemon's answer is not understood");
        return Json(nullptr, cJSON_Delete);
    }
    return answer;
}

cJSON* Command(const char* name) {
    cJSON* request = cJSON_CreateObject();
    cJSON_AddStringToObject(request, "command", name);
    return request;
}

double Number(const cJSON* object, const char* key) {
    const cJSON* value = cJSON_GetObjectItemCaseSensitive(object, key);
    return cJSON_IsNumber(value) ? value->valuedouble : 0;
}

void PrintJson(const cJSON* value) {
    std::unique_ptr<char, decltype(&cJSON_free)> text(cJSON_PrintUnformatted(value), cJSON_free);
    std::cout << (text ? text.get() : "null") << "\n";
}

// "90", "90s", "15m", "2h", "1d" in seconds; 0 when not a duration.
double ParseDuration(const std::string& text) {
    size_t used = 0;
    double value = 0;
    try {
        value = std::stod(text, &used);
    } catch (const std::exception&) {
        return 0;
    }
    const std::string unit = text.substr(used);
    const double scale = unit.empty() || unit == "s" ? 1 : unit == "m" ? 60 : unit == "h" ? 3600 : unit == "d" ? 86400 : 0;
    return value > 0 && std::isfinite(value) ? value * scale : 0;
}

}  // namespace

int ImportViaDaemon(const CommonOptions& common, const std::string& name, bool append, const std::string& text) {
    cJSON* request = Command("import");
    cJSON_AddStringToObject(request, "name", name.c_str());
    cJSON_AddBoolToObject(request, "append", append);
    cJSON_AddStringToObject(request, "ruleset", text.c_str());
    Json answer = Ask(common, "import", request);
    if (!answer) return kExitError;
    if (common.json) PrintJson(answer.get());
    else if (Speak(common)) std::cout << "Imported as \"" << name << "\" into the running daemon\n";
    return kExitOk;
}

bool MetricsViaDaemon(const CommonOptions& common, std::string& json, std::string& daemon) {
    Json answer = Ask(common, "metrics", Command("metrics"));
    const cJSON* metrics = answer ? cJSON_GetObjectItemCaseSensitive(answer.get(), "metrics") : nullptr;
    if (metrics == nullptr) return false;
    const auto print = [](const cJSON* item) {
        std::unique_ptr<char, decltype(&cJSON_free)> text(item ? cJSON_PrintUnformatted(item) : nullptr, cJSON_free);
        return text ? std::string(text.get()) : std::string();
    };
    json = print(metrics);
    daemon = print(cJSON_GetObjectItemCaseSensitive(answer.get(), "daemon"));
    return !json.empty();
}

CommandRun DefineStatus(CLI::App& command, const CommonOptions& common) {
    (void)command;
    return [&common]() {
        Json answer = Ask(common, "status", Command("status"));
        if (!answer) return int(kExitError);
        if (common.json) {
            PrintJson(answer.get());
            return int(kExitOk);
        }
        const cJSON* s = answer.get();
        std::cout << "mode         " << cJSON_GetObjectItemCaseSensitive(s, "mode")->valuestring
                  << (cJSON_IsTrue(cJSON_GetObjectItemCaseSensitive(s, "maintenance")) ? " (maintenance)" : "") << "\n";
        std::cout << "watched     ";
        const cJSON* watched = cJSON_GetObjectItemCaseSensitive(s, "watched");
        for (const cJSON* path = watched ? watched->child : nullptr; path != nullptr; path = path->next)
            std::cout << " " << path->valuestring;
        std::cout << "\nevents       total      per second\n";
        const cJSON* events = cJSON_GetObjectItemCaseSensitive(s, "events");
        const cJSON* rates = cJSON_GetObjectItemCaseSensitive(s, "events_per_second");
        for (const cJSON* kind = events ? events->child : nullptr; kind != nullptr; kind = kind->next) {
            char line[128];
            std::snprintf(line, sizeof line, "  %-9s %10.0f %12.1f\n", kind->string, kind->valuedouble,
                          Number(rates, kind->string));
            std::cout << line;
        }
        char line[256];
        std::snprintf(line, sizeof line,
                      "answers      allowed %.0f, denied %.0f, at the deadline %.0f, on overflow %.0f, on error %.0f\n"
                      "queue depth  %.0f\n"
                      "log          %.0f lines dropped\n",
                      Number(s, "allowed"), Number(s, "denied"), Number(s, "deadline_answers"),
                      Number(s, "overflow_answers"), Number(s, "error_answers"), Number(s, "queue_depth"),
                      Number(s, "log_lines_dropped"));
        std::cout << line;
        const cJSON* exposures = cJSON_GetObjectItemCaseSensitive(s, "exposures");
        for (const cJSON* exposure = exposures ? exposures->child : nullptr; exposure != nullptr; exposure = exposure->next)
            if (cJSON_IsString(exposure)) std::cout << "not enforced " << host::Printable(exposure->valuestring) << "\n";
        const cJSON* latency = cJSON_GetObjectItemCaseSensitive(s, "latency_us");
        std::snprintf(line, sizeof line, "latency µs   p50 %.0f  p90 %.0f  p99 %.0f  p99.9 %.0f  max %.0f\n",
                      Number(latency, "p50"), Number(latency, "p90"), Number(latency, "p99"), Number(latency, "p999"),
                      Number(latency, "max"));
        std::cout << line;
        return int(kExitOk);
    };
}

CommandRun DefineMode(CLI::App& command, const CommonOptions& common) {
    auto mode = std::make_shared<std::string>();
    command.add_option("mode", *mode, "enforce or log-only")->required()->check(CLI::IsMember({"enforce", "log-only"}));
    return [mode, &common]() {
        cJSON* request = Command("mode");
        cJSON_AddStringToObject(request, "mode", mode->c_str());
        Json answer = Ask(common, "mode", request);
        if (!answer) return int(kExitError);
        if (common.json) PrintJson(answer.get());
        else if (Speak(common)) std::cout << "mode " << *mode << "\n";
        return int(kExitOk);
    };
}

CommandRun DefineMaintenance(CLI::App& command, const CommonOptions& common) {
    auto duration = std::make_shared<std::string>();
    auto off = std::make_shared<bool>(false);
    auto* forOption = command.add_option("--for", *duration, "How long: 90, 90s, 15m, 2h or 1d");
    auto* offOption = command.add_flag("--off", *off, "End maintenance now");
    forOption->excludes(offOption);
    return [duration, off, &common]() {
        cJSON* request = Command("maintenance");
        if (*off) {
            cJSON_AddTrueToObject(request, "off");
        } else {
            const double seconds = ParseDuration(*duration);
            if (seconds <= 0) {
                cJSON_Delete(request);
                PrintError("maintenance", "give --for DURATION (e.g. 15m) or --off");
                return int(kExitUsage);
            }
            cJSON_AddNumberToObject(request, "for_s", seconds);
        }
        Json answer = Ask(common, "maintenance", request);
        if (!answer) return int(kExitError);
        if (common.json) PrintJson(answer.get());
        else if (Speak(common)) std::cout << (*off ? "maintenance off\n" : "maintenance on for " + *duration + "\n");
        return int(kExitOk);
    };
}

CommandRun DefinePs(CLI::App& command, const CommonOptions& common) {
    (void)command;
    return [&common]() {
        Json answer = Ask(common, "ps", Command("ps"));
        if (!answer) return int(kExitError);
        const cJSON* processes = cJSON_GetObjectItemCaseSensitive(answer.get(), "processes");
        if (common.json) {
            PrintJson(processes);
            return int(kExitOk);
        }
        std::cout << "     PID  VERDICT  USER      PROGRAM\n";
        for (const cJSON* p = processes ? processes->child : nullptr; p != nullptr; p = p->next) {
            char line[64];
            std::snprintf(line, sizeof line, "%8.0f  %-7s  ", Number(p, "pid"),
                          cJSON_GetObjectItemCaseSensitive(p, "verdict")->valuestring);
            // Program paths are whatever their owners named them.
            std::cout << line << host::Printable(cJSON_GetObjectItemCaseSensitive(p, "user")->valuestring) << "  "
                      << host::Printable(cJSON_GetObjectItemCaseSensitive(p, "program")->valuestring) << "\n";
        }
        return int(kExitOk);
    };
}

}  // namespace zorv::cli

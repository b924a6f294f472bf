// The Prometheus text exposition format as node_exporter's textfile
// collector reads it: every sample inside a family that HELP and TYPE
// announce once, names zorv_... or zorvd_..., labels quoted and escaped.
#pragma once

#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace zorv::testing {

// What in `text` breaks the format (nothing when it is well formed); counts
// the samples into `samples`.
inline std::vector<std::string> PrometheusProblems(const std::string& text, size_t& samples) {
    static const std::regex help(R"(# HELP (zorvd?_[a-z0-9_]+) [^\n]+)");
    static const std::regex type(R"(# TYPE (zorvd?_[a-z0-9_]+) (counter|gauge))");
    static const std::regex sample(
        R"((zorvd?_[a-z0-9_]+)(\{[a-z_][a-z0-9_]*="(\\.|[^"\\])*"(,[a-z_][a-z0-9_]*="(\\.|[^"\\])*")*\})? -?[0-9.e+]+)");
    std::vector<std::string> problems;
    std::set<std::string> helped, typed;
    std::string current;
    samples = 0;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        std::smatch match;
        if (std::regex_match(line, match, help)) {
            if (!helped.insert(match[1]).second) problems.push_back("HELP twice: " + line);
            current = match[1];
        } else if (std::regex_match(line, match, type)) {
            if (match[1] != current) problems.push_back("TYPE of another family: " + line);
            typed.insert(match[1]);
        } else if (std::regex_match(line, match, sample)) {
            if (match[1] != current) problems.push_back("sample outside its family: " + line);
            if (!typed.count(match[1])) problems.push_back("sample without a TYPE: " + line);
            ++samples;
        } else {
            problems.push_back("not exposition format: " + line);
        }
    }
    if (helped != typed) problems.push_back("a family with HELP but no TYPE, or the other way round");
    return problems;
}

}  // namespace zorv::testing

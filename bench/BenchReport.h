// The goal table each benchmark program prints after its runs: every engine
// figure beside the limit it is judged against, as a ratio of wall time and
// of CPU time. The machine the benchmarks run on is often shared, so a wall
// ratio alone may blame the engine for a neighbour's load; the CPU ratio
// shows what the engine itself spent.
//
// CPU time is measured per benchmark thread (RUSAGE_THREAD) and summed into
// the "cpu_s" counter by ThreadCpu, so it covers every thread of a threaded
// run. Programs without that counter fall back on the library's CPU column.
#pragma once

#include <benchmark/benchmark.h>
#include <sys/resource.h>

#include <cmath>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

namespace zorv::bench {

// Accumulates this thread's CPU time into the "cpu_s" counter; construct it
// just before the timed loop and call Stop() right after.
class ThreadCpu {
public:
    explicit ThreadCpu(benchmark::State& state) : m_state(state), m_start(Now()) {}
    void Stop() { m_state.counters["cpu_s"] = benchmark::Counter(Now() - m_start, benchmark::Counter::kDefaults); }

private:
    static double Now() {
        rusage usage{};
        getrusage(RUSAGE_THREAD, &usage);
        return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
               static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
    }
    benchmark::State& m_state;
    double m_start;
};

// One goal: `figure` divided by `limit` must not exceed `maxRatio` (or, for
// throughput goals, must reach `minRatio`). With neither bound the pair is only
// reported, with its difference per operation.
struct Goal {
    std::string text;
    std::string figure;
    std::string limit;
    double maxRatio = 0;    // time goals: figure / limit <= maxRatio
    double minRatio = 0;    // throughput goals: figure / limit >= minRatio
    // A bound on one counter of `figure` instead of a ratio (limit unused).
    std::string counter;
    double maxValue = 0;
};

class GoalReporter : public benchmark::ConsoleReporter {
public:
    struct Figure {
        double wallNs = 0;     // per iteration, as the library reports it
        double cpuNs = 0;      // CPU per operation, all threads together
        double perSecond = 0;  // operations per wall second
        double perCpuSecond = 0;
        int threads = 1;
        std::map<std::string, double> counters;
    };

    explicit GoalReporter(std::vector<Goal> goals) : ConsoleReporter(OO_Tabular), m_goals(std::move(goals)) {}

    void ReportRuns(const std::vector<Run>& runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& run : runs) {
            if (run.error_occurred || run.iterations == 0) continue;
            Figure figure;
            figure.threads = static_cast<int>(run.threads);
            const double seconds = 1.0 / benchmark::GetTimeUnitMultiplier(run.time_unit);
            figure.wallNs = run.GetAdjustedRealTime() * seconds * 1e9;
            figure.cpuNs = run.GetAdjustedCPUTime() * seconds * 1e9;
            const auto items = run.counters.find("items_per_second");
            figure.perSecond = items != run.counters.end() ? items->second.value : 1e9 / figure.wallNs;
            const auto cpu = run.counters.find("cpu_s");
            if (cpu != run.counters.end() && cpu->second.value > 0) {
                // Summed over threads, as the iterations are.
                figure.cpuNs = cpu->second.value * 1e9 / static_cast<double>(run.iterations);
                figure.perCpuSecond = static_cast<double>(run.iterations) / cpu->second.value;
            }
            if (figure.perCpuSecond == 0 && figure.cpuNs > 0) figure.perCpuSecond = 1e9 / figure.cpuNs;
            for (const auto& [name, counter] : run.counters) figure.counters[name] = counter.value;
            m_figures[run.benchmark_name()] = figure;
        }
    }

    const std::map<std::string, Figure>& Figures() const { return m_figures; }

    void PrintGoals() const {
        std::printf("\n%-58s %12s %12s %9s %9s %10s %8s  %s\n", "goal (figure / limit)", "figure", "limit", "wall",
                    "cpu", "cpu diff", "bound", "verdict");
        for (const Goal& goal : m_goals) {
            const auto f = Find(goal.figure);
            if (!goal.counter.empty()) {
                const auto c = f == m_figures.end() ? std::map<std::string, double>::const_iterator{}
                                                    : f->second.counters.find(goal.counter);
                if (f == m_figures.end() || c == f->second.counters.end()) {
                    std::printf("%-58s %s\n", goal.text.c_str(), "not run");
                } else {
                    std::printf("%-58s %12.0f %12.0f %9s %9s %10s %8s  %s\n", goal.text.c_str(), c->second,
                                goal.maxValue, "-", "-", "-", "<=", c->second <= goal.maxValue ? "met" : "MISSED");
                }
                continue;
            }
            const auto l = Find(goal.limit);
            if (f == m_figures.end() || l == m_figures.end()) {
                std::printf("%-58s %s\n", goal.text.c_str(), "not run");
                continue;
            }
            double wall = 0, cpu = 0;
            const bool throughput = goal.minRatio > 0 || (goal.maxRatio == 0 && f->second.perSecond > 0 &&
                                                          goal.figure.find("threads:2") != std::string::npos);
            std::string figureText, limitText;
            char buffer[64];
            if (throughput) {
                wall = f->second.perSecond / l->second.perSecond;
                // As if every thread had a core of its own: what the engine
                // spends per operation, scaled by its threads. Contention
                // (bouncing cache lines, spinning) raises the CPU per
                // operation and shows here; a busy machine does not.
                cpu = (f->second.threads * f->second.perCpuSecond) / (l->second.threads * l->second.perCpuSecond);
                std::snprintf(buffer, sizeof buffer, "%.0f/s", f->second.perSecond);
                figureText = buffer;
                std::snprintf(buffer, sizeof buffer, "%.0f/s", l->second.perSecond);
                limitText = buffer;
            } else {
                wall = f->second.wallNs / l->second.wallNs;
                cpu = f->second.cpuNs / l->second.cpuNs;
                figureText = Duration(f->second.wallNs);
                limitText = Duration(l->second.wallNs);
            }
            const bool reportOnly = goal.minRatio == 0 && goal.maxRatio == 0;
            const bool wallMet = goal.minRatio > 0 ? wall >= goal.minRatio : wall <= goal.maxRatio;
            const bool cpuMet = goal.minRatio > 0 ? cpu >= goal.minRatio : cpu <= goal.maxRatio;
            std::snprintf(buffer, sizeof buffer, "%s%.2f", goal.minRatio > 0 ? ">=" : "<=",
                          goal.minRatio > 0 ? goal.minRatio : goal.maxRatio);
            const std::string bound = reportOnly ? "-" : buffer;
            const double cpuDiff = f->second.cpuNs - l->second.cpuNs;
            const std::string diff = throughput ? "-" : (cpuDiff < 0 ? "-" : "+") + Duration(std::abs(cpuDiff));
            std::printf("%-58s %12s %12s %8.2fx %8.2fx %10s %8s  %s\n", goal.text.c_str(), figureText.c_str(),
                        limitText.c_str(), wall, cpu, diff.c_str(), bound.c_str(),
                        reportOnly ? "reported"
                        : wallMet && cpuMet ? "met"
                        : cpuMet            ? "met on CPU time, missed on wall time"
                                            : "MISSED");
        }
        std::fflush(stdout);
    }

private:
    static std::string Duration(double ns) {
        char text[32];
        if (ns >= 1e9) std::snprintf(text, sizeof text, "%.2f s", ns / 1e9);
        else if (ns >= 1e6) std::snprintf(text, sizeof text, "%.1f ms", ns / 1e6);
        else if (ns >= 1e4) std::snprintf(text, sizeof text, "%.1f us", ns / 1e3);
        else std::snprintf(text, sizeof text, "%.0f ns", ns);
        return text;
    }

    // The run named exactly, or else the one whose name continues it with '/'.
    std::map<std::string, Figure>::const_iterator Find(const std::string& name) const {
        const auto exact = m_figures.find(name);
        if (exact != m_figures.end()) return exact;
        const auto next = m_figures.lower_bound(name + "/");
        if (next != m_figures.end() && next->first.rfind(name + "/", 0) == 0) return next;
        return m_figures.end();
    }

    std::vector<Goal> m_goals;
    std::map<std::string, Figure> m_figures;
};

// The main of a program with goals: runs the benchmarks, then prints the table.
inline int RunWithGoals(int argc, char** argv, std::vector<Goal> goals) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    GoalReporter reporter(std::move(goals));
    benchmark::RunSpecifiedBenchmarks(&reporter);
    reporter.PrintGoals();
    return 0;
}

}  // namespace zorv::bench

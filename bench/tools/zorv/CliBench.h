// What the zorv benchmarks share: running the built zorv program with its
// own rusage (wall, CPU and peak memory of that child alone), the folder
// their generated data lives in (kept between runs), and the scale.
#pragma once

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "zorv/zorv.h"

extern char** environ;

namespace zorv::bench {

struct ChildRun {
    int status = -1;
    double seconds = 0;
    double cpuSeconds = 0;
    long peakKb = 0;
    // Proportional set size, sampled: a page mapped twice (the store by two
    // connections) counts once, where the kernel's peak counts it twice.
    long peakPssKb = 0;
};

inline long PssKb(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/smaps_rollup");
    for (std::string line; std::getline(in, line);)
        if (line.rfind("Pss:", 0) == 0) return std::atol(line.c_str() + 4);
    return 0;
}

// Runs zorv with `args`, standard output and error to /dev/null.
inline ChildRun RunZorv(const std::vector<std::string>& args) {
    std::vector<std::string> all = {ZORV_CLI_FILE};
    all.insert(all.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (std::string& arg : all) argv.push_back(arg.data());
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
    ChildRun run;
    const auto start = std::chrono::steady_clock::now();
    pid_t pid = 0;
    if (posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ) == 0) {
        // Sampled every 50 ms; the pidfd wakes the wait at the child's exit,
        // so the sampling adds nothing to the time measured.
        const int pidfd = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
        for (struct pollfd exited = {pidfd, POLLIN, 0}; pidfd >= 0 && poll(&exited, 1, 50) == 0;)
            run.peakPssKb = std::max(run.peakPssKb, PssKb(pid));
        if (pidfd >= 0) close(pidfd);
        int status = 0;
        rusage usage{};
        wait4(pid, &status, 0, &usage);
        run.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        run.cpuSeconds = usage.ru_utime.tv_sec + usage.ru_stime.tv_sec +
                         (usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
        run.peakKb = usage.ru_maxrss;
    }
    run.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    posix_spawn_file_actions_destroy(&actions);
    return run;
}

// This process's CPU time (all threads), for the bare limits.
inline double ProcessCpuSeconds() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_utime.tv_sec + usage.ru_stime.tv_sec + (usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

// $ZORV_BENCH_DIR, else a folder under the system's temporary folder; the
// generated trees and stores stay there for the next run.
inline std::filesystem::path BenchDir(const std::string& name) {
    const char* root = std::getenv("ZORV_BENCH_DIR");
    const std::filesystem::path folder =
        std::filesystem::path(root && *root ? root : std::filesystem::temp_directory_path() / "zorv-bench-cli") / name;
    std::filesystem::create_directories(folder);
    return folder;
}

// $ZORV_BENCH_SCALE (default 1) shrinks the generated data for small machines.
inline double Scale() {
    const char* text = std::getenv("ZORV_BENCH_SCALE");
    const double scale = text ? std::atof(text) : 1.0;
    return scale > 0 ? scale : 1.0;
}

// Start parameters as zorv uses them: the log goes to a callback that the
// level keeps silent. Without a callback the engine would write LogFile.log,
// which no host running for speed does.
inline void SilentLog(uint32_t, uint32_t, const ZorvChar*, const ZorvChar*, const ZorvChar*, uint32_t) {}
inline EngineStartParams QuietStartParams(const ZorvChar* dbPath) {
    EngineStartParams params{};
    params.dbPath = dbPath;
    params.logLevel = 0;
    params.logCallback = &SilentLog;
    return params;
}

// One child run as one benchmark iteration, with its CPU time and peak memory.
inline void ReportChild(benchmark::State& state, const ChildRun& run) {
    state.SetIterationTime(run.seconds);
    state.counters["cpu_s"] = run.cpuSeconds;
    state.counters["peak_MB"] = run.peakKb / 1024.0;
    state.counters["peak_pss_MB"] = run.peakPssKb / 1024.0;
    if (run.status != 0) state.SkipWithError(("zorv exited with " + std::to_string(run.status)).c_str());
}

}  // namespace zorv::bench

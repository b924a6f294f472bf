// zorvd's cost on real programs, each figure beside the same workload with
// no daemon in the same run: exec overhead (2,000 execs of a small
// inventoried program, first exec after a start and steady state), a
// file-heavy workload (20,000 files read by a fresh process per 100 files)
// and a stress run (10 workers writing and running programs and scripts).
// Root only; everything happens on a tmpfs of the benchmark's own, the only
// filesystem the daemon marks. ZORVD_BENCH_STRESS_S sets the stress length
// (default 60 s).
#include <fcntl.h>
#include <signal.h>
#include <sys/fanotify.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include <benchmark/benchmark.h>
#include <openssl/evp.h>

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

fs::path g_root, g_mount;
pid_t g_daemon = -1;

int Run(const std::vector<std::string>& argv, bool quiet = true) {
    const pid_t child = fork();
    if (child == 0) {
        std::vector<char*> args;
        for (const std::string& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
        args.push_back(nullptr);
        if (quiet) {
            const int devnull = open("/dev/null", O_WRONLY);
            dup2(devnull, 1);
            dup2(devnull, 2);
        }
        execv(args[0], args.data());
        _exit(errno == EPERM || errno == EACCES ? 126 : 127);
    }
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

std::string Socket() { return (g_root / "zorvd.sock").string(); }

std::string Request(const std::string& line) {
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    struct sockaddr_un address {};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, Socket().c_str(), sizeof address.sun_path - 1);
    struct timeval limit {10, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    std::string reply;
    if (connect(fd, reinterpret_cast<struct sockaddr*>(&address), sizeof address) == 0 &&
        send(fd, (line + "\n").data(), line.size() + 1, MSG_NOSIGNAL) > 0) {
        char chunk[4096];
        ssize_t got;
        while ((got = read(fd, chunk, sizeof chunk)) > 0) reply.append(chunk, static_cast<size_t>(got));
    }
    close(fd);
    return reply;
}

double StatusNumber(const std::string& key) {
    const std::string status = Request("{\"command\":\"status\"}");
    const size_t at = status.find("\"" + key + "\":");
    return at == std::string::npos ? -1 : std::atof(status.c_str() + at + key.size() + 3);
}

void StopDaemon() {
    if (g_daemon <= 0) return;
    kill(g_daemon, SIGTERM);
    const auto until = Clock::now() + std::chrono::seconds(10);
    int status = 0;
    while (waitpid(g_daemon, &status, WNOHANG) == 0) {
        if (Clock::now() > until) {
            kill(g_daemon, SIGKILL);
            waitpid(g_daemon, &status, 0);
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    g_daemon = -1;
}

// control: "" for no daemon, else the TOML list's contents.
bool StartDaemon(const std::string& control, const std::string& store = "ac.db") {
    StopDaemon();
    if (control.empty()) return true;
    std::ofstream(g_root / "zorvd.toml") << "mode = \"enforce\"\nstore = \"" << (g_root / store).string()
                                         << "\"\nsocket = \"" << Socket() << "\"\nwatch = [\"" << g_mount.string()
                                         << "\"]\nlog = \"" << (g_root / "zorvd.log").string() << "\"\ncontrol = ["
                                         << control << "]\ntrust_rules = \"" << (g_root / "trust.json").string()
                                         << "\"\n";
    g_daemon = fork();
    if (g_daemon == 0) {
        const std::string config = (g_root / "zorvd.toml").string();
        execl(ZORVD_PROGRAM, ZORVD_PROGRAM, "--config", config.c_str(), static_cast<char*>(nullptr));
        _exit(127);
    }
    const auto until = Clock::now() + std::chrono::seconds(15);
    while (Clock::now() < until) {
        if (Request("{\"command\":\"status\"}").find("\"ok\":true") != std::string::npos) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
}

double DaemonCpuSeconds() {
    if (g_daemon <= 0) return 0;
    std::ifstream in("/proc/" + std::to_string(g_daemon) + "/stat");
    std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    const size_t close = text.rfind(')');
    if (close == std::string::npos) return 0;
    std::vector<std::string> fields;
    size_t at = close + 2;
    while (at < text.size()) {
        const size_t end = text.find(' ', at);
        fields.push_back(text.substr(at, end - at));
        if (end == std::string::npos) break;
        at = end + 1;
    }
    // utime and stime are fields 14 and 15 of the line, 12 and 13 after the name.
    return fields.size() > 13 ? (std::atof(fields[11].c_str()) + std::atof(fields[12].c_str())) /
                                    static_cast<double>(sysconf(_SC_CLK_TCK))
                              : 0;
}

long DaemonRssKb() {
    std::ifstream in("/proc/" + std::to_string(g_daemon) + "/status");
    std::string line;
    while (std::getline(in, line))
        if (line.rfind("VmRSS:", 0) == 0) return std::atol(line.c_str() + 6);
    return -1;
}

double Percentile(std::vector<double> values, double fraction) {
    if (values.empty()) return 0;
    std::sort(values.begin(), values.end());
    return values[std::min(values.size() - 1, static_cast<size_t>(fraction * static_cast<double>(values.size())))];
}

// ---- Exec overhead ---------------------------------------------------------

void ExecOverhead(benchmark::State& state, std::string control) {
    const fs::path program = g_mount / "prog";
    if (!StartDaemon(control)) {
        state.SkipWithError("zorvd did not start");
        return;
    }
    // The first exec after a start: nothing cached yet (digests, store pages).
    std::vector<double> cold;
    for (int restart = 0; restart < 5; ++restart) {
        if (restart > 0 && !StartDaemon(control)) break;
        const auto started = Clock::now();
        if (Run({program}) != 0) state.SkipWithError("the inventoried program was refused");
        cold.push_back(std::chrono::duration<double, std::micro>(Clock::now() - started).count());
    }
    std::vector<double> warm;
    warm.reserve(2000);
    for (auto _ : state) {
        const auto started = Clock::now();
        if (Run({program}) != 0) state.SkipWithError("the inventoried program was refused");
        const double micros = std::chrono::duration<double, std::micro>(Clock::now() - started).count();
        warm.push_back(micros);
        state.SetIterationTime(micros / 1e6);
    }
    state.counters["cold_median_us"] = Percentile(cold, 0.5);
    state.counters["median_us"] = Percentile(warm, 0.5);
    state.counters["p99_us"] = Percentile(warm, 0.99);
    if (g_daemon > 0) state.counters["deadline_answers"] = StatusNumber("deadline_answers");
    StopDaemon();
}

// ---- File-heavy workload ---------------------------------------------------

void FileHeavy(benchmark::State& state, std::string control) {
    if (!StartDaemon(control)) {
        state.SkipWithError("zorvd did not start");
        return;
    }
    const double cpuBefore = DaemonCpuSeconds();
    for (auto _ : state) {
        const auto started = Clock::now();
        for (int directory = 0; directory < 200; ++directory) {
            std::vector<std::string> argv{"/usr/bin/cat"};
            for (int file = 0; file < 100; ++file)
                argv.push_back((g_mount / "tree" / std::to_string(directory) / std::to_string(file)).string());
            if (Run(argv) != 0) state.SkipWithError("cat failed");
        }
        state.SetIterationTime(std::chrono::duration<double>(Clock::now() - started).count());
    }
    state.counters["daemon_cpu_s"] = DaemonCpuSeconds() - cpuBefore;
    StopDaemon();
}

// ---- Stress ----------------------------------------------------------------

void Stress(benchmark::State& state) {
    const int seconds = std::getenv("ZORVD_BENCH_STRESS_S") ? std::atoi(std::getenv("ZORVD_BENCH_STRESS_S")) : 60;
    if (!StartDaemon("\"exec\", \"scripts\", \"libraries\"", "stress.db")) {
        state.SkipWithError("zorvd did not start");
        return;
    }
    std::atomic<long> runs{0}, falseDenials{0};
    std::vector<long> rss;
    for (auto _ : state) {
        const auto until = Clock::now() + std::chrono::seconds(seconds);
        std::vector<std::thread> workers;
        for (int worker = 0; worker < 10; ++worker) {
            workers.emplace_back([&, worker] {
                const fs::path home = g_mount / ("w" + std::to_string(worker));
                fs::create_directories(home);
                for (long round = 0; Clock::now() < until; ++round) {
                    const std::string variant = std::to_string(round % 16);
                    const std::string program = (home / ("p" + std::to_string(round % 4))).string();
                    const std::string script = (home / ("s" + std::to_string(round % 4) + ".sh")).string();
                    // cp is the trusted writer: written, then run at once.
                    Run({"/usr/bin/cp", (g_root / "templates" / ("p" + variant)).string(), program});
                    Run({"/usr/bin/cp", (g_root / "templates" / ("s" + variant + ".sh")).string(), script});
                    for (const std::vector<std::string>& argv :
                         {std::vector<std::string>{program}, {script}, {"/bin/bash", script}}) {
                        runs.fetch_add(1);
                        if (Run(argv) != 0) falseDenials.fetch_add(1);
                    }
                }
            });
        }
        for (int second = 0; second < seconds; second += 5) {
            std::this_thread::sleep_for(std::chrono::seconds(5));
            rss.push_back(DaemonRssKb());
        }
        for (std::thread& thread : workers) thread.join();
    }
    state.counters["runs"] = static_cast<double>(runs.load());
    state.counters["false_denials"] = static_cast<double>(falseDenials.load());
    state.counters["deadline_answers"] = StatusNumber("deadline_answers");
    state.counters["overflow_answers"] = StatusNumber("overflow_answers");
    state.counters["rss_kb_first"] = rss.size() > 1 ? static_cast<double>(rss[1]) : 0;  // after the warm-up
    state.counters["rss_kb_last"] = rss.empty() ? 0 : static_cast<double>(rss.back());
    state.counters["daemon_cpu_s"] = DaemonCpuSeconds();
    StopDaemon();
}

bool Prepare(std::string& reason) {
    if (geteuid() != 0) {
        reason = "needs root (fanotify permission events)";
        return false;
    }
    const int probe = fanotify_init(FAN_CLASS_CONTENT | FAN_CLOEXEC, O_RDONLY);
    if (probe < 0) {
        reason = std::string("fanotify permission events unavailable: ") + std::strerror(errno);
        return false;
    }
    close(probe);
    char pattern[] = "/tmp/zorvd-bench-XXXXXX";
    if (mkdtemp(pattern) == nullptr) return false;
    g_root = pattern;
    g_mount = g_root / "mnt";
    fs::create_directories(g_mount);
    if (mount("tmpfs", g_mount.c_str(), "tmpfs", 0, "size=512m,mode=0755") != 0) {
        reason = std::string("cannot mount a tmpfs: ") + std::strerror(errno);
        return false;
    }
    // The inventoried program, the file tree, the stress templates.
    fs::copy_file("/usr/bin/true", g_mount / "prog");
    const std::string block(1024, 'x');
    for (int directory = 0; directory < 200; ++directory) {
        fs::create_directories(g_mount / "tree" / std::to_string(directory));
        for (int file = 0; file < 100; ++file)
            std::ofstream(g_mount / "tree" / std::to_string(directory) / std::to_string(file)) << block;
    }
    fs::create_directories(g_root / "templates");
    for (int variant = 0; variant < 16; ++variant) {
        const fs::path program = g_root / "templates" / ("p" + std::to_string(variant));
        fs::copy_file("/usr/bin/true", program);
        std::ofstream(program, std::ios::app | std::ios::binary) << "variant " << variant;
        std::ofstream(g_root / "templates" / ("s" + std::to_string(variant) + ".sh"))
            << "#!/bin/sh\nexit 0 # variant " << variant << "\n";
        fs::permissions(g_root / "templates" / ("s" + std::to_string(variant) + ".sh"), fs::perms::owner_all);
    }
    std::ofstream(g_root / "trust.json") << R"({"Trustrules":[{"processName":"/usr/bin/cp","trustType":1}]})";
    // Inventory the program through a running daemon; the store is kept for every run.
    if (!StartDaemon("\"exec\"")) {
        reason = "zorvd did not start";
        return false;
    }
    std::ifstream in("/usr/bin/true", std::ios::binary);
    const std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    std::string rule = "{\\\"fileName\\\":\\\"prog\\\",\\\"action\\\":\\\"allow\\\"";
    for (const auto& [key, kind] : {std::pair{"sha256", EVP_sha256()}, {"sha1", EVP_sha1()}, {"md5", EVP_md5()}}) {
        unsigned char digest[EVP_MAX_MD_SIZE];
        unsigned int length = 0;
        EVP_Digest(bytes.data(), bytes.size(), digest, &length, kind, nullptr);
        char hex[2 * EVP_MAX_MD_SIZE + 1] = {};
        for (unsigned int i = 0; i < length; ++i) std::snprintf(hex + 2 * i, 3, "%02x", digest[i]);
        rule += std::string(",\\\"") + key + "\\\":\\\"" + hex + "\\\"";
    }
    const std::string reply = Request("{\"command\":\"import\",\"name\":\"bench-items\",\"ruleset\":\"{\\\"rules\\\":[" +
                                      rule + "}]}\"}");
    StopDaemon();
    if (reply.find("\"ok\":true") == std::string::npos) {
        reason = "the inventory import failed: " + reply;
        return false;
    }
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    std::string reason;
    if (!Prepare(reason)) {
        std::printf("zorvd benchmarks skipped: %s\n", reason.c_str());
        if (!g_root.empty()) {
            umount2(g_mount.c_str(), MNT_DETACH);
            std::error_code ignored;
            fs::remove_all(g_root, ignored);
        }
        return 0;
    }
    const std::pair<const char*, std::string> setups[] = {
        {"no_daemon", ""}, {"exec_only", "\"exec\""}, {"all_on", "\"exec\", \"scripts\", \"libraries\""}};
    for (const auto& [name, control] : setups)
        benchmark::RegisterBenchmark((std::string("ExecOverhead/") + name).c_str(), ExecOverhead, control)
            ->Iterations(2000)
            ->UseManualTime()
            ->Unit(benchmark::kMicrosecond);
    for (const auto& [name, control] : setups)
        benchmark::RegisterBenchmark((std::string("FileHeavy20k/") + name).c_str(), FileHeavy, control)
            ->Iterations(1)
            ->UseManualTime()
            ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark("Stress10Workers", Stress)->Iterations(1)->Unit(benchmark::kSecond);
    benchmark::RunSpecifiedBenchmarks();
    StopDaemon();
    umount2(g_mount.c_str(), MNT_DETACH);
    std::error_code ignored;
    fs::remove_all(g_root, ignored);
    return 0;
}

// zorvd's cost on real programs, each figure beside the same workload with
// no daemon in the same run, and a table of the figures beside their goals at
// the end:
//   - exec overhead: 2,000 execs with the allow cache cold (2,000 distinct
//     inventoried programs, a fresh daemon) and warm (one program again and
//     again), median and p99 added, `exec` only and everything on;
//   - file-heavy: a 20,000-file tree read once by a fresh process per 100
//     files, against a fresh daemon each time, with the daemon's CPU time;
//   - stress: 10 workers writing (through a trusted updater) and running
//     programs and scripts under enforce, for --stress_s seconds (default 300);
//   - the exec and file-heavy workloads again beside Debian's fapolicyd, when
//     it is installed (scripts/install-fapolicyd.sh), and beside a bare
//     watcher that answers every event at once: the floor any fanotify
//     daemon stands on.
// Root only; everything happens in a mount namespace of the benchmark's own,
// on a tmpfs of its own, the only filesystem either daemon marks. A quiet
// machine is needed for figures that mean anything: `uptime` is printed
// beside them.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/fanotify.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/syscall.h>
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
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include <benchmark/benchmark.h>
#include <openssl/evp.h>

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr int kExecs = 2000;
constexpr int kDirectories = 200;  // of 100 files each
constexpr int kFileHeavyRuns = 3;
constexpr int kStressWorkers = 10;

fs::path g_root, g_mount;
// A small root on the watched tmpfs holding the programs again with their
// loader, libc and the loader's cache: on a machine watched whole, each exec
// also opens those, and every daemon judges them.
fs::path g_system;
pid_t g_daemon = -1;
int g_stressSeconds = 300;

const std::string kExecOnly = "\"exec\"";
const std::string kAllOn = "\"exec\", \"scripts\", \"libraries\"";

// fapolicyd, for the comparison: run only where it is installed and this
// process could give it a namespace in which the only tmpfs is its own.
constexpr const char* kFapolicyd = "/usr/sbin/fapolicyd";
// Its stock integrity setting ("none": trust by path and size) and the one
// that, like zorvd, checks the content ("sha256").
const std::string kFapolicydSetup = "fapolicyd", kFapolicydSha256Setup = "fapolicyd:sha256";
bool IsFapolicyd(const std::string& control) { return control.rfind(kFapolicydSetup, 0) == 0; }
std::string g_noFapolicyd;  // why there is no comparison; empty when there is

// The floor under every fanotify daemon: a process that marks the tmpfs as
// zorvd does and allows each permission event the moment it reads it,
// judging nothing. "watcher:exec" takes program starts only, as zorvd's
// `exec`; "watcher:all" every open too, as scripts and libraries need.
const std::string kWatcherExec = "watcher:exec", kWatcherAll = "watcher:all";
bool IsWatcher(const std::string& control) { return control.rfind("watcher:", 0) == 0; }
std::string g_fapolicydTrust;
long g_mountId = -1;

// Figures kept for the closing table, by benchmark name.
std::map<std::string, double> g_figures;

double Micros(Clock::duration elapsed) { return std::chrono::duration<double, std::micro>(elapsed).count(); }

// Runs argv (inside `root` when one is given) and waits at most 30 s; a
// child still running then is killed and reported as -1. An exec the kernel
// refuses exits 126.
int Run(const std::vector<std::string>& argv, const fs::path& root = {}) {
    const pid_t child = fork();
    if (child == 0) {
        if (!root.empty() && (chroot(root.c_str()) != 0 || chdir("/") != 0)) _exit(125);
        std::vector<char*> args;
        for (const std::string& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
        args.push_back(nullptr);
        const int devnull = open("/dev/null", O_WRONLY);
        dup2(devnull, 1);
        dup2(devnull, 2);
        execv(args[0], args.data());
        _exit(errno == EPERM || errno == EACCES ? 126 : 127);
    }
    // Waiting on a pidfd wakes at the child's exit, with no polling to add
    // to the figures.
    int status = 0;
    const int pidfd = static_cast<int>(syscall(SYS_pidfd_open, child, 0));
    struct pollfd exited = {pidfd, POLLIN, 0};
    if (pidfd >= 0 && poll(&exited, 1, 30000) == 0) {
        kill(child, SIGKILL);
        waitpid(child, &status, 0);
        close(pidfd);
        return -1;
    }
    if (pidfd >= 0) close(pidfd);
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
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    std::string reply;
    const std::string request = line + "\n";
    size_t sent = 0;
    if (connect(fd, reinterpret_cast<struct sockaddr*>(&address), sizeof address) == 0) {
        while (sent < request.size()) {
            const ssize_t put = send(fd, request.data() + sent, request.size() - sent, MSG_NOSIGNAL);
            if (put <= 0) break;
            sent += static_cast<size_t>(put);
        }
        char chunk[4096];
        ssize_t got;
        while (sent == request.size() && (got = read(fd, chunk, sizeof chunk)) > 0)
            reply.append(chunk, static_cast<size_t>(got));
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

// ---- fapolicyd -------------------------------------------------------------

struct Mount {
    long id = -1;
    std::string point, type;
};

// This namespace's mounts, from /proc/self/mountinfo (mount points have their
// octal escapes decoded).
std::vector<Mount> Mounts() {
    std::vector<Mount> mounts;
    std::ifstream in("/proc/self/mountinfo");
    for (std::string line; std::getline(in, line);) {
        std::istringstream fields(line);
        Mount mount;
        std::string parent, device, root, point, field;
        fields >> mount.id >> parent >> device >> root >> point;
        while (fields >> field && field != "-") {
        }
        fields >> mount.type;
        for (size_t i = 0; i < point.size(); ++i) {
            if (point[i] == '\\' && i + 3 < point.size()) {
                mount.point += static_cast<char>(std::stoi(point.substr(i + 1, 3), nullptr, 8));
                i += 3;
            } else {
                mount.point += point[i];
            }
        }
        mounts.push_back(mount);
    }
    return mounts;
}

bool OnTmpfs(const char* path) {
    struct statfs info {};
    return statfs(path, &info) == 0 && info.f_type == 0x01021994;  // TMPFS_MAGIC
}

// The benchmark's own mount namespace: every mount it makes vanishes with it.
// fapolicyd chooses what to watch by filesystem type alone and would mark
// every tmpfs it can see, so for it every other tmpfs is detached here (in
// this namespace only) and /tmp and /run become ramfs: the only tmpfs left is
// the one Prepare mounts, and fapolicyd's mount marks fall on this
// namespace's mounts, which no process outside it uses.
bool IsolateMounts(std::string& reason) {
    if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        reason = std::string("cannot make a mount namespace: ") + std::strerror(errno);
        return false;
    }
    if (access(kFapolicyd, X_OK) != 0) {
        g_noFapolicyd = "fapolicyd is not installed (scripts/install-fapolicyd.sh installs it)";
        return true;
    }
    for (const char* needed : {ZORVD_PROGRAM, "/proc/self/exe", "/usr/bin/cat", "/usr/bin/cp", "/bin/bash",
                               "/usr/bin/true", kFapolicyd})
        if (OnTmpfs(needed)) {
            g_noFapolicyd = std::string(needed) + " is on a tmpfs, which fapolicyd would watch";
            return true;
        }
    for (const char* folder : {"/etc/fapolicyd", "/var/lib/fapolicyd"})
        if (!fs::is_directory(folder)) {
            g_noFapolicyd = std::string(folder) + " is missing";
            return true;
        }
    const std::vector<Mount> mounts = Mounts();
    for (auto at = mounts.rbegin(); at != mounts.rend(); ++at)
        if (at->type == "tmpfs") umount2(at->point.c_str(), MNT_DETACH);
    if (mount("ramfs", "/tmp", "ramfs", 0, "mode=1777") != 0 || mount("ramfs", "/run", "ramfs", 0, "mode=0755") != 0) {
        reason = std::string("cannot mount a ramfs on /tmp and /run: ") + std::strerror(errno);
        return false;
    }
    for (const Mount& left : Mounts())
        if (left.type == "tmpfs") {
            g_noFapolicyd = "the tmpfs at " + left.point + " could not be detached";
            break;
        }
    return true;
}

// Its configuration, trust file and database in the benchmark's folder,
// bound over the package's in this namespace.
void PrepareFapolicyd() {
    if (!g_noFapolicyd.empty()) return;
    const fs::path etc = g_root / "fapolicyd" / "etc", lib = g_root / "fapolicyd" / "lib";
    fs::create_directories(etc / "trust.d");
    fs::create_directories(lib);
    fs::create_directories("/run/fapolicyd");
    // Debian's stock settings but for these: tmpfs is the only type watched,
    // trust comes from the file alone, it runs as root and writes no report,
    // and it never refuses (permissive, and a last rule that allows).
    std::ofstream(etc / "fapolicyd.conf.in") << "permissive = 1\nnice_val = 14\nq_size = 640\nuid = root\ngid = root\n"
                                             "do_stat_report = 0\ndetailed_report = 0\ndb_max_size = 50\n"
                                             "subj_cache_size = 1549\nobj_cache_size = 8191\nwatch_fs = tmpfs\n"
                                             "trust = file\nintegrity = @\n"
                                             "syslog_format = rule,dec,perm,auid,pid,exe,:,path,ftype,trust\n"
                                             "rpm_sha256_only = 0\nallow_filesystem_mark = 0\n";
    // Libraries and programs judged by trust, as its own example policies do.
    std::ofstream(etc / "compiled.rules") << "allow perm=open all : ftype=application/x-sharedlib trust=1\n"
                                             "allow perm=execute all : trust=1\n"
                                             "allow perm=any all : all\n";
    std::ofstream(etc / "fapolicyd.trust") << g_fapolicydTrust;
    if (mount(etc.c_str(), "/etc/fapolicyd", nullptr, MS_BIND, nullptr) != 0 ||
        mount(lib.c_str(), "/var/lib/fapolicyd", nullptr, MS_BIND, nullptr) != 0)
        g_noFapolicyd = std::string("cannot bind its folders: ") + std::strerror(errno);
}

// The marks of a process's fanotify descriptors, as fdinfo lists them.
std::vector<std::string> FanotifyMarks(pid_t pid) {
    std::vector<std::string> marks;
    const fs::path proc = "/proc/" + std::to_string(pid);
    std::error_code failed;
    for (const auto& fd : fs::directory_iterator(proc / "fd", failed)) {
        std::error_code unreadable;
        if (fs::read_symlink(fd.path(), unreadable).string() != "anon_inode:[fanotify]") continue;
        std::ifstream in(proc / "fdinfo" / fd.path().filename());
        for (std::string line; std::getline(in, line);)
            if (line.rfind("fanotify ", 0) == 0 && line.find(" mask:") != std::string::npos) marks.push_back(line);
    }
    return marks;
}

// A fresh fapolicyd, ready once it listens, and only if every mark it holds
// is on the benchmark's own tmpfs: anything else and it is killed at once
// and the comparison dropped.
bool StartFapolicyd(const std::string& integrity) {
    if (!g_noFapolicyd.empty()) return false;
    {
        std::ifstream in(g_root / "fapolicyd" / "etc" / "fapolicyd.conf.in");
        std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        text.replace(text.find('@'), 1, integrity);
        std::ofstream(g_root / "fapolicyd" / "etc" / "fapolicyd.conf") << text;
    }
    // Without its configuration it would watch every ext4 and tmpfs it sees.
    std::ifstream config("/etc/fapolicyd/fapolicyd.conf");
    const std::string settings((std::istreambuf_iterator<char>(config)), std::istreambuf_iterator<char>());
    if (settings.find("\nwatch_fs = tmpfs\n") == std::string::npos) {
        g_noFapolicyd = "its configuration is not the benchmark's";
        return false;
    }
    // Removed here, not by the child: the last run's "listening" must not be read as this one's.
    const fs::path log = g_root / "fapolicyd.log";
    fs::remove(log);
    g_daemon = fork();
    if (g_daemon == 0) {
        const int out = open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        dup2(out, 1);
        dup2(out, 2);
        execl(kFapolicyd, kFapolicyd, "--debug-deny", "--permissive", static_cast<char*>(nullptr));
        _exit(127);
    }
    bool listening = false;
    for (const auto until = Clock::now() + std::chrono::seconds(20); !listening && Clock::now() < until;) {
        std::ifstream in(log);
        const std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        listening = text.find("Starting to listen for events") != std::string::npos;
        if (!listening) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    const std::vector<std::string> marks = FanotifyMarks(g_daemon);
    char ours[32];
    std::snprintf(ours, sizeof ours, "mnt_id:%lx ", g_mountId);
    bool onlyOurs = listening && !marks.empty();
    for (const std::string& mark : marks) onlyOurs = onlyOurs && mark.find(ours) != std::string::npos;
    if (onlyOurs) return true;
    kill(g_daemon, SIGKILL);
    waitpid(g_daemon, nullptr, 0);
    g_daemon = -1;
    g_noFapolicyd = !listening       ? "fapolicyd did not start listening (see " + log.string() + ")"
                    : marks.empty() ? std::string("fapolicyd marked nothing")
                                    : "fapolicyd marked more than the benchmark's tmpfs: " + marks.front();
    return false;
}

// The bare watcher in a child of its own, ready once its mark is in place.
// It has nothing to clean up: killed, its group closes and the kernel lets
// every waiting open through.
bool StartWatcher(bool opens) {
    const std::string mount = g_mount.string();
    int ready[2];
    if (pipe2(ready, O_CLOEXEC) != 0) return false;
    g_daemon = fork();
    if (g_daemon == 0) {
        close(ready[0]);
        // The same scheduling head start as zorvd's answering threads.
        setpriority(PRIO_PROCESS, 0, -10);
        const int group = fanotify_init(FAN_CLASS_CONTENT | FAN_CLOEXEC, O_RDONLY | O_LARGEFILE | O_CLOEXEC);
        const uint64_t mask = FAN_OPEN_EXEC_PERM | (opens ? FAN_OPEN_PERM : 0);
        if (group < 0 || fanotify_mark(group, FAN_MARK_ADD | FAN_MARK_FILESYSTEM, mask, AT_FDCWD, mount.c_str()) != 0)
            _exit(1);
        if (write(ready[1], "r", 1) != 1) _exit(1);
        close(ready[1]);
        alignas(struct fanotify_event_metadata) char buffer[4096];
        for (;;) {
            const ssize_t length = read(group, buffer, sizeof buffer);
            if (length < 0 && errno == EINTR) continue;
            if (length <= 0) _exit(0);
            auto* event = reinterpret_cast<struct fanotify_event_metadata*>(buffer);
            for (ssize_t left = length; FAN_EVENT_OK(event, left); event = FAN_EVENT_NEXT(event, left)) {
                if (event->fd < 0) continue;
                const struct fanotify_response response = {event->fd, FAN_ALLOW};
                if (write(group, &response, sizeof response) != sizeof response) _exit(1);
                close(event->fd);
            }
        }
    }
    close(ready[1]);
    char byte = 0;
    struct pollfd signalled = {ready[0], POLLIN, 0};
    const bool started = g_daemon > 0 && poll(&signalled, 1, 5000) == 1 && read(ready[0], &byte, 1) == 1;
    close(ready[0]);
    if (!started) StopDaemon();
    return started;
}

const char* WhyNotStarted(const std::string& control) {
    return IsFapolicyd(control) ? g_noFapolicyd.c_str()
           : IsWatcher(control) ? "the bare watcher did not start"
                                : "zorvd did not start";
}

// control: "" for no daemon, one of the fapolicyd setups, else the TOML
// list's contents. A fresh process each time: nothing cached from an earlier
// run.
bool StartDaemon(const std::string& control, const std::string& store = "ac.db", const std::string& extra = "") {
    StopDaemon();
    if (control.empty()) return true;
    if (IsFapolicyd(control)) return StartFapolicyd(control == kFapolicydSha256Setup ? "sha256" : "none");
    if (IsWatcher(control)) return StartWatcher(control == kWatcherAll);
    std::ofstream(g_root / "zorvd.toml") << "mode = \"enforce\"\nstore = \"" << (g_root / store).string()
                                         << "\"\nsocket = \"" << Socket() << "\"\nwatch = [\"" << g_mount.string()
                                         << "\"]\nlog = \"" << (g_root / "zorvd.log").string() << "\"\ncontrol = ["
                                         << control << "]\ntrust_rules = \"" << (g_root / "trust.json").string()
                                         << "\"\n" << extra;
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

fs::path ColdProgram(int i) { return g_mount / "cold" / ("p" + std::to_string(i)); }

// ---- Exec overhead ---------------------------------------------------------

using Setups = std::vector<std::pair<std::string, std::string>>;  // name, control

// Cold: each of 2,000 distinct inventoried programs once, against a daemon
// started just before (no digest, no allow-cache entry). Warm: one program
// 2,000 times after a first run. `system`: the programs in g_system, run
// there, so that their loader and libc are watched too. The setups take
// turns, 400 execs each in five rounds, so that a machine slower for a while
// slows every setup alike rather than the one that ran then.
void ExecOverhead(benchmark::State& state, std::string layout, Setups setups, bool cold, bool system) {
    constexpr int kRounds = 5;
    const fs::path top = system ? fs::path("/") : g_mount, root = system ? g_system : fs::path();
    const fs::path warmProgram = top / "prog";
    std::map<std::string, std::vector<double>> times, daemonP50;
    for (auto _ : state) {
        double total = 0;
        for (int round = 0; round < kRounds; ++round)
            for (const auto& [name, control] : setups) {
                if (!StartDaemon(control)) {
                    state.SkipWithError(WhyNotStarted(control));
                    return;
                }
                if (!cold && Run({warmProgram}, root) != 0) {
                    state.SkipWithError("the inventoried program was refused");
                    return;
                }
                for (int i = round * kExecs / kRounds; i < (round + 1) * kExecs / kRounds; ++i) {
                    const fs::path program = cold ? top / ColdProgram(i).lexically_relative(g_mount) : warmProgram;
                    const auto started = Clock::now();
                    const int status = Run({program}, root);
                    const double micros = Micros(Clock::now() - started);
                    if (status != 0) {
                        state.SkipWithError(("an inventoried program was refused under " + name).c_str());
                        StopDaemon();
                        return;
                    }
                    times[name].push_back(micros);
                    total += micros;
                }
                // From the event's read to its answer, as the daemon measures
                // it: the rest of the added time is the kernel's and the
                // scheduler's.
                if (g_daemon > 0 && !IsFapolicyd(control) && !IsWatcher(control)) {
                    daemonP50[name].push_back(StatusNumber("p50"));
                    if (StatusNumber("deadline_answers") != 0) state.SkipWithError("deadline answers");
                }
                StopDaemon();
            }
        state.SetIterationTime(total / 1e6);
    }
    for (const auto& [name, control] : setups) {
        const std::string key = layout + "." + (cold ? "cold." : "warm.") + name;
        state.counters[name + "_median_us"] = g_figures[key + ".median"] = Percentile(times[name], 0.5);
        state.counters[name + "_p99_us"] = g_figures[key + ".p99"] = Percentile(times[name], 0.99);
        if (!daemonP50[name].empty()) state.counters[name + "_daemon_p50_us"] = Percentile(daemonP50[name], 0.5);
    }
}

// ---- File-heavy workload ---------------------------------------------------

void FileHeavy(benchmark::State& state, std::string name, std::string control) {
    std::vector<double> seconds, cpu;
    for (auto _ : state) {
        state.PauseTiming();
        if (!StartDaemon(control)) {
            state.SkipWithError(WhyNotStarted(control));
            break;
        }
        const double cpuBefore = DaemonCpuSeconds();
        state.ResumeTiming();
        const auto started = Clock::now();
        for (int directory = 0; directory < kDirectories; ++directory) {
            std::vector<std::string> argv{"/usr/bin/cat"};
            for (int file = 0; file < 100; ++file)
                argv.push_back((g_mount / "tree" / std::to_string(directory) / std::to_string(file)).string());
            if (Run(argv) != 0) state.SkipWithError("cat failed");
        }
        seconds.push_back(std::chrono::duration<double>(Clock::now() - started).count());
        state.SetIterationTime(seconds.back());
        cpu.push_back(DaemonCpuSeconds() - cpuBefore);
    }
    StopDaemon();
    state.counters["median_s"] = g_figures[name + ".s"] = Percentile(seconds, 0.5);
    state.counters["daemon_cpu_s"] = g_figures[name + ".cpu"] = Percentile(cpu, 0.5);
}

// ---- Stress ----------------------------------------------------------------

void Stress(benchmark::State& state) {
    // Caches small enough to fill during the warm-up (new files are new
    // inodes): memory that grows after it is a leak, not a cache filling.
    if (!StartDaemon(kAllOn, "stress.db", "digest_cache_entries = 4096\n")) {
        state.SkipWithError("zorvd did not start");
        return;
    }
    std::atomic<long> runs{0}, falseDenials{0}, writes{0};
    std::vector<long> rss;
    for (auto _ : state) {
        const auto until = Clock::now() + std::chrono::seconds(g_stressSeconds);
        std::vector<std::thread> workers;
        for (int worker = 0; worker < kStressWorkers; ++worker) {
            workers.emplace_back([&, worker] {
                const fs::path home = g_mount / ("w" + std::to_string(worker));
                fs::create_directories(home);
                for (long round = 0; Clock::now() < until; ++round) {
                    const std::string variant = std::to_string(worker) + "_" + std::to_string(round % 16);
                    const fs::path program = home / ("p" + std::to_string(round % 4));
                    const fs::path script = home / ("s" + std::to_string(round % 4) + ".sh");
                    // Every other pass over the four names creates them anew;
                    // otherwise cp rewrites them in place.
                    if (round % 8 < 4) {
                        std::error_code ignored;
                        fs::remove(program, ignored);
                        fs::remove(script, ignored);
                    }
                    // cp is the trusted updater: written, then run at once.
                    Run({"/usr/bin/cp", (g_root / "templates" / ("p" + variant)).string(), program});
                    Run({"/usr/bin/cp", (g_root / "templates" / ("s" + variant + ".sh")).string(), script});
                    writes.fetch_add(2);
                    for (const std::vector<std::string>& argv :
                         {std::vector<std::string>{program}, {script}, {"/bin/bash", script}}) {
                        runs.fetch_add(1);
                        if (Run(argv) != 0) falseDenials.fetch_add(1);
                    }
                }
            });
        }
        while (Clock::now() < until) {
            std::this_thread::sleep_for(std::chrono::seconds(1));
            rss.push_back(DaemonRssKb());
        }
        for (std::thread& thread : workers) thread.join();
    }
    // Memory after the first fifth (caches filled) against the end.
    const double early = rss.empty() ? 0 : static_cast<double>(rss[rss.size() / 5]);
    const double late = rss.empty() ? 0 : static_cast<double>(rss.back());
    state.counters["runs"] = g_figures["stress.runs"] = static_cast<double>(runs.load());
    state.counters["writes"] = g_figures["stress.writes"] = static_cast<double>(writes.load());
    state.counters["false_denials"] = g_figures["stress.false"] = static_cast<double>(falseDenials.load());
    state.counters["deadline_answers"] = g_figures["stress.deadline"] = StatusNumber("deadline_answers");
    state.counters["overflow_answers"] = g_figures["stress.overflow"] = StatusNumber("overflow_answers");
    state.counters["rss_kb_early"] = g_figures["stress.rss_early"] = early;
    state.counters["rss_kb_mid"] = rss.empty() ? 0 : static_cast<double>(rss[rss.size() * 3 / 5]);
    state.counters["rss_kb_end"] = g_figures["stress.rss_end"] = late;
    state.counters["daemon_cpu_s"] = g_figures["stress.cpu"] = DaemonCpuSeconds();
    StopDaemon();
    // What a false denial was, for whoever has to find out why.
    std::ifstream log(g_root / "zorvd.log");
    int shown = 0;
    for (std::string line; std::getline(log, line) && shown < 10;)
        if (line.find("deny ") != std::string::npos || line.find("no decision") != std::string::npos) {
            std::fprintf(stderr, "%s\n", line.c_str());
            ++shown;
        }
}

// ---- Setup -----------------------------------------------------------------

std::string HexDigest(const std::string& bytes, const EVP_MD* kind) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    EVP_Digest(bytes.data(), bytes.size(), digest, &length, kind, nullptr);
    char hex[2 * EVP_MAX_MD_SIZE + 1] = {};
    for (unsigned int i = 0; i < length; ++i) std::snprintf(hex + 2 * i, 3, "%02x", digest[i]);
    return hex;
}

std::string ItemRule(const std::string& fileName, const std::string& bytes) {
    return "{\\\"fileName\\\":\\\"" + fileName + "\\\",\\\"action\\\":\\\"allow\\\",\\\"size\\\":" +
           std::to_string(bytes.size()) + ",\\\"sha256\\\":\\\"" + HexDigest(bytes, EVP_sha256()) +
           "\\\",\\\"sha1\\\":\\\"" + HexDigest(bytes, EVP_sha1()) + "\\\",\\\"md5\\\":\\\"" +
           HexDigest(bytes, EVP_md5()) + "\\\"}";
}

// The loader and libraries `program` maps, as ldd names them.
std::vector<std::string> SharedObjects(const char* program) {
    std::vector<std::string> paths;
    FILE* ldd = popen(("ldd " + std::string(program) + " 2>/dev/null").c_str(), "r");
    if (ldd == nullptr) return paths;
    char line[512];
    while (std::fgets(line, sizeof line, ldd) != nullptr) {
        std::istringstream words(line);
        for (std::string word; words >> word;)
            if (word[0] == '/' && fs::is_regular_file(word)) paths.push_back(word);
    }
    pclose(ldd);
    return paths;
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
    if (!IsolateMounts(reason)) return false;
    char pattern[] = "/tmp/zorvd-bench-XXXXXX";
    if (mkdtemp(pattern) == nullptr) return false;
    g_root = pattern;
    g_mount = g_root / "mnt";
    fs::create_directories(g_mount);
    if (mount("tmpfs", g_mount.c_str(), "tmpfs", 0, "size=512m,mode=0755") != 0) {
        reason = std::string("cannot mount a tmpfs: ") + std::strerror(errno);
        return false;
    }
    for (const Mount& mount : Mounts())
        if (mount.point == g_mount) g_mountId = mount.id;
    // The inventoried programs (one warm, 2,000 distinct cold ones: a byte
    // more each), the file tree, the stress templates.
    std::ifstream in("/usr/bin/true", std::ios::binary);
    const std::string program((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    std::string rules = ItemRule("prog", program);
    auto trustLine = [](const fs::path& path, const std::string& bytes) {
        return path.string() + " " + std::to_string(bytes.size()) + " " + HexDigest(bytes, EVP_sha256()) + "\n";
    };
    g_fapolicydTrust = trustLine(g_mount / "prog", program);
    fs::copy_file("/usr/bin/true", g_mount / "prog");
    fs::create_directories(g_mount / "cold");
    for (int i = 0; i < kExecs; ++i) {
        const std::string bytes = program + std::to_string(i);
        std::ofstream(ColdProgram(i), std::ios::binary) << bytes;
        fs::permissions(ColdProgram(i), fs::perms::owner_all);
        rules += "," + ItemRule(ColdProgram(i).filename().string(), bytes);
        g_fapolicydTrust += trustLine(ColdProgram(i), bytes);
    }
    g_system = g_mount / "sys";
    fs::create_directories(g_system / "cold");
    fs::copy_file(g_mount / "prog", g_system / "prog");
    for (int i = 0; i < kExecs; ++i) {
        const fs::path copy = g_system / ColdProgram(i).lexically_relative(g_mount);
        fs::copy_file(ColdProgram(i), copy);
        std::ifstream file(copy, std::ios::binary);
        g_fapolicydTrust += trustLine(copy, std::string(std::istreambuf_iterator<char>(file), {}));
    }
    g_fapolicydTrust += trustLine(g_system / "prog", program);
    std::vector<std::string> loaded = SharedObjects("/usr/bin/true");
    if (loaded.empty()) {
        reason = "ldd names no loader for /usr/bin/true";
        return false;
    }
    loaded.push_back("/etc/ld.so.cache");
    for (const std::string& original : loaded) {
        const fs::path copy = g_system / fs::path(original).relative_path();
        fs::create_directories(copy.parent_path());
        fs::copy_file(original, copy);
        std::ifstream file(copy, std::ios::binary);
        const std::string bytes(std::istreambuf_iterator<char>(file), {});
        g_fapolicydTrust += trustLine(copy, bytes);
        if (original != "/etc/ld.so.cache") rules += "," + ItemRule(copy.filename().string(), bytes);
    }
    const std::string block(1024, 'x');
    for (int directory = 0; directory < kDirectories; ++directory) {
        fs::create_directories(g_mount / "tree" / std::to_string(directory));
        for (int file = 0; file < 100; ++file)
            std::ofstream(g_mount / "tree" / std::to_string(directory) / std::to_string(file)) << block;
    }
    // Contents of each worker's own: the engine does not record a trusted
    // write whose content is already allowed elsewhere, so a file sharing its
    // content with another worker's would lose its trust when that one is
    // rewritten, which is the engine's rule, not the daemon's cost.
    fs::create_directories(g_root / "templates");
    for (int worker = 0; worker < kStressWorkers; ++worker)
        for (int round = 0; round < 16; ++round) {
            const std::string variant = std::to_string(worker) + "_" + std::to_string(round);
            const fs::path copy = g_root / "templates" / ("p" + variant);
            std::ofstream(copy, std::ios::binary) << program << "variant " << variant;
            fs::permissions(copy, fs::perms::owner_all);
            const fs::path script = g_root / "templates" / ("s" + variant + ".sh");
            std::ofstream(script) << "#!/bin/sh\nexit 0 # variant " << variant << "\n";
            fs::permissions(script, fs::perms::owner_all);
        }
    std::ofstream(g_root / "trust.json") << R"({"Trustrules":[{"processName":"/usr/bin/cp","trustType":1}]})";
    // Every program run once before any measurement: the kernel's first exec
    // of a file is paid by no figure.
    for (int i = 0; i < kExecs; ++i) {
        Run({ColdProgram(i)});
        Run({"/" + ColdProgram(i).lexically_relative(g_mount).string()}, g_system);
    }
    // The inventory goes in through a running daemon; the store is kept for every run.
    if (!StartDaemon(kExecOnly)) {
        reason = "zorvd did not start";
        return false;
    }
    const std::string reply =
        Request("{\"command\":\"import\",\"name\":\"bench-items\",\"ruleset\":\"{\\\"rules\\\":[" + rules + "]}\"}");
    StopDaemon();
    if (reply.find("\"ok\":true") == std::string::npos) {
        reason = "the inventory import failed: " + reply;
        return false;
    }
    PrepareFapolicyd();
    return true;
}

// ---- The closing table -----------------------------------------------------

std::string Uptime() {
    std::ifstream in("/proc/loadavg");
    std::string one, five, fifteen;
    in >> one >> five >> fifteen;
    return one + " " + five + " " + fifteen;
}

void PrintLine(const char* what, const std::string& figure, const std::string& goal, int verdict) {
    std::printf("  %-44s %-26s %-26s %s\n", what, figure.c_str(), goal.c_str(),
                verdict < 0 ? "" : verdict ? "met" : "MISSED");
}

std::string Format(const char* format, double a, double b = 0) {
    char text[96];
    std::snprintf(text, sizeof text, format, a, b);
    return text;
}

void PrintSummary() {
    auto figure = [](const std::string& key) { return g_figures.count(key) ? g_figures[key] : -1.0; };
    std::printf("\nzorvd benchmark, load average %s (1, 5, 15 min)\n", Uptime().c_str());
    std::printf("  %-44s %-26s %-26s %s\n", "", "figure", "goal", "");
    for (const char* layout : {"exec", "system"}) {
        std::printf(std::string(layout) == "exec"
                        ? "Exec overhead, %d execs of a program on the watched tmpfs (its loader and libc not "
                          "watched):\n  added per exec (median / p99) over no daemon\n"
                        : "Exec overhead, %d execs in a root on the watched tmpfs (program, loader, libc and "
                          "ld.so.cache all\n  watched, as on a machine watched whole): added per exec\n",
                    kExecs);
        for (const char* cache : {"cold", "warm"}) {
            const std::string prefix = std::string(layout) + "." + cache + ".";
            const double baseMedian = figure(prefix + "none.median");
            const double baseP99 = figure(prefix + "none.p99");
            std::printf("  allow cache %s: no daemon %.0f / %.0f us per exec\n", cache, baseMedian, baseP99);
            const double theirAdded = figure(prefix + "fapolicyd.median") - baseMedian;
            for (const auto& [setup, limit, watcher] :
                 {std::tuple{"exec_only", 100.0, "watcher_exec"}, {"all_on", 200.0, "watcher_all"}}) {
                const std::string key = prefix + setup;
                if (figure(key + ".median") < 0) continue;
                const double added = figure(key + ".median") - baseMedian;
                const std::string label = std::string("    ") + setup;
                PrintLine(label.c_str(), Format("%+.0f us / %+.0f us", added, figure(key + ".p99") - baseP99),
                          Format("median <= %.0f us", limit), added <= limit);
                const std::string bare = prefix + watcher;
                if (figure(bare + ".median") >= 0)
                    PrintLine((std::string("      bare watcher, same marks (") + watcher + ")").c_str(),
                              Format("%+.0f us / %+.0f us", figure(bare + ".median") - baseMedian,
                                     figure(bare + ".p99") - baseP99),
                              "(the floor)", -1);
                if (figure(prefix + "fapolicyd.median") < 0) continue;
                PrintLine("      against fapolicyd's added median",
                          theirAdded > 0 ? Format("%.0f%%", added / theirAdded * 100)
                                         : std::string("(it added none)"),
                          "<= 25%", theirAdded > 0 && added <= theirAdded / 4);
            }
            for (const char* theirs : {"fapolicyd", "fapolicyd_sha256"})
                if (figure(prefix + theirs + ".median") >= 0)
                    PrintLine((std::string("    ") + theirs).c_str(),
                              Format("%+.0f us / %+.0f us", figure(prefix + theirs + ".median") - baseMedian,
                                     figure(prefix + theirs + ".p99") - baseP99),
                              "(reported)", -1);
        }
    }
    if (!g_noFapolicyd.empty()) std::printf("  no comparison with fapolicyd: %s\n", g_noFapolicyd.c_str());
    std::printf("File-heavy: %d files, a fresh process per 100 (median of %d runs)\n", kDirectories * 100,
                kFileHeavyRuns);
    const double base = figure("files.none.s");
    std::printf("  no daemon %.2f s\n", base);
    for (const auto& [setup, limit] :
         {std::pair{"exec_only", 1.15}, {"watcher_all", 0.0}, {"all_on", 1.5}, {"fapolicyd", 0.0}}) {
        const std::string key = std::string("files.") + setup;
        if (figure(key + ".s") < 0) continue;
        const double ratio = base > 0 ? figure(key + ".s") / base : 0;
        const std::string label = std::string("    ") + setup;
        PrintLine(label.c_str(), Format("%.2fx, daemon CPU %.2f s", ratio, figure(key + ".cpu")),
                  limit > 0                            ? Format("<= %.2fx", limit)
                  : std::string(setup) == "watcher_all" ? std::string("(the floor)")
                                                        : std::string("(reported)"),
                  limit > 0 ? ratio <= limit : -1);
    }
    if (figure("stress.runs") >= 0) {
        std::printf("Stress: %d workers for %d s under enforce: %.0f runs, %.0f trusted writes, daemon CPU %.1f s\n",
                    kStressWorkers, g_stressSeconds, figure("stress.runs"), figure("stress.writes"),
                    figure("stress.cpu"));
        PrintLine("    false denials", Format("%.0f", figure("stress.false")), "0", figure("stress.false") == 0);
        PrintLine("    deadline answers", Format("%.0f", figure("stress.deadline")), "0",
                  figure("stress.deadline") == 0);
        PrintLine("    overflow answers", Format("%.0f", figure("stress.overflow")), "(reported)", -1);
        const double early = figure("stress.rss_early");
        const double growth = early > 0 ? (figure("stress.rss_end") - early) / early * 100 : 0;
        PrintLine("    daemon memory (RSS, after warm-up -> end)",
                  Format("%.1f -> %.1f MB", early / 1024, figure("stress.rss_end") / 1024),
                  "flat (<= 10% growth)", growth <= 10);
    }
}

}  // namespace

// Our own flag first: --stress_s=SECONDS (default 300). The rest are
// Google Benchmark's (e.g. --benchmark_filter).
int main(int argc, char** argv) {
    std::vector<char*> rest;
    for (int i = 0; i < argc; ++i) {
        if (std::strncmp(argv[i], "--stress_s=", 11) == 0) {
            g_stressSeconds = std::max(1, std::atoi(argv[i] + 11));
            continue;
        }
        rest.push_back(argv[i]);
    }
    int restCount = static_cast<int>(rest.size());
    benchmark::Initialize(&restCount, rest.data());
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
    Setups setups = {{"none", ""},         {"watcher_exec", kWatcherExec}, {"exec_only", kExecOnly},
                     {"watcher_all", kWatcherAll}, {"all_on", kAllOn}};
    Setups fileSetups = {{"none", ""}, {"exec_only", kExecOnly}, {"watcher_all", kWatcherAll}, {"all_on", kAllOn}};
    if (g_noFapolicyd.empty()) {
        setups.emplace_back("fapolicyd", kFapolicydSetup);
        setups.emplace_back("fapolicyd_sha256", kFapolicydSha256Setup);
        fileSetups.emplace_back("fapolicyd", kFapolicydSetup);
    }
    for (const bool system : {false, true})
        for (const bool cold : {true, false}) {
            const std::string title = std::string(cold ? "ExecCold" : "ExecWarm") + (system ? "WholeSystem" : "");
            benchmark::RegisterBenchmark(title.c_str(), ExecOverhead, system ? "system" : "exec", setups, cold, system)
                ->Iterations(1)
                ->UseManualTime()
                ->Unit(benchmark::kMillisecond);
        }
    for (const auto& [name, control] : fileSetups)
        benchmark::RegisterBenchmark((std::string("FileHeavy20k/") + name).c_str(), FileHeavy,
                                     std::string("files.") + name, control)
            ->Iterations(kFileHeavyRuns)
            ->UseManualTime()
            ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark("Stress10Workers", Stress)->Iterations(1)->Unit(benchmark::kSecond);
    benchmark::RunSpecifiedBenchmarks();
    StopDaemon();
    PrintSummary();
    umount2(g_mount.c_str(), MNT_DETACH);
    std::error_code ignored;
    fs::remove_all(g_root, ignored);
    return 0;
}

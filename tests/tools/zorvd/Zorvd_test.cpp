// End to end: the built zorvd on a tmpfs of the test's own, real programs
// started against it. Needs root and fanotify permission events; skipped with
// the reason otherwise. Nothing but the test's mount is ever marked.
#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <pwd.h>
#include <signal.h>
#include <sys/fanotify.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include <cjson/cJSON.h>
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <sqlite3.h>

#include "PrometheusText.h"

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

std::string FileText(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

std::string Digest(const fs::path& file, const EVP_MD* kind) {
    const std::string bytes = FileText(file);
    unsigned char out[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    EVP_Digest(bytes.data(), bytes.size(), out, &length, kind, nullptr);
    std::string hex;
    char pair[3];
    for (unsigned int i = 0; i < length; ++i) {
        std::snprintf(pair, sizeof pair, "%02x", out[i]);
        hex += pair;
    }
    return hex;
}

// `as`: the user and group the child runs as (both real and effective).
pid_t Spawn(const std::vector<std::string>& argv, const std::string& output = "/dev/null",
            std::pair<uid_t, gid_t> as = {0, 0}) {
    const pid_t child = fork();
    if (child == 0) {
        if ((as.second != 0 && setgid(as.second) != 0) || (as.first != 0 && setuid(as.first) != 0)) _exit(125);
        std::vector<char*> args;
        for (const std::string& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
        args.push_back(nullptr);
        const int out = open(output.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        dup2(out, 1);
        dup2(out, 2);
        execv(args[0], args.data());
        _exit(errno == EPERM || errno == EACCES ? 126 : 127);
    }
    return child;
}

// What `child` exits with, waiting at most `limitMs`: a child still running
// then is killed and reported as -1.
int WaitBounded(pid_t child, int limitMs) {
    const auto until = Clock::now() + std::chrono::milliseconds(limitMs);
    int status = 0;
    while (waitpid(child, &status, WNOHANG) == 0) {
        if (Clock::now() > until) {
            kill(child, SIGKILL);
            waitpid(child, &status, 0);
            return -1;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// Runs argv with a bounded wait. An exec the kernel refuses exits 126.
int RunProgram(const std::vector<std::string>& argv, int limitMs = 10000, const std::string& output = "/dev/null",
               std::pair<uid_t, gid_t> as = {0, 0}) {
    return WaitBounded(Spawn(argv, output, as), limitMs);
}

// Runs `body` in a child and returns what it exits with (bounded, as above).
int InChild(const std::function<int()>& body, int limitMs = 10000) {
    const pid_t child = fork();
    if (child == 0) _exit(body());
    return WaitBounded(child, limitMs);
}

bool WriteAll(int fd, const std::string& bytes) {
    for (size_t done = 0; done < bytes.size();) {
        const ssize_t wrote = write(fd, bytes.data() + done, bytes.size() - done);
        if (wrote <= 0) return false;
        done += static_cast<size_t>(wrote);
    }
    return true;
}

class Zorvd : public ::testing::Test {
protected:
    void SetUp() override {
        if (geteuid() != 0) GTEST_SKIP() << "zorvd needs root for fanotify permission events";
        const int probe = fanotify_init(FAN_CLASS_CONTENT | FAN_CLOEXEC, O_RDONLY);
        if (probe < 0) GTEST_SKIP() << "fanotify permission events unavailable: " << std::strerror(errno);
        close(probe);
        char pattern[] = "/tmp/zorvd-test-XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        m_root = pattern;
        m_mount = m_root / "mnt";
        fs::create_directories(m_mount);
        fs::create_directories(m_root / "state");
        if (mount("tmpfs", m_mount.c_str(), "tmpfs", 0, "size=64m,mode=0755") != 0)
            GTEST_SKIP() << "cannot mount a test tmpfs: " << std::strerror(errno);
        m_mounted = true;
    }

    void TearDown() override {
        StopDaemon(SIGKILL);
        if (m_mounted) umount2(m_mount.c_str(), MNT_DETACH);
        std::error_code ignored;
        if (!m_root.empty()) fs::remove_all(m_root, ignored);
    }

    void WriteConfig(const std::string& mode, const std::string& extra) {
        std::ofstream(m_root / "zorvd.toml") << "mode = \"" << mode << "\"\nstore = \"" << Store()
                                             << "\"\nsocket = \"" << Socket() << "\"\nwatch = [\"" << m_mount.string()
                                             << "\"]\nlog = \"" << (m_root / "zorvd.log").string()
                                             << "\"\ntrust_rules = \"" << (m_root / "trust.json").string() << "\"\n"
                                             << extra;
    }

    // Starts the daemon and waits (bounded) until its socket answers.
    void StartDaemon(const std::string& mode, const std::string& extra = "", const std::vector<std::string>& env = {}) {
        WriteConfig(mode, extra);
        m_daemon = fork();
        if (m_daemon == 0) {
            for (const std::string& setting : env) putenv(const_cast<char*>(setting.c_str()));
            const std::string config = (m_root / "zorvd.toml").string();
            if (m_daemonStderr >= 0) {
                dup2(m_daemonStderr, 2);
                execl(ZORVD_PROGRAM, ZORVD_PROGRAM, "--config", config.c_str(), "--foreground",
                      static_cast<char*>(nullptr));
            }
            execl(ZORVD_PROGRAM, ZORVD_PROGRAM, "--config", config.c_str(), static_cast<char*>(nullptr));
            _exit(127);
        }
        const auto until = Clock::now() + std::chrono::seconds(15);
        while (Clock::now() < until) {
            if (Request("{\"command\":\"status\"}").find("\"ok\":true") != std::string::npos) return;
            int status = 0;
            ASSERT_EQ(waitpid(m_daemon, &status, WNOHANG), 0) << "zorvd exited at start:\n" << LogText();
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        FAIL() << "zorvd did not answer on its socket:\n" << LogText();
    }

    // Returns whether the daemon ended within the limit.
    bool StopDaemon(int signal, int limitMs = 10000) {
        if (m_daemon <= 0) return true;
        kill(m_daemon, signal);
        const auto until = Clock::now() + std::chrono::milliseconds(limitMs);
        int status = 0;
        while (waitpid(m_daemon, &status, WNOHANG) == 0) {
            if (Clock::now() > until) {
                kill(m_daemon, SIGKILL);
                waitpid(m_daemon, &status, 0);
                m_daemon = -1;
                return false;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        m_daemon = -1;
        return true;
    }

    std::string Socket() const { return (m_root / "state/zorvd.sock").string(); }
    std::string Store() const { return (m_root / "state/ac.db").string(); }

    // Polls `done` every 20 ms for up to five seconds.
    template <typename Done>
    static bool Eventually(Done done) {
        for (const auto until = Clock::now() + std::chrono::seconds(5); Clock::now() < until;
             std::this_thread::sleep_for(std::chrono::milliseconds(20)))
            if (done()) return true;
        return done();
    }

    // The file names of the inventory's items below the test mount, read
    // from the store beside the running daemon.
    std::vector<std::string> InventoryNames() const {
        std::vector<std::string> names;
        sqlite3* db = nullptr;
        if (sqlite3_open_v2(Store().c_str(), &db, SQLITE_OPEN_READONLY, nullptr) == SQLITE_OK) {
            sqlite3_busy_timeout(db, 2000);
            sqlite3_stmt* stmt = nullptr;
            const std::string sql = "SELECT fileName FROM InventoryItems WHERE path LIKE '" + m_mount.string() +
                                    "%' ORDER BY fileName";
            if (sqlite3_prepare_v2(db, sql.c_str(), -1, &stmt, nullptr) == SQLITE_OK)
                while (sqlite3_step(stmt) == SQLITE_ROW)
                    names.emplace_back(reinterpret_cast<const char*>(sqlite3_column_text(stmt, 0)));
            sqlite3_finalize(stmt);
        }
        sqlite3_close(db);
        return names;
    }

    std::string LogText() const { return FileText(m_root / "zorvd.log"); }

    // One request on the control socket; the empty text when nothing answers.
    std::string Request(const std::string& line) const {
        const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        struct sockaddr_un address {};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, Socket().c_str(), sizeof address.sun_path - 1);
        struct timeval limit {10, 0};
        setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
        std::string reply;
        if (connect(fd, reinterpret_cast<struct sockaddr*>(&address), sizeof address) == 0 &&
            send(fd, (line + "\n").data(), line.size() + 1, MSG_NOSIGNAL) == static_cast<ssize_t>(line.size() + 1)) {
            char chunk[4096];
            ssize_t got;
            while ((got = read(fd, chunk, sizeof chunk)) > 0) reply.append(chunk, static_cast<size_t>(got));
        }
        close(fd);
        return reply;
    }

    // A number of the daemon's status; "events.exec" reaches into an object.
    double StatusNumber(const std::string& key) const {
        std::unique_ptr<cJSON, decltype(&cJSON_Delete)> doc(cJSON_Parse(Request("{\"command\":\"status\"}").c_str()),
                                                            cJSON_Delete);
        const cJSON* value = doc.get();
        for (size_t at = 0; value != nullptr && at <= key.size();) {
            const size_t dot = std::min(key.find('.', at), key.size());
            value = cJSON_GetObjectItemCaseSensitive(value, key.substr(at, dot - at).c_str());
            at = dot + 1;
        }
        return cJSON_IsNumber(value) ? value->valuedouble : -1;
    }

    int Zorv(const std::vector<std::string>& args, const std::string& output = "/dev/null") {
        std::vector<std::string> argv = {ZORV_PROGRAM, "--socket", Socket()};
        argv.insert(argv.end(), args.begin(), args.end());
        return RunProgram(argv, 10000, output);
    }

    // Puts files on the allow list through the daemon's live engine. Their
    // digests are read from a copy off the mount: under enforce, reading an
    // unknown program on it is refused like loading it.
    void Inventory(const std::vector<std::pair<fs::path, fs::path>>& files, bool append = true) {
        std::string rules;
        for (const auto& [onMount, file] : files) {
            rules += std::string(rules.empty() ? "" : ",") + "{\"fileName\":\"" + onMount.filename().string() +
                     "\",\"sha256\":\"" + Digest(file, EVP_sha256()) + "\",\"sha1\":\"" + Digest(file, EVP_sha1()) +
                     "\",\"md5\":\"" + Digest(file, EVP_md5()) + "\",\"size\":" + std::to_string(fs::file_size(file)) +
                     ",\"action\":\"allow\"}";
        }
        const fs::path ruleset = m_root / "items.json";
        std::ofstream(ruleset) << "{\"rules\":[" << rules << "]}";
        std::vector<std::string> args = {"import", ruleset.string(), "--name", "test-items"};
        if (append) args.push_back("--append");
        ASSERT_EQ(Zorv(args), 0);
    }

    fs::path Copy(const fs::path& from, const std::string& name) {
        const fs::path to = m_mount / name;
        fs::copy_file(from, to, fs::copy_options::overwrite_existing);
        fs::permissions(to, fs::perms::owner_all | fs::perms::group_exec | fs::perms::others_exec);
        return to;
    }

    fs::path Write(const std::string& name, const std::string& text) {
        const fs::path to = m_mount / name;
        std::ofstream(to) << text;
        fs::permissions(to, fs::perms::owner_all);
        return to;
    }

    fs::path m_root, m_mount;
    bool m_mounted = false;
    pid_t m_daemon = -1;
    int m_daemonStderr = -1;  // when set, the daemon logs there (--foreground)
};

TEST_F(Zorvd, UnknownProgramDeniedUnderEnforceAllowedAndCountedUnderLogOnly) {
    const fs::path unknown = Copy("/usr/bin/true", "unknown");
    StartDaemon("enforce");
    EXPECT_EQ(RunProgram({unknown}), 126);
    // The denial is logged just after it is answered.
    EXPECT_TRUE(Eventually([&] { return LogText().find("deny exec " + unknown.string()) != std::string::npos; }));

    ASSERT_EQ(Zorv({"mode", "log-only"}), 0);
    EXPECT_EQ(RunProgram({unknown}), 0);
    const std::string metrics = Request("{\"command\":\"metrics\"}");
    EXPECT_NE(metrics.find("\"RunAllowedLogOnly\":1"), std::string::npos) << metrics;
}

// A program's name is anyone's choice: a line feed in it must not end the
// denial's line and let the rest pass for a line of the daemon's own.
TEST_F(Zorvd, ADenialOfAProgramNamedWithALineFeedIsOneLine) {
    const fs::path forged = Copy("/usr/bin/true", "x\nzorvd info: allow exec \x1b[2J");
    StartDaemon("enforce");
    EXPECT_EQ(RunProgram({forged}), 126);
    const std::string shown = (m_mount / "x\\nzorvd info: allow exec \\x1b[2J").string();
    EXPECT_TRUE(Eventually([&] { return LogText().find("deny exec " + shown) != std::string::npos; })) << LogText();
    const std::string log = LogText();
    for (size_t at = 0; (at = log.find('\n', at)) != std::string::npos; ++at)
        EXPECT_NE(log.compare(at + 1, 18, "zorvd info: allow "), 0) << log;
    EXPECT_EQ(log.find('\x1b'), std::string::npos) << log;
}

TEST_F(Zorvd, DenialsNameTheUserAndGroupTheProgramRanAs) {
    const fs::path unknown = Copy("/usr/bin/true", "unknown");
    chmod(m_root.c_str(), 0755);  // so that another user reaches the mount
    StartDaemon("enforce");
    const std::pair<uid_t, gid_t> cases[] = {{0, 0}, {65534, 65534}, {0, 65534}, {65534, 0}};
    for (const auto& [uid, gid] : cases) {
        const struct passwd* user = getpwuid(uid);
        const struct group* group = getgrgid(gid);
        const std::string wanted = "user=" + (user ? std::string(user->pw_name) : std::to_string(uid)) +
                                   " group=" + (group ? std::string(group->gr_name) : std::to_string(gid));
        const size_t before = LogText().size();
        EXPECT_EQ(RunProgram({unknown}, 10000, "/dev/null", {uid, gid}), 126) << wanted;
        EXPECT_TRUE(Eventually([&] { return LogText().find(wanted, before) != std::string::npos; }))
            << wanted << "\n" << LogText().substr(before);
    }
}

TEST_F(Zorvd, InventoriedProgramRunsAndRewrittenOneLosesItsVerdict) {
    const fs::path program = Copy("/usr/bin/true", "known");
    StartDaemon("enforce");
    Inventory({{program, "/usr/bin/true"}});
    EXPECT_EQ(RunProgram({program}), 0);
    EXPECT_EQ(RunProgram({program}), 0);  // again, from the digest cache

    // Same inode, new content: the old digest's trust must not carry over.
    const std::string other = "/usr/bin/false";
    std::ifstream in(other, std::ios::binary);
    std::ofstream(program, std::ios::binary | std::ios::trunc) << in.rdbuf();
    EXPECT_EQ(RunProgram({program}), 126);
}

// A program run again is answered from the engine's allow cache; every way
// of putting other content behind its path, and a change of rules, must
// send it the whole way again.
TEST_F(Zorvd, ARunAnsweredFromTheAllowCacheIsJudgedAgainOnceItsFileOrTheRulesChange) {
    StartDaemon("enforce");
    const fs::path other = Copy("/usr/bin/false", "other");
    const std::pair<const char*, std::function<void(const fs::path&)>> changes[] = {
        {"rewritten in place",
         [&](const fs::path& program) {
             std::ifstream in("/usr/bin/false", std::ios::binary);
             std::ofstream(program, std::ios::binary | std::ios::trunc) << in.rdbuf();
         }},
        {"renamed over", [&](const fs::path& program) { fs::rename(Copy("/usr/bin/false", "incoming"), program); }},
        {"removed and linked again",
         [&](const fs::path& program) {
             fs::remove(program);
             fs::create_hard_link(other, program);
         }},
        {"rules replaced", [&](const fs::path&) { Inventory({{other, "/usr/bin/false"}}, false); }},
    };
    for (const auto& [change, apply] : changes) {
        const fs::path program = Copy("/usr/bin/true", "known");
        Inventory({{program, "/usr/bin/true"}}, false);
        const double before = StatusNumber("allow_cache_answers");
        EXPECT_EQ(RunProgram({program}), 0) << change;
        EXPECT_EQ(RunProgram({program}), 0) << change;
        EXPECT_EQ(StatusNumber("allow_cache_answers"), before + 1) << change;
        apply(program);
        EXPECT_EQ(RunProgram({program}), 126) << change;
        fs::remove(program);
    }
}

TEST_F(Zorvd, ScriptsAndLoaderRunsAreDecided) {
    const fs::path program = Copy("/usr/bin/true", "unknown");
    const fs::path script = Write("unknown.sh", "exit 0\n");
    const fs::path hashBang = Write("hashbang", "#!/bin/sh\nexit 0\n");
    const fs::path knownScript = Write("known.sh", "exit 0 # known\n");
    const std::string loader = fs::exists("/lib64/ld-linux-x86-64.so.2") ? "/lib64/ld-linux-x86-64.so.2"
                                                                          : "/lib/ld-linux-aarch64.so.1";
    StartDaemon("enforce");
    Inventory({{knownScript, knownScript}});
    const struct {
        std::vector<std::string> argv;
        bool allowed;
    } cases[] = {
        {{"/bin/bash", script}, false},
        {{"/bin/bash", knownScript}, true},
        {{"/usr/bin/cat", script}, true},
        {{"/usr/bin/cat", hashBang}, true},
        {{loader, program}, false},
        {{hashBang}, false},
    };
    for (const auto& run : cases) {
        const int status = RunProgram(run.argv);
        EXPECT_EQ(status == 0, run.allowed) << run.argv.back() << " exited " << status;
    }
}

TEST_F(Zorvd, UnknownSharedLibraryFailsToLoadUnderEnforce) {
    const fs::path unknown = Copy(ZORV_LIBRARY_FILE, "libunknown.so");
    const fs::path known = Copy(ZORV_LIBRARY_FILE, "libknown.so");
    // One byte more makes a library with a digest of its own.
    std::ofstream(unknown, std::ios::binary | std::ios::app) << '\n';
    StartDaemon("enforce");
    Inventory({{known, ZORV_LIBRARY_FILE}});
    EXPECT_EQ(RunProgram({ZORVD_DLOPEN_PROBE, known}), 0);
    EXPECT_EQ(RunProgram({ZORVD_DLOPEN_PROBE, unknown}), 1);
}

TEST_F(Zorvd, APlainFileLetThroughIsJudgedOnceRewrittenAsALibrary) {
    const fs::path file = m_mount / "data.so";
    std::ofstream(file) << "plain text\n";
    StartDaemon("enforce");
    // Opened twice as plain text: from the second open on it is let through
    // without asking, until it is written.
    for (int i = 0; i < 3; ++i) ASSERT_EQ(RunProgram({"/usr/bin/cat", file.string()}), 0);
    {
        std::ifstream in(ZORV_LIBRARY_FILE, std::ios::binary);
        std::ofstream out(file, std::ios::binary | std::ios::trunc);
        out << in.rdbuf() << '\n';  // a digest no inventory holds
    }
    EXPECT_EQ(RunProgram({ZORVD_DLOPEN_PROBE, file.string()}), 1);
}

TEST_F(Zorvd, TrustedUpdaterWriteThenExecIsAllowed) {
    std::ofstream(m_root / "trust.json") << R"({"Trustrules":[{"processName":"/usr/bin/cp","trustType":1}]})";
    StartDaemon("enforce");
    for (int round = 0; round < 5; ++round) {
        const std::string target = (m_mount / ("fresh" + std::to_string(round))).string();
        ASSERT_EQ(RunProgram({"/usr/bin/cp", "/usr/bin/true", target}), 0);
        EXPECT_EQ(RunProgram({target}), 0) << "round " << round << "\n" << LogText();
    }
    // As dpkg installs: written under a temporary name, renamed into place.
    const std::string staged = (m_mount / "installed.dpkg-new").string();
    const std::string installed = (m_mount / "installed").string();
    ASSERT_EQ(RunProgram({"/usr/bin/cp", "/usr/bin/echo", staged}), 0);
    ASSERT_EQ(std::rename(staged.c_str(), installed.c_str()), 0);
    EXPECT_EQ(RunProgram({installed}), 0) << LogText();
    // The test itself is no trusted updater.
    const fs::path untrusted = Copy("/usr/bin/false", "untrusted");
    EXPECT_EQ(RunProgram({untrusted}), 126);
}

// A trusted updater any user can run would let every user bring in programs:
// `dpkg-deb -x` of their own package, or a write handed on to an updater
// through an inherited descriptor. The shipped rules name root as the user.
TEST_F(Zorvd, ATrustedUpdaterRunByAnotherUserIsNoTrustedUpdater) {
    struct Case {
        const char* ruleUser;  // nullptr: the rule names no user
        uid_t writer;
        int execStatus;
    } cases[] = {{nullptr, 0, 0}, {nullptr, 65534, 0}, {"root", 0, 0}, {"root", 65534, 126}};
    // Where the other user can write: the folders above it must let them through.
    chmod(m_root.c_str(), 0755);
    const fs::path shared = m_mount / "shared";
    fs::create_directories(shared);
    fs::permissions(shared, fs::perms::all);
    int round = 0;
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string("rule user ") + (c.ruleUser ? c.ruleUser : "(any)") + ", writer uid " +
                     std::to_string(c.writer));
        std::ofstream(m_root / "trust.json")
            << R"({"Trustrules":[{"processName":"/usr/bin/cp","trustType":1)"
            << (c.ruleUser ? std::string(R"(,"user":")") + c.ruleUser + "\"" : std::string()) << "}]}";
        StartDaemon("enforce");
        const std::string target = (shared / ("written" + std::to_string(round++))).string();
        ASSERT_EQ(RunProgram({"/usr/bin/cp", "/usr/bin/true", target}, 10000, "/dev/null", {c.writer, c.writer}), 0);
        EXPECT_EQ(RunProgram({target}), c.execStatus) << LogText();
        StopDaemon(SIGTERM);
        for (const char* suffix : {"", "-wal", "-shm"}) fs::remove(Store() + suffix);
    }
}

// A trusted updater that has exited, and been reaped, before its write is
// judged is still known as the user it ran as: an updater's helper that
// writes a file and quits must not leave a program that will not start.
TEST_F(Zorvd, AWriteJudgedAfterItsWriterIsGoneKeepsTheWritersUser) {
    std::ofstream(m_root / "trust.json")
        << R"({"Trustrules":[{"processName":"/usr/bin/cp","trustType":1,"user":"root"}]})";
    StartDaemon("enforce", "deadline_ms = 5000\n", {"ZORVD_FAULT_STALL_MS=300"});
    for (int round = 0; round < 3; ++round) {
        const std::string target = (m_mount / ("fresh" + std::to_string(round))).string();
        // Reaped when this returns; its write is judged 300 ms later.
        ASSERT_EQ(RunProgram({"/usr/bin/cp", "/usr/bin/true", target}), 0);
        EXPECT_EQ(RunProgram({target}), 0) << "round " << round << "\n" << LogText();
    }
}

TEST_F(Zorvd, StalledEngineIsAnsweredAtTheDeadline) {
    const fs::path unknown = Copy("/usr/bin/true", "unknown");
    for (const char* answer : {"allow", "deny"}) {
        StartDaemon("enforce", std::string("deadline_ms = 300\non_deadline = \"") + answer + "\"\n",
                    {"ZORVD_FAULT_STALL_MS=5000"});
        const auto started = Clock::now();
        EXPECT_EQ(RunProgram({unknown}), std::strcmp(answer, "allow") == 0 ? 0 : 126) << answer;
        EXPECT_LT(Clock::now() - started, std::chrono::milliseconds(3000)) << answer;
        EXPECT_EQ(StatusNumber("deadline_answers"), 1) << answer;
        StopDaemon(SIGKILL);
    }
}

// An engine that cannot decide gets `on_error`'s answer: by default closed
// under enforce and open under log-only; counted either way.
TEST_F(Zorvd, AnEngineErrorGetsTheFailureAnswer) {
    const fs::path known = Copy("/usr/bin/true", "known");
    const struct {
        const char* mode;
        const char* onError;  // empty: the default
        int execStatus;
    } cases[] = {{"enforce", "", 126}, {"log-only", "", 0}, {"enforce", "allow", 0}, {"log-only", "deny", 126}};
    for (const auto& c : cases) {
        const std::string extra = *c.onError ? std::string("on_error = \"") + c.onError + "\"\n" : "";
        StartDaemon(c.mode, extra, {"ZORVD_FAULT_ENGINE_ERROR=1"});
        Inventory({{known, "/usr/bin/true"}});
        EXPECT_EQ(RunProgram({known}), c.execStatus) << c.mode << " " << c.onError;
        EXPECT_EQ(StatusNumber("error_answers"), 1) << c.mode << " " << c.onError;
        StopDaemon(SIGKILL);
    }
}

TEST_F(Zorvd, StoppingOrKillingTheDaemonReleasesAWaitingExec) {
    const fs::path unknown = Copy("/usr/bin/true", "unknown");
    for (int signal : {SIGTERM, SIGKILL}) {
        StartDaemon("enforce", "deadline_ms = 60000\n", {"ZORVD_FAULT_STALL_MS=30000"});
        int status = -2;
        std::thread waiter([&] { status = RunProgram({unknown}, 15000); });
        std::this_thread::sleep_for(std::chrono::milliseconds(500));
        const auto stopped = Clock::now();
        kill(m_daemon, signal);
        waiter.join();
        EXPECT_EQ(status, 0) << "signal " << signal;
        EXPECT_LT(Clock::now() - stopped, std::chrono::seconds(5)) << "signal " << signal;
        StopDaemon(SIGKILL);
    }
}

TEST_F(Zorvd, ControlSocketRefusesANonRootClient) {
    StartDaemon("log-only");
    // Even with the file mode opened up, the peer's credentials decide.
    ASSERT_EQ(chmod(Socket().c_str(), 0666), 0);
    chmod(m_root.c_str(), 0755);
    chmod((m_root / "state").c_str(), 0755);
    const pid_t child = fork();
    if (child == 0) {
        if (setgid(65534) != 0 || setuid(65534) != 0) _exit(3);
        const std::string reply = Request("{\"command\":\"mode\",\"mode\":\"enforce\"}");
        _exit(reply.find("\"ok\":false") != std::string::npos && reply.find("refused") != std::string::npos ? 0 : 1);
    }
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "child status " << status;
    EXPECT_NE(Request("{\"command\":\"status\"}").find("\"mode\":\"log-only\""), std::string::npos);
}

TEST_F(Zorvd, DeletesAndRenamesOnTheMountReachTheInventory) {
    StartDaemon("log-only");
    ASSERT_EQ(Zorv({"maintenance", "--for", "10m"}), 0);
    // Written in a maintenance window, the three are learned. Their directory
    // is in mixed case, as Linux paths may be.
    fs::create_directory(m_mount / "Dir");
    Copy("/usr/bin/true", "Dir/kept");
    const fs::path renamed = Copy("/usr/bin/true", "Dir/renamed");
    const fs::path deleted = Copy("/usr/bin/false", "Dir/deleted");
    const std::vector<std::string> learned = {"deleted", "kept", "renamed"};
    ASSERT_TRUE(Eventually([&] { return InventoryNames() == learned; })) << ::testing::PrintToString(InventoryNames());

    fs::rename(renamed, m_mount / "Dir/moved");
    fs::remove(deleted);
    const std::vector<std::string> after = {"kept", "moved"};
    EXPECT_TRUE(Eventually([&] { return InventoryNames() == after; })) << ::testing::PrintToString(InventoryNames());
    EXPECT_EQ(StatusNumber("events.rename"), 1);
    EXPECT_EQ(StatusNumber("events.delete"), 1);
}

// How often the daemon's thread named `name` has slept and woken so far
// (its voluntary context switches); -1 when there is no such thread.
long ThreadWakes(pid_t daemon, const std::string& name) {
    for (const auto& task : fs::directory_iterator("/proc/" + std::to_string(daemon) + "/task")) {
        std::ifstream comm(task.path() / "comm");
        std::string line;
        if (!std::getline(comm, line) || line != name) continue;
        std::ifstream status(task.path() / "status");
        while (std::getline(status, line))
            if (line.rfind("voluntary_ctxt_switches:", 0) == 0) return std::atol(line.c_str() + 24);
    }
    return -1;
}

TEST_F(Zorvd, AnIdleDaemonSleepsAndAMaintenanceWindowEndsOnTime) {
    StartDaemon("log-only");
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    const long before = ThreadWakes(m_daemon, "zorvd-watchdog");
    ASSERT_GE(before, 0);
    std::this_thread::sleep_for(std::chrono::seconds(2));
    // Idle, the watchdog looks twice a second at most (a 2 ms period woke it
    // a thousand times here).
    EXPECT_LE(ThreadWakes(m_daemon, "zorvd-watchdog") - before, 10);

    ASSERT_EQ(Zorv({"maintenance", "--for", "1"}), 0);
    EXPECT_NE(Request("{\"command\":\"status\"}").find("\"maintenance\":true"), std::string::npos);
    const auto started = Clock::now();
    ASSERT_TRUE(Eventually([&] {
        return Request("{\"command\":\"status\"}").find("\"maintenance\":false") != std::string::npos;
    }));
    EXPECT_LT(Clock::now() - started, std::chrono::milliseconds(1500));
    EXPECT_TRUE(Eventually([&] { return LogText().find("maintenance window over") != std::string::npos; }));
}

TEST_F(Zorvd, HangupReloadsTheMode) {
    const fs::path unknown = Copy("/usr/bin/true", "unknown");
    StartDaemon("enforce");
    const struct {
        const char* mode;
        int exitStatus;
    } steps[] = {{"log-only", 0}, {"enforce", 126}, {"log-only", 0}};
    for (const auto& step : steps) {
        WriteConfig(step.mode, "");
        ASSERT_EQ(kill(m_daemon, SIGHUP), 0);
        const std::string wanted = std::string("\"mode\":\"") + step.mode + "\"";
        ASSERT_TRUE(Eventually([&] { return Request("{\"command\":\"status\"}").find(wanted) != std::string::npos; }))
            << step.mode << "\n" << LogText();
        EXPECT_EQ(RunProgram({unknown}), step.exitStatus) << step.mode;
    }
}

// Through the daemon, the Prometheus text carries the daemon's own figures
// after the engine's: what an operator alerts on (denials, deadline answers,
// dropped log lines, ways to run unseen) in the same well-formed text.
TEST_F(Zorvd, PrometheusMetricsCarryTheDaemonsFigures) {
    const fs::path known = Copy("/usr/bin/true", "known");
    const fs::path unknown = Copy("/usr/bin/true", "unknown");
    std::ofstream(unknown, std::ios::binary | std::ios::app) << '\n';
    StartDaemon("enforce");
    Inventory({{known, "/usr/bin/true"}});
    ASSERT_EQ(RunProgram({known}), 0);
    ASSERT_EQ(RunProgram({unknown}), 126);
    const std::string output = (m_root / "metrics.prom").string();
    ASSERT_EQ(Zorv({"metrics", "--prometheus"}, output), 0);
    const std::string text = FileText(output);
    size_t samples = 0;
    for (const std::string& problem : zorv::testing::PrometheusProblems(text, samples)) ADD_FAILURE() << problem;
    for (const char* line : {"zorv_dbinfo_execution_rules 1\n", "zorvd_denied_total 1\n",
                             "zorvd_deadline_answers_total 0\n", "zorvd_events_total{kind=\"exec\"} 2\n",
                             "zorvd_enforcing 1\n", "zorvd_log_lines_dropped_total 0\n"})
        EXPECT_NE(text.find(line), std::string::npos) << line << "\n" << text;
}

TEST_F(Zorvd, PsListsARunningProgramTheNewRulesNoLongerAllow) {
    const fs::path sleeper = Copy("/usr/bin/sleep", "sleeper");
    const fs::path other = Copy("/usr/bin/true", "other");
    StartDaemon("enforce");
    Inventory({{sleeper, "/usr/bin/sleep"}});
    const pid_t running = Spawn({sleeper, "30"});
    ASSERT_TRUE(Eventually([&] {
        std::error_code ignored;
        return fs::read_symlink("/proc/" + std::to_string(running) + "/exe", ignored) == sleeper;
    }));
    const std::string listing = (m_root / "ps.txt").string();
    const auto listed = [&] {
        EXPECT_EQ(Zorv({"ps"}, listing), 0);
        std::ifstream in(listing);
        const std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        return text.find(std::to_string(running) + "  unknown  root  " + sleeper.string()) != std::string::npos;
    };
    EXPECT_FALSE(listed());
    Inventory({{other, "/usr/bin/true"}}, false);  // the ruleset now holds another program only
    EXPECT_TRUE(listed());
    EXPECT_EQ(waitpid(running, nullptr, WNOHANG), 0) << "ps must not touch the process";
    kill(running, SIGKILL);
    waitpid(running, nullptr, 0);
}

// A filesystem mounted into the watched tree after the start, as a disk or a
// stick would be, is watched from then on. Unmounted, it is let go: nothing
// of the daemon's holds it, and one mounted again in its place (perhaps with
// the same device number) is watched again. The last has a space in its
// name, which the kernel's mount table escapes.
TEST_F(Zorvd, AFilesystemMountedLaterIsWatchedAndLetGo) {
    StartDaemon("enforce");
    for (int round = 0; round < 3; ++round) {
        const fs::path point = m_mount / (round < 2 ? "stick" : "usb stick");
        fs::create_directories(point);
        const auto watched = [&] {
            return Request("{\"command\":\"status\"}").find("\"" + point.string() + "\"") != std::string::npos;
        };
        ASSERT_EQ(mount("tmpfs", point.c_str(), "tmpfs", 0, "size=16m,mode=0755"), 0) << std::strerror(errno);
        ASSERT_TRUE(Eventually(watched)) << "round " << round << "\n" << LogText();
        const fs::path unknown = point / "unknown";
        fs::copy_file("/usr/bin/true", unknown);
        fs::permissions(unknown, fs::perms::owner_all);
        EXPECT_EQ(RunProgram({unknown}), 126) << "round " << round;
        EXPECT_TRUE(Eventually([&] { return umount2(point.c_str(), 0) == 0; }))
            << "round " << round << ": " << std::strerror(errno);
        EXPECT_TRUE(Eventually([&] { return !watched(); })) << "round " << round;
    }
}

// What the daemon reports as not enforced is what really runs unseen here,
// under enforce: a program run from memory, and one run by an ordinary user
// from a filesystem mounted in a namespace of their own over the watched
// tree. Each is either refused by the kernel or named in the status (a
// sandbox may refuse what the machine's settings allow: naming too much is
// the safe side).
TEST_F(Zorvd, WhatRunsUnseenIsReported) {
    const std::string program = FileText("/usr/bin/true");
    const fs::path own = m_mount / "own";
    fs::create_directories(own);
    // The user reaches the mount point through the test's folder.
    fs::permissions(m_root, fs::perms::owner_all | fs::perms::group_exec | fs::perms::others_exec);
    StartDaemon("enforce");
    const std::string status = Request("{\"command\":\"status\"}");
    ASSERT_NE(status.find("\"exposures\":["), std::string::npos) << status;
    char* const argv[] = {const_cast<char*>("true"), nullptr};
    const int fromMemory = InChild([&] {
        constexpr unsigned kMfdExec = 0x10;  // older headers lack MFD_EXEC
        int fd = memfd_create("zorvd-test", kMfdExec);
        if (fd < 0 && errno == EINVAL) fd = memfd_create("zorvd-test", 0);
        if (fd < 0 || !WriteAll(fd, program)) return 100;
        fexecve(fd, argv, environ);
        return 126;
    });
    if (fromMemory == 0) EXPECT_NE(status.find("memfd_create"), std::string::npos) << status;
    const int fromOwnMount = InChild([&] {
        // Dumpable again after the change of user, as a user's own process
        // is: its /proc files are then its own to write.
        if (setgid(65534) != 0 || setuid(65534) != 0 || prctl(PR_SET_DUMPABLE, 1) != 0) return 101;
        if (unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) return 100;
        const auto put = [](const char* path, const std::string& text) {
            const int fd = open(path, O_WRONLY | O_CLOEXEC);
            const bool done = fd >= 0 && WriteAll(fd, text);
            if (fd >= 0) close(fd);
            return done;
        };
        if (!put("/proc/self/setgroups", "deny") || !put("/proc/self/uid_map", "0 65534 1") ||
            !put("/proc/self/gid_map", "0 65534 1"))
            return 103;
        if (mount("tmpfs", own.c_str(), "tmpfs", 0, "size=8m") != 0) return 104;
        const std::string copy = (own / "unknown").string();
        const int fd = open(copy.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0755);
        if (fd < 0 || !WriteAll(fd, program)) return 102;
        close(fd);
        execv(copy.c_str(), argv);
        return 126;
    });
    if (fromOwnMount == 0) EXPECT_NE(status.find("user namespace"), std::string::npos) << status;
}

// A log that stops taking lines (a journal, terminal or pipe that nobody
// reads) holds up no answer: programs are decided as before, lines the log
// cannot take are counted and dropped, and once it drains it says how many.
TEST_F(Zorvd, ALogThatStallsHoldsUpNoAnswer) {
    const fs::path known = Copy("/usr/bin/true", "known");
    const fs::path unknown = Copy("/usr/bin/true", "unknown");
    std::ofstream(unknown, std::ios::binary | std::ios::app) << '\n';
    int log[2];
    ASSERT_EQ(pipe2(log, O_CLOEXEC), 0);
    fcntl(log[1], F_SETPIPE_SZ, 4096);  // full after a few lines
    m_daemonStderr = log[1];
    StartDaemon("enforce", "deadline_ms = 3000\non_deadline = \"allow\"\nlog_level = \"trace\"\n");
    close(log[1]);
    Inventory({{known, "/usr/bin/true"}});
    // Each run logs a denial and the engine's trace lines: enough, within
    // the bound, to fill the daemon's queue behind the stalled pipe.
    int runs = 0;
    for (; runs < 2000 && StatusNumber("log_lines_dropped") <= 0; ++runs) {
        ASSERT_EQ(RunProgram({unknown}, 2000), 126) << "run " << runs;
        ASSERT_EQ(RunProgram({known}, 2000), 0) << "run " << runs;
    }
    EXPECT_GT(StatusNumber("log_lines_dropped"), 0) << runs << " runs";
    EXPECT_EQ(StatusNumber("deadline_answers"), 0);
    // Read again, the log catches up and names what it lost.
    std::string text;
    const auto until = Clock::now() + std::chrono::seconds(10);
    while (text.find("log lines dropped: the log could not keep up") == std::string::npos && Clock::now() < until) {
        struct pollfd ready = {log[0], POLLIN, 0};
        char chunk[65536];
        if (poll(&ready, 1, 100) <= 0) continue;
        const ssize_t got = read(log[0], chunk, sizeof chunk);
        if (got <= 0) break;
        text.append(chunk, static_cast<size_t>(got));
        if (text.size() > (1u << 20)) text.erase(0, text.size() - 4096);  // keeps the tail
    }
    EXPECT_NE(text.find("log lines dropped: the log could not keep up"), std::string::npos);
    close(log[0]);
    EXPECT_TRUE(StopDaemon(SIGTERM, 5000));
}

// One worker held up by a slow engine and a queue of one: further execs are
// answered without the engine, an inventoried program still allowed from the
// digest cache, an unknown one given the deadline's answer.
TEST_F(Zorvd, FullQueueStillAllowsInventoriedPrograms) {
    const fs::path known = Copy("/usr/bin/true", "known");
    const fs::path unknown = Copy("/usr/bin/true", "unknown");
    std::ofstream(unknown, std::ios::binary | std::ios::app) << '\n';
    StartDaemon("enforce", "workers = 1\nqueue_entries = 1\ndeadline_ms = 20000\non_deadline = \"deny\"\n",
                {"ZORVD_FAULT_STALL_MS=1500"});
    Inventory({{known, "/usr/bin/true"}});
    ASSERT_EQ(RunProgram({known}), 0);
    const pid_t inWorker = Spawn({unknown});
    ASSERT_TRUE(Eventually([&] { return StatusNumber("events.exec") == 2 && StatusNumber("queue_depth") == 0; }));
    const pid_t queued = Spawn({unknown});
    ASSERT_TRUE(Eventually([&] { return StatusNumber("queue_depth") == 1; }));
    EXPECT_EQ(RunProgram({known}, 1000), 0);
    EXPECT_EQ(RunProgram({unknown}, 1000), 126);
    EXPECT_EQ(StatusNumber("overflow_answers"), 2);
    for (const pid_t child : {inWorker, queued}) {
        int status = 0;
        EXPECT_TRUE(Eventually([&] { return waitpid(child, &status, WNOHANG) == child; }));
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 126) << "status " << status;
    }
}

}  // namespace

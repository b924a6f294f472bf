// zorvd: the engine enforcing on Linux. Program starts, script and library
// opens reach it as fanotify permission events; written, deleted and renamed
// files as change events. Every permission event is answered exactly once: by
// a worker after the engine's decision, by the watchdog at the deadline, on
// queue overflow, or at shutdown; a daemon that dies releases every waiter
// because the kernel answers for a closed group.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <list>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "Config.h"
#include "Digests.h"

namespace zorvd {

struct FileId {
    dev_t dev = 0;
    ino_t ino = 0;
    bool operator==(const FileId& other) const { return dev == other.dev && ino == other.ino; }
};

struct FileIdHash {
    size_t operator()(const FileId& id) const { return std::hash<uint64_t>()(id.ino * 1000003u ^ id.dev); }
};

// What a file's first bytes make it; decides whether an open is judged.
enum class FileKind : uint8_t { Plain, Elf, Script };

// One permission event in flight. The descriptor stays open until the last
// holder lets go, so a late answer never lands on a reused descriptor.
struct PermissionEvent {
    int fd = -1;
    pid_t pid = 0;
    int pidfd = -1;    // the acting process, when the kernel reported it for a judged event
    uint64_t mask = 0;
    int64_t arrivedNs = 0;
    int64_t deadlineNs = 0;
    std::atomic<bool> answered{false};
    PermissionEvent() = default;
    PermissionEvent(const PermissionEvent&) = delete;
    PermissionEvent& operator=(const PermissionEvent&) = delete;
    ~PermissionEvent();
};

enum class JobKind : uint8_t { Exec, Library, Script, Write };

struct Job {
    JobKind kind = JobKind::Exec;
    std::shared_ptr<PermissionEvent> event;  // Write jobs: the written file's descriptor, never answered
    FileId id;
    std::string program;                     // the program behind the event, taken when the event was read
    bool runUnchecked = false;               // an open not yet asked whether it runs the file
    // Write jobs: the writer's real user and group when its write was read,
    // for a writer gone (and reaped) before the write is judged.
    bool credentialsKnown = false;
    uid_t uid = 0;
    gid_t gid = 0;
};

// A bounded queue of jobs; Push refuses when full instead of waiting.
class JobQueue {
public:
    explicit JobQueue(size_t limit) : m_limit(limit) {}
    bool Push(Job job);
    bool Pop(Job& job, const std::atomic<bool>& stopping);
    void Wake();
    size_t Depth();
    std::deque<Job> TakeAll();

private:
    std::mutex m_mutex;
    std::condition_variable m_ready;
    std::deque<Job> m_jobs;
    size_t m_limit;
};

struct CachedDigest {
    uint64_t size = 0;
    int64_t mtimeNs = 0;
    int64_t ctimeNs = 0;
    Digests digests{};
    bool execAllowed = false;  // the last exec judgement of this content allowed it
    // Where the inventory last allowed this content to run or load; empty
    // when its last judgement did not.
    std::string allowedAt;
};

// Digests by (device, inode), valid while size, mtime and ctime are unchanged;
// the oldest entries leave first when the bound is reached.
class DigestCache {
public:
    explicit DigestCache(size_t limit) : m_limit(limit) {}
    bool Find(const FileId& id, const struct stat& status, CachedDigest& out);
    void Store(const FileId& id, const struct stat& status, const Digests& digests);
    // After a judgement of `kind` at `path`; `inventoryAllowed` when the
    // inventory allowed it (the engine then keeps it in its allow cache).
    void MarkJudged(const FileId& id, const struct stat& status, JobKind kind, const std::string& path,
                    bool inventoryAllowed);
    // Whether the inventory last allowed this very content, at some path.
    bool AllowedSomewhere(const FileId& id, const struct stat& status);
    void Drop(const FileId& id);
    size_t Size();

private:
    std::mutex m_mutex;
    std::unordered_map<FileId, CachedDigest, FileIdHash> m_entries;
    std::deque<FileId> m_order;
    size_t m_limit;
};

// Latency in microseconds, on a log-scale histogram good to about 5%.
class LatencyHistogram {
public:
    void Record(uint64_t micros);
    uint64_t Percentile(double fraction);
    uint64_t Max() { return m_max.load(); }

private:
    static constexpr int kBuckets = 400;
    static int Bucket(uint64_t micros);
    static uint64_t BucketValue(int bucket);
    std::atomic<uint64_t> m_counts[kBuckets]{};
    std::atomic<uint64_t> m_max{0};
};

struct Counters {
    std::atomic<uint64_t> exec{0}, open{0}, script{0}, library{0}, write{0}, remove{0}, rename{0};
    std::atomic<uint64_t> allowed{0}, denied{0}, deadline{0}, overflow{0}, error{0}, kernelOverflow{0};
    std::atomic<uint64_t> ownAccess{0}, plainOpens{0}, allowCacheAnswers{0};
};

class Daemon {
public:
    Daemon(Config config, std::string configPath);
    ~Daemon();
    // Runs until SIGTERM or SIGINT; returns the process's exit status.
    int Run();

private:
    struct Watched {
        std::string path;
        dev_t dev = 0;
        // The watched directory, for resolving file handles. A filesystem
        // watched after the start has none: held, it could not be unmounted.
        int fd = -1;
        uint64_t fsid = 0;
        bool mountedSince = false;  // watched after the start, as it appeared
    };

    bool StartEngine();
    bool ApplyPolicy(bool probeManifest);
    void ImportManifest();
    bool SetupFanotify();
    // Whether the filesystem mounted at `point` (of `type`) is to be watched.
    bool InScope(const std::string& point, const std::string& type) const;
    // Marks the filesystems in scope that the start did not watch (mounted
    // since, or below a listed path), and forgets those no longer mounted.
    void WatchNewMounts();
    bool OpenControlSocket();
    void Reload();
    void Shutdown();

    void ReaderLoop();
    void NotifyLoop();
    void WorkerLoop();
    void WriteLoop();
    void WatchdogLoop();
    void MountsLoop();
    // Makes the watchdog look again at what it sleeps for.
    void WakeWatchdog();
    void ControlLoop();

    void HandlePermission(std::shared_ptr<PermissionEvent> event);
    void HandleWrite(int fd, pid_t pid, int pidfd);
    // Lets the plain file behind `fd` be opened without asking, until it is
    // written, unless it changed since `classified` was taken.
    void IgnoreWhileUnchanged(int fd, const struct stat& classified);
    void Decide(Job& job);
    void JudgeWrite(Job& job);
    bool Respond(PermissionEvent& event, bool allow, bool audit);
    void AnswerAtDeadline(PermissionEvent& event);
    void AnswerOverflow(const std::shared_ptr<PermissionEvent>& event, const FileId& id);
    // `known`, when given, tells whether the kind was already cached.
    FileKind Classify(int fd, const struct stat& status, bool* known = nullptr);
    // `allowedAt`: where the inventory last allowed this content, if it did.
    bool DigestsOf(int fd, const FileId& id, const struct stat& status, Digests& out, std::string* allowedAt = nullptr);
    bool AllowedByCache(const PermissionEvent& event, const std::string& target, const std::string& program);
    // Answers an exec; an allowed one lets its own open through.
    bool AnswerExec(PermissionEvent& event, const FileId& id, bool allow, bool audit);
    bool TakeExecOpen(pid_t pid, const FileId& id);
    // False when the write is still unjudged at the deadline.
    bool WaitForPendingWrite(const FileId& id, int64_t deadlineNs);
    void FinishPendingWrite(const FileId& id);
    std::string ProgramOf(pid_t pid);
    bool IsIgnored(const std::string& path) const;
    // What runs unseen here: the machine's settings and the network and FUSE
    // mounts in the watched tree that no watch path names.
    std::vector<std::string> Exposures() const;
    uint64_t PermissionMask() const;

    std::string HandleControlRequest(const std::string& line);
    std::string StatusJson();
    std::string PsJson();

    Config m_config;
    std::string m_configPath;
    std::mutex m_policyMutex;  // mode, maintenance and imports change one at a time
    bool m_maintenance = false;

    int m_permissionFd = -1;
    int m_notifyFd = -1;
    int m_stopFd = -1;  // eventfd: wakes the loops that poll
    int m_controlFd = -1;
    std::mutex m_watchedMutex;  // guards m_watched once the threads run
    std::vector<Watched> m_watched;
    std::atomic<bool> m_stopping{false};
    std::atomic<bool> m_enforce{false};
    std::atomic<uint32_t> m_deadlineMs{1000};
    int64_t m_startNs = 0;
    bool m_audit = false;
    std::atomic<int64_t> m_readerBeat{0};
    std::atomic<int64_t> m_maintenanceUntilNs{0};
    uint32_t m_stallMs = 0;  // ZORVD_FAULT_STALL_MS: a deliberately slow engine, for the deadline tests
    // ZORVD_FAULT_ENGINE_ERROR: every start put to the engine as one it must
    // refuse to decide, for the tests of the failure answer.
    bool m_engineErrors = false;

    JobQueue m_jobs;
    JobQueue m_writes;
    DigestCache m_digests;
    LatencyHistogram m_latency;
    Counters m_counters;

    std::mutex m_inflightMutex;  // guards the three members below
    std::deque<std::shared_ptr<PermissionEvent>> m_inflight;
    std::condition_variable m_watchdogWake;  // an earlier deadline, a maintenance window, or the stop
    int64_t m_watchdogSleepsUntilNs = 0;     // 0 while the watchdog is awake and looks again before it sleeps

    std::mutex m_pendingMutex;
    std::condition_variable m_pendingDone;
    std::unordered_map<FileId, int, FileIdHash> m_pendingWrites;

    std::mutex m_kindMutex;
    // Keyed by size and both times as well: where times are coarse, a file
    // created empty and written at once keeps its change time.
    struct KindEntry {
        int64_t ctimeNs;
        int64_t mtimeNs;
        off_t size;
        FileKind kind;
    };
    std::unordered_map<FileId, KindEntry, FileIdHash> m_kinds;

    std::mutex m_programMutex;
    struct ProgramEntry {
        std::string program;
        int64_t seenNs;
    };
    std::unordered_map<pid_t, ProgramEntry> m_programs;

    // An exec's own open follows its exec event at once, as an open event of
    // the same file by the same process: once the exec is allowed, that open
    // is let through as part of it. Recorded before the exec's answer, taken
    // by the open; only while opens are watched.
    std::mutex m_execOpenMutex;
    std::unordered_map<pid_t, FileId> m_execOpens;

    std::shared_mutex m_groupMutex;
    std::thread m_reader;
    std::vector<std::thread> m_threads;
};

int64_t NowNs();

}  // namespace zorvd

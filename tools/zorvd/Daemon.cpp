#include "Daemon.h"

#include <dirent.h>
#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <pthread.h>
#include <pwd.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/fanotify.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <shared_mutex>
#include <sstream>
#include <unordered_map>

#include <cjson/cJSON.h>
#include <systemd/sd-daemon.h>

#include "ControlProtocol.h"
#include "HostText.h"
#include "Log.h"
#include "Mounts.h"
#include "zorv/zorv.h"

// Debian 12's headers predate some of the names this kernel offers.
#ifndef FAN_REPORT_PIDFD
#define FAN_REPORT_PIDFD 0x00000080
#endif
#ifndef FAN_EVENT_INFO_TYPE_PIDFD
#define FAN_EVENT_INFO_TYPE_PIDFD 4
#endif
#ifndef FAN_RENAME
#define FAN_RENAME 0x10000000
#endif
#ifndef FAN_EVENT_INFO_TYPE_OLD_DFID_NAME
#define FAN_EVENT_INFO_TYPE_OLD_DFID_NAME 10
#endif
#ifndef FAN_EVENT_INFO_TYPE_NEW_DFID_NAME
#define FAN_EVENT_INFO_TYPE_NEW_DFID_NAME 12
#endif
#ifndef FAN_ENABLE_AUDIT
#define FAN_ENABLE_AUDIT 0x00000040
#endif
#ifndef FAN_MARK_EVICTABLE
#define FAN_MARK_EVICTABLE 0x00000200
#endif
#ifndef FAN_AUDIT
#define FAN_AUDIT 0x10
#endif

namespace zorvd {

int64_t NowNs() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

namespace {

constexpr uint64_t kPermissionMask = FAN_OPEN_PERM | FAN_OPEN_EXEC_PERM | FAN_ACCESS_PERM;
// The programs of recent processes, for the close-writes of those already gone.
constexpr size_t kProgramEntries = 16384;
constexpr int64_t kProgramKeptNs = 10'000'000'000LL;

int64_t TimeNs(const struct timespec& time) { return time.tv_sec * 1000000000LL + time.tv_nsec; }

uint64_t WallMs() {
    return static_cast<uint64_t>(
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::system_clock::now().time_since_epoch())
            .count());
}

// `dir` is AT_FDCWD or a directory `path` is relative to.
std::string ReadLinkAt(int dir, const char* path) {
    char buffer[PATH_MAX];
    const ssize_t length = readlinkat(dir, path, buffer, sizeof buffer - 1);
    if (length <= 0) return {};
    std::string text(buffer, static_cast<size_t>(length));
    static const std::string kDeleted = " (deleted)";
    if (text.size() > kDeleted.size() && text.compare(text.size() - kDeleted.size(), kDeleted.size(), kDeleted) == 0)
        text.resize(text.size() - kDeleted.size());
    return text;
}

std::string ReadLink(const std::string& path) { return ReadLinkAt(AT_FDCWD, path.c_str()); }

// Through /proc/self/fd opened once: a path from the root walks /proc and
// "self" again for every file, a third of the cost of the whole lookup.
std::string FdPath(int fd) {
    static const int kFdDir = open("/proc/self/fd", O_PATH | O_DIRECTORY | O_CLOEXEC);
    const std::string name = std::to_string(fd);
    if (kFdDir >= 0) return ReadLinkAt(kFdDir, name.c_str());
    return ReadLink("/proc/self/fd/" + name);
}

std::string ReadSmallFileAt(int dir, const char* path, size_t limit) {
    const int fd = openat(dir, path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return {};
    std::string text(limit, '\0');
    size_t total = 0;
    while (total < limit) {
        const ssize_t got = read(fd, text.data() + total, limit - total);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) break;
        total += static_cast<size_t>(got);
    }
    close(fd);
    text.resize(total);
    return text;
}

std::string ReadProcFile(pid_t pid, const char* name, size_t limit) {
    return ReadSmallFileAt(AT_FDCWD, ("/proc/" + std::to_string(pid) + "/" + name).c_str(), limit);
}

struct ProcessIdentity {
    std::string commandLine;
    std::string user;
    std::string group;
};

// Names of users and groups, remembered for a while: NSS's files backend
// opens and scans /etc/passwd and /etc/group on every call, two file reads
// per event on the path a waiting exec pays for. A name changed in those
// files is seen within kNameKeptNs.
class NameCache {
public:
    template <typename Lookup>
    std::string Find(unsigned id, Lookup lookup) {
        const int64_t now = std::chrono::duration_cast<std::chrono::nanoseconds>(
                                std::chrono::steady_clock::now().time_since_epoch()).count();
        {
            std::lock_guard<std::mutex> hold(m_mutex);
            const auto found = m_names.find(id);
            if (found != m_names.end() && now - found->second.seenNs < kNameKeptNs) return found->second.name;
        }
        std::string name = lookup(id);
        std::lock_guard<std::mutex> hold(m_mutex);
        if (m_names.size() >= kEntries) m_names.clear();
        m_names[id] = Entry{name, now};
        return name;
    }

private:
    static constexpr int64_t kNameKeptNs = 30'000'000'000;
    static constexpr size_t kEntries = 4096;
    struct Entry {
        std::string name;
        int64_t seenNs;
    };
    std::mutex m_mutex;
    std::unordered_map<unsigned, Entry> m_names;
};

std::string UserName(uid_t uid) {
    static NameCache cache;
    return cache.Find(uid, [](unsigned id) {
        struct passwd entry {};
        struct passwd* found = nullptr;
        char buffer[1024];
        if (getpwuid_r(id, &entry, buffer, sizeof buffer, &found) == 0 && found != nullptr) return std::string(found->pw_name);
        return std::to_string(id);
    });
}

std::string GroupName(gid_t gid) {
    static NameCache cache;
    return cache.Find(gid, [](unsigned id) {
        struct group entry {};
        struct group* found = nullptr;
        char buffer[4096];
        if (getgrgid_r(id, &entry, buffer, sizeof buffer, &found) == 0 && found != nullptr) return std::string(found->gr_name);
        return std::to_string(id);
    });
}

// The kernel's pidfd_info in the size it was first published with (Linux
// 6.13); later kernels accept that size and fill what fits. Debian 12's
// headers predate it.
struct PidfdInfo {
    uint64_t mask;
    uint64_t cgroupid;
    uint32_t pid, tgid, ppid, ruid, rgid, euid, egid, suid, sgid, fsuid, fsgid;
    uint32_t spare0;
};
static_assert(sizeof(PidfdInfo) == 64, "PIDFD_INFO_SIZE_VER0");
constexpr uint64_t kPidfdInfoCreds = 1u << 1;
constexpr unsigned long kPidfdGetInfo = _IOWR(0xFF, 11, PidfdInfo);

enum class Credentials { Known, Gone, Unknown };

// The real user and group of the process behind `pidfd`. One ioctl, where
// /proc/<pid>/status has the kernel format some fifty lines each time, the
// largest share of what an exec waits for here. Gone: the process has been
// reaped, and its pid may already name another. Unknown on kernels without
// the ioctl (remembered, so they are not asked again).
Credentials CredentialsOf(int pidfd, uid_t& uid, gid_t& gid) {
    static std::atomic<bool> unsupported{false};
    if (pidfd < 0 || unsupported.load(std::memory_order_relaxed)) return Credentials::Unknown;
    PidfdInfo info{};
    info.mask = kPidfdInfoCreds;
    if (ioctl(pidfd, kPidfdGetInfo, &info) != 0) {
        if (errno == ESRCH) return Credentials::Gone;
        if (errno == ENOTTY || errno == EINVAL || errno == EOPNOTSUPP) unsupported.store(true);
        return Credentials::Unknown;
    }
    if ((info.mask & kPidfdInfoCreds) == 0) return Credentials::Unknown;
    uid = info.ruid;
    gid = info.rgid;
    return Credentials::Known;
}

// The acting process's command line, user and group. Read from /proc, which
// no fanotify mark covers, and from the event's pidfd when there is one; the
// names are looked up through NSS, which may open files: never called on the
// thread that reads events.
ProcessIdentity IdentityOf(pid_t pid, int pidfd = -1) {
    ProcessIdentity identity;
    uid_t uid = 0;
    gid_t gid = 0;
    const Credentials credentials = CredentialsOf(pidfd, uid, gid);
    // Whatever /proc/<pid> shows now belongs to another process, if any.
    if (credentials == Credentials::Gone) return identity;
    std::string line = ReadProcFile(pid, "cmdline", 4096);
    while (!line.empty() && line.back() == '\0') line.pop_back();
    std::replace(line.begin(), line.end(), '\0', ' ');
    identity.commandLine = line;
    if (credentials == Credentials::Known) {
        identity.user = UserName(uid);
        identity.group = GroupName(gid);
        return identity;
    }
    const std::string status = ReadProcFile(pid, "status", 4096);
    const size_t uidAt = status.find("\nUid:");
    const size_t gidAt = status.find("\nGid:");
    if (uidAt != std::string::npos) identity.user = UserName(static_cast<uid_t>(std::strtoul(status.c_str() + uidAt + 5, nullptr, 10)));
    if (gidAt != std::string::npos) identity.group = GroupName(static_cast<gid_t>(std::strtoul(status.c_str() + gidAt + 5, nullptr, 10)));
    return identity;
}

bool HasScriptExtension(const std::string& path) {
    const size_t slash = path.rfind('/');
    const size_t dot = path.rfind('.');
    if (dot == std::string::npos || (slash != std::string::npos && dot < slash)) return false;
    const std::string extension = path.substr(dot + 1);
    static const char* const kScripts[] = {"sh", "bash", "py", "pl", "pm", "rb", "php", "ksh", "csh", "zsh"};
    for (const char* known : kScripts)
        if (extension == known) return true;
    return false;
}

// Whether an open is no run of the file. The permission event does not say
// why a file is opened; the open's own call does, read from /proc while the
// caller waits inside it. An execve's own open of its program follows the
// exec event already judged; a write open (an editor, a linker writing its
// output, a redirection into a script) is not a run either: interpreters read
// their scripts and loaders their libraries read-only.
bool OpenIsNoRun(pid_t pid) {
#if defined(__x86_64__)
    constexpr long kOpen = 2, kCreat = 85, kOpenAt = 257, kExecve = 59, kExecveAt = 322;
#elif defined(__aarch64__)
    constexpr long kOpen = -1, kCreat = -1, kOpenAt = 56, kExecve = 221, kExecveAt = 281;
#else
    constexpr long kOpen = -1, kCreat = -1, kOpenAt = -1, kExecve = -1, kExecveAt = -1;
#endif
    const std::string text = ReadProcFile(pid, "syscall", 256);
    if (text.empty()) return false;
    char* end = nullptr;
    const long number = std::strtol(text.c_str(), &end, 10);
    if (end == text.c_str()) return false;
    if (number == kCreat || number == kExecve || number == kExecveAt) return true;
    const int flagsArgument = number == kOpen ? 1 : number == kOpenAt ? 2 : -1;
    if (flagsArgument < 0) return false;
    unsigned long long argument = 0;
    const char* at = end;
    for (int i = 0; i <= flagsArgument; ++i) {
        char* next = nullptr;
        argument = std::strtoull(at, &next, 16);
        if (next == at) return false;
        at = next;
    }
    return (argument & O_ACCMODE) != O_RDONLY || (argument & O_TRUNC) != 0;
}

// Ways to run a program that no fanotify mark sees, as this machine is set
// up now. They are reported, never closed behind the operator's back: some
// software relies on each (runc on executable memfds, rootless containers
// on user namespaces, sshfs on FUSE).
std::vector<std::string> MachineExposures() {
    std::vector<std::string> found;
    const auto setting = [](const char* path) {
        const std::string text = ReadSmallFileAt(AT_FDCWD, path, 32);
        return text.empty() ? -1L : std::strtol(text.c_str(), nullptr, 10);  // -1: no such setting
    };
    // Older kernels have no such setting, and run any memfd.
    if (setting("/proc/sys/vm/memfd_noexec") != 2)
        found.push_back("programs run from memory (memfd_create, then execveat) are not seen; "
                        "vm.memfd_noexec = 2 refuses them");
    if (setting("/proc/sys/user/max_user_namespaces") > 0 && setting("/proc/sys/kernel/unprivileged_userns_clone") != 0 &&
        setting("/proc/sys/kernel/apparmor_restrict_unprivileged_userns") <= 0)
        found.push_back("any user can mount a filesystem of their own in a user namespace, and what runs from it is "
                        "not seen; user.max_user_namespaces = 0 refuses them");
    for (const char* helper : {"/usr/bin/fusermount3", "/usr/bin/fusermount", "/bin/fusermount3", "/bin/fusermount"}) {
        struct stat status {};
        if (stat(helper, &status) == 0 && (status.st_mode & S_ISUID) != 0) {
            found.push_back(std::string("any user can mount FUSE filesystems (") + helper +
                            " is set-user-ID), which are not watched, and what runs from them is not seen");
            break;
        }
    }
    return found;
}

std::string JsonEscape(const std::string& text) {
    std::unique_ptr<char, decltype(&cJSON_free)> printed(nullptr, cJSON_free);
    cJSON* node = cJSON_CreateString(text.c_str());
    if (node == nullptr) return "\"\"";
    printed.reset(cJSON_PrintUnformatted(node));
    cJSON_Delete(node);
    return printed ? std::string(printed.get()) : "\"\"";
}

// Fills the text fields of an event and keeps their storage alive.
struct EventTexts {
    std::u16string name, oldName, processName, cmdLine, user, group;
    void Attach(AppCtlEvent& event) {
        event.name = name.empty() ? nullptr : name.c_str();
        event.oldName = oldName.empty() ? nullptr : oldName.c_str();
        event.processName = processName.empty() ? nullptr : processName.c_str();
        event.cmdLine = cmdLine.empty() ? nullptr : cmdLine.c_str();
        event.user = user.empty() ? nullptr : user.c_str();
        event.group = group.empty() ? nullptr : group.c_str();
    }
};

const char* ReasonText(const AppCtlResult& result) {
    if (result.dbVerdict == AC_DB_BLOCKED) return result.source == AC_SOURCE_TRUST_RULE ? "blocked by trust rule" : "blocked by rule";
    if (result.dbVerdict == AC_DB_NOT_KNOWN) return "not in the inventory (enforce)";
    return "blocked";
}

}  // namespace

PermissionEvent::~PermissionEvent() {
    if (fd >= 0) close(fd);
    if (pidfd >= 0) close(pidfd);
}

// ---- JobQueue ------------------------------------------------------------

bool JobQueue::Push(Job job) {
    {
        std::lock_guard<std::mutex> hold(m_mutex);
        if (m_jobs.size() >= m_limit) return false;
        m_jobs.push_back(std::move(job));
    }
    m_ready.notify_one();
    return true;
}

bool JobQueue::Pop(Job& job, const std::atomic<bool>& stopping) {
    std::unique_lock<std::mutex> hold(m_mutex);
    while (m_jobs.empty()) {
        if (stopping) return false;
        m_ready.wait_for(hold, std::chrono::milliseconds(500));
    }
    job = std::move(m_jobs.front());
    m_jobs.pop_front();
    return true;
}

void JobQueue::Wake() { m_ready.notify_all(); }

size_t JobQueue::Depth() {
    std::lock_guard<std::mutex> hold(m_mutex);
    return m_jobs.size();
}

std::deque<Job> JobQueue::TakeAll() {
    std::lock_guard<std::mutex> hold(m_mutex);
    std::deque<Job> taken;
    taken.swap(m_jobs);
    return taken;
}

// ---- DigestCache -----------------------------------------------------------

bool DigestCache::AllowedSomewhere(const FileId& id, const struct stat& status) {
    std::lock_guard<std::mutex> hold(m_mutex);
    const auto found = m_entries.find(id);
    return found != m_entries.end() && !found->second.allowedAt.empty() &&
           found->second.size == static_cast<uint64_t>(status.st_size) &&
           found->second.mtimeNs == TimeNs(status.st_mtim) && found->second.ctimeNs == TimeNs(status.st_ctim);
}

bool DigestCache::Find(const FileId& id, const struct stat& status, CachedDigest& out) {
    std::lock_guard<std::mutex> hold(m_mutex);
    const auto found = m_entries.find(id);
    if (found == m_entries.end()) return false;
    const CachedDigest& entry = found->second;
    if (entry.size != static_cast<uint64_t>(status.st_size) || entry.mtimeNs != TimeNs(status.st_mtim) ||
        entry.ctimeNs != TimeNs(status.st_ctim))
        return false;
    out = entry;
    return true;
}

void DigestCache::Store(const FileId& id, const struct stat& status, const Digests& digests) {
    std::lock_guard<std::mutex> hold(m_mutex);
    auto [entry, added] = m_entries.try_emplace(id);
    entry->second.size = static_cast<uint64_t>(status.st_size);
    entry->second.mtimeNs = TimeNs(status.st_mtim);
    entry->second.ctimeNs = TimeNs(status.st_ctim);
    entry->second.digests = digests;
    entry->second.execAllowed = false;
    entry->second.allowedAt.clear();
    if (!added) return;
    m_order.push_back(id);
    while (m_entries.size() > m_limit && !m_order.empty()) {
        m_entries.erase(m_order.front());
        m_order.pop_front();
    }
    // Dropped entries leave their ids behind in the order; keep it bounded too.
    if (m_order.size() > 2 * m_limit) {
        std::deque<FileId> kept;
        for (const FileId& key : m_order)
            if (m_entries.count(key) != 0) kept.push_back(key);
        m_order.swap(kept);
    }
}

void DigestCache::MarkJudged(const FileId& id, const struct stat& status, JobKind kind, const std::string& path,
                             bool inventoryAllowed) {
    std::lock_guard<std::mutex> hold(m_mutex);
    const auto found = m_entries.find(id);
    if (found == m_entries.end() || found->second.ctimeNs != TimeNs(status.st_ctim)) return;
    if (kind == JobKind::Exec) found->second.execAllowed = inventoryAllowed;
    if (inventoryAllowed)
        found->second.allowedAt = path;
    else
        found->second.allowedAt.clear();
}

void DigestCache::Drop(const FileId& id) {
    std::lock_guard<std::mutex> hold(m_mutex);
    m_entries.erase(id);
}

size_t DigestCache::Size() {
    std::lock_guard<std::mutex> hold(m_mutex);
    return m_entries.size();
}

// ---- LatencyHistogram ------------------------------------------------------

int LatencyHistogram::Bucket(uint64_t micros) {
    const int bucket = static_cast<int>(std::log(static_cast<double>(micros) + 1.0) / std::log(1.05));
    return std::min(bucket, kBuckets - 1);
}

uint64_t LatencyHistogram::BucketValue(int bucket) {
    return static_cast<uint64_t>(std::pow(1.05, bucket + 0.5) - 1.0 + 0.5);
}

void LatencyHistogram::Record(uint64_t micros) {
    m_counts[Bucket(micros)].fetch_add(1, std::memory_order_relaxed);
    uint64_t seen = m_max.load(std::memory_order_relaxed);
    while (micros > seen && !m_max.compare_exchange_weak(seen, micros)) {
    }
}

uint64_t LatencyHistogram::Percentile(double fraction) {
    uint64_t total = 0;
    for (const auto& count : m_counts) total += count.load(std::memory_order_relaxed);
    if (total == 0) return 0;
    const uint64_t rank = static_cast<uint64_t>(std::ceil(fraction * static_cast<double>(total)));
    uint64_t seen = 0;
    for (int i = 0; i < kBuckets; ++i) {
        seen += m_counts[i].load(std::memory_order_relaxed);
        if (seen >= rank) return std::min(BucketValue(i), m_max.load());
    }
    return m_max.load();
}

// ---- Daemon ----------------------------------------------------------------

Daemon::Daemon(Config config, std::string configPath)
    : m_config(std::move(config)),
      m_configPath(std::move(configPath)),
      m_jobs(m_config.queueEntries),
      m_writes(65536),
      m_digests(m_config.digestCacheEntries) {}

Daemon::~Daemon() {
    for (int fd : {m_permissionFd, m_notifyFd, m_stopFd, m_controlFd})
        if (fd >= 0) close(fd);
    for (Watched& watched : m_watched)
        if (watched.fd >= 0) close(watched.fd);
}

bool Daemon::StartEngine() {
    std::error_code ignored;
    const std::filesystem::path store(m_config.store);
    if (store.has_parent_path()) std::filesystem::create_directories(store.parent_path(), ignored);
    const std::u16string path = Widen(m_config.store);
    EngineStartParams params{};
    params.dbPath = path.c_str();
    params.logLevel = EngineLogMask(m_config.logLevel);
    params.logCallback = EngineLogLine;
    const uint32_t status = engine_start(&params);
    if (status != AC_OK) {
        Log(Level::Error, "cannot start the engine on %s: status 0x%08x", m_config.store.c_str(), status);
        return false;
    }
    return true;
}

// States the whole policy to the engine. With `probeManifest`, a store that
// never received this engine version's manifest gets the daemon's own one
// first, so that lockdown is enforced from the first event, and the default
// trust rules (which a manifest clears) are loaded again.
bool Daemon::ApplyPolicy(bool probeManifest) {
    const uint32_t base = AC_CONFIG_INVENTORY_EXISTS | AC_CONFIG_RULESET_EXISTS;
    if (probeManifest) {
        set_loglevel(EngineLogMask("trace"));
        TakeManifestWanted();
        set_config(base | AC_CONFIG_LOCKDOWN, UINT64_MAX, UINT64_MAX);
        set_loglevel(EngineLogMask(m_config.logLevel));
        if (TakeManifestWanted()) ImportManifest();
    }
    uint32_t flags = base | (m_config.enforce ? AC_CONFIG_LOCKDOWN : 0);
    uint64_t start = UINT64_MAX;
    uint64_t end = UINT64_MAX;
    if (m_maintenance) {
        flags |= AC_CONFIG_AUTO_AUTHORIZE;
        start = WallMs();
    }
    const uint32_t status = set_config(flags, start, end);
    m_enforce = m_config.enforce;
    return status == AC_OK;
}

void Daemon::ImportManifest() {
    Digests digests{};
    const int fd = open("/proc/self/exe", O_RDONLY | O_CLOEXEC);
    struct stat status {};
    if (fd < 0 || fstat(fd, &status) != 0 || !ComputeDigests(fd, digests)) {
        if (fd >= 0) close(fd);
        Log(Level::Error, "cannot read the daemon's own program for its manifest");
        return;
    }
    close(fd);
    const std::string manifest = "{\"rules\":[{\"fileName\":\"zorvd\",\"sha256\":\"" + zorv::host::ToHex(digests.sha256, 32) +
                                 "\",\"sha1\":\"" + zorv::host::ToHex(digests.sha1, 20) + "\",\"md5\":\"" + zorv::host::ToHex(digests.md5, 16) +
                                 "\",\"size\":" + std::to_string(status.st_size) + ",\"action\":\"allow\"}]}";
    const uint32_t manifestStatus = set_ruleset_buffer(1, Widen(manifest).c_str(), u"zorvd-agent");
    Log(manifestStatus == AC_OK ? Level::Info : Level::Error, "manifest for this engine version applied: status 0x%08x",
        manifestStatus);
    struct stat rules {};
    if (stat(m_config.trustRules.c_str(), &rules) == 0) {
        const uint32_t rulesStatus = set_ruleset(0, Widen(m_config.trustRules).c_str(), u"zorvd-trustrules");
        Log(rulesStatus == AC_OK ? Level::Info : Level::Error, "trust rules %s loaded: status 0x%08x",
            m_config.trustRules.c_str(), rulesStatus);
    } else {
        Log(Level::Warning, "no trust rules at %s: package updates will not be learned", m_config.trustRules.c_str());
    }
}

bool Daemon::SetupFanotify() {
    const unsigned int base = FAN_CLASS_CONTENT | FAN_CLOEXEC | FAN_NONBLOCK | FAN_UNLIMITED_QUEUE;
    const unsigned int eventFlags = O_RDONLY | O_LARGEFILE | O_CLOEXEC;
    // FAN_REPORT_PIDFD with and without FAN_ENABLE_AUDIT, then neither.
    for (unsigned int extra : {0xC0u, 0x80u, 0u}) {
        m_permissionFd = fanotify_init(base | extra, eventFlags);
        if (m_permissionFd >= 0) {
            m_audit = (extra & FAN_ENABLE_AUDIT) != 0;
            break;
        }
    }
    if (m_permissionFd < 0) {
        Log(Level::Error, "fanotify_init: %s", std::strerror(errno));
        return false;
    }
    std::vector<std::string> paths = m_config.watch;
    if (paths.empty())
        for (const MountEntry& mount : ReadMounts())
            if (!IsPseudoFilesystem(mount.type)) paths.push_back(mount.point);
    const uint64_t mask = PermissionMask();
    for (const std::string& path : paths) {
        if (IsIgnored(path)) continue;
        struct stat status {};
        if (stat(path.c_str(), &status) != 0) {
            Log(Level::Warning, "watch %s: %s", path.c_str(), std::strerror(errno));
            continue;
        }
        bool seen = false;
        for (const Watched& watched : m_watched) seen = seen || watched.dev == status.st_dev;
        if (seen) continue;
        Watched watched;
        watched.path = path;
        watched.dev = status.st_dev;
        // Resolves the directory handles of deletes and renames: an O_PATH
        // descriptor is refused there. Opened before the mark, which nobody
        // answers yet.
        watched.fd = open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        if (fanotify_mark(m_permissionFd, FAN_MARK_ADD | FAN_MARK_FILESYSTEM, mask, AT_FDCWD, path.c_str()) != 0) {
            Log(Level::Error, "cannot watch %s: %s", path.c_str(), std::strerror(errno));
            if (watched.fd >= 0) close(watched.fd);
            return false;
        }
        struct statfs filesystem {};
        if (statfs(path.c_str(), &filesystem) == 0) std::memcpy(&watched.fsid, &filesystem.f_fsid, sizeof watched.fsid);
        m_watched.push_back(watched);
    }
    if (m_watched.empty()) {
        Log(Level::Error, "no filesystem to watch");
        return false;
    }
    // Deletes and renames carry names only in a notification group that
    // reports directory handles; without it they are not followed.
    m_notifyFd = fanotify_init(FAN_CLASS_NOTIF | FAN_CLOEXEC | FAN_NONBLOCK | FAN_UNLIMITED_QUEUE | FAN_REPORT_DFID_NAME,
                               O_RDONLY | O_CLOEXEC);
    if (m_notifyFd < 0) {
        Log(Level::Warning, "deletes and renames are not followed: fanotify_init: %s", std::strerror(errno));
    } else {
        for (const Watched& watched : m_watched) {
            if (fanotify_mark(m_notifyFd, FAN_MARK_ADD | FAN_MARK_FILESYSTEM, FAN_DELETE | FAN_RENAME, AT_FDCWD,
                              watched.path.c_str()) != 0) {
                Log(Level::Warning, "deletes and renames below %s are not followed: %s", watched.path.c_str(),
                    std::strerror(errno));
            }
        }
    }
    return true;
}

uint64_t Daemon::PermissionMask() const {
    return FAN_OPEN_EXEC_PERM | FAN_CLOSE_WRITE | (m_config.scripts || m_config.libraries ? FAN_OPEN_PERM : 0);
}

std::vector<std::string> Daemon::Exposures() const {
    std::vector<std::string> found = MachineExposures();
    // A few by name; a machine with hundreds of such mounts gets their number.
    constexpr size_t kNamed = 8;
    const std::vector<MountEntry> remote = UnwatchedRemoteMounts(ReadMounts(), m_config.watch, m_config.ignore);
    for (size_t i = 0; i < remote.size() && i < kNamed; ++i)
        found.push_back("programs on " + remote[i].point + " (" + remote[i].type +
                        ") are not seen: a network or FUSE filesystem is watched only when a watch path names it");
    if (remote.size() > kNamed)
        found.push_back(std::to_string(remote.size() - kNamed) + " more network or FUSE filesystems are not watched");
    return found;
}

bool Daemon::IsIgnored(const std::string& path) const {
    for (const std::string& prefix : m_config.ignore)
        if (IsAtOrBelow(path, prefix)) return true;
    return false;
}

// With no `watch` list every local filesystem, as at the start; with one, a
// filesystem mounted at or below a listed path, as a disk or stick mounted
// into a watched tree would be.
bool Daemon::InScope(const std::string& point, const std::string& type) const {
    if (IsPseudoFilesystem(type) || IsIgnored(point)) return false;
    if (m_config.watch.empty()) return true;
    for (const std::string& path : m_config.watch)
        if (IsAtOrBelow(point, path)) return true;
    return false;
}

// Marking is idempotent, so every filesystem in scope that the start did not
// watch is marked again on every change of the table: a filesystem mounted
// where another was unmounted, and given the same device number, is never
// taken for the one already watched.
void Daemon::WatchNewMounts() {
    std::vector<dev_t> atStart;  // only the mounts thread changes m_watched, so this stays true below
    {
        std::lock_guard<std::mutex> hold(m_watchedMutex);
        for (const Watched& watched : m_watched)
            if (!watched.mountedSince) atStart.push_back(watched.dev);
    }
    std::vector<Watched> since;
    for (const MountEntry& mount : ReadMounts()) {
        if (!InScope(mount.point, mount.type)) continue;
        struct stat status {};
        if (stat(mount.point.c_str(), &status) != 0) continue;
        bool known = std::find(atStart.begin(), atStart.end(), status.st_dev) != atStart.end();
        for (const Watched& watched : since) known = known || watched.dev == status.st_dev;
        if (known) continue;
        {
            std::shared_lock<std::shared_mutex> open(m_groupMutex);
            if (m_permissionFd < 0) return;  // stopping
            if (fanotify_mark(m_permissionFd, FAN_MARK_ADD | FAN_MARK_FILESYSTEM, PermissionMask(), AT_FDCWD,
                              mount.point.c_str()) != 0) {
                Log(Level::Error, "cannot watch %s: %s", mount.point.c_str(), std::strerror(errno));
                continue;
            }
        }
        if (m_notifyFd >= 0 && fanotify_mark(m_notifyFd, FAN_MARK_ADD | FAN_MARK_FILESYSTEM, FAN_DELETE | FAN_RENAME,
                                             AT_FDCWD, mount.point.c_str()) != 0)
            Log(Level::Warning, "deletes and renames below %s are not followed: %s", mount.point.c_str(),
                std::strerror(errno));
        Watched watched;
        watched.path = mount.point;
        watched.dev = status.st_dev;
        watched.mountedSince = true;
        struct statfs filesystem {};
        if (statfs(mount.point.c_str(), &filesystem) == 0)
            std::memcpy(&watched.fsid, &filesystem.f_fsid, sizeof watched.fsid);
        since.push_back(std::move(watched));
    }
    std::vector<std::string> added, gone;
    {
        std::lock_guard<std::mutex> hold(m_watchedMutex);
        std::vector<Watched> kept;
        for (Watched& watched : m_watched) {
            if (!watched.mountedSince) {
                kept.push_back(std::move(watched));
                continue;
            }
            bool still = false;
            for (const Watched& now : since) still = still || (now.path == watched.path && now.dev == watched.dev);
            if (!still) gone.push_back(watched.path);
        }
        for (Watched& now : since) {
            bool before = false;
            for (const Watched& watched : m_watched)
                before = before || (watched.mountedSince && watched.path == now.path && watched.dev == now.dev);
            if (!before) added.push_back(now.path);
            kept.push_back(std::move(now));
        }
        m_watched.swap(kept);
    }
    for (const std::string& path : added) Log(Level::Info, "now watching %s", path.c_str());
    for (const std::string& path : gone) Log(Level::Info, "no longer watching %s: unmounted", path.c_str());
}

static void NameThread(const char* name);

// The kernel flags the mount table as changed to whoever polls it for
// POLLPRI; it is read again only then.
void Daemon::MountsLoop() {
    NameThread("zorvd-mounts");
    const int table = open("/proc/self/mountinfo", O_RDONLY | O_CLOEXEC);
    if (table < 0) {
        Log(Level::Warning, "filesystems mounted from now on are not watched: %s", std::strerror(errno));
        return;
    }
    WatchNewMounts();  // what was mounted between the start and now
    while (!m_stopping) {
        struct pollfd fds[2] = {{table, POLLPRI, 0}, {m_stopFd, POLLIN, 0}};
        if (poll(fds, 2, 500) <= 0) continue;
        if ((fds[1].revents & POLLIN) != 0) break;
        if ((fds[0].revents & (POLLPRI | POLLERR)) != 0) WatchNewMounts();
    }
    close(table);
}

// ---- Answers ---------------------------------------------------------------

bool Daemon::Respond(PermissionEvent& event, bool allow, bool audit) {
    if (event.answered.exchange(true)) return false;
    struct fanotify_response response {};
    response.fd = event.fd;
    response.response = allow ? FAN_ALLOW : FAN_DENY;
    if (audit && m_audit) response.response |= FAN_AUDIT;
    std::shared_lock<std::shared_mutex> open(m_groupMutex);  // the group is not closed under a writer
    if (m_permissionFd < 0) return true;  // closed: the kernel has let every waiter through
    // A refused response leaves the process waiting with no timeout of the
    // kernel's: answer again, dropping the audit request, then plainly.
    for (int attempt = 0; attempt < 8; ++attempt) {
        const ssize_t written = write(m_permissionFd, &response, sizeof response);
        if (written == static_cast<ssize_t>(sizeof response)) break;
        if (written < 0 && errno == EINTR) continue;
        if (written < 0 && errno == ENOENT) break;  // the kernel no longer waits for this event
        Log(Level::Error, "response for pid %d refused: %s; answering again", event.pid,
            written < 0 ? std::strerror(errno) : "short write");
        if ((response.response & FAN_AUDIT) != 0) {
            response.response &= ~FAN_AUDIT;
        } else if (attempt >= 3) {
            response.response = FAN_ALLOW;
        }
    }
    (allow ? m_counters.allowed : m_counters.denied).fetch_add(1, std::memory_order_relaxed);
    return true;
}

void Daemon::AnswerOverflow(const std::shared_ptr<PermissionEvent>& event, const FileId& id) {
    const uint64_t count = m_counters.overflow.fetch_add(1) + 1;
    bool allow = m_config.onDeadline == Answer::Allow;
    const bool exec = (event->mask & FAN_OPEN_EXEC_PERM) != 0;
    struct stat status {};
    CachedDigest cached;
    // What the inventory allowed, unchanged since, is allowed still: as a
    // program only where it last ran as one, as a library or script wherever.
    if (fstat(event->fd, &status) == 0 &&
        (exec ? m_digests.Find(id, status, cached) && cached.execAllowed : m_digests.AllowedSomewhere(id, status)))
        allow = true;
    if (count == 1 || count % 1000 == 0)
        Log(Level::Warning, "event queue full: %llu events answered without the engine (this one: %s)",
            static_cast<unsigned long long>(count), allow ? "allow" : "deny");
    if (exec)
        AnswerExec(*event, id, allow, false);
    else
        Respond(*event, allow, false);
}

// ---- Reading events --------------------------------------------------------

FileKind Daemon::Classify(int fd, const struct stat& status, bool* known) {
    const FileId id{status.st_dev, status.st_ino};
    const int64_t ctime = TimeNs(status.st_ctim);
    if (known != nullptr) *known = false;
    {
        std::lock_guard<std::mutex> hold(m_kindMutex);
        const auto found = m_kinds.find(id);
        if (found != m_kinds.end() && found->second.ctimeNs == ctime && found->second.mtimeNs == TimeNs(status.st_mtim) &&
            found->second.size == status.st_size) {
            if (known != nullptr) *known = true;
            return found->second.kind;
        }
    }
    unsigned char head[18] = {};
    ssize_t got;
    do {
        got = pread(fd, head, sizeof head, 0);
    } while (got < 0 && errno == EINTR);
    FileKind kind = FileKind::Plain;
    if (got >= 18 && head[0] == 0x7F && head[1] == 'E' && head[2] == 'L' && head[3] == 'F') {
        // Programs and shared objects load; object files and core dumps do not.
        const unsigned type = head[5] == 2 ? (head[16] << 8 | head[17]) : (head[17] << 8 | head[16]);
        if (type == 2 || type == 3) kind = FileKind::Elf;
    } else if (got >= 2 && head[0] == '#' && head[1] == '!') {
        kind = FileKind::Script;
    } else if (HasScriptExtension(FdPath(fd))) {
        kind = FileKind::Script;
    }
    std::lock_guard<std::mutex> hold(m_kindMutex);
    if (m_kinds.size() >= static_cast<size_t>(m_config.digestCacheEntries)) m_kinds.clear();
    m_kinds[id] = KindEntry{ctime, TimeNs(status.st_mtim), status.st_size, kind};
    return kind;
}

// The program of a process, from /proc while it lives; a process that has
// already exited (a writer that closed its file and quit) is answered from
// what an earlier event of the same pid showed.
std::string Daemon::ProgramOf(pid_t pid) {
    const std::string program = ReadLink("/proc/" + std::to_string(pid) + "/exe");
    const int64_t now = NowNs();
    std::lock_guard<std::mutex> hold(m_programMutex);
    if (!program.empty()) {
        // Room is made by forgetting what was seen a while ago, never all at
        // once: a writer that has just exited must still be found.
        if (m_programs.size() >= kProgramEntries) {
            for (auto it = m_programs.begin(); it != m_programs.end();)
                it = now - it->second.seenNs > kProgramKeptNs ? m_programs.erase(it) : std::next(it);
            if (m_programs.size() >= kProgramEntries) m_programs.clear();
        }
        m_programs[pid] = ProgramEntry{program, now};
        return program;
    }
    const auto found = m_programs.find(pid);
    if (found != m_programs.end() && now - found->second.seenNs < kProgramKeptNs) return found->second.program;
    return {};
}

// Processes wait in the kernel while an event is with us: the threads that
// answer run ahead of ordinary work so a busy machine does not stretch every
// open and exec by a scheduler's time slice.
// Named for `top -H` and `ps -L`, and for the tests that look at one of them.
static void NameThread(const char* name) { pthread_setname_np(pthread_self(), name); }

static void RaisePriority() {
    if (setpriority(PRIO_PROCESS, static_cast<id_t>(gettid()), -10) != 0)
        Log(Level::Debug, "thread priority unchanged: %s", std::strerror(errno));
}

void Daemon::ReaderLoop() {
    NameThread("zorvd-reader");
    RaisePriority();
    alignas(struct fanotify_event_metadata) char buffer[64 * 1024];
    const pid_t self = getpid();
    while (!m_stopping) {
        m_readerBeat = NowNs();
        struct pollfd fds[2] = {{m_permissionFd, POLLIN, 0}, {m_stopFd, POLLIN, 0}};
        if (poll(fds, 2, 500) <= 0) continue;
        if ((fds[1].revents & POLLIN) != 0) break;
        const ssize_t length = read(m_permissionFd, buffer, sizeof buffer);
        if (length <= 0) {
            if (length < 0 && errno != EAGAIN && errno != EINTR) Log(Level::Error, "reading events: %s", std::strerror(errno));
            continue;
        }
        auto* metadata = reinterpret_cast<struct fanotify_event_metadata*>(buffer);
        ssize_t left = length;
        for (; FAN_EVENT_OK(metadata, left); metadata = FAN_EVENT_NEXT(metadata, left)) {
            if (metadata->vers != FANOTIFY_METADATA_VERSION) {
                Log(Level::Error, "fanotify metadata version %u not understood", metadata->vers);
                if (metadata->fd >= 0) close(metadata->fd);
                continue;
            }
            // A pidfd rides along when the group reports one. The process
            // waits for a permission answer, so its pid cannot be reused
            // meanwhile; the pidfd is kept for what it answers faster than
            // /proc: the process's credentials.
            int pidfd = -1;
            for (size_t at = metadata->metadata_len; at + sizeof(struct fanotify_event_info_header) <= metadata->event_len;) {
                const auto* header = reinterpret_cast<const struct fanotify_event_info_header*>(
                    reinterpret_cast<const char*>(metadata) + at);
                if (header->len == 0) break;
                if (header->info_type == FAN_EVENT_INFO_TYPE_PIDFD) {
                    int reported;
                    std::memcpy(&reported, reinterpret_cast<const char*>(header) + sizeof *header, sizeof reported);
                    if (reported >= 0) {
                        if (pidfd >= 0) close(pidfd);
                        pidfd = reported;
                    }
                }
                at += header->len;
            }
            if (metadata->fd == FAN_NOFD) {
                if (pidfd >= 0) close(pidfd);
                if ((metadata->mask & FAN_Q_OVERFLOW) != 0) {
                    m_counters.kernelOverflow.fetch_add(1);
                    Log(Level::Warning, "the kernel's event queue overflowed: written files may go unjudged");
                }
                continue;
            }
            if ((metadata->mask & kPermissionMask) == 0) {
                if ((metadata->mask & FAN_CLOSE_WRITE) != 0 && metadata->pid != self) {
                    HandleWrite(metadata->fd, metadata->pid, pidfd);
                } else {
                    close(metadata->fd);
                    if (pidfd >= 0) close(pidfd);
                }
                continue;
            }
            auto event = std::make_shared<PermissionEvent>();
            event->fd = metadata->fd;
            event->pidfd = pidfd;
            event->pid = metadata->pid;
            event->mask = metadata->mask;
            event->arrivedNs = NowNs();
            event->deadlineNs = event->arrivedNs + static_cast<int64_t>(m_deadlineMs.load()) * 1000000;
            if (metadata->pid == self) {
                // The daemon's own reads (the engine's, /proc, NSS) never wait on itself.
                m_counters.ownAccess.fetch_add(1, std::memory_order_relaxed);
                Respond(*event, true, false);
                continue;
            }
            HandlePermission(std::move(event));
        }
    }
}

void Daemon::HandlePermission(std::shared_ptr<PermissionEvent> event) {
    struct stat status {};
    if (fstat(event->fd, &status) != 0 || !S_ISREG(status.st_mode)) {
        Respond(*event, true, false);
        return;
    }
    const FileId id{status.st_dev, status.st_ino};
    Job job;
    job.id = id;
    if ((event->mask & FAN_OPEN_EXEC_PERM) != 0) {
        // An exec is always judged, and its worker reads the program while
        // the process still waits.
        m_counters.exec.fetch_add(1, std::memory_order_relaxed);
        job.kind = JobKind::Exec;
    } else {
        m_counters.open.fetch_add(1, std::memory_order_relaxed);
        if (TakeExecOpen(event->pid, id)) {
            m_counters.plainOpens.fetch_add(1, std::memory_order_relaxed);
            Respond(*event, true, false);
            return;
        }
        // Remember who opens what while the opener is still blocked here: a
        // writer that exits before its close-write is read is then still known.
        job.program = ProgramOf(event->pid);
        bool seenBefore = false;
        const FileKind classified = Classify(event->fd, status, &seenBefore);
        bool judged = (classified == FileKind::Elf && m_config.libraries) ||
                      (classified == FileKind::Script && m_config.scripts);
        if (judged) {
            // Content the inventory allowed, unchanged since, goes on without
            // asking whether this open runs it at all: its worker's allow
            // cache most likely answers, and only where it does not is the
            // question put, while the process still waits.
            if (m_digests.AllowedSomewhere(id, status))
                job.runUnchecked = true;
            else
                judged = !OpenIsNoRun(event->pid);
        }
        if (judged && classified == FileKind::Elf) {
            m_counters.library.fetch_add(1, std::memory_order_relaxed);
            job.kind = JobKind::Library;
        } else if (judged) {
            m_counters.script.fetch_add(1, std::memory_order_relaxed);
            job.kind = JobKind::Script;
        } else {
            m_counters.plainOpens.fetch_add(1, std::memory_order_relaxed);
            Respond(*event, true, false);
            // A plain file opened again need not reach us at all until it is
            // written (which clears the ignore mask). Marked on its second
            // open, after the answer: most files are read once, and for those
            // the mark would be a system call and a kernel allocation for
            // nothing. The mark is evictable: it never pins the inode in memory.
            if (seenBefore && classified == FileKind::Plain) IgnoreWhileUnchanged(event->fd, status);
            return;
        }
    }
    if (!m_config.ignore.empty() && IsIgnored(FdPath(event->fd))) {
        Respond(*event, true, false);
        return;
    }
    bool sooner = false;
    {
        std::lock_guard<std::mutex> hold(m_inflightMutex);
        m_inflight.push_back(event);
        sooner = event->deadlineNs < m_watchdogSleepsUntilNs;
    }
    if (sooner) m_watchdogWake.notify_one();
    job.event = event;
    if (!m_jobs.Push(std::move(job))) AnswerOverflow(event, id);
}

void Daemon::IgnoreWhileUnchanged(int fd, const struct stat& classified) {
    if (fanotify_mark(m_permissionFd, FAN_MARK_ADD | FAN_MARK_IGNORED_MASK | FAN_MARK_EVICTABLE, FAN_OPEN_PERM, fd,
                      nullptr) != 0)
        return;
    // A write since the file was classified came before the mark, so it did
    // not clear it: the content the mark vouches for may be gone.
    struct stat now {};
    if (fstat(fd, &now) != 0 || now.st_size != classified.st_size ||
        TimeNs(now.st_mtim) != TimeNs(classified.st_mtim) || TimeNs(now.st_ctim) != TimeNs(classified.st_ctim))
        fanotify_mark(m_permissionFd, FAN_MARK_REMOVE | FAN_MARK_IGNORED_MASK, FAN_OPEN_PERM, fd, nullptr);
}

void Daemon::HandleWrite(int fd, pid_t pid, int pidfd) {
    m_counters.write.fetch_add(1, std::memory_order_relaxed);
    auto holder = std::make_shared<PermissionEvent>();
    holder->fd = fd;
    holder->pidfd = pidfd;
    holder->pid = pid;
    holder->answered = true;  // a notification: nothing waits for an answer
    struct stat status {};
    if (fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) return;
    const FileId id{status.st_dev, status.st_ino};
    m_digests.Drop(id);
    // Only what could run is worth keeping true to the disk.
    if (Classify(fd, status) == FileKind::Plain && (status.st_mode & 0111) == 0) return;
    Job job;
    job.kind = JobKind::Write;
    job.id = id;
    job.event = holder;
    job.program = ProgramOf(pid);
    job.credentialsKnown = CredentialsOf(pidfd, job.uid, job.gid) == Credentials::Known;
    {
        std::lock_guard<std::mutex> hold(m_pendingMutex);
        ++m_pendingWrites[id];
    }
    if (!m_writes.Push(std::move(job))) {
        FinishPendingWrite(id);
        Log(Level::Warning, "write queue full: a written file goes unjudged");
    }
}

bool Daemon::WaitForPendingWrite(const FileId& id, int64_t deadlineNs) {
    std::unique_lock<std::mutex> hold(m_pendingMutex);
    const auto until = std::chrono::steady_clock::time_point(std::chrono::nanoseconds(deadlineNs));
    return m_pendingDone.wait_until(hold, until, [&] { return m_stopping || m_pendingWrites.count(id) == 0; });
}

void Daemon::FinishPendingWrite(const FileId& id) {
    {
        std::lock_guard<std::mutex> hold(m_pendingMutex);
        const auto found = m_pendingWrites.find(id);
        if (found != m_pendingWrites.end() && --found->second <= 0) m_pendingWrites.erase(found);
    }
    m_pendingDone.notify_all();
}

bool Daemon::DigestsOf(int fd, const FileId& id, const struct stat& status, Digests& out, std::string* allowedAt) {
    CachedDigest cached;
    if (m_digests.Find(id, status, cached)) {
        out = cached.digests;
        if (allowedAt != nullptr) *allowedAt = std::move(cached.allowedAt);
        return true;
    }
    if (!ComputeDigests(fd, out)) return false;
    m_digests.Store(id, status, out);
    return true;
}

// ---- Deciding --------------------------------------------------------------

void Daemon::WorkerLoop() {
    NameThread("zorvd-worker");
    RaisePriority();
    Job job;
    while (m_jobs.Pop(job, m_stopping)) {
        Decide(job);
        job = Job();
    }
}

void Daemon::Decide(Job& job) {
    PermissionEvent& event = *job.event;
    if (event.answered) return;  // the watchdog got there first
    // An exec right after a write waits for that write's judgement, so a file
    // a trusted updater has just written is known when it starts. Judged
    // before that, the new content would be unknown and refused; a judgement
    // still missing at the deadline gets the deadline's answer instead.
    if (!WaitForPendingWrite(job.id, event.deadlineNs)) {
        AnswerAtDeadline(event);
        return;
    }
    struct stat status {};
    Digests digests{};
    std::string allowedAt;
    if (fstat(event.fd, &status) != 0 || !DigestsOf(event.fd, job.id, status, digests, &allowedAt)) {
        m_counters.error.fetch_add(1, std::memory_order_relaxed);
        Respond(event, m_config.ErrorAnswer() == Answer::Allow, false);
        return;
    }
    const std::string target = FdPath(event.fd);
    // An open's program was read by the reader while the process waited; an
    // exec's is read here, where the process waits still.
    const std::string program = job.program.empty() ? ProgramOf(event.pid) : job.program;
    // The very content the inventory allowed at this very path, unchanged
    // since: the engine's allow cache may answer, which spares reading the
    // command line and asking the rule store. That cache is keyed by path and
    // hears of renames and deletes from the other group's queue, which may
    // lag behind this event; the content is vouched for here.
    if (!target.empty() && target == allowedAt && AllowedByCache(event, target, program)) {
        m_counters.allowCacheAnswers.fetch_add(1, std::memory_order_relaxed);
        if (job.kind == JobKind::Exec)
            AnswerExec(event, job.id, true, false);
        else
            Respond(event, true, false);
        m_latency.Record(static_cast<uint64_t>((NowNs() - event.arrivedNs) / 1000));
        return;
    }
    if (job.runUnchecked && OpenIsNoRun(event.pid)) {
        m_counters.plainOpens.fetch_add(1, std::memory_order_relaxed);
        Respond(event, true, false);
        return;
    }
    const ProcessIdentity identity = IdentityOf(event.pid, event.pidfd);
    EventTexts texts;
    texts.name = Widen(target);
    texts.processName = Widen(program);
    texts.cmdLine = Widen(identity.commandLine);
    texts.user = Widen(identity.user);
    texts.group = Widen(identity.group);
    AppCtlEvent record{};
    record.pid = static_cast<uint64_t>(event.pid);
    record.size = static_cast<uint64_t>(status.st_size);
    record.isExec = 1;
    record.fileSha256 = digests.sha256;
    record.fileSha1 = digests.sha1;
    record.fileMd5 = digests.md5;
    switch (job.kind) {
        case JobKind::Library:
            record.type = AC_OP_SECTION_MAP;
            record.mode = 4;
            break;
        case JobKind::Script: record.type = AC_OP_CREATE_PRE; break;
        default: record.type = AC_OP_PROCESS_CREATE; break;
    }
    texts.Attach(record);
    if (m_stallMs != 0) std::this_thread::sleep_for(std::chrono::milliseconds(m_stallMs));
    if (m_engineErrors) record.isExec = 0;  // a start of a non-executable: the engine answers AC_E_FAILED
    AppCtlResult result{};
    const uint32_t status2 = app_ctl(nullptr, &record, &result);
    bool allow = true;
    if (status2 == AC_BLOCKED) {
        allow = false;
    } else if (status2 != AC_OK) {
        m_counters.error.fetch_add(1, std::memory_order_relaxed);
        allow = m_config.ErrorAnswer() == Answer::Allow;
    }
    m_digests.MarkJudged(job.id, status, job.kind, target,
                         allow && status2 == AC_OK && result.dbVerdict == AC_DB_ALLOWED);
    const bool answered = job.kind == JobKind::Exec ? AnswerExec(event, job.id, allow, !allow)
                                                    : Respond(event, allow, !allow);
    m_latency.Record(static_cast<uint64_t>((NowNs() - event.arrivedNs) / 1000));
    if (answered && !allow) {
        const char* what = job.kind == JobKind::Exec ? "exec" : job.kind == JobKind::Library ? "library" : "script";
        Log(Level::Warning, "deny %s %s sha256=%s process=%s pid=%d user=%s group=%s reason=%s", what, target.c_str(),
            zorv::host::ToHex(digests.sha256, 32).c_str(), program.c_str(), event.pid, identity.user.c_str(),
            identity.group.c_str(), status2 == AC_BLOCKED ? ReasonText(result) : "engine error");
    }
}

bool Daemon::AnswerExec(PermissionEvent& event, const FileId& id, bool allow, bool audit) {
    if (allow && !event.answered && (m_config.scripts || m_config.libraries)) {
        std::lock_guard<std::mutex> hold(m_execOpenMutex);
        // Opens that never came (an exec refused after us) leave entries
        // behind; they go all at once rather than grow.
        if (m_execOpens.size() >= kProgramEntries) m_execOpens.clear();
        m_execOpens[event.pid] = id;
    }
    return Respond(event, allow, audit);
}

bool Daemon::TakeExecOpen(pid_t pid, const FileId& id) {
    std::lock_guard<std::mutex> hold(m_execOpenMutex);
    const auto found = m_execOpens.find(pid);
    if (found == m_execOpens.end() || !(found->second == id)) return false;
    m_execOpens.erase(found);
    return true;
}

// A cache check: the engine answers allow only for a (user, program, target)
// it allowed by the inventory under the rules in force now; anything else is
// a miss and the event goes the whole way. Only where the user is known from
// the pidfd, as the whole way would name it.
bool Daemon::AllowedByCache(const PermissionEvent& event, const std::string& target, const std::string& program) {
    uid_t uid = 0;
    gid_t gid = 0;
    if (program.empty() || CredentialsOf(event.pidfd, uid, gid) != Credentials::Known) return false;
    EventTexts texts;
    texts.name = Widen(target);
    texts.processName = Widen(program);
    texts.user = Widen(UserName(uid));
    AppCtlEvent record{};
    record.type = AC_OP_CACHE_CHECK;
    record.pid = static_cast<uint64_t>(event.pid);
    record.isExec = 1;
    texts.Attach(record);
    AppCtlResult result{};
    return app_ctl(nullptr, &record, &result) == AC_OK && result.action == AC_DECISION_ALLOW;
}

void Daemon::WriteLoop() {
    NameThread("zorvd-writes");
    RaisePriority();
    Job job;
    while (m_writes.Pop(job, m_stopping)) {
        JudgeWrite(job);
        FinishPendingWrite(job.id);
        job = Job();
    }
}

void Daemon::JudgeWrite(Job& job) {
    if (m_stallMs != 0) std::this_thread::sleep_for(std::chrono::milliseconds(m_stallMs));
    const int fd = job.event->fd;
    struct stat status {};
    Digests digests{};
    if (fstat(fd, &status) != 0 || !DigestsOf(fd, job.id, status, digests)) return;
    ProcessIdentity identity = IdentityOf(job.event->pid, job.event->pidfd);
    // The writer may have quit and been reaped since: its user as it wrote.
    if (job.credentialsKnown) {
        identity.user = UserName(job.uid);
        identity.group = GroupName(job.gid);
    }
    EventTexts texts;
    texts.name = Widen(FdPath(fd));
    texts.processName = Widen(job.program);
    texts.cmdLine = Widen(identity.commandLine);
    texts.user = Widen(identity.user);
    texts.group = Widen(identity.group);
    AppCtlEvent record{};
    // A written file is reported as created-and-written: the drift handler
    // learns or retires items only for that change kind, not for a bare
    // dirty change.
    record.type = AC_OP_CREATE_POST;
    record.dirty = 1;
    record.pid = static_cast<uint64_t>(job.event->pid);
    record.size = static_cast<uint64_t>(status.st_size);
    record.fileSha256 = digests.sha256;
    record.fileSha1 = digests.sha1;
    record.fileMd5 = digests.md5;
    texts.Attach(record);
    AppCtlResult result{};
    app_ctl(nullptr, &record, &result);
    // The engine learns an item beside its decision, on a writer thread of
    // its own; an exec waiting for this judgement must find the item stored.
    if (result.isAuthorized == AC_REASON_TRUSTED || result.isAuthorized == AC_REASON_MAINTENANCE ||
        result.isAuthorized == AC_REASON_APPROVED)
        flush_db_buffer();
}

void Daemon::NotifyLoop() {
    NameThread("zorvd-notify");
    alignas(struct fanotify_event_metadata) char buffer[32 * 1024];
    while (!m_stopping) {
        struct pollfd fds[2] = {{m_notifyFd, POLLIN, 0}, {m_stopFd, POLLIN, 0}};
        if (poll(fds, 2, 500) <= 0) continue;
        if ((fds[1].revents & POLLIN) != 0) break;
        const ssize_t length = read(m_notifyFd, buffer, sizeof buffer);
        if (length <= 0) continue;
        auto* metadata = reinterpret_cast<struct fanotify_event_metadata*>(buffer);
        ssize_t left = length;
        for (; FAN_EVENT_OK(metadata, left); metadata = FAN_EVENT_NEXT(metadata, left)) {
            if (metadata->fd >= 0) close(metadata->fd);
            if ((metadata->mask & FAN_Q_OVERFLOW) != 0) {
                m_counters.kernelOverflow.fetch_add(1);
                continue;
            }
            std::string name, oldName;
            for (size_t at = metadata->metadata_len; at + sizeof(struct fanotify_event_info_fid) <= metadata->event_len;) {
                const auto* info = reinterpret_cast<const struct fanotify_event_info_fid*>(
                    reinterpret_cast<const char*>(metadata) + at);
                if (info->hdr.len == 0) break;
                at += info->hdr.len;
                const uint8_t type = info->hdr.info_type;
                if (type != FAN_EVENT_INFO_TYPE_DFID_NAME && type != FAN_EVENT_INFO_TYPE_OLD_DFID_NAME &&
                    type != FAN_EVENT_INFO_TYPE_NEW_DFID_NAME)
                    continue;
                uint64_t fsid;
                std::memcpy(&fsid, &info->fsid, sizeof fsid);
                const auto* handle = reinterpret_cast<const struct file_handle*>(info->handle);
                const char* entry = reinterpret_cast<const char*>(handle->f_handle) + handle->handle_bytes;
                std::string directory;
                std::lock_guard<std::mutex> hold(m_watchedMutex);
                for (const Watched& watched : m_watched) {
                    if (watched.fsid != fsid) continue;
                    // A filesystem watched since the start is opened for the
                    // moment only; the open is the daemon's own, let through.
                    const int mountFd =
                        watched.fd >= 0 ? watched.fd : open(watched.path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
                    if (mountFd < 0) break;
                    std::vector<char> copy(sizeof(struct file_handle) + handle->handle_bytes);
                    std::memcpy(copy.data(), handle, copy.size());
                    const int fd = open_by_handle_at(mountFd, reinterpret_cast<struct file_handle*>(copy.data()),
                                                     O_PATH | O_CLOEXEC);
                    if (fd >= 0) {
                        directory = FdPath(fd);
                        close(fd);
                    }
                    if (mountFd != watched.fd) close(mountFd);
                    break;
                }
                if (directory.empty()) continue;
                const std::string path = directory == "/" ? "/" + std::string(entry) : directory + "/" + entry;
                (type == FAN_EVENT_INFO_TYPE_OLD_DFID_NAME ? oldName : name) = path;
            }
            if (name.empty()) continue;
            const bool rename = (metadata->mask & FAN_RENAME) != 0;
            (rename ? m_counters.rename : m_counters.remove).fetch_add(1, std::memory_order_relaxed);
            EventTexts texts;
            texts.name = Widen(name);
            texts.oldName = Widen(oldName);
            texts.processName = Widen(ProgramOf(metadata->pid));
            AppCtlEvent record{};
            record.pid = static_cast<uint64_t>(metadata->pid);
            record.type = rename ? AC_OP_RENAME : AC_OP_DELETE;
            record.dirty = 1;
            Digests digests{};
            if (rename) {
                // A new name may make a plain file a script (by its extension).
                {
                    std::shared_lock<std::shared_mutex> open(m_groupMutex);
                    if (m_permissionFd >= 0)
                        fanotify_mark(m_permissionFd, FAN_MARK_REMOVE | FAN_MARK_IGNORED_MASK, FAN_OPEN_PERM,
                                      AT_FDCWD, name.c_str());
                }
                // The renamed file is read by name, off the answering thread:
                // the open this raises carries the daemon's pid and is allowed at once.
                const int fd = open(name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
                struct stat status {};
                const bool readable = fd >= 0 && fstat(fd, &status) == 0 && S_ISREG(status.st_mode);
                const bool worth = readable && (Classify(fd, status) != FileKind::Plain || (status.st_mode & 0111) != 0);
                if (worth && DigestsOf(fd, FileId{status.st_dev, status.st_ino}, status, digests)) {
                    record.size = static_cast<uint64_t>(status.st_size);
                    record.fileSha256 = digests.sha256;
                    record.fileSha1 = digests.sha1;
                    record.fileMd5 = digests.md5;
                }
                if (fd >= 0) close(fd);
                if (!worth) continue;
            }
            texts.Attach(record);
            AppCtlResult result{};
            app_ctl(nullptr, &record, &result);
        }
    }
}

void Daemon::AnswerAtDeadline(PermissionEvent& event) {
    if (!Respond(event, m_config.onDeadline == Answer::Allow, m_config.onDeadline == Answer::Deny)) return;
    const uint64_t count = m_counters.deadline.fetch_add(1) + 1;
    Log(Level::Warning, "no decision for pid %d within %u ms: answered %s (deadline answers: %llu)", event.pid,
        m_deadlineMs.load(), m_config.onDeadline == Answer::Allow ? "allow" : "deny",
        static_cast<unsigned long long>(count));
}

// Sleeps until the earliest deadline of an event still waiting, or the end
// of a maintenance window, instead of waking on a short period: an idle
// daemon then does not wake at all. While events are held it still looks
// every kInflightSweepNs, so that answered ones let go of their descriptors.
void Daemon::WatchdogLoop() {
    NameThread("zorvd-watchdog");
    constexpr int64_t kIdleNs = 500'000'000, kInflightSweepNs = 20'000'000;
    std::unique_lock<std::mutex> hold(m_inflightMutex);
    while (!m_stopping) {
        const int64_t now = NowNs();
        std::vector<std::shared_ptr<PermissionEvent>> late;
        std::deque<std::shared_ptr<PermissionEvent>> waiting;
        int64_t wakeNs = now + (m_inflight.empty() ? kIdleNs : kInflightSweepNs);
        bool answered = false;
        // Deadlines mostly grow in arrival order, but not after a reload
        // shortened them: every event is looked at.
        for (auto& event : m_inflight) {
            if (event->answered) {
                answered = true;
                continue;
            }
            if (event->deadlineNs <= now) {
                late.push_back(std::move(event));
            } else {
                wakeNs = std::min(wakeNs, event->deadlineNs);
                waiting.push_back(std::move(event));
            }
        }
        m_inflight.swap(waiting);
        // `waiting` now holds the answered events. Letting go of them closes
        // their descriptors, a few system calls each and a hundred events in
        // a busy sweep: never under this lock, which the reader takes for
        // every event it hands on.
        if (answered) {
            std::deque<std::shared_ptr<PermissionEvent>> done;
            done.swap(waiting);
            hold.unlock();
            done.clear();
            hold.lock();
            // Events that arrived meanwhile found the watchdog awake and did
            // not wake it: they are looked at within a sweep.
            if (!m_inflight.empty()) wakeNs = std::min(wakeNs, NowNs() + kInflightSweepNs);
        }
        const int64_t maintenanceUntil = m_maintenanceUntilNs.load();
        const bool maintenanceOver = maintenanceUntil != 0 && now >= maintenanceUntil;
        if (!late.empty() || maintenanceOver) {
            hold.unlock();
            for (const auto& event : late) AnswerAtDeadline(*event);
            if (maintenanceOver) {
                std::lock_guard<std::mutex> policy(m_policyMutex);
                // A window opened again, or closed, meanwhile is left as it is.
                const int64_t until = m_maintenanceUntilNs.load();
                if (until != 0 && NowNs() >= until) {
                    m_maintenanceUntilNs = 0;
                    m_maintenance = false;
                    ApplyPolicy(false);
                    Log(Level::Info, "maintenance window over");
                }
            }
            late.clear();
            hold.lock();
            continue;  // what arrived meanwhile is looked at before sleeping
        }
        if (maintenanceUntil != 0) wakeNs = std::min(wakeNs, maintenanceUntil);
        m_watchdogSleepsUntilNs = wakeNs;
        m_watchdogWake.wait_until(hold, std::chrono::steady_clock::time_point(std::chrono::nanoseconds(wakeNs)));
        m_watchdogSleepsUntilNs = 0;
    }
}

void Daemon::WakeWatchdog() {
    // Taken so that the change made before is seen by a watchdog about to
    // sleep, or the notice reaches one asleep.
    { std::lock_guard<std::mutex> hold(m_inflightMutex); }
    m_watchdogWake.notify_all();
}

// ---- Control socket --------------------------------------------------------

void Daemon::ControlLoop() {
    NameThread("zorvd-control");
    while (!m_stopping) {
        struct pollfd fds[2] = {{m_controlFd, POLLIN, 0}, {m_stopFd, POLLIN, 0}};
        if (poll(fds, 2, 500) <= 0) continue;
        if ((fds[1].revents & POLLIN) != 0) break;
        const int client = accept4(m_controlFd, nullptr, nullptr, SOCK_CLOEXEC);
        if (client < 0) continue;
        // The request is read whoever sends it: closing on unread data would
        // reset the connection and lose the refusal.
        std::string line;
        const int64_t readUntil = NowNs() + static_cast<int64_t>(kControlReadTimeoutMs) * 1000000;
        char chunk[65536];
        while (line.find('\n') == std::string::npos && line.size() < kControlRequestLimit) {
            const int64_t left = (readUntil - NowNs()) / 1000000;
            struct pollfd wait = {client, POLLIN, 0};
            if (left <= 0 || poll(&wait, 1, static_cast<int>(left)) <= 0) break;
            const ssize_t got = read(client, chunk, sizeof chunk);
            if (got <= 0) break;
            line.append(chunk, static_cast<size_t>(got));
        }
        struct ucred peer {};
        socklen_t peerLength = sizeof peer;
        std::string reply;
        const size_t end = line.find('\n');
        if (getsockopt(client, SOL_SOCKET, SO_PEERCRED, &peer, &peerLength) != 0 || peer.uid != 0) {
            Log(Level::Warning, "control request from uid %u refused", static_cast<unsigned>(peer.uid));
            reply = "{\"ok\":false,\"error\":\"refused: the control socket answers root only\"}\n";
        } else {
            reply = end == std::string::npos ? "{\"ok\":false,\"error\":\"no complete request line\"}\n"
                                             : HandleControlRequest(line.substr(0, end)) + "\n";
        }
        size_t sent = 0;
        const int64_t until = NowNs() + static_cast<int64_t>(kControlReadTimeoutMs) * 1000000;
        while (sent < reply.size()) {
            struct pollfd wait = {client, POLLOUT, 0};
            const int64_t left = (until - NowNs()) / 1000000;
            if (left <= 0 || poll(&wait, 1, static_cast<int>(left)) <= 0) break;
            const ssize_t put = send(client, reply.data() + sent, reply.size() - sent, MSG_NOSIGNAL);
            if (put <= 0) break;
            sent += static_cast<size_t>(put);
        }
        close(client);
    }
}

std::string Daemon::HandleControlRequest(const std::string& line) {
    std::unique_ptr<cJSON, decltype(&cJSON_Delete)> request(cJSON_Parse(line.c_str()), cJSON_Delete);
    const cJSON* command = request ? cJSON_GetObjectItemCaseSensitive(request.get(), "command") : nullptr;
    if (!cJSON_IsString(command)) return "{\"ok\":false,\"error\":\"the request is not a JSON object with \\\"command\\\"\"}";
    const std::string name = command->valuestring;
    if (name == "status") return StatusJson();
    if (name == "metrics") {
        uint32_t size = 0;
        get_metrics_mem(nullptr, &size);
        std::string text(size, '\0');
        if (size == 0 || get_metrics_mem(text.data(), &size) != AC_OK)
            return "{\"ok\":false,\"error\":\"the engine gave no metrics\"}";
        text.resize(std::strlen(text.c_str()));
        std::string status = StatusJson();
        return "{\"ok\":true,\"metrics\":" + text + ",\"daemon\":" + status + "}";
    }
    if (name == "mode") {
        const cJSON* mode = cJSON_GetObjectItemCaseSensitive(request.get(), "mode");
        if (!cJSON_IsString(mode) || (std::strcmp(mode->valuestring, "enforce") != 0 &&
                                      std::strcmp(mode->valuestring, "log-only") != 0))
            return "{\"ok\":false,\"error\":\"mode must be \\\"enforce\\\" or \\\"log-only\\\"\"}";
        std::lock_guard<std::mutex> hold(m_policyMutex);
        m_config.enforce = std::strcmp(mode->valuestring, "enforce") == 0;
        ApplyPolicy(m_config.enforce);
        Log(Level::Info, "mode set to %s", mode->valuestring);
        return std::string("{\"ok\":true,\"mode\":\"") + mode->valuestring + "\"}";
    }
    if (name == "maintenance") {
        const cJSON* forSeconds = cJSON_GetObjectItemCaseSensitive(request.get(), "for_s");
        const bool off = cJSON_IsTrue(cJSON_GetObjectItemCaseSensitive(request.get(), "off"));
        if (!off && (!cJSON_IsNumber(forSeconds) || forSeconds->valuedouble <= 0 || forSeconds->valuedouble > 86400 * 7))
            return "{\"ok\":false,\"error\":\"maintenance needs \\\"for_s\\\" (1 s to 7 days) or \\\"off\\\"\"}";
        std::lock_guard<std::mutex> hold(m_policyMutex);
        m_maintenance = !off;
        m_maintenanceUntilNs = off ? 0 : NowNs() + static_cast<int64_t>(forSeconds->valuedouble * 1e9);
        WakeWatchdog();
        ApplyPolicy(false);
        Log(Level::Info, off ? "maintenance off" : "maintenance on for %.0f s", off ? 0.0 : forSeconds->valuedouble);
        return std::string("{\"ok\":true,\"maintenance\":") + (off ? "false" : "true") + "}";
    }
    if (name == "import") {
        const cJSON* rulesetName = cJSON_GetObjectItemCaseSensitive(request.get(), "name");
        const cJSON* ruleset = cJSON_GetObjectItemCaseSensitive(request.get(), "ruleset");
        const bool append = cJSON_IsTrue(cJSON_GetObjectItemCaseSensitive(request.get(), "append"));
        if (!cJSON_IsString(rulesetName) || !cJSON_IsString(ruleset) || rulesetName->valuestring[0] == '\0')
            return "{\"ok\":false,\"error\":\"import needs \\\"name\\\" and \\\"ruleset\\\" strings\"}";
        std::lock_guard<std::mutex> hold(m_policyMutex);
        const uint32_t status = set_ruleset_buffer(append ? 1 : 0, Widen(ruleset->valuestring).c_str(),
                                                   Widen(rulesetName->valuestring).c_str());
        Log(Level::Info, "ruleset %s imported: status 0x%08x", rulesetName->valuestring, status);
        return std::string("{\"ok\":") + (status == AC_OK ? "true" : "false") + ",\"status\":" + std::to_string(status) +
               (status == AC_OK ? "" : ",\"error\":\"the engine refused the ruleset\"") + "}";
    }
    if (name == "ps") return PsJson();
    return "{\"ok\":false,\"error\":" + JsonEscape("unknown command: " + name) + "}";
}

std::string Daemon::StatusJson() {
    const double uptime = static_cast<double>(NowNs() - m_startNs) / 1e9;
    const Counters& c = m_counters;
    std::ostringstream out;
    out << "{\"ok\":true,\"mode\":\"" << (m_enforce ? "enforce" : "log-only") << "\",\"maintenance\":"
        << (m_maintenance ? "true" : "false") << ",\"watched\":[";
    {
        std::lock_guard<std::mutex> hold(m_watchedMutex);
        for (size_t i = 0; i < m_watched.size(); ++i) out << (i ? "," : "") << JsonEscape(m_watched[i].path);
    }
    out << "],\"control\":[\"exec\"" << (m_config.scripts ? ",\"scripts\"" : "")
        << (m_config.libraries ? ",\"libraries\"" : "") << "],\"uptime_s\":" << uptime;
    const std::pair<const char*, uint64_t> kinds[] = {{"exec", c.exec},     {"open", c.open},     {"script", c.script},
                                                      {"library", c.library}, {"write", c.write}, {"delete", c.remove},
                                                      {"rename", c.rename}};
    out << ",\"events\":{";
    for (size_t i = 0; i < std::size(kinds); ++i) out << (i ? "," : "") << '"' << kinds[i].first << "\":" << kinds[i].second;
    out << "},\"events_per_second\":{";
    for (size_t i = 0; i < std::size(kinds); ++i)
        out << (i ? "," : "") << '"' << kinds[i].first << "\":" << (uptime > 0 ? static_cast<double>(kinds[i].second) / uptime : 0);
    out << "},\"allowed\":" << c.allowed << ",\"denied\":" << c.denied << ",\"deadline_answers\":" << c.deadline
        << ",\"overflow_answers\":" << c.overflow << ",\"error_answers\":" << c.error
        << ",\"kernel_overflows\":" << c.kernelOverflow << ",\"own_accesses\":" << c.ownAccess
        << ",\"log_lines_dropped\":" << LogLinesDropped()
        << ",\"exposures\":[";
    const std::vector<std::string> exposures = Exposures();
    for (size_t i = 0; i < exposures.size(); ++i) out << (i ? "," : "") << JsonEscape(exposures[i]);
    out << "]"
        << ",\"allow_cache_answers\":" << c.allowCacheAnswers << ",\"queue_depth\":" << m_jobs.Depth()
        << ",\"digest_cache_entries\":" << m_digests.Size()
        << ",\"latency_us\":{\"p50\":" << m_latency.Percentile(0.5) << ",\"p90\":" << m_latency.Percentile(0.9)
        << ",\"p99\":" << m_latency.Percentile(0.99) << ",\"p999\":" << m_latency.Percentile(0.999)
        << ",\"max\":" << m_latency.Max() << "}}";
    return out.str();
}

// Running processes whose program the current rules would no longer let
// start. The processes themselves are only read about, never touched.
std::string Daemon::PsJson() {
    std::ostringstream out;
    out << "{\"ok\":true,\"processes\":[";
    bool first = true;
    DIR* proc = opendir("/proc");
    for (struct dirent* entry = proc ? readdir(proc) : nullptr; entry != nullptr; entry = readdir(proc)) {
        char* end = nullptr;
        const long pid = std::strtol(entry->d_name, &end, 10);
        if (end == entry->d_name || *end != '\0' || pid == getpid()) continue;
        const std::string program = ReadLink("/proc/" + std::to_string(pid) + "/exe");
        if (program.empty()) continue;
        const int fd = open(("/proc/" + std::to_string(pid) + "/exe").c_str(), O_RDONLY | O_CLOEXEC);
        struct stat status {};
        if (fd < 0) continue;
        bool watched = false;
        if (fstat(fd, &status) == 0) {
            std::lock_guard<std::mutex> hold(m_watchedMutex);
            for (const Watched& w : m_watched) watched = watched || w.dev == status.st_dev;
        }
        Digests digests{};
        if (!watched || !DigestsOf(fd, FileId{status.st_dev, status.st_ino}, status, digests)) {
            close(fd);
            continue;
        }
        close(fd);
        const ProcessIdentity identity = IdentityOf(static_cast<pid_t>(pid));
        EventTexts texts;
        texts.name = Widen(program);
        texts.processName = Widen(program);
        texts.cmdLine = Widen(identity.commandLine);
        texts.user = Widen(identity.user);
        texts.group = Widen(identity.group);
        AppCtlEvent record{};
        record.type = AC_OP_PROCESS_CREATE;
        record.isExec = 1;
        record.pid = static_cast<uint64_t>(pid);
        record.size = static_cast<uint64_t>(status.st_size);
        record.fileSha256 = digests.sha256;
        record.fileSha1 = digests.sha1;
        record.fileMd5 = digests.md5;
        texts.Attach(record);
        AppCtlResult result{};
        app_ctl(nullptr, &record, &result);
        if (result.dbVerdict == AC_DB_ALLOWED) continue;
        out << (first ? "" : ",") << "{\"pid\":" << pid << ",\"program\":" << JsonEscape(program) << ",\"sha256\":\""
            << zorv::host::ToHex(digests.sha256, 32) << "\",\"user\":" << JsonEscape(identity.user) << ",\"verdict\":\""
            << (result.dbVerdict == AC_DB_BLOCKED ? "blocked" : "unknown") << "\"}";
        first = false;
    }
    if (proc != nullptr) closedir(proc);
    out << "]}";
    return out.str();
}

bool Daemon::OpenControlSocket() {
    const std::filesystem::path path(m_config.socket);
    std::error_code ignored;
    if (path.has_parent_path()) std::filesystem::create_directories(path.parent_path(), ignored);
    struct sockaddr_un address {};
    address.sun_family = AF_UNIX;
    if (m_config.socket.size() >= sizeof address.sun_path) {
        Log(Level::Error, "control socket path too long: %s", m_config.socket.c_str());
        return false;
    }
    std::memcpy(address.sun_path, m_config.socket.c_str(), m_config.socket.size() + 1);
    m_controlFd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    unlink(m_config.socket.c_str());
    const mode_t previous = umask(0077);
    const bool bound = m_controlFd >= 0 && bind(m_controlFd, reinterpret_cast<struct sockaddr*>(&address), sizeof address) == 0;
    umask(previous);
    if (!bound || chmod(m_config.socket.c_str(), 0600) != 0 || listen(m_controlFd, 16) != 0) {
        Log(Level::Error, "control socket %s: %s", m_config.socket.c_str(), std::strerror(errno));
        return false;
    }
    return true;
}

// ---- Lifecycle -------------------------------------------------------------

void Daemon::Reload() {
    sd_notify(0, "RELOADING=1");
    Config fresh;
    std::string error;
    if (!LoadConfig(m_configPath, true, fresh, error)) {
        Log(Level::Error, "reload refused, the running settings stay: %s", error.c_str());
        sd_notify(0, "READY=1");
        return;
    }
    if (fresh.watch != m_config.watch || fresh.ignore != m_config.ignore || fresh.store != m_config.store ||
        fresh.socket != m_config.socket || fresh.workers != m_config.workers || fresh.scripts != m_config.scripts ||
        fresh.libraries != m_config.libraries)
        Log(Level::Warning, "watch, ignore, control, store, socket and workers change at the next start");
    {
        std::lock_guard<std::mutex> hold(m_policyMutex);
        const bool probe = fresh.enforce && !m_config.enforce;
        m_config.enforce = fresh.enforce;
        m_config.deadlineMs = fresh.deadlineMs;
        m_config.onDeadline = fresh.onDeadline;
        m_config.onError = fresh.onError;
        m_config.onErrorSet = fresh.onErrorSet;
        m_config.logLevel = fresh.logLevel;
        m_config.trustRules = fresh.trustRules;
        m_deadlineMs = fresh.deadlineMs;
        if (fresh.log != m_config.log) {
            if (OpenLog(fresh.log, error)) m_config.log = fresh.log;
            else Log(Level::Error, "log target kept: %s", error.c_str());
        }
        set_loglevel(EngineLogMask(m_config.logLevel));
        ApplyPolicy(probe);
    }
    Log(Level::Info, "settings reloaded from %s: mode %s", m_configPath.c_str(), m_config.enforce ? "enforce" : "log-only");
    sd_notify(0, "READY=1");
}

void Daemon::Shutdown() {
    sd_notify(0, "STOPPING=1");
    m_stopping = true;
    WakeWatchdog();
    const uint64_t wake = 1;
    if (write(m_stopFd, &wake, sizeof wake) < 0) Log(Level::Warning, "stop signal: %s", std::strerror(errno));
    m_pendingDone.notify_all();
    // Nothing waits on a stopping daemon: every event still held is let through.
    auto releaseAll = [this] {
        std::deque<std::shared_ptr<PermissionEvent>> held;
        {
            std::lock_guard<std::mutex> hold(m_inflightMutex);
            held.swap(m_inflight);
        }
        for (auto& event : held) Respond(*event, true, false);
        for (Job& job : m_jobs.TakeAll())
            if (job.event) Respond(*job.event, true, false);
    };
    if (m_reader.joinable()) m_reader.join();
    releaseAll();
    // Closing the group lets through what is left, read or not, even while
    // a worker is still inside the engine.
    {
        std::unique_lock<std::shared_mutex> closing(m_groupMutex);
        close(m_permissionFd);
        m_permissionFd = -1;
    }
    m_jobs.Wake();
    m_writes.Wake();
    for (std::thread& thread : m_threads) thread.join();
    m_threads.clear();
    m_writes.TakeAll();
    if (m_notifyFd >= 0) close(m_notifyFd);
    m_notifyFd = -1;
    unlink(m_config.socket.c_str());
    flush_db_buffer();
    engine_stop();
    Log(Level::Info, "stopped: %llu allowed, %llu denied, %llu deadline answers",
        static_cast<unsigned long long>(m_counters.allowed.load()),
        static_cast<unsigned long long>(m_counters.denied.load()),
        static_cast<unsigned long long>(m_counters.deadline.load()));
}

// Every event read brings two descriptors (the file's and the pidfd), held
// until the event is let go of, so a busy second holds hundreds. The table of
// a process's descriptors grows by doubling, and once the process has threads
// each growth waits for an RCU grace period, tens of milliseconds inside the
// read of the next event while programs wait on it. So the limit is raised to
// what the system allows (a read that finds no free descriptor fails the
// event) and the table is grown here, once, before there are threads.
static void ReserveDescriptors() {
    constexpr rlim_t kReserved = 8192;
    struct rlimit limit {};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
    if (limit.rlim_cur < limit.rlim_max) {
        limit.rlim_cur = limit.rlim_max;
        if (setrlimit(RLIMIT_NOFILE, &limit) != 0) getrlimit(RLIMIT_NOFILE, &limit);
    }
    const int any = open("/dev/null", O_RDONLY | O_CLOEXEC);
    if (any < 0) return;
    const int top = fcntl(any, F_DUPFD_CLOEXEC, static_cast<int>(std::min(limit.rlim_cur, kReserved) - 1));
    if (top >= 0) close(top);
    close(any);
}

int Daemon::Run() {
    ReserveDescriptors();
    m_startNs = NowNs();
    m_deadlineMs = m_config.deadlineMs;
    if (const char* stall = std::getenv("ZORVD_FAULT_STALL_MS")) m_stallMs = static_cast<uint32_t>(std::atoi(stall));
    m_engineErrors = std::getenv("ZORVD_FAULT_ENGINE_ERROR") != nullptr;
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGHUP);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);  // every thread inherits it; only this one takes them

    if (!StartEngine()) return 1;
    {
        std::lock_guard<std::mutex> hold(m_policyMutex);
        ApplyPolicy(true);
    }
    m_stopFd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (m_stopFd < 0 || !SetupFanotify() || !OpenControlSocket()) {
        engine_stop();
        return 1;
    }
    m_readerBeat = NowNs();
    m_reader = std::thread(&Daemon::ReaderLoop, this);
    if (m_notifyFd >= 0) m_threads.emplace_back(&Daemon::NotifyLoop, this);
    for (uint32_t i = 0; i < m_config.workers; ++i) m_threads.emplace_back(&Daemon::WorkerLoop, this);
    m_threads.emplace_back(&Daemon::WriteLoop, this);
    m_threads.emplace_back(&Daemon::WatchdogLoop, this);
    m_threads.emplace_back(&Daemon::ControlLoop, this);
    m_threads.emplace_back(&Daemon::MountsLoop, this);

    std::string watched;
    {
        std::lock_guard<std::mutex> hold(m_watchedMutex);
        for (const Watched& w : m_watched) watched += (watched.empty() ? "" : " ") + w.path;
    }
    for (const std::string& exposure : Exposures())
        Log(m_config.enforce ? Level::Warning : Level::Info, "not enforced here: %s", exposure.c_str());
    Log(Level::Info, "ready: mode %s, watching %s, socket %s", m_config.enforce ? "enforce" : "log-only",
        watched.c_str(), m_config.socket.c_str());
    sd_notifyf(0, "READY=1\nSTATUS=%s, watching %s", m_config.enforce ? "enforcing" : "log-only", watched.c_str());

    uint64_t watchdogUs = 0;
    const bool watchdog = sd_watchdog_enabled(0, &watchdogUs) > 0;
    for (;;) {
        struct timespec wait = {0, 250000000};
        siginfo_t info{};
        const int signal = sigtimedwait(&signals, &info, &wait);
        // The watchdog is fed only while the event reader is alive.
        if (watchdog && NowNs() - m_readerBeat < static_cast<int64_t>(watchdogUs) * 1000 / 2) sd_notify(0, "WATCHDOG=1");
        if (signal == SIGHUP) {
            Reload();
        } else if (signal == SIGTERM || signal == SIGINT) {
            Log(Level::Info, "stopping on signal %d", signal);
            Shutdown();
            return 0;
        }
    }
}

}  // namespace zorvd

// zorv scan PATH... [--jobs N] [--all-files] [--one-file-system]
// Builds the scanned inventory (source 3): walks the trees without following
// links, reads each kept file once for its three digests on N threads, and
// stores what the store does not already hold through the write buffer.
#include <cjson/cJSON.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <fstream>
#include <iostream>
#include <map>
#include <mutex>
#include <thread>
#include <unordered_set>

#include "Commands.h"
#include "Digest.h"
#include "EventLine.h"
#include "HostFiles.h"
#include "HostText.h"

namespace zorv::cli {

namespace fs = std::filesystem;

namespace {

struct ScanOptions {
    std::vector<std::string> paths;
    unsigned jobs = 0;
    bool allFiles = false;
    bool oneFileSystem = false;
    bool sizes = false;  // the walk learns sizes, for the progress line's time left
};

// The engine's executable and script extensions (lower case): files named so
// are kept without looking inside.
const std::unordered_set<std::string>& KeptExtensions() {
    static const std::unordered_set<std::string> set = {
        "acm", "ax",  "bash", "bat", "chm", "class", "cmd", "com", "cpl", "cron", "dll", "drv", "ear",
        "efi", "erb", "exe",  "htm", "html", "inf",  "ini", "ins", "inx", "isu",  "jar", "job", "js",
        "jse", "ko",  "manifest", "msc", "msi", "msp", "mst", "mui", "ocx", "paf", "php", "pif", "pl",
        "ps1", "psm1", "py", "pyc", "pyd", "pyo", "pyz", "rb", "scr", "sh", "so", "sys", "tmp", "tsp",
        "vb",  "vbs", "vbscript", "war", "ws", "wsf", "wsh"};
    return set;
}

bool KeptByName(const fs::path& path) {
    std::string name = host::PathToUtf8(path.filename());
    std::transform(name.begin(), name.end(), name.begin(), [](char c) { return c >= 'A' && c <= 'Z' ? c + 32 : c; });
    const size_t dot = name.rfind('.');
    if (dot == std::string::npos || dot == 0) return false;
    if (KeptExtensions().count(name.substr(dot + 1))) return true;
    // Versioned shared libraries: libc.so.6
    return name.find(".so.") != std::string::npos;
}

bool KeptByMagic(const uint8_t* head, size_t length) {
    if (length >= 4 && head[0] == 0x7F && head[1] == 'E' && head[2] == 'L' && head[3] == 'F') return true;
    if (length >= 2 && head[0] == 'M' && head[1] == 'Z') return true;
    return length >= 2 && head[0] == '#' && head[1] == '!';
}

// Known rows as one 64-bit hash of (full path, SHA-256): a million rows in
// tens of megabytes.
uint64_t RowKey(std::string_view fullPath, std::string_view sha256Hex) {
    uint64_t hash = 1469598103934665603ull;
    auto mix = [&hash](std::string_view text) {
        for (const char c : text) hash = (hash ^ static_cast<unsigned char>(c)) * 1099511628211ull;
        hash = (hash ^ 0xFF) * 1099511628211ull;
    };
    mix(fullPath);
    mix(sha256Hex);
    return hash;
}

// Reads the scanned inventory back through get_inventory, page by page.
bool LoadKnown(std::unordered_set<uint64_t>& known, std::string& error) {
    const fs::path payload = ScratchPath("scan-known");
    const std::optional<host::ZString> payloadText = host::PathToZ(payload);
    const ZorvChar emptyScanId[] = {0};
    uint64_t after = 0;
    std::string line;
    for (;;) {
        const uint32_t status = get_inventory(after, 10000, AC_SOURCE_SCANNED, payloadText->c_str(), emptyScanId);
        if (status != AC_OK) {
            error = std::string("get_inventory: ") + host::StatusName(status);
            return false;
        }
        std::ifstream page(payload, std::ios::binary);
        size_t rows = 0;
        while (std::getline(page, line)) {
            cJSON* row = cJSON_ParseWithLength(line.data(), line.size());
            const cJSON* id = cJSON_GetObjectItemCaseSensitive(row, "inventoryItemId");
            const cJSON* path = cJSON_GetObjectItemCaseSensitive(row, "nativePath");
            const cJSON* sha256 = cJSON_GetObjectItemCaseSensitive(row, "sha256");
            if (cJSON_IsNumber(id)) {
                ++rows;
                after = static_cast<uint64_t>(id->valuedouble);
                if (cJSON_IsString(path) && cJSON_IsString(sha256))
                    known.insert(RowKey(path->valuestring, sha256->valuestring));
            }
            cJSON_Delete(row);
        }
        if (rows < 10000) break;
    }
    std::error_code ignored;
    fs::remove(payload, ignored);
    return true;
}

struct Tally {
    std::mutex mutex;  // guards skipped and the order of messages
    std::map<std::string, uint64_t> skipped;
    std::atomic<uint64_t> seen{0}, kept{0}, stored{0}, known{0}, failed{0};
    std::atomic<uint64_t> bytesHashed{0}, filesHashed{0};
    // What the walk handed on and what the readers are through with, hashed
    // or not: the progress line's time left.
    std::atomic<uint64_t> filesQueued{0}, bytesQueued{0}, filesDone{0}, bytesDone{0};
    std::atomic<bool> walkDone{false};

    void Skip(const std::string& reason, const fs::path* named = nullptr, const std::string& detail = {}) {
        std::lock_guard<std::mutex> lock(mutex);
        ++skipped[reason];
        if (named != nullptr) PrintError(host::PathToUtf8(*named), reason + (detail.empty() ? "" : ": " + detail));
    }
};

struct Work {
    fs::path path;
    uint64_t size = 0;  // as the walk saw it; 0 when not asked for
};

// A file read and digested, waiting to be stored.
struct Row {
    fs::path path;
    host::ZString fullPath, folder, name;
    host::FileDigests digests;
    uint64_t size = 0;
};

// Bounded: whoever fills it never runs far ahead of whoever empties it.
// Each side is woken only once the other has done a batch of work, not for
// every item: a thread woken per file cost more than the work it was woken for.
template <typename Item>
class BoundedQueue {
public:
    // A consumer waits for `batch` items (or the close).
    explicit BoundedQueue(size_t batch) : m_batch(batch) {}
    void Push(Item item) {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_space.wait(lock, [&] { return m_items.size() < kCapacity; });
        m_items.push_back(std::move(item));
        if (m_items.size() >= m_batch) m_ready.notify_one();
    }
    bool Pop(Item& item) {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_ready.wait(lock, [&] { return m_items.size() >= m_batch || m_closed; });
        if (m_items.empty()) return false;
        item = std::move(m_items.front());
        m_items.pop_front();
        // A full queue's producer waits until it is half empty.
        if (m_items.size() == kCapacity / 2) m_space.notify_all();
        return true;
    }
    void Close() {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_closed = true;
        m_ready.notify_all();
    }

private:
    static constexpr size_t kCapacity = 4096;
    const size_t m_batch;
    std::mutex m_mutex;  // guards m_items and m_closed
    std::condition_variable m_ready, m_space;
    std::deque<Item> m_items;
    bool m_closed = false;
};

using WorkQueue = BoundedQueue<Work>;
using RowQueue = BoundedQueue<Row>;

void Walk(const std::vector<fs::path>& roots, const ScanOptions& options, WorkQueue& queue, Tally& tally) {
    const auto push = [&](const fs::path& path, const fs::directory_entry* entry) {
        Work work{path, 0};
        if (options.sizes) {
            std::error_code error;
            const uintmax_t size = entry ? entry->file_size(error) : fs::file_size(path, error);
            if (!error) work.size = size;
        }
        ++tally.filesQueued;
        tally.bytesQueued += work.size;
        queue.Push(std::move(work));
    };
    for (const fs::path& root : roots) {
        const uint64_t device = options.oneFileSystem ? host::DeviceOf(root) : 0;
        std::vector<fs::path> folders;
        std::error_code error;
        const fs::file_status rootStatus = fs::symlink_status(root, error);
        if (fs::is_regular_file(rootStatus)) {
            push(root, nullptr);
            continue;
        }
        folders.push_back(root);
        while (!folders.empty()) {
            const fs::path folder = std::move(folders.back());
            folders.pop_back();
            fs::directory_iterator it(folder, error);
            if (error) {
                tally.Skip("folder unreadable", &folder, error.message());
                continue;
            }
            for (; it != fs::directory_iterator(); it.increment(error)) {
                const fs::directory_entry& entry = *it;
                const fs::file_status status = entry.symlink_status(error);
                if (error) {
                    tally.Skip("unreadable", &entry.path(), error.message());
                    error.clear();
                    continue;
                }
                if (fs::is_directory(status)) {
                    if (device != 0 && host::DeviceOf(entry.path()) != device) {
                        tally.Skip("other file system");
                        continue;
                    }
                    folders.push_back(entry.path());
                    continue;
                }
                ++tally.seen;
                if (fs::is_symlink(status)) {
                    tally.Skip("symbolic link");
                } else if (!fs::is_regular_file(status)) {
                    tally.Skip("not a regular file");
                } else {
                    push(entry.path(), &entry);
                }
            }
            if (error) {
                tally.Skip("folder unreadable", &folder, error.message());
                error.clear();
            }
        }
    }
    queue.Close();
    tally.walkDone = true;
}

// One reader thread: classify, read and digest, and hand what is new on to
// be stored.
void Read(WorkQueue& queue, const ScanOptions& options, const std::unordered_set<uint64_t>& known, RowQueue& rows,
          Tally& tally) {
    host::Digester digester;
    std::vector<uint8_t> buffer;
    Work work;
    while (queue.Pop(work)) {
        const fs::path& path = work.path;
        struct Through {
            Tally& tally;
            uint64_t size;
            ~Through() {
                tally.bytesDone += size;
                ++tally.filesDone;
            }
        } through{tally, work.size};
        std::string error;
        std::error_code status;
        if (!options.allFiles && !KeptByName(path)) {
            const fs::perms perms = fs::symlink_status(path, status).permissions();
            const bool executeBit =
                (perms & (fs::perms::owner_exec | fs::perms::group_exec | fs::perms::others_exec)) != fs::perms::none;
            if (!executeBit) {
                uint8_t head[4];
                size_t length = 0;
                if (!host::ReadHead(path, head, length, error)) {
                    tally.Skip("unreadable", &path, error);
                    continue;
                }
                if (!KeptByMagic(head, length)) {
                    tally.Skip("not executable");
                    continue;
                }
            }
        }
        std::optional<host::ZString> fullPath = host::PathToZ(path);
        if (!fullPath) {
            tally.Skip("name not UTF-8", &path);
            continue;
        }
        host::FileRead read;
        bool ok = host::ReadAndDigest(path, digester, buffer, read, error);
        // A file written while it was read is read once more, then left out.
        if (ok && !(read.before == read.after)) ok = host::ReadAndDigest(path, digester, buffer, read, error);
        if (!ok) {
            tally.Skip("unreadable", &path, error);
            continue;
        }
        tally.bytesHashed += read.after.size;
        ++tally.filesHashed;
        if (!(read.before == read.after)) {
            tally.Skip("changed while read", &path);
            continue;
        }
        ++tally.kept;
        const std::string pathText = host::PathToUtf8(path);
        if (known.count(RowKey(pathText, host::ToHex(read.digests.sha256, 32)))) {
            ++tally.known;
            continue;
        }
        std::optional<host::ZString> folder = host::PathToZ(path.parent_path());
        std::optional<host::ZString> name = host::PathToZ(path.filename());
        rows.Push(Row{path, std::move(*fullPath), std::move(*folder), std::move(*name), read.digests, read.after.size});
    }
}

// The one storing thread. A flush of the engine's write buffer (every 51
// rows) holds its store for milliseconds, and every store_item meanwhile
// waits for it: from the readers, that stopped both reading while one
// flushed.
void Store(RowQueue& rows, Tally& tally) {
    const ZorvChar emptyRuleset[] = {0};
    Row row;
    while (rows.Pop(row)) {
        InventoryItemRecord item{};
        std::copy(std::begin(row.digests.md5), std::end(row.digests.md5), item.md5);
        std::copy(std::begin(row.digests.sha1), std::end(row.digests.sha1), item.sha1);
        std::copy(std::begin(row.digests.sha256), std::end(row.digests.sha256), item.sha256);
        item.source = AC_SOURCE_SCANNED;
        item.fileName = row.name.c_str();
        item.path = row.folder.c_str();
        item.fullPath = row.fullPath.c_str();
        item.size = row.size;
        item.isAuthorized = 1;
        item.ruleset = emptyRuleset;
        const uint32_t stored = store_item(&item, 1);
        if (stored == AC_OK) {
            ++tally.stored;
        } else {
            ++tally.failed;
            tally.Skip("not stored", &row.path, host::StatusName(stored));
        }
    }
}

// Time left once the walk has counted everything: by bytes where the walk
// knew sizes, else by files. Empty while it cannot be told.
std::string TimeLeft(const Tally& tally, double seconds) {
    if (!tally.walkDone || seconds < 1) return {};
    const bool bySize = tally.bytesQueued > 0;
    const double total = bySize ? double(tally.bytesQueued) : double(tally.filesQueued);
    const double done = bySize ? double(tally.bytesDone) : double(tally.filesDone);
    if (done <= 0 || done >= total) return {};
    const auto left = static_cast<unsigned long long>((total - done) * seconds / done + 0.5);
    char text[48];
    if (left >= 3600)
        std::snprintf(text, sizeof text, "%lluh%02llum left", left / 3600, left / 60 % 60);
    else
        std::snprintf(text, sizeof text, "%llu:%02llu left", left / 60, left % 60);
    return text;
}

std::string Bytes(double bytes) {
    const char* units[] = {"B", "KB", "MB", "GB", "TB"};
    int unit = 0;
    while (bytes >= 1024 && unit < 4) bytes /= 1024, ++unit;
    char text[32];
    std::snprintf(text, sizeof text, unit ? "%.1f %s" : "%.0f %s", bytes, units[unit]);
    return text;
}

}  // namespace

CommandRun DefineScan(CLI::App& command, const CommonOptions& common) {
    auto options = std::make_shared<ScanOptions>();
    command.add_option("paths", options->paths, "Folders (or files) to scan")->required();
    command.add_option("-j,--jobs", options->jobs, "Reader threads (default: the machine's cores)");
    command.add_flag("--all-files", options->allFiles, "Keep every regular file, not only executables");
    command.add_flag("--one-file-system", options->oneFileSystem, "Stay on the file system of each PATH");
    return [options, &common]() {
        std::vector<fs::path> roots;
        for (const std::string& text : options->paths) {
            std::error_code error;
            const fs::path root = fs::absolute(PathFromUtf8(text), error);
            if (!fs::exists(fs::symlink_status(root, error))) {
                PrintError(text, "no such file or folder");
                return int(kExitError);
            }
            roots.push_back(root.lexically_normal());
            if (options->oneFileSystem && host::DeviceOf(roots.back()) == 0)
                PrintError(text, "its file system cannot be told; the scan may leave it");
        }
        host::EngineSession engine;
        if (!OpenEngine(common, engine)) return int(kExitError);
        const auto started = std::chrono::steady_clock::now();
        std::unordered_set<uint64_t> known;
        std::string error;
        if (!LoadKnown(known, error)) {
            PrintError(common.db, error);
            return int(kExitError);
        }

        // Progress only on a terminal, redrawn in place on standard error.
        const bool progress = !common.quiet && !common.json && host::IsTerminal(2);
        options->sizes = progress;
        unsigned jobs = options->jobs ? options->jobs : std::max(1u, std::thread::hardware_concurrency());
        Tally tally;
        WorkQueue queue(1);
        const auto readStarted = std::chrono::steady_clock::now();
        // The engine commits its write buffer every 51 rows: the storer wakes
        // for as many.
        RowQueue rows(51);
        std::thread walker([&] { Walk(roots, *options, queue, tally); });
        std::thread storer([&] { Store(rows, tally); });
        std::vector<std::thread> readers;
        for (unsigned i = 0; i < jobs; ++i) readers.emplace_back([&] { Read(queue, *options, known, rows, tally); });

        std::atomic<bool> finished{false};
        std::thread painter;
        if (progress) {
            painter = std::thread([&] {
                while (!finished) {
                    std::this_thread::sleep_for(std::chrono::milliseconds(250));
                    const double seconds =
                        std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
                    const double rate = tally.bytesHashed / std::max(seconds, 0.001);
                    const std::string left = TimeLeft(
                        tally, std::chrono::duration<double>(std::chrono::steady_clock::now() - readStarted).count());
                    std::fprintf(stderr, "\r\033[K%llu files, %s hashed, %s/s, %s",
                                 static_cast<unsigned long long>(tally.filesHashed.load()),
                                 Bytes(tally.bytesHashed).c_str(), Bytes(rate).c_str(),
                                 !left.empty() ? left.c_str() : tally.walkDone ? "finishing" : "walking");
                }
                std::fprintf(stderr, "\r\033[K");
            });
        }
        walker.join();
        for (std::thread& reader : readers) reader.join();
        rows.Close();
        storer.join();
        finished = true;
        if (painter.joinable()) painter.join();
        const uint32_t flushed = flush_db_buffer();
        (void)flushed;  // AC_E_FAILED also means "nothing was left to write"
        const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();

        if (common.json) {
            std::string out = "{\"seen\":" + std::to_string(tally.seen) + ",\"kept\":" + std::to_string(tally.kept) +
                              ",\"stored\":" + std::to_string(tally.stored) +
                              ",\"alreadyKnown\":" + std::to_string(tally.known) +
                              ",\"bytesHashed\":" + std::to_string(tally.bytesHashed) + ",\"skipped\":{";
            bool first = true;
            for (const auto& [reason, count] : tally.skipped) {
                if (!first) out += ",";
                host::AppendJsonString(out, reason);
                out += ":" + std::to_string(count);
                first = false;
            }
            char time[32];
            std::snprintf(time, sizeof time, "%.3f", seconds);
            out += std::string("},\"seconds\":") + time + "}";
            std::cout << out << "\n";
        } else if (Speak(common)) {
            std::printf("Scanned %zu path%s in %.1f s on %u thread%s\n", roots.size(), roots.size() == 1 ? "" : "s",
                        seconds, jobs, jobs == 1 ? "" : "s");
            std::printf("  files seen       %llu\n", static_cast<unsigned long long>(tally.seen));
            std::printf("  stored           %llu\n", static_cast<unsigned long long>(tally.stored));
            std::printf("  already known    %llu\n", static_cast<unsigned long long>(tally.known));
            for (const auto& [reason, count] : tally.skipped)
                std::printf("  skipped: %-22s %llu\n", reason.c_str(), static_cast<unsigned long long>(count));
            std::printf("  bytes hashed     %s (%.1f MB/s)\n", Bytes(tally.bytesHashed).c_str(),
                        tally.bytesHashed / 1048576.0 / std::max(seconds, 0.001));
        }
        return int(tally.failed ? kExitError : kExitOk);
    };
}

}  // namespace zorv::cli

// The lookup's read-only connections: opening one per slot on first use,
// handing slots out without a shared lock, and closing them all.
#include "ZorvReadConnections.h"

#include <chrono>
#include <thread>

#include "ZorvDataAccessLayerShared.h"
#include "ZorvLogger.h"
#include "ZorvSharedMapVfs.h"
#include "ZorvSlottedSharedMutex.h"
#include "ZorvText.h"

namespace zorv {

namespace {

constexpr char16_t kLogSource[] = u"src/zorv/ZorvReadConnections";
constexpr int kBusyTimeoutMs = 5000;

// The longest Close waits for one lease: a lease lasts one lookup, so this is
// reached only if a lookup is stuck in SQLite, and then the connection is left
// open rather than closed under its user.
constexpr auto kCloseWait = std::chrono::seconds(10);

void FinalizeStatement(sqlite3_stmt* stmt) { sqlite3_finalize(stmt); }
void CloseConnection(sqlite3* db) { sqlite3_close_v2(db); }

}  // namespace

ZorvReadConnections::Lease::~Lease() {
    if (m_slot != nullptr) m_owner->EndLease(*m_slot);
}

const ZorvReadConnections::Lookups& ZorvReadConnections::Lease::operator*() const { return *m_slot->lookups; }

ZorvReadConnections::ZorvReadConnections() = default;

ZorvReadConnections::~ZorvReadConnections() { Close(); }

void ZorvReadConnections::SetReaper(std::function<bool()> wake) { m_wakeReaper = std::move(wake); }

void ZorvReadConnections::Open(const std::u16string& path) {
    {
        std::lock_guard<std::mutex> lock(m_pathLock);
        m_path = path;
    }
    m_reaperWoken.store(false);
    m_open.store(true);
}

void ZorvReadConnections::Close() {
    m_open.store(false);
    for (Slot& slot : m_slots) {
        const auto deadline = std::chrono::steady_clock::now() + kCloseWait;
        bool expected = false;
        while (!slot.busy.compare_exchange_weak(expected, true)) {
            expected = false;
            if (std::chrono::steady_clock::now() > deadline) break;
            std::this_thread::yield();
        }
        if (expected) {
            ZORV_LOG(kLogError, u"ZorvReadConnections::Close", u"A lookup still holds its read connection");
            continue;
        }
        slot.lookups.reset();
        slot.snapshot.store(0);
        slot.busy.store(false);
    }
}

ZorvReadConnections::Lease ZorvReadConnections::Acquire() {
    if (!m_open.load()) return {};
    // Numbered threads, not hashed ids: a thread id is an aligned address, and
    // hashed modulo the slot count most threads would start at the same slot,
    // so each lookup would touch another thread's busy flag first.
    const size_t start = ThreadSlot() % kSlots;
    for (size_t i = 0; i < kSlots; ++i) {
        Slot& slot = m_slots[(start + i) % kSlots];
        if (slot.busy.load(std::memory_order_relaxed) || slot.busy.exchange(true)) continue;
        // Close may have begun after the test above; it waits for this slot,
        // so checking again here is enough.
        if (!m_open.load() || (!slot.lookups && !Connect(slot))) {
            slot.busy.store(false);
            return {};
        }
        if (slot.snapshot.load(std::memory_order_relaxed) != 0 && Outdated(slot)) {
            EndSnapshot(slot);
        }
        if (slot.snapshot.load(std::memory_order_relaxed) == 0 && m_paused.load() == 0) BeginSnapshot(slot);
        return Lease(this, &slot);
    }
    return {};
}

bool ZorvReadConnections::Outdated(const Slot& slot) const {
    if (slot.snapshot.load(std::memory_order_relaxed) != m_generation.load()) return true;
    if (slot.lookups->walIndex == nullptr) {
        // Out of sight: what another process commits is seen within the lifetime.
        return Clock::now() - slot.snapshotSince >= kSnapshotLifetime;
    }
    std::array<uint32_t, kWalIndexHeaderWords> header;
    ReadWalIndexHeader(*slot.lookups, header);
    return header != slot.snapshotHeader;
}

void ZorvReadConnections::ReadWalIndexHeader(const Lookups& lookups,
                                             std::array<uint32_t, kWalIndexHeaderWords>& header) {
    // Written by other threads and processes without a lock, as SQLite's own
    // readers read it: a torn read only looks like a change, and a change
    // only ends a snapshot early.
    for (size_t i = 0; i < header.size(); ++i) header[i] = lookups.walIndex[i];
}

void ZorvReadConnections::MapWalIndex(Lookups& lookups) {
    sqlite3_file* file = nullptr;
    if (sqlite3_file_control(lookups.db.get(), "main", SQLITE_FCNTL_FILE_POINTER, &file) != SQLITE_OK ||
        file == nullptr || file->pMethods == nullptr || file->pMethods->iVersion < 2 ||
        file->pMethods->xShmMap == nullptr) {
        return;
    }
    // Region 0 as SQLite maps it (32 KiB), never extended from here: only a
    // region some connection already has is handed back.
    volatile void* region = nullptr;
    if (file->pMethods->xShmMap(file, 0, 32768, 0, &region) == SQLITE_OK && region != nullptr) {
        lookups.walIndex = static_cast<const volatile uint32_t*>(region);
    }
}

void ZorvReadConnections::BeginSnapshot(Slot& slot) {
    if (slot.lookups->walIndex == nullptr) MapWalIndex(*slot.lookups);
    // Read before the snapshot begins: a commit in between makes it look
    // older than it is, never newer.
    const uint64_t generation = m_generation.load();
    if (slot.lookups->walIndex != nullptr) ReadWalIndexHeader(*slot.lookups, slot.snapshotHeader);
    sqlite3_stmt* begin = slot.lookups->begin.get();
    const int rc = sqlite3_step(begin);
    sqlite3_reset(begin);
    if (rc != SQLITE_DONE) return;  // the lease reads in autocommit, as without snapshots
    slot.snapshotSince = Clock::now();
    slot.usedSinceLook = true;
    slot.snapshot.store(generation);
    // After the store: a reaper that has just looked and found nothing to do
    // is woken again (ReleaseIdleSnapshots clears the flag before it looks).
    slot.keepSnapshot = m_reaperWoken.exchange(true) || (m_wakeReaper && m_wakeReaper());
    if (!slot.keepSnapshot) m_reaperWoken.store(false);
}

void ZorvReadConnections::EndSnapshot(Slot& slot) {
    sqlite3* db = slot.lookups->db.get();
    // A statement still on a row keeps reading from the snapshot whatever
    // COMMIT says; the lookups reset theirs, and this makes sure of it.
    for (sqlite3_stmt* stmt = sqlite3_next_stmt(db, nullptr); stmt != nullptr; stmt = sqlite3_next_stmt(db, stmt)) {
        if (sqlite3_stmt_busy(stmt)) sqlite3_reset(stmt);
    }
    // SQLite may have ended the transaction itself on an error.
    if (!sqlite3_get_autocommit(db)) {
        sqlite3_stmt* end = slot.lookups->end.get();
        const int rc = sqlite3_step(end);
        sqlite3_reset(end);
        if (rc != SQLITE_DONE && !sqlite3_get_autocommit(db)) {
            sqlite3_exec(db, "ROLLBACK;", nullptr, nullptr, nullptr);
        }
    }
    slot.snapshot.store(0);
}

void ZorvReadConnections::EndLease(Slot& slot) {
    if (const uint64_t held = slot.snapshot.load(std::memory_order_relaxed); held != 0) {
        // A lookup that failed leaves nothing worth keeping: the next one
        // starts afresh, as it would have without snapshots.
        const int code = sqlite3_errcode(slot.lookups->db.get());
        const bool failed = code != SQLITE_OK && code != SQLITE_ROW && code != SQLITE_DONE;
        if (!slot.keepSnapshot || failed || Stale(slot)) {
            EndSnapshot(slot);
        } else {
            slot.usedSinceLook = true;
        }
    }
    slot.busy.store(false);
    // A commit between the test above and the store found the slot busy and
    // left its snapshot to this lease; seen here, or the slot was free for it.
    if (slot.snapshot.load() != 0 && Stale(slot)) ReleaseIfStale(slot);
}

template <typename Predicate>
void ZorvReadConnections::ReleaseIfIdle(Slot& slot, Predicate stale) {
    for (;;) {
        if (slot.busy.exchange(true)) return;  // its holder looks when its lease ends
        if (slot.lookups && slot.snapshot.load(std::memory_order_relaxed) != 0 && stale(slot)) EndSnapshot(slot);
        slot.busy.store(false);
        // A commit (or a Pause) while the slot was held here found it busy
        // and left it to whoever held it: look again.
        if (slot.snapshot.load() == 0 || !Stale(slot)) return;
    }
}

void ZorvReadConnections::ReleaseIfStale(Slot& slot) {
    ReleaseIfIdle(slot, [this](const Slot& s) { return Stale(s); });
}

ZorvReadConnections::Pause::Pause(ZorvReadConnections& owner) : m_owner(owner) {
    m_owner.m_paused.fetch_add(1);
    m_owner.Invalidate();
}

ZorvReadConnections::Pause::~Pause() { m_owner.m_paused.fetch_sub(1); }

void ZorvReadConnections::Invalidate() {
    m_generation.fetch_add(1);
    for (Slot& slot : m_slots) {
        if (slot.snapshot.load() == 0) continue;
        ReleaseIfStale(slot);
    }
}

bool ZorvReadConnections::Stale(const Slot& slot) const {
    return slot.snapshot.load() != m_generation.load() || m_paused.load() != 0;
}

bool ZorvReadConnections::ReleaseIdleSnapshots() {
    // Cleared before looking: a snapshot begun after the look wakes the
    // reaper again.
    m_reaperWoken.store(false);
    bool held = false;
    for (Slot& slot : m_slots) {
        if (slot.snapshot.load() == 0) continue;
        // Unused since the last look, a whole interval ago: let it go.
        ReleaseIfIdle(slot, [this](Slot& s) {
            const bool unused = !s.usedSinceLook;
            s.usedSinceLook = false;
            return unused || Stale(s) || Outdated(s);
        });
        if (slot.snapshot.load() != 0) held = true;
    }
    if (held) m_reaperWoken.store(true);
    return held;
}

bool ZorvReadConnections::Connect(Slot& slot) {
    constexpr char16_t kFunction[] = u"ZorvReadConnections::Connect";
    std::string path;
    {
        std::lock_guard<std::mutex> lock(m_pathLock);
        path = Utf16ToUtf8(m_path);
    }
    sqlite3* raw = nullptr;
    // A connection is only ever used by the one thread holding its slot, so
    // SQLite's own per-call mutex would guard nothing. The VFS maps the store
    // once for every connection (null: the default, one mapping each).
    const int rc =
        sqlite3_open_v2(path.c_str(), &raw, SQLITE_OPEN_READONLY | SQLITE_OPEN_NOMUTEX, SharedMapVfsName());
    auto lookups = std::make_unique<Lookups>();
    lookups->db.reset(raw, CloseConnection);
    if (rc != SQLITE_OK) {
        ZORV_LOG(kLogError, kFunction, u"sqlite3_open_v2 failed. rc: %d", rc);
        return false;
    }
    sqlite3_busy_timeout(raw, kBusyTimeoutMs);
    // The pages are read through the mapping, which covers the whole store
    // (a million items take some 170 MB): a page outside it is copied in by a
    // read() per lookup into each reader's small cache of its own, which more
    // than doubled a lookup's price.
    sqlite3_exec(raw, "PRAGMA mmap_size = 1073741824;", nullptr, nullptr, nullptr);
    sqlite3_exec(raw, "PRAGMA cache_size = -4000;", nullptr, nullptr, nullptr);
    const struct {
        std::shared_ptr<sqlite3_stmt>* member;
        const char* sql;
    } statements[] = {
        {&lookups->ruleset, dal::kLookupItemAuthRulesetSql},
        {&lookups->sha1, dal::kLookupItemAlternateSHA1HashSql},
        {&lookups->md5, dal::kLookupItemAlternateMD5HashSql},
        {&lookups->any, dal::kLookupItemAuthSql},
        {&lookups->setting, dal::kGetAcStateSql},
        {&lookups->begin, "BEGIN;"},
        {&lookups->end, "COMMIT;"},
    };
    for (const auto& entry : statements) {
        sqlite3_stmt* stmt = nullptr;
        if (sqlite3_prepare_v2(raw, entry.sql, -1, &stmt, nullptr) != SQLITE_OK) {
            ZORV_LOG(kLogError, kFunction, u"sqlite3_prepare_v2 failed: %s", sqlite3_errmsg(raw));
            sqlite3_finalize(stmt);
            return false;
        }
        entry.member->reset(stmt, FinalizeStatement);
    }
    slot.lookups = std::move(lookups);
    return true;
}

}  // namespace zorv

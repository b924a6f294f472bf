// The lookup's read-only connections: opening one per slot on first use,
// handing slots out without a shared lock, and closing them all.
#include "ZorvReadConnections.h"

#include <chrono>
#include <thread>

#include "ZorvDataAccessLayerShared.h"
#include "ZorvLogger.h"
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
    if (m_slot != nullptr) m_slot->busy.store(false, std::memory_order_release);
}

const ZorvReadConnections::Lookups& ZorvReadConnections::Lease::operator*() const { return *m_slot->lookups; }

ZorvReadConnections::ZorvReadConnections() = default;

ZorvReadConnections::~ZorvReadConnections() { Close(); }

void ZorvReadConnections::Open(const std::u16string& path) {
    {
        std::lock_guard<std::mutex> lock(m_pathLock);
        m_path = path;
    }
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
        return Lease(&slot);
    }
    return {};
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
    // SQLite's own per-call mutex would guard nothing.
    const int rc = sqlite3_open_v2(path.c_str(), &raw, SQLITE_OPEN_READONLY | SQLITE_OPEN_NOMUTEX, nullptr);
    auto lookups = std::make_unique<Lookups>();
    lookups->db.reset(raw, CloseConnection);
    if (rc != SQLITE_OK) {
        ZORV_LOG(kLogError, kFunction, u"sqlite3_open_v2 failed. rc: %d", rc);
        return false;
    }
    sqlite3_busy_timeout(raw, kBusyTimeoutMs);
    // The pages are shared through the mapping, which covers the whole store
    // (a million items take some 300 MB): a page outside it is copied in by a
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

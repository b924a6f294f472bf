// ZorvReadConnections: read-only connections to ac.db for the inventory
// lookup and the settings a decision reads, so that decisions neither queue behind one another on the writer's
// lock nor wait while an import, a flush or another process writes. WAL lets
// these readers see the last committed state beside the one writer.
//
// Thread-safe without a lock shared by every reader: a fixed row of slots,
// each on its own cache line with its own busy flag; a thread starts at the
// slot of its number (ThreadSlot) and takes the first free one. A connection is opened
// in its slot on first use and kept until Close. When no slot is free (more
// threads than slots, all busy) or a connection cannot be opened, Acquire
// answers empty and the caller reads through the writer as before.
#pragma once

#include <sqlite3.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <memory>
#include <mutex>
#include <string>

namespace zorv {

class ZorvReadConnections {
    struct Slot;

public:
    // One connection and the inventory lookups prepared on it.
    struct Lookups {
        std::shared_ptr<sqlite3> db;
        std::shared_ptr<sqlite3_stmt> ruleset;  // SHA-256 and size, sources 1 and 2
        std::shared_ptr<sqlite3_stmt> sha1;     // rules known only by SHA-1
        std::shared_ptr<sqlite3_stmt> md5;      // rules known only by MD5
        std::shared_ptr<sqlite3_stmt> any;      // SHA-256 and size, any source
        std::shared_ptr<sqlite3_stmt> setting;  // one AppControlState value
    };

    class Lease {
    public:
        Lease() = default;
        Lease(Lease&& other) noexcept : m_slot(other.m_slot) { other.m_slot = nullptr; }
        Lease& operator=(Lease&&) = delete;
        ~Lease();
        explicit operator bool() const { return m_slot != nullptr; }
        const Lookups& operator*() const;

    private:
        friend class ZorvReadConnections;
        explicit Lease(Slot* slot) : m_slot(slot) {}
        Slot* m_slot = nullptr;
    };

    ZorvReadConnections();
    ~ZorvReadConnections();
    ZorvReadConnections(const ZorvReadConnections&) = delete;
    ZorvReadConnections& operator=(const ZorvReadConnections&) = delete;

    // Readers may connect to `path` from now on.
    void Open(const std::u16string& path);
    // No new lease from now on; waits for the leases in use to end, then
    // closes every connection. A lease lasts one lookup.
    void Close();
    Lease Acquire();

private:
    static constexpr size_t kSlots = 8;
    struct alignas(64) Slot {
        std::atomic<bool> busy{false};
        std::unique_ptr<Lookups> lookups;  // touched only by the slot's holder
    };
    bool Connect(Slot& slot);

    std::array<Slot, kSlots> m_slots;
    std::atomic<bool> m_open{false};
    std::mutex m_pathLock;  // guards m_path, read when a slot connects
    std::u16string m_path;
};

}  // namespace zorv

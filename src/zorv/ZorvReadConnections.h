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
//
// Snapshots. Beginning and ending a read transaction takes a lock on the
// write-ahead log's shared memory, which SQLite guards with one mutex per
// file in the process and a system call under it: two threads looking up
// side by side queued there more than they looked. So a connection keeps its
// read transaction (its snapshot) from one lease to the next, and lets it go
//  - after every commit of the engine's writer (Invalidate, from its commit
//    hook): idle connections at once, busy ones when their lease ends, so the
//    next lookup sees what was committed;
//  - when another process has committed: the log's index header (the first
//    bytes of the -shm file, which SQLite's own readers compare to learn the
//    same) is no longer what it was when the snapshot began;
//  - when unused through one of the reaper's intervals (ReleaseIdleSnapshots,
//    run by a worker the owner wakes), so that an idle engine never holds
//    back another process's checkpoint or the log's restart;
//  - while the writer checkpoints in full (Pause).
#pragma once

#include <sqlite3.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
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
        std::shared_ptr<sqlite3_stmt> begin;    // BEGIN: the snapshot is kept past the statement
        std::shared_ptr<sqlite3_stmt> end;      // COMMIT: the snapshot is let go
        // The log's index header, mapped by SQLite for as long as the
        // connection is open; null until this connection's first read.
        const volatile uint32_t* walIndex = nullptr;
    };

    class Lease {
    public:
        Lease() = default;
        Lease(Lease&& other) noexcept : m_owner(other.m_owner), m_slot(other.m_slot) { other.m_slot = nullptr; }
        Lease& operator=(Lease&&) = delete;
        ~Lease();
        explicit operator bool() const { return m_slot != nullptr; }
        const Lookups& operator*() const;

    private:
        friend class ZorvReadConnections;
        Lease(ZorvReadConnections* owner, Slot* slot) : m_owner(owner), m_slot(slot) {}
        ZorvReadConnections* m_owner = nullptr;
        Slot* m_slot = nullptr;
    };

    ZorvReadConnections();
    ~ZorvReadConnections();
    ZorvReadConnections(const ZorvReadConnections&) = delete;
    ZorvReadConnections& operator=(const ZorvReadConnections&) = delete;

    // Readers may connect to `path` from now on.
    void Open(const std::u16string& path);
    // No new lease from now on; waits for the leases in use to end, then
    // closes every connection (and so every snapshot). A lease lasts one lookup.
    void Close();
    Lease Acquire();

    // Set before Open: wakes whoever runs ReleaseIdleSnapshots, or answers
    // false when nobody would. Without a reaper no snapshot outlives its lease.
    void SetReaper(std::function<bool()> wake);
    // Something was committed: no lookup may answer from a snapshot older
    // than this call. Never waits for a lookup.
    void Invalidate();
    // Lets go of the snapshots of idle connections that are stale or old;
    // true while some connection still holds one (call again later).
    bool ReleaseIdleSnapshots();

    // While one is held, no snapshot is kept past its lease (those kept are
    // let go as their leases end): the writer's full checkpoint waits for
    // every reader of an older snapshot, and kept ones would keep it waiting.
    class Pause {
    public:
        explicit Pause(ZorvReadConnections& owner);
        ~Pause();
        Pause(const Pause&) = delete;
        Pause& operator=(const Pause&) = delete;

    private:
        ZorvReadConnections& m_owner;
    };

    // How often the reaper looks while any snapshot is kept; one unused
    // since its last look is let go, within two intervals. Every look wakes
    // a thread, which on a busy machine takes a processor from someone: a
    // snapshot in use is never reaped, and the reaper looks seldom.
    static constexpr std::chrono::milliseconds kIdleRelease{200};
    // How long a snapshot may answer for what another process commits, should
    // the log's index header be out of sight.
    static constexpr std::chrono::milliseconds kSnapshotLifetime{20};

private:
    using Clock = std::chrono::steady_clock;
    static constexpr size_t kSlots = 8;
    // The first copy of the header: change counter, frame count, salts and
    // checksums. Any commit, and any restart of the log, changes it.
    static constexpr size_t kWalIndexHeaderWords = 12;
    struct alignas(64) Slot {
        std::atomic<bool> busy{false};
        // The generation the held snapshot was begun in; 0 when none is held.
        // Written by the slot's holder, read by anyone looking for stale ones.
        std::atomic<uint64_t> snapshot{0};
        Clock::time_point snapshotSince;   // touched only by the slot's holder
        bool usedSinceLook = false;        // the same: a lease ended since the reaper's last look
        std::array<uint32_t, kWalIndexHeaderWords> snapshotHeader{};  // the same
        bool keepSnapshot = false;         // a reaper will let it go if idle
        std::unique_ptr<Lookups> lookups;  // touched only by the slot's holder
    };
    bool Connect(Slot& slot);
    // Both for the slot's holder only.
    void BeginSnapshot(Slot& slot);
    void EndSnapshot(Slot& slot);
    void EndLease(Slot& slot);
    // Whether the snapshot may no longer be the last commit.
    bool Outdated(const Slot& slot) const;
    static void MapWalIndex(Lookups& lookups);
    static void ReadWalIndexHeader(const Lookups& lookups, std::array<uint32_t, kWalIndexHeaderWords>& header);
    // Takes an idle slot and lets its snapshot go when `stale` says so; then
    // looks again, for a commit that came while it held the slot.
    // `stale` runs as the slot's holder.
    template <typename Predicate>
    void ReleaseIfIdle(Slot& slot, Predicate stale);
    void ReleaseIfStale(Slot& slot);
    // Committed over, or paused: to be let go at the first chance.
    bool Stale(const Slot& slot) const;

    std::array<Slot, kSlots> m_slots;
    std::atomic<uint64_t> m_generation{1};
    std::atomic<bool> m_reaperWoken{false};
    std::atomic<int> m_paused{0};  // Pauses held
    std::function<bool()> m_wakeReaper;  // set before Open, then only read
    std::atomic<bool> m_open{false};
    std::mutex m_pathLock;  // guards m_path, read when a slot connects
    std::u16string m_path;
};

}  // namespace zorv

// SlottedSharedMutex: a reader-writer lock for read-mostly structures on every
// event's path (the allow cache, the statistics' counter maps).
//
// Its readers do not share a cache line: each marks its own slot, chosen once
// per thread, so lookups on several threads run side by side instead of
// passing one lock word's line back and forth (that traffic alone cost more
// than the lookups it guarded). A writer raises its flag, then waits until
// every slot is empty; a reader that sees the flag steps back and waits for it
// to drop. Writers are rare and brief, so both sides wait by yielding. Meets
// the SharedMutex requirements, for std::shared_lock and std::lock_guard.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>

namespace zorv {

// This thread's slot number, handed out in turn once per thread. Threads
// beyond a structure's slot count share slots, which costs speed, never
// correctness.
size_t ThreadSlot();

class SlottedSharedMutex {
public:
    static constexpr size_t kSlots = 16;
    void lock();
    void unlock();
    void lock_shared();
    void unlock_shared();

private:
    struct alignas(64) Slot {
        std::atomic<uint32_t> readers{0};
    };
    Slot m_slots[kSlots];
    alignas(64) std::atomic<bool> m_writing{false};
    std::mutex m_writers;  // one writer at a time
};

}  // namespace zorv

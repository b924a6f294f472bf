#include "ZorvSlottedSharedMutex.h"

#include <thread>

namespace zorv {

namespace {
std::atomic<size_t> g_nextThreadSlot{0};
}  // namespace

size_t ThreadSlot() {
    thread_local const size_t slot = g_nextThreadSlot.fetch_add(1, std::memory_order_relaxed);
    return slot;
}

void SlottedSharedMutex::lock_shared() {
    Slot& slot = m_slots[ThreadSlot() % kSlots];
    for (;;) {
        // Mark, then look. Both sides are sequentially consistent, so a writer
        // either sees this mark or this reader sees the writer's flag.
        slot.readers.fetch_add(1, std::memory_order_seq_cst);
        if (!m_writing.load(std::memory_order_seq_cst)) return;
        slot.readers.fetch_sub(1, std::memory_order_release);
        while (m_writing.load(std::memory_order_acquire)) std::this_thread::yield();
    }
}

void SlottedSharedMutex::unlock_shared() {
    m_slots[ThreadSlot() % kSlots].readers.fetch_sub(1, std::memory_order_release);
}

void SlottedSharedMutex::lock() {
    m_writers.lock();
    m_writing.store(true, std::memory_order_seq_cst);
    for (Slot& slot : m_slots) {
        while (slot.readers.load(std::memory_order_seq_cst) != 0) std::this_thread::yield();
    }
}

void SlottedSharedMutex::unlock() {
    m_writing.store(false, std::memory_order_release);
    m_writers.unlock();
}

}  // namespace zorv

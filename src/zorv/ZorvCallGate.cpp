#include "ZorvCallGate.h"

#include <thread>

namespace zorv {

uint64_t CallGate::InFlight() const {
    uint64_t total = 0;
    for (const Slot& slot : m_slots) {
        total += slot.own.load(std::memory_order_seq_cst) + slot.shared.load(std::memory_order_seq_cst);
    }
    return total;
}

bool CallGate::CloseAndDrain(std::chrono::milliseconds limit) {
    m_closed.store(true, std::memory_order_seq_cst);
    const auto deadline = std::chrono::steady_clock::now() + limit;
    // A stop is rare and calls are short: polling costs the callers nothing,
    // where a condition variable would cost every call a notification.
    for (;;) {
        if (InFlight() == 0) return true;
        if (std::chrono::steady_clock::now() >= deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

}  // namespace zorv

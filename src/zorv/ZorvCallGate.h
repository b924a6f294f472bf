// CallGate: lets engine_stop wait for the exports still running, and turns
// away those that arrive once a stop has begun. Owned by the exports; one
// process-wide instance.
//
// Thread-safe. A call marks a slot, then looks at the stop flag; a stop raises
// the flag, then waits for every slot to empty. Both sides are sequentially
// consistent, so either the call sees the flag (and steps back) or the stop
// sees the call (and waits for it): the engine is never freed under a call.
// Each slot sits on a cache line of its own and is chosen by thread, so event
// threads do not pass one counter's line back and forth. The first thread to
// come to a free slot owns it: only it writes the slot's own count, so leaving
// is a plain store and a call costs one atomic exchange. Other threads that
// come to an owned slot count in its shared count, which costs a second
// atomic operation, never correctness. A slot is not given back when its
// thread ends; a thread that later gets the same id takes it over.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <thread>

namespace zorv {

class CallGate {
public:
    static constexpr size_t kSlots = 64;

    // One export call: admitted unless a stop has begun; leaves on destruction.
    class Call {
    public:
        explicit Call(CallGate& gate) : m_gate(gate) { m_admitted = m_gate.Enter(*this); }
        ~Call() {
            if (m_admitted) m_gate.Leave(*this);
        }
        Call(const Call&) = delete;
        Call& operator=(const Call&) = delete;
        bool Admitted() const { return m_admitted; }

    private:
        friend class CallGate;
        CallGate& m_gate;
        size_t m_slot = 0;
        bool m_owner = false;  // counted in the slot's own count
        bool m_admitted = false;
    };

    // Turns away new calls and waits, at most `limit`, for those admitted to
    // leave. True when none is left; false when some still run after the limit
    // (the gate stays closed either way until Open).
    bool CloseAndDrain(std::chrono::milliseconds limit);
    // Admits calls again.
    void Open() { m_closed.store(false, std::memory_order_seq_cst); }
    // Calls admitted and not yet left, summed over the slots.
    uint64_t InFlight() const;

private:
    struct alignas(64) Slot {
        std::atomic<std::thread::id> owner{};  // the thread that owns `own`; no thread while free
        std::atomic<uint64_t> own{0};     // the owner's calls; written by the owner only
        std::atomic<uint64_t> shared{0};  // calls of other threads that came here
    };

    bool Enter(Call& call) {
        const std::thread::id self = std::this_thread::get_id();
        const uint64_t hash = static_cast<uint64_t>(std::hash<std::thread::id>{}(self));
        call.m_slot = static_cast<size_t>((hash * 0x9E3779B97F4A7C15ULL) >> 58) % kSlots;
        Slot& s = m_slots[call.m_slot];
        std::thread::id owner = s.owner.load(std::memory_order_relaxed);
        if (owner == std::thread::id() && s.owner.compare_exchange_strong(owner, self, std::memory_order_relaxed)) {
            owner = self;
        }
        call.m_owner = owner == self;
        // Mark, then look; a sequentially consistent read-modify-write, so that
        // the stop's flag and this mark cannot both go unseen.
        if (call.m_owner) {
            s.own.exchange(s.own.load(std::memory_order_relaxed) + 1, std::memory_order_seq_cst);
        } else {
            s.shared.fetch_add(1, std::memory_order_seq_cst);
        }
        if (!m_closed.load(std::memory_order_seq_cst)) return true;
        Leave(call);
        return false;
    }
    void Leave(const Call& call) {
        Slot& s = m_slots[call.m_slot];
        if (call.m_owner) {
            s.own.store(s.own.load(std::memory_order_relaxed) - 1, std::memory_order_release);
        } else {
            s.shared.fetch_sub(1, std::memory_order_release);
        }
    }
    Slot m_slots[kSlots];
    alignas(64) std::atomic<bool> m_closed{false};
};

}  // namespace zorv

// Flow counters that several threads bump at once (every event thread and every sender of a
// server). A single shared counter would bounce its cache line between cores on every message;
// here each thread adds to a slot of its own, a cache line apart from the others, and a read adds
// the slots up. A read is not a snapshot of all counters at one instant, as it never was.
#pragma once

#include <atomic>
#include <cstddef>

namespace netcore {

// Small and stable per thread: threads beyond the slot count share slots, which stays correct
// because every slot is still added to atomically.
inline unsigned FlowCounterThreadSlot() {
    static std::atomic<unsigned> s_nNext{0};
    thread_local const unsigned t_nSlot = s_nNext.fetch_add(1, std::memory_order_relaxed);
    return t_nSlot;
}

template <size_t N>
class FlowCounters {
public:
    static_assert(N <= 8, "one slot holds the counters in one cache line");

    void Add(size_t nIndex, unsigned long long nValue) {
        m_st_Slots[FlowCounterThreadSlot() % kSlots].nValue[nIndex].fetch_add(nValue, std::memory_order_relaxed);
    }
    unsigned long long Get(size_t nIndex) const {
        unsigned long long nSum = 0;
        for (const Slot& st_Slot : m_st_Slots)
            nSum += st_Slot.nValue[nIndex].load(std::memory_order_relaxed);
        return nSum;
    }
    void Reset(size_t nIndex) {
        for (Slot& st_Slot : m_st_Slots)
            st_Slot.nValue[nIndex].store(0, std::memory_order_relaxed);
    }

private:
    static constexpr unsigned kSlots = 16;
    struct alignas(64) Slot {
        std::atomic<unsigned long long> nValue[N] = {};
    };
    Slot m_st_Slots[kSlots];
};

}  // namespace netcore

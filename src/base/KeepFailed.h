#pragma once

#include <mutex>
#include <vector>

namespace netcore {

// A handle layer whose start or init fails keeps the instance, with whatever it had opened or
// started, instead of deleting it: callers have always found those still working. The instance is
// listed here, never freed, so that it stays reachable rather than lost.
template <typename T>
void KeepFailedInstance(T* pInstance) {
    static std::mutex st_Locker;
    static auto* pStl_Kept = new std::vector<T*>;
    std::lock_guard<std::mutex> st_Lock(st_Locker);
    pStl_Kept->push_back(pInstance);
}

}  // namespace netcore

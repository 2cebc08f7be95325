// A reader/writer lock for the Unix-domain server's peer table.
//
// The server's stream Send gives up on a peer that stays unwritable for 100 ms and returns while
// still holding its shared hold; from then on every exclusive taker waits. std::shared_mutex
// cannot express that (a hold never released, a second shared hold by the same thread, destroying
// it while held are all undefined), so this lock counts holds itself: a pinned shared hold stays
// counted for good, a thread may take shared holds recursively (readers never wait for waiting
// writers), and the teardown at unload may look past pinned holds.
#pragma once

#include <condition_variable>
#include <mutex>

namespace netcore {

class SharedLocker {
public:
    void lock() { LockExclusive(false); }
    void unlock() {
        std::lock_guard<std::mutex> st_Guard(m_Mutex);
        m_bWriter = false;
        m_Cond.notify_all();
    }
    void lock_shared() {
        std::unique_lock<std::mutex> st_Guard(m_Mutex);
        m_Cond.wait(st_Guard, [&] { return !m_bWriter; });
        m_nReaders++;
    }
    void unlock_shared() {
        std::lock_guard<std::mutex> st_Guard(m_Mutex);
        if (--m_nReaders == m_nPinned) m_Cond.notify_all();
    }
    // Turns one shared hold of the caller into a hold that is never released.
    void PinShared() {
        std::lock_guard<std::mutex> st_Guard(m_Mutex);
        m_nPinned++;
    }
    // Exclusive access for the teardown at unload, which must not wait for pinned holds.
    void LockIgnoringPinned() { LockExclusive(true); }

private:
    void LockExclusive(bool bIgnorePinned) {
        std::unique_lock<std::mutex> st_Guard(m_Mutex);
        m_Cond.wait(st_Guard, [&] { return !m_bWriter && m_nReaders == (bIgnorePinned ? m_nPinned : 0); });
        m_bWriter = true;
    }

    std::mutex m_Mutex;
    std::condition_variable m_Cond;
    int m_nReaders = 0;  // shared holds, pinned ones included
    int m_nPinned = 0;
    bool m_bWriter = false;
};

}  // namespace netcore

// A worker thread joined by its owner. A thread never joins itself: when the owner's stop runs on
// the worker (a callback that stops its own server), the thread is detached instead and finishes
// on its own once its loop sees the stop.
#pragma once

#include <thread>
#include <utility>

namespace netcore {

class WorkerThread {
public:
    WorkerThread() = default;
    WorkerThread(const WorkerThread&) = delete;
    WorkerThread& operator=(const WorkerThread&) = delete;
    ~WorkerThread() { Join(); }

    template <typename Fn, typename... Args>
    void Start(Fn&& fnBody, Args&&... args) {
        Join();
        m_Thread = std::thread(std::forward<Fn>(fnBody), std::forward<Args>(args)...);
    }
    bool IsRunning() const { return m_Thread.joinable(); }
    bool IsCurrent() const { return m_Thread.get_id() == std::this_thread::get_id(); }
    void Join() {
        if (!m_Thread.joinable()) return;
        if (IsCurrent()) {
            m_Thread.detach();
        } else {
            m_Thread.join();
        }
    }

private:
    std::thread m_Thread;
};

}  // namespace netcore

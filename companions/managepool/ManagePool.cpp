#include "Ombrelt_ManagePool.h"

#include <cerrno>
#include <condition_variable>
#include <mutex>
#include <new>
#include <system_error>
#include <thread>
#include <vector>

namespace {

unsigned long long g_nLastError = 0;

void* PoolFail(unsigned long long nCode) {
    __atomic_store_n(&g_nLastError, nCode, __ATOMIC_RELAXED);
    return nullptr;
}

// Threads wait at a gate until all of them exist, so a failed creation can call the others
// back before any body has run.
struct ThreadPool {
    enum class Gate { kWait, kRun, kCancel };
    std::mutex st_Locker;
    std::condition_variable st_Cond;
    Gate enGate = Gate::kWait;
    std::vector<std::thread> stl_Threads;

    void Open(Gate enTo) {
        {
            std::lock_guard<std::mutex> st_Lock(st_Locker);
            enGate = enTo;
        }
        st_Cond.notify_all();
    }
    void Run(THREADPOOL_PARAMENT st_Task) {
        {
            std::unique_lock<std::mutex> st_Lock(st_Locker);
            st_Cond.wait(st_Lock, [this] { return enGate != Gate::kWait; });
            if (enGate == Gate::kCancel) return;
        }
        st_Task.fpCall_ThreadsTask(st_Task.lParam);
    }
    void JoinAll() {
        for (auto& st_Thread : stl_Threads) {
            if (!st_Thread.joinable()) continue;
            // a task that destroys its own pool cannot wait for itself
            if (st_Thread.get_id() == std::this_thread::get_id()) {
                st_Thread.detach();
            } else {
                st_Thread.join();
            }
        }
    }
};

}  // namespace

extern "C" {

void* ManagePool_Thread_NQCreate(THREADPOOL_PARAMENT*** pppSt_ListParam, int nListCount) {
    if (pppSt_ListParam == nullptr || *pppSt_ListParam == nullptr || nListCount < 1) {
        return PoolFail(ERROR_MANAGEPOOL_THREAD_NQCREATE_PARAMENT);
    }
    for (int i = 0; i < nListCount; i++) {
        THREADPOOL_PARAMENT* pSt_Task = (*pppSt_ListParam)[i];
        if (pSt_Task == nullptr || pSt_Task->fpCall_ThreadsTask == nullptr) {
            return PoolFail(ERROR_MANAGEPOOL_THREAD_NQCREATE_PARAMENT);
        }
    }
    ThreadPool* pSt_Pool = new (std::nothrow) ThreadPool;
    if (pSt_Pool == nullptr) return PoolFail(ERROR_MANAGEPOOL_THREAD_NQCREATE_MALLOC);
    try {
        pSt_Pool->stl_Threads.reserve(static_cast<size_t>(nListCount));
        for (int i = 0; i < nListCount; i++) {
            pSt_Pool->stl_Threads.emplace_back(&ThreadPool::Run, pSt_Pool, *(*pppSt_ListParam)[i]);
        }
    } catch (const std::exception&) {
        pSt_Pool->Open(ThreadPool::Gate::kCancel);
        pSt_Pool->JoinAll();
        delete pSt_Pool;
        return PoolFail(ERROR_MANAGEPOOL_THREAD_NQCREATE_THREAD);
    }
    pSt_Pool->Open(ThreadPool::Gate::kRun);
    return pSt_Pool;
}

bool ManagePool_Thread_NQDestroy(void* xhPool) {
    if (xhPool == nullptr) {
        PoolFail(ERROR_MANAGEPOOL_THREAD_NQDESTROY_PARAMENT);
        return false;
    }
    ThreadPool* pSt_Pool = static_cast<ThreadPool*>(xhPool);
    pSt_Pool->JoinAll();
    delete pSt_Pool;
    return true;
}

unsigned long long ManagePool_GetLastError(int* pInt_SysError) {
    if (pInt_SysError != nullptr) *pInt_SysError = errno;
    return __atomic_load_n(&g_nLastError, __ATOMIC_RELAXED);
}
}

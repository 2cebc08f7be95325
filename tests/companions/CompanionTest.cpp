// The companion libraries as NetCore uses them.
#include <cstring>
#include <mutex>
#include <set>
#include <thread>

#include "Ombrelt_BaseLib.h"
#include "Ombrelt_ManagePool.h"
#include "TestSupport.h"

namespace {

using namespace std::chrono_literals;

class Companion : public nctest::NetCoreTest {};

TEST_F(Companion, MallocMakesZeroedRowsTheCallerFrees) {
    char** ppszList = nullptr;
    ASSERT_TRUE(BaseLib_OperatorMemory_Malloc(reinterpret_cast<void***>(&ppszList), 5, 128));
    EXPECT_EQ(5u, std::set<char*>(ppszList, ppszList + 5).size());
    for (int i = 0; i < 5; i++) {
        EXPECT_EQ(std::string(128, '\0'), std::string(ppszList[i], 128));
        memset(ppszList[i], 'x', 128);  // each row is writable to its end
    }
    EXPECT_TRUE(BaseLib_OperatorMemory_Free(reinterpret_cast<void***>(&ppszList), 5));
    EXPECT_EQ(nullptr, ppszList);
    EXPECT_TRUE(BaseLib_OperatorMemory_Free(reinterpret_cast<void***>(&ppszList), 5)) << "a null list is fine";
    EXPECT_FALSE(BaseLib_OperatorMemory_Malloc(reinterpret_cast<void***>(&ppszList), -1, 8));
    EXPECT_TRUE(BaseLib_OperatorMemory_Malloc(reinterpret_cast<void***>(&ppszList), 0, 8));
    EXPECT_EQ(nullptr, ppszList);
}

TEST_F(Companion, TickCountsAreMonotonicMilliseconds) {
    unsigned long long nFirst = BaseLib_OperatorTime_GetTickCount64();
    auto start = std::chrono::steady_clock::now();
    ASSERT_TRUE(nctest::WaitFor([&] { return std::chrono::steady_clock::now() - start >= 30ms; }));
    unsigned long long nSecond = BaseLib_OperatorTime_GetTickCount64();
    EXPECT_GE(nSecond - nFirst, 29u);
    EXPECT_GE(BaseLib_OperatorTime_GetTickCount(), static_cast<unsigned long>(nSecond));
}

TEST_F(Companion, SegAddrSplitsAtTheLastColon) {
    const char* lpszRows[][2] = {{"127.0.0.1:8080", "127.0.0.1 8080"},
                                 {"::1:5000", "::1 5000"},
                                 {"fe80::1:2:65535", "fe80::1:2 65535"},
                                 {"[::1]:80", "::1 80"},
                                 {"host:0", "host 0"},
                                 {"no-port", "no-port -1"}};
    for (auto& lpszRow : lpszRows) {
        char tszAddr[64] = {};
        strncpy(tszAddr, lpszRow[0], sizeof(tszAddr) - 1);
        int nPort = -1;
        EXPECT_EQ(strchr(lpszRow[0], ':') != nullptr, BaseLib_OperatorIPAddr_SegAddr(tszAddr, &nPort));
        EXPECT_EQ(lpszRow[1], std::string(tszAddr) + " " + std::to_string(nPort));
    }
    int nPort = -1;
    EXPECT_FALSE(BaseLib_OperatorIPAddr_SegAddr(nullptr, &nPort));
}

std::mutex g_TaskLock;

// Each task records its thread, then stays until all four have: live threads never share an id.
void* RecordTask(void* lParam) {
    auto* pStl_Threads = static_cast<std::set<std::thread::id>*>(lParam);
    std::unique_lock<std::mutex> st_Lock(g_TaskLock);
    pStl_Threads->insert(std::this_thread::get_id());
    st_Lock.unlock();
    nctest::WaitFor([&] {
        std::lock_guard<std::mutex> st_Wait(g_TaskLock);
        return pStl_Threads->size() >= 4;
    });
    return nullptr;
}

TEST_F(Companion, PoolRunsEveryTaskOnceOnItsOwnThreadAndRefusesBadLists) {
    THREADPOOL_PARAMENT** ppSt_List = nullptr;
    EXPECT_EQ(nullptr, ManagePool_Thread_NQCreate(&ppSt_List, 1));
    ASSERT_TRUE(BaseLib_OperatorMemory_Malloc(reinterpret_cast<void***>(&ppSt_List), 4, sizeof(THREADPOOL_PARAMENT)));
    EXPECT_EQ(nullptr, ManagePool_Thread_NQCreate(&ppSt_List, 4)) << "tasks without a body";
    EXPECT_EQ(ERROR_MANAGEPOOL_THREAD_NQCREATE_PARAMENT, ManagePool_GetLastError(nullptr));
    std::set<std::thread::id> stl_Threads;
    for (int i = 0; i < 4; i++)
        *ppSt_List[i] = THREADPOOL_PARAMENT{&stl_Threads, RecordTask};
    void* xhPool = ManagePool_Thread_NQCreate(&ppSt_List, 4);
    ASSERT_NE(nullptr, xhPool);
    EXPECT_TRUE(ManagePool_Thread_NQDestroy(xhPool));
    // destroy has waited for every body, each run on a thread of its own
    EXPECT_EQ(4u, stl_Threads.size());
    EXPECT_EQ(0u, stl_Threads.count(std::this_thread::get_id()));
    BaseLib_OperatorMemory_Free(reinterpret_cast<void***>(&ppSt_List), 4);
}

}  // namespace

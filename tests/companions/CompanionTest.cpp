// The companion libraries as NetCore uses them.
#include <atomic>
#include <chrono>
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

TEST_F(Companion, MallocMakesZeroedBlocksAndFreeReleasesThem) {
    char** ppszList = nullptr;
    ASSERT_TRUE(BaseLib_OperatorMemory_Malloc(reinterpret_cast<void***>(&ppszList), 5, 128));
    ASSERT_NE(nullptr, ppszList);
    std::set<char*> blocks;
    for (int i = 0; i < 5; i++) {
        ASSERT_NE(nullptr, ppszList[i]);
        for (int j = 0; j < 128; j++)
            EXPECT_EQ(0, ppszList[i][j]);
        blocks.insert(ppszList[i]);
        memset(ppszList[i], 'x', 128);  // each block is writable to its end
    }
    EXPECT_EQ(5u, blocks.size());
    EXPECT_TRUE(BaseLib_OperatorMemory_Free(reinterpret_cast<void***>(&ppszList), 5));
    EXPECT_EQ(nullptr, ppszList);
    EXPECT_TRUE(BaseLib_OperatorMemory_Free(reinterpret_cast<void***>(&ppszList), 5)) << "a null list is fine";
}

TEST_F(Companion, MallocRefusesBadArguments) {
    EXPECT_FALSE(BaseLib_OperatorMemory_Malloc(nullptr, 1, 1));
    void** ppList = reinterpret_cast<void**>(&ppList);
    EXPECT_FALSE(BaseLib_OperatorMemory_Malloc(&ppList, -1, 8));
    EXPECT_EQ(nullptr, ppList);
    EXPECT_TRUE(BaseLib_OperatorMemory_Malloc(&ppList, 0, 8));
    EXPECT_EQ(nullptr, ppList);
}

TEST_F(Companion, TickCountsAreMonotonicMilliseconds) {
    unsigned long long first = BaseLib_OperatorTime_GetTickCount64();
    auto start = std::chrono::steady_clock::now();
    ASSERT_TRUE(nctest::WaitFor([&] { return std::chrono::steady_clock::now() - start >= 30ms; }));
    unsigned long long second = BaseLib_OperatorTime_GetTickCount64();
    EXPECT_GE(second - first, 29u);
    unsigned long narrow = BaseLib_OperatorTime_GetTickCount();
    EXPECT_GE(narrow, static_cast<unsigned long>(second));
}

TEST_F(Companion, SegAddrSplitsAtTheLastColon) {
    struct Case {
        const char* text;
        const char* addr;
        int port;
    } cases[] = {{"127.0.0.1:8080", "127.0.0.1", 8080},
                 {"::1:5000", "::1", 5000},
                 {"fe80::1:2:65535", "fe80::1:2", 65535},
                 {"[::1]:80", "::1", 80},
                 {"host:0", "host", 0}};
    for (const Case& c : cases) {
        char buffer[64] = {};
        strncpy(buffer, c.text, sizeof(buffer) - 1);
        int port = -1;
        ASSERT_TRUE(BaseLib_OperatorIPAddr_SegAddr(buffer, &port)) << c.text;
        EXPECT_STREQ(c.addr, buffer);
        EXPECT_EQ(c.port, port);
    }
    char plain[] = "no-port";
    int port = -1;
    EXPECT_FALSE(BaseLib_OperatorIPAddr_SegAddr(plain, &port));
    EXPECT_STREQ("no-port", plain);
    EXPECT_FALSE(BaseLib_OperatorIPAddr_SegAddr(nullptr, &port));
}

struct TaskLog {
    std::mutex lock;
    std::set<std::thread::id> threads;
    std::atomic<int> runs{0};
};

void* RecordTask(void* lParam) {
    auto* log = static_cast<TaskLog*>(lParam);
    std::this_thread::sleep_for(20ms);  // keep the threads alive together
    std::lock_guard<std::mutex> guard(log->lock);
    log->threads.insert(std::this_thread::get_id());
    log->runs++;
    return nullptr;
}

TEST_F(Companion, PoolRunsEveryTaskOnceOnItsOwnThreadAndJoinsOnDestroy) {
    TaskLog log;
    THREADPOOL_PARAMENT** ppSt_List = nullptr;
    ASSERT_TRUE(BaseLib_OperatorMemory_Malloc(reinterpret_cast<void***>(&ppSt_List), 4, sizeof(THREADPOOL_PARAMENT)));
    for (int i = 0; i < 4; i++) {
        ppSt_List[i]->lParam = &log;
        ppSt_List[i]->fpCall_ThreadsTask = RecordTask;
    }
    void* xhPool = ManagePool_Thread_NQCreate(&ppSt_List, 4);
    ASSERT_NE(nullptr, xhPool);
    EXPECT_TRUE(ManagePool_Thread_NQDestroy(xhPool));
    // destroy has waited for every body
    EXPECT_EQ(4, log.runs.load());
    EXPECT_EQ(4u, log.threads.size());
    EXPECT_EQ(0u, log.threads.count(std::this_thread::get_id()));
    BaseLib_OperatorMemory_Free(reinterpret_cast<void***>(&ppSt_List), 4);
}

TEST_F(Companion, PoolRefusesBadListsWithItsOwnCode) {
    THREADPOOL_PARAMENT** ppSt_List = nullptr;
    EXPECT_EQ(nullptr, ManagePool_Thread_NQCreate(&ppSt_List, 1));
    EXPECT_EQ(static_cast<unsigned long long>(ERROR_MANAGEPOOL_THREAD_NQCREATE_PARAMENT),
              ManagePool_GetLastError(nullptr));
    ASSERT_TRUE(BaseLib_OperatorMemory_Malloc(reinterpret_cast<void***>(&ppSt_List), 2, sizeof(THREADPOOL_PARAMENT)));
    EXPECT_EQ(nullptr, ManagePool_Thread_NQCreate(&ppSt_List, 0));
    EXPECT_EQ(nullptr, ManagePool_Thread_NQCreate(&ppSt_List, 2)) << "tasks without a body";
    EXPECT_EQ(static_cast<unsigned long long>(ERROR_MANAGEPOOL_THREAD_NQCREATE_PARAMENT),
              ManagePool_GetLastError(nullptr));
    EXPECT_FALSE(ManagePool_Thread_NQDestroy(nullptr));
    BaseLib_OperatorMemory_Free(reinterpret_cast<void***>(&ppSt_List), 2);
}

}  // namespace

// CSocketOpt_HeartBeat: a table of peers (by address text or by socket) and a thread that times
// out the silent ones. Reached from outside through the handle layer (SocketOpt_HeartBeatEx.h).
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <ctime>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <queue>
#include <shared_mutex>
#include <string>
#include <thread>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "Ombrelt_NetCore.h"

// One peer. The supervision thread and Active write the counting fields under the table's
// shared lock, so those are atomics; the load records have their own small lock.
struct SOCKETOPT_HEARTBEAT {
    std::atomic<bool> bIsTimeOut{false};
    bool bIsForce = false;  // written under the exclusive lock only
    std::atomic<int> nTimeNumber{0};
    int nLeaveCode = 0;  // written under the exclusive lock only
    std::atomic<long long> nTimeLast{0};
    std::mutex st_LoadLocker;
    NETCORE_SOCKOPT_LOADRATE st_LoadRate{};
    NETCORE_SOCKOPT_HBLOAD st_HBLoad{};
    NETCORE_SOCKOPT_HBLOAD st_HBLast{};
    tag_Obmrelt_Protocol_HeartBeat st_ProtocolHB{};
    uint64_t nSerial = 0;  // tells this entry from an earlier one under the same key
};

// When a peer is next to be looked at by the thread: at the earliest, its last activity plus one
// interval. Active does not move it; the thread finds the newer time when the entry comes up.
struct SOCKETOPT_HBDUE {
    long long nDue = 0;
    uint64_t nSerial = 0;
    std::string tszClientAddr;
    int hSocket = 0;
    bool operator>(const SOCKETOPT_HBDUE& st_Other) const { return nDue > st_Other.nDue; }
};

// A peer the thread reports after it has released the table lock. The address is held whole, so
// that an address of any length is deleted and reported as it was inserted.
struct SOCKETOPT_HBLEAVE {
    std::string tszClientAddr;
    int hSocket = 0;
    int nLeaveCode = 0;
};

class NETCORE_API CSocketOpt_HeartBeat {
public:
    CSocketOpt_HeartBeat();
    ~CSocketOpt_HeartBeat();
    CSocketOpt_HeartBeat(const CSocketOpt_HeartBeat&) = delete;
    CSocketOpt_HeartBeat& operator=(const CSocketOpt_HeartBeat&) = delete;

    bool SocketOpt_HeartBeat_Init(int nTimeOut, int nTimeNumber,
                                  CALLBACK_NETCORE_SOCKOPT_HEARTBEAT_EVENT fpCall_HeartBeatEvent = nullptr,
                                  void* lParam = nullptr, bool bIsAddr = true);
    bool SocketOpt_HeartBeat_Destory();
    bool SocketOpt_HeartBeat_ForceOutAddr(const char* lpszClientAddr, int nLeaveCode = 0, bool bAdd = false);
    bool SocketOpt_HeartBeat_ForceOutSkt(int hSocket, int nLeaveCode = 0, bool bAdd = false);
    bool SocketOpt_HeartBeat_InsertAddr(const char* lpszClientAddr);
    bool SocketOpt_HeartBeat_InsertSocket(int hSocket);
    bool SocketOpt_HeartBeat_ActiveAddr(const char* lpszClientAddr,
                                        tag_Obmrelt_Protocol_HeartBeat* pSt_ProtocolHeartBeat = nullptr);
    bool SocketOpt_HeartBeat_ActiveSocket(int hSocket, tag_Obmrelt_Protocol_HeartBeat* pSt_ProtocolHeartBeat = nullptr);
    bool SocketOpt_HeartBeat_DeleteAddr(const char* lpszClientAddr);
    bool SocketOpt_HeartBeat_DeleteSocket(int hSocket);
    bool SocketOpt_HeartBeat_GetAddr(const char* lpszClientAddr, long long* pInt_Timer = nullptr);
    bool SocketOpt_HeartBeat_GetSocket(int hSocket, long long* pInt_Timer = nullptr);
    bool SocketOpt_HeartBeat_GetTimeOut(char* ptszClientAddr = nullptr, int* phSocket = nullptr);
    bool SocketOpt_HeartBeat_SetLoadAttr(int nTime, bool bLoad = false);
    bool SocketOpt_HeartBeat_GetLoadAttr(const char* lpszClientAddr, int hSocket, NETCORE_SOCKOPT_HBLOAD* pSt_HBLoad,
                                         NETCORE_SOCKOPT_LOADRATE* pSt_LoadRate);
    bool SocketOpt_HeartBeat_CalPerformance(tag_Obmrelt_Protocol_HeartBeat* pSt_ProtocolHeartBeat,
                                            NETCORE_SOCKOPT_LOADRATE* pSt_LoadRate, NETCORE_SOCKOPT_HBLOAD* pSt_HBLoad);
    bool SocketOpt_HeartBeat_CalComparison(NETCORE_SOCKOPT_HBLOAD* pSt_New, NETCORE_SOCKOPT_HBLOAD* pSt_Last,
                                           NETCORE_SOCKOPT_HBLOAD* pSt_Load);

private:
    // Stop request shared with the thread, so that a callback that destroys its own supervisor
    // leaves the thread something valid to look at on its way out.
    struct ThreadControl {
        std::atomic<bool> bIsRun{false};
    };

    static void SocketOpt_HeartBeat_Thread(CSocketOpt_HeartBeat* pClass_This,
                                           std::shared_ptr<ThreadControl> pSt_Control);
    // One pass; true when the next pass is due within a millisecond rather than at the next second.
    bool ScanTable(time_t nTimeNow, std::list<SOCKETOPT_HBLEAVE>* pStl_ListLeave);
    void ScanDue(time_t nTimeNow, int nInterval, std::list<SOCKETOPT_HBLEAVE>* pStl_ListLeave);
    void QueueDue(const SOCKETOPT_HEARTBEAT* pSt_HeartBeat, const char* lpszClientAddr, int hSocket, int nInterval);
    void WaitNextPass(const std::shared_ptr<ThreadControl>& pSt_Control, time_t nTimeNow, bool bBusy);
    void WakeThread();
    void CheckPeer(SOCKETOPT_HEARTBEAT* pSt_HeartBeat, const char* lpszClientAddr, int hSocket, time_t nTimeNow,
                   std::list<SOCKETOPT_HBLEAVE>* pStl_ListLeave);
    void EvaluateLoad(SOCKETOPT_HEARTBEAT* pSt_HeartBeat);
    void StopThread();

    std::atomic<bool> bIsRun{false};
    std::shared_ptr<ThreadControl> m_pSt_Control;
    std::atomic<bool> bIsLoad{false};
    std::atomic<bool> bIsAddr{false};
    std::atomic<int> nTimeOut{0};
    std::atomic<int> nLoadTime{0};
    std::atomic<int> nTimeNumber{0};
    // Lock order: st_Locker, then a peer's st_LoadLocker. Exclusive for Insert, Delete, ForceOut
    // and Destory; shared for Active, the Get operations and the thread's scan.
    std::shared_mutex st_Locker;
    std::unique_ptr<std::thread> pSTDThread_HeartBeat;
    std::atomic<void*> lParam{nullptr};
    std::atomic<CALLBACK_NETCORE_SOCKOPT_HEARTBEAT_EVENT> lpCall_HeartBeatEvent{nullptr};
    std::unordered_map<std::string, std::unique_ptr<SOCKETOPT_HEARTBEAT>> stl_MapAddr;
    std::unordered_map<int, std::unique_ptr<SOCKETOPT_HEARTBEAT>> stl_MapSocket;
    // Keys of the expelled peers, so that a pass within the same second visits only them.
    std::unordered_set<std::string> stl_SetForceAddr;
    std::unordered_set<int> stl_SetForceSocket;
    // Entries by the second they are next due, so that a pass looks only at the peers that can
    // have missed an interval. Changed by the thread under the shared lock (it is the only shared
    // holder that touches it) and by Insert and Destory under the exclusive lock.
    std::priority_queue<SOCKETOPT_HBDUE, std::vector<SOCKETOPT_HBDUE>, std::greater<SOCKETOPT_HBDUE>> stl_QueueDue;
    uint64_t m_nSerial = 0;      // under the exclusive lock
    int m_nDueInterval = -1;     // the interval stl_QueueDue was built with; the thread's own
    time_t m_nTimeScanned = -1;  // second of the last pass; the thread's own
    // Wakes the thread early: a stop, or a peer expelled (reported on the next pass).
    std::mutex st_LockerWake;
    std::condition_variable st_CondWake;
    bool bWakeUp = false;
};

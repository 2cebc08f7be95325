// CNetCore_UnixDomain: a local server on a Unix-domain socket bound to a path, in stream mode
// (one receive thread per accepted peer) or datagram mode (one receive loop). Exported as
// NetCore_UnixDomain_* through the global m_UnixDomain.
#pragma once

#include <atomic>
#include <condition_variable>
#include <list>
#include <memory>
#include <mutex>
#include <thread>
#include <unordered_map>
#include <vector>

#include "Ombrelt_NetCore.h"
#include "local/SharedLocker.h"

class CNetCore_UnixDomain;

// One accepted stream peer: allocated by the accept thread, freed by Remove or Stop.
struct NETCORE_UNIXDOMAIN {
    char szClientAddr[128] = {};
    int hSocket = -1;
    std::shared_ptr<std::thread> pSTDThread;
    std::atomic<bool> bRunning{false};
    CNetCore_UnixDomain* lClass = nullptr;
    // Set when Remove or Stop ran on this peer's own receive thread (from a callback): the thread
    // cannot be joined from itself, so it is detached and frees the record when it returns.
    bool bSelfRelease = false;
};

class NETCORE_API CNetCore_UnixDomain {
public:
    CNetCore_UnixDomain();
    ~CNetCore_UnixDomain();
    CNetCore_UnixDomain(const CNetCore_UnixDomain&) = delete;
    CNetCore_UnixDomain& operator=(const CNetCore_UnixDomain&) = delete;

    bool NetCore_UnixDomain_Start(const char* lpszUnixName, bool bStream = true);
    bool NetCore_UnixDomain_SetCallback(CALLBACK_NETCORE_UNIXDOMAIN_ACCEPT fpCallAccept,
                                        CALLBACK_NETCORE_UNIXDOMAIN_RECV fpCallRecv,
                                        CALLBACK_NETCORE_UNIXDOMAIN_LEAVE fpCallLeave, void* lPAccept = nullptr,
                                        void* lPRecv = nullptr, void* lPLeave = nullptr);
    bool NetCore_UnixDomain_Send(int hSocket, const char* lpszMsgBuffer, int nMsgLen,
                                 const char* lpszClientAddr = nullptr);
    bool NetCore_UnixDomain_Remove(int hSocket);
    bool NetCore_UnixDomain_Stop();

protected:
    static int NetCore_UnixDomain_ThreadAccept(void* lParam);
    static int NetCore_UnixDomain_ThreadRecv(void* lParam);
    static int NetCore_UnixDomain_ThreadClose(void* lParam);

private:
    void StreamAccept();
    void DatagramRecv();
    void StartPeer(NETCORE_UNIXDOMAIN* pSt_Client, bool bInMap);
    void RemovePeer(int hClient);
    void ReleaseClient(NETCORE_UNIXDOMAIN* pSt_Client);
    void StopServer(bool bAtUnload);

    char szSocketPath[260] = {};
    // Read by every thread of the server on each pass, written by Start and Stop.
    std::atomic<bool> bRunning{false};
    std::atomic<bool> bStream{true};
    std::atomic<int> hSocket{-1};
    std::shared_ptr<std::thread> pSTDThread_Accept;
    std::shared_ptr<std::thread> pSTDThread_Close;
    // The callbacks may be replaced while the threads run.
    std::atomic<void*> lParamAccept{nullptr};
    std::atomic<void*> lParamRecv{nullptr};
    std::atomic<void*> lParamLeave{nullptr};  // stored, never passed: the leave callback gets lParamRecv
    std::atomic<CALLBACK_NETCORE_UNIXDOMAIN_ACCEPT> fpCall_Accept{nullptr};
    std::atomic<CALLBACK_NETCORE_UNIXDOMAIN_RECV> fpCall_Recv{nullptr};
    std::atomic<CALLBACK_NETCORE_UNIXDOMAIN_LEAVE> fpCall_Leave{nullptr};

    // Lock order: st_LockerClose before st_Locker; st_LockerState is never held while waiting for
    // a thread or another lock.
    netcore::SharedLocker st_Locker;  // stl_MapClient and stl_ListOrphan
    std::mutex st_LockerClose;        // stl_ListClose
    std::list<int> stl_ListClose;
    std::unordered_map<int, NETCORE_UNIXDOMAIN*> stl_MapClient;
    // Peers accepted while no accept callback was set: never in the table, released by Stop.
    std::list<NETCORE_UNIXDOMAIN*> stl_ListOrphan;

    // Thread objects and sockets of the server itself, as Start and Stop exchange them.
    std::mutex st_LockerState;
    // A Start on a running server leaves the earlier threads and socket running; they are kept
    // here so that Stop ends and closes them too.
    std::vector<std::shared_ptr<std::thread>> stl_ListRetiredThread;
    std::vector<int> stl_ListRetiredSocket;
    // Wakes the close thread's one-second pause when the server stops.
    std::mutex st_LockerWake;
    std::condition_variable st_CondWake;
};

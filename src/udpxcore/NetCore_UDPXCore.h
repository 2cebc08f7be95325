// CNetCore_UDPXCore: a datagram server on one bound UDP socket, served by receive threads that run
// in the pool library, each waiting on an epoll instance of its own in which the same socket is
// registered edge-triggered. Reached from outside through CNetCore_UDPXCoreEx.
#pragma once

#include <sys/epoll.h>

#include <atomic>
#include <deque>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

#include "../base/FlowCounters.h"
#include "../socket/NetCore_Socket.h"
#include "Ombrelt_NetCore.h"

// Relative includes and a forward-declared pool record keep this header usable by callers that
// link against the class and have only the public include directory.
struct tag_ThreadPool_Parament;
class CNetCore_UDPXCore;

// Second parameter of the drain loop; the receive threads pass null and the loop does not use it.
typedef struct tag_NetCore_UDPEpoll_Buffer {
    char* lpszMsgBuffer;
    int nMsgLen;
} NETCORE_UDPEPOLL_BUFFER;

// Whose turn it is to drain the socket, and whether a thread found it taken since.
struct tag_NetCore_UDPEpoll_Turn {
    std::mutex st_Lock;
    std::atomic<bool> bPending{false};
};

// One receive thread's set-up, owned by the server's list.
typedef struct tag_NetCore_UDPEpoll_Events {
    int hPipe[2];  // wake-up pipe: read end, write end
    int hEpoll;
    struct epoll_event st_Event;
    struct epoll_event st_Events[1024];
    CNetCore_UDPXCore* pClass_UDPXCore;
    // The run flag of the start that made this record. The thread holds its own reference, so a
    // callback that destroys (and deletes) the server leaves the thread a flag it can still read.
    std::shared_ptr<std::atomic<bool>> pbIsRun;
    // The server's drain turn, held the same way (see NetCore_UDPXCore_Recv).
    std::shared_ptr<tag_NetCore_UDPEpoll_Turn> pRecvTurn;
} NETCORE_UDPEPOLL_EVENTS;

class NETCORE_API CNetCore_UDPXCore {
public:
    CNetCore_UDPXCore();
    ~CNetCore_UDPXCore();
    CNetCore_UDPXCore(const CNetCore_UDPXCore&) = delete;
    CNetCore_UDPXCore& operator=(const CNetCore_UDPXCore&) = delete;

    bool NetCore_UDPXCore_Start(int nPort, int nThread = 0, int nTimeFlow = 3, int nIPVer = 2);
    bool NetCore_UDPXCore_Destroy(bool bClearFlow = false);
    bool NetCore_UDPXCore_RegisterCallBack(CALLBACK_NETCORE_UDPXCORE_RECV fpCall_Recv, void* lParam = nullptr);
    bool NetCore_UDPXCore_SendMsg(const char* lpszClientAddr, const char* lpszMsgBuffer, int nMsgLen);
    bool NetCore_UDPXCore_GetSocket(int* phSocket);
    bool NetCore_UDPXCore_GetFlow(unsigned long long* pInt_SendBytes, unsigned long long* pInt_RecvBytes,
                                  unsigned long long* pInt_SendPackets = nullptr,
                                  unsigned long long* pInt_RecvPackets = nullptr);
    bool NetCore_UDPXCore_GetAverageFlow(unsigned long long* pInt_SendBytes, unsigned long long* pInt_RecvBytes,
                                         unsigned long long* pInt_SendPackets, unsigned long long* pInt_RecvPackets,
                                         bool bWhole = false);
    bool NetCore_UDPXCore_GetTime(unsigned long long* pInt_TimeRecv, unsigned long long* pInt_TimeSend);

protected:
    bool NetCore_UDPXCore_Create(int nPort, int nThread, std::list<tag_ThreadPool_Parament>* pStl_ListParam);
    bool NetCore_UDPXCore_Recv(int hSocket, NETCORE_UDPEPOLL_BUFFER* pSt_Buffer, unsigned long nBufferLen);
    static void* NetCore_UDPXCore_ThreadAccept(void* lParam);
    bool DrainSocket(int hRecvSocket);

private:
    void ReleaseRun();
    void Deliver(const char* lpszClientAddr, const char* lpszMsgBuffer, int nMsgLen);
    void HoldBack(const char* lpszClientAddr, const char* lpszMsgBuffer, int nMsgLen);
    // Hands out the held datagrams; false when an empty one (or a stop) ends the drain.
    bool DeliverHeld(const std::atomic<bool>* pbRun);
    void CloseInterval(std::atomic<unsigned long long>& nTimeFlowStart, unsigned long long nTimeNow,
                       std::atomic<unsigned long long>& nFlowBytes, int nBytes,
                       std::atomic<unsigned long long>& nFlowPackets, int nPackets);

    void* xhPool = nullptr;
    // Read by receive threads and senders while Start and Destroy replace it.
    std::atomic<int> hSocket{-1};
    // Replaced by each start; the receive threads loop while it is set.
    std::shared_ptr<std::atomic<bool>> bIsRun;
    // One receive thread drains the socket at a time (see NetCore_UDPXCore_Recv).
    std::shared_ptr<tag_NetCore_UDPEpoll_Turn> pRecvTurn = std::make_shared<tag_NetCore_UDPEpoll_Turn>();
    int nIPVer = 2;
    int nThreadCount = 0;

    // Totals, interval starts and snapshots are bumped by every receive thread and every sender
    // at once, so each is a relaxed atomic (the totals one slot per thread); readers see each
    // value on its own, not a snapshot.
    enum { kSendBytes, kRecvBytes, kSendPackets, kRecvPackets, kFlowCount };
    netcore::FlowCounters<kFlowCount> st_Flow;
    std::atomic<unsigned long long> nTimeSendFlow{0};
    std::atomic<unsigned long long> nTimeRecvFlow{0};
    std::atomic<unsigned long long> nFlowSendBytes{0};
    std::atomic<unsigned long long> nFlowRecvBytes{0};
    std::atomic<unsigned long long> nFlowSendPackets{0};
    std::atomic<unsigned long long> nFlowRecvPackets{0};
    std::atomic<long long> nTimeFlow{0};
    std::atomic<unsigned long long> nTimeStart{0};
    std::atomic<unsigned long long> nTimeRecv{0};
    std::atomic<unsigned long long> nTimeSend{0};

    // The callback and its context may be registered while datagrams arrive: the context is
    // stored before the callback is published, and read after it.
    std::atomic<void*> lParam{nullptr};
    std::atomic<CALLBACK_NETCORE_UDPXCORE_RECV> fpCall_Recv{nullptr};

    CNetCore_Socket st_Socket;
    tag_ThreadPool_Parament** ppSt_ListPool = nullptr;
    // Touched only by Start and Destroy, on the caller's thread.
    std::list<std::unique_ptr<NETCORE_UDPEPOLL_EVENTS>> stl_ListEvents;
    // Datagrams read in one batch behind an empty one, (address text, data) in arrival order:
    // they are the head of the queue until the next arrival drains again.
    std::mutex st_LockHeld;
    std::deque<std::pair<std::string, std::string>> stl_ListHeld;
    std::atomic<bool> bHeld{false};
};

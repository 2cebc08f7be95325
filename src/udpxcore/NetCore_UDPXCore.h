// CNetCore_UDPXCore: one bound UDP socket served by receive threads of the pool library, each
// waiting on its own epoll instance in which the socket is registered edge-triggered.
#pragma once

#include <sys/epoll.h>

#include <atomic>
#include <list>
#include <memory>

#include "Ombrelt_ManagePool.h"
#include "Ombrelt_NetCore.h"
#include "socket/NetCore_Socket.h"

class CNetCore_UDPXCore;

// One receive thread's wake-up pipe and epoll instance.
struct NETCORE_UDPEPOLL_EVENTS {
    int hPipe[2];
    int hEpoll;
    struct epoll_event st_Event;
    struct epoll_event st_Events[1024];
    CNetCore_UDPXCore* pClass_UDPXCore;
};

// Unused by the receive path, which always passes null.
struct NETCORE_UDPEPOLL_BUFFER;

class NETCORE_API CNetCore_UDPXCore {
public:
    CNetCore_UDPXCore();
    ~CNetCore_UDPXCore();
    CNetCore_UDPXCore(const CNetCore_UDPXCore&) = delete;
    CNetCore_UDPXCore& operator=(const CNetCore_UDPXCore&) = delete;

    bool NetCore_UDPXCore_Start(int nPort, int nThread = 0, int nTimeFlow = 5, int nIPVer = 2);
    bool NetCore_UDPXCore_RegisterCallBack(CALLBACK_NETCORE_UDPXCORE_RECV fpCall_Recv, void* lParam = nullptr);
    bool NetCore_UDPXCore_SendMsg(const char* lpszClientAddr, const char* lpszMsgBuffer, int nMsgLen);
    bool NetCore_UDPXCore_GetSocket(int* phSocket);
    bool NetCore_UDPXCore_GetFlow(unsigned long long* pInt_SendBytes, unsigned long long* pInt_RecvBytes,
                                  unsigned long long* pInt_SendPackets = nullptr,
                                  unsigned long long* pInt_RecvPackets = nullptr);
    bool NetCore_UDPXCore_GetAverageFlow(unsigned long long* pInt_SendBytes, unsigned long long* pInt_RecvBytes,
                                         unsigned long long* pInt_SendPackets, unsigned long long* pInt_RecvPackets,
                                         bool bWhole = true);
    bool NetCore_UDPXCore_GetTime(unsigned long long* pInt_TimeRecv, unsigned long long* pInt_TimeSend);
    bool NetCore_UDPXCore_Destroy(bool bClearFlow = false);

protected:
    bool NetCore_UDPXCore_Create(int nPort, int nThread, std::list<THREADPOOL_PARAMENT*>* pStl_ListParam);
    static void* NetCore_UDPXCore_ThreadAccept(void* lParam);
    bool NetCore_UDPXCore_Recv(int hSocket, NETCORE_UDPEPOLL_BUFFER* pSt_Buffer, unsigned long nLen);

private:
    void* xhPool = nullptr;
    int hSocket = -1;  // -1 while no socket is bound, so that Destroy never closes a stranger
    std::atomic<bool> bIsRun{false};
    int nIPVer = 0;
    int nThreadCount = 0;
    // Counters are bumped by the receive threads and by senders at once.
    std::atomic<unsigned long long> nSendBytes{0};
    std::atomic<unsigned long long> nRecvBytes{0};
    std::atomic<unsigned long long> nSendPackets{0};
    std::atomic<unsigned long long> nRecvPackets{0};
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
    std::atomic<void*> lParam{nullptr};
    std::atomic<CALLBACK_NETCORE_UDPXCORE_RECV> fpCall_Recv{nullptr};
    CNetCore_Socket m_Socket;
    THREADPOOL_PARAMENT** ppSt_ListPool = nullptr;
    std::list<std::unique_ptr<NETCORE_UDPEPOLL_EVENTS>> stl_ListEvents;
};

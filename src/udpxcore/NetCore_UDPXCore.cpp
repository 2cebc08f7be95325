#include "NetCore_UDPXCore.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <new>
#include <thread>

#include "Ombrelt_BaseLib.h"
#include "frame/Error.h"

using netcore::ClearError;
using netcore::Fail;

namespace {

constexpr int kDatagramSize = 2048;
constexpr int kEpollEvents = 1024;
constexpr auto kRelaxed = std::memory_order_relaxed;

// Closes an interval once it has lasted longer than nTimeFlow seconds: the totals as they stand
// become the snapshot the averages are measured against.
void CloseInterval(unsigned long long nTimeNow, long long nTimeFlow, std::atomic<unsigned long long>& nIntervalStart,
                   const std::atomic<unsigned long long>& nPackets, const std::atomic<unsigned long long>& nBytes,
                   std::atomic<unsigned long long>& nSnapPackets, std::atomic<unsigned long long>& nSnapBytes) {
    if (nTimeNow - nIntervalStart.load(kRelaxed) <= static_cast<unsigned long long>(nTimeFlow * 1000)) return;
    nIntervalStart.store(nTimeNow, kRelaxed);
    nSnapPackets.store(nPackets.load(kRelaxed), kRelaxed);
    nSnapBytes.store(nBytes.load(kRelaxed), kRelaxed);
}

unsigned long long Quotient(unsigned long long nValue, unsigned long long nDivisor) {
    return nDivisor == 0 ? 0 : nValue / nDivisor;
}

}  // namespace

CNetCore_UDPXCore::CNetCore_UDPXCore() = default;

CNetCore_UDPXCore::~CNetCore_UDPXCore() {
    // a server still running at its end is stopped, so no thread outlives it
    if (xhPool != nullptr || hSocket >= 0) NetCore_UDPXCore_Destroy(false);
}

bool CNetCore_UDPXCore::NetCore_UDPXCore_Start(int nPort, int nThread, int nTimeFlow, int nIPVer) {
    ClearError();
    bIsRun = true;
    nThreadCount = nThread > 0 ? nThread : static_cast<int>(std::thread::hardware_concurrency());
    if (nThreadCount < 1) nThreadCount = 1;
    if (!BaseLib_OperatorMemory_Malloc(reinterpret_cast<void***>(&ppSt_ListPool), nThreadCount,
                                       sizeof(THREADPOOL_PARAMENT))) {
        return Fail(ERROR_NETCORE_UDPXCORE_CREATE_MALLOC);
    }
    this->nIPVer = nIPVer;
    this->nTimeFlow.store(nTimeFlow, kRelaxed);
    nTimeStart.store(BaseLib_OperatorTime_GetTickCount64(), kRelaxed);

    std::list<THREADPOOL_PARAMENT*> stl_ListParam;
    if (!NetCore_UDPXCore_Create(nPort, nThreadCount, &stl_ListParam)) {
        for (THREADPOOL_PARAMENT* pSt_Param : stl_ListParam)
            delete pSt_Param;
        return false;
    }
    int i = 0;
    for (THREADPOOL_PARAMENT* pSt_Param : stl_ListParam) {
        *ppSt_ListPool[i++] = *pSt_Param;
        delete pSt_Param;
    }
    xhPool = ManagePool_Thread_NQCreate(&ppSt_ListPool, nThreadCount);
    if (xhPool == nullptr) return Fail(ManagePool_GetLastError(nullptr));
    return true;
}

bool CNetCore_UDPXCore::NetCore_UDPXCore_Create(int nPort, int nThread,
                                                std::list<THREADPOOL_PARAMENT*>* pStl_ListParam) {
    int hNewSocket = -1;
    if (!m_Socket.NetCore_Socket_Create(&hNewSocket, false, nIPVer)) return false;
    hSocket = hNewSocket;
    if (!m_Socket.NetCore_Socket_SetReAddr(hSocket)) return false;
    if (!m_Socket.NetCore_Socket_SetNoneBlock(hSocket, true)) return false;
    if (!m_Socket.NetCore_Socket_Bind(hSocket, nPort, false, nIPVer)) return false;

    for (int i = 0; i < nThread; i++) {
        auto pSt_Events = std::unique_ptr<NETCORE_UDPEPOLL_EVENTS>(new (std::nothrow) NETCORE_UDPEPOLL_EVENTS());
        if (!pSt_Events) return Fail(ERROR_NETCORE_UDPXCORE_CREATE_MALLOC);
        pSt_Events->hPipe[0] = pSt_Events->hPipe[1] = -1;
        pSt_Events->hEpoll = epoll_create(kEpollEvents);
        if (pSt_Events->hEpoll == -1) return Fail(ERROR_NETCORE_UDPXCORE_CREATE_EPOLL);
        pSt_Events->pClass_UDPXCore = this;
        // kept in the list from here on, so that Destroy releases what a later failure leaves
        NETCORE_UDPEPOLL_EVENTS* pSt_Record = pSt_Events.get();
        stl_ListEvents.push_back(std::move(pSt_Events));

        pSt_Record->st_Event.events = EPOLLIN | EPOLLET;
        pSt_Record->st_Event.data.fd = hSocket;
        if (epoll_ctl(pSt_Record->hEpoll, EPOLL_CTL_ADD, hSocket, &pSt_Record->st_Event) == -1) {
            return Fail(ERROR_NETCORE_UDPXCORE_CREATE_CTLSOCKET);
        }
        if (pipe(pSt_Record->hPipe) == -1) {
            pSt_Record->hPipe[0] = pSt_Record->hPipe[1] = -1;
            return Fail(ERROR_NETCORE_UDPXCORE_CREATE_PIPE);
        }
        pSt_Record->st_Event.events = EPOLLIN;
        pSt_Record->st_Event.data.fd = pSt_Record->hPipe[0];
        if (epoll_ctl(pSt_Record->hEpoll, EPOLL_CTL_ADD, pSt_Record->hPipe[0], &pSt_Record->st_Event) == -1) {
            return Fail(ERROR_NETCORE_UDPXCORE_CREATE_CTLPIPE);
        }
        pStl_ListParam->push_back(new THREADPOOL_PARAMENT{pSt_Record, NetCore_UDPXCore_ThreadAccept});
    }
    return true;
}

void* CNetCore_UDPXCore::NetCore_UDPXCore_ThreadAccept(void* lParam) {
    auto* pSt_Events = static_cast<NETCORE_UDPEPOLL_EVENTS*>(lParam);
    CNetCore_UDPXCore* pClass_This = pSt_Events->pClass_UDPXCore;
    while (pClass_This->bIsRun) {
        int nCount = epoll_wait(pSt_Events->hEpoll, pSt_Events->st_Events, kEpollEvents, -1);
        if (nCount == -1) continue;
        for (int i = 0; i < nCount; i++) {
            const epoll_event& st_Event = pSt_Events->st_Events[i];
            if (st_Event.data.fd == pClass_This->hSocket || (st_Event.events & EPOLLIN)) {
                pClass_This->NetCore_UDPXCore_Recv(st_Event.data.fd, nullptr, 0);
            } else {
                printf("errno udp xcore %d\n", errno);
            }
        }
    }
    return nullptr;
}

bool CNetCore_UDPXCore::NetCore_UDPXCore_Recv(int hSocket, NETCORE_UDPEPOLL_BUFFER*, unsigned long) {
    // Edge-triggered: drain until the socket has nothing more. An error is reported with the
    // sender of the last datagram read, if any.
    char tszClientAddr[128] = {};
    for (;;) {
        char tszMsgBuffer[kDatagramSize];
        char tszAddrText[128] = {};
        ssize_t nRet;
        if (nIPVer == AF_INET) {
            struct sockaddr_in st_Addr {};
            socklen_t nLen = sizeof(st_Addr);
            nRet =
                recvfrom(hSocket, tszMsgBuffer, sizeof(tszMsgBuffer), 0, reinterpret_cast<sockaddr*>(&st_Addr), &nLen);
            if (nRet < 1) break;
            inet_ntop(AF_INET, &st_Addr.sin_addr, tszAddrText, sizeof(tszAddrText));
            snprintf(tszClientAddr, sizeof(tszClientAddr), "%s:%d", tszAddrText, ntohs(st_Addr.sin_port));
        } else {
            struct sockaddr_in6 st_Addr {};
            socklen_t nLen = sizeof(st_Addr);
            nRet =
                recvfrom(hSocket, tszMsgBuffer, sizeof(tszMsgBuffer), 0, reinterpret_cast<sockaddr*>(&st_Addr), &nLen);
            if (nRet < 1) break;
            inet_ntop(AF_INET6, &st_Addr.sin6_addr, tszAddrText, sizeof(tszAddrText));
            snprintf(tszClientAddr, sizeof(tszClientAddr), "%s:%d", tszAddrText, ntohs(st_Addr.sin6_port));
        }
        nRecvPackets.fetch_add(1, kRelaxed);
        nRecvBytes.fetch_add(static_cast<unsigned long long>(nRet), kRelaxed);
        unsigned long long nTimeNow = BaseLib_OperatorTime_GetTickCount64();
        nTimeRecv.store(nTimeNow, kRelaxed);
        CloseInterval(nTimeNow, nTimeFlow.load(kRelaxed), nTimeRecvFlow, nRecvPackets, nRecvBytes, nFlowRecvPackets,
                      nFlowRecvBytes);
        // without a callback there is no one to hand the datagram to
        CALLBACK_NETCORE_UDPXCORE_RECV fpCall = fpCall_Recv.load();
        if (fpCall != nullptr)
            fpCall(tszClientAddr, this->hSocket, tszMsgBuffer, static_cast<int>(nRet), lParam.load());
    }
    // the wake-up pipe is no socket: its event ends here too
    if (errno == EAGAIN || errno == ENOTSOCK) return true;
    CALLBACK_NETCORE_UDPXCORE_RECV fpCall = fpCall_Recv.load();
    if (fpCall != nullptr) fpCall(tszClientAddr, this->hSocket, nullptr, -1, lParam.load());
    return true;
}

bool CNetCore_UDPXCore::NetCore_UDPXCore_RegisterCallBack(CALLBACK_NETCORE_UDPXCORE_RECV fpCall_Recv, void* lParam) {
    ClearError();
    if (fpCall_Recv == nullptr) return Fail(ERROR_NETCORE_UDPXCORE_CBSET_PARAMENT);
    this->lParam = lParam;
    this->fpCall_Recv = fpCall_Recv;
    return true;
}

bool CNetCore_UDPXCore::NetCore_UDPXCore_SendMsg(const char* lpszClientAddr, const char* lpszMsgBuffer, int nMsgLen) {
    ClearError();
    if (lpszClientAddr == nullptr || lpszMsgBuffer == nullptr) return Fail(ERROR_NETCORE_UDPXCORE_SENDMSG_PARAMENT);
    char tszAddr[64] = {};
    strncpy(tszAddr, lpszClientAddr, sizeof(tszAddr) - 1);
    int nPort = 0;
    BaseLib_OperatorIPAddr_SegAddr(tszAddr, &nPort);
    if (!NetCore_Socket_Send(hSocket, lpszMsgBuffer, nMsgLen, tszAddr, nPort, 3, nIPVer)) return false;

    nSendPackets.fetch_add(1, kRelaxed);
    nSendBytes.fetch_add(static_cast<unsigned long long>(nMsgLen), kRelaxed);
    unsigned long long nTimeNow = BaseLib_OperatorTime_GetTickCount64();
    nTimeSend.store(nTimeNow, kRelaxed);
    CloseInterval(nTimeNow, nTimeFlow.load(kRelaxed), nTimeSendFlow, nSendPackets, nSendBytes, nFlowSendPackets,
                  nFlowSendBytes);
    return true;
}

bool CNetCore_UDPXCore::NetCore_UDPXCore_GetSocket(int* phSocket) {
    ClearError();
    if (phSocket != nullptr) *phSocket = hSocket;
    return true;
}

bool CNetCore_UDPXCore::NetCore_UDPXCore_GetFlow(unsigned long long* pInt_SendBytes, unsigned long long* pInt_RecvBytes,
                                                 unsigned long long* pInt_SendPackets,
                                                 unsigned long long* pInt_RecvPackets) {
    ClearError();
    if (pInt_SendBytes == nullptr || pInt_RecvBytes == nullptr) return Fail(ERROR_NETCORE_UDPXCORE_GETFLOW_PARAMENT);
    *pInt_SendBytes = nSendBytes.load(kRelaxed);
    *pInt_RecvBytes = nRecvBytes.load(kRelaxed);
    if (pInt_SendPackets != nullptr) *pInt_SendPackets = nSendPackets.load(kRelaxed);
    if (pInt_RecvPackets != nullptr) *pInt_RecvPackets = nRecvPackets.load(kRelaxed);
    return true;
}

bool CNetCore_UDPXCore::NetCore_UDPXCore_GetAverageFlow(unsigned long long* pInt_SendBytes,
                                                        unsigned long long* pInt_RecvBytes,
                                                        unsigned long long* pInt_SendPackets,
                                                        unsigned long long* pInt_RecvPackets, bool bWhole) {
    ClearError();
    if (pInt_SendBytes == nullptr || pInt_RecvBytes == nullptr || pInt_SendPackets == nullptr ||
        pInt_RecvPackets == nullptr) {
        return Fail(ERROR_NETCORE_UDPXCORE_AVERAGE_PARAMENT);
    }
    if (bWhole) {
        // milliseconds times 1000: the divisor callers have always had
        unsigned long long nElapsed = (BaseLib_OperatorTime_GetTickCount64() - nTimeStart.load(kRelaxed)) * 1000;
        *pInt_SendBytes = Quotient(nSendBytes.load(kRelaxed), nElapsed);
        *pInt_RecvBytes = Quotient(nRecvBytes.load(kRelaxed), nElapsed);
        *pInt_SendPackets = Quotient(nSendPackets.load(kRelaxed), nElapsed);
        *pInt_RecvPackets = Quotient(nRecvPackets.load(kRelaxed), nElapsed);
        return true;
    }
    unsigned long long nFlow = static_cast<unsigned long long>(nTimeFlow.load(kRelaxed));
    *pInt_SendBytes = nSendBytes.load(kRelaxed) - Quotient(nFlowSendBytes.load(kRelaxed), nFlow);
    *pInt_RecvBytes = nRecvBytes.load(kRelaxed) - Quotient(nFlowRecvBytes.load(kRelaxed), nFlow);
    // the third output starts from the received packet total, as callers know it
    *pInt_SendPackets = nRecvPackets.load(kRelaxed) - Quotient(nFlowSendPackets.load(kRelaxed), nFlow);
    *pInt_RecvPackets = nRecvPackets.load(kRelaxed) - Quotient(nFlowRecvPackets.load(kRelaxed), nFlow);
    return true;
}

bool CNetCore_UDPXCore::NetCore_UDPXCore_GetTime(unsigned long long* pInt_TimeRecv, unsigned long long* pInt_TimeSend) {
    ClearError();
    if (pInt_TimeRecv == nullptr || pInt_TimeSend == nullptr) return Fail(ERROR_NETCORE_UDPXCORE_GETTIME_PARAMENT);
    *pInt_TimeRecv = nTimeRecv.load(kRelaxed);
    *pInt_TimeSend = nTimeSend.load(kRelaxed);
    return true;
}

bool CNetCore_UDPXCore::NetCore_UDPXCore_Destroy(bool bClearFlow) {
    ClearError();
    bIsRun = false;
    for (const auto& pSt_Events : stl_ListEvents) {
        if (pSt_Events->hPipe[1] >= 0 && write(pSt_Events->hPipe[1], "exit", 4) != 4) {
            // a full pipe already holds a wake-up
        }
    }
    if (xhPool != nullptr) ManagePool_Thread_NQDestroy(xhPool);
    xhPool = nullptr;
    // The socket is closed once no thread can be reading it, so its number is never reused
    // under a receive in progress.
    if (hSocket >= 0) close(hSocket);
    hSocket = -1;
    for (const auto& pSt_Events : stl_ListEvents) {
        for (int hFd : {pSt_Events->hPipe[0], pSt_Events->hPipe[1], pSt_Events->hEpoll}) {
            if (hFd >= 0) close(hFd);
        }
    }
    stl_ListEvents.clear();
    if (bClearFlow) {
        for (auto* pnCounter :
             {&nSendBytes, &nRecvBytes, &nSendPackets, &nRecvPackets, &nTimeSendFlow, &nTimeRecvFlow, &nFlowSendBytes,
              &nFlowRecvBytes, &nFlowSendPackets, &nFlowRecvPackets, &nTimeStart, &nTimeRecv, &nTimeSend}) {
            pnCounter->store(0, kRelaxed);
        }
        nTimeFlow.store(0, kRelaxed);
    }
    BaseLib_OperatorMemory_Free(reinterpret_cast<void***>(&ppSt_ListPool), nThreadCount);
    return true;
}

// The TCP epoll server's send path, per-client settings (limits, status, pause, close) and queries.
#include "NetCore_TCPXCore.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <new>
#include <thread>

#include "Ombrelt_BaseLib.h"
#include "base/ClientList.h"
#include "base/Error.h"
#include "tcpxcore/TCPXCoreShared.h"

using netcore::ClearError;
using netcore::Fail;
using namespace netcore::tcpx;

CNetCore_TCPXCore::ClientPtr CNetCore_TCPXCore::FindClient(const char* lpszClientAddr) {
    std::shared_lock<std::shared_mutex> st_Lock(st_Locker);
    auto stl_Iterator = stl_MapClients.find(std::string_view(lpszClientAddr));
    if (stl_Iterator == stl_MapClients.end()) return nullptr;
    return stl_Iterator->second;
}

bool CNetCore_TCPXCore::NetCore_TCPXCore_SendMsg(const char* lpszClientAddr, const char* lpszMsgBuffer, int nMsgLen,
                                                 int nTimeOut, int nIOSelect) {
    ClearError();
    if (lpszClientAddr == nullptr || lpszMsgBuffer == nullptr || nMsgLen <= 0) {
        return Fail(ERROR_NETCORE_TCPXCORE_PARAMENT);
    }
    // The table lock is only held for the lookup: a slow peer blocking a send must not hold up
    // accepts and closes on every event thread. The reference keeps the client alive meanwhile.
    // An answer from the receive callback, given the very address text the callback was handed,
    // goes to the client being served, which the event thread keeps alive; it is still in the
    // table unless it was closed.
    ClientPtr pSt_Found;
    NETCORE_TCPEPOLL_CLIENT* pSt_Client = t_pSt_Delivering;
    if (pSt_Client == nullptr || pSt_Client->pClass != this || lpszClientAddr != pSt_Client->tszClientAddr ||
        pSt_Client->bClosed.load()) {
        pSt_Found = FindClient(lpszClientAddr);
        if (!pSt_Found) return Fail(ERROR_NETCORE_TCPXCORE_NOTFOUND);
        pSt_Client = pSt_Found.get();
    }
    std::lock_guard<std::mutex> st_Lock(pSt_Client->st_LockSend);
    if (pSt_Client->bStatus.load()) return Fail(ERROR_NETCORE_TCPXCORE_SEND_STATUS);
    if (nIOSelect >= 0 && !m_Socket.NetCore_Socket_IOSelect(pSt_Client->hSocket, false, nIOSelect)) return false;
    if (!::NetCore_Socket_Send(pSt_Client->hSocket, lpszMsgBuffer, nMsgLen, nullptr, 0, nTimeOut, AF_INET)) {
        return false;
    }
    // re-arm so that the writable callback fires again
    if (pSt_Client->bCBSend.load() &&
        !EpollCtl(pSt_Client->hEpoll, EPOLL_CTL_MOD, pSt_Client->hSocket, kEventsRecvSend)) {
        return Fail(ERROR_NETCORE_TCPXCORE_SEND_EPOLLCTL);
    }

    st_Flow.Add(kSendPackets, 1);
    st_Flow.Add(kSendBytes, static_cast<unsigned long long>(nMsgLen));
    unsigned long long nNow = TickNow();
    Add(pSt_Client->nSendPackets, 1);
    Add(pSt_Client->nSendBytes, static_cast<unsigned long long>(nMsgLen));
    pSt_Client->nTimeSend.store(nNow, std::memory_order_relaxed);
    RenewPeriod(pSt_Client->nTimeSendPeriod, nNow, nFlowPeriod.load(std::memory_order_relaxed),
                pSt_Client->nPeriodSendBytes, pSt_Client->nSendBytes, pSt_Client->nPeriodSendPackets,
                pSt_Client->nSendPackets);
    return true;
}

bool CNetCore_TCPXCore::NetCore_TCPXCore_CBSend(const char* lpszClientAddr, CALLBACK_NETCORE_TCPXCORE_SEND fpCallSend,
                                                void* lParam) {
    // This operation raises the flag on entry and leaves it up on success; callers go by its
    // result.
    netcore::SetErrorFlag(true);
    if (lpszClientAddr == nullptr) return Fail(ERROR_NETCORE_TCPXCORE_PARAMENT);
    ClientPtr pSt_Client = FindClient(lpszClientAddr);
    if (!pSt_Client) return Fail(ERROR_NETCORE_TCPXCORE_NOTFOUND);
    {
        std::lock_guard<NetCore_TCPXCore_SpinLock> st_Lock(pSt_Client->st_LockLimit);
        pSt_Client->lpSendParam = lParam;
        pSt_Client->fpCallSend = fpCallSend;
    }
    pSt_Client->bCBSend.store(fpCallSend != nullptr);
    if (!EpollCtl(pSt_Client->hEpoll, EPOLL_CTL_MOD, pSt_Client->hSocket,
                  fpCallSend != nullptr ? kEventsRecvSend : kEventsRecv)) {
        return Fail(ERROR_NETCORE_TCPXCORE_SEND_EPOLLCTL);
    }
    return true;
}

// ----- per-client settings -----------------------------------------------------------------------

bool CNetCore_TCPXCore::NetCore_TCPXCore_SetLimit(const char* lpszClientAddr, int nPktLen, const char* lpszEndMark) {
    ClearError();
    if (lpszClientAddr == nullptr) return Fail(ERROR_NETCORE_TCPXCORE_PARAMENT);
    ClientPtr pSt_Client = FindClient(lpszClientAddr);
    if (!pSt_Client) return Fail(ERROR_NETCORE_TCPXCORE_NOTFOUND);

    // Allocated outside the spin lock; only the first limit of a client needs it.
    std::unique_ptr<NETCORE_TCPEPOLL_FRAMING> pSt_Framing;
    std::unique_ptr<char[]> ptszEndMark;
    try {
        if (nPktLen > 0) pSt_Framing.reset(new NETCORE_TCPEPOLL_FRAMING());
        if (lpszEndMark != nullptr && lpszEndMark[0] != '\0') {
            ptszEndMark.reset(new char[NETCORE_TCPXCORE_ENDMARK_SIZE]());
            // a longer terminator keeps its first 255 characters
            strncpy(ptszEndMark.get(), lpszEndMark, NETCORE_TCPXCORE_ENDMARK_SIZE - 1);
        }
    } catch (const std::bad_alloc&) {
        return Fail(ERROR_NETCORE_TCPXCORE_CREATE_MALLOC);
    }
    std::lock_guard<NetCore_TCPXCore_SpinLock> st_Lock(pSt_Client->st_LockLimit);
    pSt_Client->nPktLen.store(nPktLen, std::memory_order_relaxed);
    if (lpszEndMark != nullptr) pSt_Client->ptszEndMark.swap(ptszEndMark);
    if (pSt_Framing && !pSt_Client->pSt_Framing) pSt_Client->pSt_Framing.swap(pSt_Framing);
    return true;
}

bool CNetCore_TCPXCore::NetCore_TCPXCore_GetLimit(const char* lpszClientAddr, int* pInt_PktLen, char* ptszEndMark) {
    ClearError();
    if (lpszClientAddr == nullptr) return Fail(ERROR_NETCORE_TCPXCORE_PARAMENT);
    ClientPtr pSt_Client = FindClient(lpszClientAddr);
    if (!pSt_Client) return Fail(ERROR_NETCORE_TCPXCORE_NOTFOUND);
    std::lock_guard<NetCore_TCPXCore_SpinLock> st_Lock(pSt_Client->st_LockLimit);
    if (pInt_PktLen != nullptr) *pInt_PktLen = pSt_Client->nPktLen.load(std::memory_order_relaxed);
    if (ptszEndMark != nullptr) strcpy(ptszEndMark, pSt_Client->ptszEndMark ? pSt_Client->ptszEndMark.get() : "");
    return true;
}

bool CNetCore_TCPXCore::NetCore_TCPXCore_SetStatus(const char* lpszClientAddr, bool bStatus) {
    ClearError();
    if (lpszClientAddr == nullptr) return Fail(ERROR_NETCORE_TCPXCORE_PARAMENT);
    ClientPtr pSt_Client = FindClient(lpszClientAddr);
    if (!pSt_Client) return Fail(ERROR_NETCORE_TCPXCORE_NOTFOUND);
    pSt_Client->bStatus.store(bStatus);
    return true;
}

bool CNetCore_TCPXCore::NetCore_TCPXCore_PasueRecv(const char* lpszClientAddr, bool bRecv) {
    ClearError();
    if (lpszClientAddr == nullptr) return Fail(ERROR_NETCORE_TCPXCORE_PARAMENT);
    ClientPtr pSt_Client = FindClient(lpszClientAddr);
    if (!pSt_Client) return Fail(ERROR_NETCORE_TCPXCORE_NOTFOUND);
    // the field takes the argument as it is: true means receiving
    pSt_Client->bPaused.store(bRecv);
    bool bOk = bRecv ? EpollCtl(pSt_Client->hEpoll, EPOLL_CTL_ADD, pSt_Client->hSocket, kEventsRecv)
                     : EpollCtl(pSt_Client->hEpoll, EPOLL_CTL_DEL, pSt_Client->hSocket, 0);
    if (!bOk) return Fail(ERROR_NETCORE_TCPXCORE_PAUSE_EPOLLCTL);
    return true;
}

bool CNetCore_TCPXCore::NetCore_TCPXCore_CloseForClient(const char* lpszClientAddr) {
    ClearError();
    if (lpszClientAddr == nullptr) return Fail(ERROR_NETCORE_TCPXCORE_PARAMENT);
    ClientPtr pSt_Client;
    {
        std::unique_lock<std::shared_mutex> st_Lock(st_Locker);
        auto stl_Iterator = stl_MapClients.find(std::string_view(lpszClientAddr));
        if (stl_Iterator == stl_MapClients.end()) return Fail(ERROR_NETCORE_TCPXCORE_NOTFOUND);
        pSt_Client = std::move(stl_Iterator->second);
        stl_MapClients.erase(stl_Iterator);
        stl_ListSockets[pSt_Client->hSocket].reset();
    }
    pSt_Client->bClosed.store(true);
    epoll_ctl(pSt_Client->hEpoll, EPOLL_CTL_DEL, pSt_Client->hSocket, nullptr);
    shutdown(pSt_Client->hSocket, SHUT_RDWR);
    // the descriptor closes with the record, here or when the last user lets go of it
    return true;
}

// ----- queries -----------------------------------------------------------------------------------

bool CNetCore_TCPXCore::NetCore_TCPXCore_GetAll(char*** pppszListAddr, int* pInt_ListCount) {
    ClearError();
    if (pppszListAddr == nullptr || pInt_ListCount == nullptr) return Fail(ERROR_NETCORE_TCPXCORE_PARAMENT);
    std::shared_lock<std::shared_mutex> st_Lock(st_Locker);
    if (stl_MapClients.empty()) return Fail(ERROR_NETCORE_TCPXCORE_EMPTY);
    int nCount = static_cast<int>(stl_MapClients.size());
    if (!netcore::HandOutAddressList(stl_MapClients, pppszListAddr)) return Fail(ERROR_NETCORE_TCPXCORE_CREATE_MALLOC);
    *pInt_ListCount = nCount;
    return true;
}

bool CNetCore_TCPXCore::NetCore_TCPXCore_GetAddrForSocket(int hSocket, char* ptszClientAddr, bool* pbStatus) {
    ClearError();
    if (hSocket == 0 || ptszClientAddr == nullptr) return Fail(ERROR_NETCORE_TCPXCORE_PARAMENT);
    ClientPtr pSt_Client;
    if (!NetCore_TCPXCore_GetClient(hSocket, &pSt_Client)) return Fail(ERROR_NETCORE_TCPXCORE_NOTFOUND);
    strcpy(ptszClientAddr, pSt_Client->tszClientAddr);
    if (pbStatus != nullptr) *pbStatus = pSt_Client->bStatus.load();
    return true;
}

bool CNetCore_TCPXCore::NetCore_TCPXCore_GetSocketForAddr(const char* lpszClientAddr, int* phSocket) {
    ClearError();
    if (lpszClientAddr == nullptr || phSocket == nullptr) return Fail(ERROR_NETCORE_TCPXCORE_PARAMENT);
    ClientPtr pSt_Client = FindClient(lpszClientAddr);
    if (!pSt_Client) return Fail(ERROR_NETCORE_TCPXCORE_NOTFOUND);
    if (pSt_Client->hSocket == -1 || pSt_Client->hSocket == 0) return Fail(ERROR_NETCORE_TCPXCORE_SOCKET_INVALID);
    *phSocket = pSt_Client->hSocket;
    return true;
}

bool CNetCore_TCPXCore::NetCore_TCPXCore_GetFlow(unsigned long long* pInt_SendBytes, unsigned long long* pInt_RecvBytes,
                                                 unsigned long long* pInt_SendPackets,
                                                 unsigned long long* pInt_RecvPackets, const char* lpszClientAddr) {
    ClearError();
    if (pInt_SendBytes == nullptr || pInt_RecvBytes == nullptr) return Fail(ERROR_NETCORE_TCPXCORE_PARAMENT);
    if (lpszClientAddr == nullptr) {
        *pInt_SendBytes = st_Flow.Get(kSendBytes);
        *pInt_RecvBytes = st_Flow.Get(kRecvBytes);
        if (pInt_SendPackets != nullptr) *pInt_SendPackets = st_Flow.Get(kSendPackets);
        if (pInt_RecvPackets != nullptr) *pInt_RecvPackets = st_Flow.Get(kRecvPackets);
        return true;
    }
    ClientPtr pSt_Client = FindClient(lpszClientAddr);
    if (!pSt_Client) return Fail(ERROR_NETCORE_TCPXCORE_NOTFOUND);
    *pInt_SendBytes = Get(pSt_Client->nSendBytes);
    *pInt_RecvBytes = Get(pSt_Client->nRecvBytes);
    if (pInt_SendPackets != nullptr) *pInt_SendPackets = Get(pSt_Client->nSendPackets);
    if (pInt_RecvPackets != nullptr) *pInt_RecvPackets = Get(pSt_Client->nRecvPackets);
    return true;
}

bool CNetCore_TCPXCore::NetCore_TCPXCore_GetTime(const char* lpszClientAddr, unsigned long long* pInt_SendTime,
                                                 unsigned long long* pInt_RecvTime,
                                                 unsigned long long* pInt_OnlineTime) {
    ClearError();
    if (lpszClientAddr == nullptr || pInt_SendTime == nullptr || pInt_RecvTime == nullptr) {
        return Fail(ERROR_NETCORE_TCPXCORE_PARAMENT);
    }
    ClientPtr pSt_Client = FindClient(lpszClientAddr);
    if (!pSt_Client) return Fail(ERROR_NETCORE_TCPXCORE_NOTFOUND);
    unsigned long long nNow = TickNow();
    unsigned long long nTimeSend = Get(pSt_Client->nTimeSend);
    unsigned long long nTimeRecv = Get(pSt_Client->nTimeRecv);
    *pInt_SendTime = nTimeSend == 0 ? 0 : nNow - nTimeSend;
    *pInt_RecvTime = nTimeRecv == 0 ? 0 : nNow - nTimeRecv;
    if (pInt_OnlineTime != nullptr) *pInt_OnlineTime = nNow - pSt_Client->nTimeStart;
    return true;
}

bool CNetCore_TCPXCore::NetCore_TCPXCore_GetAverageFlow(unsigned long long* pInt_SendBytes,
                                                        unsigned long long* pInt_RecvBytes,
                                                        unsigned long long* pInt_SendPackets,
                                                        unsigned long long* pInt_RecvPackets,
                                                        const char* lpszClientAddr, bool bAll) {
    ClearError();
    if (pInt_SendBytes == nullptr || pInt_RecvBytes == nullptr || pInt_SendPackets == nullptr ||
        pInt_RecvPackets == nullptr) {
        return Fail(ERROR_NETCORE_TCPXCORE_PARAMENT);
    }
    // elapsed milliseconds times 1000, and integer quotients: the figures callers have always had
    auto fnLifeAverage = [&](unsigned long long nStart, unsigned long long nSendB, unsigned long long nRecvB,
                             unsigned long long nSendP, unsigned long long nRecvP) {
        unsigned long long nElapsed = (TickNow() - nStart) * 1000ULL;
        *pInt_SendBytes = nElapsed == 0 ? 0 : nSendB / nElapsed;
        *pInt_RecvBytes = nElapsed == 0 ? 0 : nRecvB / nElapsed;
        *pInt_SendPackets = nElapsed == 0 ? 0 : nSendP / nElapsed;
        *pInt_RecvPackets = nElapsed == 0 ? 0 : nRecvP / nElapsed;
        return true;
    };
    if (lpszClientAddr == nullptr) {
        return fnLifeAverage(nTimeStart, st_Flow.Get(kSendBytes), st_Flow.Get(kRecvBytes), st_Flow.Get(kSendPackets),
                             st_Flow.Get(kRecvPackets));
    }
    ClientPtr pSt_Client = FindClient(lpszClientAddr);
    if (!pSt_Client) return Fail(ERROR_NETCORE_TCPXCORE_NOTFOUND);
    if (bAll) {
        return fnLifeAverage(pSt_Client->nTimeStart, Get(pSt_Client->nSendBytes), Get(pSt_Client->nRecvBytes),
                             Get(pSt_Client->nSendPackets), Get(pSt_Client->nRecvPackets));
    }
    // the period figure: the counter less the period's starting snapshot divided by the period
    unsigned long long nPeriod = static_cast<unsigned long long>(std::max(0, nFlowPeriod.load()));
    auto fnPeriod = [nPeriod](const std::atomic<unsigned long long>& nCounter,
                              const std::atomic<unsigned long long>& nSnapshot) {
        return Get(nCounter) - (nPeriod == 0 ? 0 : Get(nSnapshot) / nPeriod);
    };
    *pInt_SendBytes = fnPeriod(pSt_Client->nSendBytes, pSt_Client->nPeriodSendBytes);
    *pInt_RecvBytes = fnPeriod(pSt_Client->nRecvBytes, pSt_Client->nPeriodRecvBytes);
    *pInt_SendPackets = fnPeriod(pSt_Client->nSendPackets, pSt_Client->nPeriodSendPackets);
    *pInt_RecvPackets = fnPeriod(pSt_Client->nRecvPackets, pSt_Client->nPeriodRecvPackets);
    return true;
}

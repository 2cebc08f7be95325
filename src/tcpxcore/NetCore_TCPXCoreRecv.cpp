// The TCP epoll server's event threads: accepting clients, draining their sockets and framing what
// arrives.
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

// ----- event threads -----------------------------------------------------------------------------

void* CNetCore_TCPXCore::NetCore_Thread_Recv(void* lParam) {
    auto* pSt_Events = static_cast<NETCORE_TCPEPOLL_EVENTS*>(lParam);
    CNetCore_TCPXCore* pClass = pSt_Events->pClass;
    t_pEventServer = pClass;
    while (pClass->bStarted.load()) {
        int nCount = epoll_wait(pSt_Events->hEpoll, pSt_Events->st_Events, NETCORE_TCPXCORE_MAX_EVENTS, -1);
        if (nCount <= 0) {
            printf("epoll_wait:%d\n", errno);
            continue;
        }
        for (int i = 0; i < nCount; i++) {
            int hFd = pSt_Events->st_Events[i].data.fd;
            uint32_t nEvents = pSt_Events->st_Events[i].events;
            ClientPtr pSt_Client;
            if (hFd == pSt_Events->hListenSocket) {
                pClass->NetCore_TCPXCore_AcceptClient(pSt_Events, hFd);
            } else if (nEvents & EPOLLIN) {
                // the wake-up pipe has no client and is skipped here
                if (!pClass->NetCore_TCPXCore_GetClient(hFd, &pSt_Client)) continue;
                if (!pClass->NetCore_TCPXCore_RecvClient(pSt_Client.get(), nEvents)) {
                    pClass->NetCore_TCPXCore_CloseForClient(pSt_Client->tszClientAddr);
                }
            } else if (nEvents & EPOLLOUT) {
                if (pClass->NetCore_TCPXCore_GetClient(hFd, &pSt_Client)) {
                    pClass->NetCore_TCPXCore_PostClient(pSt_Client.get());
                }
            } else if (nEvents & EPOLLERR) {
                char tszClientAddr[128] = {};
                if (!pClass->NetCore_TCPXCore_GetAddrForSocket(hFd, tszClientAddr, nullptr)) {
                    printf("EPOLLERR:%d\n", errno);
                } else {
                    CALLBACK_NETCORE_TCPXCORE_LEAVE fpLeave = pClass->fpCallePoll_Leave.load();
                    if (fpLeave != nullptr) fpLeave(tszClientAddr, hFd, pClass->lpLeaveParam.load());
                    pClass->NetCore_TCPXCore_CloseForClient(tszClientAddr);
                }
            } else {
                printf("NetCore_Thread_Accept:EPOLL UNKONW:%d\n", errno);
            }
        }
    }
    t_pEventServer = nullptr;
    return nullptr;
}

void* CNetCore_TCPXCore::NetCore_Thread_Accept(void* lParam) {
    auto* pClass = static_cast<CNetCore_TCPXCore*>(lParam);
    while (pClass->bStarted.load()) {
        pClass->NetCore_TCPXCore_AcceptClient(nullptr, pClass->hListenProbe);
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return nullptr;
}

bool CNetCore_TCPXCore::NetCore_TCPXCore_AcceptClient(NETCORE_TCPEPOLL_EVENTS* pSt_Events, int hListenSocket) {
    // without an event record there is no epoll instance to serve the client
    if (pSt_Events == nullptr) return false;
    bool bIPv4 = nIPVer.load(std::memory_order_relaxed) == AF_INET;
    struct sockaddr_storage st_Addr {};
    socklen_t nAddrLen = bIPv4 ? sizeof(struct sockaddr_in) : sizeof(struct sockaddr_in6);
    int hSocket =
        accept4(hListenSocket, reinterpret_cast<sockaddr*>(&st_Addr), &nAddrLen, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (hSocket == -1) return false;

    char tszAddr[64] = {};
    int nClientPort;
    if (bIPv4) {
        auto* pSt_In = reinterpret_cast<sockaddr_in*>(&st_Addr);
        inet_ntop(AF_INET, &pSt_In->sin_addr, tszAddr, sizeof(tszAddr));
        nClientPort = ntohs(pSt_In->sin_port);
    } else {
        auto* pSt_In6 = reinterpret_cast<sockaddr_in6*>(&st_Addr);
        inet_ntop(AF_INET6, &pSt_In6->sin6_addr, tszAddr, sizeof(tszAddr));
        nClientPort = ntohs(pSt_In6->sin6_port);
    }
    if (!EpollCtl(pSt_Events->hEpoll, EPOLL_CTL_ADD, hSocket, kEventsRecv)) {
        close(hSocket);
        return Fail(ERROR_NETCORE_TCPXCORE_CREATE_EPOLLCTL);
    }

    ClientPtr pSt_Client;
    try {
        pSt_Client = std::make_shared<NETCORE_TCPEPOLL_CLIENT>();
    } catch (const std::bad_alloc&) {
        close(hSocket);  // leaves the epoll set with its last descriptor
        return false;
    }
    pSt_Client->pClass = this;
    pSt_Client->hEpoll = pSt_Events->hEpoll;
    pSt_Client->nTimeStart = TickNow();
    pSt_Client->hSocket = hSocket;
    snprintf(pSt_Client->tszClientAddr, sizeof(pSt_Client->tszClientAddr), "%s:%d", tszAddr, nClientPort);

    size_t nClients;
    {
        std::unique_lock<std::shared_mutex> st_Lock(st_Locker);
        // An existing entry is kept. Two live connections cannot share an address and port, so
        // the newcomer that loses is simply dropped.
        if (!stl_MapClients.emplace(std::string_view(pSt_Client->tszClientAddr), pSt_Client).second) return true;
        if (stl_ListSockets.size() <= static_cast<size_t>(hSocket)) {
            stl_ListSockets.resize(std::max<size_t>(static_cast<size_t>(hSocket) + 1, stl_ListSockets.size() * 2));
        }
        stl_ListSockets[hSocket] = pSt_Client;
        nClients = stl_MapClients.size();
    }

    CALLBACK_NETCORE_TCPXCORE_LOGIN fpLogin = fpCallePoll_Login.load();
    void* lParam = lpLoginParam.load();
    if (nClients > static_cast<size_t>(std::max(0, nMaxClient.load(std::memory_order_relaxed)))) {
        // over the limit: the caller hears of it with socket 0, and its answer does not matter
        if (fpLogin != nullptr) fpLogin(pSt_Client->tszClientAddr, 0, lParam);
        NetCore_TCPXCore_CloseForClient(pSt_Client->tszClientAddr);
    } else if (fpLogin != nullptr && !fpLogin(pSt_Client->tszClientAddr, hSocket, lParam)) {
        NetCore_TCPXCore_CloseForClient(pSt_Client->tszClientAddr);
    }
    return true;
}

bool CNetCore_TCPXCore::NetCore_TCPXCore_GetClient(int hSocket, ClientPtr* ppSt_Client) {
    if (hSocket < 0) return false;
    std::shared_lock<std::shared_mutex> st_Lock(st_Locker);
    if (static_cast<size_t>(hSocket) >= stl_ListSockets.size() || !stl_ListSockets[hSocket]) return false;
    *ppSt_Client = stl_ListSockets[hSocket];
    return true;
}

// ----- receiving ---------------------------------------------------------------------------------

void CNetCore_TCPXCore::DeliverRecv(NETCORE_TCPEPOLL_CLIENT* pSt_Client, const char* lpszMsg, int nLen) {
    CALLBACK_NETCORE_TCPXCORE_RECV fpRecv = fpCallePoll_Recv.load(std::memory_order_relaxed);
    if (fpRecv != nullptr) {
        NETCORE_TCPEPOLL_CLIENT* pSt_Outer = t_pSt_Delivering;
        t_pSt_Delivering = pSt_Client;
        fpRecv(pSt_Client->tszClientAddr, pSt_Client->hSocket, lpszMsg, nLen,
               lpRecvParam.load(std::memory_order_relaxed));
        t_pSt_Delivering = pSt_Outer;
    }
}

void CNetCore_TCPXCore::CountRecv(NETCORE_TCPEPOLL_CLIENT* pSt_Client, int nLen) {
    st_Flow.Add(kRecvPackets, 1);
    st_Flow.Add(kRecvBytes, static_cast<unsigned long long>(nLen));
    unsigned long long nNow = TickNow();
    pSt_Client->nTimeRecv.store(nNow, std::memory_order_relaxed);
    Add(pSt_Client->nRecvPackets, 1);
    Add(pSt_Client->nRecvBytes, static_cast<unsigned long long>(nLen));
    RenewPeriod(pSt_Client->nTimeRecvPeriod, nNow, nFlowPeriod.load(std::memory_order_relaxed),
                pSt_Client->nPeriodRecvBytes, pSt_Client->nRecvBytes, pSt_Client->nPeriodRecvPackets,
                pSt_Client->nRecvPackets);
}

// Framing of one read, under the client's receive lock. Messages of nPktLen bytes, at most one
// per read; below that, a terminator found in the buffered text delivers everything buffered.
void CNetCore_TCPXCore::FrameMessage(NETCORE_TCPEPOLL_CLIENT* pSt_Client, const char* lpszData, int nLen) {
    // without a packet length there is no framing: nothing else needs reading
    if (pSt_Client->nPktLen.load(std::memory_order_relaxed) <= 0) {
        DeliverRecv(pSt_Client, lpszData, nLen);
        return;
    }
    int nPktLen;
    char tszEndMark[NETCORE_TCPXCORE_ENDMARK_SIZE] = {};
    NETCORE_TCPEPOLL_FRAMING* pSt_Framing;
    {
        std::lock_guard<NetCore_TCPXCore_SpinLock> st_Lock(pSt_Client->st_LockLimit);
        nPktLen = pSt_Client->nPktLen.load(std::memory_order_relaxed);
        if (pSt_Client->ptszEndMark) strcpy(tszEndMark, pSt_Client->ptszEndMark.get());
        pSt_Framing = pSt_Client->pSt_Framing.get();
    }
    if (nPktLen <= 0 || pSt_Framing == nullptr) {
        DeliverRecv(pSt_Client, lpszData, nLen);
        return;
    }
    // a message must fit the buffer: longer lengths frame by the buffer's size
    nPktLen = std::min(nPktLen, NETCORE_TCPXCORE_BUFFER_SIZE);
    char* ptszBuffer = pSt_Framing->tszRecvBuffer;
    int& nBufLen = pSt_Framing->nBufLen;

    if (nBufLen + nLen < nPktLen) {
        memcpy(ptszBuffer + nBufLen, lpszData, nLen);
        nBufLen += nLen;
        if (tszEndMark[0] != '\0' && strstr(ptszBuffer, tszEndMark) != nullptr) {
            DeliverRecv(pSt_Client, ptszBuffer, nBufLen);
            memset(ptszBuffer, 0, nBufLen);  // the rest of the buffer is zero already
            nBufLen = 0;
        }
        return;
    }

    // One complete message. What is left over (buffered bytes beyond the message, then the rest
    // of this read) stays buffered for the next read; only when it would overflow the buffer are
    // further whole messages delivered at once.
    char tszMessage[NETCORE_TCPXCORE_BUFFER_SIZE + 1];
    int nNeed = std::max(0, nPktLen - nBufLen);
    int nFromBuffer = nPktLen - nNeed;
    memcpy(tszMessage, ptszBuffer, nFromBuffer);
    memcpy(tszMessage + nFromBuffer, lpszData, nNeed);
    tszMessage[nPktLen] = '\0';
    int nOldLen = nBufLen;
    memmove(ptszBuffer, ptszBuffer + nFromBuffer, nOldLen - nFromBuffer);
    nBufLen = nOldLen - nFromBuffer;
    const char* lpszRest = lpszData + nNeed;
    int nRest = nLen - nNeed;
    DeliverRecv(pSt_Client, tszMessage, nPktLen);

    while (nBufLen + nRest > NETCORE_TCPXCORE_BUFFER_SIZE) {
        int nTake = nPktLen - std::min(nBufLen, nPktLen);
        int nFromBuf = nPktLen - nTake;
        memcpy(tszMessage, ptszBuffer, nFromBuf);
        memcpy(tszMessage + nFromBuf, lpszRest, nTake);
        tszMessage[nPktLen] = '\0';
        memmove(ptszBuffer, ptszBuffer + nFromBuf, nBufLen - nFromBuf);
        nBufLen -= nFromBuf;
        lpszRest += nTake;
        nRest -= nTake;
        DeliverRecv(pSt_Client, tszMessage, nPktLen);
    }
    memcpy(ptszBuffer + nBufLen, lpszRest, nRest);
    int nNewLen = nBufLen + nRest;
    if (nNewLen < nOldLen) memset(ptszBuffer + nNewLen, 0, nOldLen - nNewLen);
    nBufLen = nNewLen;
}

// lReserved: the events the event thread was given, or 0 when unknown. A read that fills less
// than the buffer has emptied the socket, so with EPOLLIN reported and no end of stream or error
// among the events, the read that would only meet EAGAIN is left out; new data re-arms the edge.
bool CNetCore_TCPXCore::NetCore_TCPXCore_RecvClient(NETCORE_TCPEPOLL_CLIENT* pSt_Client, unsigned long lReserved) {
    const bool bShortReadDrains = (lReserved & EPOLLIN) != 0 && (lReserved & (EPOLLRDHUP | EPOLLHUP | EPOLLERR)) == 0;
    std::lock_guard<std::mutex> st_Lock(pSt_Client->st_LockRecv);
    if (pSt_Client->bClosed.load()) return true;
    if (pSt_Client->bStatus.load()) {
        DeliverRecv(pSt_Client, nullptr, -1);
        return false;
    }
    // The socket is read in one call of up to kReadSlices full reads, and what came is handed on
    // in reads' worth of NETCORE_TCPXCORE_BUFFER_SIZE bytes: the same pieces, counts and flow as
    // separate reads of that size would give, with fewer system calls. The byte after a piece is
    // zero while it is handed over, so the data always ends in a zero.
    char tszBuffer[kReadSlices * NETCORE_TCPXCORE_BUFFER_SIZE + 1];
    // edge-triggered: read until the socket is drained (or a short read shows it is)
    for (int nReads = 0;;) {
        if (nReads >= kMaxReadsPerEvent) {
            // Re-armed whatever the pause state: a paused client is out of the epoll set, where
            // the modification fails harmlessly, and its resume adds it back with the data
            // still reported. Skipping it would leave the rest unread until more data arrives.
            EpollCtl(pSt_Client->hEpoll, EPOLL_CTL_MOD, pSt_Client->hSocket,
                     pSt_Client->bCBSend.load() ? kEventsRecvSend : kEventsRecv);
            return true;
        }
        const size_t nWant = sizeof(tszBuffer) - 1;
        ssize_t nRet = recv(pSt_Client->hSocket, tszBuffer, nWant, 0);
        if (nRet > 0) {
            for (ssize_t nAt = 0; nAt < nRet; nReads++) {
                const int nPiece = static_cast<int>(std::min<ssize_t>(nRet - nAt, NETCORE_TCPXCORE_BUFFER_SIZE));
                char* ptszEnd = tszBuffer + nAt + nPiece;
                const char cNext = *ptszEnd;
                *ptszEnd = '\0';
                FrameMessage(pSt_Client, tszBuffer + nAt, nPiece);
                *ptszEnd = cNext;
                CountRecv(pSt_Client, nPiece);
                // closed by a callback: nothing more to read, and no leave callback
                if (pSt_Client->bClosed.load()) return true;
                nAt += nPiece;
            }
            if (bShortReadDrains && static_cast<size_t>(nRet) < nWant) return true;
            continue;
        }
        if (nRet < 0 && errno == EAGAIN) return true;
        if (pSt_Client->bClosed.load()) return true;
        CALLBACK_NETCORE_TCPXCORE_LEAVE fpLeave = fpCallePoll_Leave.load(std::memory_order_relaxed);
        if (fpLeave != nullptr) fpLeave(pSt_Client->tszClientAddr, pSt_Client->hSocket, lpLeaveParam.load());
        return false;
    }
}

bool CNetCore_TCPXCore::NetCore_TCPXCore_PostClient(NETCORE_TCPEPOLL_CLIENT* pSt_Client) {
    CALLBACK_NETCORE_TCPXCORE_SEND fpCallSend;
    void* lParam;
    {
        std::lock_guard<NetCore_TCPXCore_SpinLock> st_Lock(pSt_Client->st_LockLimit);
        fpCallSend = pSt_Client->fpCallSend;
        lParam = pSt_Client->lpSendParam;
    }
    if (fpCallSend != nullptr) fpCallSend(pSt_Client->tszClientAddr, pSt_Client->hSocket, lParam);
    return true;
}

// ----- sending -----------------------------------------------------------------------------------

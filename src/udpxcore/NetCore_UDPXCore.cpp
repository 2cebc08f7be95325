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
#include "Ombrelt_ManagePool.h"
#include "base/Error.h"

using netcore::ClearError;
using netcore::Fail;

namespace {

constexpr int kMaxEvents = 1024;
constexpr int kEpollSize = 1024;
// Longer datagrams are cut to this length, as callers have always received them.
constexpr int kRecvBufferSize = 2048;
constexpr int kAddrTextSize = 128;
constexpr int kRecvBatch = 16;
constexpr int kSendAddrSize = 64;
constexpr int kSendTimeOut = 3;

// The run flag of the start whose receive thread is the current thread. The drain loop reads it
// after each callback: a callback may have destroyed the server, and then nothing of the server
// may be touched again.
thread_local const std::atomic<bool>* t_pbIsRun = nullptr;
// The drain turn of that server, or null off its receive threads.
thread_local tag_NetCore_UDPEpoll_Turn* t_pRecvTurn = nullptr;

unsigned long long TickNow() {
    return BaseLib_OperatorTime_GetTickCount64();
}

// Writes nValue in decimal at ptszText; returns the end.
char* PutDecimal(char* ptszText, unsigned int nValue) {
    char tszDigits[10];
    int nDigits = 0;
    do {
        tszDigits[nDigits++] = static_cast<char>('0' + nValue % 10);
        nValue /= 10;
    } while (nValue != 0);
    while (nDigits > 0)
        *ptszText++ = tszDigits[--nDigits];
    return ptszText;
}

// "%s:%d" of a sender, as inet_ntop and snprintf would write it; every version number but 2 takes
// the IPv6 path. IPv4 is written by hand: the receive path formats every datagram's sender.
void FormatAddr(const struct sockaddr_in6& st_Addr, bool bIPv4, char* ptszClientAddr) {
    char* ptszEnd = ptszClientAddr;
    int nPort;
    if (bIPv4) {
        const struct sockaddr_in* pSt_Addr4 = reinterpret_cast<const struct sockaddr_in*>(&st_Addr);
        const unsigned char* pbyAddr = reinterpret_cast<const unsigned char*>(&pSt_Addr4->sin_addr);
        for (int i = 0; i < 4; i++) {
            if (i > 0) *ptszEnd++ = '.';
            ptszEnd = PutDecimal(ptszEnd, pbyAddr[i]);
        }
        nPort = ntohs(pSt_Addr4->sin_port);
    } else {
        inet_ntop(AF_INET6, &st_Addr.sin6_addr, ptszClientAddr, kAddrTextSize - 6);
        ptszEnd += strlen(ptszClientAddr);
        nPort = ntohs(st_Addr.sin6_port);
    }
    *ptszEnd++ = ':';
    *PutDecimal(ptszEnd, static_cast<unsigned int>(nPort)) = '\0';
}

void CloseFd(int& hFd) {
    if (hFd >= 0) close(hFd);
    hFd = -1;
}

}  // namespace

CNetCore_UDPXCore::CNetCore_UDPXCore() = default;

CNetCore_UDPXCore::~CNetCore_UDPXCore() {
    ReleaseRun();
}

bool CNetCore_UDPXCore::NetCore_UDPXCore_Start(int nPort, int nThread, int nTimeFlow, int nIPVer) {
    ClearError();
    // A running server keeps its threads and socket: starting it again would orphan them.
    if (xhPool != nullptr) return true;

    bIsRun = std::make_shared<std::atomic<bool>>(true);
    int nCount = nThread > 0 ? nThread : static_cast<int>(std::thread::hardware_concurrency());
    // hardware_concurrency may answer 0 when it cannot tell; one thread still serves the socket
    if (nCount < 1) nCount = 1;
    nThreadCount = nCount;
    if (!BaseLib_OperatorMemory_Malloc(reinterpret_cast<void***>(&ppSt_ListPool), nThreadCount,
                                       sizeof(THREADPOOL_PARAMENT))) {
        ReleaseRun();
        return Fail(ERROR_NETCORE_UDPXCORE_CREATE_MALLOC);
    }
    this->nIPVer = nIPVer;
    this->nTimeFlow.store(nTimeFlow, std::memory_order_relaxed);
    nTimeStart.store(TickNow(), std::memory_order_relaxed);

    std::list<THREADPOOL_PARAMENT> stl_ListParam;
    // What Create made before failing stays (the bound socket included) until Destroy.
    if (!NetCore_UDPXCore_Create(nPort, nThreadCount, &stl_ListParam)) return false;
    int i = 0;
    for (const THREADPOOL_PARAMENT& st_Task : stl_ListParam) {
        *ppSt_ListPool[i++] = st_Task;
    }
    xhPool = ManagePool_Thread_NQCreate(&ppSt_ListPool, nThreadCount);
    if (xhPool == nullptr) {
        unsigned long long nPoolError = ManagePool_GetLastError(nullptr);
        ReleaseRun();
        return Fail(nPoolError);
    }
    return true;
}

bool CNetCore_UDPXCore::NetCore_UDPXCore_Create(int nPort, int nThread,
                                                std::list<THREADPOOL_PARAMENT>* pStl_ListParam) {
    int hNewSocket = -1;
    if (!st_Socket.NetCore_Socket_Create(&hNewSocket, false, nIPVer)) return false;
    if (!st_Socket.NetCore_Socket_SetReAddr(hNewSocket) || !st_Socket.NetCore_Socket_SetNoneBlock(hNewSocket, true) ||
        !st_Socket.NetCore_Socket_Bind(hNewSocket, nPort, false, nIPVer)) {
        // a socket that never got its port is of no use to anyone; a raw close keeps the code
        close(hNewSocket);
        return false;
    }
    hSocket.store(hNewSocket, std::memory_order_relaxed);

    for (int i = 0; i < nThread; i++) {
        NETCORE_UDPEPOLL_EVENTS* pSt_Events = new (std::nothrow) NETCORE_UDPEPOLL_EVENTS();
        if (pSt_Events == nullptr) return Fail(ERROR_NETCORE_UDPXCORE_CREATE_MALLOC);
        // listed at once, so that a failure below still finds it when the start is undone
        stl_ListEvents.emplace_back(pSt_Events);
        pSt_Events->hPipe[0] = pSt_Events->hPipe[1] = -1;
        pSt_Events->pbIsRun = bIsRun;
        pSt_Events->pRecvTurn = pRecvTurn;

        pSt_Events->hEpoll = epoll_create(kEpollSize);
        if (pSt_Events->hEpoll == -1) return Fail(ERROR_NETCORE_UDPXCORE_CREATE_EPOLL);
        pSt_Events->pClass_UDPXCore = this;

        // The socket waits in the first thread's instance only. The socket is drained by one
        // thread at a time (see NetCore_UDPXCore_Recv), so a socket in every instance only woke an
        // idle thread for each datagram that arrived during a drain, to find the turn taken and
        // sleep again: two context switches per datagram under load, and nothing read sooner.
        // The other threads wait on their wake-up pipes.
        if (i == 0) {
            pSt_Events->st_Event.events = EPOLLIN | EPOLLET;
            pSt_Events->st_Event.data.fd = hNewSocket;
            if (epoll_ctl(pSt_Events->hEpoll, EPOLL_CTL_ADD, hNewSocket, &pSt_Events->st_Event) == -1) {
                return Fail(ERROR_NETCORE_UDPXCORE_CREATE_CTLSOCKET);
            }
        }
        if (pipe(pSt_Events->hPipe) == -1) {
            pSt_Events->hPipe[0] = pSt_Events->hPipe[1] = -1;
            return Fail(ERROR_NETCORE_UDPXCORE_CREATE_PIPE);
        }
        pSt_Events->st_Event.events = EPOLLIN;
        pSt_Events->st_Event.data.fd = pSt_Events->hPipe[0];
        if (epoll_ctl(pSt_Events->hEpoll, EPOLL_CTL_ADD, pSt_Events->hPipe[0], &pSt_Events->st_Event) == -1) {
            return Fail(ERROR_NETCORE_UDPXCORE_CREATE_CTLPIPE);
        }
        THREADPOOL_PARAMENT st_Task{};
        st_Task.lParam = pSt_Events;
        st_Task.fpCall_ThreadsTask = &CNetCore_UDPXCore::NetCore_UDPXCore_ThreadAccept;
        pStl_ListParam->push_back(st_Task);
    }
    return true;
}

void* CNetCore_UDPXCore::NetCore_UDPXCore_ThreadAccept(void* lParam) {
    NETCORE_UDPEPOLL_EVENTS* pSt_Events = static_cast<NETCORE_UDPEPOLL_EVENTS*>(lParam);
    // Our own reference: the flag outlives the server if a callback destroys it. Once the flag
    // is clear, neither the record nor the server is touched again.
    std::shared_ptr<std::atomic<bool>> pbIsRun = pSt_Events->pbIsRun;
    std::shared_ptr<tag_NetCore_UDPEpoll_Turn> pRecvTurn = pSt_Events->pRecvTurn;
    CNetCore_UDPXCore* pClass_UDPXCore = pSt_Events->pClass_UDPXCore;
    const int hEpoll = pSt_Events->hEpoll;
    t_pbIsRun = pbIsRun.get();
    t_pRecvTurn = pRecvTurn.get();

    while (pbIsRun->load(std::memory_order_acquire)) {
        int nCount = epoll_wait(hEpoll, pSt_Events->st_Events, kMaxEvents, -1);
        for (int i = 0; i < nCount && pbIsRun->load(std::memory_order_acquire); i++) {
            const struct epoll_event& st_Event = pSt_Events->st_Events[i];
            if (st_Event.data.fd == pClass_UDPXCore->hSocket.load(std::memory_order_relaxed) ||
                (st_Event.events & EPOLLIN)) {
                // the wake-up pipe lands here too: the drain ends at once with ENOTSOCK
                pClass_UDPXCore->NetCore_UDPXCore_Recv(st_Event.data.fd, nullptr, 0);
            } else {
                printf("errno udp xcore %d\n", errno);
            }
        }
    }
    t_pbIsRun = nullptr;
    t_pRecvTurn = nullptr;
    return nullptr;
}

void CNetCore_UDPXCore::Deliver(const char* lpszClientAddr, const char* lpszMsgBuffer, int nMsgLen) {
    // Whether there is a callback is settled before the datagram is counted (the acquire keeps
    // the counting after it): a caller who sees the count and then registers does not get it.
    CALLBACK_NETCORE_UDPXCORE_RECV fpCall = fpCall_Recv.load(std::memory_order_acquire);
    st_Flow.Add(kRecvPackets, 1);
    st_Flow.Add(kRecvBytes, static_cast<unsigned long long>(nMsgLen));
    unsigned long long nNow = TickNow();
    // written only when the millisecond changed: the threads share the line it sits on
    if (nTimeRecv.load(std::memory_order_relaxed) != nNow) nTimeRecv.store(nNow, std::memory_order_relaxed);
    CloseInterval(nTimeRecvFlow, nNow, nFlowRecvBytes, kRecvBytes, nFlowRecvPackets, kRecvPackets);

    // Without a callback the datagram is counted and dropped: there is no one to hand it to.
    if (fpCall != nullptr) {
        fpCall(lpszClientAddr, hSocket.load(std::memory_order_relaxed), lpszMsgBuffer, nMsgLen,
               lParam.load(std::memory_order_relaxed));
    }
}

void CNetCore_UDPXCore::HoldBack(const char* lpszClientAddr, const char* lpszMsgBuffer, int nMsgLen) {
    std::lock_guard<std::mutex> st_Lock(st_LockHeld);
    try {
        stl_ListHeld.emplace_back(lpszClientAddr, std::string(lpszMsgBuffer, static_cast<size_t>(nMsgLen)));
    } catch (const std::bad_alloc&) {
        return;  // without memory the datagram is lost, as a full socket buffer would lose it
    }
    bHeld.store(true, std::memory_order_release);
}

bool CNetCore_UDPXCore::DeliverHeld(const std::atomic<bool>* pbRun) {
    for (;;) {
        std::pair<std::string, std::string> st_Held;
        {
            std::lock_guard<std::mutex> st_Lock(st_LockHeld);
            if (stl_ListHeld.empty()) {
                bHeld.store(false, std::memory_order_release);
                return true;
            }
            st_Held = std::move(stl_ListHeld.front());
            stl_ListHeld.pop_front();
        }
        if (st_Held.second.empty()) return false;
        Deliver(st_Held.first.c_str(), st_Held.second.data(), static_cast<int>(st_Held.second.size()));
        if (pbRun != nullptr && !pbRun->load(std::memory_order_acquire)) return false;
    }
}

bool CNetCore_UDPXCore::NetCore_UDPXCore_Recv(int hRecvSocket, NETCORE_UDPEPOLL_BUFFER* pSt_Buffer,
                                              unsigned long nBufferLen) {
    (void)pSt_Buffer;
    (void)nBufferLen;
    const std::atomic<bool>* pbRun = t_pbIsRun;
    tag_NetCore_UDPEpoll_Turn* pSt_Turn = t_pRecvTurn;
    // Several threads may be woken for the socket, but only one drains it at a time, so the
    // callback sees datagrams in the order the socket queued them: a batch taken by one thread
    // never overtakes an earlier batch another is still handing out, and a peer's packets keep
    // their order (the reliable transport's ordered queue relies on it). A thread that finds the
    // turn taken leaves a note and goes back to waiting; the drainer looks at the note after it
    // lets go and drains again, so nothing that woke the other thread is left unread. Nobody
    // blocks, so a callback that destroys the server never waits on the threads it joins.
    if (pSt_Turn == nullptr || hRecvSocket != hSocket.load(std::memory_order_relaxed)) {
        return DrainSocket(hRecvSocket);
    }
    for (;;) {
        pSt_Turn->bPending.store(true);
        std::unique_lock<std::mutex> st_Turn(pSt_Turn->st_Lock, std::try_to_lock);
        if (!st_Turn.owns_lock()) return true;
        pSt_Turn->bPending.store(false);
        bool bRet = DrainSocket(hRecvSocket);
        // stopped, perhaps by a callback: nothing of the server may be touched again
        if (pbRun != nullptr && !pbRun->load(std::memory_order_acquire)) return bRet;
        st_Turn.unlock();
        if (!bRet || !pSt_Turn->bPending.load()) return bRet;
    }
}

bool CNetCore_UDPXCore::DrainSocket(int hRecvSocket) {
    const std::atomic<bool>* pbRun = t_pbIsRun;
    char tszClientAddr[kAddrTextSize] = "";
    const bool bIPv4 = (nIPVer == AF_INET);
    const socklen_t nAddrLen = bIPv4 ? sizeof(struct sockaddr_in) : sizeof(struct sockaddr_in6);

    // Datagrams are fetched a batch per call to save system calls under load, and handed to the
    // callback one by one, in arrival order, exactly as single reads would hand them.
    char tszMsgBuffer[kRecvBatch][kRecvBufferSize];
    struct sockaddr_in6 st_Addrs[kRecvBatch];
    struct iovec st_Iovs[kRecvBatch];
    struct mmsghdr st_Msgs[kRecvBatch];

    if (bHeld.load(std::memory_order_acquire) && hRecvSocket == hSocket.load(std::memory_order_relaxed) &&
        !DeliverHeld(pbRun)) {
        return true;
    }

    // The socket is edge-triggered: drain it until it would block, or a later datagram could
    // wait for the next arrival to be noticed.
    for (;;) {
        for (int i = 0; i < kRecvBatch; i++) {
            st_Iovs[i].iov_base = tszMsgBuffer[i];
            st_Iovs[i].iov_len = kRecvBufferSize;
            st_Msgs[i].msg_hdr = {};
            st_Msgs[i].msg_hdr.msg_name = &st_Addrs[i];
            st_Msgs[i].msg_hdr.msg_namelen = nAddrLen;
            st_Msgs[i].msg_hdr.msg_iov = &st_Iovs[i];
            st_Msgs[i].msg_hdr.msg_iovlen = 1;
            st_Msgs[i].msg_len = 0;
        }
        int nCount = recvmmsg(hRecvSocket, st_Msgs, kRecvBatch, 0, nullptr);
        if (nCount < 0 && errno == EINTR) continue;
        if (nCount < 1) break;

        for (int i = 0; i < nCount; i++) {
            FormatAddr(st_Addrs[i], bIPv4, tszClientAddr);
            const int nLen = static_cast<int>(st_Msgs[i].msg_len);
            if (nLen == 0) {
                // An empty datagram ends the drain. Those read in the same batch behind it are
                // still the head of the queue and wait, like the socket's, for the next arrival.
                // errno is not the socket's here, so no receive error is reported.
                for (int j = i + 1; j < nCount; j++) {
                    FormatAddr(st_Addrs[j], bIPv4, tszClientAddr);
                    HoldBack(tszClientAddr, tszMsgBuffer[j], static_cast<int>(st_Msgs[j].msg_len));
                }
                return true;
            }
            Deliver(tszClientAddr, tszMsgBuffer[i], nLen);
            if (pbRun != nullptr && !pbRun->load(std::memory_order_acquire)) return true;
        }
        // Fewer datagrams than asked for: the call itself read until the non-blocking socket
        // would block, so the socket is drained and one more call would only fetch the EAGAIN.
        // A datagram arriving after that raises a new edge.
        if (nCount < kRecvBatch) return true;
    }
    // EAGAIN: drained. ENOTSOCK: the descriptor that woke us was the wake-up pipe.
    if (errno == EAGAIN || errno == EWOULDBLOCK || errno == ENOTSOCK) return true;
    CALLBACK_NETCORE_UDPXCORE_RECV fpCall = fpCall_Recv.load(std::memory_order_acquire);
    if (fpCall != nullptr) {
        fpCall(tszClientAddr, hSocket.load(std::memory_order_relaxed), nullptr, -1,
               lParam.load(std::memory_order_relaxed));
    }
    return false;
}

void CNetCore_UDPXCore::CloseInterval(std::atomic<unsigned long long>& nTimeFlowStart, unsigned long long nTimeNow,
                                      std::atomic<unsigned long long>& nFlowBytes, int nBytes,
                                      std::atomic<unsigned long long>& nFlowPackets, int nPackets) {
    // the interval length is compared as unsigned, as the tick difference is
    unsigned long long nLimit = static_cast<unsigned long long>(nTimeFlow.load(std::memory_order_relaxed)) * 1000ULL;
    if (nTimeNow - nTimeFlowStart.load(std::memory_order_relaxed) > nLimit) {
        nTimeFlowStart.store(nTimeNow, std::memory_order_relaxed);
        nFlowPackets.store(st_Flow.Get(nPackets), std::memory_order_relaxed);
        nFlowBytes.store(st_Flow.Get(nBytes), std::memory_order_relaxed);
    }
}

bool CNetCore_UDPXCore::NetCore_UDPXCore_RegisterCallBack(CALLBACK_NETCORE_UDPXCORE_RECV fpCall, void* lpParam) {
    ClearError();
    if (fpCall == nullptr) return Fail(ERROR_NETCORE_UDPXCORE_CBSET_PARAMENT);
    lParam.store(lpParam, std::memory_order_relaxed);
    fpCall_Recv.store(fpCall, std::memory_order_release);
    return true;
}

bool CNetCore_UDPXCore::NetCore_UDPXCore_SendMsg(const char* lpszClientAddr, const char* lpszMsgBuffer, int nMsgLen) {
    ClearError();
    if (lpszClientAddr == nullptr || lpszMsgBuffer == nullptr) return Fail(ERROR_NETCORE_UDPXCORE_SENDMSG_PARAMENT);

    // A longer text is cut to the buffer; the split then finds whatever port is left.
    char tszAddr[kSendAddrSize];
    snprintf(tszAddr, sizeof(tszAddr), "%s", lpszClientAddr);
    int nPort = 0;  // a text without a colon sends to port 0, which the platform refuses
    BaseLib_OperatorIPAddr_SegAddr(tszAddr, &nPort);
    if (!st_Socket.NetCore_Socket_Send(hSocket.load(std::memory_order_relaxed), lpszMsgBuffer, nMsgLen, tszAddr, nPort,
                                       kSendTimeOut, nIPVer)) {
        return false;
    }
    st_Flow.Add(kSendPackets, 1);
    st_Flow.Add(kSendBytes, static_cast<unsigned long long>(nMsgLen));
    unsigned long long nNow = TickNow();
    if (nTimeSend.load(std::memory_order_relaxed) != nNow) nTimeSend.store(nNow, std::memory_order_relaxed);
    CloseInterval(nTimeSendFlow, nNow, nFlowSendBytes, kSendBytes, nFlowSendPackets, kSendPackets);
    return true;
}

bool CNetCore_UDPXCore::NetCore_UDPXCore_GetSocket(int* phSocket) {
    ClearError();
    // nothing to fail: a null pointer is simply not written
    if (phSocket != nullptr) *phSocket = hSocket.load(std::memory_order_relaxed);
    return true;
}

bool CNetCore_UDPXCore::NetCore_UDPXCore_GetFlow(unsigned long long* pInt_SendBytes, unsigned long long* pInt_RecvBytes,
                                                 unsigned long long* pInt_SendPackets,
                                                 unsigned long long* pInt_RecvPackets) {
    ClearError();
    if (pInt_SendBytes == nullptr || pInt_RecvBytes == nullptr) return Fail(ERROR_NETCORE_UDPXCORE_GETFLOW_PARAMENT);
    *pInt_SendBytes = st_Flow.Get(kSendBytes);
    *pInt_RecvBytes = st_Flow.Get(kRecvBytes);
    if (pInt_SendPackets != nullptr) *pInt_SendPackets = st_Flow.Get(kSendPackets);
    if (pInt_RecvPackets != nullptr) *pInt_RecvPackets = st_Flow.Get(kRecvPackets);
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
    const unsigned long long nSB = st_Flow.Get(kSendBytes);
    const unsigned long long nRB = st_Flow.Get(kRecvBytes);
    const unsigned long long nSP = st_Flow.Get(kSendPackets);
    const unsigned long long nRP = st_Flow.Get(kRecvPackets);
    if (bWhole) {
        // milliseconds times 1000, as callers have always divided by it
        unsigned long long nElapse = (TickNow() - nTimeStart.load(std::memory_order_relaxed)) * 1000ULL;
        *pInt_SendBytes = nElapse == 0 ? 0 : nSB / nElapse;
        *pInt_RecvBytes = nElapse == 0 ? 0 : nRB / nElapse;
        *pInt_SendPackets = nElapse == 0 ? 0 : nSP / nElapse;
        *pInt_RecvPackets = nElapse == 0 ? 0 : nRP / nElapse;
        return true;
    }
    // Each output is the total minus the snapshot's share of one interval; the third starts from
    // the receive packet total. Callers rely on these figures as they stand.
    const unsigned long long nPeriod = static_cast<unsigned long long>(nTimeFlow.load(std::memory_order_relaxed));
    auto Share = [nPeriod](const std::atomic<unsigned long long>& nSnapshot) {
        return nPeriod == 0 ? 0ULL : nSnapshot.load(std::memory_order_relaxed) / nPeriod;
    };
    *pInt_SendBytes = nSB - Share(nFlowSendBytes);
    *pInt_RecvBytes = nRB - Share(nFlowRecvBytes);
    *pInt_SendPackets = nRP - Share(nFlowSendPackets);
    *pInt_RecvPackets = nRP - Share(nFlowRecvPackets);
    return true;
}

bool CNetCore_UDPXCore::NetCore_UDPXCore_GetTime(unsigned long long* pInt_TimeRecv, unsigned long long* pInt_TimeSend) {
    ClearError();
    if (pInt_TimeRecv == nullptr || pInt_TimeSend == nullptr) return Fail(ERROR_NETCORE_UDPXCORE_GETTIME_PARAMENT);
    *pInt_TimeRecv = nTimeRecv.load(std::memory_order_relaxed);
    *pInt_TimeSend = nTimeSend.load(std::memory_order_relaxed);
    return true;
}

bool CNetCore_UDPXCore::NetCore_UDPXCore_Destroy(bool bClearFlow) {
    ClearError();
    ReleaseRun();
    if (bClearFlow) {
        for (std::atomic<unsigned long long>* pInt_Value :
             {&nTimeSendFlow, &nTimeRecvFlow, &nFlowSendBytes, &nFlowRecvBytes, &nFlowSendPackets, &nFlowRecvPackets,
              &nTimeStart, &nTimeRecv, &nTimeSend}) {
            pInt_Value->store(0, std::memory_order_relaxed);
        }
        for (int i = 0; i < kFlowCount; i++)
            st_Flow.Reset(i);
        nTimeFlow.store(0, std::memory_order_relaxed);
    }
    return true;
}

// Stops the receive threads and releases everything a start made. The socket is closed only after
// every thread has ended: a thread still draining it must never read a descriptor number that
// has meanwhile been given to someone else. Run from one of this server's own callbacks, the pool
// leaves the calling thread to finish by itself, and that thread stops at the cleared flag.
void CNetCore_UDPXCore::ReleaseRun() {
    if (bIsRun) bIsRun->store(false, std::memory_order_release);
    for (const auto& pSt_Events : stl_ListEvents) {
        if (pSt_Events->hPipe[1] >= 0) {
            ssize_t nRet = write(pSt_Events->hPipe[1], "exit", 4);
            (void)nRet;  // a full pipe already wakes the thread
        }
    }
    if (xhPool != nullptr) {
        ManagePool_Thread_NQDestroy(xhPool);
        xhPool = nullptr;
    }
    int hOld = hSocket.exchange(-1, std::memory_order_relaxed);
    if (hOld >= 0) {
        shutdown(hOld, SHUT_RDWR);
        close(hOld);
    }
    for (const auto& pSt_Events : stl_ListEvents) {
        CloseFd(pSt_Events->hPipe[0]);
        CloseFd(pSt_Events->hPipe[1]);
        CloseFd(pSt_Events->hEpoll);
    }
    stl_ListEvents.clear();
    {
        std::lock_guard<std::mutex> st_Lock(st_LockHeld);
        stl_ListHeld.clear();
        bHeld.store(false, std::memory_order_relaxed);
    }
    if (ppSt_ListPool != nullptr) {
        BaseLib_OperatorMemory_Free(reinterpret_cast<void***>(&ppSt_ListPool), nThreadCount);
    }
}

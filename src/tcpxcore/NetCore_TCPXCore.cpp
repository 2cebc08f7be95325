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
#include "frame/ClientList.h"
#include "frame/Error.h"

using netcore::ClearError;
using netcore::Fail;

namespace {

constexpr uint32_t kEventsRecv = EPOLLIN | EPOLLET;
constexpr uint32_t kEventsRecvSend = EPOLLIN | EPOLLOUT | EPOLLET;
// A client that keeps its socket full would otherwise hold its event thread forever: after this
// many reads in one event the registration is re-armed, which queues a fresh event behind the
// other clients' ones while data is still waiting, so the drain to EAGAIN goes on from there.
constexpr int kMaxReadsPerEvent = 64;

// The server whose event loop runs on this thread, if any.
thread_local const CNetCore_TCPXCore* t_pEventServer = nullptr;
// The client whose receive callback runs on this thread, if any. The event thread holds a
// reference to it for the whole call, so a send answering it from the callback can skip the
// lookup by address text.
thread_local NETCORE_TCPEPOLL_CLIENT* t_pSt_Delivering = nullptr;

unsigned long long TickNow() {
    return BaseLib_OperatorTime_GetTickCount64();
}

void CloseRaw(int hFd) {
    if (hFd < 0) return;
    shutdown(hFd, SHUT_RDWR);
    close(hFd);
}

bool EpollCtl(int hEpoll, int nOp, int hSocket, uint32_t nEvents) {
    struct epoll_event st_Event {};
    st_Event.events = nEvents;
    st_Event.data.fd = hSocket;
    return epoll_ctl(hEpoll, nOp, hSocket, &st_Event) == 0;
}

// Starts a new averaging period when the current one has run longer than the flow period.
void RenewPeriod(std::atomic<unsigned long long>& nPeriodStart, unsigned long long nNow, int nFlowPeriod,
                 std::atomic<unsigned long long>& nSnapBytes, const std::atomic<unsigned long long>& nBytes,
                 std::atomic<unsigned long long>& nSnapPackets, const std::atomic<unsigned long long>& nPackets) {
    unsigned long long nStart = nPeriodStart.load(std::memory_order_relaxed);
    if (nNow - nStart > static_cast<unsigned long long>(nFlowPeriod) * 1000ULL) {
        nPeriodStart.store(nNow, std::memory_order_relaxed);
        nSnapBytes.store(nBytes.load(std::memory_order_relaxed), std::memory_order_relaxed);
        nSnapPackets.store(nPackets.load(std::memory_order_relaxed), std::memory_order_relaxed);
    }
}

// Per-client counters have one writer at a time (the receive path under the receive lock, senders
// under the send lock), so a plain load and store adds without a locked instruction.
void Add(std::atomic<unsigned long long>& nCounter, unsigned long long nValue) {
    nCounter.store(nCounter.load(std::memory_order_relaxed) + nValue, std::memory_order_relaxed);
}

unsigned long long Get(const std::atomic<unsigned long long>& nCounter) {
    return nCounter.load(std::memory_order_relaxed);
}

}  // namespace

tag_NetCore_TCPEpoll_Client::~tag_NetCore_TCPEpoll_Client() {
    if (hSocket >= 0) close(hSocket);
}

CNetCore_TCPXCore::CNetCore_TCPXCore() = default;

CNetCore_TCPXCore::~CNetCore_TCPXCore() {
    // A server freed while running would leave its threads on freed memory: stop it first.
    NetCore_TCPXCore_Destroy(false);
}

bool CNetCore_TCPXCore::NetCore_TCPXCore_IsEventThread() const {
    return t_pEventServer == this;
}

// ----- start and stop ----------------------------------------------------------------------------

bool CNetCore_TCPXCore::NetCore_TCPXCore_RegisterCallBack(CALLBACK_NETCORE_TCPXCORE_LOGIN fpLogin,
                                                          CALLBACK_NETCORE_TCPXCORE_RECV fpRecv,
                                                          CALLBACK_NETCORE_TCPXCORE_LEAVE fpLeave, void* lPLogin,
                                                          void* lPRecv, void* lPLeave) {
    ClearError();
    if (fpLogin == nullptr || fpRecv == nullptr || fpLeave == nullptr) return Fail(ERROR_NETCORE_TCPXCORE_PARAMENT);
    // a null context keeps the one registered before
    if (lPLogin != nullptr) lpLoginParam.store(lPLogin);
    if (lPRecv != nullptr) lpRecvParam.store(lPRecv);
    if (lPLeave != nullptr) lpLeaveParam.store(lPLeave);
    fpCallePoll_Login.store(fpLogin);
    fpCallePoll_Recv.store(fpRecv);
    fpCallePoll_Leave.store(fpLeave);
    return true;
}

bool CNetCore_TCPXCore::NetCore_TCPXCore_Start(int nPort, int nMaxClient, int nThreads, bool bKeepAlive,
                                               bool bReuseAddr, int nFlowPeriod, int nIPVer) {
    ClearError();
    // A failed start leaves the server marked running; only Destroy resets it.
    if (bStarted.load()) return true;

    struct sigaction st_Action {};
    st_Action.sa_handler = SIG_IGN;
    if (sigemptyset(&st_Action.sa_mask) == -1) return Fail(ERROR_NETCORE_TCPXCORE_START_SIGSET);
    st_Action.sa_flags = 0;
    if (sigaction(SIGPIPE, &st_Action, nullptr) == -1) return Fail(ERROR_NETCORE_TCPXCORE_START_SIGNAL);

    this->bKeepAlive = bKeepAlive;
    this->bReuseAddr = bReuseAddr;
    this->nMaxClient.store(nMaxClient, std::memory_order_relaxed);
    this->nIPVer.store(nIPVer, std::memory_order_relaxed);
    this->nFlowPeriod.store(nFlowPeriod, std::memory_order_relaxed);
    bStarted.store(true);
    nTimeStart = TickNow();

    nThreadCount = nThreads > 0 ? nThreads : static_cast<int>(std::max(1u, std::thread::hardware_concurrency()));
    if (!BaseLib_OperatorMemory_Malloc(reinterpret_cast<void***>(&pSt_ThreadParam), nThreadCount,
                                       sizeof(THREADPOOL_PARAMENT))) {
        return Fail(ERROR_NETCORE_TCPXCORE_CREATE_MALLOC);
    }

    std::list<THREADPOOL_PARAMENT*> stl_ListParam;
    bool bCreated = NetCore_TCPXCore_Create(nPort, nThreadCount, &stl_ListParam, nIPVer);
    int i = 0;
    for (THREADPOOL_PARAMENT* pSt_Param : stl_ListParam) {
        *pSt_ThreadParam[i++] = *pSt_Param;
        delete pSt_Param;
    }
    if (!bCreated) return false;

    xhPool = ManagePool_Thread_NQCreate(&pSt_ThreadParam, nThreadCount);
    if (xhPool == nullptr) return Fail(ManagePool_GetLastError(nullptr));
    return true;
}

bool CNetCore_TCPXCore::NetCore_TCPXCore_Create(int nPort, int nThreads,
                                                std::list<THREADPOOL_PARAMENT*>* pStl_ListParam, int nIPVer) {
    // The probe only proves that the port can be taken, and is closed again at once. Failure
    // paths close with the raw calls so that the failing step's code stays.
    if (!m_Socket.NetCore_Socket_Create(&hListenProbe, true, nIPVer)) return false;
    if ((bReuseAddr && !m_Socket.NetCore_Socket_SetReAddr(hListenProbe)) ||
        !m_Socket.NetCore_Socket_Bind(hListenProbe, nPort, true, nIPVer)) {
        CloseRaw(hListenProbe);
        return false;
    }
    CloseRaw(hListenProbe);

    for (int i = 0; i < nThreads; i++) {
        auto* pSt_Events = new (std::nothrow) NETCORE_TCPEPOLL_EVENTS();
        if (pSt_Events == nullptr) return Fail(ERROR_NETCORE_TCPXCORE_CREATE_MALLOC);
        pSt_Events->hPipe[0] = pSt_Events->hPipe[1] = -1;
        pSt_Events->hEpoll = -1;
        // Releases this iteration's record on failure; earlier ones stay listed for Destroy.
        auto fnDrop = [pSt_Events](bool bFailCode, unsigned long long nCode) {
            for (int hFd : {pSt_Events->hPipe[0], pSt_Events->hPipe[1], pSt_Events->hEpoll}) {
                if (hFd >= 0) close(hFd);
            }
            CloseRaw(pSt_Events->hListenSocket);
            delete pSt_Events;
            return bFailCode ? Fail(nCode) : false;
        };

        pSt_Events->hListenSocket = -1;
        if (!m_Socket.NetCore_Socket_Create(&pSt_Events->hListenSocket, true, nIPVer)) return fnDrop(false, 0);
        // every event thread listens on the same port; the kernel spreads the connections
        if (!m_Socket.NetCore_Socket_SetReAddr(pSt_Events->hListenSocket) ||
            !m_Socket.NetCore_Socket_SetRePort(pSt_Events->hListenSocket) ||
            !m_Socket.NetCore_Socket_Bind(pSt_Events->hListenSocket, nPort, true, nIPVer)) {
            return fnDrop(false, 0);
        }
        // Non-blocking so that a connection that vanished between the readiness report and
        // accept() cannot park the event thread in accept().
        fcntl(pSt_Events->hListenSocket, F_SETFL, fcntl(pSt_Events->hListenSocket, F_GETFL, 0) | O_NONBLOCK);
        if (bKeepAlive) m_Socket.NetCore_Socket_KeepAlive(pSt_Events->hListenSocket, true);  // result ignored

        pSt_Events->hEpoll = epoll_create(NETCORE_TCPXCORE_MAX_EVENTS);
        if (pSt_Events->hEpoll == -1) return fnDrop(true, ERROR_NETCORE_TCPXCORE_CREATE_EPOLL);
        pSt_Events->pClass = this;
        // listening socket and pipe are level-triggered; clients edge-triggered
        if (!EpollCtl(pSt_Events->hEpoll, EPOLL_CTL_ADD, pSt_Events->hListenSocket, EPOLLIN)) {
            return fnDrop(true, ERROR_NETCORE_TCPXCORE_CREATE_EPOLLCTL);
        }
        if (pipe(pSt_Events->hPipe) == -1) {
            pSt_Events->hPipe[0] = pSt_Events->hPipe[1] = -1;
            return fnDrop(true, ERROR_NETCORE_TCPXCORE_CREATE_PIPE);
        }
        if (!EpollCtl(pSt_Events->hEpoll, EPOLL_CTL_ADD, pSt_Events->hPipe[0], EPOLLIN)) {
            return fnDrop(true, ERROR_NETCORE_TCPXCORE_CREATE_EPOLLCTL);
        }

        auto* pSt_Param = new (std::nothrow) THREADPOOL_PARAMENT{pSt_Events, &CNetCore_TCPXCore::NetCore_Thread_Recv};
        if (pSt_Param == nullptr) return fnDrop(true, ERROR_NETCORE_TCPXCORE_CREATE_MALLOC);
        {
            std::unique_lock<std::shared_mutex> st_Lock(st_Locker);
            stl_ListEvents.push_back(pSt_Events);
        }
        pStl_ListParam->push_back(pSt_Param);
    }
    return true;
}

bool CNetCore_TCPXCore::NetCore_TCPXCore_Destroy(bool bClearFlow) {
    // Cannot fail, so it leaves the error state alone (the raw close calls below included).
    if (!bStarted.load()) return true;
    bStarted.store(false);

    std::list<NETCORE_TCPEPOLL_EVENTS*> stl_ListStop;
    {
        std::unique_lock<std::shared_mutex> st_Lock(st_Locker);
        stl_ListStop.swap(stl_ListEvents);
    }
    // wakes each thread, which finds no client for the pipe and then sees the stop
    for (NETCORE_TCPEPOLL_EVENTS* pSt_Events : stl_ListStop) {
        ssize_t nRet = write(pSt_Events->hPipe[1], "exit", 4);
        (void)nRet;
    }
    if (xhPool != nullptr) ManagePool_Thread_NQDestroy(xhPool);
    xhPool = nullptr;
    for (NETCORE_TCPEPOLL_EVENTS* pSt_Events : stl_ListStop) {
        CloseRaw(pSt_Events->hPipe[0]);
        CloseRaw(pSt_Events->hPipe[1]);
        CloseRaw(pSt_Events->hListenSocket);
        CloseRaw(pSt_Events->hEpoll);
        delete pSt_Events;
    }
    {
        std::unique_lock<std::shared_mutex> st_Lock(st_Locker);
        for (auto& st_Pair : stl_MapClients) {
            st_Pair.second->bClosed.store(true);
            shutdown(st_Pair.second->hSocket, SHUT_RDWR);
        }
        // the descriptors close with the records (later for one a sender still holds)
        stl_ListSockets.clear();
        stl_MapClients.clear();
    }
    if (pSt_ThreadParam != nullptr) {
        BaseLib_OperatorMemory_Free(reinterpret_cast<void***>(&pSt_ThreadParam), nThreadCount);
    }
    if (bClearFlow) {
        for (size_t i = 0; i < kFlowCount; i++)
            st_Flow.Reset(i);
    }
    return true;
}

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
                if (!pClass->NetCore_TCPXCore_RecvClient(pSt_Client.get(), 0)) {
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

CNetCore_TCPXCore::ClientPtr CNetCore_TCPXCore::FindClient(const char* lpszClientAddr) {
    std::shared_lock<std::shared_mutex> st_Lock(st_Locker);
    auto stl_Iterator = stl_MapClients.find(std::string_view(lpszClientAddr));
    if (stl_Iterator == stl_MapClients.end()) return nullptr;
    return stl_Iterator->second;
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

bool CNetCore_TCPXCore::NetCore_TCPXCore_RecvClient(NETCORE_TCPEPOLL_CLIENT* pSt_Client, unsigned long lReserved) {
    (void)lReserved;
    std::lock_guard<std::mutex> st_Lock(pSt_Client->st_LockRecv);
    if (pSt_Client->bClosed.load()) return true;
    if (pSt_Client->bStatus.load()) {
        DeliverRecv(pSt_Client, nullptr, -1);
        return false;
    }
    // One byte beyond a full read stays zero, so the data handed over always ends in a zero.
    char tszBuffer[NETCORE_TCPXCORE_BUFFER_SIZE + 1];
    // edge-triggered: read until the socket is drained
    for (int nReads = 0;; nReads++) {
        if (nReads == kMaxReadsPerEvent) {
            // Re-armed whatever the pause state: a paused client is out of the epoll set, where
            // the modification fails harmlessly, and its resume adds it back with the data
            // still reported. Skipping it would leave the rest unread until more data arrives.
            EpollCtl(pSt_Client->hEpoll, EPOLL_CTL_MOD, pSt_Client->hSocket,
                     pSt_Client->bCBSend.load() ? kEventsRecvSend : kEventsRecv);
            return true;
        }
        ssize_t nRet = recv(pSt_Client->hSocket, tszBuffer, NETCORE_TCPXCORE_BUFFER_SIZE, 0);
        if (nRet > 0) {
            tszBuffer[nRet] = '\0';
            FrameMessage(pSt_Client, tszBuffer, static_cast<int>(nRet));
            CountRecv(pSt_Client, static_cast<int>(nRet));
            // closed by a callback: nothing more to read, and no leave callback
            if (pSt_Client->bClosed.load()) return true;
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

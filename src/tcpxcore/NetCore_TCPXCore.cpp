// The TCP epoll server's life: callbacks, start (listening sockets and event threads) and destroy.
// The accept and receive path is in NetCore_TCPXCoreRecv.cpp; sending, per-client settings and
// the queries are in NetCore_TCPXCoreSend.cpp.
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

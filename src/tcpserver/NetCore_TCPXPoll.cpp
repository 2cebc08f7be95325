#include "NetCore_TCPXPoll.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <new>
#include <system_error>

#include "Ombrelt_BaseLib.h"
#include "base/ClientList.h"
#include "base/Error.h"

using netcore::ClearError;
using netcore::Fail;

namespace {

constexpr unsigned short kPollEvents = POLLIN | POLLPRI | POLLERR | POLLHUP;
constexpr size_t kGroupRoom = 64;  // a group with at most this many clients takes one more
// The admission test lets a group grow to 65 records, so the work array has room for all of them:
// a client that was admitted is also served.
constexpr int kWorkSlots = kGroupRoom + 1;
constexpr int kRecvBuffer = 8192;

void Pause() {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

// Closing inside the server's own threads leaves the caller-visible error state alone.
void CloseQuietly(int hSocket) {
    shutdown(hSocket, SHUT_RDWR);
    close(hSocket);
}

// The map's record closes its descriptor once nobody holds it any more.
std::shared_ptr<tag_NetEngine_Poll_Client> NewClient(int hSocket) {
    std::unique_ptr<tag_NetEngine_Poll_Client> pSt_Client(new (std::nothrow) tag_NetEngine_Poll_Client());
    if (!pSt_Client) return nullptr;
    pSt_Client->hSocket = hSocket;
    try {
        return std::shared_ptr<tag_NetEngine_Poll_Client>(pSt_Client.release(), [](tag_NetEngine_Poll_Client* pSt_Rec) {
            close(pSt_Rec->hSocket);
            delete pSt_Rec;
        });
    } catch (const std::bad_alloc&) {
        return nullptr;  // the record went with the failed allocation; the caller still owns hSocket
    }
}

}  // namespace

CNetCore_TCPXPoll::~CNetCore_TCPXPoll() {
    NetCore_TCPXPoll_Stop(false);
    // Receive threads block in poll() without a time-out: their pipes wake them so they see the
    // server gone, and they are joined before the groups and clients go away. With the groups out
    // of the map, a receive thread still busy with a last event finds none to change.
    std::list<std::shared_ptr<NETCORE_TCPXPOLL_GROUP>> stl_ListJoin;
    {
        std::unique_lock<std::shared_mutex> st_Lock(st_Locker);
        for (auto& st_Pair : stl_MapThread) {
            stl_ListGroupEnded.push_back(st_Pair.second);
        }
        stl_MapThread.clear();
        stl_ListJoin.swap(stl_ListGroupEnded);
        for (auto& pSt_Group : stl_ListJoin) {
            WakeGroup(pSt_Group.get());
        }
    }
    for (auto& pSt_Group : stl_ListJoin) {
        if (pSt_Group->pSTDThread_Recv && pSt_Group->pSTDThread_Recv->joinable()) pSt_Group->pSTDThread_Recv->join();
    }
    // threads that released their own group are past every use of the server once this is zero
    while (nThreadsLeaving != 0) {
        std::this_thread::yield();
    }
    std::unique_lock<std::shared_mutex> st_Lock(st_Locker);
    for (auto& st_Pair : stl_MapClient) {
        shutdown(st_Pair.second->hSocket, SHUT_RDWR);
    }
    stl_MapClient.clear();
}

bool CNetCore_TCPXPoll::NetCore_TCPXPoll_Start(int nPort, int nMaxClient, int nIPVer) {
    ClearError();
    if (bIsRun) return Fail(ERROR_NETCORE_TCPXPOLL_START_ISRUN);

    int hSocket = -1;
    if (!m_Socket.NetCore_Socket_Create(&hSocket, true, nIPVer, true)) return false;
    if (!m_Socket.NetCore_Socket_Bind(hSocket, nPort, true, nIPVer)) {
        close(hSocket);  // the bind's code stands
        return false;
    }
    hListenSocket = hSocket;
    this->nMaxClient = nMaxClient;
    this->nIPVer = nIPVer;
    {
        // Set under the lock so that a receive thread deciding whether to end sees either the old
        // or the new value; threads that ended after a Stop while their group still had clients
        // are started again so those clients are served.
        std::unique_lock<std::shared_mutex> st_Lock(st_Locker);
        bIsRun = true;
        for (auto& st_Pair : stl_MapThread) {
            NETCORE_TCPXPOLL_GROUP* pSt_Group = st_Pair.second.get();
            if (!pSt_Group->bExited) continue;
            pSt_Group->pSTDThread_Recv->join();
            pSt_Group->bExited = false;
            StartGroupThread(pSt_Group);
        }
    }
    try {
        pSTDThread_Accept.Start(&CNetCore_TCPXPoll::NetCore_TCPXPoll_ThreadAccept, this, nullptr);
    } catch (const std::system_error&) {
    }
    if (!pSTDThread_Accept.IsRunning()) {
        CloseQuietly(hListenSocket);
        hListenSocket = -1;
        // the code is stored with the flag left clear, and the server still counts as running
        netcore::SetErrorCode(ERROR_NETCORE_TCPXPOLL_START_THREAD);
        netcore::SetErrorFlag(false);
        return false;
    }
    return true;
}

bool CNetCore_TCPXPoll::NetCore_TCPXPoll_RegisterCallBack(CALLBACK_NETCORE_TCPSERVER_LOGIN fpCall_Login,
                                                          CALLBACK_NETCORE_TCPSERVER_RECV fpCall_Recv,
                                                          CALLBACK_NETCORE_TCPSERVER_LEAVE fpCall_Leave, void* lPLogin,
                                                          void* lPRecv, void* lPLeave) {
    ClearError();
    if (fpCall_Login == nullptr || fpCall_Recv == nullptr || fpCall_Leave == nullptr) {
        return Fail(ERROR_NETCORE_TCPXPOLL_REGISTERCALLBACK_PARAMENT);
    }
    lpCall_Login = fpCall_Login;
    lpCall_Recv = fpCall_Recv;
    lpCall_Leave = fpCall_Leave;
    // a null context keeps the one registered before
    if (lPLogin != nullptr) lParamLogin = lPLogin;
    if (lPRecv != nullptr) lParamRecv = lPRecv;
    if (lPLeave != nullptr) lParamLeave = lPLeave;
    return true;
}

bool CNetCore_TCPXPoll::NetCore_TCPXPoll_Send(const char* lpszClientAddr, const char* lpszMsgBuffer, int nMsgLen) {
    ClearError();
    // a null address names no client
    if (lpszClientAddr == nullptr) return Fail(ERROR_NETCORE_TCPXPOLL_SEND_NOTFOUND);
    std::shared_ptr<tag_NetEngine_Poll_Client> pSt_Client;
    {
        std::shared_lock<std::shared_mutex> st_Lock(st_Locker);
        auto it = stl_MapClient.find(lpszClientAddr);
        if (it == stl_MapClient.end()) return Fail(ERROR_NETCORE_TCPXPOLL_SEND_NOTFOUND);
        if (it->second->hSocket <= 0) return Fail(ERROR_NETCORE_TCPXPOLL_SEND_SOCKET);
        pSt_Client = it->second;
    }
    // The send may block on a client that does not read: without the lock, other clients still
    // log in and Close still runs; Close shuts the connection down, which ends a blocked send, and
    // the record held here keeps the descriptor open until the send has returned.
    if (!m_Socket.NetCore_Socket_Send(pSt_Client->hSocket, lpszMsgBuffer, nMsgLen, nullptr, 0, 3, AF_INET)) {
        return false;
    }
    // sent bytes go into the same counter as received ones; callers read both there
    nFlowDown += static_cast<unsigned long long>(nMsgLen);
    return true;
}

bool CNetCore_TCPXPoll::NetCore_TCPXPoll_Close(const char* lpszClientAddr) {
    if (lpszClientAddr == nullptr) return true;  // as an unknown address
    std::unique_lock<std::shared_mutex> st_Lock(st_Locker);
    auto it = stl_MapClient.find(lpszClientAddr);
    if (it == stl_MapClient.end()) return true;
    tag_NetEngine_Poll_Client* pSt_Client = it->second.get();

    // The client leaves the group its record names and, when it was admitted into several
    // groups, every other one as well, so no group keeps polling a closed descriptor.
    // Receive threads are joined by the server once they end (Close may run on one of them).
    bool bClosed = false;
    for (auto itGroup = stl_MapThread.begin(); itGroup != stl_MapThread.end();) {
        NETCORE_TCPXPOLL_GROUP* pSt_Group = itGroup->second.get();
        auto& stl_List = pSt_Group->stl_ListClient;
        auto itRecord = std::find_if(stl_List.begin(), stl_List.end(), [&](const tag_NetEngine_Poll_Client& st_Rec) {
            return st_Rec.hSocket == pSt_Client->hSocket &&
                   (itGroup->first == pSt_Client->hThreadID ||
                    strcmp(st_Rec.tszClientAddr, pSt_Client->tszClientAddr) == 0);
        });
        if (itRecord == stl_List.end()) {
            ++itGroup;
            continue;
        }
        if (!bClosed) {
            // the descriptor itself is closed with the record, once no Send holds it
            shutdown(pSt_Client->hSocket, SHUT_RDWR);
            bClosed = true;
        }
        stl_List.erase(itRecord);
        WakeGroup(pSt_Group);
        if (!stl_List.empty()) {
            ++itGroup;
            continue;
        }
        // An emptied group whose thread already ended (after a Stop) is released here; the join
        // is immediate. A running one releases its group itself once it sees the list empty.
        if (pSt_Group->bExited) {
            if (pSt_Group->pSTDThread_Recv && pSt_Group->pSTDThread_Recv->joinable()) {
                pSt_Group->pSTDThread_Recv->join();
            }
        } else {
            stl_ListGroupEnded.push_back(itGroup->second);
        }
        itGroup = stl_MapThread.erase(itGroup);
    }
    stl_MapClient.erase(it);
    return true;
}

bool CNetCore_TCPXPoll::NetCore_TCPXPoll_Stop(bool bClearFlow) {
    if (bIsRun) {
        if (bClearFlow) {
            nFlowUp = 0;
            nFlowDown = 0;
        }
        bIsRun = false;
        // shutdown wakes the accept thread out of accept(); the descriptor is closed only once the
        // thread is gone, so it never accepts on a number reused by someone else
        shutdown(hListenSocket, SHUT_RDWR);
        pSTDThread_Accept.Join();
        close(hListenSocket);
        hListenSocket = -1;
    }
    // Groups that lost their last client end on their own; they are joined here, without the
    // lock (a thread may still be finishing its pass), so their pipes are gone once Stop returns.
    std::list<std::shared_ptr<NETCORE_TCPXPOLL_GROUP>> stl_ListJoin;
    {
        std::unique_lock<std::shared_mutex> st_Lock(st_Locker);
        for (auto it = stl_ListGroupEnded.begin(); it != stl_ListGroupEnded.end();) {
            auto& pSt_Thread = (*it)->pSTDThread_Recv;
            bool bSelf = pSt_Thread && pSt_Thread->get_id() == std::this_thread::get_id();
            if (bSelf) {
                ++it;
            } else {
                stl_ListJoin.push_back(std::move(*it));
                it = stl_ListGroupEnded.erase(it);
            }
        }
    }
    for (auto& pSt_Group : stl_ListJoin) {
        if (pSt_Group->pSTDThread_Recv && pSt_Group->pSTDThread_Recv->joinable()) pSt_Group->pSTDThread_Recv->join();
    }
    return true;
}

bool CNetCore_TCPXPoll::NetCore_TCPXPoll_GetNetFlow(unsigned long long* pInt_FlowUp,
                                                    unsigned long long* pInt_FlowDown) {
    // no null test: a null output is skipped and the other still filled
    if (pInt_FlowUp != nullptr) *pInt_FlowUp = nFlowUp;
    if (pInt_FlowDown != nullptr) *pInt_FlowDown = nFlowDown;
    return true;
}

bool CNetCore_TCPXPoll::NetCore_TCPXPoll_GetList(char*** pppszList, int* pInt_ListCount) {
    ClearError();
    if (pInt_ListCount == nullptr) return Fail(ERROR_NETCORE_TCPSELECT_GETLIST_PARAMENT);
    std::shared_lock<std::shared_mutex> st_Lock(st_Locker);
    if (stl_MapClient.empty()) return Fail(ERROR_NETCORE_TCPSELECT_GETLIST_EMPTY);
    int nCount = static_cast<int>(stl_MapClient.size());
    *pInt_ListCount = nCount;
    if (pppszList == nullptr) return true;
    // Without memory for the list there is nothing to hand out: it reads as an empty list.
    if (!netcore::HandOutAddressList(stl_MapClient, pppszList)) return Fail(ERROR_NETCORE_TCPSELECT_GETLIST_EMPTY);
    return true;
}

void CNetCore_TCPXPoll::NetCore_TCPXPoll_ThreadAccept(void*) {
    while (bIsRun) {
        struct sockaddr_storage st_Addr {};
        socklen_t nLen = (nIPVer == AF_INET) ? sizeof(sockaddr_in) : sizeof(sockaddr_in6);
        int hSocket = accept(hListenSocket, reinterpret_cast<sockaddr*>(&st_Addr), &nLen);
        if (hSocket == -1) {
            // a pause keeps a lasting failure (no descriptors left) from spinning
            Pause();
            continue;
        }
        char tszAddr[128] = {};
        int nPort;
        if (st_Addr.ss_family == AF_INET) {
            auto* pSt_In = reinterpret_cast<sockaddr_in*>(&st_Addr);
            inet_ntop(AF_INET, &pSt_In->sin_addr, tszAddr, sizeof(tszAddr));
            nPort = ntohs(pSt_In->sin_port);
        } else {
            auto* pSt_In6 = reinterpret_cast<sockaddr_in6*>(&st_Addr);
            inet_ntop(AF_INET6, &pSt_In6->sin6_addr, tszAddr, sizeof(tszAddr));
            nPort = ntohs(pSt_In6->sin6_port);
        }
        std::shared_ptr<tag_NetEngine_Poll_Client> pSt_Client = NewClient(hSocket);
        if (!pSt_Client) {
            CloseQuietly(hSocket);
            continue;
        }
        snprintf(pSt_Client->tszClientAddr, sizeof(pSt_Client->tszClientAddr), "%s:%d", tszAddr, nPort);
        pSt_Client->pClass = this;

        size_t nClients;
        {
            std::shared_lock<std::shared_mutex> st_Lock(st_Locker);
            nClients = stl_MapClient.size();
        }
        CALLBACK_NETCORE_TCPSERVER_LOGIN fpLogin = lpCall_Login;
        // strictly greater: nMaxClient + 1 clients get in
        if (static_cast<long long>(nClients) > nMaxClient) {
            if (fpLogin != nullptr) fpLogin(pSt_Client->tszClientAddr, 0, lParamLogin);
            shutdown(hSocket, SHUT_RDWR);  // the record closes it
            continue;
        }
        pSt_Client->sPollEvent = kPollEvents;
        // copies of the address and socket: once in the map the record belongs to it
        std::string strAddr = pSt_Client->tszClientAddr;
        if (NetCore_TCPXPoll_Select(pSt_Client)) {
            // the login result is not used
            if (fpLogin != nullptr) fpLogin(strAddr.c_str(), hSocket, lParamLogin);
            Pause();
        } else {
            shutdown(hSocket, SHUT_RDWR);  // the record closes it
        }
    }
}

bool CNetCore_TCPXPoll::NetCore_TCPXPoll_Select(const std::shared_ptr<tag_NetEngine_Poll_Client>& pSt_Client) {
    std::unique_lock<std::shared_mutex> st_Lock(st_Locker);
    bool bTaken = false;
    size_t nGroup = 0;
    // Every group with room takes the client, not just the first one.
    for (auto& st_Pair : stl_MapThread) {
        NETCORE_TCPXPOLL_GROUP* pSt_Group = st_Pair.second.get();
        auto& stl_List = pSt_Group->stl_ListClient;
        if (!stl_List.empty() && stl_List.size() <= kGroupRoom) {
            // The identifier comes from the record at the group's index in the walk; every record
            // of a group carries the group's identifier, so a group shorter than the index gives
            // the same answer from its last record.
            pSt_Client->hThreadID = stl_List[std::min(nGroup, stl_List.size() - 1)].hThreadID;
            stl_List.push_back(*pSt_Client);
            stl_MapClient.emplace(pSt_Client->tszClientAddr, pSt_Client);
            WakeGroup(pSt_Group);
            bTaken = true;
        }
        nGroup++;
    }
    if (bTaken) return true;

    std::shared_ptr<NETCORE_TCPXPOLL_GROUP> pSt_Group;
    try {
        pSt_Group = std::make_shared<NETCORE_TCPXPOLL_GROUP>();
        pSt_Group->stl_ListClient.reserve(kWorkSlots);
    } catch (const std::bad_alloc&) {
        return Fail(ERROR_NETCORE_TCPXPOLL_SELECT_MALLOC);
    }
    int hPipe[2];
    if (pipe(hPipe) != 0) return Fail(ERROR_NETCORE_TCPXPOLL_SELECT_THREAD);
    pSt_Group->hWakeRead.Reset(hPipe[0]);
    pSt_Group->hWakeWrite.Reset(hPipe[1]);
    for (int hFd : hPipe) {
        fcntl(hFd, F_SETFL, fcntl(hFd, F_GETFL) | O_NONBLOCK);
        fcntl(hFd, F_SETFD, FD_CLOEXEC);
    }
    pSt_Group->hThreadID = ++nThreadSeq;
    if (!StartGroupThread(pSt_Group.get())) return Fail(ERROR_NETCORE_TCPXPOLL_SELECT_THREAD);
    pSt_Client->pSTDThread_Recv = pSt_Group->pSTDThread_Recv;
    pSt_Client->hThreadID = pSt_Group->hThreadID;
    pSt_Group->stl_ListClient.push_back(*pSt_Client);
    stl_MapClient.emplace(pSt_Client->tszClientAddr, pSt_Client);
    stl_MapThread.emplace(pSt_Group->hThreadID, std::move(pSt_Group));
    return true;
}

bool CNetCore_TCPXPoll::NetCore_TCPXPoll_IO(tag_NetEngine_Poll_Client* pSt_Client, int nCount, int nTimeOut) {
    ClearError();
    return IOWait(pSt_Client, nCount, nTimeOut, -1) == IOResult::Ready;
}

// The wake pipe, when given, sits after the clients, so the count poll returns still covers the
// first entries of the clients once the pipe's own entry is taken off it.
CNetCore_TCPXPoll::IOResult CNetCore_TCPXPoll::IOWait(tag_NetEngine_Poll_Client* pSt_Client, int nCount, int nTimeOut,
                                                      int hWake) {
    if (nCount < 0) nCount = 0;
    int nEntries = nCount + (hWake >= 0 ? 1 : 0);
    std::unique_ptr<pollfd[]> pSt_Poll(new (std::nothrow) pollfd[nEntries > 0 ? nEntries : 1]);
    if (!pSt_Poll) {
        Fail(ERROR_NETCORE_TCPXPOLL_IO_MALLOC);
        return IOResult::Failed;
    }
    for (int i = 0; i < nCount; i++) {
        pSt_Poll[i] = {pSt_Client[i].hSocket, static_cast<short>(pSt_Client[i].sPollEvent), 0};
    }
    if (hWake >= 0) pSt_Poll[nCount] = {hWake, POLLIN, 0};

    int nRet = poll(pSt_Poll.get(), static_cast<nfds_t>(nEntries), nTimeOut);
    if (nRet == -1) {
        Fail(ERROR_NETCORE_TCPXPOLL_IO_POLL);
        return IOResult::Failed;
    }
    if (nRet == 0) {
        Fail(ERROR_NETCORE_TCPXPOLL_IO_TIMEOUT);
        return IOResult::Failed;
    }
    if (hWake >= 0 && pSt_Poll[nCount].revents != 0) {
        char tszDrain[64];
        while (read(hWake, tszDrain, sizeof(tszDrain)) > 0) {
        }
        if (--nRet == 0) return IOResult::Woken;
    }
    // The first nRet entries are classified, whether or not they are the ones with events.
    for (int i = 0; i < nRet && i < nCount; i++) {
        short nEvents = pSt_Poll[i].revents;
        if (nEvents & POLLERR) {
            pSt_Client[i].sPollResult = 3;
        } else if (nEvents & POLLIN) {
            pSt_Client[i].sPollResult = 1;
        } else if (nEvents & POLLOUT) {
            pSt_Client[i].sPollResult = 2;
        } else if (nEvents & POLLHUP) {
            pSt_Client[i].sPollResult = 4;
        } else {
            pSt_Client[i].sPollResult = 5;
        }
    }
    return IOResult::Ready;
}

void CNetCore_TCPXPoll::NetCore_TCPXPoll_ThreadRecv(void* lParam) {
    auto* pSt_Group = static_cast<NETCORE_TCPXPOLL_GROUP*>(lParam);
    std::vector<tag_NetEngine_Poll_Client> stl_Work(kWorkSlots);
    char tszBuffer[kRecvBuffer];
    for (;;) {
        int nCount = 0;
        {
            std::shared_lock<std::shared_mutex> st_Lock(st_Locker);
            const auto& stl_List = pSt_Group->stl_ListClient;
            if (bIsRun && !stl_List.empty()) {
                nCount = static_cast<int>(std::min(stl_List.size(), stl_Work.size()));
                std::copy(stl_List.begin(), stl_List.begin() + nCount, stl_Work.begin());
            }
        }
        if (nCount == 0) {
            if (LeaveGroup(pSt_Group)) return;
            continue;
        }
        if (IOWait(stl_Work.data(), nCount, -1, pSt_Group->hWakeRead.Get()) != IOResult::Ready) continue;

        for (int i = 0; i < nCount; i++) {
            const tag_NetEngine_Poll_Client& st_Client = stl_Work[i];
            switch (st_Client.sPollResult) {
                case 3:
                case 4:
                case 5:
                    ReportLeave(st_Client);
                    break;
                case 1: {
                    ssize_t nRecv = -1;
                    int nErrno = 0;
                    {
                        // Only a client still connected is read, and under the lock, so that a
                        // descriptor closed meanwhile (and perhaps reused) is never read. The read
                        // does not wait: when a client sits in two groups, the group that comes
                        // second finds nothing and simply passes.
                        std::shared_lock<std::shared_mutex> st_Lock(st_Locker);
                        if (!IsLive(st_Client)) break;
                        nRecv = recv(st_Client.hSocket, tszBuffer, sizeof(tszBuffer), MSG_DONTWAIT);
                        nErrno = errno;
                    }
                    if (nRecv > 0) {
                        nFlowDown += static_cast<unsigned long long>(nRecv);
                        CALLBACK_NETCORE_TCPSERVER_RECV fpRecv = lpCall_Recv;
                        if (fpRecv != nullptr) {
                            fpRecv(st_Client.tszClientAddr, st_Client.hSocket, tszBuffer, static_cast<int>(nRecv),
                                   lParamRecv);
                        }
                    } else if (nRecv == 0 || (nErrno != EAGAIN && nErrno != EWOULDBLOCK && nErrno != EINTR)) {
                        ReportLeave(st_Client);
                    }
                    break;
                }
                default:
                    break;
            }
        }
        Pause();
    }
}

bool CNetCore_TCPXPoll::StartGroupThread(NETCORE_TCPXPOLL_GROUP* pSt_Group) {
    try {
        pSt_Group->pSTDThread_Recv =
            std::make_shared<std::thread>(&CNetCore_TCPXPoll::NetCore_TCPXPoll_ThreadRecv, this, pSt_Group);
    } catch (const std::exception&) {
        pSt_Group->pSTDThread_Recv.reset();
        return false;
    }
    return true;
}

// Ends a receive thread whose server stopped or whose group is empty; false when the group has
// work again. A group still in the map (stopped server) is left for Start to restart or for the
// Close that empties it to release. A group already out of the map is released here, at once,
// whatever the order of Stop and Close: no later call may come to join it, so the thread detaches.
bool CNetCore_TCPXPoll::LeaveGroup(NETCORE_TCPXPOLL_GROUP* pSt_Group) {
    std::shared_ptr<NETCORE_TCPXPOLL_GROUP> pSt_Self;
    {
        std::unique_lock<std::shared_mutex> st_Lock(st_Locker);
        if (bIsRun && !pSt_Group->stl_ListClient.empty()) return false;
        auto it = std::find_if(
            stl_ListGroupEnded.begin(), stl_ListGroupEnded.end(),
            [&](const std::shared_ptr<NETCORE_TCPXPOLL_GROUP>& pSt_Ended) { return pSt_Ended.get() == pSt_Group; });
        if (it == stl_ListGroupEnded.end()) {
            // Stop, the destructor or Close joins it
            pSt_Group->bExited = true;
            return true;
        }
        pSt_Self = std::move(*it);
        stl_ListGroupEnded.erase(it);
        if (pSt_Self->pSTDThread_Recv->joinable()) pSt_Self->pSTDThread_Recv->detach();
        nThreadsLeaving++;
    }
    pSt_Self.reset();  // the wake-up pipe goes with it
    nThreadsLeaving--;
    return true;
}

bool CNetCore_TCPXPoll::IsLive(const tag_NetEngine_Poll_Client& st_Client) const {
    auto it = stl_MapClient.find(st_Client.tszClientAddr);
    return it != stl_MapClient.end() && it->second->hSocket == st_Client.hSocket && !it->second->bLeaving;
}

// Leave callback, then Close; a departure is reported once even when two groups see it.
void CNetCore_TCPXPoll::ReportLeave(const tag_NetEngine_Poll_Client& st_Client) {
    {
        std::unique_lock<std::shared_mutex> st_Lock(st_Locker);
        if (!IsLive(st_Client)) return;
        stl_MapClient.find(st_Client.tszClientAddr)->second->bLeaving = true;
    }
    CALLBACK_NETCORE_TCPSERVER_LEAVE fpLeave = lpCall_Leave;
    if (fpLeave != nullptr) fpLeave(st_Client.tszClientAddr, st_Client.hSocket, lParamLeave);
    NetCore_TCPXPoll_Close(st_Client.tszClientAddr);
}

void CNetCore_TCPXPoll::WakeGroup(NETCORE_TCPXPOLL_GROUP* pSt_Group) {
    char chWake = 1;
    // a full pipe already holds a wake-up
    (void)!write(pSt_Group->hWakeWrite.Get(), &chWake, 1);
}

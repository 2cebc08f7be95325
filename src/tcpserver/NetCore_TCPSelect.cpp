#include "NetCore_TCPSelect.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <new>
#include <system_error>

#include "Ombrelt_BaseLib.h"
#include "base/ClientList.h"
#include "base/Error.h"
#include "base/Platform.h"

using netcore::ClearError;
using netcore::Fail;

namespace {

constexpr uint64_t kEventLogin = 0x01;
constexpr uint64_t kEventRecv = 0x100;
constexpr uint64_t kEventLeave = 0x10;
constexpr int kRecvBuffer = 8192;
constexpr int kSendWaitMs = 100;

void Pause() {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

void CloseSocket(int hSocket) {
    shutdown(hSocket, SHUT_RDWR);
    close(hSocket);
}

}  // namespace

CNetCore_TCPSelect::~CNetCore_TCPSelect() {
    NetCore_TCPSelect_Stop(false);
    ReapClients(true);
}

bool CNetCore_TCPSelect::NetCore_TCPSelect_Start(int nPort, int nTimeOut, bool bKeepAlive, int nIPVer) {
    ClearError();
    if (bIsRun) return Fail(ERROR_NETCORE_TCPSELECT_START_ISRUN);

    hListenSocket = -1;
    int hSocket = -1;
    if (!m_Socket.NetCore_Socket_Create(&hSocket, true, nIPVer, true)) return false;
    if (!m_Socket.NetCore_Socket_Bind(hSocket, nPort, true, nIPVer)) {
        CloseSocket(hSocket);  // the bind's code stands
        return false;
    }
    hListenSocket = hSocket;
    this->nIPVer = nIPVer;
    this->nTimeOut = nTimeOut;
    this->bKeepAlive = bKeepAlive;
    bIsRun = true;
    try {
        pSTDThread_Main.Start(&CNetCore_TCPSelect::NetCore_TCPSelect_MainThread, this, nullptr);
    } catch (const std::system_error&) {
    }
    if (!pSTDThread_Main.IsRunning()) {
        bIsRun = false;
        CloseSocket(hListenSocket);
        hListenSocket = -1;
        return Fail(ERROR_NETCORE_TCPSELECT_START_MAINTHREAD);
    }
    try {
        pSTDThread_Close.Start(&CNetCore_TCPSelect::NetCore_TCPSelect_CloseThread, this, nullptr);
    } catch (const std::system_error&) {
    }
    if (!pSTDThread_Close.IsRunning()) {
        bIsRun = false;
        // the accept thread sees bIsRun within one time-out; it is gone before the listener is
        pSTDThread_Main.Join();
        CloseSocket(hListenSocket);
        hListenSocket = -1;
        return Fail(ERROR_NETCORE_TCPSELECT_START_CLOSETHREAD);
    }
    return true;
}

bool CNetCore_TCPSelect::NetCore_TCPSelect_RegisterCallBack(CALLBACK_NETCORE_TCPSERVER_LOGIN fpCall_Login,
                                                            CALLBACK_NETCORE_TCPSERVER_RECV fpCall_Recv,
                                                            CALLBACK_NETCORE_TCPSERVER_LEAVE fpCall_Leave,
                                                            void* lPLogin, void* lPRecv, void* lPLeave) {
    lpCall_Login = fpCall_Login;
    lpCall_Recv = fpCall_Recv;
    lpCall_Leave = fpCall_Leave;
    lParamLogin = lPLogin;
    lParamRecv = lPRecv;
    lParamLeave = lPLeave;
    return true;
}

bool CNetCore_TCPSelect::NetCore_TCPSelect_Send(const char* lpszClientAddr, const char* lpszMsgBuffer, int nMsgLen) {
    ClearError();
    // a null address names no client
    if (lpszClientAddr == nullptr) return Fail(ERROR_NETCORE_TCPSELECT_SEND_NOTFOUND);
    std::shared_ptr<NETCORE_TCPSELECT> pSt_Client;
    {
        std::shared_lock<std::shared_mutex> st_Lock(st_LockerClient);
        auto it = stl_MapClient.find(lpszClientAddr);
        if (it == stl_MapClient.end()) return Fail(ERROR_NETCORE_TCPSELECT_SEND_NOTFOUND);
        pSt_Client = it->second;
    }
    // The wait and the send run without the lock: a client that does not read blocks only its
    // own sends, not logins or removals. Removal shuts the connection down, which ends a blocked
    // send. A failure keeps the code of the socket utility that failed.
    if (!m_Socket.NetCore_Socket_IOSelect(pSt_Client->hSocket, false, kSendWaitMs)) return false;
    if (!m_Socket.NetCore_Socket_Send(pSt_Client->hSocket, lpszMsgBuffer, nMsgLen, nullptr, 0, 3, AF_INET)) {
        return false;
    }
    nFlowUp += static_cast<unsigned long long>(nMsgLen);
    return true;
}

bool CNetCore_TCPSelect::NetCore_TCPSelect_RemoveClient(const char* lpszClientAddr) {
    if (lpszClientAddr == nullptr) return true;  // as an unknown address
    std::shared_ptr<NETCORE_TCPSELECT> pSt_Client;
    {
        std::unique_lock<std::shared_mutex> st_Lock(st_LockerClient);
        auto it = stl_MapClient.find(lpszClientAddr);
        if (it == stl_MapClient.end()) return true;
        pSt_Client = std::move(it->second);
        stl_MapClient.erase(it);
    }
    // The worker is joined outside the lock: it may be inside a callback that calls Send.
    pSt_Client->bIsRun = false;
    DropClient(std::move(pSt_Client));
    return true;
}

bool CNetCore_TCPSelect::NetCore_TCPSelect_Stop(bool bClearFlow) {
    bIsRun = false;
    bKeepAlive = false;
    // No new client arrives and no queued one is removed once these two are gone. The close
    // thread is joined without the client lock held, so a RemoveClient it is running finishes.
    pSTDThread_Main.Join();
    pSTDThread_Close.Join();

    std::unordered_map<std::string, std::shared_ptr<NETCORE_TCPSELECT>> stl_MapOld;
    {
        std::unique_lock<std::shared_mutex> st_Lock(st_LockerClient);
        stl_MapOld.swap(stl_MapClient);
    }
    // every worker is told first, so they all finish within the same time-out
    for (auto& st_Pair : stl_MapOld) {
        st_Pair.second->bIsRun = false;
    }
    for (auto& st_Pair : stl_MapOld) {
        DropClient(std::move(st_Pair.second));
    }
    {
        // departures queued while the workers ended name clients that are gone already
        std::lock_guard<std::mutex> st_Lock(st_LockerClose);
        stl_ListClose.clear();
    }
    ReapClients(false);
    if (hListenSocket != -1) {
        CloseSocket(hListenSocket);
        hListenSocket = -1;
    }
    if (bClearFlow) {
        nFlowUp = 0;
        nFlowDown = 0;
    }
    return true;
}

bool CNetCore_TCPSelect::NetCore_TCPSelect_GetFlow(unsigned long long* pInt_FlowUp, unsigned long long* pInt_FlowDown) {
    ClearError();
    if (pInt_FlowUp == nullptr || pInt_FlowDown == nullptr) return Fail(ERROR_NETCORE_TCPSELECT_GETFLOW_PARAMENT);
    *pInt_FlowUp = nFlowUp;
    *pInt_FlowDown = nFlowDown;
    return true;
}

bool CNetCore_TCPSelect::NetCore_TCPSelect_GetList(char*** pppszList, int* pInt_ListCount) {
    ClearError();
    if (pInt_ListCount == nullptr) return Fail(ERROR_NETCORE_TCPSELECT_GETLIST_PARAMENT);
    std::shared_lock<std::shared_mutex> st_Lock(st_LockerClient);
    if (stl_MapClient.empty()) return Fail(ERROR_NETCORE_TCPSELECT_GETLIST_EMPTY);
    int nCount = static_cast<int>(stl_MapClient.size());
    *pInt_ListCount = nCount;
    if (pppszList == nullptr) return true;
    // Without memory for the list there is nothing to hand out: it reads as an empty list.
    if (!netcore::HandOutAddressList(stl_MapClient, pppszList)) return Fail(ERROR_NETCORE_TCPSELECT_GETLIST_EMPTY);
    return true;
}

bool CNetCore_TCPSelect::NetCore_TCPSelect_ReadIOEvent(char* lpszClientAddr, char* lpszMsgBuffer, int* pInt_Len,
                                                       unsigned long* pdwType) {
    ClearError();
    if (lpszClientAddr == nullptr || lpszMsgBuffer == nullptr || pInt_Len == nullptr || pdwType == nullptr) {
        return Fail(ERROR_NETCORE_TCPSELECT_READIOEVENT_PARAMENT);
    }
    // events go either to the callbacks or to the queue, never to both
    if (lpCall_Login != nullptr || lpCall_Recv != nullptr || lpCall_Leave != nullptr) {
        return Fail(ERROR_NETCORE_TCPSELECT_READIOEVENT_CALLBACK);
    }
    std::lock_guard<std::mutex> st_Lock(st_LockerEvent);
    if (stl_ListEvent.empty()) return Fail(ERROR_NETCORE_TCPSELECT_READIOEVENT_EMPTY);

    size_t nPrefix = strlen(lpszClientAddr);
    for (auto it = stl_ListEvent.begin(); it != stl_ListEvent.end(); ++it) {
        // an address argument matches every client address it begins
        if (nPrefix > 0 && strncmp(it->tszClientAddr, lpszClientAddr, nPrefix) != 0) continue;
        if (*pdwType != 0 && (it->dwEventType & *pdwType) == 0) continue;

        strcpy(lpszClientAddr, it->tszClientAddr);
        if (it->dwEventType == kEventRecv) {
            *pInt_Len = it->nMsgLen;
            // The data is not handed over: callers get the length and keep their buffer as it
            // was. The count copied is that of an empty record, i.e. nothing.
            NETCORE_IOEVENT st_Empty{};
            memcpy(lpszMsgBuffer, it->tszMsgBuffer, static_cast<size_t>(st_Empty.nMsgLen));
        }
        *pdwType = static_cast<unsigned long>(it->dwEventType);
        stl_ListEvent.erase(it);
        return true;
    }
    return Fail(ERROR_NETCORE_TCPSELECT_READIOEVENT_NOTFOUND);
}

void CNetCore_TCPSelect::NetCore_TCPSelect_MainThread(void*) {
    while (bIsRun) {
        if (!m_Socket.NetCore_Socket_IOSelect(hListenSocket, true, nTimeOut)) {
            Pause();
            continue;
        }
        struct sockaddr_storage st_Addr {};
        socklen_t nLen = (nIPVer == AF_INET) ? sizeof(sockaddr_in) : sizeof(sockaddr_in6);
        int hSocket = accept(hListenSocket, reinterpret_cast<sockaddr*>(&st_Addr), &nLen);
        if (hSocket == -1) continue;

        char tszAddr[64] = {};
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
        std::shared_ptr<NETCORE_TCPSELECT> pSt_Client;
        try {
            pSt_Client = std::make_shared<NETCORE_TCPSELECT>();
        } catch (const std::bad_alloc&) {
        }
        if (!pSt_Client) {
            CloseSocket(hSocket);
            continue;
        }
        snprintf(pSt_Client->tszClientAddr, sizeof(pSt_Client->tszClientAddr), "%s:%d", tszAddr, nPort);
        pSt_Client->hSocket = hSocket;
        pSt_Client->pClass = this;
        pSt_Client->bIsRun = true;

        CALLBACK_NETCORE_TCPSERVER_LOGIN fpLogin = lpCall_Login;
        if (fpLogin != nullptr) {
            fpLogin(pSt_Client->tszClientAddr, hSocket, lParamLogin);  // the result is not used
        } else {
            PushEvent(pSt_Client->tszClientAddr, kEventLogin, nullptr, 0);
        }

        // The worker starts with the client already in the map, under the lock, so a departure
        // it reports at once finds the client to remove.
        std::unique_lock<std::shared_mutex> st_Lock(st_LockerClient);
        NETCORE_TCPSELECT* pSt_Raw = pSt_Client.get();
        // try_emplace leaves pSt_Client untouched when the address is taken
        auto st_Insert = stl_MapClient.try_emplace(pSt_Raw->tszClientAddr, std::move(pSt_Client));
        if (!st_Insert.second) {
            // a stale entry under the same address: the new connection is refused (the record
            // closes it)
            shutdown(hSocket, SHUT_RDWR);
            continue;
        }
        try {
            pSt_Raw->pSTDThread_Work =
                std::make_unique<std::thread>(&CNetCore_TCPSelect::NetCore_TCPSelect_WorkThread, this, pSt_Raw);
        } catch (const std::exception&) {
            shutdown(hSocket, SHUT_RDWR);
            stl_MapClient.erase(st_Insert.first);  // the record closes the descriptor
            continue;
        }
        st_Lock.unlock();
        Pause();
    }
}

void CNetCore_TCPSelect::NetCore_TCPSelect_WorkThread(void* lParam) {
    auto* pSt_Client = static_cast<NETCORE_TCPSELECT*>(lParam);
    if (bKeepAlive) m_Socket.NetCore_Socket_KeepAlive(pSt_Client->hSocket, true);

    char tszBuffer[kRecvBuffer];
    bool bLeft = false;
    while (pSt_Client->bIsRun) {
        if (m_Socket.NetCore_Socket_IOSelect(pSt_Client->hSocket, true, nTimeOut)) {
            ssize_t nRecv = recv(pSt_Client->hSocket, tszBuffer, sizeof(tszBuffer), 0);
            if (nRecv < 1) {
                bLeft = true;
                break;
            }
            nFlowDown += static_cast<unsigned long long>(nRecv);
            CALLBACK_NETCORE_TCPSERVER_RECV fpRecv = lpCall_Recv;
            if (fpRecv != nullptr) {
                fpRecv(pSt_Client->tszClientAddr, pSt_Client->hSocket, tszBuffer, static_cast<int>(nRecv), lParamRecv);
            } else {
                PushEvent(pSt_Client->tszClientAddr, kEventRecv, tszBuffer, static_cast<int>(nRecv));
            }
        }
        Pause();
    }
    // removed by RemoveClient or Stop: no departure report
    if (bLeft) {
        CALLBACK_NETCORE_TCPSERVER_LEAVE fpLeave = lpCall_Leave;
        if (fpLeave != nullptr) {
            fpLeave(pSt_Client->tszClientAddr, pSt_Client->hSocket, lParamLeave);
        } else {
            PushEvent(pSt_Client->tszClientAddr, kEventLeave, nullptr, 0);
        }
        std::lock_guard<std::mutex> st_Lock(st_LockerClose);
        stl_ListClose.emplace_back(pSt_Client->tszClientAddr);
    }
    pSt_Client->bExited = true;
}

void CNetCore_TCPSelect::NetCore_TCPSelect_CloseThread(void*) {
    while (bIsRun) {
        std::list<std::string> stl_ListTake;
        {
            std::lock_guard<std::mutex> st_Lock(st_LockerClose);
            stl_ListTake.swap(stl_ListClose);
        }
        for (const std::string& strAddr : stl_ListTake) {
            NetCore_TCPSelect_RemoveClient(strAddr.c_str());
        }
        ReapClients(false);
        Pause();
    }
}

void CNetCore_TCPSelect::PushEvent(const char* lpszClientAddr, uint64_t dwType, const char* lpszMsgBuffer,
                                   int nMsgLen) {
    std::lock_guard<std::mutex> st_Lock(st_LockerEvent);
    try {
        stl_ListEvent.emplace_back();
    } catch (const std::bad_alloc&) {
        return;  // an event that cannot be queued is lost, as with a full queue
    }
    NETCORE_IOEVENT& st_Event = stl_ListEvent.back();
    memset(&st_Event, 0, sizeof(st_Event));
    snprintf(st_Event.tszClientAddr, sizeof(st_Event.tszClientAddr), "%s", lpszClientAddr);
    st_Event.dwEventType = dwType;
    st_Event.nMsgLen = nMsgLen;
    if (nMsgLen > 0) memcpy(st_Event.tszMsgBuffer, lpszMsgBuffer, static_cast<size_t>(nMsgLen));
}

// Ends a client taken out of the map: joins its worker (which returns within one time-out),
// then shuts down and closes the socket. A worker that removes its own client from a callback
// cannot be joined from there; it is parked and joined once it has returned.
void CNetCore_TCPSelect::DropClient(std::shared_ptr<NETCORE_TCPSELECT> pSt_Client) {
    pSt_Client->bIsRun = false;
    std::thread* pSt_Thread = pSt_Client->pSTDThread_Work.get();
    if (pSt_Thread != nullptr && pSt_Thread->get_id() == std::this_thread::get_id()) {
        // the worker does not touch the socket again once bIsRun is clear
        shutdown(pSt_Client->hSocket, SHUT_RDWR);
        std::lock_guard<std::mutex> st_Lock(st_LockerReap);
        stl_ListReap.push_back(std::move(pSt_Client));
        return;
    }
    if (pSt_Thread != nullptr && pSt_Thread->joinable()) pSt_Thread->join();
    // the record closes the descriptor once a send still holding it is over
    shutdown(pSt_Client->hSocket, SHUT_RDWR);
}

void CNetCore_TCPSelect::ReapClients(bool bAll) {
    std::vector<std::shared_ptr<NETCORE_TCPSELECT>> stl_ListJoin;
    {
        std::lock_guard<std::mutex> st_Lock(st_LockerReap);
        for (auto it = stl_ListReap.begin(); it != stl_ListReap.end();) {
            std::thread* pSt_Thread = (*it)->pSTDThread_Work.get();
            bool bSelf = pSt_Thread->get_id() == std::this_thread::get_id();
            if (!bSelf && (bAll || (*it)->bExited)) {
                stl_ListJoin.push_back(std::move(*it));
                it = stl_ListReap.erase(it);
            } else {
                ++it;
            }
        }
    }
    for (auto& pSt_Client : stl_ListJoin) {
        if (pSt_Client->pSTDThread_Work->joinable()) pSt_Client->pSTDThread_Work->join();
    }
}

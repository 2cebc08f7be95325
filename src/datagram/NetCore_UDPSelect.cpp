#include "NetCore_UDPSelect.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <new>
#include <system_error>

#include "DatagramUtil.h"
#include "base/Error.h"

using netcore::ClearError;
using netcore::Fail;
using netcore::FailNull;

namespace {

constexpr int kRecvBufferSize = 2048;
constexpr int kSendTimeOutSeconds = 3;
constexpr int kSelectWaitMs = 100;

tag_UDPSocket_AddrInfo* AsEndpoint(void* lPClass) {
    return static_cast<tag_UDPSocket_AddrInfo*>(lPClass);
}

void PauseOneMs() {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

}  // namespace

void* CNetCore_UDPSelect::NetCore_UDPSelect_Start(int nPort, int nIPVer) {
    ClearError();
    auto* pSt_Endpoint = new (std::nothrow) tag_UDPSocket_AddrInfo();
    if (pSt_Endpoint == nullptr) return FailNull(ERROR_NETCORE_UDPSELECT_START_MALLOC);

    // On a failed create or bind the socket utilities' code stands; the half-made endpoint is
    // released here, since the caller never receives a handle to release it with.
    if (!NetCore_Socket_Create(&pSt_Endpoint->hSocket, false, nIPVer, true)) {
        delete pSt_Endpoint;
        return nullptr;
    }
    if (nPort > 0 && !NetCore_Socket_Bind(pSt_Endpoint->hSocket, nPort, false, nIPVer)) {
        netcore::datagram::CloseKeepErrno(pSt_Endpoint->hSocket);
        delete pSt_Endpoint;
        return nullptr;
    }
    pSt_Endpoint->bCallMode = false;
    pSt_Endpoint->nPort = nPort;
    pSt_Endpoint->nIPVer = nIPVer;
    return pSt_Endpoint;
}

bool CNetCore_UDPSelect::NetCore_UDPSelect_GetSocket(void* lPClass, int* phSocket) {
    ClearError();
    if (lPClass == nullptr) return Fail(ERROR_NETCORE_UDPSELECT_HANDLE_NOTFOUND);
    // Callers only ever pass somewhere to put the socket; a null pointer just gets nothing.
    if (phSocket != nullptr) *phSocket = AsEndpoint(lPClass)->hSocket;
    return true;
}

bool CNetCore_UDPSelect::NetCore_UDPSelect_Send(void* lPClass, const char* lpszMsgBuffer, int nMsgLen,
                                                const char* lpszAddr, int nPort) {
    ClearError();
    if (lpszMsgBuffer == nullptr || lpszAddr == nullptr) return Fail(ERROR_NETCORE_UDPSELECT_SEND_PARAMENT);
    if (lPClass == nullptr) return Fail(ERROR_NETCORE_UDPSELECT_HANDLE_NOTFOUND);
    tag_UDPSocket_AddrInfo* pSt_Endpoint = AsEndpoint(lPClass);
    return NetCore_Socket_Send(pSt_Endpoint->hSocket, lpszMsgBuffer, nMsgLen, lpszAddr, nPort, kSendTimeOutSeconds,
                               pSt_Endpoint->nIPVer);
}

bool CNetCore_UDPSelect::NetCore_UDPSelect_Recv(void* lPClass, char* ptszAddr, char* ptszMsgBuffer, int* pInt_Len,
                                                bool bSelect) {
    ClearError();
    if (ptszMsgBuffer == nullptr || pInt_Len == nullptr) return Fail(ERROR_NETCORE_UDPSELECT_RECV_PARAMENT);
    if (lPClass == nullptr) return Fail(ERROR_NETCORE_UDPSELECT_RECV_NOTFOUND);
    tag_UDPSocket_AddrInfo* pSt_Endpoint = AsEndpoint(lPClass);
    if (pSt_Endpoint->nPort < 1) return Fail(ERROR_NETCORE_UDPSELECT_RECV_NOTBIND);
    if (pSt_Endpoint->bCallMode) return Fail(ERROR_NETCORE_UDPSELECT_RECV_CALLMODE);
    // the wait leaves its own code when nothing came
    if (bSelect && !NetCore_Socket_IOSelect(pSt_Endpoint->hSocket, true, kSelectWaitMs)) return false;

    netcore::datagram::PeerAddr st_Peer(pSt_Endpoint->nIPVer);
    ssize_t nRet = recvfrom(pSt_Endpoint->hSocket, ptszMsgBuffer, netcore::datagram::BufferRoom(*pInt_Len), 0,
                            st_Peer.Addr(), st_Peer.Len());
    if (nRet == -1) return Fail(ERROR_NETCORE_UDPSELECT_RECV_FAILED);
    // ptszAddr is the caller's room for the sender; a null one gets nothing
    if (ptszAddr != nullptr) st_Peer.Format(ptszAddr, netcore::datagram::kAddrPortTextSize);
    *pInt_Len = static_cast<int>(nRet);
    return true;
}

bool CNetCore_UDPSelect::NetCore_UDPSelect_Stop(void* lPClass) {
    ClearError();
    if (lPClass == nullptr) return true;
    tag_UDPSocket_AddrInfo* pSt_Endpoint = AsEndpoint(lPClass);
    pSt_Endpoint->bRunning = false;
    // Shutting a UDP socket down wakes a receive blocked on it with 0 bytes, which ends the
    // receive thread.
    shutdown(pSt_Endpoint->hSocket, SHUT_RDWR);
    if (pSt_Endpoint->pSTDThread != nullptr && pSt_Endpoint->pSTDThread->get_id() == std::this_thread::get_id()) {
        // Stop called from the endpoint's own callback: the thread cannot join itself, so it
        // frees the endpoint once the callback has returned.
        pSt_Endpoint->pSTDThread->detach();
        pSt_Endpoint->bReleaseOnExit = true;
        return true;
    }
    // The socket is closed only after the thread has ended, so the thread never receives on a
    // descriptor number that something else may have reused by then.
    if (pSt_Endpoint->pSTDThread != nullptr && pSt_Endpoint->pSTDThread->joinable()) pSt_Endpoint->pSTDThread->join();
    close(pSt_Endpoint->hSocket);
    delete pSt_Endpoint;
    return true;
}

bool CNetCore_UDPSelect::NetCore_UDPSelect_SetMode(void* lPClass, bool bCallMode) {
    ClearError();
    if (lPClass == nullptr) return Fail(ERROR_NETCORE_UDPSELECT_SETMODE_PARAMENT);
    AsEndpoint(lPClass)->bCallMode = bCallMode;
    return true;
}

bool CNetCore_UDPSelect::NetCore_UDPSelect_RegisterCallBack(void* lPClass, CALLBACK_NETCORE_UDPSELECT_RECV fpCall_Recv,
                                                            void* lParam) {
    ClearError();
    if (lPClass == nullptr) return Fail(ERROR_NETCORE_UDPSELECT_CBSET_PARAMENT);
    tag_UDPSocket_AddrInfo* pSt_Endpoint = AsEndpoint(lPClass);

    // One receive thread per endpoint: a second registration hands the new callback to the
    // thread already running, and only replaces a thread whose loop has ended.
    if (pSt_Endpoint->pSTDThread != nullptr && pSt_Endpoint->pSTDThread->joinable()) {
        if (!pSt_Endpoint->bThreadEnded) {
            {
                std::lock_guard<std::mutex> st_Guard(pSt_Endpoint->st_CallLocker);
                pSt_Endpoint->lParam = lParam;
                pSt_Endpoint->fpCall_Recv = fpCall_Recv;
            }
            pSt_Endpoint->bRunning = true;
            pSt_Endpoint->bCallMode = true;
            return true;
        }
        pSt_Endpoint->pSTDThread->join();
    }
    // The lock is held until the thread object is stored: the new thread takes it before its
    // first callback, so a Stop made from that callback finds the thread object complete.
    std::lock_guard<std::mutex> st_Guard(pSt_Endpoint->st_CallLocker);
    pSt_Endpoint->lParam = lParam;
    pSt_Endpoint->fpCall_Recv = fpCall_Recv;
    pSt_Endpoint->bRunning = true;
    pSt_Endpoint->bCallMode = true;
    pSt_Endpoint->bThreadEnded = false;
    try {
        pSt_Endpoint->pSTDThread = std::make_unique<std::thread>(NetCore_UDPSelect_RecvThread, pSt_Endpoint);
    } catch (const std::system_error&) {
        pSt_Endpoint->pSTDThread.reset();
        return Fail(ERROR_NETCORE_UDPSELECT_CBSET_THREAD);
    }
    if (!pSt_Endpoint->pSTDThread->joinable()) return Fail(ERROR_NETCORE_UDPSELECT_CBSET_THREAD);
    return true;
}

int CNetCore_UDPSelect::NetCore_UDPSelect_RecvThread(void* lParam) {
    auto* pSt_Endpoint = static_cast<tag_UDPSocket_AddrInfo*>(lParam);
    while (pSt_Endpoint->bRunning) {
        if (!pSt_Endpoint->bCallMode) {
            PauseOneMs();
            continue;
        }
        char tszAddrPort[netcore::datagram::kAddrPortTextSize] = {};
        char tszMsgBuffer[kRecvBufferSize] = {};
        netcore::datagram::PeerAddr st_Peer(pSt_Endpoint->nIPVer);
        ssize_t nRet =
            recvfrom(pSt_Endpoint->hSocket, tszMsgBuffer, sizeof(tszMsgBuffer), 0, st_Peer.Addr(), st_Peer.Len());
        // An empty datagram ends the thread just as a shut-down socket does; senders use it to
        // stop a listener for good.
        if (nRet < 1) break;
        st_Peer.Format(tszAddrPort, sizeof(tszAddrPort));

        CALLBACK_NETCORE_UDPSELECT_RECV fpCall_Recv;
        void* lpCallParam;
        {
            std::lock_guard<std::mutex> st_Guard(pSt_Endpoint->st_CallLocker);
            fpCall_Recv = pSt_Endpoint->fpCall_Recv;
            lpCallParam = pSt_Endpoint->lParam;
        }
        if (fpCall_Recv != nullptr) {
            fpCall_Recv(tszAddrPort, pSt_Endpoint->hSocket, tszMsgBuffer, static_cast<int>(nRet), lpCallParam);
        }
        // bReleaseOnExit is only ever set on this thread, from inside the callback above.
        if (pSt_Endpoint->bReleaseOnExit) break;
        PauseOneMs();
    }
    pSt_Endpoint->bThreadEnded = true;
    if (pSt_Endpoint->bReleaseOnExit) {
        close(pSt_Endpoint->hSocket);
        delete pSt_Endpoint;
    }
    return 0;
}

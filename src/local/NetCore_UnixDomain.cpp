#include "NetCore_UnixDomain.h"

#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <utility>

#include "base/Descriptor.h"
#include "base/Error.h"
#include "base/Platform.h"
#include "socket/NetCore_Socket.h"

using netcore::ClearError;
using netcore::Fail;

namespace {

// Every bind, accept, recvfrom and sendto passes the whole address record.
constexpr socklen_t kAddrLen = sizeof(sockaddr_un);
static_assert(kAddrLen == 110, "sockaddr_un is 2 + 108 bytes on the platforms we build for");
constexpr int kListenBacklog = 128;
constexpr int kStreamBufferSize = 4096;
constexpr int kDatagramBufferSize = 2048;
constexpr int kAddrTextSize = 128;
constexpr int kPeerWaitMillis = 100;

// The path field has no room for a path of 108 bytes and its terminator: such a path is refused
// (errno ENAMETOOLONG) rather than copied past the field.
bool FillAddress(sockaddr_un* pSt_Addr, const char* lpszPath) {
    memset(pSt_Addr, 0, sizeof(*pSt_Addr));
    pSt_Addr->sun_family = AF_UNIX;
    if (lpszPath == nullptr) {
        errno = EDESTADDRREQ;
        return false;
    }
    if (strlen(lpszPath) >= sizeof(pSt_Addr->sun_path)) {
        errno = ENAMETOOLONG;
        return false;
    }
    strcpy(pSt_Addr->sun_path, lpszPath);
    return true;
}

// inet_ntop knows only the internet families and refuses AF_UNIX, leaving the text as it was:
// the peers' address text stays empty and callers name peers by socket or by their own paths.
void AddressText(const sockaddr_un& st_Addr, char* ptszText) {
    int nSaved = errno;
    inet_ntop(AF_UNIX, st_Addr.sun_path, ptszText, kAddrTextSize);
    errno = nSaved;
}

// The server whose peer receive thread the current thread is, if any.
thread_local const CNetCore_UnixDomain* tl_pPeerServer = nullptr;

bool IsCurrent(const std::shared_ptr<std::thread>& pThread) {
    return pThread && pThread->get_id() == std::this_thread::get_id();
}

// Joins a server thread, or detaches it when the caller is that thread (a callback that stops
// its own server): the thread then ends on its own once it sees the stop.
void JoinThread(const std::shared_ptr<std::thread>& pThread) {
    if (!pThread || !pThread->joinable()) return;
    if (IsCurrent(pThread)) {
        pThread->detach();
    } else {
        pThread->join();
    }
}

template <typename Fn>
std::shared_ptr<std::thread> NewThread(Fn fnBody, void* lParam) {
    try {
        return std::make_shared<std::thread>(fnBody, lParam);
    } catch (...) {
        // no thread could be created: the caller sees a thread object that is not joinable
        return std::make_shared<std::thread>();
    }
}

}  // namespace

CNetCore_UnixDomain::CNetCore_UnixDomain() = default;

CNetCore_UnixDomain::~CNetCore_UnixDomain() {
    StopServer(true);
}

bool CNetCore_UnixDomain::NetCore_UnixDomain_Start(const char* lpszUnixName, bool bIsStream) {
    ClearError();
    if (lpszUnixName == nullptr) return Fail(ERROR_NETCORE_UNIXDOMAIN_START_PARAMENT);

    sockaddr_un st_Addr;
    bool bFits = FillAddress(&st_Addr, lpszUnixName);
    // The socket only becomes the server's once bound, so that a failed Start leaves a running
    // server untouched.
    netcore::UniqueFd hNew(socket(AF_UNIX, bIsStream ? SOCK_STREAM : SOCK_DGRAM, 0));
    if (!hNew.IsValid()) return Fail(ERROR_NETCORE_UNIXDOMAIN_START_SOCKET);
    // The path is not unlinked first: a file left at the path makes bind fail.
    if (!bFits || bind(hNew.Get(), reinterpret_cast<sockaddr*>(&st_Addr), kAddrLen) == -1) {
        return Fail(ERROR_NETCORE_UNIXDOMAIN_START_BIND);
    }
    bStream.store(bIsStream, std::memory_order_relaxed);
    {
        std::lock_guard<std::mutex> st_Guard(st_LockerState);
        memset(szSocketPath, 0, sizeof(szSocketPath));
        strcpy(szSocketPath, lpszUnixName);
    }
    if (bIsStream && listen(hNew.Get(), kListenBacklog) == -1) return Fail(ERROR_NETCORE_UNIXDOMAIN_START_LISTEN);

    std::lock_guard<std::mutex> st_Guard(st_LockerState);
    // Start on a running server: the earlier threads go on (now on the new socket) until Stop.
    for (auto* pThread : {&pSTDThread_Accept, &pSTDThread_Close}) {
        if (*pThread && (*pThread)->joinable()) stl_ListRetiredThread.push_back(std::move(*pThread));
    }
    if (hSocket.load() >= 0) stl_ListRetiredSocket.push_back(hSocket.load());
    hSocket.store(hNew.Release());
    bRunning.store(true);
    pSTDThread_Accept = NewThread(NetCore_UnixDomain_ThreadAccept, this);
    if (!pSTDThread_Accept->joinable()) {
        // bRunning stays up on this path; nothing runs that could see it
        close(hSocket.exchange(-1));
        return Fail(ERROR_NETCORE_UNIXDOMAIN_START_THREAD);
    }
    pSTDThread_Close = NewThread(NetCore_UnixDomain_ThreadClose, this);
    if (!pSTDThread_Close->joinable()) {
        bRunning.store(false);
        int hListen = hSocket.exchange(-1);
        shutdown(hListen, SHUT_RDWR);  // wakes the accept thread's blocking call
        pSTDThread_Accept->join();
        close(hListen);
        return Fail(ERROR_NETCORE_UNIXDOMAIN_START_THREAD);
    }
    return true;
}

bool CNetCore_UnixDomain::NetCore_UnixDomain_SetCallback(CALLBACK_NETCORE_UNIXDOMAIN_ACCEPT fpCallAccept,
                                                         CALLBACK_NETCORE_UNIXDOMAIN_RECV fpCallRecv,
                                                         CALLBACK_NETCORE_UNIXDOMAIN_LEAVE fpCallLeave, void* lPAccept,
                                                         void* lPRecv, void* lPLeave) {
    fpCall_Accept.store(fpCallAccept);
    fpCall_Recv.store(fpCallRecv);
    fpCall_Leave.store(fpCallLeave);
    lParamAccept.store(lPAccept);
    lParamRecv.store(lPRecv);
    lParamLeave.store(lPLeave);
    return true;
}

bool CNetCore_UnixDomain::NetCore_UnixDomain_Send(int hClient, const char* lpszMsgBuffer, int nMsgLen,
                                                  const char* lpszClientAddr) {
    ClearError();
    if (lpszMsgBuffer == nullptr) return Fail(ERROR_NETCORE_UNIXDOMAIN_SEND_PARAMENT);

    ssize_t nSend = -1;
    // MSG_NOSIGNAL: a peer that has gone makes the send fail with EPIPE instead of killing the
    // caller's process with SIGPIPE.
    if (bStream.load(std::memory_order_relaxed)) {
        st_Locker.lock_shared();
        if (stl_MapClient.find(hClient) == stl_MapClient.end()) {
            st_Locker.unlock_shared();
            return Fail(ERROR_NETCORE_UNIXDOMAIN_SEND_NOTFOUND);
        }
        if (!CNetCore_Socket().NetCore_Socket_IOSelect(hClient, false, kPeerWaitMillis)) {
            // The peer did not become writable: the readiness wait's code stands, and the shared
            // hold is kept, so every exclusive taker waits from now on.
            st_Locker.PinShared();
            return false;
        }
        if (nMsgLen < 0) {
            errno = EINVAL;
        } else {
            nSend = send(hClient, lpszMsgBuffer, static_cast<size_t>(nMsgLen), MSG_NOSIGNAL);
        }
        st_Locker.unlock_shared();
    } else {
        sockaddr_un st_Addr;
        if (!FillAddress(&st_Addr, lpszClientAddr)) {
            nSend = -1;
        } else if (nMsgLen < 0) {
            errno = EINVAL;
        } else {
            nSend = sendto(hSocket.load(std::memory_order_relaxed), lpszMsgBuffer, static_cast<size_t>(nMsgLen),
                           MSG_NOSIGNAL, reinterpret_cast<sockaddr*>(&st_Addr), kAddrLen);
        }
    }
    if (nSend == -1) return Fail(ERROR_NETCORE_UNIXDOMAIN_SEND_FAILED);
    if (nSend != nMsgLen) return Fail(ERROR_NETCORE_UNIXDOMAIN_SEND_LEN);
    return true;
}

bool CNetCore_UnixDomain::NetCore_UnixDomain_Remove(int hClient) {
    ClearError();
    RemovePeer(hClient);
    return true;
}

// Remove without the error convention: the close thread calls it on its own, and a worker must
// not clear the flag of a failure the caller is about to read.
void CNetCore_UnixDomain::RemovePeer(int hClient) {
    NETCORE_UNIXDOMAIN* pSt_Client = nullptr;
    {
        std::unique_lock<netcore::SharedLocker> st_Guard(st_Locker);
        auto stl_MapIterator = stl_MapClient.find(hClient);
        if (stl_MapIterator != stl_MapClient.end()) {
            pSt_Client = stl_MapIterator->second;
            stl_MapIterator->second = nullptr;
            stl_MapClient.erase(stl_MapIterator);
        }
    }
    // The peer's thread is joined outside the lock: its callbacks may be inside Send.
    if (pSt_Client != nullptr) ReleaseClient(pSt_Client);
}

bool CNetCore_UnixDomain::NetCore_UnixDomain_Stop() {
    ClearError();
    StopServer(false);
    return true;
}

void CNetCore_UnixDomain::StopServer(bool bAtUnload) {
    bRunning.store(false);
    {
        std::lock_guard<std::mutex> st_Guard(st_LockerWake);
        st_CondWake.notify_all();
    }
    std::shared_ptr<std::thread> pThreadAccept, pThreadClose;
    std::vector<std::shared_ptr<std::thread>> stl_ListThread;
    std::vector<int> stl_ListSocket;
    char tszPath[sizeof(szSocketPath)];
    {
        std::lock_guard<std::mutex> st_Guard(st_LockerState);
        pThreadAccept = pSTDThread_Accept;
        pThreadClose = pSTDThread_Close;
        stl_ListThread.swap(stl_ListRetiredThread);
        stl_ListSocket.swap(stl_ListRetiredSocket);
        int hListen = hSocket.exchange(-1);
        if (hListen >= 0) stl_ListSocket.push_back(hListen);
        memcpy(tszPath, szSocketPath, sizeof(tszPath));
        // a second Stop must not unlink a path that someone else has bound since
        memset(szSocketPath, 0, sizeof(szSocketPath));
    }
    // Shutting the sockets down wakes the blocking accept or recvfrom; they are closed only once
    // their threads have ended, so no thread ever waits on a descriptor number reused meanwhile.
    for (int hListen : stl_ListSocket)
        shutdown(hListen, SHUT_RDWR);
    if (tl_pPeerServer == this && pThreadClose && pThreadClose->joinable()) {
        // Stop from a peer's callback: the close thread may be joining this very peer in its
        // sweep, so it is left to end on its own.
        pThreadClose->detach();
    } else {
        JoinThread(pThreadClose);
    }
    JoinThread(pThreadAccept);
    for (const auto& pThread : stl_ListThread)
        JoinThread(pThread);
    for (int hListen : stl_ListSocket)
        close(hListen);
    if (tszPath[0] != '\0') unlink(tszPath);

    std::unordered_map<int, NETCORE_UNIXDOMAIN*> stl_MapTaken;
    std::list<NETCORE_UNIXDOMAIN*> stl_ListTaken;
    if (bAtUnload) {
        st_Locker.LockIgnoringPinned();
    } else {
        st_Locker.lock();
    }
    stl_MapTaken.swap(stl_MapClient);
    stl_ListTaken.swap(stl_ListOrphan);
    st_Locker.unlock();
    for (auto& stl_Pair : stl_MapTaken)
        ReleaseClient(std::exchange(stl_Pair.second, nullptr));
    for (NETCORE_UNIXDOMAIN* pSt_Client : stl_ListTaken)
        ReleaseClient(pSt_Client);
}

void CNetCore_UnixDomain::ReleaseClient(NETCORE_UNIXDOMAIN* pSt_Client) {
    pSt_Client->bRunning.store(false);
    if (IsCurrent(pSt_Client->pSTDThread)) {
        // called from this peer's own callback: its thread frees the record when it returns
        pSt_Client->pSTDThread->detach();
        pSt_Client->bSelfRelease = true;
    } else {
        JoinThread(pSt_Client->pSTDThread);
    }
    shutdown(pSt_Client->hSocket, SHUT_RDWR);
    close(pSt_Client->hSocket);
    if (!pSt_Client->bSelfRelease) delete pSt_Client;
}

int CNetCore_UnixDomain::NetCore_UnixDomain_ThreadAccept(void* lParam) {
    auto* pClass = static_cast<CNetCore_UnixDomain*>(lParam);
    if (pClass->bStream.load()) {
        pClass->StreamAccept();
    } else {
        pClass->DatagramRecv();
    }
    return 0;
}

void CNetCore_UnixDomain::StreamAccept() {
    while (bRunning.load(std::memory_order_relaxed)) {
        sockaddr_un st_Addr{};
        socklen_t nAddrLen = kAddrLen;
        int hClient = accept(hSocket.load(std::memory_order_relaxed), reinterpret_cast<sockaddr*>(&st_Addr), &nAddrLen);
        if (hClient == -1) continue;

        auto* pSt_Client = new (std::nothrow) NETCORE_UNIXDOMAIN;
        if (pSt_Client == nullptr) {
            close(hClient);
            continue;
        }
        pSt_Client->bRunning.store(true);
        pSt_Client->lClass = this;
        pSt_Client->hSocket = hClient;
        AddressText(st_Addr, pSt_Client->szClientAddr);

        CALLBACK_NETCORE_UNIXDOMAIN_ACCEPT fpAccept = fpCall_Accept.load();
        if (fpAccept != nullptr) {
            // the answer is not used: a peer is never refused here
            fpAccept(pSt_Client->szClientAddr, hClient, lParamAccept.load());
        }
        StartPeer(pSt_Client, fpAccept != nullptr);
    }
}

void CNetCore_UnixDomain::StartPeer(NETCORE_UNIXDOMAIN* pSt_Client, bool bInMap) {
    // The record is entered (in the table, or kept aside for Stop) and its thread started under
    // one exclusive hold, so that Remove or Stop never see a record whose thread is being set.
    std::unique_lock<netcore::SharedLocker> st_Guard(st_Locker);
    if (bInMap) {
        stl_MapClient[pSt_Client->hSocket] = pSt_Client;
    } else {
        stl_ListOrphan.push_back(pSt_Client);
    }
    pSt_Client->pSTDThread = NewThread(NetCore_UnixDomain_ThreadRecv, pSt_Client);
    if (pSt_Client->pSTDThread->joinable()) return;
    // no thread for this peer: it is closed at once
    if (bInMap) {
        stl_MapClient.erase(pSt_Client->hSocket);
    } else {
        stl_ListOrphan.pop_back();
    }
    close(pSt_Client->hSocket);
    delete pSt_Client;
}

void CNetCore_UnixDomain::DatagramRecv() {
    char tszMsgBuffer[kDatagramBufferSize];
    char tszAddrText[kAddrTextSize];
    while (bRunning.load(std::memory_order_relaxed)) {
        memset(tszMsgBuffer, 0, sizeof(tszMsgBuffer));
        memset(tszAddrText, 0, sizeof(tszAddrText));
        sockaddr_un st_Addr{};
        socklen_t nAddrLen = kAddrLen;
        int hServer = hSocket.load(std::memory_order_relaxed);
        // a longer datagram is cut to the buffer
        ssize_t nRecv =
            recvfrom(hServer, tszMsgBuffer, sizeof(tszMsgBuffer), 0, reinterpret_cast<sockaddr*>(&st_Addr), &nAddrLen);
        CALLBACK_NETCORE_UNIXDOMAIN_RECV fpRecv = fpCall_Recv.load();
        if (nRecv > 0 && fpRecv != nullptr) {
            AddressText(st_Addr, tszAddrText);
            fpRecv(tszAddrText, hServer, tszMsgBuffer, static_cast<int>(nRecv), lParamRecv.load());
        }
    }
}

int CNetCore_UnixDomain::NetCore_UnixDomain_ThreadRecv(void* lParam) {
    auto* pSt_Client = static_cast<NETCORE_UNIXDOMAIN*>(lParam);
    CNetCore_UnixDomain* pClass = pSt_Client->lClass;
    tl_pPeerServer = pClass;
    char tszMsgBuffer[kStreamBufferSize];
    while (pClass->bRunning.load(std::memory_order_relaxed) && pSt_Client->bRunning.load(std::memory_order_relaxed)) {
        memset(tszMsgBuffer, 0, sizeof(tszMsgBuffer));
        if (CNetCore_Socket().NetCore_Socket_IOSelect(pSt_Client->hSocket, true, kPeerWaitMillis)) {
            ssize_t nRecv;
            if (pClass->bStream.load(std::memory_order_relaxed)) {
                nRecv = recv(pSt_Client->hSocket, tszMsgBuffer, sizeof(tszMsgBuffer), 0);
            } else {
                sockaddr_un st_Addr{};
                socklen_t nAddrLen = kAddrLen;
                nRecv = recvfrom(pSt_Client->hSocket, tszMsgBuffer, sizeof(tszMsgBuffer), 0,
                                 reinterpret_cast<sockaddr*>(&st_Addr), &nAddrLen);
                memset(pSt_Client->szClientAddr, 0, sizeof(pSt_Client->szClientAddr));
                AddressText(st_Addr, pSt_Client->szClientAddr);
            }
            CALLBACK_NETCORE_UNIXDOMAIN_RECV fpRecv = pClass->fpCall_Recv.load();
            if (nRecv > 0) {
                if (fpRecv != nullptr) {
                    fpRecv(pSt_Client->szClientAddr, pSt_Client->hSocket, tszMsgBuffer, static_cast<int>(nRecv),
                           pClass->lParamRecv.load());
                }
            } else if (fpRecv != nullptr) {
                // The peer is gone: the close thread removes it. Without a receive callback a
                // closed peer goes unnoticed and the thread keeps polling.
                {
                    std::lock_guard<std::mutex> st_Guard(pClass->st_LockerClose);
                    pClass->stl_ListClose.push_back(pSt_Client->hSocket);
                }
                CALLBACK_NETCORE_UNIXDOMAIN_LEAVE fpLeave = pClass->fpCall_Leave.load();
                // the leave callback has always been given the receive callback's argument
                if (fpLeave != nullptr)
                    fpLeave(pSt_Client->szClientAddr, pSt_Client->hSocket, pClass->lParamRecv.load());
                break;
            }
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    if (pSt_Client->bSelfRelease) delete pSt_Client;
    return 0;
}

int CNetCore_UnixDomain::NetCore_UnixDomain_ThreadClose(void* lParam) {
    auto* pClass = static_cast<CNetCore_UnixDomain*>(lParam);
    while (pClass->bRunning.load(std::memory_order_relaxed)) {
        std::list<int> stl_ListSweep;
        {
            std::lock_guard<std::mutex> st_Guard(pClass->st_LockerClose);
            stl_ListSweep.swap(pClass->stl_ListClose);
        }
        for (int hClient : stl_ListSweep)
            pClass->RemovePeer(hClient);

        std::unique_lock<std::mutex> st_Guard(pClass->st_LockerWake);
        pClass->st_CondWake.wait_for(st_Guard, std::chrono::seconds(1),
                                     [&] { return !pClass->bRunning.load(std::memory_order_relaxed); });
    }
    return 0;
}

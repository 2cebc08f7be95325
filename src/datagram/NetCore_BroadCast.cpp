#include "NetCore_BroadCast.h"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <mutex>

#include "DatagramUtil.h"
#include "base/Error.h"

using netcore::ClearError;
using netcore::Fail;

namespace {
constexpr int kSendWaitMs = 100;
}

bool CNetCore_BroadCast::NetCore_BroadCast_Create(int* phSocket, int nPort, const char* lpszAddr) {
    ClearError();
    tag_NetCore_BroadCast st_BroadCast;
    memset(&st_BroadCast, 0, sizeof(st_BroadCast));
    if (phSocket == nullptr) return Fail(ERROR_NETCORE_BROADCAST_PARAMENT);

    int hSocket = socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
    if (hSocket == -1) return Fail(ERROR_NETCORE_BROADCAST_CREATE_SOCKET);
    int nOn = 1;
    if (setsockopt(hSocket, SOL_SOCKET, SO_BROADCAST, &nOn, sizeof(nOn)) == -1) {
        netcore::datagram::CloseKeepErrno(hSocket);
        return Fail(ERROR_NETCORE_BROADCAST_CREATE_SETOPT);
    }
    // several endpoints (and processes) share one broadcast port
    if (!m_NetSocket.NetCore_Socket_SetReAddr(hSocket)) {
        netcore::datagram::CloseKeepErrno(hSocket);
        return false;
    }

    struct sockaddr_in st_LocalAddr;
    memset(&st_LocalAddr, 0, sizeof(st_LocalAddr));
    st_LocalAddr.sin_family = AF_INET;
    st_LocalAddr.sin_port = htons(static_cast<uint16_t>(nPort));
    if (lpszAddr != nullptr) {
        inet_pton(AF_INET, lpszAddr, &st_LocalAddr.sin_addr);
    } else {
        st_LocalAddr.sin_addr.s_addr = htonl(INADDR_ANY);
    }
    if (bind(hSocket, reinterpret_cast<sockaddr*>(&st_LocalAddr), sizeof(st_LocalAddr)) == -1) {
        // the caller never learns this socket, so it is closed here
        netcore::datagram::CloseKeepErrno(hSocket);
        return Fail(ERROR_NETCORE_BROADCAST_CREATE_BIND);
    }

    st_BroadCast.nPort = nPort;
    st_BroadCast.hSocket = hSocket;
    st_BroadCast.st_SockAddr.sin_family = AF_INET;
    st_BroadCast.st_SockAddr.sin_port = htons(static_cast<uint16_t>(nPort));
    st_BroadCast.st_SockAddr.sin_addr.s_addr = htonl(INADDR_BROADCAST);
    *phSocket = hSocket;
    std::unique_lock<std::shared_mutex> st_Guard(st_Locker);
    // A descriptor number can only be in the table already if its socket was closed behind our
    // back; the new endpoint replaces that stale one.
    stl_MapBroadCast.insert_or_assign(hSocket, st_BroadCast);
    return true;
}

bool CNetCore_BroadCast::NetCore_BroadCast_Send(int hSocket, const char* lpszMsgBuffer, int nMsgLen) {
    ClearError();
    if (lpszMsgBuffer == nullptr || nMsgLen < 1) return Fail(ERROR_NETCORE_BROADCAST_PARAMENT);

    std::shared_lock<std::shared_mutex> st_Guard(st_Locker);
    auto stl_MapIterator = stl_MapBroadCast.find(hSocket);
    if (stl_MapIterator == stl_MapBroadCast.end()) return Fail(ERROR_NETCORE_BROADCAST_NOTFOUND);
    // the wait leaves its own code when the socket cannot send
    if (!m_NetSocket.NetCore_Socket_IOSelect(hSocket, false, kSendWaitMs)) return false;
    const tag_NetCore_BroadCast& st_BroadCast = stl_MapIterator->second;
    if (sendto(hSocket, lpszMsgBuffer, nMsgLen, 0, reinterpret_cast<const sockaddr*>(&st_BroadCast.st_SockAddr),
               sizeof(st_BroadCast.st_SockAddr)) == -1) {
        return Fail(ERROR_NETCORE_BROADCAST_SEND_FAILED);
    }
    return true;
}

bool CNetCore_BroadCast::NetCore_BroadCast_Recv(int hSocket, char* ptszMsgBuffer, int* pInt_Len, char* ptszAddr,
                                                int nTimeout) {
    // This operation reports the flag set from entry on, success included; callers judge it by
    // its result and read the code only after a false.
    netcore::SetErrorFlag(true);
    if (ptszMsgBuffer == nullptr || pInt_Len == nullptr) return Fail(ERROR_NETCORE_BROADCAST_PARAMENT);

    netcore::datagram::PeerAddr st_Peer(AF_INET);
    ssize_t nRet;
    {
        std::shared_lock<std::shared_mutex> st_Guard(st_Locker);
        if (stl_MapBroadCast.find(hSocket) == stl_MapBroadCast.end()) return Fail(ERROR_NETCORE_BROADCAST_NOTFOUND);
        if (nTimeout >= 0) {
            if (!m_NetSocket.NetCore_Socket_IOSelect(hSocket, true, nTimeout)) return false;
            // the wait clears the flag on its own entry; put it back as this operation leaves it
            netcore::SetErrorFlag(true);
        }
        nRet = recvfrom(hSocket, ptszMsgBuffer, netcore::datagram::BufferRoom(*pInt_Len), 0, st_Peer.Addr(),
                        st_Peer.Len());
        if (nRet == -1) return Fail(ERROR_NETCORE_BROADCAST_RECV_FAILED);
    }
    if (ptszAddr != nullptr) st_Peer.Format(ptszAddr, netcore::datagram::kAddrPortTextSize);
    *pInt_Len = static_cast<int>(nRet);
    return true;
}

bool CNetCore_BroadCast::NetCore_BroadCast_Close(int hSocket) {
    ClearError();
    std::unique_lock<std::shared_mutex> st_Guard(st_Locker);
    auto stl_MapIterator = stl_MapBroadCast.find(hSocket);
    if (stl_MapIterator != stl_MapBroadCast.end()) {
        shutdown(hSocket, SHUT_RDWR);
        close(hSocket);
        stl_MapBroadCast.erase(stl_MapIterator);
    }
    return true;
}

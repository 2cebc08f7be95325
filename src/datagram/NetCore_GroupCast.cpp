#include "NetCore_GroupCast.h"

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

// Copies an address text into a record field, cut to the field.
template <size_t N>
void CopyText(char (&tszField)[N], const char* lpszText) {
    snprintf(tszField, N, "%s", lpszText != nullptr ? lpszText : "");
}

void LeaveGroup(const NETCORE_GROUPCAST& st_GroupCast) {
    if (st_GroupCast.nIPVer == AF_INET) {
        struct ip_mreq st_Req;
        memset(&st_Req, 0, sizeof(st_Req));
        inet_pton(AF_INET, st_GroupCast.szGroupAddr, &st_Req.imr_multiaddr);
        inet_pton(AF_INET, st_GroupCast.szLocalAddr, &st_Req.imr_interface);
        setsockopt(st_GroupCast.hSocket, IPPROTO_IP, IP_DROP_MEMBERSHIP, &st_Req, sizeof(st_Req));
    } else {
        struct ipv6_mreq st_Req;
        memset(&st_Req, 0, sizeof(st_Req));
        inet_pton(AF_INET6, st_GroupCast.szGroupAddr, &st_Req.ipv6mr_multiaddr);
        setsockopt(st_GroupCast.hSocket, IPPROTO_IPV6, IPV6_DROP_MEMBERSHIP, &st_Req, sizeof(st_Req));
    }
}

}  // namespace

bool CNetCore_GroupCast::NetCore_GroupCast_Create(int* phSocket, int nPort, const char* lpszGroupAddr,
                                                  const char* lpszLocalAddr, int nTTL, bool bLoop, int nIPVer) {
    ClearError();
    // A null address text is not refused here: it converts as no address (zero), and creation
    // fails at whichever step cannot take that.
    if (phSocket == nullptr) return Fail(ERROR_NETCORE_GROUPCAST_PARAMENT);
    NETCORE_GROUPCAST st_GroupCast;
    memset(&st_GroupCast, 0, sizeof(st_GroupCast));
    st_GroupCast.nIPVer = nIPVer;

    const bool bIPv4 = (nIPVer == AF_INET);
    const int nLevel = bIPv4 ? IPPROTO_IP : IPPROTO_IPV6;
    const int nLoopOption = bIPv4 ? IP_MULTICAST_LOOP : IPV6_MULTICAST_LOOP;
    int hSocket = socket(bIPv4 ? AF_INET : AF_INET6, SOCK_DGRAM, IPPROTO_UDP);
    if (hSocket == -1) return Fail(ERROR_NETCORE_GROUPCAST_CREATE_SOCKET);
    // Every later failure closes the socket: the caller never learns it.
    auto fnFail = [hSocket](unsigned long long nCode) {
        netcore::datagram::CloseKeepErrno(hSocket);
        return Fail(nCode);
    };

    int nLoop = bLoop ? 1 : 0;
    if (setsockopt(hSocket, nLevel, nLoopOption, &nLoop, sizeof(nLoop)) == -1) {
        return fnFail(ERROR_NETCORE_GROUPCAST_CREATE_LOOP);
    }
    // The IPv4 option number is used at the IPv6 level too; IPv6 endpoints never get past their
    // bind below, so it only has to be accepted there.
    if (nTTL > 0 && setsockopt(hSocket, nLevel, IP_MULTICAST_TTL, &nTTL, sizeof(nTTL)) == -1) {
        return fnFail(ERROR_NETCORE_GROUPCAST_CREATE_TTL);
    }
    if (!NetCore_Socket_SetReAddr(hSocket)) {
        netcore::datagram::CloseKeepErrno(hSocket);
        return false;
    }

    if (bIPv4) {
        st_GroupCast.st_BindAddr.sin_family = AF_INET;
        st_GroupCast.st_BindAddr.sin_port = htons(static_cast<uint16_t>(nPort));
        st_GroupCast.st_BindAddr.sin_addr.s_addr = htonl(INADDR_ANY);
        if (bind(hSocket, reinterpret_cast<sockaddr*>(&st_GroupCast.st_BindAddr), sizeof(st_GroupCast.st_BindAddr)) ==
            -1) {
            return fnFail(ERROR_NETCORE_GROUPCAST_CREATE_BIND);
        }
        struct ip_mreq st_Req;
        memset(&st_Req, 0, sizeof(st_Req));
        if (lpszGroupAddr != nullptr) inet_pton(AF_INET, lpszGroupAddr, &st_Req.imr_multiaddr);
        if (lpszLocalAddr != nullptr) inet_pton(AF_INET, lpszLocalAddr, &st_Req.imr_interface);
        st_GroupCast.st_GroupAddr.sin_family = AF_INET;
        st_GroupCast.st_GroupAddr.sin_port = htons(static_cast<uint16_t>(nPort));
        st_GroupCast.st_GroupAddr.sin_addr = st_Req.imr_multiaddr;
        // a refused outgoing interface reports as a bind failure
        if (setsockopt(hSocket, IPPROTO_IP, IP_MULTICAST_IF, &st_Req.imr_interface, sizeof(st_Req.imr_interface)) ==
            -1) {
            return fnFail(ERROR_NETCORE_GROUPCAST_CREATE_BIND);
        }
        if (setsockopt(hSocket, IPPROTO_IP, IP_ADD_MEMBERSHIP, &st_Req, sizeof(st_Req)) == -1) {
            return fnFail(ERROR_NETCORE_GROUPCAST_CREATE_JOIN);
        }
    } else {
        // The IPv6 bind names its family AF_INET, which an IPv6 socket refuses: IPv6 creation
        // ends here with the bind code, and callers have always seen it end so.
        st_GroupCast.st_BindAddr6.sin6_family = AF_INET;
        st_GroupCast.st_BindAddr6.sin6_port = htons(static_cast<uint16_t>(nPort));
        st_GroupCast.st_BindAddr6.sin6_addr = in6addr_any;
        if (bind(hSocket, reinterpret_cast<sockaddr*>(&st_GroupCast.st_BindAddr6), sizeof(st_GroupCast.st_BindAddr6)) ==
            -1) {
            return fnFail(ERROR_NETCORE_GROUPCAST_CREATE_BIND);
        }
        struct ipv6_mreq st_Req;
        memset(&st_Req, 0, sizeof(st_Req));
        if (lpszGroupAddr != nullptr) inet_pton(AF_INET6, lpszGroupAddr, &st_Req.ipv6mr_multiaddr);
        st_GroupCast.st_GroupAddr6.sin6_family = AF_INET6;
        st_GroupCast.st_GroupAddr6.sin6_port = htons(static_cast<uint16_t>(nPort));
        st_GroupCast.st_GroupAddr6.sin6_addr = st_Req.ipv6mr_multiaddr;
        if (setsockopt(hSocket, IPPROTO_IPV6, IPV6_ADD_MEMBERSHIP, &st_Req, sizeof(st_Req)) == -1) {
            return fnFail(ERROR_NETCORE_GROUPCAST_CREATE_JOIN);
        }
    }

    st_GroupCast.nPort = nPort;
    st_GroupCast.hSocket = hSocket;
    CopyText(st_GroupCast.szLocalAddr, lpszLocalAddr);
    CopyText(st_GroupCast.szGroupAddr, lpszGroupAddr);
    {
        std::unique_lock<std::shared_mutex> st_Guard(st_Locker);
        // A descriptor number can only be in the table already if its socket was closed behind
        // our back; the new endpoint replaces that stale one.
        stl_MapGroupCast.insert_or_assign(hSocket, st_GroupCast);
    }
    *phSocket = hSocket;
    return true;
}

bool CNetCore_GroupCast::NetCore_GroupCast_Send(int hSocket, const char* lpszMsgBuffer, int nMsgLen) {
    ClearError();
    // The length is the kernel's to judge: an empty datagram is sent like any other.
    if (lpszMsgBuffer == nullptr) return Fail(ERROR_NETCORE_GROUPCAST_PARAMENT);

    std::shared_lock<std::shared_mutex> st_Guard(st_Locker);
    auto stl_MapIterator = stl_MapGroupCast.find(hSocket);
    if (stl_MapIterator == stl_MapGroupCast.end()) return Fail(ERROR_NETCORE_GROUPCAST_NOTFOUND);
    if (!NetCore_Socket_IOSelect(hSocket, false, kSendWaitMs)) return false;
    const NETCORE_GROUPCAST& st_GroupCast = stl_MapIterator->second;
    ssize_t nRet;
    if (st_GroupCast.nIPVer == AF_INET) {
        nRet = sendto(hSocket, lpszMsgBuffer, nMsgLen, 0, reinterpret_cast<const sockaddr*>(&st_GroupCast.st_GroupAddr),
                      sizeof(st_GroupCast.st_GroupAddr));
    } else {
        nRet =
            sendto(hSocket, lpszMsgBuffer, nMsgLen, 0, reinterpret_cast<const sockaddr*>(&st_GroupCast.st_GroupAddr6),
                   sizeof(st_GroupCast.st_GroupAddr6));
    }
    if (nRet == -1) return Fail(ERROR_NETCORE_GROUPCAST_SEND_FAILED);
    return true;
}

bool CNetCore_GroupCast::NetCore_GroupCast_Recv(int hSocket, char* ptszMsgBuffer, int* pInt_Len, char* ptszAddr,
                                                int nTimeout) {
    ClearError();
    if (ptszMsgBuffer == nullptr || pInt_Len == nullptr) return Fail(ERROR_NETCORE_GROUPCAST_PARAMENT);

    std::shared_lock<std::shared_mutex> st_Guard(st_Locker);
    auto stl_MapIterator = stl_MapGroupCast.find(hSocket);
    if (stl_MapIterator == stl_MapGroupCast.end()) return Fail(ERROR_NETCORE_GROUPCAST_NOTFOUND);
    if (nTimeout >= 0 && !NetCore_Socket_IOSelect(hSocket, true, nTimeout)) return false;

    netcore::datagram::PeerAddr st_Peer(stl_MapIterator->second.nIPVer);
    ssize_t nRet =
        recvfrom(hSocket, ptszMsgBuffer, netcore::datagram::BufferRoom(*pInt_Len), 0, st_Peer.Addr(), st_Peer.Len());
    // The sender text is written before the result is looked at: a failed receive leaves the
    // zero address there.
    if (ptszAddr != nullptr) st_Peer.Format(ptszAddr, netcore::datagram::kAddrPortTextSize);
    if (nRet == -1) return Fail(ERROR_NETCORE_GROUPCAST_RECV_FAILED);
    *pInt_Len = static_cast<int>(nRet);
    return true;
}

bool CNetCore_GroupCast::NetCore_GroupCast_Close(int hSocket) {
    ClearError();
    std::unique_lock<std::shared_mutex> st_Guard(st_Locker);
    auto stl_MapIterator = stl_MapGroupCast.find(hSocket);
    if (stl_MapIterator != stl_MapGroupCast.end()) {
        // leaving may fail (the interface may be gone); the socket is closed all the same
        LeaveGroup(stl_MapIterator->second);
        shutdown(hSocket, SHUT_RDWR);
        close(hSocket);
        stl_MapGroupCast.erase(stl_MapIterator);
    }
    return true;
}

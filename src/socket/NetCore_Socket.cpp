#include "NetCore_Socket.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include "base/Error.h"
#include "base/Platform.h"

using netcore::ClearError;
using netcore::Fail;

namespace {

constexpr int kListenBacklog = 128;
// The would-block number of another platform; callers sharing code with it may set it.
constexpr int kForeignWouldBlock = 10035;

bool SetIntOption(int hSocket, int nLevel, int nOption, int nValue, socklen_t nLen = sizeof(int)) {
    return setsockopt(hSocket, nLevel, nOption, &nValue, nLen) != -1;
}

}  // namespace

bool CNetCore_Socket::NetCore_Socket_Create(int* phSocket, bool bTcp, int nIPVer, bool bReserved) {
    ClearError();
    (void)bReserved;  // both values create the same socket
    if (phSocket == nullptr) return Fail(ERROR_NETCORE_SOCKET_CREATE_PARAMENT);

    int nDomain = (nIPVer == AF_INET) ? AF_INET : AF_INET6;
    int nType = bTcp ? SOCK_STREAM : SOCK_DGRAM;
    int nProto = bTcp ? IPPROTO_TCP : IPPROTO_UDP;
    *phSocket = socket(nDomain, nType, nProto);
    if (*phSocket == -1) return Fail(ERROR_NETCORE_SOCKET_CREATE_SOCKET);
    return true;
}

bool CNetCore_Socket::NetCore_Socket_Bind(int hSocket, int nPort, bool bListen, int nIPVer) {
    ClearError();
    if (nIPVer != AF_INET) {
        struct sockaddr_in6 st_Addr {};
        st_Addr.sin6_family = AF_INET6;
        st_Addr.sin6_port = htons(static_cast<uint16_t>(nPort));
        st_Addr.sin6_addr = in6addr_any;
        if (bind(hSocket, reinterpret_cast<sockaddr*>(&st_Addr), sizeof(st_Addr)) == -1) {
            return Fail(ERROR_NETCORE_SOCKET_BIND_BIND);
        }
    } else {
        struct sockaddr_in st_Addr {};
        st_Addr.sin_family = AF_INET;
        st_Addr.sin_port = htons(static_cast<uint16_t>(nPort));
        st_Addr.sin_addr.s_addr = INADDR_ANY;
        if (bind(hSocket, reinterpret_cast<sockaddr*>(&st_Addr), sizeof(st_Addr)) == -1) {
            // printed for IPv4 only; callers have long seen it that way
            printf("NetCore_Socket_Bind:%d\n", errno);
            return Fail(ERROR_NETCORE_SOCKET_BIND_BIND);
        }
    }
    if (bListen && listen(hSocket, kListenBacklog) == -1) {
        // the one failure that stores its code but leaves the flag clear
        netcore::SetErrorCode(ERROR_NETCORE_SOCKET_BIND_LISTEN);
        netcore::SetErrorFlag(false);
        return false;
    }
    return true;
}

bool CNetCore_Socket::NetCore_Socket_Send(int hSocket, const char* lpszMsgBuffer, int nMsgLen, const char* lpszAddr,
                                          int nPort, int nTimeOut, int nIPVer) {
    ClearError();
    if (nMsgLen < 1) return Fail(ERROR_NETCORE_SOCKET_SEND_PARAMENT);

    // A peer that has gone (or a server closing the connection meanwhile) fails the send with
    // EPIPE instead of killing the caller's process with SIGPIPE.
    constexpr int kFlags = MSG_NOSIGNAL;
    int nOffset = 0;
    int nRemain = nMsgLen;
    time_t nTimeStart = time(nullptr);
    for (;;) {
        ssize_t nRet;
        if (lpszAddr == nullptr) {
            nRet = send(hSocket, lpszMsgBuffer + nOffset, nRemain, kFlags);
        } else if (nIPVer == AF_INET) {
            struct sockaddr_in st_Addr {};
            st_Addr.sin_family = AF_INET;
            st_Addr.sin_port = htons(static_cast<uint16_t>(nPort));
            inet_pton(AF_INET, lpszAddr, &st_Addr.sin_addr);
            nRet =
                sendto(hSocket, lpszMsgBuffer, nMsgLen, kFlags, reinterpret_cast<sockaddr*>(&st_Addr), sizeof(st_Addr));
        } else {
            struct sockaddr_in6 st_Addr {};
            // The family field says AF_INET on this path; callers depend on what the kernel makes
            // of that, so it stays.
            st_Addr.sin6_family = AF_INET;
            st_Addr.sin6_port = htons(static_cast<uint16_t>(nPort));
            inet_pton(AF_INET6, lpszAddr, &st_Addr.sin6_addr);
            nRet =
                sendto(hSocket, lpszMsgBuffer, nMsgLen, kFlags, reinterpret_cast<sockaddr*>(&st_Addr), sizeof(st_Addr));
        }

        if (nRet > 0) {
            if (nRet == nRemain) return true;
            // sendto resends the whole message each pass; only the count still owed shrinks
            nOffset += static_cast<int>(nRet);
            nRemain -= static_cast<int>(nRet);
            continue;
        }
        if (nRet == 0) return Fail(ERROR_NETCORE_SOCKET_SEND_CLOSED);
        if (errno != EAGAIN && errno != kForeignWouldBlock) return Fail(ERROR_NETCORE_SOCKET_SEND_FAILED);
        if (time(nullptr) - nTimeStart > nTimeOut) return Fail(ERROR_NETCORE_SOCKET_SEND_TIMEOUT);
        usleep(10 * 1000);
    }
}

bool CNetCore_Socket::NetCore_Socket_Recv(int hSocket, char* lpszMsgBuffer, int* pInt_MsgLen) {
    ClearError();
    // without a length nothing can be received
    if (pInt_MsgLen == nullptr) return Fail(ERROR_NETCORE_SOCKET_RECV_FAILED);
    ssize_t nRet = recv(hSocket, lpszMsgBuffer, *pInt_MsgLen, 0);
    if (nRet == -1) {
        return Fail(errno == EAGAIN ? ERROR_NETCORE_SOCKET_RECV_EMPTY : ERROR_NETCORE_SOCKET_RECV_FAILED);
    }
    if (nRet == 0) return Fail(ERROR_NETCORE_SOCKET_RECV_CLOSED);
    // the received count is deliberately not written back into *pInt_MsgLen
    return true;
}

bool CNetCore_Socket::NetCore_Socket_Close(int hSocket) {
    ClearError();
    shutdown(hSocket, SHUT_RDWR);
    close(hSocket);
    return true;
}

bool CNetCore_Socket::NetCore_Socket_SetNoneBlock(int hSocket, bool bNoneBlock) {
    ClearError();
    int nFlags = fcntl(hSocket, F_GETFL, 0);
    if (nFlags < 0) return Fail(ERROR_NETCORE_SOCKET_NONBLOCK_GETFLAG);
    if (bNoneBlock) {
        if (fcntl(hSocket, F_SETFL, nFlags | O_NONBLOCK) == -1) return Fail(ERROR_NETCORE_SOCKET_NONBLOCK_SET);
    } else {
        if (fcntl(hSocket, F_SETFL, nFlags & ~O_NONBLOCK) == -1) return Fail(ERROR_NETCORE_SOCKET_NONBLOCK_CLEAR);
    }
    return true;
}

bool CNetCore_Socket::NetCore_Socket_SetReAddr(int hSocket) {
    ClearError();
    if (!SetIntOption(hSocket, SOL_SOCKET, SO_REUSEADDR, 1)) return Fail(ERROR_NETCORE_SOCKET_REUSEADDR);
    return true;
}

bool CNetCore_Socket::NetCore_Socket_SetRePort(int hSocket) {
    ClearError();
    if (!SetIntOption(hSocket, SOL_SOCKET, SO_REUSEPORT, 1)) return Fail(ERROR_NETCORE_SOCKET_REUSEPORT);
    return true;
}

bool CNetCore_Socket::NetCore_Socket_SetTimedOut(int hSocket, int nTimeOut) {
    ClearError();
    struct timeval st_TimeOut {};
    st_TimeOut.tv_sec = nTimeOut;
    st_TimeOut.tv_usec = 0;
    if (setsockopt(hSocket, SOL_SOCKET, SO_SNDTIMEO, &st_TimeOut, sizeof(st_TimeOut)) == -1) {
        return Fail(ERROR_NETCORE_SOCKET_TIMEOUT_SEND);
    }
    if (setsockopt(hSocket, SOL_SOCKET, SO_RCVTIMEO, &st_TimeOut, sizeof(st_TimeOut)) == -1) {
        return Fail(ERROR_NETCORE_SOCKET_TIMEOUT_RECV);
    }
    return true;
}

bool CNetCore_Socket::NetCore_Socket_KeepAlive(int hSocket, bool bKeepAlive) {
    ClearError();
    constexpr int kIdleSeconds = 10;
    constexpr int kProbeCount = 3;
    constexpr int kIntervalSeconds = 5;
    if (!SetIntOption(hSocket, SOL_SOCKET, SO_KEEPALIVE, bKeepAlive)) {
        return Fail(ERROR_NETCORE_SOCKET_KEEPALIVE_ENABLE);
    }
    if (!SetIntOption(hSocket, IPPROTO_TCP, TCP_KEEPIDLE, kIdleSeconds)) {
        return Fail(ERROR_NETCORE_SOCKET_KEEPALIVE_IDLE);
    }
    // The probe count is passed with its own value as the option length; the platform decides
    // what to make of that, and callers see its answer.
    if (!SetIntOption(hSocket, IPPROTO_TCP, TCP_KEEPCNT, kProbeCount, kProbeCount)) {
        return Fail(ERROR_NETCORE_SOCKET_KEEPALIVE_COUNT);
    }
    if (!SetIntOption(hSocket, IPPROTO_TCP, TCP_KEEPINTVL, kIntervalSeconds)) {
        return Fail(ERROR_NETCORE_SOCKET_KEEPALIVE_INTERVAL);
    }
    return true;
}

bool CNetCore_Socket::NetCore_Socket_FastStart(int hSocket, bool bEnable) {
    ClearError();
    // one byte each, as the platform is handed it
    char chFlag = bEnable ? 1 : 0;
    if (setsockopt(hSocket, SOL_SOCKET, SO_DEBUG, &chFlag, 1) == -1) return Fail(ERROR_NETCORE_SOCKET_FASTSTART_FIRST);
    if (setsockopt(hSocket, SOL_SOCKET, SO_DONTROUTE, &chFlag, 1) == -1) {
        return Fail(ERROR_NETCORE_SOCKET_FASTSTART_SECOND);
    }
    return true;
}

bool CNetCore_Socket::NetCore_Socket_GetBufferSize(int hSocket, int* pInt_RecvBuf, int* pInt_SendBuf) {
    ClearError();
    socklen_t nLen = sizeof(int);
    if (pInt_RecvBuf != nullptr) getsockopt(hSocket, SOL_SOCKET, SO_RCVBUF, pInt_RecvBuf, &nLen);
    nLen = sizeof(int);
    if (pInt_SendBuf != nullptr) getsockopt(hSocket, SOL_SOCKET, SO_SNDBUF, pInt_SendBuf, &nLen);
    return true;
}

bool CNetCore_Socket::NetCore_Socket_SetBufferSize(int hSocket, int nSendBuf, int nRecvBuf) {
    ClearError();
    if (nRecvBuf > 0) SetIntOption(hSocket, SOL_SOCKET, SO_RCVBUF, nRecvBuf);
    if (nSendBuf > 0) SetIntOption(hSocket, SOL_SOCKET, SO_SNDBUF, nSendBuf);
    return true;
}

bool CNetCore_Socket::NetCore_Socket_IOSelect(int hSocket, bool bRead, int nTimeOut) {
    ClearError();
    if (hSocket == -1) return Fail(ERROR_NETCORE_SOCKET_SELECT_PARAMENT);

    // The whole time-out goes into the microseconds field, computed in 32 bits as callers have
    // always had it (wrapping rather than overflowing for very large values).
    struct timeval st_TimeOut {};
    st_TimeOut.tv_sec = 0;
    st_TimeOut.tv_usec = static_cast<int>(static_cast<unsigned int>(nTimeOut) * 1000u);
    bool bIsSet = false;
    int nRet = netcore::platform::SelectOne(hSocket, bRead, &st_TimeOut, &bIsSet);
    if (nRet < 0) return Fail(ERROR_NETCORE_SOCKET_SELECT_FAILED);
    if (nRet == 0) return Fail(ERROR_NETCORE_SOCKET_SELECT_TIMEOUT);
    if (!bIsSet) return Fail(ERROR_NETCORE_SOCKET_SELECT_NOTSET);
    return true;
}

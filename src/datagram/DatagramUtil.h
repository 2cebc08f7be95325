// Small pieces shared by the datagram endpoints: the sender of a received datagram (the address
// record handed to recvfrom and its "address:port" text), the receive size, and closing a
// half-made socket.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>

namespace netcore::datagram {

// Room for "address:port"; the longest IPv6 text with a port is well inside it.
constexpr int kAddrPortTextSize = 128;

class PeerAddr {
public:
    // nIPVer 2 (AF_INET) receives into a sockaddr_in, anything else into a sockaddr_in6.
    explicit PeerAddr(int nIPVer) : m_bIPv4(nIPVer == AF_INET) {
        memset(&m_St_Addr, 0, sizeof(m_St_Addr));
        m_nLen = m_bIPv4 ? sizeof(m_St_Addr.st_In) : sizeof(m_St_Addr.st_In6);
    }
    sockaddr* Addr() { return &m_St_Addr.st_Base; }
    socklen_t* Len() { return &m_nLen; }

    // "%s:%d", port in host order. A record recvfrom did not fill gives the zero address and 0.
    void Format(char* ptszOut, size_t nSize) const {
        char tszAddr[kAddrPortTextSize] = {};
        if (m_bIPv4) {
            inet_ntop(AF_INET, &m_St_Addr.st_In.sin_addr, tszAddr, sizeof(tszAddr));
            snprintf(ptszOut, nSize, "%s:%d", tszAddr, ntohs(m_St_Addr.st_In.sin_port));
        } else {
            inet_ntop(AF_INET6, &m_St_Addr.st_In6.sin6_addr, tszAddr, sizeof(tszAddr));
            snprintf(ptszOut, nSize, "%s:%d", tszAddr, ntohs(m_St_Addr.st_In6.sin6_port));
        }
    }

private:
    union {
        sockaddr st_Base;
        sockaddr_in st_In;
        sockaddr_in6 st_In6;
    } m_St_Addr;
    socklen_t m_nLen;
    bool m_bIPv4;
};

// The receive size a caller's length gives. A negative length would reach the kernel as a huge
// size and let a datagram run past the caller's buffer; it receives nothing instead.
inline size_t BufferRoom(int nLen) {
    return nLen > 0 ? static_cast<size_t>(nLen) : 0;
}

// Closes a socket that a failing step leaves behind, keeping the errno that step set for the
// caller to read with NetCore_GetLastError.
inline void CloseKeepErrno(int hSocket) {
    int nSaved = errno;
    close(hSocket);
    errno = nSaved;
}

}  // namespace netcore::datagram

// Helpers for the datagram suites: free ports, plain peers and the namespace fixture.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>

#include "NetNamespace.h"
#include "Ombrelt_NetCore.h"
#include "TestSupport.h"

namespace dgtest {

// A UDP port that nothing in this namespace is bound to right now (on the wildcard address).
inline int FreeUdpPort(int family) {
    int port = 0;
    nctest::Fd probe(socket(family, SOCK_DGRAM, 0));
    sockaddr_storage addr{};
    socklen_t len;
    if (family == AF_INET) {
        auto* in = reinterpret_cast<sockaddr_in*>(&addr);
        in->sin_family = AF_INET;
        len = sizeof(sockaddr_in);
    } else {
        auto* in6 = reinterpret_cast<sockaddr_in6*>(&addr);
        in6->sin6_family = AF_INET6;
        len = sizeof(sockaddr_in6);
    }
    if (bind(probe.Get(), reinterpret_cast<sockaddr*>(&addr), len) == 0) port = nctest::LocalPort(probe.Get());
    return port;
}

// sendto from a plain socket to text address and port.
inline bool SendTo(int fd, const std::string& data, const char* addr, int port) {
    sockaddr_storage st{};
    socklen_t len;
    if (inet_pton(AF_INET, addr, &reinterpret_cast<sockaddr_in*>(&st)->sin_addr) == 1) {
        auto* in = reinterpret_cast<sockaddr_in*>(&st);
        in->sin_family = AF_INET;
        in->sin_port = htons(static_cast<uint16_t>(port));
        len = sizeof(sockaddr_in);
    } else {
        auto* in6 = reinterpret_cast<sockaddr_in6*>(&st);
        in6->sin6_family = AF_INET6;
        in6->sin6_port = htons(static_cast<uint16_t>(port));
        if (inet_pton(AF_INET6, addr, &in6->sin6_addr) != 1) return false;
        len = sizeof(sockaddr_in6);
    }
    return sendto(fd, data.data(), data.size(), 0, reinterpret_cast<sockaddr*>(&st), len) ==
           static_cast<ssize_t>(data.size());
}

// Receives one datagram on a plain socket, waiting up to 5 s.
inline std::string RecvPlain(int fd) {
    timeval tv{5, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof(tv));
    char buf[4096];
    ssize_t n = recv(fd, buf, sizeof(buf), 0);
    return n < 0 ? std::string("<nothing>") : std::string(buf, static_cast<size_t>(n));
}

// Puts a pipe in place of the socket behind hSocket, so that the next receive on it fails the
// way a broken socket does (not a socket) while the descriptor stays open for the library to
// close.
inline void BreakSocket(int hSocket) {
    int fds[2];
    ASSERT_EQ(0, pipe(fds));
    ASSERT_EQ(hSocket, dup2(fds[0], hSocket));
    close(fds[0]);
    close(fds[1]);
}

// Whether this platform takes the outgoing multicast interface option. A user-mode emulator that
// does not translate it refuses it with ENOPROTOOPT; no multicast endpoint can be made there.
inline bool MulticastInterfaceSupported() {
    nctest::Fd probe(socket(AF_INET, SOCK_DGRAM, 0));
    in_addr local{};
    local.s_addr = htonl(INADDR_LOOPBACK);
    return setsockopt(probe.Get(), IPPROTO_IP, IP_MULTICAST_IF, &local, sizeof(local)) == 0;
}

// Whether IPv6 sockets take option number 33 at the IPv6 level, which multicast creation sets
// for a time-to-live; a user-mode emulator may not translate it.
inline bool Ipv6Option33Supported() {
    nctest::Fd probe(socket(AF_INET6, SOCK_DGRAM, 0));
    int value = 1;
    return probe.Get() >= 0 && setsockopt(probe.Get(), IPPROTO_IPV6, 33, &value, sizeof(value)) == 0;
}

inline void ExpectFailure(unsigned long long code) {
    EXPECT_TRUE(nctest::ErrorFlag());
    EXPECT_EQ(code, NetCore_GetLastError(nullptr));
}

// Runs a test in its own network namespace (see NetNamespace.h), or skips it where none can be
// made.
class NamespaceTest : public nctest::NetCoreTest {
protected:
    void SetUp() override {
        nctest::NetCoreTest::SetUp();
        if (!m_Namespace.Enter()) GTEST_SKIP() << m_Namespace.Why();
    }
    void TearDown() override {
        m_Namespace.Leave();
        nctest::NetCoreTest::TearDown();
    }

private:
    NetNamespace m_Namespace;
};

}  // namespace dgtest

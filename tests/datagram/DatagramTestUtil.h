// Helpers for the datagram suites: plain peers, a socket made to fail, and a private network
// namespace for the cases that broadcast or join a group.
#pragma once

#include <arpa/inet.h>
#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

#include <cstdlib>
#include <utility>
#include <vector>

#include "Ombrelt_NetCore.h"
#include "TestSupport.h"

namespace dgtest {

inline void ExpectFailure(unsigned long long code) {
    EXPECT_EQ(code, nctest::ErrorFlag() ? NetCore_GetLastError(nullptr) : 0);
}

// A table of calls that must each fail and leave their code.
#define FAILS(call, code) std::make_pair(std::function<bool()>([&] { return call; }), code)
using Rows = std::vector<std::pair<std::function<bool()>, unsigned long long>>;
inline void ExpectRowsFail(const Rows& rows) {
    for (size_t i = 0; i < rows.size(); i++) {
        SCOPED_TRACE(i);
        EXPECT_FALSE(rows[i].first());
        ExpectFailure(rows[i].second);
    }
}

// sendto from a plain socket to loopback (127.0.0.1, or ::1 for AF_INET6) at port.
inline bool SendTo(int fd, const std::string& data, int port, int family = AF_INET) {
    sockaddr_in st4{AF_INET, htons(static_cast<uint16_t>(port)), {htonl(INADDR_LOOPBACK)}, {}};
    sockaddr_in6 st6{AF_INET6, st4.sin_port, 0, in6addr_loopback, 0};
    auto* addr = family == AF_INET ? reinterpret_cast<sockaddr*>(&st4) : reinterpret_cast<sockaddr*>(&st6);
    socklen_t len = family == AF_INET ? sizeof(st4) : sizeof(st6);
    return sendto(fd, data.data(), data.size(), 0, addr, len) == static_cast<ssize_t>(data.size());
}

// Puts a pipe's read end in place of the socket behind hSocket: a receive on it fails (not a
// socket) and it never turns writable, while the descriptor stays open for the library to close.
inline void BreakSocket(int hSocket) {
    int fds[2];
    ASSERT_EQ(0, pipe(fds));
    ASSERT_EQ(hSocket, dup2(fds[0], hSocket));
    close(fds[0]);
    close(fds[1]);
}

// Whether this platform takes the outgoing multicast interface option (a user-mode emulator may
// refuse it, and then no multicast endpoint can be made).
inline bool MulticastInterfaceSupported() {
    nctest::Fd probe(socket(AF_INET, SOCK_DGRAM, 0));
    in_addr local{htonl(INADDR_LOOPBACK)};
    return setsockopt(probe.Get(), IPPROTO_IP, IP_MULTICAST_IF, &local, sizeof(local)) == 0;
}

// Runs a test with its thread in a fresh network namespace: loopback up, and a veth pair nc0/nc1
// where nc0 holds kNsLocalAddr/24 and carries the limited-broadcast and multicast routes, so
// nothing sent leaves it. The namespace goes with its last socket, even when a test dies half-way.
constexpr const char* kNsLocalAddr = "10.77.0.1";
constexpr const char* kNsGroupAddr = "239.77.0.1";
constexpr int kNsPort = 7777;  // every port of a fresh namespace is free

class NamespaceTest : public nctest::NetCoreTest {
protected:
    void SetUp() override {
        // opened before the fixture counts descriptors: it stays open until the test object goes
        m_original.Reset(open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC));
        nctest::NetCoreTest::SetUp();
        if (m_original.Get() < 0 || unshare(CLONE_NEWNET) != 0) GTEST_SKIP() << "no network namespace can be made";
        // the shell and `ip` are children of this thread, so they work in its namespace
        if (system("(ip link set lo up && ip link add nc0 type veth peer name nc1 &&"
                   " ip addr add 10.77.0.1/24 broadcast 10.77.0.255 dev nc0 && ip link set nc0 up &&"
                   " ip link set nc1 up && ip route add 255.255.255.255/32 dev nc0 &&"
                   " ip route add 224.0.0.0/4 dev nc0) >/dev/null 2>&1") != 0) {
            GTEST_SKIP() << "`ip` could not set up the fresh network namespace";
        }
    }
    void TearDown() override {
        setns(m_original.Get(), CLONE_NEWNET);  // back to where the thread started
        nctest::NetCoreTest::TearDown();
    }

private:
    nctest::Fd m_original;
};

}  // namespace dgtest

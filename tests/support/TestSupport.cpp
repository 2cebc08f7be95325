#include "TestSupport.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <thread>
#include <utility>

#include "Ombrelt_NetCore.h"

namespace nctest {

bool WaitFor(const std::function<bool()>& pred, std::chrono::milliseconds timeout) {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!pred()) {
        if (std::chrono::steady_clock::now() >= deadline) return pred();
        std::this_thread::sleep_for(2ms);
    }
    return true;
}

namespace {
int CountEntries(const char* path) {
    DIR* dir = opendir(path);
    if (dir == nullptr) return -1;
    int count = 0;
    while (dirent* entry = readdir(dir)) {
        if (entry->d_name[0] != '.') count++;
    }
    closedir(dir);
    return count;
}
}  // namespace

int CountOpenFds() {
    return CountEntries("/proc/self/fd");
}
int CountThreads() {
    return CountEntries("/proc/self/task");
}

Fd& Fd::operator=(Fd&& other) noexcept {
    if (this != &other) Reset(other.Release());
    return *this;
}
int Fd::Release() {
    return std::exchange(m_fd, -1);
}
void Fd::Reset(int fd) {
    if (m_fd >= 0) close(m_fd);
    m_fd = fd;
}

namespace {
socklen_t LoopbackAddr(int family, int port, sockaddr_storage* addr) {
    *addr = {};
    if (family == AF_INET) {
        auto* in = reinterpret_cast<sockaddr_in*>(addr);
        in->sin_family = AF_INET;
        in->sin_port = htons(static_cast<uint16_t>(port));
        in->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        return sizeof(sockaddr_in);
    }
    auto* in6 = reinterpret_cast<sockaddr_in6*>(addr);
    in6->sin6_family = AF_INET6;
    in6->sin6_port = htons(static_cast<uint16_t>(port));
    in6->sin6_addr = in6addr_loopback;
    return sizeof(sockaddr_in6);
}
}  // namespace

bool Ipv6Available() {
    Fd fd(socket(AF_INET6, SOCK_DGRAM, 0));
    if (fd.Get() < 0) return false;
    sockaddr_storage addr;
    socklen_t len = LoopbackAddr(AF_INET6, 0, &addr);
    return bind(fd.Get(), reinterpret_cast<sockaddr*>(&addr), len) == 0;
}

int LocalPort(int fd) {
    sockaddr_storage addr{};
    socklen_t len = sizeof(addr);
    if (getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) != 0) return -1;
    if (addr.ss_family == AF_INET) return ntohs(reinterpret_cast<sockaddr_in*>(&addr)->sin_port);
    return ntohs(reinterpret_cast<sockaddr_in6*>(&addr)->sin6_port);
}

namespace {
// A loopback socket of the given type, bound to a free port (port 0) or connected to port.
Fd Loopback(int family, int type, int port, bool connectTo) {
    Fd fd(socket(family, type, 0));
    sockaddr_storage addr;
    socklen_t len = LoopbackAddr(family, port, &addr);
    EXPECT_EQ(0, (connectTo ? connect : bind)(fd.Get(), reinterpret_cast<sockaddr*>(&addr), len));
    return fd;
}
}  // namespace

Fd ListenTcp(int family, int* port) {
    Fd fd = Loopback(family, SOCK_STREAM, 0, false);
    EXPECT_EQ(0, listen(fd.Get(), 128));
    *port = LocalPort(fd.Get());
    return fd;
}

Fd ConnectTcp(int family, int port) {
    return Loopback(family, SOCK_STREAM, port, true);
}

Fd BindUdp(int family, int* port) {
    Fd fd = Loopback(family, SOCK_DGRAM, 0, false);
    *port = LocalPort(fd.Get());
    return fd;
}

void TcpPair(int family, Fd* client, Fd* server) {
    int port = 0;
    Fd listener = ListenTcp(family, &port);
    *client = ConnectTcp(family, port);
    *server = Fd(accept(listener.Get(), nullptr, nullptr));
    ASSERT_GE(server->Get(), 0);
}

bool ErrorFlag() {
    return __atomic_load_n(&NetCore_IsErrorOccur, __ATOMIC_RELAXED);
}

void ResetErrorState() {
    __atomic_store_n(&NetCore_IsErrorOccur, false, __ATOMIC_RELAXED);
    __atomic_store_n(&NetCore_dwErrorCode, 0ULL, __ATOMIC_RELAXED);
}

void ExpectCode(bool ok, unsigned long long code, const char* what) {
    EXPECT_TRUE(ok == (code == 0) && ErrorFlag() == (code != 0) && (code == 0 || code == NetCore_GetLastError(nullptr)))
        << what << ": " << ok << " " << NetCore_GetLastError(nullptr);
}

void NetCoreTest::SetUp() {
    ResetErrorState();
    m_fds = CountOpenFds();
    m_threads = CountThreads();
}

void NetCoreTest::TearDown() {
    // threads of a stopped server may take a moment to be reaped
    EXPECT_TRUE(WaitFor([&] { return CountThreads() <= m_threads; }, 5s))
        << "threads left behind: " << CountThreads() - m_threads;
    EXPECT_EQ(m_fds, CountOpenFds()) << "descriptors left behind";
}

}  // namespace nctest

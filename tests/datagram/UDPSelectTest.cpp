// UDP select endpoints through the exported functions, on loopback (127.0.0.1 and ::1).
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "DatagramTestUtil.h"
#include "Ombrelt_NetCore.h"
#include "TestSupport.h"

namespace {

using namespace std::chrono_literals;
using dgtest::ExpectFailure;
using dgtest::SendTo;
using nctest::ErrorFlag;
using nctest::Fd;

// An endpoint stopped at the end of the test, whatever happens in it.
class Endpoint {
public:
    Endpoint() = default;
    explicit Endpoint(void* handle) : m_handle(handle) {}
    Endpoint(const Endpoint&) = delete;
    Endpoint& operator=(const Endpoint&) = delete;
    ~Endpoint() { Stop(); }
    void* Get() const { return m_handle; }
    void Stop() {
        if (m_handle != nullptr) NetCore_UDPSelect_Stop(m_handle);
        m_handle = nullptr;
    }
    void* Release() { return std::exchange(m_handle, nullptr); }
    int Socket() const {
        int fd = -1;
        EXPECT_TRUE(NetCore_UDPSelect_GetSocket(m_handle, &fd));
        return fd;
    }

private:
    void* m_handle = nullptr;
};

// Starts an endpoint bound to a free port (retried: another process may take the probed port).
Endpoint StartBound(int ipver, int* port) {
    for (int attempt = 0; attempt < 20; attempt++) {
        *port = dgtest::FreeUdpPort(ipver == AF_INET ? AF_INET : AF_INET6);
        if (void* handle = NetCore_UDPSelect_Start(*port, ipver)) return Endpoint(handle);
    }
    ADD_FAILURE() << "no endpoint could be started";
    return Endpoint();
}

struct Datagram {
    std::string addr;
    int socket;
    std::string data;
    void* param;
};

// Collects what a receive callback is handed.
struct Inbox {
    std::mutex lock;
    std::vector<Datagram> got;
    void* stopHandle = nullptr;  // set: the callback stops this endpoint on its first datagram

    size_t Count() {
        std::lock_guard<std::mutex> guard(lock);
        return got.size();
    }
    Datagram At(size_t i) {
        std::lock_guard<std::mutex> guard(lock);
        return got.at(i);
    }
    static void OnRecv(const char* addr, int socket, const char* msg, int len, void* param) {
        auto* inbox = static_cast<Inbox*>(param);
        void* stop = nullptr;
        {
            std::lock_guard<std::mutex> guard(inbox->lock);
            inbox->got.push_back({addr, socket, std::string(msg, static_cast<size_t>(len)), param});
            stop = std::exchange(inbox->stopHandle, nullptr);
        }
        if (stop != nullptr) NetCore_UDPSelect_Stop(stop);
    }
};

struct PullResult {
    bool ok;
    std::string addr;
    std::string data;
};

PullResult Pull(void* handle, bool select, int room = 2048) {
    char addr[128] = {};
    std::vector<char> buffer(static_cast<size_t>(room) + 1, 0);
    int len = room;
    bool ok = NetCore_UDPSelect_Recv(handle, addr, buffer.data(), &len, select);
    return {ok, addr, ok ? std::string(buffer.data(), static_cast<size_t>(len)) : std::string()};
}

class UDPSelectTest : public nctest::NetCoreTest {};

// ----- pull mode ---------------------------------------------------------------------------------

TEST_F(UDPSelectTest, PullModeIPv4WithAndWithoutTheWait) {
    int port = 0;
    Endpoint endpoint = StartBound(AF_INET, &port);
    ASSERT_NE(nullptr, endpoint.Get());
    EXPECT_FALSE(ErrorFlag());
    EXPECT_EQ(port, nctest::LocalPort(endpoint.Socket()));

    int peerPort = 0;
    Fd peer = nctest::BindUdp(AF_INET, &peerPort);
    const std::string from = "127.0.0.1:" + std::to_string(peerPort);

    // nothing there: the 100 ms wait gives up with the readiness wait's code
    PullResult none = Pull(endpoint.Get(), true);
    EXPECT_FALSE(none.ok);
    ExpectFailure(ERROR_NETCORE_SOCKET_SELECT_TIMEOUT);

    ASSERT_TRUE(SendTo(peer.Get(), "first", "127.0.0.1", port));
    PullResult first = Pull(endpoint.Get(), true);
    ASSERT_TRUE(first.ok);
    EXPECT_FALSE(ErrorFlag());
    EXPECT_EQ("first", first.data);
    EXPECT_EQ(from, first.addr);

    // without the wait the receive blocks until a datagram is there
    ASSERT_TRUE(SendTo(peer.Get(), "second", "127.0.0.1", port));
    PullResult second = Pull(endpoint.Get(), false);
    ASSERT_TRUE(second.ok);
    EXPECT_EQ("second", second.data);
    EXPECT_EQ(from, second.addr);

    // a datagram longer than the buffer is cut to it; the length says what was stored
    ASSERT_TRUE(SendTo(peer.Get(), "0123456789", "127.0.0.1", port));
    PullResult cut = Pull(endpoint.Get(), true, 4);
    ASSERT_TRUE(cut.ok);
    EXPECT_EQ("0123", cut.data);

    // an empty datagram is a successful receive of 0 bytes in pull mode
    ASSERT_TRUE(SendTo(peer.Get(), "", "127.0.0.1", port));
    PullResult empty = Pull(endpoint.Get(), true);
    EXPECT_TRUE(empty.ok);
    EXPECT_EQ("", empty.data);
}

TEST_F(UDPSelectTest, PullModeIPv6NamesSendersByTheirIPv6Text) {
    if (!nctest::Ipv6Available()) GTEST_SKIP() << "no IPv6 loopback on this machine";
    for (int ipver : {AF_INET6, 0}) {  // any number but 2 means IPv6
        int port = 0;
        Endpoint endpoint = StartBound(ipver, &port);
        ASSERT_NE(nullptr, endpoint.Get());
        int domain = -1;
        socklen_t len = sizeof(domain);
        ASSERT_EQ(0, getsockopt(endpoint.Socket(), SOL_SOCKET, SO_DOMAIN, &domain, &len));
        EXPECT_EQ(AF_INET6, domain);

        int peerPort = 0;
        Fd peer = nctest::BindUdp(AF_INET6, &peerPort);
        ASSERT_TRUE(SendTo(peer.Get(), "over six", "::1", port));
        PullResult got = Pull(endpoint.Get(), true);
        ASSERT_TRUE(got.ok) << ipver;
        EXPECT_EQ("over six", got.data);
        EXPECT_EQ("::1:" + std::to_string(peerPort), got.addr);
        ASSERT_TRUE(SendTo(peer.Get(), "blocking", "::1", port));
        got = Pull(endpoint.Get(), false);
        ASSERT_TRUE(got.ok);
        EXPECT_EQ("blocking", got.data);
    }
}

TEST_F(UDPSelectTest, IPv6EndpointsReachEachOther) {
    if (!nctest::Ipv6Available()) GTEST_SKIP() << "no IPv6 loopback on this machine";
    int port = 0;
    Endpoint receiver = StartBound(AF_INET6, &port);
    Endpoint sender(NetCore_UDPSelect_Start(0, AF_INET6));
    ASSERT_NE(nullptr, receiver.Get());
    ASSERT_NE(nullptr, sender.Get());
    ASSERT_TRUE(NetCore_UDPSelect_Send(sender.Get(), "six to six", 10, "::1", port));
    PullResult got = Pull(receiver.Get(), true);
    ASSERT_TRUE(got.ok);
    EXPECT_EQ("six to six", got.data);
    const std::string suffix = ":" + std::to_string(nctest::LocalPort(sender.Socket()));
    ASSERT_GT(got.addr.size(), suffix.size());
    EXPECT_EQ(suffix, got.addr.substr(got.addr.size() - suffix.size())) << got.addr;
}

TEST_F(UDPSelectTest, UnboundEndpointSendsButCannotReceive) {
    Endpoint endpoint(NetCore_UDPSelect_Start(0, AF_INET));
    ASSERT_NE(nullptr, endpoint.Get());
    char addr[128];
    char buffer[16];
    int len = sizeof(buffer);
    EXPECT_FALSE(NetCore_UDPSelect_Recv(endpoint.Get(), addr, buffer, &len, true));
    ExpectFailure(ERROR_NETCORE_UDPSELECT_RECV_NOTBIND);

    int peerPort = 0;
    Fd peer = nctest::BindUdp(AF_INET, &peerPort);
    ASSERT_TRUE(NetCore_UDPSelect_Send(endpoint.Get(), "hello", 5, "127.0.0.1", peerPort));
    EXPECT_FALSE(ErrorFlag());
    EXPECT_EQ("hello", dgtest::RecvPlain(peer.Get()));
}

TEST_F(UDPSelectTest, ArgumentAndHandleCodes) {
    char addr[128];
    char buffer[16];
    int len = sizeof(buffer);
    int fd = -1;
    // Recv tests its buffers before its handle
    EXPECT_FALSE(NetCore_UDPSelect_Recv(nullptr, addr, nullptr, &len, false));
    ExpectFailure(ERROR_NETCORE_UDPSELECT_RECV_PARAMENT);
    EXPECT_FALSE(NetCore_UDPSelect_Recv(nullptr, addr, buffer, nullptr, false));
    ExpectFailure(ERROR_NETCORE_UDPSELECT_RECV_PARAMENT);
    EXPECT_FALSE(NetCore_UDPSelect_Recv(nullptr, addr, buffer, &len, false));
    ExpectFailure(ERROR_NETCORE_UDPSELECT_RECV_NOTFOUND);
    // Send tests its data and address before its handle
    EXPECT_FALSE(NetCore_UDPSelect_Send(nullptr, nullptr, 1, "127.0.0.1", 9));
    ExpectFailure(ERROR_NETCORE_UDPSELECT_SEND_PARAMENT);
    EXPECT_FALSE(NetCore_UDPSelect_Send(nullptr, "x", 1, nullptr, 9));
    ExpectFailure(ERROR_NETCORE_UDPSELECT_SEND_PARAMENT);
    EXPECT_FALSE(NetCore_UDPSelect_Send(nullptr, "x", 1, "127.0.0.1", 9));
    ExpectFailure(ERROR_NETCORE_UDPSELECT_HANDLE_NOTFOUND);
    EXPECT_FALSE(NetCore_UDPSelect_GetSocket(nullptr, &fd));
    ExpectFailure(ERROR_NETCORE_UDPSELECT_HANDLE_NOTFOUND);
    EXPECT_FALSE(NetCore_UDPSelect_SetMode(nullptr, true));
    ExpectFailure(ERROR_NETCORE_UDPSELECT_SETMODE_PARAMENT);
    EXPECT_FALSE(NetCore_UDPSelect_RegisterCallBack(nullptr, Inbox::OnRecv, nullptr));
    ExpectFailure(ERROR_NETCORE_UDPSELECT_CBSET_PARAMENT);
    EXPECT_TRUE(NetCore_UDPSelect_Stop(nullptr));
    EXPECT_FALSE(ErrorFlag());

    // an empty message is refused by the send underneath
    Endpoint endpoint(NetCore_UDPSelect_Start(0, AF_INET));
    ASSERT_NE(nullptr, endpoint.Get());
    EXPECT_FALSE(NetCore_UDPSelect_Send(endpoint.Get(), "", 0, "127.0.0.1", 9));
    ExpectFailure(ERROR_NETCORE_SOCKET_SEND_PARAMENT);
}

TEST_F(UDPSelectTest, StartOnABusyPortFailsWithTheBindCodeAndKeepsNothing) {
    int port = 0;
    Fd holder = nctest::BindUdp(AF_INET, &port);  // no address reuse: the port stays taken
    // the socket and record of the failed start are released (the fixture counts descriptors)
    EXPECT_EQ(nullptr, NetCore_UDPSelect_Start(port, AF_INET));
    ExpectFailure(ERROR_NETCORE_SOCKET_BIND_BIND);
}

TEST_F(UDPSelectTest, FailedReceiveGivesItsCode) {
    int port = 0;
    Endpoint endpoint = StartBound(AF_INET, &port);
    ASSERT_NE(nullptr, endpoint.Get());
    dgtest::BreakSocket(endpoint.Socket());
    EXPECT_FALSE(Pull(endpoint.Get(), false).ok);
    ExpectFailure(ERROR_NETCORE_UDPSELECT_RECV_FAILED);
}

// ----- callback mode -----------------------------------------------------------------------------

TEST_F(UDPSelectTest, CallbackModeDeliversAndSetModeSwitches) {
    int port = 0;
    Endpoint endpoint = StartBound(AF_INET, &port);
    ASSERT_NE(nullptr, endpoint.Get());
    int peerPort = 0;
    Fd peer = nctest::BindUdp(AF_INET, &peerPort);
    const std::string from = "127.0.0.1:" + std::to_string(peerPort);

    Inbox inbox;
    const int threadsBefore = nctest::CountThreads();
    ASSERT_TRUE(NetCore_UDPSelect_RegisterCallBack(endpoint.Get(), Inbox::OnRecv, &inbox));
    EXPECT_FALSE(ErrorFlag());
    EXPECT_EQ(threadsBefore + 1, nctest::CountThreads());

    // in callback mode the caller may not receive
    EXPECT_FALSE(Pull(endpoint.Get(), true).ok);
    ExpectFailure(ERROR_NETCORE_UDPSELECT_RECV_CALLMODE);

    ASSERT_TRUE(SendTo(peer.Get(), "one", "127.0.0.1", port));
    ASSERT_TRUE(SendTo(peer.Get(), "two", "127.0.0.1", port));
    ASSERT_TRUE(nctest::WaitFor([&] { return inbox.Count() >= 2; }));
    for (size_t i = 0; i < 2; i++) {
        Datagram d = inbox.At(i);
        EXPECT_EQ(i == 0 ? "one" : "two", d.data);
        EXPECT_EQ(from, d.addr);
        EXPECT_EQ(endpoint.Socket(), d.socket);
        EXPECT_EQ(&inbox, d.param);
    }

    // pull mode: the thread idles and leaves the datagrams to Recv. A thread already waiting in
    // its receive hands one more datagram to the callback before it sees the switch.
    ASSERT_TRUE(NetCore_UDPSelect_SetMode(endpoint.Get(), false));
    ASSERT_TRUE(SendTo(peer.Get(), "wake", "127.0.0.1", port));
    bool wokenByPull = false;
    ASSERT_TRUE(nctest::WaitFor([&] {
        if (inbox.Count() == 3) return true;
        PullResult r = Pull(endpoint.Get(), true);
        wokenByPull = r.ok && r.data == "wake";
        return wokenByPull;
    }));
    const size_t delivered = inbox.Count();
    EXPECT_EQ(wokenByPull ? 2u : 3u, delivered);
    ASSERT_TRUE(SendTo(peer.Get(), "pulled", "127.0.0.1", port));
    PullResult pulled = Pull(endpoint.Get(), true);
    ASSERT_TRUE(pulled.ok);
    EXPECT_EQ("pulled", pulled.data);

    // and back
    ASSERT_TRUE(NetCore_UDPSelect_SetMode(endpoint.Get(), true));
    ASSERT_TRUE(SendTo(peer.Get(), "three", "127.0.0.1", port));
    ASSERT_TRUE(nctest::WaitFor([&] { return inbox.Count() > delivered; }));
    EXPECT_EQ("three", inbox.At(delivered).data);
    EXPECT_EQ(delivered + 1, inbox.Count());

    endpoint.Stop();  // joins the receive thread: the fixture sees it gone
}

TEST_F(UDPSelectTest, CallbackDatagramsAreCutTo2048Bytes) {
    int port = 0;
    Endpoint endpoint = StartBound(AF_INET, &port);
    ASSERT_NE(nullptr, endpoint.Get());
    Inbox inbox;
    ASSERT_TRUE(NetCore_UDPSelect_RegisterCallBack(endpoint.Get(), Inbox::OnRecv, &inbox));
    int peerPort = 0;
    Fd peer = nctest::BindUdp(AF_INET, &peerPort);
    std::string big(3000, 'x');
    big[2047] = 'y';
    ASSERT_TRUE(SendTo(peer.Get(), big, "127.0.0.1", port));
    ASSERT_TRUE(nctest::WaitFor([&] { return inbox.Count() == 1; }));
    EXPECT_EQ(big.substr(0, 2048), inbox.At(0).data);
}

TEST_F(UDPSelectTest, EmptyDatagramEndsTheReceiveThread) {
    int port = 0;
    Endpoint endpoint = StartBound(AF_INET, &port);
    ASSERT_NE(nullptr, endpoint.Get());
    int peerPort = 0;
    Fd peer = nctest::BindUdp(AF_INET, &peerPort);
    Inbox inbox;
    const int threadsBefore = nctest::CountThreads();
    ASSERT_TRUE(NetCore_UDPSelect_RegisterCallBack(endpoint.Get(), Inbox::OnRecv, &inbox));

    ASSERT_TRUE(SendTo(peer.Get(), "", "127.0.0.1", port));
    ASSERT_TRUE(nctest::WaitFor([&] { return nctest::CountThreads() == threadsBefore; }));
    ASSERT_TRUE(SendTo(peer.Get(), "late", "127.0.0.1", port));
    EXPECT_EQ(0u, inbox.Count());

    // the endpoint stays in callback mode; switched to pull mode it finds the late datagram
    EXPECT_FALSE(Pull(endpoint.Get(), true).ok);
    ExpectFailure(ERROR_NETCORE_UDPSELECT_RECV_CALLMODE);
    ASSERT_TRUE(NetCore_UDPSelect_SetMode(endpoint.Get(), false));
    PullResult late = Pull(endpoint.Get(), true);
    ASSERT_TRUE(late.ok);
    EXPECT_EQ("late", late.data);
    EXPECT_EQ(0u, inbox.Count());
}

TEST_F(UDPSelectTest, SecondRegistrationSwapsTheCallbackOnTheSameThread) {
    int port = 0;
    Endpoint endpoint = StartBound(AF_INET, &port);
    ASSERT_NE(nullptr, endpoint.Get());
    int peerPort = 0;
    Fd peer = nctest::BindUdp(AF_INET, &peerPort);
    Inbox first;
    Inbox second;
    const int threadsBefore = nctest::CountThreads();
    ASSERT_TRUE(NetCore_UDPSelect_RegisterCallBack(endpoint.Get(), Inbox::OnRecv, &first));
    ASSERT_TRUE(SendTo(peer.Get(), "a", "127.0.0.1", port));
    ASSERT_TRUE(nctest::WaitFor([&] { return first.Count() == 1; }));

    ASSERT_TRUE(NetCore_UDPSelect_RegisterCallBack(endpoint.Get(), Inbox::OnRecv, &second));
    EXPECT_EQ(threadsBefore + 1, nctest::CountThreads());
    ASSERT_TRUE(SendTo(peer.Get(), "b", "127.0.0.1", port));
    ASSERT_TRUE(nctest::WaitFor([&] { return second.Count() == 1; }));
    EXPECT_EQ("b", second.At(0).data);
    EXPECT_EQ(1u, first.Count());

    // after an empty datagram ended the thread, registering starts a fresh one
    ASSERT_TRUE(SendTo(peer.Get(), "", "127.0.0.1", port));
    ASSERT_TRUE(nctest::WaitFor([&] { return nctest::CountThreads() == threadsBefore; }));
    ASSERT_TRUE(NetCore_UDPSelect_RegisterCallBack(endpoint.Get(), Inbox::OnRecv, &first));
    ASSERT_TRUE(SendTo(peer.Get(), "c", "127.0.0.1", port));
    ASSERT_TRUE(nctest::WaitFor([&] { return first.Count() == 2; }));
    EXPECT_EQ("c", first.At(1).data);
}

TEST_F(UDPSelectTest, StopFromItsOwnCallbackReleasesTheEndpoint) {
    int port = 0;
    Endpoint endpoint = StartBound(AF_INET, &port);
    ASSERT_NE(nullptr, endpoint.Get());
    int peerPort = 0;
    Fd peer = nctest::BindUdp(AF_INET, &peerPort);
    Inbox inbox;
    inbox.stopHandle = endpoint.Release();
    const int threadsBefore = nctest::CountThreads();
    const int fdsBefore = nctest::CountOpenFds();
    ASSERT_TRUE(NetCore_UDPSelect_RegisterCallBack(inbox.stopHandle, Inbox::OnRecv, &inbox));
    ASSERT_TRUE(SendTo(peer.Get(), "stop", "127.0.0.1", port));
    // the thread frees the endpoint and closes its socket once the callback has returned
    EXPECT_TRUE(nctest::WaitFor([&] { return nctest::CountThreads() == threadsBefore; }));
    EXPECT_TRUE(nctest::WaitFor([&] { return nctest::CountOpenFds() == fdsBefore - 1; }));
    EXPECT_EQ(1u, inbox.Count());
}

}  // namespace
